// Opening a source by its URL, and giving it back.
//
// A *source* is a local file, a TCP stream, UDP or RTP datagrams (unicast, a multicast group, or a source-specific
// group), or the body of an HTTP GET. The *context* (`usock_ctx`) belongs to one source: the caller zeroes it, sets
// the input fields, opens, reads from the descriptor, and closes. A closed context can be opened again.
//
// Units: bytes, milliseconds. Ownership: the context owns `url_path`, `mifc` and a `buf` that usock_open allocated;
// usock_close frees them. A `buf` that the caller lends stays the caller's: usock_close only forgets it. `ifc_tag`
// must live until usock_open returns.
// Results: a descriptor, or -1; the log tells one failure from another. One thread. Connecting and the HTTP exchange
// block for as long as the kernel and the server make them; `g_quit` ends the wait for a reply.
//
//     struct usock_ctx uc = {};
//     uc.inbound = true;
//     usock_set_apptag("kvt");
//     int fd = usock_open("udp://239.1.1.1:5000", &uc);
//     ...
//     usock_close(fd, &uc);
#ifndef WOPEN_H
#define WOPEN_H

#include "netops.h"
#include "uri.h"
#include "webops.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct usock_ctx {
    bool inbound;             // in: data flows from the source to this process
    bool non_blocking;        // in: open a network descriptor non-blocking
    bool skip_http;           // in: connect to an HTTP source, and run no exchange
    bool non_pollable;        // out: a file, whose descriptor can't be waited on
    uint32_t http_flags;      // in: RQFLAG_ bits for the request
    ssize_t nopoll_idx;       // the caller's own; not touched here
    const char* ifc_tag;      // in: multicast interface: name, numeric address, or "all" or "any"; may be null
    int timeout_ms;           // in: send or receive time-out of the descriptor; 0: none
    int url_kind;             // out: URI_ kind
    struct socket_spec sspec; // out: how the socket was opened; in: family, 0 for any
    char* url_path;           // out, owned: the URL's path
    struct ifc_info* mifc;    // out, owned: multicast interface in use, or null
    char* buf;                // in, out: takes the bytes behind an HTTP reply head; allocated where null
    size_t bufcap;            // in, out: capacity of buf
    size_t buflen;            // out: bytes in buf
    char* own_buf;            // private: the buf that usock_open allocated, or null
};
// A context of zeroes is a fact of a static record, and not a hope.
static_assert(std::is_trivially_default_constructible_v<usock_ctx> && std::is_standard_layout_v<usock_ctx>);

struct usock_flags {
    bool use_http10_get; // is only told in the log; RQFLAG_HTTP10_GET is what counts
};

// A reply buffer and its progress, for a caller that drives a non-blocking descriptor itself.
struct http_resp_buf {
    char* buf;
    size_t len; // capacity of buf
    struct http_resp_ctx ctx;
};

// A body buffer with its bytes at its end.
struct http_body_buf {
    size_t buf_size;
    size_t data_len; // bytes in data
    char data[];
};

inline constexpr size_t APPTAG_SIZE = 128;
inline constexpr size_t USOCK_BUF_SIZE = 2048; // buffer that usock_open allocates for a stream source

extern char g_apptag[APPTAG_SIZE];       // goes into `User-Agent`; "#ERR#" until it is set
extern struct usock_flags g_usock_flags; // false at start

// Sets g_apptag; at most 127 characters are kept. Requires: apptag not null (assertion).
void usock_set_apptag(const char* apptag);

// Opens the source of a URL. A file is opened read-only; a network source as `inbound`, `non_blocking`, `ifc_tag`,
// `timeout_ms` say, and an HTTP source is asked and its reply head read, so that the next read gives body bytes
// behind the first `buflen`, which stand in `buf`. Stream kinds set `buflen` to 0 first and allocate `buf` if it is
// null. With `non_blocking` a connect may still be under way (`sspec.async_connect`).
// -1 after a failure that has been logged. For a bad URL only `url_kind` has changed. By design: a failed HTTP
// exchange leaves the descriptor open and the context as it stands; other failures have been through usock_close.
// Requires: url and uc not null; uc->url_path null (assertion).
int usock_open(const char* url, struct usock_ctx* uc);

// Leaves the multicast group, frees what the context owns, forgets `buf` with `buflen` 0, and closes the descriptor.
// A negative descriptor and a null context are fine. `bufcap`, `url_kind` and `sspec` keep their values: whoever opens
// another URL in the same context zeroes `sspec` first, since a family and `multicast` that are set there count.
void usock_close(int fd, struct usock_ctx* uc);

// ---- HTTP exchange bound to a URL -----------------------------------------------------------------------------

// Sends the GET for a URL with `tag` as the user agent. 0, or -1 after a message. A query that makes the request
// longer than 127 characters is cut, with a warning. The URL's authority plays no part; a port goes into `Host` only
// where the URL gives one. By design: a bracketed address without a port leaves its closing bracket in the request.
// Requires: url and tag not null.
int fwd_http_rq(int fd, const char* url, const char* tag, uint32_t flags);

// fwd_http_rq with g_apptag as the tag.
int usock_http_get(int fd, const char* url, uint32_t flags);

// Reads a reply head into a caller's buffer. 0 for a status of 200 to 299; 11 when more is to come; 13 (EACCES) for
// another status; 7 (E2BIG) when the buffer is full; else -1.
// By design: a second call after 11 writes twice as far in: it serves one call a reply.
// Requires: resp->buf not null, resp->len not 0 (assertion).
int usock_http_get_response(int fd, struct http_resp_buf* resp);

// Reads a body to its end: 0, 11 when more is to come, an errno value, or -1.
// By design: what is left to read is data_len less buf_size, in that order, so that only a buffer that is exactly
// full passes; any other stops on an assertion unless the read fails first.
// Requires: data writable for 2 * data_len - buf_size bytes.
int usock_http_get_body(int fd, struct http_body_buf* body);

#endif // WOPEN_H
