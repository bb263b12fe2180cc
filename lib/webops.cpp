// HTTP client exchange. A reply head is looked for from the buffer's start after every read, so that a marker split
// between two reads is found; heads are short and reads few. Nothing here bounds the wait for a reply: that is the
// descriptor's time-out, if it has one.
#include "webops.h"

#include "fdio.h"
#include "log.h"
#include "netops.h"
#include "timeop.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr size_t REQUEST_SIZE = 2048;
constexpr size_t HOST_SIZE = 128;
constexpr size_t REPLY_SIZE = 1024; // head and tail of a reply that opens a source
constexpr struct timespec HTTP_TMOUT = {5, 0};

constexpr ssize_t CRLFCRLF_REST = 3; // what follows the first return of the doubled pair

bool is_blank_null(const char* text)
{
    return !text || *text == '\0' || strchr("\t\r\n ", *text);
}

// Fills the `Host` value. 0, or -1 after an error line.
int print_host(const struct http_request* rq, char* buf, size_t size)
{
    const char* addr = rq->host_addr && *rq->host_addr != '\0' ? rq->host_addr : LOCALHOST_ADDR;
    const int len = is_blank_null(rq->host_port) ? snprintf(buf, size, "%s", addr)
                                                 : snprintf(buf, size, "%s:%s", addr, rq->host_port);
    if (len < 0 || static_cast<size_t>(len) >= size) {
        tv_log(ll::error, "%s: host buffer is too small, %d bytes needed\n", "send_http_request", len);
        return -1;
    }
    return 0;
}

// Answers a read that gave nothing: 11 for more to come, else -1.
int judge_read(ssize_t nrd, int fd)
{
    const int err = errno;
    if (nrd == 0 || is_aborted(err)) {
        tv_log(ll::error, "%s: client [fd=%d] connection broken\n", "recv_http_response", fd);
        return -1;
    }
    if (err == EAGAIN) {
        tv_log(ll::debug, "%s: expecting more data from fd=%d\n", "recv_http_response", fd);
        return EAGAIN;
    }
    return -1;
}

// Reads on until the end of the head is there. 0, 11 or -1.
int fill_head(int fd, char* buf, size_t size, struct http_resp_ctx* ctx)
{
    while (ctx->total < static_cast<ssize_t>(size) - 1) {
        const ssize_t nrd = read_http(fd, buf, size - 1, static_cast<size_t>(ctx->total), &ctx->tail);
        if (nrd < 1) return judge_read(nrd, fd);

        tv_log(ll::debug, "%s: read %ld bytes from fd=%d\n", "recv_http_response", static_cast<long>(nrd), fd);
        ctx->total += nrd;
        if (ctx->tail > 0) break;
        tv_log(ll::debug, "%s: reading more from fd%d\n", "recv_http_response", fd);
    }
    return 0;
}

// Hands the bytes behind the head to the caller.
void give_tail(int fd, const char* reply, const struct http_resp_ctx* ctx, char* tailbuf, size_t cap, size_t* tailsz)
{
    // By design: it is the head's length that is held against the tail's capacity.
    if (ctx->tail < 1 || static_cast<size_t>(ctx->tail) >= cap) return;

    size_t len = static_cast<size_t>(ctx->total - ctx->tail);
    if (tailbuf && tailsz) {
        if (len <= cap) {
            memcpy(tailbuf, reply + ctx->tail, len);
        } else {
            tv_log(ll::error, "%s: tail for fd%d is too big: %ld bytes, skipping\n", "get_http_response", fd,
                   static_cast<long>(len));
            len = 0;
        }
        *tailsz = len;
    }
    if (len >= 1) tv_log(ll::debug, "%s: response for fd%d has a tail of %lu bytes\n", "get_http_response", fd, len);
}

} // namespace

int send_http_request(int fd, const struct http_request* rq)
{
    static char request[REQUEST_SIZE];
    static char host[HOST_SIZE];

    if (rq->type != RQTYPE_GET) {
        tv_log(ll::error, "%s: only GET requests are currently supported.\n", __func__);
        return -1;
    }
    if (print_host(rq, host, sizeof(host)) != 0) return -1;

    const int len =
        snprintf(request, sizeof(request),
                 "GET %s%s HTTP/%s\r\nHost: %s\r\nConnection: %s\r\nUser-Agent: %s\r\n"
                 "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                 "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n",
                 rq->request[0] == '/' ? "" : "/", rq->request, (rq->flags & RQFLAG_HTTP10_GET) ? "1.0" : "1.1", host,
                 (rq->flags & RQFLAG_KEEPALIVE) ? "keep-alive" : "close", rq->server);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(request)) {
        tv_log(ll::error, "%s: buffer is too small, %d bytes required.\n", __func__, len);
        return -1;
    }
    const ssize_t sent = nwrite(fd, request, static_cast<size_t>(len), FDIO_VERBOSE);
    if (sent <= 0) {
        tv_log(ll::error, "%s: error sending HTTP request to fd=%d\n", __func__, fd);
        return -1;
    }
    if (sent != len) {
        tv_log(ll::warning, "%s: only %ld out of %d bytes sent to fd=%d\n", __func__, static_cast<long>(sent), len, fd);
        return -1;
    }
    tv_log(ll::debug, "%s: sent %ld bytes to fd=%d:\n%s", __func__, static_cast<long>(sent), fd, request);
    return 0;
}

ssize_t head_eod(const char* buf, size_t len)
{
    const ssize_t end = static_cast<ssize_t>(len);
    for (ssize_t pos = 0; pos < end; ++pos) {
        if (buf[pos] == '\n') {
            if (pos + 1 == end) return 0;
            if (buf[pos + 1] == '\n') return pos + 2;
        } else if (buf[pos] == '\r') {
            // By design: the rest is not looked at: a pair of newlines behind this return waits for one more byte.
            if (end - pos - 1 < CRLFCRLF_REST) return 0;
            if (memcmp(buf + pos + 1, "\n\r\n", CRLFCRLF_REST) == 0) return pos + 1 + CRLFCRLF_REST;
        }
    }
    return 0;
}

bool is_aborted(int err)
{
    return err == ECONNRESET || err == ECONNABORTED;
}

ssize_t read_http(int fd, char* buf, size_t size, size_t offset, ssize_t* tail)
{
    const ssize_t nrd = nread(fd, buf + offset, size - offset, 0);
    if (nrd < 1) {
        const int err = errno; // the caller reads it
        tv_log(ll::debug, "%s: EOD(%zd) for fd%d\n", __func__, nrd, fd);
        errno = err;
        return nrd;
    }
    const ssize_t eod = head_eod(buf, offset + static_cast<size_t>(nrd));
    if (eod >= 1) {
        tv_log(ll::debug, "%s: HTTP EOD marker found at pos=%ld\n", __func__, static_cast<long>(eod));
        if (tail) *tail = eod;
    } else {
        tv_log(ll::debug, "%s: fd=%d, no HTTP EOD marker found, %ld bytes read.\n", __func__, fd,
               static_cast<long>(nrd));
    }
    tv_log(ll::debug, "%s: %zd bytes read from fd%d\n", __func__, nrd, fd);
    return nrd;
}

int recv_http_response(int fd, char* buf, size_t size, struct http_resp_ctx* ctx)
{
    assert(buf && size > 0);
    if (const int rc = fill_head(fd, buf, size, ctx)) return rc;

    if (ctx->tail < 1) {
        tv_log(ll::warning, "%s: buffer already full, yet no HTTP EOD\n", __func__);
        return -1;
    }
    assert(ctx->total < static_cast<ssize_t>(size));
    buf[ctx->tail - 1] = '\0';
    tv_log(ll::debug, "%s: total=%lu, tail=%lu; buf=[%s]\n", __func__, static_cast<unsigned long>(ctx->total),
           static_cast<unsigned long>(ctx->tail), buf);

    int major = 0;
    int minor = 0;
    int code = 0;
    char reason[32] = {};
    const int count = sscanf(buf, "HTTP/%1d.%1d %d %31s\r\n", &major, &minor, &code, reason);
    if (count != 4) {
        tv_log(ll::error, "%s: parsed %d < 4 elements (expected to be parsed)\n", __func__, count);
        return -1;
    }
    ctx->code = code;
    tv_log(ll::debug, "%s: fd=%d received: HTTP/%d.%d %d %s\n", __func__, fd, major, minor, code, reason);
    return 0;
}

int get_http_response(int fd, char* tailbuf, size_t cap, size_t* tailsz)
{
    tv_log(ll::debug, "%s: reading HTTP response from fd=%d\n", __func__, fd);
    char reply[REPLY_SIZE] = {};
    struct http_resp_ctx ctx = {};
    struct timespec start;
    set_clk_now(&start, CLOCK_MONOTONIC);
    const bool non_blocking = is_non_blocking(fd) > 0;

    int rc = EAGAIN;
    while (!timed_out(&start, &HTTP_TMOUT)) {
        rc = recv_http_response(fd, reply, sizeof(reply), &ctx);
        if (rc != EAGAIN) break;
        tv_log(ll::debug, "%s: expecting more data from fd%d\n", __func__, fd);
        if (non_blocking) return EAGAIN;
        // By design: each time-out of the descriptor starts the time anew: a silent server is waited for.
        set_clk_now(&start, CLOCK_MONOTONIC);
    }
    if (rc == 0 && ctx.code != HTTP_OK_CODE) {
        tv_log(ll::error, "%s: expected HTTP %d, got HTTP %d\n", __func__, HTTP_OK_CODE, ctx.code);
        return -1;
    }
    give_tail(fd, reply, &ctx, tailbuf, cap, tailsz);
    return rc == 0 ? 0 : -1;
}
