// Removes the shared memory of rings whose process is gone, before and after the tests of each program.
//
// A ring's name is made of its process ID and a number. Processes that died with a ring, as death tests' children do,
// leave it behind; it would be in the way of a later process that happens to get the same ID.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <dirent.h>

namespace
{

// True if no process can own rings of this ID any more, or none does yet: our own begin after this.
bool is_left(pid_t pid, bool at_start)
{
    return pid == getpid() ? at_start : kill(pid, 0) != 0 && errno == ESRCH;
}

void remove_left_rings(bool at_start)
{
    DIR* dir = opendir("/dev/shm");
    if (!dir) return; // then there are none
    while (const struct dirent* entry = readdir(dir)) {
        int pid = 0, number = 0, end = 0;
        if (sscanf(entry->d_name, "mmr.%d.%d%n", &pid, &number, &end) != 2 || entry->d_name[end] != '\0') continue;
        if (pid > 0 && is_left(pid, at_start)) (void)shm_unlink(entry->d_name); // another test may be quicker
    }
    closedir(dir);
}

class left_rings : public testing::Environment
{
    void SetUp() override { remove_left_rings(true); }
    void TearDown() override { remove_left_rings(false); }
};

[[maybe_unused]] const testing::Environment* const g_left_rings = testing::AddGlobalTestEnvironment(new left_rings);

} // namespace
