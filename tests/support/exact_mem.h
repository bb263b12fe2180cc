// Memory of exactly the size that a function was promised, so that the sanitizer sees each step over its end.
//
//     ExactMem src("GET /a", 0);      // a text without a zero
//     ExactMem dst(64, '#');          // room for 64 characters, filled with a mark
#ifndef TESTS_SUPPORT_EXACT_MEM_H
#define TESTS_SUPPORT_EXACT_MEM_H

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

class ExactMem
{
public:
    // The text's characters, and so many zeros behind them.
    explicit ExactMem(std::string_view text, size_t zeros = 1) : m_size(text.size() + zeros), m_mem(new char[m_size]())
    {
        memcpy(m_mem.get(), text.data(), text.size());
    }
    ExactMem(size_t size, char fill) : m_size(size), m_mem(new char[size]) { memset(m_mem.get(), fill, size); }

    char* get() { return m_mem.get(); }
    size_t size() const { return m_size; }
    // What stands ahead of the first zero, or all of it.
    std::string text() const { return {m_mem.get(), strnlen(m_mem.get(), m_size)}; }
    std::string all() const { return {m_mem.get(), m_size}; }

private:
    size_t m_size;
    std::unique_ptr<char[]> m_mem;
};

#endif // TESTS_SUPPORT_EXACT_MEM_H
