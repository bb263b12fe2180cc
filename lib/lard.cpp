// Ring logs: writing, reading, temperature, the state of the owner.
//
// Thanks to the overlay a text is written where the last one ended without any thought of the ring's end. The record
// is changed only after the text is there, so that a reader, or a crash, never finds a line that is not yet written.
// What a reader finds in the record was written by another process, which may have gone wrong: it is held against the
// ring's size before it is used.
#include "lard_int.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <numeric>

namespace
{

// Keeps signal handlers off while the record is halfway between two states; a handler finds out by entered().
struct [[nodiscard]] writing_scope {
    struct lard_ctx* lc;
    const bool interrupts = lc->is_writing != 0;

    explicit writing_scope(struct lard_ctx* handle) : lc(handle) { lc->is_writing = 1; }
    ~writing_scope()
    {
        if (!interrupts) lc->is_writing = 0;
    }
    bool entered() const { return !interrupts; }
    writing_scope(const writing_scope&) = delete;
    writing_scope& operator=(const writing_scope&) = delete;
};

char* write_position(const struct lard_ctx* lc)
{
    return lc->dbuf.data + (lc->meta->pld_start + lc->meta->pld_len) % lc->buflen;
}

// Whether a text of n characters fits, with its terminator and one byte of the past.
bool has_room(const struct lard_ctx* lc, size_t n)
{
    return n > 0 && n < lc->buflen && n <= INT_MAX;
}

void set_temp(struct lard_ctx* lc, int temp)
{
    struct lard_meta* m = lc->meta;
    const size_t slot = m->sns.idx % MAX_SNS;
    // Unsigned: a sum that passes the largest int shows as a negative one.
    m->sns.sum = static_cast<int>(static_cast<unsigned>(m->sns.sum) - static_cast<unsigned>(m->sns.val[slot]) +
                                  static_cast<unsigned>(temp));
    assert(m->sns.sum >= 0);
    m->sns.val[slot] = temp;
    m->sns.idx = (slot + 1) % MAX_SNS;
}

// Counts in the n bytes that stand at the write position.
int publish(struct lard_ctx* lc, size_t n)
{
    struct lard_meta* m = lc->meta;
    size_t start = m->pld_start;
    size_t len = m->pld_len;
    if (len == lc->buflen) {
        start += n;
    } else {
        len += n;
    }
    if (len > lc->buflen) {
        start += len % lc->buflen;
        len = lc->buflen;
    }
    lard_int::store_size(&m->pld_len, len);
    lard_int::store_size(&m->pld_start, start % lc->buflen);
    struct timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0) m->write_tm = now;
    set_temp(lc, 0);
    return static_cast<int>(n);
}

// Opens a writing call: false in a signal handler that has interrupted another one.
bool may_write(const struct lard_ctx* lc, const writing_scope& scope)
{
    assert(!lc->dbuf.is_reader);
    if (!scope.entered()) return false;
#ifdef KVT_DEEP_CHECKS
    assert(lard_validate(lc));
#endif
    return true;
}

// The owner's mark. What another process left in that byte need not be a bool, so it is read as the byte that it is.
bool is_marked_closed(const struct lard_meta* m)
{
    unsigned char mark = 0;
    memcpy(&mark, &m->is_closed, sizeof(mark));
    return mark != 0;
}

// Copies n bytes of the ring from a position on.
void copy_out(const struct lard_view& v, size_t from, char* buf, size_t n)
{
    const size_t ahead = std::min(n, v.buflen - from);
    memcpy(buf, v.data + from, ahead);
    memcpy(buf + ahead, v.data, n - ahead);
}

// True if the text that the reader has seen last still is what stands ahead of its place. `fresh` is the number of
// bytes that seem to have come since; what they have overwritten is no witness.
bool is_in_place(const struct lard_view& v, const struct lard_cursor& cur, size_t fresh)
{
    if (cur.tail_len == 0) return v.len < v.buflen; // the ring was empty: a full one has gone past its first byte
    const size_t n = std::min(cur.tail_len, v.buflen - 1 - fresh);
    char now[LARD_TAIL_MAX];
    copy_out(v, (cur.end + v.buflen - n) % v.buflen, now, n);
    return memcmp(now, cur.tail + (cur.tail_len - n), n) == 0;
}

// Notes the last bytes of what the reader has seen: the old tail, then `text`.
void note_tail(struct lard_cursor* cur, const char* text, size_t n)
{
    const size_t fresh = std::min(n, LARD_TAIL_MAX);
    const size_t kept = std::min(cur->tail_len, LARD_TAIL_MAX - fresh);
    memmove(cur->tail, cur->tail + (cur->tail_len - kept), kept);
    memcpy(cur->tail + kept, text + (n - fresh), fresh);
    cur->tail_len = kept + fresh;
}

} // namespace

// ---- writing --------------------------------------------------------------------------------------------------

int lard_puts(lard_t lh, const char* str)
{
    const writing_scope scope(lh);
    const size_t n = strlen(str);
    if (!may_write(lh, scope) || !has_room(lh, n)) return LARD_NO_FIT;
    memcpy(write_position(lh), str, n + 1);
    return publish(lh, n);
}

int lard_printf(lard_t lh, const char* fmt, ...)
{
    const writing_scope scope(lh);
    if (!may_write(lh, scope)) return LARD_NO_FIT;

    // Measured first: a text that doesn't fit must not have touched the ring.
    va_list args;
    va_start(args, fmt);
    const int wanted = vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    if (wanted < 1 || !has_room(lh, static_cast<size_t>(wanted))) return LARD_NO_FIT;

    va_start(args, fmt);
    const int n = vsnprintf(write_position(lh), lh->buflen, fmt, args);
    va_end(args);
    return n > 0 && has_room(lh, static_cast<size_t>(n)) ? publish(lh, static_cast<size_t>(n)) : LARD_NO_FIT;
}

void lard_set_temp(lard_t lh, int temp)
{
    const writing_scope scope(lh);
    if (may_write(lh, scope)) set_temp(lh, temp);
}

// ---- reading --------------------------------------------------------------------------------------------------

int lard_look(lard_t lh, struct lard_view* view)
{
    const struct lard_meta* m = lh->meta;
    *view = {};
    const size_t start = lard_int::load_size(&m->pld_start);
    const size_t len = lard_int::load_size(&m->pld_len);
    if (start >= lh->buflen || len > lh->buflen) return -1;
    *view = {.data = lh->dbuf.data, .buflen = lh->buflen, .start = start, .len = len, .write_tm = m->write_tm};
    return 0;
}

ssize_t lard_snapshot(lard_t lh, int fd)
{
    struct lard_view v;
    if (lard_look(lh, &v) != 0) {
        errno = EINVAL;
        return -1;
    }
    const size_t skip = v.data[v.start] == '\0' ? 1 : 0; // the terminator that the writer left
    // By design: such a ring goes out as it lies in memory.
    if (v.start <= 1) return write(fd, v.data, v.len);

    // By design the first piece counts one byte more and the second one byte less than there are, and nothing behind
    // the ring makes up for it. A reader's memory ends there.
    const size_t from = v.start + skip;
    const size_t till = std::min(v.len + 1, v.buflen);
    char* data = lh->dbuf.data; // iovec knows no const; writev only reads
    const struct iovec pieces[] = {{.iov_base = data + from, .iov_len = till > from ? till - from : 0},
                                   {.iov_base = data, .iov_len = v.start - skip}};
    return writev(fd, pieces, 2);
}

pid_t lard_owner_pid(lard_t lh)
{
    return lh->meta->owner_pid;
}

bool lard_is_active(lard_t lh, bool* crashed)
{
    const struct lard_meta* m = lh->meta;
    const pid_t owner = m->owner_pid;
    const bool lives = owner >= 1 && kill(owner, 0) == 0;
    const bool closed = is_marked_closed(m); // asked second: an owner that ends in an orderly way marks first
    if (crashed) *crashed = owner >= 1 && !lives && !closed;
    return lives && !closed;
}

int lard_get_ctemp(lard_t lh)
{
    return lh->meta->sns.sum;
}

ssize_t lard_read_new(lard_t lh, struct lard_cursor* cur, char* buf, size_t buflen, bool* lost)
{
    if (lost) *lost = false;
    struct lard_view v;
    if (lard_look(lh, &v) != 0) return -1;

    const size_t end = (v.start + v.len) % v.buflen;
    size_t from = cur->end % v.buflen;
    size_t fresh = (end + v.buflen - from) % v.buflen;
    const bool overtaken = cur->has_begun && !is_in_place(v, *cur, fresh);
    if (!cur->has_begun || overtaken) {
        // A full ring's oldest byte has given way to the terminator.
        const size_t skip = v.len == v.buflen && v.data[v.start] == '\0' ? 1 : 0;
        from = (v.start + skip) % v.buflen;
        fresh = v.len - skip;
        cur->tail_len = 0;
    }
    if (lost) *lost = overtaken;

    const size_t n = std::min(fresh, buflen);
    copy_out(v, from, buf, n);
    note_tail(cur, buf, n);
    cur->end = (from + n) % v.buflen;
    cur->has_begun = true;
    return static_cast<ssize_t>(n);
}

// ---- debugging aids -------------------------------------------------------------------------------------------

bool lard_validate(const struct lard_ctx* lh)
{
    if (!lh || !lh->meta || !lh->dbuf.data || lh->mfd < 0 || lh->dbuf.dfd < 0) return false;
    if (!memchr(lh->name, '\0', sizeof(lh->name)) || lh->buflen == 0 || lh->dbuf.dlen != lh->buflen) return false;
    const struct lard_dbuf& buf = lh->dbuf;
    if (!buf.is_reader && (buf.olen != buf.dlen || buf.overlay != buf.data + buf.dlen || buf.zlen == 0 ||
                           buf.ddz != buf.overlay + buf.olen))
        return false;
    const struct lard_meta& m = *lh->meta;
    if (m.seg_pages == 0 || m.pld_start >= lh->buflen || m.pld_len > lh->buflen) return false;
    // The start stays where it is until the ring is full.
    if (m.pld_start != 0 && m.pld_len != lh->buflen) return false;
    return m.sns.idx < MAX_SNS && m.sns.sum >= 0 &&
           std::accumulate(m.sns.val, m.sns.val + MAX_SNS, 0L) == static_cast<long>(m.sns.sum);
}

void lard_dump(const struct lard_ctx* lh, FILE* fp)
{
    if (!lh || !lh->meta) {
        fprintf(fp, "ring log: none\n");
        return;
    }
    const struct lard_meta& m = *lh->meta;
    fprintf(fp, "ring log [%s], %s, %s\n", lh->name, lh->dbuf.is_reader ? "reader" : "writer",
            lard_validate(lh) ? "valid" : "INVALID");
    fprintf(fp, "  memory: ring %p, %zu bytes; overlay %p; dead zone %p\n", static_cast<void*>(lh->dbuf.data),
            lh->buflen, static_cast<void*>(lh->dbuf.overlay), static_cast<void*>(lh->dbuf.ddz));
    fprintf(fp, "  text: %zu bytes at %zu, written at %ld.%09ld\n", m.pld_len, m.pld_start,
            static_cast<long>(m.write_tm.tv_sec), m.write_tm.tv_nsec);
    fprintf(fp, "  owner: %ld%s\n", static_cast<long>(m.owner_pid), is_marked_closed(&m) ? ", closed" : "");
    fprintf(fp, "  temperature: %d, next reading in slot %zu\n", m.sns.sum, m.sns.idx);
}
