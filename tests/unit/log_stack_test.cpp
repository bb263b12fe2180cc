// Log core: call stacks, and the assertions that leave one in the log.
#include "log.h"

#include "support/log_capture.h"
#include "support/std_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <string>

TV_LOG_MODULE(0)

// ---- what the code under test asks of the system, in the test's hands -----------------------------------------

namespace
{

enum class stack_fault { none, no_frames, no_frames_errno, no_symbols };
stack_fault g_stack_fault = stack_fault::none;

} // namespace

extern "C" int backtrace(void** frames, int size)
{
    if (g_stack_fault == stack_fault::no_frames) return 0;
    if (g_stack_fault == stack_fault::no_frames_errno) {
        errno = ENOMEM;
        return 0;
    }
    static const auto real = reinterpret_cast<int (*)(void**, int)>(dlsym(RTLD_NEXT, "backtrace"));
    return real(frames, size);
}

extern "C" char** backtrace_symbols(void* const* frames, int size)
{
    if (g_stack_fault == stack_fault::no_symbols) {
        errno = ENOMEM;
        return nullptr;
    }
    static const auto real = reinterpret_cast<char** (*)(void* const*, int)>(dlsym(RTLD_NEXT, "backtrace_symbols"));
    return real(frames, size);
}

namespace
{

class LogStackTest : public testing::Test
{
protected:
    void SetUp() override
    {
        glog_init("log_stack_test");
        std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), ll::debug);
    }
    void TearDown() override
    {
        g_stack_fault = stack_fault::none;
        log_timefmt(&g_log, 0);
    }
};

FILE* memory_file()
{
    return fdopen(memfd_create("stream", 0), "a+");
}

std::string content(FILE* fp)
{
    char buf[8192];
    const ssize_t n = pread(fileno(fp), buf, sizeof(buf), 0);
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// ---- call stack -----------------------------------------------------------------------------------------------

TEST_F(LogStackTest, a_call_stack_is_a_numbered_line_a_frame)
{
    char buf[8192];
    EXPECT_EQ(btrace_to_buf(buf, sizeof(buf)), 0);
    const std::string text = buf;
    size_t pos = 0;
    int frames = 0;
    while (pos < text.size()) {
        const std::string head = "#" + std::to_string(frames) + ": ";
        EXPECT_EQ(text.substr(pos, head.size()), head);
        pos = text.find('\n', pos) + 1;
        ASSERT_GT(pos, 0u);
        ++frames;
    }
    EXPECT_GE(frames, 3);
    EXPECT_LE(frames, 16);
}

int stack_at_depth(int depth, char* buf, size_t buflen)
{
    if (depth == 0) return btrace_to_buf(buf, buflen);
    const int rc = stack_at_depth(depth - 1, buf, buflen);
    return buf[0] == '#' ? rc : -2; // keeps the call from becoming a jump
}

TEST_F(LogStackTest, a_deep_call_stack_ends_after_16_frames)
{
    char buf[16384];
    EXPECT_EQ(stack_at_depth(40, buf, sizeof(buf)), 0);
    const std::string text = buf;
    EXPECT_NE(text.find("#15: "), std::string::npos);
    EXPECT_EQ(text.find("#16: "), std::string::npos);
}

TEST_F(LogStackTest, a_call_stack_is_cut_at_the_buffers_end)
{
    char whole[8192];
    ASSERT_EQ(btrace_to_buf(whole, sizeof(whole)), 0);
    for (const size_t len : {1u, 2u, 5u, 60u}) {
        char buf[64];
        memset(buf, 'x', sizeof(buf));
        EXPECT_EQ(btrace_to_buf(buf, len), 0);
        EXPECT_EQ(strlen(buf), len - 1);
        EXPECT_EQ(buf[len], 'x');
    }
    char untouched = 'x';
    EXPECT_EQ(btrace_to_buf(&untouched, 0), 0);
    EXPECT_EQ(untouched, 'x');
}

TEST_F(LogStackTest, a_call_stack_that_can_not_be_had_is_reported_when_it_says_why)
{
    char buf[64] = "old";
    int rc = 0;
    errno = EBADF; // of something before
    g_stack_fault = stack_fault::no_frames;
    EXPECT_EQ(stderr_of([&] { rc = btrace_to_buf(buf, sizeof(buf)); }), "");
    EXPECT_EQ(rc, -1);
    EXPECT_STREQ(buf, "");
    g_stack_fault = stack_fault::no_frames_errno;
    EXPECT_EQ(stderr_of([&] { rc = btrace_to_buf(buf, sizeof(buf)); }), "backtrace: Cannot allocate memory\n");
    EXPECT_EQ(rc, -1);
    g_stack_fault = stack_fault::no_symbols;
    EXPECT_EQ(stderr_of([&] { rc = btrace_to_buf(buf, sizeof(buf)); }), "backtrace_symbols: Cannot allocate memory\n");
    EXPECT_EQ(rc, -1);
}

TEST_F(LogStackTest, a_call_stack_may_stand_behind_a_head)
{
    char buf[4096];
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "signal %d:\n", 11), 0);
    EXPECT_EQ(std::string(buf).substr(0, 15), "signal 11:\n#0: ");
    EXPECT_EQ(snprintf_btrace(buf, 12, "signal %d:\n", 11), 0); // room for the head alone
    EXPECT_STREQ(buf, "signal 11:\n");
    EXPECT_EQ(snprintf_btrace(buf, 11, "signal %d:\n", 11), -1);
    EXPECT_STREQ(buf, "signal 11:");
}

// ---- logged assertions ----------------------------------------------------------------------------------------

TEST_F(LogStackTest, a_logged_assertion_leaves_the_call_stack_in_the_log)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    const int value = 1;
    EXPECT_EXIT(tv_assert_logged(value == LOG_LOCAL0), testing::KilledBySignal(SIGABRT),
                "log_stack_test.cpp:.*Assertion `value == LOG_LOCAL0' failed");
    const std::string text = log.text();
    EXPECT_EQ(text.substr(0, 22), "(PNC)  ASSERT at:\n#0: ");
    EXPECT_EQ(text.substr(text.size() - 3), "==\n");
    EXPECT_LE(text.size(), strlen("(PNC)  ASSERT at:\n") + 511 + strlen("==\n"));
}

int fail_at_depth(int depth)
{
    if (depth > 0) return fail_at_depth(depth - 1) + 1; // and more afterwards, which keeps the call from being a jump
    tv_assert_logged(depth < 0);
    return 0;
}

TEST_F(LogStackTest, a_logged_assertion_leaves_511_characters_of_a_deep_call_stack)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    EXPECT_DEATH(fail_at_depth(30), "Assertion `depth < 0' failed");
    EXPECT_EQ(log.text().size(), strlen("(PNC)  ASSERT at:\n") + 511 + strlen("==\n"));
}

TEST_F(LogStackTest, a_logged_assertion_flushes_the_log)
{
    FILE* const before = g_log.fp;
    FILE* buffered = memory_file();
    setvbuf(buffered, nullptr, _IOFBF, 65536);
    g_log.fp = buffered;
    EXPECT_DEATH(tv_assert_logged(false), "Assertion `false' failed");
    EXPECT_NE(content(buffered).find("ASSERT at:"), std::string::npos);
    g_log.fp = before;
    fclose(buffered);
}

TEST_F(LogStackTest, a_logged_assertion_that_holds_says_nothing)
{
    LogCapture log;
    tv_assert_logged(1 + 1 == 2);
    EXPECT_EQ(log.text(), "");
}

TEST_F(LogStackTest, a_logged_assertion_without_a_call_stack_still_tells)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    g_stack_fault = stack_fault::no_frames;
    EXPECT_DEATH(tv_assert_logged(false), "Assertion `false' failed");
    EXPECT_EQ(log.text(), "(PNC)  ASSERT at:\n==\n");
}

} // namespace
