// Loopback peers.
#include "support/net_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

[[noreturn]] void give_up(const char* what)
{
    perror(what);
    abort();
}

// Loopback address of a family, port 0.
socklen_t loopback(int family, sockaddr_storage* ss)
{
    *ss = {};
    if (family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(ss);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = in6addr_loopback;
        return sizeof(*in6);
    }
    auto* in = reinterpret_cast<sockaddr_in*>(ss);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sizeof(*in);
}

} // namespace

Fd& Fd::operator=(Fd&& other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0) close(m_fd);
        m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
}

Fd::~Fd()
{
    if (m_fd >= 0) close(m_fd);
}

bool has_ipv6()
{
    Fd fd(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_storage ss;
    const socklen_t len = loopback(AF_INET6, &ss);
    return fd.get() >= 0 && bind(fd.get(), reinterpret_cast<sockaddr*>(&ss), len) == 0;
}

uint16_t local_port(int fd)
{
    sockaddr_storage ss = {};
    socklen_t len = sizeof(ss);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) give_up("getsockname");
    return ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

Fd bound_socket(int family, int socktype, uint16_t* port)
{
    Fd fd(socket(family, socktype | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) give_up("socket");
    sockaddr_storage ss;
    const socklen_t len = loopback(family, &ss);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&ss), len) != 0) give_up("bind");
    *port = local_port(fd.get());
    return fd;
}

Fd listening_socket(int family, uint16_t* port)
{
    Fd fd = bound_socket(family, SOCK_STREAM, port);
    if (listen(fd.get(), 8) != 0) give_up("listen");
    return fd;
}

uint16_t free_port(int socktype)
{
    uint16_t port = 0;
    const Fd fd = bound_socket(AF_INET, socktype, &port);
    return port;
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

int int_option(int fd, int level, int option)
{
    int value = -1;
    socklen_t len = sizeof(value);
    if (getsockopt(fd, level, option, &value, &len) != 0) give_up("getsockopt");
    return value;
}

long timeout_option_ms(int fd, int option)
{
    timeval tv = {};
    socklen_t len = sizeof(tv);
    if (getsockopt(fd, SOL_SOCKET, option, &tv, &len) != 0) give_up("getsockopt");
    return tv.tv_sec * 1000 + tv.tv_usec / 1000;
}

void put(int fd, const std::string& text)
{
    for (size_t pos = 0; pos < text.size();) {
        const ssize_t n = send(fd, text.data() + pos, text.size() - pos, MSG_NOSIGNAL);
        if (n <= 0) return; // the peer under test may leave early
        pos += static_cast<size_t>(n);
    }
}

std::string take(int fd, size_t limit)
{
    std::string out(limit, '\0');
    size_t got = 0;
    while (got < limit) {
        const ssize_t n = read(fd, out.data() + got, limit - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    return out;
}

std::string take_request(int fd)
{
    std::string out;
    char c = 0;
    while (out.find("\r\n\r\n") == std::string::npos && read(fd, &c, 1) == 1)
        out += c;
    return out;
}

PeerPair::PeerPair()
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) give_up("socketpair");
    here = Fd(fds[0]);
    there = Fd(fds[1]);
}

void PeerPair::reply(const std::string& text, size_t piece, bool end)
{
    for (size_t pos = 0; pos < text.size(); pos += piece) {
        put(there.get(), text.substr(pos, piece));
        if (piece == SIZE_MAX) break;
    }
    if (end) shutdown(there.get(), SHUT_WR);
}

Server::Server(std::function<void(int fd)> script) : m_listener(listening_socket(AF_INET, &m_port))
{
    m_thread = std::thread([this, script = std::move(script)] {
        const Fd peer(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (peer.get() >= 0) script(peer.get());
    });
}

Server::~Server()
{
    shutdown(m_listener.get(), SHUT_RDWR); // wakes an accept that nobody came to
    m_thread.join();
}

std::string Server::address() const
{
    return "127.0.0.1:" + std::to_string(m_port);
}
