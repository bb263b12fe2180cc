// Hash functions, and both kinds of table over one implementation. What depends on the kind of key is a row of g_htf.
#include "gkh.h"

#include "gkh_int.h"
#include "log.h"
#include "syswrap.h"

#include <bit>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

TV_LOG_MODULE(0)

using gkh_int::g_htf;
using gkh_int::key_of_num;
using gkh_int::num_of_key;
using gkh_int::slot_of;
using gkh_int::table_of;

// ---- kinds of key ---------------------------------------------------------------------------------------------

const void* gkh_int::key_of_num(long nkey)
{
    return std::bit_cast<const void*>(nkey);
}

long gkh_int::num_of_key(const void* key)
{
    return std::bit_cast<long>(key);
}

namespace
{

const void* get_skey(const struct hrec* p)
{
    return static_cast<const struct s_hrec*>(static_cast<const void*>(p))->s_key;
}

const void* get_lkey(const struct hrec* p)
{
    return key_of_num(static_cast<const struct l_hrec*>(static_cast<const void*>(p))->l_key);
}

int s_cmp(const struct hrec* p, const void* key)
{
    return strcmp(static_cast<const char*>(get_skey(p)), static_cast<const char*>(key));
}

int l_cmp(const struct hrec* p, const void* key)
{
    // By design only the low halves count, and a difference beyond 31 bits has the wrong sign.
    const auto mine = static_cast<uint32_t>(num_of_key(get_lkey(p)));
    const auto other = static_cast<uint32_t>(num_of_key(key));
    return static_cast<int32_t>(mine - other);
}

struct hrec* s_mkhrec(const void* key)
{
    auto* p = static_cast<struct s_hrec*>(W_calloc(__func__, 1, sizeof(struct s_hrec)));
    if (!p) return nullptr;
    // By design a longer key is cut here, and only here: lookups use the whole key and don't find it again.
    memcpy(p->s_key, key, strnlen(static_cast<const char*>(key), sizeof(p->s_key) - 1));
    return &p->head;
}

struct hrec* l_mkhrec(const void* key)
{
    auto* p = static_cast<struct l_hrec*>(W_calloc(__func__, 1, sizeof(struct l_hrec)));
    if (!p) return nullptr;
    p->l_key = num_of_key(key);
    return &p->head;
}

} // namespace

constexpr std::array<struct htfunc, 2> gkh_int::g_htf = {{
    {.kcmp = s_cmp, .mkhrec = s_mkhrec, .getkey = get_skey},
    {.kcmp = l_cmp, .mkhrec = l_mkhrec, .getkey = get_lkey},
}};
static_assert(ekt_STR == 0 && ekt_NUM == 1, "the rows of g_htf");

// ---- the table ------------------------------------------------------------------------------------------------

size_t gkh_int::slot_of(const ht_t* tbl, const void* key)
{
    const u_long h = tbl->icalc ? tbl->icalc(key, tbl->hseed) : std::bit_cast<u_long>(key);
    return h & (tbl->rlen - 1);
}

namespace
{

void check([[maybe_unused]] const ht_t* tbl)
{
#if defined(KVT_DEEP_CHECKS)
    void* h = const_cast<ht_t*>(tbl);
    tv_assert_logged(tbl->ktype == ekt_STR ? skht_validate(static_cast<skht_t>(h))
                                           : nkht_validate(static_cast<nkht_t>(h)));
#endif
}

u_long calc_hseed()
{
    return static_cast<u_long>(time(nullptr));
}

// The greatest power of two not above n. Requires: n above 0.
constexpr size_t calc_rlen(size_t n)
{
    return std::bit_floor(n);
}
static_assert(calc_rlen(1) == 1 && calc_rlen(127) == 64 && calc_rlen(128) == 128 && calc_rlen(150) == 128);

const struct htfunc& funcs(const ht_t* tbl)
{
    return g_htf[tbl->ktype];
}

// Walks the key's chain up to the first record that isn't below the key. *hh is the slot, *pp the record or null at
// the chain's end, *ppv the one before it or null. The last comparison, where 0 means found; but for an empty chain it
// is 0 with *pp null, so callers look at both.
int rfind(const ht_t* tbl, const void* key, size_t* hh, struct hrec** pp, struct hrec** ppv)
{
    int rc = 0;
    const size_t h = slot_of(tbl, key);
    struct hrec* pv = nullptr;
    struct hrec* p = tbl->r[h];
    for (; p; pv = p, p = p->next) {
        rc = funcs(tbl).kcmp(p, key);
        if (rc >= 0) break;
    }
    *hh = h;
    *pp = p;
    *ppv = pv;
    return rc;
}

int add(ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl && key);
    if (tbl->rlen == 0) return EINVAL;

    size_t h = 0;
    struct hrec* nx = nullptr;
    struct hrec* pv = nullptr;
    if (rfind(tbl, key, &h, &nx, &pv) == 0 && nx) {
        if (pdat) *pdat = nx->data;
        return EBUSY;
    }
    struct hrec* p = funcs(tbl).mkhrec(key);
    if (!p) return ENOMEM;
    p->data = pdat ? *pdat : nullptr;
    p->next = nx;
    if (pv) {
        assert(nx == pv->next);
        pv->next = p;
    } else {
        assert(!tbl->r[h] || (nx == tbl->r[h]));
        tbl->r[h] = p;
    }
    ++tbl->count;
    check(tbl);
    return 0;
}

int rmrec(ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl);
    if (tbl->rlen == 0) return EINVAL;

    size_t h = 0;
    struct hrec* p = nullptr;
    struct hrec* pv = nullptr;
    if (rfind(tbl, key, &h, &p, &pv) != 0 || !p) return ESRCH;
    if (pv) {
        pv->next = p->next;
    } else {
        assert(p == tbl->r[h]);
        tbl->r[h] = p->next;
    }
    if (pdat) *pdat = p->data;
    free(p);
    --tbl->count;
    check(tbl);
    return 0;
}

int rget(const ht_t* tbl, const void* key, void** pdat)
{
    assert(tbl);
    if (tbl->rlen == 0) return EINVAL;

    size_t h = 0;
    struct hrec* p = nullptr;
    struct hrec* pv = nullptr;
    if (rfind(tbl, key, &h, &p, &pv) != 0 || !p) return ESRCH;
    if (pdat) *pdat = p->data;
    return 0;
}

void destroy(ht_t* tbl, gkfree_t free_data)
{
    assert(tbl);
    if (tbl->r && tbl->rlen <= GKH_MAX_CAPACITY) {
        for (size_t h = 0; h < tbl->rlen; ++h) {
            for (struct hrec *p = tbl->r[h], *next = nullptr; p; p = next) {
                next = p->next;
                if (free_data) free_data(p->data);
                free(p);
            }
        }
        free(tbl->r);
    }
    free(tbl);
}

size_t iter(const ht_t* tbl, gkiter_t f, void* farg)
{
    size_t calls = 0;
    for (size_t h = 0; h < tbl->rlen; ++h) {
        for (const struct hrec* p = tbl->r[h]; p; p = p->next) {
            f(funcs(tbl).getkey(p), p->data, farg);
            ++calls;
        }
    }
    return calls;
}

int hcreate(ht_t** ptbl, ht_keytype ktype, size_t capacity, khash_t hfunc, const char** klst, size_t len)
{
    *ptbl = nullptr;
    if (capacity > GKH_MAX_CAPACITY) return EOVERFLOW;

    auto* tbl = static_cast<ht_t*>(W_calloc(__func__, 1, sizeof(ht_t)));
    if (!tbl) return ENOMEM;
    tbl->ktype = ktype;
    tbl->hseed = calc_hseed();
    tbl->icalc = hfunc || ktype == ekt_NUM ? hfunc : plHash;
    tbl->rlen = calc_rlen(capacity * 3 / 2);
    tbl->r = static_cast<struct hrec**>(W_calloc(__func__, tbl->rlen, sizeof(struct hrec*)));

    int rc = tbl->r ? 0 : ENOMEM;
    for (size_t i = 0; rc == 0 && klst && i < len; ++i)
        rc = add(tbl, klst[i], nullptr);
    if (rc != 0) {
        destroy(tbl, nullptr);
        return rc;
    }
    *ptbl = tbl;
    return 0;
}

} // namespace

// ---- hash functions -------------------------------------------------------------------------------------------

namespace
{

constexpr u_long PL_FACTOR = 101;
constexpr u_long ELF_HIGH_BITS = 0xF0000000;

// A character as the string hashes count it: signed, so that one above 127 takes away.
u_long signed_char(char c)
{
    return static_cast<u_long>(static_cast<signed char>(c));
}

} // namespace

u_long plHash(const void* key, u_long seed)
{
    u_long h = seed;
    for (const char* s = static_cast<const char*>(key); *s; ++s)
        h = h * PL_FACTOR + signed_char(*s);
    return h;
}

u_long elfHash(const void* key, u_long /*seed*/)
{
    u_long h = 0;
    for (const char* s = static_cast<const char*>(key); *s; ++s) {
        h = (h << 4) + signed_char(*s);
        const u_long g = h & ELF_HIGH_BITS;
        if (g != 0) h ^= g >> 24;
        h &= ~g;
    }
    return h;
}

u_long tw_shift(const void* key, u_long /*seed*/)
{
    // Sums of shifts, written as the products that they are.
    u_long k = std::bit_cast<u_long>(key);
    k = k * 2097151 - 1;
    k ^= k >> 24;
    k *= 265;
    k ^= k >> 14;
    k *= 21;
    k ^= k >> 28;
    k *= 2147483649;
    return k;
}

// ---- keyed by string ------------------------------------------------------------------------------------------

int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char** klst, size_t len)
{
    assert(ph && capacity);
    assert(!klst || (klst && len));
    ht_t* tbl = nullptr;
    const int rc = hcreate(&tbl, ekt_STR, capacity, hfunc ? hfunc : plHash, klst, len);
    *ph = static_cast<skht_t>(static_cast<void*>(tbl));
    return rc;
}

void skht_destroy(skht_t h, gkfree_t free_data)
{
    destroy(table_of(h), free_data);
}

int skht_add(skht_t h, const char* skey, void** pdat)
{
    return add(table_of(h), skey, pdat);
}

int skht_rm(skht_t h, const char* skey, void** pdat)
{
    return rmrec(table_of(h), skey, pdat);
}

int skht_get(skht_t h, const char* skey, void** pdat)
{
    return rget(table_of(h), skey, pdat);
}

size_t skht_iter(skht_t h, gkiter_t f, void* farg)
{
    return iter(table_of(h), f, farg);
}

size_t skht_count(skht_t h)
{
    return table_of(h)->count;
}

// ---- keyed by number ------------------------------------------------------------------------------------------

int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc)
{
    assert(ph && capacity);
    ht_t* tbl = nullptr;
    const int rc = hcreate(&tbl, ekt_NUM, capacity, hfunc, nullptr, 0);
    *ph = static_cast<nkht_t>(static_cast<void*>(tbl));
    return rc;
}

void nkht_destroy(nkht_t h, gkfree_t free_data)
{
    destroy(table_of(h), free_data);
}

int nkht_add(nkht_t h, long nkey, void** pdat)
{
    return add(table_of(h), key_of_num(nkey), pdat);
}

int nkht_rm(nkht_t h, long nkey, void** pdat)
{
    return rmrec(table_of(h), key_of_num(nkey), pdat);
}

int nkht_get(nkht_t h, long nkey, void** pdat)
{
    return rget(table_of(h), key_of_num(nkey), pdat);
}

size_t nkht_iter(nkht_t h, gkiter_t f, void* farg)
{
    return iter(table_of(h), f, farg);
}

size_t nkht_count(nkht_t h)
{
    return table_of(h)->count;
}
