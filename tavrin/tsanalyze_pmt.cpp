// PMT tracking: each program's stream table, the streams that the timestamp checks lean on, and PMT changes.
//
// A change is found by comparing rendered text, so whatever the printer shows counts: program, version, PCR PID, each
// entry and every descriptor. The text belongs to the slot, like the statistics: a slot that comes to serve another
// program's PMT reports one difference, and streams that keep their PID keep their counters.
//
// Nearly every PMT packet repeats the one before it. The text is a function of the section's bytes alone, so a section
// whose bytes are those that the text was rendered from can't differ from it. The one thing that rendering does beside
// the text, the warning about a full buffer, keeps a section from being known by its bytes.
#include "log.h"
#include "syswrap.h"
#include "tavrin/ts_bits.h"
#include "tavrin/tsanalyze_int.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <memory>

TV_LOG_MODULE(0)

using namespace tsan_int;

namespace
{

constexpr ssize_t CTXT_LOW_ROOM = 15; // room at which a text buffer drops a line, with a warning
constexpr size_t TYPE_TEXT_MAX = 80;  // bytes of a stream type's words
constexpr size_t PMT_HEAD_FIELDS = 3; // bytes up to the end of the section's length field

struct free_deleter {
    void operator()(void* p) const { free(p); }
};

struct type_class {
    uint8_t scode;
    char stype;
};

constexpr std::array<type_class, 13> TYPE_CLASSES = {{
    {0x01, 'V'},
    {0x02, 'V'},
    {0x03, 'A'},
    {0x04, 'A'},
    {0x06, 'S'},
    {0x0f, 'A'},
    {0x10, 'V'},
    {0x11, 'A'},
    {0x1b, 'V'},
    {0x24, 'V'},
    {0x42, 'V'},
    {0x81, 'A'},
    {0x87, 'A'},
}};
static_assert(std::is_sorted(TYPE_CLASSES.begin(), TYPE_CLASSES.end(),
                             [](const type_class& a, const type_class& b) { return a.scode < b.scode; }));

// Stands in for a conversion of a descriptor's text, which the printer calls for some encodings without asking whether
// there is one: the bytes as they are.
char* copy_text(void*, const char*, char* text, size_t len)
{
    auto* copy = static_cast<char*>(malloc(len + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, len);
    copy[len] = '\0';
    return copy;
}

void render_PMT(ctxt_spec* txt, uint8_t* pld)
{
    pmt_print(pld, add_ctxt_line, txt, copy_text, nullptr, PRINT_TEXT);
}

// Rendering that filled the buffer to here may have dropped a line, and said so: it has to say so again.
bool rendered_in_full(const ctxt_spec* txt)
{
    return txt->buflen - txt->textlen - 2 > CTXT_LOW_ROOM;
}

size_t count_entries(uint8_t* pld)
{
    size_t count = 0;
    while (count < MAX_NSTREAMS && pmt_get_es(pld, uint8_t(count)) != nullptr)
        ++count;
    return count;
}

void copy_stm_stats(stream_info* ds, const stream_info* ss)
{
    ds->pcount = ss->pcount;
    ds->acount = ss->acount;
    ds->pts_updated = ss->pts_updated;
    ds->dts_updated = ss->dts_updated;
    ds->last_pts = ss->last_pts;
    ds->pts_pktnum = ss->pts_pktnum;
    ds->last_dts = ss->last_dts;
    ds->dts_pktnum = ss->dts_pktnum;
    ds->cc = ss->cc;
}

// The program's first video stream becomes the reference and stays it, by design also when a changed PMT reorders or
// removes streams.
void choose_reference(tsan_ctx* tc, ssize_t idx, const char* func)
{
    const stream_info& stm = prog(tc)->stm[idx];
    if (tc->cfg.max_pdts_delta == 0 || stm.stype != 'V') return;
    if (prog(tc)->ref_idx < 0) {
        prog(tc)->ref_idx = idx;
        tv_log(ll::debug, "%s: [%s] ref_idx=%zd for %c-stream pid=%u\n", func, tc->cfg.source, idx, stm.stype, stm.pid);
    } else {
        tv_log(ll::warning, "%s: 1+ video: ref_idx already set (to %zd)\n", func, prog(tc)->ref_idx);
    }
}

ssize_t add_stream(tsan_ctx* tc, unsigned pid, uint8_t scode)
{
    program_info* pg = prog(tc);
    const size_t idx = pg->nstreams;
    const char stype = code2stype(scode);
    if (stype == '?') {
        tv_log(ll::debug, "%s: [%s] skipping non-AV PES at %s\n", __func__, tc->cfg.source, tag_text(tc));
        return -1;
    }
    if (idx >= MAX_NSTREAMS) {
        tv_log(ll::error, "%s: [%s] too many streams: %zu\n", __func__, tc->cfg.source, idx);
        return -1;
    }
    // What stood in the slot before is another stream's.
    stream_info& stm = pg->stm[idx];
    stm = {};
    stm.pid = pid;
    stm.stype = stype;
    stm.scode = scode;
    stm.cc.value = -1;
    const bool has_pcr = pid == pg->pcr_pid;
    if (has_pcr) {
        pg->pcr_idx = ssize_t(idx);
        tv_log(ll::debug, "%s: [%s] pcr_idx=%zd for %c-stream pid=%u\n", __func__, tc->cfg.source, pg->pcr_idx, stype,
               pid);
    }
    choose_reference(tc, ssize_t(idx), __func__);
    ++pg->nstreams;
    tv_log(ll::debug, "%s: added stream[%d]:pid=%u (%c/%s) at %s, %zu streams total\n", __func__, int(idx), pid, stype,
           has_pcr ? "PCR" : "", tag_text(tc), pg->nstreams);
    return ssize_t(idx);
}

ssize_t add_pmt_stream(tsan_ctx* tc, const uint8_t* pmt_n)
{
    const unsigned pid = pmtn_get_pid(pmt_n);
    const uint8_t scode = pmtn_get_streamtype(pmt_n);
    tv_log(ll::info, "[%s] ADD (pid=%u, type=%u) [%s]\n", tc->cfg.source, pid, unsigned{scode},
           pmt_get_streamtype_txt(scode));
    return add_stream(tc, pid, scode);
}

void dump_text(const char* title, const ctxt_spec* txt)
{
    if (FILE* fp = log_fp(&g_log); fp != nullptr) dump_ctxt(fp, title, txt);
}

void alert_pmt_diff(tsan_ctx* tc, unsigned pid, const ctxt_spec* s, size_t count, unsigned pcr_pid)
{
    program_info* pg = prog(tc);
    if (!tc->cfg.no_rlog)
        tv_log(ll::warning, "ALERT PMT-DIFF [%s] track-count: %zu/%zu pid=%u pcr-pid=%u at %s\n", tc->cfg.source,
               pg->nstreams, count, pid, pcr_pid, tag_text(tc));
    if (tc->cfg.trk.pmt_diff) {
        dump_text("Older PMT:", &pg->txt_pmt);
        dump_text("New PMT:", s);
    }
    if (tc->cfg.access_log_alerts)
        tv_record(&g_access_log, "ALERT PMT-DIFF %s %u %zu %zu %u %s\n", tc->cfg.source, pid, pg->nstreams, count,
                  pcr_pid, tag_text(tc));
    ++pg->alert.pmt_diff;
}

// A place to force differences from, in a debugger.
bool debug_pmt_cmp(const tsan_ctx*)
{
    return false;
}

void trace_cmp(tsan_ctx* tc, bool differs, unsigned pid, size_t count)
{
    if (!tc->cfg.trk.pmt_diff) return;
    tv_log(ll::info, "%s: %s pid=%u %zu/%zu\n", "cmp_PMT", differs ? "MISMATCH" : "ok", pid, prog(tc)->nstreams, count);
}

// Takes the section as the one that the program's text shows, so that its bytes alone will tell it next time.
void know_by_bytes(program_info* pg, std::span<const uint8_t> sec, size_t count)
{
    if (rendered_in_full(&pg->txt_pmt))
        memo_keep(&pg->memo, sec, count);
    else
        memo_drop(&pg->memo);
}

// The section without what follows it in its packet.
std::span<const uint8_t> without_rest(std::span<const uint8_t> sec)
{
    if (sec.size() < PMT_HEAD_FIELDS) return sec;
    return sec.first(std::min(sec.size(), PMT_HEAD_FIELDS + psi_get_length(sec.data())));
}

} // namespace

namespace tsan_int
{

char code2stype(uint8_t scode)
{
    for (const type_class& t : TYPE_CLASSES)
        if (t.scode == scode) return t.stype;
    return '?';
}

ssize_t find_stream(const stream_info* stm, size_t count, unsigned pid)
{
    for (size_t i = 0; i < count; ++i)
        if (stm[i].pid == pid) return ssize_t(i);
    return -1;
}

const char* get_streamtype_txt(uint8_t i_stream_type)
{
    static char words[TYPE_TEXT_MAX];
    const char* txt = pmt_get_streamtype_txt(i_stream_type);
    if (strpbrk(txt, " \t") == nullptr) return txt;
    const size_t len = strnlen(txt, sizeof(words) - 1);
    std::replace_copy_if(
        txt, txt + len, words, [](char c) { return c == ' ' || c == '\t'; }, '_');
    words[len] = '\0';
    return words;
}

void process_PMT(tsan_ctx* tc, uint8_t* pld, unsigned pid)
{
    tv_log(ll::info, "Adding streams from PMT (pid%u) at %s\n", pid, tag_text(tc));
    prog(tc)->pcr_pid = pmt_get_pcrpid(pld);
    tv_log(ll::info, "[%s] PMT lists PCR pid=%u at %s\n", tc->cfg.source, prog(tc)->pcr_pid, tag_text(tc));
    assert(prog(tc)->pcr_pid);
    size_t count = 0;
    for (size_t i = 0; i < MAX_NSTREAMS; ++i) {
        const uint8_t* es = pmt_get_es(pld, uint8_t(i));
        if (es == nullptr) break;
        if (add_pmt_stream(tc, es) != -1) ++count;
    }
    pid_map_rebuild(tc);
    tv_log(ll::info, "Added %zu streams from PMT (pid%u) at %s\n", count, pid, tag_text(tc));
    if (count != 0) prog(tc)->curr_pmt_pid = pid;

    ctxt_spec* txt = &prog(tc)->txt_pmt;
    if (txt->buf == nullptr && open_ctxt(txt, MAX_PMT_TXT) == 0) render_PMT(txt, pld);
    if (!tc->cfg.trk.pmt_diff) return;
    tv_log(ll::info, "%s: PMT pid=%u, %zu entries\n", __func__, pid, count);
    dump_text("Using PMT:", txt);
}

int cmp_PMT(tsan_ctx* tc, uint8_t* pld, unsigned pid, std::span<const uint8_t> sec)
{
    program_info* pg = prog(tc);
    const size_t count = count_entries(pld);
    ctxt_spec new_txt{};
    const bool is_open = open_ctxt(&new_txt, MAX_PMT_TXT) == 0;
    if (is_open) render_PMT(&new_txt, pld);
    const bool differs = is_open && (cmp_ctxt(&pg->txt_pmt, &new_txt) != 0 || debug_pmt_cmp(tc));
    if (differs) {
        alert_pmt_diff(tc, pid, &new_txt, count, pmt_get_pcrpid(pld));
        replace_ctxt(&pg->txt_pmt, &new_txt);
        reset_ndat_pcount(tc);
    }
    close_ctxt(&new_txt);
    if (is_open) know_by_bytes(pg, sec, count);
    trace_cmp(tc, differs, pid, count);
    return differs ? 1 : 0;
}

void update_PMT(tsan_ctx* tc, uint8_t* pld, unsigned pid)
{
    program_info* pg = prog(tc);
    const size_t old_n = pg->nstreams;
    const std::unique_ptr<stream_info[], free_deleter> old(
        static_cast<stream_info*>(W_calloc(__func__, old_n, sizeof(stream_info))));
    if (!old) return;
    std::copy_n(pg->stm, old_n, old.get());
    pg->nstreams = 0;
    process_PMT(tc, pld, pid);

    size_t matched = 0;
    for (size_t i = 0; i < pg->nstreams; ++i) {
        const ssize_t k = find_stream(old.get(), old_n, pg->stm[i].pid);
        if (k < 0) continue;
        copy_stm_stats(&pg->stm[i], &old[size_t(k)]);
        tv_log(ll::debug, "%s: copied stats from old[%d] to new[%zu]\n", __func__, int(k), i);
        ++matched;
    }
    tv_log(ll::debug, "%s: %zu old/new entries matched\n", __func__, matched);
}

void take_PMT(tsan_ctx* tc, std::span<const uint8_t> sec, unsigned pid)
{
    program_info* pg = prog(tc);
    sec = without_rest(sec);
    if (pg->nstreams != 0 && !tc->plain_psi && memo_matches(&pg->memo, sec)) {
        trace_cmp(tc, false, pid, pg->memo.count);
        return;
    }
    uint8_t* pld = psi_private_copy(tc, sec);
    if (const char* why = pmt_fit(pld, sec.size()); why != nullptr) {
        tv_log(ll::error, "%s: [%s] passing over a PMT section (pid%u), %s at %s\n", __func__, tc->cfg.source, pid, why,
               tag_text(tc));
        return;
    }
    if (pg->nstreams == 0) {
        const bool first_text = pg->txt_pmt.buf == nullptr;
        tv_log(ll::info, "[%s] will use PMT (pid%u) at %s\n", tc->cfg.source, pid, tag_text(tc));
        process_PMT(tc, pld, pid);
        if (first_text && pg->txt_pmt.buf != nullptr) know_by_bytes(pg, sec, count_entries(pld));
        return;
    }
    if (cmp_PMT(tc, pld, pid, sec) != 0) update_PMT(tc, pld, pid);
}

} // namespace tsan_int
