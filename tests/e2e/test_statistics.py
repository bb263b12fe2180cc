"""Statistics and throughput: what is reported equals what is counted from the same bytes."""
import re
import time

import pytest

import tsfile as ts
import tsmodel
from conftest import wait_until
from livefeed import LiveFeed, RingModel

PERIOD = 2  # seconds
COARSE_CLOCK = 5  # CLOCK_REALTIME_COARSE
TYPE_TEXTS = {2: "13818-2 video (MPEG-2)", 3: "11172-3 audio (MPEG-1)", 6: "13818-1 PES private data"}
NULL_PACKET = bytes([ts.SYNC, 0x1F, 0xFF, 0x10]) + b"\xff" * 184


@pytest.fixture
def feed(kvt, tcp_server, clean_stream):
    """A running kvt with all clock checks on, in no danger of an alert, and its feed."""
    def start(stream=clean_stream, extra=""):
        server = tcp_server()
        kvt.write_config(analyzer_extra=f"dump_stats_period = {PERIOD}; max_pdts_delta_ms = 100000;"
                                        "max_pcr_delta_ms = 100000; pcr_freq_ms = 100000;", extra=extra)
        kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1").wait_reading()
        return LiveFeed(kvt, server.accept(), stream, RingModel(size_mb=8))

    return start


def reports(kvt):
    """The records of each statistics report, as lists of their fields behind STAT."""
    out = []
    for line in kvt.alert_lines():
        fields = line.split()
        if fields[:2] == ["STAT", "GLOBAL"]:
            out.append([])
        if fields[:2] != ["STAT", "TPS"]:
            out[-1].append(fields[1:])
    return out


def blocks(kvt):
    return re.findall(r"^tsan_stats BEGIN\n.*?^tsan_stats END\n", kvt.log_text(), re.M | re.S)


def wait_for_second(moment, seconds):
    """The seconds that time() gives have moved on by so many since a moment. They come from the coarse clock, which
    turns a little later than the fine one."""
    wait_until(lambda: int(time.clock_gettime(COARSE_CLOCK)) >= int(moment) + seconds, "the clock")


def expected_aggregate(tag, pid, values):
    average = f"{sum(values) / len(values):.2f}"
    span = [average, str(len(values)), str(sum(values)), str(min(values)), str(max(values))]
    return [tag, "chan1", str(pid), "-1", *span, *span]  # the local span is the whole run


def expected_records(program, with_tracks):
    tracks = [["PMTs", "chan1", "0", str(program.pmt_pid), str(len(program.tracks))]]
    for track in program.tracks:
        tracks.append(["PMTi", "chan1", "0", str(track.pid), track.kind, str(track.packets), str(track.packets),
                       "[" + TYPE_TEXTS[track.stream_type].replace(" ", "_") + "]"])
    counts = [program.packets(*kinds) for kinds in ([], ["V"], ["A"], ["S"])]
    video = next(t.pid for t in program.tracks if t.kind == "V")
    return (tracks if with_tracks else []) + [
        ["PRG", "chan1", str(program.pcr_pid), *[str(n) for count in counts for n in (count, count)]],
        expected_aggregate("AV-delta", video, program.av_deltas),
        expected_aggregate("PCR-delta", program.pcr_pid, program.pcr_deltas),
        expected_aggregate("PCR-freq", program.pcr_pid, program.pcr_steps),
        ["ALERT-count", "chan1", "0", "0", str(program.av_zeros), "0", "0", "0", "0", "0"],
    ]


def expected_block(program, total):
    lines = ["tsan_stats BEGIN",
             f"\tProcessed/analyzed             {total}/{program.packets()}",
             f"\tPackets start-skipped:         {program.skipped}",
             "\tPrograms:                      1 ", "",
             "\tStream-scope ALERTS:",
             "\t\tLOST-SYNC:         0",
             "\t\tPAT-DIFF:          0",
             "\t\tCC-MLR:            0", "",
             f"\t---- PRG(0):{len(program.tracks)} streams, PMT({program.pmt_pid}) PCR({program.pcr_pid}) ----",
             "\tTracks:"]
    for number, t in enumerate(program.tracks):
        lines.append(f"\t\t[0:{number}] {t.kind}(pid{t.pid}) [{TYPE_TEXTS[t.stream_type]}]: P/A: "
                     f"{t.packets}/{t.packets}")
    of_kinds = "/".join(str(program.packets(kind)) for kind in "VAS")
    lines += ["", "\t++ Packets:",
              f"\t\tprocessed/analyzed:    {program.packets()}/{program.packets()}",
              f"\t\tprocessed V/A/S:       {of_kinds}",
              f"\t\tanalyzed  V/A/S:       {of_kinds}", "",
              "\t++ Alerts:",
              "\t\tAV delta:          0",
              f"\t\tAV zero:           {program.av_zeros}",
              "\t\tPCR delta:         0",
              "\t\tPCR frequency:     0",
              "\t\tCC-BRK:            0",
              "\t\tCC-RST:            0",
              "\t\tPMT-DIFF:          0",
              "\t\tPID-NDAT:          0", "",
              "\t------------------------------------------",
              "tsan_stats END", ""]
    return "\n".join(lines)


def test_statistics_equal_an_independent_count(kvt, feed, clean_stream):
    live = feed(clean_stream + NULL_PACKET * 7)
    program = tsmodel.count_program(list(ts.packets(clean_stream)))
    assert [t.kind for t in program.tracks] == ["V", "A", "A", "S"]
    assert len(program.pcr_steps) > 200 and len(program.av_deltas) > 40

    begin = time.monotonic()
    live.send(4096)
    begun = time.monotonic()
    first_check = time.time()
    live.send_up_to(len(clean_stream) - 1316, [50000, 31, 60000])
    wait_for_second(first_check, PERIOD)
    before = time.monotonic()
    live.send(1316)
    live.wait_asleep()
    after = time.monotonic()
    assert len(reports(kvt)) == 1, "the machine was too slow for this test"
    (head, *records), = reports(kvt)
    assert head[:2] == ["GLOBAL", "chan1"]
    assert (before - begun) * 1000 - 1 <= int(head[2]) <= (after - begin) * 1000
    assert head[3:] == ["1", str(program.skipped), "0", "0", "0"]
    assert records == expected_records(program, with_tracks=True)
    assert blocks(kvt) == [expected_block(program, len(clean_stream) // 188)]

    # The next report: no track table in the records, the same counts, as packets of no program count nowhere.
    second_check = time.time()
    wait_for_second(second_check, PERIOD)
    live.send(7 * 188)
    live.wait_asleep()
    assert len(reports(kvt)) == 2
    assert reports(kvt)[1][1:] == expected_records(program, with_tracks=False)
    assert blocks(kvt)[1] == expected_block(program, len(clean_stream) // 188 + 7)
    assert kvt.stop() == 0


def test_a_start_in_the_middle_of_the_stream_counts_from_the_first_pmt_on(kvt, feed, clean_stream):
    late = clean_stream[188 * 1234:188 * 3000]
    live = feed(late)
    program = tsmodel.count_program(list(ts.packets(late)))
    assert program.skipped > 5 and len(program.pcr_steps) > 50
    live.send(4096)
    first_check = time.time()
    live.send_up_to(len(late) - 1316, [50000])
    wait_for_second(first_check, PERIOD)
    live.send(1316)
    live.wait_asleep()
    (head, *records), = reports(kvt)
    assert head[3:] == ["1", str(program.skipped), "0", "0", "0"]
    assert records == expected_records(program, with_tracks=True)
    assert blocks(kvt) == [expected_block(program, len(late) // 188)]
    assert kvt.stop() == 0


# ---- throughput ---------------------------------------------------------------------------------------------------

def throughput(kvt):
    """[fields] of the throughput records, and the same from the log's lines, as texts."""
    records = [line.split()[2:] for line in kvt.alert_lines() if line.startswith("STAT TPS ")]
    lines = [list(f) for f in re.findall(r"IN total: (\S+) (\S+) Kb, (\d+) dgrams at local:(\S+)/global:(\S+) Kbps, "
                                         r"(\S+) Kb cached", kvt.log_text())]
    return records, lines


def kb(count):
    return f"{count / 1024:.2f}"


def test_throughput_tells_bytes_reads_speeds_and_what_the_ring_holds(kvt, feed):
    live = feed(extra=f"stats: {{ tput_report_sec = {PERIOD}; }}; cache: {{ size_mb = 8; }};")
    live.send(4096)
    begin = int(time.time())
    live.send_up_to(30000, [4096, 100, 1316])
    wait_for_second(begin, PERIOD)
    live.send(1316)
    live.wait_asleep()
    (first,), _ = throughput(kvt)
    first_total = live.sent
    assert first[:3] == ["chan1", kb(first_total), str(live.reads)]
    assert first[5] == kb(live.ring.held)
    # Both speeds are of the seconds that have passed, which may be more than the period.
    seconds = round(first_total / 1024 / float(first[3]))
    assert PERIOD <= seconds <= time.time() - begin + 1
    assert first[3:5] == [kb(first_total / seconds)] * 2

    second_begin = int(time.time())
    live.send_up_to(85001, [4096])
    wait_for_second(second_begin, PERIOD)
    live.send(1000)
    live.wait_asleep()
    records, lines = throughput(kvt)
    assert records == lines
    assert len(records) == 2
    second = records[1]
    assert second[:3] == ["chan1", kb(live.sent), str(live.reads)]
    assert second[5] == kb(live.ring.held)
    period = round((live.sent - first_total) / 1024 / float(second[3]))
    assert period >= PERIOD
    assert second[3] == kb((live.sent - first_total) / period)
    assert second[4] == kb(live.sent / (seconds + period))
    assert kvt.stop() == 0


def test_a_silent_source_gets_no_report(kvt, feed):
    live = feed(extra="stats: { tput_report_sec = 1; };")
    live.send(4096)
    begin = time.time()
    wait_for_second(begin, 2)
    assert kvt.alert_lines() == []
    live.send(4096)
    live.wait_asleep()
    assert len(throughput(kvt)[0]) == 1
    assert kvt.stop() == 0
