// The analyzer on clean streams, with continuity, PCR and timestamp checks on. Time per packet; the goals are 25 ns for
// one program and 40 ns for 20 programs of 5 streams.
//
// A pass is a whole stream through an analyzer of its own, whose making is not measured. Behind each pass the
// statistics records are read: every packet of a stream has to be analyzed and no alert raised. A pass over a damaged
// stream has to raise one alert for each packet that is missing.
#include "bench/bench_common.h"

#include "log.h"
#include "support/ts_build.h"
#include "tavrin/tsanalyze.h"

#include <cstdlib>
#include <cstring>
#include <map>

namespace
{

constexpr size_t pass_packets = 8192;
constexpr size_t pkts_per_dgram = 7;

tsan_config all_checks()
{
    tsan_config cfg = {};
    cfg.is_enabled = cfg.access_log_alerts = cfg.cc_track = true;
    cfg.max_skip_pkts = D_MAX_NO_ANALYZE;
    cfg.max_pdts_delta = cfg.max_pcr_delta = D_MAX_DELTA_MS;
    cfg.pcr_freq_ms = 100;
    cfg.max_ndat_pcount = D_PCOUNT;
    cfg.cc_max_ms0_ms = 3000;
    return cfg;
}

struct tally {
    size_t analyzed = 0; // STAT PRG, packets analyzed of all programs
    size_t alerts = 0;   // ALERT lines
    size_t counted = 0;  // STAT ALERT-count, all fields of all programs
};

// Reads the records that an analyzer wrote.
tally read_records(const char* text)
{
    tally t;
    char copy[512];
    for (const char* line = text; *line != '\0';) {
        const size_t len = strcspn(line, "\n");
        snprintf(copy, sizeof copy, "%.*s", static_cast<int>(len), line);
        line += len + (line[len] == '\n');
        unsigned long v[8] = {};
        // Records may have a time in front.
        if (const char* p = strstr(copy, "STAT PRG bench ")) {
            sscanf(p, "STAT PRG bench %*u %lu %lu", &v[0], &v[1]);
            t.analyzed += v[1];
        } else if (const char* q = strstr(copy, "STAT ALERT-count bench ")) {
            sscanf(q, "STAT ALERT-count bench %*u %lu %lu %lu %lu %lu %lu %lu", &v[0], &v[1], &v[2], &v[3], &v[4],
                   &v[5], &v[6]);
            for (unsigned long n : v)
                t.counted += n;
        } else if (strstr(copy, "ALERT ")) {
            ++t.alerts;
        }
    }
    return t;
}

size_t stream_packets(const std::vector<tsb::packet>& v, const tsb::stream_plan& plan)
{
    std::map<unsigned, bool> tracked;
    for (const tsb::program_plan& p : plan.programs)
        for (const tsb::es& s : p.streams)
            tracked[s.pid] = true;
    size_t n = 0;
    for (const tsb::packet& p : v)
        n += tracked.count(tsb::pid_of(p));
    return n;
}

void run(benchmark::State& state, const tsb::stream_plan& plan, size_t lost)
{
    std::vector<tsb::packet> v = tsb::stream(plan).take(pass_packets);
    // Lost far enough from each other that each is a break of its own.
    for (size_t i = 0; i < lost; ++i)
        v = tsb::drop(v, plan.programs[0].streams[0].pid, 100 + 40 * i);
    const size_t want = stream_packets(v, plan);
    const tsan_config cfg = all_checks();
    for (auto _ : state) {
        state.PauseTiming();
        char* records = nullptr;
        size_t records_len = 0;
        FILE* fp = open_memstream(&records, &records_len);
        FILE* saved = g_access_log.fp;
        g_access_log.fp = fp;
        tsan_t t = tsan_init("bench", &cfg, nullptr);
        state.ResumeTiming();

        int refused = 0;
        size_t in_dgram = 0;
        for (const tsb::packet& p : v) {
            if (in_dgram == 0) tsan_next_seg(t);
            if (++in_dgram == pkts_per_dgram) in_dgram = 0;
            refused += tsan_process(t, p.data()) != 0;
        }

        state.PauseTiming();
        tsan_alog_stats(t);
        fclose(fp);
        g_access_log.fp = saved;
        const tally got = read_records(records);
        expect(state, refused == 0 && tsan_get_pidx(t) == v.size(), "packets refused");
        expect(state, got.analyzed == want, "wrong number of packets analyzed");
        expect(state, got.alerts == lost && got.counted == lost, "wrong number of alerts");
        tsan_free(t);
        free(records);
        state.ResumeTiming();
    }
    const auto packets = static_cast<double>(v.size()) * static_cast<double>(state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(packets));
    state.counters["s/pkt"] = benchmark::Counter(packets, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_one_program(benchmark::State& state)
{
    run(state, tsb::one_program(), 0);
}
BENCHMARK(BM_one_program);

void BM_20_programs_of_5_streams(benchmark::State& state)
{
    run(state, tsb::many_programs(20, 5), 0);
}
BENCHMARK(BM_20_programs_of_5_streams);

void BM_one_program_with_10_lost_packets(benchmark::State& state)
{
    run(state, tsb::one_program(), 10);
}
BENCHMARK(BM_one_program_with_10_lost_packets);

} // namespace

int main(int argc, char** argv)
{
    return bench_main(argc, argv);
}
