// The analyzer's private records, and the functions that its source files share. For tavrin/tsanalyze*.cpp and their
// tests only.
//
// Who does what: tsanalyze.cpp the context and a packet's way; _map what the themes share; _pmtfit the check of foreign
// PMT sections; _pat, _pmt, _cc, _clock, _silence, _stats and _cfg one theme each. In each record what is known of the
// stream comes first; what only speeds things up stands behind it.
//
// A *packet tag* is quoted by alerts, and few packets raise one. So each packet only notes what its tag is made of
// (`tag_src`), as things stand when the packet arrives; tag_text() and pcr_tag_text() render the text when a line asks.
// The *PID map* gives for each PID what the walk over programs and streams would find; pid_map_rebuild() follows every
// change of the tables. A PMT or PAT packet that repeats the bytes of the last one which was found unchanged is known
// to be unchanged (`psi_memo`): it costs a comparison of bytes.
//
// Ownership: the context owns its tables, section copies and PMT texts. Pointers into `pg` stay valid for the life of
// the context. Logged names: a line names the operation it belongs to, also where that is split.
#ifndef TAVRIN_TSANALYZE_INT_H
#define TAVRIN_TSANALYZE_INT_H

#include "mpegts.h"
#include "tavrin/misc.h"
#include "tavrin/tsanalyze.h"

#include <sys/types.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <type_traits>

// ---- constants ------------------------------------------------------------------------------------------------

inline constexpr size_t TS_PKT_BYTES = TS_MIN_PKTSIZE; // bytes of a packet that the analyzer looks at
inline constexpr unsigned PAT_PKT_PID = 0;
inline constexpr unsigned SDT_PKT_PID = 17;
inline constexpr size_t NUM_PIDS = 8192;
inline constexpr size_t PSI_MAX_SECTIONS = 256; // sections of a table
// Room for a section with any length field (4095 bytes behind the first three), and for what a reader that trusts its
// length fields may touch behind it.
inline constexpr size_t PSI_ROOM = 3 + 4095 + 4096 + 256;
inline constexpr size_t PES_HEAD_BYTES = 9; // least bytes of a PES header
inline constexpr size_t PES_PTS_END = 14;   // where the PTS ends
inline constexpr size_t PES_DTS_END = 19;   // where the DTS ends
inline constexpr uint8_t PES_MIN_STREAM_ID = 188;

// ---- packet tags ----------------------------------------------------------------------------------------------

enum class tag_kind : uint8_t { none, pat, pmt, stream, other };

// What a tag is made of.
struct tag_src {
    uint64_t pkt_idx;
    uint64_t pcr;     // last PCR of the program, with `with_pcr`
    uint64_t pcr_age; // packets since that PCR
    int16_t ipg;
    int16_t istm;
    enum tag_kind kind; // none: no packet yet, the text is empty
    bool with_pcr;
};

// ---- streams --------------------------------------------------------------------------------------------------

struct cc_info {
    int value;              // last counter, 0 to 15; -1: none yet
    struct timespec ms0_tm; // monotonic time of the last break to a counter of 0; zero: never
};

struct stream_info {
    unsigned pid;
    char stype;          // 'V', 'A' or 'S'
    uint8_t scode;       // the PMT's stream_type
    uint64_t last_pts;   // 90 kHz; 0: none yet
    uint64_t pts_pktnum; // packet index of that PTS
    uint64_t last_dts;   // 90 kHz; 0: none yet
    uint64_t dts_pktnum; // packet index of that DTS
    struct cc_info cc;
    bool pts_updated; // a new PTS waits to be checked
    bool dts_updated; // a new DTS waits to be checked
    uint64_t pcount;  // packets processed
    uint64_t acount;  // packets analyzed
};

// ---- programs -------------------------------------------------------------------------------------------------

struct pg_alert_count {
    uint64_t av_delta0;
    uint64_t av_deltaplus;
    uint64_t pcr_delta;
    uint64_t pcr_freq;
    uint64_t cc_break;
    uint64_t cc_reset;
    uint64_t pmt_diff;
    uint64_t pid_ndat;
};

// Processed (p) and analyzed (a) packets of a program, and of its video, audio and subtitle streams.
struct sa_stats {
    uint64_t pcount;
    uint64_t acount;
    uint64_t v_pcount;
    uint64_t v_acount;
    uint64_t a_pcount;
    uint64_t a_acount;
    uint64_t s_pcount;
    uint64_t s_acount;
};

// The last section that was found unchanged: the rest of its packet from the section's start on.
struct psi_memo {
    uint8_t bytes[TS_PKT_BYTES];
    uint8_t len;   // bytes in use; 0: nothing is known
    uint8_t count; // PMT: its ES entries
};

struct program_info {
    size_t nstreams;
    struct stream_info stm[MAX_NSTREAMS];
    uint64_t last_pcr;         // 90 kHz; 0: none yet
    uint64_t pcr_pktnum;       // packet index of that PCR
    char pcr_ptag[PKTIDX_LEN]; // text of that PCR's packet tag: read it through pcr_tag_text()
    bool got_pcr;              // set by the first PCR, never cleared
    unsigned pcr_pid;          // as the PMT names it
    ssize_t pcr_idx;           // stream on the PCR PID; -1: none
    unsigned curr_pmt_pid;     // PID of the PMT in use; 0 before one yielded a stream
    struct ctxt_spec txt_pmt;  // text of the PMT in use
    ssize_t ref_idx;           // reference video stream; -1: none. By design it can point past the end after a change
    uint64_t last_seg_idx;     // datagrams
    uint8_t skip_pmt_out;      // reports since the PMT records were written
    struct pg_alert_count alert;
    struct aggr_val av_pdts_delta; // ms
    struct aggr_val av_pcr_delta;  // ms
    struct aggr_val av_pcr_freq;   // ms
    struct sa_stats stat;

    struct tag_src pcr_tag; // ingredients of pcr_ptag
    struct psi_memo memo;   // the section that txt_pmt shows, if it can be known again by its bytes
};

// ---- context --------------------------------------------------------------------------------------------------

// What is known of the current packet; stays until the next one.
struct dgram_info {
    ssize_t ipg;                  // program index; -1: none
    ssize_t istm;                 // stream index; -1: none
    bool is_pat;                  // PID 0
    bool is_pmt;                  // PID of a PMT
    struct program_info* program; // null: none
    struct stream_info* stream;   // null: none
};

struct psi_block {
    uint8_t* sec[PSI_MAX_SECTIONS]; // owned copies of sections; null: not seen
    bool is_complete;
};

// Memory of the last continuity alert.
struct cc_alert_ctx {
    uint64_t seg_idx; // the program's last_seg_idx then
    unsigned pid;
    int delta; // size of the jump, modulo 16
    int nmlr;  // 0: datagram begins; -1: a packet was in sequence; above 0: so many further breaks matched
};

struct gen_alert_count {
    uint64_t lost_sync;
    uint64_t pat_diff;
    uint64_t cc_mlr;
};

// An entry of the PID map. A PMT PID has a program and no stream.
struct pid_slot {
    int8_t ipg;  // -1: no program
    int8_t istm; // -1: no stream
};

struct tsan_ctx {
    struct tsan_config cfg;           // copy taken at creation
    unsigned pmt_pid[MAX_PMTS];       // PMT PIDs in use; a 0 ends the list
    struct program_info pg[MAX_PMTS]; // slot i serves pmt_pid[i]
    size_t nprogs;                    // entries of pmt_pid in use; 0: no PAT yet
    struct dgram_info dat;            // the current packet
    uint64_t ndat_pcount;             // the current program's pcount at which tracks are looked at; 0: off
    char ptag[PKTIDX_LEN];            // text of the current packet's tag: read it through tag_text()
    time_t last_stats_dumped;         // when tsan_dump_stats last ran
    struct cc_alert_ctx last_cca;     // last continuity alert
    uint64_t last_pkt_idx;            // index of the current packet, from 1
    struct psi_block pat;             // the first complete PAT
    struct psi_block* new_pat;        // PAT being gathered, owned; null between comparisons
    uint64_t pre_skipped;             // packets that went by before analysis began
    struct gen_alert_count gac;       // stream-wide alerts
    struct timespec start_tm;         // monotonic time of the first packet; zero until then
    uint64_t ptotal;                  // packets taken
    uint64_t atotal;                  // packets analyzed

    struct tag_src tag;       // ingredients of ptag
    bool plain_psi;           // tests: compare every PAT and PMT in full
    struct psi_memo pat_memo; // the PAT section that was compared last, if nothing came of it
    struct pid_slot pid_map[NUM_PIDS];
    uint8_t psi_buf[PSI_ROOM]; // the current packet's section, with zeros behind it
};

// All zero is a valid start: no record here has a constructor.
static_assert(std::is_trivially_default_constructible_v<tsan_ctx> && std::is_standard_layout_v<tsan_ctx>);
static_assert(sizeof(pid_slot) == 2);
static_assert(MAX_PMTS <= INT8_MAX && MAX_NSTREAMS <= INT8_MAX);
static_assert(TS_PKT_BYTES <= UINT8_MAX);

namespace tsan_int
{

// The program of the current packet, or null.
inline struct program_info* prog(const struct tsan_ctx* tc)
{
    return tc->dat.program;
}

// ---- packet tags (tsanalyze.cpp) ------------------------------------------------------------------------------

// The tag of the current packet (between packets: of the last one), rendered into tc->ptag. Empty before the first.
const char* tag_text(struct tsan_ctx* tc);
// The tag of the packet with the program's last PCR, rendered into pg->pcr_ptag. Empty before the first PCR.
const char* pcr_tag_text(struct program_info* pg);
// Makes the current packet's tag that of its program's PCR. Requires: a current program.
inline void keep_pcr_tag(struct tsan_ctx* tc)
{
    prog(tc)->pcr_tag = tc->tag;
}

// ---- packet fields --------------------------------------------------------------------------------------------
// Payload readers look at the packet's 188 bytes and nothing behind them.

// True if the packet carries a PCR of its program.
inline bool pkt_has_pcr(const struct tsan_ctx* tc, unsigned pid, const uint8_t* pkt)
{
    return tc->dat.ipg >= 0 && pid != 0 && pid == prog(tc)->pcr_pid && ts_has_pcr(pkt) != 0;
}

// The payload; empty if the packet has none, or none within its 188 bytes.
inline std::span<const uint8_t> ts_get_payload(const uint8_t* pkt)
{
    const uint8_t control = pkt[tsf::control_ofs];
    if ((control & tsf::has_payload) == 0) return {};
    size_t pos = tsf::head_size;
    if ((control & tsf::has_adaptation) != 0) pos += 1U + pkt[tsf::af_len_ofs];
    return pos < TS_PKT_BYTES ? std::span<const uint8_t>(pkt + pos, TS_PKT_BYTES - pos) : std::span<const uint8_t>();
}

// True if a payload begins with a PES header of a media stream; one that is cut short by the packet's end is none.
inline bool is_pes_pkt(std::span<const uint8_t> pld)
{
    return pld.size() >= PES_HEAD_BYTES && pld[0] == 0 && pld[1] == 0 && pld[2] == 1 && pld[3] >= PES_MIN_STREAM_ID;
}

// True if the header has a PTS, and all of it lies in the payload. Requires: is_pes_pkt(pld), here and below.
inline bool pes_has_PTS(std::span<const uint8_t> pld)
{
    return pld.size() >= PES_PTS_END && (pld[7] & 0x80) != 0;
}
// The same for a DTS.
inline bool pes_has_DTS(std::span<const uint8_t> pld)
{
    return pld.size() >= PES_DTS_END && (pld[7] & 0xc0) == 0xc0;
}
// 33 bits in five bytes, with marker bits that are not tested.
inline uint64_t pes_timestamp(std::span<const uint8_t, 5> b)
{
    return (b[0] & uint64_t{0x0e}) << 29 | uint64_t{b[1]} << 22 | (b[2] & uint64_t{0xfe}) << 14 | uint64_t{b[3]} << 7 |
           uint64_t{b[4]} >> 1;
}
// Requires: pes_has_PTS(pld).
inline uint64_t pes_get_PTS(std::span<const uint8_t> pld)
{
    return pes_timestamp(pld.subspan<PES_PTS_END - 5, 5>());
}
// Requires: pes_has_DTS(pld).
inline uint64_t pes_get_DTS(std::span<const uint8_t> pld)
{
    return pes_timestamp(pld.subspan<PES_DTS_END - 5, 5>());
}

// ---- tables (tsanalyze_map.cpp) -------------------------------------------------------------------------------

// The program index of a PMT PID: the place in the list, which a 0 ends; -1 if it is not there.
ssize_t get_pmt_pg(const struct tsan_ctx* tc, unsigned pid);
// What the walk over programs and streams finds for a PID.
struct pid_slot find_pid_slot(const struct tsan_ctx* tc, unsigned pid);
// Brings the PID map in step with the tables. To be called behind every change of pmt_pid, nprogs, or a program's
// streams.
void pid_map_rebuild(struct tsan_ctx* tc);

// ---- sections (tsanalyze_map.cpp) -----------------------------------------------------------------------------

// The section of a PAT or PMT packet, as far as the packet goes: what stands behind the pointer_field, if the
// unit-start bit is set, and the whole payload otherwise. By design the pointer_field's value is not looked at.
// Empty if the packet has none.
std::span<const uint8_t> psi_section(const uint8_t* pkt);
// Copies a section to tc->psi_buf with zeros behind it and returns the copy. It lasts until the next call.
// Requires: at most TS_PKT_BYTES bytes.
uint8_t* psi_private_copy(struct tsan_ctx* tc, std::span<const uint8_t> sec);
// True if these bytes are the memo's. False for an empty memo.
bool memo_matches(const struct psi_memo* memo, std::span<const uint8_t> sec);
// Requires: at most TS_PKT_BYTES bytes; count at most MAX_NSTREAMS.
void memo_keep(struct psi_memo* memo, std::span<const uint8_t> sec, size_t count);
void memo_drop(struct psi_memo* memo);

// ---- the record as a whole (tsanalyze_map.cpp) ----------------------------------------------------------------

// True if the record is in a state that the analyzer can have brought it to; otherwise false, with the broken rule's
// words on *why (if given). No effects.
bool tsan_validate(const struct tsan_ctx* tc, const char** why);
// Prints the record in words.
void tsan_dump(FILE* fp, const struct tsan_ctx* tc);

// ---- PAT (tsanalyze_pat.cpp) ----------------------------------------------------------------------------------

// Takes the section of a PAT packet: the first complete table fills the list of programs, later ones are compared.
void take_PAT(struct tsan_ctx* tc, std::span<const uint8_t> sec);
// Takes a section while no program is known. Requires: `pld` is a private copy (psi_private_copy) of a section that
// ends with its packet or before, here and below.
void process_PAT(struct tsan_ctx* tc, uint8_t* pld);
// Takes a section when programs are known, and compares the table when it is complete. True if the comparison ran
// and left no trace.
bool another_PAT(struct tsan_ctx* tc, uint8_t* pld);
// The index of a PID, or -1.
ssize_t find_pid(const unsigned* pids, size_t count, unsigned pid);
// Empties both tables; what they held is not freed.
void init_pat_tables(struct tsan_ctx* tc);
// Frees both tables.
void free_pat_tables(struct tsan_ctx* tc);

// ---- PMT (tsanalyze_pmt.cpp) ----------------------------------------------------------------------------------

// Takes the section of a PMT packet for the current program: the first one fills the stream table, later ones are
// compared with the text in use.
void take_PMT(struct tsan_ctx* tc, std::span<const uint8_t> sec, unsigned pid);
// Fills the current program's stream table. Requires: `pld` is a private copy that pmt_fit took, here and below.
void process_PMT(struct tsan_ctx* tc, uint8_t* pld, unsigned pid);
// Non-zero if the PMT's text differs from the one in use; the new text then takes its place, behind an alert. The
// section's bytes `sec` are noted as those of the text in use. Without memory it counts as the same.
int cmp_PMT(struct tsan_ctx* tc, uint8_t* pld, unsigned pid, std::span<const uint8_t> sec);
// Rebuilds the stream table; a stream that stays under its PID keeps its counters.
void update_PMT(struct tsan_ctx* tc, uint8_t* pld, unsigned pid);
// Makes a private copy of a PMT section safe to walk and print: `avail` bytes of it came with the packet. One that
// runs past them is cut where they end, its length fields with it. Null if that is done; otherwise the reason, in
// words, why its own lengths can't hold (tsanalyze_pmtfit.cpp).
const char* pmt_fit(uint8_t* pld, size_t avail);
// Class of a stream_type: 'V', 'A', 'S', or '?' for one that is not tracked.
char code2stype(uint8_t scode);
// The index of the first stream with a PID, or -1.
ssize_t find_stream(const struct stream_info* stm, size_t count, unsigned pid);
// The words for a stream_type, with blanks as '_'. Valid until the next call.
const char* get_streamtype_txt(uint8_t i_stream_type);

// ---- continuity (tsanalyze_cc.cpp) ----------------------------------------------------------------------------

inline constexpr int CC_MODULUS = 16;
inline constexpr int CC_IN_SEQUENCE = -1; // cc_alert_ctx::nmlr

constexpr int next_cc(int cc)
{
    return cc == CC_MODULUS - 1 ? 0 : cc + 1;
}
static_assert(next_cc(15) == 0 && next_cc(3) == 4);

// A counter out of sequence: a restart or a break.
[[gnu::cold]] void report_break(struct tsan_ctx* tc, struct cc_info* info, unsigned pid, int cc);
[[gnu::cold]] void trace_cc(struct tsan_ctx* tc, unsigned pid, int cc);

// Checks the counter of a payload packet. Requires: the PID is in the current program's table (asserted).
inline void cc_track(struct tsan_ctx* tc, unsigned pid, int cc)
{
    // The packet's own stream is the first one with its PID, which is what a search would find.
    const struct stream_info* own = tc->dat.stream;
    const ssize_t i =
        own != nullptr && own->pid == pid ? tc->dat.istm : find_stream(prog(tc)->stm, prog(tc)->nstreams, pid);
    // clang-format off
    assert(i >= 0 && i < (ssize_t)prog(tc)->nstreams);
    // clang-format on
    struct cc_info* info = &prog(tc)->stm[i].cc;
    if (info->value != -1) {
        if (cc == next_cc(info->value))
            tc->last_cca.nmlr = CC_IN_SEQUENCE;
        else
            report_break(tc, info, pid, cc);
    }
    info->value = cc;
    if (tc->cfg.trk.cc_track) trace_cc(tc, pid, cc);
}

// ---- clocks (tsanalyze_clock.cpp) -----------------------------------------------------------------------------

// Takes the PCR of a packet for which pkt_has_pcr holds.
void pcr_intake(struct tsan_ctx* tc, const uint8_t* pkt);
// Takes PTS and DTS from a PES header. Requires: is_pes_pkt(pld); `si` is the packet's stream.
void update_pts_dts(struct tsan_ctx* tc, std::span<const uint8_t> pld, struct stream_info* si);
// True if the packet's stream has a timestamp that waits to be measured. The stream that carries the clock is not
// measured by it. Requires: a current program and stream, here and below.
inline bool has_fresh_stamps(const struct tsan_ctx* tc, unsigned pid)
{
    const struct stream_info* si = tc->dat.stream;
    return pid != prog(tc)->pcr_pid && (si->pts_updated || si->dts_updated);
}
// Measures what the packet's stream has newly got: the part of analyze_pkt behind the continuity step.
// Requires: has_fresh_stamps(tc, pid).
void check_timestamps(struct tsan_ctx* tc, const uint8_t* pkt);

// ---- silence (tsanalyze_silence.cpp) --------------------------------------------------------------------------

// Looks for tracks without packets, if it is time or `forced`.
void check_pcount(struct tsan_ctx* tc, bool forced);
// Arms the check again, unless it is off for good.
void reset_ndat_pcount(struct tsan_ctx* tc);

} // namespace tsan_int

#endif // TAVRIN_TSANALYZE_INT_H
