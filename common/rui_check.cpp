// What must hold of listeners, and how they look in words.
#include "log.h"
#include "rui.h"
#include "rui_int.h"

TV_LOG_MODULE(0)

using namespace rui_int;

namespace
{

// Every mark is a request of this listener; null is one that a purge has dealt with.
bool marks_are_valid(const struct rui_socket_ctx* srv)
{
    if (!xvlst_validate(&srv->pprm)) return false;
    for (size_t i = 0; srv->pprm.len > 0 && i <= srv->pprm.last; ++i) {
        const struct rui_rq_header* rqh = srv->pprm.taken[i] ? marks_of(srv->pprm.data)[i] : nullptr;
        if (rqh && rqh->srv != srv) return false;
    }
    return true;
}

bool requests_are_valid(const struct rui_socket_ctx* srv)
{
    if (!dlep_validate(srv->requests) || dlep_count(srv->requests) > RUI_MAX_QUEUED) return false;
    for (const struct rui_rq_header* rqh = header_of(dlep_tail(srv->requests)); rqh; rqh = rqh->next) {
        if (rqh->srv != srv) return false;
    }
    return true;
}

bool class_is_valid(const struct rui_socket_ctx* srv)
{
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (!rui_socket_validate(&srv[i])) return false;
    }
    return true;
}

void dump_listener(const struct rui_socket_ctx* srv, FILE* fp)
{
    (void)fprintf(fp, "%s listener[%s]: %s fd=%d deferred=%d requests=%zu marked=%zu%s\n", srv->rqtag.sym,
                  srv->lc ? srv->lc->alias : "?", srv->sockfd > 0 ? "listening" : "not listening", srv->sockfd,
                  srv->deferred ? 1 : 0, srv->requests ? dlep_count(srv->requests) : 0, srv->pprm.len,
                  rui_socket_validate(srv) ? "" : " INVALID");
    if (!srv->requests || !dlep_validate(srv->requests)) return;
    for (const struct rui_rq_header* rqh = header_of(dlep_tail(srv->requests)); rqh; rqh = rqh->next)
        (void)fprintf(fp, "\t%s [%s] fd=%d\n", rqh->tag.sym, rqh->trk_tag.sym, rqh->fd);
}

void dump_class(const struct rui_socket_ctx* srv, FILE* fp)
{
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (srv[i].tag.num) dump_listener(&srv[i], fp);
    }
}

} // namespace

void rui_int::check([[maybe_unused]] const struct rui_socket_ctx* srv)
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(rui_socket_validate(srv));
#endif
}

bool rui_socket_validate(const struct rui_socket_ctx* srv)
{
    if (!srv) return false;
    if (srv->tag.num == 0) return srv->requests == 0 && srv->pprm.len == 0;
    return srv->tag.num == RUI_LISTENER_TAG.num && srv->lc && srv->cb && srv->rqtag.num && srv->sockfd >= -1 &&
           !(srv->deferred && srv->sockfd != -1) && requests_are_valid(srv) && marks_are_valid(srv);
}

bool rui_validate(const struct rui_ctx* ctx)
{
    return ctx && class_is_valid(ctx->user) && class_is_valid(ctx->admin) && class_is_valid(ctx->custom);
}

void rui_dump(const struct rui_ctx* ctx, FILE* fp)
{
    dump_class(ctx->user, fp);
    dump_class(ctx->admin, fp);
    dump_class(ctx->custom, fp);
}
