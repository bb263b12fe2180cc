// Signal-proof reads and writes. The pattern: call once with the whole count; go round again only after an
// interruption, and then only while the process is not told to quit.
#include "fdio.h"

#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "util.h"

#include <cerrno>

TV_LOG_MODULE(4)

namespace
{

// True where a failed call is to be made again. The interruption is taken off errno either way, so that a caller
// that is told to quit doesn't mistake it for an error.
bool try_again()
{
    if (errno != EINTR) return false;
    errno = 0;
    return !g_quit;
}

} // namespace

ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags)
{
    ssize_t rc = 0; // the last failed call's; a call that writes nothing doesn't take it back
    while (count != 0) {
        psensor_start(PRF_DATAOUT);
        const ssize_t n = W_write_f(__func__, fd, buf, count, flags & FDIO_VERBOSE);
        psensor_stop(PRF_DATAOUT);
        if (n > 0) return n;
        if (n < 0) rc = n;
        if (!try_again()) break;
    }
    return rc;
}

ssize_t nread(int fd, char* buf, size_t count, uint32_t flags)
{
    ssize_t rc = 0;
    while (count != 0) {
        psensor_start(PRF_DATAIN);
        rc = W_read_f(__func__, fd, buf, count, flags & FDIO_VERBOSE);
        psensor_stop(PRF_DATAIN);
        if (rc >= 0 || !try_again()) break;
    }
    return rc;
}

ssize_t npread(int fd, char* buf, size_t count, off_t offset, uint32_t flags)
{
    ssize_t rc = 0;
    while (count != 0) {
        psensor_start(PRF_DATAIN);
        rc = W_pread_f(__func__, fd, buf, count, offset, flags & FDIO_VERBOSE);
        psensor_stop(PRF_DATAIN);
        if (rc >= 0 || !try_again()) break;
    }
    return rc;
}
