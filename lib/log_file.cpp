// Log files: opening a channel on a file or a command, setting full files aside, syslog.
//
// Trouble is said on stderr, since the log itself can't be counted on; only what follows a reopening goes through
// g_log. While a file is closed for a rotation its channel stands on stderr, so that no line, not even one from a
// signal handler, meets a closed stream; it stays there if the file can't be opened again.
#include "log.h"

#include "log_int.h"
#include "timeop.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr uint32_t OPEN_KEEP_EARLIER = 0x1; // flag of log_open_ex: append to what is there
constexpr size_t ROTATED_NAME_SIZE = 160;
constexpr size_t RENAME_ERRMSG_SIZE = LOG_ERRMSG_MAX - 1;
constexpr size_t ROTA_FILES_DEFAULT = 16;
constexpr int MOVE_NAME_TOO_LONG = 7;
constexpr int SYSLOG_OPTION_DEFAULT = LOG_PID | LOG_CONS;
constexpr int SYSLOG_FACILITY_DEFAULT = LOG_LOCAL0;
static_assert(SYSLOG_OPTION_DEFAULT == 3 && SYSLOG_FACILITY_DEFAULT == 128);

// The rotations under way, innermost first: a rotation of the alert log may start one of the application log, but
// none starts a second one of its own channel.
struct rotation_mark {
    const struct log_ctx* log;
    const rotation_mark* outer;
};
constinit const rotation_mark* g_rotating = nullptr;

bool is_rotating(const struct log_ctx* log)
{
    for (const rotation_mark* m = g_rotating; m; m = m->outer) {
        if (m->log == log) return true;
    }
    return false;
}

// Formats the name of a rotated file for `caller`: true, or false after a word on stderr.
bool mk_rotated_name(const char* caller, const struct log_ctx* log, time_t suffix, char (&name)[ROTATED_NAME_SIZE])
{
    const int n = snprintf(name, sizeof(name), "%s.%lu", log->name, static_cast<unsigned long>(suffix));
    if (n >= 0 && static_cast<size_t>(n) < sizeof(name)) return true;
    fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", caller, n,
            static_cast<unsigned long>(sizeof(name) - 1));
    return false;
}

// True if the channel has a file that may be renamed; else *result is what log_rotate returns.
bool is_rotatable(const char* caller, const struct log_ctx* log, int* result)
{
    *result = -1;
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", caller);
        *result = 0;
        return false;
    }
    if (log_int::is_std_stream(log)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", caller);
        return false;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", caller);
        return false;
    }
    return true;
}

FILE* open_stream(const struct log_ctx* log, const char* filecmd)
{
    FILE* fp = log->is_pipe ? popen(filecmd, "w") : fopen(filecmd, "a+");
    if (!fp) {
        const int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", "do_open", static_cast<long>(geteuid()),
                static_cast<long>(getegid()), log->is_pipe ? "popen" : "fopen", filecmd, err, strerror(err));
    }
    return fp;
}

// The size of the channel's file, so that what an earlier run wrote counts; 0 if it can't be told.
size_t initial_size(const struct log_ctx* log)
{
    struct stat st = {};
    if (fstat(fileno(log->fp), &st) != 0) {
        const int err = errno;
        fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", "do_open", log->name, err, strerror(err));
        return 0;
    }
    return static_cast<size_t>(st.st_size);
}

// Removes the file of a slot, whose place `now` takes. False if its name can't be built.
bool remove_oldest(const struct log_ctx* log, time_t oldest, time_t now)
{
    char path[ROTATED_NAME_SIZE];
    if (!mk_rotated_name("handle_rotation", log, oldest, path)) return false;
    if (unlink(path) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: unlink(%s) ERROR(%d) : %s\n", "handle_rotation", path, err, strerror(err));
    } else {
        tv_log(ll::debug, "%s: replaced %s with %s.%lu\n", "handle_rotation", path, log->name,
               static_cast<unsigned long>(now));
    }
    return true;
}

// The rotation proper, from closing the file to the bookkeeping: the result of log_rotate.
int swap_file(struct log_ctx* log, time_t now, const char* new_name)
{
    FILE* fp = log->fp;
    log->fp = stderr;
    if (fclose(fp) != 0) {
        const int err = errno;
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", "log_rotate", log->name, err, strerror(err));
        return -1;
    }
    char errmsg[RENAME_ERRMSG_SIZE] = "";
    const bool renamed = rename(log->name, new_name) == 0;
    if (!renamed) {
        const int err = errno;
        const int n = snprintf(errmsg, sizeof(errmsg), "%s: failed to rename [%s] to [%s], ERROR(%d): %s", "log_rotate",
                               log->name, new_name, err, strerror(err));
        if (n < 0) errmsg[0] = '\0'; // a long text is cut, and tells enough
        fprintf(stderr, "%s - rotation is to be stopped\n", errmsg);
    }
    const int rc = do_open(log, log->name);
    if (rc != 0) return rc;
    if (!renamed) {
        log->total_out = 0; // the next attempt comes after another max_total bytes
        tv_log(ll::error, "%s: %s - rotation cancelled this time\n", "log_rotate", errmsg);
        return 0;
    }
    if (log->rota.max_idx != 0) handle_rotation(log, now, new_name);
    return 0;
}

} // namespace

bool log_int::is_std_stream(const struct log_ctx* log)
{
    return log->fp == stdout || log->fp == stderr;
}

void log_int::rotate_if_due(struct log_ctx* log)
{
    if (is_rotating(log)) return;
    struct rotation_ctx* rota = &log->rota;
    bool due = rota->max_total != 0 && rota->max_total <= log->total_out;
    if (rota->max_log_tm > 0) {
        const time_t now = time(nullptr);
        if (now > rota->max_log_tm) {
            rota->max_log_tm = get_endofday_utime(now);
            due = true;
        }
    }
    if (due) (void)log_rotate(log); // it says itself what went wrong, and the log goes on either way
}

// ---- files, commands, rotation --------------------------------------------------------------------------------

int log_open_ex(struct log_ctx* log, const char* filename, uint32_t flags)
{
    log->is_pipe = 0;
    if (filename && (flags & OPEN_KEEP_EARLIER) == 0)
        (void)move_if_present(filename); // an old log must not stop a start
    return do_open(log, filename);
}

int log_popen(struct log_ctx* log, const char* cmd)
{
    log->is_pipe = -1; // a one-bit signed field: -1 is its set bit
    return do_open(log, cmd);
}

int do_open(struct log_ctx* log, const char* filecmd)
{
    assert(g_logmod.is_ready);
    if (!filecmd) {
        log->fp = stderr;
        log->total_out = 0;
        return 0;
    }
    if (strlen(filecmd) > LOG_PATHNAME_MAX) {
        fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n", static_cast<long>(LOG_PATHNAME_MAX));
        return -1;
    }
    FILE* fp = open_stream(log, filecmd);
    if (!fp) return -1;
    log->fp = fp;
    if (filecmd != log->name) {
        const size_t len = strnlen(filecmd, sizeof(log->name) - 1);
        memmove(log->name, filecmd, len);
        log->name[len] = '\0';
    }
    // Unbuffered: a line is in the file at once, even if the process dies with the next one.
    if (setvbuf(fp, nullptr, log->is_pipe ? _IOLBF : _IONBF, 0) != 0) perror("setvbuf");
    log->total_out = log->is_pipe ? 0 : initial_size(log);
    return 0;
}

int move_if_present(const char* fpath)
{
    struct stat st = {};
    if (stat(fpath, &st) != 0) {
        const int err = errno;
        if (err == ENOENT) return 0;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", fpath, err, strerror(err));
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size <= 0) return 0;

    char moved[LOG_PATHNAME_MAX];
    const int n = snprintf(moved, sizeof(moved), "%s.%lu", fpath, static_cast<unsigned long>(st.st_mtime));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(moved)) return MOVE_NAME_TOO_LONG;
    const int rc = rename(fpath, moved);
    if (rc != 0) {
        const int err = errno;
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", fpath, moved, err, strerror(err));
    }
    return rc;
}

void log_set_rota(struct log_ctx* log, size_t maxsize, size_t maxfiles, time_t max_time)
{
    log->rota.max_total = maxsize;
    log->rota.max_idx = maxfiles == 0 || maxfiles >= LOG_ROTA_SLOTS ? ROTA_FILES_DEFAULT : maxfiles;
    log->rota.max_log_tm = max_time < 1 ? 0 : get_endofday_utime(max_time);
}

void log_set_eod(struct log_ctx* log, time_t max_time)
{
    log->rota.max_log_tm = max_time;
}

size_t log_rota_maxfiles(const struct log_ctx* log)
{
    return log->rota.max_idx;
}

size_t log_rota_maxsize(const struct log_ctx* log)
{
    return log->rota.max_total;
}

time_t log_rota_eod(const struct log_ctx* log)
{
    return log->rota.max_log_tm;
}

int log_rotate(struct log_ctx* log)
{
#ifdef KVT_DEEP_CHECKS
    assert(log_validate(log));
#endif
    int result = 0;
    if (!is_rotatable(__func__, log, &result)) return result;
    const time_t now = time(nullptr);
    char new_name[ROTATED_NAME_SIZE];
    if (!mk_rotated_name(__func__, log, now, new_name)) return -1;

    const rotation_mark mark = {log, g_rotating};
    g_rotating = &mark;
    result = swap_file(log, now, new_name);
    g_rotating = mark.outer;
    return result;
}

void handle_rotation(struct log_ctx* log, time_t now, const char* prev_log)
{
    struct rotation_ctx* rota = &log->rota;
    const auto idx = static_cast<size_t>(rota->next_idx);
    assert(idx < LOG_ROTA_SLOTS);
    tv_log(ll::normal, "[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", g_logmod.app_tag, prev_log,
           static_cast<long>(now), static_cast<long>(idx));
    if (rota->tm[idx] != 0 && !remove_oldest(log, rota->tm[idx], now)) return;

    rota->tm[idx] = now;
    // Not "equal": the number of slots may have shrunk since.
    const size_t slots = rota->max_idx < LOG_ROTA_SLOTS ? rota->max_idx : LOG_ROTA_SLOTS;
    rota->next_idx = idx + 1 >= slots ? 0 : rota->next_idx + 1;
    errno = 0;
}

// ---- syslog ---------------------------------------------------------------------------------------------------

void config_syslog(struct log_ctx* log, const char* app, int option, int facility)
{
    openlog(app, option, facility);
    log->syslg = {.enabled = true, .option = option, .facility = facility};
}

void disable_syslog(struct log_ctx* log)
{
    closelog();
    log->syslg.enabled = false;
}

void glog_enable_syslog(const char* app)
{
    config_syslog(&g_log, app, SYSLOG_OPTION_DEFAULT, SYSLOG_FACILITY_DEFAULT);
}

void glog_disable_syslog()
{
    disable_syslog(&g_log);
}
