"""Puts captions into a live stream of ffmpeg's, H.264 with access unit delimiters: every second a
caption whose text is its own time, on CC1 and on page 888 of teletext.

usage: add_captions.py PID-OF-THE-VIDEO BASE-TIME PICTURES-PER-SECOND CC1-FORMAT PAGE-FORMAT

BASE-TIME: the presentation time that is called 0, in ticks. In the formats %s is the time. Padding
makes room for what is added, so the rate of the stream stays as it is.
"""

import sys

import cea608
import teletext
import transport
from transport import PACKET_BYTES

PADDING_PID = 0x1FFF
DELIMITER = b"\0\0\0\1\x09\xF0"
PAGE = 0x888


def time_of(second):
    return f"{second // 3600:02}:{second // 60 % 60:02}:{second % 60:02}.000"


class Adder:
    def __init__(self, video_pid, base_time, rate, caption, page):
        self.video_pid, self.base_time, self.rate = video_pid, base_time, rate
        self.caption, self.page = caption, page
        self.pmt_pid = None
        self.added = {}  # packets, by PID
        self.debt = 0    # packets to be taken out of the padding
        self.next_page = None
        self.muxer = transport.Muxer()

    def pair(self, number):
        """The second of the two codes that show a caption comes a picture late."""
        second = (number + self.rate - 2) // self.rate
        pairs = cea608.Channel(1).pop_on((15, self.caption % time_of(second), 4))
        at = number - second * self.rate + len(pairs) - 2
        return pairs[at] if 0 <= at < len(pairs) else (0x80, 0x80)

    def pages(self, number):
        """Each page is sent some pictures early."""
        second = number // self.rate + 1
        if self.next_page is None or self.next_page == second:
            self.next_page = second + 1
            text = teletext.boxed(self.page % time_of(second), 8)
            packets = teletext.page(PAGE, [(22, text)]) + [teletext.filler(PAGE)]
            unit = teletext.pes(packets, self.base_time + second * 90000)
            return self.muxer.packets(unit)
        return b""

    def renumbered(self, packet, pid):
        counter = (packet[3] + self.added.get(pid, 0)) & 0x0F
        return packet[:3] + bytes([packet[3] & 0xF0 | counter]) + packet[4:]

    def picture(self, packet):
        """The first packet of a picture, which becomes two."""
        begin = 5 + packet[4] if packet[3] & 0x20 else 4
        payload = packet[begin:]
        header = 9 + payload[8]
        pts = transport.time_stamp(payload[9:14])
        number = round((pts - self.base_time) % transport.CLOCK * self.rate / 90000)
        end = header + len(DELIMITER)
        if payload[4:6] != b"\0\0" or payload[header:end] != DELIMITER:
            sys.exit("a picture that does not begin as ffmpeg's do")
        first = payload[:end] + cea608.sei([(0, *self.pair(number))])
        adaptation = packet[5:begin]
        pages = self.pages(number)
        out = self.part(packet, adaptation, first)
        self.added[self.video_pid] = self.added.get(self.video_pid, 0) + 1
        rest = packet[:1] + bytes([packet[1] & ~0x40]) + packet[2:]
        out += self.part(rest, b"", payload[end:])
        self.debt += 1 + len(pages) // PACKET_BYTES
        return pages + out

    def part(self, packet, adaptation, payload):
        stuffing = PACKET_BYTES - 5 - len(adaptation) - len(payload)
        if stuffing > 0 and not adaptation:
            adaptation, stuffing = b"\0", stuffing - 1
        adaptation += b"\xFF" * stuffing
        made = (packet[:3] + bytes([packet[3] | 0x30, len(adaptation)]) + adaptation + payload)
        assert len(made) == PACKET_BYTES, len(made)
        return self.renumbered(made, self.video_pid)

    def take(self, packet):
        pid = (packet[1] & 0x1F) << 8 | packet[2]
        starts = packet[1] & 0x40
        if pid == PADDING_PID and self.debt > 0:
            self.debt -= 1
            return b""
        if pid == 0 and starts:
            section = packet[5 + packet[4]:]
            self.pmt_pid = (section[10] & 0x1F) << 8 | section[11]
        elif pid == self.pmt_pid and starts:
            services = transport.descriptor(0x86, b"\xC1eng\x7E\x3F\xFF")
            unit = transport.map_with(transport.Unit(pid, bytearray(packet[4:])), services,
                                      teletext.map_entry([("spa", 2, PAGE)]))
            return packet[:4] + bytes(unit.data)
        elif pid == self.video_pid:
            return self.picture(packet) if starts else self.renumbered(packet, pid)
        return packet


def main():
    video_pid, base_time, rate = (int(word, 0) for word in sys.argv[1:4])
    adder = Adder(video_pid, base_time, rate, *sys.argv[4:6])
    source, sink = sys.stdin.buffer, sys.stdout.buffer
    while packets := source.read1(PACKET_BYTES * 64):
        packets += source.read(-len(packets) % PACKET_BYTES)
        sink.write(b"".join(adder.take(packets[at:at + PACKET_BYTES])
                            for at in range(0, len(packets), PACKET_BYTES)))
        sink.flush()


if __name__ == "__main__":
    try:
        main()
    except (BrokenPipeError, KeyboardInterrupt):
        pass
