// The stream's clocks: PCR against PCR, audio against PCR, audio against the reference video stream.
//
// Every measurement goes into an aggregate, and only one beyond its limit becomes text: this file runs for each packet
// of a stream with a waiting timestamp, and for each PCR. The wrap rule of ts_pcr_delta holds between two PCRs alone,
// since those come in stream order; two timestamps are put in order by size first, so that a pair on either side of
// the 33-bit wrap counts as nearly 2^33 ticks apart.
#include "tavrin/tsanalyze_int.h"

#include "log.h"

#include <utility>

TV_LOG_MODULE(0)

namespace
{

using namespace tsan_int;

constexpr uint64_t TICKS_PER_MS = 90;
constexpr char NO_PCR_STREAM = 'P'; // stands for the class of a PCR stream that is in no table

using timestr = char[TIMESTR_SZ];

const char* time_text(uint64_t ms, timestr& buf)
{
    ms2timestr(ms, buf, sizeof(buf) - 1);
    return buf;
}

const char* stamp_word(bool is_pts)
{
    return is_pts ? "pts" : "dts";
}

uint64_t stamp_of(const struct stream_info* si, bool is_pts)
{
    return is_pts ? si->last_pts : si->last_dts;
}

// Milliseconds between two timestamps, whichever is the later.
uint64_t stamp_delta_ms(uint64_t a, uint64_t b)
{
    return a < b ? pcr_delta_ms(a, b) : pcr_delta_ms(b, a);
}

// ---- PCR against PCR ----

void alert_pcr_freq(struct tsan_ctx* tc, uint64_t new_pcr, uint64_t delta_ms)
{
    struct program_info* pg = prog(tc);
    if (!tc->cfg.no_rlog) {
        // By design these two show the bare ticks as if they were ms, so that they read 90 times too long.
        timestr old_txt;
        timestr new_txt;
        tv_log(ll::warning, "ALERT PCR-FREQ pid=%u old/new: %lu [%s]/%lu [%s] delta=%lu\n", pg->pcr_pid, pg->last_pcr,
               time_text(pg->last_pcr, old_txt), new_pcr, time_text(new_pcr, new_txt), delta_ms);
    }
    if (tc->cfg.access_log_alerts) {
        tv_record(&g_access_log, "ALERT PCR-FREQ %s %u %lu %lu %lu [%s]\n", tc->cfg.source, pg->pcr_pid, pg->last_pcr,
                  new_pcr, delta_ms, tag_text(tc));
    }
    pg->alert.pcr_freq++;
}

// Runs while the program still holds the PCR before.
void pcr_freq_check(struct tsan_ctx* tc, uint64_t new_pcr)
{
    struct program_info* pg = prog(tc);
    const uint64_t delta_ms = pcr_delta_ms(pg->last_pcr, new_pcr);
    inc_aval(&pg->av_pcr_freq, delta_ms);
    if (delta_ms > tc->cfg.pcr_freq_ms) alert_pcr_freq(tc, new_pcr, delta_ms);
}

// ---- audio against PCR ----

void dump_pcr_diff(struct tsan_ctx* tc, bool is_pts, uint64_t delta, const struct stream_info* si)
{
    struct program_info* pg = prog(tc);
    const char* ttype = stamp_word(is_pts);
    const uint64_t s_time = stamp_of(si, is_pts);
    const struct stream_info* ref_si = pg->pcr_idx >= 0 ? &pg->stm[pg->pcr_idx] : nullptr;
    if (!tc->cfg.no_rlog) {
        timestr pcr_txt;
        timestr s_txt;
        // By design the word stands behind "pcr:" and the PCR's tag ahead of the packet's.
        tv_log(ll::warning,
               "ALERT PCR-DELTA [%s] pcr:%s <> %s:%s %c:pcr(pid%u)/%c:%s(pid%u) = %lu [%s]/ %lu [%s] delta=%lu\n",
               tc->cfg.source, ttype, pcr_tag_text(pg), tag_text(tc), ref_si ? ref_si->stype : NO_PCR_STREAM,
               ref_si ? ref_si->pid : pg->pcr_pid, si->stype, ttype, si->pid, pg->last_pcr,
               time_text(pg->last_pcr / TICKS_PER_MS, pcr_txt), s_time, time_text(s_time / TICKS_PER_MS, s_txt), delta);
    }
    if (tc->cfg.access_log_alerts) {
        tv_record(&g_access_log, "ALERT PCR-DELTA %s %s %u %lu %u %lu %lu [%s]\n", tc->cfg.source, ttype, pg->pcr_pid,
                  pg->last_pcr, si->pid, s_time, delta, tag_text(tc));
    }
    pg->alert.pcr_delta++;
}

void ck_pcr(struct tsan_ctx* tc, bool is_pts, const struct stream_info* si)
{
    struct program_info* pg = prog(tc);
    const uint64_t delta_ms = stamp_delta_ms(stamp_of(si, is_pts), pg->last_pcr);
    inc_aval(&pg->av_pcr_delta, delta_ms);
    if (delta_ms > tc->cfg.max_pcr_delta) dump_pcr_diff(tc, is_pts, delta_ms, si);
}

// ---- audio against reference video ----

void dump_time_info(struct tsan_ctx* tc, const char* msg, bool is_pts, uint64_t delta, const struct stream_info* ref_si,
                    const struct stream_info* si)
{
    const struct program_info* pg = prog(tc);
    const char* ttype = stamp_word(is_pts);
    const uint64_t ref_time = stamp_of(ref_si, is_pts);
    const uint64_t s_time = stamp_of(si, is_pts);
    if (!tc->cfg.no_rlog) {
        timestr ref_txt;
        timestr s_txt;
        timestr pcr_txt;
        tv_log(ll::warning, "ALERT %s [%s] %s %c:%s(pid%u)/%c:%s(pid%u) = %lu [%s]/%lu [%s] PCR=%lu [%s], delta=%lu\n",
               msg, tc->cfg.source, tag_text(tc), ref_si->stype, ttype, ref_si->pid, si->stype, ttype, si->pid,
               ref_time, time_text(ref_time / TICKS_PER_MS, ref_txt), s_time, time_text(s_time / TICKS_PER_MS, s_txt),
               pg->last_pcr, time_text(pg->last_pcr / TICKS_PER_MS, pcr_txt), delta);
    }
    if (tc->cfg.access_log_alerts) {
        tv_record(&g_access_log, "ALERT %s %s %s %u %lu %u %lu %lu [%s]\n", msg, tc->cfg.source, ttype, ref_si->pid,
                  ref_time, si->pid, s_time, delta, tag_text(tc));
    }
}

void ck_tstamp(struct tsan_ctx* tc, bool is_pts, const struct stream_info* ref_si, const struct stream_info* si)
{
    struct program_info* pg = prog(tc);
    const uint64_t ref_time = stamp_of(ref_si, is_pts);
    const uint64_t s_time = stamp_of(si, is_pts);
    const uint64_t delta_ms = stamp_delta_ms(ref_time, s_time);
    inc_aval(&pg->av_pdts_delta, delta_ms);
    if (delta_ms == 0 && ref_time != s_time) {
        dump_time_info(tc, "AV-DELTA0", is_pts, 0, ref_si, si);
        pg->alert.av_delta0++;
    } else if (delta_ms > tc->cfg.max_pdts_delta) {
        dump_time_info(tc, "AV-DELTA+", is_pts, delta_ms, ref_si, si);
        pg->alert.av_deltaplus++;
    }
}

// True if a line for each new timestamp is asked for and would be seen.
bool is_stamp_traced(const struct tsan_ctx* tc)
{
    return tc->cfg.trk.pdts_update && log_gate_open(&g_llctx, ll::debug);
}

} // namespace

namespace tsan_int
{

void pcr_intake(struct tsan_ctx* tc, const uint8_t* pkt)
{
    struct program_info* pg = prog(tc);
    const uint64_t new_pcr = ts_pcr_base(pkt);
    if (tc->cfg.pcr_freq_ms != 0 && pg->last_pcr != 0) pcr_freq_check(tc, new_pcr);

    pg->last_pcr = new_pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    keep_pcr_tag(tc);
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update) {
        timestr txt;
        tv_log(ll::info, "[%s] new PCR=%lu [%s] at %s\n", tc->cfg.source, new_pcr,
               time_text(new_pcr / TICKS_PER_MS, txt), tag_text(tc));
    }
}

void update_pts_dts(struct tsan_ctx* tc, std::span<const uint8_t> pld, struct stream_info* si)
{
    if (pes_has_PTS(pld)) {
        const uint64_t old_pts = std::exchange(si->last_pts, pes_get_PTS(pld));
        si->pts_pktnum = tc->last_pkt_idx;
        si->pts_updated = si->last_pts != old_pts;
        if (si->pts_updated && is_stamp_traced(tc)) {
            timestr txt;
            tv_log(ll::info, "%s: [%s] PTS=%lu [%s] pid=%u at %s\n", __func__, tc->cfg.source, si->last_pts,
                   time_text(si->last_pts / TICKS_PER_MS, txt), si->pid, tag_text(tc));
        }
    }
    if (pes_has_DTS(pld)) {
        const uint64_t old_dts = std::exchange(si->last_dts, pes_get_DTS(pld));
        si->dts_pktnum = tc->last_pkt_idx;
        si->dts_updated = si->last_dts != old_dts;
        if (si->dts_updated && is_stamp_traced(tc)) {
            timestr txt;
            tv_log(ll::info, "%s: [%s] DTS=%lu [%s] pid=%u at %s\n", __func__, tc->cfg.source, si->last_dts,
                   time_text(si->last_dts / TICKS_PER_MS, txt), si->pid, tag_text(tc));
        }
    }
}

void check_timestamps(struct tsan_ctx* tc, const uint8_t* pkt)
{
    struct program_info* pg = prog(tc);
    struct stream_info* si = tc->dat.stream;
    if (ts_get_payload(pkt).empty()) return;
    if (si->stype != 'A') return;

    // By design this clears no flag: until a comparison with the reference does, each further payload packet measures
    // the same timestamp again.
    if (tc->cfg.max_pcr_delta != 0 && pg->got_pcr) {
        if (si->pts_updated) ck_pcr(tc, true, si);
        if (si->dts_updated) ck_pcr(tc, false, si);
    }

    if (tc->cfg.max_pdts_delta == 0 || pg->ref_idx < 0) return;
    const struct stream_info* ref = &pg->stm[pg->ref_idx];
    if (si->pts_updated && ref->last_pts != 0) {
        ck_tstamp(tc, true, ref, si);
        si->pts_updated = false;
    }
    if (si->dts_updated && ref->last_dts != 0) {
        ck_tstamp(tc, false, ref, si);
        si->dts_updated = false;
    }
}

} // namespace tsan_int
