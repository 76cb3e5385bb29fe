"""The PAT and the PMT as fragments carry them: the network entry moved out of the way, the PMT of
a rendition that has one stream, and the packets that each fragment begins with."""

from .packet import PACKET_BYTES
from .psi import CRC_BYTES, SECTION_HEADER_BYTES, crc32

LONGEST_PROGRAM_INFO = 79
PROGRAM_INFO_AT = 4  # behind PCR_PID and program_info_length

# Which PMT a fragment begins with.
VIDEO, AUDIO, SECOND_AUDIO = range(3)


class ProgramAborts(Exception):
    """An assertion of the program fails. The argument is its function and expression."""


PMT_TOO_LONG = (
    b"bool io_proc_ts_packet_on_pmt(PIDstate&, PIDmap&, mpeg_ts_packet&, bool&, "
    b"const mpeg_ts_pat_main_header*, const unsigned char*, const unsigned char*, "
    b"const cmdopts&): Assertion `p <= f' failed.")


def move_network_entry_last(stream, at, payload):
    """Rewrites the PAT in the packet at `at`, if it lies wholly in it and its first entry is that
    of the network."""
    end = at + PACKET_BYTES
    if end - payload <= 9:
        return
    section = payload + 1 + stream[payload]
    if section + 3 > end:
        return
    section_length = (stream[section + 1] & 0x0F) << 8 | stream[section + 2]
    if section + 3 + section_length > end:
        return
    loop = section + SECTION_HEADER_BYTES
    loop_end = section + 3 + section_length - CRC_BYTES
    if loop_end - loop < 4:
        return
    network_entry = stream[loop:loop + 4]
    if network_entry[:2] != b"\0\0" or network_entry[2] & 0xE0 != 0xE0:
        return
    stream[loop:loop_end] = stream[loop + 4:loop_end] + network_entry
    stream[loop_end:loop_end + CRC_BYTES] = crc32(stream[section:loop_end]).to_bytes(4, "big")


def rendition_pmt(pmt_pid, section, head, entry):
    """A packet with the received PMT reduced to one stream, which becomes its own PCR_PID."""
    body = (0xE000 | entry.pid).to_bytes(2, "big") + head[2:] + entry.raw
    section_length = SECTION_HEADER_BYTES - 3 + len(body) + CRC_BYTES
    table = bytearray(section[:SECTION_HEADER_BYTES]) + body
    table[1] = table[1] & 0xC0 | 0x30 | section_length >> 8 & 0x0F
    table[2] = section_length & 0xFF
    table[5] |= 0xC0

    header = bytes([0x47, 0x40 | pmt_pid >> 8, pmt_pid & 0xFF, 0x10])
    pointer_field = b"\0"
    packet = header + pointer_field + table + crc32(table).to_bytes(4, "big")
    if len(packet) > PACKET_BYTES:
        raise ProgramAborts(PMT_TOO_LONG)
    return packet.ljust(PACKET_BYTES, b"\xff")


class FragmentTables:
    """The packets kept for fragment starts. One continuity counter serves the three PMTs, although
    they go to different files."""

    def __init__(self):
        self.pat = None
        self.pmt = {}
        self.pat_counter = 0
        self.pmt_counter = 0

    def packets_for(self, rendition):
        """The next fragment's first packets."""
        packets = []
        if self.pat:
            packets.append(_with_continuity_counter(self.pat, self.pat_counter))
            self.pat_counter += 1
        if rendition in self.pmt:
            packets.append(_with_continuity_counter(self.pmt[rendition], self.pmt_counter))
            self.pmt_counter += 1
        return packets


def _with_continuity_counter(packet, counter):
    return packet[:3] + bytes([packet[3] & 0xF0 | counter & 0x0F]) + packet[4:]
