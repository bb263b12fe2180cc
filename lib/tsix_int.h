// What the parts of the index share: its record, and the steps of building and reading.
// For lib/tsix*.cpp and the index's own tests; everybody else holds a tsix_t.
#ifndef TV_TSIX_INT_H
#define TV_TSIX_INT_H

#include "mpegts.h"
#include "tsix.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <type_traits>

// Index records in memory, by the kind that the context's flags name.
union tsidx_buf {
    struct tsd_irec* ir;
    struct tsd_srec* sr; // with TSX_VARLEN
    void* ptr;
};

struct tsix_iter {
    bool is_ready;     // the index is open
    size_t idx;        // next record
    size_t start_idx;  // number of the first record in ixbuf
    uint64_t old_sclk; // clock of the last record handed out
    size_t bytes_out;  // stream bytes handed out
};

// One record for both uses. A builder has rsize from the start, a loaded buf, and fills ixbuf; a reader has
// iter.is_ready, no buf, and empties ixbuf.
struct tsix_ctx {
    uint32_t flags;          // TSX_
    int tsfd;                // the stream file
    int ixfd;                // the index file, -1 when closed
    union tsidx_buf ixbuf;   // index records in memory
    size_t max_icount;       // capacity of ixbuf in records
    size_t icount;           // records in ixbuf that are not written yet
    size_t start_irec;       // records written
    const char* ixpath;      // copy of the index path
    uint64_t next_ix_offset; // position in the stream file that the records have reached
    uint8_t* buf;            // stream bytes in memory: the load
    size_t buflen;           // size of buf
    size_t pld_len;          // valid bytes in buf
    size_t max_cached;       // most stream bytes held at a time
    size_t ts_size;          // size of the stream file
    off_t ts_offset;         // position of buf in the stream file
    size_t rsize;            // record size in bytes, a multiple of 188
    uint16_t pcr_pid;        // PID found by the scan for a PCR
    uint64_t last_pcr;       // last PCR seen; P2_33: none yet
    uint64_t last_pcr_delta; // ticks between the last two PCRs
    bool is_pre_pcr;         // the records before the second PCR are still owed
    size_t last_nix_dgrams;  // records counted for the last PCR interval
    uint64_t last_sclk;      // stream clock reached
    ssize_t nix_pkt_count;   // packets seen and not covered by records yet; below 0 where a record reaches ahead
    size_t pcr_count;        // PCRs seen
    struct tsix_iter iter;
    struct tsix_header header;
    bool is_eod; // the records have reached the end of the load
};

// All zero is a context of which nothing has been made yet, but for the descriptors.
static_assert(std::is_trivially_default_constructible_v<tsix_ctx> && std::is_standard_layout_v<tsix_ctx>);

namespace tsix_int
{

// Results of the build's steps besides 0 and -1.
inline constexpr int IX_LOST_SYNC = 22;
inline constexpr int IX_NO_RATE = -2; // the stream gives no rate: the file goes, and the caller gets -1

// Owner of memory that came from malloc or calloc.
struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;
static_assert(sizeof(text_ptr) == sizeof(char*));

// ---- the context (tsix.cpp) -----------------------------------------------------------------------------------

// Opens a stream file; without TSX_SKIPLOAD also reads the first load. Null with errno set on failure.
[[nodiscard]] struct tsix_ctx* ts_open(const char* tspath, size_t rsize, size_t max_cached, uint32_t flags);
// Reads the next load. 0, or -1.
[[nodiscard]] int load_buf(struct tsix_ctx* t);
// Closes and frees all, and the record itself; errno stays. `func` names the operation in the lines.
void destroy(const char* func, struct tsix_ctx* t);

// Bytes of a record in the index file, by the context's flags.
inline size_t irec_bytes(const struct tsix_ctx* t)
{
    return (t->flags & TSX_VARLEN) != 0 ? sizeof(struct tsd_srec) : sizeof(struct tsd_irec);
}

// Reads until `dest` is full or the file ends. The count read, or -1.
[[nodiscard]] ssize_t read_full(int fd, std::span<uint8_t> dest);
// Writes all. The count written, or -1 if it is none.
[[nodiscard]] ssize_t write_full(int fd, std::span<const uint8_t> src);

// A copy of a path, or null; `func` names the operation in the line.
[[nodiscard]] char* dup_path(const char* func, const char* path);

// The bytes of the first `count` records of ixbuf.
inline std::span<uint8_t> irec_span(const struct tsix_ctx* t, size_t count)
{
    return {static_cast<uint8_t*>(t->ixbuf.ptr), count * irec_bytes(t)};
}

// ---- building (tsix_build.cpp) --------------------------------------------------------------------------------

// Each gives 0 or a failure: -1, IX_LOST_SYNC, IX_NO_RATE.
[[nodiscard]] int build_ix(struct tsix_ctx* t, const char* ixpath);
[[nodiscard]] int create_ix(struct tsix_ctx* t, const char* ixpath);
[[nodiscard]] int scan4pcr(struct tsix_ctx* t);
[[nodiscard]] int index_pkt(struct tsix_ctx* t, size_t idx, size_t pkt_num);
[[nodiscard]] int add_ix(struct tsix_ctx* t);
[[nodiscard]] int set_ix_clock(struct tsix_ctx* t, size_t dgram_count, uint64_t delta);
void update_ix(struct tsix_ctx* t, size_t rsize, uint64_t sclk);
[[nodiscard]] int add_tail(struct tsix_ctx* t);
[[nodiscard]] int flush_ix(struct tsix_ctx* t);
[[nodiscard]] int close_ix(struct tsix_ctx* t);
// The number of the first packet with a PCR and its PID in *pid; -1: a packet without sync; -3: no PCR.
[[nodiscard]] ssize_t get_pcr_pid(struct tsix_ctx* t, const uint8_t* buf, size_t npkts, uint16_t* pid);

// ---- reading (tsix_read.cpp) ----------------------------------------------------------------------------------

// Opens an index for the iterator. 0, or -1.
[[nodiscard]] int open_ix(struct tsix_ctx* t, const char* ixpath);
// A record of those in memory, by its number in the file. A wrong number, a clock of 0 and a size of 0 are assertions.
void get_srec(const struct tsix_ctx* t, size_t glb_idx, struct tsd_srec* sr);

// A logged assertion that all invariants hold.
void require_valid(const struct tsix_ctx* t);

// Deep check of a public function: validates on entry and on every way out. Nothing in ordinary builds.
struct [[maybe_unused]] deep_check {
#if defined(KVT_DEEP_CHECKS)
    explicit deep_check(const struct tsix_ctx* ctx) : t(ctx)
    {
        require_valid(t);
    }
    ~deep_check()
    {
        require_valid(t);
    }
    deep_check(const deep_check&) = delete;
    deep_check& operator=(const deep_check&) = delete;
    const struct tsix_ctx* t;
#else
    explicit deep_check(const struct tsix_ctx*) {}
#endif
};

} // namespace tsix_int

#endif // TV_TSIX_INT_H
