// String operations. Each function is a plain walk over its text; the only table is that of the units.
#include "strops.h"

#include "tvtypes.h"

#include <strings.h>

#include <array>
#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace
{

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;
static_assert(sizeof(text_ptr) == sizeof(char*));

struct unit {
    const char* name;
    double factor;
};

constexpr double KB = 1024.0;
constexpr std::array UNITS = {
    unit{"Kb", KB},         unit{"K", KB},     //
    unit{"Mb", KB* KB},     unit{"M", KB* KB}, //
    unit{"Gb", KB* KB* KB}, unit{"G", KB* KB* KB},
};
static_assert(UNITS[4].factor == 1073741824.0);

// 2^63, the first value above the integers that a double can hold; its negative is still one of them.
constexpr double INT64_EDGE = 9223372036854775808.0;

const unit* find_unit(const char* name)
{
    for (const unit& u : UNITS)
        if (0 == strcasecmp(name, u.name)) return &u;
    return nullptr;
}

const char* first_letter(const char* str)
{
    while (*str && !isalpha(static_cast<unsigned char>(*str)))
        ++str;
    return *str ? str : nullptr;
}

int read_number(const char* text, double* val)
{
    errno = 0;
    const double d = strtod(text, nullptr);
    if (errno) return A2N_NUMBER;
    *val = d;
    return 0;
}

bool is_line_end(char c)
{
    return '\n' == c || '\r' == c;
}

// The decimal number at the start of a text, 0 if there is none; stops at the largest number rather than wrap.
size_t leading_number(const char* s)
{
    constexpr size_t top = std::numeric_limits<size_t>::max();
    size_t n = 0;
    for (; *s >= '0' && *s <= '9'; ++s) {
        const size_t digit = static_cast<size_t>(*s - '0');
        if (n > (top - digit) / 10) return top;
        n = n * 10 + digit;
    }
    return n;
}

} // namespace

// ---- numbers --------------------------------------------------------------------------------------------------

int a2double(const char* str, double* pval)
{
    assert(str);

    double val = 0.0;
    if (const char* letter = first_letter(str)) {
        const unit* u = find_unit(letter);
        if (!u) return A2N_UNIT;

        const size_t len = static_cast<size_t>(letter - str);
        if (len > A2N_MAX_DIGITS) return A2N_TOO_LONG;
        char number[A2N_MAX_DIGITS + 1];
        memcpy(number, str, len);
        number[len] = '\0';
        if (const int rc = read_number(number, &val)) return rc;
        val *= u->factor;
    } else if (const int rc = read_number(str, &val)) {
        return rc;
    }
    if (pval) *pval = val;
    return 0;
}

int a2int64(const char* str, int64_t* pval)
{
    double val = 0.0;
    if (const int rc = a2double(str, &val)) return rc;
    if (val > INT64_EDGE || val < -INT64_EDGE) return A2N_RANGE;

    // The largest integers all read as 2^63, which itself isn't an integer of this type.
    if (pval) *pval = val < INT64_EDGE ? static_cast<int64_t>(val) : std::numeric_limits<int64_t>::max();
    return 0;
}

int a2size(const char* str, ssize_t* pval)
{
    static_assert(sizeof(ssize_t) == sizeof(int64_t));
    int64_t val = 0;
    if (const int rc = a2int64(str, &val)) return rc;
    if (pval) *pval = static_cast<ssize_t>(val);
    return 0;
}

// ---- line ends, markers ---------------------------------------------------------------------------------------

void chomp(char* s)
{
    size_t len = strlen(s);
    // By design two at most: one line end in either convention, and never the empty lines in front of it.
    for (int i = 0; i < 2 && len > 0 && is_line_end(s[len - 1]); ++i)
        s[--len] = '\0';
}

size_t marker_count(const char* s, const char* marker)
{
    const size_t mlen = strlen(marker);
    if (0 == mlen) return 0;

    const bool has_number = ':' == marker[mlen - 1];
    size_t total = 0;
    while ((s = strstr(s, marker))) {
        s += mlen;
        total += has_number ? leading_number(s) : 1;
    }
    return total;
}

// ---- hexadecimal ----------------------------------------------------------------------------------------------

int sym2hex(int sym)
{
    constexpr char digits[] = "0123456789ABCDEF";
    if (sym <= 0 || sym > 0xFF) return 0; // the text's own zero would be found as a digit
    const char* p = strchr(digits, toupper(sym));
    return p ? static_cast<int>(p - digits) : 0;
}

size_t hex_to_bin(const char* str, uint8_t* out, size_t len)
{
    const auto value = [](char c) { return static_cast<unsigned>(sym2hex(static_cast<unsigned char>(c))); };
    size_t n = 0;
    for (; n < len && str[0] && str[1]; str += 2)
        out[n++] = static_cast<uint8_t>(value(str[0]) << 4 | value(str[1]));
    return n;
}

size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim)
{
    if (0 == slen) return 0;
    if (!delim) delim = "";
    const size_t dlen = strlen(delim);

    s[0] = '\0';
    s[slen - 1] = '\0';
    size_t n = 0;
    for (size_t left = slen; n < blen && left >= 3 + dlen; ++n) {
        (void)snprintf(s, left, "%02x%s", static_cast<unsigned>(bin[n]), delim);
        s += 2 + dlen;
        left -= 2 + dlen;
    }
    return n;
}

// ---- tags and macros ------------------------------------------------------------------------------------------

void mk_trk_tag(size_t* count, union n64_tag* tag, char pfx, size_t max)
{
    if (*count >= max) *count = 0;
    ++*count;

    tag->num = 0;
    tag->sym8[0] = pfx;
    const int n = snprintf(tag->sym8 + 1, sizeof(tag->sym8) - 1, "%lu", *count);
    assert(n > 0 && n <= (ssize_t)sizeof(tag->sym8) - 2);
}

int repl_ulm(char* buf, size_t len, const char* tag, u_long ul)
{
    const char* found = strstr(buf, tag);
    if (!found) return ULM_NONE;
    const size_t pos = static_cast<size_t>(found - buf);

    const text_ptr copy(strdup(buf));
    if (!copy) {
        perror("strdup");
        return ULM_NO_MEMORY;
    }
    char* head = copy.get();
    const char* rest = head + pos + strlen(tag);
    head[pos] = '\0';

    // By design 0 stands for "no number": the tag vanishes and leaves no digit.
    const int n = ul ? snprintf(buf, len, "%s%lu%s", head, ul, rest) : snprintf(buf, len, "%s%s", head, rest);
    return n < 0 || static_cast<size_t>(n) >= len ? ULM_NO_SPACE : 0;
}

int replace_ul_macro(char* buf, size_t len, const char* tag, u_long ul)
{
    int rc = 0;
    for (int i = 0; 0 == rc && i < ULM_MAX_REPLACED; ++i)
        rc = repl_ulm(buf, len, tag, ul);
    return ULM_NONE == rc ? 0 : rc;
}
