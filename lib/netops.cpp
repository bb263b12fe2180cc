// Opening sockets. One walk over the resolver's candidates serves listeners, clients and multicast: the first
// candidate whose setup succeeds is the socket. A failed candidate is closed and the next one gets a new socket, so
// that nothing of a failed setup clings to it.
#include "netops.h"

#include "log.h"
#include "netops_int.h"
#include "syswrap.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

constexpr const char* OPEN = "open_socket"; // the name that the lines of the walk's parts go under
constexpr const char* FILLER_PORT = ":111"; // keeps mk_sockaddr satisfied where a sender comes without a port
constexpr size_t SRC_TEXT_SIZE = 80;
constexpr size_t ADDR_TEXT_SIZE = 128;
constexpr size_t MIN_ADDR_LEN = 7; // shorter than any dotted quad

// A port must be there, and be a number as far as atoi goes; "0" lets the kernel choose.
bool port_ok(const char* port)
{
    return *port != '\0' && (atoi(port) != 0 || strcmp(port, "0") == 0);
}

// Resolves the sender of a source-specific group into `spec`. 0, or -1 after an error line.
int take_source(const char* src, struct socket_spec* spec)
{
    spec->src_len = sizeof(spec->src_ss);
    tv_log(ll::debug, "%s: SSM source: %s\n", OPEN, src);

    char text[SRC_TEXT_SIZE];
    (void)snprintf(text, sizeof(text), "%s%s", src, ends_with_port(src) ? "" : FILLER_PORT);
    if (mk_sockaddr(text, SOCK_DGRAM, 0, &spec->src_ss, &spec->src_len) != 0) {
        tv_log(ll::error, "%s: invalid SSM source: %s\n", OPEN, src);
        return -1;
    }
    if (spec->family != 0 && spec->family != spec->src_ss.ss_family) {
        tv_log(ll::error, "%s: SMM src/addr family mismatch: %u/%u\n", OPEN,
               static_cast<unsigned>(spec->src_ss.ss_family), static_cast<unsigned>(spec->family));
        return -1;
    }
    return 0;
}

// Binds and joins, or chooses the sending interface. A tag that names no interface does not stop it: the kernel
// then chooses. The interface record goes to *ifc.
int setup_multicast(int fd, struct addrinfo* ai, struct socket_spec* spec, const char* ifc_tag, ifc_ptr* ifc)
{
    assert(!spec->passive);
    ifc->reset(is_anyaddr(ifc_tag) ? any_ifc_info(ai->ai_family) : get_ifc_info(spec->family, ifc_tag));
    if (spec->writer) return setup_mcast_writer(fd, ai, ifc->get());
    return setup_mcast_reader(fd, ai, ifc->get(), spec->is_ssm ? &spec->src_ss : nullptr);
}

// Makes the candidate's socket what `spec` asks for. 0, or non-zero.
int setup_candidate(int fd, struct addrinfo* ai, struct socket_spec* spec, const char* ifc_tag, ifc_ptr* ifc)
{
    if (spec->multicast) return setup_multicast(fd, ai, spec, ifc_tag, ifc);
    return spec->passive ? setup_listener(fd, ai, spec) : setup_client(fd, ai, spec);
}

// Notes the candidate that is in use, and hands its interface record to the caller.
void keep_candidate(const struct addrinfo* ai, struct socket_spec* spec, ifc_ptr* own, struct ifc_info** ifc)
{
    memcpy(&spec->addr_ss, ai->ai_addr, ai->ai_addrlen);
    spec->addr_len = ai->ai_addrlen;
    if (ifc) *ifc = own->release();
    if (log_gate_open(&g_llctx, ll::debug) && log_fp(&g_log)) dump_ai(log_fp(&g_log), ai);
}

// Walks the candidates. Returns the descriptor, or -1, and the walk's result in *rc.
int walk_candidates(struct addrinfo* list, struct socket_spec* spec, const char* ifc_tag, struct ifc_info** ifc,
                    int* rc)
{
    int fd = -1;
    for (struct addrinfo* ai = list; ai; ai = ai->ai_next) {
        tv_log(ll::debug, "af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        fd = W_socket(OPEN, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (fd == -1) {
            *rc = errno;
            continue;
        }
        spec->family = ai->ai_family;
        if (is_multicast(ai->ai_addr) == 1) spec->multicast = 1;
        if (spec->non_blocking && set_nblock(fd, 1) != 0) {
            const int err = errno;
            *rc = err;
            tv_log(ll::error, "%s: failed to make fd=%d non-blocking ERROR(%d): %s\n", OPEN, fd, err, strerror(err));
            break;
        }
        ifc_ptr own;
        *rc = setup_candidate(fd, ai, spec, ifc_tag, &own);
        if (*rc == 0) {
            keep_candidate(ai, spec, &own, ifc);
            if (spec->async_connect) *rc = EINPROGRESS;
            break;
        }
        (void)W_close(OPEN, fd); // the wrapper tells a failure, and there is nothing else to do about it
        fd = -1;
    }
    return fd;
}

// Splits text at its last colon in place. Null without one, else the text behind it.
char* split_port(char* text)
{
    char* colon = strrchr(text, ':');
    if (!colon) return nullptr;
    *colon = '\0';
    return colon + 1;
}

} // namespace

int open_socket(const char* addr, const char* port, const char* src, struct socket_spec* spec, const char* ifc_tag,
                struct ifc_info** ifc)
{
    tv_log(ll::debug, "%s: %s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", __func__,
           spec->socktype == SOCK_DGRAM ? "UDP" : "TCP", spec->passive ? "LISTENER" : "CLIENT", af_name(spec->family),
           spec->family, addr ? addr : "all", port, ifc_tag ? ifc_tag : "none");

    if (spec->socktype == SOCK_DGRAM || spec->socktype == SOCK_STREAM) {
        assert(port);
        if (!port_ok(port)) {
            tv_log(ll::error, "%s: empty or invalid port [%s]\n", __func__, port);
            return -1;
        }
    }
    struct addrinfo hints = {};
    hints.ai_family = spec->family;
    hints.ai_socktype = spec->socktype;
    hints.ai_flags = spec->passive ? AI_PASSIVE : 0;

    // A resolver would take 1234 for an address.
    if (addr && is_decimal(addr)) {
        tv_log(ll::error, "%s: cannot accept plain number [%s] as IP address\n", __func__, addr);
        return -1;
    }
    spec->async_connect = 0;
    spec->is_ssm = src && spec->socktype == SOCK_DGRAM;
    if (spec->is_ssm && take_source(src, spec) != 0) return -1;

    const char* node = addr ? addr : anyaddr_str(spec->family != 0 ? spec->family : AF_INET);
    struct addrinfo* found = nullptr;
    if (W_getaddrinfo(__func__, node, port, &hints, &found) != 0) return -1;

    errno = 0;
    int rc = 0;
    addrinfo_ptr list(found);
    const int fd = walk_candidates(list.get(), spec, ifc_tag, ifc, &rc);
    list.reset();

    if (rc == EINPROGRESS) {
        tv_log(ll::debug, "%s: connection in progress for fd%d\n", __func__, fd);
    } else if (rc != 0) {
        if (fd >= 0) (void)W_close(__func__, fd);
        return -1;
    }
    tv_log(ll::debug, "%s: %s %s socket fd=[%d]\n", __func__, spec->passive ? "SERVER" : "CLIENT",
           spec->multicast ? "multicast" : "unicast", fd);
    if (rc == EINPROGRESS) errno = rc;
    return fd;
}

int mk_sockaddr(const char* text, int socktype, int proto, struct sockaddr_storage* ss, socklen_t* len)
{
    assert(socktype == SOCK_DGRAM || socktype == SOCK_STREAM);
    tv_log(ll::debug, "%s: %s(%d) address for [%s]\n", __func__, socktype == SOCK_DGRAM ? "DGRAM" : "STREAM", proto,
           text);

    char addr[ADDR_TEXT_SIZE];
    (void)snprintf(addr, sizeof(addr), "%s", text);
    const char* port = split_port(addr);
    if (!port) {
        tv_log(ll::error, "%s: invalid address/port: %s\n", __func__, text);
        return EINVAL;
    }
    // By design: the length test keeps short IPv6 addresses and short host names out as well.
    if (is_decimal(addr) || strlen(addr) < MIN_ADDR_LEN) {
        tv_log(ll::error, "%s: cannot accept plain number [%s] as IP address\n", __func__, addr);
        return EINVAL;
    }
    if (!is_decimal(port)) {
        tv_log(ll::error, "%s: port must be plain decimal number [%s]\n", __func__, port);
        return EINVAL;
    }
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = socktype;
    hints.ai_protocol = proto;
    struct addrinfo* found = nullptr;
    if (W_getaddrinfo(__func__, addr, port, &hints, &found) != 0) return -1;

    // A socket that opens proves that this machine can use the family.
    errno = 0;
    addrinfo_ptr list(found);
    int fd = -1;
    for (const struct addrinfo* ai = list.get(); ai && fd == -1; ai = ai->ai_next) {
        fd = W_socket(__func__, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        tv_log(ll::debug, "%s: %s af=%s (%d), proto = %d\n", __func__, fd == -1 ? "BAD" : "OK", af_name(ai->ai_family),
               ai->ai_family, ai->ai_protocol);
        if (fd == -1) continue;
        assert(ai->ai_addrlen <= sizeof(*ss));
        memcpy(ss, ai->ai_addr, ai->ai_addrlen);
        *len = ai->ai_addrlen;
    }
    if (fd == -1) {
        tv_log(ll::error, "%s: failed for [%s]\n", __func__, text);
        return -1;
    }
    (void)W_close(__func__, fd);
    return 0;
}

bool should_connect(bool is_server, const struct socket_spec* spec)
{
    switch (spec->socktype) {
    case SOCK_DGRAM: return false;
    case SOCK_STREAM: return !is_server;
    default: return true;
    }
}

int setup_client(int fd, const struct addrinfo* ai, struct socket_spec* spec)
{
    if (ai->ai_socktype == SOCK_DGRAM && !spec->writer) {
        const int rc = reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen);
        if (rc != 0) return rc;
    }
    if (!should_connect(false, spec)) return 0;

    if (spec->non_blocking) tv_log(ll::debug, "%s: non-blocking CONNECT on fd%d\n", __func__, fd);
    const int rc = W_connect(__func__, fd, ai->ai_addr, ai->ai_addrlen);
    if (rc != 0) {
        if (errno != EINPROGRESS) return rc;
        spec->async_connect = 1;
    }
    tv_log(ll::info, "%s: %s CONNECT [fd%d]\n", __func__, spec->async_connect ? "ASYNC" : "IMMEDIATE", fd);
    return 0;
}

int setup_listener(int fd, const struct addrinfo* ai, const struct socket_spec* spec)
{
    // One listener serves both families where the address allows it.
    if (ai->ai_family == AF_INET6 && is_unspecified(ai->ai_addr) == 1) set_ipv6only(fd, 0);

    if (reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen) != 0) return -1;
    if (ai->ai_socktype == SOCK_STREAM && !spec->defer_listen) return W_listen(__func__, fd, LISTEN_BACKLOG);

    if (!should_connect(true, spec)) return 0;
    if (W_connect(__func__, fd, ai->ai_addr, ai->ai_addrlen) != 0) return errno;
    tv_log(ll::debug, "%s: CONNECT [%d]\n", __func__, fd);
    return 0;
}

int reuse_and_bind(int fd, const struct sockaddr* addr, socklen_t len)
{
    const int on = 1;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) return errno;
    // By design: nobody looks at the result: not every kernel and family has it.
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
    if (W_bind(__func__, fd, addr, len) != 0) return errno;

    if (log_gate_open(&g_llctx, ll::debug)) {
        char text[32]; // a long address is cut
        const char* shown = addr_text(addr, len, text, sizeof(text));
        tv_log(ll::debug, "%s: fd=%d %s OK\n", __func__, fd, shown);
        if (log_fp(&g_log)) dump_sa_info(log_fp(&g_log), addr, len, nullptr);
    }
    return 0;
}
