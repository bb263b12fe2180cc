// What is in a run of bytes: the stream finder for the first input of a source, and the probe of a stored segment.
//
// Words. A *stream type* is an n32_tag: STY_RAW (nothing recognised), STY_MPEGTS (TS packets), STY_RTP (RTP packets
// with TS inside); types are compared by `num` and printed by `sym`. A *unit* is what the stream consists of: a
// TS packet, or a whole RTP packet with its header. A *segment* is a stored piece of a stream, such as a file of a
// playlist.
//
// The finder looks at the first 210 positions of an input for the first unit. Its answer is meant to hold for the
// whole stream, so a TS unit counts only if the rest of the input is in step with it.
//
// Lengths and offsets in bytes, packet indexes counted from 1 (0: not found). Everything works on the caller's
// memory; nothing is kept between calls but the finder's flags, which are one word for the process.
// Results are told at each function. Not for signal handlers.
#ifndef TV_DSTREAM_H
#define TV_DSTREAM_H

#include "tvtypes.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// ---- stream types ---------------------------------------------------------------------------------------------

inline constexpr union n32_tag STY_RAW = {.num = 0x574152};  // "RAW"
inline constexpr union n32_tag STY_MPEGTS = {.num = 0x5354}; // "TS"
inline constexpr union n32_tag STY_RTP = {.num = 0x505452};  // "RTP"

static_assert(STY_RAW.num == ('R' | 'A' << 8 | 'W' << 16));
static_assert(STY_MPEGTS.num == ('T' | 'S' << 8));
static_assert(STY_RTP.num == ('R' | 'T' << 8 | 'P' << 16));

// ---- stream finder --------------------------------------------------------------------------------------------

inline constexpr size_t MAX_RTP_OFFSET = 1400; // an RTP packet is expected to end before this offset

inline constexpr uint32_t DS_DGRAM_BUF = 1;     // ds_find_dgram: the buffer is exactly one datagram
inline constexpr uint32_t DS_TRACE_TSPARSE = 1; // ds_set_flags: log the finder's steps

// The offset of the first unit in `buf`, or -1. Sets `*stype` to the type's number, and `*pkt_len` to the unit's
// length; after a failed search `*stype` is STY_RAW and `*pkt_len` means nothing.
//
// At most 210 positions are tried. An RTP packet ends where the next RTP header, or the data, begins or ends at a
// stride of TS packets; a unit's length may therefore exceed what is there. With DS_DGRAM_BUF in `flags` an RTP
// packet is as long as the data, which must not be above MAX_RTP_OFFSET (asserted).
// By design: a packet's successor is known by its first byte alone, and bytes at a stride that are neither sync nor
// that byte are passed over.
// Requires: 15 readable bytes behind `buf + len`. What they hold doesn't matter.
off_t ds_find_dgram(const uint8_t* buf, size_t len, int32_t* stype, size_t* pkt_len, uint32_t flags);

// The finder's flags, process-wide, 0 at start; setting them logs a debug line.
void ds_set_flags(uint32_t flags);
uint32_t ds_get_flags();

// ---- segment probe --------------------------------------------------------------------------------------------

// What probe_segment finds. On entry a non-zero index asks for that search.
struct sseg_ctx {
    uint32_t pat_idx;    // packet with the first PAT
    uint32_t pcr_idx;    // packet with the first PCR
    uint64_t pcr;        // that PCR's base
    uint32_t iframe_idx; // packet with the first I-frame
};

// What a segment is: returns its stream type's number. `stype_id` is what the caller believes it to be, or 0;
// `*plen` the packet size believed, or 0. If both are given they are believed and no probe is made; otherwise the
// segment has to be whole TS packets, or it is STY_RAW and counts as one unit.
// `*plen` and `*pcount` get the unit's length and the number of units; with both beliefs given they keep what they
// have, except for STY_RAW. In a TS segment the searches that `*sseg` asks for are made; an index is 0 where
// nothing was found. `*sseg` is untouched if it asks for nothing. A packet that the segment cuts off counts as far
// as its bytes are there.
// `plen`, `pcount` and `sseg` may each be null.
int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      struct sseg_ctx* sseg);

inline constexpr uint32_t XF_NO_RTP = 1; // xtract_ts_payload: don't look for RTP

// Strips the RTP wrapping from a received packet, in place: moves the payload to the start of `buf`, sets `*outlen`
// to its length and `*stype` to STY_RTP. Where there is no RTP `*stype` is STY_MPEGTS or STY_RAW, and `*outlen`
// is left alone: the caller starts it at `inlen`. 0, or -1 after an error line when there is no room for a TS
// packet between header and padding; nothing is changed then.
// `stype` may be null, `outlen` may not.
int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints);

// ---- tests on one packet --------------------------------------------------------------------------------------
//
// `pkt`: 188 readable bytes. Nothing behind them is read, whatever the length fields inside say.

// 1 for the start of a PAT section that is in force.
int ts_has_pat(const uint8_t* pkt);

// 1 for a random access mark and a PCR in one adaptation field. By design: the mark alone does not count.
int ts_has_iframe(const uint8_t* pkt);

// ts_has_iframe in a packet that begins a video PES packet.
bool ts_has_video_iframe(const uint8_t* buf);

// An I-frame by either sign: ts_has_video_iframe, or an MPEG-2 I-picture.
bool has_iframe(const uint8_t* pkt);

// The type of the MPEG-2 picture that begins in a packet, behind a sequence header in the same packet:
// 'I', 'P', 'B', 'D', or 'x' for any other. -1 when there is none.
int ts_mpeg2_pic(const uint8_t* buf);

// True if the four bytes are a PES start code with stream id E0. By design: other video stream ids don't count.
bool is_pes_video(const uint8_t* buf);

// The offset of the start code 00 00 01 `id` in the bytes from `buf` to `eod`, or -1. By design the last place
// looked at is 5 bytes before `eod`.
off_t pes_find_stream_id(const uint8_t* buf, const uint8_t* eod, uint8_t id);

// The packet's payload, or null without the payload flag. A hostile adaptation length leads to a place behind the
// packet: whoever reads there compares it with `buf + TS_MIN_PKTSIZE` first.
const uint8_t* ts_get_payload(const uint8_t* buf);

#endif // TV_DSTREAM_H
