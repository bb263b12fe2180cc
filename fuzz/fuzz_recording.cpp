// Under attack: what kvt-play makes of a recording. Whatever the bytes, it is refused for want of packets or of a pace,
// or there is an index that plays the whole of it.
#include "fuzz/fuzz_common.h"
#include "mpegts.h"
#include "tools/play_scan.h"
#include "tools/play_source.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr size_t DATAGRAM_BYTES = 7 * TS_MIN_PKTSIZE;

// The lines for the user, one for each refusal, would hide those of a finding.
void open_quietly(const std::string& path, struct play_source* src, bool* is_open)
{
    const int err = dup(STDERR_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    FUZZ_CHECK(err >= 0 && null >= 0 && dup2(null, STDERR_FILENO) == STDERR_FILENO);
    *is_open = source_open(path.c_str(), {}, src);
    FUZZ_CHECK(dup2(err, STDERR_FILENO) == STDERR_FILENO);
    close(err);
    close(null);
}

void play_all(const struct play_source& src)
{
    tsix_t t = source_begin(src);
    FUZZ_CHECK(t != nullptr);
    size_t sum = 0, delay = 0;
    ssize_t n;
    while ((n = tsx_next(t, 3 * DATAGRAM_BYTES, 10, &delay)) > 0)
        sum += static_cast<size_t>(n);
    FUZZ_CHECK(n == 0 && sum == src.size_bytes && src.duration_ticks > 0);
    tsx_close(t);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setenv("TMPDIR", "/dev/shm", 1);
    const int fd = memfd_create("kvt-fuzz", 0);
    FUZZ_CHECK(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));

    struct stream_account acc;
    FUZZ_CHECK(scan_stream(fd, &acc) && acc.file_bytes == size);
    const size_t stream_bytes = acc.is_plain ? size : acc.packets * TS_MIN_PKTSIZE;
    const bool has_pace = acc.packets * TS_MIN_PKTSIZE > DATAGRAM_BYTES && acc.clock_pcrs > 1 &&
                          acc.ticks_per_packet >= LEAST_TICKS_PER_PACKET;

    struct play_source src;
    bool is_open = false;
    open_quietly(path_of(fd), &src, &is_open);
    FUZZ_CHECK(is_open == has_pace);
    if (is_open) {
        FUZZ_CHECK(src.size_bytes == stream_bytes);
        play_all(src);
    }
    source_close(&src);
    close(fd);
    return 0;
}
