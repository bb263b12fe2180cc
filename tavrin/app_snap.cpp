// Snapshots: what the ring holds, into a new file, at once or after a tail.
//
// A delayed snapshot waits for bytes, for time, or for both; whichever comes first takes it, and taking it ends all
// waiting. The file is named by the time of the request, so that it can be told which moment it is about.

#include "log.h"
#include "mmr.h"
#include "syswrap.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"
#include "timeop.h"
#include "util.h"

#include <fcntl.h>
#include <sys/time.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstring>

TV_LOG_MODULE(app_int::log_module)

namespace
{

constexpr mode_t SNAP_FILE_MODE = 0644;
constexpr long NSEC_PER_MSEC = 1000000;
constexpr size_t MSEC_PER_SEC = 1000;
constexpr size_t USEC_PER_MSEC = 1000;

// One shot; 0 ms disarms. Logs a failure under the caller's name: 0 or -1.
int set_timer(const char* caller, size_t ms)
{
    struct itimerval itv = {};
    itv.it_value.tv_sec = static_cast<time_t>(ms / MSEC_PER_SEC);
    itv.it_value.tv_usec = static_cast<suseconds_t>(ms % MSEC_PER_SEC * USEC_PER_MSEC);
    if (setitimer(ITIMER_REAL, &itv, nullptr) == 0) return 0;
    const int err = errno;
    tv_log(ll::error, "%s: setitimer() ERROR(%d): %s\n", caller, err, strerror(err));
    return -1;
}

void write_snapshot(int fd, const char* fpath)
{
    const ssize_t nwr = mmr_snapshot(g_ctx.mmr, fd);
    if (nwr > 0) {
        tv_log(ll::info, "%s: write %zd bytes to [%s]\n", "take_snapshot", nwr, fpath);
    } else {
        tv_log(ll::error, "%s: failed to snapshot to fd%d\n", "take_snapshot", fd);
    }
}

} // namespace

int process_snapshot()
{
    if (g_ctx.waiting_alarm || g_ctx.must_count_tail) {
        tv_log(ll::warning, "Another snapshot is pending, ignoring this request\n");
        return 0;
    }
    set_real_now(&g_ctx.snap_tm);
    if (g_snapshot == SIGURG) return take_snapshot("N");
    if (g_cfg.tail_sz_mb == 0 && g_cfg.tail_tm_ms == 0) return take_snapshot("N");

    if (g_cfg.tail_tm_ms != 0) {
        const int rc = schedule_alarm();
        if (rc != 0) return rc;
        g_snapalarm = 0;
    }
    if (g_cfg.tail_sz_mb != 0) {
        g_ctx.must_count_tail = true;
        g_ctx.tail_size = 0;
        tv_log(ll::info, "%s: take snapshot as soon as tail >= %zu Mb\n", __func__, g_cfg.tail_sz_mb);
    }
    return 0;
}

int take_snapshot(const char* suffix)
{
    int rc = 0;
    char fpath[KVT_PATH_MAX] = "";
    const int fd = mk_snapshot_file(fpath, sizeof(fpath) - 1, suffix);
    if (fd < 0) {
        rc = -1;
    } else {
        // By design a failed write counts as done: the same file can't be made a second time.
        write_snapshot(fd, fpath);
        (void)W_close(__func__, fd);
    }
    g_ctx.must_count_tail = false;
    clear_alarm();
    g_ctx.snap_tm = {};
    return rc;
}

int mk_snapshot_file(char* fpath, size_t len, const char* suffix)
{
    (void)suffix; // by design no part of the name
    const size_t limit = std::min(len, KVT_PATH_MAX - 1);
    const int n = snprintf(fpath, limit + 1, "%s/%s-%lu-%ld.ts", g_cfg.snap_dir, g_cfg.snap_pfx,
                           static_cast<unsigned long>(g_ctx.snap_tm.tv_sec), g_ctx.snap_tm.tv_nsec / NSEC_PER_MSEC);
    if (n < 1 || static_cast<size_t>(n) > limit) {
        tv_log(ll::error, "%s: cannot make snapshot name, n=%d\n", __func__, n);
        return -1;
    }
    // Exclusively: a file of that name is never overwritten.
    const int fd = W_open(__func__, fpath, O_WRONLY | O_CREAT | O_EXCL, SNAP_FILE_MODE);
    if (fd >= 0) tv_log(ll::debug, "%s: %s created, fd%d\n", __func__, fpath, fd);
    return fd;
}

int schedule_alarm()
{
    assert(!g_ctx.waiting_alarm);
    if (set_timer(__func__, g_cfg.tail_tm_ms) != 0) return -1;
    tv_log(ll::debug, "%s: alarm set for %zu ms\n", __func__, g_cfg.tail_tm_ms);
    g_ctx.waiting_alarm = true;
    return 0;
}

void clear_alarm()
{
    if (!g_ctx.waiting_alarm) return;
    if (set_timer(__func__, 0) != 0) return;
    tv_log(ll::debug, "%s: alarm cleared\n", __func__);
    g_ctx.waiting_alarm = false;
}
