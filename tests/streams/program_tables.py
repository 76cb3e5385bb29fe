"""PATs of one packet each, ISO/IEC 13818-1, 2.4.4.3, made anew with other bits."""

import model_path  # before what it makes known
from reading.psi import CRC_BYTES, crc32
from transport_stream import PACKET_BYTES, PAT_PID, packets_of

SECTION_AT = 5  # behind the transport header and a pointer_field of 0
LOOP_OF_PAT = 8  # offset of the entries, 4 bytes each: program_number:16 reserved:3 PID:13
RESERVED_BITS = 0xE0


def with_reserved_bits_in_pats(stream):
    """What the standard asks for, and ffmpeg leaves out of the network PID's entry."""
    changed = bytearray(stream)
    for pat in packets_of(stream, {PAT_PID}):
        begin = pat.position + SECTION_AT
        length = (changed[begin + 1] & 0x0F) << 8 | changed[begin + 2]
        end = begin + 3 + length - CRC_BYTES
        assert end + CRC_BYTES <= pat.position + PACKET_BYTES, "a PAT of more than one packet"
        assert crc32(changed[begin:end + CRC_BYTES]) == 0, "a section with a wrong CRC"
        for entry in range(begin + LOOP_OF_PAT, end, 4):
            changed[entry + 2] |= RESERVED_BITS
        changed[end:end + CRC_BYTES] = crc32(changed[begin:end]).to_bytes(CRC_BYTES, "big")
    return bytes(changed)
