// Times: clocks, time-out tests, texts, the end of the day.
#include "timeop.h"

#include "log.h"
#include "rqs.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/std_capture.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <vector>

// The conversions of the C library, with the test's hands on them.
namespace
{

bool g_fail_localtime = false;
std::function<void()> g_inside_conversion; // runs where a signal would arrive

template <typename F>
F real_one(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" struct tm* gmtime_r(const time_t* t, struct tm* tm) noexcept
{
    if (g_inside_conversion) g_inside_conversion();
    static const auto real = real_one<struct tm* (*)(const time_t*, struct tm*)>("gmtime_r");
    return real(t, tm);
}

extern "C" time_t mktime(struct tm* tm) noexcept
{
    if (g_inside_conversion) g_inside_conversion();
    static const auto real = real_one<time_t (*)(struct tm*)>("mktime");
    return real(tm);
}

extern "C" size_t strftime(char* s, size_t max, const char* fmt, const struct tm* tm) noexcept
{
    if (g_inside_conversion) g_inside_conversion();
    static const auto real = real_one<size_t (*)(char*, size_t, const char*, const struct tm*)>("strftime");
    return real(s, max, fmt, tm);
}

extern "C" struct tm* localtime_r(const time_t* t, struct tm* tm) noexcept
{
    if (g_inside_conversion) g_inside_conversion();
    if (g_fail_localtime) {
        errno = EOVERFLOW;
        return nullptr;
    }
    static const auto real = real_one<struct tm* (*)(const time_t*, struct tm*)>("localtime_r");
    return real(t, tm);
}

namespace
{

constexpr time_t AUG_7 = 1533628800; // 2018-08-07 10:00:00 CEST, 08:00:00 GMT

void use_zone(const char* tz)
{
    setenv("TZ", tz, 1);
    tzset();
    (void)get_timezone(1);
}

std::string timestr(struct timespec tms, uint32_t flags)
{
    char buf[128];
    const int n = mk_timestr(&tms, flags, buf, sizeof(buf));
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return buf;
}

class TimeTest : public testing::Test
{
protected:
    void SetUp() override { use_zone("CET-1CEST,M3.5.0,M10.5.0/3"); }
    void TearDown() override
    {
        g_fail_localtime = false;
        g_inside_conversion = nullptr;
        fake_clock::release();
        g_rqs = {};
    }
};

// ---- clocks ---------------------------------------------------------------------------------------------------

TEST_F(TimeTest, reads_the_real_time)
{
    fake_clock::set(1000, 250);
    struct timespec now = {};
    set_real_now(&now);
    EXPECT_EQ(now.tv_sec, 1000);
    EXPECT_EQ(now.tv_nsec, 250);
}

TEST_F(TimeTest, reads_the_clock_asked_for)
{
    struct timespec before = {}, now = {}, after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    set_clk_now(&now, CLOCK_MONOTONIC);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(before.tv_sec, now.tv_sec);
    EXPECT_LE(now.tv_sec, after.tv_sec);
}

TEST_F(TimeTest, a_clock_that_can_not_be_read_aborts)
{
    struct timespec now = {};
    EXPECT_EXIT(set_clk_now(&now, 9999), testing::KilledBySignal(SIGABRT), "clock_gettime: Invalid argument");
}

// ---- time-out tests -------------------------------------------------------------------------------------------

TEST_F(TimeTest, a_deadline_has_passed_only_strictly_behind_it)
{
    const struct {
        struct timespec last, tmout, now;
        bool expected;
    } rows[] = {
        {{10, 0}, {5, 0}, {14, 999999999}, false},
        {{10, 0}, {5, 0}, {15, 0}, false}, // exactly the deadline
        {{10, 0}, {5, 0}, {15, 1}, true},
        {{10, 0}, {5, 0}, {16, 0}, true},
        {{10, 500}, {0, 0}, {10, 500}, false},
        {{10, 500}, {0, 0}, {10, 501}, true},
        {{0, 999999999}, {0, 999999999}, {1, 999999998}, false}, // 1999999998 ns carry one second
        {{0, 999999999}, {0, 999999999}, {1, 999999999}, true},
        {{0, 500000000}, {0, 500000000}, {1, 0}, false}, // exactly 1000000000 ns carry too
        {{0, 500000000}, {0, 500000000}, {1, 1}, true},
        {{0, 500000000}, {0, 499999999}, {0, 999999999}, false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &r - rows);
        EXPECT_EQ(timed_out_ext(&r.last, &r.tmout, &r.now), r.expected);
        EXPECT_EQ(timed_out_as(&r.last, &r.tmout, 0, &r.now), r.expected);
        EXPECT_EQ(timed_out_as(&r.last, &r.tmout, 1, &r.now), r.expected);
    }
}

// By design: without a running event loop the loop's clock stays zero, and nothing ever times out against it.
TEST_F(TimeTest, the_loop_clock_of_a_process_without_a_loop_never_times_out)
{
    const struct timespec last = {0, 0}, none = {0, 0};
    EXPECT_EQ(rqs_now_ref()->tv_sec, 0);
    EXPECT_FALSE(timed_out(&last, &none));
    EXPECT_FALSE(timed_out_ext(&last, &none, nullptr));
    EXPECT_FALSE(timed_out_as(&last, &none, 0, nullptr));
}

TEST_F(TimeTest, time_outs_follow_the_loop_clock_once_it_moves)
{
    const struct timespec last = {100, 0}, tmout = {5, 0};
    g_rqs.itime = {105, 0};
    EXPECT_FALSE(timed_out(&last, &tmout));
    g_rqs.itime = {105, 1};
    EXPECT_TRUE(timed_out(&last, &tmout));
    EXPECT_TRUE(timed_out_ext(&last, &tmout, nullptr));
    EXPECT_EQ(rqs_now().tv_nsec, 1);
    EXPECT_EQ(rqs_now_ref(), &g_rqs.itime);
}

TEST_F(TimeTest, the_real_time_decides_when_asked_for)
{
    const struct timespec last = {100, 0}, tmout = {5, 0};
    fake_clock::set(105, 0);
    EXPECT_FALSE(timed_out_real(&last, &tmout));
    EXPECT_FALSE(timed_out_as(&last, &tmout, 1, nullptr));
    fake_clock::set(105, 1);
    EXPECT_TRUE(timed_out_real(&last, &tmout));
    EXPECT_TRUE(timed_out_as(&last, &tmout, 1, nullptr));
}

TEST_F(TimeTest, a_span_has_normalised_nanoseconds)
{
    const struct {
        struct timespec from, till, span;
    } rows[] = {
        {{10, 100}, {12, 300}, {2, 200}},           {{10, 300}, {12, 100}, {1, 999999800}}, {{10, 0}, {10, 0}, {0, 0}},
        {{10, 0}, {9, 999999999}, {-1, 999999999}}, {{12, 100}, {10, 300}, {-2, 200}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &r - rows);
        struct timespec span = {77, 77};
        calc_timespan(&r.from, &r.till, &span);
        EXPECT_EQ(span.tv_sec, r.span.tv_sec);
        EXPECT_EQ(span.tv_nsec, r.span.tv_nsec);
    }
}

TEST_F(TimeTest, a_span_may_be_written_over_its_start)
{
    struct timespec t = {10, 300};
    const struct timespec till = {12, 100};
    calc_timespan(&t, &till, &t);
    EXPECT_EQ(t.tv_sec, 1);
    EXPECT_EQ(t.tv_nsec, 999999800);
}

// ---- the zone -------------------------------------------------------------------------------------------------

TEST_F(TimeTest, the_zone_begins_with_a_blank)
{
    fake_clock::set(AUG_7);
    EXPECT_STREQ(get_timezone(1), " CEST");
    fake_clock::set(AUG_7 + 180 * 86400);
    EXPECT_STREQ(get_timezone(1), " CET");
}

TEST_F(TimeTest, the_zone_is_kept_until_refreshed)
{
    fake_clock::set(AUG_7);
    (void)get_timezone(1);
    setenv("TZ", "EST5", 1);
    tzset();
    EXPECT_STREQ(get_timezone(0), " CEST");
    EXPECT_STREQ(get_timezone(1), " EST");
    EXPECT_STREQ(get_timezone(0), " EST");
}

TEST_F(TimeTest, a_zone_of_fourteen_letters_is_the_longest)
{
    setenv("TZ", "ABCDEFGHIJKLMN0", 1);
    tzset();
    EXPECT_STREQ(get_timezone(1), " ABCDEFGHIJKLMN");

    setenv("TZ", "ABCDEFGHIJKLMNO0", 1);
    tzset();
    const char* zone = "";
    const std::string said = stderr_of([&zone] { zone = get_timezone(1); });
    EXPECT_EQ(zone, nullptr);
    EXPECT_EQ(said.substr(0, 10), "strftime: ");
    EXPECT_STREQ(get_timezone(0), "#ERR#");
    EXPECT_EQ(timestr({0, 0}, LTF_NO_USEC), "1970-01-01 00:00:00#ERR#");
}

TEST_F(TimeTest, a_zone_that_can_not_be_told_is_null)
{
    const char* zone = "";
    g_fail_localtime = true;
    EXPECT_EQ(stderr_of([&zone] { zone = get_timezone(1); }), "localtime_r: Value too large for defined data type\n");
    EXPECT_EQ(zone, nullptr);
}

// ---- the text of a time ---------------------------------------------------------------------------------------

TEST_F(TimeTest, a_time_reads_as_its_format_asks)
{
    fake_clock::set(AUG_7);
    (void)get_timezone(1);
    const struct timespec t = {AUG_7, 123456789};
    EXPECT_EQ(timestr(t, 0), "2018-08-07 10:00:00.123456 CEST");
    EXPECT_EQ(timestr(t, LTF_NO_USEC), "2018-08-07 10:00:00 CEST");
    EXPECT_EQ(timestr(t, LTF_RAW), "1533628800.123456");
    EXPECT_EQ(timestr(t, LTF_RAW | 1), "1533628800.123456");
    EXPECT_EQ(timestr(t, LTF_RAW | LTF_NO_USEC), "1533628800.123456");
    EXPECT_EQ(timestr({AUG_7, 999}, 0), "2018-08-07 10:00:00.000000 CEST");
    EXPECT_EQ(timestr({-1, 0}, LTF_RAW), "-1.000000");
}

// By design: those who read GMT logs split them at the blank before the zone, and its name was always the local one.
TEST_F(TimeTest, a_gmt_time_shows_the_local_zone)
{
    fake_clock::set(AUG_7);
    (void)get_timezone(1);
    EXPECT_EQ(timestr({AUG_7, 0}, LTF_GMT), "2018-08-07 08:00:00.000000 CEST");
    EXPECT_EQ(timestr({AUG_7, 0}, LTF_GMT | LTF_NO_USEC), "2018-08-07 08:00:00 CEST");
}

TEST_F(TimeTest, a_raw_time_needs_room_for_its_terminator)
{
    const struct timespec t = {1533628800, 0};
    char buf[32];
    EXPECT_EQ(mk_timestr(&t, LTF_RAW, buf, 18), 17);
    EXPECT_STREQ(buf, "1533628800.000000");
    EXPECT_EQ(mk_timestr(&t, LTF_RAW, buf, 17), -1);
    EXPECT_EQ(mk_timestr(&t, LTF_RAW, buf, 1), -1);
    EXPECT_EQ(mk_timestr(&t, LTF_RAW, buf, 0), -1);
}

TEST_F(TimeTest, a_time_of_exactly_the_buffers_length_is_accepted)
{
    fake_clock::set(AUG_7);
    (void)get_timezone(1);
    const struct timespec t = {AUG_7, 0};
    char buf[64];
    ASSERT_EQ(timestr(t, 0).size(), 31u);
    EXPECT_EQ(mk_timestr(&t, 0, buf, 32), 31);
    EXPECT_STREQ(buf, "2018-08-07 10:00:00.000000 CEST");
    EXPECT_EQ(mk_timestr(&t, 0, buf, 31), 31);
    EXPECT_STREQ(buf, "2018-08-07 10:00:00.000000 CES");
    int n = 0;
    EXPECT_EQ(stderr_of([&] { n = mk_timestr(&t, 0, buf, 30); }),
              "mk_timestr: timestamp buffer needs 31 bytes, only 30 provided\n");
    EXPECT_EQ(n, -1);
}

TEST_F(TimeTest, a_time_without_a_calendar_date_is_refused)
{
    const struct timespec t = {LONG_MAX, 0};
    char buf[64];
    for (const uint32_t flags : {0u, LTF_GMT, LTF_NO_USEC}) {
        int n = 0;
        EXPECT_EQ(stderr_of([&] { n = mk_timestr(&t, flags, buf, sizeof(buf)); }),
                  "gmtime_r/localtime_r: Value too large for defined data type\n");
        EXPECT_EQ(n, -1);
    }
    EXPECT_GT(mk_timestr(&t, LTF_RAW, buf, sizeof(buf)), 0);
}

TEST_F(TimeTest, a_handler_inside_a_conversion_gets_no_text)
{
    std::vector<int> seen;
    char inner[64] = "untouched";
    g_inside_conversion = [&] {
        g_inside_conversion = nullptr;
        const struct timespec t = {0, 0};
        seen.push_back(mk_timestr(&t, 0, inner, sizeof(inner)));
        seen.push_back(mk_timestr(&t, LTF_GMT, inner, sizeof(inner)));
        EXPECT_STREQ(inner, "untouched");
        seen.push_back(mk_timestr(&t, LTF_RAW, inner, sizeof(inner))); // converts nothing
    };
    EXPECT_EQ(timestr({0, 0}, LTF_NO_USEC).substr(0, 19), "1970-01-01 01:00:00");
    EXPECT_EQ(seen, (std::vector<int>{-35, -35, 8}));
    EXPECT_EQ(timestr({0, 0}, LTF_NO_USEC).substr(0, 19), "1970-01-01 01:00:00");
}

// The C library would wait for its own lock there, for ever.
TEST_F(TimeTest, a_handler_gets_no_text_inside_any_conversion_of_these_functions)
{
    char date[16];
    struct timespec t = {};
    const struct {
        const char* what;
        int conversions;
        std::function<void()> run;
    } rows[] = {
        {"zone", 2, [] { (void)get_timezone(1); }},
        {"end of day", 2, [] { (void)get_endofday_utime(AUG_7); }},
        {"reading back", 1, [&] { (void)scan_log_time("2018-08-07 08:00:00 CEST", &t, LTF_NO_USEC); }},
        {"date", 1, [&] { (void)mk_gmt_date(AUG_7, date, sizeof(date)); }},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<int> seen;
        bool in_handler = false;
        g_inside_conversion = [&] {
            if (in_handler) return;
            in_handler = true;
            char inner[64];
            seen.push_back(mk_timestr(&t, 0, inner, sizeof(inner)));
            in_handler = false;
        };
        r.run();
        g_inside_conversion = nullptr;
        EXPECT_EQ(seen, std::vector<int>(static_cast<size_t>(r.conversions), -35));
        EXPECT_EQ(timestr({0, 0}, LTF_NO_USEC).substr(0, 19), "1970-01-01 01:00:00"); // free again
    }
}

TEST_F(TimeTest, a_refused_conversion_leaves_the_next_one_free)
{
    g_fail_localtime = true;
    const struct timespec t = {0, 0};
    char buf[64];
    (void)stderr_of([&] { EXPECT_EQ(mk_timestr(&t, 0, buf, sizeof(buf)), -1); });
    g_fail_localtime = false;
    EXPECT_GT(mk_timestr(&t, 0, buf, sizeof(buf)), 0);
}

// ---- reading a time back --------------------------------------------------------------------------------------

TEST_F(TimeTest, a_text_reads_back_as_its_time)
{
    const struct {
        uint32_t flags;
        int fields;
    } rows[] = {{0, 7}, {LTF_NO_USEC, 6}, {LTF_RAW, 2}, {LTF_RAW | LTF_NO_USEC, 2}};
    for (const time_t sec : {time_t{AUG_7}, time_t{AUG_7 + 180 * 86400}, time_t{0}}) { // summer, winter
        for (const auto& r : rows) {
            SCOPED_TRACE(testing::Message() << sec << " flags " << r.flags);
            const std::string line = timestr({sec, 123456000}, r.flags) + " 1234  (INF)  text\n";
            struct timespec back = {1, 1};
            EXPECT_EQ(scan_log_time(line.c_str(), &back, r.flags), r.fields);
            EXPECT_EQ(back.tv_sec, sec);
            EXPECT_EQ(back.tv_nsec, r.fields == 6 ? 0 : 123456000);
        }
    }
}

// By design: a GMT text is taken for local time, as its zone says.
TEST_F(TimeTest, a_gmt_text_is_read_as_local_time)
{
    struct timespec back = {};
    EXPECT_EQ(scan_log_time("2018-08-07 08:00:00.000000 CEST", &back, LTF_GMT), 7);
    EXPECT_EQ(back.tv_sec, AUG_7 - 2 * 3600);
}

TEST_F(TimeTest, a_text_that_falls_short_is_refused)
{
    const struct {
        const char* text;
        uint32_t flags;
    } rows[] = {
        {"", 0},
        {"2018-08-07 10:00:00 CEST", 0}, // no microseconds
        {"2018-08-07 10:00:00.", 0},
        {"2018-08-07 10:00", LTF_NO_USEC},
        {"text", LTF_NO_USEC},
        {"1533628800", LTF_RAW},
        {"1533628800.", LTF_RAW},
        {"(INF)", LTF_RAW},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text);
        struct timespec back = {5, 5};
        EXPECT_EQ(scan_log_time(r.text, &back, r.flags), -1);
        EXPECT_EQ(back.tv_sec, 0);
        EXPECT_EQ(back.tv_nsec, 0);
    }
}

TEST_F(TimeTest, a_time_that_can_not_be_made_is_logged)
{
    LogCapture log;
    struct timespec back = {5, 5};
    // The second before the epoch is the value by which mktime tells that it failed.
    EXPECT_EQ(scan_log_time("1970-01-01 00:59:59.500000", &back, 0), -1);
    EXPECT_EQ(log.messages(ll::error),
              (std::vector<std::string>{"scan_log_time: cannot make time from [1970-01-01 00:59:59.500000]"}));
    EXPECT_EQ(back.tv_sec, 0);
    EXPECT_EQ(back.tv_nsec, 0);
}

// ---- dates and spans ------------------------------------------------------------------------------------------

TEST_F(TimeTest, a_gmt_date_is_the_day_in_gmt)
{
    char buf[16];
    EXPECT_EQ(mk_gmt_date(AUG_7, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "2018-08-07");
    EXPECT_EQ(mk_gmt_date(86399, buf, 11), 0);
    EXPECT_STREQ(buf, "1970-01-01");
    EXPECT_EQ(mk_gmt_date(86400, buf, 11), 0);
    EXPECT_STREQ(buf, "1970-01-02");
}

TEST_F(TimeTest, a_gmt_date_that_does_not_fit_is_logged)
{
    LogCapture log;
    char buf[16];
    EXPECT_EQ(mk_gmt_date(0, buf, 10), -1);
    EXPECT_EQ(log.messages(ll::error),
              (std::vector<std::string>{"mk_gmt_date: timestamp buffer needs 10 bytes, only 10 provided"}));
}

TEST_F(TimeTest, a_gmt_date_beyond_the_calendar_is_refused)
{
    LogCapture log;
    char buf[16];
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(mk_gmt_date(LONG_MAX, buf, sizeof(buf)), -1); }),
              "gmtime: Value too large for defined data type\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(TimeTest, a_span_of_seconds_reads_in_days_hours_minutes)
{
    const struct {
        long sec;
        const char* text;
    } rows[] = {
        {0, "00h:00m:00s"},     {59, "00h:00m:59s"},        {3599, "00h:59m:59s"},      {3600, "01h:00m:00s"},
        {86399, "23h:59m:59s"}, {86400, "01d 00h:00m:00s"}, {93784, "01d 02h:03m:04s"}, {8640000, "100d 00h:00m:00s"},
    };
    for (const auto& r : rows) {
        char buf[64];
        EXPECT_EQ(mk_timespan(r.sec, buf, sizeof(buf)), 0);
        EXPECT_STREQ(buf, r.text);
    }
}

TEST_F(TimeTest, a_span_of_seconds_must_fit)
{
    char buf[32];
    EXPECT_EQ(mk_timespan(59, buf, 12), 0);
    EXPECT_EQ(mk_timespan(59, buf, 11), -1);
    EXPECT_EQ(mk_timespan(86400, buf, 16), 0);
    EXPECT_EQ(mk_timespan(86400, buf, 15), -1);
    EXPECT_EQ(mk_timespan(86400, buf, 5), -1);
    EXPECT_EQ(mk_timespan(86400, buf, 0), -1);
}

// ---- the end of the day ---------------------------------------------------------------------------------------

TEST_F(TimeTest, the_end_of_the_day_is_its_last_second)
{
    const time_t last = AUG_7 + 14 * 3600 - 1; // 23:59:59 CEST
    EXPECT_EQ(get_endofday_utime(AUG_7), last);
    EXPECT_EQ(get_endofday_utime(last), last);
    EXPECT_EQ(get_endofday_utime(last + 1), last + 86400);
}

TEST_F(TimeTest, the_end_of_a_day_with_a_clock_change_is_still_its_last_second)
{
    const time_t mar_25 = 1521932400; // 2018-03-25 00:00:00 CET, a day of 23 hours
    EXPECT_EQ(get_endofday_utime(mar_25), mar_25 + 23 * 3600 - 1);
    const time_t oct_28 = 1540677600; // 2018-10-28 00:00:00 CEST, a day of 25 hours
    EXPECT_EQ(get_endofday_utime(oct_28), oct_28 + 25 * 3600 - 1);
}

TEST_F(TimeTest, a_day_that_can_not_be_told_is_logged)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    EXPECT_EQ(get_endofday_utime(LONG_MAX), -1);
    EXPECT_EQ(log.messages(ll::error), (std::vector<std::string>{"get_endofday_utime: localtime_r() FAILED"}));
    log_timefmt(&g_log, 0);
}

// ---- spans in time or ticks -----------------------------------------------------------------------------------

TEST_F(TimeTest, a_span_in_clock_time_is_a_time_out_test)
{
    struct tspan last = {.mode = 1, .val = {}}, tmout = {.mode = 1, .val = {}};
    const struct timespec begun = {10, 0}, five = {5, 0}, at = {15, 0}, behind = {15, 1};
    set_tspan(&last, &begun, 999);
    set_tspan(&tmout, &five, 999);
    EXPECT_EQ(last.val.tms.tv_sec, 10);
    EXPECT_FALSE(tspan_timed_out(&last, &tmout, &at, UINT32_MAX));
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, &behind, 0));
    g_rqs.itime = behind;
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, nullptr, 0));
}

TEST_F(TimeTest, a_span_in_ticks_counts_the_ticks)
{
    const struct {
        uint32_t last, tmout, now;
        bool expected;
    } rows[] = {
        {0, 1000, 5, true}, // never set
        {5, 10, 5, false},
        {5, 10, 15, false}, // exactly the deadline
        {5, 10, 16, true},
        {5, UINT32_MAX, UINT32_MAX, false}, // the sum passes 32 bits
        {UINT32_MAX - 1, 10, UINT32_MAX, false},
        {UINT32_MAX - 1, 10, 0, false}, // wrapped: 0 - last - 1 = 1
        {UINT32_MAX - 1, 10, 9, false}, // 10
        {UINT32_MAX - 1, 10, 10, true}, // 11
        {UINT32_MAX, 0, 0, false},
        {UINT32_MAX, 0, 1, true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &r - rows);
        struct tspan last = {.mode = 2, .val = {}}, tmout = {.mode = 2, .val = {}};
        set_tspan(&last, nullptr, r.last);
        set_tspan(&tmout, nullptr, r.tmout);
        EXPECT_EQ(last.val.ticks, r.last);
        EXPECT_EQ(tspan_timed_out(&last, &tmout, nullptr, r.now), r.expected);
    }
}

TEST_F(TimeTest, spans_of_different_modes_are_an_assertion)
{
    const struct tspan clock = {.mode = 1, .val = {}}, ticks = {.mode = 2, .val = {}};
    EXPECT_DEATH((void)tspan_timed_out(&ticks, &clock, nullptr, 0), "tmout->mode == last->mode");
}

TEST_F(TimeTest, an_unknown_mode_is_an_assertion)
{
    struct tspan odd = {.mode = 3, .val = {}};
    EXPECT_DEATH((void)tspan_timed_out(&odd, &odd, nullptr, 0), "Assertion");
    EXPECT_DEATH(set_tspan(&odd, nullptr, 0), "Assertion");
    odd.mode = 0;
    EXPECT_DEATH((void)tspan_timed_out(&odd, &odd, nullptr, 0), "Assertion");
}

} // namespace
