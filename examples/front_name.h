// The front end's names: what a request's target stands for.
//
// A *target* is what stands behind the method: `/path?query`, or the same as a whole URL. Its path names a file beneath
// the *root*, the directory that is served. Two forms of path name the same files for players: `/hls-m3u/ch/live.m3u8`
// is the file `ch/live.m3u8`, `/hls-fra/ch/1.ts` is `ch/1.ts`.
//
// Results: 0, or the HTTP status that tells the client what is wrong.
#ifndef EXAMPLES_FRONT_NAME_H
#define EXAMPLES_FRONT_NAME_H

#include <cstddef>

inline constexpr size_t FRONT_PATH_MAX = 1024;

enum class front_kind { file, segment, playlist, ping, favicon };

struct front_name {
    enum front_kind kind;
    char path[FRONT_PATH_MAX]; // relative to the root, decoded; "." is the root itself; empty where no file is meant
};

// Reads a target. 0; 400 for one that is no path, has a broken escape, a control character or a backslash, or for a
// playlist whose range or query makes no sense; 403 for a path with `..`; 404 for what is no stored file, such as
// `/udp/...`; 414 for a path that doesn't fit.
int front_name_of(const char* target, struct front_name* name);

// A word for the log.
const char* front_kind_text(enum front_kind kind);

#endif // EXAMPLES_FRONT_NAME_H
