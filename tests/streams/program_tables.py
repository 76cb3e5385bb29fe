"""PAT and PMT in one packet each, ISO/IEC 13818-1, 2.4.4, read and made anew."""

from transport_stream import PACKET_BYTES, PAT_PID, packets_of

CRC_BYTES = 4
SECTION_AT = 5  # behind the transport header and a pointer_field of 0
LOOP_OF_PAT = 8  # offset of the entries, 4 bytes each: program_number:16 reserved:3 PID:13
RESERVED_BITS = 0xE0
PCR_PID_OF_PMT = 8
PROGRAM_INFO_LENGTH = 10


def crc_32(data):
    """CRC_32 of a section: annex A. It is 0 over a section that ends with its own."""
    register = 0xFFFFFFFF
    for byte in data:
        register ^= byte << 24
        for _ in range(8):
            register = (register << 1 ^ (0x04C11DB7 if register & 0x80000000 else 0)) & 0xFFFFFFFF
    return register


def _twelve_bits(data, at):
    return (data[at] & 0x0F) << 8 | data[at + 1]


def section_in(packet):
    """The section of a packet of tables, its CRC_32 included."""
    assert packet[3] & 0x30 == 0x10 and packet[4] == 0, "only a header, then the section"
    section = packet[SECTION_AT:SECTION_AT + 3 + _twelve_bits(packet, SECTION_AT + 1)]
    assert crc_32(section) == 0, "a section with a wrong CRC"
    return section


def _packet(header, body):
    """A packet with this section, whose length and CRC_32 are put in here."""
    length = len(body) - 3 + CRC_BYTES
    body = body[:1] + bytes([body[1] & 0xF0 | length >> 8, length & 0xFF]) + body[3:]
    packet = header + b"\x00" + body + crc_32(body).to_bytes(CRC_BYTES, "big")
    return packet.ljust(PACKET_BYTES, b"\xff")


def with_counter(packet, counter):
    return packet[:3] + bytes([packet[3] & 0xF0 | counter & 0x0F]) + packet[4:]


def _network_entry_last(entries):
    # An entry without its reserved bits is not taken for one.
    is_first = entries[0][:2] == b"\x00\x00" and entries[0][2] & RESERVED_BITS == RESERVED_BITS
    return entries[1:] + entries[:1] if is_first else entries


def _reserved_bits_set(entries):
    return [entry[:2] + bytes([entry[2] | RESERVED_BITS]) + entry[3:] for entry in entries]


def _with_pats(stream, rewritten):
    """The stream with the entries of each PAT as `rewritten` returns them."""
    changed = bytearray(stream)
    for pat in packets_of(stream, {PAT_PID}):
        here = slice(pat.position, pat.position + PACKET_BYTES)
        packet = stream[here]
        body = section_in(packet)[:-CRC_BYTES]
        entries = [body[at:at + 4] for at in range(LOOP_OF_PAT, len(body), 4)]
        changed[here] = _packet(packet[:4], body[:LOOP_OF_PAT] + b"".join(rewritten(entries)))
    return bytes(changed)


def with_network_entries_last(stream):
    """The network PID's entry, where it is the first of a PAT, put behind the programmes."""
    return _with_pats(stream, _network_entry_last)


def with_reserved_bits_in_pats(stream):
    """What the standard asks for, and ffmpeg leaves out of the network PID's entry."""
    return _with_pats(stream, _reserved_bits_set)


def pmt_of_one_stream(packet, pid):
    """A PMT packet that knows one of the streams only, and that one as the PCR's."""
    body = section_in(packet)[:-CRC_BYTES]
    at = PROGRAM_INFO_LENGTH + 2 + _twelve_bits(body, PROGRAM_INFO_LENGTH)
    head = bytearray(body[:at])
    head[PCR_PID_OF_PMT:PCR_PID_OF_PMT + 2] = (0xE000 | pid).to_bytes(2, "big")
    entries = []
    while at < len(body):
        end = at + 5 + _twelve_bits(body, at + 3)
        if int.from_bytes(body[at + 1:at + 3], "big") & 0x1FFF == pid:
            entries.append(body[at:end])
        at = end
    assert len(entries) == 1, f"PID {pid:#x} is not in the PMT"
    return _packet(b"\x47" + bytes([0x40 | packet[1] & 0x1F, packet[2], 0x10]),
                   bytes(head) + entries[0])
