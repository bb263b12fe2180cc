// The pid file. It is locked while it is written, and truncated only under the lock, so that two processes that start
// at once never leave a mixture of their numbers; the lock is gone with the close, by design.
#include "util.h"

#include "log.h"
#include "syswrap.h"
#include "util_int.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

using util_int::errno_keeper;

constexpr mode_t PIDFILE_MODE = 0644;
constexpr size_t PID_TEXT_MAX = 21; // a 64-bit number with its sign, and the zero

// The steps below are parts of create_pidfile_extra, whose name `caller` is in their lines.

int lock_pidfile(const char* caller, int fd, const char* fpath, uint32_t flags)
{
    if (write_lock(fd) != -1) return 0;

    const errno_keeper e;
    if (e.err != EACCES && e.err != EAGAIN)
        tv_log(ll::error, "fcntl write-lock ERROR(%d): %s\n", e.err, strerror(e.err));
    else if (flags & PIDF_TERSE)
        tv_log(ll::error, "Another instance is already running\n");
    else
        tv_log(ll::error, "%s: file [%s] is locked (another instance of daemon must be running)\n", caller, fpath);
    return -1;
}

int write_pid(const char* caller, int fd, pid_t pid)
{
    char text[PID_TEXT_MAX];
    const int n = snprintf(text, sizeof(text), "%ld", static_cast<long>(pid));
    if (n < 1 || static_cast<size_t>(n) > sizeof(text)) {
        const errno_keeper e;
        tv_log(ll::error, "%s: ERROR(%d) or not enough space for pid\n", caller, e.err);
        return -1;
    }
    return W_write_f(caller, fd, text, static_cast<size_t>(n), 1) == n ? 0 : -1;
}

int store_inode(const char* caller, int fd, ino_t* inode)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: fstat(fd%d,..) ERROR(%d): %s\n", caller, fd, e.err, strerror(e.err));
        return -1;
    }
    *inode = st.st_ino;
    return 0;
}

} // namespace

int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, uint32_t flags)
{
    tv_assert_logged(fpath && pid > 0);
    if ('\0' == fpath[0]) {
        tv_log(ll::error, "%s: no path specified\n", __func__);
        return -1;
    }

    const int fd = W_open(__func__, fpath, O_WRONLY | O_CREAT | O_NOCTTY, PIDFILE_MODE);
    if (fd < 0) return -1;

    int rc = lock_pidfile(__func__, fd, fpath, flags);
    if (0 == rc) rc = W_ftruncate(__func__, fd, 0);
    if (0 == rc) rc = write_pid(__func__, fd, pid);
    if (0 == rc && inode) rc = store_inode(__func__, fd, inode);

    const errno_keeper failure;
    // By design this ends the lock as well: a process that is started later takes the file over.
    (void)W_close(__func__, fd); // a failure is logged there, and the number is written already

    if (0 == (flags & PIDF_TERSE)) {
        if (rc)
            tv_log(ll::error, "%s: failed to create pidfile [%s] with pid=%ld.\n", __func__, fpath,
                   static_cast<long>(pid));
        else
            tv_log(ll::info, "Created pidfile [%s] with pid=%ld.\n", fpath, static_cast<long>(pid));
    }
    return rc;
}

int write_lock(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0; // to the end, wherever that will be
    return fcntl(fd, F_SETLK, &lock);
}

int mk_pidfile_name(const char* dir, const char* app, unsigned int instance, char* buf, size_t buflen)
{
    const int n = instance ? snprintf(buf, buflen, "%s/%s-%u.pid", dir, app, instance)
                           : snprintf(buf, buflen, "%s/%s.pid", dir, app);
    if (n > 0 && static_cast<size_t>(n) < buflen) return 0;
    buf[0] = '\0';
    tv_log(ll::error, "%s: name needs %d bytes, only %zu provided\n", __func__, n + 1, buflen);
    return -1;
}
