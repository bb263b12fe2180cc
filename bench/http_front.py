#!/usr/bin/env python3
"""Requests to the front end example, beside nginx with one worker that serves the same files.

    http_front.py BUILD_FOLDER [--seconds N] [--rounds N] [--connections N]

Both servers run at the same time and get the load of wrk in turn, a round each, on connections that are kept: a playlist
of 4 KiB, a segment of 1 MiB. The median of the rounds' ratios is what counts. Goals: half of nginx's rate for the
playlist, 0.9 of it for the segment.
"""
import argparse
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

LOADS = (("live.m3u8", 4 << 10, 0.5), ("segment.ts", 1 << 20, 0.9))  # file, size, goal
START_SECONDS = 10
TEMPORARY = "".join(f"    {kind}_temp_path {{folder}}/{kind};\n"
                    for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
NGINX = """
daemon off;
master_process off;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{ worker_connections 1024; }}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000000;
    types {{ video/MP2T ts; application/x-mpegURL m3u8; }}
""" + TEMPORARY + """    server {{ listen 127.0.0.1:{port}; root {root}; }}
}}
"""


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def fetch(port, name):
    """A file as the server gives it, once the server is there."""
    end = time.monotonic() + START_SECONDS
    while True:
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/{name}", timeout=START_SECONDS) as reply:
                return reply.read()
        except OSError:
            if time.monotonic() > end:
                raise
            time.sleep(0.02)


def cpu_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def load(server, port, name, args):
    """Requests per second, and CPU seconds of a request."""
    before = cpu_seconds(server.pid)
    done = subprocess.run(["wrk", "-t1", f"-c{args.connections}", f"-d{args.seconds}s",
                           f"http://127.0.0.1:{port}/{name}"], stdout=subprocess.PIPE, text=True, check=True)
    if re.search(r"Non-2xx|Socket errors", done.stdout):
        sys.exit(f"http_front: replies went wrong:\n{done.stdout}")
    count = int(re.search(r"(\d+) requests in", done.stdout)[1])
    return float(re.search(r"Requests/sec:\s+([\d.]+)", done.stdout)[1]), (cpu_seconds(server.pid) - before) / count


def start(build, folder, ports):
    root = folder / "root"
    root.mkdir()
    for name, size, _ in LOADS:
        (root / name).write_bytes(os.urandom(size))
    config = folder / "nginx.conf"
    config.write_text(NGINX.format(folder=folder, port=ports[1], root=root))
    return [subprocess.Popen([build / "example_front", "-p", str(ports[0]), root]),
            subprocess.Popen(["nginx", "-p", folder, "-e", folder / "error.log", "-c", config])]


def measure(servers, ports, args):
    """Whether all goals are met."""
    is_good = True
    for name, size, goal in LOADS:
        rounds = [[load(server, port, name, args) for server, port in zip(servers, ports)] for _ in range(args.rounds)]
        ratio = statistics.median(front[0] / nginx[0] for front, nginx in rounds)
        front, nginx = ([statistics.median(round[who][what] for round in rounds) for what in (0, 1)] for who in (0, 1))
        print(f"{name} of {size >> 10} KiB, {args.connections} connections: {front[0]:.0f}/s ({front[0] * size / 1e6:.0f} "
              f"MB/s), nginx {nginx[0]:.0f}/s ({nginx[0] * size / 1e6:.0f} MB/s), ratio {ratio:.2f} (goal {goal}); CPU "
              f"{front[1] * 1e6:.1f} us each, nginx {nginx[1] * 1e6:.1f}")
        is_good = is_good and ratio >= goal
    return is_good


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=lambda p: Path(p).resolve())
    parser.add_argument("--seconds", type=int, default=2, help="of load, in a round")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--connections", type=int, default=32)
    args = parser.parse_args()
    for tool in ("wrk", "nginx"):
        if not shutil.which(tool):
            sys.exit(f"http_front: {tool} is not installed")
    ports = [free_port(), free_port()]

    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)  # nginx may serve as another user
        servers = start(args.build, Path(name), ports)
        try:
            for file_name, _, _ in LOADS:
                if len({fetch(port, file_name) for port in ports}) != 1:
                    sys.exit(f"http_front: the servers do not agree about {file_name}")
            is_good = measure(servers, ports, args)
        finally:
            for server in servers:
                server.terminate()
            status = [server.wait() for server in servers]
    if status[0] != 0:
        sys.exit("http_front: the front end did not end in order")
    if not is_good:
        sys.exit("http_front: too slow")


if __name__ == "__main__":
    main()
