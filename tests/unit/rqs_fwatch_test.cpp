// File watches: what inotify reports of a file, and the one descriptor that serves all watches.
#include "rqs.h"

#include "lib/gkh_int.h"
#include "log.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/log_capture.h"
#include "support/loop_kit.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

struct Owner {
    int wd = -1;
};

class FwatchTest : public LoopTest
{
protected:
    FwatchTest()
    {
        write_file(path, "");
        on_file = [](int, int, void*, void*) { return 0; };
        // A turn that brings nothing more is the last.
        wait_at_most_ms(0);
        on_idle = [] {
            if (g_rqs.events.len == 0) g_quit = 1;
            return 0;
        };
    }
    ~FwatchTest() override { fail_alloc::at(0); }

    // Runs the loop until the inotify descriptor has nothing more to tell.
    int run()
    {
        g_quit = 0;
        trace.clear();
        return rqs_event_loop();
    }

    // The calls of on_file_modified of the last run.
    Trace file_calls() const
    {
        Trace out;
        for (const std::string& t : trace)
            if (t.starts_with("file ")) out.push_back(t);
        return out;
    }

    // A write to the file without opening it anew, so that it gives one record.
    void append() const { ASSERT_EQ(write(file.get(), "x", 1), 1); }
    void open_file() { file = Fd(open(path.c_str(), O_WRONLY | O_APPEND)); }
    // So many records that the kernel can't merge.
    void records(int n) const
    {
        for (int i = 0; i < n; ++i) {
            if (i % 2 == 0) {
                append();
            } else {
                ASSERT_EQ(fchmod(file.get(), 0644), 0);
            }
        }
    }

    TempDir dir;
    const std::string path = dir / "f";
    Fd file;
    Owner owner;
};

} // namespace

// ---- watches come and go --------------------------------------------------------------------------------------

TEST_F(FwatchTest, the_first_watch_has_the_descriptor_polled_and_the_last_has_it_dropped)
{
    start();
    EXPECT_EQ(rqs_fd_count(0), 0u);
    write_file(dir / "g", "");
    Owner other;
    LogCapture log;
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_GT(owner.wd, 0);
    EXPECT_TRUE(g_ino.in_epoll);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    other.wd = rqs_add_file_watch(&other, (dir / "g").c_str());
    EXPECT_EQ(rqs_fd_count(1), 1u);
    EXPECT_EQ(g_ino.wfd_count, 2);
    EXPECT_EQ(log.count(text_of("inotify fd%d will be watched.", g_ino.fd)), 1u);
    EXPECT_TRUE(log.contains(text_of("rqs_add_file_watch: inotify watch=%d for [%s]: udata=%p, wfd_count=1", owner.wd,
                                     path.c_str(), static_cast<void*>(&owner))));
    EXPECT_TRUE(log.contains(text_of("wfd_map_add: wfd=%d, udata=%p", owner.wd, static_cast<void*>(&owner))));

    log.clear();
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), 0);
    EXPECT_TRUE(g_ino.in_epoll);
    EXPECT_EQ(g_ino.wfd_count, 1);
    EXPECT_EQ(log.messages(),
              Lines{text_of("wfd_map_rm: wfd=%d, udata=%p removed.", owner.wd, static_cast<void*>(&owner))});
    EXPECT_EQ(rqs_rm_file_watch(other.wd), 0);
    EXPECT_FALSE(g_ino.in_epoll);
    EXPECT_EQ(g_ino.wfd_count, 0);
    EXPECT_EQ(rqs_fd_count(0), 0u);
    EXPECT_EQ(log.count(text_of("inotify fd%d is no longer watched.", g_ino.fd)), 1u);

    log.clear();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    EXPECT_GT(owner.wd, 0);
    EXPECT_TRUE(g_ino.in_epoll);
    EXPECT_EQ(log.count(text_of("inotify fd%d will be watched.", g_ino.fd)), 1u);
    EXPECT_TRUE(rqs_validate());
}

TEST_F(FwatchTest, the_table_has_a_thousand_mixed_slots)
{
    start();
    const auto* tbl = gkh_int::table_of(g_ino.wfd_ht);
    EXPECT_EQ(tbl->rlen, 1024u);
    EXPECT_EQ(tbl->icalc, tw_shift);
}

TEST_F(FwatchTest, what_is_not_there_cannot_be_watched)
{
    start();
    const std::string missing = dir / "missing";
    LogCapture log;
    EXPECT_EQ(rqs_add_file_watch(&owner, missing.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.messages(), Lines{text_of("rqs_add_file_watch: inotify_add_watch(%p, '%s', 3086) ERROR(%d): %s",
                                            static_cast<void*>(&owner), missing.c_str(), ENOENT, strerror(ENOENT))});
    EXPECT_FALSE(g_ino.in_epoll);
    EXPECT_EQ(g_ino.wfd_count, 0);
}

// By design: the second watch on a file gets the number of the first from the kernel, so giving it back ends both.
TEST_F(FwatchTest, a_second_watch_on_a_file_fails_and_ends_the_first)
{
    start();
    open_file();
    ASSERT_EQ(symlink(path.c_str(), (dir / "link").c_str()), 0);
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    Owner other;
    LogCapture log;
    EXPECT_EQ(rqs_add_file_watch(&other, (dir / "link").c_str()), -1);
    EXPECT_EQ(log.messages(),
              Lines{text_of("wfd_map_add: key wfd=%d is already taken [%p]", owner.wd, static_cast<void*>(&owner))});
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_EQ(g_ino.wfd_count, 1);
    append();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{});
}

TEST_F(FwatchTest, a_watch_that_finds_no_memory_is_given_back)
{
    start();
    open_file();
    LogCapture log;
    fail_alloc::at(1);
    EXPECT_EQ(rqs_add_file_watch(&owner, path.c_str()), -1);
    EXPECT_EQ(fail_alloc::countdown, 0);
    EXPECT_TRUE(log.contains(
        text_of("wfd_map_add: ERROR(12) adding wfd=1, udata=%p: %s", static_cast<void*>(&owner), strerror(ENOMEM))));
    EXPECT_FALSE(log.contains("inotify_rm_watch"));
    EXPECT_EQ(g_ino.wfd_count, 0);
    EXPECT_EQ(inotify_rm_watch(g_ino.fd, 1), -1) << "the kernel has it still";
    EXPECT_TRUE(rqs_validate());
}

TEST_F(FwatchTest, a_watch_that_cannot_be_polled_is_given_back)
{
    start();
    struct epoll_event ev = {};
    ASSERT_EQ(epoll_ctl(g_rqs.loopfd, EPOLL_CTL_ADD, g_ino.fd, &ev), 0); // so that the loop's own attempt fails
    LogCapture log;
    EXPECT_EQ(rqs_add_file_watch(&owner, path.c_str()), -1);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.contains("do_epoll_watch: epoll_ctl("));
    EXPECT_FALSE(g_ino.in_epoll);
    EXPECT_EQ(g_ino.wfd_count, 0);
    EXPECT_EQ(nkht_count(g_ino.wfd_ht), 0u);
    EXPECT_EQ(inotify_rm_watch(g_ino.fd, 1), -1) << "the kernel has it still";
}

TEST_F(FwatchTest, the_end_of_an_unknown_watch_is_a_failure)
{
    start();
    LogCapture log;
    EXPECT_EQ(rqs_rm_file_watch(77), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.messages(), Lines{text_of("rqs_rm_file_watch: inotify_rm_watch(%d, 77) ERROR(%d): %s", g_ino.fd,
                                            EINVAL, strerror(EINVAL))});
    EXPECT_EQ(g_ino.wfd_count, 0);
}

TEST_F(FwatchTest, more_watches_ended_than_begun_is_an_assertion)
{
    start();
    const int wd = inotify_add_watch(g_ino.fd, path.c_str(), IN_MODIFY); // behind the loop's back
    LogCapture log;
    EXPECT_DEATH(rqs_rm_file_watch(wd), asserts("g_ino.wfd_count >= 0"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
}

TEST_F(FwatchTest, the_end_of_a_watch_that_the_table_does_not_know_is_a_failure)
{
    start();
    write_file(dir / "g", "");
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const int wd = inotify_add_watch(g_ino.fd, (dir / "g").c_str(), IN_MODIFY);
    LogCapture log;
    EXPECT_EQ(rqs_rm_file_watch(wd), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{text_of("wfd_map_rm: wfd=%d is not found.", wd)});
}

TEST_F(FwatchTest, a_descriptor_that_cannot_be_dropped_stays_noted_as_polled)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_EQ(epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, g_ino.fd, nullptr), 0);
    LogCapture log;
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), 0) << "the result is the table's";
    EXPECT_TRUE(g_ino.in_epoll);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_FALSE(log.contains("is no longer watched."));

    log.clear();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    EXPECT_GT(owner.wd, 0);
    EXPECT_FALSE(log.contains("do_epoll_watch: ")) << "as far as the loop knows it is polled still";
}

TEST_F(FwatchTest, a_broken_table_is_reported_by_its_error)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    open_file();
    append();
    auto* tbl = gkh_int::table_of(g_ino.wfd_ht);
    const size_t rlen = tbl->rlen;
    const size_t poll_fds = g_rqs.poll_fds;
    LogCapture log;
    tbl->rlen = 0;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log.messages(ll::error), Lines{text_of("wfd_map_get: ERROR(%d): %s", EINVAL, strerror(EINVAL))});
    log.clear();
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), -1);
    EXPECT_EQ(log.messages(ll::error), Lines{text_of("wfd_map_rm: ERROR(%d): %s", EINVAL, strerror(EINVAL))});
    EXPECT_EQ(g_rqs.poll_fds, poll_fds - 1);
    tbl->rlen = rlen;
}

TEST_F(FwatchTest, the_end_of_the_loop_ends_all_watches)
{
    start();
    ASSERT_GT(rqs_add_file_watch(&owner, path.c_str()), 0);
    rqs_destroy();
    EXPECT_EQ(g_ino.fd, -1);
    EXPECT_FALSE(g_ino.in_epoll);
    EXPECT_EQ(g_ino.wfd_count, 0);
    EXPECT_EQ(g_ino.wfd_ht, nullptr);
    LogCapture log;
    EXPECT_EQ(rqs_add_file_watch(&owner, path.c_str()), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- what is reported -----------------------------------------------------------------------------------------

TEST_F(FwatchTest, a_write_is_reported_without_flags)
{
    start();
    open_file();
    on_file = [&](int wd, int flags, void* udata, void* aux) {
        EXPECT_EQ(wd, owner.wd);
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(udata, &owner);
        EXPECT_EQ(aux, nullptr);
        EXPECT_EQ(rqs_ctx(RQS_CTX_STAGE, nullptr), RQS_STAGE_DISPATCH);
        return 0;
    };
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    append();
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)});
    EXPECT_TRUE(log.contains("process_inotify_records: 16/16 bytes of inotify data expected/read"));
    EXPECT_TRUE(log.contains(
        text_of("INOTIFY (ev=%p): wd%d, mask=0x0002 [y] cookie=0 []", static_cast<void*>(g_ino.buf), owner.wd)));
    EXPECT_TRUE(log.contains("process_inotify_records: 1 inotify_event records processed"));
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST_F(FwatchTest, the_close_of_a_writer_is_reported_without_flags)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    file = Fd();
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)});
    EXPECT_TRUE(log.contains("mask=0x0008 [W]"));
}

TEST_F(FwatchTest, a_change_of_attributes_is_reported)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd, RQS_ATTR)});
    EXPECT_TRUE(log.contains("mask=0x0004 [T]"));
}

TEST_F(FwatchTest, a_move_is_reported_and_the_watch_goes_with_the_file)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    open_file();
    ASSERT_EQ(rename(path.c_str(), (dir / "f.1").c_str()), 0);
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd, RQS_RMV | RQS_FMOVED)});
    EXPECT_TRUE(log.contains("mask=0x0800 [M]"));
    append();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)});
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), 0);
}

TEST_F(FwatchTest, a_deletion_is_reported_and_the_watch_that_the_kernel_ended_stays_in_the_table)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_EQ(unlink(path.c_str()), 0);
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), (Trace{file_of(owner.wd, RQS_ATTR), file_of(owner.wd, RQS_RMV | RQS_FDELETED)}));
    EXPECT_TRUE(log.contains("mask=0x0400 [D]"));
    EXPECT_TRUE(log.contains("process_inotify_records: IN_IGNORED (0x8000)"));
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_EQ(log.messages(ll::warning), Lines{});
    EXPECT_EQ(nkht_get(g_ino.wfd_ht, owner.wd, nullptr), 0);
    EXPECT_EQ(g_ino.wfd_count, 1);

    // By design: what the kernel has ended can't be ended again, and goes on counting.
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), -1);
    EXPECT_EQ(nkht_get(g_ino.wfd_ht, owner.wd, nullptr), 0);
    EXPECT_EQ(g_ino.wfd_count, 1);
    EXPECT_TRUE(g_ino.in_epoll);
}

TEST_F(FwatchTest, the_deletion_of_a_file_held_open_is_a_change_of_attributes)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd, RQS_ATTR)});
    EXPECT_EQ(rqs_rm_file_watch(owner.wd), 0);
    EXPECT_EQ(rqs_fd_count(0), 0u);
}

TEST_F(FwatchTest, one_record_may_say_several_things)
{
    // Two masks in one record: attributes and a move don't come together from the kernel, so it is written by hand.
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    LoopPipe p;
    inotify_event ev = {};
    ev.wd = owner.wd;
    ev.mask = IN_MOVE_SELF | IN_DELETE_SELF | IN_ATTRIB | IN_MODIFY;
    ASSERT_EQ(write(p.out.get(), &ev, sizeof(ev)), static_cast<ssize_t>(sizeof(ev)));
    const Fd kept(dup(g_ino.fd)); // the epoll set knows the inotify instance by what is behind the descriptor
    ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
    open_file();
    append(); // wakes the loop, which reads the pipe
    on_file = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd, RQS_RMV | RQS_FMOVED | RQS_FDELETED | RQS_ATTR)});
    EXPECT_EQ(RQS_RMV | RQS_FMOVED | RQS_FDELETED | RQS_ATTR, 4 + 65536 + 131072 + 262144);
}

TEST_F(FwatchTest, the_result_of_the_callback_is_not_looked_at)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    on_file = [](int, int, void*, void*) { return -1; };
    append();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls().size(), 1u);
}

TEST_F(FwatchTest, without_a_callback_or_an_owner_nothing_happens)
{
    start();
    open_file();
    const int wd = rqs_add_file_watch(nullptr, path.c_str());
    ASSERT_GT(wd, 0);
    append();
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{});
    EXPECT_EQ(log.messages(ll::error), Lines{});
    rqs_destroy();

    on_file = nullptr;
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    append();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{});
    EXPECT_EQ(log.messages(ll::error), Lines{});
}

TEST_F(FwatchTest, a_record_of_a_watch_that_nobody_has_is_reported)
{
    start();
    write_file(dir / "g", "");
    owner.wd = rqs_add_file_watch(&owner, (dir / "g").c_str());
    const int wd = inotify_add_watch(g_ino.fd, path.c_str(), IN_MODIFY);
    open_file();
    append();
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{});
    EXPECT_EQ(log.messages(ll::error), Lines{text_of("wfd_map_get: wfd=%d is not found.", wd)});
}

TEST_F(FwatchTest, a_record_of_another_kind_is_a_warning)
{
    start();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    ASSERT_GT(inotify_add_watch(g_ino.fd, dir.path().c_str(), IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO), 0);
    write_file(dir / "new", "");
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log.messages(ll::warning), Lines{"process_inotify_records: unhandled inotify mask: 0x100"});
    EXPECT_TRUE(log.contains("mask=0x0100 [c] cookie=0 [new]")) << "the record's name comes last";
}

TEST_F(FwatchTest, records_that_the_kernel_had_to_drop_are_a_warning)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const Fd kept(dup(g_ino.fd));
    LoopPipe p;
    inotify_event ev = {};
    ev.wd = -1; // of no watch
    ev.mask = IN_Q_OVERFLOW;
    ASSERT_EQ(write(p.out.get(), &ev, sizeof(ev)), static_cast<ssize_t>(sizeof(ev)));
    ev.wd = owner.wd;
    ev.mask = IN_MODIFY;
    ASSERT_EQ(write(p.out.get(), &ev, sizeof(ev)), static_cast<ssize_t>(sizeof(ev)));
    ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
    append();
    on_file = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log.messages(ll::warning), Lines{"process_inotify_records: unhandled inotify mask: 0x4000"});
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)}) << "the walk goes on";
}

TEST_F(FwatchTest, the_mask_is_spelled_in_letters)
{
    const struct {
        uint32_t mask;
        const char* text;
    } rows[] = {
        {0x001, "mask=0x0001 [A]"}, {0x004, "mask=0x0004 [T]"},
        {0x100, "mask=0x0100 [c]"}, {0x200, "mask=0x0200 [d]"},
        {0x400, "mask=0x0400 [D]"}, {0x002, "mask=0x0002 [y]"},
        {0x800, "mask=0x0800 [M]"}, {0x040, "mask=0x0040 [f]"},
        {0x080, "mask=0x0080 [t]"}, {0x020, "mask=0x0020 [O]"},
        {0x008, "mask=0x0008 [W]"}, {0x010, "mask=0x0010 [w]"},
        {0x8000, "mask=0x8000 []"}, {0xfff, "mask=0x0fff [ATcdDyMftOWw]"},
    };
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    LoopPipe p;
    for (const auto& r : rows) {
        inotify_event ev = {};
        ev.wd = owner.wd;
        ev.mask = r.mask;
        ev.cookie = 4000000000;
        ASSERT_EQ(write(p.out.get(), &ev, sizeof(ev)), static_cast<ssize_t>(sizeof(ev)));
    }
    const Fd kept(dup(g_ino.fd));
    ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
    append();
    on_file = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    LogCapture log;
    EXPECT_EQ(run(), 0);
    Lines dumps;
    for (const std::string& m : log.messages(ll::debug))
        if (m.starts_with("INOTIFY ")) dumps.push_back(m.substr(m.find("mask=")));
    Lines expected;
    for (const auto& r : rows)
        expected.push_back(std::string(r.text) + " cookie=4000000000 []");
    EXPECT_EQ(dumps, expected);
    EXPECT_TRUE(log.contains("process_inotify_records: 14 inotify_event records processed"));
}

// ---- bursts and failures --------------------------------------------------------------------------------------

TEST_F(FwatchTest, a_burst_that_fills_the_buffer_is_read_whole)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    records(256);
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls().size(), 256u);
    EXPECT_TRUE(log.contains("process_inotify_records: 4096/4096 bytes of inotify data expected/read"));
    EXPECT_TRUE(log.contains("process_inotify_records: 256 inotify_event records processed"));
}

// By design: the buffer is not drained in parts.
TEST_F(FwatchTest, a_burst_beyond_the_buffer_is_a_failure_each_time)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    records(257);
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
        log.clear();
        EXPECT_EQ(run(), 1);
        EXPECT_EQ(file_calls(), Trace{});
        EXPECT_EQ(log.messages(ll::error),
                  Lines{"process_inotify_records: incompatible buffer size (avail=4112 bytes, max=4096)"});
    }
}

TEST_F(FwatchTest, a_descriptor_that_is_not_ready_after_all_is_a_failure)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    LoopPipe p; // nothing in it
    const Fd kept(dup(g_ino.fd));
    ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
    append();
    LogCapture log;
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_EQ(file_calls(), Trace{});
}

TEST_F(FwatchTest, a_descriptor_that_tells_its_bytes_and_cannot_be_read_is_a_failure)
{
    write_file(dir / "g", "sixteen bytes ..");
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const Fd kept(dup(g_ino.fd));
    const Fd other(open((dir / "g").c_str(), O_WRONLY));
    ASSERT_EQ(dup2(other.get(), g_ino.fd), g_ino.fd);
    append();
    LogCapture log;
    EXPECT_EQ(run(), 1);
    EXPECT_FALSE(log.contains("bytes of inotify data expected/read"));
    EXPECT_EQ(log.messages(ll::error).size(), 1u) << "the read's own";
    EXPECT_EQ(file_calls(), Trace{});
}

TEST_F(FwatchTest, a_descriptor_that_does_not_tell_its_bytes_is_a_failure)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const Fd kept(dup(g_ino.fd));
    const Fd other(open("/dev/null", O_RDONLY));
    ASSERT_EQ(dup2(other.get(), g_ino.fd), g_ino.fd);
    append();
    LogCapture log;
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(log.messages(ll::error),
              Lines{text_of("process_inotify_records: ioctl FIONREAD ERROR(%d): %s", ENOTTY, strerror(ENOTTY))});
}

TEST_F(FwatchTest, a_record_cut_short_is_a_failure)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const Fd kept(dup(g_ino.fd));
    const struct {
        uint32_t len;
        size_t bytes;
    } rows[] = {{0, 15}, {1, 16}, {17, 32}, {UINT32_MAX, 32}};
    for (const auto& r : rows) {
        LoopPipe p;
        char raw[64] = {};
        inotify_event ev = {};
        ev.wd = owner.wd;
        ev.mask = IN_MODIFY;
        ev.len = r.len;
        memcpy(raw, &ev, sizeof(ev));
        ASSERT_EQ(write(p.out.get(), raw, r.bytes), static_cast<ssize_t>(r.bytes));
        ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
        append();
        LogCapture log;
        EXPECT_EQ(run(), 1);
        EXPECT_EQ(file_calls(), Trace{});
        EXPECT_EQ(log.messages(ll::error),
                  Lines{text_of("process_inotify_records: broken inotify record at byte 0 of %zu", r.bytes)});
    }
}

TEST_F(FwatchTest, a_name_without_its_zero_is_no_name)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    const Fd kept(dup(g_ino.fd));
    LoopPipe p;
    char raw[20];
    inotify_event ev = {};
    ev.wd = owner.wd;
    ev.mask = IN_MODIFY;
    ev.len = 4;
    memcpy(raw, &ev, sizeof(ev));
    memcpy(raw + sizeof(ev), "abcd", 4);
    ASSERT_EQ(write(p.out.get(), raw, sizeof(raw)), static_cast<ssize_t>(sizeof(raw)));
    ASSERT_EQ(dup2(p.in.get(), g_ino.fd), g_ino.fd);
    append();
    on_file = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(log.contains("mask=0x0002 [y] cookie=0 []"));
}

TEST_F(FwatchTest, an_error_on_the_descriptor_aborts)
{
    start();
    LoopPipe p;
    p.feed();
    p.out = Fd();
    ASSERT_EQ(rqs_add_reader(p.in.get(), &g_ino), 0); // readable, with a hang-up
    LogCapture log;
    EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.messages(ll::panic),
              (Lines{text_of("process_inotify_records: error condition on inotify fd=%d", g_ino.fd), "Aborting at:"}));
}

TEST_F(FwatchTest, the_tag_belongs_to_the_inotify_record_alone)
{
    start();
    LoopPipe p;
    p.feed();
    n32_tag impostor = {{'i', 'n', 'o', '\0'}};
    ASSERT_EQ(rqs_add_reader(p.in.get(), &impostor), 0);
    LogCapture log;
    EXPECT_DEATH(run(), asserts("udata == &g_ino"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
}

// ---- watches change in a callback -----------------------------------------------------------------------------

TEST_F(FwatchTest, a_watch_may_end_itself_in_its_callback)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    on_file = [&](int wd, int, void*, void*) { return rqs_rm_file_watch(wd); };
    append();
    ASSERT_EQ(fchmod(file.get(), 0600), 0); // a record that nobody waits for any more when its turn comes
    LogCapture log;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)});
    EXPECT_EQ(log.messages(ll::error), Lines{text_of("wfd_map_get: wfd=%d is not found.", owner.wd)});
    EXPECT_EQ(rqs_fd_count(0), 0u);
}

TEST_F(FwatchTest, a_rotated_file_can_be_followed_from_the_callback)
{
    start();
    open_file();
    owner.wd = rqs_add_file_watch(&owner, path.c_str());
    on_file = [&](int wd, int flags, void*, void*) {
        if ((flags & RQS_FMOVED) == 0) return 0;
        EXPECT_EQ(rqs_rm_file_watch(wd), 0);
        owner.wd = rqs_add_file_watch(&owner, path.c_str());
        return 0;
    };
    const int first = owner.wd;
    append();
    ASSERT_EQ(rename(path.c_str(), (dir / "f.1").c_str()), 0);
    write_file(path, "");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), (Trace{file_of(first), file_of(first, RQS_RMV | RQS_FMOVED)}));
    ASSERT_GT(owner.wd, first);

    append(); // to the old file
    open_file();
    append();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(file_calls(), Trace{file_of(owner.wd)});
    EXPECT_EQ(g_ino.wfd_count, 1);
    EXPECT_TRUE(rqs_validate());
}
