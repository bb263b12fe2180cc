// Silent tracks, and a feed that lost the packet rhythm.
//
// The look for silent tracks costs a walk over all tables, so it runs when a program's packet count reaches a
// threshold, and stands down when every track has been heard. It counts packets instead of seconds, and so keeps step
// with the stream. A track counts as heard if it ever had a packet, not if it has one now.
#include "tavrin/tsanalyze_int.h"

#include "log.h"

#include <algorithm>
#include <ctime>

TV_LOG_MODULE(0)

namespace
{

using namespace tsan_int;

// LOST-SYNC: so many cases within one period are bearable; a period lasts at least one second more than this.
constexpr size_t MAX_LOST_SYNC = 9;
constexpr time_t LOST_SYNC_PERIOD_SEC = 2;

// What the next threshold is counted from: the current program's packets. A table packet has no program; the program
// that is furthest then stands in, so that none of them meets the threshold early.
uint64_t ndat_base(const struct tsan_ctx* tc)
{
    if (prog(tc)) return prog(tc)->stat.pcount;
    uint64_t base = 0;
    for (size_t i = 0; i < tc->nprogs; i++)
        base = std::max(base, tc->pg[i].stat.pcount);
    return base;
}

void alert_ndat_pcount(struct tsan_ctx* tc, size_t iprog, size_t istm, unsigned pid)
{
    if (!tc->cfg.no_rlog) {
        tv_log(ll::warning, "ALERT PID-NDAT [%s] %zu:%zu pid%u received no data %s\n", tc->cfg.source, iprog, istm, pid,
               tag_text(tc));
    }
    if (tc->cfg.access_log_alerts) {
        tv_record(&g_access_log, "ALERT PID-NDAT %s %u %zu %zu %s\n", tc->cfg.source, pid, iprog, istm, tag_text(tc));
    }
    // By design the count goes to the program of the packet at hand, whichever program the silent track is of.
    struct program_info* pg = prog(tc) ? prog(tc) : &tc->pg[iprog];
    pg->alert.pid_ndat++;
}

struct walk_result {
    size_t ntracks;
    size_t alerted;
};

walk_result alert_silent_tracks(struct tsan_ctx* tc)
{
    walk_result r = {0, 0};
    for (size_t i = 0; i < tc->nprogs; i++) {
        const struct program_info* pg = &tc->pg[i];
        for (size_t j = 0; j < pg->nstreams; j++) {
            r.ntracks++;
            if (pg->stm[j].pcount != 0) continue;
            alert_ndat_pcount(tc, i, j, pg->stm[j].pid);
            r.alerted++;
        }
    }
    return r;
}

} // namespace

namespace tsan_int
{

void check_pcount(struct tsan_ctx* tc, bool forced)
{
    if (!forced && prog(tc)->stat.pcount < tc->ndat_pcount) return;

    const walk_result r = alert_silent_tracks(tc);
    if (r.alerted != 0) {
        tv_log(ll::warning, "[%s] %zu tracks NOT receiving data\n", tc->cfg.source, r.alerted);
        reset_ndat_pcount(tc);
    } else {
        tc->ndat_pcount = 0;
        tv_log(ll::normal, "[%s] %zu tracks receiving data\n", tc->cfg.source, r.ntracks);
    }
    // A check that is off for good stays off, also when it is forced.
    tc->ndat_pcount = r.alerted != 0 && tc->cfg.max_ndat_pcount != 0 ? ndat_base(tc) + tc->cfg.max_ndat_pcount : 0;
}

void reset_ndat_pcount(struct tsan_ctx* tc)
{
    if (tc->cfg.max_ndat_pcount == 0) return;
    tc->ndat_pcount = ndat_base(tc) + tc->cfg.max_ndat_pcount;
    tv_log(ll::debug, "%s: (%p) NDAT pcount=%lu\n", __func__, static_cast<void*>(tc), tc->ndat_pcount);
}

} // namespace tsan_int

// ---- stream-wide alerts ---------------------------------------------------------------------------------------

void tsan_check_ndat(tsan_t t)
{
    check_pcount(t, true);
}

int tsan_alert_lostsync(tsan_t t)
{
    // Per process, as there is one source per process.
    static time_t last_tm = 0;
    static size_t count = 0;

    const time_t now = time(nullptr);
    if (last_tm == 0) {
        last_tm = now;
    } else if (now - last_tm > LOST_SYNC_PERIOD_SEC && count <= MAX_LOST_SYNC) {
        count = 0;
        last_tm = now;
    }
    count++;
    t->gac.lost_sync++;

    if (!t->cfg.no_rlog) {
        tv_log(ll::warning, "ALERT LOST-SYNC [%s] seq=%zu at %s\n", t->cfg.source, count, tag_text(t));
    }
    // By design whatever access_log_alerts says: the reader of the alert log must learn why the run ends.
    tv_record(&g_access_log, "ALERT LOST-SYNC %s %zu [%s]\n", t->cfg.source, count, tag_text(t));

    if (count <= MAX_LOST_SYNC) return 0;
    tv_log(ll::error, "%s: bailing out after %zu cases within %ld sec\n", __func__, count,
           static_cast<long>(now - last_tm));
    return -1;
}
