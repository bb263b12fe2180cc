// Chained hash tables of opaque data pointers: keyed by string (skht_) or by number (nkht_).
//
// A table gets its *slots* at creation and never grows: the greatest power of two not above one and a half times the
// stated capacity. Each slot has a chain of records, sorted by key. More records than expected make longer chains.
// The hash of a key is that of the table's hash function with a *seed* taken from the clock, so the order of a walk
// differs from run to run where the function uses the seed; a number table without a function takes the number itself.
//
// Keys: a string is copied, and by design cut to 254 characters, while every lookup hashes and compares the whole key
// that it is given: a longer key can't be found again. By design numbers are compared by their low 32 bits only, as a
// signed difference: of two keys that differ above bit 31 alone and share a slot the second is taken for the first.
// Number 0 is not a key.
//
// Units: counts of records and slots; the seed in seconds. Ownership: the data is the caller's, the keys' copies the
// table's. A key that a walk passes is good until its record is removed.
// Results: 0; ENOMEM (logged by the checked call), EOVERFLOW for too large a capacity, EBUSY for a key that exists,
// ESRCH for one that doesn't, EINVAL for a table without slots.
// One thread, and nothing here is for signal handlers.
#ifndef TV_GKH_H
#define TV_GKH_H

#include <sys/types.h>

#include <cstddef>
#include <cstdio>

typedef struct skht_tag* skht_t; // table keyed by string, opaque
typedef struct nkht_tag* nkht_t; // table keyed by number, opaque

inline constexpr size_t GKH_MAX_CAPACITY = 5000000;
inline constexpr size_t GKH_SKEY_SIZE = 255; // a stored string key with its zero

// A hash function. `key` is the string, or the number itself in the place of the pointer.
typedef u_long (*khash_t)(const void* key, u_long seed);
// Frees a record's data. `free` fits.
typedef void (*gkfree_t)(void* data);
// Called for each record of a walk; `key` as in khash_t.
typedef void (*gkiter_t)(const void* key, void* data, void* farg);

// ---- hash functions -------------------------------------------------------------------------------------------

// For strings: by 101 and the next character, from the seed on.
u_long plHash(const void* key, u_long seed);
// For strings: the classic one of ELF. The seed is not used.
u_long elfHash(const void* key, u_long seed);
// For numbers: a 64-bit integer mix. The seed is not used.
u_long tw_shift(const void* key, u_long seed);

// ---- keyed by string ------------------------------------------------------------------------------------------

// Makes a table. A null hfunc is plHash. The `len` keys of klst (if given) are added with null data. 0, or with *ph
// null: EOVERFLOW if capacity is above GKH_MAX_CAPACITY, ENOMEM, EBUSY if klst names a key twice.
// Requires: ph not null, capacity above 0, len above 0 if klst is given.
int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char** klst, size_t len);
// Frees the table, calling free_data (if given) for the data of each record. Requires: h not null.
void skht_destroy(skht_t h, gkfree_t free_data);
// Adds a record with the data at *pdat, or null data without pdat. 0; EBUSY if the key exists, with *pdat (if given)
// set to the data there and the table unchanged; ENOMEM; EINVAL. Requires: h and skey not null.
int skht_add(skht_t h, const char* skey, void** pdat);
// Removes a record. 0 with its data in *pdat (if given); ESRCH; EINVAL. Requires: h and skey not null.
int skht_rm(skht_t h, const char* skey, void** pdat);
// Looks a key up. 0 with its data in *pdat (if given); ESRCH; EINVAL. *pdat is left alone on failure.
// Requires: h and skey not null.
int skht_get(skht_t h, const char* skey, void** pdat);
// Calls f for each record, slot by slot, chain by chain; the number of calls. f must not change the table.
// Requires: h and f not null.
size_t skht_iter(skht_t h, gkiter_t f, void* farg);
// Prints how full the table is; with `verbose` non-zero a part for each slot in use: slot, chain length, last key.
// Requires: h and out not null.
void skht_print(skht_t h, FILE* out, int verbose);
// Records in the table. Requires: h not null.
size_t skht_count(skht_t h);

// ---- keyed by number ------------------------------------------------------------------------------------------

// Makes a table. With a null hfunc a number is its own hash. 0, EOVERFLOW or ENOMEM, as skht_create.
int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc);
// As their namesakes above. nkht_add also requires: nkey not 0.
void nkht_destroy(nkht_t h, gkfree_t free_data);
int nkht_add(nkht_t h, long nkey, void** pdat);
int nkht_rm(nkht_t h, long nkey, void** pdat);
int nkht_get(nkht_t h, long nkey, void** pdat);
size_t nkht_iter(nkht_t h, gkiter_t f, void* farg);
void nkht_print(nkht_t h, FILE* out, int verbose);
size_t nkht_count(nkht_t h);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of the table holds. No effects, no lines; null is not valid.
bool skht_validate(skht_t h);
bool nkht_validate(nkht_t h);
// Prints the table in words: its record, then each chain with its keys and data.
void skht_dump(skht_t h, FILE* fp);
void nkht_dump(nkht_t h, FILE* fp);

#endif // TV_GKH_H
