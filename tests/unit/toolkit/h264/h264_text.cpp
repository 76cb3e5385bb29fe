#include "tests/unit/toolkit/h264/h264_text.hpp"

#include <algorithm>
#include <string_view>

namespace tremsa
{

namespace
{

class field_text
{
public:
    template <class T>
    field_text& add(std::string_view name, const T& value, const T& unread = {})
    {
        if (value != unread)
            append(name, std::to_string(value));
        return *this;
    }
    field_text& add(std::string_view name, const std::string& text)
    {
        if (!text.empty())
            append(name, text);
        return *this;
    }
    [[nodiscard]] const std::string& text() const { return text_; }

private:
    void append(std::string_view name, const std::string& value)
    {
        text_.append(text_.empty() ? "" : " ").append(name).append("=").append(value);
    }

    std::string text_;
};

template <class Range, class Text>
std::string joined(const Range& values, Text text)
{
    std::string all;
    for (const auto& value : values)
        all.append(all.empty() ? "" : ",").append(text(value));
    return all;
}

template <class Range>
std::string numbers(const Range& values)
{
    return joined(values, [](auto value) { return std::to_string(value); });
}

std::string text_of_scales(const h264_scaling_list& list, size_t size)
{
    if (!list.present || list.use_default)
        return list.present ? "default" : "-";
    const std::span scale(list.scale.data(), size);
    size_t end = size;
    while (end > 1 && scale[end - 2] == scale[size - 1])
        end--;
    return numbers(scale.first(end)) + (end < size ? ".." : "");
}

void add_hrd(field_text& t, bool present, const h264_hrd& hrd)
{
    const h264_hrd none;
    if (!present)
        return;
    t.add("cpb_cnt_minus1", hrd.cpb_cnt_minus1).add("bit_rate_scale", hrd.bit_rate_scale);
    t.add("cpb_size_scale", hrd.cpb_size_scale);
    t.add("cpbs", joined(hrd.cpbs, [](const h264_hrd::cpb& c) {
              return std::to_string(c.bit_rate_value_minus1) + "/" +
                     std::to_string(c.cpb_size_value_minus1) + (c.cbr_flag ? "/cbr" : "");
          }));
    t.add("initial_cpb_removal_delay_length_minus1", hrd.initial_cpb_removal_delay_length_minus1,
          none.initial_cpb_removal_delay_length_minus1);
    t.add("cpb_removal_delay_length_minus1", hrd.cpb_removal_delay_length_minus1,
          none.cpb_removal_delay_length_minus1);
    t.add("dpb_output_delay_length_minus1", hrd.dpb_output_delay_length_minus1,
          none.dpb_output_delay_length_minus1);
    t.add("time_offset_length", hrd.time_offset_length, none.time_offset_length);
}

void add_vui(field_text& t, const h264_vui& vui)
{
    const h264_vui none;
    t.add("aspect_ratio_info_present_flag", vui.aspect_ratio_info_present_flag);
    t.add("aspect_ratio_idc", vui.aspect_ratio_idc);
    t.add("sar_width", vui.sar_width).add("sar_height", vui.sar_height);
    t.add("overscan_info_present_flag", vui.overscan_info_present_flag);
    t.add("overscan_appropriate_flag", vui.overscan_appropriate_flag);
    t.add("video_signal_type_present_flag", vui.video_signal_type_present_flag);
    t.add("video_format", vui.video_format, none.video_format);
    t.add("video_full_range_flag", vui.video_full_range_flag);
    t.add("colour_description_present_flag", vui.colour_description_present_flag);
    t.add("colour_primaries", vui.colour_primaries, none.colour_primaries);
    t.add("transfer_characteristics", vui.transfer_characteristics, none.transfer_characteristics);
    t.add("matrix_coefficients", vui.matrix_coefficients, none.matrix_coefficients);
    t.add("chroma_loc_info_present_flag", vui.chroma_loc_info_present_flag);
    t.add("chroma_sample_loc_type_top_field", vui.chroma_sample_loc_type_top_field);
    t.add("chroma_sample_loc_type_bottom_field", vui.chroma_sample_loc_type_bottom_field);
    t.add("timing_info_present_flag", vui.timing_info_present_flag);
    t.add("num_units_in_tick", vui.num_units_in_tick).add("time_scale", vui.time_scale);
    t.add("fixed_frame_rate_flag", vui.fixed_frame_rate_flag);
    t.add("nal_hrd_parameters_present_flag", vui.nal_hrd_parameters_present_flag);
    add_hrd(t, vui.nal_hrd_parameters_present_flag, vui.nal_hrd_parameters);
    t.add("vcl_hrd_parameters_present_flag", vui.vcl_hrd_parameters_present_flag);
    add_hrd(t, vui.vcl_hrd_parameters_present_flag, vui.vcl_hrd_parameters);
    t.add("low_delay_hrd_flag", vui.low_delay_hrd_flag);
    t.add("pic_struct_present_flag", vui.pic_struct_present_flag);
    t.add("bitstream_restriction_flag", vui.bitstream_restriction_flag);
    t.add("motion_vectors_over_pic_boundaries_flag", vui.motion_vectors_over_pic_boundaries_flag,
          none.motion_vectors_over_pic_boundaries_flag);
    t.add("max_bytes_per_pic_denom", vui.max_bytes_per_pic_denom, none.max_bytes_per_pic_denom);
    t.add("max_bits_per_mb_denom", vui.max_bits_per_mb_denom, none.max_bits_per_mb_denom);
    t.add("log2_max_mv_length_horizontal", vui.log2_max_mv_length_horizontal,
          none.log2_max_mv_length_horizontal);
    t.add("log2_max_mv_length_vertical", vui.log2_max_mv_length_vertical,
          none.log2_max_mv_length_vertical);
    t.add("max_num_reorder_frames", vui.max_num_reorder_frames);
    t.add("max_dec_frame_buffering", vui.max_dec_frame_buffering);
}

// Each command with the values that belong to its operation.
std::string text_of(const h264_ref_pic_list_modification& list)
{
    return joined(list.commands, [](const h264_ref_pic_list_modification::command& c) {
        return std::to_string(c.modification_of_pic_nums_idc) + ":" +
               std::to_string(c.modification_of_pic_nums_idc == 2 ? c.long_term_pic_num
                                                                  : c.abs_diff_pic_num_minus1);
    });
}

std::string text_of(const std::vector<h264_pred_weight_table::entry>& list)
{
    return joined(list, [](const h264_pred_weight_table::entry& e) {
        std::string luma;
        if (e.luma_weight_flag)
            luma = std::to_string(e.luma_weight) + ":" + std::to_string(e.luma_offset);
        std::string chroma;
        if (e.chroma_weight_flag)
            chroma = "/" + std::to_string(e.chroma_weight[0]) + ":" +
                     std::to_string(e.chroma_offset[0]) + "/" + std::to_string(e.chroma_weight[1]) +
                     ":" + std::to_string(e.chroma_offset[1]);
        return luma.empty() && chroma.empty() ? "-" : luma + chroma;
    });
}

std::string text_of(const h264_dec_ref_pic_marking& marking)
{
    return joined(marking.commands, [](const h264_dec_ref_pic_marking::command& c) {
        std::string text = std::to_string(c.memory_management_control_operation);
        for (const uint32_t value : {c.difference_of_pic_nums_minus1, c.long_term_pic_num,
                                     c.long_term_frame_idx, c.max_long_term_frame_idx_plus1})
            text += value != 0 ? ":" + std::to_string(value) : "";
        return text;
    });
}

} // namespace

std::string text_of(const std::vector<h264_scaling_list>& lists)
{
    std::string text;
    for (size_t i = 0; i < lists.size(); i++)
        text += (i == 0 ? "" : "|") + text_of_scales(lists[i], i < h264_scaling_lists_4x4
                                                                   ? h264_scaling_list_4x4_size
                                                                   : h264_scaling_list_8x8_size);
    return text;
}

std::string text_of(const h264_nal_sps& sps)
{
    const h264_nal_sps none;
    field_text t;
    t.add("profile_idc", sps.profile_idc);
    t.add("constraint_set0_flag", sps.constraint_set0_flag);
    t.add("constraint_set1_flag", sps.constraint_set1_flag);
    t.add("constraint_set2_flag", sps.constraint_set2_flag);
    t.add("constraint_set3_flag", sps.constraint_set3_flag);
    t.add("constraint_set4_flag", sps.constraint_set4_flag);
    t.add("constraint_set5_flag", sps.constraint_set5_flag);
    t.add("level_idc", sps.level_idc).add("seq_parameter_set_id", sps.seq_parameter_set_id);
    t.add("chroma_format_idc", sps.chroma_format_idc, none.chroma_format_idc);
    t.add("separate_colour_plane_flag", sps.separate_colour_plane_flag);
    t.add("bit_depth_luma_minus8", sps.bit_depth_luma_minus8);
    t.add("bit_depth_chroma_minus8", sps.bit_depth_chroma_minus8);
    t.add("qpprime_y_zero_transform_bypass_flag", sps.qpprime_y_zero_transform_bypass_flag);
    t.add("seq_scaling_matrix_present_flag", sps.seq_scaling_matrix_present_flag);
    t.add("scaling_lists", text_of(sps.scaling_lists));
    t.add("log2_max_frame_num_minus4", sps.log2_max_frame_num_minus4);
    t.add("pic_order_cnt_type", sps.pic_order_cnt_type);
    t.add("log2_max_pic_order_cnt_lsb_minus4", sps.log2_max_pic_order_cnt_lsb_minus4);
    t.add("delta_pic_order_always_zero_flag", sps.delta_pic_order_always_zero_flag);
    t.add("offset_for_non_ref_pic", sps.offset_for_non_ref_pic);
    t.add("offset_for_top_to_bottom_field", sps.offset_for_top_to_bottom_field);
    t.add("num_ref_frames_in_pic_order_cnt_cycle", sps.num_ref_frames_in_pic_order_cnt_cycle);
    t.add("offset_for_ref_frame", numbers(sps.offset_for_ref_frame));
    t.add("max_num_ref_frames", sps.max_num_ref_frames);
    t.add("gaps_in_frame_num_value_allowed_flag", sps.gaps_in_frame_num_value_allowed_flag);
    t.add("pic_width_in_mbs_minus1", sps.pic_width_in_mbs_minus1);
    t.add("pic_height_in_map_units_minus1", sps.pic_height_in_map_units_minus1);
    t.add("frame_mbs_only_flag", sps.frame_mbs_only_flag);
    t.add("mb_adaptive_frame_field_flag", sps.mb_adaptive_frame_field_flag);
    t.add("direct_8x8_inference_flag", sps.direct_8x8_inference_flag);
    t.add("frame_cropping_flag", sps.frame_cropping_flag);
    t.add("frame_crop_left_offset", sps.frame_crop_left_offset);
    t.add("frame_crop_right_offset", sps.frame_crop_right_offset);
    t.add("frame_crop_top_offset", sps.frame_crop_top_offset);
    t.add("frame_crop_bottom_offset", sps.frame_crop_bottom_offset);
    t.add("vui_parameters_present_flag", sps.vui_parameters_present_flag);
    add_vui(t, sps.vui);
    return sps.valid ? t.text() : "not valid";
}

std::string text_of(const h264_nal_pps& pps)
{
    field_text t;
    t.add("pic_parameter_set_id", pps.pic_parameter_set_id);
    t.add("seq_parameter_set_id", pps.seq_parameter_set_id);
    t.add("entropy_coding_mode_flag", pps.entropy_coding_mode_flag);
    t.add("bottom_field_pic_order_in_frame_present_flag",
          pps.bottom_field_pic_order_in_frame_present_flag);
    t.add("num_slice_groups_minus1", pps.num_slice_groups_minus1);
    t.add("slice_group_map_type", pps.slice_group_map_type);
    t.add("run_length_minus1", numbers(pps.run_length_minus1));
    t.add("rectangles", joined(pps.rectangles, [](const h264_nal_pps::rectangle& r) {
              return std::to_string(r.top_left) + "-" + std::to_string(r.bottom_right);
          }));
    t.add("slice_group_change_direction_flag", pps.slice_group_change_direction_flag);
    t.add("slice_group_change_rate_minus1", pps.slice_group_change_rate_minus1);
    t.add("pic_size_in_map_units_minus1", pps.pic_size_in_map_units_minus1);
    t.add("num_ref_idx_l0_default_active_minus1", pps.num_ref_idx_l0_default_active_minus1);
    t.add("num_ref_idx_l1_default_active_minus1", pps.num_ref_idx_l1_default_active_minus1);
    t.add("weighted_pred_flag", pps.weighted_pred_flag);
    t.add("weighted_bipred_idc", pps.weighted_bipred_idc);
    t.add("pic_init_qp_minus26", pps.pic_init_qp_minus26);
    t.add("pic_init_qs_minus26", pps.pic_init_qs_minus26);
    t.add("chroma_qp_index_offset", pps.chroma_qp_index_offset);
    t.add("deblocking_filter_control_present_flag", pps.deblocking_filter_control_present_flag);
    t.add("constrained_intra_pred_flag", pps.constrained_intra_pred_flag);
    t.add("redundant_pic_cnt_present_flag", pps.redundant_pic_cnt_present_flag);
    t.add("transform_8x8_mode_flag", pps.transform_8x8_mode_flag);
    t.add("pic_scaling_matrix_present_flag", pps.pic_scaling_matrix_present_flag);
    t.add("scaling_lists", text_of(pps.scaling_lists));
    t.add("second_chroma_qp_index_offset", pps.second_chroma_qp_index_offset);
    return pps.valid ? t.text() : "not valid";
}

std::string text_of(const h264_nal_slice_header& header)
{
    field_text t;
    t.add("first_mb_in_slice", header.first_mb_in_slice).add("slice_type", header.slice_type);
    t.add("pic_parameter_set_id", header.pic_parameter_set_id);
    t.add("colour_plane_id", header.colour_plane_id).add("frame_num", header.frame_num);
    t.add("field_pic_flag", header.field_pic_flag);
    t.add("bottom_field_flag", header.bottom_field_flag);
    t.add("idr_pic_id", header.idr_pic_id).add("pic_order_cnt_lsb", header.pic_order_cnt_lsb);
    t.add("delta_pic_order_cnt_bottom", header.delta_pic_order_cnt_bottom);
    t.add("delta_pic_order_cnt[0]", header.delta_pic_order_cnt[0]);
    t.add("delta_pic_order_cnt[1]", header.delta_pic_order_cnt[1]);
    t.add("redundant_pic_cnt", header.redundant_pic_cnt);
    t.add("direct_spatial_mv_pred_flag", header.direct_spatial_mv_pred_flag);
    t.add("num_ref_idx_active_override_flag", header.num_ref_idx_active_override_flag);
    t.add("num_ref_idx_l0_active_minus1", header.num_ref_idx_l0_active_minus1);
    t.add("num_ref_idx_l1_active_minus1", header.num_ref_idx_l1_active_minus1);
    t.add("modifications_l0", text_of(header.ref_pic_list_modification_l0));
    t.add("modifications_l1", text_of(header.ref_pic_list_modification_l1));
    t.add("luma_log2_weight_denom", header.pred_weight_table.luma_log2_weight_denom);
    t.add("chroma_log2_weight_denom", header.pred_weight_table.chroma_log2_weight_denom);
    t.add("weights_l0", text_of(header.pred_weight_table.l0));
    t.add("weights_l1", text_of(header.pred_weight_table.l1));
    t.add("no_output_of_prior_pics_flag", header.dec_ref_pic_marking.no_output_of_prior_pics_flag);
    t.add("long_term_reference_flag", header.dec_ref_pic_marking.long_term_reference_flag);
    t.add("markings", text_of(header.dec_ref_pic_marking));
    t.add("cabac_init_idc", header.cabac_init_idc).add("slice_qp_delta", header.slice_qp_delta);
    t.add("sp_for_switch_flag", header.sp_for_switch_flag);
    t.add("slice_qs_delta", header.slice_qs_delta);
    t.add("disable_deblocking_filter_idc", header.disable_deblocking_filter_idc);
    t.add("slice_alpha_c0_offset_div2", header.slice_alpha_c0_offset_div2);
    t.add("slice_beta_offset_div2", header.slice_beta_offset_div2);
    t.add("slice_group_change_cycle", header.slice_group_change_cycle);
    return header.valid ? t.text() : "not valid";
}

} // namespace tremsa
