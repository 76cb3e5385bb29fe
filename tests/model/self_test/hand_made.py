"""Streams, tables and H.264 units made by hand, in which nothing is left to chance, and runs of the
model on them."""

from generator.bit_writer import BitWriter, nal_unit
from generator.dice import Dice, filler
from generator.multiplex import PACKET_BYTES, Multiplex
from generator.pes_packet import time_stamp
from generator.programme_tables import pat_section, pmt_section
from reading.captions import INT64, TEXT, UINT64, CaptionPacket, ControlSocket
from reading.directory import Directory
from reading.run import Run

PMT, VIDEO, AUDIO, SECOND_AUDIO, OTHER = 0x100, 0x101, 0x102, 0x103, 0x200
H264, MPEG2_VIDEO, MPEG_AUDIO, AAC, PRIVATE = 0x1B, 0x02, 0x03, 0x0F, 0x06
VIDEO_AND_AUDIO = ((H264, VIDEO), (AAC, AUDIO))
ENOUGH_TO_START = 2200000
SECOND = 90000
# Just more than the default fragment duration, so that every keyframe cuts.
FRAGMENT = 4 * SECOND + 1


class NoChance(Dice):
    def __init__(self):
        super().__init__(0, "nothing")

    def chance(self, probability):
        return False


class Stream:
    def __init__(self):
        self.dice = NoChance()
        self.multiplex = Multiplex(self.dice, damage=0)

    def pat(self, programmes=((1, PMT),), is_intact=True):
        section = pat_section(programmes)
        if not is_intact:
            section = section[:-1] + bytes([section[-1] ^ 1])
        self.multiplex.section(0, section)

    def pmt(self, streams=VIDEO_AND_AUDIO, program_info_length=0):
        self.multiplex.section(PMT, pmt_of(streams, program_info_length))

    def tables(self, programmes=((1, PMT),), streams=VIDEO_AND_AUDIO, program_info_length=0):
        """A table counts once the next one of its PID begins; three of each are enough for both."""
        for _ in range(3):
            self.pat(programmes)
            self.pmt(streams, program_info_length)
        return self

    def pes(self, pid, stream_id, body, pts, is_bounded=False):
        self.multiplex.unit(pid, pes(stream_id, body, pts, is_bounded))

    def picture(self, is_key, pts, size=300):
        self.pes(VIDEO, 0xE0, access_unit(is_key) + filler(self.dice, size), pts)

    def audio(self, pts, stream_id=0xC0, pid=AUDIO):
        self.pes(pid, stream_id, filler(self.dice, 100), pts, is_bounded=True)

    def raw(self, data):
        self.multiplex.data += data

    def data(self):
        """With as much padding as the program needs to start."""
        missing = ENOUGH_TO_START - len(self.multiplex.data)
        self.multiplex.padding(max(0, missing // PACKET_BYTES))
        return bytes(self.multiplex.data)


def pictures(times, keyframes=None, with_audio=False, size=300, streams=VIDEO_AND_AUDIO):
    """keyframes: indices; None for all."""
    stream = Stream().tables(streams=streams)
    for index, pts in enumerate(times):
        stream.picture(keyframes is None or index in keyframes, pts, size)
        if with_audio:
            stream.audio(pts)
    return stream


def pmt_of(streams, program_info_length=0):
    """streams: (stream_type, PID) or (stream_type, PID, descriptors)."""
    entries = [(*entry, b"")[:3] for entry in streams]
    return pmt_section(1, VIDEO, entries, b"p" * program_info_length)


def pes(stream_id, body, pts, is_bounded=False):
    fields = b"" if pts is None else time_stamp(2, pts)
    header = bytes([0x80, 0x80 if fields else 0, len(fields)]) + fields
    length = len(header) + len(body) if is_bounded else 0
    return b"\0\0\1" + bytes([stream_id]) + length.to_bytes(2, "big") + header + body


def sequence_set(width_in_mbs=120, height=68, frame_mbs_only=1, crop=None, set_id=0):
    bits = BitWriter()
    bits.u(24, 0x42001E)
    bits.ue(set_id)
    bits.ue(0)  # frame numbers of 4 bits
    bits.ue(2)  # pic_order_cnt_type
    bits.ue(1)
    bits.u(1, 0)
    bits.ue(width_in_mbs - 1)
    bits.ue(height - 1)
    bits.u(1, frame_mbs_only)
    if not frame_mbs_only:
        bits.u(1, 0)
    bits.u(1, 1)
    bits.u(1, crop is not None)
    for offset in crop or ():
        bits.ue(offset)
    bits.u(1, 0)
    bits.stop()
    return nal_unit(0x67, bits.data())


def picture_set():
    bits = BitWriter()
    bits.ue(0)
    bits.ue(0)
    bits.u(2, 0)
    for _ in range(3):
        bits.ue(0)
    bits.u(3, 0)
    for _ in range(3):
        bits.se(0)
    bits.u(3, 0)
    bits.stop()
    return nal_unit(0x68, bits.data())


def slice_of(slice_type, first_mb=0, is_idr=False):
    bits = BitWriter()
    bits.ue(first_mb)
    bits.ue(slice_type)
    bits.ue(0)
    bits.u(4, 0)
    if is_idr:
        bits.ue(0)
    if slice_type % 5 == 0:
        bits.u(2, 0)  # no override, no modification
    bits.u(2 if is_idr else 1, 0)
    bits.se(0)
    bits.stop()
    return nal_unit(0x65 if is_idr else 0x41, bits.data()) + b"\x99"


def byte_stream(*units, start_code=b"\0\0\0\1"):
    return b"".join(start_code + unit for unit in units)


def access_unit(is_key):
    """1920x1080 by cropping."""
    if is_key:
        return byte_stream(b"\x09\x10", sequence_set(crop=(0, 0, 0, 4)), picture_set(),
                           b"\x06\x55\x80", slice_of(7, is_idr=True))
    return byte_stream(b"\x09\x30", slice_of(5))


def cue(timestamp, start=0, end=1000, now=0, text=b"t", language=b"", service=1, settings=b""):
    return CaptionPacket([
        (b"service", UINT64, service), (b"start", INT64, start), (b"end", INT64, end),
        (b"now", INT64, now), (b"mpeg timestamp", UINT64, timestamp), (b"text", TEXT, text),
        (b"language", TEXT, language), (b"cue settings", TEXT, settings)])


def run(stream, *arguments, files=None, folders=(), links=(), captions=None, hangs_up=False):
    """The run, with its lines on standard error as text."""
    data = stream.data() if isinstance(stream, Stream) else stream
    directory = Directory()
    directory.files = {name: bytearray(content) for name, content in (files or {}).items()}
    directory.folders |= set(folders)
    directory.links = {name: b"nowhere" for name in links}
    socket = None
    if captions is not None:
        socket = ControlSocket(list(captions), hangs_up)
        arguments = ("--anon-sock", "3", *arguments)
    result = Run([argument.encode() for argument in arguments], data, directory, socket).run()
    result.lines = bytes(result.stderr).decode().split("\n")[:-1]
    result.files = {name: bytes(content) for name, content in directory.files.items()}
    return result


def lines_of(result, name):
    return result.files[name].decode().split("\n")


def cuts_of(result):
    return [(cut.pts, cut.duration) for cut in result.cutter.cuts]
