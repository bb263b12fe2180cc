// The application: settings, run-time state, start-up, the capture loop and what hangs on it.
//
// One process watches one source. `g_cfg` holds the settings, `g_ctx` what the run owns; apart from these two only
// the log channels and the signal flags (util.h) are global. The life of a process is
//     setup_config -> runtime_setup -> init_kvti_ctx -> run_app -> app_shutdown
// where app_shutdown runs in every case. Words used here:
//   ring        the memory the source is read into (mmr.h); it always holds the newest stretch of the stream
//   feed        the way of the bytes just read, from the ring into the analyzer (analyze_input)
//   carry-over  the incomplete packet at the end of a read, kept in `abuf` for the next one
//   tail        what arrives between the request of a delayed snapshot and its taking
//   layer       where a setting comes from: built-in value, configuration file, command line, in rising order
//
// Units: sizes in bytes unless the name says `_mb` (2^20 bytes); times in seconds, or ms where the name says so.
// Ownership: `g_ctx` owns source, ring, analyzer and carry-over buffer; destroy_kvti_ctx frees them all. Pointers
// into the ring are valid until the ring has taken in about its own size more.
// Results: 0 for success; a failure is negative, or a positive errno value. Only setup_config, usage and the
// version option leave the process (exit(1)); everything else returns.
// One thread. The three handlers (exit_on_sig, snapshot_on_sig, catch_alarm) set flags and write one log line;
// nothing else here may run in a signal handler.
#ifndef TAVRIN_APP_H
#define TAVRIN_APP_H

#include "common/appcfg.h"
#include "mmr.h"
#include "tavrin/tsanalyze.h"
#include "tvtypes.h"
#include "uri.h"
#include "wopen.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <type_traits>

// ---- constants ------------------------------------------------------------------------------------------------

// Sizes of the fixed text fields, terminating zero included.
inline constexpr size_t KVT_PATH_MAX = 128;
inline constexpr size_t KVT_NAME_MAX = 16;

// Built-in settings that stand when neither file nor command line says otherwise.
enum kvt_defaults : int {
    D_KVT_MAX_LOGSZ = 4,     // Mb per log file
    D_KVT_MAX_FILES = 4,     // rotated log files kept
    D_KVT_CACHE_MB = 8,      // ring size
    D_KVT_TAIL_MB = 2,       // tail of a delayed snapshot
    D_KVT_TAIL_MS = 1000,    // wait of a delayed snapshot
    D_KVT_READ_TMOUT_MS = 0, // no receive time-out
};

// Least number of bytes that the ring must offer to the source opener.
inline constexpr size_t TAILBUF_SIZE = 1024;

// Least space for a read: with less the ring could cut a datagram short.
inline constexpr size_t KVT_MIN_READ = 1400;
inline constexpr size_t KVT_DEFAULT_MIN_READ = 4096;

// Read modes: one datagram per read, or as much of a stream as there is.
inline constexpr union n32_tag SM_PKT = {.num = 0x544b50}; // "PKT"
inline constexpr union n32_tag SM_STM = {.num = 0x4d5453}; // "STM"
static_assert(SM_PKT.num == ('P' | 'K' << 8 | 'T' << 16));
static_assert(SM_STM.num == ('S' | 'T' << 8 | 'M' << 16));

// ---- records --------------------------------------------------------------------------------------------------

// Settings. Filled by setup_config, partly replaced by a reload of the file.
struct kvti_cfg {
    char config_path[KVT_PATH_MAX]; // file that was loaded; the reload check watches it; empty: none
    struct log_cfg log;             // application log
    struct log_cfg alert_log;       // alert log
    struct rt_cfg rt;               // pid file, user, daemon, quiet
    char src_url[KVT_PATH_MAX];     // source URL
    int read_tmout_ms;              // receive time-out on the source, ms; 0: none
    size_t cache_sz_mb;             // ring size, Mb
    size_t tail_sz_mb;              // tail that a delayed snapshot waits for, Mb
    size_t tail_tm_ms;              // time that a delayed snapshot waits, ms
    char mcast_ifc[KVT_NAME_MAX];   // multicast interface: name or tag
    size_t min_read_bytes;          // bytes that the ring keeps vacant for the next read
    char snap_dir[KVT_PATH_MAX];    // directory of snapshot files
    char snap_pfx[KVT_NAME_MAX];    // prefix of snapshot file names
    size_t report_tput_sec;         // period of throughput reports, seconds; 0: none
    struct tsan_config tsa;         // analyzer settings; tsa.source is the source tag
    uint64_t pkt_reset_idx;         // packet index at which the numbering restarts; 0: never
    size_t reload_period;           // seconds between checks of the file; 0: never
    bool use_http10_get;            // ask HTTP sources with HTTP/1.0
    bool lost_sync_alert;           // raise an alert when the ring reports lost sync
    unsigned int instance_num;      // numeric ID of this source; replaces {N} in log paths
};

// Throughput counters.
struct kvt_tput_stats {
    double total_bytes; // bytes read since the start
    double total_pkts;  // reads since the start: one read counts as one datagram, whatever the source
    double total_sec;   // seconds covered by reports so far
    double lavg_speed;  // bytes a second during the last period
    double gavg_speed;  // bytes a second since the first read
};

// Run-time state.
struct kvti_ctx {
    bool is_ready;             // true between a successful init_kvti_ctx and destroy_kvti_ctx
    struct usock_ctx uc;       // source context
    int ssock;                 // source descriptor; -1 when closed
    union n32_tag mode;        // SM_PKT or SM_STM
    mmr_t mmr;                 // the ring
    bool waiting_alarm;        // an interval timer is armed for a snapshot
    bool must_count_tail;      // bytes read are being counted towards a delayed snapshot
    size_t tail_size;          // bytes read since the delayed snapshot was requested
    struct kvt_tput_stats tps; // throughput counters
    tsan_t tc;                 // the analyzer
    uint8_t* abuf;             // carry-over buffer, allocated on first need
    size_t abuf_len;           // its size in bytes
    time_t config_load_tm;     // when the file was last loaded
    time_t config_mtime;       // last seen modification time of the file
    struct timespec snap_tm;   // time of the snapshot request; names the file
};

// All zero at start is a fact, not a hope: neither record has a constructor.
static_assert(std::is_trivially_default_constructible_v<kvti_cfg> && std::is_standard_layout_v<kvti_cfg>);
static_assert(std::is_trivially_default_constructible_v<kvti_ctx> && std::is_standard_layout_v<kvti_ctx>);
static_assert(sizeof(kvt_tput_stats) == 5 * sizeof(double));

extern struct kvti_cfg g_cfg;
extern struct kvti_ctx g_ctx;

// True for the kinds of source that are read datagram by datagram: UDP and RTP.
inline bool is_dgram_kind(int url_kind)
{
    return url_kind == URI_UDP || url_kind == URI_RTP;
}

// ---- command line (app_opt.cpp) -------------------------------------------------------------------------------

// Builds g_cfg: built-in values, file, command line, mandatory checks. Returns 0; every failure is told on stderr
// and leaves with exit(1). By design -q does not survive a file, and -R, -D and -x are in the guide only.
// Requires: argv[0] to argv[argc - 1] not null; the log initialised (glog_init).
int setup_config(int argc, char** argv);
// Prints identity, option guide and build information on stderr and leaves with exit(rc).
[[noreturn]] void usage(int rc);
// Takes "{mb}:{ms}" and sets the tail's size and time in g_cfg. 0; -12 without memory, -22 without a colon, -34 for
// 683 Mb and above; the last two are told on stderr and nothing is set. By design a size below 1 means 682 Mb.
// Requires: param not null.
int get_tail_params(const char* param);

// ---- start-up, loop, shutdown (app.cpp) -----------------------------------------------------------------------

// Signals, daemon, logs, pid file, in this order. 0, or the result of the step that failed, which is logged.
int runtime_setup();
// Analyzer, ring, source. 0, or the result of the step that failed; what was made stays for destroy_kvti_ctx.
// Requires: not ready yet (a plain assertion otherwise).
int init_kvti_ctx();
// The capture loop: reads the source into the ring until g_quit, the end of the data or a failing step. 0 for the
// first two, otherwise the failure; it is logged with the name of the step. How many bytes the ring keeps
// vacant is taken from g_cfg once, at the start: a reload does not change it for the run.
// Requires: init_kvti_ctx returned 0.
int run_app();
// Acts on at most one pending snapshot flag; the flag stays set on failure, so that the next call tries again.
int process_signals();
// Frees what init_kvti_ctx made. Always 0.
int destroy_kvti_ctx();
// Destroys the context and removes the pid file. Runs once, whatever came before. Always 0.
int app_shutdown();

// Signal handlers: quit (TERM, INT, QUIT), snapshot (USR2, URG), alarm (ALRM).
void exit_on_sig(int signo);
void snapshot_on_sig(int signo);
void catch_alarm(int signo);

// ---- analysis feed (app_feed.cpp) -----------------------------------------------------------------------------

// Takes the bytes just written to the ring to the analyzer. 0 (also while the stream is not recognised yet); 11,
// -1, -9 or -12 end the run, and are logged. An incomplete packet at the end is carried over.
// Requires: buf points to buflen bytes that mmr_iput has taken in; ring and analyzer exist.
int analyze_input(uint8_t* buf, size_t buflen);
// Walks one segment and hands its packets to the analyzer. Returns their number, -22 for a bad RTP head or
// footer, -5 when the analyzer refuses a packet or has gone without metadata for a minute (then g_quit is set).
// By design an RTP packet counts as one packet: only the first TS packet behind its head is analyzed.
// Requires: seg points to seglen readable bytes, info is the ring's picture with ts_len not 0.
ssize_t seg_process(const struct mm_info* info, const uint8_t* seg, size_t seglen);

// ---- snapshots (app_snap.cpp) ---------------------------------------------------------------------------------

// Decides how to act on the request in g_snapshot: at once, or after a tail. 0 when the request has been dealt
// with (a request during a pending one is dropped with a warning), otherwise a failure, and the request stands.
int process_snapshot();
// Writes the ring's content to a new file now and ends any waiting. 0, or -1 if the file can't be made; by design
// a failed write counts as done. `suffix` is the reason: "N" now, "A" alarm, "B" byte count.
int take_snapshot(const char* suffix);
// Creates the file for g_ctx.snap_tm and leaves its path in `fpath`: at most `len` characters, 127 in any case, and
// a terminating zero. The descriptor, or -1; a path is never cut. By design the suffix takes no part in the name.
// Requires: fpath has room for len + 1 bytes.
int mk_snapshot_file(char* fpath, size_t len, const char* suffix);
// Arms the one-shot timer for tail_tm_ms. 0, or -1 (logged).
// Requires: no alarm pending (a plain assertion otherwise).
int schedule_alarm();
// Disarms the timer if it is armed; a failure is logged and leaves it counted as armed.
void clear_alarm();

// ---- configuration (app_cfg.cpp) ------------------------------------------------------------------------------

// Clears the record and sets the built-in values. Always 0.
int init_kvti_config(struct kvti_cfg* cfg);
// Reads the file into cfg; with `reload` only the settings that may change while running. 0, or an error (logged;
// a file that can't be opened is told on stderr). cfg may be changed in part when it fails.
int load_kvti_config(const char* path, struct kvti_cfg* cfg, bool reload);
// Takes the settings from g_libcfg, which holds a parsed file. 0, or the first failure; sets g_ctx.config_load_tm.
// By design a string key of the application that is too long is logged and otherwise passed over.
int load_config(struct kvti_cfg* cfg, bool reload);
// Loads the file again if the reload period has passed and the file has grown newer. 0, or an error; then g_cfg is
// untouched.
int config_reload_check();
// Shows the settings as text.
void dump_config(FILE* fp, const struct kvti_cfg* cfg);

// ---- throughput (app_tput.cpp) --------------------------------------------------------------------------------

// Counts one read of nbytes and reports when the period has passed.
// Requires: report_tput_sec above 0 (a plain assertion otherwise).
void update_tps(size_t nbytes);
// Writes one report: a line at info, and a STAT TPS record on the alert log. A null or empty src shows as "-".
void output_tps(const char* src, const struct kvt_tput_stats* tps);

#endif // TAVRIN_APP_H
