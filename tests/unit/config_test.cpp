#include "config.h"

#include "log.h"
#include "support/proc_kit.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

using prk::piped_log;

namespace
{

class config : public testing::Test
{
protected:
    config() { config_init(&g_libcfg); }
    ~config() override { config_destroy(&g_libcfg); }

    // Group `g` of the text.
    config_setting_t* parse(const char* text)
    {
        EXPECT_EQ(CONFIG_TRUE, config_read_string(&g_libcfg, text)) << config_error_text(&g_libcfg);
        return config_lookup(&g_libcfg, "g");
    }

    int load(const char* path, size_t buflen, const char* default_str)
    {
        memset(buf, 'x', sizeof(buf));
        buf[sizeof(buf) - 1] = '\0';
        return load_config_str(path, buf, buflen, default_str);
    }

    piped_log log;
    char buf[16];
};

int64_t size_of(config_setting_t* s, const char* key)
{
    int64_t v = -1;
    EXPECT_EQ(0, load_config_setting_size(s, key, &v, 77)) << key;
    return v;
}

} // namespace

TEST_F(config, a_string_is_looked_up_by_its_whole_path)
{
    parse("g = { h = { s = \"abc\"; }; };");
    EXPECT_EQ(0, load("g.h.s", sizeof(buf), "def"));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ("", log.text());
}

TEST_F(config, a_missing_string_gets_its_default)
{
    parse("g = {};");
    EXPECT_EQ(0, load("g.s", sizeof(buf), "def"));
    EXPECT_STREQ("def", buf);
    EXPECT_EQ(0, load("nowhere.at.all", sizeof(buf), "def"));
    EXPECT_STREQ("def", buf);
}

TEST_F(config, an_empty_default_empties_the_field)
{
    parse("g = {};");
    EXPECT_EQ(0, load("g.s", sizeof(buf), ""));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(0, load("g.s", sizeof(buf), nullptr));
    EXPECT_STREQ("", buf);
}

TEST_F(config, an_empty_string_does_not_get_the_default)
{
    parse("g = { s = \"\"; };");
    EXPECT_EQ(0, load("g.s", sizeof(buf), "def"));
    EXPECT_STREQ("", buf);
}

TEST_F(config, a_key_that_is_no_string_empties_the_field)
{
    // The default is for a missing key only: it must not hide a mistyped setting.
    parse("g = { i = 5; b = true; l = (\"a\"); };");
    for (const char* key : {"g.i", "g.b", "g.l", "g"}) {
        EXPECT_EQ(0, load(key, sizeof(buf), "def")) << key;
        EXPECT_STREQ("", buf) << key;
    }
}

TEST_F(config, a_string_must_be_shorter_than_the_limit)
{
    parse("g = { s4 = \"abcd\"; s5 = \"abcde\"; s6 = \"abcdef\"; };");
    EXPECT_EQ(0, load("g.s4", 5, "def"));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ("", log.text());

    EXPECT_EQ(-1, load("g.s5", 5, "def"));
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ("(ERR)  load_config_str: g.s5 value is too long (5), max = 4 characters.\n", log.text());
    EXPECT_EQ(-1, load("g.s6", 5, "def"));
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ("(ERR)  load_config_str: g.s6 value is too long (6), max = 4 characters.\n", log.text());
}

TEST_F(config, bytes_behind_the_limit_are_not_touched)
{
    parse("g = { s = \"abcd\"; };");
    EXPECT_EQ(0, load("g.s", 5, nullptr));
    EXPECT_EQ('x', buf[5]);
    EXPECT_EQ(0, load("g.none", 5, "defghi"));
    EXPECT_STREQ("defg", buf);
    EXPECT_EQ('x', buf[5]);
}

TEST_F(config, a_string_is_looked_up_within_a_group)
{
    config_setting_t* g = parse("s = \"outside\"; g = { s = \"inside\"; i = 7; };");
    EXPECT_EQ(0, load_config_setting_str(g, "s", buf, sizeof(buf), "def"));
    EXPECT_STREQ("inside", buf);
    EXPECT_EQ(0, load_config_setting_str(g, "none", buf, sizeof(buf), "def"));
    EXPECT_STREQ("def", buf);
    EXPECT_EQ(0, load_config_setting_str(g, "i", buf, sizeof(buf), "def"));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(0, load_config_setting_str(nullptr, "s", buf, sizeof(buf), "def"));
    EXPECT_STREQ("def", buf);
    EXPECT_EQ(-1, load_config_setting_str(g, "s", buf, 6, "def"));
    EXPECT_STREQ("def", buf);
    EXPECT_EQ("(ERR)  load_config_setting_str: s value is too long (6), max = 5 characters.\n", log.text());
}

TEST_F(config, a_size_is_an_integer_or_a_text_with_a_unit)
{
    config_setting_t* g = parse("g = { i = 5; big = 5000000000L; neg = -3; hex = 0x10;"
                                " t = \"64Kb\"; m = \"1.5 Mb\"; plain = \"12\"; };");
    EXPECT_EQ(5, size_of(g, "i"));
    EXPECT_EQ(5000000000, size_of(g, "big"));
    EXPECT_EQ(-3, size_of(g, "neg"));
    EXPECT_EQ(16, size_of(g, "hex"));
    EXPECT_EQ(65536, size_of(g, "t"));
    EXPECT_EQ(1572864, size_of(g, "m"));
    EXPECT_EQ(12, size_of(g, "plain"));
}

TEST_F(config, a_missing_or_empty_size_gets_its_default)
{
    config_setting_t* g = parse("g = { e = \"\"; b = true; };");
    EXPECT_EQ(77, size_of(g, "none"));
    EXPECT_EQ(77, size_of(g, "e"));
    EXPECT_EQ(77, size_of(g, "b"));
    EXPECT_EQ(77, size_of(nullptr, "e"));
    EXPECT_EQ("", log.text());
}

TEST_F(config, a_text_that_is_no_size_is_refused)
{
    config_setting_t* g = parse("g = { bad = \"10x\"; huge = \"99999999999Gb\"; };");
    int64_t v = 3;
    EXPECT_EQ(-5, load_config_setting_size(g, "bad", &v, 77));
    EXPECT_EQ("(ERR)  load_config_setting_size: bad value [10x] is not a size, rc=-5\n", log.text());
    EXPECT_EQ(-2, load_config_setting_size(g, "huge", &v, 77));
    EXPECT_EQ(3, v);
}

TEST_F(config, the_text_of_a_size_has_at_most_31_characters)
{
    config_setting_t* g =
        parse("g = { a30 = \"00000000000000000000000000001K\"; a31 = \"000000000000000000000000000001K\";"
              " a32 = \"0000000000000000000000000000001K\"; };");
    int64_t v = 3;
    EXPECT_EQ(1024, size_of(g, "a30"));
    EXPECT_EQ(1024, size_of(g, "a31"));
    EXPECT_EQ(-1, load_config_setting_size(g, "a32", &v, 77));
    EXPECT_EQ(3, v);
    EXPECT_EQ("(ERR)  load_config_setting_str: a32 value is too long (32), max = 31 characters.\n", log.text());
}

TEST_F(config, a_list_of_strings_is_one_block)
{
    parse("g = { l = (\"one\", \"\", \"three\"); a = [\"x\", \"y\"]; };");
    size_t count = 99;
    char** list = load_config_string_list("g.l", &count);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(3u, count);
    EXPECT_STREQ("one", list[0]);
    EXPECT_STREQ("", list[1]);
    EXPECT_STREQ("three", list[2]);
    free(list);

    list = load_config_string_list("g.a", &count);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(2u, count);
    EXPECT_STREQ("y", list[1]);
    free(list);
    EXPECT_EQ("", log.text());
}

TEST_F(config, a_list_outlives_the_configuration)
{
    parse("g = { l = (\"one\"); };");
    size_t count = 0;
    char** list = load_config_string_list("g.l", &count);
    config_destroy(&g_libcfg);
    config_init(&g_libcfg);
    ASSERT_NE(nullptr, list);
    EXPECT_STREQ("one", list[0]);
    free(list);
}

TEST_F(config, a_missing_or_empty_list_is_null)
{
    parse("g = { l = (); a = []; };");
    for (const char* key : {"g.l", "g.a", "g.none"}) {
        size_t count = 99;
        EXPECT_EQ(nullptr, load_config_string_list(key, &count)) << key;
        EXPECT_EQ(0u, count);
    }
    EXPECT_EQ("", log.text());
}

TEST_F(config, what_is_no_list_of_strings_is_refused)
{
    parse("g = { s = \"x\"; mixed = (\"one\", 2); n = [1, 2]; };");
    size_t count = 99;
    EXPECT_EQ(nullptr, load_config_string_list("g.s", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ("(ERR)  load_config_string_list: g.s is not a list\n", log.text());
    EXPECT_EQ(nullptr, load_config_string_list("g.mixed", &count));
    EXPECT_EQ("(ERR)  load_config_string_list: g.mixed has an element that is not a string\n", log.text());
    EXPECT_EQ(nullptr, load_config_string_list("g.n", &count));
    EXPECT_EQ(0u, count);
}
