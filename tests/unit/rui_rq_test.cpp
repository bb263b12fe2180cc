// Requests: accepted, queued, removed now or later, timed out; load control and tracking numbers.
#include "common/rui.h"

#include "support/assert_kit.h"
#include "support/rui_kit.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/un.h>

#include <algorithm>

namespace
{

class RuiRqTest : public RuiKit
{
protected:
    rui_socket_ctx& user() { return ctx.user[0]; }
    void start_user()
    {
        add_tcp(cfg.user[0]);
        start();
    }
    static std::string num(int n) { return std::to_string(n); }
};

} // namespace

// ---- accepting ------------------------------------------------------------------------------------------------

TEST_F(RuiRqTest, a_connection_becomes_a_queued_request)
{
    start_user();
    const Fd peer = connect_to(user());
    int tag = 0;
    EXPECT_EQ(rui_accept(&user(), 100, 0, &tag), 0);

    ASSERT_EQ(queued(user()), 1u);
    const rui_rq_header* rqh = newest(user());
    EXPECT_EQ(reinterpret_cast<const kit_request*>(rqh)->data, &tag);
    EXPECT_STREQ(rqh->tag.sym, "usr");
    EXPECT_EQ(rqh->srv, &user());
    EXPECT_EQ(rqh->fd, made.at(0));
    EXPECT_TRUE(FD_ISSET(rqh->fd, &user().accset));
    EXPECT_EQ(rqs_fd_count(1), 2u);
    EXPECT_FALSE(rui_is_listener(rqh));

    const std::string fd = num(rqh->fd);
    const std::string from = "127.0.0.1:" + num(local_port(peer.get()));
    EXPECT_EQ(log.messages(ll::info), (Lines{"Accepted usr request [fd=" + fd + "] from " + from,
                                             "rui_add_request: OK for fd=" + fd + ", rq=" + hex(rqh)}));
    const Lines all = log.messages();
    EXPECT_EQ(all.at(0), "rui_accept: from [tcp]");
    EXPECT_EQ(all.at(1), "rui_accept(tcp): accepting on fd=" + num(user().sockfd));
    EXPECT_EQ(all.back(), "rui_accept: rc=0");
    EXPECT_EQ(all.at(all.size() - 2), "rui_accept(tcp): end of accept queue reached");
    EXPECT_TRUE(log.contains("rui_accept: low watermark set to 32 for fd=" + fd));
    EXPECT_EQ(int_option(rqh->fd, SOL_SOCKET, SO_RCVLOWAT), 32);
    EXPECT_EQ(int_option(rqh->fd, IPPROTO_TCP, TCP_NODELAY), 0);
    int flag = fcntl(rqh->fd, F_GETFL);
    EXPECT_TRUE(flag & O_NONBLOCK);
}

TEST_F(RuiRqTest, nodelay_is_set_if_asked_for)
{
    start_user();
    const Fd peer = connect_to(user());
    EXPECT_EQ(rui_accept(&user(), 100, RUI_TCP_NODELAY, nullptr), 0);
    EXPECT_NE(int_option(newest(user())->fd, IPPROTO_TCP, TCP_NODELAY), 0);
    static_assert(RUI_TCP_NODELAY == 1);
}

TEST_F(RuiRqTest, a_connection_on_descriptor_0_is_served_like_any_other)
{
    start_user();
    const Fd peer = connect_to(user());
    const Fd spare(dup(0)); // the test's own standard input
    close(0);
    EXPECT_EQ(accept_all(user()), 0);
    ASSERT_EQ(queued(user()), 1u);
    EXPECT_EQ(newest(user())->fd, 0);
    EXPECT_TRUE(FD_ISSET(0, &user().accset));
    rui_rm_request(newest(user()));
    EXPECT_FALSE(is_open(0));
    EXPECT_TRUE(closed_by_peer(peer));
    EXPECT_TRUE(log.messages(ll::error).empty());
    dup2(spare.get(), 0);
}

TEST_F(RuiRqTest, a_local_peer_whose_path_is_too_long_to_show_is_served_all_the_same)
{
    add_domain(cfg.user[0]);
    start();
    sockaddr_un to = {};
    socklen_t len = sizeof(to);
    ASSERT_EQ(getsockname(user().sockfd, reinterpret_cast<sockaddr*>(&to), &len), 0);
    // The path fills its field to the last byte; nothing behind it may be read.
    sockaddr_un from = {};
    from.sun_family = AF_UNIX;
    const std::string start = dir / "p";
    memset(from.sun_path, 'x', sizeof(from.sun_path));
    memcpy(from.sun_path, start.c_str(), start.size());
    const Fd peer(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(peer.get(), reinterpret_cast<sockaddr*>(&from), sizeof(from)), 0) << strerror(errno);
    ASSERT_EQ(connect(peer.get(), reinterpret_cast<sockaddr*>(&to), len), 0) << strerror(errno);
    EXPECT_EQ(accept_all(user()), 0);
    ASSERT_EQ(queued(user()), 1u);
    EXPECT_EQ(log.count("Accepted usr request [fd=" + num(newest(user())->fd) + "] from "), 1u);
}

TEST_F(RuiRqTest, a_local_connection_has_no_low_watermark)
{
    add_domain(cfg.user[0]);
    start();
    const Fd peer = connect_to(user());
    EXPECT_EQ(rui_accept(&user(), 100, RUI_TCP_NODELAY, nullptr), 0);
    ASSERT_EQ(queued(user()), 1u);
    EXPECT_FALSE(log.contains("low watermark"));
    EXPECT_EQ(log.count("Accepted usr request [fd=" + num(newest(user())->fd) + "] from DOMAIN "), 1u);
    EXPECT_EQ(int_option(newest(user())->fd, SOL_SOCKET, SO_RCVLOWAT), 1);
}

TEST_F(RuiRqTest, accepting_stops_at_the_maximum)
{
    start_user();
    std::vector<Fd> peers;
    for (int i = 0; i < 3; ++i)
        peers.push_back(connect_to(user()));
    EXPECT_EQ(rui_accept(&user(), 2, 0, nullptr), 0);
    EXPECT_EQ(queued(user()), 2u);
    EXPECT_EQ(log.messages(ll::warning), (Lines{"rui_accept(tcp): CANNOT ACCEPT ALL (accepted=2), max=2"}));

    log.clear();
    EXPECT_EQ(rui_accept(&user(), 2, 0, nullptr), 0);
    EXPECT_EQ(queued(user()), 3u);
    EXPECT_TRUE(log.messages(ll::warning).empty()); // the one that was left

    EXPECT_EQ(rui_accept(&user(), 0, 0, nullptr), 0);
    EXPECT_TRUE(log.contains("rui_accept(tcp): CANNOT ACCEPT ALL (accepted=0), max=0"));
}

TEST_F(RuiRqTest, nothing_is_accepted_while_the_process_quits)
{
    start_user();
    const Fd peer = connect_to(user());
    g_quit = 1;
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_EQ(queued(user()), 0u);
}

TEST_F(RuiRqTest, a_quit_ends_the_walk_behind_the_connection_at_hand)
{
    start_user();
    const Fd first = connect_to(user());
    const Fd second = connect_to(user());
    on_new = [](int, rui_socket_ctx*, void*) -> void* {
        g_quit = 1;
        return calloc(1, sizeof(kit_request));
    };
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_EQ(queued(user()), 1u);
    g_quit = 0;
    EXPECT_EQ(accept_all(user()), 0); // the other one has waited
    EXPECT_EQ(queued(user()), 2u);
}

TEST_F(RuiRqTest, a_refused_connection_is_closed_and_the_walk_goes_on)
{
    start_user();
    const Fd refused = connect_to(user());
    const Fd taken = connect_to(user());
    on_new = [this](int, rui_socket_ctx*, void*) -> void* {
        return made.size() == 1 ? nullptr : calloc(1, sizeof(kit_request));
    };
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_EQ(queued(user()), 1u);
    EXPECT_EQ(log.messages(ll::error), (Lines{"Error rc=-1 processing connection [127.0.0.1:" +
                                              num(local_port(refused.get())) + "] fd=" + num(made.at(0))}));
    EXPECT_TRUE(closed_by_peer(refused));
}

TEST_F(RuiRqTest, the_result_is_that_of_the_last_connection)
{
    start_user();
    const Fd first = connect_to(user());
    const Fd second = connect_to(user());
    on_new = [this](int, rui_socket_ctx*, void*) -> void* {
        return made.size() == 2 ? nullptr : calloc(1, sizeof(kit_request));
    };
    EXPECT_EQ(accept_all(user()), -1);
    EXPECT_TRUE(log.contains("rui_accept: rc=-1"));
    EXPECT_EQ(accept_all(user()), 0); // none waits
}

TEST_F(RuiRqTest, the_thousand_and_first_request_is_refused_and_its_connection_closed)
{
    start_user();
    const Fd one = connect_to(user());
    const Fd two = connect_to(user());
    fill(user(), 999);
    EXPECT_EQ(add_request(user()), 0); // the thousandth
    log.clear();
    EXPECT_EQ(accept_all(user()), 16);
    EXPECT_EQ(queued(user()), 1000u);
    // The walk went on to the second one. "user" is said for all classes.
    EXPECT_EQ(log.count("rui_add_request: Too many user requests (1000) queued"), 2u);
    EXPECT_EQ(log.messages(ll::error).at(0), "rui_add_request: Too many user requests (1000) queued");
    EXPECT_EQ(log.count("Error rc=16 processing connection [127.0.0.1:"), 2u);
    EXPECT_TRUE(closed_by_peer(one));
    EXPECT_TRUE(closed_by_peer(two));
    EXPECT_TRUE(log.contains("rui_accept: rc=16"));

    rui_rm_request(oldest(user()));
    const Fd three = connect_to(user());
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_EQ(queued(user()), 1000u);
}

TEST_F(RuiRqTest, a_full_queue_of_admin_requests_says_user_too)
{
    add_tcp(cfg.admin[0]);
    start();
    fill(ctx.admin[0], 1000);
    EXPECT_EQ(add_request(ctx.admin[0]), 16);
    EXPECT_TRUE(log.contains("rui_add_request: Too many user requests (1000) queued"));
}

// ---- adding ---------------------------------------------------------------------------------------------------

TEST_F(RuiRqTest, a_request_keeps_what_its_service_filled_in)
{
    start_user();
    on_new = [](int fd, rui_socket_ctx* srv, void*) -> void* {
        auto* rq = static_cast<kit_request*>(calloc(1, sizeof(kit_request)));
        memcpy(rq->h.tag.sym, "own", 4);
        memcpy(rq->h.trk_tag.sym, "T42", 4);
        rq->h.srv = srv;
        rq->h.fd = fd;
        return rq;
    };
    EXPECT_EQ(add_request(user()), 0);
    EXPECT_STREQ(newest(user())->tag.sym, "own");
    EXPECT_STREQ(newest(user())->trk_tag.sym, "T42");
}

TEST_F(RuiRqTest, requests_without_a_tracking_number_get_the_next_one)
{
    start_user();
    fill(user(), 2);
    EXPECT_STREQ(oldest(user())->trk_tag.sym, "u0001");
    EXPECT_STREQ(newest(user())->trk_tag.sym, "u0002");
}

TEST_F(RuiRqTest, a_listener_without_callbacks_takes_no_request)
{
    start_user();
    user().cb = nullptr;
    EXPECT_DEATH(rui_add_request(base.here.get(), &user(), nullptr), asserts("srv->cb"));
    user().cb = &user_cb;
}

TEST_F(RuiRqTest, a_descriptor_that_is_queued_already_is_told_and_queued_again)
{
    start_user();
    const Fd file(open("/dev/null", O_RDONLY)); // the loop refuses it each time
    EXPECT_NE(rui_add_request(file.get(), &user(), nullptr), 0);
    log.clear();
    EXPECT_NE(rui_add_request(file.get(), &user(), nullptr), 0);
    EXPECT_EQ(log.messages(ll::error).at(0),
              "rui_add_request: socket fd=" + num(file.get()) + " is already marked queued");
    EXPECT_EQ(queued(user()), 2u);
    for (rui_rq_header* rqh = oldest(user()); rqh; rqh = rqh->next)
        rqh->fd = -1; // the test's own
}

TEST_F(RuiRqTest, a_request_that_the_loop_does_not_take_stays_queued)
{
    // Services find it by the result: removing it is up to them.
    start_user();
    const int fd = open("/dev/null", O_RDONLY);
    const int rc = rui_add_request(fd, &user(), nullptr);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(log.messages(ll::error).back(), "rui_add_request: failed to add fd=" + num(fd) + " to the monitored set");
    ASSERT_EQ(queued(user()), 1u);
    EXPECT_EQ(newest(user())->fd, fd);
    EXPECT_TRUE(FD_ISSET(fd, &user().accset));

    log.clear();
    rui_rm_request(newest(user()));
    EXPECT_EQ(log.messages(ll::error).back(),
              "rm_request: failed to remove fd=" + num(fd) + " from the monitored set.");
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(dropped.size(), 1u);
}

TEST_F(RuiRqTest, a_descriptor_that_no_set_can_hold_is_refused)
{
    start_user();
    rlimit lim = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    lim.rlim_cur = FD_SETSIZE + 16;
    if (lim.rlim_max < lim.rlim_cur || setrlimit(RLIMIT_NOFILE, &lim) != 0) GTEST_SKIP() << "no descriptor above 1023";
    const Fd high(fcntl(base.here.get(), F_DUPFD, FD_SETSIZE));
    ASSERT_EQ(high.get(), FD_SETSIZE);
    EXPECT_EQ(rui_add_request(high.get(), &user(), nullptr), -1);
    EXPECT_EQ(log.messages(ll::error), (Lines{"rui_add_request: fd=1024 is not below 1024: can't be queued"}));
    EXPECT_EQ(rui_add_request(-1, &user(), nullptr), -1);
    EXPECT_TRUE(made.empty());
    EXPECT_EQ(queued(user()), 0u);

    const int last = fcntl(base.here.get(), F_DUPFD, FD_SETSIZE - 1);
    ASSERT_EQ(last, FD_SETSIZE - 1);
    EXPECT_EQ(rui_add_request(last, &user(), nullptr), 0);
}

TEST_F(RuiRqTest, an_accepted_descriptor_that_no_set_can_hold_is_closed)
{
    start_user();
    rlimit lim = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    lim.rlim_cur = FD_SETSIZE + 16;
    if (lim.rlim_max < lim.rlim_cur || setrlimit(RLIMIT_NOFILE, &lim) != 0) GTEST_SKIP() << "no descriptor above 1023";
    const Fd peer = connect_to(user());
    std::vector<Fd> below;
    for (int fd = dup(0); fd < FD_SETSIZE; fd = dup(0))
        below.emplace_back(fd);
    EXPECT_EQ(accept_all(user()), -1);
    EXPECT_TRUE(closed_by_peer(peer));
    EXPECT_TRUE(log.contains("can't be queued"));
    close(FD_SETSIZE); // the last of the loop above
}

// ---- removing -------------------------------------------------------------------------------------------------

TEST_F(RuiRqTest, a_removed_request_has_left_everything)
{
    start_user();
    const Fd peer = connect_to(user());
    accept_all(user());
    rui_rq_header* rqh = newest(user());
    const int fd = rqh->fd;
    log.clear();
    rui_rm_request(rqh);
    EXPECT_EQ(log.messages(ll::info), (Lines{"rm_request: OK for fd=" + num(fd) + " rq=" + hex(rqh)}));
    EXPECT_EQ(queued(user()), 0u);
    EXPECT_EQ(dropped, (std::vector<void*>{rqh}));
    EXPECT_EQ(dropped_fds, (std::vector<int>{-1})); // closed by then
    EXPECT_FALSE(is_open(fd));
    EXPECT_FALSE(FD_ISSET(fd, &user().accset));
    EXPECT_EQ(rqs_fd_count(1), 1u);
    EXPECT_TRUE(closed_by_peer(peer));
}

TEST_F(RuiRqTest, a_request_without_callbacks_cannot_be_removed)
{
    start_user();
    fill(user(), 1);
    user().cb = nullptr;
    EXPECT_DEATH(rui_rm_request(newest(user())), asserts("rqh->srv->cb"));
    user().cb = &user_cb;
}

TEST_F(RuiRqTest, a_request_that_is_not_queued_is_told_and_not_freed)
{
    start_user();
    kit_request rq = {};
    rq.h.srv = &user();
    rq.h.fd = -1;
    memcpy(rq.h.tag.sym, "usr", 4);
    log.clear();
    rui_rm_request(&rq);
    EXPECT_EQ(log.messages(ll::error).back(), "rm_request: failed to remove usr request [" + hex(&rq) + "] from queue");
    EXPECT_TRUE(dropped.empty());
}

TEST_F(RuiRqTest, marked_requests_go_with_the_purge)
{
    start_user();
    fill(user(), 3);
    rui_rq_header* first = oldest(user());
    rui_rq_header* third = newest(user());
    const int fd = first->fd;
    EXPECT_EQ(rui_pprm_request(first), 0);
    EXPECT_EQ(rui_pprm_request(third), 0);
    EXPECT_EQ(rui_pprm_request(first), 0); // once is enough
    EXPECT_EQ(user().pprm.len, 2u);
    EXPECT_EQ(queued(user()), 3u); // nothing has happened yet
    EXPECT_TRUE(rui_validate(&ctx));
    log.clear();

    rui_pprm_all(&ctx);
    EXPECT_EQ(queued(user()), 1u);
    EXPECT_EQ(dropped, (std::vector<void*>{first, third}));
    EXPECT_FALSE(is_open(fd));
    Lines debug = log.messages(ll::debug);
    std::erase_if(debug, [](const std::string& line) { return line.rfind("pprm_", 0) != 0; });
    EXPECT_EQ(debug, (Lines{"pprm_srv: [usr] listener[tcp], 2 pprm items",
                            "pprm_cleanup: usr [u0001] (" + hex(first) + ") j=0",
                            "pprm_cleanup: usr [u0003] (" + hex(third) + ") j=1", "pprm_srv: done for for [usr]"}));

    log.clear();
    rui_pprm_all(&ctx);
    EXPECT_EQ(log.messages(), (Lines{"pprm_srv: [usr] listener[tcp], 0 pprm items", "pprm_srv: done for for [usr]"}));
}

TEST_F(RuiRqTest, a_marked_request_that_is_removed_directly_is_not_met_by_the_purge)
{
    start_user();
    fill(user(), 2);
    rui_rq_header* first = oldest(user());
    ASSERT_EQ(rui_pprm_request(first), 0);
    log.clear();
    rui_rm_request(first);
    const Lines debug = log.messages(ll::debug);
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "rm_request: removed (" + hex(first) + ") from PPRM"), 1);
    EXPECT_EQ(user().pprm.len, 0u);
    rui_pprm_all(&ctx);
    EXPECT_EQ(dropped.size(), 1u);
    EXPECT_EQ(queued(user()), 1u);

    log.clear();
    rui_rm_request(newest(user()));
    EXPECT_FALSE(log.contains("from PPRM")); // it wasn't marked
}

TEST_F(RuiRqTest, a_request_marked_twice_by_hand_goes_once)
{
    start_user();
    fill(user(), 1);
    for (int i = 0; i < 3; ++i) {
        const ssize_t at = xvlst_add(&user().pprm, sizeof(rui_rq_header*), 4);
        ASSERT_GE(at, 0);
        static_cast<rui_rq_header**>(user().pprm.data)[at] = newest(user());
    }
    rui_pprm_all(&ctx);
    EXPECT_EQ(dropped.size(), 1u);
    EXPECT_EQ(user().pprm.len, 0u);

    fill(user(), 1);
    for (int i = 0; i < 2; ++i) {
        const ssize_t at = xvlst_add(&user().pprm, sizeof(rui_rq_header*), 4);
        ASSERT_GE(at, 0);
        static_cast<rui_rq_header**>(user().pprm.data)[at] = newest(user());
    }
    rui_rm_request(newest(user())); // all its marks go
    EXPECT_EQ(user().pprm.len, 0u);
    EXPECT_EQ(dropped.size(), 2u);
}

TEST_F(RuiRqTest, marks_grow_with_the_number_of_requests)
{
    start_user();
    fill(user(), 500);
    for (rui_rq_header* rqh = oldest(user()); rqh; rqh = rqh->next)
        ASSERT_EQ(rui_pprm_request(rqh), 0);
    rui_pprm_all(&ctx);
    EXPECT_EQ(queued(user()), 0u);
    EXPECT_EQ(dropped.size(), 500u);
}

TEST_F(RuiRqTest, the_purge_takes_all_classes_in_turn)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[1]);
    add_tcp(cfg.custom[0]);
    start();
    log.clear();
    rui_pprm_all(&ctx);
    EXPECT_EQ(log.messages(), (Lines{"pprm_srv: [usr] listener[tcp], 0 pprm items",
                                     "pprm_srv: [usr] listener[tcp], 0 pprm items", "pprm_srv: done for for [usr]",
                                     "pprm_srv: [cst] listener[tcp], 0 pprm items", "pprm_srv: done for for [cst]"}));
}

TEST_F(RuiRqTest, marks_and_time_outs_of_all_three_classes_are_seen_to)
{
    for (rui_listener_cfg* lc : {&cfg.user[0], &cfg.admin[0], &cfg.custom[0]})
        add_tcp(*lc);
    start();
    int asked = 0;
    on_tmout = [&](void* rq, u_int) { return ++asked > 0 && 0 == rui_pprm_request(rq); };
    for (rui_socket_ctx* srv : {ctx.user, ctx.admin, ctx.custom})
        fill(*srv, 1);
    log.clear();
    rui_tmout_all(&ctx, 1);
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(log.messages(ll::warning),
              (Lines{"tmout_srv: 1 [usr] requests timed out", "tmout_srv: 1 [adm] requests timed out",
                     "tmout_srv: 1 [cst] requests timed out"}));
    rui_pprm_all(&ctx);
    for (const rui_socket_ctx* srv : {ctx.user, ctx.admin, ctx.custom})
        EXPECT_EQ(queued(*srv), 0u);
}

TEST_F(RuiRqTest, a_listener_whose_configuration_is_no_longer_valid_is_left_out_of_the_walks)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[1]);
    start();
    fill(user(), 1);
    fill(ctx.user[1], 1);
    ASSERT_EQ(rui_pprm_request(newest(user())), 0);
    cfg.user[0].is_valid = false;
    std::vector<void*> asked;
    on_tmout = [&](void* rq, u_int) {
        asked.push_back(rq);
        return false;
    };
    rui_tmout_all(&ctx, 1);
    rui_pprm_all(&ctx);
    EXPECT_EQ(asked, (std::vector<void*>{newest(ctx.user[1])}));
    EXPECT_EQ(queued(user()), 1u);
    cfg.user[0].is_valid = true;
    rui_pprm_all(&ctx);
    EXPECT_EQ(queued(user()), 0u);
}

TEST_F(RuiRqTest, a_request_removed_inside_a_callback_is_out_of_the_way_of_the_same_turns_events)
{
    // Both requests are readable in one wait. The first event marks both, and the second one still has its record.
    start_user();
    fill(user(), 2);
    std::vector<void*> seen;
    on_event = [&](void* udata) {
        seen.push_back(udata);
        EXPECT_EQ(queued(user()), 2u);
        for (rui_rq_header* rqh = oldest(user()); rqh; rqh = rqh->next)
            EXPECT_EQ(rui_pprm_request(rqh), 0);
        return 0;
    };
    after = [this] {
        if (queued(user()) == 0) g_quit = 1;
        return 0;
    };
    put(base.there.get(), "x");
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(dropped.size(), 2u);
    EXPECT_EQ(rqs_fd_count(1), 1u);
}

// ---- time-outs ------------------------------------------------------------------------------------------------

TEST_F(RuiRqTest, time_outs_are_asked_for_oldest_first_and_counted)
{
    start_user();
    fill(user(), 3);
    std::vector<void*> asked;
    on_tmout = [&](void* rq, u_int ms) {
        EXPECT_EQ(ms, 1500u);
        asked.push_back(rq);
        return rq != newest(user());
    };
    log.clear();
    rui_tmout_all(&ctx, 1500);
    EXPECT_EQ(asked, (std::vector<void*>{oldest(user()), oldest(user())->next, newest(user())}));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.messages(ll::warning), (Lines{"tmout_srv: 2 [usr] requests timed out"}));
    EXPECT_EQ(queued(user()), 3u); // the walk removes nothing
}

TEST_F(RuiRqTest, no_time_out_is_told_at_debug_for_each_class_in_use)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.admin[0]);
    start();
    fill(user(), 1);
    log.clear();
    rui_tmout_all(&ctx, 1);
    EXPECT_EQ(log.messages(), (Lines{"tmout_srv: no time-outs for [usr]", "tmout_srv: no time-outs for [adm]"}));
    EXPECT_EQ(log.messages(ll::debug).size(), 2u);
}

TEST_F(RuiRqTest, a_time_out_may_mark_or_even_remove_its_request)
{
    start_user();
    fill(user(), 3);
    on_tmout = [&](void* rq, u_int) {
        if (rq == oldest(user()))
            rui_rm_request(rq);
        else
            EXPECT_EQ(rui_pprm_request(rq), 0);
        return true;
    };
    // The first is removed, which makes the second the oldest: removed, and so on.
    rui_tmout_all(&ctx, 1);
    rui_pprm_all(&ctx);
    EXPECT_EQ(dropped.size(), 3u);
    EXPECT_TRUE(log.contains("tmout_srv: 3 [usr] requests timed out"));
}

TEST_F(RuiRqTest, a_class_without_time_out_callback_is_an_assertion)
{
    user_cb.time_out = nullptr;
    start_user();
    EXPECT_DEATH(rui_tmout_all(&ctx, 1), asserts("srv->cb->time_out"));
}

// ---- load control ---------------------------------------------------------------------------------------------

TEST_F(RuiRqTest, a_listener_can_listen_below_the_maximum)
{
    start_user();
    fill(user(), 2);
    EXPECT_FALSE(rui_can_listen(&user(), 1));
    EXPECT_FALSE(rui_can_listen(&user(), 2));
    EXPECT_TRUE(rui_can_listen(&user(), 3));
}

TEST_F(RuiRqTest, a_listener_should_listen_below_three_quarters)
{
    start_user();
    fill(user(), 6);
    log.clear();
    EXPECT_TRUE(rui_should_listen(&user(), 10));
    EXPECT_TRUE(log.lines().empty()); // it does already
    fill(user(), 7);
    EXPECT_FALSE(rui_should_listen(&user(), 10));
    EXPECT_TRUE(rui_can_listen(&user(), 10));
    // 9 * 3 / 4 is 6, 11 * 3 / 4 is 8
    EXPECT_FALSE(rui_should_listen(&user(), 9));
    EXPECT_TRUE(rui_should_listen(&user(), 11));
    EXPECT_FALSE(rui_should_listen(&user(), 0));
    EXPECT_TRUE(rui_should_listen(&user(), SIZE_MAX));
}

TEST_F(RuiRqTest, three_quarters_of_a_maximum_of_1_are_none)
{
    // Services rely on the rounding: one that takes a single request at a time resumes its listener by itself.
    start_user();
    EXPECT_TRUE(rui_can_listen(&user(), 1));
    EXPECT_FALSE(rui_should_listen(&user(), 1));
    EXPECT_TRUE(rui_should_listen(&user(), 2));
    fill(user(), 1);
    EXPECT_FALSE(rui_should_listen(&user(), 2));
}

TEST_F(RuiRqTest, a_stopped_listener_that_should_listen_is_told)
{
    start_user();
    fill(user(), 4);
    rui_stop_listener(&user());
    log.clear();
    EXPECT_FALSE(rui_should_listen(&user(), 4));
    EXPECT_FALSE(rui_should_listen(&user(), 5));
    EXPECT_TRUE(log.lines().empty());
    rui_rm_request(newest(user()));
    rui_rm_request(newest(user()));
    log.clear();
    EXPECT_TRUE(rui_should_listen(&user(), 4));
    EXPECT_EQ(log.messages(ll::info), (Lines{"rui_should_listen: usr (2 requsts queued)"}));
}

// ---- tracking numbers -----------------------------------------------------------------------------------------

TEST_F(RuiRqTest, tracking_numbers_start_at_1_and_roll_over_behind_the_maximum)
{
    size_t count = 0;
    Lines got;
    for (int i = 0; i < 4; ++i) {
        n64_tag tag = {{'j', 'u', 'n', 'k', 'j', 'u', 'n', 'k'}};
        rui_mk_trknum(&count, &tag, 'U', 3);
        got.emplace_back(tag.sym);
    }
    EXPECT_EQ(got, (Lines{"U0001", "U0002", "U0003", "U0001"}));
    EXPECT_EQ(log.messages(ll::debug), (Lines{"rui_mk_trknum: rolling over U-requests"}));
}

TEST_F(RuiRqTest, nothing_is_left_in_the_tag_behind_a_tracking_number)
{
    size_t count = 41;
    n64_tag tag = {{'j', 'u', 'n', 'k', 'j', 'u', 'n', 'k'}};
    rui_mk_trknum(&count, &tag, 'U', 100);
    EXPECT_EQ(memcmp(tag.sym, "U0042\0\0", 8), 0);
    EXPECT_EQ(count, 42u);
}

TEST_F(RuiRqTest, a_tracking_number_has_up_to_six_digits)
{
    n64_tag tag = {};
    size_t count = 99998;
    rui_mk_trknum(&count, &tag, 'A', 1000000);
    EXPECT_STREQ(tag.sym, "A99999");
    count = 999998;
    rui_mk_trknum(&count, &tag, 'A', 1000000);
    EXPECT_STREQ(tag.sym, "A999999");
    EXPECT_DEATH(rui_mk_trknum(&count, &tag, 'A', 2000000), "Assertion");
}
