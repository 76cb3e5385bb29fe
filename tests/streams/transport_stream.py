"""Transport packets, ISO/IEC 13818-1, 2.4.3.2, of a stream of which nothing is broken."""

from dataclasses import dataclass

PACKET_BYTES = 188
PAT_PID = 0
PADDING_PID = 0x1FFF
CLOCK = 2 ** 33  # time stamps count modulo this, 90 kHz


@dataclass
class Packet:
    position: int
    pid: int
    starts_unit: bool
    payload: bytes


def pids_of(stream):
    """The PID of every packet."""
    last = len(stream) - PACKET_BYTES + 1
    assert set(stream[0:last:PACKET_BYTES]) == {0x47}, "a packet without its sync byte"
    return [(high & 0x1F) << 8 | low
            for high, low in zip(stream[1:last + 1:PACKET_BYTES], stream[2:last + 2:PACKET_BYTES])]


def packets_of(stream, pids):
    """The packets of some PIDs, in stream order."""
    for index, pid in enumerate(pids_of(stream)):
        if pid not in pids:
            continue
        position = index * PACKET_BYTES
        header = stream[position:position + 5]
        adaptation_field = 1 + header[4] if header[3] & 0x20 else 0
        payload = stream[position + 4 + adaptation_field:position + PACKET_BYTES]
        yield Packet(position, pid, bool(header[1] & 0x40), payload)


def _elementary(packet):
    """The packet's payload behind the PES header, if it has one."""
    # PES_header_data_length is the ninth byte of the header.
    return packet.payload[9 + packet.payload[8] if packet.starts_unit else 0:]


def elementary_stream(stream, pid):
    """The payload of one PID with the PES headers taken out."""
    return b"".join(_elementary(packet) for packet in packets_of(stream, {pid}))


def access_units(stream, pid):
    """Position of the first packet -> payload, of every PES packet of a PID."""
    units = {}
    for packet in packets_of(stream, {pid}):
        if packet.starts_unit:
            unit = units.setdefault(packet.position, [])
        unit.append(_elementary(packet))
    return {position: b"".join(parts) for position, parts in units.items()}
