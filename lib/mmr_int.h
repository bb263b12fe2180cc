// What the parts of the ring share: its record, and the few steps that cross from one source file to another.
// For lib/mmr*.cpp and the ring's own tests; everybody else holds an mmr_t.
#ifndef TV_MMR_INT_H
#define TV_MMR_INT_H

#include "mmr.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

// States of a ring:
//
//     state    pld_pos        stype, ts_len   left by
//     unset    -1             0               the first input that is recognised
//     running  0 .. buflen    set for good    nothing but mmr_destroy
//
// Between calls 0 <= pld_size <= buflen. A pld_pos of buflen is the mirror's first byte, that is byte 0; so the
// payload always lies in one run from buf + pld_pos, inside the two mapped halves. The write position is
// pld_pos + pld_size, less buflen when that is buflen or more.
struct mm_ring {
    bool is_ready;        // all mappings exist
    uint8_t* buf;         // the first mapping; byte position 0
    size_t buflen;        // capacity, the size given to mmr_create
    size_t mm_len;        // length of the first mapping: both halves and the dead zone
    union n32_tag stype;  // stream type; num 0 until the first input is recognised
    size_t ts_len;        // unit length; 0 until the first input is recognised
    int sfd;              // the shared memory object
    char sname[128];      // its name
    uint8_t* ext;         // the mirror: buf + buflen
    void* ddz;            // the dead zone
    size_t ddz_len;       // its length: one page
    off_t pld_pos;        // position of the oldest payload byte, -1 until the first input is recognised
    size_t pld_size;      // payload held
    bool using_pktnums;   // packets are numbered
    int64_t first_pktnum; // number of the oldest packet
    int64_t last_pktnum;  // number one past the newest packet counted
    struct mm_opt opt;
    size_t synced_len; // bytes from the head on whose units capping has seen in sync; a multiple of ts_len
};

// All zero is a ring of which nothing has been made yet: mmr_destroy relies on it.
static_assert(std::is_trivially_default_constructible_v<mm_ring> && std::is_standard_layout_v<mm_ring>);
static_assert(offsetof(mm_ring, buf) < offsetof(mm_ring, ext) && offsetof(mm_ring, ext) < offsetof(mm_ring, ddz));
static_assert(sizeof(off_t) == 8, "positions are signed 64-bit");

namespace mmr_int
{

extern uint32_t g_verbosity; // MMR_ bits, for all rings of the process

// Recognises the first input, which lies at the ring's start and is counted in pld_size already. 0 with pld_pos,
// stype and ts_len set, or -14, logged, with all three left alone. `flags`: DS_DGRAM_BUF or 0.
// Requires: pld_pos -1, pt->pos 0.
int mmr_detect_first(struct mm_ring* mr, const struct mm_point* pt, uint32_t flags);

// A logged assertion that all invariants hold.
void require_valid(const struct mm_ring* mr);

// Deep check of a public function: validates on entry and on every way out. Nothing in ordinary builds.
struct [[maybe_unused]] deep_check {
#if defined(KVT_DEEP_CHECKS)
    explicit deep_check(const struct mm_ring* ring) : mr(ring)
    {
        require_valid(mr);
    }
    ~deep_check()
    {
        require_valid(mr);
    }
    deep_check(const deep_check&) = delete;
    deep_check& operator=(const deep_check&) = delete;
    const struct mm_ring* mr;
#else
    explicit deep_check(const struct mm_ring*) {}
#endif
};

} // namespace mmr_int

#endif // TV_MMR_INT_H
