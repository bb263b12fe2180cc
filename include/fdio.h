// Reads and writes that survive signals, and stop when the process is told to quit.
//
// One call moves bytes at most once: a partial read or write goes back to the caller as it is. What is waited out
// is an interrupted call, which is tried again unless `g_quit` is set.
//
// Units: bytes. Ownership: descriptors and buffers stay the caller's.
// Results: the count moved; 0 when nothing moved (end of data, or `count` 0); the negative result of the failed
// call. After an interruption that ended the function `errno` is 0, otherwise it is the failed call's.
// The checked calls log; with flags 0 they keep quiet about EAGAIN, EPIPE, EINTR and ECONNRESET.
// The calls are measured by the sensors PRF_DATAIN and PRF_DATAOUT (psensor.h).
// One thread; reads `g_quit`, which a signal handler sets.
#ifndef FDIO_H
#define FDIO_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t FDIO_VERBOSE = 1; // hold every error against the call, so that it is logged

// Writes at most `count` bytes. A result of 0 ends it like a failure does.
// Requires: buf readable for count bytes.
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags);

// Reads at most `count` bytes; 0 is the end of the data. Requires: buf writable for count bytes.
ssize_t nread(int fd, char* buf, size_t count, uint32_t flags);

// nread at a position; of `flags` only FDIO_VERBOSE counts. Requires: buf writable for count bytes.
ssize_t npread(int fd, char* buf, size_t count, off_t offset, uint32_t flags);

#endif // FDIO_H
