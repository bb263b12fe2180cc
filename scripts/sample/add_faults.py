#!/usr/bin/env python3
"""Puts known faults into a clean stream and writes down the alerts that they must raise.

    add_faults.py CLEAN.ts FAULTY.ts EXPECTED.txt

The clean stream is what make_stream.sh makes. Each fault has a time in the stream and raises the alerts beside it,
under the settings of tests/data/sample.conf. EXPECTED.txt has a line per alert, in the order of the stream: the
alert's name and the fields that the fault decides.
"""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
import tsfile as ts  # noqa: E402

VIDEO, AUDIO_1, AUDIO_2, PMT_PID = 0x100, 0x101, 0x102, 0x1000
NEW_PROGRAM, NEW_PMT_PID = 2, 0x1100
PACKETS_PER_DATAGRAM = 7
MS = 90  # ticks


class Stream:
    """The packets with their times, edited in place; a dropped packet becomes None."""

    def __init__(self, data):
        self.packets = list(ts.packets(data))
        self.times = self._times()
        self.expected = []  # (position in the stream, line)

    def _times(self):
        """Seconds since the first PCR, for each packet."""
        first, now, times = None, 0.0, []
        for packet in self.packets:
            base = ts.pcr(packet)
            if base is not None:
                first = base if first is None else first
                now = ts.ticks_between(first, base) / ts.TICKS_PER_SECOND
            times.append(now)
        return times

    def find(self, seconds, wanted):
        """First packet at or behind a time for which wanted(packet) holds."""
        for at, (time, packet) in enumerate(zip(self.times, self.packets)):
            if time >= seconds and packet is not None and wanted(packet):
                return at
        raise ValueError(f"no such packet behind {seconds} s")

    def expect(self, at, *fields):
        self.expected.append((at, " ".join(str(field) for field in fields)))

    def payload_before(self, at, pid):
        return next(p for p in reversed(self.packets[:at]) if p and ts.pid(p) == pid and ts.has_payload(p))

    def edit(self, seconds, until, pid, change):
        for at, (time, packet) in enumerate(zip(self.times, self.packets)):
            if seconds <= time < until and packet is not None and ts.pid(packet) == pid:
                self.packets[at] = change(packet)

    # ---- faults ----

    def drop(self, seconds, pid, count):
        """Loses packets with payload: one break where the next packet of the PID arrives."""
        at = self.find(seconds, lambda p: ts.pid(p) == pid and plain(p))
        last = ts.continuity(self.payload_before(at, pid))
        while True:
            if self.packets[at] is not None and ts.pid(self.packets[at]) == pid:
                if count == 0:
                    break
                if not plain(self.packets[at]):
                    raise ValueError("the loss would take a PCR or a PES header with it")
                self.packets[at] = None
                count -= 1
            at += 1
        self.expect(at, "CC-BRK", pid, last, ts.continuity(self.packets[at]))

    def silence(self, until, pid, alert_at):
        """A track that the PMT promises sends nothing until a time."""
        self.edit(0, until, pid, lambda p: None)
        self.expect(self.find(alert_at, lambda p: True), "PID-NDAT", pid)

    def new_pmt_version(self, seconds):
        at = self.find(seconds, lambda p: ts.pid(p) == PMT_PID)
        self.edit(seconds, 1e9, PMT_PID, lambda p: ts.section_packet(p, ts.with_version(ts.section(p)[:-4], 1)))
        self.expect(at, "PMT-DIFF", PMT_PID)

    def new_program(self, seconds):
        def change(packet):
            body = ts.with_version(ts.section(packet)[:-4], 1)
            entry = NEW_PROGRAM.to_bytes(2, "big") + (0xE000 | NEW_PMT_PID).to_bytes(2, "big")
            return ts.section_packet(packet, body + entry)

        at = self.find(seconds, lambda p: ts.pid(p) == 0)
        self.edit(seconds, 1e9, 0, change)
        self.expect(at, "PAT-DIFF", 0)

    def lose_pcrs(self, seconds, until):
        """A stretch without PCR: the first one behind it comes too late."""
        self.edit(seconds, until, VIDEO, without_pcr)
        at = self.find(until, lambda p: ts.pid(p) == VIDEO and ts.pcr(p) is not None)
        self.expect(at, "PCR-FREQ", VIDEO)

    def move_timestamp(self, seconds, pid, new_value, *alerts):
        """Gives one PES packet of a track another PTS; new_value gets the PTS and the video's last one."""
        at = self.find(seconds, lambda p: ts.pid(p) == pid and ts.pes_times(p)[0] is not None)
        pts, _ = ts.pes_times(self.packets[at])
        video = next(ts.pes_times(p)[0] for p in reversed(self.packets[:at])
                     if p and ts.pid(p) == VIDEO and ts.pes_times(p)[0] is not None)
        value = new_value(pts, video) % ts.WRAP
        self.packets[at] = ts.set_pts(self.packets[at], value)
        for alert in alerts:
            self.expect(at, alert, "pts", pid, value)

    def restart_counter(self, seconds, pid, alert):
        """From a time on the counter of a PID starts again at 0."""
        at = self.find(seconds, lambda p: ts.pid(p) == pid and ts.has_payload(p) and ts.continuity(p) != 0)
        last = ts.continuity(self.payload_before(at, pid))
        shift = ts.continuity(self.packets[at])
        for n, packet in enumerate(self.packets[at:], at):
            if packet is not None and ts.pid(packet) == pid:
                self.packets[n] = packet[:3] + bytes([packet[3] & 0xF0 | (packet[3] - shift) & 0x0F]) + packet[4:]
        self.expect(at, alert, pid, last, 0)

    def lose_sync(self, seconds, times):
        """A damaged sync byte inside a datagram. The reader meets it again with each read and gives up at last."""
        kept = [at for at, packet in enumerate(self.packets) if packet is not None]
        first = self.find(seconds, lambda p: True)
        at = next(at for n, at in enumerate(kept) if at >= first and n % PACKETS_PER_DATAGRAM == 3)
        self.packets[at] = b"\0" + self.packets[at][1:]
        for count in range(1, times + 1):
            self.expect(at, "LOST-SYNC", count)


def plain(packet):
    """A packet whose loss breaks nothing but the counter."""
    return ts.has_payload(packet) and not ts.unit_start(packet) and ts.pcr(packet) is None


def without_pcr(packet):
    if ts.pcr(packet) is None:
        return packet
    end = 5 + packet[4]  # of the adaptation field: flags, 6 bytes of PCR, whatever else it holds
    flags = bytes([packet[5] & ~0x10 & 0xFF])
    return packet[:5] + flags + packet[12:end] + b"\xff" * 6 + packet[end:]


def main():
    clean, faulty, expected = sys.argv[1:4]
    stream = Stream(Path(clean).read_bytes())
    stream.silence(8.0, AUDIO_2, alert_at=5.2)
    stream.drop(2.5, VIDEO, 1)
    stream.drop(4.0, AUDIO_1, 3)
    stream.new_pmt_version(11.0)
    stream.lose_pcrs(13.0, 13.3)
    stream.move_timestamp(15.0, AUDIO_1, lambda pts, video: video - 600 * MS, "AV-DELTA+")
    stream.move_timestamp(16.0, AUDIO_1, lambda pts, video: pts + 2000 * MS, "PCR-DELTA", "AV-DELTA+")
    stream.move_timestamp(17.0, AUDIO_2, lambda pts, video: video + MS // 2, "AV-DELTA0")
    stream.new_program(19.0)
    stream.restart_counter(21.0, AUDIO_2, "CC-BRK")
    stream.restart_counter(25.0, AUDIO_2, "CC-RST")
    stream.lose_sync(28.0, times=10)
    Path(faulty).write_bytes(b"".join(p for p in stream.packets if p is not None))
    lines = [line for _, line in sorted(stream.expected, key=lambda e: e[0])]
    Path(expected).write_text("\n".join(lines) + "\n")


main()
