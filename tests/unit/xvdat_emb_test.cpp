// emblst, slots inside one buffer.
#include "xvdat.h"

#include "support/assert_kit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <random>
#include <vector>

namespace
{

constexpr size_t BLK = sizeof(int);
constexpr size_t HEAD = sizeof(emblst);

using Indexes = std::vector<size_t>;

Indexes g_seen; // by the visits since the last list was made

// A buffer on a long's boundary, with a list of so many slots in it.
struct Buffer {
    explicit Buffer(size_t slots) : words((HEAD + slots * (BLK + 1)) / sizeof(long) + 1, 0x5555555555555555)
    {
        g_seen.clear();
        el = emblst_create(words.data(), HEAD + slots * (BLK + 1), BLK);
    }
    int* at(size_t i) { return static_cast<int*>(static_cast<void*>(el->data)) + i; }
    void fill(int n)
    {
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(emblst_add(el), i);
            *at(static_cast<size_t>(i)) = i * 10;
        }
    }
    char* map() { return static_cast<char*>(static_cast<void*>(el)) + el->taken_offt; }

    std::vector<long> words;
    emblst* el;
};

int see(void*, size_t i)
{
    g_seen.push_back(i);
    return static_cast<int>(i);
}

int see_value(void* data, size_t i, void* aux)
{
    g_seen.push_back(i);
    return static_cast<int*>(data)[i] == *static_cast<int*>(aux) ? 5 : 0;
}

void clean(void* data, size_t i)
{
    g_seen.push_back(i);
    static_cast<int*>(data)[i] = -1;
}

Indexes visited(emblst* el)
{
    g_seen.clear();
    (void)emblst_each(el, see, nullptr);
    return g_seen;
}

} // namespace

TEST(emblst_create, lays_head_blocks_and_map_into_the_buffer)
{
    Buffer b(3);
    ASSERT_EQ(static_cast<void*>(b.el), b.words.data());
    EXPECT_EQ(b.el->max_count, 3u);
    EXPECT_EQ(b.el->count, 0u);
    EXPECT_EQ(b.el->last, 0u);
    EXPECT_EQ(b.el->avail, 0);
    EXPECT_EQ(b.el->flags, XV_FIXED_SIZE);
    EXPECT_EQ(b.el->taken_offt, static_cast<off_t>(HEAD + 3 * BLK));
    EXPECT_EQ(std::count(b.map(), b.map() + 3, 0), 3);
    EXPECT_EQ(std::count(b.at(0), b.at(3), 0), 3);
}

TEST(emblst_create, takes_as_many_slots_as_fit_with_their_map)
{
    std::vector<long> words(40);
    for (size_t len = 0; len <= words.size() * sizeof(long); ++len) {
        for (const size_t blksz : {1u, 3u, 4u, 24u}) {
            const size_t room = len < HEAD ? 0 : len - HEAD;
            size_t count = room / blksz;
            while (room - count * blksz < count)
                --count;
            const emblst* el = emblst_create(words.data(), len, blksz);
            if (count == 0) {
                ASSERT_EQ(el, nullptr) << len;
            } else {
                ASSERT_NE(el, nullptr) << len;
                ASSERT_EQ(el->max_count, count) << len;
            }
        }
    }
}

TEST(emblst_create, refuses_a_buffer_without_room_for_a_slot_and_leaves_it_alone)
{
    long words[16];
    std::fill(std::begin(words), std::end(words), 7);
    EXPECT_EQ(emblst_create(words, HEAD + BLK, BLK), nullptr);
    EXPECT_EQ(emblst_create(words, HEAD, BLK), nullptr);
    EXPECT_EQ(emblst_create(words, HEAD - 1, BLK), nullptr);
    EXPECT_EQ(emblst_create(words, 0, BLK), nullptr);
    EXPECT_EQ(emblst_create(words, sizeof(words), 0), nullptr);
    EXPECT_EQ(std::count(std::begin(words), std::end(words), 7), 16);
    EXPECT_NE(emblst_create(words, HEAD + BLK + 1, BLK), nullptr);
}

TEST(emblst_create, asserts_a_buffer_on_a_longs_boundary)
{
    long words[32];
    EXPECT_DEATH(emblst_create(static_cast<char*>(static_cast<void*>(words)) + 4, 200, BLK),
                 asserts("0 == ((u_long)buf % sizeof(long))"));
}

TEST(emblst_add, takes_the_lowest_free_slot)
{
    Buffer b(6);
    b.fill(3);
    EXPECT_EQ(emblst_del(b.el, 1, nullptr), 0);
    EXPECT_EQ(emblst_add(b.el), 1);
    EXPECT_EQ(emblst_add(b.el), 3);
    EXPECT_EQ(b.el->last, 3u);
    EXPECT_EQ(b.el->count, 4u);
}

TEST(emblst_add, gives_minus_one_when_all_slots_are_taken)
{
    Buffer b(3);
    b.fill(3);
    EXPECT_EQ(b.el->avail, -1);
    EXPECT_EQ(emblst_add(b.el), -1);
    EXPECT_EQ(b.el->count, 3u);
    EXPECT_EQ(emblst_del(b.el, 2, nullptr), 0);
    EXPECT_EQ(emblst_add(b.el), 2);
    EXPECT_EQ(emblst_add(b.el), -1);
}

TEST(emblst_add, asserts_a_sound_list)
{
    Buffer b(4);
    b.fill(1);
    b.el->avail = 4;
    EXPECT_DEATH(emblst_add(b.el), asserts("(0 == el->max_count) || (el->avail < (ssize_t)el->max_count)"));
    b.el->avail = 1;
    b.map()[2] = 1;
    EXPECT_DEATH(emblst_add(b.el), asserts("0 == taken[el->avail]"));
}

TEST(emblst_del, tells_a_free_slot_from_one_never_taken)
{
    Buffer b(6);
    b.fill(3);
    g_seen.clear();
    EXPECT_EQ(emblst_del(b.el, 1, clean), 0);
    EXPECT_EQ(g_seen, Indexes{1});
    EXPECT_EQ(*b.at(1), -1);
    EXPECT_EQ(emblst_del(b.el, 1, clean), 114);
    EXPECT_EQ(emblst_del(b.el, 3, clean), 34);
    EXPECT_EQ(b.el->count, 2u);
    Buffer empty(2);
    EXPECT_EQ(emblst_del(empty.el, 0, nullptr), 114);
}

TEST(emblst_del, has_freed_the_slot_when_its_record_is_shown)
{
    static emblst* list;
    static size_t count_seen;
    Buffer b(6);
    list = b.el;
    b.fill(3);
    EXPECT_EQ(emblst_del(b.el, 1,
                         [](void* data, size_t i) {
                             EXPECT_EQ(static_cast<int*>(data)[i], 10);
                             EXPECT_EQ(visited(list), (Indexes{0, 2}));
                             count_seen = list->count;
                         }),
              0);
    EXPECT_EQ(count_seen, 3u); // the count comes down last
    EXPECT_EQ(b.el->count, 2u);
}

TEST(emblst_del, asserts_that_there_are_records)
{
    Buffer b(4);
    b.fill(2);
    b.el->count = 0;
    EXPECT_DEATH(emblst_del(b.el, 0, nullptr), asserts("el->count"));
}

TEST(emblst_each, visits_taken_slots_and_without_pos_goes_to_the_end)
{
    Buffer b(6);
    b.fill(5);
    ASSERT_EQ(emblst_del(b.el, 4, nullptr), 0);
    ASSERT_EQ(emblst_del(b.el, 0, nullptr), 0);
    EXPECT_EQ(emblst_each(b.el, see, nullptr), 3);
    EXPECT_EQ(g_seen, (Indexes{1, 2, 3}));
    g_seen.clear();
    size_t pos = 99;
    EXPECT_EQ(emblst_each(b.el, see, &pos), 1);
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(g_seen, Indexes{1});
    Buffer empty(2);
    EXPECT_EQ(emblst_each(empty.el, see, nullptr), 0);
}

TEST(emblst_each_aux, hands_base_and_pointer_on)
{
    Buffer b(6);
    b.fill(5);
    int want = 30;
    size_t pos = 99;
    EXPECT_EQ(emblst_each_aux(b.el, &want, see_value, &pos), 5);
    EXPECT_EQ(pos, 3u);
    EXPECT_EQ(emblst_each_aux(b.el, &want, see_value, nullptr), 0);
}

TEST(emblst_walks, assert_list_and_function)
{
    Buffer b(2);
    EXPECT_DEATH(emblst_each(nullptr, see, nullptr), asserts("el && f"));
    EXPECT_DEATH(emblst_each(b.el, nullptr, nullptr), asserts("el && f"));
    EXPECT_DEATH(emblst_each_aux(nullptr, nullptr, see_value, nullptr), asserts("el && f"));
    EXPECT_DEATH(emblst_each_aux(b.el, nullptr, nullptr, nullptr), asserts("el && f"));
}

TEST(emblst_copy, is_a_working_list)
{
    Buffer b(4);
    b.fill(3);
    ASSERT_EQ(emblst_del(b.el, 1, nullptr), 0);
    const size_t len = static_cast<size_t>(b.el->taken_offt) + b.el->max_count;
    std::vector<long> copy(len / sizeof(long) + 1, -1);
    auto* el = static_cast<emblst*>(emblst_copy(b.el, copy.data(), len)); // exactly the length
    ASSERT_EQ(static_cast<void*>(el), copy.data());
    EXPECT_EQ(visited(el), (Indexes{0, 2}));
    EXPECT_EQ(emblst_add(el), 1);
    EXPECT_EQ(emblst_add(el), 3);
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(visited(b.el), (Indexes{0, 2})); // the first is not concerned
    EXPECT_EQ(static_cast<int*>(static_cast<void*>(el->data))[2], 20);
}

TEST(emblst_copy, refuses_a_buffer_that_is_a_byte_short)
{
    Buffer b(4);
    const size_t len = static_cast<size_t>(b.el->taken_offt) + b.el->max_count;
    std::vector<long> copy(len / sizeof(long) + 1, -1);
    errno = 0;
    EXPECT_EQ(emblst_copy(b.el, copy.data(), len - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(copy[0], -1);
}

TEST(emblst_validate, objects_to_each_broken_field)
{
    Buffer b(6);
    b.fill(4);
    ASSERT_EQ(emblst_del(b.el, 1, nullptr), 0);
    EXPECT_TRUE(emblst_validate(b.el));
    EXPECT_FALSE(emblst_validate(nullptr));
    const auto objects = [&](auto&& damage) {
        Buffer bad(6);
        bad.fill(4);
        (void)emblst_del(bad.el, 1, nullptr);
        damage(*bad.el);
        return !emblst_validate(bad.el);
    };
    EXPECT_TRUE(objects([](emblst& e) { e.count = 4; }));
    EXPECT_TRUE(objects([](emblst& e) { e.max_count = 0; }));
    EXPECT_TRUE(objects([](emblst& e) { e.max_count = 5; }));
    EXPECT_TRUE(objects([](emblst& e) { e.last = 2; }));
    EXPECT_TRUE(objects([](emblst& e) { e.last = 6; }));
    EXPECT_TRUE(objects([](emblst& e) { e.avail = 4; }));
    EXPECT_TRUE(objects([](emblst& e) { e.flags = 0; }));
    EXPECT_TRUE(objects([](emblst& e) { e.taken_offt = static_cast<off_t>(HEAD); }));
    EXPECT_TRUE(objects([](emblst& e) { e.taken_offt += 1; }));
}

TEST(emblst_dump, tells_the_record_and_the_taken_slots)
{
    Buffer b(6);
    b.fill(4);
    ASSERT_EQ(emblst_del(b.el, 1, nullptr), 0);
    EXPECT_EQ(printed([&](FILE* fp) { emblst_dump(b.el, fp); }),
              "embedded list, valid: 3 of 6 slots taken, last 3, next free 1, map at 72\n  taken: 0 2-3\n");
    b.el->count = 9;
    EXPECT_NE(printed([&](FILE* fp) { emblst_dump(b.el, fp); }).find("INVALID"), std::string::npos);
    EXPECT_EQ(printed([&](FILE* fp) { emblst_dump(nullptr, fp); }), "embedded list: none\n");
}

TEST(emblst, agrees_with_a_map_over_thousands_of_steps)
{
    for (const unsigned seed : {41u, 42u, 43u}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        std::mt19937 rnd(seed);
        constexpr size_t ROOM = 20;
        Buffer b(ROOM);
        std::map<size_t, int> model;
        size_t last = 0;
        for (int step = 0; step < 5000; ++step) {
            if (rnd() % 2 == 0) {
                size_t i = 0;
                while (model.count(i))
                    ++i;
                ASSERT_EQ(emblst_add(b.el), i == ROOM ? -1 : static_cast<ssize_t>(i));
                if (i == ROOM) continue;
                model[i] = *b.at(i) = static_cast<int>(rnd());
                last = std::max(last, i);
            } else {
                const size_t i = rnd() % (ROOM + 2);
                ASSERT_EQ(emblst_del(b.el, i, nullptr), i > last ? ERANGE : model.count(i) ? 0 : EALREADY);
                model.erase(i);
            }
            ASSERT_TRUE(emblst_validate(b.el));
            ASSERT_EQ(b.el->count, model.size());
            Indexes indexes;
            for (const auto& [i, value] : model) {
                indexes.push_back(i);
                ASSERT_EQ(*b.at(i), value);
            }
            ASSERT_EQ(visited(b.el), indexes);
        }
    }
}
