// The event loop: set-up, epoll set, the order of a turn, and how it ends.
#include "rqs.h"

#include "log.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/loop_kit.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

class RqsTest : public LoopTest
{
protected:
    ~RqsTest() override { fake_clock::release(); }
};

// The number that the next descriptor will get.
int next_descriptor()
{
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

// While it lives, only so many further descriptors can be opened.
class FewDescriptors
{
public:
    explicit FewDescriptors(int more)
    {
        getrlimit(RLIMIT_NOFILE, &m_saved);
        rlimit lim = m_saved;
        lim.rlim_cur = static_cast<rlim_t>(next_descriptor() + more);
        setrlimit(RLIMIT_NOFILE, &lim);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &m_saved); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit m_saved = {};
};

} // namespace

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(RqsTest, is_ready_after_init)
{
    LogCapture log;
    fake_clock::set(100, 5);
    start();
    EXPECT_GT(g_rqs.loopfd, 0);
    EXPECT_EQ(g_rqs.tmout.tv_sec, -1);
    EXPECT_EQ(g_rqs.poll_fds, 0u);
    EXPECT_EQ(rqs_now().tv_sec, 100);
    EXPECT_EQ(rqs_now().tv_nsec, 5);
    EXPECT_EQ(rqs_now_ref(), &g_rqs.itime);
    EXPECT_GE(g_rqs.events.max_len, 10u);
    EXPECT_GE(g_rqs.nopoll.max_len, 20u);
    EXPECT_GE(g_rqs.nopoll_rm.max_len, 20u);
    EXPECT_EQ(log.messages(ll::debug).back(), "rqs_init: rqs time: 100.000000005");
}

TEST_F(RqsTest, keeps_a_copy_of_its_settings)
{
    wait_at_most_ms(0);
    end_after(1);
    struct rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    cfg = {};
    LoopPipe p;
    p.feed();
    on_read = [](int, int, void*, void*) { return 0; };
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{"tmout", read_of(p.in.get()), "idle"}));
}

TEST_F(RqsTest, wants_settings)
{
    LogCapture log;
    EXPECT_DEATH(rqs_init(nullptr), asserts("cfg"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
}

TEST_F(RqsTest, without_an_epoll_descriptor_does_not_start)
{
    LogCapture log;
    const struct rqs_config cfg = config();
    const FewDescriptors limit(0);
    EXPECT_EQ(rqs_init(&cfg), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.messages(ll::error), Lines{errno_text("rqs_init: epoll_create1()", EMFILE)});
    EXPECT_TRUE(rqs_validate());
}

TEST_F(RqsTest, without_an_inotify_descriptor_does_not_start_and_holds_nothing)
{
    LogCapture log;
    const struct rqs_config cfg = config();
    const int lowest = next_descriptor();
    const FewDescriptors limit(1);
    EXPECT_EQ(rqs_init(&cfg), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.messages(ll::error), Lines{errno_text("rqs_init: inotify_init1", EMFILE)});
    EXPECT_EQ(g_rqs.loopfd, -1);
    EXPECT_TRUE(rqs_validate());
    EXPECT_EQ(next_descriptor(), lowest) << "the epoll descriptor is open still";
}

// Memory runs out at each allocation of the set-up in turn: containers abort, the watch table is an orderly failure.
TEST_F(RqsTest, meets_memory_that_runs_out_at_each_step_of_init)
{
    LogCapture log;
    const struct rqs_config cfg = config();
    const char* container_lines[] = {"mk_event_space: xvec_reserve failed", "init_nopoll: no room for no-poll events",
                                     "init_nopoll: no room for no-poll events",
                                     "init_nopoll: no room for no-poll events"};
    int step = 1;
    for (const char* line : container_lines) {
        SCOPED_TRACE(testing::Message() << "allocation " << step);
        log.clear();
        EXPECT_EXIT(
            {
                fail_alloc::at(step);
                rqs_init(&cfg);
            },
            testing::KilledBySignal(SIGABRT), "");
        const Lines panics = log.messages(ll::panic);
        ASSERT_EQ(panics.size(), 2u);
        EXPECT_EQ(panics[0], line);
        EXPECT_EQ(panics[1], "Aborting at:");
        ++step;
    }
    for (const int end = step + 2; step < end; ++step) {
        SCOPED_TRACE(testing::Message() << "allocation " << step);
        log.clear();
        fail_alloc::at(step);
        EXPECT_EQ(rqs_init(&cfg), ENOMEM);
        EXPECT_EQ(fail_alloc::countdown, 0);
        EXPECT_EQ(log.messages(ll::error).back(), "rqs_init: failed to create wfd/inotify lookup");
        EXPECT_EQ(g_rqs.loopfd, -1);
        EXPECT_EQ(g_ino.fd, -1);
        EXPECT_TRUE(rqs_validate());
    }
    fail_alloc::at(step);
    EXPECT_EQ(rqs_init(&cfg), 0);
    EXPECT_EQ(fail_alloc::countdown, 1) << "there is one more allocation";
    fail_alloc::at(0);
}

TEST_F(RqsTest, releases_all_at_the_end_and_may_be_destroyed_again)
{
    start();
    const int loopfd = g_rqs.loopfd;
    const int inofd = g_ino.fd;
    LoopPipe p;
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    ASSERT_EQ(xvec_reserve(&g_rqs.changes, 1, sizeof(epoll_event), 1), 0); // which no call of the loop's fills
    rqs_destroy();
    EXPECT_FALSE(is_open(loopfd));
    EXPECT_FALSE(is_open(inofd));
    EXPECT_EQ(g_rqs.loopfd, -1);
    EXPECT_EQ(g_rqs.events.data, nullptr);
    EXPECT_EQ(g_rqs.changes.data, nullptr);
    EXPECT_EQ(g_rqs.nopoll.data, nullptr);
    EXPECT_EQ(g_rqs.nopoll_rm.data, nullptr);
    EXPECT_TRUE(rqs_validate());
    rqs_destroy();
    EXPECT_TRUE(rqs_validate());
    start();
    EXPECT_EQ(rqs_fd_count(0), 0u);
}

TEST_F(RqsTest, destroyed_before_init_closes_nothing)
{
    rqs_destroy();
    EXPECT_EQ(g_rqs.loopfd, 0);
    EXPECT_TRUE(is_open(STDERR_FILENO));
    EXPECT_TRUE(rqs_validate());
}

// ---- epoll set ------------------------------------------------------------------------------------------------

TEST_F(RqsTest, counts_what_is_added_and_removed)
{
    start();
    LoopPipe p;
    const int in = p.in.get(), out = p.out.get();
    LogCapture log;
    EXPECT_EQ(rqs_add_reader(in, nullptr), 0);
    EXPECT_EQ(rqs_add_writer(out, &on_read), 0);
    EXPECT_EQ(rqs_fd_count(0), 2u);
    EXPECT_EQ(rqs_fd_count(1), 2u);
    EXPECT_EQ(rqs_fd_count(2), 0u);
    EXPECT_EQ(rqs_rm_fd(in, false, false), 0);
    EXPECT_EQ(rqs_rm_fd(out, true, true), 0); // by design what it was added for plays no part
    EXPECT_EQ(rqs_fd_count(0), 0u);
    EXPECT_EQ(log.messages(),
              (Lines{text_of("do_epoll_watch: OK fd=%d EPOLL_CTL_ADD to epoll with events=0x1, data=%#x", in, in),
                     text_of("rqs_add_reader: fd%d, poll_fds count=1", in),
                     text_of("do_epoll_watch: OK fd=%d EPOLL_CTL_ADD to epoll with events=0x4, data=%p", out,
                             static_cast<void*>(&on_read)),
                     text_of("rqs_add_writer: fd%d, poll_fds count=2", out),
                     text_of("rqs_rm_fd: REMOVE fd=%d from epoll OK [rc=0]", in),
                     text_of("rqs_rm_fd: REMOVE fd=%d from epoll OK [rc=0]", out)}));
}

TEST_F(RqsTest, refuses_what_cannot_be_polled)
{
    TempDir dir;
    write_file(dir / "f", "text");
    start();
    const Fd file(open((dir / "f").c_str(), O_RDONLY));
    LogCapture log;
    EXPECT_EQ(rqs_add_reader(file.get(), nullptr), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(rqs_fd_count(0), 0u);
    const std::string call =
        text_of("do_epoll_watch: epoll_ctl(%d, EPOLL_CTL_ADD, %d, {0x1, %#x})", g_rqs.loopfd, file.get(), file.get());
    EXPECT_EQ(log.messages(), Lines{errno_text(call, EPERM)});
}

TEST_F(RqsTest, refuses_a_descriptor_twice)
{
    start();
    LoopPipe p;
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_add_writer(p.in.get(), nullptr), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(rqs_fd_count(1), 1u);
}

TEST_F(RqsTest, changes_what_a_descriptor_waits_for)
{
    start();
    const PeerPair pair;
    ASSERT_EQ(rqs_add_writer(pair.fd(), nullptr), 0);
    const struct {
        int read_write;
        const char* letters;
        const char* events;
    } rows[] = {{RQS_READ, "R", "0x1"}, {RQS_WRITE, "W", "0x4"}, {RQS_READ | RQS_WRITE, "RW", "0x5"}, {0, "H", "0x10"}};
    LogCapture log;
    for (const auto& r : rows) {
        SCOPED_TRACE(r.letters);
        log.clear();
        EXPECT_EQ(rqs_mod(pair.fd(), &on_read, r.read_write), 0);
        EXPECT_EQ(
            log.messages(),
            (Lines{text_of("rqs_mod: fd%d, udata=%p, flags='%s'", pair.fd(), static_cast<void*>(&on_read), r.letters),
                   text_of("do_epoll_watch: OK fd=%d EPOLL_CTL_MOD to epoll with events=%s, data=%p", pair.fd(),
                           r.events, static_cast<void*>(&on_read))}));
    }
    log.clear();
    EXPECT_EQ(rqs_mod_reader(pair.fd(), nullptr), 0);
    EXPECT_EQ(log.messages(), Lines{text_of("do_epoll_watch: OK fd=%d EPOLL_CTL_MOD to epoll with events=0x1, data=%#x",
                                            pair.fd(), pair.fd())});
    EXPECT_EQ(rqs_fd_count(1), 1u);
}

TEST_F(RqsTest, cannot_change_or_remove_what_was_never_added)
{
    start();
    LoopPipe p;
    const int fd = p.in.get();
    LogCapture log;
    EXPECT_EQ(rqs_mod_reader(fd, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(rqs_rm_fd(fd, true, false), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(rqs_fd_count(1), 0u);
    const std::string mod =
        text_of("do_epoll_watch: epoll_ctl(%d, EPOLL_CTL_MOD, %d, {0x1, %#x})", g_rqs.loopfd, fd, fd);
    const std::string del = text_of("rqs_rm_fd: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..)", g_rqs.loopfd, fd);
    EXPECT_EQ(log.messages(ll::error), (Lines{errno_text(mod, ENOENT), errno_text(del, ENOENT)}));
    EXPECT_EQ(log.messages(ll::debug), Lines{text_of("rqs_rm_fd: REMOVE fd=%d from epoll FAILED [rc=-1]", fd)});
}

TEST_F(RqsTest, before_init_has_nothing_to_remove)
{
    LoopPipe p;
    LogCapture log;
    EXPECT_EQ(rqs_rm_fd(p.in.get(), true, false), -1);
    const int err = errno; // depends on what descriptor 0 is
    const std::string del = text_of("rqs_rm_fd: epoll_ctl(0, EPOLL_CTL_DEL, %d,..)", p.in.get());
    EXPECT_EQ(log.messages(ll::error), Lines{errno_text(del, err)});
    EXPECT_EQ(rqs_fd_count(1), 0u);
}

TEST_F(RqsTest, after_its_end_takes_removals_and_refuses_additions)
{
    start();
    LoopPipe p;
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    rqs_destroy();
    LogCapture log;
    EXPECT_EQ(rqs_rm_fd(p.in.get(), true, false), 0);
    EXPECT_EQ(log.messages(), Lines{});
    EXPECT_DEATH(rqs_add_reader(p.in.get(), nullptr), asserts("g_rqs.loopfd > 0"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
}

TEST_F(RqsTest, counts_only_what_it_knows)
{
    start();
    LogCapture log;
    for (const int which : {3, -1}) {
        log.clear();
        EXPECT_DEATH(rqs_fd_count(which), "Assertion");
        EXPECT_EQ(log.messages(ll::error), Lines{text_of("rqs_fd_count: invalid specifier: %d", which)});
        EXPECT_TRUE(log.contains("ASSERT at:"));
    }
}

TEST_F(RqsTest, answers_only_one_request)
{
    LogCapture log;
    g_rqs.loop_stage = RQS_STAGE_POST1;
    EXPECT_EQ(rqs_ctx(1, nullptr), 2);
    EXPECT_EQ(rqs_ctx(0, nullptr), 0);
    EXPECT_EQ(rqs_ctx(2, &log), 0);
    EXPECT_EQ(log.messages(), (Lines{"rqs_ctx: invalid request type: 0", "rqs_ctx: invalid request type: 2"}));
    g_rqs.loop_stage = RQS_STAGE_WAIT;
}

// ---- the order of a turn --------------------------------------------------------------------------------------

TEST_F(RqsTest, runs_a_turn_in_order)
{
    std::vector<int> stages;
    const auto note = [&stages] { stages.push_back(rqs_ctx(RQS_CTX_STAGE, nullptr)); };
    update_tmout = [&](struct timespec*) { note(); };
    time_out = [&] { note(); };
    on_read = [&](int, int, void*, void*) {
        note();
        return 0;
    };
    post_process = [&] {
        note();
        return 0;
    };
    on_idle = [&] {
        note();
        g_quit = 1;
        return 0;
    };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{"tmout", "time_out", read_of(p.in.get()), "post", "idle", "post"}));
    EXPECT_EQ(stages, (std::vector<int>{0, 0, 1, 2, 2, 3}));
    EXPECT_EQ(log.messages(ll::info), (Lines{"Entering event loop", "Exiting event loop, 0 failed, rc=0, quit=1"}));
    const Lines debug = log.messages(ll::debug);
    ASSERT_EQ(debug.size(), 4u);
    EXPECT_EQ(debug[0], "wait4events: timeout=-0.001000 sec");
    EXPECT_EQ(debug[1], "wait4events: got 1 events");
    EXPECT_EQ(debug[2].find("wait4events: rqs time: "), 0u);
    EXPECT_EQ(debug[3], "rqs_event_loop: processing 1 pollable events");
}

TEST_F(RqsTest, told_to_quit_in_a_callback_finishes_its_turn)
{
    on_read = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    post_process = [] { return 0; };
    on_idle = [] { return 0; };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(p.in.get()), "post", "idle", "post"}));
}

TEST_F(RqsTest, goes_through_its_stages_without_post_processing_too)
{
    wait_at_most_ms(0);
    on_idle = [] {
        EXPECT_EQ(rqs_ctx(RQS_CTX_STAGE, nullptr), RQS_STAGE_POST1);
        g_quit = 1;
        return 0;
    };
    start();
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(rqs_ctx(RQS_CTX_STAGE, nullptr), RQS_STAGE_POST2);
}

TEST_F(RqsTest, does_with_its_three_required_callbacks)
{
    start();
    LoopPipe p;
    p.feed();
    on_read = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{read_of(p.in.get())});
}

TEST_F(RqsTest, with_the_quit_flag_set_makes_no_turn)
{
    wait_at_most_ms(0);
    end_after(1);
    start();
    g_quit = 1;
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{});
    EXPECT_EQ(log.messages(), (Lines{"Entering event loop", "Exiting event loop, 0 failed, rc=0, quit=1"}));
}

TEST_F(RqsTest, told_to_quit_during_the_wait_goes_no_further)
{
    update_tmout = [](struct timespec*) { g_quit = 1; };
    time_out = [] {};
    post_process = [] { return 0; };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{"tmout"});
}

TEST_F(RqsTest, asserts_that_it_was_set_up)
{
    LogCapture log;
    EXPECT_DEATH(rqs_event_loop(), asserts("g_rqs.loopfd != 0"));
    EXPECT_EQ(log.messages(ll::info), Lines{"Entering event loop"});
}

TEST_F(RqsTest, ends_with_the_result_of_on_idle)
{
    wait_at_most_ms(0);
    post_process = [] { return 0; };
    int result = 0;
    on_idle = [&result] { return result; };
    start();
    LogCapture log;
    for (const int r : {7, -7}) {
        result = r;
        trace.clear();
        EXPECT_EQ(rqs_event_loop(), r);
        EXPECT_EQ(trace, (Trace{"tmout", "post", "idle"}));
        EXPECT_EQ(log.messages(ll::info).back(), text_of("Exiting event loop, 0 failed, rc=%d, quit=0", r));
    }
}

TEST_F(RqsTest, ends_with_the_result_of_the_first_post_processing)
{
    wait_at_most_ms(0);
    on_idle = [] { return 0; };
    post_process = [] { return -5; };
    start();
    EXPECT_EQ(rqs_event_loop(), -5);
    EXPECT_EQ(trace, (Trace{"tmout", "post"}));
}

TEST_F(RqsTest, ends_with_the_result_of_the_second_post_processing)
{
    wait_at_most_ms(0);
    on_idle = [] { return 0; };
    post_process = [] { return rqs_ctx(RQS_CTX_STAGE, nullptr) == RQS_STAGE_POST2 ? 9 : 0; };
    start();
    EXPECT_EQ(rqs_event_loop(), 9);
    EXPECT_EQ(trace, (Trace{"tmout", "post", "idle", "post"}));
}

TEST_F(RqsTest, takes_an_interruption_reported_by_a_callback_for_a_quit_only_when_told_to_quit)
{
    wait_at_most_ms(0);
    on_idle = [] { return EINTR; };
    start();
    EXPECT_EQ(rqs_event_loop(), EINTR);
    on_idle = [] {
        g_quit = 1;
        return EINTR;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    g_quit = 0;
    on_idle = [] {
        g_quit = 1;
        return EIO;
    };
    EXPECT_EQ(rqs_event_loop(), EIO) << "no other result is dropped";
}

// ---- nothing to wait for --------------------------------------------------------------------------------------

TEST_F(RqsTest, leaves_when_nothing_is_left_to_wait_for)
{
    quit_on_zero_fds = true;
    post_process = [] { return 0; };
    start();
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{});
    EXPECT_EQ(log.messages(ll::critical), Lines{"rqs_event_loop: no fd's, no activity, quitting now."});
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 0 failed, rc=0, quit=0");
}

TEST_F(RqsTest, leaves_as_soon_as_the_last_descriptor_has_gone)
{
    quit_on_zero_fds = true;
    on_read = [](int fd, int, void*, void*) { return rqs_rm_fd(fd, true, false); };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{read_of(p.in.get())});
}

TEST_F(RqsTest, leaves_the_last_word_to_is_dormant)
{
    quit_on_zero_fds = true;
    wait_at_most_ms(0);
    int asked = 0;
    is_dormant = [&asked] { return ++asked == 3; };
    start();
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{"dormant", "tmout", "dormant", "tmout", "dormant"}));
}

TEST_F(RqsTest, asks_is_dormant_only_when_there_is_nothing_to_wait_for)
{
    wait_at_most_ms(0);
    end_after(2);
    is_dormant = [] { return true; };
    start();
    LoopPipe p;
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("dormant"), 0u);

    // Without quit_on_zero_fds it is asked all the same, and its answer has no effect.
    ASSERT_EQ(rqs_rm_fd(p.in.get(), true, false), 0);
    g_quit = 0;
    wait_at_most_ms(0);
    end_after(2);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("dormant"), 2u);
}

// ---- checker and printer --------------------------------------------------------------------------------------

TEST_F(RqsTest, tells_a_broken_record)
{
    start();
    struct Field {
        const char* name;
        std::function<void()> spoil;
    };
    const Field fields[] = {
        {"tag", [] { g_ino.tag.sym[0] = 'x'; }},
        {"stage below", [] { g_rqs.loop_stage = -1; }},
        {"stage above", [] { g_rqs.loop_stage = 4; }},
        {"clock", [] { g_rqs.itime.tv_nsec = 1000000000; }},
        {"clock below", [] { g_rqs.itime.tv_nsec = -1; }},
        {"events", [] { g_rqs.events.len = g_rqs.events.max_len + 1; }},
        {"changes", [] { g_rqs.changes.len = 1; }},
        {"nopoll", [] { g_rqs.nopoll.len = 1; }},
        {"nopoll_rm", [] { g_rqs.nopoll_rm.len = g_rqs.nopoll_rm.max_len + 1; }},
        {"inotify", [] { g_ino.fd = -1; }},
        {"table", [] { g_ino.wfd_ht = nullptr; }},
        {"watches below", [] { g_ino.wfd_count = -1; }},
        {"watches above", [] { g_ino.wfd_count = 1; }},
        {"epoll", [] { g_rqs.loopfd = -1; }},
        {"epoll not there", [] { g_rqs.loopfd = 0; }},
    };
    const struct rqs_context rqs = g_rqs;
    const struct inotify_ctx ino = g_ino;
    for (const Field& f : fields) {
        f.spoil();
        EXPECT_FALSE(rqs_validate()) << f.name;
        g_rqs = rqs;
        g_ino = ino;
        EXPECT_TRUE(rqs_validate()) << f.name;
    }
}

TEST_F(RqsTest, prints_its_record)
{
    EXPECT_EQ(printed(rqs_dump), "event loop not initialized, valid: epoll fd0, stage 0, 0 polled, 0 events of the "
                                 "last wait\n"
                                 "time-out 0 s 0 ns, clock 0.000000000\n"
                                 "inotify fd-1, not polled, 0 watches\n"
                                 "0 no-poll events, 0 removals postponed\n");
    fake_clock::set(5, 3);
    start();
    ssize_t i = -1;
    rqs_add_nopoll_writer(STDERR_FILENO, &i, nullptr);
    EXPECT_EQ(printed(rqs_dump),
              text_of("event loop ready, valid: epoll fd%d, stage 0, 0 polled, 0 events of the last wait\n"
                      "time-out -1 s 0 ns, clock 5.000000003\n"
                      "inotify fd%d, not polled, 0 watches\n"
                      "1 no-poll events, 0 removals postponed\n"
                      "  [0] fd2, events=0x4, udata=(nil), index at %p\n",
                      g_rqs.loopfd, g_ino.fd, static_cast<void*>(&i)));
    g_rqs.loop_stage = 9;
    EXPECT_NE(printed(rqs_dump).find("event loop ready, INVALID"), std::string::npos);
    g_rqs.loop_stage = 0;
    rqs_destroy();
    EXPECT_NE(printed(rqs_dump).find("event loop destroyed, valid: epoll fd-1"), std::string::npos);
}
