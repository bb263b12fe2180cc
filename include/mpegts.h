// TS below the level of its tables: packet sizes and how a buffer is tested for them, PCRs and their arithmetic.
//
// Words. A *packet* is a run of 188, 192, 204 or 208 bytes that begins with the sync byte 0x47. A *PCR* here is
// always the 33-bit base alone, in ticks of 90 kHz, in a uint64_t; the 9-bit extension is not read anywhere.
// A *probe* asks for the packet size at which every multiple inside a buffer holds a sync byte.
//
// The head of a packet, as far as this module reads it (offsets in bytes, from the sync byte):
//
//     offset  mask  meaning
//     0       ff    sync byte, 0x47
//     1       40    payload unit start
//     1, 2    1fff  PID, big-endian
//     3       30    adaptation field control: 1 payload, 2 adaptation field, 3 both
//     3       0f    continuity counter
//     4       ff    length of the adaptation field behind this byte, if there is one
//     5       10    PCR flag (40: random access), if that length is not 0
//     6..10         PCR base: 33 bits from the top of byte 6 down to the top bit of byte 10
//
// Example: 47 01 00 20 b7 10 00 00 00 05 fe 00 ... is PID 256, an adaptation field of 183 bytes, PCR base 11.
//
// Results: a size or an offset, negative when there is none. Nothing is kept between calls and nothing is owned.
// Safe from a signal handler as far as logging is (log.h).
#ifndef TV_MPEGTS_H
#define TV_MPEGTS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr uint8_t MPEG_TS_SYNC = 0x47;
inline constexpr uint8_t TS_SYNC = MPEG_TS_SYNC; // the application's word for it
inline constexpr size_t TS_MIN_PKTSIZE = 188;
inline constexpr size_t TS_MAX_PKTSIZE = 208;

inline constexpr uint32_t PCR_ONE_SEC = 90000;   // ticks in a second
inline constexpr uint32_t MAX_PCR_GAP = 45000;   // largest step that is normal: half a second
inline constexpr uint64_t P2_33 = 8589934592ULL; // modulus of the counter

// Flags of calc_pcr_delta.
inline constexpr uint32_t F_ABRT_PCR = 1; // abort the process on a backward PCR
inline constexpr uint32_t F_MAX_PCRD = 2; // warn of a step above MAX_PCR_GAP

static_assert(P2_33 == uint64_t{1} << 33);
static_assert(MAX_PCR_GAP * 2 == PCR_ONE_SEC);

// Offsets and masks of the table above; whoever reads or writes packets uses the same names.
namespace tsf
{
inline constexpr size_t flags_ofs = 1;
inline constexpr uint8_t unit_start = 0x40;
inline constexpr uint8_t pid_high_mask = 0x1f;
inline constexpr size_t pid_low_ofs = 2;
inline constexpr size_t control_ofs = 3;
inline constexpr uint8_t has_adaptation = 0x20;
inline constexpr uint8_t has_payload = 0x10;
inline constexpr uint8_t adaptation_control = has_adaptation | has_payload;
inline constexpr uint8_t cc_mask = 0x0f;
inline constexpr size_t head_size = 4; // the payload's place in a packet without adaptation field
inline constexpr size_t af_len_ofs = 4;
inline constexpr size_t af_flags_ofs = 5; // also: where af_len is counted from
inline constexpr uint8_t af_random_access = 0x40;
inline constexpr uint8_t af_pcr = 0x10;
inline constexpr size_t pcr_ofs = 6;
inline constexpr size_t pcr_end = 11; // what has to be there to read a PCR's base
} // namespace tsf

// ---- packet fields --------------------------------------------------------------------------------------------

// 1 when the packet carries a PCR, else 0.
// Requires: 6 readable bytes at `pkt`; the packet is trusted to be whole.
inline int ts_has_pcr(const uint8_t* pkt)
{
    return (pkt[tsf::control_ofs] & tsf::has_adaptation) != 0 && pkt[tsf::af_len_ofs] != 0 &&
           (pkt[tsf::af_flags_ofs] & tsf::af_pcr) != 0;
}

// The PCR base of a packet for which ts_has_pcr holds.
// Requires: 11 readable bytes at `pkt`.
inline constexpr uint64_t ts_pcr_base(const uint8_t* pkt)
{
    const uint8_t* f = pkt + tsf::pcr_ofs;
    return uint64_t{f[0]} << 25 | uint64_t{f[1]} << 17 | uint64_t{f[2]} << 9 | uint64_t{f[3]} << 1 |
           uint64_t{f[4]} >> 7;
}

// The packet's 13-bit PID.
// Requires: 3 readable bytes at `pkt`.
inline constexpr uint16_t ts_pid(const uint8_t* pkt)
{
    return static_cast<uint16_t>((pkt[tsf::flags_ofs] & tsf::pid_high_mask) << 8 | pkt[tsf::pid_low_ofs]);
}

// ---- packet size ----------------------------------------------------------------------------------------------

// The packet size of the data at `buf`: 188, 192, 204 or 208, tried in this order, so that the smallest that fits
// wins. The sync byte is asked for at every multiple of the size inside `len`, also where a packet is cut off.
// With `full_pkts` a size is accepted only when `len` is a multiple of it. As many bytes as one packet of the size
// that is tried are accepted by their first byte alone.
//  -22  the first byte is no sync byte
//   -1  the search came to a size that `len` bytes can't hold; it ends there, later sizes are not tried
//   -3  none of the four fits
// Logs one debug line unless it returns early (-22, -1, or one whole packet). Reads nothing at or past `len`;
// no bytes at all give -1.
ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts);

// The offset of the first place in `buf` at which ts_probe accepts the rest, with the size in `*pkt_len`.
// By design: each further candidate is searched in a stretch that ends as much earlier as it starts later, and
// an offset above 206 comes back as it is, with `*pkt_len` untouched, when no probe accepted it.
// -1 when no sync byte is found, at first or behind a candidate that failed. `*pkt_len` is then untouched too.
off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len);

// ---- PCR ------------------------------------------------------------------------------------------------------

// The first or last PCR in a run of packets of `pkt_len` bytes: 0 and `*pcr` set, or -1 when there is none
// (`*pcr` is then untouched). By design: find_last_pcr never looks at the packet at `buf` itself, so that it
// finds nothing in a single packet. A cut-off packet at the end counts if its PCR lies in the buffer.
// Requires: buf, pcr not null; len >= pkt_len (asserted); pkt_len above 0.
int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);
int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);

// Ticks from `first` to `last` across the 33-bit wrap. A wrap is believed when the step over it is below
// MAX_PCR_GAP. A `first` of 0 means no earlier reading: no test is made and the result is `last`.
// A backward step gives 0 with a warning, or with F_ABRT_PCR ends the process; with F_MAX_PCRD a step above
// MAX_PCR_GAP draws a warning. By design: a wrapped step of exactly MAX_PCR_GAP is backward, a straight one is
// normal.
uint64_t calc_pcr_delta(uint64_t first, uint64_t last, uint32_t flags);
// The same with no flags.
uint64_t ts_pcr_delta(uint64_t first, uint64_t last);

#endif // TV_MPEGTS_H
