// PMT tracking: sections whose lengths lie, that are cut, or whose descriptors are not what their tags say.
#include "support/pmt_kit.h"

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
    bytes s = pmt(1, 101, {{ES_AVC, 101}}).version(1).length(1021);
    s.resize(183, 0);
    a.feed(wrap1(s, 100));
    EXPECT_EQ(pg().stm[0].pid, 101u);
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
    EXPECT_NE(text().find("Net"), std::string::npos);
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

} // namespace
