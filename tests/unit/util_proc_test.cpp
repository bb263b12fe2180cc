// The process as a whole: daemon, users, core dumps, working directory, CPUs, limits. What changes the process is
// done in children.
#include "util.h"

#include "log.h"
#include "support/proc_kit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>

using prk::in_child;
using prk::piped_log;
using prk::temp_dir;

namespace
{

constexpr int NO_FILTER = 99;

#define SKIP_UNLESS_ROOT()                                                                                             \
    if (geteuid() != 0) GTEST_SKIP() << "only root may become another user"

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

std::string cwd()
{
    char buf[4096] = "";
    return getcwd(buf, sizeof(buf)) ? buf : "?";
}

// What a daemon finds about itself, as words and numbers.
std::string daemon_report(pid_t starter, int rc)
{
    std::ostringstream s;
    s << "rc=" << rc << " cwd=" << cwd() << " umask=" << umask(0);
    s << " open=" << is_open(0) << is_open(1) << is_open(2);
    s << " own_session=" << (getsid(0) != getsid(starter)) << " leader=" << (getsid(0) == getpid());
    s << " same_process=" << (getpid() == starter);
    s << " log=" << (log_fp(&g_log) == stderr ? "stderr" : "file");
    return s.str();
}

// Makes a daemon in a child, after `before` has run there.
std::string make_daemon(const std::function<bool()>& before, int* exit_status)
{
    return prk::text_from_descendant(
        [&] {
            const pid_t starter = getpid();
            umask(027);
            if (!before()) return std::string("no filter");
            const int rc = daemonize();
            return daemon_report(starter, rc);
        },
        exit_status);
}

bool no_fork()
{
    return prk::fail_syscall(SYS_clone, EAGAIN) && prk::fail_syscall(SYS_clone3, EAGAIN);
}

void forbid_fork()
{
    (void)!no_fork();
}

} // namespace

// ---- daemon ---------------------------------------------------------------------------------------------------

TEST(daemon, a_daemon_has_left_terminal_directory_and_standard_streams)
{
    piped_log log;
    int status = -1;
    EXPECT_EQ("rc=0 cwd=/ umask=0 open=001 own_session=1 leader=0 same_process=0 log=file",
              make_daemon([] { return true; }, &status));
    EXPECT_EQ(0, status); // the parent leaves as if all were done
    EXPECT_EQ("", log.text());
}

TEST(daemon, a_log_on_a_standard_stream_goes_on_at_stderr)
{
    piped_log log;
    int status = -1;
    const std::string report = make_daemon(
        [] {
            log_default(&g_log, stdout);
            return true;
        },
        &status);
    EXPECT_NE(std::string::npos, report.find("log=stderr")) << report;
    EXPECT_EQ(0, status);
}

TEST(daemon, a_log_on_another_stream_of_descriptor_2_goes_on_at_stderr)
{
    piped_log log;
    int status = -1;
    const std::string report = make_daemon(
        [] {
            log_default(&g_log, fdopen(STDERR_FILENO, "w"));
            return true;
        },
        &status);
    EXPECT_NE(std::string::npos, report.find("log=stderr")) << report;
    EXPECT_EQ(0, status);
}

TEST(daemon, buffered_output_goes_out_once_and_never_into_a_later_file)
{
    piped_log log;
    const temp_dir dir;
    const std::string out = dir.path("out"), later = dir.path("later");
    int status = -1;
    const std::string report = prk::text_from_descendant(
        [&] {
            if (!freopen(out.c_str(), "w", stdout)) return std::string("no output");
            printf("said before\n"); // stays in the buffer of a file
            if (daemonize() != 0) return std::string("no daemon");
            const int fds[] = {open("/dev/null", O_RDONLY), open(later.c_str(), O_WRONLY | O_CREAT, 0600)};
            fflush(stdout);
            return std::to_string(fds[0]) + std::to_string(fds[1]);
        },
        &status);
    EXPECT_EQ("01", report);
    EXPECT_EQ("said before\n", prk::content_of(out));
    EXPECT_EQ("", prk::content_of(later));
}

TEST(daemon, a_process_that_cannot_fork_stays_what_it_is)
{
    piped_log log;
    int status = -1;
    const std::string report = make_daemon(no_fork, &status);
    if ("no filter" == report) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ("rc=-1 cwd=" + cwd() + " umask=23 open=111 own_session=0 leader=0 same_process=1 log=file", report);
    EXPECT_EQ("(ERR)  daemonize: fork() ERROR(11): Resource temporarily unavailable\n", log.text());
}

TEST(daemon, a_session_that_cannot_be_had_is_told)
{
    piped_log log;
    int status = -1;
    const std::string report = make_daemon([] { return prk::fail_syscall(SYS_setsid, EPERM); }, &status);
    if ("no filter" == report) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ("rc=-1 cwd=" + cwd() + " umask=23 open=111 own_session=0 leader=0 same_process=0 log=file", report);
    EXPECT_EQ(0, status);
    EXPECT_EQ("(ERR)  daemonize: failed at setsid, ERROR(1): Operation not permitted\n", log.text());
}

TEST(daemon, a_root_directory_that_cannot_be_entered_is_told)
{
    piped_log log;
    int status = -1;
    const std::string report = make_daemon([] { return prk::fail_syscall(SYS_chdir, EACCES); }, &status);
    if ("no filter" == report) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ("rc=-1 cwd=" + cwd() + " umask=23 open=111 own_session=1 leader=1 same_process=0 log=file", report);
    EXPECT_EQ(0, status);
    EXPECT_EQ("(ERR)  daemonize: failed at chdir, ERROR(13): Permission denied\n", log.text());
}

TEST(daemon, a_second_fork_that_fails_is_a_failure)
{
    piped_log log;
    int status = -1;
    // The first child loses the right to fork as soon as it is there.
    const std::string report = make_daemon([] { return 0 == pthread_atfork(nullptr, nullptr, forbid_fork); }, &status);
    if (report.find("rc=0") == 0) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ("rc=-1 cwd=/ umask=0 open=001 own_session=1 leader=1 same_process=0 log=file", report);
    EXPECT_EQ("(ERR)  daemonize: fork() ERROR(11): Resource temporarily unavailable\n", log.text());
}

// ---- users ----------------------------------------------------------------------------------------------------

TEST(users, an_unknown_user_is_told)
{
    piped_log log;
    errno = EIO; // of something before
    EXPECT_EQ(-1, run_as_user("no-such-user-here"));
    EXPECT_EQ("(ERR)  run_as_user: getpwnam: user no-such-user-here not found\n", log.text());
}

TEST(users, users_that_cannot_be_looked_up_are_told)
{
    piped_log log;
    const int rc = in_child([] {
        const rlimit none = {0, 0};
        return 0 == setrlimit(RLIMIT_NOFILE, &none) && -1 == run_as_user("somebody") && EMFILE == errno ? 0 : 1;
    });
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  run_as_user: getpwnam(somebody): Too many open files\n", log.text());
}

TEST(users, root_becomes_another_user)
{
    SKIP_UNLESS_ROOT();
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    EXPECT_EQ(0, in_child([&] {
                  if (run_as_user(user->name.c_str()) != 0) return 1;
                  uid_t r, e, s;
                  gid_t rg, eg, sg;
                  if (getresuid(&r, &e, &s) != 0 || getresgid(&rg, &eg, &sg) != 0) return 2;
                  if (r != user->uid || e != user->uid || s != user->uid) return 3;
                  return rg == user->gid && eg == user->gid && sg == user->gid ? 0 : 4;
              }));
    EXPECT_EQ("", log.text());
}

TEST(users, another_user_cannot_become_root)
{
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    EXPECT_EQ(0, in_child([&] {
                  if (0 == geteuid() && run_as_user_id(user->uid, user->gid) != 0) return 1;
                  if (run_as_user("root") != -1 || errno != EPERM) return 2;
                  return -1 == run_as_user_id(0, getgid()) && EPERM == errno && geteuid() != 0 ? 0 : 3;
              }));
    EXPECT_EQ("(ERR)  run_as_user_id: setgid(0) ERROR(1): Operation not permitted\n"
              "(ERR)  run_as_user_id: setuid(0) ERROR(1): Operation not permitted\n",
              log.text());
}

// ---- working directory ----------------------------------------------------------------------------------------

TEST(runtime_home, the_saved_directory_comes_first)
{
    piped_log log;
    const temp_dir dir, other;
    EXPECT_EQ(0, in_child([&] {
                  return 0 == goto_runtime_home(dir.path().c_str(), other.path().c_str()) && cwd() == dir.path() ? 0
                                                                                                                 : 1;
              }));
    EXPECT_EQ("", log.text());
}

TEST(runtime_home, a_saved_directory_that_is_gone_is_a_failure)
{
    piped_log log;
    const temp_dir dir, other;
    EXPECT_EQ(0, in_child([&] {
                  const std::string before = cwd();
                  return -1 == goto_runtime_home(dir.path("gone").c_str(), other.path().c_str()) && ENOENT == errno &&
                                 cwd() == before
                             ? 0
                             : 1;
              }));
    EXPECT_EQ("(ERR)  chdir(" + dir.path("gone") + ") (param) ERROR(2): No such file or directory\n", log.text());
}

TEST(runtime_home, without_a_saved_directory_the_given_home_is_taken)
{
    piped_log log;
    const temp_dir home;
    EXPECT_EQ(0, in_child([&] {
                  return 0 == goto_runtime_home(nullptr, home.path().c_str()) && cwd() == home.path() ? 0 : 1;
              }));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(0, in_child([&] { return -1 == goto_runtime_home(nullptr, home.path("gone").c_str()) ? 0 : 1; }));
    EXPECT_EQ("(ERR)  chdir(" + home.path("gone") + ") (alt) ERROR(2): No such file or directory\n", log.text());
}

TEST(runtime_home, a_user_who_may_not_enter_the_saved_directory_lands_at_home)
{
    SKIP_UNLESS_ROOT();
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    const temp_dir dir;
    const std::string closed = dir.path("closed");
    ASSERT_EQ(0, mkdir(closed.c_str(), 0700));
    const std::string home = std::filesystem::canonical(user->home);
    EXPECT_EQ(0, in_child([&] {
                  if (chdir(closed.c_str()) != 0 || run_as_user(user->name.c_str()) != 0) return 1;
                  if (goto_runtime_home(closed.c_str(), nullptr) != 0) return 2;
                  return cwd() == home ? 0 : 3;
              }));
    EXPECT_EQ("(DBG)  goto_runtime_home: EUID(" + std::to_string(user->uid) + ") home: " + user->home + "\n",
              log.text());
}

TEST(runtime_home, a_user_who_may_not_enter_the_saved_directory_goes_to_a_given_home)
{
    SKIP_UNLESS_ROOT();
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    const temp_dir dir, home;
    const std::string closed = dir.path("closed");
    ASSERT_EQ(0, mkdir(closed.c_str(), 0700));
    EXPECT_EQ(0, in_child([&] {
                  if (run_as_user_id(user->uid, user->gid) != 0) return 1;
                  return 0 == goto_runtime_home(closed.c_str(), home.path().c_str()) && cwd() == home.path() ? 0 : 2;
              }));
    EXPECT_EQ("", log.text());
}

TEST(runtime_home, an_effective_user_without_an_entry_has_no_home)
{
    SKIP_UNLESS_ROOT();
    constexpr uid_t nobody_knows = 2123456789;
    piped_log log;
    EXPECT_EQ(0, in_child([&] {
                  if (setuid(nobody_knows) != 0) return 1;
                  errno = EIO; // of something before
                  return -1 == goto_runtime_home(nullptr, nullptr) ? 0 : 2;
              }));
    EXPECT_EQ("(ERR)  getpwuid(2123456789) ERROR(0): Success\n", log.text());
}

// ---- core dumps -----------------------------------------------------------------------------------------------

TEST(core, both_limits_become_unlimited)
{
    piped_log log;
    const int rc = in_child([] {
        const rlimit some = {4096, RLIM_INFINITY};
        if (setrlimit(RLIMIT_CORE, &some) != 0) return NO_FILTER;
        rlimit old = {}, now = {};
        if (set_unlimited_core(&old) != 0 || getrlimit(RLIMIT_CORE, &now) != 0) return 1;
        if (old.rlim_cur != 4096 || old.rlim_max != RLIM_INFINITY) return 2;
        return RLIM_INFINITY == now.rlim_cur && RLIM_INFINITY == now.rlim_max ? 0 : 3;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "core limits are capped here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(DBG)  set_unlimited_core: current=4096/-1\n(DBG)  set_unlimited_core: OK\n", log.text());
}

TEST(core, a_limit_that_is_gone_already_is_left_alone)
{
    piped_log log;
    const int rc = in_child([] {
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        if (setrlimit(RLIMIT_CORE, &none) != 0) return NO_FILTER;
        return set_unlimited_core(nullptr);
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "core limits are capped here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(DBG)  set_unlimited_core: already set\n", log.text());
}

TEST(core, a_process_that_is_not_dumpable_becomes_so)
{
    piped_log log;
    EXPECT_EQ(0, in_child([] {
                  if (prctl(PR_SET_DUMPABLE, 0) != 0) return 1;
                  (void)set_unlimited_core(nullptr);
                  return 1 == prctl(PR_GET_DUMPABLE) ? 0 : 2;
              }));
    EXPECT_EQ(0u, log.text().find(
                      "(INF)  set_unlimited_core: process is currently NOT core-dumpable; will enforce\n(DBG)  "));
}

TEST(core, a_process_that_cannot_be_made_dumpable_is_told)
{
    piped_log log;
    const int rc = in_child([] {
        if (prctl(PR_SET_DUMPABLE, 0) != 0) return 1;
        if (!prk::fail_syscall(SYS_prctl, EINVAL, prk::arg_is{0, PR_SET_DUMPABLE})) return NO_FILTER;
        return -1 == set_unlimited_core(nullptr) ? 0 : 2;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(INF)  set_unlimited_core: process is currently NOT core-dumpable; will enforce\n"
              "(ERR)  set_unlimited_core: prctl(PR_SET_DUMPABLE, 1) ERROR(22): Invalid argument\n",
              log.text());
}

TEST(core, limits_that_cannot_be_read_are_told)
{
    piped_log log;
    const int rc = in_child([] {
        if (!prk::fail_syscall(SYS_prlimit64, EPERM, prk::arg_is{1, RLIMIT_CORE})) return NO_FILTER;
        return set_unlimited_core(nullptr) != 0 ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  set_unlimited_core: getrlimit ERROR(1): Operation not permitted\n", log.text());
}

TEST(core, limits_that_cannot_be_lifted_are_told)
{
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    EXPECT_EQ(0, in_child([&] {
                  const rlimit some = {0, 4096};
                  if (setrlimit(RLIMIT_CORE, &some) != 0) return 1;
                  if (0 == geteuid() && run_as_user_id(user->uid, user->gid) != 0) return 2;
                  if (prctl(PR_SET_DUMPABLE, 1) != 0) return 3; // a change of user takes it away
                  return set_unlimited_core(nullptr) != 0 && EPERM == errno ? 0 : 4;
              }));
    EXPECT_EQ("(DBG)  set_unlimited_core: current=0/4096\n"
              "(ERR)  set_unlimited_core: setrlimit ERROR(1): Operation not permitted\n",
              log.text());
}

// ---- CPUs and limits ------------------------------------------------------------------------------------------

TEST(process, the_nice_value_is_adjusted)
{
    piped_log log;
    EXPECT_EQ(0, in_child([] {
                  errno = 0;
                  const int before = getpriority(PRIO_PROCESS, 0);
                  if (set_nice(2) != 0) return 1;
                  return std::min(before + 2, 19) == getpriority(PRIO_PROCESS, 0) ? 0 : 2;
              }));
    EXPECT_EQ("(INF)  nice value adjusted by 2.\n", log.text());
}

TEST(process, a_nice_value_that_cannot_be_had_is_told)
{
    piped_log log;
    const int rc = in_child([] {
        if (!prk::fail_syscall(SYS_setpriority, EACCES)) return NO_FILTER;
        return -1 == set_nice(-5) ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    // nice() itself turns the kernel's answer into this one.
    EXPECT_EQ("(ERR)  nice(-5) ERROR(1): Operation not permitted\n", log.text());
}

TEST(process, a_process_is_pinned_to_one_cpu)
{
    piped_log log;
    EXPECT_EQ(0, in_child([] {
                  cpu_set_t allowed;
                  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return 1;
                  int last = -1;
                  for (int i = 0; i < CPU_SETSIZE; ++i)
                      if (CPU_ISSET(i, &allowed)) last = i;
                  if (pin2cpu(last) != 0 || sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return 2;
                  return 1 == CPU_COUNT(&allowed) && CPU_ISSET(last, &allowed) ? 0 : 3;
              }));
    EXPECT_EQ("", log.text());
}

TEST(process, a_cpu_that_does_not_exist_is_told)
{
    piped_log log;
    for (const int cpu : {-1, int{CPU_SETSIZE}}) {
        EXPECT_EQ(-1, pin2cpu(cpu));
        EXPECT_EQ("(ERR)  pin2cpu: sched_setaffinity(" + std::to_string(cpu) + ") ERROR(22): Invalid argument\n",
                  log.text());
    }
}

TEST(process, the_number_of_cores_is_that_of_the_system)
{
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), static_cast<long>(get_core_count()));
}

TEST(limits, a_soft_limit_is_set_and_the_hard_one_left_alone)
{
    piped_log log;
    EXPECT_EQ(0, in_child([] {
                  rlimit before = {}, now = {};
                  if (getrlimit(RLIMIT_NOFILE, &before) != 0 || set_limit(RLIMIT_NOFILE, 10) != 0) return 1;
                  if (getrlimit(RLIMIT_NOFILE, &now) != 0) return 2;
                  return 10 == now.rlim_cur && before.rlim_max == now.rlim_max ? 0 : 3;
              }));
    EXPECT_EQ("", log.text());
}

TEST(limits, a_limit_above_the_hard_one_takes_privileges)
{
    const auto user = prk::user_with_open_home();
    if (!user) GTEST_SKIP() << "no unprivileged user on this machine";
    piped_log log;
    EXPECT_EQ(0, in_child([&] {
                  const rlimit low = {16, 16};
                  rlimit now = {};
                  if (0 == geteuid() && run_as_user_id(user->uid, user->gid) != 0) return 1;
                  if (setrlimit(RLIMIT_CORE, &low) != 0 || set_limit(RLIMIT_CORE, 17) != -1) return 2;
                  if (getrlimit(RLIMIT_CORE, &now) != 0) return 3;
                  return 16 == now.rlim_cur && 16 == now.rlim_max && 0 == set_limit(RLIMIT_CORE, 15) ? 0 : 4;
              }));
    EXPECT_EQ("(ERR)  set_limit: setrlimit(4, 17) ERROR(1): Operation not permitted\n", log.text());
}

TEST(limits, an_unknown_resource_is_told)
{
    piped_log log;
    EXPECT_EQ(-1, set_limit(1000, 5));
    EXPECT_EQ("(ERR)  set_limit: setrlimit(1000, 5) ERROR(22): Invalid argument\n", log.text());
}

TEST(limits, memory_limits_are_set_for_address_space_and_resident_set)
{
    constexpr size_t MB = 1u << 20;
    piped_log log;
    EXPECT_EQ(0, in_child([] {
                  // A hundred terabytes: a limit, and still one that any sanitizer can live with.
                  constexpr size_t vmem = size_t{100} << 40;
                  rlimit as = {}, rss = {};
                  if (set_mem_limits(vmem, 50 * MB) != 0) return 1;
                  if (getrlimit(RLIMIT_AS, &as) != 0 || getrlimit(RLIMIT_RSS, &rss) != 0) return 2;
                  if (as.rlim_cur != vmem || rss.rlim_cur != 50 * MB) return 3;
                  if (set_mem_limits(0, 60 * MB) != 0 || set_mem_limits(0, 0) != 0) return 4;
                  if (getrlimit(RLIMIT_AS, &as) != 0 || getrlimit(RLIMIT_RSS, &rss) != 0) return 5;
                  return as.rlim_cur == vmem && rss.rlim_cur == 60 * MB ? 0 : 6;
              }));
    EXPECT_EQ("", log.text());
}

TEST(limits, memory_limits_stop_at_the_first_that_fails)
{
    piped_log log;
    const int rc = in_child([] {
        if (!prk::fail_syscall(SYS_prlimit64, EPERM, prk::arg_is{1, RLIMIT_AS})) return NO_FILTER;
        rlimit before = {}, now = {};
        if (getrlimit(RLIMIT_RSS, &before) != 0 || set_mem_limits(1u << 30, 12345) != -1) return 1;
        return 0 == getrlimit(RLIMIT_RSS, &now) && before.rlim_cur == now.rlim_cur ? 0 : 2;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  set_limit: setrlimit(9, 1073741824) ERROR(1): Operation not permitted\n", log.text());
}
