// PAT tracking: the first table, later ones, what changes in the list of programs, hostile tables.
#include "support/analyzer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace
{

using namespace tsb;

using pids = std::vector<unsigned>;

std::vector<pat_entry> entries(unsigned first_pid, unsigned count)
{
    std::vector<pat_entry> v;
    for (unsigned i = 0; i < count; ++i)
        v.push_back({i + 1, first_pid + i});
    return v;
}

pids pid_range(unsigned first_pid, unsigned count)
{
    pids v;
    for (unsigned i = 0; i < count; ++i)
        v.push_back(first_pid + i);
    return v;
}

struct PAT : testing::Test {
    Analyzer a;
    pids list() { return {a->pmt_pid, a->pmt_pid + a->nprogs}; }
    // The list up to the 0 that ends it.
    pids walked()
    {
        pids v;
        for (size_t i = 0; i < MAX_PMTS && a->pmt_pid[i] != 0; ++i)
            v.push_back(a->pmt_pid[i]);
        return v;
    }
    strings human() { return a.log.messages(ll::warning); }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
};

// ---- the first table ------------------------------------------------------------------------------------------

TEST_F(PAT, first_table_fills_the_list_of_programs)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    EXPECT_EQ(list(), (pids{100, 200}));
    EXPECT_EQ(a.log.messages(ll::info),
              (strings{"[src] using PAT (pid0) at PAT[1]", "[src] PRG[0] pmt[0] pid=100 at PAT[1]",
                       "[src] PRG[1] pmt[1] pid=200 at PAT[1]"}));
    EXPECT_EQ(with(a.log.messages(ll::debug), "process_PAT"),
              strings{"process_PAT: [src] 2 programs read from PAT (1 sections) at PAT[1]"});
    EXPECT_TRUE(a->pat.is_complete);
    expect_valid();
}

// By design program number 0, which is no program, takes a slot like any other.
TEST_F(PAT, program_number_0_takes_a_slot)
{
    a.feed_pat(pat({{0, 16}, {1, 100}}));
    EXPECT_EQ(list(), (pids{16, 100}));
}

TEST_F(PAT, table_of_two_sections_is_taken_when_both_have_arrived)
{
    a.feed_pat(pat({{1, 100}}).number(0, 1));
    EXPECT_EQ(a->nprogs, 0u);
    EXPECT_FALSE(a->pat.is_complete);
    EXPECT_EQ(no_ptr(with(a.log.messages(ll::debug), "process_PAT")),
              strings{"process_PAT: (PTR) not all sections gathered yet"});
    a.feed(pkt().pid(101));
    EXPECT_EQ(a->atotal, 0u);
    a.feed_pat(pat({{2, 200}, {3, 300}}).number(1, 1));
    EXPECT_EQ(list(), (pids{100, 200, 300}));
    EXPECT_EQ(with(a.log.messages(ll::debug), "read from"),
              strings{"process_PAT: [src] 3 programs read from PAT (2 sections) at PAT[3]"});
}

// By design the PID in the line is the one at the entry's index within its section: in a second section it is that of
// another program.
TEST_F(PAT, program_line_shows_the_pid_at_the_entrys_index)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}).number(0, 1));
    a.feed_pat(pat({{3, 300}}).number(1, 1));
    EXPECT_EQ(with(a.log.messages(ll::info), "PRG[2]"), strings{"[src] PRG[2] pmt[0] pid=100 at PAT[2]"});
    EXPECT_EQ(list(), (pids{100, 200, 300}));
}

TEST_F(PAT, each_packet_counts_as_a_section_with_or_without_unit_start)
{
    const bytes s = pat({{1, 100}});
    a.feed(pkt().pid(0).section_payload(s)); // no pointer field, as there is no unit start
    EXPECT_EQ(list(), pids{100});
}

// By design the pointer field is stepped over, whatever its value.
TEST_F(PAT, pointer_field_is_stepped_over_whatever_its_value)
{
    bytes payload = {200};
    const bytes s = pat({{1, 100}});
    payload.insert(payload.end(), s.begin(), s.end());
    a.feed(pkt().pid(0).unit_start().section_payload(payload));
    EXPECT_EQ(list(), pids{100});
}

// By design neither the table id nor the CRC is tested.
TEST_F(PAT, table_is_taken_at_face_value)
{
    a.feed_pat(pat({{1, 100}}).table_id(0x42).bad_crc());
    EXPECT_EQ(list(), pids{100});
}

TEST_F(PAT, first_table_may_hold_31_or_32_programs)
{
    a.feed_pat(pat(entries(100, 31)));
    EXPECT_EQ(list(), pid_range(100, 31));
    expect_valid();
    Analyzer b;
    b.feed_pat(pat(entries(100, 32)));
    EXPECT_EQ(b->nprogs, 32u);
    EXPECT_EQ(b.log.messages(ll::error), strings{});
    b.feed(pkt().pid(131)); // the last of them is known
    EXPECT_EQ(b->dat.ipg, 31);
}

TEST_F(PAT, entries_beyond_32_programs_are_passed_over_with_one_error_line)
{
    a.feed_pat(pat(entries(100, 20)).number(0, 1));
    a.feed_pat(pat(entries(200, 20)).number(1, 1));
    EXPECT_EQ(a->nprogs, 32u);
    EXPECT_EQ(a.log.messages(ll::error), strings{"process_PAT: [src] more than 32 programs, 8 passed over at PAT[2]"});
    EXPECT_EQ(a->pmt_pid[31], 211u);
    expect_valid();
}

// A section can list more than 32; no more of it are looked at.
TEST_F(PAT, entries_of_a_section_beyond_32_are_not_looked_at)
{
    a.feed_pat(pat(entries(100, 40)));
    EXPECT_EQ(list(), pid_range(100, 32));
    EXPECT_EQ(a.log.messages(ll::error), strings{});
}

TEST_F(PAT, pid_0_in_the_first_table_ends_the_process)
{
    EXPECT_DEATH(a.feed_pat(pat({{1, 100}, {2, 0}})), "tc->pmt_pid\\[tc->nprogs\\]");
}

TEST_F(PAT, first_table_without_entries_ends_the_process)
{
    EXPECT_DEATH(a.feed_pat(pat({})), "tc->nprogs");
}

TEST_F(PAT, filling_the_list_when_there_is_one_ends_the_process)
{
    a.feed_pat(pat({{1, 100}}));
    bytes s = pat({{1, 100}});
    s.resize(400);
    EXPECT_DEATH(tsan_int::process_PAT(a.tc, s.data()), "0 == tc->nprogs");
}

// ---- later tables ---------------------------------------------------------------------------------------------

TEST_F(PAT, repeated_table_changes_nothing_and_says_nothing)
{
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    for (int i = 0; i < 5; ++i)
        a.feed_pat(pat({{1, 100}}));
    EXPECT_EQ(a.log.lines(), strings{});
    EXPECT_EQ(a->new_pat, nullptr);
    EXPECT_EQ(a->gac.pat_diff, 0u);
}

TEST_F(PAT, trace_lines_come_with_each_later_table)
{
    a.cfg.trk.pat_pmt_pkt = true;
    const bytes s = pat({{1, 100}});
    a.feed_pat(s);
    for (unsigned i = 2; i < 5; ++i) {
        a.quiet();
        a.feed_pat(s);
        const std::string tag = "PAT[" + std::to_string(i) + "]";
        EXPECT_EQ(no_ptr(a.log.messages(ll::info)),
                  (strings{"[src] found PAT at " + tag, "another_PAT: (PTR) new PAT is being compiled at " + tag,
                           "another_PAT: new PAT ready for comparison at " + tag}));
    }
}

TEST_F(PAT, later_table_of_two_sections_is_compared_when_both_have_arrived)
{
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    a.feed_pat(pat({{1, 100}}).version(1).number(0, 1));
    EXPECT_EQ(no_ptr(a.log.messages()), strings{"another_PAT: (PTR) not all sections gathered yet at PAT[2]"});
    EXPECT_NE(a->new_pat, nullptr);
    a.quiet();
    a.feed_pat(pat({{2, 200}}).version(1).number(1, 1));
    EXPECT_EQ(list(), (pids{100, 200}));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 2 1 0 PAT[3]"});
    EXPECT_EQ(a->new_pat, nullptr);
}

// A table of one section is whole at once, and ends what was being gathered.
TEST_F(PAT, whole_table_puts_an_end_to_a_half_gathered_one)
{
    const bytes first = pat({{1, 100}});
    a.feed_pat(first);
    a.feed_pat(first);
    a.feed_pat(pat({{2, 200}}).version(1).number(1, 1));
    a.feed_pat(first);
    EXPECT_EQ(a->new_pat, nullptr);
    a.feed_pat(pat({{1, 100}}).version(1).number(0, 1));
    EXPECT_EQ(list(), pids{100});
    EXPECT_EQ(a->gac.pat_diff, 0u);
}

TEST_F(PAT, last_section_of_an_unchanged_table_is_no_table_by_itself)
{
    const bytes s0 = pat({{1, 100}}).number(0, 1), s1 = pat({{2, 200}}).number(1, 1);
    for (const bytes& s : {s0, s1, s0, s1})
        a.feed_pat(s);
    a.quiet();
    a.feed_pat(s1);
    EXPECT_EQ(no_ptr(a.log.messages()), strings{"another_PAT: (PTR) not all sections gathered yet at PAT[5]"});
    a.feed_pat(s0);
    EXPECT_EQ(a->new_pat, nullptr);
}

// What was found unchanged once is looked at again when the list has changed since.
TEST_F(PAT, table_that_changed_nothing_may_change_the_list_later)
{
    const bytes bumped = pat({{1, 100}}).version(1);
    a.feed_pat(pat({{1, 100}}));
    a.feed_pat(bumped);
    a.feed_pat(pat({{2, 200}}).version(2));
    EXPECT_EQ(list(), pids{200});
    a.quiet();
    a.feed_pat(bumped);
    EXPECT_EQ(list(), pids{100});
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 1 1 1 PAT[4]"});
}

TEST_F(PAT, half_gathered_table_is_freed_with_the_context)
{
    a.feed_pat(pat({{1, 100}}));
    a.feed_pat(pat({{1, 100}}).version(1).number(0, 1));
    EXPECT_NE(a->new_pat, nullptr); // the leak check of the sanitizer run sees the rest
}

TEST_F(PAT, one_pid_added_and_one_gone_make_one_alert)
{
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {3, 300}, {4, 400}}).version(1));
    EXPECT_EQ(human(), (strings{"[src] pid400 ADDED in new PAT", "[src] pid200 MISSING in new PAT",
                                "ALERT PAT-DIFF [src] PMTs added/deleted: 1/1 progs=3 at PAT[2]"}));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 3 1 1 PAT[2]"});
    EXPECT_EQ(list(), (pids{100, 300, 400}));
    EXPECT_EQ(walked(), list());
    EXPECT_EQ(a->gac.pat_diff, 1u);
    expect_valid();
}

TEST_F(PAT, version_order_and_program_numbers_alone_raise_nothing)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 200}}).version(9));
    a.feed_pat(pat({{2, 200}, {1, 100}}).version(10));
    a.feed_pat(pat({{5, 100}, {6, 200}}).version(10));
    EXPECT_EQ(a.log.lines(), strings{});
    EXPECT_EQ(list(), (pids{100, 200}));
    EXPECT_EQ(a->gac.pat_diff, 0u);
}

TEST_F(PAT, alert_switches_apply)
{
    a.cfg.no_rlog = true;
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    a.feed_pat(pat({{2, 200}}).version(1));
    EXPECT_EQ(with(human(), "ALERT"), strings{});
    EXPECT_EQ(a.alerts.messages().size(), 1u);

    Analyzer b;
    b.cfg.access_log_alerts = false;
    b.feed_pat(pat({{1, 100}}));
    b.feed_pat(pat({{2, 200}}).version(1));
    EXPECT_EQ(with(b.log.messages(), "ALERT").size(), 1u);
    EXPECT_EQ(b.alerts.lines(), strings{});
    EXPECT_EQ(b->gac.pat_diff, 1u);
}

TEST_F(PAT, change_arms_the_silent_track_check_again)
{
    a.cfg.max_ndat_pcount = 50;
    a.feed_pat(pat({{1, 100}}));
    a->ndat_pcount = 0;
    a->pg[0].stat.pcount = 7;
    a.feed_pat(pat({{1, 100}}).version(1));
    EXPECT_EQ(a->ndat_pcount, 0u);
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 200}}).version(2));
    EXPECT_EQ(a->ndat_pcount, 57u);
    EXPECT_EQ(no_ptr(a.log.messages()), (strings{"[src] pid200 ADDED in new PAT",
                                                 "ALERT PAT-DIFF [src] PMTs added/deleted: 1/0 progs=2 at PAT[3]",
                                                 "reset_ndat_pcount: (PTR) NDAT pcount=57"}));
}

// By design the first table stays the base of every comparison: a return to it is not seen.
TEST_F(PAT, return_to_the_first_table_leaves_the_list_as_the_change_left_it)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pat(pat({{1, 100}}).version(1));
    EXPECT_EQ(list(), pids{100});
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    EXPECT_EQ(list(), pids{100});
    EXPECT_EQ(a.log.lines(), strings{});
}

TEST_F(PAT, changed_table_that_stays_raises_no_second_alert)
{
    a.feed_pat(pat({{1, 100}}));
    for (int i = 0; i < 4; ++i)
        a.feed_pat(pat({{1, 100}, {2, 200}}).version(1));
    EXPECT_EQ(a->gac.pat_diff, 1u);
    a.feed_pat(pat({{2, 200}}).version(2));
    EXPECT_EQ(a->gac.pat_diff, 2u);
    EXPECT_EQ(list(), pids{200});
}

// By design the statistics stay with the slot: the program behind a vanished one takes over what stood at its new
// index.
TEST_F(PAT, vanished_program_moves_the_pids_behind_it_and_no_slot)
{
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    a.feed_pmt(pmt(3, 301, {{ES_AVC, 301}}), 300);
    a.feed(pkt().pid(201));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {3, 300}}).version(1));
    EXPECT_EQ(list(), (pids{100, 300}));
    EXPECT_EQ(a->pg[1].stm[0].pid, 201u);
    EXPECT_EQ(a->pg[1].stat.pcount, 1u);
    a.feed(pkt().pid(301)); // the dropped last slot is not looked at
    EXPECT_EQ(a->dat.ipg, -1);
    a.feed_pmt(pmt(3, 301, {{ES_AVC, 301}}), 300);
    EXPECT_EQ(with(a.alerts.messages(), "PMT-DIFF"), strings{"ALERT PMT-DIFF src 300 1 1 301 1:M[7]"});
    a.feed(pkt().pid(301));
    EXPECT_EQ(a->dat.ipg, 1);
    EXPECT_EQ(a->pg[1].stat.pcount, 2u);
    expect_valid();
}

TEST_F(PAT, added_program_takes_the_next_slot_with_what_it_holds)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.feed_pmt(pmt(2, 201, {{ES_AVC, 201}}), 200);
    a.feed_pat(pat({{1, 100}}).version(1));
    a.feed_pat(pat({{1, 100}, {2, 500}}).version(2));
    EXPECT_EQ(list(), (pids{100, 500}));
    a.quiet();
    a.feed_pmt(pmt(2, 501, {{ES_AVC, 501}}), 500);
    EXPECT_EQ(a->pg[1].alert.pmt_diff, 1u);
}

// By design the second sighting of a PID finds its mark gone, and the PID then stands twice.
TEST_F(PAT, pid_listed_twice_in_a_later_table_stands_twice)
{
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 100}}).version(1));
    EXPECT_EQ(list(), (pids{100, 100}));
    EXPECT_EQ(human()[0], "[src] pid100 ADDED in new PAT");
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 2 1 0 PAT[2]"});
    a.feed_pat(pat({{1, 100}, {2, 100}}).version(1));
    EXPECT_EQ(list(), (pids{100, 100}));
    EXPECT_EQ(a->gac.pat_diff, 1u);
    expect_valid();
}

TEST_F(PAT, new_pid_listed_twice_is_added_twice)
{
    a.feed_pat(pat({{1, 100}}));
    a.quiet();
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 200}}).version(1));
    EXPECT_EQ(list(), (pids{100, 200, 200}));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 3 2 0 PAT[2]"});
    expect_valid();
}

TEST_F(PAT, pid_that_was_dropped_is_new_when_it_comes_back)
{
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}));
    a.feed_pat(pat({{1, 100}}).version(1));
    EXPECT_EQ(list(), pids{100});
    a.quiet();
    a.feed_pat(pat({{1, 100}, {4, 400}, {5, 500}, {3, 300}}).version(2));
    EXPECT_EQ(list(), (pids{100, 400, 500, 300}));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 4 3 0 PAT[3]"});
}

// A 0 in the list ends it for the packets: programs behind it are out of reach.
TEST_F(PAT, pid_0_added_by_a_later_table_ends_the_list_for_packets)
{
    a.feed_pat(pat({{1, 100}}));
    a.feed_pat(pat({{9, 0}, {1, 100}, {2, 200}}).version(1));
    EXPECT_EQ(list(), (pids{100, 0, 200}));
    a.feed(pkt().pid(200));
    EXPECT_FALSE(a->dat.is_pmt);
    a.feed(pkt().pid(100));
    EXPECT_TRUE(a->dat.is_pmt);
    expect_valid();
}

TEST_F(PAT, table_that_loses_all_programs_lets_the_next_one_fill_the_list_anew)
{
    a.feed_pat(pat({{1, 100}, {2, 200}}));
    a.quiet();
    a.feed_pat(pat({}).version(1));
    EXPECT_EQ(a->nprogs, 0u);
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 0 0 2 PAT[2]"});
    EXPECT_EQ(walked(), pids{});
    a.feed_pat(pat({{3, 300}}).version(2));
    EXPECT_EQ(list(), pids{300});
    EXPECT_EQ(walked(), list());
    expect_valid();
}

TEST_F(PAT, merge_may_leave_31_programs)
{
    a.feed_pat(pat(entries(100, 30)));
    a.feed_pat(pat(entries(100, 31)).version(1));
    EXPECT_EQ(list(), pid_range(100, 31));
    expect_valid();
}

TEST_F(PAT, merge_that_would_leave_32_programs_ends_the_process)
{
    a.feed_pat(pat(entries(100, 31)));
    EXPECT_DEATH(a.feed_pat(pat(entries(100, 32)).version(1)), "tc->nprogs < MAX_PMTS");
}

// For a moment a merge holds both the old and the new PIDs; what finds no room is passed over.
TEST_F(PAT, merge_bounds_the_list_at_32_with_one_error_line)
{
    a.feed_pat(pat(entries(100, 20)));
    a.quiet();
    a.feed_pat(pat(entries(200, 20)).version(1));
    EXPECT_EQ(a.log.messages(ll::error), strings{"merge_PATs: [src] more than 32 programs, 8 passed over at PAT[2]"});
    EXPECT_EQ(list(), pid_range(200, 12));
    EXPECT_EQ(a.alerts.messages(), strings{"ALERT PAT-DIFF src 0 12 12 20 PAT[2]"});
    // The rest finds room with the next packet, although that repeats this one.
    a.feed_pat(pat(entries(200, 20)).version(1));
    EXPECT_EQ(list(), pid_range(200, 20));
    expect_valid();
}

// By design a section's copy ends three bytes ahead of the section: the last three bytes of the CRC are never compared.
TEST_F(PAT, last_three_bytes_of_the_crc_are_not_compared)
{
    bytes s = pat({{1, 100}});
    a.feed_pat(s);
    for (size_t back = 1; back <= 3; ++back) {
        bytes t = s;
        t[t.size() - back] ^= 0xff;
        a.feed_pat(t);
    }
    const psi_block& base = a->pat;
    EXPECT_EQ(base.sec[0][s.size() - 1], 0);
    EXPECT_EQ(base.sec[0][s.size() - 4], s[s.size() - 4]);
}

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
