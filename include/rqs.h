// Event loop: one thread, one loop on epoll per process, with callbacks of the service's own.
//
//     rqs_config cfg = {.cb = {.read = on_read, .write = on_write, .error = on_error}, .quit_on_zero_fds = 0};
//     if (rqs_init(&cfg) == 0) {
//         if (rqs_add_reader(fd, &my_record) == 0) rc = rqs_event_loop();
//         rqs_destroy();
//     }
//
// Words: a *turn* is one round of the loop: wait, no-poll events, dispatch, post-processing, idle call,
// post-processing. A *polled* descriptor stands in the epoll set. A *no-poll event* stands for a descriptor that can't
// be polled, such as a regular file: it is ready in every turn until it is removed. A *file watch* reports changes to
// a file, known by its *watch descriptor*. A removal is *postponed* when it is noted now and carried out by the loop
// between two walks. docs/services.md tells the order of things from a service's side.
//
// Units: times in seconds and nanoseconds, CLOCK_MONOTONIC; counts of descriptors, events and entries.
// Ownership: descriptors, `udata` records and index variables stay the caller's. The loop keeps the pointers until
// their removal, and for a polled descriptor until the end of the turn of its removal: the events of a turn are
// delivered even when their descriptor was removed in it. So a record is freed between turns at the earliest, from
// post_process after a removal that dispatch had postponed.
// Results: 0, or -1 with errno as the failed call left it, or what is said at the function; failures are logged. Memory
// that runs out on the loop's own containers aborts the process after saying so.
// One thread. A signal handler may set g_quit (util.h) and read the clock, nothing else.
#ifndef TV_RQS_H
#define TV_RQS_H

#include "gkh.h"
#include "tvtypes.h"
#include "xvdat.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <type_traits>

// Error flags of read, write and error.
inline constexpr int RQS_SOCKERR = 1; // EPOLLERR seen
inline constexpr int RQS_SOCKHUP = 2; // EPOLLHUP or EPOLLRDHUP seen

// Directions of rqs_mod.
inline constexpr int RQS_READ = 1;
inline constexpr int RQS_WRITE = 2;

// Flags of on_file_modified; a plain write gives 0.
inline constexpr int RQS_RMV = 4;           // the path no longer leads to the file: it was moved or deleted
inline constexpr int RQS_FMOVED = 65536;    // it was moved
inline constexpr int RQS_FDELETED = 131072; // it was deleted, and nothing holds it open any more
inline constexpr int RQS_ATTR = 262144;     // its attributes changed; an unlinked file that is held open gives this

// Requests of rqs_ctx.
inline constexpr int RQS_CTX_STAGE = 1;

// Values of loop_stage.
inline constexpr int RQS_STAGE_WAIT = 0;     // waiting, and no-poll events
inline constexpr int RQS_STAGE_DISPATCH = 1; // callbacks of polled descriptors
inline constexpr int RQS_STAGE_POST1 = 2;    // first post-processing, and the idle call
inline constexpr int RQS_STAGE_POST2 = 3;    // second post-processing

// ---- records --------------------------------------------------------------------------------------------------

// What the service is called with. `fd`: the descriptor where it was added without `udata`; otherwise the low 32 bits
// of the `udata` pointer, of no use. (No-poll events: always the descriptor. File watches: the watch descriptor.)
// `flags`: RQS_ flags. `udata`: what was given, or the descriptor's number in a pointer's clothes where nothing was.
// `aux`: always null. A non-zero result ends the loop: at once from a no-poll event, at the end of the turn's first
// post-processing from a polled descriptor. That of on_file_modified is not looked at.
typedef int (*rqs_event_cb_t)(int fd, int flags, void* udata, void* aux);

// All may be null but those that say otherwise. A non-zero result of on_idle and post_process ends the loop.
struct rqs_callbacks {
    void (*update_tmout)(struct timespec* tmout); // ahead of each wait: sets both fields of the next time-out
    int (*on_idle)();                             // once per turn, after the event callbacks
    rqs_event_cb_t read;                          // readable descriptor; required
    rqs_event_cb_t write;                         // writable descriptor; required
    rqs_event_cb_t error;                         // in error with neither read nor write ready; required
    int (*post_process)();                        // after the events, and again after on_idle
    rqs_event_cb_t on_file_modified;              // a file watch fired
    void (*time_out)();                           // after each wait, whether it timed out or not
    bool (*is_dormant)(); // asked when the loop has nothing to wait for: is that all? It has the last word.
};

struct rqs_config {
    struct rqs_callbacks cb;
    unsigned quit_on_zero_fds : 1; // leave the loop when nothing is left to wait for
};

static_assert(std::is_trivial_v<rqs_config> && std::is_standard_layout_v<rqs_config>);

// A no-poll event.
struct nopoll_ref {
    uint32_t events; // EPOLLIN or EPOLLOUT
    int fd;
    void* udata;
    ssize_t* index; // the owner's variable that holds the entry's index, or null; -1 once a purge has removed the entry
};

// The file watches and the one inotify descriptor behind them. `in_epoll` holds as long as there is a watch.
struct inotify_ctx {
    union n32_tag tag; // "ino": by it the dispatcher tells the inotify descriptor
    int fd;            // -1 when closed
    bool in_epoll;     // fd is in the epoll set
    char buf[4096];    // read buffer
    nkht_t wfd_ht;     // watch descriptor to udata
    ssize_t wfd_count; // live watches
};

// The loop's state. All zero before rqs_init.
struct rqs_context {
    int loopfd;            // the epoll descriptor; 0 before rqs_init, -1 after rqs_destroy
    struct xvec events;    // of epoll_event: the wait buffer; its length is the number of events of the last wait
    struct xvec changes;   // for later use
    size_t poll_fds;       // descriptors in the epoll set
    struct xvlst nopoll;   // of nopoll_ref
    struct xvec nopoll_rm; // of ssize_t: indices in `nopoll` that wait for removal
    struct timespec tmout; // time-out of the next wait; a negative field: none
    struct timespec itime; // monotonic time taken after each wait: the loop's clock
    int loop_stage;        // RQS_STAGE_
};

static_assert(std::is_trivially_default_constructible_v<rqs_context> && std::is_standard_layout_v<rqs_context>);
static_assert(std::is_trivially_copyable_v<nopoll_ref> && std::is_standard_layout_v<inotify_ctx>);

extern struct rqs_context g_rqs;
extern struct inotify_ctx g_ino;

// ---- the loop -------------------------------------------------------------------------------------------------

// Takes a copy of the settings and makes the loop ready: epoll and inotify descriptors, containers, clock. 0; -1, or
// the table's error code, with everything released. The time-out is none until update_tmout sets one.
// Requires: cfg not null (a logged assertion) with read, write and error set; no loop in being; descriptor 0 taken, since
// a loopfd of 0 stands for a loop that was never set up.
int rqs_init(const struct rqs_config* cfg);

// Closes what rqs_init opened and frees the containers; all events and watches are forgotten, their descriptors stay
// the caller's. Harmless before rqs_init, after a failed one, and when repeated. Requires: not from a callback.
void rqs_destroy();

// Turns until g_quit is set, a callback gives a non-zero result, the wait fails, or nothing is left to wait for (with
// quit_on_zero_fds). The result is that of the failed no-poll, idle or post-processing call or the wait's errno;
// otherwise the number of polled events in the last turn whose callback failed; otherwise 0. A wait that a signal
// interrupts is a turn without events, or with g_quit set the end, with 0.
// g_quit is looked at ahead of each wait, and a signal just after that look ends no wait: a service that wants to
// leave promptly in all cases sets a time-out. The loop may be entered again.
// Requires: rqs_init succeeded (loopfd 0 is a logged assertion); not from a callback.
int rqs_event_loop();

// Puts a descriptor into the epoll set, waiting to read or to write. 0, or the result of epoll_ctl, logged, with
// nothing changed; EPERM is that of a descriptor that can't be polled.
// A udata of rqs_add_reader (and of the mod calls) must be a record that begins with an n32_tag, which the dispatcher
// reads when the descriptor is readable.
// Requires: rqs_init succeeded (a logged assertion).
int rqs_add_reader(int fd, void* udata);
int rqs_add_writer(int fd, void* udata);
// Changes what a descriptor waits for, and its udata. rqs_mod: RQS_READ, RQS_WRITE or both; 0 parks it, so that only
// errors and hang-ups of it are reported. Result and requirements as above.
int rqs_mod_reader(int fd, void* udata);
int rqs_mod(int fd, void* udata, int read_write);
// Takes a descriptor out of the epoll set; to be called ahead of its close. By design neither bool has an influence.
// 0, also without a step after rqs_destroy; else the result of epoll_ctl, logged. Events of the running turn are still
// delivered.
int rqs_rm_fd(int fd, bool is_reader, bool is_writer);

// How many descriptors the loop deals with: 0 all, 1 the polled ones, 2 the no-poll ones. Anything else is a logged
// assertion.
size_t rqs_fd_count(int which);

// The loop's state by number: RQS_CTX_STAGE gives loop_stage. Any other type: error line, 0. `aux` is for later use.
int rqs_ctx(int type, void* aux);

// ---- clock ----------------------------------------------------------------------------------------------------

// The loop's clock: read once after each wait, so that the handlers of a turn need no clock call of their own. It is
// zero before rqs_init, and for good in a process without a loop. The reference is never null and valid for ever.
// A signal handler may see a reading half written.
struct timespec rqs_now();
const struct timespec* rqs_now_ref();

// ---- no-poll events -------------------------------------------------------------------------------------------

// Adds a no-poll event for read or write and stores its index in *pindex, if given. Always 0. By design there is no
// check on fd. An index is good until its removal. May be called from a callback; the new event may have its first
// call in the same turn. Only an entry added with pindex can tell its owner that it has gone.
// Requires: rqs_init succeeded; *pindex lives until the entry is removed.
int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata);
int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata);

// Removes an entry at once; the owner's index variable is not touched. An index without an entry aborts.
// Requires: not from inside a callback of a no-poll event.
void rqs_rm_nopoll(ssize_t index);

// Notes an entry for removal, from anywhere; the loop removes it behind the running walk and sets the owner's index
// variable to -1. An entry noted twice aborts at the purge. Requires: index not negative (a logged assertion).
void rqs_pprm_nopoll(ssize_t index);

// Carries out the postponed removals. Always 0; an index without an entry aborts. The loop calls it.
// Requires: not from inside a callback of a no-poll event.
int rqs_purge_nopoll_rm();

// ---- file watches ---------------------------------------------------------------------------------------------

// Watches a file: writes, attributes, the close of a writer, a move, the deletion. Returns the watch descriptor, or -1
// with nothing changed but in one case: by design a file that is watched already (by whatever path) is an error that
// ends the watch there was. A null udata is accepted, but on_file_modified is never called for it.
// Requires: rqs_init succeeded; filepath not null.
int rqs_add_file_watch(void* udata, const char* filepath);

// Ends a watch. 0; -1, logged, where the kernel has no such watch: by design the watch of a file that was deleted can't
// be ended any more and goes on counting. A service that holds its file open is never told RQS_FDELETED, and can end
// the watch whenever it likes.
int rqs_rm_file_watch(int wd);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of g_rqs and g_ino holds, of a loop in being or not. No effects, no lines.
bool rqs_validate();
// Prints both records in words, valid or not, and the no-poll events. Requires: fp not null.
void rqs_dump(FILE* fp);

#endif // TV_RQS_H
