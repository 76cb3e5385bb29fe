#include "toolkit/h264/h264_vui.hpp"

namespace tremsa
{

namespace
{

constexpr uint32_t max_cpb_cnt_minus1 = 31;
constexpr uint32_t extended_sar = 255; // Extended_SAR, Table E-1

} // namespace

// hrd_parameters(), E.1.2
void h264_hrd::parse(h2645_common_bitreader& b)
{
    cpb_cnt_minus1 = b.ue(max_cpb_cnt_minus1);
    bit_rate_scale = b.u(4);
    cpb_size_scale = b.u(4);
    cpbs.resize(cpb_cnt_minus1 + 1);
    for (cpb& c : cpbs) {
        c.bit_rate_value_minus1 = b.ue();
        c.cpb_size_value_minus1 = b.ue();
        c.cbr_flag = b.u(1);
    }
    initial_cpb_removal_delay_length_minus1 = b.u(5);
    cpb_removal_delay_length_minus1 = b.u(5);
    dpb_output_delay_length_minus1 = b.u(5);
    time_offset_length = b.u(5);
}

// vui_parameters(), E.1.1
void h264_vui::parse(h2645_common_bitreader& b)
{
    aspect_ratio_info_present_flag = b.u(1);
    if (aspect_ratio_info_present_flag) {
        aspect_ratio_idc = b.u(8);
        if (aspect_ratio_idc == extended_sar) {
            sar_width = b.u(16);
            sar_height = b.u(16);
        }
    }
    overscan_info_present_flag = b.u(1);
    if (overscan_info_present_flag)
        overscan_appropriate_flag = b.u(1);
    video_signal_type_present_flag = b.u(1);
    if (video_signal_type_present_flag) {
        video_format = b.u(3);
        video_full_range_flag = b.u(1);
        colour_description_present_flag = b.u(1);
        if (colour_description_present_flag) {
            colour_primaries = b.u(8);
            transfer_characteristics = b.u(8);
            matrix_coefficients = b.u(8);
        }
    }
    chroma_loc_info_present_flag = b.u(1);
    if (chroma_loc_info_present_flag) {
        chroma_sample_loc_type_top_field = b.ue();
        chroma_sample_loc_type_bottom_field = b.ue();
    }
    timing_info_present_flag = b.u(1);
    if (timing_info_present_flag) {
        num_units_in_tick = b.u(32);
        time_scale = b.u(32);
        fixed_frame_rate_flag = b.u(1);
    }
    nal_hrd_parameters_present_flag = b.u(1);
    if (nal_hrd_parameters_present_flag)
        nal_hrd_parameters.parse(b);
    vcl_hrd_parameters_present_flag = b.u(1);
    if (vcl_hrd_parameters_present_flag)
        vcl_hrd_parameters.parse(b);
    if (nal_hrd_parameters_present_flag || vcl_hrd_parameters_present_flag)
        low_delay_hrd_flag = b.u(1);
    pic_struct_present_flag = b.u(1);
    bitstream_restriction_flag = b.u(1);
    if (bitstream_restriction_flag) {
        motion_vectors_over_pic_boundaries_flag = b.u(1);
        max_bytes_per_pic_denom = b.ue();
        max_bits_per_mb_denom = b.ue();
        log2_max_mv_length_horizontal = b.ue();
        log2_max_mv_length_vertical = b.ue();
        max_num_reorder_frames = b.ue();
        max_dec_frame_buffering = b.ue();
    }
}

} // namespace tremsa
