// PAT tracking: the first table, later ones, what changes in the list of programs.
#include "support/pat_kit.h"

namespace
{

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

} // namespace
