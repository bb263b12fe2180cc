// The sensors of the process: one array, all zero until it is set up.
#include "psensor.h"

#include <strings.h>

#include <array>
#include <cerrno>

constinit struct psensor g_psensor[MAX_PSENSORS] = {};
constinit struct app_psensor_ctx g_pctx = {};

constinit const char* const g_libsensor_tag[PRF_SYS_COUNT + 1] = {
    "app", "ev_loop", "ev_read", "ev_write", "ev_err", "ev_pp", "ev_idle", "data_in", "data_out", nullptr,
};

namespace
{

constexpr int32_t MEASURED = PRFM_TIME | PRFM_USAGE;

void set_up(struct psensor* s, const char* tag, int enable)
{
    s->nametag = tag;
    prfm_xinit(&s->sensor, MEASURED, RUSAGE_SELF);
    if (enable != 0) s->enabled = 1;
}

size_t sensors_in_use()
{
    return PRF_SYS_COUNT + g_pctx.ucount;
}

} // namespace

int psensors_init(const char** utag, int enable_all)
{
    for (struct psensor& s : g_psensor)
        s = {};
    for (size_t i = 0; g_libsensor_tag[i]; ++i)
        set_up(&g_psensor[i], g_libsensor_tag[i], enable_all);

    g_pctx.ucount = 0;
    if (!utag) return 0;
    for (size_t i = USENSOR_FIRST; i < MAX_PSENSORS && *utag; ++i, ++utag) {
        set_up(&g_psensor[i], *utag, enable_all);
        ++g_pctx.ucount;
    }
    return 0;
}

void psensors_destroy()
{
    for (size_t i = 0; i < sensors_in_use(); ++i)
        prfm_destroy(&g_psensor[i].sensor);
}

void psensors_dump(FILE* fp)
{
    for (size_t i = 0; i < sensors_in_use(); ++i) {
        const struct psensor& s = g_psensor[i];
        if (!s.enabled) continue;
        if (s.sensor.accum.tm.tv_sec == 0 && s.sensor.accum.tm.tv_nsec == 0) continue;
        prfm_dump(fp, &s.sensor, "P-Sensor [%s]\n", s.nametag);
    }
}

off_t libptag_index(const char* name)
{
    for (size_t i = 0; g_libsensor_tag[i]; ++i) {
        if (strcasecmp(name, g_libsensor_tag[i]) == 0) return static_cast<off_t>(i);
    }
    return -1;
}

// ---- sites ----------------------------------------------------------------------------------------------------

void psensor_start_enabled(struct psensor* s)
{
    if (s->started) return;
    const int err = errno;
    prfm_start(&s->sensor);
    s->started = 1;
    errno = err;
}

void psensor_stop_enabled(struct psensor* s)
{
    if (!s->started) return;
    const int err = errno;
    s->started = 0;
    prfm_stop(&s->sensor);
    errno = err;
}
