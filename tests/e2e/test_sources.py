"""Streams from real senders: ffmpeg, multicat and socat, over UDP, RTP and TCP."""
import re
import signal
import socket
import subprocess

import pytest

import tsfile as ts
import tsmodel
from conftest import DEADLINE, ffmpeg_input, free_port, listening, need, wait_until


@pytest.fixture
def clean_path(clean_stream, tmp_path):
    path = tmp_path / "clean.ts"
    path.write_bytes(clean_stream)
    return path


def watch(kvt, url):
    kvt.start("-T", "-i", url, "-S", "chan1", "-A", "on", "-A", "cc_track=1")
    return kvt.wait_reading()


def assert_watched(kvt, kind, mode):
    """The stream was recognised, its program learnt, its packets analyzed, and nothing broke."""
    kvt.wait_log(rf"{kind} stream detected")
    assert re.search(rf"Reading \({mode}\) from fd", kvt.log_text())
    kvt.wait_log(r"Added 4 streams from PMT")
    kvt.wait_log(r"skipped before analysis")


def assert_clean_end(kvt, status=0):
    assert kvt.wait() == status
    assert kvt.shared_memory() == []
    assert kvt.alerts("CC-BRK") == []
    assert "kvt shut down" in kvt.log_text()


@pytest.mark.parametrize("url, output", [
    ("udp://127.0.0.1:{port}", ["-f", "mpegts", "udp://127.0.0.1:{port}?pkt_size=1316"]),
    ("rtp://127.0.0.1:{port}", ["-f", "rtp_mpegts", "rtp://127.0.0.1:{port}?pkt_size=1328"]),
])
def test_ffmpeg_over_datagrams(kvt, sender, clean_path, url, output):
    need("ffmpeg")
    port = free_port()
    watch(kvt, url.format(port=port))
    sender(*ffmpeg_input(clean_path), *[o.format(port=port) for o in output])
    assert_watched(kvt, "RTP" if url.startswith("rtp") else "TS", "PKT")
    kvt.send(signal.SIGTERM)
    if url.startswith("rtp"):
        # Of each RTP packet one TS packet is looked at, so that counters don't follow each other there.
        assert kvt.wait() == 0
        assert kvt.shared_memory() == []
    else:
        assert_clean_end(kvt)


def test_ffmpeg_over_tcp_ends_with_the_sender(kvt, sender, clean_path):
    need("ffmpeg")
    port = free_port(socket.SOCK_STREAM)
    sender(*ffmpeg_input(clean_path), "-t", "3", "-f", "mpegts", f"tcp://127.0.0.1:{port}?listen=1")
    wait_until(lambda: listening(port), "ffmpeg to listen")
    watch(kvt, f"tcp://127.0.0.1:{port}")
    assert_watched(kvt, "TS", "STM")
    assert_clean_end(kvt)
    assert "== EOD, connection broken? ==" in kvt.log_text()


@pytest.mark.parametrize("scheme, options, kind", [("udp", ["-U"], "TS"), ("rtp", [], "RTP")])
def test_multicat(kvt, sender, clean_path, scheme, options, kind):
    need("multicat", "ingests")
    subprocess.run(["ingests", "-p", "256", clean_path], check=True, capture_output=True, timeout=DEADLINE)
    port = free_port()
    watch(kvt, f"{scheme}://127.0.0.1:{port}")
    sender("multicat", *options, clean_path, f"127.0.0.1:{port}")
    assert_watched(kvt, kind, "PKT")
    assert kvt.stop() == 0
    if kind == "TS":
        assert kvt.alerts("CC-BRK") == []


def test_socat_over_tcp(kvt, sender, clean_path):
    need("socat")
    port = free_port(socket.SOCK_STREAM)
    sender("socat", "-u", f"FILE:{clean_path}", f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr")
    wait_until(lambda: listening(port), "socat to listen")
    watch(kvt, f"tcp://127.0.0.1:{port}")
    assert_clean_end(kvt)
    assert_watched(kvt, "TS", "STM")


def damaged(data):
    """Drops and repeats packets in a fixed pattern."""
    out = []
    for at, packet in enumerate(ts.packets(data)):
        if at > 1000 and at % 97 == 0:
            continue
        out.append(packet)
        if at > 1000 and at % 203 == 0:
            out.append(packet)
    return b"".join(out)


def reported(kvt):
    return [(int(f[3]), int(f[5]), int(f[6])) for f in kvt.alerts("CC-BRK")]


def test_breaks_over_tcp_equal_an_independent_count(kvt, tcp_server, clean_stream):
    data = damaged(clean_stream)
    expected = tsmodel.continuity_breaks(list(ts.packets(data)))
    assert len(expected) > 20
    server = tcp_server(data)
    kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1", "-A", "on", "-A", "cc_track=1")
    server.serve_all()
    assert kvt.wait() == 0
    assert reported(kvt) == expected
    assert len(re.findall(r"ALERT CC-BRK \[chan1\] dgram:\d+ last/current=", kvt.log_text())) == len(expected)


def test_breaks_over_udp_equal_an_independent_count(kvt, clean_stream):
    data = damaged(clean_stream)
    port = free_port()
    watch(kvt, f"udp://127.0.0.1:{port}")
    expected = tsmodel.continuity_breaks(list(ts.packets(data)))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
        out.connect(("127.0.0.1", port))
        send_without_loss(out, [data[at:at + 1316] for at in range(0, len(data), 1316)], port)
        out.send(b"")
    assert kvt.wait() == 0
    assert reported(kvt) == expected


def test_of_rtp_the_first_packet_of_each_datagram_is_watched(kvt, clean_stream):
    data = damaged(clean_stream)
    data = data[:len(data) // 1316 * 1316]
    chunks = [data[at:at + 1316] for at in range(0, len(data), 1316)]
    port = free_port()
    watch(kvt, f"rtp://127.0.0.1:{port}")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
        out.connect(("127.0.0.1", port))
        header = b"\x80\x21" + bytes(10)
        send_without_loss(out, [header + chunk for chunk in chunks], port)
        out.send(b"")
    assert kvt.wait() == 0
    expected = tsmodel.continuity_breaks([chunk[:188] for chunk in chunks])
    assert reported(kvt) == expected


def send_without_loss(out, datagrams, port):
    """Sends no faster than the receiver takes them: its queue is looked at in /proc."""
    for number, datagram in enumerate(datagrams):
        out.send(datagram)
        if number % 16 == 0:
            wait_until(lambda: receive_queue(port) < 60000, "the receiver to read on")


def receive_queue(port):
    for line in open("/proc/net/udp", encoding="ascii"):
        fields = line.split()
        if fields[1].endswith(f":{port:04X}"):
            return int(fields[4].split(":")[1], 16)
    return 0
