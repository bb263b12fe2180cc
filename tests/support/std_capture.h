// What code under test says on standard error, as text.
//
//     EXPECT_EQ(stderr_of([] { log_rotate(&g_log); }), "log_rotate: nothing to rotate.\n");
#ifndef TESTS_SUPPORT_STD_CAPTURE_H
#define TESTS_SUPPORT_STD_CAPTURE_H

#include <gtest/gtest.h>

#include <string>

template <typename F>
std::string stderr_of(F&& act)
{
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
}

#endif // TESTS_SUPPORT_STD_CAPTURE_H
