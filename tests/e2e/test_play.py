"""kvt-play as a process: what arrives at a receiver, when, and how the program ends."""
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import time

import pytest

import tsfile as ts
from conftest import BUILD, DEADLINE, ROOT, free_port, wait_until
from playing import DATAGRAM, PLAY, RTP_HEAD, Receiver, make_stream, packet, play, player, receiver, write  # noqa: F401

TSIX = BUILD / "tsix"
SAMPLE = ROOT / "tests/data/sample.ts"
QUIET_SECONDS = 1.0  # nothing more is coming


# ---- what arrives ----

def test_plays_a_stream_in_datagrams_of_seven_packets(tmp_path, receiver):
    data = make_stream()
    done = play(write(tmp_path / "a.ts", data), f"udp://{receiver.address}")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")  # and no progress line on a pipe
    assert receiver.all(len(data)) == data
    assert [len(d) for d in receiver.datagrams] == [DATAGRAM] * 142 + [6 * ts.PACKET_BYTES]


def test_plays_as_rtp(tmp_path, receiver):
    data = make_stream()
    assert play(write(tmp_path / "a.ts", data), f"rtp://{receiver.address}").returncode == 0
    receiver.all(len(data) + 143 * RTP_HEAD.size)
    assert b"".join(d[RTP_HEAD.size:] for d in receiver.datagrams) == data
    heads = [RTP_HEAD.unpack_from(d) for d in receiver.datagrams]
    assert {h[:2] for h in heads} == {(0x80, 33)}
    assert len({h[4] for h in heads}) == 1
    assert [(h[2] - heads[0][2]) & 0xFFFF for h in heads] == list(range(143))
    # Stamped with the stream's own time, in ticks.
    for n, head in enumerate(heads):
        assert (head[3] - heads[0][3]) & 0xFFFFFFFF == pytest.approx(n * 7 * 90, abs=7 * 90)


def test_takes_an_address_without_a_scheme(tmp_path, receiver):
    data = make_stream(0.2)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data


def test_plays_to_a_group_by_an_interface_with_a_time_to_live(tmp_path):
    receiver = Receiver("239.255.77.1")
    try:
        data = make_stream(0.2)
        done = play("-i", "lo", "-t", 5, write(tmp_path / "a.ts", data), f"udp://{receiver.address}")
        assert (done.returncode, done.stderr) == (0, "")
        assert receiver.all(len(data)) == data
        assert set(receiver.ttls) == {5}
    finally:
        receiver.close()


def test_time_to_live_is_for_hosts_too(tmp_path, receiver):
    data = make_stream(0.2)
    assert play("--ttl=9", write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    receiver.all(len(data))
    assert set(receiver.ttls) == {9}


# ---- when ----

def test_keeps_the_pace_of_the_streams_pcrs(player, receiver, tmp_path):
    """Ten seconds of the sample, within 1 % of what its PCRs say."""
    process = player(write(tmp_path / "a.ts", SAMPLE.read_bytes()), receiver.address)
    wait_until(lambda: receiver.times and receiver.times[-1] - receiver.times[0] > 10, "ten seconds of stream", 30)
    process.send_signal(signal.SIGTERM)
    assert process.wait(DEADLINE) == 0
    pcrs = [(when, ts.pcr(p)) for when, data in zip(receiver.times, receiver.datagrams) for p in ts.packets(data)
            if ts.pcr(p) is not None]
    (began, first), (ended, last) = pcrs[0], pcrs[-1]
    assert ended - began == pytest.approx((last - first) / ts.TICKS_PER_SECOND, rel=0.01)
    # And so it is on the way: no datagram is more than a little early or late.
    off = [when - began - (pcr - first) / ts.TICKS_PER_SECOND for when, pcr in pcrs]
    assert sorted(map(abs, off))[len(off) * 9 // 10] < 0.05


@pytest.mark.parametrize("factor", [0.5, 4])
def test_plays_faster_and_slower(tmp_path, receiver, factor):
    data = make_stream(2)
    assert play("-s", factor, write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    receiver.all(len(data))
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(2 / factor, abs=0.15)


@pytest.mark.parametrize("jump", [-500000, 5 * 90000, ts.WRAP // 2])
def test_a_jump_of_the_clock_costs_no_time(tmp_path, receiver, jump):
    data = make_stream(2, clock=lambda t: t + 900000 + (jump if t > 90000 else 0))
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(2, abs=0.15)


def test_a_wrap_of_the_clock_costs_no_time(tmp_path, receiver):
    data = make_stream(2, clock=lambda t: t + ts.WRAP - 90000)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(2, abs=0.15)


def test_a_second_clock_does_not_disturb_the_first(tmp_path, receiver):
    packets = list(ts.packets(make_stream(2)))
    for n in range(12, len(packets), 40):
        packets[n] = packet(300, n, pcr=77 * n + 5000000)
    data = b"".join(packets)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(2, abs=0.15)


# ---- over and over ----

@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_plays_over_and_over_until_it_is_told_to_end(tmp_path, receiver, player, number):
    data = make_stream(0.3)
    process = player("-l", "-v", write(tmp_path / "a.ts", data), receiver.address)
    got = receiver.all(3 * len(data))
    process.send_signal(number)
    assert process.wait(DEADLINE) == 0
    assert got.startswith(data * 3)
    note = re.search(r"sent (\d+) datagrams, (\d+) bytes", process.stderr.read())
    wait_until(lambda: len(receiver.datagrams) == int(note[1]), f"{note[1]} datagrams")
    # The rounds follow each other at the stream's pace.
    at = [when for when, d in zip(receiver.times, receiver.datagrams) if d == data[:DATAGRAM]]
    assert (at[-1] - at[0]) / (len(at) - 1) == pytest.approx(0.3, abs=0.04)


def test_counters_of_rtp_go_on_over_the_rounds(tmp_path, receiver, player):
    data = make_stream(0.2)
    process = player("-l", write(tmp_path / "a.ts", data), f"rtp://{receiver.address}")
    wait_until(lambda: len(receiver.datagrams) > 100, "some rounds")
    process.terminate()
    assert process.wait(DEADLINE) == 0
    heads = [RTP_HEAD.unpack_from(d) for d in receiver.datagrams]
    steps = {(b[2] - a[2]) & 0xFFFF for a, b in zip(heads, heads[1:])}
    assert steps == {1}
    assert all(0 < (b[3] - a[3]) & 0xFFFFFFFF < 2000 for a, b in zip(heads, heads[1:]))


# ---- recordings of all kinds ----

def rtp_snapshot(data):
    return b"".join(RTP_HEAD.pack(0x80, 33, n, n * 630, 1) + data[at:at + DATAGRAM]
                    for n, at in enumerate(range(0, len(data), DATAGRAM)))


def widen(data, before, behind):
    return b"".join(before + p + behind for p in ts.packets(data))


@pytest.mark.parametrize("name, wrap", [
    ("torn at both ends", lambda data: data[50:ts.PACKET_BYTES] + data + data[:100]),
    ("of RTP", rtp_snapshot),
    ("of RTP, torn", lambda data: rtp_snapshot(data)[7:-50]),
    ("of 204 bytes", lambda data: widen(data, b"", bytes(16))),
    ("of 192 bytes", lambda data: widen(data, bytes(4), b"")),
    ("behind junk", lambda data: bytes(range(70)) * 30 + data),
])
def test_plays_recordings(tmp_path, receiver, name, wrap):
    data = make_stream()
    path = write(tmp_path / "snap-1-2.ts", wrap(data))
    assert play(path, receiver.address).returncode == 0
    size = 5000 if "torn" in name else len(data)
    receiver.all(size)
    wait_until(lambda: time.time() - receiver.times[-1] > QUIET_SECONDS, "the end")
    got = b"".join(receiver.datagrams)
    if name == "of RTP, torn":
        data = data[:-ts.PACKET_BYTES]  # the last packet is not whole
        assert got == data or data.endswith(got) and len(data) - len(got) <= DATAGRAM
    else:
        assert got == data
    assert [p.name for p in tmp_path.iterdir()] == [path.name]  # such a recording gets no index


def test_plays_damaged_packets_as_they_are(tmp_path, receiver):
    data = bytearray(make_stream())
    for n in (0, 100, 101, 102, 999):
        data[n * ts.PACKET_BYTES] = 0x55
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(1, abs=0.15)


def test_plays_a_stream_that_begins_with_a_pcr_and_has_them_close_together(tmp_path, receiver):
    data = make_stream(every=2, first=0)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(1, abs=0.15)


# ---- the index ----

def test_builds_the_index_once(tmp_path, receiver):
    data = make_stream(0.2)
    path = write(tmp_path / "a.ts", data)
    assert play(path, receiver.address).returncode == 0
    index = (tmp_path / "a.ix").read_bytes()
    other = tmp_path / "other.ix"
    subprocess.run([TSIX, "make", path, other], check=True)
    assert index == other.read_bytes()
    before = (tmp_path / "a.ix").stat().st_mtime_ns
    done = play("-v", path, receiver.address)
    assert done.returncode == 0 and "making an index" not in done.stderr
    assert (tmp_path / "a.ix").stat().st_mtime_ns == before


@pytest.mark.parametrize("reason, spoil", [
    ("it is no complete index", lambda ix: b"#" + ix[1:]),
    ("it has no header", lambda ix: ix[:20]),
    ("it is of another version", lambda ix: ix[:4] + b"\x02" + ix[5:]),
    ("its records are not whole datagrams", lambda ix: ix[:5] + b"\x01" + ix[6:]),
    ("it belongs to a stream of another size", lambda ix: ix[:8] + struct.pack("<Q", 1 << 62) + ix[16:]),
    ("it belongs to a stream of another size", lambda ix: ix[:8] + bytes(8) + ix[16:]),
    ("it is cut short", lambda ix: ix[:-1]),
    ("its clock steps back", lambda ix: ix[:34] + bytes(8) + ix[42:]),
    ("its clock steps back", lambda ix: ix[:-8] + struct.pack("<Q", 5)),
])
def test_leaves_an_index_that_does_not_fit_alone(tmp_path, receiver, reason, spoil):
    data = make_stream(0.2)
    path = write(tmp_path / "a.ts", data)
    subprocess.run([TSIX, "make", path], check=True)
    bad = spoil((tmp_path / "a.ix").read_bytes())
    write(tmp_path / "a.ix", bad)
    done = play(path, receiver.address)
    assert done.returncode == 0
    assert f"a.ix is not used, since {reason}; an index is made for this run" in done.stderr
    assert receiver.all(len(data)) == data
    assert (tmp_path / "a.ix").read_bytes() == bad


def test_leaves_an_index_that_is_older_than_its_stream_alone(tmp_path, receiver):
    path = write(tmp_path / "a.ts", make_stream(0.2))
    subprocess.run([TSIX, "make", path], check=True)
    os.utime(tmp_path / "a.ix", (1, 1))
    done = play(path, receiver.address)
    assert done.returncode == 0 and "it is older than the stream" in done.stderr


def test_leaves_nothing_in_the_temporary_directory(tmp_path, receiver):
    room = tmp_path / "room"
    room.mkdir()
    path = write(tmp_path / "noending", rtp_snapshot(make_stream(0.2)))
    assert play(path, receiver.address, env={**os.environ, "TMPDIR": str(room)}).returncode == 0
    assert list(room.iterdir()) == []
    done = play(path, receiver.address, env={**os.environ, "TMPDIR": str(room / "none")})
    assert done.returncode == 1 and "can't make a directory" in done.stderr


# ---- talk ----

def test_shows_its_progress_on_a_terminal(tmp_path, receiver):
    ours, theirs = pty.openpty()
    with open(ours, "rb", buffering=0) as screen:
        process = subprocess.Popen([PLAY, write(tmp_path / "a.ts", make_stream(1.2)), receiver.address], stderr=theirs)
        os.close(theirs)
        assert process.wait(DEADLINE) == 0
        text = b""
        try:
            while chunk := screen.read(4096):
                text += chunk
        except OSError:
            pass  # so ends a terminal
    lines = re.findall(r"\r(\d\d:\d\d:\d\d) of (\d\d:\d\d:\d\d) +(\d+\.\d\d) Mbit/s  (\d\d:\d\d:\d\d) left", text.decode())
    assert len(lines) >= 3
    assert {line[1] for line in lines} == {"00:00:01"}
    assert lines[-1][0] == "00:00:01" and lines[-1][3] == "00:00:00"
    assert float(lines[1][2]) == pytest.approx(1.5, rel=0.2)
    assert text.endswith(b"\n")


@pytest.mark.parametrize("args, message", [
    (("none.ts", "udp://127.0.0.1:5000"), "can't open none.ts: No such file or directory"),
    ((".", "udp://127.0.0.1:5000"), ". is no file"),
    (("a.ts", "http://127.0.0.1:5000"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1:99999"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1:0"), "is no address to play to"),
    (("-i", "lo", "a.ts", "udp://127.0.0.1:5000"), "an interface is for a group"),
    (("-i", "nosuch", "a.ts", "udp://239.1.1.1:5000"), "nosuch is no"),
    (("empty.ts", "udp://127.0.0.1:5000"), "it holds no transport stream"),
    (("text.ts", "udp://127.0.0.1:5000"), "it holds no transport stream"),
    (("short.ts", "udp://127.0.0.1:5000"), "it is shorter than two datagrams"),
    (("nopcr.ts", "udp://127.0.0.1:5000"), "it has no two PCRs on one PID"),
    (("still.ts", "udp://127.0.0.1:5000"), "its PCRs give no rate"),
])
def test_fails_with_a_reason(tmp_path, args, message):
    write(tmp_path / "a.ts", make_stream(0.2))
    write(tmp_path / "empty.ts", b"")
    write(tmp_path / "text.ts", b"no stream at all " * 100)
    write(tmp_path / "short.ts", make_stream(0.007))
    write(tmp_path / "nopcr.ts", make_stream(0.2, every=1000))
    write(tmp_path / "still.ts", make_stream(0.2, clock=lambda t: 5000))
    done = play(*args, cwd=tmp_path)
    assert done.returncode == 1
    assert message in done.stderr
    assert not list(tmp_path.glob("*.ix"))


@pytest.mark.parametrize("args", [(), ("a.ts",), ("a.ts", "1.2.3.4:5", "more"), ("-t", "256", "a.ts", "1.2.3.4:5"),
                                  ("-t", "x", "a.ts", "1.2.3.4:5"), ("-s", "0", "a.ts", "1.2.3.4:5"),
                                  ("-s", "nan", "a.ts", "1.2.3.4:5"), ("-x", "a.ts", "1.2.3.4:5")])
def test_a_wrong_command_line_is_status_2(args):
    done = play(*args)
    assert done.returncode == 2
    assert done.stderr and not done.stdout


def test_help_is_status_0():
    done = play("--help")
    assert done.returncode == 0 and done.stdout.startswith("Usage: kvt-play ")
