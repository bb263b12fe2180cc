// What the harnesses share: the entry points that a fuzzer or the replay program calls, memory of exactly the size
// that a function was promised, and a check that counts as a finding.
#ifndef FUZZ_COMMON_H
#define FUZZ_COMMON_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

// Called once: sends all log lines, debug ones included, to nowhere, so that their building is under test too.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// The bytes in memory of their own that ends right behind them and `margin` further bytes.
inline std::vector<uint8_t> exact_copy(std::span<const uint8_t> data, size_t margin = 0)
{
    std::vector<uint8_t> mem(data.size() + margin, 0x80); // a margin that looks like RTP is the least harmless
    std::copy(data.begin(), data.end(), mem.begin());
    return mem;
}

// A path that leads to an open descriptor, such as a file in memory.
inline std::string path_of(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

#define FUZZ_CHECK(expr)                                                                                               \
    do {                                                                                                               \
        if (!(expr)) {                                                                                                 \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #expr);                                  \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)

#endif // FUZZ_COMMON_H
