"""MPEG-2 video, ISO/IEC 13818-2, 6.2: the headers before a picture."""

import re

from transport_stream import PACKET_BYTES, packets_of

PICTURE = 0x00
INTRA = 1
SEQUENCE_AND_GROUP = re.compile(rb"\x00\x00\x01[\xb3\xb8]")
# These and their extensions stand before the picture header.
BEFORE_PICTURE = re.compile(rb"\x00\x00\x01[\xb3\xb5\xb8](?=.*\x00\x00\x01\x00)", re.DOTALL)
USER_DATA_START_CODE = b"\x00\x00\x01\xb2"
FIRST_HEADER = re.compile(rb"\x00\x00\x01([\x00\xb3\xb8])(..)", re.DOTALL)


def with_every_second_header_hidden(stream, pid):
    """The stream with every second sequence header, and group header with it, made user data, which
    decoders pass over. Both stand in the first packet of their picture."""
    changed = bytearray(stream)
    found = 0
    for packet in packets_of(stream, {pid}):
        if packet.starts_unit and SEQUENCE_AND_GROUP.search(packet.payload):
            found += 1
            if found % 2 == 0:
                end = packet.position + PACKET_BYTES
                changed[end - len(packet.payload):end] = BEFORE_PICTURE.sub(
                    USER_DATA_START_CODE, packet.payload)
    return bytes(changed)


def begins_group(access_unit):
    """Headers before the picture, or an I-picture that is the first of its group to be shown."""
    found = FIRST_HEADER.search(access_unit)
    if found.group(1)[0] != PICTURE:
        return True
    # picture_header(): temporal_reference:10 picture_coding_type:3
    bits = int.from_bytes(found.group(2), "big")
    return bits >> 6 == 0 and bits >> 3 & 7 == INTRA
