// What the parts of the event loop share. For lib/rqs*.cpp only.
#ifndef TV_RQS_INT_H
#define TV_RQS_INT_H

#include "rqs.h"

#include <cstddef>

namespace rqs_int
{

inline constexpr char INO_TAG[4] = {'i', 'n', 'o', '\0'};

// The settings; null before rqs_init.
extern const struct rqs_config* g_cfg;

// Ends the process after memory ran out or the impossible happened, which the caller has logged: logs the call stack
// at panic and aborts.
[[noreturn]] void abort_with_stack();

// Deep-checked builds: a logged assertion that rqs_validate() holds.
void check();

// ---- no-poll events (rqs_nopoll.cpp) --------------------------------------------------------------------------

// Gives the empty containers their first room; aborts if it can't be had.
void init_nopoll();

// Carries out what is still postponed and makes sure that a removal of every entry can be noted without an allocation.
void setup_nopoll_events();

// Calls back for each entry; the first non-zero result ends the walk and is returned.
int process_nopoll_events();

// ---- file watches (rqs_fwatch.cpp) ----------------------------------------------------------------------------

// Opens the inotify descriptor and makes the watch table. 0, -1, or the table's error code; releases nothing.
int init_file_watches();

// Closes and frees what init_file_watches made, as far as it got.
void destroy_file_watches();

// What the inotify descriptor has to tell: calls on_file_modified for each record that concerns a watch. 0 or -1.
// Requires: udata is &g_ino (a logged assertion).
int process_inotify_records(int fd_err, void* udata);

} // namespace rqs_int

#endif // TV_RQS_INT_H
