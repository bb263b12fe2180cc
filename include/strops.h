// String operations: numbers with unit suffixes, a macro in paths, line ends, hexadecimal, tracking tags.
//
// Units of a number: none, or "K"/"Kb", "M"/"Mb", "G"/"Gb" in any case, for 2^10, 2^20 and 2^30.
// Ownership: everything is written to the caller's buffers. Nothing here logs, but repl_ulm() may use perror.
// Results: 0, or one of the codes below; a function that counts returns its count.
// No state: safe from any context but for repl_ulm() and replace_ul_macro(), which allocate for the call.
#ifndef TV_STROPS_H
#define TV_STROPS_H

#include "tvtypes.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// ---- numbers --------------------------------------------------------------------------------------------------

inline constexpr int A2N_RANGE = -2;    // the value doesn't fit the integer
inline constexpr int A2N_TOO_LONG = -3; // more than A2N_MAX_DIGITS characters in front of the unit
inline constexpr int A2N_NUMBER = -4;   // strtod found the number out of range
inline constexpr int A2N_UNIT = -5;     // unknown unit

inline constexpr size_t A2N_MAX_DIGITS = 63;

// Number with an optional unit, stored unless pval is null. Blanks between number and unit are accepted. By design
// the first letter begins the unit, so neither exponents ("1e3") nor hexadecimal numbers are read, and a text without
// any digit counts as 0. 0, or A2N_TOO_LONG, A2N_NUMBER, A2N_UNIT; *pval is then left alone. A null str is an
// assertion.
int a2double(const char* str, double* pval);

// The same, cut to an integer, stored unless pval is null; A2N_RANGE too. By design integers go through a double and
// lose precision above 2^53.
int a2size(const char* str, ssize_t* pval);
int a2int64(const char* str, int64_t* pval);

// ---- line ends, markers ---------------------------------------------------------------------------------------

// Removes at most two line-end characters (LF, CR) from the end.
void chomp(char* s);

// Walks from occurrence to occurrence of the marker. A marker that ends in a colon announces a number: the decimal
// digits behind each occurrence are added up (none: 0). Any other marker counts 1 an occurrence. An empty marker
// occurs nowhere.
size_t marker_count(const char* s, const char* marker);

// ---- hexadecimal ----------------------------------------------------------------------------------------------

// Value of a hexadecimal digit in either case; 0 for anything else.
int sym2hex(int sym);

// Two digits make a byte, the high half first. Stops at the end of the text (an odd last digit is left over) or after
// len bytes. Returns the number of bytes written.
size_t hex_to_bin(const char* str, uint8_t* out, size_t len);

// Each byte as two lower-case digits and the delimiter (null: none), as long as three bytes and the delimiter fit.
// The text is terminated, and the last byte of s is 0 in any case. Returns the number of bytes converted.
size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim);

// ---- tags and macros ------------------------------------------------------------------------------------------

// A rolling tag: the prefix and a number from 1 to max, which then begins at 1 again. *count is the last number given
// out. A number of more than 6 digits is an assertion.
void mk_trk_tag(size_t* count, union n64_tag* tag, char pfx, size_t max);

inline constexpr int ULM_NONE = 3;       // no (further) occurrence
inline constexpr int ULM_NO_MEMORY = 12; // no memory for a copy of the text; buf is untouched
inline constexpr int ULM_NO_SPACE = -34; // the new text takes len bytes or more; buf holds what fits

inline constexpr int ULM_MAX_REPLACED = 32; // occurrences that replace_ul_macro replaces

// Replaces the first occurrence of the tag in buf by a number. By design the number 0 removes the tag and leaves
// no "0". 0, or one of the codes above.
// Requires: buf holds a terminated text and at least len bytes; tag not empty.
int repl_ulm(char* buf, size_t len, const char* tag, u_long ul);

// Replaces up to ULM_MAX_REPLACED occurrences. 0 (also if there are none), ULM_NO_MEMORY or ULM_NO_SPACE.
int replace_ul_macro(char* buf, size_t len, const char* tag, u_long ul);

#endif // TV_STROPS_H
