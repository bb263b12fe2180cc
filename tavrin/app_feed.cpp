// The feed: from the bytes just read to the analyzer.
//
// The ring's reader cuts the bytes into segments without consuming anything, and each segment is walked packet by
// packet. The bytes are analyzed where the read left them. Only an incomplete packet at the end is copied, into
// `abuf`; the next read's bytes then go behind it, and that one time the work is done there.

#include "dstream.h"
#include "log.h"
#include "mmr.h"
#include "mpegts.h"
#include "rtp.h"
#include "syswrap.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"
#include "util.h"

#include <sys/uio.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <span>

TV_LOG_MODULE(app_int::log_module)

namespace
{

constexpr size_t MAX_SEGS = 512; // segments taken from the ring at once

constexpr int MMR_LOST_SYNC = -9; // mmr_oget_buf: no sync, or sync lost among the units looked at

constexpr time_t NOTICE_PERIOD_SEC = 5; // between two complaints about missing metadata
constexpr time_t GIVE_UP_SEC = 60;      // from the first complaint to the end of the run

// A segment is a stretch of the stream as it is, not a bundle for the network.
constexpr struct mm_opt FEED_OPT = {.no_mtu_pack = true};

constinit struct process_ctx pctx = {};
constinit struct iovec segs[MAX_SEGS] = {};
constinit bool numbered = false;   // the ring numbers packets: analysis has run
constinit size_t passed_bytes = 0; // came in while the analyzer was off, and are not counted yet
constinit time_t first_notice = 0;
constinit time_t last_notice = 0;

// The bytes of one call on their way.
struct batch {
    uint8_t* data;     // first byte that is not done
    ssize_t nleft;     // bytes from there on
    size_t total_pkts; // packets analyzed
};

// ---- one segment ----------------------------------------------------------------------------------------------

// What only some segments need is out of line: a segment of plain TS is one packet, and comes for each of them.

// The analyzer has gone without PAT or PMT for longer than it is allowed to. False: the run has to end.
[[gnu::cold, gnu::noinline]] bool bear_without_metadata()
{
    const time_t now = time(nullptr);
    if (now - last_notice < NOTICE_PERIOD_SEC) return true;
    tv_log(ll::warning, "No packet analysis: lacking metadata\n");
    last_notice = now;
    // By design never reset: metadata that came in between don't start the minute anew.
    if (first_notice == 0) first_notice = now;
    if (now - first_notice < GIVE_UP_SEC) return true;
    tv_log(ll::critical, "Unable to do TS analysis, quitting now\n");
    g_quit = 1;
    return false;
}

// The head and footer of an RTP segment: 0 with their lengths, or -22.
[[gnu::noinline]] int measure_rtp(const uint8_t* seg, size_t seglen, size_t* header_len, size_t* footer_len)
{
    const ssize_t hlen = rtp_header_len(seg, seglen);
    if (hlen != static_cast<ssize_t>(RTP_HDR_SIZE)) {
        tv_log(ll::error, "%s: RTP header size mismatch: exp/is=%d/%zd\n", "seg_process",
               static_cast<int>(RTP_HDR_SIZE), hlen);
        return -EINVAL;
    }
    const ssize_t flen = static_cast<ssize_t>(rtp_footer_len(seg, seglen));
    if (flen < 0 || flen >= static_cast<ssize_t>(seglen) - hlen - static_cast<ssize_t>(TS_MIN_PKTSIZE)) {
        tv_log(ll::error, "%s: bad RTP footer length = %zd\n", "seg_process", flen);
        return -EINVAL;
    }
    *header_len = static_cast<size_t>(hlen);
    *footer_len = static_cast<size_t>(flen);
    return 0;
}

// ---- one call -------------------------------------------------------------------------------------------------

// Asks the ring what the stream is. 0 and ts_len set; 0 and ts_len 0 while nothing has been analyzed; or 11.
int learn_stream()
{
    mmr_get_info(g_ctx.mmr, &pctx.info);
    if (pctx.info.ts_len != 0) {
        mmr_set_opt(g_ctx.mmr, &FEED_OPT);
        return 0;
    }
    if (pctx.pkt_count == 0) return 0;
    tv_log(ll::error, "%s: packet size not set, cannot analyze\n", "analyze_input");
    return EAGAIN;
}

// Where to work: on the bytes themselves, or behind what was carried over.
batch start_batch(uint8_t* buf, size_t buflen)
{
    if (pctx.tail_size == 0) return {.data = buf, .nleft = static_cast<ssize_t>(buflen), .total_pkts = 0};
    assert(buflen + pctx.tail_size <= g_ctx.abuf_len);
    memcpy(g_ctx.abuf + pctx.tail_size, buf, buflen);
    return {.data = g_ctx.abuf, .nleft = static_cast<ssize_t>(buflen + pctx.tail_size), .total_pkts = 0};
}

// The reader has lost sync, or failed otherwise. 0: go on without segments.
int reader_failed(int rc, size_t niter)
{
    if (rc == MMR_LOST_SYNC && g_cfg.lost_sync_alert && g_cfg.alert_log.path[0] != '\0') {
        return tsan_alert_lostsync(g_ctx.tc) != 0 ? rc : 0;
    }
    tv_log(ll::error, "%s: mmr_oget_buf() ERROR(%d), niter=%zu\n", "analyze_input", rc, niter);
    return -1;
}

// Hands the segments to the analyzer; adds their bytes to *total_bytes. 0 or -1.
int process_segs(size_t count, size_t* total_bytes, size_t* total_pkts)
{
    for (size_t i = 0; i < count; ++i) {
        const ssize_t n = seg_process(&pctx.info, static_cast<const uint8_t*>(segs[i].iov_base), segs[i].iov_len);
        if (n < 1) {
            tv_log(ll::error, "%s: ERROR(%zd) processing seg[%zu], len=%zu\n", "analyze_input", n, i, segs[i].iov_len);
            return -1;
        }
        *total_pkts += static_cast<size_t>(n);
        *total_bytes += segs[i].iov_len;
    }
    return 0;
}

// Cuts and analyzes whole units until less than one is left, or sync is lost. 0, or what ends the run.
int process_batch(batch* b)
{
    int rc = 0;
    for (size_t niter = 1; rc == 0 && b->nleft >= static_cast<ssize_t>(pctx.info.ts_len); ++niter) {
        ssize_t offset = 0;
        size_t total_bytes = 0;
        // No more entries than the bytes have units: a datagram's seven cost a line of memory, not eight kilobytes.
        const size_t units = std::min(MAX_SEGS, static_cast<size_t>(b->nleft) / pctx.info.ts_len);
        std::fill_n(segs, units, iovec{});
        size_t count = MAX_SEGS;
        rc = mmr_oget_buf(g_ctx.mmr, b->data, static_cast<size_t>(b->nleft), segs, &count, &offset);
        if (rc != 0) {
            const int stop = reader_failed(rc, niter);
            if (stop != 0) return stop;
            count = 0; // no segments: the bytes are carried over and meet the next read
        }
        if (offset != 0 && niter >= 2) {
            tv_log(ll::warning, "%s: offset=%zd at iter#%zd\n", "analyze_input", offset, static_cast<ssize_t>(niter));
        }
        b->nleft -= offset;
        b->data += offset;
        if (process_segs(count, &total_bytes, &b->total_pkts) != 0) return -1;
        b->nleft -= static_cast<ssize_t>(total_bytes);
        b->data += total_bytes;
    }
    return 0;
}

int make_abuf()
{
    const size_t len = app_int::max_payload(&g_cfg);
    g_ctx.abuf = static_cast<uint8_t*>(W_calloc("analyze_input", len, sizeof(uint8_t)));
    if (g_ctx.abuf == nullptr) return -ENOMEM;
    g_ctx.abuf_len = len;
    tv_log(ll::debug, "%s: allocated abuf[%zu]\n", "analyze_input", len);
    return 0;
}

// Keeps the rest for the next call, at the start of abuf.
int carry_over(const uint8_t* rest, ssize_t nleft)
{
    if (nleft <= 0) {
        pctx.tail_size = 0;
        return 0;
    }
    const size_t len = static_cast<size_t>(nleft);
    if (g_ctx.abuf == nullptr) {
        const int rc = make_abuf();
        if (rc != 0) return rc;
    }
    // A single read may bring more than the ring is meant to keep, and all of it may be out of sync.
    if (len > g_ctx.abuf_len) {
        tv_log(ll::error, "%s: cannot carry over %zu bytes in abuf[%zu]\n", "analyze_input", len, g_ctx.abuf_len);
        return -ENOMEM;
    }
    if (rest != g_ctx.abuf) memmove(g_ctx.abuf, rest, len);
    pctx.tail_size = len;
    return 0;
}

// By design ahead of the count of this call: the index that is tested lags one call behind.
void renumber()
{
    if (g_cfg.pkt_reset_idx == 0 || pctx.pkt_idx < g_cfg.pkt_reset_idx) return;
    const uint64_t old_idx = pctx.pkt_idx;
    pctx.pkt_idx = mmr_adjust_pktnum(g_ctx.mmr, 1);
    tv_log(ll::info, "%s: packet index reset: %lu -> %lu\n", "analyze_input", old_idx, pctx.pkt_idx);
    tsan_set_pidx(g_ctx.tc, pctx.pkt_idx);
}

// Bytes that stand in the ring from the time before the analyzer was on for the first time.
size_t held_before(size_t buflen)
{
    struct mm_info mi = {};
    mmr_get_info(g_ctx.mmr, &mi);
    return mi.pld_size > buflen ? mi.pld_size - buflen : 0;
}

// The analyzer is on again, or at last: what of this read still belongs to a packet whose head has passed by. A search
// for sync could take a byte inside that packet for a mark. No more than a guess where the ring's head is out of sync.
size_t cut_rest(std::span<const uint8_t> read)
{
    const size_t begun = (numbered ? passed_bytes : held_before(read.size())) % pctx.info.ts_len;
    const size_t rest = begun != 0 ? pctx.info.ts_len - begun : 0;
    return rest >= read.size() || read[rest] == TS_SYNC ? rest : 0;
}

// Counts what passed by. One more than whole units, since the two sides of a switch may share one; the ring must never
// count out more than has come in.
void count_passed(size_t buflen)
{
    size_t units = 1;
    if (!numbered) units += std::min(held_before(buflen), passed_bytes) / pctx.info.ts_len;
    mmr_add_pkts(g_ctx.mmr, units);
    passed_bytes = 0;
}

} // namespace

const struct process_ctx* app_int::feed_state()
{
    return &pctx;
}

void app_int::feed_pass_by(size_t nbytes)
{
    // What is carried over waits for bytes that the feed will not see.
    passed_bytes += nbytes + pctx.tail_size;
    pctx.tail_size = 0;
    if (!numbered) return;
    mmr_add_pkts(g_ctx.mmr, passed_bytes / pctx.info.ts_len);
    passed_bytes %= pctx.info.ts_len;
}

// ---- public ---------------------------------------------------------------------------------------------------

int analyze_input(uint8_t* buf, size_t buflen)
{
    app_int::deep_check();
    if (pctx.info.ts_len == 0) {
        const int rc = learn_stream();
        if (rc != 0 || pctx.info.ts_len == 0) return rc;
    }
    if (passed_bytes != 0) {
        const size_t rest = cut_rest({buf, buflen});
        if (rest >= buflen) {
            app_int::feed_pass_by(buflen);
            return 0;
        }
        count_passed(buflen);
        buf += rest;
        buflen -= rest;
    }
    batch b = start_batch(buf, buflen);
    int rc = process_batch(&b);
    if (rc == 0) rc = carry_over(b.data, b.nleft);
    if (rc != 0) return rc;

    renumber();
    mmr_add_pkts(g_ctx.mmr, b.total_pkts);
    numbered = true;
    pctx.pkt_count += b.total_pkts;
    pctx.pkt_idx += b.total_pkts;
    return 0;
}

ssize_t seg_process(const struct mm_info* info, const uint8_t* seg, size_t seglen)
{
    const uint8_t* data = seg;
    size_t data_len = seglen;
    if (info->stype.num == STY_RTP.num) {
        assert(is_rtp_pkt(seg));
        size_t header_len = 0;
        size_t footer_len = 0;
        const int rc = measure_rtp(seg, seglen, &header_len, &footer_len);
        if (rc != 0) return rc;
        data += header_len;
        // By design the header is not taken off: the end of the walk then fits the stride, which is a whole RTP
        // packet, and each of them gives one step, on the TS packet behind its head.
        data_len -= footer_len;
    }
    tsan_next_seg(g_ctx.tc);

    ssize_t npkts = 0;
    for (size_t pos = 0; pos < data_len; pos += info->ts_len) {
        const uint8_t* pkt = data + pos;
        assert(TS_SYNC == pkt[0]);
        const int rc = tsan_process(g_ctx.tc, pkt);
        if (rc == TSAN_NO_METADATA ? !bear_without_metadata() : rc != 0) return -EIO;
        ++npkts;
    }
    return npkts;
}
