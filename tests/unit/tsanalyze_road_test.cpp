// What keeps a packet's way short, each against its plain form: the PID map against the walk, noted tags against tags
// built at once, tables known by their bytes against tables compared. Allocations are counted, and made to fail.
#include "support/analyzer.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <random>

// ---- allocations as the code under test sees them -------------------------------------------------------------

namespace
{
size_t g_allocs = 0;        // since the start
unsigned g_fail_calloc = 0; // 1: the next one fails; 2: the one after it
bool g_fail_strdup = false;
} // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t n, size_t size);
void* __real_realloc(void* p, size_t size);
char* __real_strdup(const char* s);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t n, size_t size);
void* __wrap_realloc(void* p, size_t size);
char* __wrap_strdup(const char* s);
void* __real__Znwm(size_t size); // operator new
void* __wrap__Znwm(size_t size);

void* __wrap_malloc(size_t size)
{
    ++g_allocs;
    return __real_malloc(size);
}
void* __wrap_calloc(size_t n, size_t size)
{
    ++g_allocs;
    if (g_fail_calloc != 0 && --g_fail_calloc == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(n, size);
}
void* __wrap_realloc(void* p, size_t size)
{
    ++g_allocs;
    return __real_realloc(p, size);
}
char* __wrap_strdup(const char* s)
{
    ++g_allocs;
    if (g_fail_strdup) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(s);
}
void* __wrap__Znwm(size_t size)
{
    ++g_allocs;
    return __real__Znwm(size);
}
}

namespace
{

using namespace tsb;

struct Road : testing::Test {
    Analyzer a;
    program_info& pg(size_t i = 0) { return a->pg[i]; }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
    void all_checks(tsan_config* cfg)
    {
        cfg->cc_track = true;
        cfg->max_pdts_delta = 500;
        cfg->max_pcr_delta = 500;
        cfg->pcr_freq_ms = 100;
        cfg->max_ndat_pcount = 10000;
    }
};

// ---- the PID map ----------------------------------------------------------------------------------------------

TEST_F(Road, pid_map_gives_what_the_walk_gives)
{
    std::mt19937 rng(3);
    tsan_ctx* t = a.ctx();
    for (int round = 0; round < 300; ++round) {
        t->nprogs = rng() % (MAX_PMTS + 1);
        memset(t->pmt_pid, 0, sizeof(t->pmt_pid));
        const unsigned span = round % 3 == 0 ? 40 : 8192; // few PIDs: many that are shared
        for (size_t i = 0; i < t->nprogs; ++i) {
            t->pmt_pid[i] = rng() % 20 == 0 ? 0 : rng() % span;
            t->pg[i].nstreams = rng() % (rng() % 8 == 0 ? MAX_NSTREAMS + 1 : 6);
            for (size_t j = 0; j < t->pg[i].nstreams; ++j)
                t->pg[i].stm[j].pid = rng() % span;
        }
        tsan_int::pid_map_rebuild(t);
        for (unsigned pid = 0; pid < NUM_PIDS; ++pid) {
            // The walk as it is told: the PMT list to its first 0, then all streams in order.
            int ipg = -1, istm = -1;
            for (int i = 0; i < int(MAX_PMTS) && ipg < 0 && t->pmt_pid[i] != 0; ++i)
                if (t->pmt_pid[i] == pid) ipg = i;
            for (int i = 0; i < int(t->nprogs) && ipg < 0; ++i)
                for (int j = 0; j < int(t->pg[i].nstreams) && ipg < 0; ++j)
                    if (t->pg[i].stm[j].pid == pid) ipg = i, istm = j;
            ASSERT_EQ(t->pid_map[pid].ipg, ipg) << "PID " << pid << " in round " << round;
            ASSERT_EQ(t->pid_map[pid].istm, istm) << "PID " << pid << " in round " << round;
        }
    }
}

packet table(const bytes& section, unsigned pid, unsigned cc)
{
    return wrap1(section, pid, cc);
}

// A run of packets in which everything changes: tables, versions, PIDs, damage.
std::vector<packet> restless(unsigned seed, size_t rounds)
{
    std::mt19937 rng(seed);
    const auto rnd = [&](size_t n) { return unsigned(rng() % n); };
    std::vector<packet> v;
    std::vector<pat_entry> programs = {{1, 100}, {2, 200}, {3, 300}};
    unsigned pat_version = 0, pmt_version = 0;
    uint64_t clock = 90000;
    const auto pmt_of = [&](unsigned pid) {
        std::vector<es> list = {{ES_AVC, pid + 1}, {ES_AAC, pid + 2, lang_desc("eng")}, {ES_PRIVATE, pid + 3}};
        if (pmt_version % 3 == 1) std::swap(list[0], list[1]);
        if (pmt_version % 4 == 2) list.push_back({ES_AAC, 201}); // another program's
        if (pmt_version % 5 == 3) list.pop_back();
        return pmt(pid / 100, pid + 1, list).version(pmt_version % 32);
    };
    for (size_t i = 0; i < rounds; ++i) {
        if (rnd(40) == 0) ++pmt_version;
        if (rnd(40) == 0) {
            ++pat_version;
            programs[rnd(programs.size())].pid = 100 * (1 + rnd(5));
            if (programs.size() > 2 && rnd(2) == 0) programs.pop_back();
            if (programs.size() < 5 && rnd(2) == 0) programs.push_back({9, 100 * (1 + rnd(5))});
        }
        if (rnd(2) == 0) v.push_back(table(pat(programs).version(pat_version % 32), 0, unsigned(i)));
        if (rnd(9) == 0) { // a table of two sections
            v.push_back(table(pat(programs).version(pat_version % 32).number(0, 1), 0, unsigned(i)));
            if (rnd(2) == 0) v.push_back(table(pat(programs).version(pat_version % 32).number(1, 1), 0, unsigned(i)));
        }
        for (const pat_entry& e : programs)
            if (rnd(2) == 0) v.push_back(table(pmt_of(e.pid), e.pid, unsigned(i)));
        if (rnd(30) == 0) v.push_back(table(pmt_of(100).length(rnd(60)), 100, unsigned(i)));
        for (int n = 0; n < 6; ++n) {
            const unsigned pid = 100 * (1 + rnd(5)) + rnd(5);
            pkt_builder b = pkt().pid(pid % 100 == 0 ? 8191 : pid).cc(rnd(3) == 0 ? rnd(16) : unsigned(i));
            if (rnd(4) == 0) b.pcr(clock += rnd(9000));
            if (rnd(4) == 0) b.unit_start().payload(pes(0xe0).pts(clock + rnd(99999)).payload(20).build());
            if (rnd(50) == 0) b.set(0, 0);
            v.push_back(b);
        }
    }
    return v;
}

TEST_F(Road, pid_map_follows_every_change_of_the_tables)
{
    for (const packet& p : restless(1, 1500)) {
        a.feed(p);
        expect_valid(); // compares the map with the walk
    }
    EXPECT_GT(a->gac.pat_diff, 10u);
    EXPECT_GT(pg().alert.pmt_diff, 10u);
}

// ---- tags -----------------------------------------------------------------------------------------------------

// The tag of a packet as it is told: built when the packet arrives.
std::string plain_tag(const tsan_ctx* t, unsigned pid)
{
    char text[PKTIDX_LEN];
    const uint64_t idx = t->last_pkt_idx + 1;
    const pid_slot at = tsan_int::find_pid_slot(t, pid);
    const ssize_t ipg = pid == 0 ? -1 : at.ipg, istm = pid == 0 ? -1 : at.istm;
    int n;
    if (pid == 0)
        n = snprintf(text, sizeof(text), "PAT[%lu]", idx);
    else if (ipg >= 0 && istm < 0)
        n = snprintf(text, sizeof(text), "%zd:M[%lu]", ipg, idx);
    else if (ipg >= 0)
        n = snprintf(text, sizeof(text), "%zd:%zd[%lu]", ipg, istm, idx);
    else
        n = snprintf(text, sizeof(text), "pkt[%lu]", idx);
    if (n >= 1 && n <= 62 && ipg >= 0 && t->pg[ipg].got_pcr)
        snprintf(text + n, sizeof(text) - size_t(n), ":(pcr=%lu)+%lu", t->pg[ipg].last_pcr,
                 idx - t->pg[ipg].pcr_pktnum);
    return text;
}

TEST_F(Road, noted_tags_read_like_tags_built_when_the_packet_arrives)
{
    std::array<std::string, MAX_PMTS> pcr_tags;
    std::mt19937 rng(5);
    for (const packet& p : restless(2, 3000)) {
        if (rng() % 200 == 0) tsan_set_pidx(a.ctx(), rng() % 3 == 0 ? UINT64_MAX - 2 : rng());
        const std::string expected = plain_tag(a.ctx(), pid_of(p));
        std::array<uint64_t, MAX_PMTS> pcr_before;
        for (size_t i = 0; i < MAX_PMTS; ++i)
            pcr_before[i] = pg(i).pcr_pktnum;
        a.feed(p);
        ASSERT_EQ(a.tag(), expected);
        const ssize_t ipg = a->dat.ipg;
        if (ipg >= 0 && pg(size_t(ipg)).pcr_pktnum == a->last_pkt_idx && pcr_before[size_t(ipg)] != a->last_pkt_idx)
            pcr_tags[size_t(ipg)] = expected;
        for (size_t i = 0; i < 4; ++i)
            ASSERT_EQ(tsan_int::pcr_tag_text(&pg(i)), pcr_tags[i]);
    }
}

// ---- tables known by their bytes ------------------------------------------------------------------------------

// Two analyzers get the same packets; one compares every table in full. All they write and count has to be equal.
TEST_F(Road, tables_known_by_their_bytes_leave_the_same_lines_as_tables_compared)
{
    for (unsigned seed = 10; seed < 16; ++seed) {
        const std::vector<packet> v = restless(seed, 1200);
        strings lines[2], records[2];
        uint64_t counts[2][3];
        for (int plain = 0; plain < 2; ++plain) {
            Analyzer b;
            all_checks(&b.cfg);
            memset(&b.cfg.trk, 1, sizeof(b.cfg.trk));
            b->plain_psi = plain == 1;
            b.quiet();
            for (const packet& p : v) {
                b.feed(p);
                tsan_next_seg(b.tc);
            }
            lines[plain] = no_ptr(b.log.messages());
            records[plain] = b.alerts.messages();
            counts[plain][0] = b->atotal;
            counts[plain][1] = b->gac.pat_diff;
            counts[plain][2] = b->pg[1].alert.pmt_diff;
        }
        EXPECT_TRUE(lines[0] == lines[1]) << "seed " << seed;
        EXPECT_TRUE(records[0] == records[1]) << "seed " << seed;
        EXPECT_TRUE(std::equal(counts[0], counts[0] + 3, counts[1])) << "seed " << seed;
        EXPECT_GT(lines[0].size(), 1000u);
    }
}

TEST_F(Road, repeated_tables_are_in_fact_known_by_their_bytes)
{
    a.one_program();
    a.feed_pat(pat({{1, 100}}));
    const bytes s = pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}});
    const size_t before = g_allocs;
    const packet p = table(s, 100, 1), q = table(pat({{1, 100}}), 0, 1);
    const size_t packets = g_allocs - before;
    const size_t start = g_allocs;
    tsan_process(a.tc, p.data());
    tsan_process(a.tc, q.data());
    EXPECT_EQ(g_allocs, start) << packets;
    a->plain_psi = true;
    tsan_process(a.tc, p.data());
    tsan_process(a.tc, q.data());
    EXPECT_GT(g_allocs, start);
}

TEST_F(Road, no_allocation_over_100000_packets_with_unchanged_tables)
{
    all_checks(&a.cfg);
    for (unsigned programs : {1u, 20u}) {
        Analyzer b;
        all_checks(&b.cfg);
        stream_plan plan = many_programs(programs, 5);
        std::vector<packet> v = stream(plan).take(100000);
        const size_t warm_up = 4 * programs * 30; // the tables, twice
        for (size_t i = 0; i < warm_up; ++i)
            tsan_process(b.ctx(), v[i].data());
        const size_t start = g_allocs;
        for (size_t i = warm_up; i < v.size(); ++i) {
            tsan_next_seg(b.tc);
            tsan_process(b.tc, v[i].data());
        }
        EXPECT_EQ(g_allocs, start) << programs << " programs";
        EXPECT_EQ(b->pg[0].alert.cc_break, 0u);
        EXPECT_EQ(b->pg[0].alert.pmt_diff, 0u);
        EXPECT_GT(b->atotal, 90000u);
    }
}

// ---- without memory -------------------------------------------------------------------------------------------

TEST_F(Road, creation_without_memory_gives_null_and_error_12)
{
    int err = 0;
    g_fail_calloc = 1;
    EXPECT_EQ(tsan_init("x", &a.cfg, &err), nullptr);
    EXPECT_EQ(err, 12);
    g_fail_calloc = 1;
    EXPECT_EQ(tsan_init("x", &a.cfg, nullptr), nullptr);
    EXPECT_EQ(g_fail_calloc, 0u);
}

TEST_F(Road, table_without_memory_is_left_out)
{
    a.ctx();
    g_fail_calloc = 1;
    a.feed_pat(pat({{1, 100}}));
    EXPECT_EQ(a->nprogs, 0u);
    a.feed_pat(pat({{1, 100}}));
    EXPECT_EQ(a->nprogs, 1u);
    for (unsigned nth : {1u, 2u}) { // the table, or the section's copy
        g_fail_calloc = nth;
        a.feed_pat(pat({{1, 100}, {2, 200}}).version(1));
        EXPECT_EQ(g_fail_calloc, 0u);
        EXPECT_EQ(a->nprogs, 1u);
    }
    a.feed_pat(pat({{1, 100}, {2, 200}}).version(1));
    EXPECT_EQ(a->nprogs, 2u);
    expect_valid();
}

TEST_F(Road, pmt_without_memory_for_its_text_counts_as_the_same)
{
    a.cfg.trk.pmt_diff = true;
    a.one_program();
    a.quiet();
    const bytes s = pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}).version(1);
    for (int i = 0; i < 2; ++i) {
        g_fail_calloc = 1;
        a.feed_pmt(s);
        EXPECT_EQ(g_fail_calloc, 0u);
        EXPECT_EQ(pg().alert.pmt_diff, 0u);
        EXPECT_EQ(with(a.log.messages(), "cmp_PMT").back(), "cmp_PMT: ok pid=100 2/2");
    }
    a.feed_pmt(s);
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
}

TEST_F(Road, rebuilding_without_memory_leaves_the_table_with_the_new_text_in_place)
{
    a.one_program();
    const bytes s = pmt(1, 101, {{ES_AVC, 101}}).version(1);
    g_fail_calloc = 2;
    a.feed_pmt(s);
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    EXPECT_EQ(pg().nstreams, 2u);
    a.feed_pmt(s);
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    EXPECT_EQ(pg().nstreams, 2u);
    expect_valid();
}

TEST_F(Road, first_pmt_without_memory_gets_its_text_later)
{
    a.feed_pat(pat({{1, 100}}));
    g_fail_calloc = 1;
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}));
    EXPECT_EQ(pg().nstreams, 1u);
    EXPECT_EQ(pg().txt_pmt.buf, nullptr);
    for (int i = 0; i < 2; ++i) { // against no text at all the first one differs
        a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}));
        EXPECT_EQ(pg().nstreams, 1u);
        EXPECT_EQ(pg().alert.pmt_diff, 1u);
    }
    a.feed(pkt().pid(101));
    EXPECT_EQ(pg().stm[0].pcount, 1u);
}

TEST_F(Road, option_without_memory_for_its_copy_is_refused)
{
    const tsan_config before = a.cfg;
    g_fail_strdup = true;
    EXPECT_EQ(tsan_cli_opt("pcr_delta=5", &a.cfg), ENOMEM);
    g_fail_strdup = false;
    EXPECT_EQ(a.log.messages(), strings{"tsan_cli_opt: strdup() ERROR(12): Cannot allocate memory"});
    EXPECT_EQ(memcmp(&before, &a.cfg, sizeof(before)), 0);
}

// ---- damage ---------------------------------------------------------------------------------------------------

// Any bytes but those of the PAT, and of a PMT with a PCR PID of 0, which may end the process.
TEST_F(Road, random_packets_never_break_the_record)
{
    all_checks(&a.cfg);
    memset(&a.cfg.trk, 1, sizeof(a.cfg.trk));
    a.one_program();
    std::mt19937 rng(9);
    for (int i = 0; i < 30000; ++i) {
        packet p;
        for (uint8_t& b : p)
            b = uint8_t(rng());
        p[0] = 0x47;
        p[1] = uint8_t(p[1] & 0xe0);
        p[2] = uint8_t(100 + rng() % 3);
        if (rng() % 4 == 0) p[2] = uint8_t(1 + rng() % 255);
        if (p[2] == 100) continue;
        if (rng() % 2 == 0) p[4] = uint8_t(rng() % 16);
        a.feed(p);
        if (i % 500 == 0) {
            expect_valid();
            a.quiet();
        }
    }
    expect_valid();
    EXPECT_GT(pg().stat.pcount, 1000u);
}

} // namespace
