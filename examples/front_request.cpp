// Requests. The library reads what a head says and is generous about how; a server that keeps connections has to be
// strict about it, and looks at each line before the library does.
#include "front_request.h"

#include "webops.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

namespace
{

using std::string_view;

constexpr std::array<string_view, 7> OTHER_METHODS = {"POST", "PUT", "DELETE", "CONNECT", "TRACE", "OPTIONS", "PATCH"};
constexpr string_view BLANKS = " \t";
constexpr char TOKEN_MARKS[] = "!#$%&'*+-.^_`|~";
constexpr char HOST_MARKS[] = "-._~!$&'()*+,;=%:[]";

// What the header lines say, as far as it decides about the request's fate.
struct header_facts {
    size_t hosts;
    size_t lengths;
    bool has_body;
    bool has_coding;
    bool says_close;
    bool says_keep_alive;
};

bool equal_nocase(string_view a, string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// True for a text of letters, digits and the marks.
bool is_made_of(const char* marks, string_view text)
{
    return std::all_of(text.begin(), text.end(), [marks](char c) {
        return isalnum(static_cast<unsigned char>(c)) || (c != '\0' && strchr(marks, c));
    });
}

bool is_token(string_view text)
{
    return !text.empty() && is_made_of(TOKEN_MARKS, text);
}

bool is_number(string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == string_view::npos;
}

string_view trim(string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

// Takes the text up to a mark off the front, the mark too.
string_view take_until(string_view* text, char mark)
{
    const size_t end = std::min(text->find(mark), text->size());
    const string_view run = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return run;
}

string_view take_line(string_view* text)
{
    string_view line = take_until(text, '\n');
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

// A lone newline ends a line for us; others may take it for a part of the line, unless all lines end like that.
bool ends_alike(string_view head)
{
    const auto has_return = [head](size_t at) { return at > 0 && head[at - 1] == '\r'; };
    const size_t first = head.find('\n');
    for (size_t at = first; at != string_view::npos; at = head.find('\n', at + 1)) {
        if (has_return(at) != has_return(first)) return false;
    }
    return true;
}

bool is_printable(string_view line)
{
    return std::none_of(line.begin(), line.end(),
                        [](char c) { return c != '\t' && iscntrl(static_cast<unsigned char>(c)); });
}

// `METHOD TARGET HTTP/1.x`, with one blank between the words.
int check_request_line(string_view line)
{
    const string_view method = take_until(&line, ' ');
    const string_view target = take_until(&line, ' ');
    if (!is_token(method) || target.empty() || target.find('\t') != string_view::npos) return 400;
    if (!line.starts_with("HTTP/") || line.size() != strlen("HTTP/1.1") || line[6] != '.' ||
        !is_number(line.substr(5, 1)) || !is_number(line.substr(7)))
        return 400;
    if (line[5] != '1') return 505;
    if (std::find(OTHER_METHODS.begin(), OTHER_METHODS.end(), method) != OTHER_METHODS.end()) return 405;
    if (method != "GET" && method != "HEAD") return 501;
    return target.size() < FRONT_TARGET_MAX ? 0 : 414;
}

void read_connection(string_view value, struct header_facts* facts)
{
    while (!value.empty()) {
        const string_view word = trim(take_until(&value, ','));
        facts->says_close = facts->says_close || equal_nocase(word, "close");
        facts->says_keep_alive = facts->says_keep_alive || equal_nocase(word, "keep-alive");
    }
}

int read_header_line(string_view line, struct header_facts* facts)
{
    const size_t colon = line.find(':');
    if (colon == string_view::npos || !is_token(line.substr(0, colon))) return 400; // also a folded line
    const string_view name = line.substr(0, colon);
    const string_view value = trim(line.substr(colon + 1));
    if (equal_nocase(name, "Host")) {
        ++facts->hosts;
        if (!is_made_of(HOST_MARKS, value)) return 400;
    }
    if (equal_nocase(name, "Connection")) read_connection(value, facts);
    if (equal_nocase(name, "Transfer-Encoding")) facts->has_coding = true;
    if (equal_nocase(name, "Content-Length")) {
        if (!is_number(value) || ++facts->lengths > 1) return 400;
        facts->has_body = value.find_first_not_of('0') != string_view::npos;
    }
    return 0;
}

} // namespace

int front_read_request(string_view head, struct front_request* rq)
{
    *rq = {};
    if (!ends_alike(head)) return 400;
    string_view rest = head;
    string_view line = take_line(&rest);
    if (!is_printable(line)) return 400;
    if (const int status = check_request_line(line)) return status;
    struct header_facts facts = {};
    for (line = take_line(&rest); !line.empty(); line = take_line(&rest)) {
        if (!is_printable(line)) return 400;
        if (const int status = read_header_line(line, &facts)) return status;
    }
    if (!rest.empty()) return 400; // more than one head

    struct http_header hdr;
    if (parse_http_header(head.data(), head.size(), &hdr, rq->target, sizeof(rq->target)) != 0) return 400;
    rq->is_head = hdr.type == RQTYPE_HEAD;
    rq->is_http10 = hdr.is_http10;
    rq->is_keep_alive = !facts.says_close && (!hdr.is_http10 || facts.says_keep_alive);
    if (facts.hosts > 1 || (facts.hosts == 0 && !hdr.is_http10)) return 400;
    if (facts.has_coding) return 501;
    return facts.has_body ? 413 : 0;
}

size_t front_blank_lines(string_view text)
{
    size_t len = 0;
    for (;;) {
        const string_view rest = text.substr(len);
        if (rest.starts_with('\n'))
            len += 1;
        else if (rest.starts_with("\r\n"))
            len += 2;
        else
            return len;
    }
}

int front_judge_overlong(string_view text)
{
    return text.find('\n') == string_view::npos ? 414 : 431;
}
