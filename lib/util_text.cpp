// Paths and texts.
#include "util.h"

#include "log.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

TV_LOG_MODULE(0)

const char* get_base(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int replace_dir(const char* fpath, const char* newdir, char* buf, size_t buflen)
{
    const char* joint = '/' == lastchar(newdir) ? "" : "/";
    const int n = snprintf(buf, buflen, "%s%s%s", newdir, joint, get_base(fpath));
    if (n >= 0 && static_cast<size_t>(n) < buflen) return 0;
    buf[0] = '\0';
    tv_log(ll::error, "%s: path needs %d bytes, only %zu provided\n", __func__, n + 1, buflen);
    return -1;
}

char lastchar(const char* s)
{
    const size_t len = strlen(s);
    return len ? s[len - 1] : '\0';
}

ssize_t tag_index(const char* word, const char* const* table, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        if (0 == strcasecmp(word, table[i])) return static_cast<ssize_t>(i);
    return -1;
}

size_t cpy_till(char* dst, size_t dstlen, const char* src, const char* stops)
{
    const size_t wanted = strcspn(src, stops);
    const size_t n = wanted < dstlen ? wanted : dstlen - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}
