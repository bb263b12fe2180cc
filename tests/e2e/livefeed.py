"""A kvt that reads from the test, one send per read, and a model of what its ring must hold after each of them."""
import os
import time
from pathlib import Path

from conftest import DEADLINE

MB = 1 << 20
PACKET = 188
PACKED = 7 * PACKET  # a record of the ring's reader while nothing is analyzed


class RingModel:
    """What the ring holds, by what has gone in: whole records leave it ahead of a read when it is over its limit."""

    def __init__(self, size_mb=1, vacant=4096, record=PACKET):
        self.limit = size_mb * MB - vacant
        self.room = size_mb * MB
        self.record = record
        self.held = 0          # bytes while the program waits for the next read
        self.held_at_read = 0  # bytes right behind the last read, ahead of the capping

    def take_in(self, count):
        assert count <= self.room - self.held, "the read would be cut in two"
        self.held += count
        self.held_at_read = self.held
        if self.held > self.limit:
            while self.held >= self.limit:
                self.held -= self.record


class LiveFeed:
    """Sends a stream so that each send is one read of the program, and knows what has been sent."""

    def __init__(self, kvt, connection, stream, ring):
        self.kvt = kvt
        self.connection = connection
        self.stream = stream
        self.ring = ring
        self.sent = 0
        self.reads = 0
        self.base = None
        self.wait_asleep()
        self.base = self.bytes_read()

    def bytes_read(self):
        """What the program's reads have brought so far, by the kernel's count."""
        fields = Path(f"/proc/{self.kvt.pid}/io").read_text().split()
        return int(fields[fields.index("rchar:") + 1])

    def is_asleep(self):
        stat = Path(f"/proc/{self.kvt.pid}/stat").read_text()
        return stat.rsplit(")", 1)[1].split()[0] == "S"

    def wait_asleep(self):
        """The program is blocked in its read, with all that was sent behind it."""
        self.poll(lambda: self.all_read() and self.is_asleep(), "the program to wait for data")

    def all_read(self):
        return self.base is None or self.bytes_read() >= self.base + self.sent

    def poll(self, condition, what):
        end = time.monotonic() + DEADLINE
        while not condition():
            if time.monotonic() > end or self.kvt.process.poll() is not None:
                raise AssertionError(f"gave up waiting for {what}:\n{self.kvt.log_text()[-2000:]}")
            os.sched_yield()

    def send(self, count):
        """The next bytes of the stream, in one read."""
        chunk = self.stream[self.sent:self.sent + count]
        assert len(chunk) == count, "the stream is too short for this test"
        self.connection.sendall(chunk)
        self.sent += count
        self.reads += 1
        self.poll(self.all_read, "a read")
        self.ring.take_in(count)

    def send_up_to(self, total, sizes=(4096, 1316, 700, 188, 3001, 1)):
        """Sends in reads of these sizes in turn, until so many bytes have been sent."""
        number = 0
        while self.sent < total:
            self.send(min(sizes[number % len(sizes)], total - self.sent))
            number += 1
        self.wait_asleep()

    def kept(self, length):
        """The newest stretch of what was sent."""
        return self.stream[self.sent - length:self.sent]
