// Reading strings, sizes and lists from a libconfig configuration, with a default and a length limit.
//
// A key is given by its whole path below the root of g_libcfg, or by its name within a group (a *setting*).
// `buflen` is a limit, and need not be the size of the field: callers as a rule pass one less, so that the field's last
// byte stays 0. A value must be shorter than `buflen`; one that is not is refused, never cut.
// Ownership: values are copied to the caller's buffers; only load_config_string_list() allocates.
// Results: 0, or -1 after a line on g_log.
// One thread; not from a signal handler.
#ifndef TV_CONFIG_H
#define TV_CONFIG_H

#include <libconfig.h>

#include <cstddef>
#include <cstdint>

// The configuration that is being loaded: between config_init and config_destroy of whoever loads a file, unusable
// at all other times.
extern config_t g_libcfg;

// Longest text that load_config_setting_size reads a size from, with its terminating zero.
inline constexpr size_t CFG_SIZE_TEXT_MAX = 32;

// Copies the value of a string key to buf. A missing key gives default_str (cut at buflen - 1 characters), or the empty
// text if that is null or empty; a key that is there but is no string gives the empty text. 0, or -1 for a value of
// buflen characters or more (buf is left alone).
// Requires: buflen above 0.
int load_config_str(const char* path, char* buf, size_t buflen, const char* default_str);

// The same for a key within a group; a null group has no keys.
int load_config_setting_str(config_setting_t* setting, const char* path, char* buf, size_t buflen,
                            const char* default_str);

// A size within a group: an integer, or a string such as "64Kb" (see a2int64 in strops.h). A missing key or an empty
// string gives default_val. 0; -1 for a string of over 31 characters; the negative codes of a2int64 for one that is
// no size (logged; *value is left alone).
int load_config_setting_size(config_setting_t* setting, const char* path, int64_t* value, int64_t default_val);

// The strings of a list or array as one allocated block: the table of pointers, with the texts behind it. One free()
// releases it all. *count is the number of strings. Null with *count 0 for a missing key and for an empty list; the
// same, with a line logged, for a key that is no list, an element that is no string, and for want of memory.
char** load_config_string_list(const char* path, size_t* count);

#endif // TV_CONFIG_H
