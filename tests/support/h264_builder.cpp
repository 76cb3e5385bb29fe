#include "tests/support/h264_builder.hpp"

namespace
{

constexpr uint64_t nal_sei = 6;
constexpr uint64_t nal_seq_parameter_set = 7;
constexpr uint64_t nal_pic_parameter_set = 8;
constexpr uint64_t nal_access_unit_delimiter = 9;

void write_scaling_lists(bit_writer& w, const std::vector<h264_delta_scales>& lists)
{
    for (const h264_delta_scales& list : lists) {
        w.u(1, !list.empty()); // scaling_list_present_flag
        for (const int64_t delta_scale : list)
            w.se(delta_scale);
    }
}

void write_hrd(bit_writer& w, const h264_hrd_fields& hrd)
{
    w.ue(hrd.cpbs.size() - 1); // cpb_cnt_minus1
    w.u(4, hrd.bit_rate_scale);
    w.u(4, hrd.cpb_size_scale);
    for (const h264_hrd_fields::cpb& c : hrd.cpbs)
        w.ue(c.bit_rate_value_minus1).ue(c.cpb_size_value_minus1).u(1, c.cbr_flag);
    w.u(5, hrd.initial_cpb_removal_delay_length_minus1);
    w.u(5, hrd.cpb_removal_delay_length_minus1);
    w.u(5, hrd.dpb_output_delay_length_minus1);
    w.u(5, hrd.time_offset_length);
}

void write_video_signal_type(bit_writer& w, const h264_vui_fields::video_signal_type& signal)
{
    w.u(3, signal.video_format);
    w.u(1, signal.video_full_range_flag);
    w.u(1, signal.colour_description.has_value());
    if (signal.colour_description) {
        for (const uint64_t code : *signal.colour_description)
            w.u(8, code);
    }
}

void write_vui(bit_writer& w, const h264_vui_fields& vui)
{
    w.u(1, vui.aspect_ratio_idc.has_value());
    if (vui.aspect_ratio_idc) {
        w.u(8, *vui.aspect_ratio_idc);
        if (*vui.aspect_ratio_idc == 255)
            w.u(16, vui.sar_width).u(16, vui.sar_height);
    }
    w.u(1, vui.overscan_appropriate_flag.has_value());
    if (vui.overscan_appropriate_flag)
        w.u(1, *vui.overscan_appropriate_flag);
    w.u(1, vui.video_signal.has_value());
    if (vui.video_signal)
        write_video_signal_type(w, *vui.video_signal);
    w.u(1, vui.chroma_sample_loc_type.has_value());
    if (vui.chroma_sample_loc_type)
        w.ue((*vui.chroma_sample_loc_type)[0]).ue((*vui.chroma_sample_loc_type)[1]);
    w.u(1, vui.timing.has_value());
    if (vui.timing) {
        w.u(32, vui.timing->num_units_in_tick);
        w.u(32, vui.timing->time_scale);
        w.u(1, vui.timing->fixed_frame_rate_flag);
    }
    w.u(1, vui.nal_hrd.has_value());
    if (vui.nal_hrd)
        write_hrd(w, *vui.nal_hrd);
    w.u(1, vui.vcl_hrd.has_value());
    if (vui.vcl_hrd)
        write_hrd(w, *vui.vcl_hrd);
    if (vui.nal_hrd || vui.vcl_hrd)
        w.u(1, vui.low_delay_hrd_flag);
    w.u(1, vui.pic_struct_present_flag);
    w.u(1, vui.restriction.has_value());
    if (vui.restriction) {
        w.u(1, vui.restriction->motion_vectors_over_pic_boundaries_flag);
        w.ue(vui.restriction->max_bytes_per_pic_denom);
        w.ue(vui.restriction->max_bits_per_mb_denom);
        w.ue(vui.restriction->log2_max_mv_length_horizontal);
        w.ue(vui.restriction->log2_max_mv_length_vertical);
        w.ue(vui.restriction->max_num_reorder_frames);
        w.ue(vui.restriction->max_dec_frame_buffering);
    }
}

void write_high_fields(bit_writer& w, const h264_sps_fields::high_fields& high)
{
    w.ue(high.chroma_format_idc);
    if (high.chroma_format_idc == 3)
        w.u(1, high.separate_colour_plane_flag);
    w.ue(high.bit_depth_luma_minus8);
    w.ue(high.bit_depth_chroma_minus8);
    w.u(1, high.qpprime_y_zero_transform_bypass_flag);
    w.u(1, high.scaling_lists.has_value());
    if (high.scaling_lists)
        write_scaling_lists(w, *high.scaling_lists);
}

void write_slice_groups(bit_writer& w, const h264_pps_fields::slice_groups& groups)
{
    w.ue(groups.num_slice_groups_minus1);
    w.ue(groups.slice_group_map_type);
    switch (groups.slice_group_map_type) {
    case 0:
        for (const uint64_t run : groups.run_length_minus1)
            w.ue(run);
        break;
    case 2:
        for (const h264_pps_fields::rectangle& r : groups.rectangles)
            w.ue(r.top_left).ue(r.bottom_right);
        break;
    case 3:
    case 4:
    case 5:
        w.u(1, groups.slice_group_change_direction_flag);
        w.ue(groups.slice_group_change_rate_minus1);
        break;
    case 6:
        w.ue(groups.pic_size_in_map_units_minus1);
        for (const uint64_t id : groups.slice_group_id)
            w.u(groups.slice_group_id_bits, id);
        break;
    default:
        break;
    }
}

void write_modifications(bit_writer& w,
                         const std::optional<std::vector<h264_slice_fields::modification>>& list)
{
    w.u(1, list.has_value()); // ref_pic_list_modification_flag
    if (!list)
        return;
    for (const h264_slice_fields::modification& m : *list)
        w.ue(m.modification_of_pic_nums_idc).ue(m.value);
    w.ue(3);
}

void write_weights(bit_writer& w, const std::vector<h264_slice_fields::weights>& list,
                   bool chroma_arrays)
{
    for (const h264_slice_fields::weights& entry : list) {
        w.u(1, entry.luma.has_value());
        if (entry.luma)
            w.se((*entry.luma)[0]).se((*entry.luma)[1]);
        if (!chroma_arrays)
            continue;
        w.u(1, entry.chroma.has_value());
        if (entry.chroma) {
            for (const int64_t value : *entry.chroma)
                w.se(value);
        }
    }
}

void write_dec_ref_pic_marking(bit_writer& w, const h264_slice_fields& slice)
{
    if (slice.nal_unit_type == 5) {
        w.u(1, slice.no_output_of_prior_pics_flag);
        w.u(1, slice.long_term_reference_flag);
        return;
    }
    w.u(1, slice.markings.has_value()); // adaptive_ref_pic_marking_mode_flag
    if (!slice.markings)
        return;
    for (const h264_slice_fields::marking& m : *slice.markings) {
        w.ue(m.memory_management_control_operation);
        for (const uint64_t value : m.values)
            w.ue(value);
    }
    w.ue(0);
}

void write_pic_order_cnt(bit_writer& w, const h264_slice_fields& slice, const h264_sps_fields& sps,
                         const h264_pps_fields& pps)
{
    const bool both_fields =
        pps.bottom_field_pic_order_in_frame_present_flag && !slice.field_pic_flag;
    if (sps.pic_order_cnt_type == 0) {
        w.u(static_cast<int>(sps.log2_max_pic_order_cnt_lsb_minus4 + 4), slice.pic_order_cnt_lsb);
        if (both_fields)
            w.se(slice.delta_pic_order_cnt_bottom);
    } else if (sps.pic_order_cnt_type == 1 && !sps.delta_pic_order_always_zero_flag) {
        w.se(slice.delta_pic_order_cnt[0]);
        if (both_fields)
            w.se(slice.delta_pic_order_cnt[1]);
    }
}

// From direct_spatial_mv_pred_flag to pred_weight_table(); `type` is 0 to 4.
void write_references(bit_writer& w, const h264_slice_fields& slice, const h264_sps_fields& sps,
                      const h264_pps_fields& pps, uint64_t type)
{
    const bool is_b = type == 1;
    if (type == 2 || type == 4)
        return;
    if (is_b)
        w.u(1, slice.direct_spatial_mv_pred_flag);
    w.u(1, slice.num_ref_idx_active_minus1.has_value()); // num_ref_idx_active_override_flag
    if (slice.num_ref_idx_active_minus1) {
        w.ue((*slice.num_ref_idx_active_minus1)[0]);
        if (is_b)
            w.ue((*slice.num_ref_idx_active_minus1)[1]);
    }
    write_modifications(w, slice.modifications_l0);
    if (is_b)
        write_modifications(w, slice.modifications_l1);

    if (is_b ? pps.weighted_bipred_idc != 1 : !pps.weighted_pred_flag)
        return;
    const h264_sps_fields::high_fields high = sps.high.value_or(h264_sps_fields::high_fields{});
    const bool chroma_arrays = high.chroma_format_idc != 0 && !high.separate_colour_plane_flag;
    w.ue(slice.luma_log2_weight_denom);
    if (chroma_arrays)
        w.ue(slice.chroma_log2_weight_denom);
    write_weights(w, slice.weights_l0, chroma_arrays);
    if (is_b)
        write_weights(w, slice.weights_l1, chroma_arrays);
}

// 7.4.1: within a unit no three bytes may look like a start code or an escaped one, and a final
// zero byte is followed by an emulation prevention byte.
void append_escaped(std::vector<uint8_t>& unit, const std::vector<uint8_t>& rbsp)
{
    int zeros = 0;
    for (const uint8_t byte : rbsp) {
        if (zeros >= 2 && byte <= 3) {
            unit.push_back(3);
            zeros = 0;
        }
        unit.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    if (zeros > 0)
        unit.push_back(3);
}

} // namespace

h264_sps_fields h264_sps_of_size(uint32_t width, uint32_t height)
{
    const uint32_t width_in_mbs = (width + 15) / 16;
    const uint32_t height_in_mbs = (height + 15) / 16;
    return {
        .pic_width_in_mbs_minus1 = width_in_mbs - 1,
        .pic_height_in_map_units_minus1 = height_in_mbs - 1,
        .frame_cropping = h264_sps_fields::crop{.right = (width_in_mbs * 16 - width) / 2,
                                                .bottom = (height_in_mbs * 16 - height) / 2},
    };
}

// seq_parameter_set_data(), 7.3.2.1.1
bit_writer h264_sps_bits(const h264_sps_fields& sps)
{
    bit_writer w;
    w.u(8, sps.profile_idc);
    w.u(6, sps.constraint_set_flags).u(2, 0); // reserved_zero_2bits
    w.u(8, sps.level_idc);
    w.ue(sps.seq_parameter_set_id);
    if (sps.high)
        write_high_fields(w, *sps.high);
    w.ue(sps.log2_max_frame_num_minus4);
    w.ue(sps.pic_order_cnt_type);
    if (sps.pic_order_cnt_type == 0) {
        w.ue(sps.log2_max_pic_order_cnt_lsb_minus4);
    } else if (sps.pic_order_cnt_type == 1) {
        w.u(1, sps.delta_pic_order_always_zero_flag);
        w.se(sps.offset_for_non_ref_pic);
        w.se(sps.offset_for_top_to_bottom_field);
        w.ue(sps.offset_for_ref_frame.size()); // num_ref_frames_in_pic_order_cnt_cycle
        for (const int64_t offset : sps.offset_for_ref_frame)
            w.se(offset);
    }
    w.ue(sps.max_num_ref_frames);
    w.u(1, sps.gaps_in_frame_num_value_allowed_flag);
    w.ue(sps.pic_width_in_mbs_minus1);
    w.ue(sps.pic_height_in_map_units_minus1);
    w.u(1, sps.frame_mbs_only_flag);
    if (!sps.frame_mbs_only_flag)
        w.u(1, sps.mb_adaptive_frame_field_flag);
    w.u(1, sps.direct_8x8_inference_flag);
    w.u(1, sps.frame_cropping.has_value());
    if (sps.frame_cropping) {
        w.ue(sps.frame_cropping->left).ue(sps.frame_cropping->right);
        w.ue(sps.frame_cropping->top).ue(sps.frame_cropping->bottom);
    }
    w.u(1, sps.vui.has_value());
    if (sps.vui)
        write_vui(w, *sps.vui);
    return w;
}

// pic_parameter_set_rbsp(), 7.3.2.2
bit_writer h264_pps_bits(const h264_pps_fields& pps)
{
    bit_writer w;
    w.ue(pps.pic_parameter_set_id);
    w.ue(pps.seq_parameter_set_id);
    w.u(1, pps.entropy_coding_mode_flag);
    w.u(1, pps.bottom_field_pic_order_in_frame_present_flag);
    if (pps.groups)
        write_slice_groups(w, *pps.groups);
    else
        w.ue(0); // num_slice_groups_minus1
    w.ue(pps.num_ref_idx_l0_default_active_minus1);
    w.ue(pps.num_ref_idx_l1_default_active_minus1);
    w.u(1, pps.weighted_pred_flag);
    w.u(2, pps.weighted_bipred_idc);
    w.se(pps.pic_init_qp_minus26);
    w.se(pps.pic_init_qs_minus26);
    w.se(pps.chroma_qp_index_offset);
    w.u(1, pps.deblocking_filter_control_present_flag);
    w.u(1, pps.constrained_intra_pred_flag);
    w.u(1, pps.redundant_pic_cnt_present_flag);
    if (pps.more) {
        w.u(1, pps.more->transform_8x8_mode_flag);
        w.u(1, pps.more->scaling_lists.has_value());
        if (pps.more->scaling_lists)
            write_scaling_lists(w, *pps.more->scaling_lists);
        w.se(pps.more->second_chroma_qp_index_offset);
    }
    return w;
}

// slice_header(), 7.3.3
bit_writer h264_slice_bits(const h264_slice_fields& slice, const h264_sps_fields& sps,
                           const h264_pps_fields& pps)
{
    const uint64_t type = slice.slice_type % 5;
    bit_writer w;
    w.ue(slice.first_mb_in_slice);
    w.ue(slice.slice_type);
    w.ue(slice.pic_parameter_set_id);
    if (sps.high && sps.high->separate_colour_plane_flag)
        w.u(2, slice.colour_plane_id);
    w.u(static_cast<int>(sps.log2_max_frame_num_minus4 + 4), slice.frame_num);
    if (!sps.frame_mbs_only_flag) {
        w.u(1, slice.field_pic_flag);
        if (slice.field_pic_flag)
            w.u(1, slice.bottom_field_flag);
    }
    if (slice.nal_unit_type == 5)
        w.ue(slice.idr_pic_id);
    write_pic_order_cnt(w, slice, sps, pps);
    if (pps.redundant_pic_cnt_present_flag)
        w.ue(slice.redundant_pic_cnt);
    write_references(w, slice, sps, pps, type);
    if (slice.nal_ref_idc != 0)
        write_dec_ref_pic_marking(w, slice);
    if (pps.entropy_coding_mode_flag && type != 2 && type != 4)
        w.ue(slice.cabac_init_idc);
    w.se(slice.slice_qp_delta);
    if (type == 3)
        w.u(1, slice.sp_for_switch_flag);
    if (type == 3 || type == 4)
        w.se(slice.slice_qs_delta);
    if (pps.deblocking_filter_control_present_flag) {
        w.ue(slice.disable_deblocking_filter_idc);
        if (slice.disable_deblocking_filter_idc != 1)
            w.se(slice.slice_alpha_c0_offset_div2).se(slice.slice_beta_offset_div2);
    }
    w.u(slice.slice_group_change_cycle_bits, slice.slice_group_change_cycle);
    return w;
}

std::vector<uint8_t> h264_nal_unit(uint64_t nal_ref_idc, uint64_t nal_unit_type,
                                   const std::vector<uint8_t>& rbsp, h264_start_code start_code)
{
    std::vector<uint8_t> unit;
    if (start_code == h264_start_code::four_bytes)
        unit.push_back(0); // zero_byte
    unit.insert(unit.end(), {0, 0, 1});
    unit.push_back(static_cast<uint8_t>((nal_ref_idc << 5) | nal_unit_type));
    append_escaped(unit, rbsp);
    return unit;
}

std::vector<uint8_t> h264_sps_unit(const h264_sps_fields& sps, h264_start_code start_code)
{
    return h264_nal_unit(3, nal_seq_parameter_set, h264_sps_bits(sps).rbsp_trailing_bits().bytes(),
                         start_code);
}

std::vector<uint8_t> h264_pps_unit(const h264_pps_fields& pps, h264_start_code start_code)
{
    return h264_nal_unit(3, nal_pic_parameter_set, h264_pps_bits(pps).rbsp_trailing_bits().bytes(),
                         start_code);
}

std::vector<uint8_t> h264_slice_unit(const h264_slice_fields& slice, const h264_sps_fields& sps,
                                     const h264_pps_fields& pps, h264_start_code start_code)
{
    bit_writer w = h264_slice_bits(slice, sps, pps);
    w.align(1); // cabac_alignment_one_bit
    for (size_t i = 0; i < slice.slice_data_bytes; i++)
        w.u(8, 0x40 + i % 64);
    return h264_nal_unit(slice.nal_ref_idc, slice.nal_unit_type, w.rbsp_trailing_bits().bytes(),
                         start_code);
}

// sei_rbsp() of one sei_message(), 7.3.2.3
std::vector<uint8_t> h264_sei_unit(size_t payload_bytes, h264_start_code start_code)
{
    constexpr uint64_t user_data_unregistered = 5;
    bit_writer w;
    w.u(8, user_data_unregistered);
    for (size_t left = payload_bytes; left >= 255; left -= 255)
        w.u(8, 0xFF);
    w.u(8, payload_bytes % 255); // last_payload_size_byte
    for (size_t i = 0; i < payload_bytes; i++)
        w.u(8, 0x40 + i % 64);
    return h264_nal_unit(0, nal_sei, w.rbsp_trailing_bits().bytes(), start_code);
}

std::vector<uint8_t> h264_access_unit_delimiter(uint64_t primary_pic_type,
                                                h264_start_code start_code)
{
    bit_writer w;
    w.u(3, primary_pic_type).rbsp_trailing_bits();
    return h264_nal_unit(0, nal_access_unit_delimiter, w.bytes(), start_code);
}
