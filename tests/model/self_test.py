"""What keeps the comparison from passing for nothing: a difference of any kind is told, and the
H.264 units of the random streams are whole, so that both sides read them and do not both give up."""

import unittest
from dataclasses import replace

from generator.dice import Dice
from generator.h264_parameter_sets import PictureSet, SequenceSet
from generator.h264_pictures import SI, I, slice_unit
from outcome import Outcome, differences
from reading.bits import BitReader, Undecodable
from reading.h264 import H264Stream, rbsp_of
from reading.h264_slice_header import read_slice_header


class Comparison(unittest.TestCase):
    MODEL = Outcome(0, b"Stream EOF\n", {b"ch1.m3u8": b"#EXTM3U\n", b"ch1.00000000.ts": b"\x47\1"})

    def expect_told(self, line, **changes):
        self.assertIn(line, differences(self.MODEL, replace(self.MODEL, **changes)))

    def test_alike(self):
        self.assertEqual(differences(self.MODEL, replace(self.MODEL)), [])

    def test_every_kind_of_difference(self):
        files = self.MODEL.files
        self.expect_told("status: model 0, program 2", status=2)
        self.expect_told("-Stream EOF", stderr=b"")
        self.expect_told("missing: ch1.m3u8", files={b"ch1.00000000.ts": b"\x47\1"})
        self.expect_told("unexpected: .tmp", files=files | {b".tmp": b""})
        self.expect_told("+#EXTM3U8", files=files | {b"ch1.m3u8": b"#EXTM3U8\n"})
        self.expect_told("ch1.00000000.ts: model 2 bytes, program 2 bytes, first difference at 1 "
                         "(byte 1 of packet 0)", files=files | {b"ch1.00000000.ts": b"\x47\2"})


class GeneratedUnits(unittest.TestCase):
    def test_are_read_to_their_last_bit(self):
        dice = Dice(5, "units")
        for index in range(600):
            sps = SequenceSet(dice)
            pps = PictureSet(dice, sps)
            stream = H264Stream()
            stream.is_keyframe(b"\0\0\0\1" + sps.unit(dice) + b"\0\0\0\1" + pps.unit(dice))
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


if __name__ == "__main__":
    unittest.main()
