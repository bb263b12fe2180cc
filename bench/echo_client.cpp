// Short connections to an echo service: connect, send, read it back, close; many under way at once.
//   echo_client PORT COUNT PARALLEL
// Prints the seconds that it took. Exit status 1 where a connection fails or something else comes back.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

constexpr char MESSAGE[] = "the quick brown fox jumps over the lazy dog";
constexpr size_t MESSAGE_BYTES = sizeof(MESSAGE) - 1;
// A closed connection keeps its port for a minute; so many source addresses have ports enough.
constexpr uint32_t FIRST_SOURCE = 0x7f000101; // 127.0.1.1
constexpr uint32_t SOURCES = 64;

[[noreturn]] void fail(const char* what)
{
    perror(what);
    exit(1);
}

sockaddr_in address(uint32_t host, uint16_t port)
{
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    in.sin_addr.s_addr = htonl(host);
    return in;
}

// Connects, which on the loopback takes no waiting, sends, and waits for the answer in the set.
void begin(int loop, uint16_t port, uint32_t serial)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    const sockaddr_in from = address(FIRST_SOURCE + serial % SOURCES, 0);
    const sockaddr_in to = address(INADDR_LOOPBACK, port);
    if (fd < 0 || setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof(one)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof(from)) != 0)
        fail("bind");
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) fail("connect");
    if (send(fd, MESSAGE, MESSAGE_BYTES, MSG_NOSIGNAL) != static_cast<ssize_t>(MESSAGE_BYTES)) fail("send");
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &ev) != 0) fail("epoll_ctl");
}

void end(int fd)
{
    char buf[MESSAGE_BYTES];
    if (recv(fd, buf, sizeof(buf), MSG_WAITALL) != static_cast<ssize_t>(sizeof(buf))) fail("recv");
    if (memcmp(buf, MESSAGE, sizeof(buf)) != 0) {
        errno = EBADMSG;
        fail("echo");
    }
    close(fd);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) return 2;
    const auto port = static_cast<uint16_t>(atoi(argv[1]));
    const auto count = static_cast<uint32_t>(atol(argv[2]));
    const auto parallel = static_cast<uint32_t>(atol(argv[3]));
    const int loop = epoll_create1(0);
    std::vector<epoll_event> events(parallel);

    const auto start = std::chrono::steady_clock::now();
    uint32_t begun = 0;
    for (uint32_t done = 0; done < count;) {
        while (begun < count && begun - done < parallel)
            begin(loop, port, begun++);
        const int n = epoll_wait(loop, events.data(), static_cast<int>(parallel), -1);
        if (n < 0) fail("epoll_wait");
        for (int i = 0; i < n; ++i)
            end(events[static_cast<size_t>(i)].data.fd);
        done += static_cast<uint32_t>(n);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    printf("%.6f\n", took.count());
}
