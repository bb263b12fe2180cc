// Requests: from the accepted connection to the record's end, the walks over all of them, and the load control.
//
// A request is known in four places: the loop, the listener's set of descriptors, its queue, and its marks. It enters
// them in rui_add_request and leaves them in rm_request, and nowhere else.
#include "rui.h"

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "rui_int.h"
#include "syswrap.h"
#include "util.h"

#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>

TV_LOG_MODULE(0)

using namespace rui_int;

namespace
{

constexpr int LOW_WATERMARK = 32; // bytes that make an IP connection readable
constexpr size_t PEER_TEXT_MAX = 256;
constexpr size_t TRKNUM_DIGITS_MAX = 6;
constexpr size_t TRKNUM_LAST = 9999; // of the numbers given to requests that bring none
static_assert(1 + TRKNUM_DIGITS_MAX + 1 == sizeof(n64_tag), "prefix, digits, zero");

// Counts the requests whose service leaves the tracking number to the listener.
constinit size_t g_trk_count = 0;

// ---- accepting ------------------------------------------------------------------------------------------------

// Says why an accept failed, and whether that ends the walk over waiting connections. `*rc` gets the errors that are
// neither the walk's usual end nor anybody's fault.
bool ends_walk(const struct rui_socket_ctx* srv, int err, int* rc)
{
    constexpr char caller[] = "rui_accept";
    if (err == EINTR) return false; // the walk looks at g_quit itself
    if (is_eagain(err)) {
        tv_log(ll::debug, "%s(%s): end of accept queue reached\n", caller, srv->lc->alias);
        return true;
    }
    if (is_connreset(err)) {
        tv_log(ll::info, "%s(%s): connection aborted/reset before accept()\n", caller, srv->lc->alias);
        return false;
    }
    *rc = err;
    return true;
}

int setup_connection(int fd, int family, uint32_t flags)
{
    constexpr char caller[] = "rui_accept";
    if (const int rc = set_nblock(fd, 1)) return rc;
    if (family != AF_INET && family != AF_INET6) return 0;

    const int mark = LOW_WATERMARK;
    if (const int rc = W_setsockopt(caller, fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof(mark))) return rc;
    tv_log(ll::debug, "%s: low watermark set to %d for fd=%d\n", caller, mark, fd);
    return flags & RUI_TCP_NODELAY ? set_tcp_nodelay(fd, 1) : 0;
}

// A request that the loop would not take is queued with a descriptor that is about to be closed. It must not keep the
// number, which the next connection gets.
void forget_fd(struct rui_socket_ctx* srv, int fd)
{
    struct rui_rq_header* newest = header_of(dlep_head(srv->requests));
    if (!newest || newest->fd != fd) return;
    newest->fd = -1;
    if (fits_fd_set(fd)) FD_CLR(fd, &srv->accset);
}

int take_connection(struct rui_socket_ctx* srv, int fd, const struct sockaddr* sa, socklen_t len, uint32_t flags,
                    void* data)
{
    char text[PEER_TEXT_MAX] = "";
    const char* peer = saddr_str(sa, len, text, sizeof(text));
    if (!peer) peer = "?";
    tv_log(ll::info, "Accepted %s request [fd=%d] from %s\n", srv->rqtag.sym, fd, peer);

    int rc = setup_connection(fd, sa->sa_family, flags);
    if (!rc) rc = rui_add_request(fd, srv, data);
    if (rc) {
        tv_log(ll::error, "Error rc=%d processing connection [%s] fd=%d\n", rc, peer, fd);
        forget_fd(srv, fd);
        (void)W_close("rui_accept", fd); // logged; the descriptor is gone in any case
    }
    return rc;
}

// ---- making and removing --------------------------------------------------------------------------------------

// What new_rq left to the listener.
void fill_header(struct rui_rq_header* rqh, int fd, struct rui_socket_ctx* srv)
{
    if (!rqh->tag.num) rqh->tag = srv->rqtag;
    if (!rqh->srv) rqh->srv = srv;
    if (!rqh->fd) rqh->fd = fd;
    if (!rqh->trk_tag.num) rui_mk_trknum(&g_trk_count, &rqh->trk_tag, srv->rqtag.sym[0], TRKNUM_LAST);
}

int same_request(void* data, size_t i, void* rq)
{
    return marks_of(data)[i] == rq;
}

// The list itself asserts that a record is in it.
bool is_queued(const struct rui_rq_header* rqh)
{
    return rqh->prev || rqh->next || dlep_tail(rqh->srv->requests) == rqh;
}

void rm_request(void* p, bool from_pprm)
{
    struct rui_rq_header* rqh = header_of(p);
    assert(rqh->srv->cb);
    struct rui_socket_ctx* srv = rqh->srv;

    if (fits_fd_set(rqh->fd)) FD_CLR(rqh->fd, &srv->accset);
    if (rqs_rm_fd(rqh->fd, true, true))
        tv_log(ll::error, "%s: failed to remove fd=%d from the monitored set.\n", __func__, rqh->fd);
    if (!from_pprm && xvlst_rmif(&srv->pprm, rqh, same_request, nullptr) > 0)
        tv_log(ll::debug, "%s: removed (%p) from PPRM\n", __func__, p);

    if (!is_queued(rqh) || !dlep_rm(srv->requests, rqh)) {
        tv_log(ll::error, "%s: failed to remove %s request [%p] from queue\n", __func__, rqh->tag.sym, p);
        return;
    }
    const int fd = rqh->fd;
    if (fd >= 0) (void)W_close(__func__, fd); // logged; the descriptor is gone in any case
    rqh->fd = -1;
    srv->cb->rm_rq(p);
    tv_log(ll::info, "%s: OK for fd=%d rq=%p\n", __func__, fd, p);
    check(srv);
}

// ---- walks ----------------------------------------------------------------------------------------------------

// A request that was marked by hand may be marked more than once, and must go only once.
void clear_further_marks(struct rui_socket_ctx* srv, const struct rui_rq_header* rqh, size_t from)
{
    struct rui_rq_header** marks = marks_of(srv->pprm.data);
    for (size_t i = from; i <= srv->pprm.last; ++i) {
        if (srv->pprm.taken[i] && marks[i] == rqh) marks[i] = nullptr;
    }
}

void pprm_cleanup(void* data, size_t j)
{
    struct rui_rq_header* rqh = marks_of(data)[j];
    if (!rqh) return;
    marks_of(data)[j] = nullptr;
    clear_further_marks(rqh->srv, rqh, j + 1);
    tv_log(ll::debug, "%s: %s [%s] (%p) j=%ld\n", __func__, rqh->tag.sym, rqh->trk_tag.sym, static_cast<void*>(rqh),
           static_cast<long>(j));
    rm_request(rqh, true);
}

void pprm_srv(struct rui_socket_ctx* srv)
{
    if (!srv[0].tag.num) return;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (!is_up(&srv[i]) || !srv[i].requests) continue;
        tv_log(ll::debug, "%s: [%s] listener[%s], %zu pprm items\n", __func__, srv[i].rqtag.sym, srv[i].lc->alias,
               srv[i].pprm.len);
        xvlst_purge_all(&srv[i].pprm, pprm_cleanup);
        check(&srv[i]);
    }
    tv_log(ll::debug, "%s: done for for [%s]\n", __func__, srv[0].rqtag.sym);
}

size_t count_tmouts(struct rui_socket_ctx* srv, u_int tmout_ms)
{
    size_t n = 0;
    struct rui_rq_header* next = nullptr;
    for (struct rui_rq_header* rqh = header_of(dlep_tail(srv->requests)); rqh; rqh = next) {
        next = rqh->next; // by then a callback that removed its own request has freed it
        if (srv->cb->time_out(rqh, tmout_ms)) ++n;
    }
    return n;
}

void tmout_srv(struct rui_socket_ctx* srv, u_int tmout_ms)
{
    if (!srv[0].tag.num) return;
    assert(srv->cb->time_out);
    size_t n = 0;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (is_up(&srv[i]) && srv[i].requests) n += count_tmouts(&srv[i], tmout_ms);
    }
    if (n > 0)
        tv_log(ll::warning, "%s: %lu [%s] requests timed out\n", __func__, n, srv[0].rqtag.sym);
    else
        tv_log(ll::debug, "%s: no time-outs for [%s]\n", __func__, srv[0].rqtag.sym);
}

} // namespace

// ---- requests -------------------------------------------------------------------------------------------------

int rui_accept(struct rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data)
{
    tv_log(ll::debug, "%s: from [%s]\n", __func__, srv->lc->alias);
    int rc = 0;
    size_t nacc = 0;
    while (!g_quit && nacc < max_accept) {
        tv_log(ll::debug, "%s(%s): accepting on fd=%d\n", __func__, srv->lc->alias, srv->sockfd);
        struct sockaddr_storage ss = {};
        static_assert(sizeof(ss) == 128);
        socklen_t len = sizeof(ss);
        const int fd = W_accept(__func__, srv->sockfd, reinterpret_cast<struct sockaddr*>(&ss), &len);
        if (fd >= 0) {
            rc = take_connection(srv, fd, reinterpret_cast<const struct sockaddr*>(&ss), len, flags, data);
            if (!rc) ++nacc;
            continue;
        }
        if (ends_walk(srv, errno, &rc)) break;
    }
    if (nacc >= max_accept)
        tv_log(ll::warning, "%s(%s): CANNOT ACCEPT ALL (accepted=%ld), max=%lu\n", __func__, srv->lc->alias,
               static_cast<long>(nacc), max_accept);
    tv_log(ll::debug, "%s: rc=%d\n", __func__, rc);
    return rc;
}

int rui_add_request(int fd, struct rui_socket_ctx* srv, void* data)
{
    const size_t queued = dlep_count(srv->requests);
    if (queued >= RUI_MAX_QUEUED) {
        // By design the line says "user" for all classes.
        tv_log(ll::error, "%s: Too many user requests (%lu) queued\n", __func__, queued);
        return RUI_QUEUE_FULL;
    }
    if (!fits_fd_set(fd)) {
        tv_log(ll::error, "%s: fd=%d is not below %d: can't be queued\n", __func__, fd, FD_SETSIZE);
        return -1;
    }
    assert(srv->cb);
    void* rq = srv->cb->new_rq(fd, srv, data);
    if (!rq) return -1;
    fill_header(header_of(rq), fd, srv);

    if (!dlep_append(srv->requests, rq)) {
        tv_log(ll::error, "%s: failed to queue [%s] request [%p]\n", __func__, srv->rqtag.sym, rq);
        rui_rm_request(rq);
        return -1;
    }
    if (FD_ISSET(fd, &srv->accset)) tv_log(ll::error, "%s: socket fd=%d is already marked queued\n", __func__, fd);
    FD_SET(fd, &srv->accset);

    if (const int rc = rqs_add_reader(fd, rq)) {
        tv_log(ll::error, "%s: failed to add fd=%d to the monitored set\n", __func__, fd);
        return rc; // by design the request stays queued
    }
    tv_log(ll::info, "%s: OK for fd=%d, rq=%p\n", __func__, fd, rq);
    check(srv);
    return 0;
}

void rui_rm_request(void* p)
{
    rm_request(p, false);
}

int rui_pprm_request(void* p)
{
    struct rui_rq_header* rqh = header_of(p);
    struct xvlst* pprm = &rqh->srv->pprm;
    if (xvlst_find(pprm, p, same_request, nullptr)) return 0;
    const ssize_t i = xvlst_add(pprm, sizeof(rqh), PPRM_GROW);
    if (i < 0) {
        tv_log(ll::error, "%s: no memory to mark %s request [%p]\n", __func__, rqh->tag.sym, p);
        return -1;
    }
    marks_of(pprm->data)[i] = rqh;
    return 0;
}

void rui_pprm_all(struct rui_ctx* ctx)
{
    pprm_srv(ctx->user);
    pprm_srv(ctx->admin);
    pprm_srv(ctx->custom);
}

void rui_tmout_all(struct rui_ctx* ctx, u_int tmout_ms)
{
    tmout_srv(ctx->user, tmout_ms);
    tmout_srv(ctx->admin, tmout_ms);
    tmout_srv(ctx->custom, tmout_ms);
}

bool rui_can_listen(const struct rui_socket_ctx* srv, size_t max_requests)
{
    return dlep_count(srv->requests) < max_requests;
}

bool rui_should_listen(const struct rui_socket_ctx* srv, size_t max_req)
{
    // max_req * 3 / 4, rounded down, for every max_req.
    const size_t resume_below = max_req / 4 * 3 + max_req % 4 * 3 / 4;
    const size_t queued = dlep_count(srv->requests);
    const bool should = rui_can_listen(srv, max_req) && queued < resume_below;
    if (should && srv->sockfd < 0) tv_log(ll::info, "%s: %s (%lu requsts queued)\n", __func__, srv->rqtag.sym, queued);
    return should;
}

void rui_mk_trknum(size_t* count, union n64_tag* tag, char pfx, size_t max)
{
    if (max <= *count) {
        *count = 0;
        tv_log(ll::debug, "%s: rolling over %c-requests\n", __func__, pfx);
    }
    ++*count;
    tag->num = 0;
    tag->sym[0] = pfx;
    const int len = snprintf(tag->sym + 1, TRKNUM_DIGITS_MAX + 1, "%04lu", *count);
    assert(len >= 1 && len <= static_cast<int>(TRKNUM_DIGITS_MAX));
}
