// Source URLs: kinds, segments, limits, and the split of a path.
#include "uri.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

// What a parse gave, as texts; "-" for an absent segment.
struct Parsed {
    int rc;
    std::string scheme, authority, path, query;
    bool operator==(const Parsed&) const = default;
};

std::string seg(const char* p, size_t len)
{
    return p ? std::string(p, len) : "-";
}

Parsed parse(const std::string& uri)
{
    // An exact allocation lets the sanitizer see a read behind the text.
    const auto copy = std::make_unique<char[]>(uri.size() + 1);
    memcpy(copy.get(), uri.c_str(), uri.size() + 1);
    uri_layout lo = {};
    const int rc = uri_parse(copy.get(), &lo);
    return {rc, seg(lo.scheme, lo.s_len), seg(lo.authority, lo.a_len), seg(lo.path, lo.p_len), seg(lo.query, lo.q_len)};
}

std::ostream& operator<<(std::ostream& os, const Parsed& p)
{
    return os << p.rc << " [" << p.scheme << "] [" << p.authority << "] [" << p.path << "] [" << p.query << "]";
}

// Destinations of uri_extract, which begin with a mark that shows whether they were written.
struct Segments {
    char scheme[URI_SCHEME_MAX] = "#";
    char authority[URI_AUTH_MAX] = "#";
    char path[URI_PATH_MAX] = "#";
    char query[URI_QUERY_MAX] = "#";
    int kind = -2;
};

Segments extract(const std::string& uri)
{
    Segments s;
    s.kind = uri_extract(uri.c_str(), s.scheme, s.authority, s.path, s.query);
    return s;
}

// What path_parse gave; "#" marks a destination that was left alone, "null" a refused path.
struct Split {
    std::string addr, port, tail;
    bool operator==(const Split&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Split& s)
{
    return os << "[" << s.addr << "] [" << s.port << "] [" << s.tail << "]";
}

Split split(const std::string& path, size_t len, size_t addr_size = 64, size_t port_size = 16)
{
    const auto copy = std::make_unique<char[]>(path.size() + 1);
    memcpy(copy.get(), path.c_str(), path.size() + 1);
    char addr[64] = "#";
    char port[16] = "#";
    const char* tail = path_parse(copy.get(), len, addr, addr_size, port, port_size);
    return {addr, port, tail ? tail : "null"};
}

Split split(const std::string& path)
{
    return split(path, path.size());
}

} // namespace

TEST(uri_scheme_kind, knows_each_scheme_in_any_case)
{
    const struct {
        const char* scheme;
        int kind;
    } rows[] = {{"file", 0}, {"tcp", 1}, {"udp", 2}, {"rtp", 3},    {"http", 4}, {"m3u", 5},
                {"FILE", 0}, {"Udp", 2}, {"", -1},   {"https", -1}, {"fil", -1}, {"files", -1}};
    for (const auto& row : rows)
        EXPECT_EQ(uri_scheme_kind(row.scheme), row.kind) << row.scheme;
    EXPECT_EQ(URI_KIND_STR[URI_HLS + 1], nullptr);
    EXPECT_EQ(URI_BAD, -1);
}

TEST(uri_parse, splits_a_url)
{
    const struct {
        const char* uri;
        Parsed want;
    } rows[] = {
        {"udp://10.0.0.1@239.1.1.1:5000/x?y=1", {0, "udp", "10.0.0.1", "239.1.1.1:5000/x", "y=1"}},
        {"file:///srv/a.ts", {0, "file", "-", "/srv/a.ts", "-"}},
        {"//srv/a.ts", {0, "-", "-", "/srv/a.ts", "-"}}, // one slash is lost, not all of them
        {"file://a.ts", {0, "file", "-", "a.ts", "-"}},
        {" \t tcp://h:1", {0, "tcp", "-", "h:1", "-"}},
        // A text that begins with a slash loses it and has no scheme.
        {"/srv/a.ts", {0, "-", "-", "srv/a.ts", "-"}},
        {"/udp://h:1", {0, "-", "-", "udp://h:1", "-"}},
        {" /a?b", {0, "-", "-", "a", "b"}},
        {"srv/a.ts", {0, "-", "-", "srv/a.ts", "-"}},
        {"x://a", {0, "-", "-", "x://a", "-"}},
        {"xy://a", {0, "xy", "-", "a", "-"}},
        {"://a", {0, "-", "-", "://a", "-"}},
        {"udp:/h", {0, "-", "-", "udp:/h", "-"}},
        {"udp:h", {0, "-", "-", "udp:h", "-"}},
        {"a:b://c", {0, "-", "-", "a:b://c", "-"}},
        {"", {0, "-", "-", "-", "-"}},
        {"/", {0, "-", "-", "-", "-"}},
        // Nothing behind the scheme, or behind the mark of the authority.
        {"udp://", {-1, "-", "-", "-", "-"}},
        {"udp://src@", {-1, "-", "-", "-", "-"}},
        {"udp://@", {-1, "-", "-", "-", "-"}},
        {"udp://@239.1.1.1:5000", {0, "udp", "-", "239.1.1.1:5000", "-"}},
        {"udp://a@b@c", {0, "udp", "a", "b@c", "-"}},
        // The mark is looked for everywhere: path and query can hold it.
        {"http://h/a@b", {0, "http", "h/a", "b", "-"}},
        {"http://h/a?b@c", {0, "http", "h/a?b", "c", "-"}},
        // Only the last question mark counts, and none where the text ends in a slash.
        {"file:///srv/a?b?c", {0, "file", "-", "/srv/a?b", "c"}},
        {"file:///srv/a?b/", {0, "file", "-", "/srv/a?b/", "-"}},
        {"file:///srv/a?", {0, "file", "-", "/srv/a", "-"}},
        {"file://?q", {0, "file", "-", "-", "q"}},
        {"file://?", {0, "file", "-", "-", "-"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.uri), row.want) << row.uri;
}

TEST(uri_parse, needs_no_layout)
{
    EXPECT_EQ(uri_parse("udp://h", nullptr), 0);
    EXPECT_EQ(uri_parse("udp://", nullptr), -1);
}

TEST(uri_parse, leaves_the_layout_alone_on_failure)
{
    uri_layout lo = {};
    lo.s_len = 77;
    EXPECT_EQ(uri_parse("udp://", &lo), -1);
    EXPECT_EQ(lo.s_len, 77u);
    EXPECT_EQ(lo.scheme, nullptr);
}

TEST(uri_parse, keeps_to_the_text_whatever_it_is)
{
    const std::string alphabet = "ab:/?@[] \t";
    std::mt19937 rnd(20240611);
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (size_t n = rnd() % 24; n > 0; --n)
            text += alphabet[rnd() % alphabet.size()];
        const Parsed p = parse(text);
        if (p.rc != 0) continue;
        for (const std::string& s : {p.scheme, p.authority, p.path, p.query}) {
            EXPECT_TRUE(s == "-" || (!s.empty() && text.find(s) != std::string::npos)) << text << " gave " << p;
        }
    }
}

TEST(uri_get, copies_a_segment_that_fits_and_leaves_the_rest_alone)
{
    uri_layout lo = {};
    ASSERT_EQ(uri_parse("udp://au@path?query", &lo), 0);
    char buf[8] = "#";
    EXPECT_EQ(uri_get_scheme(&lo, buf, 4), buf);
    EXPECT_STREQ(buf, "udp");
    EXPECT_EQ(uri_get_authority(&lo, buf, 3), buf);
    EXPECT_STREQ(buf, "au");
    EXPECT_EQ(uri_get_path(&lo, buf, 5), buf);
    EXPECT_STREQ(buf, "path");
    EXPECT_EQ(uri_get_query(&lo, buf, 6), buf);
    EXPECT_STREQ(buf, "query");
    // One character short: null, and nothing written.
    EXPECT_EQ(uri_get_query(&lo, buf, 5), nullptr);
    EXPECT_EQ(uri_get_path(&lo, buf, 4), nullptr);
    EXPECT_EQ(uri_get_path(&lo, buf, 0), nullptr);
    EXPECT_STREQ(buf, "query");
}

TEST(uri_get, gives_an_empty_text_and_null_for_an_absent_segment)
{
    uri_layout lo = {};
    char buf[8] = "#";
    EXPECT_EQ(uri_get_scheme(&lo, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
    lo.path = "text"; // of no length
    strcpy(buf, "#");
    EXPECT_EQ(uri_get_path(&lo, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
    lo.q_len = 4; // of nothing
    strcpy(buf, "#");
    EXPECT_EQ(uri_get_query(&lo, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
}

TEST(uri_extract, gives_kind_and_segments)
{
    const Segments s = extract("RTP://10.0.0.1@239.1.1.1:5000/x?y");
    EXPECT_EQ(s.kind, URI_RTP);
    EXPECT_STREQ(s.scheme, "RTP");
    EXPECT_STREQ(s.authority, "10.0.0.1");
    EXPECT_STREQ(s.path, "239.1.1.1:5000/x");
    EXPECT_STREQ(s.query, "y");
}

TEST(uri_extract, leaves_destinations_of_absent_segments_alone)
{
    const Segments s = extract("tcp://h:1");
    EXPECT_EQ(s.kind, URI_TCP);
    EXPECT_STREQ(s.authority, "#");
    EXPECT_STREQ(s.query, "#");
}

TEST(uri_extract, needs_no_destinations)
{
    EXPECT_EQ(uri_extract("m3u://h/a", nullptr, nullptr, nullptr, nullptr), URI_HLS);
    EXPECT_EQ(uri_extract("file://?q", nullptr, nullptr, nullptr, nullptr), URI_FILE);
}

TEST(uri_extract, logs_what_it_refuses)
{
    const std::string big(200, 'p');
    const std::string auth63(63, 'a'), auth64(64, 'a');
    const std::string query256(256, 'q');
    const struct {
        std::string uri;
        const char* first; // line ahead of the common one, or null
    } rows[] = {
        {"udp://", "extract: uri_parse ERROR"},
        {"srv/a.ts", "extract: uri_get_scheme ERROR"},
        {"longscheme://h", "extract: uri_get_scheme ERROR"},
        {"eightchr://h", "extract: uri_get_scheme ERROR"},
        {"udp://" + auth64 + "@h:1", "extract: uri_get_authority ERROR"},
        {"udp://" + big, "extract: uri_get_path ERROR"},
        // The segments are taken from left to right, and the first that doesn't fit is the one told.
        {"eightchr://" + auth64 + "@" + big + "?" + query256, "extract: uri_get_scheme ERROR"},
        {"udp://" + auth64 + "@" + big + "?" + query256, "extract: uri_get_authority ERROR"},
        {"udp://a@" + big + "?" + query256, "extract: uri_get_path ERROR"},
        {"udp://?q", "extract: uri_get_path ERROR"},
        {"http://h/a?" + query256, "extract: uri_get_query ERROR"},
        {"gopher://h", nullptr},
    };
    for (const auto& row : rows) {
        LogCapture log;
        EXPECT_EQ(extract(row.uri).kind, URI_BAD) << row.uri;
        Lines want;
        if (row.first) want.push_back(row.first);
        want.push_back("uri_extract: error parsing URI: [" + row.uri + "]");
        EXPECT_EQ(log.messages(ll::error), want);
        EXPECT_EQ(log.messages(), want);
    }
}

TEST(uri_extract, takes_a_missing_scheme_for_an_unknown_one_where_none_is_asked_for)
{
    for (const char* uri : {"srv/a.ts", "/srv/a.ts", "x://a", "longscheme://h"}) {
        LogCapture log;
        char path[URI_PATH_MAX] = "";
        EXPECT_EQ(uri_extract(uri, nullptr, nullptr, path, nullptr), URI_BAD);
        EXPECT_EQ(log.messages(), (Lines{std::string("uri_extract: error parsing URI: [") + uri + "]"}));
    }
}

TEST(uri_extract, holds_each_limit)
{
    EXPECT_EQ(extract("udp://" + std::string(63, 'a') + "@h:1").kind, URI_UDP);
    EXPECT_EQ(extract("udp://" + std::string(64, 'a') + "@h:1").kind, URI_BAD);
    EXPECT_EQ(extract("file://" + std::string(126, 'p')).kind, URI_FILE);
    EXPECT_EQ(extract("file://" + std::string(127, 'p')).kind, URI_FILE);
    EXPECT_EQ(extract("file://" + std::string(128, 'p')).kind, URI_BAD);
    EXPECT_EQ(extract("http://h?" + std::string(255, 'q')).kind, URI_HTTP);
    EXPECT_EQ(extract("http://h?" + std::string(256, 'q')).kind, URI_BAD);
    // Seven characters fit, and are then an unknown scheme.
    EXPECT_STREQ(extract("sevench://h").scheme, "sevench");
    EXPECT_STREQ(extract("eightchr://h").scheme, "#");
}

TEST(path_parse, splits_address_port_and_tail)
{
    const struct {
        const char* path;
        Split want;
    } rows[] = {
        {"239.1.1.1:5000/x", {"239.1.1.1", "5000", "/x"}},
        {"239.1.1.1:5000", {"239.1.1.1", "5000", ""}},
        {"239.1.1.1", {"239.1.1.1", "#", ""}},
        {"h/a/b", {"h", "#", "/a/b"}},
        {"h?q", {"h", "#", "?q"}},
        {"h:80?q", {"h", "80", "?q"}},
        {" \t//h:80/a", {"h", "80", "/a"}},
        {":5000", {"#", "5000", ""}},
        {"h:", {"h", "#", ""}},
        {"h:/a", {"h", "#", "/a"}},
        {"h:1:2/a", {"h", "1:2", "/a"}},
        {"[::1]:5000/a", {"::1", "5000", "/a"}},
        {"[::1]:5000", {"::1", "5000", ""}},
        {"[]:1", {"#", "1", ""}},
        // The bracket stays in the tail of an address without a port.
        {"[::1]/a", {"::1", "#", "]/a"}},
        {"[::1]", {"::1", "#", "]"}},
        {"[::1]x", {"::1", "#", "]x"}},
        // An open bracket, and nothing at all.
        {"[::1", {"#", "#", "null"}},
        {"[::1/a]", {"#", "#", "null"}},
        {"[::1?a]", {"#", "#", "null"}},
        {"[", {"#", "#", "null"}},
        {"", {"#", "#", "null"}},
        {" \t/", {"#", "#", "null"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(split(row.path), row.want) << row.path;
}

TEST(path_parse, takes_a_length_behind_the_text_as_no_limit)
{
    char path[URI_PATH_MAX] = "239.1.1.1:5000/x";
    char addr[32] = "";
    char port[8] = "";
    EXPECT_STREQ(path_parse(path, sizeof(path), addr, sizeof(addr), port, sizeof(port)), "/x");
    char empty[URI_PATH_MAX] = "";
    // A path of zeroes is an empty address with an empty tail.
    EXPECT_EQ(path_parse(empty, sizeof(empty), addr, sizeof(addr), port, sizeof(port)), empty);
}

TEST(path_parse, refuses_segments_that_run_behind_the_length)
{
    const Split refused = {"#", "#", "null"};
    EXPECT_EQ(split("host:5000", 3), refused);
    EXPECT_EQ(split("host:5000", 8), refused);
    EXPECT_EQ(split("host:5000", 9), (Split{"host", "5000", ""}));
    EXPECT_EQ(split("host:5000/a", 9), (Split{"host", "5000", "/a"}));
    EXPECT_EQ(split("host/a", 4), (Split{"host", "#", "/a"}));
    EXPECT_EQ(split("[::1]:1", 3), refused);
    EXPECT_EQ(split("[::1]/a", 4), refused);
    EXPECT_EQ(split("[::1]/a", 5), (Split{"::1", "#", "]/a"}));
    EXPECT_EQ(split("//h", 2), refused);
}

TEST(path_parse, refuses_segments_that_do_not_fit)
{
    EXPECT_EQ(split("host:5000", 9, 5, 5), (Split{"host", "5000", ""}));
    EXPECT_EQ(split("host:5000", 9, 4, 5), (Split{"#", "#", "null"}));
    EXPECT_EQ(split("host:5000", 9, 5, 4), (Split{"host", "#", "null"}));
}

TEST(path_parse, needs_no_destinations)
{
    EXPECT_STREQ(path_parse("host:5000/x", 11, nullptr, 0, nullptr, 0), "/x");
}

TEST(path_parse, keeps_to_the_text_when_it_is_cut_anywhere)
{
    for (const std::string whole : {"239.1.1.1:5000/x?y", "[fe80::1%eth0]:80/a", "  //[::1]/", ":"}) {
        for (size_t len = 0; len <= whole.size(); ++len) {
            const Split s = split(whole.substr(0, len), len);
            EXPECT_TRUE(s.tail == "null" || s.tail.size() <= len);
        }
    }
}

TEST(uri_path_addrport, logs_a_refused_path)
{
    LogCapture log;
    char addr[32] = "";
    char port[8] = "";
    EXPECT_EQ(uri_path_addrport("[::1", 4, addr, sizeof(addr), port, sizeof(port)), nullptr);
    EXPECT_EQ(log.messages(ll::error), (Lines{"uri_path_addrport: ERROR parsing path=[[::1]"}));
    log.clear();
    EXPECT_STREQ(uri_path_addrport("h:1/a", 5, addr, sizeof(addr), port, sizeof(port)), "/a");
    EXPECT_EQ(log.messages(), Lines{});
}
