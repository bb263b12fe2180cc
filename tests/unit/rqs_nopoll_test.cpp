// No-poll events: ready in every turn, removed at once or behind the walk.
#include "rqs.h"

#include "log.h"
#include "psensor.h"
#include "support/assert_kit.h"
#include "support/fail_alloc.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/loop_kit.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

// Descriptors in these tests are numbers only: no call is made on them.
class NopollTest : public LoopTest
{
protected:
    ~NopollTest() override
    {
        fail_alloc::at(0);
        psensors_init(nullptr, 0);
        fake_clock::release();
    }

    struct nopoll_ref* entry(size_t i) { return static_cast<struct nopoll_ref*>(g_rqs.nopoll.data) + i; }
};

constexpr size_t FIRST_ROOM = 20;

} // namespace

// ---- adding ---------------------------------------------------------------------------------------------------

TEST_F(NopollTest, an_entry_keeps_what_it_was_added_with)
{
    start();
    ssize_t r = -1, w = -1;
    LogCapture log;
    EXPECT_EQ(rqs_add_nopoll_reader(100, &r, nullptr), 0);
    EXPECT_EQ(rqs_add_nopoll_writer(101, &w, &g_rqs), 0);
    EXPECT_EQ(r, 0);
    EXPECT_EQ(w, 1);
    EXPECT_EQ(entry(0)->events, 1u);
    EXPECT_EQ(entry(0)->fd, 100);
    EXPECT_EQ(entry(0)->udata, nullptr);
    EXPECT_EQ(entry(0)->index, &r);
    EXPECT_EQ(entry(1)->events, 4u);
    EXPECT_EQ(entry(1)->fd, 101);
    EXPECT_EQ(entry(1)->udata, &g_rqs);
    EXPECT_EQ(entry(1)->index, &w);
    EXPECT_EQ(rqs_fd_count(0), 2u);
    EXPECT_EQ(rqs_fd_count(1), 0u);
    EXPECT_EQ(rqs_fd_count(2), 2u);
    char second[128];
    snprintf(second, sizeof(second), "add_nopoll[1]: fd101, events=0x4, udata=%p, total=2 events.",
             static_cast<void*>(&g_rqs));
    EXPECT_EQ(log.messages(), (Lines{"add_nopoll[0]: fd100, events=0x1, udata=(nil), total=1 events.", second}));
}

TEST_F(NopollTest, an_entry_needs_no_index_variable)
{
    start();
    EXPECT_EQ(rqs_add_nopoll_reader(100, nullptr, nullptr), 0);
    EXPECT_EQ(entry(0)->index, nullptr);
    rqs_pprm_nopoll(0);
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0); // nobody is told
    EXPECT_EQ(rqs_fd_count(2), 0u);
}

TEST_F(NopollTest, indices_stay_while_others_come_and_go)
{
    start();
    ssize_t i[4] = {-1, -1, -1, -1};
    for (int k = 0; k < 3; ++k)
        rqs_add_nopoll_reader(100 + k, &i[k], nullptr);
    rqs_rm_nopoll(i[1]);
    EXPECT_EQ(i[1], 1) << "an immediate removal leaves the owner's variable alone";
    EXPECT_EQ(entry(2)->fd, 102);
    EXPECT_EQ(i[2], 2);
    rqs_add_nopoll_writer(103, &i[3], nullptr);
    EXPECT_EQ(i[3], 1) << "the lowest free place is taken again";
    EXPECT_EQ(entry(2)->fd, 102);
    EXPECT_EQ(rqs_fd_count(2), 3u);
}

TEST_F(NopollTest, entries_beyond_the_first_room_need_memory)
{
    start();
    for (size_t k = 0; k < FIRST_ROOM; ++k) {
        fail_alloc::at(1); // none is made
        rqs_add_nopoll_reader(static_cast<int>(k), nullptr, nullptr);
        ASSERT_EQ(fail_alloc::countdown, 1);
    }
    LogCapture log;
    EXPECT_EXIT(rqs_add_nopoll_reader(20, nullptr, nullptr), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.messages(ll::panic), (Lines{"add_nopoll: cannot add a no-poll event", "Aborting at:"}));
    fail_alloc::at(0);
    EXPECT_EQ(rqs_add_nopoll_reader(20, nullptr, nullptr), 0);
    EXPECT_EQ(g_rqs.nopoll.max_len, 30u) << "growth is by ten";
}

// ---- in the loop ----------------------------------------------------------------------------------------------

TEST_F(NopollTest, alone_they_let_the_loop_spin_without_a_wait)
{
    end_after(3);
    update_tmout = [](struct timespec*) {};
    time_out = [] {};
    is_dormant = [] { return true; };
    quit_on_zero_fds = true;
    fake_clock::set(10);
    start();
    fake_clock::set(20);
    ssize_t r = -1, w = -1;
    int calls = 0;
    on_read = [&](int fd, int flags, void* udata, void* aux) {
        EXPECT_EQ(fd, 100);
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(udata, nullptr) << "nothing stands in for it here";
        EXPECT_EQ(aux, nullptr);
        EXPECT_EQ(rqs_ctx(RQS_CTX_STAGE, nullptr), RQS_STAGE_WAIT);
        ++calls;
        return 0;
    };
    on_write = [&](int, int, void* udata, void* aux) {
        EXPECT_EQ(udata, &calls);
        EXPECT_EQ(aux, nullptr);
        return 0;
    };
    rqs_add_nopoll_reader(100, &r, nullptr);
    rqs_add_nopoll_writer(101, &w, &calls);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    const Trace once = {read_of(100), write_of(101), "idle"};
    Trace expected;
    for (int k = 0; k < 3; ++k)
        expected.insert(expected.end(), once.begin(), once.end());
    EXPECT_EQ(trace, expected);
    EXPECT_FALSE(log.contains("wait4events"));
    EXPECT_EQ(log.count("on_nopoll: idx=0 fd=100 udata=(nil)"), 3u);
    EXPECT_EQ(log.count("on_nopoll: idx=1 fd=101 udata="), 3u);
    EXPECT_EQ(rqs_now().tv_sec, 10) << "no wait, no reading of the clock";
}

TEST_F(NopollTest, beside_polled_descriptors_the_wait_is_a_look)
{
    end_after(2);
    update_tmout = [](struct timespec* t) { *t = {3600, 0}; };
    on_read = [](int, int, void*, void*) { return 0; };
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    // The no-poll events come first in a turn, between wait and dispatch.
    const Trace once = {"tmout", read_of(100), read_of(p.in.get()), "idle"};
    Trace expected = once;
    expected.insert(expected.end(), once.begin(), once.end());
    EXPECT_EQ(trace, expected);
    EXPECT_EQ(log.count("wait4events: no-poll events present: changing to 0 timeout"), 2u);
    EXPECT_EQ(log.count("wait4events: timeout=0.000000 sec"), 2u);
}

TEST_F(NopollTest, a_turn_without_a_wait_has_no_events_left_from_the_last_one)
{
    end_after(2);
    start();
    LoopPipe p;
    p.feed();
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    on_read = [&p](int fd, int, void*, void*) { return fd == p.in.get() ? rqs_rm_fd(fd, true, false) : 0; };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(100), read_of(p.in.get()), "idle", read_of(100), "idle"}));
    EXPECT_EQ(g_rqs.events.len, 0u);
}

TEST_F(NopollTest, a_failure_ends_the_walk_and_the_loop_with_its_result)
{
    post_process = [] { return 0; };
    start();
    ssize_t i[3] = {-1, -1, -1};
    for (int k = 0; k < 3; ++k)
        rqs_add_nopoll_reader(100 + k, &i[k], nullptr);
    on_read = [](int fd, int, void*, void*) { return fd == 101 ? -9 : 0; };
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), -9);
    EXPECT_EQ(trace, (Trace{read_of(100), read_of(101)}));
    EXPECT_EQ(log.messages(ll::error), Lines{"process_nopoll_events: FAILED(-9)"});
    EXPECT_EQ(log.messages(ll::info).back(), "Exiting event loop, 0 failed, rc=-9, quit=0");
}

TEST_F(NopollTest, an_entry_of_no_known_direction_is_a_failure)
{
    start();
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    entry(0)->events = 2;
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), -1);
    EXPECT_EQ(log.messages(ll::error),
              (Lines{"on_nopoll: unrecognized event mask: 0x2", "process_nopoll_events: FAILED(-1)"}));
    entry(0)->events = 1 | 4; // reading wins
    on_read = [](int, int, void*, void*) { return 5; };
    EXPECT_EQ(rqs_event_loop(), 5);
}

TEST_F(NopollTest, entries_added_in_a_callback_may_move_the_list)
{
    end_after(2);
    start();
    ssize_t first = -1;
    std::vector<ssize_t> more(25, -1); // beyond the list's capacity
    rqs_add_nopoll_reader(100, &first, nullptr);
    on_read = [&](int fd, int, void*, void*) {
        if (fd != 100 || more[0] >= 0) return 0;
        for (size_t k = 0; k < more.size(); ++k)
            rqs_add_nopoll_writer(static_cast<int>(200 + k), &more[k], nullptr);
        return 0;
    };
    on_write = [](int, int, void*, void*) { return 0; };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(rqs_fd_count(2), 26u);
    EXPECT_EQ(count(read_of(100)), 2u);
    for (int k = 0; k < 25; ++k)
        EXPECT_EQ(count(write_of(200 + k)), 1u) << "behind the walk's end at its start: from the next turn on";
}

TEST_F(NopollTest, they_are_measured_as_reads_and_writes)
{
    end_after(1);
    fake_clock::set(1000);
    on_read = [](int, int, void*, void*) {
        fake_clock::advance_sec(2);
        return 0;
    };
    on_write = [](int, int, void*, void*) {
        fake_clock::advance_sec(30);
        return 0;
    };
    start();
    rqs_add_nopoll_reader(100, nullptr, nullptr);
    rqs_add_nopoll_writer(101, nullptr, nullptr);
    psensors_init(nullptr, 1);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_psensor[PRF_EVREAD].sensor.accum.tm.tv_sec, 2);
    EXPECT_EQ(g_psensor[PRF_EVWRITE].sensor.accum.tm.tv_sec, 30);
    EXPECT_EQ(g_psensor[PRF_EVLOOP].sensor.accum.tm.tv_sec, 32);
}

TEST_F(NopollTest, a_regular_file_is_read_to_its_end)
{
    TempDir dir;
    write_file(dir / "f", "some text");
    quit_on_zero_fds = true;
    start();
    const Fd file(open((dir / "f").c_str(), O_RDONLY));
    std::string got;
    ssize_t index = -1;
    on_read = [&](int fd, int, void*, void*) {
        char buf[4];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) got.append(buf, static_cast<size_t>(n));
        if (n == 0) rqs_pprm_nopoll(index);
        return n < 0 ? -1 : 0;
    };
    rqs_add_nopoll_reader(file.get(), &index, nullptr);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(got, "some text");
    EXPECT_EQ(trace.size(), 4u);
    EXPECT_EQ(index, -1);
}

// ---- postponed removal ----------------------------------------------------------------------------------------

TEST_F(NopollTest, an_entry_that_asks_for_its_own_removal_stays_during_the_walk)
{
    end_after(2);
    start();
    ssize_t i[2] = {-1, -1};
    rqs_add_nopoll_reader(100, &i[0], nullptr);
    rqs_add_nopoll_reader(101, &i[1], nullptr);
    on_read = [&](int fd, int, void*, void*) {
        if (fd == 100) rqs_pprm_nopoll(i[0]);
        EXPECT_EQ(i[0], fd == 100 || count(read_of(101)) == 1 ? 0 : -1);
        EXPECT_EQ(rqs_fd_count(2), count(read_of(101)) == 2 ? 1u : 2u);
        return 0;
    };
    LogCapture log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(100), read_of(101), "idle", read_of(101), "idle"}));
    EXPECT_EQ(i[0], -1);
    EXPECT_EQ(i[1], 1);
    EXPECT_EQ(log.count("rqs_pprm_nopoll: added no-poll event[0] at pos=0, total: 2 no-poll events."), 1u);
    EXPECT_EQ(log.count("rqs_purge_nopoll_rm: fd=100, udata=(nil) (j=0)"), 1u);
}

TEST_F(NopollTest, removal_of_every_entry_in_one_turn_needs_no_allocation)
{
    for (const size_t n : {FIRST_ROOM - 1, FIRST_ROOM, FIRST_ROOM + 1, size_t{30}, size_t{31}}) {
        SCOPED_TRACE(n);
        end_after(1);
        start();
        std::vector<ssize_t> index(n, -1);
        for (size_t k = 0; k < n; ++k)
            rqs_add_nopoll_reader(static_cast<int>(k), &index[k], nullptr);
        on_read = [&](int fd, int, void*, void*) {
            if (fd == 0) fail_alloc::at(1);
            rqs_pprm_nopoll(index[static_cast<size_t>(fd)]);
            return 0;
        };
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(fail_alloc::countdown, 1);
        fail_alloc::at(0);
        EXPECT_EQ(rqs_fd_count(2), 0u);
        EXPECT_EQ(index, std::vector<ssize_t>(n, -1));
        g_quit = 0;
        rqs_destroy();
    }
}

TEST_F(NopollTest, removals_postponed_by_polled_descriptors_are_carried_out_behind_the_dispatch)
{
    end_after(1);
    start();
    LoopPipe p;
    p.feed();
    ssize_t i = -1;
    rqs_add_nopoll_writer(100, &i, nullptr);
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    on_write = [](int, int, void*, void*) { return 0; };
    on_read = [&](int, int, void*, void*) {
        rqs_pprm_nopoll(i);
        return 0;
    };
    post_process = [&] {
        EXPECT_EQ(i, rqs_ctx(RQS_CTX_STAGE, nullptr) == RQS_STAGE_POST1 ? 0 : -1);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(i, -1);
}

TEST_F(NopollTest, removals_postponed_by_a_failed_event_are_carried_out_before_the_loop_ends)
{
    start();
    LoopPipe p;
    p.feed();
    ssize_t i = -1;
    rqs_add_nopoll_writer(100, &i, nullptr);
    ASSERT_EQ(rqs_add_reader(p.in.get(), nullptr), 0);
    on_write = [](int, int, void*, void*) { return 0; };
    on_read = [&i](int, int, void*, void*) {
        rqs_pprm_nopoll(i);
        return -1;
    };
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(i, -1);
    EXPECT_EQ(rqs_fd_count(2), 0u);
}

TEST_F(NopollTest, removals_postponed_in_post_processing_are_carried_out_before_the_idle_call)
{
    ssize_t i = -1;
    on_read = [](int, int, void*, void*) { return 0; };
    post_process = [&i] {
        if (rqs_ctx(RQS_CTX_STAGE, nullptr) == RQS_STAGE_POST1) rqs_pprm_nopoll(i);
        return 0;
    };
    on_idle = [&i] {
        EXPECT_EQ(i, -1);
        g_quit = 1;
        return 0;
    };
    start();
    rqs_add_nopoll_reader(100, &i, nullptr);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(100), "post", "idle", "post"}));
}

TEST_F(NopollTest, removals_postponed_behind_the_last_purge_of_a_turn_are_carried_out_in_the_next)
{
    ssize_t i[2] = {-1, -1};
    int turns = 0;
    on_idle = [&] {
        if (++turns == 1) {
            rqs_pprm_nopoll(i[0]);
            EXPECT_EQ(i[0], 0);
        } else {
            g_quit = 1;
        }
        return 0;
    };
    on_read = [](int, int, void*, void*) { return 0; };
    start();
    rqs_add_nopoll_reader(100, &i[0], nullptr);
    rqs_add_nopoll_reader(101, &i[1], nullptr);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(trace, (Trace{read_of(100), read_of(101), "idle", read_of(101), "idle"}));
    EXPECT_EQ(i[0], -1);
}

TEST_F(NopollTest, removals_of_a_turn_that_ended_early_are_carried_out_when_the_loop_is_entered_again)
{
    wait_at_most_ms(0);
    end_after(1);
    start();
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    on_read = [&](int, int, void*, void*) {
        rqs_pprm_nopoll(i);
        return -1;
    };
    EXPECT_EQ(rqs_event_loop(), -1);
    EXPECT_EQ(i, 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(i, -1);
    EXPECT_EQ(trace, (Trace{read_of(100), "idle"})) << "it has no second call";
}

TEST_F(NopollTest, an_immediate_removal_tells_nobody)
{
    start();
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    rqs_rm_nopoll(i);
    EXPECT_EQ(i, 0);
    EXPECT_EQ(rqs_fd_count(2), 0u);
}

TEST_F(NopollTest, removals_of_what_is_not_there_abort)
{
    start();
    rqs_add_nopoll_reader(100, nullptr, nullptr);
    const struct {
        ssize_t index;
        bool at_once;
        const char* line;
    } rows[] = {
        {1, true, "rqs_rm_nopoll: failed to remove j=1"},
        {-1, true, "rqs_rm_nopoll: failed to remove j=-1"},
        {1, false, "rqs_purge_nopoll_rm: failed to remove j=1"},
        {1000000, false, "rqs_purge_nopoll_rm: failed to remove j=1000000"},
    };
    LogCapture log;
    for (const auto& r : rows) {
        SCOPED_TRACE(r.line);
        log.clear();
        EXPECT_EXIT(
            {
                if (r.at_once) {
                    rqs_rm_nopoll(r.index);
                } else {
                    rqs_pprm_nopoll(r.index);
                    rqs_purge_nopoll_rm();
                }
            },
            testing::KilledBySignal(SIGABRT), "");
        EXPECT_EQ(log.messages(ll::panic), (Lines{r.line, "Aborting at:"}));
    }
}

TEST_F(NopollTest, a_removal_postponed_twice_aborts)
{
    start();
    ssize_t i = -1;
    rqs_add_nopoll_reader(100, &i, nullptr);
    rqs_pprm_nopoll(i);
    rqs_pprm_nopoll(i);
    LogCapture log;
    EXPECT_EXIT(rqs_purge_nopoll_rm(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.messages(ll::panic).front(), "rqs_purge_nopoll_rm: failed to remove j=0");
    g_rqs.nopoll_rm.len = 1;
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0);
}

TEST_F(NopollTest, a_negative_index_cannot_be_postponed)
{
    start();
    LogCapture log;
    EXPECT_DEATH(rqs_pprm_nopoll(-1), asserts("index >= 0"));
    EXPECT_TRUE(log.contains("ASSERT at:"));
}

TEST_F(NopollTest, a_removal_that_finds_no_memory_aborts)
{
    start();
    for (size_t k = 0; k < FIRST_ROOM - 1; ++k)
        rqs_pprm_nopoll(static_cast<ssize_t>(k)); // more than there are entries
    LogCapture log;
    EXPECT_EXIT(
        {
            fail_alloc::at(1);
            rqs_pprm_nopoll(7);
        },
        testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.messages(ll::panic), (Lines{"rqs_pprm_nopoll: cannot add an item to nopoll_rm", "Aborting at:"}));
    g_rqs.nopoll_rm.len = 0;
}

TEST_F(NopollTest, room_for_the_removals_of_a_turn_must_be_had)
{
    start();
    for (int k = 0; k < 25; ++k)
        rqs_add_nopoll_reader(k, nullptr, nullptr);
    LogCapture log;
    EXPECT_EXIT(
        {
            fail_alloc::at(1);
            rqs_event_loop();
        },
        testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.messages(ll::panic),
              (Lines{"Failed to reserve 25 elements for nopoll_rm container.", "Aborting at:"}));
    EXPECT_EQ(trace, Trace{});
}

TEST_F(NopollTest, a_broken_note_of_a_removal_is_told)
{
    start();
    rqs_add_nopoll_reader(100, nullptr, nullptr);
    rqs_pprm_nopoll(0);
    EXPECT_TRUE(rqs_validate());
    static_cast<ssize_t*>(g_rqs.nopoll_rm.data)[0] = -1;
    EXPECT_FALSE(rqs_validate());
    g_rqs.nopoll_rm.len = 0;
    EXPECT_TRUE(rqs_validate());
}
