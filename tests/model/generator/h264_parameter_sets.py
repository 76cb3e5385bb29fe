"""Random sequence and picture parameter sets: ITU-T H.264, 7.3.2.1, 7.3.2.2 and annex E. What the
slices that refer to them depend on is drawn once and kept; the rest is drawn anew for each unit."""

from .bit_writer import BitWriter, nal_unit

SEQUENCE_SET_HEADER, PICTURE_SET_HEADER = 0x67, 0x68
HIGH_PROFILES = (100, 110, 122, 244, 44, 118, 128)
OTHER_PROFILES = (66, 77, 88)
EXTENDED_PROFILE = 88
CHROMA_444 = 3
FAULT = 0.3  # of each place where a set can be at fault


class SequenceSet:
    def __init__(self, dice):
        self.id = dice.choice([0, 0, 0, 1, 5, 31])
        self.profile = dice.choice(OTHER_PROFILES + HIGH_PROFILES + (100,))
        is_high = self.profile in HIGH_PROFILES
        self.chroma_format = dice.choice([1, 1, 1, 2, 3, 3, 0]) if is_high else 1
        self.separate_planes = int(self.chroma_format == CHROMA_444 and dice.chance(0.5))
        self.frame_num_bits = dice.randrange(4, 17)
        self.poc_type = dice.choice([0, 0, 0, 1, 2])
        self.poc_lsb_bits = dice.randrange(4, 17)
        self.delta_poc_always_zero = dice.flag()
        self.width_in_mbs = dice.randrange(1, 121)
        self.height_in_map_units = dice.randrange(1, 70)
        self.frame_mbs_only = dice.flag(0.6)

    @property
    def chroma_array_type(self):
        return 0 if self.separate_planes else self.chroma_format

    def unit(self, dice, is_faulty=False):
        def at_fault():
            return is_faulty and dice.chance(FAULT)

        bits = BitWriter()
        bits.u(8, self.profile)
        bits.u(8, dice.choice([0, 0x40, 0xE0]))
        bits.u(8, 40)
        bits.ue(32 if at_fault() else self.id)
        if self.profile in HIGH_PROFILES:
            self._write_chroma_format(bits, dice)
        bits.ue(self.frame_num_bits - 4)
        bits.ue(3 if at_fault() else self.poc_type)
        if self.poc_type == 0:
            bits.ue(13 if at_fault() else self.poc_lsb_bits - 4)
        elif self.poc_type == 1:
            bits.u(1, self.delta_poc_always_zero)
            bits.se(dice.randrange(-9, 9))
            bits.se(dice.randrange(-9, 9))
            for _ in range(bits.ue(dice.choice([0, 1, 3, 255]))):
                bits.se(dice.randrange(-9, 9))
        bits.ue(dice.randrange(17))
        bits.u(1, 0)
        bits.ue(self.width_in_mbs - 1)
        bits.ue(self.height_in_map_units - 1)
        bits.u(1, self.frame_mbs_only)
        if not self.frame_mbs_only:
            bits.u(1, dice.flag())
        bits.u(1, 1)
        if bits.u(1, dice.flag(0.4)):
            for _ in range(4):
                bits.ue(dice.choice([0, 0, 1, 2, 4]))
        if bits.u(1, dice.flag(0.4)):
            write_vui(bits, dice)
        if is_faulty and dice.chance(0.4):
            bits.keep_first(bits.count // 2)
        bits.stop()
        return nal_unit(SEQUENCE_SET_HEADER, bits.data())

    def _write_chroma_format(self, bits, dice):
        bits.ue(self.chroma_format)
        if self.chroma_format == CHROMA_444:
            bits.u(1, self.separate_planes)
        bits.ue(dice.choice([0, 0, 2]))
        bits.ue(dice.choice([0, 0, 2]))
        bits.u(1, 0)
        if bits.u(1, dice.flag(0.3)):
            write_scaling_lists(bits, dice, 12 if self.chroma_format == CHROMA_444 else 8)


class PictureSet:
    def __init__(self, dice, sequence_set):
        self.sequence_set = sequence_set
        self.id = dice.choice([0, 0, 0, 1, 7, 255])
        self.has_cabac = dice.flag()
        self.has_bottom_poc = dice.flag(0.3)
        self.slice_groups = dice.choice([1] * 6 + [2, 3, 4, 8])
        self.map_type = dice.randrange(7)
        # The second and third make the number of cycles a power of two, or little less.
        map_units = sequence_set.width_in_mbs * sequence_set.height_in_map_units
        self.change_rate = dice.choice([dice.randrange(1, 30), map_units, map_units // 4 + 1])
        self.ref_counts = [1 + dice.randrange(4), 1 + dice.randrange(4)]
        self.is_weighted = dice.flag(0.3)
        self.bipred = dice.randrange(3)
        self.has_deblocking = dice.flag(0.6)
        self.has_redundant_count = dice.flag(0.15)

    def unit(self, dice, is_faulty=False):
        def at_fault():
            return is_faulty and dice.chance(FAULT)

        bits = BitWriter()
        bits.ue(256 if at_fault() else self.id)
        bits.ue(dice.choice([32, 9]) if at_fault() else self.sequence_set.id)
        bits.u(1, self.has_cabac)
        bits.u(1, self.has_bottom_poc)
        bits.ue(8 if at_fault() else self.slice_groups - 1)
        if self.slice_groups > 1:
            self._write_slice_groups(bits, dice)
        for count in self.ref_counts:
            bits.ue(count - 1)
        bits.u(1, self.is_weighted)
        bits.u(2, self.bipred)
        bits.se(dice.randrange(-26, 26))
        bits.se(dice.randrange(-26, 26))
        bits.se(dice.randrange(-12, 13))
        bits.u(1, self.has_deblocking)
        bits.u(1, 0)
        bits.u(1, self.has_redundant_count)
        if dice.chance(0.5):
            has_8x8 = bits.u(1, dice.flag())
            if bits.u(1, dice.flag(0.4)):
                lists_8x8 = 6 if self.sequence_set.chroma_format == CHROMA_444 else 2
                write_scaling_lists(bits, dice, 6 + has_8x8 * lists_8x8)
            bits.se(dice.randrange(-12, 13))
        if is_faulty and dice.chance(0.4):
            bits.keep_first(bits.count // 2)
        bits.stop()
        return nal_unit(PICTURE_SET_HEADER, bits.data())

    def _write_slice_groups(self, bits, dice):
        bits.ue(self.map_type)
        if self.map_type == 0:
            for _ in range(self.slice_groups):
                bits.ue(dice.randrange(50))
        elif self.map_type == 2:
            for _ in range(self.slice_groups - 1):
                bits.ue(1)
                bits.ue(9)
        elif self.map_type in (3, 4, 5):
            bits.u(1, 1)
            bits.ue(self.change_rate - 1)
        elif self.map_type == 6:
            map_units = self.sequence_set.width_in_mbs * self.sequence_set.height_in_map_units
            bits.ue(map_units - 1)
            id_bits = (self.slice_groups - 1).bit_length()
            bits.u(map_units * id_bits, dice.getrandbits(map_units * id_bits))


def write_scaling_lists(bits, dice, count):
    for index in range(count):
        if bits.u(1, dice.flag()):
            _write_scaling_list(bits, dice, 16 if index < 6 else 64)


def _write_scaling_list(bits, dice, size):
    last_scale = next_scale = 8
    for _ in range(size):
        if next_scale != 0:
            delta = dice.choice([0, 0, 1, -1, 5, -8, 100, -128, 127])
            if last_scale <= 128 and dice.chance(0.03):
                delta = -last_scale  # the rest of the list repeats the last value
            next_scale = (last_scale + bits.se(delta)) % 256
        last_scale = next_scale or last_scale


def write_vui(bits, dice):
    if bits.u(1, dice.flag()):
        if bits.u(8, dice.choice([1, 255])) == 255:
            bits.u(32, 0x00400021)
    if bits.u(1, dice.flag(0.3)):
        bits.u(1, 1)
    if bits.u(1, dice.flag()):
        bits.u(4, 10)
        if bits.u(1, dice.flag()):
            bits.u(24, 0x010101)
    if bits.u(1, dice.flag(0.3)):
        bits.ue(1)
        bits.ue(5)
    if bits.u(1, dice.flag(0.6)):
        bits.u(32, 1001)
        bits.u(32, 60000)
        bits.u(1, 1)
    has_nal_hrd = bits.u(1, dice.flag(0.3))
    if has_nal_hrd:
        _write_hrd(bits, dice)
    has_vcl_hrd = bits.u(1, dice.flag(0.3))
    if has_vcl_hrd:
        _write_hrd(bits, dice)
    if has_nal_hrd or has_vcl_hrd:
        bits.u(1, 0)
    bits.u(1, dice.flag())
    if bits.u(1, dice.flag()):
        bits.u(1, 1)
        for _ in range(6):
            bits.ue(dice.randrange(17))


def _write_hrd(bits, dice):
    cpb_cnt = 1 + bits.ue(dice.choice([0, 0, 1, 3, 31]))
    bits.u(8, dice.randrange(256))
    for _ in range(cpb_cnt):
        bits.ue(dice.randrange(1000000))
        bits.ue(dice.randrange(100000))
        bits.u(1, 1)
    bits.u(20, dice.randrange(1 << 20))
