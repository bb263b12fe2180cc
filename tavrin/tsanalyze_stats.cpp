// Reports: a block of text for people, and STAT records on the alert log for programs.
//
// All counters run from the start; only the three aggregates of a program have a local span. The records' fields are
// positions that programs rely on: a new field may only come behind the last.
#include "tavrin/tsanalyze_int.h"

#include "log.h"
#include "tavrin/ts_bits.h"

#include <ctime>

TV_LOG_MODULE(0)

namespace
{

using namespace tsan_int;

constexpr size_t MPTS_MIN_PROGRAMS = 2;
constexpr int NO_PID = -1;

// ---- text ----

void dump_scope(FILE* fp, const struct tsan_ctx* tc)
{
    fprintf(fp, "\tProcessed/analyzed             %lu/%lu\n", tc->ptotal, tc->atotal);
    fprintf(fp, "\tPackets start-skipped:         %lu\n", tc->pre_skipped);
    fprintf(fp, "\tPrograms:                      %zu %s\n\n", tc->nprogs,
            tc->nprogs >= MPTS_MIN_PROGRAMS ? "(MPTS)" : "");
    fprintf(fp,
            "\tStream-scope ALERTS:\n\t\tLOST-SYNC:         %lu\n\t\tPAT-DIFF:          %lu\n"
            "\t\tCC-MLR:            %lu\n\n",
            tc->gac.lost_sync, tc->gac.pat_diff, tc->gac.cc_mlr);
}

void dump_tracks(FILE* fp, size_t i, const struct program_info* pg)
{
    fprintf(fp, "\t---- PRG(%zu):%zu streams, PMT(%u) PCR(%u) ----\n", i, pg->nstreams, pg->curr_pmt_pid, pg->pcr_pid);
    fprintf(fp, "\tTracks:\n");
    for (size_t j = 0; j < pg->nstreams; j++) {
        const struct stream_info* si = &pg->stm[j];
        fprintf(fp, "\t\t[%zu:%zu] %c(pid%u) [%s]: P/A: %lu/%lu\n", i, j, si->stype, si->pid,
                pmt_get_streamtype_txt(si->scode), si->pcount, si->acount);
    }
}

void dump_packets(FILE* fp, const struct sa_stats* st)
{
    fprintf(fp, "\n\t++ Packets:\n");
    fprintf(fp, "\t\tprocessed/analyzed:    %lu/%lu\n", st->pcount, st->acount);
    fprintf(fp, "\t\tprocessed V/A/S:       %lu/%lu/%lu\n", st->v_pcount, st->a_pcount, st->s_pcount);
    fprintf(fp, "\t\tanalyzed  V/A/S:       %lu/%lu/%lu\n", st->v_acount, st->a_acount, st->s_acount);
}

void dump_alerts(FILE* fp, const struct pg_alert_count* al)
{
    fprintf(fp,
            "\n\t++ Alerts:\n\t\tAV delta:          %lu\n\t\tAV zero:           %lu\n\t\tPCR delta:         %lu\n"
            "\t\tPCR frequency:     %lu\n\t\tCC-BRK:            %lu\n\t\tCC-RST:            %lu\n",
            al->av_deltaplus, al->av_delta0, al->pcr_delta, al->pcr_freq, al->cc_break, al->cc_reset);
    fprintf(fp, "\t\tPMT-DIFF:          %lu\n\t\tPID-NDAT:          %lu\n", al->pmt_diff, al->pid_ndat);
    fprintf(fp, "\n\t------------------------------------------\n");
}

// ---- records ----

void log_global_stats(const struct tsan_ctx* tc)
{
    // Without a packet there is no start to count from.
    const long age_ms = tc->ptotal != 0 ? diff_ms(&tc->start_tm, nullptr) : 0;
    tv_record(&g_access_log, "STAT GLOBAL %s %ld %zu %lu %lu %lu %lu\n", tc->cfg.source, age_ms, tc->nprogs,
              tc->pre_skipped, tc->gac.lost_sync, tc->gac.pat_diff, tc->gac.cc_mlr);
}

void log_pmt_stats(const struct tsan_ctx* tc, size_t index)
{
    const struct program_info* pg = &tc->pg[index];
    tv_record(&g_access_log, "STAT PMTs %s %zu %u %zu\n", tc->cfg.source, index, pg->curr_pmt_pid, pg->nstreams);
    for (size_t j = 0; j < pg->nstreams; j++) {
        const struct stream_info* si = &pg->stm[j];
        tv_record(&g_access_log, "STAT PMTi %s %zu %u %c %lu %lu [%s]\n", tc->cfg.source, index, si->pid, si->stype,
                  si->pcount, si->acount, get_streamtype_txt(si->scode));
    }
}

void log_prg_stats(const struct tsan_ctx* tc, size_t idx)
{
    const struct program_info* pg = &tc->pg[idx];
    const struct sa_stats* st = &pg->stat;
    // By design the PCR PID is that of the packet at hand. Between programs it is the record's own.
    const unsigned pcr_pid = prog(tc) ? prog(tc)->pcr_pid : pg->pcr_pid;
    tv_record(&g_access_log, "STAT PRG %s %u %lu %lu %lu %lu %lu %lu %lu %lu\n", tc->cfg.source, pcr_pid, st->pcount,
              st->acount, st->v_pcount, st->v_acount, st->a_pcount, st->a_acount, st->s_pcount, st->s_acount);
}

int pid_at(const struct program_info* pg, ssize_t stm_idx)
{
    return stm_idx >= 0 ? static_cast<int>(pg->stm[stm_idx].pid) : NO_PID;
}

void log_prg_deltas(const struct tsan_ctx* tc, size_t index)
{
    const struct program_info* pg = &tc->pg[index];
    const int ref_pid = pid_at(pg, pg->ref_idx);
    const int pcr_pid = pid_at(pg, pg->pcr_idx);
    const char* src = tc->cfg.source;
    if (tc->cfg.max_pdts_delta != 0) log_aval_stats("AV-delta", src, ref_pid, NO_PID, &pg->av_pdts_delta);
    if (tc->cfg.max_pcr_delta != 0) log_aval_stats("PCR-delta", src, pcr_pid, NO_PID, &pg->av_pcr_delta);
    if (tc->cfg.pcr_freq_ms != 0) log_aval_stats("PCR-freq", src, pcr_pid, NO_PID, &pg->av_pcr_freq);
}

// By design without pmt_diff.
void log_alert_counters(const struct tsan_ctx* tc, size_t idx)
{
    const struct pg_alert_count* al = &tc->pg[idx].alert;
    tv_record(&g_access_log, "STAT ALERT-count %s %zu %lu %lu %lu %lu %lu %lu %lu\n", tc->cfg.source, idx,
              al->av_deltaplus, al->av_delta0, al->pcr_delta, al->pcr_freq, al->cc_break, al->cc_reset, al->pid_ndat);
}

} // namespace

// ---- statistics -----------------------------------------------------------------------------------------------

bool tsan_check_dump_stats(FILE* fp, tsan_t t)
{
    if (t->cfg.dump_stats_period == 0) return false;

    const time_t now = time(nullptr);
    if (t->last_stats_dumped == 0) {
        t->last_stats_dumped = now;
        return false;
    }
    const time_t since = now - t->last_stats_dumped;
    if (since < 0 || static_cast<size_t>(since) < t->cfg.dump_stats_period) return false;
    // By design only the text moves the time of the last report: without a stream the report stays due.
    if (fp) tsan_dump_stats(fp, t);
    tsan_alog_stats(t);
    return true;
}

void tsan_dump_stats(FILE* fp, tsan_t t)
{
    fprintf(fp, "tsan_stats BEGIN\n");
    dump_scope(fp, t);
    for (size_t i = 0; i < t->nprogs; i++) {
        const struct program_info* pg = &t->pg[i];
        dump_tracks(fp, i, pg);
        dump_packets(fp, &pg->stat);
        dump_alerts(fp, &pg->alert);
    }
    fprintf(fp, "tsan_stats END\n");
    t->last_stats_dumped = time(nullptr);
}

void tsan_alog_stats(tsan_t t)
{
    log_global_stats(t);
    for (size_t i = 0; i < t->nprogs; i++) {
        struct program_info* pg = &t->pg[i];
        if (pg->skip_pmt_out == 0) log_pmt_stats(t, i);
        pg->skip_pmt_out++; // wraps: the stream list comes with every 256th report
        log_prg_stats(t, i);
        log_prg_deltas(t, i);
        log_alert_counters(t, i);
    }
}

void tsan_reset_local_stats(tsan_t t)
{
    for (size_t i = 0; i < t->nprogs; i++) {
        struct program_info* pg = &t->pg[i];
        reset_aval(&pg->av_pdts_delta);
        reset_aval(&pg->av_pcr_delta);
        reset_aval(&pg->av_pcr_freq);
    }
}
