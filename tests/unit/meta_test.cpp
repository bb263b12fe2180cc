#include "common/meta.h"
#include "libmeta.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

// The texts are cached for the life of the process: each test here counts on a process of its own, as ctest gives it.

namespace
{

// System name, release, machine: the part of the identity line that the machine decides.
std::string os_text()
{
    utsname un = {};
    EXPECT_EQ(0, uname(&un));
    return std::string(un.sysname) + " " + un.release + " " + un.machine;
}

// The identity line up to its date, which is then checked by form.
std::string line_head(const std::string& name_and_description, const std::string& cksum)
{
    return name_and_description + " 0.1-10.2 (marltools) regular [" + os_text() + "] " + cksum + "; built on ";
}

void expect_head_and_date(const std::string& head, const std::string& line)
{
    EXPECT_EQ(head, line.substr(0, head.size()));
    const std::string date = line.size() > head.size() ? line.substr(head.size()) : "";
    EXPECT_TRUE(std::regex_match(date, std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9]"))) << line;
}

std::string build_info()
{
    char* text = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&text, &size);
    dump_build_info(fp);
    fclose(fp);
    const std::string s(text, size);
    free(text);
    return s;
}

} // namespace

TEST(meta, a_program_is_described_by_its_name_in_any_case)
{
    EXPECT_STREQ("Live stream analyzer", app_description("kvt"));
    EXPECT_STREQ("Live stream analyzer", app_description("KvT"));
    EXPECT_STREQ("#error#", app_description("kvt2"));
    EXPECT_STREQ("#error#", app_description("kv"));
    EXPECT_STREQ("#error#", app_description(""));
}

TEST(meta, the_identity_line_says_all_that_is_known)
{
    expect_head_and_date(line_head("kvt (Live stream analyzer)", "1a2b3c4d"), get_app_info("kvt", "1a2b3c4d"));
}

TEST(meta, the_identity_line_falls_back_on_the_tag_of_the_build)
{
    const std::string line = get_app_info("kvt", nullptr);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(line, m, std::regex("\\] ([0-9a-f]{8}); built on "))) << line;
    expect_head_and_date(line_head("kvt (Live stream analyzer)", m[1]), line);
}

TEST(meta, an_identity_line_may_have_its_own_description)
{
    expect_head_and_date(line_head("tool (does things)", "c"), get_custom_app_info("tool", "does things", "c"));
}

TEST(meta, a_program_without_a_description_says_so)
{
    expect_head_and_date(line_head("tool (#error#)", "c"), get_custom_app_info("tool", nullptr, "c"));
}

TEST(meta, the_first_identity_line_stays)
{
    // The start line and the exit line of the log must agree, whatever they are asked for with.
    const std::string first = get_app_info("kvt", "11111111");
    EXPECT_EQ(first, get_custom_app_info("other", "another", "22222222"));
    EXPECT_EQ(first, get_app_info("other", nullptr));
}

TEST(meta, an_identity_line_of_255_characters_fits_and_one_of_256_does_not)
{
    const size_t fixed = line_head(" (d)", "c").size() + std::string("2018-08-07").size();
    ASSERT_LT(fixed, 255u);
    EXPECT_STREQ("#error#", get_custom_app_info(std::string(256 - fixed, 'n').c_str(), "d", "c"));
    const std::string name(255 - fixed, 'n');
    expect_head_and_date(line_head(name + " (d)", "c"), get_custom_app_info(name.c_str(), "d", "c"));
}

TEST(meta, the_tag_is_short)
{
    EXPECT_STREQ("kvt/0.1-10.2 (marltools)", get_app_tag("kvt"));
}

TEST(meta, the_first_tag_stays)
{
    EXPECT_STREQ("kvt/0.1-10.2 (marltools)", get_app_tag("kvt"));
    EXPECT_STREQ("kvt/0.1-10.2 (marltools)", get_app_tag("other"));
}

TEST(meta, a_tag_of_127_characters_fits_and_one_of_128_does_not)
{
    const std::string rest = "/0.1-10.2 (marltools)";
    EXPECT_STREQ("#error#", get_app_tag(std::string(128 - rest.size(), 'n').c_str()));
    const std::string name(127 - rest.size(), 'n');
    EXPECT_EQ(name + rest, get_app_tag(name.c_str()));
}

TEST(meta, the_library_names_its_version_build_and_time)
{
    const std::string line = lbtvn_info();
    EXPECT_TRUE(std::regex_match(line, std::regex("libtvn/1\\.5-6\\.11 \\([0-9a-f]{8}\\) @[1-9][0-9]*"))) << line;
    EXPECT_LE(line.size(), 63u);
    EXPECT_EQ(line, lbtvn_info());
}

TEST(meta, the_build_block_stands_between_hyphens)
{
    EXPECT_FALSE(using_fast_clocks());
    EXPECT_EQ(std::string("----\n") + lbtvn_info() + " [-ggdb]\n----\n\n", build_info());
}
