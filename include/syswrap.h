// Checked system calls: the call as it is, plus one log line when it fails.
//
// Each W_ member takes the name of the calling function first (`W_close(__func__, fd)`); the rest of the arguments
// and the result are those of the system call. On failure it logs at error "caller: call(arguments) ERROR(n): text"
// and returns the call's result; callers test results and decide, they don't report. Nothing is retried: an
// interrupted call comes back with EINTR.
// `errno` is what the call left there, whatever the logging did, on success and on failure.
// The `_f` forms take `guilty` last: non-zero has every error logged; with 0 the errors that a peer or a signal
// may cause at any time (see no_fault) are passed on without a line.
//
// Ownership: as with the calls themselves. The log module is LOG_MOD_SYSWRAP: its info and debug lines show only
// when that module's level is raised. One thread; from a signal handler only the calls that are safe there, with
// g_sigctx set.
#ifndef TV_SYSWRAP_H
#define TV_SYSWRAP_H

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

struct addrinfo;

inline constexpr int LOG_MOD_SYSWRAP = 2; // index in the module level table

// ---- judging an error number ----------------------------------------------------------------------------------

// True for the would-block kind.
bool is_eagain(int err);
// True for the kind that says a peer has gone: reset, or aborted before it was accepted.
bool is_connreset(int err);
// Non-zero if an error is nobody's fault: EAGAIN, EPIPE, EINTR, ECONNRESET, and `guilty` is 0.
int no_fault(int err, u_int32_t guilty);

// ---- descriptors and files ------------------------------------------------------------------------------------

// Success is logged at debug.
int W_close(const char* caller, int fd);
int W_open(const char* caller, const char* pathname, int flags, mode_t mode);
off_t W_lseek(const char* caller, int fd, off_t offset, int whence);
int W_unlink(const char* caller, const char* pathname);
int W_ftruncate(const char* caller, int fd, off_t length);
int W_dup2(const char* caller, int oldfd, int newfd);
int W_pipe(const char* caller, int* pipefd);

// ---- memory ---------------------------------------------------------------------------------------------------

void* W_calloc(const char* caller, size_t nmemb, size_t size);
// On failure the old block stays valid.
void* W_realloc(const char* caller, void* ptr, size_t size);

// ---- data -----------------------------------------------------------------------------------------------------

ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, u_int32_t flags);
ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, u_int32_t flags);
ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, u_int32_t flags);
// By design its line has no line end.
ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count, u_int32_t fflags);
ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen);
ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags, struct sockaddr* src_addr,
                   socklen_t* addrlen);

// ---- sockets --------------------------------------------------------------------------------------------------

// Success is logged at debug.
int W_socket(const char* caller, int domain, int type, int protocol);
// A non-blocking connect in progress is logged at info, under the wrapper's own name, and is no failure.
int W_connect(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen);
int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen);
int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval, socklen_t optlen);
int W_bind(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen);
int W_listen(const char* caller, int sockfd, int backlog);
// EAGAIN is not logged.
int W_accept(const char* caller, int s, struct sockaddr* addr, socklen_t* addrlen);
// By design only the result -1 is logged, none of the other codes.
int W_getaddrinfo(const char* caller, const char* node, const char* service, const struct addrinfo* hints,
                  struct addrinfo** res);

// ---- waiting --------------------------------------------------------------------------------------------------

// EINTR is logged only when the module's level is above info.
int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout);
// A time-out (result 0) is logged at warning.
int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout);

// ---- processes ------------------------------------------------------------------------------------------------

pid_t W_fork(const char* caller);
int W_kill(const char* caller, pid_t pid, int sig);

#endif // TV_SYSWRAP_H
