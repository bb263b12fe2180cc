// RTP framing.
#include "rtp.h"

#include "support/log_capture.h"
#include "support/ts_build.h"

#include <gtest/gtest.h>

using namespace tsb;

namespace
{

// RTP in front of TS as bytes: 80 21, ten more bytes, then 47.
bytes plain()
{
    return rtp({pkt()});
}

bytes changed(size_t offset, uint8_t value)
{
    bytes b = plain();
    b[offset] = value;
    return b;
}

// ---- is_rtp ---------------------------------------------------------------------------------------------------

TEST(is_rtp, accepts_version_2_type_33_and_a_sync_byte_behind_12_bytes)
{
    LogCapture log;
    const bytes b = plain();
    ASSERT_EQ(b[0], 0x80);
    ASSERT_EQ(b[1], 0x21);
    EXPECT_TRUE(is_rtp_pkt(b.data()));
    EXPECT_TRUE(is_rtp_data(b.data()));
    EXPECT_TRUE(is_rtp_ext(b.data(), true));
    EXPECT_TRUE(is_rtp_ext(b.data(), false));
    EXPECT_EQ(log.text(), "");
}

TEST(is_rtp, ignores_the_marker_and_the_padding_flag)
{
    EXPECT_TRUE(is_rtp_pkt(changed(1, 0xa1).data()));
    EXPECT_TRUE(is_rtp_pkt(changed(0, 0xa0).data()));
}

TEST(is_rtp, refuses_other_versions_before_any_other_field)
{
    for (unsigned version : {0U, 1U, 3U}) {
        LogCapture log;
        bytes b = fill(16, 0xff); // nothing else is right either
        b[0] = static_cast<uint8_t>(version << 6);
        EXPECT_FALSE(is_rtp_pkt(b.data()));
        char want[96];
        snprintf(want, sizeof want, "is_rtp_ext: wrong RTP version: expected 0x2, got 0x%x", version);
        EXPECT_EQ(log.count(want), 1U);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.messages(ll::warning).size(), 1U);
    }
}

TEST(is_rtp, refuses_other_payload_types)
{
    for (unsigned type : {0U, 13U, 15U, 31U, 34U, 127U}) {
        LogCapture log;
        EXPECT_FALSE(is_rtp_pkt(changed(1, static_cast<uint8_t>(0x80 | type)).data()));
        char want[96];
        snprintf(want, sizeof want, "is_rtp_ext: wrong payload type: 0x%x", type);
        EXPECT_EQ(log.count(want), 1U);
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.messages(ll::warning).size(), 1U);
    }
}

TEST(is_rtp, refuses_any_header_that_is_not_12_bytes)
{
    struct {
        bytes packet;
        const char* want;
    } rows[] = {
        {changed(1, P_MPGA), "is_rtp_ext: invalid RTP header length: 16"},
        {changed(1, P_MPGV), "is_rtp_ext: invalid RTP header length: 16"},
        {changed(0, 0x81), "is_rtp_ext: invalid RTP header length: 16"},
        {changed(0, 0x8f), "is_rtp_ext: invalid RTP header length: 72"},
        {rtp({pkt()}).extension({}), "is_rtp_ext: invalid RTP header length: 16"},
        {rtp({pkt()}).extension(fill(12, 1)), "is_rtp_ext: invalid RTP header length: 28"},
    };
    for (const auto& r : rows) {
        LogCapture log;
        EXPECT_FALSE(is_rtp_pkt(r.packet.data()));
        EXPECT_EQ(log.count(r.want), 1U) << r.want;
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.messages(ll::error).size(), 1U);
    }
}

// By design: the byte shown is the packet's first.
TEST(is_rtp, refuses_content_that_is_no_ts)
{
    LogCapture log;
    EXPECT_FALSE(is_rtp_pkt(changed(12, 0x48).data()));
    EXPECT_EQ(log.count("is_rtp_ext: non-TS content inside (allegedly) RTP container (0x80)"), 1U);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.messages(ll::warning).size(), 1U);
}

TEST(is_rtp, is_quiet_about_refusals_while_scanning)
{
    LogCapture log;
    EXPECT_FALSE(is_rtp_data(changed(0, 0x40).data()));
    EXPECT_FALSE(is_rtp_data(changed(1, 0).data()));
    EXPECT_FALSE(is_rtp_data(changed(0, 0x90).data()));
    EXPECT_FALSE(is_rtp_data(changed(12, 0).data()));
    EXPECT_EQ(log.text(), "");
}

TEST(is_rtp, reads_16_bytes_at_most)
{
    bytes b = plain();
    b.resize(rtpf::lookahead);
    b.shrink_to_fit();
    EXPECT_TRUE(is_rtp_data(b.data()));
    b[0] = 0x90;
    EXPECT_FALSE(is_rtp_data(b.data()));
}

// The tests combine to one shape: every other value of the first two bytes is refused.
TEST(is_rtp, accepts_4_of_all_65536_first_two_bytes)
{
    bytes b = plain();
    int accepted = 0;
    for (unsigned v = 0; v < 0x10000; ++v) {
        b[0] = static_cast<uint8_t>(v >> 8);
        b[1] = static_cast<uint8_t>(v);
        const bool want = (b[0] & 0xdf) == 0x80 && (b[1] & 0x7f) == 33;
        EXPECT_EQ(is_rtp_data(b.data()), want) << v;
        accepted += want;
    }
    EXPECT_EQ(accepted, 4);
}

// ---- rtp_header_len -------------------------------------------------------------------------------------------

ssize_t header_len(const bytes& b)
{
    return rtp_header_len(b.data(), b.size());
}

TEST(rtp_header_len, counts_sources_extension_and_the_head_of_audio_and_video)
{
    EXPECT_EQ(header_len(plain()), 12);
    EXPECT_EQ(header_len(rtp({pkt()}).csrc({1, 2})), 20);
    EXPECT_EQ(header_len(rtp({pkt()}).csrc(std::vector<uint32_t>(15, 9))), 72);
    EXPECT_EQ(header_len(rtp({pkt()}).extension(fill(12, 0))), 28);
    EXPECT_EQ(header_len(rtp({pkt()}).type(P_MPGV)), 16);
    EXPECT_EQ(header_len(rtp({pkt()}).type(P_MPGA)), 16);
    EXPECT_EQ(header_len(rtp({pkt()}).type(96)), 12);
    EXPECT_EQ(header_len(rtp({pkt()}).type(P_MPGV).marker()), 16);
}

// By design: the length of the extension is read from bytes 14 and 15 even where sources push it back.
TEST(rtp_header_len, reads_the_extension_length_at_a_fixed_place)
{
    bytes b = rtp({pkt()}).csrc({0x00000102}).extension(fill(4, 0));
    EXPECT_EQ(header_len(b), (1 + 3) * 4 + (0x0102 + 1) * 4);
    b[14] = 0xff;
    b[15] = 0xff;
    EXPECT_EQ(header_len(b), 16 + 65536 * 4);
}

TEST(rtp_header_len, needs_18_bytes_for_an_extended_header)
{
    const bytes whole = rtp({pkt()}).extension(fill(8, 0));
    for (size_t len : {12, 13, 17}) {
        LogCapture log;
        const bytes b(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(len));
        EXPECT_EQ(header_len(b), -12);
        char want[96];
        snprintf(want, sizeof want, "rtp_header_len: insufficient length (%zu) for extended header", len);
        EXPECT_EQ(log.count(want), 1U);
        EXPECT_EQ(log.messages(ll::error).size(), 1U);
    }
    EXPECT_EQ(rtp_header_len(whole.data(), 18), 24);
    EXPECT_EQ(rtp_header_len(whole.data(), 19), 24);
}

TEST(rtp_header_len_death, asserts_a_fixed_header)
{
    const bytes b = plain();
    EXPECT_EQ(rtp_header_len(b.data(), 12), 12);
    EXPECT_DEATH(rtp_header_len(b.data(), 11), "len >= RTP_HDR_SIZE");
}

// ---- rtp_footer_len -------------------------------------------------------------------------------------------

TEST(rtp_footer_len, is_the_last_byte_when_the_padding_flag_is_set)
{
    const bytes b = rtp({pkt()}).padding(20);
    EXPECT_EQ(rtp_footer_len(b.data(), b.size()), 20U);
    const bytes wild = changed(0, 0xa0); // the flag alone: a payload byte is taken for the length
    EXPECT_EQ(rtp_footer_len(wild.data(), wild.size()), 0xa5U);
}

TEST(rtp_footer_len, is_0_without_the_flag_and_reads_no_trailing_byte)
{
    const bytes b = {0x80};
    EXPECT_EQ(rtp_footer_len(b.data(), 100000), 0U);
}

} // namespace
