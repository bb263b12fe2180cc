#include "dstream.h"
#include "support/app_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "syswrap.h"
#include "tavrin/app_int.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <atomic>
#include <csignal>

using strings = std::vector<std::string>;
using akit::in_child;
using akit::outcome;
using tsb::bytes;

// ---- a recv that belongs to the test --------------------------------------------------------------------------

namespace
{

// Answers a recv in place of the kernel as long as it is set: the number of the call (from 1), buffer and length.
std::function<ssize_t(int, void*, size_t)> scripted_recv;
int recv_calls = 0;

ssize_t fail_with(int err)
{
    errno = err;
    return -1;
}

} // namespace

extern "C" ssize_t recv(int fd, void* buf, size_t len, int flags)
{
    if (scripted_recv) return scripted_recv(++recv_calls, buf, len);
    return recvfrom(fd, buf, len, flags, nullptr, nullptr);
}

namespace
{

class app_loop : public testing::Test
{
protected:
    app_loop()
    {
        log.clear();
        errno = 0;
    }
    ~app_loop() override { scripted_recv = nullptr; }

    // Everything that goes to the log from here on; how a run ended is its last line.
    std::string last() const
    {
        const strings all = log.messages();
        return all.empty() ? "" : all.back();
    }
    static std::string fd() { return std::to_string(g_ctx.ssock); }
    // Sends from a thread of its own, so that a full socket blocks nobody, and hangs up.
    void play(const bytes& data)
    {
        std::thread sender([&] {
            src.send_all(data);
            src.hang_up();
        });
        rc = run_app();
        // Whatever the run left unread would hold the sender up.
        char rest[4096];
        while (read(g_ctx.ssock, rest, sizeof(rest)) > 0) {
        }
        shutdown(g_ctx.ssock, SHUT_RDWR);
        sender.join();
    }

    akit::app_world world;
    akit::socket_source src;
    LogCapture log;
    LogCapture alerts{&g_access_log};
    int rc = 12345;
};

// Datagrams, as many as there are; what follows is the script's.
class app_dgram_loop : public testing::Test
{
protected:
    app_dgram_loop()
    {
        log.clear();
        errno = 0;
    }
    ~app_dgram_loop() override { scripted_recv = nullptr; }
    // One datagram of seven packets into the loop's buffer.
    ssize_t next_dgram(void* buf)
    {
        const bytes data = tsb::cat(stream.take(7));
        memcpy(buf, data.data(), data.size());
        return static_cast<ssize_t>(data.size());
    }

    akit::app_world world;
    akit::socket_source src{SOCK_DGRAM};
    LogCapture log;
    tsb::stream stream{tsb::one_program()};
};

} // namespace

// ---- end of the data ------------------------------------------------------------------------------------------

TEST_F(app_loop, end_of_a_stream_is_a_clean_end)
{
    strcpy(g_cfg.src_url, "tcp://127.0.0.1:5000");
    play(akit::clean_stream(5000));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 5000u);
    EXPECT_EQ(log.messages()[0], "Reading (STM) from fd" + fd() + " [tcp://127.0.0.1:5000]");
    EXPECT_EQ(log.messages(ll::warning), strings{"== EOD, connection broken? =="});
    EXPECT_EQ(log.messages(ll::error), strings{});
    EXPECT_EQ(last(), "run_app: done reading from source fd" + fd() + ", quit=0");
}

TEST_F(app_loop, ring_ends_up_with_the_newest_stretch_of_the_stream)
{
    const bytes all = akit::clean_stream(20000); // 3.6 Mb through a ring of 1 Mb
    play(all);
    EXPECT_EQ(rc, 0);
    EXPECT_LE(world.info().pld_size, (size_t{1} << 20));
    EXPECT_EQ(world.info().last_pktnum, 20000u);
    const std::string path = world.dir.path("ring.ts");
    const int out = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    mmr_snapshot(g_ctx.mmr, out);
    close(out);
    const std::string kept = akit::content_of(path);
    EXPECT_EQ(kept, std::string(all.end() - static_cast<ssize_t>(kept.size()), all.end()));
    EXPECT_GT(kept.size(), (size_t{1} << 20) - 4096 - 188 - 4096);
}

// errno as it stands decides: the loop doesn't clear it ahead of the read.
TEST_F(app_loop, error_left_over_from_earlier_turns_the_end_of_the_data_into_an_error)
{
    src.hang_up();
    errno = EIO;
    EXPECT_EQ(run_app(), EIO);
    EXPECT_EQ(log.messages(ll::error), (strings{"run_app: recv(fd" + fd() + ",...) rc=0 ERROR(5): Input/output error",
                                                "run_app: stopped reading due to error in [recv/Read_f], rc=5"}));
    EXPECT_EQ(log.messages(ll::warning), strings{});
}

TEST_F(app_dgram_loop, empty_datagram_ends_the_run)
{
    src.send_dgram(tsb::cat(stream.take(7)));
    src.send_dgram({});
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 7u);
    EXPECT_EQ(log.messages()[0], "Reading (PKT) from fd" + std::to_string(g_ctx.ssock) + " []");
    EXPECT_EQ(log.count("== EOD, connection broken? =="), 1u);
}

TEST_F(app_dgram_loop, each_datagram_is_one_read)
{
    for (int i = 0; i < 3; ++i)
        src.send_dgram(tsb::cat(stream.take(7)));
    src.send_dgram({});
    g_cfg.report_tput_sec = 1000;
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(g_ctx.tps.total_pkts, 3.0);
    EXPECT_EQ(g_ctx.tps.total_bytes, 3.0 * 1316);
}

// ---- time-outs and other errors of the read -------------------------------------------------------------------

TEST_F(app_loop, silent_stream_ends_the_run_after_the_time_out)
{
    g_cfg.read_tmout_ms = 20;
    EXPECT_EQ(run_app(), EAGAIN);
    EXPECT_EQ(log.messages(ll::error),
              (strings{"run_app: recv(fd" + fd() + ",...) rc=-1 ERROR(11): Resource temporarily unavailable",
                       "run_app: stopped reading due to error in [recv/Read_f], rc=11"}));
}

TEST_F(app_dgram_loop, silent_source_ends_the_run_after_the_time_out)
{
    g_cfg.read_tmout_ms = 20;
    src.send_dgram(tsb::cat(stream.take(7)));
    EXPECT_EQ(run_app(), EAGAIN);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 7u);
    EXPECT_EQ(log.count("rc=-1 ERROR(11): Resource temporarily unavailable"), 1u);
    EXPECT_FALSE(log.contains("READ-TIME-OUT"));
}

TEST_F(app_dgram_loop, connection_that_timed_out_has_a_line_of_its_own)
{
    scripted_recv = [](int, void*, size_t) { return fail_with(ETIMEDOUT); };
    EXPECT_EQ(run_app(), 110);
    const std::string fd = std::to_string(g_ctx.ssock);
    EXPECT_EQ(log.messages(ll::error),
              (strings{"run_app: recv(fd" + fd + ",...) rc=-1 ERROR(110): Connection timed out",
                       "READ-TIME-OUT on fd" + fd + ", quitting the loop",
                       "run_app: stopped reading due to error in [recv/Read_f], rc=110"}));
}

TEST_F(app_dgram_loop, failure_without_an_error_number_gives_minus_1)
{
    scripted_recv = [](int, void*, size_t) { return fail_with(0); };
    EXPECT_EQ(run_app(), -1);
    EXPECT_EQ(log.count("rc=-1 ERROR(0): Success"), 1u);
    EXPECT_EQ(log.count("run_app: stopped reading due to error in [recv/Read_f], rc=-1"), 1u);
}

TEST_F(app_loop, source_that_is_no_socket_ends_the_run_before_the_loop)
{
    close(g_ctx.ssock);
    g_ctx.ssock = open(world.dir.file("a.ts", "data").c_str(), O_RDONLY);
    EXPECT_EQ(run_app(), -1);
    EXPECT_EQ(last(), "run_app: stopped reading due to error in [set_rcv_timeout], rc=-1");
    EXPECT_EQ(lseek(g_ctx.ssock, 0, SEEK_CUR), 0);
}

TEST_F(app_loop, time_out_is_set_also_when_it_is_0)
{
    const struct timeval tv = {9, 0};
    ASSERT_EQ(setsockopt(g_ctx.ssock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)), 0);
    src.hang_up();
    run_app();
    struct timeval now = {};
    socklen_t len = sizeof(now);
    getsockopt(g_ctx.ssock, SOL_SOCKET, SO_RCVTIMEO, &now, &len);
    EXPECT_EQ(now.tv_sec, 0);
}

// ---- failing steps --------------------------------------------------------------------------------------------

TEST_F(app_loop, input_that_is_no_stream_ends_the_run)
{
    play(tsb::noise(2000));
    EXPECT_EQ(rc, -14);
    EXPECT_EQ(last(), "run_app: stopped reading due to error in [mmr_iput], rc=-14");
}

TEST_F(app_dgram_loop, failing_analysis_ends_the_run)
{
    src.send_dgram(tsb::cat(stream.take(7)));
    src.send_dgram(tsb::noise(1000));
    EXPECT_EQ(run_app(), -1);
    EXPECT_EQ(log.messages().back(), "run_app: stopped reading due to error in [process_input], rc=-1");
}

TEST_F(app_dgram_loop, without_the_analyzer_later_bytes_are_not_looked_at)
{
    g_cfg.tsa.is_enabled = false;
    src.send_dgram(tsb::cat(stream.take(7)));
    src.send_dgram(tsb::noise(1000));
    src.send_dgram({});
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(world.info().pld_size, 2316u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 0u);
}

TEST_F(app_dgram_loop, garbage_at_the_head_of_the_ring_ends_the_run)
{
    g_cfg.tsa.is_enabled = false;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call <= 10) return next_dgram(buf);
        const bytes bad = tsb::noise(1316);
        memcpy(buf, bad.data(), bad.size());
        return static_cast<ssize_t>(bad.size());
    };
    EXPECT_EQ(run_app(), -1);
    EXPECT_EQ(log.count("run_app: mmr_cap(.., 1044480) ERROR(-1)"), 1u);
    EXPECT_EQ(log.messages().back(), "run_app: stopped reading due to error in [mmr_cap], rc=-1");
}

TEST_F(app_loop, ring_without_room_for_a_read_ends_the_run)
{
    g_cfg.tsa.is_enabled = false;
    g_cfg.min_read_bytes = 0; // so that capping leaves the ring full
    play(akit::clean_stream(10000));
    EXPECT_EQ(rc, ENOMEM);
    EXPECT_EQ(log.count("run_app: not enough space: buf="), 1u);
    EXPECT_EQ(last(), "run_app: stopped reading due to error in [mmr_iget], rc=12");
}

TEST_F(app_dgram_loop, room_of_1400_bytes_is_enough_for_a_read_and_1399_is_not)
{
    for (const size_t room : {1400u, 1399u}) {
        const outcome o = in_child([&] {
            g_cfg.tsa.is_enabled = false;
            g_cfg.min_read_bytes = 0;
            tsb::bytes full((size_t{1} << 20) - room);
            const bytes some = akit::clean_stream(full.size() / 188 + 1);
            world.store(akit::part(some, 0, full.size()));
            scripted_recv = [&](int, void*, size_t len) -> ssize_t { _exit(len == room ? 7 : 8); };
            _exit(run_app());
        });
        EXPECT_EQ(o.status, room == 1400 ? 7 : ENOMEM);
    }
}

// ---- signals --------------------------------------------------------------------------------------------------

TEST_F(app_dgram_loop, interrupted_read_is_made_again_into_the_same_place)
{
    void* places[3] = {};
    size_t lengths[3] = {};
    scripted_recv = [&](int call, void* buf, size_t len) -> ssize_t {
        if (call <= 3) {
            places[call - 1] = buf;
            lengths[call - 1] = len;
        }
        if (call == 1) return next_dgram(buf);
        if (call == 2) return fail_with(EINTR);
        if (call == 3) return next_dgram(buf);
        return 0;
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(static_cast<uint8_t*>(places[1]) - static_cast<uint8_t*>(places[0]), 1316);
    EXPECT_EQ(places[2], places[1]);
    EXPECT_EQ(lengths[2], lengths[1]);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 14u);
    const strings told = log.messages(ll::debug);
    EXPECT_EQ(std::count(told.begin(), told.end(), "run_app: moving on after interrupt, sshot=0/salrm=0, quit=0"), 1);
    EXPECT_EQ(std::count(told.begin(), told.end(), "run_app: re-reading after an interrupt"), 1);
}

// A handler may come at any moment: what counts is errno, even where the read itself has nothing to say.
TEST_F(app_dgram_loop, empty_read_with_an_interrupt_left_over_is_an_interrupt)
{
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 1) return errno = EINTR, 0;
        return call == 2 ? next_dgram(buf) : 0;
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 7u);
    EXPECT_EQ(log.count("== EOD, connection broken? =="), 1u);
}

TEST_F(app_dgram_loop, interrupt_clears_errno)
{
    int seen = -1;
    scripted_recv = [&](int call, void*, size_t) -> ssize_t {
        if (call == 1) return fail_with(EINTR);
        seen = errno;
        return 0;
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(seen, 0);
}

TEST_F(app_dgram_loop, interrupted_turn_skips_what_follows_the_read)
{
    g_cfg.report_tput_sec = 1000;
    scripted_recv = [&](int call, void*, size_t) -> ssize_t { return call == 1 ? fail_with(EINTR) : 0; };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(g_ctx.tps.total_pkts, 0.0);
}

TEST_F(app_dgram_loop, snapshot_signal_during_a_read_is_served_in_the_next_turn)
{
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 1) return next_dgram(buf);
        if (call == 2) {
            raise(SIGURG);
            return fail_with(EINTR);
        }
        return 0;
    };
    ASSERT_NE(signal(SIGURG, snapshot_on_sig), SIG_ERR);
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(world.dir.names().size(), 1u);
    EXPECT_EQ(log.count("Received snapshot-SIG(23)."), 1u);
    EXPECT_EQ(log.count("run_app: moving on after interrupt, sshot=23/salrm=0, quit=0"), 1u);
    EXPECT_EQ(g_snapshot, 0);
}

TEST_F(app_dgram_loop, quit_signal_during_a_read_ends_the_run_with_0)
{
    scripted_recv = [&](int, void*, size_t) -> ssize_t {
        exit_on_sig(SIGTERM);
        return fail_with(EINTR);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(recv_calls, 1);
    EXPECT_FALSE(log.contains("moving on after interrupt"));
    EXPECT_EQ(log.messages().back(), "run_app: done reading from source fd" + std::to_string(g_ctx.ssock) + ", quit=1");
}

TEST_F(app_dgram_loop, quit_flag_is_seen_at_the_head_of_each_turn)
{
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 3) g_quit = 1;
        return next_dgram(buf);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(recv_calls, 3);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 21u);
}

TEST_F(app_dgram_loop, failing_snapshot_does_not_end_the_run)
{
    strcpy(g_cfg.snap_dir, "/nonexistent");
    g_snapshot = SIGURG;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        return call <= 3 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(g_snapshot, SIGURG);
    EXPECT_EQ(log.count("mk_snapshot_file: open('/nonexistent/"), 4u); // tried again in each turn
}

namespace
{

// True while a thread of this process sleeps in a call.
bool is_asleep(pid_t tid)
{
    const std::string stat = akit::content_of("/proc/self/task/" + std::to_string(tid) + "/stat");
    const size_t end_of_name = stat.rfind(')');
    return end_of_name != std::string::npos && stat.substr(end_of_name + 1, 2) == " S";
}

} // namespace

// The real thing: a blocked read that a signal has to break.
TEST_F(app_loop, blocked_read_wakes_for_a_quit_signal)
{
    ASSERT_EQ(handle_quit_signals(exit_on_sig), 0);
    const pthread_t reader = pthread_self();
    const pid_t reader_id = gettid();
    std::atomic<bool> done = false;
    std::thread killer([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        // A handler that interrupts the calendar has its line refused: the first signal comes once the read blocks.
        while (!is_asleep(reader_id))
            usleep(100);
        while (!done) {
            pthread_kill(reader, SIGTERM);
            usleep(1000);
        }
    });
    EXPECT_EQ(run_app(), 0);
    done = true;
    killer.join();
    EXPECT_EQ(g_quit, 1);
    EXPECT_GE(log.count("Received QUIT-SIG(15), will exit now."), 1u);
}

// ---- delayed snapshots in the loop ----------------------------------------------------------------------------

TEST_F(app_dgram_loop, delayed_snapshot_is_taken_when_the_tail_has_come_in)
{
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 0;
    g_snapshot = SIGUSR2;
    const int needed = (1 << 20) / 1316 + 1;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        EXPECT_EQ(world.dir.names().size(), call <= needed ? 0u : 1u) << call;
        return call <= needed + 5 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    const strings told = log.messages(ll::info);
    const std::string line = "run_app: tail size (" + std::to_string(needed * 1316) + ") >= 1 Mb";
    EXPECT_EQ(std::count(told.begin(), told.end(), line), 1);
    EXPECT_EQ(world.dir.names().size(), 1u);
    EXPECT_FALSE(g_ctx.must_count_tail);
}

TEST_F(app_dgram_loop, timed_snapshot_is_taken_in_the_turn_after_the_alarm)
{
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 60000;
    g_snapshot = SIGUSR2;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 3) catch_alarm(SIGALRM); // the read goes on: the alarm does not break it
        EXPECT_EQ(world.dir.names().size(), call >= 4 ? 1u : 0u) << call;
        return call <= 5 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(log.count("catch_alarm: got the expected snapshot ALARM"), 1u);
    EXPECT_EQ(log.count("take_snapshot: write "), 1u);
}

// The alarm does not wake the read, and what that read brings may complete the tail: one request is one file.
TEST_F(app_dgram_loop, snapshot_by_count_leaves_nothing_to_an_alarm_that_went_off_during_its_read)
{
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 60000;
    g_snapshot = SIGUSR2;
    const int needed = (1 << 20) / 1316 + 1;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == needed) catch_alarm(SIGALRM);
        return call <= needed + 5 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(log.count("catch_alarm: got the expected snapshot ALARM"), 1u);
    EXPECT_EQ(log.count("take_snapshot: write "), 1u);
    EXPECT_EQ(world.dir.names().size(), 1u);
    EXPECT_EQ(g_snapalarm, 0);
}

// A snapshot that the count could not take is left to an alarm that has gone off: its flag is the request that stands.
TEST_F(app_dgram_loop, snapshot_that_the_count_could_not_take_is_left_to_the_alarm)
{
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 60000;
    g_snapshot = SIGUSR2;
    const int needed = (1 << 20) / 1316 + 1;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == needed) {
            catch_alarm(SIGALRM);
            strcpy(g_cfg.snap_dir, "/nonexistent");
        }
        if (call == needed + 1) strcpy(g_cfg.snap_dir, world.dir.path().c_str());
        return call <= needed + 5 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(world.dir.names(), strings{"snap-0-0.ts"});
}

TEST_F(app_dgram_loop, tail_is_complete_at_exactly_its_size)
{
    g_cfg.tail_sz_mb = 1;
    g_ctx.must_count_tail = true;
    g_ctx.tail_size = (1 << 20) - 2 * 1316;
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        EXPECT_EQ(world.dir.names().size(), call <= 2 ? 0u : 1u) << call;
        return call <= 2 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(log.count("run_app: tail size (1048576) >= 1 Mb"), 1u);
}

// ---- the steps behind a read ----------------------------------------------------------------------------------

TEST_F(app_dgram_loop, run_is_opened_and_closed_by_a_line)
{
    strcpy(g_cfg.src_url, "udp://1.2.3.4:5");
    const std::string fd = std::to_string(g_ctx.ssock);
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t { return call == 1 ? next_dgram(buf) : 0; };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(log.messages(ll::normal).front(), "Reading (PKT) from fd" + fd + " [udp://1.2.3.4:5]");
    EXPECT_EQ(log.messages(ll::info).back(), "run_app: done reading from source fd" + fd + ", quit=0");
}

TEST_F(app_dgram_loop, ring_is_silent_during_a_run)
{
    mmr_set_verbosity(~0u);
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t { return call <= 3 ? next_dgram(buf) : 0; };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(log.count("segments packed"), 0u);
}

// Throughput, tail, statistics, settings: what one read brings about comes in this order.
TEST_F(app_dgram_loop, steps_behind_a_read_keep_their_order)
{
    const std::string path = world.dir.file("kvt.conf", "kvt: { config_reload_period = 1; };");
    strcpy(g_cfg.config_path, path.c_str());
    g_ctx.config_load_tm = 1000;
    g_cfg.reload_period = 1;
    g_cfg.report_tput_sec = 1;
    g_cfg.tail_sz_mb = 1;
    g_cfg.tsa.dump_stats_period = 1;
    tsan_free(g_ctx.tc);
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    fake_clock::set(1000);
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 2) {
            fake_clock::advance_sec(5);
            g_ctx.must_count_tail = true;
            g_ctx.tail_size = 1 << 20;
            g_ctx.config_load_tm = 1;
        }
        return call <= 2 ? next_dgram(buf) : 0;
    };
    EXPECT_EQ(run_app(), 0);
    fake_clock::release();
    const std::string text = log.text();
    size_t at = 0;
    for (const char* step : {"IN total: chan1", "run_app: tail size", "take_snapshot: write", "tsan_stats BEGIN",
                             "updated, re-loading config"}) {
        const size_t next = text.find(step, at);
        ASSERT_NE(next, std::string::npos) << step << " does not follow:\n" << text;
        at = next;
    }
}

TEST_F(app_dgram_loop, without_the_analyzer_there_are_no_statistics)
{
    g_cfg.tsa.dump_stats_period = 1;
    tsan_free(g_ctx.tc);
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    for (const bool on : {false, true}) {
        const outcome o = in_child([&] {
            g_cfg.tsa.is_enabled = on;
            fake_clock::set(1000);
            scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
                fake_clock::advance_sec(5);
                return call <= 3 ? next_dgram(buf) : (errno = 0, 0);
            };
            _exit(run_app() == 0 && log.contains("tsan_stats BEGIN") == on ? 0 : 1);
        });
        EXPECT_EQ(o.status, 0) << on;
    }
}

// ---- statistics -----------------------------------------------------------------------------------------------

namespace
{

// Runs the loop over 21 datagrams a second apart with a report due every 5 seconds: what came on the mirror (err) and
// on the alert log (out).
outcome run_with_reports(uid_t uid, int level)
{
    const outcome o = in_child([&] {
        akit::app_world world;
        akit::socket_source src(SOCK_DGRAM);
        tsb::stream stream(tsb::one_program());
        g_mod_ll[0] = level;
        log_default(&g_log, fopen("/dev/null", "w"));
        log_mirror(&g_log, stderr);
        log_default(&g_access_log, stdout);
        tsan_free(g_ctx.tc);
        g_cfg.tsa.pcr_freq_ms = 40;
        g_cfg.tsa.dump_stats_period = 5;
        g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
        if (seteuid(uid) != 0) _exit(2);
        fake_clock::set(1000);
        scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
            if (call > 21) return errno = 0, 0;
            fake_clock::advance_sec(1);
            const bytes data = tsb::cat(stream.take(7));
            memcpy(buf, data.data(), data.size());
            return static_cast<ssize_t>(data.size());
        };
        const int rc = run_app();
        fflush(nullptr);
        _exit(rc == 0 ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0) << o.err;
    return o;
}

std::string mirrored_reports(uid_t uid, int level)
{
    return run_with_reports(uid, level).err;
}

struct span_counts {
    unsigned long local = 0;
    unsigned long global = 0;
};

// Numbers of measurements in the last record of PCR intervals.
span_counts last_pcr_counts(const std::string& records)
{
    span_counts last;
    for (size_t at = 0; (at = records.find("STAT PCR-freq ", at)) != std::string::npos; ++at)
        EXPECT_EQ(sscanf(records.c_str() + at, "STAT PCR-freq %*s %*d %*d %*s %lu %*u %*u %*u %*s %lu ", &last.local,
                         &last.global),
                  2);
    return last;
}

} // namespace

// Who relies on the local spans has to run as a user and at debug.
TEST(app_stats, report_goes_to_the_terminal_for_users_at_debug_only)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    EXPECT_NE(mirrored_reports(65534, ll::debug).find("tsan_stats BEGIN"), std::string::npos);
    EXPECT_EQ(mirrored_reports(65534, ll::info).find("tsan_stats BEGIN"), std::string::npos);
    EXPECT_EQ(mirrored_reports(0, ll::debug).find("tsan_stats BEGIN"), std::string::npos);
}

TEST(app_stats, local_spans_begin_anew_for_users_at_debug_only)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const span_counts anew = last_pcr_counts(run_with_reports(65534, ll::debug).out);
    EXPECT_GT(anew.local, 0u);
    EXPECT_LT(anew.local, anew.global);
    for (const outcome& o : {run_with_reports(65534, ll::info), run_with_reports(0, ll::debug)}) {
        const span_counts on = last_pcr_counts(o.out);
        EXPECT_EQ(on.local, on.global);
        EXPECT_EQ(on.global, anew.global);
    }
}

// A reload may switch it while the ring turns over: what leaves the ring must have been counted in.
TEST_F(app_dgram_loop, analysis_follows_the_setting_at_each_read)
{
    const int total = 3 * (1 << 20) / 1316; // the ring turns over before the switch, and behind it
    for (const bool on : {true, false}) {
        const outcome o = in_child([&] {
            g_cfg.tsa.is_enabled = on;
            scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
                if (call == total / 2 || call == total - 10) g_cfg.tsa.is_enabled = !g_cfg.tsa.is_enabled;
                return call <= total ? next_dgram(buf) : (errno = 0, 0);
            };
            if (run_app() != 0) _exit(1);
            const int seen = on ? total / 2 - 1 + 11 : total - 10 - total / 2;
            _exit(tsan_get_pidx(g_ctx.tc) == 7u * static_cast<unsigned>(seen) ? 0 : 2);
        });
        EXPECT_EQ(o.status, 0) << on << o.err;
    }
}

TEST_F(app_dgram_loop, settings_are_reloaded_while_the_stream_runs)
{
    const std::string text = "kvt: { log: { enable_syslog = false; }; runtime: {}; config_reload_period = 1;";
    const std::string path = world.dir.file("kvt.conf", text + "cache: { tail_size_mb = 3; }; };");
    fake_clock::set(1000);
    ASSERT_EQ(load_kvti_config(path.c_str(), &g_cfg, false), 0);
    g_cfg.cache_sz_mb = 1;
    g_cfg.tsa.is_enabled = true;
    strcpy(g_cfg.snap_dir, world.dir.path().c_str());
    g_ctx.config_mtime = 1; // older than the file
    scripted_recv = [&](int call, void* buf, size_t) -> ssize_t {
        if (call == 2) {
            EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
            world.dir.file("kvt.conf", text + "cache: { tail_size_mb = 4; }; };");
            fake_clock::advance_sec(1);
        }
        return call <= 2 ? next_dgram(buf) : (errno = 0, 0);
    };
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 4u);
    EXPECT_EQ(log.count("updated, re-loading config"), 1u);
    fake_clock::release();
}
