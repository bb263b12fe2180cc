// Replies. The head is held back (MSG_MORE) until the body's first bytes go with it: a playlist is one packet.
#include "front_reply.h"

#include "fdio.h"
#include "log.h"
#include "syswrap.h"
#include "webops.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

TV_LOG_MODULE(0)

namespace
{

constexpr char SERVER[] = "kvt";
constexpr char CLOSE[] = "close";
constexpr int VERSION = 11; // ours, whatever the client's
constexpr size_t BLANK_LINE_LEN = 2;

struct reason {
    int code;
    const char* text;
};
// Statuses that have no ready-made reply.
constexpr std::array REASONS = {
    reason{405, "Method Not Allowed"}, reason{413, "Content Too Large"},
    reason{414, "URI Too Long"},       reason{431, "Request Header Fields Too Large"},
    reason{501, "Not Implemented"},    reason{505, "HTTP Version Not Supported"},
};

struct http_response response_for(int code)
{
    for (const struct reason& r : REASONS) {
        if (r.code != code) continue;
        struct http_response rsp = g_resp_err;
        rsp.code = code;
        rsp.reason = r.text;
        return rsp;
    }
    return *http_code_resp(code);
}

const char* date_now()
{
    static time_t last = 0;
    static char text[32];
    const time_t now = time(nullptr);
    if (now != last) {
        struct tm tm = {};
        (void)strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&now, &tm));
        last = now;
    }
    return text;
}

// Puts further lines where the blank line was. The length, or -1.
ssize_t add_lines(int code, char* head, ssize_t len, size_t size)
{
    const size_t at = static_cast<size_t>(len) - BLANK_LINE_LEN;
    const int n =
        snprintf(head + at, size - at, "Date: %s\r\n%s\r\n", date_now(), code == 405 ? "Allow: GET, HEAD\r\n" : "");
    return n > 0 && static_cast<size_t>(n) < size - at ? static_cast<ssize_t>(at) + n : -1;
}

enum front_sent send_head(int fd, struct front_reply* rp)
{
    while (rp->head_at < rp->head_len) {
        const int more = rp->file_at < rp->file_end ? MSG_MORE : 0;
        const ssize_t n = send(fd, rp->head + rp->head_at, rp->head_len - rp->head_at, MSG_NOSIGNAL | more);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return is_eagain(errno) ? front_sent::blocked : front_sent::failed;
        rp->head_at += static_cast<size_t>(n);
    }
    return front_sent::all;
}

enum front_sent send_body(int fd, struct front_reply* rp, size_t* burst)
{
    while (rp->file_at < rp->file_end) {
        const size_t count = std::min(static_cast<size_t>(rp->file_end - rp->file_at), *burst);
        if (count == 0) return front_sent::blocked;
        errno = 0;
        const ssize_t n = nsendfile(fd, rp->file, &rp->file_at, count, 0, 0);
        if (n == 0 && is_eagain(errno)) return front_sent::blocked;
        if (n == 0) {
            if (errno == 0)
                tv_log(ll::warning, "%s: fd=%d: the file has become shorter\n", __func__, fd);
            else if (no_fault(errno, 0) == 0) // then the call has said why, and left its line open
                tv_log(ll::error, "%s: fd=%d: no more of the file\n", __func__, fd);
            return front_sent::failed;
        }
        *burst -= static_cast<size_t>(n);
    }
    return front_sent::all;
}

} // namespace

void front_compose(const struct front_answer& answer, struct front_reply* rp)
{
    struct http_response rsp = response_for(answer.code);
    rsp.server = SERVER;
    // Behind a request that was not understood to its end the next one can't be found.
    rp->is_last = !answer.is_keep_alive || (rsp.connection && strcmp(rsp.connection, CLOSE) == 0);
    if (rp->is_last)
        rsp.connection = CLOSE;
    else if (answer.is_http10)
        rsp.connection = "keep-alive";
    if (answer.code == HTTP_OK_CODE) {
        rsp.content_length = answer.size;
        rsp.content_type = answer.type;
        rsp.ok_suffix = "Accept-Ranges: none";
    }
    ssize_t len = mk_http_xt_resp(&rsp, VERSION, rp->head, sizeof(rp->head));
    if (len > 0) len = add_lines(answer.code, rp->head, len, sizeof(rp->head));
    if (len < 0) {
        tv_log(ll::error, "%s: no room for a reply of status %d\n", __func__, answer.code);
        rp->is_last = true;
    }
    rp->head_at = 0;
    rp->head_len = len > 0 ? static_cast<size_t>(len) : 0;
    rp->file = answer.file;
    rp->file_at = 0;
    rp->file_end = answer.file < 0 || answer.is_head || len < 0 ? 0 : answer.size;
}

enum front_sent front_send(int fd, struct front_reply* rp, size_t* burst)
{
    enum front_sent sent = send_head(fd, rp);
    if (sent == front_sent::all) sent = send_body(fd, rp, burst);
    if (sent == front_sent::all) front_reply_drop(rp);
    return sent;
}

void front_reply_drop(struct front_reply* rp)
{
    if (rp->file >= 0) (void)W_close(__func__, rp->file); // logged
    rp->file = -1;
    rp->head_at = rp->head_len = 0;
    rp->file_at = rp->file_end = 0;
}
