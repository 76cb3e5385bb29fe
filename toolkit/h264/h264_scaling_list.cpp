#include "toolkit/h264/h264_scaling_list.hpp"

namespace tremsa
{

namespace
{

// scaling_list( scalingList, sizeOfScalingList, useDefaultScalingMatrixFlag ), 7.3.2.1.1.1
void read_scaling_list(h2645_common_bitreader& b, h264_scaling_list& list, size_t size)
{
    int32_t last_scale = 8;
    int32_t next_scale = 8;
    for (size_t j = 0; j < size; j++) {
        if (next_scale != 0) {
            const int32_t delta_scale = b.se(-128, 127);
            next_scale = (last_scale + delta_scale + 256) % 256;
            list.use_default = j == 0 && next_scale == 0;
        }
        if (next_scale != 0)
            last_scale = next_scale;
        list.scale[j] = static_cast<uint8_t>(last_scale);
    }
}

} // namespace

std::vector<h264_scaling_list> read_scaling_lists(h2645_common_bitreader& b, size_t count)
{
    std::vector<h264_scaling_list> lists(count);
    for (size_t i = 0; i < count; i++) {
        lists[i].present = b.u(1);
        if (lists[i].present)
            read_scaling_list(b, lists[i],
                              i < h264_scaling_lists_4x4 ? h264_scaling_list_4x4_size
                                                         : h264_scaling_list_8x8_size);
    }
    return lists;
}

} // namespace tremsa
