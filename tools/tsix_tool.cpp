// tsix: makes, shows and plays index files at the command line.
//   tsix make [-r BYTES] [-c BYTES] [-V] [-v] FILE.ts [FILE.ix]     builds the index
//   tsix show FILE.ix                                               prints header and records, of broken files too
//   tsix runs [-c BYTES] [-V] [-v] BYTES MS FILE.ts [FILE.ix]       prints each run as "bytes microseconds"
// Exit status: 0, 1 on failure, 2 on a wrong command line. The log goes to standard error.
#include "log.h"
#include "mpegts.h"
#include "tsix.h"

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

int make_index(const struct options& o, int argc, char** argv)
{
    if (argc < 1 || argc > 2) return usage();
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

int play_runs(const struct options& o, int argc, char** argv)
{
    size_t max_len = 0;
    size_t max_delay = 0;
    if (argc < 3 || argc > 4 || !parse_number(argv[0], &max_len) || !parse_number(argv[1], &max_delay)) return usage();
    const tsix_ptr tsx(tsx_open(argv[2], argc > 3 ? argv[3] : nullptr, o.max_cached, o.flags));
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
