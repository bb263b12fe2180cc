// A service for tests of the event loop: callbacks that are lambdas, and a trace of which ran in what order.
//
//     class RqsTest : public LoopTest {};
//     TEST_F(RqsTest, ...)
//     {
//         on_read = [](int fd, int, void*, void*) { take_byte(fd); g_quit = 1; return 0; };
//         start();                       // rqs_init; optional callbacks are there if their lambda is set by now
//         rqs_add_reader(pipe.in.get(), nullptr);
//         EXPECT_EQ(rqs_event_loop(), 0);
//         EXPECT_EQ(trace, (Trace{"read 5 0"}));
//     }
//
// Unless a test sets them, read, write and error count as failed calls (-1) that take nothing, so that no test spins.
#ifndef TESTS_SUPPORT_LOOP_KIT_H
#define TESTS_SUPPORT_LOOP_KIT_H

#include "rqs.h"
#include "support/net_peer.h"
#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

// The text of a format, such as an expected line.
inline std::string text_of(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string text_of(const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// A failed call as it is logged: what stands before " ERROR(n): text", and that.
inline std::string errno_text(const std::string& head, int err)
{
    return text_of("%s ERROR(%d): %s", head.c_str(), err, strerror(err));
}

// A pipe that is readable while something is in it.
struct LoopPipe {
    LoopPipe()
    {
        int fds[2] = {-1, -1};
        if (pipe(fds) != 0) perror("pipe");
        in = Fd(fds[0]);
        out = Fd(fds[1]);
    }
    void feed() const { EXPECT_EQ(write(out.get(), "x", 1), 1); }
    Fd in, out;
};

class LoopTest : public testing::Test
{
public:
    using EventFn = std::function<int(int fd, int flags, void* udata, void* aux)>;
    using Trace = std::vector<std::string>;

protected:
    LoopTest()
    {
        s_self = this;
        g_quit = 0;
    }
    ~LoopTest() override
    {
        rqs_destroy();
        g_rqs = {};
        g_quit = 0;
        s_self = nullptr;
    }

    struct rqs_config config() const
    {
        struct rqs_config cfg = {};
        cfg.cb.read = [](int fd, int flags, void* udata, void* aux) {
            return s_self->event("read", s_self->on_read, fd, flags, udata, aux);
        };
        cfg.cb.write = [](int fd, int flags, void* udata, void* aux) {
            return s_self->event("write", s_self->on_write, fd, flags, udata, aux);
        };
        cfg.cb.error = [](int fd, int flags, void* udata, void* aux) {
            return s_self->event("error", s_self->on_error, fd, flags, udata, aux);
        };
        if (on_file) {
            cfg.cb.on_file_modified = [](int wd, int flags, void* udata, void* aux) {
                return s_self->event("file", s_self->on_file, wd, flags, udata, aux);
            };
        }
        if (update_tmout) cfg.cb.update_tmout = [](struct timespec* t) { s_self->traced("tmout").update_tmout(t); };
        if (on_idle) cfg.cb.on_idle = [] { return s_self->traced("idle").on_idle(); };
        if (post_process) cfg.cb.post_process = [] { return s_self->traced("post").post_process(); };
        if (time_out) cfg.cb.time_out = [] { s_self->traced("time_out").time_out(); };
        if (is_dormant) cfg.cb.is_dormant = [] { return s_self->traced("dormant").is_dormant(); };
        cfg.quit_on_zero_fds = quit_on_zero_fds ? 1 : 0;
        return cfg;
    }

    void start()
    {
        const struct rqs_config cfg = config();
        ASSERT_EQ(rqs_init(&cfg), 0);
        ASSERT_TRUE(rqs_validate());
    }

    // The time-out of each wait from here on; for a test that wants the loop to come round by itself.
    void wait_at_most_ms(long ms)
    {
        update_tmout = [ms](struct timespec* t) { *t = {ms / 1000, ms % 1000 * 1000000}; };
    }

    // Ends the loop by the quit flag behind the n-th turn.
    void end_after(int turns)
    {
        m_turns_left = turns;
        on_idle = [this] {
            if (--m_turns_left == 0) g_quit = 1;
            return 0;
        };
    }

    // How often a callback ran, such as "idle" or "read 5 0".
    size_t count(const std::string& what) const
    {
        size_t n = 0;
        for (const std::string& t : trace)
            n += t == what;
        return n;
    }

    static std::string read_of(int fd, int flags = 0) { return of("read", fd, flags); }
    static std::string write_of(int fd, int flags = 0) { return of("write", fd, flags); }
    static std::string error_of(int fd, int flags = 0) { return of("error", fd, flags); }
    static std::string file_of(int wd, int flags = 0) { return of("file", wd, flags); }

    EventFn on_read, on_write, on_error, on_file;
    std::function<void(struct timespec*)> update_tmout;
    std::function<int()> on_idle, post_process;
    std::function<void()> time_out;
    std::function<bool()> is_dormant;
    bool quit_on_zero_fds = false;
    Trace trace; // "read FD FLAGS" and kin for events, "tmout", "time_out", "post", "idle", "dormant"

private:
    static std::string of(const char* what, int fd, int flags)
    {
        return std::string(what) + " " + std::to_string(fd) + " " + std::to_string(flags);
    }
    int event(const char* what, const EventFn& f, int fd, int flags, void* udata, void* aux)
    {
        trace.push_back(of(what, fd, flags));
        return f ? f(fd, flags, udata, aux) : -1;
    }
    LoopTest& traced(const char* what)
    {
        trace.emplace_back(what);
        return *this;
    }

    int m_turns_left = 0;
    static inline LoopTest* s_self = nullptr;
};

#endif // TESTS_SUPPORT_LOOP_KIT_H
