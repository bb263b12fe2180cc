// Continuity: breaks, restarts at 0, equal jumps within a datagram.
#include "support/analyzer.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

namespace
{

using namespace tsb;

packet video(unsigned cc)
{
    return pkt().pid(101).cc(cc).payload();
}

packet audio(unsigned cc)
{
    return pkt().pid(102).cc(cc).payload();
}

struct CC : testing::Test {
    Analyzer a;
    CC() { a.cfg.cc_track = true; }
    void begin()
    {
        a.one_program();
        a.quiet();
    }
    program_info& pg() { return a->pg[0]; }
    strings human() { return a.log.messages(ll::warning); }
};

TEST_F(CC, first_packet_of_a_stream_sets_the_counter_without_a_check)
{
    begin();
    a.feed(video(9));
    EXPECT_EQ(pg().stm[0].cc.value, 9);
    EXPECT_EQ(pg().alert.cc_break, 0u);
    EXPECT_EQ(human(), strings{});
}

TEST_F(CC, fifteen_then_zero_is_in_sequence)
{
    begin();
    a.feed({video(14), video(15), video(0), video(1)});
    EXPECT_EQ(pg().alert.cc_break, 0u);
    EXPECT_EQ(a.alerts.lines(), strings{});
}

TEST_F(CC, every_counter_has_one_successor)
{
    begin();
    unsigned breaks = 0;
    for (unsigned last = 0; last < 16; ++last) {
        for (unsigned cc = 0; cc < 16; ++cc) {
            pg().stm[0].cc.value = int(last);
            a.feed(video(cc));
            breaks += cc != (last + 1) % 16;
            EXPECT_EQ(pg().alert.cc_break, breaks) << last << " then " << cc;
            EXPECT_EQ(pg().stm[0].cc.value, int(cc));
        }
    }
}

TEST_F(CC, break_writes_a_human_and_a_machine_line_and_counts)
{
    begin();
    tsan_next_seg(a.tc);
    a.feed(video(3)); // packet 3
    tsan_next_seg(a.tc);
    a.feed(video(7));
    EXPECT_EQ(human(), strings{"ALERT CC-BRK [src] dgram:2 last/current=3/7 pid=101 at 0:0[4]"});
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT CC-BRK src 101 2 3 7 0:0[4]"});
    EXPECT_EQ(pg().alert.cc_break, 1u);
    EXPECT_EQ(a->last_cca.pid, 101u);
    EXPECT_EQ(a->last_cca.delta, 4);
    EXPECT_EQ(a->last_cca.seg_idx, 2u);
}

// By design a legal duplicate is a break like any other, with a jump of 0.
TEST_F(CC, repeated_counter_is_a_break_with_jump_0)
{
    begin();
    a.feed({video(15), video(15)});
    EXPECT_EQ(human(), strings{"ALERT CC-BRK [src] dgram:0 last/current=15/15 pid=101 at 0:0[4]"});
    EXPECT_EQ(a->last_cca.delta, 0);
}

// By design the discontinuity indicator is not read.
TEST_F(CC, discontinuity_indicator_excuses_nothing)
{
    begin();
    a.feed({video(1), pkt().pid(101).cc(9).discontinuity().payload()});
    EXPECT_EQ(pg().alert.cc_break, 1u);
}

TEST_F(CC, jump_over_the_wrap_is_counted_modulo_16)
{
    begin();
    a.feed({video(3), video(1)});
    EXPECT_EQ(a->last_cca.delta, 14);
}

TEST_F(CC, packets_without_payload_neither_check_nor_advance)
{
    begin();
    a.feed({video(3), pkt().pid(101).cc(9).no_payload(), video(4)});
    EXPECT_EQ(pg().alert.cc_break, 0u);
    EXPECT_EQ(pg().stm[0].pcount, 3u);
}

TEST_F(CC, check_is_off_unless_it_is_set)
{
    a.cfg.cc_track = false;
    begin();
    a.feed({video(3), video(9)});
    EXPECT_EQ(pg().stm[0].cc.value, -1);
    EXPECT_EQ(pg().alert.cc_break, 0u);
}

TEST_F(CC, no_rlog_drops_the_human_line_only)
{
    a.cfg.no_rlog = true;
    begin();
    a.feed({video(3), video(9)});
    EXPECT_EQ(human(), strings{});
    EXPECT_EQ(a.alerts.messages().size(), 1u);
    EXPECT_EQ(pg().alert.cc_break, 1u);
}

TEST_F(CC, access_log_alerts_off_drops_the_machine_line_only)
{
    a.cfg.access_log_alerts = false;
    begin();
    a.feed({video(3), video(9)});
    EXPECT_EQ(human().size(), 1u);
    EXPECT_EQ(a.alerts.messages(), strings{});
}

TEST_F(CC, trace_line_comes_for_each_checked_packet)
{
    a.cfg.trk.cc_track = true;
    begin();
    a.feed({video(3), audio(5)});
    EXPECT_EQ(a.log.messages(ll::info),
              (strings{"analyze_pkt: 2 skipped before analysis", "cc_track: [src] CC=3 pid=101 at 0:0[3]",
                       "cc_track: [src] CC=5 pid=102 at 0:1[4]"}));
}

TEST_F(CC, stream_that_is_not_in_the_program_ends_the_process)
{
    begin();
    a.feed(video(3));
    EXPECT_DEATH(tsan_int::cc_track(a.tc, 999, 1), "i >= 0 && i < \\(ssize_t\\)prog\\(tc\\)->nstreams");
}

TEST_F(CC, stream_is_found_by_its_pid_when_it_is_not_the_current_one)
{
    begin();
    a.feed(video(3));
    tsan_int::cc_track(a.tc, 102, 6);
    EXPECT_EQ(pg().stm[1].cc.value, 6);
}

// ---- restarts at 0 --------------------------------------------------------------------------------------------

struct CCRestart : CC {
    CCRestart()
    {
        fake_clock::set(5000);
        a.cfg.cc_max_ms0_ms = 5000;
    }
    ~CCRestart() override { fake_clock::release(); }
    // A jump from 7 to 0 on the video stream.
    void jump_to_zero()
    {
        pg().stm[0].cc.value = 7;
        a.feed(video(0));
    }
};

TEST_F(CCRestart, first_jump_to_zero_is_a_break_and_starts_the_clock)
{
    begin();
    jump_to_zero();
    EXPECT_EQ(pg().alert.cc_break, 1u);
    EXPECT_EQ(pg().alert.cc_reset, 0u);
    EXPECT_EQ(pg().stm[0].cc.ms0_tm.tv_sec, 5000);
}

TEST_F(CCRestart, second_jump_long_after_is_a_restart_and_a_third_soon_after_is_a_break)
{
    begin();
    jump_to_zero();
    a.quiet();
    fake_clock::advance_ms(6001);
    jump_to_zero();
    EXPECT_EQ(human(), strings{"ALERT CC-RST [src] dgram:0 last/current=7/0 pid=101 delta_ms=6001 at 0:0[4]"});
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT CC-RST src 101 0 7 0 6001 0:0[4]"});
    EXPECT_EQ(pg().alert.cc_reset, 1u);
    a.quiet();
    fake_clock::advance_ms(1000);
    jump_to_zero();
    EXPECT_EQ(human(), strings{"ALERT CC-BRK [src] dgram:0 last/current=7/0 pid=101 at 0:0[5]"});
    EXPECT_EQ(pg().alert.cc_reset, 1u);
    EXPECT_EQ(pg().alert.cc_break, 2u);
}

TEST_F(CCRestart, threshold_itself_is_a_restart_and_one_ms_less_is_not)
{
    begin();
    jump_to_zero();
    fake_clock::advance_ms(4999);
    jump_to_zero();
    EXPECT_EQ(pg().alert.cc_reset, 0u);
    fake_clock::advance_ms(5000);
    jump_to_zero();
    EXPECT_EQ(pg().alert.cc_reset, 1u);
}

TEST_F(CCRestart, each_jump_restarts_the_clock)
{
    begin();
    for (int i = 0; i < 5; ++i) {
        jump_to_zero();
        fake_clock::advance_ms(3000);
    }
    EXPECT_EQ(pg().alert.cc_reset, 0u);
    EXPECT_EQ(pg().alert.cc_break, 5u);
}

TEST_F(CCRestart, jump_to_another_counter_leaves_the_clock_alone)
{
    begin();
    jump_to_zero();
    fake_clock::advance_ms(4000);
    pg().stm[0].cc.value = 7;
    a.feed(video(1));
    fake_clock::advance_ms(1000);
    jump_to_zero();
    EXPECT_EQ(pg().alert.cc_reset, 1u);
}

TEST_F(CCRestart, each_stream_has_its_own_clock)
{
    begin();
    jump_to_zero();
    fake_clock::advance_ms(6000);
    pg().stm[1].cc.value = 7;
    a.feed(audio(0));
    EXPECT_EQ(pg().alert.cc_reset, 0u);
}

TEST_F(CCRestart, threshold_of_0_leaves_every_jump_a_break)
{
    a.cfg.cc_max_ms0_ms = 0;
    begin();
    jump_to_zero();
    fake_clock::advance_ms(60000);
    jump_to_zero();
    EXPECT_EQ(pg().alert.cc_reset, 0u);
    EXPECT_EQ(pg().stm[0].cc.ms0_tm.tv_sec, 0);
}

TEST_F(CCRestart, zero_in_sequence_is_no_jump)
{
    begin();
    a.feed({video(15), video(0)});
    EXPECT_EQ(pg().stm[0].cc.ms0_tm.tv_sec, 0);
}

TEST_F(CCRestart, switches_apply_to_the_restart_lines_too)
{
    a.cfg.no_rlog = true;
    a.cfg.access_log_alerts = false;
    begin();
    jump_to_zero();
    fake_clock::advance_ms(6000);
    jump_to_zero();
    EXPECT_EQ(human(), strings{});
    EXPECT_EQ(a.alerts.lines(), strings{});
    EXPECT_EQ(pg().alert.cc_reset, 1u);
}

// ---- equal jumps within a datagram ----------------------------------------------------------------------------

struct CCMlr : CC {
    // Both streams known with counter 0, and the next datagram begun.
    void begin_mlr()
    {
        begin();
        a.feed({video(0), audio(0)});
        tsan_next_seg(a.tc);
        a.quiet();
    }
};

TEST_F(CCMlr, equal_jumps_on_two_pids_in_one_datagram_are_reported_at_its_end)
{
    begin_mlr();
    a.feed({video(3), audio(3)});
    EXPECT_EQ(a->last_cca.nmlr, 1);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
    tsan_next_seg(a.tc);
    EXPECT_EQ(a.alerts.messages(), (strings{"ALERT CC-BRK src 101 1 0 3 0:0[5]", "ALERT CC-BRK src 102 1 0 3 0:1[6]",
                                            "ALERT CC-MLR src 1 1 0:1[6]"}));
    EXPECT_EQ(a->gac.cc_mlr, 1u);
    EXPECT_EQ(a->last_cca.nmlr, 0);
    EXPECT_EQ(pg().last_seg_idx, 2u);
}

// By design this one human line ends without a line feed: what reads the log may rely on it.
TEST_F(CCMlr, human_line_ends_without_a_line_feed)
{
    begin_mlr();
    a.feed({video(3), audio(3)});
    tsan_next_seg(a.tc);
    const std::string text = a.log.text(), end = "ALERT CC-MLR [src] dgram:1 count=1 at 0:1[6]";
    ASSERT_GE(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

TEST_F(CCMlr, further_equal_jumps_on_alternating_pids_add_up)
{
    begin_mlr();
    a.feed({video(3), audio(3), video(6), audio(6)});
    EXPECT_EQ(a->last_cca.nmlr, 3);
    tsan_next_seg(a.tc);
    EXPECT_EQ(with(a.alerts.messages(), "MLR"), strings{"ALERT CC-MLR src 1 3 0:1[8]"});
}

TEST_F(CCMlr, equal_jumps_on_one_pid_are_not)
{
    begin_mlr();
    a.feed({video(3), video(6)});
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
}

TEST_F(CCMlr, unequal_jumps_are_not)
{
    begin_mlr();
    a.feed({video(3), audio(4)});
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
}

TEST_F(CCMlr, jumps_in_two_datagrams_are_not)
{
    begin_mlr();
    a.feed(video(3));
    tsan_next_seg(a.tc);
    a.feed(audio(3));
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
}

TEST_F(CCMlr, break_in_datagram_0_is_not_remembered)
{
    begin();
    a.feed({video(0), audio(0), video(3), audio(3)});
    EXPECT_EQ(a->last_cca.nmlr, 0);
}

TEST_F(CCMlr, packet_in_sequence_after_the_breaks_wipes_them_out)
{
    begin_mlr();
    a.feed({video(3), audio(3), audio(4)});
    EXPECT_EQ(a->last_cca.nmlr, -1);
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
    EXPECT_EQ(a->last_cca.nmlr, 0);
}

TEST_F(CCMlr, packet_in_sequence_ahead_of_the_breaks_rules_them_out)
{
    begin_mlr();
    a.feed({video(1), video(4), audio(3)});
    EXPECT_EQ(a->last_cca.nmlr, -1);
}

TEST_F(CCMlr, switches_apply_and_the_count_goes_on)
{
    a.cfg.no_rlog = true;
    a.cfg.access_log_alerts = false;
    begin_mlr();
    a.feed({video(3), audio(3)});
    tsan_next_seg(a.tc);
    EXPECT_EQ(human(), strings{});
    EXPECT_EQ(a.alerts.lines(), strings{});
    EXPECT_EQ(a->gac.cc_mlr, 1u);
}

// ---- datagrams ------------------------------------------------------------------------------------------------

TEST_F(CC, datagram_behind_a_packet_without_program_is_not_counted)
{
    begin();
    a.feed(video(0));
    tsan_next_seg(a.tc);
    EXPECT_EQ(pg().last_seg_idx, 1u);
    for (const packet& p : {null_pkt(), packet(pkt().pid(17)), packet(pkt().pid(500))}) {
        a.feed(p);
        tsan_next_seg(a.tc);
    }
    a.feed_pat(pat({{1, 100}}));
    tsan_next_seg(a.tc);
    EXPECT_EQ(pg().last_seg_idx, 1u);
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}));
    tsan_next_seg(a.tc);
    EXPECT_EQ(pg().last_seg_idx, 2u);
}

TEST_F(CC, boundary_without_program_leaves_the_mlr_count_alone)
{
    begin();
    a->last_cca.nmlr = 4;
    a.feed(null_pkt());
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->last_cca.nmlr, 4);
    EXPECT_EQ(a->gac.cc_mlr, 0u);
}

// By design the counts of a multi-program stream's programs differ: only one of them counts a datagram.
TEST_F(CC, datagram_counts_for_the_program_of_the_packet_before_only)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    for (int i = 0; i < 3; ++i) {
        a.feed(pkt().pid(201).cc(unsigned(i)));
        tsan_next_seg(a.tc);
    }
    a.feed(video(0));
    tsan_next_seg(a.tc);
    EXPECT_EQ(a->pg[0].last_seg_idx, 1u);
    EXPECT_EQ(a->pg[1].last_seg_idx, 3u);
}

} // namespace
