// HTTP exchange, client side.
#include "webops.h"

#include "netops.h"
#include "rqs.h"
#include "support/interrupts.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

// The linker leads nwrite here, so that a peer which takes only a part of a write can be had.
static size_t g_write_limit = SIZE_MAX;
extern "C" ssize_t __real__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags);
extern "C" ssize_t __wrap__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags)
{
    return __real__Z6nwriteiPKcmj(fd, buf, count < g_write_limit ? count : g_write_limit, flags);
}

namespace
{

using Lines = std::vector<std::string>;

const std::string OK_HEAD = "HTTP/1.1 200 OK\r\n\r\n";

http_request get_request(const char* request)
{
    http_request rq = {};
    rq.request = request;
    rq.server = "kvt";
    rq.host_addr = "192.0.2.1";
    rq.host_port = "";
    return rq;
}

// What a request looks like on the wire.
std::string sent_request(const http_request& rq)
{
    PeerPair p;
    EXPECT_EQ(send_http_request(p.fd(), &rq), 0);
    char buf[4096];
    const ssize_t n = read(p.there.get(), buf, sizeof(buf));
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

std::string wire_text(const std::string& target, const std::string& version, const std::string& host,
                      const std::string& connection, const std::string& agent)
{
    return "GET " + target + " HTTP/" + version + "\r\nHost: " + host + "\r\nConnection: " + connection +
           "\r\nUser-Agent: " + agent +
           "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
           "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
}

ssize_t eod(const std::string& text)
{
    // An exact allocation lets the sanitizer see a read behind the text.
    const auto copy = std::make_unique<char[]>(text.size());
    memcpy(copy.get(), text.data(), text.size());
    return head_eod(copy.get(), text.size());
}

// The result of one whole exchange's reading side.
struct Answer {
    int rc;
    std::string tail; // "#" where the tail's size was left alone
};

Answer answer_of(int fd, size_t cap = 2048)
{
    std::vector<char> buf(cap + 1, '#');
    size_t len = 777777;
    const int rc = get_http_response(fd, buf.data(), cap, &len);
    EXPECT_EQ(buf[cap], '#');
    return {rc, len == 777777 ? "#" : std::string(buf.data(), len)};
}

Answer answer_to(const std::string& reply, size_t piece = SIZE_MAX, size_t cap = 2048)
{
    PeerPair p;
    p.reply(reply, piece);
    return answer_of(p.fd(), cap);
}

void quit_at_third(int count)
{
    if (count == 3) g_quit = 1;
}

} // namespace

// ---- request --------------------------------------------------------------------------------------------------

TEST(send_http_request, sends_one_get)
{
    EXPECT_EQ(sent_request(get_request("/live/a.ts?x=1")),
              wire_text("/live/a.ts?x=1", "1.1", "192.0.2.1", "close", "kvt"));
}

TEST(send_http_request, logs_what_it_sent)
{
    PeerPair p;
    LogCapture log;
    const http_request rq = get_request("/a");
    ASSERT_EQ(send_http_request(p.fd(), &rq), 0);
    const std::string wire = wire_text("/a", "1.1", "192.0.2.1", "close", "kvt");
    EXPECT_NE(log.text().find("send_http_request: sent " + std::to_string(wire.size()) + " bytes to fd=" + p.name() +
                              ":\n" + wire),
              std::string::npos);
}

TEST(send_http_request, adds_the_leading_slash)
{
    EXPECT_TRUE(sent_request(get_request("a")).starts_with("GET /a HTTP/1.1\r\n"));
    EXPECT_TRUE(sent_request(get_request("")).starts_with("GET / HTTP/1.1\r\n"));
}

TEST(send_http_request, changes_only_the_version_with_the_http10_flag)
{
    http_request rq = get_request("/a");
    rq.flags = RQFLAG_HTTP10_GET;
    EXPECT_EQ(sent_request(rq), wire_text("/a", "1.0", "192.0.2.1", "close", "kvt"));
    rq.flags = RQFLAG_KEEPALIVE;
    EXPECT_EQ(sent_request(rq), wire_text("/a", "1.1", "192.0.2.1", "keep-alive", "kvt"));
}

TEST(send_http_request, names_host_and_port)
{
    http_request rq = get_request("/a");
    rq.host_port = "8080";
    EXPECT_EQ(sent_request(rq), wire_text("/a", "1.1", "192.0.2.1:8080", "close", "kvt"));
    for (const char* none : {static_cast<const char*>(nullptr), "", " 80", "\t", "\r", "\n80"}) {
        rq.host_port = none;
        EXPECT_EQ(sent_request(rq), wire_text("/a", "1.1", "192.0.2.1", "close", "kvt"));
    }
    for (const char* local : {static_cast<const char*>(nullptr), ""}) {
        rq.host_addr = local;
        EXPECT_EQ(sent_request(rq), wire_text("/a", "1.1", "localhost", "close", "kvt"));
    }
}

TEST(send_http_request, refuses_other_types)
{
    http_request rq = get_request("/a");
    rq.type = RQTYPE_HEAD;
    LogCapture log;
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    EXPECT_EQ(log.messages(), (Lines{"send_http_request: only GET requests are currently supported."}));
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    log.clear();
    const std::string over(128, 'h');
    rq.host_addr = over.c_str(); // the type is judged first
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"send_http_request: only GET requests are currently supported."}));
}

TEST(send_http_request, holds_the_limit_of_the_host)
{
    const std::string fits(127, 'h'), over(128, 'h'), with_port(124, 'h');
    http_request rq = get_request("/a");
    rq.host_addr = fits.c_str();
    EXPECT_EQ(sent_request(rq), wire_text("/a", "1.1", fits, "close", "kvt"));
    LogCapture log;
    rq.host_addr = over.c_str();
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"send_http_request: host buffer is too small, 128 bytes needed"}));
    log.clear();
    rq.host_addr = with_port.c_str();
    rq.host_port = "8080";
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"send_http_request: host buffer is too small, 129 bytes needed"}));
}

TEST(send_http_request, holds_the_limit_of_the_request)
{
    const size_t rest = wire_text("/", "1.1", "192.0.2.1", "close", "kvt").size() - 1;
    const std::string fits = "/" + std::string(2047 - rest - 1, 'r'), over = fits + "r";
    EXPECT_EQ(sent_request(get_request(fits.c_str())).size(), 2047u);
    LogCapture log;
    const http_request rq = get_request(over.c_str());
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"send_http_request: buffer is too small, 2048 bytes required."}));
}

TEST(send_http_request, reports_a_failed_send)
{
    LogCapture log;
    const http_request rq = get_request("/a");
    EXPECT_EQ(send_http_request(-1, &rq), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("nwrite: write(-1, "));
    EXPECT_EQ(errors[1], "send_http_request: error sending HTTP request to fd=-1");
}

TEST(send_http_request, makes_no_second_write)
{
    PeerPair p;
    LogCapture log;
    const http_request rq = get_request("/a");
    const std::string wire = wire_text("/a", "1.1", "192.0.2.1", "close", "kvt");
    g_write_limit = 10;
    EXPECT_EQ(send_http_request(p.fd(), &rq), -1);
    g_write_limit = SIZE_MAX;
    EXPECT_EQ(log.messages(ll::warning), (Lines{"send_http_request: only 10 out of " + std::to_string(wire.size()) +
                                                " bytes sent to fd=" + p.name()}));
    char buf[4096];
    EXPECT_EQ(recv(p.there.get(), buf, sizeof(buf), MSG_DONTWAIT), 10);
    EXPECT_EQ(recv(p.there.get(), buf, sizeof(buf), MSG_DONTWAIT), -1);
}

// ---- end of head ----------------------------------------------------------------------------------------------

TEST(head_eod, is_behind_the_blank_line)
{
    const struct {
        const char* text;
        ssize_t want;
    } rows[] = {
        {"", 0},
        {"a", 0},
        {"a\n", 0},
        {"a\n\n", 3},
        {"a\n\nbody", 3},
        {"a\nb\n\n", 5},
        {"\n\n", 2},
        {"a\r\n\r\n", 5},
        {"a\r\n\r\nbody", 5},
        {"\r\n\r\n", 4},
        {"a\r\nb\r\n\r\n", 8},
        // A return too near the end ends the search, whatever follows it.
        {"\r", 0},
        {"\r\n", 0},
        {"\r\n\r", 0},
        {"a\r\n\n", 0},
        {"a\r\n\nb", 4},
        {"\r\n\nb", 3},
        {"a\rb\n\n", 5},
        {"\rx\n\n", 4},
        {"\r\r\n\r\n", 5},
        {"a\n\r\nb", 0},
        {"a\n\r\n\r\nb", 6},
    };
    for (const auto& row : rows)
        EXPECT_EQ(eod(row.text), row.want) << testing::PrintToString(row.text);
}

TEST(head_eod, reads_zero_bytes_like_any_other)
{
    EXPECT_EQ(eod(std::string("a\0b\n\nc", 6)), 5);
}

TEST(head_eod, keeps_to_its_bytes_and_finds_what_a_plain_search_finds)
{
    std::mt19937 rnd(20240612);
    const std::string alphabet = "\r\n\r\nab";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (size_t n = rnd() % 16; n > 0; --n)
            text += alphabet[rnd() % alphabet.size()];
        const ssize_t got = eod(text);
        ASSERT_GE(got, 0);
        ASSERT_LE(got, static_cast<ssize_t>(text.size()));
        if (got == 0) continue;
        const std::string head = text.substr(0, static_cast<size_t>(got));
        EXPECT_TRUE(head.ends_with("\n\n") || head.ends_with("\r\n\r\n"));
    }
}

TEST(is_aborted, knows_the_errors_of_a_broken_connection)
{
    EXPECT_TRUE(is_aborted(ECONNRESET));
    EXPECT_TRUE(is_aborted(ECONNABORTED));
    for (const int err : {0, EAGAIN, EPIPE, EINTR, EBADF})
        EXPECT_FALSE(is_aborted(err));
}

TEST(read_http, looks_from_the_buffers_start)
{
    PeerPair p;
    p.reply("HTTP/1.1 200 OK\r\n\r\nbody", 18);
    char buf[64];
    ssize_t tail = 0;
    LogCapture log;
    EXPECT_EQ(read_http(p.fd(), buf, sizeof(buf), 0, &tail), 18);
    EXPECT_EQ(tail, 0);
    EXPECT_EQ(log.messages(ll::debug),
              (Lines{"read_http: fd=" + p.name() + ", no HTTP EOD marker found, 18 bytes read.",
                     "read_http: 18 bytes read from fd" + p.name()}));
    log.clear();
    EXPECT_EQ(read_http(p.fd(), buf, sizeof(buf), 18, &tail), 5);
    EXPECT_EQ(tail, 19);
    EXPECT_EQ(log.messages(ll::debug),
              (Lines{"read_http: HTTP EOD marker found at pos=19", "read_http: 5 bytes read from fd" + p.name()}));
    log.clear();
    EXPECT_EQ(read_http(p.fd(), buf, sizeof(buf), 23, &tail), 0);
    EXPECT_EQ(log.messages(ll::debug), (Lines{"read_http: EOD(0) for fd" + p.name()}));
}

TEST(read_http, keeps_to_the_rest_of_the_buffer_and_needs_no_place_for_the_tail)
{
    PeerPair p;
    p.reply(OK_HEAD);
    char buf[8] = "#######";
    EXPECT_EQ(read_http(p.fd(), buf, 6, 4, nullptr), 2);
    EXPECT_STREQ(buf, "####HT#");
    EXPECT_EQ(read_http(-1, buf, 6, 4, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- reply head -----------------------------------------------------------------------------------------------

TEST(recv_http_response, parses_the_status_line)
{
    PeerPair p;
    p.reply("HTTP/1.0 200 Okay then\r\nServer: x\r\n\r\nbody");
    char buf[256];
    http_resp_ctx ctx = {};
    LogCapture log;
    EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), 0);
    EXPECT_EQ(ctx.code, 200);
    EXPECT_EQ(ctx.tail, 37);
    EXPECT_EQ(ctx.total, 41);
    EXPECT_EQ(std::string(buf + ctx.tail, 4), "body");
    EXPECT_EQ(buf[ctx.tail - 1], '\0');
    EXPECT_TRUE(log.contains("recv_http_response: read 41 bytes from fd=" + p.name()));
    EXPECT_TRUE(log.contains("recv_http_response: total=41, tail=37; buf=[HTTP/1.0 200 Okay then"));
    EXPECT_EQ(log.messages().back(), "recv_http_response: fd=" + p.name() + " received: HTTP/1.0 200 Okay");
}

TEST(recv_http_response, puts_a_head_together_byte_by_byte)
{
    for (const std::string& head : {OK_HEAD, std::string("HTTP/1.1 200 OK\n\n")}) {
        PeerPair p;
        // The last byte of the second form is seen at once, that of the first too: no byte is waited for behind it.
        p.reply(head, 1, false);
        char buf[256];
        http_resp_ctx ctx = {};
        LogCapture log;
        EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), 0);
        EXPECT_EQ(ctx.code, 200);
        EXPECT_EQ(ctx.total, static_cast<ssize_t>(head.size()));
        EXPECT_EQ(ctx.tail, ctx.total);
        EXPECT_EQ(log.count("recv_http_response: reading more from fd" + p.name()), head.size() - 1);
    }
}

TEST(recv_http_response, waits_for_a_byte_behind_a_mixed_end_of_head)
{
    PeerPair p;
    p.reply("HTTP/1.1 200 OK\r\n\n", SIZE_MAX, false);
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    char buf[256];
    http_resp_ctx ctx = {};
    LogCapture log;
    EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), 11);
    EXPECT_EQ(log.messages().back(), "recv_http_response: expecting more data from fd=" + p.name());
    EXPECT_EQ(ctx.tail, 0);
    p.reply("x");
    EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), 0);
    EXPECT_EQ(ctx.total - ctx.tail, 1);
}

TEST(recv_http_response, refuses_a_status_line_without_all_of_it)
{
    const struct {
        const char* reply;
        int parsed;
    } rows[] = {{"HTTP/1.1 200\r\n\r\n", 3},
                {"HTTP/1.1 OK\r\n\r\n", 2},
                {"HTTP/1\r\n\r\n", 1},
                {"ICY 200 OK\r\n\r\n", 0},
                {"\r\n\r\n", 0},
                {"\n\n", 0},
                {"HTTP/11.1 200 OK\r\n\r\n", 1}};
    for (const auto& row : rows) {
        PeerPair p;
        p.reply(row.reply);
        char buf[256];
        http_resp_ctx ctx = {};
        LogCapture log;
        EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), -1) << row.reply;
        EXPECT_EQ(log.messages(ll::error), (Lines{"recv_http_response: parsed " + std::to_string(row.parsed) +
                                                  " < 4 elements (expected to be parsed)"}));
        EXPECT_EQ(ctx.code, 0);
    }
}

TEST(recv_http_response, cuts_a_long_reason)
{
    PeerPair p;
    p.reply("HTTP/1.1 200 " + std::string(300, 'r') + "\r\n\r\n");
    char buf[512];
    http_resp_ctx ctx = {};
    LogCapture log;
    EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), 0);
    EXPECT_TRUE(log.messages().back().ends_with("HTTP/1.1 200 " + std::string(31, 'r')));
}

TEST(recv_http_response, refuses_a_peer_that_leaves_before_the_end_of_head)
{
    for (const char* part : {"", "HTTP/1.1 200 OK\r\n"}) {
        PeerPair p;
        p.reply(part);
        char buf[256];
        http_resp_ctx ctx = {};
        LogCapture log;
        EXPECT_EQ(recv_http_response(p.fd(), buf, sizeof(buf), &ctx), -1);
        EXPECT_EQ(log.messages(ll::error),
                  (Lines{"recv_http_response: client [fd=" + p.name() + "] connection broken"}));
    }
}

TEST(recv_http_response, refuses_a_connection_that_was_reset)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    socket_spec spec = {};
    spec.socktype = SOCK_STREAM;
    const Fd fd(open_socket("127.0.0.1", std::to_string(port).c_str(), nullptr, &spec, nullptr, nullptr));
    {
        const Fd peer(accept(listener.get(), nullptr, nullptr));
        const linger at_once = {1, 0}; // closes with a reset
        ASSERT_EQ(setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)), 0);
    }
    char buf[256];
    http_resp_ctx ctx = {};
    LogCapture log;
    EXPECT_EQ(recv_http_response(fd.get(), buf, sizeof(buf), &ctx), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"recv_http_response: client [fd=" + std::to_string(fd.get()) + "] connection broken"}));
}

TEST(recv_http_response, adds_no_word_to_another_read_failure)
{
    char buf[256];
    http_resp_ctx ctx = {};
    LogCapture log;
    EXPECT_EQ(recv_http_response(-1, buf, sizeof(buf), &ctx), -1);
    ASSERT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("nread: read(-1, "));
}

TEST(recv_http_response, refuses_a_head_that_fills_the_buffer)
{
    for (const size_t head : {size_t{30}, size_t{31}, size_t{32}, size_t{33}}) {
        const std::string line = "HTTP/1.1 200 OK";
        PeerPair p;
        p.reply(line + std::string(head - line.size() - 4, ' ') + "\r\n\r\n");
        char buf[32];
        http_resp_ctx ctx = {};
        LogCapture log;
        const int rc = recv_http_response(p.fd(), buf, sizeof(buf), &ctx);
        if (head < sizeof(buf)) {
            EXPECT_EQ(rc, 0);
            continue;
        }
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(log.messages(ll::warning), (Lines{"recv_http_response: buffer already full, yet no HTTP EOD"}));
        EXPECT_EQ(ctx.total, 31);
    }
}

TEST(recv_http_response, takes_the_last_byte_that_fits_by_itself)
{
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    for (const size_t room : {head.size() + 1, head.size()}) { // one place stays free
        PeerPair p;
        p.reply(head, room - 2);
        std::vector<char> buf(room, '#');
        http_resp_ctx ctx = {};
        EXPECT_EQ(recv_http_response(p.fd(), buf.data(), room, &ctx), room > head.size() ? 0 : -1);
        EXPECT_EQ(ctx.total, static_cast<ssize_t>(room - 1));
    }
}

TEST(recv_http_response_DeathTest, stops_without_a_buffer)
{
    char buf[8];
    http_resp_ctx ctx = {};
    EXPECT_DEATH(recv_http_response(0, nullptr, 8, &ctx), "Assertion");
    EXPECT_DEATH(recv_http_response(0, buf, 0, &ctx), "Assertion");
}

// ---- exchange -------------------------------------------------------------------------------------------------

TEST(get_http_response, hands_over_the_tail)
{
    PeerPair p;
    const std::string body(100, 'b');
    p.reply(OK_HEAD + body);
    LogCapture log;
    const Answer a = answer_of(p.fd());
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, body);
    EXPECT_EQ(log.messages().front(), "get_http_response: reading HTTP response from fd=" + p.name());
    EXPECT_EQ(log.messages().back(), "get_http_response: response for fd" + p.name() + " has a tail of 100 bytes");
}

TEST(get_http_response, finds_heads_of_either_line_end_and_in_any_pieces)
{
    for (const std::string head : {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 200 OK\n\n", "HTTP/1.1 200 OK\nA: b\n\n"}) {
        for (const size_t piece : {size_t{1}, size_t{2}, size_t{7}, SIZE_MAX}) {
            EXPECT_EQ(answer_to(head, piece).rc, 0);
            const Answer a = answer_to(head + "xyz", piece);
            EXPECT_EQ(a.rc, 0);
            // What came in the read that ended the head is the tail; the rest is still to be read.
            EXPECT_TRUE(std::string("xyz").starts_with(a.tail)) << a.tail;
        }
    }
}

TEST(get_http_response, gives_a_tail_of_nothing_for_a_bare_head)
{
    const Answer a = answer_to(OK_HEAD);
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, "");
}

TEST(get_http_response, hands_over_nothing_where_the_head_has_no_end)
{
    for (const std::string& reply : {std::string("HTTP/1.1 200 OK\r\nbytes"), std::string(2000, 'h')}) {
        const Answer a = answer_to(reply);
        EXPECT_EQ(a.rc, -1);
        EXPECT_EQ(a.tail, "#");
    }
}

TEST(get_http_response, refuses_every_status_but_200)
{
    for (const int code : {100, 199, 201, 204, 206, 301, 302, 404, 500}) {
        PeerPair p;
        p.reply("HTTP/1.1 " + std::to_string(code) + " Word\r\n\r\nbody");
        LogCapture log;
        const Answer a = answer_of(p.fd());
        EXPECT_EQ(a.rc, -1);
        EXPECT_EQ(a.tail, "#");
        EXPECT_EQ(log.messages(ll::error),
                  (Lines{"get_http_response: expected HTTP 200, got HTTP " + std::to_string(code)}));
    }
}

TEST(get_http_response, refuses_a_status_without_a_reason_and_still_hands_over_the_tail)
{
    const Answer a = answer_to("HTTP/1.1 200\r\n\r\nbody");
    EXPECT_EQ(a.rc, -1);
    EXPECT_EQ(a.tail, "body");
}

TEST(get_http_response, takes_1023_bytes_of_a_reply)
{
    const std::string line = "HTTP/1.1 200 OK\r\n";
    const auto head_of = [&line](size_t size) { return line + std::string(size - line.size() - 4, 'h') + "\r\n\r\n"; };
    EXPECT_EQ(answer_to(head_of(1022)).rc, 0);
    EXPECT_EQ(answer_to(head_of(1023)).rc, 0);
    LogCapture log;
    EXPECT_EQ(answer_to(head_of(1024)).rc, -1);
    EXPECT_EQ(log.messages(ll::warning), (Lines{"recv_http_response: buffer already full, yet no HTTP EOD"}));
}

TEST(get_http_response, leaves_the_rest_of_the_body_in_the_socket)
{
    Server server([](int fd) {
        (void)take_request(fd);
        put(fd, OK_HEAD + std::string(5000, 'b'));
    });
    socket_spec spec = {};
    spec.socktype = SOCK_STREAM;
    const Fd fd(open_socket("127.0.0.1", std::to_string(server.port()).c_str(), nullptr, &spec, nullptr, nullptr));
    put(fd.get(), "GET / HTTP/1.0\r\n\r\n");
    const Answer a = answer_of(fd.get());
    EXPECT_EQ(a.rc, 0);
    EXPECT_LE(a.tail.size(), 1023 - OK_HEAD.size());
    EXPECT_EQ(a.tail.size() + take(fd.get(), 10000).size(), 5000u);
}

TEST(get_http_response, drops_a_tail_that_is_too_big)
{
    PeerPair p;
    p.reply(OK_HEAD + std::string(51, 'b'));
    LogCapture log;
    const Answer a = answer_of(p.fd(), 50);
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, "");
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"get_http_response: tail for fd" + p.name() + " is too big: 51 bytes, skipping"}));
    EXPECT_EQ(answer_to(OK_HEAD + std::string(50, 'b'), SIZE_MAX, 50).tail.size(), 50u);
    EXPECT_EQ(answer_to(OK_HEAD + std::string(49, 'b'), SIZE_MAX, 50).tail.size(), 49u);
}

// The size of the head decides, not that of the tail.
TEST(get_http_response, gives_no_tail_where_the_head_is_as_long_as_the_capacity)
{
    const size_t head = OK_HEAD.size();
    EXPECT_EQ(answer_to(OK_HEAD + "b", SIZE_MAX, head + 1).tail, "b");
    const Answer a = answer_to(OK_HEAD + "b", SIZE_MAX, head);
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, "#");
}

TEST(get_http_response, needs_no_place_for_the_tail)
{
    for (const bool with_buf : {false, true}) {
        PeerPair p;
        p.reply(OK_HEAD + "body");
        char buf[64] = "#";
        size_t len = 7;
        EXPECT_EQ(get_http_response(p.fd(), with_buf ? buf : nullptr, sizeof(buf), with_buf ? nullptr : &len), 0);
        EXPECT_STREQ(buf, "#");
        EXPECT_EQ(len, 7u);
    }
}

TEST(get_http_response, answers_11_on_a_non_blocking_descriptor_without_a_reply)
{
    PeerPair p;
    ASSERT_EQ(fcntl(p.fd(), F_SETFL, O_NONBLOCK), 0);
    LogCapture log;
    const Answer a = answer_of(p.fd());
    EXPECT_EQ(a.rc, 11);
    EXPECT_EQ(a.tail, "#");
    EXPECT_EQ(log.messages().back(), "get_http_response: expecting more data from fd" + p.name());
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(get_http_response, goes_on_after_each_time_out_of_a_blocking_descriptor)
{
    PeerPair p;
    ASSERT_EQ(set_rcv_timeout(p.fd(), 5), 0);
    LogCapture log;
    std::thread late([&] {
        // Answers once two time-outs have gone by.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (log.count("get_http_response: expecting more data") < 2 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        p.reply(OK_HEAD + "body");
    });
    const Answer a = answer_of(p.fd());
    late.join();
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, "body");
    EXPECT_GE(log.count("get_http_response: expecting more data from fd" + p.name()), 2u);
}

// A server may stay silent for as long as it likes: only the moment since the last time-out is looked at.
TEST(get_http_response, counts_its_five_seconds_anew_after_each_time_out)
{
    PeerPair p;
    constexpr int tmout_ms = 60;
    ASSERT_EQ(set_rcv_timeout(p.fd(), tmout_ms), 0);
    LogCapture log;
    std::thread late([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        const auto wait_for = [&](size_t count) {
            while (log.count("get_http_response: expecting more data") < count &&
                   std::chrono::steady_clock::now() < deadline)
                std::this_thread::yield();
        };
        wait_for(3);
        // The loop clock comes to stand behind the end of the first five seconds, and ahead of that of the last ones.
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        now.tv_sec += 5;
        now.tv_nsec -= tmout_ms * 1000000L;
        if (now.tv_nsec < 0) {
            now.tv_nsec += 1000000000L;
            --now.tv_sec;
        }
        g_rqs.itime = now;
        wait_for(5);
        p.reply(OK_HEAD);
    });
    const Answer a = answer_of(p.fd());
    late.join();
    EXPECT_EQ(a.rc, 0);
}

TEST(get_http_response, waits_for_a_silent_server_until_told_to_quit)
{
    PeerPair p;
    LogCapture log;
    const Interrupts signals(quit_at_third);
    const Answer a = answer_of(p.fd());
    g_quit = 0;
    EXPECT_EQ(a.rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_GE(signals.count(), 3);
}

TEST(get_http_response, survives_signals_in_the_middle_of_a_head)
{
    static int s_fd;
    PeerPair p;
    p.reply("HTTP/1.1 200 OK\r\n", SIZE_MAX, false);
    s_fd = p.there.get();
    const Interrupts signals([](int count) {
        if (count == 3 && send(s_fd, "\r\nbody", 6, MSG_NOSIGNAL) != 6) abort();
    });
    const Answer a = answer_of(p.fd());
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.tail, "body");
}

TEST(get_http_response, keeps_to_its_buffers_on_arbitrary_replies)
{
    std::mt19937 rnd(20240613);
    const std::string alphabet("HTTP/1.1 200 OK\r\n\r\n\n\n0 \t\0-9", 28);
    for (int round = 0; round < 2000; ++round) {
        std::string reply = rnd() % 2 ? OK_HEAD : "";
        for (size_t n = rnd() % 1500; n > 0; --n)
            reply += alphabet[rnd() % alphabet.size()];
        const size_t cap = rnd() % 1200;
        const Answer a = answer_to(reply, SIZE_MAX, cap);
        EXPECT_TRUE(a.rc == 0 || a.rc == -1);
        EXPECT_TRUE(a.tail.size() <= cap || a.tail == "#");
    }
}
