// The transfer engine: each means of moving bytes, and what a step leaves in result, offset, flags and log.
#include "lib/fdio_int.h"

#include "psensor.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/index_kit.h"
#include "support/interrupts.h"
#include "support/net_peer.h"
#include "support/transfer_kit.h"
#include "util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace trk;

namespace
{

struct Streams {
    explicit Streams(int type = SOCK_STREAM)
    {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, type, 0, fds) != 0) perror("socketpair");
        in = Fd(fds[0]);
        out = Fd(fds[1]);
    }
    // Fills it, so that a write blocks.
    void fill()
    {
        set_nonblocking(true);
        const std::string block(4096, 'x');
        while (write(out.get(), block.data(), block.size()) > 0) {
        }
        set_nonblocking(false);
    }
    void set_nonblocking(bool on) { fcntl(out.get(), F_SETFL, on ? O_NONBLOCK : 0); }
    Fd in, out;
};

void quit_at_third(int count)
{
    if (count == 3) g_quit = 1;
}

int g_drain_fd = -1;
void drain_from_third(int count)
{
    char buf[4096];
    if (count >= 3 && recv(g_drain_fd, buf, sizeof(buf), MSG_DONTWAIT) == 0) abort();
}

} // namespace

// ---- the transfer buffer --------------------------------------------------------------------------------------

TEST(transfer_buffer, has_the_default_size_unless_told_otherwise)
{
    LogCapture log;
    EXPECT_EQ(get_trf_bufsize(), 0u);
    EXPECT_EQ(fdio_init(-1), 0);
    EXPECT_EQ(get_trf_bufsize(), 2097152u);
    EXPECT_NE(g_trf.buf, nullptr);
    EXPECT_EQ(log.messages(ll::debug), Lines{"set_trf_bufsize: FDIO internal buffer size = 2097152 bytes."});
    fdio_destroy();
    EXPECT_EQ(get_trf_bufsize(), 0u);
    EXPECT_EQ(g_trf.buf, nullptr);
    fdio_destroy(); // nothing is left to free
}

TEST(transfer_buffer, is_not_made_for_a_size_of_0_or_less_other_than_minus_1)
{
    LogCapture log;
    EXPECT_EQ(fdio_init(0), 0);
    EXPECT_EQ(fdio_init(-2), 0);
    EXPECT_EQ(get_trf_bufsize(), 0u);
    EXPECT_EQ(g_trf.buf, nullptr);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(transfer_buffer, has_a_least_size)
{
    LogCapture log;
    EXPECT_EQ(fdio_init(65535), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"set_trf_bufsize: transfer buffer size cannot be less than 65536 bytes."});
    EXPECT_EQ(get_trf_bufsize(), 0u);
    EXPECT_EQ(fdio_init(65536), 0);
    EXPECT_EQ(set_trf_bufsize(1), -1);
    EXPECT_EQ(get_trf_bufsize(), 65536u);
    EXPECT_EQ(set_trf_bufsize(65537), 0);
    EXPECT_EQ(get_trf_bufsize(), 65537u);
    fdio_destroy();
}

TEST(transfer_buffer, stays_with_a_warning_for_the_same_size)
{
    fdio_init(70000);
    const char* const buf = g_trf.buf;
    LogCapture log;
    EXPECT_EQ(set_trf_bufsize(70000), 0);
    EXPECT_EQ(log.messages(ll::warning), Lines{"set_trf_bufsize: transfer buffer size remains 70000 bytes."});
    EXPECT_EQ(g_trf.buf, buf);
    fdio_destroy();
    // Without a buffer 0 is the same size, too.
    log.clear();
    EXPECT_EQ(set_trf_bufsize(0), 0);
    EXPECT_EQ(log.messages(ll::warning), Lines{"set_trf_bufsize: transfer buffer size remains 0 bytes."});
}

TEST(transfer_buffer, is_as_before_when_memory_runs_out)
{
    fdio_init(70000);
    const struct trfbuf before = g_trf;
    LogCapture log;
    fail_alloc::at(1);
    EXPECT_EQ(set_trf_bufsize(80000), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{"set_trf_bufsize: failed to allocate 80000 bytes for transfer buffer."});
    EXPECT_EQ(g_trf.buf, before.buf);
    EXPECT_EQ(g_trf.buflen, before.buflen);
    fdio_destroy();
}

TEST(transfer_buffer_death, with_a_size_of_0_fails_an_assertion)
{
    fdio_init(-1);
    EXPECT_FALSE((g_trf.buflen = 0, transfer_validate(nullptr)));
    EXPECT_DEATH(fdio_destroy(), asserts("g_trf.buflen > 0"));
    g_trf.buflen = D_TRF_BUFSIZE;
    EXPECT_TRUE(transfer_validate(nullptr));
    fdio_destroy();
}

// ---- jobs -----------------------------------------------------------------------------------------------------

TEST(transfer_job, holds_what_it_is_given_and_zeros)
{
    LogCapture log;
    off_t offset = 7;
    uint32_t flags = FDIO_TRF_RWEQ;
    int address = 0;
    const std::unique_ptr<transfer_spec, job_free> tsp(new_transfer_spec(3, 4, &offset, &flags, &address, 4));
    EXPECT_EQ(tsp->in_fd, 3);
    EXPECT_EQ(tsp->out_fd, 4);
    EXPECT_EQ(tsp->offset, &offset);
    EXPECT_EQ(tsp->flags, &flags);
    EXPECT_EQ(tsp->aux, &address);
    EXPECT_EQ(tsp->aux_len, 4);
    EXPECT_TRUE(tsp->mmem == nullptr && tsp->mmlen == 0 && tsp->mmem_out == 0);
    EXPECT_TRUE(tsp->inproc == nullptr && tsp->ix == nullptr);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST(transfer_job, says_that_sendfile_is_on)
{
    LogCapture log;
    off_t offset = 0;
    uint32_t flags = FDIO_SENDFILE;
    const std::unique_ptr<transfer_spec, job_free> tsp(new_transfer_spec(3, 4, &offset, &flags, nullptr, 0));
    EXPECT_EQ(ixk::plain(log.messages(ll::info)), Lines{"new_transfer_spec(P): SENDFILE on for fd4<-fd3"});
}

TEST(transfer_job, is_null_without_memory)
{
    LogCapture log;
    uint32_t flags = 0;
    fail_alloc::at(1);
    EXPECT_EQ(new_transfer_spec(3, 4, nullptr, &flags, nullptr, 0), nullptr);
}

TEST(transfer_job, is_validated_field_by_field)
{
    off_t offset = 0;
    uint32_t flags = 0;
    char mem[1] = {};
    tsix_stream ix = {};
    transfer_spec t = {};
    t.flags = &flags;
    EXPECT_TRUE(transfer_validate(&t));
    t.flags = nullptr;
    EXPECT_FALSE(transfer_validate(&t));
    t.flags = &flags;
    t.mmem = mem;
    t.mmlen = 1;
    EXPECT_FALSE(transfer_validate(&t)); // no offset
    t.offset = &offset;
    EXPECT_TRUE(transfer_validate(&t));
    t.mmlen = 0;
    EXPECT_FALSE(transfer_validate(&t));
    t.mmlen = 1;
    flags = FDIO_SENDTO;
    EXPECT_FALSE(transfer_validate(&t)); // no address
    t.aux = mem;
    t.aux_len = 1;
    EXPECT_TRUE(transfer_validate(&t));
    flags = FDIO_SENDFILE;
    t.offset = nullptr;
    t.mmem = nullptr;
    EXPECT_FALSE(transfer_validate(&t));
    flags = 0;
    t.ix = &ix;
    EXPECT_FALSE(transfer_validate(&t)); // no open index
}

TEST(transfer_job, is_printed_in_words)
{
    off_t offset = 7;
    uint32_t flags = 5;
    char mem[1] = {};
    tsix_stream ix = {};
    snprintf(ix.tspath, sizeof(ix.tspath), "a.ts");
    transfer_spec t = {};
    t.in_fd = 3;
    t.out_fd = 4;
    t.offset = &offset;
    t.flags = &flags;
    t.aux = mem;
    t.aux_len = 16;
    t.mmem = mem;
    t.mmlen = 1;
    t.inproc = upper;
    t.ix = &ix;
    const std::string s = printed([&](FILE* fp) { transfer_dump(&t, fp); });
    for (const char* part : {": fd3 -> fd4\n", "  offset 7\n", "  flags 0x5\n", "  address of 16 bytes at ",
                             "  to a mapping of 1 bytes at ", "  with a filter\n",
                             "  paced by [a.ts]: chunks of up to 0 bytes and 0 ms, 0 bytes left of the last\n",
                             "  transfer buffer of 0 bytes at "})
        EXPECT_NE(s.find(part), std::string::npos) << part << "\n" << s;
}

// ---- by the buffer --------------------------------------------------------------------------------------------

TEST_F(transfer_step, by_buffer_copies_from_the_offset_on)
{
    const Fd dst = new_file("dst");
    offset = 10;
    const job_ptr t = job(dst.get(), &offset);
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    EXPECT_EQ(n, 20);
    EXPECT_EQ(offset, 30);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(content("dst"), text.substr(10, 20));
    EXPECT_EQ(lseek(src.get(), 0, SEEK_CUR), 0); // the descriptor's own position plays no part
    const std::string in = num(src.get()), out = num(dst.get());
    const Lines lines = log.messages(ll::debug);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("transfer_out: [0x") && lines[0].ends_with("] +20 -> fd" + out)) << lines[0];
    EXPECT_EQ(lines[1], "transfer: " + in + "->" + out + " [r20/w20  20 bytes], flags=0x0");
}

TEST_F(transfer_step, by_buffer_copies_from_the_descriptors_own_position)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get());
    ASSERT_EQ(lseek(src.get(), 5, SEEK_SET), 5);
    EXPECT_EQ(transfer(t.get(), 3, nullptr, nullptr), 0);
    EXPECT_EQ(transfer(t.get(), 4, &n, nullptr), 0);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(content("dst"), text.substr(5, 7));
}

TEST_F(transfer_step, moves_at_most_the_buffers_size)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    std::vector<ssize_t> moved;
    for (const size_t count : {size_t{0}, BUF - 1, BUF, BUF + 1}) {
        EXPECT_EQ(transfer(t.get(), count, &n, nullptr), 0);
        moved.push_back(n);
    }
    const auto full = static_cast<ssize_t>(BUF);
    EXPECT_EQ(moved, (std::vector<ssize_t>{full, full - 1, full, 101}));
    EXPECT_EQ(content("dst"), text);
}

TEST_F(transfer_step, by_buffer_tells_the_end_of_the_source)
{
    const Fd dst = new_file("dst");
    offset = static_cast<off_t>(text.size());
    const job_ptr t = job(dst.get(), &offset);
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(flags, FDIO_EOF | FDIO_ERR_READ); // an empty read counts for the read side
    EXPECT_EQ(offset, static_cast<off_t>(text.size()));
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST_F(transfer_step, clears_the_status_and_leaves_the_requests)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    flags = FDIO_VERBOSE | FDIO_TRF_RWEQ | FDIO_MSYNC | FDIO_UNLINK_DST | FDIO_EOF | FDIO_ERR_READ | FDIO_ERR_WRITE;
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    EXPECT_EQ(flags, FDIO_VERBOSE | FDIO_TRF_RWEQ | FDIO_MSYNC | FDIO_UNLINK_DST);
}

TEST_F(transfer_step, by_buffer_fails_with_the_read)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    t->in_fd = dst.get(); // can't be read
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(flags, FDIO_ERR_READ);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    const std::string fd = num(dst.get());
    EXPECT_EQ(errors[1], "transfer (" + fd + "->" + fd + ", 20 bytes) read ERROR(9): Bad file descriptor");
}

TEST_F(transfer_step, by_buffer_fails_with_the_write)
{
    const job_ptr t = job(src.get(), &offset); // can't be written
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(flags, FDIO_ERR_WRITE);
    const std::string fd = num(src.get());
    EXPECT_EQ(log.messages(ll::error).back(),
              "transfer (" + fd + "->" + fd + ", 20 bytes) write ERROR(9): Bad file descriptor");
    EXPECT_EQ(log.messages(ll::debug).back(), "transfer: " + fd + "->" + fd + " [r20/w-1  0 bytes], flags=0x40000");
}

TEST_F(transfer_step, hands_a_harmless_error_back_without_a_word)
{
    Streams s;
    s.in = Fd();
    const job_ptr t = job(s.out.get(), &offset);
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(flags, FDIO_ERR_WRITE);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST_F(transfer_step, says_and_forgives_a_harmless_error_that_is_held_against_the_call)
{
    Streams gone;
    gone.in = Fd();
    flags = FDIO_VERBOSE;
    EXPECT_EQ(transfer(job(gone.out.get(), &offset).get(), 20, &n, nullptr), 0);
    EXPECT_EQ(flags, FDIO_VERBOSE | FDIO_ERR_WRITE); // and not the end of the source
    EXPECT_TRUE(log.contains(" write ERROR(32): Broken pipe"));
    Streams full;
    full.fill();
    full.set_nonblocking(true);
    EXPECT_EQ(transfer(job(full.out.get(), &offset).get(), 20, &n, nullptr), 0);
    EXPECT_TRUE(log.contains(" write ERROR(11): Resource temporarily unavailable"));
    EXPECT_EQ(offset, 0);
}

TEST_F(transfer_step, says_that_not_all_was_written)
{
    Streams s;
    s.fill();
    s.set_nonblocking(true);
    char block[65536]; // makes some room
    ASSERT_GT(read(s.in.get(), block, sizeof(block)), 0);
    flags = FDIO_TRF_RWEQ;
    const job_ptr t = job(s.out.get(), &offset);
    do {
        log.clear();
        ASSERT_EQ(transfer(t.get(), BUF, &n, nullptr), 0); // the step does not fail
    } while (n == static_cast<ssize_t>(BUF));
    EXPECT_GT(n, 0);
    EXPECT_LT(n, static_cast<ssize_t>(BUF));
    EXPECT_EQ(offset % static_cast<off_t>(BUF), n); // what was written, not what was read
    EXPECT_EQ(log.messages(ll::error), Lines{"transfer: fd in/out=[" + num(src.get()) + "/" + num(s.out.get()) +
                                             "] mismatch: read/write=[65536/" + std::to_string(n) + "]"});
}

TEST_F(transfer_step, by_buffer_has_a_filter_work_on_what_was_read)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    t->inproc = upper;
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    t->inproc = first_half;
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    EXPECT_EQ(n, 10);
    EXPECT_EQ(offset, 30);
    std::string want = text.substr(0, 20);
    std::transform(want.begin(), want.end(), want.begin(), [](char c) { return static_cast<char>(toupper(c)); });
    EXPECT_EQ(content("dst"), want + text.substr(20, 10));
}

TEST_F(transfer_step, by_buffer_fails_with_the_filter)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    t->inproc = refuse;
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), -1);
    EXPECT_EQ(errno, -77);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(flags, 0u);
    EXPECT_TRUE(log.contains("20 bytes) ??? ERROR(-77): "));
    EXPECT_EQ(content("dst"), "");
    // At the end there is nothing to filter.
    t->inproc = never_called;
    offset = static_cast<off_t>(text.size());
    EXPECT_EQ(transfer(t.get(), 20, &n, nullptr), 0);
    EXPECT_EQ(flags, FDIO_EOF | FDIO_ERR_READ);
}

using transfer_step_death = transfer_step;

TEST_F(transfer_step_death, by_buffer_with_a_filter_that_leaves_nothing_or_adds_fails_an_assertion)
{
    const Fd dst = new_file("dst");
    const job_ptr t = job(dst.get(), &offset);
    t->inproc = leave_nothing;
    EXPECT_DEATH(transfer(t.get(), 20, &n, nullptr), asserts("count != 0"));
    t->inproc = one_more;
    EXPECT_DEATH(transfer(t.get(), 20, &n, nullptr), asserts("s->ntotal >= 0 && s->ntotal <= max_left"));
}

TEST_F(transfer_step_death, without_a_buffer_fails_an_assertion)
{
    fdio_destroy();
    EXPECT_EQ(fdio_init(0), 0);
    const Fd dst = new_file("dst");
    EXPECT_DEATH(transfer(job(dst.get(), &offset).get(), 20, &n, nullptr), asserts("g_trf.buf"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
    flags = FDIO_SENDFILE;
    EXPECT_DEATH(transfer(job(dst.get(), &offset).get(), 20, &n, nullptr), asserts("g_trf.buf"));
}

// ---- by sendfile ----------------------------------------------------------------------------------------------

TEST_F(transfer_step, by_sendfile_moves_bytes_and_offset)
{
    const Streams s;
    flags = FDIO_SENDFILE;
    offset = 100;
    const job_ptr t = job(s.out.get(), &offset);
    t->inproc = never_called; // the bytes don't come by
    EXPECT_EQ(transfer(t.get(), 1000, &n, nullptr), 0);
    EXPECT_EQ(n, 1000);
    EXPECT_EQ(offset, 1100);
    EXPECT_EQ(flags, FDIO_SENDFILE);
    EXPECT_EQ(take(s.in.get(), 1000), text.substr(100, 1000));
    EXPECT_TRUE(log.contains("transfer: sent 1000/1000 bytes using sendfile"));
    EXPECT_EQ(log.messages(ll::debug).back(),
              "transfer: " + num(src.get()) + "->" + num(s.out.get()) + " [r1000/w1000  1000 bytes], flags=0x100");
}

TEST_F(transfer_step, by_sendfile_tells_the_end_of_the_source)
{
    const Streams s;
    flags = FDIO_SENDFILE;
    offset = static_cast<off_t>(text.size());
    EXPECT_EQ(transfer(job(s.out.get(), &offset).get(), 1000, &n, nullptr), 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(flags, FDIO_SENDFILE | FDIO_EOF);
    EXPECT_TRUE(log.contains("transfer: sent 0/1000 bytes using sendfile"));
}

TEST_F(transfer_step, by_sendfile_shows_a_failure_as_the_end)
{
    // Users rely on the flag alone to leave their loop.
    flags = FDIO_SENDFILE;
    const job_ptr t = job(-1, &offset);
    log.clear();
    EXPECT_EQ(transfer(t.get(), 1000, &n, nullptr), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(flags, FDIO_SENDFILE | FDIO_EOF);
    EXPECT_EQ(offset, 0);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("nsendfile: LNX sendfile(-1<-" + num(src.get()) + ", 0, 1000) ERROR(9): "))
        << errors[0];
}

TEST_F(transfer_step, by_sendfile_waits_out_signals)
{
    Streams s;
    s.fill();
    g_drain_fd = s.in.get();
    const Interrupts signals(drain_from_third);
    EXPECT_GT(nsendfile(s.out.get(), src.get(), &offset, 100, 0, FDIO_VERBOSE), 0);
    EXPECT_GE(signals.count(), 3);
}

TEST_F(transfer_step, by_sendfile_ends_when_the_process_is_told_to_quit)
{
    Streams s;
    s.fill();
    const Interrupts signals(quit_at_third);
    EXPECT_EQ(nsendfile(s.out.get(), src.get(), &offset, 100, 0, 0), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(offset, 0);
    g_quit = 0;
}

TEST_F(transfer_step, nsendfile_makes_no_call_for_nothing)
{
    EXPECT_EQ(nsendfile(-1, -1, &offset, 0, 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(log.messages(), Lines{});
    // Other bits than the verbose one say nothing here.
    Streams s;
    s.fill();
    s.set_nonblocking(true);
    EXPECT_EQ(nsendfile(s.out.get(), src.get(), &offset, 100, 0, 0xfffffffe), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.messages(), Lines{});
}

TEST_F(transfer_step_death, by_sendfile_without_an_offset_fails_an_assertion)
{
    flags = FDIO_SENDFILE;
    EXPECT_DEATH(transfer(job(1).get(), 20, &n, nullptr), asserts("offset"));
}

// ---- by sendto ------------------------------------------------------------------------------------------------

TEST_F(transfer_step, by_sendto_sends_each_step_as_a_datagram)
{
    uint16_t port = 0;
    const Fd to = bound_socket(AF_INET, SOCK_DGRAM, &port);
    uint16_t own_port = 0;
    const Fd from = bound_socket(AF_INET, SOCK_DGRAM, &own_port);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    flags = FDIO_SENDTO;
    const job_ptr t = job(from.get(), &offset, &addr, sizeof(addr));
    for (const size_t size : {size_t{1316}, size_t{188}}) {
        const auto at = static_cast<size_t>(offset);
        ASSERT_EQ(transfer(t.get(), size, &n, nullptr), 0);
        std::string got(2000, '\0');
        got.resize(static_cast<size_t>(recv(to.get(), got.data(), got.size(), 0)));
        EXPECT_EQ(got, text.substr(at, size));
    }
    EXPECT_EQ(offset, 1504);
    // Too long for a datagram.
    log.clear();
    EXPECT_EQ(transfer(t.get(), BUF, &n, nullptr), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 1504);
    EXPECT_EQ(flags, FDIO_SENDTO | FDIO_ERR_WRITE);
    const Lines errors = log.messages(ll::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("transfer_out: sendto(" + num(from.get()) + ", ")) << errors[0];
    EXPECT_EQ(errors[1], "transfer (" + num(src.get()) + "->" + num(from.get()) +
                             ", 65536 bytes) write ERROR(90): Message too long");
}

TEST_F(transfer_step, by_sendto_to_nobody_does_not_end_the_process)
{
    Streams s;
    s.in = Fd();
    signal(SIGPIPE, SIG_DFL);
    flags = FDIO_SENDTO;
    EXPECT_EQ(transfer(job(s.out.get(), &offset).get(), 20, &n, nullptr), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(flags, FDIO_SENDTO | FDIO_ERR_WRITE);
    EXPECT_EQ(offset, 0);
}

TEST_F(transfer_step, by_sendto_or_sendfile_is_measured_as_data_that_goes_out)
{
    const auto has_measured = [](size_t i) {
        const struct timespec& tm = g_psensor[i].sensor.accum.tm;
        return (tm.tv_sec != 0 || tm.tv_nsec != 0) && !g_psensor[i].started;
    };
    Streams s(SOCK_DGRAM);
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    flags = FDIO_SENDTO;
    EXPECT_EQ(fdio_int::transfer_out(job(s.out.get()).get(), "abc", 3), 3);
    EXPECT_TRUE(has_measured(PRF_DATAOUT));
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    EXPECT_EQ(nsendfile(s.out.get(), src.get(), &offset, 10, 0, 0), 10);
    EXPECT_TRUE(has_measured(PRF_DATAOUT));
    EXPECT_FALSE(has_measured(PRF_DATAIN));
    psensors_destroy();
}

TEST_F(transfer_step_death, of_no_bytes_at_all_fails_an_assertion)
{
    EXPECT_DEATH(fdio_int::transfer_out(job(1).get(), "", 0), asserts("count != 0"));
}

// ---- judging errors -------------------------------------------------------------------------------------------

TEST(transfer_error, is_forgiven_where_it_is_normal)
{
    struct {
        int err;
        uint32_t flags;
        int want;
    } const rows[] = {
        {EPIPE, FDIO_ERR_WRITE, 0},
        {EPIPE, FDIO_ERR_WRITE | FDIO_SENDFILE, 0},
        {EPIPE, FDIO_ERR_READ, EPIPE},
        {EPIPE, FDIO_SENDFILE, EPIPE},
        {EBUSY, FDIO_ERR_WRITE | FDIO_SENDFILE, 0},
        {EBUSY, FDIO_ERR_WRITE, EBUSY},
        {EBUSY, FDIO_SENDFILE, EBUSY},
        {EAGAIN, FDIO_ERR_WRITE, 0},
        {EAGAIN, FDIO_ERR_READ, 0},
        {EAGAIN, 0, 0},
        {EIO, FDIO_ERR_WRITE | FDIO_SENDFILE, EIO},
        {-1, FDIO_ERR_WRITE, -1},
    };
    for (const auto& r : rows)
        EXPECT_EQ(fdio_int::trf_err_correct(r.err, r.flags), r.want) << r.err << " " << r.flags;
}

TEST(transfer_error, is_told_with_the_side_that_failed)
{
    LogCapture log;
    EXPECT_EQ(fdio_int::trf_err_summary(EIO, 4, 3, 100, FDIO_ERR_READ), EIO);
    EXPECT_EQ(fdio_int::trf_err_summary(EIO, 4, 3, 100, FDIO_ERR_WRITE), EIO);
    EXPECT_EQ(fdio_int::trf_err_summary(EIO, 4, 3, 100, FDIO_ERR_READ | FDIO_ERR_WRITE), EIO);
    EXPECT_EQ(fdio_int::trf_err_summary(EIO, 4, 3, 100, 0), EIO);
    const std::string tail = " ERROR(5): Input/output error";
    EXPECT_EQ(log.messages(),
              (Lines{"transfer (3->4, 100 bytes) read" + tail, "transfer (3->4, 100 bytes) write" + tail,
                     "transfer (3->4, 100 bytes) read" + tail, "transfer (3->4, 100 bytes) ???" + tail}));
}

TEST(transfer_error, at_the_end_of_a_source_names_no_side)
{
    LogCapture log;
    EXPECT_EQ(fdio_int::trf_err_summary(EIO, 4, 3, 100, FDIO_EOF | FDIO_ERR_READ | FDIO_ERR_WRITE), EIO);
    EXPECT_EQ(log.messages(ll::debug), Lines{"transfer [100 bytes] (4<-3) end of stream"});
    EXPECT_EQ(log.messages(ll::error), Lines{"transfer (3->4, 100 bytes) ??? ERROR(5): Input/output error"});
}
