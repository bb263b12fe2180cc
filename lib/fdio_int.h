// The pieces of a transfer's step. For lib/fdio_transfer.cpp and the engine's own tests.
#ifndef TV_FDIO_INT_H
#define TV_FDIO_INT_H

#include "fdio.h"

namespace fdio_int
{

// Reads from the source: at `offset`, or at the descriptor's own position if that is negative. A result of 0 or less
// sets FDIO_ERR_READ.
ssize_t transfer_in(struct transfer_spec* tsp, off_t offset, char* dst, size_t count);
// Writes to the destination, or sends to its address. -1 sets FDIO_ERR_WRITE. Leaves errno as the call did.
// Requires: count not 0 (asserted).
ssize_t transfer_out(struct transfer_spec* tsp, const char* src, size_t count);

// Between the source and the mapping, and between the mapping and the destination, at *offset; what would reach past
// the mapping's end is cut off, with a warning. The bytes moved, 0 where that failed (errno tells).
// Requires: an offset (asserted).
ssize_t mm_in(struct transfer_spec* tsp, size_t count);
ssize_t mm_out(struct transfer_spec* tsp, size_t count);

// 0 for an error that is normal in a transfer with these flags, else `err`.
int trf_err_correct(int err, uint32_t flags);
// Logs a failed step, and returns `err`.
int trf_err_summary(int err, int dfd, int sfd, size_t count, uint32_t flags);

} // namespace fdio_int

#endif // TV_FDIO_INT_H
