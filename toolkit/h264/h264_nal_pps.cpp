#include "toolkit/h264/h264_nal_pps.hpp"

#include <bit>

namespace tremsa
{

namespace
{

constexpr uint32_t max_num_slice_groups_minus1 = 7;
constexpr uint32_t max_slice_group_map_type = 6;

uint32_t chroma_format_idc(const h2645_common_base_store<h264_nal_sps>& sps_store, uint32_t id)
{
    const auto sps = sps_store.sets.find(id);
    return sps == sps_store.sets.end() ? h264_chroma_format_420 : sps->second.chroma_format_idc;
}

} // namespace

// pic_parameter_set_rbsp(), 7.3.2.2
void h264_nal_pps::parse(h2645_common_bitreader& b,
                         const h2645_common_base_store<h264_nal_sps>& sps_store)
{
    *this = h264_nal_pps{};
    pic_parameter_set_id = b.ue(h264_max_pic_parameter_set_id);
    seq_parameter_set_id = b.ue(h264_max_seq_parameter_set_id);
    entropy_coding_mode_flag = b.u(1);
    bottom_field_pic_order_in_frame_present_flag = b.u(1);
    num_slice_groups_minus1 = b.ue(max_num_slice_groups_minus1);
    if (num_slice_groups_minus1 > 0)
        parse_slice_groups(b);
    num_ref_idx_l0_default_active_minus1 = b.ue(h264_max_num_ref_idx_active_minus1);
    num_ref_idx_l1_default_active_minus1 = b.ue(h264_max_num_ref_idx_active_minus1);
    weighted_pred_flag = b.u(1);
    weighted_bipred_idc = b.u(2);
    pic_init_qp_minus26 = b.se();
    pic_init_qs_minus26 = b.se();
    chroma_qp_index_offset = b.se();
    deblocking_filter_control_present_flag = b.u(1);
    constrained_intra_pred_flag = b.u(1);
    redundant_pic_cnt_present_flag = b.u(1);
    second_chroma_qp_index_offset = chroma_qp_index_offset;
    if (b.more_rbsp_data()) {
        transform_8x8_mode_flag = b.u(1);
        pic_scaling_matrix_present_flag = b.u(1);
        if (pic_scaling_matrix_present_flag) {
            const uint32_t chroma = chroma_format_idc(sps_store, seq_parameter_set_id);
            const size_t lists_8x8 = chroma != h264_chroma_format_444 ? 2 : 6;
            scaling_lists = read_scaling_lists(b, h264_scaling_lists_4x4 +
                                                      (transform_8x8_mode_flag ? lists_8x8 : 0));
        }
        second_chroma_qp_index_offset = b.se();
    }
    valid = !b.error();
}

void h264_nal_pps::parse_slice_groups(h2645_common_bitreader& b)
{
    slice_group_map_type = b.ue(max_slice_group_map_type);
    if (slice_group_map_type == 0) {
        run_length_minus1.resize(num_slice_groups_minus1 + 1);
        for (uint32_t& run : run_length_minus1)
            run = b.ue();
    } else if (slice_group_map_type == 2) {
        rectangles.resize(num_slice_groups_minus1);
        for (rectangle& r : rectangles) {
            r.top_left = b.ue();
            r.bottom_right = b.ue();
        }
    } else if (slice_group_map_type >= 3 && slice_group_map_type <= 5) {
        slice_group_change_direction_flag = b.u(1);
        slice_group_change_rate_minus1 = b.ue();
    } else if (slice_group_map_type == 6) {
        pic_size_in_map_units_minus1 = b.ue();
        // slice_group_id[ i ], Ceil( Log2( num_slice_groups_minus1 + 1 ) ) bits each
        const auto bits = static_cast<uint64_t>(std::bit_width(num_slice_groups_minus1));
        b.skip((uint64_t{pic_size_in_map_units_minus1} + 1) * bits);
    }
}

} // namespace tremsa
