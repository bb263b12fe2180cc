#include "dstream.h"
#include "support/app_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "tavrin/app_int.h"

#include <gtest/gtest.h>

using strings = std::vector<std::string>;
using akit::part;
using tsb::bytes;

namespace
{

constexpr size_t PKT = tsb::pkt_bytes;

class app_feed : public testing::Test
{
protected:
    app_feed() { log.clear(); }
    const process_ctx& feed() const { return *app_int::feed_state(); }
    uint64_t analyzed() const { return tsan_get_pidx(g_ctx.tc); }
    // Lost sync raises an alert only if there is a log to write it to.
    static void with_alert_log() { strcpy(g_cfg.alert_log.path, "/alerts"); }

    akit::app_world world;
    LogCapture log;
    LogCapture alerts{&g_access_log};
};

// Packets that the analyzer finds no tables in.
bytes without_tables(size_t count)
{
    return tsb::cat(std::vector<tsb::packet>(count, tsb::null_pkt()));
}

} // namespace

// ---- from the ring to the analyzer ----------------------------------------------------------------------------

TEST_F(app_feed, nothing_happens_until_the_stream_is_recognised)
{
    bytes junk = tsb::noise(1000);
    EXPECT_EQ(analyze_input(junk.data(), junk.size()), 0);
    EXPECT_EQ(log.messages(), strings{});
    EXPECT_EQ(feed().pkt_count, 0u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
}

// Can't come about in a run: a ring does not forget what it has recognised.
TEST_F(app_feed, unknown_stream_behind_analyzed_packets_is_an_error)
{
    world.feed(akit::clean_stream(10));
    mmr_destroy(g_ctx.mmr);
    ASSERT_EQ(mmr_create(&g_ctx.mmr, 1 << 20), 0);
    const_cast<process_ctx*>(app_int::feed_state())->info = {};
    bytes some = akit::clean_stream(1);
    log.clear();
#ifdef KVT_DEEP_CHECKS
    EXPECT_DEATH(analyze_input(some.data(), some.size()), "packets are counted in a known stream only");
#else
    EXPECT_EQ(analyze_input(some.data(), some.size()), 11);
    EXPECT_EQ(log.messages(ll::error), strings{"analyze_input: packet size not set, cannot analyze"});
#endif
    const_cast<process_ctx*>(app_int::feed_state())->pkt_count = 0; // or the state would be out of order
}

TEST_F(app_feed, whole_packets_are_analyzed_where_the_read_left_them)
{
    EXPECT_EQ(world.feed(akit::clean_stream(700)), 0);
    EXPECT_EQ(analyzed(), 700u);
    EXPECT_EQ(feed().pkt_count, 700u);
    EXPECT_EQ(feed().pkt_idx, 700u);
    EXPECT_EQ(feed().tail_size, 0u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(world.info().last_pktnum, 700u);
    EXPECT_EQ(app_int::validate_ctx(&g_ctx, &feed()), nullptr);
}

TEST_F(app_feed, reader_yields_single_packets_from_the_start_of_analysis)
{
    struct mm_opt opt = {};
    mmr_get_opt(g_ctx.mmr, &opt);
    EXPECT_FALSE(opt.no_mtu_pack);
    world.feed(akit::clean_stream(7));
    mmr_get_opt(g_ctx.mmr, &opt);
    EXPECT_TRUE(opt.no_mtu_pack);
}

TEST_F(app_feed, clean_stream_raises_no_alert_wherever_it_is_cut)
{
    const bytes all = akit::clean_stream(3000);
    world.feed(part(all, 0, 1316));
    size_t at = 1316;
    for (size_t len = 1; at + len <= all.size(); at += len, len = (len * 7 + 3) % 4000 + 1) {
        ASSERT_EQ(world.feed(part(all, at, len)), 0);
        ASSERT_EQ(feed().tail_size, (at + len) % PKT);
        ASSERT_EQ(mmr_cap(g_ctx.mmr, app_int::max_payload(&g_cfg)) >= 0, true);
    }
    EXPECT_EQ(analyzed(), at / PKT);
    EXPECT_EQ(log.messages(ll::warning), strings{});
    EXPECT_EQ(log.messages(ll::error), strings{});
}

TEST_F(app_feed, read_that_ends_at_any_byte_of_a_packet_is_taken_up_by_the_next)
{
    const bytes all = akit::clean_stream(2 * PKT + 2);
    world.feed(part(all, 0, 2 * PKT));
    size_t at = 2 * PKT;
    // One read up to `cut` bytes into a packet, and one that ends with a packet.
    for (size_t cut = 1; cut < PKT; ++cut, at += 2 * PKT) {
        ASSERT_EQ(world.feed(part(all, at, cut)), 0);
        ASSERT_EQ(feed().tail_size, cut);
        ASSERT_EQ(world.feed(part(all, at + cut, 2 * PKT - cut)), 0);
        ASSERT_EQ(feed().tail_size, 0u);
        ASSERT_EQ(analyzed(), at / PKT + 2);
    }
    EXPECT_EQ(log.messages(ll::warning), strings{});
}

TEST_F(app_feed, read_shorter_than_a_packet_is_carried_over_whole)
{
    const bytes all = akit::clean_stream(3);
    world.feed(part(all, 0, PKT + 2));
    EXPECT_EQ(analyzed(), 1u);
    for (size_t at = PKT + 2; at < 2 * PKT - 1; ++at)
        ASSERT_EQ(world.feed(part(all, at, 1)), 0);
    EXPECT_EQ(analyzed(), 1u);
    EXPECT_EQ(feed().tail_size, PKT - 1);
    EXPECT_EQ(memcmp(g_ctx.abuf, all.data() + PKT, PKT - 1), 0);
    world.feed(part(all, 2 * PKT - 1, 1));
    EXPECT_EQ(analyzed(), 2u);
    EXPECT_EQ(feed().tail_size, 0u);
}

TEST_F(app_feed, carry_over_buffer_is_made_once_and_holds_what_the_ring_may_keep)
{
    const bytes all = akit::clean_stream(10);
    world.feed(part(all, 0, 200));
    const uint8_t* made = g_ctx.abuf;
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, (size_t{1} << 20) - 4096);
    world.feed(part(all, 200, 200));
    EXPECT_EQ(g_ctx.abuf, made);
    const strings told = log.messages(ll::debug);
    EXPECT_EQ(std::count(told.begin(), told.end(), "analyze_input: allocated abuf[1044480]"), 1);
    EXPECT_EQ(app_int::validate_ctx(&g_ctx, &feed()), nullptr);
}

TEST_F(app_feed, more_segments_than_one_call_to_the_ring_gives_are_taken_in_turns)
{
    EXPECT_EQ(world.feed(akit::clean_stream(512 * 3 + 1)), 0);
    EXPECT_EQ(analyzed(), 512u * 3 + 1);
}

TEST_F(app_feed, larger_packets_are_walked_by_their_own_length)
{
    for (const size_t size : {192u, 204u, 208u}) {
        const akit::outcome o = akit::in_child([&] {
            tsb::stream st(tsb::one_program());
            world.feed(tsb::widen(st.take(100), size, 0xee));
            _exit(analyzed() == 100 && world.info().ts_len == size ? 0 : 1);
        });
        EXPECT_EQ(o.status, 0) << size;
    }
}

TEST_F(app_feed, stray_bytes_ahead_of_the_first_packet_are_skipped_without_a_line_of_the_feed)
{
    EXPECT_EQ(world.feed(tsb::cat({tsb::noise(20), akit::clean_stream(20)})), 0);
    EXPECT_EQ(analyzed(), 20u);
    EXPECT_FALSE(log.contains("analyze_input"));
}

TEST_F(app_feed, stray_bytes_further_on_are_told)
{
    tsb::stream st(tsb::one_program());
    world.feed(tsb::cat(st.take(10)));
    const bytes head = tsb::cat(st.take(512));
    const bytes rest = tsb::cat(st.take(10));
    EXPECT_EQ(world.feed(tsb::cat({head, tsb::noise(5), rest})), 0);
    EXPECT_EQ(analyzed(), 532u);
    const strings told = log.messages(ll::warning);
    EXPECT_EQ(std::count(told.begin(), told.end(), "analyze_input: offset=5 at iter#2"), 1);
}

// Alerts name the segment, and a segment of a plain stream is one packet.
TEST_F(app_feed, analyzer_is_told_of_each_segment)
{
    g_cfg.tsa.cc_track = true;
    g_cfg.tsa.access_log_alerts = true;
    tsan_free(g_ctx.tc);
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    tsb::stream st(tsb::one_program());
    world.feed(tsb::cat(st.take(1000)));
    for (const int run : {1, 2}) {
        st.take(static_cast<size_t>(3 * run)); // lost on the way
        world.feed(tsb::cat(st.take(100)));
    }
    std::vector<long> dgrams; // ALERT CC-BRK source pid dgram ...
    for (const std::string& line : alerts.messages()) {
        long dgram = 0;
        if (sscanf(line.c_str(), "ALERT CC-BRK %*s %*u %ld ", &dgram) == 1) dgrams.push_back(dgram);
    }
    ASSERT_GE(dgrams.size(), 2u) << join_lines(alerts.messages());
    EXPECT_GT(dgrams.front(), 0);
    EXPECT_GT(dgrams.back() - dgrams.front(), 90);
    EXPECT_LT(dgrams.back() - dgrams.front(), 200);
}

// ---- lost sync ------------------------------------------------------------------------------------------------

TEST_F(app_feed, lost_sync_without_an_alert_log_ends_the_run)
{
    world.feed(akit::clean_stream(10));
    EXPECT_EQ(world.feed(tsb::cat({akit::clean_stream(2), tsb::noise(PKT)})), -1);
    EXPECT_EQ(log.count("analyze_input: mmr_oget_buf() ERROR(-9), niter=1"), 1u);
    EXPECT_EQ(alerts.messages(), strings{});
}

TEST_F(app_feed, lost_sync_with_the_alert_switched_off_ends_the_run)
{
    with_alert_log();
    g_cfg.lost_sync_alert = false;
    world.feed(akit::clean_stream(10));
    EXPECT_EQ(world.feed(tsb::cat({akit::clean_stream(2), tsb::noise(PKT)})), -1);
    EXPECT_EQ(log.count("analyze_input: mmr_oget_buf() ERROR(-9), niter=1"), 1u);
}

TEST_F(app_feed, no_sync_at_all_ends_the_run_whatever_the_settings)
{
    with_alert_log();
    world.feed(akit::clean_stream(10));
    EXPECT_EQ(world.feed(tsb::noise(1000)), -1);
    EXPECT_EQ(log.count("analyze_input: mmr_oget_buf() ERROR(-14), niter=1"), 1u);
}

TEST_F(app_feed, lost_sync_is_alerted_and_the_bytes_are_carried_over)
{
    with_alert_log();
    world.feed(akit::clean_stream(10));
    const bytes bad = tsb::cat({akit::clean_stream(2), tsb::noise(PKT)});
    EXPECT_EQ(world.feed(bad), 0);
    EXPECT_EQ(feed().tail_size, bad.size());
    EXPECT_EQ(memcmp(g_ctx.abuf, bad.data(), bad.size()), 0);
    EXPECT_EQ(analyzed(), 10u);
    EXPECT_EQ(alerts.count("ALERT LOST-SYNC chan1 1 "), 1u);
}

TEST_F(app_feed, stray_bytes_ahead_of_a_loss_are_not_carried_over)
{
    with_alert_log();
    world.feed(akit::clean_stream(10));
    const bytes bad = tsb::cat({akit::clean_stream(2), tsb::noise(PKT)});
    EXPECT_EQ(world.feed(tsb::cat({tsb::noise(5), bad})), 0);
    EXPECT_EQ(feed().tail_size, bad.size());
    EXPECT_EQ(memcmp(g_ctx.abuf, bad.data(), bad.size()), 0);
    EXPECT_EQ(log.count("mmr_oget_buf: ["), 1u);
    // The rest begins in sync, so that the next read skips nothing.
    EXPECT_EQ(world.feed(akit::clean_stream(1)), 0);
    EXPECT_EQ(log.count("mmr_oget_buf: ["), 1u);
    EXPECT_EQ(alerts.count("ALERT LOST-SYNC chan1 "), 2u);
    EXPECT_EQ(analyzed(), 10u);
}

TEST_F(app_feed, packets_ahead_of_a_loss_far_behind_are_analyzed)
{
    with_alert_log();
    world.feed(akit::clean_stream(10));
    const bytes bad = tsb::cat({akit::clean_stream(600), tsb::noise(PKT)});
    EXPECT_EQ(world.feed(bad), 0);
    EXPECT_EQ(analyzed(), 522u);
    EXPECT_EQ(feed().pkt_count, 522u);
    EXPECT_EQ(feed().tail_size, bad.size() - 512 * PKT);
}

// The place of the loss is met again with each read, until the analyzer has had enough of it.
TEST_F(app_feed, tenth_loss_of_sync_in_a_period_ends_the_run)
{
    fake_clock::set(1000);
    with_alert_log();
    world.feed(akit::clean_stream(10));
    const bytes more = akit::clean_stream(1);
    ASSERT_EQ(world.feed(tsb::cat({akit::clean_stream(2), tsb::noise(PKT)})), 0);
    for (int i = 2; i < 10; ++i)
        ASSERT_EQ(world.feed(more), 0) << i;
    EXPECT_EQ(world.feed(more), -9);
    EXPECT_EQ(alerts.count("ALERT LOST-SYNC chan1 "), 10u);
    EXPECT_EQ(analyzed(), 10u);
    fake_clock::release();
}

TEST_F(app_feed, rest_that_fills_the_buffer_is_carried_over)
{
    g_cfg.min_read_bytes = (1 << 20) - 150;
    EXPECT_EQ(world.feed(part(akit::clean_stream(2), 0, PKT + 150)), 0);
    EXPECT_EQ(g_ctx.abuf_len, 150u);
    EXPECT_EQ(feed().tail_size, 150u);
}

TEST_F(app_feed, rest_one_byte_too_long_for_the_buffer_ends_the_run)
{
    g_cfg.min_read_bytes = (1 << 20) - 150;
    EXPECT_EQ(world.feed(part(akit::clean_stream(2), 0, PKT + 151)), -12);
    EXPECT_EQ(log.messages(ll::error), strings{"analyze_input: cannot carry over 151 bytes in abuf[150]"});
}

// Under AddressSanitizer a request that is too large has to come back like any other.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

TEST_F(app_feed, buffer_without_memory_ends_the_run)
{
    g_cfg.min_read_bytes = (2 << 20); // more than the ring: the size wraps
    EXPECT_EQ(world.feed(part(akit::clean_stream(2), 0, PKT + 1)), -12);
    EXPECT_TRUE(log.contains("analyze_input: calloc("));
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, 0u);
}

TEST_F(app_feed, read_that_does_not_fit_behind_the_rest_is_an_assertion)
{
    const bytes all = akit::clean_stream(10);
    world.feed(part(all, 0, PKT + 100));
    uint8_t* dest = world.store(part(all, PKT + 100, PKT));
    g_ctx.abuf_len = PKT + 100;
    EXPECT_EQ(analyze_input(dest, PKT), 0);
    EXPECT_DEATH(analyze_input(dest, PKT + 1), "buflen \\+ pctx\\.tail_size <= g_ctx\\.abuf_len");
}

// ---- analyzer switched off and on -----------------------------------------------------------------------------

namespace
{
// A stream whose packets hold a false sync mark at each place of their payload, but for those that begin a unit.
bytes misleading_stream(size_t count)
{
    bytes all = akit::clean_stream(count);
    for (size_t at = 0; at < all.size(); at += PKT) {
        const bool plain = (all[at + 1] & 0x40) == 0 && (all[at + 3] & 0x20) == 0;
        if (plain) std::fill_n(all.begin() + static_cast<ptrdiff_t>(at) + 4, PKT - 4, uint8_t{0x47});
    }
    return all;
}
} // namespace

TEST_F(app_feed, analysis_goes_on_at_the_next_packet_wherever_it_was_switched)
{
    const bytes all = misleading_stream(200);
    world.feed(part(all, 0, 20 * PKT));
    // Off behind so many bytes of a packet, on again behind so many of another one.
    const size_t off = 23 * PKT + 60;
    for (const size_t on : {40 * PKT, 40 * PKT + 1, 40 * PKT + 100, 41 * PKT - 1}) {
        const akit::outcome o = akit::in_child([&] {
            world.feed(part(all, 20 * PKT, off - 20 * PKT));
            world.store(part(all, off, 500));
            app_int::feed_pass_by(500);
            world.store(part(all, off + 500, on - off - 500));
            app_int::feed_pass_by(on - off - 500);
            if (world.feed(part(all, on, 10)) != 0 || world.feed(part(all, on + 10, 3000)) != 0) _exit(1);
            if (world.feed(part(all, on + 3010, 60 * PKT - on - 3010)) != 0) _exit(2);
            _exit(analyzed() == 23 + 60 - (on + PKT - 1) / PKT && feed().tail_size == 0 ? 0 : 3);
        });
        EXPECT_EQ(o.status, 0) << on - 40 * PKT << o.err;
    }
}

TEST_F(app_feed, late_analysis_begins_at_the_next_packet)
{
    const bytes all = misleading_stream(200);
    for (const size_t on : {40 * PKT, 40 * PKT + 1, 40 * PKT + 100, 41 * PKT - 1}) {
        const akit::outcome o = akit::in_child([&] {
            world.store(part(all, 0, 700));
            app_int::feed_pass_by(700);
            world.store(part(all, 700, on - 700));
            app_int::feed_pass_by(on - 700);
            if (world.feed(part(all, on, 10)) != 0 || world.feed(part(all, on + 10, 3000)) != 0) _exit(1);
            _exit(analyzed() == (on + 3010) / PKT - (on + PKT - 1) / PKT ? 0 : 3);
        });
        EXPECT_EQ(o.status, 0) << on - 40 * PKT << o.err;
    }
}

// ---- packet index ---------------------------------------------------------------------------------------------

TEST_F(app_feed, numbering_restarts_at_the_call_after_the_index_was_reached)
{
    g_cfg.pkt_reset_idx = 1000;
    tsb::stream st(tsb::one_program());
    for (int i = 1; i <= 10; ++i)
        world.feed(tsb::cat(st.take(100)));
    EXPECT_EQ(feed().pkt_idx, 1000u);
    EXPECT_EQ(log.count("packet index reset"), 0u);

    world.feed(tsb::cat(st.take(100)));
    // 1000 packets are in the ring: they are 1 to 1000 now, the next one is 1001.
    EXPECT_EQ(log.messages(ll::info).back(), "analyze_input: packet index reset: 1000 -> 1001");
    EXPECT_EQ(log.count("[chan1] packet index changed from 1100 to 1001"), 1u);
    EXPECT_EQ(world.info().first_pktnum, 1u);
    EXPECT_EQ(world.info().last_pktnum, 1101u);
    EXPECT_EQ(feed().pkt_idx, 1101u);
    EXPECT_EQ(feed().pkt_count, 1100u);
    EXPECT_EQ(analyzed(), 1001u);
}

TEST_F(app_feed, numbering_does_not_restart_one_packet_early)
{
    g_cfg.pkt_reset_idx = 1001;
    tsb::stream st(tsb::one_program());
    for (int i = 1; i <= 11; ++i)
        world.feed(tsb::cat(st.take(100)));
    EXPECT_EQ(log.count("packet index reset"), 0u);
}

TEST_F(app_feed, numbering_never_restarts_without_the_setting)
{
    tsb::stream st(tsb::one_program());
    for (int i = 0; i < 5; ++i)
        world.feed(tsb::cat(st.take(1000)));
    EXPECT_EQ(feed().pkt_idx, 5000u);
    EXPECT_EQ(log.count("packet index reset"), 0u);
}

// ---- missing metadata -----------------------------------------------------------------------------------------

TEST_F(app_feed, missing_metadata_are_told_every_5_seconds_and_end_the_run_after_60)
{
    g_cfg.tsa.max_skip_pkts = 0;
    tsan_free(g_ctx.tc);
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    const bytes some = without_tables(7);
    fake_clock::set(1000000);
    size_t told = 0;
    for (int sec = 0; sec < 60; ++sec) {
        ASSERT_EQ(world.feed(some), 0) << sec;
        if (sec % 5 == 0) ++told;
        ASSERT_EQ(log.messages(ll::warning), strings(told, "No packet analysis: lacking metadata")) << sec;
        fake_clock::advance_sec(1);
    }
    EXPECT_EQ(feed().pkt_count, 60u * 7);
    EXPECT_EQ(g_quit, 0);

    EXPECT_EQ(world.feed(some), -1);
    EXPECT_EQ(log.messages(ll::critical), strings{"Unable to do TS analysis, quitting now"});
    EXPECT_EQ(log.count("No packet analysis: lacking metadata"), 13u);
    EXPECT_EQ(log.count("analyze_input: ERROR(-5) processing seg[0], len=188"), 1u);
    EXPECT_EQ(g_quit, 1);
    fake_clock::release();
}

TEST_F(app_feed, complaint_60_seconds_after_the_first_ends_the_run_even_after_a_gap)
{
    g_cfg.tsa.max_skip_pkts = 0;
    tsan_free(g_ctx.tc);
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    fake_clock::set(1000000);
    EXPECT_EQ(world.feed(without_tables(7)), 0);
    fake_clock::advance_sec(59);
    EXPECT_EQ(world.feed(without_tables(7)), 0);
    fake_clock::advance_sec(4); // 63 seconds gone, but the last complaint is 4 seconds old
    EXPECT_EQ(world.feed(without_tables(7)), 0);
    fake_clock::advance_sec(1);
    EXPECT_EQ(world.feed(without_tables(7)), -1);
    fake_clock::release();
}

TEST_F(app_feed, skip_phase_is_quiet)
{
    EXPECT_EQ(world.feed(without_tables(2000)), 0);
    EXPECT_EQ(log.messages(ll::warning), strings{});
    EXPECT_EQ(feed().pkt_count, 2000u);
}

// ---- RTP ------------------------------------------------------------------------------------------------------

// Users count on the cost of an RTP source: one packet in seven is looked at.
TEST_F(app_feed, of_an_rtp_packet_the_first_ts_packet_is_analyzed)
{
    tsb::stream st(tsb::one_program());
    const bytes all = tsb::cat(tsb::rtp_run(st.take(7 * 30)));
    EXPECT_EQ(world.feed(all), 0);
    EXPECT_EQ(world.info().stype.num, STY_RTP.num);
    EXPECT_EQ(world.info().ts_len, 1328u);
    EXPECT_EQ(analyzed(), 30u);
    EXPECT_EQ(feed().pkt_count, 30u);
    EXPECT_EQ(world.info().last_pktnum, 30u);
    EXPECT_EQ(feed().tail_size, 0u);
}

TEST_F(app_feed, rtp_packet_by_packet_gives_the_same)
{
    tsb::stream st(tsb::one_program());
    const std::vector<bytes> run = tsb::rtp_run(st.take(7 * 30));
    world.feed(tsb::cat({run[0], run[1]}));
    for (size_t i = 2; i < run.size(); ++i)
        ASSERT_EQ(world.feed(run[i]), 0);
    EXPECT_EQ(analyzed(), 30u);
}

TEST_F(app_feed, rtp_with_contributing_sources_or_an_extension_ends_the_run)
{
    for (const bool with_csrc : {true, false}) {
        const akit::outcome o = akit::in_child([&] {
            tsb::stream st(tsb::one_program());
            world.feed(tsb::cat(tsb::rtp_run(st.take(7 * 4))));
            tsb::rtp_builder odd = tsb::rtp(st.take(7));
            if (with_csrc)
                odd.csrc({1});
            else
                odd.extension(tsb::fill(4, 0));
            const bytes cut = odd.build();
            _exit(world.feed(part(cut, 0, 1328)) == -1 ? 0 : 1);
        });
        EXPECT_EQ(o.status, 0) << with_csrc;
    }
}

// ---- a segment ------------------------------------------------------------------------------------------------

namespace
{
struct mm_info rtp_info(size_t ts_len)
{
    struct mm_info info = {};
    info.stype = STY_RTP;
    info.ts_len = ts_len;
    return info;
}
} // namespace

TEST_F(app_feed, segment_of_several_packets_gives_their_number)
{
    struct mm_info info = {};
    info.stype = STY_MPEGTS;
    info.ts_len = PKT;
    const bytes seg = akit::clean_stream(7);
    EXPECT_EQ(seg_process(&info, seg.data(), seg.size()), 7);
    EXPECT_EQ(analyzed(), 7u);
}

TEST_F(app_feed, rtp_segment_of_several_packets_gives_one_step_each)
{
    tsb::stream st(tsb::one_program());
    const bytes seg = tsb::cat(tsb::rtp_run(st.take(7 * 3)));
    const struct mm_info info = rtp_info(1328);
    EXPECT_EQ(seg_process(&info, seg.data(), seg.size()), 3);
    EXPECT_EQ(analyzed(), 3u);
}

TEST_F(app_feed, rtp_padding_is_measured_against_the_payload)
{
    // 12 bytes of head, 7 packets, and padding that leaves one packet more than itself.
    const bytes fits = tsb::rtp(std::vector<tsb::packet>(1, tsb::null_pkt())).padding(100).build();
    struct mm_info info = rtp_info(fits.size());
    ASSERT_EQ(fits.size(), 12 + PKT + 100);
    EXPECT_EQ(seg_process(&info, fits.data(), fits.size()), -22);
    EXPECT_EQ(log.messages(ll::error), strings{"seg_process: bad RTP footer length = 100"});

    bytes one_less = fits;
    one_less.back() = 99;
    EXPECT_EQ(seg_process(&info, one_less.data(), one_less.size()), 1);
}

TEST_F(app_feed, rtp_segment_that_holds_no_whole_ts_packet_is_refused)
{
    const bytes seg = tsb::rtp_raw(part(akit::clean_stream(1), 0, 100)).build();
    const struct mm_info info = rtp_info(seg.size());
    EXPECT_EQ(seg_process(&info, seg.data(), seg.size()), -22);
    EXPECT_EQ(log.messages(ll::error), strings{"seg_process: bad RTP footer length = 0"});
    EXPECT_EQ(analyzed(), 0u);
}

TEST_F(app_feed, segment_out_of_sync_is_an_assertion)
{
    struct mm_info info = {};
    info.stype = STY_MPEGTS;
    info.ts_len = PKT;
    bytes seg = akit::clean_stream(2);
    seg[PKT] = 0x46;
    EXPECT_DEATH(seg_process(&info, seg.data(), seg.size()), "TS_SYNC == pkt\\[0\\]");
}

TEST_F(app_feed, rtp_segment_that_is_no_rtp_is_an_assertion)
{
    bytes seg = tsb::rtp(std::vector<tsb::packet>(7, tsb::null_pkt())).build();
    seg[0] = 0x40;
    const struct mm_info info = rtp_info(1328);
    EXPECT_DEATH(seg_process(&info, seg.data(), seg.size()), "is_rtp_pkt\\(seg\\)");
}
