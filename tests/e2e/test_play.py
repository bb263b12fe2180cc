"""kvt-play as a process: what arrives at a receiver, when, and how the program ends."""
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

import tsfile as ts
from conftest import BUILD, DEADLINE, ROOT, free_port, need, wait_until
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


def test_a_wrap_between_pcrs_that_are_far_apart_costs_no_time(tmp_path, receiver):
    """Further than half a second, which an index can't be built from as it is."""
    data = make_stream(3, every=700, clock=lambda t: t + ts.WRAP - 90000)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(3, abs=0.15)


def test_a_pcr_that_repeats_the_one_before_it_costs_no_time(tmp_path, receiver):
    data = make_stream(2, clock=lambda t: 900000 + t // 9000 * 9000)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(2, abs=0.2)


@pytest.mark.parametrize("name, lost", [("in front", range(0, 1500)), ("in the middle", range(700, 2300)),
                                        ("at the end", range(1500, 3000))])
def test_a_stretch_without_pcrs_takes_the_time_of_its_packets(tmp_path, receiver, name, lost):
    packets = list(ts.packets(make_stream(3)))
    for n in lost:
        packets[n] = packet(256, n)
    data = b"".join(packets)
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(3, abs=0.15)


@pytest.mark.parametrize("places", [(0, 1), (5, 6), (1, 8), (990, 999), (998, 999), (0, 999)])
@pytest.mark.parametrize("count", [8, 9, 15, 1000])
def test_any_two_pcrs_tell_the_rate(tmp_path, receiver, places, count):
    if count <= places[1]:
        places = (0, count - 1)
    data = b"".join(packet(256, n, 900000 + 90 * n if n in places else None) for n in range(count))
    path = write(tmp_path / "a.ts", data)
    done = play("-s", 20, path, receiver.address)
    assert (done.returncode, done.stderr) == (0, "")
    assert receiver.all(len(data)) == data
    # The index has the time of the end.
    last = int.from_bytes((tmp_path / "a.ix").read_bytes()[-8:], "little")
    assert last == pytest.approx(90 * count, abs=7 * 90)


@pytest.mark.parametrize("first", [0, 5, 30])
def test_a_step_of_hardly_any_time_at_the_start_does_no_harm(tmp_path, receiver, first):
    data = make_stream(1, first=first % 20, clock=lambda t: 900000 + (t if t > 90 * (first + 20) else t // 1000))
    assert play(write(tmp_path / "a.ts", data), receiver.address).returncode == 0
    assert receiver.all(len(data)) == data
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(1, abs=0.15)


def test_a_player_that_was_stopped_does_not_make_up_for_it(tmp_path, receiver, player):
    data = make_stream(3)
    process = player(write(tmp_path / "a.ts", data), receiver.address)
    wait_until(lambda: len(receiver.datagrams) > 70, "half a second of stream")
    process.send_signal(signal.SIGSTOP)
    at = receiver.times[-1]
    wait_until(lambda: time.time() - at > 1.5, "a long pause")
    process.send_signal(signal.SIGCONT)
    assert process.wait(DEADLINE) == 0
    assert receiver.all(len(data)) == data
    pause, before = max((b - a, n) for n, (a, b) in enumerate(zip(receiver.times, receiver.times[1:])))
    assert pause > 1.4
    assert receiver.times[-1] - receiver.times[0] == pytest.approx(3 + pause, abs=0.2)
    # Behind the pause as many go out in half a second as ever.
    after = [when for when in receiver.times[before + 1:] if when - receiver.times[before + 1] < 0.5]
    assert len(after) == pytest.approx(0.5 * 1000 / 7, rel=0.2)


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


# ---- the receiver's side ----

@pytest.mark.parametrize("scheme", ["udp", "rtp"])
def test_tells_the_end_if_it_is_to(tmp_path, receiver, scheme):
    data = make_stream(0.2)
    path = write(tmp_path / "a.ts", data)
    head = RTP_HEAD.size if scheme == "rtp" else 0
    assert play("--end", path, f"{scheme}://{receiver.address}").returncode == 0
    wait_until(lambda: b"" in receiver.datagrams, "the end")
    assert receiver.datagrams.index(b"") == len(receiver.datagrams) - 1
    assert b"".join(d[head:] for d in receiver.datagrams) == data
    assert play(path, f"{scheme}://{receiver.address}").returncode == 0
    wait_until(lambda: sum(len(d[head:]) for d in receiver.datagrams) == 2 * len(data), "the second run")
    wait_until(lambda: time.time() - receiver.times[-1] > QUIET_SECONDS, "silence")
    assert receiver.datagrams.count(b"") == 1


def test_tells_the_end_that_a_signal_asks_for(tmp_path, receiver, player):
    process = player("-l", "-e", write(tmp_path / "a.ts", make_stream(0.3)), receiver.address)
    wait_until(lambda: len(receiver.datagrams) > 10, "some datagrams")
    process.send_signal(signal.SIGINT)
    assert process.wait(DEADLINE) == 0
    wait_until(lambda: b"" in receiver.datagrams, "the end")
    assert receiver.datagrams.index(b"") == len(receiver.datagrams) - 1


def test_plays_whether_anybody_receives_or_not(tmp_path, player):
    """A receiver that goes, and one that comes in its place, see what there is of the stream."""
    first = Receiver()
    process = player("-l", write(tmp_path / "a.ts", make_stream(0.5)), first.address)
    wait_until(lambda: len(first.datagrams) > 10, "some datagrams")
    first.close()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as second:
        wait_until(lambda: process.poll() is not None or time.time() - first.times[-1] > 0.3, "some time")
        second.settimeout(DEADLINE)
        second.bind(("127.0.0.1", first.port))
        assert len(second.recv(2048)) in (DATAGRAM, len(make_stream(0.5)) % DATAGRAM)
    process.terminate()
    assert process.wait(DEADLINE) == 0
    assert process.stderr.read() == ""


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
    ("its clock leaps", lambda ix: ix[:-8] + struct.pack("<Q", 1 << 60)),
    ("its clock leaps", lambda ix: ix[:34] + struct.pack("<Q", 1 << 60) + ix[42:]),
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


def test_a_moment_is_enough_to_be_older(tmp_path, receiver):
    """As after a recording that is written again within the second."""
    path = write(tmp_path / "a.ts", make_stream(0.2))
    subprocess.run([TSIX, "make", path], check=True)
    os.utime(path, ns=(10**18 + 1000, 10**18 + 1000))
    for age, note in ((10**18, "it is older than the stream"), (10**18 + 1000, "")):
        os.utime(tmp_path / "a.ix", ns=(age, age))
        done = play(path, receiver.address)
        assert done.returncode == 0 and note in done.stderr and bool(note) == bool(done.stderr)


@pytest.mark.parametrize("make", [os.mkfifo, os.mkdir])
def test_leaves_what_is_no_file_in_the_place_of_the_index_alone(tmp_path, receiver, make):
    data = make_stream(0.2)
    make(tmp_path / "a.ix")
    done = play(write(tmp_path / "a.ts", data), receiver.address)
    assert done.returncode == 0 and "is not used, since it is no file" in done.stderr
    assert receiver.all(len(data)) == data
    assert not (tmp_path / "a.ix").is_file()


def test_makes_an_index_for_the_run_where_none_may_stay(tmp_path, receiver):
    data = make_stream(0.2)
    path = write(tmp_path / "a.ts", data)
    done = play("--no-index", path, receiver.address)
    assert (done.returncode, done.stderr) == (0, "")
    assert receiver.all(len(data)) == data
    assert list(tmp_path.iterdir()) == [path]
    # One that is there is used all the same.
    subprocess.run([TSIX, "make", path], check=True)
    assert "making an index" not in play("-n", "-v", path, receiver.address).stderr


@pytest.mark.skipif(os.geteuid() != 0, reason="only root becomes another user")
def test_makes_an_index_for_the_run_in_a_directory_that_is_not_its_own(receiver):
    need("runuser")
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        folder.chmod(0o755)
        data = make_stream(0.2)
        path = write(folder / "a.ts", data)
        done = play(path, receiver.address, inside=("runuser", "-u", "nobody", "--"))
        assert (done.returncode, done.stderr) == (0, "")
        assert receiver.all(len(data)) == data
        assert list(folder.iterdir()) == [path]


def test_makes_an_index_for_the_run_where_the_disk_is_full(tmp_path, receiver):
    need("unshare", "mount")
    data = make_stream(5)
    write(tmp_path / "a.ts", data)
    room = tmp_path / "room"
    room.mkdir()
    script = 'mount -t tmpfs -o size=4k kvt-test "$1" && ln -s ../a.ts "$1/a.ts" && "$2" -s 20 "$1/a.ts" "$3" && ls "$1"'
    done = subprocess.run(["unshare", "--map-root-user", "--mount", "sh", "-c", script, "sh", room, PLAY,
                           receiver.address], capture_output=True, text=True, timeout=DEADLINE)
    if "unshare:" in done.stderr or "mount:" in done.stderr:
        pytest.skip(f"no file system can be mounted here: {done.stderr}")
    assert done.returncode == 0, done.stderr
    assert "trying to make one for this run" in done.stderr
    assert receiver.all(len(data)) == data
    assert done.stdout == "a.ts\n"  # and no half an index


def test_players_of_one_recording_do_not_disturb_each_other(tmp_path):
    """Begun at once, so that each finds that there is no index and makes one."""
    path = write(tmp_path / "a.ts", make_stream(0.5, rate=40000) * 10)
    for _ in range(5):
        (tmp_path / "a.ix").unlink(missing_ok=True)
        players = [subprocess.Popen([PLAY, "-s", "100", path, f"127.0.0.1:{free_port()}"], stderr=subprocess.PIPE,
                                    text=True) for _ in range(3)]
        assert [(p.communicate(timeout=DEADLINE)[1], p.returncode) for p in players] == [("", 0)] * 3
        assert sorted(p.name for p in tmp_path.iterdir()) == ["a.ix", "a.ts"]


def test_leaves_nothing_in_the_temporary_directory(tmp_path, receiver):
    room = tmp_path / "room"
    room.mkdir()
    path = write(tmp_path / "noending", rtp_snapshot(make_stream(0.2)))
    assert play(path, receiver.address, env={**os.environ, "TMPDIR": str(room)}).returncode == 0
    assert list(room.iterdir()) == []
    done = play(path, receiver.address, env={**os.environ, "TMPDIR": str(room / "none")})
    assert done.returncode == 1 and "can't make a directory" in done.stderr


# ---- talk ----

def on_terminal(*args):
    """Runs it with a terminal for standard error; the status, and what stood there."""
    ours, theirs = pty.openpty()
    with open(ours, "rb", buffering=0) as screen:
        process = subprocess.Popen([str(a) for a in (PLAY, *args)], stderr=theirs)
        os.close(theirs)
        text = b""
        try:
            while chunk := screen.read(4096):
                text += chunk
        except OSError:
            pass  # so ends a terminal
        return process.wait(DEADLINE), text


def test_shows_its_progress_on_a_terminal(tmp_path, receiver):
    status, text = on_terminal(write(tmp_path / "a.ts", make_stream(1.2)), receiver.address)
    assert status == 0
    lines = re.findall(r"\r(\d\d:\d\d:\d\d) of (\d\d:\d\d:\d\d) +(\d+\.\d\d) Mbit/s  (\d\d:\d\d:\d\d) left", text.decode())
    assert len(lines) >= 3
    assert {line[1] for line in lines} == {"00:00:01"}
    assert lines[-1][0] == "00:00:01" and lines[-1][3] == "00:00:00"
    assert float(lines[1][2]) == pytest.approx(1.5, rel=0.2)
    assert text.endswith(b"\n") and b"round" not in text


def test_is_quiet_on_a_terminal_if_it_is_to(tmp_path, receiver):
    assert on_terminal("-q", write(tmp_path / "a.ts", make_stream(0.6)), receiver.address) == (0, b"")


def test_counts_the_rounds_on_a_terminal(tmp_path, receiver, player):
    ours, theirs = pty.openpty()
    with open(ours, "rb", buffering=0) as screen:
        process = subprocess.Popen([PLAY, "-l", write(tmp_path / "a.ts", make_stream(0.3)), receiver.address],
                                   stderr=theirs)
        os.close(theirs)
        text = b""
        while b"  round 3" not in text:
            text += screen.read(4096)
        process.terminate()
        assert process.wait(DEADLINE) == 0
    assert text.index(b"  round 2") < text.index(b"  round 3") and b"  round 1" not in text


def test_says_what_ended_it_below_the_progress(tmp_path, receiver):
    """Here the recording becomes shorter while it is played."""
    path = write(tmp_path / "a.ts", make_stream(3))
    ours, theirs = pty.openpty()
    with open(ours, "rb", buffering=0) as screen:
        process = subprocess.Popen([PLAY, path, receiver.address], stderr=theirs)
        os.close(theirs)
        wait_until(lambda: len(receiver.datagrams) > 70, "half a second of stream")
        os.truncate(path, 1000 * ts.PACKET_BYTES)
        text = b""
        try:
            while chunk := screen.read(4096):
                text += chunk
        except OSError:
            pass
        assert process.wait(DEADLINE) == 1
    assert text.endswith(b"left\x1b[K\r\nkvt-play: the stream has become shorter\r\n")


@pytest.mark.parametrize("args, message", [
    (("none.ts", "udp://127.0.0.1:5000"), "can't open none.ts: No such file or directory"),
    ((".", "udp://127.0.0.1:5000"), ". is no file"),
    (("a.ts", "http://127.0.0.1:5000"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1:99999"), "is no address to play to"),
    (("a.ts", "udp://127.0.0.1:0"), "is no address to play to"),
    (("-i", "lo", "a.ts", "udp://127.0.0.1:5000"), "an interface is for a group"),
    (("-i", "nosuch", "a.ts", "udp://239.1.1.1:5000"), "nosuch is no"),
    (("-t", "0", "a.ts", "udp://127.0.0.1:5000"), "a time to live of 0 is for a group, and 127.0.0.1 is none"),
    (("a.ts", "udp://nosuch.invalid:5000"), "can't open a socket for udp://nosuch.invalid:5000: "),
    (("pipe.ts", "udp://127.0.0.1:5000"), "pipe.ts is no file"),
    (("empty.ts", "udp://127.0.0.1:5000"), "it holds no transport stream"),
    (("text.ts", "udp://127.0.0.1:5000"), "it holds no transport stream"),
    (("short.ts", "udp://127.0.0.1:5000"), "it is shorter than two datagrams"),
    (("nopcr.ts", "udp://127.0.0.1:5000"), "it has no two PCRs on one PID"),
    (("still.ts", "udp://127.0.0.1:5000"), "its PCRs give no rate"),
    (("fast.ts", "udp://127.0.0.1:5000"), "it has not a tick of its clock for each datagram"),
])
def test_fails_with_a_reason(tmp_path, args, message):
    write(tmp_path / "a.ts", make_stream(0.2))
    write(tmp_path / "empty.ts", b"")
    write(tmp_path / "text.ts", b"no stream at all " * 100)
    write(tmp_path / "short.ts", make_stream(0.007))
    write(tmp_path / "nopcr.ts", make_stream(0.2, every=1000))
    write(tmp_path / "still.ts", make_stream(0.2, clock=lambda t: 5000))
    write(tmp_path / "fast.ts", make_stream(0.01, rate=1000000, every=200))
    os.mkfifo(tmp_path / "pipe.ts")
    done = play(*args, cwd=tmp_path)
    assert done.returncode == 1
    assert message in done.stderr
    assert not list(tmp_path.glob("*.ix"))


@pytest.mark.parametrize("args, message", [
    ((), "a file and an address are needed"),
    (("a.ts",), "a file and an address are needed"),
    (("a.ts", "1.2.3.4:5", "more"), "one file and one address are enough"),
    (("-t", "256", "a.ts", "1.2.3.4:5"), "256 is no time to live from 0 to 255"),
    (("-t", "-1", "a.ts", "1.2.3.4:5"), "-1 is no time to live from 0 to 255"),
    (("-t", "x", "a.ts", "1.2.3.4:5"), "x is no time to live from 0 to 255"),
    (("-s", "0", "a.ts", "1.2.3.4:5"), "0 is no factor from 0.01 to 100"),
    (("-s", "100.1", "a.ts", "1.2.3.4:5"), "100.1 is no factor from 0.01 to 100"),
    (("-s", "nan", "a.ts", "1.2.3.4:5"), "nan is no factor from 0.01 to 100"),
    (("-s", "2x", "a.ts", "1.2.3.4:5"), "2x is no factor from 0.01 to 100"),
    (("-x", "a.ts", "1.2.3.4:5"), "invalid option -- 'x'"),
    (("--speed",), "option '--speed' requires an argument"),
])
def test_a_wrong_command_line_is_status_2(args, message):
    done = play(*args)
    assert (done.returncode, done.stdout) == (2, "")
    complaint, hint = done.stderr.splitlines()
    assert complaint.endswith("kvt-play: " + message)
    assert hint == "Usage: kvt-play [OPTION]... FILE ADDRESS; kvt-play --help tells more."


def test_help_is_status_0_and_tells_of_every_option():
    done = play("--help")
    assert (done.returncode, done.stderr) == (0, "") and done.stdout.startswith("Usage: kvt-play ")
    page = (ROOT / "docs/man/kvt-play.1").read_text()
    for short, long in re.findall(r"^  -(\w), --([a-z-]+)", done.stdout, re.M):
        assert f".It Fl {short} , -{long}" in page
    assert len(re.findall(r"^\.It Fl", page, re.M)) == len(re.findall(r"^  -\w, --", done.stdout, re.M)) == 10


def test_version_is_status_0():
    done = play("--version")
    assert (done.returncode, done.stderr) == (0, "")
    assert re.fullmatch(r"kvt-play \(Stored stream player\) \d.*; built on \d{4}-\d\d-\d\d\n", done.stdout)
