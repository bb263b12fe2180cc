// The list of records that carry their own links. The quoted conditions below are the list's invariants at the
// places where a foreign or broken record would do its damage.
#include "dlep.h"

#include "dlep_int.h"
#include "log.h"
#include "syswrap.h"

#include <bit>
#include <cassert>
#include <cerrno>
#include <cstdlib>

TV_LOG_MODULE(0)

static_assert(offsetof(dlep_elem, data) == sizeof(dlep_elem));

namespace
{

using dlep_int::list_of;

void check([[maybe_unused]] dlep_t lh)
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(dlep_validate(lh));
#endif
}

// Swaps a record with its neighbour: toward the head with `up` 1, toward the tail with 0. Nothing at the list's end.
void move_elem(struct dlep_list* l, struct dlep_elem* e, int up)
{
    assert(l && e && (1 == up || 0 == up));
    struct dlep_elem* lower = up ? e : e->prev;
    struct dlep_elem* upper = up ? e->next : e;
    if (!lower || !upper) return;

    struct dlep_elem* below = lower->prev;
    struct dlep_elem* above = upper->next;
    upper->prev = below;
    upper->next = lower;
    lower->prev = upper;
    lower->next = above;
    if (below) {
        below->next = upper;
    } else {
        l->tail = upper;
    }
    if (above) {
        above->prev = lower;
    } else {
        l->head = lower;
    }
}

struct dlep_elem* remove_elem(struct dlep_list* l, struct dlep_elem* le)
{
    assert(l && le);
    if (!le->prev) {
        assert(l->tail == le);
        l->tail = le->next;
        if (l->head == le) {
            assert(1 == l->count);
            l->head = nullptr;
        } else {
            assert(l->tail);
            l->tail->prev = nullptr;
        }
    } else if (!le->next) {
        assert(l->head == le);
        l->head = le->prev;
        l->head->next = nullptr;
    } else {
        le->prev->next = le->next;
        le->next->prev = le->prev;
    }
    --l->count;
    le->prev = le->next = nullptr;
    return le;
}

} // namespace

// ---- the list -------------------------------------------------------------------------------------------------

dlep_t dlep_create(int* err)
{
    auto* l = static_cast<struct dlep_list*>(W_calloc(__func__, 1, sizeof(struct dlep_list)));
    if (!l && err) *err = ENOMEM;
    return std::bit_cast<dlep_t>(l);
}

void dlep_destroy(dlep_t lh, efree_t efree)
{
    struct dlep_list* l = list_of(lh);
    assert(l);
    dlep_purge(lh, efree);
    free(l);
}

void dlep_purge(dlep_t lh, efree_t efree)
{
    struct dlep_list* l = list_of(lh);
    assert(l);
    // The list stays as it is until the end, so that efree may take its record off.
    for (struct dlep_elem *e = l->tail, *next = nullptr; e; e = next) {
        next = e->next;
        if (efree) efree(e);
    }
    *l = {};
}

void dlep_purge1(dlep_t lh, efree1_t efree1, void* aux)
{
    struct dlep_list* l = list_of(lh);
    assert(l);
    for (struct dlep_elem *e = l->tail, *next = nullptr; e; e = next) {
        next = e->next;
        if (efree1) efree1(e, aux);
    }
    *l = {};
}

size_t dlep_count(dlep_t lh)
{
    return list_of(lh)->count;
}

void* dlep_head(dlep_t lh)
{
    return list_of(lh)->head;
}

void* dlep_tail(dlep_t lh)
{
    return list_of(lh)->tail;
}

// ---- records --------------------------------------------------------------------------------------------------

void* dlep_append(dlep_t lh, void* d)
{
    struct dlep_list* l = list_of(lh);
    assert(l && d);
    auto* e = static_cast<struct dlep_elem*>(d);
    e->prev = e->next = nullptr;
    if (!l->head) {
        assert(NULL == l->tail);
        l->head = l->tail = e;
        l->count = 1;
    } else {
        assert(l->head && l->tail);
        e->prev = l->head;
        l->head->next = e;
        l->head = e;
        ++l->count;
    }
    check(lh);
    return d;
}

void* dlep_sadd(dlep_t lh, void* d, int asc, fecmp_t ecmp)
{
    (void)dlep_append(lh, d);
    return dlep_repos(lh, d, asc, ecmp);
}

void* dlep_repos(dlep_t lh, void* d, int asc, fecmp_t ecmp)
{
    struct dlep_list* l = list_of(lh);
    assert(l && d && ecmp && (0 == asc || 1 == asc));
    auto* e = static_cast<struct dlep_elem*>(d);
    const int want = asc == 1 ? 1 : -1;
    size_t i = 0;
    for (; i <= l->count; ++i) {
        if (e->prev && ecmp(e, e->prev) == want) {
            move_elem(l, e, 0);
        } else if (e->next && ecmp(e, e->next) == -want) {
            move_elem(l, e, 1);
        } else {
            break;
        }
    }
    // A place is found within one pass, unless the comparison sends the record back and forth.
    assert(i <= l->count);
    check(lh);
    return d;
}

void* dlep_rm(dlep_t lh, void* d)
{
    struct dlep_list* l = list_of(lh);
    auto* le = static_cast<struct dlep_elem*>(d);
    assert(l && le);
    (void)remove_elem(l, le);
    check(lh);
    return d;
}

void* dlep_rmtail(dlep_t lh)
{
    struct dlep_list* l = list_of(lh);
    return l->tail ? dlep_rm(lh, l->tail) : nullptr;
}

void* dlep_rmhead(dlep_t lh)
{
    struct dlep_list* l = list_of(lh);
    return l->head ? dlep_rm(lh, l->head) : nullptr;
}

int dlep_sverify(dlep_t lh, int asc, fecmp_t ecmp)
{
    const struct dlep_list* l = list_of(lh);
    assert(l && ecmp && (1 == asc || 0 == asc || -1 == asc));
    if (l->count < 2) return asc; // by design, not 0
    const int want = asc ? 1 : -1;
    for (const struct dlep_elem* e = l->head; e->prev; e = e->prev) {
        const int rc = ecmp(e->prev, e);
        if (rc != 0 && rc != want) return -1;
    }
    return 0;
}

// ---- printing and debugging aids ------------------------------------------------------------------------------

void dlep_print(FILE* out, dlep_t lh, printd_t fpdat)
{
    const struct dlep_list* l = list_of(lh);
    assert(out && l);
    const struct dlep_elem* p = l->head;
    size_t i = 0;
    for (; p && i < l->count; ++i, p = p->prev) {
        if (fpdat) {
            (void)fputs("{", out);
            fpdat(out, p);
            (void)fputs("}", out);
        }
        (void)fputs(" ", out);
    }
    (void)fputs("\n", out);
    assert(!p && (i == l->count));
}

void dlep_debug_print(FILE* out, dlep_t lh, printd_t fpdat)
{
    const struct dlep_list* l = list_of(lh);
    assert(out && l);
    (void)fprintf(out, "dlep_list:%p count=%ld head=%p tail=%p ", static_cast<const void*>(l),
                  static_cast<long>(l->count), static_cast<void*>(l->head), static_cast<void*>(l->tail));
    const struct dlep_elem* p = l->head;
    size_t i = 0;
    for (; p && i < l->count; ++i, p = p->prev) {
        (void)fprintf(out, "#%ld[%p]: {prev=%p next=%p ", static_cast<long>(i), static_cast<const void*>(p),
                      static_cast<void*>(p->prev), static_cast<void*>(p->next));
        if (fpdat) {
            (void)fputs("data=", out);
            fpdat(out, p);
            (void)fputs("}", out); // by design the brace stays open without a text
        }
        (void)fputs("; ", out);
    }
    (void)fputs("\n", out);
    if (p || i != l->count) {
        (void)fprintf(out, "%s: ERROR: p=%p, i=%ld, l->count=%ld\n", __func__, static_cast<const void*>(p),
                      static_cast<long>(i), static_cast<long>(l->count));
        (void)fflush(out); // the process ends with the next line
    }
    assert(!p && (i == l->count));
}

bool dlep_validate(dlep_t lh)
{
    const struct dlep_list* l = list_of(lh);
    if (!l) return false;
    if (l->count == 0) return !l->head && !l->tail;
    if (!l->head || !l->tail || l->head->next || l->tail->prev) return false;
    // Each step down must lead back up, so a walk that ends at the tail after `count` records has met them all once.
    const struct dlep_elem* e = l->head;
    for (size_t i = 1; i < l->count; ++i, e = e->prev) {
        if (!e->prev || e->prev->next != e) return false;
    }
    return e == l->tail;
}

void dlep_dump(dlep_t lh, FILE* fp)
{
    const struct dlep_list* l = list_of(lh);
    if (!l) {
        (void)fprintf(fp, "linked list: none\n");
        return;
    }
    (void)fprintf(fp, "linked list %p, %s: %zu records, head %p, tail %p\n", static_cast<const void*>(l),
                  dlep_validate(lh) ? "valid" : "INVALID", l->count, static_cast<void*>(l->head),
                  static_cast<void*>(l->tail));
    const struct dlep_elem* e = l->head;
    for (size_t i = 0; e && i < l->count; ++i, e = e->prev) {
        (void)fprintf(fp, "  %zu: %p type %d, prev %p, next %p\n", i, static_cast<const void*>(e), e->type_id,
                      static_cast<void*>(e->prev), static_cast<void*>(e->next));
    }
}
