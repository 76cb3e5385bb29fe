"""Transport packets, ISO/IEC 13818-1, 2.4.3.2, in place: a stream and an offset into it."""

PACKET_BYTES = 188
SYNC_BYTE = 0x47
PAT_PID = 0
PADDING_PID = 0x1FFF


def pid_of(stream, at):
    return (stream[at + 1] & 0x1F) << 8 | stream[at + 2]


def starts_unit(stream, at):
    """payload_unit_start_indicator"""
    return stream[at + 1] & 0x40 != 0


def payload_begin(stream, at):
    """The offset of the payload's first byte; the packet's end if it has no payload; None if the
    packet cannot be decoded: reserved adaptation_field_control, or an adaptation field that runs
    past the packet."""
    end = at + PACKET_BYTES
    control = stream[at + 3] >> 4 & 3
    if control == 0:
        return None
    if control == 1:
        return at + 4
    behind_field = at + 5 + stream[at + 4]
    if behind_field > end:
        return None
    return behind_field if control == 3 else end
