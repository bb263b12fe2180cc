// The transfer engine reads the chunks, into a mapping that has room for an RTP head ahead of each datagram's bytes; it
// is one datagram that goes out with a call.
#include "play_send.h"

#include "fdio.h"
#include "mpegts.h"
#include "netops.h"
#include "rtp.h"
#include "syswrap.h"
#include "uri.h"
#include "util.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace
{

constexpr size_t DATAGRAM_BYTES = 7 * TS_MIN_PKTSIZE;
constexpr size_t CHUNK_BYTES = 40 * DATAGRAM_BYTES;
constexpr size_t CHUNK_MS = 10;
static_assert(CHUNK_BYTES <= MIN_TRF_BUFSIZE, "a step reads a chunk whole");

constexpr int64_t NSEC_PER_SEC = 1000000000;
constexpr int64_t NSEC_PER_USEC = 1000;
constexpr uint64_t USEC_PER_SEC = 1000000;
constexpr int64_t LATE_MAX_NSEC = NSEC_PER_SEC;         // behind by more: begin to reckon anew
constexpr int64_t NAP_MAX_NSEC = NSEC_PER_SEC / 10;     // so that a signal just ahead of a nap doesn't wait for long
constexpr int64_t FULL_QUEUE_NSEC = NSEC_PER_SEC / 500; // until a full send queue is tried again
constexpr int64_t PROGRESS_NSEC = NSEC_PER_SEC / 4;
constexpr int END_WAIT_MS = 1000;

constexpr size_t HOST_SIZE = 128;
constexpr size_t PORT_SIZE = 16;

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
struct tsix_closer {
    void operator()(tsix_t tsx) const { tsx_close(tsx); }
};

int64_t now_nsec()
{
    struct timespec ts;
    (void)clock_gettime(CLOCK_MONOTONIC, &ts); // can't fail for this clock
    return ts.tv_sec * NSEC_PER_SEC + ts.tv_nsec;
}

// Waits for a moment. False when the process is told to quit.
bool wait_until(int64_t nsec)
{
    while (!g_quit) {
        const int64_t now = now_nsec();
        if (now >= nsec) return true;
        const int64_t till = std::min(nsec, now + NAP_MAX_NSEC);
        const struct timespec ts = {till / NSEC_PER_SEC, till % NSEC_PER_SEC};
        (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr); // interrupted: looks again
    }
    return false;
}

// A run of the player.
struct player {
    const struct play_source& src;
    const struct play_target& target;
    const struct play_options& opt;
    struct play_count* count;

    std::array<char, CHUNK_BYTES> chunk = {};
    int64_t due_nsec = 0;      // when the next chunk begins
    uint64_t stream_usec = 0;  // position in this round
    uint64_t earlier_usec = 0; // all rounds before it
    uint16_t rtp_seq = 0;
    uint32_t rtp_ssrc = 0;
    uint32_t rtp_start = 0;

    int64_t shown_nsec = 0; // when the progress was shown, and what had gone out by then
    uint64_t shown_bytes = 0;
};

// Says what ends the run, below the progress line if there is one.
void say_problem(const struct player& p, const char* what, const char* why)
{
    if (p.opt.show_progress && p.count->datagrams > 0) fputc('\n', stderr);
    fprintf(stderr, "kvt-play: %s%s%s\n", what, why ? ": " : "", why ? why : "");
}

// ---- datagrams ------------------------------------------------------------------------------------------------

void put_be(uint8_t* to, uint32_t value, unsigned size)
{
    for (unsigned i = 0; i < size; ++i)
        to[i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
}

// The fixed head: version 2, no padding, extension or sources.
void put_rtp_head(struct player* p, uint64_t at_usec, uint8_t* head)
{
    head[0] = RTP_V2 << rtpf::version_shift;
    head[rtpf::type_ofs] = P_MPGTS;
    put_be(head + 2, p->rtp_seq++, 2);
    const uint64_t ticks = (p->earlier_usec + at_usec) * 9 / 100;
    put_be(head + 4, p->rtp_start + static_cast<uint32_t>(ticks), 4);
    put_be(head + 8, p->rtp_ssrc, 4);
}

// Sends one datagram, however full the send queue is. False on failure, and when told to quit.
bool send_datagram(struct player* p, char* data, size_t len, uint64_t at_usec)
{
    uint8_t head[RTP_HDR_SIZE];
    struct iovec parts[2] = {{head, sizeof(head)}, {data, len}};
    struct sockaddr_storage addr = p->target.addr;
    struct msghdr msg = {};
    msg.msg_name = &addr;
    msg.msg_namelen = p->target.addr_len;
    msg.msg_iov = p->target.as_rtp ? parts : parts + 1;
    msg.msg_iovlen = p->target.as_rtp ? 2 : 1;
    if (p->target.as_rtp) put_rtp_head(p, at_usec, head);
    while (sendmsg(p->target.fd, &msg, MSG_NOSIGNAL) == -1) {
        const int err = errno;
        if (is_eagain(err) || err == ENOBUFS) {
            if (!wait_until(now_nsec() + FULL_QUEUE_NSEC)) return false;
        } else if (err == EINTR) {
            if (g_quit) return false;
        } else {
            say_problem(*p, "can't send", strerror(err));
            return false;
        }
    }
    ++p->count->datagrams;
    p->count->bytes += len;
    return true;
}

// Sends an empty datagram, without an RTP head. A full send queue is waited for, but not for ever: the process may have
// been told to quit.
bool send_end(const struct player& p)
{
    const auto* const addr = reinterpret_cast<const struct sockaddr*>(&p.target.addr);
    if (wait_to_write(p.target.fd, END_WAIT_MS) == 0 &&
        sendto(p.target.fd, nullptr, 0, MSG_NOSIGNAL, addr, p.target.addr_len) == 0)
        return true;
    say_problem(p, "can't tell the receiver of the end", strerror(errno));
    return false;
}

// ---- progress -------------------------------------------------------------------------------------------------

struct clock_text {
    char text[32];
};

clock_text as_clock(uint64_t usec)
{
    const uint64_t sec = usec / USEC_PER_SEC;
    clock_text c;
    (void)snprintf(c.text, sizeof(c.text), "%02lu:%02lu:%02lu", sec / 3600, sec / 60 % 60, sec % 60);
    return c;
}

void show_progress(struct player* p, bool is_last)
{
    const int64_t now = now_nsec();
    if (!p->opt.show_progress || (!is_last && now - p->shown_nsec < PROGRESS_NSEC)) return;
    const double sec = static_cast<double>(now - p->shown_nsec) / NSEC_PER_SEC;
    const double mbits = sec > 0 ? static_cast<double>(p->count->bytes - p->shown_bytes) * 8 / 1e6 / sec : 0;
    const uint64_t all_usec = p->src.duration_ticks * 100 / 9;
    const uint64_t left_usec = all_usec > p->stream_usec ? all_usec - p->stream_usec : 0;
    const auto left = static_cast<uint64_t>(static_cast<double>(left_usec) / p->opt.speed);
    fprintf(stderr, "\r%s of %s  %6.2f Mbit/s  %s left", as_clock(p->stream_usec).text, as_clock(all_usec).text, mbits,
            as_clock(left).text);
    if (p->opt.over_and_over && p->count->rounds > 0) fprintf(stderr, "  round %lu", p->count->rounds + 1);
    fprintf(stderr, "\033[K%s", is_last ? "\n" : "");
    (void)fflush(stderr); // a terminal that is gone is no reason to stop
    p->shown_nsec = now;
    p->shown_bytes = p->count->bytes;
}

// ---- rounds ---------------------------------------------------------------------------------------------------

enum class after { next, end, failure };

// Sends a chunk that lasts so long.
after send_chunk(struct player* p, size_t bytes, uint64_t lasts_usec)
{
    const size_t parts = (bytes + DATAGRAM_BYTES - 1) / DATAGRAM_BYTES;
    const double lasts_nsec = static_cast<double>(lasts_usec) * NSEC_PER_USEC / p->opt.speed;
    if (now_nsec() - p->due_nsec > LATE_MAX_NSEC) p->due_nsec = now_nsec();
    for (size_t i = 0; i < parts; ++i) {
        const double share = static_cast<double>(i) / static_cast<double>(parts);
        if (!wait_until(p->due_nsec + static_cast<int64_t>(lasts_nsec * share))) return after::end;
        const size_t at = i * DATAGRAM_BYTES;
        const uint64_t at_usec = p->stream_usec + lasts_usec * i / parts;
        if (!send_datagram(p, p->chunk.data() + at, std::min(DATAGRAM_BYTES, bytes - at), at_usec))
            return g_quit ? after::end : after::failure;
        show_progress(p, false);
    }
    p->due_nsec += static_cast<int64_t>(lasts_nsec);
    p->stream_usec += lasts_usec;
    return after::next;
}

// Plays the stream once. `next`: all of it went out.
after play_round(struct player* p)
{
    const std::unique_ptr<struct tsix_ctx, tsix_closer> index(source_begin(p->src));
    if (!index) {
        say_problem(*p, "the index can't be opened", nullptr);
        return after::failure;
    }
    struct tsix_stream ix = {};
    ix.tsx = index.get();
    ix.max_io_bytes = CHUNK_BYTES;
    ix.max_io_delay = CHUNK_MS;
    off_t offset = 0;
    uint32_t flags = FDIO_VERBOSE;
    struct transfer_spec t = {};
    t.in_fd = p->src.ts_fd;
    t.out_fd = -1; // the bytes go to the chunk
    t.offset = &offset;
    t.flags = &flags;
    t.mmem = p->chunk.data();
    t.mmlen = p->chunk.size();
    t.ix = &ix;
    for (;;) {
        size_t delay_usec = 0;
        ssize_t bytes = 0;
        offset = 0;
        if (transfer(&t, 0, &bytes, &delay_usec) != 0) {
            if (errno == 0) return after::next;
            say_problem(*p, "can't read the stream", strerror(errno));
            return after::failure;
        }
        if (bytes == 0 || ix.o_left > 0) {
            if (g_quit) return after::end;
            say_problem(*p, "the stream has become shorter", nullptr);
            return after::failure;
        }
        if (const after what = send_chunk(p, static_cast<size_t>(bytes), delay_usec); what != after::next) return what;
    }
}

// ---- targets --------------------------------------------------------------------------------------------------

// Takes a URL, or an address and port, apart.
bool split_url(const char* url, char* host, char* port, bool* as_rtp)
{
    char path[URI_PATH_MAX] = "";
    struct uri_layout layout = {};
    if (strstr(url, "://")) {
        char scheme[URI_SCHEME_MAX] = "";
        if (uri_parse(url, &layout) != 0 || !uri_get_scheme(&layout, scheme, sizeof(scheme)) ||
            !uri_get_path(&layout, path, sizeof(path)) || layout.a_len > 0)
            return false;
        const int kind = uri_scheme_kind(scheme);
        if (kind != URI_UDP && kind != URI_RTP) return false;
        *as_rtp = kind == URI_RTP;
    } else {
        if (strlen(url) >= sizeof(path)) return false;
        (void)snprintf(path, sizeof(path), "%s", url);
    }
    const char* const tail = path_parse(path, strlen(path), host, HOST_SIZE, port, PORT_SIZE);
    return tail && *tail == '\0' && *host != '\0' && is_decimal(port) && atoi(port) > 0 && atoi(port) <= UINT16_MAX;
}

// Says why there is no socket, as far as it hasn't been logged.
void say_no_socket(const char* url, const char* host)
{
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo* found = nullptr;
    const int rc = getaddrinfo(host, nullptr, &hints, &found);
    if (rc == 0) freeaddrinfo(found);
    fprintf(stderr, "kvt-play: can't open a socket for %s%s%s\n", url, rc != 0 ? ": " : "",
            rc != 0 ? gai_strerror(rc) : "");
}

// Has a group's datagrams leave by an interface.
bool use_interface(int fd, int family, const char* tag)
{
    struct sockaddr_storage own = {};
    if (ifaddr_index(tag, &own) == 0 || (own.ss_family != AF_UNSPEC && own.ss_family != family)) {
        fprintf(stderr, "kvt-play: %s is no %s interface\n", tag, af_name(family));
        return false;
    }
    const std::unique_ptr<struct ifc_info, free_deleter> ifc(get_ifc_info(family, tag));
    struct addrinfo ai = {};
    ai.ai_family = family;
    return ifc && setup_mcast_writer(fd, &ai, ifc.get()) == 0;
}

bool use_ttl(int fd, int family, bool is_group, int ttl)
{
    const bool is_ip4 = family == AF_INET;
    const int level = is_ip4 ? IPPROTO_IP : IPPROTO_IPV6;
    const int option =
        is_ip4 ? (is_group ? IP_MULTICAST_TTL : IP_TTL) : (is_group ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS);
    return W_setsockopt(__func__, fd, level, option, &ttl, sizeof(ttl)) == 0;
}

} // namespace

bool target_open(const char* url, const char* ifc, int ttl, struct play_target* target)
{
    char host[HOST_SIZE] = "";
    char port[PORT_SIZE] = "";
    if (!split_url(url, host, port, &target->as_rtp)) {
        fprintf(stderr, "kvt-play: %s is no address to play to, such as udp://239.1.1.1:5000 or rtp://host:5000\n",
                url);
        return false;
    }
    struct socket_spec spec = {};
    spec.writer = 1;
    spec.socktype = SOCK_DGRAM;
    target->fd = open_socket(host, port, nullptr, &spec, nullptr, nullptr);
    if (target->fd < 0) {
        say_no_socket(url, host);
        return false;
    }
    target->addr = spec.addr_ss;
    target->addr_len = spec.addr_len;
    if (ifc && !spec.multicast) {
        fprintf(stderr, "kvt-play: an interface is for a group, and %s is none\n", host);
        return false;
    }
    if (ttl == 0 && !spec.multicast) {
        fprintf(stderr, "kvt-play: a time to live of 0 is for a group, and %s is none\n", host);
        return false;
    }
    if (ifc && !use_interface(target->fd, spec.family, ifc)) return false;
    return ttl < 0 || use_ttl(target->fd, spec.family, spec.multicast, ttl);
}

bool play(const struct play_source& src, const struct play_target& target, const struct play_options& opt,
          struct play_count* count)
{
    *count = {};
    struct player p = {src, target, opt, count};
    p.due_nsec = p.shown_nsec = now_nsec();
    // Any values that differ from those of another run will do.
    p.rtp_ssrc = static_cast<uint32_t>(p.due_nsec / NSEC_PER_USEC) ^ static_cast<uint32_t>(getpid()) << 16;
    p.rtp_seq = static_cast<uint16_t>(p.rtp_ssrc >> 8);
    p.rtp_start = p.rtp_ssrc * 2654435761U;
    after what;
    while ((what = play_round(&p)) == after::next) {
        ++count->rounds;
        if (!opt.over_and_over) {
            // What goes out last lasts, too: the next sender may go on from there.
            (void)wait_until(p.due_nsec);
            break;
        }
        p.earlier_usec += p.stream_usec;
        p.stream_usec = 0;
    }
    if (what == after::failure) return false;
    show_progress(&p, true);
    return !opt.tell_end || send_end(p);
}
