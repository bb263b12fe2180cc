// Inner calls that fail: what listeners and requests do then, and what they leave behind.
#include "common/rui.h"

#include "support/fail_alloc.h"
#include "support/rui_kit.h"
#include "syswrap.h"

#include <cerrno>
#include <deque>

namespace
{

// Errors that the next calls give instead of being made; 0 makes the call.
std::deque<int> g_accept_errors;
int g_sockopt_error = 0;
bool g_append_fails = false;
bool g_rm_fails = false;
bool g_add_reader_fails = false;
bool g_nblock_fails = false;

int failed(int err)
{
    errno = err;
    return -1;
}

} // namespace

extern "C" {
int __real__Z8W_acceptPKciP8sockaddrPj(const char*, int, struct sockaddr*, socklen_t*);
int __wrap__Z8W_acceptPKciP8sockaddrPj(const char*, int, struct sockaddr*, socklen_t*);
int __wrap__Z8W_acceptPKciP8sockaddrPj(const char* caller, int fd, struct sockaddr* sa, socklen_t* len)
{
    if (!g_accept_errors.empty()) {
        const int err = g_accept_errors.front();
        g_accept_errors.pop_front();
        if (err) return failed(err);
    }
    return __real__Z8W_acceptPKciP8sockaddrPj(caller, fd, sa, len);
}

int __real__Z12W_setsockoptPKciiiPKvj(const char*, int, int, int, const void*, socklen_t);
int __wrap__Z12W_setsockoptPKciiiPKvj(const char*, int, int, int, const void*, socklen_t);
int __wrap__Z12W_setsockoptPKciiiPKvj(const char* caller, int fd, int level, int name, const void* val, socklen_t len)
{
    return g_sockopt_error ? failed(g_sockopt_error)
                           : __real__Z12W_setsockoptPKciiiPKvj(caller, fd, level, name, val, len);
}

void* __real__Z11dlep_appendlPv(dlep_t, void*);
void* __wrap__Z11dlep_appendlPv(dlep_t, void*);
void* __wrap__Z11dlep_appendlPv(dlep_t lh, void* d)
{
    return g_append_fails ? nullptr : __real__Z11dlep_appendlPv(lh, d);
}

void* __real__Z7dlep_rmlPv(dlep_t, void*);
void* __wrap__Z7dlep_rmlPv(dlep_t, void*);
void* __wrap__Z7dlep_rmlPv(dlep_t lh, void* d)
{
    return g_rm_fails ? nullptr : __real__Z7dlep_rmlPv(lh, d);
}

int __real__Z14rqs_add_readeriPv(int, void*);
int __wrap__Z14rqs_add_readeriPv(int, void*);
int __wrap__Z14rqs_add_readeriPv(int fd, void* udata)
{
    return g_add_reader_fails ? failed(ENOSPC) : __real__Z14rqs_add_readeriPv(fd, udata);
}

int __real__Z10set_nblockii(int, int);
int __wrap__Z10set_nblockii(int, int);
int __wrap__Z10set_nblockii(int fd, int flag)
{
    return g_nblock_fails ? failed(EPERM) : __real__Z10set_nblockii(fd, flag);
}
}

namespace
{

class RuiFaultTest : public RuiKit
{
protected:
    rui_socket_ctx& user() { return ctx.user[0]; }
    void start_user()
    {
        add_tcp(cfg.user[0]);
        start();
    }
};

} // namespace

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(RuiFaultTest, set_up_without_memory_for_the_queue_fails)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.user[1]);
    set_callbacks();
    fail_alloc::at(1);
    EXPECT_EQ(rui_ctx_init(&cfg, &ctx), ENOMEM);
    EXPECT_EQ(log.messages(ll::error), (Lines{"rui_setup_listeners: dlep_create() failed rc=12"}));
    EXPECT_EQ(ctx.user[0].tag.num, 0);
    rui_ctx_destroy(&ctx); // harmless
}

TEST_F(RuiFaultTest, set_up_without_memory_for_the_marks_fails_and_leaves_nothing)
{
    add_tcp(cfg.user[0]);
    set_callbacks();
    for (const int nth : {2, 3}) {
        fail_alloc::at(nth);
        EXPECT_EQ(rui_ctx_init(&cfg, &ctx), -1);
        EXPECT_EQ(log.messages(ll::error).back(), "rui_setup_listeners: xvlst_reserve() failed rc=-1");
        EXPECT_EQ(ctx.user[0].tag.num, 0);
        EXPECT_EQ(ctx.user[0].requests, 0);
        EXPECT_TRUE(rui_validate(&ctx));
    }
}

TEST_F(RuiFaultTest, a_failed_set_up_leaves_the_listeners_before_it_to_destroy)
{
    add_tcp(cfg.user[0]);
    add_tcp(cfg.admin[0]);
    set_callbacks();
    fail_alloc::at(4); // the first of the second listener
    EXPECT_EQ(rui_ctx_init(&cfg, &ctx), ENOMEM);
    EXPECT_NE(ctx.user[0].tag.num, 0);
    rui_ctx_destroy(&ctx);
    EXPECT_EQ(ctx.user[0].tag.num, 0);
}

TEST_F(RuiFaultTest, a_mark_without_memory_is_told)
{
    start_user();
    fill(user(), 9);
    rui_rq_header* rqh = oldest(user());
    for (int i = 0; i < 8; ++i, rqh = rqh->next)
        ASSERT_EQ(rui_pprm_request(rqh), 0);
    fail_alloc::at(1);
    EXPECT_EQ(rui_pprm_request(rqh), -1);
    EXPECT_EQ(log.messages(ll::error).back(), "rui_pprm_request: no memory to mark usr request [" + hex(rqh) + "]");
    EXPECT_EQ(user().pprm.len, 8u);
    rui_pprm_all(&ctx);
    EXPECT_EQ(queued(user()), 1u);
}

// ---- accepting ------------------------------------------------------------------------------------------------

TEST_F(RuiFaultTest, an_interrupted_accept_is_tried_again)
{
    start_user();
    const Fd peer = connect_to(user());
    g_accept_errors = {EINTR, EINTR};
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_EQ(queued(user()), 1u);
}

TEST_F(RuiFaultTest, a_connection_that_was_reset_before_its_accept_is_passed_over)
{
    start_user();
    const Fd peer = connect_to(user());
    for (const int err : {ECONNABORTED, ECONNRESET}) {
        log.clear();
        g_accept_errors = {err};
        EXPECT_EQ(accept_all(user()), 0);
        EXPECT_EQ(log.messages(ll::info).at(0), "rui_accept(tcp): connection aborted/reset before accept()");
    }
    EXPECT_EQ(queued(user()), 1u);
}

TEST_F(RuiFaultTest, any_other_failure_of_accept_ends_the_walk_with_its_error)
{
    start_user();
    const Fd first = connect_to(user());
    const Fd second = connect_to(user());
    g_accept_errors = {0, EMFILE};
    EXPECT_EQ(accept_all(user()), EMFILE);
    EXPECT_EQ(queued(user()), 1u);
    EXPECT_TRUE(log.contains("rui_accept: rc=24"));
    EXPECT_EQ(accept_all(user()), 0); // the second one has waited
    EXPECT_EQ(queued(user()), 2u);
}

TEST_F(RuiFaultTest, a_connection_whose_settings_fail_is_closed)
{
    start_user();
    const Fd first = connect_to(user());
    g_sockopt_error = ENOPROTOOPT;
    EXPECT_EQ(accept_all(user()), -1);
    g_sockopt_error = 0;
    EXPECT_TRUE(closed_by_peer(first));

    const Fd second = connect_to(user());
    g_nblock_fails = true;
    EXPECT_EQ(accept_all(user()), -1);
    g_nblock_fails = false;
    EXPECT_TRUE(closed_by_peer(second));
    EXPECT_EQ(log.count("Error rc=-1 processing connection [127.0.0.1:"), 2u);
    EXPECT_TRUE(made.empty());
}

TEST_F(RuiFaultTest, an_accepted_connection_that_the_loop_does_not_take_leaves_its_request_without_descriptor)
{
    // The next connection gets the same number: the stale request must not close it.
    start_user();
    const Fd first = connect_to(user());
    const Fd second = connect_to(user());
    on_new = [this](int, rui_socket_ctx*, void*) -> void* {
        g_add_reader_fails = made.size() == 1;
        return calloc(1, sizeof(kit_request));
    };
    EXPECT_EQ(accept_all(user()), 0);
    EXPECT_TRUE(closed_by_peer(first));
    ASSERT_EQ(queued(user()), 2u);
    EXPECT_EQ(made.at(0), made.at(1));
    EXPECT_FALSE(log.contains("already marked queued"));
    rui_rq_header* stale = oldest(user());
    EXPECT_EQ(stale->fd, -1);
    rui_rm_request(stale);
    EXPECT_EQ(queued(user()), 1u);
    EXPECT_TRUE(is_open(newest(user())->fd));
    EXPECT_TRUE(FD_ISSET(newest(user())->fd, &user().accset));
}

// ---- queue ----------------------------------------------------------------------------------------------------

TEST_F(RuiFaultTest, a_request_that_cannot_be_queued_is_told)
{
    start_user();
    void* made_rq = nullptr;
    on_new = [&](int, rui_socket_ctx*, void*) { return made_rq = calloc(1, sizeof(kit_request)); };
    log.clear();
    g_append_fails = true;
    EXPECT_EQ(rui_add_request(base.here.get(), &user(), nullptr), -1);
    g_append_fails = false;
    const Lines got = log.messages(ll::error);
    EXPECT_EQ(got.at(0), "rui_add_request: failed to queue [usr] request [" + hex(made_rq) + "]");
    EXPECT_EQ(got.back(), "rm_request: failed to remove usr request [" + hex(made_rq) + "] from queue");
    EXPECT_TRUE(is_open(base.here.get())); // the caller's
    free(made_rq);
}

TEST_F(RuiFaultTest, a_request_that_does_not_leave_the_queue_is_not_freed)
{
    start_user();
    fill(user(), 1);
    rui_rq_header* rqh = newest(user());
    g_rm_fails = true;
    rui_rm_request(rqh);
    g_rm_fails = false;
    EXPECT_EQ(log.messages(ll::error).back(), "rm_request: failed to remove usr request [" + hex(rqh) + "] from queue");
    EXPECT_TRUE(dropped.empty());
    EXPECT_TRUE(is_open(rqh->fd));
}

// ---- start and stop -------------------------------------------------------------------------------------------

TEST_F(RuiFaultTest, a_listener_that_the_loop_refuses_is_closed)
{
    add_tcp(cfg.user[0]);
    init();
    g_add_reader_fails = true;
    const int next = dup(base.here.get());
    close(next);
    EXPECT_EQ(rui_ctx_start(&ctx), -1);
    g_add_reader_fails = false;
    EXPECT_EQ(user().sockfd, -1);
    EXPECT_FALSE(is_open(next));
    EXPECT_EQ(log.messages(ll::error).back(), "rui_start_listener: failed to start usr listener");
    EXPECT_EQ(rui_ctx_start(&ctx), 0); // another try
}

TEST_F(RuiFaultTest, a_listener_that_has_left_the_loop_is_closed_all_the_same)
{
    start_user();
    const int fd = user().sockfd;
    ASSERT_EQ(rqs_rm_fd(fd, true, false), 0);
    EXPECT_EQ(rui_stop_listener(&user()), -1);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(user().sockfd, -1);
    EXPECT_TRUE(user().deferred);
}
