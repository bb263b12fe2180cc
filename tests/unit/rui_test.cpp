// Listeners: callbacks, set-up, start, stop and resumption, the end.
#include "common/rui.h"

#include "support/assert_kit.h"
#include "support/rui_kit.h"

#include <fcntl.h>
#include <net/if.h>

#include "netops.h"

namespace
{

class RuiTest : public RuiKit
{
protected:
    // A listener's own descriptor is in the loop: taking it out works once.
    static bool in_loop(int fd) { return rqs_mod(fd, nullptr, 0) == 0; }
};

} // namespace

static_assert(offsetof(rui_listener_cfg, alias) < offsetof(rui_listener_cfg, index));
static_assert(sizeof(rui_listener_cfg::alias) == 32 && sizeof(rui_listener_cfg::port) == 6);
static_assert(sizeof(rui_listener_cfg::domain_path) == 104 && MAX_USOCK_SZ == 104);
static_assert(offsetof(rui_cfg, admin) == 4 * sizeof(rui_listener_cfg));
static_assert(offsetof(rui_cfg, max_accept) == 12 * sizeof(rui_listener_cfg));
static_assert(offsetof(rui_cfg, user_request_tmout) < offsetof(rui_cfg, admin_request_tmout));
static_assert(offsetof(rui_socket_ctx, sockfd) == 4 && offsetof(rui_socket_ctx, accset) == 8);
static_assert(offsetof(rui_socket_ctx, lc) < offsetof(rui_socket_ctx, rqtag));
static_assert(offsetof(rui_rq_header, srv) == 24 && offsetof(rui_rq_header, fd) == 32);
static_assert(offsetof(rui_rq_header, trk_tag) == 40 && sizeof(rui_rq_header) == 48);
static_assert(offsetof(rui_ctx, user_fds) == 12 * sizeof(rui_socket_ctx));

// ---- callbacks and set-up -------------------------------------------------------------------------------------

TEST_F(RuiTest, callbacks_are_for_the_three_classes_only)
{
    EXPECT_DEATH(rui_set_cb(-1, &user_cb), asserts("type >= 0 && type < RUI_MAX"));
    EXPECT_DEATH(rui_set_cb(3, &user_cb), asserts("type >= 0 && type < RUI_MAX"));
    rui_set_cb(0, &user_cb);
    rui_set_cb(2, &user_cb);
}

TEST_F(RuiTest, set_up_needs_both_callbacks_of_a_class_with_listeners)
{
    add_tcp(cfg.user[0]);
    user_cb.rm_rq = nullptr;
    set_callbacks();
    EXPECT_DEATH(rui_ctx_init(&cfg, &ctx), asserts("cb->new_rq && cb->rm_rq"));
    user_cb.rm_rq = drop;
    user_cb.new_rq = nullptr;
    EXPECT_DEATH(rui_ctx_init(&cfg, &ctx), asserts("cb->new_rq && cb->rm_rq"));
}

TEST_F(RuiTest, one_class_can_be_set_up_alone)
{
    add_tcp(cfg.custom[0]);
    set_callbacks();
    FD_SET(7, &ctx.custom[0].accset);
    ASSERT_EQ(rui_setup_listeners(RUI_CUSTOM, cfg.custom, ctx.custom), 0);
    EXPECT_STREQ(ctx.custom[0].rqtag.sym, "cst");
    EXPECT_FALSE(FD_ISSET(7, &ctx.custom[0].accset));
    EXPECT_DEATH(rui_setup_listeners(3, cfg.custom, ctx.user), asserts("type >= 0 && type < RUI_MAX"));
}

TEST_F(RuiTest, a_class_without_listeners_needs_no_callbacks)
{
    EXPECT_EQ(rui_ctx_init(&cfg, &ctx), 0);
    add_tcp(cfg.admin[0]);
    EXPECT_DEATH(rui_ctx_init(&cfg, &ctx), asserts("cb"));
}

TEST_F(RuiTest, set_up_fills_the_listener)
{
    add_tcp(cfg.user[0], "one");
    add_tcp(cfg.user[1], "two");
    add_domain(cfg.custom[0]);
    memset(&ctx, 0x55, sizeof(ctx)); // whatever was there before
    set_callbacks();
    ASSERT_EQ(rui_ctx_init(&cfg, &ctx), 0);

    const rui_socket_ctx& two = ctx.user[1];
    EXPECT_EQ(memcmp(two.tag.sym, "Rsc", 4), 0);
    EXPECT_EQ(two.sockfd, -1);
    EXPECT_FALSE(two.deferred);
    EXPECT_EQ(two.rqcount, 0u);
    EXPECT_EQ(two.nblk_count, 0);
    EXPECT_EQ(two.lc, &cfg.user[1]);
    EXPECT_EQ(two.cb, &user_cb);
    EXPECT_STREQ(two.rqtag.sym, "usr");
    EXPECT_EQ(queued(two), 0u);
    EXPECT_EQ(two.pprm.max_len, 8u);
    EXPECT_EQ(ctx.user[2].tag.num, 0);
    EXPECT_STREQ(ctx.custom[0].rqtag.sym, "cst");
    EXPECT_EQ(log.messages(),
              (Lines{"rui_setup_listeners: 2 [usr] listeners set up", "rui_setup_listeners: 0 [adm] listeners set up",
                     "rui_setup_listeners: 1 [cst] listeners set up"}));
    EXPECT_EQ(log.messages(ll::debug).size(), 3u);
    EXPECT_TRUE(rui_validate(&ctx));
}

TEST_F(RuiTest, set_up_ends_at_the_first_slot_that_was_not_loaded)
{
    // Loaders fill the slots from the first on; a service that leaves a gap gets what lies before it.
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[2]);
    init();
    EXPECT_TRUE(log.contains("rui_setup_listeners: 1 [usr] listeners set up"));
    EXPECT_EQ(ctx.user[2].tag.num, 0);
}

TEST_F(RuiTest, all_four_slots_of_a_class_are_used)
{
    for (auto& lc : cfg.admin)
        add_tcp(lc);
    add_tcp(cfg.custom[0]); // lies right behind, and is of another class
    init();
    EXPECT_TRUE(log.contains("rui_setup_listeners: 4 [adm] listeners set up"));
    EXPECT_TRUE(log.contains("rui_setup_listeners: 1 [cst] listeners set up"));
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    for (const auto& srv : ctx.admin)
        EXPECT_GT(srv.sockfd, 0);
    EXPECT_EQ(rqs_fd_count(1), 5u);
}

// ---- start ----------------------------------------------------------------------------------------------------

TEST_F(RuiTest, start_opens_all_listeners_and_tells)
{
    add_tcp(cfg.user[0], "one");
    add_domain(cfg.admin[0], "two");
    init();
    log.clear();
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    EXPECT_EQ(log.messages(ll::info),
              (Lines{"STARTED listener fd" + std::to_string(ctx.user[0].sockfd) +
                         " for usr requests on all:" + cfg.user[0].port + "; 0 requests pending",
                     "STARTED listener fd" + std::to_string(ctx.admin[0].sockfd) + " for adm requests on " +
                         cfg.admin[0].domain_path + ":; 0 requests pending"}));
    EXPECT_TRUE(log.contains("rui_start_listener: one"));
    EXPECT_TRUE(log.contains("rui_enable_listeners: 1 [usr] listener(s) started"));
    EXPECT_TRUE(log.contains("rui_enable_listeners: 1 [adm] listener(s) started"));
    EXPECT_TRUE(in_loop(ctx.user[0].sockfd));
    EXPECT_EQ(fcntl(ctx.user[0].sockfd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_TRUE(rui_is_listener(&ctx.user[0]));
}

TEST_F(RuiTest, a_listener_on_an_interface_has_its_address)
{
    add_tcp(cfg.user[0]);
    cfg.user[0].ifc = get_ifc_info(AF_INET, "lo");
    ASSERT_TRUE(cfg.user[0].ifc);
    init();
    log.clear();
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    EXPECT_TRUE(log.contains(std::string(" for usr requests on lo:") + cfg.user[0].port + "; 0 requests pending"));
    sockaddr_in in = {};
    socklen_t len = sizeof(in);
    ASSERT_EQ(getsockname(ctx.user[0].sockfd, reinterpret_cast<sockaddr*>(&in), &len), 0);
    EXPECT_EQ(in.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    const Fd peer = connect_to(ctx.user[0]);
    EXPECT_EQ(accept_all(ctx.user[0]), 0);
    EXPECT_EQ(queued(ctx.user[0]), 1u);
}

TEST_F(RuiTest, a_udp_listener_without_an_interface_takes_the_any_address)
{
    for (const int family : {AF_UNSPEC, AF_INET, AF_INET6}) {
        if (family == AF_INET6 && !has_ipv6()) continue;
        rui_listener_cfg lc = {};
        add_tcp(lc);
        lc.proto = IPPROTO_UDP;
        lc.pref_af = family;
        snprintf(lc.port, sizeof(lc.port), "%u", free_port(SOCK_DGRAM));
        cfg.user[0] = lc;
        start();
        sockaddr_storage ss = {};
        socklen_t len = sizeof(ss);
        ASSERT_EQ(getsockname(ctx.user[0].sockfd, reinterpret_cast<sockaddr*>(&ss), &len), 0);
        EXPECT_EQ(ss.ss_family, family == AF_INET6 ? AF_INET6 : AF_INET);
        EXPECT_EQ(is_unspecified(reinterpret_cast<sockaddr*>(&ss)), 1);
        EXPECT_EQ(int_option(ctx.user[0].sockfd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
        EXPECT_EQ(std::to_string(local_port(ctx.user[0].sockfd)), lc.port);
        rui_ctx_destroy(&ctx);
        rqs_destroy();
    }
}

TEST_F(RuiTest, a_udp_listener_on_an_interface_has_its_address)
{
    add_tcp(cfg.user[0]);
    cfg.user[0].proto = IPPROTO_UDP;
    cfg.user[0].ifc = get_ifc_info(AF_INET, "lo");
    start();
    EXPECT_EQ(int_option(ctx.user[0].sockfd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(std::to_string(local_port(ctx.user[0].sockfd)), cfg.user[0].port);
}

TEST_F(RuiTest, another_protocol_opens_nothing_and_fails_the_start)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[1]);
    add_tcp(cfg.admin[0]);
    cfg.user[1].proto = IPPROTO_SCTP;
    init();
    log.clear();
    EXPECT_EQ(rui_ctx_start(&ctx), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"rui_start_listener: failed to start usr listener"}));
    EXPECT_EQ(ctx.user[1].sockfd, -1);
    EXPECT_GT(ctx.user[0].sockfd, 0); // those before it stay
    EXPECT_EQ(ctx.admin[0].sockfd, -1);
    EXPECT_TRUE(rui_validate(&ctx));
}

TEST_F(RuiTest, a_path_that_cannot_be_had_fails_the_start)
{
    add_domain(cfg.custom[0], "no_such_folder/sock");
    init();
    EXPECT_EQ(rui_ctx_start(&ctx), -1);
    EXPECT_TRUE(log.contains("rui_start_listener: failed to start cst listener"));
}

TEST_F(RuiTest, a_listener_that_the_loop_does_not_take_is_closed)
{
    add_tcp(cfg.user[0]);
    init();
    close(g_rqs.loopfd); // no epoll set any more
    g_rqs.loopfd = base.here.get();
    const int next = dup(0);
    close(next);
    EXPECT_EQ(rui_ctx_start(&ctx), -1);
    EXPECT_EQ(ctx.user[0].sockfd, -1);
    EXPECT_FALSE(is_open(next));
    g_rqs.loopfd = -1;
}

TEST_F(RuiTest, a_listener_can_be_started_once_only)
{
    add_tcp(cfg.user[0]);
    start();
    EXPECT_DEATH(rui_start_listener(&cfg.user[0], &ctx.user[0]), asserts("-1 == srv->sockfd"));
}

TEST_F(RuiTest, a_listener_that_was_not_set_up_cannot_be_started)
{
    add_tcp(cfg.user[0]);
    start();
    EXPECT_DEATH(rui_start_listener(&cfg.user[0], &ctx.user[1]),
                 asserts("srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq"));
}

// ---- stop and resumption --------------------------------------------------------------------------------------

TEST_F(RuiTest, a_stopped_listener_keeps_its_requests_and_can_be_started_again)
{
    add_tcp(cfg.user[0]);
    start();
    rui_socket_ctx& srv = ctx.user[0];
    fill(srv, 2);
    const int fd = srv.sockfd;
    log.clear();

    EXPECT_EQ(rui_stop_listener(&srv), 0);
    EXPECT_EQ(log.messages(ll::warning),
              (Lines{"usr listener fd" + std::to_string(fd) + " wll be closed (2 requsts queued)"}));
    EXPECT_EQ(srv.sockfd, -1);
    EXPECT_TRUE(srv.deferred);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(queued(srv), 2u);
    EXPECT_EQ(rqs_fd_count(1), 2u);
    EXPECT_TRUE(rui_validate(&ctx));

    log.clear();
    EXPECT_EQ(rui_stop_listener(&srv), 0); // nothing more to stop
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(rui_start_listener(srv.lc, &srv), 0);
    EXPECT_FALSE(srv.deferred);
    EXPECT_TRUE(log.contains("; 2 requests pending"));
    const Fd peer = connect_to(srv);
    EXPECT_EQ(accept_all(srv), 0);
    EXPECT_EQ(queued(srv), 3u);
}

TEST_F(RuiTest, a_listener_can_be_resumed_with_another_configuration)
{
    add_tcp(cfg.user[0], "old");
    add_tcp(cfg.custom[3], "new"); // a place of its own
    start();
    rui_socket_ctx& srv = ctx.user[0];
    fill(srv, 1);
    const int fd = srv.sockfd;
    ASSERT_EQ(rui_stop_listener(&srv), 0);
    EXPECT_EQ(log.messages(ll::warning),
              (Lines{"usr listener fd" + std::to_string(fd) + " wll be closed (1 requsts queued)"}));
    ASSERT_EQ(rui_start_listener(&cfg.custom[3], &srv), 0);
    EXPECT_EQ(srv.lc, &cfg.custom[3]);
    EXPECT_EQ(std::to_string(local_port(srv.sockfd)), cfg.custom[3].port);
    EXPECT_EQ(queued(srv), 1u);
}

TEST_F(RuiTest, a_record_that_was_never_set_up_has_nothing_to_stop)
{
    rui_socket_ctx srv = {}; // whose descriptor is 0
    EXPECT_EQ(rui_stop_listener(&srv), 0);
    EXPECT_FALSE(srv.deferred);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RuiTest, an_idle_listener_stops_without_a_warning)
{
    add_tcp(cfg.user[0]);
    start();
    EXPECT_EQ(rui_stop_listener(&ctx.user[0]), 0);
    EXPECT_TRUE(log.messages(ll::warning).empty());
}

TEST_F(RuiTest, a_listening_listener_that_claims_to_be_stopped_is_an_assertion)
{
    add_tcp(cfg.user[0]);
    start();
    ctx.user[0].deferred = true;
    EXPECT_FALSE(rui_socket_validate(&ctx.user[0]));
    EXPECT_DEATH(rui_stop_listener(&ctx.user[0]), asserts("0 == srv->deferred && srv->sockfd >= 0"));
    ctx.user[0].deferred = false;
}

TEST_F(RuiTest, a_service_can_stop_listening_as_a_whole)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[1]);
    add_tcp(cfg.admin[0]);
    add_tcp(cfg.custom[0]);
    start();
    fill(ctx.user[0], 1);
    rui_ctx_stop(&ctx);
    for (const rui_socket_ctx* srv : {&ctx.user[0], &ctx.user[1], &ctx.admin[0], &ctx.custom[0]}) {
        EXPECT_TRUE(srv->deferred);
        EXPECT_EQ(srv->sockfd, -1);
        EXPECT_TRUE(srv->lc->is_valid);
    }
    EXPECT_EQ(queued(ctx.user[0]), 1u);
    Lines debug = log.messages(ll::debug);
    std::erase_if(debug, [](const std::string& line) { return line.rfind("stop_listeners", 0) != 0; });
    EXPECT_EQ(debug,
              (Lines{"stop_listeners: 2 [usr] listener(s) stopped", "stop_listeners: 1 [adm] listener(s) stopped",
                     "stop_listeners: 1 [cst] listener(s) stopped"}));
    EXPECT_EQ(rui_ctx_start(&ctx), 0);
}

// ---- the end --------------------------------------------------------------------------------------------------

TEST_F(RuiTest, destroy_removes_listeners_requests_and_interfaces)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.admin[0]);
    cfg.user[0].ifc = get_ifc_info(AF_INET, "lo");
    start();
    fill(ctx.user[0], 3);
    EXPECT_EQ(rui_pprm_request(newest(ctx.user[0])), 0);
    const int fd = oldest(ctx.user[0])->fd;
    const int listener = ctx.user[0].sockfd;

    rui_ctx_destroy(&ctx);
    EXPECT_EQ(dropped.size(), 3u);
    EXPECT_FALSE(is_open(fd));
    EXPECT_FALSE(is_open(listener));
    EXPECT_EQ(rqs_fd_count(1), 0u);
    EXPECT_EQ(cfg.user[0].ifc, nullptr);
    EXPECT_FALSE(cfg.user[0].is_valid);
    EXPECT_EQ(ctx.user[0].tag.num, 0);
    EXPECT_EQ(ctx.user[0].pprm.max_len, 0u);
    EXPECT_TRUE(log.contains("stop_listeners: 1 [usr] listener(s) destroyed"));
    EXPECT_TRUE(log.contains("stop_listeners: 1 [adm] listener(s) destroyed"));
    EXPECT_TRUE(log.contains("stop_listeners: 0 [] listener(s) destroyed"));
    EXPECT_TRUE(rui_validate(&ctx));
    rui_ctx_destroy(&ctx); // harmless
}

TEST_F(RuiTest, destroy_works_behind_the_end_of_the_loop)
{
    add_tcp(cfg.user[0]);
    start();
    fill(ctx.user[0], 1);
    rqs_destroy();
    log.clear();
    rui_ctx_destroy(&ctx);
    EXPECT_EQ(dropped.size(), 1u);
    EXPECT_TRUE(log.messages(ll::error).empty());
}

TEST_F(RuiTest, a_configuration_that_was_never_used_can_be_freed)
{
    for (rui_listener_cfg* lc : {&cfg.user[0], &cfg.admin[1], &cfg.custom[3]}) {
        add_tcp(*lc);
        lc->ifc = get_ifc_info(AF_INET, "lo");
    }
    rui_cfg_free(&cfg);
    for (const rui_listener_cfg* lc : {&cfg.user[0], &cfg.admin[1], &cfg.custom[3]}) {
        EXPECT_EQ(lc->ifc, nullptr);
        EXPECT_FALSE(lc->is_valid);
    }
}

// ---- errors on the listening socket ---------------------------------------------------------------------------

TEST_F(RuiTest, an_error_on_a_listening_socket_ends_the_process)
{
    add_tcp(cfg.user[0], "front");
    start();
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(rui_crash_on_error(&ctx.user[0], true), testing::KilledBySignal(SIGABRT), "");
    ASSERT_GE(log.messages(ll::panic).size(), 2u);
    EXPECT_EQ(log.messages(ll::panic)[0], "rui_crash_on_error: HUP listener[front] ERROR(0): Success");
    EXPECT_EQ(log.messages(ll::panic)[1], "Aborting at:");
    EXPECT_TRUE(log.contains("=="));
}

TEST_F(RuiTest, an_error_on_a_listener_without_a_name_shows_the_sockets_error)
{
    // A connect that was refused leaves a pending error behind.
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(free_port(SOCK_STREAM));
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&in), sizeof(in)), -1);
    ASSERT_EQ(errno, EINPROGRESS);
    rui_socket_ctx srv = {};
    srv.sockfd = fd.get();
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(rui_crash_on_error(&srv, false), testing::KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.contains("rui_crash_on_error:  listener[?] ERROR(111): Connection refused"));
}

// ---- checks ---------------------------------------------------------------------------------------------------

TEST_F(RuiTest, validate_objects_to_each_field_that_does_not_hold)
{
    add_tcp(cfg.user[0]);
    start();
    fill(ctx.user[0], 1);
    EXPECT_TRUE(rui_validate(&ctx));
    EXPECT_FALSE(rui_validate(nullptr));
    EXPECT_FALSE(rui_socket_validate(nullptr));

    const std::vector<std::function<void(rui_socket_ctx&)>> faults = {
        [](rui_socket_ctx& s) { s.tag.num = 7; },     [](rui_socket_ctx& s) { s.sockfd = -2; },
        [](rui_socket_ctx& s) { s.requests = 0; },    [](rui_socket_ctx& s) { s.pprm.len = 99; },
        [](rui_socket_ctx& s) { s.deferred = true; }, [](rui_socket_ctx& s) { s.lc = nullptr; },
        [](rui_socket_ctx& s) { s.rqtag.num = 0; },   [](rui_socket_ctx& s) { s.cb = nullptr; },
        [](rui_socket_ctx& s) { s.tag.num = 0; },
    };
    for (size_t i = 0; i < faults.size(); ++i) {
        const rui_socket_ctx saved = ctx.user[0];
        faults[i](ctx.user[0]);
        EXPECT_FALSE(rui_validate(&ctx)) << "fault " << i;
        ctx.user[0] = saved;
    }
    newest(ctx.user[0])->srv = &ctx.user[1];
    EXPECT_FALSE(rui_validate(&ctx));
    newest(ctx.user[0])->srv = &ctx.user[0];
}

TEST_F(RuiTest, the_dump_shows_listeners_and_their_requests)
{
    add_tcp(cfg.user[0], "front");
    start();
    fill(ctx.user[0], 1);
    const std::string text = printed([&](FILE* fp) { rui_dump(&ctx, fp); });
    EXPECT_EQ(text, "usr listener[front]: listening fd=" + std::to_string(ctx.user[0].sockfd) +
                        " deferred=0 requests=1 marked=0\n\tusr [u0001] fd=" + std::to_string(newest(ctx.user[0])->fd) +
                        "\n");
}
