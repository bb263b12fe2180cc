// File watches: one inotify descriptor for all of them, in the epoll set as long as there is a watch, and a table from
// watch descriptor to the owner's record.
#include "fdio.h"
#include "log.h"
#include "rqs.h"
#include "rqs_int.h"
#include "syswrap.h"

#include <sys/inotify.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr uint32_t WATCH_MASK = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(WATCH_MASK == 0xC0E);
constexpr size_t WATCH_BUCKETS = 1024;
constexpr char INIT[] = "rqs_init"; // the loop's calls that open and close the watches log under their own names
constexpr char DESTROY[] = "rqs_destroy";

// ---- watch table ----------------------------------------------------------------------------------------------

int wfd_map_add(int wd, void* udata)
{
    void* data = udata;
    const int rc = nkht_add(g_ino.wfd_ht, wd, &data);
    if (rc == 0) {
        tv_log(ll::debug, "%s: wfd=%d, udata=%p\n", __func__, wd, udata);
        return 0;
    }
    if (rc == EBUSY) {
        tv_log(ll::error, "%s: key wfd=%d is already taken [%p]\n", __func__, wd, data);
    } else {
        tv_log(ll::error, "%s: ERROR(%d) adding wfd=%d, udata=%p: %s\n", __func__, rc, wd, udata, strerror(rc));
    }
    return -1;
}

void note_table_failure(const char* caller, int rc, int wd)
{
    if (rc == ESRCH) {
        tv_log(ll::error, "%s: wfd=%d is not found.\n", caller, wd);
    } else {
        tv_log(ll::error, "%s: ERROR(%d): %s\n", caller, rc, strerror(rc));
    }
}

void* wfd_map_get(int wd)
{
    void* udata = nullptr;
    const int rc = nkht_get(g_ino.wfd_ht, wd, &udata);
    if (rc == 0) return udata;
    note_table_failure(__func__, rc, wd);
    return nullptr;
}

int wfd_map_rm(int wd)
{
    void* udata = nullptr;
    const int rc = nkht_rm(g_ino.wfd_ht, wd, &udata);
    if (rc != 0) {
        note_table_failure(__func__, rc, wd);
        return -1;
    }
    tv_log(ll::debug, "%s: wfd=%d, udata=%p removed.\n", __func__, wd, udata);
    return 0;
}

// ---- watches --------------------------------------------------------------------------------------------------

// Ends a watch in the kernel.
int end_watch(const char* caller, int wd)
{
    if (inotify_rm_watch(g_ino.fd, wd) == 0) return 0;
    const int err = errno;
    tv_log(ll::error, "%s: inotify_rm_watch(%d, %d) ERROR(%d): %s\n", caller, g_ino.fd, wd, err, strerror(err));
    errno = err;
    return -1;
}

// Sees to it that the loop waits for inotify records.
int enter_epoll()
{
    if (g_ino.in_epoll) return 0;
    if (rqs_add_reader(g_ino.fd, &g_ino) != 0) return -1;
    tv_log(ll::debug, "inotify fd%d will be watched.\n", g_ino.fd);
    g_ino.in_epoll = true;
    return 0;
}

// Enters a fresh watch into table and loop: both, or none.
int register_watch(int wd, void* udata)
{
    if (wfd_map_add(wd, udata) != 0) return -1;
    if (enter_epoll() == 0) return 0;
    (void)wfd_map_rm(wd); // it has just been added
    return -1;
}

// ---- records --------------------------------------------------------------------------------------------------

struct mask_letter {
    uint32_t bit;
    char letter;
};

constexpr std::array<struct mask_letter, 12> g_mask_letters = {{
    {.bit = IN_ACCESS, .letter = 'A'},
    {.bit = IN_ATTRIB, .letter = 'T'},
    {.bit = IN_CREATE, .letter = 'c'},
    {.bit = IN_DELETE, .letter = 'd'},
    {.bit = IN_DELETE_SELF, .letter = 'D'},
    {.bit = IN_MODIFY, .letter = 'y'},
    {.bit = IN_MOVE_SELF, .letter = 'M'},
    {.bit = IN_MOVED_FROM, .letter = 'f'},
    {.bit = IN_MOVED_TO, .letter = 't'},
    {.bit = IN_OPEN, .letter = 'O'},
    {.bit = IN_CLOSE_WRITE, .letter = 'W'},
    {.bit = IN_CLOSE_NOWRITE, .letter = 'w'},
}};

// What stands ahead of a record's name: struct inotify_event without its open end.
struct irec_head {
    int32_t wd;
    uint32_t mask;
    uint32_t cookie;
    uint32_t len; // of the name with its zeros
};
constexpr size_t IREC_HEAD = sizeof(struct irec_head);
static_assert(IREC_HEAD == 16 && IREC_HEAD == sizeof(struct inotify_event));
static_assert(offsetof(irec_head, mask) == offsetof(inotify_event, mask) &&
              offsetof(irec_head, cookie) == offsetof(inotify_event, cookie) &&
              offsetof(irec_head, len) == offsetof(inotify_event, len));

// A record: its head, and where it lies in the read buffer.
struct inotify_rec {
    struct irec_head head;
    const char* at;
    const char* name; // empty for a record without one
};

void dump_inotify_event(const struct inotify_rec& iev)
{
    char letters[g_mask_letters.size() + 1] = "";
    char* p = letters;
    for (const struct mask_letter& m : g_mask_letters) {
        if ((iev.head.mask & m.bit) != 0) *p++ = m.letter;
    }
    tv_log(ll::debug, "INOTIFY (ev=%p): wd%d, mask=0x%04x [%s] cookie=%u [%s]\n", static_cast<const void*>(iev.at),
           iev.head.wd, iev.head.mask, letters, iev.head.cookie, iev.name);
}

void process_inmodify(const struct inotify_rec& iev)
{
    void* udata = wfd_map_get(iev.head.wd);
    const rqs_event_cb_t on_file_modified = rqs_int::g_cfg->cb.on_file_modified;
    if (!udata || !on_file_modified) return;

    const uint32_t mask = iev.head.mask;
    int flags = 0;
    if ((mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) flags |= RQS_RMV;
    if ((mask & IN_MOVE_SELF) != 0) flags |= RQS_FMOVED;
    if ((mask & IN_DELETE_SELF) != 0) flags |= RQS_FDELETED;
    if ((mask & IN_ATTRIB) != 0) flags |= RQS_ATTR;
    (void)on_file_modified(iev.head.wd, flags, udata, nullptr); // by design its result says nothing
}

void process_record(const char* caller, const struct inotify_rec& iev)
{
    const uint32_t mask = iev.head.mask;
    dump_inotify_event(iev);
    if ((mask & WATCH_MASK) != 0) {
        process_inmodify(iev);
    } else if ((mask & IN_IGNORED) != 0) {
        tv_log(ll::debug, "%s: IN_IGNORED (0x%lx)\n", caller, static_cast<unsigned long>(mask));
    } else {
        tv_log(ll::warning, "%s: unhandled inotify mask: 0x%lx\n", caller, static_cast<unsigned long>(mask));
    }
}

// Reads what is ready into the buffer. Its length in bytes, or -1.
ssize_t read_records(const char* caller)
{
    int avail = 0;
    const int rc = ioctl(g_ino.fd, FIONREAD, &avail);
    if (rc < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: ioctl FIONREAD ERROR(%d): %s\n", caller, err, strerror(err));
        return rc;
    }
    // By design more than the buffer holds is a failure; it is not read in parts.
    if (avail < 0 || static_cast<size_t>(avail) > sizeof(g_ino.buf)) {
        tv_log(ll::error, "%s: incompatible buffer size (avail=%ld bytes, max=%ld)\n", caller, static_cast<long>(avail),
               static_cast<long>(sizeof(g_ino.buf)));
        return -1;
    }
    const ssize_t len = nread(g_ino.fd, g_ino.buf, static_cast<size_t>(avail), 0);
    if (len <= 0) return -1;
    tv_log(ll::debug, "%s: %ld/%ld bytes of inotify data expected/read\n", caller, static_cast<long>(avail), len);
    return len;
}

// The record at `offset` of the `len` bytes in the buffer; its size, or 0 if it doesn't lie there whole.
size_t record_at(size_t offset, size_t len, struct inotify_rec* iev)
{
    if (len - offset < IREC_HEAD) return 0;
    iev->at = g_ino.buf + offset;
    memcpy(&iev->head, iev->at, IREC_HEAD);
    const char* name = iev->at + IREC_HEAD;
    if (iev->head.len > len - offset - IREC_HEAD) return 0;
    iev->name = memchr(name, '\0', iev->head.len) ? name : "";
    return IREC_HEAD + iev->head.len;
}

} // namespace

constinit struct inotify_ctx g_ino = {
    .tag = {.sym = {'i', 'n', 'o', '\0'}}, .fd = -1, .in_epoll = false, .buf = {}, .wfd_ht = nullptr, .wfd_count = 0};

// ---- for the loop ---------------------------------------------------------------------------------------------

int rqs_int::init_file_watches()
{
    g_ino.in_epoll = false;
    g_ino.wfd_count = 0;
    g_ino.wfd_ht = nullptr;
    g_ino.fd = inotify_init();
    if (g_ino.fd < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: inotify_init1 ERROR(%d): %s\n", INIT, err, strerror(err));
        errno = err;
        return -1;
    }
    const int rc = nkht_create(&g_ino.wfd_ht, WATCH_BUCKETS, tw_shift);
    if (rc != 0) tv_log(ll::error, "%s: failed to create wfd/inotify lookup\n", INIT);
    return rc;
}

void rqs_int::destroy_file_watches()
{
    if (g_ino.fd >= 0) (void)W_close(DESTROY, g_ino.fd); // logged; there is nothing else to do about it
    g_ino.fd = -1;
    g_ino.in_epoll = false;
    g_ino.wfd_count = 0;
    if (g_ino.wfd_ht) nkht_destroy(g_ino.wfd_ht, nullptr);
    g_ino.wfd_ht = nullptr;
}

int rqs_int::process_inotify_records(int fd_err, void* udata)
{
    tv_assert_logged(udata == &g_ino);
    if (fd_err != 0) {
        tv_log(ll::panic, "%s: error condition on inotify fd=%d\n", __func__, g_ino.fd);
        abort_with_stack();
    }
    const ssize_t read_len = read_records(__func__);
    if (read_len < 0) return static_cast<int>(read_len);

    const auto len = static_cast<size_t>(read_len);
    long count = 0;
    struct inotify_rec iev = {};
    for (size_t offset = 0, size = 0; offset < len; offset += size, ++count) {
        size = record_at(offset, len, &iev);
        if (size == 0) {
            tv_log(ll::error, "%s: broken inotify record at byte %lu of %lu\n", __func__, offset, len);
            return -1;
        }
        process_record(__func__, iev);
    }
    tv_log(ll::debug, "%s: %ld inotify_event records processed\n", __func__, count);
    return 0;
}

// ---- file watches ---------------------------------------------------------------------------------------------

int rqs_add_file_watch(void* udata, const char* filepath)
{
    const int wd = inotify_add_watch(g_ino.fd, filepath, WATCH_MASK);
    if (wd < 0) {
        const int err = errno;
        tv_log(ll::error, "%s: inotify_add_watch(%p, '%s', %lu) ERROR(%d): %s\n", __func__, udata, filepath,
               static_cast<unsigned long>(WATCH_MASK), err, strerror(err));
        errno = err;
        return -1;
    }
    if (register_watch(wd, udata) != 0) {
        // By design also where the file had a watch already: it has the same number, and ends here.
        (void)end_watch(__func__, wd);
        return -1;
    }
    ++g_ino.wfd_count;
    tv_log(ll::debug, "%s: inotify watch=%d for [%s]: udata=%p, wfd_count=%ld\n", __func__, wd, filepath, udata,
           g_ino.wfd_count);
    rqs_int::check();
    return wd;
}

int rqs_rm_file_watch(int wd)
{
    if (end_watch(__func__, wd) != 0) return -1;
    --g_ino.wfd_count;
    tv_assert_logged(g_ino.wfd_count >= 0);
    if (g_ino.wfd_count == 0 && rqs_rm_fd(g_ino.fd, true, false) == 0) {
        tv_log(ll::debug, "inotify fd%d is no longer watched.\n", g_ino.fd);
        g_ino.in_epoll = false;
    }
    return wfd_map_rm(wd);
}
