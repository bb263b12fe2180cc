// PAT tracking: tables of many sections, dumps, sections that lie or are cut.
#include "support/pat_kit.h"

#include <algorithm>
#include <random>

namespace
{

// ---- tables of many sections -----------------------------------------------------------------------------------

// A table of `count` sections: program 1 in the first and one more in section `at`.
std::vector<packet> many_sections(unsigned count, unsigned at, pat_entry more, unsigned version)
{
    std::vector<packet> v;
    for (unsigned i = 0; i < count; ++i) {
        std::vector<pat_entry> list;
        if (i == 0) list.push_back({1, 100});
        if (i == at) list.push_back(more);
        v.push_back(wrap1(pat(list).number(i, count - 1).version(version).build(), 0, i));
    }
    return v;
}

TEST_F(PAT, change_in_any_section_of_a_large_table_is_seen)
{
    for (unsigned count : {2u, 255u, 256u}) {
        for (unsigned at : {0u, 1u, count - 2, count - 1}) {
            Analyzer b;
            b.feed(many_sections(count, at, {2, 200}, 0));
            ASSERT_EQ(b->nprogs, 2u) << count;
            b.feed(many_sections(count, at, {2, 300}, 0));
            EXPECT_EQ((pids{b->pmt_pid, b->pmt_pid + b->nprogs}), (pids{100, 300})) << at << " of " << count;
            EXPECT_EQ(b->gac.pat_diff, 1u);
            EXPECT_EQ(b->new_pat, nullptr);
        }
    }
}

// The list tells whether two tables were found equal: a merge would bring it back to the first one.
TEST_F(PAT, return_to_the_first_large_table_leaves_the_list_as_the_change_left_it)
{
    for (unsigned count : {2u, 255u, 256u}) {
        Analyzer b;
        for (unsigned pid : {200u, 300u, 200u, 200u})
            b.feed(many_sections(count, count - 1, {2, pid}, 0));
        EXPECT_EQ((pids{b->pmt_pid, b->pmt_pid + b->nprogs}), (pids{100, 300})) << count;
        EXPECT_EQ(b->gac.pat_diff, 1u) << count;
        // With another version it is no longer the first one.
        b.feed(many_sections(count, count - 1, {2, 200}, 1));
        EXPECT_EQ((pids{b->pmt_pid, b->pmt_pid + b->nprogs}), (pids{100, 200})) << count;
    }
}

// The same entries in one section more or less are another table.
TEST_F(PAT, large_tables_of_different_section_counts_differ)
{
    for (unsigned first : {255u, 256u}) {
        const unsigned second = first == 255 ? 256 : 255;
        Analyzer b;
        b.feed(many_sections(first, 7, {2, 200}, 0));
        b.feed(many_sections(first, 7, {2, 300}, 0));
        b.feed(many_sections(first, 7, {2, 200}, 0));
        EXPECT_EQ(b->pmt_pid[1], 300u) << first;
        b.feed(many_sections(second, 7, {2, 200}, 0));
        EXPECT_EQ(b->pmt_pid[1], 200u) << first;
        EXPECT_EQ(b->gac.pat_diff, 2u) << first;
    }
}

TEST_F(PAT, large_table_is_compared_when_its_last_section_has_come_in_whatever_order)
{
    std::vector<packet> v = many_sections(256, 255, {2, 300}, 1);
    a.feed(many_sections(256, 255, {2, 200}, 0));
    std::shuffle(v.begin(), v.end(), std::mt19937(9));
    const packet last = v.back();
    v.pop_back();
    a.feed(v);
    EXPECT_EQ(list(), (pids{100, 200}));
    EXPECT_NE(a->new_pat, nullptr);
    a.quiet();
    a.feed(last);
    EXPECT_EQ(list(), (pids{100, 300}));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 2 1 1 PAT[512]"});
}

// ---- dumps ----------------------------------------------------------------------------------------------------

TEST_F(PAT, dump_shows_the_first_and_the_new_table)
{
    a.cfg.trk.pat_diff = true;
    a.feed_pat(pat({{0, 16}, {1, 100}}).tsid(7));
    a.feed_pat(pat({{1, 100}}).tsid(7).version(1));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 200}}).tsid(7).version(2));
    const strings expected = {"[src] pid200 ADDED in new PAT",
                              "ALERT PAT-DIFF [src] PMTs added/deleted: 1/0 progs=2 at PAT[3]",
                              "[src] Older PAT:",
                              "new PAT tsid=7 version=0",
                              "  * NIT pid=16",
                              "  * program number=1 pid=100",
                              "end PAT",
                              "[src] New PAT:",
                              "new PAT tsid=7 version=2",
                              "  * program number=1 pid=100",
                              "  * program number=2 pid=200",
                              "end PAT"};
    EXPECT_EQ(a.log.messages(), expected);
    // The table's lines carry no head of the log's.
    EXPECT_EQ(a.log.lines()[3], expected[3]);
}

TEST_F(PAT, dump_of_a_table_of_256_sections_ends)
{
    a.cfg.trk.pat_diff = true;
    for (unsigned i = 0; i < 256; ++i)
        a.feed_pat(pat(i == 0 ? entries(100, 1) : std::vector<pat_entry>{}).number(i, 255));
    EXPECT_EQ(list(), pids{100});
    for (unsigned round = 0; round < 2; ++round)
        for (unsigned i = 0; i < 256; ++i)
            a.feed_pat(pat(i == 0 ? entries(100, 1 + round) : std::vector<pat_entry>{}).number(i, 255).version(round));
    EXPECT_EQ(list(), (pids{100, 101}));
    EXPECT_EQ(a->gac.pat_diff, 1u);
}

// All but the last of 256 sections are printed, and the table is as it was behind that.
TEST_F(PAT, dump_of_a_large_table_shows_what_the_printer_can_reach)
{
    for (unsigned at : {253u, 254u, 255u}) {
        Analyzer b;
        b.cfg.trk.pat_diff = true;
        b.feed(many_sections(256, at, {2, 200}, 0));
        b.quiet();
        b.feed(many_sections(256, at, {2, 300}, 0));
        const strings lines = b.log.messages();
        EXPECT_EQ(with(lines, "program number=2 pid=200").size(), at < 255 ? 1u : 0u) << at;
        EXPECT_EQ(with(lines, "program number=2 pid=300").size(), at < 255 ? 1u : 0u) << at;
        EXPECT_EQ(with(lines, "end PAT").size(), 2u);
        EXPECT_EQ(b->pat.sec[0][7], 255);
    }
}

TEST_F(PAT, dump_of_a_section_that_claims_4095_bytes_ends)
{
    a.cfg.trk.pat_diff = true;
    a.feed_pat(pat({{1, 100}}));
    bytes s = pat({{1, 100}, {2, 200}}).version(1).length(4095);
    s.resize(183, 0);
    a.feed(wrap1(s, 0));
    EXPECT_EQ(with(a.log.messages(), "end PAT").size(), 2u);
}

// ---- hostile bytes --------------------------------------------------------------------------------------------

TEST_F(PAT, packet_without_payload_is_no_table)
{
    const packet no_payload = pkt().pid(0).no_payload().af_len(183);
    a.feed(no_payload);
    EXPECT_EQ(a->nprogs, 0u);
    a.feed_pat(pat({{1, 100}}));
    a.feed(no_payload);
    packet past_end = pkt().pid(0).unit_start();
    past_end[3] |= 0x20;
    past_end[4] = 0xff;
    a.feed(past_end);
    EXPECT_EQ(list(), pids{100});
    EXPECT_EQ(a.log.messages(ll::error), strings{});
    EXPECT_EQ(with(a.log.messages(ll::debug), "no section in the packet (pid0)").size(), 3u);
}

TEST_F(PAT, section_whose_head_is_cut_by_the_packets_end_is_passed_over)
{
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    const bytes s = pat({{1, 100}});
    for (size_t n = 1; n < 8; ++n)
        a.feed(pkt().pid(0).payload(bytes_view(s).first(n)));
    EXPECT_EQ(a.log.messages(ll::error).size(), 7u);
    EXPECT_EQ(a.log.messages(ll::error)[0],
              "take_PAT: [src] passing over a PAT section, its head is not in the packet at PAT[2]");
    EXPECT_EQ(list(), pids{100});
}

// What follows the section in its packet here are zeros: a longer claim has as many PIDs of 0, and the first 0 stands.
TEST_F(PAT, section_of_any_claimed_length_keeps_the_record_valid)
{
    for (unsigned len : {0u, 1u, 5u, 8u, 9u, 13u, 184u, 1021u, 1022u, 4095u}) {
        Analyzer b;
        b.feed_pat(pat({{1, 100}}));
        bytes t = pat({{1, 100}}).version(3);
        t.resize(183, 0);
        t[1] = uint8_t((t[1] & 0xf0) | len >> 8);
        t[2] = uint8_t(len);
        b.feed(wrap1(t, 0));
        EXPECT_LE(b->nprogs, MAX_PMTS - 1) << len;
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(b.ctx(), &why)) << why << " at length " << len;
    }
}

TEST_F(PAT, section_that_ends_with_its_packet_is_whole)
{
    const bytes s = pat({{1, 100}, {2, 200}});
    for (size_t behind = 0; behind < 9; ++behind) {
        Analyzer b;
        b.feed(pkt().pid(0).payload(cat({s, fill(behind, 0xff)})));
        EXPECT_EQ((pids{b->pmt_pid, b->pmt_pid + b->nprogs}), (pids{100, 200})) << behind;
    }
}

// No entry is made up from what is not there: a cut table has the programs that came with its packet.
TEST_F(PAT, section_that_runs_past_its_packet_ends_with_it)
{
    const bytes s = pat({{1, 100}, {2, 200}, {3, 300}});
    for (size_t n = 12; n < s.size(); ++n) {
        Analyzer b;
        b.feed(pkt().pid(0).payload(bytes_view(s).first(n)));
        const pids expected = {100, 200, 300};
        const size_t count = std::min<size_t>((n - 8) / 4, 3);
        EXPECT_EQ((pids{b->pmt_pid, b->pmt_pid + b->nprogs}),
                  (pids{expected.begin(), expected.begin() + ptrdiff_t(count)}))
            << n;
        b.quiet();
        b.feed(pkt().pid(0).payload(bytes_view(s).first(n)));
        EXPECT_EQ(b.log.lines(), strings{}) << n;
    }
}

TEST_F(PAT, later_section_that_runs_past_its_packet_adds_what_came_with_it)
{
    a.feed_pat(pat({{1, 100}}));
    const bytes s = pat({{1, 100}, {2, 200}, {3, 300}}).version(1);
    a.feed(pkt().pid(0).payload(bytes_view(s).first(18)));
    EXPECT_EQ(list(), (pids{100, 200}));
    EXPECT_EQ(walked(), list());
    expect_valid();
}

// The packet's own last section number may say more than its copy does.
TEST_F(PAT, section_too_short_for_its_head_has_no_programs)
{
    a.feed_pat(pat({{1, 100}}));
    bytes t = pat({{1, 100}}).version(3).number(200, 255);
    t[1] &= 0xf0;
    t[2] = 5;
    a.feed(wrap1(t, 0));
    EXPECT_EQ(a->nprogs, 0u);
}

TEST_F(PAT, random_tables_behind_the_first_keep_the_record_valid)
{
    std::mt19937 rng(42);
    a.feed_pat(pat({{1, 100}}));
    for (int round = 0; round < 3000; ++round) {
        bytes s = pat(entries(100 + rng() % 64, rng() % 6)).version(rng() % 4).number(rng() % 2, rng() % 3);
        for (unsigned flips = rng() % 4; flips > 0; --flips)
            s[3 + rng() % (s.size() - 3)] = uint8_t(rng());
        packet p = wrap1(s, 0);
        // Never an empty list: the first PID 0 or no program would end the process, as it should.
        if (a->nprogs == 0 || a->nprogs > 20) {
            tsan_free(a.tc);
            a.tc = nullptr;
            a.feed_pat(pat({{1, 100}}));
        }
        a.feed(p);
        expect_valid();
    }
}

} // namespace
