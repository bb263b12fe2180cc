// Index files: paths, opening the stream file, handles, debugging aids.
#include "lib/tsix_int.h"
#include "support/index_kit.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

using namespace ixk;
using strings = std::vector<std::string>;

namespace
{

constexpr size_t RSIZE = 7 * PKT;

std::string ixpath_of(const char* tspath)
{
    const tsix_int::text_ptr p(tsx_ixpath(tspath));
    return p ? p.get() : "(null)";
}

struct ctx_closer {
    void operator()(tsix_ctx* t) const { tsx_close(t); }
};
using ctx_ptr = std::unique_ptr<tsix_ctx, ctx_closer>;

// A stream file with its index.
struct tsix : testing::Test {
    TempDir dir;
    std::string ts = dir / "movie.ts";
    std::string ix = dir / "movie.ix";
    stream_plan plan = even_plan(100, 3, 10, 3600);
    LogCapture log;

    tsix() { put_file(ts, stream_bytes(plan)); }
    void make_index() { ASSERT_EQ(tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 0, 0), 0); }
    ctx_ptr open_stream(size_t rsize, size_t max_cached, uint32_t flags = TSX_SKIPLOAD)
    {
        return ctx_ptr(tsix_int::ts_open(ts.c_str(), rsize, max_cached, flags));
    }
};

} // namespace

// ---- paths ----------------------------------------------------------------------------------------------------

TEST_F(tsix, index_path_has_ix_behind_the_last_dot)
{
    EXPECT_EQ(ixpath_of("/a/b.ts"), "/a/b.ix");
    EXPECT_EQ(ixpath_of("b.x.mpegts"), "b.x.ix");
    EXPECT_EQ(ixpath_of("b."), "b.ix");
    EXPECT_EQ(ixpath_of("."), ".ix");
}

TEST_F(tsix, index_path_of_a_name_without_dot_is_cut_at_its_directorys_dot)
{
    EXPECT_EQ(ixpath_of("/a.d/b"), "/a.ix");
}

TEST_F(tsix, index_path_of_a_path_without_dot_is_none_with_a_warning)
{
    EXPECT_EQ(tsx_ixpath("/a/b"), nullptr);
    EXPECT_EQ(log.messages(ll::warning), strings{"tsx_ixpath: no extension in [/a/b], skip"});
}

TEST_F(tsix, a_null_index_path_is_the_derived_one)
{
    EXPECT_EQ(tsx_mkix(ts.c_str(), nullptr, RSIZE, 0, 0), 0);
    EXPECT_EQ(file_bytes(ix), index_file(want_clocks(plan, 7), 7));
    EXPECT_NE(ctx_ptr(tsx_open(ts.c_str(), nullptr, 0, 0)), nullptr);
}

TEST_F(tsix, without_a_dot_to_derive_from_nothing_is_made_or_opened)
{
    EXPECT_EQ(tsx_mkix("/dev/null", nullptr, RSIZE, 0, 0), -1);
    EXPECT_EQ(tsx_open("/dev/null", nullptr, 0, 0), nullptr);
    EXPECT_EQ(log.count("tsx_ixpath: no extension in [/dev/null], skip"), 2u);
}

TEST_F(tsix, is_there_when_the_index_can_be_opened)
{
    make_index();
    log.clear();
    EXPECT_TRUE(tsx_has_ix(ts.c_str()));
    EXPECT_EQ(lines_of(log, "tsx_has_ix"), strings{"tsx_has_ix: [" + ts + "] has  IX: [" + ix + "]"});
    EXPECT_EQ(lines_of(log, "tsx_close").size(), 3u); // two descriptors and the handle
}

TEST_F(tsix, is_not_there_when_stream_or_index_is_missing_or_broken_or_underivable)
{
    EXPECT_FALSE(tsx_has_ix(ts.c_str()));
    EXPECT_EQ(lines_of(log, "tsx_has_ix"), strings{"tsx_has_ix: [" + ts + "] has NO IX: [" + ix + "]"});
    make_index();
    bytes broken = file_bytes(ix);
    broken[0] = '#';
    put_file(ix, broken);
    EXPECT_FALSE(tsx_has_ix(ts.c_str()));
    EXPECT_FALSE(tsx_has_ix("/nowhere"));
    log.clear();
    EXPECT_FALSE(tsx_has_ix((dir / "gone.ts").c_str()));
    EXPECT_EQ(log.messages(ll::error), strings{}); // nothing is opened
}

TEST_F(tsix, is_looked_for_with_a_cache_of_a_megabyte)
{
    plan = even_plan(ONE_Mb / PKT + 100, 3, 10, 3600);
    put_file(ts, stream_bytes(plan));
    make_index();
    log.clear();
    EXPECT_TRUE(tsx_has_ix(ts.c_str()));
    const size_t records = ONE_Mb / PKT / 7;
    EXPECT_TRUE(log.contains("open_ix: (0x"));
    EXPECT_TRUE(log.contains("allocated " + std::to_string(records) + " records"));
}

// ---- opening the stream ---------------------------------------------------------------------------------------

TEST_F(tsix, refuses_a_cache_below_a_megabyte_however_small_the_file)
{
    errno = 0;
    EXPECT_EQ(open_stream(RSIZE, MIN_PLD_CACHED - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.messages(ll::error), strings{"ts_open: minimum cache size = 1048576 (>1048575)"});
    EXPECT_NE(open_stream(RSIZE, MIN_PLD_CACHED), nullptr);
    EXPECT_NE(open_stream(RSIZE, MIN_PLD_CACHED + 1), nullptr);
    EXPECT_EQ(tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 1, 0), -1);
    EXPECT_EQ(dir.names(), strings{"movie.ts"});
}

TEST_F(tsix, caches_no_more_than_the_file)
{
    const ctx_ptr t = open_stream(0, MIN_PLD_CACHED);
    EXPECT_EQ(t->ts_size, 100 * PKT);
    EXPECT_EQ(t->max_cached, 100 * PKT);
    EXPECT_EQ(t->last_pcr, P2_33);
    EXPECT_EQ(t->ixfd, -1);
    EXPECT_EQ(t->buf, nullptr); // not loaded
    EXPECT_EQ(lines_of(log, "ts_open"), strings{"ts_open: (P) created, size/cached=18800/18800"});
}

TEST_F(tsix, caches_a_gigabyte_in_whole_packets_when_not_told)
{
    ASSERT_EQ(truncate(ts.c_str(), 5L << 30), 0);
    EXPECT_EQ(open_stream(0, 0)->max_cached, 1073741696u);
    EXPECT_EQ(open_stream(RSIZE, 0)->max_cached, 1073741696u); // whole packets, so no cut to whole records
}

TEST_F(tsix, cuts_the_cache_to_whole_records_or_packets)
{
    ASSERT_EQ(truncate(ts.c_str(), 5L << 30), 0);
    EXPECT_EQ(open_stream(0, MIN_PLD_CACHED)->max_cached, MIN_PLD_CACHED / PKT * PKT);
    EXPECT_EQ(open_stream(RSIZE, MIN_PLD_CACHED)->max_cached, MIN_PLD_CACHED / RSIZE * RSIZE);
    const size_t whole_packets = (MIN_PLD_CACHED / PKT + 1) * PKT;
    EXPECT_NE(whole_packets % RSIZE, 0u);
    EXPECT_EQ(open_stream(RSIZE, whole_packets)->max_cached, whole_packets);
}

TEST_F(tsix, refuses_a_record_size_that_is_no_multiple_of_a_packet)
{
    errno = 0;
    EXPECT_EQ(open_stream(RSIZE + 1, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(open_stream(187, 0), nullptr);
    EXPECT_EQ(log.messages(ll::error),
              (strings{"ts_open: invalid payload-record size: 1317", "ts_open: invalid payload-record size: 187"}));
}

TEST_F(tsix, refuses_a_record_as_large_as_the_cache)
{
    EXPECT_NE(open_stream(99 * PKT, 0), nullptr);
    EXPECT_EQ(open_stream(100 * PKT, 0), nullptr);
    EXPECT_EQ(open_stream(101 * PKT, 0), nullptr);
    EXPECT_EQ(log.count("invalid payload-record size"), 2u);
}

TEST_F(tsix, a_missing_stream_keeps_its_error_number)
{
    EXPECT_EQ(tsx_open((dir / "gone.ts").c_str(), ix.c_str(), 0, 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(tsx_mkix((dir / "gone.ts").c_str(), ix.c_str(), RSIZE, 0, 0), -1);
    EXPECT_EQ(dir.names(), strings{"movie.ts"});
}

TEST_F(tsix, a_missing_index_keeps_its_error_number)
{
    EXPECT_EQ(tsx_open(ts.c_str(), ix.c_str(), 0, 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

// ---- loads ----------------------------------------------------------------------------------------------------

TEST_F(tsix, loads_the_stretches_of_the_file_in_turn)
{
    const size_t load = MIN_PLD_CACHED / RSIZE * RSIZE;
    plan = even_plan(load / PKT + 10, 3, 10, 3600);
    const bytes data = stream_bytes(plan);
    put_file(ts, data);
    const ctx_ptr t = open_stream(RSIZE, MIN_PLD_CACHED, 0);
    EXPECT_EQ(t->pld_len, load);
    EXPECT_EQ(memcmp(t->buf, data.data(), load), 0);
    t->is_eod = true;
    ASSERT_EQ(tsix_int::load_buf(t.get()), 0);
    EXPECT_EQ(t->ts_offset, off_t(load));
    EXPECT_EQ(t->pld_len, 10 * PKT);
    EXPECT_EQ(t->buflen, load);
    EXPECT_FALSE(t->is_eod);
    EXPECT_EQ(memcmp(t->buf, data.data() + load, 10 * PKT), 0);
    EXPECT_EQ(bytes(t->buf + 10 * PKT, t->buf + load), bytes(load - 10 * PKT, 0)); // nothing of the last load is left
    EXPECT_EQ(lines_of(log, "load_buf"), (strings{"load_buf: (P) 1047536 bytes: fpos=0, plen=1047536",
                                                  "load_buf: (P) 1880 bytes: fpos=1047536, plen=1880"}));
}

TEST_F(tsix, does_not_load_less_than_a_packet)
{
    const ctx_ptr t = open_stream(RSIZE, 0, 0);
    EXPECT_EQ(tsix_int::load_buf(t.get()), -1);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_EQ(lines_of(log, "load_buf").back(), "load_buf: (P) only 0 bytes left 18800/18800, skipping");
    t->ts_size += PKT - 1;
    EXPECT_EQ(tsix_int::load_buf(t.get()), -1);
    EXPECT_EQ(lines_of(log, "load_buf").back(), "load_buf: (P) only 187 bytes left 18800/18987, skipping");
}

TEST_F(tsix, a_file_that_became_shorter_fails_to_load)
{
    const ctx_ptr t = open_stream(RSIZE, 0);
    ASSERT_EQ(truncate(ts.c_str(), 500), 0);
    EXPECT_EQ(tsix_int::load_buf(t.get()), -1);
    EXPECT_EQ(lines_of(log, "load_buf"), strings{"load_buf: (P) expected/read: 18800/500"});
}

TEST_F(tsix, an_empty_file_ends_the_load_in_an_assertion)
{
    ASSERT_EQ(truncate(ts.c_str(), 0), 0);
    EXPECT_DEATH((void)tsx_mkix(ts.c_str(), ix.c_str(), 0, 0, 0), "t->ts_size > 0 && t->tsfd >= 0");
}

TEST_F(tsix, an_empty_file_is_no_larger_than_any_record)
{
    ASSERT_EQ(truncate(ts.c_str(), 0), 0);
    EXPECT_EQ(tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 0, 0), -1);
    EXPECT_EQ(log.messages(ll::error), strings{"ts_open: invalid payload-record size: 1316"});
}

// ---- handles --------------------------------------------------------------------------------------------------

TEST_F(tsix, closing_nothing_is_nothing)
{
    tsx_close(nullptr);
    EXPECT_EQ(log.messages(), strings{});
}

TEST_F(tsix, closing_says_so)
{
    make_index();
    tsix_t t = tsx_open(ts.c_str(), ix.c_str(), 0, 0);
    ASSERT_NE(t, nullptr);
    log.clear();
    tsx_close(t);
    EXPECT_EQ(lines_of(log, "tsx_close").back(), "tsx_close: (P) closed");
}

TEST_F(tsix, a_paced_file_gets_its_handle)
{
    make_index();
    tsix_stream spec = {};
    strcpy(spec.tspath, ts.c_str());
    spec.max_cached = ONE_Mb;
    const ctx_ptr t(tsx_iter_open(&spec));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(spec.tsx, t.get());
    EXPECT_TRUE(t->iter.is_ready);
    EXPECT_EQ(t->flags, TSX_SKIPLOAD);
}

TEST_F(tsix, a_paced_file_without_index_gets_none)
{
    tsix_stream spec = {};
    strcpy(spec.tspath, ts.c_str());
    spec.max_cached = ONE_Mb;
    spec.tsx = reinterpret_cast<tsix_t>(&spec); // stale
    EXPECT_EQ(tsx_iter_open(&spec), nullptr);
    EXPECT_EQ(spec.tsx, nullptr);
    EXPECT_EQ(lines_of(log, "tsx_iter_open"),
              strings{"tsx_iter_open: tsx_open(" + ts + ", " + ix + ", 1048576,..) failed"});
}

TEST_F(tsix, a_paced_file_without_a_dot_gets_none)
{
    tsix_stream spec = {};
    strcpy(spec.tspath, "/nowhere");
    EXPECT_EQ(tsx_iter_open(&spec), nullptr);
    EXPECT_EQ(lines_of(log, "tsx_iter_open"), strings{"tsx_iter_open: tsx_open(/nowhere, , 0,..) failed"});
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST_F(tsix, validate_objects_to_each_wrong_field_of_a_reader)
{
    make_index();
    const ctx_ptr t(tsx_open(ts.c_str(), ix.c_str(), 0, 0));
    ASSERT_TRUE(tsx_validate(t.get()));
    using bend = std::function<void(tsix_ctx&)>;
    const bend bends[] = {
        [](tsix_ctx& c) { c.flags = 4; },
        [](tsix_ctx& c) { c.tsfd = -1; },
        [](tsix_ctx& c) { c.ixfd = -1; },
        [](tsix_ctx& c) { c.ixbuf.ptr = nullptr; },
        [](tsix_ctx& c) { c.max_icount = 0; },
        [](tsix_ctx& c) { c.max_icount = 100; }, // more than the index has
        [](tsix_ctx& c) { c.icount = 1; },
        [](tsix_ctx& c) { c.ixpath = nullptr; },
        [](tsix_ctx& c) { c.rsize = 100; },
        [](tsix_ctx& c) { c.max_cached = c.ts_size + 1; },
        [](tsix_ctx& c) { c.iter.idx = c.header.irec_count + 1; },
        [](tsix_ctx& c) { c.iter.start_idx = 1; },
        [](tsix_ctx& c) { c.iter.bytes_out = c.ts_size + 1; },
    };
    for (size_t i = 0; i < std::size(bends); ++i) {
        tsix_ctx c = *t;
        bends[i](c);
        EXPECT_FALSE(tsx_validate(&c)) << "change " << i;
    }
    EXPECT_FALSE(tsx_validate(nullptr));
}

TEST_F(tsix, validate_objects_to_each_wrong_field_of_a_builder)
{
    const ctx_ptr t = open_stream(RSIZE, 0, 0);
    ASSERT_TRUE(tsx_validate(t.get()));
    using bend = std::function<void(tsix_ctx&)>;
    const bend bends[] = {
        [](tsix_ctx& c) { c.buflen = 0; },
        [](tsix_ctx& c) { c.buf = nullptr; },
        [](tsix_ctx& c) { c.pld_len = c.buflen + PKT; },
        [](tsix_ctx& c) { c.pld_len -= 1; },
        [](tsix_ctx& c) { c.max_cached = c.buflen - 1; },
        [](tsix_ctx& c) { c.ts_offset = -1; },
        [](tsix_ctx& c) { c.icount = 1; },
        [](tsix_ctx& c) { c.start_irec = 1; },
        [](tsix_ctx& c) { c.last_pcr = P2_33 + 1; },
        [](tsix_ctx& c) { c.last_pcr = 1; },
        [](tsix_ctx& c) { c.pcr_count = 1; },
        [](tsix_ctx& c) { c.iter.idx = 1; },
        [](tsix_ctx& c) { c.iter.bytes_out = 1; },
        [](tsix_ctx& c) { c.header.irec_count = 1; },
        [](tsix_ctx& c) { c.nix_pkt_count = -7; },
        [](tsix_ctx& c) { c.is_eod = true; },
    };
    for (size_t i = 0; i < std::size(bends); ++i) {
        tsix_ctx c = *t;
        bends[i](c);
        EXPECT_FALSE(tsx_validate(&c)) << "change " << i;
    }
    tsix_ctx c = *t;
    c.nix_pkt_count = -6;
    EXPECT_TRUE(tsx_validate(&c));
}

TEST_F(tsix, dump_tells_of_a_handle_in_words)
{
    make_index();
    const ctx_ptr t(tsx_open(ts.c_str(), ix.c_str(), 0, 0));
    char* text = nullptr;
    size_t len = 0;
    FILE* out = open_memstream(&text, &len);
    tsx_dump(t.get(), out);
    tsx_dump(nullptr, out);
    fclose(out);
    const std::string s(text, len);
    free(text);
    EXPECT_NE(s.find("index [" + ix + "]"), std::string::npos) << s;
    EXPECT_NE(s.find("open for reading, valid\n"), std::string::npos) << s;
    EXPECT_NE(s.find("header: [TSIX] version 1, 7 units, 15 records of 8 bytes"), std::string::npos) << s;
    EXPECT_NE(s.find("index: none\n"), std::string::npos) << s;
}
