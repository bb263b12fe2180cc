// Small checks and operations on files and directories.
#include "util.h"

#include "log.h"
#include "syswrap.h"
#include "util_int.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>

TV_LOG_MODULE(0)

namespace
{

using util_int::errno_keeper;

constexpr mode_t OUTPUT_MODE = 0644;

int stat_logged(const char* caller, const char* path, struct stat* st)
{
    if (0 == stat(path, st)) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: stat(%s) ERROR(%d): %s\n", caller, path, e.err, strerror(e.err));
    return -1;
}

// read() until the buffer is full or the file is at its end: the number of bytes, or -1. Signals don't cut it short.
ssize_t read_full(int fd, std::span<uint8_t> buf)
{
    size_t done = 0;
    while (done < buf.size()) {
        const ssize_t n = read(fd, buf.data() + done, buf.size() - done);
        if (0 == n) break;
        if (n > 0)
            done += static_cast<size_t>(n);
        else if (errno != EINTR)
            return -1;
    }
    return static_cast<ssize_t>(done);
}

// Reads the whole of a file, or refuses it.
ssize_t read_whole(const char* caller, int fd, const char* path, std::span<uint8_t> buf)
{
    const ssize_t n = read_full(fd, buf);
    uint8_t beyond[1];
    const ssize_t more = n < 0 || static_cast<size_t>(n) < buf.size() ? 0 : read_full(fd, beyond);
    if (n < 0 || more < 0) {
        const errno_keeper e;
        tv_log(ll::error, "%s: read(%s) ERROR(%d): %s\n", caller, path, e.err, strerror(e.err));
        return -1;
    }
    if (more > 0) {
        tv_log(ll::error, "%s: [%s] is larger than %zu bytes\n", caller, path, buf.size());
        errno = EFBIG;
        return -1;
    }
    return n;
}

// A directory that is there already is fine; anything else of that name isn't.
int make_dir(const char* caller, const char* dir, mode_t mode)
{
    if (0 == mkdir(dir, mode)) return 0;
    if (EEXIST == errno) {
        struct stat st;
        if (0 == stat(dir, &st)) {
            if (S_ISDIR(st.st_mode)) return 0;
            errno = ENOTDIR;
        }
    }
    const errno_keeper e;
    tv_log(ll::error, "%s: mkdir(%s) ERROR(%d): %s\n", caller, dir, e.err, strerror(e.err));
    return -1;
}

char type_letter(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG: return '-';
    case S_IFDIR: return 'd';
    case S_IFLNK: return 'l';
    case S_IFCHR: return 'c';
    case S_IFBLK: return 'b';
    case S_IFIFO: return 'p';
    case S_IFSOCK: return 's';
    default: return '?';
    }
}

// The third letter of a group: the special bit stands over the execute bit, in upper case where that is off.
char exec_letter(mode_t mode, mode_t exec_bit, mode_t special_bit, char special)
{
    const bool exec = 0 != (mode & exec_bit);
    if (mode & special_bit) return exec ? special : static_cast<char>(special - 'a' + 'A');
    return exec ? 'x' : '-';
}

} // namespace

int dir_check(char* dirpath, bool trim_slash)
{
    if (0 == strcmp(dirpath, "/")) return 0;

    const size_t len = strlen(dirpath);
    if (trim_slash && len > 0 && '/' == dirpath[len - 1]) dirpath[len - 1] = '\0';

    DIR* dir = opendir(dirpath);
    if (!dir) {
        const errno_keeper e;
        tv_log(ll::error, "%s: opendir('%s', ...) ERROR(%d): %s\n", __func__, dirpath, e.err, strerror(e.err));
        return e.err;
    }
    (void)closedir(dir);
    return 0;
}

bool chk_file_updated(const char* path, time_t* mtime)
{
    const time_t before = *mtime;
    *mtime = get_file_mtime(path, false);
    return before < *mtime;
}

time_t get_file_mtime(const char* path, bool quiet)
{
    struct stat st;
    if (0 == stat(path, &st)) return st.st_mtime;
    const errno_keeper e;
    if (!quiet) tv_log(ll::error, "%s: FAILED to retrieve mtime for [%s]: %s\n", __func__, path, strerror(e.err));
    return -1;
}

const char* pick_first_file(const char** path, size_t count)
{
    for (const char* p : std::span(path, count))
        if (0 == access(p, F_OK)) return p;
    return nullptr;
}

off_t get_file_size(const char* path)
{
    struct stat st;
    return 0 == stat_logged(__func__, path, &st) ? st.st_size : -1;
}

int get_stat_mode(const char* path, mode_t* mode)
{
    struct stat st;
    if (stat_logged(__func__, path, &st) < 0) return -1;
    *mode = st.st_mode;
    return 0;
}

const char* fmode_str(mode_t mode, char* buf, size_t buflen)
{
    if (buflen < FMODE_STR_SIZE) return nullptr;
    const std::array<char, FMODE_STR_SIZE> text = {
        type_letter(mode),
        mode & S_IRUSR ? 'r' : '-',
        mode & S_IWUSR ? 'w' : '-',
        exec_letter(mode, S_IXUSR, S_ISUID, 's'),
        mode & S_IRGRP ? 'r' : '-',
        mode & S_IWGRP ? 'w' : '-',
        exec_letter(mode, S_IXGRP, S_ISGID, 's'),
        mode & S_IROTH ? 'r' : '-',
        mode & S_IWOTH ? 'w' : '-',
        exec_letter(mode, S_IXOTH, S_ISVTX, 't'),
        '\0',
    };
    memcpy(buf, text.data(), text.size());
    return buf;
}

FILE* fopen_any(const char** path, size_t count, const char* mode, size_t* index)
{
    errno = ENOENT;
    for (size_t i = 0; i < count; ++i) {
        if (FILE* fp = fopen(path[i], mode)) {
            if (index) *index = i;
            return fp;
        }
    }
    const errno_keeper e;
    tv_log(ll::error, "%s: none of %zu files can be opened, the last ERROR(%d): %s\n", __func__, count, e.err,
           strerror(e.err));
    return nullptr;
}

ssize_t read_file_buf(const char* path, void* buf, size_t buflen)
{
    const int fd = W_open(__func__, path, O_RDONLY | O_NOCTTY, 0);
    if (fd < 0) return -1;
    const ssize_t n = read_whole(__func__, fd, path, {static_cast<uint8_t*>(buf), buflen});
    const errno_keeper failure;
    (void)W_close(__func__, fd); // nothing was written that it could lose
    return n;
}

int mk_fpath_dirs(const char* fpath, mode_t mode)
{
    char dir[PATH_MAX];
    const size_t len = strlen(fpath);
    if (len >= sizeof(dir)) {
        tv_log(ll::error, "%s: path is too long (%zu bytes), max=%zu\n", __func__, len, sizeof(dir) - 1);
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(dir, fpath, len + 1);

    // A slash at the very start is the root, which needs no making.
    for (char* slash = len ? strchr(dir + 1, '/') : nullptr; slash; slash = strchr(slash + 1, '/')) {
        if ('/' == slash[-1]) continue;
        *slash = '\0';
        if (make_dir(__func__, dir, mode) < 0) return -1;
        *slash = '/';
    }
    return 0;
}

int redirect_output(const char* fpath)
{
    const int fd = W_open(__func__, fpath, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY, OUTPUT_MODE);
    if (fd < 0) return -1;

    // What was printed before belongs to where it was printed.
    (void)fflush(stdout);
    (void)fflush(stderr);
    const bool done = W_dup2(__func__, fd, STDOUT_FILENO) >= 0 && W_dup2(__func__, fd, STDERR_FILENO) >= 0;

    const errno_keeper failure;
    if (fd > STDERR_FILENO) (void)W_close(__func__, fd); // both outputs hold the file by now
    return done ? 0 : -1;
}

int close_pipe(int pipefd[2])
{
    int rc = 0;
    for (int& fd : std::span(pipefd, 2)) {
        if (fd >= 0 && W_close(__func__, fd) != 0) rc = -1;
        fd = -1;
    }
    return rc;
}
