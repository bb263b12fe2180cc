// Reading an index: records come in chunks into memory, and the iterator hands them out in runs.
//
// Everything here comes from a file that may hold anything. What is trusted: no more memory is touched than was
// allocated for max_icount records of the size that the flags name, and the run's end is the end of the stream file.
// Clocks are taken at face value; their arithmetic is modulo 2 to the 64th.
#include "tsix_int.h"

#include "log.h"
#include "mpegts.h"
#include "syswrap.h"

#include <fcntl.h>

#include <algorithm>
#include <cassert>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

using namespace tsix_int;

// How a run ended.
constexpr int RUN_LIMIT = 0; // a limit was reached
constexpr int RUN_EOD = -3;  // no records are left

constexpr uint64_t USC_IN_MS = 1000;
constexpr uint64_t DELAY_TOLERANCE_USC = 501; // half a ms on top of what was asked for

// A run of records being gathered.
struct rec_run {
    size_t first = 0;   // number of the first record
    size_t count = 0;   // records
    size_t bytes = 0;   // sum of their sizes
    uint64_t ticks = 0; // sum of their delays
};

// Ticks of 90 kHz in microseconds, the largest number where the result is larger.
constexpr uint64_t ticks_to_usc(uint64_t ticks)
{
    // A tick is 100/9 of a microsecond. In two parts, as the plain product would overflow first.
    const uint64_t whole = ticks / 9;
    if (whole > UINT64_MAX / 100 - 1) return UINT64_MAX;
    return whole * 100 + ticks % 9 * 100 / 9;
}
static_assert(ticks_to_usc(0) == 0 && ticks_to_usc(1) == 11 && ticks_to_usc(9) == 100);
static_assert(ticks_to_usc(90000) == 1000000 && ticks_to_usc(P2_33 - 1) == (P2_33 - 1) * 100 / 9);
static_assert(ticks_to_usc(UINT64_MAX) == UINT64_MAX);

// The longest delay of a run, the largest number where the result is larger.
constexpr uint64_t delay_limit_usc(size_t max_delay_ms)
{
    if (max_delay_ms > (UINT64_MAX - DELAY_TOLERANCE_USC) / USC_IN_MS) return UINT64_MAX;
    return max_delay_ms * USC_IN_MS + DELAY_TOLERANCE_USC;
}
static_assert(delay_limit_usc(0) == 501 && delay_limit_usc(40) == 40501 && delay_limit_usc(SIZE_MAX) == UINT64_MAX);

// Reads the header and tests what makes the file an index at all. 0, or -1.
int read_header(const char* func, struct tsix_ctx* t)
{
    uint8_t raw[sizeof(t->header)];
    const ssize_t nrd = read_full(t->ixfd, raw);
    if (nrd != static_cast<ssize_t>(sizeof(raw))) {
        tv_log(ll::error, "%s: (%p) expected/read: %zu/%zd\n", func, static_cast<void*>(t), sizeof(raw), nrd);
        return -1;
    }
    memcpy(&t->header, raw, sizeof(raw));
    if (memcmp(t->header.magic, TSX_MAGIC, sizeof(t->header.magic)) != 0) {
        tv_log(ll::error, "%s: (%p) invalid IX header signature\n", func, static_cast<void*>(t));
        return -1;
    }
    if (t->header.version != TSX_VERSION) {
        tv_log(ll::error, "%s: (%p) version mismatch, expected/got %u/%u\n", func, static_cast<void*>(t),
               unsigned{TSX_VERSION}, unsigned{t->header.version});
        return -1;
    }
    tv_log(ll::debug, "%s: (%p) runits=%u flags=0x%04x rcount=%lu rsize=%u\n", func, static_cast<void*>(t),
           unsigned{t->header.runits}, unsigned{t->header.flags}, uint64_t{t->header.irec_count},
           unsigned{t->header.irec_size});
    return 0;
}

// Fills the array with the next max_icount records, the first of which has the number `first`. 0, or -1.
int read_records(const char* func, struct tsix_ctx* t, size_t first)
{
    const std::span<uint8_t> dest = irec_span(t, t->max_icount);
    const ssize_t nrd = read_full(t->ixfd, dest);
    if (nrd != static_cast<ssize_t>(dest.size())) {
        tv_log(ll::error, "%s: (%p) expected/read: %zu/%zd\n", func, static_cast<void*>(t), dest.size(), nrd);
        return -1;
    }
    tv_log(ll::info, "%s: (%p) loaded IX (%zu bytes) rec=%zu..%zu\n", func, static_cast<void*>(t), dest.size(), first,
           first + t->max_icount - 1);
    return 0;
}

// The next chunk of records. 0, -1, or RUN_EOD if there is none.
int next_chunk(const char* func, struct tsix_ctx* t)
{
    const size_t left = t->header.irec_count - t->iter.idx;
    if (left == 0) {
        tv_log(ll::debug, "%s: all %zu/%zu records/bytes processed, EOD\n", func, t->iter.idx, t->iter.bytes_out);
        return RUN_EOD;
    }
    const std::span<uint8_t> records = irec_span(t, t->max_icount);
    memset(records.data(), 0, records.size());
    t->max_icount = std::min(t->max_icount, left);
    if (read_records(func, t, t->iter.idx) != 0) return -1;
    t->iter.start_idx = t->iter.idx;
    return 0;
}

// Takes records out of memory until they are all taken or the next one would pass a limit; true in that case.
bool take_records(const char* func, struct tsix_ctx* t, struct rec_run* run, size_t max_len, uint64_t max_delay_usc)
{
    struct tsix_iter& it = t->iter;
    const size_t end = it.start_idx + t->max_icount;
    for (; it.idx < end; ++it.idx) {
        struct tsd_srec sr;
        get_srec(t, it.idx, &sr);
        const uint64_t curr_delay = sr.sclk - it.old_sclk;
        if (run->bytes + sr.rsize > max_len || ticks_to_usc(run->ticks + curr_delay) > max_delay_usc) {
            if (run->bytes > 0) return true;
            tv_log(ll::warning, "%s: (%p) extending delay to gain size\n", func, static_cast<void*>(t));
        }
        run->bytes += sr.rsize;
        run->ticks += curr_delay;
        ++run->count;
        it.old_sclk = sr.sclk;
    }
    return false;
}

// Gathers a run. How it ended: RUN_LIMIT, RUN_EOD, or -1.
int gather_run(const char* func, struct tsix_ctx* t, struct rec_run* run, size_t max_len, uint64_t max_delay_usc)
{
    while (t->iter.idx < t->header.irec_count) {
        if (t->iter.idx >= t->iter.start_idx + t->max_icount) {
            const int rc = next_chunk(func, t);
            if (rc != 0) return rc;
        }
        if (take_records(func, t, run, max_len, max_delay_usc)) return RUN_LIMIT;
        if (run->count == 0) {
            tv_log(ll::warning, "%s: (%p) no records\n", func, static_cast<void*>(t));
            break;
        }
    }
    return RUN_EOD;
}

} // namespace

int tsix_int::open_ix(struct tsix_ctx* t, const char* ixpath)
{
    t->ixfd = W_open(__func__, ixpath, O_RDONLY, 0);
    if (t->ixfd == -1) return -1;
    t->ixpath = dup_path(__func__, ixpath);
    if (!t->ixpath || read_header(__func__, t) != 0) return -1;

    if (t->header.runits != 0) t->rsize = t->header.runits * TS_MIN_PKTSIZE;
    t->max_icount = t->max_cached / (t->rsize != 0 ? t->rsize : TS_MIN_PKTSIZE);
    t->max_icount = std::min<uint64_t>(t->max_icount, t->header.irec_count);
    // By design: these end the process on an index without records, on one whose records are larger than the stream,
    // and on an unknown record size.
    assert(t->max_icount > 0);
    t->icount = 0;
    assert(NULL == t->ixbuf.ptr);
    assert(sizeof(t->ixbuf.sr[0]) == t->header.irec_size || sizeof(t->ixbuf.ir[0]) == t->header.irec_size);
    if (t->header.irec_size != irec_bytes(t)) {
        // Clocks read at the wrong stride would be noise.
        tv_log(ll::error, "%s: (%p) record size mismatch, expected/got %zu/%u\n", __func__, static_cast<void*>(t),
               irec_bytes(t), unsigned{t->header.irec_size});
        return -1;
    }

    t->ixbuf.ptr = W_calloc(__func__, t->max_icount, irec_bytes(t));
    if (!t->ixbuf.ptr) return -1;
    tv_log(ll::debug, "%s: (%p) allocated %zu records\n", __func__, static_cast<void*>(t), t->max_icount);
    if (read_records(__func__, t, 0) != 0) return -1;
    tv_log(ll::info, "%s: (%p) opened [%s], %lu total records\n", __func__, static_cast<void*>(t), ixpath,
           uint64_t{t->header.irec_count});
    return 0;
}

void tsix_int::get_srec(const struct tsix_ctx* t, size_t glb_idx, struct tsd_srec* sr)
{
    const auto idx = static_cast<ssize_t>(glb_idx - t->iter.start_idx);
    assert(idx >= 0 && idx < (ssize_t)t->max_icount);
    if ((t->flags & TSX_VARLEN) != 0) {
        *sr = t->ixbuf.sr[idx];
    } else {
        *sr = {t->ixbuf.ir[idx].sclk, static_cast<uint16_t>(t->rsize)};
    }
    assert(sr->sclk && sr->rsize);
}

ssize_t tsx_next(tsix_t tsx, size_t max_len, size_t max_delay, size_t* delay)
{
    struct tsix_ctx* t = tsx;
    assert(t->iter.is_ready && t->max_icount > 0);
    const deep_check check(t);

    struct rec_run run;
    run.first = t->iter.idx;
    const int rc = gather_run(__func__, t, &run, max_len, delay_limit_usc(max_delay));
    if (run.bytes > 0) {
        tv_log(ll::debug, "%s: (%p) %zu records ix[%zu..%zu]: sum/rsize=%zu len=%zu clk=%lu/%lu\n", __func__,
               static_cast<void*>(t), run.count, run.first, run.first + run.count - 1, run.bytes, max_len, run.ticks,
               t->iter.old_sclk);
    }
    if (rc == RUN_EOD) {
        tv_log(ll::info, "%s: (%p) EOD at rec=%zu, sclk=%lu\n", __func__, static_cast<void*>(t), t->iter.idx,
               t->iter.old_sclk);
    } else if (rc != RUN_LIMIT) {
        tv_log(ll::error, "%s: (%p) failed, rc=%d\n", __func__, static_cast<void*>(t), rc);
        return -1;
    }
    *delay = ticks_to_usc(run.ticks);
    if (run.bytes > t->ts_size - t->iter.bytes_out) {
        const size_t left = t->ts_size - t->iter.bytes_out;
        tv_log(ll::debug, "%s: (%p) EOD data chunk resize: %zu -> %zu\n", __func__, static_cast<void*>(t), run.bytes,
               left);
        run.bytes = left;
    }
    t->iter.bytes_out += run.bytes;
    tv_log(ll::debug, "%s: (%p) records: now/total: %zu/%zu, bytes: %zu\n", __func__, static_cast<void*>(t), run.count,
           t->iter.idx, t->iter.bytes_out);
    return static_cast<ssize_t>(run.bytes);
}
