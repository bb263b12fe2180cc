// The event loop at work: the wait, which callback an event has, many descriptors, and what the sensors measure.
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
#include "timeop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

struct Record {
    n32_tag tag = {{'r', 'e', 'c', '\0'}};
};

class RqsWaitTest : public LoopTest
{
protected:
    ~RqsWaitTest() override
    {
        psensors_init(nullptr, 0);
        fake_clock::release();
    }
};

} // namespace

// ---- the wait -------------------------------------------------------------------------------------------------

TEST_F(RqsWaitTest, calls_time_out_after_each_wait_whether_it_timed_out_or_not)
{
    wait_at_most_ms(0);
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

TEST_F(RqsWaitTest, waits_as_long_as_update_tmout_says)
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

TEST_F(RqsWaitTest, states_the_time_out_that_it_waits_for)
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

TEST_F(RqsWaitTest, interrupted_goes_on_unless_told_to_quit)
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

TEST_F(RqsWaitTest, ends_with_the_error_of_a_wait_that_fails)
{
    start();
    LoopPipe p;
    ASSERT_EQ(dup2(p.in.get(), g_rqs.loopfd), g_rqs.loopfd); // no epoll descriptor any more
    fake_clock::set(500);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), EINVAL);
    EXPECT_EQ(log.messages(ll::error),
              Lines{errno_text(text_of("wait4events: epoll_wait(%d...)", g_rqs.loopfd), EINVAL)});
    EXPECT_EQ(rqs_now().tv_sec, 500) << "the clock moves on, whatever the wait gave";
    EXPECT_EQ(log.messages(ll::info).back(), text_of("Exiting event loop, 0 failed, rc=%d, quit=0", EINVAL));
}

TEST_F(RqsWaitTest, reads_its_clock_once_after_each_wait)
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

TEST_F(RqsWaitTest, hands_out_the_descriptor_where_no_record_was_given)
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

TEST_F(RqsWaitTest, hands_out_the_record)
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

// A number that fits a descriptor is one: nothing is read there, be it a tag or not.
TEST_F(RqsWaitTest, reads_a_tag_only_above_what_a_descriptor_can_be)
{
    constexpr size_t PAGE = 4096;
    const auto boundary = static_cast<uintptr_t>(INT_MAX) + 1;
    for (const uintptr_t where : {uintptr_t{0x70000000}, boundary - PAGE}) {
        void* want = std::bit_cast<void*>(where);
        const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
        void* mem = mmap(want, 2 * PAGE, PROT_READ | PROT_WRITE, flags, -1, 0);
        if (mem != want) GTEST_SKIP() << "something else lies at " << want;
        char* low = static_cast<char*>(mem) + PAGE - 1; // INT_MAX in the second round
        memcpy(low, "ino", 4);
        start();
        LoopPipe p;
        p.feed();
        on_read = [&](int fd, int, void* udata, void*) {
            EXPECT_EQ(fd, static_cast<int>(std::bit_cast<uintptr_t>(low)));
            EXPECT_EQ(udata, low);
            g_quit = 1;
            return 0;
        };
        ASSERT_EQ(rqs_add_reader(p.in.get(), low), 0);
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(trace.size(), 1u);
        g_quit = 0;
        trace.clear();
        if (where != boundary - PAGE) {
            rqs_destroy();
            continue;
        }
        memcpy(low + 1, "ino", 4);
        ASSERT_EQ(rqs_mod_reader(p.in.get(), low + 1), 0);
        EXPECT_DEATH(rqs_event_loop(), asserts("udata == &g_ino"));
    }
}

TEST_F(RqsWaitTest, lets_readable_win_over_writable)
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

TEST_F(RqsWaitTest, has_the_error_flags_ride_along_with_a_read)
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

TEST_F(RqsWaitTest, has_the_error_flags_ride_along_with_a_write)
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

TEST_F(RqsWaitTest, tells_an_error_and_a_hang_up_of_one_event_together)
{
    start();
    PeerPair pair;
    put(pair.fd(), "x");
    pair.there = Fd(); // with the byte unread: a reset
    ASSERT_EQ(rqs_add_reader(pair.fd(), nullptr), 0);
    on_read = [](int fd, int, void*, void*) { return rqs_mod(fd, nullptr, 0); };
    on_error = [](int, int, void*, void*) {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace,
              (Trace{read_of(pair.fd(), RQS_SOCKERR | RQS_SOCKHUP), error_of(pair.fd(), RQS_SOCKERR | RQS_SOCKHUP)}));
}

TEST_F(RqsWaitTest, counts_the_half_closed_peer_as_a_hang_up)
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

TEST_F(RqsWaitTest, fails_an_event_that_it_has_no_callback_for)
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

TEST_F(RqsWaitTest, walks_on_behind_a_failed_event_and_ends_with_their_number)
{
    post_process = [] { return 0; };
    on_idle = [] { return 0; };
    start();
    LoopPipe p[3];
    for (const LoopPipe& x : p) {
        x.feed();
        ASSERT_EQ(rqs_add_reader(x.in.get(), nullptr), 0);
    }
    on_read = [&p](int fd, int, void*, void*) {
        if (fd == p[1].in.get()) return 0;
        return fd == p[0].in.get() ? 4 : -3; // either sign is a failure
    };
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 2);
    EXPECT_EQ(trace, (Trace{read_of(p[0].in.get()), read_of(p[1].in.get()), read_of(p[2].in.get()), "post"}));
    EXPECT_EQ(log.messages(ll::debug).back(), "rqs_event_loop: failed 2 events");
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 2 failed, rc=0, quit=0");
}

TEST_F(RqsWaitTest, ends_with_the_result_of_post_processing_even_where_events_failed)
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

TEST_F(RqsWaitTest, may_be_entered_again)
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

TEST_F(RqsWaitTest, still_delivers_the_events_of_a_descriptor_removed_in_the_same_turn)
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

TEST_F(RqsWaitTest, delivers_events_of_a_descriptor_added_in_a_callback_from_the_next_turn_on)
{
    wait_at_most_ms(0);
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

TEST_F(RqsWaitTest, asserts_that_its_wait_buffer_survives_the_walk)
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

class CrowdTest : public RqsWaitTest
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
    wait_at_most_ms(0);
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
    wait_at_most_ms(0);
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
    wait_at_most_ms(0);
    end_after(1);
    start();
    crowd(19);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_rqs.events.max_len, 20u);
    EXPECT_EQ(log.messages(ll::warning), Lines{});
}

TEST_F(CrowdTest, is_told_of_in_a_buffer_of_sixteen_and_not_in_one_of_fifteen)
{
    for (const size_t n : {size_t{15}, size_t{16}}) {
        SCOPED_TRACE(n);
        wait_at_most_ms(0);
        end_after(1);
        start();
        ASSERT_EQ(xvec_reserve(&g_rqs.events, 20, sizeof(epoll_event), 10), 0);
        g_rqs.events.max_len = n; // growth gives no such size
        crowd(n);
        LogCapture log;
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(g_rqs.events.len, n);
        EXPECT_EQ(log.messages(ll::warning), n == 16 ? Lines{FULL} : Lines{});
        g_quit = 0;
        rqs_destroy();
    }
}

TEST_F(CrowdTest, is_not_told_of_in_a_buffer_of_ten)
{
    wait_at_most_ms(0);
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
    wait_at_most_ms(0);
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
    wait_at_most_ms(0);
    end_after(1);
    start();
    crowd(30);
    EXPECT_EQ(rqs_event_loop(), 0);
    g_quit = 0;
    wait_at_most_ms(0);
    end_after(100);
    fail_alloc::at(1);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(fail_alloc::countdown, 1);
    fail_alloc::at(0);
}

// ---- sensors --------------------------------------------------------------------------------------------------

TEST_F(RqsWaitTest, measures_its_work)
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

TEST_F(RqsWaitTest, measures_its_wait)
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
