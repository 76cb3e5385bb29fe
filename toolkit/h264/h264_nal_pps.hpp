// Picture parameter sets, ITU-T H.264, 7.3.2.2 and 7.4.2.2. Fields stand in syntax order under the
// standard's names; one that is not sent keeps the value it is inferred to have.
#pragma once

#include <cstdint>
#include <vector>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"
#include "toolkit/h264/h264_scaling_list.hpp"

namespace tremsa
{

constexpr uint32_t h264_max_pic_parameter_set_id = 255;
constexpr uint32_t h264_max_num_ref_idx_active_minus1 = 31;

// pic_parameter_set_rbsp()
struct h264_nal_pps {
    struct rectangle { // in slice group map units
        uint32_t top_left = 0;
        uint32_t bottom_right = 0;
    };

    bool valid = false; // every element was read, and those that parsing rests on are in range

    uint32_t pic_parameter_set_id = 0;
    uint32_t seq_parameter_set_id = 0;
    bool entropy_coding_mode_flag = false;
    bool bottom_field_pic_order_in_frame_present_flag = false;
    uint32_t num_slice_groups_minus1 = 0;
    uint32_t slice_group_map_type = 0;
    std::vector<uint32_t> run_length_minus1;        // map type 0: one per slice group
    std::vector<rectangle> rectangles;              // map type 2: one per slice group but the last
    bool slice_group_change_direction_flag = false; // map types 3 to 5
    uint32_t slice_group_change_rate_minus1 = 0;
    uint32_t pic_size_in_map_units_minus1 = 0; // map type 6; the slice_group_id of each unit is
                                               // passed over, as only decoding needs the map
    uint32_t num_ref_idx_l0_default_active_minus1 = 0;
    uint32_t num_ref_idx_l1_default_active_minus1 = 0;
    bool weighted_pred_flag = false;
    uint32_t weighted_bipred_idc = 0;
    int32_t pic_init_qp_minus26 = 0;
    int32_t pic_init_qs_minus26 = 0;
    int32_t chroma_qp_index_offset = 0;
    bool deblocking_filter_control_present_flag = false;
    bool constrained_intra_pred_flag = false;
    bool redundant_pic_cnt_present_flag = false;
    bool transform_8x8_mode_flag = false;
    bool pic_scaling_matrix_present_flag = false;
    std::vector<h264_scaling_list> scaling_lists; // 6, 8 or 12; empty: those of the sequence
    int32_t second_chroma_qp_index_offset = 0;

    // Reads the set from its RBSP. The number of scaling lists depends on the chroma format of the
    // sequence; while its set is not in `sps_store`, 4:2:0 is assumed.
    void parse(h2645_common_bitreader& b, const h2645_common_base_store<h264_nal_sps>& sps_store);

private:
    void parse_slice_groups(h2645_common_bitreader& b);
};

} // namespace tremsa
