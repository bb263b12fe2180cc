// Which requests the front end example takes, and how it refuses the others.
#include "examples/front_request.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr char HOST[] = "Host: h\r\n";

struct read_result {
    int status;
    struct front_request rq;
};

// The head lies in memory of its exact length, so that a read behind it shows under AddressSanitizer.
struct read_result read_head(const std::string& head)
{
    struct read_result r;
    const std::vector<char> exact(head.begin(), head.end());
    r.status = front_read_request({exact.data(), exact.size()}, &r.rq);
    return r;
}

int status_of(const std::string& head)
{
    return read_head(head).status;
}

std::string get(const std::string& headers, const std::string& version = "1.1")
{
    return "GET /a.ts HTTP/" + version + "\r\n" + headers + "\r\n";
}

TEST(front_request, get_and_head_are_taken)
{
    const struct read_result r = read_head(get(HOST));
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(r.rq.is_head);
    EXPECT_FALSE(r.rq.is_http10);
    EXPECT_STREQ(r.rq.target, "/a.ts");
    EXPECT_TRUE(read_head("HEAD / HTTP/1.0\r\n\r\n").rq.is_head);
    EXPECT_EQ(status_of("GET / HTTP/1.0\n\n"), 0);
    EXPECT_EQ(status_of("GET /a HTTP/1.1\nHost: h\n\n"), 0);
}

TEST(front_request, persistence_is_as_the_version_and_the_peer_say)
{
    struct row {
        const char* version;
        const char* header;
        bool is_keep_alive;
    };
    constexpr struct row rows[] = {
        {"1.1", "", true},
        {"1.1", "Connection: close\r\n", false},
        {"1.1", "connection:CLOSE\r\n", false},
        {"1.1", "Connection: keep-alive\r\n", true},
        {"1.1", "Connection: keep-alive, close\r\n", false},
        {"1.1", "Connection: x\r\nConnection: y ,\tclose\r\n", false},
        {"1.1", "X-Connection: close\r\n", true},
        {"1.1", "Connection: closed\r\n", true},
        {"1.0", "", false},
        {"1.0", "Connection: Keep-Alive\r\n", true},
        {"1.0", "X-Connection: keep-alive\r\n", false},
        {"1.0", "Connection: keep-alive\r\nConnection: close\r\n", false},
    };
    for (const struct row& r : rows) {
        const struct read_result got = read_head(get(std::string(HOST) + r.header, r.version));
        EXPECT_EQ(got.status, 0) << r.version << r.header;
        EXPECT_EQ(got.rq.is_keep_alive, r.is_keep_alive) << r.version << r.header;
    }
}

TEST(front_request, other_methods_are_refused_by_whether_they_are_known)
{
    for (const char* method : {"POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH"})
        EXPECT_EQ(status_of(std::string(method) + " / HTTP/1.1\r\nHost: h\r\n\r\n"), 405) << method;
    for (const char* method : {"get", "GETX", "X", "PROPFIND", "M-SEARCH"})
        EXPECT_EQ(status_of(std::string(method) + " / HTTP/1.1\r\nHost: h\r\n\r\n"), 501) << method;
}

TEST(front_request, a_malformed_request_line_is_refused)
{
    for (const char* line : {"",
                             " ",
                             "GET",
                             "GET ",
                             "GET /",
                             "GET  / HTTP/1.1",
                             "GET / HTTP/1.1 ",
                             " GET / HTTP/1.1",
                             "GET\t/ HTTP/1.1",
                             "GET /a b HTTP/1.1",
                             "GET / http/1.1",
                             "GET / HTTP/1",
                             "GET / HTTP/1.",
                             "GET / HTTP/1.10",
                             "GET / HTTP/x.1",
                             "GET / HTTP/1x1",
                             "GET / XTTP/1.1",
                             "GE(T / HTTP/1.1",
                             "GET /a\tb HTTP/1.1",
                             "GET /a\rb HTTP/1.1",
                             "GET /\x1b[m HTTP/1.1",
                             "GET / HTTP/1.1\r"})
        EXPECT_EQ(status_of(std::string(line) + "\r\nHost: h\r\n\r\n"), 400) << line;
    EXPECT_EQ(status_of(std::string("GET /a") + '\0' + "b HTTP/1.1\r\nHost: h\r\n\r\n"), 400);
}

TEST(front_request, other_versions_are_refused)
{
    EXPECT_EQ(status_of(get(HOST, "2.0")), 505);
    EXPECT_EQ(status_of(get(HOST, "0.9")), 505);
    EXPECT_EQ(status_of(get(HOST, "1.9")), 0);
}

TEST(front_request, malformed_headers_are_refused)
{
    for (const char* header : {"x", ": x", "a b: c", "a : c", " folded: x", "\tx", "a: b\rc", "a: b\x7f", "a: \x01"})
        EXPECT_EQ(status_of(get(std::string(HOST) + header + "\r\n")), 400) << header;
    EXPECT_EQ(status_of(get(std::string(HOST) + "a: b" + '\0' + "c\r\n")), 400);
    EXPECT_EQ(status_of(get(HOST + std::string("a:\r\nb:\tx\ty\r\n"))), 0);
}

TEST(front_request, a_request_of_http_1_1_has_one_host)
{
    EXPECT_EQ(status_of(get("")), 400);
    EXPECT_EQ(status_of(get("X-Host: h\r\n")), 400);
    EXPECT_EQ(status_of(get("Host:h\r\n")), 0);
    EXPECT_EQ(status_of(get("Host:\r\n")), 0);
    EXPECT_EQ(status_of(get("Host: a\r\nhost: b\r\n")), 400);
    EXPECT_EQ(status_of(get("", "1.0")), 0);
    EXPECT_EQ(status_of(get("Host: a\r\nHost: a\r\n", "1.0")), 400);
}

TEST(front_request, a_host_is_a_name_or_an_address_and_perhaps_a_port)
{
    for (const char* host : {"a", "a.b-c_d", "a:80", "[::1]", "[::1]:8080", "[fe80::1%25lo]", "%41", "a:"})
        EXPECT_EQ(status_of(get(std::string("Host: ") + host + "\r\n")), 0) << host;
    for (const char* host : {"a b", "a/b", "a?b", "a#b", "u@a", "a\\b", "<a>", "\"a\"", "a\tb", "\xc3\xa4", "http://a"})
        EXPECT_EQ(status_of(get(std::string("Host: ") + host + "\r\n")), 400) << host;
}

TEST(front_request, bodies_are_refused_and_their_lengths_must_make_sense)
{
    const std::string host = HOST;
    EXPECT_EQ(status_of(get(host + "Content-Length: 0\r\n")), 0);
    EXPECT_EQ(status_of(get(host + "Content-Length: 000\r\n")), 0);
    EXPECT_EQ(status_of(get(host + "Content-Length: 1\r\n")), 413);
    EXPECT_EQ(status_of(get(host + "content-length:\t99999999999999999999999999 \r\n")), 413);
    for (const char* value : {"", "-1", "+1", "0x1", "1 1", "1,1", "a"})
        EXPECT_EQ(status_of(get(host + "Content-Length: " + value + "\r\n")), 400) << value;
    EXPECT_EQ(status_of(get(host + "Content-Length: 0\r\nContent-Length: 0\r\n")), 400);
    EXPECT_EQ(status_of(get(host + "Transfer-Encoding: chunked\r\n")), 501);
    EXPECT_EQ(status_of(get(host + "Transfer-Encoding: identity\r\nContent-Length: 3\r\n")), 501);
}

TEST(front_request, a_blank_line_ends_the_head_for_all_readers)
{
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: h\n\r\nGET /b HTTP/1.1\r\nHost: h\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.0\n\r\nx: y\n\n"), 400);
}

TEST(front_request, all_lines_end_alike)
{
    // A reader that takes a lone newline for a part of its line would see one request more, or one less.
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: h\r\nX: a\n\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: h\nX: a\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\nHost: h\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\nHost: h\nX: a\r\n\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: h\r\n\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\nHost: h\nX: a\n\n"), 0);
}

TEST(front_request, a_target_may_be_as_long_as_its_room)
{
    const std::string longest = "/" + std::string(FRONT_TARGET_MAX - 2, 'a');
    const struct read_result r = read_head("GET " + longest + " HTTP/1.0\r\n\r\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.rq.target, longest);
    EXPECT_EQ(status_of("GET " + longest + "a HTTP/1.0\r\n\r\n"), 414);
}

TEST(front_request, a_head_cut_short_anywhere_is_read_inside_its_length)
{
    const std::string head = get("Host: h\r\nConnection: close\r\nContent-Length: 0\r\n");
    for (size_t len = 0; len < head.size(); ++len) {
        const int status = status_of(head.substr(0, len));
        EXPECT_TRUE(status == 0 || status == 400) << len << ": " << status;
    }
}

TEST(front_request, any_changed_byte_gives_a_status_of_the_table)
{
    const std::string head = get("Host: h\r\nConnection: close\r\nContent-Length: 0\r\n");
    for (size_t at = 0; at < head.size(); ++at) {
        for (int c = 0; c < 256; ++c) {
            std::string changed = head;
            changed[at] = static_cast<char>(c);
            switch (status_of(changed)) {
            case 0:
            case 400:
            case 405:
            case 413:
            case 501:
            case 505: break;
            default: ADD_FAILURE() << at << ", " << c;
            }
        }
    }
}

TEST(front_request, an_overlong_head_is_refused_by_what_is_too_long)
{
    EXPECT_EQ(front_judge_overlong(std::string(FRONT_HEAD_MAX, 'a')), 414);
    EXPECT_EQ(front_judge_overlong("GET / HTTP/1.1\r\nx: " + std::string(FRONT_HEAD_MAX, 'a')), 431);
}

} // namespace
