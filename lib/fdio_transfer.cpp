// The transfer engine. A step keeps its account in one record, which goes by the means that does the work; what every
// step has in common stands around it: the size before, and after it the offset, the flags, and what became of an
// error. `errno` is 0 when a step begins and is read where a means has ended, so that nothing in between may change it
// without need; lines are therefore logged behind an errno_keeper.
#include "fdio.h"

#include "fdio_int.h"
#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "tsix.h"
#include "util.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

TV_LOG_MODULE(4)

constinit struct trfbuf g_trf = {};

namespace
{

// Keeps errno as it is to the end of the block.
struct [[nodiscard]] errno_keeper {
    const int err = errno;
    errno_keeper() = default;
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
    ~errno_keeper() { errno = err; }
};

// The account of one step.
struct step {
    size_t nbytes = 0;           // what it is to move
    ssize_t nrd = 0;             // read
    ssize_t nwr = 0;             // written
    ssize_t ntotal = 0;          // moved
    int err = 0;                 // error number, or a filter's result
    bool offset_updated = false; // the call has moved the offset itself
};

constexpr char overflow_warning[] =
    "%s: attempt to reach over the end of buffer: buf=%p, len=%ld, offset=%ld, count=%ld - new_count=%ld\n";

// True if *offset stands in the mapping or right behind it.
bool is_in_mapping(const struct transfer_spec* tsp)
{
    return *tsp->offset >= 0 && static_cast<size_t>(*tsp->offset) <= tsp->mmlen;
}

// Cuts a count to what is left of the mapping at *offset; false if that is nothing. By design the end of a mapping is a
// warning, not the end of a source. A count of 0 is left to whoever moves the bytes.
bool cut_to_mapping(const char* caller, const struct transfer_spec* tsp, size_t* count)
{
    tv_assert_logged(tsp->offset);
    const off_t offset = *tsp->offset;
    const size_t left = is_in_mapping(tsp) ? tsp->mmlen - static_cast<size_t>(offset) : 0;
    if (is_in_mapping(tsp) && *count <= left) return true;
    const errno_keeper keep;
    tv_log(ll::warning, overflow_warning, caller, tsp->mmem, static_cast<long>(tsp->mmlen), static_cast<long>(offset),
           static_cast<long>(*count), static_cast<long>(left));
    *count = left;
    return left > 0;
}

char* mapped_at_offset(const struct transfer_spec* tsp)
{
    return static_cast<char*>(tsp->mmem) + *tsp->offset;
}

// Limits a step to what the transfer buffer holds, whatever the means: no step keeps the process for long.
size_t step_size(size_t count)
{
    return count == 0 || count > g_trf.buflen ? g_trf.buflen : count;
}

// The size of a paced step. False at the end of the file, and where the index fails (errno tells them apart).
bool pace(struct tsix_stream* ix, size_t* nbytes, size_t* delay_usc)
{
    if (ix->o_left > 0) {
        *delay_usc = 0;
    } else {
        size_t usec = 0;
        const ssize_t seglen = tsx_next(ix->tsx, ix->max_io_bytes, ix->max_io_delay, &usec);
        if (seglen <= 0) {
            errno = seglen < 0 ? EIO : 0;
            return false;
        }
        errno = 0;
        *delay_usc += usec;
        ix->o_left = seglen;
        (void)clock_gettime(CLOCK_MONOTONIC, &ix->last_otime); // can't fail for this clock
    }
    *nbytes = static_cast<size_t>(ix->o_left);
    // Without a buffer there is only the mapping, which has the chunk at hand.
    if (g_trf.buflen > 0) *nbytes = step_size(*nbytes);
    return true;
}

// Has the filter look at what was read. False if it fails the step.
bool filter(const struct transfer_spec* tsp, char* data, struct step* s)
{
    s->err = tsp->inproc(data, s->nrd, &s->ntotal);
    return s->err == 0;
}

void by_mapping(struct transfer_spec* tsp, struct step* s)
{
    if (tsp->mmem_out) {
        s->nrd = static_cast<ssize_t>(s->nbytes); // by design, whatever is left of the mapping
        s->nwr = s->ntotal = fdio_int::mm_out(tsp, s->nbytes);
    } else {
        s->nrd = fdio_int::mm_in(tsp, s->nbytes);
        s->ntotal = s->nrd;
        // The filter is told of the end, too, by a length of 0; of a failed read there is nothing to tell it.
        if (tsp->inproc && errno == 0) {
            s->ntotal = 0;
            if (!filter(tsp, is_in_mapping(tsp) ? mapped_at_offset(tsp) : nullptr, s)) return;
        }
        s->nwr = s->ntotal;
    }
    s->err = errno;
}

void by_sendfile(struct transfer_spec* tsp, struct step* s)
{
    s->ntotal = nsendfile(tsp->out_fd, tsp->in_fd, tsp->offset, s->nbytes, 0, *tsp->flags);
    // By design a failure ends the source, too, and its error number is let go.
    if (s->ntotal == 0) *tsp->flags |= FDIO_EOF;
    s->offset_updated = true;
    s->nrd = s->nwr = s->ntotal;
    tv_log(ll::debug, "%s: sent %zu/%zu bytes using sendfile\n", "transfer", static_cast<size_t>(s->ntotal), s->nbytes);
}

void by_buffer(struct transfer_spec* tsp, struct step* s)
{
    s->nrd = fdio_int::transfer_in(tsp, tsp->offset ? *tsp->offset : -1, g_trf.buf, s->nbytes);
    if (s->nrd <= 0) {
        s->err = errno;
        return;
    }
    if (tsp->inproc) {
        const ssize_t max_left = s->nrd;
        if (!filter(tsp, g_trf.buf, s)) return;
        tv_assert_logged(s->ntotal >= 0 && s->ntotal <= max_left);
        s->nrd = s->ntotal;
    }
    s->nwr = fdio_int::transfer_out(tsp, g_trf.buf, static_cast<size_t>(s->nrd));
    if (s->nwr <= 0) s->err = errno;
    s->ntotal = s->nwr < 0 ? 0 : s->nwr;
}

void move_bytes(struct transfer_spec* tsp, struct step* s)
{
    // A mapping goes before sendfile.
    if (tsp->mmem) return by_mapping(tsp, s);
    tv_assert_logged(g_trf.buf);
    if (*tsp->flags & FDIO_SENDFILE) return by_sendfile(tsp, s);
    by_buffer(tsp, s);
}

// What a step leaves in offset, flags and log. Its error, 0 if that is forgiven.
int settle(struct transfer_spec* tsp, size_t count, const struct step& s)
{
    int err = s.err;
    if (err == 0 && (*tsp->flags & FDIO_TRF_RWEQ) && s.nwr != s.nrd)
        tv_log(ll::error, "%s: fd in/out=[%d/%d] mismatch: read/write=[%ld/%ld]\n", "transfer", tsp->in_fd, tsp->out_fd,
               static_cast<long>(s.nrd), static_cast<long>(s.nwr));
    if (tsp->offset && !s.offset_updated) *tsp->offset += s.ntotal;
    if (err == 0 && s.nrd == 0) *tsp->flags |= FDIO_EOF;
    if (err != 0 && no_fault(err, *tsp->flags & FDIO_VERBOSE) == 0) {
        (void)fdio_int::trf_err_summary(err, tsp->out_fd, tsp->in_fd, count, *tsp->flags); // its result is err
        err = fdio_int::trf_err_correct(err, *tsp->flags);
    }
    errno = err;
    const errno_keeper keep;
    tv_log(ll::debug, "%s: %d->%d [r%ld/w%ld  %ld bytes], flags=0x%lx\n", "transfer", tsp->in_fd, tsp->out_fd,
           static_cast<long>(s.nrd), static_cast<long>(s.nwr), static_cast<long>(s.ntotal),
           static_cast<unsigned long>(*tsp->flags));
    return err;
}

} // namespace

// ---- the pieces of a step --------------------------------------------------------------------------------------

ssize_t fdio_int::transfer_in(struct transfer_spec* tsp, off_t offset, char* dst, size_t count)
{
    const ssize_t rc =
        offset < 0 ? nread(tsp->in_fd, dst, count, *tsp->flags) : npread(tsp->in_fd, dst, count, offset, *tsp->flags);
    if (rc <= 0) *tsp->flags |= FDIO_ERR_READ;
    return rc;
}

ssize_t fdio_int::transfer_out(struct transfer_spec* tsp, const char* src, size_t count)
{
    tv_assert_logged(count != 0);
    ssize_t rc;
    if (*tsp->flags & FDIO_SENDTO) {
        psensor_start(PRF_DATAOUT);
        rc = W_sendto(__func__, tsp->out_fd, src, count, MSG_NOSIGNAL, static_cast<const struct sockaddr*>(tsp->aux),
                      static_cast<socklen_t>(tsp->aux_len));
        psensor_stop(PRF_DATAOUT);
    } else {
        rc = nwrite(tsp->out_fd, src, count, *tsp->flags);
    }
    if (rc == -1) {
        *tsp->flags |= FDIO_ERR_WRITE;
        return rc;
    }
    const errno_keeper keep;
    tv_log(ll::debug, "%s: [%p] +%lu -> fd%d\n", __func__, static_cast<const void*>(src),
           static_cast<unsigned long>(rc), tsp->out_fd);
    return rc;
}

ssize_t fdio_int::mm_in(struct transfer_spec* tsp, size_t count)
{
    if (!cut_to_mapping(__func__, tsp, &count)) return 0;
    const ssize_t rc = transfer_in(tsp, -1, mapped_at_offset(tsp), count);
    return rc > 0 ? rc : 0;
}

ssize_t fdio_int::mm_out(struct transfer_spec* tsp, size_t count)
{
    if (!cut_to_mapping(__func__, tsp, &count)) return 0;
    const ssize_t rc = transfer_out(tsp, mapped_at_offset(tsp), count);
    return rc > 0 ? rc : 0;
}

int fdio_int::trf_err_correct(int err, uint32_t flags)
{
    if ((flags & FDIO_ERR_WRITE) && (err == EPIPE || (err == EBUSY && (flags & FDIO_SENDFILE)))) return 0;
    return is_eagain(err) ? 0 : err;
}

int fdio_int::trf_err_summary(int err, int dfd, int sfd, size_t count, uint32_t flags)
{
    const char* where = "???";
    if (flags & FDIO_EOF) {
        // By design the side that failed is not told at the end of a source.
        tv_log(ll::debug, "transfer [%lu bytes] (%d<-%d) end of stream\n", static_cast<unsigned long>(count), dfd, sfd);
    } else if (flags & FDIO_ERR_READ) {
        where = "read";
    } else if (flags & FDIO_ERR_WRITE) {
        where = "write";
    }
    tv_log(ll::error, "transfer (%d->%d, %ld bytes) %s ERROR(%d): %s\n", sfd, dfd, static_cast<long>(count), where, err,
           strerror(err));
    return err;
}

// ---- reads and writes ------------------------------------------------------------------------------------------

ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int /*bsd_flags*/, uint32_t flags)
{
    tv_assert_logged(offset);
    ssize_t rc = 0;
    while (count != 0) {
        psensor_start(PRF_DATAOUT);
        rc = W_sendfile_f(__func__, out_fd, in_fd, offset, count, flags & FDIO_VERBOSE);
        psensor_stop(PRF_DATAOUT);
        if (rc >= 0 || errno != EINTR) break;
        errno = 0;
        if (g_quit) break;
    }
    return rc > 0 ? rc : 0;
}

// ---- the transfer buffer ---------------------------------------------------------------------------------------

int fdio_init(ssize_t bufsize)
{
    if (bufsize == -1) return set_trf_bufsize(D_TRF_BUFSIZE);
    if (bufsize <= 0) return 0;
    return set_trf_bufsize(static_cast<size_t>(bufsize));
}

void fdio_destroy()
{
    if (!g_trf.buf) return;
    tv_assert_logged(g_trf.buflen > 0);
    free(g_trf.buf);
    g_trf = {};
}

size_t get_trf_bufsize()
{
    return g_trf.buflen;
}

int set_trf_bufsize(size_t newsize)
{
    if (newsize == g_trf.buflen) {
        tv_log(ll::warning, "%s: transfer buffer size remains %ld bytes.\n", __func__, static_cast<long>(newsize));
        return 0;
    }
    if (newsize < MIN_TRF_BUFSIZE) {
        tv_log(ll::error, "%s: transfer buffer size cannot be less than %ld bytes.\n", __func__,
               static_cast<long>(MIN_TRF_BUFSIZE));
        return -1;
    }
    void* const mem = W_realloc(__func__, g_trf.buf, newsize);
    if (!mem) {
        tv_log(ll::error, "%s: failed to allocate %ld bytes for transfer buffer.\n", __func__,
               static_cast<long>(newsize));
        return -1;
    }
    g_trf = {static_cast<char*>(mem), newsize};
    tv_log(ll::debug, "%s: FDIO internal buffer size = %ld bytes.\n", __func__, static_cast<long>(newsize));
    return 0;
}

// ---- transfers -------------------------------------------------------------------------------------------------

struct transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux,
                                        ssize_t aux_len)
{
    auto* const tsp = static_cast<struct transfer_spec*>(W_calloc(__func__, 1, sizeof(struct transfer_spec)));
    if (!tsp) return nullptr;
    tsp->in_fd = in_fd;
    tsp->out_fd = out_fd;
    tsp->offset = offset;
    tsp->flags = flags;
    tsp->aux = aux;
    tsp->aux_len = aux_len;
    if (*flags & FDIO_SENDFILE)
        tv_log(ll::info, "%s(%p): SENDFILE on for fd%d<-fd%d\n", __func__, static_cast<void*>(tsp), out_fd, in_fd);
    return tsp;
}

int transfer(struct transfer_spec* tsp, size_t count, ssize_t* tbytes, size_t* delay_usc)
{
    *tsp->flags &= FDIO_REQUEST_MASK;
    if (tbytes) *tbytes = 0;
    errno = 0;
    struct step s;
    s.nbytes = step_size(count);
    if (tsp->ix && delay_usc && !pace(tsp->ix, &s.nbytes, delay_usc)) return -1;
    move_bytes(tsp, &s);
    const int err = settle(tsp, count, s);
    if (tsp->ix && tsp->ix->o_left > 0) {
        tsp->ix->o_left -= s.ntotal;
        assert(tsp->ix->o_left >= 0);
    }
    if (tbytes) *tbytes = s.ntotal;
    return err != 0 ? -1 : 0;
}

// ---- debugging aids --------------------------------------------------------------------------------------------

bool transfer_validate(const struct transfer_spec* tsp)
{
    if ((g_trf.buf != nullptr) != (g_trf.buflen > 0)) return false;
    if (!tsp) return true;
    if (!tsp->flags || (tsp->mmem && (tsp->mmlen == 0 || !tsp->offset))) return false;
    if ((*tsp->flags & FDIO_SENDTO) && (!tsp->aux || tsp->aux_len <= 0)) return false;
    if ((*tsp->flags & FDIO_SENDFILE) && !tsp->offset) return false;
    return !tsp->ix || (tsp->ix->tsx && tsp->ix->o_left >= 0);
}

void transfer_dump(const struct transfer_spec* tsp, FILE* out)
{
    (void)fprintf(out, "transfer %p: fd%d -> fd%d\n", static_cast<const void*>(tsp), tsp->in_fd, tsp->out_fd);
    if (tsp->offset) (void)fprintf(out, "  offset %ld\n", static_cast<long>(*tsp->offset));
    if (tsp->flags) (void)fprintf(out, "  flags 0x%lx\n", static_cast<unsigned long>(*tsp->flags));
    if (tsp->aux) (void)fprintf(out, "  address of %ld bytes at %p\n", static_cast<long>(tsp->aux_len), tsp->aux);
    if (tsp->mmem)
        (void)fprintf(out, "  %s a mapping of %zu bytes at %p\n", tsp->mmem_out ? "from" : "to", tsp->mmlen, tsp->mmem);
    if (tsp->inproc) (void)fprintf(out, "  with a filter\n");
    if (tsp->ix)
        (void)fprintf(out, "  paced by [%.*s]: chunks of up to %zu bytes and %zu ms, %ld bytes left of the last\n",
                      static_cast<int>(TSX_PATH_MAX), tsp->ix->tspath, tsp->ix->max_io_bytes, tsp->ix->max_io_delay,
                      static_cast<long>(tsp->ix->o_left));
    (void)fprintf(out, "  transfer buffer of %zu bytes at %p\n", g_trf.buflen, static_cast<void*>(g_trf.buf));
}
