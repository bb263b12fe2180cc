// The common configuration sections. Words are looked up in tables; the order in which keys are read decides which
// fault is told first, so it stays as it stands.
#include "appcfg.h"

#include "config.h"
#include "log.h"

#include <strings.h>
#include <syslog.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace
{

constexpr size_t WORD_MAX = 16; // a word of a log section, with its zero

// Values of a section that has no such key.
constexpr char D_LEVEL[] = "info";
constexpr char D_TIME_FORMAT[] = "local";
constexpr int D_MAX_SIZE_MB = 64;
constexpr int D_MAX_FILES = 16;
constexpr bool D_ENABLE_SYSLOG = true;
constexpr char D_FACILITY[] = "local0";
constexpr int D_CPUNUM = -1;

constexpr unsigned MB_SHIFT = 20;
constexpr int SYSLOG_OPTIONS = LOG_PID | LOG_CONS;
static_assert(SYSLOG_OPTIONS == 3);

struct timefmt_word {
    const char* word;
    uint32_t flags;
};

constexpr uint32_t CLOCK_MONO_BIT = 0x1;
constexpr std::array TIMEFMT_WORDS = {
    timefmt_word{"raw", LTF_RAW},
    timefmt_word{"raw_mono", LTF_RAW | CLOCK_MONO_BIT},
    timefmt_word{"no_time", LTF_NO_TIME},
    timefmt_word{"gmt", LTF_GMT},
    timefmt_word{"local", 0},
};
static_assert(TIMEFMT_WORDS[1].flags == 1025 && TIMEFMT_WORDS[2].flags == 256 && TIMEFMT_WORDS[3].flags == 512);

struct facility_name {
    const char* name;
    int facility;
};

constexpr std::array FACILITIES = {
    facility_name{"local0", LOG_LOCAL0}, facility_name{"local1", LOG_LOCAL1}, facility_name{"local2", LOG_LOCAL2},
    facility_name{"local3", LOG_LOCAL3}, facility_name{"local4", LOG_LOCAL4}, facility_name{"local5", LOG_LOCAL5},
    facility_name{"local6", LOG_LOCAL6}, facility_name{"local7", LOG_LOCAL7}, facility_name{"user", LOG_USER},
};
constexpr int LOCAL_COUNT = 8; // local0 to local7 stand at their own index
static_assert(FACILITIES.size() == LOCAL_COUNT + 1);
static_assert(FACILITIES[0].facility == 128 && FACILITIES[7].facility == 184 && FACILITIES[8].facility == 8);

int int_or(const config_setting_t* s, const char* key, int default_val)
{
    int val = 0;
    return CONFIG_TRUE == config_setting_lookup_int(s, key, &val) ? val : default_val;
}

bool bool_or(const config_setting_t* s, const char* key, bool default_val)
{
    int val = 0;
    return CONFIG_TRUE == config_setting_lookup_bool(s, key, &val) ? 0 != val : default_val;
}

const char* flag_text(bool flag, const char* text)
{
    return flag ? text : "";
}

int load_level(config_setting_t* s, int* level)
{
    char word[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "level", word, sizeof(word) - 1, D_LEVEL)) return rc;
    const int rc = match_log_level(word, level);
    if (rc) fprintf(stderr, "Invalid log level: %s\n", word);
    return rc;
}

int load_timefmt(config_setting_t* s, int32_t* timefmt)
{
    char word[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "time_format", word, sizeof(word) - 1, D_TIME_FORMAT)) return rc;
    const int32_t flags = str_to_timefmt(word);
    if (TIMEFMT_BAD == flags) {
        fprintf(stderr, "Invalid time format: %s\n", word);
        return -1;
    }
    *timefmt = flags;
    return 0;
}

// `caller` is the section's reader, which the line is written for.
int load_facility(const char* caller, config_setting_t* s, int* facility)
{
    char word[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "syslog_facility", word, sizeof(word) - 1, D_FACILITY)) return rc;
    const int fac = str2fac(word);
    if (fac < 0) {
        fprintf(stderr, "%s: invalid/unsupported syslog facility: %s\n", caller, word);
        return -1;
    }
    *facility = fac;
    return 0;
}

} // namespace

// ---- words ----------------------------------------------------------------------------------------------------

int32_t str_to_timefmt(const char* str)
{
    for (const timefmt_word& w : TIMEFMT_WORDS)
        if (0 == strcasecmp(str, w.word)) return static_cast<int32_t>(w.flags);
    return TIMEFMT_BAD;
}

const char* timefmt_str(int32_t timefmt)
{
    if (TIMEFMT_BAD == timefmt) return "#error#";
    const uint32_t flags = static_cast<uint32_t>(timefmt);
    if (flags & LTF_RAW) return flags & CLOCK_MONO_BIT ? "raw_mono" : "raw";
    if (flags & LTF_NO_TIME) return "no_time";
    return flags & LTF_GMT ? "gmt" : "local";
}

int str2fac(const char* str)
{
    constexpr char prefix[] = "local";
    constexpr size_t plen = sizeof(prefix) - 1;

    if (0 == strcasecmp(str, "user")) return LOG_USER;
    // By design the prefix counts in lower case only, and what stands behind the number is ignored.
    if (0 != strncmp(str, prefix, plen) || !isdigit(static_cast<unsigned char>(str[plen]))) return -1;
    const int n = atoi(str + plen);
    return n >= 0 && n < LOCAL_COUNT ? FACILITIES[static_cast<size_t>(n)].facility : -1;
}

const char* fac2str(int facility)
{
    for (const facility_name& f : FACILITIES)
        if (f.facility == facility) return f.name;
    return "#unknown#";
}

// ---- log section ----------------------------------------------------------------------------------------------

int load_log_config(config_setting_t* s, struct log_cfg* dst)
{
    int rc = load_config_setting_str(s, "file", dst->path, sizeof(dst->path) - 1, nullptr);
    if (!rc) rc = load_level(s, &dst->level);
    if (!rc) rc = load_timefmt(s, &dst->timefmt);
    if (rc) return rc;

    dst->max_size_mb = int_or(s, "max_size_mb", D_MAX_SIZE_MB);
    dst->max_files = int_or(s, "max_files", D_MAX_FILES);
    dst->enable_syslog = bool_or(s, "enable_syslog", D_ENABLE_SYSLOG);
    if (dst->enable_syslog) rc = load_facility(__func__, s, &dst->facility);
    if (rc) return rc;

    dst->eod_rotate = bool_or(s, "eod_rotate", false);
    return 0;
}

void apply_log_config(struct log_ctx* log, const struct log_cfg* lcfg)
{
    log_set_rota(log, static_cast<size_t>(lcfg->max_size_mb) << MB_SHIFT, static_cast<size_t>(lcfg->max_files),
                 lcfg->eod_rotate ? time(nullptr) : 0);
}

void apply_syslog_config(struct log_ctx* log, const char* app, const struct log_cfg* lcfg)
{
    if (lcfg->enable_syslog) config_syslog(log, app, SYSLOG_OPTIONS, lcfg->facility);
}

void dump_log_config(FILE* fp, const char* tag, const struct log_cfg* lgc, struct log_ctx* log)
{
    fprintf(fp, "Log (%s):\n", tag && tag[0] ? tag : "regular");
    fprintf(fp, "\tpath   = %s\n", lgc->path);
    fprintf(fp, "\tlevel  = %s\n", log_level_str(lgc->level));
    fprintf(fp, "\tformat = %s\n", timefmt_str(lgc->timefmt));
    if (lgc->max_size_mb > 0 || lgc->eod_rotate) {
        fprintf(fp, "\trota:max size   = %d Mb\n", lgc->max_size_mb);
        fprintf(fp, "\trota:max files  = %d\n", lgc->max_files);
        fprintf(fp, "\trota:end-of-day = %s (%ld)\n", lgc->eod_rotate ? "ON" : "off",
                static_cast<long>(log_rota_eod(log)));
    }
    if (lgc->enable_syslog) fprintf(fp, "\tsyslog:facility  = %d (%s)\n", lgc->facility, fac2str(lgc->facility));
    fputc('\n', fp);
}

// ---- runtime section ------------------------------------------------------------------------------------------

int load_rt_config(config_setting_t* s, struct rt_cfg* rt)
{
    if (const int rc = load_config_setting_str(s, "pidfile", rt->pidfile, sizeof(rt->pidfile) - 1, nullptr)) return rc;
    rt->non_daemon = bool_or(s, "non_daemon", false);
    rt->quiet = bool_or(s, "quiet", false);
    rt->enforce_core_dumps = bool_or(s, "enforce_core_dumps", false);
    rt->cpunum = int_or(s, "cpunum", D_CPUNUM);
    return load_config_setting_str(s, "run_as_user", rt->user, sizeof(rt->user) - 1, nullptr);
}

void dump_rt_config(FILE* fp, const struct rt_cfg* rt)
{
    fputs("Runtime:\n", fp);
    if (rt->pidfile[0]) fprintf(fp, "\tpid file = %s\n", rt->pidfile);
    if (rt->user[0]) fprintf(fp, "\trun as user: %s\n", rt->user);
    if (rt->cpunum >= 0) fprintf(fp, "\tCPU: %d\n", rt->cpunum);
    fprintf(fp, "\tflags:%s%s%s\n", flag_text(rt->non_daemon, " [non-daemon]"), flag_text(rt->quiet, " [quiet]"),
            flag_text(rt->enforce_core_dumps, " [cores]"));
    fputc('\n', fp);
}
