"""kvt-play with streams that ffmpeg made: its pace over half a minute, and what receivers of other makes get."""
import re
import signal
import socket
import subprocess
import sys
from collections import Counter

import pytest

import tsfile as ts
from conftest import DEADLINE, SNAPSHOTS_HERE, free_port, need, udp_port_open, wait_until
from netns import link  # noqa: F401
from playing import DATAGRAM, RTP_HEAD, Receiver, make_stream, play, player, receiver, write  # noqa: F401

PACE_SECONDS = 30
CONSTANT_RATE = 3_000_000  # bits a second
GROUP = "239.91.0.5"

# Sleeps as a player does, and prints by how much it was woken too late at worst: what the machine adds to any gap.
SLEEPER = """
import sys, time
worst, end = 0.0, time.monotonic() + float(sys.argv[1])
while (now := time.monotonic()) < end:
    time.sleep(0.003)
    worst = max(worst, time.monotonic() - now - 0.003)
print(worst)
"""


def encode(path, seconds, *args):
    need("ffmpeg")
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-f", "lavfi", "-i",
                    "testsrc2=size=320x180:rate=25", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000",
                    "-t", str(seconds), "-threads", "1", *args, "-f", "mpegts", path], check=True)
    return path


@pytest.fixture(scope="module")
def constant(tmp_path_factory):
    """A stream of constant rate, filled up with null packets."""
    return encode(tmp_path_factory.mktemp("constant") / "a.ts", PACE_SECONDS + 2, "-c:v", "mpeg2video", "-b:v", "1500k",
                  "-maxrate", "1500k", "-bufsize", "300k", "-c:a", "mp2", "-muxrate", str(CONSTANT_RATE))


@pytest.fixture(scope="module")
def variable(tmp_path_factory):
    """A stream whose rate goes with its pictures."""
    return encode(tmp_path_factory.mktemp("variable") / "a.ts", 8, "-c:v", "libx264", "-preset", "ultrafast", "-crf",
                  "20", "-g", "50", "-c:a", "aac")


def span(clock_times):
    """Seconds from the first to the last PCR, by the receiver's clock and by the stream's: [(when, pcr)]."""
    (began, first), (ended, last) = clock_times[0], clock_times[-1]
    return ended - began, ts.ticks_between(first, last) / ts.TICKS_PER_SECOND


def pcr_arrivals(receiver, head=0):
    return [(when, ts.pcr(p)) for when, data in zip(receiver.times, receiver.datagrams) for p in ts.packets(data[head:])
            if ts.pcr(p) is not None]


def assert_even(receiver, head, slack):
    """No long gap, and each second as many bytes as the next, but for what the machine itself was late by."""
    assert max(b - a for a, b in zip(receiver.times, receiver.times[1:])) < 0.1 + slack
    sizes = Counter()
    for when, data in zip(receiver.times, receiver.datagrams):
        sizes[int(when - receiver.times[0])] += len(data) - head
    whole = [sizes[second] for second in range(PACE_SECONDS)]
    assert whole == pytest.approx([CONSTANT_RATE / 8] * PACE_SECONDS, rel=0.03 + slack)


def test_half_a_minute_goes_out_within_1_percent_of_the_streams_own_pace_and_evenly(player, constant):
    """Plain and as RTP side by side, so that the half minute passes once."""
    plain, rtp = Receiver(), Receiver()
    try:
        sleeper = subprocess.Popen([sys.executable, "-c", SLEEPER, str(PACE_SECONDS)], stdout=subprocess.PIPE, text=True)
        players = [player("-n", constant, f"udp://{plain.address}"), player("-n", constant, f"rtp://{rtp.address}")]
        for process in players:
            assert process.wait(PACE_SECONDS + DEADLINE) == 0
        slack = 2 * float(sleeper.communicate(timeout=DEADLINE)[0])
        for got, head in ((plain, 0), (rtp, RTP_HEAD.size)):
            wait_until(lambda: sum(len(d) - head for d in got.datagrams) == constant.stat().st_size, "all of it")
            took, should = span(pcr_arrivals(got, head))
            assert should > PACE_SECONDS
            assert took == pytest.approx(should, rel=0.01)
            assert_even(got, head, slack)
        heads = [RTP_HEAD.unpack_from(d) for d in rtp.datagrams]
        stamped = ((heads[-1][3] - heads[0][3]) & 0xFFFFFFFF) / ts.TICKS_PER_SECOND
        assert stamped == pytest.approx(rtp.times[-1] - rtp.times[0], rel=0.01)
    finally:
        plain.close()
        rtp.close()


def test_a_stream_of_variable_rate_goes_by_its_pcrs_at_every_moment(receiver, variable):
    assert play("-n", variable, receiver.address).returncode == 0
    assert receiver.all(variable.stat().st_size) == variable.read_bytes()
    arrivals = pcr_arrivals(receiver)
    took, should = span(arrivals)
    assert took == pytest.approx(should, rel=0.01)
    off = sorted(abs(when - arrivals[0][0] - ts.ticks_between(arrivals[0][1], pcr) / ts.TICKS_PER_SECOND)
                 for when, pcr in arrivals)
    assert off[len(off) * 9 // 10] < 0.05
    # It is no stream whose rate is constant in disguise.
    places = [n for n, p in enumerate(ts.packets(variable.read_bytes())) if ts.pcr(p) is not None]
    steps = [b - a for a, b in zip(places, places[1:])]
    assert max(steps) > 1.3 * min(steps)


def test_rounds_follow_each_other_without_a_seam_in_rtp(receiver, player, variable):
    """Faster than the stream, so that several rounds pass: counters, timestamps and pace go on."""
    path, speed = variable, 8
    process = player("-l", "-n", "-s", speed, path, f"rtp://{receiver.address}")
    rounds = 3
    per_round = -(-path.stat().st_size // DATAGRAM)
    wait_until(lambda: len(receiver.datagrams) > rounds * per_round, f"{rounds} rounds")
    process.send_signal(signal.SIGINT)
    assert process.wait(DEADLINE) == 0
    data = path.read_bytes()
    assert b"".join(d[RTP_HEAD.size:] for d in receiver.datagrams).startswith(data * rounds)
    heads = [RTP_HEAD.unpack_from(d) for d in receiver.datagrams]
    assert {(b[2] - a[2]) & 0xFFFF for a, b in zip(heads, heads[1:])} == {1}
    assert {h[4] for h in heads} == {heads[0][4]}
    begins = [n * per_round for n in range(rounds + 1)]
    lengths = [(heads[b][3] - heads[a][3]) & 0xFFFFFFFF for a, b in zip(begins, begins[1:])]
    assert max(lengths) - min(lengths) <= 2  # rounding
    assert lengths[0] / ts.TICKS_PER_SECOND == pytest.approx(8, rel=0.02)
    for a, b in zip(begins, begins[1:]):
        assert receiver.times[b] - receiver.times[a] == pytest.approx(8 / speed, abs=0.1)


# ---- other receivers ----

def watch(kvt, url, *args, **kwargs):
    kvt.write_config(extra=SNAPSHOTS_HERE)
    return kvt.start("-T", "-i", url, "-S", "chan1", "-A", "skipped_pkts=9000", *args, **kwargs).wait_reading()


def test_kvt_finds_nothing_wrong_with_a_clean_stream_and_ends_with_it(kvt, clean_stream, tmp_path):
    port = free_port()
    watch(kvt, f"udp://127.0.0.1:{port}")
    done = play("--end", "-s", 4, write(tmp_path / "a.ts", clean_stream), f"127.0.0.1:{port}")
    assert (done.returncode, done.stderr) == (0, "")
    assert kvt.wait() == 0
    assert "== EOD, connection broken? ==" in kvt.log_text()
    assert [line for line in kvt.alert_lines() if line.startswith("ALERT")] == []
    assert re.search(r"Added 4 streams from PMT", kvt.log_text())


@pytest.mark.parametrize("scheme", ["udp", "rtp"])
def test_a_snapshot_that_kvt_took_is_played_back_to_it(kvt_factory, clean_stream, tmp_path, scheme):
    port = free_port()
    first, second = kvt_factory("first"), kvt_factory("second")
    watch(first, f"{scheme}://127.0.0.1:{port}")
    path = write(tmp_path / "a.ts", clean_stream)
    assert play("-s", 20, path, f"{scheme}://127.0.0.1:{port}").returncode == 0
    assert len(first.snapshot()) > len(clean_stream) / 2
    assert first.stop() == 0
    (_, snapshot), = first.snapshot_notes()

    port = free_port()
    watch(second, f"udp://127.0.0.1:{port}")
    done = play("-e", "-s", 20, first.folder / snapshot, f"udp://127.0.0.1:{port}")
    assert (done.returncode, done.stderr) == (0, "")
    assert second.wait() == 0
    assert second.alerts("CC-BRK") == [] and second.alerts("LOST-SYNC") == []
    assert re.search(r"Added 4 streams from PMT", second.log_text())


def test_ffmpeg_receives_it_without_a_complaint(player, variable):
    need("ffmpeg")
    port = free_port()
    reader = subprocess.Popen(["ffmpeg", "-hide_banner", "-loglevel", "warning", "-nostdin", "-i",
                               f"udp://127.0.0.1:{port}", "-t", "4", "-map", "0", "-c", "copy", "-f", "framecrc", "-"],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        wait_until(lambda: udp_port_open(port), "ffmpeg's socket")
        player("-l", "-n", variable, f"udp://127.0.0.1:{port}")
        frames, complaints = reader.communicate(timeout=DEADLINE)
    finally:
        reader.kill()
    assert (reader.returncode, complaints) == (0, "")
    assert len([line for line in frames.splitlines() if line.startswith("0,")]) > 90  # of 25 pictures a second


@pytest.mark.parametrize("scheme, options", [("udp", ["-u"]), ("rtp", [])])
def test_multicat_records_what_the_file_holds(sender, variable, tmp_path, scheme, options):
    need("multicat")
    port = free_port()
    sender("multicat", *options, "-U", f"@127.0.0.1:{port}", tmp_path / "got.ts")
    wait_until(lambda: udp_port_open(port), "multicat's socket")
    assert play("-n", "-s", 4, variable, f"{scheme}://127.0.0.1:{port}").returncode == 0
    data = variable.read_bytes()
    data = data[:len(data) // DATAGRAM * DATAGRAM]  # multicat writes whole datagrams
    got = wait_until(lambda: len(got := (tmp_path / "got.ts").read_bytes()) >= len(data) and got, "the recording")
    assert got.startswith(data)


# ---- a network ----

CABLES = [("tx0", "rx0", "10.91.0"), ("10.91.1.1", "rx1", "10.91.1")]


@pytest.mark.parametrize("interface, device, net", CABLES)
def test_a_group_gets_it_over_the_cable_of_the_interface(link, tmp_path, interface, device, net):
    data = make_stream(0.5)
    right = Receiver(GROUP, link.receiver.socket(socket.AF_INET), f"{net}.2")
    try:
        done = play("-t", 7, "-i", interface, write(tmp_path / "a.ts", data), f"udp://{right.address}",
                    inside=link.sender.inside)
        assert (done.returncode, done.stderr) == (0, "")
        assert right.all(len(data)) == data
        assert set(right.ttls) == {7}
        assert set(right.senders) == {f"{net}.1"}
    finally:
        right.close()


@pytest.mark.parametrize("interface, device, net", CABLES)
def test_kvt_watches_a_group_that_is_played_to(kvt, link, clean_stream, tmp_path, interface, device, net):
    watch(kvt, f"udp://{GROUP}:5000", "-m", device, inside=link.receiver.inside)
    done = play("-e", "-s", 8, "-i", interface, write(tmp_path / "a.ts", clean_stream), f"udp://{GROUP}:5000",
                inside=link.sender.inside)
    assert (done.returncode, done.stderr) == (0, "")
    assert kvt.wait() == 0
    assert [line for line in kvt.alert_lines() if line.startswith("ALERT")] == []
    assert re.search(r"Added 4 streams from PMT", kvt.log_text())


def test_a_group_of_ipv6_by_name_of_the_interface(kvt, link, clean_stream, tmp_path):
    watch(kvt, "udp://[ff0e::9100:5]:5000", "-m", "rx1", inside=link.receiver.inside)
    done = play("-e", "-s", 8, "-i", "tx1", "-t", 3, write(tmp_path / "a.ts", clean_stream), "udp://[ff0e::9100:5]:5000",
                inside=link.sender.inside)
    assert (done.returncode, done.stderr) == (0, "")
    assert kvt.wait() == 0
    assert re.search(r"Added 4 streams from PMT", kvt.log_text())
