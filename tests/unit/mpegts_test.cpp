// TS probing and PCR arithmetic.
#include "mpegts.h"

#include "support/log_capture.h"
#include "support/ts_build.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace tsb;

namespace
{

// `len` zero bytes with a sync byte at every multiple of `size`.
bytes marked(size_t size, size_t len)
{
    bytes b(len, 0);
    for (size_t i = 0; i < len; i += size)
        b[i] = MPEG_TS_SYNC;
    return b;
}

// Probes a copy that ends with the buffer, so that the sanitizer sees a read past it.
ssize_t probe(const bytes& b, bool full_pkts = false)
{
    return ts_probe(b.data(), b.size(), full_pkts);
}

const char* chars(const bytes& b)
{
    return reinterpret_cast<const char*>(b.data());
}

// ---- ts_probe -------------------------------------------------------------------------------------------------

TEST(ts_probe, reads_each_of_the_four_packet_sizes)
{
    for (size_t size : {188, 192, 204, 208}) {
        EXPECT_EQ(probe(marked(size, 10 * size)), static_cast<ssize_t>(size));
        EXPECT_EQ(probe(marked(size, 10 * size), true), static_cast<ssize_t>(size));
    }
}

TEST(ts_probe, wants_a_sync_byte_in_front)
{
    bytes b = marked(188, 1880);
    b[0] = 0x46;
    EXPECT_EQ(probe(b), -22);
    EXPECT_EQ(probe({0x46}), -22);
}

TEST(ts_probe, reads_nothing_of_an_empty_buffer)
{
    EXPECT_EQ(ts_probe(nullptr, 0, false), -1);
}

TEST(ts_probe, takes_one_whole_packet_by_its_first_byte)
{
    EXPECT_EQ(probe(marked(188, 188)), 188);
    bytes b = marked(188, 188);
    std::fill(b.begin() + 1, b.end(), 0xff);
    EXPECT_EQ(probe(b), 188);
    EXPECT_EQ(probe(b, true), 188);
}

TEST(ts_probe, needs_188_bytes)
{
    EXPECT_EQ(probe(marked(188, 1)), -1);
    EXPECT_EQ(probe(marked(188, 187)), -1);
    EXPECT_EQ(probe(marked(188, 188)), 188);
    EXPECT_EQ(probe(marked(188, 189)), 188); // byte 188 is a sync byte
}

TEST(ts_probe, ends_at_the_first_size_that_the_buffer_cannot_hold)
{
    // No sync byte at 188: with 190 bytes the next size, 192, has no room.
    EXPECT_EQ(probe(marked(1000, 190)), -1);
    EXPECT_EQ(probe(marked(1000, 191)), -1);
    EXPECT_EQ(probe(marked(1000, 203)), -1); // 192 fails, 204 has no room
    EXPECT_EQ(probe(marked(1000, 207)), -1);
    EXPECT_EQ(probe(marked(1000, 209)), -3);
}

TEST(ts_probe, takes_a_buffer_of_exactly_a_size_when_the_smaller_ones_failed)
{
    EXPECT_EQ(probe(marked(1000, 192)), 192);
    EXPECT_EQ(probe(marked(1000, 204)), 204);
    EXPECT_EQ(probe(marked(1000, 208)), 208);
    bytes b = marked(1000, 204);
    b[188] = MPEG_TS_SYNC;
    EXPECT_EQ(probe(b), 188);
    b[188] = 0;
    b[192] = MPEG_TS_SYNC;
    EXPECT_EQ(probe(b), 192);
}

TEST(ts_probe, walks_the_whole_buffer)
{
    bytes b = marked(188, 100 * 188);
    b[99 * 188] = 0;
    EXPECT_EQ(probe(b), -3);
}

TEST(ts_probe, counts_a_cut_off_packet_by_its_first_byte)
{
    bytes b = marked(188, 10 * 188 + 1);
    EXPECT_EQ(probe(b), 188);
    b.back() = 0;
    EXPECT_EQ(probe(b), -3);
}

TEST(ts_probe, with_full_packets_accepts_only_whole_ones)
{
    EXPECT_EQ(probe(marked(188, 376), true), 188);
    EXPECT_EQ(probe(marked(188, 377), true), -3); // sync bytes at 188 and 376, but a stray byte at the end
    EXPECT_EQ(probe(marked(188, 377), false), 188);
    EXPECT_EQ(probe(marked(188, 375), true), -3);
}

TEST(ts_probe, lets_the_smallest_size_that_fits_win)
{
    bytes b = marked(204, 20 * 204);
    for (size_t i = 188; i < b.size(); i += 188)
        b[i] = MPEG_TS_SYNC;
    EXPECT_EQ(probe(b), 188);
    b[188] = 0;
    EXPECT_EQ(probe(b), 204);
}

TEST(ts_probe, logs_what_it_found_at_debug)
{
    LogCapture log;
    const bytes good = marked(192, 1920);
    EXPECT_EQ(probe(good, true), 192);
    const bytes bad = marked(1000, 500);
    EXPECT_EQ(probe(bad), -3);
    char want[128];
    snprintf(want, sizeof want, "ts_probe: in-sync pkt_size[192]/F for buf=%p, len=1920",
             static_cast<const void*>(good.data()));
    EXPECT_EQ(log.count(want), 1U);
    snprintf(want, sizeof want, "ts_probe: NO-SYNC pkt_size[208]/- for buf=%p, len=500",
             static_cast<const void*>(bad.data()));
    EXPECT_EQ(log.count(want), 1U);
}

TEST(ts_probe, is_silent_where_it_returns_early)
{
    LogCapture log;
    EXPECT_EQ(probe({0}), -22);
    EXPECT_EQ(probe(marked(188, 100)), -1);
    EXPECT_EQ(probe(marked(188, 188)), 188);
    EXPECT_EQ(log.text(), "");
}

// ---- ts_find_head ---------------------------------------------------------------------------------------------

TEST(ts_find_head, finds_packets_behind_noise)
{
    for (size_t front : {0, 1, 20, 187}) {
        const bytes b = cat({noise(front), marked(188, 10 * 188)});
        size_t pkt_len = 0;
        EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), static_cast<off_t>(front));
        EXPECT_EQ(pkt_len, 188U);
    }
}

TEST(ts_find_head, moves_on_from_a_false_sync_byte)
{
    bytes b = cat({noise(50), marked(204, 10 * 204)});
    b[10] = MPEG_TS_SYNC;
    size_t pkt_len = 0;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), 50);
    EXPECT_EQ(pkt_len, 204U);
}

TEST(ts_find_head, gives_minus_one_without_a_sync_byte)
{
    const bytes b = noise(2000);
    size_t pkt_len = 77;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), -1);
    EXPECT_EQ(ts_find_head(b.data(), 0, &pkt_len), -1);
    EXPECT_EQ(pkt_len, 77U);
}

TEST(ts_find_head, ends_where_no_candidate_follows_one_that_failed)
{
    bytes b = noise(2000);
    b[30] = MPEG_TS_SYNC;
    size_t pkt_len = 77;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), -1);
    EXPECT_EQ(pkt_len, 77U);
}

TEST(ts_find_head, gives_an_offset_above_206_that_no_probe_accepted)
{
    bytes b = noise(2000);
    b[30] = MPEG_TS_SYNC;
    b[207] = MPEG_TS_SYNC;
    b[300] = MPEG_TS_SYNC; // not looked at: 207 was the last candidate
    size_t pkt_len = 77;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), 207);
    EXPECT_EQ(pkt_len, 77U);
    b[206] = MPEG_TS_SYNC; // a candidate at 206 still has a successor, here 207
    b[207] = 0;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), 300);
}

TEST(ts_find_head, accepts_a_first_candidate_at_any_offset)
{
    const bytes b = cat({noise(500), marked(188, 10 * 188)});
    size_t pkt_len = 0;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), 500);
    EXPECT_EQ(pkt_len, 188U);
}

// By design: users rely on the search keeping as many bytes behind the candidate as lie in front of it.
TEST(ts_find_head, searches_a_stretch_that_ends_earlier_as_it_starts_later)
{
    bytes b = noise(300);
    b[100] = MPEG_TS_SYNC; // fails: the search goes on from 101 and ends before 199
    b[112] = MPEG_TS_SYNC; // a whole 188-byte packet to the end
    size_t pkt_len = 0;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), 112);
    b[112] = 0;
    b[199] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), -1);
}

TEST(ts_find_head, reads_nothing_past_a_short_buffer)
{
    size_t pkt_len = 0;
    for (size_t len = 0; len < 40; ++len) {
        bytes b = noise(len);
        EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), -1);
        for (size_t at = 0; at < len; ++at) {
            b[at] = MPEG_TS_SYNC;
            EXPECT_EQ(ts_find_head(b.data(), b.size(), &pkt_len), -1) << len << ' ' << at;
        }
    }
}

// ---- PCR in packets -------------------------------------------------------------------------------------------

TEST(ts_has_pcr, wants_an_adaptation_field_with_the_flag)
{
    EXPECT_EQ(ts_has_pcr(pkt().pcr(1).build().data()), 1);
    EXPECT_EQ(ts_has_pcr(pkt().pcr(1).no_payload().build().data()), 1);
    EXPECT_EQ(ts_has_pcr(pkt().build().data()), 0);
    EXPECT_EQ(ts_has_pcr(pkt().random_access().build().data()), 0);
    // The flag's bit in the payload of a packet without adaptation field.
    EXPECT_EQ(ts_has_pcr(pkt().filler(0x10).build().data()), 0);
    // Neither payload nor adaptation field.
    EXPECT_EQ(ts_has_pcr(pkt().pcr(1).set(3, 0x00).build().data()), 0);
}

TEST(ts_has_pcr, is_false_for_an_adaptation_field_of_length_0)
{
    const packet p = pkt().no_payload().set(4, 0).set(5, 0x10);
    ASSERT_EQ(p[3] & 0x30, 0x20);
    EXPECT_EQ(ts_has_pcr(p.data()), 0);
}

TEST(ts_pcr_base, is_33_bits_without_the_extension)
{
    for (uint64_t pcr : {uint64_t{0}, uint64_t{1}, uint64_t{90000}, P2_33 - 1, P2_33 / 2, uint64_t{0x155555555}})
        EXPECT_EQ(ts_pcr_base(pkt().pcr(pcr, 0x1ff).build().data()), pcr);
}

TEST(find_pcr, gives_the_first_and_the_last_of_a_run)
{
    const std::vector<packet> v = {pkt(), pkt().pcr(100), pkt(), pkt().pcr(200), pkt().pcr(300), pkt()};
    const bytes b = cat(v);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(chars(b), b.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 100U);
    EXPECT_EQ(find_last_pcr(chars(b), b.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 300U);
}

TEST(find_pcr, steps_by_the_packet_size)
{
    const std::vector<packet> v = {pkt(), pkt().pcr(100), pkt().pcr(200), pkt()};
    const bytes b = widen(v, 204);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(chars(b), b.size(), 204, &pcr), 0);
    EXPECT_EQ(pcr, 100U);
    EXPECT_EQ(find_last_pcr(chars(b), b.size(), 204, &pcr), 0);
    EXPECT_EQ(pcr, 200U);
}

TEST(find_pcr, leaves_the_value_alone_when_there_is_none)
{
    const bytes b = cat(std::vector<packet>{pkt(), pkt(), pkt()});
    uint64_t pcr = 42;
    EXPECT_EQ(find_first_pcr(chars(b), b.size(), 188, &pcr), -1);
    EXPECT_EQ(find_last_pcr(chars(b), b.size(), 188, &pcr), -1);
    EXPECT_EQ(pcr, 42U);
}

// By design: a buffer of one packet finds nothing from the back.
TEST(find_pcr, never_looks_at_the_first_packet_from_the_back)
{
    const bytes one = cat(std::vector<packet>{pkt().pcr(100)});
    uint64_t pcr = 42;
    EXPECT_EQ(find_first_pcr(chars(one), one.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 100U);
    EXPECT_EQ(find_last_pcr(chars(one), one.size(), 188, &pcr), -1);
    const bytes two = cat(std::vector<packet>{pkt().pcr(100), pkt()});
    EXPECT_EQ(find_last_pcr(chars(two), two.size(), 188, &pcr), -1);
    const bytes shifted = tsb::cat({bytes{0}, one});
    EXPECT_EQ(find_last_pcr(chars(shifted), shifted.size(), 188, &pcr), 0); // a byte behind the start is enough
}

TEST(find_pcr, takes_a_cut_off_packet_as_far_as_its_bytes_are_there)
{
    for (size_t cut = 0; cut <= 188; ++cut) {
        bytes b = cat(std::vector<packet>{pkt(), pkt().pcr(100)});
        b.resize(188 + cut);
        b.shrink_to_fit();
        uint64_t pcr = 42;
        EXPECT_EQ(find_first_pcr(chars(b), b.size(), 188, &pcr), cut >= 11 ? 0 : -1) << cut;
    }
}

TEST(find_pcr_death, asserts_its_arguments)
{
    const bytes b = cat(std::vector<packet>{pkt()});
    uint64_t pcr = 0;
    const char* text = "buf && pcr && len >= pkt_len";
    EXPECT_DEATH(find_first_pcr(nullptr, 188, 188, &pcr), text);
    EXPECT_DEATH(find_first_pcr(chars(b), 188, 188, nullptr), text);
    EXPECT_DEATH(find_first_pcr(chars(b), 187, 188, &pcr), text);
    EXPECT_DEATH(find_last_pcr(nullptr, 188, 188, &pcr), text);
    EXPECT_DEATH(find_last_pcr(chars(b), 188, 188, nullptr), text);
    EXPECT_DEATH(find_last_pcr(chars(b), 187, 188, &pcr), text);
}

// ---- PCR arithmetic -------------------------------------------------------------------------------------------

TEST(calc_pcr_delta, is_the_difference_in_ticks)
{
    LogCapture log;
    struct {
        uint64_t first, last, want;
    } rows[] = {
        {8589934000, 100, 692}, // wrapped
        {1000, 91000, 90000},   //
        {0, 50, 50},            // no earlier reading
        {0, P2_33 - 1, P2_33 - 1},
        {1000, 1000, 0},
        {P2_33 - 1, 0, 1},
        {P2_33 - 44999, 0, 44999}, // the largest step over the wrap
        {P2_33 - 1, 44998, 44999},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(calc_pcr_delta(r.first, r.last, 0), r.want) << r.first << ' ' << r.last;
        EXPECT_EQ(ts_pcr_delta(r.first, r.last), r.want) << r.first << ' ' << r.last;
    }
    EXPECT_EQ(log.text(), "");
}

TEST(calc_pcr_delta, gives_0_and_warns_of_a_backward_step)
{
    LogCapture log;
    EXPECT_EQ(ts_pcr_delta(100, 50), 0U);
    EXPECT_EQ(log.count("calc_pcr_delta: PCR last=50 < first=100 diff=18446744073709551566"), 1U);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.messages(ll::warning).size(), 1U);
}

// By design: a step of exactly half a second over the wrap is taken as a backward one.
TEST(calc_pcr_delta, takes_a_wrapped_step_of_the_whole_gap_as_backward)
{
    LogCapture log;
    EXPECT_EQ(calc_pcr_delta(P2_33 - 45000, 0, 0), 0U);
    EXPECT_EQ(log.count("calc_pcr_delta: PCR last=0 < first=8589889592 "), 1U);
    EXPECT_EQ(calc_pcr_delta(P2_33 - 45000, 1, 0), 0U);
}

TEST(calc_pcr_delta, warns_of_a_gap_above_half_a_second_when_asked)
{
    LogCapture log;
    EXPECT_EQ(calc_pcr_delta(1000, 46000, F_MAX_PCRD), 45000U); // exactly half a second draws no warning
    EXPECT_EQ(calc_pcr_delta(1000, 45999, F_MAX_PCRD), 44999U);
    EXPECT_EQ(calc_pcr_delta(0, 90000, F_MAX_PCRD), 90000U); // no earlier reading
    EXPECT_EQ(calc_pcr_delta(1000, 46001, 0), 45001U);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(calc_pcr_delta(1000, 46001, F_MAX_PCRD), 45001U);
    EXPECT_EQ(log.count("calc_pcr_delta: PCR gap=45001 exceeds max=45000; last=46001, first=1000"), 1U);
    EXPECT_EQ(log.messages(ll::warning).size(), 1U);
}

TEST(calc_pcr_delta_death, aborts_on_a_backward_step_when_asked)
{
    EXPECT_EXIT(calc_pcr_delta(100, 50, F_ABRT_PCR), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(calc_pcr_delta(P2_33 - 10, 50, F_ABRT_PCR), 60U);
}

} // namespace
