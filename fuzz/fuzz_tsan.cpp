// Under attack: the analyzer's packet path, all checks and traces on. The input is a run of packets, the last one cut.
// At the end the record has to be one that the analyzer's own rules allow.
#include "fuzz/fuzz_common.h"
#include "fuzz/tsan_guard.h"
#include "log.h"
#include "tavrin/tsanalyze_int.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    struct tsan_config cfg = {};
    cfg.is_enabled = cfg.access_log_alerts = cfg.cc_track = true;
    cfg.max_pdts_delta = cfg.max_pcr_delta = cfg.pcr_freq_ms = 40;
    cfg.max_skip_pkts = cfg.max_ndat_pcount = 20;
    cfg.cc_max_ms0_ms = 500;
    cfg.trk = {true, true, true, true, true, true, true, true};

    tsan_t t = tsan_init("fuzz", &cfg, nullptr);
    FUZZ_CHECK(t != nullptr);
    tsan_guard guard;
    uint64_t taken = 0;
    for (std::span<const uint8_t> left(data, size); !left.empty();) {
        const size_t len = std::min(left.size(), TS_MIN_PKTSIZE);
        std::vector<uint8_t> pkt = exact_copy(left.first(len), TS_MIN_PKTSIZE - len);
        left = left.subspan(len);
        if (pkt[0] != 0) pkt[0] = MPEG_TS_SYNC; // a zero stays one: out of sync
        if (guard.ends_the_process(pkt.data())) continue;
        if (taken % 7 == 0) tsan_next_seg(t);
        tsan_process(t, pkt.data());
        FUZZ_CHECK(tsan_get_pidx(t) == ++taken);
    }
    FUZZ_CHECK(tsan_int::tsan_validate(t, nullptr));
    tsan_check_ndat(t);
    tsan_dump_stats(log_fp(&g_log), t);
    tsan_alog_stats(t);
    tsan_reset_local_stats(t);
    tsan_free(t);
    return 0;
}
