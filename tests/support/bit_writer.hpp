// Writes bit patterns MSB first, with the descriptors of ITU-T H.264, 7.2: u(n), ue(v), se(v).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class bit_writer
{
public:
    // The `count` low bits of `value`, most significant first.
    bit_writer& u(int count, uint64_t value)
    {
        for (int bit = count - 1; bit >= 0; bit--) {
            if (bits_ % 8 == 0)
                bytes_.push_back(0);
            if ((value >> bit) & 1)
                bytes_.back() = static_cast<uint8_t>(bytes_.back() | (0x80 >> (bits_ % 8)));
            bits_++;
        }
        return *this;
    }

    // Unsigned Exp-Golomb code, 9.1.
    bit_writer& ue(uint64_t value)
    {
        int zeros = 0;
        while (((value + 1) >> (zeros + 1)) != 0)
            zeros++;
        return u(zeros, 0).u(zeros + 1, value + 1);
    }

    // Signed Exp-Golomb code, 9.1.1.
    bit_writer& se(int64_t value)
    {
        return ue(value > 0 ? static_cast<uint64_t>(2 * value - 1)
                            : static_cast<uint64_t>(-2 * value));
    }

    // rbsp_trailing_bits(): a one, then zeros up to the byte's end.
    bit_writer& rbsp_trailing_bits()
    {
        u(1, 1);
        return align(0);
    }

    // Fills the last byte with copies of `bit`.
    bit_writer& align(int bit)
    {
        while (bits_ % 8 != 0)
            u(1, static_cast<uint64_t>(bit));
        return *this;
    }

    [[nodiscard]] size_t bits() const { return bits_; }
    [[nodiscard]] const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    size_t bits_ = 0;
};
