// What the analyzer's themes share: the PID map, sections as private copies, memos of sections, the record's checker
// and printer.
//
// Where a packet belongs is told by a walk: the list of PMT PIDs first, then the streams of program 0, 1, ... in
// order. The map holds that walk's answer for each of the 8192 PIDs. It is filled from the walk's end to its start, so
// that what the walk meets first is written last.
#include "log.h"
#include "tavrin/tsanalyze_int.h"

#include <cstring>

namespace
{

constexpr pid_slot NO_SLOT = {.ipg = -1, .istm = -1};

// Sections are read up to where their length fields can lead, in this room.
static_assert(PSI_ROOM >= 3 + 4095 + 2 + 4095 + 255);

size_t pmt_list_len(const tsan_ctx* tc)
{
    size_t len = 0;
    while (len < MAX_PMTS && tc->pmt_pid[len] != 0)
        ++len;
    return len;
}

bool valid_stream(const stream_info& stm)
{
    return stm.pid < NUM_PIDS && strchr("VAS", stm.stype) != nullptr && stm.stype != '\0' && stm.cc.value >= -1 &&
           stm.cc.value <= 15;
}

const char* broken_rule(const program_info& pg)
{
    if (pg.nstreams > MAX_NSTREAMS) return "more streams than a program holds";
    for (size_t i = 0; i < pg.nstreams; ++i)
        if (!valid_stream(pg.stm[i])) return "a stream without class, or with an impossible PID or counter";
    if (pg.pcr_idx < -1 || pg.pcr_idx >= ssize_t(MAX_NSTREAMS)) return "PCR stream index out of range";
    if (pg.ref_idx < -1 || pg.ref_idx >= ssize_t(MAX_NSTREAMS)) return "reference stream index out of range";
    if (pg.pcr_pid >= NUM_PIDS) return "impossible PCR PID";
    if (pg.txt_pmt.textlen > pg.txt_pmt.buflen) return "PMT text longer than its buffer";
    if (pg.memo.len > TS_PKT_BYTES) return "memo longer than a packet";
    if (pg.memo.len != 0 && pg.txt_pmt.buf == nullptr) return "memo without a PMT text";
    return nullptr;
}

bool same_slot(pid_slot a, pid_slot b)
{
    return a.ipg == b.ipg && a.istm == b.istm;
}

// Walks for the PIDs that the map knows and for those in the tables: that leaves only PIDs unknown to both.
bool map_in_step(const tsan_ctx* tc)
{
    for (unsigned pid = 0; pid < NUM_PIDS; ++pid) {
        const pid_slot slot = tc->pid_map[pid];
        if (!same_slot(slot, NO_SLOT) && !same_slot(slot, tsan_int::find_pid_slot(tc, pid))) return false;
    }
    for (size_t i = 0; i < pmt_list_len(tc); ++i)
        if (tc->pid_map[tc->pmt_pid[i]].ipg < 0) return false;
    for (size_t i = 0; i < tc->nprogs; ++i)
        for (size_t j = 0; j < tc->pg[i].nstreams; ++j)
            if (tc->pid_map[tc->pg[i].stm[j].pid].ipg < 0) return false;
    return true;
}

const char* broken_rule(const tsan_ctx* tc)
{
    if (tc->nprogs > MAX_PMTS) return "more programs than the list holds";
    for (size_t i = 0; i < tc->nprogs; ++i)
        if (tc->pmt_pid[i] >= NUM_PIDS) return "impossible PMT PID";
    if (tc->nprogs < MAX_PMTS && tc->pmt_pid[tc->nprogs] != 0) return "list of PMT PIDs without an end";
    for (const program_info& pg : tc->pg)
        if (const char* why = broken_rule(pg); why != nullptr) return why;
    if (!map_in_step(tc)) return "PID map out of step with the tables";
    if (tc->atotal > tc->ptotal) return "more packets analyzed than taken";
    return nullptr;
}

} // namespace

namespace tsan_int
{

// ---- PID map --------------------------------------------------------------------------------------------------

ssize_t get_pmt_pg(const tsan_ctx* tc, unsigned pid)
{
    for (size_t i = 0; i < MAX_PMTS && tc->pmt_pid[i] != 0; ++i)
        if (tc->pmt_pid[i] == pid) return ssize_t(i);
    return -1;
}

pid_slot find_pid_slot(const tsan_ctx* tc, unsigned pid)
{
    if (const ssize_t i = get_pmt_pg(tc, pid); i >= 0) return {.ipg = int8_t(i), .istm = -1};
    for (size_t i = 0; i < tc->nprogs; ++i) {
        const ssize_t j = find_stream(tc->pg[i].stm, tc->pg[i].nstreams, pid);
        if (j >= 0) return {.ipg = int8_t(i), .istm = int8_t(j)};
    }
    return NO_SLOT;
}

void pid_map_rebuild(tsan_ctx* tc)
{
    for (pid_slot& slot : tc->pid_map)
        slot = NO_SLOT;
    for (size_t i = tc->nprogs; i-- > 0;)
        for (size_t j = tc->pg[i].nstreams; j-- > 0;)
            tc->pid_map[tc->pg[i].stm[j].pid] = {.ipg = int8_t(i), .istm = int8_t(j)};
    for (size_t i = pmt_list_len(tc); i-- > 0;)
        tc->pid_map[tc->pmt_pid[i]] = {.ipg = int8_t(i), .istm = -1};
}

// ---- sections -------------------------------------------------------------------------------------------------

std::span<const uint8_t> psi_section(const uint8_t* pkt)
{
    const std::span<const uint8_t> pld = ts_get_payload(pkt);
    if (pld.empty() || (pkt[tsf::flags_ofs] & tsf::unit_start) == 0) return pld;
    return pld.subspan(1);
}

uint8_t* psi_private_copy(tsan_ctx* tc, std::span<const uint8_t> sec)
{
    // No copy reaches past a packet's length, and so neither do old bytes.
    memset(tc->psi_buf, 0, TS_PKT_BYTES);
    if (!sec.empty()) memcpy(tc->psi_buf, sec.data(), sec.size());
    return tc->psi_buf;
}

bool memo_matches(const psi_memo* memo, std::span<const uint8_t> sec)
{
    return memo->len != 0 && memo->len == sec.size() && memcmp(memo->bytes, sec.data(), sec.size()) == 0;
}

void memo_keep(psi_memo* memo, std::span<const uint8_t> sec, size_t count)
{
    memo->len = uint8_t(sec.size());
    memo->count = uint8_t(count);
    if (!sec.empty()) memcpy(memo->bytes, sec.data(), sec.size());
}

void memo_drop(psi_memo* memo)
{
    memo->len = 0;
}

// ---- the record as a whole ------------------------------------------------------------------------------------

bool tsan_validate(const tsan_ctx* tc, const char** why)
{
    const char* rule = broken_rule(tc);
    if (why != nullptr) *why = rule;
    return rule == nullptr;
}

void tsan_dump(FILE* fp, const tsan_ctx* tc)
{
    fprintf(fp, "tsan_ctx %p source=[%s] packets=%lu analyzed=%lu index=%lu programs=%zu ndat_pcount=%lu%s\n",
            static_cast<const void*>(tc), tc->cfg.source, tc->ptotal, tc->atotal, tc->last_pkt_idx, tc->nprogs,
            tc->ndat_pcount, tc->new_pat != nullptr ? " gathering a PAT" : "");
    fprintf(fp, "  current packet: program=%zd stream=%zd%s%s\n", tc->dat.ipg, tc->dat.istm,
            tc->dat.is_pat ? " PAT" : "", tc->dat.is_pmt ? " PMT" : "");
    for (size_t i = 0; i < tc->nprogs && i < MAX_PMTS; ++i) {
        const program_info& pg = tc->pg[i];
        fprintf(fp, "  program %zu: pmt=%u in-use=%u pcr=%u/%zd reference=%zd datagrams=%lu last_pcr=%lu\n", i,
                tc->pmt_pid[i], pg.curr_pmt_pid, pg.pcr_pid, pg.pcr_idx, pg.ref_idx, pg.last_seg_idx, pg.last_pcr);
        for (size_t j = 0; j < pg.nstreams && j < MAX_NSTREAMS; ++j) {
            const stream_info& stm = pg.stm[j];
            fprintf(fp, "    stream %zu: pid=%u class=%c type=0x%02x cc=%d pts=%lu dts=%lu P/A=%lu/%lu\n", j, stm.pid,
                    stm.stype, stm.scode, stm.cc.value, stm.last_pts, stm.last_dts, stm.pcount, stm.acount);
        }
    }
}

} // namespace tsan_int
