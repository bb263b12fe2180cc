// The stream finder. It answers once per source, on the first input, and the answer holds for the whole stream; so
// it would rather move on to a later position than take a unit that the rest of the input contradicts.
#include "dstream.h"

#include "log.h"
#include "mpegts.h"
#include "rtp.h"

#include <algorithm>
#include <cassert>
#include <span>

TV_LOG_MODULE(7)

namespace
{

using bytes_view = std::span<const uint8_t>;

constexpr size_t max_positions = 210; // positions tried: a little more than the largest TS packet
constexpr size_t max_probe_len = 6 * TS_MIN_PKTSIZE;
static_assert(max_positions > TS_MAX_PKTSIZE && max_probe_len == 1128);

// Results of get_rtp_pktlen other than a length.
constexpr ssize_t rtp_not_ts = -22;
constexpr ssize_t rtp_bad_frame = -34;
constexpr ssize_t rtp_probe_failed = -1;
constexpr ssize_t rtp_no_successor = -3;

constexpr ssize_t cut_header = -12; // stands for the length of a header that isn't there in full

uint32_t g_dst_flags = 0;

bool is_tsparse()
{
    return (g_dst_flags & DS_TRACE_TSPARSE) != 0;
}

#define trace_tsparse(...)                                                                                             \
    do {                                                                                                               \
        if (is_tsparse()) tv_log(__VA_ARGS__);                                                                         \
    } while (0)

// Where the next RTP header begins, or the data end, at a stride of `stride` bytes from `from`.
ssize_t find_next_rtp(const char* op, bytes_view data, size_t from, size_t stride)
{
    const uint8_t* pkt = data.data();
    const uint8_t rtp0 = pkt[0];
    const uint8_t rtp1 = pkt[rtpf::type_ofs];
    size_t i = from;
    for (; i < data.size() && i < MAX_RTP_OFFSET; i += stride) {
        if (pkt[i] == MPEG_TS_SYNC) continue;
        // By design: the last two conditions look at this packet, not at the next; its first byte decides alone.
        if (pkt[i] == rtp0 && pkt[rtpf::type_ofs] == rtp1 && is_rtp_data(pkt)) {
            trace_tsparse(ll::debug, "%s: found next RTP marker at #%zd\n", op, static_cast<ssize_t>(i));
            return static_cast<ssize_t>(i);
        }
    }
    if (i >= MAX_RTP_OFFSET) {
        trace_tsparse(ll::error, "%s: failed to find next RTP datagram\n", op);
        return rtp_no_successor;
    }
    trace_tsparse(ll::debug, "%s: EOD assumed to be RTP-packet boundary\n", op);
    return static_cast<ssize_t>(i);
}

// The length of the RTP packet at `pkt`, of which `nleft` bytes are there; or one of the results above.
ssize_t get_rtp_pktlen(const uint8_t* pkt, size_t nleft, uint32_t flags)
{
    const unsigned type = pkt[rtpf::type_ofs] & rtpf::type_mask;
    if (type != P_MPGTS) {
        trace_tsparse(ll::error, "%s: unrecognized RTP payload type: %02x\n", __func__, type);
        return rtp_not_ts;
    }
    // The bytes that looked like a header may lie behind a short input: there is none to measure then.
    const ssize_t header_len = nleft < RTP_HDR_SIZE ? cut_header : rtp_header_len(pkt, nleft);
    if (header_len != ssize_t{RTP_HDR_SIZE}) {
        trace_tsparse(ll::error, "%s: RTP header exp/got=%d/%zd bytes\n", __func__, int{RTP_HDR_SIZE}, header_len);
        return rtp_bad_frame;
    }
    const auto footer_len = static_cast<ssize_t>(rtp_footer_len(pkt, nleft));
    const ssize_t footer_limit = static_cast<ssize_t>(nleft) - header_len - ssize_t{TS_MIN_PKTSIZE};
    if (footer_len < 0 || footer_len >= footer_limit) {
        trace_tsparse(ll::error, "%s: invalid RTP footer length %ld\n", __func__, footer_len);
        return rtp_bad_frame;
    }
    if (pkt[header_len] != MPEG_TS_SYNC) {
        trace_tsparse(ll::error, "%s: no TS sync found for TS-RTP\n", __func__);
        return rtp_not_ts;
    }
    const bytes_view payload = bytes_view(pkt, nleft).subspan(RTP_HDR_SIZE);
    const size_t probe_len = std::min(payload.size(), max_probe_len);
    const ssize_t pkt_size = ts_probe(payload.data(), probe_len, false);
    if (pkt_size <= 0) {
        tv_log(ll::error, "%s: port-RTP probe failed\n", __func__);
        return rtp_probe_failed;
    }
    trace_tsparse(ll::debug, "%s: TS/%zd packets underneath\n", __func__, pkt_size);

    if (flags & DS_DGRAM_BUF) {
        trace_tsparse(ll::debug, "%s: RTP size = datagram size: %zu bytes\n", __func__, nleft);
        assert(nleft <= MAX_RTP_OFFSET);
        return static_cast<ssize_t>(nleft);
    }
    const auto stride = static_cast<size_t>(pkt_size);
    return find_next_rtp(__func__, bytes_view(pkt, nleft), RTP_HDR_SIZE + stride, stride);
}

} // namespace

off_t ds_find_dgram(const uint8_t* buf, size_t len, int32_t* stype, size_t* pkt_len, uint32_t flags)
{
    off_t offset = -1;
    ssize_t pkt_size = -1;
    union n32_tag stream_type = STY_RAW;

    for (size_t i = 0; i < max_positions && i < len; ++i) {
        const uint8_t* pkt = buf + i;
        const size_t nleft = len - i;
        if (is_rtp_data(pkt)) {
            trace_tsparse(ll::debug, "%s: possible RTP-packet match at #%ld\n", __func__, static_cast<off_t>(i));
            pkt_size = get_rtp_pktlen(pkt, nleft, flags);
            if (pkt_size > 0) stream_type = STY_RTP;
        } else if (pkt[0] == MPEG_TS_SYNC) {
            pkt_size = ts_probe(pkt, nleft, false);
            if (pkt_size > 0) stream_type = STY_MPEGTS;
        }
        if (stream_type.num != STY_RAW.num) {
            offset = static_cast<off_t>(i);
            break;
        }
    }
    tv_log(ll::debug, "%s: %s stream, offset=%ld, pkt-len=%ld\n", __func__, stream_type.sym, offset, pkt_size);
    *stype = stream_type.num;
    if (pkt_size != 0) *pkt_len = static_cast<size_t>(pkt_size);
    return offset;
}

void ds_set_flags(uint32_t flags)
{
    g_dst_flags = flags;
    tv_log(ll::debug, "%s: flags set to 0x%04x\n", __func__, flags);
}

uint32_t ds_get_flags()
{
    return g_dst_flags;
}
