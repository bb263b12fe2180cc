// Index files: what lets a stored transport stream be played out at its own pace without being parsed again.
//
// Words. A *record* is a run of bytes of one size, `rsize`, a multiple of 188: record n covers the stream file from
// byte n * rsize on, and the last one may reach over the file's end. Its *clock* is the stream time at its end,
// computed from the PCRs of the file, whatever their PID. An *index* holds the clocks of all records; that of
// movie.ts is movie.ix beside it. A *load* is the stretch of the stream file that a build holds in memory.
// Packets are 188 bytes throughout.
//
// Build an index once:       tsx_mkix("movie.ts", nullptr, 7 * TS_MIN_PKTSIZE, 0, 0);
// and ask it what to send:   tsix_t ix = tsx_open("movie.ts", "movie.ix", 0, 0);
//                            while ((n = tsx_next(ix, 65536, 40, &usec)) > 0) ... wait usec, send n bytes ...
//                            tsx_close(ix);
//
// Units: bytes; clocks in ticks of 90 kHz; `max_delay` in milliseconds; `delay` in microseconds.
// Ownership: a handle owns its two descriptors and its memory until tsx_close. A build's memory is one load and the
// records of one and a half loads, however large the file. While an index is played the stream file is not read.
// Results: 0 or a negative or positive error number, null, -1; each function says which. All failures are logged.
// By design a few things that a file may hold end the process with a failed assertion: each function says which.
// One thread; nothing here is for a signal handler.
#ifndef TV_TSIX_H
#define TV_TSIX_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

inline constexpr size_t ONE_Kb = 1024;
inline constexpr size_t ONE_Mb = ONE_Kb * ONE_Kb;
inline constexpr size_t ONE_Gb = ONE_Kb * ONE_Mb;

// Flags of the open calls.
inline constexpr uint32_t TSX_VARLEN = 1;   // each record holds its own size
inline constexpr uint32_t TSX_SKIPLOAD = 2; // the stream file is opened and not read

inline constexpr size_t TSX_PATH_MAX = 128;
inline constexpr size_t D_PLD_CACHED = 1073741696; // a load, unless the caller says otherwise
inline constexpr size_t MIN_PLD_CACHED = ONE_Mb;   // the least that a caller may say

static_assert(D_PLD_CACHED == ONE_Gb - ONE_Gb % 188);

// ---- the file -------------------------------------------------------------------------------------------------

// An index file is a header and then irec_count records; all integers little-endian, nothing between the fields:
//
//     offset  size  field       value
//      0      4     magic       "TSIX"; "#SIX" from its creation until its last record is written
//      4      1     version     1
//      5      1     runits      rsize / 188; by design only the low byte of that
//      6      2     flags       0
//      8      8     irec_count  records behind the header
//     16      2     irec_size   8, or 10 with TSX_VARLEN
//     18     16     unused      each byte fe
//     34            records     sclk (8 bytes); with TSX_VARLEN then rsize (2 bytes)
//
// Example: 54 53 49 58 01 07 00 00 02 00 00 00 00 00 00 00 08 00, sixteen times fe, 10 0e 00 00 00 00 00 00
// 20 1c 00 00 00 00 00 00 is an index of two records of 1316 bytes, each lasting 3600 ticks (40 ms).
inline constexpr char TSX_MAGIC[] = "TSIX";
inline constexpr char TSX_MAGIC_OPEN = '#'; // stands for the magic's first byte until the file is complete
inline constexpr uint8_t TSX_VERSION = 1;
inline constexpr uint8_t TSX_UNUSED_BYTE = 0xfe;

struct __attribute__((packed)) tsix_header {
    char magic[4];
    uint8_t version;
    uint8_t runits;
    uint16_t flags;
    uint64_t irec_count;
    uint16_t irec_size;
    uint8_t unused[16];
};

// A record of fixed size: its clock.
struct __attribute__((packed)) tsd_irec {
    uint64_t sclk;
};

// A record with TSX_VARLEN.
struct __attribute__((packed)) tsd_srec {
    uint64_t sclk;
    uint16_t rsize; // bytes
};

// The records are the file's own bytes: they are read and written as they are.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
static_assert(sizeof(tsix_header) == 34 && sizeof(tsd_irec) == 8 && sizeof(tsd_srec) == 10);
static_assert(offsetof(tsix_header, irec_count) == 8 && offsetof(tsix_header, unused) == 18);

// ---- building -------------------------------------------------------------------------------------------------

struct tsix_ctx;
typedef struct tsix_ctx* tsix_t; // opaque: a stream file and its index

// Builds the index of a stream file, with records of `rsize` bytes, in a new file at `ixpath`; null: tsx_ixpath's.
// `max_cached` is the size of a load, 0 for D_PLD_CACHED. Flags: TSX_VARLEN or 0.
//   0   the index is complete
//  22   a packet has no sync byte
//  -1   all else: a path that can't be opened, an index that exists already, a wrong size, no PCR found in the first
//       load, a stream that gives no rate (no two PCRs, or no record between two that a clock must be computed from)
// What a failed build has written stays at `ixpath`, and the next build fails on it until it is removed; only where
// the stream gives no rate it is removed at once.
// By design a PCR in the very first packet of the file counts as none, an rsize above 47940 puts a wrong record size
// into the header, one above 65424 into the records of TSX_VARLEN, too, and three things fail an assertion: an empty
// file, a last load that is no whole number of packets, a first PCR on PID 0.
// Requires: rsize above 0 (asserted), a multiple of 188, smaller than file and load; max_cached 0 or at least
// MIN_PLD_CACHED.
int tsx_mkix(const char* tspath, const char* ixpath, size_t rsize, size_t max_cached, uint32_t flags);

// ---- playing --------------------------------------------------------------------------------------------------

// Opens a stream file and its index (null: tsx_ixpath's). At most the records of `max_cached` bytes of stream are in
// memory at once; 0 stands for D_PLD_CACHED. Null if one can't be opened, or the index is incomplete, of another
// version, cut short, or of the other record size than `flags` says.
// By design some headers fail an assertion: no records at all, a record size that is neither 8 nor 10. So does a
// stream file that is smaller than one record.
// Requires: TSX_VARLEN in `flags` for an index that was built with it; max_cached 0 or at least MIN_PLD_CACHED.
tsix_t tsx_open(const char* tspath, const char* ixpath, size_t max_cached, uint32_t flags);

// What may go out next: a run of whole records of together at most `max_len` bytes and `max_delay` ms (half a ms is
// allowed on top). Returns the bytes, and in `*delay` the microseconds that they last. One record at least is taken,
// whatever the limits. The last run ends with the stream file.
//   0   the end; it stays the end
//  -1   the index can't be read further; *delay is left alone
// By design a record with a clock of 0 or a size of 0 fails an assertion. A clock that steps back, as after a PCR
// that does, gives a delay of no use.
// Requires: an open handle (asserted); delay not null.
ssize_t tsx_next(tsix_t tsx, size_t max_len, size_t max_delay, size_t* delay);

// Releases a handle; null is ignored.
void tsx_close(tsix_t tsx);

// What a transfer holds of a paced file.
struct tsix_stream {
    char tspath[TSX_PATH_MAX];  // the stream file
    size_t max_io_bytes;        // most bytes in a chunk
    size_t max_io_delay;        // longest chunk, ms
    size_t max_cached;          // as for tsx_open
    tsix_t tsx;                 // the open index, owned by whoever owns this record
    ssize_t o_left;             // bytes of the chunk that have not gone out
    struct timespec last_otime; // when the chunk began, monotonic clock
};

// tsx_open with the path and the cache size of the record, the derived index path and flags 0. The handle, or null,
// also goes to spec->tsx.
tsix_t tsx_iter_open(struct tsix_stream* spec);

// ---- paths ----------------------------------------------------------------------------------------------------

// The path of the index: everything behind the last "." replaced by "ix". A new string, which the caller frees; null
// with a warning where the path has no ".". By design it is the last "." of the whole path, so that a file name
// without one is cut at a directory's.
char* tsx_ixpath(const char* tspath);

// True if the stream file is readable and its index can be opened (with flags 0 and a cache of ONE_Mb).
bool tsx_has_ix(const char* tspath);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of the record holds. No effects, no lines.
bool tsx_validate(const struct tsix_ctx* tsx);
// Prints the record in words.
void tsx_dump(const struct tsix_ctx* tsx, FILE* out);

#endif // TV_TSIX_H
