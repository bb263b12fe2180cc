// Debug ring log: the newest lines of a process in shared memory, where another process can read them, also after the
// writer has crashed.
//
// Words. The *record* (or meta) says who writes, where the text lies and how bad recent lines were; the *ring* holds
// the text. The *temperature* is the sum of the last 64 readings: each line adds a 0, and a bad line a second reading
// that is the higher the worse it is, so that quiet lines cool the ring down. A *torn* line is one at the oldest end
// whose beginning has been overwritten; readers must accept it.
//
// A ring log NAME is two shared memory objects of mode 0600, in the byte order of a 64-bit machine:
//
//     "/NAME.meta", 328 bytes                          "/NAME.dat", (2 x seg_pages + 1) pages
//     offset  size  field                              The text lies in the first seg_pages pages. The writer maps
//        0      8   seg_pages   pages of the ring      these twice, back to back, with a page behind them that can't
//        8      8   pld_start   oldest byte            be touched: a line that passes the end is whole in memory.
//       16      8   pld_len     bytes held
//       24      4   owner_pid   the writer             Example: two pages, the lines "one\n" and "two\n" written:
//       32     16   write_tm    of the last write        seg_pages 2, pld_start 0, pld_len 8,
//       48      8   sns.idx     next reading's slot      bytes "one\ntwo\n\0" at the start of the ring.
//       56    256   sns.val     64 readings            Behind the newest byte stands a 0; in a full ring it has taken
//      312      4   sns.sum     the temperature        the place of the oldest byte.
//      320      1   is_closed   closed on purpose
//
// Units: bytes; write_tm is CLOCK_MONOTONIC. Ownership: a handle is released by lard_close or lard_destroy, and what
// lard_look gives out ends with it. Results: null, negative numbers, as told at each function. Trouble is said on
// stderr, as the log itself stands on this.
// One writer and any number of readers, without locks; each handle belongs to one thread. lard_puts, lard_printf and
// lard_set_temp may be called from a signal handler: one that interrupts another is refused.
#ifndef TV_LARD_H
#define TV_LARD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

struct lard_ctx;
typedef struct lard_ctx* lard_t; // a ring log, opaque

inline constexpr size_t LARD_MAX_NAME = 255; // characters of a name; the file system may allow fewer
inline constexpr size_t MAX_SNS = 64;        // readings that make the temperature
inline constexpr int LARD_NO_FIT = -7;       // an empty text, or one that the ring can't hold

// ---- the record -----------------------------------------------------------------------------------------------

struct lard_sns {
    size_t idx;       // the slot of the next reading
    int val[MAX_SNS]; // the last readings
    int sum;          // their sum: the temperature
};

struct lard_meta {
    size_t seg_pages;         // pages in the data ring
    size_t pld_start;         // offset of the oldest byte
    size_t pld_len;           // bytes held
    pid_t owner_pid;          // the writer
    struct timespec write_tm; // monotonic time of the last write; 0: none yet
    struct lard_sns sns;
    bool is_closed; // the owner closed it on purpose
};
static_assert(sizeof(struct lard_meta) == 328, "shared between processes");
static_assert(offsetof(lard_meta, pld_start) == 8 && offsetof(lard_meta, pld_len) == 16);
static_assert(offsetof(lard_meta, owner_pid) == 24 && sizeof(pid_t) == 4);
static_assert(offsetof(lard_meta, write_tm) == 32 && sizeof(struct timespec) == 16);
static_assert(offsetof(lard_meta, sns) == 48 && offsetof(lard_sns, val) == 8 && offsetof(lard_sns, sum) == 264);
static_assert(offsetof(lard_meta, is_closed) == 320);

// ---- making, opening, leaving ---------------------------------------------------------------------------------

// The writer's side: makes the two objects anew (any old ones of the name are unlinked first, whoever made them) and
// maps them. Null, with a line on stderr and errno set, if a step fails; nothing is left behind then.
// Requires: name not null.
lard_t lard_create(const char* name, size_t npages);

// Whether lard_open has something to open: 0, or -1 with errno set, and not a word: EAGAIN for a record that has no
// pages, as while it is being made.
// Requires: name not null.
int lard_probe(const char* name);

// The reader's side: maps what is there, read-only. Null, with a line on stderr and errno set, for a name that is not
// there and for objects that are too small for what they say. A record with no pages is an assertion.
// Requires: name not null.
lard_t lard_open(const char* name);

// Detaches; the objects stay. In the process that made them the ring log is marked as closed on purpose. A null handle
// is none.
void lard_close(lard_t lh);

// The same, and unlinks the objects: nobody can open them any more, and readers that hold them keep what they have.
void lard_destroy(lard_t lh);

// ---- writing --------------------------------------------------------------------------------------------------

// Adds a text (it brings its own line feed) and a reading of 0. The number of bytes, or LARD_NO_FIT for a text that is
// empty or takes as many bytes as the ring has: text and record are then as before. Also LARD_NO_FIT in a signal
// handler that interrupts one of these.
// Requires: the writer's handle.
int lard_puts(lard_t lh, const char* str);
int lard_printf(lard_t lh, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Adds a reading. A temperature below 0 is an assertion.
// Requires: the writer's handle.
void lard_set_temp(lard_t lh, int temp);

// ---- reading --------------------------------------------------------------------------------------------------

// Writes the text to a descriptor. The number of bytes written; -1 with errno set for a failed write, or with EINVAL
// for a record that points outside the ring.
// By design a full ring loses its newest byte here, and one whose oldest byte is the first or second of the ring is
// written as it lies in memory, terminator included. lard_read_new gives the exact text.
ssize_t lard_snapshot(lard_t lh, int fd);

pid_t lard_owner_pid(lard_t lh);

// True if the writer lives and has not closed. *crashed (unless null) tells whether it ended without closing. A writer
// that this process may not signal counts as gone.
bool lard_is_active(lard_t lh, bool* crashed);

// The temperature.
int lard_get_ctemp(lard_t lh);

// The ring as it stands: its oldest byte is data[start], and the text goes on at data[0] behind data[buflen - 1].
struct lard_view {
    const char* data;
    size_t buflen;            // size of the ring
    size_t start;             // oldest byte, below buflen
    size_t len;               // bytes held, at most buflen
    struct timespec write_tm; // of the last write; 0: none yet
};

// 0, or -1 for a record that points outside the ring.
int lard_look(lard_t lh, struct lard_view* view);

inline constexpr size_t LARD_TAIL_MAX = 64;

// How far a reader has come. All zero: it begins with the oldest byte.
struct lard_cursor {
    bool has_begun;
    size_t end;               // behind the last byte that was read
    size_t tail_len;          // of the text that stood ahead of it, by which an overtaken reader
    char tail[LARD_TAIL_MAX]; // knows that the writer has been round
};

// Copies what was written since the cursor, oldest byte first and without the terminator, as much as fits; call it
// until it gives 0. The number of bytes, or -1 for a record that points outside the ring.
// *lost (unless null) tells that text went by unread, as far as the text itself shows it: the copy then begins with
// the oldest byte.
ssize_t lard_read_new(lard_t lh, struct lard_cursor* cur, char* buf, size_t buflen, bool* lost);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True if handle and record hold together: mappings in place, text inside the ring, temperature the sum of the
// readings. No effects.
bool lard_validate(const struct lard_ctx* lh);
// Prints both in words, for a debugger or a failed test.
void lard_dump(const struct lard_ctx* lh, FILE* fp);

#endif // TV_LARD_H
