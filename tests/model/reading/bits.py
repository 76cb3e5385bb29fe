"""Reading bit by bit: the descriptors u(n), ue(v) and se(v) of ITU-T H.264, 7.2 and 9.1."""

LONGEST_EXP_GOLOMB_PREFIX = 31


class Undecodable(Exception):
    """The data ends too early, or a value is outside its range."""


class BitReader:
    def __init__(self, data):
        self.data = data
        self.position = 0

    @property
    def bits_left(self):
        return len(self.data) * 8 - self.position

    def u(self, count):
        if count > self.bits_left:
            raise Undecodable
        begin, end = self.position, self.position + count
        self.position = end
        last_byte = (end + 7) // 8
        covered = int.from_bytes(self.data[begin // 8:last_byte], "big")
        return covered >> (last_byte * 8 - end) & ((1 << count) - 1)

    def ue(self, largest=None):
        zeros = 0
        while not self.u(1):
            zeros += 1
            if zeros > LONGEST_EXP_GOLOMB_PREFIX:
                raise Undecodable
        value = (1 << zeros) - 1 + self.u(zeros)
        if largest is not None and value > largest:
            raise Undecodable
        return value

    def se(self):
        code = self.ue()
        return (code + 1) // 2 if code % 2 else -(code // 2)

    def more_rbsp_data(self):
        """7.2. Trailing zero bytes are no part of the unit."""
        content = self.data.rstrip(b"\0")
        if not content:
            return False
        last = content[-1]
        trailing_zero_bits = (last & -last).bit_length() - 1
        stop_bit = len(content) * 8 - 1 - trailing_zero_bits
        return self.position < stop_bit
