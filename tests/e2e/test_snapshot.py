"""Snapshots: what the ring holds goes to a file, byte for byte; how they are asked for, and how they are lost."""
import json
import re
import signal
import subprocess
import time

import pytest

import tsfile as ts
from conftest import need, wait_until
from livefeed import MB, PACKED, PACKET, LiveFeed, RingModel

NUMBERED_EVERY = 40  # packets from one number to the next


def numbered(data, length):
    """The stream over and over, with a running number in a null packet now and then: no stretch comes twice."""
    packets = list(ts.packets(data))
    out, at = bytearray(), 0
    while len(out) < length:
        if at % NUMBERED_EVERY == 0:
            out += bytes([ts.SYNC, 0x1F, 0xFF, 0x10]) + at.to_bytes(8, "big").ljust(PACKET - 4, b"\xff")
        out += packets[at % len(packets)]
        at += 1
    return bytes(out)


@pytest.fixture
def live(kvt, tcp_server, clean_stream):
    """Starts kvt with a ring of 1 Mb and feeds it; snapshots go to a folder of their own, named after the source."""
    def start(length, cache="", analyzed=True):
        folder = kvt.folder / "shots"
        folder.mkdir()
        server = tcp_server()
        kvt.write_config(level="debug", extra=f'cache: {{ size_mb = 1; {cache} }};'
                                              f'snapshot: {{ dir_path = "{folder}"; file_prefix = "s"; }};')
        kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "shot", "-A", "on" if analyzed else "off")
        kvt.wait_reading()
        return LiveFeed(kvt, server.accept(), numbered(clean_stream, length),
                        RingModel(record=PACKET if analyzed else PACKED))

    kvt.shots = kvt.folder / "shots"
    return start


def files(kvt):
    return sorted(kvt.shots.iterdir()) if kvt.shots.exists() else []


def now_ms():
    return time.time_ns() // 1000000


def told(kvt):
    """[(bytes, path)] of the snapshots that the log tells of."""
    return [(int(count), path) for count, path in
            re.findall(r"take_snapshot: write (\d+) bytes to \[(.*)\]", kvt.log_text())]


def wait_told(kvt, count=1):
    return wait_until(lambda: len(told(kvt)) >= count and told(kvt)[-1], "a snapshot in the log")


def request(feed, number):
    """Asks for a snapshot while the program waits for data; the span of ms in which that was."""
    feed.wait_asleep()
    before = now_ms()
    seen = feed.kvt.log_text().count("Received snapshot-SIG(")
    feed.kvt.send(number)
    wait_until(lambda: feed.kvt.log_text().count("Received snapshot-SIG(") > seen, "the signal's line")
    feed.wait_asleep()
    return before, now_ms()


def assert_named_in(path, span):
    seconds, ms = re.fullmatch(r"shot-(\d+)-(\d{1,3})\.ts", path.name).groups()
    assert span[0] <= int(seconds) * 1000 + int(ms) <= span[1]


def assert_holds(path, expected):
    data = path.read_bytes()
    assert len(data) == len(expected)
    assert data == expected


def assert_end(feed, status=0):
    assert feed.kvt.stop() == status
    assert feed.kvt.alerts("LOST-SYNC") == []
    assert feed.kvt.shared_memory() == []


# ---- the three ways -----------------------------------------------------------------------------------------------

# Within the ring; at its limit and just behind it; over its end; many times round.
TOTALS = [5 * PACKET + 7, MB - 4096 - 1, MB - 4096, MB - 4096 + 1, MB - 1, MB + 300000, 2 * MB, 6 * MB + 12345]


@pytest.mark.parametrize("analyzed", [True, False])
@pytest.mark.parametrize("total", TOTALS)
def test_a_snapshot_at_once_is_the_newest_stretch_of_the_stream(kvt, live, total, analyzed):
    feed = live(total, analyzed=analyzed)
    feed.send_up_to(total)
    span = request(feed, signal.SIGURG)
    count, path = wait_told(kvt)
    assert files(kvt) == [kvt.shots / path.rsplit("/", 1)[1]]
    assert count == feed.ring.held
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held))
    assert_named_in(files(kvt)[0], span)
    assert_end(feed)


@pytest.mark.parametrize("total", [300000, MB + 300000, 5 * MB])
def test_a_snapshot_by_time_is_taken_with_the_first_data_behind_the_alarm(kvt, live, total):
    feed = live(total + 5000, "tail_size_mb = 2; tail_duration_ms = 300;")
    feed.send_up_to(total)
    span = request(feed, signal.SIGUSR2)
    armed = time.monotonic()
    kvt.wait_log(r"schedule_alarm: alarm set for 300 ms")
    feed.send(1500)
    kvt.wait_log(r"catch_alarm: got the expected snapshot ALARM")
    assert time.monotonic() - armed > 0.2
    feed.wait_asleep()
    assert files(kvt) == []  # the read goes on: nothing happens without data
    feed.send(3000)
    count, _ = wait_told(kvt)
    assert count == feed.ring.held_at_read
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_named_in(files(kvt)[0], span)
    kvt.wait_log(r"clear_alarm: alarm cleared")
    assert_end(feed)


@pytest.mark.parametrize("total", [20000, 700000, 4 * MB + 1])
def test_a_snapshot_by_size_is_taken_as_soon_as_the_tail_is_there(kvt, live, total):
    feed = live(total + MB + 10000, "tail_size_mb = 1;")
    feed.send_up_to(total)
    span = request(feed, signal.SIGUSR2)
    kvt.wait_log(r"process_snapshot: take snapshot as soon as tail >= 1 Mb")
    feed.send_up_to(total + MB - 1)
    assert files(kvt) == []
    feed.send(500)
    count, _ = wait_told(kvt)
    assert f"run_app: tail size ({MB + 499}) >= 1 Mb" in kvt.log_text()
    assert count == feed.ring.held_at_read
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_named_in(files(kvt)[0], span)
    assert_end(feed)


def test_the_tail_disarms_the_alarm(kvt, live):
    feed = live(2 * MB, "tail_size_mb = 1; tail_duration_ms = 60000;")
    feed.send_up_to(200000)
    request(feed, signal.SIGUSR2)
    feed.send_up_to(200000 + MB, sizes=[4096])
    wait_told(kvt)
    feed.wait_asleep()
    assert "clear_alarm: alarm cleared" in kvt.log_text()
    kvt.send(signal.SIGALRM)
    kvt.wait_log(r"Received alarm-SIG\(14\)")
    feed.send(4096)
    feed.wait_asleep()
    assert "got the expected snapshot ALARM" not in kvt.log_text()
    assert len(files(kvt)) == 1
    assert_end(feed)


def test_a_player_reads_a_snapshot_from_the_middle_of_the_stream(kvt, live):
    need("ffprobe")
    feed = live(3 * MB)
    feed.send_up_to(3 * MB - 100)
    request(feed, signal.SIGURG)
    wait_told(kvt)
    done = subprocess.run(["ffprobe", "-v", "fatal", "-show_entries", "format=format_name:stream=codec_type", "-of",
                           "json", files(kvt)[0]], capture_output=True, text=True, check=True, timeout=60)
    shown = json.loads(done.stdout)
    assert shown["format"]["format_name"] == "mpegts"
    assert sorted(s["codec_type"] for s in shown["streams"]) == ["audio", "audio", "subtitle", "video"]
    assert_end(feed)


def test_snapshots_in_turn_are_files_of_their_own(kvt, live):
    feed = live(2 * MB)
    expected = []
    for number in range(1, 4):
        feed.send_up_to(number * 600000)
        request(feed, signal.SIGURG)
        wait_told(kvt, number)
        expected.append(feed.kept(feed.ring.held))
    assert [path for _, path in told(kvt)] == [str(p) for p in sorted(files(kvt), key=lambda p: p.stat().st_mtime_ns)]
    for (_, path), content in zip(told(kvt), expected):
        assert_holds(kvt.shots / path.rsplit("/", 1)[1], content)
    assert_end(feed)


# ---- a request while one is pending -------------------------------------------------------------------------------

def test_a_request_while_one_is_pending_is_dropped(kvt, live):
    feed = live(3 * MB, "tail_size_mb = 1;")
    feed.send_up_to(300000)
    span = request(feed, signal.SIGUSR2)
    pending = "Another snapshot is pending, ignoring this request"
    for seen, number in enumerate([signal.SIGURG, signal.SIGUSR2], 1):
        request(feed, number)
        wait_until(lambda: kvt.log_text().count(pending) == seen, "the warning")
    assert files(kvt) == []
    feed.send_up_to(300000 + MB)
    count, _ = wait_told(kvt)
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_named_in(files(kvt)[0], span)
    # What was dropped is not made up for: no second file comes with what follows.
    feed.send_up_to(300000 + 2 * MB)
    assert len(files(kvt)) == 1
    assert len(told(kvt)) == 1
    assert_end(feed)


def test_a_request_ahead_of_all_data_leaves_an_empty_file(kvt, live):
    feed = live(MB)
    request(feed, signal.SIGURG)
    kvt.wait_log(r"take_snapshot: failed to snapshot to fd\d+")
    assert "mmr_snapshot: no payload, nothing to write" in kvt.log_text()
    assert [path.stat().st_size for path in files(kvt)] == [0]
    feed.send_up_to(100000)
    request(feed, signal.SIGURG)
    wait_told(kvt)
    assert sorted(path.stat().st_size for path in files(kvt)) == [0, 100000]
    assert_end(feed)


# ---- how a snapshot is lost ---------------------------------------------------------------------------------------

def refusals(kvt, error):
    return re.findall(rf"mk_snapshot_file: open\('(.*)', .*ERROR\({error}\)", kvt.log_text())


def test_without_its_folder_a_request_stands_until_the_folder_is_back(kvt, live):
    feed = live(2 * MB)
    feed.send_up_to(MB + 100000)
    kvt.shots.rmdir()
    request(feed, signal.SIGURG)
    wait_until(lambda: len(refusals(kvt, 2)) >= 1, "the refusal")
    tried = len(refusals(kvt, 2))
    for _ in range(3):  # one more attempt with each turn, and the stream runs on
        feed.send(4096)
        feed.wait_asleep()
    assert len(refusals(kvt, 2)) == tried + 3
    kvt.shots.mkdir()
    before = now_ms()
    feed.send(1000)
    count, _ = wait_told(kvt)
    assert count == feed.ring.held_at_read
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_named_in(files(kvt)[0], (before, now_ms()))  # the moment of the attempt that succeeded
    feed.send_up_to(2 * MB)
    assert len(files(kvt)) == 1  # the request has been served
    assert_end(feed)


def test_an_alarm_without_the_folder_is_served_later_under_a_name_without_time(kvt, live):
    feed = live(2 * MB, "tail_size_mb = 2; tail_duration_ms = 100;")
    feed.send_up_to(500000)
    span = request(feed, signal.SIGUSR2)
    kvt.wait_log(r"got the expected snapshot ALARM")
    kvt.shots.rmdir()
    feed.send(2000)
    wait_until(lambda: len(refusals(kvt, 2)) == 1, "the refusal")
    assert_named_in(kvt.shots / refusals(kvt, 2)[0].rsplit("/", 1)[1], span)
    feed.wait_asleep()
    kvt.shots.mkdir()
    feed.send(2000)
    wait_told(kvt)
    assert [path.name for path in files(kvt)] == ["shot-0-0.ts"]
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_end(feed)


def test_a_name_that_exists_is_left_alone_and_the_alarm_stands(kvt, live):
    feed = live(2 * MB, "tail_size_mb = 2; tail_duration_ms = 100;")
    feed.send_up_to(500000)
    request(feed, signal.SIGUSR2)
    kvt.wait_log(r"got the expected snapshot ALARM")
    kvt.shots.rmdir()
    feed.send(2000)
    wait_until(lambda: len(refusals(kvt, 2)) == 1, "the refusal")
    feed.wait_asleep()
    kvt.shots.mkdir()
    taken = kvt.shots / "shot-0-0.ts"  # from now on each attempt asks for this name
    taken.write_bytes(b"taken")
    for _ in range(3):
        feed.send(2000)
        feed.wait_asleep()
    assert refusals(kvt, 17) == [str(taken)] * 3
    assert taken.read_bytes() == b"taken"
    taken.unlink()
    feed.send(2000)
    wait_told(kvt)
    assert files(kvt) == [taken]
    assert_holds(taken, feed.kept(feed.ring.held_at_read))
    assert_end(feed)


def test_a_name_that_exists_is_left_alone_and_the_request_stands(kvt, live):
    feed = live(2 * MB)
    feed.send_up_to(MB + 200000)
    # Every name of a span of seconds is taken; the request falls into that span.
    original = kvt.folder / "taken"
    original.write_bytes(b"taken")
    begin, end = now_ms() + 1500, now_ms() + 6500
    taken = [kvt.shots / f"shot-{ms // 1000}-{ms % 1000}.ts" for ms in range(begin, end)]
    for path in taken:
        path.hardlink_to(original)
    wait_until(lambda: now_ms() >= begin, "the span to begin")
    request(feed, signal.SIGURG)
    assert now_ms() < end, "the machine was too slow for this test"
    refused, = refusals(kvt, 17)
    assert kvt.shots / refused.rsplit("/", 1)[1] in taken
    assert all(path.samefile(original) for path in taken)
    assert original.read_bytes() == b"taken"
    assert told(kvt) == []
    for path in taken:
        path.unlink()
    feed.send(1234)
    wait_told(kvt)
    assert len(files(kvt)) == 1
    assert_holds(files(kvt)[0], feed.kept(feed.ring.held_at_read))
    assert_end(feed)
