"""The source of all chance. Each part of a case has its own, so that a change to one part leaves
the others of the same seed as they were."""

import random


class Dice(random.Random):
    def __init__(self, seed, part):
        super().__init__(f"{seed}/{part}")

    def chance(self, probability):
        return self.random() < probability

    def flag(self, probability=0.5):
        """As a bit."""
        return int(self.chance(probability))


_FILLER_BYTES = b"\x11\x22\x47\x55\x80\xa7\xc3\xff\x02\x03\x99"
_FILLER_PERIOD = 1 << 16
_FILLER = bytes(random.Random(99).choices(_FILLER_BYTES, k=_FILLER_PERIOD)) * 3


def filler(dice, count):
    """Bytes of no meaning, none of them zero, so that they hold no start code."""
    begin = dice.randrange(_FILLER_PERIOD)
    return _FILLER[begin:begin + max(0, count)]
