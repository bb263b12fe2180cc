"""An independent count of what a stream holds, from its bytes alone: tracked PIDs by the PMT, continuity breaks,
packets by track, and the distances of clocks and timestamps."""
from dataclasses import dataclass, field

import tsfile as ts

CLASS_BY_TYPE = {**dict.fromkeys([1, 2, 16, 27, 36, 66], "V"), **dict.fromkeys([3, 4, 15, 17, 129, 135], "A"), 6: "S"}
TRACKED_TYPES = set(CLASS_BY_TYPE)
TICKS_PER_MS = 90


def tracked_pids(packets):
    """PIDs of the audio, video and subtitle tracks of the first PMTs, and the position behind the last of those."""
    programs, found, behind = {}, set(), 0
    for at, packet in enumerate(packets):
        pid = ts.pid(packet)
        if pid == 0 and not programs:
            programs = {pmt_pid: None for _, pmt_pid in ts.pat_entries(ts.section(packet))}
        elif pid in programs and programs[pid] is None:
            programs[pid] = [t.pid for t in ts.pmt_tracks(ts.section(packet)) if t.stream_type in TRACKED_TYPES]
            found.update(programs[pid])
            behind = at + 1
    return found, behind


def continuity_breaks(packets):
    """[(PID, last counter, counter)] of the tracked PIDs behind the first PMTs, in order. A repeated counter counts."""
    pids, start = tracked_pids(packets)
    last, breaks = {}, []
    for packet in packets[start:]:
        pid = ts.pid(packet)
        if pid not in pids or not ts.has_payload(packet):
            continue
        counter = ts.continuity(packet)
        if pid in last and counter != (last[pid] + 1) % 16:
            breaks.append((pid, last[pid], counter))
        last[pid] = counter
    return breaks


@dataclass
class TrackCount:
    """A track of the table: what it is, and how many of its packets came behind the PMT."""
    pid: int
    kind: str
    stream_type: int
    packets: int = 0
    pts: int = 0
    dts: int = 0
    fresh: set = field(default_factory=set)  # of "pts" and "dts": a new value that has not been compared yet


@dataclass
class ProgramCount:
    """The only program of a stream, from its first PMT on. Distances are in ms."""
    pmt_pid: int = 0
    pcr_pid: int = 0
    tracks: list = field(default_factory=list)
    skipped: int = 0                                # packets ahead of the first that counts
    pcr_steps: list = field(default_factory=list)   # from one PCR to the next
    pcr_deltas: list = field(default_factory=list)  # between an audio timestamp and the last PCR
    av_deltas: list = field(default_factory=list)   # between an audio timestamp and the first video track's
    av_zeros: int = 0                               # of these, under a ms, but not 0

    def packets(self, *kinds):
        return sum(t.packets for t in self.tracks if not kinds or t.kind in kinds)


def count_program(packets):
    """Counts a stream of one program, whose table doesn't change."""
    program, last_pcr, by_pid = ProgramCount(), None, {}
    for at, packet in enumerate(packets):
        pid = ts.pid(packet)
        if pid == 0 and not program.pmt_pid:
            (_, program.pmt_pid), = ts.pat_entries(ts.section(packet))
        elif pid == program.pmt_pid and not by_pid:
            body = ts.section(packet)
            program.pcr_pid = ts.pmt_pcr_pid(body)
            program.tracks = [TrackCount(t.pid, CLASS_BY_TYPE[t.stream_type], t.stream_type)
                              for t in ts.pmt_tracks(body) if t.stream_type in CLASS_BY_TYPE]
            by_pid = {t.pid: t for t in program.tracks}
        elif pid in by_pid:
            if not program.packets():
                program.skipped = at
            track = by_pid[pid]
            track.packets += 1
            if pid == program.pcr_pid and ts.pcr(packet) is not None:
                if last_pcr is not None:
                    program.pcr_steps.append(ts.ticks_between(last_pcr, ts.pcr(packet)) // TICKS_PER_MS)
                last_pcr = ts.pcr(packet)
            note_times(track, packet)
            if track.kind == "A" and ts.has_payload(packet):
                compare_times(program, track, last_pcr)
    return program


def note_times(track, packet):
    for name, value in zip(("pts", "dts"), ts.pes_times(packet)):
        if value is None:
            continue
        if value != getattr(track, name):
            track.fresh.add(name)
        else:
            track.fresh.discard(name)
        setattr(track, name, value)


def compare_times(program, audio, last_pcr):
    """A new timestamp of a track that carries no PCR. One that finds no video to compare with stays new."""
    video = next(t for t in program.tracks if t.kind == "V")
    for name in [n for n in ("pts", "dts") if n in audio.fresh]:
        value = getattr(audio, name)
        if last_pcr is not None:
            program.pcr_deltas.append(abs(value - last_pcr) // TICKS_PER_MS)
        reference = getattr(video, name)
        if reference:
            program.av_deltas.append(abs(value - reference) // TICKS_PER_MS)
            program.av_zeros += 0 < abs(value - reference) < TICKS_PER_MS
            audio.fresh.discard(name)
