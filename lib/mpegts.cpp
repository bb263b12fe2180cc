// Packet sizes and PCR arithmetic. The probe walks the whole buffer for each size on purpose: the answer fixes the
// packet size of a stream for good, and there is no small number of sync bytes that would prove one.
#include "mpegts.h"

#include "log.h"

#include <array>
#include <cassert>
#include <cstdlib>
#include <span>

TV_LOG_MODULE(7)

namespace
{

using bytes_view = std::span<const uint8_t>;

// In the order in which they are tried: the smallest that fits wins.
constexpr std::array<ssize_t, 4> pkt_size = {188, 192, 204, 208};
static_assert(pkt_size.front() == ssize_t{TS_MIN_PKTSIZE} && pkt_size.back() == ssize_t{TS_MAX_PKTSIZE});

// Results of ts_probe other than a size.
constexpr ssize_t probe_no_sync_byte = -22;
constexpr ssize_t probe_too_short = -1;
constexpr ssize_t probe_no_size = -3;

constexpr off_t max_head_candidate = 206; // no candidate behind this offset is followed by another one

// True if every multiple of `size` inside the buffer holds a sync byte. A packet that is cut off counts too.
bool in_step(bytes_view buf, size_t size)
{
    for (size_t i = size; i < buf.size(); i += size)
        if (buf[i] != MPEG_TS_SYNC) return false;
    return true;
}

// The first sync byte from `start` on, before `end`; -1 if there is none.
off_t find_sync(bytes_view buf, off_t start, off_t end)
{
    for (off_t i = start; i < end; ++i)
        if (buf[static_cast<size_t>(i)] == MPEG_TS_SYNC) return i;
    return -1;
}

// Reads the PCR of the packet at `offset`, if it has one and its bytes lie in the buffer.
bool read_pcr(bytes_view buf, size_t offset, uint64_t* pcr)
{
    if (buf.size() - offset < tsf::pcr_end) return false;
    const uint8_t* pkt = buf.data() + offset;
    if (!ts_has_pcr(pkt)) return false;
    *pcr = ts_pcr_base(pkt);
    return true;
}

bytes_view as_bytes(const char* buf, size_t len)
{
    return {reinterpret_cast<const uint8_t*>(buf), len};
}

constexpr uint64_t wrapped_delta(uint64_t first, uint64_t last)
{
    return last + P2_33 - first;
}

static_assert(wrapped_delta(8589934000, 100) == 692);
static_assert(wrapped_delta(1000, 91000) > MAX_PCR_GAP);
static_assert(wrapped_delta(P2_33 - MAX_PCR_GAP, 0) == MAX_PCR_GAP);

} // namespace

// ---- packet size ----------------------------------------------------------------------------------------------

ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts)
{
    const bytes_view data(buf, len);
    if (data.empty()) return probe_too_short;
    if (data[0] != MPEG_TS_SYNC) return probe_no_sync_byte;

    bool accepted = false;
    ssize_t tried = 0;
    for (size_t i = 0; i < pkt_size.size() && !accepted; ++i) {
        tried = pkt_size[i];
        const auto size = static_cast<size_t>(tried);
        if (len < size) return probe_too_short;
        if (len == size) return tried;
        accepted = in_step(data, size) && (!full_pkts || len % size == 0);
    }
    tv_log(ll::debug, "%s: %s pkt_size[%ld]/%s for buf=%p, len=%ld\n", __func__, accepted ? "in-sync" : "NO-SYNC",
           tried, full_pkts ? "F" : "-", static_cast<const void*>(buf), static_cast<ssize_t>(len));
    return accepted ? tried : probe_no_size;
}

off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len)
{
    const bytes_view data(buf, len);
    const auto end = static_cast<off_t>(len);
    off_t offset = -1;
    while (offset <= max_head_candidate) {
        const off_t start = offset + 1;
        // By design: the end of the search moves back as its start moves forward.
        const off_t found = find_sync(data, start, end - start);
        // Behind a candidate that failed there is nothing more to try.
        if (found < 0) return -1;
        offset = found;
        const ssize_t size = ts_probe(buf + offset, len - static_cast<size_t>(offset), false);
        if (size > 0) {
            *pkt_len = static_cast<size_t>(size);
            return offset;
        }
    }
    // By design: an offset that no probe accepted, told apart by its being above 206 and by `*pkt_len`.
    return offset;
}

// ---- PCR ------------------------------------------------------------------------------------------------------

int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    assert(buf && pcr && len >= pkt_len);
    const bytes_view data = as_bytes(buf, len);
    for (size_t i = 0; i < len; i += pkt_len)
        if (read_pcr(data, i, pcr)) return 0;
    return -1;
}

int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    assert(buf && pcr && len >= pkt_len);
    const bytes_view data = as_bytes(buf, len);
    // By design: the packet at `buf` itself is not tested.
    for (auto i = static_cast<ssize_t>(len - pkt_len); i > 0; i -= static_cast<ssize_t>(pkt_len))
        if (read_pcr(data, static_cast<size_t>(i), pcr)) return 0;
    return -1;
}

uint64_t calc_pcr_delta(uint64_t first, uint64_t last, uint32_t flags)
{
    const uint64_t over_wrap = wrapped_delta(first, last);
    if (over_wrap < MAX_PCR_GAP) return over_wrap;

    const uint64_t delta = last - first;
    if (first != 0) {
        if (last < first) {
            tv_log(ll::warning, "%s: PCR last=%lu < first=%lu diff=%lu\n", __func__, last, first, delta);
            if (flags & F_ABRT_PCR) abort();
            return 0;
        }
        if ((flags & F_MAX_PCRD) && delta > MAX_PCR_GAP)
            tv_log(ll::warning, "%s: PCR gap=%lu exceeds max=%u; last=%lu, first=%lu\n", __func__, delta, MAX_PCR_GAP,
                   last, first);
    }
    return delta;
}

uint64_t ts_pcr_delta(uint64_t first, uint64_t last)
{
    return calc_pcr_delta(first, last, 0);
}
