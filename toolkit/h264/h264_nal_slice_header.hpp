// Slice headers, ITU-T H.264, 7.3.3 and 7.4.3. Fields stand in syntax order under the standard's
// names; one that is not sent keeps the value it is inferred to have.
//
// Headers of coded slices (nal_unit_type 1 and 5) are read; those of slice extensions (20 and 21)
// differ in ref_pic_list_mvc_modification() and are not.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

namespace tremsa
{

// What getSliceType() tells apart, Table 7-6.
constexpr uint32_t h264_slice_p = 0;
constexpr uint32_t h264_slice_b = 1;
constexpr uint32_t h264_slice_i = 2;
constexpr uint32_t h264_slice_sp = 3;
constexpr uint32_t h264_slice_si = 4;

// ref_pic_list_modification() of one list, 7.3.3.1
struct h264_ref_pic_list_modification {
    struct command {
        uint32_t modification_of_pic_nums_idc = 0; // 0 to 2; the closing 3 is not stored
        uint32_t abs_diff_pic_num_minus1 = 0;      // of 0 and 1
        uint32_t long_term_pic_num = 0;            // of 2
    };

    // A list takes no more commands than it has entries. Further ones are read and dropped.
    static constexpr size_t max_commands = h264_max_num_ref_idx_active_minus1 + 1;

    bool ref_pic_list_modification_flag = false;
    std::vector<command> commands;

    void parse(h2645_common_bitreader& b);
};

// pred_weight_table(), 7.3.3.2
struct h264_pred_weight_table {
    struct entry { // of one reference index; weights and offsets are sent where their flag is set
        bool luma_weight_flag = false;
        int32_t luma_weight = 0;
        int32_t luma_offset = 0;
        bool chroma_weight_flag = false;
        std::array<int32_t, 2> chroma_weight{}; // Cb, Cr
        std::array<int32_t, 2> chroma_offset{};
    };

    uint32_t luma_log2_weight_denom = 0;
    uint32_t chroma_log2_weight_denom = 0;
    std::vector<entry> l0; // num_ref_idx_l0_active_minus1 + 1 entries; empty without a table
    std::vector<entry> l1; // the same for list 1 of a B slice
};

// dec_ref_pic_marking(), 7.3.3.3
struct h264_dec_ref_pic_marking {
    struct command {
        uint32_t memory_management_control_operation = 0; // 1 to 6; the closing 0 is not stored
        uint32_t difference_of_pic_nums_minus1 = 0;       // of 1 and 3
        uint32_t long_term_pic_num = 0;                   // of 2
        uint32_t long_term_frame_idx = 0;                 // of 3 and 6
        uint32_t max_long_term_frame_idx_plus1 = 0;       // of 4
    };

    // Each of 32 reference fields may become a long-term one and be released, and operations 4, 5
    // and 6 come once. Further commands are read and dropped.
    static constexpr size_t max_commands = 2 * 32 + 3;

    bool no_output_of_prior_pics_flag = false; // these two in IDR pictures only
    bool long_term_reference_flag = false;
    bool adaptive_ref_pic_marking_mode_flag = false; // in other pictures
    std::vector<command> commands;

    void parse(h2645_common_bitreader& b, bool idr_pic_flag);
};

// slice_header()
struct h264_nal_slice_header {
    uint32_t first_mb_in_slice = 0;
    uint32_t slice_type = 0; // 0 to 9, see getSliceType()
    uint32_t pic_parameter_set_id = 0;
    uint32_t colour_plane_id = 0;
    uint32_t frame_num = 0;
    bool field_pic_flag = false;
    bool bottom_field_flag = false;
    uint32_t idr_pic_id = 0;
    uint32_t pic_order_cnt_lsb = 0;
    int32_t delta_pic_order_cnt_bottom = 0;
    std::array<int32_t, 2> delta_pic_order_cnt{};
    uint32_t redundant_pic_cnt = 0;
    bool direct_spatial_mv_pred_flag = false;
    bool num_ref_idx_active_override_flag = false;
    uint32_t num_ref_idx_l0_active_minus1 = 0; // of a list that the slice has: the default of the
    uint32_t num_ref_idx_l1_active_minus1 = 0; // picture parameter set unless sent
    h264_ref_pic_list_modification ref_pic_list_modification_l0;
    h264_ref_pic_list_modification ref_pic_list_modification_l1;
    h264_pred_weight_table pred_weight_table;
    h264_dec_ref_pic_marking dec_ref_pic_marking;
    uint32_t cabac_init_idc = 0;
    int32_t slice_qp_delta = 0;
    bool sp_for_switch_flag = false;
    int32_t slice_qs_delta = 0;
    uint32_t disable_deblocking_filter_idc = 0;
    int32_t slice_alpha_c0_offset_div2 = 0;
    int32_t slice_beta_offset_div2 = 0;
    uint32_t slice_group_change_cycle = 0;

    bool valid = false; // every element was read, and those that parsing rests on are in range

    // Reads the header from the RBSP of the unit whose header is `nal`. A header whose picture
    // parameter set, or that set's sequence parameter set, is not stored cannot be read.
    void parse(h2645_common_bitreader& b, const h2645_common_base_store<h264_nal_sps>& sps_store,
               const h2645_common_base_store<h264_nal_pps>& pps_store, const h264_nal& nal);

    // slice_type without the promise, made by 5 to 9, that all slices of the picture are alike.
    [[nodiscard]] uint32_t getSliceType() const { return slice_type % 5; }

private:
    void parse_after_parameter_set_id(h2645_common_bitreader& b, const h264_nal_sps& sps,
                                      const h264_nal_pps& pps, const h264_nal& nal);
    void parse_pred_weight_table(h2645_common_bitreader& b, uint32_t chroma_array_type);
};

} // namespace tremsa
