"""Random access units of H.264 in Annex B: delimiters, parameter sets, SEI, and slices."""

from .dice import filler
from .h264_units import EXTENDED_PROFILE, PROFILES, picture_set, sequence_set, slice_unit

P, B, I, SP, SI = range(5)
SMALL_SEI, LARGE_SEI = 60, 9000  # the larger one hides the slices behind it
# The program looks at so many bytes of a PES packet, its header included.
BYTES_LOOKED_AT = 8192


class H264Pictures:
    """damage: how often something is not as it ought to be, from 0 to 1."""

    def __init__(self, dice, damage):
        self.dice = dice
        self.damage = damage
        self.sets_were_sent = False
        self._draw_sets()

    def _draw_sets(self):
        self.profile = self.dice.choice(PROFILES)
        self.sps, self.sps_unit = sequence_set(self.dice, self.profile)
        self.pps, self.pps_unit = picture_set(self.dice, self.sps)

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
        units = [self.sps_unit, self.pps_unit]
        if dice.chance(self.damage):
            units[0] = sequence_set(dice, self.profile, is_faulty=True)[1]
        if dice.chance(0.1):
            units.insert(1, self.sps_unit)
        if dice.chance(self.damage):
            units[-1] = picture_set(dice, self.sps, is_faulty=True)[1]
        return units

    def _slices(self, is_key, size):
        dice = self.dice
        is_extended = self.profile == EXTENDED_PROFILE
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
                unit = self._slice(first_mb, slice_type, is_idr, ref_idc, 0)
                yield unit[:-1] if dice.chance(0.5) else unit
            else:
                yield self._slice(first_mb, slice_type, is_idr, ref_idc, max(1, size // count))

    def _slice(self, *fields):
        return slice_unit(self.dice, self.sps, self.pps, *fields)
