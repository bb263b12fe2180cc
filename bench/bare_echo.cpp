// The least that a service has to do to send back what it gets: epoll, accept, read, write, close. soak_echo.py runs it
// beside the echo example, to tell what the listeners and the loop cost.
//   bare_echo PORT
// SIGTERM ends it.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

constexpr int BACKLOG = 128;
constexpr int MAX_EVENTS = 128;

int listen_on(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&in), sizeof(in)) != 0 || listen(fd, BACKLOG) != 0) {
        perror("listen");
        exit(1);
    }
    return fd;
}

void watch(int loop, int fd)
{
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &ev) != 0) perror("epoll_ctl");
}

void take_all(int loop, int listener)
{
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; watch(loop, fd)) {
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    }
}

void echo(int fd)
{
    char buf[4096];
    const ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n > 0 && send(fd, buf, static_cast<size_t>(n), MSG_NOSIGNAL) == n) return;
    close(fd); // which takes it out of the set
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) return 2;
    const int listener = listen_on(static_cast<uint16_t>(atoi(argv[1])));
    const int loop = epoll_create1(0);
    watch(loop, listener);
    epoll_event events[MAX_EVENTS];
    for (;;) {
        const int n = epoll_wait(loop, events, MAX_EVENTS, -1);
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == listener)
                take_all(loop, listener);
            else
                echo(events[i].data.fd);
        }
    }
}
