// The record behind a dlep_t. For lib/dlep.cpp and the list's own tests; everybody else holds the handle.
#ifndef TV_DLEP_INT_H
#define TV_DLEP_INT_H

#include "dlep.h"

#include <bit>
#include <cstddef>

struct dlep_list {
    struct dlep_elem* head; // newest
    struct dlep_elem* tail; // oldest
    size_t count;
};

static_assert(sizeof(dlep_t) == sizeof(struct dlep_list*), "a handle is the address");

namespace dlep_int
{

inline struct dlep_list* list_of(dlep_t lh)
{
    return std::bit_cast<struct dlep_list*>(lh);
}

} // namespace dlep_int

#endif // TV_DLEP_INT_H
