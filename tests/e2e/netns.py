"""Networks of the tests' own: namespaces joined by veth pairs, whose traffic reaches nothing outside.

The namespaces have no names, so that parallel runs can't clash: each lives as long as a process that holds it, and
that process ends with the test, however the test ends.
"""
import ipaddress
import json
import os
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import ROOT, need, wait_until

SOCKET_MAKER = """
import socket, sys
made = socket.socket(int(sys.argv[1]), int(sys.argv[2]))
socket.send_fds(socket.socket(fileno=0), [b"."], [made.fileno()])
"""


class Namespace:
    """One network namespace. `inside` is what to put before a command that is to run in it."""

    def __init__(self, owner=None):
        # Without root, a user namespace of our own gives the right to make networks; a second one joins its owner.
        unshare = ["unshare", "--net"]
        self.user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
        if self.user:
            unshare = ["nsenter", f"--target={owner.pid}", *self.user, *unshare] if owner else \
                ["unshare", "--user", "--map-root-user", "--net"]
        # The holder ends when its standard input does.
        self.holder = subprocess.Popen([*unshare, "sh", "-c", "echo ready; exec cat"], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if self.holder.stdout.readline() != "ready\n":
            reason = self.holder.communicate()[1].strip()
            pytest.skip(f"no network namespace can be made here: {reason}")
        self.pid = self.holder.pid
        self.inside = ["nsenter", f"--target={self.pid}", *self.user, "--net", "--"]

    def run(self, *command):
        done = subprocess.run([*self.inside, *map(str, command)], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=20)
        assert done.returncode == 0, f"{command}: {done.stderr}"
        return done.stdout

    def sysctl(self, **values):
        self.run("sysctl", "-q", *[f"{name.replace('__', '.')}={value}" for name, value in values.items()])

    def socket(self, family, kind=socket.SOCK_DGRAM):
        """A socket of this namespace, for use by the test itself."""
        ours, theirs = socket.socketpair()
        with ours, theirs:
            maker = subprocess.run([*self.inside, "/usr/bin/python3", "-c", SOCKET_MAKER, str(int(family)),
                                    str(int(kind))], stdin=theirs, capture_output=True, timeout=20)
            assert maker.returncode == 0, maker.stderr
            _, fds, _, _ = socket.recv_fds(ours, 1, 1)
        return socket.socket(fileno=fds[0])

    def index(self, device):
        return json.loads(self.run("ip", "-j", "link", "show", device))[0]["ifindex"]

    def proc(self, name):
        """Lines of a table in this namespace's /proc/net, cut into fields."""
        return [line.split() for line in Path(f"/proc/{self.pid}/net/{name}").read_text().splitlines()]

    def counter(self, protocol, name):
        """A counter of the namespace, such as ("Udp", "InDatagrams"); IPv6 counters have the protocol in the name."""
        if protocol.endswith("6"):
            return {fields[0]: int(fields[1]) for fields in self.proc("snmp6")}[protocol + name]
        rows = [fields for table in ("snmp", "netstat") for fields in self.proc(table) if fields[0] == protocol + ":"]
        return int(dict(zip(rows[0], rows[1]))[name])

    # ---- multicast memberships ----

    def groups(self):
        """{(device, group): number of users}, without those that every interface has."""
        found, device = {}, None
        for fields in self.proc("igmp"):
            if fields[0].isdigit():
                device = fields[1]
            elif device and len(fields[0]) == 8:
                found[device, _from_raw(fields[0])] = int(fields[1])
        for fields in self.proc("igmp6"):
            found[fields[1], _from_hex(fields[2])] = int(fields[3])
        return {key: users for key, users in found.items() if not _everywhere(key[1])}

    def filters(self):
        """{(device, group, source): (including users, excluding users)} of source-specific memberships."""
        found = {}
        for fields in self.proc("mcfilter"):
            if fields[0].isdigit():
                group, source = (str(ipaddress.ip_address(int(text, 16))) for text in fields[2:4])
                found[fields[1], group, source] = int(fields[4]), int(fields[5])
        for fields in self.proc("mcfilter6"):
            if fields[0].isdigit():
                found[fields[1], _from_hex(fields[2]), _from_hex(fields[3])] = int(fields[4]), int(fields[5])
        return found

    def udp_sockets(self):
        """{port: (receive queue, drops)} of the UDP sockets here; the last of those that share a port."""
        found = {}
        for fields in self.proc("udp") + self.proc("udp6"):
            if ":" in fields[0]:
                found[int(fields[1].rsplit(":", 1)[1], 16)] = int(fields[4].split(":")[1], 16), int(fields[-1])
        return found

    def close(self):
        self.holder.communicate()


def _from_raw(text):
    """An IPv4 address as the kernel prints it in /proc/net/igmp: its bytes read as a number of this machine."""
    return socket.inet_ntoa(int(text, 16).to_bytes(4, "little" if socket.htons(1) != 1 else "big"))


def _from_hex(text):
    return str(ipaddress.ip_address(bytes.fromhex(text)))


def _everywhere(group):
    """Groups that the kernel joins by itself: all systems, all nodes, and those of the interface's own addresses."""
    return group in ("224.0.0.1", "ff01::1", "ff02::1") or group.startswith("ff02::1:ff")


class Link:
    """A sender's and a receiver's namespace, joined by two cables: tx0 to rx0 and tx1 to rx1.

    The sender has two addresses on tx0, of either family. Of IPv6 the receiver has link-local addresses only, and its
    route for multicast leads to rx1.
    """
    GOOD, OTHER = "10.91.0.1", "10.91.0.3"
    GOOD6, OTHER6 = "fd91::1", "fd91::a"

    def __init__(self):
        self.sender = Namespace()
        self.receiver = Namespace(self.sender)
        for space in (self.sender, self.receiver):
            space.sysctl(net__ipv6__conf__all__accept_dad=0, net__ipv6__conf__default__accept_dad=0,
                         net__ipv4__conf__all__rp_filter=0, net__ipv4__conf__default__rp_filter=0)
            space.run("ip", "link", "set", "lo", "up")
        for number in (0, 1):
            self.sender.run("ip", "link", "add", f"tx{number}", "type", "veth", "peer", "name", f"rx{number}", "netns",
                            self.receiver.pid)
            for space, device, address in ((self.sender, f"tx{number}", f"10.91.{number}.1/24"),
                                           (self.receiver, f"rx{number}", f"10.91.{number}.2/24")):
                space.run("ip", "addr", "add", address, "dev", device)
                space.run("ip", "link", "set", device, "addrgenmode", "none", "up")
        self.sender.run("ip", "addr", "add", self.OTHER + "/24", "dev", "tx0")
        for address in (self.GOOD6, self.OTHER6):
            self.sender.run("ip", "addr", "add", address + "/64", "dev", "tx0")
        for number in (0, 1):
            self.sender.run("ip", "addr", "add", "fe80::1/64", "dev", f"tx{number}")
            self.receiver.run("ip", "addr", "add", f"fe80::{number + 2}/64", "dev", f"rx{number}")
        self.receiver.run("ip", "route", "add", "224.0.0.0/4", "dev", "rx1")
        self.receiver.run("ip", "-6", "route", "add", "multicast", "ff00::/8", "dev", "rx1", "table", "local",
                          "metric", "1")

    def speaker(self, source=None, device="tx0", family=socket.AF_INET):
        """A socket of the sender, which sends to groups from this address over this cable."""
        sock = self.sender.socket(family)
        index = self.sender.index(device)
        if family == socket.AF_INET:
            sock.bind((source or self.GOOD, 0))
            mreqn = bytes(8) + index.to_bytes(4, "little" if socket.htons(1) != 1 else "big")
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, mreqn)
        else:
            sock.bind((source or self.GOOD6, 0))
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
        return sock

    def close(self):
        self.receiver.close()
        self.sender.close()


@pytest.fixture
def link():
    need("ip", "unshare", "nsenter", "sysctl")
    made = Link()
    yield made
    made.close()


@pytest.fixture
def island():
    """A namespace with nothing but its loopback."""
    need("ip", "unshare", "nsenter")
    space = Namespace()
    space.run("ip", "link", "set", "lo", "up")
    yield space
    space.close()


def sample_datagrams(count):
    """The first datagrams of the bundled stream, of seven packets each."""
    data = (ROOT / "tests/data/sample.ts").read_bytes()
    return [data[at * 1316:(at + 1) * 1316] for at in range(count)]


def with_rtp(datagrams):
    return [bytes([0x80, 33]) + number.to_bytes(2, "big") + bytes(8) + datagram
            for number, datagram in enumerate(datagrams)]


def wait_received(space, family, count):
    """Until so many datagrams have been taken out of the UDP sockets of a namespace."""
    protocol = "Udp" if family == socket.AF_INET else "Udp6"
    wait_until(lambda: space.counter(protocol, "InDatagrams") >= count, f"{count} datagrams to be received")
