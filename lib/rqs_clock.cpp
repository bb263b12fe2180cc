// The event loop's record and its clock. They stand apart from the loop so that the time library, which lies at the
// bottom, can read the clock without pulling the loop in.
#include "rqs.h"

constinit struct rqs_context g_rqs = {};

const struct timespec* rqs_now_ref()
{
    return &g_rqs.itime;
}

struct timespec rqs_now()
{
    return g_rqs.itime;
}
