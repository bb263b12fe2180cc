// One turn of the capture loop at the ring: cap, iget, the bytes of a datagram, iput, and the cut into records.
// The copying that stands for the read is measured alone too, to be taken off.
#include "bench/bench_common.h"

#include "mmr.h"
#include "mpegts.h"
#include "support/ts_build.h"

#include <array>
#include <cstring>

namespace
{

constexpr size_t ring_bytes = 8 << 20;
constexpr size_t keep_below = ring_bytes - 65536;
constexpr size_t pkts_per_dgram = 7;

tsb::bytes datagram()
{
    return tsb::cat(tsb::stream(tsb::one_program()).take(pkts_per_dgram));
}

void BM_copy_alone(benchmark::State& state)
{
    const tsb::bytes dgram = datagram();
    tsb::bytes target(ring_bytes);
    size_t at = 0;
    for (auto _ : state) {
        memcpy(target.data() + at, dgram.data(), dgram.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
        at += dgram.size();
        if (at + dgram.size() > target.size()) at = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_copy_alone);

// With 0 the turn ends behind iput, with 1 the fresh bytes are also cut into records.
void BM_ring_turn(benchmark::State& state)
{
    const bool cut = state.range(0) != 0;
    const tsb::bytes dgram = datagram();
    mmr_t ring = nullptr;
    if (mmr_create(&ring, ring_bytes) != 0) {
        expect(state, false, "no ring");
        return;
    }
    const mm_opt opt = {.no_mtu_pack = true};
    mmr_set_opt(ring, &opt);
    std::array<iovec, 512> iov;
    size_t records = 0, bytes = 0;
    int64_t refused = 0;
    for (auto _ : state) {
        refused += mmr_cap(ring, keep_below) < 0;
        mm_point pt = {};
        uint8_t* room = mmr_iget(ring, &pt);
        memcpy(room, dgram.data(), dgram.size());
        pt.len = dgram.size();
        refused += mmr_iput_ex(ring, &pt, true) != 0;
        if (!cut) continue;
        size_t count = iov.size();
        ssize_t offset = 0;
        refused += mmr_oget_buf(ring, room, dgram.size(), iov.data(), &count, &offset) != 0;
        records += count;
        bytes += iov[count - 1].iov_len + static_cast<size_t>(static_cast<uint8_t*>(iov[count - 1].iov_base) - room);
    }
    const auto turns = static_cast<size_t>(state.iterations());
    expect(state, refused == 0, "a step failed");
    expect(state, records == (cut ? turns * pkts_per_dgram : 0), "wrong number of records");
    expect(state, bytes == (cut ? turns * dgram.size() : 0), "records don't cover the datagram");
    mm_info info = {};
    mmr_get_info(ring, &info);
    expect(state, info.ts_len == TS_MIN_PKTSIZE && info.pld_size <= ring_bytes, "wrong picture of the ring");
    mmr_destroy(ring);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ring_turn)->Arg(0)->Arg(1);

} // namespace

int main(int argc, char** argv)
{
    return bench_main(argc, argv);
}
