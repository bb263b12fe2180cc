// Stream recognition: the packet size probe, the finder on a first input, and the RTP test while scanning.
#include "bench/bench_common.h"

#include "dstream.h"
#include "mpegts.h"
#include "rtp.h"
#include "support/ts_build.h"

namespace
{

constexpr size_t input_bytes = 65536; // a read of a TCP source

tsb::bytes ts_input(size_t packet_size)
{
    const std::vector<tsb::packet> v = tsb::stream(tsb::one_program()).take(input_bytes / packet_size);
    return tsb::widen(v, packet_size);
}

void BM_probe(benchmark::State& state)
{
    const auto size = static_cast<size_t>(state.range(0));
    const tsb::bytes b = ts_input(size);
    ssize_t sum = 0;
    for (auto _ : state)
        sum += ts_probe(b.data(), b.size(), true);
    expect(state, sum == static_cast<ssize_t>(size) * state.iterations(), "wrong packet size");
    state.SetBytesProcessed(static_cast<int64_t>(b.size()) * state.iterations());
}
BENCHMARK(BM_probe)->Arg(188)->Arg(208);

void find(benchmark::State& state, const tsb::bytes& data, off_t want_at, size_t want_len)
{
    const tsb::with_margin m(data, rtpf::lookahead);
    int64_t at = 0;
    size_t lens = 0;
    for (auto _ : state) {
        int32_t stype = 0;
        size_t len = 0;
        at += ds_find_dgram(m.data(), m.size(), &stype, &len, 0);
        lens += stype == STY_RAW.num ? 0 : len;
    }
    expect(state, at == want_at * state.iterations(), "wrong offset");
    expect(state, lens == want_len * static_cast<size_t>(state.iterations()), "wrong length");
}

void BM_find_ts(benchmark::State& state)
{
    find(state, tsb::cat({tsb::noise(100), ts_input(188)}), 100, 188);
}
BENCHMARK(BM_find_ts);

void BM_find_rtp(benchmark::State& state)
{
    const std::vector<tsb::packet> v = tsb::stream(tsb::one_program()).take(7 * 49);
    find(state, tsb::cat(tsb::rtp_run(v, 7)), 0, 1328);
}
BENCHMARK(BM_find_rtp);

void BM_find_nothing(benchmark::State& state)
{
    find(state, tsb::noise(input_bytes), -1, 0);
}
BENCHMARK(BM_find_nothing);

void BM_rtp_test_refusing(benchmark::State& state)
{
    const tsb::with_margin m(tsb::noise(4096), rtpf::lookahead);
    size_t found = 0;
    for (auto _ : state)
        for (size_t i = 0; i < m.size(); ++i)
            found += is_rtp_data(m.data() + i);
    expect(state, found == 0, "RTP found in noise");
    state.SetItemsProcessed(static_cast<int64_t>(m.size()) * state.iterations());
}
BENCHMARK(BM_rtp_test_refusing);

} // namespace

int main(int argc, char** argv)
{
    return bench_main(argc, argv);
}
