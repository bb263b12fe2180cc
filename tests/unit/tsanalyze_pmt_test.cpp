// PMT tracking: the stream table, the chosen streams, what a changed PMT keeps.
#include "support/pmt_kit.h"
#include "tavrin/ts_bits.h"

namespace
{

using tsan_int::code2stype;

// ---- classes --------------------------------------------------------------------------------------------------

TEST(StreamClass, follows_from_the_stream_type)
{
    std::string expected(256, '?');
    for (unsigned v : {1, 2, 16, 27, 36, 66})
        expected[v] = 'V';
    for (unsigned v : {3, 4, 15, 17, 129, 135})
        expected[v] = 'A';
    expected[6] = 'S';
    for (unsigned code = 0; code < 256; ++code)
        EXPECT_EQ(code2stype(uint8_t(code)), expected[code]) << code;
}

TEST(StreamClass, words_of_a_type_stand_as_one_word)
{
    EXPECT_STREQ(tsan_int::get_streamtype_txt(0x1b), "H.264/14496-10_video_(MPEG-4/AVC)");
    EXPECT_STREQ(tsan_int::get_streamtype_txt(0x09), "H.222.1");
    EXPECT_STREQ(tsan_int::get_streamtype_txt(0xff), "Unknown");
    for (unsigned code = 0; code < 256; ++code) {
        const std::string plain = pmt_get_streamtype_txt(uint8_t(code));
        const std::string word = tsan_int::get_streamtype_txt(uint8_t(code));
        EXPECT_EQ(word.size(), std::min<size_t>(plain.size(), 79));
        EXPECT_EQ(word.find(' '), std::string::npos);
    }
}

// ---- the first PMT --------------------------------------------------------------------------------------------

TEST_F(PMT, first_one_fills_the_stream_table)
{
    begin(av_pmt());
    EXPECT_EQ(info(), (strings{"[src] will use PMT (pid100) at 0:M[2]", "Adding streams from PMT (pid100) at 0:M[2]",
                               "[src] PMT lists PCR pid=101 at 0:M[2]",
                               "[src] ADD (pid=101, type=27) [H.264/14496-10 video (MPEG-4/AVC)]",
                               "[src] ADD (pid=102, type=15) [13818-7 Audio with ADTS transport syntax]",
                               "Added 2 streams from PMT (pid100) at 0:M[2]"}));
    EXPECT_EQ(debug(), (strings{"add_stream: [src] pcr_idx=0 for V-stream pid=101",
                                "add_stream: added stream[0]:pid=101 (V/PCR) at 0:M[2], 1 streams total",
                                "add_stream: added stream[1]:pid=102 (A/) at 0:M[2], 2 streams total"}));
    EXPECT_EQ(pg().nstreams, 2u);
    EXPECT_EQ(pg().pcr_pid, 101u);
    EXPECT_EQ(pg().pcr_idx, 0);
    EXPECT_EQ(pg().ref_idx, -1);
    EXPECT_EQ(pg().curr_pmt_pid, 100u);
    const stream_info& s = pg().stm[1];
    EXPECT_EQ(s.pid, 102u);
    EXPECT_EQ(s.stype, 'A');
    EXPECT_EQ(s.scode, ES_AAC);
    EXPECT_EQ(s.cc.value, -1);
    EXPECT_EQ(text(), "new PMT program=1 version=0 pcrpid=101\n"
                      "  * ES pid=101 streamtype=0x1b streamtype_txt=\"H.264/14496-10 video (MPEG-4/AVC)\"\n"
                      "  * ES pid=102 streamtype=0x0f streamtype_txt=\"13818-7 Audio with ADTS transport syntax\"\n"
                      "end PMT\n");
    expect_valid();
}

TEST_F(PMT, untracked_streams_stay_unknown)
{
    begin(pmt(1, 101, {{ES_UNTRACKED, 103}, {ES_AVC, 101}}));
    EXPECT_EQ(stream_pids(), stream_list{101});
    EXPECT_EQ(debug()[0], "add_stream: [src] skipping non-AV PES at 0:M[2]");
    a.feed(pkt().pid(103));
    EXPECT_EQ(a->dat.istm, -1);
}

TEST_F(PMT, one_without_tracked_streams_leaves_the_program_waiting)
{
    begin(pmt(1, 101, {{ES_UNTRACKED, 101}}));
    EXPECT_EQ(pg().nstreams, 0u);
    EXPECT_EQ(pg().curr_pmt_pid, 0u);
    EXPECT_EQ(with(info(), "Added"), strings{"Added 0 streams from PMT (pid100) at 0:M[2]"});
    a.quiet();
    a.feed_pmt(pmt(1, 101, {{ES_UNTRACKED, 101}}));
    EXPECT_EQ(with(info(), "will use"), strings{"[src] will use PMT (pid100) at 0:M[3]"});
    // By design the text stays that of the first one: the stream table's own PMT differs from it the next time.
    a.feed_pmt(av_pmt());
    EXPECT_EQ(pg().nstreams, 2u);
    EXPECT_EQ(pg().alert.pmt_diff, 0u);
    a.feed_pmt(av_pmt());
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    a.feed_pmt(av_pmt());
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    expect_valid();
}

TEST_F(PMT, first_video_stream_becomes_the_reference)
{
    a.cfg.max_pdts_delta = 500;
    begin(pmt(1, 102, {{ES_AAC, 102}, {ES_AVC, 103}, {ES_HEVC, 104}}));
    EXPECT_EQ(pg().ref_idx, 1);
    EXPECT_EQ(with(debug(), "ref_idx"), strings{"add_stream: [src] ref_idx=1 for V-stream pid=103"});
    EXPECT_EQ(human(), strings{"add_stream: 1+ video: ref_idx already set (to 1)"});
}

TEST_F(PMT, no_reference_is_chosen_without_a_limit)
{
    begin(pmt(1, 102, {{ES_AVC, 102}, {ES_AVC, 103}}));
    EXPECT_EQ(pg().ref_idx, -1);
    EXPECT_EQ(human(), strings{});
}

TEST_F(PMT, pcr_pid_that_is_in_no_table_has_no_stream)
{
    begin(pmt(1, 300, {{ES_AVC, 101}, {ES_UNTRACKED, 300}}));
    EXPECT_EQ(pg().pcr_pid, 300u);
    EXPECT_EQ(pg().pcr_idx, -1);
    a.feed(pkt().pid(300).pcr(90000));
    EXPECT_FALSE(pg().got_pcr);
}

TEST_F(PMT, pcr_pid_0_ends_the_process)
{
    a.feed_pat(pat({{1, 100}}));
    EXPECT_DEATH(a.feed_pmt(pmt(1, 0, {{ES_AVC, 101}})), "prog\\(tc\\)->pcr_pid");
}

// The table's room is more than a packet's entries can fill: the walk itself is bounded.
TEST_F(PMT, stream_beyond_64_is_refused)
{
    begin(av_pmt());
    pg().nstreams = MAX_NSTREAMS - 1;
    a.quiet();
    // An untracked one is passed over first, room or no room.
    bytes s = pmt(1, 101, {{ES_AVC, 201}, {ES_AVC, 202}, {ES_UNTRACKED, 9}, {ES_AVC, 203}});
    s.resize(4096);
    a->dat.program = &pg();
    tsan_int::process_PMT(a.tc, s.data(), 100);
    EXPECT_EQ(pg().nstreams, MAX_NSTREAMS);
    EXPECT_EQ(pg().stm[63].pid, 201u);
    EXPECT_EQ(a.log.messages(ll::error),
              (strings{"add_stream: [src] too many streams: 64", "add_stream: [src] too many streams: 64"}));
    EXPECT_EQ(with(info(), "Added"), strings{"Added 1 streams from PMT (pid100) at 0:M[2]"});
}

TEST_F(PMT, no_more_than_64_entries_are_walked)
{
    begin(av_pmt());
    pg().nstreams = 0;
    std::vector<es> list;
    for (unsigned i = 0; i < 70; ++i)
        list.push_back({i == 3 ? ES_UNTRACKED : ES_AVC, 1000 + i});
    bytes s = pmt(1, 101, list);
    s.resize(4096);
    a->dat.program = &pg();
    tsan_int::process_PMT(a.tc, s.data(), 100);
    EXPECT_EQ(pg().nstreams, 63u);
    EXPECT_EQ(a.log.messages(ll::error), strings{});
    // A comparison counts no more of them.
    a.quiet();
    EXPECT_NE(tsan_int::cmp_PMT(a.tc, s.data(), 100, {}), 0);
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PMT-DIFF src 100 63 64 101 0:M[2]"});
}

TEST_F(PMT, trace_shows_the_text_in_use)
{
    a.cfg.trk.pmt_diff = true;
    begin(pmt(1, 101, {{ES_UNTRACKED, 9}, {ES_AVC, 101}}));
    const strings lines = a.log.messages();
    const auto at = std::find(lines.begin(), lines.end(), "process_PMT: PMT pid=100, 1 entries");
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(*(at + 1), "Using PMT:");
    EXPECT_EQ(*(at + 2), "new PMT program=1 version=0 pcrpid=101");
}

// ---- comparisons ----------------------------------------------------------------------------------------------

TEST_F(PMT, repeated_one_changes_nothing_and_says_nothing)
{
    begin(av_pmt());
    a.quiet();
    for (int i = 0; i < 5; ++i)
        a.feed_pmt(av_pmt());
    EXPECT_EQ(a.log.lines(), strings{});
    EXPECT_EQ(pg().alert.pmt_diff, 0u);
}

TEST_F(PMT, trace_line_comes_with_each_comparison)
{
    a.cfg.trk.pmt_diff = true;
    begin(pmt(1, 101, {{ES_AVC, 101}, {ES_UNTRACKED, 9}}));
    a.quiet();
    for (int i = 0; i < 3; ++i)
        a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_UNTRACKED, 9}}));
    EXPECT_EQ(a.log.messages(), strings(3, "cmp_PMT: ok pid=100 1/2"));
    a.quiet();
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_UNTRACKED, 9}}).bad_crc());
    EXPECT_EQ(a.log.messages(), strings{"cmp_PMT: ok pid=100 1/2"});
    a.quiet();
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}).version(1));
    EXPECT_EQ(with(info(), "cmp_PMT"), strings{"cmp_PMT: MISMATCH pid=100 1/1"});
}

TEST_F(PMT, version_bump_alone_raises_an_alert_with_equal_track_counts)
{
    begin(av_pmt(0));
    a.quiet();
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(human(), strings{"ALERT PMT-DIFF [src] track-count: 2/2 pid=100 pcr-pid=101 at 0:M[3]"});
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PMT-DIFF src 100 2 2 101 0:M[3]"});
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    a.quiet();
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(a.log.lines(), strings{});
}

// The number on the right takes in the untracked entries, the one on the left does not.
TEST_F(PMT, track_counts_differ_where_entries_are_untracked)
{
    const auto three = [](unsigned version) {
        return pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}, {ES_UNTRACKED, 103}}).version(version).build();
    };
    begin(three(0));
    a.quiet();
    a.feed_pmt(three(1));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PMT-DIFF src 100 2 3 101 0:M[3]"});
}

TEST_F(PMT, alert_switches_apply)
{
    a.cfg.no_rlog = true;
    a.cfg.access_log_alerts = false;
    begin(av_pmt(0));
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(human(), strings{});
    EXPECT_EQ(a.alerts.lines(), strings{});
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
}

TEST_F(PMT, alert_dumps_the_older_and_the_new_text_when_traced)
{
    a.cfg.trk.pmt_diff = true;
    begin(pmt(1, 101, {{ES_AVC, 101}}));
    a.quiet();
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}).version(4));
    const strings lines = a.log.messages();
    ASSERT_GE(lines.size(), 9u);
    EXPECT_EQ(lines[0], "ALERT PMT-DIFF [src] track-count: 1/1 pid=100 pcr-pid=101 at 0:M[3]");
    EXPECT_EQ(lines[1], "Older PMT:");
    EXPECT_EQ(lines[2], "new PMT program=1 version=0 pcrpid=101");
    EXPECT_EQ(lines[4], "end PMT");
    EXPECT_EQ(lines[5], "New PMT:");
    EXPECT_EQ(lines[6], "new PMT program=1 version=4 pcrpid=101");
    EXPECT_EQ(lines[8], "end PMT");
}

TEST_F(PMT, change_arms_the_silent_track_check_again)
{
    a.cfg.max_ndat_pcount = 50;
    begin(av_pmt(0));
    a->ndat_pcount = 0;
    pg().stat.pcount = 7;
    a.feed_pmt(av_pmt(0));
    EXPECT_EQ(a->ndat_pcount, 0u);
    a.quiet();
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(a->ndat_pcount, 57u);
    const strings lines = no_ptr(a.log.messages());
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "ALERT PMT-DIFF [src] track-count: 2/2 pid=100 pcr-pid=101 at 0:M[4]");
    EXPECT_EQ(lines[1], "reset_ndat_pcount: (PTR) NDAT pcount=57");
    EXPECT_EQ(lines[2], "Adding streams from PMT (pid100) at 0:M[4]");
}

TEST_F(PMT, descriptor_change_is_a_change)
{
    begin(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("eng")}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("fra")}}));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("fra")}}).descs(desc(0x90, bytes{1, 2})));
    EXPECT_EQ(pg().alert.pmt_diff, 2u);
}

// What the text does not show is no change: here the CRC and what stands behind the section.
TEST_F(PMT, bytes_that_the_text_does_not_show_are_no_change)
{
    begin(av_pmt());
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}).bad_crc());
    a.feed(wrap1(cat({av_pmt(), fill(10, 0x11)}), 100));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}).table_id(0x77));
    EXPECT_EQ(pg().alert.pmt_diff, 0u);
}

// ---- the table's rebuilding -----------------------------------------------------------------------------------

TEST_F(PMT, streams_keep_their_data_under_their_pid)
{
    a.cfg.cc_track = true;
    begin(av_pmt(0));
    a.feed({pkt().pid(101).cc(4), pkt().pid(102).cc(9), pkt().pid(101).cc(5)});
    pg().stm[0].last_pts = 1234;
    pg().stm[0].pts_pktnum = 3;
    pg().stm[0].last_dts = 1200;
    pg().stm[0].dts_pktnum = 4;
    pg().stm[0].pts_updated = pg().stm[0].dts_updated = true;
    pg().stm[0].cc.ms0_tm.tv_sec = 77;
    a.quiet();
    // The other way round, with a stream between.
    a.feed_pmt(pmt(1, 101, {{ES_AAC, 102}, {ES_AAC, 110}, {ES_HEVC, 101}}).version(1));
    EXPECT_EQ(with(debug(), "update_PMT"),
              (strings{"update_PMT: copied stats from old[1] to new[0]",
                       "update_PMT: copied stats from old[0] to new[2]", "update_PMT: 2 old/new entries matched"}));
    const stream_info& v = pg().stm[2];
    EXPECT_EQ(v.pid, 101u);
    EXPECT_EQ(v.scode, ES_HEVC); // its own, of the new PMT
    EXPECT_EQ(v.pcount, 2u);
    EXPECT_EQ(v.acount, 2u);
    EXPECT_EQ(v.cc.value, 5);
    EXPECT_EQ(v.cc.ms0_tm.tv_sec, 77);
    EXPECT_EQ(v.last_pts, 1234u);
    EXPECT_EQ(v.pts_pktnum, 3u);
    EXPECT_EQ(v.last_dts, 1200u);
    EXPECT_EQ(v.dts_pktnum, 4u);
    EXPECT_TRUE(v.pts_updated && v.dts_updated);
    EXPECT_EQ(pg().stm[0].cc.value, 9);
    // A new stream in a slot that held another one begins from nothing.
    EXPECT_EQ(pg().stm[1].pcount, 0u);
    EXPECT_EQ(pg().stm[1].acount, 0u);
    EXPECT_FALSE(pg().stm[1].pts_updated || pg().stm[1].dts_updated);
    EXPECT_EQ(pg().stm[1].cc.value, -1);
    EXPECT_EQ(pg().pcr_idx, 2);
    a.feed(pkt().pid(101).cc(6));
    EXPECT_EQ(pg().alert.cc_break, 0u);
    expect_valid();
}

TEST_F(PMT, programs_own_counters_are_not_touched_by_a_change)
{
    begin(av_pmt(0));
    pg().stat.pcount = 9;
    pg().alert.pcr_freq = 8;
    pg().av_pcr_freq.count = 7;
    pg().last_seg_idx = 6;
    pg().got_pcr = true;
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(pg().stat.pcount, 9u);
    EXPECT_EQ(pg().alert.pcr_freq, 8u);
    EXPECT_EQ(pg().av_pcr_freq.count, 7u);
    EXPECT_EQ(pg().last_seg_idx, 6u);
    EXPECT_TRUE(pg().got_pcr);
}

TEST_F(PMT, second_video_stream_leaves_the_reference_and_warns_once_per_video_stream)
{
    a.cfg.max_pdts_delta = 500;
    begin(pmt(1, 101, {{ES_AVC, 101}}));
    a.quiet();
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AVC, 103}}).version(1));
    EXPECT_EQ(pg().ref_idx, 0);
    EXPECT_EQ(with(human(), "1+ video"), strings(2, "add_stream: 1+ video: ref_idx already set (to 0)"));
}

// By design the index is kept, whatever stream stands there now.
TEST_F(PMT, swapped_streams_leave_the_reference_index_on_the_audio_stream)
{
    a.cfg.max_pdts_delta = 500;
    begin(av_pmt(0));
    a.feed_pmt(pmt(1, 101, {{ES_AAC, 102}, {ES_AVC, 101}}).version(1));
    EXPECT_EQ(pg().ref_idx, 0);
    EXPECT_EQ(pg().stm[0].stype, 'A');
}

// By design the indexes may point past the end when streams are removed.
TEST_F(PMT, removed_streams_leave_the_indexes_past_the_end)
{
    a.cfg.max_pdts_delta = 500;
    begin(pmt(1, 103, {{ES_AAC, 102}, {ES_AVC, 103}}));
    EXPECT_EQ(pg().pcr_idx, 1);
    a.feed_pmt(pmt(1, 300, {{ES_AAC, 102}}).version(1));
    EXPECT_EQ(pg().nstreams, 1u);
    EXPECT_EQ(pg().pcr_idx, 1);
    EXPECT_EQ(pg().ref_idx, 1);
    expect_valid();
    a.feed(carry(pes(0xc0).pts(90000).build(), 102));
    EXPECT_EQ(pg().stm[0].last_pts, 90000u);
}

TEST_F(PMT, change_to_no_tracked_stream_empties_the_table)
{
    begin(av_pmt(0));
    a.feed_pmt(pmt(1, 101, {{ES_UNTRACKED, 101}}).version(1));
    EXPECT_EQ(pg().nstreams, 0u);
    a.feed(pkt().pid(101));
    EXPECT_EQ(a->dat.istm, -1);
    expect_valid();
}

TEST_F(PMT, change_to_no_entry_at_all_counts_none)
{
    begin(av_pmt(0));
    a.feed_pmt(pmt(1, 101, {}).version(1));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PMT-DIFF src 100 2 0 101 0:M[3]"});
    EXPECT_EQ(pg().nstreams, 0u);
}

TEST_F(PMT, slot_of_another_program_raises_one_difference_and_equal_pids_keep_their_data)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}));
    a.feed({pkt().pid(101), pkt().pid(102)});
    a.feed_pat(pat({{2, 200}}).version(1));
    a.quiet();
    const bytes other = pmt(2, 201, {{ES_AVC, 201}, {ES_AAC, 102}});
    a.feed_pmt(other, 200);
    a.feed_pmt(other, 200);
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PMT-DIFF src 200 2 2 201 0:M[6]"});
    EXPECT_EQ(pg().stm[0].pcount, 0u);
    EXPECT_EQ(pg().stm[1].pcount, 1u);
    EXPECT_EQ(pg().curr_pmt_pid, 200u);
}

// ---- overlong texts -------------------------------------------------------------------------------------------

// A PMT of one packet whose text overflows the buffer: an announcement descriptor of 4 bytes makes a long line.
bytes wordy_pmt(unsigned count, uint8_t last)
{
    bytes descs;
    for (unsigned i = 0; i < count; ++i)
        descs = cat({descs, desc(0x6e, bytes{0, uint8_t(i + 1 == count ? last : 0)})});
    return pmt(1, 101, {{ES_AVC, 101}}).descs(descs);
}

TEST_F(PMT, text_that_overflows_its_buffer_warns_with_every_packet)
{
    begin(wordy_pmt(30, 1));
    const size_t first = a.log.count("PMT buffer may overflow");
    EXPECT_GT(first, 0u);
    for (int i = 0; i < 3; ++i) {
        a.quiet();
        a.feed_pmt(wordy_pmt(30, 1));
        EXPECT_EQ(a.log.count("PMT buffer may overflow"), first);
    }
    EXPECT_EQ(pg().alert.pmt_diff, 0u);
}

// The buffer drops a line when 15 bytes are left, and takes it when 16 are. The last line here meets just that.
TEST_F(PMT, text_that_loses_its_last_line_alone_warns_with_every_packet)
{
    const auto room_for_the_last_line = [](unsigned room) {
        bytes descs;
        for (unsigned i = 0; i < 15; ++i)
            descs = cat({descs, desc(0x6e, bytes{0, 0})});
        descs = cat({descs, desc(0x90, room == 15 ? bytes{1, 2, 3} : bytes{1, 2})});
        return pmt(1, 101, {{ES_AVC, room == 15 ? 99U : 101U}}).descs(descs).build();
    };
    begin(room_for_the_last_line(15));
    EXPECT_EQ(a.log.count("PMT buffer may overflow, 15 bytes left"), 1u);
    EXPECT_EQ(pg().txt_pmt.textlen, ssize_t(MAX_PMT_TXT) - 2 - 15);
    for (int i = 0; i < 3; ++i) {
        a.quiet();
        a.feed_pmt(room_for_the_last_line(15));
        EXPECT_EQ(a.log.messages(ll::warning), strings{"add_ctxt_line: PMT buffer may overflow, 15 bytes left"});
    }
    a.quiet();
    a.feed_pmt(room_for_the_last_line(16));
    a.feed_pmt(room_for_the_last_line(16));
    EXPECT_EQ(a.log.count("PMT buffer may overflow"), 0u);
    EXPECT_TRUE(text().ends_with("\nend PMT\n"));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
}

TEST_F(PMT, texts_that_differ_only_behind_the_cut_compare_as_equal)
{
    begin(wordy_pmt(30, 1));
    a.feed_pmt(wordy_pmt(30, 2));
    EXPECT_EQ(pg().alert.pmt_diff, 0u);
    a.feed_pmt(wordy_pmt(5, 1));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    a.feed_pmt(wordy_pmt(5, 2));
    EXPECT_EQ(pg().alert.pmt_diff, 2u);
}

TEST_F(PMT, change_to_an_overflowing_text_and_back_is_two_changes)
{
    begin(av_pmt());
    a.feed_pmt(wordy_pmt(30, 1));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    a.feed_pmt(av_pmt());
    EXPECT_EQ(pg().alert.pmt_diff, 2u);
}

} // namespace
