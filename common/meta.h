// Build identity of a program: one line that says what it is, a short tag for its peers on the network, and the block
// of build information at the end of the guide.
//
// The identity line and the tag are formed at the first call and cached: later calls return the same text, whatever
// their arguments. The texts are static and live as long as the process; nothing is to be freed. Nothing logs.
// A text that doesn't fit its limit is not cached, and "#error#" is returned in its place.
// One thread; not from a signal handler.
#ifndef COMMON_META_H
#define COMMON_META_H

#include <cstdio>

// What a program of the family does, in a few words; the name is compared without regard to case. "#error#" for an
// unknown name.
const char* app_description(const char* app);

// The identity line, at most 255 characters:
//     NAME (DESCRIPTION) VERSION-MAJOR.MINOR (TYPE) MODE [SYSTEM] CKSUM; built on DATE
// A null or empty descr stands for app_description(appname), a null or empty cksum for the build's tag.
// Requires: appname not null.
const char* get_custom_app_info(const char* appname, const char* descr, const char* cksum);

// The same with the program's own description.
const char* get_app_info(const char* appname, const char* cksum);

// "NAME/VERSION-MAJOR.MINOR (TYPE)", at most 127 characters.
// Requires: appname not null.
const char* get_app_tag(const char* appname);

// Writes the block: the library's line and the compiler flags between two lines of hyphens.
void dump_build_info(FILE* fp);

// Whether clocks are read in a faster way than by clock_gettime. False in this build.
bool using_fast_clocks();

#endif // COMMON_META_H
