// The front end's connections: request records of the listeners (rui.h) with the state of their exchange.
//
// A connection *reads* until a head is complete, *sends* the reply, and reads again; what the peer sent ahead is
// answered in order. Behind its last reply it *lingers*: it throws away what still comes until the peer has closed,
// because a close with bytes unread would take the reply away from the peer.
//
// Time-outs: a head has to be complete in the given time from its first byte on, a reply has to move within it, an idle
// connection has to begin a request, for which blank lines don't count. Lingering takes a second at most.
// Ownership: the listener owns the record; the record owns the file that goes out.
#ifndef EXAMPLES_FRONT_CONN_H
#define EXAMPLES_FRONT_CONN_H

#include "front_reply.h"
#include "front_request.h"

#include "common/rui.h"

#include <sys/types.h>

#include <cstddef>
#include <ctime>

// What all connections share.
struct front_site {
    int root;     // the directory that is served
    size_t count; // connections there are
    size_t max;   // connections that are served; those above are told that there is no room
};

enum class front_state { reading, sending, lingering };

struct front_conn {
    struct rui_rq_header h;
    struct front_site* site;
    enum front_state state;
    struct timespec since; // what the time-out counts from
    size_t in_len;         // bytes in `in`: requests that have not been answered
    char in[FRONT_HEAD_MAX];
    struct front_reply reply;
};

// The listeners' callbacks; `site` is what rui_accept was given.
void* front_conn_new(int fd, struct rui_socket_ctx* srv, void* site);
void front_conn_free(void* conn);
bool front_conn_timed_out(void* conn, u_int tmout_ms);

// The loop's callbacks: 0, or -1 when the connection has ended and is to be removed.
int front_conn_readable(struct front_conn* c);
int front_conn_writable(struct front_conn* c);

#endif // EXAMPLES_FRONT_CONN_H
