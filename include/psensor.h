// Performance sensors: named meters that the library starts and stops around the work of its hot paths.
//
// A *sensor* is a meter (prfm.h) with a tag. The library's own stand first in `g_psensor`, in the order of the table
// below; an application's follow from USENSOR_FIRST, in the order of its tags. Before psensors_init the array is zero
// and all sensors are off. A *site* is a pair of calls, psensor_start and psensor_stop: while its sensor is off they
// cost the test of a bit each. A start on a sensor that runs does nothing, so that nested sites on one sensor measure
// one stretch, from the outer start to the first stop.
//
// Units: as in prfm.h. Ownership: tags stay the caller's and must outlive the sensors.
// Results: 0, an index or -1. One thread; sites are not for signal handlers.
#ifndef TV_PSENSOR_H
#define TV_PSENSOR_H

#include "prfm.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdio>

//   index  constant     tag         measures
inline constexpr size_t PRF_APP = 0;     // "app"       the application
inline constexpr size_t PRF_EVLOOP = 1;  // "ev_loop"   the event loop
inline constexpr size_t PRF_EVREAD = 2;  // "ev_read"   read events
inline constexpr size_t PRF_EVWRITE = 3; // "ev_write"  write events
inline constexpr size_t PRF_EVERR = 4;   // "ev_err"    error events
inline constexpr size_t PRF_EVPP = 5;    // "ev_pp"     post-processing of events
inline constexpr size_t PRF_EVIDLE = 6;  // "ev_idle"   idle time in poll
inline constexpr size_t PRF_DATAIN = 7;  // "data_in"   reads of stream data
inline constexpr size_t PRF_DATAOUT = 8; // "data_out"  writes of stream data
inline constexpr size_t PRF_SYS_COUNT = 9;

inline constexpr size_t USENSOR_FIRST = PRF_SYS_COUNT;
inline constexpr size_t MAX_PSENSORS = 73;

struct psensor {
    const char* nametag;
    struct prfm sensor;
    unsigned enabled : 1; // sites on it measure
    unsigned started : 1; // between start and stop
};

struct app_psensor_ctx {
    size_t ucount; // application sensors
};

extern struct psensor g_psensor[MAX_PSENSORS];
extern struct app_psensor_ctx g_pctx;
extern const char* const g_libsensor_tag[PRF_SYS_COUNT + 1]; // the library's tags, then a null

// Sets all sensors up anew, to measure time and the process's resource usage; enable_all non-zero switches them on.
// `utag` is a null-terminated list of application tags, or null; tags that the array has no room for are ignored.
// Always 0.
int psensors_init(const char** utag, int enable_all);
// Switches the meters of the library and the application off and clears them.
void psensors_destroy();
// Prints the enabled sensors that have measured any time. Requires: fp not null.
void psensors_dump(FILE* fp);
// The index of one of the library's tags, in any case, or -1. Requires: name not null.
off_t libptag_index(const char* name);

// ---- sites ----------------------------------------------------------------------------------------------------

// The rare halves of a site, with the sensor known to be enabled. `errno` survives.
void psensor_start_enabled(struct psensor* s);
void psensor_stop_enabled(struct psensor* s);

// Requires: index below MAX_PSENSORS, for both.
inline void psensor_start(size_t index)
{
    if (g_psensor[index].enabled) psensor_start_enabled(&g_psensor[index]);
}
inline void psensor_stop(size_t index)
{
    if (g_psensor[index].enabled) psensor_stop_enabled(&g_psensor[index]);
}

#endif // TV_PSENSOR_H
