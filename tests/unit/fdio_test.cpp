// Signal-proof reads and writes.
#include "fdio.h"

#include "support/interrupts.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/proc_kit.h"
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

constexpr int NO_FILTER = 77;

struct Pipe {
    Pipe()
    {
        int fds[2] = {-1, -1};
        if (pipe(fds) != 0) perror("pipe");
        in = Fd(fds[0]);
        out = Fd(fds[1]);
    }
    // Fills it, so that a write blocks.
    void fill()
    {
        const int flags = fcntl(out.get(), F_GETFL);
        fcntl(out.get(), F_SETFL, flags | O_NONBLOCK);
        const std::string block(4096, 'x');
        while (write(out.get(), block.data(), block.size()) > 0) {
        }
        fcntl(out.get(), F_SETFL, flags);
    }
    Fd in, out;
};

void quit_at_third(int count)
{
    if (count == 3) g_quit = 1;
}

int g_wake_fd = -1;
void feed_at_third(int count)
{
    if (count == 3 && write(g_wake_fd, "late", 4) != 4) abort();
}
void drain_at_third(int count)
{
    char buf[4096];
    if (count == 3 && read(g_wake_fd, buf, sizeof(buf)) != sizeof(buf)) abort();
}

} // namespace

TEST(nread, gives_what_is_there)
{
    Pipe p;
    ASSERT_EQ(write(p.out.get(), "abcdef", 6), 6);
    char buf[16] = {};
    EXPECT_EQ(nread(p.in.get(), buf, 4, 0), 4);
    EXPECT_EQ(std::string(buf), "abcd");
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), 2); // a partial read goes back as it is
    p.out = Fd();
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), 0); // end of data
}

TEST(nread, takes_the_end_of_data_for_no_failure)
{
    // What an earlier call has left in errno is not looked at, and not touched.
    const Fd file(memfd_create("empty", 0));
    char buf[4];
    errno = EINTR;
    EXPECT_EQ(nread(file.get(), buf, sizeof(buf), 0), 0);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(npread(file.get(), buf, sizeof(buf), 0, 0), 0);
    EXPECT_EQ(errno, EINTR);
}

TEST(nread, makes_no_call_for_nothing)
{
    LogCapture log;
    char buf[1];
    errno = 0;
    EXPECT_EQ(nread(-1, buf, 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(nwrite(-1, buf, 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(npread(-1, buf, 0, 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(nread, gives_the_negative_result_of_a_failure)
{
    LogCapture log;
    char buf[4];
    EXPECT_EQ(nread(-1, buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EBADF);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("nread: read(-1, "));
}

TEST(nread, holds_a_harmless_error_against_the_call_only_when_verbose)
{
    Pipe p;
    ASSERT_EQ(fcntl(p.in.get(), F_SETFL, O_NONBLOCK), 0);
    char buf[4];
    LogCapture log;
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.messages(), Lines{});
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), FDIO_VERBOSE), -1);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    // Other bits say nothing here.
    log.clear();
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0xfffffffe), -1);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(nread, waits_out_signals)
{
    Pipe p;
    g_wake_fd = p.out.get();
    char buf[16] = {};
    const Interrupts signals(feed_at_third);
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), 4);
    EXPECT_EQ(std::string(buf), "late");
    EXPECT_EQ(errno, 0);
    EXPECT_GE(signals.count(), 3);
}

TEST(nread, ends_when_the_process_is_told_to_quit)
{
    Pipe p;
    char buf[16];
    const Interrupts signals(quit_at_third);
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, 0);
    g_quit = 0;
}

TEST(nread, still_moves_what_is_there_when_the_process_is_told_to_quit)
{
    // Only an interrupted call asks for the flag.
    Pipe p;
    g_quit = 1;
    char buf[16] = {};
    EXPECT_EQ(nwrite(p.out.get(), "abc", 3, 0), 3);
    EXPECT_EQ(nread(p.in.get(), buf, sizeof(buf), 0), 3);
    EXPECT_EQ(std::string(buf), "abc");
    const Fd file(open("/proc/self/exe", O_RDONLY));
    EXPECT_EQ(npread(file.get(), buf, 4, 0, 0), 4);
    g_quit = 0;
}

TEST(nwrite, writes_once)
{
    Pipe p;
    EXPECT_EQ(nwrite(p.out.get(), "abc", 3, 0), 3);
    EXPECT_EQ(nwrite(p.out.get(), "d", 1, 0), 1);
    char buf[16] = {};
    EXPECT_EQ(read(p.in.get(), buf, sizeof(buf)), 4);
    p.fill();
    ASSERT_EQ(fcntl(p.out.get(), F_SETFL, O_NONBLOCK), 0);
    char block[4096];
    ASSERT_EQ(read(p.in.get(), block, sizeof(block)), static_cast<ssize_t>(sizeof(block)));
    // What does not go out in one call is the caller's to send.
    const std::string more(3 * sizeof(block), 'y');
    EXPECT_EQ(nwrite(p.out.get(), more.data(), more.size(), 0), static_cast<ssize_t>(sizeof(block)));
    LogCapture log;
    EXPECT_EQ(nwrite(p.out.get(), "a", 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(nwrite, logs_a_failure)
{
    LogCapture log;
    EXPECT_EQ(nwrite(-1, "a", 1, FDIO_VERBOSE), -1);
    EXPECT_EQ(errno, EBADF);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("nwrite: write(-1, "));
}

TEST(nwrite, waits_out_signals)
{
    Pipe p;
    p.fill();
    g_wake_fd = p.in.get();
    const Interrupts signals(drain_at_third);
    EXPECT_EQ(nwrite(p.out.get(), "abc", 3, 0), 3);
    EXPECT_GE(signals.count(), 3);
}

TEST(nwrite, ends_when_the_process_is_told_to_quit)
{
    Pipe p;
    p.fill();
    const Interrupts signals(quit_at_third);
    EXPECT_EQ(nwrite(p.out.get(), "abc", 3, 0), -1);
    EXPECT_EQ(errno, 0);
    g_quit = 0;
}

TEST(nwrite, ends_after_one_call_that_writes_nothing)
{
    // A filter that answers a call with error number 0 makes it write nothing.
    const int status = prk::in_child([] {
        const int fd = open("/dev/null", O_WRONLY);
        if (!prk::fail_syscall(SYS_write, 0, prk::arg_is{0, static_cast<unsigned>(fd)})) return NO_FILTER;
        errno = 0;
        return nwrite(fd, "abc", 3, FDIO_VERBOSE) == 0 && errno == 0 ? 0 : 1;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
}

TEST(nwrite, gives_the_interrupted_calls_result_when_the_next_one_writes_nothing)
{
    // The write blocks until the first signal; from then on a filter makes writes to the pipe write nothing.
    const int status = prk::in_child([] {
        static volatile sig_atomic_t filtered = 0;
        Pipe p;
        p.fill();
        g_wake_fd = p.out.get();
        const Interrupts signals([](int count) {
            const prk::arg_is pipe_end = {0, static_cast<unsigned>(g_wake_fd)};
            if (count == 1) filtered = prk::fail_syscall(SYS_write, 0, pipe_end) ? 1 : 0;
            if (count == 3 && !filtered) g_quit = 1; // nothing else would end the write
        });
        const ssize_t n = nwrite(p.out.get(), "abc", 3, 0);
        if (!filtered) return NO_FILTER;
        return n == -1 && errno == 0 ? 0 : 1;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
}

TEST(npread, reads_at_a_position)
{
    char path[] = "/tmp/fdio-test.XXXXXX";
    const Fd fd(mkstemp(path));
    unlink(path);
    ASSERT_EQ(write(fd.get(), "abcdef", 6), 6);
    char buf[16] = {};
    EXPECT_EQ(npread(fd.get(), buf, 3, 2, 0), 3);
    EXPECT_EQ(std::string(buf), "cde");
    EXPECT_EQ(npread(fd.get(), buf, 3, 6, 0), 0);
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 6); // the position is left alone
    LogCapture log;
    EXPECT_EQ(npread(-1, buf, 3, 0, 0), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("npread: pread(-1, "));
}

TEST(npread, holds_a_harmless_error_against_the_call_only_when_verbose)
{
    const int status = prk::in_child([] {
        const int fd = memfd_create("data", 0);
        if (!prk::fail_syscall(SYS_pread64, EAGAIN, prk::arg_is{0, static_cast<unsigned>(fd)})) return NO_FILTER;
        LogCapture log;
        char buf[4];
        if (npread(fd, buf, sizeof(buf), 0, 0) != -1 || errno != EAGAIN) return 1;
        if (npread(fd, buf, sizeof(buf), 0, 0xfffffffe) != -1 || !log.messages().empty()) return 2;
        if (npread(fd, buf, sizeof(buf), 0, FDIO_VERBOSE) != -1) return 3;
        const Lines errors = log.messages(ll::error);
        return errors.size() == 1 && errors[0].starts_with("npread: pread(") ? 0 : 4;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
}
