// RTP framing: is there an RTP packet with a transport stream inside, and how long are its header and padding.
//
// The test is narrow on purpose: it is meant to tell TS over RTP from anything else in a run of bytes, so it
// accepts one shape (version 2, payload type 33, no contributing sources, no extension, a TS sync byte at offset
// 12) and refuses the rest, even forms whose headers rtp_header_len can measure.
//
// The header, as far as it is read (offsets in bytes from the packet's start):
//
//     offset  mask  meaning
//     0       c0    version
//     0       20    padding flag: the packet's last byte is the length of its padding, that byte included
//     0       10    extension flag
//     0       0f    number of contributing sources (CC), 4 bytes each behind the fixed 12
//     1       80    marker, ignored everywhere
//     1       7f    payload type
//     14, 15        extension length in units of 4 bytes, big-endian, if the extension flag is set
//
// Example: 80 21 00 07 00 00 2e e0 00 00 00 01 47 ... is sequence number 7, header 12 bytes, TS inside.
//
// Lengths in bytes. Nothing is kept between calls and nothing is owned.
#ifndef TV_RTP_H
#define TV_RTP_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr unsigned RTP_V2 = 2;          // the version accepted
inline constexpr size_t RTP_MIN_SIZE = 4;      // least size of a fixed RTP word
inline constexpr size_t RTP_HDR_SIZE = 12;     // the fixed header
inline constexpr size_t RTP_HDR_MAX_SIZE = 72; // with 15 contributing sources
inline constexpr size_t XTLEN_OFFSET = 14;     // of the extension length
inline constexpr size_t XTSIZE = 4;            // unit of the extension length, and size of the extension's head
inline constexpr size_t CSRC_SIZE = 4;         // one contributing source

// Payload types.
inline constexpr uint8_t P_MPGA = 14;  // MPEG audio
inline constexpr uint8_t P_MPGV = 32;  // MPEG video
inline constexpr uint8_t P_MPGTS = 33; // MPEG transport stream

static_assert(RTP_HDR_MAX_SIZE == RTP_HDR_SIZE + 15 * CSRC_SIZE);

// Masks and places of the table above.
namespace rtpf
{
inline constexpr unsigned version_shift = 6;
inline constexpr uint8_t padding = 0x20;
inline constexpr uint8_t extension = 0x10;
inline constexpr uint8_t cc_mask = 0x0f;
inline constexpr size_t type_ofs = 1;
inline constexpr uint8_t marker = 0x80;
inline constexpr uint8_t type_mask = 0x7f;
inline constexpr size_t lookahead = 16; // bytes at a position that the test may read
} // namespace rtpf

// The header's length, with contributing sources, extension, and the 4 bytes that lead the payload of P_MPGA and
// P_MPGV. By design: the extension's length stands at XTLEN_OFFSET whatever CC says.
// -12 after an error line when the extension flag is set and `len` is below 18.
// Requires: len >= RTP_HDR_SIZE (asserted), and that many bytes at `pkt`.
ssize_t rtp_header_len(const uint8_t* pkt, size_t len);

// The padding's length: the last of `len` bytes if the padding flag is set, else 0 (then only byte 0 is read).
// The value is taken as it is; whether it can be is the caller's to test.
// Requires: len above 0.
size_t rtp_footer_len(const uint8_t* pkt, size_t len);

// The test. With `verbose` the first refusal is logged.
// Requires: 16 readable bytes at `pkt` (rtpf::lookahead).
bool is_rtp_ext(const uint8_t* pkt, bool verbose);

// For data that should be RTP: a refusal is news and is logged.
// Requires: 16 readable bytes at `pkt`.
bool is_rtp_pkt(const uint8_t* pkt);

// For scanning, at any byte position: a refusal is the normal case, costs a shift and a comparison, and is quiet.
// Requires: 16 readable bytes at `pkt`.
inline bool is_rtp_data(const uint8_t* pkt)
{
    return (pkt[0] >> rtpf::version_shift) == RTP_V2 && is_rtp_ext(pkt, false);
}

#endif // TV_RTP_H
