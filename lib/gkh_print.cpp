// Looking at hash tables: how full they are, whether they are sound, and all that they hold.
#include "gkh.h"

#include "gkh_int.h"
#include "log.h"
#include "syswrap.h"

#include <bit>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

TV_LOG_MODULE(0)

namespace
{

using gkh_int::g_htf;
using gkh_int::num_of_key;
using gkh_int::slot_of;
using gkh_int::table_of;

struct hslot_stat {
    size_t count;         // records of the chain
    const void* last_key; // of its last record
};

struct free_deleter {
    void operator()(void* p) const { free(p); }
};

const void* key_of(const ht_t* tbl, const struct hrec* p)
{
    return g_htf[tbl->ktype].getkey(p);
}

// ---- statistics -----------------------------------------------------------------------------------------------

void dump_slots(const ht_t* tbl, const struct hslot_stat* stat, FILE* out)
{
    (void)fprintf(out, "\nHash slots (total=%ld):\n", static_cast<long>(tbl->rlen));
    for (size_t h = 0; h < tbl->rlen; ++h) {
        const auto slot = static_cast<long>(h);
        const auto count = static_cast<long>(stat[h].count);
        if (count == 0) continue;
        if (tbl->ktype == ekt_STR) {
            (void)fprintf(out, "%ld:(%ld:%s);", slot, count, static_cast<const char*>(stat[h].last_key));
        } else {
            (void)fprintf(out, "%ld:(%ld:%ld);", slot, count, num_of_key(stat[h].last_key));
        }
    }
    (void)fputs("\n", out);
}

void dump(const ht_t* tbl, FILE* out, int verbose)
{
    assert(tbl && out);
    const std::unique_ptr<struct hslot_stat, free_deleter> owner(
        static_cast<struct hslot_stat*>(W_calloc(__func__, tbl->rlen, sizeof(struct hslot_stat))));
    struct hslot_stat* stat = owner.get();
    if (!stat) {
        (void)fprintf(out, "%s: out of memory\n", __func__);
        return;
    }
    size_t in_use = 0;
    size_t longest = 0;
    for (size_t h = 0; h < tbl->rlen; ++h) {
        for (const struct hrec* p = tbl->r[h]; p; p = p->next) {
            ++stat[h].count;
            stat[h].last_key = key_of(tbl, p);
        }
        if (stat[h].count > 0) ++in_use;
        if (stat[h].count > longest) longest = stat[h].count;
    }
    (void)fprintf(out, "Hash [%p;seed=%ld] contains: \n\t%ld records; slots: %ld/%ld\n", static_cast<const void*>(tbl),
                  static_cast<long>(tbl->hseed), static_cast<long>(tbl->count), static_cast<long>(in_use),
                  static_cast<long>(tbl->rlen));
    (void)fprintf(out, "Max chain length: %ld\n", static_cast<long>(longest));
    if (verbose) dump_slots(tbl, stat, out);
}

// ---- soundness ------------------------------------------------------------------------------------------------

// A record stands in its key's slot and, in a string table, not below the one before it. Numbers have no such order:
// they compare by a difference that wraps, and a record between two others may have been what kept them apart.
bool record_valid(const ht_t* tbl, size_t slot, const struct hrec* pv, const struct hrec* p)
{
    const void* key = key_of(tbl, p);
    if (tbl->ktype == ekt_NUM) return slot_of(tbl, key) == slot;
    const auto* skey = static_cast<const char*>(key);
    const size_t len = strnlen(skey, GKH_SKEY_SIZE);
    if (len == GKH_SKEY_SIZE || (pv && g_htf[ekt_STR].kcmp(pv, key) > 0)) return false;
    // A key of the greatest length may have been cut, and then its slot is that of the whole.
    return len == GKH_SKEY_SIZE - 1 || slot_of(tbl, key) == slot;
}

bool validate(const ht_t* tbl, ht_keytype ktype)
{
    if (!tbl || tbl->ktype != ktype || !tbl->r) return false;
    if (!std::has_single_bit(tbl->rlen) || tbl->rlen > GKH_MAX_CAPACITY) return false;
    if (ktype == ekt_STR && !tbl->icalc) return false;
    size_t seen = 0;
    for (size_t h = 0; h < tbl->rlen; ++h) {
        const struct hrec* pv = nullptr;
        for (const struct hrec* p = tbl->r[h]; p; pv = p, p = p->next) {
            if (++seen > tbl->count || !record_valid(tbl, h, pv, p)) return false;
        }
    }
    return seen == tbl->count;
}

// ---- contents -------------------------------------------------------------------------------------------------

void dump_chain(const ht_t* tbl, size_t h, FILE* fp, size_t* left)
{
    (void)fprintf(fp, "  slot %zu:", h);
    for (const struct hrec* p = tbl->r[h]; p && *left > 0; p = p->next, --*left) {
        if (tbl->ktype == ekt_STR) {
            (void)fprintf(fp, " [%.*s]=%p", static_cast<int>(GKH_SKEY_SIZE), static_cast<const char*>(key_of(tbl, p)),
                          p->data);
        } else {
            (void)fprintf(fp, " %ld=%p", num_of_key(key_of(tbl, p)), p->data);
        }
    }
    (void)fputs("\n", fp);
}

void dump_all(const ht_t* tbl, bool valid, FILE* fp)
{
    if (!tbl) {
        (void)fprintf(fp, "hash table: none\n");
        return;
    }
    (void)fprintf(fp, "hash table %p by %s, %s: %zu records, %zu slots, seed %lu\n", static_cast<const void*>(tbl),
                  tbl->ktype == ekt_STR ? "string" : "number", valid ? "valid" : "INVALID", tbl->count, tbl->rlen,
                  tbl->hseed);
    if (!tbl->r) return;
    size_t left = tbl->count; // a chain that runs in a ring ends with the count
    for (size_t h = 0; h < tbl->rlen && left > 0; ++h) {
        if (tbl->r[h]) dump_chain(tbl, h, fp, &left);
    }
}

} // namespace

void skht_print(skht_t h, FILE* out, int verbose)
{
    dump(table_of(h), out, verbose);
}

void nkht_print(nkht_t h, FILE* out, int verbose)
{
    dump(table_of(h), out, verbose);
}

bool skht_validate(skht_t h)
{
    return validate(table_of(h), ekt_STR);
}

bool nkht_validate(nkht_t h)
{
    return validate(table_of(h), ekt_NUM);
}

void skht_dump(skht_t h, FILE* fp)
{
    dump_all(table_of(h), skht_validate(h), fp);
}

void nkht_dump(nkht_t h, FILE* fp)
{
    dump_all(table_of(h), nkht_validate(h), fp);
}
