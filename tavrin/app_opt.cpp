// The command line: the option guide, the two passes over the options, the checks that come after them.
//
// Two passes, because the file stands between them: what has to be known before it is read (its path, the numeric ID,
// quiet) is taken in the first, and everything else in the second, so that the command line overrides the file. One
// table holds all options; the tables that getopt_long wants are made from it at compile time.
// Failures are told on stderr: the log is not open yet.

#include "common/meta.h"
#include "log.h"
#include "strops.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"
#include "util.h"

#include <getopt.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

TV_LOG_MODULE(app_int::log_module)

namespace
{

constexpr int EXIT_BAD_USE = 1;

constexpr int CACHE_LIMIT_MB = 2048;            // a ring is smaller than that
constexpr int TAIL_MAX_MB = CACHE_LIMIT_MB / 3; // largest tail of a delayed snapshot
constexpr unsigned MIN_READ_SHARE_SHIFT = 2;    // the vacant part is at most a quarter of the ring
static_assert(TAIL_MAX_MB == 682);

constexpr const char* CONFIG_PATHS[] = {"./kvt.conf", "/etc/kvt.conf", "/usr/local/etc/kvt.conf"};

constexpr const char* GUIDE[] = {
    "Parameters:",
    "  -i|--source   {URL}         = source stream URL",
    "  -S|--srctag   {tag}         = source tag to use in analyzer",
    "Options:",
    "  -N|--nid      {num}         = numeric ID (>=0) for the source [0]",
    "  -C|--config   {path}        = config file",
    "  -l|--logfile  {path}        = log file",
    "  -p|--pidfile  {path}        = pid file",
    "  -a|--alertlog {path}        = alert log file",
    "  -L|--level    {level}       = log level: crit|err|norm|warn|info|debug [info]",
    "  -E|--cachesz  {mb}          = cache size in Mb [8]",
    "  -t|--tail     {mb}:{ms}     = tail size/time in Mb/ms [2:500]", // by design not the built-in 1000 ms
    "  -m|--mcastif  {name}        = multicast interface name [all]",
    "  -R|--minread  {nbytes}      = number of bytes to be vacant [4096]",
    "  -D|--snapdir  {directory}   = directory for snapshot files [.]",
    "  -x|--snapfx   {prefix}      = prefix for snapshot files [snap]",
    "  -k|--track    {o1}:{o2}..   = specify tracking option(s) []",
    "  -A|--analyze  {param}=val   = specify analyzer option/setting",
    "  -H|--http10                 = use HTTP/1.0 to avoid chunked output",
    "  -q|--quiet                  = send no output to terminal",
    "  -T|--term                   = run with output to screen/TTY",
    "  -V|--version                = output application's version",
    "  -h|?|--help                 = output this option guide",
};

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using text_owner = std::unique_ptr<char, free_deleter>;
static_assert(sizeof(text_owner) == sizeof(char*));

// ---- options of the second pass: 0, or a failure that has been told --------------------------------------------

int take_source(const char* arg)
{
    app_int::copy_text(g_cfg.src_url, sizeof(g_cfg.src_url), arg);
    return 0;
}

int take_srctag(const char* arg)
{
    app_int::copy_text(g_cfg.tsa.source, sizeof(g_cfg.tsa.source), arg);
    if (g_cfg.snap_pfx[0] != '\0') app_int::copy_text(g_cfg.snap_pfx, sizeof(g_cfg.snap_pfx), arg);
    return 0;
}

// A path is never cut: a file of another name would be written.
int take_path(const char* what, char (&field)[KVT_PATH_MAX], const char* arg)
{
    const size_t len = strlen(arg);
    if (len >= KVT_PATH_MAX) {
        fprintf(stderr, "%s path is too long (%ld bytes), max=%ld bytes.\n", what, static_cast<long>(len),
                static_cast<long>(KVT_PATH_MAX));
        return -1;
    }
    app_int::copy_text(field, sizeof(field), arg);
    return 0;
}

int take_log_path(const char* what, char (&field)[KVT_PATH_MAX], const char* arg)
{
    int rc = take_path(what, field, arg);
    if (rc != 0 || g_cfg.instance_num == 0) return rc;
    rc = replace_ul_macro(field, sizeof(field) - 1, "{N}", g_cfg.instance_num);
    if (rc != 0) fprintf(stderr, "%s path cannot hold the numeric ID: %s\n", what, arg);
    return rc;
}

int take_logfile(const char* arg)
{
    return take_log_path("Log", g_cfg.log.path, arg);
}

int take_pidfile(const char* arg)
{
    return take_path("Pidfile", g_cfg.rt.pidfile, arg);
}

int take_alertlog(const char* arg)
{
    return take_log_path("Alert log", g_cfg.alert_log.path, arg);
}

int take_level(const char* arg)
{
    const int rc = match_log_level(arg, &g_cfg.log.level);
    if (rc != 0) fprintf(stderr, "Invalid log level: %s\n", arg);
    return rc;
}

int take_cachesz(const char* arg)
{
    const long mb = atol(arg);
    if (mb < 1 || mb >= CACHE_LIMIT_MB) {
        fprintf(stderr, "Invalid cache size=%s (0..%d)\n", arg, CACHE_LIMIT_MB);
        return -1;
    }
    g_cfg.cache_sz_mb = static_cast<size_t>(mb);
    return 0;
}

int take_mcastif(const char* arg)
{
    app_int::copy_text(g_cfg.mcast_ifc, sizeof(g_cfg.mcast_ifc), arg);
    return 0;
}

int take_track(const char* arg)
{
    return tsan_xtrack_opt(arg, &g_cfg.tsa);
}

int take_analyze(const char* arg)
{
    return tsan_cli_opt(arg, &g_cfg.tsa);
}

int take_http10(const char*)
{
    g_cfg.use_http10_get = true;
    return 0;
}

int take_term(const char*)
{
    g_cfg.rt.non_daemon = true;
    return 0;
}

int take_minread(const char* arg)
{
    const long nbytes = atol(arg);
    if (nbytes <= 0) {
        fprintf(stderr, "Invalid -R value: %s\n", arg);
        return -1;
    }
    g_cfg.min_read_bytes = static_cast<size_t>(nbytes);
    return 0;
}

int take_snapdir(const char* arg)
{
    app_int::copy_text(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), arg);
    return 0;
}

int take_snapfx(const char* arg)
{
    app_int::copy_text(g_cfg.snap_pfx, sizeof(g_cfg.snap_pfx), arg);
    return 0;
}

// Taken in the first pass already.
int taken_before(const char*)
{
    return 0;
}

// ---- option tables --------------------------------------------------------------------------------------------

struct opt_row {
    char letter;
    const char* long_name; // null: getopt_long is not told of the option
    bool has_arg;
    int (*take)(const char* arg); // in the second pass
};

constexpr opt_row OPTS[] = {
    {'i', "source", true, take_source},
    {'S', "srctag", true, take_srctag},
    {'N', "nid", true, taken_before},
    {'C', "config", true, taken_before},
    {'l', "logfile", true, take_logfile},
    {'p', "pidfile", true, take_pidfile},
    {'a', "alertlog", true, take_alertlog},
    {'L', "level", true, take_level},
    {'E', "cachesz", true, take_cachesz},
    {'t', "tail", true, get_tail_params},
    {'m', "mcastif", true, take_mcastif},
    {'k', "track", true, take_track},
    {'A', "analyze", true, take_analyze},
    {'H', "http10", false, take_http10},
    {'q', "quiet", false, taken_before},
    {'T', "term", false, take_term},
    {'V', "version", false, taken_before},
    {'h', "help", false, taken_before},
    {'?', "options", false, taken_before},
    // By design in the guide and not on offer: these three come from the file or the built-in values.
    {'R', nullptr, true, take_minread},
    {'D', nullptr, true, take_snapdir},
    {'x', nullptr, true, take_snapfx},
};

constexpr size_t offered()
{
    size_t n = 0;
    for (const opt_row& o : OPTS)
        n += o.long_name != nullptr ? 1 : 0;
    return n;
}
static_assert(offered() == std::size(OPTS) - 3);

// A letter, and a colon where it takes an argument.
constexpr std::array<char, 2 * std::size(OPTS) + 1> make_short_opts()
{
    std::array<char, 2 * std::size(OPTS) + 1> text = {};
    size_t n = 0;
    for (const opt_row& o : OPTS) {
        if (o.long_name == nullptr) continue;
        text[n++] = o.letter;
        if (o.has_arg) text[n++] = ':';
    }
    return text;
}

constexpr std::array<struct option, offered() + 1> make_long_opts()
{
    std::array<struct option, offered() + 1> rows = {};
    size_t n = 0;
    for (const opt_row& o : OPTS) {
        if (o.long_name == nullptr) continue;
        rows[n++] = {o.long_name, o.has_arg ? required_argument : no_argument, nullptr, o.letter};
    }
    return rows;
}

constexpr auto SHORT_OPTS = make_short_opts();
constexpr auto LONG_OPTS = make_long_opts();

int next_option(int argc, char** argv)
{
    return getopt_long(argc, argv, SHORT_OPTS.data(), LONG_OPTS.data(), nullptr);
}

// ---- passes ---------------------------------------------------------------------------------------------------

[[noreturn]] void show_version()
{
    fprintf(stderr, "%s\n", get_app_info(app_int::name, nullptr));
    exit(EXIT_BAD_USE);
}

// What must be known before the file is read; the path of the file, if one was named, goes to *config_path.
void first_pass(int argc, char** argv, const char** config_path)
{
    for (int c = next_option(argc, argv); c != -1; c = next_option(argc, argv)) {
        switch (c) {
        case 'h':
        case '?': usage(EXIT_BAD_USE); // every rejected option too
        case 'V': show_version();
        case 'C': *config_path = optarg; break;
        case 'N': g_cfg.instance_num = static_cast<unsigned int>(atoi(optarg)); break;
        case 'q': g_cfg.rt.quiet = true; break; // by design not for long: the runtime section has a value of its own
        default: break;
        }
    }
}

int take_option(int letter, const char* arg)
{
    for (const opt_row& o : OPTS) {
        if (o.letter == letter) return o.take(arg);
    }
    fprintf(stderr, "Unknown option: %c\n", letter);
    return -1;
}

void second_pass(int argc, char** argv)
{
    for (int c = next_option(argc, argv); c != -1; c = next_option(argc, argv)) {
        if (take_option(c, optarg) != 0) exit(EXIT_BAD_USE);
    }
}

void load_file(const char* path)
{
    if (path == nullptr) return; // no file at all is no error
    tv_log(ll::debug, "Using config at [%s]\n", path);
    if (load_kvti_config(path, &g_cfg, false) != 0) exit(EXIT_BAD_USE);
    (void)chk_file_updated(g_cfg.config_path, &g_ctx.config_mtime); // notes the time for the reload check
}

// ---- after the passes -----------------------------------------------------------------------------------------

void check_mandatory(const char* prog)
{
    if (g_cfg.src_url[0] == '\0') {
        fprintf(stderr, "Source URL must be specified, run %s --help for options\n", prog);
        exit(EXIT_BAD_USE);
    }
    if (g_cfg.tsa.is_enabled && g_cfg.tsa.source[0] == '\0') {
        fprintf(stderr, "Source tag (-S) must be specified, run %s --help for options\n", prog);
        exit(EXIT_BAD_USE);
    }
    if (g_cfg.cache_sz_mb == 0 || g_cfg.tail_sz_mb == 0) {
        fprintf(stderr, "Cache and tail sizes must be specified, run %s --help for options\n", prog);
        exit(EXIT_BAD_USE);
    }
}

void fill_in()
{
    if (g_cfg.min_read_bytes == 0) g_cfg.min_read_bytes = KVT_DEFAULT_MIN_READ;
    if (g_cfg.snap_dir[0] == '\0') app_int::copy_text(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), ".");
    if (g_cfg.snap_pfx[0] == '\0') {
        app_int::copy_text(g_cfg.snap_pfx, sizeof(g_cfg.snap_pfx),
                           g_cfg.tsa.source[0] != '\0' ? g_cfg.tsa.source : "snap");
    }
    for (char* p = g_cfg.snap_pfx; *p != '\0'; ++p) {
        if (*p == ' ' || *p == '\t') *p = '-';
    }
}

void check_min_read()
{
    const size_t quarter = app_int::mb_bytes(g_cfg.cache_sz_mb) >> MIN_READ_SHARE_SHIFT;
    if (g_cfg.min_read_bytes >= KVT_MIN_READ && g_cfg.min_read_bytes <= quarter) return;
    // By design the numbers stand out of their natural places: the least value, the value, the greatest.
    fprintf(stderr, "-R value (%d) should be >= %zu and less than %zu\n", static_cast<int>(KVT_MIN_READ),
            g_cfg.min_read_bytes, quarter);
    exit(EXIT_BAD_USE);
}

} // namespace

// ---- public ---------------------------------------------------------------------------------------------------

int setup_config(int argc, char** argv)
{
    constexpr union n64_tag group = {.sym8 = {'K', 'V', 'T', 'I', 0, 0, 0, 0}};
    init_kvti_config(&g_cfg);
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);
    uint64_t group_num = 0;
    memcpy(&group_num, group.sym8, sizeof(group_num));
    log_set_group(&g_log, group_num);

    const char* paths[std::size(CONFIG_PATHS)];
    std::copy(std::begin(CONFIG_PATHS), std::end(CONFIG_PATHS), paths);
    const char* config_path = pick_first_file(paths, std::size(paths));
    first_pass(argc, argv, &config_path);
    load_file(config_path);

    reset_getopt_state();
    log_timefmt(&g_log, static_cast<uint32_t>(g_cfg.log.timefmt));
    if (geteuid() != 0) g_cfg.rt.non_daemon = true; // only root runs as a daemon
    second_pass(argc, argv);

    check_mandatory(argv[0]);
    fill_in();
    check_min_read();
    return 0;
}

void usage(int rc)
{
    fprintf(stderr, "%s\n", get_app_info(app_int::name, nullptr));
    fprintf(stderr, "Usage: %s -i {source} OPTIONS \n\n", app_int::name);
    for (const char* line : GUIDE)
        fprintf(stderr, "%s\n", line);
    fputs("\n", stderr);
    dump_build_info(stderr);
    exit(rc);
}

int get_tail_params(const char* param)
{
    const text_owner text(strdup(param));
    if (!text) return -ENOMEM;
    char* colon = strchr(text.get(), ':');
    if (colon == nullptr) {
        fprintf(stderr, "Missing colon in -t value: %s\n", param);
        return -EINVAL;
    }
    *colon = '\0';
    long mb = atol(text.get());
    long ms = atol(colon + 1);
    if (mb < 1) mb = TAIL_MAX_MB; // by design: no size given is the largest
    if (ms < 1) ms = 0;
    if (mb > TAIL_MAX_MB) {
        fprintf(stderr, "Cache size out of range: %ld (1..%d)\n", mb, TAIL_MAX_MB);
        return -ERANGE;
    }
    g_cfg.tail_sz_mb = static_cast<size_t>(mb);
    g_cfg.tail_tm_ms = static_cast<size_t>(ms);
    return 0;
}
