// Request paths, read segment by segment. A path comes from a client, so each copy is bounded by its destination, and
// a path that fits no form is a number for the caller, who knows the request and writes the line.
#include "uri.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>

namespace
{

constexpr size_t UDPFX_SIZE = MAX_UDPFX_LEN - 1; // what is offered of udpfx
constexpr const char* SCHEME_END = "://";
constexpr size_t SCHEME_END_LEN = 3;
constexpr const char* NOW = "now";
constexpr size_t NOW_LEN = 3;

// A segment, and where the text goes on behind it.
struct segment {
    const char* start;
    size_t len;

    const char* rest() const { return start + len; }
    bool is(const char* word) const { return xseg_scmp(word, start, len, SLASHES) == 0; }
    int copy(char* dst, size_t size) const { return xseg_cpy(start, len, dst, size, SLASHES); }
};

bool next_segment(const char* text, struct segment* seg)
{
    return uri_xseg(text, SLASHES, &seg->start, &seg->len) != nullptr;
}

// Takes the delimiters off a segment.
void strip(const char** seg, size_t* len, const char* pair)
{
    if (*len > 0 && **seg == pair[0]) {
        ++*seg;
        --*len;
    }
    if (*len > 0 && (*seg)[*len - 1] == pair[1]) --*len;
}

// strncpy that leaves a text.
void copy_text(char* dst, const char* text, size_t size)
{
    const size_t len = strnlen(text, size - 1);
    memcpy(dst, text, len);
    memset(dst + len, 0, size - len);
}

// `/udp/ADDRESS/` and `/rtp/ADDRESS/`.
int relay(const struct segment& word, char* src, size_t src_size, char* dst)
{
    if (word.copy(src, src_size) != 0) return -22;
    const size_t len = strlen(src);
    if (src_size - len <= SCHEME_END_LEN) return -22;
    memcpy(src + len, SCHEME_END, SCHEME_END_LEN + 1);

    struct segment address;
    if (!next_segment(word.rest(), &address)) return 22;
    dst[0] = '\0';
    const size_t used = len + SCHEME_END_LEN;
    return address.copy(src + used, src_size - used);
}

// `/hls-fra/FILE`.
int fragment(const struct segment& word, char* src, size_t src_size, char* dst, const struct uri_parse_ctx* ctx)
{
    const char* const base = ctx && ctx->root_dir ? ctx->root_dir : "";
    const size_t len = strlen(base);
    const char* const joiner = len > 0 && base[len - 1] != '/' ? "/" : "";
    const int printed = snprintf(src, src_size, "file://%s%s%s", base, joiner, word.rest());
    if (printed < 1 || static_cast<size_t>(printed) > src_size - 1) return 34;
    dst[0] = '\0';
    src[src_size - 1] = '\0';
    return 0;
}

// `.../hls-m3u/LIST`.
int playlist(const struct segment& word, char* src, size_t src_size, char* dst, struct uri_parse_ctx* ctx)
{
    // A client chooses the path: it must not lead a caller who has no context into a fault.
    if (!ctx) return -22;
    (void)word.copy(ctx->udpfx, UDPFX_SIZE); // the word is known to fit
    copy_text(src, word.rest(), src_size);
    dst[0] = '\0';
    return parse_dvr_playlist(src, ctx);
}

// `SOURCE/dst/DESTINATION`, behind the opening src. The result is the depth at which the path ends.
int balanced(const char* text, char* src, size_t src_size, char* dst, size_t dst_size)
{
    const char* const start = text;
    int depth = 1;
    struct segment seg;
    for (; next_segment(text, &seg); text = seg.rest()) {
        if (depth == 0) {
            copy_text(dst, text, dst_size);
            break;
        }
        if (seg.is("src")) {
            ++depth;
        } else if (seg.is("dst") && --depth == 0) {
            const size_t len = static_cast<size_t>(seg.start - start);
            if (xseg_cpy(start, len, src, src_size, SLASHES) != 0) return -1;
        }
    }
    return depth;
}

} // namespace

bool uri_is_alias(const char* text)
{
    return text[0] == '$' || text[0] == '~' || text[0] == '^';
}

const char* uri_xseg(const char* text, const char* pair, const char** seg, size_t* len)
{
    if (*text == '\0') return nullptr;
    const char* const start = *text == pair[0] ? text + 1 : text;
    const char* const close = strchr(start, pair[1]);
    if (seg) *seg = start;
    if (len) *len = close ? static_cast<size_t>(close - start) + 1 : strlen(start);
    return start;
}

int xseg_scmp(const char* word, const char* seg, size_t len, const char* pair)
{
    strip(&seg, &len, pair);
    if (strlen(word) != len) return -1;
    return strncasecmp(word, seg, len);
}

int xseg_cpy(const char* seg, size_t len, char* dst, size_t size, const char* pair)
{
    strip(&seg, &len, pair);
    if (len == 0 || size <= len) return 7;
    memcpy(dst, seg, len);
    dst[len] = '\0';
    return 0;
}

int uri_extract_endpts_ext(const char* path, char* src, size_t src_size, char* dst, size_t dst_size,
                           struct uri_parse_ctx* ctx)
{
    if (!strchr(path, '/')) {
        if (!uri_is_alias(path)) return 3;
        copy_text(src, path, src_size);
        return 0;
    }
    struct segment seg;
    if (!next_segment(path, &seg)) return -3;
    if (uri_is_alias(seg.start)) return seg.copy(src, src_size);
    if (ctx) (void)seg.copy(ctx->udpfx, UDPFX_SIZE); // a word that doesn't fit is none of the known ones

    if (seg.is("udp") || seg.is("rtp")) return relay(seg, src, src_size, dst);
    if (seg.is(HLS_FRA)) return fragment(seg, src, src_size, dst, ctx);
    for (bool more = true; more; more = next_segment(seg.rest(), &seg)) {
        if (seg.is(HLS_M3U)) return playlist(seg, src, src_size, dst, ctx);
        if (seg.is("src")) return balanced(seg.rest(), src, src_size, dst, dst_size);
    }
    return -14;
}

const char* get_dvr_range(const char* text)
{
    const char* const name = strrchr(text, '/');
    if (!name) return nullptr;
    for (const char* mark : {"playlist_dvr_range-", "index-"}) {
        if (const char* found = strstr(name + 1, mark)) return found + strlen(mark);
    }
    return nullptr;
}

int parse_dvr_playlist(const char* text, struct uri_parse_ctx* ctx)
{
    const char* const range = get_dvr_range(text);
    if (!range) return 0;

    // The numbers end at the marks by themselves, so nothing needs to be cut.
    const char* const dot = strrchr(range, '.');
    if (!dot) return -22;
    const char* const dash = static_cast<const char*>(memchr(range, '-', static_cast<size_t>(dot - range)));
    if (!dash) return -22;

    const char* const length = dash + 1;
    const bool till_now = dot - length == NOW_LEN && strncasecmp(length, NOW, NOW_LEN) == 0;
    // An empty start is 0: the dash behind it is not the sign of what follows.
    ctx->stime = range + strspn(range, " \t\n\v\f\r") < dash ? atol(range) : 0;
    ctx->duration = till_now ? -1 : atol(length);
    if (ctx->stime <= 0 || (ctx->duration < 1 && ctx->duration != -1)) return -22;
    return 0;
}
