// Listeners: set-up, start, stop, the end. What happens to their connections is in rui_rq.cpp.
//
// A class is an array of four listeners, in the context as in the configuration, and every walk over one takes the
// first listener's tag for that of the class: set-up fills the slots from the first on without a gap.
#include "rui.h"

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "rui_int.h"
#include "syswrap.h"

#include <netinet/in.h>

#include <array>
#include <cassert>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

using namespace rui_int;

namespace
{

constinit std::array<struct rui_socket_cb*, RUI_MAX> g_callbacks = {};

int setup_listener_ctx(struct rui_listener_cfg* lc, struct rui_socket_cb* cb, struct rui_socket_ctx* srv)
{
    int rc = 0;
    srv->requests = dlep_create(&rc);
    if (!srv->requests) {
        tv_log(ll::error, "%s: dlep_create() failed rc=%d\n", "rui_setup_listeners", rc);
        return rc;
    }
    rc = xvlst_reserve(&srv->pprm, PPRM_START, sizeof(struct rui_rq_header*), PPRM_GROW);
    if (rc) {
        tv_log(ll::error, "%s: xvlst_reserve() failed rc=%d\n", "rui_setup_listeners", rc);
        xvlst_reset(&srv->pprm);
        dlep_destroy(srv->requests, nullptr);
        srv->requests = 0;
        return rc;
    }
    srv->tag = RUI_LISTENER_TAG;
    srv->sockfd = -1;
    FD_ZERO(&srv->accset);
    srv->lc = lc;
    srv->rqtag = cb->tag;
    srv->cb = cb;
    check(srv);
    return 0;
}

// The any address that a UDP listener without an interface takes.
int open_any_udp(const struct rui_listener_cfg* cfg)
{
    struct sockaddr_storage ss = {};
    cpy_anyaddr(cfg->pref_af == AF_INET6 ? AF_INET6 : AF_INET, &ss);
    return open_udp_listener(&ss, cfg->port);
}

int open_by_config(struct rui_listener_cfg* cfg)
{
    if (cfg->domain_path[0]) return open_domain_listener(cfg->domain_path);
    switch (cfg->proto) {
    case IPPROTO_TCP:
        return cfg->ifc ? open_listener(&cfg->ifc->ss, cfg->port, 0)
                        : open_anyaddr_listener(cfg->pref_af, cfg->port, 0);
    case IPPROTO_UDP: return cfg->ifc ? open_udp_listener(&cfg->ifc->ss, cfg->port) : open_any_udp(cfg);
    default: return -1;
    }
}

const char* where_of(const struct rui_listener_cfg* cfg)
{
    if (cfg->domain_path[0]) return cfg->domain_path;
    return cfg->ifc ? cfg->ifc->name : "all";
}

void drop_listener(struct rui_socket_ctx* srv)
{
    (void)rui_stop_listener(srv); // it has said what failed, and the socket is closed
    dlep_destroy(srv->requests, rui_rm_request);
    srv->requests = 0;
    free(srv->lc->ifc);
    srv->lc->ifc = nullptr;
    srv->lc->is_valid = false;
    xvlst_reset(&srv->pprm);
    srv->tag.num = 0;
}

void stop_listeners(struct rui_socket_ctx* srv, bool destroy)
{
    const union n32_tag rqtag = srv[0].rqtag;
    size_t n = 0;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (!is_up(&srv[i])) continue;
        if (destroy)
            drop_listener(&srv[i]);
        else
            (void)rui_stop_listener(&srv[i]); // as above
        ++n;
    }
    tv_log(ll::debug, "%s: %lu [%s] listener(s) %s\n", __func__, n, rqtag.sym, destroy ? "destroyed" : "stopped");
}

void free_interfaces(struct rui_listener_cfg* lc)
{
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        free(lc[i].ifc);
        lc[i].ifc = nullptr;
        lc[i].is_valid = false;
    }
}

} // namespace

// ---- shared with the other parts ------------------------------------------------------------------------------

void rui_int::abort_with_stack()
{
    char bt[LOG_OUTBUF_SIZE / 2] = "";
    (void)btrace_to_buf(bt, sizeof(bt)); // without a stack the line still tells that it happened
    tv_log(ll::panic, "Aborting at:\n%s==\n", bt);
    if (g_log.fp) (void)fflush(g_log.fp);
    abort();
}

// ---- a service's listeners ------------------------------------------------------------------------------------

void rui_set_cb(int type, struct rui_socket_cb* cb)
{
    assert(type >= 0 && type < RUI_MAX);
    g_callbacks[static_cast<size_t>(type)] = cb;
}

int rui_ctx_init(struct rui_cfg* cfg, struct rui_ctx* ctx)
{
    memset(ctx, 0, sizeof(*ctx));
    int rc = rui_setup_listeners(RUI_USER, cfg->user, ctx->user);
    if (!rc) rc = rui_setup_listeners(RUI_ADMIN, cfg->admin, ctx->admin);
    if (!rc) rc = rui_setup_listeners(RUI_CUSTOM, cfg->custom, ctx->custom);
    return rc;
}

int rui_ctx_start(struct rui_ctx* ctx)
{
    int rc = rui_enable_listeners(ctx->user);
    if (!rc) rc = rui_enable_listeners(ctx->admin);
    if (!rc) rc = rui_enable_listeners(ctx->custom);
    return rc;
}

void rui_ctx_stop(struct rui_ctx* ctx)
{
    stop_listeners(ctx->user, false);
    stop_listeners(ctx->admin, false);
    stop_listeners(ctx->custom, false);
}

void rui_ctx_destroy(struct rui_ctx* ctx)
{
    stop_listeners(ctx->user, true);
    stop_listeners(ctx->admin, true);
    stop_listeners(ctx->custom, true);
}

int rui_setup_listeners(int type, struct rui_listener_cfg* lc, struct rui_socket_ctx* srv)
{
    assert(type >= 0 && type < RUI_MAX);
    struct rui_socket_cb* cb = g_callbacks[static_cast<size_t>(type)];
    size_t n = 0;
    // By design a gap ends the walk: listeners are loaded from the first slot on.
    for (; n < RUI_MAX_LISTENERS && lc[n].is_valid; ++n) {
        assert(cb);
        assert(cb->new_rq && cb->rm_rq);
        if (const int rc = setup_listener_ctx(&lc[n], cb, &srv[n])) return rc;
    }
    tv_log(ll::debug, "%s: %lu [%s] listeners set up\n", __func__, n, cb ? cb->tag.sym : "");
    return 0;
}

int rui_enable_listeners(struct rui_socket_ctx* srv)
{
    size_t n = 0;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (!is_up(&srv[i])) continue;
        if (const int rc = rui_start_listener(srv[i].lc, &srv[i])) return rc;
        ++n;
    }
    tv_log(ll::debug, "%s: %lu [%s] listener(s) started\n", __func__, n, srv[0].rqtag.sym);
    return 0;
}

int rui_start_listener(struct rui_listener_cfg* cfg, struct rui_socket_ctx* srv)
{
    assert(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    assert(-1 == srv->sockfd);
    tv_log(ll::debug, "%s: %s\n", __func__, cfg->alias);
    srv->lc = cfg;

    srv->sockfd = open_by_config(cfg);
    if (srv->sockfd >= 0 && 0 == rqs_add_reader(srv->sockfd, srv)) {
        srv->deferred = false;
        tv_log(ll::info, "STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", srv->sockfd,
               srv->rqtag.sym, where_of(cfg), cfg->port, dlep_count(srv->requests));
        check(srv);
        return 0;
    }
    if (srv->sockfd >= 0) (void)W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    tv_log(ll::error, "%s: failed to start %s listener\n", __func__, srv->rqtag.sym);
    return -1;
}

int rui_stop_listener(struct rui_socket_ctx* srv)
{
    // By design 0 doesn't count as listening: it is what a cleared record holds.
    if (srv->sockfd <= 0) return 0;
    assert(0 == srv->deferred && srv->sockfd >= 0);

    const size_t queued = dlep_count(srv->requests);
    if (queued > 0)
        tv_log(ll::warning, "%s listener fd%d wll be closed (%lu requsts queued)\n", srv->rqtag.sym, srv->sockfd,
               queued);
    const int rc = rqs_rm_fd(srv->sockfd, true, false);
    (void)W_close(__func__, srv->sockfd); // logged; the descriptor is gone in any case
    srv->sockfd = -1;
    srv->deferred = true;
    check(srv);
    return rc;
}

void rui_crash_on_error(struct rui_socket_ctx* rsc, bool is_hup)
{
    const int err = socket_error(rsc->sockfd);
    tv_log(ll::panic, "%s: %s listener[%s] ERROR(%d): %s\n", __func__, is_hup ? "HUP" : "",
           rsc->lc && rsc->lc->alias[0] ? rsc->lc->alias : "?", err, strerror(err));
    abort_with_stack();
}

bool rui_is_listener(const void* udata)
{
    union n32_tag tag;
    memcpy(&tag, udata, sizeof(tag));
    return tag.num == RUI_LISTENER_TAG.num;
}

// ---- settings -------------------------------------------------------------------------------------------------

void rui_cfg_free(struct rui_cfg* cfg)
{
    free_interfaces(cfg->user);
    free_interfaces(cfg->admin);
    free_interfaces(cfg->custom);
}
