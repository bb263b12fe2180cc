"""Stored pieces of real streams: the first PAT, PCR and I-frame that the segment probe finds are those of a scan
that reads tables and pictures themselves and knows nothing of the marks the probe goes by.
"""
import re
import subprocess
from dataclasses import dataclass

import pytest
import tsfile
from conftest import BUILD, ROOT, need

PROBE = BUILD / "tests/e2e/segment_probe"
LINE = re.compile(r"(\w+) plen=(\d+) pcount=(\d+) pat=(\d+) pcr=(\d+)/(\d+) iframe=(\d+)")

CODECS = {"mpeg2video": 0x02, "libx264": 0x1B}  # with the stream type in the PMT
SECONDS = 6


@dataclass(frozen=True)
class Found:
    """Indexes count from 1, 0 is not found."""
    type: str
    plen: int
    pcount: int
    pat: int
    pcr: int
    ticks: int
    iframe: int


def probe(files, requests="pci"):
    done = subprocess.run([PROBE, "-r", requests, *files], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    lines = [LINE.fullmatch(line) for line in done.stdout.splitlines()]
    assert len(lines) == len(files) and all(lines), done.stdout
    return [Found(m[1], *(int(g) for g in m.groups()[1:])) for m in lines]


# ---- the scan -----------------------------------------------------------------------------------------------------

def is_pat(packet):
    if tsfile.pid(packet) != 0:
        return False
    body = tsfile.section(packet)
    return bool(body) and body[0] == 0 and bool(body[5] & 1) and tsfile.crc32(body) == 0


def has_intra_picture(stream, stream_type):
    """Is there an intra-coded picture in the bytes of a video PES packet? MPEG-2: a picture header of type 1.
    H.264: a slice of an IDR picture.
    """
    for start in re.finditer(b"\0\0\1", stream):
        at = start.end()
        if at + 2 >= len(stream):
            return False
        if stream_type == CODECS["mpeg2video"]:
            if stream[at] == 0 and stream[at + 2] >> 3 & 7 == 1:
                return True
        elif stream[at] & 0x1F == 5:
            return True
    return False


def intra_starts(packets):
    """Numbers, from 0, of the packets in which a PES packet with an intra-coded picture begins."""
    pmt_pids = {pid for p in packets if is_pat(p) for number, pid in tsfile.pat_entries(tsfile.section(p)) if number}
    pmt = next(tsfile.section(p) for p in packets if tsfile.pid(p) in pmt_pids and tsfile.section(p))
    video = next(t for t in tsfile.pmt_tracks(pmt) if t.stream_type in CODECS.values())
    starts, units = [], []
    for number, packet in enumerate(packets):
        if tsfile.pid(packet) != video.pid or tsfile.payload_offset(packet) is None:
            continue
        if tsfile.unit_start(packet):
            starts.append(number)
            units.append(b"")
        if units:
            units[-1] += packet[tsfile.payload_offset(packet):]
    return [n for n, unit in zip(starts, units) if has_intra_picture(unit[9 + unit[8]:], video.stream_type)]


def scan(packets, intra):
    """What the probe should say of these packets; `intra` as intra_starts gives it."""
    pats = [n for n, p in enumerate(packets, 1) if is_pat(p)]
    pcrs = [(n, tsfile.pcr(p)) for n, p in enumerate(packets, 1) if tsfile.pcr(p) is not None]
    first_pcr = pcrs[0] if pcrs else (0, 0)
    return Found("TS", tsfile.PACKET_BYTES, len(packets), pats[0] if pats else 0, *first_pcr,
                 intra[0] + 1 if intra else 0)


# ---- the pieces ---------------------------------------------------------------------------------------------------

@pytest.fixture(scope="module", params=CODECS)
def stream(request, tmp_path_factory):
    need("ffmpeg")
    path = tmp_path_factory.mktemp(request.param) / "stream.ts"
    subprocess.run([ROOT / "scripts/sample/make_stream.sh", path, str(SECONDS), request.param], check=True, timeout=60)
    return path


def cut(stream, folder, *options):
    """The stream in pieces of ffmpeg's cutting."""
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-i", stream, "-map", "0", "-c", "copy",
                    "-f", "segment", "-segment_format", "mpegts", *options, folder / "piece%03d.ts"],
                   check=True, timeout=60)
    return sorted(folder.glob("piece*.ts"))


def packets_of(path):
    return list(tsfile.packets(path.read_bytes()))


def test_pieces_that_begin_with_an_i_frame(stream, tmp_path):
    pieces = cut(stream, tmp_path, "-segment_time", "1")
    assert len(pieces) >= SECONDS - 1
    expected = []
    for piece in pieces:
        packets = packets_of(piece)
        expected.append(scan(packets, intra_starts(packets)))
    assert all(e.pat and e.pcr and e.iframe for e in expected), "the scan finds all three in each piece"
    assert probe(pieces) == expected


def test_pieces_that_begin_anywhere(stream, tmp_path):
    pieces = cut(stream, tmp_path, "-segment_time", "0.3", "-break_non_keyframes", "1")
    assert len(pieces) >= 2 * SECONDS
    expected = []
    for piece in pieces:
        packets = packets_of(piece)
        expected.append(scan(packets, intra_starts(packets)))
    assert any(e.iframe != expected[0].iframe for e in expected), "not every piece begins alike"
    assert probe(pieces) == expected


def test_runs_of_packets_from_the_middle(stream, tmp_path):
    """Table, clock and picture each come first somewhere, and some runs lack one of them."""
    packets = packets_of(stream)
    intra = intra_starts(packets)
    pieces, expected = [], []
    for begin in range(0, len(packets) - 90, 90):
        run = packets[begin:begin + 90]
        pieces.append(tmp_path / f"run{begin:06}.ts")
        pieces[-1].write_bytes(b"".join(run))
        expected.append(scan(run, [n - begin for n in intra if begin <= n < begin + 90]))
    for field in ("pat", "iframe"):
        values = {getattr(e, field) for e in expected}
        assert 0 in values and len(values) > 3, f"the runs are no trial for {field}: {values}"
    assert probe(pieces) == expected


def test_one_search_alone_finds_the_same(stream, tmp_path):
    pieces = cut(stream, tmp_path, "-segment_time", "2")
    everything = probe(pieces)
    for found, pat, pcr, iframe in zip(everything, *(probe(pieces, r) for r in "pci")):
        assert (pat.pat, pat.pcr, pat.iframe) == (found.pat, 0, 0)
        assert (pcr.pat, pcr.pcr, pcr.ticks, pcr.iframe) == (0, found.pcr, found.ticks, 0)
        assert (iframe.pat, iframe.pcr, iframe.iframe) == (0, 0, found.iframe)


def test_a_piece_that_is_torn_is_no_ts(stream, tmp_path):
    torn = tmp_path / "torn.ts"
    torn.write_bytes(stream.read_bytes()[:1880 + 1])
    assert probe([torn]) == [Found("RAW", 1881, 1, 0, 0, 0, 0)]
