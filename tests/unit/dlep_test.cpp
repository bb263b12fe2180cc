// The list of records that carry their own links.
#include "dlep.h"

#include "lib/dlep_int.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <list>
#include <random>
#include <string>
#include <vector>

namespace
{

struct Rec {
    dlep_elem head;
    int key;
};

int by_key(const void* a, const void* b)
{
    const int x = static_cast<const Rec*>(a)->key;
    const int y = static_cast<const Rec*>(b)->key;
    return x < y ? -1 : x > y ? 1 : 0;
}

void print_key(FILE* out, const void* d)
{
    fprintf(out, "%d", static_cast<const Rec*>(d)->key);
}

using Keys = std::vector<int>;

Keys g_freed; // by note(), since the last list was made

// A list with records of its own.
struct List {
    List() : lh(dlep_create(nullptr)) { g_freed.clear(); }
    ~List() { dlep_destroy(lh, nullptr); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    Rec* rec(int key)
    {
        records.push_back({{-1, nullptr, nullptr, {}}, key});
        return &records.back();
    }
    Rec* append(int key) { return static_cast<Rec*>(dlep_append(lh, rec(key))); }
    Rec* sadd(int key, int asc) { return static_cast<Rec*>(dlep_sadd(lh, rec(key), asc, by_key)); }
    dlep_list* raw() const { return dlep_int::list_of(lh); }

    dlep_t lh;
    std::deque<Rec> records;
};

// The keys from head to tail; the links the other way must tell the same.
std::vector<int> keys(dlep_t lh)
{
    std::vector<int> down;
    for (auto* r = static_cast<Rec*>(dlep_head(lh)); r; r = reinterpret_cast<Rec*>(r->head.prev))
        down.push_back(r->key);
    std::vector<int> up;
    for (auto* r = static_cast<Rec*>(dlep_tail(lh)); r; r = reinterpret_cast<Rec*>(r->head.next))
        up.insert(up.begin(), r->key);
    EXPECT_EQ(down, up);
    EXPECT_EQ(down.size(), dlep_count(lh));
    EXPECT_TRUE(dlep_validate(lh));
    return down;
}

void note(void* d)
{
    g_freed.push_back(static_cast<Rec*>(d)->key);
}

} // namespace

// ---- the list -------------------------------------------------------------------------------------------------

TEST(dlep_create, makes_an_empty_list)
{
    int err = 7;
    const dlep_t lh = dlep_create(&err);
    ASSERT_NE(lh, 0);
    EXPECT_EQ(err, 7);
    EXPECT_EQ(dlep_count(lh), 0u);
    EXPECT_EQ(dlep_head(lh), nullptr);
    EXPECT_EQ(dlep_tail(lh), nullptr);
    EXPECT_EQ(dlep_rmhead(lh), nullptr);
    EXPECT_EQ(dlep_rmtail(lh), nullptr);
    dlep_destroy(lh, nullptr);
}

TEST(dlep_create, gives_none_and_12_when_memory_runs_out)
{
    int err = 0;
    fail_alloc::at(1);
    EXPECT_EQ(dlep_create(&err), 0);
    EXPECT_EQ(err, 12);
    fail_alloc::at(1);
    EXPECT_EQ(dlep_create(nullptr), 0);
}

TEST(dlep_append, puts_the_newest_at_the_head)
{
    List l;
    Rec* first = l.append(1);
    EXPECT_EQ(dlep_head(l.lh), first);
    EXPECT_EQ(dlep_tail(l.lh), first);
    l.append(2);
    Rec* third = l.append(3);
    EXPECT_EQ(dlep_head(l.lh), third);
    EXPECT_EQ(dlep_tail(l.lh), first);
    EXPECT_EQ(keys(l.lh), (Keys{3, 2, 1}));
}

TEST(dlep_append, overwrites_old_links_and_leaves_the_type_alone)
{
    List l;
    Rec* r = l.rec(1);
    r->head = {42, &r->head, &r->head, {}};
    EXPECT_EQ(dlep_append(l.lh, r), r);
    EXPECT_EQ(r->head.prev, nullptr);
    EXPECT_EQ(r->head.next, nullptr);
    EXPECT_EQ(r->head.type_id, 42);
    EXPECT_EQ(static_cast<void*>(r->head.data), &r->key);
}

TEST(dlep_append, asserts_list_and_record)
{
    List l;
    Rec* r = l.rec(1);
    EXPECT_DEATH(dlep_append(l.lh, nullptr), asserts("l && d"));
    EXPECT_DEATH(dlep_append(0, r), asserts("l && d"));
    l.raw()->tail = &r->head;
    EXPECT_DEATH(dlep_append(l.lh, r), asserts("NULL == l->tail"));
    l.raw()->tail = nullptr;
    l.raw()->head = &r->head;
    EXPECT_DEATH(dlep_append(l.lh, l.rec(2)), asserts("l->head && l->tail"));
    l.raw()->head = nullptr;
}

TEST(dlep_purge, frees_from_the_tail_on)
{
    List l;
    for (const int key : {1, 2, 3})
        l.append(key);
    dlep_purge(l.lh, note);
    EXPECT_EQ(g_freed, (Keys{1, 2, 3}));
    EXPECT_EQ(keys(l.lh), Keys{});
    l.append(4);
    dlep_purge(l.lh, nullptr);
    EXPECT_EQ(keys(l.lh), Keys{});
}

TEST(dlep_purge, may_free_the_records_memory)
{
    const dlep_t lh = dlep_create(nullptr);
    for (const int key : {1, 2, 3})
        dlep_append(lh, new Rec{{0, nullptr, nullptr, {}}, key});
    dlep_purge(lh, [](void* d) { delete static_cast<Rec*>(d); });
    EXPECT_EQ(dlep_count(lh), 0u);
    dlep_destroy(lh, nullptr);
}

TEST(dlep_purge, bears_a_function_that_takes_its_record_off_the_list)
{
    static List* list;
    List l;
    list = &l;
    for (const int key : {1, 2, 3})
        l.append(key);
    dlep_purge(l.lh, [](void* d) {
        EXPECT_EQ(dlep_tail(list->lh), d);
        g_freed.push_back(static_cast<Rec*>(dlep_rm(list->lh, d))->key);
    });
    EXPECT_EQ(g_freed, (Keys{1, 2, 3}));
    EXPECT_EQ(keys(l.lh), Keys{});
}

TEST(dlep_purge1, hands_the_pointer_on)
{
    List l;
    for (const int key : {1, 2, 3})
        l.append(key);
    int sum = 0;
    dlep_purge1(
        l.lh, [](void* d, void* aux) { *static_cast<int*>(aux) += static_cast<Rec*>(d)->key; }, &sum);
    EXPECT_EQ(sum, 6);
    EXPECT_EQ(keys(l.lh), Keys{});
    l.append(1);
    dlep_purge1(l.lh, nullptr, nullptr);
    EXPECT_EQ(keys(l.lh), Keys{});
}

TEST(dlep_destroy, frees_records_and_list)
{
    g_freed.clear();
    const dlep_t lh = dlep_create(nullptr);
    for (const int key : {1, 2})
        dlep_append(lh, new Rec{{0, nullptr, nullptr, {}}, key});
    dlep_destroy(lh, [](void* d) {
        note(d);
        delete static_cast<Rec*>(d);
    });
    EXPECT_EQ(g_freed, (Keys{1, 2}));
}

TEST(dlep_endings, assert_a_list)
{
    EXPECT_DEATH(dlep_purge(0, nullptr), asserts("l"));
    EXPECT_DEATH(dlep_purge1(0, nullptr, nullptr), asserts("l"));
    EXPECT_DEATH(dlep_destroy(0, nullptr), asserts("l"));
}

// ---- removal --------------------------------------------------------------------------------------------------

TEST(dlep_rm, takes_a_record_out_of_any_place)
{
    List l;
    Rec* r[5];
    for (int i = 0; i < 5; ++i)
        r[i] = l.append(i);
    for (const auto& [which, rest] :
         {std::pair<int, Keys>{2, {4, 3, 1, 0}}, {0, {4, 3, 1}}, {4, {3, 1}}, {1, {3}}, {3, {}}}) {
        EXPECT_EQ(dlep_rm(l.lh, r[which]), r[which]);
        EXPECT_EQ(r[which]->head.prev, nullptr);
        EXPECT_EQ(r[which]->head.next, nullptr);
        EXPECT_EQ(keys(l.lh), rest);
    }
    EXPECT_EQ(dlep_head(l.lh), nullptr);
    EXPECT_EQ(dlep_tail(l.lh), nullptr);
}

TEST(dlep_rmtail, takes_the_oldest_and_dlep_rmhead_the_newest)
{
    List l;
    for (const int key : {1, 2, 3, 4})
        l.append(key);
    EXPECT_EQ(static_cast<Rec*>(dlep_rmtail(l.lh))->key, 1);
    EXPECT_EQ(static_cast<Rec*>(dlep_rmhead(l.lh))->key, 4);
    EXPECT_EQ(keys(l.lh), (Keys{3, 2}));
}

TEST(dlep_rm, asserts_that_the_record_is_in_the_list)
{
    List l;
    Rec* a = l.append(1);
    Rec* b = l.append(2);
    EXPECT_DEATH(dlep_rm(l.lh, nullptr), asserts("l && le"));
    EXPECT_DEATH(dlep_rm(0, a), asserts("l && le"));
    EXPECT_DEATH(dlep_rm(l.lh, l.rec(3)), asserts("l->tail == le"));
    Rec* c = l.rec(4);
    c->head.prev = &b->head;
    EXPECT_DEATH(dlep_rm(l.lh, c), asserts("l->head == le"));
    EXPECT_EQ(keys(l.lh), (Keys{2, 1}));
}

TEST(dlep_rm, asserts_a_count_and_a_tail_that_fit)
{
    List l;
    Rec* a = l.append(1);
    l.raw()->count = 2;
    EXPECT_DEATH(dlep_rm(l.lh, a), asserts("1 == l->count"));
    l.raw()->count = 1;
    Rec* b = l.append(2);
    a->head.next = nullptr; // and yet it isn't the head
    EXPECT_DEATH(dlep_rm(l.lh, a), asserts("l->tail"));
    a->head.next = &b->head;
    EXPECT_EQ(keys(l.lh), (Keys{2, 1}));
}

// ---- order ----------------------------------------------------------------------------------------------------

TEST(dlep_sadd, keeps_the_least_at_the_head_when_ascending)
{
    List l;
    for (const int key : {3, 1, 2})
        l.sadd(key, 1);
    EXPECT_EQ(static_cast<Rec*>(dlep_head(l.lh))->key, 1);
    EXPECT_EQ(keys(l.lh), (Keys{1, 2, 3}));
    EXPECT_EQ(dlep_sverify(l.lh, 1, by_key), 0);
}

TEST(dlep_sadd, keeps_the_greatest_at_the_head_when_descending)
{
    List l;
    for (const int key : {3, 1, 2})
        l.sadd(key, 0);
    EXPECT_EQ(keys(l.lh), (Keys{3, 2, 1}));
    EXPECT_EQ(dlep_sverify(l.lh, 0, by_key), 0);
}

TEST(dlep_sadd, leaves_an_equal_record_on_the_newer_side)
{
    List l;
    l.sadd(1, 1);
    const Rec* older = l.sadd(2, 1);
    l.sadd(3, 1);
    const Rec* newer = l.sadd(2, 1);
    EXPECT_EQ(keys(l.lh), (Keys{1, 2, 2, 3}));
    EXPECT_EQ(newer->head.prev, &older->head);
}

TEST(dlep_repos, moves_a_record_both_ways)
{
    List l;
    Rec* r[5];
    for (int i = 0; i < 5; ++i)
        r[i] = l.sadd(i * 10, 1);
    r[0]->key = 25;
    EXPECT_EQ(dlep_repos(l.lh, r[0], 1, by_key), r[0]);
    EXPECT_EQ(keys(l.lh), (Keys{10, 20, 25, 30, 40}));
    r[0]->key = 99;
    dlep_repos(l.lh, r[0], 1, by_key);
    EXPECT_EQ(keys(l.lh), (Keys{10, 20, 30, 40, 99}));
    EXPECT_EQ(dlep_tail(l.lh), r[0]);
    r[0]->key = -1;
    dlep_repos(l.lh, r[0], 1, by_key);
    EXPECT_EQ(keys(l.lh), (Keys{-1, 10, 20, 30, 40}));
    EXPECT_EQ(dlep_head(l.lh), r[0]);
    dlep_repos(l.lh, r[0], 1, by_key); // it is in its place
    EXPECT_EQ(keys(l.lh), (Keys{-1, 10, 20, 30, 40}));
}

TEST(dlep_repos, asserts_its_arguments)
{
    List l;
    Rec* r = l.append(1);
    constexpr const char* TEXT = "l && d && ecmp && (0 == asc || 1 == asc)";
    EXPECT_DEATH(dlep_repos(0, r, 1, by_key), asserts(TEXT));
    EXPECT_DEATH(dlep_repos(l.lh, nullptr, 1, by_key), asserts(TEXT));
    EXPECT_DEATH(dlep_repos(l.lh, r, 1, nullptr), asserts(TEXT));
    EXPECT_DEATH(dlep_repos(l.lh, r, 2, by_key), asserts(TEXT));
    EXPECT_DEATH(dlep_repos(l.lh, r, -1, by_key), asserts(TEXT));
    EXPECT_DEATH(dlep_sadd(l.lh, l.rec(2), -1, by_key), asserts(TEXT));
}

TEST(dlep_repos, asserts_a_comparison_that_comes_to_rest)
{
    List l;
    Rec* a = l.append(1);
    l.append(2);
    // Greater than its neighbour to the tail, less than its neighbour to the head, wherever it stands.
    const auto restless = [](const void* d, const void* other) {
        return static_cast<const Rec*>(d)->head.prev == &static_cast<const Rec*>(other)->head ? 1 : -1;
    };
    EXPECT_DEATH(dlep_repos(l.lh, a, 1, restless), asserts("i <= l->count"));
}

TEST(dlep_repos, has_one_step_more_than_there_are_records_to_come_to_rest)
{
    static int moves;
    const auto restless = [](const void* d, const void* other) {
        if (moves == 0) return 0;
        --moves;
        return static_cast<const Rec*>(d)->head.prev == &static_cast<const Rec*>(other)->head ? 1 : -1;
    };
    List l;
    Rec* a = l.append(1);
    l.append(2);
    moves = 2; // to the head and back, and the third step finds it at rest
    EXPECT_EQ(dlep_repos(l.lh, a, 1, restless), a);
    EXPECT_EQ(moves, 0);
    EXPECT_EQ(keys(l.lh), (Keys{2, 1}));
    moves = 3;
    EXPECT_DEATH(dlep_repos(l.lh, a, 1, restless), asserts("i <= l->count"));
}

TEST(dlep_repos, compares_its_record_with_the_neighbours_and_not_the_other_way_round)
{
    static const void* moved;
    List l;
    for (const int key : {3, 1, 2})
        l.sadd(key, 1);
    Rec* r = static_cast<Rec*>(dlep_tail(l.lh));
    moved = r;
    const auto first_is_moved = [](const void* a, const void* b) {
        EXPECT_EQ(a, moved);
        EXPECT_NE(b, moved);
        return by_key(a, b);
    };
    r->key = 0; // up to the head
    dlep_repos(l.lh, r, 1, first_is_moved);
    EXPECT_EQ(keys(l.lh), (Keys{0, 1, 2}));
    r->key = 9; // and down again
    dlep_repos(l.lh, r, 1, first_is_moved);
    EXPECT_EQ(keys(l.lh), (Keys{1, 2, 9}));
}

TEST(dlep_sverify, objects_to_a_record_out_of_order)
{
    List l;
    for (const int key : {3, 2, 2, 1})
        l.append(key); // head to tail: 1 2 2 3
    EXPECT_EQ(dlep_sverify(l.lh, 1, by_key), 0);
    EXPECT_EQ(dlep_sverify(l.lh, -1, by_key), 0); // asks the same as 1
    EXPECT_EQ(dlep_sverify(l.lh, 0, by_key), -1);
    l.append(5);
    EXPECT_EQ(dlep_sverify(l.lh, 1, by_key), -1);
    List equal;
    equal.append(4);
    equal.append(4);
    EXPECT_EQ(dlep_sverify(equal.lh, 1, by_key), 0);
    EXPECT_EQ(dlep_sverify(equal.lh, 0, by_key), 0);
}

// Too short to have an order: the caller gets back what it asked with.
TEST(dlep_sverify, gives_asc_itself_below_two_records)
{
    List l;
    for (int n = 0; n < 2; ++n) {
        EXPECT_EQ(dlep_sverify(l.lh, 1, by_key), 1);
        EXPECT_EQ(dlep_sverify(l.lh, 0, by_key), 0);
        EXPECT_EQ(dlep_sverify(l.lh, -1, by_key), -1);
        l.append(n);
    }
    EXPECT_EQ(dlep_sverify(l.lh, 1, by_key), -1);
}

TEST(dlep_sverify, asserts_its_arguments)
{
    List l;
    constexpr const char* TEXT = "l && ecmp && (1 == asc || 0 == asc || -1 == asc)";
    EXPECT_DEATH(dlep_sverify(0, 1, by_key), asserts(TEXT));
    EXPECT_DEATH(dlep_sverify(l.lh, 1, nullptr), asserts(TEXT));
    EXPECT_DEATH(dlep_sverify(l.lh, 2, by_key), asserts(TEXT));
}

// ---- printing -------------------------------------------------------------------------------------------------

TEST(dlep_print, writes_the_texts_from_head_to_tail)
{
    List l;
    EXPECT_EQ(printed([&](FILE* fp) { dlep_print(fp, l.lh, print_key); }), "\n");
    for (const int key : {1, 2, 3})
        l.append(key);
    EXPECT_EQ(printed([&](FILE* fp) { dlep_print(fp, l.lh, print_key); }), "{3} {2} {1} \n");
    EXPECT_EQ(printed([&](FILE* fp) { dlep_print(fp, l.lh, nullptr); }), "   \n");
}

TEST(dlep_print, asserts_a_list_whose_links_fit_its_count)
{
    List l;
    l.append(1);
    EXPECT_DEATH(dlep_print(nullptr, l.lh, print_key), asserts("out && l"));
    EXPECT_DEATH(dlep_print(stdout, 0, print_key), asserts("out && l"));
    for (const size_t count : {0u, 2u}) {
        l.raw()->count = count;
        EXPECT_DEATH(dlep_print(stdout, l.lh, print_key), asserts("!p && (i == l->count)"));
    }
    l.raw()->count = 1;
}

TEST(dlep_debug_print, writes_all_addresses)
{
    List l;
    Rec* a = l.append(1);
    Rec* b = l.append(2);
    char expected[512];
    const auto text = [&](const char* data1, const char* data0) {
        snprintf(expected, sizeof(expected),
                 "dlep_list:%p count=2 head=%p tail=%p #0[%p]: {prev=%p next=%p %s; #1[%p]: {prev=%p next=%p %s; \n",
                 static_cast<void*>(l.raw()), static_cast<void*>(b), static_cast<void*>(a), static_cast<void*>(b),
                 static_cast<void*>(a), static_cast<void*>(nullptr), data1, static_cast<void*>(a),
                 static_cast<void*>(nullptr), static_cast<void*>(b), data0);
        return std::string(expected);
    };
    EXPECT_EQ(printed([&](FILE* fp) { dlep_debug_print(fp, l.lh, print_key); }), text("data=2}", "data=1}"));
    // Without a text the brace stays open.
    EXPECT_EQ(printed([&](FILE* fp) { dlep_debug_print(fp, l.lh, nullptr); }), text("", ""));
}

TEST(dlep_debug_print, tells_of_a_broken_list_and_asserts)
{
    List l;
    Rec* a = l.append(1);
    EXPECT_DEATH(dlep_debug_print(nullptr, l.lh, nullptr), asserts("out && l"));
    l.raw()->count = 2;
    EXPECT_DEATH(dlep_debug_print(stderr, l.lh, nullptr),
                 "dlep_debug_print: ERROR: p=\\(nil\\), i=1, l->count=2\n(.|\n)*" + asserts("!p && (i == l->count)"));
    l.raw()->count = 0;
    char line[128];
    snprintf(line, sizeof(line), "dlep_debug_print: ERROR: p=%p, i=0, l->count=0\n", static_cast<void*>(a));
    EXPECT_DEATH(dlep_debug_print(stderr, l.lh, nullptr), line);
    l.raw()->count = 1;
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST(dlep_validate, objects_to_each_broken_field)
{
    EXPECT_FALSE(dlep_validate(0));
    const auto objects = [](auto&& damage) {
        List l;
        Rec* r[3];
        for (int i = 0; i < 3; ++i)
            r[i] = l.append(i);
        EXPECT_TRUE(dlep_validate(l.lh));
        damage(*l.raw(), r);
        const bool objected = !dlep_validate(l.lh);
        *l.raw() = {};
        EXPECT_TRUE(dlep_validate(l.lh));
        return objected;
    };
    EXPECT_TRUE(objects([](dlep_list& l, Rec**) { l.head = nullptr; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec**) { l.tail = nullptr; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec** r) { l.head = &r[1]->head; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec** r) { l.tail = &r[1]->head; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec**) { l.count = 0; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec**) { l.count = 2; }));
    EXPECT_TRUE(objects([](dlep_list& l, Rec**) { l.count = 4; }));
    EXPECT_TRUE(objects([](dlep_list&, Rec** r) { r[1]->head.next = nullptr; }));
    EXPECT_TRUE(objects([](dlep_list&, Rec** r) { r[1]->head.prev = nullptr; }));
    EXPECT_TRUE(objects([](dlep_list&, Rec** r) { r[2]->head.next = &r[0]->head; }));
    EXPECT_TRUE(objects([](dlep_list&, Rec** r) { r[0]->head.prev = &r[2]->head; }));
}

TEST(dlep_dump, tells_the_list_in_words_valid_or_not)
{
    List l;
    Rec* a = l.append(1);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "linked list %p, valid: 1 records, head %p, tail %p\n  0: %p type -1, prev (nil), next (nil)\n",
             static_cast<void*>(l.raw()), static_cast<void*>(a), static_cast<void*>(a), static_cast<void*>(a));
    EXPECT_EQ(printed([&](FILE* fp) { dlep_dump(l.lh, fp); }), expected);
    l.raw()->count = 5;
    EXPECT_NE(printed([&](FILE* fp) { dlep_dump(l.lh, fp); }).find("INVALID"), std::string::npos);
    l.raw()->count = 1;
    EXPECT_EQ(printed([&](FILE* fp) { dlep_dump(0, fp); }), "linked list: none\n");
}

// ---- against std::list ----------------------------------------------------------------------------------------

TEST(dlep, agrees_with_a_standard_list_over_thousands_of_steps)
{
    for (const unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        std::mt19937 rnd(seed);
        List l;
        std::list<Rec*> model; // head first
        for (int step = 0; step < 3000; ++step) {
            const unsigned what = rnd() % 100;
            if (what < 52) {
                Rec* r = l.append(static_cast<int>(rnd() % 100));
                model.push_front(r);
            } else if (what < 70) {
                Rec* r = static_cast<Rec*>(dlep_rmtail(l.lh));
                ASSERT_EQ(r, model.empty() ? nullptr : model.back());
                if (r) model.pop_back();
            } else if (what < 80) {
                Rec* r = static_cast<Rec*>(dlep_rmhead(l.lh));
                ASSERT_EQ(r, model.empty() ? nullptr : model.front());
                if (r) model.pop_front();
            } else if (what < 99) {
                if (model.empty()) continue;
                const auto it = std::next(model.begin(), static_cast<long>(rnd() % model.size()));
                ASSERT_EQ(dlep_rm(l.lh, *it), *it);
                model.erase(it);
            } else if (rnd() % 4 == 0) {
                dlep_purge(l.lh, nullptr);
                model.clear();
            }
            Keys expected;
            for (const Rec* r : model)
                expected.push_back(r->key);
            ASSERT_EQ(keys(l.lh), expected);
        }
    }
}

TEST(dlep, stays_in_order_over_thousands_of_sorted_steps)
{
    for (const int asc : {0, 1}) {
        for (const unsigned seed : {4u, 5u}) {
            SCOPED_TRACE(testing::Message() << "asc " << asc << ", seed " << seed);
            std::mt19937 rnd(seed);
            List l;
            std::vector<Rec*> model;
            for (int step = 0; step < 2000; ++step) {
                const unsigned what = rnd() % 100;
                if (what < 45 || model.empty()) {
                    model.push_back(l.sadd(static_cast<int>(rnd() % 50), asc));
                } else if (what < 70) {
                    const size_t i = rnd() % model.size();
                    model[i]->key = static_cast<int>(rnd() % 50);
                    ASSERT_EQ(dlep_repos(l.lh, model[i], asc, by_key), model[i]);
                } else {
                    const size_t i = rnd() % model.size();
                    dlep_rm(l.lh, model[i]);
                    model.erase(model.begin() + static_cast<long>(i));
                }
                Keys expected;
                for (const Rec* r : model)
                    expected.push_back(r->key);
                std::sort(expected.begin(), expected.end());
                if (!asc) std::reverse(expected.begin(), expected.end());
                ASSERT_EQ(keys(l.lh), expected);
                ASSERT_EQ(dlep_sverify(l.lh, asc, by_key), model.size() < 2 ? asc : 0);
            }
        }
    }
}
