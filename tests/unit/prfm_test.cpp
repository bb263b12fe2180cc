// The performance meter.
#include "prfm.h"

#include "support/assert_kit.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <csignal>
#include <cstring>

// The process's resource usage, as the test wants it to be.
namespace
{

bool g_fake_usage = false;
struct rusage g_usage;
int g_who_asked = -99;

} // namespace

extern "C" int getrusage(__rusage_who_t who, struct rusage* ru) noexcept
{
    g_who_asked = static_cast<int>(who);
    if (g_fake_usage) {
        *ru = g_usage;
        return 0;
    }
    using fn = int (*)(int, struct rusage*);
    static const fn real = reinterpret_cast<fn>(dlsym(RTLD_NEXT, "getrusage"));
    return real(static_cast<int>(who), ru);
}

namespace
{

constexpr long COUNTERS = 14;

// The counters from `first` on, `step` apart, in the order of the record.
struct rusage usage(struct timeval user, struct timeval sys, long first, long step)
{
    struct rusage ru = {};
    ru.ru_utime = user;
    ru.ru_stime = sys;
    long n = first;
    for (long* counter :
         {&ru.ru_maxrss, &ru.ru_ixrss, &ru.ru_idrss, &ru.ru_isrss, &ru.ru_minflt, &ru.ru_majflt, &ru.ru_nswap,
          &ru.ru_inblock, &ru.ru_oublock, &ru.ru_msgsnd, &ru.ru_msgrcv, &ru.ru_nsignals, &ru.ru_nvcsw, &ru.ru_nivcsw}) {
        *counter = n;
        n += step;
    }
    EXPECT_EQ(n, first + COUNTERS * step);
    return ru;
}

void use(const struct rusage& ru)
{
    g_fake_usage = true;
    g_usage = ru;
}

bool is_zero(const void* p, size_t len)
{
    const auto* bytes = static_cast<const char*>(p);
    return std::all_of(bytes, bytes + len, [](char c) { return c == 0; });
}

struct prfm filled()
{
    struct prfm r;
    memset(&r, 0x11, sizeof(r));
    return r;
}

std::string text_of(const struct rusage& ru)
{
    return printed([&](FILE* fp) { rusage_dump(fp, &ru); });
}

class PrfmTest : public testing::Test
{
protected:
    void TearDown() override
    {
        fake_clock::release();
        g_fake_usage = false;
    }
};

} // namespace

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(PrfmTest, clears_the_fields_that_its_flags_select)
{
    for (const int32_t flags : {0, 1, 2, 3}) {
        struct prfm r = filled();
        prfm_xinit(&r, flags, RUSAGE_CHILDREN);
        EXPECT_EQ(r.flags, flags);
        EXPECT_EQ(r.who, RUSAGE_CHILDREN);
        for (const struct prfm_metrics* m : {&r.start, &r.accum}) {
            EXPECT_EQ(is_zero(&m->tm, sizeof(m->tm)), (flags & 1) != 0);
            EXPECT_EQ(is_zero(&m->ru, sizeof(m->ru)), (flags & 2) != 0);
        }
    }
}

TEST_F(PrfmTest, destroy_clears_what_was_selected_and_then_the_flags)
{
    for (const int32_t flags : {0, 1, 2, 3}) {
        struct prfm r = filled();
        r.flags = flags;
        prfm_destroy(&r);
        EXPECT_EQ(r.flags, 0);
        for (const struct prfm_metrics* m : {&r.start, &r.accum}) {
            EXPECT_EQ(is_zero(&m->tm, sizeof(m->tm)), (flags & 1) != 0);
            EXPECT_EQ(is_zero(&m->ru, sizeof(m->ru)), (flags & 2) != 0);
        }
    }
}

// ---- time -----------------------------------------------------------------------------------------------------

TEST_F(PrfmTest, adds_up_time_between_start_and_stop)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME, RUSAGE_SELF);
    fake_clock::set(100, 0);
    prfm_start(&r);
    fake_clock::set(102, 500);
    prfm_stop(&r);
    EXPECT_EQ(r.accum.tm.tv_sec, 2);
    EXPECT_EQ(r.accum.tm.tv_nsec, 500);
    fake_clock::set(200, 900000000);
    prfm_start(&r);
    fake_clock::set(201, 100000000); // borrows
    prfm_stop(&r);
    EXPECT_EQ(r.accum.tm.tv_sec, 2);
    EXPECT_EQ(r.accum.tm.tv_nsec, 200000500);
}

TEST_F(PrfmTest, carries_nanoseconds_into_a_second)
{
    for (const auto& [nsec, sec, rest] :
         {std::tuple<long, long, long>{99999999, 0, 999999999}, {100000000, 1, 0}, {200000000, 1, 100000000}}) {
        struct prfm r;
        prfm_xinit(&r, PRFM_TIME, RUSAGE_SELF);
        r.accum.tm.tv_nsec = 900000000;
        fake_clock::set(100, 0);
        prfm_start(&r);
        fake_clock::set(100, nsec);
        prfm_stop(&r);
        EXPECT_EQ(r.accum.tm.tv_sec, sec);
        EXPECT_EQ(r.accum.tm.tv_nsec, rest);
    }
}

TEST_F(PrfmTest, a_second_stop_adds_the_time_since_the_same_start_once_more)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME, RUSAGE_SELF);
    fake_clock::set(100, 0);
    prfm_start(&r);
    fake_clock::set(101, 0);
    prfm_stop(&r);
    EXPECT_EQ(r.start.tm.tv_sec, 100);
    prfm_stop(&r);
    EXPECT_EQ(r.accum.tm.tv_sec, 2);
    fake_clock::set(105, 0);
    prfm_stop(&r);
    EXPECT_EQ(r.accum.tm.tv_sec, 7);
}

TEST_F(PrfmTest, aborts_where_the_clock_cannot_be_read)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME, RUSAGE_SELF);
    EXPECT_EXIT((fake_clock::fail(EPERM), prfm_start(&r)), testing::KilledBySignal(SIGABRT),
                "clock_gettime: Operation not permitted");
    EXPECT_EXIT((fake_clock::fail(EPERM), prfm_stop(&r)), testing::KilledBySignal(SIGABRT),
                "clock_gettime: Operation not permitted");
}

// ---- resource usage -------------------------------------------------------------------------------------------

TEST_F(PrfmTest, adds_up_usage_between_start_and_stop)
{
    struct prfm r = {};
    prfm_xinit(&r, PRFM_USAGE, RUSAGE_SELF);
    use(usage({10, 900000}, {20, 100}, 100, 10));
    prfm_start(&r);
    use(usage({12, 100000}, {20, 600}, 101, 12)); // user time borrows; the counters grow by 1, 3, 5 ...
    prfm_stop(&r);
    const struct rusage once = usage({1, 200000}, {0, 500}, 1, 2);
    EXPECT_EQ(text_of(r.accum.ru), text_of(once));
    prfm_stop(&r);
    EXPECT_EQ(text_of(r.accum.ru), text_of(usage({2, 400000}, {0, 1000}, 2, 4)));
    EXPECT_EQ(r.accum.tm.tv_sec, 0);
}

TEST_F(PrfmTest, carries_microseconds_into_a_second)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_USAGE, RUSAGE_SELF);
    r.accum.ru.ru_stime = {3, 999999};
    use(usage({0, 0}, {0, 0}, 0, 0));
    prfm_start(&r);
    use(usage({0, 999999}, {0, 1}, 0, 0));
    prfm_stop(&r);
    EXPECT_EQ(r.accum.ru.ru_utime.tv_sec, 0);
    EXPECT_EQ(r.accum.ru.ru_utime.tv_usec, 999999);
    EXPECT_EQ(r.accum.ru.ru_stime.tv_sec, 4);
    EXPECT_EQ(r.accum.ru.ru_stime.tv_usec, 0);
}

// The peak is summed as a difference, so a peak that stood still counts nothing.
TEST_F(PrfmTest, sums_the_peak_memory_as_a_difference)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_USAGE, RUSAGE_SELF);
    use(usage({0, 0}, {0, 0}, 5000, 0));
    prfm_start(&r);
    prfm_stop(&r);
    EXPECT_EQ(r.accum.ru.ru_maxrss, 0);
    use(usage({0, 0}, {0, 0}, 5100, 0));
    prfm_stop(&r);
    prfm_stop(&r);
    EXPECT_EQ(r.accum.ru.ru_maxrss, 200);
}

TEST_F(PrfmTest, asks_for_the_usage_of_whom_it_was_told)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_USAGE, RUSAGE_CHILDREN);
    prfm_start(&r);
    EXPECT_EQ(g_who_asked, RUSAGE_CHILDREN);
    prfm_xinit(&r, PRFM_USAGE, RUSAGE_SELF);
    prfm_stop(&r);
    EXPECT_EQ(g_who_asked, RUSAGE_SELF);
}

TEST_F(PrfmTest, aborts_where_the_usage_cannot_be_read)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_USAGE, 12345);
    EXPECT_EXIT(prfm_start(&r), testing::KilledBySignal(SIGABRT), "getrusage: Invalid argument");
    EXPECT_EXIT(prfm_stop(&r), testing::KilledBySignal(SIGABRT), "getrusage: Invalid argument");
    EXPECT_EXIT(prfm_probe(&r), testing::KilledBySignal(SIGABRT), "getrusage: Invalid argument");
}

TEST_F(PrfmTest, probe_takes_the_usage_as_it_is_and_no_time)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME | PRFM_USAGE, RUSAGE_SELF);
    r.accum.tm = {5, 5};
    r.accum.ru.ru_minflt = 77;
    const struct rusage now = usage({10, 900000}, {20, 100}, 100, 10);
    use(now);
    prfm_probe(&r);
    EXPECT_EQ(text_of(r.accum.ru), text_of(now));
    EXPECT_EQ(r.accum.tm.tv_sec, 0);
    EXPECT_EQ(r.accum.tm.tv_nsec, 0);
    prfm_probe(&r);
    EXPECT_EQ(text_of(r.accum.ru), text_of(now)); // not summed up
}

// ---- nothing selected -----------------------------------------------------------------------------------------

TEST_F(PrfmTest, without_flags_does_nothing_and_dumps_the_format_only)
{
    struct prfm r = filled();
    prfm_xinit(&r, 0, 12345); // an owner of usage that would abort
    const struct prfm before = r;
    prfm_start(&r);
    prfm_stop(&r);
    prfm_probe(&r);
    EXPECT_EQ(memcmp(&before, &r, sizeof(r)), 0);
    EXPECT_EQ(printed([&](FILE* fp) { prfm_dump(fp, &r, "nothing, %d\n", 5); }), "nothing, 5\n");
    prfm_destroy(&r);
    EXPECT_EQ(memcmp(&before, &r, sizeof(r)), 0);
}

// ---- printing -------------------------------------------------------------------------------------------------

TEST_F(PrfmTest, dumps_what_its_flags_select)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME | PRFM_USAGE, RUSAGE_SELF);
    r.accum.tm = {3, 7};
    r.accum.ru = usage({1, 2}, {3, 4}, 1, 1);
    const std::string time = "== time:\t3.000000007\n";
    const std::string usage_text = "== resource usage:\n"
                                   "  user_time: 1.000002, sys_time: 3.000004\n"
                                   "  maxrss: 1, ixrss: 2, idrss: 3, isrss: 4\n"
                                   "  minflt: 5, majflt: 6, nswap=7\n"
                                   "  inblock: 8, outblock: 9, msgsnd: 10, msgrcv: 11\n"
                                   "  nsignals: 12, nvcsw: 13, nivcsw: 14\n"
                                   "==\n";
    EXPECT_EQ(printed([&](FILE* fp) { prfm_dump(fp, &r, "work %s\n", "done"); }), "work done\n" + time + usage_text);
    const char* no_format = nullptr;
    EXPECT_EQ(printed([&](FILE* fp) { prfm_dump(fp, &r, no_format, 0); }), time + usage_text);
    r.flags = PRFM_TIME;
    EXPECT_EQ(printed([&](FILE* fp) { prfm_dump(fp, &r, "x"); }), "x" + time);
    r.flags = PRFM_USAGE;
    EXPECT_EQ(printed([&](FILE* fp) { prfm_dump(fp, &r, "x"); }), "x" + usage_text);
}

TEST_F(PrfmTest, prints_fractions_with_all_their_digits)
{
    const struct timespec ts = {12, 345678901};
    EXPECT_EQ(printed([&](FILE* fp) { tmspec_dump(fp, &ts); }), "== time:\t12.345678901\n");
    EXPECT_NE(text_of(usage({5, 123456}, {6, 999999}, 0, 0)).find("user_time: 5.123456, sys_time: 6.999999\n"),
              std::string::npos);
}

TEST_F(PrfmTest, measures_real_work)
{
    struct prfm r;
    prfm_xinit(&r, PRFM_TIME | PRFM_USAGE, RUSAGE_SELF);
    prfm_start(&r);
    struct rusage ru = {};
    struct rusage ru0 = {};
    ASSERT_EQ(getrusage(RUSAGE_SELF, &ru0), 0);
    do { // until the kernel has counted a hundredth of a second of it
        ASSERT_EQ(getrusage(RUSAGE_SELF, &ru), 0);
    } while (ru.ru_utime.tv_sec == ru0.ru_utime.tv_sec && ru.ru_utime.tv_usec < ru0.ru_utime.tv_usec + 10000 &&
             ru.ru_stime.tv_sec == ru0.ru_stime.tv_sec && ru.ru_stime.tv_usec < ru0.ru_stime.tv_usec + 10000);
    prfm_stop(&r);
    EXPECT_GT(r.accum.tm.tv_sec * 1000000000 + r.accum.tm.tv_nsec, 0);
    EXPECT_GT(r.accum.ru.ru_utime.tv_usec + r.accum.ru.ru_stime.tv_usec + r.accum.ru.ru_utime.tv_sec +
                  r.accum.ru.ru_stime.tv_sec,
              0);
}
