// What the parts of the request listeners share.
#ifndef COMMON_RUI_INT_H
#define COMMON_RUI_INT_H

#include "rui.h"

namespace rui_int
{

inline constexpr size_t PPRM_START = 8; // marks that a listener has room for from the start
inline constexpr size_t PPRM_GROW = 4;

// In use: set up, with a configuration that is still valid.
inline bool is_up(const struct rui_socket_ctx* srv)
{
    return srv->tag.num == RUI_LISTENER_TAG.num && srv->lc && srv->lc->is_valid;
}

inline struct rui_rq_header* header_of(void* rq)
{
    return static_cast<struct rui_rq_header*>(rq);
}

// The marks of a listener: `last` + 1 slots, of which `taken` tells those in use.
inline struct rui_rq_header** marks_of(void* pprm_data)
{
    return static_cast<struct rui_rq_header**>(pprm_data);
}

// Can an fd_set hold it?
inline bool fits_fd_set(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE;
}

// Logs the call stack at panic and aborts.
[[noreturn]] void abort_with_stack();

// With deep checks on, a listener that is not valid ends the process.
void check(const struct rui_socket_ctx* srv);

} // namespace rui_int

#endif // COMMON_RUI_INT_H
