// Configuration readers. The two string readers differ only in where they look a key up; what they do with what they
// found is shared. A key that is there with a value of another type is not a missing key: it empties the field, so that
// a default never hides a mistyped setting.
#include "config.h"

#include "log.h"
#include "strops.h"
#include "syswrap.h"

#include <cassert>
#include <cstring>

TV_LOG_MODULE(0)

constinit config_t g_libcfg = {};

namespace
{

void copy_text(char* buf, size_t buflen, const char* text)
{
    const size_t len = strnlen(text, buflen - 1);
    memcpy(buf, text, len);
    buf[len] = '\0';
}

// `found` is the setting behind the key, or null. `caller` is the reader that the log line is written for.
int take_text(const char* caller, const char* key, const config_setting_t* found, char* buf, size_t buflen,
              const char* default_str)
{
    assert(buflen > 0);
    const char* value = found ? config_setting_get_string(found) : nullptr;
    if (value) {
        const size_t len = strlen(value);
        if (len >= buflen) {
            tv_log(ll::error, "%s: %s value is too long (%ld), max = %ld characters.\n", caller, key,
                   static_cast<long>(len), static_cast<long>(buflen - 1));
            return -1;
        }
        copy_text(buf, buflen, value);
    } else if (!found && default_str && default_str[0]) {
        copy_text(buf, buflen, default_str);
    } else {
        buf[0] = '\0';
    }
    return 0;
}

// Size of the block for `count` pointers and the texts behind them; 0 if an element is no string.
size_t list_block_size(const config_setting_t* list, int count)
{
    size_t size = static_cast<size_t>(count) * sizeof(char*);
    for (int i = 0; i < count; ++i) {
        const char* text = config_setting_get_string_elem(list, i);
        if (!text) return 0;
        size += strlen(text) + 1;
    }
    return size;
}

void fill_list_block(char** block, const config_setting_t* list, int count)
{
    char* text_out = reinterpret_cast<char*>(block + count);
    for (int i = 0; i < count; ++i) {
        const char* text = config_setting_get_string_elem(list, i);
        const size_t size = strlen(text) + 1;
        memcpy(text_out, text, size);
        block[i] = text_out;
        text_out += size;
    }
}

} // namespace

int load_config_str(const char* path, char* buf, size_t buflen, const char* default_str)
{
    return take_text(__func__, path, config_lookup(&g_libcfg, path), buf, buflen, default_str);
}

int load_config_setting_str(config_setting_t* setting, const char* path, char* buf, size_t buflen,
                            const char* default_str)
{
    const config_setting_t* found = setting ? config_setting_get_member(setting, path) : nullptr;
    return take_text(__func__, path, found, buf, buflen, default_str);
}

int load_config_setting_size(config_setting_t* setting, const char* path, int64_t* value, int64_t default_val)
{
    long long number = 0;
    if (setting && CONFIG_TRUE == config_setting_lookup_int64(setting, path, &number)) {
        *value = number;
        return 0;
    }

    char text[CFG_SIZE_TEXT_MAX];
    if (const int rc = load_config_setting_str(setting, path, text, sizeof(text), nullptr)) return rc;
    if ('\0' == text[0]) {
        *value = default_val;
        return 0;
    }

    const int rc = a2int64(text, value);
    if (rc) tv_log(ll::error, "%s: %s value [%s] is not a size, rc=%d\n", __func__, path, text, rc);
    return rc;
}

char** load_config_string_list(const char* path, size_t* count)
{
    *count = 0;
    const config_setting_t* list = config_lookup(&g_libcfg, path);
    if (!list) return nullptr;
    if (!config_setting_is_list(list) && !config_setting_is_array(list)) {
        tv_log(ll::error, "%s: %s is not a list\n", __func__, path);
        return nullptr;
    }

    const int length = config_setting_length(list);
    if (length < 1) return nullptr;
    const size_t size = list_block_size(list, length);
    if (0 == size) {
        tv_log(ll::error, "%s: %s has an element that is not a string\n", __func__, path);
        return nullptr;
    }

    char** block = static_cast<char**>(W_calloc(__func__, 1, size));
    if (!block) return nullptr;
    fill_list_block(block, list, length);
    *count = static_cast<size_t>(length);
    return block;
}
