// The front end's requests: a head as it came is read, and checked for what a server has to refuse.
//
// A head that is taken has lines of printable characters only, which all end alike, each but the first with a name ahead
// of its colon, so that nothing of it breaks out of a log line, and no two readers of it disagree about where a request
// ends.
// Results: 0, or the HTTP status of the refusal, after which the connection's bytes can't be told apart any more.
#ifndef EXAMPLES_FRONT_REQUEST_H
#define EXAMPLES_FRONT_REQUEST_H

#include <cstddef>
#include <string_view>

inline constexpr size_t FRONT_HEAD_MAX = 8192;   // bytes of a request's head
inline constexpr size_t FRONT_TARGET_MAX = 2048; // of its target, with a zero

struct front_request {
    bool is_head;       // HEAD, not GET
    bool is_http10;     // by HTTP/1.0
    bool is_keep_alive; // another request may follow
    char target[FRONT_TARGET_MAX];
};

// Reads a head, up to and including its blank line. 0; 400 for a malformed one, also without a host, or with two or a bad one;
// 405 and 501 for a known and an unknown method other than GET and HEAD; 413 for a request with a body; 414 for a target that
// doesn't fit; 501 also for a transfer coding; 505 for an HTTP that isn't 1.x.
int front_read_request(std::string_view head, struct front_request* rq);

// Length of the blank lines that a text begins with: some clients send one behind each request.
size_t front_blank_lines(std::string_view text);

// What is wrong with a head that has filled its buffer and not ended: 414, or 431.
int front_judge_overlong(std::string_view text);

#endif // EXAMPLES_FRONT_REQUEST_H
