// Statements about silent tracks and lost sync. The lost-sync tests rely on a process of their own each, as ctest
// gives it to them: the count is the process's.
#include "support/analyzer.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

namespace
{

using namespace tsb;

constexpr unsigned VIDEO = 101;
constexpr unsigned AUDIO = 102;
constexpr unsigned SILENT = 103;

packet plain(unsigned pid)
{
    return pkt().pid(pid).payload();
}

struct Silence : testing::Test {
    Analyzer a;

    // Packets 1 and 2 are the tables; the limit is in packets of the program.
    void begin(size_t limit = 10)
    {
        a.cfg.max_ndat_pcount = limit;
        a.feed_pat(pat({{1, 100}}));
        a.feed_pmt(tables(0));
        a.quiet();
    }
    static bytes tables(unsigned version)
    {
        return pmt(1, VIDEO, {{ES_AVC, VIDEO}, {ES_AAC, AUDIO}, {ES_AAC, SILENT}}).version(version);
    }
    void feed_n(unsigned pid, size_t n)
    {
        for (size_t i = 0; i < n; i++)
            a.feed(plain(pid));
    }
    program_info& pg(size_t i = 0) { return a->pg[i]; }
    strings human() { return a.log.messages(ll::warning); }
    strings normal() { return a.log.messages(ll::normal); }
    strings machine() { return a.alerts.messages(); }
};

struct LostSync : testing::Test {
    Analyzer a;
    LostSync() { fake_clock::set(1000); }
    ~LostSync() override { fake_clock::release(); }
    int lose() { return tsan_alert_lostsync(a.ctx()); }
    void lose_n(int n)
    {
        for (int i = 0; i < n; i++)
            EXPECT_EQ(0, lose()) << "case " << i + 1;
    }
};

} // namespace

// ---- silent tracks --------------------------------------------------------------------------------------------

TEST_F(Silence, check_is_armed_from_the_start)
{
    a.cfg.max_ndat_pcount = 7;
    EXPECT_EQ(7U, a->ndat_pcount);
}

TEST_F(Silence, silent_tracks_are_told_at_the_programs_limit)
{
    begin();
    feed_n(VIDEO, 9);
    EXPECT_EQ(strings{}, machine());
    a.feed(plain(VIDEO));
    EXPECT_EQ(
        (strings{"ALERT PID-NDAT [src] 0:1 pid102 received no data 0:0[12]",
                 "ALERT PID-NDAT [src] 0:2 pid103 received no data 0:0[12]", "[src] 2 tracks NOT receiving data"}),
        human());
    EXPECT_EQ((strings{"ALERT PID-NDAT src 102 0 1 0:0[12]", "ALERT PID-NDAT src 103 0 2 0:0[12]"}), machine());
    EXPECT_EQ(2U, pg().alert.pid_ndat);
    EXPECT_EQ(20U, a->ndat_pcount);
}

TEST_F(Silence, alert_repeats_with_every_further_limit)
{
    begin();
    feed_n(VIDEO, 5);
    feed_n(AUDIO, 4);
    EXPECT_EQ(0U, pg().alert.pid_ndat);
    for (uint64_t n = 1; n <= 3; n++) {
        feed_n(AUDIO, 9);
        EXPECT_EQ(n, pg().alert.pid_ndat);
        feed_n(AUDIO, 1);
    }
}

TEST_F(Silence, default_limit_is_ten_thousand_packets)
{
    begin(D_PCOUNT);
    feed_n(AUDIO, 1);
    feed_n(VIDEO, 9998);
    EXPECT_EQ(0U, pg().alert.pid_ndat);
    feed_n(VIDEO, 1);
    EXPECT_EQ(1U, pg().alert.pid_ndat);
    EXPECT_EQ((strings{"[src] 1 tracks NOT receiving data"}), with(human(), "NOT receiving"));
    feed_n(VIDEO, 9999);
    EXPECT_EQ(1U, pg().alert.pid_ndat);
    feed_n(VIDEO, 1);
    EXPECT_EQ(2U, pg().alert.pid_ndat);
}

TEST_F(Silence, check_stands_down_once_every_track_was_heard)
{
    begin();
    feed_n(AUDIO, 1);
    feed_n(SILENT, 1);
    feed_n(VIDEO, 8);
    EXPECT_EQ((strings{"[src] 3 tracks receiving data"}), normal());
    EXPECT_EQ(strings{}, human());
    EXPECT_EQ(0U, a->ndat_pcount);
    feed_n(VIDEO, 100);
    EXPECT_EQ(1U, normal().size());
}

TEST_F(Silence, changed_pmt_arms_the_check_again)
{
    begin();
    feed_n(AUDIO, 1);
    feed_n(SILENT, 1);
    feed_n(VIDEO, 8);
    a.quiet();
    a.feed_pmt(tables(1));
    EXPECT_EQ(20U, a->ndat_pcount);
    EXPECT_EQ((strings{"reset_ndat_pcount: (PTR) NDAT pcount=20"}),
              no_ptr(with(a.log.messages(ll::debug), "reset_ndat_pcount")));
    feed_n(VIDEO, 10);
    EXPECT_EQ((strings{"[src] 3 tracks receiving data"}), normal());
}

// The check asks whether a track ever had data: operators learn of tracks that never came up, not of quiet ones.
TEST_F(Silence, track_that_was_heard_before_a_pmt_change_counts_as_alive)
{
    begin();
    feed_n(AUDIO, 1);
    feed_n(SILENT, 1);
    feed_n(VIDEO, 8);
    a.feed_pmt(tables(1));
    feed_n(VIDEO, 1000);
    EXPECT_EQ(0U, pg().alert.pid_ndat);
}

TEST_F(Silence, changed_pat_arms_the_check_from_the_largest_count)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    feed_n(VIDEO, 3);
    feed_n(201, 5);
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}).version(1));
    EXPECT_EQ(1U, a->gac.pat_diff);
    EXPECT_EQ(15U, a->ndat_pcount);
}

TEST_F(Silence, changed_pat_ahead_of_any_track_arms_the_check_at_the_limit)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}}));
    a->ndat_pcount = 0;
    a.feed_pat(pat({{1, 100}, {2, 200}}).version(1));
    EXPECT_EQ(10U, a->ndat_pcount);
}

TEST_F(Silence, changed_pat_does_not_count_from_a_slot_out_of_use)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    feed_n(VIDEO, 3);
    feed_n(201, 5);
    a.feed_pat(pat({{1, 100}}).version(1));
    EXPECT_EQ(13U, a->ndat_pcount);
}

TEST_F(Silence, next_threshold_is_told_behind_the_summary)
{
    begin();
    feed_n(VIDEO, 9);
    a.quiet();
    a.feed(plain(VIDEO));
    EXPECT_EQ((strings{"ALERT PID-NDAT [src] 0:1 pid102 received no data 0:0[12]",
                       "ALERT PID-NDAT [src] 0:2 pid103 received no data 0:0[12]", "[src] 2 tracks NOT receiving data",
                       "reset_ndat_pcount: (PTR) NDAT pcount=20"}),
              no_ptr(a.log.messages()));
}

TEST_F(Silence, limit_of_zero_is_off_for_good)
{
    begin(0);
    EXPECT_EQ(0U, a->ndat_pcount);
    feed_n(VIDEO, 100);
    a.feed_pmt(tables(1));
    EXPECT_EQ(1U, pg().alert.pmt_diff);
    EXPECT_EQ(0U, a->ndat_pcount);
    feed_n(VIDEO, 100);
    EXPECT_EQ(0U, pg().alert.pid_ndat);
    EXPECT_EQ(strings{}, with(a.log.messages(), "NDAT pcount"));
}

TEST_F(Silence, threshold_is_met_by_the_packets_own_program)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}, {ES_AAC, AUDIO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    a.quiet();
    feed_n(VIDEO, 6);
    feed_n(201, 6);
    EXPECT_EQ(strings{}, machine());
    feed_n(201, 4);
    EXPECT_EQ((strings{"ALERT PID-NDAT src 102 0 1 1:0[19]"}), machine()) << "the walk is over all programs";
}

// Watchers of multi-program streams know that the count is the current program's; the line names the track.
TEST_F(Silence, alert_counts_on_the_packets_program_and_not_on_the_silent_streams)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    feed_n(201, 10);
    EXPECT_EQ(0U, pg(0).alert.pid_ndat);
    EXPECT_EQ(1U, pg(1).alert.pid_ndat);
}

TEST_F(Silence, program_without_a_pmt_holds_nothing_up)
{
    a.cfg.max_ndat_pcount = 10;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    feed_n(VIDEO, 10);
    EXPECT_EQ((strings{"[src] 1 tracks receiving data"}), normal());
    EXPECT_EQ(0U, a->ndat_pcount);
}

TEST_F(Silence, forced_check_looks_at_once)
{
    begin(1000);
    feed_n(VIDEO, 3);
    tsan_check_ndat(a.ctx());
    EXPECT_EQ(2U, pg().alert.pid_ndat);
    EXPECT_EQ(1003U, a->ndat_pcount);
}

TEST_F(Silence, forced_check_between_programs_counts_on_the_silent_streams_own)
{
    a.cfg.max_ndat_pcount = 1000;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    feed_n(VIDEO, 4);
    a.feed(null_pkt());
    a.quiet();
    tsan_check_ndat(a.ctx());
    EXPECT_EQ((strings{"ALERT PID-NDAT src 201 1 0 pkt[8]"}), machine());
    EXPECT_EQ(0U, pg(0).alert.pid_ndat);
    EXPECT_EQ(1U, pg(1).alert.pid_ndat);
    EXPECT_EQ(1004U, a->ndat_pcount);
}

TEST_F(Silence, forced_check_with_a_limit_of_zero_leaves_the_check_off)
{
    begin(0);
    feed_n(VIDEO, 3);
    tsan_check_ndat(a.ctx());
    EXPECT_EQ(2U, pg().alert.pid_ndat);
    EXPECT_EQ(0U, a->ndat_pcount);
}

TEST_F(Silence, forced_check_before_any_packet_finds_no_track)
{
    a.cfg.max_ndat_pcount = 10;
    tsan_check_ndat(a.ctx());
    EXPECT_EQ((strings{"[src] 0 tracks receiving data"}), normal());
    EXPECT_EQ(0U, a->ndat_pcount);
}

TEST_F(Silence, alert_forms_can_be_switched_off_and_still_count)
{
    a.cfg.access_log_alerts = false;
    a.cfg.no_rlog = true;
    begin();
    feed_n(VIDEO, 10);
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ((strings{"[src] 2 tracks NOT receiving data"}), human()) << "the summary is no alert";
    EXPECT_EQ(2U, pg().alert.pid_ndat);
}

// ---- lost sync ------------------------------------------------------------------------------------------------

TEST_F(LostSync, case_is_told_in_both_forms)
{
    a.feed(null_pkt());
    a.quiet();
    EXPECT_EQ(0, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC [src] seq=1 at pkt[1]"}), a.log.messages());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 1 [pkt[1]]"}), a.alerts.messages());
    EXPECT_EQ(1U, a->gac.lost_sync);
}

TEST_F(LostSync, before_any_packet_has_an_empty_tag)
{
    EXPECT_EQ(0, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 1 []"}), a.alerts.messages());
}

// Whoever reads the alert log alone must learn why a run ended.
TEST_F(LostSync, machine_line_comes_whatever_the_switch_says)
{
    a.cfg.access_log_alerts = false;
    a.cfg.no_rlog = true;
    a.ctx();
    a.quiet();
    EXPECT_EQ(0, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 1 []"}), a.alerts.messages());
    EXPECT_EQ(strings{}, a.log.messages());
}

TEST_F(LostSync, tenth_case_in_a_period_is_told_and_ends_the_run)
{
    lose_n(9);
    a.quiet();
    fake_clock::advance_sec(1);
    EXPECT_EQ(-1, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 10 []"}), a.alerts.messages());
    EXPECT_EQ((strings{"ALERT LOST-SYNC [src] seq=10 at "}), a.log.messages(ll::warning));
    EXPECT_EQ((strings{"tsan_alert_lostsync: bailing out after 10 cases within 1 sec"}), a.log.messages(ll::error));
    EXPECT_EQ(10U, a->gac.lost_sync);
}

TEST_F(LostSync, further_cases_stay_the_end_whatever_the_time)
{
    lose_n(9);
    EXPECT_EQ(-1, lose());
    fake_clock::advance_sec(100);
    a.quiet();
    EXPECT_EQ(-1, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 11 []"}), a.alerts.messages());
    EXPECT_EQ((strings{"tsan_alert_lostsync: bailing out after 11 cases within 100 sec"}), a.log.messages(ll::error));
}

TEST_F(LostSync, nine_cases_and_a_pause_start_over_at_one)
{
    lose_n(9);
    fake_clock::advance_sec(5);
    a.quiet();
    EXPECT_EQ(0, lose());
    EXPECT_EQ((strings{"ALERT LOST-SYNC src 1 []"}), a.alerts.messages());
    EXPECT_EQ(10U, a->gac.lost_sync) << "the total never goes back";
}

TEST_F(LostSync, period_lasts_three_seconds)
{
    lose_n(1);
    fake_clock::advance_sec(2);
    lose_n(1);
    EXPECT_EQ(1U, a.log.count("seq=2"));
    fake_clock::advance_sec(1); // three since the first
    lose_n(1);
    EXPECT_EQ(2U, a.log.count("seq=1 "));
}

TEST_F(LostSync, period_is_counted_from_its_first_case)
{
    for (int i = 0; i < 9; i++) {
        lose_n(1);
        fake_clock::advance_sec(2);
    }
    EXPECT_EQ(5U, a.log.count("seq=1 ")) << "at 0, 4, 8, 12, 16 s";
    EXPECT_EQ(4U, a.log.count("seq=2 "));
}
