// A PAT's road: an analyzer and the list of programs that its tables made.
#ifndef TESTS_SUPPORT_PAT_KIT_H
#define TESTS_SUPPORT_PAT_KIT_H

#include "support/analyzer.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tsb;

using pids = std::vector<unsigned>;

inline std::vector<pat_entry> entries(unsigned first_pid, unsigned count)
{
    std::vector<pat_entry> v;
    for (unsigned i = 0; i < count; ++i)
        v.push_back({i + 1, first_pid + i});
    return v;
}

inline pids pid_range(unsigned first_pid, unsigned count)
{
    pids v;
    for (unsigned i = 0; i < count; ++i)
        v.push_back(first_pid + i);
    return v;
}

struct PAT : testing::Test {
    Analyzer a;
    pids list() { return {a->pmt_pid, a->pmt_pid + a->nprogs}; }
    // The list up to the 0 that ends it.
    pids walked()
    {
        pids v;
        for (size_t i = 0; i < MAX_PMTS && a->pmt_pid[i] != 0; ++i)
            v.push_back(a->pmt_pid[i]);
        return v;
    }
    strings human() { return a.log.messages(ll::warning); }
    void expect_valid()
    {
        const char* why = "";
        EXPECT_TRUE(tsan_int::tsan_validate(a.ctx(), &why)) << why;
    }
};

#endif // TESTS_SUPPORT_PAT_KIT_H
