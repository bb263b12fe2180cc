// The event loop's clock. It stands apart from the loop so that the time library, which lies at the bottom, can
// read it without pulling the loop in.
#include "rqs.h"

#include <type_traits>

static_assert(std::is_trivially_default_constructible_v<rqs_context> && std::is_standard_layout_v<rqs_context>);

constinit struct rqs_context g_rqs = {};

const struct timespec* rqs_now_ref()
{
    return &g_rqs.itime;
}

struct timespec rqs_now()
{
    return g_rqs.itime;
}
