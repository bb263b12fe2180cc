// Log core: levels, the gate, the line, its way out, closing.
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
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

TV_LOG_MODULE(0)

// ---- what the code under test asks of the system, in the test's hands -----------------------------------------

namespace
{

struct syslog_line {
    int priority;
    std::string text;
};
std::vector<syslog_line> g_syslog;
std::function<void()> g_inside_syslog; // runs where a signal would arrive
int g_closelogs = 0;

} // namespace

extern "C" void syslog(int priority, const char* fmt, ...)
{
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    g_syslog.push_back({priority, text});
    if (g_inside_syslog) g_inside_syslog();
}

extern "C" void closelog()
{
    ++g_closelogs;
}

namespace
{

using lines_t = std::vector<std::string>;

constexpr time_t AUG_7 = 1533628800; // 2018-08-07 10:00:00 CEST, 08:00:00 GMT
constexpr size_t LINE_MAX_CHARS = 2047;

uint64_t group_of(const char* text)
{
    n64_tag tag = {};
    memcpy(tag.sym8, text, strlen(text));
    return static_cast<uint64_t>(tag.num);
}

class LogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        glog_init("log_test");
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
        fake_clock::set(AUG_7, 123456789);
        (void)get_timezone(1);
        std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), ll::debug);
        g_log.total_out = 0;
        g_access_log.total_out = 0;
    }
    void TearDown() override
    {
        fake_clock::release();
        g_sigctx = 0;
        g_llctx = {0, -1, -1, {}};
        for (log_ctx* log : {&g_log, &g_access_log}) {
            log_timefmt(log, 0);
            log_set_pid(log, 0);
            log_set_group(log, 0);
            log->mirror_fp = nullptr;
            log->syslg = {};
            log->rota = {};
            log->is_pipe = 0;
        }
        g_syslog.clear();
        g_inside_syslog = nullptr;
        g_closelogs = 0;
    }
};

FILE* memory_file(const char* mode = "a+")
{
    return fdopen(memfd_create("stream", 0), mode);
}

std::string content(FILE* fp)
{
    char buf[8192];
    const ssize_t n = pread(fileno(fp), buf, sizeof(buf), 0);
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// ---- levels and words -----------------------------------------------------------------------------------------

// By design: error stands below critical, and critical is spelled "ctitical"; scripts match on both.
TEST_F(LogTest, each_level_has_its_tag_word_and_syslog_priority)
{
    const struct {
        int level;
        const char *tag, *word;
        int pri;
    } rows[] = {
        {-4, "(PNC)", "panic", 1},   {-3, "(ERR)", "error", 3},   {-2, "(CRI)", "ctitical", 2},
        {-1, "(WRN)", "warning", 4}, {0, "(NRM)", "normal", 5},   {1, "(INF)", "info", 6},
        {2, "(DBG)", "debug", 7},    {64, "(SCT)", "section", 7}, {3, "( ? )", "??", 7},
        {-5, "( ? )", "??", 7},      {63, "( ? )", "??", 7},      {65, "( ? )", "??", 7},
        {-127, "( ? )", "??", 7},    {INT_MIN, "( ? )", "??", 7}, {INT_MAX, "( ? )", "??", 7},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.level);
        EXPECT_STREQ(get_level_tag(r.level), r.tag);
        EXPECT_STREQ(log_level_str(r.level), r.word);
        EXPECT_EQ(get_syslog_pri(r.level), r.pri);
    }
    EXPECT_LT(ll::error, ll::critical);
}

TEST_F(LogTest, a_word_in_any_case_names_its_level)
{
    const struct {
        const char* word;
        int level;
    } rows[] = {
        {"err", -3},  {"error", -3},   {"ERR", -3}, {"Err", -3},     {"crit", -2},  {"critical", -2}, {"CRITICAL", -2},
        {"warn", -1}, {"warning", -1}, {"norm", 0}, {"normal", 0},   {"Normal", 0}, {"info", 1},      {"INFO", 1},
        {"debug", 2}, {"dbg", 2},      {"DbG", 2},  {"section", 64}, {"sect", 64},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.word);
        int level = 99;
        EXPECT_EQ(match_log_level(r.word, &level), 0);
        EXPECT_EQ(level, r.level);
    }
}

TEST_F(LogTest, other_words_name_no_level)
{
    for (const char* word : {"panic", "ctitical", "", "erro", "errors", " err", "2", "-3", "??"}) {
        SCOPED_TRACE(word);
        int level = 99;
        EXPECT_EQ(match_log_level(word, &level), -1);
        EXPECT_EQ(level, 99);
    }
}

TEST_F(LogTest, an_environment_variable_gives_a_level_or_the_default)
{
    const struct {
        const char* value;
        int expected;
    } rows[] = {{"2", 2}, {"-3", -3}, {"0", 0}, {"1x", 1}, {"abc", 7}, {"", 7}, {"00", 7}, {"+0", 7}, {" 0", 7}};
    unsetenv("LOG_TEST_LEVEL");
    EXPECT_EQ(read_level_env("LOG_TEST_LEVEL", 7), 7);
    for (const auto& r : rows) {
        SCOPED_TRACE(r.value);
        setenv("LOG_TEST_LEVEL", r.value, 1);
        EXPECT_EQ(read_level_env("LOG_TEST_LEVEL", 7), r.expected);
    }
}

TEST_F(LogTest, all_modules_or_all_sections_are_set_at_once)
{
    g_log.llst = {};
    log_set_modules(&g_log, ll::info);
    EXPECT_TRUE(g_log.llst.mod_ll_set);
    EXPECT_FALSE(g_log.llst.sec_ll_set);
    log_set_sections(&g_log, ll::warning);
    EXPECT_TRUE(g_log.llst.sec_ll_set);
    for (size_t i = 0; i < LOG_LEVELS_MAX; ++i) {
        EXPECT_EQ(g_mod_ll[i], ll::info);
        EXPECT_EQ(g_sec_ll[i], ll::warning);
    }
}

TEST_F(LogTest, module_levels_are_saved_one_deep)
{
    log_set_modules(&g_log, ll::info);
    log_push_mlevels();
    log_set_modules(&g_log, ll::error);
    log_push_mlevels(); // ignored: the first copy stays
    log_set_modules(&g_log, ll::debug);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[0], ll::info);
    EXPECT_EQ(g_mod_ll[127], ll::info);
    log_set_modules(&g_log, ll::warning);
    log_pop_mlevels(); // nothing is saved any more
    EXPECT_EQ(g_mod_ll[0], ll::warning);
    log_push_mlevels();
    log_set_modules(&g_log, ll::debug);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[0], ll::warning);
}

// ---- channels -------------------------------------------------------------------------------------------------

TEST_F(LogTest, the_application_tag_is_cut_at_127_characters)
{
    for (const size_t len : {0u, 4u, 126u, 127u, 128u, 500u}) {
        g_logmod.is_ready = false;
        glog_init(std::string(len, 'a').c_str());
        EXPECT_TRUE(g_logmod.is_ready);
        EXPECT_EQ(std::string(g_logmod.app_tag), std::string(len < 127 ? len : 127, 'a'));
    }
}

TEST_F(LogTest, an_absent_application_tag_is_an_assertion)
{
    const char* tag = nullptr;
    EXPECT_DEATH(glog_init(tag), "Assertion `app_tag' failed");
}

TEST_F(LogTest, the_first_default_stream_of_the_log_shuts_the_sections)
{
    FILE* const before = g_log.fp;
    g_log.llst = {};
    std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), 0);
    log_default(&g_access_log, stdout);
    EXPECT_EQ(log_fp(&g_access_log), stdout);
    EXPECT_EQ(g_sec_ll[0], 0);
    log_default(&g_log, stderr);
    EXPECT_EQ(log_fp(&g_log), stderr);
    EXPECT_EQ(g_sec_ll[0], ll::section);
    EXPECT_EQ(g_sec_ll[127], ll::section);
    log_set_sections(&g_log, ll::info);
    log_default(&g_log, stderr);
    EXPECT_EQ(g_sec_ll[0], ll::info);
    g_log.fp = before;
}

TEST_F(LogTest, channel_settings_read_back)
{
    log_set_pid(&g_log, 4321);
    EXPECT_EQ(log_get_pid(&g_log), 4321);
    log_set_group(&g_log, group_of("KVTI"));
    EXPECT_EQ(log_get_group(&g_log), group_of("KVTI"));
    EXPECT_STREQ(g_log.group.sym, "KVTI");
    log_timefmt(&g_log, 1025);
    EXPECT_EQ(g_log.time_format, 1025u);
    EXPECT_EQ(log_get_pid(&g_access_log), 0);
    int one = 0, two = 0;
    EXPECT_EQ(log_set_lard(&g_log, reinterpret_cast<lard_t>(&one)), nullptr);
    EXPECT_TRUE(lard_enabled(&g_log));
    EXPECT_EQ(log_set_lard(&g_log, reinterpret_cast<lard_t>(&two)), reinterpret_cast<lard_t>(&one));
    EXPECT_EQ(log_set_lard(&g_log, nullptr), reinterpret_cast<lard_t>(&two));
    EXPECT_FALSE(lard_enabled(&g_log));
}

// ---- the gate -------------------------------------------------------------------------------------------------

TEST_F(LogTest, a_line_shows_when_its_modules_level_is_at_least_its_own)
{
    for (const int module_level : {ll::panic, ll::error, ll::normal, ll::debug}) {
        for (const int level : {ll::panic, ll::error, ll::critical, ll::warning, ll::normal, ll::info, ll::debug}) {
            SCOPED_TRACE(testing::Message() << module_level << " line " << level);
            LogCapture log(&g_log, module_level);
            tv_log(level, "text\n");
            EXPECT_EQ(log.lines().size(), level <= module_level ? 1u : 0u);
        }
    }
}

TEST_F(LogTest, only_the_files_own_module_counts)
{
    LogCapture log(&g_log, ll::normal);
    g_mod_ll[7] = ll::debug;
    tv_log(ll::debug, "of module 0\n");
    g_llctx.mod = 7;
    tv_log(ll::debug, "of module 7\n");
    EXPECT_EQ(log.messages(), (lines_t{"of module 7"}));
}

// By design: with a section in force the line's own level plays no part.
TEST_F(LogTest, a_section_in_force_decides_by_the_sections_level)
{
    LogCapture log(&g_log, ll::normal);
    g_llctx.sec = 3;
    g_sec_ll[3] = ll::normal;
    tv_log(ll::debug, "open to all\n");
    g_sec_ll[3] = ll::info;
    tv_log(ll::panic, "shut to all\n");
    g_sec_ll[3] = ll::section;
    EXPECT_EQ(log.messages(), (lines_t{"open to all"}));
    EXPECT_EQ(log_effective_level(&g_llctx), ll::section);
    g_llctx.sec = -1;
    EXPECT_EQ(log_effective_level(&g_llctx), ll::normal);
}

TEST_F(LogTest, arguments_are_evaluated_only_when_a_line_gets_built)
{
    LogCapture log(&g_log, ll::normal);
    int evaluated = 0;
    tv_log(ll::info, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(logbuf_empty());
    tv_log(ll::normal, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_FALSE(logbuf_empty());
}

TEST_F(LogTest, a_record_passes_every_gate)
{
    LogCapture alerts(&g_access_log);
    std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), -1000);
    tv_record(&g_access_log, "STAT TPS %s\n", "chan1");
    EXPECT_EQ(alerts.text(), "2018-08-07 10:00:00.123456 CEST STAT TPS chan1\n");
}

// ---- the line -------------------------------------------------------------------------------------------------

TEST_F(LogTest, a_line_reads_as_the_time_format_asks)
{
    log_set_pid(&g_log, 1234);
    log_set_group(&g_log, group_of("KVTI"));
    const struct {
        uint32_t flags;
        const char* line;
    } rows[] = {
        {0, "2018-08-07 10:00:00.123456 CEST 1234  (INF)  KVTI  text\n"},
        {512, "2018-08-07 08:00:00.123456 CEST 1234  (INF)  KVTI  text\n"}, // GMT, yet the local zone's name
        {256, "(INF)  KVTI  text\n"},
        {1024, "1533628800.123456 1234  (INF)  KVTI  text\n"},
        {1025, "1533628800.123456 1234  (INF)  KVTI  text\n"},
        {0x10, "2018-08-07 10:00:00 CEST 1234  (INF)  KVTI  text\n"},
        {0x210, "2018-08-07 08:00:00 CEST 1234  (INF)  KVTI  text\n"},
        {0x410, "1533628800.123456 1234  (INF)  KVTI  text\n"},
        {0x702, "(INF)  KVTI  text\n"}, // no time: the clock isn't looked at
    };
    for (const auto& r : rows) {
        LogCapture log;
        log_timefmt(&g_log, r.flags);
        tv_log(ll::info, "text\n");
        EXPECT_EQ(log.text(), r.line);
    }
}

TEST_F(LogTest, the_low_bits_of_the_time_format_choose_the_clock)
{
    fake_clock::release();
    const struct {
        uint32_t flags;
        clockid_t clock;
    } rows[] = {{1024, CLOCK_REALTIME}, {1025, CLOCK_MONOTONIC}};
    for (const auto& r : rows) {
        LogCapture log;
        struct timespec before = {}, after = {};
        clock_gettime(r.clock, &before);
        log_timefmt(&g_log, r.flags);
        tv_log(ll::info, "text\n");
        clock_gettime(r.clock, &after);
        struct timespec shown = {};
        ASSERT_EQ(scan_log_time(log.text().c_str(), &shown, r.flags), 2);
        EXPECT_LE(before.tv_sec, shown.tv_sec);
        EXPECT_LE(shown.tv_sec, after.tv_sec);
    }
}

TEST_F(LogTest, a_clock_that_is_not_known_loses_the_line)
{
    for (const uint32_t timer : {2u, 3u}) {
        LogCapture log;
        log_timefmt(&g_log, LTF_RAW | timer);
        EXPECT_EQ(stderr_of([] { tv_log(ll::info, "text\n"); }),
                  "flags2clock: unsupported timer value: " + std::to_string(timer) + "\n");
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(logbuf_prepare(&g_log, ll::info, "text\n"), -1); }),
                  "flags2clock: unsupported timer value: " + std::to_string(timer) + "\n");
    }
}

TEST_F(LogTest, a_clock_that_fails_loses_the_line)
{
    LogCapture log;
    fake_clock::fail(EPERM);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "text\n"); }), "clock_gettime: Operation not permitted\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(LogTest, a_time_without_a_text_loses_the_line)
{
    LogCapture log;
    fake_clock::set(LONG_MAX);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "text\n"); }),
              "gmtime_r/localtime_r: Value too large for defined data type\n"
              "logbuf_prepare: time buffer error (n=-1)\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(LogTest, before_the_process_id_is_set_it_is_missing)
{
    LogCapture log;
    tv_log(ll::info, "text\n");
    log_set_pid(&g_log, -1);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(log.text(), "2018-08-07 10:00:00.123456 CEST (INF)  text\n"
                          "2018-08-07 10:00:00.123456 CEST (INF)  text\n");
}

TEST_F(LogTest, a_record_has_time_and_process_id_but_no_tag)
{
    LogCapture alerts(&g_access_log);
    log_set_pid(&g_access_log, 1234);
    tv_record(&g_access_log, "STAT TPS 5\n");
    EXPECT_EQ(alerts.text(), "2018-08-07 10:00:00.123456 CEST 1234  STAT TPS 5\n");
}

TEST_F(LogTest, levels_from_minus_126_up_have_a_tag)
{
    log_timefmt(&g_access_log, LTF_NO_TIME);
    EXPECT_EQ(logbuf_prepare(&g_access_log, -126, "text\n"), 5);
    EXPECT_STREQ(logbuf_text(), "( ? )  text\n");
    EXPECT_EQ(logbuf_prepare(&g_access_log, -127, "text\n"), 5);
    EXPECT_STREQ(logbuf_text(), "text\n");
    EXPECT_EQ(logbuf_prepare(&g_access_log, -128, "text\n"), 5);
    EXPECT_STREQ(logbuf_text(), "text\n");
}

TEST_F(LogTest, a_group_of_seven_characters_is_the_longest)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    log_set_group(&g_log, group_of("SEVENCH"));
    tv_log(ll::info, "text\n");
    EXPECT_EQ(log.text(), "(INF)  SEVENCH  text\n");
    log_set_group(&g_log, group_of("EIGHTCHR"));
    EXPECT_DEATH(tv_log(ll::info, "text\n"), R"(0 == log->group\.sym8\[sizeof\(log->group\.sym8\)-1\])");
}

TEST_F(LogTest, nothing_is_added_to_a_message)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    tv_log(ll::info, "one");
    tv_log(ll::info, "two\nthree\n");
    EXPECT_EQ(log.text(), "(INF)  one(INF)  two\nthree\n");
}

TEST_F(LogTest, a_line_holds_2047_characters)
{
    log_timefmt(&g_log, LTF_NO_TIME);
    const std::string head = "(INF)  ";
    const size_t room = LINE_MAX_CHARS - head.size();
    for (const size_t len : {room - 1, room}) {
        LogCapture log;
        const std::string message = std::string(len - 1, 'm') + "\n";
        EXPECT_EQ(stderr_of([&] { tv_log(ll::info, "%s", message.c_str()); }), "");
        EXPECT_EQ(log.text(), head + message);
    }
}

TEST_F(LogTest, a_message_that_is_too_long_is_written_cut_and_without_its_line_end)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    const std::string head = "(INF)  ";
    const std::string message = std::string(LINE_MAX_CHARS - head.size(), 'm') + "\n"; // one too many
    EXPECT_EQ(stderr_of([&] { tv_log(ll::info, "%s", message.c_str()); }).substr(0, 18), "fprintf/vfprintf: ");
    EXPECT_EQ(log.text(), head + message.substr(0, message.size() - 1));
    EXPECT_EQ(log.text().size(), LINE_MAX_CHARS);
}

TEST_F(LogTest, a_record_that_is_too_long_is_not_written)
{
    LogCapture alerts(&g_access_log);
    log_timefmt(&g_access_log, LTF_NO_TIME);
    const std::string fits = std::string(LINE_MAX_CHARS - 1, 'm') + "\n";
    tv_record(&g_access_log, "%s", fits.c_str());
    EXPECT_EQ(alerts.text(), fits);
    alerts.clear();
    EXPECT_EQ(stderr_of([&] { tv_record(&g_access_log, "%sx", fits.c_str()); }).substr(0, 18), "fprintf/vfprintf: ");
    EXPECT_EQ(alerts.text(), "");
    EXPECT_EQ(g_access_log.total_out, LINE_MAX_CHARS);
}

TEST_F(LogTest, an_empty_message_is_reported_and_leaves_the_head)
{
    LogCapture log;
    log_timefmt(&g_log, LTF_NO_TIME);
    EXPECT_EQ(stderr_of([] { tv_log(ll::info, "%s", ""); }).substr(0, 18), "fprintf/vfprintf: ");
    EXPECT_EQ(log.text(), "(INF)  ");
}

TEST_F(LogTest, an_empty_record_is_not_written)
{
    LogCapture alerts(&g_access_log);
    (void)stderr_of([] { tv_record(&g_access_log, "%s", ""); });
    EXPECT_EQ(alerts.text(), "");
}

TEST_F(LogTest, preparing_gives_the_length_of_the_message_alone)
{
    log_set_pid(&g_log, 1);
    EXPECT_EQ(logbuf_prepare(&g_log, ll::info, "%s\n", "abc"), 4);
    EXPECT_STREQ(logbuf_text(), "2018-08-07 10:00:00.123456 CEST 1  (INF)  abc\n");
    logbuf_reset();
    EXPECT_TRUE(logbuf_empty());
    EXPECT_STREQ(logbuf_text(), "");
}

// ---- the way out ----------------------------------------------------------------------------------------------

TEST_F(LogTest, an_empty_buffer_is_no_line)
{
    LogCapture log;
    g_log.syslg = {true, 0, LOG_LOCAL0};
    const size_t before = g_log.total_out;
    logbuf_reset();
    log_flush(&g_log, ll::error);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(g_log.total_out, before);
    EXPECT_TRUE(g_syslog.empty());
}

TEST_F(LogTest, written_bytes_are_counted)
{
    LogCapture log;
    g_log.total_out = 100;
    tv_log(ll::info, "text\n");
    EXPECT_EQ(g_log.total_out, 100 + log.text().size());
}

TEST_F(LogTest, a_mirror_gets_each_line_too_and_is_line_buffered)
{
    LogCapture log;
    FILE* mirror = memory_file();
    log_mirror(&g_log, mirror);
    EXPECT_EQ(log_mirror_fp(&g_log), mirror);
    tv_log(ll::info, "text\n");
    EXPECT_NE(__flbf(mirror), 0);
    EXPECT_EQ(content(mirror), log.text());
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(g_log.total_out, log.text().size()); // counted for the channel's own stream alone
    log_mirror(&g_log, nullptr);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(content(mirror).size() * 2, log.text().size());
    fclose(mirror);
}

TEST_F(LogTest, a_mirror_on_the_same_descriptor_writes_each_line_once)
{
    LogCapture log;
    log_mirror(&g_log, log.stream());
    tv_log(ll::info, "text\n");
    EXPECT_EQ(log.lines().size(), 1u);

    FILE* twin = fdopen(fileno(log.stream()), "a"); // another stream, and the same descriptor
    setvbuf(twin, nullptr, _IONBF, 0);
    log_mirror(&g_log, twin);
    tv_log(ll::info, "text\n");
    EXPECT_EQ(log.lines().size(), 2u);
    log_mirror(&g_log, nullptr); // the twin stays open: closing it would close the other one
}

TEST_F(LogTest, a_channel_without_a_stream_goes_on_at_standard_error)
{
    FILE* const before = g_log.fp;
    log_timefmt(&g_log, LTF_NO_TIME);
    g_log.fp = nullptr;
    EXPECT_EQ(stderr_of([] { tv_log(ll::error, "text\n"); }), "(ERR)  text\n");
    EXPECT_EQ(log_fp(&g_log), stderr);
    g_log.fp = before;
}

TEST_F(LogTest, lines_below_normal_go_to_syslog_whole)
{
    LogCapture log;
    g_log.syslg = {true, 0, LOG_LOCAL3};
    for (const int level : {ll::panic, ll::error, ll::critical, ll::warning, ll::normal, ll::info, ll::debug}) {
        tv_log(level, "100%% of %s\n", "text");
    }
    const int expected[] = {LOG_ALERT, LOG_ERR, LOG_CRIT, LOG_WARNING};
    const lines_t lines = log.lines();
    ASSERT_EQ(lines.size(), 7u);
    ASSERT_EQ(g_syslog.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(g_syslog[i].priority, LOG_LOCAL3 | expected[i]);
        EXPECT_EQ(g_syslog[i].text, lines[i] + "\n");
    }
}

TEST_F(LogTest, records_go_to_syslog_at_its_debug_priority)
{
    LogCapture alerts(&g_access_log);
    g_access_log.syslg = {true, 0, LOG_LOCAL0};
    tv_record(&g_access_log, "ALERT x\n");
    ASSERT_EQ(g_syslog.size(), 1u);
    EXPECT_EQ(g_syslog[0].priority, 128 | 7);
    EXPECT_EQ(g_syslog[0].text, alerts.text());
}

// syslog() makes a time itself, and holds the C library's calendar lock for it.
TEST_F(LogTest, a_handler_inside_syslog_does_not_wait_for_the_calendar)
{
    LogCapture log;
    g_log.syslg = {true, 0, LOG_LOCAL0};
    std::string said;
    g_inside_syslog = [&said] {
        g_sigctx = 1;
        said = stderr_of([] { tv_log(ll::normal, "from a handler\n"); });
        g_sigctx = 0;
    };
    tv_log(ll::error, "from the main road\n");
    EXPECT_EQ(said, "logbuf_prepare: time buffer error (n=-35)\n");
    EXPECT_EQ(log.messages(), (lines_t{"from the main road"}));
    tv_log(ll::normal, "behind it\n");
    EXPECT_EQ(log.messages(), (lines_t{"from the main road", "behind it"}));
}

TEST_F(LogTest, without_syslog_nothing_goes_there)
{
    LogCapture log;
    tv_log(ll::panic, "text\n");
    EXPECT_TRUE(g_syslog.empty());
}

TEST_F(LogTest, a_handlers_line_is_written_but_goes_neither_to_syslog_nor_rotates)
{
    TempDir dir;
    LogCapture log;
    ASSERT_EQ(log_open_ex(&g_log, (dir / "app.log").c_str(), 1), 0);
    FILE* const fp = g_log.fp;
    g_log.syslg = {true, 0, LOG_LOCAL0};
    log_set_rota(&g_log, 1, 4, 1);
    const time_t end_of_day = log_rota_eod(&g_log);

    g_sigctx = 1;
    tv_log(ll::error, "from a handler\n");
    EXPECT_EQ(strip_line_head(g_log, read_file(dir / "app.log")), "from a handler\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log"}));
    EXPECT_TRUE(g_syslog.empty());
    EXPECT_EQ(log_rota_eod(&g_log), end_of_day);

    g_sigctx = 0;
    g_log.syslg = {};
    tv_log(ll::error, "from the main road\n");
    EXPECT_EQ(dir.names(), (lines_t{"app.log", "app.log.1533628800"}));
    if (g_log.fp != fp) log_close(&g_log);
    log.attach();
    memset(g_log.name, 0, sizeof(g_log.name));
}

// ---- closing --------------------------------------------------------------------------------------------------

TEST_F(LogTest, closing_a_standard_stream_does_nothing)
{
    FILE* const before = g_log.fp;
    g_log.syslg = {true, 0, LOG_LOCAL0};
    for (FILE* fp : {static_cast<FILE*>(nullptr), stdout, stderr}) {
        g_log.fp = fp;
        log_close(&g_log);
        EXPECT_EQ(g_log.fp, fp);
        EXPECT_EQ(g_closelogs, 0);
    }
    EXPECT_NE(fcntl(1, F_GETFD), -1);
    EXPECT_NE(fcntl(2, F_GETFD), -1);
    g_log.fp = before;
}

TEST_F(LogTest, closing_a_file_closes_it_and_keeps_the_stale_stream)
{
    FILE* const before = g_log.fp;
    FILE* fp = memory_file();
    const int fd = fileno(fp);
    g_log.fp = fp;
    log_close(&g_log);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(log_fp(&g_log), fp);
    EXPECT_EQ(g_closelogs, 0);
    g_log.fp = before;
}

TEST_F(LogTest, closing_also_closes_syslog_if_it_is_on)
{
    FILE* const before = g_log.fp;
    g_log.fp = memory_file();
    g_log.syslg = {true, 0, LOG_LOCAL0};
    log_close(&g_log);
    EXPECT_EQ(g_closelogs, 1);
    g_log.fp = before;
}

TEST_F(LogTest, a_file_that_can_not_be_closed_is_reported)
{
    FILE* const before = g_log.fp;
    g_log.fp = memory_file();
    EXPECT_EQ(stderr_of([] {
                  close(fileno(g_log.fp));
                  log_close(&g_log);
              }),
              "log_close: fclose error(9) for the application log: Bad file descriptor\n");
    g_log.fp = before;
}

TEST_F(LogTest, closing_a_command_waits_for_it)
{
    TempDir dir;
    FILE* const before = g_log.fp;
    ASSERT_EQ(log_popen(&g_log, ("cat > " + dir / "out").c_str()), 0);
    log_timefmt(&g_log, LTF_NO_TIME);
    tv_log(ll::error, "text\n");
    EXPECT_EQ(stderr_of([] { log_close(&g_log); }), "");
    EXPECT_EQ(read_file(dir / "out"), "(ERR)  text\n");
    g_log.fp = before;
    memset(g_log.name, 0, sizeof(g_log.name));
}

TEST_F(LogTest, a_command_that_is_reaped_already_is_no_error)
{
    FILE* const before = g_log.fp;
    auto* const old = signal(SIGCHLD, SIG_IGN); // the kernel reaps
    ASSERT_EQ(log_popen(&g_log, "cat > /dev/null"), 0);
    EXPECT_EQ(stderr_of([] { log_close(&g_log); }), "");
    signal(SIGCHLD, old);
    g_log.fp = before;
    memset(g_log.name, 0, sizeof(g_log.name));
}

TEST_F(LogTest, a_command_that_can_not_be_closed_is_reported)
{
    FILE* const before = g_log.fp;
    ASSERT_EQ(log_popen(&g_log, "cat > /dev/null"), 0);
    EXPECT_EQ(stderr_of([] {
                  close(fileno(g_log.fp));
                  log_close(&g_log);
              }),
              "log_close: pclose error(9) for the application log: Bad file descriptor\n");
    g_log.fp = before;
    memset(g_log.name, 0, sizeof(g_log.name));
}

} // namespace
