"""Transport packets, ISO/IEC 13818-1, 2.4.3.2, of a stream of which nothing is broken."""

from dataclasses import dataclass

PACKET_BYTES = 188
PAT_PID = 0


@dataclass
class Packet:
    position: int
    pid: int
    starts_unit: bool
    payload: bytes


def packets_of(stream, pids):
    """The packets of some PIDs, in stream order."""
    for position in range(0, len(stream) - PACKET_BYTES + 1, PACKET_BYTES):
        header = stream[position:position + 5]
        assert header[0] == 0x47, f"no sync byte at {position}"
        pid = (header[1] & 0x1F) << 8 | header[2]
        if pid in pids:
            adaptation_field = 1 + header[4] if header[3] & 0x20 else 0
            payload = stream[position + 4 + adaptation_field:position + PACKET_BYTES]
            yield Packet(position, pid, bool(header[1] & 0x40), payload)


def elementary_stream(stream, pid):
    """The payload of one PID with the PES headers taken out."""
    parts = []
    for packet in packets_of(stream, {pid}):
        # PES_header_data_length is the ninth byte of the header.
        header = 9 + packet.payload[8] if packet.starts_unit else 0
        parts.append(packet.payload[header:])
    return b"".join(parts)
