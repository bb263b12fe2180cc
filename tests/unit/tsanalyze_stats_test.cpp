// Statements about the reports: the block of text, the records, and when they come.
#include "support/analyzer.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{

using namespace tsb;

constexpr unsigned VIDEO = 101;
constexpr unsigned AUDIO = 102;
constexpr unsigned SUBTITLE = 103;

struct Stats : testing::Test {
    Analyzer a;
    Stats() { fake_clock::set(5000); }
    ~Stats() override { fake_clock::release(); }

    void begin()
    {
        a.feed_pat(pat({{1, 100}}));
        a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}, {ES_AAC, AUDIO}, {ES_PRIVATE, SUBTITLE}}));
        a.quiet();
    }
    void feed_n(unsigned pid, size_t n)
    {
        for (size_t i = 0; i < n; i++)
            a.feed(pkt().pid(pid).payload());
    }
    program_info& pg(size_t i = 0) { return a->pg[i]; }

    std::string block()
    {
        char* mem = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&mem, &len);
        tsan_dump_stats(fp, a.ctx());
        fclose(fp);
        const std::string s(mem, len);
        free(mem);
        return s;
    }
    // The records of one report.
    strings records()
    {
        a.alerts.clear();
        tsan_alog_stats(a.ctx());
        return a.alerts.messages();
    }
    strings records(std::string_view part) { return with(records(), part); }
    // What the periodic check wrote as text, and its answer.
    std::pair<bool, std::string> check()
    {
        char* mem = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&mem, &len);
        const bool due = tsan_check_dump_stats(fp, a.ctx());
        fclose(fp);
        const std::string s(mem, len);
        free(mem);
        return {due, s};
    }
};

} // namespace

// ---- text -----------------------------------------------------------------------------------------------------

TEST_F(Stats, text_without_programs_is_the_streams_part_alone)
{
    EXPECT_EQ("tsan_stats BEGIN\n"
              "\tProcessed/analyzed             0/0\n"
              "\tPackets start-skipped:         0\n"
              "\tPrograms:                      0 \n\n"
              "\tStream-scope ALERTS:\n"
              "\t\tLOST-SYNC:         0\n"
              "\t\tPAT-DIFF:          0\n"
              "\t\tCC-MLR:            0\n\n"
              "tsan_stats END\n",
              block());
}

TEST_F(Stats, text_shows_every_counter_in_its_place)
{
    begin();
    feed_n(VIDEO, 3);
    feed_n(AUDIO, 2);
    feed_n(SUBTITLE, 1);
    a->gac = {.lost_sync = 11, .pat_diff = 12, .cc_mlr = 13};
    pg().alert = {.av_delta0 = 22,
                  .av_deltaplus = 21,
                  .pcr_delta = 23,
                  .pcr_freq = 24,
                  .cc_break = 25,
                  .cc_reset = 26,
                  .pmt_diff = 27,
                  .pid_ndat = 28};
    pg().stat.v_acount = 31;
    pg().stat.a_acount = 32;
    pg().stat.s_acount = 33;
    pg().stat.acount = 34;
    pg().stm[1].acount = 35;
    a->atotal = 36;
    const std::string block_text = block();
    EXPECT_EQ("tsan_stats BEGIN\n"
              "\tProcessed/analyzed             8/36\n"
              "\tPackets start-skipped:         2\n"
              "\tPrograms:                      1 \n\n"
              "\tStream-scope ALERTS:\n"
              "\t\tLOST-SYNC:         11\n"
              "\t\tPAT-DIFF:          12\n"
              "\t\tCC-MLR:            13\n\n"
              "\t---- PRG(0):3 streams, PMT(100) PCR(101) ----\n"
              "\tTracks:\n"
              "\t\t[0:0] V(pid101) [H.264/14496-10 video (MPEG-4/AVC)]: P/A: 3/3\n"
              "\t\t[0:1] A(pid102) [13818-7 Audio with ADTS transport syntax]: P/A: 2/35\n"
              "\t\t[0:2] S(pid103) [13818-1 PES private data]: P/A: 1/1\n"
              "\n"
              "\t++ Packets:\n"
              "\t\tprocessed/analyzed:    6/34\n"
              "\t\tprocessed V/A/S:       3/2/1\n"
              "\t\tanalyzed  V/A/S:       31/32/33\n"
              "\n"
              "\t++ Alerts:\n"
              "\t\tAV delta:          21\n"
              "\t\tAV zero:           22\n"
              "\t\tPCR delta:         23\n"
              "\t\tPCR frequency:     24\n"
              "\t\tCC-BRK:            25\n"
              "\t\tCC-RST:            26\n"
              "\t\tPMT-DIFF:          27\n"
              "\t\tPID-NDAT:          28\n"
              "\n"
              "\t------------------------------------------\n"
              "tsan_stats END\n",
              block_text);
}

TEST_F(Stats, text_calls_a_stream_of_two_programs_multiple)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    const std::string s = block();
    EXPECT_NE(std::string::npos, s.find("\tPrograms:                      2 (MPTS)\n\n"));
    EXPECT_NE(std::string::npos, s.find("\t---- PRG(0):0 streams, PMT(0) PCR(0) ----\n\tTracks:\n\n\t++ Packets:\n"));
    EXPECT_NE(std::string::npos, s.find("\t---- PRG(1):0 streams, PMT(0) PCR(0) ----\n"));
}

TEST_F(Stats, text_notes_its_time)
{
    (void)block();
    EXPECT_EQ(5000, a->last_stats_dumped);
}

// ---- records --------------------------------------------------------------------------------------------------

TEST_F(Stats, records_of_a_first_report_stand_in_order)
{
    a.cfg.max_pdts_delta = a.cfg.max_pcr_delta = a.cfg.pcr_freq_ms = 1;
    begin();
    feed_n(VIDEO, 3);
    feed_n(AUDIO, 2);
    feed_n(SUBTITLE, 1);
    fake_clock::advance_ms(1234);
    strings r = records();
    ASSERT_EQ(10U, r.size());
    EXPECT_EQ("STAT GLOBAL src 1234 1 2 0 0 0", r[0]);
    EXPECT_EQ("STAT PMTs src 0 100 3", r[1]);
    EXPECT_EQ("STAT PMTi src 0 101 V 3 3 [H.264/14496-10_video_(MPEG-4/AVC)]", r[2]);
    EXPECT_EQ("STAT PMTi src 0 102 A 2 2 [13818-7_Audio_with_ADTS_transport_syntax]", r[3]);
    EXPECT_EQ("STAT PMTi src 0 103 S 1 1 [13818-1_PES_private_data]", r[4]);
    EXPECT_EQ("STAT PRG src 101 6 6 3 3 2 2 1 1", r[5]);
    EXPECT_TRUE(r[6].starts_with("STAT AV-delta src 101 -1 ")) << r[6];
    EXPECT_TRUE(r[7].starts_with("STAT PCR-delta src 101 -1 ")) << r[7];
    EXPECT_TRUE(r[8].starts_with("STAT PCR-freq src 101 -1 ")) << r[8];
    EXPECT_EQ("STAT ALERT-count src 0 0 0 0 0 0 0 0", r[9]);
}

TEST_F(Stats, records_come_whatever_the_alert_switches_say)
{
    a.cfg.access_log_alerts = false;
    a.cfg.no_rlog = true;
    begin();
    EXPECT_FALSE(records().empty());
}

TEST_F(Stats, global_record_shows_every_field)
{
    begin();
    a->pre_skipped = 2;
    a->gac = {.lost_sync = 3, .pat_diff = 4, .cc_mlr = 5};
    a->nprogs = 1;
    fake_clock::advance_sec(7);
    EXPECT_EQ((strings{"STAT GLOBAL src 7000 1 2 3 4 5"}), records("GLOBAL"));
}

TEST_F(Stats, report_before_any_packet_is_the_global_record_of_age_zero)
{
    EXPECT_EQ((strings{"STAT GLOBAL src 0 0 0 0 0 0"}), records());
}

TEST_F(Stats, alert_count_record_leaves_pmt_changes_out)
{
    begin();
    pg().alert = {.av_delta0 = 2,
                  .av_deltaplus = 1,
                  .pcr_delta = 3,
                  .pcr_freq = 4,
                  .cc_break = 5,
                  .cc_reset = 6,
                  .pmt_diff = 99,
                  .pid_ndat = 7};
    EXPECT_EQ((strings{"STAT ALERT-count src 0 1 2 3 4 5 6 7"}), records("ALERT-count"));
}

TEST_F(Stats, program_record_shows_every_counter)
{
    begin();
    pg().stat = {.pcount = 1,
                 .acount = 2,
                 .v_pcount = 3,
                 .v_acount = 4,
                 .a_pcount = 5,
                 .a_acount = 6,
                 .s_pcount = 7,
                 .s_acount = 8};
    EXPECT_EQ((strings{"STAT PRG src 101 1 2 3 4 5 6 7 8"}), records("STAT PRG"));
}

// Readers place the records of several programs by their sequence: the PID says nothing about the program.
TEST_F(Stats, program_records_all_show_the_pcr_pid_of_the_packet_at_hand)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    feed_n(201, 1);
    EXPECT_EQ((strings{"STAT PRG src 201 0 0 0 0 0 0 0 0", "STAT PRG src 201 1 1 1 1 0 0 0 0"}), records("STAT PRG"));
}

TEST_F(Stats, program_records_between_programs_show_their_own_pcr_pid)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    a.feed(null_pkt());
    EXPECT_EQ((strings{"STAT PRG src 101 0 0 0 0 0 0 0 0", "STAT PRG src 201 0 0 0 0 0 0 0 0"}), records("STAT PRG"));
}

TEST_F(Stats, second_programs_stream_records_carry_their_own_index)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    EXPECT_EQ((strings{"STAT PMTs src 0 100 1", "STAT PMTi src 0 101 V 0 0 [H.264/14496-10_video_(MPEG-4/AVC)]",
                       "STAT PMTs src 1 200 1", "STAT PMTi src 1 201 V 0 0 [H.264/14496-10_video_(MPEG-4/AVC)]"}),
              records("STAT PMT"));
}

TEST_F(Stats, stream_list_comes_with_the_first_and_every_256th_report)
{
    begin();
    for (int n = 1; n <= 513; n++) {
        const bool expected = n == 1 || n == 257 || n == 513;
        EXPECT_EQ(expected, !records("STAT PMTs").empty()) << "report " << n;
    }
}

TEST_F(Stats, program_that_comes_later_counts_its_own_reports)
{
    begin();
    EXPECT_EQ(4U, records("STAT PMT").size());
    a.feed_pat(pat({{1, 100}, {2, 200}}).version(1));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    EXPECT_EQ((strings{"STAT PMTs src 1 200 1", "STAT PMTi src 1 201 V 0 0 [H.264/14496-10_video_(MPEG-4/AVC)]"}),
              records("STAT PMT"));
    EXPECT_EQ(strings{}, records("STAT PMT"));
}

TEST_F(Stats, report_before_the_pmt_spends_the_stream_list)
{
    a.feed_pat(pat({{1, 100}}));
    EXPECT_EQ((strings{"STAT PMTs src 0 0 0"}), records("STAT PMT"));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    for (int n = 2; n <= 256; n++)
        EXPECT_EQ(strings{}, records("STAT PMT")) << "report " << n;
    EXPECT_EQ(2U, records("STAT PMT").size());
}

TEST_F(Stats, delta_records_depend_on_their_limits)
{
    begin();
    EXPECT_EQ(strings{}, with(records(), "-1 "));
    a->cfg.max_pdts_delta = 1;
    EXPECT_EQ(1U, records("STAT AV-delta").size());
    EXPECT_EQ(0U, records("STAT PCR-").size());
    a->cfg.max_pdts_delta = 0;
    a->cfg.max_pcr_delta = 1;
    EXPECT_EQ(1U, records("STAT PCR-delta").size());
    EXPECT_EQ(0U, records("STAT PCR-freq").size());
    a->cfg.max_pcr_delta = 0;
    a->cfg.pcr_freq_ms = 1;
    EXPECT_EQ(1U, records("STAT PCR-freq").size());
    EXPECT_EQ(0U, records("STAT PCR-delta").size());
}

TEST_F(Stats, delta_records_name_reference_and_pcr_stream)
{
    a.cfg.max_pdts_delta = a.cfg.max_pcr_delta = a.cfg.pcr_freq_ms = 1;
    a.feed_pat(pat({{1, 100}}));
    a.feed_pmt(pmt(1, AUDIO, {{ES_AVC, VIDEO}, {ES_AAC, AUDIO}}));
    EXPECT_TRUE(records("AV-delta").at(0).starts_with("STAT AV-delta src 101 -1 "));
    EXPECT_TRUE(records("PCR-delta").at(0).starts_with("STAT PCR-delta src 102 -1 "));
    EXPECT_TRUE(records("PCR-freq").at(0).starts_with("STAT PCR-freq src 102 -1 "));
    pg().ref_idx = pg().pcr_idx = -1;
    EXPECT_TRUE(records("AV-delta").at(0).starts_with("STAT AV-delta src -1 -1 "));
    EXPECT_TRUE(records("PCR-freq").at(0).starts_with("STAT PCR-freq src -1 -1 "));
}

TEST_F(Stats, delta_records_show_what_was_measured)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    for (uint64_t ms : {1000, 1040, 1060})
        a.feed(pkt().pid(VIDEO).pcr(ms * 90).no_payload());
    EXPECT_EQ((strings{"STAT PCR-freq src 101 -1 30.00 2 60 20 40 30.00 2 60 20 40"}), records("PCR-freq"));
    tsan_reset_local_stats(a.ctx());
    a.feed(pkt().pid(VIDEO).pcr(1070 * 90).no_payload());
    EXPECT_EQ((strings{"STAT PCR-freq src 101 -1 10.00 1 10 10 10 23.33 3 70 20 40"}), records("PCR-freq"))
        << "the global minimum learns of a span's first value with its second";
}

TEST_F(Stats, delta_record_of_an_empty_span_shows_a_nan_and_zeros)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    const std::string r = records("PCR-freq").at(0);
    EXPECT_NE(std::string::npos, r.find("nan 0 0 0 0 ")) << r;
    EXPECT_TRUE(r.ends_with("nan 0 0 0 0")) << r;
}

// ---- local spans ----------------------------------------------------------------------------------------------

TEST_F(Stats, local_reset_covers_the_aggregates_of_programs_in_use_and_nothing_else)
{
    begin();
    feed_n(VIDEO, 3);
    for (size_t i : {0, 1}) {
        inc_aval(&pg(i).av_pdts_delta, 1);
        inc_aval(&pg(i).av_pcr_delta, 2);
        inc_aval(&pg(i).av_pcr_freq, 3);
    }
    pg().alert.cc_break = 5;
    tsan_reset_local_stats(a.ctx());
    EXPECT_EQ(0U, pg(0).av_pdts_delta.count);
    EXPECT_EQ(0U, pg(0).av_pcr_delta.count);
    EXPECT_EQ(0U, pg(0).av_pcr_freq.count);
    EXPECT_EQ(1U, pg(0).av_pdts_delta.g_count);
    EXPECT_EQ(1U, pg(1).av_pdts_delta.count) << "slot 1 is not in use";
    EXPECT_EQ(5U, pg().alert.cc_break);
    EXPECT_EQ(3U, pg().stat.pcount);
}

TEST_F(Stats, local_reset_covers_every_program_in_use)
{
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}));
    for (size_t i : {0, 1, 2})
        inc_aval(&pg(i).av_pcr_freq, 3);
    tsan_reset_local_stats(a.ctx());
    for (size_t i : {0, 1, 2})
        EXPECT_EQ(0U, pg(i).av_pcr_freq.count) << i;
}

TEST_F(Stats, reports_alone_reset_nothing)
{
    begin();
    inc_aval(&pg().av_pcr_freq, 3);
    (void)block();
    (void)records();
    EXPECT_EQ(1U, pg().av_pcr_freq.count);
}

// ---- the period -----------------------------------------------------------------------------------------------

TEST_F(Stats, period_of_zero_reports_nothing)
{
    begin();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ((std::pair<bool, std::string>{false, ""}), check());
        fake_clock::advance_sec(1000);
    }
    EXPECT_EQ(0, a->last_stats_dumped);
    EXPECT_EQ(strings{}, a.alerts.messages());
}

TEST_F(Stats, first_report_comes_one_period_after_the_first_check)
{
    a.cfg.dump_stats_period = 10;
    begin();
    EXPECT_FALSE(check().first);
    fake_clock::advance_sec(9);
    EXPECT_FALSE(check().first);
    EXPECT_EQ(strings{}, a.alerts.messages());
    fake_clock::advance_sec(1);
    const auto [due, text] = check();
    EXPECT_TRUE(due);
    EXPECT_TRUE(text.starts_with("tsan_stats BEGIN\n"));
    EXPECT_EQ(1U, a.alerts.count("STAT GLOBAL"));
}

TEST_F(Stats, next_report_is_due_one_period_after_the_text)
{
    a.cfg.dump_stats_period = 10;
    begin();
    (void)check();
    fake_clock::advance_sec(25);
    EXPECT_TRUE(check().first);
    EXPECT_FALSE(check().first);
    fake_clock::advance_sec(9);
    EXPECT_FALSE(check().first);
    fake_clock::advance_sec(1);
    EXPECT_TRUE(check().first);
}

// Without a stream for the text the records come at every check once they are due: the text sets the time.
TEST_F(Stats, report_without_a_stream_stays_due)
{
    a.cfg.dump_stats_period = 10;
    begin();
    EXPECT_FALSE(tsan_check_dump_stats(nullptr, a.ctx()));
    fake_clock::advance_sec(10);
    EXPECT_TRUE(tsan_check_dump_stats(nullptr, a.ctx()));
    EXPECT_TRUE(tsan_check_dump_stats(nullptr, a.ctx()));
    EXPECT_EQ(2U, a.alerts.count("STAT GLOBAL"));
    EXPECT_EQ(5000, a->last_stats_dumped);
}

TEST_F(Stats, clock_that_was_set_back_reports_nothing)
{
    a.cfg.dump_stats_period = 10;
    begin();
    (void)check();
    fake_clock::set(100);
    EXPECT_FALSE(check().first);
}
