// A stopwatch for stretches of code: adds up monotonic time and resource usage between start and stop.
//
//     struct prfm r;
//     prfm_xinit(&r, PRFM_TIME | PRFM_USAGE, RUSAGE_SELF);
//     prfm_start(&r); work(); prfm_stop(&r);   // as often as needed
//     prfm_dump(stderr, &r, "work, %d items\n", n);
//
// What is measured is fixed by `flags`; with flags 0 every operation does nothing, and prfm_dump prints its format
// only. A stop does not move the start: a second stop adds the stretch since the same start once more.
//
// Units: seconds and nanoseconds of CLOCK_MONOTONIC; seconds and microseconds of CPU time; the counters as getrusage
// gives them, `ru_maxrss` included, which is by design summed up as a difference like the others.
// Ownership: the record is the caller's and owns nothing.
// Results: none. A clock or usage that can't be read is said on stderr and aborts the process.
// One thread; a meter is not for signal handlers.
#ifndef TV_PRFM_H
#define TV_PRFM_H

#include <sys/resource.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <type_traits>

inline constexpr int32_t PRFM_TIME = 1;  // measures elapsed time
inline constexpr int32_t PRFM_USAGE = 2; // measures resource usage

struct prfm_metrics {
    struct timespec tm;
    struct rusage ru;
};

struct prfm {
    int who;       // whose usage, as getrusage takes it
    int32_t flags; // PRFM_ bits
    struct prfm_metrics start;
    struct prfm_metrics accum;
};

static_assert(std::is_trivial_v<prfm> && std::is_standard_layout_v<prfm>);
static_assert(offsetof(prfm, who) < offsetof(prfm, flags) && offsetof(prfm, flags) < offsetof(prfm, start) &&
              offsetof(prfm, start) < offsetof(prfm, accum));

// Sets flags and `who`, and clears what the flags select in start and accum.
// Requires: r not null, for all of them.
void prfm_xinit(struct prfm* r, int32_t flags, int rusage_who);
// Clears what the flags select, then the flags: from here on the meter does nothing.
void prfm_destroy(struct prfm* r);
// Notes the start.
void prfm_start(struct prfm* r);
// Adds what went by since the start.
void prfm_stop(struct prfm* r);
// Puts the current usage (not a difference) in the place of the sum, and its time to zero.
void prfm_probe(struct prfm* r);
// Prints the text of fmt (none if it is null), then what the flags select of the sum. Requires: fp, r not null.
void prfm_dump(FILE* fp, const struct prfm* r, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// The two blocks of prfm_dump. Requires: both arguments not null.
void rusage_dump(FILE* fp, const struct rusage* ru);
void tmspec_dump(FILE* fp, const struct timespec* ts);

#endif // TV_PRFM_H
