// The analyzer's context and a packet's way through it: where it belongs, what it is, what it counts for.
//
// This is the per-packet road. It allocates nothing, formats nothing unless a line is due, and finds a packet's
// stream with one look into the PID map. What is rare is out of line, so that the road itself stays short.
#include "tavrin/tsanalyze.h"

#include "log.h"
#include "syswrap.h"
#include "tavrin/tsanalyze_int.h"

#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

using namespace tsan_int;

namespace
{

constexpr int ERR_NO_MEMORY = 12;
constexpr time_t NOTICE_PERIOD_SEC = 11; // between two complaints about a stream without metadata

#ifdef KVT_DEEP_CHECKS
void deep_check(const tsan_ctx* tc)
{
    const char* why = nullptr;
    if (tsan_validate(tc, &why)) return;
    tv_log(ll::panic, "%s: [%s] %s\n", __func__, tc->cfg.source, why);
    fprintf(stderr, "%s: %s\n", __func__, why);
    tsan_dump(stderr, tc);
    abort();
}
#else
inline void deep_check(const tsan_ctx*) {}
#endif

void setup_dat(tsan_ctx* tc, unsigned pid)
{
    dgram_info& dat = tc->dat;
    dat = {.ipg = -1, .istm = -1, .is_pat = pid == PAT_PKT_PID, .is_pmt = false, .program = nullptr, .stream = nullptr};
    const pid_slot slot = tc->pid_map[pid];
    if (slot.ipg < 0 || dat.is_pat) return;
    dat.ipg = slot.ipg;
    dat.program = &tc->pg[slot.ipg];
    dat.is_pmt = slot.istm < 0;
    if (dat.is_pmt) return;
    dat.istm = slot.istm;
    dat.stream = &dat.program->stm[slot.istm];
}

// Notes what the packet's tag is made of. The PCR is noted as it stands now: the packet may bring a new one.
void mk_ptag(tsan_ctx* tc)
{
    const dgram_info& dat = tc->dat;
    tag_src& tag = tc->tag;
    tag.pkt_idx = tc->last_pkt_idx;
    tag.ipg = static_cast<int16_t>(dat.ipg);
    tag.istm = static_cast<int16_t>(dat.istm);
    tag.with_pcr = false;
    if (dat.program == nullptr) {
        tag.kind = dat.is_pat ? tag_kind::pat : tag_kind::other;
        return;
    }
    tag.kind = dat.is_pmt ? tag_kind::pmt : tag_kind::stream;
    if (!dat.program->got_pcr) return;
    tag.with_pcr = true;
    tag.pcr = dat.program->last_pcr;
    tag.pcr_age = tc->last_pkt_idx - dat.program->pcr_pktnum;
}

void render_tag(const tag_src& tag, char (&text)[PKTIDX_LEN])
{
    int len = 0;
    switch (tag.kind) {
    case tag_kind::none: text[0] = '\0'; return;
    case tag_kind::pat: len = snprintf(text, sizeof(text), "PAT[%lu]", tag.pkt_idx); break;
    case tag_kind::pmt: len = snprintf(text, sizeof(text), "%zd:M[%lu]", ssize_t{tag.ipg}, tag.pkt_idx); break;
    case tag_kind::stream:
        len = snprintf(text, sizeof(text), "%zd:%zd[%lu]", ssize_t{tag.ipg}, ssize_t{tag.istm}, tag.pkt_idx);
        break;
    case tag_kind::other: len = snprintf(text, sizeof(text), "pkt[%lu]", tag.pkt_idx); break;
    }
    if (len <= 0 || size_t(len) >= sizeof(text) - 1 || !tag.with_pcr) return;
    (void)snprintf(text + len, sizeof(text) - size_t(len), ":(pcr=%lu)+%lu", tag.pcr, tag.pcr_age);
}

// Counts the packet as processed and as analyzed, for its stream, its program and the program's tracks of its class.
// Every processed packet is analyzed, so the two move together.
void inc_pkt_stat(tsan_ctx* tc)
{
    stream_info& stm = *tc->dat.stream;
    sa_stats& stat = prog(tc)->stat;
    ++stm.pcount;
    ++stm.acount;
    ++stat.pcount;
    ++stat.acount;
    if (stm.stype == 'V') {
        ++stat.v_pcount;
        ++stat.v_acount;
    } else if (stm.stype == 'A') {
        ++stat.a_pcount;
        ++stat.a_acount;
    } else if (stm.stype == 'S') {
        ++stat.s_pcount;
        ++stat.s_acount;
    }
}

void take_PES_head(tsan_ctx* tc, const uint8_t* pkt)
{
    if ((pkt[tsf::flags_ofs] & tsf::unit_start) == 0) return;
    const std::span<const uint8_t> pld = ts_get_payload(pkt);
    if (is_pes_pkt(pld)) update_pts_dts(tc, pld, tc->dat.stream);
}

[[gnu::cold, gnu::noinline]] void trace_PSI_pkt(tsan_ctx* tc, unsigned pid)
{
    if (pid == PAT_PKT_PID)
        tv_log(ll::info, "[%s] found PAT at %s\n", tc->cfg.source, tag_text(tc));
    else
        tv_log(ll::info, "[%s] found PMT (pid%u) at %s\n", tc->cfg.source, pid, tag_text(tc));
}

[[gnu::cold, gnu::noinline]] void trace_SDT_pkt(tsan_ctx* tc)
{
    tv_log(ll::info, "[%s] disregarding SDT at %s\n", tc->cfg.source, tag_text(tc));
}

[[gnu::cold, gnu::noinline]] void trace_misc_pkt(tsan_ctx* tc, unsigned pid)
{
    tv_log(ll::info, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", tc->cfg.source, pid, tag_text(tc));
}

// Takes a PAT or PMT packet. One without payload brings no section and changes nothing.
[[gnu::noinline]] void take_PSI_pkt(tsan_ctx* tc, unsigned pid, const uint8_t* pkt)
{
    if (tc->cfg.trk.pat_pmt_pkt) trace_PSI_pkt(tc, pid);
    const std::span<const uint8_t> sec = psi_section(pkt);
    if (sec.empty())
        tv_log(ll::debug, "%s: [%s] no section in the packet (pid%u) at %s\n", __func__, tc->cfg.source, pid,
               tag_text(tc));
    else if (pid == PAT_PKT_PID)
        take_PAT(tc, sec);
    else
        take_PMT(tc, sec, pid);
    deep_check(tc);
}

// Classifies the packet: the first class that fits has it. Returns the stream index, -1 for none.
int upsert_pkt_info(tsan_ctx* tc, unsigned pid, const uint8_t* pkt)
{
    // By design a stream or PMT on the SDT's PID is passed over here, and its packets still count.
    if (pid == SDT_PKT_PID) {
        if (tc->cfg.trk.sdt_ignore) trace_SDT_pkt(tc);
    } else if (tc->dat.is_pat || tc->dat.is_pmt) {
        take_PSI_pkt(tc, pid, pkt);
    } else if (tc->dat.istm >= 0) {
        if (pkt_has_pcr(tc, pid, pkt)) pcr_intake(tc, pkt);
        take_PES_head(tc, pkt);
    } else if (tc->cfg.trk.misc_ignore) {
        trace_misc_pkt(tc, pid);
    }
    return int(tc->dat.istm);
}

// Each program that starts late sets it anew: the last one to start has the last word.
[[gnu::cold, gnu::noinline]] void note_first_analyzed(tsan_ctx* tc)
{
    tc->pre_skipped = tc->ptotal - 1;
    tv_log(ll::info, "%s: %lu skipped before analysis\n", "analyze_pkt", tc->pre_skipped);
}

// Requires: a current program and stream.
int analyze_pkt(tsan_ctx* tc, unsigned pid, const uint8_t* pkt)
{
    if (prog(tc)->stat.acount == 0) note_first_analyzed(tc);
    ++tc->atotal;
    inc_pkt_stat(tc);
    if (!tc->cfg.is_enabled) return 0;
    const uint8_t control = pkt[tsf::control_ofs];
    if (tc->cfg.cc_track && (control & tsf::has_payload) != 0) cc_track(tc, pid, control & tsf::cc_mask);
    if (has_fresh_stamps(tc, pid)) check_timestamps(tc, pkt);
    return 0;
}

[[gnu::cold, gnu::noinline]] int refuse_unsynced(tsan_ctx* tc)
{
    tv_log(ll::error, "%s: [%s] out of sync at %s\n", "tsan_process", tc->cfg.source, tag_text(tc));
    return -1;
}

// Nothing has been analyzed so far: waits for metadata, and complains when it takes too long.
[[gnu::cold, gnu::noinline]] int judge_skip_phase(tsan_ctx* tc)
{
    static time_t last_notice = 0;
    if (tc->last_pkt_idx < tc->cfg.max_skip_pkts) return 0;
    const time_t now = time(nullptr);
    if (now - last_notice >= NOTICE_PERIOD_SEC) {
        tv_log(ll::error, "[%s] has been idling for too long (%lu/%zu packets)\n", tc->cfg.source, tc->last_pkt_idx,
               tc->cfg.max_skip_pkts);
        last_notice = now;
    }
    return TSAN_NO_METADATA;
}

} // namespace

// ---- packet tags ----------------------------------------------------------------------------------------------

namespace tsan_int
{

const char* tag_text(tsan_ctx* tc)
{
    render_tag(tc->tag, tc->ptag);
    return tc->ptag;
}

const char* pcr_tag_text(program_info* pg)
{
    render_tag(pg->pcr_tag, pg->pcr_ptag);
    return pg->pcr_ptag;
}

} // namespace tsan_int

// ---- context --------------------------------------------------------------------------------------------------

tsan_t tsan_init(const char* source, const tsan_config* cfg, int* err)
{
    auto* tc = static_cast<tsan_ctx*>(W_calloc(__func__, 1, sizeof(tsan_ctx)));
    if (tc == nullptr) {
        if (err != nullptr) *err = ERR_NO_MEMORY;
        return nullptr;
    }
    tc->cfg = *cfg;
    if (source != nullptr) {
        memset(tc->cfg.source, 0, sizeof(tc->cfg.source));
        memcpy(tc->cfg.source, source, strnlen(source, sizeof(tc->cfg.source) - 1));
    }
    for (program_info& pg : tc->pg)
        pg.ref_idx = pg.pcr_idx = -1;
    init_pat_tables(tc);
    pid_map_rebuild(tc);
    tc->ndat_pcount = tc->cfg.max_ndat_pcount;
    deep_check(tc);
    tv_log(ll::debug, "%s: tsan[%s] (%p) created\n", __func__, tc->cfg.source, static_cast<void*>(tc));
    return tc;
}

void tsan_free(tsan_t t)
{
    // By design: a zeroed source tag marks a context as freed, the only guard against a second call. So a context
    // that was created without one stays.
    if (t->cfg.source[0] == '\0') {
        tv_log(ll::warning, "%s: avoiding double-freeing of tsan[] (%p)\n", __func__, static_cast<void*>(t));
        return;
    }
    tv_log(ll::debug, "%s: freeing up tsan[%s] (%p)\n", __func__, t->cfg.source, static_cast<void*>(t));
    // Slots that a changed PAT left behind may hold a text, too.
    for (program_info& pg : t->pg)
        close_ctxt(&pg.txt_pmt);
    free_pat_tables(t);
    memset(t, 0, sizeof(*t));
    free(t);
}

// ---- packets --------------------------------------------------------------------------------------------------

int tsan_process(tsan_t t, const uint8_t* pkt)
{
    const unsigned pid = ts_pid(pkt);
    setup_dat(t, pid);
    if (t->start_tm.tv_sec == 0 && t->start_tm.tv_nsec == 0) set_now(&t->start_tm);
    ++t->last_pkt_idx;
    ++t->ptotal;
    mk_ptag(t);
    if (pkt[0] != TS_SYNC) return refuse_unsynced(t);
    const int idx = upsert_pkt_info(t, pid, pkt);
    if (idx >= 0) {
        if (analyze_pkt(t, pid, pkt) != 0) return -1;
        if (t->ndat_pcount != 0) check_pcount(t, false);
    }
    return t->atotal != 0 ? 0 : judge_skip_phase(t);
}

uint64_t tsan_get_pidx(tsan_t t)
{
    return t->last_pkt_idx;
}

void tsan_set_pidx(tsan_t t, uint64_t new_pidx)
{
    tv_log(ll::warning, "[%s] packet index changed from %lu to %lu\n", t->cfg.source, t->last_pkt_idx, new_pidx);
    t->last_pkt_idx = new_pidx;
}
