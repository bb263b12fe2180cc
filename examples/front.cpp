// front: a small HTTP front end for stored segments and playlists, on the event loop and the request listeners.
//   front [-v] [-p PORT] DIR    serves the files beneath DIR, on port 8080 of all IPv4 addresses
//   front [-v] -C FILE.conf     the same as the group `front` of a configuration says, such as
//     front: {
//         root = "/var/seg";
//         user: ( { alias = "http"; port = 8080; } );
//         max_to_accept = 128;
//         user_request_timeout = 5000;    // ms for a request's head to come, and for a reply to move on
//         max_requests = 400;             // connections at a time; those above get 503
//     };
// SIGTERM, SIGINT and SIGQUIT end it. Exit status: 0, 1 on failure, 2 on a wrong command line. The log goes to standard
// error, with -v at the level info: then it has a line for each reply.
//
// The files by theme: front_request reads a head, front_name its target, front_file opens the file, front_reply sends
// it. front_answer and front_conn hold that together, for a request and for a connection. Here stand listeners and loop.
#include "front_config.h"
#include "front_conn.h"

#include "common/rui.h"

#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "util.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

TV_LOG_MODULE(0)

namespace
{

constexpr int EXIT_USAGE = 2;
constexpr struct timespec TICK = {0, 100000000}; // between two looks at time-outs and stopped listeners
constexpr const char* D_PORT = "8080";

struct {
    struct front_cfg cfg;
    struct rui_ctx ctx;
    struct front_site site;
    struct timespec last_tick;
} g_front;

// ---- the loop's callbacks -------------------------------------------------------------------------------------
// The turn may hold a further event of a connection that ends: so it is marked here, and goes in after_events.

int on_listener(struct rui_socket_ctx* srv, int flags)
{
    if (srv->sockfd < 0) return 0; // stopped by an event ahead of this one
    if (flags) rui_crash_on_error(srv, flags & RQS_SOCKHUP);
    const struct front_site& site = g_front.site;
    const size_t limit = site.max + FRONT_REFUSED_MAX; // one more might take the descriptor of a file
    const size_t room = limit - std::min(site.count, limit);
    const int rc = rui_accept(srv, std::min(g_front.cfg.rui.max_accept, room), RUI_TCP_NODELAY, &g_front.site);
    // No accept, say for want of descriptors, or far too many connections: pause, instead of being called again at once.
    if (rc > 0 || site.count >= limit) (void)rui_stop_listener(srv); // logged
    return 0;
}

int on_read(int, int flags, void* udata, void*)
{
    if (rui_is_listener(udata)) return on_listener(static_cast<struct rui_socket_ctx*>(udata), flags);
    return front_conn_readable(static_cast<struct front_conn*>(udata)) ? rui_pprm_request(udata) : 0;
}

int on_write(int, int, void* udata, void*)
{
    return front_conn_writable(static_cast<struct front_conn*>(udata)) ? rui_pprm_request(udata) : 0;
}

int on_error(int, int flags, void* udata, void*)
{
    if (rui_is_listener(udata)) return on_listener(static_cast<struct rui_socket_ctx*>(udata), flags);
    return rui_pprm_request(udata);
}

int after_events()
{
    rui_pprm_all(&g_front.ctx);
    return 0;
}

int on_idle()
{
    if (!timed_out(&g_front.last_tick, &TICK)) return 0;
    g_front.last_tick = rqs_now();
    rui_tmout_all(&g_front.ctx, static_cast<u_int>(g_front.cfg.rui.user_request_tmout));
    const bool has_room = g_front.site.count <= g_front.site.max * 3 / 4;
    for (struct rui_socket_ctx& srv : g_front.ctx.user) {
        // A listener that can't be started again stays deferred; the next tick tries again.
        if (srv.deferred && has_room) (void)rui_start_listener(srv.lc, &srv);
    }
    return 0;
}

void set_tick(struct timespec* tmout)
{
    *tmout = TICK;
}

// ---- the run --------------------------------------------------------------------------------------------------

int serve()
{
    g_front.site = {.root = g_front.cfg.root, .count = 0, .max = g_front.cfg.max_requests};
    struct rui_socket_cb user = {{{'u', 's', 'r', 0}}, front_conn_new, front_conn_free, front_conn_timed_out};
    rui_set_cb(RUI_USER, &user);
    struct rqs_config loop = {};
    loop.cb = {set_tick, on_idle, on_read, on_write, on_error, after_events, nullptr, nullptr, nullptr};

    int rc = rqs_init(&loop);
    if (!rc) rc = rui_ctx_init(&g_front.cfg.rui, &g_front.ctx);
    if (!rc) rc = rui_ctx_start(&g_front.ctx);
    if (!rc) rc = rqs_event_loop();
    rui_ctx_destroy(&g_front.ctx);
    rui_cfg_free(&g_front.cfg.rui);
    rqs_destroy();
    (void)W_close(__func__, g_front.cfg.root); // logged
    return rc;
}

int usage()
{
    fputs("usage: front [-v] [-p PORT] DIR | front [-v] -C FILE.conf\n", stderr);
    return EXIT_USAGE;
}

} // namespace

int main(int argc, char** argv)
{
    const char* file = nullptr;
    const char* port = nullptr;
    int level = ll::warning;
    for (int c; (c = getopt(argc, argv, "vp:C:")) != -1;) {
        if (c == 'v') level = ll::info;
        if (c == 'p') port = optarg;
        if (c == 'C') file = optarg;
        if (c == '?') return usage();
    }
    if (argc - optind != (file ? 0 : 1) || (file && port)) return usage();
    glog_init("front");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, level);
    if (handle_quit_signals(on_sigquit) || ignore_sigpipe() ||
        front_load(file, port ? port : D_PORT, argv[optind], &g_front.cfg))
        return EXIT_FAILURE;
    return serve() ? EXIT_FAILURE : EXIT_SUCCESS;
}
