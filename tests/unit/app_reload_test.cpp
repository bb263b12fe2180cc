#include "support/app_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <utime.h>

using strings = std::vector<std::string>;

namespace
{

const std::string REQUIRED = "log: { enable_syslog = false; }; runtime: {}; ";

// The running settings, loaded from a file that is checked for changes; the clock belongs to the test.
class app_cfg_reload : public testing::Test
{
protected:
    app_cfg_reload()
    {
        glog_init("kvt");
        init_kvti_config(&g_cfg);
        fake_clock::set(1000000);
        write("kvt: { " + REQUIRED + "config_reload_period = 10; cache: { size_mb = 4; tail_size_mb = 3; }; };", 500);
        load_kvti_config(path.c_str(), &g_cfg, false);
        (void)chk_file_updated(g_cfg.config_path, &g_ctx.config_mtime);
        log.clear();
    }
    ~app_cfg_reload() override { fake_clock::release(); }
    void write(const std::string& text, time_t mtime)
    {
        dir.file("kvt.conf", text);
        const struct utimbuf times = {mtime, mtime};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
    }
    void change(const std::string& inside, time_t mtime = 501)
    {
        write("kvt: { " + REQUIRED + "config_reload_period = 10; " + inside + " };", mtime);
    }

    akit::temp_dir dir;
    LogCapture log;
    const std::string path = dir.path("kvt.conf");
};

} // namespace

TEST_F(app_cfg_reload, period_must_have_passed)
{
    change("cache: { tail_size_mb = 5; };");
    fake_clock::advance_sec(9);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(log.messages(), strings{});
    fake_clock::advance_sec(1);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
    EXPECT_EQ(log.messages(ll::normal), strings{"[" + path + "] updated, re-loading config"});
    EXPECT_EQ(g_ctx.config_load_tm, 1000010);
}

TEST_F(app_cfg_reload, period_that_is_negative_in_the_file_never_passes)
{
    change("cache: { tail_size_mb = 5; };");
    g_cfg.reload_period = static_cast<size_t>(-1);
    fake_clock::advance_sec(1000);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
}

TEST_F(app_cfg_reload, unchanged_file_is_looked_at_until_it_changes)
{
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_ctx.config_load_tm, 1000000);
    change("cache: { tail_size_mb = 5; };");
    EXPECT_EQ(config_reload_check(), 0); // at once, without another period
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
}

TEST_F(app_cfg_reload, takes_over_what_may_change_while_running)
{
    write("kvt: { " + REQUIRED +
              "cache: { tail_size_mb = 5; tail_duration_ms = 6; min_bytes_left = 7; };"
              "snapshot: { dir_path = \"" +
              dir.path() +
              "\"; file_prefix = \"new pfx\"; };"
              "stats: { tput_report_sec = 8; }; pkt_reset_idx = 9; lost_sync_alert = false; config_reload_period = 11;"
              "stream_analyzer: { enabled = true; source_tag = \"new\"; }; };",
          501);
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 6u);
    EXPECT_EQ(g_cfg.min_read_bytes, 7u); // no check of the start is run again
    EXPECT_EQ(g_cfg.snap_dir, dir.path());
    EXPECT_STREQ(g_cfg.snap_pfx, "new pfx");
    EXPECT_EQ(g_cfg.report_tput_sec, 8u);
    EXPECT_EQ(g_cfg.pkt_reset_idx, 9u);
    EXPECT_FALSE(g_cfg.lost_sync_alert);
    EXPECT_EQ(g_cfg.reload_period, 11u);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_STREQ(g_cfg.tsa.source, "new");
}

TEST_F(app_cfg_reload, leaves_what_may_not_change)
{
    g_cfg.read_tmout_ms = 77;
    strcpy(g_cfg.mcast_ifc, "eth7");
    strcpy(g_cfg.src_url, "udp://:1");
    write("kvt: { log: { level = \"err\"; file = \"/new\"; }; alert_log: { file = \"/new\"; };"
          "runtime: { quiet = true; }; source: { mcast_ifc = \"eth0\"; read_tmout_ms = 5; };"
          "cache: { size_mb = 99; }; }; source: { use_http10_get = true; };",
          501);
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.reload_period, 0u); // the file is silent on it now
    EXPECT_EQ(g_cfg.log.level, ll::info);
    EXPECT_STREQ(g_cfg.log.path, "");
    EXPECT_STREQ(g_cfg.alert_log.path, "");
    EXPECT_FALSE(g_cfg.rt.quiet);
    EXPECT_STREQ(g_cfg.mcast_ifc, "eth7");
    EXPECT_EQ(g_cfg.read_tmout_ms, 77);
    EXPECT_EQ(g_cfg.cache_sz_mb, 4u);
    EXPECT_FALSE(g_cfg.use_http10_get);
    EXPECT_STREQ(g_cfg.src_url, "udp://:1");
}

TEST_F(app_cfg_reload, needs_no_required_sections)
{
    write("kvt: { cache: { tail_size_mb = 5; }; };", 501);
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
}

TEST_F(app_cfg_reload, value_of_the_command_line_gives_way_to_the_file)
{
    g_cfg.tail_sz_mb = 100;
    g_cfg.tail_tm_ms = 200;
    change("cache: { tail_size_mb = 5; };");
    fake_clock::advance_sec(10);
    config_reload_check();
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
}

TEST_F(app_cfg_reload, time_that_goes_back_is_no_change)
{
    change("cache: { tail_size_mb = 5; };", 499);
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(log.messages(), strings{});
    EXPECT_EQ(g_ctx.config_mtime, 499);
}

TEST_F(app_cfg_reload, deleted_file_is_complained_of_each_time_and_loaded_when_it_is_back)
{
    unlink(path.c_str());
    fake_clock::advance_sec(10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(log.count("get_file_mtime: FAILED to retrieve mtime for [" + path + "]"), 2u);
    EXPECT_EQ(g_ctx.config_mtime, -1);
    change("cache: { tail_size_mb = 5; };", 400);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 5u);
}

TEST_F(app_cfg_reload, parse_error_keeps_the_settings_and_is_tried_once)
{
    write("kvt: { cache: {", 501);
    fake_clock::advance_sec(10);
    const struct kvti_cfg before = g_cfg;
    EXPECT_EQ(config_reload_check(), -1);
    EXPECT_EQ(memcmp(&before, &g_cfg, sizeof(before)), 0);
    EXPECT_EQ(log.count("Error reading/parsing config file ["), 1u);
    EXPECT_EQ(log.messages(ll::error).back(),
              "config_reload_check: failed to reload config (err=-1), older version retained");
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(log.count("Error reading/parsing config file ["), 1u);
}

TEST_F(app_cfg_reload, missing_snapshot_directory_keeps_all_settings)
{
    change("snapshot: { dir_path = \"/nonexistent\"; }; cache: { tail_size_mb = 5; };");
    fake_clock::advance_sec(10);
    const struct kvti_cfg before = g_cfg;
    EXPECT_EQ(config_reload_check(), ENOENT);
    EXPECT_EQ(memcmp(&before, &g_cfg, sizeof(before)), 0);
    EXPECT_EQ(log.count("config_reload_check: failed to reload config (err=2), older version retained"), 1u);
}
