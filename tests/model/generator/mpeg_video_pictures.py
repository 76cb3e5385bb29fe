"""Random pictures of MPEG-1 and MPEG-2 video, ISO/IEC 13818-2, 6.2.2 and 6.2.3, among them open
groups of pictures, whose I picture is not the first to be shown."""

from .dice import filler

I, P, B = 1, 2, 3


class MpegVideoPictures:
    def __init__(self, dice, damage):
        self.dice = dice
        self.damage = damage
        self.leading = []  # temporal_reference of B pictures shown before the I picture sent last

    def access_unit(self, is_key, size):
        dice = self.dice
        data = self._headers() if is_key else b""
        if is_key:
            coding_type, temporal_reference = I, dice.choice([0, 0, 1, 2, 2, 3])
            self.leading = list(range(temporal_reference))
        elif self.leading:
            coding_type, temporal_reference = B, self.leading.pop(0)
        else:
            temporal_reference = dice.choice([0, 1, 2, 600])
            coding_type = dice.choice([P, B, B, I if temporal_reference else P])
        if dice.chance(self.damage / 4):
            coding_type = dice.choice([0, 4, 7])
        if dice.chance(0.1):
            data += b"\0\0\1\xb2" + filler(dice, 12)
        data += b"\0\0\1\0" + bytes([
            temporal_reference >> 2, (temporal_reference & 3) << 6 | coding_type << 3 | 7,
            0xFF, 0xF9, 0x11, 0x88])
        if size < 30 and dice.chance(0.3):
            return data[:len(data) - dice.randrange(4)]
        data += b"\0\0\1\xb5" + filler(dice, 5)
        slices = dice.randrange(1, 4)
        for index in range(slices):
            data += b"\0\0\1" + bytes([index + 1]) + filler(dice, size // slices)
        return data

    def _headers(self):
        dice = self.dice
        data = b""
        if dice.chance(0.6):
            data += b"\0\0\1\xb3" + filler(dice, 8)
            if dice.chance(0.5):
                data += b"\0\0\1\xb5" + filler(dice, 6)
        if dice.chance(0.6):
            # 25 bits of time code, closed_gop and broken_link at random.
            data += b"\0\0\1\xb8" + filler(dice, 4)
        return data
