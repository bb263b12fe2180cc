// A directory of the test's own, removed with all that is in it at the end.
//
//     TempDir dir;
//     write_file(dir / "app.log", "old\n");
//     EXPECT_EQ(dir.names(), (std::vector<std::string>{"app.log"}));
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

class TempDir
{
public:
    TempDir() : m_owner(getpid())
    {
        char path[] = "/tmp/kvt_test_XXXXXX";
        if (!mkdtemp(path)) {
            perror("mkdtemp");
            abort();
        }
        m_path = path;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir()
    {
        std::error_code ignored; // a directory left in /tmp is no test's failure
        if (getpid() == m_owner) std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    // The names in it, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> out;
        for (const auto& e : std::filesystem::directory_iterator(m_path))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
    // A path in it of exactly `len` characters, made longer by "./" and "x"s; `len` must leave room for a name.
    std::string path_of_length(size_t len) const
    {
        std::string p = m_path + "/";
        while (p.size() < len)
            p += p.size() + 3 <= len && len - p.size() > 20 ? "./" : "x";
        return p;
    }

private:
    pid_t m_owner;
    std::string m_path;
};

inline void write_file(const std::string& path, const std::string& text)
{
    FILE* fp = fopen(path.c_str(), "w");
    if (!fp || fputs(text.c_str(), fp) < 0 || fclose(fp) != 0) {
        perror(path.c_str());
        abort();
    }
}

#endif // TESTS_SUPPORT_TEMP_DIR_H
