// Times. The texts made here are what log lines begin with, so this file reports on stderr wherever the log might be
// in the middle of asking it for a time.
#include "timeop.h"

#include "log.h"
#include "rqs.h"

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr long NSEC_PER_SEC = 1000000000L;
constexpr long NSEC_PER_USEC = 1000L;
constexpr long SEC_PER_DAY = 86400L;
constexpr long SEC_PER_HOUR = 3600L;
constexpr long SEC_PER_MIN = 60L;
constexpr int TM_YEAR_BASE = 1900;
constexpr int INTERRUPTED_ITSELF = -35;
constexpr const char ZONE_ERROR[] = "#ERR#";

constinit char g_zone[16] = "";
// Set while a conversion runs: the C library holds a lock there, which a signal handler must not ask for again.
constinit volatile sig_atomic_t g_converting = 0;

constexpr bool is_behind(const struct timespec& now, const struct timespec& last, const struct timespec& tmout)
{
    struct timespec deadline = {last.tv_sec + tmout.tv_sec, last.tv_nsec + tmout.tv_nsec};
    if (deadline.tv_nsec >= NSEC_PER_SEC) {
        deadline.tv_nsec -= NSEC_PER_SEC;
        ++deadline.tv_sec;
    }
    return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec > deadline.tv_nsec);
}
static_assert(!is_behind({11, 0}, {10, 0}, {1, 0}));
static_assert(is_behind({11, 1}, {10, 0}, {1, 0}));
static_assert(!is_behind({1, 999999998}, {0, 999999999}, {0, 999999999}));
static_assert(is_behind({1, 999999999}, {0, 999999999}, {0, 999999999}));

constexpr bool ticks_are_behind(uint32_t now, uint32_t last, uint32_t tmout)
{
    if (last == 0) return true;
    if (now >= last) return now > static_cast<uint64_t>(last) + tmout;
    return now - last - 1 > tmout; // wrapped
}
static_assert(ticks_are_behind(5, 0, 1000));
static_assert(!ticks_are_behind(15, 5, 10) && ticks_are_behind(16, 5, 10));
static_assert(!ticks_are_behind(9, UINT32_MAX - 1, 10) && ticks_are_behind(10, UINT32_MAX - 1, 10));

// The C library's conversions between moments and calendar: nothing else here may ask for one without a mark.

const struct tm* local_time(time_t sec, struct tm* tm)
{
    const calendar_mark mark;
    return localtime_r(&sec, tm);
}

const struct tm* gmt_time(time_t sec, struct tm* tm)
{
    const calendar_mark mark;
    return gmtime_r(&sec, tm);
}

time_t local_seconds(struct tm* tm)
{
    const calendar_mark mark;
    return mktime(tm);
}

// Broken-down time of a moment: true, or false after a word on stderr.
bool convert(time_t sec, bool gmt, struct tm* tm)
{
    if (gmt ? gmt_time(sec, tm) : local_time(sec, tm)) return true;
    perror("gmtime_r/localtime_r");
    return false;
}

// tm_year counts from 1900; the far end of its range has no year in an int and shows as a wrong one.
int full_year(const struct tm& tm)
{
    return static_cast<int>(static_cast<int64_t>(tm.tm_year) + TM_YEAR_BASE);
}

int mk_raw_timestr(const struct timespec* tms, char* buf, size_t buflen)
{
    const int n = snprintf(buf, buflen, "%ld.%06ld", static_cast<long>(tms->tv_sec), tms->tv_nsec / NSEC_PER_USEC);
    return n < 0 || static_cast<size_t>(n) >= buflen ? -1 : n;
}

// Seconds of a broken-down local time whose year and month are as printed: 0, or -1.
int seconds_of(const char* s, struct tm* tm, time_t* sec)
{
    tm->tm_year -= TM_YEAR_BASE;
    tm->tm_mon -= 1;
    tm->tm_isdst = -1; // the text does not say: let the calendar tell
    *sec = local_seconds(tm);
    if (*sec != static_cast<time_t>(-1)) return 0;
    tv_log(ll::error, "%s: cannot make time from [%s]\n", "scan_log_time", s);
    return -1;
}

} // namespace

// ---- clocks ---------------------------------------------------------------------------------------------------

void set_real_now(struct timespec* tms)
{
    set_clk_now(tms, CLOCK_REALTIME);
}

void set_clk_now(struct timespec* tms, clockid_t clk_id)
{
    if (clock_gettime(clk_id, tms) == 0) return;
    perror("clock_gettime");
    abort();
}

// ---- time-out tests -------------------------------------------------------------------------------------------

bool timed_out_as(const struct timespec* last_tm, const struct timespec* tmout, int in_real_time,
                  const struct timespec* clknow)
{
    if (clknow) return is_behind(*clknow, *last_tm, *tmout);
    if (in_real_time == 0) return is_behind(*rqs_now_ref(), *last_tm, *tmout);
    struct timespec now = {};
    set_real_now(&now);
    return is_behind(now, *last_tm, *tmout);
}

bool timed_out(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, 0, nullptr);
}

bool timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout, const struct timespec* clknow)
{
    return timed_out_as(last_tm, tmout, 0, clknow);
}

bool timed_out_real(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, 1, nullptr);
}

void calc_timespan(const struct timespec* from, const struct timespec* till, struct timespec* span)
{
    struct timespec diff = {till->tv_sec - from->tv_sec, till->tv_nsec - from->tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_nsec += NSEC_PER_SEC;
        --diff.tv_sec;
    }
    *span = diff;
}

// ---- texts ----------------------------------------------------------------------------------------------------

calendar_mark::calendar_mark() : before(g_converting)
{
    g_converting = 1;
}

calendar_mark::~calendar_mark()
{
    g_converting = before;
}

const char* get_timezone(int refresh)
{
    if (refresh == 0 && g_zone[0] != '\0') return g_zone;
    const calendar_mark mark; // to the end: strftime() asks for the same lock, and the kept text is being changed
    const time_t now = time(nullptr);
    struct tm tm = {};
    if (!local_time(now, &tm)) {
        perror("localtime_r");
        return nullptr;
    }
    if (strftime(g_zone, sizeof(g_zone), " %Z", &tm) == 0) {
        perror("strftime");
        memcpy(g_zone, ZONE_ERROR, sizeof(ZONE_ERROR));
        return nullptr;
    }
    return g_zone;
}

int mk_timestr(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    if ((flags & LTF_RAW) != 0) return mk_raw_timestr(tms, buf, buflen);

    if (g_converting != 0) return INTERRUPTED_ITSELF;
    struct tm tm = {};
    if (!convert(tms->tv_sec, (flags & LTF_GMT) != 0, &tm)) return -1;

    // By design: the local zone's name, also behind a GMT time. Those who parse the log split at its blank.
    const char* zone = get_timezone(0);
    if (!zone) zone = ZONE_ERROR;
    const int n = (flags & LTF_NO_USEC) != 0
                      ? snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d%s", full_year(tm), tm.tm_mon + 1,
                                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, zone)
                      : snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", full_year(tm), tm.tm_mon + 1,
                                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tms->tv_nsec / NSEC_PER_USEC, zone);
    if (n < 0) return -1;
    if (static_cast<size_t>(n) > buflen) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n,
                static_cast<long>(buflen));
        return -1;
    }
    return n;
}

int scan_log_time(const char* s, struct timespec* tms, uint32_t flags)
{
    *tms = {};
    long sec = 0;
    long usec = 0;
    int n = 0;
    if ((flags & LTF_RAW) != 0) {
        n = sscanf(s, "%ld.%06ld ", &sec, &usec);
        if (n != 2) return -1;
        *tms = {sec, usec * NSEC_PER_USEC};
        return n;
    }
    struct tm tm = {};
    if ((flags & LTF_NO_USEC) != 0) {
        n = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d ", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                   &tm.tm_sec);
        if (n != 6) return -1;
    } else {
        n = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d.%06ld ", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                   &tm.tm_min, &tm.tm_sec, &usec);
        if (n != 7) return -1;
    }
    time_t made = 0;
    if (seconds_of(s, &tm, &made) != 0) return -1;
    *tms = {made, usec * NSEC_PER_USEC};
    return n;
}

int mk_gmt_date(time_t ut, char* buf, size_t buflen)
{
    struct tm tm = {};
    if (!gmt_time(ut, &tm)) {
        perror("gmtime");
        return -1;
    }
    const int n = snprintf(buf, buflen, "%04d-%02d-%02d", full_year(tm), tm.tm_mon + 1, tm.tm_mday);
    if (n < 0 || static_cast<size_t>(n) >= buflen) {
        tv_log(ll::error, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n,
               static_cast<long>(buflen));
        return -1;
    }
    return 0;
}

int mk_timespan(long total_sec, char* buf, size_t buflen)
{
    const long days = total_sec / SEC_PER_DAY;
    const long rest = days > 0 ? total_sec % SEC_PER_DAY : total_sec;
    const long hours = rest / SEC_PER_HOUR;
    const long mins = rest % SEC_PER_HOUR / SEC_PER_MIN;
    const long secs = rest % SEC_PER_MIN;
    const int n = days > 0 ? snprintf(buf, buflen, "%02ldd %02ldh:%02ldm:%02lds", days, hours, mins, secs)
                           : snprintf(buf, buflen, "%02ldh:%02ldm:%02lds", hours, mins, secs);
    return n < 0 || static_cast<size_t>(n) >= buflen ? -1 : 0;
}

// ---- calendar -------------------------------------------------------------------------------------------------

time_t get_endofday_utime(time_t tstamp)
{
    struct tm tm = {};
    if (!local_time(tstamp, &tm)) {
        tv_log(ll::error, "%s: localtime_r() FAILED\n", __func__);
        return -1;
    }
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 59;
    tm.tm_isdst = -1; // the clock may change between now and midnight
    return local_seconds(&tm);
}

// ---- spans in time or ticks -----------------------------------------------------------------------------------

bool tspan_timed_out(const struct tspan* last, const struct tspan* tmout, const struct timespec* now,
                     uint32_t ticks_now)
{
    assert(tmout->mode == last->mode);
    assert(tmout->mode == TSPAN_CLOCK || tmout->mode == TSPAN_TICKS);
    if (tmout->mode == TSPAN_CLOCK) return timed_out_ext(&last->val.tms, &tmout->val.tms, now);
    return ticks_are_behind(ticks_now, last->val.ticks, tmout->val.ticks);
}

void set_tspan(struct tspan* ts, const struct timespec* now, uint32_t ticks_now)
{
    assert(ts->mode == TSPAN_CLOCK || ts->mode == TSPAN_TICKS);
    if (ts->mode == TSPAN_CLOCK) {
        ts->val.tms = *now;
    } else {
        ts->val.ticks = ticks_now;
    }
}
