"""An independent count of what a stream holds, from its bytes alone: tracked PIDs by the PMT, continuity breaks."""
import tsfile as ts

TRACKED_TYPES = {1, 2, 3, 4, 6, 15, 16, 17, 27, 36, 66, 129, 135}


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
