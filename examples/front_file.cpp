// Files. What a judge of paths might overlook the kernel refuses: a file is opened relative to the root, with the order
// not to leave it.
#include "front_file.h"

#include "log.h"
#include "syswrap.h"
#include "uri.h"
#include "webops.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

TV_LOG_MODULE(0)

namespace
{

using std::string_view;

constexpr int READ_FLAGS = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // a FIFO must not hold us up
constexpr int LOOK_FLAGS = O_PATH | O_CLOEXEC;
constexpr int STEP_FLAGS = O_PATH | O_DIRECTORY | O_CLOEXEC;

struct content_type {
    const char* ending;
    const char* text;
};
constexpr std::array CONTENT_TYPES = {
    content_type{".ts", HLS_FRA_TYPE},   content_type{".m3u8", HLS_M3U8_TYPE},
    content_type{".m3u", HLS_M3U8_TYPE}, content_type{".mpd", "application/dash+xml"},
    content_type{".mp4", "video/mp4"},   content_type{".aac", "audio/aac"},
    content_type{".vtt", "text/vtt"},    content_type{".txt", "text/plain"},
    content_type{".html", "text/html"},  content_type{".json", "application/json"},
    content_type{".jpg", "image/jpeg"},  content_type{".png", "image/png"},
};
constexpr const char* OTHER_TYPE = "application/octet-stream";

int status_of(int err)
{
    switch (err) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG: return 404;
    case EXDEV: // out of the root
    case ELOOP:
    case ENXIO: // a local socket
    case EACCES:
    case EPERM: return 403;
    case EAGAIN: // the tree was changed at the same time
    case EMFILE:
    case ENFILE:
    case ENOMEM: return 503;
    default: return 500;
    }
}

int open_beneath(int root, const char* path, int flags)
{
    struct open_how how = {};
    how.flags = static_cast<__u64>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const long fd = syscall(SYS_openat2, root, path, &how, sizeof(how));
    // Old kernels don't know the call, and sandboxes refuse what they don't know.
    if (fd < 0 && (errno == ENOSYS || errno == EPERM)) return front_walk(root, path, flags);
    return static_cast<int>(fd);
}

// Opens one part of a path. -1 with errno.
int step(int dir, string_view part, int flags)
{
    char name[NAME_MAX + 1] = ".";
    if (part.size() >= sizeof(name)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (!part.empty()) {
        memcpy(name, part.data(), part.size());
        name[part.size()] = '\0';
    }
    if (part == "..") {
        errno = EXDEV;
        return -1;
    }
    return openat(dir, name, flags | O_NOFOLLOW);
}

// Opens a regular file. Its descriptor, or a status with its sign changed.
int open_file(int root, const char* path, int flags, off_t* size)
{
    const int fd = open_beneath(root, path, flags);
    if (fd < 0) {
        const int status = status_of(errno);
        if (status >= 500) tv_log(ll::error, "%s: open ERROR: %m\n", "front_open"); // the server's fault
        return -status;
    }
    struct stat st = {};
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        *size = st.st_size;
        return fd;
    }
    (void)W_close("front_open", fd); // logged
    return -403;
}

} // namespace

int front_open(int root, const char* path, off_t* size)
{
    // To open a FIFO for reading lets its writer go on, to close it kills the writer, and devices act on an open: so
    // there is a look first. What has changed since then is refused all the same.
    const int place = open_file(root, path, LOOK_FLAGS, size);
    if (place < 0) return place;
    (void)W_close(__func__, place); // logged
    return open_file(root, path, READ_FLAGS, size);
}

int front_walk(int root, const char* path, int flags)
{
    if (*path == '/') {
        errno = EXDEV;
        return -1;
    }
    int dir = root;
    for (string_view rest = path;;) {
        const size_t end = std::min(rest.find('/'), rest.size());
        const bool is_last = end == rest.size();
        const int fd = step(dir, rest.substr(0, end), is_last ? flags : STEP_FLAGS);
        const int err = errno;
        if (dir != root) (void)W_close(__func__, dir); // logged
        errno = err;
        if (fd < 0 || is_last) return fd;
        dir = fd;
        rest.remove_prefix(end + 1);
    }
}

const char* front_content_type(const char* path)
{
    for (const struct content_type& t : CONTENT_TYPES) {
        if (url_ends_with(path, t.ending)) return t.text;
    }
    return OTHER_TYPE;
}
