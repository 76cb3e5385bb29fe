// Builds NAL units of ITU-T H.264 from records whose defaults make an ordinary progressive stream:
// sequence 0 of 1920x1080 in Main profile, picture parameter set 0, IDR pictures of one I slice.
// A test names the fields it cares about; values outside the standard's ranges are written as they
// are given, as far as their width allows.
//
// The `_bits` functions write a structure without rbsp_trailing_bits(), so that their length is
// that of the syntax; the `_unit` functions deliver byte stream NAL units, start code first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "tests/support/bit_writer.hpp"

enum class h264_start_code { three_bytes, four_bytes };

// The delta_scale values of one scaling list; empty: its present flag is 0.
using h264_delta_scales = std::vector<int64_t>;

struct h264_hrd_fields {
    struct cpb {
        uint64_t bit_rate_value_minus1 = 0;
        uint64_t cpb_size_value_minus1 = 0;
        bool cbr_flag = false;
    };

    uint64_t bit_rate_scale = 0;
    uint64_t cpb_size_scale = 0;
    std::vector<cpb> cpbs = {cpb{}}; // cpb_cnt_minus1 is one less than their number
    uint64_t initial_cpb_removal_delay_length_minus1 = 23;
    uint64_t cpb_removal_delay_length_minus1 = 23;
    uint64_t dpb_output_delay_length_minus1 = 23;
    uint64_t time_offset_length = 24;
};

struct h264_vui_fields {
    struct video_signal_type {
        uint64_t video_format = 5;
        bool video_full_range_flag = false;
        std::optional<std::array<uint64_t, 3>> colour_description{}; // primaries, transfer, matrix
    };
    struct timing_info {
        uint64_t num_units_in_tick = 1;
        uint64_t time_scale = 50;
        bool fixed_frame_rate_flag = true;
    };
    struct bitstream_restriction {
        bool motion_vectors_over_pic_boundaries_flag = true;
        uint64_t max_bytes_per_pic_denom = 0;
        uint64_t max_bits_per_mb_denom = 0;
        uint64_t log2_max_mv_length_horizontal = 10;
        uint64_t log2_max_mv_length_vertical = 10;
        uint64_t max_num_reorder_frames = 2;
        uint64_t max_dec_frame_buffering = 4;
    };

    std::optional<uint64_t> aspect_ratio_idc{};
    uint64_t sar_width = 1; // written with an aspect_ratio_idc of 255
    uint64_t sar_height = 1;
    std::optional<bool> overscan_appropriate_flag{};
    std::optional<video_signal_type> video_signal{};
    std::optional<std::array<uint64_t, 2>> chroma_sample_loc_type{}; // top field, bottom field
    std::optional<timing_info> timing{};
    std::optional<h264_hrd_fields> nal_hrd{};
    std::optional<h264_hrd_fields> vcl_hrd{};
    bool low_delay_hrd_flag = false;
    bool pic_struct_present_flag = false;
    std::optional<bitstream_restriction> restriction{};
};

struct h264_sps_fields {
    // What sets of the High profiles carry behind their identifier. The writer does not look at
    // profile_idc: a set has them when `high` is given.
    struct high_fields {
        uint64_t chroma_format_idc = 1;
        bool separate_colour_plane_flag = false; // written for 4:4:4
        uint64_t bit_depth_luma_minus8 = 0;
        uint64_t bit_depth_chroma_minus8 = 0;
        bool qpprime_y_zero_transform_bypass_flag = false;
        std::optional<std::vector<h264_delta_scales>> scaling_lists{}; // written as given
    };
    struct crop {
        uint64_t left = 0;
        uint64_t right = 0;
        uint64_t top = 0;
        uint64_t bottom = 0;
    };

    uint64_t profile_idc = 77;
    uint64_t constraint_set_flags = 0; // 6 bits, set0 first
    uint64_t level_idc = 40;
    uint64_t seq_parameter_set_id = 0;
    std::optional<high_fields> high{};
    uint64_t log2_max_frame_num_minus4 = 0;
    uint64_t pic_order_cnt_type = 0;
    uint64_t log2_max_pic_order_cnt_lsb_minus4 = 2;
    bool delta_pic_order_always_zero_flag = false;
    int64_t offset_for_non_ref_pic = 0;
    int64_t offset_for_top_to_bottom_field = 0;
    std::vector<int64_t> offset_for_ref_frame{}; // the cycle's length is their number
    uint64_t max_num_ref_frames = 4;
    bool gaps_in_frame_num_value_allowed_flag = false;
    uint64_t pic_width_in_mbs_minus1 = 119;
    uint64_t pic_height_in_map_units_minus1 = 67;
    bool frame_mbs_only_flag = true;
    bool mb_adaptive_frame_field_flag = false; // written without frame_mbs_only_flag
    bool direct_8x8_inference_flag = true;
    std::optional<crop> frame_cropping = crop{.bottom = 4};
    std::optional<h264_vui_fields> vui{};
};

// Fields of a progressive 4:2:0 picture of the given size; both numbers must be even.
h264_sps_fields h264_sps_of_size(uint32_t width, uint32_t height);

struct h264_pps_fields {
    struct rectangle {
        uint64_t top_left = 0;
        uint64_t bottom_right = 0;
    };
    struct slice_groups {
        uint64_t num_slice_groups_minus1 = 1;
        uint64_t slice_group_map_type = 1;
        std::vector<uint64_t> run_length_minus1{};      // map type 0
        std::vector<rectangle> rectangles{};            // map type 2
        bool slice_group_change_direction_flag = false; // map types 3 to 5
        uint64_t slice_group_change_rate_minus1 = 0;
        uint64_t pic_size_in_map_units_minus1 = 0; // map type 6
        int slice_group_id_bits = 1;
        std::vector<uint64_t> slice_group_id{};
    };
    // What follows while more_rbsp_data() holds.
    struct extension {
        bool transform_8x8_mode_flag = false;
        std::optional<std::vector<h264_delta_scales>> scaling_lists{}; // written as given
        int64_t second_chroma_qp_index_offset = 0;
    };

    uint64_t pic_parameter_set_id = 0;
    uint64_t seq_parameter_set_id = 0;
    bool entropy_coding_mode_flag = true;
    bool bottom_field_pic_order_in_frame_present_flag = false;
    std::optional<slice_groups> groups{}; // none: num_slice_groups_minus1 is 0
    uint64_t num_ref_idx_l0_default_active_minus1 = 0;
    uint64_t num_ref_idx_l1_default_active_minus1 = 0;
    bool weighted_pred_flag = false;
    uint64_t weighted_bipred_idc = 0;
    int64_t pic_init_qp_minus26 = 0;
    int64_t pic_init_qs_minus26 = 0;
    int64_t chroma_qp_index_offset = 0;
    bool deblocking_filter_control_present_flag = true;
    bool constrained_intra_pred_flag = false;
    bool redundant_pic_cnt_present_flag = false;
    std::optional<extension> more{};
};

struct h264_slice_fields {
    struct modification {
        uint64_t modification_of_pic_nums_idc = 0;
        uint64_t value = 0; // abs_diff_pic_num_minus1 or long_term_pic_num
    };
    struct weights {
        std::optional<std::array<int64_t, 2>> luma{};   // weight, offset
        std::optional<std::array<int64_t, 4>> chroma{}; // Cb weight, offset, Cr weight, offset
    };
    struct marking {
        uint64_t memory_management_control_operation = 1;
        std::vector<uint64_t> values{}; // what the operation takes, in syntax order
    };

    uint64_t nal_ref_idc = 3;
    uint64_t nal_unit_type = 5; // 5: IDR, 1: any other
    uint64_t first_mb_in_slice = 0;
    uint64_t slice_type = 7; // I, as all slices of the picture
    uint64_t pic_parameter_set_id = 0;
    uint64_t colour_plane_id = 0;
    uint64_t frame_num = 0;
    bool field_pic_flag = false;
    bool bottom_field_flag = false;
    uint64_t idr_pic_id = 0;
    uint64_t pic_order_cnt_lsb = 0;
    int64_t delta_pic_order_cnt_bottom = 0;
    std::array<int64_t, 2> delta_pic_order_cnt{};
    uint64_t redundant_pic_cnt = 0;
    bool direct_spatial_mv_pred_flag = true;
    std::optional<std::array<uint64_t, 2>> num_ref_idx_active_minus1{}; // override: list 0, list 1
    std::optional<std::vector<modification>> modifications_l0{};        // the closing 3 is added
    std::optional<std::vector<modification>> modifications_l1{};
    uint64_t luma_log2_weight_denom = 0;
    uint64_t chroma_log2_weight_denom = 0;
    std::vector<weights> weights_l0{}; // one per active reference index
    std::vector<weights> weights_l1{};
    bool no_output_of_prior_pics_flag = false;
    bool long_term_reference_flag = false;
    std::optional<std::vector<marking>> markings{}; // the closing 0 is added
    uint64_t cabac_init_idc = 0;
    int64_t slice_qp_delta = 0;
    bool sp_for_switch_flag = false;
    int64_t slice_qs_delta = 0;
    uint64_t disable_deblocking_filter_idc = 0;
    int64_t slice_alpha_c0_offset_div2 = 0;
    int64_t slice_beta_offset_div2 = 0;
    uint64_t slice_group_change_cycle = 0;
    int slice_group_change_cycle_bits = 0; // 0 unless the slice groups have map type 3, 4 or 5

    size_t slice_data_bytes = 32; // bytes of no meaning behind the header
};

bit_writer h264_sps_bits(const h264_sps_fields& sps);
bit_writer h264_pps_bits(const h264_pps_fields& pps);
bit_writer h264_slice_bits(const h264_slice_fields& slice, const h264_sps_fields& sps = {},
                           const h264_pps_fields& pps = {});

// A whole unit: start code, header, and the RBSP with emulation prevention bytes.
std::vector<uint8_t> h264_nal_unit(uint64_t nal_ref_idc, uint64_t nal_unit_type,
                                   const std::vector<uint8_t>& rbsp,
                                   h264_start_code start_code = h264_start_code::four_bytes);

std::vector<uint8_t> h264_sps_unit(const h264_sps_fields& sps = {},
                                   h264_start_code start_code = h264_start_code::four_bytes);
std::vector<uint8_t> h264_pps_unit(const h264_pps_fields& pps = {},
                                   h264_start_code start_code = h264_start_code::four_bytes);
std::vector<uint8_t> h264_slice_unit(const h264_slice_fields& slice = {},
                                     const h264_sps_fields& sps = {},
                                     const h264_pps_fields& pps = {},
                                     h264_start_code start_code = h264_start_code::four_bytes);

// An SEI unit of one user_data_unregistered() message with `payload_bytes` bytes of payload.
std::vector<uint8_t> h264_sei_unit(size_t payload_bytes,
                                   h264_start_code start_code = h264_start_code::four_bytes);

// primary_pic_type, Table 7-5: 0 for I, 1 for I and P, 2 for I, P and B slices.
std::vector<uint8_t>
h264_access_unit_delimiter(uint64_t primary_pic_type = 2,
                           h264_start_code start_code = h264_start_code::four_bytes);
