// Queries, percent-decoding and percent-encoding.
#include "uri.h"

#include "support/exact_mem.h"
#include "support/fail_alloc.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;
using Pairs = std::map<std::string, std::string>;

// The parsed pairs; "(null)" for an empty value.
struct Query {
    int rc;
    Pairs pairs;
    bool operator==(const Query&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Query& q)
{
    os << q.rc;
    for (const auto& [name, value] : q.pairs)
        os << " " << name << "=" << value;
    return os;
}

Query parse(const std::string& text)
{
    // One zero only: nothing may be read behind it.
    ExactMem mem(text);
    skht_t tbl = reinterpret_cast<skht_t>(&mem); // must not survive
    Query q = {uri_query_parse(mem.get(), &tbl), {}};
    EXPECT_EQ(tbl != nullptr, q.rc == 0 && !text.empty()) << text;
    if (!tbl) return q;
    const auto note = [](const void* key, void* data, void* farg) {
        (*static_cast<Pairs*>(farg))[static_cast<const char*>(key)] = data ? static_cast<const char*>(data) : "(null)";
    };
    skht_iter(tbl, note, &q.pairs);
    EXPECT_EQ(skht_count(tbl), q.pairs.size());
    skht_destroy(tbl, free);
    return q;
}

int check(const std::string& text)
{
    ExactMem mem(text);
    return uri_query_parse(mem.get(), nullptr);
}

// The decoded text, or "null"; decoded in memory of exactly `size` characters.
std::string decode(const std::string& text, size_t size, uint32_t flags = NO_UNPRINTABLE)
{
    ExactMem mem(size, '\0');
    memcpy(mem.get(), text.data(), std::min(text.size(), size));
    char* const got = uri_decode_opt(mem.get(), size, flags);
    if (!got) return "null";
    EXPECT_EQ(got, mem.get());
    return mem.text();
}

std::string decode(const std::string& text)
{
    return decode(text, text.size() + 1);
}

std::string encode(const std::string& text, size_t size)
{
    ExactMem mem(size, '\0');
    memcpy(mem.get(), text.data(), std::min(text.size(), size));
    EXPECT_EQ(uri_encode(mem.get(), size), mem.get());
    EXPECT_LT(mem.text().size(), size);
    return mem.text();
}

std::string numbered(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += (i ? "&n" : "n") + std::to_string(i) + "=" + std::to_string(i);
    return text;
}

} // namespace

TEST(uri_query_parse, reads_pairs)
{
    const struct {
        const char* text;
        Query want;
    } rows[] = {
        {"", {0, {}}},
        {"a=1", {0, {{"a", "1"}}}},
        {"a=1&b=2", {0, {{"a", "1"}, {"b", "2"}}}},
        {"a=1&", {0, {{"a", "1"}}}},
        {"a=&b=", {0, {{"a", "(null)"}, {"b", "(null)"}}}},
        {"=1", {0, {{"", "1"}}}},
        {"a=b=c", {0, {{"a", "b=c"}}}},
        {"a+b=c+d&%41=%2e", {0, {{"a b", "c d"}, {"A", "."}}}},
        {"a=%00b", {0, {{"a", "?b"}}}},
        {"a=%zz", {0, {{"a", ""}}}},
        {"utime=900&duration=now&vod=1", {0, {{"utime", "900"}, {"duration", "now"}, {"vod", "1"}}}},
        // A name runs up to its sign, whatever is in it.
        {"a=1&&b=2", {0, {{"a", "1"}, {"&b", "2"}}}},
        {"a&b=1", {0, {{"a&b", "1"}}}},
        {"a", {-1, {}}},
        {"a=1&b", {-1, {}}},
        {"&", {-1, {}}},
        // Escapes that are cut short, by the pair's end too.
        {"a=%4", {-1, {}}},
        {"a=%", {-1, {}}},
        {"%4=1", {-1, {}}},
        {"a=%4&1=2", {-1, {}}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.text), row.want) << row.text;
}

TEST(uri_query_parse, refuses_a_name_that_comes_twice)
{
    LogCapture log;
    EXPECT_EQ(parse("a=1&a=2").rc, 16);
    EXPECT_EQ(log.messages(ll::error), Lines{"uri_query_parse: duplicate query parameter [a]"});
    EXPECT_EQ(parse("a=1&b=2&%61=").rc, 16); // the names are compared decoded
    EXPECT_EQ(check("a=1&a=2"), 16);
    EXPECT_EQ(check("a=1&%61=2"), 0); // and undecoded where the query is only checked
}

TEST(uri_query_parse, limits_a_name_to_31_characters)
{
    const std::string name(31, 'n');
    EXPECT_EQ(parse(name + "=1"), (Query{0, {{name, "1"}}}));
    EXPECT_EQ(parse(name.substr(1) + "=1").rc, 0);
    EXPECT_EQ(parse(name + "n=1").rc, -1);
}

TEST(uri_query_parse, limits_a_value_to_32_characters)
{
    LogCapture log;
    const std::string value(32, 'v');
    EXPECT_EQ(parse("a=" + value + "&b=1"), (Query{0, {{"a", value}, {"b", "1"}}}));
    EXPECT_EQ(parse("a=" + value.substr(1)).rc, 0);
    EXPECT_TRUE(log.messages(ll::error).empty());
    EXPECT_EQ(parse("a=" + value + "v&b=1").rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"uri_query_parse: argument for query parameter [a] is too long [33]"});
}

TEST(uri_query_parse, limits_the_number_of_pairs_to_128)
{
    LogCapture log;
    EXPECT_EQ(parse(numbered(127)).pairs.size(), 127u);
    EXPECT_EQ(parse(numbered(128)).pairs.size(), 128u);
    EXPECT_EQ(parse(numbered(128) + "&").rc, 0);
    EXPECT_TRUE(log.messages(ll::error).empty());
    EXPECT_EQ(parse(numbered(129)).rc, -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"uri_query_parse: too many query parameters: [128]"});
    EXPECT_EQ(parse(numbered(1000)).rc, -1);
    EXPECT_EQ(check(numbered(1000)), -1);
}

TEST(uri_query_parse, checks_a_query_without_a_place_for_the_table)
{
    EXPECT_EQ(check(""), 0);
    EXPECT_EQ(check("a=1&b="), 0);
    EXPECT_EQ(check("a=%4"), 0); // nothing is decoded
    EXPECT_EQ(check("a"), -1);
}

TEST(uri_query_parse, ends_with_12_at_each_allocation_that_fails)
{
    LogCapture log;
    // The table, its slots, then a value and a record for each pair.
    for (int nth = 1; nth <= 6; ++nth) {
        fail_alloc::at(nth);
        EXPECT_EQ(parse("a=1&b=2").rc, 12) << nth;
    }
    EXPECT_EQ(parse("a=1&b=2").rc, 0);
}

TEST(uri_decode, decodes_in_place)
{
    const struct {
        const char* text;
        const char* want;
    } rows[] = {
        {"", ""},        {"abc", "abc"}, {"a+b", "a b"}, {"%41", "A"},     {"%4a%4B", "JK"},  {"%zz", ""},
        {"a%zzb", "ab"}, {"%4g1", "1"},  {"%%41", "1"},  {"%2541", "%41"}, {"%00a", "?a"},    {"%7f", "?"},
        {"%ff", "?"},    {"%20", " "},   {"%7e", "~"},   {"%1f", "?"},     {"a\tb", "a\tb"},  {"%2B", "+"},
        {"%+1a", "a"},   {"%", "null"},  {"%4", "null"}, {"a%", "null"},   {"%41%2", "null"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(decode(row.text), row.want) << row.text;
}

TEST(uri_decode, gives_null_for_an_escape_that_the_size_or_the_zero_cuts_short)
{
    EXPECT_EQ(decode("%41%2", 5), "null");
    EXPECT_EQ(decode("%41%2", 6), "null");
    EXPECT_EQ(decode("%41%22", 5), "null");
    EXPECT_EQ(decode("%41%22", 6), "A\"");
    EXPECT_EQ(decode("%4", 128), "null");
}

TEST(uri_decode, takes_the_last_character_of_a_text_without_a_zero)
{
    EXPECT_EQ(decode("abcd", 4), "abc");
    EXPECT_EQ(decode("abc%41", 6), "abcA");
    EXPECT_EQ(decode("a", 1), "");
    char none = '#';
    EXPECT_EQ(uri_decode(&none, 0), &none);
    EXPECT_EQ(none, '#');
}

TEST(uri_decode_opt, keeps_bytes_that_cannot_be_printed_without_the_flag)
{
    EXPECT_EQ(decode("%01%ff", 7, 0), "\x01\xff");
    ExactMem mem("%00b");
    EXPECT_EQ(uri_decode_opt(mem.get(), mem.size(), 0), mem.get());
    EXPECT_EQ(mem.all().substr(0, 3), std::string("\0b\0", 3));
}

TEST(uri_encode, encodes_what_is_not_safe)
{
    EXPECT_EQ(encode("a b", 16), "a%20b");
    EXPECT_EQ(encode("", 4), "");
    EXPECT_EQ(encode("AZaz09-_.~!'()%<>\"", 32), "AZaz09-_.~!'()%<>\"");
    EXPECT_EQ(encode(";/?:@&=+$,* ", 64), "%3B%2F%3F%3A%40%26%3D%2B%24%2C%2A%20");
    EXPECT_EQ(encode("\x01\x7f\xff\n", 16), "%01%7F%FF%0A");
}

TEST(uri_encode, stops_where_an_escape_does_not_fit)
{
    EXPECT_EQ(encode("ab c", 6), "ab%20");
    EXPECT_EQ(encode("ab c", 7), "ab%20c");
    // By design: the escape that takes the last of the room loses its second digit.
    EXPECT_EQ(encode("ab c", 5), "ab%2");
    EXPECT_EQ(encode("ab ", 4), "ab");
    EXPECT_EQ(encode(" ", 2), "");
    EXPECT_EQ(encode("abcd", 4), "abc"); // a full text without a zero
}

TEST(uri_encode, gives_null_without_memory_and_leaves_the_text)
{
    LogCapture log;
    char text[16] = "a b";
    fail_alloc::at(1);
    EXPECT_EQ(uri_encode(text, sizeof(text)), nullptr);
    EXPECT_STREQ(text, "a b");
}

TEST(uri_encode, is_undone_by_decoding)
{
    std::mt19937 rnd(11);
    for (int round = 0; round < 500; ++round) {
        std::string text;
        for (unsigned i = rnd() % 40; i > 0; --i) {
            const char c = static_cast<char>(1 + rnd() % 255);
            if (c != '%') text += c;
        }
        const std::string encoded = encode(text, 3 * text.size() + 1);
        EXPECT_EQ(decode(encoded, encoded.size() + 1, 0), text);
    }
}
