// Statements about the clock checks: PCR against PCR, audio against PCR, audio against the reference video stream.
#include "support/analyzer.h"

#include <gtest/gtest.h>

namespace
{

using namespace tsb;

constexpr uint64_t WRAP = uint64_t{1} << 33;
constexpr unsigned VIDEO = 101; // carries the PCR
constexpr unsigned AUDIO = 102;
constexpr unsigned SUBTITLE = 103;

packet pcr(uint64_t base, unsigned pid = VIDEO)
{
    return pkt().pid(pid).pcr(base).no_payload();
}

packet plain(unsigned pid)
{
    return pkt().pid(pid).payload();
}

// A unit start whose payload is a PES head and what is behind it.
packet start(unsigned pid, const bytes& pes_bytes)
{
    return pkt().pid(pid).unit_start().payload(pes_bytes);
}

packet pts(unsigned pid, uint64_t value)
{
    return start(pid, pes(0xc0).pts(value).payload(20));
}

packet dts(unsigned pid, uint64_t pts_value, uint64_t dts_value)
{
    return start(pid, pes(0xc0).pts(pts_value).dts(dts_value).payload(20));
}

struct Clock : testing::Test {
    Analyzer a;

    // Packets 1 and 2 are the tables.
    void begin(std::vector<es> streams = {{ES_AVC, VIDEO}, {ES_AAC, AUDIO}, {ES_PRIVATE, SUBTITLE}},
               unsigned pcr_pid = VIDEO)
    {
        a.feed_pat(pat({{1, 100}}));
        a.feed_pmt(pmt(1, pcr_pid, streams));
        a.quiet();
    }
    program_info& pg() { return a->pg[0]; }
    stream_info& stm(size_t i) { return a->pg[0].stm[i]; }
    strings human() { return a.log.messages(ll::warning); }
    strings machine() { return a.alerts.messages(); }
};

} // namespace

// ---- packet fields --------------------------------------------------------------------------------------------

TEST(packet_fields, payload_begins_behind_the_head_or_the_adaptation_field)
{
    const packet bare = pkt().payload();
    EXPECT_EQ(bare.data() + 4, tsan_int::ts_get_payload(bare.data()).data());
    EXPECT_EQ(184U, tsan_int::ts_get_payload(bare.data()).size());
    const packet with_af = pkt().af_len(10).payload();
    EXPECT_EQ(with_af.data() + 15, tsan_int::ts_get_payload(with_af.data()).data());
    EXPECT_EQ(173U, tsan_int::ts_get_payload(with_af.data()).size());
}

TEST(packet_fields, payload_that_would_begin_behind_the_packet_is_none)
{
    EXPECT_EQ(1U, tsan_int::ts_get_payload(packet(pkt().af_len(182).payload()).data()).size());
    EXPECT_TRUE(tsan_int::ts_get_payload(packet(pkt().af_len(183).payload()).data()).empty());
    EXPECT_TRUE(tsan_int::ts_get_payload(packet(pkt().af_len(255).payload()).data()).empty());
    EXPECT_TRUE(tsan_int::ts_get_payload(packet(pkt().no_payload()).data()).empty());
}

TEST(packet_fields, pes_head_is_a_start_code_and_a_stream_id_of_188_or_more)
{
    bytes b = pes(0xbc).payload(20);
    EXPECT_TRUE(tsan_int::is_pes_pkt(b));
    b[3] = 187;
    EXPECT_FALSE(tsan_int::is_pes_pkt(b));
    b[3] = 255;
    EXPECT_TRUE(tsan_int::is_pes_pkt(b));
    for (size_t i = 0; i < 3; i++) {
        bytes c = b;
        c[i] ^= 1;
        EXPECT_FALSE(tsan_int::is_pes_pkt(c)) << "byte " << i;
    }
}

TEST(packet_fields, pes_head_counts_as_far_as_it_lies_in_the_packet)
{
    const bytes b = pes(0xc0).pts(1).dts(2).payload(20);
    const bytes_view v = b;
    EXPECT_FALSE(tsan_int::is_pes_pkt(v.first(8)));
    EXPECT_TRUE(tsan_int::is_pes_pkt(v.first(9)));
    EXPECT_FALSE(tsan_int::pes_has_PTS(v.first(13)));
    EXPECT_TRUE(tsan_int::pes_has_PTS(v.first(14)));
    EXPECT_FALSE(tsan_int::pes_has_DTS(v.first(18)));
    EXPECT_TRUE(tsan_int::pes_has_DTS(v.first(19)));
}

TEST(packet_fields, stamps_are_33_bits_with_untested_markers)
{
    for (uint64_t v : {uint64_t{0}, uint64_t{1}, uint64_t{0x155555555}, WRAP - 1}) {
        bytes b = pes(0xc0).pts(v).dts(WRAP - 1 - v).payload(20);
        EXPECT_EQ(v, tsan_int::pes_get_PTS(b));
        EXPECT_EQ(WRAP - 1 - v, tsan_int::pes_get_DTS(b));
        for (size_t i : {9, 11, 13})
            b[i] ^= 1;
        b[9] ^= 0xf0;
        EXPECT_EQ(v, tsan_int::pes_get_PTS(b));
    }
}

TEST(packet_fields, dts_needs_both_flags)
{
    bytes b = pes(0xc0).pts(1).dts(2).payload(20);
    b[7] = 0x40;
    EXPECT_FALSE(tsan_int::pes_has_PTS(b));
    EXPECT_FALSE(tsan_int::pes_has_DTS(b));
    b[7] = 0x80;
    EXPECT_TRUE(tsan_int::pes_has_PTS(b));
    EXPECT_FALSE(tsan_int::pes_has_DTS(b));
}

// ---- PCR intake -----------------------------------------------------------------------------------------------

TEST_F(Clock, pcr_is_taken_with_its_place)
{
    begin();
    EXPECT_FALSE(pg().got_pcr);
    a.feed(pcr(WRAP - 1));
    EXPECT_EQ(WRAP - 1, pg().last_pcr);
    EXPECT_EQ(3U, pg().pcr_pktnum);
    EXPECT_TRUE(pg().got_pcr);
    EXPECT_STREQ("0:0[3]", tsan_int::pcr_tag_text(&pg()));
}

TEST_F(Clock, pcr_extension_plays_no_part)
{
    begin();
    a.feed(pkt().pid(VIDEO).pcr(90000, 299).no_payload());
    EXPECT_EQ(90000U, pg().last_pcr);
}

TEST_F(Clock, pcr_on_another_pid_is_not_taken)
{
    begin();
    a.feed(pcr(90000, AUDIO));
    EXPECT_FALSE(pg().got_pcr);
}

TEST_F(Clock, pcr_on_a_pid_of_no_table_is_not_taken)
{
    begin({{ES_AVC, VIDEO}}, 200);
    a.feed(pcr(90000, 200));
    EXPECT_FALSE(pg().got_pcr);
    EXPECT_EQ(-1, pg().pcr_idx);
}

TEST_F(Clock, adaptation_field_without_a_byte_has_no_pcr)
{
    begin();
    a.feed(pkt().pid(VIDEO).af_len(0).payload().set(5, 0x10));
    EXPECT_FALSE(pg().got_pcr);
}

TEST_F(Clock, pcr_trace_line_shows_the_time_and_the_packet)
{
    a.cfg.trk.pcr_update = true;
    begin();
    a.feed({pcr(90000 * 61), pcr(90000 * 61 + 45)});
    EXPECT_EQ((strings{"[src] new PCR=5490000 [00:01:01.000] at 0:0[3]",
                       "[src] new PCR=5490045 [00:01:01.000] at 0:0[4]:(pcr=5490000)+1"}),
              with(a.log.messages(ll::info), "new PCR"));
}

// ---- PCR against PCR ------------------------------------------------------------------------------------------

TEST_F(Clock, pcr_step_at_the_limit_is_measured_and_raises_nothing)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    a.feed({pcr(90000), pcr(90000 + 100 * 90 + 89)});
    EXPECT_EQ(1U, pg().av_pcr_freq.count);
    EXPECT_EQ(100U, pg().av_pcr_freq.total);
    EXPECT_EQ(strings{}, human());
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ(0U, pg().alert.pcr_freq);
}

// Tools read the human line's two times as they are: of the bare ticks, not of ticks divided by 90.
TEST_F(Clock, pcr_step_above_the_limit_is_an_alert_with_times_of_bare_ticks)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    a.feed({pcr(90000), pcr(90000 + 101 * 90)});
    EXPECT_EQ((strings{"ALERT PCR-FREQ pid=101 old/new: 90000 [00:01:30.000]/99090 [00:01:39.090] delta=101"}),
              human());
    EXPECT_EQ((strings{"ALERT PCR-FREQ src 101 90000 99090 101 [0:0[4]:(pcr=90000)+1]"}), machine());
    EXPECT_EQ(1U, pg().alert.pcr_freq);
    EXPECT_EQ(99090U, pg().last_pcr);
}

TEST_F(Clock, first_pcr_has_nothing_to_be_measured_against)
{
    a.cfg.pcr_freq_ms = 1;
    begin();
    a.feed(pcr(900000));
    EXPECT_EQ(0U, pg().av_pcr_freq.count);
}

TEST_F(Clock, pcr_behind_a_pcr_of_zero_is_not_measured)
{
    a.cfg.pcr_freq_ms = 1;
    begin();
    a.feed({pcr(0), pcr(900000)});
    EXPECT_EQ(0U, pg().av_pcr_freq.count);
    EXPECT_TRUE(pg().got_pcr);
}

TEST_F(Clock, pcr_limit_of_zero_measures_nothing)
{
    begin();
    a.feed({pcr(90000), pcr(9000000)});
    EXPECT_EQ(0U, pg().av_pcr_freq.g_count);
    EXPECT_EQ(strings{}, machine());
}

TEST_F(Clock, pcr_step_through_the_wrap_is_its_true_length)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    a.feed({pcr(WRAP - 9000), pcr(9000)});
    EXPECT_EQ(200U, pg().av_pcr_freq.total);
    EXPECT_EQ((strings{"ALERT PCR-FREQ src 101 8589925592 9000 200 [0:0[4]:(pcr=8589925592)+1]"}), machine());
}

TEST_F(Clock, pcr_that_runs_backwards_counts_as_a_step_of_zero)
{
    a.cfg.pcr_freq_ms = 100;
    begin();
    a.feed({pcr(900000), pcr(90000)});
    EXPECT_EQ(1U, pg().av_pcr_freq.count);
    EXPECT_EQ(0U, pg().av_pcr_freq.total);
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ(1U, a.log.count("PCR last=90000 < first=900000 diff="));
}

// ---- stamps ---------------------------------------------------------------------------------------------------

TEST_F(Clock, stamps_are_taken_from_any_tracked_stream)
{
    begin();
    a.feed({dts(VIDEO, 900, 800), pts(AUDIO, 700), pts(SUBTITLE, 600)});
    EXPECT_EQ(900U, stm(0).last_pts);
    EXPECT_EQ(3U, stm(0).pts_pktnum);
    EXPECT_EQ(800U, stm(0).last_dts);
    EXPECT_EQ(3U, stm(0).dts_pktnum);
    EXPECT_EQ(700U, stm(1).last_pts);
    EXPECT_EQ(0U, stm(1).last_dts);
    EXPECT_EQ(600U, stm(2).last_pts);
    EXPECT_TRUE(stm(0).pts_updated);
    EXPECT_TRUE(stm(0).dts_updated);
    EXPECT_TRUE(stm(2).pts_updated);
}

TEST_F(Clock, stamps_outside_a_unit_start_are_not_read)
{
    begin();
    a.feed(pkt().pid(AUDIO).payload(pes(0xc0).pts(700).payload(20).build()));
    EXPECT_EQ(0U, stm(1).last_pts);
}

TEST_F(Clock, pes_head_that_repeats_the_stamp_clears_the_flag)
{
    begin();
    a.feed({pts(AUDIO, 700), pts(AUDIO, 700)});
    EXPECT_FALSE(stm(1).pts_updated);
    EXPECT_EQ(4U, stm(1).pts_pktnum);
}

TEST_F(Clock, pes_head_without_a_stamp_leaves_the_flag)
{
    begin();
    a.feed({pts(AUDIO, 700), start(AUDIO, pes(0xc0).payload(20))});
    EXPECT_TRUE(stm(1).pts_updated);
    EXPECT_EQ(3U, stm(1).pts_pktnum);
}

TEST_F(Clock, pes_head_cut_by_the_packets_end_gives_what_is_whole)
{
    begin();
    const bytes whole = pes(0xc0).pts(700).dts(600).payload(20);
    a.feed(start(AUDIO, bytes(whole.begin(), whole.begin() + 18)));
    EXPECT_EQ(700U, stm(1).last_pts);
    EXPECT_EQ(0U, stm(1).last_dts);
    a.feed(start(SUBTITLE, bytes(whole.begin(), whole.begin() + 13)));
    EXPECT_EQ(0U, stm(2).last_pts);
}

TEST_F(Clock, stamp_trace_lines_show_the_time_and_the_packet)
{
    a.cfg.trk.pdts_update = true;
    begin();
    a.feed(dts(AUDIO, 90000 * 3600, 90000));
    a.feed(dts(AUDIO, 90000 * 3600, 180000));
    EXPECT_EQ((strings{"update_pts_dts: [src] PTS=324000000 [01:00:00.000] pid=102 at 0:1[3]",
                       "update_pts_dts: [src] DTS=90000 [00:00:01.000] pid=102 at 0:1[3]",
                       "update_pts_dts: [src] DTS=180000 [00:00:02.000] pid=102 at 0:1[4]"}),
              with(a.log.messages(ll::info), "update_pts_dts"));
}

TEST_F(Clock, stamp_trace_lines_need_the_debug_level)
{
    a.cfg.trk.pdts_update = true;
    begin();
    for (int& level : g_mod_ll)
        level = ll::info;
    a.feed(pts(AUDIO, 90000));
    EXPECT_EQ(strings{}, with(a.log.messages(), "update_pts_dts"));
    EXPECT_EQ(90000U, stm(1).last_pts);
}

// ---- audio against PCR ----------------------------------------------------------------------------------------

TEST_F(Clock, audio_stamp_at_the_limit_is_measured_and_raises_nothing)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed({pcr(90000), pts(AUDIO, 90000 + 300 * 90 + 89)});
    EXPECT_EQ(1U, pg().av_pcr_delta.count);
    EXPECT_EQ(300U, pg().av_pcr_delta.total);
    EXPECT_EQ(strings{}, machine());
}

// The layout of the human line would have the two tags the other way round; parsers take it as it is.
TEST_F(Clock, audio_stamp_above_the_limit_is_an_alert)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed({pcr(90000), pts(AUDIO, 90000 + 301 * 90)});
    EXPECT_EQ((strings{"ALERT PCR-DELTA [src] pcr:pts <> 0:0[3]:0:1[4]:(pcr=90000)+1 V:pcr(pid101)/A:pts(pid102) = "
                       "90000 [00:00:01.000]/ 117090 [00:00:01.301] delta=301"}),
              human());
    EXPECT_EQ((strings{"ALERT PCR-DELTA src pts 101 90000 102 117090 301 [0:1[4]:(pcr=90000)+1]"}), machine());
    EXPECT_EQ(1U, pg().alert.pcr_delta);
}

TEST_F(Clock, audio_stamp_behind_the_pcr_is_measured_alike)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed({pcr(900000), pts(AUDIO, 900000 - 301 * 90)});
    EXPECT_EQ(301U, pg().av_pcr_delta.max);
    EXPECT_EQ(1U, pg().alert.pcr_delta);
}

TEST_F(Clock, pts_and_dts_are_measured_in_this_order)
{
    a.cfg.max_pcr_delta = 10;
    begin();
    a.feed({pcr(90000), dts(AUDIO, 180000, 135000)});
    EXPECT_EQ((strings{"ALERT PCR-DELTA src pts 101 90000 102 180000 1000 [0:1[4]:(pcr=90000)+1]",
                       "ALERT PCR-DELTA src dts 101 90000 102 135000 500 [0:1[4]:(pcr=90000)+1]"}),
              machine());
}

TEST_F(Clock, stamp_and_pcr_on_either_side_of_the_wrap_are_26_hours_apart)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed({pcr(WRAP - 9000), pts(AUDIO, 9000)});
    EXPECT_EQ((WRAP - 18000) / 90, pg().av_pcr_delta.total);
    EXPECT_EQ(1U, pg().alert.pcr_delta);
}

TEST_F(Clock, without_a_pcr_nothing_is_measured_against_it)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed(pts(AUDIO, 9000000));
    EXPECT_EQ(0U, pg().av_pcr_delta.count);
}

TEST_F(Clock, pcr_of_zero_is_a_pcr)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed({pcr(0), pts(AUDIO, 90000)});
    EXPECT_EQ(1000U, pg().av_pcr_delta.total);
}

TEST_F(Clock, alert_names_the_pcr_stream_as_unknown_when_its_pid_is_in_no_table)
{
    a.cfg.max_pcr_delta = 300;
    begin();
    a.feed(pcr(90000));
    pg().pcr_idx = -1;
    a.feed(pts(AUDIO, 180000));
    EXPECT_EQ(1U, a.log.count("P:pcr(pid101)/A:pts(pid102)"));
}

// A stamp that was never compared with the reference is measured again with every payload packet: watchers of an
// audio-only program count on the alert to repeat.
TEST_F(Clock, audio_only_program_measures_the_same_stamp_with_every_payload_packet)
{
    a.cfg.max_pcr_delta = 300;
    a.cfg.max_pdts_delta = 500;
    begin({{ES_AAC, VIDEO}, {ES_AAC, AUDIO}});
    EXPECT_EQ(-1, pg().ref_idx);
    a.feed({pcr(90000), pts(AUDIO, 180000), plain(AUDIO), plain(AUDIO)});
    EXPECT_EQ(3U, pg().av_pcr_delta.count);
    EXPECT_EQ(3U, pg().alert.pcr_delta);
    EXPECT_EQ(0U, pg().av_pdts_delta.count);
    a.feed(pkt().pid(AUDIO).no_payload());
    EXPECT_EQ(3U, pg().av_pcr_delta.count) << "a packet without payload measures nothing";
}

TEST_F(Clock, repeated_measurement_follows_the_moving_pcr)
{
    a.cfg.max_pcr_delta = 5000;
    begin({{ES_AAC, VIDEO}, {ES_AAC, AUDIO}});
    a.feed({pcr(90000), pts(AUDIO, 180000), pcr(135000), plain(AUDIO)});
    EXPECT_EQ(1000U, pg().av_pcr_delta.max);
    EXPECT_EQ(500U, pg().av_pcr_delta.min);
}

TEST_F(Clock, comparison_with_the_reference_ends_the_repetition)
{
    a.cfg.max_pcr_delta = 300;
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pcr(90000), pts(AUDIO, 180000), plain(AUDIO)});
    EXPECT_EQ(2U, pg().av_pcr_delta.count);
    a.feed({pts(VIDEO, 180000), plain(AUDIO), plain(AUDIO)});
    EXPECT_EQ(3U, pg().av_pcr_delta.count);
    EXPECT_EQ(1U, pg().av_pdts_delta.count);
}

TEST_F(Clock, audio_stream_that_carries_the_pcr_is_not_measured)
{
    a.cfg.max_pcr_delta = 300;
    a.cfg.max_pdts_delta = 300;
    begin({{ES_AVC, VIDEO}, {ES_AAC, AUDIO}}, AUDIO);
    a.feed({pcr(90000, AUDIO), pts(VIDEO, 90000), pts(AUDIO, 900000), plain(AUDIO)});
    EXPECT_EQ(0U, pg().av_pcr_delta.count);
    EXPECT_EQ(0U, pg().av_pdts_delta.count);
    EXPECT_TRUE(stm(1).pts_updated);
}

TEST_F(Clock, video_and_subtitles_are_not_measured)
{
    a.cfg.max_pcr_delta = 300;
    a.cfg.max_pdts_delta = 300;
    begin({{ES_AVC, VIDEO}, {ES_AVC, 104}, {ES_PRIVATE, SUBTITLE}});
    a.feed({pcr(90000), pts(VIDEO, 90000), pts(104, 9000000), pts(SUBTITLE, 9000000), plain(SUBTITLE)});
    EXPECT_EQ(0U, pg().av_pcr_delta.count);
    EXPECT_EQ(0U, pg().av_pdts_delta.count);
}

// ---- audio against reference video ----------------------------------------------------------------------------

TEST_F(Clock, audio_at_the_av_limit_is_measured_and_raises_nothing)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 90000), pts(AUDIO, 90000 + 500 * 90 + 89)});
    EXPECT_EQ(1U, pg().av_pdts_delta.count);
    EXPECT_EQ(500U, pg().av_pdts_delta.total);
    EXPECT_EQ(strings{}, machine());
    EXPECT_FALSE(stm(1).pts_updated);
}

TEST_F(Clock, audio_above_the_av_limit_is_an_alert)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pcr(45000), pts(VIDEO, 90000), pts(AUDIO, 90000 + 501 * 90)});
    EXPECT_EQ((strings{"ALERT AV-DELTA+ [src] 0:1[5]:(pcr=45000)+2 V:pts(pid101)/A:pts(pid102) = 90000 [00:00:01.000]/"
                       "135090 [00:00:01.501] PCR=45000 [00:00:00.500], delta=501"}),
              human());
    EXPECT_EQ((strings{"ALERT AV-DELTA+ src pts 101 90000 102 135090 501 [0:1[5]:(pcr=45000)+2]"}), machine());
    EXPECT_EQ(1U, pg().alert.av_deltaplus);
    EXPECT_EQ(0U, pg().alert.av_delta0);
}

TEST_F(Clock, audio_and_video_less_than_a_ms_apart_is_an_alert_of_its_own)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 90000), pts(AUDIO, 90089)});
    EXPECT_EQ((strings{"ALERT AV-DELTA0 [src] 0:1[4] V:pts(pid101)/A:pts(pid102) = 90000 [00:00:01.000]/"
                       "90089 [00:00:01.000] PCR=0 [00:00:00.000], delta=0"}),
              human());
    EXPECT_EQ((strings{"ALERT AV-DELTA0 src pts 101 90000 102 90089 0 [0:1[4]]"}), machine());
    EXPECT_EQ(1U, pg().alert.av_delta0);
    EXPECT_EQ(0U, pg().alert.av_deltaplus);
}

TEST_F(Clock, audio_and_video_a_ms_apart_raise_nothing)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 90000), pts(AUDIO, 90090)});
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ(1U, pg().av_pdts_delta.total);
}

TEST_F(Clock, equal_stamps_are_measured_as_zero_and_raise_nothing)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 90000), pts(AUDIO, 90000)});
    EXPECT_EQ(1U, pg().av_pdts_delta.count);
    EXPECT_EQ(0U, pg().av_pdts_delta.total);
    EXPECT_EQ(strings{}, machine());
}

TEST_F(Clock, dts_is_compared_with_the_dts_of_the_reference)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({dts(VIDEO, 90000, 80000), dts(AUDIO, 90000, 170000)});
    EXPECT_EQ((strings{"ALERT AV-DELTA+ src dts 101 80000 102 170000 1000 [0:1[4]]"}), machine());
    EXPECT_EQ(2U, pg().av_pdts_delta.count);
}

TEST_F(Clock, reference_stamp_of_zero_counts_as_none)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 0), pts(AUDIO, 9000000)});
    EXPECT_EQ(0U, pg().av_pdts_delta.count);
    EXPECT_TRUE(stm(1).pts_updated);
    a.feed({pts(VIDEO, 9000000), plain(AUDIO)});
    EXPECT_EQ(1U, pg().av_pdts_delta.count);
    EXPECT_FALSE(stm(1).pts_updated);
}

TEST_F(Clock, pts_flag_and_dts_flag_are_cleared_apart)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, 90000), dts(AUDIO, 90000, 80000)});
    EXPECT_FALSE(stm(1).pts_updated);
    EXPECT_TRUE(stm(1).dts_updated);
}

TEST_F(Clock, av_stamps_on_either_side_of_the_wrap_are_26_hours_apart)
{
    a.cfg.max_pdts_delta = 500;
    begin();
    a.feed({pts(VIDEO, WRAP - 9000), pts(AUDIO, 9000)});
    EXPECT_EQ((WRAP - 18000) / 90, pg().av_pdts_delta.total);
    EXPECT_EQ(1U, pg().alert.av_deltaplus);
}

TEST_F(Clock, av_limit_of_zero_measures_nothing)
{
    begin();
    a.feed({pts(VIDEO, 90000), pts(AUDIO, 9000000)});
    EXPECT_EQ(0U, pg().av_pdts_delta.count);
    EXPECT_TRUE(stm(1).pts_updated);
}

// ---- the two forms of an alert --------------------------------------------------------------------------------

TEST_F(Clock, machine_lines_can_be_switched_off_and_still_count)
{
    a.cfg.access_log_alerts = false;
    a.cfg.pcr_freq_ms = a.cfg.max_pcr_delta = a.cfg.max_pdts_delta = 10;
    begin();
    a.feed({pcr(90000), pcr(180000), pts(VIDEO, 90000), pts(AUDIO, 900000)});
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ(3U, human().size());
    EXPECT_EQ(1U, pg().alert.pcr_freq);
    EXPECT_EQ(1U, pg().alert.pcr_delta);
    EXPECT_EQ(1U, pg().alert.av_deltaplus);
}

TEST_F(Clock, human_lines_can_be_switched_off_and_still_count)
{
    a.cfg.no_rlog = true;
    a.cfg.pcr_freq_ms = a.cfg.max_pcr_delta = a.cfg.max_pdts_delta = 10;
    begin();
    a.feed({pcr(90000), pcr(180000), pts(VIDEO, 90000), pts(AUDIO, 900000)});
    EXPECT_EQ(strings{}, human());
    EXPECT_EQ(3U, machine().size());
    EXPECT_EQ(1U, pg().alert.av_deltaplus);
}

TEST_F(Clock, disabled_analyzer_takes_stamps_and_measures_nothing_against_them)
{
    a.cfg.is_enabled = false;
    a.cfg.max_pcr_delta = a.cfg.max_pdts_delta = 10;
    begin();
    a.feed({pcr(90000), pts(VIDEO, 90000), pts(AUDIO, 900000)});
    EXPECT_EQ(900000U, stm(1).last_pts);
    EXPECT_EQ(0U, pg().av_pcr_delta.count);
    EXPECT_EQ(strings{}, machine());
}

TEST_F(Clock, disabled_analyzer_still_measures_pcr_against_pcr)
{
    a.cfg.is_enabled = false;
    a.cfg.pcr_freq_ms = 10;
    begin();
    a.feed({pcr(90000), pcr(99000)});
    EXPECT_EQ((strings{"ALERT PCR-FREQ src 101 90000 99000 100 [0:0[4]:(pcr=90000)+1]"}), machine());
}

TEST_F(Clock, places_of_clocks_and_stamps_follow_a_moved_index)
{
    begin();
    tsan_set_pidx(a.ctx(), 1000);
    a.feed({pcr(90000), dts(AUDIO, 900, 800)});
    EXPECT_EQ(1001U, pg().pcr_pktnum);
    EXPECT_EQ(1002U, stm(1).pts_pktnum);
    EXPECT_EQ(1002U, stm(1).dts_pktnum);
    // A repeated stamp is seen anew.
    a.feed(dts(AUDIO, 900, 800));
    EXPECT_EQ(1003U, stm(1).pts_pktnum);
    EXPECT_EQ(1003U, stm(1).dts_pktnum);
}

TEST_F(Clock, programs_have_clocks_of_their_own)
{
    a.cfg.pcr_freq_ms = 100;
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, VIDEO, {{ES_AVC, VIDEO}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    a.quiet();
    a.feed({pcr(90000), pcr(9000000, 201), pcr(91000), pcr(9001000, 201)});
    EXPECT_EQ(strings{}, machine());
    EXPECT_EQ(1U, a->pg[0].av_pcr_freq.count);
    EXPECT_EQ(1U, a->pg[1].av_pcr_freq.count);
}
