#include "common/meta.h"
#include "support/app_kit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

using akit::cmdline;
using akit::in_child;
using akit::outcome;
using akit::set_up;

namespace
{

const std::string SRC = "tcp://127.0.0.1:5000";

// In a directory of its own, so that no kvt.conf is found.
class app_opt : public testing::Test
{
protected:
    app_opt() { std::filesystem::current_path(dir.path()); }
    ~app_opt() override { std::filesystem::current_path("/"); }

    // A configuration with what is required, and more.
    std::string config(const std::string& more = "", const std::string& name = "my.conf",
                       const std::string& runtime = "", const std::string& log = "")
    {
        return dir.file(name, "kvt: { log: { enable_syslog = false; " + log + " }; runtime: { " + runtime + " }; " +
                                  more + " };\n");
    }
    outcome refused(std::initializer_list<std::string> args)
    {
        return in_child([&] { set_up(args); });
    }

    akit::temp_dir dir;
};

// Files that are said to exist, in place of those that do.
std::set<std::string> present;

std::string guide()
{
    return "Usage: kvt -i {source} OPTIONS \n"
           "\n"
           "Parameters:\n"
           "  -i|--source   {URL}         = source stream URL\n"
           "  -S|--srctag   {tag}         = source tag to use in analyzer\n"
           "Options:\n"
           "  -N|--nid      {num}         = numeric ID (>=0) for the source [0]\n"
           "  -C|--config   {path}        = config file\n"
           "  -l|--logfile  {path}        = log file\n"
           "  -p|--pidfile  {path}        = pid file\n"
           "  -a|--alertlog {path}        = alert log file\n"
           "  -L|--level    {level}       = log level: crit|err|norm|warn|info|debug [info]\n"
           "  -E|--cachesz  {mb}          = cache size in Mb [8]\n"
           "  -t|--tail     {mb}:{ms}     = tail size/time in Mb/ms [2:500]\n"
           "  -m|--mcastif  {name}        = multicast interface name [all]\n"
           "  -R|--minread  {nbytes}      = number of bytes to be vacant [4096]\n"
           "  -D|--snapdir  {directory}   = directory for snapshot files [.]\n"
           "  -x|--snapfx   {prefix}      = prefix for snapshot files [snap]\n"
           "  -k|--track    {o1}:{o2}..   = specify tracking option(s) []\n"
           "  -A|--analyze  {param}=val   = specify analyzer option/setting\n"
           "  -H|--http10                 = use HTTP/1.0 to avoid chunked output\n"
           "  -q|--quiet                  = send no output to terminal\n"
           "  -T|--term                   = run with output to screen/TTY\n"
           "  -V|--version                = output application's version\n"
           "  -h|?|--help                 = output this option guide\n"
           "\n";
}

std::string build_info()
{
    return in_child([] { dump_build_info(stderr); }).err;
}

std::string identity()
{
    return std::string(get_app_info("kvt", nullptr)) + "\n";
}

} // namespace

extern "C" int access(const char* path, int mode) noexcept
{
    if (!present.empty()) return present.contains(path) ? 0 : -1;
    return faccessat(AT_FDCWD, path, mode, 0);
}

// ---- the guide ------------------------------------------------------------------------------------------------

TEST_F(app_opt, guide_shows_identity_options_and_build_information)
{
    const outcome o = in_child([] { usage(1); });
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, identity() + guide() + build_info());
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(in_child([] { usage(3); }).status, 3);
}

TEST_F(app_opt, help_in_all_its_spellings_prints_the_guide_and_leaves_with_1)
{
    for (const char* opt : {"-h", "--help", "-?", "--options"}) {
        const outcome o = refused({"-i", SRC, opt});
        EXPECT_EQ(o.status, 1) << opt;
        EXPECT_EQ(o.err, identity() + guide() + build_info()) << opt;
    }
}

TEST_F(app_opt, version_prints_the_identity_and_leaves_with_1)
{
    for (const char* opt : {"-V", "--version"}) {
        const outcome o = refused({"-i", SRC, opt});
        EXPECT_EQ(o.status, 1) << opt;
        EXPECT_EQ(o.err, identity()) << opt;
    }
}

// Whoever copies these from the guide learns at once that they come from the file.
TEST_F(app_opt, three_options_of_the_guide_are_not_on_offer)
{
    for (const char* opt : {"-R", "-D", "-x", "--minread", "--snapdir", "--snapfx"}) {
        const outcome o = refused({"-i", SRC, opt, "4096"});
        EXPECT_EQ(o.status, 1) << opt;
        EXPECT_TRUE(o.err.ends_with(identity() + guide() + build_info())) << o.err;
        EXPECT_NE(o.err.find("option"), std::string::npos);
        EXPECT_LT(o.err.find("option"), o.err.find("Usage:"));
    }
}

TEST_F(app_opt, unknown_option_or_missing_argument_prints_the_guide)
{
    for (const char* opt : {"-z", "--nonsense", "-i", "--source", "-N"}) {
        const outcome o = refused({opt});
        EXPECT_EQ(o.status, 1) << opt;
        EXPECT_TRUE(o.err.ends_with(guide() + build_info())) << o.err;
    }
}

// ---- single options -------------------------------------------------------------------------------------------

TEST_F(app_opt, source_alone_is_enough)
{
    EXPECT_EQ(set_up({"-i", SRC}), 0);
    EXPECT_EQ(g_cfg.src_url, SRC);
    EXPECT_STREQ(g_cfg.config_path, "");
    EXPECT_EQ(log_get_group(&g_log), 0x4954564bu); // "KVTI"
    EXPECT_EQ(log_fp(&g_log), stderr);
    EXPECT_EQ(log_fp(&g_access_log), stdout);
}

TEST_F(app_opt, long_names_do_what_the_letters_do)
{
    EXPECT_EQ(set_up({"--source",  SRC,      "--srctag",   "chan1",     "--nid=5", "--logfile", "/l{N}",
                      "--pidfile", "/p",     "--alertlog", "/a{N}",     "--level", "debug",     "--cachesz",
                      "16",        "--tail", "3:250",      "--mcastif", "eth1",    "--track",   "all",
                      "--analyze", "on",     "--http10",   "--quiet",   "--term"}),
              0);
    EXPECT_EQ(g_cfg.src_url, SRC);
    EXPECT_STREQ(g_cfg.tsa.source, "chan1");
    EXPECT_EQ(g_cfg.instance_num, 5u);
    EXPECT_STREQ(g_cfg.log.path, "/l5");
    EXPECT_STREQ(g_cfg.rt.pidfile, "/p");
    EXPECT_STREQ(g_cfg.alert_log.path, "/a5");
    EXPECT_EQ(g_cfg.log.level, ll::debug);
    EXPECT_EQ(g_cfg.cache_sz_mb, 16u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 250u);
    EXPECT_STREQ(g_cfg.mcast_ifc, "eth1");
    EXPECT_TRUE(g_cfg.tsa.trk.misc_ignore);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_TRUE(g_cfg.use_http10_get);
    EXPECT_TRUE(g_cfg.rt.quiet);
    EXPECT_TRUE(g_cfg.rt.non_daemon);
}

TEST_F(app_opt, source_is_cut_at_127_characters)
{
    const std::string url = "http://h/" + std::string(118, 'a');
    ASSERT_EQ(url.size(), 127u);
    set_up({"-i", url});
    EXPECT_EQ(g_cfg.src_url, url);
    set_up({"-i", url + "b"});
    EXPECT_EQ(g_cfg.src_url, url);
}

TEST_F(app_opt, source_tag_names_the_snapshots_too)
{
    const std::string tag = "0123456789abcdef" + std::string(47, 't');
    set_up({"-i", SRC, "-S", tag});
    EXPECT_EQ(g_cfg.tsa.source, tag);
    EXPECT_STREQ(g_cfg.snap_pfx, "0123456789abcde");
    set_up({"-i", SRC, "-S", tag + "u"});
    EXPECT_EQ(g_cfg.tsa.source, tag);
}

TEST_F(app_opt, log_paths_of_128_characters_are_refused)
{
    const std::string longest(127, 'p');
    EXPECT_EQ(set_up({"-i", SRC, "-l", longest, "-a", longest, "-p", longest}), 0);
    EXPECT_EQ(g_cfg.log.path, longest);
    EXPECT_EQ(g_cfg.alert_log.path, longest);
    EXPECT_EQ(g_cfg.rt.pidfile, longest);

    const std::string longer(128, 'p');
    outcome o = refused({"-i", SRC, "-l", longer});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Log path is too long (128 bytes), max=128 bytes.\n");
    o = refused({"-i", SRC, "-p", longer + "p"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Pidfile path is too long (129 bytes), max=128 bytes.\n");
    o = refused({"-i", SRC, "-a", longer});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Alert log path is too long (128 bytes), max=128 bytes.\n");
}

TEST_F(app_opt, numeric_id_goes_into_log_paths_wherever_it_stands)
{
    set_up({"-i", SRC, "-l", "/var/log/kvt-{N}.log", "-a", "/var/{N}/{N}", "-p", "/run/{N}", "-N", "3"});
    EXPECT_STREQ(g_cfg.log.path, "/var/log/kvt-3.log");
    EXPECT_STREQ(g_cfg.alert_log.path, "/var/3/3");
    EXPECT_STREQ(g_cfg.rt.pidfile, "/run/{N}");
}

TEST_F(app_opt, id_of_0_leaves_the_macro_of_the_command_line_and_removes_that_of_the_file)
{
    const std::string conf = config("", "my.conf", "", "file = \"/tmp/kvt-{N}.log\";");
    set_up({"-i", SRC, "-l", "/l{N}"});
    EXPECT_STREQ(g_cfg.log.path, "/l{N}");
    set_up({"-i", SRC, "-C", conf});
    EXPECT_STREQ(g_cfg.log.path, "/tmp/kvt-.log");
    set_up({"-i", SRC, "-C", conf, "-N", "12"});
    EXPECT_STREQ(g_cfg.log.path, "/tmp/kvt-12.log");
}

TEST_F(app_opt, path_that_cannot_hold_the_id_is_refused)
{
    const outcome o = refused({"-i", SRC, "-N", "123456789", "-l", std::string(124, 'p') + "{N}"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Log path cannot hold the numeric ID: " + std::string(124, 'p') + "{N}\n");
}

TEST_F(app_opt, numeric_id_is_not_checked)
{
    set_up({"-i", SRC, "-N", "abc"});
    EXPECT_EQ(g_cfg.instance_num, 0u);
    set_up({"-i", SRC, "-N", "-1"});
    EXPECT_EQ(g_cfg.instance_num, 4294967295u);
    set_up({"-i", SRC, "-N", "010"}); // decimal, whatever it begins with
    EXPECT_EQ(g_cfg.instance_num, 10u);
    set_up({"-i", SRC, "-N", "0x10"});
    EXPECT_EQ(g_cfg.instance_num, 0u);
    set_up({"-i", SRC, "-N", "4", "-N", "7 or 8"}); // the last one counts, and of it the digits
    EXPECT_EQ(g_cfg.instance_num, 7u);
}

TEST_F(app_opt, level_is_a_word)
{
    set_up({"-i", SRC, "-L", "WARN"});
    EXPECT_EQ(g_cfg.log.level, ll::warning);
    const outcome o = refused({"-i", SRC, "-L", "loud"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Invalid log level: loud\n");
}

TEST_F(app_opt, cache_size_is_1_to_2047)
{
    set_up({"-i", SRC, "-E", "1"});
    EXPECT_EQ(g_cfg.cache_sz_mb, 1u);
    set_up({"-i", SRC, "-E", "2047"});
    EXPECT_EQ(g_cfg.cache_sz_mb, 2047u);
    for (const char* bad : {"0", "-1", "2048", "99999", "x"}) {
        const outcome o = refused({"-i", SRC, "-E", bad});
        EXPECT_EQ(o.status, 1);
        EXPECT_EQ(o.err, "Invalid cache size=" + std::string(bad) + " (0..2048)\n");
    }
}

TEST_F(app_opt, multicast_interface_is_cut_at_15_characters)
{
    set_up({"-i", SRC, "-m", "0123456789abcdefg"});
    EXPECT_STREQ(g_cfg.mcast_ifc, "0123456789abcde");
}

TEST_F(app_opt, analyzer_options_add_up_in_their_order)
{
    set_up({"-i", SRC, "-S", "c", "-A", "on", "-A", "pcr_delta=7", "-A", "pcr_delta=8", "-k", "pat_pmt:pmt_d"});
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_EQ(g_cfg.tsa.max_pcr_delta, 8u);
    EXPECT_TRUE(g_cfg.tsa.trk.pat_pmt_pkt);
    EXPECT_TRUE(g_cfg.tsa.trk.pmt_diff);
    EXPECT_FALSE(g_cfg.tsa.trk.misc_ignore);
}

TEST_F(app_opt, bad_analyzer_option_ends_the_start)
{
    const outcome o = refused({"-i", SRC, "-A", "pcr_delta"});
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.err.find("invalid option string format: pcr_delta\n"), std::string::npos);
}

// ---- the tail -------------------------------------------------------------------------------------------------

TEST_F(app_opt, tail_takes_size_and_time)
{
    struct row {
        const char* text;
        size_t mb;
        size_t ms;
    };
    for (const row& r : {row{"3:250", 3, 250}, row{"682:1", 682, 1}, row{"1:0", 1, 0}, row{"0:0", 682, 0},
                         row{"-5:-5", 682, 0}, row{"-1:5", 682, 5}, row{"5:-1", 5, 0}, row{"6 Mb:7 ms", 6, 7},
                         row{":", 682, 0}, row{"x:y", 682, 0}, row{"4:5:6", 4, 5}}) {
        g_cfg.tail_sz_mb = 99;
        g_cfg.tail_tm_ms = 99;
        EXPECT_EQ(get_tail_params(r.text), 0) << r.text;
        EXPECT_EQ(g_cfg.tail_sz_mb, r.mb) << r.text;
        EXPECT_EQ(g_cfg.tail_tm_ms, r.ms) << r.text;
    }
}

TEST_F(app_opt, tail_without_a_colon_or_above_682_mb_is_refused)
{
    struct row {
        const char* text;
        int rc;
        const char* told;
    };
    for (const row& r :
         {row{"3", -22, "Missing colon in -t value: 3\n"}, row{"683:1", -34, "Cache size out of range: 683 (1..682)\n"},
          row{"5000:1", -34, "Cache size out of range: 5000 (1..682)\n"}}) {
        const outcome o = in_child([&] {
            g_cfg.tail_sz_mb = 99;
            const int rc = get_tail_params(r.text);
            _exit(rc == r.rc && g_cfg.tail_sz_mb == 99 ? 0 : 1);
        });
        EXPECT_EQ(o.status, 0) << r.text;
        EXPECT_EQ(o.err, r.told);
        EXPECT_EQ(refused({"-i", SRC, "-t", r.text}).status, 1);
    }
}

// ---- file and command line ------------------------------------------------------------------------------------

TEST_F(app_opt, file_in_the_working_directory_is_found)
{
    config("cache: { size_mb = 24; };", "kvt.conf");
    set_up({"-i", SRC});
    EXPECT_STREQ(g_cfg.config_path, "./kvt.conf");
    EXPECT_EQ(g_cfg.cache_sz_mb, 24u);
}

TEST_F(app_opt, search_goes_on_in_the_system_s_directories)
{
    const auto found = [&](const std::set<std::string>& files) {
        return in_child([&] {
            present = files;
            set_up({"-i", SRC});
        });
    };
    const std::string etc = "/etc/kvt.conf";
    const std::string local = "/usr/local/etc/kvt.conf";
    if (std::filesystem::exists(etc) || std::filesystem::exists(local)) GTEST_SKIP() << "this machine has one of them";
    EXPECT_EQ(found({"./kvt.conf", etc, local}).err, "Failed to load [./kvt.conf]\n");
    EXPECT_EQ(found({etc, local}).err, "Failed to load [/etc/kvt.conf]\n");
    EXPECT_EQ(found({local}).err, "Failed to load [/usr/local/etc/kvt.conf]\n");
    EXPECT_EQ(found({"/var/kvt.conf"}).status, akit::CAME_BACK); // none of the three
}

TEST_F(app_opt, named_file_stands_in_for_the_search)
{
    config("cache: { size_mb = 24; };", "kvt.conf");
    const std::string mine = config("cache: { size_mb = 25; };");
    set_up({"-C", mine, "-i", SRC});
    EXPECT_EQ(g_cfg.config_path, mine);
    EXPECT_EQ(g_cfg.cache_sz_mb, 25u);
}

TEST_F(app_opt, command_line_overrides_the_file)
{
    const std::string conf = config("cache: { size_mb = 24; tail_size_mb = 5; tail_duration_ms = 6; };"
                                    "source: { mcast_ifc = \"eth0\"; };"
                                    "stream_analyzer: { enabled = true; source_tag = \"filetag\"; };",
                                    "my.conf", "pidfile = \"/filepid\";", "level = \"warn\";");
    set_up({"-E", "9", "-t", "7:8", "-m", "eth9", "-S", "mine", "-p", "/minepid", "-L", "err", "-A", "off", "-i", SRC,
            "-C", conf});
    EXPECT_EQ(g_cfg.cache_sz_mb, 9u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 7u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 8u);
    EXPECT_STREQ(g_cfg.mcast_ifc, "eth9");
    EXPECT_STREQ(g_cfg.tsa.source, "mine");
    EXPECT_STREQ(g_cfg.rt.pidfile, "/minepid");
    EXPECT_EQ(g_cfg.log.level, ll::error);
    EXPECT_FALSE(g_cfg.tsa.is_enabled);
}

TEST_F(app_opt, file_and_its_time_are_noted_for_the_reload)
{
    const std::string conf = config();
    g_ctx.config_mtime = 0;
    set_up({"-i", SRC, "-C", conf});
    struct stat st = {};
    ASSERT_EQ(stat(conf.c_str(), &st), 0);
    EXPECT_EQ(g_ctx.config_mtime, st.st_mtime);
    EXPECT_NE(g_ctx.config_load_tm, 0);
}

// The path is kept cut, and the reload looks where it is kept.
TEST_F(app_opt, time_of_a_file_whose_path_is_too_long_cannot_be_noted)
{
    const std::string conf = config("", std::string(200 - dir.path().size(), 'c'));
    const outcome o = in_child([&] {
        set_up({"-i", SRC, "-C", conf});
        _exit(g_ctx.config_mtime == -1 ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.err.find("get_file_mtime: FAILED to retrieve mtime for [" + conf.substr(0, 127) + "]: "),
              std::string::npos);
}

TEST_F(app_opt, path_of_the_file_is_told_at_debug)
{
    const std::string conf = config();
    const outcome o = in_child([&] {
        g_mod_ll[0] = ll::debug;
        set_up({"-i", SRC, "-C", conf});
    });
    EXPECT_EQ(o.status, akit::CAME_BACK);
    EXPECT_NE(o.err.find("(DBG)  KVTI  Using config at [" + conf + "]\n"), std::string::npos) << o.err;
}

TEST_F(app_opt, file_that_cannot_be_loaded_ends_the_start)
{
    outcome o = refused({"-i", SRC, "-C", dir.path("none.conf")});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Failed to load [" + dir.path("none.conf") + "]\n");

    o = refused({"-i", SRC, "-C", dir.file("bad.conf", "kvt: {")});
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.err.find("Error reading/parsing config file [" + dir.path("bad.conf") + "]: line 1: "),
              std::string::npos);
}

TEST_F(app_opt, time_format_of_the_file_is_put_in_force)
{
    const std::string conf = config("", "my.conf", "", "time_format = \"raw_mono\";");
    set_up({"-i", SRC, "-C", conf});
    EXPECT_EQ(g_log.time_format, 1025u);
}

TEST_F(app_opt, time_format_of_the_file_is_that_of_what_the_options_are_told)
{
    const std::string conf = config("", "my.conf", "", "time_format = \"no_time\";");
    const outcome o = refused({"-i", SRC, "-C", conf, "-A", "pcr_delta"});
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(("\n" + o.err).find("\n(ERR)  KVTI  tsan_cli_opt: invalid option string format: pcr_delta\n"),
              std::string::npos)
        << o.err;
}

TEST_F(app_opt, settings_are_told_on_the_standard_streams)
{
    cmdline line({"-i", SRC});
    glog_init("kvt");
    log_default(&g_log, stdout);
    log_default(&g_access_log, stderr);
    EXPECT_EQ(setup_config(line.argc(), line.argv()), 0);
    EXPECT_EQ(log_fp(&g_log), stderr);
    EXPECT_EQ(log_fp(&g_access_log), stdout);
}

// Whoever has a file says it there: the runtime section has a value of its own, and it is false when not given.
TEST_F(app_opt, quiet_on_the_command_line_does_not_survive_a_file)
{
    set_up({"-i", SRC, "-q"});
    EXPECT_TRUE(g_cfg.rt.quiet);
    const std::string silent = config();
    set_up({"-i", SRC, "-q", "-C", silent});
    EXPECT_FALSE(g_cfg.rt.quiet);
    const std::string says = config("", "says.conf", "quiet = true;");
    set_up({"-i", SRC, "-C", says});
    EXPECT_TRUE(g_cfg.rt.quiet);
}

TEST_F(app_opt, only_root_runs_as_a_daemon)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    set_up({"-i", SRC});
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    set_up({"-i", SRC, "-T"});
    EXPECT_TRUE(g_cfg.rt.non_daemon);
    const outcome o = in_child([&] {
        if (seteuid(65534) != 0) _exit(2);
        set_up({"-i", SRC});
        _exit(g_cfg.rt.non_daemon ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0);
}

// ---- mandatory settings ---------------------------------------------------------------------------------------

TEST_F(app_opt, source_is_mandatory)
{
    const outcome o = refused({"-T"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, "Source URL must be specified, run /usr/bin/kvt --help for options\n");
}

TEST_F(app_opt, tag_is_mandatory_with_the_analyzer_on)
{
    const outcome o = refused({"-i", SRC, "-A", "on"});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.err.ends_with("Source tag (-S) must be specified, run /usr/bin/kvt --help for options\n")) << o.err;
    EXPECT_EQ(set_up({"-i", SRC, "-A", "on", "-S", "chan1"}), 0);
}

TEST_F(app_opt, cache_and_tail_must_not_be_0)
{
    const std::string told = "Cache and tail sizes must be specified, run /usr/bin/kvt --help for options\n";
    outcome o = refused({"-i", SRC, "-C", config("cache: { size_mb = 0; };")});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.err.ends_with(told)) << o.err;
    o = refused({"-i", SRC, "-C", config("cache: { tail_size_mb = 0; };")});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.err.ends_with(told)) << o.err;
}

// ---- what is filled in ----------------------------------------------------------------------------------------

TEST_F(app_opt, empty_settings_are_filled_in)
{
    const std::string conf =
        config("cache: { min_bytes_left = 0; }; snapshot: { dir_path = \"\"; file_prefix = \"\"; };");
    set_up({"-i", SRC, "-C", conf});
    EXPECT_EQ(g_cfg.min_read_bytes, 4096u);
    EXPECT_STREQ(g_cfg.snap_dir, ".");
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    set_up({"-i", SRC, "-C", conf, "-S", "a tag of its own"});
    EXPECT_STREQ(g_cfg.snap_pfx, "a-tag-of-its-ow");
}

TEST_F(app_opt, blanks_in_the_prefix_become_minus_signs)
{
    const std::string conf = config("snapshot: { file_prefix = \"a b\\tc\"; };");
    set_up({"-i", SRC, "-C", conf});
    EXPECT_STREQ(g_cfg.snap_pfx, "a-b-c");
}

// The numbers of the message stand out of their natural places.
TEST_F(app_opt, vacant_part_is_1400_bytes_to_a_quarter_of_the_ring)
{
    const auto with = [&](const std::string& nbytes) {
        return config("cache: { size_mb = 1; min_bytes_left = " + nbytes + "; };");
    };
    EXPECT_EQ(set_up({"-i", SRC, "-C", with("1400")}), 0);
    EXPECT_EQ(set_up({"-i", SRC, "-C", with("262144")}), 0);
    outcome o = refused({"-i", SRC, "-C", with("1399")});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.err.ends_with("-R value (1400) should be >= 1399 and less than 262144\n")) << o.err;
    o = refused({"-i", SRC, "-C", with("262145")});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.err.ends_with("-R value (1400) should be >= 262145 and less than 262144\n")) << o.err;
}
