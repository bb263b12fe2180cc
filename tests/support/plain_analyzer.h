// The analyzer's rules once more, plain and slow, to be run beside the analyzer on the same packets.
//
// It keeps no map, no memo and no ingredients of tags: it walks its tables for each packet, renders each tag when the
// packet arrives, and compares tables by their bytes. What it says is kept as text: `machine` what the alert log must
// hold, `human` the alert lines of the application log. It knows one-section tables without descriptors, and takes
// for granted that an equal section is an equal table.
#ifndef TESTS_SUPPORT_PLAIN_ANALYZER_H
#define TESTS_SUPPORT_PLAIN_ANALYZER_H

#include "tavrin/tsanalyze.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace plain
{

using u64 = uint64_t;

inline std::string text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string text(const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

inline std::string clock_text(u64 ms)
{
    return text("%02lu:%02lu:%02lu.%03lu", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
}

// Ticks from one PCR to the next.
inline u64 pcr_ticks(u64 first, u64 last)
{
    const u64 wrapped = last + (u64{1} << 33) - first;
    if (wrapped < 45000) return wrapped;
    return first > last ? 0 : last - first;
}

inline u64 apart_ms(u64 a, u64 b)
{
    return (a < b ? b - a : a - b) / 90;
}

struct span {
    u64 count = 0, total = 0;
    void take(u64 v)
    {
        count++;
        total += v;
    }
};

struct track {
    unsigned pid = 0;
    char type = 0;
    u64 pts = 0, dts = 0;
    bool new_pts = false, new_dts = false;
    int cc = -1;
    long zero_ns = -1; // when it last broke to 0
    u64 pcount = 0;
};

struct program {
    std::array<track, 64> tracks;
    size_t n = 0;
    std::vector<uint8_t> pmt; // the section in use
    bool has_pmt = false;
    unsigned pcr_pid = 0;
    u64 pcr = 0, pcr_at = 0;
    bool got_pcr = false;
    std::string pcr_tag;
    int pcr_idx = -1, ref_idx = -1;
    u64 dgram = 0, pcount = 0;
    span av, pcr_delta, pcr_freq;
};

struct analyzer {
    tsan_config cfg;
    std::vector<unsigned> pmts;
    std::array<program, 32> pg;
    std::vector<uint8_t> first_pat;
    int ipg = -1, itrk = -1; // of the packet at hand
    std::string tag;
    u64 idx = 0, total = 0, analyzed = 0;
    u64 silence_at;
    struct {
        u64 dgram = 0;
        unsigned pid = 0;
        int jump = 0, more = 0;
    } last_break;
    std::vector<std::string> machine, human;

    explicit analyzer(const tsan_config& c) : cfg(c), silence_at(c.max_ndat_pcount) {}

    const char* src() const { return cfg.source; }

    void alert(const std::string& human_line, const std::string& machine_line)
    {
        if (!cfg.no_rlog) human.push_back("ALERT " + human_line);
        if (cfg.access_log_alerts) machine.push_back("ALERT " + machine_line);
    }

    // ---- where a packet belongs ----

    void locate(unsigned pid)
    {
        ipg = itrk = -1;
        if (pid == 0) return;
        for (size_t i = 0; i < pmts.size(); i++) {
            if (pmts[i] != pid) continue;
            ipg = static_cast<int>(i);
            return;
        }
        for (size_t i = 0; i < pmts.size(); i++) {
            for (size_t j = 0; j < pg[i].n; j++) {
                if (pg[i].tracks[j].pid != pid) continue;
                ipg = static_cast<int>(i);
                itrk = static_cast<int>(j);
                return;
            }
        }
    }

    void make_tag(unsigned pid)
    {
        if (pid == 0)
            tag = text("PAT[%lu]", idx);
        else if (itrk >= 0)
            tag = text("%d:%d[%lu]", ipg, itrk, idx);
        else if (ipg >= 0)
            tag = text("%d:M[%lu]", ipg, idx);
        else
            tag = text("pkt[%lu]", idx);
        if (ipg >= 0 && pg[ipg].got_pcr) tag += text(":(pcr=%lu)+%lu", pg[ipg].pcr, idx - pg[ipg].pcr_at);
        tag = tag.substr(0, 63);
    }

    // ---- tables ----

    static unsigned pid_at(const std::vector<uint8_t>& b, size_t i) { return (b[i] & 0x1fU) << 8 | b[i + 1]; }

    static size_t section_end(const std::vector<uint8_t>& s) { return 3 + ((s[1] & 0x0fU) << 8 | s[2]) - 4; }

    void take_pat(const std::vector<uint8_t>& sec)
    {
        std::vector<unsigned> listed;
        for (size_t i = 8; i + 4 <= section_end(sec); i += 4)
            listed.push_back(pid_at(sec, i + 2));
        if (pmts.empty()) {
            pmts = listed;
            first_pat = sec;
            return;
        }
        if (sec == first_pat) return;

        std::vector<unsigned> unseen = pmts;
        size_t added = 0;
        for (unsigned pid : listed) {
            bool found = false;
            for (unsigned& u : unseen) {
                if (u != pid || found) continue;
                u = 0;
                found = true;
            }
            if (found) continue;
            pmts.push_back(pid);
            added++;
        }
        std::vector<unsigned> kept;
        for (size_t i = 0; i < pmts.size(); i++) {
            if (i >= unseen.size() || unseen[i] == 0) kept.push_back(pmts[i]);
        }
        const size_t gone = pmts.size() - kept.size();
        pmts = kept;
        if (added == 0 && gone == 0) return;
        alert(text("PAT-DIFF [%s] PMTs added/deleted: %zu/%zu progs=%zu at %s", src(), added, gone, pmts.size(),
                   tag.c_str()),
              text("PAT-DIFF %s 0 %zu %zu %zu %s", src(), pmts.size(), added, gone, tag.c_str()));
        arm_silence();
    }

    static char type_of(unsigned code)
    {
        const std::string video("\x01\x02\x10\x1b\x24\x42"), audio("\x03\x04\x0f\x11\x81\x87");
        const char c = static_cast<char>(code);
        if (video.find(c) != std::string::npos) return 'V';
        if (audio.find(c) != std::string::npos) return 'A';
        return code == 6 ? 'S' : 0;
    }

    void fill_tracks(program& p, const std::vector<uint8_t>& sec)
    {
        const auto old = p.tracks;
        const size_t old_n = p.n;
        p.n = 0;
        p.pcr_pid = pid_at(sec, 8);
        for (size_t i = 12; i + 5 <= section_end(sec); i += 5) {
            const char type = type_of(sec[i]);
            if (!type) continue;
            track t;
            t.pid = pid_at(sec, i + 1);
            t.type = type;
            p.tracks[p.n] = t;
            if (t.pid == p.pcr_pid) p.pcr_idx = static_cast<int>(p.n);
            if (cfg.max_pdts_delta && type == 'V' && p.ref_idx < 0) p.ref_idx = static_cast<int>(p.n);
            p.n++;
        }
        for (size_t j = 0; j < p.n; j++) {
            for (size_t k = 0; k < old_n; k++) {
                if (old[k].pid != p.tracks[j].pid) continue;
                const char type = p.tracks[j].type;
                p.tracks[j] = old[k];
                p.tracks[j].type = type;
                break;
            }
        }
    }

    void take_pmt(const std::vector<uint8_t>& sec, unsigned pid)
    {
        program& p = pg[ipg];
        if (p.n == 0) {
            fill_tracks(p, sec);
            if (!p.has_pmt) p.pmt = sec;
            p.has_pmt = true;
            return;
        }
        if (sec == p.pmt) return;
        const size_t count = (section_end(sec) - 12) / 5;
        const unsigned new_pcr_pid = pid_at(sec, 8);
        alert(text("PMT-DIFF [%s] track-count: %zu/%zu pid=%u pcr-pid=%u at %s", src(), p.n, count, pid, new_pcr_pid,
                   tag.c_str()),
              text("PMT-DIFF %s %u %zu %zu %u %s", src(), pid, p.n, count, new_pcr_pid, tag.c_str()));
        p.pmt = sec;
        arm_silence();
        fill_tracks(p, sec);
    }

    // ---- continuity ----

    bool joins_last_break(unsigned pid, int jump) const
    {
        return last_break.dgram != 0 && last_break.more != -1 && last_break.dgram == pg[ipg].dgram &&
               pid != last_break.pid && jump == last_break.jump;
    }

    void check_cc(unsigned pid, int cc, long now_ns)
    {
        program& p = pg[ipg];
        track& t = p.tracks[itrk];
        const int last = t.cc;
        t.cc = cc;
        if (last == -1) return;
        if (cc == (last + 1) % 16) {
            last_break.more = -1;
            return;
        }
        long since_ms = 0;
        bool is_restart = false;
        if (cc == 0 && cfg.cc_max_ms0_ms != 0) {
            if (t.zero_ns >= 0) {
                since_ms = (now_ns - t.zero_ns) / 1000000;
                is_restart = since_ms >= cfg.cc_max_ms0_ms;
            }
            t.zero_ns = now_ns;
        }
        if (is_restart) {
            alert(text("CC-RST [%s] dgram:%lu last/current=%d/%d pid=%u delta_ms=%ld at %s", src(), p.dgram, last, cc,
                       pid, since_ms, tag.c_str()),
                  text("CC-RST %s %u %lu %d %d %ld %s", src(), pid, p.dgram, last, cc, since_ms, tag.c_str()));
        } else {
            alert(text("CC-BRK [%s] dgram:%lu last/current=%d/%d pid=%u at %s", src(), p.dgram, last, cc, pid,
                       tag.c_str()),
                  text("CC-BRK %s %u %lu %d %d %s", src(), pid, p.dgram, last, cc, tag.c_str()));
        }
        const int jump = cc + (last > cc ? 16 : 0) - last;
        if (joins_last_break(pid, jump)) last_break.more++;
        last_break.pid = pid;
        last_break.jump = jump;
        last_break.dgram = p.dgram;
    }

    void next_dgram()
    {
        if (ipg < 0) return;
        if (last_break.more > 0) {
            alert(text("CC-MLR [%s] dgram:%lu count=%d at %s", src(), pg[ipg].dgram, last_break.more, tag.c_str()),
                  text("CC-MLR %s %lu %d %s", src(), pg[ipg].dgram, last_break.more, tag.c_str()));
        }
        last_break.more = 0;
        pg[ipg].dgram++;
    }

    // ---- clocks ----

    void take_pcr(const uint8_t* pkt)
    {
        program& p = pg[ipg];
        const u64 pcr = u64{pkt[6]} << 25 | u64{pkt[7]} << 17 | u64{pkt[8]} << 9 | u64{pkt[9]} << 1 | u64{pkt[10]} >> 7;
        if (cfg.pcr_freq_ms && p.pcr != 0) {
            const u64 ms = pcr_ticks(p.pcr, pcr) / 90;
            p.pcr_freq.take(ms);
            if (ms > cfg.pcr_freq_ms) {
                alert(text("PCR-FREQ pid=%u old/new: %lu [%s]/%lu [%s] delta=%lu", p.pcr_pid, p.pcr,
                           clock_text(p.pcr).c_str(), pcr, clock_text(pcr).c_str(), ms),
                      text("PCR-FREQ %s %u %lu %lu %lu [%s]", src(), p.pcr_pid, p.pcr, pcr, ms, tag.c_str()));
            }
        }
        p.pcr = pcr;
        p.pcr_at = idx;
        p.pcr_tag = tag;
        p.got_pcr = true;
    }

    static u64 stamp(const uint8_t* b)
    {
        return u64{b[0]} / 2 % 8 << 30 | u64{b[1]} << 22 | u64{b[2]} / 2 << 15 | u64{b[3]} << 7 | u64{b[4]} / 2;
    }

    void take_stamps(track& t, const std::vector<uint8_t>& pld)
    {
        if (pld.size() < 9 || pld[0] != 0 || pld[1] != 0 || pld[2] != 1 || pld[3] < 188) return;
        if ((pld[7] & 0x80) && pld.size() >= 14) {
            const u64 pts = stamp(&pld[9]);
            t.new_pts = pts != t.pts;
            t.pts = pts;
        }
        if ((pld[7] >> 6) == 3 && pld.size() >= 19) {
            const u64 dts = stamp(&pld[14]);
            t.new_dts = dts != t.dts;
            t.dts = dts;
        }
    }

    void check_pcr_delta(program& p, const track& t, bool is_pts)
    {
        const u64 s = is_pts ? t.pts : t.dts;
        const char* word = is_pts ? "pts" : "dts";
        const u64 ms = apart_ms(s, p.pcr);
        p.pcr_delta.take(ms);
        if (ms <= cfg.max_pcr_delta) return;
        const char type = p.pcr_idx >= 0 ? p.tracks[p.pcr_idx].type : 'P';
        const unsigned pid = p.pcr_idx >= 0 ? p.tracks[p.pcr_idx].pid : p.pcr_pid;
        alert(text("PCR-DELTA [%s] pcr:%s <> %s:%s %c:pcr(pid%u)/%c:%s(pid%u) = %lu [%s]/ %lu [%s] delta=%lu", src(),
                   word, p.pcr_tag.c_str(), tag.c_str(), type, pid, t.type, word, t.pid, p.pcr,
                   clock_text(p.pcr / 90).c_str(), s, clock_text(s / 90).c_str(), ms),
              text("PCR-DELTA %s %s %u %lu %u %lu %lu [%s]", src(), word, p.pcr_pid, p.pcr, t.pid, s, ms, tag.c_str()));
    }

    void check_av_delta(program& p, const track& t, bool is_pts)
    {
        const track& ref = p.tracks[p.ref_idx];
        const u64 s = is_pts ? t.pts : t.dts;
        const u64 r = is_pts ? ref.pts : ref.dts;
        const char* word = is_pts ? "pts" : "dts";
        const u64 ms = apart_ms(s, r);
        p.av.take(ms);
        const bool is_zero = ms == 0 && s != r;
        if (!is_zero && ms <= cfg.max_pdts_delta) return;
        const char* name = is_zero ? "AV-DELTA0" : "AV-DELTA+";
        alert(text("%s [%s] %s %c:%s(pid%u)/%c:%s(pid%u) = %lu [%s]/%lu [%s] PCR=%lu [%s], delta=%lu", name, src(),
                   tag.c_str(), ref.type, word, ref.pid, t.type, word, t.pid, r, clock_text(r / 90).c_str(), s,
                   clock_text(s / 90).c_str(), p.pcr, clock_text(p.pcr / 90).c_str(), ms),
              text("%s %s %s %u %lu %u %lu %lu [%s]", name, src(), word, ref.pid, r, t.pid, s, ms, tag.c_str()));
    }

    void check_clocks(unsigned pid)
    {
        program& p = pg[ipg];
        track& t = p.tracks[itrk];
        if (pid == p.pcr_pid || t.type != 'A') return;
        if (cfg.max_pcr_delta && p.got_pcr) {
            if (t.new_pts) check_pcr_delta(p, t, true);
            if (t.new_dts) check_pcr_delta(p, t, false);
        }
        if (cfg.max_pdts_delta == 0 || p.ref_idx < 0) return;
        if (t.new_pts && p.tracks[p.ref_idx].pts != 0) {
            check_av_delta(p, t, true);
            t.new_pts = false;
        }
        if (t.new_dts && p.tracks[p.ref_idx].dts != 0) {
            check_av_delta(p, t, false);
            t.new_dts = false;
        }
    }

    // ---- silence ----

    u64 silence_base() const
    {
        if (ipg >= 0) return pg[ipg].pcount;
        u64 most = 0;
        for (size_t i = 0; i < pmts.size(); i++)
            most = pg[i].pcount > most ? pg[i].pcount : most;
        return most;
    }

    void arm_silence()
    {
        if (cfg.max_ndat_pcount) silence_at = silence_base() + cfg.max_ndat_pcount;
    }

    void look_for_silence()
    {
        size_t all = 0, silent = 0;
        for (size_t i = 0; i < pmts.size(); i++) {
            for (size_t j = 0; j < pg[i].n; j++) {
                all++;
                const track& t = pg[i].tracks[j];
                if (t.pcount != 0) continue;
                silent++;
                alert(text("PID-NDAT [%s] %zu:%zu pid%u received no data %s", src(), i, j, t.pid, tag.c_str()),
                      text("PID-NDAT %s %u %zu %zu %s", src(), t.pid, i, j, tag.c_str()));
            }
        }
        human.push_back(silent ? text("[%s] %zu tracks NOT receiving data", src(), silent)
                               : text("[%s] %zu tracks receiving data", src(), all));
        silence_at = silent && cfg.max_ndat_pcount ? silence_base() + cfg.max_ndat_pcount : 0;
    }

    // ---- a packet ----

    int process(const uint8_t* pkt, long now_ns)
    {
        const unsigned pid = (pkt[1] & 0x1fU) << 8 | pkt[2];
        locate(pid);
        idx++;
        total++;
        make_tag(pid);
        if (pkt[0] != 0x47) return -1;

        const bool has_payload = pkt[3] & 0x10, has_af = pkt[3] & 0x20, is_start = pkt[1] & 0x40;
        std::vector<uint8_t> pld;
        if (has_payload) {
            const int at = has_af ? 5 + pkt[4] : 4;
            if (at < 188) pld.assign(pkt + at, pkt + 188);
        }
        if (pid == 17) {
        } else if (pid == 0 || (ipg >= 0 && itrk < 0)) {
            std::vector<uint8_t> sec(pld.begin() + 1, pld.end());
            sec.resize(3 + ((sec[1] & 0x0fU) << 8 | sec[2]));
            if (pid == 0)
                take_pat(sec);
            else
                take_pmt(sec, pid);
        } else if (itrk >= 0) {
            if (pid == pg[ipg].pcr_pid && has_af && pkt[4] != 0 && (pkt[5] & 0x10)) take_pcr(pkt);
            if (is_start) take_stamps(pg[ipg].tracks[itrk], pld);
        }

        if (itrk >= 0) {
            pg[ipg].pcount++;
            pg[ipg].tracks[itrk].pcount++;
            analyzed++;
            if (cfg.cc_track && has_payload) check_cc(pid, pkt[3] & 15, now_ns);
            if (!pld.empty()) check_clocks(pid);
            if (silence_at != 0 && pg[ipg].pcount >= silence_at) look_for_silence();
        }
        if (analyzed != 0 || idx < cfg.max_skip_pkts) return 0;
        return -16;
    }
};

} // namespace plain

#endif // TESTS_SUPPORT_PLAIN_ANALYZER_H
