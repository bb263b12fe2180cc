// Opening files, TCP and datagram sources by their URL, and closing them.
#include "wopen.h"

#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/net_space.h"
#include "support/proc_kit.h"
#include "support/source.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// The linker leads W_calloc and strdup here, so that memory can run out.
static bool g_no_buffer = false;
static bool g_no_copy = false;
extern "C" char* __real_strdup(const char* text);
extern "C" char* __wrap_strdup(const char* text)
{
    return g_no_copy ? nullptr : __real_strdup(text);
}
extern "C" void* __real__Z8W_callocPKcmm(const char* caller, size_t nmemb, size_t size);
extern "C" void* __wrap__Z8W_callocPKcmm(const char* caller, size_t nmemb, size_t size)
{
    return g_no_buffer ? nullptr : __real__Z8W_callocPKcmm(caller, nmemb, size);
}

namespace
{

using Lines = std::vector<std::string>;

std::string fd_text(int fd)
{
    return std::to_string(fd);
}

} // namespace

// ---- tag ------------------------------------------------------------------------------------------------------

TEST(usock_set_apptag, keeps_127_characters)
{
    EXPECT_STREQ(g_apptag, "#ERR#");
    EXPECT_EQ(sizeof(g_apptag), 128u);
    usock_set_apptag("kvt");
    EXPECT_STREQ(g_apptag, "kvt");
    const std::string longest(127, 't'), over(128, 't');
    usock_set_apptag(longest.c_str());
    EXPECT_EQ(g_apptag, longest);
    usock_set_apptag(over.c_str());
    EXPECT_EQ(g_apptag, longest);
}

TEST(usock_set_apptag_DeathTest, stops_on_null)
{
    EXPECT_DEATH(usock_set_apptag(nullptr), "Assertion `apptag' failed");
}

TEST(usock_flags, start_false)
{
    EXPECT_FALSE(g_usock_flags.use_http10_get);
}

// ---- files ----------------------------------------------------------------------------------------------------

TEST(usock_open, opens_a_file)
{
    const prk::temp_dir dir;
    const std::string path = dir.file("a.ts", "bytes");
    Source s;
    s.uc.bufcap = 5;
    s.uc.buflen = 6;
    s.uc.sspec.family = 7;
    LogCapture log;
    ASSERT_GE(s.open("file://" + path), 0);
    EXPECT_EQ(take(s.fd, 16), "bytes");
    EXPECT_EQ(s.uc.url_kind, URI_FILE);
    EXPECT_EQ(s.uc.url_path, path);
    EXPECT_TRUE(s.uc.non_pollable);
    EXPECT_EQ(fcntl(s.fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    // A file source leaves the rest as it was.
    EXPECT_EQ(s.uc.buf, nullptr);
    EXPECT_EQ(s.uc.bufcap, 5u);
    EXPECT_EQ(s.uc.buflen, 6u);
    EXPECT_EQ(s.uc.sspec.family, 7);
    EXPECT_EQ(log.messages(), (Lines{"usock_open: fd" + fd_text(s.fd) + " FILE [" + path + "]"}));
}

TEST(usock_open, reads_a_file_for_a_writer_too)
{
    const prk::temp_dir dir;
    Source s;
    s.uc.inbound = false;
    ASSERT_GE(s.open("file://" + dir.file("a", "x")), 0);
    EXPECT_EQ(fcntl(s.fd, F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST(usock_open, takes_the_path_of_a_file_by_the_rules_of_urls)
{
    const prk::temp_dir dir;
    (void)dir.file("a.ts", "plain");
    (void)dir.file("a?b", "marked");
    const std::string base = "://" + dir.path();
    const struct {
        std::string url;
        const char* want;
    } rows[] = {{"FILE" + base + "/a.ts", "plain"},
                {"file" + base + "/a.ts?x=1", "plain"},
                {"file" + base + "/a.ts?", "plain"},
                {"file" + base + "/a?b?c", "marked"},
                {"file" + base + "/a.ts@" + dir.path() + "/a.ts", "plain"}};
    for (const auto& row : rows) {
        Source s;
        ASSERT_GE(s.open(row.url), 0) << row.url;
        EXPECT_EQ(take(s.fd, 16), row.want) << row.url;
    }
    // A text that ends in a slash has no query: the mark belongs to the name.
    ASSERT_EQ(mkdir((dir.path() + "/d?b").c_str(), 0700), 0);
    Source s;
    EXPECT_GE(s.open("file" + base + "/d?b/"), 0);
    EXPECT_EQ(s.uc.url_path, dir.path() + "/d?b/");
}

TEST(usock_open, takes_a_relative_path)
{
    const prk::temp_dir dir;
    (void)dir.file("a.ts", "here");
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    Source s;
    ASSERT_GE(s.open("file://a.ts"), 0);
    EXPECT_EQ(take(s.fd, 16), "here");
    ASSERT_EQ(chdir("/"), 0);
}

TEST(usock_open, closes_the_context_after_a_file_that_cannot_be_opened)
{
    Source s;
    LogCapture log;
    EXPECT_EQ(s.open("file:///no/such/file"), -1);
    EXPECT_EQ(s.uc.url_path, nullptr);
    EXPECT_FALSE(s.uc.non_pollable);
    EXPECT_EQ(s.uc.url_kind, URI_FILE);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "usock_open: open('/no/such/file', 0, 0x0) ERROR(2): No such file or directory");
    // It can be used again.
    EXPECT_GE(s.open("file:///dev/null"), 0);
}

// ---- bad URLs -------------------------------------------------------------------------------------------------

TEST(usock_open, changes_only_the_kind_for_a_bad_url)
{
    const std::string p128(128, 'p'), a64(64, 'a'), q256(256, 'q');
    const struct {
        std::string url;
        const char* first;
    } rows[] = {{"/srv/a.ts", nullptr},
                {"srv/a.ts", nullptr},
                {"x://a", nullptr},
                {"gopher://h", nullptr},
                {"longscheme://h", nullptr},
                {"", "extract: uri_get_path ERROR"},
                {"udp://", "extract: uri_parse ERROR"},
                {"udp://src@", "extract: uri_parse ERROR"},
                {"udp://?q", "extract: uri_get_path ERROR"},
                {"file://" + p128, "extract: uri_get_path ERROR"},
                {"udp://" + a64 + "@h:1", "extract: uri_get_authority ERROR"},
                {"http://h/a?" + q256, "extract: uri_get_query ERROR"}};
    for (const auto& row : rows) {
        usock_ctx uc = {};
        memset(&uc, 0x5a, sizeof(uc));
        usock_ctx before;
        memcpy(&before, &uc, sizeof(uc));
        LogCapture log;
        EXPECT_EQ(usock_open(row.url.c_str(), &uc), -1) << row.url;
        EXPECT_EQ(uc.url_kind, URI_BAD);
        before.url_kind = URI_BAD;
        EXPECT_EQ(memcmp(&before, &uc, sizeof(uc)), 0);
        Lines want;
        if (row.first) want.push_back(row.first);
        want.push_back("uri_extract: error parsing URI: [" + row.url + "]");
        EXPECT_EQ(log.messages(), want);
    }
}

TEST(usock_open, takes_a_path_of_127_characters)
{
    Source s;
    LogCapture log;
    EXPECT_EQ(s.open("file:///" + std::string(126, 'p')), -1); // there is no such file
    EXPECT_TRUE(log.contains("usock_open: open('/ppp"));
}

// The line has no end of its own; tools that read the log know the next line may follow on it.
TEST(usock_open, refuses_a_playlist_with_an_unfinished_line)
{
    Source s;
    LogCapture log;
    EXPECT_EQ(s.open("m3u://h/a"), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"usock_open: unsupported type of URI [m3u://h/a]" + std::string(NO_LINE_END)}));
    EXPECT_NE(log.text().back(), '\n');
    EXPECT_EQ(s.uc.url_kind, URI_HLS);
    EXPECT_EQ(s.uc.url_path, nullptr);
}

TEST(usock_open_DeathTest, stops_on_a_context_that_is_open)
{
    Source s;
    ASSERT_GE(s.open("file:///dev/null"), 0);
    EXPECT_DEATH(usock_open("file:///dev/null", &s.uc), "Assertion `NULL == uc->url_path' failed");
}

TEST(usock_open_DeathTest, stops_where_the_path_cannot_be_copied)
{
    usock_ctx uc = {};
    g_no_copy = true;
    EXPECT_DEATH(usock_open("file:///dev/null", &uc), "Assertion `uc->url_path' failed");
    g_no_copy = false;
}

// A process without standard input gets descriptor 0, which is one like any other.
TEST(usock_open, opens_and_closes_descriptor_0)
{
    LogCapture log;
    EXPECT_EQ(prk::in_child([] {
                  close(0);
                  Source s;
                  if (s.open("file:///dev/null") != 0) return 1;
                  s.close();
                  return is_open(0) ? 2 : 0;
              }),
              0);
    EXPECT_EQ(log.messages().back(), "usock_close: CLOSED(fd0)");
}

// ---- closing --------------------------------------------------------------------------------------------------

TEST(usock_close, does_nothing_for_nothing)
{
    LogCapture log;
    usock_close(-1, nullptr);
    EXPECT_EQ(log.messages(), Lines{});
    Fd fd(open("/dev/null", O_RDONLY));
    const int num = fd.release();
    usock_close(num, nullptr);
    EXPECT_FALSE(is_open(num));
    EXPECT_EQ(log.messages(), (Lines{"usock_close: CLOSED(fd" + fd_text(num) + ")"}));
}

TEST(usock_close, empties_the_context)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    const int fd = s.open(loopback_url("tcp", port));
    ASSERT_GE(fd, 0);
    s.uc.buflen = 9;
    s.close();
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(s.uc.url_path, nullptr);
    EXPECT_EQ(s.uc.mifc, nullptr);
    EXPECT_EQ(s.uc.buf, nullptr);
    EXPECT_EQ(s.uc.buflen, 0u);
    EXPECT_EQ(s.uc.bufcap, 2048u);
    EXPECT_EQ(s.uc.url_kind, URI_TCP);
    // Opened, closed and opened again.
    EXPECT_GE(s.open(loopback_url("tcp", port)), 0);
    EXPECT_NE(s.uc.buf, nullptr);
}

TEST(usock_close, forgets_a_lent_buffer_and_frees_it_not)
{
    char lent[64] = "mine";
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.lend(lent, sizeof(lent));
    ASSERT_GE(s.open(loopback_url("tcp", port)), 0);
    EXPECT_EQ(s.uc.buf, lent);
    EXPECT_EQ(s.uc.bufcap, sizeof(lent));
    s.close();
    EXPECT_EQ(s.uc.buf, nullptr);
    EXPECT_STREQ(lent, "mine");
}

TEST(usock_close, leaves_a_buffer_to_a_caller_that_took_it_out)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    ASSERT_GE(s.open(loopback_url("tcp", port)), 0);
    char* taken = std::exchange(s.uc.buf, nullptr);
    s.close();
    memset(taken, 1, 2048); // still there
    // Lent to the context that once allocated it, it stays the caller's.
    s.lend(taken, 2048);
    ASSERT_GE(s.open(loopback_url("tcp", port)), 0);
    s.close();
    memset(taken, 1, 2048);
    free(taken);
}

TEST(usock_open, ends_in_minus_1_with_a_lent_buffer_for_each_kind)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    char lent[1024];
    for (const std::string& url :
         {std::string("file:///no/such/file"), std::string("m3u://h/a"), loopback_url("tcp", port),
          std::string("udp://198.51.100.1:5000"), std::string("rtp://198.51.100.1:5000"), loopback_url("http", port)}) {
        Source s;
        s.lend(lent, sizeof(lent));
        EXPECT_EQ(s.open(url), -1) << url;
    }
}

// ---- TCP ------------------------------------------------------------------------------------------------------

TEST(usock_open, connects_to_a_tcp_source)
{
    Server server([](int fd) { put(fd, "stream"); });
    Source s;
    s.uc.buflen = 77;
    s.uc.non_pollable = true;
    ASSERT_GE(s.open("tcp://" + server.address()), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(s.uc.url_kind, URI_TCP);
    EXPECT_EQ(s.uc.url_path, server.address());
    EXPECT_FALSE(s.uc.non_pollable);
    EXPECT_EQ(s.uc.sspec.socktype, SOCK_STREAM);
    EXPECT_EQ(s.uc.sspec.family, AF_INET);
    EXPECT_EQ(s.uc.sspec.writer, 0u);
    EXPECT_EQ(s.uc.sspec.passive, 0u);
    EXPECT_EQ(s.uc.sspec.non_blocking, 0u);
    EXPECT_EQ(s.uc.mifc, nullptr);
    ASSERT_NE(s.uc.buf, nullptr);
    EXPECT_EQ(s.uc.bufcap, 2048u);
    EXPECT_EQ(s.uc.buflen, 0u);
    EXPECT_EQ(timeout_option_ms(s.fd, SO_RCVTIMEO), 0);
    EXPECT_EQ(take(s.fd, 64), "stream");
}

TEST(usock_open, drops_tail_query_and_authority_of_a_tcp_url)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    const std::string num = std::to_string(port);
    for (const std::string& url : {loopback_url("tcp", port, "/anything?x=1"), "tcp://10.0.0.1@127.0.0.1:" + num,
                                   "tcp://127.0.0.1:" + std::string(31 - num.size(), '0') + num}) { // 31 fit a port
        Source s;
        ASSERT_GE(s.open(url), 0) << url;
        EXPECT_FALSE(s.uc.sspec.is_ssm);
    }
}

TEST(usock_open, connects_to_a_bracketed_address)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET6, &port);
    Source s;
    EXPECT_GE(s.open("tcp://[::1]:" + std::to_string(port) + "/x"), 0);
    EXPECT_EQ(s.uc.sspec.family, AF_INET6);
}

TEST(usock_open, sets_the_capacity_of_a_buffer_that_it_allocates)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    for (const size_t before : {size_t{5}, size_t{5000}}) {
        Source s;
        s.uc.bufcap = before;
        ASSERT_GE(s.open(loopback_url("tcp", port)), 0);
        EXPECT_EQ(s.uc.bufcap, 2048u);
    }
}

TEST(usock_open, leaves_what_the_caller_says_of_family_and_group)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    LogCapture log;
    Source six;
    six.uc.sspec.family = AF_INET6;
    EXPECT_EQ(six.open(loopback_url("tcp", port)), -1);
    EXPECT_TRUE(log.contains("open_socket: TCP CLIENT [IPv6 (10)] socket for [127.0.0.1:"));
    log.clear();
    Source group;
    group.uc.sspec.multicast = 1;
    EXPECT_EQ(group.open("udp://127.0.0.1:0"), -1);
    ASSERT_FALSE(log.messages(ll::error).empty());
    EXPECT_TRUE(log.messages(ll::error).back().starts_with("mcast_join: MCAST_JOIN fd="));
}

TEST(usock_open, keeps_the_callers_buffer_and_empties_it)
{
    char lent[64];
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.lend(lent, sizeof(lent));
    s.uc.buflen = 5;
    ASSERT_GE(s.open(loopback_url("tcp", port)), 0);
    EXPECT_EQ(s.uc.buf, lent);
    EXPECT_EQ(s.uc.bufcap, sizeof(lent));
    EXPECT_EQ(s.uc.buflen, 0u);
}

TEST(usock_open, reports_a_tcp_source_that_cannot_be_had)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    const struct {
        std::string url;
        const char* line; // start of the one error line, or null for none
    } rows[] = {
        {loopback_url("tcp", port), "setup_client: connect("},
        {"tcp://127.0.0.1", "open_socket: empty or invalid port []"},
        {"tcp://127.0.0.1/a", "open_socket: empty or invalid port []"},
        {"tcp://127.0.0.1:00", "open_socket: empty or invalid port [00]"},
        {"tcp://1234:5000", "open_socket: cannot accept plain number [1234] as IP address"},
        {"tcp://[::1", "uri_path_addrport: ERROR parsing path=[[::1]"},
        {"tcp://" + std::string(40, 'h') + ":" + std::string(32, '5'), "uri_path_addrport: ERROR parsing path=[hhh"},
        {"tcp://:5000", nullptr},
    };
    for (const auto& row : rows) {
        Source s;
        LogCapture log;
        EXPECT_EQ(s.open(row.url), -1) << row.url;
        const Lines errors = log.messages(ll::error);
        EXPECT_EQ(errors.size(), row.line ? 1u : 0u) << row.url << "\n" << join_lines(errors);
        if (row.line && !errors.empty()) {
            EXPECT_TRUE(errors[0].starts_with(row.line)) << errors[0];
        }
        EXPECT_EQ(s.uc.url_path, nullptr);
        EXPECT_EQ(s.uc.buf, nullptr);
    }
}

TEST(usock_open, sets_the_time_out_on_the_side_of_the_flow)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source in;
    in.uc.timeout_ms = 1500;
    ASSERT_GE(in.open(loopback_url("tcp", port)), 0);
    EXPECT_EQ(timeout_option_ms(in.fd, SO_RCVTIMEO), 1500);
    EXPECT_EQ(timeout_option_ms(in.fd, SO_SNDTIMEO), 0);
    Source out;
    out.uc.inbound = false;
    out.uc.timeout_ms = 2000;
    ASSERT_GE(out.open(loopback_url("tcp", port)), 0);
    EXPECT_EQ(out.uc.sspec.writer, 1u);
    EXPECT_EQ(timeout_option_ms(out.fd, SO_RCVTIMEO), 0);
    EXPECT_EQ(timeout_option_ms(out.fd, SO_SNDTIMEO), 2000);
    Source shortest;
    shortest.uc.timeout_ms = 1; // the kernel may round it up
    ASSERT_GE(shortest.open(loopback_url("tcp", port)), 0);
    EXPECT_GE(timeout_option_ms(shortest.fd, SO_RCVTIMEO), 1);
    Source nb;
    nb.uc.non_blocking = true;
    nb.uc.timeout_ms = 1500;
    ASSERT_GE(nb.open(loopback_url("tcp", port)), 0);
    EXPECT_TRUE(fcntl(nb.fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(nb.uc.sspec.non_blocking, 1u);
    EXPECT_EQ(timeout_option_ms(nb.fd, SO_RCVTIMEO), 0);
}

TEST(usock_open, closes_the_socket_where_the_time_out_cannot_be_set)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.uc.timeout_ms = -1500; // the kernel refuses it
    LogCapture log;
    EXPECT_EQ(s.open(loopback_url("tcp", port)), -1);
    ASSERT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("set_socket_timeout: setsockopt("));
    EXPECT_TRUE(log.messages().back().starts_with("usock_close: CLOSED(fd"));
    EXPECT_EQ(s.uc.url_path, nullptr);
}

TEST(usock_open, ends_in_order_when_memory_for_the_buffer_runs_out)
{
    for (const char* url : {"tcp://127.0.0.1:1", "http://127.0.0.1:1/a"}) {
        Source s;
        LogCapture log;
        g_no_buffer = true;
        EXPECT_EQ(s.open(url), -1);
        g_no_buffer = false;
        // No exchange is tried, and the context has been through usock_close.
        EXPECT_EQ(log.messages(ll::error), Lines{});
        EXPECT_EQ(s.uc.url_path, nullptr);
    }
}

// ---- UDP and RTP ----------------------------------------------------------------------------------------------

TEST(usock_open, binds_to_the_address_of_a_unicast_datagram_source)
{
    for (const char* scheme : {"udp", "rtp"}) {
        const uint16_t port = free_port(SOCK_DGRAM);
        Source s;
        s.uc.bufcap = 5;
        s.uc.buflen = 6;
        ASSERT_GE(s.open(loopback_url(scheme, port, "/x?y=1")), 0);
        EXPECT_EQ(s.uc.url_kind, scheme == std::string("udp") ? URI_UDP : URI_RTP);
        EXPECT_EQ(local_port(s.fd), port);
        EXPECT_EQ(int_option(s.fd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
        EXPECT_EQ(s.uc.mifc, nullptr);
        EXPECT_EQ(s.uc.buf, nullptr);
        EXPECT_EQ(s.uc.bufcap, 5u);
        EXPECT_EQ(s.uc.buflen, 6u);

        const Fd sender(socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(sendto(sender.get(), "dgram", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 5);
        char buf[16] = {};
        EXPECT_EQ(recv(s.fd, buf, sizeof(buf), 0), 5);
    }
}

TEST(usock_open, reports_a_datagram_source_that_cannot_be_had)
{
    const struct {
        const char* url;
        Lines errors; // each by its start
    } rows[] = {
        {"udp://239.1.1.1", {"open_socket: empty or invalid port []"}},
        {"rtp://127.0.0.1", {"open_socket: empty or invalid port []"}},
        {"udp://198.51.100.1:5000", {"reuse_and_bind: bind("}},
        {"udp://1234@127.0.0.1:5000",
         {"mk_sockaddr: cannot accept plain number [1234] as IP address", "open_socket: invalid SSM source: 1234"}},
        {"udp://s@127.0.0.1:5000",
         {"mk_sockaddr: cannot accept plain number [s] as IP address", "open_socket: invalid SSM source: s"}},
        {"udp://[:5000", {"uri_path_addrport: ERROR parsing path=[[:5000]"}},
    };
    for (const auto& row : rows) {
        Source s;
        LogCapture log;
        EXPECT_EQ(s.open(row.url), -1) << row.url;
        const Lines errors = log.messages(ll::error);
        ASSERT_EQ(errors.size(), row.errors.size()) << row.url;
        for (size_t i = 0; i < errors.size(); ++i)
            EXPECT_TRUE(errors[i].starts_with(row.errors[i])) << errors[i];
        EXPECT_EQ(s.uc.url_path, nullptr);
    }
}

TEST(usock_open, takes_no_source_for_a_writer)
{
    Source s;
    s.uc.inbound = false;
    LogCapture log;
    ASSERT_GE(s.open("udp://10.0.0.1@127.0.0.1:5000"), 0);
    EXPECT_FALSE(s.uc.sspec.is_ssm);
    EXPECT_EQ(log.count("SSM source"), 0u);
}

namespace
{

class usock_open_multicast : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
    }
};

} // namespace

TEST_F(usock_open_multicast, joins_and_leaves_a_group)
{
    for (const char* url : {"rtp://239.255.7.7:5007", "udp://239.255.7.7:5007"}) {
        Source s;
        s.uc.ifc_tag = "lo";
        LogCapture log;
        const int fd = s.open(url);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(s.uc.sspec.multicast, 1u);
        ASSERT_NE(s.uc.mifc, nullptr);
        EXPECT_STREQ(s.uc.mifc->name, "lo");
        log.clear();
        s.close();
        EXPECT_EQ(log.messages(ll::info),
                  (Lines{"mcast_group_op: using GENERIC mulitcast API to MCAST_LEAVE group 239.255.7.7:5007"}));
        EXPECT_EQ(log.messages(ll::error), Lines{});
        EXPECT_EQ(s.uc.mifc, nullptr);
        EXPECT_FALSE(is_open(fd));
    }
}

TEST_F(usock_open_multicast, has_no_interface_record_after_a_bad_tag)
{
    Source s;
    s.uc.ifc_tag = "no-such-ifc";
    ASSERT_GE(s.open("udp://239.255.7.7:5007"), 0);
    EXPECT_EQ(s.uc.mifc, nullptr);
}

TEST_F(usock_open_multicast, joins_with_a_source_and_leaves_the_plain_way)
{
    for (const char* url : {"udp://10.0.0.1@239.255.7.7:5007", "udp://10.0.0.1:0@239.255.7.7:5007"}) {
        Source s;
        s.uc.ifc_tag = "lo";
        LogCapture log;
        ASSERT_GE(s.open(url), 0);
        EXPECT_TRUE(s.uc.sspec.is_ssm);
        EXPECT_EQ(log.messages(ll::error), Lines{});
        EXPECT_TRUE(log.contains("usock_open: SSM source=[10.0.0.1"));
        EXPECT_EQ(log.count("MCAST_JOIN"), 0u);
        s.close();
        // Whatever the kernel says to the plain leave, the close has ended the membership.
        EXPECT_TRUE(log.contains("to MCAST_LEAVE group 239.255.7.7:5007"));
        EXPECT_TRUE(log.messages().back().starts_with("usock_close: CLOSED(fd"));
    }
}

TEST_F(usock_open_multicast, leaves_nothing_that_was_not_opened)
{
    Source s;
    s.uc.ifc_tag = "lo";
    s.uc.sspec.multicast = 1;
    LogCapture log;
    usock_close(-1, &s.uc);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST_F(usock_open_multicast, writer_does_not_leave)
{
    Source s;
    s.uc.inbound = false;
    s.uc.ifc_tag = "lo";
    ASSERT_GE(s.open("udp://239.255.7.7:5007"), 0);
    EXPECT_EQ(s.uc.sspec.multicast, 1u);
    LogCapture log;
    s.close();
    EXPECT_EQ(log.count("MCAST_LEAVE"), 0u);
}
