// Building an index: its bytes against an account worked out in another way, and all that can be wrong with a stream.
#include "lib/tsix_int.h"
#include "support/index_kit.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstring>

using namespace ixk;
using strings = std::vector<std::string>;

namespace
{

constexpr size_t UNITS = 7;
constexpr size_t RSIZE = UNITS * PKT;
constexpr size_t LOAD_PKTS = MIN_PLD_CACHED / PKT; // of a load cut to whole packets
constexpr size_t WHOLE_LOAD = 800 * UNITS;         // of a load that is whole records as it stands

struct tsix_build : testing::Test {
    TempDir dir;
    std::string ts = dir / "a.ts";
    std::string ix = dir / "a.ix";
    LogCapture log{&g_log, ll::info};

    int make(const stream_plan& plan, size_t rsize = RSIZE, size_t max_cached = 0, uint32_t flags = 0)
    {
        return make(stream_bytes(plan), rsize, max_cached, flags);
    }
    int make(bytes_view data, size_t rsize = RSIZE, size_t max_cached = 0, uint32_t flags = 0)
    {
        put_file(ts, data);
        return tsx_mkix(ts.c_str(), ix.c_str(), rsize, max_cached, flags);
    }
    // Builds an index and compares every byte of it with the account.
    void expect_right(const stream_plan& plan, size_t units = UNITS, size_t max_cached = 0, uint32_t flags = 0)
    {
        const size_t rsize = units * PKT;
        unlink(ix.c_str());
        ASSERT_EQ(make(plan, rsize, max_cached, flags), 0) << join_lines(log.messages(ll::error));
        const bytes want = index_file(want_clocks(plan, units), unsigned(units & 0xff),
                                      flags & TSX_VARLEN ? unsigned(rsize & 0xffff) : 0);
        EXPECT_TRUE(file_bytes(ix) == want);
    }
    bool index_is_there() const { return access(ix.c_str(), F_OK) == 0; }
    // The first byte of the index: T once it is complete.
    char mark() const { return static_cast<char>(file_bytes(ix).at(0)); }
};

} // namespace

// ---- the bytes ------------------------------------------------------------------------------------------------

TEST_F(tsix_build, writes_the_header_and_a_clock_for_each_record)
{
    // 14 packets are two records. One tick a packet and interval: PCRs 7 packets and 3600 ticks apart.
    ASSERT_EQ(make(stream_plan{14, {{6, 1000}, {13, 4600}}}), 0);
    const bytes want = {0x54, 0x53, 0x49, 0x58, 0x01, 0x07, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00,
                        0x00, 0x00, 0x00, 0x08, 0x00, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe,
                        0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0xfe, 0x10, 0x0e, 0x00, 0x00, 0x00,
                        0x00, 0x00, 0x00, 0x20, 0x1c, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(file_bytes(ix), want);
}

TEST_F(tsix_build, writes_sizes_into_records_of_the_other_kind)
{
    ASSERT_EQ(make(stream_plan{14, {{6, 1000}, {13, 4600}}}, RSIZE, 0, TSX_VARLEN), 0);
    const bytes all = file_bytes(ix);
    EXPECT_EQ(all[16], 10);
    EXPECT_EQ(bytes(all.begin() + 34, all.end()), (bytes{0x10, 0x0e, 0, 0, 0, 0, 0, 0, 0x24, 0x05, //
                                                         0x20, 0x1c, 0, 0, 0, 0, 0, 0, 0x24, 0x05}));
}

TEST_F(tsix_build, gives_the_first_packets_the_rate_of_the_first_interval_and_the_last_the_last)
{
    // Records of one packet: 3 up to the first PCR, 4 in 400 ticks, 2 in 1000 ticks, 3 behind.
    ASSERT_EQ(make(stream_plan{12, {{2, 500}, {6, 900}, {8, 1900}}}, PKT), 0);
    EXPECT_EQ(file_bytes(ix), index_file({100, 200, 300, 400, 500, 600, 700, 1200, 1700, 2200, 2700, 3200}, 1));
}

TEST_F(tsix_build, owes_to_the_next_interval_what_a_record_reached_ahead)
{
    // PCRs at packets 3, 12, 16, records of 7: one record up to the first PCR covers 3 packets more, so that of the
    // next 9 packets one record is due, which reaches 1 packet ahead; the next 4 need 1 record.
    ASSERT_EQ(make(stream_plan{21, {{3, 100}, {12, 1100}, {16, 1700}}}), 0);
    EXPECT_EQ(file_bytes(ix), index_file({1000, 2000, 2600}, 7));
}

TEST_F(tsix_build, is_right_to_the_byte_for_every_record_size_and_load)
{
    std::mt19937 rnd(5);
    for (const size_t units : {1U, 2U, 7U, 13U, 254U, 255U}) {
        // The last of the caches has whole packets and broken records, so that records reach over its loads.
        for (const size_t max_cached : {size_t{0}, MIN_PLD_CACHED, MIN_PLD_CACHED + 500, (LOAD_PKTS + 1) * PKT}) {
            for (const uint32_t flags : {0U, TSX_VARLEN}) {
                SCOPED_TRACE(testing::Message() << units << " units, cache " << max_cached << ", flags " << flags);
                expect_right(random_plan(rnd, 3 * LOAD_PKTS + rnd() % 900, 200, units), units, max_cached, flags);
            }
        }
    }
}

TEST_F(tsix_build, is_right_where_pcrs_are_rare)
{
    // Intervals longer than a load: their records come all at once, and more than there is room for.
    const stream_plan plan{4 * LOAD_PKTS,
                           {{10, 90000}, {300, 95000}, {2 * LOAD_PKTS + 5, 500000}, {3 * LOAD_PKTS, 800000}}};
    expect_right(plan, 1, MIN_PLD_CACHED);
    expect_right(plan, UNITS, MIN_PLD_CACHED);
}

TEST_F(tsix_build, is_right_where_records_end_with_the_load)
{
    // A load of whole records whose last packet has a PCR: its records end with it, and the file goes on.
    const stream_plan plan{2 * WHOLE_LOAD + 20,
                           {{6, 1000},
                            {WHOLE_LOAD - 1, 400000},
                            {WHOLE_LOAD + 60, 410000},
                            {2 * WHOLE_LOAD - 1, 800000},
                            {2 * WHOLE_LOAD + 8, 803000}}};
    expect_right(plan, UNITS, WHOLE_LOAD * PKT);
    EXPECT_EQ(log.count("load_buf:"), 3u);
}

TEST_F(tsix_build, is_right_where_a_record_reaches_over_the_load_and_more_pcrs_follow)
{
    const stream_plan plan{2 * WHOLE_LOAD,
                           {{6, 1000},
                            {WHOLE_LOAD - 3, 400000},
                            {WHOLE_LOAD - 2, 400100},
                            {WHOLE_LOAD - 1, 400200},
                            {WHOLE_LOAD, 400300},
                            {2 * WHOLE_LOAD - 8, 800000}}};
    expect_right(plan, UNITS, WHOLE_LOAD * PKT);
}

TEST_F(tsix_build, is_right_where_the_last_load_is_shorter_than_a_record)
{
    const stream_plan plan{WHOLE_LOAD + 1, {{6, 1000}, {WHOLE_LOAD - 40, 400000}}};
    expect_right(plan, UNITS, WHOLE_LOAD * PKT);
}

TEST_F(tsix_build, flushes_when_its_array_is_full)
{
    log.clear();
    const LogCapture all;
    // One load of 100 packets has room for 150 records: all wait for the load's end.
    expect_right(stream_plan{100, {{1, 100}, {99, 9900}}}, 1);
    EXPECT_EQ(lines_of(all, "flush_ix"), strings{"flush_ix: (P) 100 records (800 bytes) added, 100 records total"});
    // Three loads without a PCR between: room for one and a half of them.
    expect_right(stream_plan{3 * LOAD_PKTS, {{1, 100}, {3 * LOAD_PKTS - 1, 900000}}}, 1, MIN_PLD_CACHED);
    const size_t room = LOAD_PKTS + LOAD_PKTS / 2;
    EXPECT_TRUE(all.contains("allocated " + std::to_string(room) + " records"));
    EXPECT_TRUE(all.contains(std::to_string(room) + " records (" + std::to_string(8 * room) + " bytes) added, " +
                             std::to_string(room) + " records total"));
}

TEST_F(tsix_build, lets_no_more_than_8_megabytes_of_records_wait)
{
    constexpr size_t pkts = 2000000;
    put_file(ts, {});
    ASSERT_EQ(truncate(ts.c_str(), pkts * PKT), 0);
    tsix_t t = tsix_int::ts_open(ts.c_str(), PKT, 0, TSX_SKIPLOAD);
    t->pld_len = pkts * PKT; // as if loaded
    ASSERT_EQ(tsix_int::create_ix(t, ix.c_str()), 0);
    EXPECT_EQ(t->max_icount, pkts + pkts / 2);
    ASSERT_EQ(tsix_int::set_ix_clock(t, ONE_Mb - 1, 90000000), 0);
    EXPECT_EQ(t->icount, ONE_Mb - 1);
    ASSERT_EQ(tsix_int::set_ix_clock(t, 3, 90000000), 0);
    EXPECT_EQ(t->icount, 2u);
    EXPECT_EQ(t->start_irec, ONE_Mb);
    tsx_close(t);
}

TEST_F(tsix_build, warns_of_a_load_without_records)
{
    expect_right(stream_plan{3 * LOAD_PKTS, {{10, 100}, {3 * LOAD_PKTS - 100, 900000}}}, UNITS, MIN_PLD_CACHED);
    EXPECT_EQ(plain(log.messages(ll::warning)),
              (strings{"flush_ix: (P) no items", "flush_ix: (P) no items",
                       "index_pkt: (P) PCR gap = 899900 is too wide at pos=3126628, pkt[16631]/16731",
                       "flush_ix: (P) no items"})); // loads of whole records leave a fourth
}

// ---- clocks ---------------------------------------------------------------------------------------------------

TEST_F(tsix_build, takes_a_pcr_of_any_pid)
{
    bytes data = stream_bytes({40, {{6, 1000}, {13, 4600}}});
    const tsb::packet other = tsb::pkt().pid(4000).pcr(8200);
    std::copy(other.begin(), other.end(), data.begin() + 20 * PKT);
    ASSERT_EQ(make(data), 0);
    EXPECT_EQ(file_bytes(ix), index_file(want_clocks({40, {{6, 1000}, {13, 4600}, {20, 8200}}}, 7), 7));
}

TEST_F(tsix_build, follows_the_pcr_over_its_wrap)
{
    expect_right({40, {{6, PCR_MOD - 1000}, {13, PCR_MOD + 2000}, {20, PCR_MOD + 5000}}});
    // By design the wrap draws the warning of a wide gap, although the step is right.
    EXPECT_EQ(plain(log.messages(ll::warning)),
              strings{"index_pkt: (P) PCR gap = 3000 is too wide at pos=2444, pkt[13]/40"});
}

TEST_F(tsix_build, believes_a_wrap_by_up_to_half_a_second_less_a_tick)
{
    expect_right({40, {{6, PCR_MOD - 10}, {13, PCR_MOD + 44989}, {20, PCR_MOD + 46000}}}); // 44999
    unlink(ix.c_str());
    // A tick more: by design a step back, which counts as it is in 64 bits.
    ASSERT_EQ(make(stream_plan{40, {{6, PCR_MOD - 10}, {13, PCR_MOD + 44990}, {20, PCR_MOD + 46000}}}), 0);
    EXPECT_EQ(file_bytes(ix)[34 + 7], 0xff);
    EXPECT_TRUE(log.contains("PCR gap = " + std::to_string(uint64_t{45000} - PCR_MOD) + " is too wide"));
}

TEST_F(tsix_build, warns_of_a_gap_above_half_a_second_and_counts_it)
{
    expect_right({40, {{6, 1000}, {13, 46000}, {20, 47000}}});
    EXPECT_EQ(log.messages(ll::warning), strings{});
    expect_right({40, {{6, 1000}, {13, 46001}, {20, 47000}}});
    EXPECT_EQ(plain(log.messages(ll::warning)),
              strings{"index_pkt: (P) PCR gap = 45001 is too wide at pos=2444, pkt[13]/40"});
}

TEST_F(tsix_build, counts_a_pcr_that_steps_back_as_it_is)
{
    // By design: users find the place of the jump in the clocks and in the log.
    ASSERT_EQ(make(stream_plan{4, {{1, 5000}, {2, 8000}, {3, 6000}}}, PKT), 0);
    EXPECT_EQ(file_bytes(ix), index_file({3000, 6000, 9000, 7000}, 1));
    EXPECT_TRUE(log.contains("PCR gap = " + std::to_string(uint64_t(0) - 2000) + " is too wide at pos=564, pkt[3]/4"));
}

TEST_F(tsix_build, lets_pcrs_closer_than_a_record_pass_in_the_middle)
{
    expect_right({80, {{6, 1000}, {20, 4600}, {21, 4700}, {22, 4800}, {40, 8000}, {60, 11000}}});
}

// ---- streams that give no rate --------------------------------------------------------------------------------

TEST_F(tsix_build, refuses_a_stream_without_pcr)
{
    EXPECT_EQ(make(stream_plan{50, {}}), -1);
    EXPECT_EQ(plain(log.messages(ll::error)), strings{"build_ix: (P) cannot locate PCR pid"});
    EXPECT_FALSE(index_is_there());
}

TEST_F(tsix_build, refuses_a_stream_with_one_pcr)
{
    EXPECT_EQ(make(stream_plan{50, {{10, 1000}}}), -1);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.contains("the stream gives no rate, fewer than two PCRs: 1 PCRs"));
    EXPECT_FALSE(index_is_there());
}

TEST_F(tsix_build, refuses_a_stream_without_record_between_the_first_two_pcrs)
{
    EXPECT_EQ(make(stream_plan{50, {{10, 1000}, {13, 2000}, {30, 9000}}}), -1); // packet 13 is in the second record
    EXPECT_TRUE(log.contains("no record between the first two PCRs"));
    EXPECT_FALSE(index_is_there());
    EXPECT_EQ(make(stream_plan{50, {{10, 1000}, {14, 2000}, {30, 9000}}}), 0);
}

TEST_F(tsix_build, refuses_a_stream_without_record_between_the_last_two_pcrs)
{
    EXPECT_EQ(make(stream_plan{50, {{10, 1000}, {30, 9000}, {34, 9900}}}), -1);
    EXPECT_TRUE(log.contains("no record between the last two PCRs"));
    EXPECT_FALSE(index_is_there());
    EXPECT_EQ(make(stream_plan{50, {{10, 1000}, {30, 9000}, {35, 9900}}}), 0);
}

TEST_F(tsix_build, refuses_a_stream_whose_first_records_last_no_tick)
{
    // Six records in five ticks; a clock of 0 is what no reader takes.
    EXPECT_EQ(make(stream_plan{20, {{2, 1000}, {8, 1005}}}, PKT), -1);
    EXPECT_TRUE(log.contains("no tick for its first record"));
    EXPECT_FALSE(index_is_there());
    EXPECT_EQ(make(stream_plan{20, {{2, 1000}, {8, 1006}}}, PKT), 0);
}

// ---- streams that are none ------------------------------------------------------------------------------------

TEST_F(tsix_build, a_pcr_in_the_first_packet_counts_as_none)
{
    // By design. The stream has a rate all the same, so that the file stays like that of any other failed build.
    EXPECT_EQ(make(even_plan(50, 0, 10, 3600)), -1);
    EXPECT_EQ(plain(log.messages(ll::error)), strings{"build_ix: (P) cannot locate PCR pid"});
    EXPECT_EQ(mark(), '#');
    unlink(ix.c_str());
    EXPECT_EQ(make(even_plan(50, 1, 10, 3600)), 0);
}

TEST_F(tsix_build, lost_sync_before_the_first_pcr_fails_the_scan)
{
    bytes data = stream_bytes(even_plan(50, 20, 10, 3600));
    data[4 * PKT] = 0x48;
    EXPECT_EQ(make(data), -1);
    EXPECT_EQ(plain(log.messages(ll::error)),
              (strings{"get_pcr_pid: (P) pkt[4] lost TS sync", "build_ix: (P) cannot locate PCR pid"}));
    EXPECT_EQ(mark(), '#');
}

TEST_F(tsix_build, lost_sync_behind_the_first_pcr_is_22)
{
    bytes data = stream_bytes(even_plan(2 * LOAD_PKTS, 3, 10, 3600));
    data[(LOAD_PKTS + 9) * PKT] = 0x48;
    EXPECT_EQ(make(data, PKT, MIN_PLD_CACHED), 22);
    EXPECT_EQ(plain(log.messages(ll::error)), strings{"index_pkt: (P) lost TS sync at pos=1050168, pkt[5586]/11154"});
    EXPECT_EQ(mark(), '#');
}

TEST_F(tsix_build, a_file_that_is_no_stream_is_refused)
{
    EXPECT_EQ(make(tsb::noise(100 * PKT)), -1);
    EXPECT_EQ(plain(log.messages(ll::error)),
              (strings{"get_pcr_pid: (P) pkt[0] lost TS sync", "build_ix: (P) cannot locate PCR pid"}));
}

TEST_F(tsix_build, what_a_failed_build_leaves_is_in_the_way_of_the_next)
{
    bytes data = stream_bytes(even_plan(50, 3, 10, 3600));
    data[40 * PKT] = 0;
    EXPECT_EQ(make(data), 22);
    data[40 * PKT] = 0x47;
    log.clear();
    EXPECT_EQ(make(data), -1);
    EXPECT_TRUE(log.contains("create_ix: open('" + ix + "'"));
    EXPECT_TRUE(log.contains("ERROR(17): File exists"));
    EXPECT_EQ(mark(), '#');
    unlink(ix.c_str());
    EXPECT_EQ(make(data), 0);
    EXPECT_EQ(mark(), 'T');
}

TEST_F(tsix_build, an_existing_index_is_not_touched)
{
    put_file(ix, bytes{1, 2, 3});
    EXPECT_EQ(make(even_plan(50, 3, 10, 3600)), -1);
    EXPECT_EQ(file_bytes(ix), (bytes{1, 2, 3}));
}

TEST_F(tsix_build, a_torn_last_packet_ends_the_last_load_in_an_assertion)
{
    bytes data = stream_bytes(even_plan(50, 3, 10, 3600));
    data.resize(data.size() + 100, 0x47);
    EXPECT_DEATH((void)make(data), "0 == \\(nbytes % TS_MIN_PKTSIZE\\)");
}

TEST_F(tsix_build, a_torn_last_packet_behind_the_last_whole_load_is_not_seen)
{
    const stream_plan plan = even_plan(50, 3, 10, 3600);
    bytes data = stream_bytes(plan);
    data.resize(data.size() + 100, 0x47);
    ASSERT_EQ(make(data, PKT), 0); // the load is cut to whole records, here packets, and that is all of them
    EXPECT_EQ(file_bytes(ix), index_file(want_clocks(plan, 1), 1));
}

TEST_F(tsix_build, a_first_pcr_on_pid_0_is_an_assertion)
{
    stream_plan plan = even_plan(50, 3, 10, 3600);
    plan.pid = 0;
    EXPECT_DEATH((void)make(plan), "Assertion `pid' failed");
}

// ---- record sizes ---------------------------------------------------------------------------------------------

TEST_F(tsix_build, needs_a_record_size)
{
    EXPECT_DEATH((void)make(even_plan(50, 3, 10, 3600), 0), "Assertion `t->rsize' failed");
}

TEST_F(tsix_build, a_record_size_of_more_than_255_packets_is_wrong_in_the_header)
{
    const stream_plan plan{1000, {{10, 1000}, {300, 9000}, {600, 19000}, {900, 30000}}};
    ASSERT_EQ(make(plan, 255 * PKT), 0);
    EXPECT_EQ(file_bytes(ix)[5], 255);
    unlink(ix.c_str());
    ASSERT_EQ(make(plan, 256 * PKT), 0);
    EXPECT_EQ(file_bytes(ix), index_file(want_clocks(plan, 256), 0)); // By design: one byte is all that it has.
}

TEST_F(tsix_build, a_record_size_of_more_than_255_packets_is_right_in_the_records_of_the_other_kind)
{
    const stream_plan plan{2000, {{10, 1000}, {500, 9000}, {1000, 19000}, {1900, 30000}}};
    for (const size_t units : {256U, 348U}) {
        expect_right(plan, units, 0, TSX_VARLEN);
        tsix_t t = tsx_open(ts.c_str(), ix.c_str(), 0, TSX_VARLEN);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(all_runs(t, 1, 1), want_runs(want_clocks(plan, units), units * PKT, 2000 * PKT, 1, 1));
        tsx_close(t);
    }
    expect_right(plan, 349, 0, TSX_VARLEN); // By design: two bytes are all that it has here.
}

// ---- steps by themselves --------------------------------------------------------------------------------------

TEST_F(tsix_build, no_record_is_stored_behind_the_end_of_the_load)
{
    put_file(ts, stream_bytes(even_plan(14, 3, 5, 3600)));
    tsix_t t = tsix_int::ts_open(ts.c_str(), RSIZE, 0, 0);
    ASSERT_EQ(tsix_int::create_ix(t, ix.c_str()), 0);
    tsix_int::update_ix(t, RSIZE, 10);
    EXPECT_FALSE(t->is_eod);
    tsix_int::update_ix(t, RSIZE, 20);
    EXPECT_TRUE(t->is_eod);
    EXPECT_DEATH(tsix_int::update_ix(t, RSIZE, 30), "!t->is_eod");
    tsx_close(t);
}

TEST_F(tsix_build, packets_are_never_owed_by_more_than_a_record)
{
    put_file(ts, stream_bytes(even_plan(14, 3, 5, 3600)));
    tsix_t t = tsix_int::ts_open(ts.c_str(), RSIZE, 0, 0);
    t->nix_pkt_count = -2 * ssize_t(UNITS);
    EXPECT_DEATH((void)tsix_int::add_ix(t), "nix_dgrams >= 0");
    t->nix_pkt_count = 0;
    tsx_close(t);
}

// ---- the log --------------------------------------------------------------------------------------------------

TEST_F(tsix_build, tells_its_steps)
{
    const LogCapture all;
    ASSERT_EQ(make(stream_plan{24, {{6, 1000}, {13, 4600}, {20, 9000}}}), 0);
    const strings want = {
        "load_buf: (P) 4512 bytes: fpos=0, plen=4512",
        "ts_open: (P) created, size/cached=4512/4512",
        "create_ix: (P) allocated 4 records",
        "create_ix: (P) created [" + ix + "], rsize=1316",
        "get_pcr_pid: (P) found PCR at pkt[6], pid=256",
        "scan4pcr: (P) PCR_pid=256",
        "index_pkt: (P) pkt[6]/24 has PCR[1]: 8589934592 .. 1000 d=0, offset=0",
        "index_pkt: (P) pkt[13]/24 has PCR[2]: 1000 .. 4600 d=3600, offset=0",
        "index_pkt: (P) pkt[20]/24 has PCR[3]: 4600 .. 9000 d=4400, offset=0",
        "flush_ix: (P) 3 records (24 bytes) added, 3 records total",
        "build_ix: (P) processed:24 total/cached=24/24 packets, max-icount:4 nx=3 offset=0",
        "build_ix: (P) pre-tail: 3948 bytes, 3 index records",
        "add_tail: (P) setting TAIL for 3/1 un-indexed packets/dgrams",
        "update_ix: (P) EOD index entry is 752 less bytes",
        "update_ix: (P) EOD",
        "build_ix: (P) post-tail: 5264 bytes, 4 index records",
        "flush_ix: (P) 1 records (8 bytes) added, 4 records total",
        "close_ix: (P) 4 records in index file",
    };
    strings got = plain(all.messages());
    got.erase(std::remove_if(got.begin(), got.end(),
                             [](const std::string& s) { return s.find("CLOSED(fd") != std::string::npos; }),
              got.end());
    ASSERT_EQ(got.size(), want.size() + 1) << join_lines(got);
    EXPECT_EQ(got.back(), "tsx_close: (P) closed");
    got.pop_back();
    EXPECT_EQ(got, want);
    EXPECT_EQ(all.messages(ll::info).size(), 8u);
}

// ---- a full disk ----------------------------------------------------------------------------------------------

namespace
{

// No file may grow beyond this size while it lives.
struct file_limit {
    explicit file_limit(rlim_t size)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &saved);
        set(size);
    }
    ~file_limit() { set(saved.rlim_cur); }
    void set(rlim_t size) const
    {
        const struct rlimit rl = {size, saved.rlim_max};
        setrlimit(RLIMIT_FSIZE, &rl);
    }
    struct rlimit saved;
};

} // namespace

TEST_F(tsix_build, a_header_that_can_not_be_written_leaves_no_file)
{
    put_file(ts, stream_bytes(even_plan(50, 3, 10, 3600)));
    log_set_modules(&g_log, ll::panic); // the log is a file, too
    int rc;
    {
        const file_limit limit(20);
        rc = tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 0, 0);
    }
    EXPECT_EQ(rc, -1);
    EXPECT_FALSE(index_is_there());
}

TEST_F(tsix_build, records_that_can_not_be_written_leave_an_incomplete_file)
{
    put_file(ts, stream_bytes(even_plan(50, 3, 10, 3600)));
    log_set_modules(&g_log, ll::panic);
    int rc;
    {
        const file_limit limit(60);
        rc = tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 0, 0);
    }
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(mark(), '#');
}
