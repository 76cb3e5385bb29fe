#include "tests/support/h264_access_unit.hpp"

#include "tests/support/bit_writer.hpp"

namespace
{

// Slice data that needs no emulation prevention byte.
constexpr uint8_t filler = 0xA5;

// Start code and nal_unit(), 7.3.1.
byte_string nal_unit(unsigned nal_ref_idc, unsigned nal_unit_type, const byte_string& rbsp)
{
    const byte_string header = bit_writer{}
                                   .u(32, 1) // zero_byte and start code
                                   .u(1, 0)  // forbidden_zero_bit
                                   .u(2, nal_ref_idc)
                                   .u(5, nal_unit_type)
                                   .bytes();
    return concat({header, rbsp});
}

byte_string slice(unsigned nal_unit_type, bit_writer header, size_t filler_bytes)
{
    return nal_unit(
        3, nal_unit_type,
        concat({header.rbsp_trailing_bits().bytes(), byte_string(filler_bytes, filler)}));
}

} // namespace

byte_string h264_access_unit_delimiter()
{
    return nal_unit(0, 9, bit_writer{}.u(3, 7).rbsp_trailing_bits().bytes()); // primary_pic_type
}

byte_string h264_sps(const h264_picture_size& size)
{
    return nal_unit(3, 7,
                    bit_writer{}
                        .u(8, 66)                 // profile_idc: Baseline
                        .u(8, 0)                  // constraint flags
                        .u(8, 30)                 // level_idc
                        .ue(0)                    // seq_parameter_set_id
                        .ue(0)                    // log2_max_frame_num_minus4
                        .ue(2)                    // pic_order_cnt_type
                        .ue(1)                    // max_num_ref_frames
                        .u(1, 0)                  // gaps_in_frame_num_value_allowed_flag
                        .ue(size.width / 16 - 1)  // pic_width_in_mbs_minus1
                        .ue(size.height / 16 - 1) // pic_height_in_map_units_minus1
                        .u(1, 1)                  // frame_mbs_only_flag
                        .u(1, 1)                  // direct_8x8_inference_flag
                        .u(1, 0)                  // frame_cropping_flag
                        .u(1, 0)                  // vui_parameters_present_flag
                        .rbsp_trailing_bits()
                        .bytes());
}

byte_string h264_pps()
{
    return nal_unit(3, 8,
                    bit_writer{}
                        .ue(0)   // pic_parameter_set_id
                        .ue(0)   // seq_parameter_set_id
                        .u(1, 0) // entropy_coding_mode_flag
                        .u(1, 0) // bottom_field_pic_order_in_frame_present_flag
                        .ue(0)   // num_slice_groups_minus1
                        .ue(0)   // num_ref_idx_l0_default_active_minus1
                        .ue(0)   // num_ref_idx_l1_default_active_minus1
                        .u(1, 0) // weighted_pred_flag
                        .u(2, 0) // weighted_bipred_idc
                        .se(0)   // pic_init_qp_minus26
                        .se(0)   // pic_init_qs_minus26
                        .se(0)   // chroma_qp_index_offset
                        .u(1, 0) // deblocking_filter_control_present_flag
                        .u(1, 0) // constrained_intra_pred_flag
                        .u(1, 0) // redundant_pic_cnt_present_flag
                        .rbsp_trailing_bits()
                        .bytes());
}

byte_string h264_sei(size_t payload_bytes)
{
    bit_writer bits;
    bits.u(8, 5); // payloadType: user_data_unregistered
    size_t size = payload_bytes;
    for (; size >= 255; size -= 255)
        bits.u(8, 255);
    bits.u(8, size);
    return nal_unit(0, 6,
                    concat({bits.bytes(), byte_string(payload_bytes, filler),
                            bit_writer{}.rbsp_trailing_bits().bytes()}));
}

byte_string h264_idr_slice(size_t filler_bytes)
{
    return slice(5,
                 bit_writer{}
                     .ue(0)   // first_mb_in_slice
                     .ue(7)   // slice_type: I, as all slices of the picture
                     .ue(0)   // pic_parameter_set_id
                     .u(4, 0) // frame_num
                     .ue(0)   // idr_pic_id
                     .u(1, 0) // no_output_of_prior_pics_flag
                     .u(1, 0) // long_term_reference_flag
                     .se(0),  // slice_qp_delta
                 filler_bytes);
}

byte_string h264_p_slice(size_t filler_bytes)
{
    return slice(1,
                 bit_writer{}
                     .ue(0)   // first_mb_in_slice
                     .ue(5)   // slice_type: P, as all slices of the picture
                     .ue(0)   // pic_parameter_set_id
                     .u(4, 1) // frame_num
                     .u(1, 0) // num_ref_idx_active_override_flag
                     .u(1, 0) // ref_pic_list_modification_flag_l0
                     .u(1, 0) // adaptive_ref_pic_marking_mode_flag
                     .se(0),  // slice_qp_delta
                 filler_bytes);
}

byte_string h264_keyframe(const h264_picture_size& size, size_t filler_bytes)
{
    return concat(
        {h264_access_unit_delimiter(), h264_sps(size), h264_pps(), h264_idr_slice(filler_bytes)});
}

byte_string h264_p_picture(size_t filler_bytes)
{
    return concat({h264_access_unit_delimiter(), h264_p_slice(filler_bytes)});
}
