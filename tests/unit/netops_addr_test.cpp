// Addresses and their texts.
#include "netops.h"

#include "support/log_capture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

sockaddr_storage in4(const char* addr, uint16_t port = 0)
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, addr, &in->sin_addr), 1);
    return ss;
}

sockaddr_storage in6(const char* addr, uint16_t port = 0)
{
    sockaddr_storage ss = {};
    auto* in = reinterpret_cast<sockaddr_in6*>(&ss);
    in->sin6_family = AF_INET6;
    in->sin6_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET6, addr, &in->sin6_addr), 1);
    return ss;
}

sockaddr_storage other_family()
{
    sockaddr_storage ss = {};
    ss.ss_family = AF_PACKET;
    return ss;
}

sockaddr* sa(sockaddr_storage& ss)
{
    return reinterpret_cast<sockaddr*>(&ss);
}

// The text of what a call writes to a stream.
template <typename Write>
std::string written(Write write)
{
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    write(fp);
    fclose(fp);
    const std::string out(text, len);
    free(text);
    return out;
}

} // namespace

TEST(is_decimal, is_a_whole_number_in_base_ten)
{
    for (const char* yes : {"0", "5000", "00", "-1", "+7", " 12", "99999999999999999999999"})
        EXPECT_TRUE(is_decimal(yes)) << yes;
    for (const char* no : {"", " ", "12 ", "12a", "a12", "0x10", "1.2", "-"})
        EXPECT_FALSE(is_decimal(no)) << no;
}

TEST(ends_with_port, needs_digits_behind_the_last_colon)
{
    for (const char* yes : {"10.0.0.1:5000", ":1", "[::1]:80", "2001:db8::1"})
        EXPECT_TRUE(ends_with_port(yes)) << yes;
    for (const char* no : {"", "10.0.0.1", "h:", "h:80x", "h:-1", "2001:db8::a"})
        EXPECT_FALSE(ends_with_port(no)) << no;
}

TEST(is_anyaddr, is_nothing_any_or_all_in_any_case)
{
    EXPECT_TRUE(is_anyaddr(nullptr));
    for (const char* yes : {"", "any", "all", "ANY", "All"})
        EXPECT_TRUE(is_anyaddr(yes)) << yes;
    for (const char* no : {"lo", "an", "anyx", " all", "0.0.0.0"})
        EXPECT_FALSE(is_anyaddr(no)) << no;
}

TEST(small_lookups, answer_by_family)
{
    EXPECT_STREQ(af_name(AF_INET), "IPv4");
    EXPECT_STREQ(af_name(AF_INET6), "IPv6");
    EXPECT_STREQ(af_name(0), "UNSPEC");
    EXPECT_STREQ(af_name(AF_UNIX), "#??#");
    EXPECT_EQ(af_level(AF_INET), IPPROTO_IP);
    EXPECT_EQ(af_level(AF_INET6), IPPROTO_IPV6);
    EXPECT_EQ(af_level(AF_UNIX), -1);
    EXPECT_STREQ(anyaddr_str(AF_INET), "0.0.0.0");
    EXPECT_STREQ(anyaddr_str(AF_INET6), "::");
    EXPECT_STREQ(anyaddr_str(0), "#error#");
}

TEST(name2af, knows_the_words_in_any_case)
{
    LogCapture log;
    for (const char* w : {"inet4", "inet", "ipv4", "af_inet", "pf_inet", "IPv4"})
        EXPECT_EQ(name2af(w), AF_INET) << w;
    for (const char* w : {"inet6", "ipv6", "af_inet6", "pf_inet6", "INET6"})
        EXPECT_EQ(name2af(w), AF_INET6) << w;
    for (const char* w : {"", "any", "unspec", "anyaddr", "Any", "bogus"})
        EXPECT_EQ(name2af(w), 0) << w;
    EXPECT_EQ(log.text(), "");
}

// Configurations rely on unknown words meaning any family; only this one is refused.
TEST(name2af, refuses_all_with_an_unfinished_line)
{
    LogCapture log;
    EXPECT_EQ(name2af("all"), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"name2af: unsupported address family [all] in configuration." + std::string(NO_LINE_END)}));
    EXPECT_NE(log.text().back(), '\n');
    EXPECT_EQ(name2af("ALL"), -1);
}

TEST(saddr_len, follows_the_family)
{
    auto v4 = in4("10.0.0.1");
    auto v6 = in6("::1");
    EXPECT_EQ(saddr_len(sa(v4)), 16u);
    EXPECT_EQ(saddr_size(sa(v4)), 16u);
    EXPECT_EQ(saddr_len(sa(v6)), 28u);
    EXPECT_EQ(saddr_size(sa(v6)), 28u);
}

TEST(saddr_len, is_minus_one_as_unsigned_for_another_family)
{
    LogCapture log;
    auto ss = other_family();
    EXPECT_EQ(saddr_len(sa(ss)), static_cast<socklen_t>(-1));
    EXPECT_EQ(saddr_size(sa(ss)), static_cast<size_t>(-1));
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"saddr_len: unrecognized socket family: 17", "saddr_size: unrecognized socket family: 17"}));
}

TEST(saddr_equal, compares_addresses_without_ports)
{
    auto a = in4("10.0.0.1", 1), b = in4("10.0.0.1", 2), c = in4("10.0.0.2", 1);
    EXPECT_TRUE(saddr_equal(sa(a), sa(b)));
    EXPECT_FALSE(saddr_equal(sa(a), sa(c)));
    auto d = in6("fd00::1", 1), e = in6("fd00::1", 2), f = in6("fd00::2", 1);
    EXPECT_TRUE(saddr_equal(sa(d), sa(e)));
    EXPECT_FALSE(saddr_equal(sa(d), sa(f)));
}

TEST(saddr_equal_DeathTest, stops_on_unlike_and_unknown_families)
{
    auto a = in4("10.0.0.1"), b = in6("::1"), c = other_family();
    EXPECT_DEATH(saddr_equal(sa(a), sa(b)), "Assertion");
    LogCapture log;
    EXPECT_DEATH(saddr_equal(sa(c), sa(c)), "Assertion");
    EXPECT_EQ(log.messages(ll::error), (Lines{"saddr_equal: unrecognized family: 17"}));
}

TEST(cpy_sockaddr, copies_what_the_family_has)
{
    auto from = in6("fd00::1", 5000);
    sockaddr_storage to;
    memset(&to, 0xee, sizeof(to));
    cpy_sockaddr(sa(from), sa(to), 28);
    EXPECT_EQ(memcmp(&from, &to, 28), 0);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(&to)[28], 0xee);
}

TEST(cpy_sockaddr_DeathTest, stops_on_a_small_destination_and_on_another_family)
{
    auto v4 = in4("10.0.0.1"), odd = other_family();
    sockaddr_storage to = {};
    cpy_sockaddr(sa(v4), sa(to), 16);
    EXPECT_DEATH(cpy_sockaddr(sa(v4), sa(to), 15), "Assertion");
    LogCapture log;
    EXPECT_DEATH(cpy_sockaddr(sa(odd), sa(to), sizeof(to)), "Assertion");
    EXPECT_EQ(log.messages(ll::error), (Lines{"saddr_len: unrecognized socket family: 17"}));
}

TEST(cpy_anyaddr, stores_family_and_any_address)
{
    sockaddr_storage ss;
    memset(&ss, 0xee, sizeof(ss));
    cpy_anyaddr(AF_INET, &ss);
    EXPECT_EQ(ss.ss_family, AF_INET);
    EXPECT_EQ(is_unspecified(sa(ss)), 1);
    memset(&ss, 0xee, sizeof(ss));
    cpy_anyaddr(AF_INET6, &ss);
    EXPECT_EQ(ss.ss_family, AF_INET6);
    EXPECT_EQ(is_unspecified(sa(ss)), 1);
}

TEST(cpy_anyaddr_DeathTest, aborts_for_another_family)
{
    sockaddr_storage ss = {};
    EXPECT_EXIT(cpy_anyaddr(AF_UNIX, &ss), testing::KilledBySignal(SIGABRT), "");
}

TEST(saddr_str, shows_address_and_port_by_family)
{
    char buf[64];
    auto v4 = in4("10.0.0.1", 5000);
    EXPECT_EQ(saddr_str(sa(v4), sizeof(sockaddr_in), buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "10.0.0.1:5000");
    auto v6 = in6("2001:db8::1", 80);
    EXPECT_EQ(saddr_str(sa(v6), sizeof(v6), buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "[2001:db8::1]:80");
}

TEST(saddr_str, shows_a_unix_path)
{
    sockaddr_un un = {};
    un.sun_family = AF_UNIX;
    strcpy(un.sun_path, "/tmp/sock");
    char buf[64];
    ASSERT_EQ(saddr_str(reinterpret_cast<sockaddr*>(&un), sizeof(un), buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf).substr(0, 7), "DOMAIN ");
    EXPECT_NE(std::string(buf).find("/tmp/sock"), std::string::npos);
}

TEST(saddr_str, is_cut_to_the_size)
{
    char buf[8];
    auto v4 = in4("10.0.0.1", 5000);
    EXPECT_EQ(saddr_str(sa(v4), sizeof(sockaddr_in), buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "10.0.0.");
}

TEST(saddr_str, logs_what_has_no_text)
{
    LogCapture log;
    char buf[64] = "#";
    auto odd = other_family();
    EXPECT_EQ(saddr_str(sa(odd), sizeof(odd), buf, sizeof(buf)), nullptr);
    const std::string err = gai_strerror(EAI_FAMILY);
    EXPECT_EQ(log.messages(ll::error), (Lines{"saddr_str: getnameinfo error (-6): " + err}));
    EXPECT_STREQ(buf, "#");
    auto v4 = in4("10.0.0.1", 5000);
    EXPECT_EQ(saddr_str(sa(v4), 4, buf, sizeof(buf)), nullptr);
}

TEST(dump_ai, writes_the_candidate)
{
    auto v4 = in4("10.0.0.1", 5000);
    addrinfo ai = {};
    ai.ai_flags = AI_PASSIVE;
    ai.ai_family = AF_INET;
    ai.ai_socktype = SOCK_DGRAM;
    ai.ai_protocol = 17;
    ai.ai_addrlen = sizeof(sockaddr_in);
    ai.ai_addr = sa(v4);
    EXPECT_EQ(written([&](FILE* fp) { dump_ai(fp, &ai); }),
              "PF_INET = 2, PF_INET6 = 10, SOCK_STREAM = 1, SOCK_DGRAM = 2\n"
              "ai_flags    =\t0x01\nai_family   =\t2\nai_socktype =\t2\nai_protocol =\t17\nai_addrlen  =\t16\n"
              "ai_addr     =\t10.0.0.1:5000\nai_canonname=\tNULL\n");
    char name[] = "a.host";
    ai.ai_canonname = name;
    EXPECT_NE(written([&](FILE* fp) { dump_ai(fp, &ai); }).find("ai_canonname=\ta.host\n"), std::string::npos);
    ai.ai_addrlen = 2;
    EXPECT_EQ(written([&](FILE* fp) { dump_ai(fp, &ai); }),
              std::string("dump_ai: getnameinfo error (-6): ") + gai_strerror(EAI_FAMILY) + "\n");
}

TEST(dump_sa_info, writes_message_family_and_address)
{
    auto v4 = in4("10.0.0.1", 5000);
    const socklen_t len = sizeof(sockaddr_in);
    EXPECT_EQ(written([&](FILE* fp) { dump_sa_info(fp, sa(v4), len, "bound"); }), "bound IPv4 10.0.0.1:5000\n");
    EXPECT_EQ(written([&](FILE* fp) { dump_sa_info(fp, sa(v4), len, nullptr); }), " IPv4 10.0.0.1:5000\n");
    EXPECT_EQ(written([&](FILE* fp) { dump_sa_info(fp, sa(v4), 2, "x"); }),
              std::string("dump_sa_info: getnameinfo error (-6): ") + gai_strerror(EAI_FAMILY) + "\n");
}

TEST(is_multicast, knows_the_group_ranges)
{
    const struct {
        const char* addr;
        int want;
    } v4[] = {{"223.255.255.255", 0}, {"224.0.0.0", 1}, {"239.255.255.255", 1}, {"240.0.0.0", 0}, {"127.0.0.1", 0}};
    for (const auto& row : v4) {
        auto ss = in4(row.addr);
        EXPECT_EQ(is_multicast(sa(ss)), row.want) << row.addr;
    }
    auto group = in6("ff02::1"), plain = in6("fe80::1");
    EXPECT_EQ(is_multicast(sa(group)), 1);
    EXPECT_EQ(is_multicast(sa(plain)), 0);
}

TEST(is_multicast, is_minus_one_for_another_family)
{
    LogCapture log;
    auto odd = other_family();
    EXPECT_EQ(is_multicast(sa(odd)), -1);
    EXPECT_EQ(is_unspecified(sa(odd)), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"is_multicast: unrecognized family: 17", "is_unspecified: unrecognized family: 17"}));
}

TEST(is_unspecified, is_the_all_zero_address)
{
    auto any4 = in4("0.0.0.0", 5000), one4 = in4("0.0.0.1"), any6 = in6("::", 5000), one6 = in6("::1");
    EXPECT_EQ(is_unspecified(sa(any4)), 1);
    EXPECT_EQ(is_unspecified(sa(one4)), 0);
    EXPECT_EQ(is_unspecified(sa(any6)), 1);
    EXPECT_EQ(is_unspecified(sa(one6)), 0);
}

TEST(is_ipv6_mc_local, is_a_group_of_interface_or_link_scope)
{
    const struct {
        const char* addr;
        bool want;
    } rows[] = {{"ff01::1", true},  {"ff02::1", true},  {"ff12::1", true},  {"ff05::1", false},
                {"ff0e::1", false}, {"ff00::1", false}, {"fe02::1", false}, {"::1", false}};
    for (const auto& row : rows) {
        auto ss = in6(row.addr);
        EXPECT_EQ(is_ipv6_mc_local(sa(ss)), row.want) << row.addr;
    }
    auto v4 = in4("224.0.0.1");
    EXPECT_FALSE(is_ipv6_mc_local(sa(v4)));
    auto other = in6("ff02::1"); // the same bytes in another family
    other.ss_family = AF_INET;
    EXPECT_FALSE(is_ipv6_mc_local(sa(other)));
}
