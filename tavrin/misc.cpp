// Aggregates, text buffers and time helpers. They stand apart from the analyzer's records so that each can be tried
// by itself; the only thing that they share is the log.
#include "tavrin/misc.h"

#include "log.h"
#include "mpegts.h"
#include "syswrap.h"
#include "timeop.h"

#include <cassert>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

TV_LOG_MODULE(0)

namespace
{

constexpr uint64_t TICKS_PER_MS = 90;
constexpr long MS_PER_SEC = 1000;
constexpr long NS_PER_MS = 1000000;
constexpr long NS_PER_SEC = 1000000000;

// Behind a line there must be room for its line feed and a terminator.
constexpr ssize_t CTXT_LINE_RESERVE = 2;
// A buffer with this much left or less takes no further line: a stump of a line would only mislead.
constexpr ssize_t CTXT_MIN_ROOM = 15;

// A macro, not a function: its use stands in an assertion whose text people know.
#define timespeccmp(a, b, CMP)                                                                                         \
    ((a)->tv_sec == (b)->tv_sec ? ((a)->tv_nsec CMP(b)->tv_nsec) : ((a)->tv_sec CMP(b)->tv_sec))

// Plain division: an empty span gives a NaN, which prints as such.
double average(uint64_t total, uint64_t count)
{
    return static_cast<double>(total) / static_cast<double>(count);
}

} // namespace

// ---- aggregates -----------------------------------------------------------------------------------------------

void inc_aval(struct aggr_val* av, uint64_t val)
{
    if (av->g_count == 0) {
        av->min = av->max = val;
        av->g_min = av->g_max = val;
    } else if (av->count != 0) {
        if (val < av->min) av->min = val;
        if (val > av->max) av->max = val;
        if (av->min < av->g_min) av->g_min = av->min;
        if (av->max > av->g_max) av->g_max = av->max;
    } else {
        // By design: the first value of a later span passes the global extremes by.
        av->min = av->max = val;
    }
    av->count++;
    av->g_count++;
    av->total += val;
    av->g_total += val;
}

void reset_aval(struct aggr_val* av)
{
    av->count = 0;
    av->total = 0;
    av->min = 0;
    av->max = 0;
}

void dump_aval(FILE* fp, const char* msg, const struct aggr_val* av)
{
    fprintf(fp,
            "%s:\t\tlocal-avg  = %.02f (V=%lu/N=%lu) min(V)/max(V)=%lu/%lu, "
            "global-avg = %.02f (V=%lu/N=%lu) min(V)/max(V)=%lu/%lu\n",
            msg, average(av->total, av->count), av->total, av->count, av->min, av->max,
            average(av->g_total, av->g_count), av->g_total, av->g_count, av->g_min, av->g_max);
}

void log_aval_stats(const char* tag, const char* src, int ref_pid, int src_pid, const struct aggr_val* av)
{
    tv_record(&g_access_log, "STAT %s %s %d %d %.02f %lu %lu %lu %lu %.02f %lu %lu %lu %lu\n", tag, src, ref_pid,
              src_pid, average(av->total, av->count), av->count, av->total, av->min, av->max,
              average(av->g_total, av->g_count), av->g_count, av->g_total, av->g_min, av->g_max);
}

// ---- text buffers ---------------------------------------------------------------------------------------------

int open_ctxt(struct ctxt_spec* s, size_t max_size)
{
    *s = {};
    s->buf = static_cast<char*>(W_calloc(__func__, 1, max_size));
    if (!s->buf) return -1;
    s->buflen = static_cast<ssize_t>(max_size);
    return 0;
}

void close_ctxt(struct ctxt_spec* s)
{
    free(s->buf);
    *s = {};
}

void replace_ctxt(struct ctxt_spec* dest, struct ctxt_spec* src)
{
    close_ctxt(dest);
    *dest = *src;
    *src = {};
}

void add_ctxt_line(void* opaque, const char* fmt, ...)
{
    struct ctxt_spec* s = static_cast<struct ctxt_spec*>(opaque);
    const ssize_t nleft = s->buflen - s->textlen - CTXT_LINE_RESERVE;
    if (nleft <= CTXT_MIN_ROOM) {
        tv_log(ll::warning, "%s: PMT buffer may overflow, %zd bytes left\n", __func__, nleft);
        return;
    }

    va_list ap;
    va_start(ap, fmt);
    // The size counts the terminator: `nleft` characters survive.
    ssize_t n = vsnprintf(s->buf + s->textlen, static_cast<size_t>(nleft) + 1, fmt, ap);
    va_end(ap);
    if (n < 0) {
        tv_log(ll::error, "%s: cannot format a line as [%s]\n", __func__, fmt);
        return;
    }
    if (n > nleft) n = nleft;

    s->textlen += n;
    assert(s->textlen < s->buflen);
    s->buf[s->textlen++] = '\n';
}

int cmp_ctxt(const struct ctxt_spec* a, const struct ctxt_spec* b)
{
    if (a->textlen != b->textlen) return 1;
    if (!a->buf || !b->buf) return 0;
    return memcmp(a->buf, b->buf, static_cast<size_t>(a->textlen));
}

void dump_ctxt(FILE* fp, const char* msg, const struct ctxt_spec* s)
{
    if (!s->buf || s->textlen <= 0) return;
    if (msg) fprintf(fp, "%s\n", msg);
    (void)fwrite(s->buf, 1, static_cast<size_t>(s->textlen), fp); // a log that can't be written has no place to say so
    fflush(fp);
}

// ---- times ----------------------------------------------------------------------------------------------------

void ms2timestr(uint64_t ms, char* str, size_t slen)
{
    constexpr size_t S = 1000;
    constexpr size_t M = 60 * S;
    constexpr size_t H = 60 * M;
    const size_t t = ms;
    const int n = snprintf(str, slen, "%02zu:%02zu:%02zu.%03zu", t / H, t % H / M, t % M / S, t % S);
    assert(n < (ssize_t)slen);
    (void)n;
}

uint32_t pcr_delta_ms(uint64_t first, uint64_t last)
{
    return static_cast<uint32_t>(ts_pcr_delta(first, last) / TICKS_PER_MS);
}

void set_now(struct timespec* tms)
{
    set_clk_now(tms, CLOCK_MONOTONIC);
}

long tms2ms(const struct timespec* tms)
{
    if (tms->tv_sec == -1) return -1;
    return tms->tv_sec * MS_PER_SEC + tms->tv_nsec / NS_PER_MS;
}

void cpy_timespec(struct timespec* dest, const struct timespec* src)
{
    *dest = *src;
}

void tspec_diff(const struct timespec* a, const struct timespec* b, struct timespec* delta)
{
    struct timespec now = {};
    if (!a || !b) set_now(&now);

    // Copies, since `delta` may be one of the two.
    struct timespec greater = a ? *a : now;
    struct timespec lesser = b ? *b : now;
    if (timespeccmp(&greater, &lesser, <)) {
        const struct timespec t = greater;
        greater = lesser;
        lesser = t;
    }

    const struct timespec* pb = &lesser;
    *delta = greater;
    assert(timespeccmp(delta, pb, >=));
    delta->tv_sec -= pb->tv_sec;
    delta->tv_nsec -= pb->tv_nsec;
    if (delta->tv_nsec < 0) {
        delta->tv_sec--;
        delta->tv_nsec += NS_PER_SEC;
    }
}

long diff_ms(const struct timespec* a, const struct timespec* b)
{
    struct timespec delta;
    tspec_diff(a, b, &delta);
    return tms2ms(&delta);
}
