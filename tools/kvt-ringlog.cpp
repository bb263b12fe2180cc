// kvt-ringlog NAME: shows the ring log of a process, alive or dead, and what became of the process.
//
// The ring log is read in place and nothing about it is changed, so that any number of these may look on. What stands
// in it came from another process: bytes that would steer a terminal are shown as question marks.
#include "lard.h"

#include <getopt.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>

namespace
{

constexpr const char* PROGRAM = "kvt-ringlog";
constexpr int EXIT_SHOWN = 0;
constexpr int EXIT_TROUBLE = 1;
constexpr long FOLLOW_PERIOD_MS = 100; // shared memory wakes nobody: it has to be looked at
constexpr size_t TEXT_CHUNK = 65536;
constexpr long MS_PER_SEC = 1000;
constexpr long NSEC_PER_MS = 1000000;

struct options {
    const char* name;
    bool follow;
    bool text_only;
};

struct lard_closer {
    void operator()(struct lard_ctx* lh) const { lard_close(lh); } // never destroys: the objects are the writer's
};
using ring_log = std::unique_ptr<struct lard_ctx, lard_closer>;

// ---- command line ---------------------------------------------------------------------------------------------

void print_usage(FILE* fp)
{
    fprintf(fp,
            "Usage: %s [-ft] NAME\n"
            "Shows the ring log NAME: the state of its writer, its temperature, its text.\n\n"
            "  -f, --follow  go on with new text until the writer is gone\n"
            "  -t, --text    show the text alone\n"
            "  -h, --help    show this and end\n\n"
            "The temperature is the sum of the last 64 readings: each line counts 0, and one below normal also\n"
            "1 (warning) to 4 (panic). The status is 0, or 1 if there is no such ring log or it can't be read.\n",
            PROGRAM);
}

// True to go on; else *status is what the program ends with.
bool parse_options(int argc, char** argv, struct options* opt, int* status)
{
    constexpr struct option longs[] = {{"follow", no_argument, nullptr, 'f'},
                                       {"text", no_argument, nullptr, 't'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {nullptr, 0, nullptr, 0}};
    *opt = {};
    *status = EXIT_TROUBLE;
    for (int c; (c = getopt_long(argc, argv, "fth", longs, nullptr)) != -1;) {
        switch (c) {
        case 'f': opt->follow = true; break;
        case 't': opt->text_only = true; break;
        case 'h':
            print_usage(stdout);
            *status = EXIT_SHOWN;
            return false;
        default: fprintf(stderr, "Try '%s --help'.\n", PROGRAM); return false;
        }
    }
    if (optind + 1 != argc) {
        fprintf(stderr, "%s: %s\n", PROGRAM, optind == argc ? "which ring log? Give its name" : "one name at a time");
        fprintf(stderr, "Try '%s --help'.\n", PROGRAM);
        return false;
    }
    opt->name = argv[optind];
    return true;
}

// ---- what is shown --------------------------------------------------------------------------------------------

const char* owner_state(lard_t lh)
{
    if (lard_owner_pid(lh) < 1) return "nobody";
    bool crashed = false;
    if (lard_is_active(lh, &crashed)) return "running";
    return crashed ? "crashed" : "closed its ring log";
}

// In floating point throughout: a damaged record may hold any number, and no difference of these runs over.
double seconds_since(const struct timespec& then)
{
    const auto diff = [](long a, long b) { return static_cast<double>(a) - static_cast<double>(b); };
    struct timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0.0;
    return diff(now.tv_sec, then.tv_sec) + diff(now.tv_nsec, then.tv_nsec) / 1e9;
}

int refuse_record(const char* name)
{
    fprintf(stderr, "%s: %s is damaged: its record points outside the ring\n", PROGRAM, name);
    return -1;
}

int show_head(lard_t lh, const char* name)
{
    struct lard_view view;
    if (lard_look(lh, &view) != 0) return refuse_record(name);
    printf("ring log:    %s, %zu of %zu bytes\n", name, view.len, view.buflen);
    printf("owner:       %ld, %s\n", static_cast<long>(lard_owner_pid(lh)), owner_state(lh));
    printf("temperature: %d\n", lard_get_ctemp(lh));
    if (view.write_tm.tv_sec == 0 && view.write_tm.tv_nsec == 0) {
        printf("last write:  never\n");
    } else {
        printf("last write:  %.3f s ago\n", seconds_since(view.write_tm));
    }
    printf("----\n");
    return 0;
}

// Control characters but for line feeds and tabs are none of a log's business; other bytes may be UTF-8.
void make_printable(std::span<char> text)
{
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < ' ' && c != '\n' && c != '\t') || byte == 0x7F) c = '?';
    }
}

// Shows what has been written since the cursor, a ring full of it at most: a writer may be faster than a terminal.
// 0, or -1 after a word on stderr.
int show_new(lard_t lh, const char* name, struct lard_cursor* cur)
{
    struct lard_view view;
    if (lard_look(lh, &view) != 0) return refuse_record(name);
    std::array<char, TEXT_CHUNK> chunk;
    for (size_t total = 0; total < view.buflen;) {
        bool lost = false;
        const ssize_t n = lard_read_new(lh, cur, chunk.data(), chunk.size(), &lost);
        if (n < 0) return refuse_record(name);
        if (lost) {
            (void)fflush(stdout);
            fprintf(stderr, "%s: text went by unread\n", PROGRAM);
        }
        if (n == 0) break;
        const std::span<char> text(chunk.data(), static_cast<size_t>(n));
        make_printable(text);
        (void)fwrite(text.data(), 1, text.size(), stdout); // asked for below
        total += text.size();
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "%s: can't write: %s\n", PROGRAM, strerror(errno));
        return -1;
    }
    return 0;
}

void wait_a_period()
{
    constexpr struct timespec period = {FOLLOW_PERIOD_MS / MS_PER_SEC, FOLLOW_PERIOD_MS % MS_PER_SEC * NSEC_PER_MS};
    (void)nanosleep(&period, nullptr); // a shorter wait does no harm
}

// Shows text until the writer is gone, and then what became of it.
int follow(lard_t lh, const char* name, struct lard_cursor* cur)
{
    for (;;) {
        // Asked first: what was written before the end is there by now.
        const bool active = lard_is_active(lh, nullptr);
        if (show_new(lh, name, cur) != 0) return EXIT_TROUBLE;
        if (!active) break;
        wait_a_period();
    }
    fprintf(stderr, "%s: owner %ld %s, temperature %d\n", PROGRAM, static_cast<long>(lard_owner_pid(lh)),
            owner_state(lh), lard_get_ctemp(lh));
    return EXIT_SHOWN;
}

// True if there is something to open; else the reason is on stderr.
bool is_there(const char* name)
{
    if (lard_probe(name) == 0) return true;
    if (errno == EAGAIN) {
        fprintf(stderr, "%s: %s is not finished: it is being made, or its writer died at it\n", PROGRAM, name);
    } else if (errno == ENOENT) {
        fprintf(stderr, "%s: there is no ring log %s\n", PROGRAM, name);
    } else {
        fprintf(stderr, "%s: can't open %s: %s\n", PROGRAM, name, strerror(errno));
    }
    return false;
}

int show(const struct options& opt)
{
    if (!is_there(opt.name)) return EXIT_TROUBLE;
    const ring_log log(lard_open(opt.name));
    if (!log) return EXIT_TROUBLE; // lard_open has told why
    if (!opt.text_only && show_head(log.get(), opt.name) != 0) return EXIT_TROUBLE;
    struct lard_cursor cur = {};
    if (opt.follow) return follow(log.get(), opt.name, &cur);
    return show_new(log.get(), opt.name, &cur) == 0 ? EXIT_SHOWN : EXIT_TROUBLE;
}

} // namespace

int main(int argc, char** argv)
{
    struct options opt;
    int status = EXIT_SHOWN;
    return parse_options(argc, argv, &opt, &status) ? show(opt) : status;
}
