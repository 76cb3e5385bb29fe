#include "toolkit/h264/h264_nal_slice_header.hpp"

#include <algorithm>
#include <bit>

namespace tremsa
{

namespace
{

constexpr uint32_t max_slice_type = 9;
constexpr uint32_t max_modification_of_pic_nums_idc = 3; // 4 and 5 are of slice extensions
constexpr uint32_t max_log2_weight_denom = 7;
constexpr uint32_t max_memory_management_control_operation = 6;

// Ceil( Log2( PicSizeInMapUnits / SliceGroupChangeRate + 1 ) ), 7.4.3, where the division is
// exact: the fewest bits that hold the quotient rounded up.
uint32_t slice_group_change_cycle_bits(const h264_nal_sps& sps, const h264_nal_pps& pps)
{
    const uint64_t slice_group_change_rate = uint64_t{pps.slice_group_change_rate_minus1} + 1;
    const uint64_t cycles = (sps.PicSizeInMapUnits() - 1) / slice_group_change_rate + 1;
    return static_cast<uint32_t>(std::bit_width(cycles));
}

void read_pred_weights(h2645_common_bitreader& b, std::vector<h264_pred_weight_table::entry>& list,
                       uint32_t num_ref_idx_active_minus1, uint32_t chroma_array_type)
{
    list.resize(num_ref_idx_active_minus1 + 1);
    for (h264_pred_weight_table::entry& e : list) {
        e.luma_weight_flag = b.u(1);
        if (e.luma_weight_flag) {
            e.luma_weight = b.se();
            e.luma_offset = b.se();
        }
        if (chroma_array_type != 0) {
            e.chroma_weight_flag = b.u(1);
            if (e.chroma_weight_flag) {
                for (size_t j = 0; j < 2; j++) {
                    e.chroma_weight[j] = b.se();
                    e.chroma_offset[j] = b.se();
                }
            }
        }
    }
}

} // namespace

// ref_pic_list_modification() of one list, 7.3.3.1
void h264_ref_pic_list_modification::parse(h2645_common_bitreader& b)
{
    ref_pic_list_modification_flag = b.u(1);
    if (!ref_pic_list_modification_flag)
        return;

    while (!b.error()) {
        command c;
        c.modification_of_pic_nums_idc = b.ue(max_modification_of_pic_nums_idc);
        if (c.modification_of_pic_nums_idc == 0 || c.modification_of_pic_nums_idc == 1)
            c.abs_diff_pic_num_minus1 = b.ue();
        else if (c.modification_of_pic_nums_idc == 2)
            c.long_term_pic_num = b.ue();
        else
            return;
        if (commands.size() < max_commands)
            commands.push_back(c);
    }
}

// dec_ref_pic_marking(), 7.3.3.3
void h264_dec_ref_pic_marking::parse(h2645_common_bitreader& b, bool idr_pic_flag)
{
    if (idr_pic_flag) {
        no_output_of_prior_pics_flag = b.u(1);
        long_term_reference_flag = b.u(1);
        return;
    }
    adaptive_ref_pic_marking_mode_flag = b.u(1);
    if (!adaptive_ref_pic_marking_mode_flag)
        return;

    while (!b.error()) {
        command c;
        const uint32_t operation = b.ue(max_memory_management_control_operation);
        if (operation == 0)
            return;
        c.memory_management_control_operation = operation;
        if (operation == 1 || operation == 3)
            c.difference_of_pic_nums_minus1 = b.ue();
        if (operation == 2)
            c.long_term_pic_num = b.ue();
        if (operation == 3 || operation == 6)
            c.long_term_frame_idx = b.ue();
        if (operation == 4)
            c.max_long_term_frame_idx_plus1 = b.ue();
        if (commands.size() < max_commands)
            commands.push_back(c);
    }
}

// slice_header(), 7.3.3, up to the element that names the parameter sets
void h264_nal_slice_header::parse(h2645_common_bitreader& b,
                                  const h2645_common_base_store<h264_nal_sps>& sps_store,
                                  const h2645_common_base_store<h264_nal_pps>& pps_store,
                                  const h264_nal& nal)
{
    *this = h264_nal_slice_header{};
    first_mb_in_slice = b.ue();
    slice_type = b.ue(max_slice_type);
    pic_parameter_set_id = b.ue(h264_max_pic_parameter_set_id);

    const auto pps = pps_store.sets.find(pic_parameter_set_id);
    if (b.error() || pps == pps_store.sets.end())
        return;
    const auto sps = sps_store.sets.find(pps->second.seq_parameter_set_id);
    if (sps == sps_store.sets.end())
        return;
    parse_after_parameter_set_id(b, sps->second, pps->second, nal);
    valid = !b.error();
}

// slice_header(), 7.3.3, the rest
void h264_nal_slice_header::parse_after_parameter_set_id(h2645_common_bitreader& b,
                                                         const h264_nal_sps& sps,
                                                         const h264_nal_pps& pps,
                                                         const h264_nal& nal)
{
    const bool idr_pic_flag = nal.nal_unit_type == h264_nal_slice_idr;
    const uint32_t type = getSliceType();
    const bool is_p_or_sp = type == h264_slice_p || type == h264_slice_sp;
    const bool is_b = type == h264_slice_b;

    if (sps.separate_colour_plane_flag)
        colour_plane_id = b.u(2);
    frame_num = b.u(sps.log2_max_frame_num_minus4 + 4);
    if (!sps.frame_mbs_only_flag) {
        field_pic_flag = b.u(1);
        if (field_pic_flag)
            bottom_field_flag = b.u(1);
    }
    if (idr_pic_flag)
        idr_pic_id = b.ue();
    if (sps.pic_order_cnt_type == 0) {
        pic_order_cnt_lsb = b.u(sps.log2_max_pic_order_cnt_lsb_minus4 + 4);
        if (pps.bottom_field_pic_order_in_frame_present_flag && !field_pic_flag)
            delta_pic_order_cnt_bottom = b.se();
    }
    if (sps.pic_order_cnt_type == 1 && !sps.delta_pic_order_always_zero_flag) {
        delta_pic_order_cnt[0] = b.se();
        if (pps.bottom_field_pic_order_in_frame_present_flag && !field_pic_flag)
            delta_pic_order_cnt[1] = b.se();
    }
    if (pps.redundant_pic_cnt_present_flag)
        redundant_pic_cnt = b.ue();
    if (is_b)
        direct_spatial_mv_pred_flag = b.u(1);
    if (is_p_or_sp || is_b) {
        num_ref_idx_l0_active_minus1 = pps.num_ref_idx_l0_default_active_minus1;
        num_ref_idx_l1_active_minus1 = is_b ? pps.num_ref_idx_l1_default_active_minus1 : 0;
        num_ref_idx_active_override_flag = b.u(1);
        if (num_ref_idx_active_override_flag) {
            num_ref_idx_l0_active_minus1 = b.ue(h264_max_num_ref_idx_active_minus1);
            if (is_b)
                num_ref_idx_l1_active_minus1 = b.ue(h264_max_num_ref_idx_active_minus1);
        }
    }
    if (is_p_or_sp || is_b)
        ref_pic_list_modification_l0.parse(b);
    if (is_b)
        ref_pic_list_modification_l1.parse(b);
    if ((pps.weighted_pred_flag && is_p_or_sp) || (pps.weighted_bipred_idc == 1 && is_b))
        parse_pred_weight_table(b, sps.ChromaArrayType());
    if (nal.nal_ref_idc != 0)
        dec_ref_pic_marking.parse(b, idr_pic_flag);
    if (pps.entropy_coding_mode_flag && type != h264_slice_i && type != h264_slice_si)
        cabac_init_idc = b.ue();
    slice_qp_delta = b.se();
    if (type == h264_slice_sp || type == h264_slice_si) {
        if (type == h264_slice_sp)
            sp_for_switch_flag = b.u(1);
        slice_qs_delta = b.se();
    }
    if (pps.deblocking_filter_control_present_flag) {
        disable_deblocking_filter_idc = b.ue();
        if (disable_deblocking_filter_idc != 1) {
            slice_alpha_c0_offset_div2 = b.se();
            slice_beta_offset_div2 = b.se();
        }
    }
    if (pps.num_slice_groups_minus1 > 0 && pps.slice_group_map_type >= 3 &&
        pps.slice_group_map_type <= 5) {
        // Only sizes far beyond any level make the element wider than its 32 low bits.
        const uint32_t bits = slice_group_change_cycle_bits(sps, pps);
        const uint32_t kept_bits = std::min(bits, 32u);
        b.skip(bits - kept_bits);
        slice_group_change_cycle = b.u(kept_bits);
    }
}

// pred_weight_table(), 7.3.3.2
void h264_nal_slice_header::parse_pred_weight_table(h2645_common_bitreader& b,
                                                    uint32_t chroma_array_type)
{
    h264_pred_weight_table& table = pred_weight_table;
    table.luma_log2_weight_denom = b.ue(max_log2_weight_denom);
    if (chroma_array_type != 0)
        table.chroma_log2_weight_denom = b.ue(max_log2_weight_denom);
    read_pred_weights(b, table.l0, num_ref_idx_l0_active_minus1, chroma_array_type);
    if (getSliceType() == h264_slice_b)
        read_pred_weights(b, table.l1, num_ref_idx_l1_active_minus1, chroma_array_type);
}

} // namespace tremsa
