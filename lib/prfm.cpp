// The stopwatch. All arithmetic of times is one function over a base, since timespec and timeval differ in nothing
// else.
#include "prfm.h"

#include <array>
#include <cstdarg>
#include <cstdlib>

namespace
{

constexpr long NSEC_PER_SEC = 1000000000;
constexpr long USEC_PER_SEC = 1000000;

// A time in whole seconds and a fraction of `base` parts.
struct split_time {
    long sec;
    long frac;
};

// sum + (now - start), carried and borrowed so that the fraction stays within the base.
constexpr split_time add_elapsed(split_time sum, split_time now, split_time start, long base)
{
    split_time d = {now.sec - start.sec, now.frac - start.frac};
    if (d.frac < 0) {
        d.frac += base;
        --d.sec;
    }
    sum.sec += d.sec;
    sum.frac += d.frac;
    if (sum.frac >= base) {
        sum.frac -= base;
        ++sum.sec;
    }
    return sum;
}

constexpr bool adds_to(split_time sum, split_time now, split_time start, split_time expected)
{
    const split_time got = add_elapsed(sum, now, start, NSEC_PER_SEC);
    return got.sec == expected.sec && got.frac == expected.frac;
}
static_assert(adds_to({0, 0}, {5, 7}, {2, 3}, {3, 4}));
static_assert(adds_to({0, 900000000}, {0, 200000000}, {0, 0}, {1, 100000000}));
static_assert(adds_to({1, 0}, {5, 100000000}, {4, 900000000}, {1, 200000000}));
static_assert(adds_to({0, 999999999}, {1, 0}, {0, 999999999}, {1, 0}));

void add_tmspec(struct timespec* sum, const struct timespec& now, const struct timespec& start)
{
    const split_time t = add_elapsed({sum->tv_sec, sum->tv_nsec}, {now.tv_sec, now.tv_nsec},
                                     {start.tv_sec, start.tv_nsec}, NSEC_PER_SEC);
    *sum = {.tv_sec = t.sec, .tv_nsec = t.frac};
}

void add_tmval(struct timeval* sum, const struct timeval& now, const struct timeval& start)
{
    const split_time t = add_elapsed({sum->tv_sec, sum->tv_usec}, {now.tv_sec, now.tv_usec},
                                     {start.tv_sec, start.tv_usec}, USEC_PER_SEC);
    *sum = {.tv_sec = t.sec, .tv_usec = t.frac};
}

// The counters of rusage, in their order. By design ru_maxrss, a peak, is summed as a difference like the rest.
constexpr std::array COUNTERS = {
    &rusage::ru_maxrss, &rusage::ru_ixrss,    &rusage::ru_idrss,   &rusage::ru_isrss,   &rusage::ru_minflt,
    &rusage::ru_majflt, &rusage::ru_nswap,    &rusage::ru_inblock, &rusage::ru_oublock, &rusage::ru_msgsnd,
    &rusage::ru_msgrcv, &rusage::ru_nsignals, &rusage::ru_nvcsw,   &rusage::ru_nivcsw,
};
static_assert(COUNTERS.size() == 14);

void capture(struct prfm_metrics* t, int32_t flags, int who)
{
    if ((flags & PRFM_TIME) != 0 && clock_gettime(CLOCK_MONOTONIC, &t->tm) != 0) {
        perror("clock_gettime");
        abort();
    }
    if ((flags & PRFM_USAGE) != 0 && getrusage(who, &t->ru) != 0) {
        perror("getrusage");
        abort();
    }
}

void clear(struct prfm_metrics* t, int32_t flags)
{
    if ((flags & PRFM_TIME) != 0) t->tm = {};
    if ((flags & PRFM_USAGE) != 0) t->ru = {};
}

} // namespace

void prfm_xinit(struct prfm* r, int32_t flags, int rusage_who)
{
    r->flags = flags;
    clear(&r->start, flags);
    clear(&r->accum, flags);
    r->who = rusage_who;
}

void prfm_destroy(struct prfm* r)
{
    clear(&r->start, r->flags);
    clear(&r->accum, r->flags);
    r->flags = 0;
}

void prfm_start(struct prfm* r)
{
    capture(&r->start, r->flags, r->who);
}

void prfm_stop(struct prfm* r)
{
    struct prfm_metrics now = {};
    capture(&now, r->flags, r->who);
    if ((r->flags & PRFM_TIME) != 0) add_tmspec(&r->accum.tm, now.tm, r->start.tm);
    if ((r->flags & PRFM_USAGE) != 0) {
        add_tmval(&r->accum.ru.ru_utime, now.ru.ru_utime, r->start.ru.ru_utime);
        add_tmval(&r->accum.ru.ru_stime, now.ru.ru_stime, r->start.ru.ru_stime);
        for (const auto counter : COUNTERS)
            r->accum.ru.*counter += now.ru.*counter - r->start.ru.*counter;
    }
}

void prfm_probe(struct prfm* r)
{
    if ((r->flags & (PRFM_TIME | PRFM_USAGE)) == 0) return;
    capture(&r->accum, r->flags, r->who);
    r->accum.tm = {};
}

void prfm_dump(FILE* fp, const struct prfm* r, const char* fmt, ...)
{
    if (fmt) {
        va_list ap;
        va_start(ap, fmt);
        (void)vfprintf(fp, fmt, ap);
        va_end(ap);
    }
    if ((r->flags & PRFM_TIME) != 0) tmspec_dump(fp, &r->accum.tm);
    if ((r->flags & PRFM_USAGE) != 0) rusage_dump(fp, &r->accum.ru);
}

void rusage_dump(FILE* fp, const struct rusage* ru)
{
    (void)fprintf(fp, "== resource usage:\n");
    (void)fprintf(fp, "  user_time: %ld.%06ld, sys_time: %ld.%06ld\n", ru->ru_utime.tv_sec, ru->ru_utime.tv_usec,
                  ru->ru_stime.tv_sec, ru->ru_stime.tv_usec);
    (void)fprintf(fp, "  maxrss: %ld, ixrss: %ld, idrss: %ld, isrss: %ld\n", ru->ru_maxrss, ru->ru_ixrss, ru->ru_idrss,
                  ru->ru_isrss);
    (void)fprintf(fp, "  minflt: %ld, majflt: %ld, nswap=%ld\n", ru->ru_minflt, ru->ru_majflt, ru->ru_nswap);
    (void)fprintf(fp, "  inblock: %ld, outblock: %ld, msgsnd: %ld, msgrcv: %ld\n", ru->ru_inblock, ru->ru_oublock,
                  ru->ru_msgsnd, ru->ru_msgrcv);
    (void)fprintf(fp, "  nsignals: %ld, nvcsw: %ld, nivcsw: %ld\n", ru->ru_nsignals, ru->ru_nvcsw, ru->ru_nivcsw);
    (void)fprintf(fp, "==\n");
}

void tmspec_dump(FILE* fp, const struct timespec* ts)
{
    (void)fprintf(fp, "== time:\t%ld.%09ld\n", ts->tv_sec, ts->tv_nsec);
}
