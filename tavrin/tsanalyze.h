// The stream analyzer: takes a transport stream packet by packet and reports what deviates.
//
// It keeps a picture of the stream: the *programs* that the PAT lists, the audio, video and subtitle *streams* that
// each PMT lists, and per stream the continuity counter and the last timestamps. A deviation is an *alert*: a human
// line on g_log and a machine line on g_access_log. Counts and aggregates become *statistics*: a block of text, and
// STAT records on g_access_log. The packets themselves are only read.
//
// Words: a *datagram* is one segment of the feed (tsan_next_seg); the *packet index* numbers packets from 1 and may be
// moved by the application; a *packet tag* is the short text that places an event in the stream, quoted by alerts; a
// packet is *processed* when its PID is in the stream table and *analyzed* when the checks took it. In the *skip
// phase*, until the first packet has been analyzed, packets pass uncounted.
//
// Units: limits in ms, packets or seconds as each field says; 0 switches a check off. Timestamps in 90 kHz ticks.
// Ownership: tsan_init allocates a context, tsan_free releases it; the settings are copied. Nothing that a call takes
// is kept. Results: 0, or a negative value that the function names; a null handle when there is no memory.
// By design hostile tables may end the process: a PID of 0 in the first PAT, a PAT without entries, a merged PAT of 32
// programs or a PCR PID of 0 fail plain assertions.
// One thread, no locks; nothing here may run in a signal handler.
#ifndef TAVRIN_TSANALYZE_H
#define TAVRIN_TSANALYZE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

// ---- constants ------------------------------------------------------------------------------------------------

inline constexpr size_t MAX_PMTS = 32;           // programs per context
inline constexpr size_t MAX_NSTREAMS = 64;       // streams per program
inline constexpr size_t PKTIDX_LEN = 64;         // bytes of a packet tag
inline constexpr size_t TIMESTR_SZ = 64;         // bytes of a time string
inline constexpr size_t MAX_STAG_LEN = 64;       // bytes of the source tag
inline constexpr size_t MAX_PMT_TXT = 4096;      // bytes of a PMT's text form
inline constexpr size_t D_MAX_NO_ANALYZE = 9000; // default of max_skipped_pkts
inline constexpr size_t D_MAX_DELTA_MS = 500;    // default of max_pdts_delta_ms
inline constexpr size_t D_PCOUNT = 10000;        // default of max_ndat_pcount
inline constexpr int TSAN_NO_METADATA = -16;     // tsan_process: the skip phase ran out (the negative of EBUSY)

// ---- settings -------------------------------------------------------------------------------------------------

// Switches for trace lines and table dumps; none of them changes how a packet is treated.
struct tracking_opt {
    bool sdt_ignore;  // a line for each SDT packet
    bool misc_ignore; // a line for each packet of an unknown PID
    bool pdts_update; // a line for each new PTS or DTS
    bool pat_pmt_pkt; // a line for each PAT and PMT packet
    bool pcr_update;  // a line for each PCR
    bool cc_track;    // a line for each continuity check
    bool pmt_diff;    // dumps of old and new PMT
    bool pat_diff;    // dumps of old and new PAT
};

struct tsan_config {
    bool is_enabled;           // false: packets are counted and nothing is checked
    char source[MAX_STAG_LEN]; // source tag, names the stream in every line
    size_t max_skip_pkts;      // packets without analysis before tsan_process returns TSAN_NO_METADATA
    size_t max_pdts_delta;     // ms, audio to video; 0 also means that no reference stream is chosen
    size_t max_pcr_delta;      // ms, audio to PCR
    size_t pcr_freq_ms;        // ms between two PCRs
    bool access_log_alerts;    // write machine lines of alerts
    size_t dump_stats_period;  // seconds
    size_t max_ndat_pcount;    // packets that a track gets to show up
    bool cc_track;             // check continuity at all
    long cc_max_ms0_ms;        // ms between two jumps to 0 from which the second is a restart; 0: none is
    struct tracking_opt trk;
    bool no_rlog; // write no human lines of alerts; by design nothing sets it
};

struct config_setting_t;

// Reads the group kvt.stream_analyzer. 0, or the failed reader's code after an error line; what was read before the
// failure stays. With `enabled` false or missing nothing else is read, not even a default.
int tsan_load_config(struct config_setting_t* s, struct tsan_config* cfg);
// Writes the settings as text under a title, or "disabled".
void tsan_dump_config(FILE* fp, const char* title, const struct tsan_config* cfg);
// One setting from the command line: "on", "off", or "{key}={number}". 0; 22 for a text that is none of these or a
// negative number; an errno value without memory. An unknown key changes nothing.
int tsan_cli_opt(const char* optstr, struct tsan_config* cfg);
// Trace switches from the command line: "all", or any text that holds their names. Always 0.
int tsan_xtrack_opt(const char* optstr, struct tsan_config* cfg);

// ---- context --------------------------------------------------------------------------------------------------

struct tsan_ctx;
typedef struct tsan_ctx* tsan_t;

// Creates a context. `source` (may be null) replaces the source tag of `cfg`; at most 63 bytes of it are kept.
// Null without memory: *err (if err is given) is then 12.
// Requires: cfg not null.
tsan_t tsan_init(const char* source, const struct tsan_config* cfg, int* err);
// Releases a context. By design one whose source tag is empty counts as freed already: it gets a warning and stays.
void tsan_free(tsan_t t);

// ---- packets --------------------------------------------------------------------------------------------------

// Takes one packet of 188 bytes. 0; -1 if its first byte is not the sync byte (it is counted all the same);
// TSAN_NO_METADATA from the moment that the skip phase ran out until a packet is analyzed, with an error line at most
// once in 11 seconds.
// Requires: 188 readable bytes at `pkt`; nothing behind them is read.
int tsan_process(tsan_t t, const uint8_t* pkt);
// To be called ahead of the first packet of each datagram.
// By design only the program of the packet before counts the datagram, and none does if that packet had no program.
void tsan_next_seg(tsan_t t);
// The index of the packet taken last; 0 before the first.
uint64_t tsan_get_pidx(tsan_t t);
// Moves the packet index, with a warning line. The total of packets stays.
void tsan_set_pidx(tsan_t t, uint64_t new_pidx);

// ---- stream-wide alerts ---------------------------------------------------------------------------------------

// Reports that the feed lost the packet rhythm. 0, or -1 from the tenth time within a period on: the run should end.
int tsan_alert_lostsync(tsan_t t);
// Looks for silent tracks now, whatever the packet counts say.
void tsan_check_ndat(tsan_t t);

// ---- statistics -----------------------------------------------------------------------------------------------

// Writes both reports if the period has passed: the text to `fp` (null: none), the records to g_access_log. True if
// they were due.
bool tsan_check_dump_stats(FILE* fp, tsan_t t);
// Writes the report for people.
void tsan_dump_stats(FILE* fp, tsan_t t);
// Writes the STAT records on g_access_log.
void tsan_alog_stats(tsan_t t);
// Begins a new local span in every program's aggregates.
void tsan_reset_local_stats(tsan_t t);

#endif // TAVRIN_TSANALYZE_H
