// The loop: wait, dispatch, one turn. An event's data word is the udata pointer, or the descriptor's number where none
// was given: on the machines that this runs on no record of a service lies that low, so the number tells itself from a
// pointer.
#include "rqs.h"

#include "log.h"
#include "psensor.h"
#include "rqs_int.h"
#include "syswrap.h"
#include "timeop.h"
#include "util.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr int EPOLL_SIZE_HINT = 128; // today's kernels only ask that it is above 0
constexpr size_t EVENTS_GROWTH = 10;
constexpr size_t EVENTS_MIN = 10;       // room in the wait buffer from the start
constexpr int CROWDED_WAIT_EVENTS = 15; // a full buffer of more than these is worth a warning
constexpr long MS_PER_SEC = 1000;
constexpr long NSEC_PER_MS = 1000000;
constexpr char LOOP[] = "rqs_event_loop"; // the steps of a turn log under the loop's name

constinit struct rqs_config g_cfg_copy = {};

// What a run of the loop carries from turn to turn.
struct loop_run {
    int rc;      // non-zero ends the loop
    int nev;     // events of the turn's wait; negative if it failed
    long failed; // polled events whose callback failed
};

struct epoll_event* wait_buffer()
{
    return static_cast<struct epoll_event*>(g_rqs.events.data);
}

void refresh_clock(const char* caller)
{
    set_clk_now(&g_rqs.itime, CLOCK_MONOTONIC);
    tv_log(ll::debug, "%s: rqs time: %lu.%09lu\n", caller, static_cast<unsigned long>(g_rqs.itime.tv_sec),
           static_cast<unsigned long>(g_rqs.itime.tv_nsec));
}

// ---- wait -----------------------------------------------------------------------------------------------------

void mk_event_space()
{
    const size_t want = std::max(g_rqs.poll_fds, EVENTS_MIN);
    if (want <= g_rqs.events.max_len) return;
    if (xvec_reserve(&g_rqs.events, want, sizeof(struct epoll_event), EVENTS_GROWTH) == 0) return;
    tv_log(ll::panic, "%s: xvec_reserve failed\n", __func__);
    rqs_int::abort_with_stack();
}

// A time-out as epoll_wait takes it; one that no int can hold is the longest that can.
constexpr int timeout_ms(const struct timespec& tmout)
{
    if (tmout.tv_sec < 0 || tmout.tv_nsec < 0) return -1;
    if (tmout.tv_sec >= INT_MAX / MS_PER_SEC) return INT_MAX;
    const long ms = tmout.tv_sec * MS_PER_SEC + tmout.tv_nsec / NSEC_PER_MS;
    return static_cast<int>(std::min<long>(ms, INT_MAX));
}
static_assert(timeout_ms({2, 999999}) == 2000 && timeout_ms({0, 1000000}) == 1 && timeout_ms({0, 0}) == 0);
static_assert(timeout_ms({-1, 0}) == -1 && timeout_ms({0, -1}) == -1 && timeout_ms({INT_MAX, 0}) == INT_MAX);

void note_wait_failure(const char* caller, int err)
{
    if (err == EINTR) {
        tv_log(ll::info, "%s interrupted, quit=%d\n", caller, static_cast<int>(g_quit));
    } else {
        tv_log(ll::error, "%s: epoll_wait(%d...) ERROR(%d): %s\n", caller, g_rqs.loopfd, err, strerror(err));
    }
}

void note_events(const char* caller, int nev)
{
    g_rqs.events.len = static_cast<size_t>(nev);
    if (nev > CROWDED_WAIT_EVENTS && g_rqs.events.len == g_rqs.events.max_len) {
        tv_log(ll::warning, "%s: all event slots populated, might need more\n", caller);
    }
    if (nev > 0) tv_log(ll::debug, "%s: got %d events\n", caller, nev);
}

// Waits for events, which are then in the wait buffer, and refreshes the clock. The number of events, or -1 with the
// wait's errno.
int wait4events()
{
    mk_event_space();
    int ms = timeout_ms(g_rqs.tmout);
    if (g_rqs.nopoll.len > 0) {
        tv_log(ll::debug, "%s: no-poll events present: changing to 0 timeout\n", __func__);
        ms = 0;
    }
    tv_log(ll::debug, "%s: timeout=%f sec\n", __func__, ms / static_cast<double>(MS_PER_SEC));

    const auto slots = static_cast<int>(std::min<size_t>(g_rqs.events.max_len, INT_MAX));
    psensor_start(PRF_EVIDLE);
    const int nev = epoll_wait(g_rqs.loopfd, wait_buffer(), slots, ms);
    const int err = errno;
    psensor_stop(PRF_EVIDLE);
    if (nev < 0) {
        note_wait_failure(__func__, err);
    } else {
        note_events(__func__, nev);
    }
    refresh_clock(__func__);
    errno = err;
    return nev;
}

// ---- dispatch -------------------------------------------------------------------------------------------------

// True if the data word is that of the inotify descriptor, going by the tag of the record that it points at. Its own
// address is known whatever its height, which a program loaded below INT_MAX needs.
bool is_inotify(const struct epoll_event& ev)
{
    if (ev.data.ptr == &g_ino) return true;
    if (ev.data.u64 <= INT_MAX) return false; // a descriptor's number: no record, no tag
    return memcmp(ev.data.ptr, rqs_int::INO_TAG, sizeof(rqs_int::INO_TAG)) == 0;
}

int call_back(size_t sensor, rqs_event_cb_t cb, const struct epoll_event& ev, int fd_err)
{
    psensor_start(sensor);
    const int rc = cb(ev.data.fd, fd_err, ev.data.ptr, nullptr);
    psensor_stop(sensor);
    return rc;
}

// Readable wins over writable: one event is one callback, and the error flags ride along. The event is a copy, since
// nothing keeps a callback from moving the wait buffer.
int on_event(size_t i)
{
    tv_assert_logged(g_rqs.events.max_len > 0);
    const struct epoll_event ev = wait_buffer()[i];
    const struct rqs_callbacks& cb = rqs_int::g_cfg->cb;

    int fd_err = 0;
    if ((ev.events & EPOLLERR) != 0) fd_err |= RQS_SOCKERR;
    if ((ev.events & (EPOLLHUP | EPOLLRDHUP)) != 0) fd_err |= RQS_SOCKHUP;

    if ((ev.events & EPOLLIN) != 0) {
        if (is_inotify(ev)) return rqs_int::process_inotify_records(fd_err, ev.data.ptr);
        return call_back(PRF_EVREAD, cb.read, ev, fd_err);
    }
    if ((ev.events & EPOLLOUT) != 0) return call_back(PRF_EVWRITE, cb.write, ev, fd_err);
    if (fd_err != 0) return call_back(PRF_EVERR, cb.error, ev, fd_err);

    tv_log(ll::error, "%s: unsupported event mask: 0x%lx\n", __func__, static_cast<unsigned long>(ev.events));
    return -1;
}

// ---- a turn ---------------------------------------------------------------------------------------------------

bool no_activity()
{
    if (g_rqs.poll_fds > 0 || g_rqs.nopoll.len > 0) return false;
    const auto is_dormant = rqs_int::g_cfg->cb.is_dormant;
    return is_dormant ? is_dormant() : true;
}

// The steps of a turn: false ends the loop.

bool wait_step(struct loop_run* run)
{
    // With no-poll events alone there is nothing to wait for: they are ready.
    if (g_rqs.poll_fds == 0 && g_rqs.nopoll.len > 0) return true;

    const struct rqs_callbacks& cb = rqs_int::g_cfg->cb;
    if (cb.update_tmout) cb.update_tmout(&g_rqs.tmout);
    run->nev = wait4events();
    if (run->nev < 0) {
        run->rc = errno;
        if (run->rc != EINTR) return false;
    }
    if (g_quit) return false;
    if (cb.time_out) cb.time_out();
    return true;
}

bool nopoll_step(struct loop_run* run)
{
    rqs_int::setup_nopoll_events();
    if (g_rqs.nopoll.len > 0) {
        run->rc = rqs_int::process_nopoll_events();
        if (run->rc != 0) return false;
    }
    run->rc = rqs_purge_nopoll_rm(); // an interrupted wait's EINTR ends here
    return run->rc == 0;
}

void dispatch_step(struct loop_run* run)
{
    if (run->nev > 0) tv_log(ll::debug, "%s: processing %d pollable events\n", LOOP, run->nev);
    g_rqs.loop_stage = RQS_STAGE_DISPATCH;
    for (int i = 0; i < run->nev; ++i) {
        if (on_event(static_cast<size_t>(i)) != 0) ++run->failed;
    }
}

bool post_process_step(struct loop_run* run, int stage)
{
    g_rqs.loop_stage = stage;
    if (!rqs_int::g_cfg->cb.post_process) return true;
    psensor_start(PRF_EVPP);
    run->rc = rqs_int::g_cfg->cb.post_process();
    psensor_stop(PRF_EVPP);
    return run->rc == 0;
}

bool idle_step(struct loop_run* run)
{
    if (rqs_int::g_cfg->cb.on_idle) run->rc = rqs_int::g_cfg->cb.on_idle();
    return run->rc == 0;
}

bool turn(struct loop_run* run)
{
    g_rqs.loop_stage = RQS_STAGE_WAIT;
    const bool is_over = no_activity(); // asked in each turn, whatever the setting
    if (rqs_int::g_cfg->quit_on_zero_fds != 0 && is_over) {
        tv_log(ll::critical, "%s: no fd's, no activity, quitting now.\n", LOOP);
        return false;
    }
    g_rqs.events.len = 0;
    run->nev = 0;
    if (!wait_step(run) || !nopoll_step(run)) return false;
    dispatch_step(run);
    if (!post_process_step(run, RQS_STAGE_POST1)) return false;
    run->rc = rqs_purge_nopoll_rm();
    if (run->rc != 0) return false;
    if (run->failed > 0) {
        tv_log(ll::debug, "%s: failed %ld events\n", LOOP, run->failed);
        return false;
    }
    return idle_step(run) && post_process_step(run, RQS_STAGE_POST2);
}

} // namespace

// ---- shared with the other parts ------------------------------------------------------------------------------

constinit const struct rqs_config* rqs_int::g_cfg = nullptr;

void rqs_int::abort_with_stack()
{
    char bt[LOG_OUTBUF_SIZE * 3 / 4] = "";
    (void)btrace_to_buf(bt, sizeof(bt)); // without a stack the line still tells that it happened
    tv_log(ll::panic, "Aborting at:\n%s==\n", bt);
    if (g_log.fp) (void)fflush(g_log.fp);
    abort();
}

void rqs_int::check()
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(rqs_validate());
#endif
}

// ---- the loop -------------------------------------------------------------------------------------------------

int rqs_init(const struct rqs_config* cfg)
{
    tv_assert_logged(cfg);
    g_cfg_copy = *cfg;
    rqs_int::g_cfg = &g_cfg_copy;
    g_rqs = {};

    g_rqs.loopfd = epoll_create(EPOLL_SIZE_HINT);
    if (g_rqs.loopfd < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: epoll_create1() ERROR(%d): %s\n", __func__, err, strerror(err));
        errno = err;
        return -1;
    }
    mk_event_space();
    rqs_int::init_nopoll();
    g_rqs.tmout.tv_sec = -1;

    const int rc = rqs_int::init_file_watches();
    if (rc != 0) {
        const int err = errno;
        rqs_destroy();
        errno = err;
        return rc;
    }
    refresh_clock(__func__);
    rqs_int::check();
    return 0;
}

void rqs_destroy()
{
    rqs_int::destroy_file_watches();
    if (g_rqs.loopfd > 0) {
        (void)W_close(__func__, g_rqs.loopfd); // logged; there is nothing else to do about it
        g_rqs.loopfd = -1;
    }
    g_rqs.poll_fds = 0;
    xvec_reset(&g_rqs.events);
    xvec_reset(&g_rqs.changes);
    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    rqs_int::check();
}

int rqs_event_loop()
{
    tv_log(ll::info, "Entering event loop\n");
    tv_assert_logged(g_rqs.loopfd != 0);

    struct loop_run run = {};
    bool goes_on = true;
    while (goes_on && run.rc == 0 && !g_quit) {
        psensor_start(PRF_EVLOOP);
        goes_on = turn(&run);
        psensor_stop(PRF_EVLOOP);
        rqs_int::check();
    }
    if (run.rc == EINTR && g_quit) run.rc = 0;
    const auto failed = static_cast<int>(run.failed);
    tv_log(ll::info, "Exiting event loop, %d failed, rc=%d, quit=%d\n", failed, run.rc, static_cast<int>(g_quit));
    return run.rc != 0 ? run.rc : failed;
}
