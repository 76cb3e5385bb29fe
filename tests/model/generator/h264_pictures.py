"""Random access units of H.264 in Annex B: delimiters, parameter sets, SEI, and slices whose
headers use every branch of ITU-T H.264, 7.3.3."""

from .bit_writer import BitWriter, nal_unit
from .dice import filler
from .h264_parameter_sets import EXTENDED_PROFILE, PictureSet, SequenceSet

P, B, I, SP, SI = range(5)
IDR_UNIT, SLICE_UNIT = 5, 1
SMALL_SEI, LARGE_SEI = 60, 9000  # the larger one hides the slices behind it
# The program looks at so many bytes of a PES packet, its header included.
BYTES_LOOKED_AT = 8192


def slice_unit(dice, picture_set, first_mb, slice_type, is_idr, ref_idc, size):
    """About `size` bytes; 0: the header alone, with the bits that fill its last byte."""
    bits = BitWriter()
    bits.ue(first_mb)
    bits.ue(slice_type + dice.choice([0, 5]))
    bits.ue(picture_set.id)
    _write_picture_identity(bits, dice, picture_set, is_idr)
    if slice_type == B:
        bits.u(1, 1)
    if slice_type in (P, SP, B):
        _write_references(bits, dice, picture_set, slice_type)
    if ref_idc:
        _write_marking(bits, dice, is_idr)
    if picture_set.has_cabac and slice_type not in (I, SI):
        bits.ue(dice.randrange(3))
    bits.se(dice.randrange(-20, 20))
    if slice_type == SP:
        bits.u(1, 1)
    if slice_type in (SP, SI):
        bits.se(dice.randrange(-9, 9))
    if picture_set.has_deblocking:
        if bits.ue(dice.randrange(3)) != 1:
            bits.se(dice.randrange(-6, 7))
            bits.se(dice.randrange(-6, 7))
    if picture_set.slice_groups > 1 and picture_set.map_type in (3, 4, 5):
        sps = picture_set.sequence_set
        map_units = sps.width_in_mbs * sps.height_in_map_units
        cycles = (map_units + picture_set.change_rate - 1) // picture_set.change_rate
        bits.u(cycles.bit_length(), 0)
    bits.u(-bits.count % 8, 0xFF)
    unit = nal_unit(ref_idc << 5 | (IDR_UNIT if is_idr else SLICE_UNIT), bits.data())
    return unit + filler(dice, size - len(unit)) + b"\x80" if size else unit


def _write_picture_identity(bits, dice, picture_set, is_idr):
    sps = picture_set.sequence_set
    if sps.separate_planes:
        bits.u(2, 0)
    bits.u(sps.frame_num_bits, 0 if is_idr else dice.randrange(1 << sps.frame_num_bits))
    is_field = not sps.frame_mbs_only and bits.u(1, dice.flag())
    if is_field:
        bits.u(1, dice.flag())
    if is_idr:
        bits.ue(dice.randrange(300))
    has_bottom = picture_set.has_bottom_poc and not is_field
    if sps.poc_type == 0:
        bits.u(sps.poc_lsb_bits, dice.randrange(1 << sps.poc_lsb_bits))
        if has_bottom:
            bits.se(dice.randrange(-3, 3))
    elif sps.poc_type == 1 and not sps.delta_poc_always_zero:
        bits.se(dice.randrange(-3, 3))
        if has_bottom:
            bits.se(dice.randrange(-3, 3))
    if picture_set.has_redundant_count:
        bits.ue(0)


def _write_references(bits, dice, picture_set, slice_type):
    counts = picture_set.ref_counts if slice_type == B else picture_set.ref_counts[:1]
    if bits.u(1, dice.flag(0.4)):
        counts = [1 + bits.ue(dice.choice([0, 1, 5, 31])) for _ in counts]
    for _ in counts:
        if bits.u(1, dice.flag(0.3)):
            for _ in range(dice.randrange(4)):
                bits.ue(dice.randrange(3))
                bits.ue(dice.randrange(20))
            bits.ue(3)
    has_weights = picture_set.bipred == 1 if slice_type == B else picture_set.is_weighted
    if has_weights:
        _write_weights(bits, dice, picture_set.sequence_set.chroma_array_type, counts)


def _write_weights(bits, dice, chroma_array_type, counts):
    bits.ue(dice.randrange(8))
    if chroma_array_type:
        bits.ue(dice.randrange(8))
    for _ in range(sum(counts)):
        if bits.u(1, dice.flag(0.4)):
            for _ in range(2):
                bits.se(dice.randrange(-128, 128))
        if chroma_array_type and bits.u(1, dice.flag(0.4)):
            for _ in range(4):
                bits.se(dice.randrange(-128, 128))


def _write_marking(bits, dice, is_idr):
    if is_idr:
        bits.u(2, dice.randrange(4))
    elif bits.u(1, dice.flag(0.3)):
        operands = {1: 1, 2: 1, 3: 2, 4: 1, 5: 0, 6: 1}
        for _ in range(dice.randrange(3)):
            for _ in range(operands[bits.ue(dice.randrange(1, 7))]):
                bits.ue(dice.randrange(9))
        bits.ue(0)


class H264Pictures:
    """damage: how often something is not as it ought to be, from 0 to 1."""

    def __init__(self, dice, damage):
        self.dice = dice
        self.damage = damage
        self.sets_were_sent = False
        self._draw_sets()

    def _draw_sets(self):
        self.sequence_set = SequenceSet(self.dice)
        self.picture_set = PictureSet(self.dice, self.sequence_set)

    def access_unit(self, is_key, size):
        dice = self.dice
        units = []
        if is_key and dice.chance(0.04):
            self._draw_sets()
            self.sets_were_sent = dice.chance(0.1)
        if dice.chance(0.6):
            units.append(b"\x09" + dice.choice([b"\x10", b"\x30", b"\xf0"]))
        if is_key and (dice.chance(0.8) or not self.sets_were_sent) or dice.chance(0.03):
            units += self._parameter_sets()
        if dice.chance(0.3):
            sei_bytes = LARGE_SEI if dice.chance(0.03) else dice.randrange(2, SMALL_SEI)
            units.append(b"\x06" + filler(dice, sei_bytes) + b"\x80")
        elif is_key and dice.chance(0.03):  # the slice's header is seen just so, or cut off
            before = sum(map(len, units)) + 4 * len(units)
            units.append(b"\x06" + filler(dice, BYTES_LOOKED_AT - before - dice.randrange(20, 60)))
        units += self._slices(is_key, size)
        if dice.chance(0.05):
            units.append(b"\x0a")
        if dice.chance(self.damage / 3):
            forbidden_zero_bit = bytes([0x80 | dice.randrange(128)])
            units.insert(dice.randrange(len(units) + 1), forbidden_zero_bit + b"\x55\x66")
        return b"".join(self._start_code() + unit for unit in units)

    def _start_code(self):
        zeros = self.dice.randrange(1, 5) if self.dice.chance(0.05) else 0
        return bytes(zeros) + self.dice.choice([b"\0\0\0\1", b"\0\0\1"])

    def _parameter_sets(self):
        dice = self.dice
        self.sets_were_sent = True
        units = [self.sequence_set.unit(dice, dice.chance(self.damage))]
        if dice.chance(0.1):
            units.append(self.sequence_set.unit(dice))
        units.append(self.picture_set.unit(dice, dice.chance(self.damage)))
        return units

    def _slices(self, is_key, size):
        dice = self.dice
        is_extended = self.sequence_set.profile == EXTENDED_PROFILE
        if is_key:
            is_idr = dice.chance(0.6)
            ref_idc = dice.randrange(1, 4)
            kind = SI if is_extended and dice.chance(0.3) else I
        else:
            is_idr = False
            ref_idc = dice.choice([0, 0, 0, 0, 1, 2])
            kind = SP if is_extended and dice.chance(0.2) else dice.choice([P, P, B])
        count = dice.choice([1, 1, 1, 2, 4])
        for index in range(count):
            if index == 0 and not dice.chance(self.damage / 4):
                first_mb, slice_type = 0, kind
            else:
                first_mb, slice_type = 1 + 3 * index, dice.choice([kind] * 9 + [I])
            if dice.chance(0.12 if is_key else 0.01):
                # Nothing behind the header, whose last byte is lost sometimes.
                unit = slice_unit(dice, self.picture_set, first_mb, slice_type, is_idr, ref_idc, 0)
                yield unit[:-1] if dice.chance(0.5) else unit
            else:
                yield slice_unit(dice, self.picture_set, first_mb, slice_type, is_idr, ref_idc,
                                 max(1, size // count))
