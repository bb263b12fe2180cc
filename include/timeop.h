// Times: reading clocks, time-out tests, the text of a time for log lines, the end of the local day.
//
// A *time-out test* asks whether `last + tmout` lies strictly before now: at exactly the deadline it has not timed
// out. A *tspan* is a moment or a time-out that counts either in clock time or in ticks of a free-running counter.
// The *loop clock* is the one that rqs_now_ref gives; it stays zero in a process without a running event loop, so
// that the tests that use it never report a time-out there.
//
// Units: seconds and nanoseconds in `timespec`, microseconds in texts, seconds in `time_t`.
// Ownership: nothing is kept; get_timezone returns static text that its next refresh overwrites.
// Results: 0 or a length, or a negative number. Trouble with a clock or a conversion is said on stderr, since the
// log itself stands on these functions.
// One thread. mk_timestr may be called from a signal handler: it refuses to run while the interrupted code is
// inside a calendar conversion (see calendar_mark).
#ifndef TV_TIMEOP_H
#define TV_TIMEOP_H

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>

// ---- clocks ---------------------------------------------------------------------------------------------------

// Reads CLOCK_REALTIME; ends like set_clk_now.
void set_real_now(struct timespec* tms);
// Reads a clock. A clock that can't be read is said on stderr and aborts the process.
void set_clk_now(struct timespec* tms, clockid_t clk_id);

// ---- time-out tests -------------------------------------------------------------------------------------------

// True if now lies strictly behind last_tm + tmout. Now is `clknow` if given, else the real time if
// `in_real_time` is non-zero, else the loop clock.
// Requires: last_tm and tmout not null, their nanoseconds 0 to 999999999.
bool timed_out_as(const struct timespec* last_tm, const struct timespec* tmout, int in_real_time,
                  const struct timespec* clknow);
// Against the loop clock.
bool timed_out(const struct timespec* last_tm, const struct timespec* tmout);
// Against `clknow`, or the loop clock if that is null.
bool timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout, const struct timespec* clknow);
// Against the real time.
bool timed_out_real(const struct timespec* last_tm, const struct timespec* tmout);
// *span becomes `till` less `from`, its nanoseconds 0 to 999999999 (a span backwards has negative seconds).
void calc_timespan(const struct timespec* from, const struct timespec* till, struct timespec* span);

// ---- texts ----------------------------------------------------------------------------------------------------

// While one lives, the C library may hold its calendar lock, for which a signal handler would wait in vain: mk_timestr
// then converts nothing. All conversions of this module are marked; a caller marks what converts on its own account,
// such as syslog(). One may live inside another.
struct [[nodiscard]] calendar_mark {
    calendar_mark();
    ~calendar_mark();
    calendar_mark(const calendar_mark&) = delete;
    calendar_mark& operator=(const calendar_mark&) = delete;

    const sig_atomic_t before; // put back at the end
};

// The local zone's abbreviation with a blank before it, such as " CEST". Read once and then kept; `refresh`
// non-zero reads it anew. Null after a message on stderr if it can't be told; a zone text above 15 characters also
// leaves "#ERR#" as the kept text.
const char* get_timezone(int refresh);
// The text of a time in the form that the log's time format flags name (LTF_, log.h): the length, -35 if it
// interrupts another conversion, -1 if it can't be converted or does not fit. A raw text needs room for its
// terminator; a broken-down one of exactly buflen characters is accepted and its last character gives way to the
// terminator. By design the zone is the local one for GMT times too.
int mk_timestr(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen);
// The reverse of mk_timestr for a text that begins with a time; broken-down texts are taken as local time. The
// number of fields read (2 raw, 6 without microseconds, 7 with), or -1; *tms is cleared first.
int scan_log_time(const char* s, struct timespec* tms, uint32_t flags);
// The GMT date "2018-08-07". 0, or -1 if it does not fit (logged) or can't be converted (said on stderr).
int mk_gmt_date(time_t ut, char* buf, size_t buflen);
// "01d 02h:03m:04s", without the days if there are none. 0, or -1 if it does not fit.
int mk_timespan(long total_sec, char* buf, size_t buflen);

// ---- calendar -------------------------------------------------------------------------------------------------

// 23:59:59 local of the day that `tstamp` lies in, or -1 (logged at error if the day can't be told).
time_t get_endofday_utime(time_t tstamp);

// ---- spans in time or ticks -----------------------------------------------------------------------------------

inline constexpr int TSPAN_CLOCK = 1; // `val.tms` counts
inline constexpr int TSPAN_TICKS = 2; // `val.ticks` counts

struct tspan {
    int mode; // TSPAN_CLOCK or TSPAN_TICKS
    union {
        struct timespec tms;
        uint32_t ticks; // free-running, wraps; 0 in a `last` means never
    } val;
};

// True if now is behind `last` by more than `tmout`: `now` counts in clock mode (null: the loop clock), `ticks_now`
// in tick mode, where a `last` of 0 has timed out at once.
// Requires: tmout->mode == last->mode, one of the two modes.
bool tspan_timed_out(const struct tspan* last, const struct tspan* tmout, const struct timespec* now,
                     uint32_t ticks_now);
// Stores `now` in clock mode, `ticks_now` in tick mode, as ts->mode tells.
// Requires: ts->mode is one of the two modes; now not null in clock mode.
void set_tspan(struct tspan* ts, const struct timespec* now, uint32_t ticks_now);

#endif // TV_TIMEOP_H
