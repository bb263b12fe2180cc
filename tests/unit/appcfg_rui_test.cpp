// The configuration section of request listeners: each key, its default, its limits, and how it is shown.
#include "common/appcfg.h"
#include "common/rui.h"

#include "config.h"
#include "netops.h"
#include "support/assert_kit.h"
#include "support/log_capture.h"
#include "support/net_peer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

class AppcfgRuiTest : public testing::Test
{
protected:
    AppcfgRuiTest() { config_init(&g_libcfg); }
    ~AppcfgRuiTest() override
    {
        rui_cfg_free(&rui);
        config_destroy(&g_libcfg);
    }

    // The members of a group, read as the section; `said` is what came on stderr.
    int load(const std::string& members)
    {
        rui_cfg_free(&rui);
        log.clear();
        EXPECT_EQ(CONFIG_TRUE, config_read_string(&g_libcfg, ("g = {" + members + "};").c_str()))
            << config_error_text(&g_libcfg);
        testing::internal::CaptureStderr();
        const int rc = load_rui_config(config_lookup(&g_libcfg, "g"), &rui);
        said = testing::internal::GetCapturedStderr();
        return rc;
    }
    // One user listener with these members, in a section that is complete otherwise.
    int load_one(const std::string& members) { return load("user = {" + members + "}; max_to_accept = 1;"); }
    Lines errors() const { return log.messages(ll::error); }
    std::string dumped() const
    {
        return printed([this](FILE* fp) { dump_rui_config(fp, &rui); });
    }

    LogCapture log;
    rui_cfg rui = {};
    const rui_listener_cfg& lc = rui.user[0];
    std::string said;
};

std::string assign(const char* key, size_t length)
{
    return std::string(key) + " = \"" + std::string(length, 'v') + "\";";
}

} // namespace

// ---- the section ----------------------------------------------------------------------------------------------

TEST_F(AppcfgRuiTest, a_group_gives_one_listener)
{
    EXPECT_EQ(load("user = { port = 7007; }; max_to_accept = 64;"), 0);
    EXPECT_TRUE(lc.is_valid);
    EXPECT_EQ(lc.index, 1u);
    EXPECT_STREQ(lc.alias, "all:7007");
    EXPECT_STREQ(lc.port, "7007");
    EXPECT_EQ(lc.proto, 6);
    EXPECT_EQ(lc.pref_af, 0);
    EXPECT_EQ(lc.ifc, nullptr);
    EXPECT_STREQ(lc.domain_path, "");
    EXPECT_EQ(lc.kind.num, 0);
    EXPECT_FALSE(rui.user[1].is_valid);
    EXPECT_EQ(rui.max_accept, 64u);
    EXPECT_EQ(rui.user_request_tmout, 5000);
    EXPECT_EQ(log.messages(), (Lines{"get_listeners: 1 user listeners loaded"}));
    EXPECT_EQ(log.messages(ll::debug).size(), 1u);
    EXPECT_EQ(said, "");
}

TEST_F(AppcfgRuiTest, a_list_gives_up_to_four_listeners)
{
    EXPECT_EQ(load("admin = ({port=1;},{port=2;},{port=3;},{port=4;},{port=5;}); max_to_accept = 1;"), 0);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(rui.admin[i].is_valid);
        EXPECT_EQ(rui.admin[i].index, i + 1);
        EXPECT_EQ(rui.admin[i].port, std::to_string(i + 1));
    }
    EXPECT_FALSE(rui.custom[0].is_valid); // nothing was written behind the fourth
    EXPECT_TRUE(log.contains("get_listeners: 4 admin listeners loaded"));

    EXPECT_EQ(load("custom = (); max_to_accept = 1;"), 0);
    EXPECT_TRUE(log.contains("get_listeners: 0 custom listeners loaded"));
}

TEST_F(AppcfgRuiTest, anything_else_gives_no_listener)
{
    EXPECT_EQ(load("user = 7007; admin = [\"a\", \"b\"]; custom = \"x\"; max_to_accept = 1;"), 0);
    EXPECT_EQ(log.messages(),
              (Lines{"get_listeners: 0 user listeners loaded", "get_listeners: 0 admin listeners loaded",
                     "get_listeners: 0 custom listeners loaded"}));
    EXPECT_EQ(rui.custom_request_tmout, 5000); // the members are there
}

TEST_F(AppcfgRuiTest, the_first_bad_listener_ends_the_load_and_those_before_it_stay)
{
    EXPECT_EQ(load("user = ({port=1; ifc=\"lo\";},{port=0;},{port=3;}); admin = {port=4;}; max_to_accept = 1;"), -1);
    EXPECT_TRUE(rui.user[0].is_valid);
    EXPECT_NE(rui.user[0].ifc, nullptr);
    EXPECT_FALSE(rui.user[1].is_valid);
    EXPECT_FALSE(rui.user[2].is_valid);
    EXPECT_FALSE(rui.admin[0].is_valid);
    EXPECT_FALSE(log.contains("listeners loaded"));
}

TEST_F(AppcfgRuiTest, list_elements_that_are_no_groups_have_no_port)
{
    EXPECT_EQ(load("user = (1, 2); max_to_accept = 1;"), -1);
    EXPECT_EQ(errors(), (Lines{"load_listener_from: invalid port value: []"}));
}

TEST_F(AppcfgRuiTest, max_to_accept_must_be_there_and_above_0)
{
    // The default of 128 is set, but what is checked is what was read: configurations without the key have never
    // loaded.
    EXPECT_EQ(load(""), -1);
    EXPECT_EQ(said, "Invalid max_accept valie (0)\n");
    EXPECT_EQ(rui.max_accept, 128u);
    EXPECT_EQ(load("max_to_accept = 0;"), -1);
    EXPECT_EQ(said, "Invalid max_accept valie (0)\n");
    EXPECT_EQ(rui.max_accept, 0u);
    EXPECT_EQ(load("max_to_accept = -5;"), -1);
    EXPECT_EQ(said, "Invalid max_accept valie (-5)\n");
    EXPECT_EQ(load("max_to_accept = \"9\";"), -1);
    EXPECT_EQ(load("max_to_accept = 1;"), 0);
    EXPECT_EQ(rui.max_accept, 1u);
}

TEST_F(AppcfgRuiTest, time_outs_are_read_for_the_classes_that_are_there)
{
    rui.admin_request_tmout = 77;
    EXPECT_EQ(load("user = {port=1;}; custom = {port=2;}; max_to_accept = 1; user_request_timeout = 11;"
                   " admin_request_timeout = 22; custom_request_timeout = 33;"),
              0);
    EXPECT_EQ(rui.user_request_tmout, 11);
    EXPECT_EQ(rui.admin_request_tmout, 77); // no admin member: left alone
    EXPECT_EQ(rui.custom_request_tmout, 33);
    EXPECT_EQ(load("max_to_accept = 1; user_request_timeout = 0;"), 0);
}

TEST_F(AppcfgRuiTest, a_time_out_below_1_is_refused)
{
    for (const std::string c : {"user", "admin", "custom"}) {
        EXPECT_EQ(load(c + " = {port=1;}; max_to_accept = 1; " + c + "_request_timeout = 0;"), -1);
        EXPECT_EQ(said, "Invalid " + c + "_request_tmout valie (0)\n");
        EXPECT_EQ(load(c + " = {port=1;}; max_to_accept = 1; " + c + "_request_timeout = -2;"), -1);
        EXPECT_EQ(said, "Invalid " + c + "_request_tmout valie (-2)\n");
        EXPECT_EQ(load(c + " = {port=1;}; max_to_accept = 1; " + c + "_request_timeout = 1;"), 0);
    }
}

TEST_F(AppcfgRuiTest, a_missing_time_out_is_judged_by_the_number_before_it)
{
    // ... and that one has passed.
    EXPECT_EQ(load("user = {port=1;}; admin = {port=2;}; max_to_accept = 1; user_request_timeout = 3;"), 0);
    EXPECT_EQ(rui.user_request_tmout, 3);
    EXPECT_EQ(rui.admin_request_tmout, 5000);
}

// ---- one listener ---------------------------------------------------------------------------------------------

TEST_F(AppcfgRuiTest, an_alias_has_up_to_31_characters_and_a_longer_one_counts_as_none)
{
    EXPECT_EQ(load_one(assign("alias", 31) + "port = 80;"), 0);
    EXPECT_STREQ(lc.alias, std::string(31, 'v').c_str());
    EXPECT_EQ(load_one(assign("alias", 32) + "port = 80;"), 0);
    EXPECT_STREQ(lc.alias, "all:80");
}

TEST_F(AppcfgRuiTest, the_protocol_is_tcp_or_udp_in_any_case)
{
    EXPECT_EQ(load_one("protocol = \"TCP\"; port = 80;"), 0);
    EXPECT_EQ(lc.proto, 6);
    EXPECT_EQ(load_one("protocol = \"Udp\"; port = 80;"), 0);
    EXPECT_EQ(lc.proto, 17);
    EXPECT_EQ(load_one("alias = \"a\"; protocol = \"sctp\"; port = 80;"), -1);
    EXPECT_EQ(errors(), (Lines{"load_listener_from: invald protocol for [a]: sctp"}));
    EXPECT_FALSE(lc.is_valid);
    EXPECT_EQ(load_one("protocol = 6; port = 80;"), -1); // no text
    EXPECT_EQ(load_one(assign("protocol", 14) + "port = 80;"), -1);
    EXPECT_EQ(errors(), (Lines{"load_listener_from: invald protocol for []: " + std::string(14, 'v')}));
    EXPECT_EQ(load_one(assign("protocol", 15) + "port = 80;"), -1);
    EXPECT_EQ(errors(), (Lines{"load_config_setting_str: protocol value is too long (15), max = 14 characters."}));
}

TEST_F(AppcfgRuiTest, a_domain_path_ends_the_reading)
{
    EXPECT_EQ(load_one("alias = \"l\"; domain_path = \"/tmp/x\"; ifc = \"no_such_ifc\"; port = 99999;"), 0);
    EXPECT_TRUE(lc.is_valid);
    EXPECT_STREQ(lc.domain_path, "/tmp/x");
    EXPECT_STREQ(lc.port, "");
    EXPECT_EQ(lc.ifc, nullptr);
    EXPECT_NE(dumped().find("\tuser listener[l]: path=/tmp/x\n"), std::string::npos);

    EXPECT_EQ(load_one(assign("domain_path", 102)), 0);
    EXPECT_EQ(strlen(lc.domain_path), 102u);
    EXPECT_STREQ(lc.alias, "");
    EXPECT_EQ(load_one(assign("domain_path", 103)), -1);
    EXPECT_FALSE(lc.is_valid);
}

TEST_F(AppcfgRuiTest, the_preferred_family_is_a_word)
{
    EXPECT_EQ(load_one("default_af = \"inet\"; port = 80;"), 0);
    EXPECT_EQ(lc.pref_af, 2);
    EXPECT_EQ(load_one("default_af = \"IPv6\"; port = 80;"), 0);
    EXPECT_EQ(lc.pref_af, 10);
    EXPECT_EQ(load_one("default_af = \"bogus\"; port = 80;"), 0);
    EXPECT_EQ(lc.pref_af, 0);
    EXPECT_EQ(load_one(assign("default_af", 16) + "port = 80;"), -1);
}

TEST_F(AppcfgRuiTest, the_family_all_leaves_a_valid_listener_without_port)
{
    // It fails when it is started, as it always has.
    EXPECT_EQ(load_one("default_af = \"all\"; ifc = \"no_such_ifc\"; port = 80;"), 0);
    EXPECT_TRUE(lc.is_valid);
    EXPECT_EQ(lc.pref_af, 0);
    EXPECT_EQ(lc.ifc, nullptr);
    EXPECT_STREQ(lc.port, "");
}

TEST_F(AppcfgRuiTest, all_interfaces_are_meant_by_all_any_and_nothing)
{
    for (const char* word : {"", "ifc = \"\";", "ifc = \"ALL\";", "ifc = \"any\";"}) {
        EXPECT_EQ(load_one(std::string(word) + "port = 80;"), 0) << word;
        EXPECT_EQ(lc.ifc, nullptr);
        EXPECT_STREQ(lc.alias, "all:80");
    }
}

TEST_F(AppcfgRuiTest, an_interface_is_found_by_name_or_address)
{
    EXPECT_EQ(load_one("ifc = \"lo\"; port = 80;"), 0);
    ASSERT_NE(lc.ifc, nullptr);
    EXPECT_EQ(lc.ifc->ss.ss_family, AF_INET);
    EXPECT_STREQ(lc.alias, "lo:80");
    EXPECT_EQ(load_one("ifc = \"127.0.0.1\"; default_af = \"inet\"; port = 80;"), 0);
    ASSERT_NE(lc.ifc, nullptr);
    EXPECT_STREQ(lc.ifc->name, "lo");
    if (!has_ipv6()) return;
    EXPECT_EQ(load_one("ifc = \"lo\"; default_af = \"inet6\"; port = 80;"), 0);
    ASSERT_NE(lc.ifc, nullptr);
    EXPECT_EQ(lc.ifc->ss.ss_family, AF_INET6);
}

TEST_F(AppcfgRuiTest, an_unknown_interface_is_refused)
{
    EXPECT_EQ(load_one("ifc = \"nosuchifc\"; port = 80;"), -1);
    Lines got = errors();
    ASSERT_GE(got.size(), 2u);
    EXPECT_EQ(got[got.size() - 2], "load_listener_from: [nosuchifc] failed the check for IPv4/v6 interface name");
    EXPECT_EQ(got.back(), "invalid network interface name/address: nosuchifc");
    // Both families were tried, in this order.
    EXPECT_EQ(got.at(0), "[nosuchifc] is not a valid IPv4 interface address.");
    EXPECT_EQ(got.at(1), "[nosuchifc] is not a valid IPv6 interface address.");

    EXPECT_EQ(load_one("ifc = \"nosuchifc\"; default_af = \"inet6\"; port = 80;"), -1);
    got = errors();
    ASSERT_GE(got.size(), 2u);
    EXPECT_EQ(got[got.size() - 2], "load_listener_from: [nosuchifc] failed the check for [IPv6] interface name");
    EXPECT_FALSE(lc.is_valid);

    EXPECT_EQ(load_one(assign("ifc", 16) + "port = 80;"), -1);
    EXPECT_EQ(errors().size(), 1u);
}

TEST_F(AppcfgRuiTest, a_port_is_a_number_or_text_from_1_to_65535)
{
    for (const char* good : {"1", "65535", "\"1\"", "\"65535\"", "\"0080\""})
        EXPECT_EQ(load_one(std::string("port = ") + good + ";"), 0) << good;
    EXPECT_STREQ(lc.port, "0080");

    const std::pair<const char*, const char*> bad[] = {
        {"0", "0"},         {"65536", "65536"}, {"-1", "-1"},       {"2147483647", "2147483647"},
        {"\"0\"", "0"},     {"\"x\"", "x"},     {"\"80x\"", "80x"}, {"\"\"", ""},
        {"\"-80\"", "-80"}, {"\" 80\"", " 80"}, {"80.5", ""},       {"true", ""},
    };
    for (const auto& [value, shown] : bad) {
        EXPECT_EQ(load_one(std::string("port = ") + value + ";"), -1) << value;
        EXPECT_EQ(errors(), (Lines{std::string("load_listener_from: invalid port value: [") + shown + "]"})) << value;
    }
    EXPECT_EQ(load_one(""), -1);
    EXPECT_EQ(errors(), (Lines{"load_listener_from: invalid port value: []"}));
    EXPECT_EQ(load_one("port = \"655360\";"), -1);
    EXPECT_EQ(errors(), (Lines{"load_config_setting_str: port value is too long (6), max = 5 characters."}));
}

TEST_F(AppcfgRuiTest, a_bad_port_frees_the_interface)
{
    EXPECT_EQ(load_one("ifc = \"lo\"; port = 0;"), -1);
    EXPECT_EQ(lc.ifc, nullptr);
    EXPECT_FALSE(lc.is_valid);
}

// ---- shown ----------------------------------------------------------------------------------------------------

TEST_F(AppcfgRuiTest, the_section_is_shown)
{
    EXPECT_EQ(load("user = ({alias=\"a\"; ifc=\"lo\"; default_af=\"inet\"; port=80;},{alias=\"b\"; port=81;});"
                   " admin = {alias=\"c\"; domain_path=\"/tmp/c\";};"
                   " max_to_accept = 9; user_request_timeout = 1; admin_request_timeout = 2;"),
              0);
    EXPECT_EQ(dumped(), "Listeners:\n"
                        "\tuser listener[a]: ifc=lo, af=IPv4 port=80\n"
                        "\tuser listener[b]: ifc=<anyaddr>, af=UNSPEC port=81\n"
                        "\tadmin listener[c]: path=/tmp/c\n"
                        "\tmax-accepted=9\n"
                        "\tI/O timeouts: user-rq=1, admin-rq=2 custom-rq=0\n");
}
