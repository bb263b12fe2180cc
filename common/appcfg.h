// The configuration sections that the programs of the family share: log, runtime, and request listeners.
//
// A section is read from a libconfig group into a plain record, shown with a dump function, and applied to a log
// channel. Reading a section sets every field of its record: a missing key gets the default of load_..., not what
// stood in the record before. Reading stops at the first bad value; fields that come later are then left alone.
// Bad words are said on stderr, since the log isn't open yet when a section is read; a text that is too long is logged.
// Units: max_size_mb in Mb (2^20 bytes). Ownership: the records own nothing.
// Results: 0 or -1. One thread; not from a signal handler.
#ifndef COMMON_APPCFG_H
#define COMMON_APPCFG_H

#include <libconfig.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct log_ctx;
struct rui_cfg; // rui.h

// ---- records --------------------------------------------------------------------------------------------------

struct log_cfg {
    char path[128];     // file, or a command behind a vertical bar; empty: none
    int level;          // an ll:: level
    int32_t timefmt;    // LTF_ flags
    bool enable_syslog; // write to syslog as well
    int facility;       // syslog facility
    int max_size_mb;    // rotation size; 0: none
    int max_files;      // rotated files to keep
    bool eod_rotate;    // rotate at the end of the day
};

struct rt_cfg {
    char pidfile[128];       // empty: none
    char user[32];           // user to become; empty: stay
    bool non_daemon;         // stay in the foreground
    bool quiet;              // nothing to the terminal
    bool enforce_core_dumps; // shown, and otherwise without effect
    int cpunum;              // shown if 0 or above, and otherwise without effect
};

// ---- words ----------------------------------------------------------------------------------------------------

// What str_to_timefmt returns for a word that it doesn't know.
inline constexpr int32_t TIMEFMT_BAD = 0x40000000;

// Time format words to LTF_ flags, in any case: "raw", "raw_mono", "no_time", "gmt", "local". TIMEFMT_BAD for others.
int32_t str_to_timefmt(const char* str);
// And back; "#error#" for TIMEFMT_BAD. The first flag that is set decides: raw, then no_time, then gmt, else local.
const char* timefmt_str(int32_t timefmt);

// Syslog facility: "user" in any case, or "local0" to "local7". By design "local" must be in lower case, and what
// follows its number is not looked at. -1 for anything else.
int str2fac(const char* str);
// And back; "#unknown#" for other facilities.
const char* fac2str(int facility);

// ---- log section ----------------------------------------------------------------------------------------------

// Reads `file`, `level`, `time_format`, `max_size_mb`, `max_files`, `enable_syslog`, `syslog_facility` (only if syslog
// is on, which is the default), `eod_rotate`. 0 or -1.
int load_log_config(config_setting_t* s, struct log_cfg* dst);

// Sets the channel's rotation limits.
void apply_log_config(struct log_ctx* log, const struct log_cfg* lcfg);

// Opens syslog for the channel if the section says so; `app` must stay alive.
void apply_syslog_config(struct log_ctx* log, const char* app, const struct log_cfg* lcfg);

// Writes the section as text; a null or empty tag stands for "regular". `log` is asked for its next rotation.
void dump_log_config(FILE* fp, const char* tag, const struct log_cfg* lgc, struct log_ctx* log);

// ---- runtime section ------------------------------------------------------------------------------------------

// Reads `pidfile`, `non_daemon`, `quiet`, `enforce_core_dumps`, `cpunum`, `run_as_user`. 0 or -1.
int load_rt_config(config_setting_t* s, struct rt_cfg* rt);

// Writes the section as text.
void dump_rt_config(FILE* fp, const struct rt_cfg* rt);

// ---- request listeners ----------------------------------------------------------------------------------------

// Reads `user`, `admin`, `custom` (each a group for one listener or a list of up to four), `max_to_accept`, and for the
// classes that are there `user_request_timeout`, `admin_request_timeout`, `custom_request_timeout` (ms). 0 or -1; bad
// numbers are said on stderr, the rest is logged. Unlike the other sections this one leaves alone what it has no key
// for: the listeners of a class that is missing, and its time-out.
// By design `max_to_accept` must be there, though it has a default.
// After a failure the listeners read before it stay valid, with their interfaces, for rui_cfg_free.
// Requires: the record is cleared or holds defaults, and owns no interface.
int load_rui_config(config_setting_t* s, struct rui_cfg* rui);

// Writes the section as text.
void dump_rui_config(FILE* fp, const struct rui_cfg* rui);

#endif // COMMON_APPCFG_H
