// What the parts of the socket layer share among themselves, and nobody else includes.
#ifndef NETOPS_INT_H
#define NETOPS_INT_H

#include "netops.h"

#include <cstdlib>
#include <memory>

namespace netops_int
{

inline constexpr int LISTEN_BACKLOG = 128;

// Owner of memory that came from malloc or calloc.
struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using ifc_ptr = std::unique_ptr<struct ifc_info, free_deleter>;
static_assert(sizeof(ifc_ptr) == sizeof(struct ifc_info*));

// Owners of the lists that the system hands out.
struct addrinfo_deleter {
    void operator()(struct addrinfo* ai) const { freeaddrinfo(ai); }
};
using addrinfo_ptr = std::unique_ptr<struct addrinfo, addrinfo_deleter>;

// Views of a sockaddr as what its family says it is.
inline struct sockaddr* as_sa(struct sockaddr_storage* ss)
{
    return reinterpret_cast<struct sockaddr*>(ss);
}
inline const struct sockaddr* as_sa(const struct sockaddr_storage* ss)
{
    return reinterpret_cast<const struct sockaddr*>(ss);
}

// saddr_str for a log line: never null.
const char* addr_text(const struct sockaddr* sa, socklen_t len, char* buf, size_t size);

} // namespace netops_int

#endif // NETOPS_INT_H
