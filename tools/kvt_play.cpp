// kvt-play FILE ADDRESS: plays a recorded transport stream at its own pace to a UDP or multicast address, plain or as
// RTP. What the recording is, and its index, is play_source.h's; the sending is play_send.h's.
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

constexpr int EXIT_USAGE = 2;
constexpr long MAX_TTL = 255;
constexpr double MIN_SPEED = 0.01;
constexpr double MAX_SPEED = 100;

struct options {
    struct play_options play = {};
    const char* ifc = nullptr;
    int ttl = -1;
    bool is_quiet = false;
    bool is_verbose = false;
};

void print_usage(FILE* fp)
{
    fprintf(fp,
            "Usage: kvt-play [-lqv] [-i INTERFACE] [-t TTL] [-s FACTOR] FILE ADDRESS\n"
            "Plays the transport stream FILE at its own pace to ADDRESS: udp://HOST:PORT, rtp://HOST:PORT for RTP,\n"
            "or HOST:PORT.\n\n"
            "  -l, --loop             play it over and over\n"
            "  -i, --interface=NAME   interface, by name or address, that a group's datagrams leave by\n"
            "  -t, --ttl=N            time to live of the datagrams, 0 to 255\n"
            "  -s, --speed=FACTOR     pace: 2 is twice the stream's own, 0.01 to 100\n"
            "  -q, --quiet            no progress line on a terminal\n"
            "  -v, --verbose          tell what is done\n"
            "  -h, --help             show this and end\n\n"
            "The status is 0 at the end of the stream or by SIGINT or SIGTERM, 1 on failure, 2 for a wrong command\n"
            "line.\n");
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

// True to go on; else *status is what the program ends with.
bool parse_options(int argc, char** argv, struct options* o, int* status)
{
    constexpr struct option longs[] = {
        {"loop", no_argument, nullptr, 'l'},      {"interface", required_argument, nullptr, 'i'},
        {"ttl", required_argument, nullptr, 't'}, {"speed", required_argument, nullptr, 's'},
        {"quiet", no_argument, nullptr, 'q'},     {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},      {nullptr, 0, nullptr, 0}};
    *status = EXIT_USAGE;
    int c;
    while ((c = getopt_long(argc, argv, "li:t:s:qvh", longs, nullptr)) != -1) {
        switch (c) {
        case 'l': o->play.over_and_over = true; break;
        case 'i': o->ifc = optarg; break;
        case 't':
            if (parse_ttl(optarg, &o->ttl)) break;
            fprintf(stderr, "kvt-play: %s is no time to live from 0 to 255\n", optarg);
            return false;
        case 's':
            if (parse_speed(optarg, &o->play.speed)) break;
            fprintf(stderr, "kvt-play: %s is no factor from 0.01 to 100\n", optarg);
            return false;
        case 'q': o->is_quiet = true; break;
        case 'v': o->is_verbose = true; break;
        case 'h':
            print_usage(stdout);
            *status = EXIT_SUCCESS;
            return false;
        default: print_usage(stderr); return false;
        }
    }
    if (argc - optind == 2) return true;
    print_usage(stderr);
    return false;
}

// Prepares and plays. The exit status.
int run(const struct options& o, const char* path, const char* url, struct play_source* src, struct play_target* target)
{
    // The address first: it costs nothing to find out that it is wrong.
    if (!target_open(url, o.ifc, o.ttl, target)) return EXIT_FAILURE;
    if (!source_open(path, o.is_verbose || o.play.show_progress, src)) return g_quit ? EXIT_SUCCESS : EXIT_FAILURE;
    struct play_count count;
    const bool ok = play(*src, *target, o.play, &count);
    if (o.is_verbose)
        fprintf(stderr, "kvt-play: sent %lu datagrams, %lu bytes of the stream\n", count.datagrams, count.bytes);
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    glog_init("kvt-play");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, ll::error);
    struct options o;
    int status = EXIT_USAGE;
    if (!parse_options(argc, argv, &o, &status)) return status;
    o.play.show_progress = !o.is_quiet && isatty(STDERR_FILENO);
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
