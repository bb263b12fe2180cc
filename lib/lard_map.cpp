// Ring logs: the two shared memory objects and their mappings, on the writer's and on the reader's side.
//
// A handle starts with nothing mapped and descriptors of -1, and detach() releases whatever has been made of it so far:
// each failing step on the way leaves the rest to it.
#include "lard_int.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace
{

constexpr mode_t OBJECT_MODE = 0600;
constexpr size_t OBJECT_NAME_SIZE = LARD_MAX_NAME + sizeof("/.meta");
constexpr int MAP_HOW = MAP_SHARED | MAP_POPULATE;

// Keeps errno through what is said and undone until the end of the block.
struct [[nodiscard]] errno_keeper {
    const int err = errno;

    errno_keeper() = default;
    ~errno_keeper() { errno = err; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
};

struct object_names {
    char meta[OBJECT_NAME_SIZE];
    char data[OBJECT_NAME_SIZE];
};

// ---- names and sizes ------------------------------------------------------------------------------------------

// "%s" at the start of each line is the operation that was asked for: `caller`.

int mk_object_name(const char* caller, const char* name, const char* suffix, char (&object)[OBJECT_NAME_SIZE])
{
    const int n = snprintf(object, sizeof(object), "/%s.%s", name, suffix);
    if (n > 0 && strlen(name) <= LARD_MAX_NAME) return 0;
    fprintf(stderr, "%s: fprintf out of bounds: %d\n", caller, n);
    errno = ENAMETOOLONG;
    return -1;
}

int mk_object_names(const char* caller, const char* name, struct object_names* objects)
{
    if (mk_object_name(caller, name, "meta", objects->meta) != 0) return -1;
    return mk_object_name(caller, name, "dat", objects->data);
}

size_t page_size()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// The size of a data object, or 0 if no file can have it.
size_t data_object_size(size_t npages)
{
    const size_t pages_max = static_cast<size_t>(std::numeric_limits<off_t>::max()) / page_size();
    return npages > (pages_max - 1) / 2 ? 0 : (2 * npages + 1) * page_size();
}

// ---- releasing ------------------------------------------------------------------------------------------------

void unmap(void* addr, size_t len, const char* what)
{
    const int rc = munmap(addr, len);
    if (rc != 0) perror(what);
    assert(rc == 0);
}

void close_object(int* fd)
{
    if (*fd >= 0) (void)close(*fd); // shared memory has nothing to lose
    *fd = -1;
}

void unmap_data(struct lard_dbuf* buf)
{
    if (buf->zlen) unmap(buf->ddz, buf->zlen, "munmap(DZ)");
    if (buf->olen) unmap(buf->overlay, buf->olen, "munmap(OVL)");
    // The whole span: a half-made ring has its second half and the page behind it here.
    const size_t whole = buf->is_reader ? buf->dlen : 2 * buf->dlen + page_size();
    if (buf->data) unmap(buf->data, whole, "munmap(ALL)");
    buf->data = nullptr;
    buf->olen = buf->zlen = 0;
}

// Releases the handle and all that it holds but the objects.
void detach(struct lard_ctx* lc)
{
    const errno_keeper keep;
    if (lc->meta) {
        // A child that inherited the handle is not the owner, and leaves the mark to it.
        if (!lc->dbuf.is_reader && lc->meta->owner_pid == getpid()) lc->meta->is_closed = true;
        unmap(lc->meta, sizeof(*lc->meta), "munmap(META)");
        lc->meta = nullptr;
    }
    unmap_data(&lc->dbuf);
    close_object(&lc->mfd);
    close_object(&lc->dbuf.dfd);
    free(lc);
}

void unlink_meta(const char* object)
{
    if (shm_unlink(object) != 0) perror("shm_unlink (META)");
}

void unlink_data(const char* object)
{
    if (shm_unlink(object) != 0) perror("shm_unlink (DATA)");
}

// Makes room for new objects; that there are none is the rule.
void unlink_old(const struct object_names* objects)
{
    if (shm_unlink(objects->meta) != 0 && errno != ENOENT) perror("shm_unlink (META)");
    if (shm_unlink(objects->data) != 0 && errno != ENOENT) perror("shm_unlink (DATA)");
}

// ---- steps ----------------------------------------------------------------------------------------------------

struct lard_ctx* new_handle(const char* name, bool is_reader)
{
    auto* lc = static_cast<struct lard_ctx*>(calloc(1, sizeof(struct lard_ctx)));
    if (!lc) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t len = strnlen(name, sizeof(lc->name) - 1);
    memcpy(lc->name, name, len);
    lc->mfd = lc->dbuf.dfd = -1;
    lc->dbuf.is_reader = is_reader;
    return lc;
}

int open_object(const char* caller, const char* object, int flags)
{
    const int fd = shm_open(object, flags, OBJECT_MODE);
    if (fd < 0) {
        const errno_keeper e;
        fprintf(stderr, "%s: shm_open(%s) ERROR(%d): %s\n", caller, object, e.err, strerror(e.err));
    }
    return fd;
}

int size_object(const char* caller, const char* object, int fd, size_t size)
{
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) return 0;
    const errno_keeper e;
    fprintf(stderr, "%s: ftruncate(fd%d/%s, %lu) ERROR(%d): %s\n", caller, fd, object, size, e.err, strerror(e.err));
    return -1;
}

// A mapping that goes past its object would end the reader with a signal.
int require_size(const char* caller, const char* object, int fd, size_t size)
{
    struct stat st = {};
    if (fstat(fd, &st) != 0) {
        const errno_keeper e;
        fprintf(stderr, "%s: fstat(fd%d/%s) ERROR(%d): %s\n", caller, fd, object, e.err, strerror(e.err));
        return -1;
    }
    if (size != 0 && st.st_size >= 0 && static_cast<size_t>(st.st_size) >= size) return 0;
    fprintf(stderr, "%s: %s has %ld bytes, too few for what it says to be\n", caller, object,
            static_cast<long>(st.st_size));
    errno = EINVAL;
    return -1;
}

int map_meta(const char* caller, struct lard_ctx* lc, int prot)
{
    void* addr = mmap(nullptr, sizeof(struct lard_meta), prot, MAP_HOW, lc->mfd, 0);
    if (addr == MAP_FAILED) {
        const errno_keeper e;
        fprintf(stderr, "%s: mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", caller, sizeof(struct lard_meta), lc->mfd,
                e.err, strerror(e.err));
        return -1;
    }
    lc->meta = static_cast<struct lard_meta*>(addr);
    return 0;
}

// Maps `len` bytes of the data object: a reader's ring, or a writer's whole object.
int map_data(const char* caller, struct lard_ctx* lc, size_t len, int prot)
{
    void* addr = mmap(nullptr, len, prot, MAP_HOW, lc->dbuf.dfd, 0);
    if (addr == MAP_FAILED) {
        const errno_keeper e;
        fprintf(stderr, "%s: BUF mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", caller, len, lc->dbuf.dfd, e.err,
                strerror(e.err));
        return -1;
    }
    lc->dbuf.data = static_cast<char*>(addr);
    lc->dbuf.dlen = lc->buflen;
    return 0;
}

// Lays the ring's pages a second time behind the first, and the dead zone behind both.
int map_overlay(const char* caller, struct lard_ctx* lc)
{
    struct lard_dbuf* buf = &lc->dbuf;
    buf->overlay = buf->data + buf->dlen;
    if (mmap(buf->overlay, buf->dlen, PROT_READ | PROT_WRITE, MAP_HOW | MAP_FIXED, buf->dfd, 0) == MAP_FAILED) {
        const errno_keeper e;
        fprintf(stderr, "%s: EXT mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", caller, buf->dlen, buf->dfd, e.err,
                strerror(e.err));
        return -1;
    }
    buf->olen = buf->dlen;
    buf->ddz = buf->overlay + buf->dlen;
    if (mmap(buf->ddz, page_size(), PROT_NONE, MAP_HOW | MAP_FIXED, buf->dfd, static_cast<off_t>(buf->dlen)) ==
        MAP_FAILED) {
        const errno_keeper e;
        fprintf(stderr, "%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", caller, static_cast<void*>(buf->ddz),
                page_size(), buf->dfd, e.err, strerror(e.err));
        return -1;
    }
    buf->zlen = page_size();
    return 0;
}

// ---- both sides -----------------------------------------------------------------------------------------------

// The descriptors tell how far it came: an object belongs to the caller once it has one.
int make_objects(const char* caller, struct lard_ctx* lc, const struct object_names* objects, size_t npages)
{
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL;
    lc->buflen = npages * page_size();

    lc->mfd = open_object(caller, objects->meta, flags);
    if (lc->mfd < 0) return -1;
    if (size_object(caller, objects->meta, lc->mfd, sizeof(struct lard_meta)) != 0) return -1;
    if (map_meta(caller, lc, PROT_READ | PROT_WRITE) != 0) return -1;

    lc->dbuf.dfd = open_object(caller, objects->data, flags);
    if (lc->dbuf.dfd < 0) return -1;
    const size_t size = data_object_size(npages);
    if (size_object(caller, objects->data, lc->dbuf.dfd, size) != 0) return -1;
    if (map_data(caller, lc, size, PROT_READ | PROT_WRITE) != 0) return -1;
    return map_overlay(caller, lc);
}

int open_objects(const char* caller, struct lard_ctx* lc, const struct object_names* objects)
{
    lc->mfd = open_object(caller, objects->meta, O_RDONLY);
    if (lc->mfd < 0) return -1;
    if (require_size(caller, objects->meta, lc->mfd, sizeof(struct lard_meta)) != 0) return -1;
    if (map_meta(caller, lc, PROT_READ) != 0) return -1;

    const size_t npages = lard_int::load_size(&lc->meta->seg_pages);
    assert(npages > 0);
    lc->dbuf.dfd = open_object(caller, objects->data, O_RDONLY);
    if (lc->dbuf.dfd < 0) return -1;
    if (require_size(caller, objects->data, lc->dbuf.dfd, data_object_size(npages)) != 0) return -1;
    lc->buflen = npages * page_size();
    return map_data(caller, lc, lc->buflen, PROT_READ);
}

} // namespace

// ---- making, opening, leaving ---------------------------------------------------------------------------------

lard_t lard_create(const char* name, size_t npages)
{
    assert(NULL != name);
    struct object_names objects;
    if (mk_object_names(__func__, name, &objects) != 0) return nullptr;
    if (data_object_size(npages) == 0) {
        fprintf(stderr, "%s: %s: %lu pages are more than an object can have\n", __func__, name, npages);
        errno = EFBIG;
        return nullptr;
    }
    struct lard_ctx* lc = new_handle(name, false);
    if (!lc) return nullptr;

    unlink_old(&objects);
    if (make_objects(__func__, lc, &objects, npages) != 0) {
        const errno_keeper keep;
        const bool has_meta = lc->mfd >= 0, has_data = lc->dbuf.dfd >= 0;
        detach(lc);
        if (has_meta) unlink_meta(objects.meta);
        if (has_data) unlink_data(objects.data);
        return nullptr;
    }
    *lc->meta = {};
    lc->meta->owner_pid = getpid();
    lc->meta->is_closed = false;
    // Last: a reader takes a record for finished that has pages.
    lard_int::store_size(&lc->meta->seg_pages, npages);
    return lc;
}

int lard_probe(const char* name)
{
    assert(NULL != name);
    if (strlen(name) > LARD_MAX_NAME) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char object[OBJECT_NAME_SIZE];
    (void)snprintf(object, sizeof(object), "/%s.meta", name);
    int fd = shm_open(object, O_RDONLY, 0);
    if (fd < 0) return -1;
    struct lard_meta record = {};
    const ssize_t n = pread(fd, &record, sizeof(record), 0);
    {
        const errno_keeper keep;
        close_object(&fd);
    }
    if (n >= 0 && record.seg_pages == 0) errno = EAGAIN;
    return n >= 0 && record.seg_pages != 0 ? 0 : -1;
}

lard_t lard_open(const char* name)
{
    assert(NULL != name);
    struct object_names objects;
    if (mk_object_names(__func__, name, &objects) != 0) return nullptr;
    struct lard_ctx* lc = new_handle(name, true);
    if (!lc) return nullptr;
    if (open_objects(__func__, lc, &objects) != 0) {
        detach(lc);
        return nullptr;
    }
    return lc;
}

void lard_close(lard_t lh)
{
    if (lh) detach(lh);
}

void lard_destroy(lard_t lh)
{
    if (!lh) return;
    struct object_names objects;
    const int rc = mk_object_names(__func__, lh->name, &objects);
    detach(lh);
    if (rc != 0) return;
    unlink_meta(objects.meta);
    unlink_data(objects.data);
}
