// xvlst, slots that keep their index.
#include "xvdat.h"

#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

namespace
{

constexpr size_t BLK = sizeof(int);
constexpr size_t STEP = 4;

using Indexes = std::vector<size_t>;

Indexes g_seen; // by the visits since the last list was made

struct List : xvlst {
    List() : xvlst{}
    {
        g_seen.clear();
        fail_alloc::at(0);
        xvdat_flags = 0;
    }
    ~List() { xvlst_reset(this); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    int* at(size_t i) { return static_cast<int*>(data) + i; }
    // Adds a record with its index times ten and gives the index.
    ssize_t add()
    {
        const ssize_t i = xvlst_add(this, BLK, STEP);
        if (i >= 0) *at(static_cast<size_t>(i)) = static_cast<int>(i) * 10;
        return i;
    }
    void fill(int n)
    {
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(add(), i);
    }
    int del(size_t i) { return xvlst_del(this, i, nullptr); }
};

int see(void*, size_t i)
{
    g_seen.push_back(i);
    return static_cast<int>(i);
}

void clean(void*, size_t i)
{
    g_seen.push_back(i);
}

// 1 from the index that `aux` points at on.
int see_from(void*, size_t i, void* aux)
{
    g_seen.push_back(i);
    return i >= *static_cast<size_t*>(aux) ? 1 : 0;
}

Indexes visited(xvlst* l)
{
    g_seen.clear();
    (void)xvlst_each(l, see, nullptr);
    return g_seen;
}

} // namespace

// ---- taking slots ---------------------------------------------------------------------------------------------

TEST(xvlst_add, takes_the_lowest_free_slot)
{
    List l;
    l.fill(3);
    EXPECT_EQ(l.del(1), 0);
    EXPECT_EQ(l.add(), 1);
    EXPECT_EQ(l.add(), 3);
}

TEST(xvlst_add, passes_over_taken_slots_to_the_next_free_one)
{
    List l;
    l.fill(8);
    for (const size_t i : {1u, 2u, 5u})
        ASSERT_EQ(l.del(i), 0);
    EXPECT_EQ(l.avail, 1);
    EXPECT_EQ(l.add(), 1);
    EXPECT_EQ(l.avail, 2); // the very next
    EXPECT_EQ(l.add(), 2);
    EXPECT_EQ(l.avail, 5); // behind taken ones
    EXPECT_EQ(l.add(), 5);
    EXPECT_EQ(l.avail, -1); // none, up to the capacity
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(l.add(), 8);
}

TEST(xvlst_add, grows_when_all_slots_are_taken)
{
    List l;
    l.fill(4);
    EXPECT_EQ(l.max_len, 4u);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(l.add(), 4);
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(l.avail, 5);
    EXPECT_EQ(l.last, 4u);
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(*l.at(i), static_cast<int>(i) * 10);
}

TEST(xvlst_add, does_not_clear_a_slot_that_was_used_before)
{
    List l;
    l.fill(2);
    ASSERT_EQ(l.del(0), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 0);
    *l.at(0) = 77;
    ASSERT_EQ(l.del(0), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 0);
    EXPECT_EQ(*l.at(0), 77);
}

TEST(xvlst_add, takes_the_first_slot_again_when_the_list_has_run_empty)
{
    List l;
    l.fill(1);
    ASSERT_EQ(l.del(0), 0);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.add(), 0);
    EXPECT_EQ(l.avail, 1);
}

TEST(xvlst_add, gives_fixed_for_a_full_fixed_list)
{
    alignas(int) char buf[10]; // two blocks and their map
    xvlst l = {};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), BLK), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 1);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), -11);
    EXPECT_EQ(l.len, 2u);
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 0);
}

TEST(xvlst_add, gives_minus_one_where_no_slot_is_known)
{
    List l;
    l.fill(3);
    l.avail = -1;
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), -1);
    EXPECT_EQ(l.len, 3u);
    l.avail = 3;
}

TEST(xvlst_add, fails_when_memory_runs_out_and_leaves_the_list_alone)
{
    for (const int nth : {1, 2}) { // blocks, map
        List l;
        l.fill(4);
        fail_alloc::at(nth);
        EXPECT_EQ(l.add(), -1);
        EXPECT_EQ(fail_alloc::countdown, 0);
        EXPECT_EQ(l.max_len, 4u);
        EXPECT_EQ(visited(&l), (Indexes{0, 1, 2, 3}));
        EXPECT_TRUE(xvlst_validate(&l));
        EXPECT_EQ(l.add(), 4);
        EXPECT_EQ(*l.at(3), 30);
    }
}

TEST(xvlst_add, survives_a_first_map_that_cannot_be_had)
{
    List l;
    fail_alloc::at(2);
    EXPECT_EQ(l.add(), -1);
    EXPECT_TRUE(xvlst_validate(&l));
    EXPECT_EQ(visited(&l), Indexes{});
    EXPECT_EQ(l.del(0), EALREADY);
    EXPECT_EQ(l.add(), 0);
}

TEST(xvlst_add, ends_the_process_under_the_flag_when_memory_runs_out)
{
    List l;
    xvdat_flags = XV_ABORT_ENOMEM;
    EXPECT_EXIT((fail_alloc::at(1), l.add()), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT((fail_alloc::at(2), l.add()), testing::KilledBySignal(SIGABRT), "");
}

TEST(xvlst_add, asserts_a_sound_list)
{
    List l;
    EXPECT_DEATH(xvlst_add(nullptr, BLK, STEP), asserts("l"));
    l.fill(3);
    l.avail = 4;
    EXPECT_DEATH(l.add(), asserts("(0 == l->max_len) || (l->avail < (ssize_t)l->max_len)"));
    l.avail = 3;
    ASSERT_EQ(xvlst_reserve(&l, 8, BLK, STEP), 0);
    l.taken[4] = 1; // above the highest ever taken
    EXPECT_DEATH(l.add(), asserts("0 == l->taken[l->avail]"));
    l.taken[4] = 0;
}

// ---- capacity -------------------------------------------------------------------------------------------------

TEST(xvlst_reserve, rounds_up_and_clears_what_is_new)
{
    List l;
    EXPECT_EQ(xvlst_reserve(&l, 5, BLK, STEP), 0);
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(std::count(l.taken, l.taken + 8, 0), 8);
    EXPECT_EQ(std::count(l.at(0), l.at(8), 0), 8);
}

TEST(xvlst_reserve, does_nothing_up_to_the_capacity)
{
    List l;
    ASSERT_EQ(xvlst_reserve(&l, 8, BLK, STEP), 0);
    fail_alloc::at(1);
    EXPECT_EQ(xvlst_reserve(&l, 7, BLK, STEP), 0);
    EXPECT_EQ(xvlst_reserve(&l, 8, BLK, STEP), 0); // unlike xvec_reserve
    EXPECT_EQ(fail_alloc::countdown, 1);
    EXPECT_EQ(xvlst_reserve(&l, 9, BLK, STEP), -1);
}

TEST(xvlst_reserve, gives_a_full_list_its_first_new_slot)
{
    List l;
    l.fill(4);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_reserve(&l, 5, BLK, STEP), 0);
    EXPECT_EQ(l.avail, 4);
}

TEST(xvlst_reserve, leaves_the_next_slot_alone_when_there_is_one)
{
    List l;
    l.fill(4);
    ASSERT_EQ(l.del(1), 0);
    EXPECT_EQ(xvlst_reserve(&l, 5, BLK, STEP), 0);
    EXPECT_EQ(l.avail, 1);
}

TEST(xvlst_reserve, refuses_to_grow_a_fixed_list)
{
    alignas(int) char buf[10];
    xvlst l = {};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), BLK), 0);
    EXPECT_EQ(xvlst_reserve(&l, 2, BLK, STEP), 0);
    EXPECT_EQ(xvlst_reserve(&l, 3, BLK, STEP), ERR_XV_FIXED);
    EXPECT_EQ(xvlst_expand(&l, 2, BLK, STEP), 0); // unlike xvec_expand
    EXPECT_EQ(xvlst_expand(&l, 3, BLK, STEP), ERR_XV_FIXED);
}

TEST(xvlst_reserve, asserts_a_list_and_a_step)
{
    List l;
    EXPECT_DEATH(xvlst_reserve(nullptr, 1, BLK, STEP), asserts("l"));
    EXPECT_DEATH(xvlst_reserve(&l, 1, BLK, 0), asserts("v && (growblk > 0)"));
}

TEST(xvlst_expand, counts_from_the_slots_taken)
{
    List l;
    l.fill(3);
    EXPECT_EQ(xvlst_expand(&l, 1, BLK, STEP), 0);
    EXPECT_EQ(l.max_len, 4u);
    EXPECT_EQ(xvlst_expand(&l, 2, BLK, STEP), 0);
    EXPECT_EQ(l.max_len, 8u);
}

// ---- deletion -------------------------------------------------------------------------------------------------

TEST(xvlst_del, leaves_last_where_it_was)
{
    List l;
    l.fill(4);
    EXPECT_EQ(l.del(3), 0);
    EXPECT_EQ(l.del(1), 0);
    EXPECT_EQ(l.last, 3u);
    EXPECT_EQ(l.len, 2u);
    EXPECT_EQ(visited(&l), (Indexes{0, 2}));
}

TEST(xvlst_del, tells_a_free_slot_from_one_never_taken)
{
    List l;
    ASSERT_EQ(xvlst_reserve(&l, 100, BLK, STEP), 0);
    l.fill(3);
    ASSERT_EQ(l.del(1), 0);
    EXPECT_EQ(l.del(1), 114);
    EXPECT_EQ(l.del(3), 34); // whatever the capacity
    EXPECT_EQ(l.del(99), 34);
    EXPECT_EQ(l.del(100), 34);
    EXPECT_EQ(l.len, 2u);
    List empty;
    EXPECT_EQ(empty.del(0), 114);
    EXPECT_EQ(empty.del(1), 34);
}

TEST(xvlst_del, shows_the_record_that_goes)
{
    List l;
    l.fill(3);
    g_seen.clear();
    EXPECT_EQ(xvlst_del(&l, 2, clean), 0);
    EXPECT_EQ(g_seen, Indexes{2});
    EXPECT_EQ(xvlst_del(&l, 2, clean), 114);
    EXPECT_EQ(g_seen.size(), 1u);
}

TEST(xvlst_del, has_freed_the_slot_when_its_record_is_shown)
{
    static List* list;
    static size_t len_seen;
    List l;
    list = &l;
    l.fill(3);
    EXPECT_EQ(xvlst_del(&l, 1,
                        [](void* data, size_t i) {
                            EXPECT_EQ(static_cast<int*>(data)[i], 10);
                            EXPECT_EQ(visited(list), (Indexes{0, 2}));
                            len_seen = list->len;
                        }),
              0);
    EXPECT_EQ(len_seen, 3u); // the count comes down last
    EXPECT_EQ(l.len, 2u);
}

TEST(xvlst_del, keeps_the_lowest_free_slot_first)
{
    List l;
    l.fill(4);
    ASSERT_EQ(l.del(2), 0);
    EXPECT_EQ(l.avail, 2);
    ASSERT_EQ(l.del(3), 0);
    EXPECT_EQ(l.avail, 2);
    ASSERT_EQ(l.del(0), 0);
    EXPECT_EQ(l.avail, 0);
}

TEST(xvlst_del, asserts_that_there_are_records)
{
    List l;
    l.fill(2);
    l.len = 0;
    EXPECT_DEATH(l.del(1), asserts("l->len"));
    l.len = 2;
}

// ---- fixed lists ----------------------------------------------------------------------------------------------

TEST(xvlst_bind, leaves_room_for_the_map_behind_the_blocks)
{
    for (const auto& [bytes, slots] : {std::pair<size_t, size_t>{5, 1}, {9, 1}, {10, 2}, {14, 2}, {15, 3}, {40, 8}}) {
        alignas(int) char buf[48];
        memset(buf, 0x55, sizeof(buf));
        xvlst l = {};
        l.len = 3;
        EXPECT_EQ(xvlst_bind(&l, buf, bytes, BLK), 0);
        EXPECT_EQ(l.max_len, slots) << bytes;
        EXPECT_EQ(l.data, buf);
        EXPECT_EQ(l.taken, buf + slots * BLK);
        EXPECT_EQ(l.flags, XV_FIXED_SIZE);
        EXPECT_EQ(l.len, 0u);
        EXPECT_EQ(l.last, 0u);
        EXPECT_EQ(l.avail, 0);
        EXPECT_EQ(std::count(buf, buf + slots * (BLK + 1), 0), static_cast<long>(slots * (BLK + 1)));
        EXPECT_EQ(buf[slots * (BLK + 1)], 0x55);
    }
}

TEST(xvlst_bind, agrees_with_taking_slots_away_until_the_map_fits)
{
    std::vector<char> buf(600);
    for (size_t bytes = 1; bytes <= buf.size(); ++bytes) {
        for (size_t blksz = 1; blksz < 40; ++blksz) {
            size_t count = bytes / blksz;
            while (bytes - count * blksz < count)
                --count;
            xvlst l = {};
            ASSERT_EQ(xvlst_bind(&l, buf.data(), bytes, blksz), count == 0 ? -1 : 0);
            ASSERT_EQ(l.max_len, count) << bytes << " " << blksz;
        }
    }
}

TEST(xvlst_bind, refuses_memory_for_less_than_a_slot)
{
    char buf[8] = {'a'};
    xvlst l = {};
    l.len = 7;
    EXPECT_EQ(xvlst_bind(&l, buf, 4, BLK), -1); // a block, and no room for its map
    EXPECT_EQ(xvlst_bind(&l, buf, 0, BLK), -1);
    EXPECT_EQ(xvlst_bind(&l, buf, 8, 0), -1);
    EXPECT_EQ(l.len, 7u);
    EXPECT_EQ(buf[0], 'a');
}

TEST(xvlst_reset, lets_go_of_memory_that_it_was_bound_to)
{
    alignas(int) char buf[10];
    xvlst l = {};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), BLK), 0);
    ASSERT_EQ(xvlst_add(&l, BLK, STEP), 0);
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.taken, nullptr);
    EXPECT_EQ(l.flags, 0u); // a growing list from here on
    EXPECT_EQ(l.max_len, 0u);
}

TEST(xvlst_reset, frees_a_growing_list)
{
    List l;
    l.fill(3);
    l.meta.num = 5;
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.taken, nullptr);
    EXPECT_EQ(l.last, 0u);
    EXPECT_EQ(l.meta.num, 0);
    EXPECT_EQ(l.add(), 0);
}

TEST(xvlst_reset, ignores_null)
{
    xvlst_reset(nullptr);
    SUCCEED();
}

// ---- mapped lists ---------------------------------------------------------------------------------------------

TEST(xvlst_mmap_fixed, makes_a_fixed_list_that_keeps_its_block_size)
{
    xvlst l = {};
    l.last = 5;
    ASSERT_EQ(xvlst_mmap_fixed(&l, 1000, BLK), 0);
    EXPECT_EQ(l.max_len, 1000u);
    EXPECT_EQ(l.flags, XV_FIXED_SIZE | XV_MMAP);
    EXPECT_EQ(l.meta.num, static_cast<long>(BLK));
    EXPECT_EQ(l.taken, static_cast<char*>(l.data) + 1000 * BLK);
    EXPECT_EQ(l.len, 0u);
    EXPECT_EQ(l.last, 0u);
    EXPECT_TRUE(xvlst_validate(&l));
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(xvlst_add(&l, BLK, STEP), i);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), ERR_XV_FIXED);
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.flags, 0u);
}

TEST(xvlst_mmap_fixed, gives_no_memory_where_the_mapping_fails)
{
    LogCapture log;
    xvlst l = {};
    l.len = 7;
    EXPECT_EQ(xvlst_mmap_fixed(&l, SIZE_MAX / 8, BLK), 12);
    EXPECT_EQ(xvlst_mmap_fixed(&l, SIZE_MAX / 2, BLK), 12); // more bytes than a size can tell
    EXPECT_EQ(xvlst_mmap_fixed(&l, 0, BLK), 12);
    EXPECT_EQ(l.len, 7u);
    EXPECT_EQ(log.messages(ll::error).size(), 3u);
    EXPECT_TRUE(log.contains("xvlst_mmap_fixed: mmap(NULL, 0, ..) ERROR(22): Invalid argument"));
}

TEST(xvlst_reset, unmaps_blocks_and_map_to_the_last_page)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t count = page; // so that blocks and map end with a page each
    xvlst l = {};
    ASSERT_EQ(xvlst_mmap_fixed(&l, count, page - 1), 0);
    auto* const start = static_cast<char*>(l.data);
    const auto is_mapped = [start, page](size_t i) {
        unsigned char resident;
        return mincore(start + i * page, page, &resident) == 0;
    };
    EXPECT_TRUE(is_mapped(0));
    EXPECT_TRUE(is_mapped(count - 1)); // of the taken map
    xvlst_reset(&l);
    EXPECT_FALSE(is_mapped(0));
    EXPECT_FALSE(is_mapped(count - 1));
}

TEST(xvlst_reset, asserts_the_block_size_of_a_mapped_list)
{
    xvlst l = {};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 10, BLK), 0);
    l.meta.num = 0;
    EXPECT_DEATH(xvlst_reset(&l), asserts("blksz"));
    l.meta.num = BLK;
    xvlst_reset(&l);
}

TEST(xvlst_reset, aborts_when_a_mapping_cannot_be_undone)
{
    LogCapture log;
    xvlst l = {};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 10, BLK), 0);
    void* const data = l.data;
    l.data = static_cast<char*>(data) + 1;
    EXPECT_EXIT(xvlst_reset(&l), testing::KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.contains("xvlst_reset: munmap("));
    l.data = data;
    xvlst_reset(&l);
}

// ---- walks ----------------------------------------------------------------------------------------------------

TEST(xvlst_each, visits_taken_slots_up_to_last)
{
    List l;
    l.fill(4);
    ASSERT_EQ(l.del(0), 0);
    ASSERT_EQ(l.del(3), 0);
    g_seen.clear();
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 2); // the last call's result
    EXPECT_EQ(g_seen, (Indexes{1, 2}));
}

TEST(xvlst_each, with_pos_stops_at_the_first_non_zero_result)
{
    List l;
    l.fill(4);
    size_t pos = 99;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 1);
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(g_seen, (Indexes{0, 1}));
}

TEST(xvlst_each, makes_no_call_on_an_empty_list)
{
    List l;
    size_t pos = 99;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 0);
    l.fill(1);
    ASSERT_EQ(l.del(0), 0);
    EXPECT_EQ(xvlst_each(&l, see, &pos), 0);
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(pos, 99u);
}

TEST(xvlst_each_aux, hands_the_pointer_on)
{
    List l;
    l.fill(4);
    size_t from = 2;
    size_t pos = 99;
    EXPECT_EQ(xvlst_each_aux(&l, &from, see_from, &pos), 1);
    EXPECT_EQ(pos, 2u);
    EXPECT_EQ(g_seen.size(), 3u);
}

TEST(xvlst_each_aux, visits_records_added_ahead_but_none_above_the_old_last)
{
    List l;
    l.fill(4);
    ASSERT_EQ(l.del(2), 0);
    g_seen.clear();
    EXPECT_EQ(xvlst_each_aux(
                  &l, &l,
                  [](void* data, size_t i, void* aux) {
                      auto* l = static_cast<List*>(aux);
                      EXPECT_EQ(data, l->data); // though it moves as the list grows
                      EXPECT_EQ(static_cast<int*>(data)[i], static_cast<int>(i) * 10);
                      g_seen.push_back(i);
                      for (int n = 0; n < 50; ++n)
                          (void)l->add();
                      return 0;
                  },
                  nullptr),
              0);
    EXPECT_EQ(g_seen, (Indexes{0, 1, 2, 3}));
    EXPECT_EQ(l.len, 203u);
}

TEST(xvlst_each_aux, does_not_visit_records_deleted_ahead)
{
    List l;
    l.fill(4);
    g_seen.clear();
    (void)xvlst_each_aux(
        &l, &l,
        [](void*, size_t i, void* aux) {
            g_seen.push_back(i);
            (void)static_cast<List*>(aux)->del(i + 1);
            return 0;
        },
        nullptr);
    EXPECT_EQ(g_seen, (Indexes{0, 2}));
}

TEST(xvlst_each, ends_when_the_list_is_reset_on_the_way)
{
    static List* the_list;
    List l;
    l.fill(4);
    the_list = &l;
    static int calls;
    calls = 0;
    EXPECT_EQ(xvlst_each(
                  &l,
                  [](void*, size_t) {
                      ++calls;
                      xvlst_reset(the_list);
                      return 3;
                  },
                  nullptr),
              3);
    EXPECT_EQ(calls, 1);
}

TEST(xvlst_find, stops_at_the_first_match_with_and_without_pos)
{
    List l;
    l.fill(4);
    size_t from = 1;
    size_t pos = 99;
    EXPECT_EQ(xvlst_find(&l, &from, see_from, &pos), 1);
    EXPECT_EQ(pos, 1u);
    g_seen.clear();
    EXPECT_EQ(xvlst_find(&l, &from, see_from, nullptr), 1);
    EXPECT_EQ(g_seen, (Indexes{0, 1}));
    from = 4;
    pos = 99;
    EXPECT_EQ(xvlst_find(&l, &from, see_from, &pos), 0);
    EXPECT_EQ(pos, 99u);
    List empty;
    EXPECT_EQ(xvlst_find(&empty, &from, see_from, &pos), 0);
}

TEST(xvlst_walks, assert_list_and_function)
{
    List l;
    EXPECT_DEATH(xvlst_each(nullptr, see, nullptr), asserts("l && f"));
    EXPECT_DEATH(xvlst_each(&l, nullptr, nullptr), asserts("l && f"));
    EXPECT_DEATH(xvlst_each_aux(nullptr, nullptr, see_from, nullptr), asserts("l && f"));
    EXPECT_DEATH(xvlst_each_aux(&l, nullptr, nullptr, nullptr), asserts("l && f"));
    EXPECT_DEATH(xvlst_find(nullptr, nullptr, see_from, nullptr), asserts("l && f"));
    EXPECT_DEATH(xvlst_find(&l, nullptr, nullptr, nullptr), asserts("l && f"));
}

// ---- removal in bulk ------------------------------------------------------------------------------------------

TEST(xvlst_rmif, frees_the_matches_and_counts_them)
{
    List l;
    l.fill(6);
    ASSERT_EQ(l.del(4), 0);
    size_t from = 2;
    size_t pos = 99;
    EXPECT_EQ(xvlst_rmif(&l, &from, see_from, &pos), 3);
    EXPECT_EQ(visited(&l), (Indexes{0, 1}));
    EXPECT_EQ(l.avail, 2);
    EXPECT_EQ(pos, 99u);
    EXPECT_EQ(xvlst_rmif(&l, &from, see_from, nullptr), 0);
    List empty;
    EXPECT_EQ(xvlst_rmif(&empty, &from, see_from, nullptr), 0);
}

TEST(xvlst_rmif, stops_where_a_slot_cannot_be_freed)
{
    List l;
    l.fill(6);
    const auto steal = [](void*, size_t i, void* aux) {
        if (i == 3) (void)static_cast<List*>(aux)->del(i);
        return i >= 1 ? 1 : 0;
    };
    size_t pos = 99;
    EXPECT_EQ(xvlst_rmif(&l, &l, steal, &pos), -1);
    EXPECT_EQ(pos, 3u);
    EXPECT_EQ(visited(&l), (Indexes{0, 4, 5}));
    EXPECT_EQ(xvlst_rmif(
                  &l, &l, [](void*, size_t i, void* aux) { return 1 + static_cast<List*>(aux)->del(i); }, nullptr),
              -1);
}

TEST(xvlst_purge_all, frees_all_slots_and_keeps_the_memory)
{
    List l;
    l.fill(4);
    ASSERT_EQ(l.del(1), 0);
    void* const data = l.data;
    g_seen.clear();
    xvlst_purge_all(&l, clean);
    EXPECT_EQ(g_seen, (Indexes{0, 2, 3}));
    EXPECT_EQ(l.len, 0u);
    EXPECT_EQ(l.last, 0u);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.data, data);
    EXPECT_EQ(l.max_len, 4u);
    EXPECT_EQ(std::count(l.taken, l.taken + 4, 0), 4);
    EXPECT_EQ(l.add(), 0);
    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(l.len, 0u);
}

TEST(xvlst_purge_all, frees_the_one_slot_of_the_smallest_list)
{
    char buf[BLK + 1];
    xvlst l = {};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), BLK), 0);
    ASSERT_EQ(xvlst_add(&l, BLK, STEP), 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), ERR_XV_FIXED);
    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(xvlst_add(&l, BLK, STEP), 0);
}

TEST(xvlst_purge_all, does_nothing_to_a_list_that_has_run_empty)
{
    List l;
    l.fill(3);
    for (const size_t i : {0u, 1u, 2u})
        ASSERT_EQ(l.del(i), 0);
    g_seen.clear();
    xvlst_purge_all(&l, clean);
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(l.last, 2u); // not even this
    List empty;
    xvlst_purge_all(&empty, clean);
    EXPECT_EQ(empty.avail, 0);
}

TEST(xvlst_purge_all, asserts_a_list_and_its_map)
{
    EXPECT_DEATH(xvlst_purge_all(nullptr, clean), asserts("l"));
    List l;
    l.fill(2);
    char* const taken = l.taken;
    l.taken = nullptr;
    EXPECT_DEATH(xvlst_purge_all(&l, clean), asserts("l->taken"));
    l.taken = taken;
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST(xvlst_validate, objects_to_each_broken_field)
{
    List l;
    l.fill(6);
    ASSERT_EQ(l.del(2), 0);
    const xvlst good = l;
    EXPECT_TRUE(xvlst_validate(&l));
    EXPECT_FALSE(xvlst_validate(nullptr));
    const auto objects = [&](auto&& damage) {
        xvlst bad = good;
        damage(bad);
        return !xvlst_validate(&bad);
    };
    EXPECT_TRUE(objects([](xvlst& b) { b.data = nullptr; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.taken = nullptr; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.len = 4; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.len = 6; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.len = 9; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.max_len = 0; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.flags = 8; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.flags = XV_MMAP; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.flags = XV_MMAP | XV_FIXED_SIZE; })); // no block size
    EXPECT_TRUE(objects([](xvlst& b) { b.last = 4; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.last = 8; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.avail = -1; }));
    EXPECT_TRUE(objects([](xvlst& b) { b.avail = 6; }));
    EXPECT_FALSE(objects([](xvlst& b) { b.meta.num = 9; }));
    l.taken[7] = 1;
    EXPECT_FALSE(xvlst_validate(&l));
    l.taken[7] = 0;
}

TEST(xvlst_dump, tells_the_record_and_the_taken_slots)
{
    List l;
    l.fill(8);
    for (const size_t i : {3u, 5u, 6u})
        ASSERT_EQ(l.del(i), 0);
    char expected[128];
    snprintf(expected, sizeof(expected), "list %p, valid: 5 of 8 slots taken, last 7, next free 3\n  taken: 0-2 4 7\n",
             l.data);
    EXPECT_EQ(printed([&](FILE* fp) { xvlst_dump(&l, fp); }), expected);
    l.avail = 4;
    EXPECT_NE(printed([&](FILE* fp) { xvlst_dump(&l, fp); }).find("INVALID"), std::string::npos);
    l.avail = 3;
    xvlst_purge_all(&l, nullptr);
    EXPECT_NE(printed([&](FILE* fp) { xvlst_dump(&l, fp); }).find("  taken: none\n"), std::string::npos);
    EXPECT_EQ(printed([&](FILE* fp) { xvlst_dump(nullptr, fp); }), "list: none\n");
}
