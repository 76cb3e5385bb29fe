"""Parameter sets and slices of H.264 with random content. The syntax is not stated again: the model
reads a unit from bits that are drawn as it asks for them, and what was drawn is the unit. A model
that reads the wrong syntax so makes units that the program reads otherwise."""

from reading.bits import Undecodable
from reading.h264_parameter_sets import (PROFILES_WITH_CHROMA_FORMAT, PictureParameterSet,
                                         SequenceParameterSet)
from reading.h264_slice_header import read_slice_header

from .bit_writer import BitWriter, nal_unit
from .dice import filler

SEQUENCE_SET_HEADER, PICTURE_SET_HEADER = 0x67, 0x68
EXTENDED_PROFILE = 88
PROFILES = (66, 77, EXTENDED_PROFILE, 100, 100, *sorted(PROFILES_WITH_CHROMA_FORMAT))
LEVEL = 40
IDR_UNIT, SLICE_UNIT = 5, 1
FAULT = 0.3  # of each number that has a bound


class DrawnBits:
    """In the place of a BitReader. The first numbers are `given`, the others are mostly small."""

    def __init__(self, dice, given, is_faulty=False):
        self.dice = dice
        self.given = list(given)
        self.is_faulty = is_faulty
        self.drawn = BitWriter()

    def _number(self, *choices):
        return self.given.pop(0) if self.given else self.dice.choice(choices)

    def u(self, count):
        return self.drawn.u(count, self._number(
            self.dice.flag(0.4) if count == 1 else self.dice.getrandbits(count)))

    def ue(self, largest=None):
        bound = 129 if largest is None else largest
        value = self._number(0, 0, 0, min(1, bound), self.dice.randrange(bound + 1), bound)
        if largest is not None and self.is_faulty and self.dice.chance(FAULT):
            value = largest + 1
        return self.drawn.ue(value)

    def se(self):
        return self.drawn.se(self._number(0, 0, 1, -1, 5, -8, 100, -128, 127))

    def more_rbsp_data(self):
        return self.dice.chance(0.5)


def _set_unit(header, read, bits):
    """What was read, None if that failed, and the unit."""
    try:
        content = read(bits)
    except Undecodable:
        content = None
    if bits.is_faulty and bits.dice.chance(0.4):
        bits.drawn.keep_first(bits.drawn.count // 2)
    bits.drawn.stop()
    return content, nal_unit(header, bits.drawn.data())


def sequence_set(dice, profile, is_faulty=False):
    given = [profile, dice.choice([0, 0x40, 0xE0]), LEVEL, dice.choice([0, 0, 0, 1, 5, 31])]
    return _set_unit(SEQUENCE_SET_HEADER, SequenceParameterSet, DrawnBits(dice, given, is_faulty))


def picture_set(dice, sps, is_faulty=False):
    given = [dice.choice([0, 0, 0, 1, 7, 255]), sps.id]
    return _set_unit(PICTURE_SET_HEADER, lambda bits: PictureParameterSet(bits, {sps.id: sps}),
                     DrawnBits(dice, given, is_faulty))


def slice_unit(dice, sps, pps, first_mb, slice_type, is_idr, ref_idc, size):
    """About `size` bytes; 0: the header alone, with the bits that fill its last byte."""
    nal_unit_type = IDR_UNIT if is_idr else SLICE_UNIT
    bits = DrawnBits(dice, [first_mb, slice_type + dice.choice([0, 5]), pps.id])
    read_slice_header(bits, nal_unit_type, ref_idc, {sps.id: sps}, {pps.id: pps})
    bits.drawn.u(-bits.drawn.count % 8, 0xFF)
    unit = nal_unit(ref_idc << 5 | nal_unit_type, bits.drawn.data())
    return unit + filler(dice, size - len(unit)) + b"\x80" if size else unit
