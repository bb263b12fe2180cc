// The stream finder.
#include "dstream.h"

#include "mpegts.h"
#include "support/log_capture.h"
#include "support/ts_build.h"

#include <gtest/gtest.h>

#include <string>

using namespace tsb;

namespace
{

struct found {
    off_t offset;
    int32_t stype;
    size_t pkt_len;
    bool operator==(const found&) const = default;
};

void PrintTo(const found& f, std::ostream* out)
{
    *out << "offset " << f.offset << ", type " << std::string(reinterpret_cast<const char*>(&f.stype), 3) << ", length "
         << static_cast<ssize_t>(f.pkt_len);
}

found find(const bytes& data, uint32_t flags = 0)
{
    const with_margin m(data, 15);
    found f{-7, -7, 0};
    f.offset = ds_find_dgram(m.data(), m.size(), &f.stype, &f.pkt_len, flags);
    return f;
}

std::vector<packet> packets(size_t count)
{
    return std::vector<packet>(count, pkt().pid(101).build());
}

found raw_after(ssize_t last_result)
{
    return {-1, STY_RAW.num, static_cast<size_t>(last_result)};
}

found ts_at(off_t offset, size_t size = 188)
{
    return {offset, STY_MPEGTS.num, size};
}

found rtp_at(off_t offset, size_t size)
{
    return {offset, STY_RTP.num, size};
}

struct ds_trace {
    ds_trace() { ds_set_flags(DS_TRACE_TSPARSE); }
    ~ds_trace() { ds_set_flags(0); }
};

// ---- stream types ---------------------------------------------------------------------------------------------

TEST(stream_types, are_words_and_numbers)
{
    EXPECT_STREQ(STY_RAW.sym, "RAW");
    EXPECT_STREQ(STY_MPEGTS.sym, "TS");
    EXPECT_STREQ(STY_RTP.sym, "RTP");
    EXPECT_EQ(STY_RAW.num, 5718354);
    EXPECT_EQ(STY_MPEGTS.num, 21332);
    EXPECT_EQ(STY_RTP.num, 5264466);
}

// ---- TS -------------------------------------------------------------------------------------------------------

TEST(ds_find_dgram, finds_ts_of_each_packet_size)
{
    for (size_t size : {188, 192, 204, 208})
        EXPECT_EQ(find(widen(packets(30), size)), ts_at(0, size));
}

TEST(ds_find_dgram, finds_ts_behind_noise)
{
    EXPECT_EQ(find(cat({noise(20), cat(packets(10))})), ts_at(20));
    EXPECT_EQ(find(cat({noise(187), cat(packets(10))})), ts_at(187));
}

TEST(ds_find_dgram, tries_210_positions)
{
    EXPECT_EQ(find(cat({noise(208), cat(packets(10))})), ts_at(208));
    EXPECT_EQ(find(cat({noise(209), cat(packets(10))})), ts_at(209));
    EXPECT_EQ(find(cat({noise(210), cat(packets(10))})), raw_after(-1));
}

TEST(ds_find_dgram, finds_nothing_in_noise)
{
    EXPECT_EQ(find(noise(5000)), raw_after(-1));
    EXPECT_EQ(find({}), raw_after(-1));
}

TEST(ds_find_dgram, takes_a_single_packet)
{
    EXPECT_EQ(find(cat(packets(1))), ts_at(0));
}

TEST(ds_find_dgram, moves_to_a_later_position_when_the_stream_is_damaged_further_on)
{
    // A byte is missing in the second packet: from the third on the packets are in step with each other only.
    bytes b = cat(packets(10));
    b.erase(b.begin() + 300);
    EXPECT_EQ(find(b), raw_after(-3));
    // In the first 210 positions a later start that fits the rest is taken.
    b = cat(packets(10));
    b.erase(b.begin() + 100);
    EXPECT_EQ(find(b), ts_at(187));
}

// By design: the length of a failed search is the last negative result; callers go by the -1.
TEST(ds_find_dgram, leaves_the_last_refusal_in_the_length_after_a_failure)
{
    bytes b = noise(1000);
    b[100] = MPEG_TS_SYNC;
    EXPECT_EQ(find(b), raw_after(-3));
    b = noise(150);
    b[100] = MPEG_TS_SYNC;
    EXPECT_EQ(find(b), raw_after(-1));
}

// ---- RTP ------------------------------------------------------------------------------------------------------

TEST(ds_find_dgram, finds_rtp_of_seven_packets_in_a_byte_stream)
{
    bytes b = cat(rtp_run(packets(7 * 50), 7));
    EXPECT_EQ(find(b), rtp_at(0, 1328));
    b.resize(65536);
    EXPECT_EQ(find(b), rtp_at(0, 1328));
}

TEST(ds_find_dgram, finds_a_single_rtp_datagram)
{
    EXPECT_EQ(find(rtp(packets(7))), rtp_at(0, 1328));
    EXPECT_EQ(find(rtp(packets(7)), DS_DGRAM_BUF), rtp_at(0, 1328));
    EXPECT_EQ(find(rtp(packets(3))), rtp_at(0, 12 + 3 * 188));
    EXPECT_EQ(find(rtp(packets(3)), DS_DGRAM_BUF), rtp_at(0, 12 + 3 * 188));
}

TEST(ds_find_dgram, finds_rtp_behind_noise)
{
    EXPECT_EQ(find(cat({noise(100), cat(rtp_run(packets(70), 7))})), rtp_at(100, 1328));
}

TEST(ds_find_dgram, reads_the_datagram_size_only_with_the_flag)
{
    const bytes two = cat(rtp_run(packets(12), 6)); // 1140 bytes each
    EXPECT_EQ(find(two), rtp_at(0, 1140));
    const bytes one = rtp(packets(6)).build();
    EXPECT_EQ(find(one, DS_DGRAM_BUF), rtp_at(0, 1140));
    const bytes tail = cat({one, noise(200)});
    EXPECT_EQ(find(tail, DS_DGRAM_BUF), rtp_at(0, 1340));
}

TEST(ds_find_dgram, asks_for_six_packets_under_each_header_of_a_byte_stream)
{
    // With five, the probe meets the next header at a stride. The position is given up; so is every later one.
    LogCapture log;
    EXPECT_EQ(find(cat(rtp_run(packets(50), 5))).offset, -1);
    EXPECT_EQ(log.count("get_rtp_pktlen: port-RTP probe failed"), 1U);
    EXPECT_EQ(log.messages(ll::error).size(), 1U);
    EXPECT_EQ(find(cat(rtp_run(packets(60), 6))), rtp_at(0, 1140));
    EXPECT_EQ(find(rtp(packets(5))), rtp_at(0, 952)); // alone in its buffer it is recognised
}

TEST(ds_find_dgram, refuses_a_datagram_of_200_bytes)
{
    const bytes b = rtp(packets(1)); // 200 bytes, well-formed
    ASSERT_EQ(b.size(), 200U);
    // The RTP header is passed over, and the packet behind it is found as plain TS.
    EXPECT_EQ(find(b), ts_at(12));
    EXPECT_EQ(find(cat({b, fill(1, MPEG_TS_SYNC)})), rtp_at(0, 200 + 188)); // ends inside a stride: more than is there
}

TEST(ds_find_dgram, may_give_a_length_beyond_data_that_end_inside_a_stride)
{
    bytes b = rtp(packets(3));
    b.resize(12 + 2 * 188 + 50);
    EXPECT_EQ(find(b), rtp_at(0, 12 + 3 * 188));
}

TEST(ds_find_dgram, steps_past_padding_at_the_end_of_a_datagram)
{
    // 6 packets and 20 bytes of padding, which stands where a sync byte or header would and is passed over.
    EXPECT_EQ(find(rtp(packets(6)).padding(20)), rtp_at(0, 12 + 7 * 188));
    // 7 packets and padding: the search gets to 1516, past the limit.
    const found f = find(rtp(packets(7)).padding(20));
    EXPECT_NE(f.stype, STY_RTP.num);
    EXPECT_EQ(find(rtp(packets(7)).padding(20), DS_DGRAM_BUF), rtp_at(0, 1348));
    // With fewer than 6 the padding comes into the probe, and the probe fails.
    EXPECT_NE(find(rtp(packets(5)).padding(20)).stype, STY_RTP.num);
}

TEST(ds_find_dgram, refuses_padding_that_leaves_no_room_for_a_packet)
{
    bytes b = rtp(packets(2)).padding(0); // 388 bytes with the flag; the last byte is a payload byte
    ASSERT_EQ(b.size(), 388U);
    b.back() = 188; // 388 - 12 - 188 = 188 is not less than itself
    EXPECT_NE(find(b).stype, STY_RTP.num);
    b.back() = 187;
    EXPECT_EQ(find(b).stype, STY_RTP.num);
    b.back() = 0;
    EXPECT_EQ(find(b).stype, STY_RTP.num);
}

// By design: one byte decides on the next header; nothing else of a header has to be there.
TEST(ds_find_dgram, takes_any_byte_like_the_packets_first_for_the_next_header)
{
    bytes b = rtp(packets(7));
    b[12 + 6 * 188] = 0x80;
    EXPECT_EQ(find(b), rtp_at(0, 12 + 6 * 188));
}

// By design: the search steps over a byte that is neither.
TEST(ds_find_dgram, passes_over_a_stray_byte_at_a_stride)
{
    bytes b = rtp(packets(7));
    b[12 + 6 * 188] = 0x00;
    EXPECT_EQ(find(b), rtp_at(0, 1328));
}

TEST(ds_find_dgram, gives_up_when_no_header_follows_before_1400)
{
    ds_trace trace;
    LogCapture log;
    // Eight packets under a header: the next one would stand at 1516.
    EXPECT_NE(find(cat(rtp_run(packets(80), 8))).stype, STY_RTP.num);
    EXPECT_GE(log.count("get_rtp_pktlen: failed to find next RTP datagram"), 1U);
}

TEST(ds_find_dgram, looks_for_the_next_header_below_1400)
{
    // With packets of 208 bytes the strides are 12 + 208n: 1260 is the last below 1400.
    std::vector<bytes> v;
    for (unsigned i = 0; i < 10; ++i)
        v.push_back(rtp_raw(widen(packets(6), 208)).seq(i));
    EXPECT_EQ(find(cat(v)), rtp_at(0, 12 + 6 * 208));
}

TEST(ds_find_dgram_death, asserts_that_a_datagram_is_not_above_1400_bytes)
{
    const bytes fits = cat({rtp(packets(7)).build(), noise(1400 - 1328)});
    EXPECT_EQ(find(fits, DS_DGRAM_BUF), rtp_at(0, 1400));
    const bytes large = cat({fits, noise(1)});
    EXPECT_DEATH(find(large, DS_DGRAM_BUF), "nleft <= MAX_RTP_OFFSET");
    EXPECT_EQ(find(large), raw_after(-3)); // as a byte stream the same bytes are no such failure
}

TEST(ds_find_dgram, is_not_led_past_a_short_input_by_stale_bytes_behind_it)
{
    const bytes whole = rtp(packets(7));
    for (size_t len = 1; len < 16; ++len) {
        found f{-7, -7, 0};
        f.offset = ds_find_dgram(whole.data(), len, &f.stype, &f.pkt_len, 0);
        EXPECT_EQ(f.offset, -1) << len;
        EXPECT_EQ(f.stype, STY_RAW.num) << len;
        // From 13 bytes on the sync byte behind the header is in reach, and too short to probe.
        EXPECT_EQ(static_cast<ssize_t>(f.pkt_len), len < 13 ? -34 : -1) << len;
    }
}

TEST(ds_find_dgram, survives_every_cut_of_a_stream)
{
    const bytes whole = cat(rtp_run(packets(14), 7));
    for (size_t len = 0; len <= whole.size(); ++len) {
        const found f = find(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(len)));
        EXPECT_EQ(f.stype == STY_RTP.num, len > 200) << len;
    }
}

// ---- lines ----------------------------------------------------------------------------------------------------

TEST(ds_find_dgram, says_at_debug_what_it_found)
{
    LogCapture log;
    find(cat(packets(10)));
    EXPECT_EQ(log.count("ds_find_dgram: TS stream, offset=0, pkt-len=188"), 1U);
    find(rtp(packets(7)));
    EXPECT_EQ(log.count("ds_find_dgram: RTP stream, offset=0, pkt-len=1328"), 1U);
    find(noise(100));
    EXPECT_EQ(log.count("ds_find_dgram: RAW stream, offset=-1, pkt-len=-1"), 1U);
    EXPECT_EQ(log.count("get_rtp_pktlen"), 0U); // nothing of the steps without tracing
    EXPECT_EQ(log.count("possible RTP-packet match"), 0U);
}

// The lines of a level but those of the probe, which tell an address.
std::vector<std::string> steps(const LogCapture& log, int level)
{
    std::vector<std::string> out = log.messages(level);
    std::erase_if(out, [](const std::string& line) { return line.starts_with("ts_probe: "); });
    return out;
}

using lines = std::vector<std::string>;

TEST(ds_find_dgram, tells_its_steps_with_tracing_on)
{
    ds_trace trace;
    LogCapture log;
    find(cat({noise(3), cat(rtp_run(packets(14), 7))}));
    EXPECT_EQ(
        steps(log, ll::debug),
        (lines{"ds_find_dgram: possible RTP-packet match at #3", "get_rtp_pktlen: TS/188 packets underneath",
               "get_rtp_pktlen: found next RTP marker at #1328", "ds_find_dgram: RTP stream, offset=3, pkt-len=1328"}));
    log.clear();
    find(rtp(packets(7)));
    EXPECT_EQ(steps(log, ll::debug),
              (lines{"ds_find_dgram: possible RTP-packet match at #0", "get_rtp_pktlen: TS/188 packets underneath",
                     "get_rtp_pktlen: EOD assumed to be RTP-packet boundary",
                     "ds_find_dgram: RTP stream, offset=0, pkt-len=1328"}));
    log.clear();
    find(rtp(packets(7)), DS_DGRAM_BUF);
    EXPECT_EQ(steps(log, ll::debug),
              (lines{"ds_find_dgram: possible RTP-packet match at #0", "get_rtp_pktlen: TS/188 packets underneath",
                     "get_rtp_pktlen: RTP size = datagram size: 1328 bytes",
                     "ds_find_dgram: RTP stream, offset=0, pkt-len=1328"}));
    EXPECT_EQ(steps(log, ll::error), lines{});
}

TEST(ds_find_dgram, tells_at_error_why_it_refuses_with_tracing_on)
{
    ds_trace trace;
    LogCapture log;
    find(rtp(packets(1)));
    EXPECT_EQ(steps(log, ll::error), (lines{"get_rtp_pktlen: invalid RTP footer length 0"}));
    log.clear();
    find(rtp(packets(7)).padding(20)); // no header where the strides lead, up to 1400
    EXPECT_EQ(steps(log, ll::error), (lines{"get_rtp_pktlen: failed to find next RTP datagram"}));
    log.clear();
    find(cat(rtp_run(packets(10), 5)));
    EXPECT_EQ(steps(log, ll::error), (lines{"get_rtp_pktlen: port-RTP probe failed"}));
    log.clear();
    const bytes whole = rtp(packets(7)); // what is left of its header is not looked at
    int32_t stype = 0;
    size_t pkt_len = 0;
    EXPECT_EQ(ds_find_dgram(whole.data(), 11, &stype, &pkt_len, 0), -1);
    EXPECT_EQ(steps(log, ll::error), (lines{"get_rtp_pktlen: RTP header exp/got=12/-12 bytes"}));
}

TEST(ds_flags, start_at_0_and_are_kept)
{
    EXPECT_EQ(ds_get_flags(), 0U);
    LogCapture log;
    ds_set_flags(DS_TRACE_TSPARSE);
    EXPECT_EQ(ds_get_flags(), DS_TRACE_TSPARSE);
    EXPECT_EQ(log.count("ds_set_flags: flags set to 0x0001"), 1U);
    ds_set_flags(0);
    EXPECT_EQ(ds_get_flags(), 0U);
}

} // namespace
