// HTTP requests. A request head comes from anybody: it is read inside its length only, and what has to be a text of
// its own (the target for uri_parse, path and query for their handling) is copied first, so that nothing is read or
// written behind the request and a caller need not end it with a zero.
#include "webops.h"

#include "log.h"
#include "syswrap.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <strings.h>

TV_LOG_MODULE(0)

namespace
{

using std::string_view;

constexpr const char* PARSE = "parse_http_header";
constexpr string_view PROTOCOL = "HTTP/1.";
constexpr int PROTOCOL_WORD_LEN = 8; // with the minor version
constexpr size_t METHOD_MIN = 3;
constexpr size_t METHOD_MAX = 7;
constexpr size_t CONNECTION_SIZE = 31;
constexpr size_t NUMBER_SIZE = 32;

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

// A header's value; null data where the header is absent.
using value_view = string_view;

bool is_space(char c)
{
    return isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_control(char c)
{
    return iscntrl(static_cast<unsigned char>(c)) != 0;
}

// Length for a "%.*s".
int width(string_view text)
{
    return static_cast<int>(std::min<size_t>(text.size(), INT_MAX));
}

bool equal_nocase(string_view a, string_view b)
{
    return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

void skip_space(string_view* text)
{
    const char* const end = text->data() + text->size();
    const char* const p = std::find_if_not(text->data(), end, is_space);
    text->remove_prefix(static_cast<size_t>(p - text->data()));
}

// The run up to the next character for which `stops` holds; it is taken off the text.
string_view take_run(string_view* text, bool (*stops)(char))
{
    const char* const end = text->data() + text->size();
    const size_t len = static_cast<size_t>(std::find_if(text->data(), end, stops) - text->data());
    const string_view run(text->data(), len);
    text->remove_prefix(len);
    return run;
}

// What stands ahead of the first zero.
string_view till_zero(string_view text)
{
    return text.substr(0, text.find('\0'));
}

// A copy that ends with a zero; null without memory.
text_ptr dup_view(const char* caller, string_view text)
{
    text_ptr copy(static_cast<char*>(W_calloc(caller, text.size() + 1, 1)));
    if (copy && !text.empty()) memcpy(copy.get(), text.data(), text.size());
    return copy;
}

string_view path_of(const struct http_header& hdr)
{
    return {hdr.uri.path, hdr.uri.p_len};
}

string_view query_of(const struct http_header& hdr)
{
    return {hdr.uri.query, hdr.uri.q_len};
}

// ---- request line ---------------------------------------------------------------------------------------------

// Takes the method off the text. 0, -1 or 22.
int take_method(string_view* text, struct http_header* hdr)
{
    const string_view whole = *text;
    const string_view method = take_run(text, [](char c) { return c == ' ' || c == '\t'; });
    if (method.size() < METHOD_MIN || method.size() > METHOD_MAX) {
        tv_log(ll::error, "%s: failed to get HTTP method from %7.*s\n", PARSE, width(whole), whole.data());
        return -1;
    }
    if (equal_nocase(method, "GET")) {
        hdr->type = RQTYPE_GET;
    } else if (equal_nocase(method, "HEAD")) {
        hdr->type = RQTYPE_HEAD;
        tv_log(ll::debug, "%s: identified as HEAD\n", PARSE);
    } else {
        tv_log(ll::error, "HTTP [%.*s] is NOT supported\n", width(method), method.data());
        return EINVAL;
    }
    tv_log(ll::debug, "%s: %.*s request\n", PARSE, width(method), method.data());
    return 0;
}

// Splits the target. The layout is moved from the copy that was parsed to the request itself.
int parse_target(string_view target, struct uri_layout* lo)
{
    const text_ptr copy = dup_view(PARSE, target);
    if (!copy) return -1;
    const int rc = uri_parse(copy.get(), lo);
    for (const char** seg : {&lo->scheme, &lo->authority, &lo->path, &lo->query}) {
        if (*seg) *seg = target.data() + (*seg - copy.get());
    }
    tv_log(ll::debug, "%s: url=[%s], p_len=%u, q_len=%u, rc=%d\n", PARSE, copy.get(), static_cast<unsigned>(lo->p_len),
           static_cast<unsigned>(lo->q_len), rc);
    if (rc != 0) tv_log(ll::error, "%s: failed to parse URL\n", PARSE);
    return rc;
}

// Takes the target off the text. 0, -1, or the failure of uri_parse.
int take_target(string_view* text, struct http_header* hdr, char* url, size_t url_size)
{
    skip_space(text);
    const string_view target = take_run(text, is_space);
    if (url && url_size > 0 && url_size >= target.size()) {
        const size_t len = std::min(target.size(), url_size - 1);
        if (len > 0) memcpy(url, target.data(), len);
        url[len] = '\0';
        url[url_size - 1] = '\0';
        tv_log(ll::debug, "%s: full URL=[%s]\n", PARSE, url);
    }
    return parse_target(target, &hdr->uri);
}

// Reads the protocol's word, which may be absent. 0 or -1.
int take_protocol(string_view* text, struct http_header* hdr)
{
    skip_space(text);
    if (text->empty() || text->front() == '\0') return 0;
    if (!text->starts_with(PROTOCOL)) {
        tv_log(ll::error, "%s: expected [%s] to follow the URI path, got [%.*s]\n", PARSE, PROTOCOL.data(),
               width(*text), text->data());
        return -1;
    }
    tv_log(ll::debug, "%s: request protocol: [%.*s]\n", PARSE, std::min(PROTOCOL_WORD_LEN, width(*text)), text->data());
    text->remove_prefix(PROTOCOL.size());
    hdr->is_http10 = !text->empty() && text->front() == '0';
    if (hdr->is_http10) tv_log(ll::debug, "%s: HTTP/1.0 detected\n", PARSE);
    return 0;
}

// ---- headers --------------------------------------------------------------------------------------------------

// Finds a header's value; see find_http_header.
value_view find_value(string_view title, string_view text)
{
    const auto same = [](char a, char b) {
        return tolower(static_cast<unsigned char>(a)) == tolower(static_cast<unsigned char>(b));
    };
    const auto found = std::search(text.begin(), text.end(), title.begin(), title.end(), same);
    text.remove_prefix(static_cast<size_t>(found - text.begin()));
    if (text.size() < title.size()) return {};
    text.remove_prefix(title.size());
    if (text.starts_with(':')) text.remove_prefix(1);
    if (text.empty() || !is_space(text.front())) return {};

    // Line ends stay: an empty value must not swallow the next header.
    while (text.starts_with(' ') || text.starts_with('\t'))
        text.remove_prefix(1);
    const value_view value = take_run(&text, is_control);
    if (!text.starts_with('\n') && !text.starts_with('\r')) return {};
    return value;
}

// Copies a value, cut to size - 1 characters.
void copy_value(value_view value, char* dst, size_t size)
{
    snprintf(dst, size, "%.*s", width(value), value.data());
}

void read_host(string_view text, struct http_header* hdr)
{
    const value_view value = find_value("Host:", text);
    if (!value.data()) return;
    if (value.size() >= sizeof(hdr->host)) {
        tv_log(ll::error, "%s: Host length is too long: %lu\n", PARSE, value.size());
        return;
    }
    copy_value(value, hdr->host, sizeof(hdr->host));
    tv_log(ll::debug, "%s: Host: %s\n", PARSE, hdr->host);
}

void read_user_agent(string_view text, struct http_header* hdr)
{
    const value_view value = find_value("User-Agent:", text);
    if (!value.data()) return;
    constexpr size_t max = sizeof(hdr->user_agent) - 1;
    if (value.size() > max) tv_log(ll::warning, "%s: User-Agent length is too long: %lu\n", PARSE, value.size());
    copy_value(value, hdr->user_agent, sizeof(hdr->user_agent));
    tv_log(ll::debug, "%s: User-Agent: %s\n", PARSE, hdr->user_agent);
    (void)uri_encode(hdr->user_agent, max); // without memory the field stays as it came
}

void read_connection(string_view text, struct http_header* hdr)
{
    const value_view value = find_value("Connection:", text);
    if (!value.data()) return;
    char word[CONNECTION_SIZE];
    copy_value(value, word, sizeof(word));
    tv_log(ll::debug, "%s: Connection: %s\n", PARSE, word);
    hdr->is_keep_alive = strcasecmp(word, "keep-alive") == 0;
    hdr->is_close = !hdr->is_keep_alive && strcasecmp(word, "close") == 0;
}

void read_accept_encoding(string_view text, struct http_header* hdr)
{
    constexpr const char* title = "Accept-Encoding:";
    const value_view value = find_value(title, text);
    if (!value.data()) return;
    constexpr size_t max = sizeof(hdr->accept_enc) - 1;
    copy_value(value, hdr->accept_enc, sizeof(hdr->accept_enc));
    tv_log(ll::debug, "%s: %s %s\n", PARSE, title, hdr->accept_enc);
    if (value.size() > max)
        tv_log(ll::warning, "%s: [%s] text has been trimmed from %zu to %zu chars\n", PARSE, title, value.size(), max);
}

// ---- targets --------------------------------------------------------------------------------------------------

// True when the text is the word, in any case of letters, or the word and one slash.
bool slash_match(const char* text, const char* word)
{
    const size_t len = strlen(word);
    if (strncasecmp(text, word, len) != 0) return false;
    return text[len] == '\0' || (text[len] == '/' && text[len + 1] == '\0');
}

// Translates and decodes a path. 0; -1 after an error line, whose text for the first step is `complaint`.
int path_to_endpts(const char* caller, const char* complaint, const char* path, char* src, char* dst, size_t size)
{
    const int rc = uri_extract_endpts_ext(path, src, size, dst, size, nullptr);
    if (rc != 0) {
        tv_log(ll::error, "%s: error(%d) parsing %s [%s]\n", caller, rc, complaint, path);
        return -1;
    }
    if (!uri_decode(src, size) || !uri_decode(dst, size)) {
        tv_log(ll::error, "%s: error URI-decoding\n", caller);
        return -1;
    }
    return 0;
}

// Appends `?query` to the source. 0, or 7 after an error line.
int append_query(const char* query, char* src, size_t size)
{
    size_t used = strnlen(src, size);
    const size_t len = strlen(query);
    if (size - used > 1) {
        src[used++] = '?';
        src[used] = '\0';
    }
    const size_t room = size - used;
    if (room <= len + 1) {
        tv_log(ll::error, "%s: URI query is too long (%lu bytes), max allowed=%ld bytes, discarding request\n",
               "web_parse_urq", len, static_cast<long>(room));
        return 7;
    }
    memcpy(src + used, query, len + 1);
    tv_log(ll::debug, "%s: query [%s] appended to source\n", "web_parse_urq", query);
    return 0;
}

// What web_parse_urq does once path and query are texts of their own. `query` is null where there is none.
int serve_path(const char* path, const char* query, char* src, char* dst, size_t size)
{
    constexpr const char* caller = "web_parse_urq";
    tv_log(ll::debug, "%s: URI path=[%s], query=[%s]\n", caller, path, query ? query : "");
    if (strcasecmp(path, HTTP_FAVICON_RQ) == 0) {
        tv_log(ll::debug, "%s: favicon request received.\n", caller);
        return RC_FAVICON;
    }
    memset(src, 0, size);
    memset(dst, 0, size);
    if (is_ping_request(path)) {
        tv_log(ll::info, "Handling user-side PING request\n");
        return RC_PING;
    }
    if (path_to_endpts(caller, "request data", path, src, dst, size) != 0) return -1;
    if (query) {
        if (const int rc = append_query(query, src, size)) return rc;
    }
    tv_log(ll::debug, "%s: URI=[%s] - src=[%s], dst=[%s]\n", caller, path, src, dst);
    return 0;
}

// Copies a part of the request with its zero. 0, or -1 after an error line with `what` it is.
int copy_part(const char* what, string_view part, char* dst, size_t size)
{
    if (part.size() >= size) {
        tv_log(ll::error, "%s: %s is too long [%ld chars, allowed: %ld]: %80.*s...\n",
               "extract_http_request_path_query", what, static_cast<long>(part.size()), static_cast<long>(size),
               width(part), part.data());
        return -1;
    }
    memcpy(dst, part.data(), part.size());
    dst[part.size()] = '\0';
    return 0;
}

} // namespace

int parse_http_header(const char* text, size_t len, struct http_header* hdr, char* url, size_t url_size)
{
    string_view rest(text, len);
    *hdr = {};
    tv_log(ll::debug, "%s: %lu bytes [%.*s]\n", __func__, len, width(rest), text);
    if (const int rc = take_method(&rest, hdr)) return rc;
    if (const int rc = take_target(&rest, hdr, url, url_size)) return rc;
    if (take_protocol(&rest, hdr) != 0) return -1;

    (void)take_run(&rest, [](char c) { return c == '\n' || c == '\0'; });
    if (rest.starts_with('\n')) rest.remove_prefix(1);
    rest = till_zero(rest);
    if (rest.empty()) {
        tv_log(ll::warning, "%s: no header sections found\n", __func__);
        return 0;
    }
    tv_log(ll::debug, "%s: p=[%.*s]\n", __func__, width(rest), rest.data());
    read_host(rest, hdr);
    read_user_agent(rest, hdr);
    read_connection(rest, hdr);
    read_accept_encoding(rest, hdr);
    return 0;
}

const char* find_http_header(const char* title, const char* text, size_t* len)
{
    const value_view value = find_value(title, text);
    if (len) *len = value.size();
    return value.data();
}

long int extract_num_hdr(const char* title, const char* text, size_t len)
{
    const value_view value = find_value(title, till_zero({text, len}));
    if (value.empty()) return -1;
    if (value.size() >= NUMBER_SIZE)
        tv_log(ll::warning, "%s: header [%s] value length is too big: %lu bytes\n", __func__, title, value.size());
    char number[NUMBER_SIZE];
    copy_value(value, number, sizeof(number));
    return atol(number);
}

int mk_full_url(const struct http_header* hdr, char* buf, size_t size)
{
    const string_view path = path_of(*hdr);
    if (hdr->host[0] == '\0' || path.empty() || size == 0) return EINVAL;
    snprintf(buf, size, "%s/%.*s", hdr->host, width(path), path.data());
    buf[size - 1] = '\0';
    tv_log(ll::debug, "%s: %s\n", __func__, buf);
    return 0;
}

int extract_http_request_path_query(const char* text, size_t len, char* path, size_t path_size, char* query,
                                    size_t query_size)
{
    struct http_header hdr;
    if (const int rc = parse_http_header(text, len, &hdr, nullptr, 0)) return rc;
    if (path_of(hdr).empty()) {
        tv_log(ll::error, "%s: no URI path found in [%.*s]\n", __func__, width({text, len}), text);
        return -1;
    }
    if (copy_part("path", path_of(hdr), path, path_size) != 0) return -1;
    if (!query || query_size == 0) return 0;
    query[0] = '\0';
    return query_of(hdr).empty() ? 0 : copy_part("query", query_of(hdr), query, query_size);
}

int web_parse_urq(char* text, size_t len, char* src, char* dst, size_t size, struct http_header* hdr)
{
    struct http_header own;
    if (const int rc = parse_http_header(text, len, &own, nullptr, 0)) return rc;
    if (hdr) *hdr = own;
    const string_view path = path_of(own);
    const string_view query = query_of(own);
    if (path.empty()) {
        tv_log(ll::warning, "%s: no path in URL [%.*s]\n", __func__, width({text, len}), text);
        return -3;
    }
    if (query.size() >= URI_QUERY_MAX) {
        tv_log(ll::error, "%s: URI query length (%lu bytes) is beyond the limit: %lu\n", __func__, query.size(),
               URI_QUERY_MAX);
        return -7;
    }
    text_ptr query_copy;
    if (!query.empty()) {
        query_copy = dup_view(__func__, query);
        if (!query_copy) return ENOMEM;
    }
    const text_ptr path_copy = dup_view(__func__, path);
    if (!path_copy) return ENOMEM;
    const size_t path_end = static_cast<size_t>(path.data() + path.size() - text);
    if (path_end < len) text[path_end] = '\0'; // where it would lie behind the request, the path ends with it
    return serve_path(path_copy.get(), query_copy.get(), src, dst, size);
}

int web_parse_url(const char* url, char* src, char* dst, size_t size)
{
    struct uri_layout lo = {};
    if (const int rc = uri_parse(url, &lo)) return rc;
    char path[URI_PATH_MAX];
    if (!uri_get_path(&lo, path, sizeof(path))) {
        tv_log(ll::error, "%s: invalid path size: %zu\n", __func__, lo.p_len);
        return ERANGE;
    }
    return path_to_endpts(__func__, "path", path, src, dst, size);
}

bool is_ping_request(const char* path)
{
    return slash_match(path[0] == '/' ? path + 1 : path, "ping");
}
