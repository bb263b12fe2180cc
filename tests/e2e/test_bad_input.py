"""What is no stream, no URL, no host: the stated message, the stated status, no crash, nothing left behind."""
import re
import socket

import pytest

import tsfile as ts
from conftest import SHM, free_port

URLS = [
    ("nothing-like-a-url", "error parsing URI: [nothing-like-a-url]"),
    ("x://a", "error parsing URI: [x://a]"),
    ("gopher://127.0.0.1:70", "error parsing URI: [gopher://127.0.0.1:70]"),
    ("udp://", "error parsing URI: [udp://]"),
    ("udp://src@", "error parsing URI: [udp://src@]"),
    ("udp://127.0.0.1", "empty or invalid port []"),
    ("tcp://127.0.0.1", "empty or invalid port []"),
    ("tcp://127.0.0.1:none", "empty or invalid port [none]"),
    ("tcp://1234:5000", "cannot accept plain number [1234] as IP address"),
    ("tcp://[::1", "ERROR parsing path=[[::1]"),
    ("m3u://h/a", "unsupported type of URI [m3u://h/a]"),
    ("file:///no/such/file.ts", "open('/no/such/file.ts', 0, 0x0) ERROR(2)"),
]


@pytest.mark.parametrize("url, text", URLS)
def test_a_url_that_cannot_be_opened(any_build_kvt, url, text):
    kvt = any_build_kvt
    assert kvt.run("-T", "-i", url, "-S", "x") == 1
    assert text in kvt.log_text()
    assert_orderly(kvt)


def test_a_host_that_refuses(any_build_kvt):
    kvt = any_build_kvt
    port = free_port(socket.SOCK_STREAM)
    assert kvt.run("-T", "-i", f"tcp://127.0.0.1:{port}", "-S", "x") == 1
    assert re.search(r"connect\(\d+, 0x[0-9a-f]+, 16\) ERROR\(111\)", kvt.log_text())
    assert_orderly(kvt)


def assert_orderly(kvt):
    assert list(SHM.glob(f"mmr.{kvt.pid}.*")) == []
    assert "kvt shut down" in kvt.log_text()
    for complaint in ("AddressSanitizer", "LeakSanitizer", "runtime error", "free(): invalid"):
        assert complaint not in kvt.stderr()


def serve(kvt, tcp_server, data, *args):
    server = tcp_server(data)
    kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "x", *args)
    try:
        server.serve_all()
    except (ConnectionResetError, BrokenPipeError):
        pass
    return kvt.wait()


def test_a_stream_that_is_neither_ts_nor_rtp(any_build_kvt, tcp_server):
    kvt = any_build_kvt
    assert serve(kvt, tcp_server, b"This is no transport stream. " * 2000) == 14
    assert "no header (buflen=" in kvt.log_text()
    assert "non-TS/RTP stream?" in kvt.log_text()
    assert_orderly(kvt)


def test_a_folder_for_snapshots_that_is_missing(any_build_kvt):
    kvt = any_build_kvt
    kvt.write_config(extra='snapshot: { dir_path = "/no/such/folder"; };')
    assert kvt.run("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "x") == 1
    assert "opendir('/no/such/folder', ...) ERROR(2)" in kvt.stderr()


def packet(pid, body, start=True, cc=0):
    head = bytes([ts.SYNC, (0x40 if start else 0) | pid >> 8, pid & 0xFF, 0x10 | cc])
    return (head + body)[:188].ljust(188, b"\xff")


def pat(*pids):
    entries = b"".join(n.to_bytes(2, "big") + (0xE000 | pid).to_bytes(2, "big") for n, pid in enumerate(pids, 1))
    body = b"\0\xb0\0\0\1\xc1\0\0" + entries
    return ts.section_packet(packet(0, b""), body)


PASSED_OVER = "passing over a PMT section (pid256), "
LOOP_TOO_LONG = PASSED_OVER + "a descriptor loop runs past the section at "
HOSTILE_PSI = [  # a packet, and the line that tells of it; an assertion ends the process
    (packet(0, b""), ""),
    (packet(0, b"\0\0\xff\xff\xff\xff"), ""),
    (packet(0, b"\0\0\xb0\0"), "Assertion `tc->nprogs' failed"),
    (packet(0, b"\xff" * 184), ""),
    (packet(0x100, b"\0\2\xbf\xff" + b"\xff" * 180), PASSED_OVER + "it is too long at "),
    (packet(0x100, b"\0\2\xb0\0" + b"\xff" * 180), PASSED_OVER + "it is too short at "),
    (packet(0x100, b"\0\2\xb0\x17\0\1\xc1\0\0\xe1\1\xff\xff"), LOOP_TOO_LONG),
    (packet(0x100, b"\0\2\xb0\x17\0\1\xc1\0\0\xe1\1\xf0\0\2\xe1\1\xff\xff"), LOOP_TOO_LONG),
    (packet(0x100, b"\0\2\xb0\x12\0\1\xc1\0\0\xe0\0\xf0\0\2\xe1\1\xf0\0"),
     "Assertion `prog(tc)->pcr_pid' failed"),
    (packet(0x100, b"\xb8\2\xb0\x17\0\1\xc1\0\0\xe1\1\xf0\0"), LOOP_TOO_LONG),
    (packet(0x100, b"", start=False), PASSED_OVER + "it is too long at "),
]


@pytest.mark.parametrize("bad, told", HOSTILE_PSI, ids=range(len(HOSTILE_PSI)))
def test_hostile_tables_end_the_run_only_where_that_is_told(any_build_kvt, tcp_server, bad, told):
    """Behind a PAT that names PID 0x100 comes a bad table, in the middle of a stream, over and over."""
    kvt = any_build_kvt
    filler = packet(0x1FFF, b"\xff" * 184)
    status = serve(kvt, tcp_server, pat(0x100) * 2 + (bad + filler) * 200)
    if told.startswith("Assertion"):
        assert status == -6
        assert told in kvt.stderr()
    else:
        assert status == 0, kvt.stderr()
        assert told in kvt.log_text()
        assert_orderly(kvt)


def test_every_single_byte_of_a_stream_may_be_damaged(any_build_kvt, tcp_server, clean_stream):
    """Damage that spares sync bytes and the PMT PIDs' own bytes never ends the run."""
    kvt = any_build_kvt
    data = bytearray(clean_stream[:188 * 4000])
    state = 12345
    for _ in range(20000):
        state = (state * 1103515245 + 12345) % (1 << 31)
        at = state % len(data)
        if at % 188 and ts.pid(data[at // 188 * 188:at // 188 * 188 + 188]) not in (0, 0x1000):
            data[at] = state >> 8 & 0xFF
    for at in range(0, len(data), 188):
        head = data[at:at + 188]
        if ts.pid(head) in (0, 0x1000) and head != clean_stream[at:at + 188]:
            data[at:at + 188] = packet(0x1FFF, b"")
    assert serve(kvt, tcp_server, bytes(data)) == 0
    assert_orderly(kvt)
    assert len(kvt.alerts("CC-BRK")) > 100
