// Names. The path is taken apart as it came, so that an escaped slash or word is no part of a path's form; then it is
// decoded, once, and what comes out of it is judged.
#include "front_name.h"

#include "uri.h"
#include "webops.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

using std::string_view;

constexpr string_view FILE_SCHEME = "file://"; // what the library puts ahead of a fragment's path
constexpr string_view HTTP_SCHEME = "http://";
constexpr size_t QUERY_LIMIT = 3 * URI_QUERY_MAX; // of a query with its question marks escaped
constexpr int BAD_RANGE = -22;                    // of uri_extract_endpts_ext, for a playlist

bool is_hex(char c)
{
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool is_control(char c)
{
    return iscntrl(static_cast<unsigned char>(c)) != 0;
}

// True for a whole URL.
bool has_host(const char* target)
{
    if (strncasecmp(target, HTTP_SCHEME.data(), HTTP_SCHEME.size()) != 0) return false;
    return strcspn(target + HTTP_SCHEME.size(), ":/?") > 0;
}

// The path of a target, from its first slash to its query.
string_view path_of(const char* target)
{
    const string_view whole(target, strcspn(target, "?"));
    const char* slash = uri_pre_path(target); // behind scheme and host, and perhaps in the query
    const size_t at = slash ? static_cast<size_t>(slash - target) : whole.size();
    return whole.substr(std::min(at, whole.size()));
}

// The decoder drops a broken escape, and a zero ends the text: neither names a file.
bool has_bad_escape(string_view path)
{
    for (size_t at = path.find('%'); at != string_view::npos; at = path.find('%', at + 1)) {
        if (path.size() - at < 3 || !is_hex(path[at + 1]) || !is_hex(path[at + 2])) return true;
        if (path[at + 1] == '0' && path[at + 2] == '0') return true;
    }
    return false;
}

// Copies a text with a mark of it escaped. False if it doesn't fit.
bool copy_escaped(string_view src, char mark, string_view escape, char* dst, size_t size)
{
    size_t len = 0;
    for (const char& c : src) {
        const string_view text = c == mark ? escape : string_view(&c, 1);
        if (size - len <= text.size()) return false;
        memcpy(dst + len, text.data(), text.size());
        len += text.size();
    }
    dst[len] = '\0';
    return true;
}

// Decodes a path that has no broken escapes. Bytes stay as they are, in whatever language the name is.
void decode(char* path)
{
    (void)uri_decode_opt(path, FRONT_PATH_MAX, 0);
}

// A path ahead of its decoding, all of it, whatever the forms make of it: 0 if it may be opened, 400, or 403.
int judge(const char* escaped)
{
    char decoded[FRONT_PATH_MAX];
    (void)snprintf(decoded, sizeof(decoded), "%s", escaped);
    decode(decoded);
    const string_view path = decoded;
    // A backslash is no separator here, but what lies between us and the client may take it for one.
    if (std::any_of(path.begin(), path.end(), [](char c) { return is_control(c) || c == '\\'; })) return 400;
    for (size_t at = 0; at <= path.size();) {
        const size_t end = std::min(path.find('/', at), path.size());
        if (path.substr(at, end - at) == "..") return 403;
        at = end + 1;
    }
    return 0;
}

// Takes what the forms left of a path.
int take_path(char* source, struct front_name* name)
{
    decode(source);
    const char* path = source + strspn(source, "/");
    (void)snprintf(name->path, sizeof(name->path), "%s", *path ? path : ".");
    return 0;
}

// A playlist's query must make sense; what it asks for is up to whoever stores the playlists. The library gets it behind
// a short path of ours: it takes paths of 127 characters, looks for the last question mark instead of the first, and
// takes a slash at the end for the end of a path.
bool is_good_playlist(const char* target)
{
    const char* mark = strchr(target, '?');
    if (!mark) return true;
    string_view query = mark + 1;
    const bool has_slash = query.ends_with('/');
    if (has_slash) query.remove_suffix(1);
    char escaped[QUERY_LIMIT];
    if (!copy_escaped(query, '?', "%3F", escaped, sizeof(escaped))) return false;
    char uri[QUERY_LIMIT + 16];
    (void)snprintf(uri, sizeof(uri), "/path/name?%s%s", escaped, has_slash ? "%2F" : "");
    char path[URI_PATH_MAX];
    struct hls_uri_info info = {};
    return uri_m3u_extract(uri, path, &info) == URI_HLS;
}

int name_file(const char* target, char* path, struct front_name* name)
{
    char source[FRONT_PATH_MAX + FILE_SCHEME.size()] = "";
    char destination[FRONT_PATH_MAX] = "";
    struct uri_parse_ctx ctx = {};
    const int rc = uri_extract_endpts_ext(path, source, sizeof(source), destination, sizeof(destination), &ctx);
    if (rc == BAD_RANGE) return 400;
    if (rc != 0) return take_path(path, name); // of no form
    if (strcasecmp(ctx.udpfx, HLS_FRA) == 0) {
        name->kind = front_kind::segment;
        return take_path(source + FILE_SCHEME.size(), name);
    }
    if (strcasecmp(ctx.udpfx, HLS_M3U) != 0) return 404; // a live stream, or an alias
    name->kind = front_kind::playlist;
    return is_good_playlist(target) ? take_path(source, name) : 400;
}

} // namespace

int front_name_of(const char* target, struct front_name* name)
{
    name->kind = front_kind::file;
    name->path[0] = '\0';
    if (*target != '/' && !has_host(target)) return 400;
    char path[FRONT_PATH_MAX];
    if (has_bad_escape(path_of(target))) return 400;
    // The decoder takes a plus for a blank, as in a query.
    if (!copy_escaped(path_of(target), '+', "%2B", path, sizeof(path))) return 414;
    if (const int status = judge(path)) return status;

    if (is_ping_request(path)) {
        name->kind = front_kind::ping;
    } else if (*path == '/' && strcasecmp(path + 1, HTTP_FAVICON_RQ) == 0) {
        name->kind = front_kind::favicon;
    } else {
        return name_file(target, path, name);
    }
    return 0;
}

const char* front_kind_text(enum front_kind kind)
{
    switch (kind) {
    case front_kind::file: return "file";
    case front_kind::segment: return "segment";
    case front_kind::playlist: return "playlist";
    case front_kind::ping: return "ping";
    case front_kind::favicon: return "favicon";
    }
    return "?";
}
