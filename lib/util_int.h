// What the parts of util share among themselves; nobody else includes it.
#ifndef TV_UTIL_INT_H
#define TV_UTIL_INT_H

#include <cerrno>

namespace util_int
{

// Notes errno where it is made and puts it back at the end of the scope, so that logging a failure can't change what
// the caller will read.
struct [[nodiscard]] errno_keeper {
    const int err = errno;

    errno_keeper() = default;
    ~errno_keeper() { errno = err; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
};

} // namespace util_int

#endif // TV_UTIL_INT_H
