// HTTP sources: opening them, the request that a URL makes, and the exchange of a caller with a loop of its own.
#include "wopen.h"

#include "support/interrupts.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/net_space.h"
#include "support/source.h"
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

const std::string OK_HEAD = "HTTP/1.1 200 OK\r\n\r\n";

// A server that takes a request and answers it; `request` is there when the connection is closed.
struct HttpPeer {
    explicit HttpPeer(const std::string& reply)
        : request(promise.get_future()), server([this, reply](int fd) {
              std::string text = take_request(fd);
              put(fd, reply);
              promise.set_value(std::move(text));
          })
    {
    }
    std::string url(const char* rest = "/live/a.ts?x=1") const { return "http://" + server.address() + rest; }

    std::promise<std::string> promise;
    std::future<std::string> request;
    Server server;
};

void quit_at_third(int count)
{
    if (count == 3) g_quit = 1;
}

} // namespace

// ---- HTTP -----------------------------------------------------------------------------------------------------

TEST(usock_open, asks_an_http_source_and_keeps_the_tail)
{
    usock_set_apptag("kvt");
    HttpPeer peer(OK_HEAD + std::string(100, 'b'));
    Source s;
    LogCapture log;
    ASSERT_GE(s.open(peer.url()), 0);
    EXPECT_EQ(peer.request.get(), "GET /live/a.ts?x=1 HTTP/1.1\r\nHost: " + peer.server.address() +
                                      "\r\nConnection: close\r\nUser-Agent: kvt\r\n"
                                      "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                                      "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n");
    EXPECT_EQ(s.uc.url_kind, URI_HTTP);
    EXPECT_EQ(s.uc.bufcap, 2048u);
    EXPECT_EQ(std::string(s.uc.buf, s.uc.buflen) + take(s.fd, 1000), std::string(100, 'b'));
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(usock_open, puts_the_tail_into_a_lent_buffer)
{
    HttpPeer peer(OK_HEAD + "body");
    char lent[1024] = "";
    Source s;
    s.lend(lent, sizeof(lent));
    ASSERT_GE(s.open(peer.url()), 0);
    EXPECT_EQ(s.uc.buf, lent);
    EXPECT_EQ(std::string(lent, s.uc.buflen) + take(s.fd, 1000), "body");
}

TEST(usock_open, asks_with_http10_when_the_flag_says_so)
{
    HttpPeer peer(OK_HEAD);
    Source s;
    s.uc.http_flags = RQFLAG_HTTP10_GET;
    ASSERT_GE(s.open(peer.url("")), 0);
    EXPECT_EQ(s.uc.buflen, 0u);
    EXPECT_TRUE(peer.request.get().starts_with("GET / HTTP/1.0\r\n"));
}

TEST(usock_open, keeps_an_http_source_open_after_a_failed_exchange)
{
    for (const char* reply : {"HTTP/1.1 404 Not Found\r\n\r\n", "HTTP/1.1 200\r\n\r\n",
                              "HTTP/1.1 204 No Content\r\n\r\n", "HTTP/1.1 301 Moved\r\nLocation: /b\r\n\r\n", ""}) {
        HttpPeer peer(reply);
        Source s;
        LogCapture log;
        EXPECT_EQ(s.open(peer.url()), -1);
        // Its descriptor is nobody's, and its path stays until the context is closed.
        EXPECT_NE(s.uc.url_path, nullptr);
        EXPECT_NE(s.uc.buf, nullptr);
        EXPECT_EQ(log.count("CLOSED"), 0u);
        EXPECT_EQ(log.messages(ll::error).size(), 1u);
        const Lines info = log.messages(ll::info); // setup_client: IMMEDIATE CONNECT [fdN]
        ASSERT_EQ(info.size(), 1u);
        const int fd = atoi(info[0].c_str() + info[0].find("[fd") + 3);
        EXPECT_TRUE(is_open(fd));
        close(fd);
    }
}

TEST(usock_open, leaves_early_after_a_failed_connect_of_an_http_source)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    Source s;
    LogCapture log;
    EXPECT_EQ(s.open(loopback_url("http", port, "/a")), -1);
    EXPECT_NE(s.uc.url_path, nullptr);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_TRUE(errors[0].starts_with("setup_client: connect("));
    EXPECT_TRUE(errors[1].starts_with("nwrite: write(-1, "));
    EXPECT_EQ(errors[2], "send_http_request: error sending HTTP request to fd=-1");
}

TEST(usock_open, leaves_early_for_an_http_path_that_cannot_be_parsed)
{
    Source s;
    LogCapture log;
    EXPECT_EQ(s.open("http://[::1"), -1);
    EXPECT_NE(s.uc.url_path, nullptr);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"uri_path_addrport: ERROR parsing path=[[::1]", "uri_path_addrport: ERROR parsing path=[[::1]",
                     "fwd_http_rq: URI has no path tail: http://[::1"}));
}

TEST(usock_open, assumes_port_80_for_http)
{
    if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
    Source s;
    s.uc.skip_http = true;
    LogCapture log;
    // In this network nobody listens at the port, so that the refused connect shows which one was tried.
    EXPECT_EQ(s.open("http://127.0.0.1/a"), -1);
    EXPECT_TRUE(log.contains("usock_open: assuming HTTP port 80 for [http://127.0.0.1/a]"));
    EXPECT_TRUE(log.contains("open_socket: TCP CLIENT [UNSPEC (0)] socket for [127.0.0.1:80], ifc=none"));
    log.clear();
    Source digit; // one digit is a port
    digit.uc.skip_http = true;
    EXPECT_EQ(digit.open("http://127.0.0.1:9/a"), -1);
    EXPECT_EQ(log.count("assuming"), 0u);
    EXPECT_TRUE(log.contains("open_socket: TCP CLIENT [UNSPEC (0)] socket for [127.0.0.1:9], ifc=none"));
}

TEST(usock_open, runs_no_exchange_when_told_so)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.uc.skip_http = true;
    ASSERT_GE(s.open(loopback_url("http", port, "/a")), 0);
    EXPECT_EQ(s.uc.buflen, 0u);
    EXPECT_EQ(s.uc.bufcap, 2048u);
    const Fd peer(accept(listener.get(), nullptr, nullptr));
    char c;
    EXPECT_EQ(recv(peer.get(), &c, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(usock_open, closes_after_a_failed_connect_when_no_exchange_is_run)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    Source s;
    s.uc.skip_http = true;
    EXPECT_EQ(s.open(loopback_url("http", port, "/a")), -1);
    EXPECT_EQ(s.uc.url_path, nullptr);
    EXPECT_EQ(s.uc.buf, nullptr);
}

TEST(usock_open, forgives_a_time_out_that_cannot_be_set_after_a_successful_exchange)
{
    HttpPeer peer(OK_HEAD);
    Source s;
    s.uc.timeout_ms = -1500;
    LogCapture log;
    EXPECT_GE(s.open(peer.url()), 0);
    ASSERT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("set_socket_timeout: setsockopt("));
}

TEST(usock_open, fails_for_a_non_blocking_exchange_without_a_reply)
{
    // The connection completes in the listener's queue; nobody answers.
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.uc.skip_http = true;
    s.uc.non_blocking = true;
    ASSERT_GE(s.open(loopback_url("http", port, "/a")), 0);
    const Fd peer(accept(listener.get(), nullptr, nullptr));
    EXPECT_EQ(usock_http_get(s.fd, loopback_url("http", port, "/a").c_str(), 0), 0);
    size_t len = 0;
    EXPECT_EQ(get_http_response(s.fd, s.uc.buf, s.uc.bufcap, &len), 11);

    Source t;
    t.uc.non_blocking = true;
    EXPECT_EQ(t.open(loopback_url("http", port, "/a")), -1);
    EXPECT_NE(t.uc.url_path, nullptr);
    const Fd second(accept(listener.get(), nullptr, nullptr));
}

TEST(usock_open, is_held_by_a_silent_server_until_told_to_quit)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    LogCapture log;
    const Interrupts signals(quit_at_third);
    EXPECT_EQ(s.open(loopback_url("http", port, "/a")), -1);
    g_quit = 0;
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_NE(s.uc.url_path, nullptr);
}

// ---- request of a URL -----------------------------------------------------------------------------------------

namespace
{

// The request that a URL makes, as it goes out.
std::string request_for(const std::string& url, uint32_t flags = 0)
{
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const Fd here(fds[0]), there(fds[1]);
    EXPECT_EQ(fwd_http_rq(here.get(), url.c_str(), "kvt", flags), 0);
    return take_request(there.get());
}

std::string first_lines(const std::string& request)
{
    return request.substr(0, request.find("\r\nConnection"));
}

} // namespace

TEST(fwd_http_rq, asks_for_tail_and_query)
{
    const struct {
        const char* url;
        const char* want;
    } rows[] = {
        {"http://192.0.2.1:8080/live/a.ts?x=1", "GET /live/a.ts?x=1 HTTP/1.1\r\nHost: 192.0.2.1:8080"},
        {"http://192.0.2.1/", "GET / HTTP/1.1\r\nHost: 192.0.2.1"},
        {"http://192.0.2.1", "GET / HTTP/1.1\r\nHost: 192.0.2.1"},
        {"http://192.0.2.1/?x", "GET /?x HTTP/1.1\r\nHost: 192.0.2.1"},
        {"http://192.0.2.1?x=1", "GET /?x=1 HTTP/1.1\r\nHost: 192.0.2.1"},
        {"http://user@192.0.2.1/a", "GET /a HTTP/1.1\r\nHost: 192.0.2.1"},
        {"http:///a", "GET / HTTP/1.1\r\nHost: a"},
        {"http://:80/a", "GET /a HTTP/1.1\r\nHost: localhost:80"},
        // The brackets of an address are dropped from the host, and one stays in the target of a URL without a port.
        {"http://[2001:db8::1]:80/a", "GET /a HTTP/1.1\r\nHost: 2001:db8::1:80"},
        {"http://[2001:db8::1]/a", "GET /]/a HTTP/1.1\r\nHost: 2001:db8::1"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(first_lines(request_for(row.url)), row.want) << row.url;
}

TEST(fwd_http_rq, cuts_a_long_query_with_a_warning)
{
    const std::string head = "http://h/a?";
    for (const size_t len : {size_t{126}, size_t{127}, size_t{128}, size_t{200}}) {
        const std::string query(len - 3, 'q'); // "/a?" and the query are the request
        LogCapture log;
        const std::string target = "/a?" + query;
        EXPECT_EQ(first_lines(request_for(head + query)), "GET " + target.substr(0, 127) + " HTTP/1.1\r\nHost: h");
        Lines want;
        if (len > 127) {
            want.push_back("fwd_http_rq: GET query is too long [" + std::to_string(len) + " bytes], max=127 bytes.");
        }
        EXPECT_EQ(log.messages(ll::warning), want);
    }
}

TEST(fwd_http_rq, refuses_what_it_cannot_parse)
{
    LogCapture log;
    EXPECT_EQ(fwd_http_rq(-1, "a", "kvt", 0), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"uri_extract: error parsing URI: [a]"}));
    log.clear();
    EXPECT_EQ(fwd_http_rq(-1, "http://[::1", "kvt", 0), -1);
    EXPECT_EQ(log.messages(ll::error).back(), "fwd_http_rq: URI has no path tail: http://[::1");
}

// What counts is the flag of the request; the setting is only told.
TEST(fwd_http_rq, only_tells_the_setting_for_http10)
{
    g_usock_flags.use_http10_get = true;
    LogCapture log;
    EXPECT_TRUE(request_for("http://h/a").starts_with("GET /a HTTP/1.1\r\n"));
    EXPECT_TRUE(log.contains("fwd_http_rq: Using HTTP/1.0 request"));
    g_usock_flags.use_http10_get = false;
    log.clear();
    EXPECT_TRUE(request_for("http://h/a", RQFLAG_HTTP10_GET).starts_with("GET /a HTTP/1.0\r\n"));
    EXPECT_EQ(log.count("Using HTTP/1.0"), 0u);
}

TEST(usock_http_get, signs_with_the_application_tag)
{
    int fds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const Fd here(fds[0]), there(fds[1]);
    usock_set_apptag("tagged");
    EXPECT_EQ(usock_http_get(here.get(), "http://h/a", RQFLAG_KEEPALIVE), 0);
    const std::string request = take_request(there.get());
    EXPECT_NE(request.find("\r\nUser-Agent: tagged\r\n"), std::string::npos);
    EXPECT_NE(request.find("\r\nConnection: keep-alive\r\n"), std::string::npos);
}

// ---- a caller's own loop --------------------------------------------------------------------------------------

TEST(usock_http_get_response, takes_any_status_of_success)
{
    for (const int code : {200, 206, 299}) {
        PeerPair p;
        p.reply("HTTP/1.1 " + std::to_string(code) + " OK\r\n\r\nbody");
        char buf[256];
        http_resp_buf resp = {buf, sizeof(buf), {}};
        LogCapture log;
        EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 0);
        EXPECT_EQ(resp.ctx.code, code);
        EXPECT_EQ(log.messages().front(), "usock_http_get_response: reading HTTP response from fd=" + p.name());
        EXPECT_EQ(log.messages().back(), "usock_http_get_response: got HTTP tail of 4 bytes from fd" + p.name());
    }
}

TEST(usock_http_get_response, says_nothing_of_a_tail_that_is_not_there)
{
    PeerPair p;
    p.reply(OK_HEAD);
    char buf[256];
    http_resp_buf resp = {buf, sizeof(buf), {}};
    LogCapture log;
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 0);
    EXPECT_EQ(resp.ctx.total, resp.ctx.tail);
    EXPECT_EQ(log.count("HTTP tail"), 0u);
}

TEST(usock_http_get_response, gives_13_for_another_status)
{
    for (const int code : {199, 300, 404}) {
        PeerPair p;
        p.reply("HTTP/1.1 " + std::to_string(code) + " Word\r\n\r\n");
        char buf[256];
        http_resp_buf resp = {buf, sizeof(buf), {}};
        LogCapture log;
        EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 13);
        EXPECT_EQ(log.messages(ll::warning),
                  (Lines{"usock_http_get_response: expected HTTP 200-299, got HTTP " + std::to_string(code)}));
    }
}

TEST(usock_http_get_response, gives_11_while_more_is_to_come)
{
    PeerPair p;
    p.reply("HTTP/1.1 ", SIZE_MAX, false);
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    char buf[256];
    http_resp_buf resp = {buf, sizeof(buf), {}};
    LogCapture log;
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 11);
    EXPECT_EQ(log.messages().back(), "usock_http_get_response: [9 bytes] in, expecting more data from fd" + p.name());
}

// Callers read a reply in one call; the place of a second one stays as it is.
TEST(usock_http_get_response, goes_twice_as_far_in_at_a_second_call)
{
    PeerPair p;
    p.reply("HTTP/", SIZE_MAX, false);
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    char buf[64] = "";
    http_resp_buf resp = {buf, sizeof(buf), {}};
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 11);
    p.reply("1.1", SIZE_MAX, false);
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 11);
    EXPECT_EQ(memcmp(buf, "HTTP/\0\0\0\0\0001.1", 13), 0);
}

TEST(usock_http_get_response, keeps_to_its_buffer_at_a_second_call)
{
    PeerPair p;
    p.reply("HTTP/", SIZE_MAX, false);
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    char buf[80] = "";
    http_resp_buf resp = {buf, 64, {}};
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), 11);
    p.reply(std::string(200, 'x'), SIZE_MAX, false);
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), -1);
    EXPECT_EQ(resp.ctx.total, 58); // 64, less 5 that the buffer was advanced by, less the last place
    EXPECT_EQ(std::string(buf + 10, 54), std::string(53, 'x') + '\0');
}

TEST(usock_http_get_response, gives_7_for_a_full_buffer_and_minus_1_for_a_failure)
{
    char buf[16];
    http_resp_buf resp = {buf, sizeof(buf), {0, 16, 0}};
    LogCapture log;
    EXPECT_EQ(usock_http_get_response(-1, &resp), 7);
    EXPECT_EQ(log.messages(ll::error), (Lines{"usock_http_get_response: buffer is full, size=16"}));
    log.clear();
    PeerPair p;
    p.reply("");
    resp.ctx.total = 0;
    EXPECT_EQ(usock_http_get_response(p.fd(), &resp), -1);
    EXPECT_EQ(log.messages(ll::error).back(),
              "usock_http_get_response: err=-1 getting HTTP response from fd" + p.name());
}

TEST(usock_http_get_response_DeathTest, stops_without_a_buffer)
{
    char buf[8];
    http_resp_buf none = {nullptr, 8, {}}, empty = {buf, 0, {}};
    EXPECT_DEATH(usock_http_get_response(0, &none), "resp->buf && resp->len > 0");
    EXPECT_DEATH(usock_http_get_response(0, &empty), "resp->buf && resp->len > 0");
}

namespace
{

struct FreeBody {
    void operator()(http_body_buf* p) const { free(p); }
};
using Body = std::unique_ptr<http_body_buf, FreeBody>;

Body body_of(size_t buf_size, size_t data_len)
{
    Body body(static_cast<http_body_buf*>(calloc(1, sizeof(http_body_buf) + 64)));
    body->buf_size = buf_size;
    body->data_len = data_len;
    return body;
}

} // namespace

// The count to read is taken in an order that only a buffer that is exactly full passes; callers know it so.
TEST(usock_http_get_body, is_complete_where_count_and_size_are_equal)
{
    const Body body = body_of(10, 10);
    LogCapture log;
    EXPECT_EQ(usock_http_get_body(-1, body.get()), 0);
    EXPECT_EQ(log.messages(), (Lines{"usock_http_get_body: complete at 10 bytes"}));
}

TEST(usock_http_get_body, reports_a_read_that_gives_nothing)
{
    PeerPair p;
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    p.reply("abc", SIZE_MAX, false);
    const Body body = body_of(10, 15);
    LogCapture log;
    EXPECT_EQ(usock_http_get_body(p.fd(), body.get()), 11);
    EXPECT_EQ(body->data_len, 18u);
    EXPECT_EQ(memcmp(body->data + 15, "abc", 3), 0);
    EXPECT_TRUE(log.contains("usock_http_get_body: read(fd" + p.name() + "..) 3 bytes, 2 left to read"));
    EXPECT_EQ(log.messages(ll::error), Lines{}); // no data yet is no fault
    EXPECT_EQ(usock_http_get_body(-1, body.get()), EBADF);
}

TEST(usock_http_get_body, reads_a_single_byte)
{
    PeerPair p;
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    const Body last = body_of(10, 11);
    EXPECT_EQ(usock_http_get_body(p.fd(), last.get()), 11); // one byte is waited for
    p.reply("a", SIZE_MAX, false);
    const Body first = body_of(10, 12);
    EXPECT_EQ(usock_http_get_body(p.fd(), first.get()), 11); // one of two has come
    EXPECT_EQ(first->data_len, 13u);
    EXPECT_EQ(first->data[12], 'a');
}

// The end of the data sets no error number: one left over from an earlier call is not its reason.
TEST(usock_http_get_body, gives_minus_1_at_the_end_of_the_data_whatever_failed_before)
{
    for (const int stale : {0, EAGAIN, EBADF}) {
        PeerPair p;
        p.reply("");
        const Body body = body_of(10, 15);
        errno = stale;
        EXPECT_EQ(usock_http_get_body(p.fd(), body.get()), -1) << stale;
    }
}

TEST(usock_http_get_body_DeathTest, stops_on_every_other_count)
{
    const Body less = body_of(10, 9);
    EXPECT_DEATH(usock_http_get_body(-1, less.get()), "Assertion");
    PeerPair p;
    p.reply("abcde");
    const Body more = body_of(10, 15);
    EXPECT_DEATH(usock_http_get_body(p.fd(), more.get()), "Assertion");
}
