// follow: prints what is appended to a file, and stays with its name when the file is rotated or truncated.
//   follow [-a] [-v] FILE      -a: from the file's beginning, not its end; -v: log of the event loop
// Ends on SIGINT, SIGTERM and SIGQUIT. Exit status: 0, 1 on failure, 2 on a wrong command line.
//
// An example of a service on the event loop (docs/services.md). A file watch tells that there is something to read; the
// reading is a no-poll event, since a regular file can't be polled, and it goes when the end of the file is reached.
#include "fdio.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

TV_LOG_MODULE(0)

namespace
{

constexpr int EXIT_USAGE = 2;
constexpr long WAIT_NSEC = 200000000; // between two looks for a new file, and at most until a quit signal is seen
constexpr int ONE_EVENT_FAILED = 1;   // a result of the loop
constexpr size_t BLOCK_SIZE = 65536;

struct follower {
    const char* path;
    int fd;          // the file, held open so that its watch can be ended at any time; -1: none
    int wd;          // its watch
    ssize_t reading; // index of its no-poll event, -1: nothing to read
    bool is_lost;    // the path leads elsewhere by now, or nowhere
};

constinit struct follower g_follow = {.path = nullptr, .fd = -1, .wd = -1, .reading = -1, .is_lost = true};
constinit char g_block[BLOCK_SIZE] = {};

// A path to what is behind a descriptor, whatever names that has by now.
std::string path_of(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

bool leads_to(const char* path, int fd)
{
    struct stat by_path = {};
    struct stat open_file = {};
    return stat(path, &by_path) == 0 && fstat(fd, &open_file) == 0 && by_path.st_dev == open_file.st_dev &&
           by_path.st_ino == open_file.st_ino;
}

void start_reading(struct follower* f)
{
    if (f->reading < 0) (void)rqs_add_nopoll_reader(f->fd, &f->reading, f); // has no failure to report
}

// Prints the next block of the file: its length, 0 at the file's end, -1.
ssize_t copy_block(const struct follower* f)
{
    const ssize_t len = nread(f->fd, g_block, sizeof(g_block), FDIO_VERBOSE);
    for (ssize_t done = 0; done < len;) {
        const ssize_t n = nwrite(STDOUT_FILENO, g_block + done, static_cast<size_t>(len - done), FDIO_VERBOSE);
        if (n <= 0) return -1;
        done += n;
    }
    return len;
}

// Goes back to the start of a file that has become shorter than what was read of it.
bool rewind_truncated(const struct follower* f)
{
    struct stat st = {};
    if (fstat(f->fd, &st) != 0 || st.st_size >= lseek(f->fd, 0, SEEK_CUR)) return false;
    return W_lseek(__func__, f->fd, 0, SEEK_SET) == 0;
}

int watch_file(struct follower* f)
{
    f->wd = rqs_add_file_watch(f, path_of(f->fd).c_str());
    if (f->wd < 0) return -1;
    f->is_lost = !leads_to(f->path, f->fd);
    start_reading(f); // what was written before there was a watch
    return 0;
}

// The name belongs to a new file: prints what is left of the old one and goes over to the new one.
void change_over(struct follower* f, int new_fd)
{
    if (f->fd >= 0) {
        if (f->reading >= 0) rqs_rm_nopoll(f->reading); // no walk is under way in time_out
        f->reading = -1;
        while (copy_block(f) > 0) {
        }
        (void)rqs_rm_file_watch(f->wd);
        (void)W_close(__func__, f->fd);
    }
    f->fd = new_fd;
    if (watch_file(f) == 0) return;
    (void)W_close(__func__, f->fd); // the next look tries again
    f->fd = -1;
}

// ---- callbacks ------------------------------------------------------------------------------------------------

void set_tmout(struct timespec* tmout)
{
    *tmout = {.tv_sec = 0, .tv_nsec = WAIT_NSEC};
}

void look_for_new_file()
{
    struct follower* f = &g_follow;
    if (!f->is_lost) return;
    const int fd = open(f->path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return; // it isn't there yet
    if (f->fd >= 0 && leads_to(path_of(fd).c_str(), f->fd)) {
        f->is_lost = false; // it has come back; if it has gone once more, its watch will tell
        (void)W_close(__func__, fd);
    } else {
        change_over(f, fd);
    }
}

int on_file(int /*wd*/, int flags, void* udata, void* /*aux*/)
{
    auto* f = static_cast<struct follower*>(udata);
    if (flags != 0) f->is_lost = !leads_to(f->path, f->fd);
    start_reading(f);
    return 0;
}

int on_read(int /*fd*/, int /*flags*/, void* udata, void* /*aux*/)
{
    auto* f = static_cast<struct follower*>(udata);
    const ssize_t len = copy_block(f);
    if (len == 0 && !rewind_truncated(f)) rqs_pprm_nopoll(f->reading);
    return len < 0 ? -1 : 0;
}

// Only the inotify descriptor is polled, and that one is the loop's own.
int on_other(int fd, int flags, void* /*udata*/, void* /*aux*/)
{
    tv_log(ll::error, "%s: unexpected event, fd=%d, flags=%d\n", __func__, fd, flags);
    return -1;
}

// ---- the run --------------------------------------------------------------------------------------------------

int run_loop(struct follower* f)
{
    struct rqs_config cfg = {};
    cfg.cb.update_tmout = set_tmout;
    cfg.cb.read = on_read;
    cfg.cb.write = on_other;
    cfg.cb.error = on_other;
    cfg.cb.on_file_modified = on_file;
    cfg.cb.time_out = look_for_new_file;
    if (rqs_init(&cfg) != 0) return -1;
    f->reading = -1;
    const int rc = f->fd < 0 || watch_file(f) == 0 ? rqs_event_loop() : -1;
    rqs_destroy();
    return rc;
}

int follow(struct follower* f, bool from_start)
{
    f->fd = open(f->path, O_RDONLY | O_CLOEXEC);
    if (f->fd >= 0 && !from_start && W_lseek(__func__, f->fd, 0, SEEK_END) < 0) return -1;
    int rc = ONE_EVENT_FAILED;
    // More records than the loop takes at once fail its one polled descriptor. A fresh loop has none of them.
    while (rc == ONE_EVENT_FAILED && !g_quit)
        rc = run_loop(f);
    if (f->fd >= 0) (void)W_close(__func__, f->fd);
    return g_quit ? 0 : rc; // a signal may end a read or write, too
}

} // namespace

int main(int argc, char** argv)
{
    bool from_start = false;
    int c;
    while ((c = getopt(argc, argv, "av")) != -1) {
        if (c == 'a') from_start = true;
        if (c == 'v') log_set_modules(&g_log, ll::debug);
        if (c == '?') optind = argc;
    }
    if (optind != argc - 1) {
        (void)fprintf(stderr, "usage: follow [-a] [-v] FILE\n");
        return EXIT_USAGE;
    }
    if (handle_quit_signals(on_sigquit) != 0) return EXIT_FAILURE;
    g_follow.path = argv[optind];
    return follow(&g_follow, from_start) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
