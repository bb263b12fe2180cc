// The transfer engine with mapped memory: as the source of the bytes, and as their destination.
#include "support/assert_kit.h"
#include "support/transfer_kit.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

using namespace trk;

namespace
{

std::vector<ssize_t> g_filter_calls; // lengths

int note_call(void*, ssize_t len, ssize_t* new_len)
{
    g_filter_calls.push_back(len);
    *new_len = len;
    return 0;
}

} // namespace

TEST_F(transfer_step, by_mapping_goes_before_sendfile)
{
    const Fd dst = new_file("dst");
    std::string mem = "0123456789";
    flags = FDIO_SENDFILE;
    offset = 2;
    const job_ptr t = job(dst.get(), &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    EXPECT_EQ(transfer(t.get(), 5, &n, nullptr), 0);
    EXPECT_EQ(n, 5);
    EXPECT_EQ(offset, 7);
    EXPECT_EQ(flags, FDIO_SENDFILE);
    EXPECT_EQ(content("dst"), "23456");
    EXPECT_EQ(log.messages(ll::debug).back(),
              "transfer: " + num(src.get()) + "->" + num(dst.get()) + " [r5/w5  5 bytes], flags=0x100");
}

TEST_F(transfer_step, out_of_a_mapping_moves_nothing_at_its_end)
{
    const Fd dst = new_file("dst");
    std::string mem = "0123456789";
    const job_ptr t = job(dst.get(), &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    offset = 5;
    EXPECT_EQ(transfer(t.get(), 5, &n, nullptr), 0); // up to the end
    EXPECT_EQ(log.messages(ll::warning), Lines{});
    for (const off_t at : {off_t{10}, off_t{11}, off_t{-1}}) {
        log.clear();
        offset = at;
        EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), 0);
        EXPECT_EQ(n, 0);
        EXPECT_EQ(offset, at);
        EXPECT_EQ(flags, 0u); // users tell the end by the offset
        const Lines warnings = log.messages(ll::warning);
        ASSERT_EQ(warnings.size(), 1u);
        EXPECT_TRUE(warnings[0].starts_with("mm_out: attempt to reach over the end of buffer: buf=0x")) << warnings[0];
        EXPECT_TRUE(warnings[0].ends_with(", len=10, offset=" + std::to_string(at) + ", count=3 - new_count=0"))
            << warnings[0];
    }
    EXPECT_EQ(content("dst"), "56789");
}

TEST_F(transfer_step, over_the_end_of_a_mapping_is_cut)
{
    const Fd dst = new_file("dst");
    std::string mem = "0123456789";
    flags = FDIO_TRF_RWEQ;
    offset = 7;
    const job_ptr t = job(dst.get(), &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    EXPECT_EQ(transfer(t.get(), 4, &n, nullptr), 0);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(offset, 10);
    EXPECT_EQ(content("dst"), "789");
    EXPECT_TRUE(log.contains(", len=10, offset=7, count=4 - new_count=3"));
    EXPECT_TRUE(log.contains("mismatch: read/write=[4/3]")); // what was asked for counts as read
}

TEST_F(transfer_step, out_of_a_mapping_fails_with_the_write)
{
    std::string mem = "0123456789";
    offset = 2;
    const job_ptr t = job(src.get(), &offset); // can't be written
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    EXPECT_EQ(transfer(t.get(), 5, &n, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 2);
    EXPECT_EQ(flags, FDIO_ERR_WRITE);
}

TEST_F(transfer_step, out_of_a_mapping_sends_to_an_address)
{
    uint16_t port = 0;
    const Fd to = bound_socket(AF_INET, SOCK_DGRAM, &port);
    uint16_t own_port = 0;
    const Fd from = bound_socket(AF_INET, SOCK_DGRAM, &own_port);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string mem = "0123456789";
    flags = FDIO_SENDTO;
    offset = 3;
    const job_ptr t = job(from.get(), &offset, &addr, sizeof(addr));
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    EXPECT_EQ(transfer(t.get(), 4, &n, nullptr), 0);
    char got[20] = {};
    EXPECT_EQ(recv(to.get(), got, sizeof(got), 0), 4);
    EXPECT_STREQ(got, "3456");
}

TEST_F(transfer_step, into_a_mapping_reads_at_the_descriptors_own_position)
{
    std::string mem(10, '.');
    offset = 4;
    const job_ptr t = job(-1, &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), 0);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(offset, 7);
    EXPECT_EQ(mem, "...." + text.substr(0, 3) + "...");
    EXPECT_EQ(transfer(t.get(), 5, &n, nullptr), 0); // cut
    EXPECT_EQ(n, 3);
    EXPECT_EQ(mem, "...." + text.substr(0, 6));
    EXPECT_TRUE(log.contains("mm_in: attempt to reach over the end of buffer: buf=0x"));
    EXPECT_TRUE(log.contains(", len=10, offset=7, count=5 - new_count=3"));
}

TEST_F(transfer_step, into_a_mapping_tells_the_end_and_the_failure_of_the_source)
{
    std::string mem(10, '.');
    const Fd dst = new_file("dst");
    offset = 4;
    const job_ptr t = job(-1, &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    ASSERT_GT(lseek(src.get(), 0, SEEK_END), 0);
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), 0);
    EXPECT_EQ(flags, FDIO_EOF | FDIO_ERR_READ);
    t->in_fd = dst.get(); // can't be read
    t->inproc = never_called;
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(flags, FDIO_ERR_READ);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 4);
    EXPECT_EQ(mem, "..........");
}

TEST_F(transfer_step, into_a_mapping_has_the_filter_called_at_the_end_too)
{
    std::string mem(10, '.');
    const job_ptr t = job(-1, &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->inproc = note_call;
    ASSERT_GT(lseek(src.get(), 0, SEEK_END), 0);
    for (const off_t at : {off_t{4}, off_t{10}, off_t{11}, off_t{-1}}) { // the source's end, then the mapping's, too
        g_filter_calls = {};
        offset = at;
        EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), 0);
        EXPECT_EQ(g_filter_calls, std::vector<ssize_t>{0}) << at;
        EXPECT_TRUE(flags & FDIO_EOF);
        EXPECT_EQ(offset, at);
    }
    t->inproc = refuse;
    offset = 4;
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), -1);
    EXPECT_EQ(errno, -77);
}

TEST_F(transfer_step, into_a_mapping_has_a_filter_work_on_what_was_read)
{
    std::string mem(10, '.');
    offset = 4;
    const job_ptr t = job(-1, &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->inproc = first_half;
    EXPECT_EQ(transfer(t.get(), 6, &n, nullptr), 0);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(offset, 7);
    EXPECT_EQ(flags, 0u);
    t->inproc = leave_nothing;
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(offset, 7);
    EXPECT_EQ(flags, 0u); // something was read
    t->inproc = refuse;
    EXPECT_EQ(transfer(t.get(), 3, &n, nullptr), -1);
    EXPECT_EQ(errno, -77);
    EXPECT_EQ(offset, 7);
}

using transfer_step_death = transfer_step;

TEST_F(transfer_step_death, by_mapping_without_an_offset_fails_an_assertion)
{
    char mem[4] = {};
    const job_ptr t = job(1);
    t->mmem = mem;
    t->mmlen = sizeof(mem);
    EXPECT_DEATH(transfer(t.get(), 1, &n, nullptr), asserts("tsp->offset"));
}

TEST_F(transfer_step_death, out_of_a_mapping_without_a_buffer_fails_an_assertion)
{
    // A step's size comes from the buffer; one that moved nothing would look like the end of the source.
    fdio_destroy();
    std::string mem = "0123456789";
    const job_ptr t = job(1, &offset);
    t->mmem = mem.data();
    t->mmlen = mem.size();
    t->mmem_out = 1;
    EXPECT_DEATH(transfer(t.get(), 5, &n, nullptr), asserts("count != 0"));
}
