// Under attack: ds_find_dgram, ts_probe, ts_find_head, probe_segment. The first byte chooses flags.
#include "dstream.h"
#include "fuzz/fuzz_common.h"
#include "mpegts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t margin = 15;        // what the finder may read behind its input
    constexpr uint32_t trace_choice = 2; // bit of the first byte
    if (size == 0) return 0;
    const uint32_t flags = data[0] & DS_DGRAM_BUF;
    std::span<const uint8_t> input(data + 1, size - 1);
    // A larger datagram is a failed assertion by design.
    if (flags && input.size() > MAX_RTP_OFFSET) input = input.first(MAX_RTP_OFFSET);

    ds_set_flags(data[0] & trace_choice ? DS_TRACE_TSPARSE : 0);
    const std::vector<uint8_t> mem = exact_copy(input, margin);
    int32_t stype = 0;
    size_t len = 0;
    const off_t at = ds_find_dgram(mem.data(), input.size(), &stype, &len, flags);
    FUZZ_CHECK((at < 0) == (stype == STY_RAW.num));
    FUZZ_CHECK(at < 0 || (at < 210 && static_cast<size_t>(at) < input.size() && len >= TS_MIN_PKTSIZE));

    const std::vector<uint8_t> seg = exact_copy(input);
    const off_t head = ts_find_head(seg.data(), seg.size(), &len);
    FUZZ_CHECK(head < 0 || seg[static_cast<size_t>(head)] == MPEG_TS_SYNC);
    size_t plen = 0, pcount = 0;
    struct sseg_ctx s = {1, 1, 0, 1};
    stype = probe_segment(seg.data(), seg.size(), 0, &plen, &pcount, &s);
    FUZZ_CHECK(plen * pcount == seg.size() && (stype == STY_MPEGTS.num || stype == STY_RAW.num));
    FUZZ_CHECK(s.pat_idx <= pcount && s.pcr_idx <= pcount && s.iframe_idx <= pcount && s.pcr < P2_33);
    plen = TS_MIN_PKTSIZE; // believed, whatever the bytes are
    s = {1, 1, 0, 1};
    probe_segment(seg.data(), seg.size(), STY_MPEGTS.num, &plen, nullptr, &s);
    return 0;
}
