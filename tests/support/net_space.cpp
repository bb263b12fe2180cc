// Network namespaces through plain ioctls, so that no tool has to be installed.
#include "support/net_space.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/ipv6.h>
#include <linux/ipv6_route.h>
#include <linux/route.h>

#include <cstring>

namespace
{

bool loopback_up(int fd)
{
    ifreq req = {};
    strcpy(req.ifr_name, "lo");
    if (ioctl(fd, SIOCGIFFLAGS, &req) != 0) return false;
    req.ifr_flags = static_cast<short>(req.ifr_flags | IFF_UP | IFF_MULTICAST);
    return ioctl(fd, SIOCSIFFLAGS, &req) == 0;
}

bool route_groups(int fd)
{
    rtentry rt = {};
    char dev[] = "lo";
    rt.rt_dev = dev;
    rt.rt_flags = RTF_UP;
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = inet_addr("224.0.0.0");
    memcpy(&rt.rt_dst, &in, sizeof(in));
    in.sin_addr.s_addr = inet_addr("240.0.0.0");
    memcpy(&rt.rt_genmask, &in, sizeof(in));
    return ioctl(fd, SIOCADDRT, &rt) == 0;
}

// The IPv6 side; a host without IPv6 does without it.
void set_up_ipv6(unsigned lo)
{
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    if (fd < 0) return;
    in6_ifreq addr = {};
    addr.ifr6_ifindex = static_cast<int>(lo);
    addr.ifr6_prefixlen = 64;
    inet_pton(AF_INET6, "fe80::7", &addr.ifr6_addr);
    (void)ioctl(fd, SIOCSIFADDR, &addr);

    in6_rtmsg route = {};
    route.rtmsg_ifindex = static_cast<int>(lo);
    route.rtmsg_dst_len = 8;
    route.rtmsg_metric = 1;
    route.rtmsg_flags = RTF_UP;
    inet_pton(AF_INET6, "ff00::", &route.rtmsg_dst);
    (void)ioctl(fd, SIOCADDRT, &route);
    close(fd);
}

} // namespace

bool enter_net_space(bool with_routes)
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    const bool ok = loopback_up(fd) && (!with_routes || route_groups(fd));
    close(fd);
    if (ok && with_routes) set_up_ipv6(if_nametoindex("lo"));
    return ok;
}
