// Build identity. The texts are put together in a local buffer first, so that one that doesn't fit leaves the cache
// empty instead of half filled.
#include "meta.h"

#include "libmeta.h"
#include "tv_build_info.h"

#include <strings.h>
#include <sys/utsname.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <span>

namespace
{

constexpr char VERSION[] = "0.1";
constexpr int VERSION_MAJOR = 10;
constexpr int VERSION_MINOR = 2;
constexpr char BUILD_TYPE[] = "marltools";
constexpr char BUILD_MODE[] = "regular";
constexpr char BUILD_TIME[] = TV_BUILD_DATE;
constexpr char BAD_TEXT[] = "#error#";

struct description {
    const char* app;
    const char* text;
};

constexpr std::array DESCRIPTIONS = {
    description{"kvt", "Live stream analyzer"},
};

constinit char g_appinfo[256] = {};
constinit char g_apptag[128] = {};

const char* given(const char* text, const char* otherwise)
{
    return text && text[0] ? text : otherwise;
}

// System name, release and machine; as much of it as fits the line's own limit is plenty.
const char* os_text(std::span<char> buf)
{
    struct utsname un;
    if (uname(&un) < 0) return BAD_TEXT;
    const int n = snprintf(buf.data(), buf.size(), "%s %s %s", un.sysname, un.release, un.machine);
    return n > 0 ? buf.data() : BAD_TEXT;
}

// Keeps a text of `n` characters (the result of its snprintf) if it is whole.
const char* cache_text(std::span<char> cache, const char* text, int n)
{
    if (n < 0 || static_cast<size_t>(n) >= cache.size()) return BAD_TEXT;
    memcpy(cache.data(), text, static_cast<size_t>(n) + 1);
    return cache.data();
}

} // namespace

const char* app_description(const char* app)
{
    for (const description& d : DESCRIPTIONS)
        if (0 == strcasecmp(app, d.app)) return d.text;
    return BAD_TEXT;
}

const char* get_custom_app_info(const char* appname, const char* descr, const char* cksum)
{
    if (g_appinfo[0]) return g_appinfo;

    char os[sizeof(g_appinfo)];
    char text[sizeof(g_appinfo)];
    const int n = snprintf(text, sizeof(text), "%s (%s) %s-%d.%d (%s) %s [%s] %s; built on %s", appname,
                           given(descr, app_description(appname)), VERSION, VERSION_MAJOR, VERSION_MINOR, BUILD_TYPE,
                           BUILD_MODE, os_text(os), given(cksum, TV_BUILD_TAG), BUILD_TIME);
    return cache_text(g_appinfo, text, n);
}

const char* get_app_info(const char* appname, const char* cksum)
{
    return get_custom_app_info(appname, nullptr, cksum);
}

const char* get_app_tag(const char* appname)
{
    if (g_apptag[0]) return g_apptag;

    char text[sizeof(g_apptag)];
    const int n =
        snprintf(text, sizeof(text), "%s/%s-%d.%d (%s)", appname, VERSION, VERSION_MAJOR, VERSION_MINOR, BUILD_TYPE);
    return cache_text(g_apptag, text, n);
}

void dump_build_info(FILE* fp)
{
    fputs("----\n", fp);
    fprintf(fp, "%s ", lbtvn_info());
    if (using_fast_clocks()) fputs("[fast-clocks] ", fp);
    fprintf(fp, "[%s]\n", TV_BUILD_FLAGS);
    fputs("----\n\n", fp);
}

bool using_fast_clocks()
{
    return false;
}
