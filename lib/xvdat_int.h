// What xvlst and emblst share: slots with a map of those taken. For lib/xvdat*.cpp only.
#ifndef TV_XVDAT_INT_H
#define TV_XVDAT_INT_H

#include "xvdat.h"

#include <cstddef>
#include <cstdio>

namespace xvdat_int
{

// A list's bookkeeping, wherever it lies.
struct slots {
    const char* taken;
    size_t count; // slots taken
    size_t max;   // capacity
    size_t last;
    ssize_t avail;
};

// The lowest free index from i on, or -1.
ssize_t find_free(const char* taken, size_t i, size_t max);

// Blocks of blksz bytes that fit into `bytes` together with a taken map behind them; 0 for a block size of 0.
size_t slots_that_fit(size_t bytes, size_t blksz);

// Adapter: a walk that knows visits with `aux` only calls one without. `aux` points at the xv_visit_t.
int call_visit(void* data, size_t i, void* aux);

// Invariants of the bookkeeping of a list with capacity: the map agrees with count, last and avail.
bool slots_valid(const struct slots& s);

// Prints the taken slots as runs, "0-3 5", on a line of their own.
void slots_dump(const struct slots& s, FILE* fp);

} // namespace xvdat_int

#endif // TV_XVDAT_INT_H
