"""kvt-play and what it takes to see what it does: streams whose packets can be told apart, and a receiver."""
import socket
import struct
import subprocess
import threading

import pytest

import tsfile as ts
from conftest import BUILD, wait_until

PLAY = BUILD / "kvt-play"
DATAGRAM = 7 * ts.PACKET_BYTES
RTP_HEAD = struct.Struct(">BBHII")
IP_RECVTTL, IP_TTL, SO_TIMESTAMPNS = 12, 2, 35  # of Linux


def packet(pid, number, pcr=None):
    """A packet that can be told from all others by its number."""
    head = bytes([ts.SYNC, pid >> 8, pid & 0xFF, 0x30 | number & 0xF])
    if pcr is None:
        field = bytes([1, 0])
    else:
        pcr %= ts.WRAP
        field = bytes([7, 0x10]) + struct.pack(">IBB", pcr >> 1, (pcr & 1) << 7 | 0x7E, 0)
    body = struct.pack(">I", number) + bytes((number * 7 + i) % 64 for i in range(ts.PACKET_BYTES))
    return (head + field + body)[:ts.PACKET_BYTES]


def make_stream(seconds=1.0, rate=1000, every=20, first=5, clock=lambda ticks: ticks + 900000, pid=256):
    """A stream of so many packets a second, with a PCR in every n-th; `clock` makes the PCR of a time in ticks."""
    count = int(seconds * rate)
    return b"".join(packet(pid, n, clock(n * ts.TICKS_PER_SECOND // rate) if n % every == first else None)
                    for n in range(count))


class Receiver:
    """A socket whose datagrams are collected, each with its time, time to live and sender.

    `made` is a socket to take for it, of another network; `interface` the address that it joins a group by.
    """

    def __init__(self, group=None, made=None, interface="127.0.0.1"):
        self.socket = made or socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.socket.bind((group or "127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.address = f"{group or '127.0.0.1'}:{self.port}"
        if group:
            member = socket.inet_aton(group) + socket.inet_aton(interface)
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
        self.socket.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)  # when it came, not when we got round to it
        self.socket.settimeout(0.05)
        self.datagrams, self.times, self.ttls, self.senders = [], [], [], []
        self.is_open = True
        self.thread = threading.Thread(target=self.collect)
        self.thread.start()

    def collect(self):
        while self.is_open:
            try:
                data, control, _, sender = self.socket.recvmsg(2048, 128)
            except TimeoutError:
                continue
            notes = {kind: value for _, kind, value in control}
            sec, nsec = struct.unpack("qq", notes[SO_TIMESTAMPNS])
            self.times.append(sec + nsec / 1e9)
            self.ttls.append(struct.unpack("i", notes[IP_TTL])[0])
            self.senders.append(sender[0])
            self.datagrams.append(data)

    def close(self):
        self.is_open = False
        self.thread.join()
        self.socket.close()

    def all(self, size):
        """All that comes, once it is so many bytes in all or is late."""
        wait_until(lambda: sum(map(len, self.datagrams)) >= size, f"{size} bytes, of which there are "
                   f"{sum(map(len, self.datagrams))}")
        return b"".join(self.datagrams)


@pytest.fixture
def receiver():
    r = Receiver()
    yield r
    r.close()


def play(*args, inside=(), **kwargs):
    """Runs kvt-play to its end. inside: words to put before it, such as those that enter a namespace."""
    return subprocess.run([str(a) for a in (*inside, PLAY, *args)], capture_output=True, text=True, timeout=60, **kwargs)


@pytest.fixture
def player():
    """Starts kvt-play in the background; what is left of it is killed."""
    started = []

    def start(*args, **kwargs):
        started.append(subprocess.Popen([str(a) for a in (PLAY, *args)], stderr=subprocess.PIPE, text=True, **kwargs))
        return started[-1]
    yield start
    for process in started:
        if process.poll() is None:
            process.kill()
        process.wait()
        process.stderr.close()


def write(path, data):
    path.write_bytes(data)
    return path
