// Building and opening an index with each inner call failing in turn.
//
// The program is linked with --wrap for the calls below: the library's calls end here first. The n-th call of one kind
// fails, and what must not be left behind is looked for.
#include "lib/tsix_int.h"
#include "support/index_kit.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

using namespace ixk;
using strings = std::vector<std::string>;

namespace
{

enum kind { NONE, FSTAT, CALLOC, LSEEK, NREAD, NWRITE, CLOSE };

kind g_kind = NONE;
int g_turn = 0;         // of that kind's calls, from 1: the one that fails
int g_calls = 0;        // of that kind, so far
size_t g_callocd = 0;   // bytes asked for
bool g_pieces = false;  // reads and writes move a few bytes at a time
bool g_partial = false; // a failing read or write moves half of its bytes instead, and the next one none

// True if a call of this kind has to fail.
bool fails(kind k)
{
    return k == g_kind && ++g_calls >= g_turn && (g_partial || g_calls == g_turn);
}

} // namespace

extern "C" {
int __real_fstat(int fd, struct stat* st);
int __wrap_fstat(int fd, struct stat* st)
{
    if (!fails(FSTAT)) return __real_fstat(fd, st);
    errno = EOVERFLOW;
    return -1;
}
void* __real__Z8W_callocPKcmm(const char* caller, size_t count, size_t size);
void* __wrap__Z8W_callocPKcmm(const char* caller, size_t count, size_t size)
{
    if (fails(CALLOC)) {
        errno = EAGAIN; // not what a caller may pass on
        return nullptr;
    }
    g_callocd += count * size;
    return __real__Z8W_callocPKcmm(caller, count, size);
}
off_t __real__Z7W_lseekPKcili(const char* caller, int fd, off_t offset, int whence);
off_t __wrap__Z7W_lseekPKcili(const char* caller, int fd, off_t offset, int whence)
{
    return fails(LSEEK) ? -1 : __real__Z7W_lseekPKcili(caller, fd, offset, whence);
}
ssize_t __real__Z5nreadiPcmj(int fd, char* buf, size_t count, uint32_t flags);
ssize_t __wrap__Z5nreadiPcmj(int fd, char* buf, size_t count, uint32_t flags)
{
    if (g_pieces) count = std::min<size_t>(count, 5);
    if (!fails(NREAD)) return __real__Z5nreadiPcmj(fd, buf, count, flags);
    if (g_partial && g_calls == g_turn) return __real__Z5nreadiPcmj(fd, buf, count / 2, flags);
    return g_partial ? 0 : -1;
}
ssize_t __real__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags);
ssize_t __wrap__Z6nwriteiPKcmj(int fd, const char* buf, size_t count, uint32_t flags)
{
    if (g_pieces) count = std::min<size_t>(count, 5);
    if (!fails(NWRITE)) return __real__Z6nwriteiPKcmj(fd, buf, count, flags);
    if (g_partial && g_calls == g_turn) return __real__Z6nwriteiPKcmj(fd, buf, count / 2, flags);
    return -1;
}
int __real__Z7W_closePKci(const char* caller, int fd);
int __wrap__Z7W_closePKci(const char* caller, int fd)
{
    const int rc = __real__Z7W_closePKci(caller, fd);
    return fails(CLOSE) ? -1 : rc;
}
}

namespace
{

constexpr size_t RSIZE = 7 * PKT;

size_t open_descriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

struct tsix_fault : testing::Test {
    TempDir dir;
    std::string ts = dir / "a.ts";
    std::string ix = dir / "a.ix";
    LogCapture log{&g_log, ll::error};
    stream_plan plan = even_plan(50, 3, 10, 3600);
    size_t descriptors = open_descriptors();

    tsix_fault() { put_file(ts, stream_bytes(plan)); }
    ~tsix_fault() override { g_kind = NONE; }

    void fail(kind k, int turn, bool partial = false)
    {
        g_kind = k;
        g_turn = turn;
        g_calls = 0;
        g_partial = partial;
    }
    int make()
    {
        const int rc = tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, 0, 0);
        g_kind = NONE;
        EXPECT_EQ(open_descriptors(), descriptors);
        return rc;
    }
    // The error number of a failed open, 0 of a good one.
    int open_error()
    {
        errno = 0;
        tsix_t t = tsx_open(ts.c_str(), ix.c_str(), 0, 0);
        const int err = errno;
        g_kind = NONE;
        const bool is_open = t != nullptr;
        tsx_close(t);
        EXPECT_EQ(open_descriptors(), descriptors);
        return is_open ? 0 : err;
    }
    // What is at the index path: its first byte, or 0.
    char mark() const
    {
        const bytes b = file_bytes(ix);
        return b.empty() ? '\0' : static_cast<char>(b[0]);
    }
};

} // namespace

TEST_F(tsix_fault, a_size_that_can_not_be_told_fails_the_open)
{
    fail(FSTAT, 1);
    EXPECT_EQ(make(), -1);
    EXPECT_TRUE(log.contains("ts_open: fstat(fd"));
    EXPECT_TRUE(log.contains("..) ERROR(75): Value too large for defined data type"));
    fail(FSTAT, 1);
    EXPECT_EQ(open_error(), EOVERFLOW);
}

TEST_F(tsix_fault, a_context_without_memory_is_enomem)
{
    fail(CALLOC, 1);
    EXPECT_EQ(open_error(), ENOMEM);
}

TEST_F(tsix_fault, a_build_without_memory_fails_and_leaves_no_index)
{
    // The context, the load, the array, the path's copy.
    for (int turn = 1; turn <= 4; ++turn) {
        fail(CALLOC, turn);
        EXPECT_EQ(make(), -1) << turn;
        EXPECT_EQ(mark(), '\0') << turn;
    }
    fail(CALLOC, 5);
    EXPECT_EQ(make(), 0);
}

TEST_F(tsix_fault, an_open_without_memory_fails)
{
    ASSERT_EQ(make(), 0);
    // The context, the path's copy, the array.
    for (int turn = 1; turn <= 3; ++turn) {
        fail(CALLOC, turn);
        EXPECT_NE(open_error(), 0) << turn;
    }
    fail(CALLOC, 4);
    EXPECT_EQ(open_error(), 0);
}

TEST_F(tsix_fault, a_position_that_can_not_be_told_or_taken_fails_the_build)
{
    fail(LSEEK, 1);
    EXPECT_EQ(make(), -1); // of the load
    EXPECT_EQ(mark(), '\0');
    fail(LSEEK, 2);
    EXPECT_EQ(make(), -1); // of the header's second writing
    EXPECT_EQ(mark(), '#');
}

TEST_F(tsix_fault, a_load_that_can_not_be_read_fails_the_build)
{
    for (const bool partial : {false, true}) {
        fail(NREAD, 1, partial);
        EXPECT_EQ(make(), -1);
        EXPECT_EQ(mark(), '\0');
    }
    EXPECT_EQ(log.count("load_buf: (0x"), 2u);
    EXPECT_TRUE(log.contains("expected/read: 9400/-1"));
    EXPECT_TRUE(log.contains("expected/read: 9400/4700"));
}

TEST_F(tsix_fault, a_first_header_that_can_not_be_written_is_taken_back)
{
    fail(NWRITE, 1);
    EXPECT_EQ(make(), -1);
    EXPECT_EQ(mark(), '\0');
    EXPECT_EQ(plain(log.messages()), strings{"create_ix: (P) header write: -1/34 bytes"});
    log.clear();
    fail(NWRITE, 1, true);
    EXPECT_EQ(make(), -1);
    EXPECT_EQ(mark(), '\0');
    EXPECT_EQ(plain(log.messages()), strings{"create_ix: (P) header write: 17/34 bytes"});
}

TEST_F(tsix_fault, records_that_can_not_be_written_leave_the_index_incomplete)
{
    for (int turn = 2; turn <= 3; ++turn) { // behind the load, behind the tail
        for (const bool partial : {false, true}) {
            fail(NWRITE, turn, partial);
            EXPECT_EQ(make(), -1) << turn;
            EXPECT_EQ(mark(), '#') << turn;
            unlink(ix.c_str());
        }
    }
}

TEST_F(tsix_fault, a_last_header_that_can_not_be_written_leaves_the_index_incomplete)
{
    fail(NWRITE, 4);
    EXPECT_EQ(make(), -1);
    EXPECT_EQ(mark(), '#');
    EXPECT_EQ(plain(log.messages()), strings{"close_ix: (P) header write: -1/34 bytes"});
}

TEST_F(tsix_fault, an_index_that_can_not_be_closed_is_a_failure)
{
    fail(CLOSE, 1);
    EXPECT_EQ(make(), -1);
}

TEST_F(tsix_fault, writes_and_reads_in_pieces_are_put_together)
{
    g_pieces = true;
    ASSERT_EQ(make(), 0);
    EXPECT_EQ(file_bytes(ix), index_file(want_clocks(plan, 7), 7));
    EXPECT_EQ(open_error(), 0);
    g_pieces = false;
}

TEST_F(tsix_fault, a_build_takes_the_same_memory_for_any_file)
{
    size_t taken[2];
    for (int i = 0; i < 2; ++i) {
        put_file(ts, stream_bytes(even_plan(i == 0 ? 12000 : 48000, 3, 10, 3600)));
        unlink(ix.c_str());
        g_callocd = 0;
        ASSERT_EQ(tsx_mkix(ts.c_str(), ix.c_str(), RSIZE, MIN_PLD_CACHED, 0), 0);
        taken[i] = g_callocd;
    }
    EXPECT_EQ(taken[0], taken[1]);
    EXPECT_LT(taken[1], MIN_PLD_CACHED + MIN_PLD_CACHED / 64);
}
