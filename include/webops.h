// HTTP on a connected socket. Client side: one GET out, one reply head in, and the body bytes that came with it.
// Server side: a request head read into a record, its target turned into source and destination, replies composed.
//
// The *head* is the status line and all up to the blank line; of it only the status line is read. The *tail* is what
// arrived in the same reads behind the head: the first bytes of the body. No reply header has an effect: a redirect
// is a failure like any status but 200, a chunked body goes on as it comes.
//
// A *request* is the text of a request head; its *target* is the word behind the method. A request is read within its
// length, and needs no zero behind it; headers are looked for up to its first zero.
//
// Units: bytes; offsets count from the start of the reply buffer. Ownership: all texts and buffers are the caller's;
// a parsed head points into its request, a reply's record points to texts that it does not own.
// Results: 0, -1 on failure, 11 (EAGAIN) when a reply is not there yet, 22 for a request or version that isn't served.
// Failures are logged where they happen.
// One thread and one exchange at a time: requests and replies are built in static buffers. Waits end by `g_quit`.
#ifndef WEBOPS_H
#define WEBOPS_H

#include "uri.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// ---- client side ----------------------------------------------------------------------------------------------

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

// ---- requests -------------------------------------------------------------------------------------------------

inline constexpr size_t MAX_HOST_LEN = 64;
inline constexpr size_t MAX_UAG_LEN = 128;
inline constexpr size_t MAX_AENC_LEN = 32;

inline constexpr const char* HTTP_FAVICON_RQ = "favicon.ico"; // target that browsers ask for unasked

// What web_parse_urq answers for a target that stands for no stream.
inline constexpr int RC_FAVICON = 1028;
inline constexpr int RC_PING = 1029;

// A parsed request head.
struct http_header {
    int type;                      // RQTYPE_GET or RQTYPE_HEAD
    struct uri_layout uri;         // the target's segments, inside the request
    char host[MAX_HOST_LEN];       // Host; empty when it is absent or too long
    char user_agent[MAX_UAG_LEN];  // User-Agent, percent-encoded, cut where it is too long
    char accept_enc[MAX_AENC_LEN]; // Accept-Encoding, cut where it is too long
    bool is_keep_alive;            // Connection says keep-alive
    bool is_close;                 // Connection says close
    bool is_http10;                // the request line says HTTP/1.0
};

// Reads a request head. 0; -1 for a malformed request line, 22 for a method other than GET and HEAD, or the failure of
// uri_parse for the target. The record is overwritten in any case. `url`, if given and not smaller than the target,
// receives the target, cut to url_size - 1 characters.
// The request is left as it is. Requires: text readable for len bytes, hdr not null.
int parse_http_header(const char* text, size_t len, struct http_header* hdr, char* url, size_t url_size);

// Finds a header's value: the first place where the title stands, in any case of letters, be it inside another word.
// White space must follow it or its colon; the value runs from behind blanks and tabs to the end of the line and may
// be empty. Its start, with its length in *len (if given); null and 0 where the header is absent, has no white space
// ahead of its value, or a control character other than the line's end behind it.
const char* find_http_header(const char* title, const char* text, size_t* len);

// The number that a header of the text's first len characters has; -1 if it is absent or empty, 0 if it is no number.
long int extract_num_hdr(const char* title, const char* text, size_t len);

// Host and path of a request as one text, cut to size - 1 characters. 0, or 22 if the request lacks one of them.
int mk_full_url(const struct http_header* hdr, char* buf, size_t size);

// Path and query of a request. 0; -1, after an error line, without a path or when a text and its zero don't fit; or
// the failure of parse_http_header. `query`, which may be null, is emptied where there is none.
int extract_http_request_path_query(const char* text, size_t len, char* path, size_t path_size, char* query,
                                    size_t query_size);

// Handles a request's target: source and destination as uri_extract_endpts_ext and uri_decode give them, with the
// query behind the source. 0; RC_FAVICON; RC_PING; the failure of parse_http_header; after a line -3 without a path,
// -7 for a query over 255 characters, 7 for a query that doesn't fit behind the source, -1 for a path that names no
// stream; 12 without memory. `hdr`, if given, receives the head of every request that could be parsed.
// The request is changed: a zero ends the path. Requires: src and dst writable for size characters, size not 0.
int web_parse_urq(char* text, size_t len, char* src, char* dst, size_t size, struct http_header* hdr);

// The same for a URL's path, without its query. 0; 34 for a path that is absent or over 127 characters; -1.
// A destination that the path does not name is left as it is, and decoded.
// Requires: src and dst hold texts, and are writable for size characters, size not 0.
int web_parse_url(const char* url, char* src, char* dst, size_t size);

// True for the path of a ping: "ping" in any case, a slash or none on either side.
bool is_ping_request(const char* path);

// ---- replies --------------------------------------------------------------------------------------------------

inline constexpr const char* HLS_M3U8_TYPE = "application/x-mpegURL"; // content type of a playlist
inline constexpr const char* HLS_FRA_TYPE = "video/MP2T";             // content type of a fragment

// A reply. For each text but reason and server null or empty leaves its line out.
struct http_response {
    int code;                     // status code, not 0
    const char* content_type;     // Content-Type
    const char* content_encoding; // Content-Encoding
    long int content_length;      // Content-Length; negative leaves the line out
    const char* reason;           // reason phrase, not null
    const char* server;           // Server, not null
    const char* connection;       // Connection
    const char* ok_suffix;        // further headers of a 200, without the last line's end
    const char* location;         // Location
    const char* fpath;            // file that becomes the body
};

// Ready-made replies. `server` is null: whoever sends one fills it in on a copy.
extern const struct http_response g_resp_ok;      // 200
extern const struct http_response g_resp_ok204;   // 204
extern const struct http_response g_resp_tmoved;  // 302
extern const struct http_response g_resp_bad;     // 400
extern const struct http_response g_resp_denied;  // 403
extern const struct http_response g_resp_nfound;  // 404
extern const struct http_response g_resp_unacc;   // 406
extern const struct http_response g_resp_timeout; // 408
extern const struct http_response g_resp_err;     // 500
extern const struct http_response g_resp_bgw;     // 502
extern const struct http_response g_resp_svcun;   // 503
extern const struct http_response g_resp_gwtmo;   // 504

// Composes a reply and its body. The length, the closing zero not counted; -1 if it doesn't fit or the file can't be
// read, is empty or doesn't fit; 22, after an error line, for a version other than 10 and 11.
// By design: a line of 128 characters or more that would find room is left out without a word.
// Requires: code not 0, reason and server not null (assertion).
ssize_t mk_http_xt_resp(const struct http_response* rsp, int version, char* buf, size_t size);

// Sends a reply of 4095 bytes at most, body included, in a single write, as HTTP/1.1. 0, also after a warning when only
// a part of it could be sent; -1 after an error line. Requires: as mk_http_xt_resp.
int send_http_response(int fd, const struct http_response* rsp);

// The ready-made reply of a status code. For a code that has none, after a warning, g_resp_ok below 300, g_resp_err
// from there up.
const struct http_response* http_code_resp(int code);

// ---- texts ----------------------------------------------------------------------------------------------------

// Characters that a web page can't show as they are, and the entities that stand for them; the zero's is null.
inline constexpr char web_ESC[] = "&><'\"";
inline constexpr const char* web_SEQ[] = {"&amp;", "&gt;", "&lt;", "&apos;", "&quot;", nullptr};
inline constexpr size_t web_SEQ_COUNT = sizeof(web_SEQ) / sizeof(web_SEQ[0]);
static_assert(web_SEQ_COUNT == 6 && sizeof(web_ESC) == web_SEQ_COUNT, "an entity per character, null for the zero");

// The entity of a character, or null.
const char* get_web_seq(char c);

// Replaces the characters of web_ESC by their entities. The number of stretches between them, 0 for a text that has
// none (dst is then left alone), -34 if the new text doesn't fit. A null dst only counts.
// By design: the last stretch gets no zero. Requires: dst, if not null, all zero for size characters.
int web_escape(const char* text, char* dst, size_t size);

// The URL of a playlist's item: the item itself if it begins with "http://", otherwise what the playlist's URL has up
// to its last slash, and the item. 0; 22, after an error line, if the playlist's URL is no HTTP URL with a path, or if
// the result and its zero don't fit, `buf` then being left alone.
int mk_hls_item_url(const char* pl_url, const char* item, char* buf, size_t size);

#endif // WEBOPS_H
