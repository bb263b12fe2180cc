// The other end of a connection, for tests: descriptors with an owner, loopback ports from the kernel, a connected pair,
// and a server that plays a script on one connection.
#ifndef TV_TESTS_NET_PEER_H
#define TV_TESTS_NET_PEER_H

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

// Owner of a descriptor.
class Fd
{
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept;
    ~Fd();

    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

// True if the host has the IPv6 loopback.
bool has_ipv6();

// A socket of a type bound to the loopback of a family, at a port that the kernel chose; not listening.
// Fails the test when there is none.
Fd bound_socket(int family, int socktype, uint16_t* port);
// The same, listening.
Fd listening_socket(int family, uint16_t* port);
// A port that nobody has at the moment.
uint16_t free_port(int socktype);

// Port of a socket's own address.
uint16_t local_port(int fd);
bool is_open(int fd);
// Value of an int option.
int int_option(int fd, int level, int option);
// Receive or send time-out in milliseconds.
long timeout_option_ms(int fd, int option);

// Writes all of a text; reads up to a limit or to the end of data.
void put(int fd, const std::string& text);
std::string take(int fd, size_t limit);
// Reads until the blank line of a request has come.
std::string take_request(int fd);

// A connected pair: what is written on one end in one piece is read on the other in one piece.
struct PeerPair {
    PeerPair();
    int fd() const { return here.get(); }
    std::string name() const { return std::to_string(here.get()); }
    // Queues a reply, in pieces of a size, and ends the data behind it.
    void reply(const std::string& text, size_t piece = SIZE_MAX, bool end = true);
    Fd here, there;
};

// Accepts one connection on the IPv4 loopback and plays a script on it; the connection closes behind the script.
class Server
{
public:
    explicit Server(std::function<void(int fd)> script);
    ~Server();
    uint16_t port() const { return m_port; }
    // "127.0.0.1:PORT"
    std::string address() const;

private:
    uint16_t m_port = 0;
    Fd m_listener;
    std::thread m_thread;
};

#endif // TV_TESTS_NET_PEER_H
