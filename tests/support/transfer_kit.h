// What tests of the transfer engine share: a job that begins at a file of known content, and filters.
#ifndef TESTS_SUPPORT_TRANSFER_KIT_H
#define TESTS_SUPPORT_TRANSFER_KIT_H

#include "fdio.h"
#include "support/log_capture.h"
#include "support/net_peer.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace trk
{

using Lines = std::vector<std::string>;

inline constexpr size_t BUF = MIN_TRF_BUFSIZE;

inline std::string letters(size_t count)
{
    std::string s(count, '\0');
    for (size_t i = 0; i < count; ++i)
        s[i] = static_cast<char>('a' + i * 7 % 26 + i / 1000 % 5);
    return s;
}

inline std::string num(int n)
{
    return std::to_string(n);
}

struct job_free {
    void operator()(transfer_spec* tsp) const { free(tsp); }
};

// A job from a file of known content, to wherever the test says.
struct transfer_step : testing::Test {
    TempDir dir;
    const std::string text = letters(3 * BUF + 100);
    Fd src;
    off_t offset = 0;
    uint32_t flags = 0;
    ssize_t n = 12345;
    LogCapture log;

    transfer_step()
    {
        write_file(dir / "src", text);
        src = Fd(open_src_file((dir / "src").c_str()));
        fdio_init(static_cast<ssize_t>(BUF));
        signal(SIGPIPE, SIG_IGN);
        log.clear();
    }
    ~transfer_step() override { fdio_destroy(); }

    using job_ptr = std::unique_ptr<transfer_spec, job_free>;
    job_ptr job(int out_fd, off_t* at = nullptr, void* aux = nullptr, ssize_t aux_len = 0)
    {
        return job_ptr(new_transfer_spec(src.get(), out_fd, at, &flags, aux, aux_len));
    }
    Fd new_file(const char* name) { return Fd(open_dst_file((dir / name).c_str(), 0)); }
    std::string content(const char* name) const { return read_file(dir / name); }
};

// ---- filters ------------------------------------------------------------------------------------------------

inline int upper(void* data, ssize_t len, ssize_t* new_len)
{
    auto* const p = static_cast<char*>(data);
    std::transform(p, p + len, p, [](char c) { return static_cast<char>(toupper(c)); });
    *new_len = len;
    return 0;
}

inline int first_half(void*, ssize_t len, ssize_t* new_len)
{
    *new_len = len / 2;
    return 0;
}

inline int refuse(void*, ssize_t, ssize_t*)
{
    return -77;
}

inline int leave_nothing(void*, ssize_t, ssize_t* new_len)
{
    *new_len = 0;
    return 0;
}

inline int one_more(void*, ssize_t len, ssize_t* new_len)
{
    *new_len = len + 1;
    return 0;
}

inline int never_called(void*, ssize_t, ssize_t*)
{
    ADD_FAILURE() << "the filter was called";
    return 0;
}

} // namespace trk

#endif // TESTS_SUPPORT_TRANSFER_KIT_H
