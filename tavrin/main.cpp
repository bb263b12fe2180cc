// Entry point of kvt: the order in which the application is started and ended. What each step does is in app*.cpp.

#include "common/meta.h"
#include "log.h"
#include "syswrap.h"
#include "tavrin/app.h"
#include "tavrin/app_int.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(app_int::log_module)

namespace
{

// The settings go to the log, and to the terminal as well when the log is a file and someone sits there.
void show_config()
{
    dump_config(log_fp(&g_log), &g_cfg);
    if (g_cfg.rt.quiet || !g_cfg.rt.non_daemon || g_cfg.log.path[0] == '\0') return;
    log_mirror(&g_log, stderr);
    dump_config(stderr, &g_cfg);
}

int start_and_run(int argc, char** argv, const char* sysw_debug)
{
    int rc = setup_config(argc, argv);
    if (rc != 0) return rc;
    g_mod_ll[app_int::log_module] = g_cfg.log.level;
    if (sysw_debug != nullptr && strcmp(sysw_debug, "1") == 0) g_mod_ll[LOG_MOD_SYSWRAP] = ll::debug;

    rc = runtime_setup();
    if (rc != 0) return rc;
    show_config();

    tv_log(ll::normal, "%s STARTING. PID=%ld\n", get_app_info(app_int::name, nullptr), static_cast<long>(getpid()));
    rc = init_kvti_ctx();
    return rc == 0 ? run_app() : rc;
}

} // namespace

int main(int argc, char** argv)
{
    const char* sysw_debug = getenv("SYSW_DEBUG");
    if (argc < 2) usage(1);

    glog_init(app_int::name);
    log_default(&g_log, stderr);
    // Everything that is said while the command line is parsed gets out; the configured level comes after it.
    g_mod_ll[app_int::log_module] = ll::debug;

    int rc = start_and_run(argc, argv, sysw_debug);
    app_shutdown();
    if (rc < 0) rc = -rc;
    tv_log(ll::normal, "%s EXIT(%d). PID=%ld\n", get_app_info(app_int::name, nullptr), rc, static_cast<long>(getpid()));
    log_close(&g_log);
    log_close(&g_access_log);
    return rc;
}
