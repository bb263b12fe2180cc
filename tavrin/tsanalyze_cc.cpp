// Continuity: the 4-bit counter of every tracked stream.
//
// Told apart: a break; a restart at 0 a long time after the same stream's last jump to 0; equal jumps on different PIDs
// within one datagram, a sign that whole datagrams were lost. By design a repeated counter is a break like any other
// and the discontinuity indicator is not read.
//
// The verdict on a datagram comes at the next boundary, and one packet in sequence after the breaks wipes it out.
//
// What reports is kept out of line: the packet in sequence, nearly every one, pays for no line it does not write.
#include "log.h"
#include "tavrin/tsanalyze_int.h"

TV_LOG_MODULE(0)

using namespace tsan_int;

namespace
{

// By design a repeated counter is a jump of 0, not of 16.
constexpr int cc_jump(int last_cc, int cc)
{
    return cc + (last_cc > cc ? CC_MODULUS : 0) - last_cc;
}
static_assert(cc_jump(3, 1) == 14 && cc_jump(15, 15) == 0 && cc_jump(4, 7) == 3);

bool is_cc_mlr(const tsan_ctx* tc, unsigned pid, int last_cc, int cc)
{
    const cc_alert_ctx& cca = tc->last_cca;
    // A break in datagram 0 counts as none.
    if (cca.seg_idx == 0) return false;
    if (cca.nmlr == CC_IN_SEQUENCE) return false;
    if (cca.seg_idx != prog(tc)->last_seg_idx) return false;
    if (cca.pid == pid) return false;
    return cca.delta == cc_jump(last_cc, cc);
}

void save_cca(tsan_ctx* tc, unsigned pid, int last_cc, int cc)
{
    cc_alert_ctx& cca = tc->last_cca;
    if (is_cc_mlr(tc, pid, last_cc, cc)) ++cca.nmlr;
    cca.pid = pid;
    cca.delta = cc_jump(last_cc, cc);
    cca.seg_idx = prog(tc)->last_seg_idx;
}

[[gnu::cold, gnu::noinline]] void alert_cc_break(tsan_ctx* tc, unsigned pid, int last_cc, int cc)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    if (!tc->cfg.no_rlog)
        tv_log(ll::warning, "ALERT CC-BRK [%s] dgram:%lu last/current=%d/%d pid=%u at %s\n", tc->cfg.source, seg,
               last_cc, cc, pid, tag_text(tc));
    if (tc->cfg.access_log_alerts)
        tv_record(&g_access_log, "ALERT CC-BRK %s %u %lu %d %d %s\n", tc->cfg.source, pid, seg, last_cc, cc,
                  tag_text(tc));
    ++prog(tc)->alert.cc_break;
    save_cca(tc, pid, last_cc, cc);
}

[[gnu::cold, gnu::noinline]] void alert_cc_rst(tsan_ctx* tc, unsigned pid, int last_cc, int cc, long delta)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    if (!tc->cfg.no_rlog)
        tv_log(ll::warning, "ALERT CC-RST [%s] dgram:%lu last/current=%d/%d pid=%u delta_ms=%ld at %s\n",
               tc->cfg.source, seg, last_cc, cc, pid, delta, tag_text(tc));
    if (tc->cfg.access_log_alerts)
        tv_record(&g_access_log, "ALERT CC-RST %s %u %lu %d %d %ld %s\n", tc->cfg.source, pid, seg, last_cc, cc, delta,
                  tag_text(tc));
    ++prog(tc)->alert.cc_reset;
    save_cca(tc, pid, last_cc, cc);
}

[[gnu::cold, gnu::noinline]] void alert_cc_mlr(tsan_ctx* tc)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    const int nmlr = tc->last_cca.nmlr;
    // By design this one human line ends without a line feed.
    if (!tc->cfg.no_rlog)
        tv_log(ll::warning, "ALERT CC-MLR [%s] dgram:%lu count=%d at %s", tc->cfg.source, seg, nmlr, tag_text(tc));
    if (tc->cfg.access_log_alerts)
        tv_record(&g_access_log, "ALERT CC-MLR %s %lu %d %s\n", tc->cfg.source, seg, nmlr, tag_text(tc));
    ++tc->gac.cc_mlr;
}

// A restart is a jump to 0 that follows another one of the same stream after at least cc_max_ms0_ms. Each jump to 0
// starts the clock anew. *delta is the time passed in ms, 0 if none was running.
bool is_restart(const tsan_ctx* tc, cc_info* info, int cc, long* delta)
{
    *delta = 0;
    if (cc != 0 || tc->cfg.cc_max_ms0_ms == 0) return false;
    timespec now;
    set_now(&now);
    const bool running = info->ms0_tm.tv_sec != 0 || info->ms0_tm.tv_nsec != 0;
    if (running) *delta = diff_ms(&info->ms0_tm, &now);
    cpy_timespec(&info->ms0_tm, &now);
    return running && *delta >= tc->cfg.cc_max_ms0_ms;
}

} // namespace

namespace tsan_int
{

void report_break(tsan_ctx* tc, cc_info* info, unsigned pid, int cc)
{
    long delta = 0;
    if (is_restart(tc, info, cc, &delta))
        alert_cc_rst(tc, pid, info->value, cc, delta);
    else
        alert_cc_break(tc, pid, info->value, cc);
}

void trace_cc(tsan_ctx* tc, unsigned pid, int cc)
{
    tv_log(ll::info, "%s: [%s] CC=%d pid=%u at %s\n", "cc_track", tc->cfg.source, cc, pid, tag_text(tc));
}

} // namespace tsan_int

void tsan_next_seg(tsan_t t)
{
    program_info* pg = prog(t);
    if (pg == nullptr) return;
    if (t->last_cca.nmlr > 0) alert_cc_mlr(t);
    t->last_cca.nmlr = 0;
    ++pg->last_seg_idx;
}
