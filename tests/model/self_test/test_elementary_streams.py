import unittest

from generator.dice import Dice
from generator.h264_parameter_sets import PictureSet, SequenceSet
from generator.h264_pictures import SI, I, slice_unit
from reading.bits import BitReader, Undecodable
from reading.h264 import H264Stream, rbsp_of
from reading.h264_slice_header import read_slice_header
from reading.mpeg_video import is_keyframe
from reading.pes import find_pes, is_audio, is_video

from .hand_made import (FRAGMENT, MPEG2_VIDEO, VIDEO, Stream, access_unit, byte_stream, cuts_of,
                        pes, picture_set, run, sequence_set, slice_of)


class PesHeaders(unittest.TestCase):
    HEADER = pes(0xE0, b"", 0)

    def found(self, data, is_wanted=is_video):
        result = find_pes(data, is_wanted)
        return result and (result.pts, result.payload)

    def test_whole_and_cut_off(self):
        self.assertEqual(self.found(self.HEADER + b"abc"), (0, b"abc"))
        self.assertEqual(self.found(self.HEADER), (0, b""))
        self.assertIsNone(self.found(self.HEADER[:-1]))
        self.assertIsNone(self.found(b"\0\0\2\0\0"))

    def test_flags(self):
        only_dts = self.HEADER[:7] + b"\x40" + self.HEADER[8:]
        self.assertEqual(self.found(only_dts), (None, b""))
        no_marker = self.HEADER[:6] + b"\x40" + self.HEADER[7:]
        self.assertIsNone(self.found(no_marker))

    def test_packet_length(self):
        for length, want in ((9, (0, b"x")), (8, (0, b"")), (7, None), (2, None)):
            data = self.HEADER[:4] + length.to_bytes(2, "big") + self.HEADER[6:] + b"xyzw"
            self.assertEqual(self.found(data), want, length)

    def test_stream_ids(self):
        self.assertEqual(self.found(b"\0\0\1\xf0\0\0ab"), (None, b"ab"))
        self.assertEqual(self.found(b"\0\0\1\xbd\0\0\x80\0\0" + self.HEADER), (0, b""))
        self.assertIsNone(self.found(b"\0\0\1\xc0\0\0\x80\0\0"))

    def test_largest_pts(self):
        data = b"\0\0\1\xc0\0\0\x80\x80\x05\x3f\xff\xff\xff\xff"
        self.assertEqual(self.found(data, is_audio), ((1 << 33) - 1, b""))


class MpegVideo(unittest.TestCase):
    SEQUENCE = b"\0\0\1\xb3" + b"\x11" * 8
    GROUP = b"\0\0\1\xb8" + b"\x11" * 4

    @staticmethod
    def picture(temporal_reference, coding_type):
        return b"\0\0\1\0" + bytes([temporal_reference >> 2, (temporal_reference & 3) << 6
                                    | coding_type << 3 | 7, 255, 0xF8, 0x11, 0x22])

    def test_keyframes(self):
        first_shown = self.picture(0, 1)
        for data in (self.SEQUENCE + self.GROUP + self.picture(2, 1), first_shown,
                     self.GROUP + self.picture(1, 2), first_shown[:8], self.GROUP):
            self.assertTrue(is_keyframe(data), data)

    def test_no_keyframes(self):
        for data in (b"", self.picture(3, 1), self.picture(0, 2), self.picture(0, 1)[:7],
                     self.GROUP[:7], self.picture(0, 2) + self.GROUP):
            self.assertFalse(is_keyframe(data), data)

    def test_in_a_stream(self):
        stream = Stream().tables(streams=((MPEG2_VIDEO, VIDEO),))
        for index in range(3):
            before = b"" if index == 1 else self.SEQUENCE
            stream.pes(VIDEO, 0xE0, before + self.picture(2, 1) + b"x" * 99, index * FRAGMENT)
        self.assertEqual([pts for pts, _ in cuts_of(run(stream))], [0, 2 * FRAGMENT])


class H264(unittest.TestCase):
    def setUp(self):
        self.stream = H264Stream()

    def test_parameter_sets_serve_later_pictures(self):
        idr = byte_stream(slice_of(7, is_idr=True))
        self.assertFalse(self.stream.is_keyframe(idr))
        self.assertTrue(self.stream.is_keyframe(access_unit(True)))
        self.assertEqual((self.stream.width, self.stream.height), (1920, 1080))
        self.assertTrue(self.stream.is_keyframe(idr))

    def test_slices(self):
        self.stream.is_keyframe(access_unit(True))
        self.assertTrue(self.stream.is_keyframe(byte_stream(slice_of(2))))
        self.assertTrue(self.stream.is_keyframe(
            byte_stream(slice_of(7), slice_of(7, first_mb=4), start_code=b"\0\0\1")))
        self.assertFalse(self.stream.is_keyframe(byte_stream(slice_of(2, first_mb=3))))
        self.assertFalse(self.stream.is_keyframe(byte_stream(slice_of(5))))
        forbidden_zero_bit = b"\xe5" + slice_of(7, is_idr=True)[1:]
        self.assertFalse(self.stream.is_keyframe(byte_stream(forbidden_zero_bit)))

    def test_the_last_sequence_set_gives_the_size(self):
        self.stream.is_keyframe(byte_stream(
            sequence_set(set_id=0), sequence_set(width_in_mbs=40, height=30, set_id=1)))
        self.assertEqual(set(self.stream.sequence_sets), {0, 1})
        self.assertEqual((self.stream.width, self.stream.height), (640, 480))

    def test_height_of_interlaced_pictures(self):
        self.stream.is_keyframe(byte_stream(sequence_set(height=34, frame_mbs_only=0)))
        self.assertEqual(self.stream.height, 1088)

    def test_emulation_prevention(self):
        self.assertEqual(rbsp_of(b"\x67\0\0\3\1"), b"\0\0\1")
        self.assertEqual(rbsp_of(b"\x67\0\0\3\0\0\3\1"), b"\0\0\0\0\1")

    def test_zeros_behind_a_parameter_set(self):
        self.assertTrue(self.stream.is_keyframe(
            byte_stream(sequence_set(), picture_set() + bytes(3), slice_of(7))))

    def test_a_slice_beyond_the_gathered_bytes_is_not_seen(self):
        for sei_bytes, cuts in ((7900, 1), (9000, 0)):
            stream = Stream().tables()
            stream.pes(VIDEO, 0xE0, byte_stream(sequence_set(), picture_set(),
                       b"\x06" + b"\x55" * sei_bytes, slice_of(7, is_idr=True)), 0)
            self.assertEqual(len(cuts_of(run(stream))), cuts)

    def test_generated_units_are_read_to_their_last_bit(self):
        dice = Dice(5, "units")
        for index in range(600):
            sps = SequenceSet(dice)
            pps = PictureSet(dice, sps)
            stream = H264Stream()
            stream.is_keyframe(byte_stream(sps.unit(dice), pps.unit(dice)))
            self.assertIn(sps.id, stream.sequence_sets, index)
            self.assertIn(pps.id, stream.picture_sets, index)
            self._expect_slice_read(dice, stream, pps)

    def _expect_slice_read(self, dice, stream, pps):
        slice_type = dice.randrange(5)
        is_idr = slice_type in (I, SI) and dice.chance(0.5)
        ref_idc = 1 if is_idr else dice.randrange(3)
        unit = slice_unit(dice, pps, 7, slice_type, is_idr, ref_idc, 0)
        bits = BitReader(rbsp_of(unit))
        sets = stream.sequence_sets, stream.picture_sets
        header = read_slice_header(bits, 5 if is_idr else 1, ref_idc, *sets)
        self.assertEqual((header.first_mb_in_slice, header.slice_type), (7, slice_type))
        # What is left fills the last byte.
        left = bits.bits_left
        self.assertLess(left, 8)
        self.assertEqual(bits.u(left), (1 << left) - 1)
        with self.assertRaises(Undecodable):
            read_slice_header(BitReader(rbsp_of(unit)[:-1]), 5 if is_idr else 1, ref_idc, *sets)
