// Under attack: load_config, load_rui_config, and what shows the settings. The input is a configuration file's text, up
// to its first zero: kvt's group in it, and its root as the section of a service's listeners.
#include "common/appcfg.h"
#include "common/rui.h"
#include "config.h"
#include "fuzz/fuzz_common.h"
#include "tavrin/app.h"

#include <cstring>
#include <utility>

namespace
{

FILE* g_nowhere = fopen("/dev/null", "w");

template <size_t n>
bool ends_inside(const char (&text)[n])
{
    return memchr(text, 0, n) != nullptr;
}

void check_listener(const rui_listener_cfg& lc)
{
    FUZZ_CHECK(ends_inside(lc.alias) && ends_inside(lc.port) && ends_inside(lc.domain_path));
    FUZZ_CHECK(lc.is_valid || lc.ifc == nullptr);
    if (lc.is_valid && lc.port[0] != 0) FUZZ_CHECK(atoi(lc.port) >= 1 && atoi(lc.port) <= 65535);
}

} // namespace

// The library's scanner drops its buffer where a text ends inside a string; kvt loads a file once in a long while.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libconfig.so";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(data, std::find(data, data + size, 0));
    if (text.find("@include") != std::string::npos) return 0; // other files are none of the input's
    config_init(&g_libcfg);
    FILE* said = std::exchange(stderr, g_nowhere); // bad words are told there
    if (config_read_string(&g_libcfg, text.c_str()) == CONFIG_TRUE) {
        kvti_cfg cfg = {};
        init_kvti_config(&cfg);
        load_config(&cfg, false);
        load_config(&cfg, true);
        dump_config(g_nowhere, &cfg);
        FUZZ_CHECK(ends_inside(cfg.log.path) && ends_inside(cfg.src_url) && ends_inside(cfg.tsa.source));

        rui_cfg rui = {};
        const int rc = load_rui_config(config_root_setting(&g_libcfg), &rui);
        FUZZ_CHECK(rc == -1 || (rc == 0 && rui.max_accept > 0));
        for (const auto* listeners : {&rui.user, &rui.admin, &rui.custom})
            std::for_each(*listeners, *listeners + RUI_MAX_LISTENERS, check_listener);
        dump_rui_config(g_nowhere, &rui);
        rui_cfg_free(&rui);
    }
    stderr = said;
    config_destroy(&g_libcfg);
    return 0;
}
