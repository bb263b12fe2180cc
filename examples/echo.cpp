// echo: a service that sends back what it gets, on the event loop and the request listeners.
//   echo [-v] FILE.conf
// The configuration's group `echo` holds the listeners, such as
//     echo: {
//         user: ( { alias = "tcp"; port = 7007; }, { alias = "local"; domain_path = "/tmp/echo.sock"; } );
//         max_to_accept = 128;
//         user_request_timeout = 5000;    // ms without a byte after which a connection is closed
//         max_requests = 1000;            // of a listener, 2 or more; it stops there, and resumes below three quarters
//     };
// SIGTERM, SIGINT and SIGQUIT end it. Exit status: 0, 1 on failure, 2 on a wrong command line. The log goes to standard
// error, with -v at the level info.
#include "common/rui.h"

#include "config.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "util.h"

#include <err.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr struct timespec TICK = {0, 100000000}; // between two looks at time-outs and stopped listeners

struct echo_rq {
    struct rui_rq_header h;
    struct timespec active; // the last time a byte came or went
    size_t at, len;         // what is still to be sent: buf[at] to buf[len]
    char buf[4096];
};

struct {
    struct rui_cfg cfg;
    struct rui_ctx ctx;
    int max_requests = static_cast<int>(RUI_MAX_QUEUED);
    struct timespec last_tick;
} g_echo;

// ---- requests -------------------------------------------------------------------------------------------------

void* new_request(int fd, struct rui_socket_ctx*, void*)
{
    // The listener waits for 32 bytes, enough for most protocols to say what they want. Here every byte counts.
    const int one = 1;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof(one))) return nullptr;
    auto* rq = static_cast<struct echo_rq*>(W_calloc(__func__, 1, sizeof(struct echo_rq)));
    if (rq) rq->active = rqs_now();
    return rq;
}

bool request_timed_out(void* p, u_int tmout_ms)
{
    const struct timespec tmout = {tmout_ms / 1000, tmout_ms % 1000 * 1000000};
    return timed_out(&static_cast<struct echo_rq*>(p)->active, &tmout) && 0 == rui_pprm_request(p);
}

// Sends what is there. What the socket doesn't take waits until it is writable; meanwhile nothing more is read.
int send_back(struct echo_rq* rq)
{
    while (rq->at < rq->len) {
        const ssize_t n = send(rq->h.fd, rq->buf + rq->at, rq->len - rq->at, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return is_eagain(errno) ? rqs_mod(rq->h.fd, rq, RQS_WRITE) : -1;
        rq->at += static_cast<size_t>(n);
        rq->active = rqs_now();
    }
    return 0;
}

int receive(struct echo_rq* rq)
{
    const ssize_t n = recv(rq->h.fd, rq->buf, sizeof(rq->buf), 0);
    if (n < 0) return errno == EINTR || is_eagain(errno) ? 0 : -1;
    if (n == 0) return -1; // all said and sent back
    rq->at = 0;
    rq->len = static_cast<size_t>(n);
    rq->active = rqs_now();
    return send_back(rq);
}

// ---- the loop's callbacks -------------------------------------------------------------------------------------
// The turn may hold a further event of a request that ends: so it is marked here, and goes in after_events.

int on_listener(struct rui_socket_ctx* srv, int flags)
{
    if (srv->sockfd < 0) return 0; // stopped by an event ahead of this one
    if (flags) rui_crash_on_error(srv, flags & RQS_SOCKHUP);
    const int rc = rui_accept(srv, g_echo.cfg.max_accept, RUI_TCP_NODELAY, nullptr);
    // No accept, say for want of descriptors, or as many as allowed: pause, instead of being called again at once.
    const bool has_failed = rc > 0 && rc != RUI_QUEUE_FULL;
    if (has_failed || !rui_can_listen(srv, static_cast<size_t>(g_echo.max_requests))) (void)rui_stop_listener(srv);
    return 0;
}

int on_read(int, int flags, void* udata, void*)
{
    if (rui_is_listener(udata)) return on_listener(static_cast<struct rui_socket_ctx*>(udata), flags);
    auto* rq = static_cast<struct echo_rq*>(udata);
    return receive(rq) ? rui_pprm_request(rq) : 0;
}

int on_write(int, int, void* udata, void*)
{
    auto* rq = static_cast<struct echo_rq*>(udata);
    if (send_back(rq)) return rui_pprm_request(rq);
    return rq->at < rq->len ? 0 : rqs_mod_reader(rq->h.fd, rq);
}

int on_error(int, int flags, void* udata, void*)
{
    if (rui_is_listener(udata)) return on_listener(static_cast<struct rui_socket_ctx*>(udata), flags);
    return rui_pprm_request(udata);
}

int after_events()
{
    rui_pprm_all(&g_echo.ctx);
    return 0;
}

int on_idle()
{
    if (!timed_out(&g_echo.last_tick, &TICK)) return 0;
    g_echo.last_tick = rqs_now();
    rui_tmout_all(&g_echo.ctx, static_cast<u_int>(g_echo.cfg.user_request_tmout));
    for (struct rui_socket_ctx& srv : g_echo.ctx.user) {
        // A listener that can't be started again stays deferred; the next tick tries again.
        if (srv.deferred && rui_should_listen(&srv, static_cast<size_t>(g_echo.max_requests)))
            (void)rui_start_listener(srv.lc, &srv);
    }
    return 0;
}

// ---- start and end --------------------------------------------------------------------------------------------

bool can_serve(const char* path)
{
    bool is_fit = g_echo.max_requests > 1 && !g_echo.cfg.admin[0].is_valid && !g_echo.cfg.custom[0].is_valid;
    for (const struct rui_listener_cfg& lc : g_echo.cfg.user)
        is_fit = is_fit && (lc.domain_path[0] || lc.proto != IPPROTO_UDP);
    if (!is_fit) tv_log(ll::error, "%s: echo takes user listeners, no udp, and max_requests above 1\n", path);
    return is_fit;
}

int load(const char* path)
{
    config_init(&g_libcfg);
    config_setting_t* s = nullptr;
    if (CONFIG_TRUE != config_read_file(&g_libcfg, path))
        tv_log(ll::error, "%s:%d: %s\n", path, config_error_line(&g_libcfg), config_error_text(&g_libcfg));
    else if (!(s = config_lookup(&g_libcfg, "echo")))
        tv_log(ll::error, "%s: no group echo\n", path);
    if (s) (void)config_setting_lookup_int(s, "max_requests", &g_echo.max_requests); // or the default
    const int rc = s && 0 == load_rui_config(s, &g_echo.cfg) && can_serve(path) ? 0 : -1;
    config_destroy(&g_libcfg);
    if (rc) rui_cfg_free(&g_echo.cfg);
    return rc;
}

int serve()
{
    struct rui_socket_cb user = {{{'u', 's', 'r', 0}}, new_request, free, request_timed_out};
    rui_set_cb(RUI_USER, &user);
    struct rqs_config loop = {};
    loop.cb = {nullptr, on_idle, on_read, on_write, on_error, after_events, nullptr, nullptr, nullptr};
    loop.cb.update_tmout = [](struct timespec* tmout) { *tmout = TICK; };

    int rc = rqs_init(&loop);
    if (!rc) rc = rui_ctx_init(&g_echo.cfg, &g_echo.ctx);
    if (!rc) rc = rui_ctx_start(&g_echo.ctx);
    if (!rc) rc = rqs_event_loop();
    rui_ctx_destroy(&g_echo.ctx);
    rui_cfg_free(&g_echo.cfg);
    rqs_destroy();
    return rc;
}

} // namespace

int main(int argc, char** argv)
{
    const bool verbose = argc == 3 && 0 == strcmp(argv[1], "-v");
    if ((argc != 2 && !verbose) || argv[argc - 1][0] == '-') errx(2, "usage: echo [-v] FILE.conf");
    glog_init("echo");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, verbose ? ll::info : ll::warning);
    if (handle_quit_signals(on_sigquit) || ignore_sigpipe() || load(argv[argc - 1])) return 1;
    return serve() ? 1 : 0;
}
