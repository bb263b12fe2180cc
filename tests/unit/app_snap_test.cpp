#include "support/app_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <csignal>

using strings = std::vector<std::string>;

namespace
{

class app_snap : public testing::Test
{
protected:
    app_snap()
    {
        world.store(stream);
        log.clear();
        fake_clock::set(1500000000, 250000000);
    }
    ~app_snap() override { fake_clock::release(); }

    static bool timer_runs()
    {
        struct itimerval itv = {};
        getitimer(ITIMER_REAL, &itv);
        return itv.it_value.tv_sec != 0 || itv.it_value.tv_usec != 0;
    }
    // What the loop does on a request by signal.
    static int request(int signo)
    {
        g_snapshot = signo;
        return process_signals();
    }

    akit::app_world world;
    LogCapture log;
    const tsb::bytes stream = akit::clean_stream(100);
    const std::string named = "snap-1500000000-250.ts";
};

} // namespace

// ---- at once --------------------------------------------------------------------------------------------------

TEST_F(app_snap, sigurg_writes_what_the_ring_holds_at_once)
{
    EXPECT_EQ(request(SIGURG), 0);
    EXPECT_EQ(world.dir.names(), strings{named});
    EXPECT_EQ(akit::content_of(world.dir.path(named)), std::string(stream.begin(), stream.end()));
    EXPECT_EQ(log.messages(ll::info), strings{"take_snapshot: write 18800 bytes to [" + world.dir.path(named) + "]"});
    EXPECT_EQ(log.count("mk_snapshot_file: " + world.dir.path(named) + " created, fd"), 1u);
    EXPECT_EQ(log.count("take_snapshot: CLOSED(fd"), 1u);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(g_ctx.snap_tm.tv_sec, 0);
    EXPECT_EQ(g_ctx.snap_tm.tv_nsec, 0);
    EXPECT_FALSE(timer_runs());
}

TEST_F(app_snap, sigusr2_without_tail_settings_writes_at_once)
{
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 0;
    EXPECT_EQ(request(SIGUSR2), 0);
    EXPECT_EQ(world.dir.names(), strings{named});
}

TEST_F(app_snap, file_is_made_for_owner_to_write_and_all_to_read)
{
    umask(0);
    request(SIGURG);
    EXPECT_EQ(std::filesystem::status(world.dir.path(named)).permissions(), std::filesystem::perms(0644));
}

TEST_F(app_snap, an_existing_file_is_never_overwritten_and_the_request_stands)
{
    world.dir.file(named, "earlier");
    EXPECT_EQ(request(SIGURG), -1);
    EXPECT_EQ(akit::content_of(world.dir.path(named)), "earlier");
    EXPECT_EQ(g_snapshot, SIGURG);
    EXPECT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.contains("mk_snapshot_file: open('" + world.dir.path(named) + "', "));

    // The next turn tries again, under the name of its own moment.
    fake_clock::advance_ms(1);
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(world.dir.names(), (strings{named, "snap-1500000000-251.ts"}));
}

TEST_F(app_snap, empty_ring_leaves_an_empty_file_and_counts_as_done)
{
    mmr_destroy(g_ctx.mmr);
    ASSERT_EQ(mmr_create(&g_ctx.mmr, 1 << 20), 0);
    EXPECT_EQ(request(SIGURG), 0);
    EXPECT_EQ(world.dir.names(), strings{named});
    EXPECT_EQ(akit::content_of(world.dir.path(named)), "");
    ASSERT_EQ(log.messages(ll::error).size(), 1u);
    EXPECT_TRUE(log.messages(ll::error)[0].starts_with("take_snapshot: failed to snapshot to fd"));
    EXPECT_EQ(g_snapshot, 0);
}

// ---- the name -------------------------------------------------------------------------------------------------

TEST_F(app_snap, suffix_is_no_part_of_the_name)
{
    char fpath[128];
    g_ctx.snap_tm = {7, 999999999};
    const int fd = mk_snapshot_file(fpath, sizeof(fpath) - 1, "A");
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(std::string(fpath), world.dir.path("snap-7-999.ts"));
}

TEST_F(app_snap, path_of_127_characters_is_the_longest)
{
    // The name itself is "/-1500000000-250.ts", 19 characters.
    const std::string sub(127 - 19 - world.dir.path().size() - 1, 'd');
    const std::string deep = world.dir.path(sub);
    ASSERT_TRUE(std::filesystem::create_directory(deep));
    strcpy(g_cfg.snap_dir, deep.c_str());
    strcpy(g_cfg.snap_pfx, "");
    EXPECT_EQ(request(SIGURG), 0);
    EXPECT_TRUE(std::filesystem::exists(deep + "/-1500000000-250.ts"));

    strcpy(g_cfg.snap_pfx, "x");
    EXPECT_EQ(request(SIGURG), -1);
    EXPECT_EQ(log.messages(ll::error), strings{"mk_snapshot_file: cannot make snapshot name, n=128"});
    EXPECT_EQ(g_snapshot, SIGURG);
}

TEST_F(app_snap, name_is_never_cut_to_a_shorter_buffer)
{
    char fpath[128];
    memset(fpath, '#', sizeof(fpath));
    g_ctx.snap_tm = {1500000000, 0};
    const size_t full = world.dir.path("snap-1500000000-0.ts").size();
    EXPECT_EQ(mk_snapshot_file(fpath, full - 1, "N"), -1);
    EXPECT_EQ(fpath[full], '#');
    EXPECT_EQ(world.dir.names(), strings{});
    const int fd = mk_snapshot_file(fpath, full, "N");
    EXPECT_GE(fd, 0);
    close(fd);
}

// ---- delayed --------------------------------------------------------------------------------------------------

TEST_F(app_snap, sigusr2_arms_both_conditions)
{
    g_snapalarm = 1;
    g_ctx.tail_size = 5;
    EXPECT_EQ(request(SIGUSR2), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_TRUE(g_ctx.waiting_alarm);
    EXPECT_TRUE(g_ctx.must_count_tail);
    EXPECT_EQ(g_ctx.tail_size, 0u);
    EXPECT_TRUE(timer_runs());
    EXPECT_EQ(world.dir.names(), strings{});
    EXPECT_EQ(log.messages(), (strings{"schedule_alarm: alarm set for 1000 ms",
                                       "process_snapshot: take snapshot as soon as tail >= 2 Mb"}));
    EXPECT_EQ(log.messages(ll::debug), strings{log.messages()[0]});
    EXPECT_EQ(log.messages(ll::info), strings{log.messages()[1]});
}

TEST_F(app_snap, size_alone_waits_without_a_timer)
{
    g_cfg.tail_tm_ms = 0;
    EXPECT_EQ(request(SIGUSR2), 0);
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_TRUE(g_ctx.must_count_tail);
    EXPECT_FALSE(timer_runs());
}

TEST_F(app_snap, time_alone_waits_without_a_count)
{
    g_cfg.tail_sz_mb = 0;
    EXPECT_EQ(request(SIGUSR2), 0);
    EXPECT_TRUE(g_ctx.waiting_alarm);
    EXPECT_FALSE(g_ctx.must_count_tail);
}

TEST_F(app_snap, request_during_a_pending_one_is_dropped_with_a_warning)
{
    request(SIGUSR2);
    log.clear();
    for (const int signo : {SIGURG, SIGUSR2}) {
        EXPECT_EQ(request(signo), 0);
        EXPECT_EQ(g_snapshot, 0);
    }
    const std::string line = "Another snapshot is pending, ignoring this request";
    EXPECT_EQ(log.messages(ll::warning), (strings{line, line}));
    EXPECT_EQ(world.dir.names(), strings{});
    EXPECT_EQ(g_ctx.snap_tm.tv_sec, 1500000000);
}

TEST_F(app_snap, alarm_takes_the_snapshot_under_the_time_of_the_request)
{
    request(SIGUSR2);
    fake_clock::advance_sec(5);
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 1);
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(world.dir.names(), strings{named});
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_FALSE(g_ctx.must_count_tail);
    EXPECT_FALSE(timer_runs());
    EXPECT_EQ(log.messages(ll::debug).back(), "clear_alarm: alarm cleared");
    EXPECT_EQ(log.messages(ll::normal), strings{"Received alarm-SIG(14)."});
    EXPECT_EQ(log.messages(ll::info)[1], "catch_alarm: got the expected snapshot ALARM");
}

TEST_F(app_snap, timer_fires_after_the_time_of_the_setting)
{
    g_cfg.tail_tm_ms = 1999;
    EXPECT_EQ(schedule_alarm(), 0);
    struct itimerval itv = {};
    getitimer(ITIMER_REAL, &itv);
    const long left_us = itv.it_value.tv_sec * 1000000 + itv.it_value.tv_usec;
    EXPECT_GT(left_us, 1500000);
    EXPECT_LE(left_us, 1999000 + 1000); // the kernel rounds up
    EXPECT_EQ(itv.it_interval.tv_sec, 0);
    EXPECT_EQ(itv.it_interval.tv_usec, 0);
    clear_alarm();
}

TEST_F(app_snap, alarm_that_nobody_waits_for_takes_nothing)
{
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_EQ(log.messages(), strings{"Received alarm-SIG(" + std::to_string(SIGALRM) + ")."});
}

TEST_F(app_snap, snapshot_by_count_disarms_the_timer)
{
    request(SIGUSR2);
    EXPECT_EQ(take_snapshot("B"), 0);
    EXPECT_FALSE(timer_runs());
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_EQ(world.dir.names(), strings{named});
}

TEST_F(app_snap, alarm_that_meets_an_existing_file_is_tried_again_without_its_time)
{
    g_cfg.tail_sz_mb = 0;
    world.dir.file(named, "earlier");
    request(SIGUSR2);
    catch_alarm(SIGALRM);
    EXPECT_EQ(process_signals(), -1);
    EXPECT_EQ(g_snapalarm, 1);
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_EQ(world.dir.names(), (strings{"snap-0-0.ts", named}));
}

TEST_F(app_snap, one_turn_serves_one_flag_and_the_signal_goes_first)
{
    g_snapshot = SIGURG;
    g_snapalarm = 1;
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(g_snapalarm, 1);
    EXPECT_EQ(world.dir.names(), strings{named});
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_EQ(world.dir.names(), (strings{"snap-0-0.ts", named}));
}

TEST_F(app_snap, nothing_pending_is_nothing_to_do)
{
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(log.messages(), strings{});
    clear_alarm();
    EXPECT_EQ(log.messages(), strings{});
}

// ---- a timer that can't be set --------------------------------------------------------------------------------

namespace
{
bool timer_refuses = false;
}

extern "C" int setitimer(__itimer_which_t which, const struct itimerval* val, struct itimerval* old) noexcept
{
    if (timer_refuses) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_setitimer, which, val, old));
}

TEST_F(app_snap, timer_that_cannot_be_armed_leaves_the_request_standing)
{
    timer_refuses = true;
    EXPECT_EQ(request(SIGUSR2), -1);
    EXPECT_EQ(g_snapshot, SIGUSR2);
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_FALSE(g_ctx.must_count_tail);
    EXPECT_EQ(log.messages(), strings{"schedule_alarm: setitimer() ERROR(22): Invalid argument"});
    timer_refuses = false;
    EXPECT_EQ(process_signals(), 0);
    EXPECT_TRUE(g_ctx.waiting_alarm);
    EXPECT_TRUE(g_ctx.must_count_tail);
}

TEST_F(app_snap, timer_that_cannot_be_disarmed_counts_as_armed)
{
    schedule_alarm();
    log.clear();
    timer_refuses = true;
    clear_alarm();
    EXPECT_TRUE(g_ctx.waiting_alarm);
    EXPECT_EQ(log.messages(), strings{"clear_alarm: setitimer() ERROR(22): Invalid argument"});
    timer_refuses = false;
    clear_alarm();
    EXPECT_FALSE(g_ctx.waiting_alarm);
}

TEST_F(app_snap, arming_an_armed_alarm_is_an_assertion)
{
    schedule_alarm();
    EXPECT_DEATH(schedule_alarm(), "!g_ctx.waiting_alarm");
    clear_alarm();
}
