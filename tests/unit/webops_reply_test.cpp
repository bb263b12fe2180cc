// HTTP replies, entities, and URLs of playlist items.
#include "webops.h"

#include "support/assert_kit.h"
#include "support/exact_mem.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

// The linker leads nwrite here, so that a peer which takes only a part of a write can be had.
static size_t g_write_limit = SIZE_MAX;
static int g_writes = 0;
static uint32_t g_write_flags = 0;
extern "C" ssize_t __real__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags);
extern "C" ssize_t __wrap__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags);
extern "C" ssize_t __wrap__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags)
{
    ++g_writes;
    g_write_flags = flags;
    return __real__Z6nwriteiPKcmj(fd, buf, count < g_write_limit ? count : g_write_limit, flags);
}

namespace
{

using Lines = std::vector<std::string>;

http_response reply(const http_response& ready_made)
{
    http_response rsp = ready_made;
    rsp.server = "kvt";
    return rsp;
}

// The composed text, or the result where it isn't the text's length; in memory of exactly `size` characters.
std::string compose(const http_response& rsp, size_t size = 4096, int version = 11)
{
    ExactMem buf(size, '#');
    const ssize_t rc = mk_http_xt_resp(&rsp, version, buf.get(), size);
    if (rc == -1 || rc == 22) return std::to_string(rc);
    EXPECT_LT(rc, static_cast<ssize_t>(size));
    EXPECT_EQ(buf.get()[rc], '\0');
    return buf.all().substr(0, static_cast<size_t>(rc));
}

// The smallest size that a reply is composed in.
size_t least_size(const http_response& rsp)
{
    size_t size = 1;
    while (compose(rsp, size) == "-1" && size < 8192)
        ++size;
    return size;
}

std::string file_of(const TempDir& dir, const std::string& text)
{
    const std::string path = dir / "body";
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

const std::string STATUS = "HTTP/1.1 200 OK\r\nServer: kvt\r\n";

// The escaped text in a zeroed destination, with the count ahead of it.
std::string escape(const std::string& text, size_t size)
{
    ExactMem dst(size, '\0');
    const int rc = web_escape(text.c_str(), dst.get(), size);
    return std::to_string(rc) + " " + (rc < 0 ? "" : dst.text());
}

} // namespace

TEST(ready_made_replies, are_as_listed)
{
    const struct {
        const http_response* rsp;
        int code;
        const char* reason;
        long length;
        const char* connection;
    } rows[] = {
        {&g_resp_ok, 200, "OK", -1, nullptr},
        {&g_resp_ok204, 204, "No Content", -1, nullptr},
        {&g_resp_tmoved, 302, "Moved Temporarily", 0, "close"},
        {&g_resp_bad, 400, "Bad request", 0, nullptr},
        {&g_resp_denied, 403, "Forbidden", 0, "close"},
        {&g_resp_nfound, 404, "Not Found", 0, "close"},
        {&g_resp_unacc, 406, "Not Acceptable", 0, "close"},
        {&g_resp_timeout, 408, "Request Timeout", 0, "close"},
        {&g_resp_err, 500, "Service error", 0, "close"},
        {&g_resp_bgw, 502, "Bad Gateway", 0, "close"},
        {&g_resp_svcun, 503, "Service Unavailable", 0, "close"},
        {&g_resp_gwtmo, 504, "Gateway Timeout", 0, "close"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.rsp->code, row.code);
        EXPECT_STREQ(row.rsp->reason, row.reason);
        EXPECT_EQ(row.rsp->content_length, row.length) << row.code;
        EXPECT_STREQ(row.rsp->connection, row.connection) << row.code;
        for (const char* text : {row.rsp->content_type, row.rsp->content_encoding, row.rsp->ok_suffix,
                                 row.rsp->location, row.rsp->fpath, row.rsp->server})
            EXPECT_EQ(text, nullptr) << row.code;
        EXPECT_EQ(http_code_resp(row.code), row.rsp);
    }
}

TEST(http_code_resp, answers_an_unknown_code_by_its_range)
{
    LogCapture log;
    EXPECT_EQ(http_code_resp(201), &g_resp_ok);
    EXPECT_EQ(http_code_resp(299), &g_resp_ok);
    EXPECT_EQ(http_code_resp(0), &g_resp_ok);
    EXPECT_EQ(http_code_resp(300), &g_resp_err);
    log.clear();
    EXPECT_EQ(http_code_resp(418), &g_resp_err);
    EXPECT_EQ(log.messages(ll::warning),
              Lines{"http_code_resp: no response for HTTP418 defined, please update the lib!"});
}

TEST(mk_http_xt_resp, composes_lines_in_their_order)
{
    http_response rsp = reply(g_resp_ok);
    EXPECT_EQ(compose(rsp), STATUS + "\r\n");
    rsp.content_type = HLS_M3U8_TYPE;
    rsp.content_encoding = "gzip";
    rsp.content_length = 0;
    rsp.connection = "close";
    rsp.location = "/x";
    rsp.ok_suffix = "A: b\r\nC: d";
    EXPECT_EQ(compose(rsp), STATUS + "Content-Type: application/x-mpegURL\r\nContent-Encoding: gzip\r\n"
                                     "Content-Length: 0\r\nConnection: close\r\nLocation: /x\r\nA: b\r\nC: d\r\n\r\n");
    rsp.content_type = rsp.content_encoding = rsp.connection = rsp.location = rsp.ok_suffix = "";
    rsp.content_length = 5000000000;
    EXPECT_EQ(compose(rsp), STATUS + "Content-Length: 5000000000\r\n\r\n");
    EXPECT_STREQ(HLS_FRA_TYPE, "video/MP2T");
}

TEST(mk_http_xt_resp, knows_two_versions)
{
    LogCapture log;
    EXPECT_EQ(compose(reply(g_resp_nfound), 4096, 10),
              "HTTP/1.0 404 Not Found\r\nServer: kvt\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(log.messages(ll::error).empty());
    for (int version : {9, 12, 20, 0})
        EXPECT_EQ(compose(reply(g_resp_ok), 4096, version), "22") << version;
    EXPECT_EQ(log.messages(ll::error)[2], "mk_http_xt_resp: HTTP/2.0 not supported");
    // What is left is an empty text.
    ExactMem buf(64, '#');
    const http_response rsp = reply(g_resp_ok);
    EXPECT_EQ(mk_http_xt_resp(&rsp, 12, buf.get(), 64), 22);
    EXPECT_EQ(buf.all(), std::string(1, '\0') + std::string(62, '#') + std::string(1, '\0'));
}

TEST(mk_http_xt_resp, adds_the_suffix_to_a_200_only)
{
    http_response rsp = reply(g_resp_ok204);
    rsp.ok_suffix = "A: b";
    EXPECT_EQ(compose(rsp), "HTTP/1.1 204 No Content\r\nServer: kvt\r\n\r\n");
}

TEST(mk_http_xt_resp, drops_a_line_of_128_characters_without_a_word)
{
    // By design: the reply goes without the line.
    http_response rsp = reply(g_resp_ok);
    const std::string value(127 - strlen("Location: \r\n"), 'v');
    rsp.location = value.c_str();
    EXPECT_EQ(compose(rsp), STATUS + "Location: " + value + "\r\n\r\n");
    LogCapture log;
    const std::string longer = value + "v";
    rsp.location = longer.c_str();
    EXPECT_EQ(compose(rsp), STATUS + "\r\n");
    EXPECT_TRUE(log.messages(ll::error).empty());
    EXPECT_TRUE(log.messages(ll::warning).empty());
    EXPECT_EQ(compose(rsp, STATUS.size() + 129), "-1"); // it must find room all the same
    EXPECT_EQ(compose(rsp, STATUS.size() + 130), STATUS + "\r\n");
}

TEST(mk_http_xt_resp, needs_room_for_each_piece)
{
    const size_t status = STATUS.size();
    http_response rsp = reply(g_resp_ok);
    // The blank line wants a size of more than the length and 3.
    EXPECT_EQ(least_size(rsp), status + 4);
    rsp.content_length = 5; // "Content-Length: 5\r\n", 19 characters
    EXPECT_EQ(least_size(rsp), status + 19 + 4);
    rsp.ok_suffix = "A: b"; // 6 with its line end
    EXPECT_EQ(least_size(rsp), status + 19 + 6 + 4);
    for (size_t size = 0; size < 64; ++size)
        EXPECT_TRUE(compose(rsp, size) == "-1" || size >= status + 29) << size;
}

TEST(mk_http_xt_resp, appends_a_file)
{
    const TempDir dir;
    using namespace std::string_literals;
    const std::string body = "\0binary\xff"s;
    const std::string path = file_of(dir, body);
    http_response rsp = reply(g_resp_ok);
    rsp.fpath = path.c_str();
    LogCapture log;
    EXPECT_EQ(compose(rsp), STATUS + "\r\n" + body);
    EXPECT_TRUE(log.contains("mk_http_xt_resp: file [" + path + "] of 8 bytes included in HTTP response"));
    EXPECT_TRUE(log.contains("mk_http_xt_resp: header:" + std::to_string(STATUS.size() + 2) +
                             "/total:" + std::to_string(STATUS.size() + 10) + " bytes"));
    EXPECT_EQ(least_size(rsp), STATUS.size() + 2 + 8 + 1);
    // The log shows the head only.
    file_of(dir, "body");
    log.clear();
    compose(rsp);
    EXPECT_NE(log.text().find("bytes\n" + STATUS + "\r\n\n"), std::string::npos);
}

TEST(mk_http_xt_resp, fails_with_a_file_that_is_empty_or_absent)
{
    const TempDir dir;
    http_response rsp = reply(g_resp_ok);
    const std::string empty = file_of(dir, "");
    rsp.fpath = empty.c_str();
    EXPECT_EQ(compose(rsp), "-1");
    const std::string absent = dir / "absent";
    rsp.fpath = absent.c_str();
    EXPECT_EQ(compose(rsp), "-1");
}

TEST(mk_http_xt_resp, asserts_code_reason_and_server)
{
    char buf[128];
    const std::string text = asserts("rsp->code && rsp->reason && rsp->server");
    EXPECT_DEATH(mk_http_xt_resp(&g_resp_ok, 11, buf, sizeof(buf)), text); // a ready-made record as it stands
    http_response rsp = reply(g_resp_ok);
    rsp.code = 0;
    EXPECT_DEATH(mk_http_xt_resp(&rsp, 11, buf, sizeof(buf)), text);
    rsp = reply(g_resp_ok);
    rsp.reason = nullptr;
    EXPECT_DEATH(mk_http_xt_resp(&rsp, 11, buf, sizeof(buf)), text);
}

TEST(send_http_response, sends_in_one_write_as_1_1)
{
    LogCapture log;
    const PeerPair p;
    const http_response rsp = reply(g_resp_bad);
    EXPECT_EQ(send_http_response(p.fd(), &rsp), 0);
    EXPECT_EQ(g_writes, 1);
    EXPECT_EQ(g_write_flags, 1u);
    const std::string want = "HTTP/1.1 400 Bad request\r\nServer: kvt\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(take(p.there.get(), want.size()), want);
    EXPECT_NE(log.text().find("send_http_response: sent HTTP response (" + std::to_string(want.size()) +
                              " bytes) to fd=" + p.name() + ":\n" + want + "\n"),
              std::string::npos);
}

TEST(send_http_response, counts_a_short_write_as_success)
{
    LogCapture log;
    const PeerPair p;
    const http_response rsp = reply(g_resp_ok);
    g_write_limit = 10;
    EXPECT_EQ(send_http_response(p.fd(), &rsp), 0);
    EXPECT_EQ(log.messages(ll::warning), Lines{"send_http_response: only 10 out of 32 bytes sent to fd=" + p.name()});
    EXPECT_TRUE(log.messages(ll::error).empty());
    g_write_limit = SIZE_MAX;
}

TEST(send_http_response, fails_where_nothing_could_be_sent)
{
    LogCapture log;
    const http_response rsp = reply(g_resp_ok);
    EXPECT_EQ(send_http_response(-1, &rsp), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[errors.size() - 2], "send_http_response: error sending HTTP response to fd=-1");
    EXPECT_EQ(errors.back(), "send_http_response: error compiling HTTP response for fd=-1");
}

TEST(send_http_response, sends_4095_bytes_at_most)
{
    const TempDir dir;
    const size_t head = STATUS.size() + 2;
    http_response rsp = reply(g_resp_ok);
    const std::string path = file_of(dir, std::string(4095 - head, 'b'));
    rsp.fpath = path.c_str();
    const PeerPair p;
    EXPECT_EQ(send_http_response(p.fd(), &rsp), 0);
    EXPECT_EQ(take(p.there.get(), 4095).size(), 4095u);

    file_of(dir, std::string(4096 - head, 'b'));
    LogCapture log;
    g_writes = 0;
    EXPECT_EQ(send_http_response(p.fd(), &rsp), -1);
    EXPECT_EQ(g_writes, 0);
    EXPECT_EQ(log.messages(ll::error).back(), "send_http_response: error compiling HTTP response for fd=" + p.name());
}

// ---- texts ----------------------------------------------------------------------------------------------------

TEST(get_web_seq, knows_five_characters_and_the_zero)
{
    EXPECT_STREQ(get_web_seq('&'), "&amp;");
    EXPECT_STREQ(get_web_seq('>'), "&gt;");
    EXPECT_STREQ(get_web_seq('<'), "&lt;");
    EXPECT_STREQ(get_web_seq('\''), "&apos;");
    EXPECT_STREQ(get_web_seq('"'), "&quot;");
    EXPECT_EQ(get_web_seq('\0'), nullptr);
    EXPECT_EQ(get_web_seq('a'), nullptr);
    EXPECT_EQ(web_SEQ_COUNT, 6u);
    EXPECT_EQ(web_SEQ[5], nullptr);
}

TEST(web_escape, replaces_each_character_by_its_entity)
{
    EXPECT_EQ(escape("a<b", 32), "2 a&lt;b");
    EXPECT_EQ(escape("a", 32), "0 ");
    EXPECT_EQ(escape("", 32), "0 ");
    EXPECT_EQ(escape("<", 32), "2 &lt;");
    EXPECT_EQ(escape("&amp;", 32), "2 &amp;amp;");
    EXPECT_EQ(escape("<a href='x'>\"&", 64), "7 &lt;a href=&apos;x&apos;&gt;&quot;&amp;");
    EXPECT_EQ(web_escape("a<b>c", nullptr, 0), 3);
}

TEST(web_escape, leaves_a_destination_without_need_alone)
{
    ExactMem dst(4, '#');
    EXPECT_EQ(web_escape("abcdefgh", dst.get(), 4), 0);
    EXPECT_EQ(dst.all(), "####");
}

TEST(web_escape, ends_the_last_stretch_with_no_zero)
{
    // By design: callers bring a zeroed destination.
    ExactMem dst(10, '#');
    EXPECT_EQ(web_escape("a<bc", dst.get(), 10), 2);
    EXPECT_EQ(dst.all(), "a&lt;bc###");
}

TEST(web_escape, gives_minus_34_where_the_text_does_not_fit)
{
    EXPECT_EQ(escape("a<b", 7), "2 a&lt;b");
    EXPECT_EQ(escape("a<b", 6), "-34 ");
    EXPECT_EQ(escape("a<", 6), "2 a&lt;");
    EXPECT_EQ(escape("a<", 5), "-34 ");
    EXPECT_EQ(escape("aaaaaa<", 3), "-34 ");
    EXPECT_EQ(escape("<aaaaaaaa", 8), "-34 ");
    EXPECT_EQ(escape("<", 0), "-34 ");
}

TEST(mk_hls_item_url, joins_the_folder_of_the_playlist_and_the_item)
{
    char buf[64];
    EXPECT_EQ(mk_hls_item_url("http://h/c/list.m3u8", "1.ts", buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "http://h/c/1.ts");
    EXPECT_EQ(mk_hls_item_url("HTTP://h/", "", buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "HTTP://h/");
    EXPECT_EQ(mk_hls_item_url("file://x", "Http://other/1.ts", buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "Http://other/1.ts");
}

TEST(mk_hls_item_url, refuses_a_playlist_that_has_no_http_path)
{
    LogCapture log;
    char buf[64] = "#";
    EXPECT_EQ(mk_hls_item_url("file:///c/list.m3u8", "1.ts", buf, sizeof(buf)), 22);
    EXPECT_EQ(mk_hls_item_url("", "1.ts", buf, sizeof(buf)), 22);
    EXPECT_EQ(mk_hls_item_url("http://h", "1.ts", buf, sizeof(buf)), 22);
    EXPECT_EQ(mk_hls_item_url("http:///x", "1.ts", buf, sizeof(buf)), 22);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"mk_hls_item_url: non-http M3U url: file:///c/list.m3u8",
                     "mk_hls_item_url: non-http M3U url: ", "mk_hls_item_url: pfx-len=7 bad m3u URL: http://h",
                     "mk_hls_item_url: pfx-len=8 bad m3u URL: http:///x"}));
    EXPECT_STREQ(buf, "#");
}

TEST(mk_hls_item_url, wants_room_for_both_and_the_zero)
{
    ExactMem fits(10, '#'), small(9, '#');
    EXPECT_EQ(mk_hls_item_url("http://h/x", "", fits.get(), 10), 0);
    EXPECT_EQ(mk_hls_item_url("http://h/x", "", small.get(), 9), 22);
    EXPECT_EQ(mk_hls_item_url("", "http://hh", fits.get(), 10), 0);
    EXPECT_EQ(fits.text(), "http://hh");
    LogCapture log;
    EXPECT_EQ(mk_hls_item_url("", "http://hh", small.get(), 9), 22);
    EXPECT_EQ(log.messages(ll::error), Lines{"mk_hls_item_url: item URL is too long: 9 chars"});
    EXPECT_EQ(small.all(), "#########");
}
