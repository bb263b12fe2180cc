// Source URLs. The scans are plain: a URL is short and is parsed at start only. Nothing of a text is changed or
// copied until all of it has been told apart, so that a refused URL leaves no half of itself behind.
#include "uri.h"

#include "log.h"

#include <cstring>
#include <strings.h>

TV_LOG_MODULE(0)

namespace
{

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// Copies a segment; an absent or empty one leaves an empty text and null, one that doesn't fit only null.
char* cpyseg(const char* seg, size_t len, char* dst, size_t size)
{
    if (!seg || len == 0) {
        if (size > 0) dst[0] = '\0';
        return nullptr;
    }
    if (size < len + 1) return nullptr;
    memcpy(dst, seg, len);
    dst[len] = '\0';
    return dst;
}

// Length of the path: up to the last `?`. A text that ends in a slash is all path, since a query never does.
size_t till_query(const char* text)
{
    const size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '/') return len;
    const char* mark = strrchr(text, '?');
    return mark ? static_cast<size_t>(mark - text) : len;
}

// Takes scheme and authority off the front. Returns the rest, or null when nothing is left of it.
const char* take_front(const char* text, struct uri_layout* layout)
{
    const size_t run = strcspn(text, ":");
    // One letter is no scheme but a drive.
    if (run < 2 || strncmp(text + run, "://", 3) != 0) return text;

    layout->scheme = text;
    layout->s_len = run;
    text += run + 3;
    if (*text == '\0') return nullptr;

    // The search goes through path and query as well: whatever stands ahead of the first mark is the authority.
    const char* mark = strchr(text, '@');
    if (!mark) return text;
    if (mark > text) {
        layout->authority = text;
        layout->a_len = static_cast<size_t>(mark - text);
    }
    return mark[1] == '\0' ? nullptr : mark + 1;
}

int extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    char own_scheme[URI_SCHEME_MAX] = {};
    char* const sch = scheme ? scheme : own_scheme;
    struct uri_layout lo = {};

    if (uri_parse(uri, &lo) != 0) {
        tv_log(ll::error, "%s: uri_parse ERROR\n", __func__);
        return URI_BAD;
    }
    // Without a destination an absent or over-long scheme is just an unknown one.
    if (!uri_get_scheme(&lo, sch, URI_SCHEME_MAX) && scheme) {
        tv_log(ll::error, "%s: uri_get_scheme ERROR\n", __func__);
        return URI_BAD;
    }
    if (authority && lo.authority && !uri_get_authority(&lo, authority, URI_AUTH_MAX)) {
        tv_log(ll::error, "%s: uri_get_authority ERROR\n", __func__);
        return URI_BAD;
    }
    if (path && !uri_get_path(&lo, path, URI_PATH_MAX)) {
        tv_log(ll::error, "%s: uri_get_path ERROR\n", __func__);
        return URI_BAD;
    }
    if (query && lo.query && !uri_get_query(&lo, query, URI_QUERY_MAX)) {
        tv_log(ll::error, "%s: uri_get_query ERROR\n", __func__);
        return URI_BAD;
    }
    return uri_scheme_kind(sch);
}

// End of the run of characters that are none of `stops`. A run that goes on behind `end` is not followed further
// than one character past it, which is all that a caller needs to refuse it.
const char* run_end(const char* p, const char* end, const char* stops)
{
    while (p <= end && *p != '\0' && !strchr(stops, *p))
        ++p;
    return p;
}

// Copies a run unless it is empty or not wanted. False when it doesn't fit.
bool copy_run(const char* run, size_t len, char* dst, size_t size)
{
    if (len == 0 || !dst) return true;
    return cpyseg(run, len, dst, size) != nullptr;
}

} // namespace

int uri_scheme_kind(const char* scheme)
{
    for (int kind = 0; URI_KIND_STR[kind]; ++kind) {
        if (strcasecmp(scheme, URI_KIND_STR[kind]) == 0) return kind;
    }
    return URI_BAD;
}

int uri_parse(const char* uri, struct uri_layout* layout)
{
    struct uri_layout lo = {};
    while (is_blank(*uri))
        ++uri;

    // By design: a text that begins with a slash loses it, and has no scheme.
    const char* rest = *uri == '/' ? uri + 1 : take_front(uri, &lo);
    if (!rest) return -1;

    const size_t path_len = till_query(rest);
    if (path_len > 0) {
        lo.path = rest;
        lo.p_len = path_len;
    }
    if (rest[path_len] == '?' && rest[path_len + 1] != '\0') {
        lo.query = rest + path_len + 1;
        lo.q_len = strlen(lo.query);
    }
    if (layout) *layout = lo;
    return 0;
}

char* uri_get_scheme(const struct uri_layout* layout, char* dst, size_t size)
{
    return cpyseg(layout->scheme, layout->s_len, dst, size);
}

char* uri_get_authority(const struct uri_layout* layout, char* dst, size_t size)
{
    return cpyseg(layout->authority, layout->a_len, dst, size);
}

char* uri_get_path(const struct uri_layout* layout, char* dst, size_t size)
{
    return cpyseg(layout->path, layout->p_len, dst, size);
}

char* uri_get_query(const struct uri_layout* layout, char* dst, size_t size)
{
    return cpyseg(layout->query, layout->q_len, dst, size);
}

int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    const int kind = extract(uri, scheme, authority, path, query);
    if (kind == URI_BAD) tv_log(ll::error, "%s: error parsing URI: [%s]\n", __func__, uri);
    return kind;
}

const char* path_parse(const char* path, size_t len, char* addr, size_t addr_size, char* port, size_t port_size)
{
    const char* const end = path + len;
    const char* p = path;
    while (p < end && (is_blank(*p) || *p == '/'))
        ++p;
    if (p >= end) return nullptr;

    const bool bracketed = *p == '[';
    if (bracketed) ++p;
    const char* const host = p;
    const char* const host_end = run_end(host, end, bracketed ? "]?/" : ":?/");
    if (bracketed && (host_end > end || *host_end != ']')) return nullptr;
    p = bracketed ? host_end + 1 : host_end;
    if (p > end) return nullptr;

    const bool has_port = *p == ':';
    const char* const service = p + 1;
    const char* service_end = service;
    if (has_port) {
        service_end = run_end(service, end, "?/");
        if (service_end > end) return nullptr;
    }
    if (!copy_run(host, static_cast<size_t>(host_end - host), addr, addr_size)) return nullptr;
    if (has_port && !copy_run(service, static_cast<size_t>(service_end - service), port, port_size)) return nullptr;
    // By design: the tail of a bracketed address without a port begins with the bracket: `[::1]/a` leaves `]/a`.
    return has_port ? service_end : host_end;
}

const char* uri_path_addrport(const char* path, size_t len, char* addr, size_t addr_size, char* port, size_t port_size)
{
    const char* tail = path_parse(path, len, addr, addr_size, port, port_size);
    if (!tail) tv_log(ll::error, "%s: ERROR parsing path=[%s]\n", __func__, path);
    return tail;
}
