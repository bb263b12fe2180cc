// Logging: channels, levels, the one line buffer, and the call forms that every module uses.
//
// A *channel* (`log_ctx`) is an output: a file, a command or a standard stream, optionally mirrored to a second
// stream, to syslog and to a debug ring log. The program has three: `g_log` (application log), `g_access_log`
// (alert log, also takes the statistics records) and `g_stats_log` (declared, not written to).
// A *line* of the application log goes through a *gate*: the level of the calling file's module against the
// line's level. A *record* (level -127) has no gate and no level tag; alerts and statistics are records.
//
// Use: TV_LOG_MODULE(0) once per source file behind its includes, then
//     tv_log(ll::error, "%s: open(%s) failed\n", __func__, path);
//     tv_record(&g_access_log, "STAT TPS %s\n", src);
// A message brings its own line feed; nothing is added. The arguments of a call are evaluated only when a line
// gets built, so they must have no side effects.
//
// Units: sizes in bytes, times in seconds. Ownership: a channel owns its stream when it was opened by
// log_open_ex or log_popen, and never one that log_default or log_mirror gave it. Returned texts are static.
// Results: 0, or -1; nothing throws. Trouble with the log itself is said on stderr.
// One thread. A signal handler may log: it sets g_sigctx to 1 (util.h) while it runs, and then the line goes to
// the streams only, without syslog and without rotation; it may replace a line that the main road was building.
#ifndef TV_LOG_H
#define TV_LOG_H

#include "tvtypes.h"

#include <sys/types.h>

#include <cassert>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

// ---- levels ---------------------------------------------------------------------------------------------------

// A line shows when its module's level is at least the line's. By design: error stands below critical.
namespace ll
{
inline constexpr int panic = -4;
inline constexpr int error = -3;
inline constexpr int critical = -2;
inline constexpr int warning = -1;
inline constexpr int normal = 0;
inline constexpr int info = 1;
inline constexpr int debug = 2;
inline constexpr int section = 64;
inline constexpr int record = -127; // raw record: no tag, no gate
} // namespace ll

inline constexpr size_t LOG_PATHNAME_MAX = 128;
inline constexpr size_t LOG_GRP_MAX = 32;
inline constexpr size_t LOG_ERRMSG_MAX = 256;
inline constexpr size_t LOG_LEVELS_MAX = 128;   // modules, and sections
inline constexpr size_t LOG_OUTBUF_SIZE = 2048; // the line buffer with its terminator
inline constexpr size_t LOG_ROTA_SLOTS = 128;

// Time format flags (`time_format`). The low two bits name the clock: 0 CLOCK_REALTIME, 1 CLOCK_MONOTONIC.
inline constexpr uint32_t LTF_CLOCK_MASK = 0x3;
inline constexpr uint32_t LTF_NO_USEC = 0x10;  // broken-down forms without microseconds
inline constexpr uint32_t LTF_NO_TIME = 0x100; // no time, and then no process ID either
inline constexpr uint32_t LTF_GMT = 0x200;     // broken-down time in GMT
inline constexpr uint32_t LTF_RAW = 0x400;     // seconds and microseconds

// ---- records --------------------------------------------------------------------------------------------------

struct lard_ctx;
typedef struct lard_ctx* lard_t; // debug ring log, opaque

struct ll_status {
    unsigned mod_ll_set : 1; // all module levels were set as a whole
    unsigned sec_ll_set : 1; // all section levels were set as a whole
};

// Rotation state: a ring of slots with the suffix time of each rotated file that is kept.
struct rotation_ctx {
    time_t tm[LOG_ROTA_SLOTS]; // suffix time, 0 in a free slot
    ssize_t next_idx;          // the next slot
    size_t max_idx;            // slots in use; 0: rotated files are never removed
    size_t max_total;          // bytes at which to rotate; 0: never by size
    time_t max_log_tm;         // next end-of-day rotation; 0 or less: none
};

struct syslog_cfg {
    bool enabled;
    int option;
    int facility;
};

struct log_ctx {
    char name[LOG_PATHNAME_MAX]; // path or command; empty for a default stream
    int is_pipe : 1;             // opened with popen
    uint32_t time_format;        // LTF_ flags
    FILE* fp;                    // output stream
    FILE* mirror_fp;             // second output stream, or null
    size_t total_out;            // bytes written since the stream was opened or rotated
    struct ll_status llst;
    struct rotation_ctx rota;
    pid_t pid;           // printed in each line; 0: none
    union n64_tag group; // printed in each line; 0: none
    lard_t lh;           // debug ring log, or null
    struct syslog_cfg syslg;
};

struct log_module_ctx {
    bool is_ready; // glog_init has run
    char app_tag[128];
};

// Each source file has its own: which row of the level tables decides its lines.
struct loglevel_ctx {
    int mod;          // module index
    int sec;          // section index, -1: none
    int sec_sp;       // stack index, -1: empty
    int sec_stack[8]; // saved sections
};

extern struct log_ctx g_log;
extern struct log_ctx g_access_log;
extern struct log_ctx g_stats_log;
extern struct log_module_ctx g_logmod;
extern int g_mod_ll[LOG_LEVELS_MAX];
extern int g_sec_ll[LOG_LEVELS_MAX];
extern char g_outbuf[LOG_OUTBUF_SIZE]; // the line being built; only the functions below touch it

// ---- call forms -----------------------------------------------------------------------------------------------

// Once per source file, at namespace scope, behind the includes. Module indexes: 2 checked system calls, 3 RTP,
// 4 fdio, 7 stream recognition, 0 all others.
#define TV_LOG_MODULE(module_index)                                                                                    \
    namespace                                                                                                          \
    {                                                                                                                  \
    [[maybe_unused]] constinit struct loglevel_ctx g_llctx = {(module_index), -1, -1, {}};                             \
    }

// The level that decides for a file: its section's if one is in force, else its module's.
inline int log_effective_level(const struct loglevel_ctx* lc)
{
    return lc->sec >= 0 ? g_sec_ll[lc->sec] : g_mod_ll[lc->mod];
}

// The gate. By design the line's own level plays no part while a section is in force.
inline bool log_gate_open(const struct loglevel_ctx* lc, int level)
{
    return lc->sec >= 0 ? g_sec_ll[lc->sec] <= g_mod_ll[lc->mod] : g_mod_ll[lc->mod] >= level;
}

// Writes a line on g_log at a level (an `ll::` constant). The ring log is not gated; the line is built at most
// once for both, and not at all when neither takes it.
#define tv_log(level, ...) tv_log_as(&g_llctx, (level), __VA_ARGS__)

// The same, with the gate of another level context.
#define tv_log_as(lc, level, ...)                                                                                      \
    do {                                                                                                               \
        logbuf_reset();                                                                                                \
        if (lard_enabled(&g_log)) {                                                                                    \
            (void)logbuf_prepare(&g_log, (level), __VA_ARGS__);                                                        \
            log_lard(&g_log, (level));                                                                                 \
        }                                                                                                              \
        if (log_gate_open((lc), (level))) {                                                                            \
            if (logbuf_empty()) (void)logbuf_prepare(&g_log, (level), __VA_ARGS__);                                    \
            log_flush(&g_log, (level));                                                                                \
        }                                                                                                              \
    } while (0)

// Writes a record on a channel: always, unless it could not be built in full.
#define tv_record(channel, ...)                                                                                        \
    do {                                                                                                               \
        logbuf_reset();                                                                                                \
        if (logbuf_prepare((channel), ll::record, __VA_ARGS__) > 0) log_flush((channel), ll::record);                  \
    } while (0)

// A logged assertion: an impossible state writes the call stack to the log at panic, flushes it, and fails a
// plain assertion that shows the expression as written. Live in every build. No side effects inside.
#define tv_assert_logged(expr)                                                                                         \
    do {                                                                                                               \
        if (!(expr)) log_assert_failed(&g_llctx, #expr, __FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__);        \
    } while (0)

// The failing side of tv_assert_logged: logs "ASSERT at:" with the call stack at panic through the given gate,
// flushes g_log's stream, and ends the process as a failed assertion does.
[[noreturn]] void log_assert_failed(const struct loglevel_ctx* lc, const char* expr, const char* file, unsigned line,
                                    const char* func) __attribute__((cold));

// ---- the line buffer (used by the call forms) -----------------------------------------------------------------

// Empties the buffer.
inline void logbuf_reset()
{
    g_outbuf[0] = '\0';
}
// True if nothing has been built.
inline bool logbuf_empty()
{
    return g_outbuf[0] == '\0';
}
// The line as it stands, zero-terminated. Valid until the next call form.
inline const char* logbuf_text()
{
    return g_outbuf;
}
// Builds a line: time, process ID, tag, group, message, as far as the channel and level ask for them. Returns the
// length of the message, or -1 after a word on stderr if the head or the message did not fit (2047 characters in
// all) or the message is empty; the buffer then holds what did fit, without the message's end.
// Requires: the last byte of the channel's group is 0.
int logbuf_prepare(const struct log_ctx* log, int level, const char* fmt, ...)
    __attribute__((format(printf, 3, 4), cold));
// True if the channel has a debug ring log.
inline bool lard_enabled(const struct log_ctx* log)
{
    return log->lh != nullptr;
}
// Hands the line to the channel's ring log; a negative level also raises its temperature.
void log_lard(const struct log_ctx* log, int level);
// Writes the line to the channel's stream, mirror and syslog, and rotates the file when it is due. An empty buffer is
// no line. A channel that has no stream, or has lost it in a rotation, goes on at standard error.
void log_flush(struct log_ctx* log, int level);

// ---- channels -------------------------------------------------------------------------------------------------

// Names the application; must run before any channel is opened. At most 127 characters are kept.
// Requires: app_tag not null.
void glog_init(const char* app_tag);
// Sets the stream; the first call on g_log also raises all section levels to ll::section.
void log_default(struct log_ctx* log, FILE* fp);
// Sets the second stream and makes it line-buffered.
void log_mirror(struct log_ctx* log, FILE* fp);
FILE* log_mirror_fp(const struct log_ctx* log);
FILE* log_fp(const struct log_ctx* log);
void log_set_pid(struct log_ctx* log, pid_t pid);
pid_t log_get_pid(const struct log_ctx* log);
// The group is the number of an n64_tag whose last byte is 0.
void log_set_group(struct log_ctx* log, uint64_t group);
uint64_t log_get_group(const struct log_ctx* log);
void log_timefmt(struct log_ctx* log, uint32_t flags);
// Sets the ring log (null: none), returns the previous one. The channel destroys it at log_close.
lard_t log_set_lard(struct log_ctx* log, lard_t lh);
// Closes the stream unless it is a standard one, closes syslog if it is on, destroys the ring log if there is one.
// By design the channel keeps its stale stream: it is the last call on a channel.
void log_close(struct log_ctx* log);

// True if the channel's record holds together: name and group terminated, slot numbers inside the rotation ring. No
// effects.
bool log_validate(const struct log_ctx* log);
// Prints the record in words, a field a line, for a debugger or a failed test.
void log_dump(const struct log_ctx* log, FILE* out);

// ---- levels and words -----------------------------------------------------------------------------------------

// Sets all section levels, or all module levels.
void log_set_sections(struct log_ctx* log, int level);
void log_set_modules(struct log_ctx* log, int level);
// Saves and restores the module levels; depth one, a second push or pop is ignored.
void log_push_mlevels();
void log_pop_mlevels();
// Word to level, in any case; 0, or -1 for an unknown word (*level is then left alone).
int match_log_level(const char* str, int* level);
// "(INF)" and kin; "( ? )" for an unknown level.
const char* get_level_tag(int level);
// "info" and kin; "??" for an unknown level. By design ll::critical reads "ctitical".
const char* log_level_str(int level);
// Syslog priority of a level, 1 to 7.
int get_syslog_pri(int level);
// An environment variable as a level; the default if it is unset or is neither a non-zero number nor "0".
int read_level_env(const char* varname, int default_level);

// ---- call stack -----------------------------------------------------------------------------------------------

// The call stack as text, at most 16 frames, one line "#%d: %s\n" each, always terminated. 0, or -1.
int btrace_to_buf(char* buf, size_t buflen);
// A formatted head, then the call stack behind it. 0, or -1.
int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// ---- files, commands, rotation --------------------------------------------------------------------------------

// Opens a file for appending; unless bit 0 of flags is set, a non-empty earlier file is first renamed to
// "path.mtime". 0, or -1 after a message on stderr.
int log_open_ex(struct log_ctx* log, const char* filename, uint32_t flags);
// Opens a command to write to. 0, or -1 after a message on stderr.
int log_popen(struct log_ctx* log, const char* cmd);
// The opening itself, used again after a rotation. `filecmd` may be log->name, or null for stderr.
int do_open(struct log_ctx* log, const char* filecmd);
// Renames a non-empty regular file to "path.mtime". 0, 7 if the new name is too long, else the failed call's result.
int move_if_present(const char* fpath);
// Rotation limits: bytes (0: none), rotated files kept (0 or 128 and above: 16), end of day (below 1: none).
void log_set_rota(struct log_ctx* log, size_t maxsize, size_t maxfiles, time_t max_time);
void log_set_eod(struct log_ctx* log, time_t max_time);
size_t log_rota_maxfiles(const struct log_ctx* log);
size_t log_rota_maxsize(const struct log_ctx* log);
time_t log_rota_eod(const struct log_ctx* log);
// Rotates now: renames the file to "path.time" and begins a new one. 0, or -1. Not from a signal handler.
int log_rotate(struct log_ctx* log);
// Bookkeeping of kept files after a rotation: the oldest beyond max_idx is unlinked.
void handle_rotation(struct log_ctx* log, time_t now, const char* prev_log);

// ---- syslog ---------------------------------------------------------------------------------------------------

// Opens syslog for a channel: lines below ll::normal, records included, go there too. `app` must stay alive.
void config_syslog(struct log_ctx* log, const char* app, int option, int facility);
void disable_syslog(struct log_ctx* log);
// The same for g_log, with LOG_PID | LOG_CONS and facility local0.
void glog_enable_syslog(const char* app);
void glog_disable_syslog();

#endif // TV_LOG_H
