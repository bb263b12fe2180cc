// Source URLs: kinds, the split into scheme, authority, path and query, and the split of a path into address, port
// and tail.
//
// A URL is `scheme://[authority@]path[?query]`; blanks and tabs ahead of it are skipped. A text without a scheme is
// all path and of kind URI_BAD. The *path* of a network URL is everything behind the authority: address, port and
// *tail* together (`239.1.1.1:5000/x`). The *authority* is what stands ahead of the first `@` anywhere behind the
// scheme. Only the last `?` marks a query, and a text that ends in `/` has none.
//
//   udp://10.0.0.1@239.1.1.1:5000/x?y=1
//   ^^^   ^^^^^^^^ ^^^^^^^^^^^^^^^^ ^^^
//   scheme authority          path  query; path_parse: address 239.1.1.1, port 5000, tail /x
//
// Units: lengths and sizes in characters; a size counts the terminating zero, a length does not.
// Ownership: nothing here allocates. A layout and a tail point into the caller's text and live as long as it does.
// Results: 0 or a kind, -1 on failure; null for an absent segment. Failures are logged by uri_extract and
// uri_path_addrport only. One thread; uri_extract and uri_path_addrport may log, the rest is safe anywhere.
#ifndef URI_H
#define URI_H

#include <cstddef>

// ---- kinds ----------------------------------------------------------------------------------------------------

// The kind of a source is its index in URI_KIND_STR.
inline constexpr int URI_BAD = -1; // no scheme, or one that the table does not hold
inline constexpr int URI_FILE = 0; // local file
inline constexpr int URI_TCP = 1;  // TCP stream
inline constexpr int URI_UDP = 2;  // UDP datagrams, unicast or multicast
inline constexpr int URI_RTP = 3;  // RTP over UDP; opened like URI_UDP
inline constexpr int URI_HTTP = 4; // HTTP GET, the body read as a stream
inline constexpr int URI_HLS = 5;  // playlist; recognised, and no source

// Schemes by kind, ended by a null pointer.
inline constexpr const char* URI_KIND_STR[] = {"file", "tcp", "udp", "rtp", "http", "m3u", nullptr};
static_assert(sizeof(URI_KIND_STR) / sizeof(URI_KIND_STR[0]) == URI_HLS + 2, "a scheme per kind, and the end");

// Sizes of destination buffers; the longest accepted segment is one less.
inline constexpr size_t URI_SCHEME_MAX = 8;
inline constexpr size_t URI_AUTH_MAX = 64;
inline constexpr size_t URI_PATH_MAX = 128;
inline constexpr size_t URI_QUERY_MAX = 256;

// ---- layout ---------------------------------------------------------------------------------------------------

// A parsed URL: segments of the parsed text, not zero-terminated; null and 0 where a segment is absent.
struct uri_layout {
    const char* scheme;
    const char* authority;
    const char* path;
    const char* query;
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};

// Kind of a scheme, in any case of letters; -1 for a text that is no scheme of the table.
// Requires: scheme not null.
int uri_scheme_kind(const char* scheme);

// Splits a URL. 0, or -1 when nothing follows `://` or the `@`; the layout is then left alone. `layout` may be null.
// Logs nothing. Requires: uri not null.
int uri_parse(const char* uri, struct uri_layout* layout);

// Copy a segment with its terminating zero and return `dst`. Null when the segment is absent or empty (then `dst`
// becomes an empty text) or when it does not fit into `size` characters (then `dst` is left alone).
// Requires: layout and dst not null.
char* uri_get_scheme(const struct uri_layout* layout, char* dst, size_t size);
char* uri_get_authority(const struct uri_layout* layout, char* dst, size_t size);
char* uri_get_path(const struct uri_layout* layout, char* dst, size_t size);
char* uri_get_query(const struct uri_layout* layout, char* dst, size_t size);

// Splits a URL and copies the segments that a destination is given for; returns the kind. A destination must have
// the size of its limit above, and keeps what it held where the URL has no such authority or query.
// -1, with an error line, when the URL can't be parsed, a segment doesn't fit, a wanted path or scheme is absent,
// or the scheme is unknown; destinations of segments copied until then have changed.
// Requires: uri not null.
int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query);

// ---- paths ----------------------------------------------------------------------------------------------------

// Splits the path of a network URL into address and port and returns its tail. `len` bounds the split: a segment
// that runs on behind path + len is refused. An address in square brackets loses them. A destination may be null,
// and is not written where its segment is empty or the split fails before it.
// Null when blanks and slashes take up all of len, a bracket stays open, or a segment does not fit. A text that ends
// ahead of path + len may have an empty address and an empty tail.
// By design: the tail of a bracketed address without a port begins with the closing bracket.
// Requires: path zero-terminated, or readable up to and including path[len].
const char* path_parse(const char* path, size_t len, char* addr, size_t addr_size, char* port, size_t port_size);

// path_parse that logs a null result at error.
const char* uri_path_addrport(const char* path, size_t len, char* addr, size_t addr_size, char* port, size_t port_size);

#endif // URI_H
