// A program under test: an analyzer whose first PMT is about to come, and what its stream table then holds.
#ifndef TESTS_SUPPORT_PMT_KIT_H
#define TESTS_SUPPORT_PMT_KIT_H

#include "support/analyzer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace tsb;

inline constexpr uint8_t ES_UNTRACKED = 0x05;

struct PMT : testing::Test {
    Analyzer a;
    program_info& pg() { return a->pg[0]; }
    void begin(const bytes& section)
    {
        a.feed_pat(pat({{1, 100}}));
        a.quiet();
        a.feed_pmt(section);
    }
    std::vector<unsigned> stream_pids()
    {
        std::vector<unsigned> v;
        for (size_t i = 0; i < pg().nstreams; ++i)
            v.push_back(pg().stm[i].pid);
        return v;
    }
    strings debug() { return a.log.messages(ll::debug); }
    strings info() { return a.log.messages(ll::info); }
    strings human() { return a.log.messages(ll::warning); }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
    std::string text() { return {pg().txt_pmt.buf, size_t(pg().txt_pmt.textlen)}; }
};

using stream_list = std::vector<unsigned>;

inline bytes av_pmt(unsigned version = 0)
{
    return pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102}}).version(version);
}

#endif // TESTS_SUPPORT_PMT_KIT_H
