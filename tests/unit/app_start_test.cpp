#include "dstream.h"
#include "support/app_kit.h"
#include "support/log_capture.h"
#include "tavrin/app_int.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/mman.h>

#include <csignal>

using strings = std::vector<std::string>;
using akit::in_child;
using akit::outcome;
using tsb::bytes;

namespace
{

bool fork_refuses = false;

// Settings as built in, nothing made yet.
class app_start : public testing::Test
{
protected:
    app_start()
    {
        glog_init("kvt");
        init_kvti_config(&g_cfg);
        g_cfg.cache_sz_mb = 1;
        g_ctx.ssock = -1; // at zero it would stand for the test's own standard input
        strcpy(g_cfg.snap_dir, dir.path().c_str());
        strcpy(g_cfg.tsa.source, "chan1");
    }
    ~app_start() override { destroy_kvti_ctx(); }

    void source(const std::string& url) { strcpy(g_cfg.src_url, url.c_str()); }
    static struct mm_info ring()
    {
        struct mm_info mi = {};
        mmr_get_info(g_ctx.mmr, &mi);
        return mi;
    }

    akit::temp_dir dir;
    LogCapture log;
};

// Setting the process up replaces the log's stream, so that these look at files.
class app_runtime : public app_start
{
protected:
    app_runtime()
    {
        g_cfg.rt.non_daemon = true;
        strcpy(g_cfg.log.path, dir.path("kvt.log").c_str());
    }
    // Sets the process up in a child at debug, and does something more there.
    outcome set_up(const std::function<void()>& more = [] {})
    {
        return in_child([&] {
            g_mod_ll[0] = ll::debug;
            const int rc = runtime_setup();
            more();
            fflush(nullptr);
            _exit(rc < 0 ? 100 - rc : rc);
        });
    }
    std::string app_log() const { return akit::content_of(dir.path("kvt.log")); }
};

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

extern "C" pid_t fork() noexcept
{
    if (fork_refuses) {
        errno = EAGAIN;
        return -1;
    }
    return reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"))();
}

// ---- analyzer, ring, source -----------------------------------------------------------------------------------

TEST_F(app_start, tcp_source_is_opened_for_streaming)
{
    akit::tcp_server server(akit::clean_stream(100));
    source(server.url("tcp"));
    errno = ENOENT;
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(errno, 0); // what failed on the way is no error of the first read
    EXPECT_TRUE(g_ctx.is_ready);
    EXPECT_GE(g_ctx.ssock, 0);
    EXPECT_EQ(g_ctx.mode.num, SM_STM.num);
    EXPECT_EQ(g_ctx.uc.buf, nullptr);
    EXPECT_EQ(g_ctx.uc.bufcap, 0u);
    const strings told = log.messages(ll::debug);
    EXPECT_EQ(std::count(told.begin(), told.end(), "init_kvti_ctx: mode=STM"), 1);
    EXPECT_EQ(app_int::validate_ctx(&g_ctx, app_int::feed_state()), nullptr);
}

TEST_F(app_start, whole_run_over_tcp)
{
    g_cfg.tsa.is_enabled = true;
    g_cfg.tsa.max_skip_pkts = 9000;
    akit::tcp_server server(akit::clean_stream(20000));
    source(server.url("tcp"));
    ASSERT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 20000u);
    EXPECT_EQ(log.messages(ll::error), strings{});
    EXPECT_EQ(log.count("== EOD, connection broken? =="), 1u);
}

TEST_F(app_start, udp_source_is_opened_for_datagrams)
{
    source("udp://127.0.0.1:0");
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(g_ctx.mode.num, SM_PKT.num);
    EXPECT_EQ(log.count("init_kvti_ctx: mode=PKT"), 1u);
}

// The record is filled anew, whatever an earlier source left in it.
TEST_F(app_start, source_is_asked_for_as_an_input_that_may_block)
{
    memset(static_cast<void*>(&g_ctx.uc), 0x5a, sizeof(g_ctx.uc));
    source("udp://127.0.0.1:0");
    errno = ENOENT;
    ASSERT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(g_ctx.uc.inbound);
    EXPECT_FALSE(g_ctx.uc.non_blocking);
    EXPECT_EQ(g_ctx.uc.ifc_tag, g_cfg.mcast_ifc);
    EXPECT_EQ(g_ctx.uc.timeout_ms, 0);
    EXPECT_EQ(g_ctx.uc.http_flags, 0u);
}

TEST_F(app_start, ring_that_cannot_be_made_ends_the_start)
{
    source("udp://127.0.0.1:0");
    // In a child: a ring that gets no object keeps its handle, and the child's end does not look for it.
    const outcome o = in_child([] {
        // The first ring of a process has this name; somebody else has it already.
        const std::string name = "/mmr." + std::to_string(getpid()) + ".1";
        if (shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600) < 0) _exit(2);
        const int rc = init_kvti_ctx();
        shm_unlink(name.c_str());
        if (g_ctx.is_ready || g_ctx.mmr != nullptr || g_ctx.ssock != -1) _exit(3);
        if (g_ctx.tc == nullptr) _exit(4); // left to the shutdown
        _exit(rc == EINVAL ? 0 : 5);
    });
    EXPECT_EQ(o.status, 0) << o.err;
}

TEST_F(app_start, datagram_kinds_are_udp_and_rtp)
{
    for (int kind = URI_BAD; kind <= URI_HLS; ++kind)
        EXPECT_EQ(is_dgram_kind(kind), kind == 2 || kind == 3) << kind;
}

TEST_F(app_start, body_bytes_behind_the_http_head_are_in_the_ring_already)
{
    const bytes body = akit::clean_stream(2000);
    const std::string head = "HTTP/1.0 200 OK\r\nContent-Type: video/mp2t\r\n\r\n";
    akit::tcp_server server(tsb::cat({bytes(head.begin(), head.end()), body}), true);
    source(server.url("http"));
    EXPECT_EQ(init_kvti_ctx(), 0);
    // Head and body come in one piece, of which the opener takes up to 1023 bytes.
    EXPECT_EQ(ring().pld_size, 1023 - head.size());
    EXPECT_EQ(ring().stype.num, STY_MPEGTS.num);
    const strings told = log.messages(ll::debug);
    const std::string joining = "init_kvti_ctx: joining HTTP tail of " + std::to_string(1023 - head.size()) + " bytes";
    EXPECT_EQ(std::count(told.begin(), told.end(), joining), 1);
    g_cfg.tsa.is_enabled = false;
    EXPECT_EQ(run_app(), 0);
    EXPECT_EQ(ring().pld_size, body.size());
    const int out = open(dir.path("ring.ts").c_str(), O_WRONLY | O_CREAT, 0600);
    mmr_snapshot(g_ctx.mmr, out);
    close(out);
    EXPECT_EQ(akit::content_of(dir.path("ring.ts")), std::string(body.begin(), body.end()));
}

TEST_F(app_start, http_is_asked_by_the_settings)
{
    for (const bool http10 : {false, true}) {
        const std::string head = "HTTP/1.0 200 OK\r\n\r\n";
        akit::tcp_server server(tsb::cat({bytes(head.begin(), head.end()), akit::clean_stream(20)}), true);
        source(server.url("http"));
        g_cfg.use_http10_get = http10;
        EXPECT_EQ(init_kvti_ctx(), 0);
        EXPECT_TRUE(server.request.starts_with(http10 ? "GET /live.ts HTTP/1.0\r\n" : "GET /live.ts HTTP/1.1\r\n"))
            << server.request;
        EXPECT_TRUE(has(server.request, "kvt")) << server.request;
        destroy_kvti_ctx();
    }
}

TEST_F(app_start, http_tail_that_is_no_stream_ends_the_start)
{
    const bytes junk = tsb::noise(900);
    const std::string head = "HTTP/1.0 200 OK\r\n\r\n";
    akit::tcp_server server(tsb::cat({bytes(head.begin(), head.end()), junk}), true);
    source(server.url("http"));
    EXPECT_EQ(init_kvti_ctx(), -14);
    EXPECT_EQ(log.count("init_kvti_ctx: failed to join HTTP tail of 900 bytes, rc=-14"), 1u);
    EXPECT_FALSE(g_ctx.is_ready);
    EXPECT_EQ(g_ctx.uc.buf, nullptr);
}

TEST_F(app_start, missing_snapshot_directory_ends_the_start)
{
    strcpy(g_cfg.snap_dir, "/nonexistent");
    source("udp://127.0.0.1:0");
    EXPECT_EQ(init_kvti_ctx(), ENOENT);
    EXPECT_EQ(g_ctx.tc, nullptr);
    EXPECT_EQ(g_ctx.mmr, nullptr);
    EXPECT_FALSE(g_ctx.is_ready);
}

TEST_F(app_start, slash_at_the_end_of_the_snapshot_directory_is_cut)
{
    strcat(g_cfg.snap_dir, "/");
    source("udp://127.0.0.1:0");
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(g_cfg.snap_dir, dir.path());
}

TEST_F(app_start, source_that_cannot_be_opened_ends_the_start_with_minus_1)
{
    // A port that is taken, and nobody listens there.
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(bind(taken, reinterpret_cast<struct sockaddr*>(&sa), len), 0);
    getsockname(taken, reinterpret_cast<struct sockaddr*>(&sa), &len);
    const std::string closed = "tcp://127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
    for (const std::string& url : {closed, std::string("m3u://h/a"), std::string("nothing"), std::string("udp://h")}) {
        source(url);
        EXPECT_EQ(init_kvti_ctx(), -1) << url;
        EXPECT_FALSE(g_ctx.is_ready);
        EXPECT_EQ(g_ctx.ssock, -1);
        EXPECT_EQ(g_ctx.uc.buf, nullptr);
        EXPECT_EQ(g_ctx.uc.bufcap, 0u);
        destroy_kvti_ctx();
        EXPECT_EQ(g_ctx.mmr, nullptr);
        EXPECT_EQ(g_ctx.tc, nullptr);
    }
    close(taken);
}

TEST_F(app_start, analyzer_is_named_by_the_tag_and_without_one_by_the_url)
{
    source("udp://127.0.0.1:0");
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(log.count("tsan_init: tsan[chan1] ("), 1u);
    destroy_kvti_ctx();
    g_cfg.tsa.source[0] = '\0';
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(log.count("tsan_init: tsan[udp://127.0.0.1:0] ("), 1u);
}

TEST_F(app_start, local_file_opens_and_the_loop_refuses_it)
{
    const bytes data = akit::clean_stream(10);
    source("file://" + dir.file("a.ts", std::string(data.begin(), data.end())));
    EXPECT_EQ(init_kvti_ctx(), 0);
    EXPECT_EQ(g_ctx.mode.num, SM_STM.num);
    EXPECT_EQ(run_app(), -1);
    EXPECT_EQ(log.messages().back(), "run_app: stopped reading due to error in [set_rcv_timeout], rc=-1");
    EXPECT_EQ(ring().pld_size, 0u);
}

TEST_F(app_start, starting_twice_is_an_assertion)
{
    g_ctx.is_ready = true;
    EXPECT_DEATH(init_kvti_ctx(), "!g_ctx.is_ready");
    g_ctx.is_ready = false;
}

// ---- shutdown -------------------------------------------------------------------------------------------------

TEST_F(app_start, shutdown_frees_everything_and_removes_the_pid_file)
{
    const std::string pidfile = dir.file("kvt.pid", "1");
    strcpy(g_cfg.rt.pidfile, pidfile.c_str());
    source("udp://127.0.0.1:0");
    ASSERT_EQ(init_kvti_ctx(), 0);
    const int fd = g_ctx.ssock;
    log.clear();
    EXPECT_EQ(app_shutdown(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_FALSE(g_ctx.is_ready);
    EXPECT_EQ(g_ctx.ssock, -1);
    EXPECT_EQ(g_ctx.mmr, nullptr);
    EXPECT_EQ(g_ctx.tc, nullptr);
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, 0u);
    EXPECT_FALSE(std::filesystem::exists(pidfile));
    EXPECT_STREQ(g_cfg.rt.pidfile, "");
    EXPECT_EQ(log.messages().front(), "app_shutdown: begins");
    EXPECT_EQ(log.messages(ll::debug).front(), "app_shutdown: begins");
    EXPECT_EQ(log.messages().back(), "kvt shut down");
    EXPECT_EQ(log.messages(ll::normal), strings{"kvt shut down"});
}

TEST_F(app_start, missing_pid_file_is_logged_and_no_reason_to_stop)
{
    strcpy(g_cfg.rt.pidfile, dir.path("none").c_str());
    EXPECT_EQ(app_shutdown(), 0);
    EXPECT_EQ(log.messages(ll::error),
              strings{"app_shutdown: unlink(" + dir.path("none") + ") ERROR(2): No such file or directory"});
    EXPECT_EQ(log.messages().back(), "kvt shut down");
}

// A start that failed early has descriptor 0 in its source: it is closed like one.
TEST_F(app_start, shutdown_after_an_early_failure_closes_descriptor_0)
{
    const outcome o = in_child([] {
        g_ctx.ssock = 0;
        app_shutdown();
        _exit(fcntl(STDIN_FILENO, F_GETFD) == -1 && errno == EBADF && g_ctx.ssock == -1 ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0);
}

// ---- the process ----------------------------------------------------------------------------------------------

TEST_F(app_runtime, logs_and_pid_file_are_made)
{
    strcpy(g_cfg.alert_log.path, dir.path("alerts").c_str());
    strcpy(g_cfg.rt.pidfile, dir.path("kvt.pid").c_str());
    g_cfg.log.max_size_mb = 3;
    g_cfg.alert_log.max_size_mb = 5;
    const outcome o = set_up([&] {
        tv_record(&g_access_log, "STAT test\n");
        if (log_rota_maxsize(&g_log) != 3u << 20 || log_rota_maxsize(&g_access_log) != 5u << 20) _exit(99);
        if (log_get_pid(&g_log) != getpid() || log_get_pid(&g_access_log) != getpid()) _exit(98);
        if (akit::content_of(dir.path("kvt.pid")) != std::to_string(getpid())) _exit(97);
    });
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(has(app_log(), "  (INF)  Runtime pid=")) << app_log();
    EXPECT_TRUE(has(app_log(),
                    " uid/gid = " + std::to_string(geteuid()) + "/" + std::to_string(getegid()) + " running in []\n"));
    EXPECT_TRUE(has(app_log(), "  (DBG)  runtime_setup: OK\n"));
    EXPECT_TRUE(akit::content_of(dir.path("alerts")).ends_with("STAT test\n"));
}

// What is said before the log is open carries the process ID too, and tells of the core limit.
TEST_F(app_runtime, what_comes_ahead_of_the_log_is_told_on_stderr_with_the_process_id)
{
    strcpy(g_cfg.rt.pidfile, dir.path("kvt.pid").c_str());
    const outcome o = set_up();
    EXPECT_EQ(o.status, 0) << o.err;
    const std::string pid = akit::content_of(dir.path("kvt.pid"));
    EXPECT_TRUE(has(o.err, " " + pid + "  (DBG)  set_unlimited_core: ")) << o.err;
    EXPECT_TRUE(has(o.err, " " + pid + "  (INF)  Created pidfile [" + dir.path("kvt.pid") + "] with pid=" + pid));
    EXPECT_LT(o.err.find("set_unlimited_core"), o.err.find("Created pidfile"));
}

TEST_F(app_runtime, streams_are_the_standard_ones_until_the_logs_are_open)
{
    g_cfg.log.path[0] = '\0';
    const outcome o = in_child([&] {
        log_default(&g_log, stdout);
        log_default(&g_access_log, stderr);
        _exit(runtime_setup() == 0 && log_fp(&g_log) == stderr && log_fp(&g_access_log) == stdout ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0) << o.err;
}

TEST_F(app_runtime, effective_ids_are_shown)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    g_cfg.log.path[0] = '\0';
    const outcome o = in_child([&] {
        g_mod_ll[0] = ll::info;
        if (setegid(65533) != 0 || seteuid(65534) != 0) _exit(2);
        _exit(runtime_setup());
    });
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(has(o.err, " uid/gid = 65534/65533 running in []\n")) << o.err;
}

TEST_F(app_runtime, without_log_paths_the_standard_streams_stay)
{
    g_cfg.log.path[0] = '\0';
    const outcome o = set_up([] { tv_record(&g_access_log, "STAT test\n"); });
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(has(o.err, "runtime_setup: OK\n"));
    EXPECT_TRUE(has(o.out, "STAT test\n"));
}

TEST_F(app_runtime, earlier_log_is_put_aside_and_an_earlier_alert_log_appended_to)
{
    dir.file("kvt.log", "earlier\n");
    dir.file("alerts", "earlier\n");
    strcpy(g_cfg.alert_log.path, dir.path("alerts").c_str());
    EXPECT_EQ(set_up([] { tv_record(&g_access_log, "STAT test\n"); }).status, 0);
    EXPECT_FALSE(has(app_log(), "earlier"));
    EXPECT_EQ(dir.names().size(), 3u);
    const std::string alerts = akit::content_of(dir.path("alerts"));
    EXPECT_TRUE(alerts.starts_with("earlier\n"));
    EXPECT_TRUE(alerts.ends_with("STAT test\n"));
}

TEST_F(app_runtime, log_behind_a_vertical_bar_is_a_command)
{
    strcpy(g_cfg.log.path, ("|cat > " + dir.path("kvt.log")).c_str());
    strcpy(g_cfg.alert_log.path, ("|cat > " + dir.path("alerts")).c_str());
    const outcome o = set_up([] {
        tv_record(&g_access_log, "STAT test\n");
        log_close(&g_log);
        log_close(&g_access_log);
    });
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(has(app_log(), "runtime_setup: OK\n"));
    EXPECT_TRUE(akit::content_of(dir.path("alerts")).ends_with("STAT test\n"));
}

TEST_F(app_runtime, log_that_cannot_be_opened_ends_the_start_on_stderr)
{
    strcpy(g_cfg.log.path, "/nonexistent/kvt.log");
    const outcome o = set_up([] {
        if (log_fp(&g_log) != stderr) _exit(99);
    });
    EXPECT_EQ(o.status, 101);
    EXPECT_TRUE(has(o.err, "runtime_setup: FAILED (rc=-1)\n")) << o.err;
    EXPECT_FALSE(has(o.err, "Runtime pid="));
}

TEST_F(app_runtime, alert_log_that_cannot_be_opened_ends_the_start)
{
    strcpy(g_cfg.alert_log.path, "/nonexistent/alerts");
    EXPECT_EQ(set_up().status, 101);
    EXPECT_TRUE(has(app_log(), "runtime_setup: FAILED (rc=-1)\n"));
}

TEST_F(app_runtime, pid_file_that_cannot_be_made_ends_the_start_ahead_of_the_logs)
{
    strcpy(g_cfg.rt.pidfile, "/nonexistent/kvt.pid");
    const outcome o = set_up();
    EXPECT_EQ(o.status, 101);
    EXPECT_TRUE(has(o.err, "runtime_setup: FAILED (rc=-1)\n"));
    EXPECT_EQ(app_log(), "");
}

TEST_F(app_runtime, daemon_needs_a_log)
{
    g_cfg.rt.non_daemon = false;
    g_cfg.log.path[0] = '\0';
    const outcome o = set_up();
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(has(o.err, "Logfile must be specified to run as daemon\n"));
    EXPECT_TRUE(has(o.err, "runtime_setup: FAILED (rc=1)\n"));
}

TEST_F(app_runtime, daemon_must_know_where_it_was_started)
{
    g_cfg.rt.non_daemon = false;
    const std::string gone = dir.path("gone");
    const outcome o = in_child([&] {
        std::filesystem::create_directory(gone);
        std::filesystem::current_path(gone);
        std::filesystem::remove(gone);
        _exit(runtime_setup() == -1 ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(has(o.err, "getcwd ERROR(2) : No such file or directory\n")) << o.err;
    EXPECT_TRUE(has(o.err, "runtime_setup: FAILED (rc=-1)\n"));
}

TEST_F(app_runtime, daemon_starts_in_a_directory_of_at_most_255_characters)
{
    g_cfg.rt.non_daemon = false;
    const std::string part(100, 'd');
    for (const size_t len : {255u, 256u}) {
        std::string deep = dir.path() + "/" + part + "/" + part + "/";
        deep += std::string(len - deep.size(), 'e');
        std::filesystem::create_directories(deep);
        const outcome o = in_child([&] {
            std::filesystem::current_path(deep);
            fork_refuses = true; // so far, and no further
            _exit(runtime_setup() == -1 ? 0 : 1);
        });
        EXPECT_EQ(o.status, 0);
        EXPECT_EQ(has(o.err, "getcwd ERROR(34) : Numerical result out of range\n"), len == 256) << o.err;
        EXPECT_EQ(has(o.err, "Failed to make the process a daemon, quitting.\n"), len == 255);
    }
}

TEST_F(app_runtime, process_that_cannot_become_a_daemon_says_so_on_stderr)
{
    g_cfg.rt.non_daemon = false;
    const outcome o = in_child([&] {
        fork_refuses = true;
        _exit(runtime_setup() == -1 && log_fp(&g_log) == stderr ? 0 : 1);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(has(o.err, "Failed to make the process a daemon, quitting.\n")) << o.err;
    EXPECT_TRUE(has(o.err, "runtime_setup: FAILED (rc=-1)\n"));
    EXPECT_EQ(app_log(), "");
}

TEST_F(app_runtime, only_the_alert_log_goes_to_syslog)
{
    strcpy(g_cfg.alert_log.path, dir.path("alerts").c_str());
    g_cfg.log.enable_syslog = true;
    g_cfg.alert_log.enable_syslog = true;
    g_cfg.alert_log.facility = 8;
    g_log.syslg.enabled = true; // whatever stood there before
    const outcome o = set_up([] {
        if (g_log.syslg.enabled || !g_access_log.syslg.enabled || g_access_log.syslg.facility != 8) _exit(99);
    });
    EXPECT_EQ(o.status, 0);
}

TEST_F(app_runtime, without_an_alert_log_nothing_goes_to_syslog)
{
    g_cfg.alert_log.enable_syslog = true;
    EXPECT_EQ(set_up([] {
                  if (g_access_log.syslg.enabled) _exit(99);
              }).status,
              0);
}

TEST_F(app_runtime, alarm_alone_restarts_a_blocked_read)
{
    const outcome o = set_up([] {
        struct row {
            int signo;
            void (*handler)(int);
            bool restarts;
        };
        for (const row& r : {row{SIGTERM, exit_on_sig, false}, row{SIGINT, exit_on_sig, false},
                             row{SIGQUIT, exit_on_sig, false}, row{SIGUSR2, snapshot_on_sig, false},
                             row{SIGURG, snapshot_on_sig, false}, row{SIGALRM, catch_alarm, true}}) {
            struct sigaction sa = {};
            sigaction(r.signo, nullptr, &sa);
            if (sa.sa_handler != r.handler || ((sa.sa_flags & SA_RESTART) != 0) != r.restarts) _exit(r.signo);
        }
        struct sigaction sa = {};
        sigaction(SIGPIPE, nullptr, &sa);
        if (sa.sa_handler != SIG_DFL) _exit(SIGPIPE);
    });
    EXPECT_EQ(o.status, 0);
}

// ---- handlers -------------------------------------------------------------------------------------------------

TEST_F(app_start, quit_signals_set_their_flags)
{
    exit_on_sig(SIGQUIT);
    EXPECT_EQ(g_quit, 1);
    EXPECT_EQ(g_goodbye, 0);
    exit_on_sig(SIGINT);
    EXPECT_EQ(g_goodbye, 1);
    g_goodbye = 0;
    exit_on_sig(SIGTERM);
    EXPECT_EQ(g_goodbye, 1);
    EXPECT_EQ(log.messages(ll::normal),
              (strings{"Received QUIT-SIG(3), will exit now.", "Received QUIT-SIG(2), will exit now.",
                       "Received QUIT-SIG(15), will exit now."}));
    EXPECT_EQ(g_sigctx, 0);
}

TEST_F(app_start, snapshot_signals_leave_their_number)
{
    snapshot_on_sig(SIGUSR2);
    EXPECT_EQ(g_snapshot, SIGUSR2);
    snapshot_on_sig(SIGURG);
    EXPECT_EQ(g_snapshot, SIGURG);
    EXPECT_EQ(log.messages(ll::normal), (strings{"Received snapshot-SIG(12).", "Received snapshot-SIG(23)."}));
    EXPECT_EQ(g_sigctx, 0);
}

TEST_F(app_start, alarm_counts_only_while_a_snapshot_waits_for_it)
{
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 0);
    g_ctx.waiting_alarm = true;
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 1);
    EXPECT_EQ(log.messages(), (strings{"Received alarm-SIG(14).", "Received alarm-SIG(14).",
                                       "catch_alarm: got the expected snapshot ALARM"}));
    g_ctx.waiting_alarm = false;
}

TEST_F(app_start, handlers_leave_errno_and_an_outer_handler_s_mark_alone)
{
    FILE* full = fopen("/dev/full", "w"); // a log that can't be written sets errno on its own
    setvbuf(full, nullptr, _IONBF, 0);
    log_default(&g_log, full);
    for (void (*handler)(int) : {exit_on_sig, snapshot_on_sig, catch_alarm}) {
        errno = EINTR;
        g_sigctx = 1;
        handler(SIGTERM);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(g_sigctx, 1);
        g_sigctx = 0;
    }
    log.attach();
    fclose(full);
}

// ---- the state's own checks -----------------------------------------------------------------------------------

TEST_F(app_start, state_check_objects_to_each_broken_invariant)
{
    source("udp://127.0.0.1:0");
    ASSERT_EQ(init_kvti_ctx(), 0);
    uint8_t some[8];
    const struct row {
        const char* told;
        std::function<void(kvti_ctx&, process_ctx&)> damage;
    } rows[] = {
        {"abuf and abuf_len go together", [](kvti_ctx& c, process_ctx&) { c.abuf_len = 1; }},
        {"abuf and abuf_len go together", [&](kvti_ctx& c, process_ctx&) { c.abuf = some; }},
        {"the carry-over fits abuf",
         [&](kvti_ctx& c, process_ctx& f) {
             c.abuf = some;
             c.abuf_len = 8;
             f.tail_size = 9;
         }},
        {"a carry-over has its buffer", [](kvti_ctx&, process_ctx& f) { f.tail_size = 1; }},
        {"packets are counted in a known stream only", [](kvti_ctx&, process_ctx& f) { f.pkt_count = 1; }},
        {"a ready context has its source", [](kvti_ctx& c, process_ctx&) { c.ssock = -1; }},
        {"a ready context has its ring", [](kvti_ctx& c, process_ctx&) { c.mmr = nullptr; }},
        {"a ready context has its analyzer", [](kvti_ctx& c, process_ctx&) { c.tc = nullptr; }},
        {"the ring's memory is lent for the opening only",
         [&](kvti_ctx& c, process_ctx&) { c.uc.buf = reinterpret_cast<char*>(some); }},
        {"the mode is one of the two", [](kvti_ctx& c, process_ctx&) { c.mode.num = 0; }},
    };
    for (const row& r : rows) {
        kvti_ctx c = g_ctx;
        process_ctx f = *app_int::feed_state();
        ASSERT_EQ(app_int::validate_ctx(&c, &f), nullptr);
        r.damage(c, f);
        const char* told = app_int::validate_ctx(&c, &f);
        ASSERT_NE(told, nullptr) << r.told;
        EXPECT_STREQ(told, r.told);
    }
}

TEST_F(app_start, state_is_shown_in_words)
{
    source("udp://127.0.0.1:0");
    ASSERT_EQ(init_kvti_ctx(), 0);
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    app_int::dump_ctx(fp, &g_ctx, app_int::feed_state());
    fclose(fp);
    const std::string shown(text, len);
    free(text);
    EXPECT_TRUE(has(shown, "run-time state: ready, source fd" + std::to_string(g_ctx.ssock) + ", mode [PKT]\n"))
        << shown;
    EXPECT_TRUE(has(shown, "\tinvariants: hold\n"));
}
