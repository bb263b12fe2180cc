"""Reading transport streams packet by packet: what the sample's tools and the end-to-end tests share.

Fields follow ISO/IEC 13818-1. Times are 90 kHz ticks of 33 bits.
"""
from dataclasses import dataclass

SYNC = 0x47
PACKET_BYTES = 188
TICKS_PER_SECOND = 90000
WRAP = 1 << 33


def packets(data):
    """The packets of a run of bytes that begins in sync; a torn last packet is left out."""
    for at in range(0, len(data) - PACKET_BYTES + 1, PACKET_BYTES):
        packet = data[at:at + PACKET_BYTES]
        if packet[0] != SYNC:
            raise ValueError(f"no sync byte at {at}")
        yield packet


def pid(packet):
    return (packet[1] & 0x1F) << 8 | packet[2]


def continuity(packet):
    return packet[3] & 0x0F


def has_payload(packet):
    return bool(packet[3] & 0x10)


def has_adaptation(packet):
    return bool(packet[3] & 0x20)


def unit_start(packet):
    return bool(packet[1] & 0x40)


def payload_offset(packet):
    """Position of the payload, or None where there is none inside the packet."""
    if not has_payload(packet):
        return None
    at = 5 + packet[4] if has_adaptation(packet) else 4
    return at if at < PACKET_BYTES else None


def pcr(packet):
    """PCR base, or None."""
    if not has_adaptation(packet) or packet[4] == 0 or not packet[5] & 0x10:
        return None
    return packet[6] << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7


def set_pcr(packet, base):
    packet = bytearray(packet)
    base %= WRAP
    packet[6:10] = (base >> 1).to_bytes(4, "big")
    packet[10] = (base & 1) << 7 | packet[10] & 0x7F
    return bytes(packet)


def _timestamp(field):
    return ((field[0] >> 1 & 7) << 30 | field[1] << 22 | field[2] >> 1 << 15 | field[3] << 7 | field[4] >> 1)


def _timestamp_bytes(mark, value):
    value %= WRAP
    return bytes([mark << 4 | (value >> 30 & 7) << 1 | 1, value >> 22 & 0xFF, (value >> 15 & 0x7F) << 1 | 1,
                  value >> 7 & 0xFF, (value & 0x7F) << 1 | 1])


def pes_times(packet):
    """(PTS, DTS) of a PES header that begins in this packet; None for what is absent."""
    at = payload_offset(packet)
    if at is None or not unit_start(packet):
        return None, None
    pes = packet[at:]
    if len(pes) < 9 or pes[:3] != b"\0\0\1" or pes[3] < 188:
        return None, None
    pts = _timestamp(pes[9:14]) if pes[7] & 0x80 and len(pes) >= 14 else None
    dts = _timestamp(pes[14:19]) if pes[7] & 0xC0 == 0xC0 and len(pes) >= 19 else None
    return pts, dts


def set_pts(packet, value):
    at = payload_offset(packet)
    mark = packet[at + 9] >> 4
    return packet[:at + 9] + _timestamp_bytes(mark, value) + packet[at + 14:]


def ticks_between(first, last):
    """Ticks from one reading to the next, across the wrap."""
    return (last - first) % WRAP


def crc32(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ 0x04C11DB7 if crc & 0x80000000 else crc << 1) & 0xFFFFFFFF
    return crc


def section(packet):
    """The section that begins in this packet, or None. One that runs past the packet comes cut short."""
    at = payload_offset(packet)
    if at is None or not unit_start(packet):
        return None
    at += 1 + packet[at]
    length = 3 + ((packet[at + 1] & 0x0F) << 8 | packet[at + 2])
    return packet[at:at + length]


def section_packet(packet, body):
    """The packet with another section in it; body comes without its CRC and is given one."""
    length = len(body) - 3 + 4
    body = body[:1] + bytes([body[1] & 0xF0 | length >> 8, length & 0xFF]) + body[3:]
    body += crc32(body).to_bytes(4, "big")
    full = packet[:4] + b"\0" + body
    if len(full) > PACKET_BYTES:
        raise ValueError("section does not fit one packet")
    return full + b"\xff" * (PACKET_BYTES - len(full))


def with_version(body, version):
    return body[:5] + bytes([body[5] & 0xC1 | (version & 31) << 1]) + body[6:]


def version(body):
    return body[5] >> 1 & 31


@dataclass(frozen=True)
class Track:
    pid: int
    stream_type: int


def pat_entries(body):
    """[(program number, PID)] of a PAT section."""
    return [(body[at] << 8 | body[at + 1], (body[at + 2] & 0x1F) << 8 | body[at + 3])
            for at in range(8, len(body) - 4, 4)]


def pmt_pcr_pid(body):
    return (body[8] & 0x1F) << 8 | body[9]


def pmt_tracks(body):
    at = 12 + ((body[10] & 0x0F) << 8 | body[11])
    tracks = []
    while at + 5 <= len(body) - 4:
        tracks.append(Track((body[at + 1] & 0x1F) << 8 | body[at + 2], body[at]))
        at += 5 + ((body[at + 3] & 0x0F) << 8 | body[at + 4])
    return tracks
