// How the ring's reader finds sync and cuts records.
#include "dstream.h"
#include "support/ring_kit.h"

#include <cerrno>
#include <memory>

using namespace ringkit;

namespace
{

constexpr int EMPTY = 11;
constexpr int NO_SYNC = -9;
constexpr int FOREIGN = -14;

// A ring that has recognised TS of some unit and holds nothing more than it needed for that.
class mmr_reader : public ring_test
{
protected:
    void make_ts(size_t unit = 188, size_t size = 16 * 4096)
    {
        make(size);
        ASSERT_EQ(put(ts_bytes(unit * 7, 0, unit)), 0);
        ASSERT_EQ(info().ts_len, unit);
        log.clear();
    }

    void make_rtp()
    {
        make(16 * 4096);
        ASSERT_EQ(put(rtp_bytes(1)), 0);
        ASSERT_EQ(info().ts_len, 1328u);
        log.clear();
    }

    // A line of mmr_oget_buf that says how far it went.
    std::string shift_line(size_t count, const char* type = "TS") const
    {
        return text("(WRN)  mmr_oget_buf: [%s] shifting %zu bytes to %s-sync\n", name().c_str(), count, type);
    }
    std::string foreign_line() const { return "(ERR)  mmr_oget_buf: [" + name() + "] not a TS stream, giving up\n"; }
};

using lens = std::vector<size_t>;

// `stray` bytes without sync, then whole packets.
bytes behind(size_t stray, size_t count)
{
    return tsb::cat({tsb::fill(stray, 1), ts_bytes(count)});
}

} // namespace

// ---- the sync test --------------------------------------------------------------------------------------------

TEST_F(mmr_reader, sees_ts_sync_by_one_byte)
{
    const bytes unit = ts_bytes(188), other = tsb::fill(188, 0x46);
    EXPECT_TRUE(mmr_sync_found(STY_MPEGTS.num, unit.data()));
    EXPECT_FALSE(mmr_sync_found(STY_MPEGTS.num, other.data()));
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, sees_the_sync_of_any_type_but_rtp_by_that_byte)
{
    const bytes unit = ts_bytes(188), other = rtp_bytes(1);
    for (const int32_t snum : {STY_RAW.num, 0, 12345}) {
        EXPECT_TRUE(mmr_sync_found(snum, unit.data()));
        EXPECT_FALSE(mmr_sync_found(snum, other.data()));
    }
}

TEST_F(mmr_reader, sees_rtp_sync_by_the_header_and_logs_a_refusal)
{
    const bytes unit = rtp_bytes(1), other = ts_bytes(188);
    EXPECT_TRUE(mmr_sync_found(STY_RTP.num, unit.data()));
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(mmr_sync_found(STY_RTP.num, other.data()));
    EXPECT_EQ(log.count("(WRN)  is_rtp_ext: wrong RTP version"), 1u) << log.text();
}

// ---- spans: packed TS -----------------------------------------------------------------------------------------

TEST_F(mmr_reader, packs_as_many_packets_as_an_mtu_takes)
{
    struct row {
        size_t unit, span;
        lens expected;
    };
    const row table[] = {
        {188, 3000, {1316, 1316, 188}},
        {192, 3000, {1344, 1344, 192}},
        {204, 3000, {1428, 1428}},
        {208, 3000, {1456, 1456}},
        {188, 1316, {1316}},
        {188, 1317, {1316}},
        {188, 1316 + 188, {1316, 188}},
        {188, 188, {188}},
        {188, 375, {188}},
        {208, 1456 * 2 + 208, {1456, 1456, 208}},
    };
    for (const row& r : table) {
        SCOPED_TRACE(text("unit %zu, span %zu", r.unit, r.span));
        make_ts(r.unit);
        bytes span = ts_bytes(r.span, 0, r.unit);
        const cut c = cut::of(ring, span);
        EXPECT_EQ(c.rc, 0);
        EXPECT_EQ(c.lengths(), r.expected);
        for (size_t i = 0, pos = 0; i < c.count; pos += c.recs[i++].iov_len)
            EXPECT_EQ(c.at(i), span.data() + pos) << i;
        mmr_destroy(ring);
        ring = nullptr;
    }
}

TEST_F(mmr_reader, fills_no_more_records_than_there_is_room_for)
{
    make_ts();
    bytes span = ts_bytes(3000);
    EXPECT_EQ(cut::of(ring, span, 1).lengths(), (lens{1316}));
    EXPECT_EQ(cut::of(ring, span, 2).lengths(), (lens{1316, 1316}));
    EXPECT_EQ(cut::of(ring, span, 3).lengths(), (lens{1316, 1316, 188}));
    EXPECT_EQ(cut::of(ring, span, 4).lengths(), (lens{1316, 1316, 188}));
}

TEST_F(mmr_reader, fails_packing_at_a_gap_anywhere_even_behind_the_last_record)
{
    make_ts();
    bytes span = ts_bytes(3000);
    span[188 * 15] = 0; // the head of the partial packet
    const cut c = cut::of(ring, span, 1);
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.count, 1u) << "left alone";
    EXPECT_EQ(log.text(), "(ERR)  mmr_ts_pack_buf: [" + name() + "] error counting packets\n");
}

TEST_F(mmr_reader, packs_one_packet_ahead_of_a_partial_one_that_has_its_sync_byte)
{
    make_ts();
    bytes span = ts_bytes(188 + 50);
    EXPECT_EQ(cut::of(ring, span).lengths(), (lens{188}));
    span[188] = 0;
    EXPECT_EQ(cut::of(ring, span).rc, -1);
}

TEST_F(mmr_reader, packs_less_than_a_packet_to_nothing_without_a_word)
{
    make_ts();
    bytes span = ts_bytes(187);
    const cut c = cut::of(ring, span, 9);
    EXPECT_EQ(c.rc, EMPTY);
    EXPECT_EQ(c.count, 9u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, packs_units_of_up_to_213_bytes)
{
    make_ts();
    ring->ts_len = 213;
    bytes span = ts_bytes(213 * 8, 0, 213);
    EXPECT_EQ(cut::of(ring, span).lengths(), (lens{213 * 7, 213}));
    ring->ts_len = 214;
    span = ts_bytes(214 * 8, 0, 214);
    EXPECT_DEATH((void)cut::of(ring, span), "mr->ts_len > 0 && mr->ts_len < MAX_SYNC_DELTA");
}

TEST_F(mmr_reader, without_room_for_a_record_fails_a_logged_assertion)
{
    make_ts();
    bytes span = ts_bytes(1880);
    EXPECT_DEATH((void)cut::of(ring, span, 0), "nsegs != 0");
    unpacked();
    EXPECT_DEATH((void)cut::of(ring, span, 0), "nsegs != 0");
}

TEST_F(mmr_reader, without_a_recognised_stream_fails_a_logged_assertion_on_a_span)
{
    make(4096 * 16);
    bytes span = ts_bytes(1880);
    EXPECT_DEATH((void)cut::of(ring, span), "mr->ts_len > 0 && mr->ts_len < MAX_SYNC_DELTA");
    unpacked();
    EXPECT_DEATH((void)cut::of(ring, span), "mr->ts_len != 0");
}

// ---- spans: one record per unit -------------------------------------------------------------------------------

TEST_F(mmr_reader, gives_each_packet_alone_when_packing_is_off)
{
    make_ts();
    unpacked();
    bytes span = ts_bytes(3000);
    const cut c = cut::of(ring, span, 512);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.lengths(), lens(15, 188));
    for (size_t i = 0; i < c.count; ++i)
        EXPECT_EQ(c.at(i), span.data() + 188 * i);
}

TEST_F(mmr_reader, stops_at_the_room_when_packing_is_off)
{
    make_ts();
    unpacked();
    bytes span = ts_bytes(3000);
    EXPECT_EQ(cut::of(ring, span, 4).lengths(), lens(4, 188));
    EXPECT_EQ(cut::of(ring, span, 15).lengths(), lens(15, 188));
    EXPECT_EQ(cut::of(ring, span, 16).lengths(), lens(15, 188));
}

TEST_F(mmr_reader, does_not_look_at_a_partial_packet_when_packing_is_off)
{
    make_ts();
    unpacked();
    bytes span = ts_bytes(188 + 50);
    span[188] = 0;
    EXPECT_EQ(cut::of(ring, span).lengths(), (lens{188}));
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, reports_sync_lost_within_the_units_looked_at)
{
    make_ts();
    unpacked();
    bytes span = ts_bytes(3000);
    span[188 * 4] = 0;
    const cut c = cut::of(ring, span, 5);
    EXPECT_EQ(c.rc, NO_SYNC);
    EXPECT_EQ(c.count, 5u) << "left alone";
    EXPECT_EQ(log.text(), "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n");
    log.clear();
    EXPECT_EQ(cut::of(ring, span, 4).lengths(), lens(4, 188));
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, warns_of_less_than_a_unit_when_packing_is_off)
{
    make_ts();
    unpacked();
    bytes span = ts_bytes(187);
    const cut c = cut::of(ring, span, 9);
    EXPECT_EQ(c.rc, EMPTY);
    EXPECT_EQ(c.count, 9u);
    EXPECT_EQ(log.text(), "(WRN)  mmr_pack_buf: not enough payload data, 187 bytes\n");
}

TEST_F(mmr_reader, gives_each_rtp_packet_alone_whatever_its_length)
{
    make_rtp();
    bytes span = rtp_bytes(3);
    for (const bool no_mtu_pack : {false, true}) {
        const struct mm_opt opt = {no_mtu_pack};
        mmr_set_opt(ring, &opt);
        EXPECT_EQ(cut::of(ring, span).lengths(), lens(3, 1328));
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, reports_lost_rtp_sync_by_the_streams_type)
{
    make_rtp();
    bytes span = rtp_bytes(3);
    span[2 * 1328] = 0;
    EXPECT_EQ(cut::of(ring, span).rc, NO_SYNC);
    EXPECT_EQ(log.count("(WRN)  is_rtp_ext: "), 1u) << log.text();
    EXPECT_EQ(log.count("(ERR)  mmr_pack_buf: LOST-SYNC: RTP stream expected\n"), 1u) << log.text();
}

// ---- spans: the search for sync -------------------------------------------------------------------------------

TEST_F(mmr_reader, skips_to_the_sync_byte_and_says_how_far)
{
    make_ts();
    for (const bool no_mtu_pack : {false, true}) {
        const struct mm_opt opt = {no_mtu_pack};
        mmr_set_opt(ring, &opt);
        bytes span = behind(20, 1880);
        log.clear();
        const cut c = cut::of(ring, span);
        EXPECT_EQ(c.rc, 0);
        EXPECT_EQ(c.offset, 20);
        EXPECT_EQ(c.at(0), span.data() + 20);
        EXPECT_EQ(log.text(), shift_line(20));
    }
}

TEST_F(mmr_reader, leaves_the_offset_alone_when_it_skips_nothing)
{
    make_ts();
    bytes span = ts_bytes(1880);
    struct iovec iov[9];
    size_t count = 9;
    ssize_t offset = 4711;
    EXPECT_EQ(mmr_oget_buf(ring, span.data(), span.size(), iov, &count, &offset), 0);
    EXPECT_EQ(offset, 4711);
}

TEST_F(mmr_reader, needs_no_place_for_the_offset)
{
    make_ts();
    bytes span = behind(20, 1880);
    struct iovec iov[9];
    size_t count = 9;
    EXPECT_EQ(mmr_oget_buf(ring, span.data(), span.size(), iov, &count, nullptr), 0);
    EXPECT_EQ(count, 2u);
}

TEST_F(mmr_reader, finds_less_than_a_unit_behind_the_sync_byte)
{
    make_ts();
    bytes span = behind(20, 180);
    cut c = cut::of(ring, span);
    EXPECT_EQ(c.rc, EMPTY);
    EXPECT_EQ(c.offset, 20);
    EXPECT_EQ(log.text(), shift_line(20));

    unpacked();
    log.clear();
    c = cut::of(ring, span);
    EXPECT_EQ(c.rc, EMPTY);
    EXPECT_EQ(c.offset, 20);
    EXPECT_EQ(log.text(), shift_line(20) + "(WRN)  mmr_pack_buf: not enough payload data, 180 bytes\n");
}

TEST_F(mmr_reader, searches_a_span_up_to_byte_214_and_not_beyond)
{
    make_ts();
    unpacked();
    bytes span = behind(214, 1880);
    EXPECT_EQ(cut::of(ring, span).offset, 214);
    span = behind(215, 1880);
    log.clear();
    const cut c = cut::of(ring, span, 9);
    EXPECT_EQ(c.rc, FOREIGN);
    EXPECT_EQ(c.offset, 0);
    EXPECT_EQ(c.count, 9u);
    EXPECT_EQ(log.text(), foreign_line());
}

TEST_F(mmr_reader, gives_up_on_214_bytes_without_sync)
{
    make_ts();
    bytes span = tsb::fill(214, 1);
    EXPECT_EQ(cut::of(ring, span).rc, FOREIGN);
    EXPECT_EQ(log.text(), foreign_line());
}

// By design: a short stretch of garbage is fatal. Whoever runs the program relies on it being restarted then,
// rather than going on with a stream that is none.
TEST_F(mmr_reader, ends_the_process_on_a_shorter_stretch_without_sync)
{
    make_ts();
    for (const size_t size : {1, 2, 100, 213}) {
        bytes span = tsb::fill(size, 1);
        EXPECT_DEATH((void)cut::of(ring, span), "delta < data.size\\(\\)") << size;
    }
}

TEST_F(mmr_reader, changes_nothing_in_the_ring_when_it_cuts_a_span)
{
    make_ts();
    const std::string before = state();
    bytes sound = ts_bytes(3000), shifted = behind(20, 1880), foreign = tsb::fill(300, 1), gap = ts_bytes(3000);
    gap[188] = 0;
    for (bytes* span : {&sound, &shifted, &foreign, &gap})
        (void)cut::of(ring, *span);
    EXPECT_EQ(state(), before);
}

TEST_F(mmr_reader, takes_half_a_span_for_none)
{
    make_ts();
    bytes span = ts_bytes(188);
    struct iovec iov[9];
    size_t count = 9;
    EXPECT_EQ(mmr_oget_buf(ring, span.data(), 0, iov, &count, nullptr), 0);
    EXPECT_EQ(iov[0].iov_base, ring->buf);
    EXPECT_EQ(iov[0].iov_len, 1316u);
    count = 9;
    EXPECT_EQ(mmr_oget_buf(ring, nullptr, 188, iov, &count, nullptr), 0);
    EXPECT_EQ(iov[0].iov_base, ring->buf);
    EXPECT_EQ(iov[0].iov_len, 1316u);
}

TEST_F(mmr_reader, logs_each_place_that_is_no_rtp_packet)
{
    make_rtp();
    bytes span = tsb::cat({tsb::fill(300, 1), rtp_bytes(2)});
    EXPECT_EQ(cut::of(ring, span).rc, FOREIGN);
    EXPECT_EQ(log.count("(WRN)  is_rtp_ext: "), MAX_SYNC_DELTA + 1);
    EXPECT_TRUE(log.has(foreign_line()));

    log.clear();
    span = tsb::cat({tsb::fill(30, 1), rtp_bytes(2)});
    const cut c = cut::of(ring, span);
    EXPECT_EQ(c.lengths(), lens(2, 1328));
    EXPECT_EQ(c.offset, 30);
    EXPECT_EQ(log.count("(WRN)  is_rtp_ext: "), 30u);
    EXPECT_TRUE(log.has(shift_line(30, "RTP")));
}

// The RTP test looks 12 and more bytes ahead. Behind a span in the heap there may be nothing that can be read, and
// behind the mirror there is the dead zone.
TEST_F(mmr_reader, does_not_look_behind_the_memory_of_an_rtp_span)
{
    make_rtp();
    const size_t size = 216;
    bytes data(size, 0x90); // an extension flag: the test wants bytes 14 and 15
    for (size_t i = 1; i < size; i += 2)
        data[i] = 33;
    const auto exact = std::make_unique<uint8_t[]>(size);
    std::copy(data.begin(), data.end(), exact.get());
    EXPECT_EQ(cut::of(ring, {exact.get(), size}).rc, FOREIGN);

    uint8_t* last = ring->buf + 2 * ring->buflen - size;
    std::copy(data.begin(), data.end(), last);
    EXPECT_EQ(cut::of(ring, {last, size}).rc, FOREIGN);
}

// A header counts as far as the span goes; inside the ring, what lies behind the span is looked at as well.
TEST_F(mmr_reader, finds_an_rtp_header_in_the_last_bytes_of_a_span)
{
    make_rtp();
    const bytes unit = rtp_bytes(1);
    for (const size_t tail : {13, 14, 15, 16, 17}) {
        const size_t size = 100 + tail;
        const auto exact = std::make_unique<uint8_t[]>(size);
        std::fill_n(exact.get(), 100, uint8_t{1});
        std::copy_n(unit.data(), tail, exact.get() + 100);
        const cut c = cut::of(ring, {exact.get(), size});
        EXPECT_EQ(c.rc, EMPTY) << tail;
        EXPECT_EQ(c.offset, 100) << tail;
    }
    for (const size_t at : {ring->buflen, 2 * ring->buflen - 16}) { // 16 bytes ahead of the dead zone: just enough
        uint8_t* header = ring->buf + at;
        std::copy_n(unit.data(), 16, header);
        const cut c = cut::of(ring, {header, 12});
        EXPECT_EQ(c.rc, EMPTY) << at;
        EXPECT_EQ(c.offset, 0) << at;
    }
}

// ---- the payload ----------------------------------------------------------------------------------------------

TEST_F(mmr_reader, finds_no_sync_in_an_empty_ring)
{
    make(4096);
    log.clear();
    EXPECT_EQ(cut::of(ring).rc, NO_SYNC);
    EXPECT_EQ(log.text(), "(ERR)  mmr_oget_buf: failed to sync at delta=0, skipping\n");
    EXPECT_EQ(ring->pld_pos, -1);
}

TEST_F(mmr_reader, finds_no_sync_in_a_drained_ring)
{
    make_ts();
    take(1316);
    EXPECT_EQ(cut::of(ring).rc, NO_SYNC);
    EXPECT_EQ(log.text(), "(ERR)  mmr_oget_buf: failed to sync at delta=0, skipping\n");
}

TEST_F(mmr_reader, touches_nothing_in_a_ring_that_refused_its_first_input)
{
    make(4096);
    ASSERT_EQ(put(tsb::fill(500, 1)), FOREIGN);
    ring->buf[3] = 0x47;
    const std::string before = state();
    cut c = cut::of(ring, 9);
    EXPECT_EQ(c.rc, NO_SYNC);
    EXPECT_EQ(c.count, 9u);
    bytes span = ts_bytes(1880);
    c = cut::of(ring, span, 9);
    EXPECT_EQ(c.rc, NO_SYNC) << "nor is there a unit to cut a span by";
    EXPECT_EQ(c.count, 9u);
    EXPECT_EQ(state(), before);
}

TEST_F(mmr_reader, cuts_the_payload_where_it_lies)
{
    make_ts();
    ASSERT_EQ(put(ts_bytes(188 * 3)), 0);
    const std::string before = state();
    EXPECT_EQ(cut::of(ring).lengths(), (lens{1316, 188 * 3}));
    EXPECT_EQ(cut::of(ring).at(1), ring->buf + 1316);
    EXPECT_EQ(state(), before) << "cutting does not consume";
    unpacked();
    EXPECT_EQ(cut::of(ring).lengths(), lens(10, 188));
}

TEST_F(mmr_reader, cuts_a_payload_that_runs_over_the_end_as_one_run)
{
    const size_t size = 16384, head = 188 * 80; // 15040
    make_standing(size, head, ts_bytes(188 * 20, head));
    unpacked();
    const cut c = cut::of(ring);
    EXPECT_EQ(c.lengths(), lens(20, 188));
    EXPECT_EQ(c.at(7), ring->buf + head + 7 * 188);
    EXPECT_LT(c.at(7), ring->buf + size);
    EXPECT_GT(c.at(8), ring->buf + size) << "in the mirror";
    for (size_t i = 0; i < c.count; ++i)
        EXPECT_EQ(bytes(c.at(i), c.at(i) + 188), ts_bytes(188, head + i * 188)) << i;

    const struct mm_opt packed = {};
    mmr_set_opt(ring, &packed);
    EXPECT_EQ(cut::of(ring).lengths(), (lens{1316, 1316, 188 * 6}));
}

TEST_F(mmr_reader, drops_stray_bytes_at_the_head_of_the_payload)
{
    make(16 * 4096);
    ASSERT_EQ(put(behind(5, 1880)), 0);
    unpacked();
    log.clear();
    struct iovec iov[20];
    size_t count = 20;
    ssize_t offset = 0;
    EXPECT_EQ(mmr_oget_buf(ring, nullptr, 0, iov, &count, &offset), 0);
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(offset, 5);
    EXPECT_EQ(log.text(), shift_line(5));
    EXPECT_EQ(ring->pld_pos, 5);
    EXPECT_EQ(payload_size(), 1880u);
    log.clear();
    EXPECT_EQ(cut::of(ring).count, 10u);
    EXPECT_EQ(log.text(), "") << "in sync now";
}

TEST_F(mmr_reader, moves_the_head_to_0_when_stray_bytes_end_at_the_end)
{
    make_standing(4096, 4091, behind(5, 1880));
    EXPECT_EQ(cut::of(ring).rc, 0);
    EXPECT_EQ(ring->pld_pos, 0) << "unlike consuming, which leaves it at the end";
    EXPECT_EQ(payload(), ts_bytes(1880));
    mmr_destroy(ring);

    make_standing(4096, 4091, behind(4, 1880));
    EXPECT_EQ(cut::of(ring).rc, 0);
    EXPECT_EQ(ring->pld_pos, 4095);
}

TEST_F(mmr_reader, skips_no_further_in_the_payload_than_its_size_is_above_the_head)
{
    // By design: head 1990, payload 2000: ten bytes are searched. Capping of streams with stray bytes relies on
    // exactly this reach.
    make_standing(8192, 1990, behind(10, 1990));
    EXPECT_EQ(cut::of(ring).rc, 0);
    EXPECT_EQ(ring->pld_pos, 2000);
    mmr_destroy(ring);

    make_standing(8192, 1990, behind(11, 1989));
    const std::string before = state();
    EXPECT_EQ(cut::of(ring).rc, FOREIGN);
    EXPECT_EQ(state(), before);
    mmr_destroy(ring);

    make_standing(8192, 2000, behind(1, 1999));
    EXPECT_EQ(cut::of(ring).rc, FOREIGN) << "a reach of 0 is the head alone";
}

TEST_F(mmr_reader, skips_up_to_214_bytes_when_the_head_is_above_the_payloads_size)
{
    make_standing(8192, 4000, behind(214, 1880));
    EXPECT_EQ(cut::of(ring).rc, 0);
    EXPECT_EQ(ring->pld_pos, 4214);
    EXPECT_EQ(payload_size(), 1880u);
    mmr_destroy(ring);

    make_standing(8192, 4000, behind(215, 1880));
    const std::string before = state();
    EXPECT_EQ(cut::of(ring).rc, FOREIGN);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(log.text(), foreign_line());
}

TEST_F(mmr_reader, keeps_the_shift_of_a_short_stretch_in_which_it_found_no_sync)
{
    // Head 95, payload 100: the reach of 5 ends inside the data, so that the process lives on.
    make(4096);
    ASSERT_EQ(put(ts_bytes(1316)), 0);
    take(1316);
    ASSERT_EQ(put(ts_bytes(4096 - 1316, 1316)), 0);
    take(4096 - 1316);
    ASSERT_EQ(ring->pld_pos, 4096);
    ASSERT_EQ(put(ts_bytes(95)), 0);
    take(95);
    ASSERT_EQ(ring->pld_pos, 95);
    ASSERT_EQ(put(tsb::fill(100, 1)), 0);
    log.clear();

    struct iovec iov[9];
    size_t count = 9;
    ssize_t offset = 0;
    EXPECT_EQ(mmr_oget_buf(ring, nullptr, 0, iov, &count, &offset), NO_SYNC);
    EXPECT_EQ(log.text(), shift_line(6) + "(ERR)  mmr_oget_buf: failed to sync at delta=6, skipping\n");
    EXPECT_EQ(offset, 6);
    EXPECT_EQ(ring->pld_pos, 101);
    EXPECT_EQ(payload_size(), 94u);
}

TEST_F(mmr_reader, searches_all_of_an_rtp_payload)
{
    make_rtp();
    take(1328);
    ASSERT_EQ(put(tsb::cat({tsb::fill(600, 1), rtp_bytes(3)})), 0);
    log.clear();
    EXPECT_EQ(cut::of(ring).lengths(), lens(3, 1328));
    EXPECT_EQ(ring->pld_pos, 1328 + 600);
    EXPECT_EQ(log.count("(WRN)  is_rtp_ext: "), 600u);
    EXPECT_TRUE(log.has(shift_line(600, "RTP")));
}

// ---- consuming ------------------------------------------------------------------------------------------------

TEST_F(mmr_reader, consumes_the_records_it_is_given)
{
    make_ts();
    ASSERT_EQ(put(ts_bytes(188 * 7)), 0);
    unpacked();
    const cut c = cut::of(ring);
    log.clear();
    EXPECT_EQ(mmr_oput(ring, c.recs.data(), 3), 11 * 188);
    EXPECT_EQ(ring->pld_pos, 3 * 188);
    EXPECT_EQ(payload_size(), 11u * 188u);
    EXPECT_EQ(mmr_oput(ring, c.recs.data(), 0), 11 * 188);
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_reader, leaves_an_empty_ring_when_all_is_consumed)
{
    make_ts();
    const cut c = cut::of(ring);
    EXPECT_EQ(mmr_oput(ring, c.recs.data(), c.count), 0);
    struct mm_point pt = {};
    ASSERT_TRUE(mmr_iget(ring, &pt));
    EXPECT_EQ(pt.pos, ring->pld_pos);
    EXPECT_EQ(pt.len, ring->buflen);
    log.clear();
    EXPECT_EQ(mmr_snapshot(ring, -1), 0);
    EXPECT_EQ(log.text(), "(WRN)  mmr_snapshot: no payload, nothing to write\n");
}

TEST_F(mmr_reader, lets_the_head_stand_at_the_end_but_not_behind_it)
{
    make_standing(4096, 3000, ts_bytes(2000, 3000));
    take(1096);
    EXPECT_EQ(ring->pld_pos, 4096);
    EXPECT_EQ(payload(), ts_bytes(904, 4096));
    struct mm_point pt = {};
    ASSERT_TRUE(mmr_iget(ring, &pt));
    EXPECT_EQ(pt.pos, 904);
    take(1);
    EXPECT_EQ(ring->pld_pos, 1);
    EXPECT_EQ(payload(), ts_bytes(903, 4097));
}

TEST_F(mmr_reader, consuming_more_than_the_payload_fails_a_logged_assertion)
{
    make_ts();
    const struct iovec rec = {nullptr, 1317};
    EXPECT_DEATH((void)mmr_oput(ring, &rec, 1), "total <= mr->pld_size");
}

// ---- verbosity ------------------------------------------------------------------------------------------------

TEST_F(mmr_reader, tells_what_it_packs_and_consumes_when_asked_to)
{
    make_ts();
    bytes span = ts_bytes(3000);
    mmr_set_verbosity(MMR_OGET_VERBOSE);
    (void)cut::of(ring, span, 2);
    EXPECT_EQ(log.text(), "(DBG)  mmr_ts_pack_buf: messages exp/packed=2/2\n");
    log.clear();
    bytes exact = ts_bytes(1316);
    (void)cut::of(ring, exact);
    EXPECT_EQ(log.text(), "(DBG)  mmr_ts_pack_buf: messages exp/packed=1/1\n");
    log.clear();
    unpacked();
    const cut c = cut::of(ring);
    EXPECT_EQ(log.text(), "(DBG)  mmr_pack_buf: segments packed=7\n");
    log.clear();
    mmr_set_verbosity(MMR_OPUT_VERBOSE);
    (void)mmr_oput(ring, c.recs.data(), 2);
    EXPECT_EQ(log.text(), "(DBG)  mmr_oput: 2/376 datagrams/bytes out\n");
    log.clear();
    mmr_set_verbosity(~(MMR_OGET_VERBOSE | MMR_OPUT_VERBOSE));
    (void)cut::of(ring, span);
    (void)mmr_oput(ring, c.recs.data(), 1);
    EXPECT_EQ(log.text(), "");
    mmr_set_verbosity(0);
}

TEST_F(mmr_reader, has_its_limits)
{
    EXPECT_EQ(MAX_SYNC_DELTA, 214u);
    EXPECT_EQ(MMR_MTU, 1500u);
}
