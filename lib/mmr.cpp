// The ring's memory and its writer.
//
// The double mapping is made in three steps over one reserved span, so that no other mapping can slip in between
// its parts: first the whole span, then the mirror over its upper half, then the dead zone over its last page. The
// object behind it has a name only because a descriptor is what lets the same pages be mapped twice.
#include "mmr.h"

#include "dstream.h"
#include "log.h"
#include "mmr_int.h"
#include "syswrap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

namespace mmr_int
{
constinit uint32_t g_verbosity = 0;
} // namespace mmr_int

namespace
{

using mmr_int::deep_check;

constexpr size_t MIN_RING_SIZE = 1024;
constexpr mode_t OBJECT_MODE = 0600;
constexpr int DATA_PROT = PROT_READ | PROT_WRITE;
// Populated at once: the capture loop is to take no page faults on the ring.
constexpr int MAP_HOW = MAP_SHARED | MAP_POPULATE;

// Gives the ring's object its length and maps it. `func` names the public operation in the lines. 0, or the failed
// step's result; what has been mapped till then is left in `mr` for mmr_destroy.
int map_ring(const char* func, struct mm_ring* mr, size_t bufsz, size_t page_size)
{
    const size_t dead_zone_len = page_size;
    const size_t total_size = dead_zone_len + 2 * bufsz;
    const int rc = W_ftruncate(func, mr->sfd, static_cast<off_t>(total_size));
    if (rc != 0) return rc;

    void* span = mmap(nullptr, total_size, DATA_PROT, MAP_HOW, mr->sfd, 0);
    if (span == MAP_FAILED) {
        const int err = errno;
        tv_log(ll::error, "%s: mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", func, bufsz, mr->sfd, err, strerror(err));
        return EINVAL;
    }
    mr->buf = static_cast<uint8_t*>(span);
    mr->mm_len = total_size;

    uint8_t* ext = mr->buf + bufsz;
    if (mmap(ext, bufsz, DATA_PROT, MAP_HOW | MAP_FIXED, mr->sfd, 0) == MAP_FAILED) {
        const int err = errno;
        tv_log(ll::error, "%s: mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", func, static_cast<void*>(ext), bufsz,
               mr->sfd, err, strerror(err));
        return EINVAL;
    }
    uint8_t* ddz = ext + bufsz;
    if (mmap(ddz, dead_zone_len, PROT_NONE, MAP_HOW | MAP_FIXED, mr->sfd, static_cast<off_t>(bufsz)) == MAP_FAILED) {
        const int err = errno;
        tv_log(ll::error, "%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", func, static_cast<void*>(ddz),
               dead_zone_len, mr->sfd, err, strerror(err));
        return EINVAL;
    }
    // Only now: until all parts exist, mmr_destroy is to see the one whole span and nothing else.
    mr->ddz = ddz;
    mr->ddz_len = dead_zone_len;
    mr->ext = ext;
    mr->buflen = bufsz;
    mr->pld_pos = -1;
    mr->pld_size = 0;
    mr->is_ready = true;
    return 0;
}

} // namespace

// ---- memory ---------------------------------------------------------------------------------------------------

int mmr_create(mmr_t* pring, size_t bufsz)
{
    static int g_mmr_count = 0; // rings made by this process: the last number of a name

    auto* mr = static_cast<struct mm_ring*>(W_calloc(__func__, 1, sizeof(struct mm_ring)));
    if (!mr) return ENOMEM;
    const auto SYS_PAGE_SIZE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

    tv_assert_logged(pring && bufsz >= MIN_RING_SIZE);
    tv_assert_logged(bufsz % SYS_PAGE_SIZE == 0);

    ++g_mmr_count;
    const int n =
        snprintf(mr->sname, sizeof(mr->sname) - 1, "/mmr.%u.%d", static_cast<unsigned>(getpid()), g_mmr_count);
    // By design: these two returns keep the handle. It has nothing that mmr_destroy may release, least of all the
    // name, which belongs to somebody else when shm_open finds it taken.
    if (n < 1 || n > static_cast<int>(sizeof(mr->sname)) - 1) return EINVAL;
    mr->sfd = shm_open(mr->sname, O_RDWR | O_CREAT | O_EXCL, OBJECT_MODE);
    if (mr->sfd < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: shm_open(%s) ERROR(%d): %s\n", __func__, mr->sname, err, strerror(err));
        return EINVAL;
    }

    const int rc = map_ring(__func__, mr, bufsz, SYS_PAGE_SIZE);
    if (rc != 0) {
        mmr_destroy(mr);
        return rc;
    }
    tv_log(ll::debug, "%s: %s OK\n", __func__, mr->sname);
    *pring = mr;
    return 0;
}

void mmr_destroy(mmr_t ring)
{
    struct mm_ring* mr = ring;
    if (mr->ddz && mr->ddz_len) {
        if (munmap(mr->ddz, mr->ddz_len) != 0) {
            const int err = errno;
            tv_log(ll::error, "%s: DDZ [%s] munmap(%p, ..) ERROR(%d): %s\n", __func__, mr->sname, mr->ddz, err,
                   strerror(err));
        }
        mr->ddz = nullptr;
        mr->ddz_len = 0;
    }
    if (mr->ext) {
        if (munmap(mr->ext, mr->buflen) != 0) {
            const int err = errno;
            tv_log(ll::error, "%s: EXT [%s] munmap(%p, ..) ERROR(%d): %s\n", __func__, mr->sname,
                   static_cast<void*>(mr->ext), err, strerror(err));
        }
        mr->ext = nullptr;
    }
    if (mr->buf && mr->mm_len) {
        // By design: the whole span, released parts included. A half-made ring has all its memory here.
        if (munmap(mr->buf, mr->mm_len) != 0) {
            const int err = errno;
            tv_log(ll::error, "%s: BUF [%s] munmap(%p, ..) ERROR(%d): %s\n", __func__, mr->sname,
                   static_cast<void*>(mr->buf), err, strerror(err));
        }
        mr->buf = nullptr;
        mr->buflen = 0;
    }
    if (mr->sfd > 0) {                    // By design: descriptor 0 counts as none.
        (void)W_close(__func__, mr->sfd); // logged there; the rest is released all the same
        mr->sfd = -1;
    }
    if (mr->sname[0] != '\0') {
        if (shm_unlink(mr->sname) != 0) {
            const int err = errno;
            tv_log(ll::error, "%s: shm_unlink(%s) ERROR(%d): %s\n", __func__, mr->sname, err, strerror(err));
        }
        mr->sname[0] = '\0';
    }
    free(mr);
}

// ---- writer ---------------------------------------------------------------------------------------------------

uint8_t* mmr_iget(mmr_t ring, struct mm_point* pt)
{
    const struct mm_ring* mr = ring;
    const deep_check check(mr);
    if (mr->pld_size >= mr->buflen) return nullptr;

    const auto buflen = static_cast<off_t>(mr->buflen);
    pt->pos = mr->pld_pos < 0 ? 0 : mr->pld_pos + static_cast<off_t>(mr->pld_size);
    if (pt->pos >= buflen) pt->pos -= buflen;
    pt->len = mr->buflen - mr->pld_size;
    tv_assert_logged(pt->pos >= 0 && pt->pos < buflen);
    return mr->buf + pt->pos;
}

int mmr_iput(mmr_t ring, struct mm_point* pt)
{
    return mmr_iput_ex(ring, pt, false);
}

int mmr_iput_ex(mmr_t ring, struct mm_point* pt, bool is_dgram)
{
    struct mm_ring* mr = ring;
    const deep_check check(mr);
    const uint32_t flags = is_dgram ? DS_DGRAM_BUF : 0;

    // The sum is not formed before it is known to fit: a wild length must not wrap past the test.
    tv_assert_logged(pt->len <= mr->buflen - mr->pld_size);
    mr->pld_size += pt->len;
    tv_assert_logged(mr->pld_size <= mr->buflen);
    if (mr->pld_pos >= 0) return 0;
    return mmr_int::mmr_detect_first(mr, pt, flags);
}

void mmr_set_verbosity(uint32_t level)
{
    mmr_int::g_verbosity = level;
}

void mmr_get_opt(mmr_t ring, struct mm_opt* opt)
{
    const deep_check check(ring);
    *opt = ring->opt;
}

void mmr_set_opt(mmr_t ring, const struct mm_opt* opt)
{
    const deep_check check(ring);
    ring->opt = *opt;
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool mmr_validate(const struct mm_ring* ring)
{
    const struct mm_ring* mr = ring;
    if (!mr || !mr->is_ready || !mr->buf || mr->buflen < MIN_RING_SIZE) return false;
    if (mr->ext != mr->buf + mr->buflen || mr->ddz != mr->ext + mr->buflen) return false;
    if (mr->ddz_len == 0 || mr->mm_len != 2 * mr->buflen + mr->ddz_len) return false;
    if (mr->sfd < 0 || mr->sname[0] != '/' || !memchr(mr->sname, '\0', sizeof(mr->sname))) return false;
    if (mr->pld_size > mr->buflen) return false;
    if (mr->first_pktnum < 0 || mr->first_pktnum > mr->last_pktnum) return false;
    if (mr->pld_pos == -1) return mr->ts_len == 0 && mr->synced_len == 0;
    if (mr->synced_len > mr->pld_size || (mr->ts_len != 0 && mr->synced_len % mr->ts_len != 0)) return false;
    return mr->pld_pos >= 0 && mr->pld_pos <= static_cast<off_t>(mr->buflen) && mr->stype.num != 0 && mr->ts_len != 0;
}

void mmr_int::require_valid(const struct mm_ring* mr)
{
    tv_assert_logged(mmr_validate(mr));
}

void mmr_dump(const struct mm_ring* ring, FILE* fp)
{
    if (!ring) {
        (void)fprintf(fp, "ring: none\n");
        return;
    }
    const struct mm_ring& r = *ring;
    (void)fprintf(fp, "ring [%s] fd%d, %s, %s\n", r.sname, r.sfd, r.is_ready ? "ready" : "half-made",
                  mmr_validate(ring) ? "valid" : "INVALID");
    (void)fprintf(fp, "  memory: buf %p, %zu bytes; mirror %p; dead zone %p, %zu bytes; %zu bytes mapped\n",
                  static_cast<void*>(r.buf), r.buflen, static_cast<void*>(r.ext), r.ddz, r.ddz_len, r.mm_len);
    (void)fprintf(fp, "  stream: [%.4s] unit %zu bytes%s\n", r.stype.sym, r.ts_len,
                  r.opt.no_mtu_pack ? ", unpacked" : "");
    (void)fprintf(fp, "  payload: %zu bytes at %ld, %zu seen in sync\n", r.pld_size, static_cast<long>(r.pld_pos),
                  r.synced_len);
    (void)fprintf(fp, "  packets: %s, %ld up to %ld\n", r.using_pktnums ? "numbered" : "not numbered",
                  static_cast<long>(r.first_pktnum), static_cast<long>(r.last_pktnum));
}
