"""scripts/run.sh without arguments: the bundled sample stream raises the alerts of its faults and no others."""
import os
import re
import signal
import subprocess
import time
from pathlib import Path

from conftest import BUILD, ROOT, free_port, udp_port_open, wait_until

EXPECTED = [line.split() for line in (ROOT / "tests/data/sample.expected").read_text().splitlines()]


def told_fields(record):
    """What the list of faults tells of an alert: its name and the fields that the fault decides."""
    fields = record.split()
    name = fields[1]
    picked = {
        "CC-BRK": lambda f: [f[3], f[5], f[6]],
        "CC-RST": lambda f: [f[3], f[5], f[6]],
        "PID-NDAT": lambda f: [f[3]],
        "PMT-DIFF": lambda f: [f[3]],
        "PAT-DIFF": lambda f: [f[3]],
        "PCR-FREQ": lambda f: [f[3]],
        "PCR-DELTA": lambda f: [f[3], f[6], f[7]],
        "AV-DELTA+": lambda f: [f[3], f[6], f[7]],
        "AV-DELTA0": lambda f: [f[3], f[6], f[7]],
        "LOST-SYNC": lambda f: [f[3]],
    }[name]
    return [name, *picked(fields)]


def test_the_sample_raises_exactly_the_alerts_of_its_faults():
    data = sorted(path.name for path in (ROOT / "tests/data").iterdir())
    done = subprocess.run([ROOT / "scripts/run.sh"], capture_output=True, text=True, timeout=120,
                          env={**os.environ, "KVT_BUILD": str(BUILD)}, stdin=subprocess.DEVNULL)
    assert done.returncode == 0, done.stderr
    records = re.findall(r"ALERT .*", done.stdout.split("Its alert log:\n")[1])
    assert [told_fields(r) for r in records] == EXPECTED
    assert "kvt left with status 9" in done.stdout
    # People's lines, the statistics block and the throughput report stood on the terminal meanwhile.
    assert "ALERT CC-BRK [sample] dgram:" in done.stderr
    assert "tsan_stats BEGIN" in done.stderr
    assert "IN total: sample" in done.stderr
    # Nothing has come to lie beside the sample, such as an index.
    assert sorted(path.name for path in (ROOT / "tests/data").iterdir()) == data


def test_an_interrupt_leaves_nothing_running(tmp_path):
    child = subprocess.Popen([ROOT / "scripts/run.sh"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                             env={**os.environ, "KVT_BUILD": str(BUILD), "TMPDIR": str(tmp_path)},
                             stdin=subprocess.DEVNULL, start_new_session=True)
    try:
        first = child.stdout.readline() + child.stdout.readline()
        port = int(re.search(r"127\.0\.0\.1:(\d+)", first).group(1))
        wait_until(lambda: udp_port_open(port), "the socket of kvt")
        wait_until(lambda: any(b"kvt-play" in word[0] for word in processes_of(child.pid)), "the sender")
    finally:
        os.killpg(child.pid, signal.SIGINT)
    child.communicate(timeout=20)
    wait_until(lambda: not udp_port_open(port), "the socket to be gone")
    assert not list(tmp_path.iterdir())
    assert not processes_of(child.pid)


def processes_of(group):
    """Command lines of the processes of a group, those that have ended aside."""
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            state, _, process_group = path.read_text().rsplit(")", 1)[1].split()[:3]
            if int(process_group) == group and state != "Z":
                found.append((path.parent / "cmdline").read_bytes().split(b"\0"))
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has just ended
    return found


def test_arguments_go_to_kvt(tmp_path):
    port = free_port()
    child = subprocess.Popen([ROOT / "scripts/run.sh", "-i", f"udp://127.0.0.1:{port}", "-S", "mine"],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=tmp_path,
                             env={**os.environ, "KVT_BUILD": str(BUILD)}, stdin=subprocess.DEVNULL)
    wait_until(lambda: udp_port_open(port), "the socket of kvt")
    started = time.monotonic()
    child.terminate()
    assert child.wait(20) == 0
    assert time.monotonic() - started < 10
