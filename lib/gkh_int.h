// The records behind skht_t and nkht_t, and what sets the two kinds apart. For lib/gkh*.cpp and the tables' own tests;
// everybody else holds a handle.
//
// Between the functions a key travels as a `const void*`: a string's address, or a number in the place of the address.
#ifndef TV_GKH_INT_H
#define TV_GKH_INT_H

#include "gkh.h"

#include <array>
#include <cstddef>
#include <cstdio>

enum ht_keytype { ekt_STR = 0, ekt_NUM = 1 };

// What every record of a chain begins with; the key follows, by the table's key type.
struct hrec {
    struct hrec* next;
    void* data; // the caller's
};

struct s_hrec {
    struct hrec head;
    char s_key[GKH_SKEY_SIZE]; // cut to fit, always terminated
};

struct l_hrec {
    struct hrec head;
    long l_key;
};

static_assert(offsetof(s_hrec, head) == 0 && offsetof(l_hrec, head) == 0, "a chain links the heads");
static_assert(sizeof(long) == sizeof(const void*), "a number fits in the place of a key's address");

typedef struct ht_tag {
    ht_keytype ktype;
    struct hrec** r; // the slots, each a chain in ascending order or null
    size_t rlen;     // slots, a power of two
    u_long hseed;
    size_t count;  // records
    khash_t icalc; // null: the key is its own hash
} ht_t;

typedef int (*kcmp_t)(const struct hrec* p, const void* key);
typedef struct hrec* (*mkhrec_t)(const void* key);
typedef const void* (*getkey_t)(const struct hrec* p);

struct htfunc {
    kcmp_t kcmp;     // order of a record's key and a key: below 0, 0, above 0
    mkhrec_t mkhrec; // a new record for a key, without data; null where memory ran out
    getkey_t getkey; // a record's key
};

namespace gkh_int
{

extern const std::array<struct htfunc, 2> g_htf; // by key type

// The table that a handle of either kind names.
inline ht_t* table_of(skht_t h)
{
    return static_cast<ht_t*>(static_cast<void*>(h));
}
inline ht_t* table_of(nkht_t h)
{
    return static_cast<ht_t*>(static_cast<void*>(h));
}

// The slot that a key belongs to. Requires: rlen above 0.
size_t slot_of(const ht_t* tbl, const void* key);

// A key that is a number, there and back.
const void* key_of_num(long nkey);
long num_of_key(const void* key);

} // namespace gkh_int

#endif // TV_GKH_INT_H
