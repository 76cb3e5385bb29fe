"""Transport packets, ISO/IEC 13818-1, 2.4.3: units of data and sections cut into packets, with the
faults of a poor transmission."""

from .dice import filler

PACKET_BYTES = 188
PAYLOAD_BYTES = 184
PADDING_PACKET = b"\x47\x1f\xff\x10" + b"\xff" * PAYLOAD_BYTES


def adaptation_field(count):
    """One that takes `count` bytes of the packet, its length included, all of it stuffing."""
    if count == 1:
        return b"\0"
    return bytes([count - 1, 0]) + b"\xff" * (count - 2)


def clock_reference(ticks):
    """An adaptation field with a PCR."""
    ticks %= 1 << 33
    return bytes([7, 0x10, ticks >> 25 & 0xFF, ticks >> 17 & 0xFF, ticks >> 9 & 0xFF,
                  ticks >> 1 & 0xFF, (ticks & 1) << 7 | 0x7E, 0])


class Multiplex:
    def __init__(self, dice, damage):
        self.dice = dice
        self.damage = damage
        self.counters = {}
        self.data = bytearray()

    def packet(self, pid, payload, starts_unit, field=b""):
        """What the adaptation field and the payload leave free is stuffed."""
        free = PAYLOAD_BYTES - len(field) - len(payload)
        if free and field:
            field = bytes([field[0] + free]) + (field[1:] or b"\0").ljust(field[0] + free, b"\xff")
        elif free:
            field = adaptation_field(free)
        counter = self.counters.get(pid, 0)
        if payload:
            self.counters[pid] = (counter + 1) % 16
        control = (0x20 if field else 0) | (0x10 if payload else 0)
        error, scrambling = 0, 0
        if self.damage and self.dice.chance(self.damage / 20):
            error, scrambling = self.dice.choice([(0x80, 0), (0x80, 0), (0, 0xC0)])
        packet = bytes([0x47, error | (0x40 if starts_unit else 0) | pid >> 8, pid & 0xFF,
                        scrambling | control | counter]) + field + payload
        assert len(packet) == PACKET_BYTES
        self.data += packet
        if self.damage and self.dice.chance(self.damage / 40):
            self.data += packet  # sent twice, as 2.4.3.3 allows

    def padding(self, count=1):
        self.data += PADDING_PACKET * count

    def unit(self, pid, data, pcr=None, after_each=lambda: None):
        dice = self.dice
        begin, starts_unit = 0, True
        while begin < len(data):
            field = b""
            if starts_unit and pcr is not None and dice.chance(0.5):
                field = clock_reference(pcr)
            elif dice.chance(0.03):
                field = adaptation_field(dice.choice([1, 2, 3, 51, 171, 183]))
            end = begin + PAYLOAD_BYTES - len(field)
            self.packet(pid, data[begin:end], starts_unit, field)
            begin, starts_unit = end, False
            after_each()
            if dice.chance(0.004):
                self.packet(pid, b"", dice.chance(0.1))

    def section(self, pid, section, pointer_field=0, bytes_per_packet=PAYLOAD_BYTES):
        self._parts(pid, bytes([pointer_field]) + b"\xff" * pointer_field + section,
                    bytes_per_packet)

    def joined_sections(self, pid, first, second, tail_bytes):
        """The last bytes of one section stand in the packet in which the next one begins, before
        the place that pointer_field points to."""
        tail_bytes = min(tail_bytes, len(first) - 1, PAYLOAD_BYTES - 2)
        head = first[:-tail_bytes]
        self.section(pid, head, bytes_per_packet=min(PAYLOAD_BYTES, 1 + len(head)))
        tail = first[-tail_bytes:]
        self._parts(pid, bytes([len(tail)]) + tail + second, PAYLOAD_BYTES)

    def _parts(self, pid, data, bytes_per_packet):
        for begin in range(0, len(data), bytes_per_packet):
            part = data[begin:begin + bytes_per_packet]
            self.packet(pid, part.ljust(bytes_per_packet, b"\xff"), starts_unit=begin == 0)

    def undecodable_packet(self, pid):
        """A reserved adaptation_field_control, or an adaptation field that fills the packet or runs
        past it."""
        dice = self.dice
        header = bytes([0x47, dice.choice([0, 0x40]) | pid >> 8, pid & 0xFF])
        header += dice.choice([b"\x00", b"\x30\xb6", b"\x30\xb7", b"\x30\xb8", b"\x30\xc8",
                               b"\x20\xb7", b"\x20\xb8"])
        self.data += header + filler(dice, PACKET_BYTES - len(header))

    def lose_sync(self):
        """Bytes too many, or some missing."""
        dice = self.dice
        if dice.chance(0.5):
            self.data += bytes(dice.choices(b"\x47\x00\x11\x22", k=dice.randrange(1, 700)))
        else:
            del self.data[-dice.randrange(1, 2000):]
