// URLs: kinds, the split into scheme, authority, path and query, and the split of a path into address, port and tail;
// then the shapes that a segmented front end serves: request paths that name a source and a destination, playlist
// and fragment URLs, their queries, and the encoding that goes with them.
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
// A request path is read as *segments*: runs that end with their closing slash. A *delimiter pair* is a text of two
// characters, the one that may open a segment and the one that closes it. What a path may say:
//
//   /udp/239.1.1.1:5000/              source udp://239.1.1.1:5000 (or rtp)
//   /src/SOURCE/dst/DESTINATION       both as they stand; a source may hold its own src and dst
//   /hls-fra/ch/1.ts                  source file://ROOT_DIR/ch/1.ts
//   .../hls-m3u/ch/LIST.m3u8          source ch/LIST.m3u8; LIST may carry a range of stored time
//   $name  ~name  ^name               an *alias*, which the caller knows the meaning of
//
// Units: lengths and sizes in characters; a size counts the terminating zero, a length does not. Times in seconds.
// Ownership: layouts, tails and found places point into the caller's text and live as long as it does. Only the
// table of uri_query_parse is handed over: `skht_destroy(table, free)`.
// Results: 0 or a kind; -1 or what the contract says on failure; null for what is absent. Failures are logged by
// uri_extract, uri_path_addrport, uri_m3u_extract and uri_query_parse only. One thread; the functions that neither
// log nor allocate are safe anywhere.
#ifndef URI_H
#define URI_H

#include "gkh.h"
#include "tvtypes.h"

#include <cstddef>
#include <cstdint>

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

// ---- segments of a path ---------------------------------------------------------------------------------------

inline constexpr const char* HLS_M3U = "hls-m3u"; // the word of a playlist path
inline constexpr const char* HLS_FRA = "hls-fra"; // the word of a fragment path
inline constexpr const char* SLASHES = "//";      // delimiter pair of a path

inline constexpr size_t MAX_UDPFX_LEN = 16;

// What the translation of a path may use, and what it finds out.
struct uri_parse_ctx {
    const char* root_dir;      // directory under which hls-fra paths lie; null or empty: none
    char udpfx[MAX_UDPFX_LEN]; // receives the first or the playlist segment's word, 14 characters at most
    long int stime;            // start of a range of stored time
    long int duration;         // length of that range; -1 for "now"
};

// True if the text begins with the sigil of an alias: `$`, `~` or `^`.
bool uri_is_alias(const char* text);

// Finds the first segment of a text: behind an opening delimiter, if there is one, up to and including the first
// closing delimiter or the end. Returns its start, which also goes to *seg, its length to *len; the next segment is
// looked for at start + length. Null, with the places left alone, for an empty text. A text that is one opening
// delimiter has a segment of no length. Places may be null. Requires: pair has two characters.
const char* uri_xseg(const char* text, const char* pair, const char** seg, size_t* len);

// Compares a word with a segment without its delimiters, in any case of letters: 0 if equal, -1 if the lengths
// differ, otherwise what strncasecmp gives.
int xseg_scmp(const char* word, const char* seg, size_t len, const char* pair);

// Copies a segment without its delimiters. 0; 7, with dst left alone, if nothing is left of it or dst is too small.
int xseg_cpy(const char* seg, size_t len, char* dst, size_t size, const char* pair);

// Translates a request path into a source and a destination. Logs nothing. 0, or:
//   3    no slash, and no alias
//   7    an alias or an address that is empty or doesn't fit
//   22   nothing behind udp or rtp;  -22  no room for the word, a broken range, or a playlist path without a context
//   34   a fragment's URL that doesn't fit
//   -1   a source between src and dst that is empty or doesn't fit;  -14  no form that is known
//   above 0 besides: so many src that no dst closes
// A destination that the path doesn't name is left alone by aliases and pairs, and is emptied by the other forms.
// After a failure the buffers hold texts, but not a result. `..` is passed on: whoever opens a fragment's URL judges
// it. `ctx` may be null. Requires: src and dst not null, their sizes not 0.
int uri_extract_endpts_ext(const char* path, char* src, size_t src_size, char* dst, size_t dst_size,
                           struct uri_parse_ctx* ctx);

// ---- playlists ------------------------------------------------------------------------------------------------

inline constexpr size_t HLS_ALIAS_LEN = 64;

inline constexpr union n32_tag PL_LIVE = {.num = 0x56494c};  // "LIV"
inline constexpr union n32_tag PL_EVENT = {.num = 0x455645}; // "EVE"
inline constexpr union n32_tag PL_VOD = {.num = 0x444f56};   // "VOD"

// What a playlist URL says.
struct hls_uri_info {
    long int utime;               // start time from the query; -1 for a VOD request, 0 where it says nothing
    long int duration;            // duration from the query; -1 for "now", 0 where it says nothing
    union n32_tag pl_type;        // PL_LIVE, PL_EVENT or PL_VOD
    char ch_alias[HLS_ALIAS_LEN]; // channel: the path up to its last slash
    char pl_alias[HLS_ALIAS_LEN]; // playlist: the file name without extension
};

// The range of stored time in a playlist's file name: what follows "playlist_dvr_range-" or else "index-" behind the
// last slash. Null if there is none.
const char* get_dvr_range(const char* text);

// Reads a range START-LENGTH.EXT into `ctx`; a LENGTH of "now" is -1. 0, also for a text without a range (`ctx` is
// then left alone); -22 for a missing dash or dot, a start below 1, or a length below 1 other than -1.
int parse_dvr_playlist(const char* text, struct uri_parse_ctx* ctx);

// Reads a playlist URL: its path into `path` (URI_PATH_MAX characters), what path and query say into `info`, which may
// be null. URI_HLS, or -1 after an error line; `info` then holds nothing of use.
// By design: without `info` a query that has neither "duration" nor "vod" gives -1, and without a line.
int uri_m3u_extract(const char* uri, char* path, struct hls_uri_info* info);

// True for a playlist's URL: "/hls-m3u/" in it, and .m3u or .m3u8 at its end.
bool is_m3u_url(const char* url);
// True for a fragment's URL: "/hls-fra/" in it, and .ts at its end.
bool is_fra_url(const char* url);
// True for either.
bool is_hls_url(const char* url);

// ---- queries and encoding -------------------------------------------------------------------------------------

inline constexpr uint32_t NO_UNPRINTABLE = 1; // uri_decode_opt: a decoded byte that can't be printed becomes `?`

// Reads name=value pairs with `&` between them into a new table of decoded values by decoded name; an empty value is
// a null pointer. At most 128 pairs, names of 31 and values of 32 characters. With a null `ptbl` the query is only
// checked, and undecoded. 0; -1 for a broken limit, a missing `=` or an escape that is cut short, 16 for a name that
// comes twice, 12 without memory. *ptbl is null after a failure and for an empty query.
int uri_query_parse(const char* query, skht_t* ptbl);

// Decodes in place, up to the size or a zero: `+` is a blank, `%XX` a byte, `%` with two other characters nothing.
// Returns the text, always terminated; by design a text that has no zero within its size loses its last character.
// Null for a `%` with fewer than two characters behind it, the text being decoded up to there and not cut.
// uri_decode stands for NO_UNPRINTABLE. Requires: text readable and writable for size characters, or up to its zero.
char* uri_decode(char* text, size_t size);
char* uri_decode_opt(char* text, size_t size, uint32_t flags);

// Encodes in place: what can't be printed, and each of `;/?:@&=+$,*` and the blank, becomes `%XX`. What doesn't fit
// is cut off. Returns the text, or null without memory, the text being as it was.
// By design: `%` is left as it is, and an escape that takes the last of the room loses its second digit to the zero.
// Requires: text writable for size characters.
char* uri_encode(char* text, size_t size);

// ---- small operations on URLs ---------------------------------------------------------------------------------

// Splits `alias?query`: copies the alias, at most size - 1 characters, and sets *query to what follows a `?` that
// ended the copy, else to null. Returns 0.
// By design: the zero is stored at twice the alias's length. Requires: size not 0, alias has 2 * size characters, all 0.
int uri_split_alias(const char* src, char* alias, size_t size, const char** query);

// Puts a scheme such as "file://" ahead of a text that doesn't begin with it. The text itself, or `buf` with both;
// null with errno E2BIG if they don't fit.
const char* uri_ensure_schema(const char* scheme, const char* text, char* buf, size_t size);

// Start of the path: the first slash that isn't part of `://`. Null if there is none.
const char* uri_pre_path(const char* url);

// True if the URL's last dot begins this extension (".ts"), in any case of letters; a query behind it doesn't count,
// unless there is a dot in it.
bool url_ends_with(const char* url, const char* ext);

// Copies what follows the last slash, without its query and, if cut_ext, without its extension; a name that doesn't
// fit is cut. 0; 22 without a slash, -22 with nothing behind it. Requires: size not 0.
int url_get_fname(const char* url, char* buf, size_t size, bool cut_ext);

#endif // URI_H
