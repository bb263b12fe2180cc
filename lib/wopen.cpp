// Opening a source by its URL. A file is opened on the spot; the network kinds share one road through the socket
// layer, which ends in the HTTP exchange where the URL asks for one.
#include "wopen.h"

#include "fdio.h"
#include "log.h"
#include "syswrap.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

TV_LOG_MODULE(0)

constinit char g_apptag[APPTAG_SIZE] = "#ERR#";
constinit struct usock_flags g_usock_flags = {};

namespace
{

constexpr const char* OPEN = "usock_open"; // the name that the lines of its parts go under
constexpr const char* DEFAULT_HTTP_PORT = "80";
constexpr size_t HOST_TEXT_SIZE = 1025;
constexpr size_t PORT_TEXT_SIZE = 32;
constexpr size_t REQUEST_TEXT_SIZE = 128;

// A URL taken apart, as far as opening needs it.
struct url_parts {
    char host[HOST_TEXT_SIZE];
    char port[PORT_TEXT_SIZE];
    char authority[URI_AUTH_MAX];
    char path[URI_PATH_MAX];
    char query[URI_QUERY_MAX];
};

// Where a network branch leaves usock_open.
enum class exit_road {
    normal, // through the common end, which closes after a failure
    early,  // straight out with -1: the context and the descriptor stay as they are
};

// Socket type of a network kind, -1 for any other.
int socktype_of(int kind)
{
    switch (kind) {
    case URI_UDP:
    case URI_RTP: return SOCK_DGRAM;
    case URI_TCP:
    case URI_HTTP: return SOCK_STREAM;
    default: return -1;
    }
}

// A stream source needs room for the bytes that come with a reply head. 0, or -1.
int provide_buf(struct usock_ctx* uc)
{
    if (!uc->buf) {
        char* buf = static_cast<char*>(W_calloc(OPEN, USOCK_BUF_SIZE, 1));
        if (!buf) return -1;
        uc->buf = uc->own_buf = buf;
        uc->bufcap = USOCK_BUF_SIZE;
    }
    uc->buflen = 0;
    return 0;
}

// Sets the time-out that the context asks for, on the side that the data flows through.
int apply_timeout(int fd, const struct usock_ctx* uc)
{
    if (uc->non_blocking || uc->timeout_ms == 0) return 0;
    return uc->inbound ? set_rcv_timeout(fd, uc->timeout_ms) : set_send_timeout(fd, uc->timeout_ms);
}

// Opens the socket of a network URL. 0 with *fd set, or -1.
int open_network_socket(struct usock_ctx* uc, const url_parts* url, int* fd)
{
    const bool with_source = uc->sspec.socktype == SOCK_DGRAM && !uc->sspec.writer && url->authority[0] != '\0';
    if (with_source) tv_log(ll::debug, "%s: SSM source=[%s]\n", OPEN, url->authority);

    *fd = open_socket(url->host, url->port, with_source ? url->authority : nullptr, &uc->sspec, uc->ifc_tag, &uc->mifc);
    return *fd == -1 ? -1 : apply_timeout(*fd, uc);
}

// Asks for the URL and reads the reply head. True if the source is ready to be read.
bool http_exchange(int fd, const char* url, struct usock_ctx* uc)
{
    if (fwd_http_rq(fd, url, g_apptag, uc->http_flags) != 0) return false;
    return get_http_response(fd, uc->buf, uc->bufcap, &uc->buflen) == 0;
}

// The network kinds. Leaves result and descriptor in *rc and *fd, and says by which road to leave.
exit_road open_network(const char* url, struct usock_ctx* uc, url_parts* parts, int* rc, int* fd)
{
    if (!uri_path_addrport(parts->path, URI_PATH_MAX, parts->host, sizeof(parts->host), parts->port,
                           sizeof(parts->port))) {
        *rc = -1;
    } else {
        if (uc->url_kind == URI_HTTP && parts->port[0] == '\0') {
            (void)snprintf(parts->port, sizeof(parts->port), "%s", DEFAULT_HTTP_PORT);
            tv_log(ll::debug, "%s: assuming HTTP port %s for [%s]\n", OPEN, parts->port, url);
        }
        uc->sspec.writer = uc->inbound ? 0 : 1;
        uc->sspec.non_blocking = uc->non_blocking ? 1 : 0;
        const int socktype = socktype_of(uc->url_kind);
        if (socktype == -1) { // a kind that usock_open does not send here
            tv_log(ll::error, "%s: unsupported URI type: %d\n", OPEN, uc->url_kind);
            return exit_road::early;
        }
        uc->sspec.socktype = socktype;
        if (socktype == SOCK_STREAM && provide_buf(uc) != 0) {
            *rc = -1;
            return exit_road::normal;
        }
        *rc = open_network_socket(uc, parts, fd);
    }
    if (uc->url_kind != URI_HTTP || uc->skip_http) return exit_road::normal;

    // By design: the exchange runs whatever came before: on a socket that did not open it fails at once, and a failed
    // HTTP source always leaves by the early road. A time-out that could not be set is forgiven by its success.
    if (!http_exchange(*fd, url, uc)) return exit_road::early;
    *rc = 0;
    return exit_road::normal;
}

} // namespace

void usock_set_apptag(const char* apptag)
{
    assert(apptag);
    (void)snprintf(g_apptag, sizeof(g_apptag), "%s", apptag);
}

int usock_open(const char* url, struct usock_ctx* uc)
{
    url_parts parts = {};
    int rc = 0;
    int fd = -1;

    uc->url_kind = uri_extract(url, nullptr, parts.authority, parts.path, parts.query);
    if (uc->url_kind == URI_BAD) return -1;

    assert(NULL == uc->url_path);
    uc->url_path = strdup(parts.path);
    assert(uc->url_path);
    uc->non_pollable = false;

    switch (uc->url_kind) {
    case URI_FILE:
        fd = W_open(__func__, uc->url_path, O_RDONLY, 0);
        if (fd == -1) {
            rc = -1;
        } else {
            uc->non_pollable = true;
            tv_log(ll::debug, "%s: fd%d FILE [%s]\n", __func__, fd, uc->url_path);
        }
        break;
    case URI_TCP:
    case URI_UDP:
    case URI_RTP:
    case URI_HTTP:
        if (open_network(url, uc, &parts, &rc, &fd) == exit_road::early) return -1;
        break;
    default:
        // By design: the line is left open at its end.
        tv_log(ll::error, "%s: unsupported type of URI [%s]", __func__, url);
        rc = -1;
    }
    if (rc == 0 && fd >= 0) return fd;
    usock_close(fd, uc);
    return -1;
}

void usock_close(int fd, struct usock_ctx* uc)
{
    if (uc) {
        // By design: the plain leave, for a source-specific membership too: the close below ends every membership.
        if (fd >= 0 && uc->sspec.multicast && !uc->sspec.writer) {
            (void)mcast_leave(fd, &uc->sspec.addr_ss, uc->mifc);
        }
        free(uc->url_path);
        uc->url_path = nullptr;
        free(uc->mifc);
        uc->mifc = nullptr;
        // A lent buffer is forgotten and stays its owner's.
        if (uc->buf && uc->buf == uc->own_buf) free(uc->buf);
        uc->buf = nullptr;
        uc->own_buf = nullptr;
        uc->buflen = 0;
    }
    if (fd >= 0) (void)W_close(__func__, fd);
}

int fwd_http_rq(int fd, const char* url, const char* tag, uint32_t flags)
{
    url_parts parts = {};
    char request[REQUEST_TEXT_SIZE] = {};

    if (uri_extract(url, nullptr, nullptr, parts.path, parts.query) == URI_BAD) return -1;
    const char* tail =
        uri_path_addrport(parts.path, URI_PATH_MAX, parts.host, sizeof(parts.host), parts.port, sizeof(parts.port));
    if (!tail) {
        tv_log(ll::error, "%s: URI has no path tail: %s\n", __func__, url);
        return -1;
    }
    if (g_usock_flags.use_http10_get) tv_log(ll::debug, "%s: Using HTTP/1.0 request\n", __func__);

    if (parts.query[0] != '\0') {
        const int len = snprintf(request, sizeof(request), "%s?%s", tail, parts.query);
        constexpr size_t max = sizeof(request) - 1;
        if (len >= 0 && static_cast<size_t>(len) > max) {
            tv_log(ll::warning, "%s: GET query is too long [%d bytes], max=%ld bytes.\n", __func__, len,
                   static_cast<long>(max));
        }
        tail = request;
    }
    struct http_request rq = {};
    rq.type = RQTYPE_GET;
    rq.flags = flags;
    rq.request = tail;
    rq.server = tag;
    rq.host_addr = parts.host;
    rq.host_port = parts.port;
    return send_http_request(fd, &rq);
}

int usock_http_get(int fd, const char* url, uint32_t flags)
{
    return fwd_http_rq(fd, url, g_apptag, flags);
}

int usock_http_get_response(int fd, struct http_resp_buf* resp)
{
    assert(resp->buf && resp->len > 0);
    tv_log(ll::debug, "%s: reading HTTP response from fd=%d\n", __func__, fd);
    if (resp->ctx.total >= static_cast<ssize_t>(resp->len)) {
        tv_log(ll::error, "%s: buffer is full, size=%ld\n", __func__, static_cast<long>(resp->len));
        return E2BIG;
    }
    assert(resp->ctx.total < (ssize_t)resp->len);

    // By design: the offset counts twice, here and in the reader: callers count on a single call.
    const size_t done = static_cast<size_t>(resp->ctx.total);
    const int rc = recv_http_response(fd, resp->buf + done, resp->len - done, &resp->ctx);
    if (rc == EAGAIN) {
        tv_log(ll::debug, "%s: [%ld bytes] in, expecting more data from fd%d\n", __func__,
               static_cast<long>(resp->ctx.total), fd);
        return EAGAIN;
    }
    if (rc != 0) {
        tv_log(ll::error, "%s: err=%d getting HTTP response from fd%d\n", __func__, rc, fd);
        return rc;
    }
    if (resp->ctx.code < HTTP_OK_CODE || resp->ctx.code > HTTP_OK_END) {
        tv_log(ll::warning, "%s: expected HTTP %d-%d, got HTTP %d\n", __func__, HTTP_OK_CODE, HTTP_OK_END,
               resp->ctx.code);
        return EACCES;
    }
    if (resp->ctx.total > resp->ctx.tail) {
        tv_log(ll::debug, "%s: got HTTP tail of %ld bytes from fd%d\n", __func__,
               static_cast<long>(resp->ctx.total - resp->ctx.tail), fd);
    }
    return 0;
}

int usock_http_get_body(int fd, struct http_body_buf* body)
{
    // By design: the count is taken in this order.
    ssize_t left = static_cast<ssize_t>(body->data_len) - static_cast<ssize_t>(body->buf_size);
    while (left >= 1) {
        errno = 0; // the end of the data sets none
        const ssize_t nrd = nread(fd, body->data + body->data_len, static_cast<size_t>(left), 0);
        if (nrd < 1) {
            const int err = errno;
            return err != 0 ? err : -1; // EAGAIN among them
        }
        body->data_len += static_cast<size_t>(nrd);
        left -= nrd;
        tv_log(ll::debug, "%s: read(fd%d..) %ld bytes, %ld left to read\n", __func__, fd, static_cast<long>(nrd),
               static_cast<long>(left));
    }
    assert(left >= 0);
    tv_log(ll::debug, "%s: complete at %lu bytes\n", __func__, body->data_len);
    assert(body->data_len == body->buf_size);
    return 0;
}
