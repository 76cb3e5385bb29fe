// Scaling lists of sequence and picture parameter sets, ITU-T H.264, 7.3.2.1.1.1.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "toolkit/h264/h2645_common_bitreader.hpp"

namespace tremsa
{

constexpr size_t h264_scaling_lists_4x4 = 6; // lists before the 8x8 ones
constexpr size_t h264_scaling_list_4x4_size = 16;
constexpr size_t h264_scaling_list_8x8_size = 64;

struct h264_scaling_list {
    bool present = false; // seq_ or pic_scaling_list_present_flag[ i ]; a list not sent follows the
                          // fall-back rules of Table 7-2
    bool use_default = false;                                // UseDefaultScalingMatrixFlag
    std::array<uint8_t, h264_scaling_list_8x8_size> scale{}; // the first 16 of a 4x4 list
};

// Reads `count` present flags, each followed by its list when it is set.
std::vector<h264_scaling_list> read_scaling_lists(h2645_common_bitreader& b, size_t count);

} // namespace tremsa
