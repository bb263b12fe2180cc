// Identity of the support library: the line that the build information shows.
//
// The text is formed at the first call and lives, unchanged, as long as the process. One thread.
#ifndef TV_LIBMETA_H
#define TV_LIBMETA_H

// "libtvn/VERSION-MAJOR.MINOR (TAG) @SECONDS": the version, the build's tag of eight hexadecimal digits and the time of
// the build in seconds since the epoch. "#error#" if that took more than 63 characters.
const char* lbtvn_info();

#endif // TV_LIBMETA_H
