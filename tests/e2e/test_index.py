"""Index files of streams that ffmpeg made, by the program tsix, against an account of what they have to be.

The account here is worked out from the places of the PCRs alone: up to packet n of the file, n / units records, rounded
up, have begun; the ticks between two PCRs are spread evenly over the records that began between them.
"""
import struct
import subprocess

import pytest

import tsfile as ts
from conftest import BUILD, need

HEADER = struct.Struct("<4sBBHQH16s")
LEAST_CACHE = 1 << 20
TSIX = BUILD / "tsix"


def encode(path, *args):
    need("ffmpeg")
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
                    "testsrc2=size=640x360:rate=25", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000",
                    "-t", "12", "-threads", "1", *args, "-f", "mpegts", path], check=True)


@pytest.fixture(scope="module")
def streams(tmp_path_factory):
    """A stream of constant rate and one of variable rate, by name."""
    folder = tmp_path_factory.mktemp("streams")
    encode(folder / "constant.ts", "-c:v", "mpeg2video", "-b:v", "2M", "-maxrate", "2500k", "-bufsize", "500k",
           "-c:a", "mp2", "-muxrate", "3500k")
    encode(folder / "variable.ts", "-c:v", "libx264", "-preset", "ultrafast", "-crf", "20", "-c:a", "aac")
    return {path.stem: path.read_bytes() for path in folder.glob("*.ts")}


def tsix(*args):
    return subprocess.run([str(a) for a in (TSIX, *args)], capture_output=True, text=True, timeout=60)


def spread(base, ticks, count):
    return [base + ticks * i // count for i in range(1, count + 1)]


def want_clocks(data, units):
    pcrs = [(n, ts.pcr(p)) for n, p in enumerate(ts.packets(data)) if ts.pcr(p) is not None]
    assert pcrs[0][0] > 0
    begun = [-(-(n + 1) // units) for n, _ in pcrs]
    counts = [b - a for a, b in zip(begun, begun[1:])]
    steps = [(b - a) % ts.WRAP for (_, a), (_, b) in zip(pcrs, pcrs[1:])]
    clocks = spread(0, begun[0] * steps[0] // counts[0], begun[0])
    base = clocks[-1]
    for count, step in zip(counts, steps):
        clocks += spread(base, step, count)
        base += step
    tail = -(-len(data) // ts.PACKET_BYTES // units) - begun[-1]
    return clocks + spread(base, steps[-1] * tail // counts[-1], tail)


def want_index(clocks, rsize, with_sizes):
    head = HEADER.pack(b"TSIX", 1, rsize // ts.PACKET_BYTES, 0, len(clocks), 10 if with_sizes else 8, b"\xfe" * 16)
    return head + b"".join(struct.pack("<QH", c, rsize) if with_sizes else struct.pack("<Q", c) for c in clocks)


def want_runs(clocks, rsize, size, max_bytes, max_ms):
    clocks = [0, *clocks]
    runs, at = [], 0
    while at < len(clocks) - 1:
        fitting = [end for end in range(at + 1, min(len(clocks), at + 2 + max_bytes // rsize))
                   if (end - at) * rsize <= max_bytes and (clocks[end] - clocks[at]) * 100 // 9 <= max_ms * 1000 + 501]
        end = max(fitting, default=at + 1)
        runs.append((min(end * rsize, size) - at * rsize, (clocks[end] - clocks[at]) * 100 // 9))
        at = end
    return runs


@pytest.mark.parametrize("kind", ["constant", "variable"])
@pytest.mark.parametrize("units", [1, 7, 20])
@pytest.mark.parametrize("with_sizes", [False, True])
def test_index_and_runs_are_what_the_stream_says(streams, tmp_path, kind, units, with_sizes):
    data = streams[kind]
    assert len(data) > 2 * LEAST_CACHE
    rsize = units * ts.PACKET_BYTES
    clocks = want_clocks(data, units)
    movie = tmp_path / "movie.ts"
    movie.write_bytes(data)
    sizes = ["-V"] if with_sizes else []
    for cached in (0, LEAST_CACHE):
        (tmp_path / "movie.ix").unlink(missing_ok=True)
        made = tsix("make", "-r", rsize, "-c", cached, *sizes, movie)
        assert (made.returncode, made.stderr) == (0, "")
        assert (tmp_path / "movie.ix").read_bytes() == want_index(clocks, rsize, with_sizes)
        for limits in ((65536, 40), (rsize, 1000), (1 << 20, 20), (rsize - 1, 0), (200000, 500)):
            played = tsix("runs", "-c", cached, *sizes, *limits, movie)
            assert played.returncode == 0, played.stderr
            runs = [tuple(map(int, line.split())) for line in played.stdout.splitlines()]
            assert runs == want_runs(clocks, rsize, len(data), *limits)
            assert sum(n for n, _ in runs) == len(data)


def test_a_constant_rate_is_played_at_that_rate(streams, tmp_path):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(streams["constant"])
    assert tsix("make", movie).returncode == 0
    runs = [tuple(map(int, line.split())) for line in tsix("runs", 1 << 20, 1000, movie).stdout.splitlines()]
    for size, usec in runs[1:-1]:  # but for the ends
        assert size * 8 / (usec / 1e6) == pytest.approx(3500000, rel=0.01)


def test_show_prints_what_is_in_the_file(streams, tmp_path):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(streams["variable"])
    assert tsix("make", movie).returncode == 0
    clocks = want_clocks(streams["variable"], 7)
    shown = tsix("show", tmp_path / "movie.ix")
    assert shown.returncode == 0
    assert shown.stdout.splitlines() == [
        f"magic TSIX version 1 runits 7 flags 0 irec_count {len(clocks)} irec_size 8",
        *(f"{n} {clock}" for n, clock in enumerate(clocks))]


@pytest.mark.parametrize("cut", [0, 5, 33, 34, 41, -1])
def test_a_cut_index_is_refused_with_a_line(streams, tmp_path, cut):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(streams["variable"])
    assert tsix("make", movie).returncode == 0
    index = tmp_path / "movie.ix"
    index.write_bytes(index.read_bytes()[:cut])
    played = tsix("runs", 65536, 40, movie)
    assert (played.returncode, played.stdout) == (1, "")
    assert "open_ix: " in played.stderr and "expected/read: " in played.stderr
    assert tsix("show", index).returncode == 1


def test_a_file_that_is_no_stream_is_refused_with_a_line(tmp_path):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(bytes(ts.PACKET_BYTES * 100))
    made = tsix("make", movie)
    assert made.returncode == 1
    assert "lost TS sync" in made.stderr


def even_stream(packets=100, pcr_pid=256, first_pcr=5):
    """A PCR in every tenth packet from the one at `first_pcr` on, 3600 ticks apart."""
    data = bytearray()
    for n in range(packets):
        if n % 10 == first_pcr % 10 and n >= first_pcr:
            base = 90000 + n * 360
            data += bytes([ts.SYNC, pcr_pid >> 8, pcr_pid & 0xff, 0x20, 183, 0x10])
            data += struct.pack(">IB", base >> 1, (base & 1) << 7) + bytes(177)
        else:
            data += bytes([ts.SYNC, 0x01, 0x01, 0x10]) + bytes(184)
    return bytes(data)


@pytest.mark.parametrize("data, want", [
    (b"", "invalid payload-record size"),
    (even_stream() + b"G" * 50, "not whole packets"),
    (even_stream(first_pcr=0), "cannot locate PCR pid"),
    (even_stream(first_pcr=100), "cannot locate PCR pid"),
    (even_stream(first_pcr=95), "fewer than two PCRs"),
    (even_stream(pcr_pid=0), "PID 0"),
    (even_stream(packets=7), "invalid payload-record size"),
], ids=["empty", "torn", "pcr_in_first_packet", "no_pcr", "one_pcr", "pcr_on_pid_0", "one_record"])
def test_a_stream_that_can_not_be_indexed_is_refused_with_a_line(tmp_path, data, want):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(data)
    made = tsix("make", movie)
    assert (made.returncode, made.stdout) == (1, ""), made.stderr
    assert want in made.stderr


def lying_index(count=15, record_bytes=8, units=7, version=1, magic=b"TSIX", clocks=range(1, 16), size=1316):
    head = HEADER.pack(magic, version, units, 0, count, record_bytes, b"\xfe" * 16)
    return head + b"".join(struct.pack("<QH", 900 * c, size)[:max(8, min(record_bytes, 10))] for c in clocks)


@pytest.mark.parametrize("flags, index, want", [
    ((), lying_index(magic=b"#SIX"), "invalid IX header signature"),
    ((), lying_index(version=2), "version mismatch, expected/got 1/2"),
    ((), lying_index(count=0), "no records"),
    ((), lying_index(record_bytes=9), "unknown record size"),
    ((), lying_index(record_bytes=0), "unknown record size"),
    ((), lying_index(record_bytes=10), "record size mismatch, expected/got 8/10"),
    ((), lying_index(units=0), "no size of its records"),
    ((), lying_index(units=101), "larger than the stream"),
    ((), lying_index(clocks=[*range(1, 15), 0]), "record 14 has no time"),
    (("-V",), lying_index(), "record size mismatch, expected/got 10/8"),
    (("-V",), lying_index(record_bytes=10, clocks=[0, *range(14)]), "record 0 has no time"),
    (("-V",), lying_index(record_bytes=10, size=0), "record 0 has no size"),
], ids=["unfinished", "version", "no_records", "record_bytes_9", "record_bytes_0", "other_kind",
        "no_units", "large_units", "zero_clock", "kind_of_flag", "zero_clock_with_sizes", "zero_size"])
def test_an_index_that_lies_is_refused_with_a_line(tmp_path, flags, index, want):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(even_stream())
    (tmp_path / "movie.ix").write_bytes(index)
    played = tsix("runs", *flags, 65536, 40, movie)
    assert (played.returncode, played.stdout) == (1, ""), played.stderr
    assert want in played.stderr


@pytest.mark.parametrize("count", [16, 1 << 60])
def test_an_index_that_counts_more_records_than_it_has_fails_where_they_end(tmp_path, count):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(even_stream())
    (tmp_path / "movie.ix").write_bytes(lying_index(count=count))
    played = tsix("runs", 1316, 1000, movie)
    assert played.returncode == 1
    # Fourteen records come in one chunk; the last of them would have begun a run with the next chunk's.
    assert played.stdout == "1316 10000\n" * 13
    assert "tsx_next: " in played.stderr and "expected/read: " in played.stderr


def test_an_index_with_a_count_below_its_records_is_played_that_far(tmp_path):
    movie = tmp_path / "movie.ts"
    movie.write_bytes(even_stream())
    (tmp_path / "movie.ix").write_bytes(lying_index(count=14, clocks=[*range(1, 15), 0]))
    played = tsix("runs", 14 * 1316, 1000, movie, tmp_path / "movie.ix")
    assert (played.returncode, played.stdout) == (0, f"{14 * 1316} 140000\n"), played.stderr


def test_a_wrong_command_line_is_answered_with_the_usage(tmp_path):
    for args in ([], ["sing"], ["make"], ["make", "-r", "x", "a.ts"], ["make", "-r", "-188", "a.ts"], ["show"],
                 ["runs", "1", "2"], ["runs", "1", "two", "a.ts"], ["make", "-q", "a.ts"]):
        wrong = tsix(*args)
        assert wrong.returncode == 2, args
        assert "usage: tsix make" in wrong.stderr
