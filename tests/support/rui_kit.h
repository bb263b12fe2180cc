// A service with request listeners, for tests: callbacks that record what they were called for, a configuration on free
// ports of the loopback, and clients.
//
//     class RuiTest : public RuiKit {};
//     TEST_F(...)
//     {
//         add_tcp(cfg.user[0]);
//         start();                             // event loop, set-up, start
//         Fd peer = connect_to(ctx.user[0]);
//         EXPECT_EQ(accept_all(ctx.user[0]), 0);
//         EXPECT_EQ(queued(ctx.user[0]), 1u);
//     }
//
// Dispatch is by hand: a waiting connection is there as soon as connect() has returned, so no test has to wait.
#ifndef TESTS_SUPPORT_RUI_KIT_H
#define TESTS_SUPPORT_RUI_KIT_H

#include "common/rui.h"
#include "rqs.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"
#include "util.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

struct kit_request {
    rui_rq_header h;
    void* data;
};

class RuiKit : public testing::Test
{
public:
    using Lines = std::vector<std::string>;

protected:
    RuiKit()
    {
        s_self = this;
        g_quit = 0;
        cfg.max_accept = 100;
    }
    ~RuiKit() override
    {
        rui_ctx_destroy(&ctx);
        rui_cfg_free(&cfg);
        rqs_destroy();
        g_quit = 0;
        s_self = nullptr;
    }

    // ---- service ----

    static void* make(int fd, rui_socket_ctx* srv, void* data)
    {
        s_self->made.push_back(fd);
        if (s_self->on_new) return s_self->on_new(fd, srv, data);
        auto* rq = static_cast<kit_request*>(calloc(1, sizeof(kit_request)));
        rq->data = data;
        return rq;
    }
    static void drop(void* rq)
    {
        s_self->dropped.push_back(rq);
        s_self->dropped_fds.push_back(static_cast<rui_rq_header*>(rq)->fd);
        free(rq);
    }
    static bool tmout(void* rq, u_int ms) { return s_self->on_tmout && s_self->on_tmout(rq, ms); }

    void set_callbacks()
    {
        rui_set_cb(RUI_USER, &user_cb);
        rui_set_cb(RUI_ADMIN, &admin_cb);
        rui_set_cb(RUI_CUSTOM, &custom_cb);
    }
    void init_loop()
    {
        rqs_config lcfg = {};
        lcfg.cb.read = lcfg.cb.write = lcfg.cb.error = [](int, int, void* udata, void*) {
            return s_self->on_event ? s_self->on_event(udata) : -1;
        };
        lcfg.cb.post_process = [] {
            rui_pprm_all(&s_self->ctx);
            return s_self->after ? s_self->after() : 0;
        };
        lcfg.cb.update_tmout = [](timespec* t) { *t = {10, 0}; };
        ASSERT_EQ(rqs_init(&lcfg), 0);
    }
    void init()
    {
        init_loop();
        set_callbacks();
        ASSERT_EQ(rui_ctx_init(&cfg, &ctx), 0);
        ASSERT_TRUE(rui_validate(&ctx));
    }
    void start()
    {
        init();
        ASSERT_EQ(rui_ctx_start(&ctx), 0);
        log.clear();
    }

    // ---- configuration ----

    static void add_tcp(rui_listener_cfg& lc, const char* alias = "tcp")
    {
        lc.is_valid = true;
        lc.proto = IPPROTO_TCP;
        lc.pref_af = AF_INET;
        snprintf(lc.alias, sizeof(lc.alias), "%s", alias);
        snprintf(lc.port, sizeof(lc.port), "%u", free_port(SOCK_STREAM));
    }
    void add_domain(rui_listener_cfg& lc, const char* alias = "local")
    {
        lc.is_valid = true;
        lc.proto = IPPROTO_TCP;
        snprintf(lc.alias, sizeof(lc.alias), "%s", alias);
        snprintf(lc.domain_path, sizeof(lc.domain_path), "%s", (dir / alias).c_str());
    }

    // ---- clients ----

    static Fd connect_to(const rui_socket_ctx& srv)
    {
        sockaddr_storage ss = {};
        socklen_t len = sizeof(ss);
        auto* sa = reinterpret_cast<sockaddr*>(&ss);
        EXPECT_EQ(getsockname(srv.sockfd, sa, &len), 0);
        if (ss.ss_family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&ss);
            in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        Fd fd(socket(ss.ss_family, SOCK_STREAM, 0));
        EXPECT_EQ(connect(fd.get(), sa, len), 0) << strerror(errno);
        return fd;
    }
    int accept_all(rui_socket_ctx& srv) { return rui_accept(&srv, cfg.max_accept, 0, nullptr); }

    // A request without a connection, on a descriptor of its own that the loop takes as well. One number each, so that a
    // thousand of them stay below FD_SETSIZE.
    int add_request(rui_socket_ctx& srv, void* data = nullptr)
    {
        const int fd = dup(base.here.get());
        EXPECT_GE(fd, 0) << strerror(errno);
        const int rc = rui_add_request(fd, &srv, data);
        if (rc) close(fd);
        return rc;
    }
    void fill(rui_socket_ctx& srv, size_t count)
    {
        while (queued(srv) < count)
            ASSERT_EQ(add_request(srv), 0);
    }

    static size_t queued(const rui_socket_ctx& srv) { return dlep_count(srv.requests); }
    static rui_rq_header* newest(const rui_socket_ctx& srv)
    {
        return static_cast<rui_rq_header*>(dlep_head(srv.requests));
    }
    static rui_rq_header* oldest(const rui_socket_ctx& srv)
    {
        return static_cast<rui_rq_header*>(dlep_tail(srv.requests));
    }
    static bool closed_by_peer(const Fd& peer)
    {
        char c = 0;
        return recv(peer.get(), &c, 1, 0) <= 0;
    }
    static std::string hex(const void* p)
    {
        char text[32];
        snprintf(text, sizeof(text), "%p", p);
        return text;
    }

    TempDir dir;
    LogCapture log;
    rui_cfg cfg = {};
    rui_ctx ctx = {};
    rui_socket_cb user_cb = {{{'u', 's', 'r', 0}}, make, drop, tmout};
    rui_socket_cb admin_cb = {{{'a', 'd', 'm', 0}}, make, drop, tmout};
    rui_socket_cb custom_cb = {{{'c', 's', 't', 0}}, make, drop, tmout};
    std::function<void*(int, rui_socket_ctx*, void*)> on_new;
    std::function<bool(void*, u_int)> on_tmout;
    std::function<int(void*)> on_event;
    std::function<int()> after;
    std::vector<int> made;
    std::vector<void*> dropped;
    std::vector<int> dropped_fds;
    PeerPair base;

private:
    static inline RuiKit* s_self = nullptr;
};

#endif // TESTS_SUPPORT_RUI_KIT_H
