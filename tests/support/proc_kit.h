// What tests of process services share: a log that child processes can write to, directories that vanish, children
// that run one function, and system calls that fail on demand.
#ifndef TESTS_SUPPORT_PROC_KIT_H
#define TESTS_SUPPORT_PROC_KIT_H

#include "log.h"

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace prk
{

// While it lives, g_log writes to a pipe, all modules at debug, lines without time: "(ERR)  text\n". What forked
// children log arrives here too. A pipe, since limits on file sizes don't apply to it.
class piped_log
{
public:
    piped_log();
    ~piped_log();
    piped_log(const piped_log&) = delete;
    piped_log& operator=(const piped_log&) = delete;

    // All lines since the last call. A line that was written before the call is in it.
    std::string text();

private:
    FILE* out = nullptr;
    int in = -1;
    int saved_levels[LOG_LEVELS_MAX];
};

// A fresh directory under the system's temporary one, removed with all that is in it. Readable by everyone.
class temp_dir
{
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return dir; }
    std::string path(const std::string& name) const { return dir + "/" + name; }
    // Writes a file and returns its path.
    std::string file(const std::string& name, const std::string& content) const;

private:
    std::string dir;
};

std::string content_of(const std::string& path);

// Runs a function in a forked child and returns what it returned (0 to 255), or minus the signal that ended it.
int in_child(const std::function<int()>& run);

// Runs a function in a forked child whose result is a text, however many forks lie between child and result: all
// processes that descend from the child are waited for. `exit_status` is that of the direct child.
std::string text_from_descendant(const std::function<std::string()>& run, int* exit_status);

// One argument of a system call, counted from 0, that must have a value for the call to fail.
struct arg_is {
    unsigned index;
    unsigned value; // the low half is compared
};

// From now on the system call fails with `err` in this process (call it in a child). False if filters can't be had.
[[nodiscard]] bool fail_syscall(long number, int err, std::optional<arg_is> only = std::nullopt);

struct user_entry {
    std::string name;
    uid_t uid;
    gid_t gid;
    std::string home;
};

// A user other than root whose home is a directory that anyone may enter; none if this machine has no such user.
std::optional<user_entry> user_with_open_home();

} // namespace prk

#endif // TESTS_SUPPORT_PROC_KIT_H
