// Under attack: the RTP test, rtp_header_len, rtp_footer_len, xtract_ts_payload. The first byte gives the hints.
#include "dstream.h"
#include "fuzz/fuzz_common.h"
#include "mpegts.h"
#include "rtp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const std::span<const uint8_t> input(data + 1, size - 1);

    const std::vector<uint8_t> ahead = exact_copy(input.first(std::min(input.size(), rtpf::lookahead)),
                                                  rtpf::lookahead - std::min(input.size(), rtpf::lookahead));
    const bool is_rtp = is_rtp_pkt(ahead.data());
    FUZZ_CHECK(is_rtp == is_rtp_data(ahead.data()));

    std::vector<uint8_t> pkt = exact_copy(input);
    if (pkt.size() >= RTP_HDR_SIZE) {
        const ssize_t hlen = rtp_header_len(pkt.data(), pkt.size());
        FUZZ_CHECK(hlen == -12 || hlen >= ssize_t{RTP_HDR_SIZE});
        FUZZ_CHECK(!is_rtp || hlen == ssize_t{RTP_HDR_SIZE});
        FUZZ_CHECK(rtp_footer_len(pkt.data(), pkt.size()) <= 255);
    }

    auto outlen = static_cast<ssize_t>(pkt.size());
    int32_t stype = 0;
    const int rc = xtract_ts_payload(pkt.data(), pkt.size(), &outlen, &stype, data[0] & XF_NO_RTP);
    if (stype == STY_RTP.num) {
        FUZZ_CHECK(rc == 0 && outlen > ssize_t{TS_MIN_PKTSIZE} - 1 && pkt[0] == MPEG_TS_SYNC);
        FUZZ_CHECK(outlen <= static_cast<ssize_t>(input.size() - RTP_HDR_SIZE));
    } else {
        FUZZ_CHECK(outlen == static_cast<ssize_t>(input.size()));
        FUZZ_CHECK(std::equal(pkt.begin(), pkt.end(), input.begin()));
    }
    return 0;
}
