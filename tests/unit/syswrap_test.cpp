// Checked system calls: the line of each member, errno, and the members that keep quiet.
#include "syswrap.h"

#include "log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// A request for more memory than there is comes back null under the sanitizer too.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

// ---- what the code under test asks of the system, in the test's hands -----------------------------------------

namespace
{

bool g_fail_fork = false;

} // namespace

extern "C" pid_t fork() noexcept
{
    if (g_fail_fork) {
        errno = EAGAIN;
        return -1;
    }
    static const auto real = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
    return real();
}

namespace
{

using lines_t = std::vector<std::string>;

constexpr const char* ME = "caller";
constexpr int BAD_FD = 1000000;
const std::string EBADF_END = " ERROR(9): Bad file descriptor";

std::string text(const void* p)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%p", p);
    return buf;
}

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

const sockaddr* as_sockaddr(const sockaddr_in* sa)
{
    return reinterpret_cast<const sockaddr*>(sa);
}

// A listening TCP socket on a free port.
struct Listener {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    Listener()
    {
        socklen_t len = sizeof(addr);
        EXPECT_EQ(bind(fd, as_sockaddr(&addr), sizeof(addr)), 0);
        EXPECT_EQ(listen(fd, 4), 0);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    }
    ~Listener() { close(fd); }
};

// A pair of connected stream sockets.
struct Pair {
    int fd[2] = {-1, -1};
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
    ~Pair()
    {
        close(fd[0]);
        if (fd[1] >= 0) close(fd[1]);
    }
};

void on_alarm(int) {}

// A signal arrives every few milliseconds for the life of the object, and interrupts what waits.
struct Interruptions {
    struct sigaction old = {};
    Interruptions()
    {
        struct sigaction sa = {};
        sa.sa_handler = on_alarm; // without restart
        sigaction(SIGALRM, &sa, &old);
        const itimerval every = {{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    ~Interruptions()
    {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &old, nullptr);
    }
};

class SyswrapTest : public testing::Test
{
protected:
    // Expects that the log holds this one line at error, and that errno is the call's.
    void expect_error(const std::string& line, int err)
    {
        EXPECT_EQ(errno, err);
        EXPECT_EQ(log.messages(), (lines_t{line}));
        EXPECT_EQ(log.messages(ll::error), (lines_t{line}));
        log.clear();
    }
    void expect_silence() { EXPECT_EQ(log.text(), ""); }
    void TearDown() override { g_fail_fork = false; }

    LogCapture log{&g_log, ll::normal};
};

// ---- judging an error number ----------------------------------------------------------------------------------

TEST_F(SyswrapTest, four_errors_are_no_fault_unless_the_caller_holds_them_against_the_call)
{
    for (const int err : {EAGAIN, EWOULDBLOCK, EPIPE, EINTR, ECONNRESET}) {
        EXPECT_NE(no_fault(err, 0), 0) << err;
        EXPECT_EQ(no_fault(err, 1), 0) << err;
        EXPECT_EQ(no_fault(err, 0x80), 0) << err;
    }
    for (const int err : {0, EBADF, EIO, EINVAL, ECONNABORTED, ENOSPC, EINPROGRESS, ETIMEDOUT}) {
        EXPECT_EQ(no_fault(err, 0), 0) << err;
        EXPECT_EQ(no_fault(err, 1), 0) << err;
    }
}

TEST_F(SyswrapTest, error_kinds_are_told_apart)
{
    EXPECT_TRUE(is_eagain(EAGAIN));
    EXPECT_TRUE(is_eagain(EWOULDBLOCK));
    EXPECT_FALSE(is_eagain(EINTR));
    EXPECT_FALSE(is_eagain(0));
    EXPECT_TRUE(is_connreset(ECONNRESET));
    EXPECT_TRUE(is_connreset(ECONNABORTED));
    EXPECT_FALSE(is_connreset(EPIPE));
    EXPECT_FALSE(is_connreset(0));
}

// ---- descriptors and files ------------------------------------------------------------------------------------

TEST_F(SyswrapTest, close_logs_its_failure_and_keeps_errno)
{
    EXPECT_EQ(W_close(ME, -1), -1);
    expect_error("caller: close(fd-1)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, close_logs_its_success_at_debug_alone)
{
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(W_close(ME, fd), 0);
    expect_silence();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    g_mod_ll[LOG_MOD_SYSWRAP] = ll::debug;
    const int again = open("/dev/null", O_RDONLY);
    ASSERT_GE(again, 0);
    errno = 0;
    EXPECT_EQ(W_close(ME, again), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(ll::debug), (lines_t{"caller: CLOSED(fd" + std::to_string(again) + ")"}));
}

TEST_F(SyswrapTest, open_names_path_flags_and_mode)
{
    EXPECT_EQ(W_open(ME, "/no/such/file", O_RDWR, 0640), -1);
    expect_error("caller: open('/no/such/file', 2, 0x1a0) ERROR(2): No such file or directory", ENOENT);
}

TEST_F(SyswrapTest, open_gives_a_file_with_the_mode_asked_for)
{
    const TempDir dir;
    const int fd = W_open(ME, (dir / "f").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(W_unlink(ME, (dir / "f").c_str()), 0);
    EXPECT_EQ(W_close(ME, fd), 0);
    expect_silence();
}

TEST_F(SyswrapTest, lseek_names_offset_and_whence)
{
    Pair p;
    EXPECT_EQ(W_lseek(ME, p.fd[0], -5, SEEK_CUR), -1);
    expect_error("caller: lseek(" + std::to_string(p.fd[0]) + ", -5, 1) ERROR(29): Illegal seek", ESPIPE);
}

TEST_F(SyswrapTest, unlink_names_the_path)
{
    EXPECT_EQ(W_unlink(ME, "/no/such/file"), -1);
    expect_error("caller: unlink(/no/such/file) ERROR(2): No such file or directory", ENOENT);
}

TEST_F(SyswrapTest, ftruncate_names_the_length)
{
    EXPECT_EQ(W_ftruncate(ME, BAD_FD, 1L << 40), -1);
    expect_error("caller: ftruncate(1000000, 1099511627776)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, dup2_names_both_descriptors)
{
    EXPECT_EQ(W_dup2(ME, -1, 5), -1);
    expect_error("caller: dup2(-1, 5)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, pipe_names_what_it_was_given)
{
    struct rlimit old = {};
    getrlimit(RLIMIT_NOFILE, &old);
    const struct rlimit none = {0, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    int fds[2] = {-1, -2};
    const int rc = W_pipe(ME, fds);
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(rc, -1);
    errno = err;
    expect_error("caller: pipe([-1,-2]) ERROR(24): Too many open files", EMFILE);
    EXPECT_EQ(W_pipe(ME, fds), 0);
    expect_silence();
    EXPECT_EQ(W_close(ME, fds[0]), 0);
    EXPECT_EQ(W_close(ME, fds[1]), 0);
}

// ---- memory ---------------------------------------------------------------------------------------------------

TEST_F(SyswrapTest, calloc_names_number_and_size)
{
    volatile size_t much = SIZE_MAX / 4; // out of the compiler's sight
    EXPECT_EQ(W_calloc(ME, much, 3), nullptr);
    expect_error("caller: calloc(4611686018427387903, 3) ERROR(12): Cannot allocate memory", ENOMEM);
    void* p = W_calloc(ME, 4, 8);
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < 32; ++i)
        EXPECT_EQ(static_cast<char*>(p)[i], 0);
    free(p);
    expect_silence();
}

TEST_F(SyswrapTest, realloc_names_the_old_block_which_stays)
{
    volatile size_t much = SIZE_MAX / 4;
    char* p = static_cast<char*>(W_realloc(ME, nullptr, 8));
    ASSERT_NE(p, nullptr);
    strcpy(p, "content");
    EXPECT_EQ(W_realloc(ME, p, much), nullptr);
    expect_error("caller: realloc(" + text(p) + ", 4611686018427387903) ERROR(12): Cannot allocate memory", ENOMEM);
    EXPECT_STREQ(p, "content");
    p = static_cast<char*>(W_realloc(ME, p, 100000));
    EXPECT_STREQ(p, "content");
    free(p);
    expect_silence();
}

// ---- data -----------------------------------------------------------------------------------------------------

TEST_F(SyswrapTest, faulty_transfers_are_logged_whoever_is_guilty)
{
    char buf[8] = {};
    for (const u_int32_t guilty : {0u, 1u}) {
        EXPECT_EQ(W_write_f(ME, BAD_FD, buf, 8, guilty), -1);
        expect_error("caller: write(1000000, " + text(buf) + ", 8)" + EBADF_END, EBADF);
        EXPECT_EQ(W_read_f(ME, BAD_FD, buf, 8, guilty), -1);
        expect_error("caller: read(1000000, " + text(buf) + ", 8)" + EBADF_END, EBADF);
        EXPECT_EQ(W_pread_f(ME, BAD_FD, buf, 8, 77, guilty), -1);
        expect_error("caller: pread(1000000, " + text(buf) + ", 8, 77)" + EBADF_END, EBADF);
    }
}

TEST_F(SyswrapTest, a_read_that_timed_out_is_logged_only_against_the_guilty)
{
    Pair p;
    const timeval soon = {0, 1000};
    ASSERT_EQ(setsockopt(p.fd[0], SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof(soon)), 0);
    char buf[8];
    EXPECT_EQ(W_read_f(ME, p.fd[0], buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    expect_silence();
    EXPECT_EQ(W_read_f(ME, p.fd[0], buf, sizeof(buf), 1), -1);
    expect_error("caller: read(" + std::to_string(p.fd[0]) + ", " + text(buf) +
                     ", 8) ERROR(11): Resource temporarily unavailable",
                 EAGAIN);
}

TEST_F(SyswrapTest, a_read_that_was_interrupted_comes_back_unlogged_and_is_not_tried_again)
{
    Pair p;
    char buf[8];
    const Interruptions often;
    EXPECT_EQ(W_read_f(ME, p.fd[0], buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EINTR);
    expect_silence();
}

TEST_F(SyswrapTest, a_write_to_a_closed_peer_is_logged_only_against_the_guilty)
{
    auto* const old = signal(SIGPIPE, SIG_IGN);
    Pair p;
    close(p.fd[1]);
    p.fd[1] = -1;
    EXPECT_EQ(W_write_f(ME, p.fd[0], "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    expect_silence();
    const char x[] = "x";
    EXPECT_EQ(W_write_f(ME, p.fd[0], x, 1, 1), -1);
    expect_error("caller: write(" + std::to_string(p.fd[0]) + ", " + text(x) + ", 1) ERROR(32): Broken pipe", EPIPE);
    signal(SIGPIPE, old);
}

TEST_F(SyswrapTest, transfers_move_bytes)
{
    errno = EBADF; // an old error is not held against them
    const TempDir dir;
    const int fd = W_open(ME, (dir / "f").c_str(), O_RDWR | O_CREAT, 0600);
    Pair p;
    char buf[8] = {};
    EXPECT_EQ(W_write_f(ME, fd, "abcdef", 6, 0), 6);
    EXPECT_EQ(W_pread_f(ME, fd, buf, 3, 2, 0), 3);
    EXPECT_STREQ(buf, "cde");
    EXPECT_EQ(W_lseek(ME, fd, 1, SEEK_SET), 1);
    EXPECT_EQ(W_read_f(ME, fd, buf, 2, 0), 2);
    EXPECT_STREQ(buf, "bce");
    off_t offset = 3;
    EXPECT_EQ(W_sendfile_f(ME, p.fd[0], fd, &offset, 10, 0), 3);
    EXPECT_EQ(offset, 6);
    EXPECT_EQ(W_recvfrom(ME, p.fd[1], buf, sizeof(buf), 0, nullptr, nullptr), 3);
    EXPECT_STREQ(buf, "def");
    EXPECT_EQ(W_sendto(ME, p.fd[1], "z", 1, 0, nullptr, 0), 1);
    EXPECT_EQ(W_ftruncate(ME, fd, 2), 0);
    EXPECT_EQ(W_close(ME, fd), 0);
    expect_silence();
}

// By design: this line has no line end.
TEST_F(SyswrapTest, sendfile_logs_without_a_line_end)
{
    log_timefmt(&g_log, LTF_NO_TIME);
    off_t offset = 77;
    EXPECT_EQ(W_sendfile_f(ME, BAD_FD, BAD_FD + 1, &offset, 5, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.text(), "(ERR)  caller: LNX sendfile(1000000<-1000001, 77, 5) ERROR(9): Bad file descriptor");
    log.clear();
    EXPECT_EQ(W_sendfile_f(ME, BAD_FD, BAD_FD + 1, nullptr, 5, 1), -1);
    EXPECT_EQ(log.text(), "(ERR)  caller: LNX sendfile(1000000<-1000001, 0, 5) ERROR(9): Bad file descriptor");
    log_timefmt(&g_log, 0);
}

TEST_F(SyswrapTest, sendfile_to_a_full_socket_is_logged_only_against_the_guilty)
{
    const TempDir dir;
    const int fd = W_open(ME, (dir / "f").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(W_ftruncate(ME, fd, 1 << 24), 0);
    Pair p;
    ASSERT_EQ(fcntl(p.fd[0], F_SETFL, O_NONBLOCK), 0);
    off_t offset = 0;
    while (W_sendfile_f(ME, p.fd[0], fd, &offset, 1 << 20, 0) > 0) {
        ASSERT_LT(offset, 1 << 24);
    }
    EXPECT_EQ(errno, EAGAIN);
    expect_silence();
    EXPECT_EQ(W_sendfile_f(ME, p.fd[0], fd, &offset, 1 << 20, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    log.clear();
    EXPECT_EQ(W_close(ME, fd), 0);
}

TEST_F(SyswrapTest, sendto_and_recvfrom_name_length_and_flags)
{
    char buf[8] = {};
    EXPECT_EQ(W_sendto(ME, BAD_FD, buf, 8, MSG_DONTWAIT, nullptr, 0), -1);
    expect_error("caller: sendto(1000000, " + text(buf) + ", 8, 64, ...)" + EBADF_END, EBADF);
    EXPECT_EQ(W_recvfrom(ME, BAD_FD, buf, 8, MSG_DONTWAIT, nullptr, nullptr), -1);
    expect_error("caller: recvfrom(1000000, " + text(buf) + ", 8, 64, ...)" + EBADF_END, EBADF);
}

// ---- sockets --------------------------------------------------------------------------------------------------

TEST_F(SyswrapTest, socket_names_its_arguments)
{
    EXPECT_EQ(W_socket(ME, AF_INET, 99, 7), -1);
    expect_error("caller: socket(2, 99, 7) ERROR(22): Invalid argument", EINVAL);
}

TEST_F(SyswrapTest, socket_logs_its_success_at_debug_alone)
{
    const int fd = W_socket(ME, AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    expect_silence();
    close(fd);
    g_mod_ll[LOG_MOD_SYSWRAP] = ll::debug;
    errno = 0;
    EXPECT_EQ(W_socket(ME, AF_INET, SOCK_DGRAM, 0), fd);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(ll::debug), (lines_t{"caller opened socket fd=" + std::to_string(fd) + " (2, 2, 0)"}));
    close(fd);
}

TEST_F(SyswrapTest, connect_names_the_address)
{
    const sockaddr_in sa = loopback(1);
    EXPECT_EQ(W_connect(ME, BAD_FD, as_sockaddr(&sa), sizeof(sa)), -1);
    expect_error("caller: connect(1000000, " + text(&sa) + ", 16)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, a_connect_in_progress_is_no_error_and_logged_at_info_under_its_own_name)
{
    // A listener whose queue is full keeps the next connect waiting.
    const int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = loopback(0);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(bind(lfd, as_sockaddr(&sa), sizeof(sa)), 0);
    ASSERT_EQ(listen(lfd, 0), 0);
    ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr*>(&sa), &len), 0);

    for (const int level : {ll::normal, ll::info}) {
        g_mod_ll[LOG_MOD_SYSWRAP] = level;
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        EXPECT_EQ(W_connect(ME, fd, as_sockaddr(&sa), sizeof(sa)), -1);
        EXPECT_EQ(errno, EINPROGRESS);
        EXPECT_EQ(log.messages(), level == ll::normal ? lines_t{}
                                                      : lines_t{"W_connect: non-blocking connect in progress for fd" +
                                                                std::to_string(fd)});
        EXPECT_EQ(log.messages(ll::error), lines_t{});
        close(fd);
    }
    close(lfd);
}

TEST_F(SyswrapTest, connect_to_a_listener_says_nothing)
{
    const Listener l;
    g_mod_ll[LOG_MOD_SYSWRAP] = ll::debug;
    for (const int old : {0, EBADF, EINPROGRESS}) { // whatever an earlier call has left
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        errno = old;
        EXPECT_EQ(W_connect(ME, fd, as_sockaddr(&l.addr), sizeof(l.addr)), 0);
        close(fd);
    }
    expect_silence();
}

TEST_F(SyswrapTest, getsockopt_shows_the_length_at_the_pointer)
{
    int value = 0;
    socklen_t len = sizeof(value);
    EXPECT_EQ(W_getsockopt(ME, BAD_FD, SOL_SOCKET, SO_TYPE, &value, &len), -1);
    expect_error("caller: getsockopt(1000000, 1, 3, " + text(&value) + ", 4)" + EBADF_END, EBADF);
    EXPECT_EQ(W_getsockopt(ME, BAD_FD, SOL_SOCKET, SO_TYPE, nullptr, nullptr), -1);
    expect_error("caller: getsockopt(1000000, 1, 3, (nil), 0)" + EBADF_END, EBADF);
    Pair p;
    EXPECT_EQ(W_getsockopt(ME, p.fd[0], SOL_SOCKET, SO_TYPE, &value, &len), 0);
    EXPECT_EQ(value, SOCK_STREAM);
    expect_silence();
}

TEST_F(SyswrapTest, setsockopt_names_its_arguments)
{
    const int one = 1;
    EXPECT_EQ(W_setsockopt(ME, BAD_FD, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)), -1);
    expect_error("caller: setsockopt(1000000, 1, 2, " + text(&one) + ", 4)" + EBADF_END, EBADF);
}

// By design: the line of bind has a colon ahead of ERROR.
TEST_F(SyswrapTest, bind_names_the_address)
{
    const Listener l;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(W_bind(ME, fd, as_sockaddr(&l.addr), sizeof(l.addr)), -1);
    expect_error("caller: bind(" + std::to_string(fd) + ", " + text(&l.addr) +
                     ", 16): ERROR(98): Address already in use",
                 EADDRINUSE);
    close(fd);
}

TEST_F(SyswrapTest, listen_names_the_backlog)
{
    EXPECT_EQ(W_listen(ME, BAD_FD, 5), -1);
    expect_error("caller: listen(1000000, 5)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, accept_shows_the_length_at_the_pointer)
{
    sockaddr_in sa = {};
    socklen_t len = sizeof(sa);
    EXPECT_EQ(W_accept(ME, BAD_FD, reinterpret_cast<sockaddr*>(&sa), &len), -1);
    expect_error("caller: accept(1000000, " + text(&sa) + ", 16)" + EBADF_END, EBADF);
    EXPECT_EQ(W_accept(ME, BAD_FD, nullptr, nullptr), -1);
    expect_error("caller: accept(1000000, (nil), 0)" + EBADF_END, EBADF);
}

TEST_F(SyswrapTest, accept_with_nobody_waiting_is_not_reported)
{
    const Listener l;
    ASSERT_EQ(fcntl(l.fd, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(W_accept(ME, l.fd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    expect_silence();
}

TEST_F(SyswrapTest, getaddrinfo_shows_code_errno_and_the_codes_text)
{
    addrinfo hints = {}, *res = nullptr;
    hints.ai_flags = 0x40000000; // no such flag: -1
    errno = ENOENT;
    EXPECT_EQ(W_getaddrinfo(ME, "localhost", nullptr, &hints, &res), -1);
    expect_error("caller: getaddrinfo(localhost, (null), " + text(&hints) + ", " + text(&res) +
                     "): ERROR(-1:2): Bad value for ai_flags",
                 ENOENT);
    errno = 0;
    EXPECT_EQ(W_getaddrinfo(ME, nullptr, "80", &hints, &res), -1);
    expect_error("caller: getaddrinfo((null), 80, " + text(&hints) + ", " + text(&res) +
                     "): ERROR(-1:0): Bad value for ai_flags",
                 0);
}

// By design: the other codes go back without a word.
TEST_F(SyswrapTest, getaddrinfo_logs_no_other_code)
{
    addrinfo hints = {}, *res = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_EQ(W_getaddrinfo(ME, "no.number", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_EQ(EAI_NONAME, -2);
    hints.ai_family = 12345;
    EXPECT_EQ(W_getaddrinfo(ME, "127.0.0.1", nullptr, &hints, &res), EAI_FAMILY);
    EXPECT_EQ(W_getaddrinfo(ME, nullptr, nullptr, &hints, &res), EAI_NONAME);
    expect_silence();
    hints.ai_family = AF_INET;
    ASSERT_EQ(W_getaddrinfo(ME, "127.0.0.1", nullptr, &hints, &res), 0);
    freeaddrinfo(res);
    expect_silence();
}

// ---- waiting --------------------------------------------------------------------------------------------------

TEST_F(SyswrapTest, select_names_its_sets)
{
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    FD_ZERO(&e);
    timeval tmout = {0, 0};
    EXPECT_EQ(W_select(ME, -1, &r, &w, &e, &tmout), -1);
    expect_error("caller: select(-1, " + text(&r) + ", " + text(&w) + ", " + text(&e) + ", " + text(&tmout) +
                     ") ERROR(22): Invalid argument",
                 EINVAL);
    EXPECT_EQ(W_select(ME, 0, nullptr, nullptr, nullptr, &tmout), 0);
    expect_silence();
}

TEST_F(SyswrapTest, an_interrupted_select_is_reported_only_above_info)
{
    const Interruptions often;
    for (const int level : {ll::error, ll::normal, ll::info, ll::debug}) {
        g_mod_ll[LOG_MOD_SYSWRAP] = level;
        timeval tmout = {60, 0};
        EXPECT_EQ(W_select(ME, 0, nullptr, nullptr, nullptr, &tmout), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(log.lines().size(), level == ll::debug ? 1u : 0u) << level;
    }
    EXPECT_EQ(log.count(") ERROR(4): Interrupted system call"), 1u);
}

TEST_F(SyswrapTest, poll_names_number_and_time)
{
    Pair p;
    pollfd fds = {p.fd[0], POLLIN, 0};
    const Interruptions often;
    EXPECT_EQ(W_poll(ME, &fds, 1, 60000), -1);
    expect_error("caller: poll(" + text(&fds) + ", 1, 60000) ERROR(4): Interrupted system call", EINTR);
}

TEST_F(SyswrapTest, a_poll_that_times_out_is_a_warning)
{
    Pair p;
    pollfd fds = {p.fd[0], POLLIN, 0};
    errno = 0;
    EXPECT_EQ(W_poll(ME, &fds, 1, 3), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(ll::warning), (lines_t{"caller: poll() has timed out after 3 ms"}));
    log.clear();
    ASSERT_EQ(W_write_f(ME, p.fd[1], "x", 1, 0), 1);
    EXPECT_EQ(W_poll(ME, &fds, 1, 3), 1);
    expect_silence();
}

// ---- processes ------------------------------------------------------------------------------------------------

TEST_F(SyswrapTest, fork_logs_its_failure)
{
    g_fail_fork = true;
    EXPECT_EQ(W_fork(ME), -1);
    expect_error("caller: fork() ERROR(11): Resource temporarily unavailable", EAGAIN);
}

TEST_F(SyswrapTest, fork_gives_a_child)
{
    const pid_t pid = W_fork(ME);
    if (pid == 0) _exit(7);
    ASSERT_GT(pid, 0);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    expect_silence();
}

TEST_F(SyswrapTest, kill_names_process_and_signal)
{
    EXPECT_EQ(W_kill(ME, getpid(), 999), -1);
    expect_error("caller: kill(" + std::to_string(getpid()) + ", 999) ERROR(22): Invalid argument", EINVAL);
    EXPECT_EQ(W_kill(ME, getpid(), 0), 0);
    expect_silence();
}

// ---- the module's level ---------------------------------------------------------------------------------------

TEST_F(SyswrapTest, only_module_2_decides_for_these_lines)
{
    g_mod_ll[LOG_MOD_SYSWRAP] = ll::panic;
    EXPECT_EQ(W_close(ME, -1), -1);
    EXPECT_EQ(errno, EBADF);
    expect_silence();
    g_mod_ll[0] = ll::panic;
    g_mod_ll[LOG_MOD_SYSWRAP] = ll::error;
    EXPECT_EQ(W_close(ME, -1), -1);
    EXPECT_EQ(log.lines().size(), 1u);
}

} // namespace
