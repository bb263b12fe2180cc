// kvt-play FILE ADDRESS: plays a recorded transport stream at its own pace to a UDP or multicast address, plain or as
// RTP. What the recording is, and its index, is play_source.h's; the sending is play_send.h's.
#include "common/meta.h"
#include "fdio.h"
#include "log.h"
#include "play_send.h"
#include "play_source.h"
#include "util.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

TV_LOG_MODULE(0)

namespace
{

constexpr char NAME[] = "kvt-play";
constexpr int EXIT_USAGE = 2;
constexpr long MAX_TTL = 255;
constexpr double MIN_SPEED = 0.01;
constexpr double MAX_SPEED = 100;

struct options {
    struct play_options play = {};
    struct source_options source = {};
    const char* ifc = nullptr;
    int ttl = -1;
    bool is_quiet = false;
    bool is_verbose = false;
};

void print_usage(FILE* fp)
{
    fprintf(fp,
            "Usage: kvt-play [-elnqv] [-i INTERFACE] [-t TTL] [-s FACTOR] FILE ADDRESS\n"
            "Plays the transport stream FILE at its own pace to ADDRESS: udp://HOST:PORT, rtp://HOST:PORT for RTP,\n"
            "or HOST:PORT.\n\n"
            "  -l, --loop             play it over and over\n"
            "  -e, --end              tell the receiver of the end, with an empty datagram\n"
            "  -i, --interface=NAME   interface, by name or address, that a group's datagrams leave by\n"
            "  -t, --ttl=N            time to live of the datagrams: 1 to 255, and 0 for a group\n"
            "  -s, --speed=FACTOR     pace: 2 is twice the stream's own, 0.01 to 100\n"
            "  -n, --no-index         leave no index beside FILE\n"
            "  -q, --quiet            no progress line on a terminal\n"
            "  -v, --verbose          tell what is done\n"
            "  -V, --version          show the version and end\n"
            "  -h, --help             show this and end\n\n"
            "The status is 0 at the end of the stream or by SIGINT, SIGTERM or SIGQUIT, 1 on failure, 2 for a wrong\n"
            "command line.\n");
}

// For a command line that is wrong. `problem` may be null where it has been told.
void complain(const char* problem)
{
    if (problem) fprintf(stderr, "kvt-play: %s\n", problem);
    fprintf(stderr, "Usage: kvt-play [OPTION]... FILE ADDRESS; kvt-play --help tells more.\n");
}

bool parse_ttl(const char* text, int* ttl)
{
    char* end = nullptr;
    errno = 0;
    const long n = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || n < 0 || n > MAX_TTL) return false;
    *ttl = static_cast<int>(n);
    return true;
}

bool parse_speed(const char* text, double* speed)
{
    char* end = nullptr;
    *speed = strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(*speed) && *speed >= MIN_SPEED && *speed <= MAX_SPEED;
}

// One option. True if its value is good.
bool take_option(int c, const char* value, struct options* o)
{
    switch (c) {
    case 'e': o->play.tell_end = true; return true;
    case 'l': o->play.over_and_over = true; return true;
    case 'i': o->ifc = value; return true;
    case 't':
        if (parse_ttl(value, &o->ttl)) return true;
        fprintf(stderr, "kvt-play: %s is no time to live from 0 to 255\n", value);
        return false;
    case 's':
        if (parse_speed(value, &o->play.speed)) return true;
        fprintf(stderr, "kvt-play: %s is no factor from 0.01 to 100\n", value);
        return false;
    case 'n': o->source.keep_index = false; return true;
    case 'q': o->is_quiet = true; return true;
    case 'v': o->is_verbose = true; return true;
    default: return false; // getopt has told
    }
}

// True to go on; else *status is what the program ends with.
bool parse_options(int argc, char** argv, struct options* o, int* status)
{
    constexpr struct option longs[] = {{"end", no_argument, nullptr, 'e'},
                                       {"loop", no_argument, nullptr, 'l'},
                                       {"ttl", required_argument, nullptr, 't'},
                                       {"interface", required_argument, nullptr, 'i'},
                                       {"quiet", no_argument, nullptr, 'q'},
                                       {"speed", required_argument, nullptr, 's'},
                                       {"verbose", no_argument, nullptr, 'v'},
                                       {"no-index", no_argument, nullptr, 'n'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {nullptr, 0, nullptr, 0}};
    *status = EXIT_SUCCESS;
    int c;
    while ((c = getopt_long(argc, argv, "eli:t:s:nqvVh", longs, nullptr)) != -1) {
        if (c == 'h') {
            print_usage(stdout);
            return false;
        }
        if (c == 'V') {
            printf("%s\n", get_custom_app_info(NAME, "Stored stream player", nullptr));
            return false;
        }
        if (take_option(c, optarg, o)) continue;
        complain(nullptr);
        *status = EXIT_USAGE;
        return false;
    }
    if (argc - optind == 2) return true;
    complain(argc - optind < 2 ? "a file and an address are needed" : "one file and one address are enough");
    *status = EXIT_USAGE;
    return false;
}

// Prepares and plays. The exit status.
int run(const struct options& o, const char* path, const char* url, struct play_source* src, struct play_target* target)
{
    // The address first: it costs nothing to find out that it is wrong.
    if (!target_open(url, o.ifc, o.ttl, target)) return EXIT_FAILURE;
    if (!source_open(path, o.source, src)) return g_quit ? EXIT_SUCCESS : EXIT_FAILURE;
    struct play_count count;
    const bool ok = play(*src, *target, o.play, &count);
    if (o.is_verbose)
        fprintf(stderr, "kvt-play: sent %lu datagrams, %lu bytes of the stream\n", count.datagrams, count.bytes);
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    glog_init(NAME);
    log_default(&g_log, stderr);
    log_set_modules(&g_log, ll::error);
    struct options o;
    int status = EXIT_USAGE;
    if (!parse_options(argc, argv, &o, &status)) return status;
    o.play.show_progress = !o.is_quiet && isatty(STDERR_FILENO);
    o.source.say_more = o.is_verbose || o.play.show_progress;
    if (handle_quit_signals(on_sigquit) != 0 || ignore_sigpipe() != 0) return EXIT_FAILURE;
    if (fdio_init(static_cast<ssize_t>(MIN_TRF_BUFSIZE)) != 0) return EXIT_FAILURE;

    struct play_source src;
    struct play_target target;
    status = run(o, argv[optind], argv[optind + 1], &src, &target);
    source_close(&src);
    if (target.fd >= 0) (void)close(target.fd); // datagrams that were sent are gone already
    fdio_destroy();
    return status;
}
