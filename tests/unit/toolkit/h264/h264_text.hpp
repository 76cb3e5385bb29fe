// What the H.264 reader made of a structure, as one line of text: `name=value` in syntax order,
// under the standard's names, for each field that differs from a record nothing was read into. So
// a test compares all fields at once, those that must have stayed as they were among them.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tests/support/bit_writer.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

namespace tremsa
{

std::string text_of(const h264_nal_sps& sps);
std::string text_of(const h264_nal_pps& pps);
std::string text_of(const h264_nal_slice_header& header);

// Lists of `count` flags and what follows each: `-` for a list not sent, `default`, or its values;
// a last value that fills the rest of the list stands once, with `..` behind it.
std::string text_of(const std::vector<h264_scaling_list>& lists);

inline h2645_common_bitreader reader_of(std::span<const uint8_t> bytes)
{
    return {bytes.data(), bytes.data() + bytes.size()};
}

// A structure read from `bytes`, with what else its parse() takes.
template <class Structure, class... Context>
Structure read(std::span<const uint8_t> bytes, const Context&... context)
{
    h2645_common_bitreader b = reader_of(bytes);
    Structure s;
    s.parse(b, context...);
    return s;
}

// Cuts the structure, with a stop bit behind it, at every bit, and expects `is_valid` of what is
// left exactly when no bit of the structure itself is missing. The structure begins at each bit of
// a byte in turn, so that the reader's range, which ends with a byte, ends at every bit.
template <class IsValid>
void expect_valid_once_whole(const bit_writer& structure, IsValid is_valid)
{
    for (size_t shift = 0; shift < 8; shift++) {
        bit_writer shifted;
        shifted.u(static_cast<int>(shift), 0);
        for (size_t i = 0; i < structure.bits(); i++)
            shifted.u(1, structure.bytes()[i / 8] >> (7 - i % 8));
        shifted.rbsp_trailing_bits();
        for (size_t length = 0; length <= shifted.bytes().size(); length++) {
            // A copy of the exact size, so that a read past the end is one past an allocation.
            const std::vector<uint8_t> cut(shifted.bytes().data(), shifted.bytes().data() + length);
            h2645_common_bitreader b = reader_of(cut);
            b.skip(shift);
            ASSERT_EQ(is_valid(b), length * 8 >= shift + structure.bits())
                << "shift " << shift << " length " << length;
        }
    }
}

} // namespace tremsa
