// xvec, the growing array of blocks.
#include "xvdat.h"

#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

// A size beyond all memory is refused, as without the sanitizer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace
{

constexpr size_t BLK = sizeof(int);
constexpr size_t STEP = 16;

std::vector<int> g_seen; // by the visits since the last vector was made

struct Vec : xvec {
    Vec() : xvec{}
    {
        g_seen.clear();
        fail_alloc::at(0);
        xvdat_flags = 0;
    }
    ~Vec() { xvec_reset(this); }
    Vec(const Vec&) = delete;
    Vec& operator=(const Vec&) = delete;

    int* at(size_t i) { return static_cast<int*>(data) + i; }
    void push(int value)
    {
        const ssize_t i = xvec_add(this, BLK, STEP);
        ASSERT_GE(i, 0);
        *at(static_cast<size_t>(i)) = value;
    }
    // 10, 20, 30 and so on.
    void fill(int n)
    {
        for (int i = 1; i <= n; ++i)
            push(i * 10);
    }
};

int see(void* data, size_t i)
{
    const int value = static_cast<int*>(data)[i];
    g_seen.push_back(value);
    return value;
}

int see_is(void* data, size_t i, void* aux)
{
    const int value = static_cast<int*>(data)[i];
    g_seen.push_back(value);
    return value == *static_cast<int*>(aux) ? value : 0;
}

int see_nothing(void*, size_t)
{
    return 0;
}

using Ints = std::vector<int>;

} // namespace

// ---- growth ---------------------------------------------------------------------------------------------------

TEST(xvec_add, to_a_zeroed_record_allocates_a_whole_step)
{
    Vec v;
    EXPECT_EQ(xvec_add(&v, BLK, 16), 0);
    EXPECT_EQ(v.len, 1u);
    EXPECT_EQ(v.max_len, 16u);
    EXPECT_EQ(v.flags, 0u);
    EXPECT_EQ(xvec_add(&v, BLK, 16), 1);
    EXPECT_EQ(v.max_len, 16u);
}

TEST(xvec_add, gives_zeroed_blocks_and_keeps_the_old_ones)
{
    Vec v;
    v.fill(16);
    v.push(170);
    EXPECT_EQ(v.max_len, 32u);
    EXPECT_EQ(*v.at(0), 10);
    EXPECT_EQ(*v.at(15), 160);
    for (size_t i = 17; i < 32; ++i)
        EXPECT_EQ(*v.at(i), 0) << i;
}

TEST(xvec_add, does_not_clear_a_block_that_was_used_before)
{
    Vec v;
    v.fill(2);
    v.len = 1;
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 1);
    EXPECT_EQ(*v.at(1), 20);
}

TEST(xvec_add, fails_when_memory_runs_out_and_leaves_the_vector_alone)
{
    Vec v;
    v.fill(15);
    void* const data = v.data;
    fail_alloc::at(1);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), -1);
    EXPECT_EQ(v.data, data);
    EXPECT_EQ(v.len, 15u);
    EXPECT_EQ(v.max_len, 16u);
    EXPECT_EQ(*v.at(14), 150);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 15);
}

TEST(xvec_add, asserts_a_step_and_a_block_size)
{
    Vec v;
    EXPECT_DEATH(xvec_add(&v, BLK, 0), asserts("v && plus && blksz && growblk > 0"));
    EXPECT_DEATH(xvec_add(&v, 0, STEP), asserts("v && plus && blksz && growblk > 0"));
}

TEST(xvec_reserve, rounds_up_to_the_step)
{
    for (const auto& [want, got] : {std::pair<size_t, size_t>{1, 10}, {9, 10}, {10, 10}, {11, 20}, {20, 20}}) {
        Vec v;
        EXPECT_EQ(xvec_reserve(&v, want, BLK, 10), 0);
        EXPECT_EQ(v.max_len, got) << want;
        EXPECT_EQ(v.len, 0u);
    }
}

TEST(xvec_reserve, does_nothing_below_the_capacity)
{
    Vec v;
    ASSERT_EQ(xvec_reserve(&v, 10, BLK, 10), 0);
    fail_alloc::at(1); // it would fail if it allocated
    EXPECT_EQ(xvec_reserve(&v, 9, BLK, 10), 0);
    EXPECT_EQ(xvec_reserve(&v, 0, BLK, 10), 0);
    EXPECT_EQ(fail_alloc::countdown, 1);
    EXPECT_EQ(v.max_len, 10u);
}

// Users size their vectors anew with the value that they have: the call goes all the way, and can fail.
TEST(xvec_reserve, reallocates_at_a_size_equal_to_the_capacity)
{
    Vec v;
    v.fill(16);
    fail_alloc::at(1);
    EXPECT_EQ(xvec_reserve(&v, 16, BLK, STEP), -1);
    EXPECT_EQ(fail_alloc::countdown, 0);
    EXPECT_EQ(xvec_reserve(&v, 16, BLK, STEP), 0);
    EXPECT_EQ(v.max_len, 16u);
    EXPECT_EQ(*v.at(15), 160);
    // With another step the same call grows.
    EXPECT_EQ(xvec_reserve(&v, 16, BLK, 10), 0);
    EXPECT_EQ(v.max_len, 20u);
    EXPECT_EQ(*v.at(19), 0);
}

TEST(xvec_reserve, of_nothing_on_an_empty_vector_is_no_allocation)
{
    Vec v;
    fail_alloc::at(1);
    EXPECT_EQ(xvec_reserve(&v, 0, BLK, STEP), 0);
    EXPECT_EQ(fail_alloc::countdown, 1);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.max_len, 0u);
}

TEST(xvec_reserve, refuses_sizes_that_cannot_be_told)
{
    LogCapture log;
    Vec v;
    v.fill(3);
    void* const data = v.data;
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX, BLK, STEP), -1);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / 2, BLK, STEP), -1);
    EXPECT_EQ(xvec_expand(&v, SIZE_MAX, BLK, STEP), -1);
    EXPECT_EQ(xvec_reserve(&v, 17, 0, STEP), -1);
    EXPECT_EQ(v.data, data);
    EXPECT_EQ(v.max_len, 16u);
    EXPECT_EQ(*v.at(2), 30);
    EXPECT_EQ(log.count("xvec_reserve: realloc("), 4u);
}

TEST(xvec_reserve, asserts_a_vector_and_a_step)
{
    Vec v;
    EXPECT_DEATH(xvec_reserve(&v, 1, BLK, 0), asserts("v && (growblk > 0)"));
    EXPECT_DEATH(xvec_reserve(nullptr, 1, BLK, 1), asserts("v && (growblk > 0)"));
}

TEST(xvec_expand, makes_room_beyond_the_blocks_in_use)
{
    Vec v;
    v.fill(3);
    EXPECT_EQ(xvec_expand(&v, 14, BLK, STEP), 0);
    EXPECT_EQ(v.max_len, 32u);
    EXPECT_EQ(v.len, 3u);
    EXPECT_EQ(*v.at(2), 30);
}

TEST(xvec_expand, asserts_all_its_numbers)
{
    Vec v;
    constexpr const char* TEXT = "v && plus && blksz && growblk > 0";
    EXPECT_DEATH(xvec_expand(nullptr, 1, 1, 1), asserts(TEXT));
    EXPECT_DEATH(xvec_expand(&v, 0, 1, 1), asserts(TEXT));
    EXPECT_DEATH(xvec_expand(&v, 1, 0, 1), asserts(TEXT));
    EXPECT_DEATH(xvec_expand(&v, 1, 1, 0), asserts(TEXT));
}

TEST(xvdat_flags, starts_at_zero)
{
    EXPECT_EQ(xvdat_flags, 0u);
}

TEST(xvdat_flags, ends_the_process_when_memory_runs_out)
{
    Vec v;
    xvdat_flags = XV_ABORT_ENOMEM;
    EXPECT_EXIT((fail_alloc::at(1), xvec_add(&v, BLK, STEP)), testing::KilledBySignal(SIGABRT), "");
}

TEST(xvdat_flags, counts_for_the_process_and_not_in_a_record)
{
    Vec v;
    v.flags = XV_ABORT_ENOMEM;
    fail_alloc::at(1);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), -1);
}

// ---- fixed vectors --------------------------------------------------------------------------------------------

TEST(xvec_bind, takes_as_many_whole_blocks_as_fit)
{
    for (const auto& [bytes, blocks] : {std::pair<size_t, size_t>{4, 1}, {7, 1}, {8, 2}, {11, 2}}) {
        alignas(int) char buf[12];
        memset(buf, 0x55, sizeof(buf));
        xvec v = {};
        EXPECT_EQ(xvec_bind(&v, buf, bytes, BLK), 0);
        EXPECT_EQ(v.max_len, blocks) << bytes;
        EXPECT_EQ(v.data, buf);
        EXPECT_EQ(v.len, 0u);
        EXPECT_EQ(v.flags, XV_FIXED_SIZE);
        EXPECT_EQ(std::count(buf, buf + blocks * BLK, 0), static_cast<long>(blocks * BLK));
        EXPECT_EQ(buf[blocks * BLK], 0x55);
    }
}

TEST(xvec_bind, refuses_memory_for_less_than_a_block)
{
    char buf[4] = {'a', 'b', 'c', 'd'};
    xvec v = {};
    v.len = 7;
    EXPECT_EQ(xvec_bind(&v, buf, 3, BLK), -1);
    EXPECT_EQ(xvec_bind(&v, buf, 0, BLK), -1);
    EXPECT_EQ(xvec_bind(&v, buf, 4, 0), -1);
    EXPECT_EQ(v.len, 7u);
    EXPECT_EQ(buf[0], 'a');
}

TEST(fixed_xvec, fills_up_and_then_refuses)
{
    int buf[2];
    xvec v = {};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), BLK), 0);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 0);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 1);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), -1);
    EXPECT_EQ(v.len, 2u);
    EXPECT_EQ(v.data, buf);
}

TEST(fixed_xvec, is_told_apart_when_it_would_have_to_grow)
{
    int buf[2];
    xvec v = {};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), BLK), 0);
    EXPECT_EQ(ERR_XV_FIXED, -11);
    EXPECT_EQ(xvec_reserve(&v, 1, BLK, STEP), 0);
    EXPECT_EQ(xvec_reserve(&v, 2, BLK, STEP), ERR_XV_FIXED); // equal is not enough
    EXPECT_EQ(xvec_reserve(&v, 3, BLK, STEP), ERR_XV_FIXED);
    EXPECT_EQ(xvec_expand(&v, 1, BLK, STEP), ERR_XV_FIXED); // although there is room
}

TEST(xvec_reset, keeps_a_fixed_vector_usable)
{
    int buf[2];
    xvec v = {};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), BLK), 0);
    ASSERT_EQ(xvec_add(&v, BLK, STEP), 0);
    buf[0] = 5;
    xvec_reset(&v);
    EXPECT_EQ(v.len, 0u);
    EXPECT_EQ(v.max_len, 2u);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(v.flags, XV_FIXED_SIZE);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 0);
    EXPECT_EQ(buf[0], 5); // blocks are not cleared again
}

TEST(xvec_reset, frees_a_growing_vector)
{
    Vec v;
    v.fill(3);
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.len, 0u);
    EXPECT_EQ(v.max_len, 0u);
    EXPECT_EQ(xvec_add(&v, BLK, STEP), 0);
}

TEST(xvec_reset, ignores_null)
{
    xvec_reset(nullptr);
    SUCCEED();
}

// ---- walks ----------------------------------------------------------------------------------------------------

// Callers without `pos` count on every block being visited, whatever the callback says.
TEST(xvec_each, without_pos_goes_on_to_the_end_and_gives_the_last_result)
{
    Vec v;
    v.fill(3);
    EXPECT_EQ(xvec_each(&v, see, nullptr), 30);
    EXPECT_EQ(g_seen, (Ints{10, 20, 30}));
}

TEST(xvec_each, with_pos_stops_at_the_first_non_zero_result)
{
    Vec v;
    v.push(0);
    v.push(7);
    v.push(8);
    size_t pos = 99;
    EXPECT_EQ(xvec_each(&v, see, &pos), 7);
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(g_seen, (Ints{0, 7}));
}

TEST(xvec_each, leaves_pos_alone_when_all_results_are_zero)
{
    Vec v;
    v.fill(3);
    size_t pos = 99;
    EXPECT_EQ(xvec_each(&v, see_nothing, &pos), 0);
    EXPECT_EQ(pos, 99u);
}

TEST(xvec_each, makes_no_call_on_an_empty_vector)
{
    Vec v;
    EXPECT_EQ(xvec_each(&v, see, nullptr), 0);
    EXPECT_TRUE(g_seen.empty());
}

TEST(xvec_each_aux, hands_the_pointer_on)
{
    Vec v;
    v.fill(3);
    int want = 20;
    size_t pos = 99;
    EXPECT_EQ(xvec_each_aux(&v, see_is, &want, &pos), 20);
    EXPECT_EQ(pos, 1u);
    g_seen.clear();
    EXPECT_EQ(xvec_each_aux(&v, see_is, &want, nullptr), 0); // the last call's
    EXPECT_EQ(g_seen, (Ints{10, 20, 30}));
}

TEST(xvec_each_aux, follows_a_vector_that_grows_but_stays_with_the_length_at_the_start)
{
    Vec v;
    v.fill(16);
    int calls = 0;
    struct ctx {
        Vec* v;
        int* calls;
    } c = {&v, &calls};
    EXPECT_EQ(xvec_each_aux(
                  &v,
                  [](void* data, size_t i, void* aux) {
                      auto* c = static_cast<ctx*>(aux);
                      EXPECT_EQ(data, c->v->data);
                      EXPECT_EQ(static_cast<int*>(data)[i], 10 * static_cast<int>(i + 1));
                      ++*c->calls;
                      for (int n = 0; n < 40; ++n)
                          c->v->push(1);
                      return 0;
                  },
                  &c, nullptr),
              0);
    EXPECT_EQ(calls, 16);
    EXPECT_EQ(v.len, 16u + 16 * 40);
}

TEST(xvec_find, with_pos_gives_the_first_match)
{
    Vec v;
    v.fill(3);
    int want = 20;
    size_t pos = 99;
    EXPECT_EQ(xvec_find(&v, &want, see_is, &pos), 20);
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(g_seen, (Ints{10, 20}));
    want = 25;
    pos = 99;
    EXPECT_EQ(xvec_find(&v, &want, see_is, &pos), 0);
    EXPECT_EQ(pos, 99u);
}

// Unlike xvlst_find: without `pos` it is a walk like the others.
TEST(xvec_find, without_pos_gives_the_result_of_the_last_call)
{
    Vec v;
    v.fill(3);
    int want = 20;
    EXPECT_EQ(xvec_find(&v, &want, see_is, nullptr), 0);
    want = 30;
    EXPECT_EQ(xvec_find(&v, &want, see_is, nullptr), 30);
    EXPECT_EQ(g_seen.size(), 6u);
}

TEST(xvec_walks, assert_vector_and_function)
{
    Vec v;
    EXPECT_DEATH(xvec_each(nullptr, see, nullptr), asserts("v && f"));
    EXPECT_DEATH(xvec_each(&v, nullptr, nullptr), asserts("v && f"));
    EXPECT_DEATH(xvec_each_aux(nullptr, see_is, nullptr, nullptr), asserts("v && f"));
    EXPECT_DEATH(xvec_each_aux(&v, nullptr, nullptr, nullptr), asserts("v && f"));
    EXPECT_DEATH(xvec_find(nullptr, nullptr, see_is, nullptr), asserts("v && f"));
    EXPECT_DEATH(xvec_find(&v, nullptr, nullptr, nullptr), asserts("v && f"));
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST(xvec_validate, objects_to_each_broken_field)
{
    Vec good;
    good.fill(3);
    EXPECT_TRUE(xvec_validate(&good));
    xvec empty = {};
    EXPECT_TRUE(xvec_validate(&empty));
    EXPECT_FALSE(xvec_validate(nullptr));

    xvec v = good;
    v.data = nullptr;
    EXPECT_FALSE(xvec_validate(&v));
    v = good;
    v.len = 17;
    EXPECT_FALSE(xvec_validate(&v));
    v.len = 16;
    EXPECT_TRUE(xvec_validate(&v));
    v = good;
    v.flags = 8;
    EXPECT_FALSE(xvec_validate(&v));
}

TEST(xvec_dump, tells_the_record_in_words)
{
    int buf[4];
    xvec v = {};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), BLK), 0);
    v.len = 3;
    char expected[128];
    snprintf(expected, sizeof(expected), "vector %p, valid: 3 of 4 blocks in use, fixed\n", static_cast<void*>(buf));
    EXPECT_EQ(printed([&](FILE* fp) { xvec_dump(&v, fp); }), expected);
    v.len = 5;
    EXPECT_NE(printed([&](FILE* fp) { xvec_dump(&v, fp); }).find("INVALID"), std::string::npos);
    EXPECT_EQ(printed([&](FILE* fp) { xvec_dump(nullptr, fp); }), "vector: none\n");
}

// ---- against std::vector --------------------------------------------------------------------------------------

TEST(xvec, agrees_with_a_standard_vector_over_thousands_of_steps)
{
    for (const unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        std::mt19937 rnd(seed);
        Vec v;
        std::vector<int> model;
        for (int step = 0; step < 5000; ++step) {
            const size_t growblk = 1 + rnd() % 20;
            switch (rnd() % 16) {
            case 0: // grow ahead
                ASSERT_EQ(xvec_reserve(&v, model.size() + rnd() % 30, BLK, growblk), 0);
                break;
            case 1: // drop the end
                model.resize(model.size() - (model.empty() ? 0 : rnd() % model.size()));
                v.len = model.size();
                break;
            case 2:
                if (rnd() % 50 == 0) {
                    xvec_reset(&v);
                    model.clear();
                }
                break;
            case 3: { // look for a value
                int want = static_cast<int>(rnd() % 1000);
                size_t pos = SIZE_MAX;
                (void)xvec_find(
                    &v, &want,
                    [](void* data, size_t i, void* what) {
                        return static_cast<int>(static_cast<int*>(data)[i] == *static_cast<int*>(what));
                    },
                    &pos);
                const auto it = std::find(model.begin(), model.end(), want);
                ASSERT_EQ(pos, it == model.end() ? SIZE_MAX : static_cast<size_t>(it - model.begin()));
                break;
            }
            default: {
                const ssize_t i = xvec_add(&v, BLK, growblk);
                ASSERT_EQ(i, static_cast<ssize_t>(model.size()));
                model.push_back(static_cast<int>(rnd() % 1000));
                *v.at(static_cast<size_t>(i)) = model.back();
            }
            }
            ASSERT_TRUE(xvec_validate(&v));
            ASSERT_EQ(v.len, model.size());
        }
        for (size_t i = 0; i < model.size(); ++i)
            ASSERT_EQ(*v.at(i), model[i]);
    }
}
