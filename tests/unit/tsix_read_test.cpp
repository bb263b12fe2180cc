// Reading an index: what the iterator gives, against an account worked out in another way, and files that lie.
#include "lib/tsix_int.h"
#include "support/index_kit.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace ixk;
using strings = std::vector<std::string>;

namespace
{

constexpr size_t UNITS = 7;
constexpr size_t RSIZE = UNITS * PKT;

struct ctx_closer {
    void operator()(tsix_ctx* t) const { tsx_close(t); }
};
using ctx_ptr = std::unique_ptr<tsix_ctx, ctx_closer>;

// A stream file, whose bytes nobody reads, and an index made by hand.
struct tsix_read : testing::Test {
    TempDir dir;
    std::string ts = dir / "a.ts";
    std::string ix = dir / "a.ix";
    LogCapture log;

    tsix_read() { stream_of(100 * RSIZE); }
    void stream_of(size_t size)
    {
        put_file(ts, {});
        ASSERT_EQ(truncate(ts.c_str(), static_cast<off_t>(size)), 0);
    }
    ctx_ptr open(size_t max_cached = 0, uint32_t flags = 0)
    {
        return ctx_ptr(tsx_open(ts.c_str(), ix.c_str(), max_cached, flags));
    }
    ctx_ptr open(const bytes& index, size_t max_cached = 0, uint32_t flags = 0)
    {
        put_file(ix, index);
        return open(max_cached, flags);
    }
    // One call; its result and delay.
    static run next(const ctx_ptr& t, size_t max_len, size_t max_delay)
    {
        size_t delay = 12345;
        const ssize_t n = tsx_next(t.get(), max_len, max_delay, &delay);
        return {static_cast<size_t>(n), delay};
    }
};

// `count` clocks, each `step` ticks behind the one before.
std::vector<uint64_t> even_clocks(size_t count, uint64_t step)
{
    std::vector<uint64_t> clocks;
    for (size_t i = 1; i <= count; ++i)
        clocks.push_back(i * step);
    return clocks;
}

} // namespace

// ---- runs -----------------------------------------------------------------------------------------------------

TEST_F(tsix_read, gives_as_many_records_as_the_size_allows)
{
    const ctx_ptr t = open(index_file(even_clocks(100, 900), UNITS)); // 10 ms a record
    EXPECT_EQ(next(t, 3 * RSIZE, 1000), run(3 * RSIZE, 30000));
    EXPECT_EQ(next(t, 4 * RSIZE - 1, 1000), run(3 * RSIZE, 30000));
    EXPECT_EQ(next(t, 4 * RSIZE + 1, 1000), run(4 * RSIZE, 40000));
}

TEST_F(tsix_read, gives_as_many_records_as_the_time_allows)
{
    const ctx_ptr t = open(index_file(even_clocks(100, 900), UNITS));
    EXPECT_EQ(next(t, 100 * RSIZE, 30), run(3 * RSIZE, 30000));
    EXPECT_EQ(next(t, 100 * RSIZE, 29), run(2 * RSIZE, 20000));
    EXPECT_EQ(next(t, 100 * RSIZE, 40), run(4 * RSIZE, 40000));
}

TEST_F(tsix_read, allows_half_a_millisecond_on_top)
{
    // 45 ticks are 500 us, 46 are 511 us.
    EXPECT_EQ(next(open(index_file({900, 1845}, UNITS)), 10 * RSIZE, 20), run(2 * RSIZE, 20500));
    EXPECT_EQ(next(open(index_file({900, 1846}, UNITS)), 10 * RSIZE, 20), run(RSIZE, 10000));
}

TEST_F(tsix_read, a_size_limit_below_a_record_gives_one_record_at_a_time_with_a_warning)
{
    const ctx_ptr t = open(index_file(even_clocks(3, 900), UNITS));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(next(t, RSIZE - 1, 1000), run(RSIZE, 10000));
    EXPECT_EQ(plain(log.messages(ll::warning)), strings(3, "tsx_next: (P) extending delay to gain size"));
    EXPECT_EQ(next(t, 0, 1000), run(0, 0));
}

TEST_F(tsix_read, a_time_limit_below_a_record_gives_one_record_at_a_time_with_a_warning)
{
    const ctx_ptr t = open(index_file(even_clocks(3, 900), UNITS));
    EXPECT_EQ(next(t, 10 * RSIZE, 9), run(RSIZE, 10000));
    EXPECT_EQ(next(t, 10 * RSIZE, 0), run(RSIZE, 10000));
    EXPECT_EQ(log.count("extending delay to gain size"), 2u);
    EXPECT_EQ(next(t, 10 * RSIZE, 10), run(RSIZE, 10000));
    EXPECT_EQ(log.count("extending delay to gain size"), 2u);
}

TEST_F(tsix_read, without_limits_all_comes_at_once)
{
    const ctx_ptr t = open(index_file(even_clocks(100, 900), UNITS));
    EXPECT_EQ(next(t, SIZE_MAX, SIZE_MAX), run(100 * RSIZE, 1000000));
}

TEST_F(tsix_read, takes_sizes_from_the_records_where_they_are)
{
    bytes index = head_bytes({.units = 7, .count = 3, .irec_size = 10});
    for (const auto& [clock, size] : {std::pair{900U, 188U}, {1800U, 1316U}, {2700U, 65535U}}) {
        put_le(&index, clock, 8);
        put_le(&index, size, 2);
    }
    const ctx_ptr t = open(index, 0, TSX_VARLEN);
    EXPECT_EQ(next(t, 1600, 1000), run(1504, 20000));
    EXPECT_EQ(next(t, 100000, 1000), run(65535, 10000));
}

TEST_F(tsix_read, is_right_for_any_clocks_sizes_chunks_and_limits)
{
    std::mt19937 rnd(11);
    for (int turn = 0; turn < 60; ++turn) {
        const unsigned units = 1 + rnd() % 20;
        const size_t count = 1 + rnd() % 20000;
        const size_t ts_size = count * units * PKT - (turn % 3 ? rnd() % units * PKT : 0);
        std::vector<uint64_t> clocks;
        for (uint64_t c = 0; clocks.size() < count;)
            clocks.push_back(c += 1 + rnd() % 2000);
        stream_of(ts_size);
        const bool varlen = turn % 2;
        const size_t max_cached = turn % 5 ? MIN_PLD_CACHED : 0; // many chunks, or one
        const size_t rsize = units * PKT;
        const ctx_ptr t =
            open(index_file(clocks, units, varlen ? unsigned(rsize) : 0), max_cached, varlen ? TSX_VARLEN : 0);
        ASSERT_NE(t, nullptr);
        log_set_modules(&g_log, ll::error);
        const size_t max_len = rnd() % (turn % 7 ? 50 * rsize : 3 * ts_size);
        const size_t max_delay = rnd() % 200;
        ssize_t last = -1;
        EXPECT_TRUE(all_runs(t.get(), max_len, max_delay, &last) ==
                    want_runs(clocks, rsize, ts_size, max_len, max_delay))
            << "turn " << turn;
        EXPECT_EQ(last, 0);
        EXPECT_EQ(t->iter.bytes_out, ts_size);
    }
}

TEST_F(tsix_read, agrees_with_what_a_build_has_made)
{
    std::mt19937 rnd(3);
    for (const size_t units : {1U, 7U, 100U}) {
        const stream_plan plan = random_plan(rnd, 9000, 120, units);
        put_file(ts, stream_bytes(plan));
        unlink(ix.c_str());
        ASSERT_EQ(tsx_mkix(ts.c_str(), ix.c_str(), units * PKT, MIN_PLD_CACHED, 0), 0);
        const ctx_ptr t = open(MIN_PLD_CACHED);
        EXPECT_TRUE(all_runs(t.get(), 20000, 40) ==
                    want_runs(want_clocks(plan, units), units * PKT, 9000 * PKT, 20000, 40));
    }
}

// ---- the end --------------------------------------------------------------------------------------------------

TEST_F(tsix_read, the_last_run_ends_with_the_file)
{
    stream_of(2 * RSIZE + 3 * PKT);
    const ctx_ptr t = open(index_file(even_clocks(3, 900), UNITS));
    EXPECT_EQ(next(t, 2 * RSIZE, 1000), run(2 * RSIZE, 20000));
    EXPECT_EQ(next(t, 2 * RSIZE, 1000), run(3 * PKT, 10000));
    EXPECT_TRUE(log.contains("EOD data chunk resize: 1316 -> 564"));
}

TEST_F(tsix_read, the_end_stays_the_end)
{
    const ctx_ptr t = open(index_file(even_clocks(2, 900), UNITS));
    EXPECT_EQ(next(t, 9 * RSIZE, 1000), run(2 * RSIZE, 20000));
    log.clear();
    EXPECT_EQ(next(t, 9 * RSIZE, 1000), run(0, 0));
    EXPECT_EQ(next(t, 9 * RSIZE, 1000), run(0, 0));
    EXPECT_EQ(plain(log.messages(ll::info)), strings(2, "tsx_next: (P) EOD at rec=2, sclk=1800"));
    EXPECT_EQ(plain(log.messages(ll::debug)), strings(2, "tsx_next: (P) records: now/total: 0/2, bytes: 2632"));
}

TEST_F(tsix_read, records_behind_the_end_of_the_file_give_nothing)
{
    stream_of(2 * RSIZE);
    const ctx_ptr t = open(index_file(even_clocks(9, 900), UNITS));
    EXPECT_EQ(next(t, 2 * RSIZE, 1000), run(2 * RSIZE, 20000));
    EXPECT_EQ(next(t, 2 * RSIZE, 1000), run(0, 20000));
    EXPECT_EQ(t->iter.bytes_out, 2 * RSIZE);
}

// ---- the log --------------------------------------------------------------------------------------------------

TEST_F(tsix_read, tells_its_steps)
{
    stream_of(ONE_Mb + 50 * RSIZE);
    const size_t chunk = ONE_Mb / PKT * PKT / RSIZE;
    ASSERT_EQ(chunk, 796u);
    const ctx_ptr t = open(index_file(even_clocks(846, 900), UNITS), ONE_Mb);
    EXPECT_EQ(lines_of(log, "open_ix"),
              (strings{"open_ix: (P) runits=7 flags=0x0000 rcount=846 rsize=8", "open_ix: (P) allocated 796 records",
                       "open_ix: (P) loaded IX (6368 bytes) rec=0..795",
                       "open_ix: (P) opened [" + ix + "], 846 total records"}));
    log.clear();
    EXPECT_EQ(next(t, 800 * RSIZE, 10000), run(800 * RSIZE, 8000000));
    EXPECT_EQ(plain(log.messages()),
              (strings{"tsx_next: (P) loaded IX (400 bytes) rec=796..845",
                       "tsx_next: (P) 800 records ix[0..799]: sum/rsize=1052800 len=1052800 clk=720000/720000",
                       "tsx_next: (P) records: now/total: 800/800, bytes: 1052800"}));
    EXPECT_EQ(t->max_icount, 50u);
    EXPECT_EQ(t->iter.start_idx, 796u);
}

// ---- clocks at face value -------------------------------------------------------------------------------------

TEST_F(tsix_read, a_clock_that_steps_back_inside_a_run_nets_out)
{
    // By design clocks are subtracted as they are: the second record's delay is 400 ticks less than nothing.
    const ctx_ptr t = open(index_file({900, 500, 1400}, UNITS));
    EXPECT_EQ(next(t, 3 * RSIZE, 1000), run(3 * RSIZE, 15555));
}

TEST_F(tsix_read, a_clock_that_steps_back_at_the_start_of_a_run_is_a_delay_without_end)
{
    const ctx_ptr t = open(index_file({900, 500, 1400}, UNITS));
    EXPECT_EQ(next(t, RSIZE, 1000), run(RSIZE, 10000));
    EXPECT_EQ(next(t, RSIZE, 1000), run(RSIZE, UINT64_MAX));
    EXPECT_TRUE(log.contains("extending delay to gain size"));
    EXPECT_EQ(next(t, RSIZE, 1000), run(RSIZE, 10000));
    EXPECT_EQ(next(t, RSIZE, 1000), run(0, 0));
}

// ---- files that are no index ----------------------------------------------------------------------------------

TEST_F(tsix_read, refuses_an_incomplete_index)
{
    bytes index = index_file(even_clocks(5, 900), UNITS);
    index[0] = '#';
    EXPECT_EQ(open(index), nullptr);
    EXPECT_EQ(plain(log.messages(ll::error)), strings{"open_ix: (P) invalid IX header signature"});
}

TEST_F(tsix_read, refuses_any_other_signature)
{
    for (size_t i = 0; i < 4; ++i) {
        bytes index = index_file(even_clocks(5, 900), UNITS);
        index[i] ^= 0x20;
        EXPECT_EQ(open(index), nullptr) << i;
    }
}

TEST_F(tsix_read, refuses_another_version)
{
    for (const unsigned version : {0U, 2U, 255U}) {
        log.clear();
        EXPECT_EQ(open(head_bytes({.version = version, .count = 1})), nullptr);
        EXPECT_EQ(plain(log.messages(ll::error)),
                  strings{"open_ix: (P) version mismatch, expected/got 1/" + std::to_string(version)});
    }
}

TEST_F(tsix_read, refuses_an_index_cut_short_at_any_byte)
{
    const bytes index = index_file(even_clocks(3, 900), UNITS);
    for (size_t len = 0; len < index.size(); ++len) {
        log.clear();
        EXPECT_EQ(open(bytes(index.begin(), index.begin() + ptrdiff_t(len))), nullptr) << len;
        const std::string want = len < 34 ? "34/" + std::to_string(len) : "24/" + std::to_string(len - 34);
        EXPECT_EQ(plain(log.messages(ll::error)), strings{"open_ix: (P) expected/read: " + want});
    }
    EXPECT_NE(open(index), nullptr);
}

TEST_F(tsix_read, refuses_a_count_that_the_file_can_not_hold)
{
    for (const uint64_t count : {uint64_t{4}, uint64_t{1} << 32, uint64_t{1} << 61, UINT64_MAX}) {
        bytes index = index_file(even_clocks(3, 900), UNITS);
        bytes le;
        put_le(&le, count, 8);
        std::copy(le.begin(), le.end(), index.begin() + 8);
        EXPECT_EQ(open(index), nullptr) << count;
        EXPECT_EQ(log.messages(ll::error).size(), 1u);
        EXPECT_TRUE(log.contains("/24"));
        log.clear();
    }
}

TEST_F(tsix_read, a_count_below_the_files_is_taken)
{
    bytes index = index_file(even_clocks(3, 900), UNITS);
    index[8] = 2;
    EXPECT_EQ(next(open(index), SIZE_MAX, SIZE_MAX), run(2 * RSIZE, 20000));
}

TEST_F(tsix_read, a_count_that_proves_wrong_later_fails_the_run_each_time)
{
    stream_of(4 * ONE_Mb);
    const size_t chunk = ONE_Mb / PKT * PKT / RSIZE;
    bytes index = index_file(even_clocks(chunk + 10, 900), UNITS);
    index[8] = 0xff; // 0x03ff: 1023 records instead of 806
    index[9] = 0x03;
    const ctx_ptr t = open(index, ONE_Mb);
    EXPECT_EQ(next(t, (chunk - 1) * RSIZE, 100000), run((chunk - 1) * RSIZE, (chunk - 1) * 10000));
    log.clear();
    EXPECT_EQ(next(t, 10 * RSIZE, 100000), run(size_t(-1), 12345));
    EXPECT_EQ(plain(log.messages(ll::error)),
              (strings{"tsx_next: (P) expected/read: 1816/80", "tsx_next: (P) failed, rc=-1"}));
    EXPECT_EQ(uint64_t{t->ixbuf.ir[10].sclk}, 0u); // nothing of the chunk before is left
    EXPECT_EQ(uint64_t{t->ixbuf.ir[chunk - 1].sclk}, 0u);
    EXPECT_EQ(next(t, 10 * RSIZE, 100000), run(size_t(-1), 12345));
    EXPECT_EQ(next(t, 10 * RSIZE, 100000), run(size_t(-1), 12345));
    EXPECT_EQ(t->iter.idx, chunk);
}

TEST_F(tsix_read, refuses_records_of_the_other_kind)
{
    EXPECT_EQ(open(index_file(even_clocks(5, 900), UNITS), 0, TSX_VARLEN), nullptr);
    EXPECT_EQ(open(index_file(even_clocks(5, 900), UNITS, RSIZE), 0, 0), nullptr);
    EXPECT_EQ(plain(log.messages(ll::error)), (strings{"open_ix: (P) record size mismatch, expected/got 10/8",
                                                       "open_ix: (P) record size mismatch, expected/got 8/10"}));
    EXPECT_NE(open(index_file(even_clocks(5, 900), UNITS, RSIZE), 0, TSX_VARLEN), nullptr);
}

// ---- files that end the process -------------------------------------------------------------------------------

TEST_F(tsix_read, an_index_without_records_is_an_assertion)
{
    EXPECT_DEATH(open(head_bytes({.count = 0})), "t->max_icount > 0");
}

TEST_F(tsix_read, a_stream_smaller_than_a_record_is_an_assertion)
{
    stream_of(RSIZE);
    EXPECT_NE(open(index_file(even_clocks(5, 900), UNITS)), nullptr);
    stream_of(RSIZE - 1);
    EXPECT_DEATH(open(), "t->max_icount > 0");
}

TEST_F(tsix_read, an_unknown_record_size_is_an_assertion)
{
    for (const unsigned size : {0U, 7U, 9U, 11U, 65535U}) {
        EXPECT_DEATH(open(head_bytes({.count = 1, .irec_size = size})),
                     "sizeof\\(t->ixbuf.sr\\[0\\]\\) == t->header.irec_size \\|\\| "
                     "sizeof\\(t->ixbuf.ir\\[0\\]\\) == t->header.irec_size");
    }
}

TEST_F(tsix_read, a_second_array_is_an_assertion)
{
    put_file(ix, index_file(even_clocks(5, 900), UNITS));
    const ctx_ptr t(tsix_int::ts_open(ts.c_str(), 0, 0, TSX_SKIPLOAD));
    char memory[1];
    t->ixbuf.ptr = memory;
    EXPECT_DEATH((void)tsix_int::open_ix(t.get(), ix.c_str()), "NULL == t->ixbuf.ptr");
    t->ixbuf.ptr = nullptr;
}

TEST_F(tsix_read, a_clock_of_nothing_is_an_assertion)
{
    const ctx_ptr t = open(index_file({900, 0}, UNITS));
    EXPECT_DEATH(next(t, 9 * RSIZE, 1000), "sr->sclk && sr->rsize");
}

TEST_F(tsix_read, a_record_of_nothing_is_an_assertion)
{
    const ctx_ptr none = open(index_file(even_clocks(5, 900), 0));
    EXPECT_EQ(none->max_icount, 5u);
    EXPECT_DEATH(next(none, 9 * RSIZE, 1000), "sr->sclk && sr->rsize");
    bytes index = index_file({900}, UNITS, RSIZE);
    index[42] = index[43] = 0;
    const ctx_ptr varlen = open(index, 0, TSX_VARLEN);
    EXPECT_DEATH(next(varlen, 9 * RSIZE, 1000), "sr->sclk && sr->rsize");
}

TEST_F(tsix_read, a_record_that_is_not_in_memory_is_an_assertion)
{
    const ctx_ptr t = open(index_file(even_clocks(5, 900), UNITS));
    tsd_srec sr = {};
    tsix_int::get_srec(t.get(), 4, &sr);
    EXPECT_EQ(uint64_t{sr.sclk}, 4500u);
    EXPECT_EQ(uint16_t{sr.rsize}, RSIZE);
    EXPECT_DEATH(tsix_int::get_srec(t.get(), 5, &sr), "idx >= 0 && idx < \\(ssize_t\\)t->max_icount");
    t->iter.start_idx = 3;
    EXPECT_DEATH(tsix_int::get_srec(t.get(), 2, &sr), "idx >= 0 && idx < \\(ssize_t\\)t->max_icount");
    t->iter.start_idx = 0;
}

TEST_F(tsix_read, a_handle_that_is_not_open_is_an_assertion)
{
    const ctx_ptr t(tsix_int::ts_open(ts.c_str(), 0, 0, TSX_SKIPLOAD));
    size_t delay = 0;
    EXPECT_DEATH((void)tsx_next(t.get(), 1, 1, &delay), "t->iter.is_ready && t->max_icount > 0");
}
