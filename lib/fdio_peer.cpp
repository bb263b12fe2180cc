// What stands around a transfer: its files, descriptors from and to another process, waiting on a socket.
#include "fdio.h"

#include "log.h"
#include "psensor.h"
#include "syswrap.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <span>

TV_LOG_MODULE(4)

namespace
{

constexpr mode_t DST_FILE_MODE = 0644;
constexpr size_t TEST_READ_MAX = 512;
constexpr size_t ONE_FD_LEN = CMSG_LEN(sizeof(int));

// Room for a control message with one descriptor, placed as the kernel wants it. By the padding of control messages a
// second descriptor may fit in.
union control_room {
    struct cmsghdr head;
    char bytes[CMSG_SPACE(sizeof(int))];
};

int fd_at(const struct cmsghdr* cmsg, size_t index)
{
    int fd;
    memcpy(&fd, CMSG_DATA(cmsg) + index * sizeof(fd), sizeof(fd));
    return fd;
}

bool holds_fds(const struct cmsghdr* cmsg)
{
    return cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS;
}

// Closes the descriptors of a message that is not taken: they are open in this process from the moment it came.
void close_fds(const struct cmsghdr* cmsg)
{
    if (!cmsg || !holds_fds(cmsg)) return;
    for (size_t i = 0; CMSG_LEN((i + 1) * sizeof(int)) <= cmsg->cmsg_len; ++i)
        (void)W_close(__func__, fd_at(cmsg, i)); // it has logged a failure, and there is nothing else to do
}

// The one descriptor of a message, or -1.
int take_fd(struct msghdr* msg, uint32_t fdio_flags)
{
    const struct cmsghdr* const cmsg = CMSG_FIRSTHDR(msg);
    const bool is_verbose = (fdio_flags & FDIO_VERBOSE) != 0;
    if (cmsg && cmsg->cmsg_len == ONE_FD_LEN) {
        if (holds_fds(cmsg)) return fd_at(cmsg, 0);
        if (is_verbose)
            tv_log(ll::error, "%s: invalid control message level/type=%ld/%ld\n", "recv_fd",
                   static_cast<long>(cmsg->cmsg_level), static_cast<long>(cmsg->cmsg_type));
        return -1;
    }
    if (is_verbose)
        tv_log(ll::error, "%s: invalid control message structure: cmsg=%p, clen=%ld\n", "recv_fd",
               static_cast<const void*>(cmsg), cmsg ? static_cast<long>(cmsg->cmsg_len) : -1L);
    close_fds(cmsg);
    return -1;
}

// What wait_to_read and wait_to_write make of the events that have come.
short wait_result(short revents)
{
    if (revents == -1 || (revents & (POLLERR | POLLNVAL))) return -1;
    return revents == 0 ? 1 : 0;
}

} // namespace

// ---- files of a job --------------------------------------------------------------------------------------------

int open_src_file(const char* fpath)
{
    return W_open(__func__, fpath, O_RDONLY, 0);
}

int open_dst_file(const char* fpath, uint32_t flags)
{
    const int fd = W_open(__func__, fpath, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC, DST_FILE_MODE);
    if (fd == -1 || !(flags & FDIO_UNLINK_DST) || W_unlink(__func__, fpath) == 0) return fd;
    const int err = errno;
    (void)W_close(__func__, fd); // the failure that counts is the other one
    errno = err;
    return -1;
}

int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, uint32_t* flags)
{
    if (!S_ISREG(src_mode)) return 1;
    if (!S_ISSOCK(dst_mode)) return 2;
    if (dst_socktype != SOCK_STREAM) return 3;
    *flags |= FDIO_SENDFILE;
    return 0;
}

// ---- descriptors to another process ----------------------------------------------------------------------------

ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd)
{
    union control_room control = {};
    struct iovec data = {ptr, nbytes};
    struct msghdr msg = {};
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof(control.bytes);
    control.head.cmsg_level = SOL_SOCKET;
    control.head.cmsg_type = SCM_RIGHTS;
    control.head.cmsg_len = ONE_FD_LEN;
    memcpy(CMSG_DATA(&control.head), &sendfd, sizeof(sendfd));
    const ssize_t rc = sendmsg(dst_fd, &msg, 0);
    if (rc == -1) {
        const int err = errno;
        tv_log(ll::error, "%s: sendmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, dst_fd, static_cast<void*>(&msg), err,
               strerror(err));
        errno = err;
    }
    return rc;
}

ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags)
{
    union control_room control = {};
    struct iovec data = {ptr, nbytes};
    struct msghdr msg = {};
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof(control.bytes);
    *recvfd = -1;
    psensor_start(PRF_DATAIN);
    const ssize_t rc = recvmsg(src_fd, &msg, 0);
    psensor_stop(PRF_DATAIN);
    if (rc > 0) {
        *recvfd = take_fd(&msg, fdio_flags);
        return rc;
    }
    // A connection's end has no error number: what stands in errno is from some other call. An empty message looks the
    // same and may have brought descriptors.
    const int err = errno;
    if (rc == 0) close_fds(CMSG_FIRSTHDR(&msg));
    const bool is_harmless = rc < 0 && is_eagain(err) && !(fdio_flags & FDIO_VERBOSE);
    if (!is_harmless)
        tv_log(ll::error, "%s: recvmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, src_fd, static_cast<void*>(&msg),
               rc < 0 ? err : 0, rc < 0 ? strerror(err) : "connection has been closed by peer");
    errno = err;
    return rc;
}

// ---- waiting ---------------------------------------------------------------------------------------------------

short poll_on_socket(int sockfd, short events, int tmout)
{
    struct pollfd one = {sockfd, events, 0};
    psensor_start(PRF_EVIDLE);
    const int rc = W_poll(__func__, &one, 1, tmout);
    psensor_stop(PRF_EVIDLE);
    return rc < 0 ? short{-1} : one.revents;
}

short wait_to_read(int sockfd, int tmout)
{
    return wait_result(poll_on_socket(sockfd, POLLIN, tmout));
}

short wait_to_write(int sockfd, int tmout)
{
    return wait_result(poll_on_socket(sockfd, POLLOUT, tmout));
}

int test_read_fd(int fd, int tmout)
{
    char buf[TEST_READ_MAX];
    const ssize_t nrd = wait_to_read(fd, tmout) == 0 ? nread(fd, buf, sizeof(buf), 0) : -1;
    if (nrd > 0) {
        tv_log(ll::debug, "%s: fd=%d is readable [%ld bytes]\n", __func__, fd, static_cast<long>(nrd));
        return 0;
    }
    tv_log(ll::error, "%s: cannot read from fd=%d, nrd=%ld\n", __func__, fd, static_cast<long>(nrd));
    return -1;
}
