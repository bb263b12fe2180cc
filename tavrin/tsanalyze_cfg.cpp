// The analyzer's settings: from the configuration file, from the options -A and -k, and back as text.
//
// Three readers with rules of their own share one record. The file's keys are read with defaults; an option changes
// what it names and leaves the rest, so that it can follow the file. The tables below are the vocabulary of each.
#include "config.h"
#include "log.h"
#include "tavrin/tsanalyze.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

TV_LOG_MODULE(0)

namespace
{

constexpr int64_t D_OFF = 0; // of a limit or period: switched off
constexpr uint32_t MS_PER_SEC = 1000;
constexpr int RADIX = 10;

struct free_deleter {
    void operator()(char* p) const { free(p); }
};
static_assert(sizeof(std::unique_ptr<char, free_deleter>) == sizeof(char*));

// ---- configuration file ----

struct size_key {
    const char* name;
    size_t tsan_config::*field;
    int64_t default_val;
};

constexpr std::array SIZE_KEYS = {
    size_key{"max_skipped_pkts", &tsan_config::max_skip_pkts, D_MAX_NO_ANALYZE},
    size_key{"max_pdts_delta_ms", &tsan_config::max_pdts_delta, D_MAX_DELTA_MS},
    size_key{"max_pcr_delta_ms", &tsan_config::max_pcr_delta, D_OFF},
    size_key{"pcr_freq_ms", &tsan_config::pcr_freq_ms, D_OFF},
    size_key{"dump_stats_period", &tsan_config::dump_stats_period, D_OFF},
    size_key{"max_ndat_pcount", &tsan_config::max_ndat_pcount, D_PCOUNT},
};

// A flag of the trace options: its key in the file, its mark in the text of -k, and whether -k starts by clearing it
// (and "all" sets it).
struct trace_flag {
    const char* key;
    const char* mark;
    bool tracking_opt::*field;
    bool is_of_all;
};

// By design "cc" is also the name of a group with keys of its own: a file that has the group can't set the flag.
constexpr std::array TRACE_FLAGS = {
    trace_flag{"sdt_ignore", "sdt_i", &tracking_opt::sdt_ignore, true},
    trace_flag{"misc_ignore", "misc_i", &tracking_opt::misc_ignore, true},
    trace_flag{"pdts_update", "pdts_u", &tracking_opt::pdts_update, true},
    trace_flag{"pat_pmt_pkt", "pat_pmt", &tracking_opt::pat_pmt_pkt, true},
    trace_flag{"pcr_update", "pcr_u", &tracking_opt::pcr_update, true},
    trace_flag{"cc", "cc_t", &tracking_opt::cc_track, false},
    trace_flag{"pmt_diff", "pmt_d", &tracking_opt::pmt_diff, false},
    trace_flag{"pat_diff", "pat_d", &tracking_opt::pat_diff, false},
};
static_assert(sizeof(tracking_opt) == TRACE_FLAGS.size() * sizeof(bool));

bool load_bool(const config_setting_t* s, const char* name)
{
    int v = 0;
    return config_setting_lookup_bool(s, name, &v) == CONFIG_TRUE && v != 0;
}

int load_sizes(config_setting_t* s, struct tsan_config* cfg)
{
    for (const size_key& k : SIZE_KEYS) {
        int64_t v = k.default_val;
        const int rc = load_config_setting_size(s, k.name, &v, k.default_val);
        if (rc != 0) return rc;
        cfg->*k.field = static_cast<size_t>(v);
    }
    return 0;
}

// Without the group both fields stay as they were.
void load_cc_group(const config_setting_t* s, struct tsan_config* cfg)
{
    const config_setting_t* cc = config_setting_get_member(s, "cc");
    if (!cc || !config_setting_is_group(cc)) return;

    cfg->cc_track = load_bool(cc, "track");
    int sec = 0;
    (void)config_setting_lookup_int(cc, "max_zreset_time", &sec); // a missing key leaves the 0
    // By design 32 bits wide: a value that is too large comes out as another.
    cfg->cc_max_ms0_ms = static_cast<int32_t>(static_cast<uint32_t>(sec) * MS_PER_SEC);
}

// By design the flags stand beside "track", which only switches their reading on.
void load_trace_flags(const config_setting_t* s, struct tracking_opt* trk)
{
    if (!config_setting_get_member(s, "track")) return;
    for (const trace_flag& f : TRACE_FLAGS)
        trk->*f.field = load_bool(s, f.key);
}

int load_keys(config_setting_t* s, struct tsan_config* cfg)
{
    cfg->access_log_alerts = load_bool(s, "access_log_alerts");
    int rc = load_config_setting_str(s, "source_tag", cfg->source, sizeof(cfg->source), "");
    if (rc == 0) rc = load_sizes(s, cfg);
    if (rc != 0) return rc;
    load_cc_group(s, cfg);
    load_trace_flags(s, &cfg->trk);
    return 0;
}

// ---- option -A ----

struct switch_word {
    const char* word;
    bool is_on;
};

constexpr std::array SWITCH_WORDS = {
    switch_word{"on", true},
    switch_word{"enable", true},
    switch_word{"off", false},
    switch_word{"disable", false},
};

// True if the text is one of the four words, which then has been obeyed.
bool take_switch_word(const char* text, struct tsan_config* cfg)
{
    for (const switch_word& w : SWITCH_WORDS) {
        if (strcasecmp(text, w.word) != 0) continue;
        cfg->is_enabled = w.is_on;
        return true;
    }
    return false;
}

struct size_option {
    const char* name;
    size_t tsan_config::*field;
};

constexpr std::array SIZE_OPTIONS = {
    size_option{"skipped_pkts", &tsan_config::max_skip_pkts},
    size_option{"pdts_delta", &tsan_config::max_pdts_delta},
    size_option{"pcr_delta", &tsan_config::max_pcr_delta},
    size_option{"pcr_freq", &tsan_config::pcr_freq_ms},
};

// A key that is not known changes nothing, and is no mistake.
void set_option(const char* key, long val, struct tsan_config* cfg)
{
    for (const size_option& o : SIZE_OPTIONS) {
        if (strcmp(key, o.name) == 0) cfg->*o.field = static_cast<size_t>(val);
    }
    // By design in ms, where the file's key of the same name is in seconds.
    if (strcmp(key, "max_zreset_time") == 0) cfg->cc_max_ms0_ms = val;
    if (strcmp(key, "cc_track") == 0) cfg->cc_track = val > 0;
}

const char* yes_no(bool v)
{
    return v ? "yes" : "no";
}

// What else the dump shows of an analyzer that is on.
void dump_limits(FILE* fp, const struct tsan_config* cfg)
{
    fprintf(fp, "\tsource:                [%s]\n", cfg->source);
    fprintf(fp, "\tskipped packets:       %zu\n", cfg->max_skip_pkts);
    fprintf(fp, "\tNDAT p-count:          %zu\n", cfg->max_ndat_pcount);
    if (cfg->max_pdts_delta) fprintf(fp, "\tPTS/DTS delta:         %zu (ms)\n", cfg->max_pdts_delta);
    if (cfg->max_pcr_delta) fprintf(fp, "\tPCR delta:             %zu (ms)\n", cfg->max_pcr_delta);
    if (cfg->pcr_freq_ms) fprintf(fp, "\tPCR frequency:         %zu (ms)\n", cfg->pcr_freq_ms);
    if (cfg->dump_stats_period) fprintf(fp, "\tdump stats every:      %zu (sec)\n", cfg->dump_stats_period);
    fprintf(fp, "\tvalidate CC sequence:  %s\n", yes_no(cfg->cc_track));
    if (cfg->cc_track && cfg->cc_max_ms0_ms) {
        fprintf(fp, "\tCC reset threshold:    %ld (ms)\n", cfg->cc_max_ms0_ms);
    }
}

void dump_switches(FILE* fp, const struct tsan_config* cfg)
{
    const struct tracking_opt* trk = &cfg->trk;
    fprintf(fp, "\tT:sdt_ignore:          %s\n", yes_no(trk->sdt_ignore));
    fprintf(fp, "\tT:misc_ignore:         %s\n", yes_no(trk->misc_ignore));
    fprintf(fp, "\tT:pdts_update:         %s\n", yes_no(trk->pdts_update));
    fprintf(fp, "\tT:pat_pmt_pkt:         %s\n", yes_no(trk->pat_pmt_pkt));
    fprintf(fp, "\tT:pcr_update:          %s\n", yes_no(trk->pcr_update));
    fprintf(fp, "\tT:cc_track:            %s\n", yes_no(trk->cc_track));
    fprintf(fp, "\tT:pmt_diff:            %s\n", yes_no(trk->pmt_diff));
    fprintf(fp, "\tT:pat_diff:            %s\n", yes_no(trk->pat_diff));
    fprintf(fp, "\taccess-log-alerts:     %s\n", cfg->access_log_alerts ? "YES" : "no");
    fprintf(fp, "\twrite-to-log:          %s\n", cfg->no_rlog ? "NO" : "yes");
}

} // namespace

// ---- settings -------------------------------------------------------------------------------------------------

int tsan_load_config(config_setting_t* s, struct tsan_config* cfg)
{
    cfg->is_enabled = load_bool(s, "enabled");
    if (!cfg->is_enabled) {
        tv_log(ll::debug, "%s: TSAN disabled, skipping further settings\n", __func__);
        return 0;
    }
    const int rc = load_keys(s, cfg);
    if (rc != 0) tv_log(ll::error, "%s: failed to load config, rc=%d\n", __func__, rc);
    return rc;
}

void tsan_dump_config(FILE* fp, const char* title, const struct tsan_config* cfg)
{
    fprintf(fp, "%s: %s\n", title, cfg->is_enabled ? "" : "disabled");
    if (!cfg->is_enabled) return;
    dump_limits(fp, cfg);
    dump_switches(fp, cfg);
}

int tsan_cli_opt(const char* optstr, struct tsan_config* cfg)
{
    const std::unique_ptr<char, free_deleter> text(strdup(optstr));
    if (!text) {
        const int err = errno;
        tv_log(ll::error, "%s: strdup() ERROR(%d): %s\n", __func__, err, strerror(err));
        return err;
    }

    char* key = text.get();
    long val = 0;
    if (!take_switch_word(key, cfg)) {
        char* eq = strchr(key, '=');
        if (!eq) {
            tv_log(ll::error, "%s: invalid option string format: %s\n", __func__, optstr);
            return EINVAL;
        }
        *eq = '\0';
        val = strtol(eq + 1, nullptr, RADIX);
        if (val < 0) {
            tv_log(ll::error, "%s: invalid parameter value: %s/%ld\n", __func__, key, val);
            return EINVAL;
        }
        set_option(key, val, cfg);
    }
    tv_log(ll::debug, "%s: %s=%ld OK\n", __func__, key, val);
    return 0;
}

int tsan_xtrack_opt(const char* optstr, struct tsan_config* cfg)
{
    // By design the flags outside "all" keep what the file said, unless the text names them.
    const bool is_all = strcasecmp(optstr, "all") == 0;
    for (const trace_flag& f : TRACE_FLAGS) {
        if (f.is_of_all) cfg->trk.*f.field = is_all;
    }
    if (is_all) return 0;
    for (const trace_flag& f : TRACE_FLAGS) {
        if (strstr(optstr, f.mark)) cfg->trk.*f.field = true;
    }
    return 0;
}
