"""Puts things into a transport stream that ffmpeg made: user data into its pictures, streams and
descriptors into its tables."""

from dataclasses import dataclass, field

PACKET_BYTES = 188
CLOCK = 2 ** 33


def crc32(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ 0x04C11DB7 if crc & 0x80000000 else crc << 1) & 0xFFFFFFFF
    return crc.to_bytes(4, "big")


def time_stamp(data):
    return (data[0] >> 1 & 7) << 30 | data[1] << 22 | data[2] >> 1 << 15 | data[3] << 7 | data[4] >> 1


def time_stamp_bytes(prefix, ticks):
    ticks %= CLOCK
    return bytes([prefix << 4 | ticks >> 30 << 1 | 1, ticks >> 22 & 0xFF, ticks >> 14 & 0xFE | 1,
                  ticks >> 7 & 0xFF, ticks << 1 & 0xFE | 1])


@dataclass
class Unit:
    """A PES packet or a section as it comes, with the adaptation field of its first packet."""

    pid: int
    data: bytearray
    adaptation: bytes = b""


@dataclass
class Muxer:
    """Units back into packets; counters per PID."""

    counters: dict = field(default_factory=dict)

    def packets(self, unit):
        out = bytearray()
        data, first = bytes(unit.data), True
        while data or first:
            adaptation = unit.adaptation if first else b""
            room = PACKET_BYTES - 4 - (1 + len(adaptation) if adaptation else 0)
            stuffing = room - len(data)
            if stuffing > 0 and not adaptation:
                adaptation = b"" if stuffing == 1 else b"\0" + b"\xFF" * (stuffing - 2)
                has_field = True
            else:
                adaptation += b"\xFF" * max(stuffing, 0)
                has_field = bool(adaptation)
            counter = self.counters.get(unit.pid, 0)
            self.counters[unit.pid] = (counter + 1) % 16
            packet = bytes([0x47, (0x40 if first else 0) | unit.pid >> 8, unit.pid & 0xFF,
                            (0x30 if has_field else 0x10) | counter])
            if has_field:
                packet += bytes([len(adaptation)]) + adaptation
            taken = PACKET_BYTES - len(packet)
            packet += data[:taken]
            assert len(packet) == PACKET_BYTES
            data, first = data[taken:], False
            out += packet
        return bytes(out)


def units_of(stream):
    """Every unit, where its last packet stands; padding is left out."""
    begun = {}
    order = []
    for at in range(0, len(stream), PACKET_BYTES):
        packet = stream[at:at + PACKET_BYTES]
        pid = (packet[1] & 0x1F) << 8 | packet[2]
        if pid == 0x1FFF:
            continue
        adaptation = packet[5:5 + packet[4]] if packet[3] & 0x20 else b""
        payload = packet[5 + packet[4]:] if packet[3] & 0x20 else packet[4:]
        if packet[1] & 0x40:
            # Without the stuffing behind its fields; only a PCR is kept.
            kept = adaptation[:7] if adaptation and adaptation[0] & 0x10 else adaptation[:1]
            begun[pid] = Unit(pid, bytearray(), bytes(kept))
            order.append(begun[pid])
        if pid in begun:
            begun[pid].data += payload
    return order


def has_pes(unit):
    return unit.data[:3] == b"\0\0\1"


def pts_of(unit):
    return time_stamp(unit.data[9:14]) if has_pes(unit) and unit.data[7] & 0x80 else None


def insert_into_picture(unit, payload, before):
    """Puts `payload` before the first start code of the PES packet's payload that `before`
    accepts, and mends PES_packet_length."""
    at = 9 + unit.data[8]
    while True:
        at = unit.data.index(b"\0\0\1", at)
        if before(unit.data[at + 3]):
            break
        at += 3
    if unit.data[at - 1] == 0:
        at -= 1  # zero_byte
    unit.data[at:at] = payload
    if unit.data[4:6] != b"\0\0":
        length = len(unit.data) - 6
        unit.data[4:6] = (length if length < 65536 else 0).to_bytes(2, "big")


def map_with(unit, video_descriptors=b"", streams=b""):
    """The unit of a program map section with descriptors for its first stream, and streams more."""
    section = bytes(unit.data[1 + unit.data[0]:])
    section = section[:3 + ((section[1] & 0x0F) << 8 | section[2]) - 4]
    body = 12 + ((section[10] & 0x0F) << 8 | section[11])
    info = (section[body + 3] & 0x0F) << 8 | section[body + 4]
    info_end = body + 5 + info
    info += len(video_descriptors)
    section = (section[:body + 3] + bytes([0xF0 | info >> 8, info & 0xFF]) +
               section[body + 5:info_end] + video_descriptors + section[info_end:] + streams)
    length = len(section) - 3 + 4
    section = section[:1] + bytes([section[1] & 0xF0 | length >> 8, length & 0xFF]) + section[3:]
    section += crc32(section)
    data = b"\0" + section
    return Unit(unit.pid, bytearray(data + b"\xFF" * (-len(data) % (PACKET_BYTES - 4))))


def stream_entry(stream_type, pid, descriptors):
    return (bytes([stream_type, 0xE0 | pid >> 8, pid & 0xFF, 0xF0 | len(descriptors) >> 8,
                   len(descriptors) & 0xFF]) + descriptors)


def descriptor(tag, data):
    return bytes([tag, len(data)]) + data
