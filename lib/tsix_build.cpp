// Building an index. The stream is read load by load; each PCR closes an interval, whose ticks are spread evenly over
// as many records as have begun in it. Records don't end where intervals do, so the packets that the last record of an
// interval reaches ahead are owed by the next: nix_pkt_count is then below 0.
//
// Two stretches have no interval of their own: the packets up to the first PCR take the rate of the first interval
// (is_pre_pcr, until the second PCR has come), those behind the last PCR take the last one's (add_tail).
#include "tsix_int.h"

#include "log.h"
#include "mpegts.h"
#include "syswrap.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

using namespace tsix_int;

constexpr mode_t INDEX_MODE = 0644;
constexpr int NO_PCR = -3;
// What may wait to be written. ixbuf has room for more where records are small and loads large; its pages beyond this
// are never touched, so that a build's memory is the load and little else.
constexpr size_t MAX_WAITING_BYTES = 8 * ONE_Mb;

// Packets in a record.
ssize_t pkts_per_record(const struct tsix_ctx* t)
{
    return static_cast<ssize_t>(t->rsize / TS_MIN_PKTSIZE);
}

// Records that have begun in the packets seen, the last one perhaps reaching ahead. Signed on purpose: the count of
// packets may be below 0.
ssize_t records_due(const struct tsix_ctx* t)
{
    const ssize_t runits = pkts_per_record(t);
    return (t->nix_pkt_count + runits - 1) / runits;
}

// Says that no rate can be told from the stream.
int refuse_rate(const char* func, const struct tsix_ctx* t, const char* why)
{
    tv_log(ll::error, "%s: (%p) the stream gives no rate, %s: %zu PCRs, last step %lu over %zu records\n", func,
           static_cast<const void*>(t), why, t->pcr_count, t->last_pcr_delta, t->last_nix_dgrams);
    return IX_NO_RATE;
}

int write_header(const char* func, const struct tsix_ctx* t)
{
    uint8_t raw[sizeof(t->header)];
    memcpy(raw, &t->header, sizeof(raw));
    const ssize_t nwr = write_full(t->ixfd, raw);
    if (nwr == static_cast<ssize_t>(sizeof(raw))) return 0;
    tv_log(ll::error, "%s: (%p) header write: %zd/%zu bytes\n", func, static_cast<const void*>(t), nwr, sizeof(raw));
    return -1;
}

// What create_ix does once the file is there.
int fill_new_index(const char* func, struct tsix_ctx* t, const char* ixpath)
{
    const size_t load_records = t->pld_len / t->rsize;
    t->max_icount = load_records + load_records / 2;
    t->icount = 0;
    t->ixbuf.ptr = W_calloc(func, t->max_icount, irec_bytes(t));
    if (!t->ixbuf.ptr) return -1;
    tv_log(ll::debug, "%s: (%p) allocated %zu records\n", func, static_cast<void*>(t), t->max_icount);

    memcpy(t->header.magic, TSX_MAGIC, sizeof(t->header.magic));
    t->header.magic[0] = TSX_MAGIC_OPEN;
    t->header.version = TSX_VERSION;
    t->header.runits = static_cast<uint8_t>(t->rsize / TS_MIN_PKTSIZE); // By design: the low byte alone.
    t->header.irec_size = static_cast<uint16_t>(irec_bytes(t));
    memset(t->header.unused, TSX_UNUSED_BYTE, sizeof(t->header.unused));
    if (write_header(func, t) != 0) return -1;

    t->ixpath = dup_path(func, ixpath);
    if (!t->ixpath) return -1;
    tv_log(ll::info, "%s: (%p) created [%s], rsize=%zu\n", func, static_cast<void*>(t), ixpath, t->rsize);
    return 0;
}

// Indexes all packets of the file, load by load. `func` names the operation in the lines.
int index_file(const char* func, struct tsix_ctx* t, size_t total_pkts)
{
    size_t npkt = 0;
    while (npkt < total_pkts) {
        if (npkt * TS_MIN_PKTSIZE >= t->buflen + static_cast<size_t>(t->ts_offset) && load_buf(t) != 0) return -1;
        const size_t cached = t->pld_len / TS_MIN_PKTSIZE;
        for (size_t i = 0; i < cached; ++i, ++npkt) {
            const int rc = index_pkt(t, i, npkt);
            if (rc != 0) return rc;
        }
        if (flush_ix(t) != 0) return -1;
        tv_log(ll::info, "%s: (%p) processed:%zu total/cached=%zu/%zu packets, max-icount:%zu nx=%zd offset=%ld\n",
               func, static_cast<void*>(t), npkt, total_pkts, cached, t->max_icount, t->nix_pkt_count,
               static_cast<long>(t->ts_offset));
    }
    return 0;
}

// The packets behind the last PCR, and the end of the file.
int finish_file(const char* func, struct tsix_ctx* t)
{
    tv_log(ll::info, "%s: (%p) pre-tail: %ld bytes, %zu index records\n", func, static_cast<void*>(t),
           static_cast<long>(t->next_ix_offset), t->start_irec + t->icount);
    const int rc = add_tail(t);
    if (rc != 0) return rc;
    tv_log(ll::info, "%s: (%p) post-tail: %ld bytes, %zu index records\n", func, static_cast<void*>(t),
           static_cast<long>(t->next_ix_offset), t->start_irec + t->icount);
    return close_ix(t);
}

// A PCR of a packet: what it says of the interval that it ends. `pos` is the packet's place in the file.
void take_pcr_step(const char* func, struct tsix_ctx* t, uint64_t pcr, size_t pos, size_t pkt_num)
{
    const bool is_back = pcr < t->last_pcr;
    const uint64_t wrapped = P2_33 + pcr - t->last_pcr;
    t->last_pcr_delta = wrapped < MAX_PCR_GAP ? wrapped : pcr - t->last_pcr;
    // By design: the step counts all the same, and one back that is no wrap counts as it is in 64 bits.
    if (is_back || pcr - t->last_pcr > MAX_PCR_GAP) {
        tv_log(ll::warning, "%s: (%p) PCR gap = %lu is too wide at pos=%zu, pkt[%zu]/%zu\n", func,
               static_cast<void*>(t), t->last_pcr_delta, pos, pkt_num, t->ts_size / TS_MIN_PKTSIZE);
    }
}

} // namespace

// ---- the build ------------------------------------------------------------------------------------------------

int tsix_int::build_ix(struct tsix_ctx* t, const char* ixpath)
{
    assert(t->rsize);
    const deep_check check(t);
    if (create_ix(t, ixpath) != 0) return -1;

    t->last_pcr = P2_33;
    t->last_sclk = 0;
    t->nix_pkt_count = 0;
    t->last_nix_dgrams = 0;
    t->is_pre_pcr = true;
    const size_t total_pkts = t->ts_size / TS_MIN_PKTSIZE;

    int rc = 0;
    if (t->pcr_pid == 0) rc = scan4pcr(t);
    if (rc != 0) {
        tv_log(ll::error, "%s: (%p) cannot locate PCR pid\n", __func__, static_cast<void*>(t));
    } else {
        assert(t->pcr_pid);
        rc = index_file(__func__, t, total_pkts);
        if (rc == 0) rc = finish_file(__func__, t);
    }
    // Any other failure leaves the unfinished file, and with it the sign that a build went wrong; this one would be
    // the same every time.
    if (rc == IX_NO_RATE) (void)W_unlink(__func__, ixpath);
    return rc;
}

int tsix_int::create_ix(struct tsix_ctx* t, const char* ixpath)
{
    t->ixfd = W_open(__func__, ixpath, O_WRONLY | O_CREAT | O_EXCL, INDEX_MODE);
    if (t->ixfd == -1) return -1;
    const int rc = fill_new_index(__func__, t, ixpath);
    if (rc != 0) (void)W_unlink(__func__, ixpath); // ours: it was created a moment ago
    return rc;
}

int tsix_int::scan4pcr(struct tsix_ctx* t)
{
    uint16_t pid = 0;
    const ssize_t at = get_pcr_pid(t, t->buf, t->pld_len / TS_MIN_PKTSIZE, &pid);
    if (at == NO_PCR) return IX_NO_RATE; // as far as the first load shows
    if (at < 1) return -1;               // By design: a PCR in the very first packet counts as not found.
    assert(pid);
    t->pcr_pid = pid;
    tv_log(ll::info, "%s: (%p) PCR_pid=%u\n", __func__, static_cast<void*>(t), unsigned{pid});
    return 0;
}

ssize_t tsix_int::get_pcr_pid(struct tsix_ctx* t, const uint8_t* buf, size_t npkts, uint16_t* pid)
{
    for (size_t i = 0; i < npkts; ++i) {
        const uint8_t* pkt = buf + i * TS_MIN_PKTSIZE;
        if (pkt[0] != MPEG_TS_SYNC) {
            tv_log(ll::error, "%s: (%p) pkt[%zu] lost TS sync\n", __func__, static_cast<void*>(t), i);
            return -1;
        }
        if (!ts_has_pcr(pkt)) continue;
        *pid = ts_pid(pkt);
        tv_log(ll::info, "%s: (%p) found PCR at pkt[%zu], pid=%u\n", __func__, static_cast<void*>(t), i,
               unsigned{*pid});
        return static_cast<ssize_t>(i);
    }
    return NO_PCR;
}

// ---- packets --------------------------------------------------------------------------------------------------

int tsix_int::index_pkt(struct tsix_ctx* t, size_t idx, size_t pkt_num)
{
    const uint8_t* pkt = t->buf + idx * TS_MIN_PKTSIZE;
    const size_t pos = static_cast<size_t>(t->ts_offset) + idx * TS_MIN_PKTSIZE;
    const size_t total = t->ts_size / TS_MIN_PKTSIZE;
    if (pkt[0] != MPEG_TS_SYNC) {
        tv_log(ll::error, "%s: (%p) lost TS sync at pos=%zu, pkt[%zu]/%zu\n", __func__, static_cast<void*>(t), pos,
               pkt_num, total);
        return IX_LOST_SYNC;
    }
    ++t->nix_pkt_count;
    if (!ts_has_pcr(pkt)) return 0; // By design: a PCR of any PID ticks the clock.

    ++t->pcr_count;
    const uint64_t pcr = ts_pcr_base(pkt);
    const bool is_first = t->last_pcr == P2_33;
    if (is_first) {
        // Nothing can be timed yet: these records are owed until the first interval is known.
        t->last_nix_dgrams = static_cast<size_t>(records_due(t));
        t->nix_pkt_count -= static_cast<ssize_t>(t->last_nix_dgrams) * pkts_per_record(t);
    } else {
        take_pcr_step(__func__, t, pcr, pos, pkt_num);
    }
    tv_log(ll::debug, "%s: (%p) pkt[%zu]/%zu has PCR[%zu]: %lu .. %lu d=%lu, offset=%ld\n", __func__,
           static_cast<void*>(t), pkt_num, total, t->pcr_count, t->last_pcr, pcr, t->last_pcr_delta,
           static_cast<long>(t->ts_offset));
    t->last_pcr = pcr;
    return is_first ? 0 : add_ix(t);
}

int tsix_int::add_ix(struct tsix_ctx* t)
{
    const ssize_t nix_dgrams = records_due(t);
    assert(nix_dgrams >= 0);
    const auto count = static_cast<size_t>(nix_dgrams);
    if (t->is_pre_pcr) {
        if (count == 0) return refuse_rate(__func__, t, "no record between the first two PCRs");
        const int rc = set_ix_clock(t, t->last_nix_dgrams, t->last_nix_dgrams * t->last_pcr_delta / count);
        if (rc != 0) return rc;
        t->is_pre_pcr = false;
    }
    const int rc = set_ix_clock(t, count, t->last_pcr_delta);
    if (rc != 0) return rc;
    t->nix_pkt_count -= nix_dgrams * pkts_per_record(t);
    t->last_nix_dgrams = count;
    return 0;
}

int tsix_int::set_ix_clock(struct tsix_ctx* t, size_t dgram_count, uint64_t delta)
{
    for (size_t i = 0; i < dgram_count; ++i) {
        const uint64_t sclk = t->last_sclk + (i + 1) * delta / dgram_count;
        // A clock of 0 is what no reader takes: the first PCRs are too close for their records.
        if (sclk == 0) return refuse_rate(__func__, t, "no tick for its first record");
        update_ix(t, t->rsize, sclk);
        ++t->icount;
        if (t->icount < t->max_icount && t->icount * irec_bytes(t) < MAX_WAITING_BYTES) continue;
        if (flush_ix(t) != 0) return -1;
    }
    t->last_sclk += delta;
    return 0;
}

void tsix_int::update_ix(struct tsix_ctx* t, size_t rsize, uint64_t sclk)
{
    assert(!t->is_eod);
    if ((t->flags & TSX_VARLEN) != 0) {
        t->ixbuf.sr[t->icount] = {sclk, static_cast<uint16_t>(rsize)};
    } else {
        t->ixbuf.ir[t->icount] = {sclk};
    }
    t->next_ix_offset += rsize;

    const uint64_t eod_offset = static_cast<uint64_t>(t->ts_offset) + t->pld_len;
    if (t->next_ix_offset < eod_offset) return;
    if (t->next_ix_offset > eod_offset) {
        tv_log(ll::debug, "%s: (%p) EOD index entry is %zu less bytes\n", __func__, static_cast<void*>(t),
               static_cast<size_t>(t->next_ix_offset - eod_offset));
    }
    t->is_eod = true;
    tv_log(ll::debug, "%s: (%p) EOD\n", __func__, static_cast<void*>(t));
}

int tsix_int::add_tail(struct tsix_ctx* t)
{
    if (t->is_pre_pcr) return refuse_rate(__func__, t, "fewer than two PCRs");
    if (t->last_nix_dgrams == 0) return refuse_rate(__func__, t, "no record between the last two PCRs");

    const auto nix_dgrams = static_cast<size_t>(records_due(t));
    const uint64_t approx_delta = t->last_pcr_delta * nix_dgrams / t->last_nix_dgrams;
    tv_log(ll::debug, "%s: (%p) setting TAIL for %zu/%zu un-indexed packets/dgrams\n", __func__, static_cast<void*>(t),
           static_cast<size_t>(t->nix_pkt_count), nix_dgrams);
    return set_ix_clock(t, nix_dgrams, approx_delta);
}

// ---- the file -------------------------------------------------------------------------------------------------

int tsix_int::flush_ix(struct tsix_ctx* t)
{
    if (t->icount == 0) {
        tv_log(ll::warning, "%s: (%p) no items\n", __func__, static_cast<void*>(t));
        return 0;
    }
    const std::span<uint8_t> records = irec_span(t, t->icount);
    if (write_full(t->ixfd, records) != static_cast<ssize_t>(records.size())) return -1;
    t->header.irec_count += t->icount;
    memset(records.data(), 0, records.size()); // the rest is clear already, and its pages untouched
    t->start_irec += t->icount;
    tv_log(ll::debug, "%s: (%p) %zu records (%zu bytes) added, %zu records total\n", __func__, static_cast<void*>(t),
           t->icount, records.size(), t->start_irec);
    t->icount = 0;
    return 0;
}

int tsix_int::close_ix(struct tsix_ctx* t)
{
    if (t->icount > 0 && flush_ix(t) != 0) return -1;
    if (W_lseek(__func__, t->ixfd, 0, SEEK_SET) == -1) return -1;
    t->header.magic[0] = TSX_MAGIC[0];
    if (write_header(__func__, t) != 0) return -1;
    tv_log(ll::info, "%s: (%p) %lu records in index file\n", __func__, static_cast<void*>(t),
           uint64_t{t->header.irec_count});
    const int rc = W_close(__func__, t->ixfd);
    t->ixfd = -1; // gone in any case
    return rc == 0 ? 0 : -1;
}
