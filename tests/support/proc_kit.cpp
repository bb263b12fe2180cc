#include "support/proc_kit.h"

#include "log.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace prk
{

namespace
{

[[noreturn]] void give_up(const char* what)
{
    perror(what);
    abort();
}

std::string read_to_end(int fd)
{
    std::string s;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0)
            s.append(buf, static_cast<size_t>(n));
        else if (0 == n || errno != EINTR)
            return s;
    }
}

int wait_for(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) give_up("waitpid");
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

piped_log::piped_log()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) give_up("pipe2");
    in = fds[0];
    if (fcntl(in, F_SETFL, O_NONBLOCK) != 0) give_up("fcntl");
    out = fdopen(fds[1], "w");
    if (!out) give_up("fdopen");
    setvbuf(out, nullptr, _IONBF, 0);

    glog_init("test");
    log_default(&g_log, out);
    log_timefmt(&g_log, LTF_NO_TIME);
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), saved_levels);
    log_set_modules(&g_log, ll::debug);
}

piped_log::~piped_log()
{
    log_default(&g_log, stderr);
    std::copy(std::begin(saved_levels), std::end(saved_levels), g_mod_ll);
    fclose(out);
    close(in);
}

std::string piped_log::text()
{
    return read_to_end(in);
}

temp_dir::temp_dir()
{
    std::string pattern = std::filesystem::temp_directory_path() / "kvt-test-XXXXXX";
    if (!mkdtemp(pattern.data())) give_up("mkdtemp");
    dir = pattern;
    if (chmod(dir.c_str(), 0755) != 0) give_up("chmod");
}

temp_dir::~temp_dir()
{
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

std::string temp_dir::file(const std::string& name, const std::string& content) const
{
    const std::string p = path(name);
    std::ofstream(p, std::ios::binary) << content;
    return p;
}

std::string content_of(const std::string& path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

int in_child(const std::function<int()>& run)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) give_up("fork");
    if (0 == pid) _exit(run());
    return wait_for(pid);
}

std::string text_from_descendant(const std::function<std::string()>& run, int* exit_status)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) give_up("pipe2");
    fflush(nullptr);
    // Orphans come back to this process, so that none outlives the test.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) give_up("prctl");
    const pid_t pid = fork();
    if (pid < 0) give_up("fork");
    if (0 == pid) {
        const std::string s = run();
        _exit(write(fds[1], s.data(), s.size()) == static_cast<ssize_t>(s.size()) ? 0 : 1);
    }

    close(fds[1]);
    const std::string s = read_to_end(fds[0]); // ends when the last descendant has let go of its end
    close(fds[0]);
    *exit_status = wait_for(pid);
    while (waitpid(-1, nullptr, 0) > 0)
        continue;
    return s;
}

bool fail_syscall(long number, int err, std::optional<arg_is> only)
{
    constexpr auto field = [](size_t offset) {
        return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
    };
    constexpr auto skip_unless = [](unsigned value, unsigned char steps) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, steps);
    };
    constexpr auto answer = [](unsigned value) { return sock_filter BPF_STMT(BPF_RET | BPF_K, value); };

    const unsigned char arg_steps = only ? 2 : 0;
    std::vector<sock_filter> code = {
        field(offsetof(seccomp_data, nr)),
        skip_unless(static_cast<unsigned>(number), static_cast<unsigned char>(1 + arg_steps))};
    if (only) {
        code.push_back(field(offsetof(seccomp_data, args) + only->index * sizeof(__u64)));
        code.push_back(skip_unless(only->value, 1));
    }
    code.push_back(answer(SECCOMP_RET_ERRNO | static_cast<unsigned>(err)));
    code.push_back(answer(SECCOMP_RET_ALLOW));

    const sock_fprog prog = {static_cast<unsigned short>(code.size()), code.data()};
    return 0 == prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) && 0 == prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog);
}

std::optional<user_entry> user_with_open_home()
{
    std::optional<user_entry> found;
    setpwent();
    while (const passwd* pw = found ? nullptr : getpwent()) {
        struct stat st = {};
        constexpr mode_t open_to_all = S_IXUSR | S_IXGRP | S_IXOTH;
        if (0 == pw->pw_uid || 0 == pw->pw_gid || stat(pw->pw_dir, &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        if ((st.st_mode & open_to_all) == open_to_all && std::string("/") != pw->pw_dir)
            found = {pw->pw_name, pw->pw_uid, pw->pw_gid, pw->pw_dir};
    }
    endpwent();
    return found;
}

} // namespace prk
