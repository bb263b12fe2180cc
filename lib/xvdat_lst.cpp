// xvlst, slots that keep their index. Data and taken map are two allocations that grow one after the other; the
// capacity is what both can hold, so that a map that could not follow leaves a smaller list and not a broken one.
#include "xvdat.h"

#include "log.h"
#include "syswrap.h"
#include "xvdat_int.h"

#include <sys/mman.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr uint32_t KNOWN_FLAGS = XV_ABORT_ENOMEM | XV_FIXED_SIZE | XV_MMAP;

void check([[maybe_unused]] const struct xvlst* l)
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(xvlst_validate(l));
#endif
}

struct xvdat_int::slots slots_of(const struct xvlst* l)
{
    return {.taken = l->taken, .count = l->len, .max = l->max_len, .last = l->last, .avail = l->avail};
}

// An empty list over memory that holds `count` blocks and their map.
struct xvlst fixed_list(void* mem, size_t count, size_t blksz)
{
    struct xvlst l = {};
    l.data = mem;
    l.max_len = count;
    l.flags = XV_FIXED_SIZE;
    l.taken = static_cast<char*>(mem) + count * blksz;
    return l;
}

// All walks of taken slots; `stop` tells whether a non-zero result ends one. `last` is read once; all else each time,
// since f may add, delete and reset.
int walk(struct xvlst* l, xv_visit_aux_t f, void* aux, bool stop, size_t* pos)
{
    int rc = 0;
    const size_t last = l->last;
    for (size_t i = 0; i <= last && l->data && i < l->max_len; ++i) {
        if (!l->taken[i]) continue;
        rc = f(l->data, i, aux);
        if (rc != 0 && stop) {
            if (pos) *pos = i;
            break;
        }
    }
    return rc;
}

// Where the lowest free slot is once `i`, which was it, has been taken.
ssize_t next_avail(const struct xvlst* l, size_t i)
{
    if (i == l->last) return i + 1 < l->max_len ? static_cast<ssize_t>(i + 1) : -1;
    return xvdat_int::find_free(l->taken, i + 1, l->max_len);
}

} // namespace

// ---- xvlst ----------------------------------------------------------------------------------------------------

int xvlst_bind(struct xvlst* l, void* buf, size_t buflen, size_t blksz)
{
    const size_t count = xvdat_int::slots_that_fit(buflen, blksz);
    if (count == 0) return -1;
    memset(buf, 0, count * blksz + count);
    *l = fixed_list(buf, count, blksz);
    check(l);
    return 0;
}

int xvlst_mmap_fixed(struct xvlst* l, size_t count, size_t blksz)
{
    size_t bytes = 0;
    if (blksz == SIZE_MAX || __builtin_mul_overflow(count, blksz + 1, &bytes)) bytes = SIZE_MAX;
    void* mem = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mem == MAP_FAILED) {
        const int err = errno;
        tv_log(ll::error, "%s: mmap(NULL, %lu, ..) ERROR(%d): %s\n", __func__, bytes, err, strerror(err));
        errno = err;
        return ENOMEM;
    }
    *l = fixed_list(mem, count, blksz);
    l->flags |= XV_MMAP;
    l->meta.num = static_cast<long>(blksz);
    return 0;
}

int xvlst_reserve(struct xvlst* l, size_t new_max, size_t blksz, size_t growblk)
{
    assert(l);
    if (new_max <= l->max_len) return 0;
    if ((l->flags & XV_FIXED_SIZE) != 0) return ERR_XV_FIXED;

    const size_t old_max = l->max_len;
    struct xvec head = {.data = l->data, .len = l->len, .max_len = old_max, .flags = l->flags};
    const int rc = xvec_reserve(&head, new_max, blksz, growblk);
    if (rc != 0) return rc;
    l->data = head.data;

    auto* taken = static_cast<char*>(W_realloc(__func__, l->taken, head.max_len));
    if (!taken) {
        if ((xvdat_flags & XV_ABORT_ENOMEM) != 0) abort();
        return -1; // the capacity stays what the map can hold
    }
    memset(taken + old_max, 0, head.max_len - old_max);
    l->taken = taken;
    l->max_len = head.max_len;
    if (l->avail < 0) l->avail = static_cast<ssize_t>(old_max);
    check(l);
    return 0;
}

int xvlst_expand(struct xvlst* l, size_t plus, size_t blksz, size_t growblk)
{
    return xvlst_reserve(l, plus > SIZE_MAX - l->len ? SIZE_MAX : l->len + plus, blksz, growblk);
}

ssize_t xvlst_add(struct xvlst* l, size_t blksz, size_t growblk)
{
    assert(l);
    if (l->max_len > 0) assert((0 == l->max_len) || (l->avail < (ssize_t)l->max_len));

    const int rc = xvlst_expand(l, 1, blksz, growblk);
    if (rc != 0) return rc;
    if (l->avail < 0) return -1;

    const auto i = static_cast<size_t>(l->avail);
    l->taken[i] = 1;
    if (i > l->last) l->last = i;
    l->avail = next_avail(l, i);
    if (i == l->last && l->avail >= 0) assert(0 == l->taken[l->avail]);
    ++l->len;
    check(l);
    return static_cast<ssize_t>(i);
}

int xvlst_del(struct xvlst* l, size_t index, xv_cleanup_t cleanup)
{
    if (index > l->last) return ERANGE;
    if (index >= l->max_len || !l->taken[index]) return EALREADY; // an empty list, too, has a `last` of 0
    l->taken[index] = 0;
    if (cleanup) cleanup(l->data, index);
    const auto freed = static_cast<ssize_t>(index);
    if (l->avail < 0 || l->avail > freed) l->avail = freed;
    assert(l->len);
    --l->len;
    check(l);
    return 0;
}

int xvlst_each(struct xvlst* l, xv_visit_t f, size_t* pos)
{
    assert(l && f);
    return walk(l, xvdat_int::call_visit, &f, pos != nullptr, pos);
}

int xvlst_each_aux(struct xvlst* l, void* aux, xv_visit_aux_t f, size_t* pos)
{
    assert(l && f);
    return walk(l, f, aux, pos != nullptr, pos);
}

int xvlst_find(struct xvlst* l, void* what, xv_visit_aux_t f, size_t* pos)
{
    assert(l && f);
    return walk(l, f, what, true, pos);
}

int xvlst_rmif(struct xvlst* l, void* udata, xv_visit_aux_t is_match, size_t* pos)
{
    int removed = 0;
    const size_t last = l->last;
    for (size_t i = 0; i <= last && l->data && i < l->max_len; ++i) {
        if (!l->taken[i] || is_match(l->data, i, udata) == 0) continue;
        if (xvlst_del(l, i, nullptr) != 0) {
            if (pos) *pos = i;
            return -1;
        }
        ++removed;
    }
    return removed;
}

void xvlst_purge_all(struct xvlst* l, xv_cleanup_t cleanup)
{
    assert(l);
    if (l->len == 0) return;
    assert(l->taken);
    for (size_t i = 0; cleanup && i <= l->last; ++i) {
        if (l->taken[i]) cleanup(l->data, i);
    }
    l->last = 0;
    l->len = 0;
    l->avail = l->max_len > 0 ? 0 : -1;
    memset(l->taken, 0, l->max_len);
    check(l);
}

void xvlst_reset(struct xvlst* l)
{
    if (!l) return;
    if ((l->flags & XV_FIXED_SIZE) == 0) {
        free(l->data);
        free(l->taken);
    }
    if ((l->flags & XV_MMAP) != 0) {
        const auto blksz = static_cast<size_t>(l->meta.num);
        assert(blksz);
        if (munmap(l->data, l->max_len * (blksz + 1)) != 0) {
            const int err = errno;
            tv_log(ll::panic, "%s: munmap(%p, %lu) ERROR(%d): %s\n", __func__, l->data, l->max_len * (blksz + 1), err,
                   strerror(err));
            abort();
        }
    }
    *l = {};
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool xvlst_validate(const struct xvlst* l)
{
    if (!l || (l->flags & ~KNOWN_FLAGS) != 0) return false;
    if ((l->flags & XV_MMAP) != 0 && ((l->flags & XV_FIXED_SIZE) == 0 || l->meta.num <= 0)) return false;
    // Without capacity there may be a first block already whose map could not be had.
    if (l->max_len == 0) return l->len == 0 && l->last == 0 && l->avail <= 0 && !l->taken;
    return l->data && l->taken && xvdat_int::slots_valid(slots_of(l));
}

void xvlst_dump(const struct xvlst* l, FILE* fp)
{
    if (!l) {
        (void)fprintf(fp, "list: none\n");
        return;
    }
    const bool valid = xvlst_validate(l);
    (void)fprintf(fp, "list %p, %s: %zu of %zu slots taken, last %zu, next free %zd%s%s\n", l->data,
                  valid ? "valid" : "INVALID", l->len, l->max_len, l->last, l->avail,
                  (l->flags & XV_FIXED_SIZE) != 0 ? ", fixed" : "", (l->flags & XV_MMAP) != 0 ? ", mapped" : "");
    if (valid) xvdat_int::slots_dump(slots_of(l), fp);
}
