#include "util.h"

#include "log.h"
#include "support/proc_kit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

using prk::content_of;
using prk::in_child;
using prk::piped_log;
using prk::temp_dir;

namespace
{

constexpr int NO_FILTER = 99;

std::string failure_line(const std::string& path, long pid)
{
    return "(ERR)  create_pidfile_extra: failed to create pidfile [" + path + "] with pid=" + std::to_string(pid) +
           ".\n";
}

// The lines that the checked calls and the pid file write, without what a successful close says.
std::string lines_of(piped_log& log)
{
    std::string kept;
    const std::string all = log.text();
    for (size_t at = 0; at < all.size();) {
        const size_t end = all.find('\n', at) + 1;
        const std::string line = all.substr(at, end - at);
        if (line.find("CLOSED(fd") == std::string::npos) kept += line;
        at = end;
    }
    return kept;
}

// The descriptor that the next open will get.
int next_fd()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

} // namespace

TEST(pidfile, a_pid_file_holds_the_number_and_nothing_else)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    EXPECT_EQ(0, create_pidfile_extra(path.c_str(), 4711, nullptr, 0));
    EXPECT_EQ("4711", content_of(path));
    EXPECT_EQ("(INF)  Created pidfile [" + path + "] with pid=4711.\n", lines_of(log));
}

TEST(pidfile, a_pid_file_may_be_read_by_everyone_and_written_by_its_owner)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    const mode_t before = umask(0);
    EXPECT_EQ(0, create_pidfile_extra(path.c_str(), 1, nullptr, 0));
    umask(before);
    struct stat st = {};
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
}

TEST(pidfile, a_longer_number_of_before_leaves_no_digits)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("kvt.pid", "1234567890");
    EXPECT_EQ(0, create_pidfile_extra(path.c_str(), 42, nullptr, 0));
    EXPECT_EQ("42", content_of(path));
}

TEST(pidfile, a_daemon_started_later_takes_the_file_over)
{
    // Whoever restarts a daemon before the old one has gone counts on the new number being there.
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    int ready[2], leave[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(leave));
    const pid_t first = fork();
    ASSERT_GE(first, 0);
    if (0 == first) {
        close(leave[1]);
        const int rc = create_pidfile_extra(path.c_str(), getpid(), nullptr, 0);
        char c = 'x';
        if (write(ready[1], &c, 1) != 1) _exit(2);
        (void)!read(leave[0], &c, 1); // lives on until the parent lets go
        _exit(rc ? 1 : 0);
    }
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    EXPECT_EQ(std::to_string(first), content_of(path));
    EXPECT_EQ(0, in_child([&] { return create_pidfile_extra(path.c_str(), 77, nullptr, 0) ? 1 : 0; }));
    EXPECT_EQ("77", content_of(path));
    close(leave[1]);
    int status = -1;
    ASSERT_EQ(first, waitpid(first, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(std::string::npos, log.text().find("(ERR)"));
    for (const int fd : {ready[0], ready[1], leave[0]})
        close(fd);
}

TEST(pidfile, a_file_that_is_being_written_is_refused)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("kvt.pid", "11");
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, write_lock(fd)); // ours; a child doesn't inherit it
    EXPECT_EQ(0, in_child([&] {
                  const int rc = create_pidfile_extra(path.c_str(), 22, nullptr, 0);
                  return -1 == rc && (EAGAIN == errno || EACCES == errno) ? 0 : 1;
              }));
    EXPECT_EQ("(ERR)  create_pidfile_extra: file [" + path +
                  "] is locked (another instance of daemon must be running)\n" + failure_line(path, 22),
              lines_of(log));
    EXPECT_EQ(0, in_child([&] { return -1 == create_pidfile_extra(path.c_str(), 22, nullptr, 1) ? 0 : 1; }));
    EXPECT_EQ("(ERR)  Another instance is already running\n", lines_of(log));
    // Not truncated before the lock is held. To look ends the lock, as any close of the file in this process does.
    EXPECT_EQ("11", content_of(path));
    close(fd);
}

TEST(pidfile, the_terse_form_says_nothing_of_success)
{
    piped_log log;
    const temp_dir dir;
    EXPECT_EQ(0, create_pidfile_extra(dir.path("kvt.pid").c_str(), 5, nullptr, 1));
    EXPECT_EQ("5", content_of(dir.path("kvt.pid")));
    EXPECT_EQ("", lines_of(log));
}

TEST(pidfile, other_bits_of_the_flags_change_nothing)
{
    piped_log log;
    const temp_dir dir;
    EXPECT_EQ(0, create_pidfile_extra(dir.path("kvt.pid").c_str(), 5, nullptr, 0xFFFFFFFE));
    EXPECT_EQ("(INF)  Created pidfile [" + dir.path("kvt.pid") + "] with pid=5.\n", lines_of(log));
}

TEST(pidfile, the_inode_is_stored_if_asked_for)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    ino_t inode = 0;
    EXPECT_EQ(0, create_pidfile_extra(path.c_str(), 5, &inode, 0));
    struct stat st = {};
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(st.st_ino, inode);
}

TEST(pidfile, an_empty_path_is_refused)
{
    piped_log log;
    EXPECT_EQ(-1, create_pidfile_extra("", 5, nullptr, 0));
    EXPECT_EQ("(ERR)  create_pidfile_extra: no path specified\n", log.text());
}

TEST(pidfile, a_path_that_cannot_be_opened_is_refused)
{
    piped_log log;
    const temp_dir dir;
    EXPECT_EQ(-1, create_pidfile_extra(dir.path("none/kvt.pid").c_str(), 5, nullptr, 0));
    EXPECT_EQ(ENOENT, errno);
    // The call's own line tells it all; the closing line belongs to a file that was opened.
    EXPECT_EQ("(ERR)  create_pidfile_extra: open('" + dir.path("none/kvt.pid") + "', " +
                  std::to_string(O_WRONLY | O_CREAT | O_NOCTTY) + ", 0x1a4) ERROR(2): No such file or directory\n",
              log.text());
}

// The two numbers by which a system says that somebody else has the lock.
TEST(pidfile, both_error_numbers_of_a_held_lock_are_told_as_another_instance)
{
    for (const int err : {EACCES, EAGAIN}) {
        piped_log log;
        const temp_dir dir;
        const std::string path = dir.file("kvt.pid", "11");
        const int rc = in_child([&] {
            if (!prk::fail_syscall(SYS_fcntl, err, prk::arg_is{1, F_SETLK})) return NO_FILTER;
            return -1 == create_pidfile_extra(path.c_str(), 22, nullptr, 0) && err == errno ? 0 : 1;
        });
        if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
        EXPECT_EQ(0, rc);
        EXPECT_EQ("(ERR)  create_pidfile_extra: file [" + path +
                      "] is locked (another instance of daemon must be running)\n" + failure_line(path, 22),
                  lines_of(log));
    }
}

TEST(pidfile, a_lock_that_fails_otherwise_is_told)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("kvt.pid", "11");
    const int rc = in_child([&] {
        if (!prk::fail_syscall(SYS_fcntl, ENOLCK, prk::arg_is{1, F_SETLK})) return NO_FILTER;
        return -1 == create_pidfile_extra(path.c_str(), 22, nullptr, 0) && ENOLCK == errno ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  fcntl write-lock ERROR(37): No locks available\n" + failure_line(path, 22), lines_of(log));
    EXPECT_EQ("11", content_of(path));
}

TEST(pidfile, a_file_that_cannot_be_truncated_is_refused)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("kvt.pid", "11");
    const int rc = in_child([&] {
        if (!prk::fail_syscall(SYS_ftruncate, EIO)) return NO_FILTER;
        return create_pidfile_extra(path.c_str(), 22, nullptr, 0) < 0 ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    const std::string lines = lines_of(log);
    EXPECT_EQ(0u, lines.find("(ERR)  create_pidfile_extra: ftruncate(")) << lines;
    EXPECT_NE(std::string::npos, lines.find("\n" + failure_line(path, 22))) << lines;
    EXPECT_EQ("11", content_of(path));
}

TEST(pidfile, a_number_that_cannot_be_written_is_refused)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    const int rc = in_child([&] {
        const auto fd = static_cast<unsigned>(next_fd());
        if (!prk::fail_syscall(SYS_write, ENOSPC, prk::arg_is{0, fd})) return NO_FILTER;
        return -1 == create_pidfile_extra(path.c_str(), 22, nullptr, 0) && ENOSPC == errno ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    const std::string lines = lines_of(log);
    EXPECT_NE(std::string::npos, lines.find("(ERR)  create_pidfile_extra: write(")) << lines;
    EXPECT_NE(std::string::npos, lines.find("\n" + failure_line(path, 22))) << lines;
}

TEST(pidfile, an_interrupted_write_is_told_like_any_other_error)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    const int rc = in_child([&] {
        const auto fd = static_cast<unsigned>(next_fd());
        if (!prk::fail_syscall(SYS_write, EINTR, prk::arg_is{0, fd})) return NO_FILTER;
        return -1 == create_pidfile_extra(path.c_str(), 22, nullptr, 0) ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_NE(std::string::npos, log.text().find("(ERR)  create_pidfile_extra: write("));
}

TEST(pidfile, a_number_that_is_written_in_part_is_refused)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    EXPECT_EQ(0, in_child([&] {
                  const rlimit three_bytes = {3, 3};
                  if (setrlimit(RLIMIT_FSIZE, &three_bytes) != 0) return 2;
                  return -1 == create_pidfile_extra(path.c_str(), 22222, nullptr, 0) ? 0 : 1;
              }));
    EXPECT_EQ("222", content_of(path));
    EXPECT_EQ(failure_line(path, 22222), lines_of(log));
}

TEST(pidfile, an_inode_that_cannot_be_had_is_told)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("kvt.pid");
    const int fd = next_fd();
    const int rc = in_child([&] {
        ino_t inode = 3;
        const prk::arg_is that_file{0, static_cast<unsigned>(fd)};
        if (!prk::fail_syscall(SYS_fstat, EIO, that_file) || !prk::fail_syscall(SYS_newfstatat, EIO, that_file))
            return NO_FILTER;
        return -1 == create_pidfile_extra(path.c_str(), 22, &inode, 0) && 3 == inode ? 0 : 1;
    });
    if (NO_FILTER == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  create_pidfile_extra: fstat(fd" + std::to_string(fd) + ",..) ERROR(5): Input/output error\n" +
                  failure_line(path, 22),
              lines_of(log));
}

TEST(pidfile, the_descriptor_is_closed_whatever_happens)
{
    piped_log log;
    const temp_dir dir;
    const int before = next_fd();
    EXPECT_EQ(0, create_pidfile_extra(dir.path("kvt.pid").c_str(), 5, nullptr, 0));
    EXPECT_EQ(before, next_fd());
    EXPECT_NE(0, create_pidfile_extra("/dev/full", 5, nullptr, 0)); // can't be truncated
    EXPECT_EQ(before, next_fd());
}

TEST(pidfile_death, a_null_path_is_a_logged_assertion)
{
    log_default(&g_log, stderr);
    EXPECT_DEATH((void)create_pidfile_extra(nullptr, 1, nullptr, 0),
                 "ASSERT at:\n#0: .*==\n.*Assertion `fpath && pid > 0' failed");
}

TEST(pidfile_death, a_pid_below_1_is_a_logged_assertion)
{
    log_default(&g_log, stderr);
    EXPECT_DEATH((void)create_pidfile_extra("/tmp/none", 0, nullptr, 0), "ASSERT at:\n#0: .*Assertion `");
    EXPECT_DEATH((void)create_pidfile_extra("/tmp/none", -1, nullptr, 0), "ASSERT at:\n#0: .*Assertion `");
}

TEST(pidfile, a_write_lock_covers_the_whole_file)
{
    const temp_dir dir;
    const std::string path = dir.file("lock", "abc");
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_NE(-1, write_lock(fd));
    EXPECT_NE(-1, write_lock(fd)); // one's own lock is no obstacle
    EXPECT_EQ(0, in_child([&] {
                  const int other = open(path.c_str(), O_RDWR);
                  struct flock far = {};
                  far.l_type = F_WRLCK;
                  far.l_whence = SEEK_SET;
                  far.l_start = 1 << 20;
                  far.l_len = 1;
                  return -1 == write_lock(other) && -1 == fcntl(other, F_SETLK, &far) ? 0 : 1;
              }));
    close(fd);
    EXPECT_EQ(-1, write_lock(fd));
    EXPECT_EQ(EBADF, errno);
}

TEST(pidfile, the_name_of_a_pid_file_may_carry_an_instance)
{
    piped_log log;
    char buf[20];
    EXPECT_EQ(0, mk_pidfile_name("/var/run", "kvt", 0, buf, sizeof(buf)));
    EXPECT_STREQ("/var/run/kvt.pid", buf);
    EXPECT_EQ(0, mk_pidfile_name("/var/run", "kvt", 12, buf, sizeof(buf)));
    EXPECT_STREQ("/var/run/kvt-12.pid", buf); // 19 characters, and the zero
    EXPECT_EQ(-1, mk_pidfile_name("/var/run", "kvt", 123, buf, sizeof(buf)));
    EXPECT_STREQ("", buf);
    EXPECT_EQ("(ERR)  mk_pidfile_name: name needs 21 bytes, only 20 provided\n", log.text());
}
