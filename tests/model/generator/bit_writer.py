"""Writing bit by bit, and NAL units: ITU-T H.264, 7.3.1 and 9.1."""


class BitWriter:
    def __init__(self):
        self.value = 0
        self.count = 0

    def u(self, count, value):
        self.value = self.value << count | int(value) & ((1 << count) - 1)
        self.count += count
        return value

    def ue(self, value):
        width = (value + 1).bit_length()
        self.u(2 * width - 1, value + 1)
        return value

    def se(self, value):
        self.ue(2 * value - 1 if value > 0 else -2 * value)
        return value

    def keep_first(self, count):
        """Throws away what was written behind the first `count` bits."""
        self.value >>= self.count - count
        self.count = count

    def stop(self):
        """rbsp_trailing_bits()"""
        self.u(1, 1)
        self.u(-self.count % 8, 0)

    def data(self):
        padding = -self.count % 8
        return (self.value << padding).to_bytes((self.count + padding) // 8, "big")


def nal_unit(header, rbsp):
    """With emulation_prevention_three_bytes."""
    unit = bytearray([header])
    zeros = 0
    for byte in rbsp:
        if zeros >= 2 and byte <= 3:
            unit.append(3)
            zeros = 0
        unit.append(byte)
        zeros = zeros + 1 if byte == 0 else 0
    return bytes(unit)
