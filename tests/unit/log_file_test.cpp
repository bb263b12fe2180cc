// Log files: opening, setting an earlier log aside, rotation, commands, syslog settings.
#include "log.h"

#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/std_capture.h"
#include "support/temp_dir.h"
#include "timeop.h"
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

TV_LOG_MODULE(0)

// ---- what the code under test asks of the system, in the test's hands -----------------------------------------

namespace
{

struct openlog_call {
    std::string app;
    int option, facility;
};
std::vector<openlog_call> g_openlogs;
int g_closelogs = 0;
bool g_fail_fstat = false;

} // namespace

extern "C" void openlog(const char* app, int option, int facility)
{
    g_openlogs.push_back({app, option, facility});
}

extern "C" void closelog()
{
    ++g_closelogs;
}

extern "C" int fstat(int fd, struct stat* st) noexcept
{
    if (g_fail_fstat) {
        errno = EIO;
        return -1;
    }
    return fstatat(fd, "", st, AT_EMPTY_PATH);
}

namespace
{

using lines_t = std::vector<std::string>;

constexpr time_t T0 = 1533628800;

class LogFileTest : public testing::Test
{
protected:
    LogFileTest() : path(dir / "app.log") {}
    void SetUp() override
    {
        glog_init("log_file_test");
        g_openlogs.clear();
        g_closelogs = 0;
        setenv("TZ", "UTC", 1);
        tzset();
        for (log_ctx* log : {&g_log, &g_access_log}) {
            *log = {};
            log_timefmt(log, LTF_NO_TIME);
        }
        log_default(&g_log, stderr);
        log_default(&g_access_log, stdout);
        log_set_modules(&g_log, ll::debug);
        fake_clock::set(T0);
    }
    void TearDown() override
    {
        g_fail_fstat = false;
        for (log_ctx* log : {&g_log, &g_access_log}) {
            log->syslg = {};
            log_close(log);
            *log = {};
        }
        fake_clock::release();
        g_sigctx = 0;
    }
    // Opens g_log on the file, kept as it is.
    void open_log() { ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 1), 0); }
    std::string rotated(time_t t) const { return path + "." + std::to_string(t); }
    std::string rotation_line(time_t t, int idx) const
    {
        return "(NRM)  [log_file_test]: previous log rotated to [" + rotated(t) + "] tm=" + std::to_string(t) +
               ", idx=" + std::to_string(idx) + "\n";
    }

    TempDir dir;
    std::string path;
};

void set_mtime(const std::string& path, time_t t)
{
    const struct timespec times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// No descriptor can be opened for the life of the object.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_old);
        const struct rlimit none = {0, m_old.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_old); }

private:
    struct rlimit m_old = {};
};

std::string ids()
{
    return "uid/gig=" + std::to_string(geteuid()) + "/" + std::to_string(getegid());
}

// ---- opening --------------------------------------------------------------------------------------------------

TEST_F(LogFileTest, before_glog_init_no_channel_may_be_opened)
{
    g_logmod.is_ready = false;
    EXPECT_DEATH((void)do_open(&g_log, path.c_str()), "g_logmod.is_ready");
    EXPECT_DEATH((void)log_open_ex(&g_log, path.c_str(), 0), "g_logmod.is_ready");
    EXPECT_DEATH((void)log_popen(&g_log, "cat"), "g_logmod.is_ready");
    EXPECT_EQ(dir.names(), lines_t{});
}

TEST_F(LogFileTest, a_line_is_in_the_file_at_once)
{
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    EXPECT_STREQ(g_log.name, path.c_str());
    EXPECT_FALSE(g_log.is_pipe);
    EXPECT_EQ(g_log.total_out, 0u);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(read_file(path), "(INF)  text\n");
    EXPECT_EQ(g_log.total_out, 12u);
}

TEST_F(LogFileTest, an_earlier_log_is_set_aside_under_its_own_time)
{
    write_file(path, "old\n");
    set_mtime(path, 1234567890);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    tv_log(ll::info, "new\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1234567890"}));
    EXPECT_EQ(read_file(rotated(1234567890)), "old\n");
    EXPECT_EQ(read_file(path), "(INF)  new\n");
}

TEST_F(LogFileTest, an_empty_earlier_log_stays_and_is_appended_to)
{
    write_file(path, "");
    struct stat before = {}, after = {};
    stat(path.c_str(), &before);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    tv_log(ll::info, "new\n");
    stat(path.c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
}

TEST_F(LogFileTest, with_bit_0_an_earlier_log_is_appended_to_and_counts)
{
    write_file(path, "old\n");
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 1), 0);
    EXPECT_EQ(g_log.total_out, 4u);
    tv_log(ll::info, "new\n");
    EXPECT_EQ(read_file(path), "old\n(INF)  new\n");
    EXPECT_EQ(g_log.total_out, 15u);
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
}

TEST_F(LogFileTest, only_bit_0_keeps_an_earlier_log)
{
    write_file(path, "old\n");
    set_mtime(path, 5);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 2), 0);
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.5"}));
}

TEST_F(LogFileTest, an_appended_log_reaches_its_limit_with_what_was_there)
{
    write_file(path, std::string(95, 'x'));
    open_log();
    log_set_rota(&g_log, 100, 4, 0);
    tv_log(ll::info, "y\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628800"}));
}

TEST_F(LogFileTest, a_path_of_128_characters_is_opened_and_its_name_cut)
{
    const std::string at_name = dir.path_of_length(127);
    ASSERT_EQ(log_open_ex(&g_log, at_name.c_str(), 0), 0);
    EXPECT_STREQ(g_log.name, at_name.c_str());
    log_close(&g_log);

    const std::string at_limit = dir.path_of_length(128);
    ASSERT_EQ(log_open_ex(&g_log, at_limit.c_str(), 0), 0);
    EXPECT_EQ(std::string(g_log.name), at_limit.substr(0, 127));
    EXPECT_EQ(access(at_limit.c_str(), F_OK), 0);
}

TEST_F(LogFileTest, a_path_of_129_characters_is_refused)
{
    const std::string too_long = dir.path_of_length(129);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&g_log, too_long.c_str(), 1), -1); }),
              "Log pathname/command is too long, 128 bytes allowed\n");
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_popen(&g_log, too_long.c_str()), -1); }),
              "Log pathname/command is too long, 128 bytes allowed\n");
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_STREQ(g_log.name, "");
    EXPECT_EQ(dir.names(), lines_t{});
}

TEST_F(LogFileTest, a_file_that_can_not_be_opened_is_reported_and_changes_nothing)
{
    const std::string bad = dir / "missing/app.log";
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&g_log, bad.c_str(), 0), -1); }),
              "do_open: " + ids() + " fopen(" + bad + ") ERROR(2): No such file or directory\n");
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_STREQ(g_log.name, "");
}

TEST_F(LogFileTest, a_command_that_can_not_be_started_is_reported)
{
    int rc = 0;
    const std::string said = stderr_of([&] {
        const NoDescriptors none;
        rc = log_popen(&g_log, "cat");
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(said, "do_open: " + ids() + " popen(cat) ERROR(24): Too many open files\n");
    EXPECT_EQ(g_log.fp, stderr);
}

TEST_F(LogFileTest, a_size_that_can_not_be_told_is_not_fatal)
{
    write_file(path, "old\n");
    g_fail_fstat = true;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&g_log, path.c_str(), 1), 0); }),
              "do_open: fstat(" + path + ") ERROR(5): Input/output error\n");
    EXPECT_EQ(g_log.total_out, 0u);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(read_file(path), "old\n(INF)  text\n");
}

TEST_F(LogFileTest, without_a_path_the_channel_is_standard_error)
{
    g_log.fp = nullptr;
    g_log.total_out = 7;
    EXPECT_EQ(do_open(&g_log, nullptr), 0);
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_EQ(g_log.total_out, 0u);
    EXPECT_STREQ(g_log.name, "");
    EXPECT_EQ(log_open_ex(&g_access_log, nullptr, 0), 0);
    EXPECT_EQ(g_access_log.fp, stderr);
}

// ---- commands -------------------------------------------------------------------------------------------------

TEST_F(LogFileTest, a_command_takes_the_lines)
{
    const std::string cmd = "cat > " + path;
    ASSERT_EQ(log_popen(&g_log, cmd.c_str()), 0);
    EXPECT_TRUE(g_log.is_pipe);
    EXPECT_STREQ(g_log.name, cmd.c_str());
    EXPECT_EQ(g_log.total_out, 0u);
    tv_log(ll::info, "text\n");
    EXPECT_NE(__flbf(g_log.fp), 0); // line-buffered
    EXPECT_EQ(__fpending(g_log.fp), 0u);
    log_close(&g_log);
    EXPECT_EQ(read_file(path), "(INF)  text\n");
    g_log = {};
}

TEST_F(LogFileTest, a_file_after_a_command_is_a_file_again)
{
    ASSERT_EQ(log_popen(&g_log, "cat > /dev/null"), 0);
    log_close(&g_log);
    open_log();
    EXPECT_FALSE(g_log.is_pipe);
    tv_log(ll::info, "text\n");
    EXPECT_LE(__fbufsize(g_log.fp), 1u); // unbuffered
}

// By design: the count isn't reset, so that each further line says again that a command can't be rotated.
TEST_F(LogFileTest, each_line_past_the_limit_of_a_command_says_that_it_is_not_rotated)
{
    ASSERT_EQ(log_popen(&g_log, ("cat > " + path).c_str()), 0);
    log_set_rota(&g_log, 20, 4, 0);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "%s\n", "first"); }), "");
    const std::string refusal = "log_rotate: not supported for pipe-based streams.\n";
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "%s\n", "second"); }), refusal);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "%s\n", "third"); }), refusal);
    EXPECT_EQ(log_rotate(&g_log), -1);
    log_close(&g_log);
    EXPECT_EQ(read_file(path), "(INF)  first\n(INF)  second\n(INF)  third\n");
    g_log = {};
}

// ---- an earlier log -------------------------------------------------------------------------------------------

TEST_F(LogFileTest, a_missing_log_needs_no_moving)
{
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(move_if_present(path.c_str()), 0); }), "");
}

TEST_F(LogFileTest, a_log_that_can_not_be_looked_at_is_reported)
{
    write_file(path, "a file, no directory");
    const std::string bad = path + "/app.log";
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(move_if_present(bad.c_str()), -1); }),
              "stat(" + bad + ") ERROR(20): Not a directory\n");
}

TEST_F(LogFileTest, only_regular_files_with_content_are_moved)
{
    mkdir(path.c_str(), 0755);
    EXPECT_EQ(move_if_present(path.c_str()), 0);
    const std::string fifo = dir / "fifo", empty = dir / "empty";
    mkfifo(fifo.c_str(), 0600);
    EXPECT_EQ(move_if_present(fifo.c_str()), 0);
    write_file(empty, "");
    EXPECT_EQ(move_if_present(empty.c_str()), 0);
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "empty", "fifo"}));
}

TEST_F(LogFileTest, the_moved_logs_name_has_at_most_127_characters)
{
    const std::string fits = dir.path_of_length(125), too_long = dir.path_of_length(126);
    for (const std::string& p : {fits, too_long}) {
        write_file(p, "old\n");
        set_mtime(p, 5);
    }
    EXPECT_EQ(move_if_present(fits.c_str()), 0);
    EXPECT_EQ(read_file(fits + ".5"), "old\n");
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(move_if_present(too_long.c_str()), 7); }), "");
    EXPECT_EQ(read_file(too_long), "old\n");
}

TEST_F(LogFileTest, a_log_that_can_not_be_moved_is_reported_and_appended_to)
{
    write_file(path, "old\n");
    set_mtime(path, 5);
    mkdir((path + ".5").c_str(), 0755);
    const std::string complaint = "Cannot rename(" + path + ", " + path + ".5): ERROR(21): Is a directory\n";
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(move_if_present(path.c_str()), -1); }), complaint);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0); }), complaint);
    EXPECT_EQ(g_log.total_out, 4u);
}

// ---- limits ---------------------------------------------------------------------------------------------------

TEST_F(LogFileTest, rotation_limits_are_taken_or_replaced)
{
    const struct {
        size_t maxfiles, expected;
    } rows[] = {{0, 16}, {1, 1}, {16, 16}, {126, 126}, {127, 127}, {128, 16}, {129, 16}, {SIZE_MAX, 16}};
    for (const auto& r : rows) {
        log_set_rota(&g_log, 12345, r.maxfiles, 0);
        EXPECT_EQ(log_rota_maxfiles(&g_log), r.expected);
        EXPECT_EQ(log_rota_maxsize(&g_log), 12345u);
        EXPECT_EQ(log_rota_eod(&g_log), 0);
    }
    log_set_rota(&g_log, 0, 4, -1);
    EXPECT_EQ(log_rota_eod(&g_log), 0);
    log_set_rota(&g_log, 0, 4, 1);
    EXPECT_EQ(log_rota_eod(&g_log), 86399);
    log_set_rota(&g_log, 0, 4, T0);
    EXPECT_EQ(log_rota_eod(&g_log), get_endofday_utime(T0));
    log_set_eod(&g_log, 77);
    EXPECT_EQ(log_rota_eod(&g_log), 77);
}

TEST_F(LogFileTest, without_limits_nothing_is_rotated)
{
    open_log();
    log_set_rota(&g_log, 0, 4, 0);
    g_log.total_out = SIZE_MAX - 100;
    fake_clock::set(T0 + 30 * 86400);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
}

// ---- rotation -------------------------------------------------------------------------------------------------

TEST_F(LogFileTest, a_log_is_rotated_when_it_has_reached_its_size)
{
    open_log();
    log_set_rota(&g_log, 24, 4, 0);
    tv_log(ll::info, "one.\n");
    tv_log(ll::info, "two\n"); // 23 bytes
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
    g_log.total_out = 12;
    tv_log(ll::info, "tri.\n"); // 24
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628800"}));
    EXPECT_EQ(read_file(rotated(T0)), "(INF)  one.\n(INF)  two\n(INF)  tri.\n");
    EXPECT_EQ(read_file(path), rotation_line(T0, 0));
    EXPECT_EQ(g_log.total_out, rotation_line(T0, 0).size());
}

TEST_F(LogFileTest, the_fifth_rotation_of_four_removes_the_first_file)
{
    open_log();
    log_set_rota(&g_log, 0, 4, 0);
    for (int i = 0; i < 4; ++i) {
        fake_clock::set(T0 + i);
        EXPECT_EQ(log_rotate(&g_log), 0);
        EXPECT_EQ(read_file(path), rotation_line(T0 + i, i));
    }
    EXPECT_EQ(g_log.rota.next_idx, 0);
    EXPECT_EQ(dir.names().size(), 5u);
    fake_clock::set(T0 + 4);
    EXPECT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628801", "app.log.1533628802", "app.log.1533628803",
                                    "app.log.1533628804"}));
    EXPECT_EQ(read_file(path), rotation_line(T0 + 4, 0) + "(DBG)  handle_rotation: replaced " + rotated(T0) + " with " +
                                   rotated(T0 + 4) + "\n");
    EXPECT_EQ(g_log.rota.next_idx, 1);
    EXPECT_EQ(g_log.rota.tm[0], T0 + 4);
}

TEST_F(LogFileTest, one_kept_file_is_replaced_each_time)
{
    open_log();
    log_set_rota(&g_log, 0, 1, 0);
    for (int i = 0; i < 3; ++i) {
        fake_clock::set(T0 + i);
        EXPECT_EQ(log_rotate(&g_log), 0);
        EXPECT_EQ(g_log.rota.next_idx, 0);
    }
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628802"}));
}

TEST_F(LogFileTest, a_kept_file_that_is_gone_is_reported_in_the_log)
{
    open_log();
    log_set_rota(&g_log, 0, 1, 0);
    EXPECT_EQ(log_rotate(&g_log), 0);
    unlink(rotated(T0).c_str());
    fake_clock::set(T0 + 1);
    EXPECT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(read_file(path), rotation_line(T0 + 1, 0) + "(ERR)  handle_rotation: unlink(" + rotated(T0) +
                                   ") ERROR(2) : No such file or directory\n");
    EXPECT_EQ(g_log.rota.tm[0], T0 + 1);
}

TEST_F(LogFileTest, with_no_slots_rotated_files_are_never_removed)
{
    open_log();
    for (int i = 0; i < 3; ++i) {
        fake_clock::set(T0 + i);
        EXPECT_EQ(log_rotate(&g_log), 0);
    }
    EXPECT_EQ(dir.names().size(), 4u);
    EXPECT_EQ(read_file(path), ""); // no bookkeeping, no line
    EXPECT_EQ(g_log.rota.next_idx, 0);
}

TEST_F(LogFileTest, fewer_slots_than_are_filled_begin_the_ring_anew)
{
    open_log();
    log_set_rota(&g_log, 0, 127, 0);
    g_log.rota.next_idx = 126;
    log_set_rota(&g_log, 0, 4, 0);
    EXPECT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(g_log.rota.tm[126], T0);
    EXPECT_EQ(g_log.rota.next_idx, 0);
}

TEST_F(LogFileTest, all_127_slots_are_used)
{
    open_log();
    log_set_rota(&g_log, 0, 127, 0);
    for (int i = 0; i < 129; ++i) {
        fake_clock::set(T0 + i);
        ASSERT_EQ(log_rotate(&g_log), 0);
    }
    EXPECT_EQ(dir.names().size(), 128u);
    EXPECT_EQ(g_log.rota.next_idx, 2);
    EXPECT_EQ(g_log.rota.tm[127], 0);
}

// By design: the suffix is the second, so the later of two files in one second takes the name.
TEST_F(LogFileTest, two_rotations_in_one_second_leave_the_second_file)
{
    open_log();
    tv_log(ll::info, "first\n");
    EXPECT_EQ(log_rotate(&g_log), 0);
    tv_log(ll::info, "second\n");
    EXPECT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628800"}));
    EXPECT_EQ(read_file(rotated(T0)), "(INF)  second\n");
}

TEST_F(LogFileTest, a_limit_below_the_rotations_own_line_rotates_once_a_line)
{
    open_log();
    log_set_rota(&g_log, 1, 4, 0);
    tv_log(ll::info, "first\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628800"}));
    EXPECT_EQ(g_log.rota.next_idx, 1);
    fake_clock::set(T0 + 1);
    tv_log(ll::info, "second\n");
    EXPECT_EQ(g_log.rota.next_idx, 2);
    EXPECT_EQ(read_file(rotated(T0 + 1)), rotation_line(T0, 0) + "(INF)  second\n");
    EXPECT_EQ(read_file(path), rotation_line(T0 + 1, 1));
}

TEST_F(LogFileTest, the_rotation_of_the_alert_log_is_told_in_the_application_log)
{
    LogCapture log;
    const std::string alerts = dir / "alert.log";
    ASSERT_EQ(log_open_ex(&g_access_log, alerts.c_str(), 1), 0);
    log_set_rota(&g_access_log, 5, 4, 0);
    tv_record(&g_access_log, "ALERT\n");
    EXPECT_EQ(read_file(alerts + ".1533628800"), "ALERT\n");
    EXPECT_EQ(read_file(alerts), "");
    EXPECT_EQ(log.messages(ll::normal),
              (lines_t{"[log_file_test]: previous log rotated to [" + alerts + ".1533628800] tm=1533628800, idx=0"}));
}

TEST_F(LogFileTest, the_rotation_of_one_log_may_rotate_the_other)
{
    open_log();
    log_set_rota(&g_log, 1, 4, 0);
    const std::string alerts = dir / "alert.log";
    ASSERT_EQ(log_open_ex(&g_access_log, alerts.c_str(), 1), 0);
    log_set_rota(&g_access_log, 1, 4, 0);
    tv_record(&g_access_log, "ALERT\n");
    EXPECT_EQ(dir.names(), (lines_t{"alert.log", "alert.log.1533628800", "app.log", "app.log.1533628800"}));
    EXPECT_EQ(g_log.rota.next_idx, 1);
    EXPECT_EQ(g_access_log.rota.next_idx, 1);
}

TEST_F(LogFileTest, a_log_is_rotated_behind_the_end_of_the_day)
{
    open_log();
    log_set_rota(&g_log, 0, 4, T0);
    const time_t end = log_rota_eod(&g_log);
    fake_clock::set(end);
    tv_log(ll::info, "last second\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
    fake_clock::set(end + 1);
    tv_log(ll::info, "next day\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log." + std::to_string(end + 1)}));
    EXPECT_EQ(log_rota_eod(&g_log), end + 86400);
    tv_log(ll::info, "still the next day\n");
    EXPECT_EQ(dir.names().size(), 2u);
}

TEST_F(LogFileTest, a_log_that_was_silent_for_days_is_rotated_once_and_waits_for_the_end_of_the_day_it_is)
{
    open_log();
    log_set_rota(&g_log, 0, 4, T0);
    const time_t end = log_rota_eod(&g_log);
    fake_clock::set(end + 3 * 86400 + 5);
    tv_log(ll::info, "text\n");
    tv_log(ll::info, "text\n");
    EXPECT_EQ(g_log.rota.next_idx, 1);
    EXPECT_EQ(log_rota_eod(&g_log), end + 4 * 86400);
}

TEST_F(LogFileTest, size_and_end_of_day_together_rotate_once)
{
    open_log();
    log_set_rota(&g_log, 1, 4, T0);
    const time_t end = log_rota_eod(&g_log);
    fake_clock::set(end + 1);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(g_log.rota.next_idx, 1);
    EXPECT_EQ(log_rota_eod(&g_log), end + 86400);
}

TEST_F(LogFileTest, standard_streams_are_not_even_asked_to_rotate)
{
    log_set_rota(&g_log, 1, 4, T0);
    const time_t end = log_rota_eod(&g_log);
    fake_clock::set(end + 1);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "text\n"); }), "(INF)  text\n");
    EXPECT_EQ(log_rota_eod(&g_log), end);
}

TEST_F(LogFileTest, bookkeeping_leaves_errno_clear)
{
    open_log();
    log_set_rota(&g_log, 0, 1, 0);
    errno = EBADF;
    handle_rotation(&g_log, T0, "previous");
    EXPECT_EQ(errno, 0);
    errno = EBADF;
    handle_rotation(&g_log, T0, "previous"); // with a failing unlink
    EXPECT_EQ(errno, 0);
}

// ---- rotation that is refused or fails ------------------------------------------------------------------------

TEST_F(LogFileTest, a_channel_without_a_name_has_nothing_to_rotate)
{
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), 0); }), "log_rotate: nothing to rotate.\n");
}

TEST_F(LogFileTest, standard_streams_are_not_rotated)
{
    for (FILE* fp : {stdout, stderr}) {
        strcpy(g_log.name, "app.log");
        g_log.fp = fp;
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), -1); }),
                  "log_rotate: stdout and stderr cannot be rotated.\n");
    }
}

TEST_F(LogFileTest, a_name_that_begins_with_a_bar_is_not_rotated)
{
    open_log();
    strcpy(g_log.name, "|cat");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), -1); }),
              "log_rotate: not supported for pipe-based streams.\n");
}

TEST_F(LogFileTest, a_log_that_can_not_be_renamed_goes_on_in_its_file)
{
    open_log();
    log_set_rota(&g_log, 24, 4, 0);
    mkdir(rotated(T0).c_str(), 0755);
    const std::string complaint =
        "log_rotate: failed to rename [" + path + "] to [" + rotated(T0) + "], ERROR(21): Is a directory";
    EXPECT_EQ(stderr_of([] {
                  tv_log(ll::info, "one.\n");
                  tv_log(ll::info, "two.\n");
              }),
              complaint + " - rotation is to be stopped\n");
    const std::string line = "(ERR)  log_rotate: " + complaint + " - rotation cancelled this time\n";
    EXPECT_EQ(read_file(path), "(INF)  one.\n(INF)  two.\n" + line);
    EXPECT_EQ(g_log.total_out, line.size()); // the count began again
    EXPECT_EQ(g_log.rota.next_idx, 0);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), 0); }), complaint + " - rotation is to be stopped\n");
}

TEST_F(LogFileTest, the_complaint_about_a_rename_has_at_most_254_characters)
{
    path = dir.path_of_length(127);
    open_log();
    mkdir(rotated(T0).c_str(), 0755);
    const std::string whole =
        "log_rotate: failed to rename [" + path + "] to [" + rotated(T0) + "], ERROR(21): Is a directory";
    ASSERT_GT(whole.size(), 254u);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), 0); }),
              whole.substr(0, 254) + " - rotation is to be stopped\n");
    EXPECT_EQ(read_file(path), "(ERR)  log_rotate: " + whole.substr(0, 254) + " - rotation cancelled this time\n");
}

TEST_F(LogFileTest, a_log_that_can_not_be_opened_again_goes_on_at_standard_error)
{
    open_log();
    tv_log(ll::info, "one\n");
    int rc = 0;
    EXPECT_EQ(stderr_of([&] {
                  const NoDescriptors none;
                  rc = log_rotate(&g_log);
              }),
              "do_open: " + ids() + " fopen(" + path + ") ERROR(24): Too many open files\n");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_EQ(read_file(rotated(T0)), "(INF)  one\n");
    log_set_rota(&g_log, 1, 4, 0);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "two\n"); }), "(INF)  two\n");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(log_rotate(&g_log), -1); }),
              "log_rotate: stdout and stderr cannot be rotated.\n");
}

TEST_F(LogFileTest, a_line_whose_rotation_loses_the_file_is_followed_by_lines_on_standard_error)
{
    open_log();
    log_set_rota(&g_log, 1, 4, 0);
    EXPECT_EQ(stderr_of([&] {
                  const NoDescriptors none;
                  tv_log(ll::info, "one\n");
                  tv_log(ll::info, "two\n");
              }),
              "do_open: " + ids() + " fopen(" + path + ") ERROR(24): Too many open files\n(INF)  two\n");
}

TEST_F(LogFileTest, a_log_that_can_not_be_closed_goes_on_at_standard_error)
{
    open_log();
    EXPECT_EQ(stderr_of([&] {
                  close(fileno(g_log.fp));
                  EXPECT_EQ(log_rotate(&g_log), -1);
              }),
              "log_rotate: failed to close [" + path + "], ERROR(9): Bad file descriptor\n");
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "text\n"); }), "(INF)  text\n");
}

// ---- the record -----------------------------------------------------------------------------------------------

TEST_F(LogFileTest, a_record_that_does_not_hold_together_is_told)
{
    open_log();
    log_set_rota(&g_log, 1, 127, 0);
    EXPECT_TRUE(log_validate(&g_log));
    const log_ctx good = g_log;

    g_log.rota.next_idx = 128;
    EXPECT_FALSE(log_validate(&g_log));
    g_log.rota.next_idx = -1;
    EXPECT_FALSE(log_validate(&g_log));
    g_log.rota.next_idx = 127;
    EXPECT_TRUE(log_validate(&g_log));
    g_log.rota.max_idx = 128;
    EXPECT_FALSE(log_validate(&g_log));
    g_log = good;
    g_log.group.sym8[7] = 'x';
    EXPECT_FALSE(log_validate(&g_log));
    g_log = good;
    memset(g_log.name, 'x', sizeof(g_log.name));
    EXPECT_FALSE(log_validate(&g_log));
    g_log = good;
}

TEST_F(LogFileTest, a_record_prints_in_words)
{
    open_log();
    log_set_rota(&g_log, 4096, 4, 0);
    g_log.rota.tm[2] = T0;
    const LogCapture out(&g_access_log); // a file to print to
    log_dump(&g_log, out.stream());
    const std::string text = out.text();
    for (const char* part :
         {"is_pipe: no", "time_format: 0x100", "max_total: 4096", "max_idx: 4", "tm[2]: 1533628800", "syslog: off"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
    }
    EXPECT_NE(text.find("name: [" + path + "]"), std::string::npos);
    EXPECT_EQ(text.find("tm[3]"), std::string::npos);
}

// ---- syslog ---------------------------------------------------------------------------------------------------

TEST_F(LogFileTest, syslog_is_opened_for_a_channel)
{
    config_syslog(&g_access_log, "chan1", LOG_PID, LOG_LOCAL5);
    ASSERT_EQ(g_openlogs.size(), 1u);
    EXPECT_EQ(g_openlogs[0].app, "chan1");
    EXPECT_EQ(g_openlogs[0].option, LOG_PID);
    EXPECT_EQ(g_openlogs[0].facility, LOG_LOCAL5);
    EXPECT_TRUE(g_access_log.syslg.enabled);
    EXPECT_EQ(g_access_log.syslg.option, LOG_PID);
    EXPECT_EQ(g_access_log.syslg.facility, LOG_LOCAL5);
    EXPECT_FALSE(g_log.syslg.enabled);

    disable_syslog(&g_access_log);
    EXPECT_FALSE(g_access_log.syslg.enabled);
    EXPECT_EQ(g_closelogs, 1);
}

TEST_F(LogFileTest, the_application_logs_syslog_has_fixed_settings)
{
    glog_enable_syslog("kvt");
    ASSERT_EQ(g_openlogs.size(), 1u);
    EXPECT_EQ(g_openlogs[0].app, "kvt");
    EXPECT_EQ(g_openlogs[0].option, 3);
    EXPECT_EQ(g_openlogs[0].facility, 128);
    EXPECT_TRUE(g_log.syslg.enabled);
    EXPECT_EQ(g_log.syslg.option, 3);
    EXPECT_EQ(g_log.syslg.facility, 128);
    glog_disable_syslog();
    EXPECT_FALSE(g_log.syslg.enabled);
    EXPECT_EQ(g_closelogs, 1);
    glog_disable_syslog(); // harmless, and closes again
    EXPECT_EQ(g_closelogs, 2);
}

} // namespace
