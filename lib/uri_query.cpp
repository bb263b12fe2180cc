// Queries and percent-encoding. The query's text is walked in place and never changed; each name and value is copied
// before it is decoded, so that an escape can't reach over a `&`.
#include "uri.h"

#include "log.h"
#include "strops.h"
#include "syswrap.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

TV_LOG_MODULE(0)

namespace
{

constexpr long MAX_PARAMS = 128;
constexpr size_t NAME_SIZE = 32;
constexpr size_t VALUE_MAX = 32;
constexpr size_t ESCAPE_LEN = 3; // `%` and two digits
constexpr char RESERVED[] = ";/?:@&=+$,* ";
constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

bool is_printable(char c)
{
    return c >= ' ' && c <= '~';
}

// The reserved ones include the terminating zero.
bool is_safe(char c)
{
    return is_printable(c) && !memchr(RESERVED, c, sizeof(RESERVED));
}

bool is_hex(char c)
{
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

char hex2dec(char high, char low)
{
    return static_cast<char>(sym2hex(high) << 4 | sym2hex(low));
}

// Reads the pair at *pos into the table and steps over it.
int take_pair(const char** pos, skht_t tbl, bool decode)
{
    const char* const name_start = *pos;
    const char* const eq = strchr(name_start, '=');
    if (!eq) return -1;
    const size_t name_len = static_cast<size_t>(eq - name_start);
    if (name_len >= NAME_SIZE) return -1;
    char name[NAME_SIZE] = {};
    memcpy(name, name_start, name_len);

    const size_t len = strcspn(eq + 1, "&");
    if (len > VALUE_MAX) {
        tv_log(ll::error, "%s: argument for query parameter [%s] is too long [%ld]\n", "uri_query_parse", name,
               static_cast<long>(len));
        return -1;
    }
    text_ptr value;
    if (len > 0) {
        value.reset(static_cast<char*>(W_calloc("uri_query_parse", VALUE_MAX + 1, 1)));
        if (!value) return ENOMEM;
        memcpy(value.get(), eq + 1, len);
    }
    if (decode && !uri_decode(name, sizeof(name))) return -1;
    if (decode && value && !uri_decode(value.get(), VALUE_MAX + 1)) return -1;

    void* data = value.get(); // becomes the first pair's value where the name is a duplicate
    const int rc = skht_add(tbl, name, &data);
    if (rc == EBUSY) tv_log(ll::error, "%s: duplicate query parameter [%s]\n", "uri_query_parse", name);
    if (rc != 0) return rc;
    (void)value.release(); // the table's now

    // The query's end is not stepped over: nothing is read behind it.
    *pos = eq + 1 + len;
    if (**pos == '&') ++*pos;
    return 0;
}

} // namespace

int uri_query_parse(const char* query, skht_t* ptbl)
{
    if (ptbl) *ptbl = nullptr;
    if (*query == '\0') return 0;

    skht_t tbl = nullptr;
    int rc = skht_create(&tbl, MAX_PARAMS, plHash, nullptr, 0);
    if (rc != 0) return rc;
    long count = 0;
    for (; rc == 0 && *query != '\0'; ++count) {
        if (count >= MAX_PARAMS) {
            tv_log(ll::error, "%s: too many query parameters: [%ld]\n", __func__, count);
            rc = -1;
        } else {
            rc = take_pair(&query, tbl, ptbl != nullptr);
        }
    }
    if (rc == 0 && ptbl)
        *ptbl = tbl;
    else
        skht_destroy(tbl, free);
    return rc;
}

char* uri_decode(char* text, size_t size)
{
    return uri_decode_opt(text, size, NO_UNPRINTABLE);
}

char* uri_decode_opt(char* text, size_t size, uint32_t flags)
{
    if (size == 0) return text;
    const size_t len = strnlen(text, size);
    size_t out = 0;
    for (size_t in = 0; in < len;) {
        if (text[in] != '%') {
            text[out++] = text[in] == '+' ? ' ' : text[in];
            ++in;
            continue;
        }
        if (len - in < ESCAPE_LEN) return nullptr;
        const char high = text[in + 1];
        const char low = text[in + 2];
        in += ESCAPE_LEN;
        if (!is_hex(high) || !is_hex(low)) continue;
        const char byte = hex2dec(high, low);
        text[out++] = (flags & NO_UNPRINTABLE) && !is_printable(byte) ? '?' : byte;
    }
    text[out < size ? out : size - 1] = '\0';
    return text;
}

char* uri_encode(char* text, size_t size)
{
    if (size == 0 || *text == '\0') return text;
    const size_t len = strnlen(text, size);
    const text_ptr copy(static_cast<char*>(W_calloc(__func__, size, 1)));
    if (!copy) return nullptr;
    memcpy(copy.get(), text, len);

    size_t out = 0;
    for (size_t in = 0; in < len && out < size; ++in) {
        const char c = copy.get()[in];
        if (is_safe(c)) {
            text[out++] = c;
            continue;
        }
        if (size - out < ESCAPE_LEN) break;
        const auto byte = static_cast<unsigned char>(c);
        text[out++] = '%';
        text[out++] = HEX_DIGITS[byte >> 4];
        text[out++] = HEX_DIGITS[byte & 0xf];
    }
    // By design: a full text gives its last character for the zero, be it the second digit of an escape.
    text[out < size ? out : size - 1] = '\0';
    return text;
}
