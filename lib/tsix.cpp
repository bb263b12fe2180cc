// Index files: the stream file and its loads, handles, paths, debugging aids.
#include "tsix.h"

#include "fdio.h"
#include "log.h"
#include "mpegts.h"
#include "syswrap.h"
#include "tsix_int.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

using namespace tsix_int;

// Opens the stream file and takes its size. 0, or -1. `func` names the operation in the lines.
int open_stream(const char* func, struct tsix_ctx* t, const char* tspath)
{
    t->tsfd = W_open(func, tspath, O_RDONLY, 0);
    if (t->tsfd == -1) return -1;
    struct stat st;
    if (fstat(t->tsfd, &st) != 0) {
        const int err = errno;
        tv_log(ll::error, "%s: fstat(fd%d..) ERROR(%d): %s\n", func, t->tsfd, err, strerror(err));
        errno = err;
        return -1;
    }
    t->ts_size = static_cast<size_t>(st.st_size);
    return 0;
}

// Settles the sizes of load and record. 0, or -1 with errno EINVAL.
int set_sizes(const char* func, struct tsix_ctx* t, size_t rsize, size_t max_cached)
{
    t->max_cached = max_cached == 0 ? D_PLD_CACHED : max_cached;
    // Tested before the file's size counts: a small file is no reason to refuse.
    if (t->max_cached < MIN_PLD_CACHED) {
        tv_log(ll::error, "%s: minimum cache size = %d (>%zu)\n", func, static_cast<int>(MIN_PLD_CACHED),
               t->max_cached);
        errno = EINVAL;
        return -1;
    }
    t->max_cached = std::min(t->max_cached, t->ts_size);
    if (rsize != 0 && (rsize % TS_MIN_PKTSIZE != 0 || rsize >= t->max_cached)) {
        tv_log(ll::error, "%s: invalid payload-record size: %zu\n", func, rsize);
        errno = EINVAL;
        return -1;
    }
    t->rsize = rsize;
    if (t->max_cached % TS_MIN_PKTSIZE != 0) t->max_cached -= t->max_cached % (rsize != 0 ? rsize : TS_MIN_PKTSIZE);
    return 0;
}

// Asks for large pages behind a block: a load of ordinary ones takes longer to come into being than to be read.
void prefer_large_pages(uint8_t* block, size_t size)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t skip = (page - reinterpret_cast<uintptr_t>(block) % page) % page;
    // Advice that is not taken costs time alone.
    if (size > skip + page) (void)madvise(block + skip, (size - skip) / page * page, MADV_HUGEPAGE);
}

} // namespace

// ---- the context ----------------------------------------------------------------------------------------------

struct tsix_ctx* tsix_int::ts_open(const char* tspath, size_t rsize, size_t max_cached, uint32_t flags)
{
    auto* t = static_cast<struct tsix_ctx*>(W_calloc(__func__, 1, sizeof(struct tsix_ctx)));
    if (!t) {
        errno = ENOMEM;
        return nullptr;
    }
    t->flags = flags;
    t->tsfd = -1;
    t->ixfd = -1;
    t->last_pcr = P2_33;
    if (open_stream(__func__, t, tspath) != 0 || set_sizes(__func__, t, rsize, max_cached) != 0 ||
        ((flags & TSX_SKIPLOAD) == 0 && load_buf(t) != 0)) {
        destroy(__func__, t);
        return nullptr;
    }
    tv_log(ll::debug, "%s: (%p) created, size/cached=%zu/%zu\n", __func__, static_cast<void*>(t), t->ts_size,
           t->max_cached);
    return t;
}

int tsix_int::load_buf(struct tsix_ctx* t)
{
    assert(t->ts_size > 0 && t->tsfd >= 0);
    const off_t fpos = W_lseek(__func__, t->tsfd, 0, SEEK_CUR);
    if (fpos == -1) return -1;

    const size_t pos = static_cast<size_t>(fpos);
    const size_t left = t->ts_size > pos ? t->ts_size - pos : 0;
    if (left < TS_MIN_PKTSIZE) {
        tv_log(ll::error, "%s: (%p) only %zu bytes left %ld/%zu, skipping\n", __func__, static_cast<void*>(t), left,
               static_cast<long>(fpos), t->ts_size);
        return -1;
    }
    const size_t nbytes = std::min(t->max_cached, left);
    // By design: a stream file that does not come out in whole packets ends the process here, with its last load.
    assert(0 == (nbytes % TS_MIN_PKTSIZE));

    if (!t->buf) {
        t->buf = static_cast<uint8_t*>(W_calloc(__func__, 1, nbytes));
        if (!t->buf) return -1;
        t->buflen = nbytes;
        prefer_large_pages(t->buf, nbytes);
    }
    const ssize_t nrd = read_full(t->tsfd, {t->buf, nbytes});
    // What the read has not filled is cleared. Clearing all of it first would pass over the memory once more.
    const size_t filled = nrd > 0 ? static_cast<size_t>(nrd) : 0;
    memset(t->buf + filled, 0, t->buflen - filled);
    if (filled != nbytes) {
        tv_log(ll::error, "%s: (%p) expected/read: %zu/%zd\n", __func__, static_cast<void*>(t), nbytes, nrd);
        return -1;
    }
    t->ts_offset = fpos;
    t->pld_len = nbytes;
    t->is_eod = false; // the records may go on to the end of this load
    tv_log(ll::info, "%s: (%p) %zu bytes: fpos=%ld, plen=%zu\n", __func__, static_cast<void*>(t), nbytes,
           static_cast<long>(fpos), t->pld_len);
    return 0;
}

void tsix_int::destroy(const char* func, struct tsix_ctx* t)
{
    const int err = errno;
    if (t->tsfd >= 0) (void)W_close(func, t->tsfd); // logged there; all else is released all the same
    if (t->ixfd >= 0) (void)W_close(func, t->ixfd);
    free(t->ixbuf.ptr);
    free(t->buf);
    free(const_cast<char*>(t->ixpath)); // our own copy
    free(t);
    errno = err;
}

ssize_t tsix_int::read_full(int fd, std::span<uint8_t> dest)
{
    size_t done = 0;
    while (done < dest.size()) {
        const ssize_t n = nread(fd, reinterpret_cast<char*>(dest.data()) + done, dest.size() - done, FDIO_VERBOSE);
        if (n < 0) return n;
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

ssize_t tsix_int::write_full(int fd, std::span<const uint8_t> src)
{
    size_t done = 0;
    while (done < src.size()) {
        const ssize_t n = nwrite(fd, reinterpret_cast<const char*>(src.data()) + done, src.size() - done, FDIO_VERBOSE);
        if (n <= 0) return done > 0 ? static_cast<ssize_t>(done) : n;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

char* tsix_int::dup_path(const char* func, const char* path)
{
    const size_t size = strlen(path) + 1;
    auto* copy = static_cast<char*>(W_calloc(func, 1, size));
    if (copy) memcpy(copy, path, size);
    return copy;
}

// ---- building and playing -------------------------------------------------------------------------------------

int tsx_mkix(const char* tspath, const char* ixpath, size_t rsize, size_t max_cached, uint32_t flags)
{
    const text_ptr derived(ixpath ? nullptr : tsx_ixpath(tspath));
    if (!ixpath) ixpath = derived.get();
    if (!ixpath) return -1;

    struct tsix_ctx* t = ts_open(tspath, rsize, max_cached, flags);
    if (!t) return -1;
    const int rc = build_ix(t, ixpath);
    tsx_close(t);
    return rc == IX_NO_RATE ? -1 : rc;
}

tsix_t tsx_open(const char* tspath, const char* ixpath, size_t max_cached, uint32_t flags)
{
    const text_ptr derived(ixpath ? nullptr : tsx_ixpath(tspath));
    if (!ixpath) ixpath = derived.get();
    if (!ixpath) return nullptr;

    struct tsix_ctx* t = ts_open(tspath, 0, max_cached, flags | TSX_SKIPLOAD);
    if (!t) return nullptr;
    if (open_ix(t, ixpath) != 0) {
        destroy(__func__, t);
        return nullptr;
    }
    t->iter.is_ready = true;
    return t;
}

void tsx_close(tsix_t tsx)
{
    if (!tsx) return;
    const void* addr = tsx; // for the line alone
    destroy(__func__, tsx);
    tv_log(ll::debug, "%s: (%p) closed\n", __func__, addr);
}

tsix_t tsx_iter_open(struct tsix_stream* spec)
{
    const text_ptr ixpath(tsx_ixpath(spec->tspath));
    spec->tsx = ixpath ? tsx_open(spec->tspath, ixpath.get(), spec->max_cached, 0) : nullptr;
    if (!spec->tsx) {
        const int err = errno;
        tv_log(ll::error, "%s: tsx_open(%s, %s, %zu,..) failed\n", __func__, spec->tspath, ixpath ? ixpath.get() : "",
               spec->max_cached);
        errno = err;
    }
    return spec->tsx;
}

// ---- paths ----------------------------------------------------------------------------------------------------

char* tsx_ixpath(const char* tspath)
{
    constexpr char ext[] = "ix";
    const char* dot = strrchr(tspath, '.');
    if (!dot) {
        tv_log(ll::warning, "%s: no extension in [%s], skip\n", __func__, tspath);
        return nullptr;
    }
    const size_t stem = static_cast<size_t>(dot - tspath) + 1;
    auto* ixpath = static_cast<char*>(W_calloc(__func__, 1, stem + sizeof(ext)));
    if (!ixpath) return nullptr;
    memcpy(ixpath, tspath, stem);
    memcpy(ixpath + stem, ext, sizeof(ext));
    return ixpath;
}

bool tsx_has_ix(const char* tspath)
{
    const text_ptr ixpath(tsx_ixpath(tspath));
    bool has_ix = false;
    if (ixpath && access(tspath, R_OK) == 0) {
        tsix_t tsx = tsx_open(tspath, ixpath.get(), ONE_Mb, 0);
        has_ix = tsx != nullptr;
        tsx_close(tsx);
    }
    tv_log(ll::debug, "%s: [%s] has %s IX: [%s]\n", __func__, tspath, has_ix ? "" : "NO", ixpath ? ixpath.get() : "");
    return has_ix;
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool tsx_validate(const struct tsix_ctx* tsx)
{
    const struct tsix_ctx* t = tsx;
    if (!t || t->tsfd < 0 || (t->flags & ~(TSX_VARLEN | TSX_SKIPLOAD)) != 0) return false;
    if (t->rsize % TS_MIN_PKTSIZE != 0 || t->max_cached > t->ts_size) return false;
    if (t->icount > t->max_icount || (t->icount > 0 && !t->ixbuf.ptr)) return false;
    if ((t->buf == nullptr) != (t->buflen == 0) || t->pld_len > t->buflen || t->buflen > t->max_cached) return false;
    if (t->pld_len % TS_MIN_PKTSIZE != 0 || t->ts_offset < 0) return false;
    if (t->last_pcr > P2_33 || (t->last_pcr == P2_33) != (t->pcr_count == 0)) return false;
    if (t->iter.is_ready) {
        return t->ixfd >= 0 && t->ixpath && t->ixbuf.ptr && t->max_icount > 0 && t->icount == 0 &&
               t->max_icount <= t->header.irec_count && t->iter.start_idx <= t->iter.idx &&
               t->iter.idx <= t->header.irec_count && t->iter.bytes_out <= t->ts_size;
    }
    if (t->iter.idx != 0 || t->iter.bytes_out != 0 || t->header.irec_count != t->start_irec) return false;
    const auto runits = static_cast<ssize_t>(t->rsize / TS_MIN_PKTSIZE);
    if (runits > 0 && t->nix_pkt_count <= -runits) return false;
    return !t->is_eod || t->next_ix_offset >= static_cast<uint64_t>(t->ts_offset) + t->pld_len;
}

void tsix_int::require_valid(const struct tsix_ctx* t)
{
    tv_assert_logged(tsx_validate(t));
}

void tsx_dump(const struct tsix_ctx* tsx, FILE* out)
{
    if (!tsx) {
        (void)fprintf(out, "index: none\n");
        return;
    }
    const struct tsix_ctx& t = *tsx;
    (void)fprintf(out, "index [%s] fd%d of fd%d, %s, %s%s\n", t.ixpath ? t.ixpath : "", t.ixfd, t.tsfd,
                  t.iter.is_ready ? "open for reading" : "being built", tsx_validate(tsx) ? "valid" : "INVALID",
                  (t.flags & TSX_VARLEN) != 0 ? ", sizes in the records" : "");
    (void)fprintf(out, "  stream: %zu bytes, %zu cached; %zu at %ld in memory%s\n", t.ts_size, t.max_cached, t.pld_len,
                  static_cast<long>(t.ts_offset), t.is_eod ? ", all in records" : "");
    (void)fprintf(out, "  header: [%.4s] version %u, %u units, %" PRIu64 " records of %u bytes\n", t.header.magic,
                  unsigned{t.header.version}, unsigned{t.header.runits}, uint64_t{t.header.irec_count},
                  unsigned{t.header.irec_size});
    (void)fprintf(out, "  records: of %zu bytes; %zu written, %zu waiting, room for %zu; up to byte %" PRIu64 "\n",
                  t.rsize, t.start_irec, t.icount, t.max_icount, t.next_ix_offset);
    (void)fprintf(out, "  clock: %" PRIu64 ", %zd packets ahead; %zu PCRs, the first on PID %u, the last %" PRIu64,
                  t.last_sclk, t.nix_pkt_count, t.pcr_count, unsigned{t.pcr_pid}, t.last_pcr);
    (void)fprintf(out, " by %" PRIu64 " over %zu records%s\n", t.last_pcr_delta, t.last_nix_dgrams,
                  t.is_pre_pcr ? ", first records owed" : "");
    (void)fprintf(out, "  iterator: at record %zu, in memory from %zu on; clock %" PRIu64 ", %zu bytes out\n",
                  t.iter.idx, t.iter.start_idx, t.iter.old_sclk, t.iter.bytes_out);
}
