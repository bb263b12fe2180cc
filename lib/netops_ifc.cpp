// Interfaces: from a tag to an index, a name and an address.
#include "netops.h"

#include "log.h"
#include "netops_int.h"
#include "syswrap.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

struct ifaddrs_deleter {
    void operator()(struct ifaddrs* list) const { freeifaddrs(list); }
};
using ifaddrs_ptr = std::unique_ptr<struct ifaddrs, ifaddrs_deleter>;

// Lists the interface addresses. 0, or errno after an error line under the caller's name.
int list_interfaces(const char* caller, const char* name, int family, ifaddrs_ptr* list)
{
    struct ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: getifaddrs [%s] (family=%d): %s\n", caller, name, family, strerror(err));
        return err;
    }
    list->reset(found);
    return 0;
}

bool has_family(const struct ifaddrs* entry, int family)
{
    return entry->ifa_addr && entry->ifa_addr->sa_family == family;
}

// Takes a tag for a numeric address of a family that this machine has sockets for. False if it is none.
bool numeric_addr(const char* caller, const char* tag, struct sockaddr_storage* ss)
{
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    struct addrinfo* found = nullptr;
    if (W_getaddrinfo(caller, tag, nullptr, &hints, &found) != 0) return false;

    addrinfo_ptr list(found);
    for (const struct addrinfo* ai = list.get(); ai; ai = ai->ai_next) {
        tv_log(ll::debug, "af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        const int fd = W_socket(caller, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (fd == -1) continue;
        (void)W_close(caller, fd);
        assert(ai->ai_addrlen <= sizeof(*ss));
        memcpy(ss, ai->ai_addr, ai->ai_addrlen);
        return true;
    }
    return false;
}

} // namespace

struct ifc_info* get_ifc_info(int family, const char* tag)
{
    ifc_ptr ifc(static_cast<struct ifc_info*>(W_calloc(__func__, 1, sizeof(struct ifc_info))));
    if (!ifc) return nullptr;

    ifc->idx = ifaddr_index(tag, &ifc->ss);
    if (ifc->idx == 0) {
        tv_log(ll::error, "[%s] is not a valid %s interface address.\n", tag, af_name(family));
        return nullptr;
    }
    if (!if_indextoname(ifc->idx, ifc->name)) {
        const int err = errno;
        tv_log(ll::error, "%s: if_indextoname(%d, buf): %s\n", __func__, static_cast<int>(ifc->idx), strerror(err));
        return nullptr;
    }
    if (ifc->ss.ss_family == AF_UNSPEC && ifc_addr_lookup(family, ifc->name, as_sa(&ifc->ss), sizeof(ifc->ss)) != 0) {
        return nullptr;
    }
    return ifc.release();
}

struct ifc_info* any_ifc_info(int family)
{
    ifc_ptr ifc(static_cast<struct ifc_info*>(W_calloc(__func__, 1, sizeof(struct ifc_info))));
    if (!ifc) return nullptr;
    cpy_anyaddr(family, &ifc->ss);
    return ifc.release();
}

unsigned ifaddr_index(const char* tag, struct sockaddr_storage* ss)
{
    assert(tag);
    const unsigned named = if_nametoindex(tag);
    if (named != 0) return named;

    struct sockaddr_storage own = {};
    if (!ss) ss = &own;
    if (!numeric_addr(__func__, tag, ss)) return 0;

    ifaddrs_ptr list;
    // By design: the error number goes back as if it were an index.
    if (const int err = list_interfaces(__func__, tag, AF_UNSPEC, &list)) return static_cast<unsigned>(err);

    for (const struct ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
        if (!has_family(entry, ss->ss_family) || !saddr_equal(entry->ifa_addr, as_sa(ss))) continue;
        const unsigned idx = if_nametoindex(entry->ifa_name);
        tv_log(ll::debug, "%s: %s matched to interface [%s], idx=%u\n", __func__, tag, entry->ifa_name, idx);
        return idx;
    }
    return 0;
}

int ifc_addr_lookup(int family, const char* name, struct sockaddr* sa, size_t size)
{
    assert(name);
    assert(sa);
    ifaddrs_ptr list;
    if (const int err = list_interfaces(__func__, name, family, &list)) return err;

    // A group address of local scope serves only where nothing better is there.
    const struct sockaddr* fallback = nullptr;
    for (const struct ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
        if (!has_family(entry, family) || strncmp(entry->ifa_name, name, IFNAMSIZ) != 0) continue;
        if (!is_ipv6_mc_local(entry->ifa_addr)) {
            cpy_sockaddr(entry->ifa_addr, sa, size);
            return 0;
        }
        fallback = entry->ifa_addr;
    }
    if (fallback) {
        cpy_sockaddr(fallback, sa, size);
        return 0;
    }
    tv_log(ll::error, "%s: failed to look up address for ifc=%s\n", __func__, name);
    return -1;
}
