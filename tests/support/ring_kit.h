// What the ring's tests share: a fixture with a ring and the lines that it logs, and a stream whose every byte is
// known by its place.
#ifndef TESTS_SUPPORT_RING_KIT_H
#define TESTS_SUPPORT_RING_KIT_H

#include "lib/mmr_int.h"
#include "log.h"
#include "mmr.h"
#include "support/log_capture.h"
#include "support/ts_build.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define RING_KIT_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RING_KIT_LEAK_CHECK 1
#endif
#endif
#if defined(RING_KIT_LEAK_CHECK)
#include <sanitizer/lsan_interface.h>
#endif

namespace ringkit
{

using tsb::bytes;
using tsb::bytes_view;

inline constexpr size_t MIB = 1048576;
inline const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// printf to a string.
__attribute__((format(printf, 1, 2))) inline std::string text(const char* fmt, ...)
{
    char out[1024];
    va_list ap;
    va_start(ap, fmt);
    (void)vsnprintf(out, sizeof(out), fmt, ap);
    va_end(ap);
    return out;
}

// Byte `at` of an endless stream of TS units: a sync byte at each multiple of the unit, never one in between, and
// neighbours, units and laps of a ring that differ.
inline uint8_t stream_byte(size_t at, size_t unit = 188)
{
    if (at % unit == 0) return 0x47;
    const size_t mix = at * 7 + at / unit * 13 + at / 4096 * 5;
    return static_cast<uint8_t>(0x80 | (mix & 0x7f));
}

// Bytes `from` to `from + count` of that stream.
inline bytes ts_bytes(size_t count, size_t from = 0, size_t unit = 188)
{
    bytes out(count);
    for (size_t i = 0; i < count; ++i)
        out[i] = stream_byte(from + i, unit);
    return out;
}

// `count` RTP packets of seven TS packets, 1328 bytes each.
inline bytes rtp_bytes(size_t count)
{
    std::vector<tsb::packet> pkts(count * 7, tsb::pkt().pid(101));
    return tsb::cat(tsb::rtp_run(pkts));
}

// The lines of g_log without time: "(ERR)  text\n". Those of the ring come down to debug, those of
// the modules below it down to their usual level.
class line_log
{
public:
    line_log()
    {
        log_timefmt(&g_log, LTF_NO_TIME);
        log_set_modules(&g_log, ll::normal);
        g_mod_ll[0] = ll::debug;
    }

    std::string text() const { return capture.text(); }
    void clear() { capture.clear(); }
    bool has(const std::string& part) const { return text().find(part) != std::string::npos; }
    size_t count(const std::string& part) const
    {
        const std::string all = text();
        size_t n = 0;
        for (size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size()))
            ++n;
        return n;
    }

private:
    LogCapture capture;
};

class ring_test : public ::testing::Test
{
protected:
    line_log log;
    mmr_t ring = nullptr;

    void TearDown() override
    {
        if (ring) mmr_destroy(ring);
    }

    void make(size_t size) { ASSERT_EQ(mmr_create(&ring, size), 0); }

    // One round of the writer: these bytes as one read. The result of mmr_iput.
    int put(bytes_view data)
    {
        struct mm_point pt = {};
        uint8_t* dest = mmr_iget(ring, &pt);
        if (!dest || pt.len < data.size()) {
            ADD_FAILURE() << "no room for " << data.size() << " bytes";
            return -1;
        }
        std::copy(data.begin(), data.end(), dest);
        pt.len = data.size();
        return mmr_iput(ring, &pt);
    }

    // Takes bytes off the head, whatever they are.
    void take(size_t count)
    {
        const struct iovec rec = {nullptr, count};
        ASSERT_GE(mmr_oput(ring, &rec, 1), 0);
    }

    // A running TS ring of `size` bytes whose head stands at `pos`, with this payload. The bytes ahead of it have
    // come in and gone.
    void make_standing(size_t size, size_t pos, bytes_view payload)
    {
        make(size);
        ASSERT_GE(pos, 1316u) << "a stream has to be recognised first";
        ASSERT_EQ(put(ts_bytes(1316)), 0);
        ASSERT_EQ(put(ts_bytes(pos - 1316, 1316)), 0);
        take(pos);
        ASSERT_EQ(put(payload), 0);
        ASSERT_EQ(ring->pld_pos, static_cast<off_t>(pos));
        ASSERT_EQ(ring->pld_size, payload.size());
        log.clear();
    }

    void unpacked()
    {
        const struct mm_opt opt = {.no_mtu_pack = true};
        mmr_set_opt(ring, &opt);
    }

    struct mm_info info() const
    {
        struct mm_info out = {};
        EXPECT_EQ(mmr_get_info(ring, &out), 0);
        return out;
    }

    size_t payload_size() const { return info().pld_size; }
    std::string name() const { return ring->sname; }

    // The payload, byte for byte.
    bytes payload() const
    {
        if (ring->pld_pos < 0) return {};
        const uint8_t* head = ring->buf + ring->pld_pos;
        return bytes(head, head + ring->pld_size);
    }

    // Fields that no reader's call on a span, and no refused call, may touch.
    std::string state() const
    {
        return text("%ld %zu %s %zu %d %ld %ld", static_cast<long>(ring->pld_pos), ring->pld_size, ring->stype.sym,
                    ring->ts_len, ring->using_pktnums, static_cast<long>(ring->first_pktnum),
                    static_cast<long>(ring->last_pktnum));
    }
};

// A call of the reader with room for `room` records, and what it gave.
struct cut {
    int rc = 0;
    size_t count = 0;
    ssize_t offset = 0;
    std::vector<struct iovec> recs;

    // On the payload.
    static cut of(mmr_t ring, size_t room = 256)
    {
        cut c;
        c.count = room;
        c.recs.resize(std::max<size_t>(room, 1));
        c.rc = mmr_oget(ring, c.recs.data(), &c.count);
        return c;
    }

    // On a span.
    static cut of(mmr_t ring, std::span<uint8_t> span, size_t room = 256)
    {
        cut c;
        c.count = room;
        c.recs.resize(std::max<size_t>(room, 1));
        c.rc = mmr_oget_buf(ring, span.data(), span.size(), c.recs.data(), &c.count, &c.offset);
        return c;
    }

    std::vector<size_t> lengths() const
    {
        std::vector<size_t> out;
        for (size_t i = 0; i < count && i < recs.size(); ++i)
            out.push_back(recs[i].iov_len);
        return out;
    }

    const uint8_t* at(size_t i) const { return static_cast<const uint8_t*>(recs.at(i).iov_base); }
};

// True if the byte at an address can be read, asked of the kernel so that a fault ends nothing.
inline bool readable(const void* addr)
{
    int fd[2];
    if (pipe(fd) != 0) return false;
    const bool ok = write(fd[1], addr, 1) == 1;
    close(fd[0]);
    close(fd[1]);
    return ok;
}

// True if the byte at an address can be written; it is then 0.
inline bool writable(void* addr)
{
    int fd[2];
    if (pipe(fd) != 0) return false;
    const char zero = 0;
    const bool ok = write(fd[1], &zero, 1) == 1 && read(fd[0], addr, 1) == 1;
    close(fd[0]);
    close(fd[1]);
    return ok;
}

// True if a name exists among the shared memory objects.
inline bool object_exists(const std::string& name)
{
    return access(("/dev/shm" + name).c_str(), F_OK) == 0;
}

// For the calls in its scope the leak check looks away: a ring that gets no object keeps its handle, by design.
struct [[maybe_unused]] handle_is_kept {
#if defined(RING_KIT_LEAK_CHECK)
    __lsan::ScopedDisabler disabler;
#endif
};

inline size_t open_fds()
{
    size_t count = 0;
    for (int fd = 0; fd < 1024; ++fd)
        if (fcntl(fd, F_GETFD) != -1) ++count;
    return count;
}

} // namespace ringkit

#endif // TESTS_SUPPORT_RING_KIT_H
