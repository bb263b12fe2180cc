// Makes a recording ready to be played: plain packets and an index with a usable clock.
//
// The index beside the recording is used if it fits; if there is none it is built there, or for this run alone where it
// is not to stay or the directory can't be written to. It takes its place when it is whole. A recording that can't be indexed as it is (see play_scan.h) is played from
// copies in a temporary directory, whose names are gone before the first byte is sent.
//
// Ownership: the source owns its two descriptors until source_close. Results: false after a line on standard error.
// Units: bytes; ticks of 90 kHz.
#ifndef TOOLS_PLAY_SOURCE_H
#define TOOLS_PLAY_SOURCE_H

#include "tsix.h"

#include <cstddef>
#include <cstdint>

struct play_source {
    int ts_fd = -1;
    int ix_fd = -1;
    size_t size_bytes = 0;
    uint64_t duration_ticks = 0;
};

struct source_options {
    bool keep_index = true; // an index that is made stays beside the recording
    bool say_more = false;  // tells of what takes time
};

// Opens and prepares. Also false, without a line, when told to quit (g_quit).
bool source_open(const char* path, const struct source_options& opt, struct play_source* src);
void source_close(struct play_source* src);
// Starts a round: the stream from its first byte. Null on failure; the caller closes the handle.
tsix_t source_begin(const struct play_source& src);

#endif // TOOLS_PLAY_SOURCE_H
