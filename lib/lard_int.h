// What the parts of the ring log share: its handle and the accessors that both sides of the shared record use.
// For lib/lard*.cpp and the ring log's own tests; everybody else holds a lard_t.
#ifndef TV_LARD_INT_H
#define TV_LARD_INT_H

#include "lard.h"

#include <csignal>
#include <cstddef>
#include <type_traits>

struct lard_dbuf {
    bool is_reader;
    int dfd;       // the data object, -1: none
    char* data;    // a reader's ring; a writer's whole object, whose first half stays under this address
    char* overlay; // writer: the ring again, at data + dlen
    char* ddz;     // writer: the dead zone, at overlay + olen
    size_t dlen;   // size of the ring
    size_t olen;   // the same, once the overlay is mapped
    size_t zlen;   // one page, once the dead zone is mapped
};

struct lard_ctx {
    char name[LARD_MAX_NAME];
    int mfd; // the meta object, -1: none
    struct lard_meta* meta;
    size_t buflen; // seg_pages times the page size, as it was when the handle was made
    struct lard_dbuf dbuf;
    volatile sig_atomic_t is_writing; // a signal handler has to keep off
};
static_assert(std::is_trivially_default_constructible_v<lard_ctx> && std::is_standard_layout_v<lard_ctx>);

namespace lard_int
{

// The writer publishes pld_len ahead of pld_start, and a reader loads pld_start first: whatever it meets in between
// still is a stretch of the ring whose end lies on the way to the new one.

inline size_t load_size(const size_t* p)
{
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

inline void store_size(size_t* p, size_t val)
{
    __atomic_store_n(p, val, __ATOMIC_RELEASE);
}

} // namespace lard_int

#endif // TV_LARD_INT_H
