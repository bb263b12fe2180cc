// Paced transfers: a stream file goes out in the chunks that its index gives, with the time that each lasts.
#include "fdio.h"
#include "support/assert_kit.h"
#include "support/index_kit.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

using namespace ixk;

namespace
{

constexpr size_t UNITS = 7;
constexpr size_t RSIZE = UNITS * PKT;

struct paced : testing::Test {
    TempDir dir;
    const std::string ts = dir / "a.ts";
    const std::string ix_path = dir / "a.ix";
    bytes stream;
    std::vector<uint64_t> clocks;
    tsix_stream ix = {};
    transfer_spec t = {};
    Fd src, dst;
    off_t offset = 0;
    uint32_t flags = 0;
    ssize_t n = 0;
    size_t delay = 0;
    LogCapture log;

    ~paced() override
    {
        tsx_close(ix.tsx);
        fdio_destroy();
    }
    // A stream of `records` records with an even pace of `step` ticks each, and a job that copies it to a file.
    void begin(size_t records, uint64_t step, size_t max_bytes, size_t max_ms)
    {
        stream = stream_bytes({records * UNITS, {}});
        for (size_t i = 0; i < stream.size(); ++i)
            stream[i] = static_cast<uint8_t>(i * 31 + i / 999);
        for (uint64_t i = 1; i <= records; ++i)
            clocks.push_back(i * step);
        put_file(ts, stream);
        put_file(ix_path, index_file(clocks, UNITS));
        snprintf(ix.tspath, sizeof(ix.tspath), "%s", ts.c_str());
        ix.max_io_bytes = max_bytes;
        ix.max_io_delay = max_ms;
        ASSERT_NE(tsx_iter_open(&ix), nullptr);
        fdio_init(static_cast<ssize_t>(MIN_TRF_BUFSIZE));
        src = Fd(open_src_file(ts.c_str()));
        dst = Fd(open_dst_file((dir / "dst").c_str(), 0));
        t.in_fd = src.get();
        t.out_fd = dst.get();
        t.offset = &offset;
        t.flags = &flags;
        t.ix = &ix;
        log.clear();
    }
    int step(size_t count = 0) { return transfer(&t, count, &n, &delay); }
};

} // namespace

TEST_F(paced, sends_the_chunks_of_the_index_with_their_times)
{
    begin(100, 900, 8 * RSIZE, 1000);
    std::vector<run> runs;
    delay = 0;
    while (step() == 0) {
        ASSERT_FALSE(flags & FDIO_EOF);
        runs.push_back({static_cast<size_t>(n), delay});
        delay = 0;
    }
    EXPECT_EQ(runs, want_runs(clocks, RSIZE, stream.size(), 8 * RSIZE, 1000));
    EXPECT_EQ(file_bytes(dir / "dst"), stream);
    EXPECT_EQ(ix.o_left, 0);
}

TEST_F(paced, adds_to_the_delay_that_is_there)
{
    begin(100, 900, 2 * RSIZE, 1000);
    delay = 7;
    EXPECT_EQ(step(1), 0); // the count plays no part
    EXPECT_EQ(n, static_cast<ssize_t>(2 * RSIZE));
    EXPECT_EQ(delay, 20007u);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(delay, 40007u);
}

TEST_F(paced, moves_at_most_the_buffers_size_at_once)
{
    begin(100, 900, 100 * RSIZE, 10000);
    std::vector<std::pair<ssize_t, size_t>> steps;
    delay = 5;
    while (step() == 0)
        steps.push_back({n, delay});
    const auto buf = static_cast<ssize_t>(MIN_TRF_BUFSIZE);
    const auto rest = static_cast<ssize_t>(100 * RSIZE) - 2 * buf;
    ASSERT_GT(rest, 0);
    ASSERT_LT(rest, buf);
    EXPECT_EQ(steps, (std::vector<std::pair<ssize_t, size_t>>{{buf, 1000005}, {buf, 0}, {rest, 0}}));
    EXPECT_EQ(file_bytes(dir / "dst"), stream);
}

TEST_F(paced, goes_on_with_a_chunk_that_did_not_all_go_out)
{
    begin(100, 900, 50 * RSIZE, 1000);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    const Fd in(fds[0]), out(fds[1]);
    const long room = fcntl(out.get(), F_SETPIPE_SZ, 4096);
    ASSERT_GT(room, 0);
    ASSERT_LT(room, static_cast<long>(50 * RSIZE));
    t.out_fd = out.get();
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(n, room);
    EXPECT_EQ(delay, 500000u);
    EXPECT_EQ(ix.o_left, static_cast<ssize_t>(50 * RSIZE) - room);
    EXPECT_EQ(step(), -1); // no room
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(delay, 0u);
    EXPECT_EQ(ix.o_left, static_cast<ssize_t>(50 * RSIZE) - room);
    t.out_fd = dst.get();
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(n, static_cast<ssize_t>(50 * RSIZE) - room);
    EXPECT_EQ(ix.o_left, 0);
    EXPECT_EQ(file_bytes(dir / "dst"), bytes(stream.begin() + room, stream.begin() + 50 * RSIZE));
}

TEST_F(paced, notes_when_a_chunk_begins)
{
    begin(200, 900, 100 * RSIZE, 10000);
    struct timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(step(), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto nsec = [](const timespec& ts) { return ts.tv_sec * 1000000000LL + ts.tv_nsec; };
    EXPECT_GE(nsec(ix.last_otime), nsec(before));
    EXPECT_LE(nsec(ix.last_otime), nsec(after));
    const timespec first = ix.last_otime;
    EXPECT_EQ(step(), 0); // the chunk goes on
    EXPECT_EQ(nsec(ix.last_otime), nsec(first));
}

TEST_F(paced, ends_with_minus_1_and_no_error)
{
    begin(2, 900, 100 * RSIZE, 10000);
    EXPECT_EQ(step(), 0);
    log.clear();
    n = 99;
    delay = 7;
    errno = EIO;
    EXPECT_EQ(step(), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(delay, 7u);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(log.messages(ll::error), (std::vector<std::string>{}));
}

TEST_F(paced, fails_where_the_index_can_not_be_read_further)
{
    begin(20000, 9, RSIZE, 1000);
    tsx_close(ix.tsx);
    ix.max_cached = MIN_PLD_CACHED; // the records of one load at a time
    ASSERT_NE(tsx_iter_open(&ix), nullptr);
    ASSERT_EQ(truncate(ix_path.c_str(), 34 + 8 * 1000), 0);
    int rc;
    while ((rc = step()) == 0) {
    }
    EXPECT_EQ(errno, EIO);
    EXPECT_LT(offset, static_cast<off_t>(stream.size()));
    EXPECT_GT(offset, 0);
}

TEST_F(paced, sends_by_sendfile_too)
{
    begin(100, 900, 8 * RSIZE, 1000);
    flags = FDIO_SENDFILE;
    while (step() == 0)
        ASSERT_GT(n, 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(file_bytes(dir / "dst"), stream);
}

TEST_F(paced, sends_out_of_a_mapping_too)
{
    begin(100, 900, 8 * RSIZE, 1000);
    t.mmem = stream.data();
    t.mmlen = stream.size();
    t.mmem_out = 1;
    while (step() == 0)
        ASSERT_GT(n, 0);
    EXPECT_EQ(file_bytes(dir / "dst"), stream);
}

TEST_F(paced, out_of_a_mapping_needs_no_transfer_buffer)
{
    begin(100, 900, 100 * RSIZE, 10000);
    fdio_destroy();
    t.mmem = stream.data();
    t.mmlen = stream.size();
    t.mmem_out = 1;
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(n, static_cast<ssize_t>(100 * RSIZE));
    EXPECT_EQ(ix.o_left, 0);
    EXPECT_EQ(file_bytes(dir / "dst"), stream);
}

TEST_F(paced, without_a_place_for_the_delay_is_a_plain_transfer)
{
    begin(100, 900, 8 * RSIZE, 1000);
    EXPECT_EQ(transfer(&t, 1000, &n, nullptr), 0);
    EXPECT_EQ(n, 1000);
    EXPECT_EQ(ix.o_left, 0);
    // What has been begun goes down all the same.
    ix.o_left = 1500;
    EXPECT_EQ(transfer(&t, 1000, &n, nullptr), 0);
    EXPECT_EQ(ix.o_left, 500);
}

TEST_F(paced, shows_a_file_that_ends_before_its_index_as_the_end_of_a_source)
{
    begin(100, 900, 100 * RSIZE, 10000);
    ASSERT_EQ(truncate(ts.c_str(), 500), 0);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(n, 500);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(flags & FDIO_EOF);
}

TEST_F(paced, of_more_than_the_chunk_fails_an_assertion)
{
    begin(100, 900, RSIZE, 1000);
    ix.o_left = 500;
    EXPECT_DEATH(transfer(&t, 1000, &n, nullptr), asserts("tsp->ix->o_left >= 0"));
}
