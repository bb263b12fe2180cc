// Multicast membership, in a network of the test's own where groups go over the loopback.
#include "netops.h"

#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/net_space.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

struct FreeIfc {
    void operator()(ifc_info* p) const { free(p); }
};
using Ifc = std::unique_ptr<ifc_info, FreeIfc>;

constexpr const char* GROUP = "239.255.7.7";
constexpr const char* GROUP6 = "ff0e::7:7";
constexpr const char* LINK_GROUP6 = "ff02::7:7";

sockaddr* sa(sockaddr_storage& ss)
{
    return reinterpret_cast<sockaddr*>(&ss);
}

sockaddr_storage addr(const char* text, uint16_t port = 0)
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&ss);
    if (inet_pton(AF_INET, text, &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, text, &in6->sin6_addr), 1) << text;
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
    }
    return ss;
}

addrinfo candidate(sockaddr_storage& ss)
{
    addrinfo ai = {};
    ai.ai_family = ss.ss_family;
    ai.ai_socktype = SOCK_DGRAM;
    ai.ai_addr = sa(ss);
    ai.ai_addrlen = ss.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    return ai;
}

uint32_t& scope_of(sockaddr_storage& ss)
{
    return reinterpret_cast<sockaddr_in6*>(&ss)->sin6_scope_id;
}

std::string text_of(sockaddr_storage& ss)
{
    char buf[80] = "";
    return saddr_str(sa(ss), sizeof(ss), buf, sizeof(buf)) ? buf : "?";
}

Fd udp(int family = AF_INET)
{
    return Fd(socket(family, SOCK_DGRAM, 0));
}

std::string fd_text(const Fd& fd)
{
    return std::to_string(fd.get());
}

// Sends a datagram to a group or address over the loopback, from an address of it.
void send_from(const char* from, const char* to, uint16_t port, const std::string& text)
{
    const Fd fd = udp();
    auto src = addr(from);
    ASSERT_EQ(bind(fd.get(), sa(src), sizeof(sockaddr_in)), 0);
    const in_addr lo = {htonl(INADDR_LOOPBACK)};
    ASSERT_EQ(setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof(lo)), 0);
    auto dst = addr(to, port);
    ASSERT_EQ(sendto(fd.get(), text.data(), text.size(), 0, sa(dst), sizeof(sockaddr_in)),
              static_cast<ssize_t>(text.size()));
}

// The next datagram; empty when none comes within a second.
std::string receive(int fd)
{
    EXPECT_EQ(set_rcv_timeout(fd, 1000), 0);
    char buf[64];
    const ssize_t n = recv(fd, buf, sizeof(buf), 0);
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

class mcast : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
        lo = if_nametoindex("lo");
    }

    // Opens a reader of a group as a source does.
    Fd open_reader(const char* group, const char* tag, const char* src = nullptr, int family = 0)
    {
        spec = {};
        spec.socktype = SOCK_DGRAM;
        spec.family = family;
        ifc_info* found = nullptr;
        Fd fd(open_socket(group, std::to_string(port).c_str(), src, &spec, tag, &found));
        ifc.reset(found);
        return fd;
    }

    unsigned lo = 0;
    uint16_t port = 5007;
    socket_spec spec = {};
    Ifc ifc;
};

using mcast_DeathTest = mcast;
using mcast_legacy = mcast;

} // namespace

// ---- readers --------------------------------------------------------------------------------------------------

TEST_F(mcast, reader_takes_its_groups_datagrams_only)
{
    LogCapture log;
    const Fd fd = open_reader(GROUP, "all");
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(spec.multicast, 1u);
    EXPECT_EQ(text_of(spec.addr_ss), "239.255.7.7:5007");
    send_from("127.0.0.1", "127.0.0.1", port, "unicast");
    send_from("127.0.0.1", "239.255.7.8", port, "other group");
    send_from("127.0.0.1", GROUP, port, "group");
    EXPECT_EQ(receive(fd.get()), "group");
    EXPECT_TRUE(log.contains("open_socket: CLIENT multicast socket fd=[" + fd_text(fd) + "]"));
}

TEST_F(mcast, reader_without_an_interface_has_the_any_record)
{
    for (const char* tag : {static_cast<const char*>(nullptr), "", "any", "all"}) {
        LogCapture log;
        const Fd fd = open_reader(GROUP, tag);
        ASSERT_GE(fd.get(), 0);
        ASSERT_TRUE(ifc);
        EXPECT_EQ(ifc->idx, 0u);
        EXPECT_STREQ(ifc->name, "");
        EXPECT_TRUE(log.contains("setup_mcast_reader: fd=" + fd_text(fd) + ", ifc=[]:0x"));
        EXPECT_TRUE(log.contains("mcast_group_op: ifc-name=, idx=0 ifc=0x"));
    }
}

TEST_F(mcast, reader_joins_on_a_named_interface)
{
    for (const char* tag : {"lo", "127.0.0.1"}) {
        LogCapture log;
        const Fd fd = open_reader(GROUP, tag);
        ASSERT_GE(fd.get(), 0);
        ASSERT_TRUE(ifc);
        EXPECT_EQ(ifc->idx, lo);
        EXPECT_STREQ(ifc->name, "lo");
        EXPECT_TRUE(log.contains("mcast_group_op: ifc-name=lo, idx=" + std::to_string(lo) + " ifc=0x"));
        EXPECT_EQ(log.messages(ll::info),
                  (Lines{"mcast_group_op: using GENERIC mulitcast API to MCAST_JOIN group 239.255.7.7:5007"}));
        send_from("127.0.0.1", GROUP, port, "x");
        EXPECT_EQ(receive(fd.get()), "x");
    }
}

TEST_F(mcast, reader_goes_on_without_an_interface_after_a_bad_tag)
{
    LogCapture log;
    const Fd fd = open_reader(GROUP, "no-such-ifc");
    ASSERT_GE(fd.get(), 0);
    EXPECT_FALSE(ifc);
    EXPECT_EQ(log.messages(ll::error), (Lines{"[no-such-ifc] is not a valid IPv4 interface address."}));
    EXPECT_TRUE(log.contains("setup_mcast_reader: fd=" + fd_text(fd) + ", ifc=[<any>]:(nil)"));
    EXPECT_TRUE(log.contains("mcast_group_op: ifc-name=, idx=0 ifc=(nil)"));
    send_from("127.0.0.1", GROUP, port, "x");
    EXPECT_EQ(receive(fd.get()), "x");
}

TEST_F(mcast, reader_sets_no_option_but_address_sharing)
{
    const Fd fresh = udp();
    const Fd fd = open_reader(GROUP, "lo");
    ASSERT_GE(fd.get(), 0);
    for (const int option : {SO_RCVBUF, SO_SNDBUF, SO_BROADCAST, SO_KEEPALIVE, SO_PRIORITY})
        EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, option), int_option(fresh.get(), SOL_SOCKET, option));
    for (const int option : {IP_MULTICAST_LOOP, IP_MULTICAST_TTL, IP_MULTICAST_ALL})
        EXPECT_EQ(int_option(fd.get(), IPPROTO_IP, option), int_option(fresh.get(), IPPROTO_IP, option));
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEPORT), 1);
}

TEST_F(mcast, reader_of_an_ipv6_group_joins)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    LogCapture log;
    const Fd fd = open_reader(GROUP6, "lo");
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(spec.family, AF_INET6);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"mcast_group_op: using GENERIC mulitcast API to MCAST_JOIN group [ff0e::7:7]:5007"}));
    EXPECT_EQ(log.count("scope"), 0u);
}

TEST_F(mcast, reader_of_a_link_local_group_gets_the_interfaces_scope)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    LogCapture log;
    const Fd fd = open_reader(LINK_GROUP6, "lo");
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(log.messages(ll::error), (Lines{"updated IPv6 address scope ID to " + std::to_string(lo)}));
    EXPECT_EQ(scope_of(spec.addr_ss), lo);
}

TEST_F(mcast, reader_of_a_link_local_group_needs_an_interface_and_tries_all_the_same)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    LogCapture log;
    const Fd fd = open_reader("ff02::1", "all");
    EXPECT_EQ(fd.get(), -1);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], "setup_mcast_reader: network interface must be specified to use link/local-scope multicast");
    EXPECT_TRUE(errors[1].starts_with("reuse_and_bind: bind("));
}

TEST_F(mcast, reader_of_a_link_local_group_keeps_the_zone_of_its_text)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    LogCapture log;
    const Fd fd = open_reader("ff02::7:7%lo", "lo");
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(log.messages(ll::error), (Lines{"IPv6 address scope ID " + std::to_string(lo) + " left unchanged"}));
}

TEST(mcast_reader, fails_where_the_join_fails)
{
    if (!enter_net_space(false)) GTEST_SKIP() << "no network namespace to be had here";
    LogCapture log;
    socket_spec spec = {};
    spec.socktype = SOCK_DGRAM;
    // Nothing says which interface the group is on.
    EXPECT_EQ(open_socket(GROUP, "5007", nullptr, &spec, "all", nullptr), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(spec.multicast, 1u);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("mcast_group_op: setsockopt("));
    EXPECT_TRUE(errors[1].starts_with("mcast_join: MCAST_JOIN fd="));
    EXPECT_TRUE(errors[1].ends_with(": No such device"));
    EXPECT_TRUE(log.contains("open_socket: CLOSED(fd"));
}

// ---- source-specific groups -----------------------------------------------------------------------------------

TEST_F(mcast, reader_with_a_source_hears_that_sender_only)
{
    for (const char* src : {"127.0.0.2", "127.0.0.2:5000"}) {
        const Fd fd = open_reader(GROUP, "lo", src);
        ASSERT_GE(fd.get(), 0);
        EXPECT_TRUE(spec.is_ssm);
        send_from("127.0.0.1", GROUP, port, "another");
        send_from("127.0.0.2", GROUP, port, "the sender");
        EXPECT_EQ(receive(fd.get()), "the sender");
    }
}

TEST_F(mcast, source_join_reports_its_failure)
{
    const Fd fd = udp();
    auto group = addr(GROUP), src = addr("127.0.0.2");
    const Ifc ifc_lo(get_ifc_info(AF_INET, "lo"));
    ASSERT_EQ(ssm_join(fd.get(), &src, &group, ifc_lo.get()), 0);
    LogCapture log;
    EXPECT_NE(ssm_join(fd.get(), &src, &group, ifc_lo.get()), 0); // a member already
    EXPECT_EQ(log.messages(ll::error).back(), "ssm_join: (ssm_generic_op) SSM_JOIN ifc=lo/" + std::to_string(lo) +
                                                  " fd" + fd_text(fd) + ": Cannot assign requested address");
}

// Nothing in the system calls it: the flag stays as its users know it.
TEST_F(mcast, ssm_leave_joins)
{
    const Fd fd = udp();
    auto group = addr(GROUP), src = addr("127.0.0.2");
    const Ifc ifc_lo(get_ifc_info(AF_INET, "lo"));
    EXPECT_EQ(ssm_leave(fd.get(), &src, &group, ifc_lo.get()), 0);
    LogCapture log;
    EXPECT_NE(ssm_leave(fd.get(), &src, &group, ifc_lo.get()), 0);
    EXPECT_TRUE(log.contains("ssm_leave: (ssm_generic_op) SSM_JOIN ifc=lo/"));
}

TEST_F(mcast, source_group_can_be_left_by_the_operation_itself)
{
    const Fd fd = udp();
    auto group = addr(GROUP), src = addr("127.0.0.2");
    LogCapture log;
    EXPECT_NE(ssm_generic_op("test", "lo", lo, &group, &src, 0, fd.get()), 0);
    EXPECT_TRUE(log.contains("test: (ssm_generic_op) SSM_LEAVE ifc=lo/" + std::to_string(lo) + " fd" + fd_text(fd)));
    EXPECT_EQ(ssm_generic_op("test", "lo", lo, &group, &src, 1, fd.get()), 0);
    EXPECT_EQ(ssm_generic_op("test", "lo", lo, &group, &src, 0, fd.get()), 0);
}

TEST_F(mcast, source_operation_names_no_interface_for_a_null_name)
{
    auto group = addr(GROUP), src = addr("127.0.0.2");
    LogCapture log;
    EXPECT_EQ(ssm_generic_op("test", nullptr, 0, &group, &src, 1, -1), -1);
    EXPECT_EQ(log.messages(ll::error).back(), "test: (ssm_generic_op) SSM_JOIN ifc=<none>/0 fd-1: Bad file descriptor");
}

TEST_F(mcast, source_join_of_an_ipv6_group_works_with_the_generic_option)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd = udp(AF_INET6);
    auto group = addr(GROUP6), src = addr("fd00::1");
    const Ifc ifc_lo(get_ifc_info(AF_INET6, "lo"));
    EXPECT_EQ(ssm_join(fd.get(), &src, &group, ifc_lo.get()), 0);
}

TEST_F(mcast_DeathTest, source_of_another_family_stops)
{
    auto group = addr(GROUP), src = addr("::1");
    EXPECT_DEATH(ssm_group_op("test", "", 0, &group, &src, nullptr, 1, 0), "Assertion");
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    EXPECT_DEATH(open_reader(GROUP6, "lo", "10.0.0.1"), "Assertion");
}

// ---- plain operations -----------------------------------------------------------------------------------------

TEST_F(mcast, join_and_leave_report_their_failures)
{
    const Fd fd = udp();
    auto group = addr(GROUP, 5007);
    const Ifc ifc_lo(get_ifc_info(AF_INET, "lo"));
    LogCapture log;
    EXPECT_EQ(mcast_join(fd.get(), &group, ifc_lo.get()), 0);
    EXPECT_NE(mcast_join(fd.get(), &group, ifc_lo.get()), 0);
    EXPECT_EQ(log.messages(ll::error).back(), "mcast_join: MCAST_JOIN fd=" + fd_text(fd) + ": Address already in use");
    log.clear();
    EXPECT_EQ(mcast_leave(fd.get(), &group, ifc_lo.get()), 0);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"mcast_group_op: using GENERIC mulitcast API to MCAST_LEAVE group 239.255.7.7:5007"}));
    EXPECT_NE(mcast_leave(fd.get(), &group, ifc_lo.get()), 0);
    EXPECT_EQ(log.messages(ll::error).back(),
              "mcast_leave: MCAST_LEAVE fd=" + fd_text(fd) + ": Cannot assign requested address");
}

TEST_F(mcast, operation_names_no_interface_for_a_null_name)
{
    const Fd fd = udp();
    auto group = addr(GROUP);
    LogCapture log;
    EXPECT_EQ(mcast_group_op("test", nullptr, lo, &group, nullptr, 1, fd.get()), 0);
    EXPECT_TRUE(log.contains("mcast_group_op: ifc-name=<none>, idx=" + std::to_string(lo) + " ifc=(nil)"));
}

TEST_F(mcast, operation_fails_for_a_family_without_an_option_level)
{
    const Fd fd = udp();
    sockaddr_storage group = {};
    group.ss_family = AF_PACKET;
    LogCapture log;
    EXPECT_NE(mcast_group_op("test", "", 0, &group, nullptr, 1, fd.get()), 0);
    EXPECT_TRUE(log.messages(ll::error).back().starts_with("test: MCAST_JOIN fd=" + fd_text(fd) + ": "));
    EXPECT_TRUE(log.contains("mcast_group_op: setsockopt(" + fd_text(fd) + ", -1, "));
}

// ---- protocol-specific options --------------------------------------------------------------------------------

// Once chosen, the older options stay for the life of the process.
TEST_F(mcast_legacy, choice_has_no_way_back)
{
    set_legacy_mcast_api(0);
    {
        LogCapture log;
        ASSERT_GE(open_reader(GROUP, "lo").get(), 0);
        EXPECT_TRUE(log.contains("using GENERIC mulitcast API"));
    }
    set_legacy_mcast_api(1);
    set_legacy_mcast_api(0);
    LogCapture log;
    ASSERT_GE(open_reader(GROUP, "lo").get(), 0);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"mcast_group_op: using protocol-specific mulitcast API to MCAST_JOIN group 239.255.7.7:5007"}));
}

TEST_F(mcast_legacy, reader_hears_its_group)
{
    set_legacy_mcast_api(1);
    for (const char* tag : {"lo", "all"}) {
        const Fd fd = open_reader(GROUP, tag);
        ASSERT_GE(fd.get(), 0);
        send_from("127.0.0.1", GROUP, port, "x");
        EXPECT_EQ(receive(fd.get()), "x");
        EXPECT_EQ(mcast_leave(fd.get(), &spec.addr_ss, ifc.get()), 0);
    }
}

TEST_F(mcast_legacy, operation_fills_the_interface_address)
{
    set_legacy_mcast_api(1);
    const Fd fd = udp();
    auto group = addr(GROUP);
    sockaddr_storage ifaddr = {};
    EXPECT_EQ(mcast_group_op("test", "lo", lo, &group, &ifaddr, 1, fd.get()), 0);
    EXPECT_EQ(text_of(ifaddr), "127.0.0.1:0");
    const Fd other = udp();
    ifaddr = {};
    EXPECT_EQ(mcast_group_op("test", "any", 0, &group, &ifaddr, 1, other.get()), 0);
    EXPECT_EQ(is_unspecified(sa(ifaddr)), 1);
    ifaddr = {};
    LogCapture log;
    EXPECT_EQ(mcast_group_op("test", "no-such-ifc", 0, &group, &ifaddr, 1, other.get()), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ifc_addr_lookup: failed to look up address for ifc=no-such-ifc"}));
}

TEST_F(mcast_legacy, operation_refuses_another_family)
{
    set_legacy_mcast_api(1);
    sockaddr_storage group = {};
    group.ss_family = AF_PACKET;
    LogCapture log;
    EXPECT_EQ(mcast_group_op("test", "", 0, &group, nullptr, 1, 0), -1);
    EXPECT_TRUE(log.contains("mcast_group_op: unsupported family 17"));
    EXPECT_TRUE(log.messages(ll::error).back().starts_with("test: MCAST_JOIN fd=0: "));
}

TEST_F(mcast_legacy, reader_of_an_ipv6_group_joins_and_leaves)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    set_legacy_mcast_api(1);
    const Fd fd = open_reader(GROUP6, "lo");
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(mcast_leave(fd.get(), &spec.addr_ss, ifc.get()), 0);
}

TEST_F(mcast_legacy, reader_with_a_source_hears_that_sender_only)
{
    set_legacy_mcast_api(1);
    const Fd fd = open_reader(GROUP, "lo", "127.0.0.2");
    ASSERT_GE(fd.get(), 0);
    send_from("127.0.0.1", GROUP, port, "another");
    send_from("127.0.0.2", GROUP, port, "the sender");
    EXPECT_EQ(receive(fd.get()), "the sender");
}

TEST_F(mcast_legacy, source_join_reports_its_failure)
{
    set_legacy_mcast_api(1);
    const Fd fd = udp();
    auto group = addr(GROUP), src = addr("127.0.0.2");
    const Ifc ifc_lo(get_ifc_info(AF_INET, "lo"));
    ASSERT_EQ(ssm_join(fd.get(), &src, &group, ifc_lo.get()), 0);
    LogCapture log;
    EXPECT_EQ(ssm_join(fd.get(), &src, &group, ifc_lo.get()), -1);
    EXPECT_EQ(log.messages(ll::error).back(), "ssm_join: (ssm_proto_op) SSM_JOIN ifc=lo/" + std::to_string(lo) + " fd" +
                                                  fd_text(fd) + ": Cannot assign requested address");
}

TEST_F(mcast_legacy, source_join_ends_where_the_interface_has_no_address)
{
    const Fd fd = udp();
    auto group = addr(GROUP), src = addr("127.0.0.2");
    sockaddr_storage ifaddr = {};
    LogCapture log;
    EXPECT_EQ(ssm_proto_op("test", "no-such-ifc", 0, &group, &src, &ifaddr, 1, fd.get()), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ifc_addr_lookup: failed to look up address for ifc=no-such-ifc"}));
}

TEST_F(mcast_legacy, source_join_is_refused_for_ipv6)
{
    set_legacy_mcast_api(1);
    auto group = addr(GROUP6), src = addr("fd00::1");
    LogCapture log;
    EXPECT_EQ(ssm_join(7, &src, &group, nullptr), -22);
    EXPECT_EQ(log.messages(ll::error), (Lines{"ssm_join: (ssm_proto_op) IPv6-specific SSM not supported",
                                              "ssm_join: (ssm_proto_op) SSM_JOIN ifc=/0 fd7: Invalid argument"}));
}

TEST_F(mcast_legacy, source_join_does_nothing_for_another_family)
{
    sockaddr_storage odd = {};
    odd.ss_family = AF_PACKET;
    LogCapture log;
    EXPECT_EQ(ssm_proto_op("test", "", 0, &odd, &odd, nullptr, 1, -1), 0);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST_F(mcast_DeathTest, legacy_join_without_an_interface_record_stops)
{
    // Chosen in the child only: the choice has no way back.
    auto group = addr(GROUP);
    EXPECT_DEATH((set_legacy_mcast_api(1), mcast_join(0, &group, nullptr)), "Assertion");
}

// ---- scope ----------------------------------------------------------------------------------------------------

TEST_F(mcast, scope_comes_from_the_interface_address)
{
    auto group = addr(LINK_GROUP6), ifaddr = addr("fe80::1");
    scope_of(ifaddr) = 5;
    LogCapture log;
    sync_ipv6addr_scope_id(sa(group), "lo", &ifaddr);
    EXPECT_EQ(scope_of(group), 5u);
    EXPECT_EQ(log.messages(ll::error), (Lines{"updated IPv6 address scope ID to 5"}));
}

TEST_F(mcast, scope_that_is_there_stays)
{
    auto group = addr(LINK_GROUP6), ifaddr = addr("fe80::1");
    scope_of(group) = 3;
    scope_of(ifaddr) = 5;
    LogCapture log;
    sync_ipv6addr_scope_id(sa(group), "lo", &ifaddr);
    EXPECT_EQ(scope_of(group), 3u);
    EXPECT_EQ(log.messages(ll::error), (Lines{"IPv6 address scope ID 3 left unchanged"}));
}

TEST_F(mcast, scope_needs_a_name_or_an_address)
{
    auto group = addr(LINK_GROUP6);
    sockaddr_storage ifaddr = {};
    LogCapture log;
    sync_ipv6addr_scope_id(sa(group), nullptr, &ifaddr);
    EXPECT_EQ(log.messages(ll::error), (Lines{"sync_ipv6addr_scope_id: cannot set scope id, interface or link-specific "
                                              "address must be selected"}));
    log.clear();
    sync_ipv6addr_scope_id(sa(group), "no-such-ifc", &ifaddr);
    EXPECT_EQ(log.messages(ll::error).back(), "IPv6 address scope ID 0 left unchanged");
    EXPECT_EQ(scope_of(group), 0u);
}

TEST_F(mcast, scope_is_looked_up_by_name_where_no_address_is_given)
{
    auto group = addr(LINK_GROUP6);
    LogCapture log;
    sync_ipv6addr_scope_id(sa(group), nullptr, nullptr);
    EXPECT_EQ(log.messages(ll::error), (Lines{"sync_ipv6addr_scope_id: cannot set scope id, interface or link-specific "
                                              "address must be selected"}));
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    log.clear();
    sync_ipv6addr_scope_id(sa(group), "lo", nullptr);
    EXPECT_EQ(scope_of(group), lo);
    EXPECT_EQ(log.messages(ll::error), (Lines{"updated IPv6 address scope ID to " + std::to_string(lo)}));
}

TEST_F(mcast, scope_is_no_matter_of_ipv4)
{
    auto group = addr(GROUP);
    const auto before = group;
    sockaddr_storage ifaddr = {};
    LogCapture log;
    sync_ipv6addr_scope_id(sa(group), nullptr, &ifaddr);
    EXPECT_EQ(memcmp(&group, &before, sizeof(group)), 0);
    EXPECT_EQ(log.messages(), Lines{});
}

// ---- writers --------------------------------------------------------------------------------------------------

TEST_F(mcast, writer_sends_through_a_named_interface)
{
    LogCapture log;
    socket_spec wspec = {};
    wspec.socktype = SOCK_DGRAM;
    wspec.writer = 1;
    ifc_info* found = nullptr;
    const Fd fd(open_socket(GROUP, "5007", nullptr, &wspec, "lo", &found));
    const Ifc own(found);
    ASSERT_GE(fd.get(), 0);
    in_addr addr4 = {};
    socklen_t len = sizeof(addr4);
    ASSERT_EQ(getsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &addr4, &len), 0);
    EXPECT_EQ(addr4.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(local_port(fd.get()), 0); // not bound
    EXPECT_TRUE(log.contains("setup_mcast_writer: fd=" + fd_text(fd) + ", ifc=[lo]:0x"));
    EXPECT_EQ(log.count("mcast_group_op"), 0u);
}

TEST_F(mcast, writer_without_an_interface_has_the_any_record_of_its_family)
{
    for (const char* group : {GROUP, GROUP6}) {
        if (group == GROUP6 && !has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
        socket_spec wspec = {};
        wspec.socktype = SOCK_DGRAM;
        wspec.writer = 1;
        ifc_info* found = nullptr;
        const Fd fd(open_socket(group, "5007", nullptr, &wspec, "all", &found));
        const Ifc own(found);
        ASSERT_GE(fd.get(), 0);
        ASSERT_TRUE(own);
        EXPECT_EQ(own->ss.ss_family, group == GROUP6 ? AF_INET6 : AF_INET);
    }
}

TEST_F(mcast, writer_without_an_interface_sets_nothing)
{
    auto group = addr(GROUP);
    addrinfo ai = candidate(group);
    const Ifc any(any_ifc_info(AF_INET));
    EXPECT_EQ(setup_mcast_writer(-1, &ai, any.get()), 0);
    EXPECT_EQ(setup_mcast_writer(-1, &ai, nullptr), 0);
}

TEST_F(mcast, writer_to_an_ipv6_group_sends_through_a_named_interface)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    auto group = addr(GROUP6);
    addrinfo ai = candidate(group);
    const Ifc named(get_ifc_info(AF_INET6, "lo"));
    const Fd fd = udp(AF_INET6);
    EXPECT_EQ(setup_mcast_writer(fd.get(), &ai, named.get()), 0);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IPV6, IPV6_MULTICAST_IF), static_cast<int>(lo));
}

TEST_F(mcast, ipv6_interface_must_be_one)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd = udp(AF_INET6);
    LogCapture log;
    EXPECT_EQ(set_ipv6_sock_ifc(fd.get(), 0), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"set_ipv6_sock_ifc: network interface must be specified"}));
    log.clear();
    EXPECT_EQ(set_ipv6_sock_ifc(fd.get(), 9999), ENODEV);
    EXPECT_EQ(log.messages(ll::error).back(),
              "set_ipv6_sock_ifc: setsockopt IPV6_MULTICAST_IF failed (19): No such device");
}

TEST_F(mcast_DeathTest, writer_on_an_interface_without_an_ipv4_address_stops)
{
    auto group = addr(GROUP);
    addrinfo ai = candidate(group);
    ifc_info bare = {};
    strcpy(bare.name, "lo");
    EXPECT_DEATH(setup_mcast_writer(0, &ai, &bare), "Assertion");
}
