// Base types that every module of the library may use.
//
// Symbolic tags: a short text that is compared as a number. Read modes, stream types and log groups are such
// tags: they compare in one instruction and still print as words in a log line. The numeric values assume a
// little-endian machine, which is what the library supports; bytes behind the text are zero, so that `sym`
// prints as a C string as long as the text is shorter than the tag.
//
// Nothing here owns memory, logs or fails. Safe from any context.
#ifndef TVTYPES_H
#define TVTYPES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// A tag of up to three characters and a zero: compare `num`, print `sym`.
union n32_tag {
    char sym[4];
    int32_t num;
};

// A tag of up to seven characters and a zero. `sym` and `sym8` are the same bytes.
union n64_tag {
    char sym8[8];
    char sym[8];
    int64_t num;
};

static_assert(sizeof(n32_tag) == 4);
static_assert(sizeof(n64_tag) == 8);

#endif // TVTYPES_H
