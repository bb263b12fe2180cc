#!/usr/bin/env python3
"""CPU time of kvt on a TCP source at full speed, against a bare program that only reads the same bytes.

    e2e_tcp.py BUILD_FOLDER [--mb MEGABYTES] [--runs N]

Both run in turn, run by run; the ratio's median is what counts (goal: at most 1.5). kvt runs with continuity, PCR and
PTS checks on. The bytes are a clean stream made by ffmpeg, sent over and over with running counters.
"""
import argparse
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import tsfile as ts  # noqa: E402

CACHE_MB = 8
PIECE = 7 * ts.PACKET_BYTES
READ_BYTES = 4096 + 188 // 2  # what a full ring has vacant before a read: min_bytes_left and up to a packet more
CONFIG = """
kvt: {{
    log: {{ file = "{work}/kvt.log"; level = "norm"; enable_syslog = false; }};
    alert_log: {{ file = "{work}/alerts.log"; enable_syslog = false; }};
    runtime: {{ non_daemon = true; quiet = true; }};
    cache: {{ size_mb = {cache}; }};
    stream_analyzer: {{ enabled = true; access_log_alerts = true; max_pdts_delta_ms = 500; max_pcr_delta_ms = 1000;
        pcr_freq_ms = 100; cc: {{ track = true; }}; }};
}};
"""


def looped(path):
    """A stretch of stream that can follow itself without a break: sixteen rounds with counters running on."""
    packets = list(ts.packets(path.read_bytes()))
    counts = {}
    for packet in packets:
        if ts.has_payload(packet):
            counts[ts.pid(packet)] = counts.get(ts.pid(packet), 0) + 1
    out = bytearray()
    for round_number in range(16):
        for packet in packets:
            shift = round_number * counts.get(ts.pid(packet), 0)
            out += packet[:3] + bytes([packet[3] & 0xF0 | (packet[3] + shift) & 0x0F]) + packet[4:]
    return bytes(out)


def feed(listener, data, total):
    """Writes as senders of transport streams do, seven packets at a time. With larger writes the sender outruns both
    readers, and the kernel then charges whoever reads for pushing the sender's data on: a matter of who waits for
    whom, and not of what the reader does with the bytes."""
    connection, _ = listener.accept()
    view = memoryview(data)
    with connection:
        left, at = total, 0
        while left > 0:
            size = min(PIECE, len(data) - at, left)
            connection.sendall(view[at:at + size])
            at = (at + size) % len(data)
            left -= size


def cpu_seconds(command, data, total, listener):
    thread = threading.Thread(target=feed, args=(listener, data, total))
    thread.start()
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    thread.join()
    if child.returncode:
        raise SystemExit(f"{command[0]} left with {child.returncode}")
    return usage.ru_utime + usage.ru_stime, usage.ru_utime


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--mb", type=int, default=1024)
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        work = Path(name)
        clean = work / "clean.ts"
        subprocess.run([ROOT / "scripts/sample/make_stream.sh", clean, "20"], check=True)
        data = looped(clean)
        listener = socket.create_server(("127.0.0.1", 0))
        port = listener.getsockname()[1]
        (work / "kvt.conf").write_text(CONFIG.format(work=work, cache=CACHE_MB))
        kvt = [args.build / "kvt", "-T", "-C", work / "kvt.conf", "-i", f"tcp://127.0.0.1:{port}", "-S", "bench"]
        bare = [args.build / "bare_reader", "127.0.0.1", str(port), str(CACHE_MB << 20), str(READ_BYTES)]
        rows = []
        total = (args.mb << 20) // ts.PACKET_BYTES * ts.PACKET_BYTES
        for run in range(args.runs + 1):
            a, a_user = cpu_seconds([str(c) for c in kvt], data, total, listener)
            b, _ = cpu_seconds([str(c) for c in bare], data, total, listener)
            if run:  # the first pair warms up
                rows.append((a, b, a_user))
        ratio = statistics.median(a / b for a, b, _ in rows)
        packets = total / ts.PACKET_BYTES
        print(f"e2e tcp {args.mb} MiB, {args.runs} pairs: kvt {statistics.median(r[0] for r in rows):.3f} s CPU "
              f"({statistics.median(r[2] for r in rows) / packets * 1e9:.1f} ns user a packet), "
              f"bare reader {statistics.median(r[1] for r in rows):.3f} s CPU, ratio {ratio:.2f} (goal: 1.5)")


main()
