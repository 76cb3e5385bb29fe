"""What keeps the comparison from passing for nothing: a difference of any kind is told, and the
H.264 units of the random streams are whole, so that both sides read them and do not both give up."""

import unittest
from dataclasses import replace

from generator.dice import Dice
from generator.h264_units import PROFILES, picture_set, sequence_set, slice_unit
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
            sps, sps_unit = sequence_set(dice, dice.choice(PROFILES))
            pps, pps_unit = picture_set(dice, sps)
            stream = H264Stream()
            stream.is_keyframe(b"\0\0\0\1" + sps_unit + b"\0\0\0\1" + pps_unit)
            self.assertEqual(vars(stream.sequence_sets[sps.id]), vars(sps), index)
            self.assertEqual(vars(stream.picture_sets[pps.id]), vars(pps), index)
            unit = slice_unit(dice, sps, pps, 7, index % 5, index % 2, 1, 0)
            rbsp, sets = rbsp_of(unit), (stream.sequence_sets, stream.picture_sets)
            bits = BitReader(rbsp)
            header = read_slice_header(bits, unit[0] & 31, 1, *sets)
            self.assertEqual((header.first_mb_in_slice, header.slice_type), (7, index % 5))
            # What is left fills the last byte.
            left = bits.bits_left
            self.assertLess(left, 8)
            self.assertEqual(bits.u(left), (1 << left) - 1)
            with self.assertRaises(Undecodable):
                read_slice_header(BitReader(rbsp[:-1]), unit[0] & 31, 1, *sets)


if __name__ == "__main__":
    unittest.main()
