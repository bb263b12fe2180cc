// Sends a prepared recording to an address at its own pace.
//
// A *chunk* is what the index gives out at once, some milliseconds of stream; its datagrams are spread evenly over the
// time that it lasts. Each goes out at a time that is reckoned from the first, so that delays don't add up; a sender
// that has been stopped for long begins to reckon anew instead of making up for it.
//
// Units: bytes; times in microseconds of the stream, or nanoseconds of the monotonic clock, as the names say.
// Results: false after a line on standard error. One thread; reads `g_quit`.
#ifndef TOOLS_PLAY_SEND_H
#define TOOLS_PLAY_SEND_H

#include "play_source.h"

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

// Where to, and how.
struct play_target {
    int fd = -1;
    struct sockaddr_storage addr = {};
    socklen_t addr_len = 0;
    bool as_rtp = false;
};

// Opens the socket for a URL such as udp://239.1.1.1:5000 or rtp://host:5000, or an address and port alone. `ifc` (name
// or address) and `ttl` may be null and -1; an interface is for a group only, and so is a `ttl` of 0. The caller closes
// target->fd.
bool target_open(const char* url, const char* ifc, int ttl, struct play_target* target);

struct play_options {
    double speed = 1; // 2: twice as fast as the stream's own pace
    bool over_and_over = false;
    bool tell_end = false; // an empty datagram goes out behind the last one
    bool show_progress = false;
};

// What has gone out.
struct play_count {
    uint64_t datagrams = 0;
    uint64_t bytes = 0; // of the stream
    uint64_t rounds = 0;
};

// Plays until the end of the stream, or g_quit; both count as success. Whether anybody receives is not seen. Requires: fdio_init, with at least the least
// size of the transfer buffer.
bool play(const struct play_source& src, const struct play_target& target, const struct play_options& opt,
          struct play_count* count);

#endif // TOOLS_PLAY_SEND_H
