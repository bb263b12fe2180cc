// Multicast membership. The generic options work by interface index for both families; the protocol-specific ones
// are there for kernels and networks that do badly with them, and work by interface address for IPv4.
#include "netops.h"

#include "log.h"
#include "netops_int.h"
#include "syswrap.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

struct net_options {
    int use_legacy_mcast_api : 1; // the protocol-specific options instead of the generic ones
};
constinit struct net_options g_opt = {};

static_assert(sizeof(struct group_req) == 136 && sizeof(struct group_source_req) == 264);
static_assert(sizeof(struct ip_mreq) == 8 && sizeof(struct ip_mreq_source) == 12 && sizeof(struct ipv6_mreq) == 20);

constexpr size_t GROUP_TEXT_SIZE = 80;
constexpr const char* NO_NAME = "<none>"; // stands in a line for an interface name that is null

// An interface record unfolded; null stands for no interface in particular.
struct ifc_parts {
    const char* name;
    unsigned idx;
    struct sockaddr_storage* ss;
};

ifc_parts unfold(struct ifc_info* ifc)
{
    if (!ifc) return {"", 0, nullptr};
    return {ifc->name, ifc->idx, &ifc->ss};
}

bool is_named(const struct ifc_info* ifc)
{
    return ifc && !is_anyaddr(ifc->name);
}

struct sockaddr_in as_in4(const struct sockaddr_storage* ss)
{
    struct sockaddr_in in = {};
    memcpy(&in, ss, sizeof(in));
    return in;
}

struct sockaddr_in6 as_in6(const struct sockaddr_storage* ss)
{
    struct sockaddr_in6 in6 = {};
    memcpy(&in6, ss, sizeof(in6));
    return in6;
}

void log_ifc(const char* caller, int fd, const struct ifc_info* ifc)
{
    tv_log(ll::debug, "%s: fd=%d, ifc=[%s]:%p\n", caller, fd, ifc ? ifc->name : "<any>", static_cast<const void*>(ifc));
}

// Gives the interface address of an IPv4 membership where it isn't known yet. 0, or the lookup's failure.
int fill_ifaddr(int family, const char* ifname, struct sockaddr_storage* ifaddr)
{
    assert(ifaddr);
    if (ifaddr->ss_family != AF_UNSPEC) return 0;
    if (!is_anyaddr(ifname)) return ifc_addr_lookup(family, ifname, as_sa(ifaddr), sizeof(*ifaddr));
    cpy_anyaddr(family, ifaddr);
    return 0;
}

int group_op_generic(const char* caller, unsigned ifidx, const struct sockaddr_storage* group, int join, int fd)
{
    struct group_req req = {};
    req.gr_interface = ifidx;
    req.gr_group = *group;
    return W_setsockopt(caller, fd, af_level(group->ss_family), join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &req,
                        sizeof(req));
}

int group_op_ipv4(const char* caller, const struct sockaddr_storage* group, const struct sockaddr_storage* ifaddr,
                  int join, int fd)
{
    struct ip_mreq req = {};
    req.imr_multiaddr = as_in4(group).sin_addr;
    req.imr_interface = as_in4(ifaddr).sin_addr;
    return W_setsockopt(caller, fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &req, sizeof(req));
}

int group_op_ipv6(const char* caller, unsigned ifidx, const struct sockaddr_storage* group, int join, int fd)
{
    struct ipv6_mreq req = {};
    req.ipv6mr_multiaddr = as_in6(group).sin6_addr;
    req.ipv6mr_interface = ifidx;
    return W_setsockopt(caller, fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &req, sizeof(req));
}

void log_ssm_failure(const char* caller, const char* op, const char* ifname, unsigned ifidx, int join, int fd, int err)
{
    tv_log(ll::error, "%s: (%s) %s ifc=%s/%u fd%d: %s\n", caller, op, join ? "SSM_JOIN" : "SSM_LEAVE",
           ifname ? ifname : NO_NAME, ifidx, fd, strerror(err));
}

} // namespace

void set_legacy_mcast_api(int flag)
{
    // By design: there is no way back. A signed bit holds 0 and -1.
    if (flag) g_opt.use_legacy_mcast_api = -1;
}

int set_mcast_ttl(int family, int fd, int ttl)
{
    assert(family == AF_INET || family == AF_INET6);
    const bool ipv4 = family == AF_INET;
    const int rc = ipv4 ? W_setsockopt(__func__, fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl))
                        : W_setsockopt(__func__, fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl, sizeof(ttl));
    const int err = rc == 0 ? 0 : errno;
    // By design: the outcome is told at error level even where it is OK.
    tv_log(ll::error, "%s: %s mcast fd=%d, op=%s: %s\n", __func__, ipv4 ? "IP" : "IPv6", fd,
           ipv4 ? "MULTICAST_TTL" : "MULTICAST_HOPS", err == 0 ? "OK" : strerror(err));
    return err;
}

int setup_mcast_reader(int fd, struct addrinfo* ai, struct ifc_info* ifc, const struct sockaddr_storage* src)
{
    log_ifc(__func__, fd, ifc);
    if (ai->ai_family == AF_INET6 && is_ipv6_mc_local(ai->ai_addr)) {
        if (is_named(ifc)) {
            sync_ipv6addr_scope_id(ai->ai_addr, ifc->name, &ifc->ss);
        } else {
            tv_log(ll::error, "%s: network interface must be specified to use link/local-scope multicast\n", __func__);
        }
    }
    // Bound to the group, the socket takes that group's datagrams only.
    if (const int rc = reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen)) return rc;

    struct sockaddr_storage group = {};
    cpy_sockaddr(ai->ai_addr, as_sa(&group), sizeof(group));
    assert(group.ss_family == ai->ai_family);
    return src ? ssm_join(fd, src, &group, ifc) : mcast_join(fd, &group, ifc);
}

int setup_mcast_writer(int fd, struct addrinfo* ai, struct ifc_info* ifc)
{
    log_ifc(__func__, fd, ifc);
    if (!is_named(ifc)) return 0;
    if (ai->ai_family == AF_INET6) return set_ipv6_sock_ifc(fd, ifc->idx);
    if (ai->ai_family != AF_INET) return 0;

    const struct in_addr addr = as_in4(&ifc->ss).sin_addr;
    assert(addr.s_addr != 0);
    return W_setsockopt(__func__, fd, IPPROTO_IP, IP_MULTICAST_IF, &addr, sizeof(addr));
}

int mcast_join(int fd, const struct sockaddr_storage* group, struct ifc_info* ifc)
{
    const ifc_parts p = unfold(ifc);
    return mcast_group_op(__func__, p.name, p.idx, group, p.ss, 1, fd);
}

int mcast_leave(int fd, const struct sockaddr_storage* group, struct ifc_info* ifc)
{
    const ifc_parts p = unfold(ifc);
    return mcast_group_op(__func__, p.name, p.idx, group, p.ss, 0, fd);
}

int ssm_join(int fd, const struct sockaddr_storage* src, const struct sockaddr_storage* group, struct ifc_info* ifc)
{
    const ifc_parts p = unfold(ifc);
    return ssm_group_op(__func__, p.name, p.idx, group, src, p.ss, 1, fd);
}

int ssm_leave(int fd, const struct sockaddr_storage* src, const struct sockaddr_storage* group, struct ifc_info* ifc)
{
    const ifc_parts p = unfold(ifc);
    // By design: this joins: the flag is that of ssm_join.
    return ssm_group_op(__func__, p.name, p.idx, group, src, p.ss, 1, fd);
}

int mcast_group_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                   struct sockaddr_storage* ifaddr, int join, int fd)
{
    const bool generic = !g_opt.use_legacy_mcast_api;
    const char* op = join ? "MCAST_JOIN" : "MCAST_LEAVE";
    tv_log(ll::debug, "%s: ifc-name=%s, idx=%u ifc=%p\n", __func__, ifname ? ifname : NO_NAME, ifidx,
           static_cast<void*>(ifaddr));
    if (log_gate_open(&g_llctx, ll::info)) {
        char text[GROUP_TEXT_SIZE];
        const char* shown = addr_text(as_sa(group), sizeof(*group), text, sizeof(text));
        tv_log(ll::info, "%s: using %s mulitcast API to %s group %s\n", __func__,
               generic ? "GENERIC" : "protocol-specific", op, shown);
    }
    int rc = 0;
    if (generic) {
        rc = group_op_generic(__func__, ifidx, group, join, fd);
    } else if (group->ss_family == AF_INET) {
        if (const int err = fill_ifaddr(AF_INET, ifname, ifaddr)) return err;
        rc = group_op_ipv4(__func__, group, ifaddr, join, fd);
    } else if (group->ss_family == AF_INET6) {
        rc = group_op_ipv6(__func__, ifidx, group, join, fd);
    } else {
        tv_log(ll::error, "%s: unsupported family %d\n", __func__, group->ss_family);
        rc = -1;
    }
    if (rc != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: %s fd=%d: %s\n", caller, op, fd, strerror(err));
    }
    return rc;
}

int ssm_group_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                 const struct sockaddr_storage* src, struct sockaddr_storage* ifaddr, int join, int fd)
{
    assert(src->ss_family == group->ss_family);
    if (g_opt.use_legacy_mcast_api) return ssm_proto_op(caller, ifname, ifidx, group, src, ifaddr, join, fd);
    return ssm_generic_op(caller, ifname, ifidx, group, src, join, fd);
}

int ssm_proto_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                 const struct sockaddr_storage* src, struct sockaddr_storage* ifaddr, int join, int fd)
{
    int rc = 0;
    int err = 0;
    if (group->ss_family == AF_INET) {
        if (const int lookup = fill_ifaddr(AF_INET, ifname, ifaddr)) return lookup;
        struct ip_mreq_source req = {};
        req.imr_multiaddr = as_in4(group).sin_addr;
        req.imr_interface = as_in4(ifaddr).sin_addr;
        req.imr_sourceaddr = as_in4(src).sin_addr;
        const int option = join ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP;
        rc = W_setsockopt(__func__, fd, IPPROTO_IP, option, &req, sizeof(req));
    } else if (group->ss_family == AF_INET6) {
        tv_log(ll::error, "%s: (%s) IPv6-specific SSM not supported\n", caller, __func__);
        err = EINVAL;
        rc = -EINVAL;
    }
    if (rc != 0) log_ssm_failure(caller, __func__, ifname, ifidx, join, fd, err != 0 ? err : errno);
    return rc;
}

int ssm_generic_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                   const struct sockaddr_storage* src, int join, int fd)
{
    struct group_source_req req = {};
    req.gsr_interface = ifidx;
    req.gsr_group = *group;
    req.gsr_source = *src;
    const int option = join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP;
    const int rc = W_setsockopt(__func__, fd, af_level(group->ss_family), option, &req, sizeof(req));
    if (rc != 0) log_ssm_failure(caller, __func__, ifname, ifidx, join, fd, errno);
    return rc;
}

void sync_ipv6addr_scope_id(struct sockaddr* sa, const char* ifname, struct sockaddr_storage* ifaddr)
{
    if (sa->sa_family != AF_INET6) return;
    struct sockaddr_in6 in6 = {};
    memcpy(&in6, sa, sizeof(in6));

    struct sockaddr_storage own = {};
    if (!ifaddr) ifaddr = &own;
    uint32_t found = 0;
    if (in6.sin6_scope_id == 0) {
        bool known = ifaddr->ss_family != AF_UNSPEC;
        if (!known) {
            if (!ifname) {
                tv_log(ll::error, "%s: cannot set scope id, interface or link-specific address must be selected\n",
                       __func__);
                return;
            }
            known = ifc_addr_lookup(AF_INET6, ifname, as_sa(ifaddr), sizeof(*ifaddr)) == 0;
        }
        if (known && ifaddr->ss_family == AF_INET6) found = as_in6(ifaddr).sin6_scope_id;
    }
    // By design: both lines are errors, so that they stand in the log of any run.
    if (found != 0) {
        in6.sin6_scope_id = found;
        memcpy(sa, &in6, sizeof(in6));
        tv_log(ll::error, "updated IPv6 address scope ID to %ld\n", static_cast<long>(found));
    } else {
        tv_log(ll::error, "IPv6 address scope ID %ld left unchanged\n", static_cast<long>(in6.sin6_scope_id));
    }
}

int set_ipv6_sock_ifc(int fd, unsigned ifidx)
{
    if (ifidx == 0) {
        tv_log(ll::error, "%s: network interface must be specified\n", __func__);
        return -1;
    }
    if (W_setsockopt(__func__, fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifidx, sizeof(ifidx)) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: setsockopt IPV6_MULTICAST_IF failed (%d): %s\n", __func__, err, strerror(err));
        return err;
    }
    return 0;
}
