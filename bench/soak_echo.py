#!/usr/bin/env python3
"""Short connections to the echo example, against a bare epoll echo: memory, descriptors, rate.

    soak_echo.py BUILD_FOLDER [--connections N] [--parallel N] [--rounds N]

Both services run at the same time and get the connections in turn, a round each; the median of the rounds' ratios is
what counts. Goals: at least 0.8 of the bare rate; after the first round the echo's private memory and descriptors stay
as they are. Full size: --connections 200000.
"""
import argparse
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

GOAL_RATIO = 0.8
SPARE_KIB = 128  # a page table or a stack page may come late
START_SECONDS = 10


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def wait_listening(port):
    end = time.monotonic() + START_SECONDS
    while True:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except ConnectionRefusedError:
            if time.monotonic() > end:
                raise
            time.sleep(0.01)


def start_echo(build, folder, port):
    config = Path(folder) / "echo.conf"
    config.write_text(f"echo: {{ user: {{ alias = \"soak\"; default_af = \"inet\"; port = {port}; }};"
                      " max_to_accept = 128; };")
    return subprocess.Popen([build / "example_echo", config])


def rate(build, port, count, parallel):
    done = subprocess.run([build / "echo_client", str(port), str(count), str(parallel)], stdout=subprocess.PIPE,
                          text=True, check=True)
    return count / float(done.stdout)


def held(pid):
    """Private memory in KiB, and the number of descriptors once all connections are gone."""
    def descriptors():
        return len(os.listdir(f"/proc/{pid}/fd"))

    last, end = descriptors(), time.monotonic() + START_SECONDS
    while time.monotonic() < end:
        time.sleep(0.05)
        now = descriptors()
        if now == last:
            break
        last = now
    status = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"RssAnon:\s+(\d+)", status)[1]), last


def cpu_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=lambda p: Path(p).resolve())
    parser.add_argument("--connections", type=int, default=20000, help="in all, to the echo")
    parser.add_argument("--parallel", type=int, default=32)
    parser.add_argument("--rounds", type=int, default=10)
    args = parser.parse_args()
    each = max(args.connections // args.rounds, 1)
    ports = {"echo": free_port(), "bare": free_port()}

    with tempfile.TemporaryDirectory() as folder:
        services = [start_echo(args.build, folder, ports["echo"]),
                    subprocess.Popen([args.build / "bare_echo", str(ports["bare"])])]
        try:
            for port in ports.values():
                wait_listening(port)
            ratios, rates, marks = [], [], []
            for _ in range(args.rounds):
                bare = rate(args.build, ports["bare"], each, args.parallel)
                echo = rate(args.build, ports["echo"], each, args.parallel)
                ratios.append(echo / bare)
                rates.append(echo)
                marks.append(held(services[0].pid))
            spent = [cpu_seconds(service.pid) * 1e6 / (args.rounds * each) for service in services]
        finally:
            for service in services:
                service.terminate()
            status = [service.wait() for service in services]

    ratio = statistics.median(ratios)
    grown = max(kib for kib, _ in marks) - marks[0][0]
    counts = sorted({count for _, count in marks})
    print(f"{args.rounds * each} connections, {args.parallel} at once: {statistics.median(rates):.0f}/s, "
          f"{ratio:.2f} of bare (goal {GOAL_RATIO}), CPU {spent[0]:.0f} us each, bare {spent[1]:.0f}; memory {marks[0][0]} KiB {grown:+} KiB, descriptors {counts}")
    problems = [text for text, is_bad in (("too slow", ratio < GOAL_RATIO), ("memory grows", grown > SPARE_KIB),
                                          ("descriptors leak", len(counts) > 1),
                                          ("the echo did not end in order", status[0] != 0)) if is_bad]
    if problems:
        sys.exit("soak_echo: " + ", ".join(problems))


if __name__ == "__main__":
    main()
