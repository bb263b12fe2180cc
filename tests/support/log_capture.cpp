// Capturing a log channel in an anonymous file.
#include "support/log_capture.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

namespace
{

[[noreturn]] void give_up(const char* what)
{
    perror(what);
    abort();
}

bool digit(char c)
{
    return isdigit(static_cast<unsigned char>(c)) != 0;
}

// Length of the part of `s` that fits `pattern`: '9' is a digit, all else itself; 0 if it does not fit.
size_t match(std::string_view s, std::string_view pattern)
{
    if (s.size() < pattern.size()) return 0;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '9' ? !digit(s[i]) : s[i] != pattern[i]) return 0;
    }
    return pattern.size();
}

size_t digits(std::string_view s)
{
    size_t n = 0;
    while (n < s.size() && digit(s[n]))
        ++n;
    return n;
}

// Drops a time at the start, with the blank behind it: true if there was one.
bool drop_time(std::string_view* s)
{
    size_t n = match(*s, "9999-99-99 99:99:99");
    if (n > 0) {
        n += match(s->substr(n), ".999999");
        if (n < s->size() && (*s)[n] == ' ') { // the zone
            n = s->find(' ', n + 1);
            if (n == std::string_view::npos) return false;
            s->remove_prefix(n + 1);
            return true;
        }
        return false;
    }
    n = digits(*s);
    const size_t frac = match(s->substr(n), ".999999 ");
    if (n == 0 || frac == 0) return false;
    s->remove_prefix(n + frac);
    return true;
}

void drop_pid(std::string_view* s)
{
    const size_t n = digits(*s);
    if (n > 0 && s->substr(n).starts_with("  ")) s->remove_prefix(n + 2);
}

constexpr int TAGGED[] = {ll::panic,  ll::error, ll::critical, ll::warning,
                          ll::normal, ll::info,  ll::debug,    ll::section};

bool has_tag(std::string_view s, int level)
{
    const std::string_view tag = get_level_tag(level);
    return s.starts_with(tag) && s.substr(tag.size()).starts_with("  ");
}

// What follows the time and the process ID.
std::string_view behind_time(std::string_view line)
{
    if (drop_time(&line)) drop_pid(&line);
    return line;
}

} // namespace

LogCapture::LogCapture(log_ctx* log, int level) : m_log(log), m_fp(nullptr), m_saved_fp(log->fp)
{
    const int fd = memfd_create("log", MFD_CLOEXEC);
    if (fd < 0) give_up("memfd_create");
    m_fp = fdopen(fd, "a+");
    if (!m_fp) give_up("fdopen");
    setvbuf(m_fp, nullptr, _IONBF, 0);
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), std::begin(m_saved_levels));
    if (log == &g_log) std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), level);
    log->fp = m_fp;
}

LogCapture::~LogCapture()
{
    if (m_log->fp == m_fp) m_log->fp = m_saved_fp;
    if (m_log == &g_log) std::copy(std::begin(m_saved_levels), std::end(m_saved_levels), std::begin(g_mod_ll));
    fclose(m_fp);
}

std::string LogCapture::text() const
{
    struct stat st = {};
    if (fstat(fileno(m_fp), &st) != 0) give_up("fstat");
    std::string all(static_cast<size_t>(st.st_size), '\0');
    const ssize_t n = pread(fileno(m_fp), all.data(), all.size(), 0);
    if (n != st.st_size) give_up("pread");
    return all;
}

std::vector<std::string> LogCapture::lines() const
{
    const std::string all = text();
    std::vector<std::string> out;
    for (size_t pos = 0; pos < all.size();) {
        const size_t end = std::min(all.find('\n', pos), all.size());
        out.push_back(all.substr(pos, end - pos));
        if (end == all.size()) out.back() += NO_LINE_END;
        pos = end + 1;
    }
    return out;
}

std::vector<std::string> LogCapture::messages() const
{
    std::vector<std::string> out;
    for (const std::string& line : lines())
        out.push_back(strip_line_head(*m_log, line));
    return out;
}

std::vector<std::string> LogCapture::messages(int level) const
{
    std::vector<std::string> out;
    for (const std::string& line : lines()) {
        if (has_tag(behind_time(line), level)) out.push_back(strip_line_head(*m_log, line));
    }
    return out;
}

size_t LogCapture::count(std::string_view part) const
{
    const std::vector<std::string> all = messages();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [part](const std::string& m) { return m.find(part) != std::string::npos; }));
}

void LogCapture::clear()
{
    if (ftruncate(fileno(m_fp), 0) != 0) give_up("ftruncate");
}

void LogCapture::attach()
{
    m_log->fp = m_fp;
}

std::string strip_line_head(const log_ctx& log, std::string_view line)
{
    std::string_view rest = behind_time(line);
    for (const int level : TAGGED) {
        if (has_tag(rest, level)) {
            rest.remove_prefix(std::string_view(get_level_tag(level)).size() + 2);
            break;
        }
    }
    const std::string_view group = log.group.sym;
    if (!group.empty() && rest.starts_with(group) && rest.substr(group.size()).starts_with("  ")) {
        rest.remove_prefix(group.size() + 2);
    }
    return std::string(rest);
}

std::string read_file(const std::string& path)
{
    std::string out;
    FILE* fp = fopen(path.c_str(), "r");
    if (!fp) return out;
    char buf[4096];
    for (size_t n = fread(buf, 1, sizeof(buf), fp); n > 0; n = fread(buf, 1, sizeof(buf), fp))
        out.append(buf, n);
    fclose(fp);
    return out;
}

std::string join_lines(const std::vector<std::string>& lines)
{
    std::string out;
    for (const std::string& l : lines)
        out += l + "\n";
    return out;
}
