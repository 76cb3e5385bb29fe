"""Keyframes of MPEG-1 and MPEG-2 video: ISO/IEC 13818-2, 6.2.2 and 6.2.3."""

START_CODE = b"\0\0\1"
PICTURE, SEQUENCE_HEADER, GROUP_OF_PICTURES = 0x00, 0xB3, 0xB8
INTRA = 1
# Up to vbv_delay for an I picture; P and B pictures have 4 and 8 bits of motion vectors' ranges.
PICTURE_HEADER_BITS = {2: 32 + 33, 3: 32 + 37}
INTRA_PICTURE_HEADER_BITS = 32 + 29


def is_keyframe(data):
    """Whether a sequence or a group of pictures begins before the first picture, or that picture is
    an I picture and the first of its group to be shown."""
    at = data.find(START_CODE)
    begins = False
    while 0 <= at and len(data) - at >= 8:  # the code, and room for another behind it
        code = data[at + 3]
        if code in (SEQUENCE_HEADER, GROUP_OF_PICTURES):
            begins = True
        elif code == PICTURE:
            temporal_reference = data[at + 4] << 2 | data[at + 5] >> 6
            coding_type = data[at + 5] >> 3 & 7
            needed = PICTURE_HEADER_BITS.get(coding_type, INTRA_PICTURE_HEADER_BITS)
            if (len(data) - at) * 8 >= needed:
                return begins or (coding_type == INTRA and temporal_reference == 0)
        at = data.find(START_CODE, at + 4)
    return begins
