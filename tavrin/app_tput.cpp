// Throughput reports: how much came in, in the log and as a record on the alert log.
//
// The work is done after a read: a silent source gets no report.

#include "log.h"
#include "mmr.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"

#include <cassert>
#include <ctime>
#include <utility>

TV_LOG_MODULE(app_int::log_module)

namespace
{

constexpr double KB = 1024.0; // by design Kb and Kbps mean 1024 bytes, and 1024 bytes a second

constinit time_t last_report_tm = 0; // 0: no read yet
constinit double last_total = 0;     // total_bytes at the last report

} // namespace

void update_tps(size_t nbytes)
{
    const time_t now = time(nullptr);
    if (last_report_tm == 0) last_report_tm = now;
    assert(g_cfg.report_tput_sec > 0);

    struct kvt_tput_stats* tps = &g_ctx.tps;
    tps->total_bytes += static_cast<double>(nbytes);
    tps->total_pkts += 1;

    const time_t delta_tm = now - last_report_tm;
    if (std::cmp_less(delta_tm, g_cfg.report_tput_sec)) return;
    const double span_sec = static_cast<double>(delta_tm);
    tps->total_sec += span_sec;
    tps->lavg_speed = (tps->total_bytes - last_total) / span_sec;
    tps->gavg_speed = tps->total_bytes / tps->total_sec;
    output_tps(g_cfg.tsa.source, tps);
    last_report_tm = now;
    last_total = tps->total_bytes;
}

void output_tps(const char* src, const struct kvt_tput_stats* tps)
{
    struct mm_info mi = {};
    mmr_get_info(g_ctx.mmr, &mi);
    const char* tag = src != nullptr && src[0] != '\0' ? src : "-";
    const double cached_kb = static_cast<double>(mi.pld_size) / KB;

    tv_log(ll::info, "IN total: %s %.02f Kb, %.f dgrams at local:%.02f/global:%.02f Kbps, %.02f Kb cached\n", tag,
           tps->total_bytes / KB, tps->total_pkts, tps->lavg_speed / KB, tps->gavg_speed / KB, cached_kb);
    tv_record(&g_access_log, "STAT TPS %s %.02f %.f %.02f %.02f %.02f\n", tag, tps->total_bytes / KB, tps->total_pkts,
              tps->lavg_speed / KB, tps->gavg_speed / KB, cached_kb);
}
