// The event loop: set-up, epoll set, wait, dispatch, the order of a turn, and how it ends.
#include "rqs.h"

#include "log.h"
#include "psensor.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/fake_clock.h"
#include "support/interrupts.h"
#include "support/log_capture.h"
#include "support/loop_kit.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"
#include "timeop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

struct Record {
    n32_tag tag = {{'r', 'e', 'c', '\0'}};
    int hits = 0;
};

class RqsTest : public LoopTest
{
protected:
    ~RqsTest() override { fake_clock::release(); }

    // Lets the turns go round without waiting, and ends the loop behind the n-th with g_quit.
    void end_after(int turns)
    {
        wait_at_most_ms(0);
        m_turns_left = turns;
        on_idle = [this] {
            if (--m_turns_left == 0) g_quit = 1;
            return 0;
        };
    }

private:
    int m_turns_left = 0;
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

std::string text_of(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string text_of(const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

std::string errno_text(const char* head, int err)
{
    return text_of("%s ERROR(%d): %s", head, err, strerror(err));
}

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
    const FewDescriptors limit(0);
    const struct rqs_config cfg = config();
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
    rqs_destroy();
    EXPECT_FALSE(is_open(loopfd));
    EXPECT_FALSE(is_open(inofd));
    EXPECT_EQ(g_rqs.loopfd, -1);
    EXPECT_EQ(g_rqs.events.data, nullptr);
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
    EXPECT_EQ(log.messages(), Lines{errno_text(call.c_str(), EPERM)});
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
    EXPECT_EQ(log.messages(ll::error), (Lines{errno_text(mod.c_str(), ENOENT), errno_text(del.c_str(), ENOENT)}));
    EXPECT_EQ(log.messages(ll::debug), Lines{text_of("rqs_rm_fd: REMOVE fd=%d from epoll FAILED [rc=-1]", fd)});
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
    on_idle = [] { return 7; };
    start();
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 7);
    EXPECT_EQ(trace, (Trace{"tmout", "post", "idle"}));
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 0 failed, rc=7, quit=0");
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
    end_after(2);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("dormant"), 2u);
}

// ---- the wait -------------------------------------------------------------------------------------------------

TEST_F(RqsTest, calls_time_out_after_each_wait_whether_it_timed_out_or_not)
{
    end_after(3);
    time_out = [] {};
    start();
    LoopPipe p;
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    on_read = [](int fd, int, void*, void*) {
        take(fd, 1);
        return 0;
    };
    p.feed(); // the first wait has an event, the others time out
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("time_out"), 3u);
    EXPECT_EQ(count(read_of(p.in.get())), 1u);
}

TEST_F(RqsTest, waits_as_long_as_update_tmout_says)
{
    update_tmout = [](struct timespec* t) {
        EXPECT_EQ(t, &g_rqs.tmout);
        *t = {0, 30999999};
    };
    time_out = [] { g_quit = 1; };
    start();
    LogCapture log;
    struct timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(rqs_event_loop(), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    calc_timespan(&before, &after, &after);
    EXPECT_GE(after.tv_sec * 1000 + after.tv_nsec / 1000000, 30);
    EXPECT_TRUE(log.contains("wait4events: timeout=0.030000 sec"));
}

TEST_F(RqsTest, states_the_time_out_that_it_waits_for)
{
    const struct {
        struct timespec tmout;
        const char* line;
    } rows[] = {
        {{0, 0}, "wait4events: timeout=0.000000 sec"},
        {{0, 999999}, "wait4events: timeout=0.000000 sec"},
        {{2, 1000000}, "wait4events: timeout=2.001000 sec"},
        {{-1, 5000000}, "wait4events: timeout=-0.001000 sec"},
        {{1, -1}, "wait4events: timeout=-0.001000 sec"},
        {{2147483, 647000000}, "wait4events: timeout=2147483.647000 sec"},
        {{2147483, 648000000}, "wait4events: timeout=2147483.647000 sec"},
        {{LONG_MAX, 0}, "wait4events: timeout=2147483.647000 sec"},
    };
    const auto* row = rows;
    update_tmout = [&row](struct timespec* t) { *t = row->tmout; };
    on_read = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    start();
    LoopPipe p;
    p.feed(); // no wait is long
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    LogCapture log;
    for (; row != std::end(rows); ++row) {
        log.clear();
        g_quit = 0;
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(log.messages(ll::debug).front(), row->line) << "row " << row - rows;
    }
}

TEST_F(RqsTest, interrupted_goes_on_unless_told_to_quit)
{
    static int waits;
    waits = 0;
    update_tmout = [](struct timespec* t) {
        *t = {-1, 0};
        ++waits;
    };
    time_out = [] {};
    post_process = [] { return 0; };
    start();
    LogCapture log;
    {
        const Interrupts signals([](int) {
            if (waits >= 3) g_quit = 1;
        });
        EXPECT_EQ(rqs_event_loop(), 0);
    }
    EXPECT_EQ(log.messages(ll::error), Lines{});
    EXPECT_EQ(log.count("wait4events interrupted, quit=0"), count("time_out"));
    EXPECT_EQ(log.count("wait4events interrupted, quit=1"), 1u);
    EXPECT_EQ(count("post"), 2 * count("time_out")) << "a turn without events is a turn";
    EXPECT_GE(count("tmout"), 3u);
    EXPECT_EQ(count("tmout"), count("time_out") + 1) << "told to quit, it leaves behind the wait";
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 0 failed, rc=0, quit=1");
}

TEST_F(RqsTest, ends_with_the_error_of_a_wait_that_fails)
{
    start();
    LoopPipe p;
    ASSERT_EQ(dup2(p.in.get(), g_rqs.loopfd), g_rqs.loopfd); // no epoll descriptor any more
    fake_clock::set(500);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), EINVAL);
    EXPECT_EQ(log.messages(ll::error),
              Lines{errno_text(text_of("wait4events: epoll_wait(%d...)", g_rqs.loopfd).c_str(), EINVAL)});
    EXPECT_EQ(rqs_now().tv_sec, 500) << "the clock moves on, whatever the wait gave";
    EXPECT_EQ(log.messages(ll::info).back(), text_of("Exiting event loop, 0 failed, rc=%d, quit=0", EINVAL));
}

TEST_F(RqsTest, reads_its_clock_once_after_each_wait)
{
    fake_clock::set(100, 0);
    const struct timespec last = {100, 0}, tmout = {1, 0};
    on_read = [&](int, int, void*, void*) {
        EXPECT_EQ(rqs_now().tv_sec, 200);
        fake_clock::set(300, 0);
        EXPECT_EQ(rqs_now().tv_sec, 200); // the handlers of a turn share one reading
        EXPECT_TRUE(timed_out(&last, &tmout));
        g_quit = 1;
        return 0;
    };
    start();
    EXPECT_FALSE(timed_out(&last, &tmout));
    fake_clock::set(200, 7);
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(rqs_now_ref()->tv_sec, 200);
    EXPECT_TRUE(log.contains("wait4events: rqs time: 200.000000007"));
}

// ---- dispatch -------------------------------------------------------------------------------------------------

TEST_F(RqsTest, hands_out_the_descriptor_where_no_record_was_given)
{
    start();
    LoopPipe p;
    p.feed();
    on_read = [&](int fd, int flags, void* udata, void* aux) {
        EXPECT_EQ(fd, p.in.get());
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(udata, std::bit_cast<void*>(static_cast<long>(fd))) << "the number in a pointer's clothes";
        EXPECT_EQ(aux, nullptr);
        g_quit = 1;
        return 0;
    };
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace.size(), 1u);
}

TEST_F(RqsTest, hands_out_the_record)
{
    start();
    const PeerPair pair;
    Record rec;
    on_write = [&](int fd, int flags, void* udata, void* aux) {
        EXPECT_EQ(fd, static_cast<int>(std::bit_cast<unsigned long>(udata))) << "the low half of the pointer";
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(udata, &rec);
        EXPECT_EQ(aux, nullptr);
        g_quit = 1;
        return 0;
    };
    ASSERT_EQ(rqs_add_writer(pair.fd(), &rec), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace.size(), 1u);
}

TEST_F(RqsTest, lets_readable_win_over_writable)
{
    start();
    PeerPair pair;
    put(pair.there.get(), "x");
    ASSERT_EQ(rqs_add_reader(pair.fd(), nullptr), 0);
    ASSERT_EQ(rqs_mod(pair.fd(), nullptr, RQS_READ | RQS_WRITE), 0);
    on_read = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{read_of(pair.fd())});
}

TEST_F(RqsTest, has_the_error_flags_ride_along_with_a_read)
{
    start();
    LoopPipe p;
    p.feed();
    p.out = Fd(); // data, and behind it the hang-up
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    on_read = [](int fd, int, void*, void*) {
        take(fd, 1);
        return 0;
    };
    on_error = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(p.in.get(), RQS_SOCKHUP), error_of(p.in.get(), RQS_SOCKHUP)}));
}

TEST_F(RqsTest, has_the_error_flags_ride_along_with_a_write)
{
    start();
    LoopPipe p;
    p.in = Fd();
    ASSERT_EQ(rqs_add_writer(p.out.get(), nullptr), 0);
    on_write = [](int fd, int, void*, void*) { return rqs_mod(fd, nullptr, 0); };
    on_error = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    // Parked, it has no interest in writing: the error alone is left.
    EXPECT_EQ(trace, (Trace{write_of(p.out.get(), RQS_SOCKERR), error_of(p.out.get(), RQS_SOCKERR)}));
}

TEST_F(RqsTest, counts_the_half_closed_peer_as_a_hang_up)
{
    start();
    PeerPair pair;
    ASSERT_EQ(rqs_add_reader(pair.fd(), nullptr), 0);
    struct epoll_event ev = {};
    ev.events = EPOLLRDHUP;
    ev.data.fd = pair.fd();
    ASSERT_EQ(epoll_ctl(g_rqs.loopfd, EPOLL_CTL_MOD, pair.fd(), &ev), 0);
    ASSERT_EQ(shutdown(pair.there.get(), SHUT_WR), 0);
    on_error = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, Trace{error_of(pair.fd(), RQS_SOCKHUP)});
}

TEST_F(RqsTest, fails_an_event_that_it_has_no_callback_for)
{
    start();
    PeerPair pair;
    put(pair.there.get(), "x");
    ASSERT_EQ(rqs_add_reader(pair.fd(), nullptr), 0);
    struct epoll_event ev = {};
    ev.events = EPOLLRDNORM; // nobody asks for it through the loop
    ev.data.fd = pair.fd();
    ASSERT_EQ(epoll_ctl(g_rqs.loopfd, EPOLL_CTL_MOD, pair.fd(), &ev), 0);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(trace, Trace{});
    EXPECT_EQ(log.messages(ll::error), Lines{"on_event: unsupported event mask: 0x40"});
}

TEST_F(RqsTest, walks_on_behind_a_failed_event_and_ends_with_their_number)
{
    post_process = [] { return 0; };
    on_idle = [] { return 0; };
    start();
    LoopPipe p[3];
    for (const LoopPipe& x : p) {
        x.feed();
        ASSERT_EQ(rqs_add_reader(x.in.get(), nullptr), 0);
    }
    on_read = [&p](int fd, int, void*, void*) { return fd == p[1].in.get() ? 0 : -3; };
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 2);
    EXPECT_EQ(trace, (Trace{read_of(p[0].in.get()), read_of(p[1].in.get()), read_of(p[2].in.get()), "post"}));
    EXPECT_EQ(log.messages(ll::debug).back(), "rqs_event_loop: failed 2 events");
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 2 failed, rc=0, quit=0");
}

TEST_F(RqsTest, ends_with_the_result_of_post_processing_even_where_events_failed)
{
    post_process = [] { return 11; };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 11); // read is not set: it fails
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 1 failed, rc=11, quit=0");
}

TEST_F(RqsTest, may_be_entered_again)
{
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 1);
    on_read = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0) << "the failure of the first run is forgotten";
}

TEST_F(RqsTest, still_delivers_the_events_of_a_descriptor_removed_in_the_same_turn)
{
    start();
    LoopPipe a, b;
    a.feed();
    b.feed();
    ASSERT_EQ(rqs_add_reader(a.in.get(), nullptr), 0);
    ASSERT_EQ(rqs_add_reader(b.in.get(), nullptr), 0);
    const int fd_b = b.in.get();
    on_read = [&](int fd, int, void*, void*) {
        g_quit = 1;
        if (fd == fd_b) return 0;
        EXPECT_EQ(rqs_rm_fd(fd_b, true, false), 0);
        b.in = Fd(); // and closed
        return rqs_rm_fd(fd, true, false);
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(a.in.get()), read_of(fd_b)}));
    EXPECT_EQ(rqs_fd_count(1), 0u);
}

TEST_F(RqsTest, delivers_events_of_a_descriptor_added_in_a_callback_from_the_next_turn_on)
{
    end_after(2);
    start();
    LoopPipe a, b;
    a.feed();
    b.feed();
    ASSERT_EQ(rqs_add_reader(a.in.get(), nullptr), 0);
    on_read = [&](int fd, int, void*, void*) {
        take(fd, 1);
        return fd == a.in.get() ? rqs_add_reader(b.in.get(), nullptr) : 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{"tmout", read_of(a.in.get()), "idle", "tmout", read_of(b.in.get()), "idle"}));
}

TEST_F(RqsTest, asserts_that_its_wait_buffer_survives_the_walk)
{
    start();
    LoopPipe a, b;
    a.feed();
    b.feed();
    ASSERT_EQ(rqs_add_reader(a.in.get(), nullptr), 0);
    ASSERT_EQ(rqs_add_reader(b.in.get(), nullptr), 0);
    on_read = [](int, int, void*, void*) {
        rqs_destroy();
        return 0;
    };
    EXPECT_DEATH(rqs_event_loop(), asserts("g_rqs.events.max_len > 0"));
}

// ---- many descriptors -----------------------------------------------------------------------------------------

namespace
{

class CrowdTest : public RqsTest
{
protected:
    // So many readable descriptors.
    void crowd(size_t n)
    {
        m_pipes = std::vector<LoopPipe>(n);
        for (const LoopPipe& p : m_pipes) {
            p.feed();
            ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
        }
        on_read = [](int fd, int, void*, void*) {
            take(fd, 1);
            return 0;
        };
    }

private:
    std::vector<LoopPipe> m_pipes;
};

constexpr char FULL[] = "wait4events: all event slots populated, might need more";

} // namespace

TEST_F(CrowdTest, gets_a_wait_buffer_that_holds_all)
{
    end_after(1);
    start();
    crowd(25);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_rqs.events.max_len, 30u) << "growth is by ten";
    EXPECT_EQ(g_rqs.events.len, 25u);
    EXPECT_EQ(trace.size(), 27u);
}

TEST_F(CrowdTest, is_told_of_when_it_fills_a_buffer_of_more_than_fifteen)
{
    end_after(1);
    start();
    crowd(20);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_rqs.events.max_len, 20u);
    EXPECT_EQ(log.messages(ll::warning), Lines{FULL});
}

TEST_F(CrowdTest, is_not_told_of_when_a_slot_is_left)
{
    end_after(1);
    start();
    crowd(19);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_rqs.events.max_len, 20u);
    EXPECT_EQ(log.messages(ll::warning), Lines{});
}

TEST_F(CrowdTest, is_not_told_of_in_a_buffer_of_ten)
{
    end_after(1);
    start();
    crowd(10);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_rqs.events.max_len, 10u);
    EXPECT_EQ(g_rqs.events.len, 10u);
    EXPECT_EQ(log.messages(ll::warning), Lines{});
}

TEST_F(CrowdTest, needs_memory)
{
    end_after(1);
    start();
    crowd(11);
    LogCapture log;
    EXPECT_EXIT(
        {
            fail_alloc::at(1);
            rqs_event_loop();
        },
        testing::KilledBySignal(SIGABRT), "");
    const Lines panics = log.messages(ll::panic);
    ASSERT_EQ(panics.size(), 2u);
    EXPECT_EQ(panics[0], "mk_event_space: xvec_reserve failed");
    EXPECT_EQ(panics[1], "Aborting at:");
    EXPECT_TRUE(log.text().ends_with("==\n"));
}

TEST_F(CrowdTest, allocates_nothing_once_the_buffer_has_grown)
{
    end_after(1);
    start();
    crowd(30);
    EXPECT_EQ(rqs_event_loop(), 0);
    g_quit = 0;
    end_after(100);
    fail_alloc::at(1);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(fail_alloc::countdown, 1);
    fail_alloc::at(0);
}

// ---- sensors --------------------------------------------------------------------------------------------------

TEST_F(RqsTest, measures_its_work)
{
    fake_clock::set(1000);
    const auto takes = [](long sec) {
        fake_clock::advance_sec(sec);
        return 0;
    };
    LoopPipe r, gone;
    PeerPair w;
    r.feed();
    gone.out = Fd();
    on_read = [&](int, int, void*, void*) { return takes(1); };
    on_write = [&](int, int, void*, void*) { return takes(20); };
    on_error = [&](int, int, void*, void*) { return takes(300); };
    post_process = [&] { return takes(4000); };
    on_idle = [&] {
        g_quit = 1;
        return takes(50000);
    };
    start();
    ASSERT_EQ(rqs_add_reader(r.in.get(), nullptr), 0);
    ASSERT_EQ(rqs_add_reader(gone.in.get(), nullptr), 0);
    ASSERT_EQ(rqs_add_writer(w.fd(), nullptr), 0);
    psensors_init(nullptr, 1);
    EXPECT_EQ(rqs_event_loop(), 0);
    const auto seconds = [](size_t i) { return g_psensor[i].sensor.accum.tm.tv_sec; };
    EXPECT_EQ(seconds(PRF_EVREAD), 1);
    EXPECT_EQ(seconds(PRF_EVWRITE), 20);
    EXPECT_EQ(seconds(PRF_EVERR), 300);
    EXPECT_EQ(seconds(PRF_EVPP), 8000);
    EXPECT_EQ(seconds(PRF_EVLOOP), 58321);
    EXPECT_EQ(seconds(PRF_EVIDLE), 0);
    for (size_t i = 0; i < PRF_SYS_COUNT; ++i)
        EXPECT_FALSE(g_psensor[i].started) << g_psensor[i].nametag;
}

TEST_F(RqsTest, measures_its_wait)
{
    fake_clock::set(1000);
    start();
    psensors_init(nullptr, 1);
    {
        const Interrupts signals([](int) {
            if (!g_psensor[PRF_EVIDLE].started) return; // not waiting yet
            if (g_quit) return;
            fake_clock::advance_sec(7);
            g_quit = 1;
        });
        EXPECT_EQ(rqs_event_loop(), 0);
    }
    EXPECT_EQ(g_psensor[PRF_EVIDLE].sensor.accum.tm.tv_sec, 7);
    EXPECT_FALSE(g_psensor[PRF_EVLOOP].started);
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
