// The system calls that opening a socket makes, in their order; and interface lists that no host would give. The linker
// leads the calls to the test.
#include "netops.h"
#include "wopen.h"

#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/net_space.h"
#include "support/proc_kit.h"
#include "support/source.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

bool g_recording = false;
Lines g_calls;
std::string g_value; // of the last option that was set

void note(const std::string& call)
{
    if (g_recording) g_calls.push_back(call);
}

std::string option_name(int level, int option)
{
    const struct {
        int level, option;
        const char* name;
    } known[] = {{SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR"},
                 {SOL_SOCKET, SO_REUSEPORT, "SO_REUSEPORT"},
                 {SOL_SOCKET, SO_RCVTIMEO, "SO_RCVTIMEO"},
                 {SOL_SOCKET, SO_SNDTIMEO, "SO_SNDTIMEO"},
                 {IPPROTO_IPV6, IPV6_V6ONLY, "IPV6_V6ONLY"},
                 {IPPROTO_IP, MCAST_JOIN_GROUP, "MCAST_JOIN_GROUP"},
                 {IPPROTO_IP, MCAST_LEAVE_GROUP, "MCAST_LEAVE_GROUP"},
                 {IPPROTO_IP, MCAST_JOIN_SOURCE_GROUP, "MCAST_JOIN_SOURCE_GROUP"},
                 {IPPROTO_IP, MCAST_LEAVE_SOURCE_GROUP, "MCAST_LEAVE_SOURCE_GROUP"},
                 {IPPROTO_IP, IP_ADD_MEMBERSHIP, "IP_ADD_MEMBERSHIP"},
                 {IPPROTO_IP, IP_DROP_MEMBERSHIP, "IP_DROP_MEMBERSHIP"},
                 {IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP, "IP_ADD_SOURCE_MEMBERSHIP"},
                 {IPPROTO_IP, IP_DROP_SOURCE_MEMBERSHIP, "IP_DROP_SOURCE_MEMBERSHIP"},
                 {IPPROTO_IPV6, IPV6_JOIN_GROUP, "IPV6_JOIN_GROUP"},
                 {IPPROTO_IPV6, IPV6_LEAVE_GROUP, "IPV6_LEAVE_GROUP"},
                 {IPPROTO_IPV6, MCAST_JOIN_GROUP, "IPv6 MCAST_JOIN_GROUP"},
                 {IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, "IPv6 MCAST_JOIN_SOURCE_GROUP"},
                 {IPPROTO_IP, IP_MULTICAST_IF, "IP_MULTICAST_IF"}};
    for (const auto& k : known)
        if (k.level == level && k.option == option) return k.name;
    return "option " + std::to_string(level) + "/" + std::to_string(option);
}

// The calls that something makes.
template <typename F>
Lines calls_of(F&& f)
{
    g_calls.clear();
    g_recording = true;
    f();
    g_recording = false;
    return g_calls;
}

ifaddrs* g_list = nullptr; // stands for the host's interfaces where it is set

sockaddr_storage address(const char* text)
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&ss);
    if (inet_pton(AF_INET, text, &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, text, &in6->sin6_addr), 1) << text;
        in6->sin6_family = AF_INET6;
    }
    return ss;
}

using Rows = std::vector<std::pair<std::string, const char*>>;

// Interface names with an address each, as the host's list; a null text is an entry without an address.
struct IfcList {
    struct entry {
        std::string name;
        sockaddr_storage ss = {};
        ifaddrs link = {};
    };
    explicit IfcList(const Rows& rows) : entries(rows.size())
    {
        for (size_t i = 0; i < rows.size(); ++i) {
            entry& e = entries[i];
            e.name = rows[i].first;
            e.link.ifa_name = e.name.data();
            e.link.ifa_next = i + 1 < rows.size() ? &entries[i + 1].link : nullptr;
            if (!rows[i].second) continue;
            e.ss = address(rows[i].second);
            e.link.ifa_addr = reinterpret_cast<sockaddr*>(&e.ss);
        }
        g_list = &entries[0].link;
    }
    IfcList(const IfcList&) = delete;
    IfcList& operator=(const IfcList&) = delete;
    ~IfcList() { g_list = nullptr; }

    std::vector<entry> entries;
};

} // namespace

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    note("socket");
    return __real_socket(domain, type, protocol);
}
int __real_bind(int fd, const sockaddr* addr, socklen_t len);
int __wrap_bind(int fd, const sockaddr* addr, socklen_t len)
{
    note("bind");
    return __real_bind(fd, addr, len);
}
int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog)
{
    note("listen " + std::to_string(backlog));
    return __real_listen(fd, backlog);
}
int __real_connect(int fd, const sockaddr* addr, socklen_t len);
int __wrap_connect(int fd, const sockaddr* addr, socklen_t len)
{
    note("connect");
    return __real_connect(fd, addr, len);
}
int __real_setsockopt(int fd, int level, int option, const void* val, socklen_t len);
int __wrap_setsockopt(int fd, int level, int option, const void* val, socklen_t len)
{
    note(option_name(level, option));
    g_value.assign(static_cast<const char*>(val), len);
    return __real_setsockopt(fd, level, option, val, len);
}
int __real_fcntl(int fd, int cmd, int arg);
int __wrap_fcntl(int fd, int cmd, int arg)
{
    if (cmd == F_SETFL) note("F_SETFL");
    return __real_fcntl(fd, cmd, arg);
}
int __real_unlink(const char* path);
int __wrap_unlink(const char* path)
{
    note("unlink");
    return __real_unlink(path);
}
int __real_close(int fd);
int __wrap_close(int fd)
{
    note("close");
    return __real_close(fd);
}
int __wrap_nanosleep(const timespec* span, timespec*)
{
    note("sleep " + std::to_string(span->tv_sec) + " s " + std::to_string(span->tv_nsec) + " ns");
    return 0;
}
int __real_getifaddrs(ifaddrs** list);
int __wrap_getifaddrs(ifaddrs** list)
{
    if (!g_list) return __real_getifaddrs(list);
    *list = g_list;
    return 0;
}
void __real_freeifaddrs(ifaddrs* list);
void __wrap_freeifaddrs(ifaddrs* list)
{
    if (list != g_list) __real_freeifaddrs(list);
}
} // extern "C"

// ---- order of calls -------------------------------------------------------------------------------------------

TEST(calls, of_a_datagram_reader_share_the_address_ahead_of_the_bind)
{
    Source s;
    s.uc.timeout_ms = 100;
    EXPECT_EQ(calls_of([&] { s.open("udp://127.0.0.1:0"); }),
              (Lines{"socket", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "SO_RCVTIMEO"}));
}

TEST(calls, of_a_group_reader_join_behind_the_bind_and_set_nothing_else)
{
    if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
    Source s;
    s.uc.timeout_ms = 100;
    EXPECT_EQ(calls_of([&] { s.open("udp://239.255.7.7:5007"); }),
              (Lines{"socket", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "MCAST_JOIN_GROUP", "SO_RCVTIMEO"}));
    EXPECT_EQ(calls_of([&] { s.close(); }), (Lines{"MCAST_LEAVE_GROUP", "close"}));
    Source nb;
    nb.uc.non_blocking = true;
    nb.uc.timeout_ms = 100;
    EXPECT_EQ(calls_of([&] { nb.open("udp://239.255.7.7:5007"); }),
              (Lines{"socket", "F_SETFL", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "MCAST_JOIN_GROUP"}));
}

TEST(calls, of_a_reader_of_one_sender_join_once_and_leave_the_plain_way)
{
    if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
    Source s;
    EXPECT_EQ(calls_of([&] { s.open("udp://10.0.0.1@239.255.7.7:5007"); }),
              (Lines{"socket", "close", // the probe of the sender's address
                     "socket", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "MCAST_JOIN_SOURCE_GROUP"}));
    EXPECT_EQ(calls_of([&] { s.close(); }), (Lines{"MCAST_LEAVE_GROUP", "close"}));
}

TEST(calls, of_a_group_writer_choose_the_interface_only)
{
    if (!enter_net_space()) GTEST_SKIP() << "no network namespace to be had here";
    Source s;
    s.uc.inbound = false;
    s.uc.ifc_tag = "lo";
    s.uc.timeout_ms = 100;
    Lines calls = calls_of([&] { s.open("udp://239.255.7.7:5007"); });
    std::erase(calls, "close"); // of what the lookup of the interface opened
    std::erase(calls, "socket");
    EXPECT_EQ(calls, (Lines{"IP_MULTICAST_IF", "SO_SNDTIMEO"}));
}

TEST(calls, of_a_stream_client_connect_and_set_the_time_out_behind_it)
{
    uint16_t port = 0;
    const Fd listener = listening_socket(AF_INET, &port);
    Source s;
    s.uc.timeout_ms = 100;
    EXPECT_EQ(calls_of([&] { s.open(loopback_url("tcp", port)); }), (Lines{"socket", "connect", "SO_RCVTIMEO"}));
    Source nb;
    nb.uc.non_blocking = true;
    EXPECT_EQ(calls_of([&] { nb.open(loopback_url("tcp", port)); }), (Lines{"socket", "F_SETFL", "connect"}));
}

TEST(calls, of_listeners_end_with_listening)
{
    int any = -1, at = -1, domain = -1;
    EXPECT_EQ(calls_of([&] { any = open_anyaddr_listener(AF_INET, "0", 0); }),
              (Lines{"socket", "F_SETFL", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "listen 128"}));
    sockaddr_storage ss = {};
    ss.ss_family = AF_INET;
    const std::string port = std::to_string(free_port(SOCK_STREAM));
    EXPECT_EQ(calls_of([&] { at = open_listener(&ss, port.c_str(), 0); }),
              (Lines{"socket", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "F_SETFL", "listen 128"}));
    const prk::temp_dir dir;
    const std::string path = dir.path() + "/sock";
    EXPECT_EQ(calls_of([&] { domain = open_domain_listener(path.c_str()); }),
              (Lines{"socket", "F_SETFL", "unlink", "bind", "listen 128"}));
    for (const int fd : {any, at, domain})
        EXPECT_TRUE(Fd(fd).get() >= 0);
}

TEST(calls, of_listeners_that_fail_leave_nothing_open)
{
    sockaddr_storage ss = {};
    ss.ss_family = AF_INET;
    reinterpret_cast<sockaddr_in*>(&ss)->sin_addr.s_addr = inet_addr("198.51.100.1");
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_udp_listener(&ss, "5000"), -1); }),
              (Lines{"socket", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "close"}));
    ss.ss_family = AF_MAX; // there are no such sockets
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_listener(&ss, "5000", 0), -1); }), (Lines{"socket"}));
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_domain_listener("/no/such/place"), -1); }),
              (Lines{"socket", "F_SETFL", "unlink", "bind", "close"}));
}

TEST(calls, of_a_domain_client_pause_between_its_attempts)
{
    const prk::temp_dir dir;
    const std::string path = dir.path() + "/sock";
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_domain_client(path.c_str(), 3, 1500), -1); }),
              (Lines{"socket", "connect", "sleep 1 s 500000000 ns", "connect", "sleep 1 s 500000000 ns", "connect",
                     "close"}));
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_domain_client(path.c_str(), 2, 0), -1); }),
              (Lines{"socket", "connect", "connect", "close"}));
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(open_domain_client(path.c_str(), 0, 1500), -1); }), (Lines{"socket", "close"}));
}

TEST(calls, of_lookups_close_the_socket_that_proves_a_family)
{
    const IfcList none(Rows{{"lo", nullptr}}); // the host's own list is asked for through a socket
    EXPECT_EQ(calls_of([] { EXPECT_EQ(ifaddr_index("198.51.100.1", nullptr), 0u); }), (Lines{"socket", "close"}));
    sockaddr_storage ss = {};
    socklen_t len = 0;
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(mk_sockaddr("10.0.0.1:1", SOCK_DGRAM, 0, &ss, &len), 0); }),
              (Lines{"socket", "close"}));
}

TEST(calls, of_an_ipv6_listener_open_it_to_ipv4_ahead_of_the_bind)
{
    if (!has_ipv6()) GTEST_SKIP() << "no IPv6 loopback";
    const Fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    set_ipv6only(fd.get(), 1);
    sockaddr_storage any = {};
    cpy_anyaddr(AF_INET6, &any);
    addrinfo ai = {};
    ai.ai_family = AF_INET6;
    ai.ai_socktype = SOCK_STREAM;
    ai.ai_addr = reinterpret_cast<sockaddr*>(&any);
    ai.ai_addrlen = sizeof(sockaddr_in6);
    socket_spec spec = {};
    spec.socktype = SOCK_STREAM;
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(setup_listener(fd.get(), &ai, &spec), 0); }),
              (Lines{"IPV6_V6ONLY", "SO_REUSEADDR", "SO_REUSEPORT", "bind", "listen 128"}));
}

// ---- what the options carry -----------------------------------------------------------------------------------

namespace
{

template <typename T>
std::string bytes_of(const T& record)
{
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

std::string bytes_of_in(const char* text)
{
    return bytes_of(in_addr{inet_addr(text)});
}

// An interface record that no host has: the calls fail, and what they were given is what counts.
ifc_info some_ifc(const char* addr = "198.51.100.9")
{
    return {77, "ifc0", address(addr)};
}

} // namespace

TEST(membership, goes_by_the_interfaces_index_with_the_generic_options)
{
    ifc_info ifc = some_ifc();
    group_req req = {};
    req.gr_interface = 77;
    for (const char* text : {"239.255.7.7", "ff0e::7"}) {
        const auto group = address(text);
        const std::string prefix = group.ss_family == AF_INET ? "" : "IPv6 ";
        memcpy(&req.gr_group, &group, sizeof(group));
        EXPECT_EQ(calls_of([&] { (void)mcast_join(-1, &group, &ifc); }), (Lines{prefix + "MCAST_JOIN_GROUP"}));
        EXPECT_EQ(g_value.size(), 136u);
        EXPECT_EQ(g_value, bytes_of(req));

        const auto src = address(group.ss_family == AF_INET ? "10.0.0.1" : "2001:db8::1");
        group_source_req with_src = {};
        with_src.gsr_interface = 77;
        memcpy(&with_src.gsr_group, &group, sizeof(group));
        memcpy(&with_src.gsr_source, &src, sizeof(src));
        EXPECT_EQ(calls_of([&] { (void)ssm_join(-1, &src, &group, &ifc); }),
                  (Lines{prefix + "MCAST_JOIN_SOURCE_GROUP"}));
        EXPECT_EQ(g_value.size(), 264u);
        EXPECT_EQ(g_value, bytes_of(with_src));
    }
    const auto group = address("239.255.7.7"), src = address("10.0.0.1");
    EXPECT_EQ(calls_of([&] { (void)mcast_leave(-1, &group, nullptr); }), (Lines{"MCAST_LEAVE_GROUP"}));
    EXPECT_EQ(calls_of([&] { (void)ssm_generic_op("test", "", 0, &group, &src, 0, -1); }),
              (Lines{"MCAST_LEAVE_SOURCE_GROUP"}));
}

TEST(membership, goes_by_the_interfaces_address_with_the_options_of_ipv4)
{
    set_legacy_mcast_api(1);
    ifc_info ifc = some_ifc();
    const auto group = address("239.255.7.7"), src = address("10.0.0.1");
    const std::string pair = bytes_of_in("239.255.7.7") + bytes_of_in("198.51.100.9");
    EXPECT_EQ(calls_of([&] { (void)mcast_join(-1, &group, &ifc); }), (Lines{"IP_ADD_MEMBERSHIP"}));
    EXPECT_EQ(g_value, pair);
    EXPECT_EQ(calls_of([&] { (void)mcast_leave(-1, &group, &ifc); }), (Lines{"IP_DROP_MEMBERSHIP"}));
    EXPECT_EQ(g_value, pair);

    ip_mreq_source req = {};
    req.imr_multiaddr.s_addr = inet_addr("239.255.7.7");
    req.imr_interface.s_addr = inet_addr("198.51.100.9");
    req.imr_sourceaddr.s_addr = inet_addr("10.0.0.1");
    EXPECT_EQ(calls_of([&] { (void)ssm_join(-1, &src, &group, &ifc); }), (Lines{"IP_ADD_SOURCE_MEMBERSHIP"}));
    EXPECT_EQ(g_value.size(), 12u);
    EXPECT_EQ(g_value, bytes_of(req));
    EXPECT_EQ(calls_of([&] { (void)ssm_proto_op("test", "ifc0", 77, &group, &src, &ifc.ss, 0, -1); }),
              (Lines{"IP_DROP_SOURCE_MEMBERSHIP"}));

    // Without an address in the record it is looked up by the name, and noted there.
    const IfcList list(Rows{{"ifc0", "198.51.100.9"}});
    ifc_info bare = some_ifc();
    bare.ss = {};
    EXPECT_EQ(calls_of([&] { (void)mcast_join(-1, &group, &bare); }), (Lines{"IP_ADD_MEMBERSHIP"}));
    EXPECT_EQ(g_value, pair);
    EXPECT_EQ(bare.ss.ss_family, AF_INET);
    ifc_info any = {};
    EXPECT_EQ(calls_of([&] { (void)mcast_join(-1, &group, &any); }), (Lines{"IP_ADD_MEMBERSHIP"}));
    EXPECT_EQ(g_value, bytes_of_in("239.255.7.7") + bytes_of_in("0.0.0.0"));
}

TEST(membership, goes_by_the_interfaces_index_with_the_options_of_ipv6)
{
    set_legacy_mcast_api(1);
    ifc_info ifc = some_ifc();
    const auto group = address("ff0e::7");
    ipv6_mreq req = {};
    ASSERT_EQ(inet_pton(AF_INET6, "ff0e::7", &req.ipv6mr_multiaddr), 1);
    req.ipv6mr_interface = 77;
    EXPECT_EQ(calls_of([&] { (void)mcast_join(-1, &group, &ifc); }), (Lines{"IPV6_JOIN_GROUP"}));
    EXPECT_EQ(g_value.size(), 20u);
    EXPECT_EQ(g_value, bytes_of(req));
    EXPECT_EQ(calls_of([&] { (void)mcast_leave(-1, &group, &ifc); }), (Lines{"IPV6_LEAVE_GROUP"}));
    EXPECT_EQ(g_value, bytes_of(req));
}

TEST(setup_mcast_writer, chooses_by_the_records_address_and_sets_nothing_for_another_family)
{
    ifc_info ifc = some_ifc();
    auto group = address("239.255.7.7");
    addrinfo ai = {};
    ai.ai_family = AF_INET;
    ai.ai_addr = reinterpret_cast<sockaddr*>(&group);
    ai.ai_addrlen = sizeof(sockaddr_in);
    EXPECT_EQ(calls_of([&] { EXPECT_NE(setup_mcast_writer(-1, &ai, &ifc), 0); }), (Lines{"IP_MULTICAST_IF"}));
    EXPECT_EQ(g_value, bytes_of_in("198.51.100.9"));
    ai.ai_family = AF_UNIX;
    EXPECT_EQ(calls_of([&] { EXPECT_EQ(setup_mcast_writer(-1, &ai, &ifc), 0); }), Lines{});
}

// ---- interfaces -----------------------------------------------------------------------------------------------

namespace
{

// The address that a lookup finds, or its result.
std::string lookup(int family, const char* name)
{
    sockaddr_storage ss = {};
    auto* sa = reinterpret_cast<sockaddr*>(&ss);
    const int rc = ifc_addr_lookup(family, name, sa, sizeof(ss));
    if (rc != 0) return std::to_string(rc);
    char buf[80] = "";
    return saddr_str(sa, saddr_len(sa), buf, sizeof(buf)) ? buf : "?";
}

} // namespace

TEST(ifc_addr_lookup, takes_the_first_address_that_is_no_local_group)
{
    const IfcList list(Rows{{"ifc0", nullptr},
                            {"ifc1", "2001:db8::9"},
                            {"ifc0", "10.0.0.7"},
                            {"ifc0", "ff02::5"},
                            {"ifc0", "2001:db8::1"},
                            {"ifc0", "2001:db8::2"},
                            {"ifc0", "10.0.0.8"}});
    EXPECT_EQ(lookup(AF_INET6, "ifc0"), "[2001:db8::1]:0");
    EXPECT_EQ(lookup(AF_INET6, "ifc1"), "[2001:db8::9]:0");
    EXPECT_EQ(lookup(AF_INET, "ifc0"), "10.0.0.7:0");
    EXPECT_EQ(lookup(AF_INET, "ifc1"), "-1");
}

TEST(ifc_addr_lookup, falls_back_on_a_local_group_where_nothing_better_is_there)
{
    const IfcList list(Rows{{"ifc0", "ff01::6"}, {"ifc0", "10.0.0.7"}, {"ifc1", "2001:db8::9"}});
    EXPECT_EQ(lookup(AF_INET6, "ifc0"), "[ff01::6]:0");
}

TEST(ifc_addr_lookup, compares_16_characters_of_a_name)
{
    const IfcList list(Rows{{"abcdefghijklmnoX", "10.0.0.1"}, {"abcdefghijklmnopZ", "10.0.0.2"}});
    EXPECT_EQ(lookup(AF_INET, "abcdefghijklmnop"), "10.0.0.2:0");
    EXPECT_EQ(lookup(AF_INET, "abcdefghijklmnopq"), "10.0.0.2:0");
    EXPECT_EQ(lookup(AF_INET, "abcdefghijklmno"), "-1");
}

TEST(ifaddr_index, compares_with_addresses_of_the_same_family_only)
{
    const IfcList list(
        Rows{{"ifc0", nullptr}, {"no-such-ifc", "::1"}, {"lo", "198.51.100.1"}, {"ifc0", "198.51.100.1"}});
    EXPECT_EQ(ifaddr_index("198.51.100.1", nullptr), if_nametoindex("lo"));
    EXPECT_EQ(ifaddr_index("198.51.100.2", nullptr), 0u);
}
