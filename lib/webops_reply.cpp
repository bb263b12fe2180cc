// HTTP replies, and the texts that go with a front end. A reply is composed in one buffer, its body included, since it
// goes out in one write.
#include "webops.h"

#include "fdio.h"
#include "log.h"
#include "util.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>

TV_LOG_MODULE(0)

namespace
{

constexpr size_t REPLY_SIZE = 4096; // head and body of a reply
constexpr size_t LINE_SIZE = 128;
constexpr const char* LINE_END = "\r\n";
constexpr size_t LINE_END_LEN = 2;
constexpr int VERSION_SENT = 11;
constexpr const char* CLOSE = "close";
constexpr const char* HTTP_PREFIX = "http://";
constexpr size_t HTTP_PREFIX_LEN = 7;

constexpr struct http_response ready_made(int code, const char* reason, long length, const char* connection)
{
    return {.code = code,
            .content_type = nullptr,
            .content_encoding = nullptr,
            .content_length = length,
            .reason = reason,
            .server = nullptr,
            .connection = connection,
            .ok_suffix = nullptr,
            .location = nullptr,
            .fpath = nullptr};
}

// A reply being composed: always a text, with `len` characters so far.
struct draft {
    char* buf;
    size_t size;
    size_t len;

    size_t room() const { return size - 1 - len; }
    void add(const char* text, size_t text_len)
    {
        memcpy(buf + len, text, text_len);
        len += text_len;
        buf[len] = '\0';
    }
};

// Adds a header line of the given printed length. False when there is no room for it.
bool add_line(struct draft* d, const char* line, int printed)
{
    if (printed < 0) return false;
    const size_t line_len = static_cast<size_t>(printed);
    if (d->room() <= line_len) return false;
    // By design: a line that was cut is left out, and the reply goes on without it.
    if (line_len < LINE_SIZE) d->add(line, line_len);
    return true;
}

bool add_text_header(struct draft* d, const char* title, const char* value)
{
    if (!value || *value == '\0') return true;
    char line[LINE_SIZE];
    const int printed = snprintf(line, sizeof(line), "%s: %s\r\n", title, value);
    return add_line(d, line, printed);
}

bool add_length_header(struct draft* d, long length)
{
    if (length < 0) return true;
    char line[LINE_SIZE];
    const int printed = snprintf(line, sizeof(line), "Content-Length: %lu\r\n", static_cast<unsigned long>(length));
    return add_line(d, line, printed);
}

bool add_ok_suffix(struct draft* d, const struct http_response* rsp)
{
    if (rsp->code != HTTP_OK_CODE || !rsp->ok_suffix || *rsp->ok_suffix == '\0') return true;
    const size_t len = strlen(rsp->ok_suffix);
    if (d->room() < len + LINE_END_LEN) return false;
    d->add(rsp->ok_suffix, len);
    d->add(LINE_END, LINE_END_LEN);
    return true;
}

bool add_file(struct draft* d, const char* fpath)
{
    const ssize_t nrd = read_file_buf(fpath, d->buf + d->len, d->room());
    if (nrd < 1) return false;
    d->len += static_cast<size_t>(nrd);
    tv_log(ll::debug, "%s: file [%s] of %zd bytes included in HTTP response\n", "mk_http_xt_resp", fpath, nrd);
    return true;
}

// Composes and sends. The count sent, or -1.
ssize_t compose_and_send(int fd, const struct http_response* rsp, char* buf, size_t size)
{
    const ssize_t len = mk_http_xt_resp(rsp, VERSION_SENT, buf, size);
    if (len < 1) return -1;
    const ssize_t sent = nwrite(fd, buf, static_cast<size_t>(len), FDIO_VERBOSE);
    if (sent < 1) {
        tv_log(ll::error, "%s: error sending HTTP response to fd=%d\n", "send_http_response", fd);
        return -1;
    }
    if (sent != len)
        tv_log(ll::warning, "%s: only %ld out of %ld bytes sent to fd=%d\n", "send_http_response",
               static_cast<long>(sent), static_cast<long>(len), fd);
    return sent;
}

} // namespace

constinit const struct http_response g_resp_ok = ready_made(200, "OK", -1, nullptr);
constinit const struct http_response g_resp_ok204 = ready_made(204, "No Content", -1, nullptr);
constinit const struct http_response g_resp_tmoved = ready_made(302, "Moved Temporarily", 0, CLOSE);
constinit const struct http_response g_resp_bad = ready_made(400, "Bad request", 0, nullptr);
constinit const struct http_response g_resp_denied = ready_made(403, "Forbidden", 0, CLOSE);
constinit const struct http_response g_resp_nfound = ready_made(404, "Not Found", 0, CLOSE);
constinit const struct http_response g_resp_unacc = ready_made(406, "Not Acceptable", 0, CLOSE);
constinit const struct http_response g_resp_timeout = ready_made(408, "Request Timeout", 0, CLOSE);
constinit const struct http_response g_resp_err = ready_made(500, "Service error", 0, CLOSE);
constinit const struct http_response g_resp_bgw = ready_made(502, "Bad Gateway", 0, CLOSE);
constinit const struct http_response g_resp_svcun = ready_made(503, "Service Unavailable", 0, CLOSE);
constinit const struct http_response g_resp_gwtmo = ready_made(504, "Gateway Timeout", 0, CLOSE);

ssize_t mk_http_xt_resp(const struct http_response* rsp, int version, char* buf, size_t size)
{
    assert(rsp->code && rsp->reason && rsp->server);
    if (size == 0) return -1;
    buf[size - 1] = '\0';
    buf[0] = '\0';
    if (version != 10 && version != 11) {
        tv_log(ll::error, "%s: HTTP/%d.%d not supported\n", __func__, version / 10, version % 10);
        return EINVAL;
    }
    const int printed = snprintf(buf, size, "HTTP/%d.%d %d %s\r\nServer: %s\r\n", version / 10, version % 10, rsp->code,
                                 rsp->reason, rsp->server);
    if (printed < 1 || static_cast<size_t>(printed) >= size) return -1;

    struct draft d = {buf, size, static_cast<size_t>(printed)};
    const bool complete = add_text_header(&d, "Content-Type", rsp->content_type) &&
                          add_text_header(&d, "Content-Encoding", rsp->content_encoding) &&
                          add_length_header(&d, rsp->content_length) &&
                          add_text_header(&d, "Connection", rsp->connection) &&
                          add_text_header(&d, "Location", rsp->location) && add_ok_suffix(&d, rsp);
    if (!complete || d.room() <= LINE_END_LEN) return -1;
    d.add(LINE_END, LINE_END_LEN);

    const size_t head_len = d.len;
    if (rsp->fpath && !add_file(&d, rsp->fpath)) return -1;
    buf[d.len] = '\0';
    tv_log(ll::debug, "%s: header:%d/total:%d bytes\n%.*s\n", __func__, static_cast<int>(head_len),
           static_cast<int>(d.len), static_cast<int>(head_len), buf);
    return static_cast<ssize_t>(d.len);
}

int send_http_response(int fd, const struct http_response* rsp)
{
    static char reply[REPLY_SIZE];

    const ssize_t sent = compose_and_send(fd, rsp, reply, sizeof(reply));
    if (sent < 0) {
        // By design: the same words whether composing or sending failed.
        tv_log(ll::error, "%s: error compiling HTTP response for fd=%d\n", __func__, fd);
        return -1;
    }
    tv_log(ll::debug, "%s: sent HTTP response (%ld bytes) to fd=%d:\n%s\n", __func__, static_cast<long>(sent), fd,
           reply);
    return 0;
}

const struct http_response* http_code_resp(int code)
{
    static constexpr std::array records = {&g_resp_ok,     &g_resp_ok204,  &g_resp_tmoved, &g_resp_bad,
                                           &g_resp_denied, &g_resp_nfound, &g_resp_unacc,  &g_resp_timeout,
                                           &g_resp_err,    &g_resp_bgw,    &g_resp_svcun,  &g_resp_gwtmo};
    for (const struct http_response* rsp : records) {
        if (rsp->code == code) return rsp;
    }
    tv_log(ll::warning, "%s: no response for HTTP%d defined, please update the lib!\n", __func__, code);
    return code <= HTTP_OK_END ? &g_resp_ok : &g_resp_err;
}

const char* get_web_seq(char c)
{
    const char* const found = strchr(web_ESC, c);
    return found ? web_SEQ[found - web_ESC] : nullptr;
}

int web_escape(const char* text, char* dst, size_t size)
{
    if (!strpbrk(text, web_ESC)) return 0;
    int count = 0;
    size_t used = 0;
    for (;; ++text) {
        const size_t len = strcspn(text, web_ESC);
        const char* const entity = get_web_seq(text[len]);
        ++count;
        if (dst) {
            // One character of the room stays for the zero that the caller has put there.
            const size_t entity_len = entity ? strlen(entity) : 0;
            if (used + len + entity_len >= size) return -ERANGE;
            memcpy(dst + used, text, len);
            used += len;
            if (entity) memcpy(dst + used, entity, entity_len + 1);
            used += entity_len;
        }
        text += len;
        if (!entity) return count;
    }
}

int mk_hls_item_url(const char* pl_url, const char* item, char* buf, size_t size)
{
    if (strncasecmp(item, HTTP_PREFIX, HTTP_PREFIX_LEN) == 0) {
        const size_t len = strlen(item);
        if (len >= size) {
            tv_log(ll::error, "%s: item URL is too long: %lu chars\n", __func__, len);
            return EINVAL;
        }
        memcpy(buf, item, len + 1);
        return 0;
    }
    if (strncasecmp(pl_url, HTTP_PREFIX, HTTP_PREFIX_LEN) != 0) {
        tv_log(ll::error, "%s: non-http M3U url: %s\n", __func__, pl_url);
        return EINVAL;
    }
    const size_t slash = static_cast<size_t>(strrchr(pl_url, '/') - pl_url);
    const size_t pfx_len = slash + 1;
    if (slash <= HTTP_PREFIX_LEN || pfx_len + strlen(item) >= size) {
        tv_log(ll::error, "%s: pfx-len=%ld bad m3u URL: %s\n", __func__, static_cast<long>(pfx_len), pl_url);
        return EINVAL;
    }
    memset(buf, 0, size);
    memcpy(buf, pl_url, pfx_len);
    memcpy(buf + pfx_len, item, strlen(item));
    return 0;
}
