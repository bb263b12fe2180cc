// Capping, packet numbers and the snapshot: what makes the ring a moving tail of the stream.
//
// Capping is the ring's only consumer. The capture loop asks for it before each read, so that there is always room
// for that read; nothing waits for anything.
//
// A pass looks at up to 256 records, of which a read of ordinary size makes few new ones. So capping remembers how
// far from the head it has seen the units in sync, and tests those that have come into the reach since, and once more
// those that leave. Whatever is amiss goes the long way through mmr_oget, which says what it is.
#include "mmr.h"

#include "dstream.h"
#include "log.h"
#include "mmr_int.h"
#include "mpegts.h"
#include "rtp.h"
#include "syswrap.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <span>

TV_LOG_MODULE(0)

namespace
{

using mmr_int::deep_check;
using mmr_int::g_verbosity;

constexpr size_t CAP_RECORDS = 256; // records of a pass

// How many records have to go for the payload to fall strictly below the limit, and what is left then. Each counts
// as long as the first: the records of a ring are alike but for the tail of a packed run. What the array does not
// hold is left to the next pass.
size_t records_to_drop(size_t max_payload_sz, std::span<const struct iovec> recs, size_t* payload_left)
{
    const size_t rec_len = recs.front().iov_len;
    size_t rec_out = 0;
    while (rec_out < recs.size() && *payload_left >= max_payload_sz) {
        if (*payload_left < rec_len) break;
        *payload_left -= rec_len;
        ++rec_out;
    }
    return rec_out;
}

// Are the units from one offset to another behind the head all in sync? Says nothing if not.
bool units_synced(const struct mm_ring* mr, size_t from, size_t to)
{
    const uint8_t* head = mr->buf + mr->pld_pos;
    const size_t ts_len = mr->ts_len;
    size_t pos = from;
    if (mr->stype.num == STY_RTP.num) {
        while (pos < to && is_rtp_data(head + pos))
            pos += ts_len;
    } else {
        while (pos < to && head[pos] == MPEG_TS_SYNC)
            pos += ts_len;
    }
    return pos >= to;
}

// Asks for the units that the next pass will test. They were written a whole lap of the ring ago and have left the
// caches since: waiting for them was the dearest part of a pass.
void prefetch_units(const struct mm_ring* mr, size_t from, size_t to)
{
    const uint8_t* head = mr->buf + mr->pld_pos;
    for (size_t pos = from; pos < std::min(to, mr->pld_size); pos += mr->ts_len)
        __builtin_prefetch(head + pos);
}

// The pass without its array of records: drops as many units as a pass over records of one unit each does, and tests
// the same ones. Returns their number; 0, with nothing changed, where the pass has to be made in full.
size_t drop_units(struct mm_ring* mr, size_t max_payload_sz)
{
    const bool one_unit_a_record = mr->stype.num == STY_RTP.num || mr->opt.no_mtu_pack;
    if (!one_unit_a_record || g_verbosity != 0 || mr->pld_pos < 0 || mr->ts_len < rtpf::lookahead) return 0;

    const size_t ts_len = mr->ts_len;
    const size_t held = mr->pld_size / ts_len;
    const size_t reach = std::min(held, CAP_RECORDS);
    // Strictly below the limit: a payload that has reached it exactly loses one more.
    const size_t wanted = (mr->pld_size - max_payload_sz) / ts_len + 1;
    const size_t units_out = std::min(wanted, reach);
    const size_t leaving = units_out * ts_len;
    const size_t tested_from = std::max(mr->synced_len, leaving);
    if (units_out == 0 || !units_synced(mr, 0, leaving) || !units_synced(mr, tested_from, reach * ts_len)) return 0;

    mr->synced_len = std::max(mr->synced_len, reach * ts_len);
    prefetch_units(mr, reach * ts_len, reach * ts_len + leaving + ts_len);
    const struct iovec out = {mr->buf + mr->pld_pos, leaving};
    (void)mmr_oput(mr, &out, 1); // can't fail: the units lie in the payload
    mmr_rm_pkts(mr, units_out);
    return units_out;
}

// Shows the records to the caller's function. A failure ends the showing and changes nothing else.
void post_process(const char* func, std::span<const struct iovec> recs, cap_ppfunc pprocess)
{
    size_t nleft = recs.size();
    for (size_t i = 0; i < recs.size(); ++i) {
        const int rc = pprocess(&recs[i]);
        if (rc != 0) {
            tv_log(ll::error, "%s: error(%d) post-processing record[%zu]\n", func, rc, i);
            break;
        }
        --nleft;
    }
    if (nleft != 0) tv_log(ll::warning, "%s: %zu records were not post-processed\n", func, nleft);
}

} // namespace

ssize_t mmr_cap_pp(mmr_t ring, size_t max_payload_sz, cap_ppfunc pprocess)
{
    struct mm_ring* mr = ring;
    const deep_check check(mr);
    while (max_payload_sz < mr->pld_size) {
        if (!pprocess && drop_units(mr, max_payload_sz) != 0) continue;
        std::array<struct iovec, CAP_RECORDS> iov = {};
        size_t count = iov.size();
        const int rc = mmr_oget(mr, iov.data(), &count);
        if (rc != 0) {
            tv_log(ll::error, "%s: mmr_oget() ERROR(%d)\n", __func__, rc);
            return -1;
        }
        size_t payload_left = mr->pld_size;
        const size_t rec_out = records_to_drop(max_payload_sz, {iov.data(), count}, &payload_left);
        if (g_verbosity & MMR_CAP_VERBOSE)
            tv_log(ll::debug, "%s: %zu records must be capped to %zu, cap=%zu\n", __func__, rec_out, payload_left,
                   max_payload_sz);
        if (pprocess) post_process(__func__, {iov.data(), rec_out}, pprocess);

        const ssize_t left = mmr_oput(mr, iov.data(), rec_out);
        if (left < 0) {
            tv_log(ll::error, "%s: mmr_oput(.., %zu) returned %zu\n", __func__, rec_out, left);
            return -1;
        }
        mmr_rm_pkts(mr, rec_out);
        if (g_verbosity & MMR_CAP_VERBOSE) tv_log(ll::debug, "%s: capped to %zu bytes\n", __func__, mr->pld_size);
    }
    return static_cast<ssize_t>(mr->pld_size);
}

ssize_t mmr_cap(mmr_t ring, size_t max_payload_sz)
{
    return mmr_cap_pp(ring, max_payload_sz, nullptr);
}

ssize_t mmr_snapshot(mmr_t ring, int fd)
{
    const struct mm_ring* mr = ring;
    const deep_check check(mr);
    if (mr->pld_pos < 0 || mr->pld_size == 0) {
        tv_log(ll::warning, "%s: no payload, nothing to write\n", __func__);
        return 0;
    }
    return W_write_f("mmr_snapshot", fd, mr->buf + mr->pld_pos, mr->pld_size, 0);
}

int mmr_get_info(mmr_t ring, struct mm_info* info)
{
    const struct mm_ring* mr = ring;
    const deep_check check(mr);
    *info = {};
    info->pld_size = mr->pld_size;
    info->stype = mr->stype;
    info->ts_len = mr->ts_len;
    info->first_pktnum = static_cast<uint64_t>(mr->first_pktnum);
    info->last_pktnum = static_cast<uint64_t>(mr->last_pktnum);
    return 0;
}

// ---- packet numbers -------------------------------------------------------------------------------------------
//
// The numbers' own assertions stand before the deep checks: they are what a caller who counts wrong gets to see.

void mmr_add_pkts(mmr_t ring, size_t npkts)
{
    struct mm_ring* mr = ring;
    if (!mr->using_pktnums) mr->using_pktnums = true;
    mr->last_pktnum += static_cast<int64_t>(npkts);
    assert(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum);
    const deep_check check(mr);
}

void mmr_rm_pkts(mmr_t ring, size_t npkts)
{
    struct mm_ring* mr = ring;
    if (!mr->using_pktnums) return;
    mr->first_pktnum += static_cast<int64_t>(npkts);
    assert(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum);
    const deep_check check(mr);
}

uint64_t mmr_adjust_pktnum(mmr_t ring, uint64_t new_first_idx)
{
    struct mm_ring* mr = ring;
    assert(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum);
    const deep_check check(mr);
    const int64_t delta = mr->last_pktnum - mr->first_pktnum;
    const int64_t old_fpkt = mr->first_pktnum;
    const int64_t old_lpkt = mr->last_pktnum;
    mr->first_pktnum = static_cast<int64_t>(new_first_idx);
    mr->last_pktnum = static_cast<int64_t>(new_first_idx + static_cast<uint64_t>(delta));
    assert(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum);
    tv_log(ll::info, "%s: %lu/%lu -> %lu/%lu\n", __func__, old_fpkt, old_lpkt, mr->first_pktnum, mr->last_pktnum);
    return static_cast<uint64_t>(mr->last_pktnum);
}
