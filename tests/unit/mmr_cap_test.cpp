// Capping, packet numbers, the information record and the snapshot.
#include "support/ring_kit.h"

#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <limits>

using namespace ringkit;

namespace
{

// What the post-processing function of a test has seen; it fails at record `fail_at`.
std::vector<struct iovec> g_seen;
size_t g_fail_at = std::numeric_limits<size_t>::max();

int see(const struct iovec* rec)
{
    if (g_seen.size() == g_fail_at) return 42;
    g_seen.push_back(*rec);
    return 0;
}

// What the ring of a test held each time that a record was shown.
mmr_t g_shown = nullptr;
std::vector<size_t> g_held;

int see_payload(const struct iovec*)
{
    struct mm_info info;
    (void)mmr_get_info(g_shown, &info);
    g_held.push_back(info.pld_size);
    return 0;
}

class mmr_capping : public ring_test
{
protected:
    void SetUp() override
    {
        g_seen.clear();
        g_fail_at = std::numeric_limits<size_t>::max();
    }

    // A ring that holds `count` bytes of TS from its start and gives each packet alone.
    void make_holding(size_t count, size_t size = MIB)
    {
        make(size);
        ASSERT_EQ(put(ts_bytes(count)), 0);
        unpacked();
        log.clear();
    }
};

class mmr_numbers : public ring_test
{
protected:
    void SetUp() override
    {
        make(4096);
        log.clear();
    }
};

const char* const INVARIANT = "mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum";

} // namespace

// ---- how much goes --------------------------------------------------------------------------------------------

TEST_F(mmr_capping, drops_whole_packets_until_the_payload_is_below_the_limit)
{
    make_holding(1046000);
    mmr_add_pkts(ring, 5563);
    EXPECT_EQ(mmr_cap(ring, 1044480), 1044308);
    EXPECT_EQ(payload_size(), 1044308u);
    EXPECT_EQ(ring->pld_pos, 1692);
    EXPECT_EQ(info().first_pktnum, 9u);
    EXPECT_EQ(info().last_pktnum, 5563u);
    struct mm_point pt = {};
    ASSERT_TRUE(mmr_iget(ring, &pt));
    EXPECT_EQ(pt.len, 4268u);
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_capping, drops_packed_records_when_packing_is_on)
{
    make_holding(1046000);
    const struct mm_opt packed = {};
    mmr_set_opt(ring, &packed);
    mmr_add_pkts(ring, 5563);
    EXPECT_EQ(mmr_cap(ring, 1044480), 1046000 - 2632);
    EXPECT_EQ(ring->pld_pos, 2632);
    EXPECT_EQ(info().first_pktnum, 2u) << "records, not packets";
}

TEST_F(mmr_capping, does_nothing_at_or_below_the_limit)
{
    make_holding(18800);
    ring->buf[0] = 0; // not even looked at
    for (const size_t limit : {size_t{18800}, size_t{18801}, MIB}) {
        EXPECT_EQ(mmr_cap(ring, limit), 18800);
        EXPECT_EQ(ring->pld_pos, 0);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_capping, drops_one_packet_for_one_byte_too_many)
{
    make_holding(18800);
    EXPECT_EQ(mmr_cap(ring, 18799), 18800 - 188);
}

TEST_F(mmr_capping, drops_one_more_packet_when_it_lands_on_the_limit)
{
    make_holding(18800);
    EXPECT_EQ(mmr_cap(ring, 18800 - 187), 18800 - 188);
    mmr_destroy(ring);
    make_holding(18800);
    EXPECT_EQ(mmr_cap(ring, 18800 - 188), 18800 - 2 * 188);
}

TEST_F(mmr_capping, drains_a_ring_of_whole_packets_at_limit_0)
{
    make_holding(188 * 40);
    EXPECT_EQ(mmr_cap(ring, 0), 0);
    EXPECT_EQ(payload_size(), 0u);
    EXPECT_EQ(mmr_cap(ring, 0), 0) << "an empty ring is below any limit";
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_capping, drains_packed_records_with_a_short_last_one)
{
    make_holding(188 * 17);
    const struct mm_opt packed = {};
    mmr_set_opt(ring, &packed);
    mmr_set_verbosity(MMR_CAP_VERBOSE);
    EXPECT_EQ(mmr_cap(ring, 0), 0);
    mmr_set_verbosity(0);
    EXPECT_EQ(log.text(), "(DBG)  mmr_cap_pp: 2 records must be capped to 564, cap=0\n"
                          "(DBG)  mmr_cap_pp: capped to 564 bytes\n"
                          "(DBG)  mmr_cap_pp: 1 records must be capped to 0, cap=0\n"
                          "(DBG)  mmr_cap_pp: capped to 0 bytes\n");
}

TEST_F(mmr_capping, fails_when_less_than_a_packet_is_left_above_the_limit)
{
    make_holding(188 * 3 + 10);
    EXPECT_EQ(mmr_cap(ring, 0), -1);
    EXPECT_EQ(payload_size(), 10u) << "the whole ones have gone";
    EXPECT_EQ(log.text(), "(WRN)  mmr_pack_buf: not enough payload data, 10 bytes\n"
                          "(ERR)  mmr_cap_pp: mmr_oget() ERROR(11)\n");
}

TEST_F(mmr_capping, takes_as_many_passes_as_its_records_need)
{
    make_holding(188 * 1000);
    mmr_add_pkts(ring, 1000);
    mmr_set_verbosity(MMR_CAP_VERBOSE);
    EXPECT_EQ(mmr_cap(ring, 188 * 300), 188 * 299);
    mmr_set_verbosity(0);
    EXPECT_EQ(info().first_pktnum, 701u);
    EXPECT_EQ(ring->pld_pos, 188 * 701);
    EXPECT_EQ(log.text(), text("(DBG)  mmr_cap_pp: 256 records must be capped to %d, cap=56400\n"
                               "(DBG)  mmr_cap_pp: capped to %d bytes\n"
                               "(DBG)  mmr_cap_pp: 256 records must be capped to %d, cap=56400\n"
                               "(DBG)  mmr_cap_pp: capped to %d bytes\n"
                               "(DBG)  mmr_cap_pp: 189 records must be capped to %d, cap=56400\n"
                               "(DBG)  mmr_cap_pp: capped to %d bytes\n",
                               188 * 744, 188 * 744, 188 * 488, 188 * 488, 188 * 299, 188 * 299));
}

TEST_F(mmr_capping, ends_with_a_pass_that_lands_on_the_limit_with_its_last_record)
{
    make_holding(188 * 300);
    EXPECT_EQ(mmr_cap(ring, 188 * 44), 188 * 44);
    mmr_destroy(ring);
    make_holding(188 * 300);
    EXPECT_EQ(mmr_cap(ring, 188 * 45), 188 * 44);
    mmr_destroy(ring);
    make_holding(188 * 300);
    EXPECT_EQ(mmr_cap(ring, 188 * 43), 188 * 42);
}

TEST_F(mmr_capping, drops_rtp_packets_whole_and_counts_each_as_one)
{
    make(MIB);
    ASSERT_EQ(put(rtp_bytes(20)), 0);
    mmr_add_pkts(ring, 20);
    EXPECT_EQ(mmr_cap(ring, 17 * 1328 + 1), 17 * 1328);
    EXPECT_EQ(info().first_pktnum, 3u);
    EXPECT_EQ(info().last_pktnum, 20u);
}

TEST_F(mmr_capping, works_across_the_end)
{
    make_standing(16384, 188 * 80, ts_bytes(188 * 40, 188 * 80));
    unpacked();
    EXPECT_EQ(mmr_cap(ring, 188 * 21), 188 * 20);
    EXPECT_EQ(ring->pld_pos, 188 * 100 - 16384);
    EXPECT_EQ(payload(), ts_bytes(188 * 20, 188 * 100));
}

// ---- heads that are out of sync -------------------------------------------------------------------------------

TEST_F(mmr_capping, drops_stray_bytes_with_the_first_pass_and_counts_them_nowhere)
{
    make(MIB);
    ASSERT_EQ(put(tsb::cat({tsb::fill(5, 1), ts_bytes(18800)})), 0);
    unpacked();
    mmr_add_pkts(ring, 100);
    log.clear();
    EXPECT_EQ(mmr_cap(ring, 18800 - 187), 18800 - 188);
    EXPECT_EQ(info().first_pktnum, 1u);
    EXPECT_EQ(log.text(), text("(WRN)  mmr_oget_buf: [%s] shifting 5 bytes to TS-sync\n", name().c_str()));
}

TEST_F(mmr_capping, may_find_that_the_stray_bytes_were_all_there_was_too_much)
{
    make(MIB);
    ASSERT_EQ(put(tsb::cat({tsb::fill(5, 1), ts_bytes(18800)})), 0);
    unpacked();
    mmr_add_pkts(ring, 100);
    EXPECT_EQ(mmr_cap(ring, 18801), 18800);
    EXPECT_EQ(info().first_pktnum, 0u);
}

TEST_F(mmr_capping, fails_on_sync_lost_within_its_records)
{
    make_holding(18800);
    ring->buf[188 * 99] = 0;
    EXPECT_EQ(mmr_cap(ring, 18799), -1);
    EXPECT_EQ(payload_size(), 18800u);
    EXPECT_EQ(log.text(), "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n"
                          "(ERR)  mmr_cap_pp: mmr_oget() ERROR(-9)\n");
}

TEST_F(mmr_capping, does_not_look_behind_its_256_records)
{
    make_holding(188 * 300);
    ring->buf[188 * 256] = 0;
    EXPECT_EQ(mmr_cap(ring, 188 * 300 - 1), 188 * 299);
    EXPECT_EQ(mmr_cap(ring, 188 * 299 - 1), -1) << "the damage has come within reach";
}

TEST_F(mmr_capping, fails_on_a_head_without_sync)
{
    make_holding(18800);
    memset(ring->buf, 1, 300);
    EXPECT_EQ(mmr_cap(ring, 18799), -1);
    EXPECT_EQ(payload_size(), 18800u);
    EXPECT_TRUE(log.has("(ERR)  mmr_cap_pp: mmr_oget() ERROR(-14)\n")) << log.text();
}

TEST_F(mmr_capping, fails_on_packed_records_with_a_gap)
{
    make_holding(18800);
    const struct mm_opt packed = {};
    mmr_set_opt(ring, &packed);
    ring->buf[188 * 99] = 0;
    EXPECT_EQ(mmr_cap(ring, 18799), -1);
    EXPECT_TRUE(log.has("(ERR)  mmr_cap_pp: mmr_oget() ERROR(-1)\n")) << log.text();
}

TEST_F(mmr_capping, fails_on_a_ring_that_refused_its_first_input)
{
    make(4096);
    ASSERT_EQ(put(tsb::fill(500, 1)), -EFAULT);
    const std::string before = state();
    EXPECT_EQ(mmr_cap(ring, 100), -1);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(log.has("(ERR)  mmr_cap_pp: mmr_oget() ERROR(-9)\n")) << log.text();
    EXPECT_EQ(mmr_cap(ring, 500), 500) << "within the limit nothing is looked at";
}

// ---- post-processing ------------------------------------------------------------------------------------------

TEST_F(mmr_capping, shows_each_record_before_it_goes)
{
    make_holding(18800);
    EXPECT_EQ(mmr_cap_pp(ring, 18800 - 188 * 3, see), 18800 - 188 * 4);
    ASSERT_EQ(g_seen.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(g_seen[i].iov_base, ring->buf + 188 * i);
        EXPECT_EQ(g_seen[i].iov_len, 188u);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_capping, holds_the_records_while_it_shows_them)
{
    make_holding(18800);
    g_shown = ring;
    EXPECT_EQ(mmr_cap_pp(ring, 18800 - 188 * 3, see_payload), 18800 - 188 * 4);
    EXPECT_EQ(g_held, std::vector<size_t>(4, 18800));
}

TEST_F(mmr_capping, shows_the_records_of_all_passes)
{
    make_holding(188 * 1000);
    EXPECT_EQ(mmr_cap_pp(ring, 188 * 300, see), 188 * 299);
    ASSERT_EQ(g_seen.size(), 701u);
    for (size_t i = 0; i < g_seen.size(); ++i)
        EXPECT_EQ(g_seen[i].iov_base, ring->buf + 188 * i);
}

TEST_F(mmr_capping, drops_the_records_even_when_showing_them_fails)
{
    make_holding(18800);
    mmr_add_pkts(ring, 100);
    g_fail_at = 1;
    EXPECT_EQ(mmr_cap_pp(ring, 18800 - 188 * 3, see), 18800 - 188 * 4);
    EXPECT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(info().first_pktnum, 4u);
    EXPECT_EQ(log.text(), "(ERR)  mmr_cap_pp: error(42) post-processing record[1]\n"
                          "(WRN)  mmr_cap_pp: 3 records were not post-processed\n");
}

TEST_F(mmr_capping, shows_nothing_when_nothing_has_to_go)
{
    make_holding(18800);
    EXPECT_EQ(mmr_cap_pp(ring, 18800, see), 18800);
    EXPECT_TRUE(g_seen.empty());
}

// ---- packet numbers -------------------------------------------------------------------------------------------

TEST_F(mmr_numbers, are_off_until_packets_are_added)
{
    mmr_rm_pkts(ring, 5);
    EXPECT_EQ(info().first_pktnum, 0u);
    EXPECT_FALSE(ring->using_pktnums);
    mmr_add_pkts(ring, 0);
    EXPECT_TRUE(ring->using_pktnums);
}

TEST_F(mmr_numbers, go_up_by_what_is_added_and_removed)
{
    mmr_add_pkts(ring, 100);
    mmr_add_pkts(ring, 50);
    mmr_rm_pkts(ring, 30);
    EXPECT_EQ(info().first_pktnum, 30u);
    EXPECT_EQ(info().last_pktnum, 150u);
    mmr_rm_pkts(ring, 120);
    EXPECT_EQ(info().first_pktnum, 150u);
}

TEST_F(mmr_numbers, fail_an_assertion_when_more_go_than_came)
{
    mmr_add_pkts(ring, 100);
    EXPECT_DEATH(mmr_rm_pkts(ring, 101), INVARIANT);
}

TEST_F(mmr_numbers, fail_an_assertion_in_each_function_when_they_are_broken)
{
    mmr_add_pkts(ring, 100);
    ring->first_pktnum = 101;
    EXPECT_DEATH((void)mmr_adjust_pktnum(ring, 1), INVARIANT);
    EXPECT_DEATH(mmr_add_pkts(ring, 0), INVARIANT);
    EXPECT_DEATH(mmr_rm_pkts(ring, 0), INVARIANT);
    ring->first_pktnum = -1;
    EXPECT_DEATH((void)mmr_adjust_pktnum(ring, 1), INVARIANT);
    EXPECT_DEATH(mmr_add_pkts(ring, 0), INVARIANT);
    ring->first_pktnum = 0;
    EXPECT_DEATH((void)mmr_adjust_pktnum(ring, std::numeric_limits<uint64_t>::max()), INVARIANT);
}

TEST_F(mmr_numbers, keep_their_distance_when_they_are_adjusted)
{
    mmr_add_pkts(ring, 1500);
    mmr_rm_pkts(ring, 1000);
    EXPECT_EQ(mmr_adjust_pktnum(ring, 1), 501u);
    EXPECT_EQ(info().first_pktnum, 1u);
    EXPECT_EQ(info().last_pktnum, 501u);
    EXPECT_EQ(log.text(), "(INF)  mmr_adjust_pktnum: 1000/1500 -> 1/501\n");
}

TEST_F(mmr_numbers, stay_on_after_an_adjustment)
{
    mmr_add_pkts(ring, 10);
    EXPECT_EQ(mmr_adjust_pktnum(ring, 7000), 7010u);
    mmr_rm_pkts(ring, 10);
    EXPECT_EQ(info().first_pktnum, 7010u);
}

// ---- information ----------------------------------------------------------------------------------------------

TEST_F(mmr_numbers, are_part_of_the_information)
{
    ASSERT_EQ(put(ts_bytes(1880)), 0);
    mmr_add_pkts(ring, 10);
    mmr_rm_pkts(ring, 3);
    struct mm_info got;
    memset(&got, 0xff, sizeof(got));
    EXPECT_EQ(mmr_get_info(ring, &got), 0);
    EXPECT_EQ(got.pld_size, 1880u);
    EXPECT_STREQ(got.stype.sym, "TS");
    EXPECT_EQ(got.ts_len, 188u);
    EXPECT_EQ(got.first_pktnum, 3u);
    EXPECT_EQ(got.last_pktnum, 10u);
}

// ---- snapshot -------------------------------------------------------------------------------------------------

using mmr_snapshot_ = ring_test;

namespace
{

// What a snapshot of the ring writes, read back.
bytes snapshot_of(mmr_t ring)
{
    const int fd = memfd_create("snapshot", 0);
    EXPECT_GE(fd, 0);
    const ssize_t written = mmr_snapshot(ring, fd);
    EXPECT_GE(written, 0);
    bytes out(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    EXPECT_EQ(pread(fd, out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));
    EXPECT_EQ(written, static_cast<ssize_t>(out.size()));
    close(fd);
    return out;
}

} // namespace

TEST_F(mmr_snapshot_, of_a_new_ring_writes_nothing)
{
    make(4096);
    log.clear();
    EXPECT_EQ(mmr_snapshot(ring, -1), 0);
    EXPECT_EQ(log.text(), "(WRN)  mmr_snapshot: no payload, nothing to write\n");
}

TEST_F(mmr_snapshot_, of_a_refused_input_writes_nothing)
{
    make(4096);
    ASSERT_EQ(put(tsb::fill(500, 1)), -EFAULT);
    log.clear();
    EXPECT_EQ(mmr_snapshot(ring, -1), 0);
    EXPECT_EQ(log.text(), "(WRN)  mmr_snapshot: no payload, nothing to write\n");
}

TEST_F(mmr_snapshot_, writes_the_payload_byte_for_byte)
{
    make(MIB);
    ASSERT_EQ(put(ts_bytes(100000)), 0);
    EXPECT_EQ(snapshot_of(ring), ts_bytes(100000));
    take(188 * 10);
    EXPECT_EQ(snapshot_of(ring), ts_bytes(100000 - 1880, 1880));
    EXPECT_EQ(payload_size(), 100000u - 1880u) << "and leaves it there";
}

TEST_F(mmr_snapshot_, writes_a_payload_across_the_end_in_order)
{
    make_standing(16384, 10000, ts_bytes(16384, 10000));
    EXPECT_EQ(snapshot_of(ring), ts_bytes(16384, 10000));
    take(6384);
    ASSERT_EQ(ring->pld_pos, 16384);
    EXPECT_EQ(snapshot_of(ring), ts_bytes(10000, 16384));
}

TEST_F(mmr_snapshot_, also_writes_stray_bytes_that_no_search_has_dropped)
{
    make(MIB);
    const bytes input = tsb::cat({tsb::fill(5, 1), ts_bytes(1880)});
    ASSERT_EQ(put(input), 0);
    EXPECT_EQ(snapshot_of(ring), input);
}

TEST_F(mmr_snapshot_, makes_one_write_call)
{
    make_standing(16384, 10000, ts_bytes(16000, 10000));
    int fd[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fd), 0); // a call is a message
    EXPECT_EQ(mmr_snapshot(ring, fd[1]), 16000);
    bytes got(20000);
    const ssize_t n = recv(fd[0], got.data(), got.size(), MSG_DONTWAIT);
    ASSERT_EQ(n, 16000);
    got.resize(static_cast<size_t>(n));
    EXPECT_EQ(got, ts_bytes(16000, 10000));
    close(fd[0]);
    close(fd[1]);
}

TEST_F(mmr_snapshot_, gives_the_result_of_a_failing_write)
{
    make_standing(16384, 10000, ts_bytes(16000, 10000));
    EXPECT_EQ(mmr_snapshot(ring, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.text(), text("(ERR)  mmr_snapshot: write(-1, %p, 16000) ERROR(%d): %s\n",
                               static_cast<void*>(ring->buf + 10000), EBADF, strerror(EBADF)));
}

TEST_F(mmr_snapshot_, does_not_hold_a_reader_that_has_gone_against_anybody)
{
    make_standing(16384, 10000, ts_bytes(16000, 10000));
    (void)signal(SIGPIPE, SIG_IGN);
    int fd[2];
    ASSERT_EQ(pipe(fd), 0);
    close(fd[0]);
    EXPECT_EQ(mmr_snapshot(ring, fd[1]), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(log.text(), "");
    close(fd[1]);
}
