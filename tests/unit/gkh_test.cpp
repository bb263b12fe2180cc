// Hash tables keyed by string and by number.
#include "gkh.h"

#include "lib/gkh_int.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/fake_clock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace
{

using gkh_int::table_of;

void* ptr(long n)
{
    return reinterpret_cast<void*>(n);
}

int g_frees = 0;
void count_free(void*)
{
    ++g_frees;
}

struct StrTable {
    explicit StrTable(size_t capacity = 100, khash_t hfunc = nullptr)
    {
        EXPECT_EQ(skht_create(&h, capacity, hfunc, nullptr, 0), 0);
    }
    ~StrTable() { skht_destroy(h, nullptr); }
    StrTable(const StrTable&) = delete;
    StrTable& operator=(const StrTable&) = delete;

    int add(const std::string& key, void* data) { return skht_add(h, key.c_str(), &data); }
    // The data, or a null where the key isn't found.
    void* get(const std::string& key)
    {
        void* data = nullptr;
        rc = skht_get(h, key.c_str(), &data);
        return data;
    }
    skht_t h = nullptr;
    int rc = -1;
};

struct NumTable {
    explicit NumTable(size_t capacity = 100, khash_t hfunc = nullptr)
    {
        EXPECT_EQ(nkht_create(&h, capacity, hfunc), 0);
    }
    ~NumTable() { nkht_destroy(h, nullptr); }
    NumTable(const NumTable&) = delete;
    NumTable& operator=(const NumTable&) = delete;

    int add(long key, void* data) { return nkht_add(h, key, &data); }
    void* get(long key)
    {
        void* data = nullptr;
        rc = nkht_get(h, key, &data);
        return data;
    }
    nkht_t h = nullptr;
    int rc = -1;
};

// All strings in one chain.
u_long same_slot(const void*, u_long)
{
    return 0;
}

// A number's slot without its low four bits, so that keys can share one.
u_long by_sixteens(const void* key, u_long)
{
    return reinterpret_cast<u_long>(key) >> 4;
}

using Keys = std::vector<std::string>;

void note_skey(const void* key, void*, void* farg)
{
    static_cast<Keys*>(farg)->push_back(static_cast<const char*>(key));
}

void note_nkey(const void* key, void* data, void* farg)
{
    (*static_cast<std::map<long, void*>*>(farg))[reinterpret_cast<long>(key)] = data;
}

} // namespace

// ---- creation -------------------------------------------------------------------------------------------------

TEST(gkh_create, takes_the_greatest_power_of_two_up_to_one_and_a_half_times_the_capacity)
{
    for (const auto& [capacity, slots] : {std::pair<size_t, size_t>{1, 1},
                                          {2, 2},
                                          {3, 4},
                                          {5, 4},
                                          {6, 8},
                                          {85, 64},
                                          {86, 128},
                                          {100, 128},
                                          {128, 128},
                                          {170, 128},
                                          {171, 256}}) {
        NumTable t(capacity);
        EXPECT_EQ(table_of(t.h)->rlen, slots) << capacity;
        EXPECT_EQ(nkht_count(t.h), 0u);
        EXPECT_TRUE(nkht_validate(t.h));
    }
}

TEST(gkh_create, refuses_more_than_five_million)
{
    nkht_t n = reinterpret_cast<nkht_t>(1);
    EXPECT_EQ(nkht_create(&n, 5000001, nullptr), 75);
    EXPECT_EQ(n, nullptr);
    skht_t s = reinterpret_cast<skht_t>(1);
    EXPECT_EQ(skht_create(&s, 5000001, nullptr, nullptr, 0), 75);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(nkht_create(&n, 5000000, nullptr), 0);
    EXPECT_EQ(table_of(n)->rlen, 4194304u);
    nkht_destroy(n, nullptr);
    EXPECT_EQ(nkht_create(&n, 4999999, nullptr), 0);
    nkht_destroy(n, nullptr);
}

TEST(gkh_create, gives_12_and_no_table_when_memory_runs_out)
{
    const char* keys[] = {"a", "b"};
    for (const int nth : {1, 2, 3, 4}) { // table, slots, first key, second key
        skht_t h = reinterpret_cast<skht_t>(1);
        fail_alloc::at(nth);
        EXPECT_EQ(skht_create(&h, 10, nullptr, keys, 2), 12);
        EXPECT_EQ(fail_alloc::countdown, 0);
        EXPECT_EQ(h, nullptr);
    }
}

TEST(gkh_create, seeds_the_hash_with_the_time)
{
    fake_clock::set(1234567);
    StrTable s;
    NumTable n;
    fake_clock::release();
    EXPECT_EQ(table_of(s.h)->hseed, 1234567u);
    EXPECT_EQ(table_of(n.h)->hseed, 1234567u);
}

TEST(gkh_create, hashes_strings_with_plHash_and_numbers_not_at_all_by_default)
{
    StrTable s;
    EXPECT_EQ(table_of(s.h)->icalc, plHash);
    StrTable e(10, elfHash);
    EXPECT_EQ(table_of(e.h)->icalc, elfHash);
    NumTable n;
    EXPECT_EQ(table_of(n.h)->icalc, nullptr);
    NumTable t(10, tw_shift);
    EXPECT_EQ(table_of(t.h)->icalc, tw_shift);
}

TEST(skht_create, adds_the_keys_of_the_list_with_null_data)
{
    const char* keys[] = {"one", "two", "three"};
    skht_t h = nullptr;
    ASSERT_EQ(skht_create(&h, 10, nullptr, keys, 3), 0);
    EXPECT_EQ(skht_count(h), 3u);
    void* data = &h;
    EXPECT_EQ(skht_get(h, "two", &data), 0);
    EXPECT_EQ(data, nullptr);
    skht_destroy(h, nullptr);
}

TEST(skht_create, fails_on_a_key_that_the_list_names_twice)
{
    const char* keys[] = {"one", "two", "one", "three"};
    skht_t h = reinterpret_cast<skht_t>(1);
    EXPECT_EQ(skht_create(&h, 10, nullptr, keys, 4), 16);
    EXPECT_EQ(h, nullptr);
}

TEST(gkh_create, asserts_its_arguments)
{
    skht_t s;
    nkht_t n;
    const char* keys[] = {"a"};
    EXPECT_DEATH(skht_create(nullptr, 1, nullptr, nullptr, 0), asserts("ph && capacity"));
    EXPECT_DEATH(skht_create(&s, 0, nullptr, nullptr, 0), asserts("ph && capacity"));
    EXPECT_DEATH(nkht_create(nullptr, 1, nullptr), asserts("ph && capacity"));
    EXPECT_DEATH(nkht_create(&n, 0, nullptr), asserts("ph && capacity"));
    EXPECT_DEATH(skht_create(&s, 1, nullptr, keys, 0), asserts("!klst || (klst && len)"));
}

// ---- records --------------------------------------------------------------------------------------------------

TEST(gkh_add, stores_the_data_or_null)
{
    StrTable s;
    EXPECT_EQ(s.add("a", ptr(7)), 0);
    EXPECT_EQ(skht_add(s.h, "b", nullptr), 0);
    EXPECT_EQ(skht_count(s.h), 2u);
    EXPECT_EQ(s.get("a"), ptr(7));
    EXPECT_EQ(s.rc, 0);
    EXPECT_EQ(s.get("b"), nullptr);
    EXPECT_EQ(s.rc, 0);
    NumTable n;
    EXPECT_EQ(n.add(-5, ptr(8)), 0);
    EXPECT_EQ(n.get(-5), ptr(8));
    EXPECT_EQ(nkht_count(n.h), 1u);
}

TEST(gkh_add, gives_16_and_the_first_data_for_a_key_that_exists)
{
    StrTable s;
    ASSERT_EQ(s.add("a", ptr(7)), 0);
    void* data = ptr(9);
    EXPECT_EQ(skht_add(s.h, "a", &data), 16);
    EXPECT_EQ(data, ptr(7));
    EXPECT_EQ(s.get("a"), ptr(7));
    EXPECT_EQ(skht_count(s.h), 1u);
    EXPECT_EQ(skht_add(s.h, "a", nullptr), 16);

    NumTable n;
    ASSERT_EQ(n.add(3, ptr(7)), 0);
    data = ptr(9);
    EXPECT_EQ(nkht_add(n.h, 3, &data), 16);
    EXPECT_EQ(data, ptr(7));
    EXPECT_EQ(n.get(3), ptr(7));
}

TEST(gkh_add, gives_12_when_memory_runs_out)
{
    StrTable s;
    NumTable n;
    void* data = ptr(9);
    fail_alloc::at(1);
    EXPECT_EQ(skht_add(s.h, "a", &data), 12);
    fail_alloc::at(1);
    EXPECT_EQ(nkht_add(n.h, 1, &data), 12);
    EXPECT_EQ(data, ptr(9));
    EXPECT_EQ(skht_count(s.h), 0u);
    EXPECT_EQ(nkht_count(n.h), 0u);
    EXPECT_TRUE(skht_validate(s.h));
}

TEST(gkh_add, asserts_table_and_key)
{
    StrTable s;
    NumTable n;
    EXPECT_DEATH(skht_add(s.h, nullptr, nullptr), asserts("tbl && key"));
    EXPECT_DEATH(skht_add(nullptr, "a", nullptr), asserts("tbl && key"));
    EXPECT_DEATH(nkht_add(n.h, 0, nullptr), asserts("tbl && key")); // zero is no key
    EXPECT_DEATH(nkht_add(nullptr, 1, nullptr), asserts("tbl && key"));
    EXPECT_EQ(nkht_get(n.h, 0, nullptr), 3);
    EXPECT_EQ(nkht_rm(n.h, 0, nullptr), 3);
}

TEST(gkh_get, gives_3_for_a_key_that_is_not_there)
{
    StrTable s;
    void* data = ptr(9);
    EXPECT_EQ(skht_get(s.h, "a", &data), 3); // an empty chain
    StrTable one(100, same_slot);
    ASSERT_EQ(one.add("m", nullptr), 0);
    EXPECT_EQ(skht_get(one.h, "a", &data), 3); // ahead of the chain's records
    EXPECT_EQ(skht_get(one.h, "z", &data), 3); // behind them
    EXPECT_EQ(data, ptr(9));
    EXPECT_EQ(skht_get(one.h, "m", nullptr), 0);
}

TEST(gkh_rm, hands_the_data_out)
{
    StrTable s;
    ASSERT_EQ(s.add("a", ptr(7)), 0);
    void* data = ptr(9);
    EXPECT_EQ(skht_rm(s.h, "b", &data), 3);
    EXPECT_EQ(data, ptr(9));
    EXPECT_EQ(skht_rm(s.h, "a", &data), 0);
    EXPECT_EQ(data, ptr(7));
    EXPECT_EQ(skht_rm(s.h, "a", &data), 3);
    EXPECT_EQ(skht_count(s.h), 0u);

    NumTable n;
    ASSERT_EQ(n.add(1, ptr(7)), 0);
    EXPECT_EQ(nkht_rm(n.h, 2, nullptr), 3);
    EXPECT_EQ(nkht_rm(n.h, 1, nullptr), 0);
    EXPECT_EQ(nkht_count(n.h), 0u);
}

TEST(gkh_rm, unlinks_from_any_place_of_a_chain)
{
    for (const std::string victim : {"a", "b", "c"}) {
        StrTable s(100, same_slot);
        for (const char* key : {"b", "c", "a"})
            ASSERT_EQ(s.add(key, nullptr), 0);
        EXPECT_EQ(skht_rm(s.h, victim.c_str(), nullptr), 0);
        Keys left;
        EXPECT_EQ(skht_iter(s.h, note_skey, &left), 2u);
        for (const char* key : {"a", "b", "c"}) {
            (void)s.get(key);
            EXPECT_EQ(s.rc, key == victim ? 3 : 0);
        }
        EXPECT_TRUE(skht_validate(s.h));
    }
}

TEST(gkh, gives_22_for_a_table_without_slots)
{
    StrTable s;
    NumTable n;
    const size_t slots = table_of(s.h)->rlen;
    table_of(s.h)->rlen = table_of(n.h)->rlen = 0;
    EXPECT_EQ(skht_add(s.h, "a", nullptr), 22);
    EXPECT_EQ(skht_rm(s.h, "a", nullptr), 22);
    EXPECT_EQ(skht_get(s.h, "a", nullptr), 22);
    EXPECT_EQ(nkht_add(n.h, 1, nullptr), 22);
    EXPECT_EQ(nkht_rm(n.h, 1, nullptr), 22);
    EXPECT_EQ(nkht_get(n.h, 1, nullptr), 22);
    table_of(s.h)->rlen = table_of(n.h)->rlen = slots;
}

TEST(gkh, asserts_a_table)
{
    EXPECT_DEATH(skht_rm(nullptr, "a", nullptr), asserts("tbl"));
    EXPECT_DEATH(skht_get(nullptr, "a", nullptr), asserts("tbl"));
    EXPECT_DEATH(skht_destroy(nullptr, nullptr), asserts("tbl"));
    EXPECT_DEATH(nkht_rm(nullptr, 1, nullptr), asserts("tbl"));
    EXPECT_DEATH(nkht_get(nullptr, 1, nullptr), asserts("tbl"));
    EXPECT_DEATH(nkht_destroy(nullptr, nullptr), asserts("tbl"));
}

// ---- keys -----------------------------------------------------------------------------------------------------

// Whoever stores keys this long can't find them again; callers keep theirs shorter.
TEST(skht_add, cuts_a_key_at_254_characters_which_no_lookup_does)
{
    const std::string key(300, 'k');
    StrTable s(100, same_slot);
    EXPECT_EQ(s.add(key, ptr(1)), 0);
    EXPECT_EQ(skht_get(s.h, key.c_str(), nullptr), 3);
    EXPECT_EQ(skht_rm(s.h, key.c_str(), nullptr), 3);
    EXPECT_EQ(s.get(key.substr(0, 254)), ptr(1));
    Keys stored;
    (void)skht_iter(s.h, note_skey, &stored);
    EXPECT_EQ(stored, Keys{key.substr(0, 254)});
    EXPECT_EQ(s.add(key, ptr(2)), 0); // and so it can be added twice
    EXPECT_EQ(skht_count(s.h), 2u);
    EXPECT_TRUE(skht_validate(s.h));
}

TEST(skht_add, keeps_keys_of_up_to_254_characters_whole)
{
    for (const size_t len : {0u, 1u, 253u, 254u, 255u}) {
        StrTable s;
        const std::string key(len, 'k');
        EXPECT_EQ(s.add(key, ptr(1)), 0);
        (void)s.get(key);
        EXPECT_EQ(s.rc, len <= 254 ? 0 : 3) << len;
        EXPECT_TRUE(skht_validate(s.h));
    }
}

// Keys that are equal in their low halves are one key, where they share a slot.
TEST(nkht_get, takes_a_key_that_differs_above_bit_31_for_the_same)
{
    NumTable n;
    const long key = 77;
    const long twin = key + (1L << 32);
    ASSERT_EQ(n.add(key, ptr(1)), 0);
    EXPECT_EQ(n.get(twin), ptr(1));
    EXPECT_EQ(n.rc, 0);
    void* data = ptr(2);
    EXPECT_EQ(nkht_add(n.h, twin, &data), 16);
    EXPECT_EQ(data, ptr(1));
    // In another slot they are two.
    NumTable mixed(100, by_sixteens);
    ASSERT_EQ(mixed.add(key, ptr(1)), 0);
    EXPECT_EQ(mixed.get(key + (1L << 36)), ptr(1));
    NumTable spread(100, tw_shift);
    ASSERT_EQ(spread.add(key, ptr(1)), 0);
    (void)spread.get(twin);
    EXPECT_EQ(spread.rc, 3);
}

TEST(nkht, sorts_a_chain_by_the_signed_difference_of_low_halves)
{
    NumTable n(1); // one slot
    std::vector<long> order;
    const auto walk = [&] {
        order.clear();
        (void)nkht_iter(
            n.h,
            [](const void* key, void*, void* farg) {
                static_cast<std::vector<long>*>(farg)->push_back(reinterpret_cast<long>(key));
            },
            &order);
        return order;
    };
    for (const long key : {30L, -10L, 20L, 1L})
        ASSERT_EQ(n.add(key, nullptr), 0);
    EXPECT_EQ(walk(), (std::vector<long>{-10, 1, 20, 30}));
    // A difference beyond 31 bits has the wrong sign: so far above, a key counts as below.
    ASSERT_EQ(n.add(0x80000005, nullptr), 0);
    EXPECT_EQ(walk(), (std::vector<long>{0x80000005, -10, 1, 20, 30}));
    EXPECT_TRUE(nkht_validate(n.h));
}

TEST(skht, sorts_a_chain_by_key)
{
    StrTable s(100, same_slot);
    for (const char* key : {"m", "z", "a", "ma", "\xe4", ""})
        ASSERT_EQ(s.add(key, nullptr), 0);
    Keys order;
    EXPECT_EQ(skht_iter(s.h, note_skey, &order), 6u);
    EXPECT_EQ(order, (Keys{"", "a", "m", "ma", "z", "\xe4"}));
}

// ---- walks, destruction ---------------------------------------------------------------------------------------

TEST(gkh_iter, visits_every_record_slot_by_slot)
{
    NumTable n(4); // four slots
    std::map<long, void*> expected;
    for (const long key : {9L, 2L, 4L, 1L, 7L}) {
        expected[key] = ptr(key * 10);
        ASSERT_EQ(n.add(key, ptr(key * 10)), 0);
    }
    std::map<long, void*> seen;
    EXPECT_EQ(nkht_iter(n.h, note_nkey, &seen), 5u);
    EXPECT_EQ(seen, expected);
    std::vector<long> order;
    (void)nkht_iter(
        n.h,
        [](const void* key, void*, void* farg) {
            static_cast<std::vector<long>*>(farg)->push_back(reinterpret_cast<long>(key));
        },
        &order);
    EXPECT_EQ(order, (std::vector<long>{4, 1, 9, 2, 7}));
    NumTable empty;
    EXPECT_EQ(nkht_iter(empty.h, note_nkey, &seen), 0u);
}

TEST(gkh_destroy, frees_the_data_of_every_record)
{
    skht_t s = nullptr;
    ASSERT_EQ(skht_create(&s, 4, nullptr, nullptr, 0), 0);
    for (const char* key : {"a", "b", "c", "d", "e"}) {
        void* data = strdup(key);
        ASSERT_EQ(skht_add(s, key, &data), 0);
    }
    skht_destroy(s, free); // leaks show under the sanitizer

    nkht_t n = nullptr;
    ASSERT_EQ(nkht_create(&n, 4, nullptr), 0);
    for (long key = 1; key <= 9; ++key)
        ASSERT_EQ(nkht_add(n, key, nullptr), 0);
    g_frees = 0;
    nkht_destroy(n, count_free);
    EXPECT_EQ(g_frees, 9);
}

// A number of slots that no table can have: the record is damaged, and its slots are no place to look for data.
TEST(gkh_destroy, keeps_off_slots_beyond_the_greatest_capacity)
{
    for (const auto& [rlen, frees] : {std::pair<size_t, int>{4999999, 1}, {5000000, 1}, {5000001, 0}}) {
        nkht_t n = nullptr;
        ASSERT_EQ(nkht_create(&n, 1, nullptr), 0);
        ASSERT_EQ(nkht_add(n, 7, nullptr), 0);
        ht_t* tbl = table_of(n);
        hrec* const only = tbl->r[0];
        free(tbl->r);
        tbl->r = static_cast<hrec**>(calloc(rlen, sizeof(hrec*)));
        ASSERT_NE(tbl->r, nullptr);
        tbl->r[rlen - 1] = only;
        tbl->rlen = rlen;
        hrec** const slots = tbl->r;
        g_frees = 0;
        nkht_destroy(n, count_free);
        EXPECT_EQ(g_frees, frees) << rlen;
        if (frees == 0) {
            free(only);
            free(slots);
        }
    }
}

// ---- printing -------------------------------------------------------------------------------------------------

TEST(skht_print, tells_how_full_the_table_is)
{
    fake_clock::set(4711);
    StrTable s(4, same_slot);
    fake_clock::release();
    for (const char* key : {"two", "one"})
        ASSERT_EQ(s.add(key, nullptr), 0);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "Hash [%p;seed=4711] contains: \n\t2 records; slots: 1/4\nMax chain length: 2\n", static_cast<void*>(s.h));
    EXPECT_EQ(printed([&](FILE* fp) { skht_print(s.h, fp, 0); }), expected);
    EXPECT_EQ(printed([&](FILE* fp) { skht_print(s.h, fp, 1); }),
              std::string(expected) + "\nHash slots (total=4):\n0:(2:two);\n");
}

TEST(nkht_print, tells_slot_chain_length_and_last_key)
{
    fake_clock::set(4711);
    NumTable n(4);
    fake_clock::release();
    for (const long key : {1L, 5L, 9L, 3L})
        ASSERT_EQ(n.add(key, nullptr), 0);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "Hash [%p;seed=4711] contains: \n\t4 records; slots: 2/4\nMax chain length: 3\n"
             "\nHash slots (total=4):\n1:(3:9);3:(1:3);\n",
             static_cast<void*>(n.h));
    EXPECT_EQ(printed([&](FILE* fp) { nkht_print(n.h, fp, 1); }), expected);
}

TEST(gkh_print, of_an_empty_table_names_no_slot)
{
    NumTable n(1);
    const std::string text = printed([&](FILE* fp) { nkht_print(n.h, fp, 1); });
    EXPECT_NE(text.find("\t0 records; slots: 0/1\nMax chain length: 0\n\nHash slots (total=1):\n\n"),
              std::string::npos);
}

TEST(gkh_print, says_when_memory_runs_out)
{
    StrTable s;
    fail_alloc::at(1);
    EXPECT_EQ(printed([&](FILE* fp) { skht_print(s.h, fp, 1); }), "dump: out of memory\n");
}

TEST(gkh_print, asserts_table_and_stream)
{
    StrTable s;
    EXPECT_DEATH(skht_print(nullptr, stdout, 0), asserts("tbl && out"));
    EXPECT_DEATH(skht_print(s.h, nullptr, 0), asserts("tbl && out"));
    EXPECT_DEATH(nkht_print(nullptr, stdout, 0), asserts("tbl && out"));
}

// ---- hash functions -------------------------------------------------------------------------------------------

TEST(plHash, multiplies_by_101_from_the_seed)
{
    EXPECT_EQ(plHash("", 5), 5u);
    EXPECT_EQ(plHash("a", 0), 97u);
    EXPECT_EQ(plHash("ab", 1), (1u * 101 + 97) * 101 + 98);
    EXPECT_EQ(plHash("\xff", 10), 10u * 101 - 1); // characters count signed
    EXPECT_EQ(plHash("\x80", 0), static_cast<u_long>(-128));
}

TEST(elfHash, folds_the_high_nibble_back_and_ignores_the_seed)
{
    EXPECT_EQ(elfHash("", 5), 0u);
    EXPECT_EQ(elfHash("a", 5), 0x61u);
    EXPECT_EQ(elfHash("abc", 0), 0x6783u);
    EXPECT_EQ(elfHash("printf", 0), 0x77905a6u); // as in the ELF documents
    EXPECT_EQ(elfHash("exit", 0), 0x6cf04u);
    EXPECT_EQ(elfHash("exit", 99), elfHash("exit", 0));
    EXPECT_EQ(elfHash("syscall", 0), 0xb09985cu);
}

TEST(tw_shift, mixes_64_bits_and_ignores_the_seed)
{
    // The same mix, written with the shifts and sums that it was published in.
    const auto mix = [](u_long key) {
        key = ~key + (key << 21);
        key = key ^ (key >> 24);
        key = (key + (key << 3)) + (key << 8);
        key = key ^ (key >> 14);
        key = (key + (key << 2)) + (key << 4);
        key = key ^ (key >> 28);
        key = key + (key << 31);
        return key;
    };
    std::mt19937_64 rnd(7);
    for (int i = 0; i < 1000; ++i) {
        const u_long key = i < 3 ? static_cast<u_long>(i) : rnd();
        ASSERT_EQ(tw_shift(reinterpret_cast<const void*>(key), rnd()), mix(key)) << key;
    }
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST(gkh_validate, objects_to_each_broken_field)
{
    EXPECT_FALSE(skht_validate(nullptr));
    EXPECT_FALSE(nkht_validate(nullptr));
    const auto objects = [](auto&& damage) {
        StrTable s(100, plHash);
        for (const char* key : {"a", "b", "c"})
            EXPECT_EQ(s.add(key, nullptr), 0);
        EXPECT_TRUE(skht_validate(s.h));
        const ht_t good = *table_of(s.h);
        damage(*table_of(s.h));
        const bool objected = !skht_validate(s.h);
        *table_of(s.h) = good;
        return objected;
    };
    EXPECT_TRUE(objects([](ht_t& t) { t.ktype = ekt_NUM; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.r = nullptr; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.rlen = 0; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.rlen = 127; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.count = 2; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.count = 4; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.icalc = nullptr; }));
    EXPECT_TRUE(objects([](ht_t& t) { t.hseed += 1; })); // the records stand in other slots
}

TEST(gkh_validate, objects_to_broken_fields_that_no_record_tells_of)
{
    StrTable s(100);
    const ht_t good = *table_of(s.h);
    table_of(s.h)->rlen = 127;
    EXPECT_FALSE(skht_validate(s.h));
    *table_of(s.h) = good;
    table_of(s.h)->rlen = 8388608; // more than the greatest capacity makes
    EXPECT_FALSE(skht_validate(s.h));
    *table_of(s.h) = good;
    table_of(s.h)->icalc = nullptr;
    EXPECT_FALSE(skht_validate(s.h));
    *table_of(s.h) = good;
    EXPECT_TRUE(skht_validate(s.h));
}

TEST(gkh_validate, objects_to_a_chain_out_of_order)
{
    StrTable s(100, same_slot);
    ASSERT_EQ(s.add("a", nullptr), 0);
    ASSERT_EQ(s.add("b", nullptr), 0);
    hrec* a = table_of(s.h)->r[0];
    hrec* b = a->next;
    table_of(s.h)->r[0] = b;
    b->next = a;
    a->next = nullptr;
    EXPECT_FALSE(skht_validate(s.h));
    a->next = b; // and a chain that runs in a ring ends, too
    EXPECT_FALSE(skht_validate(s.h));
    a->next = nullptr;
}

TEST(gkh_dump, tells_every_chain)
{
    fake_clock::set(4711);
    NumTable n(4);
    StrTable s(1);
    fake_clock::release();
    for (const long key : {5L, 1L, 3L})
        ASSERT_EQ(n.add(key, ptr(key * 16)), 0);
    ASSERT_EQ(s.add("k", nullptr), 0);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "hash table %p by number, valid: 3 records, 4 slots, seed 4711\n  slot 1: 1=0x10 5=0x50\n"
             "  slot 3: 3=0x30\n",
             static_cast<void*>(n.h));
    EXPECT_EQ(printed([&](FILE* fp) { nkht_dump(n.h, fp); }), expected);
    snprintf(expected, sizeof(expected),
             "hash table %p by string, valid: 1 records, 1 slots, seed 4711\n  slot 0: [k]=(nil)\n",
             static_cast<void*>(s.h));
    EXPECT_EQ(printed([&](FILE* fp) { skht_dump(s.h, fp); }), expected);
    table_of(s.h)->count = 9;
    EXPECT_NE(printed([&](FILE* fp) { skht_dump(s.h, fp); }).find("INVALID"), std::string::npos);
    table_of(s.h)->count = 1;
    EXPECT_EQ(printed([&](FILE* fp) { skht_dump(nullptr, fp); }), "hash table: none\n");
}

// ---- against std::unordered_map -------------------------------------------------------------------------------

TEST(skht, agrees_with_a_standard_map_over_thousands_of_steps)
{
    const std::pair<khash_t, size_t> kinds[] = {
        {nullptr, 64}, {elfHash, 64}, {plHash, 5}, {elfHash, 1}, {same_slot, 16}};
    unsigned seed = 100;
    for (const auto& [hfunc, capacity] : kinds) {
        SCOPED_TRACE(testing::Message() << "seed " << ++seed);
        std::mt19937 rnd(seed);
        StrTable s(capacity, hfunc);
        std::unordered_map<std::string, void*> model;
        for (int step = 0; step < 3000; ++step) {
            // From few keys, some of one letter and some of the greatest length, so that hits are frequent.
            const std::string key(rnd() % 8 == 0 ? 254 - rnd() % 2 : rnd() % 3, static_cast<char>('\x70' + rnd() % 24));
            void* data = ptr(static_cast<long>(rnd() % 10000));
            const auto it = model.find(key);
            switch (rnd() % 3) {
            case 0: {
                void* given = data;
                ASSERT_EQ(skht_add(s.h, key.c_str(), &given), it == model.end() ? 0 : EBUSY);
                ASSERT_EQ(given, it == model.end() ? data : it->second);
                model.emplace(key, data);
                break;
            }
            case 1: {
                void* got = data;
                ASSERT_EQ(skht_rm(s.h, key.c_str(), &got), it == model.end() ? ESRCH : 0);
                ASSERT_EQ(got, it == model.end() ? data : it->second);
                if (it != model.end()) model.erase(it);
                break;
            }
            default: {
                void* got = data;
                ASSERT_EQ(skht_get(s.h, key.c_str(), &got), it == model.end() ? ESRCH : 0);
                ASSERT_EQ(got, it == model.end() ? data : it->second);
            }
            }
            ASSERT_TRUE(skht_validate(s.h));
            ASSERT_EQ(skht_count(s.h), model.size());
        }
        Keys seen;
        ASSERT_EQ(skht_iter(s.h, note_skey, &seen), model.size());
        for (const std::string& key : seen)
            ASSERT_EQ(model.count(key), 1u);
        ASSERT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size());
    }
}

TEST(nkht, agrees_with_a_standard_map_over_thousands_of_steps)
{
    const std::pair<khash_t, size_t> kinds[] = {{nullptr, 64}, {tw_shift, 64}, {tw_shift, 5}, {nullptr, 1}};
    unsigned seed = 200;
    for (const auto& [hfunc, capacity] : kinds) {
        SCOPED_TRACE(testing::Message() << "seed " << ++seed);
        std::mt19937 rnd(seed);
        NumTable n(capacity, hfunc);
        std::unordered_map<long, void*> model;
        for (int step = 0; step < 4000; ++step) {
            long key = static_cast<long>(rnd() % 200) - 100;
            if (key == 0) key = 100;
            if (rnd() % 10 == 0) key *= 10000000; // within 31 bits of each other
            void* data = ptr(static_cast<long>(rnd() % 10000));
            const auto it = model.find(key);
            switch (rnd() % 3) {
            case 0: {
                void* given = data;
                ASSERT_EQ(nkht_add(n.h, key, &given), it == model.end() ? 0 : EBUSY);
                ASSERT_EQ(given, it == model.end() ? data : it->second);
                model.emplace(key, data);
                break;
            }
            case 1: {
                void* got = data;
                ASSERT_EQ(nkht_rm(n.h, key, &got), it == model.end() ? ESRCH : 0);
                ASSERT_EQ(got, it == model.end() ? data : it->second);
                if (it != model.end()) model.erase(it);
                break;
            }
            default: {
                void* got = data;
                ASSERT_EQ(nkht_get(n.h, key, &got), it == model.end() ? ESRCH : 0);
                ASSERT_EQ(got, it == model.end() ? data : it->second);
            }
            }
            ASSERT_TRUE(nkht_validate(n.h));
            ASSERT_EQ(nkht_count(n.h), model.size());
        }
        std::map<long, void*> seen;
        ASSERT_EQ(nkht_iter(n.h, note_nkey, &seen), model.size());
        for (const auto& [key, data] : model)
            ASSERT_EQ(seen.at(key), data);
    }
}
