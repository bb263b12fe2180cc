#!/usr/bin/env python3
"""Pace and memory of building the index of a large recording that lies in the page cache.

    index_big.py BUILD_FOLDER [--gb GIGABYTES] [--rsize BYTES] [--cached BYTES] [--runs N] [--dir FOLDER]

The recording is a stretch of a constant-rate stream, written over and over with its PCRs running on; it is made in
FOLDER and removed in any case. Goals: at least 2 GB in a second of CPU time (best run; the clock on the wall would
measure the machine's other work, too), and no more memory than one load and 16 MiB. The index is checked by its count of
records and its last clock. Full size: --gb 10.
"""
import argparse
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import tsfile as ts  # noqa: E402

GOAL_GB_PER_SECOND = 2.0
GOAL_SPARE_BYTES = 16 << 20
DEFAULT_LOAD = 1073741696
STRETCH_PACKETS = 87360  # 16 MB; a multiple of the PCR's period and of seven
PCR_EVERY = 280          # packets: 40 ms at 10.5 Mbit/s
PCR_STEP = 3600
FIRST_PCR_AT = 3
HEADER = struct.Struct("<4sBBHQH16s")


def stretch():
    """Packets without PCR but for one in every PCR_EVERY, whose places are returned too."""
    plain = bytes([ts.SYNC, 0x01, 0x00, 0x10]) + bytes(range(184))
    with_pcr = bytes([ts.SYNC, 0x01, 0x00, 0x20, 183, 0x10]) + bytes(182)
    assert len(plain) == len(with_pcr) == ts.PACKET_BYTES and STRETCH_PACKETS % PCR_EVERY == 0
    places = range(FIRST_PCR_AT, STRETCH_PACKETS, PCR_EVERY)
    data = bytearray(plain * STRETCH_PACKETS)
    for at in places:
        data[at * ts.PACKET_BYTES:(at + 1) * ts.PACKET_BYTES] = with_pcr
    return data, [at * ts.PACKET_BYTES for at in places]


def write_recording(path, size):
    """At least `size` bytes; the number of PCRs."""
    data, places = stretch()
    clock = 0
    with path.open("wb", buffering=0) as out:
        while out.tell() < size:
            for at in places:
                base = clock % ts.WRAP
                data[at + 6:at + 11] = struct.pack(">IB", base >> 1, (base & 1) << 7)
                clock += PCR_STEP
            out.write(data)
    return clock // PCR_STEP


def check_index(path, ts_size, rsize, pcrs):
    """The count of records, the last clock: steps of PCR_STEP, and at both ends the same rate."""
    with path.open("rb") as fp:
        magic, _, _, _, count, record_bytes, _ = HEADER.unpack(fp.read(HEADER.size))
        fp.seek(-record_bytes, 2)
        last = struct.unpack("<Q", fp.read(8))[0]
    assert magic == b"TSIX", magic
    assert count == -(-ts_size // rsize), (count, ts_size, rsize)
    want = pcrs * PCR_STEP
    # Two ends are rounded to whole records, and rated by an interval that is.
    slack = 2 + 4 * PCR_STEP * rsize // (PCR_EVERY * ts.PACKET_BYTES)
    assert abs(last - want) <= slack, (last, want, slack)


def one_run(args, recording, index):
    index.unlink(missing_ok=True)
    command = ["/usr/bin/time", "-f", "%e %U %S %M", args.build / "tsix", "make", "-r", str(args.rsize), "-c",
               str(args.cached), recording]
    done = subprocess.run([str(c) for c in command], stderr=subprocess.PIPE, text=True)
    if done.returncode:
        raise SystemExit(done.stderr)
    wall, user, system, rss_kib = done.stderr.split()[-4:]
    return float(wall), float(user), float(system), int(rss_kib) << 10


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--gb", type=float, default=0.5)
    parser.add_argument("--rsize", type=int, default=7 * ts.PACKET_BYTES)
    parser.add_argument("--cached", type=int, default=0, help="size of a load; 0: the library's own choice")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--dir", type=Path, default=Path("/tmp"))
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=args.dir, prefix="kvt-index-") as work:
        recording = Path(work) / "big.ts"
        index = Path(work) / "big.ix"
        pcrs = write_recording(recording, int(args.gb * 1e9))
        size = recording.stat().st_size
        rows = [one_run(args, recording, index) for _ in range(args.runs)]
        check_index(index, size, args.rsize, pcrs)
    wall, user, system, _ = min(rows, key=lambda row: row[1] + row[2])
    rss = max(row[3] for row in rows)
    load = min(args.cached or DEFAULT_LOAD, size)
    rate = size / (user + system) / 1e9
    spare = (rss - load) / (1 << 20)
    print(f"index of {size / 1e9:.2f} GB, records of {args.rsize} bytes, loads of {load / 1e6:.0f} MB: "
          f"{rate:.1f} GB a CPU second (goal: {GOAL_GB_PER_SECOND}), {user:.2f} s user, {system:.2f} s system, {wall:.2f} s in "
          f"all; "
          f"memory: load and {spare:.1f} MiB (goal: 16)")
    if rate < GOAL_GB_PER_SECOND or rss > load + GOAL_SPARE_BYTES:
        raise SystemExit("index_big: missed")


main()
