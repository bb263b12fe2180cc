// The analyzer's context and a packet's way through it: placing, classes, tags, counters, the skip phase.
#include "support/analyzer.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

#include <tuple>

namespace
{

using namespace tsb;

struct Tsan : testing::Test {
    Analyzer a;
    program_info& pg(size_t i = 0) { return a->pg[i]; }
    strings info() { return a.log.messages(ll::info); }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
    // Programs 1 and 2: PMTs on 100 and 200, both with the streams 101 (AVC, PCR), 102 (AAC), and 103 (private).
    void two_programs()
    {
        a.feed_pat(pat({{1, 100}, {2, 200}}));
        a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}, {ES_PRIVATE, 103}}));
        a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}, {ES_AAC, 102}, {ES_PRIVATE, 203}}), 200);
        a.quiet();
    }
};

// ---- creation and release -------------------------------------------------------------------------------------

TEST_F(Tsan, context_starts_zeroed_with_a_copy_of_the_settings)
{
    a.cfg.max_ndat_pcount = 123;
    tsan_ctx* t = a.ctx();
    a.cfg.max_ndat_pcount = 5;
    EXPECT_EQ(t->cfg.max_ndat_pcount, 123u);
    EXPECT_EQ(t->ndat_pcount, 123u);
    EXPECT_EQ(t->nprogs, 0u);
    EXPECT_EQ(tsan_get_pidx(t), 0u);
    EXPECT_FALSE(t->pat.is_complete);
    EXPECT_EQ(t->start_tm.tv_sec, 0);
    for (const program_info& p : t->pg) {
        EXPECT_EQ(p.ref_idx, -1);
        EXPECT_EQ(p.pcr_idx, -1);
    }
    EXPECT_EQ(no_ptr(a.log.messages()), strings{"tsan_init: tsan[src] (PTR) created"});
    EXPECT_EQ(a.tag(), "");
    expect_valid();
}

TEST_F(Tsan, source_replaces_the_source_tag_and_is_cut_at_63_bytes)
{
    const std::string s63(63, 'x'), s64 = s63 + "y";
    for (const std::string& s : {std::string("tcp://host:1"), s63, s64}) {
        int err = 77;
        tsan_t t = tsan_init(s.c_str(), &a.cfg, &err);
        EXPECT_EQ(std::string(t->cfg.source), s.substr(0, 63));
        EXPECT_EQ(err, 77);
        tsan_free(t);
    }
    EXPECT_STREQ(a.cfg.source, "src");
}

TEST_F(Tsan, release_says_so)
{
    tsan_t t = tsan_init("x", &a.cfg, nullptr);
    a.quiet();
    tsan_free(t);
    EXPECT_EQ(no_ptr(a.log.messages(ll::debug)), strings{"tsan_free: freeing up tsan[x] (PTR)"});
}

// By design an empty source tag is the mark of a context that was freed already.
TEST_F(Tsan, context_without_source_tag_is_not_freed)
{
    tsan_t t = tsan_init("", &a.cfg, nullptr);
    a.quiet();
    tsan_free(t);
    EXPECT_EQ(no_ptr(a.log.messages()), strings{"tsan_free: avoiding double-freeing of tsan[] (PTR)"});
    EXPECT_EQ(a.log.messages(ll::warning).size(), 1u);
    EXPECT_EQ(t->pg[0].ref_idx, -1); // still there
    strcpy(t->cfg.source, "x");
    tsan_free(t);
}

// ---- counters and index ---------------------------------------------------------------------------------------

TEST_F(Tsan, first_packet_has_index_1_and_starts_the_clock)
{
    fake_clock::set(700, 5);
    a.feed(null_pkt());
    EXPECT_EQ(tsan_get_pidx(a.tc), 1u);
    EXPECT_EQ(a.tag(), "pkt[1]");
    EXPECT_EQ(a->start_tm.tv_sec, 700);
    EXPECT_EQ(a->start_tm.tv_nsec, 5);
    fake_clock::advance_sec(5);
    a.feed(null_pkt());
    EXPECT_EQ(a->start_tm.tv_sec, 700);
    fake_clock::release();
}

TEST_F(Tsan, packet_out_of_sync_is_refused_and_counted)
{
    EXPECT_EQ(a.feed(pkt().pid(5).set(0, 0x46)), -1);
    EXPECT_EQ(a.log.messages(ll::error), strings{"tsan_process: [src] out of sync at pkt[1]"});
    EXPECT_EQ(a->last_pkt_idx, 1u);
    EXPECT_EQ(a->ptotal, 1u);
    EXPECT_NE(a->start_tm.tv_sec, 0);
    a.one_program();
    a.quiet();
    EXPECT_EQ(a.feed(pkt().pid(101).set(0, 0)), -1);
    EXPECT_EQ(a.log.messages(ll::error), strings{"tsan_process: [src] out of sync at 0:0[4]"});
    EXPECT_EQ(a->atotal, 0u);
    EXPECT_EQ(pg().stm[0].pcount, 0u);
}

TEST_F(Tsan, null_and_unlisted_packets_change_totals_only)
{
    a.one_program();
    a.feed(pkt().pid(101));
    const uint64_t total = a->ptotal, analyzed = a->atotal, processed = pg().stat.pcount;
    a.feed({null_pkt(), pkt().pid(555), pkt().pid(8191).pcr(5)});
    EXPECT_EQ(a->ptotal, total + 3);
    EXPECT_EQ(a->last_pkt_idx, total + 3);
    EXPECT_EQ(a->atotal, analyzed);
    EXPECT_EQ(pg().stat.pcount, processed);
    EXPECT_EQ(a->dat.program, nullptr);
}

TEST_F(Tsan, moved_index_goes_on_from_there_and_the_total_stays)
{
    a.one_program();
    a.quiet();
    tsan_set_pidx(a.tc, 1000);
    EXPECT_EQ(a.log.messages(ll::warning), strings{"[src] packet index changed from 2 to 1000"});
    EXPECT_EQ(tsan_get_pidx(a.tc), 1000u);
    EXPECT_EQ(a.tag(), "0:M[2]"); // still the last packet's
    a.feed(null_pkt());
    EXPECT_EQ(tsan_get_pidx(a.tc), 1001u);
    EXPECT_EQ(a->ptotal, 3u);
}

TEST_F(Tsan, packets_count_for_stream_program_and_class)
{
    two_programs();
    a.feed({pkt().pid(101), pkt().pid(101), pkt().pid(102), pkt().pid(103), pkt().pid(201), pkt().pid(203)});
    const sa_stats& s = pg().stat;
    EXPECT_EQ((std::vector<uint64_t>{s.pcount, s.acount, s.v_pcount, s.v_acount, s.a_pcount, s.a_acount, s.s_pcount,
                                     s.s_acount}),
              (std::vector<uint64_t>{4, 4, 2, 2, 1, 1, 1, 1}));
    EXPECT_EQ(pg().stm[0].pcount, 2u);
    EXPECT_EQ(pg().stm[0].acount, 2u);
    EXPECT_EQ(pg(1).stat.pcount, 2u);
    EXPECT_EQ(pg(1).stm[2].stype, 'S');
    EXPECT_EQ(pg(1).stm[2].acount, 1u);
    EXPECT_EQ(a->atotal, 6u);
    EXPECT_EQ(a->ptotal, 9u);
}

TEST_F(Tsan, packets_without_payload_count_too)
{
    a.one_program();
    a.feed(pkt().pid(101).no_payload());
    EXPECT_EQ(pg().stm[0].acount, 1u);
}

// By design each program that starts sets the number anew.
TEST_F(Tsan, packets_skipped_are_told_at_the_first_analyzed_packet_of_each_program)
{
    two_programs();
    a.feed({null_pkt(), pkt().pid(101), pkt().pid(101), null_pkt(), pkt().pid(201), pkt().pid(201)});
    EXPECT_EQ(info(), (strings{"analyze_pkt: 4 skipped before analysis", "analyze_pkt: 7 skipped before analysis"}));
    EXPECT_EQ(a->pre_skipped, 7u);
}

TEST_F(Tsan, disabled_analyzer_counts_and_checks_nothing)
{
    a.cfg.is_enabled = false;
    a.cfg.cc_track = true;
    a.one_program();
    a.feed({pkt().pid(101).cc(1), pkt().pid(101).cc(9)});
    EXPECT_EQ(a->atotal, 2u);
    EXPECT_EQ(pg().stm[0].acount, 2u);
    EXPECT_EQ(pg().stm[0].cc.value, -1);
}

// The switch is asked behind the tables, the clocks' intake and the counts: these go on, and so does the look for silent
// tracks.
TEST_F(Tsan, disabled_analyzer_answers_0_and_still_finds_silent_tracks)
{
    a.cfg.is_enabled = false;
    a.cfg.max_ndat_pcount = 3;
    a.one_program();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(a.feed(pkt().pid(101)), 0) << i;
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PID-NDAT src 102 0 1 0:0[5]"});
}

TEST_F(Tsan, silent_track_check_runs_when_the_threshold_is_reached)
{
    a.cfg.max_ndat_pcount = 3;
    a.one_program();
    a.feed({pkt().pid(101), pkt().pid(101)});
    EXPECT_EQ(pg().alert.pid_ndat, 0u);
    a.feed(pkt().pid(101));
    EXPECT_EQ(pg().alert.pid_ndat, 1u);
}

// ---- placing --------------------------------------------------------------------------------------------------

TEST_F(Tsan, packet_is_placed_by_its_pid)
{
    two_programs();
    const auto at = [&](unsigned pid) {
        a.feed(pkt().pid(pid).no_payload());
        const dgram_info& d = a->dat;
        EXPECT_EQ(d.program, d.ipg < 0 ? nullptr : &pg(size_t(d.ipg)));
        EXPECT_EQ(d.stream, d.istm < 0 ? nullptr : &d.program->stm[d.istm]);
        return std::tuple(d.ipg, d.istm, d.is_pat, d.is_pmt);
    };
    EXPECT_EQ(at(0), std::tuple(-1, -1, true, false));
    EXPECT_EQ(at(100), std::tuple(0, -1, false, true));
    EXPECT_EQ(at(200), std::tuple(1, -1, false, true));
    EXPECT_EQ(at(101), std::tuple(0, 0, false, false));
    EXPECT_EQ(at(203), std::tuple(1, 2, false, false));
    EXPECT_EQ(at(99), std::tuple(-1, -1, false, false));
    // A PID of two programs is always the lower-numbered one's.
    EXPECT_EQ(at(102), std::tuple(0, 1, false, false));
}

TEST_F(Tsan, pmt_pid_that_is_a_stream_of_a_lower_program_is_a_pmt)
{
    a.feed_pat(pat({{1, 100}, {2, 101}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 101);
    EXPECT_EQ(pg(1).nstreams, 1u);
    EXPECT_EQ(pg().stm[0].pcount, 0u);
    expect_valid();
}

TEST_F(Tsan, stream_on_pid_0_is_never_met)
{
    a.feed_pat(pat({{1, 100}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 0}, {ES_AAC, 101}}));
    a.feed_pat(pat({{1, 100}}));
    EXPECT_TRUE(a->dat.is_pat);
    EXPECT_EQ(a->dat.program, nullptr);
    expect_valid();
}

// ---- classes --------------------------------------------------------------------------------------------------

TEST_F(Tsan, sdt_is_passed_over_with_a_trace_line)
{
    a.cfg.trk.sdt_ignore = true;
    a.cfg.trk.misc_ignore = true;
    a.feed(pkt().pid(17));
    EXPECT_EQ(info(), strings{"[src] disregarding SDT at pkt[1]"});
    Analyzer b;
    b.feed(pkt().pid(17));
    EXPECT_EQ(b.log.messages(ll::info), strings{});
}

// By design the SDT's PID comes first: what a table puts there is passed over, and a stream's packets still count.
TEST_F(Tsan, stream_on_the_sdts_pid_counts_and_is_not_looked_into)
{
    a.feed_pat(pat({{1, 100}}));
    a.feed_pmt(pmt(1, 17, {{ES_AVC, 17}}));
    a.feed(pkt().pid(17).pcr(90000));
    EXPECT_EQ(pg().stm[0].acount, 1u);
    EXPECT_FALSE(pg().got_pcr);
}

TEST_F(Tsan, pmt_on_the_sdts_pid_never_arrives)
{
    a.feed_pat(pat({{1, 17}}));
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}), 17);
    EXPECT_EQ(pg().nstreams, 0u);
}

TEST_F(Tsan, unknown_packets_are_traced_as_ignored)
{
    a.cfg.trk.misc_ignore = true;
    a.feed({null_pkt(), pkt().pid(300)});
    EXPECT_EQ(info(), (strings{"upsert_pkt_info: [src] ignoring pid=8191 pkt[1]",
                               "upsert_pkt_info: [src] ignoring pid=300 pkt[2]"}));
}

TEST_F(Tsan, table_packets_are_traced)
{
    a.cfg.trk.pat_pmt_pkt = true;
    a.one_program();
    EXPECT_EQ(with(info(), "found"), (strings{"[src] found PAT at PAT[1]", "[src] found PMT (pid100) at 0:M[2]"}));
}

TEST_F(Tsan, table_packets_without_payload_are_traced_as_well)
{
    a.one_program();
    a->cfg.trk.pat_pmt_pkt = true;
    a.quiet();
    a.feed({pkt().pid(0).no_payload(), pkt().pid(100).no_payload()});
    EXPECT_EQ(info(), (strings{"[src] found PAT at PAT[3]", "[src] found PMT (pid100) at 0:M[4]"}));
}

TEST_F(Tsan, pcr_is_taken_from_the_programs_own_pcr_pid_only)
{
    two_programs();
    a.feed(pkt().pid(102).pcr(90000));
    EXPECT_FALSE(pg().got_pcr);
    a.feed(pkt().pid(101).pcr(90000));
    EXPECT_TRUE(pg().got_pcr);
    EXPECT_EQ(pg().last_pcr, 90000u);
    EXPECT_FALSE(pg(1).got_pcr);
}

TEST_F(Tsan, packet_with_pcr_and_pes_head_gives_its_pcr_first)
{
    a.cfg.trk.pcr_update = a.cfg.trk.pdts_update = true;
    a.one_program();
    a.quiet();
    a.feed(pkt().pid(101).pcr(90000).unit_start().payload(bytes(pes(0xe0).pts(90000).payload(20))));
    EXPECT_EQ(info(), (strings{"[src] new PCR=90000 [00:00:01.000] at 0:0[3]",
                               "update_pts_dts: [src] PTS=90000 [00:00:01.000] pid=101 at 0:0[3]",
                               "analyze_pkt: 2 skipped before analysis"}));
}

TEST_F(Tsan, packet_with_pcr_is_read_as_pes_as_well)
{
    a.one_program();
    a.feed(pkt().pid(101).pcr(90000).unit_start().payload(pes(0xe0).pts(93600).payload(100).build()));
    EXPECT_EQ(pg().last_pcr, 90000u);
    EXPECT_EQ(pg().stm[0].last_pts, 93600u);
}

TEST_F(Tsan, pes_header_is_read_at_a_unit_start_only)
{
    a.one_program();
    const bytes unit = pes(0xe0).pts(93600).payload(100);
    a.feed(pkt().pid(101).payload(unit));
    EXPECT_EQ(pg().stm[0].last_pts, 0u);
    a.feed(pkt().pid(101).unit_start().payload(unit));
    EXPECT_EQ(pg().stm[0].last_pts, 93600u);
}

// A header counts as far as its bytes lie in the packet: 14 bytes for a PTS, 19 for a DTS.
TEST_F(Tsan, pes_header_cut_by_the_packets_end_counts_as_far_as_it_goes)
{
    const bytes unit = pes(0xe0).pts(93600).dts(90000).payload(100);
    for (size_t n = 1; n <= 25; ++n) {
        Analyzer b;
        b.one_program();
        b.feed(pkt().pid(101).unit_start().payload(bytes_view(unit).first(n)));
        EXPECT_EQ(b->pg[0].stm[0].last_pts, n >= 14 ? 93600u : 0u) << n;
        EXPECT_EQ(b->pg[0].stm[0].last_dts, n >= 19 ? 90000u : 0u) << n;
    }
}

TEST_F(Tsan, payload_past_the_packets_end_is_none)
{
    a.one_program();
    for (unsigned af_len = 178; af_len < 256; ++af_len) {
        packet p = pkt().pid(101).unit_start().payload(pes(0xe0).pts(93600).build());
        p[3] |= 0x30;
        p[4] = uint8_t(af_len);
        p[5] = 0;
        a.feed(p); // the sanitizer run sees a read past the packet
    }
    EXPECT_EQ(pg().stm[0].pcount, 78u);
}

// Whatever the names of the trace options seem to promise, packets are treated alike with and without them.
TEST(TsanTrace, options_change_nothing_but_the_lines)
{
    stream st(many_programs(3, 3));
    std::vector<packet> v = drop(st.take(3000), 201, 5);
    v.push_back(pkt().pid(17));
    strings records[2];
    std::vector<uint64_t> counts[2];
    for (int traced = 0; traced < 2; ++traced) {
        Analyzer a;
        a.cfg.cc_track = true;
        a.cfg.max_pdts_delta = 1;
        a.cfg.max_pcr_delta = 1;
        a.cfg.pcr_freq_ms = 10;
        memset(&a.cfg.trk, traced, sizeof(a.cfg.trk));
        a.feed(v);
        records[traced] = a.alerts.messages();
        counts[traced] = {a->ptotal, a->atotal};
        for (size_t i = 0; i < 3; ++i) {
            const program_info& p = a->pg[i];
            for (uint64_t n : {p.stat.pcount, p.stat.a_acount, p.alert.cc_break, p.alert.pcr_freq, p.alert.pcr_delta})
                counts[traced].push_back(n);
        }
        EXPECT_EQ(a->pg[1].alert.cc_break, 1u);
        EXPECT_EQ(a.log.messages(ll::info).size() > 3000, traced == 1);
    }
    EXPECT_EQ(counts[0], counts[1]);
    EXPECT_TRUE(records[0] == records[1]);
    EXPECT_GT(records[0].size(), 100u);
}

// ---- the skip phase -------------------------------------------------------------------------------------------

// A level that is set for the application's module alone opens every line of the analyzer.
TEST_F(Tsan, lines_of_every_theme_are_of_module_0)
{
    log_set_modules(&g_log, ll::panic);
    g_mod_ll[0] = ll::debug;
    a.cfg.cc_track = true;
    a.cfg.max_ndat_pcount = 2;
    a.cfg.pcr_freq_ms = 10;
    EXPECT_EQ(0, tsan_cli_opt("on", &a.cfg));
    a.one_program();
    a.feed({pkt().pid(101).pcr(90000).cc(1), pkt().pid(101).pcr(99000).cc(7)});
    ctxt_spec closed = {};
    add_ctxt_line(&closed, "x");
    for (const char* part : {"tsan_init: ", "tsan_cli_opt: ", "process_PAT: ", "add_stream: ", "ALERT PCR-FREQ ",
                             "ALERT CC-BRK ", "ALERT PID-NDAT ", "PMT buffer may overflow"})
        EXPECT_TRUE(a.log.contains(part)) << part;
}

TEST_F(Tsan, stream_without_tables_is_complained_of_from_the_limit_on)
{
    fake_clock::set(100000);
    a.cfg.max_skip_pkts = 5;
    for (int i = 1; i <= 4; ++i)
        EXPECT_EQ(a.feed(null_pkt()), 0) << i;
    EXPECT_EQ(a.log.messages(ll::error), strings{});
    EXPECT_EQ(a.feed(null_pkt()), -16);
    EXPECT_EQ(a.log.messages(ll::error), strings{"[src] has been idling for too long (5/5 packets)"});
    // At most one line in 11 seconds; the result comes each time.
    fake_clock::advance_sec(10);
    EXPECT_EQ(a.feed(null_pkt()), -16);
    EXPECT_EQ(a.log.messages(ll::error).size(), 1u);
    fake_clock::advance_sec(1);
    EXPECT_EQ(a.feed(null_pkt()), -16);
    EXPECT_EQ(a.log.messages(ll::error)[1], "[src] has been idling for too long (7/5 packets)");
    fake_clock::release();
}

TEST_F(Tsan, skip_phase_is_measured_by_the_index_and_not_by_the_total)
{
    a.cfg.max_skip_pkts = 5;
    EXPECT_EQ(a.feed(null_pkt()), 0);
    tsan_set_pidx(a.ctx(), 4);
    EXPECT_EQ(a.feed(null_pkt()), -16);
    tsan_set_pidx(a.ctx(), 0);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(a.feed(null_pkt()), 0) << i;
    EXPECT_EQ(a->ptotal, 6u);
}

TEST_F(Tsan, limit_of_0_refuses_the_very_first_packet)
{
    a.cfg.max_skip_pkts = 0;
    EXPECT_EQ(a.feed(null_pkt()), -16);
    a.feed_pat(pat({{1, 100}}));
    EXPECT_EQ(a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}})), -16);
    EXPECT_EQ(a.feed(pkt().pid(101)), 0); // the first analyzed packet ends it for good
    EXPECT_EQ(a.feed(null_pkt()), 0);
}

// ---- packet tags ----------------------------------------------------------------------------------------------

TEST_F(Tsan, tag_tells_what_the_packet_is)
{
    two_programs(); // 3 packets
    const auto tag_of = [&](const packet& p) {
        a.feed(p);
        return a.tag();
    };
    EXPECT_EQ(tag_of(pkt().pid(0).no_payload()), "PAT[4]");
    EXPECT_EQ(tag_of(pkt().pid(200).no_payload()), "1:M[5]");
    EXPECT_EQ(tag_of(pkt().pid(203)), "1:2[6]");
    EXPECT_EQ(tag_of(null_pkt()), "pkt[7]");
}

TEST_F(Tsan, tag_tells_how_far_back_the_programs_last_pcr_lies)
{
    two_programs();
    a.feed(pkt().pid(101).pcr(90000));
    EXPECT_EQ(a.tag(), "0:0[4]"); // there was none when this packet arrived
    a.feed({null_pkt(), pkt().pid(102)});
    EXPECT_EQ(a.tag(), "0:1[6]:(pcr=90000)+2");
    a.feed(pkt().pid(100).no_payload());
    EXPECT_EQ(a.tag(), "0:M[7]:(pcr=90000)+3");
    a.feed(pkt().pid(201));
    EXPECT_EQ(a.tag(), "1:0[8]");
    a.feed(pkt().pid(101).pcr(93600));
    EXPECT_EQ(a.tag(), "0:0[9]:(pcr=90000)+5"); // the one before its own
    EXPECT_STREQ(tsan_int::pcr_tag_text(&pg()), "0:0[9]:(pcr=90000)+5");
    a.feed(pkt().pid(102));
    EXPECT_EQ(a.tag(), "0:1[10]:(pcr=93600)+1");
    EXPECT_STREQ(tsan_int::pcr_tag_text(&pg()), "0:0[9]:(pcr=90000)+5");
    EXPECT_STREQ(tsan_int::pcr_tag_text(&pg(1)), "");
}

TEST_F(Tsan, tag_is_cut_at_63_characters)
{
    a.one_program();
    a.feed(pkt().pid(101).pcr((uint64_t{1} << 33) - 1));
    tsan_set_pidx(a.tc, UINT64_MAX - 1);
    pg().pcr_pktnum = 0;
    pg().last_pcr = UINT64_MAX; // no stream has it: the longest there can be
    a.feed(pkt().pid(102));
    EXPECT_EQ(a.tag(), "0:1[18446744073709551615]:(pcr=18446744073709551615)+1844674407");
    EXPECT_EQ(a.tag().size(), 63u);
}

TEST_F(Tsan, tag_of_a_renumbered_stream_shows_the_difference_without_sign)
{
    a.one_program();
    tsan_set_pidx(a.tc, 100);
    a.feed(pkt().pid(101).pcr(90000));
    tsan_set_pidx(a.tc, 1);
    a.feed(pkt().pid(102));
    EXPECT_EQ(a.tag(), "0:1[2]:(pcr=90000)+18446744073709551517");
}

} // namespace
