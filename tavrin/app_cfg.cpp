// Settings: built-in values, the configuration file, the live reload, and the text in which they are shown.
//
// Keys of the file are looked up by their whole path. A key that the file is silent on gets the default of the key,
// not the built-in value, so that a file that says nothing of a setting can differ from no file at all.

#include "common/appcfg.h"
#include "config.h"
#include "log.h"
#include "strops.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"
#include "util.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

TV_LOG_MODULE(app_int::log_module)

namespace
{

constexpr char HLINE[] = "-----------------------------------\n";
constexpr char ID_MACRO[] = "{N}";

// Defaults of keys that differ from the built-in values.
constexpr int DEFAULT_TAIL_MS = 0;
constexpr char DEFAULT_SNAP_DIR[] = "/tmp";

struct file_closer {
    void operator()(FILE* fp) const { (void)fclose(fp); } // only read from: nothing can be lost
};
using file_owner = std::unique_ptr<FILE, file_closer>;
static_assert(sizeof(file_owner) == sizeof(FILE*));

// ---- keys -----------------------------------------------------------------------------------------------------

int int_key(const char* path, int default_val)
{
    int val = 0;
    return config_lookup_int(&g_libcfg, path, &val) == CONFIG_TRUE ? val : default_val;
}

size_t size_key(const char* path, int default_val)
{
    return static_cast<size_t>(int_key(path, default_val));
}

bool bool_key(const char* path, bool default_val)
{
    int val = 0;
    return config_lookup_bool(&g_libcfg, path, &val) == CONFIG_TRUE ? val != 0 : default_val;
}

// By design the result isn't looked at: a text that is too long has been logged, and its field stays as it was.
template <size_t N>
void str_key(const char* path, char (&field)[N], const char* default_str)
{
    (void)load_config_str(path, field, N - 1, default_str);
}

// ---- sections -------------------------------------------------------------------------------------------------

int load_log_section(config_setting_t* s, struct log_cfg* dst, unsigned int instance_num)
{
    int rc = load_log_config(s, dst);
    if (rc != 0) return rc;
    rc = replace_ul_macro(dst->path, sizeof(dst->path) - 1, ID_MACRO, instance_num);
    if (rc != 0) tv_log(ll::error, "%s: cannot replace %s in [%s], rc=%d\n", "load_config", ID_MACRO, dst->path, rc);
    return rc;
}

// What is read at the start and never again.
int load_fixed(struct kvti_cfg* cfg)
{
    config_setting_t* s = config_lookup(&g_libcfg, "kvt.log");
    if (s == nullptr) {
        tv_log(ll::error, "%s: missing log section\n", "load_config");
        return -1;
    }
    int rc = load_log_section(s, &cfg->log, cfg->instance_num);
    if (rc != 0) return rc;

    s = config_lookup(&g_libcfg, "kvt.alert_log");
    if (s != nullptr) rc = load_log_section(s, &cfg->alert_log, cfg->instance_num);
    if (rc != 0) return rc;

    s = config_lookup(&g_libcfg, "kvt.runtime");
    if (s == nullptr) {
        tv_log(ll::error, "%s: missing runtime section\n", "load_config");
        return -1;
    }
    rc = load_rt_config(s, &cfg->rt);
    if (rc != 0) return rc;

    // By design this key stands outside the root group, unlike its neighbours.
    cfg->use_http10_get = bool_key("source.use_http10_get", false);
    str_key("kvt.source.mcast_ifc", cfg->mcast_ifc, "");
    cfg->cache_sz_mb = size_key("kvt.cache.size_mb", D_KVT_CACHE_MB);
    cfg->read_tmout_ms = int_key("kvt.source.read_tmout_ms", D_KVT_READ_TMOUT_MS);
    return 0;
}

// Opens the file for reading; null for a directory too, which the parser could not read.
file_owner open_config(const char* path)
{
    struct stat st = {};
    file_owner fp(fopen(path, "r"));
    if (fp && fstat(fileno(fp.get()), &st) == 0 && S_ISDIR(st.st_mode)) fp.reset();
    return fp;
}

const char* yes_no(bool on)
{
    return on ? "yes" : "no";
}

} // namespace

// ---- loading --------------------------------------------------------------------------------------------------

int init_kvti_config(struct kvti_cfg* cfg)
{
    *cfg = {};
    cfg->log.level = ll::info;
    cfg->log.timefmt = 0; // local time
    cfg->log.enable_syslog = false;
    cfg->log.max_size_mb = D_KVT_MAX_LOGSZ;
    cfg->log.max_files = D_KVT_MAX_FILES;
    cfg->min_read_bytes = KVT_DEFAULT_MIN_READ;
    cfg->cache_sz_mb = D_KVT_CACHE_MB;
    cfg->tail_sz_mb = D_KVT_TAIL_MB;
    cfg->tail_tm_ms = D_KVT_TAIL_MS;
    cfg->read_tmout_ms = D_KVT_READ_TMOUT_MS;
    cfg->lost_sync_alert = true;
    app_int::copy_text(cfg->mcast_ifc, sizeof(cfg->mcast_ifc), "all");
    app_int::copy_text(cfg->snap_dir, sizeof(cfg->snap_dir), DEFAULT_SNAP_DIR);
    app_int::copy_text(cfg->snap_pfx, sizeof(cfg->snap_pfx), "snap");
    return 0;
}

int load_kvti_config(const char* path, struct kvti_cfg* cfg, bool reload)
{
    const file_owner fp = open_config(path);
    if (!fp) {
        fprintf(stderr, "Failed to load [%s]\n", path);
        return -1;
    }
    int rc = -1;
    config_init(&g_libcfg);
    if (config_read(&g_libcfg, fp.get()) != CONFIG_TRUE) {
        tv_log(ll::error, "Error reading/parsing config file [%s]: line %d: %s\n", path, config_error_line(&g_libcfg),
               config_error_text(&g_libcfg));
    } else {
        if (path != cfg->config_path) app_int::copy_text(cfg->config_path, sizeof(cfg->config_path), path);
        rc = load_config(cfg, reload);
    }
    config_destroy(&g_libcfg);
    if (rc != 0) tv_log(ll::error, "%s: FAILED (%d)\n", __func__, rc);
    return rc;
}

int load_config(struct kvti_cfg* cfg, bool reload)
{
    int rc = reload ? 0 : load_fixed(cfg);
    if (rc != 0) return rc;

    cfg->reload_period = size_key("kvt.config_reload_period", 0);
    str_key("kvt.snapshot.dir_path", cfg->snap_dir, DEFAULT_SNAP_DIR);
    if (cfg->snap_dir[0] != '\0') rc = dir_check(cfg->snap_dir, true);
    if (rc != 0) return rc;
    str_key("kvt.snapshot.file_prefix", cfg->snap_pfx, "");
    cfg->tail_sz_mb = size_key("kvt.cache.tail_size_mb", D_KVT_TAIL_MB);
    cfg->tail_tm_ms = size_key("kvt.cache.tail_duration_ms", DEFAULT_TAIL_MS);
    cfg->min_read_bytes = size_key("kvt.cache.min_bytes_left", static_cast<int>(KVT_DEFAULT_MIN_READ));
    cfg->report_tput_sec = size_key("kvt.stats.tput_report_sec", 0);

    config_setting_t* s = config_lookup(&g_libcfg, "kvt.stream_analyzer");
    if (s != nullptr) rc = tsan_load_config(s, &cfg->tsa);
    if (rc != 0) return rc;

    long long reset_idx = 0;
    cfg->pkt_reset_idx = config_lookup_int64(&g_libcfg, "kvt.pkt_reset_idx", &reset_idx) == CONFIG_TRUE
                             ? static_cast<uint64_t>(reset_idx)
                             : 0;
    cfg->lost_sync_alert = bool_key("kvt.lost_sync_alert", true);
    g_ctx.config_load_tm = time(nullptr);
    return 0;
}

int config_reload_check()
{
    if (std::cmp_less(time(nullptr) - g_ctx.config_load_tm, g_cfg.reload_period)) return 0;
    // By design the time of the last load stays: from here on each call looks at the file until it has changed.
    if (!chk_file_updated(g_cfg.config_path, &g_ctx.config_mtime)) return 0;
    tv_log(ll::normal, "[%s] updated, re-loading config\n", g_cfg.config_path);

    struct kvti_cfg fresh = g_cfg;
    const int rc = load_kvti_config(g_cfg.config_path, &fresh, true);
    if (rc != 0) {
        tv_log(ll::error, "%s: failed to reload config (err=%d), older version retained\n", __func__, rc);
        return rc;
    }
    g_cfg = fresh;
    return 0;
}

// ---- showing --------------------------------------------------------------------------------------------------

void dump_config(FILE* fp, const struct kvti_cfg* cfg)
{
    fputs(HLINE, fp);
    fprintf(fp, "Instance: %u\n", cfg->instance_num);
    dump_log_config(fp, "", &cfg->log, &g_log);
    dump_log_config(fp, "alerts", &cfg->alert_log, &g_access_log);
    dump_rt_config(fp, &cfg->rt);

    fputs("Source:\n", fp);
    fprintf(fp, "\tURL            = %s\n", cfg->src_url);
    fprintf(fp, "\tRead time-out  = %d ms\n", cfg->read_tmout_ms);
    fprintf(fp, "\tMulticast ifc  = %s\n", cfg->mcast_ifc);
    fprintf(fp, "\tHTTP/1.0 GET   = %s\n", yes_no(cfg->use_http10_get));

    fputs("Cache:\n", fp);
    fprintf(fp, "\tSize           = %zu Mb\n", cfg->cache_sz_mb);
    fprintf(fp, "\tTail           = %zu/%zu Mb/ms\n", cfg->tail_sz_mb, cfg->tail_tm_ms);
    fprintf(fp, "\tMin vacant     = %zu bytes\n", cfg->min_read_bytes);

    fputs("Snapshots:\n", fp);
    fprintf(fp, "\tDirectory      = %s\n", cfg->snap_dir);
    fprintf(fp, "\tFile prefix    = %s\n", cfg->snap_pfx);
    if (cfg->pkt_reset_idx != 0) fprintf(fp, "\tReset index    = %lu\n", cfg->pkt_reset_idx);
    // By design with three blanks: the sign stands one column to the right of its neighbours.
    if (cfg->reload_period != 0) fprintf(fp, "\tReload period   = %zu sec\n", cfg->reload_period);

    fputs("Stats:\n", fp);
    if (cfg->report_tput_sec != 0) fprintf(fp, "\tTPS report     = %zu sec\n", cfg->report_tput_sec);
    fprintf(fp, "\tLost-sync      = %s\n", yes_no(cfg->lost_sync_alert));
    if (cfg->tsa.is_enabled) tsan_dump_config(fp, "Analysis", &cfg->tsa);
    fputs(HLINE, fp);
}
