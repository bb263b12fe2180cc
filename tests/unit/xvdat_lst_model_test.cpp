// xvlst beside the same in plain words: random steps on a list and on a map.
#include "xvdat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <random>
#include <vector>

namespace
{

constexpr size_t BLK = sizeof(int);

using Indexes = std::vector<size_t>;

Indexes visited(xvlst* l)
{
    Indexes seen;
    const auto see = [](void*, size_t i, void* aux) {
        static_cast<Indexes*>(aux)->push_back(i);
        return 0;
    };
    (void)xvlst_each_aux(l, &seen, see, nullptr);
    return seen;
}

// The list in plain words: the lowest index that isn't in the map is the next.
struct Model {
    std::map<size_t, int> records;
    size_t last = 0;

    size_t lowest_free() const
    {
        size_t i = 0;
        while (records.count(i))
            ++i;
        return i;
    }
    Indexes indexes() const
    {
        Indexes out;
        for (const auto& [i, value] : records)
            out.push_back(i);
        return out;
    }
};

void compare(xvlst* l, const Model& m)
{
    ASSERT_TRUE(xvlst_validate(l));
    ASSERT_EQ(l->len, m.records.size());
    ASSERT_EQ(l->last, m.last);
    ASSERT_EQ(visited(l), m.indexes());
    for (const auto& [i, value] : m.records)
        ASSERT_EQ(static_cast<int*>(l->data)[i], value);
}

// Runs random operations on a list and the model side by side. `room` is the capacity of a fixed list, or 0.
void run_side_by_side(xvlst* l, size_t room, unsigned seed, int steps)
{
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rnd(seed);
    Model m;
    for (int step = 0; step < steps; ++step) {
        const unsigned what = rnd() % 100;
        if (what < 50) {
            const size_t i = m.lowest_free();
            const ssize_t got = xvlst_add(l, BLK, 1 + rnd() % 9);
            if (room != 0 && i == room) {
                ASSERT_EQ(got, ERR_XV_FIXED);
                continue;
            }
            ASSERT_EQ(got, static_cast<ssize_t>(i));
            m.records[i] = static_cast<int>(rnd() % 1000);
            static_cast<int*>(l->data)[i] = m.records[i];
            m.last = std::max(m.last, i);
        } else if (what < 95) {
            const size_t i = rnd() % (m.last + 3);
            const int expected = i > m.last ? ERANGE : m.records.count(i) ? 0 : EALREADY;
            ASSERT_EQ(xvlst_del(l, i, nullptr), expected);
            m.records.erase(i);
        } else if (what < 98) {
            int divisor = 2 + static_cast<int>(rnd() % 7);
            const auto hit = [](void* data, size_t i, void* aux) {
                return static_cast<int>(static_cast<int*>(data)[i] % *static_cast<int*>(aux) == 0);
            };
            const auto gone = std::erase_if(m.records, [&](const auto& r) { return r.second % divisor == 0; });
            ASSERT_EQ(xvlst_rmif(l, &divisor, hit, nullptr), static_cast<int>(gone));
        } else if (what == 98) {
            ASSERT_EQ(xvlst_reserve(l, l->max_len + (room ? 0 : rnd() % 20), BLK, 5), 0);
        } else if (rnd() % 10 == 0) {
            xvlst_purge_all(l, nullptr);
            if (!m.records.empty()) m.last = 0;
            m.records.clear();
        }
        compare(l, m);
        if (testing::Test::HasFatalFailure()) return;
    }
}

} // namespace

TEST(xvlst, agrees_with_a_map_over_thousands_of_steps)
{
    for (const unsigned seed : {11u, 12u, 13u}) {
        xvlst l = {};
        run_side_by_side(&l, 0, seed, 4000);
        xvlst_reset(&l);
    }
}

TEST(xvlst, agrees_with_a_map_when_it_is_fixed)
{
    alignas(int) char buf[20 * (BLK + 1)];
    xvlst l = {};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), BLK), 0);
    run_side_by_side(&l, 20, 21, 4000);
}

TEST(xvlst, agrees_with_a_map_when_it_is_mapped)
{
    xvlst l = {};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 30, BLK), 0);
    run_side_by_side(&l, 30, 31, 4000);
    xvlst_reset(&l);
}
