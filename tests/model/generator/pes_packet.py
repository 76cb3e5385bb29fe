"""Random PES packets, ISO/IEC 13818-1, 2.4.3.6."""

CLOCK_TICKS = 1 << 33
LONGEST_PACKET_LENGTH = 0xFFFF
DTS_DISTANCE = 3600


def time_stamp(prefix, ticks):
    ticks %= CLOCK_TICKS
    return bytes([prefix << 4 | ticks >> 29 & 0x0E | 1,
                  ticks >> 22 & 0xFF, ticks >> 14 & 0xFE | 1,
                  ticks >> 7 & 0xFF, ticks << 1 & 0xFE | 1])


def pes_packet(dice, stream_id, body, pts, is_bounded, damage=0):
    """pts: None for none."""
    flags, fields = 0, b""
    if pts is not None and dice.chance(0.4):
        flags, fields = 0xC0, time_stamp(3, pts) + time_stamp(1, pts - DTS_DISTANCE)
    elif pts is not None:
        flags, fields = 0x80, time_stamp(2, pts)
    elif dice.chance(damage):
        flags = dice.choice([0x40, 0x80])  # announces what is not there
    fields += b"\xff" * dice.choice([0, 0, 0, 0, 1, 5, 20, 32])
    if dice.chance(damage / 3):
        fields += b"\xff" * dice.choice([100, 150, 190])
    marker = 0 if dice.chance(damage / 6) else 0x80
    header = bytes([marker | dice.choice([0, 4]), flags, len(fields)]) + fields

    packet_length = len(header) + len(body)
    if not is_bounded or packet_length > LONGEST_PACKET_LENGTH:
        packet_length = 0
    if dice.chance(damage / 3):
        # Cuts the header short, ends with it, or leaves little of the body.
        packet_length = dice.choice([1, 3, len(header) - 1, len(header), len(header) + 5])
    return b"\0\0\1" + bytes([stream_id]) + packet_length.to_bytes(2, "big") + header + body
