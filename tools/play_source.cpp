// An index is looked through before it is played: the library takes its contents on trust.
#include "play_source.h"

#include "fdio.h"
#include "mpegts.h"
#include "play_scan.h"
#include "util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr size_t DATAGRAM_BYTES = 7 * TS_MIN_PKTSIZE;
constexpr size_t BUILD_CACHE = 16 * ONE_Mb; // bytes of the stream that a build holds in memory
constexpr size_t RECORDS_AT_ONCE = 8192;

struct unique_fd {
    int fd = -1;
    unique_fd() = default;
    explicit unique_fd(int f) : fd(f) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }
    void reset(int f = -1)
    {
        if (fd >= 0) (void)close(fd); // read from, or written to with the results checked
        fd = f;
    }
    int release() { return std::exchange(fd, -1); }
};

// A directory for copies and for an index that is being made, which is gone with its files when the preparation is over.
struct temp_room {
    std::string dir = {};
    temp_room() = default;
    temp_room(const temp_room&) = delete;
    temp_room& operator=(const temp_room&) = delete;
    ~temp_room()
    {
        if (dir.empty()) return;
        for (const char* name : {"plain.ts", "clock.ts", "clock.ix"})
            (void)unlink(path(name).c_str()); // it may never have been made
        (void)rmdir(dir.c_str());
    }
    std::string path(const char* name) const { return dir + "/" + name; }
    bool make_in(const std::string& parent)
    {
        std::string name = parent + "/kvt-play.XXXXXX";
        if (!mkdtemp(name.data())) return false;
        dir = name;
        return true;
    }
    bool make()
    {
        const char* const base = getenv("TMPDIR");
        const std::string parent = base && *base ? base : "/tmp";
        if (!dir.empty() || make_in(parent)) return true;
        fprintf(stderr, "kvt-play: can't make a directory in %s: %s\n", parent.c_str(), strerror(errno));
        return false;
    }
};

// A file that is none, such as a pipe, is not waited for: it is refused later.
constexpr int OPEN_FLAGS = O_RDONLY | O_CLOEXEC | O_NONBLOCK;

std::string fd_path(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

// Why an index can't be played with a stream of this size; null if it can be. The last clock goes to *duration.
const char* index_fault(int fd, size_t ts_bytes, uint64_t* duration)
{
    struct stat st;
    struct tsix_header h;
    if (fstat(fd, &st) != 0 || pread(fd, &h, sizeof(h), 0) != ssize_t{sizeof(h)}) return "it has no header";
    if (memcmp(h.magic, TSX_MAGIC, sizeof(h.magic)) != 0) return "it is no complete index";
    if (h.version != TSX_VERSION) return "it is of another version";
    const size_t rsize = h.runits * TS_MIN_PKTSIZE;
    if (h.irec_size != sizeof(struct tsd_irec) || rsize == 0 || rsize % DATAGRAM_BYTES != 0)
        return "its records are not whole datagrams";
    if (h.irec_count != (ts_bytes + rsize - 1) / rsize) return "it belongs to a stream of another size";
    if (static_cast<uint64_t>(st.st_size) < sizeof(h) + h.irec_count * sizeof(struct tsd_irec))
        return "it is cut short";

    std::vector<struct tsd_irec> recs(RECORDS_AT_ONCE);
    uint64_t last = 0;
    for (uint64_t done = 0; done < h.irec_count;) {
        const uint64_t count = std::min<uint64_t>(recs.size(), h.irec_count - done);
        const auto bytes = static_cast<ssize_t>(count * sizeof(struct tsd_irec));
        if (pread(fd, recs.data(), static_cast<size_t>(bytes),
                  static_cast<off_t>(sizeof(h) + done * sizeof(struct tsd_irec))) != bytes)
            return "it can't be read";
        for (uint64_t i = 0; i < count; ++i) {
            if (recs[i].sclk == 0 || recs[i].sclk < last) return "its clock steps back";
            if (recs[i].sclk - last > P2_33) return "its clock leaps"; // no two PCRs are further apart
            last = recs[i].sclk;
        }
        done += count;
    }
    *duration = last;
    return nullptr;
}

bool is_older(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// Uses the index beside the stream if there is one that fits. With one that doesn't, *has_misfit is set.
bool take_index(const struct play_source& src, const std::string& ix_path, struct unique_fd* ix, uint64_t* duration,
                bool* has_misfit)
{
    ix->reset(open(ix_path.c_str(), OPEN_FLAGS));
    if (ix->fd < 0) {
        *has_misfit = errno != ENOENT;
        if (*has_misfit)
            fprintf(stderr, "kvt-play: can't open %s: %s; an index is made for this run\n", ix_path.c_str(),
                    strerror(errno));
        return false;
    }
    struct stat ts_stat, ix_stat;
    const char* fault = nullptr;
    if (fstat(src.ts_fd, &ts_stat) != 0 || fstat(ix->fd, &ix_stat) != 0)
        fault = strerror(errno);
    else if (!S_ISREG(ix_stat.st_mode))
        fault = "it is no file";
    else if (is_older(ix_stat.st_mtim, ts_stat.st_mtim))
        fault = "it is older than the stream";
    if (!fault) fault = index_fault(ix->fd, src.size_bytes, duration);
    if (!fault) return true;
    fprintf(stderr, "kvt-play: %s is not used, since %s; an index is made for this run\n", ix_path.c_str(), fault);
    *has_misfit = true;
    return false;
}

// Builds an index of what `ts_fd` holds at a path where there is none, and opens it.
bool build_index(int ts_fd, size_t ts_bytes, const std::string& ix_path, struct unique_fd* ix, uint64_t* duration)
{
    if (tsx_mkix(fd_path(ts_fd).c_str(), ix_path.c_str(), DATAGRAM_BYTES, BUILD_CACHE, 0) != 0) {
        fprintf(stderr, "kvt-play: no index could be built\n");
        return false;
    }
    ix->reset(open(ix_path.c_str(), OPEN_FLAGS));
    const char* const fault = ix->fd < 0 ? strerror(errno) : index_fault(ix->fd, ts_bytes, duration);
    if (!fault) return true;
    fprintf(stderr, "kvt-play: the stream's clock can't be played: in its index, %s\n", fault);
    return false;
}

// A file of the temporary directory, to write and read.
bool make_copy_file(const struct temp_room& room, const char* name, struct unique_fd* file)
{
    file->reset(open(room.path(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file->fd >= 0) return true;
    fprintf(stderr, "kvt-play: can't make %s: %s\n", room.path(name).c_str(), strerror(errno));
    return false;
}

bool has_pace(const char* path, const struct stream_account& acc)
{
    const char* fault = nullptr;
    if (acc.packets == 0)
        fault = "it holds no transport stream";
    else if (acc.packets * TS_MIN_PKTSIZE <= DATAGRAM_BYTES)
        fault = "it is shorter than two datagrams";
    else if (acc.clock_pcrs < 2)
        fault = "it has no two PCRs on one PID";
    else if (acc.ticks_per_packet <= 0)
        fault = "its PCRs give no rate";
    else if (acc.ticks_per_packet < LEAST_TICKS_PER_PACKET)
        fault = "it has not a tick of its clock for each datagram";
    if (fault) fprintf(stderr, "kvt-play: %s can't be played: %s\n", path, fault);
    return !fault;
}

std::string dir_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Builds the index in a room beside its lasting place and puts it there when it is whole, so that others who play the
// stream meanwhile never see half an index.
bool build_lasting(int ts_fd, const struct temp_room& beside, const std::string& ix_path, struct play_source* src,
                   struct unique_fd* ix)
{
    const std::string made = beside.path("clock.ix");
    if (!build_index(ts_fd, src->size_bytes, made, ix, &src->duration_ticks)) return false;
    if (rename(made.c_str(), ix_path.c_str()) != 0)
        fprintf(stderr, "kvt-play: the index can't stay as %s: %s\n", ix_path.c_str(), strerror(errno));
    return true;
}

// Reads the stream through, and makes the copies and the index that it takes. The index stays at `lasting_path` if that
// is not empty and the directory can be written to.
bool prepare(const char* path, const std::string& lasting_path, bool say_more, struct play_source* src,
             struct unique_fd* ix)
{
    struct stream_account acc;
    if (!scan_stream(src->ts_fd, &acc)) {
        if (!g_quit) fprintf(stderr, "kvt-play: can't read %s\n", path);
        return false;
    }
    if (!has_pace(path, acc)) return false;
    struct temp_room room, beside;
    const bool is_lasting = acc.is_plain && !lasting_path.empty() && beside.make_in(dir_of(lasting_path));
    if (say_more)
        fprintf(stderr, "kvt-play: making an index%s%s\n", is_lasting ? ", " : "",
                is_lasting ? lasting_path.c_str() : "");

    struct unique_fd plain, clock;
    if ((!acc.is_plain || !acc.has_even_clock) && !room.make()) return false;
    if (!acc.is_plain && !make_copy_file(room, "plain.ts", &plain)) return false;
    if (!acc.has_even_clock && !make_copy_file(room, "clock.ts", &clock)) return false;
    if ((plain.fd >= 0 || clock.fd >= 0) && !copy_stream(src->ts_fd, acc, plain.fd, clock.fd)) return false;
    if (plain.fd >= 0) {
        (void)close(src->ts_fd); // read from only
        src->ts_fd = plain.release();
        src->size_bytes = acc.packets * TS_MIN_PKTSIZE;
    }
    const int timed_fd = clock.fd >= 0 ? clock.fd : src->ts_fd;
    if (is_lasting) {
        if (build_lasting(timed_fd, beside, lasting_path, src, ix)) return true;
        fprintf(stderr, "kvt-play: trying to make one for this run\n"); // that directory's disk may be full
    }
    return room.make() && build_index(timed_fd, src->size_bytes, room.path("clock.ix"), ix, &src->duration_ticks);
}

} // namespace

bool source_open(const char* path, const struct source_options& opt, struct play_source* src)
{
    struct stat st;
    src->ts_fd = open(path, OPEN_FLAGS);
    if (src->ts_fd < 0 || fstat(src->ts_fd, &st) != 0) {
        fprintf(stderr, "kvt-play: can't open %s: %s\n", path, strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        fprintf(stderr, "kvt-play: %s is no file\n", path);
        return false;
    }
    src->size_bytes = static_cast<size_t>(st.st_size);
    std::string ix_path;
    if (strchr(get_base(path), '.')) {
        if (char* const p = tsx_ixpath(path)) {
            ix_path = p;
            free(p);
        }
    }
    struct unique_fd ix;
    bool has_misfit = false;
    if (ix_path.empty() || !take_index(*src, ix_path, &ix, &src->duration_ticks, &has_misfit)) {
        const bool stays = opt.keep_index && !has_misfit; // what doesn't fit is somebody's, and left alone
        if (!prepare(path, stays ? ix_path : "", opt.say_more, src, &ix)) return false;
    }
    src->ix_fd = ix.release();
    return true;
}

void source_close(struct play_source* src)
{
    for (int* fd : {&src->ts_fd, &src->ix_fd})
        if (*fd >= 0) (void)close(std::exchange(*fd, -1)); // read from only
}

tsix_t source_begin(const struct play_source& src)
{
    if (lseek(src.ts_fd, 0, SEEK_SET) != 0) return nullptr;
    return tsx_open(fd_path(src.ts_fd).c_str(), fd_path(src.ix_fd).c_str(), MIN_PLD_CACHED, 0);
}
