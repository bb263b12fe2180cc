// What tests read of the log: the lines of one channel, captured for the life of an object.
//
//     LogCapture log;                      // g_log, all modules at debug
//     LogCapture alerts(&g_access_log);    // alert and statistics records
//     ... act ...
//     EXPECT_EQ(log.messages(), (std::vector<std::string>{"f: something happened"}));
//
// The lines go to an anonymous file that a forked child shares: what a death test's child logged (in the "fast"
// style) is there to read in the parent. The channel's stream and the level tables are put back at the end.
// A test whose code under test calls log_default or opens the channel takes it back with attach().
#ifndef TV_TESTS_LOG_CAPTURE_H
#define TV_TESTS_LOG_CAPTURE_H

#include "log.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

// What a last line shows that has no line end, so that a message that lost its own is not taken for a whole one.
inline constexpr std::string_view NO_LINE_END = "<no line end>";

class LogCapture
{
public:
    // Captures a channel; for g_log all module levels become `level`.
    explicit LogCapture(log_ctx* log = &g_log, int level = ll::debug);
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    // All that was written, as it is.
    std::string text() const;
    // The lines without their line ends; a last line without one counts too, and ends in NO_LINE_END.
    std::vector<std::string> lines() const;
    // The lines without time, process ID, level tag and the channel's group.
    std::vector<std::string> messages() const;
    // The same, of the lines with this level's tag only, such as ll::error. A line that continues a message of
    // several lines has no tag and is left out.
    std::vector<std::string> messages(int level) const;
    // How many messages contain a text.
    size_t count(std::string_view part) const;
    bool contains(std::string_view part) const { return count(part) > 0; }
    // Forgets what was written so far.
    void clear();
    // Makes the channel write here again, after code under test gave it another stream.
    void attach();
    // The stream that stands behind the channel.
    FILE* stream() const { return m_fp; }

private:
    log_ctx* m_log;
    FILE* m_fp;
    FILE* m_saved_fp;
    int m_saved_levels[LOG_LEVELS_MAX];
};

// A line of a channel without its time, process ID, level tag and group (which the channel's settings name).
std::string strip_line_head(const log_ctx& log, std::string_view line);

// The file's whole text; empty if it can't be read.
std::string read_file(const std::string& path);

// The texts, a line each, for a failure's message.
std::string join_lines(const std::vector<std::string>& lines);

#endif // TV_TESTS_LOG_CAPTURE_H
