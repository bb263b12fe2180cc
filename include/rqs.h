// Event loop: the loop's clock.
//
// A process that runs an event loop reads the monotonic clock once after each wait; the handlers of that turn use
// this reading instead of a clock call of their own. The clock is zero at start and only a running loop moves it:
// in a process without one it stays zero for good.
//
// Units: seconds and nanoseconds of CLOCK_MONOTONIC. Ownership: the loop's record owns the clock; the reference
// is valid for ever. Nothing fails or logs. One thread; reading is safe from a signal handler, though it may see
// a reading half written.
#ifndef TV_RQS_H
#define TV_RQS_H

#include <ctime>

struct rqs_context {
    struct timespec itime; // monotonic time taken after each wait
};

extern struct rqs_context g_rqs;

// The loop's clock, by pointer. Never null.
const struct timespec* rqs_now_ref();
// The loop's clock, by value.
struct timespec rqs_now();

#endif // TV_RQS_H
