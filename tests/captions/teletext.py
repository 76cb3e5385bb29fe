"""Teletext, ETSI EN 300 706, in the PES packets of ETSI EN 300 472."""

import transport

HAMMING = [0x15, 0x02, 0x49, 0x5E, 0x64, 0x73, 0x38, 0x2F,
           0xD0, 0xC7, 0x8C, 0x9B, 0xA1, 0xB6, 0xFD, 0xEA]  # table 2 of 8.2
PID = 0x1F0

# Spacing attributes, 12.2.
RED, GREEN, YELLOW, BLUE, MAGENTA, CYAN, WHITE = "\1", "\2", "\3", "\4", "\5", "\6", "\7"
END_BOX, START_BOX, NORMAL_SIZE, DOUBLE_HEIGHT = "\x0A", "\x0B", "\x0C", "\x0D"

ERASE, SUBTITLE = 4, 6
IN_SERIES = 11


def odd(byte):
    return byte | (0 if bin(byte).count("1") % 2 else 0x80)


def address(page, number):
    code = page >> 8 & 7 | number << 3
    return bytes([HAMMING[code & 15], HAMMING[code >> 4]])


def header(page, controls=(ERASE, SUBTITLE), national=0):
    """`controls`: which of the bits C4 to C11 are set. `national`: C12 to C14, C12 highest."""
    bits = {number: 1 for number in controls}
    nibbles = [page & 15, page >> 4 & 15, 0, bits.get(4, 0) << 3, 0,
               bits.get(5, 0) << 2 | bits.get(6, 0) << 3,
               sum(bits.get(7 + i, 0) << i for i in range(4)),
               bits.get(11, 0) | (national & 4) >> 1 | (national & 2) << 1 | (national & 1) << 3]
    return address(page, 0) + bytes(HAMMING[n] for n in nibbles) + bytes(odd(0x20) for _ in range(32))


def row(page, number, text):
    """`text`: 40 or fewer characters of 7 bits."""
    return address(page, number) + bytes(odd(ord(c)) for c in text.ljust(40))


def boxed(text, column, attributes=""):
    """Text in a box that begins at this column, behind its attributes."""
    before = attributes + START_BOX * 2
    return " " * (column - len(before)) + before + text + END_BOX * 2


def page(number, rows, **header_options):
    """A page's packets: its header and (row number, text)."""
    return [header(number, **header_options)] + [row(number, n, text) for n, text in rows]


def filler(number):
    """The header that ends the page at hand: one of page FF in its magazine."""
    return header(number & 0xF00 | 0xFF, controls=())


def reversed_bits(data):
    return bytes(int(f"{byte:08b}"[::-1], 2) for byte in data)


def pes(packets, pts):
    """The unit of a PES packet with these packets of teletext."""
    payload = b"\x10"
    for index, packet in enumerate(packets):
        payload += bytes([0x03, 0x2C, 0xE0 | 7 + index % 16, 0xE4]) + reversed_bits(packet)
    # Filled up so that header and payload are whole transport packets, with a header of 45 bytes.
    while (45 + len(payload)) % 184:
        if (45 + len(payload)) % 184 == 183:
            raise ValueError("no room for a unit of stuffing")
        room = min(184 - (45 + len(payload)) % 184, 46)
        payload += bytes([0xFF, room - 2]) + b"\xFF" * (room - 2)
    head = transport.time_stamp_bytes(2, pts)
    head += b"\xFF" * (36 - len(head))
    body = bytes([0x84, 0x80, 36]) + head + payload
    data = b"\0\0\1\xBD" + len(body).to_bytes(2, "big") + body
    return transport.Unit(PID, bytearray(data))


def map_entry(pages):
    """The stream's entry in the program map; pages of (language, type, number)."""
    data = b"".join(language.encode() + bytes([kind << 3 | number >> 8 & 7, number & 0xFF])
                    for language, kind, number in pages)
    return transport.stream_entry(6, PID, transport.descriptor(0x56, data))


class Schedule:
    """Lists of packets and when they are shown; a filler ends each page."""

    def __init__(self):
        self.due = []

    def at(self, seconds, packets):
        self.due.append((seconds, packets))
        return self

    def units(self, seconds, first):
        """What is due a little before the picture of this time."""
        units = []
        while self.due and self.due[0][0] <= seconds + 0.2:
            at, packets = self.due.pop(0)
            units.append(pes(packets, first + round(at * 90000)))
        return units
