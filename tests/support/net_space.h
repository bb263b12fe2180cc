// A network of the test's own: a new network namespace with the loopback up and multicast routed over it.
#ifndef TV_TESTS_NET_SPACE_H
#define TV_TESTS_NET_SPACE_H

// Moves the process into a new network namespace, with IPv4 and IPv6 loopback addresses, a link-local address, and
// routes that send groups over the loopback. With `with_routes` false the loopback is up and nothing else.
// False where the host doesn't allow it; the test then skips. Call it before any thread starts.
bool enter_net_space(bool with_routes = true);

#endif // TV_TESTS_NET_SPACE_H
