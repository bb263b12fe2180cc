// What the tests of ring logs share: a ring log whose objects are gone with the test, its text in the forms in which it
// can be had, and a writer in another process.
#ifndef TESTS_SUPPORT_LARD_KIT_H
#define TESTS_SUPPORT_LARD_KIT_H

#include "lard.h"
#include "lib/lard_int.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

namespace lardkit
{

inline const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// The descriptors that the process holds, the count's own included.
inline size_t open_descriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

// A name that no other process uses, and whose objects are gone with the test.
struct unique_name {
    const std::string name = "lard_test." + std::to_string(getpid());
    const std::string meta_path = "/dev/shm/" + name + ".meta";
    const std::string data_path = "/dev/shm/" + name + ".dat";

    ~unique_name()
    {
        unlink(meta_path.c_str());
        unlink(data_path.c_str());
    }
};

class ring_log_test : public testing::Test
{
protected:
    void TearDown() override
    {
        lard_close(reader);
        lard_close(writer);
    }
    void make(size_t npages = 1)
    {
        writer = lard_create(id.name.c_str(), npages);
        ASSERT_NE(writer, nullptr);
        size = npages * PAGE;
    }
    void open_reader()
    {
        reader = lard_open(id.name.c_str());
        ASSERT_NE(reader, nullptr);
    }
    const struct lard_meta& meta() const { return *writer->meta; }
    std::string ring() const { return std::string(writer->dbuf.data, size); }
    // Fills an empty ring up to a byte: short lines of "f" and one to make it even.
    void fill_to(size_t n)
    {
        while (meta().pld_len < n)
            ASSERT_GT(lard_puts(writer, std::string(std::min(size_t{100}, n - meta().pld_len), 'f').c_str()), 0);
        ASSERT_EQ(meta().pld_len, n);
    }
    static std::string snapshot(lard_t lh)
    {
        const int fd = memfd_create("snapshot", 0);
        const ssize_t n = lard_snapshot(lh, fd);
        std::string text(lh->buflen + 1, '\0');
        text.resize(static_cast<size_t>(pread(fd, text.data(), text.size(), 0)));
        close(fd);
        EXPECT_EQ(n, static_cast<ssize_t>(text.size()));
        return text;
    }
    static std::string read_new(lard_t lh, struct lard_cursor* cur, bool* lost = nullptr)
    {
        std::string text(lh->buflen, '\0');
        const ssize_t n = lard_read_new(lh, cur, text.data(), text.size(), lost);
        EXPECT_GE(n, 0);
        text.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return text;
    }
    static std::string whole(lard_t lh)
    {
        struct lard_cursor cur = {};
        return read_new(lh, &cur);
    }

    const unique_name id = {};
    lard_t writer = nullptr, reader = nullptr;
    size_t size = 0;
};

// Runs a writer in a process of its own until it says that it is done, and then as `end` wants it: the process.
struct child_writer {
    pid_t pid = -1;
    int leave = -1;

    child_writer(const std::string& name, size_t npages, const std::function<void(lard_t)>& write_lines)
    {
        int ready[2], go[2];
        if (pipe(ready) != 0 || pipe(go) != 0) abort();
        pid = fork();
        if (pid == 0) {
            close(go[1]);
            lard_t lh = lard_create(name.c_str(), npages);
            if (!lh) _exit(2);
            write_lines(lh);
            char c = 'r';
            if (write(ready[1], &c, 1) != 1) _exit(3);
            if (read(go[0], &c, 1) == 1) lard_close(lh); // a byte: end in an orderly way
            _exit(0);
        }
        close(ready[1]);
        close(go[0]);
        char c;
        if (read(ready[0], &c, 1) != 1) pid = -1;
        close(ready[0]);
        leave = go[1];
    }
    ~child_writer()
    {
        if (pid > 0) finish(SIGKILL);
        close(leave);
    }
    void finish(int signum)
    {
        kill(pid, signum);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    int finish_orderly()
    {
        int status = -1;
        if (write(leave, "c", 1) != 1) abort();
        waitpid(pid, &status, 0);
        pid = -1;
        return status;
    }
    child_writer(const child_writer&) = delete;
    child_writer& operator=(const child_writer&) = delete;
};

} // namespace lardkit

#endif // TESTS_SUPPORT_LARD_KIT_H
