// The front end's settings: the group `front` of a configuration file, or a port and a directory.
//
// Ownership: the descriptor of the root and the listeners' interfaces are the record's owner's.
#ifndef EXAMPLES_FRONT_CONFIG_H
#define EXAMPLES_FRONT_CONFIG_H

#include "common/rui.h"

#include <cstddef>

// Connections above the maximum that are told so, before the listeners stop for a while.
inline constexpr size_t FRONT_REFUSED_MAX = 20;

struct front_cfg {
    struct rui_cfg rui;
    int root;            // the directory that is served
    size_t max_requests; // connections that are served at a time; as many as there are descriptors for, at most
};

// Reads a file, or without one (null) a port and a directory. 0, or -1 after a line, with nothing held.
int front_load(const char* file, const char* port, const char* dir, struct front_cfg* cfg);

#endif // EXAMPLES_FRONT_CONFIG_H
