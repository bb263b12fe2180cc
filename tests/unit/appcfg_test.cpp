#include "common/appcfg.h"

#include "config.h"
#include "log.h"
#include "support/proc_kit.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>

using prk::piped_log;

namespace
{

class appcfg : public testing::Test
{
protected:
    appcfg() { config_init(&g_libcfg); }
    ~appcfg() override { config_destroy(&g_libcfg); }

    // The members of a group, read as a section. What it says on stderr is in `said`.
    int load_log(const std::string& members)
    {
        return load(members, [this](config_setting_t* s) { return load_log_config(s, &lc); });
    }
    int load_rt(const std::string& members)
    {
        return load(members, [this](config_setting_t* s) { return load_rt_config(s, &rt); });
    }

    piped_log log;
    log_cfg lc = {};
    rt_cfg rt = {};
    std::string said;

private:
    int load(const std::string& members, const std::function<int(config_setting_t*)>& read)
    {
        EXPECT_EQ(CONFIG_TRUE, config_read_string(&g_libcfg, ("g = {" + members + "};").c_str()))
            << config_error_text(&g_libcfg);
        testing::internal::CaptureStderr();
        const int rc = read(config_lookup(&g_libcfg, "g"));
        said = testing::internal::GetCapturedStderr();
        return rc;
    }
};

std::string written(const std::function<void(FILE*)>& write)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&text, &size);
    write(fp);
    fclose(fp);
    const std::string s(text, size);
    free(text);
    return s;
}

std::string dumped(const log_cfg& lc, const char* tag, log_ctx* channel = &g_log)
{
    return written([&](FILE* fp) { dump_log_config(fp, tag, &lc, channel); });
}

std::string dumped(const rt_cfg& rt)
{
    return written([&](FILE* fp) { dump_rt_config(fp, &rt); });
}

std::string assign(const char* key, size_t length)
{
    return std::string(key) + " = \"" + std::string(length, 'v') + "\";";
}

} // namespace

static_assert(offsetof(log_cfg, path) == 0 && sizeof(log_cfg::path) == 128);
static_assert(offsetof(log_cfg, level) == 128 && offsetof(log_cfg, timefmt) == 132);
static_assert(offsetof(log_cfg, facility) == 140 && offsetof(log_cfg, max_size_mb) == 144);
static_assert(offsetof(rt_cfg, user) == 128 && sizeof(rt_cfg::user) == 32 && offsetof(rt_cfg, cpunum) == 164);

// ---- words ----------------------------------------------------------------------------------------------------

TEST(appcfg_words, time_formats_are_read_in_any_case)
{
    EXPECT_EQ(1024, str_to_timefmt("raw"));
    EXPECT_EQ(1025, str_to_timefmt("Raw_Mono"));
    EXPECT_EQ(256, str_to_timefmt("NO_TIME"));
    EXPECT_EQ(512, str_to_timefmt("gmt"));
    EXPECT_EQ(0, str_to_timefmt("LOCAL"));
    for (const char* bad : {"", "ra", "raw ", "utc", "localtime"})
        EXPECT_EQ(0x40000000, str_to_timefmt(bad)) << bad;
}

TEST(appcfg_words, time_formats_are_written_by_their_first_flag)
{
    EXPECT_STREQ("raw", timefmt_str(1024));
    EXPECT_STREQ("raw_mono", timefmt_str(1025));
    EXPECT_STREQ("no_time", timefmt_str(256));
    EXPECT_STREQ("gmt", timefmt_str(512));
    EXPECT_STREQ("local", timefmt_str(0));
    EXPECT_STREQ("#error#", timefmt_str(0x40000000));

    EXPECT_STREQ("raw", timefmt_str(0x400 | 0x100 | 0x200));
    EXPECT_STREQ("no_time", timefmt_str(0x100 | 0x200 | 1));
    EXPECT_STREQ("local", timefmt_str(1));
    EXPECT_STREQ("local", timefmt_str(0x10));
    EXPECT_STREQ("raw", timefmt_str(0x40000000 | 0x400)); // only the mark by itself is the mark
}

TEST(appcfg_words, syslog_facilities_have_numbers)
{
    const int expected[] = {128, 136, 144, 152, 160, 168, 176, 184};
    for (int i = 0; i < 8; ++i) {
        const std::string name = "local" + std::to_string(i);
        EXPECT_EQ(expected[i], str2fac(name.c_str()));
        EXPECT_EQ(name, fac2str(expected[i]));
    }
    EXPECT_EQ(8, str2fac("user"));
    EXPECT_EQ(8, str2fac("USER"));
    EXPECT_STREQ("user", fac2str(8));
    for (const int unknown : {0, -1, 7, 16, 120, 127, 129, 192})
        EXPECT_STREQ("#unknown#", fac2str(unknown)) << unknown;
}

TEST(appcfg_words, a_local_facility_is_in_lower_case_and_its_number_is_from_0_to_7)
{
    // "LOCAL3" has never been accepted, though "USER" is: files in use were written against that.
    for (const char* bad : {"LOCAL3", "Local3", "local", "local8", "local10", "local-1", "local 1", "local+1",
                            "locals0", "", "daemon", "users", "0"})
        EXPECT_EQ(-1, str2fac(bad)) << bad;
    EXPECT_EQ(152, str2fac("local3x"));
    EXPECT_EQ(152, str2fac("local03"));
}

// ---- log section ----------------------------------------------------------------------------------------------

TEST_F(appcfg, an_empty_log_section_gets_the_defaults_of_sections)
{
    memset(&lc, 'x', sizeof(lc));
    EXPECT_EQ(0, load_log(""));
    EXPECT_STREQ("", lc.path);
    EXPECT_EQ(ll::info, lc.level);
    EXPECT_EQ(0, lc.timefmt);
    EXPECT_EQ(64, lc.max_size_mb);
    EXPECT_EQ(16, lc.max_files);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_EQ(128, lc.facility);
    EXPECT_FALSE(lc.eod_rotate);
    EXPECT_EQ("", said);
    EXPECT_EQ("", log.text());
}

TEST_F(appcfg, all_keys_of_a_log_section_are_read)
{
    EXPECT_EQ(0, load_log("file = \"/tmp/x.log\"; level = \"Debug\"; time_format = \"GMT\"; max_size_mb = 7;"
                          " max_files = 3; enable_syslog = true; syslog_facility = \"local5\"; eod_rotate = true;"));
    EXPECT_STREQ("/tmp/x.log", lc.path);
    EXPECT_EQ(ll::debug, lc.level);
    EXPECT_EQ(512, lc.timefmt);
    EXPECT_EQ(7, lc.max_size_mb);
    EXPECT_EQ(3, lc.max_files);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_EQ(168, lc.facility);
    EXPECT_TRUE(lc.eod_rotate);
}

TEST_F(appcfg, a_log_path_has_at_most_126_characters)
{
    EXPECT_EQ(0, load_log(assign("file", 126)));
    EXPECT_EQ(126u, strlen(lc.path));
    EXPECT_EQ(-1, load_log(assign("file", 127) + "level = \"bad\";"));
    EXPECT_EQ("(ERR)  load_config_setting_str: file value is too long (127), max = 126 characters.\n", log.text());
    EXPECT_EQ("", said); // the first failure stops
}

TEST_F(appcfg, a_bad_level_is_told)
{
    lc.max_files = 99;
    EXPECT_EQ(-1, load_log("file = \"f\"; level = \"loud\"; time_format = \"bad\";"));
    EXPECT_EQ("Invalid log level: loud\n", said);
    EXPECT_STREQ("f", lc.path);
    EXPECT_EQ(99, lc.max_files);
}

TEST_F(appcfg, a_level_of_15_characters_is_refused_for_its_length)
{
    EXPECT_EQ(-1, load_log(assign("level", 14)));
    EXPECT_EQ("Invalid log level: vvvvvvvvvvvvvv\n", said);
    EXPECT_EQ("", log.text());
    EXPECT_EQ(-1, load_log(assign("level", 15)));
    EXPECT_EQ("", said);
    EXPECT_EQ("(ERR)  load_config_setting_str: level value is too long (15), max = 14 characters.\n", log.text());
}

TEST_F(appcfg, a_bad_time_format_is_told)
{
    lc.timefmt = 99;
    EXPECT_EQ(-1, load_log("time_format = \"utc\"; syslog_facility = \"bad\";"));
    EXPECT_EQ("Invalid time format: utc\n", said);
    EXPECT_EQ(99, lc.timefmt);
    EXPECT_EQ(-1, load_log(assign("time_format", 15)));
    EXPECT_EQ("", said);
    EXPECT_NE("", log.text());
}

TEST_F(appcfg, a_bad_syslog_facility_is_told)
{
    EXPECT_EQ(-1, load_log("enable_syslog = true; syslog_facility = \"LOCAL3\"; eod_rotate = true;"));
    EXPECT_EQ("load_log_config: invalid/unsupported syslog facility: LOCAL3\n", said);
    EXPECT_FALSE(lc.eod_rotate);
    EXPECT_EQ(-1, load_log("enable_syslog = true;" + assign("syslog_facility", 15)));
    EXPECT_EQ("", said);
    EXPECT_NE("", log.text());
    EXPECT_EQ(0, load_log("enable_syslog = true; syslog_facility = \"USER\";"));
    EXPECT_EQ(8, lc.facility);
}

TEST_F(appcfg, syslog_is_on_unless_turned_off)
{
    // A section that says nothing of syslog but names an unknown facility doesn't load.
    EXPECT_EQ(-1, load_log("syslog_facility = \"mail\";"));
    EXPECT_EQ("load_log_config: invalid/unsupported syslog facility: mail\n", said);

    lc.facility = 77;
    EXPECT_EQ(0, load_log("enable_syslog = false; syslog_facility = \"mail\"; eod_rotate = true;"));
    EXPECT_EQ("", said);
    EXPECT_FALSE(lc.enable_syslog);
    EXPECT_EQ(77, lc.facility);
    EXPECT_TRUE(lc.eod_rotate);
}

TEST_F(appcfg, numbers_and_flags_of_another_type_count_as_missing)
{
    EXPECT_EQ(0, load_log("max_size_mb = \"many\"; max_files = true; enable_syslog = \"no\"; eod_rotate = 1;"));
    EXPECT_EQ(64, lc.max_size_mb);
    EXPECT_EQ(16, lc.max_files);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);
}

TEST_F(appcfg, the_rotation_limits_reach_the_channel)
{
    lc.max_size_mb = 3;
    lc.max_files = 5;
    log_ctx channel = {};
    apply_log_config(&channel, &lc);
    EXPECT_EQ(size_t{3} << 20, log_rota_maxsize(&channel));
    EXPECT_EQ(5u, log_rota_maxfiles(&channel));
    EXPECT_EQ(0, log_rota_eod(&channel));

    lc.max_size_mb = 4096; // as bytes no int holds it
    lc.eod_rotate = true;
    const time_t now = time(nullptr);
    apply_log_config(&channel, &lc);
    EXPECT_EQ(size_t{4096} << 20, log_rota_maxsize(&channel));
    EXPECT_GE(log_rota_eod(&channel), now);
    EXPECT_LE(log_rota_eod(&channel), now + 25 * 3600 + 60);
}

TEST_F(appcfg, syslog_reaches_the_channel_only_if_it_is_on)
{
    log_ctx channel = {};
    lc.facility = 152;
    apply_syslog_config(&channel, "test", &lc);
    EXPECT_FALSE(channel.syslg.enabled);

    lc.enable_syslog = true;
    apply_syslog_config(&channel, "test", &lc);
    EXPECT_TRUE(channel.syslg.enabled);
    EXPECT_EQ(3, channel.syslg.option);
    EXPECT_EQ(152, channel.syslg.facility);
    disable_syslog(&channel);
}

TEST_F(appcfg, a_log_section_is_shown)
{
    strcpy(lc.path, "/tmp/x.log");
    lc.level = ll::critical;
    lc.timefmt = 1025;
    lc.max_files = 9;
    EXPECT_EQ("Log (regular):\n\tpath   = /tmp/x.log\n\tlevel  = ctitical\n\tformat = raw_mono\n\n", dumped(lc, ""));
    EXPECT_EQ("Log (regular):\n", dumped(lc, nullptr).substr(0, 15));
    EXPECT_EQ("Log (alerts):\n", dumped(lc, "alerts").substr(0, 14));
}

TEST_F(appcfg, rotation_and_syslog_are_shown_if_they_are_on)
{
    lc.max_size_mb = 4;
    lc.max_files = 9;
    lc.enable_syslog = true;
    lc.facility = 136;
    EXPECT_EQ("Log (regular):\n\tpath   = \n\tlevel  = normal\n\tformat = local\n"
              "\trota:max size   = 4 Mb\n\trota:max files  = 9\n\trota:end-of-day = off (0)\n"
              "\tsyslog:facility  = 136 (local1)\n\n",
              dumped(lc, ""));
}

TEST_F(appcfg, a_rotation_by_day_alone_is_shown_with_0_mb)
{
    lc.eod_rotate = true;
    log_ctx channel = {};
    channel.rota.max_log_tm = 1533679199;
    EXPECT_EQ("Log (x):\n\tpath   = \n\tlevel  = normal\n\tformat = local\n"
              "\trota:max size   = 0 Mb\n\trota:max files  = 0\n\trota:end-of-day = ON (1533679199)\n\n",
              dumped(lc, "x", &channel));
}

// ---- runtime section ------------------------------------------------------------------------------------------

TEST_F(appcfg, an_empty_runtime_section_gets_the_defaults_of_sections)
{
    memset(&rt, 'x', sizeof(rt));
    rt.non_daemon = rt.enforce_core_dumps = true;
    // Whatever the command line said of quiet before the file was read is overwritten.
    rt.quiet = true;
    EXPECT_EQ(0, load_rt(""));
    EXPECT_STREQ("", rt.pidfile);
    EXPECT_STREQ("", rt.user);
    EXPECT_FALSE(rt.non_daemon);
    EXPECT_FALSE(rt.quiet);
    EXPECT_FALSE(rt.enforce_core_dumps);
    EXPECT_EQ(-1, rt.cpunum);
}

TEST_F(appcfg, all_keys_of_a_runtime_section_are_read)
{
    EXPECT_EQ(0, load_rt("pidfile = \"/run/kvt.pid\"; non_daemon = true; quiet = true; enforce_core_dumps = true;"
                         " cpunum = 2; run_as_user = \"nobody\";"));
    EXPECT_STREQ("/run/kvt.pid", rt.pidfile);
    EXPECT_STREQ("nobody", rt.user);
    EXPECT_TRUE(rt.non_daemon);
    EXPECT_TRUE(rt.quiet);
    EXPECT_TRUE(rt.enforce_core_dumps);
    EXPECT_EQ(2, rt.cpunum);
}

TEST_F(appcfg, strings_of_a_runtime_section_have_limits)
{
    EXPECT_EQ(0, load_rt(assign("pidfile", 126) + assign("run_as_user", 30)));
    EXPECT_EQ(126u, strlen(rt.pidfile));
    EXPECT_EQ(30u, strlen(rt.user));

    rt.cpunum = 99;
    EXPECT_EQ(-1, load_rt(assign("pidfile", 127) + "cpunum = 3;"));
    EXPECT_EQ("(ERR)  load_config_setting_str: pidfile value is too long (127), max = 126 characters.\n", log.text());
    EXPECT_EQ(99, rt.cpunum); // the first failure stops
    EXPECT_EQ(-1, load_rt(assign("run_as_user", 31) + "cpunum = 3;"));
    EXPECT_EQ("(ERR)  load_config_setting_str: run_as_user value is too long (31), max = 30 characters.\n", log.text());
    EXPECT_EQ(3, rt.cpunum);
}

TEST_F(appcfg, a_runtime_section_is_shown)
{
    rt.cpunum = -1;
    EXPECT_EQ("Runtime:\n\tflags:\n\n", dumped(rt));
    rt.cpunum = 0;
    EXPECT_EQ("Runtime:\n\tCPU: 0\n\tflags:\n\n", dumped(rt));
    rt.quiet = true;
    EXPECT_EQ("Runtime:\n\tCPU: 0\n\tflags: [quiet]\n\n", dumped(rt));

    strcpy(rt.pidfile, "/run/kvt.pid");
    strcpy(rt.user, "nobody");
    rt.cpunum = 3;
    rt.non_daemon = rt.enforce_core_dumps = true;
    EXPECT_EQ("Runtime:\n\tpid file = /run/kvt.pid\n\trun as user: nobody\n\tCPU: 3\n"
              "\tflags: [non-daemon] [quiet] [cores]\n\n",
              dumped(rt));
}
