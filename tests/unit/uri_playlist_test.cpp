// Playlist and fragment URLs, and the small operations on URLs.
#include "uri.h"

#include "support/exact_mem.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

// A lookup in a query's table that fails in a way of its own: the linker leads skht_get here.
static const char* g_failing_name = "";
int real_skht_get(skht_t h, const char* skey, void** pdat) __asm__("__real__Z8skht_getP8skht_tagPKcPPv");
int wrap_skht_get(skht_t h, const char* skey, void** pdat) __asm__("__wrap__Z8skht_getP8skht_tagPKcPPv");
int wrap_skht_get(skht_t h, const char* skey, void** pdat)
{
    return strcmp(skey, g_failing_name) == 0 ? EINVAL : real_skht_get(h, skey, pdat);
}

namespace
{

using Lines = std::vector<std::string>;

struct Extracted {
    int rc;
    std::string path;
    hls_uri_info info;
};

Extracted extract(const std::string& uri)
{
    ExactMem mem(uri);
    char path[URI_PATH_MAX] = "#";
    Extracted e = {};
    e.rc = uri_m3u_extract(mem.get(), path, &e.info);
    e.path = path;
    return e;
}

int extract_without_record(const std::string& uri)
{
    char path[URI_PATH_MAX] = "#";
    return uri_m3u_extract(uri.c_str(), path, nullptr);
}

const std::string PLAYLIST = "http://h/hls-m3u/ch/list.m3u8";

} // namespace

TEST(playlist_types, print_as_words)
{
    EXPECT_STREQ(PL_LIVE.sym, "LIV");
    EXPECT_STREQ(PL_EVENT.sym, "EVE");
    EXPECT_STREQ(PL_VOD.sym, "VOD");
}

TEST(uri_m3u_extract, reads_path_and_query)
{
    const struct {
        const char* query;
        n32_tag type;
        long utime, duration;
    } rows[] = {
        {"", PL_LIVE, 0, 0},
        {"?utime=900", PL_EVENT, 900, 0},
        {"?utime=0", PL_EVENT, 0, 0},
        {"?utime=-5", PL_EVENT, -5, 0},
        {"?utime=900&duration=now", PL_EVENT, 900, -1},
        {"?utime=900&duration=NOW", PL_EVENT, 900, -1},
        {"?utime=900&duration=60", PL_EVENT, 900, 60},
        {"?duration=0", PL_LIVE, 0, 0},
        {"?vod=1", PL_VOD, -1, 0},
        {"?vod=", PL_VOD, -1, 0},
        {"?utime=900&vod=1", PL_VOD, -1, 0},
        // A duration keeps the other from being looked at.
        {"?duration=5&vod=1", PL_LIVE, 0, 5},
        {"?other=1", PL_LIVE, 0, 0},
    };
    for (const auto& row : rows) {
        const Extracted e = extract(PLAYLIST + row.query);
        EXPECT_EQ(e.rc, URI_HLS) << row.query;
        EXPECT_EQ(e.path, "h/hls-m3u/ch/list.m3u8");
        EXPECT_STREQ(e.info.ch_alias, "h/hls-m3u/ch");
        EXPECT_STREQ(e.info.pl_alias, "list");
        EXPECT_STREQ(e.info.pl_type.sym, row.type.sym) << row.query;
        EXPECT_EQ(e.info.utime, row.utime) << row.query;
        EXPECT_EQ(e.info.duration, row.duration) << row.query;
    }
}

TEST(uri_m3u_extract, says_what_it_found)
{
    LogCapture log;
    extract("/ch/a.m3u8?utime=900&duration=60");
    EXPECT_EQ(log.messages(), (Lines{"uri_m3u_extract: utime=900", "uri_m3u_extract: duration=60",
                                     "uri_m3u_extract: request treated is EVE",
                                     "uri_m3u_extract: ch=ch, pl=a type=EVE timestamp=900"}));
    log.clear();
    extract("/ch/a.m3u8?vod=1");
    EXPECT_EQ(log.messages(), (Lines{"uri_m3u_extract: got VOD request", "uri_m3u_extract: request treated is VOD",
                                     "uri_m3u_extract: ch=ch, pl=a type=VOD timestamp=-1"}));
}

TEST(uri_m3u_extract, refuses_with_a_line_each)
{
    const std::string long_value(33, 'x');
    const std::string long_query = "a=" + std::string(253, 'x');
    const struct {
        std::string uri;
        Lines want;
    } rows[] = {
        {"m3u://", {"uri_m3u_extract: URI parse ERROR: [m3u://]"}},
        {"http://?a=1", {"uri_m3u_extract: path ERROR"}},
        {"/" + std::string(128, 'p'), {"uri_m3u_extract: path ERROR"}},
        {"/c/a.m3u8?" + long_query, {"uri_m3u_extract: query ERROR"}},
        {"/c/a.m3u8?a", {"uri_m3u_extract: uri_query_parse(a,..) ERROR(-1)"}},
        {"/c/a.m3u8?a=" + long_value,
         {"uri_query_parse: argument for query parameter [a] is too long [33]",
          "uri_m3u_extract: uri_query_parse(a=" + long_value + ",..) ERROR(-1)"}},
        {"/c/a.m3u8?a=1&a=2",
         {"uri_query_parse: duplicate query parameter [a]", "uri_m3u_extract: uri_query_parse(a=1&a=2,..) ERROR(16)"}},
        {"/c/a.m3u8?utime=x", {"uri_m3u_extract: invalid timestamp: x"}},
        {"/c/a.m3u8?utime=00", {"uri_m3u_extract: invalid timestamp: 00"}},
        {"/c/a.m3u8?utime=", {"uri_m3u_extract: invalid timestamp: "}},
        {"/c/a.m3u8?duration=x", {"uri_m3u_extract: invalid duration: x"}},
        {"/c/a.m3u8?duration=", {"uri_m3u_extract: invalid duration: "}},
        {"/a.m3u8", {"uri_m3u_extract: end-slash expected in [a.m3u8]"}},
        {"http://h/c/", {"uri_m3u_extract: error extracting file name from [h/c/]"}},
    };
    for (const auto& row : rows) {
        LogCapture log;
        EXPECT_EQ(extract(row.uri).rc, -1) << row.uri;
        EXPECT_EQ(log.messages(ll::error), row.want) << row.uri;
    }
}

TEST(uri_m3u_extract, says_which_lookup_failed)
{
    for (const char* name : {"utime", "duration", "vod"}) {
        LogCapture log;
        g_failing_name = name;
        EXPECT_EQ(extract("/c/a.m3u8?x=1").rc, -1);
        EXPECT_EQ(log.messages(ll::error), Lines{std::string("uri_m3u_extract: skht_get/") + name + " ERROR(22)"});
    }
    g_failing_name = "";
}

TEST(uri_m3u_extract, limits_the_query_to_254_characters)
{
    std::string query;
    for (int i = 0; i < 7; ++i)
        query += "name" + std::to_string(i) + "=" + std::string(29, 'v') + "&";
    ASSERT_EQ(query.size(), 252u);
    EXPECT_EQ(extract("/c/a.m3u8?" + query + "x").rc, -1); // 253: refused for its missing sign only
    EXPECT_EQ(extract("/c/a.m3u8?" + query + "x=").rc, URI_HLS);
    LogCapture log;
    EXPECT_EQ(extract("/c/a.m3u8?" + query + "x=1").rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"uri_m3u_extract: query ERROR"});
}

TEST(uri_m3u_extract, keeps_63_characters_of_the_path)
{
    const std::string dir(60, 'd');
    EXPECT_STREQ(extract("/" + dir + "/a.m3u8").info.ch_alias, dir.c_str());
    EXPECT_STREQ(extract("/x/" + dir + "/y.m3u8").info.ch_alias, ("x/" + dir).c_str());
    EXPECT_STREQ(extract("/xy/" + dir + "/y.m3u8").info.ch_alias, "xy"); // its own last slash is the 64th
    LogCapture log;
    const std::string longer(64, 'd');
    EXPECT_EQ(extract("/" + longer + "/y.m3u8").rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"uri_m3u_extract: end-slash expected in [" + longer.substr(1) + "]"});
    const std::string name(70, 'n');
    EXPECT_STREQ(extract("/c/" + name + ".m3u8").info.pl_alias, name.substr(0, 63).c_str());
}

TEST(uri_m3u_extract, without_a_record_a_query_must_say_how_long_or_vod)
{
    EXPECT_EQ(extract_without_record("/c/a.m3u8"), URI_HLS);
    EXPECT_EQ(extract_without_record("/a.m3u8"), URI_HLS); // no names are read
    EXPECT_EQ(extract_without_record("/c/a.m3u8?utime=1&duration=5"), URI_HLS);
    EXPECT_EQ(extract_without_record("/c/a.m3u8?vod=1"), URI_HLS);
    // By design: the missing "vod" stands as the result. Callers without a record rely on asking for one of the two.
    LogCapture log;
    EXPECT_EQ(extract_without_record("/c/a.m3u8?utime=1"), -1);
    EXPECT_EQ(extract_without_record("/c/a.m3u8?other=1"), -1);
    EXPECT_TRUE(log.messages(ll::error).empty());
}

TEST(is_m3u_url, wants_the_word_between_slashes_and_the_extension)
{
    for (const char* url : {"http://h/hls-m3u/a.m3u8", "/hls-m3u/c/a.m3u", "/hls-m3u/a.M3U8?x=1", "x/hls-m3u/a.m3u"}) {
        EXPECT_TRUE(is_m3u_url(url)) << url;
        EXPECT_TRUE(is_hls_url(url)) << url;
        EXPECT_FALSE(is_fra_url(url)) << url;
    }
    for (const char* url : {"", "hls-m3u/a.m3u8", "/hls-m3u.m3u8", "/hls-m3u/a.ts", "/hls-m3us/a.m3u", "/a.m3u8",
                            "/hls-m3u/a.m3u8?x=1.5", "/hls-m3u/a.m3u9"})
        EXPECT_FALSE(is_hls_url(url)) << url;
}

TEST(is_fra_url, wants_the_word_between_slashes_and_ts)
{
    for (const char* url : {"http://h/hls-fra/1.ts", "/hls-fra/c/1.TS?x"}) {
        EXPECT_TRUE(is_fra_url(url)) << url;
        EXPECT_TRUE(is_hls_url(url)) << url;
        EXPECT_FALSE(is_m3u_url(url)) << url;
    }
    for (const char* url : {"", "hls-fra/1.ts", "/hls-fra/1.m3u8", "/hls-fra/1", "/1.ts"})
        EXPECT_FALSE(is_hls_url(url)) << url;
}

TEST(url_ends_with, compares_from_the_last_dot_to_the_query)
{
    EXPECT_TRUE(url_ends_with("/a/b.ts", ".ts"));
    EXPECT_TRUE(url_ends_with("/a/b.TS?x=1?y", ".ts"));
    EXPECT_TRUE(url_ends_with("a.b.m3u8", ".m3u8"));
    EXPECT_TRUE(url_ends_with(".ts", ".ts"));
    EXPECT_TRUE(url_ends_with("a.", "."));
    EXPECT_TRUE(url_ends_with(("a.ts?" + std::string(200, 'q')).c_str(), ".ts"));
    EXPECT_FALSE(url_ends_with("a.ts", "ts"));
    EXPECT_FALSE(url_ends_with("ats", ".ts"));
    EXPECT_FALSE(url_ends_with("", ".ts"));
    EXPECT_FALSE(url_ends_with("a.ts?x=1.0", ".ts"));
    EXPECT_FALSE(url_ends_with("a.tss", ".ts"));
    const std::string ext = "." + std::string(30, 'e');
    EXPECT_TRUE(url_ends_with(("a" + ext).c_str(), ext.c_str()));
    EXPECT_FALSE(url_ends_with(("a" + ext + "e").c_str(), (ext + "e").c_str()));
}

TEST(url_get_fname, takes_what_follows_the_last_slash)
{
    const struct {
        const char* url;
        bool cut;
        int rc;
        const char* want;
    } rows[] = {
        {"/a/b.ts", false, 0, "b.ts"},
        {"/a/b.ts", true, 0, "b"},
        {"/a/b.c.ts", true, 0, "b.c"},
        {"/a/b.ts?q=1", false, 0, "b.ts"},
        {"/a/b.ts?q=1.5", true, 0, "b"},
        {"/a/b?x?y", false, 0, "b?x"},
        {"/b", true, 0, "b"},
        {"/.ts", true, 0, ""},
        {"/?q", false, 0, ""},
        {"b.ts", false, 22, "#"},
        {"", false, 22, "#"},
        {"/a/", false, -22, "#"},
        {"/", true, -22, "#"},
    };
    for (const auto& row : rows) {
        char buf[16] = "#";
        EXPECT_EQ(url_get_fname(row.url, buf, sizeof(buf), row.cut), row.rc) << row.url;
        EXPECT_STREQ(buf, row.want) << row.url;
    }
    ExactMem four(4, '#');
    EXPECT_EQ(url_get_fname("/abc", four.get(), 4, false), 0);
    EXPECT_EQ(four.text(), "abc");
    EXPECT_EQ(url_get_fname("/abcd", four.get(), 4, false), 0);
    EXPECT_EQ(four.text(), "abc");
    ExactMem one(1, '#');
    EXPECT_EQ(url_get_fname("/a", one.get(), 1, true), 0);
    EXPECT_EQ(one.text(), "");
}

TEST(uri_split_alias, splits_at_the_first_question_mark)
{
    const struct {
        const char* src;
        size_t size;
        const char* alias;
        const char* query;
    } rows[] = {
        {"$a?x=1?y", 8, "$a", "x=1?y"},
        {"$a", 8, "$a", nullptr},
        {"$a?", 8, "$a", ""},
        {"?x", 8, "", "x"},
        {"", 8, "", nullptr},
        {"$abcdef", 8, "$abcdef", nullptr},
        {"$abcdefg", 8, "$abcdef", nullptr},
        {"$abcdefg?x", 8, "$abcdef", nullptr},
        {"$abcdef?x", 8, "$abcdef", "x"},
        {"$a", 1, "", nullptr},
    };
    for (const auto& row : rows) {
        ExactMem alias(2 * row.size, '\0');
        const char* query = "#";
        EXPECT_EQ(uri_split_alias(row.src, alias.get(), row.size, &query), 0);
        EXPECT_EQ(alias.text(), row.alias) << row.src;
        EXPECT_STREQ(query, row.query) << row.src;
    }
}

TEST(uri_split_alias, stores_the_zero_at_twice_the_length)
{
    // By design: callers bring a zeroed buffer of twice the size, where it does no harm.
    ExactMem alias(16, '#');
    const char* query = nullptr;
    EXPECT_EQ(uri_split_alias("$abc?q", alias.get(), 8, &query), 0);
    EXPECT_EQ(alias.all(), std::string("$abc####\0#######", 16));
}

TEST(uri_ensure_schema, puts_the_scheme_ahead_where_it_is_missing)
{
    char buf[32] = "#";
    const char* text = "file:///a";
    EXPECT_EQ(uri_ensure_schema("file://", text, buf, sizeof(buf)), text);
    text = "FILE:///a";
    EXPECT_EQ(uri_ensure_schema("file://", text, buf, sizeof(buf)), text);
    EXPECT_STREQ(buf, "#");
    EXPECT_EQ(uri_ensure_schema("file://", "/a", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "file:///a");
    EXPECT_EQ(uri_ensure_schema("file://", "", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "file://");
}

TEST(uri_ensure_schema, wants_room_for_both_and_the_zero)
{
    ExactMem ten(10, '#');
    EXPECT_EQ(uri_ensure_schema("file://", "/a", ten.get(), 10), ten.get());
    EXPECT_EQ(ten.text(), "file:///a");
    ExactMem nine(9, '#');
    errno = 0;
    EXPECT_EQ(uri_ensure_schema("file://", "/a", nine.get(), 9), nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(nine.all(), "#########");
}

TEST(uri_pre_path, finds_the_slash_that_begins_the_path)
{
    const struct {
        const char* url;
        const char* want;
    } rows[] = {
        {"http://h/a/b", "/a/b"}, {"http://h", nullptr}, {"http:///a", "/a"}, {"/a", "/a"},
        {"//h/a", "//h/a"},       {"a/b", "/b"},         {"a//b", "//b"},     {"a:/b", "/b"},
        {"a:b//c", "//c"},        {"", nullptr},         {"abc", nullptr},    {"://a/b", "/b"},
        {"a/b://c", "/b://c"},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(uri_pre_path(row.url), row.want) << row.url;
}
