// Settings of a socket that is open already.
#include "netops.h"

#include "log.h"
#include "netops_int.h"
#include "syswrap.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/time.h>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

constexpr int MS_PER_SEC = 1000;
constexpr int US_PER_MS = 1000;

constexpr struct timeval to_timeval(int ms)
{
    return {ms / MS_PER_SEC, (ms % MS_PER_SEC) * US_PER_MS};
}
static_assert(to_timeval(1500).tv_sec == 1 && to_timeval(1500).tv_usec == 500000);
static_assert(to_timeval(999).tv_sec == 0 && to_timeval(999).tv_usec == 999000);

const char* on_off(int flag)
{
    return flag ? "ON" : "OFF";
}

} // namespace

int get_socket_flags(int fd)
{
    constexpr int arg = 0;
    const int flags = fcntl(fd, F_GETFL, arg);
    if (flags < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: fcntl(%d, F_GETFL, %d) ERROR(%d): %s\n", __func__, fd, arg, err, strerror(err));
        errno = err;
        return -1;
    }
    return flags;
}

int is_non_blocking(int fd)
{
    const int flags = get_socket_flags(fd);
    return flags == -1 ? -1 : flags & O_NONBLOCK;
}

int set_nblock(int fd, int flag)
{
    // By design: flags that can't be read are all set, and a flag other than 1 asks for a blocking descriptor.
    const int flags = get_socket_flags(fd);
    const bool wanted = flag == 1;
    if (((flags & O_NONBLOCK) != 0) == wanted) return 0;

    const int changed = wanted ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(fd, F_SETFL, changed) < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: fcntl(%d, F_SETFL, %d) ERROR(%d): %s\n", __func__, fd, changed, err, strerror(err));
        errno = err;
        return -1;
    }
    tv_log(ll::debug, "%s: fd%d set as %sblocking\n", __func__, fd, wanted ? "non-" : "");
    return 0;
}

void set_ipv6only(int fd, int flag)
{
    int now = 0;
    socklen_t len = sizeof(now);
    if (getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &now, &len) != 0) {
        perror("getsockopt IPV6_V6ONLY");
        return;
    }
    if (now == flag) {
        tv_log(ll::info, "%s: IPV6_V6ONLY for fd=%d is already %s\n", __func__, fd, on_off(flag));
        return;
    }
    if (W_setsockopt(__func__, fd, IPPROTO_IPV6, IPV6_V6ONLY, &flag, sizeof(flag)) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: setsockopt IPV6_V6ONLY: %s\n", __func__, strerror(err));
    }
    // By design: the text goes with this condition, though the change opens the listener to IPv4.
    if (flag == 0 && now != 0) tv_log(ll::warning, "%s: server will not accept IPv4 requests\n", __func__);
}

int set_socket_timeout(int fd, int option, int ms)
{
    const struct timeval tmout = to_timeval(ms);
    return W_setsockopt(__func__, fd, SOL_SOCKET, option, &tmout, sizeof(tmout));
}

int set_rcv_timeout(int fd, int ms)
{
    return set_socket_timeout(fd, SO_RCVTIMEO, ms);
}

int set_send_timeout(int fd, int ms)
{
    return set_socket_timeout(fd, SO_SNDTIMEO, ms);
}

int set_socket_buflen(int fd, int option, size_t len)
{
    // The kernel takes the low half of the eight bytes that it is given.
    static_assert(sizeof(len) == 8);
    return W_setsockopt(__func__, fd, SOL_SOCKET, option, &len, sizeof(len));
}

int set_socket_rcvbuf(int fd, size_t len)
{
    return set_socket_buflen(fd, SO_RCVBUF, len);
}

int set_socket_sendbuf(int fd, size_t len)
{
    return set_socket_buflen(fd, SO_SNDBUF, len);
}

int set_tcp_nodelay(int fd, int flag)
{
    const int rc = W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_NODELAY, &flag, sizeof(flag));
    if (rc == 0) tv_log(ll::info, "TCP_NODELAY turned %s for [fd=%d]\n", on_off(flag), fd);
    return rc;
}

int set_tcp_cork(int fd, int flag)
{
    const int rc = W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_CORK, &flag, sizeof(flag));
    if (rc == 0) tv_log(ll::info, "TCP_CORK turned %s for [fd=%d]\n", on_off(flag), fd);
    return rc;
}

int set_keepalive(int fd, int flag)
{
    const int rc = setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &flag, sizeof(flag));
    if (rc != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: setsockopt(fd%d, SOL_SOCKET, SO_KEEPALIVE, %d,..) ERROR(%d): %s\n", __func__, fd, flag,
               err, strerror(err));
        errno = err;
        return rc;
    }
    tv_log(ll::debug, "%s: [%s] for fd%d\n", __func__, on_off(flag), fd);
    return rc;
}

int socket_error(int fd)
{
    int err = 0;
    socklen_t len = sizeof(err);
    if (W_getsockopt(__func__, fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err != 0) {
        tv_log(ll::error, "%s(fd%d) ERROR(%d): %s\n", __func__, fd, err, strerror(err));
        errno = err;
    }
    return err;
}

char* get_peer_ipaddr(int fd, char* buf, size_t size)
{
    struct sockaddr_storage peer = {};
    socklen_t len = sizeof(peer);
    if (getpeername(fd, as_sa(&peer), &len) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: getpeername(fd%d,...) ERROR(%d): %s\n", __func__, fd, err, strerror(err));
        errno = err;
        return nullptr;
    }
    return saddr_str(as_sa(&peer), len, buf, size);
}
