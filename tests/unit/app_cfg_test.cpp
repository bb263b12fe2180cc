#include "config.h"
#include "support/app_kit.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using strings = std::vector<std::string>;

namespace
{

const std::string REQUIRED = "log: { enable_syslog = false; }; runtime: {}; ";

class app_cfg : public testing::Test
{
protected:
    app_cfg()
    {
        glog_init("kvt");
        init_kvti_config(&g_cfg);
    }

    // Settings inside `kvt`, behind what is required; and outside.
    int load(const std::string& inside, const std::string& outside = "", bool reload = false)
    {
        return load_text("kvt: { " + REQUIRED + inside + " }; " + outside, reload);
    }
    int load_text(const std::string& text, bool reload = false)
    {
        const std::string path = dir.file("kvt.conf", text);
        return load_kvti_config(path.c_str(), &g_cfg, reload);
    }
    std::string shown() const
    {
        char* text = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&text, &len);
        dump_config(fp, &g_cfg);
        fclose(fp);
        const std::string out(text, len);
        free(text);
        return out;
    }

    akit::temp_dir dir;
    LogCapture log;
};

} // namespace

// ---- built-in values ------------------------------------------------------------------------------------------

TEST_F(app_cfg, built_in_values_stand_without_a_file)
{
    struct kvti_cfg c;
    memset(&c, 0xff, sizeof(c));
    EXPECT_EQ(init_kvti_config(&c), 0);
    EXPECT_EQ(c.log.level, 1);
    EXPECT_EQ(c.log.timefmt, 0);
    EXPECT_FALSE(c.log.enable_syslog);
    EXPECT_EQ(c.log.max_size_mb, 4);
    EXPECT_EQ(c.log.max_files, 4);
    EXPECT_FALSE(c.rt.non_daemon || c.rt.quiet || c.rt.enforce_core_dumps);
    EXPECT_EQ(c.rt.cpunum, 0);
    EXPECT_EQ(c.min_read_bytes, 4096u);
    EXPECT_EQ(c.cache_sz_mb, 8u);
    EXPECT_EQ(c.tail_sz_mb, 2u);
    EXPECT_EQ(c.tail_tm_ms, 1000u);
    EXPECT_TRUE(c.lost_sync_alert);
    EXPECT_STREQ(c.mcast_ifc, "all");
    EXPECT_STREQ(c.snap_dir, "/tmp");
    EXPECT_STREQ(c.snap_pfx, "snap");
}

TEST_F(app_cfg, everything_else_is_zero_or_empty)
{
    struct kvti_cfg c;
    init_kvti_config(&c);
    const struct log_cfg none = {};
    EXPECT_STREQ(c.config_path, "");
    EXPECT_STREQ(c.log.path, "");
    EXPECT_EQ(c.log.facility, 0);
    EXPECT_FALSE(c.log.eod_rotate);
    EXPECT_EQ(memcmp(&c.alert_log, &none, sizeof(none)), 0);
    EXPECT_STREQ(c.rt.pidfile, "");
    EXPECT_STREQ(c.rt.user, "");
    EXPECT_STREQ(c.src_url, "");
    EXPECT_EQ(c.read_tmout_ms, 0);
    EXPECT_EQ(c.report_tput_sec, 0u);
    EXPECT_EQ(c.pkt_reset_idx, 0u);
    EXPECT_EQ(c.reload_period, 0u);
    EXPECT_FALSE(c.use_http10_get);
    EXPECT_EQ(c.instance_num, 0u);
    EXPECT_FALSE(c.tsa.is_enabled);
    EXPECT_STREQ(c.tsa.source, "");
    EXPECT_EQ(c.tsa.max_skip_pkts, 0u);
}

// ---- keys of the file -----------------------------------------------------------------------------------------

// A file that is silent on a key is not the same as no file.
TEST_F(app_cfg, silent_file_gives_the_defaults_of_the_keys)
{
    strcpy(g_cfg.snap_dir, "/");
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(g_cfg.config_path, dir.path("kvt.conf"));
    EXPECT_EQ(g_cfg.log.level, 1);
    EXPECT_EQ(g_cfg.log.max_size_mb, 64);
    EXPECT_EQ(g_cfg.log.max_files, 16);
    EXPECT_EQ(g_cfg.rt.cpunum, -1);
    EXPECT_FALSE(g_cfg.use_http10_get);
    EXPECT_STREQ(g_cfg.mcast_ifc, "");
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_EQ(g_cfg.read_tmout_ms, 0);
    EXPECT_EQ(g_cfg.reload_period, 0u);
    EXPECT_STREQ(g_cfg.snap_dir, "/tmp");
    EXPECT_STREQ(g_cfg.snap_pfx, "");
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
    EXPECT_EQ(g_cfg.min_read_bytes, 4096u);
    EXPECT_EQ(g_cfg.report_tput_sec, 0u);
    EXPECT_EQ(g_cfg.pkt_reset_idx, 0u);
    EXPECT_TRUE(g_cfg.lost_sync_alert);
    EXPECT_FALSE(g_cfg.tsa.is_enabled);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 0u);
    EXPECT_STREQ(g_cfg.alert_log.path, "");
    EXPECT_EQ(g_cfg.alert_log.max_files, 0);
}

TEST_F(app_cfg, every_key_has_its_field)
{
    EXPECT_EQ(load("alert_log: { file = \"/a\"; level = \"err\"; };"
                   "source: { mcast_ifc = \"eth0\"; read_tmout_ms = 1500; };"
                   "cache: { size_mb = 16; tail_size_mb = 3; tail_duration_ms = 250; min_bytes_left = 8192; };"
                   "config_reload_period = 7;"
                   "snapshot: { dir_path = \"" +
                       dir.path() +
                       "/\"; file_prefix = \"pfx\"; };"
                       "stats: { tput_report_sec = 9; };"
                       "stream_analyzer: { enabled = true; source_tag = \"chan1\"; };"
                       "pkt_reset_idx = 5000000000L; lost_sync_alert = false;",
                   "source: { use_http10_get = true; };"),
              0);
    EXPECT_STREQ(g_cfg.alert_log.path, "/a");
    EXPECT_EQ(g_cfg.alert_log.level, ll::error);
    EXPECT_STREQ(g_cfg.mcast_ifc, "eth0");
    EXPECT_EQ(g_cfg.read_tmout_ms, 1500);
    EXPECT_EQ(g_cfg.cache_sz_mb, 16u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 250u);
    EXPECT_EQ(g_cfg.min_read_bytes, 8192u);
    EXPECT_EQ(g_cfg.reload_period, 7u);
    EXPECT_EQ(g_cfg.snap_dir, dir.path()); // the slash at the end is cut
    EXPECT_STREQ(g_cfg.snap_pfx, "pfx");
    EXPECT_EQ(g_cfg.report_tput_sec, 9u);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_STREQ(g_cfg.tsa.source, "chan1");
    EXPECT_EQ(g_cfg.pkt_reset_idx, 5000000000u);
    EXPECT_FALSE(g_cfg.lost_sync_alert);
    EXPECT_TRUE(g_cfg.use_http10_get);
}

// Existing files say it outside the root group.
TEST_F(app_cfg, http10_key_counts_outside_the_root_group_only)
{
    EXPECT_EQ(load("source: { use_http10_get = true; };"), 0);
    EXPECT_FALSE(g_cfg.use_http10_get);
    EXPECT_EQ(load("", "source: { use_http10_get = true; };"), 0);
    EXPECT_TRUE(g_cfg.use_http10_get);
}

TEST_F(app_cfg, text_that_is_too_long_is_logged_and_passed_over)
{
    EXPECT_EQ(load("source: { mcast_ifc = \"0123456789abcde\"; }; snapshot: { file_prefix = \"0123456789abcde\"; };"
                   "lost_sync_alert = false;"),
              0);
    EXPECT_STREQ(g_cfg.mcast_ifc, "all");
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    EXPECT_FALSE(g_cfg.lost_sync_alert);
    EXPECT_EQ(log.count("value is too long (15), max = "), 2u);

    EXPECT_EQ(load("source: { mcast_ifc = \"0123456789abcd\"; }; snapshot: { file_prefix = \"0123456789abcd\"; };"), 0);
    EXPECT_STREQ(g_cfg.mcast_ifc, "0123456789abcd");
    EXPECT_STREQ(g_cfg.snap_pfx, "0123456789abcd");
}

TEST_F(app_cfg, directory_of_127_characters_is_too_long)
{
    EXPECT_EQ(load("snapshot: { dir_path = \"/" + std::string(126, 'd') + "\"; };"), 0);
    EXPECT_STREQ(g_cfg.snap_dir, "/tmp");
    EXPECT_EQ(load("snapshot: { dir_path = \"/tmp" + std::string(122, '/') + "\"; };"), 0);
    EXPECT_EQ(strlen(g_cfg.snap_dir), 125u);
}

TEST_F(app_cfg, numeric_id_goes_into_both_log_paths)
{
    g_cfg.instance_num = 3;
    EXPECT_EQ(load_text("kvt: { log: { file = \"/var/{N}/kvt-{N}.log\"; }; alert_log: { file = \"/var/a{N}\"; };"
                        "runtime: {}; };"),
              0);
    EXPECT_STREQ(g_cfg.log.path, "/var/3/kvt-3.log");
    EXPECT_STREQ(g_cfg.alert_log.path, "/var/a3");
    g_cfg.instance_num = 0;
    EXPECT_EQ(load_text("kvt: { log: { file = \"/var/kvt-{N}.log\"; }; runtime: {}; };"), 0);
    EXPECT_STREQ(g_cfg.log.path, "/var/kvt-.log");
}

TEST_F(app_cfg, path_that_cannot_hold_the_numeric_id_is_refused)
{
    g_cfg.instance_num = 1234;
    const std::string text = "kvt: { log: { file = \"" + std::string(123, 'p') + "{N}\"; }; runtime: {}; };";
    EXPECT_EQ(load_text(text), -34);
    EXPECT_EQ(log.count("load_config: cannot replace {N} in ["), 1u);
    EXPECT_EQ(log.count("load_kvti_config: FAILED (-34)"), 1u);
}

// ---- files that are refused -----------------------------------------------------------------------------------

TEST_F(app_cfg, log_and_runtime_sections_are_required)
{
    EXPECT_EQ(load_text("kvt: { runtime: {}; };"), -1);
    EXPECT_EQ(log.messages(), (strings{"load_config: missing log section", "load_kvti_config: FAILED (-1)"}));
    log.clear();
    EXPECT_EQ(load_text("kvt: { log: {}; };"), -1);
    EXPECT_EQ(log.messages(), (strings{"load_config: missing runtime section", "load_kvti_config: FAILED (-1)"}));
}

TEST_F(app_cfg, bad_value_in_a_section_stops_the_load)
{
    for (const char* text :
         {"kvt: { log: { level = \"loud\"; }; runtime: {}; };",
          "kvt: { log: {}; alert_log: { syslog_facility = \"local9\"; }; runtime: {}; };",
          "kvt: { log: {}; runtime: { run_as_user = \"0123456789012345678901234567890\"; }; };",
          "kvt: { log: {}; runtime: {}; stream_analyzer: { enabled = true; pcr_freq_ms = \"9x\"; }; };"}) {
        log.clear();
        EXPECT_NE(load_text(text), 0) << text;
        EXPECT_EQ(log.count("load_kvti_config: FAILED ("), 1u) << text;
    }
}

TEST_F(app_cfg, snapshot_directory_must_exist)
{
    EXPECT_EQ(load("snapshot: { dir_path = \"/nonexistent\"; };"), ENOENT);
    EXPECT_EQ(log.count("dir_check: opendir('/nonexistent', ...) ERROR(2)"), 1u);
    EXPECT_EQ(log.count("load_kvti_config: FAILED (2)"), 1u);
    EXPECT_EQ(load("snapshot: { dir_path = \"\"; };"), 0);
    EXPECT_STREQ(g_cfg.snap_dir, "");
}

TEST_F(app_cfg, parse_error_tells_file_and_line)
{
    EXPECT_EQ(load_text("kvt: {\n log: {};\n runtime {}\n};\n"), -1);
    ASSERT_EQ(log.messages(ll::error).size(), 2u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("Error reading/parsing config file [" + dir.path("kvt.conf") +
                                                       "]: line 3: "));
    EXPECT_EQ(log.messages(ll::error)[1], "load_kvti_config: FAILED (-1)");
    EXPECT_STREQ(g_cfg.config_path, "");
}

TEST_F(app_cfg, file_that_cannot_be_opened_is_told_on_stderr)
{
    for (const std::string& path : {dir.path("none"), dir.path()}) {
        const akit::outcome o =
            akit::in_child([&] { _exit(load_kvti_config(path.c_str(), &g_cfg, false) == -1 ? 0 : 1); });
        EXPECT_EQ(o.status, 0);
        EXPECT_EQ(o.err, "Failed to load [" + path + "]\n");
    }
}

TEST_F(app_cfg, path_of_the_file_is_kept_to_127_characters)
{
    const std::string name(200 - dir.path().size() - 1, 'c');
    const std::string path = dir.file(name, "kvt: { " + REQUIRED + " };");
    EXPECT_EQ(load_kvti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(g_cfg.config_path, path.substr(0, 127));
}

TEST_F(app_cfg, path_of_a_file_with_a_bad_value_is_kept_too)
{
    const std::string path = dir.file("bad.conf", "kvt: {};");
    EXPECT_EQ(load_kvti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(g_cfg.config_path, path);
}

// Bytes from outside: whatever a file holds, loading it ends in a result.
TEST_F(app_cfg, damaged_file_never_does_more_than_fail)
{
    const std::string good = akit::content_of(KVT_SOURCE_DIR "/docs/kvt.conf");
    ASSERT_GT(good.size(), 1000u);
    log.clear();
    for (size_t cut = 0; cut < good.size(); cut += 97) {
        struct kvti_cfg c;
        init_kvti_config(&c);
        const std::string path = dir.file("cut.conf", good.substr(0, cut));
        const int rc = load_kvti_config(path.c_str(), &c, false);
        EXPECT_TRUE(rc == 0 || rc == -1) << cut;
    }
    EXPECT_GT(log.count("FAILED"), 100u);
}

// ---- the example file -----------------------------------------------------------------------------------------

TEST_F(app_cfg, example_file_holds_the_defaults_that_it_tells_of)
{
    strcpy(g_cfg.snap_dir, "/");
    ASSERT_EQ(load_kvti_config(KVT_SOURCE_DIR "/docs/kvt.conf", &g_cfg, false), 0);
    EXPECT_EQ(log.messages(ll::error), strings{});
    const struct kvti_cfg example = g_cfg;

    // The same with every key left out, but for the groups that open a list and the switch of the analyzer.
    init_kvti_config(&g_cfg);
    strcpy(g_cfg.snap_dir, "/");
    ASSERT_EQ(load_text("kvt: { log: {}; alert_log: {}; runtime: {};"
                        "stream_analyzer: { enabled = true; cc: {}; track: {}; }; };"),
              0);
    struct kvti_cfg silent = g_cfg;
    strcpy(silent.config_path, example.config_path);
    // Both were cleared before they were filled, but for the bytes that texts leave behind their ends.
    g_cfg = silent;
    const std::string silent_text = shown();
    g_cfg = example;
    EXPECT_EQ(shown(), silent_text);
    EXPECT_EQ(example.tsa.max_skip_pkts, 9000u);
    EXPECT_EQ(example.tsa.max_pdts_delta, 500u);
    EXPECT_EQ(example.tsa.max_pcr_delta, 0u);
    EXPECT_EQ(example.tsa.pcr_freq_ms, 0u);
    EXPECT_EQ(example.tsa.dump_stats_period, 0u);
    EXPECT_EQ(example.tsa.max_ndat_pcount, 10000u);
    EXPECT_FALSE(example.tsa.cc_track);
    EXPECT_EQ(example.tsa.cc_max_ms0_ms, 0);
    EXPECT_EQ(example.reload_period, 0u);
    EXPECT_EQ(example.report_tput_sec, 0u);
    EXPECT_EQ(example.pkt_reset_idx, 0u);
    EXPECT_EQ(example.alert_log.facility, silent.alert_log.facility);
    EXPECT_TRUE(example.alert_log.enable_syslog);
}

// Each key of the example is where kvt looks for it: with another value there, another setting comes out.
TEST_F(app_cfg, example_file_has_every_key_in_its_place)
{
    std::string text = akit::content_of(KVT_SOURCE_DIR "/docs/kvt.conf");
    size_t changed = 0;
    const auto set = [&](const std::string& from, const std::string& to) {
        for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()), ++changed)
            text.replace(at, from.size(), to);
    };
    set(" file = \"\"", " file = \"/x\"");
    set(" level = \"info\"", " level = \"err\"");
    set(" time_format = \"local\"", " time_format = \"gmt\"");
    set(" max_size_mb = 64", " max_size_mb = 65");
    set(" max_files = 16", " max_files = 17");
    set(" eod_rotate = false", " eod_rotate = true");
    set(" syslog_facility = \"local0\"", " syslog_facility = \"user\"");
    set(" pidfile = \"\"", " pidfile = \"/p\"");
    set(" non_daemon = false", " non_daemon = true");
    set(" quiet = false", " quiet = true");
    set(" run_as_user = \"\"", " run_as_user = \"u\"");
    set(" enforce_core_dumps = false", " enforce_core_dumps = true");
    set(" cpunum = -1", " cpunum = 3");
    set(" mcast_ifc = \"\"", " mcast_ifc = \"e\"");
    set(" read_tmout_ms = 0", " read_tmout_ms = 1");
    set(" size_mb = 8", " size_mb = 9");
    set(" tail_size_mb = 2", " tail_size_mb = 3");
    set(" tail_duration_ms = 0", " tail_duration_ms = 4");
    set(" min_bytes_left = 4096", " min_bytes_left = 4097");
    set(" dir_path = \"/tmp\"", " dir_path = \"/\"");
    set(" file_prefix = \"\"", " file_prefix = \"f\"");
    set(" tput_report_sec = 0", " tput_report_sec = 5");
    set(" config_reload_period = 0", " config_reload_period = 6");
    set(" pkt_reset_idx = 0L", " pkt_reset_idx = 7L");
    set(" lost_sync_alert = true", " lost_sync_alert = false");
    set(" access_log_alerts = false", " access_log_alerts = true");
    set(" source_tag = \"\"", " source_tag = \"t\"");
    set(" max_skipped_pkts = 9000", " max_skipped_pkts = 9001");
    set(" max_pdts_delta_ms = 500", " max_pdts_delta_ms = 501");
    set(" max_pcr_delta_ms = 0", " max_pcr_delta_ms = 8");
    set(" pcr_freq_ms = 0", " pcr_freq_ms = 9");
    set(" dump_stats_period = 0", " dump_stats_period = 10");
    set(" max_ndat_pcount = 10000", " max_ndat_pcount = 10001");
    set(" track = false", " track = true");
    set(" max_zreset_time = 0", " max_zreset_time = 11");
    for (const char* flag :
         {"sdt_ignore", "misc_ignore", "pdts_update", "pat_pmt_pkt", "pcr_update", "pmt_diff", "pat_diff"})
        set(std::string(flag) + " = false", std::string(flag) + " = true");
    set(" use_http10_get = false", " use_http10_get = true");
    EXPECT_EQ(changed, 43u + 7); // seven keys stand in both log sections

    ASSERT_EQ(load_text(text), 0);
    for (const log_cfg* l : {&g_cfg.log, &g_cfg.alert_log}) {
        EXPECT_STREQ(l->path, "/x");
        EXPECT_EQ(l->level, ll::error);
        EXPECT_EQ(l->timefmt, 512);
        EXPECT_EQ(l->max_size_mb, 65);
        EXPECT_EQ(l->max_files, 17);
        EXPECT_TRUE(l->eod_rotate);
        EXPECT_EQ(l->facility, 8);
    }
    EXPECT_STREQ(g_cfg.rt.pidfile, "/p");
    EXPECT_TRUE(g_cfg.rt.non_daemon && g_cfg.rt.quiet && g_cfg.rt.enforce_core_dumps);
    EXPECT_STREQ(g_cfg.rt.user, "u");
    EXPECT_EQ(g_cfg.rt.cpunum, 3);
    EXPECT_STREQ(g_cfg.mcast_ifc, "e");
    EXPECT_EQ(g_cfg.read_tmout_ms, 1);
    EXPECT_EQ(g_cfg.cache_sz_mb, 9u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 4u);
    EXPECT_EQ(g_cfg.min_read_bytes, 4097u);
    EXPECT_STREQ(g_cfg.snap_dir, "/");
    EXPECT_STREQ(g_cfg.snap_pfx, "f");
    EXPECT_EQ(g_cfg.report_tput_sec, 5u);
    EXPECT_EQ(g_cfg.reload_period, 6u);
    EXPECT_EQ(g_cfg.pkt_reset_idx, 7u);
    EXPECT_FALSE(g_cfg.lost_sync_alert);
    EXPECT_TRUE(g_cfg.use_http10_get);
    EXPECT_TRUE(g_cfg.tsa.access_log_alerts);
    EXPECT_STREQ(g_cfg.tsa.source, "t");
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 9001u);
    EXPECT_EQ(g_cfg.tsa.max_pdts_delta, 501u);
    EXPECT_EQ(g_cfg.tsa.max_pcr_delta, 8u);
    EXPECT_EQ(g_cfg.tsa.pcr_freq_ms, 9u);
    EXPECT_EQ(g_cfg.tsa.dump_stats_period, 10u);
    EXPECT_EQ(g_cfg.tsa.max_ndat_pcount, 10001u);
    EXPECT_TRUE(g_cfg.tsa.cc_track);
    EXPECT_EQ(g_cfg.tsa.cc_max_ms0_ms, 11000);
    const tracking_opt& trk = g_cfg.tsa.trk;
    EXPECT_TRUE(trk.sdt_ignore && trk.misc_ignore && trk.pdts_update && trk.pat_pmt_pkt && trk.pcr_update &&
                trk.pmt_diff && trk.pat_diff);
    EXPECT_FALSE(trk.cc_track); // its name belongs to the group
}

// ---- the settings shown ---------------------------------------------------------------------------------------

TEST_F(app_cfg, settings_are_shown_in_full)
{
    g_cfg.instance_num = 3;
    strcpy(g_cfg.src_url, "udp://239.1.1.1:5000");
    EXPECT_EQ(shown(), "-----------------------------------\n"
                       "Instance: 3\n"
                       "Log (regular):\n"
                       "\tpath   = \n"
                       "\tlevel  = info\n"
                       "\tformat = local\n"
                       "\trota:max size   = 4 Mb\n"
                       "\trota:max files  = 4\n"
                       "\trota:end-of-day = off (0)\n"
                       "\n"
                       "Log (alerts):\n"
                       "\tpath   = \n"
                       "\tlevel  = normal\n"
                       "\tformat = local\n"
                       "\n"
                       "Runtime:\n"
                       "\tCPU: 0\n"
                       "\tflags:\n"
                       "\n"
                       "Source:\n"
                       "\tURL            = udp://239.1.1.1:5000\n"
                       "\tRead time-out  = 0 ms\n"
                       "\tMulticast ifc  = all\n"
                       "\tHTTP/1.0 GET   = no\n"
                       "Cache:\n"
                       "\tSize           = 8 Mb\n"
                       "\tTail           = 2/1000 Mb/ms\n"
                       "\tMin vacant     = 4096 bytes\n"
                       "Snapshots:\n"
                       "\tDirectory      = /tmp\n"
                       "\tFile prefix    = snap\n"
                       "Stats:\n"
                       "\tLost-sync      = yes\n"
                       "-----------------------------------\n");
}

TEST_F(app_cfg, next_rotation_by_day_is_shown_for_each_log)
{
    g_cfg.log.eod_rotate = true;
    g_cfg.alert_log.eod_rotate = true;
    log_set_eod(&g_log, 111);
    log_set_eod(&g_access_log, 222);
    const std::string text = shown();
    const size_t alerts = text.find("Log (alerts):");
    EXPECT_LT(text.find("\trota:end-of-day = ON (111)\n"), alerts);
    EXPECT_NE(text.find("\trota:end-of-day = ON (222)\n", alerts), std::string::npos);
}

TEST_F(app_cfg, settings_that_are_off_by_default_are_shown_when_on)
{
    g_cfg.use_http10_get = true;
    g_cfg.pkt_reset_idx = 5000000000;
    g_cfg.reload_period = 30;
    g_cfg.report_tput_sec = 60;
    g_cfg.lost_sync_alert = false;
    g_cfg.tsa.is_enabled = true;
    strcpy(g_cfg.tsa.source, "chan1");
    const std::string text = shown();
    EXPECT_NE(text.find("\tHTTP/1.0 GET   = yes\nCache:\n"), std::string::npos);
    EXPECT_NE(
        text.find("\tFile prefix    = snap\n\tReset index    = 5000000000\n\tReload period   = 30 sec\nStats:\n"
                  "\tTPS report     = 60 sec\n\tLost-sync      = no\nAnalysis: \n\tsource:                [chan1]\n"),
        std::string::npos)
        << text;
    EXPECT_TRUE(text.ends_with("\n-----------------------------------\n"));
}
