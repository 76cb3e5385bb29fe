"""H.264 byte streams, ITU-T H.264, annex B: the units and the start codes before them."""

import re

# A unit begins behind 00 00 01; one more zero byte before it makes the start code the long one.
START_CODE = re.compile(rb"\x00?\x00\x00\x01")


def with_start_codes(byte_stream, length):
    """The same units, each behind a start code of 3 or of 4 bytes."""
    return START_CODE.sub(bytes(length - 1) + b"\x01", byte_stream)


def start_codes(byte_stream):
    """(length of the start code, nal_unit_type) of every unit."""
    return [(len(found.group()), byte_stream[found.end()] & 0x1F)
            for found in START_CODE.finditer(byte_stream) if found.end() < len(byte_stream)]
