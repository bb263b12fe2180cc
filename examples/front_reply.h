// The front end's replies: composed from an answer, and sent as fast as the peer takes them and no faster.
//
// The head is composed at once; the body is sent by the kernel out of the file (sendfile), so that a segment never comes
// to this process.
//
// Units: bytes. Ownership: the reply owns the file of its answer, until it is sent or dropped.
#ifndef EXAMPLES_FRONT_REPLY_H
#define EXAMPLES_FRONT_REPLY_H

#include "front_answer.h"

#include <sys/types.h>

#include <cstddef>

struct front_reply {
    char head[512];
    size_t head_at, head_len; // what is still to be sent: head[head_at] to head[head_len]
    int file;                 // -1: none
    off_t file_at, file_end;  // the same of the file
    bool is_last;             // the connection ends behind it
};

enum class front_sent { all, blocked, failed };

// Composes the head, and takes the file over. Requires: the reply before is sent or dropped.
void front_compose(const struct front_answer& answer, struct front_reply* rp);

// Sends on, at most *burst bytes of the file, by which *burst gets less. `all`: nothing is left of the reply, and its
// file is closed; `blocked`: the socket takes no more for now, or *burst is spent; `failed`: the peer is gone, or the
// file has become shorter than its reply says.
enum front_sent front_send(int fd, struct front_reply* rp, size_t* burst);

// Forgets what is left of it.
void front_reply_drop(struct front_reply* rp);

#endif // EXAMPLES_FRONT_REPLY_H
