// Capping with what it remembers of the head's units, beside the plain pass that looks at every record each time:
// a post-processing function asks for the records and so for the plain pass. Both must do the same to twin rings.
#include "support/ring_kit.h"

#include "rtp.h"

#include <random>

using namespace ringkit;

namespace
{

int look_at(const struct iovec*)
{
    return 0;
}

struct twins {
    mmr_t plain = nullptr;
    mmr_t quick = nullptr;

    explicit twins(size_t size)
    {
        EXPECT_EQ(mmr_create(&plain, size), 0);
        EXPECT_EQ(mmr_create(&quick, size), 0);
        const struct mm_opt opt = {.no_mtu_pack = true};
        mmr_set_opt(plain, &opt);
        mmr_set_opt(quick, &opt);
    }
    ~twins()
    {
        mmr_destroy(plain);
        mmr_destroy(quick);
    }
    twins(const twins&) = delete;
    twins& operator=(const twins&) = delete;

    void put(bytes_view data)
    {
        for (mmr_t ring : {plain, quick}) {
            struct mm_point pt = {};
            uint8_t* dest = mmr_iget(ring, &pt);
            ASSERT_NE(dest, nullptr);
            ASSERT_GE(pt.len, data.size());
            std::copy(data.begin(), data.end(), dest);
            pt.len = data.size();
            ASSERT_EQ(mmr_iput(ring, &pt), 0);
            mmr_add_pkts(ring, data.size() / ring->ts_len + 1); // never fewer than come in
        }
    }

    void take(size_t count)
    {
        const struct iovec part = {nullptr, count};
        for (mmr_t ring : {plain, quick})
            ASSERT_GE(mmr_oput(ring, &part, 1), 0);
    }

    void pack(bool on)
    {
        const struct mm_opt opt = {.no_mtu_pack = !on};
        for (mmr_t ring : {plain, quick})
            mmr_set_opt(ring, &opt);
    }

    // The common result of capping both.
    ssize_t cap(size_t limit)
    {
        const ssize_t expected = mmr_cap_pp(plain, limit, look_at);
        EXPECT_EQ(mmr_cap(quick, limit), expected);
        EXPECT_EQ(quick->pld_pos, plain->pld_pos);
        EXPECT_EQ(quick->pld_size, plain->pld_size);
        EXPECT_EQ(quick->first_pktnum, plain->first_pktnum);
        EXPECT_EQ(quick->last_pktnum, plain->last_pktnum);
        return expected;
    }
};

class mmr_cap_twin : public ::testing::Test
{
protected:
    line_log log;

    // The lines since the last call, with the ring's name taken out.
    std::string lines(const struct mm_ring* ring)
    {
        std::string out = log.text();
        const std::string name = ring->sname;
        for (size_t at = out.find(name); at != std::string::npos; at = out.find(name, at))
            out.replace(at, name.size(), "-");
        log.clear();
        return out;
    }

    // Caps both, each by itself, and compares what they say as well.
    ssize_t cap_and_compare_lines(twins& t, size_t limit)
    {
        log.clear();
        const ssize_t expected = mmr_cap_pp(t.plain, limit, look_at);
        const std::string said = lines(t.plain);
        EXPECT_EQ(mmr_cap(t.quick, limit), expected);
        EXPECT_EQ(lines(t.quick), said);
        EXPECT_EQ(t.quick->pld_pos, t.plain->pld_pos);
        EXPECT_EQ(t.quick->pld_size, t.plain->pld_size);
        EXPECT_EQ(t.quick->first_pktnum, t.plain->first_pktnum);
        EXPECT_TRUE(mmr_validate(t.quick));
        return expected;
    }

    void run_damaged(unsigned seed, bool rtp)
    {
        SCOPED_TRACE(text("seed %u, %s", seed, rtp ? "rtp" : "ts"));
        std::mt19937 rng(seed);
        constexpr size_t least = 400; // a shorter payload without sync ends the process, by design
        twins t(32 * PAGE);
        const bytes sound = rtp ? rtp_bytes(60) : ts_bytes(188 * 7 * 60);
        const size_t unit = rtp ? 1328 : 188;
        t.put(bytes_view(sound).first(rtp ? 2 * unit : 7 * unit));
        size_t at = 0, failed = 0, lost = 0;
        for (int round = 0; round < 1500 && !HasFailure(); ++round) {
            bytes next(sound.begin() + static_cast<ptrdiff_t>(at), sound.end());
            next.resize(std::min(next.size(), 1 + rng() % (rng() % 8 == 0 ? 40000 : 3000)));
            at = (at + next.size()) % sound.size();
            if (rng() % 30 == 0) next[rng() % next.size() / unit * unit] ^= 0x40;
            if (rng() % 60 == 0) next.insert(next.begin(), rng() % 300, 1);
            next.resize(std::min(next.size(), t.plain->buflen - t.plain->pld_size));
            if (!next.empty()) t.put(next);

            if (rng() % 20 == 0) t.pack(rng() % 2 == 0);
            if (rng() % 20 == 0) mmr_set_verbosity(rng() % 3 == 0 ? MMR_CAP_VERBOSE : 0);
            if (rng() % 40 == 0 && t.plain->pld_size > 1000) t.take(rng() % 1000);
            const size_t limit = rng() % 4 == 0 ? least + rng() % (20 * PAGE) : 28 * PAGE - rng() % 2000;
            if (cap_and_compare_lines(t, limit) >= 0) continue;
            ++failed;
            // Whoever runs into that ends; here the head is moved past what is amiss.
            while (t.plain->pld_size > least && t.plain->buf[t.plain->pld_pos] == sound[0])
                t.take(std::min(unit, t.plain->pld_size - least));
            lost += t.plain->pld_size > least;
            if (t.plain->pld_size > least) t.take(1);
        }
        mmr_set_verbosity(0);
        EXPECT_GT(failed, 10U) << "the damage has come within reach";
        EXPECT_GT(lost, 5U);
    }
};

} // namespace

TEST_F(mmr_cap_twin, drops_the_same_whatever_the_limits_and_reads)
{
    const unsigned seed = 20260;
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    twins t(16 * PAGE);
    t.put(ts_bytes(188 * 50));
    size_t at = 188 * 50;
    for (int round = 0; round < 20000 && !HasFailure(); ++round) {
        const size_t limit = rng() % (16 * PAGE - 4096);
        if (limit >= 188) t.cap(limit);
        const size_t room = 16 * PAGE - t.plain->pld_size;
        const size_t len = std::min(room, size_t{1} + rng() % 6000);
        t.put(ts_bytes(len, at));
        at += len;
    }
}

TEST_F(mmr_cap_twin, meets_damage_in_the_same_pass)
{
    for (size_t damaged = 0; damaged < 700 && !HasFailure(); damaged += 7) {
        SCOPED_TRACE(damaged);
        twins t(64 * PAGE);
        t.put(ts_bytes(188 * 7));
        bytes run = ts_bytes(188 * 700, 188 * 7);
        run[188 * damaged] = 0;
        t.put(run);
        ssize_t left = 1;
        size_t passes = 0;
        for (size_t limit = t.plain->pld_size - 1; left > 0 && limit > 188 * 7; limit -= 188 * 7, ++passes)
            left = t.cap(limit);
        EXPECT_EQ(left, -1);
        EXPECT_EQ(log.count("LOST-SYNC: TS stream expected"), 2u); // once for each of the twins
        log.clear();
    }
}

TEST_F(mmr_cap_twin, does_the_same_with_rtp)
{
    const bytes one = rtp_bytes(1);
    twins t(64 * PAGE);
    size_t damaged_at = 150;
    ssize_t left = 1;
    size_t packets = 0;
    for (; left > 0 && packets < 2000; ++packets) {
        bytes next = one;
        if (packets == damaged_at) next[12] = 0;
        t.put(next);
        left = t.cap(32 * PAGE);
    }
    EXPECT_EQ(left, -1);
    EXPECT_LT(packets, damaged_at + 256);
}

TEST_F(mmr_cap_twin, starts_anew_when_units_move_under_it)
{
    twins t(64 * PAGE);
    t.put(ts_bytes(188 * 600));
    t.cap(188 * 590);
    // Somebody takes a part of a unit: the next pass has to find sync again, and drops what is ahead of it.
    for (mmr_t ring : {t.plain, t.quick}) {
        const struct iovec part = {nullptr, 100};
        ASSERT_GE(mmr_oput(ring, &part, 1), 0);
    }
    EXPECT_GT(t.cap(188 * 580), 0);
    EXPECT_EQ(log.count("shifting 88 bytes to TS-sync"), 2u);
}

TEST_F(mmr_cap_twin, forgets_what_it_has_seen_when_the_head_shifts)
{
    twins t(64 * PAGE);
    t.put(ts_bytes(188 * 600));
    t.cap(188 * 590);
    EXPECT_EQ(t.quick->synced_len, 188U * 245U); // of 256 seen 11 have gone
    for (mmr_t ring : {t.plain, t.quick}) {
        ring->buf[ring->pld_pos] = 0;
        struct iovec rec[1];
        size_t count = 1;
        EXPECT_EQ(mmr_oget(ring, rec, &count), 0);
    }
    EXPECT_EQ(log.count("shifting 188 bytes to TS-sync"), 2u);
    EXPECT_EQ(t.quick->synced_len, 0U);
    EXPECT_GT(t.cap(188 * 580), 0);
}

TEST_F(mmr_cap_twin, never_drops_a_unit_that_has_lost_its_sync_byte_since_it_was_seen)
{
    twins t(64 * PAGE);
    t.put(ts_bytes(188 * 600));
    t.cap(188 * 590);
    for (mmr_t ring : {t.plain, t.quick})
        ring->buf[ring->pld_pos + 188 * 2] = 0;
    EXPECT_EQ(t.cap(188 * 580), -1);
}

TEST_F(mmr_cap_twin, does_and_says_the_same_on_damaged_ts)
{
    for (unsigned seed = 1; seed <= 8 && !HasFailure(); ++seed)
        run_damaged(seed, false);
}

TEST_F(mmr_cap_twin, does_and_says_the_same_on_damaged_rtp)
{
    for (unsigned seed = 11; seed <= 14 && !HasFailure(); ++seed)
        run_damaged(seed, true);
}
