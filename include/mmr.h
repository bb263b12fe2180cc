// The stream ring: keeps the newest stretch of the source stream in memory, as a plain run of bytes.
//
// Words. The *payload* is what the ring holds: `pld_size` bytes from the *head* (oldest byte) on. The *room* is the
// rest. A *unit* is one TS packet or, for TS over RTP, one RTP packet with its header; its length is `ts_len`.
// A *record* is an iovec entry: one unit, or a packed run of TS packets that fits an MTU. A *span* is a stretch of
// bytes that a caller names to be cut in place of the payload. Boundaries of reads and datagrams are not kept.
//
// The same pages are mapped twice, back to back, with an inaccessible page (the dead zone) behind them:
//
//     address        0 ............ buflen ............ 2 x buflen .... + one page
//     what           buf            ext, the mirror     dead zone: any access faults
//     object offset  0              0                   buflen
//
// So payload and room are each one contiguous run wherever the head stands, and nothing is ever copied or moved.
// The writer's round is mmr_cap, mmr_iget, one read of at most pt.len bytes, pt.len = bytes read, mmr_iput. The
// first input decides type and unit length for the life of the ring.
//
// Units: bytes, packets. Ownership: mmr_destroy releases all that mmr_create took. Addresses given by mmr_iget and
// in records point into the ring; they last until mmr_destroy, their bytes until the ring has taken in about
// `buflen` more. The payload is for reading: capping remembers how far it has seen units in sync, and notices a
// byte changed in place only when its unit is about to leave. Results: 0, or as told at each function; negative and
// positive errno values stand side by side, compare by value. One thread owns a ring, and nothing here may be called
// from a signal handler.
#ifndef TV_MMR_H
#define TV_MMR_H

#include "tvtypes.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct mm_ring;
typedef struct mm_ring* mmr_t; // a ring, opaque

// Sees a record that capping is about to drop; 0 for success.
typedef int (*cap_ppfunc)(const struct iovec* rec);

inline constexpr size_t MAX_SYNC_DELTA = 214; // reach of the sync search; no TS unit is that long
inline constexpr size_t MMR_MTU = 1500;       // a packed record is not longer than this

// Verbosity bits: each turns on the debug lines of a step.
inline constexpr uint32_t MMR_CAP_VERBOSE = 1;
inline constexpr uint32_t MMR_OGET_VERBOSE = 2;
inline constexpr uint32_t MMR_OPUT_VERBOSE = 4;

// A place in the ring as the writer sees it.
struct mm_point {
    off_t pos;  // byte position from the ring's start
    size_t len; // mmr_iget: the room; mmr_iput: the bytes really written
};

struct mm_opt {
    bool no_mtu_pack; // one record per unit: TS packets are not packed into MTU-sized records
};

// The picture of a ring that callers may read.
struct mm_info {
    size_t pld_size;       // payload, in bytes
    union n32_tag stype;   // stream type; num is 0 until the first input is recognised
    size_t ts_len;         // unit length; 0 until the first input is recognised
    uint64_t first_pktnum; // number of the oldest packet
    uint64_t last_pktnum;  // number one past the newest packet counted
};

// ---- memory ---------------------------------------------------------------------------------------------------

// Makes an empty ring of bufsz bytes. 0 and *pring set; or, with *pring left alone and the reason logged: 12 (no
// memory), 22 (name, shared object or mapping), -1 (the object can't have the size). Null pring, bufsz under 1024
// or not a multiple of the page size fail a logged assertion.
// Requires: pring not null, bufsz a multiple of the page size.
[[nodiscard]] int mmr_create(mmr_t* pring, size_t bufsz);

// Releases everything, also a half-made ring. A step that fails is logged, and the next ones are taken all the same.
// Requires: ring not null.
void mmr_destroy(mmr_t ring);

// ---- writer ---------------------------------------------------------------------------------------------------

// Offers the whole room as one run: its address, with position and length in *pt. Null when the ring is full, and
// *pt is then left alone. Changes nothing in the ring, so it may be called again or not be followed by mmr_iput.
// Until an input has been recognised the position is 0, even when refused bytes are counted already.
uint8_t* mmr_iget(mmr_t ring, struct mm_point* pt);

// Counts pt->len bytes written at the place that mmr_iget gave; the first input is also looked at. 0, or -14 when
// the first input is no stream: the bytes are counted, but the ring still waits for its first input.
// Requires: pt->pos from mmr_iget, pt->len not above the room (a logged assertion).
int mmr_iput(mmr_t ring, struct mm_point* pt);

// The same; is_dgram says that the bytes are exactly one datagram, which matters to the first input only.
int mmr_iput_ex(mmr_t ring, struct mm_point* pt, bool is_dgram);

// Sets the verbosity bits of all rings of the process.
void mmr_set_verbosity(uint32_t level);

void mmr_get_opt(mmr_t ring, struct mm_opt* opt);
void mmr_set_opt(mmr_t ring, const struct mm_opt* opt);

// ---- reader ---------------------------------------------------------------------------------------------------

// Is a unit of stream type snum at pkt? For RTP each refusal is logged; every other type looks at one byte.
// Requires: for RTP, 16 readable bytes at pkt.
bool mmr_sync_found(int32_t snum, const uint8_t* pkt);

// Cuts a span (buf and buflen both set) or the payload (otherwise) into records, from the first sync mark on.
// *count: the capacity of iov on entry, the number of records on return; more may be left. offset, if not null,
// receives the bytes skipped to reach sync, and is not written when there are none. Skipped bytes leave the payload
// with a warning; nothing else leaves the ring, and with a span the ring is not changed at all. Results:
//     0    *count records, each a run of whole units
//     11   fewer bytes than one unit behind the sync mark
//     -1   packed TS only: a sync byte missing at some stride of the data
//     -9   no sync in a short stretch, sync lost within the units looked at, an empty ring, or one that has refused
//          its first input
//     -14  no sync within reach in MAX_SYNC_DELTA bytes or more
// Without sync in a short stretch that the search covers to its end, a logged assertion fails.
// Requires: *count not 0; with a span, a stream recognised by the ring.
int mmr_oget_buf(mmr_t ring, uint8_t* buf, size_t buflen, struct iovec* iov, size_t* count, ssize_t* offset);

// mmr_oget_buf on the payload, without an offset.
int mmr_oget(mmr_t ring, struct iovec* iov, size_t* count);

// Consumes the bytes of the first count records at the head; returns what is left. The bytes themselves stay in
// place until they are overwritten. More bytes than the payload fail a logged assertion.
// Requires: records of mmr_oget, from the first on.
ssize_t mmr_oput(mmr_t ring, const struct iovec* iov, size_t count);

// ---- capping, packet numbers, snapshot ------------------------------------------------------------------------

// Drops whole records from the head while the payload is above max_payload_sz, and then until it is strictly below
// it. Returns the payload left, or -1 (logged) when the head can't be cut. pprocess, if not null, sees each record
// before it goes; its failure is logged and stops neither the pass nor the dropping.
ssize_t mmr_cap_pp(mmr_t ring, size_t max_payload_sz, cap_ppfunc pprocess);
ssize_t mmr_cap(mmr_t ring, size_t max_payload_sz);

// Writes the whole payload to fd with one write call. Bytes written, 0 with a warning when there is no payload, or
// the negative result of the write.
ssize_t mmr_snapshot(mmr_t ring, int fd);

// Fills *info; always 0.
int mmr_get_info(mmr_t ring, struct mm_info* info);

// Packet numbers: packets are counted in by mmr_add_pkts and out by capping, in the unit in which the caller counts;
// the difference of the two numbers is the count of packets in the ring. Numbering begins at the first mmr_add_pkts;
// until then mmr_rm_pkts does nothing. More packets out than in fail an assertion.
void mmr_add_pkts(mmr_t ring, size_t npkts);
void mmr_rm_pkts(mmr_t ring, size_t npkts);
// Renumbers: the oldest packet becomes new_first_idx, the distance stays. Returns the new last number.
uint64_t mmr_adjust_pktnum(mmr_t ring, uint64_t new_first_idx);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of the record holds. No effects, no lines.
bool mmr_validate(const struct mm_ring* ring);
// Prints the record in words.
void mmr_dump(const struct mm_ring* ring, FILE* fp);

#endif // TV_MMR_H
