// The ring's reader: finds the sync mark at the head of a stretch of bytes and cuts records by stride from there.
//
// Nothing is stored between calls, so one stretch may be cut many times with different results: the analysis cuts
// each block as it comes in, and capping cuts the ring's head much later by a computation of its own.
#include "mmr.h"

#include "dstream.h"
#include "log.h"
#include "mmr_int.h"
#include "mpegts.h"
#include "rtp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

TV_LOG_MODULE(0)

namespace
{

using mmr_int::deep_check;
using mmr_int::g_verbosity;

constexpr int LOST_SYNC = -EBADF;

// Length of a packed record: the whole packets that fit an MTU.
constexpr size_t packed_len(size_t ts_len)
{
    return MMR_MTU - MMR_MTU % ts_len;
}
static_assert(packed_len(188) == 1316 && packed_len(192) == 1344);
static_assert(packed_len(204) == 1428 && packed_len(208) == 1456);

// What a call works on: the span if both its parts are given, the payload otherwise.
std::span<uint8_t> run_of(struct mm_ring* mr, uint8_t* buf, size_t buflen)
{
    const bool is_ext_buf = buf && buflen != 0;
    return is_ext_buf ? std::span(buf, buflen) : std::span(mr->buf + mr->pld_pos, mr->pld_size);
}

// mmr_sync_found at a place of a run where the RTP test could look past memory that the run is known to lie in.
// Inside the ring's mapping it may look at stale bytes behind the run; a foreign span, or the mapping's last bytes,
// are followed by zeros.
bool sync_found_near_end(const struct mm_ring* mr, std::span<const uint8_t> rest)
{
    const uint8_t* map_end = mr->ext + mr->buflen;
    const bool in_ring = rest.data() >= mr->buf && rest.data() < map_end;
    const size_t readable = in_ring ? static_cast<size_t>(map_end - rest.data()) : rest.size();
    if (readable >= rtpf::lookahead) return mmr_sync_found(mr->stype.num, rest.data());

    std::array<uint8_t, rtpf::lookahead> padded = {};
    std::copy_n(rest.data(), readable, padded.begin());
    return mmr_sync_found(mr->stype.num, padded.data());
}

// Looks for a unit from offset 0 up to max_delta. *delta is where it is, or where the search ended.
bool find_sync(const struct mm_ring* mr, std::span<const uint8_t> data, size_t max_delta, size_t* delta)
{
    const size_t safe_len = mr->stype.num == STY_RTP.num ? rtpf::lookahead : 1;
    bool in_sync = false;
    size_t pos = 0;
    for (; pos < data.size() && pos <= max_delta; ++pos) {
        in_sync = data.size() - pos >= safe_len ? mmr_sync_found(mr->stype.num, &data[pos])
                                                : sync_found_near_end(mr, data.subspan(pos));
        if (in_sync) break;
    }
    *delta = pos;
    return in_sync;
}

// How far the sync search may go.
size_t search_reach(const struct mm_ring* mr, bool is_ext_buf)
{
    if (is_ext_buf) return MAX_SYNC_DELTA;
    // By design: on the payload the reach depends on both ring fields. The difference is unsigned and enormous
    // whenever the head stands above the payload's size; only TS has an upper limit.
    const size_t reach = mr->pld_size - static_cast<size_t>(mr->pld_pos);
    return mr->stype.num == STY_MPEGTS.num ? std::min(reach, MAX_SYNC_DELTA) : reach;
}

// The number of whole packets, or -1 when a sync byte is missing at any stride, the one of a partial last packet
// included.
ssize_t count_ts_pkts(const uint8_t* buf, size_t len, size_t pkt_len)
{
    ssize_t npkts = 0;
    for (size_t pos = 0; pos < len; pos += pkt_len) {
        if (buf[pos] != MPEG_TS_SYNC) return -1;
        if (len - pos < pkt_len) break;
        ++npkts;
    }
    return npkts;
}

// One record per unit. This is the cut of each block read: a byte test and a store per TS packet.
int mmr_pack_buf(struct mm_ring* mr, uint8_t* buf, size_t buflen, struct iovec* iov, size_t* count)
{
    tv_assert_logged(mr->ts_len != 0);
    const std::span<uint8_t> run = run_of(mr, buf, buflen);
    const size_t ts_len = mr->ts_len;
    if (run.size() < ts_len) {
        tv_log(ll::warning, "%s: not enough payload data, %zu bytes\n", __func__, run.size());
        return EAGAIN;
    }

    const bool is_rtp = mr->stype.num == STY_RTP.num;
    const size_t max_count = *count;
    uint8_t* data = run.data();
    size_t nsegs = 0;
    for (size_t left = run.size(); left >= ts_len && nsegs < max_count; left -= ts_len) {
        const bool in_sync = is_rtp ? mmr_sync_found(STY_RTP.num, data) : data[0] == MPEG_TS_SYNC;
        if (!in_sync) {
            tv_log(ll::error, "%s: LOST-SYNC: %s stream expected\n", __func__, mr->stype.sym);
            return LOST_SYNC;
        }
        iov[nsegs].iov_base = data;
        iov[nsegs].iov_len = ts_len;
        ++nsegs;
        data += ts_len;
    }
    tv_assert_logged(nsegs != 0);
    *count = nsegs;
    if (g_verbosity & MMR_OGET_VERBOSE) tv_log(ll::debug, "%s: segments packed=%ld\n", __func__, nsegs);
    return 0;
}

// TS packets in records as long as an MTU allows.
int mmr_ts_pack_buf(struct mm_ring* mr, uint8_t* buf, size_t buflen, struct iovec* iov, size_t* count)
{
    tv_assert_logged(mr->ts_len > 0 && mr->ts_len < MAX_SYNC_DELTA);
    const std::span<uint8_t> run = run_of(mr, buf, buflen);
    const size_t dgram_len = packed_len(mr->ts_len);
    const ssize_t npkts = count_ts_pkts(run.data(), run.size(), mr->ts_len);
    if (npkts == -1) {
        tv_log(ll::error, "%s: [%s] error counting packets\n", __func__, mr->sname);
        return -1;
    }
    if (npkts == 0) return EAGAIN;

    ssize_t nleft = npkts * static_cast<ssize_t>(mr->ts_len);
    const size_t msg_count = std::min((static_cast<size_t>(nleft) - 1) / dgram_len + 1, *count);
    size_t pos = 0;
    size_t nsegs = 0;
    for (size_t i = 0; i < msg_count && nleft > 0; ++i) {
        tv_assert_logged(run[pos] == MPEG_TS_SYNC);
        const size_t len = std::min(dgram_len, static_cast<size_t>(nleft));
        iov[i].iov_base = &run[pos];
        iov[i].iov_len = len;
        pos += len;
        if (pos > run.size()) { // not within one run: whole packets end where it ends, or before
            pos -= run.size();
            break;
        }
        nleft -= static_cast<ssize_t>(len);
        ++nsegs;
    }
    tv_assert_logged(nsegs != 0);
    *count = nsegs;
    if (g_verbosity & MMR_OGET_VERBOSE)
        tv_log(ll::debug, "%s: messages exp/packed=%ld/%ld\n", __func__, msg_count, nsegs);
    return 0;
}

// Takes skipped bytes off the head.
void drop_head(struct mm_ring* mr, size_t delta)
{
    mr->pld_pos += static_cast<off_t>(delta);
    if (mr->pld_pos >= static_cast<off_t>(mr->buflen)) mr->pld_pos -= static_cast<off_t>(mr->buflen);
    mr->pld_size -= delta;
    mr->synced_len = 0; // the units lie at other places now
}

// Keeps what is known of the head's units when bytes leave there.
void forget_synced(struct mm_ring* mr, size_t total)
{
    const bool whole_units = mr->synced_len >= total && total % mr->ts_len == 0;
    mr->synced_len = whole_units ? mr->synced_len - total : 0;
}

} // namespace

bool mmr_sync_found(int32_t snum, const uint8_t* pkt)
{
    return snum == STY_RTP.num ? is_rtp_pkt(pkt) : pkt[0] == MPEG_TS_SYNC;
}

int mmr_oget_buf(mmr_t ring, uint8_t* buf, size_t buflen, struct iovec* iov, size_t* count, ssize_t* offset)
{
    struct mm_ring* mr = ring;
    const deep_check check(mr);
    const bool is_ext_buf = buf && buflen != 0;
    // A ring that has refused its first input counts bytes, but has neither a head nor a unit to cut by.
    const bool has_data = mr->pld_pos >= 0 || (is_ext_buf && mr->pld_size == 0);
    const std::span<uint8_t> data = has_data ? run_of(mr, buf, buflen) : std::span<uint8_t>();

    size_t delta = 0;
    const bool in_sync = find_sync(mr, data, search_reach(mr, is_ext_buf), &delta);
    if (!in_sync && data.size() >= MAX_SYNC_DELTA) {
        tv_log(ll::error, "%s: [%s] not a TS stream, giving up\n", __func__, mr->sname);
        return -EFAULT;
    }
    if (delta != 0) {
        tv_log(ll::warning, "%s: [%s] shifting %ld bytes to %s-sync\n", __func__, mr->sname, delta, mr->stype.sym);
        // By design: a short stretch of garbage ends the process; a span is offered only where a unit begins.
        tv_assert_logged(delta < data.size());
        if (!is_ext_buf) drop_head(mr, delta);
        if (offset) *offset = static_cast<ssize_t>(delta);
    }
    if (!in_sync) {
        tv_log(ll::error, "%s: failed to sync at delta=%zu, skipping\n", __func__, delta);
        return LOST_SYNC;
    }
    const std::span<uint8_t> units = data.subspan(delta);
    if (mr->stype.num == STY_RTP.num || mr->opt.no_mtu_pack)
        return mmr_pack_buf(mr, units.data(), units.size(), iov, count);
    return mmr_ts_pack_buf(mr, units.data(), units.size(), iov, count);
}

int mmr_oget(mmr_t ring, struct iovec* iov, size_t* count)
{
    return mmr_oget_buf(ring, nullptr, 0, iov, count, nullptr);
}

ssize_t mmr_oput(mmr_t ring, const struct iovec* iov, size_t count)
{
    struct mm_ring* mr = ring;
    const deep_check check(mr);
    size_t total = 0;
    for (size_t i = 0; i < count; ++i)
        total += iov[i].iov_len;

    mr->pld_pos += static_cast<off_t>(total);
    // By design: strictly above, unlike the shift to sync. A head at buflen stays; the mirror makes it an address.
    if (mr->pld_pos > static_cast<off_t>(mr->buflen)) mr->pld_pos -= static_cast<off_t>(mr->buflen);
    tv_assert_logged(total <= mr->pld_size);
    mr->pld_size -= total;
    if (mr->synced_len != 0) forget_synced(mr, total);
    if (g_verbosity & MMR_OPUT_VERBOSE) tv_log(ll::debug, "%s: %zu/%zu datagrams/bytes out\n", __func__, count, total);
    return static_cast<ssize_t>(mr->pld_size);
}
