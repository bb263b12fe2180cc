// What the parts of the application share among themselves: names, the feed's state, the checks of the chief record.
#ifndef TAVRIN_APP_INT_H
#define TAVRIN_APP_INT_H

#include "mmr.h"
#include "tavrin/app.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The feed's memory from call to call; lives as long as the process and is never reset.
struct process_ctx {
    size_t pkt_count;    // packets fed to the analyzer so far
    uint64_t pkt_idx;    // running packet index; restarts at pkt_reset_idx
    size_t tail_size;    // bytes carried over in abuf from the previous call
    struct mm_info info; // the ring's picture of the stream; ts_len 0: not yet known
};

namespace app_int
{

// The program's name, in texts, tags and the network side.
inline constexpr char name[] = "kvt";
// The application's row of the level table.
inline constexpr int log_module = 0;

// Bytes of a size in Mb.
inline constexpr size_t mb_bytes(size_t mb)
{
    return mb << 20;
}
static_assert(mb_bytes(2) == 2097152);

// The most payload that the ring may keep, so that the next read finds its room; also the carry-over buffer's size.
inline size_t max_payload(const struct kvti_cfg* cfg)
{
    return mb_bytes(cfg->cache_sz_mb) - cfg->min_read_bytes;
}

// Copies at most dstlen - 1 characters and terminates: what is too long is cut.
// Requires: dstlen above 0.
void copy_text(char* dst, size_t dstlen, const char* src);

// The feed's state, for tests and the dump.
const struct process_ctx* feed_state();

// Takes note of bytes that went into the ring while the analyzer is off. Packets that leave the ring are counted once
// numbering is in use, so those that come in past the analyzer have to be counted, too.
void feed_pass_by(size_t nbytes);

// The first invariant of the run-time state that does not hold, in words; null if all hold. No effects.
const char* validate_ctx(const struct kvti_ctx* ctx, const struct process_ctx* feed);
// The run-time state in words, for the debugger and a failed test.
void dump_ctx(FILE* fp, const struct kvti_ctx* ctx, const struct process_ctx* feed);

// In builds with deep checks: a state that is not valid is shown on stderr, and the process aborts.
#ifdef KVT_DEEP_CHECKS
void deep_check();
#else
inline void deep_check() {}
#endif

} // namespace app_int

#endif // TAVRIN_APP_INT_H
