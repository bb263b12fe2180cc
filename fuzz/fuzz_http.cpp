// Under attack: the reading of an HTTP reply from a connection that gives the input and then ends.
#include "fuzz/fuzz_common.h"
#include "webops.h"

#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t max_input = 4096; // fits a pipe whatever its limits
    constexpr size_t cap = 512;        // room for the tail
    const std::vector<uint8_t> input = exact_copy({data, std::min(size, max_input)});
    FUZZ_CHECK(head_eod(reinterpret_cast<const char*>(input.data()), input.size()) <=
               static_cast<ssize_t>(input.size()));

    int ends[2];
    FUZZ_CHECK(pipe(ends) == 0);
    FUZZ_CHECK(write(ends[1], input.data(), input.size()) == static_cast<ssize_t>(input.size()));
    close(ends[1]);
    std::vector<char> tail(cap);
    size_t tailsz = 0;
    const int rc = get_http_response(ends[0], tail.data(), cap, &tailsz);
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == 11);
    FUZZ_CHECK(tailsz <= cap);
    close(ends[0]);
    return 0;
}
