// Playlist and fragment URLs, and small operations on URLs that go with them.
#include "uri.h"

#include "log.h"

#include <sys/types.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

TV_LOG_MODULE(0)

namespace
{

constexpr size_t EXT_SIZE = 32;
constexpr const char* M3U_EXTRACT = "uri_m3u_extract";

struct table_deleter {
    void operator()(struct skht_tag* tbl) const { skht_destroy(tbl, free); }
};
using table_ptr = std::unique_ptr<struct skht_tag, table_deleter>;

// What the query has said so far.
struct when {
    long utime;
    long duration;
    union n32_tag type;
};

// Looks a parameter up. An empty value is stored as null and read as an empty text.
int look_up(skht_t tbl, const char* name, const char** value)
{
    void* data = nullptr;
    const int rc = skht_get(tbl, name, &data);
    *value = data ? static_cast<const char*>(data) : "";
    return rc;
}

bool is_bad_number(const char* text, long number)
{
    return number == 0 && strcmp(text, "0") != 0;
}

int take_utime(skht_t tbl, struct when* w)
{
    const char* value;
    const int rc = look_up(tbl, "utime", &value);
    if (rc != 0) {
        if (rc != ESRCH) tv_log(ll::error, "%s: skht_get/utime ERROR(%d)\n", M3U_EXTRACT, rc);
        return rc;
    }
    w->utime = atol(value);
    if (is_bad_number(value, w->utime)) {
        tv_log(ll::error, "%s: invalid timestamp: %s\n", M3U_EXTRACT, value);
        return EINVAL;
    }
    w->type = PL_EVENT;
    tv_log(ll::debug, "%s: utime=%ld\n", M3U_EXTRACT, w->utime);
    return 0;
}

int take_duration(skht_t tbl, struct when* w)
{
    const char* value;
    const int rc = look_up(tbl, "duration", &value);
    if (rc != 0) {
        if (rc != ESRCH) tv_log(ll::error, "%s: skht_get/duration ERROR(%d)\n", M3U_EXTRACT, rc);
        return rc;
    }
    w->duration = strcasecmp(value, "now") == 0 ? -1 : atol(value);
    if (is_bad_number(value, w->duration)) {
        tv_log(ll::error, "%s: invalid duration: %s\n", M3U_EXTRACT, value);
        return EINVAL;
    }
    tv_log(ll::debug, "%s: duration=%ld\n", M3U_EXTRACT, w->duration);
    return 0;
}

int take_vod(skht_t tbl, struct when* w)
{
    const char* value;
    const int rc = look_up(tbl, "vod", &value);
    if (rc == 0) {
        w->utime = -1;
        w->type = PL_VOD;
        tv_log(ll::debug, "%s: got VOD request\n", M3U_EXTRACT);
    } else if (rc != ESRCH) {
        tv_log(ll::error, "%s: skht_get/vod ERROR(%d)\n", M3U_EXTRACT, rc);
    }
    return rc;
}

// 0; ESRCH, which is no failure, when the query says neither duration nor vod; else a failure.
int take_times(skht_t tbl, struct when* w)
{
    int rc = take_utime(tbl, w);
    if (rc != 0 && rc != ESRCH) return rc;
    rc = take_duration(tbl, w);
    return rc == ESRCH ? take_vod(tbl, w) : rc;
}

// Reads the query of a URL into a table; an absent query leaves it empty.
int read_query(const struct uri_layout* lo, table_ptr* owner)
{
    if (lo->q_len == 0) return 0;
    char query[URI_QUERY_MAX] = {};
    if (!uri_get_query(lo, query, sizeof(query) - 1)) {
        tv_log(ll::error, "%s: query ERROR\n", M3U_EXTRACT);
        return -1;
    }
    skht_t tbl = nullptr;
    const int rc = uri_query_parse(query, &tbl);
    if (rc != 0) {
        tv_log(ll::error, "%s: uri_query_parse(%s,..) ERROR(%d)\n", M3U_EXTRACT, query, rc);
        return -1;
    }
    assert(tbl);
    owner->reset(tbl);
    return 0;
}

// Reads channel and playlist off a path. 0, 22 or -22 after an error line.
int read_names(const char* path, struct hls_uri_info* info)
{
    snprintf(info->ch_alias, sizeof(info->ch_alias), "%s", path);
    char* const slash = strrchr(info->ch_alias, '/');
    if (!slash) {
        tv_log(ll::error, "%s: end-slash expected in [%s]\n", M3U_EXTRACT, info->ch_alias);
        return EINVAL;
    }
    *slash = '\0';
    const int rc = url_get_fname(path, info->pl_alias, sizeof(info->pl_alias), true);
    if (rc != 0) tv_log(ll::error, "%s: error extracting file name from [%s]\n", M3U_EXTRACT, path);
    return rc;
}

// Cuts a text at the last place where a character stands.
void cut_at_last(char* text, char mark)
{
    if (char* p = strrchr(text, mark)) *p = '\0';
}

} // namespace

int uri_m3u_extract(const char* uri, char* path, struct hls_uri_info* info)
{
    struct uri_layout lo = {};
    if (uri_parse(uri, &lo) != 0) {
        tv_log(ll::error, "%s: URI parse ERROR: [%s]\n", __func__, uri);
        return -1;
    }
    if (!uri_get_path(&lo, path, URI_PATH_MAX)) {
        tv_log(ll::error, "%s: path ERROR\n", __func__);
        return -1;
    }
    table_ptr tbl;
    if (read_query(&lo, &tbl) != 0) return -1;

    struct when w = {0, 0, PL_LIVE};
    int rc = tbl ? take_times(tbl.get(), &w) : 0;
    // By design: a missing "vod" stands as the result where there is no record to go on with.
    if (info && (rc == 0 || rc == ESRCH)) rc = read_names(path, info);
    tv_log(ll::debug, "%s: request treated is %s\n", __func__, w.type.sym);
    if (rc != 0) return -1;

    if (info) {
        info->pl_type = w.type;
        info->utime = w.utime;
        info->duration = w.duration;
        tv_log(ll::debug, "%s: ch=%s, pl=%s type=%s timestamp=%ld\n", __func__, info->ch_alias, info->pl_alias,
               info->pl_type.sym, info->utime);
    }
    return URI_HLS;
}

bool is_m3u_url(const char* url)
{
    static char msegm[32];
    if (msegm[0] == '\0') {
        const ssize_t n = snprintf(msegm, sizeof(msegm), "/%s/", HLS_M3U);
        assert(n > 0 && n < (ssize_t)sizeof(msegm));
    }
    assert(msegm[0]);
    return strstr(url, msegm) && (url_ends_with(url, ".m3u") || url_ends_with(url, ".m3u8"));
}

bool is_fra_url(const char* url)
{
    static char fsegm[32];
    if (fsegm[0] == '\0') {
        const ssize_t n = snprintf(fsegm, sizeof(fsegm), "/%s/", HLS_FRA);
        assert(n > 0 && n < (ssize_t)sizeof(fsegm));
    }
    assert(fsegm[0]);
    return strstr(url, fsegm) && url_ends_with(url, ".ts");
}

bool is_hls_url(const char* url)
{
    return is_m3u_url(url) || is_fra_url(url);
}

int uri_split_alias(const char* src, char* alias, size_t size, const char** query)
{
    size_t len = 0;
    while (len + 1 < size && src[len] != '\0' && src[len] != '?') {
        alias[len] = src[len];
        ++len;
    }
    // By design: the zero goes to the length counted from the alias's end. Callers bring a zeroed buffer of twice
    // the size, in which the alias is terminated already.
    alias[2 * len] = '\0';
    *query = src[len] == '?' ? src + len + 1 : nullptr;
    return 0;
}

const char* uri_ensure_schema(const char* scheme, const char* text, char* buf, size_t size)
{
    const size_t len = strlen(scheme);
    if (strncasecmp(text, scheme, len) == 0) return text;
    if (size <= len + strlen(text)) {
        errno = E2BIG;
        return nullptr;
    }
    snprintf(buf, size, "%s%s", scheme, text);
    return buf;
}

const char* uri_pre_path(const char* url)
{
    const char* const slash = strchr(url, '/');
    if (!slash) return nullptr;
    if (slash[1] != '/' || slash == url || slash[-1] != ':') return slash;
    return strchr(slash + 2, '/');
}

bool url_ends_with(const char* url, const char* ext)
{
    const char* const dot = strrchr(url, '.');
    if (!dot) return false;
    char end[EXT_SIZE];
    snprintf(end, sizeof(end), "%s", dot);
    if (char* mark = strchr(end, '?')) *mark = '\0';
    return strcasecmp(end, ext) == 0;
}

int url_get_fname(const char* url, char* buf, size_t size, bool cut_ext)
{
    const char* const slash = strrchr(url, '/');
    if (!slash) return EINVAL;
    if (slash[1] == '\0') return -EINVAL;
    strncpy(buf, slash + 1, size - 1);
    buf[size - 1] = '\0';
    cut_at_last(buf, '?');
    if (cut_ext) cut_at_last(buf, '.');
    return 0;
}
