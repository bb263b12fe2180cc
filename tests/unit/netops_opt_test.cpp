// Settings of an open socket, and listeners.
#include "netops.h"

#include "support/log_capture.h"
#include "support/net_peer.h"
#include "util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

Fd tcp_socket(int family = AF_INET)
{
    return Fd(socket(family, SOCK_STREAM, 0));
}

std::string fd_text(const Fd& fd)
{
    return std::to_string(fd.get());
}

sockaddr_storage loopback4()
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ss;
}

// A directory of the test's own, removed with what is in it.
struct TempDir {
    TempDir()
    {
        if (!mkdtemp(path)) perror("mkdtemp");
    }
    ~TempDir()
    {
        unlink(file("sock").c_str());
        rmdir(file("dir").c_str());
        rmdir(path);
    }
    std::string file(const char* name) const { return std::string(path) + "/" + name; }
    char path[32] = "/tmp/netops-test.XXXXXX";
};

} // namespace

// ---- flags ----------------------------------------------------------------------------------------------------

TEST(socket_flags, are_read)
{
    const Fd fd = tcp_socket();
    EXPECT_EQ(get_socket_flags(fd.get()), fcntl(fd.get(), F_GETFL));
    EXPECT_EQ(is_non_blocking(fd.get()), 0);
    ASSERT_EQ(fcntl(fd.get(), F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(is_non_blocking(fd.get()), O_NONBLOCK);
}

TEST(socket_flags, may_be_none)
{
    int fds[2] = {-1, -1};
    ASSERT_EQ(pipe(fds), 0);
    const Fd in(fds[0]), out(fds[1]);
    ASSERT_EQ(fcntl(in.get(), F_GETFL), 0);
    LogCapture log;
    EXPECT_EQ(get_socket_flags(in.get()), 0);
    EXPECT_EQ(is_non_blocking(in.get()), 0);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(socket_flags, that_cannot_be_read_are_reported)
{
    LogCapture log;
    EXPECT_EQ(get_socket_flags(-1), -1);
    EXPECT_EQ(is_non_blocking(-1), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"get_socket_flags: fcntl(-1, F_GETFL, 0) ERROR(9): Bad file descriptor",
                     "get_socket_flags: fcntl(-1, F_GETFL, 0) ERROR(9): Bad file descriptor"}));
}

TEST(set_nblock, sets_and_clears)
{
    LogCapture log;
    const Fd fd = tcp_socket();
    EXPECT_EQ(set_nblock(fd.get(), 1), 0);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(set_nblock(fd.get(), 0), 0);
    EXPECT_FALSE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(log.messages(ll::debug), (Lines{"set_nblock: fd" + fd_text(fd) + " set as non-blocking",
                                              "set_nblock: fd" + fd_text(fd) + " set as blocking"}));
}

TEST(set_nblock, makes_no_call_where_it_is_so_already)
{
    const Fd fd = tcp_socket();
    EXPECT_EQ(set_nblock(fd.get(), 1), 0);
    LogCapture log;
    EXPECT_EQ(set_nblock(fd.get(), 1), 0);
    EXPECT_EQ(log.messages(), Lines{});
}

// Callers that pass a mask instead of 1 get a blocking descriptor.
TEST(set_nblock, clears_for_a_flag_other_than_1)
{
    const Fd fd = tcp_socket();
    ASSERT_EQ(set_nblock(fd.get(), 1), 0);
    EXPECT_EQ(set_nblock(fd.get(), 2), 0);
    EXPECT_FALSE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
}

TEST(set_nblock, takes_flags_that_cannot_be_read_for_set)
{
    LogCapture log;
    EXPECT_EQ(set_nblock(-1, 1), 0);
    EXPECT_EQ(log.count("F_SETFL"), 0u);
    EXPECT_EQ(set_nblock(-1, 0), -1);
    const int asked = -1 & ~O_NONBLOCK;
    EXPECT_EQ(log.messages(ll::error).back(),
              "set_nblock: fcntl(-1, F_SETFL, " + std::to_string(asked) + ") ERROR(9): Bad file descriptor");
}

// ---- options --------------------------------------------------------------------------------------------------

TEST(set_ipv6only, says_when_it_is_so_already)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd = tcp_socket(AF_INET6);
    set_ipv6only(fd.get(), 1);
    LogCapture log;
    set_ipv6only(fd.get(), 1);
    EXPECT_EQ(log.messages(), (Lines{"set_ipv6only: IPV6_V6ONLY for fd=" + fd_text(fd) + " is already ON"}));
    set_ipv6only(fd.get(), 0);
    log.clear();
    set_ipv6only(fd.get(), 0);
    EXPECT_EQ(log.messages(ll::info), (Lines{"set_ipv6only: IPV6_V6ONLY for fd=" + fd_text(fd) + " is already OFF"}));
}

// The line is known by its text; it comes when the socket has just begun to take IPv4.
TEST(set_ipv6only, warns_when_it_turns_the_option_off)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd = tcp_socket(AF_INET6);
    set_ipv6only(fd.get(), 1);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY), 1);
    LogCapture log;
    set_ipv6only(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY), 0);
    EXPECT_EQ(log.messages(), (Lines{"set_ipv6only: server will not accept IPv4 requests"}));
    EXPECT_EQ(log.messages(ll::warning).size(), 1u);
}

TEST(set_ipv6only, reports_a_change_that_fails)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    uint16_t port = 0;
    const Fd fd = bound_socket(AF_INET6, SOCK_STREAM, &port); // too late for a bound socket
    const int now = int_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY);
    LogCapture log;
    set_ipv6only(fd.get(), !now);
    EXPECT_TRUE(log.contains("set_ipv6only: setsockopt IPV6_V6ONLY: Invalid argument"));
}

TEST(set_ipv6only, prints_a_read_that_fails)
{
    testing::internal::CaptureStderr();
    set_ipv6only(-1, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "getsockopt IPV6_V6ONLY: Bad file descriptor\n");
}

TEST(socket_timeouts, are_whole_seconds_and_the_rest)
{
    const Fd fd = tcp_socket();
    EXPECT_EQ(set_rcv_timeout(fd.get(), 1500), 0);
    EXPECT_EQ(timeout_option_ms(fd.get(), SO_RCVTIMEO), 1500);
    EXPECT_EQ(timeout_option_ms(fd.get(), SO_SNDTIMEO), 0);
    EXPECT_EQ(set_send_timeout(fd.get(), 2000), 0);
    EXPECT_EQ(timeout_option_ms(fd.get(), SO_SNDTIMEO), 2000);
    EXPECT_EQ(set_socket_timeout(fd.get(), SO_RCVTIMEO, 0), 0);
    EXPECT_EQ(timeout_option_ms(fd.get(), SO_RCVTIMEO), 0);
}

TEST(socket_timeouts, fail_on_a_file)
{
    const Fd fd(open("/dev/null", O_RDONLY));
    LogCapture log;
    EXPECT_EQ(set_rcv_timeout(fd.get(), 100), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
}

TEST(socket_buffers, take_a_length)
{
    const Fd fd = tcp_socket();
    EXPECT_EQ(set_socket_rcvbuf(fd.get(), 32768), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_RCVBUF), 65536); // the kernel doubles it
    EXPECT_EQ(set_socket_sendbuf(fd.get(), 16384), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_SNDBUF), 32768);
    EXPECT_EQ(set_socket_buflen(fd.get(), SO_SNDBUF, 8192), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_SNDBUF), 16384);
    EXPECT_EQ(set_socket_rcvbuf(-1, 32768), -1);
}

TEST(tcp_switches, set_their_option_and_say_so)
{
    const Fd fd = tcp_socket();
    LogCapture log;
    EXPECT_EQ(set_tcp_nodelay(fd.get(), 1), 0);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(set_tcp_nodelay(fd.get(), 0), 0);
    EXPECT_EQ(set_tcp_cork(fd.get(), 1), 0);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_TCP, TCP_CORK), 1);
    EXPECT_EQ(set_tcp_cork(fd.get(), 0), 0);
    const std::string n = fd_text(fd);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"TCP_NODELAY turned ON for [fd=" + n + "]", "TCP_NODELAY turned OFF for [fd=" + n + "]",
                     "TCP_CORK turned ON for [fd=" + n + "]", "TCP_CORK turned OFF for [fd=" + n + "]"}));
    EXPECT_EQ(set_tcp_nodelay(-1, 1), -1);
    EXPECT_EQ(set_tcp_cork(-1, 1), -1);
}

TEST(set_keepalive, sets_the_option_and_says_so)
{
    const Fd fd = tcp_socket();
    LogCapture log;
    EXPECT_EQ(set_keepalive(fd.get(), 1), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(set_keepalive(fd.get(), 0), 0);
    EXPECT_EQ(log.messages(ll::debug),
              (Lines{"set_keepalive: [ON] for fd" + fd_text(fd), "set_keepalive: [OFF] for fd" + fd_text(fd)}));
    log.clear();
    EXPECT_EQ(set_keepalive(-1, 1), -1);
    EXPECT_EQ(log.messages(), (Lines{"set_keepalive: setsockopt(fd-1, SOL_SOCKET, SO_KEEPALIVE, 1,..) ERROR(9): "
                                     "Bad file descriptor"}));
}

TEST(socket_error, is_the_pending_error)
{
    const Fd fd = tcp_socket();
    LogCapture log;
    EXPECT_EQ(socket_error(fd.get()), 0);
    EXPECT_EQ(log.messages(), Lines{});

    // A datagram to a closed port comes back as an error of the connected socket.
    sockaddr_storage to = loopback4();
    reinterpret_cast<sockaddr_in*>(&to)->sin_port = htons(free_port(SOCK_DGRAM));
    const Fd udp(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(connect(udp.get(), reinterpret_cast<sockaddr*>(&to), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(send(udp.get(), "x", 1, 0), 1);
    errno = 0;
    EXPECT_EQ(socket_error(udp.get()), ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(log.messages(ll::error), (Lines{"socket_error(fd" + fd_text(udp) + ") ERROR(111): Connection refused"}));
}

TEST(socket_error, is_the_errno_of_a_failed_read)
{
    LogCapture log;
    EXPECT_EQ(socket_error(-1), EBADF);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(log.contains("socket_error(fd-1) ERROR(9): Bad file descriptor"));
}

TEST(get_peer_ipaddr, shows_the_peer)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    const Fd fd = tcp_socket();
    char buf[64] = "";
    LogCapture log;
    EXPECT_EQ(get_peer_ipaddr(fd.get(), buf, sizeof(buf)), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.messages(ll::error), (Lines{"get_peer_ipaddr: getpeername(fd" + fd_text(fd) +
                                              ",...) ERROR(107): Transport endpoint is not connected"}));
    sockaddr_storage to = loopback4();
    reinterpret_cast<sockaddr_in*>(&to)->sin_port = htons(port);
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(get_peer_ipaddr(fd.get(), buf, sizeof(buf)), buf);
    EXPECT_EQ(buf, "127.0.0.1:" + std::to_string(port));
}

TEST(set_mcast_ttl, tells_the_outcome_at_error_level)
{
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    LogCapture log;
    EXPECT_EQ(set_mcast_ttl(AF_INET, fd.get(), 9), 0);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL), 9);
    EXPECT_EQ(log.messages(ll::error), (Lines{"set_mcast_ttl: IP mcast fd=" + fd_text(fd) + ", op=MULTICAST_TTL: OK"}));
    log.clear();
    EXPECT_EQ(set_mcast_ttl(AF_INET, -1, 9), EBADF);
    EXPECT_EQ(log.messages(ll::error).back(), "set_mcast_ttl: IP mcast fd=-1, op=MULTICAST_TTL: Bad file descriptor");
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd6(socket(AF_INET6, SOCK_DGRAM, 0));
    log.clear();
    EXPECT_EQ(set_mcast_ttl(AF_INET6, fd6.get(), 5), 0);
    EXPECT_EQ(int_option(fd6.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 5);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"set_mcast_ttl: IPv6 mcast fd=" + fd_text(fd6) + ", op=MULTICAST_HOPS: OK"}));
}

TEST(set_mcast_ttl_DeathTest, stops_on_another_family)
{
    EXPECT_DEATH(set_mcast_ttl(AF_UNIX, 0, 1), "Assertion");
}

// ---- listeners ------------------------------------------------------------------------------------------------

TEST(open_listener, listens_at_an_address)
{
    sockaddr_storage ss = loopback4();
    const std::string port = std::to_string(free_port(SOCK_STREAM));
    const Fd fd(open_listener(&ss, port.c_str(), 0));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(std::to_string(local_port(fd.get())), port);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
}

TEST(open_listener, leaves_listening_to_the_caller_when_asked)
{
    sockaddr_storage ss = loopback4();
    const std::string port = std::to_string(free_port(SOCK_STREAM));
    const Fd fd(open_listener(&ss, port.c_str(), 1));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 0);
}

// A port of 0 lets the kernel choose one, and test set-ups use that in spite of the line.
TEST(open_listener, goes_on_with_a_port_that_it_complains_about)
{
    for (const char* port : {"0", "65536", "abc"}) {
        LogCapture log;
        sockaddr_storage ss = loopback4();
        const Fd fd(open_listener(&ss, port, 0));
        EXPECT_GE(fd.get(), 0);
        EXPECT_EQ(log.messages(ll::error), (Lines{std::string("open_listener: invalid port number: ") + port}));
    }
    LogCapture log;
    sockaddr_storage ss = loopback4();
    const Fd highest(open_listener(&ss, "65535", 1)), lowest(open_listener(&ss, "1", 1)); // if we may have them
    EXPECT_EQ(log.count("invalid port number"), 0u);
}

TEST(open_listener, listens_over_ipv6)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    sockaddr_storage ss = {};
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&ss);
    in6->sin6_family = AF_INET6;
    in6->sin6_addr = in6addr_loopback;
    const std::string port = std::to_string(free_port(SOCK_STREAM));
    const Fd fd(open_listener(&ss, port.c_str(), 0));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(std::to_string(local_port(fd.get())), port);
}

TEST(open_listener, fails_for_another_family_and_for_an_address_elsewhere)
{
    LogCapture log;
    sockaddr_storage ss = {};
    ss.ss_family = AF_UNIX;
    EXPECT_EQ(open_listener(&ss, "5000", 0), -1);
    EXPECT_TRUE(log.contains("open_listener: invalid network family: 1"));
    ss = loopback4();
    reinterpret_cast<sockaddr_in*>(&ss)->sin_addr.s_addr = inet_addr("198.51.100.1");
    log.clear();
    EXPECT_EQ(open_listener(&ss, "5000", 0), -1);
    EXPECT_TRUE(log.contains("open_listener: CLOSED(fd"));
}

TEST(open_udp_listener, binds_and_keeps_the_storages_port_without_one)
{
    sockaddr_storage ss = loopback4();
    const uint16_t port = free_port(SOCK_DGRAM);
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons(port);
    const Fd fd(open_udp_listener(&ss, nullptr));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(local_port(fd.get()), port);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    LogCapture log;
    const Fd other(open_udp_listener(&ss, "0"));
    EXPECT_GE(other.get(), 0);
    EXPECT_EQ(log.messages(ll::error), (Lines{"open_udp_listener: invalid port number: 0"}));
}

TEST(open_anyaddr_listener, listens_at_the_any_address)
{
    const Fd fd(open_anyaddr_listener(AF_INET, "0", 0));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    const Fd deferred(open_anyaddr_listener(AF_INET, "0", 1));
    ASSERT_GE(deferred.get(), 0);
    EXPECT_EQ(int_option(deferred.get(), SOL_SOCKET, SO_ACCEPTCONN), 0);
}

TEST(open_domain_listener, takes_over_a_stale_path)
{
    const TempDir dir;
    const std::string path = dir.file("sock");
    LogCapture log;
    Fd first(open_domain_listener(path.c_str()));
    ASSERT_GE(first.get(), 0);
    EXPECT_EQ(log.messages(ll::debug).back(),
              "open_domain_listener: fd=" + fd_text(first) + " is listening on [" + path + "]");
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_TRUE(fcntl(first.get(), F_GETFL) & O_NONBLOCK);
    first = Fd();
    const Fd second(open_domain_listener(path.c_str()));
    EXPECT_GE(second.get(), 0);
    const Fd client(open_domain_client(path.c_str(), 1, 0));
    EXPECT_GE(client.get(), 0);
}

TEST(open_domain_listener, reports_a_path_that_cannot_be_had)
{
    const TempDir dir;
    const std::string path = dir.file("dir");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    LogCapture log;
    EXPECT_EQ(open_domain_listener(path.c_str()), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0], "open_domain_listener: unlink ERROR(21): Is a directory");
    EXPECT_TRUE(errors[1].starts_with("open_domain_listener: bind("));
    EXPECT_EQ(errors[2], "open_domain_listener: failed for path=[" + path + "]");
}

TEST(open_domain_client, connects)
{
    const TempDir dir;
    const std::string path = dir.file("sock");
    const Fd listener(open_domain_listener(path.c_str()));
    LogCapture log;
    const Fd fd(open_domain_client(path.c_str(), 3, 10));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"open_domain_client: fd=" + fd_text(fd) + " connected to [" + path + "]"}));
    EXPECT_TRUE(log.contains("open_domain_client: attempt 1 out of 3 to connect to [" + path + "]"));
}

TEST(open_domain_client, gives_up_after_its_attempts)
{
    const TempDir dir;
    const std::string path = dir.file("sock");
    LogCapture log;
    EXPECT_EQ(open_domain_client(path.c_str(), 3, 1), -1);
    EXPECT_TRUE(log.contains("open_domain_client: attempt 1 out of 3 to connect to [" + path + "]"));
    EXPECT_TRUE(log.contains("open_domain_client: attempt 3 out of 3 to connect to [" + path + "]"));
    EXPECT_EQ(log.count("attempt "), 3u);
    EXPECT_EQ(log.messages(ll::error).back(),
              "open_domain_client: failed to connect to [" + path + "] after 3 attempt(s)");
}

TEST(open_domain_client, makes_no_pause_behind_its_last_attempt)
{
    const TempDir dir;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(open_domain_client(dir.file("sock").c_str(), 1, 60000), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST(open_domain_client, tries_again_until_the_listener_is_there)
{
    const TempDir dir;
    const std::string path = dir.file("sock");
    std::thread late([&path] {
        // Opened while the client is trying: it begins ahead of the thread's first connect or after a few.
        const Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un un = {};
        un.sun_family = AF_UNIX;
        strcpy(un.sun_path, path.c_str());
        if (bind(listener.get(), reinterpret_cast<sockaddr*>(&un), sizeof(un)) != 0) return;
        if (listen(listener.get(), 1) != 0) return;
        const Fd peer(accept(listener.get(), nullptr, nullptr));
    });
    const Fd fd(open_domain_client(path.c_str(), 10000, 1));
    EXPECT_GE(fd.get(), 0);
    late.join();
}

TEST(open_domain_client, makes_no_attempt_while_the_process_is_quitting)
{
    const TempDir dir;
    LogCapture log;
    g_quit = 1;
    EXPECT_EQ(open_domain_client(dir.file("sock").c_str(), 3, 0), -1);
    g_quit = 0;
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_EQ(log.count("attempt"), 0u);
}

TEST(open_domain_client, ends_its_attempts_with_a_sleep_that_fails)
{
    const TempDir dir;
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
    alarm(1);
    LogCapture log;
    EXPECT_EQ(open_domain_client(dir.file("sock").c_str(), 3, 60000), -1);
    EXPECT_EQ(log.messages(ll::error).back(),
              "open_domain_client: failed to connect to [" + dir.file("sock") + "] after 1 attempt(s)");
}

TEST(open_domain_client_DeathTest, stops_on_a_path_that_does_not_fit)
{
    const std::string fits = "/tmp/" + std::string(102, 'p'), over = fits + "p";
    EXPECT_EQ(open_domain_client(fits.c_str(), 1, 0), -1);
    EXPECT_DEATH(open_domain_client(over.c_str(), 1, 0), "Assertion");
}
