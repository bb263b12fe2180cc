// Settings. A port and a directory become a configuration text of their own, so that there is one road to load them.
#include "front_config.h"

#include "config.h"
#include "log.h"
#include "syswrap.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

TV_LOG_MODULE(0)

namespace
{

constexpr long long D_MAX_REQUESTS = 400;
constexpr size_t OWN_FDS = 32; // descriptors that are no connection's
constexpr size_t ROOT_MAX = 1024;
constexpr size_t PORT_DIGITS = 5;

int open_root(const char* path, struct front_cfg* cfg)
{
    if (!*path) {
        tv_log(ll::error, "front: no root, the directory that is to be served\n");
        return -1;
    }
    cfg->root = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (cfg->root >= 0) return 0;
    tv_log(ll::error, "front: %s: %m\n", path);
    return -1;
}

// A connection takes a socket and a file, and the listeners take no descriptor that an fd_set can't hold.
int load_max(config_setting_t* s, struct front_cfg* cfg)
{
    long long wanted = D_MAX_REQUESTS;
    if (config_setting_get_member(s, "max_requests") && !config_setting_lookup_int64(s, "max_requests", &wanted)) {
        tv_log(ll::error, "front: max_requests is no number\n");
        return -1;
    }
    struct rlimit lim = {};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return -1;
    const size_t fds = std::min<size_t>(lim.rlim_cur, FD_SETSIZE);
    if (wanted < 1 || fds < OWN_FDS + FRONT_REFUSED_MAX + 2) {
        tv_log(ll::error, "front: max_requests=%lld, with %zu descriptors\n", wanted, fds);
        return -1;
    }
    cfg->max_requests = std::min(static_cast<size_t>(wanted), (fds - OWN_FDS - FRONT_REFUSED_MAX) / 2);
    if (cfg->max_requests < static_cast<size_t>(wanted))
        tv_log(ll::warning, "front: max_requests=%lld, but %zu descriptors are enough for %zu\n", wanted, fds,
               cfg->max_requests);
    return 0;
}

// Requests come from `user` listeners, by connections.
int check_listeners(const struct rui_cfg& rui)
{
    bool is_good = rui.user[0].is_valid && !rui.admin[0].is_valid && !rui.custom[0].is_valid;
    for (const struct rui_listener_cfg& lc : rui.user) {
        if (lc.is_valid && !lc.domain_path[0] && lc.proto == IPPROTO_UDP) is_good = false;
    }
    if (is_good) return 0;
    tv_log(ll::error, "front: needs user listeners, none of another class, none of UDP\n");
    return -1;
}

int read_group(const char* dir, struct front_cfg* cfg)
{
    config_setting_t* s = config_lookup(&g_libcfg, "front");
    if (!s || !config_setting_is_group(s)) {
        tv_log(ll::error, "front: no group front\n");
        return -1;
    }
    char root[ROOT_MAX];
    if (load_config_setting_str(s, "root", root, sizeof(root), dir)) return -1;
    if (load_max(s, cfg) || open_root(root, cfg)) return -1;
    if (0 == load_rui_config(s, &cfg->rui) && 0 == check_listeners(cfg->rui)) return 0;
    rui_cfg_free(&cfg->rui);
    (void)W_close(__func__, cfg->root); // logged
    return -1;
}

} // namespace

int front_load(const char* file, const char* port, const char* dir, struct front_cfg* cfg)
{
    char text[256];
    if (!file && (!*port || strlen(port) > PORT_DIGITS || port[strspn(port, "0123456789")] != '\0')) {
        tv_log(ll::error, "front: invalid port: [%s]\n", port);
        return -1;
    }
    (void)snprintf(text, sizeof(text), "front: { user: { port = \"%.5s\"; }; max_to_accept = 128; };", port);
    config_init(&g_libcfg);
    const int is_read = file ? config_read_file(&g_libcfg, file) : config_read_string(&g_libcfg, text);
    if (is_read != CONFIG_TRUE)
        tv_log(ll::error, "%s:%d: %s\n", file ? file : "port", config_error_line(&g_libcfg),
               config_error_text(&g_libcfg));
    const int rc = is_read == CONFIG_TRUE ? read_group(dir, cfg) : -1;
    config_destroy(&g_libcfg);
    return rc;
}
