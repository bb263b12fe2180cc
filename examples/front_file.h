// The front end's files: opened beneath the root, and never outside it.
//
// The *root* is a directory that is held open. Neither an absolute path nor `..` nor a symbolic link leads out of it,
// and no change of the tree between look and open does.
//
// Ownership: opened descriptors are the caller's.
#ifndef EXAMPLES_FRONT_FILE_H
#define EXAMPLES_FRONT_FILE_H

#include <sys/types.h>

// Opens a regular file to read. Its descriptor, with its size in *size; or an HTTP status with its sign changed: -403
// for a path that leads out of the root, for what is no regular file, and for one that may not be read; -404; -503
// where descriptors or memory are short; -500. Doesn't wait, whatever the path leads to, and has no effect on what is no
// regular file.
int front_open(int root, const char* path, off_t* size);

// The same where the kernel can't keep a path beneath a directory: goes from part to part, and through no symbolic link
// at all. The descriptor of whatever is there, opened with the flags, or -1 with errno.
int front_walk(int root, const char* path, int flags);

// Content type by the name's ending.
const char* front_content_type(const char* path);

#endif // EXAMPLES_FRONT_FILE_H
