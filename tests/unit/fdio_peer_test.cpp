// What stands around a transfer: files, descriptors to another process, waiting on a socket.
#include "fdio.h"
#include "psensor.h"
#include "support/interrupts.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/proc_kit.h"
#include "support/temp_dir.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

constexpr int NO_FILTER = 77;

Lines plain(Lines lines)
{
    static const std::regex address("0x[0-9a-f]+");
    for (std::string& s : lines)
        s = std::regex_replace(s, address, "P");
    return lines;
}

struct Pair {
    explicit Pair(int type = SOCK_STREAM)
    {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, type, 0, fds) != 0) perror("socketpair");
        a = Fd(fds[0]);
        b = Fd(fds[1]);
    }
    Fd a, b;
};

// Sends bytes with any number of descriptors.
ssize_t send_fds(int sock, const void* data, size_t len, const std::vector<int>& fds)
{
    alignas(struct cmsghdr) char room[CMSG_SPACE(8 * sizeof(int))] = {};
    struct iovec iov = {const_cast<void*>(data), len};
    struct msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = room;
    msg.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
    struct cmsghdr* const head = CMSG_FIRSTHDR(&msg);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    memcpy(CMSG_DATA(head), fds.data(), fds.size() * sizeof(int));
    return sendmsg(sock, &msg, 0);
}

// The lowest free descriptor: rises when one is left open.
int next_fd()
{
    return Fd(dup(0)).get();
}

void do_nothing(int) {}

} // namespace

// ---- files ----------------------------------------------------------------------------------------------------

TEST(source_file, is_opened_to_read)
{
    const TempDir dir;
    write_file(dir / "a", "abc");
    const Fd fd(open_src_file((dir / "a").c_str()));
    EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    LogCapture log;
    EXPECT_EQ(open_src_file((dir / "b").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(log.contains("open_src_file: open('" + (dir / "b") + "', "));
}

TEST(destination_file, is_made_anew_to_write)
{
    const TempDir dir;
    umask(0);
    const Fd fd(open_dst_file((dir / "a").c_str(), 0));
    EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_ACCMODE, O_WRONLY);
    struct stat st = {};
    ASSERT_EQ(fstat(fd.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(dir.names(), Lines{"a"});
}

TEST(destination_file, that_exists_is_refused)
{
    const TempDir dir;
    write_file(dir / "a", "abc");
    LogCapture log;
    EXPECT_EQ(open_dst_file((dir / "a").c_str(), FDIO_UNLINK_DST), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_EQ(read_file(dir / "a"), "abc");
}

TEST(destination_file, loses_its_name_at_once_if_asked_for)
{
    const TempDir dir;
    const Fd fd(open_dst_file((dir / "a").c_str(), FDIO_UNLINK_DST));
    EXPECT_EQ(write(fd.get(), "abc", 3), 3);
    EXPECT_EQ(dir.names(), Lines{});
}

TEST(destination_file, is_closed_when_its_name_can_not_be_taken_away)
{
    const TempDir dir;
    const int status = prk::in_child([&] {
        if (!prk::fail_syscall(SYS_unlink, EPERM)) return NO_FILTER;
        const int before = next_fd();
        if (open_dst_file((dir / "a").c_str(), FDIO_UNLINK_DST) != -1 || errno != EPERM) return 1;
        return next_fd() == before ? 0 : 2;
    });
    if (status == NO_FILTER) GTEST_SKIP() << "no system call filters to be had here";
    EXPECT_EQ(status, 0);
}

TEST(sendfile_check, wants_a_file_and_a_stream_socket)
{
    uint32_t flags = FDIO_VERBOSE;
    EXPECT_EQ(check_can_sendfile(S_IFSOCK, S_IFSOCK, SOCK_STREAM, &flags), 1);
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFREG | 0644, SOCK_STREAM, &flags), 2);
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFSOCK, SOCK_DGRAM, &flags), 3);
    EXPECT_EQ(flags, FDIO_VERBOSE);
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFSOCK | 0777, SOCK_STREAM, &flags), 0);
    EXPECT_EQ(flags, FDIO_VERBOSE | FDIO_SENDFILE);
}

// ---- descriptors ----------------------------------------------------------------------------------------------

TEST(passed_descriptor, is_the_same_file_at_the_other_end)
{
    const Pair p;
    const TempDir dir;
    write_file(dir / "a", "content");
    const Fd file(open_src_file((dir / "a").c_str()));
    char name[] = "a";
    EXPECT_EQ(send_fd(p.a.get(), name, 1, file.get()), 1);
    LogCapture log;
    char got[10] = {};
    int fd = -5;
    EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, FDIO_VERBOSE), 1);
    const Fd owner(fd);
    EXPECT_STREQ(got, "a");
    ASSERT_GE(fd, 0);
    EXPECT_NE(fd, file.get());
    char text[10] = {};
    EXPECT_EQ(read(fd, text, sizeof(text)), 7);
    EXPECT_STREQ(text, "content");
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(passed_descriptor, that_can_not_be_sent_is_said)
{
    const Pair p;
    char data[] = "a";
    LogCapture log;
    EXPECT_EQ(send_fd(p.a.get(), data, 1, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(plain(log.messages()),
              Lines{"send_fd: sendmsg(" + std::to_string(p.a.get()) + ", P, 0) ERROR(9): Bad file descriptor"});
}

TEST(passed_descriptor, that_is_missing_is_said_if_verbose)
{
    const Pair p;
    LogCapture log;
    char got[10] = {};
    for (const uint32_t flags : {0U, FDIO_VERBOSE}) {
        ASSERT_EQ(write(p.a.get(), "abc", 3), 3);
        int fd = -5;
        EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, flags), 3); // the bytes count all the same
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(plain(log.messages()), Lines{"recv_fd: invalid control message structure: cmsg=(nil), clen=-1"});
}

TEST(passed_descriptor, that_is_not_alone_is_closed)
{
    const Pair p;
    LogCapture log;
    const int before = next_fd();
    char got[10] = {};
    for (const size_t count : {2U, 5U}) {
        ASSERT_EQ(send_fds(p.a.get(), "abc", 3, std::vector<int>(count, p.a.get())), 3);
        log.clear();
        int fd = -5;
        EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, FDIO_VERBOSE), 3);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(plain(log.messages(ll::error)), Lines{"recv_fd: invalid control message structure: cmsg=P, clen=24"});
        EXPECT_EQ(next_fd(), before);
    }
}

TEST(passed_descriptor, of_an_empty_message_is_closed)
{
    const Pair p(SOCK_SEQPACKET);
    LogCapture log;
    const int before = next_fd();
    ASSERT_EQ(send_fds(p.a.get(), "", 0, {p.a.get()}), 0);
    char got[10] = {};
    int fd = -5;
    EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, 0), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(next_fd(), before);
}

TEST(passed_descriptor, is_not_what_another_control_message_holds)
{
    uint16_t port = 0;
    const Fd to = bound_socket(AF_INET, SOCK_DGRAM, &port);
    const int on = 1;
    ASSERT_EQ(setsockopt(to.get(), IPPROTO_IP, IP_RECVTTL, &on, sizeof(on)), 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Fd from(socket(AF_INET, SOCK_DGRAM, 0));
    char got[10] = {};
    LogCapture log;
    for (const uint32_t flags : {0U, FDIO_VERBOSE}) {
        ASSERT_EQ(sendto(from.get(), "abc", 3, 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 3);
        int fd = -5;
        EXPECT_EQ(recv_fd(to.get(), got, sizeof(got), &fd, flags), 3);
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(log.messages(), Lines{"recv_fd: invalid control message level/type=" + std::to_string(IPPROTO_IP) + "/" +
                                    std::to_string(IP_TTL)});
}

TEST(passed_descriptor, comes_no_more_from_a_closed_connection)
{
    Pair p;
    p.a = Fd();
    char got[10] = {};
    int fd = -5;
    LogCapture log;
    errno = EAGAIN; // of some earlier call
    EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, 0), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(plain(log.messages(ll::error)), Lines{"recv_fd: recvmsg(" + std::to_string(p.b.get()) +
                                                    ", P, 0) ERROR(0): connection has been closed by peer"});
}

TEST(passed_descriptor, is_measured_as_data_that_comes_in)
{
    const Pair p;
    char data[10] = "a";
    ASSERT_EQ(send_fd(p.a.get(), data, 1, p.a.get()), 1);
    psensors_init(nullptr, 1);
    int fd = -5;
    EXPECT_EQ(recv_fd(p.b.get(), data, sizeof(data), &fd, 0), 1);
    const Fd owner(fd);
    const struct timespec in = g_psensor[PRF_DATAIN].sensor.accum.tm;
    EXPECT_TRUE(in.tv_sec > 0 || in.tv_nsec > 0);
    EXPECT_FALSE(g_psensor[PRF_DATAIN].started);
    psensors_destroy();
}

TEST(passed_descriptor, that_is_not_there_yet_is_said_only_if_verbose)
{
    const Pair p;
    ASSERT_EQ(fcntl(p.b.get(), F_SETFL, O_NONBLOCK), 0);
    char got[10] = {};
    int fd = -5;
    LogCapture log;
    EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.messages(), Lines{});
    EXPECT_EQ(recv_fd(p.b.get(), got, sizeof(got), &fd, FDIO_VERBOSE), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(plain(log.messages()), Lines{"recv_fd: recvmsg(" + std::to_string(p.b.get()) +
                                           ", P, 0) ERROR(11): Resource temporarily unavailable"});
    // Any other failure is said in any case.
    log.clear();
    EXPECT_EQ(recv_fd(-1, got, sizeof(got), &fd, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(plain(log.messages()), Lines{"recv_fd: recvmsg(-1, P, 0) ERROR(9): Bad file descriptor"});
}

// ---- waiting --------------------------------------------------------------------------------------------------

TEST(waiting, gives_the_events_that_have_come)
{
    const Pair p;
    EXPECT_EQ(poll_on_socket(p.a.get(), POLLIN, 0), 0);
    EXPECT_EQ(poll_on_socket(p.a.get(), POLLOUT, -1), POLLOUT);
    ASSERT_EQ(write(p.b.get(), "x", 1), 1);
    EXPECT_EQ(poll_on_socket(p.a.get(), POLLIN | POLLOUT, 0), POLLIN | POLLOUT);
    EXPECT_EQ(poll_on_socket(-1, POLLIN, 0), 0); // a negative descriptor is none
}

TEST(waiting, fails_when_it_is_interrupted)
{
    const Pair p;
    LogCapture log;
    const Interrupts signals(do_nothing);
    EXPECT_EQ(poll_on_socket(p.a.get(), POLLIN, 60000), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(wait_to_read(p.a.get(), 60000), -1);
    EXPECT_TRUE(log.contains("poll_on_socket: poll("));
}

TEST(waiting, to_read_or_write_tells_ready_from_late)
{
    Pair p;
    EXPECT_EQ(wait_to_read(p.a.get(), 1), 1);
    EXPECT_EQ(wait_to_write(p.a.get(), 1000), 0);
    ASSERT_EQ(fcntl(p.a.get(), F_SETFL, O_NONBLOCK), 0);
    const std::string block(4096, 'x');
    while (write(p.a.get(), block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(wait_to_write(p.a.get(), 1), 1);
    EXPECT_EQ(wait_to_read(p.b.get(), -1), 0);
    p.a = Fd();
    EXPECT_EQ(wait_to_read(p.b.get(), -1), 0); // the end can be read
}

TEST(waiting, fails_on_an_error_of_the_descriptor)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Fd in(fds[0]);
    const Fd out(fds[1]);
    in = Fd();
    EXPECT_EQ(wait_to_write(out.get(), 1000), -1); // nobody reads
    const int closed = next_fd();
    EXPECT_EQ(wait_to_read(closed, 1000), -1);
}

TEST(waiting, is_idle_time)
{
    psensors_init(nullptr, 1);
    const Pair p;
    EXPECT_EQ(wait_to_read(p.a.get(), 2), 1);
    const struct timespec idle = g_psensor[PRF_EVIDLE].sensor.accum.tm;
    EXPECT_GE(idle.tv_sec * 1000000000L + idle.tv_nsec, 2000000L);
    psensors_destroy();
}

TEST(reading_test, takes_what_is_there_and_says_how_much)
{
    const Pair p;
    const std::string fd = std::to_string(p.a.get());
    ASSERT_EQ(write(p.b.get(), std::string(600, 'x').data(), 600), 600);
    LogCapture log;
    EXPECT_EQ(test_read_fd(p.a.get(), 1000), 0);
    EXPECT_EQ(test_read_fd(p.a.get(), 1000), 0);
    EXPECT_EQ(log.messages(), (Lines{"test_read_fd: fd=" + fd + " is readable [512 bytes]",
                                     "test_read_fd: fd=" + fd + " is readable [88 bytes]"}));
}

TEST(reading_test, fails_when_nothing_comes)
{
    Pair p;
    const std::string fd = std::to_string(p.a.get());
    LogCapture log;
    EXPECT_EQ(test_read_fd(p.a.get(), 1), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"test_read_fd: cannot read from fd=" + fd + ", nrd=-1"});
    p.b = Fd();
    log.clear();
    EXPECT_EQ(test_read_fd(p.a.get(), 1000), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"test_read_fd: cannot read from fd=" + fd + ", nrd=0"});
}
