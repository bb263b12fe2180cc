// PMT tracking: sections whose lengths lie, that are cut, or whose descriptors are not what their tags say.
#include "support/pmt_kit.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace
{

struct HostilePMT : PMT {
    // Feeds a section in a packet with zeros behind it; returns the error lines. Nothing but them may come of it.
    strings refuse(const bytes& section)
    {
        a.quiet();
        bytes s = section;
        s.resize(183, 0);
        a.feed(wrap1(s, 100));
        EXPECT_EQ(stream_pids(), (stream_list{101, 102}));
        EXPECT_EQ(pg().alert.pmt_diff, 0u);
        EXPECT_EQ(a.log.lines().size(), 1u) << join_lines(a.log.lines());
        return a.log.messages(ll::error);
    }
    HostilePMT() { begin(av_pmt()); }
};

TEST_F(HostilePMT, section_of_12_or_1022_bytes_is_refused_and_one_of_13_or_1021_taken)
{
    EXPECT_EQ(refuse(pmt(1, 101, {}).version(1).length(12)),
              strings{"take_PMT: [src] passing over a PMT section (pid100), it is too short at 0:M[3]"});
    EXPECT_EQ(refuse(pmt(1, 101, {}).version(1).length(1022)),
              strings{"take_PMT: [src] passing over a PMT section (pid100), it is too long at 0:M[4]"});
    EXPECT_EQ(refuse(pmt(1, 101, {}).version(1).length(4095)).size(), 1u);
    for (unsigned length : {0u, 1u, 5u, 8u})
        EXPECT_NE(refuse(pmt(1, 101, {}).version(1).length(length)).at(0).find("it is too short"), std::string::npos)
            << length;
    a.feed_pmt(pmt(1, 101, {}).version(1));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    EXPECT_EQ(pg().nstreams, 0u);
    bytes s = pmt(1, 101, {{ES_AVC, 301}}).version(1).length(1021);
    s.resize(183, 0);
    a.feed(wrap1(s, 100));
    EXPECT_EQ(pg().stm[0].pid, 301u);
}

TEST_F(HostilePMT, refused_section_is_refused_as_the_first_one_too)
{
    Analyzer b;
    b.feed_pat(pat({{1, 100}}));
    b.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}).length(12));
    EXPECT_EQ(b->pg[0].nstreams, 0u);
    EXPECT_EQ(b->pg[0].txt_pmt.buf, nullptr);
}

TEST_F(HostilePMT, trace_line_of_a_refused_packet_comes_all_the_same)
{
    Analyzer b;
    b.cfg.trk.pat_pmt_pkt = true;
    b.feed_pat(pat({{1, 100}}));
    b.quiet();
    b.feed_pmt(pmt(1, 101, {}).length(3));
    EXPECT_EQ(b.log.messages(ll::info), strings{"[src] found PMT (pid100) at 0:M[2]"});
}

TEST_F(HostilePMT, lengths_that_run_past_each_other_are_refused)
{
    const bytes good = pmt(1, 101, {{ES_AVC, 101, desc(0x52, bytes{1})}, {ES_AAC, 102, lang_desc("eng")}})
                           .descs(desc(0x09, bytes{1, 2, 0xe3, 4}))
                           .version(1);
    const auto changed = [&](size_t at, uint8_t value) {
        bytes s = good;
        s[at] = value;
        return s;
    };
    EXPECT_EQ(good[13], 4);                                    // the program's first descriptor
    EXPECT_EQ(refuse(changed(11, 7)).size(), 1u);              // cuts into the ES entries: what follows can't hold
    EXPECT_EQ(refuse(changed(11, 5)).size(), 1u);              // a descriptor runs past its loop
    EXPECT_EQ(refuse(changed(11, 1)).size(), 1u);              // not even its head has room
    EXPECT_EQ(refuse(changed(11, 100)).size(), 1u);            // the loop runs past the section
    EXPECT_EQ(refuse(changed(10, 0xff)).size(), 1u);           // far past it
    EXPECT_EQ(refuse(changed(13, 5)).size(), 1u);              // the descriptor runs past its loop
    EXPECT_EQ(refuse(changed(22, 200)).size(), 1u);            // the first entry's loop runs past the section
    EXPECT_EQ(refuse(changed(good.size() - 9, 5)).size(), 1u); // the last descriptor runs past its loop
    EXPECT_EQ(refuse(changed(2, uint8_t(good[2] - 1))).size(), 1u);
    EXPECT_EQ(refuse(changed(2, uint8_t(good[2] + 1))).size(), 1u); // an entry's head runs past the section
}

TEST_F(HostilePMT, refused_section_does_not_hide_the_next_good_one)
{
    refuse(pmt(1, 101, {}).length(12));
    a.feed_pmt(av_pmt(1));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
}

// The printer's item size has 8 bits: one of 256 would keep it in the same place for ever.
TEST_F(HostilePMT, descriptor_whose_items_do_not_advance_is_refused)
{
    const std::pair<unsigned, bytes> cases[] = {
        {0x45, {1, 254, 0, 0}},
        {0x51, {0, 1, 1, 252, 0, 0}},
        {0x5b, {'e', 'n', 'g', 252, 0}},
        {0x5c, {'e', 'n', 'g', 252, 0}},
        {0x5d, {'e', 'n', 'g', 251, 0}},
        {0x5e, {1, 'e', 'n', 'g', 252}},
        {0x6c, {0, 0, 0, 0, 0, 0, 0, 0, 0, 246}},
        {0x6d, {0, 0, 0, 0, 0, 0, 249}},
    };
    for (const auto& [tag, data] : cases) {
        const strings lines = refuse(pmt(1, 101, {{ES_AVC, 101}}).descs(desc(tag, data)).version(1));
        ASSERT_EQ(lines.size(), 1u) << tag;
        EXPECT_NE(lines[0].find("items do not advance"), std::string::npos) << lines[0];
    }
}

// A section may say that it goes on behind its packet. It is read as far as the packet goes.
TEST_F(HostilePMT, section_that_runs_past_its_packet_ends_with_it)
{
    std::vector<es> list;
    for (unsigned i = 0; i < 40; ++i)
        list.push_back({ES_AAC, 200 + i, i % 2 == 0 ? bytes{} : lang_desc("eng")});
    const std::vector<packet> v = wrap(pmt(1, 200, list).version(1).build(), 100);
    ASSERT_GT(v.size(), 1u);
    a.feed(v[0]);
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    // 171 bytes behind the head: ten pairs of 5 and 11 bytes, one more, and the head of another.
    EXPECT_EQ(pg().nstreams, 22u);
    EXPECT_EQ(pg().stm[21].pid, 221u);
    EXPECT_EQ(text().find("pid=0 "), std::string::npos);
    a.feed(v[0]);
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
    expect_valid();
}

TEST_F(HostilePMT, section_cut_at_any_byte_is_taken_as_far_as_it_goes)
{
    const bytes whole = pmt(1, 101, {{ES_AVC, 101, desc(0x52, bytes{1})}, {ES_AAC, 102, lang_desc("eng")}})
                            .descs(desc(0x09, bytes{1, 2, 0xe3, 4}));
    const size_t content = whole.size() - 4;
    for (size_t n = 1; n < whole.size(); ++n) {
        Analyzer b;
        b.feed_pat(pat({{1, 100}}));
        b.feed(pkt().pid(100).payload(bytes_view(whole).first(n)));
        const program_info& p = b->pg[0];
        if (n < 12) {
            EXPECT_EQ(with(b.log.messages(ll::error), "its head is not in the packet").size(), 1u) << n;
            continue;
        }
        EXPECT_EQ(b.log.messages(ll::error), strings{}) << n;
        // Entries: from 18 on (5 + 3 bytes), from 26 on (5 + 6 bytes). A head that is there counts.
        const size_t expected = n >= 31 ? 2 : n >= 23 ? 1 : 0;
        EXPECT_EQ(p.nstreams, expected) << n;
        const std::string txt(p.txt_pmt.buf, size_t(p.txt_pmt.textlen));
        EXPECT_EQ(txt.find("desc 09") != std::string::npos, n >= 18) << n;
        EXPECT_EQ(txt.find("desc 52") != std::string::npos, n >= 26) << n;
        EXPECT_EQ(txt.find("desc 0a") != std::string::npos, n >= content) << n;
    }
}

TEST_F(HostilePMT, packet_without_payload_is_no_table)
{
    a.quiet();
    a.feed(pkt().pid(100).no_payload().af_len(183));
    EXPECT_EQ(a.log.messages(ll::error), strings{});
    EXPECT_EQ(a.log.messages(), strings{"take_PSI_pkt: [src] no section in the packet (pid100) at 0:M[3]"});
    EXPECT_EQ(stream_pids(), (stream_list{101, 102}));
}

// Descriptors of all kinds as broadcasters send them: none of them is taken for damage.
TEST_F(HostilePMT, ordinary_descriptors_are_taken_and_shown)
{
    const bytes program = cat({desc(0x05, bytes{'H', 'D', 'M', 'V'}), desc(0x09, bytes{0x06, 0x04, 0xe5, 0x01}),
                               desc(0x0e, bytes{0xc0, 0x12, 0x34})});
    const bytes video =
        cat({desc(0x52, bytes{1}), desc(0x28, bytes{0x4d, 0x40, 0x28, 0x3f}), desc(0x05, bytes{'A', 'V', 'C', '1'}),
             desc(0x02, bytes{0x1b, 0x48, 0x5f}), desc(0x09, bytes{0x0b, 0x00, 0xe5, 0x02, 0x15})});
    const bytes audio = cat({lang_desc("eng"), desc(0x7c, bytes{0x58}), desc(0x52, bytes{2})});
    const bytes teletext = cat({desc(0x56, bytes{'d', 'e', 'u', 0x09, 0x00, 'd', 'e', 'u', 0x10, 0x50}),
                                desc(0x45, bytes{0x04, 0x02, 0xf0, 0xf1, 0x05, 0x01, 0xf7})});
    const bytes subtitles = desc(0x59, bytes{'f', 'r', 'a', 0x10, 0x00, 0x01, 0x00, 0x02});
    const bytes dolby = desc(0x6a, bytes{0x80, 0x42});
    const bytes splice = desc(0x8a, bytes{0x01});
    const bytes whole = pmt(1, 101,
                            {{ES_AVC, 101, video},
                             {ES_AAC, 102, audio},
                             {ES_PRIVATE, 103, teletext},
                             {ES_PRIVATE, 104, subtitles},
                             {ES_AC3, 105, dolby},
                             {0x86, 106, splice}})
                            .descs(program)
                            .version(1);
    ASSERT_LE(whole.size(), 183u);
    a.quiet();
    a.feed_pmt(whole);
    EXPECT_EQ(a.log.messages(ll::error), strings{});
    EXPECT_EQ(stream_pids(), (stream_list{101, 102, 103, 104, 105}));
    for (const char* tag : {"05", "09", "0e", "52", "28", "02", "0a", "7c", "56", "45", "59", "6a", "8a"})
        EXPECT_NE(text().find(std::string("desc ") + tag), std::string::npos) << tag << " in\n" << text();
    EXPECT_EQ(text().find("invalid"), std::string::npos) << text();
    a.quiet();
    a.feed_pmt(whole);
    EXPECT_EQ(a.log.lines(), strings{});
}

// A section may fill its packet, and its CRC may come with the next one.
TEST_F(HostilePMT, section_whose_crc_alone_lies_in_the_next_packet_is_whole)
{
    for (size_t size = 178; size <= 192; ++size) {
        const size_t desc_bytes = size - 12 - 5 - 2 - 4;
        const bytes s = pmt(1, 101, {{ES_AVC, 101, desc(0x90, fill(desc_bytes, 7))}}).version(unsigned(size) % 32);
        ASSERT_EQ(s.size(), size);
        a.quiet();
        a.feed(wrap(s, 100).at(0));
        EXPECT_EQ(a.log.messages(ll::error), strings{}) << size;
        EXPECT_EQ(stream_pids(), stream_list{101}) << size;
        EXPECT_EQ(text().find("desc 90") != std::string::npos, size - 4 <= 183) << size;
    }
    expect_valid();
}

// By design a packet without unit start is a section too.
TEST_F(HostilePMT, packet_without_unit_start_counts_as_a_section)
{
    a.feed(pkt().pid(100).section_payload(av_pmt(1)));
    EXPECT_EQ(pg().alert.pmt_diff, 1u);
}

// Texts in an encoding that needs a conversion are shown as their bytes.
TEST_F(HostilePMT, text_in_a_foreign_encoding_is_shown_as_it_is)
{
    a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}).version(1).descs(desc(0x40, bytes{0x05, 'N', 'e', 't'})));
    EXPECT_NE(text().find("=\"Net\"\n"), std::string::npos) << text();
    for (unsigned first = 0; first < 256; ++first)
        for (size_t more : {0u, 1u, 2u, 3u})
            a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}})
                           .version(first % 32)
                           .descs(desc(0x40, cat({bytes{uint8_t(first)}, fill(more, uint8_t(first * 7))}))));
    EXPECT_EQ(pg().nstreams, 1u);
}

// Every descriptor tag with bytes that lie: rendering comes to an end and stays inside the section's copy (the
// sanitizer run sees that), and the record stays valid.
TEST_F(HostilePMT, random_descriptors_of_every_tag_are_rendered_or_refused)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 40; ++round) {
        for (unsigned tag = 0; tag < 256; ++tag) {
            bytes data(rng() % 140);
            for (uint8_t& b : data)
                b = rng() % 3 == 0 ? uint8_t(rng() % 8) : uint8_t(rng());
            if (rng() % 4 == 0 && data.size() > 4) data[rng() % 5] = uint8_t(256 - rng() % 12);
            const bytes specifier = desc(0x5f, bytes{0, 0, 0, uint8_t(rng() % 2 == 0 ? 0x28 : 0)});
            a.feed_pmt(pmt(1, 101, {{ES_AVC, 101}}).version(rng() % 32).descs(cat({specifier, desc(tag, data)})));
            if (round == 0) expect_valid();
        }
        a.quiet();
    }
    expect_valid();
}

TEST_F(HostilePMT, random_damage_never_breaks_the_record)
{
    std::mt19937 rng(11);
    const bytes good = pmt(1, 101, {{ES_AVC, 101, desc(0x52, bytes{1})}, {ES_AAC, 102, lang_desc("eng")}})
                           .descs(desc(0x09, bytes{1, 2, 0xe3, 4}));
    for (int round = 0; round < 20000; ++round) {
        bytes s = good;
        if (rng() % 2 == 0) s.resize(183, uint8_t(rng()));
        for (unsigned n = 1 + rng() % 5; n > 0; --n)
            s[rng() % s.size()] = uint8_t(rng());
        s[9] |= 1; // a PCR PID of 0 would end the process, as it should
        a.feed(wrap1(s, 100));
        if (round % 1000 == 0) {
            expect_valid();
            a.quiet();
        }
    }
    expect_valid();
}

// The last byte ahead of the CRC is the packet's last, or the CRC's first bytes are: nothing goes on behind the packet
// that a length could lead to.
TEST_F(HostilePMT, lengths_that_lie_are_refused_where_only_the_crc_is_cut)
{
    const bytes good = pmt(1, 101, {{ES_AVC, 201, desc(0x90, fill(40, 1))}, {ES_AAC, 202, desc(0x90, fill(106, 2))}});
    for (size_t behind_content : {0u, 1u, 3u, 4u}) {
        const size_t room = good.size() - 4 + behind_content;
        const auto feed_changed = [&](size_t at, int by) {
            bytes s = good;
            s[at] = uint8_t(s[at] + by);
            Analyzer b;
            b.feed_pat(pat({{1, 100}}));
            b.quiet();
            b.feed(pkt().pid(100).payload(bytes_view(s).first(room)));
            return b.log.messages(ll::error).size();
        };
        EXPECT_EQ(feed_changed(5, 0), 0u) << room;
        const size_t second = 12 + 5 + 42;
        EXPECT_EQ(feed_changed(second + 4, 1), 1u) << room; // the loop runs past the section
        EXPECT_EQ(feed_changed(second + 6, 1), 1u) << room; // the descriptor runs past its loop
        EXPECT_EQ(feed_changed(second + 4, -1), 1u) << room;
        EXPECT_EQ(feed_changed(2, 1), behind_content == 0 ? 0u : 1u) << room; // now it goes on behind the packet
    }
}

// ---- against a plain reader -----------------------------------------------------------------------------------

// What a section says, read the long way round.
struct reading {
    std::string refusal; // empty: it is taken
    std::vector<unsigned> pids;
    std::vector<unsigned> desc_tags; // as far as the reading went
};

size_t u12(bytes_view b, size_t at)
{
    return (b[at] % 16U) * 256U + b[at + 1];
}

// Takes descriptors from the front of a loop's bytes. False if the loop does not end with a descriptor.
bool read_descs(bytes_view loop, reading* r)
{
    while (loop.size() >= 2 && loop.size() >= 2U + loop[1]) {
        r->desc_tags.push_back(loop[0]);
        loop = loop.subspan(2U + loop[1]);
    }
    return loop.empty();
}

// `sec` is what came with the packet, from the section's first byte on.
reading read_plainly(bytes_view sec)
{
    reading r;
    if (sec.size() < 3) return {"its head is not in the packet", {}, {}};
    const size_t length = u12(sec, 1);
    if (length < 13) return {"it is too short", {}, {}};
    if (length > 1021) return {"it is too long", {}, {}};
    if (sec.size() < 12) return {"its head is not in the packet", {}, {}};
    const bool goes_on = length - 1 > sec.size();
    const bytes_view body = goes_on ? sec : sec.first(length - 1);
    const auto loop = [&](size_t field, size_t* next) -> const char* {
        const size_t begin = field + 2, len = u12(body, field);
        *next = begin + len;
        if (begin + len <= body.size())
            return read_descs(body.subspan(begin, len), &r) ? nullptr : "a descriptor runs past its loop";
        if (!goes_on) return "a descriptor loop runs past the section";
        (void)read_descs(body.subspan(begin), &r);
        return nullptr;
    };
    size_t at = 0;
    if (const char* why = loop(10, &at); why != nullptr) {
        r.refusal = why;
        return r;
    }
    while (at + 5 <= body.size()) {
        r.pids.push_back(body[at + 1] % 32U * 256U + body[at + 2]);
        if (const char* why = loop(at + 3, &at); why != nullptr) {
            r.refusal = why;
            return r;
        }
    }
    if (at < body.size() && !goes_on) r.refusal = "an entry runs past the section";
    return r;
}

std::vector<unsigned> numbers_behind(const std::string& text, const char* words, int base)
{
    std::vector<unsigned> v;
    for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
        v.push_back(unsigned(strtoul(text.c_str() + at + strlen(words), nullptr, base)));
    return v;
}

// Descriptors of one line each, so that the text shows them one by one.
bytes random_descs(std::mt19937& rng)
{
    bytes v;
    for (unsigned n = unsigned(rng() % 4); n > 0; --n)
        v = cat({v, desc(unsigned(0x90 + rng() % 16), fill(rng() % 9, uint8_t(rng())))});
    return v;
}

// A table whose length fields may be off by a little or by much.
bytes random_pmt(std::mt19937& rng)
{
    std::vector<es> list;
    for (unsigned n = unsigned(rng() % 30); n > 0; --n)
        list.push_back({rng() % 3 == 0 ? ES_UNTRACKED : ES_AVC, unsigned(200 + rng() % 4000), random_descs(rng)});
    bytes s = pmt(1, 101, list).version(unsigned(rng() % 32)).descs(random_descs(rng));
    constexpr size_t LENGTH_BYTES[] = {1, 2, 10, 11};
    while (rng() % 3 == 0) {
        const size_t at = rng() % 2 == 0 ? LENGTH_BYTES[rng() % 4] : 12 + rng() % (s.size() - 12);
        s[at] = rng() % 3 == 0 ? uint8_t(rng()) : uint8_t(s[at] + rng() % 3 - 1U);
    }
    return s;
}

TEST_F(HostilePMT, random_sections_are_read_as_a_plain_reader_reads_them)
{
    std::mt19937 rng(21);
    size_t taken = 0, refused = 0, cut = 0;
    for (int round = 0; round < 4000; ++round) {
        const bytes s = random_pmt(rng);
        Analyzer b;
        b.feed_pat(pat({{1, 100}}));
        b.quiet();
        // Stuffed behind, cut by the packet's end, or pushed there by an adaptation field.
        const size_t room = rng() % 3 == 0 ? rng() % 183 : 183;
        bytes_view seen = bytes_view(s).first(std::min(s.size(), room));
        bytes stuffed(seen.begin(), seen.end());
        if (rng() % 2 == 0) stuffed.resize(room < 183 && room > s.size() ? room : 183, 0xff);
        if (stuffed.empty()) continue;
        b.feed(stuffed.size() == 183 ? pkt().pid(100).section_payload(stuffed).build()
                                     : pkt().pid(100).payload(stuffed).build());
        // The packet's payload has 184 bytes; without unit start all of it is the section.
        bytes sec = stuffed;
        if (stuffed.size() == 183) sec.push_back(0xff);

        const reading r = read_plainly(sec);
        // Only these descriptors are shown in a line each; lengths that lie can make one of any bytes.
        if (std::ranges::any_of(r.desc_tags, [](unsigned tag) { return tag < 0x90; })) continue;
        const std::string at = "round " + std::to_string(round);
        if (!r.refusal.empty()) {
            ++refused;
            EXPECT_EQ(b.log.messages(),
                      strings{"take_PMT: [src] passing over a PMT section (pid100), " + r.refusal + " at 0:M[2]"})
                << at;
            EXPECT_EQ(b->pg[0].txt_pmt.buf, nullptr) << at;
            continue;
        }
        ++taken;
        cut += u12(sec, 1) - 1 > sec.size();
        EXPECT_EQ(b.log.messages(ll::error), strings{}) << at;
        const ctxt_spec& txt = b->pg[0].txt_pmt;
        const std::string shown(txt.buf, size_t(txt.textlen));
        EXPECT_EQ(numbers_behind(shown, "* ES pid=", 10), r.pids) << at;
        EXPECT_EQ(numbers_behind(shown, "- desc ", 16), r.desc_tags) << at << "\n" << shown;
        EXPECT_TRUE(shown.ends_with("end PMT\n")) << at;
    }
    EXPECT_GT(taken, 600u);
    EXPECT_GT(refused, 600u);
    EXPECT_GT(cut, 300u);
}

// Descriptors that are shorter than their tag asks for, in every place where one can stand: a refusal in words or a
// whole text comes of each, and the text stays the same however often the packet comes.
TEST_F(HostilePMT, short_descriptors_of_every_tag_are_rendered_or_refused)
{
    size_t shown = 0;
    for (unsigned tag = 0; tag < 256; ++tag) {
        for (size_t len = 0; len < 12; ++len) {
            for (unsigned value : {0x00u, 0xffu}) {
                const bytes d = desc(tag, fill(len, uint8_t(value)));
                const bytes s = pmt(1, 101, {{ES_AVC, 101, d}}).version((tag + unsigned(len)) % 32).descs(d);
                a.quiet();
                a.feed(wrap(s, 100));
                const strings errors = a.log.messages(ll::error);
                if (!errors.empty()) {
                    EXPECT_EQ(errors.size(), 1u);
                    EXPECT_TRUE(with(errors, "items do not advance").size() == 1) << errors[0];
                    continue;
                }
                ++shown;
                EXPECT_EQ(stream_pids(), stream_list{101}) << tag << " of " << len << " bytes";
                if (a.log.count("PMT buffer may overflow") == 0) {
                    EXPECT_TRUE(text().ends_with("end PMT\n")) << text();
                }
                const uint64_t diffs = pg().alert.pmt_diff;
                a->plain_psi = true;
                a.feed(wrap(s, 100));
                a->plain_psi = false;
                EXPECT_EQ(pg().alert.pmt_diff, diffs) << tag << " of " << len << " bytes";
            }
        }
    }
    EXPECT_GT(shown, 256u * 12);
}

// Two analyzers get the same packets; one takes no section for known by its bytes. What they write may not differ.
TEST_F(HostilePMT, damaged_sections_known_by_their_bytes_leave_the_same_lines_as_sections_compared)
{
    std::mt19937 rng(31);
    std::vector<packet> v;
    for (int round = 0; round < 1500; ++round) {
        bytes s = rng() % 3 == 0 ? av_pmt(unsigned(rng() % 4)) : random_pmt(rng);
        s.resize(183, 0xff);
        s[9] |= 1; // never a PCR PID of 0
        v.insert(v.end(), 1 + rng() % 4, wrap1(s, 100));
    }
    strings lines[2], records[2];
    for (int plain = 0; plain < 2; ++plain) {
        Analyzer b;
        b.cfg.trk.pmt_diff = true;
        b->plain_psi = plain == 1;
        b.quiet();
        b.feed_pat(pat({{1, 100}}));
        b.feed(v);
        lines[plain] = b.log.messages();
        records[plain] = b.alerts.messages();
    }
    EXPECT_TRUE(lines[0] == lines[1]);
    EXPECT_EQ(records[0], records[1]);
    EXPECT_GT(records[0].size(), 300u);
    EXPECT_GT(with(lines[0], "cmp_PMT: ok").size(), 500u);
}

} // namespace
