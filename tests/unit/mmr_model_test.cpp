// The ring against a plain model of it: long random runs of writing, cutting, capping and renumbering, with fixed
// seeds. The model keeps the payload in a deque and knows nothing of positions, mirrors or passes.
#include "support/ring_kit.h"

#include <deque>
#include <random>

using namespace ringkit;

namespace
{

constexpr size_t UNIT = 188;
constexpr size_t PASS_RECORDS = 256;

struct model {
    std::deque<uint8_t> payload;
    uint64_t first = 0, last = 0;
    bool numbered = false;
    bool unpacked = false;

    void write(bytes_view data) { payload.insert(payload.end(), data.begin(), data.end()); }

    void drop(size_t count) { payload.erase(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(count)); }

    // The lengths of the records at the head, as many as a call gives.
    std::vector<size_t> records(size_t room) const
    {
        const size_t most = unpacked ? UNIT : 7 * UNIT;
        std::vector<size_t> out;
        for (size_t left = payload.size() / UNIT * UNIT; left != 0 && out.size() < room; left -= out.back())
            out.push_back(std::min(most, left));
        return out;
    }

    // Caps; false where the ring has to fail.
    bool cap(size_t limit)
    {
        while (limit < payload.size()) {
            const std::vector<size_t> recs = records(PASS_RECORDS);
            if (recs.empty()) return false;
            size_t left = payload.size(), count = 0, out = 0;
            while (count < recs.size() && left >= limit && left >= recs[0]) {
                left -= recs[0];
                out += recs[count++];
            }
            drop(out);
            if (numbered) first += count;
        }
        return true;
    }
};

class mmr_model : public ring_test
{
protected:
    model m;
    size_t written = 0; // bytes of the endless stream that have gone in

    void expect_equal()
    {
        const struct mm_info got = info();
        ASSERT_EQ(got.pld_size, m.payload.size());
        ASSERT_EQ(got.first_pktnum, m.first);
        ASSERT_EQ(got.last_pktnum, m.last);
        const bytes held = payload();
        ASSERT_TRUE(std::equal(held.begin(), held.end(), m.payload.begin(), m.payload.end()));
        ASSERT_TRUE(mmr_validate(ring));
    }

    void write(size_t most)
    {
        struct mm_point pt = {};
        uint8_t* dest = mmr_iget(ring, &pt);
        if (!dest) {
            ASSERT_EQ(m.payload.size(), ring->buflen);
            return;
        }
        ASSERT_EQ(pt.len, ring->buflen - m.payload.size());
        const bytes data = ts_bytes(std::min(most, pt.len), written);
        std::copy(data.begin(), data.end(), dest);
        pt.len = data.size();
        ASSERT_EQ(mmr_iput(ring, &pt), 0);
        written += data.size();
        m.write(data);
        if (m.numbered) {
            // Units whose end has come in with these bytes; so the count is never behind what capping takes out.
            const size_t units = written / UNIT - (written - data.size()) / UNIT;
            mmr_add_pkts(ring, units);
            m.last += units;
        }
    }

    void cap(size_t limit)
    {
        const bool sound = m.cap(limit);
        ASSERT_EQ(mmr_cap(ring, limit), sound ? static_cast<ssize_t>(m.payload.size()) : -1);
    }

    // Cuts the payload and compares the records; sometimes consumes a few.
    void cut_head(std::mt19937& rng)
    {
        const size_t room = 1 + rng() % 300;
        const std::vector<size_t> expected = m.records(room);
        const cut c = cut::of(ring, room);
        if (expected.empty()) {
            ASSERT_EQ(c.rc, m.payload.empty() ? -9 : 11);
            return;
        }
        ASSERT_EQ(c.rc, 0);
        ASSERT_EQ(c.lengths(), expected);
        size_t pos = 0;
        for (size_t i = 0; i < c.count; ++i) {
            for (const size_t k : {size_t{0}, c.recs[i].iov_len - 1})
                ASSERT_EQ(c.at(i)[k], m.payload[pos + k]);
            pos += c.recs[i].iov_len;
        }
        if (m.numbered || rng() % 4 != 0) return;
        const size_t count = rng() % (c.count + 1);
        size_t out = 0;
        for (size_t i = 0; i < count; ++i)
            out += expected[i];
        m.drop(out);
        ASSERT_EQ(mmr_oput(ring, c.recs.data(), count), static_cast<ssize_t>(m.payload.size()));
    }

    // One random step.
    void step(std::mt19937& rng)
    {
        switch (rng() % 8) {
        case 0:
        case 1: write(rng() % 5 == 0 ? ring->buflen : 1 + rng() % 4000); break;
        case 2: write(1 + rng() % 200); break;
        case 3: cap(rng() % (ring->buflen + 1)); break;
        case 4: cap(ring->buflen - std::min<size_t>(ring->buflen, rng() % 6000)); break;
        case 5: cut_head(rng); break;
        case 6:
            m.unpacked = rng() % 2 == 0;
            {
                const struct mm_opt opt = {m.unpacked};
                mmr_set_opt(ring, &opt);
            }
            break;
        case 7:
            if (rng() % 50 == 0) {
                const uint64_t new_first = 1 + rng() % 1000;
                m.last = new_first + (m.last - m.first);
                m.first = new_first;
                ASSERT_EQ(mmr_adjust_pktnum(ring, new_first), m.last);
            }
            break;
        }
    }

    void run(uint32_t seed, size_t size, bool numbered, size_t steps)
    {
        SCOPED_TRACE(text("seed %u, ring %zu, %s", seed, size, numbered ? "numbered" : "not numbered"));
        std::mt19937 rng(seed);
        make(size);
        m = {};
        written = 0;
        m.numbered = numbered;
        write(UNIT * (1 + rng() % 10));
        for (size_t i = 0; i < steps; ++i) {
            ASSERT_NO_FATAL_FAILURE(step(rng)) << "step " << i;
            if (i % 4 == 0) {
                ASSERT_NO_FATAL_FAILURE(expect_equal()) << "step " << i;
            }
        }
        EXPECT_GT(written, 20 * size) << "the ring has gone round";
        mmr_destroy(ring);
        ring = nullptr;
        log.clear();
    }
};

} // namespace

TEST_F(mmr_model, agrees_with_a_small_ring)
{
    g_mod_ll[0] = ll::panic;
    for (uint32_t seed = 1; seed <= 4; ++seed)
        ASSERT_NO_FATAL_FAILURE(run(seed, 4096, false, 3000));
}

TEST_F(mmr_model, agrees_with_a_ring_of_many_passes)
{
    g_mod_ll[0] = ll::panic;
    for (uint32_t seed = 11; seed <= 13; ++seed)
        ASSERT_NO_FATAL_FAILURE(run(seed, 131072, false, 2000));
}

TEST_F(mmr_model, agrees_on_packet_numbers)
{
    g_mod_ll[0] = ll::panic;
    for (uint32_t seed = 21; seed <= 24; ++seed)
        ASSERT_NO_FATAL_FAILURE(run(seed, 16384, true, 3000));
}

// The feed's way: what has just come in is cut as a span, and the ring is left alone.
TEST_F(mmr_model, agrees_on_the_cut_of_fresh_bytes)
{
    std::mt19937 rng(31);
    make(16384);
    ASSERT_EQ(put(ts_bytes(1316)), 0);
    unpacked();
    size_t at = 1316;
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(text("round %d", round));
        ASSERT_GE(mmr_cap(ring, 16384 - 4096), 0);
        struct mm_point pt = {};
        uint8_t* dest = mmr_iget(ring, &pt);
        ASSERT_TRUE(dest);
        ASSERT_GE(pt.len, 4096u);
        const size_t len = UNIT + rng() % (4096 - UNIT);
        const bytes data = ts_bytes(len, at);
        std::copy(data.begin(), data.end(), dest);
        pt.len = len;
        ASSERT_EQ(mmr_iput(ring, &pt), 0);

        const std::string before = state();
        const size_t skipped = (UNIT - at % UNIT) % UNIT, units = (len - skipped) / UNIT;
        const cut c = cut::of(ring, std::span(dest, len), 512);
        ASSERT_EQ(c.offset, static_cast<ssize_t>(skipped));
        ASSERT_EQ(c.rc, units == 0 ? 11 : 0);
        if (units != 0) {
            ASSERT_EQ(c.lengths(), std::vector<size_t>(units, UNIT));
            for (size_t i = 0; i < units; ++i)
                ASSERT_EQ(c.at(i), dest + skipped + i * UNIT);
        }
        ASSERT_EQ(state(), before);
        at += len;
    }
}
