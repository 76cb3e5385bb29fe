"""Closed captions of CEA-608 as pairs of bytes, and as the user data of pictures (ATSC A/53)."""

LOAD, BACKSPACE, ROLL_2, ROLL_3, ROLL_4, PAINT, ERASE, NEXT_LINE, CLEAR, SHOW = (
    0x20, 0x21, 0x25, 0x26, 0x27, 0x29, 0x2C, 0x2D, 0x2E, 0x2F)

# Preamble address codes of the rows from 1 on.
ROWS = [(0x11, 0x40), (0x11, 0x60), (0x12, 0x40), (0x12, 0x60), (0x15, 0x40), (0x15, 0x60),
        (0x16, 0x40), (0x16, 0x60), (0x17, 0x40), (0x17, 0x60), (0x10, 0x40), (0x13, 0x40),
        (0x13, 0x60), (0x14, 0x40), (0x14, 0x60)]


def odd(byte):
    return byte | (0 if bin(byte).count("1") % 2 else 0x80)


class Channel:
    """Writes codes and letters of one caption channel, 1 to 4."""

    def __init__(self, number):
        self.field = (number - 1) // 2
        self.offset = 8 if number % 2 == 0 else 0

    def code(self, first, second):
        pair = (odd(first + self.offset), odd(second))
        return [pair, pair]

    def control(self, *codes):
        return [pair for code in codes for pair in self.code(0x15 if self.field else 0x14, code)]

    def row(self, row, indent=0):
        """`indent` in columns, a multiple of 4."""
        first, second = ROWS[row - 1]
        return self.code(first, second | 0x10 | indent // 4 << 1)

    def style(self, attribute):
        """A mid-row code; it takes a column."""
        return self.code(0x11, 0x20 | attribute)

    @staticmethod
    def text(words):
        data = words.encode("ascii")
        data += b"\0" * (len(data) % 2)
        return [(odd(a), odd(b)) for a, b in zip(data[::2], data[1::2])]

    def pop_on(self, *lines):
        """Loads rows of (row, text, indent), and shows them."""
        pairs = self.control(LOAD, CLEAR)
        for row, words, indent in lines:
            pairs += self.row(row, indent) + self.text(words)
        return pairs + self.control(SHOW)


ITALICS, UNDERLINE, WHITE, GREEN, BLUE, CYAN, RED, YELLOW, MAGENTA = 14, 1, 0, 2, 4, 6, 8, 10, 12


def user_data(pairs):
    """pairs: (cc_type, first, second)"""
    data = b"GA94\3" + bytes([0xC0 | len(pairs), 0xFF])
    for kind, first, second in pairs:
        data += bytes([0xFC | kind, first, second])
    return data + b"\xFF"


def sei(pairs):
    """A NAL unit of H.264 with its start code."""
    data = b"\xB5\0\x31" + user_data(pairs)
    rbsp = bytes([4]) + b"\xFF" * (len(data) // 255) + bytes([len(data) % 255]) + data + b"\x80"
    unit, zeros = bytearray(b"\0\0\0\1\6"), 0
    for byte in rbsp:
        if zeros == 2 and byte <= 3:
            unit.append(3)
            zeros = 0
        zeros = zeros + 1 if byte == 0 else 0
        unit.append(byte)
    return bytes(unit)


class Schedule:
    """What the pictures carry, in the order of display: one pair per field and picture."""

    def __init__(self):
        self.queues = ([], [])  # per field: (earliest time, pair)

    def at(self, seconds, channel, pairs):
        """`pairs` from this time of the programme on, in order behind what came before."""
        self.queues[channel.field].extend((seconds, pair) for pair in pairs)
        return self

    def pairs_of_picture(self, seconds):
        pairs = []
        for field, queue in enumerate(self.queues):
            if queue and queue[0][0] <= seconds:
                pairs.append((field, *queue.pop(0)[1]))
            else:
                pairs.append((field, 0x80, 0x80))
        return pairs
