// HTTP on a connected socket, client side: one GET out, one reply head in, and the body bytes that came with it.
//
// The *head* is the status line and all up to the blank line; of it only the status line is read. The *tail* is what
// arrived in the same reads behind the head: the first bytes of the body. No reply header has an effect: a redirect
// is a failure like any status but 200, a chunked body goes on as it comes.
//
// Units: bytes; offsets count from the start of the reply buffer. Ownership: all texts and buffers are the caller's.
// Results: 0, -1 on failure, 11 (EAGAIN) when a reply is not there yet. Failures are logged where they happen.
// One thread and one exchange at a time: requests are built in static buffers. Waits end by `g_quit`.
#ifndef WEBOPS_H
#define WEBOPS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr int HTTP_OK_CODE = 200; // the one status that opens a source
inline constexpr int HTTP_OK_END = 299;

inline constexpr unsigned RQTYPE_GET = 0;
inline constexpr unsigned RQTYPE_HEAD = 1;

inline constexpr uint32_t RQFLAG_HTTP10_GET = 1; // ask with HTTP/1.0, so that the body comes unchunked
inline constexpr uint32_t RQFLAG_KEEPALIVE = 2;  // `Connection: keep-alive` instead of `close`

inline constexpr const char* LOCALHOST_ADDR = "localhost"; // `Host` of a request that names none

// What a GET is built from.
struct http_request {
    unsigned type : 4;     // RQTYPE_GET; nothing else can be sent
    uint32_t flags;        // RQFLAG_ bits
    const char* request;   // path and query to ask for; a leading slash is added where there is none
    const char* server;    // what goes into `User-Agent`
    const char* host_addr; // host for `Host`; null or empty: the local machine
    const char* host_port; // port for `Host`; null or blank: none
};

// Progress of reading one reply. Zero at start, carried over between calls.
struct http_resp_ctx {
    int code;      // status code, 0 until the status line is parsed
    ssize_t total; // bytes read so far
    ssize_t tail;  // offset of the first byte behind the head; 0: the head's end is not found yet
};

// Sends one GET in a single write. 0; -1 after a message when the request is no GET, a text does not fit (`Host` 127
// characters, the request 2047), or not all of it could be sent.
// Requires: rq, its request and its server not null.
int send_http_request(int fd, const struct http_request* rq);

// Offset behind the end of a reply head, or 0 when it is not there yet. A head ends with two newlines in a row or a
// doubled return-newline pair; the result equals `len` for a head without a tail.
// By design: a return with fewer than three bytes behind it gives 0, whatever they are.
// Requires: buf readable for len bytes.
ssize_t head_eod(const char* buf, size_t len);

// True for the errors of a connection that the peer broke: ECONNRESET and ECONNABORTED.
bool is_aborted(int err);

// Reads once into buf + offset, at most size - offset bytes, and looks for the end of the head from the buffer's
// start. Returns the count, 0 at the end of data, or nread's negative result; `tail` (may be null) is set when the
// end of the head is there. Requires: offset <= size, buf writable for size bytes.
ssize_t read_http(int fd, char* buf, size_t size, size_t offset, ssize_t* tail);

// Reads a reply head on from where `ctx` stands and parses its status line. 0 with ctx->code set; 11 when the
// descriptor has no more for now (call again with the same ctx); -1 when the peer closed, the read failed, the
// buffer is full without an end of head, or the status line has not all of version, code and reason.
// The byte ahead of the tail is overwritten with a zero. At most size - 1 bytes are taken.
// Requires: buf not null, size not 0 (assertion).
int recv_http_response(int fd, char* buf, size_t size, struct http_resp_ctx* ctx);

// Reads a whole reply head, waiting as long as the descriptor blocks, and hands over the tail: copied to `tailbuf`,
// its length to `*tailsz`. 0 for status 200; -1 for any failure and any other status; 11 on a non-blocking
// descriptor that has no reply yet. `*tailsz` is left alone where there is no tail, or where the head is as long as
// `cap` or longer. A tail over `cap` is dropped with an error line and `*tailsz` 0. `tailbuf` and `tailsz` may be null.
// Requires: tailbuf writable for cap bytes if not null.
int get_http_response(int fd, char* tailbuf, size_t cap, size_t* tailsz);

#endif // WEBOPS_H
