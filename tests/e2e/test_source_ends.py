"""What ends a run and with which status, source by source; and how a recorded file is watched all the same."""
import re
import signal
import socket
import struct
import sys

import pytest

import tsfile as ts
import tsmodel
from conftest import free_port, listening, need, wait_until
from netns import link, sample_datagrams, with_rtp  # noqa: F401
from playing import PLAY

HTTP_HEAD = b"HTTP/1.1 200 OK\r\n\r\n"
DATAGRAMS = sample_datagrams(40)
STREAM = b"".join(DATAGRAMS)
END = "== EOD, connection broken? =="


class Source:
    """The sending end of a source of one kind."""

    def __init__(self, kind, tcp_server):
        self.kind = kind
        self.is_stream = kind in ("tcp", "http")
        if self.is_stream:
            self.server = tcp_server()
            self.port = self.server.port
        else:
            self.port = free_port()
            self.connection = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.url = f"{kind}://127.0.0.1:{self.port}"

    def begin(self):
        if self.is_stream:
            self.connection = self.server.accept()
            if self.kind == "http":
                while not self.connection.recv(4096).endswith(b"\r\n\r\n"):
                    pass
                self.connection.sendall(HTTP_HEAD)
        else:
            self.connection.connect(("127.0.0.1", self.port))

    def send(self):
        for datagram in with_rtp(DATAGRAMS) if self.kind == "rtp" else DATAGRAMS:
            self.connection.send(datagram)

    def end(self):
        if self.is_stream:
            self.connection.close()
        else:
            self.connection.send(b"")

    def reset(self):
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()


@pytest.fixture(params=["tcp", "http", "udp", "rtp"])
def source(request, tcp_server):
    made = Source(request.param, tcp_server)
    yield made
    made.connection.close()


@pytest.fixture
def stream_source(tcp_server):
    return lambda kind: Source(kind, tcp_server)


def watch(kvt, source, extra=""):
    kvt.write_config(extra=extra)
    kvt.start("-T", "-i", source.url, "-S", "chan1", "-A", "skipped_pkts=9000")
    source.begin()
    kvt.wait_reading()
    source.send()
    kvt.wait_log("stream detected")
    return kvt


def test_the_sender_s_end_is_an_orderly_one(kvt, source):
    """For datagrams that is an empty one: no sender means it by accident, and a player can say it on purpose."""
    watch(kvt, source)
    source.end()
    assert kvt.wait() == 0
    assert END in kvt.log_text()


def test_silence_for_the_read_time_out_ends_with_11(kvt, source):
    watch(kvt, source, "source: { read_tmout_ms = 200; };")
    assert kvt.wait() == 11
    assert re.search(r"run_app: recv\(fd\d+,...\) rc=-1 ERROR\(11\)", kvt.log_text())
    assert "stopped reading due to error in [recv/Read_f], rc=11" in kvt.log_text()
    assert END not in kvt.log_text()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_a_signal_ends_a_silent_source_with_0(kvt, source, number):
    watch(kvt, source)
    assert kvt.stop(number) == 0
    assert END not in kvt.log_text()


@pytest.mark.parametrize("kind", ["tcp", "http"])
def test_a_reset_ends_with_104(kvt, stream_source, kind):
    source = stream_source(kind)
    watch(kvt, source)
    source.reset()
    assert kvt.wait() == 104
    assert END not in kvt.log_text()


def test_what_is_no_stream_ends_with_14(kvt, source):
    kvt.start("-T", "-i", source.url, "-S", "chan1")
    source.begin()
    kvt.wait_reading()
    source.connection.send(b"no stream" * 100)
    assert kvt.wait() == 14
    assert "non-TS/RTP stream?" in kvt.log_text()


@pytest.mark.parametrize("header", [b"\x81\x21" + bytes(14), b"\x90\x21" + bytes(10) + b"\x00\x01\x00\x01" + bytes(4)],
                         ids=["contributor", "extension"])
def test_rtp_with_a_longer_header_is_no_stream(kvt, header):
    port = free_port()
    kvt.start("-T", "-i", f"rtp://127.0.0.1:{port}", "-S", "chan1").wait_reading()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
        out.sendto(header + bytes(1316), ("127.0.0.1", port))
    assert kvt.wait() == 14


@pytest.mark.parametrize("scheme, datagrams, kind", [("udp", with_rtp(DATAGRAMS), "RTP"), ("rtp", DATAGRAMS, "TS")])
def test_the_scheme_does_not_say_what_the_datagrams_hold(kvt, scheme, datagrams, kind):
    """It is seen in the data: udp and rtp are two words for one thing."""
    port = free_port()
    kvt.start("-T", "-i", f"{scheme}://127.0.0.1:{port}", "-S", "chan1").wait_reading()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
        for datagram in datagrams:
            out.sendto(datagram, ("127.0.0.1", port))
    kvt.wait_log(f"{kind} stream detected")
    assert kvt.stop() == 0


# ---- the time before the first byte ----


@pytest.mark.parametrize("kind", ["tcp", "http"])
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGURG])
def test_any_signal_ends_the_wait_for_a_connection_with_1(kvt, link, kind, number):
    """By design: an interrupted connect is a failed one, even where the signal asked for a snapshot."""
    kvt.write_config(level="debug")
    kvt.start("-T", "-i", f"{kind}://10.91.0.77:5000", "-S", "chan1", inside=link.receiver.inside)  # nobody's address
    wait_until(lambda: any(row[3] == "02" for row in link.receiver.proc("tcp")), "the attempt to connect")
    kvt.send(number)
    assert kvt.wait() == 1
    assert re.search(r"connect\(.*\) ERROR\(4\)", kvt.log_text())
    assert kvt.shared_memory() == []


def test_a_host_that_nobody_answers_for_ends_with_1(kvt, link):
    link.receiver.run("ip", "route", "add", "unreachable", "192.0.2.0/24")
    assert kvt.run("-T", "-i", "tcp://192.0.2.1:5000", "-S", "chan1", inside=link.receiver.inside) == 1
    assert re.search(r"connect\(.*\) ERROR\(113\)", kvt.log_text())


# ---- a recorded file ----


def damaged(data):
    packets = list(ts.packets(data))
    return b"".join(packet for at, packet in enumerate(packets) if at < 1000 or at % 97)


@pytest.fixture
def recording(clean_stream, tmp_path):
    """A file with breaks of continuity, and the breaks."""
    path = tmp_path / "recording.ts"
    data = damaged(clean_stream)
    path.write_bytes(data[:len(data) // 1316 * 1316])  # datagrams of one size
    expected = tsmodel.continuity_breaks(list(ts.packets(path.read_bytes())))
    assert len(expected) > 20
    return path, expected


def reported(kvt):
    return [(int(f[3]), int(f[5]), int(f[6])) for f in kvt.alerts("CC-BRK")]


def test_a_file_is_no_source(kvt, recording):
    assert kvt.run("-T", "-i", f"file://{recording[0]}", "-S", "x") == 1
    assert "stopped reading due to error in [set_rcv_timeout], rc=-1" in kvt.log_text()


def test_a_recording_played_by_the_bundled_player(kvt, sender, recording):
    path, expected = recording
    port = free_port()
    kvt.start("-T", "-i", f"udp://127.0.0.1:{port}", "-S", "chan1").wait_reading()
    sender(PLAY, "--end", "--speed=4", path, f"udp://127.0.0.1:{port}")
    assert kvt.wait() == 0
    assert reported(kvt) == expected


def test_a_recording_in_rtp_by_the_bundled_player(kvt, sender, recording):
    path, _ = recording
    port = free_port()
    kvt.start("-T", "-i", f"rtp://127.0.0.1:{port}", "-S", "chan1").wait_reading()
    sender(PLAY, "--end", "--speed=8", path, f"rtp://127.0.0.1:{port}")
    assert kvt.wait() == 0
    data = path.read_bytes()
    firsts = [data[at:at + 188] for at in range(0, len(data), 1316)]
    assert reported(kvt) == tsmodel.continuity_breaks(firsts)


def test_a_recording_through_socat_at_full_speed(kvt, sender, recording):
    need("socat")
    path, expected = recording
    port = free_port(socket.SOCK_STREAM)
    sender("socat", "-u", f"FILE:{path}", f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr")
    wait_until(lambda: listening(port), "socat to listen")
    assert kvt.run("-T", "-i", f"tcp://127.0.0.1:{port}", "-S", "chan1") == 0
    assert reported(kvt) == expected


def test_a_recording_from_the_simplest_of_web_servers(kvt, sender, recording):
    path, expected = recording
    port = free_port(socket.SOCK_STREAM)
    sender(sys.executable, "-m", "http.server", "--bind", "127.0.0.1", "--directory", path.parent, port)
    wait_until(lambda: listening(port), "the server to listen")
    assert kvt.run("-T", "-i", f"http://127.0.0.1:{port}/{path.name}", "-S", "chan1") == 0
    assert reported(kvt) == expected
