"""Multicast and datagram sources on a network of their own: who gets what, and which memberships stand meanwhile."""
import itertools
import re
import signal
import socket

import pytest

from conftest import SNAPSHOTS_HERE, wait_until
from netns import Link, link, sample_datagrams, wait_received, with_rtp  # noqa: F401

PORT = 5000  # the namespaces are the test's own, and so are their ports
GROUP, GROUP6 = "239.91.0.1", "ff0e::9100:1"
SSM_GROUP, SSM_GROUP6 = "232.91.0.1", "ff3e::9100:1"
LINK_GROUP6, HOST_GROUP6 = "ff02::9100:1", "ff01::9100:1"
COUNT = 40  # datagrams of one sending: fewer than a socket's buffer holds
SENT = sample_datagrams(COUNT)
OTHERS = [(b"\x47\x1f\xff\x10" + bytes(184)) * 7] * 20  # what a sender that isn't wanted says


def family_of(group):
    return socket.AF_INET6 if ":" in group else socket.AF_INET


def url_host(group):
    return f"[{group}]" if ":" in group else group


def watch(kvt, link, url, *args):
    """kvt in the receiver's namespace, reading."""
    kvt.write_config(extra=SNAPSHOTS_HERE)
    kvt.start("-T", "-i", url, "-S", "chan1", *args, inside=link.receiver.inside)
    return kvt.wait_reading()


def refuse(kvt, link, url, *args):
    """kvt in the receiver's namespace, where it can't open its source; the exit status."""
    return kvt.run("-T", "-i", url, "-S", "chan1", *args, inside=link.receiver.inside)


def say(speaker, group, datagrams, port=PORT, zone=0):
    address = (group, port, 0, zone) if ":" in group else (group, port)
    for datagram in datagrams:
        speaker.sendto(datagram, address)


def assert_receives(kvt, link, group, datagrams=None, device="tx0"):
    """What goes out to the group comes to stand in the ring, all of it."""
    datagrams = datagrams or SENT
    family = family_of(group)
    with link.speaker(device=device, family=family) as speaker:
        say(speaker, group, datagrams, zone=link.sender.index(device) if group.startswith("ff02") else 0)
    wait_received(link.receiver, family, len(datagrams))
    assert kvt.snapshot() == b"".join(datagrams)


def assert_ends(kvt, link):
    """An orderly end, with no membership left."""
    assert kvt.stop() == 0
    assert link.receiver.groups() == {} and link.receiver.filters() == {}


@pytest.mark.parametrize("scheme", ["udp", "rtp"])
@pytest.mark.parametrize("group, interface", [(GROUP, "rx0"), (GROUP, "10.91.0.2"), (GROUP6, "rx0"),
                                              (GROUP6, "fe80::2%rx0"), (LINK_GROUP6, "rx0"),
                                              (LINK_GROUP6, "fe80::2%rx0")])
def test_a_group_on_an_interface_by_its_name_or_address(kvt, link, scheme, group, interface):
    watch(kvt, link, f"{scheme}://{url_host(group)}:{PORT}", "-m", interface)
    assert link.receiver.groups() == {("rx0", group): 1}
    assert link.receiver.filters() == {}
    assert_receives(kvt, link, group, with_rtp(SENT) if scheme == "rtp" else SENT)
    kvt.wait_log(("RTP" if scheme == "rtp" else "TS") + " stream detected")
    assert_ends(kvt, link)


@pytest.mark.parametrize("group", [GROUP, GROUP6])
@pytest.mark.parametrize("option", [["-m", "all"], ["-m", "any"], ["-m", ""], []])
def test_without_an_interface_the_routing_table_chooses(kvt, link, group, option):
    watch(kvt, link, f"udp://{url_host(group)}:{PORT}", *option)
    assert link.receiver.groups() == {("rx1", group): 1}
    assert_receives(kvt, link, group, device="tx1")
    assert_ends(kvt, link)


def test_the_interface_can_come_from_the_configuration(kvt, link):
    kvt.write_config(extra='source: { mcast_ifc = "rx0"; };')
    kvt.start("-T", "-i", f"udp://{GROUP}:{PORT}", "-S", "chan1", inside=link.receiver.inside).wait_reading()
    assert link.receiver.groups() == {("rx0", GROUP): 1}
    assert_ends(kvt, link)


@pytest.mark.parametrize("group, family", [(GROUP, "IPv4"), (GROUP6, "IPv6")])
def test_an_interface_that_does_not_exist_is_told_and_the_routing_table_chooses(kvt, link, group, family):
    watch(kvt, link, f"udp://{url_host(group)}:{PORT}", "-m", "nonesuch")
    assert f"[nonesuch] is not a valid {family} interface address." in kvt.log_text()
    assert link.receiver.groups() == {("rx1", group): 1}
    assert_ends(kvt, link)


def test_a_group_without_an_interface_or_a_route_cannot_be_joined(kvt, link):
    link.receiver.run("ip", "route", "del", "224.0.0.0/4")
    assert refuse(kvt, link, f"udp://{GROUP}:{PORT}") == 1
    assert re.search(r"mcast_join: MCAST_JOIN fd=\d+: No such device", kvt.log_text())
    assert link.receiver.groups() == {}


def test_a_link_local_group_needs_an_interface(kvt, link):
    assert refuse(kvt, link, f"udp://[{LINK_GROUP6}]:{PORT}") == 1
    assert "network interface must be specified to use link/local-scope multicast" in kvt.log_text()
    assert re.search(r"reuse_and_bind: bind\(.*\): ERROR\(22\)", kvt.log_text())


def test_an_interface_with_a_global_address_gives_a_link_local_group_no_zone(kvt_factory, link):
    """By design the zone is that of the interface's first address, and global ones come first."""
    link.receiver.run("ip", "addr", "add", "fd91::2/64", "dev", "rx0")
    refused = kvt_factory("refused")
    assert refuse(refused, link, f"udp://[{LINK_GROUP6}]:{PORT}", "-m", "rx0") == 1
    assert "IPv6 address scope ID 0 left unchanged" in refused.log_text()
    by_address = kvt_factory("by-address")
    watch(by_address, link, f"udp://[{LINK_GROUP6}]:{PORT}", "-m", "fe80::2%rx0")
    assert_ends(by_address, link)
    by_zone = kvt_factory("by-zone")
    watch(by_zone, link, f"udp://[{LINK_GROUP6}%rx0]:{PORT}", "-m", "rx0")
    assert_receives(by_zone, link, LINK_GROUP6)
    assert_ends(by_zone, link)


def test_a_zone_alone_does_not_say_where_to_join(kvt, link):
    """The zone is the bind's; the join goes where the routing table says, so that -m is needed beside it."""
    watch(kvt, link, f"udp://[{LINK_GROUP6}%rx0]:{PORT}")
    assert link.receiver.groups() == {("rx1", LINK_GROUP6): 1}
    assert_ends(kvt, link)


def test_an_interface_local_group_is_joined_where_it_is_told(kvt, link):
    watch(kvt, link, f"udp://[{HOST_GROUP6}]:{PORT}", "-m", "rx0")
    assert link.receiver.groups() == {("rx0", HOST_GROUP6): 1}
    assert_ends(kvt, link)


def test_a_global_interface_address_serves_for_a_global_group(kvt, link):
    link.receiver.run("ip", "addr", "add", "fd91::2/64", "dev", "rx0")
    watch(kvt, link, f"udp://[{GROUP6}]:{PORT}", "-m", "fd91::2")
    assert link.receiver.groups() == {("rx0", GROUP6): 1}
    assert_receives(kvt, link, GROUP6)
    assert_ends(kvt, link)


# ---- source-specific groups ----


@pytest.mark.parametrize("scheme, source, group", [
    ("udp", "10.91.0.1", SSM_GROUP),
    ("rtp", "10.91.0.1", SSM_GROUP),
    ("udp", "10.91.0.1:0", SSM_GROUP),
    ("udp", "10.91.0.1:7", GROUP),  # outside the range for it, a source is heeded all the same
    ("udp", "fd91::1:0", SSM_GROUP6),
    ("rtp", "fd91::1:0", SSM_GROUP6),
])
def test_a_source_specific_group_keeps_another_source_out(kvt, link, scheme, source, group):
    watch(kvt, link, f"{scheme}://{source}@{url_host(group)}:{PORT}", "-m", "rx0")
    family = family_of(group)
    wanted, other = (Link.GOOD, Link.OTHER) if family == socket.AF_INET else (Link.GOOD6, Link.OTHER6)
    assert link.receiver.groups() == {("rx0", group): 1}
    assert link.receiver.filters() == {("rx0", group, wanted): (1, 0)}
    datagrams = with_rtp(SENT) if scheme == "rtp" else SENT
    with link.speaker(wanted, family=family) as good, link.speaker(other, family=family) as bad:
        say(bad, group, OTHERS)
        for mine, foreign in itertools.zip_longest(datagrams, OTHERS):
            say(good, group, [mine])
            if foreign:
                say(bad, group, [foreign])
    wait_received(link.receiver, family, len(datagrams))
    assert kvt.snapshot() == b"".join(datagrams)
    assert_ends(kvt, link)


def test_without_a_source_every_sender_of_the_group_is_heard(kvt, link):
    """What the source of a source-specific group is good for: two senders on a group make a mess."""
    watch(kvt, link, f"udp://{SSM_GROUP}:{PORT}", "-m", "rx0")
    with link.speaker(Link.GOOD) as good, link.speaker(Link.OTHER) as bad:
        say(good, SSM_GROUP, SENT[:20])
        say(bad, SSM_GROUP, OTHERS[:5])
    wait_received(link.receiver, socket.AF_INET, 25)
    assert kvt.snapshot() == b"".join(SENT[:20] + OTHERS[:5])
    assert_ends(kvt, link)


@pytest.mark.parametrize("source, group, reason", [
    # The text behind the last colon of an address that ends in digits is taken for a port.
    ("fd91::1", SSM_GROUP6, "mk_sockaddr: cannot accept plain number [fd91:] as IP address"),
    ("::1:0", SSM_GROUP6, "mk_sockaddr: cannot accept plain number [::1] as IP address"),
    ("1234", SSM_GROUP, "mk_sockaddr: cannot accept plain number [1234] as IP address"),
    # What the resolver refuses has no line of its own.
    ("[fd91::1]:0", SSM_GROUP6, None),
    ("10.91.0.1:x", SSM_GROUP, None),
])
def test_a_source_that_is_no_address_is_refused(kvt, link, source, group, reason):
    assert refuse(kvt, link, f"udp://{source}@{url_host(group)}:{PORT}", "-m", "rx0") == 1
    errors = [line.split("KVTI  ")[1] for line in kvt.log_text().splitlines() if "(ERR)" in line]
    assert errors == [reason] * bool(reason) + [f"open_socket: invalid SSM source: {source}"]
    assert kvt.shared_memory() == []


def test_an_ipv6_source_that_ends_in_a_letter_needs_no_port(kvt, link):
    watch(kvt, link, f"udp://fd91::a@[{SSM_GROUP6}]:{PORT}", "-m", "rx0")
    assert link.receiver.filters() == {("rx0", SSM_GROUP6, "fd91::a"): (1, 0)}
    assert_ends(kvt, link)


def test_a_source_of_another_family_than_the_group_stops_the_process(kvt, link):
    assert refuse(kvt, link, f"udp://10.91.0.1@[{SSM_GROUP6}]:{PORT}", "-m", "rx0") == -signal.SIGABRT
    assert "Assertion `src->ss_family == group->ss_family' failed" in kvt.stderr()
    for left in kvt.shared_memory():
        left.unlink()


def test_a_source_before_a_unicast_address_filters_nothing(kvt, link):
    watch(kvt, link, f"udp://10.91.0.3@10.91.0.2:{PORT}")
    assert_receives(kvt, link, "10.91.0.2")
    assert_ends(kvt, link)


# ---- sharing ----


@pytest.mark.parametrize("group", [GROUP, GROUP6])
def test_two_processes_on_one_group_and_port_both_get_all_of_it(kvt_factory, link, group):
    first, second = kvt_factory("first"), kvt_factory("second")
    for kvt in (first, second):
        watch(kvt, link, f"udp://{url_host(group)}:{PORT}", "-m", "rx0")
    assert link.receiver.groups() == {("rx0", group): 2}
    with link.speaker(family=family_of(group)) as speaker:
        say(speaker, group, SENT)
    wait_received(link.receiver, family_of(group), 2 * COUNT)
    assert first.snapshot() == second.snapshot() == b"".join(SENT)
    assert first.stop() == 0
    assert link.receiver.groups() == {("rx0", group): 1}
    assert_ends(second, link)


def test_two_processes_on_one_unicast_port_share_it_and_one_gets_the_flow(kvt_factory, link):
    """The second is not refused: the kernel gives each sender's datagrams to one of the two."""
    first, second = kvt_factory("first"), kvt_factory("second")
    for kvt in (first, second):
        watch(kvt, link, f"udp://10.91.0.2:{PORT}")
    with link.speaker() as speaker:
        say(speaker, "10.91.0.2", SENT)
    wait_received(link.receiver, socket.AF_INET, COUNT)
    heard = [kvt for kvt in (first, second) if "TS stream detected" in kvt.log_text()]
    assert [kvt.snapshot() for kvt in heard] == [b"".join(SENT)]


def test_another_group_on_the_same_port_is_not_heard(kvt_factory, link):
    first, second = kvt_factory("first"), kvt_factory("second")
    watch(first, link, f"udp://{GROUP}:{PORT}", "-m", "rx0")
    watch(second, link, f"udp://{SSM_GROUP}:{PORT}", "-m", "rx0")
    assert link.receiver.groups() == {("rx0", GROUP): 1, ("rx0", SSM_GROUP): 1}
    with link.speaker() as speaker:
        say(speaker, SSM_GROUP, OTHERS)
        say(speaker, GROUP, SENT)
    wait_received(link.receiver, socket.AF_INET, len(OTHERS) + COUNT)
    assert first.snapshot() == b"".join(SENT)
    assert second.snapshot() == b"".join(OTHERS)


def test_the_same_group_on_another_interface_is_not_heard(kvt, link):
    watch(kvt, link, f"udp://{GROUP}:{PORT}", "-m", "rx0")
    with link.speaker(device="tx1", source="10.91.1.1") as aside:
        say(aside, GROUP, OTHERS)
    assert_receives(kvt, link, GROUP)


@pytest.mark.parametrize("url", [f"udp://{GROUP}:{PORT}", f"udp://10.91.0.1@{SSM_GROUP}:{PORT}",
                                 f"udp://fd91::1:0@[{SSM_GROUP6}]:{PORT}"])
def test_a_killed_process_leaves_no_membership(kvt, link, url):
    watch(kvt, link, url, "-m", "rx0")
    assert len(link.receiver.groups()) == 1
    kvt.kill()
    assert link.receiver.groups() == {} and link.receiver.filters() == {}
    for left in kvt.shared_memory():
        left.unlink()


# ---- unicast, and what goes missing on the way ----


@pytest.mark.parametrize("url, datagrams", [
    (f"udp://10.91.0.2:{PORT}", SENT),
    (f"rtp://10.91.0.2:{PORT}", with_rtp(SENT)),
    (f"udp://0.0.0.0:{PORT}", SENT),
    (f"udp://[::]:{PORT}", SENT),
])
def test_a_unicast_address_of_the_host_is_bound_to(kvt, link, url, datagrams):
    watch(kvt, link, url)
    assert list(link.receiver.udp_sockets()) == [PORT]
    with link.speaker() as speaker:
        say(speaker, "10.91.0.2", datagrams)
    wait_until(lambda: link.receiver.counter("Udp", "InDatagrams") + link.receiver.counter("Udp6", "InDatagrams")
               == COUNT, "the datagrams to be received")
    assert kvt.snapshot() == b"".join(datagrams)
    assert_ends(kvt, link)


def test_a_unicast_address_of_another_host_is_refused(kvt, link):
    """A datagram source names where to receive, not whom to ask."""
    assert refuse(kvt, link, f"udp://10.91.0.1:{PORT}") == 1
    assert re.search(r"reuse_and_bind: bind\(.*\): ERROR\(99\)", kvt.log_text())


def test_a_sender_that_the_reverse_path_filter_drops_is_not_heard(kvt, link):
    link.receiver.sysctl(net__ipv4__conf__rx0__rp_filter=1)
    link.sender.run("ip", "addr", "add", "192.0.2.9/32", "dev", "tx0")  # the receiver has no route there
    watch(kvt, link, f"udp://{GROUP}:{PORT}", "-m", "rx0")
    with link.speaker("192.0.2.9") as speaker:
        say(speaker, GROUP, OTHERS)
        wait_until(lambda: link.receiver.counter("TcpExt", "IPReversePathFilter") == len(OTHERS), "the drops")
        link.receiver.sysctl(net__ipv4__conf__rx0__rp_filter=0)
        say(speaker, GROUP, SENT)
    wait_received(link.receiver, socket.AF_INET, COUNT)
    assert kvt.snapshot() == b"".join(SENT)


def test_what_the_receiver_is_too_slow_for_is_counted_by_the_kernel_and_looks_like_network_loss(kvt, link):
    sent = sample_datagrams(500)
    watch(kvt, link, f"udp://{GROUP}:{PORT}", "-m", "rx0", "-A", "on", "-A", "cc_track=1", "-A", "skipped_pkts=9000")
    with link.speaker() as speaker:
        say(speaker, GROUP, sent[:COUNT])
        wait_received(link.receiver, socket.AF_INET, COUNT)
        kvt.wait_log("Added .* streams from PMT")
        kvt.send(signal.SIGSTOP)
        say(speaker, GROUP, sent[COUNT:])
        wait_until(lambda: link.receiver.counter("IpExt", "InMcastPkts") == len(sent), "all to arrive")
        dropped = link.receiver.udp_sockets()[PORT][1]
        assert 0 < dropped < len(sent) - COUNT
        kvt.send(signal.SIGCONT)
        wait_received(link.receiver, socket.AF_INET, len(sent) - dropped)
        say(speaker, GROUP, sample_datagrams(600)[500:560])
    assert link.receiver.udp_sockets()[PORT][1] == link.receiver.counter("Udp", "RcvbufErrors") == dropped
    assert kvt.wait_alert("CC-BRK")
    assert len(kvt.snapshot()) < 1316 * 560
    assert_ends(kvt, link)
