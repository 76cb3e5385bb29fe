"""Sections: how packets are put together to one (ISO/IEC 13818-1, 2.4.4), its CRC_32 (annex A),
and the loops of the PAT and the PMT."""

from dataclasses import dataclass

SECTION_CAPACITY = 4096
SHORTEST_SECTION_LENGTH = 9  # five bytes of header behind it, and the CRC_32
SECTION_HEADER_BYTES = 8
CRC_BYTES = 4


def _crc_of_byte(byte):
    crc = byte << 24
    for _ in range(8):
        crc = crc << 1 ^ (0x04C11DB7 if crc & 0x80000000 else 0)
    return crc & 0xFFFFFFFF


CRC_TABLE = [_crc_of_byte(byte) for byte in range(256)]


def crc32(data):
    """0 over a section that includes its own CRC_32 and is intact."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc << 8 & 0xFFFFFFFF ^ CRC_TABLE[crc >> 24 ^ byte]
    return crc


class SectionAssembly:
    """The section that is being gathered from the packets of one PID. A section counts as ready
    when a continuation packet has brought payload, or when the next unit begins; so one that fits
    into its first packet is delivered a unit late."""

    def __init__(self):
        self.gathered = None  # None: no section has begun
        self.is_ready = False

    def begin(self, payload):
        """Of several sections that begin in a unit, only the first is gathered, and the bytes
        before it are lost."""
        self.discard()
        if payload:
            pointer_field = payload[0]
            if 1 + pointer_field < len(payload):
                self.gathered = bytearray(payload[1 + pointer_field:])

    def add(self, payload):
        if self.gathered is not None and payload:
            self.gathered += payload[:SECTION_CAPACITY - len(self.gathered)]
            self.is_ready = True

    def complete(self):
        self.is_ready = self.gathered is not None

    def discard(self):
        self.gathered = None
        self.is_ready = False

    def take_ready(self):
        """The whole section with its CRC_32, or None."""
        if not self.is_ready or len(self.gathered) < 3:
            return None
        section_length = (self.gathered[1] & 0x0F) << 8 | self.gathered[2]
        if section_length < SHORTEST_SECTION_LENGTH or len(self.gathered) < 3 + section_length:
            return None
        section = bytes(self.gathered[:3 + section_length])
        return section if crc32(section) == 0 else None


def section_data(section):
    """What lies between the section's header and its CRC_32."""
    return section[SECTION_HEADER_BYTES:-CRC_BYTES]


def programmes_of(pat_data):
    """(program_number, PID) of each entry of a PAT."""
    for at in range(0, len(pat_data) - 3, 4):
        yield (int.from_bytes(pat_data[at:at + 2], "big"),
               int.from_bytes(pat_data[at + 2:at + 4], "big") & 0x1FFF)


@dataclass
class StreamEntry:
    stream_type: int
    pid: int
    raw: bytes


def decode_pmt(pmt_data):
    """(PCR_PID and program_info as received, stream entries), or None if anything runs past the
    end."""
    if len(pmt_data) < 4:
        return None
    program_info_length = (pmt_data[2] & 0x0F) << 8 | pmt_data[3]
    at = 4 + program_info_length
    if at > len(pmt_data):
        return None
    head, entries = pmt_data[:at], []
    while at < len(pmt_data):
        if at + 5 > len(pmt_data):
            return None
        es_info_length = (pmt_data[at + 3] & 0x0F) << 8 | pmt_data[at + 4]
        end = at + 5 + es_info_length
        if end > len(pmt_data):
            return None
        pid = int.from_bytes(pmt_data[at + 1:at + 3], "big") & 0x1FFF
        entries.append(StreamEntry(pmt_data[at], pid, pmt_data[at:end]))
        at = end
    return head, entries
