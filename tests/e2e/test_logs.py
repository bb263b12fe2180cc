"""Log files, commands, rotation and syslog of the running program."""
import os
import re
import socket
from pathlib import Path

import pytest

from conftest import free_port, wait_until


def damaged_stream(clean_stream):
    """A stream with a break every few packets: alerts in plenty."""
    packets = [clean_stream[at:at + 188] for at in range(0, len(clean_stream), 188)]
    return b"".join(p for n, p in enumerate(packets) if n < 1000 or n % 5)


def serve(kvt, tcp_server, data, *args):
    server = tcp_server(data)
    kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1", *args)
    server.serve_all()
    return kvt.wait()


def test_an_earlier_application_log_is_moved_aside_and_the_alert_log_grows_on(kvt):
    kvt.log.write_text("old log\n")
    os.utime(kvt.log, (1500000000, 1500000000))
    kvt.alerts_path.write_text("old alerts\n")
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1").wait_reading()
    assert kvt.stop() == 0
    assert Path(f"{kvt.log}.1500000000").read_text() == "old log\n"
    assert "old log" not in kvt.log_text()
    assert kvt.alerts_path.read_text().startswith("old alerts\n")


def test_lines_have_time_pid_level_and_group(kvt):
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1").wait_reading()
    kvt.stop()
    assert re.search(rf"^\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{{6}} \w+ {kvt.pid}  \(NRM\)  KVTI  Reading \(PKT\) from",
                     kvt.log_text(), re.M)


@pytest.mark.parametrize("word, pattern", [
    ("raw", r"^\d+\.\d{6} \d+  \(NRM\)  KVTI  Reading"),
    ("raw_mono", r"^\d+\.\d{6} \d+  \(NRM\)  KVTI  Reading"),
    ("no_time", r"^\(NRM\)  KVTI  Reading"),
    ("gmt", r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \w+ \d+  \(NRM\)  KVTI  Reading"),
])
def test_time_formats(kvt, word, pattern):
    kvt.write_config(log_extra=f'time_format = "{word}";')
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1").wait_reading()
    kvt.stop()
    assert re.search(pattern, kvt.log_text(), re.M)


def test_alert_records_carry_time_and_pid_but_no_tag(kvt, tcp_server, clean_stream):
    assert serve(kvt, tcp_server, damaged_stream(clean_stream)) == 0
    first = kvt.alerts_path.read_text().splitlines()[0]
    assert re.match(rf"\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{{6}} \w+ {kvt.pid}  ALERT CC-BRK chan1 \d+ \d+ \d+ \d+ \S+$",
                    first)


def test_logs_may_be_commands(kvt, tcp_server, clean_stream):
    alerts, log = kvt.folder / "alerts.out", kvt.folder / "log.out"
    kvt.write_config()
    text = kvt.config_path.read_text().replace(str(kvt.log), f"|cat >{log}").replace(str(kvt.alerts_path),
                                                                                 f"|cat >{alerts}")
    kvt.config_path.write_text(text)
    assert serve(kvt, tcp_server, damaged_stream(clean_stream)) == 0
    wait_until(lambda: "ALERT CC-BRK chan1" in alerts.read_text(), "alerts from the command")
    assert "kvt shut down" in log.read_text()


@pytest.mark.parametrize("key", ["log", "alert_log"])
def test_the_end_waits_for_the_commands_behind_the_logs(kvt, key):
    note = kvt.folder / "note"
    kvt.write_config()
    path = kvt.log if key == "log" else kvt.alerts_path
    command = f"|(cat; sleep 0.5; echo done) > {note}"
    kvt.config_path.write_text(kvt.config_path.read_text().replace(f'"{path}"', f'"{command}"'))
    kvt.run("-T", "-i", "file:///dev/null", "-S", "x")
    assert note.read_text().endswith("done\n")


def test_a_log_rotates_by_size_and_keeps_a_bounded_number(kvt, tcp_server, clean_stream):
    kvt.write_config(alert_extra="max_size_mb = 1; max_files = 2;", log_extra="max_size_mb = 1; max_files = 2;")
    data = damaged_stream(clean_stream) * 6
    assert serve(kvt, tcp_server, data, "-k", "cc_t") == 0
    rotated = sorted(kvt.folder.glob("kvt.log.*"))
    assert 1 <= len(rotated) <= 2
    assert all(1 << 20 <= path.stat().st_size < (1 << 20) + 4096 for path in rotated)
    assert re.search(r"\[kvt\]: previous log rotated to \[.*kvt\.log\.\d+\] tm=\d+, idx=0", "".join(
        p.read_text() for p in [*rotated, kvt.log]))


def test_only_the_alert_log_goes_to_syslog(kvt, tcp_server, clean_stream):
    device = Path("/dev/log")
    if os.geteuid() != 0 or device.exists():
        pytest.skip("needs root and a machine without a syslog daemon")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sock:
        sock.bind(str(device))
        try:
            kvt.write_config()
            kvt.config_path.write_text(kvt.config_path.read_text().replace(
                "enable_syslog = false", 'enable_syslog = true; syslog_facility = "local3"'))
            sock.settimeout(20)
            packets = damaged_stream(clean_stream)[:188 * 1300]
            server = tcp_server(packets)
            kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1")
            server.serve_all()
            line = sock.recv(4096).decode()
            assert line.startswith(f"<{19 * 8 + 7}>")  # local3, debug: a record has no level of its own
            assert f"kvt[{kvt.pid}]: " in line
            assert "ALERT CC-BRK chan1" in line
            # Whoever doesn't read on would block the writer.
            sock.settimeout(0.5)
            lines = [line]
            try:
                while True:
                    lines.append(sock.recv(4096).decode())
            except TimeoutError:
                pass
            assert kvt.wait() == 0
            assert all(" ALERT " in entry or " STAT " in entry for entry in lines)
        finally:
            device.unlink()
