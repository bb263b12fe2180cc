// Under attack: the reading of an index file, from its header to its last run.
//
// The first byte chooses kind of records and limits. What ends the process by design (no records, an unknown record
// size, a clock or a size of 0) is changed before the file is written.
#include "fuzz/fuzz_common.h"
#include "tsix.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace
{

constexpr size_t stream_bytes = ONE_Mb + 188 * 255 * 3 + 100; // three of the largest records more than the cache

// Takes out what ends the process by design.
void mend(std::vector<uint8_t>* index, bool varlen)
{
    struct tsix_header h;
    if (index->size() < sizeof(h)) return;
    memcpy(&h, index->data(), sizeof(h));
    if (h.irec_count == 0) h.irec_count = 1;
    if (h.irec_size != sizeof(tsd_irec) && h.irec_size != sizeof(tsd_srec)) h.irec_size = varlen ? 10 : 8;
    if (!varlen && h.runits == 0) h.runits = 1;
    memcpy(index->data(), &h, sizeof(h));
    const size_t step = varlen ? sizeof(tsd_srec) : sizeof(tsd_irec);
    for (size_t at = sizeof(h); at + step <= index->size(); at += step) {
        struct tsd_srec sr = {};
        memcpy(&sr, index->data() + at, step);
        if (sr.sclk == 0) sr.sclk = 1;
        if (sr.rsize == 0) sr.rsize = 1;
        memcpy(index->data() + at, &sr, step);
    }
}

int memory_file(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("kvt-fuzz", 0);
    FUZZ_CHECK(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const bool varlen = data[0] & 1;
    const size_t max_len = size_t{data[0]} * 1000;
    const size_t max_delay = data[0] & 2 ? SIZE_MAX : data[0];
    std::vector<uint8_t> index = exact_copy({data + 1, size - 1});
    mend(&index, varlen);
    const int ix_fd = memory_file(index.data(), index.size());
    const int ts_fd = memory_file(nullptr, 0);
    FUZZ_CHECK(ftruncate(ts_fd, stream_bytes) == 0);

    tsix_t t = tsx_open(path_of(ts_fd).c_str(), path_of(ix_fd).c_str(), ONE_Mb, varlen ? TSX_VARLEN : 0);
    if (t) {
        FUZZ_CHECK(tsx_validate(t));
        const size_t most = index.size() / sizeof(tsd_irec) + 1; // each call takes a record
        size_t sum = 0, calls = 0, delay = 0;
        ssize_t n;
        while ((n = tsx_next(t, max_len, max_delay, &delay)) > 0) {
            sum += static_cast<size_t>(n);
            FUZZ_CHECK(++calls <= most && sum <= stream_bytes && tsx_validate(t));
        }
        FUZZ_CHECK(n == 0 || n == -1);
    }
    tsx_close(t);
    close(ix_fd);
    close(ts_fd);
    return 0;
}
