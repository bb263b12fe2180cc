#!/usr/bin/env python3
"""Plays a transport stream file to a UDP address at the pace of its PCRs.

    send.py FILE HOST PORT [--rtp] [--speed FACTOR] [--no-end]

Seven packets a datagram. Behind the last one comes an empty datagram, which kvt takes for the end of the data.
Leaves quietly when the receiver has gone.
"""
import argparse
import errno
import socket
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
import tsfile as ts  # noqa: E402

PACKETS_PER_DATAGRAM = 7
RTP_PAYLOAD_MPEG_TS = 33
DISCONTINUITY_SECONDS = 2


def datagrams(data):
    size = PACKETS_PER_DATAGRAM * ts.PACKET_BYTES
    for at in range(0, len(data), size):
        yield data[at:at + size]


def first_pcr(datagram):
    for at in range(0, len(datagram) - ts.PACKET_BYTES + 1, ts.PACKET_BYTES):
        packet = datagram[at:at + ts.PACKET_BYTES]
        if packet[0] == ts.SYNC and (base := ts.pcr(packet)) is not None:
            return base
    return None


def due_times(data):
    """When each datagram is due, in seconds, spread evenly between those that carry a PCR."""
    marks, clock, last = [], 0.0, None
    for number, datagram in enumerate(datagrams(data)):
        base = first_pcr(datagram)
        if base is None:
            continue
        if last is not None:
            step = ts.ticks_between(last, base) / ts.TICKS_PER_SECOND
            clock += step if step < DISCONTINUITY_SECONDS else 0
        last = base
        marks.append((number, clock))
    if len(marks) < 2:
        raise SystemExit("no two PCRs in the file: there is no pace to play it at")
    total = (len(data) + PACKETS_PER_DATAGRAM * ts.PACKET_BYTES - 1) // (PACKETS_PER_DATAGRAM * ts.PACKET_BYTES)
    times, mark = [], 0
    for number in range(total):
        while mark + 2 < len(marks) and number >= marks[mark + 1][0]:
            mark += 1
        (n0, t0), (n1, t1) = marks[mark], marks[mark + 1]
        times.append(t0 + (number - n0) * (t1 - t0) / (n1 - n0))
    return [t - times[0] for t in times]


def rtp_header(sequence, seconds):
    return bytes([0x80, RTP_PAYLOAD_MPEG_TS]) + (sequence & 0xFFFF).to_bytes(2, "big") \
        + (int(seconds * ts.TICKS_PER_SECOND) & 0xFFFFFFFF).to_bytes(4, "big") + b"kvt1"


def main():
    parser = argparse.ArgumentParser(description="Plays a transport stream file to a UDP address at its own pace.")
    parser.add_argument("file")
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--rtp", action="store_true", help="put an RTP header before each datagram's packets")
    parser.add_argument("--speed", type=float, default=1.0, help="how many times faster than the stream's own pace")
    parser.add_argument("--no-end", action="store_true", help="send no empty datagram at the end")
    args = parser.parse_args()

    data = Path(args.file).read_bytes()
    family, _, _, _, address = socket.getaddrinfo(args.host, args.port, type=socket.SOCK_DGRAM)[0]
    sock = socket.socket(family, socket.SOCK_DGRAM)
    sock.connect(address)
    start = time.monotonic()
    try:
        for number, (datagram, due) in enumerate(zip(datagrams(data), due_times(data))):
            wait = start + due / args.speed - time.monotonic()
            if wait > 0:
                time.sleep(wait)
            sock.send(rtp_header(number, due) + datagram if args.rtp else datagram)
        if not args.no_end:
            sock.send(b"")
    except OSError as error:
        if error.errno != errno.ECONNREFUSED:
            raise


try:
    main()
except KeyboardInterrupt:
    pass
