// RTP framing. The test is one shape in four steps, kept apart because each refusal has a line of its own.
#include "rtp.h"

#include "log.h"
#include "mpegts.h"

#include <cassert>

TV_LOG_MODULE(3)

namespace
{

constexpr ssize_t truncated_header = -12;
constexpr size_t min_extended = 18;           // an extended header can't be measured in less
constexpr size_t any_sufficient_length = 188; // for measuring a header whose length is not known
constexpr size_t fixed_words = RTP_HDR_SIZE / CSRC_SIZE;
constexpr size_t video_head_size = 4; // leads the payload of P_MPGA and P_MPGV

static_assert(any_sufficient_length >= min_extended);
static_assert(fixed_words == 3);
static_assert(XTLEN_OFFSET + 2 <= rtpf::lookahead);

unsigned payload_type(const uint8_t* pkt)
{
    return pkt[rtpf::type_ofs] & rtpf::type_mask;
}

// The extension's length with its head.
size_t extension_len(const uint8_t* pkt)
{
    const size_t words = static_cast<size_t>(pkt[XTLEN_OFFSET] << 8 | pkt[XTLEN_OFFSET + 1]);
    return (words + 1) * XTSIZE;
}

} // namespace

ssize_t rtp_header_len(const uint8_t* pkt, size_t len)
{
    assert(len >= RTP_HDR_SIZE);
    const unsigned type = payload_type(pkt);
    const size_t hlen = type == P_MPGA || type == P_MPGV ? video_head_size : 0;
    size_t extlen = 0;
    if (pkt[0] & rtpf::extension) {
        if (len < min_extended) {
            tv_log(ll::error, "%s: insufficient length (%lu) for extended header\n", __func__, len);
            return truncated_header;
        }
        // By design: the place of the length stays the same whatever the number of contributing sources.
        extlen = extension_len(pkt);
    }
    const size_t sources = pkt[0] & rtpf::cc_mask;
    return static_cast<ssize_t>(hlen + extlen + (sources + fixed_words) * CSRC_SIZE);
}

size_t rtp_footer_len(const uint8_t* pkt, size_t len)
{
    return pkt[0] & rtpf::padding ? pkt[len - 1] : 0;
}

bool is_rtp_ext(const uint8_t* pkt, bool verbose)
{
    const unsigned version = pkt[0] >> rtpf::version_shift;
    if (version != RTP_V2) {
        if (verbose) tv_log(ll::warning, "%s: wrong RTP version: expected 0x%x, got 0x%x\n", __func__, RTP_V2, version);
        return false;
    }
    const unsigned type = payload_type(pkt);
    if (type != P_MPGA && type != P_MPGV && type != P_MPGTS) {
        if (verbose) tv_log(ll::warning, "%s: wrong payload type: 0x%x\n", __func__, type);
        return false;
    }
    const ssize_t hlen = rtp_header_len(pkt, any_sufficient_length);
    if (hlen != ssize_t{RTP_HDR_SIZE}) {
        if (verbose) tv_log(ll::error, "%s: invalid RTP header length: %ld\n", __func__, hlen);
        return false;
    }
    if (pkt[hlen] != MPEG_TS_SYNC) {
        // By design: shows the packet's first byte, not the byte that failed.
        if (verbose)
            tv_log(ll::warning, "%s: non-TS content inside (allegedly) RTP container (0x%02x)\n", __func__, pkt[0]);
        return false;
    }
    return true;
}

bool is_rtp_pkt(const uint8_t* pkt)
{
    return is_rtp_ext(pkt, true);
}
