// The process as a whole: daemon, users, core dumps, working directory, CPUs, resource limits.
//
// Most of these run once, at start, when the log may still be stderr: each says in one line what failed and leaves
// the decision to the caller.
#include "util.h"

#include "log.h"
#include "syswrap.h"
#include "util_int.h"

#include <getopt.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

using util_int::errno_keeper;

// Goes on in a child; the parent leaves.
int move_to_child(const char* caller)
{
    const pid_t pid = W_fork(caller);
    if (pid > 0) exit(0);
    return pid < 0 ? -1 : 0;
}

int daemon_step_failed(const char* caller, const char* step)
{
    const errno_keeper e;
    tv_log(ll::error, "%s: failed at %s, ERROR(%d): %s\n", caller, step, e.err, strerror(e.err));
    return -1;
}

bool log_is_on_terminal()
{
    FILE* fp = log_fp(&g_log);
    const int fd = fp ? fileno(fp) : -1;
    return fd >= STDIN_FILENO && fd <= STDERR_FILENO;
}

int make_dumpable(const char* caller)
{
    if (prctl(PR_GET_DUMPABLE) != 0) return 0;
    tv_log(ll::info, "%s: process is currently NOT core-dumpable; will enforce\n", caller);
    if (0 == prctl(PR_SET_DUMPABLE, 1)) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: prctl(PR_SET_DUMPABLE, 1) ERROR(%d): %s\n", caller, e.err, strerror(e.err));
    return -1;
}

int change_dir(const char* dir, const char* which)
{
    if (0 == chdir(dir)) return 0;
    const errno_keeper e;
    tv_log(ll::error, "chdir(%s) (%s) ERROR(%d): %s\n", dir, which, e.err, strerror(e.err));
    return -1;
}

const char* effective_home(const char* caller)
{
    const uid_t euid = geteuid();
    errno = 0;
    const struct passwd* pw = getpwuid(euid);
    if (!pw) {
        const errno_keeper e;
        tv_log(ll::error, "getpwuid(%ld) ERROR(%d): %s\n", static_cast<long>(euid), e.err, strerror(e.err));
        return nullptr;
    }
    tv_log(ll::debug, "%s: EUID(%ld) home: %s\n", caller, static_cast<long>(euid), pw->pw_dir);
    return pw->pw_dir;
}

} // namespace

// ---- process --------------------------------------------------------------------------------------------------

int daemonize()
{
    // What stands in the buffer would be written twice: by the parent, and by the daemon into whatever has got
    // descriptor 1 by then.
    (void)fflush(stdout);
    if (move_to_child(__func__) < 0) return -1;
    if (setsid() < 0) return daemon_step_failed(__func__, "setsid");
    if (chdir("/") != 0) return daemon_step_failed(__func__, "chdir");
    umask(0);

    if (log_is_on_terminal()) log_default(&g_log, stderr);
    // By design descriptor 2 stays open: it is where trouble with the log itself is said.
    (void)close(STDIN_FILENO); // one that is closed already is as good
    (void)close(STDOUT_FILENO);

    // Not being the session's leader, the second child can't acquire a terminal any more.
    return move_to_child(__func__);
}

int run_as_user(const char* user)
{
    errno = 0;
    const struct passwd* pw = getpwnam(user);
    if (pw) return run_as_user_id(pw->pw_uid, pw->pw_gid);

    const errno_keeper e;
    if (0 == e.err)
        tv_log(ll::error, "%s: getpwnam: user %s not found\n", __func__, user);
    else
        tv_log(ll::error, "%s: getpwnam(%s): %s\n", __func__, user, strerror(e.err));
    return -1;
}

int run_as_user_id(uid_t uid, gid_t gid)
{
    if (setgid(gid) != 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: setgid(%ld) ERROR(%d): %s\n", __func__, static_cast<long>(gid), e.err, strerror(e.err));
        return -1;
    }
    if (setuid(uid) != 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: setuid(%ld) ERROR(%d): %s\n", __func__, static_cast<long>(uid), e.err, strerror(e.err));
        return -1;
    }
    return 0;
}

int set_unlimited_core(struct rlimit* old)
{
    if (make_dumpable(__func__) < 0) return -1;

    struct rlimit here;
    struct rlimit* lim = old ? old : &here;
    if (getrlimit(RLIMIT_CORE, lim) != 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: getrlimit ERROR(%d): %s\n", __func__, e.err, strerror(e.err));
        return -1;
    }
    if (RLIM_INFINITY == lim->rlim_cur) {
        tv_log(ll::debug, "%s: already set\n", __func__);
        return 0;
    }

    tv_log(ll::debug, "%s: current=%ld/%ld\n", __func__, static_cast<long>(lim->rlim_cur),
           static_cast<long>(lim->rlim_max));
    const struct rlimit unlimited = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) != 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: setrlimit ERROR(%d): %s\n", __func__, e.err, strerror(e.err));
        return -1;
    }
    tv_log(ll::debug, "%s: OK\n", __func__);
    return 0;
}

int goto_runtime_home(const char* saved, const char* home)
{
    if (saved) {
        if (0 == chdir(saved)) return 0;
        if (errno != EACCES) {
            const errno_keeper e;
            tv_log(ll::error, "chdir(%s) (param) ERROR(%d): %s\n", saved, e.err, strerror(e.err));
            return -1;
        }
        // A user who gave up root may no longer be allowed into the directory of the start: no fault of his.
    }

    if (!home) home = effective_home(__func__);
    return home ? change_dir(home, "alt") : -1;
}

int set_nice(int increment)
{
    errno = 0; // -1 is a nice value like any other
    if (-1 == nice(increment) && errno) {
        const errno_keeper e;
        tv_log(ll::error, "nice(%d) ERROR(%d): %s\n", increment, e.err, strerror(e.err));
        return -1;
    }
    tv_log(ll::info, "nice value adjusted by %d.\n", increment);
    return 0;
}

int pin2cpu(int cpunum)
{
    int rc = -1;
    errno = EINVAL;
    if (cpunum >= 0 && cpunum < CPU_SETSIZE) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(static_cast<size_t>(cpunum), &cpus);
        rc = sched_setaffinity(0, sizeof(cpus), &cpus);
    }
    if (0 == rc) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: sched_setaffinity(%d) ERROR(%d): %s\n", __func__, cpunum, e.err, strerror(e.err));
    return -1;
}

size_t get_core_count()
{
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<size_t>(n) : 1;
}

void reset_getopt_state()
{
    optind = 0;
}

// ---- limits ---------------------------------------------------------------------------------------------------

int set_limit(int resource, rlim_t limit)
{
    struct rlimit lim;
    // glibc makes an enumeration of the resource for C++; any number may come in, and the kernel refuses bad ones.
    const auto which = static_cast<__rlimit_resource_t>(resource);
    int rc = getrlimit(which, &lim);
    if (0 == rc) {
        lim.rlim_cur = limit;
        if (lim.rlim_max < limit) lim.rlim_max = limit;
        rc = setrlimit(which, &lim);
    }
    if (0 == rc) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: setrlimit(%d, %lu) ERROR(%d): %s\n", __func__, resource, static_cast<u_long>(limit), e.err,
           strerror(e.err));
    return -1;
}

int set_vmem_limit(size_t limit_bytes)
{
    return set_limit(RLIMIT_AS, limit_bytes);
}

int set_rss_limit(size_t limit_bytes)
{
    return set_limit(RLIMIT_RSS, limit_bytes);
}

int set_mem_limits(size_t vmem_bytes, size_t rss_bytes)
{
    if (vmem_bytes && set_vmem_limit(vmem_bytes) < 0) return -1;
    return rss_bytes ? set_rss_limit(rss_bytes) : 0;
}
