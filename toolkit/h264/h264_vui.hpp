// Video usability information of a sequence parameter set, ITU-T H.264, Annex E. Fields stand in
// syntax order under the standard's names; one that is not sent keeps the value it is inferred to
// have, or 0 where the standard infers none.
#pragma once

#include <cstdint>
#include <vector>

#include "toolkit/h264/h2645_common_bitreader.hpp"

namespace tremsa
{

// hrd_parameters(), E.1.2
struct h264_hrd {
    struct cpb {
        uint32_t bit_rate_value_minus1 = 0;
        uint32_t cpb_size_value_minus1 = 0;
        bool cbr_flag = false;
    };

    uint32_t cpb_cnt_minus1 = 0; // 0 to 31
    uint32_t bit_rate_scale = 0;
    uint32_t cpb_size_scale = 0;
    std::vector<cpb> cpbs; // cpb_cnt_minus1 + 1 entries, in order of SchedSelIdx
    uint32_t initial_cpb_removal_delay_length_minus1 = 23;
    uint32_t cpb_removal_delay_length_minus1 = 23;
    uint32_t dpb_output_delay_length_minus1 = 23;
    uint32_t time_offset_length = 24;

    void parse(h2645_common_bitreader& b);
};

// vui_parameters(), E.1.1
struct h264_vui {
    bool aspect_ratio_info_present_flag = false;
    uint32_t aspect_ratio_idc = 0;
    uint32_t sar_width = 0;
    uint32_t sar_height = 0;
    bool overscan_info_present_flag = false;
    bool overscan_appropriate_flag = false;
    bool video_signal_type_present_flag = false;
    uint32_t video_format = 5; // unspecified, as are the 2s below
    bool video_full_range_flag = false;
    bool colour_description_present_flag = false;
    uint32_t colour_primaries = 2;
    uint32_t transfer_characteristics = 2;
    uint32_t matrix_coefficients = 2;
    bool chroma_loc_info_present_flag = false;
    uint32_t chroma_sample_loc_type_top_field = 0;
    uint32_t chroma_sample_loc_type_bottom_field = 0;
    bool timing_info_present_flag = false;
    uint32_t num_units_in_tick = 0;
    uint32_t time_scale = 0;
    bool fixed_frame_rate_flag = false;
    bool nal_hrd_parameters_present_flag = false;
    h264_hrd nal_hrd_parameters;
    bool vcl_hrd_parameters_present_flag = false;
    h264_hrd vcl_hrd_parameters;
    bool low_delay_hrd_flag = false;
    bool pic_struct_present_flag = false;
    bool bitstream_restriction_flag = false;
    bool motion_vectors_over_pic_boundaries_flag = true;
    uint32_t max_bytes_per_pic_denom = 2;
    uint32_t max_bits_per_mb_denom = 1;
    uint32_t log2_max_mv_length_horizontal = 15;
    uint32_t log2_max_mv_length_vertical = 15;
    uint32_t max_num_reorder_frames = 0;  // the inferred value, MaxDpbFrames, is not derived here;
    uint32_t max_dec_frame_buffering = 0; // test bitstream_restriction_flag

    void parse(h2645_common_bitreader& b);
};

} // namespace tremsa
