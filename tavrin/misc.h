// Small kits of the analyzer: aggregates of measured values, bounded text buffers, time helpers.
//
// An *aggregate* (`aggr_val`) keeps count, sum, minimum and maximum of a value over two spans at once: the *local*
// span, since the last reset, and the *global* one, since the start. A *text buffer* (`ctxt_spec`) collects rendered
// lines up to a fixed capacity; the text form of a PMT lives in one. The time helpers turn clock readings and PCR
// ticks into milliseconds, and milliseconds into text.
//
// Units: milliseconds unless a name says otherwise; PCR values are 33-bit bases in 90 kHz ticks; sizes in bytes.
// Ownership: open_ctxt allocates and close_ctxt frees; replace_ctxt moves a buffer from one owner to the other. A
// zeroed record is an empty aggregate, and a closed text buffer. All other results are values.
// Results: 0, or -1 where memory runs out; nothing else fails. add_ctxt_line logs lines that it has to drop.
// One thread; nothing here may run in a signal handler.
#ifndef TAVRIN_MISC_H
#define TAVRIN_MISC_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

// ---- aggregates -----------------------------------------------------------------------------------------------

struct aggr_val {
    uint64_t count;   // values in the local span
    uint64_t g_count; // values since the start
    uint64_t total;   // sum, local
    uint64_t g_total; // sum, global
    uint64_t min;     // smallest, local; 0 in an empty span
    uint64_t g_min;   // smallest, global
    uint64_t max;     // greatest, local; 0 in an empty span
    uint64_t g_max;   // greatest, global
};

// Takes a value into both spans.
// By design: the first value after a reset sets the local extremes only. The global ones learn of it with the next
// value of the same span, as far as the local extreme still stands then.
void inc_aval(struct aggr_val* av, uint64_t val);

// Begins a new local span: count, total, min and max become 0. The global span stays.
void reset_aval(struct aggr_val* av);

// Writes one line of text for people: `msg`, then average, sum, count and extremes of both spans.
// By design: a span without values has a NaN for its average.
void dump_aval(FILE* fp, const char* msg, const struct aggr_val* av);

// Writes one "STAT" record on the alert log: `tag`, the source, two PIDs (-1: none), then both spans. By design the
// count stands ahead of the sum here, and behind it in dump_aval.
void log_aval_stats(const char* tag, const char* src, int ref_pid, int src_pid, const struct aggr_val* av);

// ---- text buffers ---------------------------------------------------------------------------------------------

struct ctxt_spec {
    char* buf;       // owned; null while closed
    ssize_t buflen;  // capacity
    ssize_t textlen; // bytes of text in use; the text has no terminator by contract
};

// Allocates a zeroed buffer and makes it empty. 0, or -1 without memory: `buf` is then null. What the record held
// before is not freed.
int open_ctxt(struct ctxt_spec* s, size_t max_size);

// Frees the buffer, if there is one, and zeroes the record. Harmless when called twice.
void close_ctxt(struct ctxt_spec* s);

// Closes `dest` and moves the buffer of `src` there; `src` is then closed. Requires: two different records.
void replace_ctxt(struct ctxt_spec* dest, struct ctxt_spec* src);

// Adds a line and a line feed; `opaque` is the ctxt_spec. It has the shape of the print callback of biTStream's table
// printers. A line that is too long is cut; with 15 bytes or less left it is dropped whole, with a warning.
void add_ctxt_line(void* opaque, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// 0 if the texts are equal, or equally long and one of the buffers is closed; otherwise not 0.
int cmp_ctxt(const struct ctxt_spec* a, const struct ctxt_spec* b);

// Writes `msg` (may be null) on a line of its own, then the text, and flushes. An empty buffer writes nothing at all.
void dump_ctxt(FILE* fp, const char* msg, const struct ctxt_spec* s);

// ---- times ----------------------------------------------------------------------------------------------------

// "hh:mm:ss.mmm" with as many digits of hours as it takes; 100 hours are "100:00:00.000".
// Requires: the text is shorter than `slen` (asserted).
void ms2timestr(uint64_t ms, char* str, size_t slen);

// Milliseconds from PCR base `first` to `last`, by the wrap rule of ts_pcr_delta, which also says what it logs.
uint32_t pcr_delta_ms(uint64_t first, uint64_t last);

// Reads the monotonic clock.
void set_now(struct timespec* tms);

// Milliseconds of a time; -1 if its seconds are -1.
long tms2ms(const struct timespec* tms);

void cpy_timespec(struct timespec* dest, const struct timespec* src);

// The absolute difference of two times. A null argument stands for now, on the monotonic clock.
void tspec_diff(const struct timespec* a, const struct timespec* b, struct timespec* delta);

// The same in milliseconds.
long diff_ms(const struct timespec* a, const struct timespec* b);

#endif // TAVRIN_MISC_H
