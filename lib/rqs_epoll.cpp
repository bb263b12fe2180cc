// The epoll set: what the loop waits for, and how much of it there is.
#include "log.h"
#include "rqs.h"
#include "rqs_int.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

// Names of the operations, in the order of their numbers.
constexpr std::array<const char*, 3> g_op_names = {"EPOLL_CTL_ADD", "EPOLL_CTL_DEL", "EPOLL_CTL_MOD"};
static_assert(EPOLL_CTL_ADD == 1 && EPOLL_CTL_DEL == 2 && EPOLL_CTL_MOD == 3);

const char* name_of(int op)
{
    return g_op_names[static_cast<size_t>(op - EPOLL_CTL_ADD)];
}

int do_epoll_watch(int op, uint32_t events, int fd, void* udata)
{
    tv_assert_logged(g_rqs.loopfd > 0);
    struct epoll_event ev = {};
    ev.events = events;
    if (udata) {
        ev.data.ptr = udata;
    } else {
        ev.data.u64 = static_cast<uint32_t>(fd);
    }
    const int rc = epoll_ctl(g_rqs.loopfd, op, fd, &ev);
    const int err = errno;
    const auto mask = static_cast<unsigned long>(events);
    if (rc != 0) {
        tv_log(ll::error, "%s: epoll_ctl(%d, %s, %d, {0x%lx, %p}) ERROR(%d): %s\n", __func__, g_rqs.loopfd, name_of(op),
               fd, mask, ev.data.ptr, err, strerror(err));
    } else {
        tv_log(ll::debug, "%s: OK fd=%d %s to epoll with events=0x%lx, data=%p\n", __func__, fd, name_of(op), mask,
               ev.data.ptr);
    }
    errno = err;
    return rc;
}

int add_watch(const char* caller, uint32_t events, int fd, void* udata)
{
    const int rc = do_epoll_watch(EPOLL_CTL_ADD, events, fd, udata);
    if (rc != 0) return rc;
    ++g_rqs.poll_fds;
    tv_log(ll::debug, "%s: fd%d, poll_fds count=%lu\n", caller, fd, g_rqs.poll_fds);
    rqs_int::check();
    return 0;
}

} // namespace

int rqs_add_reader(int fd, void* udata)
{
    return add_watch(__func__, EPOLLIN, fd, udata);
}

int rqs_add_writer(int fd, void* udata)
{
    return add_watch(__func__, EPOLLOUT, fd, udata);
}

int rqs_mod_reader(int fd, void* udata)
{
    return do_epoll_watch(EPOLL_CTL_MOD, EPOLLIN, fd, udata);
}

int rqs_mod(int fd, void* udata, int read_write)
{
    uint32_t events = 0;
    char letters[3] = "";
    char* p = letters;
    if ((read_write & RQS_READ) != 0) {
        events |= EPOLLIN;
        *p++ = 'R';
    }
    if ((read_write & RQS_WRITE) != 0) {
        events |= EPOLLOUT;
        *p++ = 'W';
    }
    if (events == 0) {
        events = EPOLLHUP; // which epoll reports anyway: no interest in either direction
        *p++ = 'H';
    }
    tv_log(ll::debug, "%s: fd%d, udata=%p, flags='%s'\n", __func__, fd, udata, letters);
    return do_epoll_watch(EPOLL_CTL_MOD, events, fd, udata);
}

int rqs_rm_fd(int fd, bool /*is_reader*/, bool /*is_writer*/)
{
    if (g_rqs.loopfd < 0) return 0;
    struct epoll_event unused = {};
    const int rc = epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, fd, &unused);
    const int err = errno;
    if (rc != 0) {
        tv_log(ll::error, "%s: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..) ERROR(%d): %s\n", __func__, g_rqs.loopfd, fd, err,
               strerror(err));
    } else {
        --g_rqs.poll_fds;
    }
    tv_log(ll::debug, "%s: REMOVE fd=%d from epoll %s [rc=%d]\n", __func__, fd, rc == 0 ? "OK" : "FAILED", rc);
    rqs_int::check();
    errno = err;
    return rc;
}

size_t rqs_fd_count(int which)
{
    switch (which) {
    case 0: return g_rqs.poll_fds + g_rqs.nopoll.len;
    case 1: return g_rqs.poll_fds;
    case 2: return g_rqs.nopoll.len;
    default: break;
    }
    tv_log(ll::error, "%s: invalid specifier: %d\n", __func__, which);
    tv_assert_logged(which >= 0 && which <= 2);
    return 0;
}

int rqs_ctx(int type, void* /*aux*/)
{
    if (type == RQS_CTX_STAGE) return g_rqs.loop_stage;
    tv_log(ll::error, "%s: invalid request type: %d\n", __func__, type);
    return 0;
}
