// The configuration section of request listeners. As in the other sections the order of the keys decides which fault
// is told first.
#include "appcfg.h"
#include "config.h"
#include "log.h"
#include "netops.h"
#include "rui.h"

#include <netinet/in.h>
#include <strings.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

TV_LOG_MODULE(0)

namespace
{

constexpr size_t WORD_MAX = 16;       // words, with their zero
constexpr size_t PROTOCOL_LIMIT = 15; // for load_config_setting_str, like the next three
constexpr size_t PATH_LIMIT = MAX_USOCK_SZ - 1;
constexpr size_t IFC_LIMIT = WORD_MAX;
constexpr size_t AF_LIMIT = WORD_MAX;
constexpr size_t INT_TEXT_MAX = 16;
constexpr int D_MAX_ACCEPT = 128;
constexpr int D_REQUEST_TMOUT_MS = 5000;
constexpr int MAX_PORT = 65535;

// A class's members in the section and in the record.
struct class_keys {
    const char* name;
    const char* tmout_key;
    struct rui_listener_cfg (rui_cfg::*listeners)[RUI_MAX_LISTENERS];
    int rui_cfg::*tmout;
};

constexpr std::array CLASSES = {
    class_keys{"user", "user_request_timeout", &rui_cfg::user, &rui_cfg::user_request_tmout},
    class_keys{"admin", "admin_request_timeout", &rui_cfg::admin, &rui_cfg::admin_request_tmout},
    class_keys{"custom", "custom_request_timeout", &rui_cfg::custom, &rui_cfg::custom_request_tmout},
};
static_assert(CLASSES.size() == RUI_MAX);

constexpr char LISTENER_READER[] = "load_listener_from"; // what a listener's lines are written for

// ---- one listener ---------------------------------------------------------------------------------------------

int load_protocol(config_setting_t* s, struct rui_listener_cfg* lc)
{
    char word[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "protocol", word, PROTOCOL_LIMIT, "tcp")) return rc;
    if (0 == strcasecmp(word, "tcp")) {
        lc->proto = IPPROTO_TCP;
    } else if (0 == strcasecmp(word, "udp")) {
        lc->proto = IPPROTO_UDP;
    } else {
        tv_log(ll::error, "%s: invald protocol for [%s]: %s\n", LISTENER_READER, lc->alias, word);
        return -1;
    }
    return 0;
}

// The interface of a name for the preferred family, or for the first of both that it has.
struct ifc_info* find_ifc(int pref_af, const char* name)
{
    struct ifc_info* ifc = nullptr;
    if (pref_af) {
        ifc = get_ifc_info(pref_af, name);
        if (!ifc)
            tv_log(ll::error, "%s: [%s] failed the check for [%s] interface name\n", LISTENER_READER, name,
                   af_name(pref_af));
        return ifc;
    }
    ifc = get_ifc_info(AF_INET, name);
    if (!ifc) ifc = get_ifc_info(AF_INET6, name);
    if (!ifc) tv_log(ll::error, "%s: [%s] failed the check for IPv4/v6 interface name\n", LISTENER_READER, name);
    return ifc;
}

int load_ifc(config_setting_t* s, struct rui_listener_cfg* lc)
{
    char name[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "ifc", name, IFC_LIMIT, nullptr)) return rc;
    if (is_anyaddr(name)) return 0;
    lc->ifc = find_ifc(lc->pref_af, name);
    if (lc->ifc) return 0;
    tv_log(ll::error, "invalid network interface name/address: %s\n", name);
    return -1;
}

bool is_port(std::string_view text)
{
    int num = 0;
    const auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), num);
    return err == std::errc() && end == text.data() + text.size() && num >= 1 && num <= MAX_PORT;
}

int load_port(config_setting_t* s, struct rui_listener_cfg* lc)
{
    char text[INT_TEXT_MAX] = "";
    int num = 0;
    if (CONFIG_TRUE == config_setting_lookup_int(s, "port", &num))
        (void)snprintf(text, sizeof(text), "%d", num);
    else if (const int rc = load_config_setting_str(s, "port", text, sizeof(lc->port), nullptr))
        return rc;
    if (!is_port(text)) {
        tv_log(ll::error, "%s: invalid port value: [%s]\n", LISTENER_READER, text);
        return -1;
    }
    memcpy(lc->port, text, sizeof(lc->port)); // a port has five digits at most
    return 0;
}

int load_keys(config_setting_t* s, struct rui_listener_cfg* lc)
{
    // By design an alias that is too long counts as none.
    (void)load_config_setting_str(s, "alias", lc->alias, sizeof(lc->alias), nullptr);
    if (const int rc = load_protocol(s, lc)) return rc;
    if (const int rc = load_config_setting_str(s, "domain_path", lc->domain_path, PATH_LIMIT, nullptr)) return rc;
    if (lc->domain_path[0]) return 0;

    char word[WORD_MAX] = "";
    if (const int rc = load_config_setting_str(s, "default_af", word, AF_LIMIT, nullptr)) return rc;
    const int family = name2af(word);
    // By design no failure: such a listener is valid, has no port, and fails when it is started.
    if (family < 0) return 0;
    lc->pref_af = family;

    int rc = load_ifc(s, lc);
    if (!rc) rc = load_port(s, lc);
    if (!rc && !lc->alias[0])
        (void)snprintf(lc->alias, sizeof(lc->alias), "%s:%s", lc->ifc ? lc->ifc->name : "all", lc->port);
    return rc;
}

int load_listener_from(config_setting_t* s, struct rui_listener_cfg* lc, size_t index)
{
    *lc = {};
    const int rc = load_keys(s, lc);
    if (rc) {
        free(lc->ifc);
        lc->ifc = nullptr;
        return rc;
    }
    lc->index = index;
    lc->is_valid = true;
    return 0;
}

// ---- a class --------------------------------------------------------------------------------------------------

int get_listeners(config_setting_t* s, const char* name, struct rui_listener_cfg* lc)
{
    size_t count = 0;
    int rc = 0;
    if (config_setting_is_group(s)) {
        rc = load_listener_from(s, lc, 1);
        if (!rc) count = 1;
    } else if (config_setting_is_list(s)) {
        // By design elements behind the fourth are not looked at.
        const size_t length = static_cast<size_t>(config_setting_length(s));
        for (; count < length && count < RUI_MAX_LISTENERS && !rc; count += rc ? 0 : 1)
            rc = load_listener_from(config_setting_get_elem(s, static_cast<unsigned>(count)), &lc[count], count + 1);
    }
    if (!rc) tv_log(ll::debug, "%s: %lu %s listeners loaded\n", __func__, count, name);
    return rc;
}

void dump_listener(FILE* fp, const char* name, const struct rui_listener_cfg* lc)
{
    if (lc->domain_path[0])
        fprintf(fp, "\t%s listener[%s]: path=%s\n", name, lc->alias, lc->domain_path);
    else
        fprintf(fp, "\t%s listener[%s]: ifc=%s, af=%s port=%s\n", name, lc->alias,
                lc->ifc ? lc->ifc->name : "<anyaddr>", af_name(lc->pref_af), lc->port);
}

} // namespace

// ---- request listeners ----------------------------------------------------------------------------------------

int load_rui_config(config_setting_t* s, struct rui_cfg* rui)
{
    for (const class_keys& c : CLASSES) {
        config_setting_t* member = config_setting_get_member(s, c.name);
        if (!member) continue;
        if (const int rc = get_listeners(member, c.name, rui->*c.listeners)) return rc;
    }

    // By design the check looks at what was read, not at the field: a missing max_to_accept is 0 there, so the default
    // never comes to bear; and a missing time-out is judged by the number that was read before it.
    int val = 0;
    const bool has_max = CONFIG_TRUE == config_setting_lookup_int(s, "max_to_accept", &val);
    rui->max_accept = static_cast<size_t>(has_max ? val : D_MAX_ACCEPT);
    if (val < 1) {
        fprintf(stderr, "Invalid max_accept valie (%ld)\n", static_cast<long>(val));
        return -1;
    }
    for (const class_keys& c : CLASSES) {
        if (!config_setting_get_member(s, c.name)) continue;
        rui->*c.tmout = CONFIG_TRUE == config_setting_lookup_int(s, c.tmout_key, &val) ? val : D_REQUEST_TMOUT_MS;
        if (val < 1) {
            fprintf(stderr, "Invalid %s_request_tmout valie (%ld)\n", c.name, static_cast<long>(val));
            return -1;
        }
    }
    return 0;
}

void dump_rui_config(FILE* fp, const struct rui_cfg* rui)
{
    fputs("Listeners:\n", fp);
    for (const class_keys& c : CLASSES) {
        for (const struct rui_listener_cfg& lc : rui->*c.listeners)
            if (lc.is_valid) dump_listener(fp, c.name, &lc);
    }
    fprintf(fp, "\tmax-accepted=%ld\n", static_cast<long>(rui->max_accept));
    fprintf(fp, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n", rui->user_request_tmout,
            rui->admin_request_tmout, rui->custom_request_tmout);
}
