// Sockets: opening one that is bound, connected, joined or listening, and the address, interface and option calls
// around it.
//
// A *candidate* is one address that the resolver gives for a name; they are tried in its order. The *spec*
// (`socket_spec`) says what a socket is to be and, afterwards, how it was opened. An *interface tag* is an interface
// name, a numeric address, or nothing, "any" or "all" for whatever the kernel chooses. A *reader* of a multicast
// group binds to the group and joins it; a *writer* does neither. SSM is membership in a group for one sender only.
//
// Units: milliseconds for time-outs and pauses, bytes for lengths.
// Ownership: a descriptor is the caller's. An `ifc_info` comes from calloc and is its holder's to free.
// Results: 0, -1, or an errno value as each call says; null on failure. Checked calls log their own failure.
// One thread. Nothing is retried but open_domain_client, which watches `g_quit`. Blocking calls last as long as the
// kernel makes them. Not for signal handlers.
#ifndef NETOPS_H
#define NETOPS_H

#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

// What a socket is to be, and how it was opened. Zero it, then set the input fields.
struct socket_spec {
    unsigned writer : 1;             // in: will send; a UDP socket is then neither bound nor joined
    unsigned passive : 1;            // in: a listener
    unsigned multicast : 1;          // in, out: the address is a group; the answer is ORed in
    unsigned non_blocking : 1;       // in: non-blocking ahead of any bind or connect
    unsigned async_connect : 1;      // out: a non-blocking connect is still under way
    unsigned defer_listen : 1;       // in: bind a stream listener, and leave listen to the caller
    int family;                      // in: family to resolve, 0 for any; out: the candidate's
    int socktype;                    // in: SOCK_STREAM or SOCK_DGRAM
    struct sockaddr_storage addr_ss; // out: address in use
    socklen_t addr_len;              // out: its length
    bool is_ssm;                     // out: a sender was named for a datagram socket
    struct sockaddr_storage src_ss;  // out: that sender
    socklen_t src_len;               // out: its length
};

// One network interface.
struct ifc_info {
    uint32_t idx;               // 0: no interface in particular
    char name[IFNAMSIZ];        // empty for the any-interface record
    struct sockaddr_storage ss; // an address of it; family 0 until known
};
static_assert(IFNAMSIZ == 16, "the name's size is part of the record");

// ---- opening --------------------------------------------------------------------------------------------------

// Opens a socket for an address and a port: listener, client, multicast reader or writer as `spec` says. `addr`
// null is the any address. `src` names the sender of a source-specific group; it may lack a port. The interface
// record of a multicast socket goes to `*ifc` where `ifc` is given (null for a tag that names no interface).
// The descriptor, or -1 after the failures of all candidates have been logged. With a non-blocking connect under way
// the descriptor is returned, spec->async_connect is set and errno is EINPROGRESS.
// Requires: spec not null; port not null for SOCK_STREAM and SOCK_DGRAM (assertion); no passive spec for a multicast
// address (assertion).
int open_socket(const char* addr, const char* port, const char* src, struct socket_spec* spec, const char* ifc_tag,
                struct ifc_info** ifc);

// Makes a sockaddr from `address:port`. 0; EINVAL for a text without a port, with a port that is no decimal, or with
// an address that is a plain number or has under 7 characters; -1 when the resolver finds nothing that a socket can
// be opened for. Each failure but a silent resolver is logged.
// Requires: socktype SOCK_DGRAM or SOCK_STREAM (assertion).
int mk_sockaddr(const char* text, int socktype, int proto, struct sockaddr_storage* ss, socklen_t* len);

// The two ends of a unicast candidate: bind a UDP reader or connect, bind and listen. 0, or non-zero; the
// descriptor stays open. setup_client sets spec->async_connect while a non-blocking connect is under way.
int setup_client(int fd, const struct addrinfo* ai, struct socket_spec* spec);
int setup_listener(int fd, const struct addrinfo* ai, const struct socket_spec* spec);

// True where a socket of this spec has to be connected.
bool should_connect(bool is_server, const struct socket_spec* spec);

// Allows the address to be shared, as far as the kernel lets it, and binds. 0, or the errno of the failed step.
int reuse_and_bind(int fd, const struct sockaddr* addr, socklen_t len);

// ---- texts and addresses --------------------------------------------------------------------------------------

// True for a whole number in base 10; by design a sign or white space ahead of it passes.
bool is_decimal(const char* text);
// True when the last colon has digits behind it and nothing else. By design: `2001:db8::1` counts.
bool ends_with_port(const char* text);
// True for null, an empty text, "any" and "all" in any case.
bool is_anyaddr(const char* text);

// "IPv4", "IPv6", "UNSPEC" for 0, else "#??#".
const char* af_name(int family);
// IPPROTO_IP, IPPROTO_IPV6, else -1.
int af_level(int family);
// "0.0.0.0", "::", else "#error#".
const char* anyaddr_str(int family);
// Family word of a configuration, in any case: AF_INET, AF_INET6, or 0 for everything else; -1 with an error line for
// "all".
int name2af(const char* name);

// Length of a sockaddr by its family; -1 as an unsigned value, with an error line, for a family that is not IP.
socklen_t saddr_len(const struct sockaddr* sa);
size_t saddr_size(const struct sockaddr* sa);
// Equality of addresses, without ports. Requires: the same family, and an IP one (assertion).
bool saddr_equal(const struct sockaddr* a, const struct sockaddr* b);
// Copies saddr_len(src) bytes. Requires: that length is neither 0 nor over cap (assertion).
void cpy_sockaddr(const struct sockaddr* src, struct sockaddr* dst, size_t cap);
// Stores the family and its any address. Aborts for a family that is not IP.
void cpy_anyaddr(int family, struct sockaddr_storage* ss);
// Address and port as text: "h:p", "[h]:p", "DOMAIN h:p"; cut to `size`. Returns buf, or null after an error line.
char* saddr_str(const struct sockaddr* sa, socklen_t len, char* buf, size_t size);
// Write an address to a stream, for the debug level. `msg` may be null.
void dump_ai(FILE* fp, const struct addrinfo* ai);
void dump_sa_info(FILE* fp, const struct sockaddr* sa, socklen_t len, const char* msg);

// 1 for a multicast group, 0, or -1 with an error line for a family that is not IP.
int is_multicast(const struct sockaddr* sa);
// 1 for the all-zero address, 0, or -1 with an error line for a family that is not IP.
int is_unspecified(const struct sockaddr* sa);
// True for an IPv6 group of interface-local or link-local scope.
bool is_ipv6_mc_local(const struct sockaddr* sa);

// ---- interfaces -----------------------------------------------------------------------------------------------

// Record of the interface that a tag names, with an address of the family where the tag is a name. Null after an
// error line. The caller frees it. Requires: tag not null.
struct ifc_info* get_ifc_info(int family, const char* tag);
// Record of no interface in particular: index 0, no name, the any address. Null when out of memory.
// Aborts for a family that is not IP.
struct ifc_info* any_ifc_info(int family);
// Index of the interface that a tag names, 0 if none. For a numeric address `ss` (may be null) takes it; for a name
// it is left alone. By design: a failure to list the interfaces gives its errno, which looks like an index.
// Requires: tag not null (assertion).
unsigned ifaddr_index(const char* tag, struct sockaddr_storage* ss);
// First address of a family on an interface; for IPv6 preferably one that is no local group. 0; -1 with an error
// line when there is none; errno when the interfaces can't be listed. `sa` changes only on success.
// Requires: name and sa not null (assertion); size fits an address of the family (assertion).
int ifc_addr_lookup(int family, const char* name, struct sockaddr* sa, size_t size);

// ---- socket settings ------------------------------------------------------------------------------------------

// Status flags, or -1 after an error line.
int get_socket_flags(int fd);
// The O_NONBLOCK bit, or -1.
int is_non_blocking(int fd);
// Makes a descriptor non-blocking (flag 1) or blocking (anything else). No call is made where it is so already;
// by design flags that can't be read count as non-blocking. 0, or -1 after an error line.
int set_nblock(int fd, int flag);
// Sets or clears IPV6_V6ONLY; the outcome is logged.
void set_ipv6only(int fd, int flag);
// Time-outs and buffer sizes; the result is setsockopt's.
int set_socket_timeout(int fd, int option, int ms);
int set_rcv_timeout(int fd, int ms);
int set_send_timeout(int fd, int ms);
int set_socket_buflen(int fd, int option, size_t len);
int set_socket_rcvbuf(int fd, size_t len);
int set_socket_sendbuf(int fd, size_t len);
// Switches; the result is setsockopt's.
int set_tcp_nodelay(int fd, int flag);
int set_tcp_cork(int fd, int flag);
int set_keepalive(int fd, int flag);
// Pending error of a socket, 0 if none; a non-zero one is logged at error and stored in errno.
int socket_error(int fd);
// Address of the peer as text. Returns buf, or null after an error line with errno as getpeername left it.
char* get_peer_ipaddr(int fd, char* buf, size_t size);

// ---- listeners ------------------------------------------------------------------------------------------------

// Non-blocking listeners; -1 after an error line. The port goes into the storage. By design: a port outside 1 to 65535
// is complained about and used as it comes.
// Requires: ss holds an address; port not null for a TCP listener.
int open_listener(struct sockaddr_storage* ss, const char* port, int defer_listen);
int open_udp_listener(struct sockaddr_storage* ss, const char* port);
int open_anyaddr_listener(int family, const char* port, int defer_listen);
// Listener on a UNIX path, which is unlinked first; at most 107 characters of it count. Requires: path not null.
int open_domain_listener(const char* path);
// Connects to a UNIX path, at most max_attempts times with pause_ms between them, until g_quit is set.
// Requires: path under 108 characters (assertion).
int open_domain_client(const char* path, long max_attempts, long pause_ms);

// ---- multicast ------------------------------------------------------------------------------------------------

// Chooses the protocol-specific membership options for the rest of the process's life. By design: flag 0 changes
// nothing. Call it before sockets are opened.
void set_legacy_mcast_api(int flag);

// TTL or hop limit of what a socket sends to groups. 0, or errno; the outcome is logged at error either way.
// Requires: an IP family (assertion).
int set_mcast_ttl(int family, int fd, int ttl);

// Binds a socket to a group and joins it, on an interface (null: the kernel's choice), for one sender if `src` is
// given. The candidate's address gets the interface's scope ID where it needs one. 0, or non-zero.
int setup_mcast_reader(int fd, struct addrinfo* ai, struct ifc_info* ifc, const struct sockaddr_storage* src);
// Chooses the interface that a socket sends to groups by. 0, or non-zero.
// Requires: a named interface has an IPv4 address for an IPv4 group (assertion).
int setup_mcast_writer(int fd, struct addrinfo* ai, struct ifc_info* ifc);

// Join or leave a group on an interface (null: the kernel's choice). 0, or non-zero after an error line.
// Requires: ifc not null with the protocol-specific options and an IPv4 group (assertion).
int mcast_join(int fd, const struct sockaddr_storage* group, struct ifc_info* ifc);
int mcast_leave(int fd, const struct sockaddr_storage* group, struct ifc_info* ifc);
// Join a group for one sender. By design: ssm_leave joins too: the plain leave or the close ends the membership.
// Requires: source and group of one family (assertion).
int ssm_join(int fd, const struct sockaddr_storage* src, const struct sockaddr_storage* group, struct ifc_info* ifc);
int ssm_leave(int fd, const struct sockaddr_storage* src, const struct sockaddr_storage* group, struct ifc_info* ifc);

// The operations behind them. `caller` names the operation in log lines; `ifname` may be null. `ifaddr` is filled where
// it has no family yet and the option needs one, and may be null where it needs none.
int mcast_group_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                   struct sockaddr_storage* ifaddr, int join, int fd);
int ssm_group_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                 const struct sockaddr_storage* src, struct sockaddr_storage* ifaddr, int join, int fd);
int ssm_proto_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                 const struct sockaddr_storage* src, struct sockaddr_storage* ifaddr, int join, int fd);
int ssm_generic_op(const char* caller, const char* ifname, unsigned ifidx, const struct sockaddr_storage* group,
                   const struct sockaddr_storage* src, int join, int fd);

// Gives an IPv6 address without a scope ID that of an interface, looking up the interface's address by name where
// `ifaddr` (may be null) holds none yet; a null name is an error then. Says what it did at error level, so that any log
// shows it. Does nothing for other families.
void sync_ipv6addr_scope_id(struct sockaddr* sa, const char* ifname, struct sockaddr_storage* ifaddr);
// Chooses the interface for IPv6 groups. 0; -1 with an error line for index 0; else errno.
int set_ipv6_sock_ifc(int fd, unsigned ifidx);

#endif // NETOPS_H
