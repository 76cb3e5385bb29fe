"""Random PATs and PMTs, ISO/IEC 13818-1, 2.4.4, that may change as the stream goes on."""

from reading.psi import crc32
from .multiplex import PAYLOAD_BYTES

H264, MPEG1_VIDEO, MPEG2_VIDEO = 0x1B, 0x01, 0x02
AUDIO_TYPES = (0x03, 0x04, 0x0F)
PRIVATE_DATA = 0x06
NETWORK_PID = 0x10
PADDING_PID = 0x1FFF
PAT_TABLE_ID, PMT_TABLE_ID = 0, 2


def section(table_id, extension, version, body, is_current=1):
    length = 5 + len(body) + 4
    data = bytes([table_id, 0xB0 | length >> 8, length & 0xFF, extension >> 8, extension & 0xFF,
                  0xC0 | version << 1 | is_current, 0, 0]) + body
    return data + crc32(data).to_bytes(4, "big")


def pat_section(programmes, version=0, is_current=1):
    """programmes: (number, PID), in order."""
    body = b"".join(number.to_bytes(2, "big") + (0xE000 | pid).to_bytes(2, "big")
                    for number, pid in programmes)
    return section(PAT_TABLE_ID, 7, version, body, is_current)


def pmt_section(number, pcr_pid, streams, program_info=b"", version=0):
    """streams: (stream_type, PID, descriptors), in order."""
    body = (0xE000 | pcr_pid).to_bytes(2, "big")
    body += (0xF000 | len(program_info)).to_bytes(2, "big") + program_info
    for stream_type, pid, descriptors in streams:
        body += bytes([stream_type]) + (0xE000 | pid).to_bytes(2, "big")
        body += (0xF000 | len(descriptors)).to_bytes(2, "big") + descriptors
    return section(PMT_TABLE_ID, number, version, body)


class ProgrammeTables:
    """video_type: None for none."""

    def __init__(self, dice, damage, video_type, audio_count):
        self.dice = dice
        self.damage = damage
        pids = iter(dice.sample(range(0x20, PADDING_PID), 12))
        self.pmt_pid, self.pcr_pid, self.private_pid, self.other_pmt_pid = (
            next(pids) for _ in range(4))
        self.number = dice.randrange(1, 65536)
        self.video_type = video_type
        self.video_pid = next(pids)
        self.later_video_pid = next(pids)
        self.audio = [(dice.choice(AUDIO_TYPES), next(pids)) for _ in range(audio_count)]
        self.unlisted_pid = next(pids)

        self.has_network_entry = dice.chance(0.5)
        self.has_other_programme = dice.chance(0.5)
        self.is_reversed = dice.chance(0.2)
        self.private_at = dice.randrange(4)
        self.has_languages = dice.chance(0.5)
        self.is_large = dice.chance(0.12)
        self.program_info_length = dice.choice([0, 0, 0, 6, 40, 79, 80])
        self.oddity = dice.choice(["double PID"] * 2 + ["padding PID"] + [None] * 97)
        self.version = 0

    def _pat(self):
        dice = self.dice
        programmes = [(self.number, self.pmt_pid)]
        if dice.chance(0.02):  # not the one that was chosen
            programmes.insert(0, (dice.randrange(1, 65536), dice.randrange(0x20, 8000)))
        if self.has_network_entry:
            programmes.insert(0, (0, NETWORK_PID))
        if self.has_other_programme:
            programmes.append((self.number % 65535 + 1, self.other_pmt_pid))
        return pat_section(programmes)

    def _pmt(self):
        streams = [(self.video_type, self.video_pid)] if self.video_type else []
        streams += self.audio
        if self.oddity and streams:
            pid = streams[0][1] if self.oddity == "double PID" else PADDING_PID
            streams[-1] = streams[-1][0], pid
        if self.is_reversed:
            streams.reverse()
        streams.insert(self.private_at % (len(streams) + 1), (PRIVATE_DATA, self.private_pid))
        return pmt_section(
            self.number, self.pcr_pid,
            [(kind, pid, self._descriptors(kind)) for kind, pid in streams],
            self._program_info(), self.version)

    def _program_info(self):
        length = self.program_info_length
        return bytes([5, length - 2]) + b"x" * (length - 2) if length else b""

    def _descriptors(self, stream_type):
        if stream_type in AUDIO_TYPES and self.has_languages:
            return b"\x0a\x04eng\0"
        if stream_type == PRIVATE_DATA and self.is_large:
            return b"\x52\xf0" + b"p" * 240
        return b""

    def send(self, multiplex):
        self._send_table(multiplex, 0, self._pat(), [16])
        if self.dice.chance(0.01):
            self._change()
        self._send_table(multiplex, self.pmt_pid, self._pmt(), [16, 100, 183])
        if self.has_other_programme and self.dice.chance(0.5):
            multiplex.section(self.other_pmt_pid, self._pmt())

    def _change(self):
        dice = self.dice
        self.version = (self.version + 1) % 32
        if dice.chance(0.3):
            self.is_reversed = not self.is_reversed
        if self.video_type and dice.chance(0.2):
            self.video_pid, self.later_video_pid = self.later_video_pid, self.video_pid

    def _send_table(self, multiplex, pid, table, small_parts):
        dice = self.dice
        if dice.chance(self.damage):
            table = bytearray(table)
            table[dice.randrange(len(table))] ^= 1 << dice.randrange(8)
            table = bytes(table)
        if dice.chance(0.04):
            multiplex.joined_sections(pid, table, table, dice.choice([1, 4, 20, len(table) - 2]))
        elif dice.chance(0.03):
            # Two sections in one unit: the second is lost.
            multiplex.section(pid, table + table)
        else:
            multiplex.section(pid, table, dice.choice([0] * 16 + [1, 7, 160, 182]),
                              dice.choice([PAYLOAD_BYTES] * 14 + small_parts))
