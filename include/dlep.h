// A doubly linked list whose links live in the records themselves.
//
// A *record* is the caller's; it begins with the head `dlep_elem`, and every `void*` below that names a record points
// at that head. Records are appended at the *head*:
//
//     tail (oldest)  --next-->  ...  --next-->  head (newest)
//                    <--prev--       <--prev--
//
// A list is kept sorted by dlep_sadd and dlep_repos; with `asc` 1 the head is the least and the tail the greatest,
// with `asc` 0 the other way round.
//
// Ownership: the list owns its own small record and nothing else; it frees a record only by the function that the
// caller gives. A record may be in one list at a time. A handle is good until dlep_destroy.
// Results: a record, or null for an empty list. Impossible states, such as a record taken out of a list that it isn't
// in, are assertions.
// One thread, and nothing here is for signal handlers.
#ifndef TV_DLEP_H
#define TV_DLEP_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

typedef long dlep_t; // handle of a list, 0: none

// What a record begins with.
struct dlep_elem {
    int32_t type_id;        // the caller's, not looked at
    struct dlep_elem* prev; // toward the tail, null at the tail
    struct dlep_elem* next; // toward the head, null at the head
    // Where the caller's own part starts. Of length 0, not open-ended, so that a record can hold the head as its
    // first member.
    char data[0];
};

typedef void (*efree_t)(void* d);
typedef void (*efree1_t)(void* d, void* aux);
// Exactly -1, 0 or 1, as a sorts before, with or behind b.
typedef int (*fecmp_t)(const void* a, const void* b);
typedef void (*printd_t)(FILE* out, const void* d);

// ---- the list -------------------------------------------------------------------------------------------------

// An empty list; 0 with *err (if given) ENOMEM where memory ran out. *err is left alone otherwise.
dlep_t dlep_create(int* err);
// Purges the list and frees it. Requires: lh not 0.
void dlep_destroy(dlep_t lh, efree_t efree);
// Empties the list from the tail on, calling efree (if given) for each record. The next record is noted before the
// call, so efree may free the record, and may take it off the list. Requires: lh not 0.
void dlep_purge(dlep_t lh, efree_t efree);
// The same, with `aux` handed on.
void dlep_purge1(dlep_t lh, efree1_t efree1, void* aux);
// Requires: lh not 0, for all three.
size_t dlep_count(dlep_t lh);
void* dlep_head(dlep_t lh);
void* dlep_tail(dlep_t lh);

// ---- records --------------------------------------------------------------------------------------------------

// Puts a record at the head and returns it. Its links are overwritten. Requires: lh not 0, d not null.
void* dlep_append(dlep_t lh, void* d);
// Appends a record and moves it to its place; returns it. Requires: as dlep_repos.
void* dlep_sadd(dlep_t lh, void* d, int asc, fecmp_t ecmp);
// Moves a record of the list to its place after its key has changed; returns it. The other records must be in order.
// A comparison that contradicts itself ends in an assertion.
// Requires: lh not 0, d and ecmp not null, asc 0 or 1.
void* dlep_repos(dlep_t lh, void* d, int asc, fecmp_t ecmp);
// Takes a record out, clears its links and returns it. Requires: lh not 0, d not null and in the list.
void* dlep_rm(dlep_t lh, void* d);
// Take the oldest and the newest record out; null if the list is empty. Requires: lh not 0.
void* dlep_rmtail(dlep_t lh);
void* dlep_rmhead(dlep_t lh);
// 0 if the list is in order, -1 if it isn't. By design a list of fewer than two records gives `asc` itself, and -1 as
// `asc` asks for the same order as 1. Requires: lh not 0, ecmp not null, asc -1, 0 or 1.
int dlep_sverify(dlep_t lh, int asc, fecmp_t ecmp);

// ---- printing and debugging aids ------------------------------------------------------------------------------

// One line from head to tail: "{text} " for each record, or just a blank without fpdat. A list whose links don't fit
// its count fails an assertion. Requires: out not null, lh not 0.
void dlep_print(FILE* out, dlep_t lh, printd_t fpdat);
// One line with all addresses; by design a record's closing brace comes only with its text. A list whose links don't
// fit its count is said on `out` and fails an assertion. Requires: as dlep_print.
void dlep_debug_print(FILE* out, dlep_t lh, printd_t fpdat);

// True when every invariant of the list holds. No effects, no lines; 0 is not valid.
bool dlep_validate(dlep_t lh);
// Prints the list in words, valid or not, a line for each record; asserts nothing.
void dlep_dump(dlep_t lh, FILE* fp);

#endif // TV_DLEP_H
