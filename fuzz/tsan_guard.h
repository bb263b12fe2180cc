// The analyzer ends the process, by design, on three things that a hostile stream can hold: a PAT entry with PID 0, a
// PAT without entries or one that fills the program list, and a PCR PID of 0 in a PMT. The guard tells those packets
// from all others, so that a fuzzer reports only what is not meant.
#ifndef FUZZ_TSAN_GUARD_H
#define FUZZ_TSAN_GUARD_H

#include "mpegts.h"
#include "tavrin/tsanalyze.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>

class tsan_guard
{
public:
    // True if the packet is one of those.
    bool ends_the_process(const uint8_t* pkt)
    {
        std::array<uint8_t, room> sec{}; // zero behind the packet's end, as the analyzer reads it
        size_t at = tsf::head_size;
        if (pkt[tsf::control_ofs] & tsf::has_adaptation) at = tsf::af_flags_ofs + pkt[tsf::af_len_ofs];
        if (pkt[tsf::flags_ofs] & tsf::unit_start) ++at;
        const size_t avail = at < TS_MIN_PKTSIZE ? TS_MIN_PKTSIZE - at : 0;
        memcpy(sec.data(), pkt + TS_MIN_PKTSIZE - avail, avail);
        const uint16_t pid = ts_pid(pkt);
        if (pid == 0) return bad_pat(sec, avail);
        return m_pmt_pids.test(pid) && pid_at(sec, 8) == 0;
    }

private:
    static constexpr size_t room = 5000; // what a section's length field can lead to
    static constexpr size_t head = 8, entry = 4, crc = 4;

    static unsigned pid_at(const std::array<uint8_t, room>& sec, size_t at)
    {
        return (sec[at] & 0x1fU) << 8 | sec[at + 1];
    }

    bool bad_pat(const std::array<uint8_t, room>& sec, size_t avail)
    {
        // A section that runs past its packet ends with it.
        const size_t end = std::min(((sec[1] & 0x0fU) << 8 | sec[2]) + size_t{3}, avail + crc);
        const size_t sections = sec[7] + 1U;
        const bool alone = sections == 1 && sec[6] == 0;
        size_t count = 0;
        for (size_t at = head; at + entry + crc <= end && count < MAX_PMTS; at += entry, ++count)
            if (pid_at(sec, at + 2) == 0) return true;
        if (count * sections >= MAX_PMTS) return true;
        // A later PAT may be empty: it takes the programs away. Of tables in several sections nothing is known.
        if (count == 0 && !(alone && m_has_programs)) return true;
        m_has_programs = alone && count > 0;
        for (size_t i = 0; i < count; ++i)
            m_pmt_pids.set(pid_at(sec, head + i * entry + 2));
        return false;
    }

    bool m_has_programs = false;  // as far as known: the analyzer has a list of programs
    std::bitset<8192> m_pmt_pids; // all that a PAT ever listed
};

#endif // FUZZ_TSAN_GUARD_H
