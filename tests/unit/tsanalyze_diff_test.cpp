// The analyzer against its rules in plain words: both take the same tens of thousands of random packets, and must say
// the same, line for line.
//
// A run is a seed: it decides the limits, the programs, and every packet. The streams are unkind on purpose: lost and
// repeated packets, clocks that wrap and jump, PES headers cut short by the packet's end, tracks that stay silent,
// tables that change. On a difference the seed, the packet and both sides' next lines are shown.
#include "tavrin/tsanalyze_int.h"

#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/plain_analyzer.h"
#include "support/ts_build.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using tsb::packet;

constexpr uint32_t SEEDS = 40;
constexpr size_t PKTS_PER_RUN = 8000;
constexpr uint64_t CLOCK_MASK = (uint64_t{1} << 33) - 1;
constexpr unsigned STRAY_PID = 8000;
constexpr time_t START_SEC = 5000;

struct dice {
    std::mt19937 engine;
    explicit dice(uint32_t seed) : engine(seed) {}
    unsigned below(unsigned n) { return engine() % n; }
    bool in(unsigned n) { return below(n) == 0; } // once in n
    template <size_t N>
    unsigned pick(const unsigned (&v)[N])
    {
        return v[below(N)];
    }
};

struct plan {
    unsigned number, pmt_pid, pcr_pid, version = 0;
    std::vector<tsb::es> streams;
};

// A random multiplex, packet by packet.
class mux
{
public:
    explicit mux(uint32_t seed) : d(seed), clock(d.in(2) ? CLOCK_MASK - d.below(900000) : d.below(900000))
    {
        const unsigned n = 1 + d.below(4);
        for (unsigned i = 0; i < n; i++)
            programs.push_back(new_program());
    }

    packet next()
    {
        clock = (clock + d.below(400)) & CLOCK_MASK;
        if (d.in(700)) clock = (clock + d.pick({45000, 200000, 4294000000U})) & CLOCK_MASK;
        if (d.in(1500)) clock = d.below(100000);
        if (d.in(1200)) change_pmt();
        if (d.in(2500)) change_pat();
        if (burst == 0 && d.in(300)) burst = 2 + d.below(8);

        packet p = pick_packet();
        if (d.in(500)) p[0] = 0x46;
        return p;
    }

    dice d;

private:
    uint64_t clock;
    unsigned next_pid = 32;
    unsigned pat_version = 0;
    unsigned burst = 0; // packets to come that all lose the same number before them
    std::vector<plan> programs;
    std::map<unsigned, unsigned> cc;

    tsb::es new_stream()
    {
        const unsigned type = d.pick({tsb::ES_MPEG2_VIDEO, tsb::ES_AVC, tsb::ES_MPEG1_AUDIO, tsb::ES_AAC, tsb::ES_AC3,
                                      tsb::ES_AAC, tsb::ES_PRIVATE, tsb::ES_PRIVATE_SECTION});
        return {type, d.in(25) ? STRAY_PID - 1 : next_pid++};
    }

    plan new_program()
    {
        plan p = {};
        p.number = next_pid;
        p.pmt_pid = next_pid++;
        const unsigned n = 1 + d.below(5);
        for (unsigned i = 0; i < n; i++)
            p.streams.push_back(new_stream());
        p.pcr_pid = d.in(8) ? STRAY_PID : p.streams[d.below(n)].pid;
        return p;
    }

    void change_pmt()
    {
        plan& p = programs[d.below(static_cast<unsigned>(programs.size()))];
        p.version = (p.version + 1) % 32;
        switch (d.below(5)) {
        case 0: p.streams.push_back(new_stream()); break;
        case 1:
            if (p.streams.size() > 1) p.streams.pop_back();
            break;
        case 2: std::reverse(p.streams.begin(), p.streams.end()); break;
        case 3: p.pcr_pid = p.streams[0].pid; break;
        default: break;
        }
    }

    void change_pat()
    {
        const bool grow = programs.size() < 2 || (programs.size() < 6 && d.in(2));
        if (grow)
            programs.push_back(new_program());
        else
            programs.erase(programs.begin() + d.below(static_cast<unsigned>(programs.size())));
        pat_version = (pat_version + 1) % 32;
    }

    packet pick_packet()
    {
        const unsigned what = d.below(100);
        plan& p = programs[d.below(static_cast<unsigned>(programs.size()))];
        if (what < 3) {
            std::vector<tsb::pat_entry> entries;
            for (const plan& q : programs)
                entries.push_back({q.number, q.pmt_pid});
            return tsb::wrap1(tsb::pat(entries).version(pat_version).build(), 0, step(0));
        }
        if (what < 8) {
            return tsb::wrap1(tsb::pmt(p.number, p.pcr_pid, p.streams).version(p.version).build(), p.pmt_pid,
                              step(p.pmt_pid));
        }
        if (what < 9) return tsb::pkt().pid(d.pick({tsb::PID_NULL, 17, STRAY_PID, 31})).payload();
        // A program's last stream is rare: it is the silent track.
        const size_t n = p.streams.size();
        const size_t i = n > 1 && !d.in(400) ? d.below(static_cast<unsigned>(n - 1)) : n - 1;
        if (n > 1 && i == n - 1 && !d.in(20)) return tsb::null_pkt();
        return media(p, p.streams[i]);
    }

    unsigned step(unsigned pid)
    {
        const unsigned now = cc[pid];
        cc[pid] = now + 1;
        return now;
    }

    unsigned media_cc(unsigned pid)
    {
        unsigned& c = cc[pid];
        if (burst > 0) {
            burst--;
            c += 3;
        } else if (d.in(60)) {
            c = d.pick({c, c + 5, c - 1, c + 16, 16, 16});
        } else if (d.in(80)) {
            c--; // a repeated counter
        }
        return c++;
    }

    packet media(const plan& p, const tsb::es& s)
    {
        tsb::pkt_builder b = tsb::pkt().pid(s.pid);
        const bool with_pcr = d.in(s.pid == p.pcr_pid ? 6 : 60);
        if (with_pcr) b.pcr(d.in(40) ? 0 : clock);
        if (d.in(12)) return b.no_payload().cc(cc[s.pid]);
        b.cc(media_cc(s.pid));
        if (d.in(3)) return b.unit_start().payload(head_of_pes());
        if (d.in(200)) return b.unit_start(d.in(2)).af_len(d.pick({183, 184, 255}));
        return b.payload();
    }

    uint64_t stamp()
    {
        const uint64_t near[] = {clock,        clock,         clock / 20000 * 20000 + d.in(2) * d.below(60),
                                 clock + 9000, clock + 60000, clock - 9000};
        return d.in(50) ? 0 : near[d.below(6)] & CLOCK_MASK;
    }

    tsb::bytes head_of_pes()
    {
        tsb::pes_builder pes = tsb::pes(d.in(20) ? 0xbb : d.pick({0xbc, 0xbd, 0xc0, 0xe0, 0xff}));
        if (!d.in(6)) pes.pts(stamp());
        if (d.in(3)) pes.dts(stamp());
        tsb::bytes all = pes.payload(40).build();
        if (d.in(25)) all[2] = 0;
        if (d.in(25)) all[7] = 0xc0; // promises both stamps, whatever is there
        if (d.in(5)) all.resize(d.pick({1, 4, 8, 9, 10, 13, 14, 15, 18, 19, 20}));
        return all;
    }
};

tsan_config random_config(dice& d)
{
    tsan_config cfg = {};
    cfg.is_enabled = true;
    strcpy(cfg.source, "rnd");
    cfg.max_skip_pkts = d.pick({0, 20, 9000});
    cfg.max_pdts_delta = d.pick({0, 50, 300, 500});
    cfg.max_pcr_delta = d.pick({0, 80, 300});
    cfg.pcr_freq_ms = d.pick({0, 20, 100});
    cfg.access_log_alerts = !d.in(8);
    cfg.max_ndat_pcount = d.pick({0, 50, 700});
    cfg.cc_track = !d.in(8);
    cfg.cc_max_ms0_ms = d.pick({0, 500, 5000});
    cfg.no_rlog = d.in(8);
    return cfg;
}

// The messages of the application log that the plain rules know. CC-MLR ends without a line feed, so that another
// message may follow on its line: messages are told apart by their level tags.
std::vector<std::string> human_lines(const LogCapture& log)
{
    std::string all = log.text();
    for (const char* tag : {"(WRN)  ", "(NRM)  ", "(ERR)  "}) {
        for (size_t at = all.find(tag); at != std::string::npos; at = all.find(tag, at + 1 + strlen(tag))) {
            all.insert(at, "\n");
        }
    }
    std::vector<std::string> out;
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);) {
        const std::string msg = strip_line_head(g_log, line);
        if (msg.starts_with("ALERT ") || msg.ends_with("receiving data")) out.push_back(msg);
    }
    return out;
}

void expect_same(const std::vector<std::string>& expected, const std::vector<std::string>& got, const char* what)
{
    const size_t n = std::min(expected.size(), got.size());
    for (size_t i = 0; i < n; i++) {
        ASSERT_EQ(expected[i], got[i]) << what << " line " << i << " of " << expected.size() << "/" << got.size();
    }
    ASSERT_EQ(expected.size(), got.size())
        << what << ": one more is [" << (expected.size() > n ? expected[n] : got[n]) << "]";
}

void expect_same_counts(const plain::analyzer& m, const tsan_ctx* tc)
{
    ASSERT_EQ(m.total, tc->ptotal);
    ASSERT_EQ(m.analyzed, tc->atotal);
    ASSERT_EQ(m.silence_at, tc->ndat_pcount);
    ASSERT_EQ(m.pmts.size(), tc->nprogs);
    for (size_t i = 0; i < m.pmts.size(); i++) {
        const plain::program& p = m.pg[i];
        const program_info& pg = tc->pg[i];
        ASSERT_EQ(m.pmts[i], tc->pmt_pid[i]);
        ASSERT_EQ(p.n, pg.nstreams);
        ASSERT_EQ(p.pcount, pg.stat.pcount);
        ASSERT_EQ(p.ref_idx, pg.ref_idx);
        ASSERT_EQ(p.pcr_idx, pg.pcr_idx);
        ASSERT_EQ(p.av.count, pg.av_pdts_delta.g_count);
        ASSERT_EQ(p.av.total, pg.av_pdts_delta.g_total);
        ASSERT_EQ(p.pcr_delta.count, pg.av_pcr_delta.g_count);
        ASSERT_EQ(p.pcr_delta.total, pg.av_pcr_delta.g_total);
        ASSERT_EQ(p.pcr_freq.count, pg.av_pcr_freq.g_count);
        ASSERT_EQ(p.pcr_freq.total, pg.av_pcr_freq.g_total);
    }
}

// What a run came across, so that a generator that no longer reaches a rule shows.
struct coverage {
    std::map<std::string, size_t> alerts;
    void take(const std::vector<std::string>& machine)
    {
        for (const std::string& s : machine)
            alerts[s.substr(6, s.find(' ', 6) - 6)]++;
    }
};

void run(uint32_t seed, coverage* cov)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    fake_clock::set(START_SEC);
    LogCapture log(&g_log, ll::normal);
    LogCapture records(&g_access_log);
    g_log.time_format = g_access_log.time_format = LTF_NO_TIME;

    mux stream(seed);
    const tsan_config cfg = random_config(stream.d);
    plain::analyzer plain(cfg);
    int err = 0;
    const std::unique_ptr<tsan_ctx, void (*)(tsan_ctx*)> tc(tsan_init(nullptr, &cfg, &err), tsan_free);
    ASSERT_NE(nullptr, tc);

    for (size_t i = 0; i < PKTS_PER_RUN; i++) {
        SCOPED_TRACE("packet " + std::to_string(i));
        fake_clock::advance_ms(stream.d.in(400) ? 3000 : stream.d.below(3));
        if (!stream.d.in(4)) {
            tsan_next_seg(tc.get());
            plain.next_dgram();
        }
        if (stream.d.in(2000)) {
            plain.idx = stream.d.below(2000);
            tsan_set_pidx(tc.get(), plain.idx);
        }
        if (stream.d.in(3000)) {
            tsan_check_ndat(tc.get());
            plain.look_for_silence();
        }
        const packet p = stream.next();
        const long now_ns = fake_clock::g.now.tv_sec * 1000000000 + fake_clock::g.now.tv_nsec;
        ASSERT_EQ(plain.process(p.data(), now_ns), tsan_process(tc.get(), p.data()));
        if (i % 500 == 499 || i + 1 == PKTS_PER_RUN) {
            ASSERT_NO_FATAL_FAILURE(expect_same(plain.machine, records.messages(), "alert log"));
            ASSERT_NO_FATAL_FAILURE(expect_same(plain.human, human_lines(log), "application log"));
            ASSERT_NO_FATAL_FAILURE(expect_same_counts(plain, tc.get()));
            cov->take(plain.machine);
            plain.machine.clear();
            plain.human.clear();
            records.clear();
            log.clear();
        }
    }
}

} // namespace

TEST(analyzer, says_what_its_rules_say_on_random_streams)
{
    coverage cov;
    for (uint32_t seed = 1; seed <= SEEDS; seed++) {
        ASSERT_NO_FATAL_FAILURE(run(seed, &cov));
    }
    fake_clock::release();
    std::string seen;
    for (const auto& [name, count] : cov.alerts)
        seen += name + "=" + std::to_string(count) + " ";
    printf("seeds 1 to %u, %zu packets each: %s\n", SEEDS, PKTS_PER_RUN, seen.c_str());
    for (const char* name : {"CC-BRK", "CC-RST", "CC-MLR", "PAT-DIFF", "PMT-DIFF", "PCR-FREQ", "PCR-DELTA", "AV-DELTA0",
                             "AV-DELTA+", "PID-NDAT"}) {
        EXPECT_LT(50U, cov.alerts[name]) << name;
    }
}
