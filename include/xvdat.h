// Array containers for records ("blocks") of a size that the caller states at each call.
//
//     xvec     a growing array of blocks, taken at the end
//     xvlst    slots with a map of those taken: an index stays good for as long as its record exists
//     emblst   the same slots inside one buffer of the caller's, without a pointer: it may be copied as bytes
//
// Words: the *capacity* is what the memory at hand can hold. A container is *fixed* when its memory can't grow: it
// is the caller's (bind, emblst_create) or was mapped once (xvlst_mmap_fixed). A slot is *taken* or *free*; the
// lowest free slot is the next to be taken. Growth is rounded up to a multiple of `growblk`, and new memory is zero.
// A slot that is taken again still holds what its last owner left there.
//
// Units: lengths, capacities, `plus` and `growblk` in blocks; `blksz` and `buflen` in bytes. The block size must be
// the same in all calls on one container.
// Ownership: the container owns its memory unless it was bound to the caller's; the block at index i starts at
// `data` + i * blksz, until the next call that may grow the container or reset it.
// Results: an index or 0; ERR_XV_FIXED where a fixed container would have to grow; -1 where memory ran out (the
// checked call has logged it; with XV_ABORT_ENOMEM in `xvdat_flags` the process aborts instead); ERANGE and EALREADY
// for an index that names no record.
// One thread, and nothing here is for signal handlers.
#ifndef TV_XVDAT_H
#define TV_XVDAT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

inline constexpr uint32_t XV_ABORT_ENOMEM = 1; // in xvdat_flags: memory that can't be had ends the process
inline constexpr uint32_t XV_FIXED_SIZE = 2;   // in a container's flags: it can't grow
inline constexpr uint32_t XV_MMAP = 4;         // in a list's flags: its memory was mapped

inline constexpr int ERR_XV_FIXED = -11;

extern u_int32_t xvdat_flags; // for all containers of the process: XV_ABORT_ENOMEM or 0

// ---- records --------------------------------------------------------------------------------------------------

// All zero is an empty vector that may grow.
struct xvec {
    void* data;
    size_t len;     // blocks in use
    size_t max_len; // capacity
    uint32_t flags; // XV_FIXED_SIZE or 0
};

// A word for whatever an owner wants to keep with a container.
union wordata {
    long num;
    void* ptr;
    char str[8];
};

// All zero is an empty list that may grow. The first four fields are those of xvec.
struct xvlst {
    void* data;
    size_t len;         // slots taken
    size_t max_len;     // capacity
    uint32_t flags;     // XV_FIXED_SIZE, XV_MMAP
    char* taken;        // a byte per slot, non-zero when taken
    size_t last;        // highest index taken since the last purge; by design it doesn't come down on a deletion
    ssize_t avail;      // the lowest free index, -1: none
    union wordata meta; // num: the block size of a mapped list, which the unmapping needs
};

// The head of a list inside a buffer; blocks and taken map follow.
struct emblst {
    size_t count;     // slots taken
    size_t max_count; // capacity
    size_t last;      // as in xvlst
    ssize_t avail;    // as in xvlst
    uint32_t flags;   // XV_FIXED_SIZE
    off_t taken_offt; // where the taken map starts, counted from the head's first byte
    char data[];      // the blocks
};

static_assert(std::is_trivial_v<xvec> && std::is_standard_layout_v<xvec>);
static_assert(std::is_trivial_v<xvlst> && std::is_standard_layout_v<xvlst>);
static_assert(offsetof(xvlst, data) == offsetof(xvec, data) && offsetof(xvlst, len) == offsetof(xvec, len) &&
              offsetof(xvlst, max_len) == offsetof(xvec, max_len) && offsetof(xvlst, flags) == offsetof(xvec, flags));
static_assert(std::is_trivially_copyable_v<emblst> && offsetof(emblst, data) == sizeof(emblst),
              "the blocks follow the head without a gap");

// What a walk calls: the array's base and an index; with `aux` the pointer that the caller gave, too.
typedef int (*xv_visit_t)(void* data, size_t i);
typedef int (*xv_visit_aux_t)(void* data, size_t i, void* aux);
// What a deletion calls with the base and the index of the record that goes. It must leave the container alone.
typedef void (*xv_cleanup_t)(void* data, size_t i);

// ---- xvec -----------------------------------------------------------------------------------------------------

// Lays an empty fixed vector over the caller's memory, of which it clears the blocks. 0, or -1 with nothing touched
// if not a single block fits (or blksz is 0). Requires: v not null, buf writable for buflen bytes.
int xvec_bind(struct xvec* v, void* buf, size_t buflen, size_t blksz);
// Brings the capacity to new_max, rounded up. 0, also without a step if new_max is below the capacity; ERR_XV_FIXED;
// -1 with the vector as it was. By design a new_max equal to the capacity is not the end of it: the memory is
// reallocated at the same size, and a fixed vector refuses.
// Requires: v not null, blksz and growblk above 0.
int xvec_reserve(struct xvec* v, size_t new_max, size_t blksz, size_t growblk);
// Makes room for `plus` blocks more than are in use. 0, ERR_XV_FIXED (whatever room there is), or -1.
// Requires: v not null; plus, blksz and growblk above 0.
int xvec_expand(struct xvec* v, size_t plus, size_t blksz, size_t growblk);
// Takes one more block into use and returns its index; -1 if a fixed vector is full or memory ran out. The block is
// not cleared. Requires: v not null, blksz and growblk above 0 (both unused if v is fixed).
ssize_t xvec_add(struct xvec* v, size_t blksz, size_t growblk);
// Empties the vector and frees its memory; a fixed one keeps memory, capacity and flags. Null is ignored.
void xvec_reset(struct xvec* v);

// Calls f for each index from 0 to the length that the vector had at the start. With `pos` the first non-zero result
// ends the walk and *pos is its index. By design a walk without `pos` goes on to the end, and its result is that of
// the last call. 0 for an empty vector. Requires: v and f not null; f does not shorten or reset the vector.
int xvec_each(struct xvec* v, xv_visit_t f, size_t* pos);
int xvec_each_aux(struct xvec* v, xv_visit_aux_t f, void* aux, size_t* pos);
// The same walk with `what` as the third argument. By design it, too, stops only when `pos` is given.
int xvec_find(struct xvec* v, void* what, xv_visit_aux_t f, size_t* pos);

// ---- xvlst ----------------------------------------------------------------------------------------------------

// Lays an empty fixed list over the caller's memory: as many blocks as fit together with their taken map, which
// comes behind them; both are cleared. 0, or -1 with nothing touched if not a single one fits (or blksz is 0).
// Requires: l not null, buf writable for buflen bytes.
int xvlst_bind(struct xvlst* l, void* buf, size_t buflen, size_t blksz);
// Makes an empty fixed list of `count` slots in memory of its own, mapped without reserve: pages cost nothing until
// they are touched. 0, or ENOMEM, logged, with nothing touched. xvlst_reset unmaps it.
// Requires: l not null, blksz above 0.
int xvlst_mmap_fixed(struct xvlst* l, size_t count, size_t blksz);
// Brings the capacity to new_max, rounded up. 0, also without a step if new_max is at most the capacity;
// ERR_XV_FIXED; -1 with records and capacity as they were. Requires: l not null, blksz and growblk above 0.
int xvlst_reserve(struct xvlst* l, size_t new_max, size_t blksz, size_t growblk);
// Makes room for `plus` records more than there are. Results as xvlst_reserve.
int xvlst_expand(struct xvlst* l, size_t plus, size_t blksz, size_t growblk);
// Takes the lowest free slot and returns its index. ERR_XV_FIXED if a fixed list is full, -1 if memory ran out.
// The slot is not cleared. Requires: l not null, blksz and growblk above 0.
ssize_t xvlst_add(struct xvlst* l, size_t blksz, size_t growblk);
// Frees a slot, and then shows its record to `cleanup` (if given), for which the slot is free already but still counts
// in `len`. 0; ERANGE for an index above `last`, whatever the capacity; EALREADY for a free slot. Requires: l not null.
int xvlst_del(struct xvlst* l, size_t index, xv_cleanup_t cleanup);

// Calls f for each taken slot from 0 to what `last` was at the start. With `pos` the first non-zero result ends the
// walk and *pos is its index. By design a walk without `pos` goes on to the end, and its result is that of the last
// call. 0 for an empty list. f may add to the list, delete from it and reset it: a record added during the walk is
// visited if its slot lies ahead and is not above the old `last`. Requires: l and f not null.
int xvlst_each(struct xvlst* l, xv_visit_t f, size_t* pos);
int xvlst_each_aux(struct xvlst* l, void* aux, xv_visit_aux_t f, size_t* pos);
// The first non-zero result of f, called with `what` as the third argument; *pos (if given) is its index. 0 if there
// is none, with *pos left alone. Requires: l and f not null.
int xvlst_find(struct xvlst* l, void* what, xv_visit_aux_t f, size_t* pos);
// Frees each slot for which is_match gives non-zero (`udata` is its third argument). The count of slots freed, or -1
// with *pos (if given) the index that could not be freed, because is_match itself had freed it.
// Requires: l and is_match not null.
int xvlst_rmif(struct xvlst* l, void* udata, xv_visit_aux_t is_match, size_t* pos);
// Frees all slots, after `cleanup` (if given) has seen each; the memory stays, and `last` goes back to 0.
// Requires: l not null.
void xvlst_purge_all(struct xvlst* l, xv_cleanup_t cleanup);
// Gives back the list's own memory and clears the record; memory that it was bound to stays the caller's. A failed
// unmapping aborts. Null is ignored.
void xvlst_reset(struct xvlst* l);

// ---- emblst ---------------------------------------------------------------------------------------------------

// Lays an empty list over the buffer: head, blocks, taken map. The list, which is `buf`, or null if not a single
// block fits (or blksz is 0). Requires: buf on a long's boundary (asserted), writable for len bytes.
struct emblst* emblst_create(void* buf, size_t len, size_t blksz);
// Takes the lowest free slot and returns its index, or -1 if there is none. The slot is not cleared.
// Requires: el not null.
ssize_t emblst_add(struct emblst* el);
// Copies the list's bytes: dst, which is a working list, or null with errno EINVAL if dstlen is too short.
// Requires: se not null; dst on a long's boundary, writable for dstlen bytes, apart from the list.
void* emblst_copy(const struct emblst* se, void* dst, size_t dstlen);
// As xvlst_del.
int emblst_del(struct emblst* el, size_t index, xv_cleanup_t cleanup);
// As xvlst_each and xvlst_each_aux.
int emblst_each(struct emblst* el, xv_visit_t f, size_t* pos);
int emblst_each_aux(struct emblst* el, void* aux, xv_visit_aux_t f, size_t* pos);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of the record holds. No effects, no lines; null is not valid.
bool xvec_validate(const struct xvec* v);
bool xvlst_validate(const struct xvlst* l);
bool emblst_validate(const struct emblst* el);
// Prints the record in words, valid or not; of the lists also which slots are taken, if the record is valid.
void xvec_dump(const struct xvec* v, FILE* fp);
void xvlst_dump(const struct xvlst* l, FILE* fp);
void emblst_dump(const struct emblst* el, FILE* fp);

#endif // TV_XVDAT_H
