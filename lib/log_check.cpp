// A channel's record, checked and printed.
#include "log.h"

#include <cstring>

bool log_validate(const struct log_ctx* log)
{
    const struct rotation_ctx* rota = &log->rota;
    if (!memchr(log->name, '\0', sizeof(log->name))) return false;
    if (log->group.sym8[sizeof(log->group.sym8) - 1] != '\0') return false;
    if (rota->next_idx < 0 || static_cast<size_t>(rota->next_idx) >= LOG_ROTA_SLOTS) return false;
    return rota->max_idx < LOG_ROTA_SLOTS;
}

void log_dump(const struct log_ctx* log, FILE* out)
{
    const struct rotation_ctx* rota = &log->rota;
    fprintf(out, "name: [%.*s]\n", static_cast<int>(sizeof(log->name)), log->name);
    fprintf(out, "is_pipe: %s\n", log->is_pipe ? "yes" : "no");
    fprintf(out, "time_format: 0x%x\n", log->time_format);
    fprintf(out, "fd: %d, mirror: %d\n", log->fp ? fileno(log->fp) : -1, log->mirror_fp ? fileno(log->mirror_fp) : -1);
    fprintf(out, "total_out: %zu\n", log->total_out);
    fprintf(out, "modules set: %d, sections set: %d\n", log->llst.mod_ll_set ? 1 : 0, log->llst.sec_ll_set ? 1 : 0);
    fprintf(out, "next_idx: %zd\nmax_idx: %zu\nmax_total: %zu\nmax_log_tm: %ld\n", rota->next_idx, rota->max_idx,
            rota->max_total, static_cast<long>(rota->max_log_tm));
    for (size_t i = 0; i < LOG_ROTA_SLOTS; ++i) {
        if (rota->tm[i] != 0) fprintf(out, "tm[%zu]: %ld\n", i, static_cast<long>(rota->tm[i]));
    }
    fprintf(out, "pid: %ld, group: [%.*s]\n", static_cast<long>(log->pid), static_cast<int>(sizeof(log->group.sym8)),
            log->group.sym8);
    fprintf(out, "ring log: %s\n", log->lh ? "yes" : "no");
    fprintf(out, "syslog: %s, option: %d, facility: %d\n", log->syslg.enabled ? "on" : "off", log->syslg.option,
            log->syslg.facility);
}
