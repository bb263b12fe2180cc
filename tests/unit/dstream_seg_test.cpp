// Segment probing, the tests on single packets, and the removal of RTP wrapping.
#include "dstream.h"

#include "mpegts.h"
#include "support/log_capture.h"
#include "support/ts_build.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

using namespace tsb;

namespace
{

std::vector<packet> packets(size_t count)
{
    return std::vector<packet>(count, pkt().pid(101).build());
}

// A PES packet of MPEG-2 video that begins with a sequence header and a picture of a type.
bytes mpeg2_unit(unsigned picture_type)
{
    const bytes sequence = {0, 0, 1, 0xb3, 0x2d, 0x02, 0x40, 0x33};
    const bytes picture = {0, 0, 1, 0x00, 0x01, static_cast<uint8_t>(picture_type << 3 | 0x07), 0xff};
    return pes(0xe0).pts(90000).payload(cat({sequence, picture, fill(200, 0x55)}));
}

packet picture_packet(unsigned picture_type)
{
    return carry(mpeg2_unit(picture_type), 101)[0];
}

packet pat_packet()
{
    return wrap1(pat({{1, 100}}).build(), PID_PAT);
}

// The start of a video PES packet with a PCR and a random access mark.
packet random_access_packet()
{
    return pkt().pid(101).unit_start().pcr(90000).random_access().payload(
        bytes_view(pes(0xe0).payload(400).build()).first(160));
}

// ---- tests on one packet --------------------------------------------------------------------------------------

int has_pat(const packet& p)
{
    return ts_has_pat(p.data());
}

TEST(ts_has_pat, wants_the_start_of_a_current_pat_on_pid_0)
{
    const packet p = pat_packet();
    EXPECT_EQ(has_pat(p), 1);
    EXPECT_EQ(has_pat(wrap1(pat({{1, 100}}).version(31).build(), PID_PAT, 7)), 1);
    EXPECT_EQ(has_pat(wrap1(pat({{1, 100}}).current(false).build(), PID_PAT)), 0);
    EXPECT_EQ(has_pat(wrap1(pat({{1, 100}}).table_id(2).build(), PID_PAT)), 0);
    EXPECT_EQ(has_pat(wrap1(pat({{1, 100}}).build(), 1)), 0);
    EXPECT_EQ(has_pat(wrap1(pat({{1, 100}}).build(), 256)), 0);
    struct {
        size_t offset;
        unsigned value;
        int want;
    } rows[] = {
        {1, 0x00, 0},               // no unit start
        {6, 0x30, 0},               // no long head
        {6, 0xb4, 0},               // a length that no section has
        {6, 0xb3, 1},               // the largest one
        {6, 0xf0, 0}, {4, 0x05, 1}, // by design the pointer field is not looked at
    };
    for (const auto& r : rows) {
        packet q = p;
        q[r.offset] = static_cast<uint8_t>(r.value);
        EXPECT_EQ(has_pat(q), r.want) << r.offset << ' ' << r.value;
    }
}

TEST(ts_has_iframe, wants_a_random_access_mark_with_a_pcr)
{
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().build().data()), 1);
    // By design: the mark alone does not count.
    EXPECT_EQ(ts_has_iframe(pkt().random_access().af_len(20).build().data()), 0);
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).build().data()), 0);
    // Only with a payload behind the adaptation field.
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().no_payload().build().data()), 0);
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().set(3, 0x10).build().data()), 0);
    // From a length of 5 on.
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().set(4, 4).build().data()), 0);
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().set(4, 5).build().data()), 1);
    EXPECT_EQ(ts_has_iframe(pkt().pcr(1).random_access().set(4, 6).build().data()), 1);
}

TEST(ts_get_payload, is_behind_the_adaptation_field)
{
    const packet plain = pkt();
    EXPECT_EQ(ts_get_payload(plain.data()), plain.data() + 4);
    const packet with_af = pkt().af_len(7);
    EXPECT_EQ(ts_get_payload(with_af.data()), with_af.data() + 12);
    const packet empty_af = pkt().af_len(0);
    EXPECT_EQ(ts_get_payload(empty_af.data()), empty_af.data() + 5);
    const packet none = pkt().no_payload();
    EXPECT_EQ(ts_get_payload(none.data()), nullptr);
    const packet reserved = pkt().set(3, 0);
    EXPECT_EQ(ts_get_payload(reserved.data()), nullptr);
}

TEST(is_pes_video, wants_stream_id_e0)
{
    EXPECT_TRUE(is_pes_video(bytes{0, 0, 1, 0xe0}.data()));
    for (const bytes& b :
         {bytes{1, 0, 1, 0xe0}, bytes{0, 1, 1, 0xe0}, bytes{0, 0, 0, 0xe0}, bytes{0, 0, 1, 0xe1}, bytes{0, 0, 1, 0xc0}})
        EXPECT_FALSE(is_pes_video(b.data()));
}

TEST(ts_has_video_iframe, wants_the_mark_on_the_start_of_a_video_pes_packet)
{
    packet p = random_access_packet();
    EXPECT_TRUE(ts_has_video_iframe(p.data()));
    p[1] &= 0xbf; // no unit start
    EXPECT_FALSE(ts_has_video_iframe(p.data()));
    EXPECT_FALSE(ts_has_video_iframe(carry(mpeg2_unit(1), 101)[0].data()));
    const bytes audio = pes(0xc0).payload(400);
    EXPECT_FALSE(ts_has_video_iframe(
        pkt().unit_start().pcr(1).random_access().payload(bytes_view(audio).first(160)).build().data()));
}

TEST(ts_has_video_iframe, sees_a_start_code_in_the_last_four_bytes)
{
    for (const size_t start : {183, 184, 185}) {
        packet p = random_access_packet();
        p[4] = static_cast<uint8_t>(start - 5);
        std::fill(p.begin() + 6, p.end(), uint8_t{0xff});
        const uint8_t code[] = {0, 0, 1, 0xe0};
        std::copy_n(code, std::min<size_t>(4, 188 - start), p.begin() + static_cast<ptrdiff_t>(start));
        EXPECT_EQ(ts_has_video_iframe(p.data()), start <= 184) << start;
    }
}

off_t find_id(const bytes& b, uint8_t id)
{
    return pes_find_stream_id(b.data(), b.data() + b.size(), id);
}

TEST(pes_find_stream_id, finds_a_start_code)
{
    EXPECT_EQ(find_id({0, 0, 1, 0xb3, 9, 9}, 0xb3), 0);
    EXPECT_EQ(find_id({9, 9, 0, 0, 1, 0xb3, 9}, 0xb3), 2);
    EXPECT_EQ(find_id({0, 0, 0, 0, 1, 0xb3, 9}, 0xb3), 2);
    EXPECT_EQ(find_id({9, 9, 0, 0, 1, 0xb2, 9}, 0xb3), -1);
    for (size_t i = 0; i < 4; ++i) { // each of the four bytes counts
        bytes b = {9, 0, 0, 1, 0xb3, 9};
        b[1 + i] ^= 0x10;
        EXPECT_EQ(find_id(b, 0xb3), -1) << i;
    }
}

// By design: a start code that ends with the data is not found.
TEST(pes_find_stream_id, looks_no_further_than_5_bytes_before_the_end)
{
    EXPECT_EQ(find_id({9, 0, 0, 1, 0xb3}, 0xb3), -1);
    EXPECT_EQ(find_id({9, 0, 0, 1, 0xb3, 9}, 0xb3), 1);
    EXPECT_EQ(find_id({0, 0, 1, 0xb3}, 0xb3), -1);
    EXPECT_EQ(find_id({0, 0, 1}, 0xb3), -1);
    EXPECT_EQ(find_id({}, 0xb3), -1);
}

TEST(ts_mpeg2_pic, names_the_picture_type_by_a_letter)
{
    const int want[8] = {120, 73, 80, 66, 68, 120, 120, 120};
    for (unsigned type = 0; type < 8; ++type)
        EXPECT_EQ(ts_mpeg2_pic(picture_packet(type).data()), want[type]) << type;
}

TEST(ts_mpeg2_pic, wants_a_sequence_header_in_the_same_packet)
{
    const bytes picture = {0, 0, 1, 0x00, 0x01, 0x0f, 0xff};
    const bytes unit = pes(0xe0).pts(1).payload(cat({picture, fill(300, 0x55)}));
    EXPECT_EQ(ts_mpeg2_pic(carry(unit, 101)[0].data()), -1);
    const bytes far = pes(0xe0).pts(1).payload(cat({bytes{0, 0, 1, 0xb3}, fill(300, 0x55), picture}));
    EXPECT_EQ(ts_mpeg2_pic(carry(far, 101)[0].data()), -1);
}

TEST(ts_mpeg2_pic, refuses_what_does_not_begin_a_video_pes_packet)
{
    EXPECT_EQ(ts_mpeg2_pic(pkt().unit_start().no_payload().build().data()), -1);
    EXPECT_EQ(ts_mpeg2_pic(pkt().unit_start().build().data()), -1);
    packet p = picture_packet(1);
    p[1] &= 0xbf;
    EXPECT_EQ(ts_mpeg2_pic(p.data()), -1);
    p = picture_packet(1);
    p[7] = 0xe1;
    EXPECT_EQ(ts_mpeg2_pic(p.data()), -1);
}

TEST(ts_mpeg2_pic, needs_the_seven_bytes_of_the_picture_head_in_the_packet)
{
    // The payload is shifted by stuffing so that the picture's start code comes to stand at the packet's end.
    const bytes unit = mpeg2_unit(1);
    const size_t picture_at = 14 + 8; // behind PES head and sequence header
    for (size_t shown = 5; shown <= 9; ++shown) {
        const packet p = pkt().unit_start().payload(bytes_view(unit).first(picture_at + shown));
        EXPECT_EQ(ts_mpeg2_pic(p.data()), shown >= 7 ? 'I' : -1) << shown;
    }
}

TEST(packet_tests, never_read_past_the_packet)
{
    // Every adaptation length, with unit start, all flags, in memory that ends with the packet.
    auto mem = std::make_unique<packet>();
    for (unsigned control : {0x10U, 0x20U, 0x30U}) {
        for (unsigned len = 0; len < 256; ++len) {
            *mem = pkt().unit_start().set(3, control).set(4, len).set(5, 0xff);
            for (size_t i = 184; i < 188; ++i)
                (*mem)[i] = static_cast<uint8_t>(i == 186);
            const uint8_t* p = mem->data();
            EXPECT_FALSE(ts_has_video_iframe(p));
            EXPECT_FALSE(has_iframe(p));
            EXPECT_EQ(ts_mpeg2_pic(p), -1);
        }
    }
}

TEST(has_iframe, takes_either_sign)
{
    EXPECT_TRUE(has_iframe(random_access_packet().data()));
    EXPECT_TRUE(has_iframe(picture_packet(1).data())); // without a PCR, by the picture alone
    EXPECT_FALSE(has_iframe(picture_packet(2).data()));
    EXPECT_FALSE(has_iframe(pkt().build().data()));
}

// ---- probe_segment --------------------------------------------------------------------------------------------

struct probed {
    int32_t stype;
    size_t plen;
    size_t pcount;
    bool operator==(const probed&) const = default;
};

void PrintTo(const probed& p, std::ostream* out)
{
    *out << p.stype << ", " << p.plen << ", " << p.pcount;
}

probed probe(const bytes& b, int32_t stype_id = 0, size_t plen = 0, sseg_ctx* sseg = nullptr, size_t pcount = 99)
{
    probed p{0, plen, pcount};
    p.stype = probe_segment(b.data(), b.size(), stype_id, &p.plen, &p.pcount, sseg);
    return p;
}

TEST(probe_segment, counts_the_packets_of_a_ts_segment)
{
    EXPECT_EQ(probe(cat(packets(10))), (probed{STY_MPEGTS.num, 188, 10}));
    EXPECT_EQ(probe(widen(packets(10), 204)), (probed{STY_MPEGTS.num, 204, 10}));
    EXPECT_EQ(probe(cat(packets(1))), (probed{STY_MPEGTS.num, 188, 1}));
}

TEST(probe_segment, counts_anything_else_as_one_unit)
{
    EXPECT_EQ(probe(cat({cat(packets(10)), bytes{0x47}})), (probed{STY_RAW.num, 1881, 1}));
    EXPECT_EQ(probe(noise(500)), (probed{STY_RAW.num, 500, 1}));
    EXPECT_EQ(probe({}), (probed{STY_RAW.num, 0, 1}));
    EXPECT_EQ(probe(noise(500), STY_RAW.num, 188), (probed{STY_RAW.num, 500, 1}));
}

TEST(probe_segment, believes_a_type_with_a_packet_size)
{
    EXPECT_EQ(probe(cat(packets(10)), STY_MPEGTS.num, 188), (probed{STY_MPEGTS.num, 188, 99}));
    EXPECT_EQ(probe(noise(500), STY_MPEGTS.num, 188), (probed{STY_MPEGTS.num, 188, 99}));
    EXPECT_EQ(probe(noise(500), STY_RTP.num, 1328), (probed{STY_RTP.num, 1328, 99}));
}

TEST(probe_segment, probes_where_either_belief_is_missing)
{
    EXPECT_EQ(probe(cat(packets(10)), STY_MPEGTS.num, 0), (probed{STY_MPEGTS.num, 188, 10}));
    EXPECT_EQ(probe(cat(packets(10)), 0, 204), (probed{STY_MPEGTS.num, 188, 10}));
    const bytes b = cat(packets(10));
    EXPECT_EQ(probe_segment(b.data(), b.size(), STY_RTP.num, nullptr, nullptr, nullptr), STY_MPEGTS.num);
    EXPECT_EQ(probe_segment(b.data(), 100, 0, nullptr, nullptr, nullptr), STY_RAW.num);
}

TEST(probe_segment, warns_of_a_change_of_type_except_to_ts)
{
    LogCapture log;
    probe(cat(packets(10)), STY_RTP.num);
    EXPECT_EQ(log.count("stream type switch"), 0U);
    probe(noise(100), STY_RAW.num);
    EXPECT_EQ(log.count("stream type switch"), 0U);
    probe(noise(100), STY_MPEGTS.num);
    EXPECT_EQ(log.count("probe_segment: stream type switch: [TS]->[RAW]"), 1U);
    EXPECT_EQ(log.messages(ll::warning).size(), 1U);
}

TEST(probe_segment, prints_a_type_that_fills_its_four_bytes)
{
    LogCapture log;
    probe(noise(100), 0x44434241);
    EXPECT_EQ(log.count("probe_segment: stream type switch: [ABCD]->[RAW]"), 1U);
    probe(noise(100), -2);
    EXPECT_EQ(log.count("stream type switch"), 1U); // only types above 0 are beliefs
}

TEST(probe_segment, tells_its_steps_at_debug)
{
    LogCapture log;
    probe(cat(packets(10)));
    EXPECT_EQ(log.count("probe_segment: START buffer len=1880, pkt_len=0"), 1U);
    EXPECT_EQ(log.count("probe_segment: pkt_len after TS probe is 188"), 1U);
    EXPECT_EQ(log.count("probe_segment: TS len=1880, count=10"), 1U);
    probe(noise(77));
    EXPECT_EQ(log.count("probe_segment: pkt_len after TS probe is -22"), 1U);
    EXPECT_EQ(log.count("probe_segment: RAW len=77, count=1"), 1U);
}

TEST(probe_segment, finds_the_first_pat_pcr_and_iframe)
{
    LogCapture log;
    std::vector<packet> v = packets(3);
    v.push_back(pat_packet());                  // 4
    v.push_back(pkt().pid(101).pcr(P2_33 - 1)); // 5
    v.push_back(pat_packet());
    v.push_back(random_access_packet()); // 7
    v.push_back(random_access_packet());
    const bytes b = cat(v);
    sseg_ctx s{1, 1, 0, 1};
    probe(b, 0, 0, &s);
    EXPECT_EQ(s.pat_idx, 4U);
    EXPECT_EQ(s.pcr_idx, 5U);
    EXPECT_EQ(s.pcr, P2_33 - 1);
    EXPECT_EQ(s.iframe_idx, 7U);
    char tail[64];
    snprintf(tail, sizeof tail, "/188 buf=%p, len=1504", static_cast<const void*>(b.data()));
    const std::vector<std::string> told = log.messages(ll::debug);
    ASSERT_GE(told.size(), 3U);
    EXPECT_EQ(std::vector<std::string>(told.end() - 3, told.end()),
              (std::vector<std::string>{"probe_segment: i-Frame at pkt[6]" + std::string(tail),
                                        "probe_segment: PAT at pkt[3]" + std::string(tail),
                                        "probe_segment: PCR=8589934591 at pkt[4]" + std::string(tail)}));
}

TEST(probe_segment, makes_only_the_searches_asked_for)
{
    const bytes b = cat(std::vector<packet>{pat_packet(), random_access_packet()});
    sseg_ctx s{0, 0, 77, 5};
    probe(b, 0, 0, &s);
    EXPECT_EQ(s.pat_idx, 0U);
    EXPECT_EQ(s.pcr_idx, 0U);
    EXPECT_EQ(s.pcr, 77U);
    EXPECT_EQ(s.iframe_idx, 2U);
}

TEST(probe_segment, gives_0_for_what_it_does_not_find)
{
    sseg_ctx s{9, 9, 77, 9};
    probe(cat(packets(5)), 0, 0, &s);
    EXPECT_EQ(s.pat_idx, 0U);
    EXPECT_EQ(s.pcr_idx, 0U);
    EXPECT_EQ(s.pcr, 77U);
    EXPECT_EQ(s.iframe_idx, 0U);
}

TEST(probe_segment, leaves_an_empty_request_alone)
{
    sseg_ctx s{0, 0, 77, 0};
    probe(cat(std::vector<packet>{pat_packet(), random_access_packet()}), 0, 0, &s);
    EXPECT_EQ(s.pat_idx + s.pcr_idx + s.iframe_idx, 0U);
    EXPECT_EQ(s.pcr, 77U);
}

TEST(probe_segment, searches_nothing_in_other_streams)
{
    LogCapture log;
    sseg_ctx s{1, 1, 77, 1};
    const bytes data = noise(500);
    EXPECT_EQ(probe_segment(data.data(), data.size(), 0, nullptr, nullptr, &s), STY_RAW.num);
    EXPECT_EQ(s.pat_idx + s.pcr_idx + s.iframe_idx, 0U);
    EXPECT_EQ(s.pcr, 77U);
    EXPECT_EQ(log.count("probe_segment: no processing for [RAW] stream supported"), 1U);
    EXPECT_EQ(log.messages(ll::warning).size(), 1U);
}

TEST(probe_segment, looks_at_a_cut_off_packet_without_leaving_the_segment)
{
    const bytes whole = cat(std::vector<packet>{pkt(), random_access_packet()});
    for (size_t len = 189; len <= whole.size(); ++len) {
        const auto mem = std::make_unique<uint8_t[]>(len);
        std::copy_n(whole.begin(), len, mem.get());
        sseg_ctx s{1, 1, 0, 1};
        size_t plen = 188;
        probe_segment(mem.get(), len, STY_MPEGTS.num, &plen, nullptr, &s);
        EXPECT_EQ(s.pcr_idx, len < 188 + 11 ? 0U : 2U) << len; // a PCR counts when all its bytes are there
        EXPECT_EQ(s.pcr, len < 188 + 11 ? 0U : 90000U) << len;
        EXPECT_EQ(s.pat_idx, 0U);
    }
}

// ---- xtract_ts_payload ----------------------------------------------------------------------------------------

struct extracted {
    int rc;
    ssize_t outlen;
    int32_t stype;
    bool operator==(const extracted&) const = default;
};

void PrintTo(const extracted& x, std::ostream* out)
{
    *out << x.rc << ", " << x.outlen << ", " << x.stype;
}

extracted extract(bytes& b, uint32_t hints = 0)
{
    extracted x{-7, static_cast<ssize_t>(b.size()), 0};
    x.rc = xtract_ts_payload(b.data(), b.size(), &x.outlen, &x.stype, hints);
    return x;
}

TEST(xtract_ts_payload, leaves_plain_ts_alone)
{
    bytes b = cat(packets(7));
    const bytes before = b;
    EXPECT_EQ(extract(b), (extracted{0, 1316, STY_MPEGTS.num}));
    EXPECT_EQ(b, before);
}

TEST(xtract_ts_payload, leaves_the_length_alone_where_there_is_no_rtp)
{
    for (bytes b : {tsb::fill(500, 0x47), tsb::fill(500, 1)}) {
        ssize_t outlen = -7;
        EXPECT_EQ(xtract_ts_payload(b.data(), b.size(), &outlen, nullptr, 0), 0);
        EXPECT_EQ(xtract_ts_payload(b.data(), b.size(), &outlen, nullptr, XF_NO_RTP), 0);
        EXPECT_EQ(outlen, -7);
    }
}

TEST(xtract_ts_payload, strips_rtp_in_place)
{
    bytes b = rtp(packets(7));
    EXPECT_EQ(extract(b), (extracted{0, 1316, STY_RTP.num}));
    b.resize(1316);
    EXPECT_EQ(b, cat(packets(7)));
}

TEST(xtract_ts_payload, strips_padding_too)
{
    bytes b = rtp(packets(7)).padding(30);
    EXPECT_EQ(extract(b), (extracted{0, 1316, STY_RTP.num}));
}

TEST(xtract_ts_payload, calls_anything_else_raw_and_says_why)
{
    LogCapture log;
    bytes b = noise(500);
    b[0] = 0x00;
    const bytes before = b;
    EXPECT_EQ(extract(b), (extracted{0, 500, STY_RAW.num}));
    EXPECT_EQ(b, before);
    EXPECT_EQ(log.count("is_rtp_ext: wrong RTP version: expected 0x2, got 0x0"), 1U);
}

TEST(xtract_ts_payload, does_not_look_for_rtp_when_told)
{
    LogCapture log;
    bytes b = rtp(packets(7));
    EXPECT_EQ(extract(b, XF_NO_RTP), (extracted{0, 1328, STY_RAW.num}));
    EXPECT_EQ(log.text(), "");
}

TEST(xtract_ts_payload, refuses_a_packet_of_exactly_200_bytes)
{
    LogCapture log;
    bytes b = rtp(packets(1));
    const bytes before = b;
    EXPECT_EQ(extract(b), (extracted{-1, 200, 0}));
    EXPECT_EQ(b, before);
    EXPECT_EQ(log.count("xtract_ts_payload: invalid RTP footer length: 0"), 1U);
    EXPECT_EQ(log.messages(ll::error).size(), 1U);
    b.push_back(0);
    EXPECT_EQ(extract(b), (extracted{0, 189, STY_RTP.num}));
}

TEST(xtract_ts_payload, refuses_padding_that_leaves_no_room_for_a_packet)
{
    LogCapture log;
    bytes b = rtp(packets(2)).padding(0);
    b.back() = 188;
    EXPECT_EQ(extract(b), (extracted{-1, 388, 0}));
    EXPECT_EQ(log.count("xtract_ts_payload: invalid RTP footer length: 188"), 1U);
    b.back() = 187;
    EXPECT_EQ(extract(b), (extracted{0, 189, STY_RTP.num}));
}

TEST(xtract_ts_payload, makes_no_rtp_test_on_12_bytes_or_fewer)
{
    LogCapture log;
    const bytes whole = rtp(packets(1));
    for (size_t len = 0; len <= 12; ++len) {
        bytes b(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(len));
        EXPECT_EQ(extract(b), (extracted{0, static_cast<ssize_t>(len), STY_RAW.num})) << len;
    }
    EXPECT_EQ(log.text(), "");
}

TEST(xtract_ts_payload, reads_nothing_past_a_cut_off_packet)
{
    LogCapture log; // keeps the many refusals out of sight
    for (const bytes& whole :
         {rtp(packets(1)).build(), rtp(packets(1)).extension(fill(4, 0)).build(), rtp(packets(1)).padding(3).build()}) {
        for (size_t len = 13; len <= 200; ++len) {
            bytes b(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(len));
            b.shrink_to_fit();
            EXPECT_NE(extract(b).stype, STY_RTP.num);
        }
    }
}

TEST(xtract_ts_payload, needs_no_place_for_the_type)
{
    LogCapture log;
    ssize_t outlen = 0;
    for (bytes b : {cat(packets(2)), noise(300), rtp(packets(2)).build()})
        EXPECT_EQ(xtract_ts_payload(b.data(), b.size(), &outlen, nullptr, 0), 0);
    EXPECT_EQ(outlen, 376);
}

} // namespace
