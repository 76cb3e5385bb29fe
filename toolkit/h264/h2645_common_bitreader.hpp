// Reads the bits of an RBSP, most significant first, with the descriptors of ITU-T H.264, 7.2.
//
// The reader is a view: the bytes must stay where they are while it is used. The first read that
// fails, because the range ends or a value breaks its limit, latches `error`; from then on every
// read yields 0 and consumes nothing, so that a structure is tested once, at its end.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tremsa
{

class h2645_common_bitreader
{
public:
    // Reads [begin, end). Throws std::invalid_argument when `end` lies before `begin`.
    h2645_common_bitreader(const uint8_t* begin, const uint8_t* end);

    // The next `bits` bits as an unsigned number; at most 32.
    uint32_t u(uint32_t bits);

    // Exp-Golomb codes, 9.1 and 9.1.1. A code with more than 31 leading zeros is an error: no
    // syntax element exceeds 2^32 - 2.
    uint32_t ue();
    int32_t se();

    // The same for elements with a limit; a value outside is an error.
    uint32_t ue(uint32_t max);
    int32_t se(int32_t min, int32_t max);

    void skip(uint64_t bits);

    // more_rbsp_data(), 7.2: whether bits stand before the rbsp_stop_one_bit. Zero bytes at the
    // range's end are trailing_zero_8bits of the byte stream and do not count.
    [[nodiscard]] bool more_rbsp_data() const;

    [[nodiscard]] uint64_t bits_left() const { return size_ - position_; }
    [[nodiscard]] bool error() const { return error_; }

private:
    const uint8_t* begin_;
    uint64_t size_;         // bits
    uint64_t position_ = 0; // bits
    bool error_ = false;
};

} // namespace tremsa
