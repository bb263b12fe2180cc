// Log core: the level tables, the one line buffer, the building of a line and its way out.
//
// The buffer is one for the whole process and not guarded: a signal handler that logs may replace the line that it
// interrupts. That costs at most one line, and keeps every line free of allocation. All arithmetic on the buffer is
// on local variables, so that such an interruption never leads outside of it.
#include "log.h"

#include "lard.h"
#include "log_int.h"
#include "timeop.h"
#include "util.h"

#include <execinfo.h>
#include <strings.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <type_traits>

static_assert(std::is_trivially_default_constructible_v<log_ctx> && std::is_standard_layout_v<log_ctx>);
static_assert(std::is_trivially_default_constructible_v<log_module_ctx> && std::is_standard_layout_v<log_module_ctx>);

constinit struct log_ctx g_log = {};
constinit struct log_ctx g_access_log = {};
constinit struct log_ctx g_stats_log = {};
constinit struct log_module_ctx g_logmod = {};
constinit int g_mod_ll[LOG_LEVELS_MAX] = {};
constinit int g_sec_ll[LOG_LEVELS_MAX] = {};
constinit char g_outbuf[LOG_OUTBUF_SIZE] = {};

namespace
{

// Levels below this are raw records, which show no tag.
constexpr int LOWEST_TAGGED_LEVEL = -126;
constexpr int BTRACE_FRAMES_MAX = 16;
constexpr size_t BTRACE_BUF_SIZE = 512;
constexpr size_t LINE_CHARS_MAX = LOG_OUTBUF_SIZE - 1;

constinit int g_saved_ll[LOG_LEVELS_MAX] = {};
constinit bool g_levels_pushed = false;

struct level_row {
    int level;
    const char* tag;
    const char* word;
    int syslog_pri;
};

// By design: "ctitical" is what readers of the log have always matched on.
constexpr std::array<level_row, 8> LEVELS = {{
    {ll::panic, "(PNC)", "panic", LOG_ALERT},
    {ll::error, "(ERR)", "error", LOG_ERR},
    {ll::critical, "(CRI)", "ctitical", LOG_CRIT},
    {ll::warning, "(WRN)", "warning", LOG_WARNING},
    {ll::normal, "(NRM)", "normal", LOG_NOTICE},
    {ll::info, "(INF)", "info", LOG_INFO},
    {ll::debug, "(DBG)", "debug", LOG_DEBUG},
    {ll::section, "(SCT)", "section", LOG_DEBUG},
}};
constexpr level_row UNKNOWN_LEVEL = {0, "( ? )", "??", LOG_DEBUG};
static_assert(LOG_ALERT == 1 && LOG_CRIT == 2 && LOG_ERR == 3 && LOG_WARNING == 4 && LOG_NOTICE == 5 && LOG_INFO == 6 &&
              LOG_DEBUG == 7);

struct level_word {
    const char* word;
    int level;
};

// By design there is no word for panic: it can't be asked for.
constexpr std::array<level_word, 13> LEVEL_WORDS = {{
    {"err", ll::error},
    {"error", ll::error},
    {"crit", ll::critical},
    {"critical", ll::critical},
    {"warn", ll::warning},
    {"warning", ll::warning},
    {"norm", ll::normal},
    {"normal", ll::normal},
    {"info", ll::info},
    {"debug", ll::debug},
    {"dbg", ll::debug},
    {"section", ll::section},
    {"sect", ll::section},
}};
static_assert(LEVEL_WORDS.back().word != nullptr);

const level_row& row_of(int level)
{
    const auto* it =
        std::find_if(LEVELS.begin(), LEVELS.end(), [level](const level_row& r) { return r.level == level; });
    return it == LEVELS.end() ? UNKNOWN_LEVEL : *it;
}

// The clock that the low bits of the time format name: 0, or -1 after a word on stderr.
int flags2clock(uint32_t flags, clockid_t* clk)
{
    const uint32_t timer = flags & LTF_CLOCK_MASK;
    switch (timer) {
    case 0: *clk = CLOCK_REALTIME; return 0;
    case 1: *clk = CLOCK_MONOTONIC; return 0;
    default: fprintf(stderr, "%s: unsupported timer value: %u\n", __func__, timer); return -1;
    }
}

// Where a line grows: the next character goes to `at`, `left` characters still fit ahead of the terminator.
struct line_cursor {
    char* at;
    size_t left;
};

bool fits(const line_cursor& cur, int n)
{
    return n > 0 && static_cast<size_t>(n) < cur.left;
}

// Moves on behind n characters and puts one blank over their terminator.
void advance_with_blank(line_cursor* cur, int n)
{
    const auto len = static_cast<size_t>(n);
    cur->at[len] = ' ';
    cur->at += len + 1;
    cur->left -= len + 1;
    *cur->at = '\0';
}

// A piece that did not fit leaves nothing behind: the line ends where it stood before.
int refuse(const line_cursor& cur)
{
    *cur.at = '\0';
    return -1;
}

int put_time(line_cursor* cur, uint32_t flags)
{
    clockid_t clk = CLOCK_REALTIME;
    if (flags2clock(flags, &clk) != 0) return -1;
    struct timespec now = {};
    if (clock_gettime(clk, &now) != 0) {
        perror("clock_gettime");
        return -1;
    }
    const int n = mk_timestr(&now, flags, cur->at, cur->left);
    if (!fits(*cur, n)) {
        fprintf(stderr, "%s: time buffer error (n=%d)\n", "logbuf_prepare", n);
        return refuse(*cur);
    }
    advance_with_blank(cur, n);
    return 0;
}

int put_pid(line_cursor* cur, pid_t pid)
{
    const int n = snprintf(cur->at, cur->left, "%lu ", static_cast<unsigned long>(pid));
    if (!fits(*cur, n)) {
        fprintf(stderr, "%s: pid buffer error (n=%d)", "logbuf_prepare", n);
        return refuse(*cur);
    }
    advance_with_blank(cur, n);
    return 0;
}

int put_tag(line_cursor* cur, int level)
{
    const int n = snprintf(cur->at, cur->left, "%s ", get_level_tag(level));
    if (!fits(*cur, n)) {
        fprintf(stderr, "%s: level buffer error (n=%d)", "logbuf_prepare", n);
        return refuse(*cur);
    }
    advance_with_blank(cur, n);
    return 0;
}

int put_group(line_cursor* cur, const struct log_ctx* log)
{
    // clang-format off
    assert(0 == log->group.sym8[sizeof(log->group.sym8)-1]);
    // clang-format on
    const int n = snprintf(cur->at, cur->left, "%s ", log->group.sym8);
    if (!fits(*cur, n)) {
        fprintf(stderr, "%s: group buffer error (n=%d)", "logbuf_prepare", n);
        return refuse(*cur);
    }
    advance_with_blank(cur, n);
    return 0;
}

// All that stands ahead of the message: 0, or -1.
int put_head(line_cursor* cur, const struct log_ctx* log, int level)
{
    if ((log->time_format & LTF_NO_TIME) == 0) {
        if (put_time(cur, log->time_format) != 0) return -1;
        if (log->pid > 0 && put_pid(cur, log->pid) != 0) return -1;
    }
    if (level >= LOWEST_TAGGED_LEVEL && put_tag(cur, level) != 0) return -1;
    if (log->group.num != 0 && put_group(cur, log) != 0) return -1;
    return 0;
}

void put_to_syslog(const struct log_ctx* log, int level)
{
    const calendar_mark mark; // syslog() writes a time of its own
    syslog(log->syslg.facility | get_syslog_pri(level), "%s", g_outbuf);
}

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
static_assert(sizeof(std::unique_ptr<char*, free_deleter>) == sizeof(char**));

} // namespace

// ---- the line buffer ------------------------------------------------------------------------------------------

int logbuf_prepare(const struct log_ctx* log, int level, const char* fmt, ...)
{
    line_cursor cur = {g_outbuf, LINE_CHARS_MAX};
    *cur.at = '\0';
    if (put_head(&cur, log, level) != 0) return -1;

    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(cur.at, cur.left + 1, fmt, args);
    va_end(args);
    if (n <= 0 || static_cast<size_t>(n) > cur.left) {
        // The buffer keeps the head and what fitted of the message: the log form still writes it.
        perror("fprintf/vfprintf");
        return -1;
    }
    return n;
}

void log_lard(const struct log_ctx* log, int level)
{
    if (!lard_enabled(log) || logbuf_empty()) return;
    (void)lard_puts(log->lh, g_outbuf); // a line that the ring can't hold is in the file all the same
    if (level < 0) lard_set_temp(log->lh, -level);
}

void log_flush(struct log_ctx* log, int level)
{
    if (logbuf_empty()) return;
    // A handler may replace the buffer at any moment; what is counted is what was asked to be written.
    const size_t len = strnlen(g_outbuf, sizeof(g_outbuf));
    if (!log->fp) log->fp = stderr;
    (void)fputs(g_outbuf, log->fp); // nobody could be told of a log that can't be written
    log->total_out += len;
    if (log->mirror_fp && fileno(log->mirror_fp) != fileno(log->fp)) (void)fputs(g_outbuf, log->mirror_fp);
    if (g_sigctx != 0) return; // neither syslog nor renames from a signal handler

    if (level < 0 && log->syslg.enabled) put_to_syslog(log, level);
    if (!log_int::is_std_stream(log)) log_int::rotate_if_due(log);
}

void log_assert_failed(const struct loglevel_ctx* lc, const char* expr, const char* file, unsigned line,
                       const char* func)
{
    char bt[BTRACE_BUF_SIZE] = "";
    (void)btrace_to_buf(bt, sizeof(bt)); // without a stack the line still tells that it happened
    tv_log_as(lc, ll::panic, "ASSERT at:\n%s==\n", bt);
    if (g_log.fp) (void)fflush(g_log.fp);
    __assert_fail(expr, file, line, func);
}

// ---- channels -------------------------------------------------------------------------------------------------

void glog_init(const char* app_tag)
{
    assert(app_tag);
    const size_t len = strnlen(app_tag, sizeof(g_logmod.app_tag) - 1);
    memcpy(g_logmod.app_tag, app_tag, len);
    g_logmod.app_tag[len] = '\0';
    g_logmod.is_ready = true;
}

void log_default(struct log_ctx* log, FILE* fp)
{
    log->fp = fp;
    // Keeps the section rule of the gate shut until somebody asks for sections.
    if (log == &g_log && !log->llst.sec_ll_set) log_set_sections(log, ll::section);
}

void log_mirror(struct log_ctx* log, FILE* fp)
{
    log->mirror_fp = fp;
    if (fp) (void)setvbuf(fp, nullptr, _IOLBF, 0); // the stream works in any buffering
}

FILE* log_mirror_fp(const struct log_ctx* log)
{
    return log->mirror_fp;
}

FILE* log_fp(const struct log_ctx* log)
{
    return log->fp;
}

void log_set_pid(struct log_ctx* log, pid_t pid)
{
    log->pid = pid;
}

pid_t log_get_pid(const struct log_ctx* log)
{
    return log->pid;
}

void log_set_group(struct log_ctx* log, uint64_t group)
{
    log->group.num = static_cast<int64_t>(group);
}

uint64_t log_get_group(const struct log_ctx* log)
{
    return static_cast<uint64_t>(log->group.num);
}

void log_timefmt(struct log_ctx* log, uint32_t flags)
{
    log->time_format = flags;
}

lard_t log_set_lard(struct log_ctx* log, lard_t lh)
{
    lard_t previous = log->lh;
    log->lh = lh;
    return previous;
}

void log_close(struct log_ctx* log)
{
    if (!log->fp || log_int::is_std_stream(log)) return;

    const bool is_pipe = log->is_pipe != 0;
    const int rc = is_pipe ? pclose(log->fp) : fclose(log->fp);
    // A daemon that ignores or reaps its children elsewhere has nothing left to wait for.
    if (rc == -1 && !(is_pipe && errno == ECHILD)) {
        const int err = errno;
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__, is_pipe ? "pclose" : "fclose", err,
                strerror(err));
    }
    if (log->syslg.enabled) closelog();
    lard_destroy(log->lh);
    log->lh = nullptr;
}

// ---- levels and words -----------------------------------------------------------------------------------------

void log_set_sections(struct log_ctx* log, int level)
{
    std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), level);
    log->llst.sec_ll_set = 1;
}

void log_set_modules(struct log_ctx* log, int level)
{
    std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), level);
    log->llst.mod_ll_set = 1;
}

void log_push_mlevels()
{
    if (g_levels_pushed) return;
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), std::begin(g_saved_ll));
    g_levels_pushed = true;
}

void log_pop_mlevels()
{
    if (!g_levels_pushed) return;
    std::copy(std::begin(g_saved_ll), std::end(g_saved_ll), std::begin(g_mod_ll));
    g_levels_pushed = false;
}

int match_log_level(const char* str, int* level)
{
    for (const level_word& w : LEVEL_WORDS) {
        if (strcasecmp(w.word, str) == 0) {
            *level = w.level;
            return 0;
        }
    }
    return -1;
}

const char* get_level_tag(int level)
{
    return row_of(level).tag;
}

const char* log_level_str(int level)
{
    return row_of(level).word;
}

int get_syslog_pri(int level)
{
    return row_of(level).syslog_pri;
}

int read_level_env(const char* varname, int default_level)
{
    const char* value = getenv(varname);
    if (!value) return default_level;
    const int level = atoi(value);
    return level != 0 || strcmp(value, "0") == 0 ? level : default_level;
}

// ---- call stack -----------------------------------------------------------------------------------------------

int btrace_to_buf(char* buf, size_t buflen)
{
    if (buflen > 0) *buf = '\0';
    void* frames[BTRACE_FRAMES_MAX];
    errno = 0;
    const int count = backtrace(frames, BTRACE_FRAMES_MAX);
    if (count <= 0) {
        if (errno != 0) perror("backtrace");
        return -1;
    }
    const std::unique_ptr<char*, free_deleter> symbols(backtrace_symbols(frames, count));
    if (!symbols) {
        perror("backtrace_symbols");
        return -1;
    }
    size_t pos = 0;
    for (int i = 0; i < count && pos + 1 < buflen; ++i) {
        const int n = snprintf(buf + pos, buflen - pos, "#%d: %s\n", i, symbols.get()[i]);
        if (n < 0) break;
        pos += static_cast<size_t>(n); // at or past the end: the last line was cut, the buffer is used up
    }
    return 0;
}

int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(buf, buflen, fmt, args);
    va_end(args);
    if (n < 0 || static_cast<size_t>(n) >= buflen) return -1;
    return btrace_to_buf(buf + n, buflen - static_cast<size_t>(n));
}
