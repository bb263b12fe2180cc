// Opening sockets, unicast.
#include "netops.h"

#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/proc_kit.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

socket_spec spec_of(int socktype, int family = AF_INET)
{
    socket_spec spec = {};
    spec.socktype = socktype;
    spec.family = family;
    return spec;
}

int open_at(const char* addr, const std::string& port, socket_spec* spec, const char* src = nullptr)
{
    return open_socket(addr, port.c_str(), src, spec, nullptr, nullptr);
}

sockaddr* sa(sockaddr_storage& ss)
{
    return reinterpret_cast<sockaddr*>(&ss);
}

std::string text_of(sockaddr_storage& ss)
{
    char buf[80] = "";
    return saddr_str(sa(ss), sizeof(ss), buf, sizeof(buf)) ? buf : "?";
}

sockaddr_storage loopback4(uint16_t port)
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ss;
}

// Runs a check in a child where a system call fails: 0 for a good end.
constexpr int NO_FILTER = 77;
int with_failing(long call, int err, prk::arg_is only, const std::function<bool()>& check)
{
    return prk::in_child([&] {
        if (!prk::fail_syscall(call, err, only)) return NO_FILTER;
        return check() ? 0 : 1;
    });
}

// A candidate as the resolver would give it.
addrinfo candidate(sockaddr_storage& ss, int socktype)
{
    addrinfo ai = {};
    ai.ai_family = ss.ss_family;
    ai.ai_socktype = socktype;
    ai.ai_addr = sa(ss);
    ai.ai_addrlen = ss.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    return ai;
}

} // namespace

// ---- open_socket ----------------------------------------------------------------------------------------------

TEST(open_socket, connects_a_stream_client)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM, 0);
    const Fd fd(open_at("127.0.0.1", std::to_string(port), &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(spec.family, AF_INET);
    EXPECT_EQ(spec.addr_len, sizeof(sockaddr_in));
    EXPECT_EQ(text_of(spec.addr_ss), "127.0.0.1:" + std::to_string(port));
    EXPECT_EQ(spec.multicast, 0u);
    EXPECT_EQ(spec.async_connect, 0u);
    EXPECT_FALSE(spec.is_ssm);
    EXPECT_FALSE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    const std::string n = std::to_string(fd.get());
    EXPECT_TRUE(log.contains("open_socket: TCP CLIENT [UNSPEC (0)] socket for [127.0.0.1:" + std::to_string(port) +
                             "], ifc=none"));
    EXPECT_TRUE(log.contains("af=IPv4 (2), proto = 6"));
    EXPECT_EQ(log.messages(ll::info), (Lines{"setup_client: IMMEDIATE CONNECT [fd" + n + "]"}));
    EXPECT_TRUE(log.contains("ai_addr     =\t127.0.0.1:" + std::to_string(port)));
    EXPECT_TRUE(log.contains("open_socket: CLIENT unicast socket fd=[" + n + "]"));
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(open_socket, binds_a_udp_reader_to_the_urls_own_address)
{
    const uint16_t port = free_port(SOCK_DGRAM);
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM);
    const Fd fd(open_at("127.0.0.1", std::to_string(port), &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(local_port(fd.get()), port);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEPORT), 1);
    EXPECT_TRUE(log.contains("open_socket: UDP CLIENT [IPv4 (2)]"));
    EXPECT_TRUE(
        log.contains("reuse_and_bind: fd=" + std::to_string(fd.get()) + " 127.0.0.1:" + std::to_string(port) + " OK"));
    EXPECT_TRUE(log.contains(" IPv4 127.0.0.1:" + std::to_string(port)));
}

TEST(open_socket, neither_binds_nor_connects_a_udp_writer)
{
    socket_spec spec = spec_of(SOCK_DGRAM);
    spec.writer = 1;
    const Fd fd(open_at("127.0.0.1", "5000", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(local_port(fd.get()), 0);
}

TEST(open_socket, takes_the_callers_word_for_a_group)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM);
    spec.multicast = 1;
    EXPECT_EQ(open_at("127.0.0.1", "0", &spec), -1); // and the kernel doesn't
    EXPECT_EQ(spec.multicast, 1u);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("mcast_group_op: setsockopt("));
    EXPECT_TRUE(errors[1].starts_with("mcast_join: MCAST_JOIN fd="));
}

TEST(open_socket, notes_the_sender_for_a_writer_too)
{
    socket_spec spec = spec_of(SOCK_DGRAM);
    spec.writer = 1;
    const Fd fd(open_at("127.0.0.1", "5000", &spec, "10.0.0.1"));
    ASSERT_GE(fd.get(), 0);
    EXPECT_TRUE(spec.is_ssm);
    EXPECT_EQ(text_of(spec.src_ss), "10.0.0.1:111");
}

TEST(open_socket, leaves_the_place_of_the_interface_alone_when_it_fails)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    socket_spec spec = spec_of(SOCK_STREAM);
    ifc_info mine = {};
    ifc_info* ifc = &mine;
    EXPECT_EQ(open_socket("127.0.0.1", std::to_string(port).c_str(), nullptr, &spec, nullptr, &ifc), -1);
    EXPECT_EQ(ifc, &mine);
}

TEST(open_socket, fails_where_a_udp_address_is_not_local)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM);
    EXPECT_EQ(open_at("198.51.100.1", "5000", &spec), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("reuse_and_bind: bind("));
    EXPECT_TRUE(log.contains("open_socket: CLOSED(fd"));
}

TEST(open_socket, listens)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    spec.passive = 1;
    spec.non_blocking = 1;
    const Fd fd(open_at(nullptr, "0", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(is_unspecified(sa(spec.addr_ss)), 1);
    EXPECT_TRUE(log.contains("open_socket: TCP LISTENER [IPv4 (2)] socket for [all:0], ifc=none"));
    EXPECT_TRUE(log.contains("open_socket: SERVER unicast socket fd=[" + std::to_string(fd.get()) + "]"));
}

TEST(open_socket, takes_the_ipv4_any_address_where_neither_address_nor_family_is_given)
{
    socket_spec spec = spec_of(SOCK_STREAM, 0);
    spec.passive = 1;
    const Fd fd(open_at(nullptr, "0", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(spec.family, AF_INET);
}

TEST(open_socket, leaves_listening_to_the_caller_when_asked)
{
    socket_spec spec = spec_of(SOCK_STREAM);
    spec.passive = 1;
    spec.defer_listen = 1;
    const Fd fd(open_at("127.0.0.1", "0", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 0);
    EXPECT_NE(local_port(fd.get()), 0);
}

TEST(open_socket, opens_an_ipv6_listener_for_both_families)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    socket_spec spec = spec_of(SOCK_STREAM, AF_INET6);
    spec.passive = 1;
    LogCapture log;
    const Fd fd(open_at(nullptr, "0", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(log.count("set_ipv6only: "), 1u); // whatever the host's own setting is
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY), 0);
    socket_spec client = spec_of(SOCK_STREAM);
    const Fd peer(open_at("127.0.0.1", std::to_string(local_port(fd.get())), &client));
    EXPECT_GE(peer.get(), 0);
}

TEST(open_socket, leaves_an_ipv6_listener_at_an_address_to_its_family)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    socket_spec spec = spec_of(SOCK_STREAM, AF_INET6);
    spec.passive = 1;
    LogCapture log;
    const Fd fd(open_at("::1", "0", &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(log.count("set_ipv6only"), 0u);
}

TEST(open_socket, connects_over_ipv6)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET6, &port);
    socket_spec spec = spec_of(SOCK_STREAM, 0);
    const Fd fd(open_at("::1", std::to_string(port), &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(spec.family, AF_INET6);
    EXPECT_EQ(text_of(spec.addr_ss), "[::1]:" + std::to_string(port));
}

TEST(open_socket, goes_on_to_the_next_candidate)
{
    // Without a socket type an address has a stream candidate first, which is refused here, and then a datagram one.
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    LogCapture log;
    socket_spec spec = spec_of(0);
    const Fd fd(open_at("127.0.0.1", std::to_string(port), &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(text_of(spec.addr_ss), "127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(log.contains("af=IPv4 (2), proto = 6"));
    EXPECT_TRUE(log.contains("af=IPv4 (2), proto = 17"));
    EXPECT_EQ(log.messages(ll::error).size(), 1u); // the refused one
}

TEST(open_socket, reports_a_refused_connect)
{
    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    EXPECT_EQ(open_at("127.0.0.1", std::to_string(port), &spec), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("setup_client: connect("));
    EXPECT_TRUE(log.contains("open_socket: CLOSED(fd"));
    EXPECT_EQ(spec.addr_len, 0u);
}

TEST(open_socket, refuses_empty_and_invalid_ports)
{
    for (const int socktype : {SOCK_STREAM, SOCK_DGRAM}) {
        for (const std::string port : {"", "00", "abc", "-0", " 0"}) {
            LogCapture log;
            socket_spec spec = spec_of(socktype);
            EXPECT_EQ(open_at("127.0.0.1", port, &spec), -1);
            EXPECT_EQ(log.messages(ll::error), (Lines{"open_socket: empty or invalid port [" + port + "]"}));
        }
    }
}

TEST(open_socket, lets_a_port_pass_that_begins_with_a_number)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    // The check passes; the resolver knows no such service, and says nothing.
    EXPECT_EQ(open_at("127.0.0.1", "12ab", &spec), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(open_socket, refuses_a_plain_number_as_address)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    EXPECT_EQ(open_at("1234", "5000", &spec), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"open_socket: cannot accept plain number [1234] as IP address"}));
}

TEST(open_socket, refuses_the_port_first_then_the_address_then_the_sender)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM);
    EXPECT_EQ(open_at("1234", "abc", &spec, "5678"), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"open_socket: empty or invalid port [abc]"}));
    log.clear();
    EXPECT_EQ(open_at("1234", "5000", &spec, "5678"), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"open_socket: cannot accept plain number [1234] as IP address"}));
    EXPECT_FALSE(spec.is_ssm);
    log.clear();
    EXPECT_EQ(open_at("", "5000", &spec, "5678"), -1); // what the resolver would refuse is not asked for
    EXPECT_EQ(log.messages(ll::error).back(), "open_socket: invalid SSM source: 5678");
}

TEST(open_socket, fails_without_a_word_where_the_resolver_finds_nothing)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    EXPECT_EQ(open_at("", "5000", &spec), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(open_socket, returns_a_connect_in_progress)
{
    // The listener's queue is full, so that a further connect can't complete at once.
    uint16_t port = 0;
    const Fd listener = bound_socket(AF_INET, SOCK_STREAM, &port);
    ASSERT_EQ(listen(listener.get(), 0), 0);
    std::vector<Fd> waiting;
    LogCapture log;
    for (int i = 0; i < 4; ++i) {
        log.clear();
        socket_spec spec = spec_of(SOCK_STREAM);
        spec.non_blocking = 1;
        Fd fd(open_at("127.0.0.1", std::to_string(port), &spec));
        ASSERT_GE(fd.get(), 0);
        EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(log.contains("setup_client: non-blocking CONNECT on fd" + std::to_string(fd.get())));
        if (spec.async_connect) {
            EXPECT_EQ(errno, EINPROGRESS);
            EXPECT_TRUE(log.contains("setup_client: ASYNC CONNECT [fd" + std::to_string(fd.get()) + "]"));
            EXPECT_TRUE(log.contains("open_socket: connection in progress for fd" + std::to_string(fd.get())));
            EXPECT_EQ(text_of(spec.addr_ss), "127.0.0.1:" + std::to_string(port));
            EXPECT_EQ(log.messages(ll::error), Lines{});
            return;
        }
        waiting.push_back(std::move(fd));
    }
    FAIL() << "no connect was left in progress";
}

TEST(open_socket, forgets_a_connect_that_was_in_progress_before)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM);
    spec.async_connect = 1;
    const Fd fd(open_at("127.0.0.1", std::to_string(port), &spec));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(spec.async_connect, 0u);
    EXPECT_EQ(log.messages(ll::info).size(), 1u);
    EXPECT_TRUE(log.contains("setup_client: IMMEDIATE CONNECT"));
    EXPECT_EQ(log.count("in progress"), 0u);
}

TEST(open_socket, gives_up_where_a_descriptor_cannot_be_made_non_blocking)
{
    LogCapture log;
    const int status = with_failing(SYS_fcntl, EPERM, prk::arg_is{1, F_SETFL}, [] {
        socket_spec spec = spec_of(SOCK_STREAM);
        spec.non_blocking = 1;
        return open_at("127.0.0.1", "5000", &spec) == -1;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("set_nblock: fcntl("));
    EXPECT_TRUE(errors[1].starts_with("open_socket: failed to make fd="));
    EXPECT_TRUE(errors[1].ends_with(" non-blocking ERROR(1): Operation not permitted"));
    EXPECT_TRUE(log.contains("open_socket: CLOSED(fd"));
}

TEST(open_socket, goes_on_where_a_candidate_has_no_socket)
{
    LogCapture log;
    const int status = with_failing(SYS_socket, EMFILE, prk::arg_is{0, AF_INET}, [] {
        socket_spec spec = spec_of(0);
        sockaddr_storage ss = {};
        socklen_t len = 0;
        return open_at("127.0.0.1", "5000", &spec) == -1 && ifaddr_index("127.0.0.1", nullptr) == 0 &&
               mk_sockaddr("10.0.0.1:5000", SOCK_DGRAM, 0, &ss, &len) == -1 && ss.ss_family == 0;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    EXPECT_GE(log.count("open_socket: socket("), 2u); // each candidate was tried
    EXPECT_TRUE(log.contains("mk_sockaddr: BAD af=IPv4 (2), proto = 17"));
    EXPECT_EQ(log.messages(ll::error).back(), "mk_sockaddr: failed for [10.0.0.1:5000]");
}

TEST(open_socket, sets_nothing_up_where_there_is_no_socket)
{
    LogCapture log;
    const int status = with_failing(SYS_socket, EMFILE, prk::arg_is{0, AF_INET}, [] {
        socket_spec spec = spec_of(SOCK_STREAM, 0);
        spec.non_blocking = 1;
        return open_at("127.0.0.1", "5000", &spec) == -1 && errno == EMFILE && spec.family == 0;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"open_socket: socket(2, 1, 6) ERROR(24): Too many open files"})); // and no connect or close of -1
}

TEST(open_socket, resolves_for_the_family_that_is_asked_for)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    LogCapture log;
    socket_spec spec = spec_of(SOCK_STREAM, AF_INET6);
    EXPECT_EQ(open_at("127.0.0.1", std::to_string(port), &spec), -1);
    EXPECT_EQ(log.count("af=IPv4"), 0u); // there is no candidate
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST(open_socket, takes_a_sender_with_and_without_a_port)
{
    for (const char* src : {"10.0.0.1", "10.0.0.1:5000"}) {
        LogCapture log;
        socket_spec spec = spec_of(SOCK_DGRAM, 0);
        const Fd fd(open_at("127.0.0.1", "0", &spec, src));
        ASSERT_GE(fd.get(), 0);
        EXPECT_TRUE(spec.is_ssm);
        EXPECT_EQ(text_of(spec.src_ss), src == std::string("10.0.0.1") ? "10.0.0.1:111" : "10.0.0.1:5000");
        EXPECT_EQ(spec.src_len, sizeof(sockaddr_in));
        EXPECT_TRUE(log.contains(std::string("open_socket: SSM source: ") + src));
    }
}

TEST(open_socket, has_no_sender_on_a_stream_socket)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    socket_spec spec = spec_of(SOCK_STREAM);
    const Fd fd(open_at("127.0.0.1", std::to_string(port), &spec, "10.0.0.1"));
    ASSERT_GE(fd.get(), 0);
    EXPECT_FALSE(spec.is_ssm);
    EXPECT_EQ(spec.src_len, 0u);
}

TEST(open_socket, refuses_a_bad_sender)
{
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM);
    EXPECT_EQ(open_at("127.0.0.1", "5000", &spec, "1234"), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"mk_sockaddr: cannot accept plain number [1234] as IP address",
                                              "open_socket: invalid SSM source: 1234"}));
    EXPECT_TRUE(spec.is_ssm);
    EXPECT_EQ(spec.src_len, sizeof(sockaddr_storage));
}

TEST(open_socket, takes_79_characters_of_a_sender)
{
    for (const size_t len : {size_t{74}, size_t{75}, size_t{76}, size_t{90}}) {
        const std::string src(len, 's');
        LogCapture log;
        socket_spec spec = spec_of(SOCK_DGRAM);
        EXPECT_EQ(open_at("127.0.0.1", "5000", &spec, src.c_str()), -1);
        EXPECT_TRUE(log.contains("mk_sockaddr: DGRAM(0) address for [" + (src + ":111").substr(0, 79) + "]"));
        EXPECT_EQ(log.messages(ll::error).back(), "open_socket: invalid SSM source: " + src);
    }
}

TEST(open_socket, refuses_a_sender_of_another_family)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    LogCapture log;
    socket_spec spec = spec_of(SOCK_DGRAM, AF_INET);
    EXPECT_EQ(open_at("127.0.0.1", "5000", &spec, "2001:db8::1:111"), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"open_socket: SMM src/addr family mismatch: 10/2"}));
}

TEST(open_socket_DeathTest, stops_on_a_null_port)
{
    socket_spec spec = spec_of(SOCK_DGRAM);
    EXPECT_DEATH(open_socket("127.0.0.1", nullptr, nullptr, &spec, nullptr, nullptr), "Assertion");
    spec.socktype = SOCK_STREAM;
    EXPECT_DEATH(open_socket("127.0.0.1", nullptr, nullptr, &spec, nullptr, nullptr), "Assertion");
}

TEST(open_socket_DeathTest, stops_on_a_multicast_listener)
{
    socket_spec spec = spec_of(SOCK_DGRAM);
    spec.passive = 1;
    EXPECT_DEATH(open_at("239.255.7.7", "5000", &spec), "Assertion");
    spec.multicast = 1; // or what the caller calls one
    EXPECT_DEATH(open_at("127.0.0.1", "0", &spec), "Assertion");
}

// ---- the parts of opening -------------------------------------------------------------------------------------

TEST(should_connect, is_for_stream_clients_and_for_types_of_another_kind)
{
    const socket_spec dgram = spec_of(SOCK_DGRAM), stream = spec_of(SOCK_STREAM), seq = spec_of(SOCK_SEQPACKET);
    EXPECT_FALSE(should_connect(false, &dgram));
    EXPECT_FALSE(should_connect(true, &dgram));
    EXPECT_TRUE(should_connect(false, &stream));
    EXPECT_FALSE(should_connect(true, &stream));
    EXPECT_TRUE(should_connect(false, &seq));
    EXPECT_TRUE(should_connect(true, &seq));
}

TEST(setup_listener, connects_a_socket_that_is_neither_datagram_nor_stream)
{
    // A spec of another type on a datagram socket: bound and then connected to its own address.
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    auto addr = loopback4(free_port(SOCK_DGRAM));
    const addrinfo ai = candidate(addr, SOCK_DGRAM);
    const socket_spec spec = spec_of(SOCK_SEQPACKET);
    LogCapture log;
    EXPECT_EQ(setup_listener(fd.get(), &ai, &spec), 0);
    EXPECT_TRUE(log.contains("setup_listener: CONNECT [" + std::to_string(fd.get()) + "]"));
}

TEST(setup_listener, gives_the_errno_of_a_connect_that_fails)
{
    LogCapture log;
    const int status = with_failing(SYS_connect, ETIMEDOUT, prk::arg_is{2, sizeof(sockaddr_in)}, [] {
        const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
        auto addr = loopback4(0);
        const addrinfo ai = candidate(addr, SOCK_DGRAM);
        const socket_spec spec = spec_of(SOCK_SEQPACKET);
        return setup_listener(fd.get(), &ai, &spec) == ETIMEDOUT;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.count("setup_listener: CONNECT ["), 0u);
}

TEST(setup_listener, gives_minus_one_where_the_bind_fails)
{
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    auto addr = loopback4(0);
    reinterpret_cast<sockaddr_in*>(&addr)->sin_addr.s_addr = inet_addr("198.51.100.1");
    const addrinfo ai = candidate(addr, SOCK_STREAM);
    const socket_spec spec = spec_of(SOCK_STREAM);
    EXPECT_EQ(setup_listener(fd.get(), &ai, &spec), -1);
}

TEST(setup_client, gives_the_binds_errno_and_the_connects_minus_one)
{
    auto addr = loopback4(5000);
    reinterpret_cast<sockaddr_in*>(&addr)->sin_addr.s_addr = inet_addr("198.51.100.1");
    const addrinfo dgram = candidate(addr, SOCK_DGRAM);
    socket_spec spec = spec_of(SOCK_DGRAM);
    const Fd udp(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(setup_client(udp.get(), &dgram, &spec), EADDRNOTAVAIL);

    uint16_t port = 0;
    const Fd silent = bound_socket(AF_INET, SOCK_STREAM, &port);
    auto refused = loopback4(port);
    const addrinfo stream = candidate(refused, SOCK_STREAM);
    spec = spec_of(SOCK_STREAM);
    const Fd tcp(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(setup_client(tcp.get(), &stream, &spec), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(spec.async_connect, 0u);
}

TEST(reuse_and_bind, gives_the_errno_of_the_failed_step)
{
    auto addr = loopback4(0);
    EXPECT_EQ(reuse_and_bind(-1, sa(addr), sizeof(sockaddr_in)), EBADF);
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(reuse_and_bind(fd.get(), sa(addr), 4), EINVAL);
    EXPECT_EQ(reuse_and_bind(fd.get(), sa(addr), sizeof(sockaddr_in)), 0);
}

TEST(reuse_and_bind, cuts_a_long_address_in_its_line)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_storage ss = {};
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&ss);
    in6->sin6_family = AF_INET6;
    // Free binding needs no interface that has the address.
    const int on = 1;
    if (setsockopt(fd.get(), IPPROTO_IPV6, IPV6_FREEBIND, &on, sizeof(on)) != 0) GTEST_SKIP() << "no free binding";
    inet_pton(AF_INET6, "2001:db8:1111:2222:3333:4444:5555:6666", &in6->sin6_addr);
    LogCapture log;
    ASSERT_EQ(reuse_and_bind(fd.get(), sa(ss), sizeof(*in6)), 0);
    EXPECT_TRUE(log.contains("reuse_and_bind: fd=" + std::to_string(fd.get()) + " [2001:db8:1111:2222:3333:4444:5 OK"));
}

// ---- mk_sockaddr ----------------------------------------------------------------------------------------------

TEST(mk_sockaddr, makes_an_address)
{
    LogCapture log;
    sockaddr_storage ss = {};
    socklen_t len = 0;
    errno = EIO; // an old one
    EXPECT_EQ(mk_sockaddr("10.0.0.1:5000", SOCK_DGRAM, 0, &ss, &len), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(text_of(ss), "10.0.0.1:5000");
    EXPECT_EQ(len, sizeof(sockaddr_in));
    EXPECT_TRUE(log.contains("mk_sockaddr: DGRAM(0) address for [10.0.0.1:5000]"));
    EXPECT_TRUE(log.contains("mk_sockaddr: OK af=IPv4 (2), proto = 17"));
    EXPECT_TRUE(log.contains("mk_sockaddr: CLOSED(fd")); // the probe
    log.clear();
    EXPECT_EQ(mk_sockaddr("1.2.3.4:1", SOCK_STREAM, IPPROTO_TCP, &ss, &len), 0); // seven characters are enough
    EXPECT_TRUE(log.contains("mk_sockaddr: STREAM(6) address for [1.2.3.4:1]"));
}

TEST(mk_sockaddr, rejects_texts)
{
    const struct {
        const char* text;
        const char* line;
    } rows[] = {
        {"10.0.0.1", "mk_sockaddr: invalid address/port: 10.0.0.1"},
        {"12345678:5000", "mk_sockaddr: cannot accept plain number [12345678] as IP address"},
        {"1.2.3.:5000", "mk_sockaddr: cannot accept plain number [1.2.3.] as IP address"},
        {"a.host:5000", "mk_sockaddr: cannot accept plain number [a.host] as IP address"},
        {"::1:5000", "mk_sockaddr: cannot accept plain number [::1] as IP address"},
        {"[::1]:5000", "mk_sockaddr: cannot accept plain number [[::1]] as IP address"},
        {"10.0.0.1:", "mk_sockaddr: port must be plain decimal number []"},
        {"1234:80x", "mk_sockaddr: cannot accept plain number [1234] as IP address"}, // the port comes later
        {"10.0.0.1:80x", "mk_sockaddr: port must be plain decimal number [80x]"},
    };
    for (const auto& row : rows) {
        LogCapture log;
        sockaddr_storage ss = {};
        socklen_t len = 128;
        EXPECT_EQ(mk_sockaddr(row.text, SOCK_DGRAM, 0, &ss, &len), 22) << row.text;
        EXPECT_EQ(log.messages(ll::error), (Lines{row.line}));
        EXPECT_EQ(ss.ss_family, 0);
        EXPECT_EQ(len, 128u);
    }
}

TEST(mk_sockaddr, fails_where_the_resolver_does)
{
    sockaddr_storage ss = {};
    socklen_t len = 0;
    // The brackets reach the resolver.
    EXPECT_EQ(mk_sockaddr("[fd00::1]:5000", SOCK_DGRAM, 0, &ss, &len), -1);
}

TEST(mk_sockaddr, takes_127_characters_of_a_text)
{
    LogCapture log;
    sockaddr_storage ss = {};
    socklen_t len = 0;
    const std::string text = std::string(127, 'h') + ":5000";
    EXPECT_EQ(mk_sockaddr(text.c_str(), SOCK_DGRAM, 0, &ss, &len), 22);
    EXPECT_EQ(log.messages(ll::error), (Lines{"mk_sockaddr: invalid address/port: " + text}));
}

TEST(mk_sockaddr_DeathTest, stops_on_another_socket_type)
{
    sockaddr_storage ss = {};
    socklen_t len = 0;
    EXPECT_DEATH(mk_sockaddr("10.0.0.1:5000", SOCK_RAW, 0, &ss, &len), "Assertion");
}

// ---- interfaces -----------------------------------------------------------------------------------------------

TEST(ifaddr_index, finds_an_interface_by_name_and_leaves_the_address_empty)
{
    sockaddr_storage ss = {};
    EXPECT_EQ(ifaddr_index("lo", &ss), if_nametoindex("lo"));
    EXPECT_EQ(ss.ss_family, 0);
}

TEST(ifaddr_index, finds_an_interface_by_address)
{
    LogCapture log;
    sockaddr_storage ss = {};
    const unsigned lo = if_nametoindex("lo");
    EXPECT_EQ(ifaddr_index("127.0.0.1", &ss), lo);
    EXPECT_EQ(text_of(ss), "127.0.0.1:0");
    EXPECT_TRUE(log.contains("af=IPv4 (2), proto = 6"));
    EXPECT_TRUE(log.contains("ifaddr_index: 127.0.0.1 matched to interface [lo], idx=" + std::to_string(lo)));
    EXPECT_EQ(ifaddr_index("127.0.0.1", nullptr), lo);
    if (has_ipv6()) {
        EXPECT_EQ(ifaddr_index("::1", nullptr), lo);
    }
}

TEST(ifaddr_index, is_0_where_nothing_has_the_tag)
{
    EXPECT_EQ(ifaddr_index("198.51.100.1", nullptr), 0u);
    EXPECT_EQ(ifaddr_index("no-such-ifc", nullptr), 0u);
}

// Callers can't tell it from an index; the line is what tells.
TEST(ifaddr_index, gives_the_errno_where_interfaces_cannot_be_listed)
{
    LogCapture log;
    const int status = with_failing(SYS_socket, EMFILE, prk::arg_is{0, AF_NETLINK}, [] {
        sockaddr_storage ss = {};
        return ifaddr_index("127.0.0.1", nullptr) == EMFILE &&
               ifc_addr_lookup(AF_INET, "lo", sa(ss), sizeof(ss)) == EMFILE;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ifaddr_index: getifaddrs [127.0.0.1] (family=0): Too many open files",
                                              "ifc_addr_lookup: getifaddrs [lo] (family=2): Too many open files"}));
}

TEST(get_ifc_info, fails_where_the_name_cannot_be_had)
{
    LogCapture log;
    const int status = with_failing(SYS_ioctl, ENODEV, prk::arg_is{1, SIOCGIFNAME},
                                    [] { return get_ifc_info(AF_INET, "lo") == nullptr; });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(
        errors[0].starts_with("get_ifc_info: if_indextoname(" + std::to_string(if_nametoindex("lo")) + ", buf): "))
        << errors[0];
}

TEST(ifaddr_index_DeathTest, stops_on_a_null_tag)
{
    EXPECT_DEATH(ifaddr_index(nullptr, nullptr), "Assertion");
}

TEST(ifc_addr_lookup, finds_the_address_of_a_family)
{
    sockaddr_storage ss = {};
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "lo", sa(ss), sizeof(ss)), 0);
    EXPECT_EQ(text_of(ss), "127.0.0.1:0");
    if (has_ipv6()) {
        EXPECT_EQ(ifc_addr_lookup(AF_INET6, "lo", sa(ss), sizeof(ss)), 0);
        EXPECT_EQ(text_of(ss), "[::1]:0");
    }
}

TEST(ifc_addr_lookup, reports_an_interface_without_one)
{
    LogCapture log;
    sockaddr_storage ss = {};
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "no-such-ifc", sa(ss), sizeof(ss)), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ifc_addr_lookup: failed to look up address for ifc=no-such-ifc"}));
    EXPECT_EQ(ss.ss_family, 0);
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "l", sa(ss), sizeof(ss)), -1); // all of the name counts
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "lo-no", sa(ss), sizeof(ss)), -1);
}

TEST(ifc_addr_lookup_DeathTest, stops_on_null_arguments_and_a_small_destination)
{
    sockaddr_storage ss = {};
    EXPECT_DEATH(ifc_addr_lookup(AF_INET, nullptr, sa(ss), sizeof(ss)), "Assertion");
    EXPECT_DEATH(ifc_addr_lookup(AF_INET, "lo", nullptr, sizeof(ss)), "Assertion");
    EXPECT_DEATH(ifc_addr_lookup(AF_INET, "lo", sa(ss), 15), "Assertion");
}

TEST(get_ifc_info, describes_a_named_interface)
{
    ifc_info* ifc = get_ifc_info(AF_INET, "lo");
    ASSERT_NE(ifc, nullptr);
    EXPECT_EQ(ifc->idx, if_nametoindex("lo"));
    EXPECT_STREQ(ifc->name, "lo");
    EXPECT_EQ(text_of(ifc->ss), "127.0.0.1:0");
    free(ifc);
    ifc = get_ifc_info(AF_INET, "127.0.0.1");
    ASSERT_NE(ifc, nullptr);
    EXPECT_STREQ(ifc->name, "lo");
    free(ifc);
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    // An address that the tag gives is kept, whatever the family asked for.
    ifc = get_ifc_info(AF_INET, "::1");
    ASSERT_NE(ifc, nullptr);
    EXPECT_STREQ(ifc->name, "lo");
    EXPECT_EQ(text_of(ifc->ss), "[::1]:0");
    free(ifc);
}

TEST(get_ifc_info, refuses_a_tag_that_names_no_interface)
{
    LogCapture log;
    EXPECT_EQ(get_ifc_info(AF_INET, "no-such-ifc"), nullptr);
    EXPECT_EQ(log.messages(ll::error), (Lines{"[no-such-ifc] is not a valid IPv4 interface address."}));
}

TEST(get_ifc_info, fails_where_the_interface_has_no_address_of_the_family)
{
    LogCapture log;
    EXPECT_EQ(get_ifc_info(AF_IPX, "lo"), nullptr);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ifc_addr_lookup: failed to look up address for ifc=lo"}));
}

TEST(any_ifc_info, is_no_interface_in_particular)
{
    ifc_info* ifc = any_ifc_info(AF_INET6);
    ASSERT_NE(ifc, nullptr);
    EXPECT_EQ(ifc->idx, 0u);
    EXPECT_STREQ(ifc->name, "");
    EXPECT_EQ(ifc->ss.ss_family, AF_INET6);
    EXPECT_EQ(is_unspecified(sa(ifc->ss)), 1);
    free(ifc);
}
