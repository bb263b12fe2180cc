// A writer of a ring log, for tests of what reads one: ringlog_writer NAME PAGES
//
// Makes the ring log, and then does what each line of its input says, and answers "ok" to each:
//     puts TEXT     adds the text and a line feed
//     bytes N C     adds N times the character C, in pieces that fit
//     raw TEXT      adds the text without a line feed
//     temp N        adds a reading
//     close         closes the ring log, whose objects stay; later lines find it closed
//     destroy       the same, and unlinks them
// The end of the input ends it as it stands, the ring log left open.
#include "lard.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s NAME PAGES\n", argv[0]);
        return 2;
    }
    const size_t npages = strtoul(argv[2], nullptr, 10);
    lard_t lh = lard_create(argv[1], npages);
    if (!lh) return 1;
    const size_t piece_max = npages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 2;
    std::cout << "ok\n" << std::flush;

    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream in(line);
        std::string word;
        in >> word >> std::ws;
        std::string rest;
        std::getline(in, rest);
        if (!lh) break;
        if (word == "puts") {
            lard_printf(lh, "%s\n", rest.c_str());
        } else if (word == "raw") {
            lard_puts(lh, rest.c_str());
        } else if (word == "bytes") {
            size_t left = strtoul(rest.c_str(), nullptr, 10);
            while (left > 0) {
                const size_t n = std::min(left, piece_max);
                lard_puts(lh, std::string(n, rest.back()).c_str());
                left -= n;
            }
        } else if (word == "temp") {
            lard_set_temp(lh, atoi(rest.c_str()));
        } else if (word == "close") {
            lard_close(lh);
            lh = nullptr;
        } else if (word == "destroy") {
            lard_destroy(lh);
            lh = nullptr;
        } else {
            fprintf(stderr, "what is [%s]?\n", line.c_str());
            return 2;
        }
        std::cout << "ok\n" << std::flush;
    }
    _exit(0); // nothing is put in order: the ring log, if it is still open, stays so
}
