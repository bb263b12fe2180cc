// Words for tests of assertions and of what is printed on a stream.
//
//     EXPECT_DEATH(xvec_reserve(&v, 1, 4, 0), asserts("v && (growblk > 0)"));
//     EXPECT_EQ(printed([&](FILE* fp) { xvec_dump(&v, fp); }), "...");
#ifndef TESTS_SUPPORT_ASSERT_KIT_H
#define TESTS_SUPPORT_ASSERT_KIT_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// The expression that the C library's line of a failed assertion with exactly this text matches.
inline std::string asserts(std::string_view text)
{
    std::string regex;
    for (const char c : text) {
        if (std::string_view("()[]{}|*+?.^$\\").find(c) != std::string_view::npos) regex += '\\';
        regex += c;
    }
    return "Assertion `" + regex + "' failed";
}

// What a function prints on the stream that it is given.
template <typename F>
std::string printed(F&& print)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    if (!fp) abort();
    print(fp);
    fclose(fp);
    std::string text(buf, len);
    free(buf);
    return text;
}

#endif // TESTS_SUPPORT_ASSERT_KIT_H
