// Sequence parameter sets, ITU-T H.264, 7.3.2.1.1 and 7.4.2.1.1. Fields stand in syntax order
// under the standard's names; one that is not sent keeps the value it is inferred to have.
#pragma once

#include <cstdint>
#include <vector>

#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h264_scaling_list.hpp"
#include "toolkit/h264/h264_vui.hpp"

namespace tremsa
{

constexpr uint32_t h264_max_seq_parameter_set_id = 31;

// chroma_format_idc, Table 6-1; 0 is monochrome.
constexpr uint32_t h264_chroma_format_420 = 1;
constexpr uint32_t h264_chroma_format_422 = 2;
constexpr uint32_t h264_chroma_format_444 = 3;

// seq_parameter_set_data()
struct h264_nal_sps {
    uint32_t profile_idc = 0;
    bool constraint_set0_flag = false;
    bool constraint_set1_flag = false;
    bool constraint_set2_flag = false;
    bool constraint_set3_flag = false;
    bool constraint_set4_flag = false;
    bool constraint_set5_flag = false;
    uint32_t level_idc = 0;
    uint32_t seq_parameter_set_id = 0;
    uint32_t chroma_format_idc = h264_chroma_format_420;
    bool separate_colour_plane_flag = false;
    uint32_t bit_depth_luma_minus8 = 0;
    uint32_t bit_depth_chroma_minus8 = 0;
    bool qpprime_y_zero_transform_bypass_flag = false;
    bool seq_scaling_matrix_present_flag = false;
    std::vector<h264_scaling_list> scaling_lists; // 8, or 12 for 4:4:4; empty: Flat_4x4_16 and kin
    uint32_t log2_max_frame_num_minus4 = 0;
    uint32_t pic_order_cnt_type = 0;
    uint32_t log2_max_pic_order_cnt_lsb_minus4 = 0;
    bool delta_pic_order_always_zero_flag = false;
    int32_t offset_for_non_ref_pic = 0;
    int32_t offset_for_top_to_bottom_field = 0;
    uint32_t num_ref_frames_in_pic_order_cnt_cycle = 0;
    std::vector<int32_t> offset_for_ref_frame;
    uint32_t max_num_ref_frames = 0;
    bool gaps_in_frame_num_value_allowed_flag = false;
    uint32_t pic_width_in_mbs_minus1 = 0;
    uint32_t pic_height_in_map_units_minus1 = 0;
    bool frame_mbs_only_flag = false;
    bool mb_adaptive_frame_field_flag = false;
    bool direct_8x8_inference_flag = false;
    bool frame_cropping_flag = false;
    uint32_t frame_crop_left_offset = 0;
    uint32_t frame_crop_right_offset = 0;
    uint32_t frame_crop_top_offset = 0;
    uint32_t frame_crop_bottom_offset = 0;
    bool vui_parameters_present_flag = false;
    h264_vui vui;

    bool valid = false; // every element was read, and those that parsing rests on are in range

    // Reads the set from its RBSP. Bits after the last element are ignored.
    void parse(h2645_common_bitreader& b);

    // Size of the output picture in luma samples: the frame less its cropping. 0 when cropping
    // leaves nothing, and for a size past 32 bits.
    [[nodiscard]] uint32_t getPicWidth() const;
    [[nodiscard]] uint32_t getPicHeight() const;

    // chroma_format_idc, but 0 when the colour planes are coded separately.
    [[nodiscard]] uint32_t ChromaArrayType() const;

    // PicWidthInMbs * PicHeightInMapUnits, both below 2^32.
    [[nodiscard]] uint64_t PicSizeInMapUnits() const;
};

} // namespace tremsa
