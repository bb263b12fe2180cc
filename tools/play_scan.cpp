// One road through a recording for both passes: a window slides over the file, and `next_packet` takes the packets out
// of it. A sync byte counts if another one, or an RTP head, stands where the next packet would begin in one of the
// known sizes; what follows a packet is passed over until the next one.
#include "play_scan.h"

#include "fdio.h"
#include "mpegts.h"
#include "rtp.h"
#include "util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

namespace
{

constexpr size_t WINDOW_BYTES = size_t{1} << 20;
constexpr size_t LOOKAHEAD = 2 * TS_MAX_PKTSIZE; // what may have to be seen of a packet and its successor
constexpr size_t PID_COUNT = 8192;
constexpr size_t PCR_AF_LEN = 7; // an adaptation field with a PCR is at least as long
constexpr size_t RECORD_PACKETS = 7;
constexpr size_t KEPT_DISTANCE = 2 * RECORD_PACKETS; // between the PCRs of an even clock: a record begins in between
constexpr uint8_t EXT_HEAD_BYTES = 4;                // of an RTP header extension
constexpr unsigned EXT_LEN_OFS = 2;

using bytes_view = std::span<const uint8_t>;
using packet_view = std::span<const uint8_t, TS_MIN_PKTSIZE>;
using packet = std::array<uint8_t, TS_MIN_PKTSIZE>;

struct window {
    int fd;
    std::vector<uint8_t> buf = std::vector<uint8_t>(WINDOW_BYTES);
    size_t at = 0;          // the next byte
    size_t end = 0;         // behind the last
    size_t passed = 0;      // bytes of the file that are in front of `at`
    size_t lock = SIZE_MAX; // the byte of the file behind the last packet
    bool is_eof = false;
    bool has_failed = false;

    bytes_view rest() const { return bytes_view(buf).subspan(at, end - at); }
    void pass(size_t count)
    {
        at += count;
        passed += count;
    }
};

// Has LOOKAHEAD bytes in the window, or all that the file has left.
bytes_view look(struct window* w)
{
    if (w->end - w->at >= LOOKAHEAD || w->is_eof) return w->rest();
    memmove(w->buf.data(), w->buf.data() + w->at, w->end - w->at);
    w->end -= w->at;
    w->at = 0;
    while (w->end < w->buf.size() && !w->is_eof) {
        const ssize_t n = nread(w->fd, reinterpret_cast<char*>(w->buf.data()) + w->end, w->buf.size() - w->end, 1);
        if (n <= 0 || g_quit) {
            w->is_eof = true;
            w->has_failed = n < 0 || g_quit;
        } else {
            w->end += static_cast<size_t>(n);
        }
    }
    return w->rest();
}

// Length of an RTP head with TS behind it, 0 if there is none. Nothing outside `b` is read.
size_t rtp_head_len(bytes_view b)
{
    if (b.size() < RTP_HDR_SIZE || (b[0] >> rtpf::version_shift) != RTP_V2) return 0;
    if ((b[rtpf::type_ofs] & rtpf::type_mask) != P_MPGTS) return 0;
    size_t len = RTP_HDR_SIZE + size_t{4} * (b[0] & rtpf::cc_mask);
    if (b[0] & rtpf::extension) {
        if (b.size() < len + EXT_HEAD_BYTES) return 0;
        len += EXT_HEAD_BYTES + size_t{4} * (size_t{b[len + EXT_LEN_OFS]} << 8 | b[len + EXT_LEN_OFS + 1]);
    }
    return len < b.size() && b[len] == MPEG_TS_SYNC ? len : 0;
}

// True if another packet, or the end, stands where one may behind this.
bool has_successor(bytes_view b)
{
    if (b.size() <= TS_MAX_PKTSIZE) return true; // the last one
    for (const size_t size : {size_t{188}, size_t{192}, size_t{204}, size_t{208}})
        if (b[size] == MPEG_TS_SYNC) return true;
    return rtp_head_len(b.subspan(TS_MIN_PKTSIZE)) > 0;
}

// The next packet, null at the end. Valid until the next call. Stray bytes are added to *stray.
const uint8_t* next_packet(struct window* w, size_t* stray)
{
    for (;;) {
        const bytes_view b = look(w);
        if (b.size() < TS_MIN_PKTSIZE) {
            *stray += b.size();
            return nullptr;
        }
        // Right behind a packet a sync byte is enough: the next packet may be damaged.
        if (b[0] == MPEG_TS_SYNC && (w->passed == w->lock || has_successor(b))) {
            w->pass(TS_MIN_PKTSIZE);
            w->lock = w->passed;
            return b.data();
        }
        const size_t head = rtp_head_len(b);
        w->pass(head > 0 ? head : 1);
        if (head == 0) ++*stray;
    }
}

bool has_good_pcr(packet_view p)
{
    return ts_has_pcr(p.data()) != 0 && p[tsf::af_len_ofs] >= PCR_AF_LEN;
}

// The step between two PCRs; false if the clock jumps.
bool regular_step(uint64_t from, uint64_t to, uint64_t* step)
{
    *step = (to + P2_33 - from) % P2_33;
    return *step > 0 && *step <= PCR_ONE_SEC;
}

// An index builder takes a step across the wrap for what it is only as far as a stream should make it.
bool wraps_wide(uint64_t from, uint64_t to)
{
    return to < from && to + P2_33 - from >= MAX_PCR_GAP;
}

// An index needs time for each record: so many ticks let the packets between two PCRs be spread over records.
bool has_time_for(double ticks, size_t packets)
{
    return ticks >= static_cast<double>(packets) / RECORD_PACKETS + 2;
}

// A stretch without a PCR ahead of the first, or behind the last, that is too long to be timed by one step's rounded
// rate.
bool is_long(size_t packets, double ticks_per_packet)
{
    return static_cast<double>(packets) * ticks_per_packet > MAX_PCR_GAP;
}

// What is noted of a PID while the recording is scanned.
struct pid_clock {
    size_t pcrs = 0;
    size_t first_pkt = 0;
    uint64_t last_pcr = 0;
    size_t last_pkt = 0;
    size_t least_distance = SIZE_MAX; // packets between two PCRs
    size_t oddities = 0;              // steps that an index builder can't use
    uint64_t ticks = 0;               // of all regular steps
    size_t packets = 0;               // that they took
};

void note_pcr(struct pid_clock* c, uint64_t pcr, size_t pkt)
{
    if (c->pcrs++ > 0) {
        uint64_t step = 0;
        const bool is_regular = regular_step(c->last_pcr, pcr, &step);
        if (!is_regular || wraps_wide(c->last_pcr, pcr) || !has_time_for(static_cast<double>(step), pkt - c->last_pkt))
            ++c->oddities;
        if (step == 0) return; // says nothing new: the time till the next one counts from the first of its kind
        if (is_regular) {
            c->ticks += step;
            c->packets += pkt - c->last_pkt;
        }
        c->least_distance = std::min(c->least_distance, pkt - c->last_pkt);
    } else {
        c->first_pkt = pkt;
    }
    c->last_pcr = pcr;
    c->last_pkt = pkt;
}

bool rewind_file(int fd)
{
    if (lseek(fd, 0, SEEK_SET) == 0) return true;
    perror("kvt-play: lseek");
    return false;
}

bool write_all(int fd, bytes_view b)
{
    while (!b.empty()) {
        const ssize_t n = nwrite(fd, reinterpret_cast<const char*>(b.data()), b.size(), FDIO_VERBOSE);
        if (n <= 0) {
            fprintf(stderr, "kvt-play: can't write to a temporary file: %s\n", strerror(errno));
            return false;
        }
        b = b.subspan(static_cast<size_t>(n));
    }
    return true;
}

// Packets on their way to a file.
struct packet_file {
    int fd;
    std::vector<uint8_t> kept = {};

    bool add(packet_view p)
    {
        if (fd < 0) return true;
        kept.insert(kept.end(), p.begin(), p.end());
        return kept.size() < WINDOW_BYTES || flush();
    }
    bool flush()
    {
        const bool ok = fd < 0 || write_all(fd, kept);
        kept.clear();
        return ok;
    }
};

// A file whose packets hold nothing but an even clock, made out of a stream's own.
struct clock_file {
    struct packet_file file;
    double ticks_per_packet;
    uint16_t pid;
    bool is_running = false; // the stream's own clock has begun
    uint64_t last_pcr = 0;   // of the stream's own
    size_t last_pkt = 0;
    double time = 0;     // of the even clock at last_pkt, ticks
    size_t count = 0;    // packets in the file
    size_t kept_pkt = 0; // the last with a PCR
    double kept_time = 0;
};

void put_pcr(packet* p, uint64_t pcr)
{
    (*p)[tsf::control_ofs] = tsf::adaptation_control;
    (*p)[tsf::af_len_ofs] = PCR_AF_LEN;
    (*p)[tsf::af_flags_ofs] = tsf::af_pcr;
    uint8_t* const f = p->data() + tsf::pcr_ofs;
    for (unsigned i = 0; i < 4; ++i)
        f[i] = static_cast<uint8_t>(pcr >> (25 - 8 * i));
    f[4] = static_cast<uint8_t>((pcr & 1) << 7 | 0x7e);
    f[5] = 0;
}

// The even clock at the next packet of the file, reckoned from the last PCR of the stream's own on.
double time_now(const struct clock_file& c)
{
    return c.time + static_cast<double>(c.count - c.last_pkt) * c.ticks_per_packet;
}

// The next packet of the file. `has_time`: with a PCR.
bool add_packet(struct clock_file* c, bool has_time)
{
    packet p;
    p.fill(0xff);
    p[0] = MPEG_TS_SYNC;
    p[tsf::flags_ofs] = tsf::pid_high_mask;
    p[tsf::control_ofs] = tsf::has_payload;
    if (has_time) {
        c->kept_time = time_now(*c);
        c->kept_pkt = c->count;
        put_pcr(&p, static_cast<uint64_t>(std::llround(c->kept_time)) % P2_33);
    }
    ++c->count;
    return c->file.add(p);
}

// An index takes no PCR in the first packet: the second always has one, so that what comes ahead of the stream's own
// is timed by its average rate.
bool add_untimed(struct clock_file* c, size_t until)
{
    while (c->count < until)
        if (!add_packet(c, c->count == 1)) return false;
    return true;
}

// Moves the even clock to a packet with a PCR. False if that says nothing new. One in the first packet would leave the
// second, which always has one, to a guess: it doesn't count.
bool advance(struct clock_file* c, uint64_t pcr, size_t pkt)
{
    if (pkt == 0) return false;
    uint64_t step = 0;
    const bool is_regular = c->is_running && regular_step(c->last_pcr, pcr, &step);
    if (c->is_running && step == 0) return false;
    c->time += is_regular ? static_cast<double>(step) : static_cast<double>(pkt - c->last_pkt) * c->ticks_per_packet;
    c->is_running = true;
    c->last_pcr = pcr;
    c->last_pkt = pkt;
    return true;
}

// Adds what stands for a packet of the stream.
bool add_timed(struct clock_file* c, packet_view p)
{
    const size_t pkt = c->count;
    const bool has_time =
        ts_has_pcr(p.data()) && has_good_pcr(p) && ts_pid(p.data()) == c->pid && advance(c, ts_pcr_base(p.data()), pkt);
    const bool is_kept =
        has_time && pkt >= c->kept_pkt + KEPT_DISTANCE && has_time_for(c->time - c->kept_time, pkt - c->kept_pkt);
    return add_packet(c, pkt == 1 || is_kept);
}

// Ends with a packet that has the time, unless another has it too close ahead for a record to begin in between. Packet
// 1 is not: its record ends with packet 6, and packet 7 is the least that a stream ends with.
bool finish_clock(struct clock_file* c, size_t count)
{
    if (c->count < count) {
        if (!add_untimed(c, count - 1)) return false;
        if (!add_packet(c, c->kept_pkt == 1 || c->count >= c->kept_pkt + RECORD_PACKETS)) return false;
    }
    return c->file.flush();
}

} // namespace

bool scan_stream(int fd, struct stream_account* acc)
{
    *acc = {};
    struct stat st;
    if (fstat(fd, &st) != 0 || !rewind_file(fd)) return false;
    acc->file_bytes = static_cast<size_t>(st.st_size);
    std::vector<pid_clock> clocks(PID_COUNT);
    bool has_odd_pcr = false; // one that an index builder would take and that can't be used
    struct window w = {fd};
    acc->is_plain = acc->file_bytes % TS_MIN_PKTSIZE == 0;
    while (const uint8_t* const data = next_packet(&w, &acc->stray_bytes)) {
        const packet_view p(data, TS_MIN_PKTSIZE);
        const size_t pkt = acc->packets++;
        if (w.passed % TS_MIN_PKTSIZE != 0) acc->is_plain = false;
        if (!ts_has_pcr(p.data())) continue;
        const uint16_t pid = ts_pid(p.data());
        if (pkt == 0 || pid == 0 || !has_good_pcr(p)) has_odd_pcr = true;
        if (pid != 0 && has_good_pcr(p)) note_pcr(&clocks[pid], ts_pcr_base(p.data()), pkt);
    }
    if (w.has_failed) return false; // the read has logged it
    size_t pids = 0;
    for (size_t pid = 0; pid < PID_COUNT; ++pid) {
        if (clocks[pid].pcrs > 0) ++pids;
        if (clocks[pid].pcrs <= acc->clock_pcrs) continue;
        acc->clock_pid = static_cast<uint16_t>(pid);
        acc->clock_pcrs = clocks[pid].pcrs;
    }
    const struct pid_clock& c = clocks[acc->clock_pid];
    if (c.packets > 0) acc->ticks_per_packet = static_cast<double>(c.ticks) / static_cast<double>(c.packets);
    // What is not plain is indexed from its copy, in which there are no stray bytes.
    acc->has_even_clock = (acc->stray_bytes == 0 || !acc->is_plain) && !has_odd_pcr && pids == 1 && c.pcrs > 1 &&
                          c.oddities == 0 && c.least_distance >= RECORD_PACKETS &&
                          !is_long(c.first_pkt, acc->ticks_per_packet) &&
                          !is_long(acc->packets - c.last_pkt, acc->ticks_per_packet);
    return true;
}

bool copy_stream(int fd, const struct stream_account& acc, int plain_fd, int clock_fd)
{
    if (!rewind_file(fd)) return false;
    struct packet_file plain = {plain_fd};
    struct clock_file clock = {{clock_fd}, acc.ticks_per_packet, acc.clock_pid};
    struct window w = {fd};
    size_t stray = 0; // known already
    // What goes out as it stands has damaged packets in it: they take their time.
    const size_t count = acc.is_plain ? acc.file_bytes / TS_MIN_PKTSIZE : acc.packets;
    size_t pkt = 0;
    while (const uint8_t* const data = next_packet(&w, &stray)) {
        const packet_view p(data, TS_MIN_PKTSIZE);
        if (!plain.add(p)) return false;
        pkt = acc.is_plain ? w.passed / TS_MIN_PKTSIZE - 1 : pkt;
        if (pkt + 1 < count && !(add_untimed(&clock, pkt) && add_timed(&clock, p))) return false;
        ++pkt;
    }
    return !w.has_failed && plain.flush() && finish_clock(&clock, count);
}
