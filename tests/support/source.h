// An opened source, for tests: the context with the descriptor that came of it, closed at the end of its scope.
#ifndef TV_TESTS_SOURCE_H
#define TV_TESTS_SOURCE_H

#include "wopen.h"

#include <cstdint>
#include <string>
#include <utility>

// A context as a capture loop sets it up, with the descriptor that came of it.
struct Source {
    Source() { uc.inbound = true; }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source() { close(); }

    int open(const std::string& url) { return fd = usock_open(url.c_str(), &uc); }
    void close() { usock_close(std::exchange(fd, -1), &uc); }
    void lend(char* buf, size_t cap)
    {
        uc.buf = buf;
        uc.bufcap = cap;
    }

    usock_ctx uc = {};
    int fd = -1;
};

inline std::string loopback_url(const char* scheme, uint16_t port, const char* rest = "")
{
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + rest;
}

#endif // TV_TESTS_SOURCE_H
