"""kvt as a process: how the tests start it, talk to it and see it end.

KVT_BUILD names the folder with the program (default: build-test), KVT_ASAN_BUILD one with a program under
AddressSanitizer, for the tests on bad input (default: build-asan, left out where it doesn't exist).
"""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
sys.path.insert(0, str(Path(__file__).resolve().parent))

BUILD = Path(os.environ.get("KVT_BUILD", ROOT / "build-test"))
ASAN_BUILD = Path(os.environ.get("KVT_ASAN_BUILD", ROOT / "build-asan"))
DEADLINE = 20  # seconds that any condition may take
SHM = Path("/dev/shm")


def wait_until(condition, what, deadline=DEADLINE):
    """Polls a condition until it gives something true, which is returned. `what` may be a function that tells."""
    end = time.monotonic() + deadline
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"gave up waiting for {what() if callable(what) else what}")
        time.sleep(0.02)


def free_port(kind=socket.SOCK_DGRAM, host="127.0.0.1"):
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    with socket.socket(family, kind) as sock:
        sock.bind((host, 0))
        return sock.getsockname()[1]


def udp_port_open(port):
    """Is there a UDP socket on this port?"""
    tables = [Path("/proc/net/udp"), Path("/proc/net/udp6")]
    return any(f":{port:04X} " in t.read_text() for t in tables if t.exists())


def listening(port):
    """Does somebody listen on this TCP port, at an IPv4 address?"""
    lines = Path("/proc/net/tcp").read_text().splitlines()
    return any(f":{port:04X} 00000000:0000 0A" in line for line in lines)


def ffmpeg_input(path):
    """The words that make ffmpeg play a file at its own pace; an output is to follow."""
    return ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-re", "-i", path, "-map", "0", "-c", "copy"]


def need(*tools):
    for tool in tools:
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")


CONFIG = """
kvt:
{{
    log: {{ file = "{log}"; level = "{level}"; enable_syslog = false; {log_extra} }};
    alert_log: {{ file = "{alerts}"; enable_syslog = false; {alert_extra} }};
    runtime: {{ non_daemon = {non_daemon}; quiet = true; {runtime_extra} }};
    stream_analyzer: {{ enabled = true; access_log_alerts = true; cc: {{ track = true; }}; {analyzer_extra} }};
    {extra}
}};
"""


class Kvt:
    """One run of the program, with its files in a folder of its own."""

    def __init__(self, folder, build=BUILD):
        self.folder = folder
        self.binary = build / "kvt"
        self.log = folder / "kvt.log"
        self.alerts_path = folder / "alerts.log"
        self.config_path = folder / "kvt.conf"
        self.stderr_path = folder / "stderr.txt"
        self.stdout_path = folder / "stdout.txt"
        self.process = None
        self.pid = None

    def write_config(self, level="info", non_daemon=True, log_extra="", alert_extra="", runtime_extra="",
                     analyzer_extra="", extra=""):
        text = CONFIG.format(log=self.log, alerts=self.alerts_path, level=level,
                             non_daemon="true" if non_daemon else "false", log_extra=log_extra,
                             alert_extra=alert_extra, runtime_extra=runtime_extra, analyzer_extra=analyzer_extra,
                             extra=extra)
        self.config_path.write_text(text)
        return self

    def start(self, *args, user=None, cwd=None, env=None, use_config=True, inside=()):
        """Starts kvt in the background. With use_config, the configuration of write_config is given with -C.

        inside: words to put before the command, such as those that enter a namespace (they end in an exec).
        """
        command = [*inside, str(self.binary)]
        if user:
            command = ["runuser", "-u", user, "--"] + command
        if use_config:
            if not self.config_path.exists():
                self.write_config()
            command += ["-C", str(self.config_path)]
        command += [str(a) for a in args]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self.stdout_path.open("wb"),
                                        stderr=self.stderr_path.open("wb"), cwd=cwd or self.folder,
                                        env={**os.environ, **(env or {})})
        self.pid = self.process.pid
        return self

    def run(self, *args, **kwargs):
        """Starts it and waits for its end; the exit status."""
        self.start(*args, **kwargs)
        return self.wait()

    def wait(self, deadline=DEADLINE):
        try:
            return self.process.wait(deadline)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise AssertionError("kvt did not end:\n" + self.stderr() + self.log_text()) from None

    def send(self, number):
        os.kill(self.pid, number)

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait()

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    # ---- what it wrote ----

    def stderr(self):
        return self.stderr_path.read_text(errors="replace") if self.stderr_path.exists() else ""

    def stdout(self):
        return self.stdout_path.read_text(errors="replace") if self.stdout_path.exists() else ""

    def log_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def alert_lines(self):
        """Records of the alert log from the word ALERT or STAT on."""
        text = self.alerts_path.read_text(errors="replace") if self.alerts_path.exists() else ""
        return re.findall(r"(?:ALERT|STAT) .*", text)

    def alerts(self, name):
        return [line.split() for line in self.alert_lines() if line.startswith(f"ALERT {name} ")]

    def wait_log(self, pattern, deadline=DEADLINE):
        return wait_until(lambda: re.search(pattern, self.log_text(), re.M), lambda: f"{pattern!r} in the log:\n"
                          + self.log_text()[-3000:] + self.stderr()[-2000:] + f"exit status {self.process.poll()}",
                          deadline)

    def wait_reading(self):
        """The capture loop has begun: the source is open."""
        self.wait_log(r"Reading \(\w+\) from fd")
        return self

    def wait_alert(self, pattern, deadline=DEADLINE):
        return wait_until(lambda: [line for line in self.alert_lines() if re.search(pattern, line)],
                          f"{pattern!r} in the alert log", deadline)

    # ---- what it holds ----

    def shared_memory(self):
        return list(SHM.glob(f"mmr.{self.pid}.*"))

    def snapshot(self):
        """Asks for a snapshot at once: the bytes of the ring. Needs SNAPSHOTS_HERE in the configuration."""
        count = len(self.snapshot_notes())
        self.send(signal.SIGURG)
        size, name = wait_until(lambda: self.snapshot_notes()[count:], "the snapshot")[0]
        data = (self.folder / name).read_bytes() if name else b""
        assert len(data) == int(size or 0)
        return data

    def snapshot_notes(self):
        """[(size, path)] of the snapshots so far, as the log tells of them; an empty ring leaves both empty."""
        return re.findall(r"take_snapshot: (?:write (\d+) bytes to \[(.*)\]|failed to snapshot)", self.log_text())


SNAPSHOTS_HERE = 'snapshot: { dir_path = "."; };'  # in the folder of the run, for write_config's extra


def remove_left_rings():
    """A ring whose process was killed stays, and is in the way of a later process of the same ID."""
    for path in SHM.glob("mmr.*.*"):
        pid = path.name.split(".")[1]
        if pid.isdigit() and not Path("/proc", pid).exists():
            path.unlink(missing_ok=True)


@pytest.fixture(scope="session", autouse=True)
def no_left_rings():
    remove_left_rings()
    yield
    remove_left_rings()


@pytest.fixture
def kvt_factory(tmp_path):
    runs = []

    def make(name="run", build=BUILD):
        folder = tmp_path / name
        folder.mkdir()
        folder.chmod(0o777)
        run = Kvt(folder, build)
        runs.append(run)
        return run

    yield make
    for run in runs:
        run.kill()


@pytest.fixture
def kvt(kvt_factory):
    return kvt_factory()


@pytest.fixture(params=["plain", "asan"])
def any_build_kvt(request, kvt_factory):
    """The program as built, and the one under AddressSanitizer."""
    if request.param == "plain":
        return kvt_factory()
    if not (ASAN_BUILD / "kvt").exists():
        pytest.skip("no build under AddressSanitizer")
    return kvt_factory(build=ASAN_BUILD)


@pytest.fixture
def sender():
    """Starts programs that end with the test."""
    children = []

    def start(*command, **kwargs):
        child = subprocess.Popen([str(c) for c in command], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, **kwargs)
        children.append(child)
        return child

    yield start
    for child in children:
        child.kill()
        child.wait()


class TcpServer:
    """Serves bytes to the first connection, on a thread of the test's own making."""

    def __init__(self, data=b"", host="127.0.0.1"):
        self.listener = socket.create_server((host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET)
        self.listener.settimeout(DEADLINE)
        self.port = self.listener.getsockname()[1]
        self.data = data
        self.connection = None

    def accept(self):
        self.connection, _ = self.listener.accept()
        return self.connection

    def serve_all(self):
        """Sends everything and closes."""
        with self.accept() as connection:
            connection.sendall(self.data)

    def close(self):
        if self.connection:
            self.connection.close()
        self.listener.close()


@pytest.fixture
def tcp_server():
    servers = []

    def make(data=b"", host="127.0.0.1"):
        server = TcpServer(data, host)
        servers.append(server)
        return server

    yield make
    for server in servers:
        server.close()


@pytest.fixture(scope="session")
def clean_stream(tmp_path_factory):
    """Bytes of a clean stream that ffmpeg made: one program, two audio tracks, subtitles, ten seconds."""
    need("ffmpeg")
    path = tmp_path_factory.mktemp("stream") / "clean.ts"
    subprocess.run([ROOT / "scripts/sample/make_stream.sh", path, "10"], check=True)
    return path.read_bytes()
