#include "strops.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
constexpr bool UNDER_ASAN = true;
#else
constexpr bool UNDER_ASAN = false;
#endif

namespace
{

struct number_row {
    const char* text;
    double expected;
};

double number(const char* text)
{
    double val = -12345.0;
    EXPECT_EQ(0, a2double(text, &val)) << text;
    return val;
}

// Result for a text that must not touch the value.
int refused(const char* text)
{
    double val = -12345.0;
    const int rc = a2double(text, &val);
    EXPECT_EQ(-12345.0, val) << text;
    return rc;
}

std::string chomped(std::string s)
{
    chomp(s.data());
    return s.c_str();
}

std::string replaced(const std::string& text, unsigned long ul, size_t len = 128)
{
    std::vector<char> buf(len, '\0');
    memcpy(buf.data(), text.c_str(), text.size() + 1);
    EXPECT_EQ(0, replace_ul_macro(buf.data(), len, "{N}", ul)) << text;
    return buf.data();
}

std::string dhex(const std::vector<uint8_t>& bytes, size_t slen, const char* delim, size_t expected_count)
{
    std::vector<char> s(slen, 'x');
    EXPECT_EQ(expected_count, bin_to_dhex(bytes.data(), bytes.size(), s.data(), slen, delim));
    EXPECT_EQ('\0', s[slen - 1]);
    return s.data();
}

} // namespace

// ---- numbers --------------------------------------------------------------------------------------------------

TEST(strops, a_number_may_carry_a_unit_in_any_case)
{
    const number_row rows[] = {
        {"1.5Mb", 1572864},
        {"2k", 2048},
        {"3 Mb", 3145728},
        {"1Kb", 1024},
        {"1K", 1024},
        {"1kB", 1024},
        {"1M", 1048576},
        {"1mb", 1048576},
        {"1G", 1073741824},
        {"1gB", 1073741824},
        {"0.5Gb", 536870912},
        {"-2k", -2048},
        {"12", 12},
        {"-1.25", -1.25},
        {" 7", 7},
        {"7 ", 7},
        {"+4", 4},
        {"0", 0},
        {".5", 0.5},
    };
    for (const number_row& r : rows)
        EXPECT_EQ(r.expected, number(r.text)) << r.text;
}

TEST(strops, a_text_without_digits_counts_as_zero)
{
    EXPECT_EQ(0.0, number(""));
    EXPECT_EQ(0.0, number("-"));
    EXPECT_EQ(0.0, number("Kb"));
    EXPECT_EQ(0.0, number(" M"));
}

TEST(strops, what_follows_a_number_without_a_letter_is_ignored)
{
    EXPECT_EQ(12.0, number("12, 13"));
    EXPECT_EQ(12.0 * 1024, number("12;K"));
}

TEST(strops, an_unknown_unit_is_refused)
{
    for (const char* text : {"10x", "12Kbytes", "1Tb", "1b", "1 Mb ", "1M 2", "0x10", "inf", "nan", "KK"})
        EXPECT_EQ(-5, refused(text)) << text;
}

TEST(strops, an_exponent_is_taken_for_a_unit)
{
    // Sizes in a configuration never meant powers of ten; a file that says 1e3 has always been refused.
    EXPECT_EQ(-5, refused("1e3"));
    EXPECT_EQ(-5, refused("1E3"));
}

TEST(strops, the_number_in_front_of_a_unit_has_at_most_63_characters)
{
    EXPECT_EQ(1024.0, number((std::string(61, '0') + "1K").c_str()));
    EXPECT_EQ(1024.0, number((std::string(62, '0') + "1K").c_str()));
    EXPECT_EQ(-3, refused((std::string(63, '0') + "1K").c_str()));
    // A bad unit is found first.
    EXPECT_EQ(-5, refused((std::string(63, '0') + "1x").c_str()));
    // Without a unit nothing is copied, and nothing limits the length.
    EXPECT_EQ(1.0, number((std::string(500, '0') + "1").c_str()));
}

TEST(strops, a_number_that_strtod_refuses_is_refused)
{
    EXPECT_EQ(-4, refused(std::string(400, '9').c_str()));
    EXPECT_EQ(-4, refused(("." + std::string(400, '0') + "1").c_str()));
    errno = ERANGE; // an old error is not held against the number
    EXPECT_EQ(5.0, number("5"));
}

TEST(strops, a_number_may_be_tested_without_being_stored)
{
    EXPECT_EQ(0, a2double("5k", nullptr));
    EXPECT_EQ(0, a2size("5k", nullptr));
    EXPECT_EQ(0, a2int64("5k", nullptr));
    EXPECT_EQ(-5, a2int64("5x", nullptr));
}

TEST(strops_death, a_null_number_is_an_assertion)
{
    double val = 0;
    EXPECT_DEATH((void)a2double(nullptr, &val), "Assertion `str' failed");
}

TEST(strops, an_integer_is_cut_from_the_number)
{
    int64_t v = 0;
    ssize_t z = 0;
    EXPECT_EQ(0, a2int64("1.9", &v));
    EXPECT_EQ(1, v);
    EXPECT_EQ(0, a2int64("-1.9", &v));
    EXPECT_EQ(-1, v);
    EXPECT_EQ(0, a2int64("1.5Mb", &v));
    EXPECT_EQ(1572864, v);
    EXPECT_EQ(0, a2size("0.0015K", &z));
    EXPECT_EQ(1, z);
    EXPECT_EQ(0, a2size("64Kb", &z));
    EXPECT_EQ(65536, z);
}

TEST(strops, integers_lose_precision_above_2_to_the_53)
{
    // Integers go through a double: whoever configures more than 8 petabytes gets a neighbour.
    int64_t v = 0;
    EXPECT_EQ(0, a2int64("9007199254740992", &v));
    EXPECT_EQ(9007199254740992, v);
    EXPECT_EQ(0, a2int64("9007199254740993", &v));
    EXPECT_EQ(9007199254740992, v);
}

TEST(strops, an_integer_must_fit_into_64_bits)
{
    int64_t v = 7;
    ssize_t z = 7;
    EXPECT_EQ(-2, a2int64("9223372036854777856", &v)); // the next double above 2^63
    EXPECT_EQ(-2, a2int64("-9223372036854777856", &v));
    EXPECT_EQ(-2, a2int64("8589934593G", &v));
    EXPECT_EQ(-2, a2size("9223372036854777856", &z));
    EXPECT_EQ(-2, a2size("-8589934593G", &z));
    EXPECT_EQ(7, v);
    EXPECT_EQ(7, z);

    EXPECT_EQ(0, a2int64("9223372036854774784", &v)); // the next double below
    EXPECT_EQ(9223372036854774784, v);
    EXPECT_EQ(0, a2int64("9223372036854775807", &v));
    EXPECT_EQ(std::numeric_limits<int64_t>::max(), v);
    EXPECT_EQ(0, a2int64("-9223372036854775808", &v));
    EXPECT_EQ(std::numeric_limits<int64_t>::min(), v);
    EXPECT_EQ(0, a2size("8589934592G", &z));
    EXPECT_EQ(std::numeric_limits<int64_t>::max(), z);
}

TEST(strops, an_integer_passes_on_the_codes_of_the_number)
{
    int64_t v = 7;
    ssize_t z = 7;
    EXPECT_EQ(-5, a2int64("10x", &v));
    EXPECT_EQ(-4, a2int64(std::string(400, '9').c_str(), &v));
    EXPECT_EQ(-3, a2size((std::string(64, '0') + "K").c_str(), &z));
    EXPECT_EQ(7, v);
    EXPECT_EQ(7, z);
}

// ---- line ends, markers ---------------------------------------------------------------------------------------

TEST(strops, chomp_removes_one_line_end_of_either_kind)
{
    EXPECT_EQ("a", chomped("a\r\n"));
    EXPECT_EQ("a", chomped("a\n"));
    EXPECT_EQ("a", chomped("a\r"));
    EXPECT_EQ("a", chomped("a\n\r"));
    EXPECT_EQ("a", chomped("a"));
    EXPECT_EQ("a\nb", chomped("a\nb\n"));
    EXPECT_EQ("", chomped("\n"));
    EXPECT_EQ("", chomped("\r\n"));
    EXPECT_EQ("", chomped(""));
    EXPECT_EQ("a\n ", chomped("a\n "));
}

TEST(strops, chomp_removes_two_characters_at_most)
{
    // Callers rely on empty lines in front of the last line end staying there.
    EXPECT_EQ("a\n", chomped("a\n\n\n"));
    EXPECT_EQ("a\r", chomped("a\r\r\n"));
}

TEST(strops, chomp_keeps_off_what_stands_in_front_of_the_text)
{
    char buf[] = "\n\r";
    chomp(buf + 1);
    EXPECT_STREQ("\n", buf);
}

TEST(strops, markers_are_counted_by_occurrence)
{
    EXPECT_EQ(0u, marker_count("", "ab"));
    EXPECT_EQ(0u, marker_count("xyz", "ab"));
    EXPECT_EQ(2u, marker_count("ab ab", "ab"));
    EXPECT_EQ(2u, marker_count("aaaaa", "aa"));
    EXPECT_EQ(0u, marker_count("abc", ""));
    EXPECT_EQ(1u, marker_count("n5", "n"));
}

TEST(strops, a_marker_with_a_colon_adds_up_the_numbers_behind_it)
{
    EXPECT_EQ(15u, marker_count("n:5 n:10", "n:"));
    EXPECT_EQ(0u, marker_count("n: 5, n:-5, n:x", "n:"));
    EXPECT_EQ(7u, marker_count("n:007k", "n:"));
    EXPECT_EQ(3u, marker_count("::3", ":"));
    EXPECT_EQ(std::numeric_limits<size_t>::max(), marker_count("n:99999999999999999999999", "n:"));
}

// ---- hexadecimal ----------------------------------------------------------------------------------------------

TEST(strops, a_hexadecimal_digit_has_a_value_in_either_case)
{
    const std::string lower = "0123456789abcdef", upper = "0123456789ABCDEF";
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(i, sym2hex(lower[static_cast<size_t>(i)]));
        EXPECT_EQ(i, sym2hex(upper[static_cast<size_t>(i)]));
    }
}

TEST(strops, any_other_symbol_has_the_value_0)
{
    for (const int sym : {int{'g'}, int{'G'}, int{'/'}, int{':'}, int{'@'}, 0, -1, 255, 256, 100000})
        EXPECT_EQ(0, sym2hex(sym)) << sym;
}

TEST(strops, two_symbols_make_a_byte)
{
    std::array<uint8_t, 4> out = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(3u, hex_to_bin("01aBfF", out.data(), out.size()));
    EXPECT_EQ((std::array<uint8_t, 4>{0x01, 0xAB, 0xFF, 0xEE}), out);
    EXPECT_EQ(1u, hex_to_bin("zA", out.data(), out.size()));
    EXPECT_EQ(0x0A, out[0]);
}

TEST(strops, conversion_to_bytes_stops_at_the_text_or_the_room)
{
    std::array<uint8_t, 3> out = {0xEE, 0xEE, 0xEE};
    EXPECT_EQ(0u, hex_to_bin("", out.data(), out.size()));
    EXPECT_EQ(0u, hex_to_bin("a", out.data(), out.size()));
    EXPECT_EQ(1u, hex_to_bin("abc", out.data(), out.size()));
    EXPECT_EQ(2u, hex_to_bin("01020304", out.data(), 2));
    EXPECT_EQ((std::array<uint8_t, 3>{0x01, 0x02, 0xEE}), out);
    EXPECT_EQ(0u, hex_to_bin("01", out.data(), 0));
    // What stands behind the text's end is none of it.
    EXPECT_EQ(0u, hex_to_bin("\0ab", out.data(), out.size()));
    EXPECT_EQ(1u, hex_to_bin("01\0ab", out.data(), out.size()));
}

TEST(strops, bytes_become_digits_with_a_delimiter_behind_each)
{
    EXPECT_EQ("00:7f:ff:", dhex({0x00, 0x7F, 0xFF}, 32, ":", 3));
    EXPECT_EQ("007fff", dhex({0x00, 0x7F, 0xFF}, 32, nullptr, 3));
    EXPECT_EQ("01, 02, ", dhex({1, 2}, 32, ", ", 2));
    EXPECT_EQ("", dhex({}, 8, ":", 0));
}

TEST(strops, digits_stop_where_a_byte_no_longer_fits)
{
    EXPECT_EQ("0102", dhex({1, 2, 3}, 5, nullptr, 2));
    EXPECT_EQ("0102", dhex({1, 2, 3}, 6, nullptr, 2));
    EXPECT_EQ("010203", dhex({1, 2, 3}, 7, nullptr, 3));
    EXPECT_EQ("01:02:", dhex({1, 2, 3}, 9, ":", 2));
    EXPECT_EQ("01:02:03:", dhex({1, 2, 3}, 10, ":", 3));
    EXPECT_EQ("", dhex({1}, 2, nullptr, 0));
    char none = 'x';
    const uint8_t byte = 1;
    EXPECT_EQ(0u, bin_to_dhex(&byte, 1, &none, 0, nullptr));
    EXPECT_EQ('x', none);
}

// ---- tags and macros ------------------------------------------------------------------------------------------

TEST(strops, tracking_tags_count_from_1_to_the_maximum)
{
    size_t count = 0;
    n64_tag tag = {};
    for (const char* expected : {"U1", "U2", "U3", "U1", "U2"}) {
        mk_trk_tag(&count, &tag, 'U', 3);
        EXPECT_STREQ(expected, tag.sym);
    }
    EXPECT_EQ(2u, count);
}

TEST(strops, a_tracking_tag_is_cleared_before_it_is_filled)
{
    size_t count = 0;
    n64_tag tag = {}, expected = {};
    memset(&tag, 'z', sizeof(tag));
    expected.sym[0] = 'A';
    expected.sym[1] = '1';
    mk_trk_tag(&count, &tag, 'A', 10);
    EXPECT_EQ(expected.num, tag.num);
}

TEST(strops, a_tracking_tag_takes_six_digits)
{
    size_t count = 999998;
    n64_tag tag = {};
    mk_trk_tag(&count, &tag, 'A', 10000000);
    EXPECT_STREQ("A999999", tag.sym);
    EXPECT_EQ('\0', tag.sym8[7]);
}

TEST(strops_death, a_tracking_number_of_seven_digits_is_an_assertion)
{
    size_t count = 999999;
    n64_tag tag = {};
    EXPECT_DEATH(mk_trk_tag(&count, &tag, 'A', 10000000),
                 "Assertion `n > 0 && n <= \\(ssize_t\\)sizeof\\(tag->sym8\\) - 2' failed");
}

TEST(strops, the_macro_is_replaced_by_the_number)
{
    EXPECT_EQ("/var/log/kvt-3.log", replaced("/var/log/kvt-{N}.log", 3));
    EXPECT_EQ("4294967295", replaced("{N}", 4294967295ul));
    EXPECT_EQ("7end", replaced("{N}end", 7));
    EXPECT_EQ("no macro", replaced("no macro", 7));
    EXPECT_EQ("", replaced("", 7));
}

TEST(strops, each_occurrence_of_the_macro_is_replaced)
{
    EXPECT_EQ("/5/kvt-5.log", replaced("/{N}/kvt-{N}.log", 5));
}

TEST(strops, the_number_0_removes_the_macro)
{
    // Without -N a path reads as if the macro had never been there.
    EXPECT_EQ("/var/log/kvt-.log", replaced("/var/log/kvt-{N}.log", 0));
    EXPECT_EQ("/kvt.log", replaced("{N}/kvt{N}.log", 0));
    EXPECT_EQ("", replaced("{N}", 0)); // nothing left is no failure
}

TEST(strops, at_most_32_occurrences_are_replaced)
{
    const auto times = [](const char* s, int n) {
        std::string r;
        while (n-- > 0)
            r += s;
        return r;
    };
    EXPECT_EQ(times("1", 31), replaced(times("{N}", 31), 1));
    EXPECT_EQ(times("1", 32), replaced(times("{N}", 32), 1));
    EXPECT_EQ(times("1", 32) + "{N}", replaced(times("{N}", 33), 1));
}

TEST(strops, one_replacement_tells_whether_there_was_one)
{
    char buf[32] = "a{N}b{N}";
    EXPECT_EQ(0, repl_ulm(buf, sizeof(buf), "{N}", 12));
    EXPECT_STREQ("a12b{N}", buf);
    EXPECT_EQ(0, repl_ulm(buf, sizeof(buf), "{N}", 0));
    EXPECT_STREQ("a12b", buf);
    EXPECT_EQ(3, repl_ulm(buf, sizeof(buf), "{N}", 12));
    EXPECT_STREQ("a12b", buf);
}

TEST(strops, a_text_that_outgrows_its_limit_is_refused)
{
    char fits[16] = "abc{N}";
    EXPECT_EQ(0, repl_ulm(fits, 8, "{N}", 1234));
    EXPECT_STREQ("abc1234", fits);

    char over[16] = "abc{N}";
    EXPECT_EQ(-34, repl_ulm(over, 8, "{N}", 12345));
    EXPECT_STREQ("abc1234", over); // cut at seven characters
    EXPECT_EQ('\0', over[8]);      // and nothing behind the limit is touched

    char all[16] = "abc{N}";
    EXPECT_EQ(-34, replace_ul_macro(all, 7, "{N}", 1234));
}

TEST(strops, no_memory_for_the_copy_is_told_and_leaves_the_text_alone)
{
    if (UNDER_ASAN) GTEST_SKIP() << "an address space limit and the sanitizer's own memory don't go together";
    const auto child = [] {
        std::vector<char> text(size_t{256} << 20, 'a');
        memcpy(text.data(), "{N}", 3);
        text.back() = '\0';
        const rlimit tight = {size_t{300} << 20, size_t{300} << 20};
        if (setrlimit(RLIMIT_AS, &tight) != 0) _exit(2);
        const int rc = replace_ul_macro(text.data(), text.size(), "{N}", 1);
        _exit(12 == rc && 0 == memcmp(text.data(), "{N}aaa", 6) ? 0 : 1);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "^strdup: ");
}
