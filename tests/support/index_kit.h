// What tests of index files share: stream files with PCRs where the test wants them, index files made by hand, and an
// account of what an index and its runs have to be that is worked out in another way than the code's own.
//
//     const stream_plan plan{100, {{3, 1000}, {50, 4600}}};
//     put_file(ts, stream_bytes(plan));
//     ... tsx_mkix(ts, ix, 7 * PKT, 0, 0) ...
//     EXPECT_EQ(file_bytes(ix), index_file(want_clocks(plan, 7), 7));
#ifndef TESTS_SUPPORT_INDEX_KIT_H
#define TESTS_SUPPORT_INDEX_KIT_H

#include "support/log_capture.h"
#include "support/ts_build.h"
#include "tsix.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ixk
{

using tsb::bytes;
using tsb::bytes_view;

inline constexpr size_t PKT = tsb::pkt_bytes;
inline constexpr uint64_t PCR_MOD = uint64_t{1} << 33;

// ---- files ----------------------------------------------------------------------------------------------------

inline void put_file(const std::string& path, bytes_view data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!out.flush()) abort();
}

inline bytes file_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Lines with each address replaced by P.
inline std::vector<std::string> plain(std::vector<std::string> lines)
{
    static const std::regex address("\\(0x[0-9a-f]+\\)");
    for (std::string& s : lines)
        s = std::regex_replace(s, address, "(P)");
    return lines;
}

// The lines that one function has written, addresses replaced.
inline std::vector<std::string> lines_of(const LogCapture& log, const std::string& func)
{
    std::vector<std::string> found;
    for (const std::string& s : plain(log.messages()))
        if (s.rfind(func + ":", 0) == 0) found.push_back(s);
    return found;
}

// ---- streams --------------------------------------------------------------------------------------------------

struct pcr_at {
    size_t pkt; // number of the packet
    uint64_t pcr;
};

struct stream_plan {
    size_t pkts = 0;
    std::vector<pcr_at> pcrs;
    unsigned pid = 256;
};

inline bytes stream_bytes(const stream_plan& plan)
{
    const tsb::packet plain = tsb::pkt().pid(plan.pid + 1);
    bytes out;
    out.reserve(plan.pkts * PKT);
    for (size_t i = 0; i < plan.pkts; ++i)
        out.insert(out.end(), plain.begin(), plain.end());
    for (const pcr_at& p : plan.pcrs) {
        const tsb::packet with = tsb::pkt().pid(plan.pid).pcr(p.pcr % PCR_MOD);
        std::copy(with.begin(), with.end(), out.begin() + static_cast<ptrdiff_t>(p.pkt * PKT));
    }
    return out;
}

// PCRs from packet `first` on, every `period` packets, each `step` ticks later.
inline stream_plan even_plan(size_t pkts, size_t first, size_t period, uint64_t step, uint64_t pcr = 90000)
{
    stream_plan plan{pkts, {}};
    for (size_t at = first; at < pkts; at += period, pcr += step)
        plan.pcrs.push_back({at, pcr});
    return plan;
}

// PCRs at random distances of up to `max_period` packets (at least one record between the first and the last two),
// with random steps.
inline stream_plan random_plan(std::mt19937& rnd, size_t pkts, size_t max_period, size_t units)
{
    stream_plan plan{pkts, {}};
    uint64_t pcr = rnd();
    size_t at = 1 + rnd() % 40;
    plan.pcrs.push_back({at, pcr});
    at += units + rnd() % max_period;
    while (at + units + max_period < pkts) {
        plan.pcrs.push_back({at, pcr += 3 * units + max_period + rnd() % 40000});
        at += 1 + rnd() % max_period;
    }
    plan.pcrs.push_back({at + units, pcr += 3000});
    return plan;
}

// ---- what an index has to be ----------------------------------------------------------------------------------

// The clocks of all records, from the places of the PCRs alone: the records up to a packet are the packets up to it,
// divided by the record's and rounded up.
inline std::vector<uint64_t> want_clocks(const stream_plan& plan, size_t units)
{
    const auto records_to = [units](size_t pkts) { return (pkts + units - 1) / units; };
    std::vector<uint64_t> clocks;
    uint64_t base = 0;
    const auto spread = [&](size_t count, uint64_t ticks) {
        for (size_t i = 1; i <= count; ++i)
            clocks.push_back(base + ticks * i / count);
        base += ticks;
    };
    size_t count = 0;
    uint64_t step = 0;
    for (size_t k = 1; k < plan.pcrs.size(); ++k) {
        const size_t before = records_to(plan.pcrs[k - 1].pkt + 1);
        count = records_to(plan.pcrs[k].pkt + 1) - before;
        step = (plan.pcrs[k].pcr + PCR_MOD - plan.pcrs[k - 1].pcr) % PCR_MOD;
        if (k == 1) spread(before, before * step / count);
        spread(count, step);
    }
    const size_t tail = records_to(plan.pkts) - records_to(plan.pcrs.back().pkt + 1);
    spread(tail, step * tail / count);
    return clocks;
}

inline void put_le(bytes* out, uint64_t value, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        out->push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// The fields of a header, to be bent at will.
struct head_plan {
    std::string magic = "TSIX";
    unsigned version = 1;
    unsigned units = 7;
    unsigned flags = 0;
    uint64_t count = 0;
    unsigned irec_size = 8;
};

inline bytes head_bytes(const head_plan& h)
{
    bytes out(h.magic.begin(), h.magic.end());
    put_le(&out, h.version, 1);
    put_le(&out, h.units, 1);
    put_le(&out, h.flags, 2);
    put_le(&out, h.count, 8);
    put_le(&out, h.irec_size, 2);
    out.insert(out.end(), 16, 0xfe);
    return out;
}

// A whole index file; with `rsize` above 0 each record holds that size.
inline bytes index_file(const std::vector<uint64_t>& clocks, unsigned units, unsigned rsize = 0)
{
    bytes out = head_bytes({.units = units, .count = clocks.size(), .irec_size = rsize > 0 ? 10U : 8U});
    for (const uint64_t c : clocks) {
        put_le(&out, c, 8);
        if (rsize > 0) put_le(&out, rsize, 2);
    }
    return out;
}

// ---- what the iterator has to give ----------------------------------------------------------------------------

using run = std::pair<size_t, uint64_t>; // bytes, microseconds

// The longest run of records from each place that keeps both limits, found by looking back from every possible end.
inline std::vector<run> want_runs(const std::vector<uint64_t>& clocks, size_t rsize, size_t ts_size, size_t max_len,
                                  size_t max_delay_ms)
{
    const auto usc = [](uint64_t ticks) { return ticks * 100 / 9; };
    std::vector<run> runs;
    size_t at = 0;
    while (at < clocks.size()) {
        const uint64_t start = at > 0 ? clocks[at - 1] : 0;
        size_t end = at + 1;
        while (end < clocks.size() && (end + 1 - at) * rsize <= max_len &&
               usc(clocks[end] - start) <= max_delay_ms * 1000 + 501)
            ++end;
        const size_t from = at * rsize;
        runs.push_back({std::min(end * rsize, ts_size) - from, usc(clocks[end - 1] - start)});
        at = end;
    }
    return runs;
}

// All runs that an open index gives; ends with the first result that is not above 0, which goes to *last.
inline std::vector<run> all_runs(tsix_t tsx, size_t max_len, size_t max_delay_ms, ssize_t* last = nullptr)
{
    std::vector<run> runs;
    size_t delay = 0;
    ssize_t n;
    while ((n = tsx_next(tsx, max_len, max_delay_ms, &delay)) > 0)
        runs.push_back({static_cast<size_t>(n), delay});
    if (last) *last = n;
    return runs;
}

} // namespace ixk

#endif // TESTS_SUPPORT_INDEX_KIT_H
