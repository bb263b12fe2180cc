// emblst, slots inside one buffer of the caller's; and what the two kinds of slots have in common. All positions are
// counted from the list's own first byte, so that a copy of the bytes is a list.
#include "xvdat.h"

#include "log.h"
#include "xvdat_int.h"

#include <cassert>
#include <cerrno>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr auto HEAD_SIZE = static_cast<off_t>(sizeof(struct emblst));

// The taken map of a list, const or not.
char* taken_map(struct emblst* el)
{
    return el->data + (el->taken_offt - HEAD_SIZE);
}
const char* taken_map(const struct emblst* el)
{
    return el->data + (el->taken_offt - HEAD_SIZE);
}

void check([[maybe_unused]] const struct emblst* el)
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(emblst_validate(el));
#endif
}

struct xvdat_int::slots slots_of(const struct emblst* el)
{
    return {.taken = taken_map(el), .count = el->count, .max = el->max_count, .last = el->last, .avail = el->avail};
}

int walk(struct emblst* el, xv_visit_aux_t f, void* aux, size_t* pos)
{
    int rc = 0;
    const char* taken = taken_map(el);
    const size_t last = el->last;
    for (size_t i = 0; i <= last; ++i) {
        if (!taken[i]) continue;
        rc = f(el->data, i, aux);
        if (rc != 0 && pos) {
            *pos = i;
            break;
        }
    }
    return rc;
}

} // namespace

// ---- slots ----------------------------------------------------------------------------------------------------

ssize_t xvdat_int::find_free(const char* taken, size_t i, size_t max)
{
    const void* hit = memchr(taken + i, 0, max - i);
    return hit ? static_cast<const char*>(hit) - taken : -1;
}

size_t xvdat_int::slots_that_fit(size_t bytes, size_t blksz)
{
    // A slot costs its block and a byte of the map.
    return blksz == 0 || blksz == SIZE_MAX ? 0 : bytes / (blksz + 1);
}

int xvdat_int::call_visit(void* data, size_t i, void* aux)
{
    return (*static_cast<const xv_visit_t*>(aux))(data, i);
}

bool xvdat_int::slots_valid(const struct slots& s)
{
    if (s.count > s.max || s.last >= s.max) return false;
    size_t count = 0;
    for (size_t i = 0; i < s.max; ++i) {
        if (!s.taken[i]) continue;
        if (i > s.last) return false;
        ++count;
    }
    return count == s.count && s.avail == find_free(s.taken, 0, s.max);
}

void xvdat_int::slots_dump(const struct slots& s, FILE* fp)
{
    (void)fprintf(fp, "  taken:");
    for (size_t i = 0; i < s.max; ++i) {
        if (!s.taken[i]) continue;
        size_t end = i;
        while (end + 1 < s.max && s.taken[end + 1])
            ++end;
        if (end == i) {
            (void)fprintf(fp, " %zu", i);
        } else {
            (void)fprintf(fp, " %zu-%zu", i, end);
        }
        i = end;
    }
    (void)fprintf(fp, "%s\n", s.count == 0 ? " none" : "");
}

// ---- emblst ---------------------------------------------------------------------------------------------------

struct emblst* emblst_create(void* buf, size_t len, size_t blksz)
{
    assert(0 == ((u_long)buf % sizeof(long)));
    if (len < sizeof(struct emblst)) return nullptr;
    const size_t count = xvdat_int::slots_that_fit(len - sizeof(struct emblst), blksz);
    if (count < 1) return nullptr;
    const size_t taken_offt = sizeof(struct emblst) + count * blksz;
    assert((taken_offt + (size_t)count) <= len);

    memset(buf, 0, taken_offt + count);
    auto* el = static_cast<struct emblst*>(buf);
    el->max_count = count;
    el->flags = XV_FIXED_SIZE;
    el->taken_offt = static_cast<off_t>(taken_offt);
    check(el);
    return el;
}

ssize_t emblst_add(struct emblst* el)
{
    assert((0 == el->max_count) || (el->avail < (ssize_t)el->max_count));
    if (el->avail < 0) return -1;

    char* taken = taken_map(el);
    const auto i = static_cast<size_t>(el->avail);
    taken[i] = 1;
    if (i > el->last) el->last = i;
    if (i != el->last) {
        el->avail = xvdat_int::find_free(taken, i + 1, el->max_count);
    } else if (i + 1 < el->max_count) {
        el->avail = static_cast<ssize_t>(i + 1);
        assert(0 == taken[el->avail]);
    } else {
        el->avail = -1;
    }
    ++el->count;
    check(el);
    return static_cast<ssize_t>(i);
}

void* emblst_copy(const struct emblst* se, void* dst, size_t dstlen)
{
    const size_t srclen = static_cast<size_t>(se->taken_offt) + se->max_count;
    if (dstlen < srclen) {
        errno = EINVAL;
        return nullptr;
    }
    return memcpy(dst, se, srclen);
}

int emblst_del(struct emblst* el, size_t index, xv_cleanup_t cleanup)
{
    char* taken = taken_map(el);
    if (index > el->last) return ERANGE;
    if (!taken[index]) return EALREADY;
    taken[index] = 0;
    if (cleanup) cleanup(el->data, index);
    const auto freed = static_cast<ssize_t>(index);
    if (el->avail < 0 || el->avail > freed) el->avail = freed;
    assert(el->count);
    --el->count;
    check(el);
    return 0;
}

int emblst_each(struct emblst* el, xv_visit_t f, size_t* pos)
{
    assert(el && f);
    return walk(el, xvdat_int::call_visit, &f, pos);
}

int emblst_each_aux(struct emblst* el, void* aux, xv_visit_aux_t f, size_t* pos)
{
    assert(el && f);
    return walk(el, f, aux, pos);
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool emblst_validate(const struct emblst* el)
{
    if (!el || el->flags != XV_FIXED_SIZE || el->max_count == 0) return false;
    // The blocks lie between the head and the map, all of one size.
    const off_t blocks = el->taken_offt - HEAD_SIZE;
    if (blocks <= 0 || static_cast<size_t>(blocks) % el->max_count != 0) return false;
    return xvdat_int::slots_valid(slots_of(el));
}

void emblst_dump(const struct emblst* el, FILE* fp)
{
    if (!el) {
        (void)fprintf(fp, "embedded list: none\n");
        return;
    }
    const bool valid = emblst_validate(el);
    (void)fprintf(fp, "embedded list, %s: %zu of %zu slots taken, last %zu, next free %zd, map at %ld\n",
                  valid ? "valid" : "INVALID", el->count, el->max_count, el->last, el->avail,
                  static_cast<long>(el->taken_offt));
    if (valid) xvdat_int::slots_dump(slots_of(el), fp);
}
