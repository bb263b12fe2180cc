// PAT tracking: the list of programs, and what changes in it.
//
// The first complete table fills the list. It stays the base of every later comparison: after a real change each
// table differs from it, the merge runs each time and finds nothing to do, and a return to the first table changes
// nothing. A packet on PID 0 counts as one section, with no test of its table id or CRC.
//
// Nearly every PAT packet repeats the one before it. If that one was a table of one section and its comparison left no
// trace, the repetition can leave none either, and only the trace lines are written.
#include "log.h"
#include "syswrap.h"
#include "tavrin/ts_bits.h"
#include "tavrin/tsanalyze_int.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

using namespace tsan_int;

namespace
{

constexpr size_t PRINT_MAX = 128;         // bytes of a printed line, with its zero
constexpr unsigned MAX_SEC_PROGRAMS = 32; // entries of a section that are looked at
constexpr size_t PAT_HEAD_BYTES = PAT_HEADER_SIZE;
// psi_compare reads three bytes behind the length that a copy keeps; the head is read whole even from a shorter one.
constexpr size_t DUP_SPARE = PAT_HEADER_SIZE + PSI_HEADER_SIZE;
// The printer's section counter has 8 bits: with more sections than this it would never come to an end.
constexpr uint8_t MAX_PRINT_LAST_SECTION = PSI_TABLE_MAX_SECTIONS - 2;
// Neither would its entry counter; but a section has only what fits a packet.
static_assert((TS_PKT_BYTES - PAT_HEADER_SIZE) / PAT_PROGRAM_SIZE < 256);

// An owned copy of a section, or null without memory. By design it ends three bytes short of the section's end, since
// nothing is added to the length field for the bytes ahead of it: the last three bytes of the CRC are never compared.
uint8_t* dup_psi_sec(const uint8_t* pld)
{
    const size_t len = psi_get_length(pld);
    auto* copy = static_cast<uint8_t*>(W_calloc(__func__, 1, len + DUP_SPARE));
    if (copy != nullptr) memcpy(copy, pld, len);
    return copy;
}

// Adds a copy of a section to a table; is_complete tells whether the table is whole now. False without memory.
bool gather(psi_block* table, const uint8_t* pld)
{
    uint8_t* copy = dup_psi_sec(pld);
    if (copy == nullptr) return false;
    table->is_complete = psi_table_section(table->sec, copy);
    return true;
}

bool same_tables(psi_block* a, psi_block* b)
{
    const unsigned last = psi_table_get_lastsection(a->sec);
    if (last + 1 < PSI_TABLE_MAX_SECTIONS) return psi_table_compare(a->sec, b->sec);
    // The library's loop has no end here.
    if (psi_table_get_lastsection(b->sec) != last) return false;
    for (size_t i = 0; i <= last; ++i)
        if (!psi_compare(a->sec[i], b->sec[i])) return false;
    return true;
}

// Calls take(entry index, PID) for each entry of a table, up to section `last`.
template <class Take>
void for_each_program(psi_block* table, unsigned last, Take take)
{
    for (unsigned s = 0; s <= last; ++s) {
        uint8_t* sec = psi_table_get_section(table->sec, uint8_t(s));
        // The packet's own last section number can lie above that of the copy, which ends with the length field.
        if (sec == nullptr) continue;
        for (unsigned i = 0; i < MAX_SEC_PROGRAMS; ++i) {
            const uint8_t* entry = pat_get_program(sec, uint8_t(i));
            if (entry == nullptr) break;
            take(i, unsigned{patn_get_pid(entry)});
        }
    }
}

void report_full(tsan_ctx* tc, const char* func, size_t passed_over)
{
    if (passed_over == 0) return;
    tv_log(ll::error, "%s: [%s] more than %zu programs, %zu passed over at %s\n", func, tc->cfg.source, MAX_PMTS,
           passed_over, tag_text(tc));
}

// Print callback: a line straight to a stream, without the log's prefix.
void m_print(void* opaque, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void m_print(void* opaque, const char* fmt, ...)
{
    char line[PRINT_MAX];
    va_list ap;
    va_start(ap, fmt);
    (void)vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    fprintf(static_cast<FILE*>(opaque), "%s\n", line);
}

// Prints a table whose last section number may be out of the printer's reach: it is brought down for as long as it
// prints.
void print_table(uint8_t** psec, FILE* fp)
{
    const uint8_t last = psi_table_get_lastsection(psec);
    if (last > MAX_PRINT_LAST_SECTION) psi_set_lastsection(psec[0], MAX_PRINT_LAST_SECTION);
    pat_table_print(psec, m_print, fp, PRINT_TEXT);
    psi_set_lastsection(psec[0], last);
}

void dump_pat(tsan_ctx* tc, const char* msg, uint8_t** psec)
{
    if (msg != nullptr) tv_log(ll::info, "[%s] %s\n", tc->cfg.source, msg);
    FILE* fp = log_fp(&g_log);
    if (fp != nullptr) print_table(psec, fp);
}

void alert_pat_diff(tsan_ctx* tc, size_t nadded, size_t ndel)
{
    if (!tc->cfg.no_rlog)
        tv_log(ll::warning, "ALERT PAT-DIFF [%s] PMTs added/deleted: %zu/%zu progs=%zu at %s\n", tc->cfg.source, nadded,
               ndel, tc->nprogs, tag_text(tc));
    if (tc->cfg.trk.pat_diff) {
        // By design the older table is always the first one.
        dump_pat(tc, "Older PAT:", tc->pat.sec);
        dump_pat(tc, "New PAT:", tc->new_pat->sec);
    }
    // The 0 stands where other alerts have a PID.
    if (tc->cfg.access_log_alerts)
        tv_record(&g_access_log, "ALERT PAT-DIFF %s 0 %zu %zu %zu %s\n", tc->cfg.source, tc->nprogs, nadded, ndel,
                  tag_text(tc));
    ++tc->gac.pat_diff;
}

using pid_list = std::array<unsigned, MAX_PMTS>;

// Appends what is new in the table and marks (with 0) what was seen. Returns the number added; *full counts what found
// no room. By design a PID that stands twice finds its mark gone the second time and is appended.
size_t add_new_pids(tsan_ctx* tc, unsigned last, pid_list& mark, size_t* full)
{
    size_t nadded = 0;
    for_each_program(tc->new_pat, last, [&](unsigned, unsigned pid) {
        const ssize_t k = find_pid(mark.data(), tc->nprogs, pid);
        if (k >= 0) {
            mark[size_t(k)] = 0;
        } else if (tc->nprogs == MAX_PMTS) {
            ++*full;
        } else {
            tc->pmt_pid[tc->nprogs++] = pid;
            tv_log(ll::warning, "[%s] pid%u ADDED in new PAT\n", tc->cfg.source, pid);
            ++nadded;
        }
    });
    return nadded;
}

// Takes out what was not seen and closes the gaps. Returns the number taken out. By design only the PIDs move: a
// program's slot stays at its index and serves whichever PID stands there.
size_t drop_missing_pids(tsan_ctx* tc, size_t old_nprogs, const pid_list& mark)
{
    size_t ndel = 0;
    for (size_t i = 0; i < tc->nprogs; ++i) {
        if (i < old_nprogs && mark[i] != 0) {
            tv_log(ll::warning, "[%s] pid%u MISSING in new PAT\n", tc->cfg.source, tc->pmt_pid[i]);
            ++ndel;
        } else {
            tc->pmt_pid[i - ndel] = tc->pmt_pid[i];
        }
    }
    return ndel;
}

// Brings the list in step with tc->new_pat. True if nothing came of it: no change, and no line.
bool merge_PATs(tsan_ctx* tc, uint8_t* pld)
{
    const unsigned last = psi_get_lastsection(pld);
    const size_t old_nprogs = tc->nprogs;
    pid_list mark{};
    std::copy_n(tc->pmt_pid, old_nprogs, mark.begin());

    size_t full = 0;
    const size_t nadded = add_new_pids(tc, last, mark, &full);
    report_full(tc, __func__, full);
    const size_t ndel = drop_missing_pids(tc, old_nprogs, mark);
    tc->nprogs -= ndel;
    assert(tc->nprogs < MAX_PMTS);
    tc->pmt_pid[tc->nprogs] = 0;
    if (nadded == 0 && ndel == 0) return full == 0;

    pid_map_rebuild(tc);
    alert_pat_diff(tc, nadded, ndel);
    reset_ndat_pcount(tc);
    return false;
}

void drop_new_pat(tsan_ctx* tc)
{
    if (tc->new_pat == nullptr) return;
    psi_table_free(tc->new_pat->sec);
    free(tc->new_pat);
    tc->new_pat = nullptr;
}

void trace_gathering(tsan_ctx* tc)
{
    if (!tc->cfg.trk.pat_pmt_pkt) return;
    tv_log(ll::info, "%s: (%p) new PAT is being compiled at %s\n", "another_PAT", static_cast<void*>(tc), tag_text(tc));
}

void trace_ready(tsan_ctx* tc)
{
    if (!tc->cfg.trk.pat_pmt_pkt) return;
    tv_log(ll::info, "%s: new PAT ready for comparison at %s\n", "another_PAT", tag_text(tc));
}

// A private copy of a section that ends with its packet, whatever its length field says: behind the packet the copy
// has zeros, and an entry that is not there must not be read as a PID of 0.
uint8_t* copy_within_packet(tsan_ctx* tc, std::span<const uint8_t> sec)
{
    uint8_t* pld = psi_private_copy(tc, sec);
    const size_t section_end = PSI_HEADER_SIZE + size_t{psi_get_length(pld)};
    if (section_end > sec.size() + PSI_CRC_SIZE)
        psi_set_length(pld, uint16_t(sec.size() + PSI_CRC_SIZE - PSI_HEADER_SIZE));
    return pld;
}

void take_another_PAT(tsan_ctx* tc, std::span<const uint8_t> sec)
{
    const bool begins = tc->new_pat == nullptr;
    if (begins && !tc->plain_psi && memo_matches(&tc->pat_memo, sec)) {
        trace_gathering(tc);
        trace_ready(tc);
        return;
    }
    // A table that begins and ends with this section has no other.
    const bool left_no_trace = another_PAT(tc, copy_within_packet(tc, sec));
    if (begins && left_no_trace)
        memo_keep(&tc->pat_memo, sec, 0);
    else
        memo_drop(&tc->pat_memo);
}

} // namespace

namespace tsan_int
{

ssize_t find_pid(const unsigned* pids, size_t count, unsigned pid)
{
    for (size_t i = 0; i < count; ++i)
        if (pids[i] == pid) return ssize_t(i);
    return -1;
}

void init_pat_tables(tsan_ctx* tc)
{
    psi_table_init(tc->pat.sec);
    tc->pat.is_complete = false;
    tc->new_pat = nullptr;
}

void free_pat_tables(tsan_ctx* tc)
{
    psi_table_free(tc->pat.sec);
    drop_new_pat(tc);
    init_pat_tables(tc);
}

void take_PAT(tsan_ctx* tc, std::span<const uint8_t> sec)
{
    if (sec.size() < PAT_HEAD_BYTES) {
        tv_log(ll::error, "%s: [%s] passing over a PAT section, its head is not in the packet at %s\n", __func__,
               tc->cfg.source, tag_text(tc));
        return;
    }
    if (tc->nprogs != 0) {
        take_another_PAT(tc, sec);
        return;
    }
    tv_log(ll::info, "[%s] using PAT (pid%u) at %s\n", tc->cfg.source, PAT_PKT_PID, tag_text(tc));
    process_PAT(tc, copy_within_packet(tc, sec));
}

void process_PAT(tsan_ctx* tc, uint8_t* pld)
{
    memo_drop(&tc->pat_memo);
    if (!gather(&tc->pat, pld)) return;
    if (!tc->pat.is_complete) {
        tv_log(ll::debug, "%s: (%p) not all sections gathered yet\n", __func__, static_cast<void*>(tc));
        return;
    }
    assert(0 == tc->nprogs);
    const unsigned last = psi_get_lastsection(pld);
    size_t full = 0;
    for_each_program(&tc->pat, last, [&](unsigned i, unsigned pid) {
        if (tc->nprogs == MAX_PMTS) {
            ++full;
            return;
        }
        tc->pmt_pid[tc->nprogs] = pid;
        assert(tc->pmt_pid[tc->nprogs]);
        // By design the PID shown is the one at the entry's index within its section.
        tv_log(ll::info, "[%s] PRG[%zu] pmt[%u] pid=%u at %s\n", tc->cfg.source, tc->nprogs, i, tc->pmt_pid[i],
               tag_text(tc));
        ++tc->nprogs;
    });
    report_full(tc, __func__, full);
    // A merge that emptied the list may have left old PIDs behind its end.
    if (tc->nprogs < MAX_PMTS) tc->pmt_pid[tc->nprogs] = 0;
    pid_map_rebuild(tc);
    tv_log(ll::debug, "%s: [%s] %zu programs read from PAT (%u sections) at %s\n", __func__, tc->cfg.source, tc->nprogs,
           last + 1, tag_text(tc));
    assert(tc->nprogs);
}

bool another_PAT(tsan_ctx* tc, uint8_t* pld)
{
    if (tc->new_pat == nullptr) {
        tc->new_pat = static_cast<psi_block*>(W_calloc(__func__, 1, sizeof(psi_block)));
        if (tc->new_pat == nullptr) return false;
    }
    trace_gathering(tc);
    if (!gather(tc->new_pat, pld)) return false;
    if (!tc->new_pat->is_complete) {
        tv_log(ll::debug, "%s: (%p) not all sections gathered yet at %s\n", __func__, static_cast<void*>(tc),
               tag_text(tc));
        return false;
    }
    trace_ready(tc);
    const bool left_no_trace = same_tables(&tc->pat, tc->new_pat) || merge_PATs(tc, pld);
    drop_new_pat(tc);
    return left_no_trace;
}

} // namespace tsan_int
