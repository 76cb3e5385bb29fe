#include "toolkit/h264/h2645_common_bitreader.hpp"

#include <bit>
#include <functional>
#include <stdexcept>

namespace tremsa
{

namespace
{

constexpr uint32_t max_leading_zeros = 31;

} // namespace

h2645_common_bitreader::h2645_common_bitreader(const uint8_t* begin, const uint8_t* end)
    : begin_(begin), size_(0)
{
    if (std::less<>{}(end, begin))
        throw std::invalid_argument("data_sink_memory pointers not acceptable");
    size_ = static_cast<uint64_t>(end - begin) * 8;
}

uint32_t h2645_common_bitreader::u(uint32_t bits)
{
    if (error_ || bits_left() < bits) {
        error_ = true;
        return 0;
    }

    // 32 bits touch at most five bytes.
    const uint64_t past = position_ + bits;
    const uint64_t past_byte = (past + 7) / 8;
    uint64_t value = 0;
    for (uint64_t i = position_ / 8; i < past_byte; i++)
        value = (value << 8) | begin_[i];
    value >>= past_byte * 8 - past;
    position_ = past;
    return static_cast<uint32_t>(value & ((uint64_t{1} << bits) - 1));
}

uint32_t h2645_common_bitreader::ue()
{
    uint32_t leading_zeros = 0;
    while (u(1) == 0) {
        leading_zeros++;
        if (error_ || leading_zeros > max_leading_zeros) {
            error_ = true;
            return 0;
        }
    }
    const uint32_t suffix = u(leading_zeros);
    return error_ ? 0 : (uint32_t{1} << leading_zeros) - 1 + suffix;
}

int32_t h2645_common_bitreader::se()
{
    // codeNum k stands for (-1)^(k + 1) * Ceil(k / 2), Table 9-3.
    const int64_t code_num = ue();
    return static_cast<int32_t>(code_num % 2 != 0 ? (code_num + 1) / 2 : -(code_num / 2));
}

uint32_t h2645_common_bitreader::ue(uint32_t max)
{
    const uint32_t value = ue();
    if (value <= max)
        return value;
    error_ = true;
    return 0;
}

int32_t h2645_common_bitreader::se(int32_t min, int32_t max)
{
    const int32_t value = se();
    if (min <= value && value <= max)
        return value;
    error_ = true;
    return 0;
}

void h2645_common_bitreader::skip(uint64_t bits)
{
    if (error_ || bits_left() < bits)
        error_ = true;
    else
        position_ += bits;
}

bool h2645_common_bitreader::more_rbsp_data() const
{
    uint64_t bytes = size_ / 8;
    while (bytes > 0 && begin_[bytes - 1] == 0)
        bytes--;
    if (error_ || bytes == 0)
        return false;

    const auto zeros_after = static_cast<uint64_t>(std::countr_zero(begin_[bytes - 1]));
    const uint64_t rbsp_stop_one_bit = bytes * 8 - 1 - zeros_after;
    return position_ < rbsp_stop_one_bit;
}

} // namespace tremsa
