// Signals, files, paths and texts. The process as a whole has util_proc_test.cpp, the pid file util_pidfile_test.cpp.
#include "util.h"

#include "log.h"
#include "support/proc_kit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

using prk::in_child;
using prk::piped_log;
using prk::temp_dir;

namespace
{

volatile sig_atomic_t g_seen = 0;

void note_signal(int signum)
{
    g_seen = signum;
}

struct sigaction action_of(int signum)
{
    struct sigaction sa = {};
    EXPECT_EQ(0, sigaction(signum, nullptr, &sa));
    return sa;
}

bool is_plain_handler(int signum, void (*handler)(int))
{
    const struct sigaction sa = action_of(signum);
    for (int s = 1; s < 32; ++s)
        if (1 == sigismember(&sa.sa_mask, s)) return false;
    return sa.sa_handler == handler && 0 == (sa.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND | SA_NODEFER));
}

void set_mtime(const std::string& path, time_t t)
{
    const timeval times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(0, utimes(path.c_str(), times));
}

std::string mode_text(mode_t mode)
{
    char buf[FMODE_STR_SIZE] = "";
    EXPECT_EQ(buf, fmode_str(mode, buf, sizeof(buf)));
    return buf;
}

std::string checked_dir(std::string path, bool trim, int expected)
{
    EXPECT_EQ(expected, dir_check(path.data(), trim));
    return path.c_str();
}

} // namespace

// ---- signals --------------------------------------------------------------------------------------------------

TEST(util, all_flags_are_down_at_start)
{
    for (const volatile sig_atomic_t* flag :
         {&g_quit, &g_goodbye, &g_sigctx, &g_snapshot, &g_snapalarm, &g_hup, &g_usr1, &g_tdbg})
        EXPECT_EQ(0, *flag);
}

TEST(util, the_three_quit_signals_get_a_handler_that_interrupts_reads)
{
    EXPECT_EQ(0, handle_quit_signals(note_signal));
    for (const int signum : {SIGTERM, SIGQUIT, SIGINT}) {
        EXPECT_TRUE(is_plain_handler(signum, note_signal)) << signum;
        ASSERT_EQ(0, raise(signum));
        EXPECT_EQ(signum, g_seen);
    }
    EXPECT_EQ(SIG_DFL, action_of(SIGHUP).sa_handler);
    EXPECT_EQ(SIG_DFL, action_of(SIGPIPE).sa_handler);
}

TEST(util, a_quit_signal_that_cannot_be_had_stops_the_installing)
{
    piped_log log;
    const int rc = in_child([] {
        for (const int signum : {SIGTERM, SIGQUIT, SIGINT})
            signal(signum, SIG_DFL);
        if (!prk::fail_syscall(SYS_rt_sigaction, EPERM, prk::arg_is{0, SIGQUIT})) return 99;
        return handle_quit_signals(note_signal) == -1 && action_of(SIGTERM).sa_handler == note_signal &&
                       action_of(SIGINT).sa_handler == SIG_DFL
                   ? 0
                   : 1;
    });
    if (99 == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  handle_quit_signals: sigaction (quit) ERROR(1): Operation not permitted\n", log.text());
}

TEST(util, one_signal_gets_a_handler)
{
    EXPECT_EQ(0, handle_sig(SIGUSR2, note_signal));
    EXPECT_TRUE(is_plain_handler(SIGUSR2, note_signal));
    ASSERT_EQ(0, raise(SIGUSR2));
    EXPECT_EQ(SIGUSR2, g_seen);
}

TEST(util, a_signal_that_cannot_be_handled_is_told)
{
    piped_log log;
    EXPECT_EQ(-1, handle_sig(SIGKILL, note_signal));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("(ERR)  handle_sig: sigaction (signo=9) ERROR(22): Invalid argument\n", log.text());
}

TEST(util, sigpipe_can_be_ignored)
{
    EXPECT_EQ(0, ignore_sigpipe());
    EXPECT_EQ(SIG_IGN, action_of(SIGPIPE).sa_handler);
    EXPECT_EQ(0, raise(SIGPIPE));
}

TEST(util, a_failure_to_ignore_sigpipe_is_told)
{
    piped_log log;
    const int rc = in_child([] {
        if (!prk::fail_syscall(SYS_rt_sigaction, EPERM, prk::arg_is{0, SIGPIPE})) return 99;
        return ignore_sigpipe() == -1 ? 0 : 1;
    });
    if (99 == rc) GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(0, rc);
    EXPECT_EQ("(ERR)  ignore_sigpipe: sigaction (SIGPIPE) ERROR(1): Operation not permitted\n", log.text());
}

TEST(util, the_ready_made_handlers_raise_their_flag_and_log)
{
    piped_log log;
    struct row {
        void (*handler)(int);
        int signum;
        volatile sig_atomic_t* flag;
        const char* line;
    };
    const row rows[] = {
        {on_sighup, SIGHUP, &g_hup, "(NRM)  SIGHUP(1)\n"},
        {on_sigusr1, SIGUSR1, &g_usr1, "(NRM)  SIGUSR1(10)\n"},
        {on_tdbg, SIGTRAP, &g_tdbg, "(NRM)  T-DBG SIG(5)\n"},
        {on_sigquit, SIGQUIT, &g_quit, "(NRM)  QUIT-SIG(3)\n"},
    };
    for (const row& r : rows) {
        ASSERT_EQ(0, handle_sig(r.signum, r.handler));
        errno = E2BIG;
        ASSERT_EQ(0, raise(r.signum));
        EXPECT_EQ(E2BIG, errno);
        EXPECT_EQ(1, *r.flag);
        EXPECT_EQ(0, g_sigctx);
        EXPECT_EQ(r.line, log.text());
    }
}

TEST(util, a_handler_within_a_handler_leaves_the_signal_context_up)
{
    piped_log log;
    g_sigctx = 1;
    on_sighup(SIGHUP);
    EXPECT_EQ(1, g_sigctx);
    g_sigctx = 0;
}

// ---- files and directories ------------------------------------------------------------------------------------

TEST(util, dir_check_cuts_one_slash_at_the_end)
{
    const temp_dir dir;
    EXPECT_EQ("/tmp", checked_dir("/tmp/", true, 0));
    EXPECT_EQ(dir.path(), checked_dir(dir.path() + "/", true, 0));
    EXPECT_EQ(dir.path() + "/", checked_dir(dir.path() + "//", true, 0));
    EXPECT_EQ(dir.path(), checked_dir(dir.path(), true, 0));
}

TEST(util, dir_check_leaves_the_slash_if_not_told_to_cut)
{
    EXPECT_EQ("/tmp/", checked_dir("/tmp/", false, 0));
}

TEST(util, dir_check_leaves_the_root_alone)
{
    EXPECT_EQ("/", checked_dir("/", true, 0));
    EXPECT_EQ("/", checked_dir("/", false, 0));
}

TEST(util, dir_check_tells_a_directory_that_cannot_be_opened)
{
    piped_log log;
    const temp_dir dir;
    const std::string missing = dir.path("none"), file = dir.file("file", "");
    EXPECT_EQ(missing, checked_dir(missing + "/", true, ENOENT));
    EXPECT_EQ("(ERR)  dir_check: opendir('" + missing + "', ...) ERROR(2): No such file or directory\n", log.text());
    checked_dir(file, true, ENOTDIR);
    EXPECT_EQ("(ERR)  dir_check: opendir('" + file + "', ...) ERROR(20): Not a directory\n", log.text());
    checked_dir("", true, ENOENT);
    EXPECT_EQ("(ERR)  dir_check: opendir('', ...) ERROR(2): No such file or directory\n", log.text());
}

TEST(util, a_file_is_updated_when_its_time_has_grown)
{
    const temp_dir dir;
    const std::string path = dir.file("conf", "x");
    time_t seen = 0;
    set_mtime(path, 1000);
    EXPECT_TRUE(chk_file_updated(path.c_str(), &seen));
    EXPECT_EQ(1000, seen);
    EXPECT_FALSE(chk_file_updated(path.c_str(), &seen));
    set_mtime(path, 1001);
    EXPECT_TRUE(chk_file_updated(path.c_str(), &seen));
    EXPECT_FALSE(chk_file_updated(path.c_str(), &seen));
}

TEST(util, a_file_whose_time_went_back_is_not_updated_and_its_time_is_taken)
{
    const temp_dir dir;
    const std::string path = dir.file("conf", "x");
    time_t seen = 2000;
    set_mtime(path, 1500);
    EXPECT_FALSE(chk_file_updated(path.c_str(), &seen));
    EXPECT_EQ(1500, seen);
}

TEST(util, a_file_that_vanished_and_came_back_is_updated)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("conf");
    time_t seen = 2000;
    EXPECT_FALSE(chk_file_updated(path.c_str(), &seen));
    EXPECT_EQ(-1, seen);
    EXPECT_EQ("(ERR)  get_file_mtime: FAILED to retrieve mtime for [" + path + "]: No such file or directory\n",
              log.text());
    EXPECT_FALSE(chk_file_updated(path.c_str(), &seen));
    EXPECT_NE("", log.text());

    dir.file("conf", "x");
    set_mtime(path, 1500);
    EXPECT_TRUE(chk_file_updated(path.c_str(), &seen));
    EXPECT_EQ(1500, seen);
}

TEST(util, a_missing_time_is_told_unless_quiet)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.path("none");
    EXPECT_EQ(-1, get_file_mtime(path.c_str(), true));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(-1, get_file_mtime(path.c_str(), false));
    EXPECT_EQ("(ERR)  get_file_mtime: FAILED to retrieve mtime for [" + path + "]: No such file or directory\n",
              log.text());
    const std::string there = dir.file("there", "");
    set_mtime(there, 1234567);
    EXPECT_EQ(1234567, get_file_mtime(there.c_str(), false));
    EXPECT_EQ("", log.text());
}

TEST(util, the_first_file_that_exists_is_picked)
{
    const temp_dir dir;
    const std::string none = dir.path("none"), b = dir.file("b", ""), c = dir.file("c", "");
    const char* paths[] = {none.c_str(), b.c_str(), c.c_str()};
    EXPECT_EQ(paths[1], pick_first_file(paths, 3));
    EXPECT_EQ(nullptr, pick_first_file(paths, 1));
    EXPECT_EQ(nullptr, pick_first_file(paths, 0));
}

TEST(util, a_file_that_cannot_be_read_still_exists)
{
    const temp_dir dir;
    const std::string a = dir.file("a", "");
    ASSERT_EQ(0, chmod(a.c_str(), 0));
    const char* paths[] = {a.c_str()};
    EXPECT_EQ(paths[0], pick_first_file(paths, 1));
}

TEST(util, size_and_mode_of_a_file_are_found)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("a", "12345");
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    mode_t mode = 0;
    EXPECT_EQ(5, get_file_size(path.c_str()));
    EXPECT_EQ(0, get_stat_mode(path.c_str(), &mode));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0640), mode);
    EXPECT_EQ("", log.text());
}

TEST(util, size_and_mode_of_a_missing_file_are_told)
{
    piped_log log;
    mode_t mode = 7;
    EXPECT_EQ(-1, get_file_size("/none/such"));
    EXPECT_EQ("(ERR)  get_file_size: stat(/none/such) ERROR(2): No such file or directory\n", log.text());
    EXPECT_EQ(-1, get_stat_mode("/none/such", &mode));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(7u, mode);
    EXPECT_EQ("(ERR)  get_stat_mode: stat(/none/such) ERROR(2): No such file or directory\n", log.text());
}

TEST(util, a_mode_reads_as_ls_shows_it)
{
    EXPECT_EQ("-rw-r--r--", mode_text(S_IFREG | 0644));
    EXPECT_EQ("drwxr-x--x", mode_text(S_IFDIR | 0751));
    EXPECT_EQ("drwxrwxrwt", mode_text(S_IFDIR | 01777));
    EXPECT_EQ("-rwsr-sr-x", mode_text(S_IFREG | 06755));
    EXPECT_EQ("-rwSr-Sr-T", mode_text(S_IFREG | 07644));
    EXPECT_EQ("lrwxrwxrwx", mode_text(S_IFLNK | 0777));
    EXPECT_EQ("crw-rw-rw-", mode_text(S_IFCHR | 0666));
    EXPECT_EQ("brw-------", mode_text(S_IFBLK | 0600));
    EXPECT_EQ("p---------", mode_text(S_IFIFO));
    EXPECT_EQ("s---------", mode_text(S_IFSOCK));
    EXPECT_EQ("?---------", mode_text(0));
    char small[FMODE_STR_SIZE - 1] = "x";
    EXPECT_EQ(nullptr, fmode_str(0, small, sizeof(small)));
    EXPECT_STREQ("x", small);
}

TEST(util, the_first_file_that_opens_is_opened)
{
    piped_log log;
    const temp_dir dir;
    const std::string none = dir.path("none"), b = dir.file("b", "B"), c = dir.file("c", "C");
    const char* paths[] = {none.c_str(), b.c_str(), c.c_str()};
    size_t index = 99;
    FILE* fp = fopen_any(paths, 3, "r", &index);
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ('B', fgetc(fp));
    fclose(fp);
    EXPECT_EQ(1u, index);
    EXPECT_EQ("", log.text());

    index = 99;
    EXPECT_EQ(nullptr, fopen_any(paths, 1, "r", &index));
    EXPECT_EQ(99u, index);
    EXPECT_EQ("(ERR)  fopen_any: none of 1 files can be opened, the last ERROR(2): No such file or directory\n",
              log.text());
    EXPECT_EQ(nullptr, fopen_any(paths, 0, "r", nullptr));
}

TEST(util, a_whole_file_is_read_or_none_of_it)
{
    piped_log log;
    const temp_dir dir;
    const std::string path = dir.file("a", "12345"), empty = dir.file("empty", "");
    std::array<char, 8> buf;
    for (const size_t room : {size_t{8}, size_t{6}, size_t{5}}) {
        buf.fill('x');
        EXPECT_EQ(5, read_file_buf(path.c_str(), buf.data(), room));
        EXPECT_EQ("12345xxx", std::string(buf.data(), buf.size()));
    }
    EXPECT_EQ(0, read_file_buf(empty.c_str(), buf.data(), buf.size()));
    EXPECT_EQ(0, read_file_buf(empty.c_str(), buf.data(), 0));
    EXPECT_EQ(std::string::npos, log.text().find("(ERR)"));

    EXPECT_EQ(-1, read_file_buf(path.c_str(), buf.data(), 4));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ('x', buf[5]);
    EXPECT_NE(std::string::npos, log.text().find("(ERR)  read_file_buf: [" + path + "] is larger than 4 bytes\n"));
}

TEST(util, a_file_that_cannot_be_read_is_told)
{
    piped_log log;
    const temp_dir dir;
    char buf[8];
    EXPECT_EQ(-1, read_file_buf(dir.path("none").c_str(), buf, sizeof(buf)));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_NE(std::string::npos, log.text().find("(ERR)  read_file_buf: open('" + dir.path("none")));
    EXPECT_EQ(-1, read_file_buf(dir.path().c_str(), buf, sizeof(buf)));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_NE(std::string::npos,
              log.text().find("(ERR)  read_file_buf: read(" + dir.path() + ") ERROR(21): Is a directory\n"));
}

TEST(util, the_directories_to_a_file_are_made)
{
    const temp_dir dir;
    const auto is_dir = [](const std::string& p) {
        struct stat st = {};
        return 0 == stat(p.c_str(), &st) && S_ISDIR(st.st_mode);
    };
    EXPECT_EQ(0, mk_fpath_dirs(dir.path("a/b//c/file").c_str(), 0755));
    EXPECT_TRUE(is_dir(dir.path("a/b/c")));
    EXPECT_FALSE(is_dir(dir.path("a/b/c/file")));
    EXPECT_EQ(0, mk_fpath_dirs(dir.path("a/b//c/file").c_str(), 0755));
    EXPECT_EQ(0, mk_fpath_dirs(dir.path("d/e/").c_str(), 0755));
    EXPECT_TRUE(is_dir(dir.path("d/e")));
    EXPECT_EQ(0, mk_fpath_dirs("file", 0755));
    EXPECT_EQ(0, mk_fpath_dirs("/file", 0755));
    EXPECT_EQ(0, mk_fpath_dirs("", 0755));
}

TEST(util, a_file_in_the_way_of_a_directory_is_told)
{
    piped_log log;
    const temp_dir dir;
    const std::string file = dir.file("a", "");
    EXPECT_EQ(-1, mk_fpath_dirs((file + "/b/c").c_str(), 0755));
    EXPECT_EQ("(ERR)  mk_fpath_dirs: mkdir(" + file + ") ERROR(20): Not a directory\n", log.text());
    EXPECT_EQ(-1, mk_fpath_dirs(std::string(5000, 'a').c_str(), 0755));
    EXPECT_EQ("(ERR)  mk_fpath_dirs: path is too long (5000 bytes), max=4095\n", log.text());
}

TEST(util, output_is_redirected_to_the_end_of_a_file)
{
    const temp_dir dir;
    const std::string path = dir.file("out", "before\n");
    EXPECT_EQ(0, in_child([&] {
                  if (redirect_output(path.c_str()) != 0) return 1;
                  printf("out\n");
                  fflush(stdout);
                  fprintf(stderr, "err\n");
                  return 0;
              }));
    EXPECT_EQ("before\nout\nerr\n", prk::content_of(path));
}

TEST(util, output_stays_where_it_was_if_the_file_cannot_be_opened)
{
    piped_log log;
    const temp_dir dir;
    EXPECT_EQ(-1, redirect_output(dir.path("none/out").c_str()));
    EXPECT_NE(std::string::npos, log.text().find("(ERR)  redirect_output: open('"));
}

TEST(util, both_ends_of_a_pipe_are_closed)
{
    piped_log log;
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const int was[2] = {fds[0], fds[1]};
    EXPECT_EQ(0, close_pipe(fds));
    EXPECT_EQ(-1, fds[0]);
    EXPECT_EQ(-1, fds[1]);
    EXPECT_EQ(-1, fcntl(was[0], F_GETFD));
    EXPECT_EQ(-1, fcntl(was[1], F_GETFD));
    EXPECT_EQ(0, close_pipe(fds));

    ASSERT_EQ(0, pipe(fds));
    close(fds[0]);
    EXPECT_EQ(-1, close_pipe(fds));
    EXPECT_EQ(-1, fds[0]);
    EXPECT_EQ(-1, fds[1]);
}

// ---- paths and texts ------------------------------------------------------------------------------------------

TEST(util, the_base_of_a_path_stands_behind_its_last_slash)
{
    EXPECT_STREQ("c", get_base("/a/b/c"));
    EXPECT_STREQ("c", get_base("c"));
    EXPECT_STREQ("", get_base("/a/"));
    EXPECT_STREQ("", get_base(""));
}

TEST(util, a_path_moves_to_another_directory)
{
    piped_log log;
    char buf[8];
    EXPECT_EQ(0, replace_dir("/a/b/c", "/tmp", buf, sizeof(buf)));
    EXPECT_STREQ("/tmp/c", buf);
    EXPECT_EQ(0, replace_dir("cd", "/tmp/", buf, sizeof(buf)));
    EXPECT_STREQ("/tmp/cd", buf); // seven characters, and the zero
    EXPECT_EQ(-1, replace_dir("cde", "/tmp", buf, sizeof(buf)));
    EXPECT_STREQ("", buf);
    EXPECT_EQ("(ERR)  replace_dir: path needs 9 bytes, only 8 provided\n", log.text());
}

TEST(util, the_last_character_of_a_text_is_found)
{
    EXPECT_EQ('c', lastchar("abc"));
    EXPECT_EQ('\0', lastchar(""));
}

TEST(util, a_word_is_found_in_a_table_in_any_case)
{
    const char* table[] = {"one", "two", "three"};
    EXPECT_EQ(1, tag_index("TWO", table, 3));
    EXPECT_EQ(-1, tag_index("four", table, 3));
    EXPECT_EQ(-1, tag_index("three", table, 2));
    EXPECT_EQ(-1, tag_index("tw", table, 3));
}

TEST(util, a_text_is_copied_up_to_a_stop)
{
    char buf[5];
    EXPECT_EQ(3u, cpy_till(buf, sizeof(buf), "abc:d/e", "/:"));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ(4u, cpy_till(buf, sizeof(buf), "abcd", ":"));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(4u, cpy_till(buf, sizeof(buf), "abcdef:", ":"));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(4u, cpy_till(buf, sizeof(buf), "abcde", ":")); // as long as the room, which is for the zero, too
    EXPECT_STREQ("abcd", buf);
    char guarded[3] = {'x', 'x', 'x'};
    EXPECT_EQ(1u, cpy_till(guarded, 2, "ab", ":"));
    EXPECT_EQ('x', guarded[2]);
    EXPECT_EQ(0u, cpy_till(buf, sizeof(buf), ":", ":"));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(0u, cpy_till(buf, 1, "abc", ":"));
    EXPECT_STREQ("", buf);
}

TEST(util, options_can_be_read_a_second_time)
{
    char name[] = "prog", a[] = "-a", b[] = "-b";
    char* argv[] = {name, a, b, nullptr};
    const option longs[] = {{nullptr, 0, nullptr, 0}};
    const auto read_all = [&] {
        std::string s;
        for (int c; (c = getopt_long(3, argv, "ab", longs, nullptr)) != -1;)
            s += static_cast<char>(c);
        return s;
    };
    EXPECT_EQ("ab", read_all());
    EXPECT_EQ("", read_all());
    reset_getopt_state();
    EXPECT_EQ(0, optind);
    EXPECT_EQ("ab", read_all());
}
