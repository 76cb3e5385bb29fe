#include "toolkit/h264/h264_nal_sps.hpp"

#include <algorithm>
#include <array>
#include <limits>

namespace tremsa
{

namespace
{

// Profiles whose sets carry the chroma format, the bit depths and the scaling matrix.
constexpr std::array<uint32_t, 13> profiles_with_chroma_format = {
    100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135,
};

constexpr size_t scaling_list_count = 8;
constexpr size_t scaling_list_count_444 = 12;

constexpr uint32_t max_log2_max_frame_num_minus4 = 12;
constexpr uint32_t max_pic_order_cnt_type = 2;
constexpr uint32_t max_log2_max_pic_order_cnt_lsb_minus4 = 12;
constexpr uint32_t max_num_ref_frames_in_pic_order_cnt_cycle = 255;

constexpr uint64_t mb_samples = 16; // width and height of a macroblock

bool carries_chroma_format(uint32_t profile_idc)
{
    return std::find(profiles_with_chroma_format.begin(), profiles_with_chroma_format.end(),
                     profile_idc) != profiles_with_chroma_format.end();
}

uint32_t cropped(uint64_t samples, uint64_t crop)
{
    if (crop >= samples || samples - crop > std::numeric_limits<uint32_t>::max())
        return 0;
    return static_cast<uint32_t>(samples - crop);
}

} // namespace

// seq_parameter_set_data(), 7.3.2.1.1
void h264_nal_sps::parse(h2645_common_bitreader& b)
{
    *this = h264_nal_sps{};
    profile_idc = b.u(8);
    constraint_set0_flag = b.u(1);
    constraint_set1_flag = b.u(1);
    constraint_set2_flag = b.u(1);
    constraint_set3_flag = b.u(1);
    constraint_set4_flag = b.u(1);
    constraint_set5_flag = b.u(1);
    b.skip(2); // reserved_zero_2bits
    level_idc = b.u(8);
    seq_parameter_set_id = b.ue(h264_max_seq_parameter_set_id);
    if (carries_chroma_format(profile_idc)) {
        chroma_format_idc = b.ue(h264_chroma_format_444);
        if (chroma_format_idc == h264_chroma_format_444)
            separate_colour_plane_flag = b.u(1);
        bit_depth_luma_minus8 = b.ue();
        bit_depth_chroma_minus8 = b.ue();
        qpprime_y_zero_transform_bypass_flag = b.u(1);
        seq_scaling_matrix_present_flag = b.u(1);
        if (seq_scaling_matrix_present_flag)
            scaling_lists = read_scaling_lists(b, chroma_format_idc != h264_chroma_format_444
                                                      ? scaling_list_count
                                                      : scaling_list_count_444);
    }
    log2_max_frame_num_minus4 = b.ue(max_log2_max_frame_num_minus4);
    pic_order_cnt_type = b.ue(max_pic_order_cnt_type);
    if (pic_order_cnt_type == 0) {
        log2_max_pic_order_cnt_lsb_minus4 = b.ue(max_log2_max_pic_order_cnt_lsb_minus4);
    } else if (pic_order_cnt_type == 1) {
        delta_pic_order_always_zero_flag = b.u(1);
        offset_for_non_ref_pic = b.se();
        offset_for_top_to_bottom_field = b.se();
        num_ref_frames_in_pic_order_cnt_cycle = b.ue(max_num_ref_frames_in_pic_order_cnt_cycle);
        offset_for_ref_frame.resize(num_ref_frames_in_pic_order_cnt_cycle);
        for (int32_t& offset : offset_for_ref_frame)
            offset = b.se();
    }
    max_num_ref_frames = b.ue();
    gaps_in_frame_num_value_allowed_flag = b.u(1);
    pic_width_in_mbs_minus1 = b.ue();
    pic_height_in_map_units_minus1 = b.ue();
    frame_mbs_only_flag = b.u(1);
    if (!frame_mbs_only_flag)
        mb_adaptive_frame_field_flag = b.u(1);
    direct_8x8_inference_flag = b.u(1);
    frame_cropping_flag = b.u(1);
    if (frame_cropping_flag) {
        frame_crop_left_offset = b.ue();
        frame_crop_right_offset = b.ue();
        frame_crop_top_offset = b.ue();
        frame_crop_bottom_offset = b.ue();
    }
    vui_parameters_present_flag = b.u(1);
    if (vui_parameters_present_flag)
        vui.parse(b);
    valid = !b.error();
}

// CropUnitX is SubWidthC of Table 6-1, or 1 without chroma arrays, 7.4.2.1.1.
uint32_t h264_nal_sps::getPicWidth() const
{
    const uint32_t chroma = ChromaArrayType();
    const uint64_t crop_unit_x =
        chroma == h264_chroma_format_420 || chroma == h264_chroma_format_422 ? 2 : 1;
    const uint64_t crop = uint64_t{frame_crop_left_offset} + frame_crop_right_offset;
    return cropped((uint64_t{pic_width_in_mbs_minus1} + 1) * mb_samples, crop_unit_x * crop);
}

// CropUnitY is SubHeightC, or 1 without chroma arrays, once for each field of a frame that may be
// coded as two, 7.4.2.1.1.
uint32_t h264_nal_sps::getPicHeight() const
{
    const uint64_t fields = frame_mbs_only_flag ? 1 : 2;
    const uint64_t crop_unit_y = (ChromaArrayType() == h264_chroma_format_420 ? 2 : 1) * fields;
    const uint64_t crop = uint64_t{frame_crop_top_offset} + frame_crop_bottom_offset;
    return cropped((uint64_t{pic_height_in_map_units_minus1} + 1) * fields * mb_samples,
                   crop_unit_y * crop);
}

uint32_t h264_nal_sps::ChromaArrayType() const
{
    return separate_colour_plane_flag ? 0 : chroma_format_idc;
}

uint64_t h264_nal_sps::PicSizeInMapUnits() const
{
    return (uint64_t{pic_width_in_mbs_minus1} + 1) * (uint64_t{pic_height_in_map_units_minus1} + 1);
}

} // namespace tremsa
