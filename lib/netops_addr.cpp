// Addresses and their texts. A sockaddr is read through a copy of its family's own record: what the caller passes
// may be any of them, and only the family says how much of it there is.
#include "netops.h"

#include "log.h"
#include "netops_int.h"

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <strings.h>
#include <sys/un.h>

TV_LOG_MODULE(0)

using namespace netops_int;

namespace
{

constexpr size_t HOST_TEXT_SIZE = 1025; // the resolver's own limits
constexpr size_t SERVICE_TEXT_SIZE = 32;

constexpr uint32_t MC4_MASK = 0xf0000000; // 224.0.0.0/4
constexpr uint32_t MC4_PREFIX = 0xe0000000;
constexpr uint8_t MC6_PREFIX = 0xff; // ff00::/8, with the scope in the low half of the second byte
constexpr uint8_t MC6_SCOPE_MASK = 0x0f;
constexpr uint8_t MC6_SCOPE_INTERFACE = 1;
constexpr uint8_t MC6_SCOPE_LINK = 2;

struct family_word {
    const char* word;
    int family;
};
constexpr family_word FAMILY_WORDS[] = {
    {"inet4", AF_INET},  {"inet", AF_INET},     {"ipv4", AF_INET},      {"af_inet", AF_INET},   {"pf_inet", AF_INET},
    {"inet6", AF_INET6}, {"ipv6", AF_INET6},    {"af_inet6", AF_INET6}, {"pf_inet6", AF_INET6}, {"", AF_UNSPEC},
    {"any", AF_UNSPEC},  {"unspec", AF_UNSPEC}, {"anyaddr", AF_UNSPEC},
};

struct host_service {
    char host[HOST_TEXT_SIZE];
    char service[SERVICE_TEXT_SIZE];
};

struct in_addr in4_of(const struct sockaddr* sa)
{
    struct sockaddr_in in = {};
    memcpy(&in, sa, sizeof(in));
    return in.sin_addr;
}

struct in6_addr in6_of(const struct sockaddr* sa)
{
    struct sockaddr_in6 in6 = {};
    memcpy(&in6, sa, sizeof(in6));
    return in6.sin6_addr;
}

// Numeric host and service. 0, or getnameinfo's code.
int name_of(const struct sockaddr* sa, socklen_t len, host_service* hs)
{
    return getnameinfo(sa, len, hs->host, sizeof(hs->host), hs->service, sizeof(hs->service),
                       NI_NUMERICHOST | NI_NUMERICSERV);
}

// A UNIX path may fill its record to the last byte, without a zero.
void copy_domain_path(const struct sockaddr* sa, socklen_t len, char* dst, size_t size)
{
    struct sockaddr_un un = {};
    memcpy(&un, sa, len < sizeof(un) ? len : sizeof(un));
    (void)snprintf(dst, size, "%.*s", static_cast<int>(sizeof(un.sun_path)), un.sun_path);
}

} // namespace

const char* netops_int::addr_text(const struct sockaddr* sa, socklen_t len, char* buf, size_t size)
{
    const char* text = saddr_str(sa, len, buf, size);
    return text ? text : "?";
}

// ---- texts ----------------------------------------------------------------------------------------------------

bool is_decimal(const char* text)
{
    if (*text == '\0') return false;
    char* end = nullptr;
    const int saved = errno;
    (void)strtol(text, &end, 10);
    errno = saved; // an overflow is still a number
    return *end == '\0';
}

bool ends_with_port(const char* text)
{
    const char* colon = strrchr(text, ':');
    if (!colon || colon[1] == '\0') return false;
    return colon[1 + strspn(colon + 1, "0123456789")] == '\0';
}

bool is_anyaddr(const char* text)
{
    return !text || *text == '\0' || strcasecmp(text, "any") == 0 || strcasecmp(text, "all") == 0;
}

const char* af_name(int family)
{
    switch (family) {
    case AF_INET: return "IPv4";
    case AF_INET6: return "IPv6";
    case AF_UNSPEC: return "UNSPEC";
    default: return "#??#";
    }
}

int af_level(int family)
{
    switch (family) {
    case AF_INET: return IPPROTO_IP;
    case AF_INET6: return IPPROTO_IPV6;
    default: return -1;
    }
}

const char* anyaddr_str(int family)
{
    switch (family) {
    case AF_INET: return "0.0.0.0";
    case AF_INET6: return "::";
    default: return "#error#";
    }
}

int name2af(const char* name)
{
    for (const family_word& w : FAMILY_WORDS) {
        if (strcasecmp(name, w.word) == 0) return w.family;
    }
    // By design: only "all" is refused, and any other unknown word stands for no family in particular.
    if (strcasecmp(name, "all") == 0) {
        tv_log(ll::error, "%s: unsupported address family [%s] in configuration.", __func__, name);
        return -1;
    }
    return AF_UNSPEC;
}

// ---- addresses ------------------------------------------------------------------------------------------------

socklen_t saddr_len(const struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return sizeof(struct sockaddr_in);
    case AF_INET6: return sizeof(struct sockaddr_in6);
    default:
        tv_log(ll::error, "%s: unrecognized socket family: %d\n", __func__, sa->sa_family);
        return static_cast<socklen_t>(-1);
    }
}

size_t saddr_size(const struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return sizeof(struct sockaddr_in);
    case AF_INET6: return sizeof(struct sockaddr_in6);
    default:
        tv_log(ll::error, "%s: unrecognized socket family: %d\n", __func__, sa->sa_family);
        return static_cast<size_t>(-1);
    }
}

bool saddr_equal(const struct sockaddr* a, const struct sockaddr* b)
{
    assert(a->sa_family == b->sa_family);
    if (a->sa_family == AF_INET) return in4_of(a).s_addr == in4_of(b).s_addr;
    if (a->sa_family == AF_INET6) {
        const struct in6_addr left = in6_of(a);
        const struct in6_addr right = in6_of(b);
        return memcmp(&left, &right, sizeof(left)) == 0;
    }
    tv_log(ll::error, "%s: unrecognized family: %d\n", __func__, a->sa_family);
    assert(a->sa_family == AF_INET || a->sa_family == AF_INET6);
    return false;
}

void cpy_sockaddr(const struct sockaddr* src, struct sockaddr* dst, size_t cap)
{
    const socklen_t len = saddr_len(src);
    assert(len > 0 && len <= cap);
    memcpy(dst, src, len);
}

void cpy_anyaddr(int family, struct sockaddr_storage* ss)
{
    if (family == AF_INET) {
        struct sockaddr_in in = {};
        in.sin_family = AF_INET;
        in.sin_addr.s_addr = INADDR_ANY;
        memcpy(ss, &in, sizeof(in));
    } else if (family == AF_INET6) {
        struct sockaddr_in6 in6 = {};
        in6.sin6_family = AF_INET6;
        in6.sin6_addr = in6addr_any;
        memcpy(ss, &in6, sizeof(in6));
    } else {
        abort();
    }
}

char* saddr_str(const struct sockaddr* sa, socklen_t len, char* buf, size_t size)
{
    host_service hs = {};
    int rc = name_of(sa, len, &hs);
    // Not every resolver knows UNIX addresses; the path is all there is to show then.
    if ((rc == EAI_FAMILY || rc == EAFNOSUPPORT) && sa->sa_family == AF_UNIX) {
        copy_domain_path(sa, len, hs.host, sizeof(hs.host));
        rc = 0;
    }
    if (rc != 0) {
        tv_log(ll::error, "%s: getnameinfo error (%d): %s\n", __func__, rc, gai_strerror(rc));
        return nullptr;
    }
    switch (sa->sa_family) {
    case AF_INET: (void)snprintf(buf, size, "%s:%s", hs.host, hs.service); break;
    case AF_INET6: (void)snprintf(buf, size, "[%s]:%s", hs.host, hs.service); break;
    case AF_UNIX: (void)snprintf(buf, size, "DOMAIN %s:%s", hs.host, hs.service); break;
    default: return nullptr;
    }
    return buf;
}

void dump_ai(FILE* fp, const struct addrinfo* ai)
{
    host_service hs = {};
    const int rc = name_of(ai->ai_addr, ai->ai_addrlen, &hs);
    if (rc != 0) {
        (void)fprintf(fp, "%s: getnameinfo error (%d): %s\n", __func__, rc, gai_strerror(rc));
        return;
    }
    (void)fprintf(fp, "PF_INET = %d, PF_INET6 = %d, SOCK_STREAM = %d, SOCK_DGRAM = %d\n", PF_INET, PF_INET6,
                  SOCK_STREAM, SOCK_DGRAM);
    (void)fprintf(fp,
                  "ai_flags    =\t0x%02x\nai_family   =\t%d\nai_socktype =\t%d\nai_protocol =\t%d\n"
                  "ai_addrlen  =\t%ld\nai_addr     =\t%s:%s\nai_canonname=\t%s\n",
                  static_cast<unsigned>(ai->ai_flags), ai->ai_family, ai->ai_socktype, ai->ai_protocol,
                  static_cast<long>(ai->ai_addrlen), hs.host, hs.service, ai->ai_canonname ? ai->ai_canonname : "NULL");
}

void dump_sa_info(FILE* fp, const struct sockaddr* sa, socklen_t len, const char* msg)
{
    host_service hs = {};
    const int rc = name_of(sa, len, &hs);
    if (rc != 0) {
        (void)fprintf(fp, "%s: getnameinfo error (%d): %s\n", __func__, rc, gai_strerror(rc));
        return;
    }
    (void)fprintf(fp, "%s %s %s:%s\n", msg ? msg : "", af_name(sa->sa_family), hs.host, hs.service);
}

int is_multicast(const struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return (ntohl(in4_of(sa).s_addr) & MC4_MASK) == MC4_PREFIX;
    case AF_INET6: return in6_of(sa).s6_addr[0] == MC6_PREFIX;
    default: tv_log(ll::error, "%s: unrecognized family: %d\n", __func__, sa->sa_family); return -1;
    }
}

int is_unspecified(const struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return in4_of(sa).s_addr == INADDR_ANY;
    case AF_INET6: {
        const struct in6_addr addr = in6_of(sa);
        return memcmp(&addr, &in6addr_any, sizeof(addr)) == 0;
    }
    default: tv_log(ll::error, "%s: unrecognized family: %d\n", __func__, sa->sa_family); return -1;
    }
}

bool is_ipv6_mc_local(const struct sockaddr* sa)
{
    if (sa->sa_family != AF_INET6) return false;
    const struct in6_addr addr = in6_of(sa);
    const uint8_t scope = addr.s6_addr[1] & MC6_SCOPE_MASK;
    return addr.s6_addr[0] == MC6_PREFIX && (scope == MC6_SCOPE_INTERFACE || scope == MC6_SCOPE_LINK);
}
