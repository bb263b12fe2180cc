// What the ring makes of its first input.
#include "support/ring_kit.h"

#include <cerrno>

using namespace ringkit;

namespace
{

class mmr_first_input : public ring_test
{
protected:
    void SetUp() override
    {
        make(64 * PAGE);
        log.clear();
    }
};

} // namespace

TEST_F(mmr_first_input, of_aligned_ts_sets_type_and_unit_without_a_warning)
{
    EXPECT_EQ(put(ts_bytes(1316)), 0);
    EXPECT_STREQ(info().stype.sym, "TS");
    EXPECT_EQ(info().ts_len, 188u);
    EXPECT_EQ(ring->pld_pos, 0);
    EXPECT_EQ(payload_size(), 1316u);
    EXPECT_EQ(log.text(), "(INF)  mmr_detect_first: TS stream detected\n"
                          "(INF)  mmr_detect_first: [" +
                              name() + "] TS pkt_len=188\n");
}

TEST_F(mmr_first_input, sets_the_unit_of_each_ts_size)
{
    for (const size_t unit : {188, 192, 204, 208}) {
        mmr_destroy(ring);
        make(64 * PAGE);
        EXPECT_EQ(put(ts_bytes(unit * 20, 0, unit)), 0);
        EXPECT_EQ(info().ts_len, unit);
        EXPECT_STREQ(info().stype.sym, "TS");
    }
}

TEST_F(mmr_first_input, of_many_rtp_packets_sets_the_length_of_one)
{
    EXPECT_EQ(put(rtp_bytes(40)), 0);
    EXPECT_STREQ(info().stype.sym, "RTP");
    EXPECT_EQ(info().ts_len, 1328u);
    EXPECT_EQ(payload_size(), 40 * 1328u);
    EXPECT_EQ(log.text(), "(INF)  mmr_detect_first: RTP stream detected\n"
                          "(INF)  mmr_detect_first: [" +
                              name() + "] TS pkt_len=1328\n");
}

TEST_F(mmr_first_input, of_one_rtp_packet_sets_its_length)
{
    EXPECT_EQ(put(rtp_bytes(1)), 0);
    EXPECT_STREQ(info().stype.sym, "RTP");
    EXPECT_EQ(info().ts_len, 1328u);
}

TEST_F(mmr_first_input, with_stray_bytes_ahead_keeps_them_and_warns)
{
    EXPECT_EQ(put(tsb::cat({tsb::fill(5, 1), ts_bytes(1880)})), 0);
    EXPECT_EQ(ring->pld_pos, 0);
    EXPECT_EQ(payload_size(), 1885u);
    EXPECT_EQ(info().ts_len, 188u);
    EXPECT_EQ(log.text(),
              "(WRN)  mmr_detect_first: UNALIGNED data: TS starts at byte 5, orig/adj_len: 1885/1880 bytes\n"
              "(INF)  mmr_detect_first: TS stream detected\n"
              "(INF)  mmr_detect_first: [" +
                  name() + "] TS pkt_len=188\n");
}

TEST_F(mmr_first_input, may_begin_with_209_stray_bytes)
{
    EXPECT_EQ(put(tsb::cat({tsb::fill(209, 1), ts_bytes(1880)})), 0);
    EXPECT_EQ(log.count("TS starts at byte 209, orig/adj_len: 2089/1880 bytes\n"), 1u) << log.text();
}

TEST_F(mmr_first_input, may_not_begin_with_210_stray_bytes)
{
    EXPECT_EQ(put(tsb::cat({tsb::fill(210, 1), ts_bytes(1880)})), -EFAULT);
    EXPECT_EQ(log.text(), "(ERR)  mmr_detect_first: no header (buflen=2090); non-TS/RTP stream?\n");
    EXPECT_EQ(payload_size(), 2090u);
}

TEST_F(mmr_first_input, of_100_bytes_is_refused_as_no_unit_can_be_tried)
{
    EXPECT_EQ(put(ts_bytes(100)), -14);
    EXPECT_EQ(log.text(), "(ERR)  mmr_detect_first: no header (buflen=100); non-TS/RTP stream?\n");
    EXPECT_EQ(ring->pld_pos, -1);
    EXPECT_EQ(payload_size(), 100u);
    EXPECT_EQ(info().ts_len, 0u);
    EXPECT_EQ(info().stype.num, 0);
}

TEST_F(mmr_first_input, of_exactly_one_unit_is_taken)
{
    EXPECT_EQ(put(ts_bytes(187)), -EFAULT);
    mmr_destroy(ring);
    make(64 * PAGE);
    EXPECT_EQ(put(ts_bytes(188)), 0);
    EXPECT_EQ(info().ts_len, 188u);
}

TEST_F(mmr_first_input, of_no_bytes_is_refused)
{
    EXPECT_EQ(put({}), -EFAULT);
    EXPECT_EQ(log.text(), "(ERR)  mmr_detect_first: no header (buflen=0); non-TS/RTP stream?\n");
}

TEST_F(mmr_first_input, once_refused_stays_counted_while_its_place_is_offered_again)
{
    ASSERT_EQ(put(tsb::fill(500, 1)), -EFAULT);
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf);
    EXPECT_EQ(pt.pos, 0);
    EXPECT_EQ(pt.len, 64 * PAGE - 500);

    // A writer that goes on overwrites the refused bytes; the count keeps both.
    EXPECT_EQ(put(ts_bytes(1880)), 0);
    EXPECT_EQ(ring->pld_pos, 0);
    EXPECT_EQ(payload_size(), 2380u);
    EXPECT_EQ(bytes(ring->buf, ring->buf + 1880), ts_bytes(1880));
}

TEST_F(mmr_first_input, decides_alone_and_later_bytes_are_not_looked_at)
{
    ASSERT_EQ(put(ts_bytes(1316)), 0);
    log.clear();
    EXPECT_EQ(put(tsb::fill(300, 1)), 0);
    EXPECT_EQ(put(rtp_bytes(3)), 0);
    EXPECT_STREQ(info().stype.sym, "TS");
    EXPECT_EQ(info().ts_len, 188u);
    EXPECT_EQ(payload_size(), 1316u + 300u + 3 * 1328u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_first_input, decides_for_good_even_when_the_ring_runs_empty)
{
    ASSERT_EQ(put(ts_bytes(1316)), 0);
    take(1316);
    log.clear();
    EXPECT_EQ(put(rtp_bytes(3)), 0);
    EXPECT_STREQ(info().stype.sym, "TS");
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_first_input, of_another_type_than_expected_warns_and_leaves_the_expectation)
{
    ring->stype = {.sym = {'R', 'T', 'P', 0}};
    EXPECT_EQ(put(ts_bytes(1316)), 0);
    EXPECT_STREQ(info().stype.sym, "RTP");
    EXPECT_EQ(info().ts_len, 188u);
    EXPECT_EQ(log.text(), "(WRN)  mmr_detect_first: expected [RTP], got [TS] stream\n"
                          "(INF)  mmr_detect_first: [" +
                              name() + "] TS pkt_len=188\n");
}

TEST_F(mmr_first_input, of_the_expected_type_needs_no_line_about_it)
{
    ring->stype = {.sym = {'T', 'S', 0, 0}};
    EXPECT_EQ(put(ts_bytes(1316)), 0);
    EXPECT_STREQ(info().stype.sym, "TS");
    EXPECT_EQ(log.text(), "(INF)  mmr_detect_first: [" + name() + "] TS pkt_len=188\n");
}

TEST_F(mmr_first_input, anywhere_but_at_the_start_fails_a_logged_assertion)
{
    struct mm_point pt = {};
    uint8_t* dest = mmr_iget(ring, &pt);
    const bytes data = ts_bytes(1316);
    std::copy(data.begin(), data.end(), dest);
    pt = {1, 1316};
    EXPECT_DEATH((void)mmr_iput(ring, &pt), "mr->pld_pos == -1 && pt->pos == 0");
}

TEST_F(mmr_first_input, that_fills_the_ring_is_searched_within_its_memory)
{
    EXPECT_EQ(put(tsb::noise(64 * PAGE)), -EFAULT);
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), nullptr);
}
