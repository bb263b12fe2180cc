// Under attack: the building of an index from bytes that may be a stream, and the reading of what came of it.
//
// The first byte is the record size in packets, with the high bit for the kind of records. The rest is cut to whole
// packets; a first PCR on PID 0, which ends the process by design, is moved.
#include "fuzz/fuzz_common.h"
#include "mpegts.h"
#include "tsix.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace
{

constexpr uint8_t varlen_bit = 0x80;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const size_t units = (data[0] & ~varlen_bit & 0xffU) + 1;
    const uint32_t flags = data[0] & varlen_bit ? TSX_VARLEN : 0;
    std::vector<uint8_t> stream = exact_copy({data + 1, (size - 1) / TS_MIN_PKTSIZE * TS_MIN_PKTSIZE});
    for (size_t at = 0; at < stream.size(); at += TS_MIN_PKTSIZE)
        if (ts_pid(&stream[at]) == 0) stream[at + tsf::pid_low_ofs] = 1;

    const int ts_fd = memfd_create("kvt-fuzz", 0);
    FUZZ_CHECK(ts_fd >= 0 && write(ts_fd, stream.data(), stream.size()) == static_cast<ssize_t>(stream.size()));
    char dir[] = "/dev/shm/kvt-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(dir) != nullptr);
    const std::string ix = std::string(dir) + "/a.ix";

    const int rc = tsx_mkix(path_of(ts_fd).c_str(), ix.c_str(), units * TS_MIN_PKTSIZE, 0, flags);
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == 22);
    if (rc == 0) {
        tsix_t t = tsx_open(path_of(ts_fd).c_str(), ix.c_str(), 0, flags);
        FUZZ_CHECK(t != nullptr);
        size_t sum = 0, delay = 0;
        ssize_t n;
        while ((n = tsx_next(t, units * TS_MIN_PKTSIZE * 3, 40, &delay)) > 0)
            sum += static_cast<size_t>(n);
        FUZZ_CHECK(n == 0 && sum == stream.size());
        tsx_close(t);
    }
    unlink(ix.c_str());
    FUZZ_CHECK(rmdir(dir) == 0);
    close(ts_fd);
    return 0;
}
