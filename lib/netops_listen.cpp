// Listeners for servers, and the client of a UNIX listener.
#include "netops.h"

#include "log.h"
#include "netops_int.h"
#include "syswrap.h"
#include "util.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

constexpr size_t DOMAIN_PATH_SIZE = sizeof(sockaddr_un::sun_path);
static_assert(DOMAIN_PATH_SIZE == 108 && sizeof(struct sockaddr_un) == 110);
constexpr int MAX_PORT = 65535;
constexpr long MS_PER_SEC = 1000;
constexpr long NS_PER_MS = 1000000;

// Puts the port of a text into the storage. By design: a port that is none is complained about and used.
void store_port(const char* caller, struct sockaddr_storage* ss, const char* port)
{
    const int num = atoi(port);
    if (num < 1 || num > MAX_PORT) tv_log(ll::error, "%s: invalid port number: %s\n", caller, port);
    const uint16_t net_port = htons(static_cast<uint16_t>(num));

    if (ss->ss_family == AF_INET) {
        memcpy(reinterpret_cast<char*>(ss) + offsetof(struct sockaddr_in, sin_port), &net_port, sizeof(net_port));
    } else if (ss->ss_family == AF_INET6) {
        memcpy(reinterpret_cast<char*>(ss) + offsetof(struct sockaddr_in6, sin6_port), &net_port, sizeof(net_port));
    } else {
        tv_log(ll::error, "%s: invalid network family: %d\n", caller, ss->ss_family);
    }
}

// Opens a bound, non-blocking socket for the storage's address.
int open_bound(const char* caller, const struct sockaddr_storage* ss, int socktype, int proto)
{
    const int fd = W_socket(caller, ss->ss_family, socktype, proto);
    if (fd == -1) return -1;
    if (reuse_and_bind(fd, as_sa(ss), saddr_len(as_sa(ss))) != 0 || set_nblock(fd, 1) != 0) {
        (void)W_close(caller, fd);
        return -1;
    }
    return fd;
}

struct sockaddr_un domain_addr(const char* path)
{
    struct sockaddr_un un = {};
    un.sun_family = AF_UNIX;
    (void)snprintf(un.sun_path, sizeof(un.sun_path), "%s", path);
    return un;
}

// Removes what an earlier listener left behind. A failure is said; the bind then tells whether it matters.
void drop_domain_path(const char* caller, const char* path)
{
    if (unlink(path) == 0 || errno == ENOENT) return;
    const int err = errno;
    tv_log(ll::error, "%s: unlink ERROR(%d): %s\n", caller, err, strerror(err));
}

// True if the whole pause went by.
bool pause_ok(long ms)
{
    if (ms <= 0) return true;
    const struct timespec span = {ms / MS_PER_SEC, (ms % MS_PER_SEC) * NS_PER_MS};
    return nanosleep(&span, nullptr) == 0;
}

} // namespace

int open_listener(struct sockaddr_storage* ss, const char* port, int defer_listen)
{
    store_port(__func__, ss, port);
    const int fd = open_bound(__func__, ss, SOCK_STREAM, IPPROTO_TCP);
    if (fd == -1 || defer_listen) return fd;
    if (W_listen(__func__, fd, LISTEN_BACKLOG) != 0) {
        (void)W_close(__func__, fd);
        return -1;
    }
    return fd;
}

int open_udp_listener(struct sockaddr_storage* ss, const char* port)
{
    if (port) store_port(__func__, ss, port);
    return open_bound(__func__, ss, SOCK_DGRAM, IPPROTO_UDP);
}

int open_anyaddr_listener(int family, const char* port, int defer_listen)
{
    struct socket_spec spec = {};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.defer_listen = defer_listen ? 1 : 0;
    spec.family = family;
    spec.socktype = SOCK_STREAM;
    return open_socket(nullptr, port, nullptr, &spec, nullptr, nullptr);
}

int open_domain_listener(const char* path)
{
    const struct sockaddr_un un = domain_addr(path);
    const int fd = W_socket(__func__, AF_UNIX, SOCK_STREAM, 0);
    bool ok = fd != -1 && set_nblock(fd, 1) == 0;
    if (ok) {
        drop_domain_path(__func__, path);
        ok = W_bind(__func__, fd, reinterpret_cast<const struct sockaddr*>(&un), sizeof(un)) == 0 &&
             W_listen(__func__, fd, LISTEN_BACKLOG) == 0;
    }
    if (!ok) {
        if (fd != -1) (void)W_close(__func__, fd);
        tv_log(ll::error, "%s: failed for path=[%s]\n", __func__, path);
        return -1;
    }
    tv_log(ll::debug, "%s: fd=%d is listening on [%s]\n", __func__, fd, path);
    return fd;
}

int open_domain_client(const char* path, long max_attempts, long pause_ms)
{
    assert(strlen(path) < DOMAIN_PATH_SIZE);
    const struct sockaddr_un un = domain_addr(path);
    const int fd = W_socket(__func__, AF_UNIX, SOCK_STREAM, 0);
    bool connected = false;
    long tried = 0;
    while (fd != -1 && !g_quit && tried < max_attempts) {
        ++tried;
        tv_log(ll::debug, "%s: attempt %ld out of %ld to connect to [%s]\n", __func__, tried, max_attempts, path);
        connected = W_connect(__func__, fd, reinterpret_cast<const struct sockaddr*>(&un), sizeof(un)) == 0;
        if (connected || tried == max_attempts || !pause_ok(pause_ms)) break;
    }
    if (connected) {
        tv_log(ll::info, "%s: fd=%d connected to [%s]\n", __func__, fd, path);
        return fd;
    }
    if (fd != -1) (void)W_close(__func__, fd);
    if (!g_quit) {
        tv_log(ll::error, "%s: failed to connect to [%s] after %ld attempt(s)\n", __func__, path, tried);
    }
    return -1;
}
