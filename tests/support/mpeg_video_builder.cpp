#include "tests/support/mpeg_video_builder.hpp"

#include "tests/support/bit_writer.hpp"

byte_string build_sequence_header(const sequence_header_fields& fields)
{
    return bit_writer{}
        .u(32, 0x1B3)
        .u(12, fields.horizontal_size)
        .u(12, fields.vertical_size)
        .u(4, fields.aspect_ratio_information)
        .u(4, fields.frame_rate_code)
        .u(18, fields.bit_rate)
        .u(1, 1)    // marker_bit
        .u(10, 112) // vbv_buffer_size_value
        .u(1, 0)    // constrained_parameters_flag
        .u(1, 0)    // load_intra_quantiser_matrix
        .u(1, 0)    // load_non_intra_quantiser_matrix
        .bytes();
}

byte_string build_group_header(const group_header_fields& fields)
{
    return bit_writer{}
        .u(32, 0x1B8)
        .u(25, fields.time_code)
        .u(1, fields.closed_gop)
        .u(1, fields.broken_link)
        .align(0)
        .bytes();
}

byte_string build_picture_header(const picture_header_fields& fields)
{
    bit_writer bits;
    bits.u(32, 0x100)
        .u(10, fields.temporal_reference)
        .u(3, fields.picture_coding_type)
        .u(16, fields.vbv_delay);
    if (fields.picture_coding_type == p_picture || fields.picture_coding_type == b_picture)
        bits.u(1, fields.full_pel_forward_vector).u(3, fields.forward_f_code);
    if (fields.picture_coding_type == b_picture)
        bits.u(1, fields.full_pel_backward_vector).u(3, fields.backward_f_code);
    return bits.u(1, 0).align(0).bytes(); // extra_bit_picture
}

byte_string build_slice(uint8_t vertical_position, size_t count)
{
    const uint8_t start_code[] = {0, 0, 1, vertical_position};
    return concat({start_code, byte_string(count, 0x55)});
}
