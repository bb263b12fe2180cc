// Checked system calls. Every member has one shape: make the call, keep errno, say what failed, hand the result back.
#include "syswrap.h"

#include "log.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(LOG_MOD_SYSWRAP)

namespace
{

// Keeps errno as the call left it, through whatever the log does until the end of the block.
struct [[nodiscard]] errno_keeper {
    int err = errno;
    errno_keeper() = default;
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
    ~errno_keeper() { errno = err; }
};

// The length behind a pointer that may be null, for a log line.
long length_at(const socklen_t* len)
{
    return len ? static_cast<long>(*len) : 0;
}

// A text that may be null, for a log line.
const char* text_of(const char* s)
{
    return s ? s : "(null)";
}

} // namespace

// ---- judging an error number -----------------------------------------------------------------------------------

bool is_eagain(int err)
{
    return err == EAGAIN || err == EWOULDBLOCK;
}

bool is_connreset(int err)
{
    return err == ECONNRESET || err == ECONNABORTED;
}

int no_fault(int err, u_int32_t guilty)
{
    if (guilty != 0) return 0;
    return is_eagain(err) || err == EPIPE || err == EINTR || err == ECONNRESET ? 1 : 0;
}

// ---- descriptors and files -------------------------------------------------------------------------------------

int W_close(const char* caller, int fd)
{
    const int rc = close(fd);
    const errno_keeper keep;
    if (rc != 0) {
        tv_log(ll::error, "%s: close(fd%d) ERROR(%d): %s\n", caller, fd, keep.err, strerror(keep.err));
    } else {
        tv_log(ll::debug, "%s: CLOSED(fd%d)\n", caller, fd);
    }
    return rc;
}

int W_open(const char* caller, const char* pathname, int flags, mode_t mode)
{
    const int rc = open(pathname, flags, mode);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", caller, pathname, flags,
               static_cast<unsigned long>(mode), keep.err, strerror(keep.err));
    }
    return rc;
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence)
{
    const off_t rc = lseek(fd, offset, whence);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: lseek(%d, %ld, %d) ERROR(%d): %s\n", caller, fd, static_cast<long>(offset), whence,
               keep.err, strerror(keep.err));
    }
    return rc;
}

int W_unlink(const char* caller, const char* pathname)
{
    const int rc = unlink(pathname);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: unlink(%s) ERROR(%d): %s\n", caller, pathname, keep.err, strerror(keep.err));
    }
    return rc;
}

int W_ftruncate(const char* caller, int fd, off_t length)
{
    const int rc = ftruncate(fd, length);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: ftruncate(%d, %ld) ERROR(%d): %s\n", caller, fd, static_cast<long>(length), keep.err,
               strerror(keep.err));
    }
    return rc;
}

int W_dup2(const char* caller, int oldfd, int newfd)
{
    const int rc = dup2(oldfd, newfd);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: dup2(%d, %d) ERROR(%d): %s\n", caller, oldfd, newfd, keep.err, strerror(keep.err));
    }
    return rc;
}

int W_pipe(const char* caller, int* pipefd)
{
    const int rc = pipe(pipefd);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: pipe([%d,%d]) ERROR(%d): %s\n", caller, pipefd[0], pipefd[1], keep.err,
               strerror(keep.err));
    }
    return rc;
}

// ---- memory ----------------------------------------------------------------------------------------------------

void* W_calloc(const char* caller, size_t nmemb, size_t size)
{
    void* const rc = calloc(nmemb, size);
    if (!rc) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: calloc(%ld, %ld) ERROR(%d): %s\n", caller, static_cast<long>(nmemb),
               static_cast<long>(size), keep.err, strerror(keep.err));
    }
    return rc;
}

void* W_realloc(const char* caller, void* ptr, size_t size)
{
    // The old address only names the block in the line; it stays valid on failure, but is no pointer to use here.
    const auto old = reinterpret_cast<uintptr_t>(ptr);
    void* const rc = realloc(ptr, size);
    if (!rc) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: realloc(%p, %ld) ERROR(%d): %s\n", caller, reinterpret_cast<void*>(old),
               static_cast<long>(size), keep.err, strerror(keep.err));
    }
    return rc;
}

// ---- data ------------------------------------------------------------------------------------------------------

ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, u_int32_t flags)
{
    const ssize_t rc = write(fd, buf, count);
    if (rc == -1 && no_fault(errno, flags) == 0) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: write(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf, static_cast<long>(count), keep.err,
               strerror(keep.err));
    }
    return rc;
}

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, u_int32_t flags)
{
    const ssize_t rc = read(fd, buf, count);
    if (rc == -1 && no_fault(errno, flags) == 0) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: read(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf, static_cast<long>(count), keep.err,
               strerror(keep.err));
    }
    return rc;
}

ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, u_int32_t flags)
{
    const ssize_t rc = pread(fd, buf, count, offset);
    if (rc == -1 && no_fault(errno, flags) == 0) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: pread(%d, %p, %ld, %ld) ERROR(%d): %s\n", caller, fd, buf, static_cast<long>(count),
               static_cast<long>(offset), keep.err, strerror(keep.err));
    }
    return rc;
}

ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count, u_int32_t fflags)
{
    const ssize_t rc = sendfile(out_fd, in_fd, offset, count);
    if (rc == -1 && no_fault(errno, fflags) == 0) {
        const errno_keeper keep;
        // By design without a line end: the line goes on with what the caller says next.
        tv_log(ll::error, "%s: LNX sendfile(%d<-%d, %ld, %ld) ERROR(%d): %s", caller, out_fd, in_fd,
               offset ? static_cast<long>(*offset) : 0L, static_cast<long>(count), keep.err, strerror(keep.err));
    }
    return rc;
}

ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen)
{
    const ssize_t rc = sendto(sockfd, buf, len, flags, dest_addr, addrlen);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: sendto(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, sockfd, buf,
               static_cast<unsigned long>(len), flags, keep.err, strerror(keep.err));
    }
    return rc;
}

ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags, struct sockaddr* src_addr,
                   socklen_t* addrlen)
{
    const ssize_t rc = recvfrom(sockfd, buf, len, flags, src_addr, addrlen);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: recvfrom(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, sockfd, buf,
               static_cast<unsigned long>(len), flags, keep.err, strerror(keep.err));
    }
    return rc;
}

// ---- sockets ---------------------------------------------------------------------------------------------------

int W_socket(const char* caller, int domain, int type, int protocol)
{
    const int rc = socket(domain, type, protocol);
    const errno_keeper keep;
    if (rc == -1) {
        tv_log(ll::error, "%s: socket(%d, %d, %d) ERROR(%d): %s\n", caller, domain, type, protocol, keep.err,
               strerror(keep.err));
    } else {
        tv_log(ll::debug, "%s opened socket fd=%d (%d, %d, %d)\n", caller, rc, domain, type, protocol);
    }
    return rc;
}

int W_connect(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen)
{
    const int rc = connect(sockfd, addr, addrlen);
    if (rc == 0) return rc;
    const errno_keeper keep;
    if (keep.err == EINPROGRESS) {
        // By design under the wrapper's own name: whoever reads it looks for the socket, not for the caller.
        tv_log(ll::info, "%s: non-blocking connect in progress for fd%d\n", __func__, sockfd);
    } else {
        tv_log(ll::error, "%s: connect(%d, %p, %ld) ERROR(%d): %s\n", caller, sockfd, static_cast<const void*>(addr),
               static_cast<long>(addrlen), keep.err, strerror(keep.err));
    }
    return rc;
}

int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen)
{
    const int rc = getsockopt(sockfd, level, optname, optval, optlen);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: getsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, sockfd, level, optname, optval,
               length_at(optlen), keep.err, strerror(keep.err));
    }
    return rc;
}

int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval, socklen_t optlen)
{
    const int rc = setsockopt(sockfd, level, optname, optval, optlen);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: setsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, sockfd, level, optname, optval,
               static_cast<long>(optlen), keep.err, strerror(keep.err));
    }
    return rc;
}

int W_bind(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen)
{
    const int rc = bind(sockfd, addr, addrlen);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: bind(%d, %p, %ld): ERROR(%d): %s\n", caller, sockfd, static_cast<const void*>(addr),
               static_cast<long>(addrlen), keep.err, strerror(keep.err));
    }
    return rc;
}

int W_listen(const char* caller, int sockfd, int backlog)
{
    const int rc = listen(sockfd, backlog);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: listen(%d, %d) ERROR(%d): %s\n", caller, sockfd, backlog, keep.err, strerror(keep.err));
    }
    return rc;
}

int W_accept(const char* caller, int s, struct sockaddr* addr, socklen_t* addrlen)
{
    const int rc = accept(s, addr, addrlen);
    if (rc == -1 && !is_eagain(errno)) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: accept(%d, %p, %ld) ERROR(%d): %s\n", caller, s, static_cast<void*>(addr),
               length_at(addrlen), keep.err, strerror(keep.err));
    }
    return rc;
}

int W_getaddrinfo(const char* caller, const char* node, const char* service, const struct addrinfo* hints,
                  struct addrinfo** res)
{
    const int rc = getaddrinfo(node, service, hints, res);
    // By design this one code only: callers try several families and names, and failing look-ups are no news.
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller, text_of(node),
               text_of(service), static_cast<const void*>(hints), static_cast<void*>(res), rc, keep.err,
               gai_strerror(rc));
    }
    return rc;
}

// ---- waiting ---------------------------------------------------------------------------------------------------

int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout)
{
    const int rc = select(nfds, readfds, writefds, exceptfds, timeout);
    if (rc == -1 && (errno != EINTR || log_effective_level(&g_llctx) > ll::info)) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: select(%d, %p, %p, %p, %p) ERROR(%d): %s\n", caller, nfds, static_cast<void*>(readfds),
               static_cast<void*>(writefds), static_cast<void*>(exceptfds), static_cast<void*>(timeout), keep.err,
               strerror(keep.err));
    }
    return rc;
}

int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout)
{
    const int rc = poll(fds, nfds, timeout);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: poll(%p, %ld, %d) ERROR(%d): %s\n", caller, static_cast<void*>(fds),
               static_cast<long>(nfds), timeout, keep.err, strerror(keep.err));
    } else if (rc == 0) {
        const errno_keeper keep;
        tv_log(ll::warning, "%s: poll() has timed out after %d ms\n", caller, timeout);
    }
    return rc;
}

// ---- processes -------------------------------------------------------------------------------------------------

pid_t W_fork(const char* caller)
{
    const pid_t rc = fork();
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: fork() ERROR(%d): %s\n", caller, keep.err, strerror(keep.err));
    }
    return rc;
}

int W_kill(const char* caller, pid_t pid, int sig)
{
    const int rc = kill(pid, sig);
    if (rc == -1) {
        const errno_keeper keep;
        tv_log(ll::error, "%s: kill(%ld, %d) ERROR(%d): %s\n", caller, static_cast<long>(pid), sig, keep.err,
               strerror(keep.err));
    }
    return rc;
}
