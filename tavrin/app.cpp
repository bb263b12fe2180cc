// Start-up, the capture loop, shutdown, and the signal handlers.
//
// The loop reads the source straight into the ring and runs the analyzer over the same bytes: nothing is copied, and
// nothing is allocated once the stream runs. It has one blocking call, the read, and everything else happens between
// two reads. A signal that wants something done is installed without restart, so that it breaks the read; the loop
// then goes round once and reads again into the same place, since the ring has not moved.

#include "tavrin/app.h"

#include "common/meta.h"
#include "log.h"
#include "netops.h"
#include "syswrap.h"
#include "tavrin/app_int.h"
#include "util.h"
#include "webops.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(app_int::log_module)

constinit struct kvti_cfg g_cfg = {};
constinit struct kvti_ctx g_ctx = {};

namespace
{

constexpr size_t CWD_MAX = 256;

// ---- handlers -------------------------------------------------------------------------------------------------

// While a handler runs the log only writes its line, and errno is given back as the interrupted code left it.
// A handler may interrupt another one: the outer one's mark stays.
struct handler_scope {
    const int saved_errno = errno;
    const sig_atomic_t saved_sigctx = g_sigctx;
    handler_scope() { g_sigctx = 1; }
    ~handler_scope()
    {
        g_sigctx = saved_sigctx;
        errno = saved_errno;
    }
    handler_scope(const handler_scope&) = delete;
    handler_scope& operator=(const handler_scope&) = delete;
};

int install_handlers()
{
    int rc = handle_quit_signals(exit_on_sig);
    if (rc == 0) rc = handle_sig(SIGUSR2, snapshot_on_sig);
    if (rc == 0) rc = handle_sig(SIGURG, snapshot_on_sig);
    if (rc != 0) return rc;
    // By design the alarm restarts a blocked read, unlike the others: a timed snapshot waits for the next data.
    if (signal(SIGALRM, catch_alarm) == SIG_ERR) {
        const int err = errno;
        tv_log(ll::error, "%s: signal(SIGALRM) ERROR(%d): %s\n", "runtime_setup", err, strerror(err));
        return -1;
    }
    return 0;
}

// ---- start-up -------------------------------------------------------------------------------------------------

// A daemon's descriptors 0 and 1 are closed. Left free they would go to the log and the ring, and the records of an
// alert log that stayed on standard output would be written over the stream.
int occupy_std_streams()
{
    const int fd = W_open("runtime_setup", "/dev/null", O_RDWR | O_NOCTTY, 0);
    if (fd < 0) return -1;
    if (fd == STDIN_FILENO && W_dup2("runtime_setup", fd, STDOUT_FILENO) < 0) return -1;
    return fd <= STDOUT_FILENO ? 0 : W_close("runtime_setup", fd); // above: both were taken already
}

int make_daemon(char* cwd, size_t cwdlen)
{
    if (g_cfg.log.path[0] == '\0') {
        tv_log(ll::error, "Logfile must be specified to run as daemon\n");
        return 1;
    }
    if (getcwd(cwd, cwdlen) == nullptr) {
        const int err = errno;
        cwd[0] = '\0';
        tv_log(ll::error, "getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    int rc = daemonize();
    if (rc != 0) {
        log_default(&g_log, stderr);
        tv_log(ll::error, "Failed to make the process a daemon, quitting.\n");
        return rc;
    }
    rc = occupy_std_streams();
    if (rc == 0 && g_cfg.rt.user[0] != '\0') rc = run_as_user(g_cfg.rt.user);
    // Root stays in the root directory; a user goes back to where the program was started.
    if (rc == 0 && geteuid() != 0) rc = goto_runtime_home(cwd, nullptr);
    return rc;
}

// A path that begins with a vertical bar is a command.
int open_channel(struct log_ctx* log, const char* path, uint32_t flags)
{
    return path[0] == '|' ? log_popen(log, path + 1) : log_open_ex(log, path, flags);
}

int open_app_log()
{
    const int rc = open_channel(&g_log, g_cfg.log.path, 0);
    if (rc != 0) {
        log_default(&g_log, stderr);
        return rc;
    }
    apply_log_config(&g_log, &g_cfg.log);
    log_set_pid(&g_log, getpid()); // again: a daemon's process ID is another one
    return 0;
}

int open_alert_log()
{
    constexpr uint32_t append = 1; // an existing alert log is never moved away
    const int rc = open_channel(&g_access_log, g_cfg.alert_log.path, append);
    if (rc != 0) return rc;
    apply_log_config(&g_access_log, &g_cfg.alert_log);
    log_set_pid(&g_access_log, getpid());
    if (g_cfg.alert_log.enable_syslog) {
        // By design only the alert log goes to syslog.
        glog_disable_syslog();
        apply_syslog_config(&g_access_log, app_int::name, &g_cfg.alert_log);
    }
    return 0;
}

int set_up_process(char* cwd, size_t cwdlen)
{
    int rc = install_handlers();
    if (rc == 0 && !g_cfg.rt.non_daemon) rc = make_daemon(cwd, cwdlen);
    if (rc == 0 && g_cfg.rt.pidfile[0] != '\0') rc = create_pidfile_extra(g_cfg.rt.pidfile, getpid(), nullptr, 0);
    if (rc == 0 && g_cfg.log.path[0] != '\0') rc = open_app_log();
    if (rc == 0 && g_cfg.alert_log.path[0] != '\0') rc = open_alert_log();
    return rc;
}

// ---- source ---------------------------------------------------------------------------------------------------

// Bytes of the stream that came with the head of an HTTP reply lie at the ring's write position already.
int join_http_tail(struct mm_point* pt)
{
    assert(SM_STM.num == g_ctx.mode.num);
    tv_log(ll::debug, "%s: joining HTTP tail of %zu bytes\n", "init_kvti_ctx", g_ctx.uc.buflen);
    pt->len = g_ctx.uc.buflen;
    const int rc = mmr_iput(g_ctx.mmr, pt);
    if (rc != 0) {
        tv_log(ll::error, "%s: failed to join HTTP tail of %zu bytes, rc=%d\n", "init_kvti_ctx", g_ctx.uc.buflen, rc);
    }
    return rc;
}

int open_with_lent_buffer(struct mm_point* pt)
{
    usock_set_apptag(app_int::name);
    g_ctx.ssock = usock_open(g_cfg.src_url, &g_ctx.uc);
    if (g_ctx.ssock < 0) return -1;

    g_ctx.mode = is_dgram_kind(g_ctx.uc.url_kind) ? SM_PKT : SM_STM;
    tv_log(ll::debug, "%s: mode=%s\n", "init_kvti_ctx", g_ctx.mode.sym);
    return g_ctx.uc.buflen != 0 ? join_http_tail(pt) : 0;
}

int open_source()
{
    g_ctx.uc = {};
    g_ctx.ssock = -1;
    g_ctx.uc.inbound = true;
    g_ctx.uc.non_blocking = false;
    g_ctx.uc.ifc_tag = g_cfg.mcast_ifc;
    g_ctx.uc.timeout_ms = 0;

    struct mm_point pt = {};
    uint8_t* room = mmr_iget(g_ctx.mmr, &pt);
    if (room == nullptr) {
        tv_log(ll::error, "%s: out of MMR space\n", "init_kvti_ctx");
        return ENOMEM;
    }
    assert(pt.len >= TAILBUF_SIZE);
    g_ctx.uc.buf = reinterpret_cast<char*>(room);
    g_ctx.uc.bufcap = pt.len;
    if (g_cfg.use_http10_get) g_ctx.uc.http_flags |= RQFLAG_HTTP10_GET;

    const int rc = open_with_lent_buffer(&pt);
    // The ring's memory is lent for the opening only: usock_close must not find it.
    g_ctx.uc.buf = nullptr;
    g_ctx.uc.bufcap = 0;
    return rc;
}

// ---- the capture loop -----------------------------------------------------------------------------------------

// One run of the loop.
struct capture {
    size_t max_pld_left; // the ring is capped to this payload before each read
    const char* where;   // the step that fails, for the last message
    struct mm_point pt;  // where the read goes, and how much
    uint8_t* dest;       // the same as an address
    bool interrupted;    // the last read was broken by a signal: dest and pt still hold
    int rc;              // result of the run
};

enum class turn { data, again, leave };

turn leave(capture* c, const char* where, int rc)
{
    c->where = where;
    c->rc = rc;
    return turn::leave;
}

// Makes room in the ring and takes the place for the next read.
turn make_room(capture* c)
{
    const ssize_t left = mmr_cap(g_ctx.mmr, c->max_pld_left);
    if (left < 0) {
        tv_log(ll::error, "%s: mmr_cap(.., %zu) ERROR(%zd)\n", "run_app", c->max_pld_left, left);
        return leave(c, "mmr_cap", -1);
    }
    if (c->interrupted) {
        tv_log(ll::debug, "%s: re-reading after an interrupt\n", "run_app");
        c->interrupted = false;
        return turn::data;
    }
    c->dest = mmr_iget(g_ctx.mmr, &c->pt);
    if (c->dest == nullptr || c->pt.len < KVT_MIN_READ) {
        tv_log(ll::error, "%s: not enough space: buf=%p, avail=%zu bytes\n", "run_app", static_cast<void*>(c->dest),
               c->pt.len);
        return leave(c, "mmr_iget", ENOMEM);
    }
    return turn::data;
}

// What a read without data means. `err` is errno as it stands: by design it isn't cleared ahead of the read, so that
// an error left over from earlier turns the end of the data into an error.
turn no_data(capture* c, ssize_t nrd, int err)
{
    c->where = "recv/Read_f";
    if (nrd == 0 && err == 0) {
        tv_log(ll::warning, "== EOD, connection broken? ==\n");
        return turn::leave;
    }
    if (err == EINTR) {
        c->rc = 0;
        if (g_quit) return turn::leave;
        c->interrupted = true;
        tv_log(ll::debug, "%s: moving on after interrupt, sshot=%d/salrm=%d, quit=%d\n", "run_app", g_snapshot,
               g_snapalarm, g_quit);
        errno = 0;
        return turn::again;
    }
    tv_log(ll::error, "%s: recv(fd%d,...) rc=%zd ERROR(%d): %s\n", "run_app", g_ctx.ssock, nrd, err, strerror(err));
    c->rc = err != 0 ? err : -1;
    if (err == ETIMEDOUT) tv_log(ll::error, "READ-TIME-OUT on fd%d, quitting the loop\n", g_ctx.ssock);
    return turn::leave;
}

// One blocking read: a datagram, or what there is of a stream. On data pt.len is the count.
turn read_source(capture* c)
{
    const ssize_t nrd = g_ctx.mode.num == SM_PKT.num ? recv(g_ctx.ssock, c->dest, c->pt.len, 0)
                                                     : W_read_f("run_app", g_ctx.ssock, c->dest, c->pt.len, 0);
    if (nrd <= 0) return no_data(c, nrd, errno);
    c->pt.len = static_cast<size_t>(nrd);
    return turn::data;
}

void count_tail(size_t nrd)
{
    g_ctx.tail_size += nrd;
    if (g_ctx.tail_size < app_int::mb_bytes(g_cfg.tail_sz_mb)) return;
    tv_log(ll::info, "%s: tail size (%zu) >= %zu Mb\n", "run_app", g_ctx.tail_size, g_cfg.tail_sz_mb);
    // An alarm that went off during this very read woke nobody: what it asked for has just been taken. A snapshot that
    // could not be taken is logged, ends the waiting all the same, and is tried again only where the alarm asks for it.
    if (take_snapshot("B") == 0) g_snapalarm = 0;
}

void check_stats()
{
    const bool dumped = tsan_check_dump_stats(log_fp(&g_log), g_ctx.tc);
    // By design the local spans begin anew only here: never for root, nor without debug lines.
    if (!dumped || geteuid() == 0 || log_effective_level(&g_llctx) <= ll::info) return;
    FILE* mirror = log_mirror_fp(&g_log);
    if (mirror != nullptr) tsan_dump_stats(mirror, g_ctx.tc);
    tsan_reset_local_stats(g_ctx.tc);
}

// What is done with the bytes of one read, which stand at c->dest.
turn take_data(capture* c)
{
    const size_t nrd = c->pt.len;
    int rc = mmr_iput(g_ctx.mmr, &c->pt);
    if (rc != 0) return leave(c, "mmr_iput", rc);
    // A reload may switch the analyzer off and on.
    if (g_cfg.tsa.is_enabled) {
        rc = analyze_input(c->dest, nrd);
        if (rc != 0) return leave(c, "process_input", rc);
    } else {
        app_int::feed_pass_by(nrd);
    }
    if (g_cfg.report_tput_sec != 0) update_tps(nrd);
    if (g_ctx.must_count_tail) count_tail(nrd);
    if (g_cfg.tsa.is_enabled) check_stats();
    // A failing reload keeps the settings as they are, and has said so.
    if (g_cfg.reload_period != 0) (void)config_reload_check();
    return turn::again;
}

void capture_source(capture* c)
{
    turn next = turn::again;
    while (next != turn::leave && !g_quit) {
        // A failure leaves the flag set, and the next turn tries again.
        (void)process_signals();
        app_int::deep_check();
        c->where = "#unknown#";
        next = make_room(c);
        if (next == turn::data) next = read_source(c);
        if (next == turn::data) next = take_data(c);
    }
}

} // namespace

// ---- handlers -------------------------------------------------------------------------------------------------

void exit_on_sig(int signo)
{
    const handler_scope scope;
    g_quit = 1;
    if (signo == SIGTERM || signo == SIGINT) g_goodbye = 1;
    tv_log(ll::normal, "Received QUIT-SIG(%d), will exit now.\n", signo);
}

void snapshot_on_sig(int signo)
{
    const handler_scope scope;
    g_snapshot = signo;
    tv_log(ll::normal, "Received snapshot-SIG(%d).\n", signo);
}

void catch_alarm(int signo)
{
    const handler_scope scope;
    tv_log(ll::normal, "Received alarm-SIG(%d).\n", signo);
    if (!g_ctx.waiting_alarm) return;
    g_snapalarm = 1;
    tv_log(ll::info, "%s: got the expected snapshot ALARM\n", __func__);
}

// ---- start-up, loop, shutdown ---------------------------------------------------------------------------------

int runtime_setup()
{
    char cwd[CWD_MAX] = "";
    (void)get_app_tag(app_int::name); // forms the tag that the network side will show
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);
    log_set_pid(&g_log, getpid());
    // A process that can't leave a core still does its work.
    (void)set_unlimited_core(nullptr);

    const int rc = set_up_process(cwd, sizeof(cwd));
    if (rc != 0) {
        tv_log(ll::error, "%s: FAILED (rc=%d)\n", __func__, rc);
        return rc;
    }
    tv_log(ll::info, "Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", static_cast<long>(getpid()),
           static_cast<long>(geteuid()), static_cast<long>(getegid()), cwd);
    tv_log(ll::debug, "%s: OK\n", __func__);
    return 0;
}

int init_kvti_ctx()
{
    assert(!g_ctx.is_ready);
    int rc = dir_check(g_cfg.snap_dir, true);
    if (rc != 0) return rc;

    rc = -1;
    g_ctx.tc = tsan_init(g_cfg.tsa.source[0] != '\0' ? nullptr : g_cfg.src_url, &g_cfg.tsa, &rc);
    if (g_ctx.tc == nullptr) return rc;

    rc = mmr_create(&g_ctx.mmr, app_int::mb_bytes(g_cfg.cache_sz_mb));
    if (rc == 0) rc = open_source();
    if (rc != 0) return rc;

    g_ctx.is_ready = true;
    // What failed on the way here, such as the look for a configuration file, is over: the loop takes errno at a
    // read of 0 bytes for the reason of that read.
    errno = 0;
    return 0;
}

int run_app()
{
    capture c = {.max_pld_left = app_int::max_payload(&g_cfg),
                 .where = "",
                 .pt = {},
                 .dest = nullptr,
                 .interrupted = false,
                 .rc = 0};
    tv_log(ll::normal, "Reading (%s) from fd%d [%s]\n", g_ctx.mode.sym, g_ctx.ssock, g_cfg.src_url);

    // By design for every source and also with 0: a source that is no socket ends the run here.
    c.rc = set_rcv_timeout(g_ctx.ssock, g_cfg.read_tmout_ms);
    if (c.rc != 0) {
        c.where = "set_rcv_timeout";
    } else {
        mmr_set_verbosity(0);
        capture_source(&c);
    }

    if (c.rc != 0) {
        tv_log(ll::error, "%s: stopped reading due to error in [%s], rc=%d\n", __func__, c.where, c.rc);
    } else {
        tv_log(ll::info, "%s: done reading from source fd%d, quit=%d\n", __func__, g_ctx.ssock, g_quit);
    }
    return c.rc;
}

int process_signals()
{
    if (g_snapshot) {
        const int rc = process_snapshot();
        if (rc == 0) g_snapshot = 0;
        return rc;
    }
    if (g_snapalarm) {
        const int rc = take_snapshot("A");
        if (rc == 0) g_snapalarm = 0;
        return rc;
    }
    return 0;
}

int destroy_kvti_ctx()
{
    g_ctx.is_ready = false;
    // By design the test is for a negative value alone: a start that fails before the source is opened closes
    // descriptor 0.
    if (g_ctx.ssock >= 0) {
        usock_close(g_ctx.ssock, &g_ctx.uc);
        g_ctx.ssock = -1;
    }
    if (g_ctx.mmr != nullptr) {
        mmr_destroy(g_ctx.mmr);
        g_ctx.mmr = nullptr;
    }
    if (g_ctx.tc != nullptr) {
        tsan_free(g_ctx.tc);
        g_ctx.tc = nullptr;
    }
    free(g_ctx.abuf);
    g_ctx.abuf = nullptr;
    g_ctx.abuf_len = 0;
    return 0;
}

int app_shutdown()
{
    tv_log(ll::debug, "%s: begins\n", __func__);
    destroy_kvti_ctx();
    if (g_cfg.rt.pidfile[0] != '\0') {
        // A pid file that is gone already is logged, and no reason to stop.
        (void)W_unlink(__func__, g_cfg.rt.pidfile);
        g_cfg.rt.pidfile[0] = '\0';
    }
    tv_log(ll::normal, "%s shut down\n", app_int::name);
    return 0;
}
