// tsix: makes, shows and plays index files at the command line.
//   tsix make [-r BYTES] [-c BYTES] [-V] [-v] FILE.ts [FILE.ix]     builds the index
//   tsix show FILE.ix                                               prints header and records, of broken files too
//   tsix runs [-c BYTES] [-V] [-v] BYTES MS FILE.ts [FILE.ix]       prints each run as "bytes microseconds"
// Exit status: 0, 1 on failure, 2 on a wrong command line. The log goes to standard error.
// The library asserts some of what a stream or an index holds. Files are looked through for that first, so that a user
// gets a line instead of a core dump.
#include "log.h"
#include "mpegts.h"
#include "tsix.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

TV_LOG_MODULE(0)

namespace
{

constexpr int EXIT_USAGE = 2;
constexpr size_t D_RECORD_BYTES = 7 * TS_MIN_PKTSIZE; // what a datagram holds

struct options {
    size_t rsize = D_RECORD_BYTES;
    size_t max_cached = 0;
    uint32_t flags = 0;
};

struct file_closer {
    void operator()(FILE* fp) const { (void)fclose(fp); } // only read from
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct text_free {
    void operator()(char* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, text_free>;

struct tsix_closer {
    void operator()(tsix_t tsx) const { tsx_close(tsx); }
};
using tsix_ptr = std::unique_ptr<struct tsix_ctx, tsix_closer>;

int usage()
{
    (void)fprintf(stderr, "usage: tsix make [-r BYTES] [-c BYTES] [-V] [-v] FILE.ts [FILE.ix]\n"
                          "       tsix show FILE.ix\n"
                          "       tsix runs [-c BYTES] [-V] [-v] BYTES MS FILE.ts [FILE.ix]\n");
    return EXIT_USAGE;
}

// A whole decimal number.
bool parse_number(const char* text, size_t* value)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || *text == '-') return false;
    *value = static_cast<size_t>(n);
    return true;
}

bool parse_options(int argc, char** argv, struct options* o)
{
    int c;
    while ((c = getopt(argc, argv, "r:c:Vv")) != -1) {
        switch (c) {
        case 'r':
            if (!parse_number(optarg, &o->rsize) || o->rsize == 0) return false;
            break;
        case 'c':
            if (!parse_number(optarg, &o->max_cached)) return false;
            break;
        case 'V': o->flags |= TSX_VARLEN; break;
        case 'v': log_set_modules(&g_log, ll::debug); break;
        default: return false;
        }
    }
    return true;
}

int refuse(const char* path, const char* fault)
{
    (void)fprintf(stderr, "tsix: %s: %s\n", path, fault);
    return EXIT_FAILURE;
}

// Why building an index of a stream would fail an assertion; null if it would not. Where the file can't be read as
// packets this says nothing: the library does.
const char* stream_fault(const char* path)
{
    const file_ptr fp(fopen(path, "rb"));
    struct stat st;
    if (!fp || fstat(fileno(fp.get()), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
    if (static_cast<size_t>(st.st_size) % TS_MIN_PKTSIZE != 0) return "not whole packets of 188 bytes";
    uint8_t pkt[TS_MIN_PKTSIZE];
    while (fread(pkt, sizeof(pkt), 1, fp.get()) == 1 && pkt[0] == MPEG_TS_SYNC)
        if (ts_has_pcr(pkt)) return ts_pid(pkt) == 0 ? "its first PCR is on PID 0" : nullptr;
    return nullptr;
}

int make_index(const struct options& o, int argc, char** argv)
{
    if (argc < 1 || argc > 2) return usage();
    if (const char* const fault = stream_fault(argv[0])) return refuse(argv[0], fault);
    return tsx_mkix(argv[0], argc > 1 ? argv[1] : nullptr, o.rsize, o.max_cached, o.flags) == 0 ? EXIT_SUCCESS
                                                                                                : EXIT_FAILURE;
}

// Prints the records behind the header; true if they are as many as the header says.
bool show_records(FILE* fp, const struct tsix_header& h)
{
    uint64_t count = 0;
    uint8_t raw[sizeof(struct tsd_srec)];
    struct tsd_srec sr = {};
    for (; fread(raw, h.irec_size, 1, fp) == 1; ++count) {
        memcpy(&sr, raw, h.irec_size);
        printf("%" PRIu64 " %" PRIu64, count, uint64_t{sr.sclk});
        if (h.irec_size == sizeof(sr)) printf(" %u", unsigned{sr.rsize});
        printf("\n");
    }
    if (count == h.irec_count) return true;
    printf("wrong: %" PRIu64 " records in the file\n", count);
    return false;
}

int show_index(int argc, char** argv)
{
    if (argc != 1) return usage();
    const file_ptr fp(fopen(argv[0], "rb"));
    if (!fp) {
        perror(argv[0]);
        return EXIT_FAILURE;
    }
    uint8_t raw[sizeof(struct tsix_header)];
    struct tsix_header h;
    if (fread(raw, sizeof(raw), 1, fp.get()) != 1) {
        printf("wrong: no header\n");
        return EXIT_FAILURE;
    }
    memcpy(&h, raw, sizeof(h));
    printf("magic %.4s version %u runits %u flags %u irec_count %" PRIu64 " irec_size %u\n", h.magic,
           unsigned{h.version}, unsigned{h.runits}, unsigned{h.flags}, uint64_t{h.irec_count}, unsigned{h.irec_size});
    const bool is_open = h.magic[0] == TSX_MAGIC_OPEN;
    if ((!is_open && h.magic[0] != TSX_MAGIC[0]) || memcmp(h.magic + 1, TSX_MAGIC + 1, sizeof(h.magic) - 1) != 0 ||
        h.version != TSX_VERSION) {
        printf("wrong: no index of version %u\n", unsigned{TSX_VERSION});
        return EXIT_FAILURE;
    }
    if (is_open) printf("wrong: incomplete\n");
    if (h.irec_size != sizeof(struct tsd_irec) && h.irec_size != sizeof(struct tsd_srec)) {
        printf("wrong: record size\n");
        return EXIT_FAILURE;
    }
    return show_records(fp.get(), h) && !is_open ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Looks for the first of an index's records that can't be played.
bool has_bad_record(FILE* fp, const struct tsix_header& h, char* fault, size_t fault_size)
{
    uint8_t raw[sizeof(struct tsd_srec)];
    struct tsd_srec sr = {0, 1};
    for (uint64_t i = 0; i < h.irec_count && fread(raw, h.irec_size, 1, fp) == 1; ++i) {
        memcpy(&sr, raw, h.irec_size);
        if (sr.sclk != 0 && sr.rsize != 0) continue;
        (void)snprintf(fault, fault_size, "record %" PRIu64 " has no %s", i, sr.sclk == 0 ? "time" : "size");
        return true;
    }
    return false;
}

// Tells in `fault` why playing an index would fail an assertion; false if it would not. Of files that aren't there, of
// another version and so on this says nothing: the library does.
bool index_fault(const char* ts_path, const char* ix_path, uint32_t flags, char* fault, size_t fault_size)
{
    const file_ptr fp(fopen(ix_path, "rb"));
    uint8_t raw[sizeof(struct tsix_header)];
    struct tsix_header h;
    struct stat st;
    if (!fp || stat(ts_path, &st) != 0 || fread(raw, sizeof(raw), 1, fp.get()) != 1) return false;
    memcpy(&h, raw, sizeof(h));
    if (memcmp(h.magic, TSX_MAGIC, sizeof(h.magic)) != 0 || h.version != TSX_VERSION) return false;

    const bool has_sizes = (flags & TSX_VARLEN) != 0;
    const size_t rsize = h.runits > 0 ? h.runits * TS_MIN_PKTSIZE : TS_MIN_PKTSIZE;
    const char* text = nullptr;
    if (h.irec_count == 0) {
        text = "no records";
    } else if (static_cast<uint64_t>(st.st_size) < rsize) {
        text = "its records are larger than the stream";
    } else if (h.irec_size != sizeof(struct tsd_irec) && h.irec_size != sizeof(struct tsd_srec)) {
        text = "unknown record size";
    } else if (h.irec_size != (has_sizes ? sizeof(struct tsd_srec) : sizeof(struct tsd_irec))) {
        return false;
    } else if (!has_sizes && h.runits == 0) {
        text = "no size of its records";
    }
    if (!text) return has_bad_record(fp.get(), h, fault, fault_size);
    (void)snprintf(fault, fault_size, "%s", text);
    return true;
}

int play_runs(const struct options& o, int argc, char** argv)
{
    size_t max_len = 0;
    size_t max_delay = 0;
    if (argc < 3 || argc > 4 || !parse_number(argv[0], &max_len) || !parse_number(argv[1], &max_delay)) return usage();
    const text_ptr derived(argc > 3 ? nullptr : tsx_ixpath(argv[2]));
    const char* const ix_path = argc > 3 ? argv[3] : derived.get();
    if (!ix_path) return refuse(argv[2], "no path of an index can be derived");
    char fault[80];
    if (index_fault(argv[2], ix_path, o.flags, fault, sizeof(fault))) return refuse(ix_path, fault);
    const tsix_ptr tsx(tsx_open(argv[2], ix_path, o.max_cached, o.flags));
    if (!tsx) return EXIT_FAILURE;
    size_t delay = 0;
    ssize_t n;
    while ((n = tsx_next(tsx.get(), max_len, max_delay, &delay)) > 0)
        printf("%zd %zu\n", n, delay);
    return n == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    glog_init("tsix");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, ll::error);
    if (argc < 2) return usage();
    const char* command = argv[1];
    struct options o;
    if (!parse_options(argc - 1, argv + 1, &o)) return usage();
    const int left = argc - 1 - optind;
    char** operands = argv + 1 + optind;
    if (strcmp(command, "make") == 0) return make_index(o, left, operands);
    if (strcmp(command, "show") == 0) return show_index(left, operands);
    if (strcmp(command, "runs") == 0) return play_runs(o, left, operands);
    return usage();
}
