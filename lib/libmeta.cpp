// Identity of the support library.
#include "libmeta.h"

#include "tv_build_info.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

constexpr char LIB_VERSION[] = "1.5";
constexpr int LIB_MAJOR = 6;
constexpr int LIB_MINOR = 11;

constexpr bool is_hex(std::string_view s)
{
    return s.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}
static_assert(std::string_view(TV_BUILD_TAG).size() == 8 && is_hex(TV_BUILD_TAG));

constinit char g_libtag[64] = {};

} // namespace

const char* lbtvn_info()
{
    if (g_libtag[0]) return g_libtag;

    char text[sizeof(g_libtag)];
    const int n = snprintf(text, sizeof(text), "libtvn/%s-%d.%d (%s) @%u", LIB_VERSION, LIB_MAJOR, LIB_MINOR,
                           TV_BUILD_TAG, TV_BUILD_SECONDS);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(text)) return "#error#";
    memcpy(g_libtag, text, static_cast<size_t>(n) + 1);
    return g_libtag;
}
