// HTTP requests: heads, their headers, and the targets they ask for.
#include "webops.h"

#include "support/exact_mem.h"
#include "support/fail_alloc.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

// A parsed request, in memory that ends with its last character.
struct Head {
    explicit Head(const std::string& text, size_t url_size = 128) : mem(text, 0), url(url_size, '#')
    {
        rc = parse_http_header(mem.get(), mem.size(), &hdr, url.get(), url_size);
        EXPECT_EQ(mem.all(), text) << "the request is left as it is";
    }
    std::string path() const { return hdr.uri.path ? std::string(hdr.uri.path, hdr.uri.p_len) : "-"; }
    std::string query() const { return hdr.uri.query ? std::string(hdr.uri.query, hdr.uri.q_len) : "-"; }

    ExactMem mem, url;
    http_header hdr;
    int rc;
};

Head with_header(const std::string& line)
{
    return Head("GET /a HTTP/1.1\r\n" + line + "\r\n\r\n");
}

// What web_parse_urq made of a request; "#" marks a buffer that was left alone.
struct Served {
    int rc;
    std::string src, dst;
    bool operator==(const Served&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Served& s)
{
    return os << s.rc << " [" << s.src << "] [" << s.dst << "]";
}

Served serve(const std::string& request, size_t size = 128)
{
    ExactMem mem(request, 0), src(size, '#'), dst(size, '#');
    http_header hdr;
    const int rc = web_parse_urq(mem.get(), mem.size(), src.get(), dst.get(), size, &hdr);
    const auto shown = [](const ExactMem& m) { return m.text()[0] == '#' ? std::string("#") : m.text(); };
    return {rc, shown(src), shown(dst)};
}

Served serve_path(const std::string& path, size_t size = 128)
{
    return serve("GET " + path + " HTTP/1.1\r\n\r\n", size);
}

// The value of a header, or "null".
std::string value_of(const char* title, const std::string& text)
{
    ExactMem mem(text);
    size_t len = 99;
    const char* const value = find_http_header(title, mem.get(), &len);
    EXPECT_EQ(find_http_header(title, mem.get(), nullptr), value);
    EXPECT_TRUE(value || len == 0);
    return value ? std::string(value, len) : "null";
}

long number_of(const std::string& text, size_t len)
{
    ExactMem mem(text, 0);
    return extract_num_hdr("Content-Length:", mem.get(), len);
}

const std::string FULL_REQUEST =
    "HEAD /src/udp/h:1/dst/a%20b?x=1 HTTP/1.0\r\nHost: example.com:80\r\nUser-Agent: A b/1\r\n"
    "Connection: Keep-Alive\r\nAccept-Encoding: gzip\r\n\r\n";

} // namespace

// ---- request line ---------------------------------------------------------------------------------------------

TEST(parse_http_header, reads_a_whole_request)
{
    const Head head(FULL_REQUEST);
    EXPECT_EQ(head.rc, 0);
    EXPECT_EQ(head.hdr.type, static_cast<int>(RQTYPE_HEAD));
    EXPECT_EQ(head.path(), "src/udp/h:1/dst/a%20b");
    EXPECT_EQ(head.query(), "x=1");
    EXPECT_EQ(head.url.text(), "/src/udp/h:1/dst/a%20b?x=1");
    EXPECT_STREQ(head.hdr.host, "example.com:80");
    EXPECT_STREQ(head.hdr.user_agent, "A%20b%2F1");
    EXPECT_STREQ(head.hdr.accept_enc, "gzip");
    EXPECT_TRUE(head.hdr.is_keep_alive);
    EXPECT_FALSE(head.hdr.is_close);
    EXPECT_TRUE(head.hdr.is_http10);
}

TEST(parse_http_header, says_what_it_reads)
{
    LogCapture log;
    const std::string text = "HEAD /a?b HTTP/1.0\nHost: h\nUser-Agent: u\nConnection: close\nAccept-Encoding: e\n";
    const Head head(text);
    const std::string got = log.text();
    for (const std::string& part :
         {"parse_http_header: " + std::to_string(text.size()) + " bytes [" + text + "]\n",
          std::string("parse_http_header: identified as HEAD\n"), std::string("parse_http_header: HEAD request\n"),
          std::string("parse_http_header: full URL=[/a?b]\n"),
          std::string("parse_http_header: url=[/a?b], p_len=1, q_len=1, rc=0\n"),
          std::string("parse_http_header: request protocol: [HTTP/1.0]\n"),
          std::string("parse_http_header: HTTP/1.0 detected\n"),
          "parse_http_header: p=[" + text.substr(text.find('\n') + 1) + "]\n",
          std::string("parse_http_header: Host: h\n"), std::string("parse_http_header: User-Agent: u\n"),
          std::string("parse_http_header: Connection: close\n"),
          std::string("parse_http_header: Accept-Encoding: e\n")})
        EXPECT_NE(got.find(part), std::string::npos) << part;
}

TEST(parse_http_header, serves_get_and_head_in_any_case)
{
    EXPECT_EQ(Head("get /a HTTP/1.1\n").hdr.type, 0);
    EXPECT_EQ(Head("HEAD\t/a HTTP/1.1\n").hdr.type, 1);
    EXPECT_EQ(Head("head /a").rc, 0);
}

TEST(parse_http_header, refuses_other_methods_with_22)
{
    for (const char* method : {"POST", "PUT", "OPTIONS", "DELETE", "GETS", "GOT", "\1\1\1"}) {
        LogCapture log;
        EXPECT_EQ(Head(std::string(method) + " / HTTP/1.1\r\n").rc, 22) << method;
        EXPECT_EQ(log.messages(ll::error), Lines{std::string("HTTP [") + method + "] is NOT supported"});
    }
}

TEST(parse_http_header, refuses_a_first_word_of_under_3_or_over_7_characters)
{
    LogCapture log;
    for (const char* text : {"", " ", "GE", "GE /a", " GET /a", "12345678 /a", "GET\r\nHost: h"})
        EXPECT_EQ(Head(text).rc, -1) << text;
    EXPECT_EQ(Head("GET/a").rc, 22);
    EXPECT_EQ(Head("1234567 /a").rc, 22);
    EXPECT_EQ(Head("123 /a").rc, 22);
    log.clear();
    Head("GE /a");
    EXPECT_EQ(log.messages(ll::error), Lines{"parse_http_header: failed to get HTTP method from   GE /a"});
}

TEST(parse_http_header, passes_the_failure_of_a_broken_target_on)
{
    LogCapture log;
    EXPECT_EQ(Head("GET http:// HTTP/1.1\r\n").rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"parse_http_header: failed to parse URL"});
}

TEST(parse_http_header, wants_the_protocol_behind_the_target_if_anything)
{
    LogCapture log;
    EXPECT_EQ(Head("GET /a").rc, 0);
    EXPECT_EQ(Head("GET /a \r\n\r\n").rc, 0);
    EXPECT_EQ(Head("GET /a HTTP/1.").rc, 0);
    EXPECT_EQ(Head("GET /a HTTP/1.9 anything\r\n").rc, 0);
    EXPECT_EQ(Head("GET").rc, 0);
    EXPECT_EQ(Head("GET").path(), "-");
    EXPECT_TRUE(log.messages(ll::error).empty());
    for (const char* rest : {"HTTP/2.0", "http/1.1", "HTTP/1", "x"}) {
        log.clear();
        EXPECT_EQ(Head(std::string("GET /a ") + rest).rc, -1);
        EXPECT_EQ(
            log.messages(ll::error),
            Lines{std::string("parse_http_header: expected [HTTP/1.] to follow the URI path, got [") + rest + "]"});
    }
}

TEST(parse_http_header, tells_http_1_0_by_its_last_digit)
{
    EXPECT_TRUE(Head("GET /a HTTP/1.0\r\n").hdr.is_http10);
    EXPECT_FALSE(Head("GET /a HTTP/1.1\r\n").hdr.is_http10);
    EXPECT_FALSE(Head("GET /a HTTP/1.2\r\n").hdr.is_http10);
    EXPECT_FALSE(Head("GET /a HTTP/1.x\r\n").hdr.is_http10);
    EXPECT_FALSE(Head("GET /a HTTP/1.").hdr.is_http10);
    EXPECT_FALSE(Head("GET /a").hdr.is_http10);
}

TEST(parse_http_header, warns_of_a_request_without_headers)
{
    for (const char* text : {"GET /a", "GET /a HTTP/1.1", "GET /a HTTP/1.1\r\n"}) {
        LogCapture log;
        EXPECT_EQ(Head(text).rc, 0);
        EXPECT_EQ(log.messages(ll::warning), Lines{"parse_http_header: no header sections found"}) << text;
    }
    LogCapture log;
    EXPECT_EQ(Head("GET /a HTTP/1.1\r\n\r\n").rc, 0);
    EXPECT_TRUE(log.messages(ll::warning).empty());
}

TEST(parse_http_header, copies_the_target_into_a_buffer_that_is_not_smaller)
{
    EXPECT_EQ(Head("GET /abc HTTP/1.1\n", 5).url.text(), "/abc");
    EXPECT_EQ(Head("GET /abc HTTP/1.1\n", 4).url.text(), "/ab"); // its last byte becomes the zero
    EXPECT_EQ(Head("GET /abc HTTP/1.1\n", 3).url.all(), "###");
    EXPECT_EQ(Head("GET", 1).url.all(), std::string("\0", 1));
    EXPECT_EQ(Head("GET /abc HTTP/1.1\n", 8).url.all(), std::string("/abc\0##\0", 8)); // so does the buffer's last
    http_header hdr;
    EXPECT_EQ(parse_http_header("GET /a", 6, &hdr, nullptr, 0), 0);
}

TEST(parse_http_header, clears_what_an_earlier_request_left)
{
    http_header hdr;
    memset(&hdr, 0x55, sizeof(hdr));
    EXPECT_EQ(parse_http_header("GET /a", 6, &hdr, nullptr, 0), 0);
    EXPECT_STREQ(hdr.host, "");
    EXPECT_STREQ(hdr.user_agent, "");
    EXPECT_FALSE(hdr.is_close);
    EXPECT_EQ(hdr.uri.scheme, nullptr);
}

TEST(parse_http_header, reads_no_header_behind_a_zero)
{
    using namespace std::string_literals;
    EXPECT_STREQ(Head("GET /a HTTP/1.1\r\nX: y\0Host: h\r\n"s).hdr.host, "");
    EXPECT_STREQ(Head("GET /a HTTP/1.1\0\r\nHost: h\r\n"s).hdr.host, "");
    // A zero inside the target ends the path, and the request goes on behind it.
    const Head head("GET /a\0b?c HTTP/1.0\r\nHost: h\r\n"s);
    EXPECT_EQ(head.rc, 0);
    EXPECT_EQ(head.path(), "a");
    EXPECT_EQ(head.query(), "-");
    EXPECT_STREQ(head.hdr.host, "h");
    EXPECT_EQ(Head("G\0T /a"s).rc, 22);
    EXPECT_EQ(Head("\0\0\0\0"s).rc, 22);
    EXPECT_EQ(Head("GET \0"s).path(), "-");
    EXPECT_EQ(Head("GET /a \0"s).rc, 0);
}

TEST(parse_http_header, ends_with_minus_1_without_memory)
{
    LogCapture log;
    fail_alloc::at(1);
    EXPECT_EQ(Head("GET /a").rc, -1);
    // Without memory for its encoding the user agent stays as it came.
    fail_alloc::at(2);
    const Head head = with_header("User-Agent: a b");
    EXPECT_EQ(head.rc, 0);
    EXPECT_STREQ(head.hdr.user_agent, "a b");
}

TEST(parse_http_header, reads_a_request_cut_short_at_every_byte)
{
    const size_t target = FULL_REQUEST.find('/');
    const size_t protocol = FULL_REQUEST.find("HTTP");
    const size_t agent = FULL_REQUEST.find("User");
    for (size_t len = 0; len <= FULL_REQUEST.size(); ++len) {
        const Head head(FULL_REQUEST.substr(0, len));
        int want = 0;
        if (len < 3) want = -1;                              // no method yet
        if (len == 3) want = 22;                             // HEA
        if (len > protocol && len < protocol + 7) want = -1; // a part of the protocol's word
        EXPECT_EQ(head.rc, want) << len;
        EXPECT_EQ(head.path() != "-", len > target + 1) << len;
        // A header counts once its line's end is there.
        EXPECT_EQ(head.hdr.host[0] != '\0', len >= agent - 1) << len;
    }
}

// ---- headers --------------------------------------------------------------------------------------------------

TEST(parse_http_header, holds_its_limits_against_headers_of_any_length)
{
    LogCapture log;
    const std::string longest(100000, 'x');
    const Head head("GET /a HTTP/1.1\r\nUser-Agent: " + longest + "\r\nConnection: keep-alive" + longest +
                    "\r\nAccept-Encoding: " + longest + "\r\nHost: " + longest + "\r\n\r\n");
    EXPECT_EQ(head.rc, 0);
    EXPECT_EQ(head.hdr.user_agent, longest.substr(0, 126));
    EXPECT_FALSE(head.hdr.is_keep_alive);
    EXPECT_EQ(head.hdr.accept_enc, longest.substr(0, 31));
    EXPECT_STREQ(head.hdr.host, "");
    EXPECT_TRUE(log.contains("parse_http_header: Host length is too long: 100000"));
    EXPECT_EQ(number_of("Content-Length: 1" + longest + "\r\n", 100019), 1);
}

TEST(parse_http_header, takes_a_host_of_63_characters)
{
    LogCapture log;
    const std::string host(63, 'h');
    EXPECT_EQ(with_header("Host: " + host).hdr.host, host);
    EXPECT_EQ(with_header("Host: " + host.substr(1)).hdr.host, host.substr(1));
    EXPECT_TRUE(log.messages(ll::error).empty());
    const Head head = with_header("Host: " + host + "h");
    EXPECT_EQ(head.rc, 0);
    EXPECT_STREQ(head.hdr.host, "");
    EXPECT_EQ(log.messages(ll::error), Lines{"parse_http_header: Host length is too long: 64"});
}

TEST(parse_http_header, does_not_find_a_host_without_a_blank)
{
    EXPECT_STREQ(with_header("Host:x").hdr.host, "");
    EXPECT_STREQ(with_header("HOST: x").hdr.host, "x");
}

TEST(parse_http_header, cuts_a_user_agent_at_127_characters)
{
    LogCapture log;
    const std::string agent(127, 'u');
    EXPECT_EQ(with_header("User-Agent: " + agent.substr(1)).hdr.user_agent, agent.substr(1));
    // The encoding's room is 127 with its zero.
    EXPECT_EQ(with_header("User-Agent: " + agent).hdr.user_agent, agent.substr(1));
    EXPECT_TRUE(log.messages(ll::warning).empty());
    EXPECT_EQ(with_header("User-Agent: " + agent + "u").hdr.user_agent, agent.substr(1));
    EXPECT_EQ(log.messages(ll::warning), Lines{"parse_http_header: User-Agent length is too long: 128"});
    const std::string blanks(100, '@');
    EXPECT_EQ(std::string(with_header("User-Agent: " + blanks).hdr.user_agent).size(), 126u);
}

TEST(parse_http_header, knows_two_words_of_connection)
{
    EXPECT_TRUE(with_header("Connection: keep-alive").hdr.is_keep_alive);
    EXPECT_TRUE(with_header("Connection: KEEP-ALIVE").hdr.is_keep_alive);
    EXPECT_TRUE(with_header("connection: Close").hdr.is_close);
    for (const char* word : {"keep-alive, x", "closed", "", "upgrade", "close "}) {
        const Head head = with_header(std::string("Connection: ") + word);
        EXPECT_FALSE(head.hdr.is_keep_alive || head.hdr.is_close) << word;
    }
    LogCapture log;
    with_header("Connection: " + std::string(31, 'c'));
    EXPECT_TRUE(log.contains("parse_http_header: Connection: " + std::string(30, 'c')));
    EXPECT_FALSE(log.contains("parse_http_header: Connection: " + std::string(31, 'c')));
}

TEST(parse_http_header, cuts_accept_encoding_at_31_characters)
{
    LogCapture log;
    const std::string enc(31, 'e');
    EXPECT_EQ(with_header("Accept-Encoding: " + enc).hdr.accept_enc, enc);
    EXPECT_EQ(with_header("Accept-Encoding: " + enc.substr(1)).hdr.accept_enc, enc.substr(1));
    EXPECT_TRUE(log.messages(ll::warning).empty());
    EXPECT_EQ(with_header("Accept-Encoding: " + enc + "e").hdr.accept_enc, enc);
    EXPECT_EQ(log.messages(ll::warning),
              Lines{"parse_http_header: [Accept-Encoding:] text has been trimmed from 32 to 31 chars"});
}

TEST(find_http_header, finds_a_value)
{
    const struct {
        const char* text;
        const char* want;
    } rows[] = {
        {"Host: x\r\n", "x"},
        {"Host: x\n", "x"},
        {"Host: x\r", "x"},
        {"A: b\r\nhost:  \t x y \r\n", "x y "},
        {"X-Host: x\r\n", "x"}, // a match inside another word counts
        {"Host x\r\n", "x"},
        {"Host: \r\n", ""},
        {"Host:\r\nNext: y\r\n", ""}, // an empty value, not the next line's
        {"Host:x\r\n", "null"},
        {"Host:x\r\nHost: y\r\n", "null"}, // only the first place counts
        {"Hos: x\r\n", "null"},
        {"", "null"},
        {"Host", "null"},
        {"Host:", "null"},
        {"Host: ", "null"},
        {"Host: x", "null"},
        {"Host: x\ty\r\n", "null"}, // a control character that is no line's end
        {"Host: x\x7f\r\n", "null"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(value_of("Host", row.text), row.want) << row.text;
    EXPECT_EQ(value_of("Host:", "Host: x\r\n"), "x");
    EXPECT_EQ(value_of("Host:", "Host x\r\n"), "null");
    EXPECT_EQ(value_of("Host:", "Host:: x\r\n"), "x");
}

TEST(extract_num_hdr, reads_the_number)
{
    const struct {
        const char* value;
        long want;
    } rows[] = {{"42", 42}, {"-7", -7}, {"0", 0}, {"12x", 12}, {"x", 0}, {"", -1}};
    for (const auto& row : rows) {
        const std::string text = std::string("Content-Length: ") + row.value + "\r\n";
        EXPECT_EQ(number_of(text, text.size()), row.want) << row.value;
    }
    EXPECT_EQ(number_of("Host: 1\r\n", 9), -1);
    EXPECT_EQ(number_of("", 0), -1);
    EXPECT_EQ(number_of(std::string("X: y\0Content-Length: 42\r\n", 25), 25), -1); // no header behind a zero
    EXPECT_EQ(number_of("Content-Length: 42\r\n", 18), -1); // its line's end lies behind the length
}

TEST(extract_num_hdr, cuts_a_value_at_31_characters)
{
    const auto zeros_and_9 = [](size_t zeros) { return "Content-Length: " + std::string(zeros, '0') + "9\r\n"; };
    LogCapture log;
    EXPECT_EQ(number_of(zeros_and_9(29), 48), 9);
    EXPECT_EQ(number_of(zeros_and_9(30), 49), 9);
    EXPECT_TRUE(log.messages(ll::warning).empty());
    EXPECT_EQ(number_of(zeros_and_9(31), 50), 0);
    EXPECT_EQ(log.messages(ll::warning),
              Lines{"extract_num_hdr: header [Content-Length:] value length is too big: 32 bytes"});
}

TEST(mk_full_url, joins_host_and_path)
{
    LogCapture log;
    const Head head("GET /a/b?c HTTP/1.1\r\nHost: h:80\r\n\r\n");
    log.clear();
    ExactMem buf(9, '#');
    EXPECT_EQ(mk_full_url(&head.hdr, buf.get(), 9), 0);
    EXPECT_EQ(buf.text(), "h:80/a/b");
    EXPECT_EQ(log.messages(), Lines{"mk_full_url: h:80/a/b"});
    ExactMem small(5, '#');
    EXPECT_EQ(mk_full_url(&head.hdr, small.get(), 5), 0);
    EXPECT_EQ(small.text(), "h:80");
    EXPECT_EQ(mk_full_url(&head.hdr, small.get(), 0), 22);
    const Head no_host("GET /a HTTP/1.1\r\n"), no_path("GET / HTTP/1.1\r\nHost: h\r\n");
    EXPECT_EQ(mk_full_url(&no_host.hdr, small.get(), 5), 22);
    EXPECT_EQ(mk_full_url(&no_path.hdr, small.get(), 5), 22);
}

// ---- targets --------------------------------------------------------------------------------------------------

TEST(extract_http_request_path_query, copies_both_with_their_zeros)
{
    const std::string text = "GET /abc?de HTTP/1.1\r\n\r\n";
    ExactMem path(4, '#'), query(3, '#');
    EXPECT_EQ(extract_http_request_path_query(text.data(), text.size(), path.get(), 4, query.get(), 3), 0);
    EXPECT_EQ(path.text(), "abc");
    EXPECT_EQ(query.text(), "de");
    EXPECT_EQ(extract_http_request_path_query("GET /a", 6, path.get(), 4, query.get(), 3), 0);
    EXPECT_EQ(query.text(), "");
    EXPECT_EQ(extract_http_request_path_query(text.data(), text.size(), path.get(), 4, nullptr, 0), 0);
}

TEST(extract_http_request_path_query, refuses_what_does_not_fit)
{
    const std::string text = "GET /abc?de HTTP/1.1\r\n\r\n";
    ExactMem path(4, '#'), query(3, '#');
    LogCapture log;
    EXPECT_EQ(extract_http_request_path_query(text.data(), text.size(), path.get(), 3, query.get(), 3), -1);
    EXPECT_EQ(log.messages(ll::error),
              Lines{"extract_http_request_path_query: path is too long [3 chars, allowed: 3]: " + std::string(77, ' ') +
                    "abc..."});
    EXPECT_EQ(path.all(), "####");
    EXPECT_EQ(query.all(), "###");
    log.clear();
    EXPECT_EQ(extract_http_request_path_query(text.data(), text.size(), path.get(), 4, query.get(), 2), -1);
    EXPECT_EQ(log.messages(ll::error),
              Lines{"extract_http_request_path_query: query is too long [2 chars, allowed: 2]: " +
                    std::string(78, ' ') + "de..."});
    EXPECT_EQ(query.text(), "");
}

TEST(extract_http_request_path_query, passes_failures_on_and_wants_a_path)
{
    ExactMem path(4, '#');
    EXPECT_EQ(extract_http_request_path_query("POST /a", 7, path.get(), 4, nullptr, 0), 22);
    EXPECT_EQ(extract_http_request_path_query("G", 1, path.get(), 4, nullptr, 0), -1);
    LogCapture log;
    EXPECT_EQ(extract_http_request_path_query("GET / HTTP/1.1", 14, path.get(), 4, nullptr, 0), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"extract_http_request_path_query: no URI path found in [GET / HTTP/1.1]"});
    EXPECT_EQ(path.all(), "####");
}

TEST(web_parse_urq, gives_source_and_destination)
{
    const struct {
        const char* path;
        Served want;
    } rows[] = {
        {"/udp/239.1.1.1:5000/", {0, "udp://239.1.1.1:5000", ""}},
        {"/src/udp/h:1/dst/a%20b+c", {0, "udp/h:1", "a b c"}},
        {"/$chan", {0, "$chan", ""}},
        {"/$chan?utime=1%20", {0, "$chan?utime=1%20", ""}}, // the query is passed on as it came
        {"/$chan?", {0, "$chan", ""}},
        {"/hls-fra/c/1.ts", {0, "file://c/1.ts", ""}},
        {"/favicon.ico", {RC_FAVICON, "#", "#"}},
        {"/FAVICON.ico?x=1", {RC_FAVICON, "#", "#"}},
        {"/ping", {RC_PING, "", ""}},
        {"/PING/", {RC_PING, "", ""}},
        {"//ping", {RC_PING, "", ""}},
        {"/", {-3, "#", "#"}},
        {"/?a=1", {-3, "#", "#"}},
        {"/pings", {-1, "", ""}},
        {"/hls-m3u/c/a.m3u8", {-1, "", ""}},
        {"/$chan%4", {-1, "$chan%4", ""}},
        {"/src/a/dst/%4", {-1, "a", "%4"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(serve_path(row.path), row.want) << row.path;
    EXPECT_EQ(serve("GET /PING/ HTTP/1.0\r\n\r\n").rc, RC_PING);
    EXPECT_EQ(serve("GET /ping").rc, RC_PING);
    EXPECT_EQ(serve("POST /ping HTTP/1.1\r\n").rc, 22);
    EXPECT_EQ(serve("G").rc, -1);
    EXPECT_EQ(serve("GET /ping HTTP/2.0").rc, -1);
    EXPECT_EQ(RC_FAVICON, 1028);
    EXPECT_EQ(RC_PING, 1029);
}

TEST(web_parse_urq, says_what_it_did)
{
    LogCapture log;
    serve_path("/ping");
    EXPECT_EQ(log.messages(ll::info), Lines{"Handling user-side PING request"});
    log.clear();
    serve_path("/favicon.ico");
    EXPECT_TRUE(log.contains("web_parse_urq: URI path=[favicon.ico], query=[]"));
    EXPECT_TRUE(log.contains("web_parse_urq: favicon request received."));
    log.clear();
    serve_path("/src/a/dst/b?c");
    EXPECT_TRUE(log.contains("web_parse_urq: URI path=[src/a/dst/b], query=[c]"));
    EXPECT_TRUE(log.contains("web_parse_urq: query [c] appended to source"));
    EXPECT_TRUE(log.contains("web_parse_urq: URI=[src/a/dst/b] - src=[a?c], dst=[b]"));
}

TEST(web_parse_urq, says_why_it_refuses)
{
    LogCapture log;
    serve_path("/a/b/");
    EXPECT_EQ(log.messages(ll::error), Lines{"web_parse_urq: error(-14) parsing request data [a/b/]"});
    log.clear();
    serve_path("/$a%4");
    EXPECT_EQ(log.messages(ll::error), Lines{"web_parse_urq: error URI-decoding"});
    log.clear();
    serve("GET /");
    EXPECT_EQ(log.messages(ll::warning).back(), "web_parse_urq: no path in URL [GET /]");
}

TEST(web_parse_urq, limits_the_query_to_255_characters)
{
    LogCapture log;
    const std::string query(255, 'q');
    EXPECT_EQ(serve_path("/$a?" + query, 512), (Served{0, "$a?" + query, ""}));
    EXPECT_EQ(serve_path("/$a?" + query.substr(1), 512).rc, 0);
    EXPECT_EQ(serve_path("/$a?" + query + "q", 512), (Served{-7, "#", "#"}));
    EXPECT_EQ(log.messages(ll::error), Lines{"web_parse_urq: URI query length (256 bytes) is beyond the limit: 256"});
}

TEST(web_parse_urq, refuses_a_query_of_a_thousand_parameters)
{
    std::string query = "n0=0";
    for (int i = 1; i < 1000; ++i)
        query += "&n" + std::to_string(i) + "=" + std::to_string(i);
    LogCapture log;
    EXPECT_EQ(serve_path("/$a?" + query, 16384), (Served{-7, "#", "#"}));
    EXPECT_EQ(log.messages(ll::error), Lines{"web_parse_urq: URI query length (" + std::to_string(query.size()) +
                                             " bytes) is beyond the limit: 256"});
}

TEST(web_parse_urq, appends_a_query_where_more_than_its_room_is_left)
{
    EXPECT_EQ(serve_path("/$a?bcd", 8), (Served{0, "$a?bcd", ""}));
    LogCapture log;
    EXPECT_EQ(serve_path("/$a?bcd", 7), (Served{7, "$a?", ""}));
    EXPECT_EQ(log.messages(ll::error),
              Lines{"web_parse_urq: URI query is too long (3 bytes), max allowed=4 bytes, discarding request"});
    EXPECT_EQ(serve_path("/$a?b", 4), (Served{7, "$a?", ""}));
    EXPECT_EQ(serve_path("/$a?b", 3), (Served{7, "$a", ""})); // not even the mark fits
}

TEST(web_parse_urq, ends_the_path_with_a_zero_in_the_request)
{
    const std::string text = "GET /$a?b HTTP/1.1\r\nHost: h\r\n\r\n";
    ExactMem mem(text);
    char src[32], dst[32];
    http_header hdr;
    EXPECT_EQ(web_parse_urq(mem.get(), text.size(), src, dst, sizeof(src), &hdr), 0);
    EXPECT_EQ(mem.text(), "GET /$a");
    EXPECT_EQ(std::string(hdr.uri.path, hdr.uri.p_len), "$a");
    EXPECT_EQ(std::string(hdr.uri.query, hdr.uri.q_len), "b");
    EXPECT_STREQ(hdr.host, "h");
    ExactMem again(text);
    EXPECT_EQ(web_parse_urq(again.get(), text.size(), src, dst, sizeof(src), nullptr), 0);
    EXPECT_STREQ(src, "$a?b");
}

TEST(web_parse_urq, ends_with_12_without_memory_for_path_or_query)
{
    LogCapture log;
    for (int nth : {2, 3}) {
        fail_alloc::at(nth);
        EXPECT_EQ(serve_path("/$a?b").rc, 12) << nth;
    }
    EXPECT_EQ(serve_path("/$a?b").rc, 0);
}

TEST(web_parse_urq, serves_a_request_cut_short_at_every_byte)
{
    const std::string whole = "GET /src/udp/h:1/dst/a%20b?x=1 HTTP/1.1\r\nHost: h\r\n\r\n";
    // What a request comes to that ends with this text or before the next one.
    const struct {
        const char* from;
        Served want;
    } rows[] = {
        {"", {-1, "#", "#"}}, // no method yet
        {"GET", {-3, "#", "#"}},
        {"GET /s", {-1, "", ""}},                     // no form that is known
        {"GET /src/udp/h:1/dst", {0, "udp/h:1", ""}}, // the pair is balanced
        {"GET /src/udp/h:1/dst/a", {0, "udp/h:1", "a"}},
        {"GET /src/udp/h:1/dst/a%", {-1, "udp/h:1", "a%"}}, // the escape is cut short
        {"GET /src/udp/h:1/dst/a%2", {-1, "udp/h:1", "a%2"}},
        {"GET /src/udp/h:1/dst/a%20", {0, "udp/h:1", "a "}},
        {"GET /src/udp/h:1/dst/a%20b", {0, "udp/h:1", "a b"}}, // with a lone mark too
        {"GET /src/udp/h:1/dst/a%20b?x", {0, "udp/h:1?x", "a b"}},
        {"GET /src/udp/h:1/dst/a%20b?x=", {0, "udp/h:1?x=", "a b"}},
        {"GET /src/udp/h:1/dst/a%20b?x=1", {0, "udp/h:1?x=1", "a b"}},
        {"GET /src/udp/h:1/dst/a%20b?x=1 H", {-1, "#", "#"}}, // a part of the protocol's word
        {"GET /src/udp/h:1/dst/a%20b?x=1 HTTP/1.", {0, "udp/h:1?x=1", "a b"}},
    };
    size_t row = 0;
    for (size_t len = 0; len <= whole.size(); ++len) {
        if (row + 1 < std::size(rows) && len == strlen(rows[row + 1].from)) ++row;
        ASSERT_TRUE(whole.starts_with(rows[row].from));
        EXPECT_EQ(serve(whole.substr(0, len)), rows[row].want) << whole.substr(0, len);
    }
    EXPECT_EQ(row + 1, std::size(rows));
}

TEST(web_parse_urq, ends_the_target_at_a_zero_in_it)
{
    const std::string target = "/src/udp/h:1/dst/a%20b?x=1";
    const std::string rest = " HTTP/1.1\r\nHost: h\r\n\r\n";
    for (size_t at = 1; at < target.size(); ++at) {
        std::string zeroed = target;
        zeroed[at] = '\0';
        EXPECT_EQ(serve_path(zeroed), serve_path(target.substr(0, at))) << at;
        // So do the copies of path and query.
        const std::string request = "GET " + zeroed + rest;
        const std::string cut = target.substr(1, at - 1);
        const std::string query = cut.find('?') == std::string::npos ? "" : cut.substr(cut.find('?') + 1);
        ExactMem mem(request, 0), path(64, '#'), qry(64, '#');
        const int rc = extract_http_request_path_query(mem.get(), mem.size(), path.get(), 64, qry.get(), 64);
        EXPECT_EQ(rc, cut.empty() ? -1 : 0) << at;
        if (rc != 0) continue;
        EXPECT_EQ(path.text(), cut.substr(0, cut.find('?')));
        EXPECT_EQ(qry.text(), query);
    }
    // A zero that came as an escape is no end: it shows as a question mark.
    EXPECT_EQ(serve_path("/hls-fra/c/1.ts%00.txt"), (Served{0, "file://c/1.ts?.txt", ""}));
}

TEST(web_parse_urq, stays_inside_its_memory_whatever_the_request)
{
    const char* const parts[] = {"GET ", "HEAD ", "/",   "src/", "dst/",      "udp/", "hls-fra/", "$a",           "?",
                                 "%",    "%4",    "%41", "+",    " HTTP/1.1", "\r\n", "Host: ",   "Connection: ", "x",
                                 "@",    "://",   "&a=1"};
    std::mt19937 rnd(5);
    for (int round = 0; round < 3000; ++round) {
        std::string text = rnd() % 4 ? "GET /" : "";
        for (unsigned i = rnd() % 12; i > 0; --i)
            text += rnd() % 16 ? parts[rnd() % std::size(parts)] : std::string(1, static_cast<char>(rnd()));
        const Served got = serve(text, 1 + rnd() % 40); // the sanitizer looks on
        EXPECT_TRUE(got.rc == 0 || got.rc == RC_PING || got.rc == RC_FAVICON || got.rc == -1 || got.rc == -3 ||
                    got.rc == 7 || got.rc == 22)
            << text;
    }
}

TEST(web_parse_url, translates_a_path)
{
    char src[64] = "", dst[64] = "";
    EXPECT_EQ(web_parse_url("http:///src/a/dst/b%20c?x=1", src, dst, 64), 0);
    EXPECT_STREQ(src, "a");
    EXPECT_STREQ(dst, "b c");
    EXPECT_EQ(web_parse_url("/udp/h:1/", src, dst, 64), 0);
    EXPECT_STREQ(src, "udp://h:1");
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(web_parse_url("http://", src, dst, 64), -1);
}

TEST(web_parse_url, limits_the_path_to_127_characters)
{
    LogCapture log;
    char src[256] = "", dst[256] = "";
    const std::string path = "$" + std::string(126, 'a');
    EXPECT_EQ(web_parse_url(path.c_str(), src, dst, 256), 0);
    EXPECT_EQ(src, path);
    EXPECT_EQ(web_parse_url(path.substr(1).c_str(), src, dst, 256), -1);
    log.clear();
    EXPECT_EQ(web_parse_url((path + "a").c_str(), src, dst, 256), 34);
    EXPECT_EQ(web_parse_url("?a=1", src, dst, 256), 34);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"web_parse_url: invalid path size: 128", "web_parse_url: invalid path size: 0"}));
}

TEST(web_parse_url, says_why_it_refuses)
{
    LogCapture log;
    char src[64] = "", dst[64] = "";
    EXPECT_EQ(web_parse_url("/a/b/", src, dst, 64), -1);
    EXPECT_EQ(web_parse_url("$%4", src, dst, 64), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"web_parse_url: error(-14) parsing path [a/b/]", "web_parse_url: error URI-decoding"}));
}

TEST(is_ping_request, takes_a_slash_on_either_side)
{
    for (const char* path : {"ping", "PING", "/ping", "ping/", "/Ping/"})
        EXPECT_TRUE(is_ping_request(path)) << path;
    for (const char* path : {"", "/", "pin", "pings", "//ping", "ping//", "a/ping"})
        EXPECT_FALSE(is_ping_request(path)) << path;
}
