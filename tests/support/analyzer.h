// An analyzer on a test's bench: settings, a context, and what it wrote.
//
//     Analyzer a;                          // enabled, nothing checked, source "src"
//     a.cfg.cc_track = true;
//     a.feed(wrap(pat({{1, 100}}), 0));    // the first packet creates the context
//     EXPECT_EQ(a.log.messages(ll::warning), strings{"..."});
//     EXPECT_EQ(a->nprogs, 1u);
//
// `log` is g_log with all modules at debug, `alerts` is g_access_log.
#ifndef TESTS_SUPPORT_ANALYZER_H
#define TESTS_SUPPORT_ANALYZER_H

#include "support/log_capture.h"
#include "support/ts_build.h"
#include "tavrin/tsanalyze_int.h"

#include <cstring>
#include <regex>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

struct Analyzer {
    LogCapture log;
    LogCapture alerts{&g_access_log};
    tsan_config cfg{};
    tsan_t tc = nullptr;

    Analyzer()
    {
        cfg.is_enabled = true;
        cfg.access_log_alerts = true;
        cfg.max_skip_pkts = 1000000;
        strcpy(cfg.source, "src");
    }
    Analyzer(const Analyzer&) = delete;
    Analyzer& operator=(const Analyzer&) = delete;
    ~Analyzer()
    {
        if (tc != nullptr) tsan_free(tc);
    }

    // The context, made at the first use.
    tsan_ctx* ctx()
    {
        if (tc == nullptr) tc = tsan_init(nullptr, &cfg, nullptr);
        return tc;
    }
    tsan_ctx* operator->() { return ctx(); }

    // Feeds packets and returns the last result. The packet's bytes lie in a block of just their size, so that a read
    // past them is seen by the address sanitizer.
    int feed(const tsb::packet& p)
    {
        const std::vector<uint8_t> exact(p.begin(), p.end());
        return tsan_process(ctx(), exact.data());
    }
    int feed(const std::vector<tsb::packet>& v)
    {
        int rc = 0;
        for (const tsb::packet& p : v)
            rc = feed(p);
        return rc;
    }
    int feed_pat(const tsb::bytes& section) { return feed(tsb::wrap(section, tsb::PID_PAT)); }
    int feed_pmt(const tsb::bytes& section, unsigned pid = 100) { return feed(tsb::wrap(section, pid)); }

    // Program 1: PMT on 100, AVC with the PCR on 101, AAC on 102.
    void one_program()
    {
        feed_pat(tsb::pat({{1, 100}}));
        feed_pmt(tsb::pmt(1, 101, {{tsb::ES_AVC, 101}, {tsb::ES_AAC, 102}}));
    }

    // Forgets what was written so far.
    void quiet()
    {
        log.clear();
        alerts.clear();
    }
    std::string tag() { return tsan_int::tag_text(ctx()); }
};

// Messages that contain a text.
inline strings with(const strings& lines, std::string_view part)
{
    strings found;
    for (const std::string& s : lines)
        if (s.find(part) != std::string::npos) found.push_back(s);
    return found;
}

// The lines with each address replaced by PTR.
inline strings no_ptr(strings lines)
{
    static const std::regex address("\\(0x[0-9a-f]+\\)");
    for (std::string& s : lines)
        s = std::regex_replace(s, address, "(PTR)");
    return lines;
}

#endif // TESTS_SUPPORT_ANALYZER_H
