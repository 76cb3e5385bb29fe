"""PES packets, ISO/IEC 13818-1, 2.4.3.6: the first bytes of one gathered from the packets that
carry it, its header found in them, and its PTS."""

from dataclasses import dataclass

from .packet import PACKET_BYTES, SYNC_BYTE, payload_begin, pid_of, starts_unit

GATHERED_BYTES = 8192
START_CODE = b"\0\0\1"
FIRST_STREAM_ID = 0xBC
# Table 2-21: the packets of these have no optional header.
IDS_WITHOUT_HEADER = frozenset((0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF))


def is_video(stream_id):
    """0xF0 is taken for video on purpose."""
    return stream_id == 0xF0 or stream_id & 0xF0 == 0xE0


def is_audio(stream_id):
    return stream_id & 0xE0 == 0xC0


@dataclass
class Pes:
    pts: int | None
    payload: bytes


def gather(stream, at, end):
    """The first bytes of the PES packet that begins at `at`, looking ahead as far as `end`."""
    pid = pid_of(stream, at)
    gathered = bytearray(stream[payload_begin(stream, at):at + PACKET_BYTES])
    at += PACKET_BYTES
    while end - at >= PACKET_BYTES and stream[at] == SYNC_BYTE and len(gathered) < GATHERED_BYTES:
        payload = payload_begin(stream, at)
        if payload is None:
            break
        if pid_of(stream, at) == pid:
            if starts_unit(stream, at):
                break
            gathered += stream[payload:at + PACKET_BYTES]
        at += PACKET_BYTES
    return bytes(gathered[:GATHERED_BYTES])


def find_pes(data, is_wanted):
    """The first PES packet of a wanted stream_id whose header lies wholly in `data`, or None."""
    at = data.find(START_CODE)
    while 0 <= at <= len(data) - 4:
        pes = _decode_pes(data, at)
        if pes and is_wanted(data[at + 3]):
            return pes
        behind_code = at + 4
        if len(data) - behind_code < 4:
            return None  # too short for another start code
        at = data.find(START_CODE, behind_code)
    return None


def _decode_pes(data, at):
    if data[at + 3] < FIRST_STREAM_ID or at + 6 > len(data):
        return None
    packet_length = int.from_bytes(data[at + 4:at + 6], "big")
    end = at + 6 + packet_length if packet_length else len(data)
    pts = None
    if data[at + 3] in IDS_WITHOUT_HEADER:
        payload = at + 6
    else:
        if at + 9 > len(data) or data[at + 6] & 0xC0 != 0x80:
            return None
        has_pts, header_data_length = data[at + 7] & 0x80, data[at + 8]
        payload = at + 9 + header_data_length
        if payload > len(data):
            return None
        if has_pts and header_data_length >= 5:
            pts = _decode_pts(data[at + 9:at + 14])
    if end < payload:  # PES_packet_length does not even cover the header
        return None
    return Pes(pts, data[payload:end])


def _decode_pts(field):
    return ((field[0] >> 1 & 7) << 30 | field[1] << 22 | field[2] >> 1 << 15
            | field[3] << 7 | field[4] >> 1)
