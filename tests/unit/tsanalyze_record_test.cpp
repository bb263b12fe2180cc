// The analyzer's record as a whole: what its checker takes and objects to, its printed form, memos of sections.
#include "support/analyzer.h"

#include <gtest/gtest.h>

#include <utility>

namespace
{

using namespace tsb;

struct Record : testing::Test {
    Analyzer a;
    program_info& pg() { return a->pg[0]; }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
};

TEST_F(Record, validate_objects_to_each_broken_rule)
{
    a.one_program();
    a.feed(pkt().pid(101));
    expect_valid();
    const auto breaks = [&](auto& field, auto value) {
        const auto good = field;
        field = static_cast<std::remove_reference_t<decltype(field)>>(value);
        const char* why = nullptr;
        EXPECT_FALSE(tsan_int::tsan_validate(a.tc, &why));
        EXPECT_NE(why, nullptr);
        EXPECT_FALSE(tsan_int::tsan_validate(a.tc, nullptr));
        field = good;
        expect_valid();
    };
    breaks(a->nprogs, MAX_PMTS + 1);
    breaks(a->pmt_pid[0], 8192);
    breaks(a->pmt_pid[1], 5);
    breaks(a->pid_map[101].istm, 1);
    breaks(a->pid_map[101].ipg, -1);
    breaks(a->pid_map[500].ipg, 0);
    for (unsigned pid : {100, 101, 102}) // forgotten altogether: a PMT PID, the first and the last stream
        breaks(a->pid_map[pid], pid_slot{.ipg = -1, .istm = -1});
    breaks(a->atotal, 1000);
    breaks(pg().nstreams, MAX_NSTREAMS + 1);
    breaks(pg().nstreams, 1);
    breaks(pg().stm[0].stype, '?');
    breaks(pg().stm[0].pid, 8192);
    breaks(pg().stm[0].cc.value, 16);
    breaks(pg().stm[0].cc.value, -2);
    pg().stm[0].cc.value = 15;
    expect_valid();
    breaks(pg().pcr_idx, 64);
    breaks(pg().pcr_idx, -2);
    breaks(pg().ref_idx, -2);
    breaks(pg().ref_idx, 64);
    breaks(pg().pcr_pid, 8192);
    breaks(pg().txt_pmt.buf, nullptr);
    breaks(pg().txt_pmt.textlen, 5000);
    breaks(pg().memo.len, 200);
}

// The largest values that the tables can hold are right, and one more is not.
TEST_F(Record, validate_takes_full_tables_and_the_last_pid)
{
    a.one_program();
    a.feed({pkt().pid(101), pkt().pid(102)});
    const auto limit = [&](auto& field, auto last) {
        using value = std::remove_reference_t<decltype(field)>;
        const value good = field;
        const char* why = "";
        field = static_cast<value>(last);
        tsan_int::pid_map_rebuild(a.tc);
        EXPECT_TRUE(tsan_int::tsan_validate(a.tc, &why)) << why;
        ++field;
        EXPECT_FALSE(tsan_int::tsan_validate(a.tc, nullptr)) << uint64_t(last);
        field = good;
        tsan_int::pid_map_rebuild(a.tc);
    };
    limit(a->pmt_pid[0], 8191);
    limit(pg().stm[0].pid, 8191);
    limit(pg().stm[1].pid, 8191);
    limit(pg().stm[0].cc.value, 15);
    limit(pg().pcr_idx, 63);
    limit(pg().ref_idx, 63);
    limit(pg().pcr_pid, 8191);
    limit(pg().txt_pmt.textlen, pg().txt_pmt.buflen);
    limit(pg().memo.len, 188);
    limit(a->atotal, a->ptotal);
    for (size_t i = 2; i < MAX_NSTREAMS; ++i) {
        pg().stm[i] = pg().stm[1];
        pg().stm[i].pid = unsigned(1000 + i);
    }
    limit(pg().nstreams, MAX_NSTREAMS);
    for (size_t i = 1; i < MAX_PMTS; ++i) {
        a->pmt_pid[i] = unsigned(2000 + i);
        a->pg[i].pcr_idx = a->pg[i].ref_idx = -1;
    }
    limit(a->nprogs, MAX_PMTS);
    // One less has room for the end, and needs it.
    const char* why = "";
    a->nprogs = MAX_PMTS - 1;
    EXPECT_FALSE(tsan_int::tsan_validate(a.tc, &why));
    EXPECT_STREQ(why, "list of PMT PIDs without an end");
}

TEST_F(Record, memo_knows_its_bytes_and_no_others)
{
    psi_memo memo = {};
    bytes s = {1, 2, 3};
    EXPECT_FALSE(tsan_int::memo_matches(&memo, {}));
    EXPECT_FALSE(tsan_int::memo_matches(&memo, s));
    tsan_int::memo_keep(&memo, s, 64);
    EXPECT_EQ(memo.count, 64);
    EXPECT_TRUE(tsan_int::memo_matches(&memo, s));
    EXPECT_FALSE(tsan_int::memo_matches(&memo, bytes_view(s).first(2)));
    EXPECT_FALSE(tsan_int::memo_matches(&memo, bytes{1, 2, 3, 0}));
    EXPECT_FALSE(tsan_int::memo_matches(&memo, bytes{1, 2, 4}));
    tsan_int::memo_drop(&memo);
    EXPECT_FALSE(tsan_int::memo_matches(&memo, s));
    tsan_int::memo_keep(&memo, fill(TS_PKT_BYTES, 7), 0);
    EXPECT_TRUE(tsan_int::memo_matches(&memo, fill(TS_PKT_BYTES, 7)));
    tsan_int::memo_keep(&memo, {}, 0);
    EXPECT_FALSE(tsan_int::memo_matches(&memo, {}));
}

// The rules hold for every program in use, and for slots that stand empty.
TEST_F(Record, validate_looks_at_every_program)
{
    a.feed_pat(pat({{1, 100}, {2, 200}, {3, 300}}));
    a.feed_pmt(pmt(3, 301, {{ES_AVC, 301}, {ES_AAC, 302}}), 300);
    expect_valid();
    const auto breaks = [&](auto& field, auto value, const char* words) {
        const auto good = field;
        field = static_cast<std::remove_reference_t<decltype(field)>>(value);
        const char* why = "";
        EXPECT_FALSE(tsan_int::tsan_validate(a.tc, &why));
        EXPECT_STREQ(why, words);
        field = good;
        expect_valid();
    };
    breaks(a->nprogs, MAX_PMTS + 1, "more programs than the list holds");
    breaks(a->pmt_pid[2], 8192, "impossible PMT PID");
    breaks(a->pmt_pid[3], 400, "list of PMT PIDs without an end");
    breaks(a->pid_map[300], pid_slot{.ipg = -1, .istm = -1}, "PID map out of step with the tables");
    breaks(a->pid_map[302], pid_slot{.ipg = -1, .istm = -1}, "PID map out of step with the tables");
    breaks(a->pid_map[302].istm, 0, "PID map out of step with the tables");
    breaks(a->pid_map[8191], pid_slot{.ipg = 0, .istm = -1}, "PID map out of step with the tables");
    breaks(a->pid_map[0], pid_slot{.ipg = 0, .istm = -1}, "PID map out of step with the tables");
    breaks(a->pg[2].stm[1].stype, '\0', "a stream without class, or with an impossible PID or counter");
    breaks(a->pg[31].pcr_pid, 8192, "impossible PCR PID");
    breaks(a->pg[31].memo.len, 1, "memo without a PMT text");
    breaks(a->pg[31].txt_pmt.textlen, 1, "PMT text longer than its buffer");
}

TEST_F(Record, dump_prints_the_record_in_words)
{
    a.cfg.cc_track = true;
    a.one_program();
    a.feed(pkt().pid(101).cc(7));
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    tsan_int::tsan_dump(fp, a.tc);
    fclose(fp);
    const std::string text(buf, len);
    free(buf);
    EXPECT_NE(text.find("source=[src] packets=3 analyzed=1 index=3 programs=1"), std::string::npos) << text;
    EXPECT_NE(text.find("program 0: pmt=100 in-use=100 pcr=101/0"), std::string::npos) << text;
    EXPECT_NE(text.find("stream 0: pid=101 class=V type=0x1b cc=7"), std::string::npos) << text;
}

// Also where the counts are wrong: a dump is for records that broke their rules.
TEST_F(Record, dump_prints_each_program_and_stream_that_there_is_room_for)
{
    a.one_program();
    const auto printed = [&](size_t programs, size_t streams) {
        a->nprogs = programs;
        pg().nstreams = streams;
        char* buf = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&buf, &len);
        tsan_int::tsan_dump(fp, a.tc);
        fclose(fp);
        const std::string text(buf, len);
        free(buf);
        std::pair<size_t, size_t> found = {0, 0};
        for (size_t at = 0; (at = text.find("\n  program ", at)) != std::string::npos; ++at)
            ++found.first;
        for (size_t at = 0; (at = text.find("\n    stream ", at)) != std::string::npos; ++at)
            ++found.second;
        return found;
    };
    const auto pair = [](size_t programs, size_t streams) { return std::pair(programs, streams); };
    EXPECT_EQ(printed(1, 2), pair(1, 2));
    EXPECT_EQ(printed(MAX_PMTS, MAX_NSTREAMS), pair(MAX_PMTS, MAX_NSTREAMS));
    EXPECT_EQ(printed(MAX_PMTS + 1, MAX_NSTREAMS + 1), pair(MAX_PMTS, MAX_NSTREAMS));
    a->nprogs = 1;
    pg().nstreams = 2;
}

} // namespace
