// Request paths: segments, and the sources and destinations that a path names.
#include "uri.h"

#include "support/exact_mem.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

// All segments of a text, each with its delimiters as uri_xseg left them.
std::vector<std::string> segments(const std::string& text, const char* pair = SLASHES)
{
    ExactMem mem(text);
    std::vector<std::string> found;
    const char* seg = nullptr;
    size_t len = 0;
    for (const char* p = mem.get(); uri_xseg(p, pair, &seg, &len); p = seg + len)
        found.emplace_back(seg, len);
    return found;
}

// What a path was translated to; "#" marks a buffer that was left alone.
struct Endpts {
    int rc;
    std::string src, dst;
    bool operator==(const Endpts&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Endpts& e)
{
    return os << e.rc << " [" << e.src << "] [" << e.dst << "]";
}

Endpts translate(const std::string& path, uri_parse_ctx* ctx = nullptr, size_t src_size = 128, size_t dst_size = 128)
{
    ExactMem mem(path);
    ExactMem src(src_size, '\0');
    ExactMem dst(dst_size, '\0');
    src.get()[0] = src_size > 1 ? '#' : '\0';
    dst.get()[0] = dst_size > 1 ? '#' : '\0';
    const int rc = uri_extract_endpts_ext(mem.get(), src.get(), src_size, dst.get(), dst_size, ctx);
    EXPECT_LT(src.text().size(), src_size) << path;
    EXPECT_LT(dst.text().size(), dst_size) << path;
    return {rc, src.text(), dst.text()};
}

} // namespace

TEST(uri_is_alias, knows_three_sigils)
{
    for (const char* text : {"$a", "~a", "^a", "$", "~", "^"})
        EXPECT_TRUE(uri_is_alias(text)) << text;
    for (const char* text : {"", "a", "/$a", "a$", "#a", "%", " $"})
        EXPECT_FALSE(uri_is_alias(text)) << text;
}

TEST(uri_xseg, walks_a_path_segment_by_segment)
{
    const struct {
        const char* text;
        std::vector<std::string> want;
    } rows[] = {
        {"", {}},
        {"a", {"a"}},
        {"/a/b/c", {"a/", "b/", "c"}},
        {"a/b/", {"a/", "b/"}},
        // The opening slash of a doubled pair is stepped over, a third one is a segment of its own.
        {"a//b", {"a/", "b"}},
        {"a///b", {"a/", "/", "b"}},
        {"//", {"/"}},
        {"/", {""}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(segments(row.text), row.want) << row.text;
    EXPECT_EQ(segments("<a><b>c", "<>"), (std::vector<std::string>{"a>", "b>", "c"}));
}

TEST(uri_xseg, leaves_the_places_alone_at_the_end_and_takes_none)
{
    const char* seg = "#";
    size_t len = 7;
    EXPECT_EQ(uri_xseg("", SLASHES, &seg, &len), nullptr);
    EXPECT_STREQ(seg, "#");
    EXPECT_EQ(len, 7u);
    const char* text = "/a/b";
    EXPECT_EQ(uri_xseg(text, SLASHES, nullptr, nullptr), text + 1);
}

TEST(xseg_scmp, compares_without_delimiters_in_any_case)
{
    EXPECT_EQ(xseg_scmp("src", "src/", 4, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("src", "/SRC/", 5, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("src", "Src", 3, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("src", "sr/", 3, SLASHES), -1);
    EXPECT_EQ(xseg_scmp("src", "srcs/", 5, SLASHES), -1);
    EXPECT_LT(xseg_scmp("abc", "abd/", 4, SLASHES), 0);
    EXPECT_GT(xseg_scmp("abd", "abc/", 4, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("", "/", 1, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("", "", 0, SLASHES), 0);
    EXPECT_EQ(xseg_scmp("a", "<a>", 3, "<>"), 0);
    EXPECT_EQ(xseg_scmp("a", ">a<", 3, "<>"), -1);
}

TEST(xseg_cpy, copies_without_delimiters_into_more_room_than_that)
{
    ExactMem four(4, '#');
    EXPECT_EQ(xseg_cpy("/abc/", 5, four.get(), 4, SLASHES), 0);
    EXPECT_EQ(four.text(), "abc");
    ExactMem three(3, '#');
    EXPECT_EQ(xseg_cpy("abc/", 4, three.get(), 3, SLASHES), 7);
    EXPECT_EQ(three.all(), "###");
    for (const char* nothing : {"", "/", "//"})
        EXPECT_EQ(xseg_cpy(nothing, strlen(nothing), three.get(), 3, SLASHES), 7) << nothing;
    EXPECT_EQ(three.all(), "###");
}

TEST(uri_extract_endpts_ext, translates_each_form)
{
    const struct {
        const char* path;
        Endpts want;
    } rows[] = {
        {"/rtp/239.1.1.1:5000", {0, "rtp://239.1.1.1:5000", ""}},
        {"/udp/239.1.1.1:5000/", {0, "udp://239.1.1.1:5000", ""}},
        {"udp/239.1.1.1:5000/x/y", {0, "udp://239.1.1.1:5000", ""}},
        {"/UDP/h:1", {0, "UDP://h:1", ""}},
        {"/udp/10.0.0.1@239.1.1.1:1/", {0, "udp://10.0.0.1@239.1.1.1:1", ""}},
        // Without a further slash the word itself is all there is.
        {"/udp", {22, "udp://", "#"}},
        {"/udp/", {22, "udp://", "#"}},
        {"/udp//", {7, "udp://", ""}},
        {"udp", {3, "#", "#"}},
        {"", {3, "#", "#"}},
        {"/", {-14, "#", "#"}},
        // Aliases, with and without a path.
        {"$chan", {0, "$chan", "#"}},
        {"^", {0, "^", "#"}},
        {"/$chan/x", {0, "$chan", "#"}},
        {"~chan/", {0, "~chan", "#"}},
        // Source and destination.
        {"/src/udp/239.1.1.1:5000/dst/file.ts", {0, "udp/239.1.1.1:5000", "file.ts"}},
        {"/src/a/dst/b/c/", {0, "a", "b/c/"}},
        {"/src/a/dst/b/dst/src/c", {0, "a", "b/dst/src/c"}},
        {"/SRC/a/DST/b", {0, "a", "b"}},
        {"/x/y/src/a/dst/b", {0, "a", "b"}},
        {"/src/a/dst/", {0, "a", "#"}},
        {"/src/a/dst", {0, "a", "#"}},
        {"/src/a/dst//tmp/b", {0, "a", "/tmp/b"}},
        {"/src/src/a/dst/b/dst/c", {0, "src/a/dst/b", "c"}},
        {"/src/a/", {1, "#", "#"}},
        {"/src/", {1, "#", "#"}},
        {"/src/src/src/dst/", {2, "#", "#"}},
        {"/src/dst/b", {-1, "#", "#"}},
        {"/src//dst/b", {-1, "#", "#"}},
        // No form at all.
        {"/a/b/", {-14, "#", "#"}},
        {"/dst/a", {-14, "#", "#"}},
        {"/a/udp/h:1/", {-14, "#", "#"}},
        {"/srcs/a/dst/b", {-14, "#", "#"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(translate(row.path), row.want) << row.path;
}

TEST(uri_extract_endpts_ext, lets_a_relay_address_fill_its_room_but_not_more)
{
    EXPECT_EQ(translate("/udp/1234", nullptr, 11), (Endpts{0, "udp://1234", ""}));
    EXPECT_EQ(translate("/udp/1234", nullptr, 10), (Endpts{7, "udp://", ""}));
    EXPECT_EQ(translate("/udp/1", nullptr, 7), (Endpts{7, "udp://", ""}));
    EXPECT_EQ(translate("/udp/1", nullptr, 6), (Endpts{-22, "udp", "#"}));
    EXPECT_EQ(translate("/udp/1", nullptr, 3), (Endpts{-22, "#", "#"}));
}

TEST(uri_extract_endpts_ext, bounds_aliases_and_pairs)
{
    EXPECT_EQ(translate("$abc", nullptr, 5), (Endpts{0, "$abc", "#"}));
    EXPECT_EQ(translate("$abc", nullptr, 4), (Endpts{0, "$ab", "#"}));
    EXPECT_EQ(translate("/$abc/", nullptr, 5), (Endpts{0, "$abc", "#"}));
    EXPECT_EQ(translate("/$abc/", nullptr, 4), (Endpts{7, "#", "#"}));
    EXPECT_EQ(translate("/src/abcd/dst/x", nullptr, 5), (Endpts{0, "abcd", "x"}));
    EXPECT_EQ(translate("/src/abcd/dst/x", nullptr, 4), (Endpts{-1, "#", "#"}));
    EXPECT_EQ(translate("/src/a/dst/xyz", nullptr, 128, 4), (Endpts{0, "a", "xyz"}));
    EXPECT_EQ(translate("/src/a/dst/xyz", nullptr, 128, 3), (Endpts{0, "a", "xy"}));
    EXPECT_EQ(translate("/src/a/dst/xyz", nullptr, 128, 1), (Endpts{0, "a", ""}));
}

TEST(uri_extract_endpts_ext, joins_a_fragment_to_the_root)
{
    const struct {
        const char* root;
        const char* path;
        const char* want;
    } rows[] = {
        {"/var/seg", "/hls-fra/x/1.ts", "file:///var/seg/x/1.ts"},
        {"/var/seg/", "/hls-fra/x/1.ts", "file:///var/seg/x/1.ts"},
        {"", "/hls-fra/x/1.ts", "file://x/1.ts"},
        {nullptr, "/hls-fra/x/1.ts", "file://x/1.ts"},
        {"r", "HLS-FRA/", "file://r/"},
    };
    for (const auto& row : rows) {
        uri_parse_ctx ctx = {};
        ctx.root_dir = row.root;
        EXPECT_EQ(translate(row.path, &ctx), (Endpts{0, row.want, ""})) << row.path;
    }
    EXPECT_EQ(translate("/hls-fra/x/1.ts"), (Endpts{0, "file://x/1.ts", ""}));
    EXPECT_EQ(translate("/hls-fra/"), (Endpts{0, "file://", ""}));
    // Only the first word makes a fragment.
    EXPECT_EQ(translate("/a/hls-fra/x"), (Endpts{-14, "#", "#"}));
}

TEST(uri_extract_endpts_ext, refuses_a_fragment_that_does_not_fit)
{
    EXPECT_EQ(translate("/hls-fra/abc", nullptr, 11), (Endpts{0, "file://abc", ""}));
    const Endpts cut = translate("/hls-fra/abc", nullptr, 10);
    EXPECT_EQ(cut.rc, 34);
    EXPECT_EQ(cut.dst, "#");
    EXPECT_EQ(translate("/hls-fra/abc", nullptr, 1).rc, 34);
}

TEST(uri_extract_endpts_ext, takes_a_playlist_from_its_word_on)
{
    uri_parse_ctx ctx = {};
    EXPECT_EQ(translate("/host/hls-m3u/ch/a.m3u8", &ctx), (Endpts{0, "ch/a.m3u8", ""}));
    EXPECT_STREQ(ctx.udpfx, "hls-m3u");
    EXPECT_EQ(ctx.stime, 0);

    EXPECT_EQ(translate("/hls-m3u/ch/playlist_dvr_range-900-now.m3u8", &ctx),
              (Endpts{0, "ch/playlist_dvr_range-900-now.m3u8", ""}));
    EXPECT_EQ(ctx.stime, 900);
    EXPECT_EQ(ctx.duration, -1);

    EXPECT_EQ(translate("/hls-m3u/ch/index-900.m3u8", &ctx).rc, -22);
    EXPECT_EQ(translate("/hls-m3u/ch/a.m3u8", &ctx, 5), (Endpts{0, "ch/a", ""}));
    EXPECT_EQ(translate("/hls-m3u/", &ctx), (Endpts{0, "", ""}));
}

TEST(uri_extract_endpts_ext, refuses_a_playlist_without_a_context)
{
    // Any client can ask for it, so it must not be a fault.
    EXPECT_EQ(translate("/hls-m3u/ch/a.m3u8"), (Endpts{-22, "#", "#"}));
}

TEST(uri_extract_endpts_ext, notes_the_first_word_up_to_14_characters)
{
    const struct {
        const char* path;
        const char* want;
    } rows[] = {
        {"/udp/h:1/", "udp"},        {"/rtp/h:1", "rtp"}, {"/src/a/dst/b", "src"},
        {"/hls-fra/a", "hls-fra"},   {"/$a/b", "#"},      {"/12345678901234/x", "12345678901234"},
        {"/123456789012345/x", "#"}, {"$a", "#"},
    };
    for (const auto& row : rows) {
        uri_parse_ctx ctx = {nullptr, "#", 0, 0};
        translate(row.path, &ctx);
        EXPECT_STREQ(ctx.udpfx, row.want) << row.path;
    }
}

TEST(uri_extract_endpts_ext, stays_inside_its_buffers_whatever_the_path)
{
    const char* const words[] = {"src", "dst", "udp", "rtp", "hls-m3u",     "hls-fra",
                                 "$a",  "/",   "//",  "a",   "index-1-2.x", ""};
    std::mt19937 rnd(7);
    for (int round = 0; round < 3000; ++round) {
        std::string path;
        for (unsigned i = rnd() % 9; i > 0; --i)
            path += std::string(words[rnd() % std::size(words)]) + (rnd() % 4 ? "/" : "");
        uri_parse_ctx ctx = {};
        ctx.root_dir = rnd() % 2 ? "/r" : nullptr;
        const size_t size = 1 + rnd() % 24;
        translate(path, rnd() % 2 ? &ctx : nullptr, size, 1 + rnd() % 8); // checks both texts against their sizes
    }
}

TEST(get_dvr_range, is_looked_for_behind_the_last_slash)
{
    EXPECT_STREQ(get_dvr_range("ch/playlist_dvr_range-900-now.m3u8"), "900-now.m3u8");
    EXPECT_STREQ(get_dvr_range("ch/index-900-60.m3u8"), "900-60.m3u8");
    EXPECT_STREQ(get_dvr_range("/x-index-1"), "1");
    EXPECT_STREQ(get_dvr_range("/index-1-playlist_dvr_range-2"), "2");
    EXPECT_STREQ(get_dvr_range("/index-"), "");
    for (const char* text : {"", "index-900-60.m3u8", "/index-1/a.m3u8", "/", "/a.m3u8", "/Index-1-2.x"})
        EXPECT_EQ(get_dvr_range(text), nullptr) << text;
}

TEST(parse_dvr_playlist, reads_start_and_length)
{
    const struct {
        const char* text;
        int rc;
        long stime, duration;
    } rows[] = {
        {"ch/playlist_dvr_range-900-now.m3u8", 0, 900, -1},
        {"ch/playlist_dvr_range-900-NOW.m3u8", 0, 900, -1},
        {"ch/index-900-60.m3u8", 0, 900, 60},
        {"ch/index-1-1.x", 0, 1, 1},
        {"ch/index-900--1.m3u8", 0, 900, -1},
        {"ch/index-900-60.v2.m3u8", 0, 900, 60},
        {"ch/index-9.5-60.m3u8", 0, 9, 60},
        {"ch/index-900-now.v2.m3u8", -22, 900, 0}, // only the last extension is cut off
        {"ch/index-0-60.m3u8", -22, 0, 60},
        {"ch/index--5-60.m3u8", -22, 0, 5}, // nothing ahead of the first dash
        {"ch/index- -5-60.m3u8", -22, 0, 5},
        {"ch/index-900-0.m3u8", -22, 900, 0},
        {"ch/index-900--2.m3u8", -22, 900, -2},
        {"ch/index-900-nows.m3u8", -22, 900, 0},
        {"ch/index-x-60.m3u8", -22, 0, 60},
        // Left alone: no range, no dot, no dash ahead of the dot.
        {"ch/live.m3u8", 0, 77, 88},
        {"index-1-2.m3u8", 0, 77, 88},
        {"ch/index-900-60", -22, 77, 88},
        {"ch/index-900.m3u8", -22, 77, 88},
        {"ch/index-900.m3u8-", -22, 77, 88},
        {"ch/index-", -22, 77, 88},
    };
    for (const auto& row : rows) {
        uri_parse_ctx ctx = {};
        ctx.stime = 77;
        ctx.duration = 88;
        EXPECT_EQ(parse_dvr_playlist(row.text, &ctx), row.rc) << row.text;
        EXPECT_EQ(ctx.stime, row.stime) << row.text;
        EXPECT_EQ(ctx.duration, row.duration) << row.text;
    }
}
