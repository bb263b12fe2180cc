// Connections. One road leads through all of a connection's life, go_on: send what there is to send, take the next
// request, until one of the two has to wait.
#include "front_conn.h"

#include "fdio.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "webops.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

TV_LOG_MODULE(0)

namespace
{

using std::string_view;

// A connection's turn, until the others have theirs: bytes of bodies, and how many of them a reply counts at least.
constexpr size_t BURST = 2 << 20;
constexpr size_t REPLY_COST = BURST / 16;
constexpr u_int LINGER_MS = 1000;

void begin_reply(struct front_conn* c, const struct front_answer& a)
{
    front_compose(a, &c->reply);
    c->since = rqs_now();
}

// Answers what is no request, or not yet.
void refuse(struct front_conn* c, int code)
{
    tv_log(ll::info, "%s: status %d, fd=%d\n", c->h.trk_tag.sym, code, c->h.fd);
    begin_reply(c, front_refusal(code));
}

int change_state(struct front_conn* c, enum front_state state)
{
    const bool was_sending = c->state == front_state::sending;
    const bool is_sending = state == front_state::sending;
    c->state = state;
    if (was_sending == is_sending) return 0;
    return rqs_mod(c->h.fd, c, is_sending ? RQS_WRITE : RQS_READ) ? -1 : 0;
}

void drop_input(struct front_conn* c, size_t count)
{
    c->in_len -= count;
    memmove(c->in, c->in + count, c->in_len);
}

void drop_blank_lines(struct front_conn* c)
{
    if (const size_t len = front_blank_lines({c->in, c->in_len})) drop_input(c, len);
}

// Answers the next request, if all of its head is there.
bool take_request(struct front_conn* c)
{
    drop_blank_lines(c);
    const size_t len = static_cast<size_t>(head_eod(c->in, c->in_len));
    if (len > 0) {
        begin_reply(c, front_answer_to({c->in, len}, c->site->root, c->h.trk_tag.sym));
        drop_input(c, len);
        return true;
    }
    if (c->in_len < sizeof(c->in)) return false;
    refuse(c, front_judge_overlong({c->in, c->in_len}));
    c->in_len = 0;
    return true;
}

int say_goodbye(struct front_conn* c)
{
    c->since = rqs_now();
    if (shutdown(c->h.fd, SHUT_WR) != 0) return -1; // the peer has closed altogether
    return change_state(c, front_state::lingering);
}

int go_on(struct front_conn* c)
{
    size_t burst = BURST;
    do {
        const enum front_sent sent = front_send(c->h.fd, &c->reply, &burst);
        if (sent == front_sent::failed) return -1;
        if (sent == front_sent::blocked) return change_state(c, front_state::sending);
        if (c->reply.is_last) return say_goodbye(c);
        burst -= std::min(burst, REPLY_COST);
        // There is room to send, so the next turn reports it, and goes on.
        if (burst == 0 && c->in_len > 0) return change_state(c, front_state::sending);
    } while (take_request(c));
    return change_state(c, front_state::reading);
}

} // namespace

void* front_conn_new(int fd, struct rui_socket_ctx*, void* p)
{
    auto* site = static_cast<struct front_site*>(p);
    // The listener waits for 32 bytes, and the shortest requests have less.
    const int one = 1;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof(one))) return nullptr;
    auto* c = static_cast<struct front_conn*>(W_calloc(__func__, 1, sizeof(struct front_conn)));
    if (!c) return nullptr;
    c->h.fd = fd;
    c->site = site;
    c->since = rqs_now();
    c->reply.file = -1;
    if (site->count++ >= site->max) {
        refuse(c, 503);
        if (go_on(c)) { // a few bytes on a fresh socket: the peer is gone
            front_conn_free(c);
            return nullptr;
        }
    }
    return c;
}

void front_conn_free(void* p)
{
    auto* c = static_cast<struct front_conn*>(p);
    front_reply_drop(&c->reply);
    --c->site->count;
    free(c);
}

bool front_conn_timed_out(void* p, u_int tmout_ms)
{
    auto* c = static_cast<struct front_conn*>(p);
    if (c->state == front_state::lingering) tmout_ms = std::min(tmout_ms, LINGER_MS);
    const struct timespec tmout = {tmout_ms / 1000, tmout_ms % 1000 * 1000000};
    if (!timed_out(&c->since, &tmout)) return false;
    if (c->state == front_state::reading && c->in_len > 0) {
        c->in_len = 0;
        refuse(c, 408);
        if (go_on(c) == 0) return true;
    }
    return rui_pprm_request(c) == 0;
}

int front_conn_readable(struct front_conn* c)
{
    if (c->state == front_state::lingering) c->in_len = 0;
    const ssize_t n = nread(c->h.fd, c->in + c->in_len, sizeof(c->in) - c->in_len, 0);
    if (n < 0 && is_eagain(errno)) return 0;
    if (n <= 0) return -1;
    if (c->state == front_state::lingering) return 0;
    const bool was_idle = c->in_len == 0;
    c->in_len += static_cast<size_t>(n);
    drop_blank_lines(c);
    if (was_idle && c->in_len > 0) c->since = rqs_now(); // blank lines alone don't keep a connection
    return go_on(c);
}

int front_conn_writable(struct front_conn* c)
{
    c->since = rqs_now();
    return go_on(c);
}
