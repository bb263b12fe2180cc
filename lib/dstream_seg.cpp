// Segment probing: what a stored piece of a stream is and where a player can start in it, the tests on single
// packets that this takes, and the removal of RTP wrapping. All of it reads foreign bytes: length fields inside a
// packet never lead a read out of its 188 bytes, and a packet that the segment cuts off is looked at in a copy.
#include "dstream.h"

#include "log.h"
#include "mpegts.h"
#include "rtp.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

TV_LOG_MODULE(7)

namespace
{

using bytes_view = std::span<const uint8_t>;

// Start of a PAT section behind a pointer field of 0: table id, syntax and length, current.
constexpr size_t table_id_ofs = 5;
constexpr uint8_t pat_table_id = 0;
constexpr size_t section_syntax_ofs = 6;
constexpr uint8_t section_syntax_mask = 0xfc;
constexpr uint8_t section_syntax = 0xb0;
constexpr size_t section_current_ofs = 10;
constexpr uint8_t section_current = 0x01;

constexpr unsigned min_af_len_iframe = 5;

// Start codes 00 00 01 id.
constexpr size_t start_code_size = 4;
constexpr uint8_t id_pes_video = 0xe0;
constexpr uint8_t id_sequence = 0xb3;
constexpr uint8_t id_picture = 0x00;
constexpr ptrdiff_t picture_head_size = 7;
constexpr size_t picture_type_ofs = 5;
constexpr unsigned picture_type_shift = 3;
constexpr unsigned picture_type_mask = 7;
constexpr std::array<char, picture_type_mask + 1> picture_letter = {'x', 'I', 'P', 'B', 'D', 'x', 'x', 'x'};
static_assert(picture_letter[1] == 73 && picture_letter[2] == 80 && picture_letter[3] == 66 &&
              picture_letter[4] == 68 && picture_letter[0] == 120);

constexpr ssize_t max_short_olen = 187; // RTP payload too short for a TS packet

unsigned af_control(const uint8_t* pkt)
{
    return pkt[tsf::control_ofs] & tsf::adaptation_control;
}

bool has_unit_start(const uint8_t* pkt)
{
    return (pkt[tsf::flags_ofs] & tsf::unit_start) != 0;
}

// The payload of a packet that begins a video PES packet; null for any other.
const uint8_t* video_pes(const uint8_t* pkt)
{
    if (!has_unit_start(pkt)) return nullptr;
    const uint8_t* payload = ts_get_payload(pkt);
    const uint8_t* eod = pkt + TS_MIN_PKTSIZE;
    if (!payload || payload > eod - start_code_size || !is_pes_video(payload)) return nullptr;
    return payload;
}

// A stream type's text from a number that may not be one of ours, and then need not end in a zero.
struct type_text {
    char text[sizeof(n32_tag) + 1];
    explicit type_text(int32_t num) : text{} { memcpy(text, &num, sizeof num); }
};

// The packet at `offset` in 188 readable bytes: a cut-off one is copied to `scratch`, with zeros behind.
const uint8_t* whole_packet(bytes_view seg, size_t offset, std::array<uint8_t, TS_MIN_PKTSIZE>& scratch)
{
    const bytes_view rest = seg.subspan(offset);
    if (rest.size() >= TS_MIN_PKTSIZE) return rest.data();
    scratch.fill(0);
    std::copy(rest.begin(), rest.end(), scratch.begin());
    return scratch.data();
}

// Walks the packets of a TS segment and makes the searches that are wanted. The indexes are 0 at the start.
void search_packets(bytes_view seg, size_t pkt_len, bool want_pat, bool want_pcr, bool want_iframe,
                    struct sseg_ctx* sseg)
{
    std::array<uint8_t, TS_MIN_PKTSIZE> scratch;
    uint32_t idx = 1;
    for (size_t i = 0; i < seg.size() && (want_pat || want_pcr || want_iframe); i += pkt_len, ++idx) {
        const uint8_t* pkt = whole_packet(seg, i, scratch);
        if (want_pat && ts_has_pat(pkt)) {
            sseg->pat_idx = idx;
            want_pat = false;
        }
        // Zeros that stand in for bytes cut off are no clock.
        if (want_pcr && seg.size() - i >= tsf::pcr_end && ts_has_pcr(pkt)) {
            sseg->pcr_idx = idx;
            sseg->pcr = ts_pcr_base(pkt);
            want_pcr = false;
        }
        if (want_iframe && has_iframe(pkt)) {
            sseg->iframe_idx = idx;
            want_iframe = false;
        }
    }
}

void log_found(const char* op, const struct sseg_ctx* sseg, bytes_view seg, size_t pkt_len)
{
    const void* buf = seg.data();
    if (sseg->iframe_idx)
        tv_log(ll::debug, "%s: i-Frame at pkt[%u]/%lu buf=%p, len=%lu\n", op, sseg->iframe_idx - 1, pkt_len, buf,
               seg.size());
    if (sseg->pat_idx)
        tv_log(ll::debug, "%s: PAT at pkt[%u]/%lu buf=%p, len=%lu\n", op, sseg->pat_idx - 1, pkt_len, buf, seg.size());
    if (sseg->pcr_idx)
        tv_log(ll::debug, "%s: PCR=%lu at pkt[%u]/%lu buf=%p, len=%lu\n", op, sseg->pcr, sseg->pcr_idx - 1, pkt_len,
               buf, seg.size());
}

// The RTP test on a packet that may be shorter than what the test reads.
bool is_rtp_packet(bytes_view pkt)
{
    if (pkt.size() >= rtpf::lookahead) return is_rtp_pkt(pkt.data());
    // Without a byte behind the header it can't be one.
    if (pkt.size() <= RTP_HDR_SIZE) return false;
    std::array<uint8_t, rtpf::lookahead> head = {};
    std::copy(pkt.begin(), pkt.end(), head.begin());
    return is_rtp_pkt(head.data());
}

void set_type(int32_t* stype, const union n32_tag& type)
{
    if (stype) *stype = type.num;
}

} // namespace

// ---- segment probe --------------------------------------------------------------------------------------------

int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      struct sseg_ctx* sseg)
{
    const bytes_view seg(buf, buflen);
    auto pkt_len = static_cast<ssize_t>(plen ? *plen : 0);
    size_t count = pcount ? *pcount : 0;
    int32_t stype = stype_id;
    tv_log(ll::debug, "%s: START buffer len=%lu, pkt_len=%ld\n", __func__, buflen, pkt_len);

    if (stype_id == 0 || pkt_len == 0) {
        pkt_len = ts_probe(buf, buflen, true);
        tv_log(ll::debug, "%s: pkt_len after TS probe is %ld\n", __func__, pkt_len);
        if (pkt_len > 1) {
            const auto size = static_cast<size_t>(pkt_len);
            tv_assert_logged(buflen % size == 0);
            count = buflen / size;
            tv_assert_logged(count != 0);
            if (plen) *plen = size;
            stype = STY_MPEGTS.num;
        } else {
            stype = STY_RAW.num;
        }
    }
    if (stype == STY_RAW.num) {
        count = 1;
        if (plen) *plen = buflen;
    }
    if (pcount) *pcount = count;
    // A change to TS goes without a word.
    if (stype_id > 0 && stype_id != stype && stype != STY_MPEGTS.num)
        tv_log(ll::warning, "%s: stream type switch: [%s]->[%s]\n", __func__, type_text(stype_id).text,
               type_text(stype).text);
    tv_log(ll::debug, "%s: %s len=%lu, count=%lu\n", __func__, type_text(stype).text, buflen, count);

    if (!sseg || !(sseg->pat_idx || sseg->pcr_idx || sseg->iframe_idx)) return stype;
    const bool want_pat = sseg->pat_idx != 0;
    const bool want_pcr = sseg->pcr_idx != 0;
    const bool want_iframe = sseg->iframe_idx != 0;
    sseg->pat_idx = sseg->pcr_idx = sseg->iframe_idx = 0;
    if (stype != STY_MPEGTS.num) {
        tv_log(ll::warning, "%s: no processing for [%s] stream supported\n", __func__, type_text(stype).text);
        return stype;
    }
    search_packets(seg, static_cast<size_t>(pkt_len), want_pat, want_pcr, want_iframe, sseg);
    log_found(__func__, sseg, seg, static_cast<size_t>(pkt_len));
    return stype;
}

int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints)
{
    auto* pkt = static_cast<uint8_t*>(buf);
    if (inlen > 0 && pkt[0] == MPEG_TS_SYNC) {
        set_type(stype, STY_MPEGTS);
        return 0;
    }
    if ((hints & XF_NO_RTP) || !is_rtp_packet({pkt, inlen})) {
        set_type(stype, STY_RAW);
        return 0;
    }
    const ssize_t header_len = rtp_header_len(pkt, inlen);
    tv_assert_logged(header_len == ssize_t{RTP_HDR_SIZE});
    const auto footer_len = static_cast<ssize_t>(rtp_footer_len(pkt, inlen));
    const auto in_bytes = static_cast<ssize_t>(inlen);
    if (footer_len < 0 || footer_len >= in_bytes - header_len - ssize_t{TS_MIN_PKTSIZE}) {
        tv_log(ll::error, "%s: invalid RTP footer length: %ld\n", __func__, footer_len);
        return -1;
    }
    const ssize_t olen = in_bytes - header_len - footer_len;
    if (olen <= max_short_olen) {
        tv_log(ll::error, "%s: not enough payload (for TS) inside RTP packet: %ld bytes\n", __func__, olen);
        return -1;
    }
    tv_assert_logged(in_bytes >= olen + header_len);
    memmove(pkt, pkt + header_len, static_cast<size_t>(olen));
    set_type(stype, STY_RTP);
    *outlen = olen;
    return 0;
}

// ---- tests on one packet --------------------------------------------------------------------------------------

int ts_has_pat(const uint8_t* pkt)
{
    return has_unit_start(pkt) && ts_pid(pkt) == 0 && pkt[table_id_ofs] == pat_table_id &&
           (pkt[section_syntax_ofs] & section_syntax_mask) == section_syntax &&
           (pkt[section_current_ofs] & section_current) != 0;
}

int ts_has_iframe(const uint8_t* pkt)
{
    constexpr uint8_t both = tsf::af_random_access | tsf::af_pcr;
    return af_control(pkt) == tsf::adaptation_control && pkt[tsf::af_len_ofs] >= min_af_len_iframe &&
           (pkt[tsf::af_flags_ofs] & both) == both;
}

bool ts_has_video_iframe(const uint8_t* buf)
{
    return ts_has_iframe(buf) && video_pes(buf) != nullptr;
}

bool has_iframe(const uint8_t* pkt)
{
    return ts_has_video_iframe(pkt) || ts_mpeg2_pic(pkt) == 'I';
}

int ts_mpeg2_pic(const uint8_t* buf)
{
    const uint8_t* payload = video_pes(buf);
    if (!payload) return -1;
    const uint8_t* eod = buf + TS_MIN_PKTSIZE;
    const off_t sequence = pes_find_stream_id(payload, eod, id_sequence);
    if (sequence < 0) return -1;
    const uint8_t* behind = payload + sequence;
    const off_t picture = pes_find_stream_id(behind, eod, id_picture);
    if (picture < 0 || eod - (behind + picture) < picture_head_size) return -1;
    const uint8_t type = behind[static_cast<size_t>(picture) + picture_type_ofs];
    return picture_letter[(type >> picture_type_shift) & picture_type_mask];
}

bool is_pes_video(const uint8_t* buf)
{
    return buf[0] == 0 && buf[1] == 0 && buf[2] == 1 && buf[3] == id_pes_video;
}

off_t pes_find_stream_id(const uint8_t* buf, const uint8_t* eod, uint8_t id)
{
    const ptrdiff_t end = eod - buf - ptrdiff_t{start_code_size};
    for (ptrdiff_t i = 0; i < end; ++i)
        if (buf[i] == 0 && buf[i + 1] == 0 && buf[i + 2] == 1 && buf[i + 3] == id) return i;
    return -1;
}

const uint8_t* ts_get_payload(const uint8_t* buf)
{
    if (!(buf[tsf::control_ofs] & tsf::has_payload)) return nullptr;
    if (!(buf[tsf::control_ofs] & tsf::has_adaptation)) return buf + tsf::head_size;
    return buf + tsf::af_flags_ofs + buf[tsf::af_len_ofs];
}
