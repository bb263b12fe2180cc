// xvec, the growing array. The block size comes with each call, so a size that can't be had, product or sum over the
// top included, is handed to the allocator as the largest there is: it refuses, and there is one road for failure.
#include "xvdat.h"

#include "log.h"
#include "syswrap.h"
#include "xvdat_int.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

constinit u_int32_t xvdat_flags = 0;

namespace
{

constexpr uint32_t KNOWN_FLAGS = XV_ABORT_ENOMEM | XV_FIXED_SIZE | XV_MMAP;

// n rounded up to a multiple of step; SIZE_MAX where that can't be told.
constexpr size_t round_up(size_t n, size_t step)
{
    const size_t rest = n % step;
    if (rest == 0) return n;
    return n > SIZE_MAX - (step - rest) ? SIZE_MAX : n + (step - rest);
}
static_assert(round_up(0, 16) == 0 && round_up(1, 16) == 16 && round_up(16, 16) == 16 && round_up(17, 16) == 32);
static_assert(round_up(SIZE_MAX - 1, 16) == SIZE_MAX);

// Bytes of n blocks; SIZE_MAX where that can't be told, and for blocks of no size, of which there is no memory.
constexpr size_t run_bytes(size_t n, size_t blksz)
{
    return blksz == 0 || n > SIZE_MAX / blksz ? SIZE_MAX : n * blksz;
}
static_assert(run_bytes(3, 5) == 15 && run_bytes(SIZE_MAX / 2, 3) == SIZE_MAX && run_bytes(1, 0) == SIZE_MAX);

void check([[maybe_unused]] const struct xvec* v)
{
#if defined(KVT_DEEP_CHECKS)
    tv_assert_logged(xvec_validate(v));
#endif
}

// All walks. `len` is read once; `data` each time, since f may make the vector grow.
int walk(struct xvec* v, xv_visit_aux_t f, void* aux, size_t* pos)
{
    int rc = 0;
    const size_t len = v->len;
    for (size_t i = 0; i < len; ++i) {
        rc = f(v->data, i, aux);
        if (rc != 0 && pos) {
            *pos = i;
            break;
        }
    }
    return rc;
}

} // namespace

// ---- xvec -----------------------------------------------------------------------------------------------------

int xvec_bind(struct xvec* v, void* buf, size_t buflen, size_t blksz)
{
    const size_t count = blksz == 0 ? 0 : buflen / blksz;
    if (count == 0) return -1;
    memset(buf, 0, count * blksz);
    *v = {.data = buf, .len = 0, .max_len = count, .flags = XV_FIXED_SIZE};
    check(v);
    return 0;
}

int xvec_reserve(struct xvec* v, size_t new_max, size_t blksz, size_t growblk)
{
    assert(v && (growblk > 0));
    // By design equality goes on: the memory is reallocated at its size, and a fixed vector says that it is fixed.
    if (new_max < v->max_len) return 0;
    if ((v->flags & XV_FIXED_SIZE) != 0) return ERR_XV_FIXED;
    if (new_max == 0) return 0; // of no memory there is nothing to reallocate

    const size_t nblk = round_up(new_max, growblk);
    void* data = W_realloc(__func__, v->data, run_bytes(nblk, blksz));
    if (!data) {
        if ((xvdat_flags & XV_ABORT_ENOMEM) != 0) abort();
        return -1;
    }
    v->data = data;
    memset(static_cast<char*>(data) + v->max_len * blksz, 0, (nblk - v->max_len) * blksz);
    v->max_len = nblk;
    check(v);
    return 0;
}

int xvec_expand(struct xvec* v, size_t plus, size_t blksz, size_t growblk)
{
    assert(v && plus && blksz && growblk > 0);
    if ((v->flags & XV_FIXED_SIZE) != 0) return ERR_XV_FIXED;
    return xvec_reserve(v, plus > SIZE_MAX - v->len ? SIZE_MAX : v->len + plus, blksz, growblk);
}

ssize_t xvec_add(struct xvec* v, size_t blksz, size_t growblk)
{
    if ((v->flags & XV_FIXED_SIZE) != 0) {
        if (v->len >= v->max_len) return -1;
    } else if (xvec_expand(v, 1, blksz, growblk) != 0) {
        return -1;
    }
    const size_t i = v->len++;
    check(v);
    return static_cast<ssize_t>(i);
}

void xvec_reset(struct xvec* v)
{
    if (!v) return;
    if ((v->flags & XV_FIXED_SIZE) == 0) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

int xvec_each(struct xvec* v, xv_visit_t f, size_t* pos)
{
    assert(v && f);
    return walk(v, xvdat_int::call_visit, &f, pos);
}

int xvec_each_aux(struct xvec* v, xv_visit_aux_t f, void* aux, size_t* pos)
{
    assert(v && f);
    return walk(v, f, aux, pos);
}

int xvec_find(struct xvec* v, void* what, xv_visit_aux_t f, size_t* pos)
{
    assert(v && f);
    return walk(v, f, what, pos); // by design not like xvlst_find, which always stops
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool xvec_validate(const struct xvec* v)
{
    if (!v || (v->flags & ~KNOWN_FLAGS) != 0) return false;
    return v->len <= v->max_len && (v->data || v->max_len == 0);
}

void xvec_dump(const struct xvec* v, FILE* fp)
{
    if (!v) {
        (void)fprintf(fp, "vector: none\n");
        return;
    }
    (void)fprintf(fp, "vector %p, %s: %zu of %zu blocks in use%s\n", v->data, xvec_validate(v) ? "valid" : "INVALID",
                  v->len, v->max_len, (v->flags & XV_FIXED_SIZE) != 0 ? ", fixed" : "");
}
