// Pieces of an MPEG-1/2 video elementary stream, ISO/IEC 13818-2, 6.2.2 and 6.2.3. Each is a whole
// number of bytes and begins with its start code.
#pragma once

#include "tests/support/bytes.hpp"

struct sequence_header_fields {
    uint16_t horizontal_size = 720;       // 12 bits
    uint16_t vertical_size = 576;         // 12 bits
    uint8_t aspect_ratio_information = 2; // 4 bits
    uint8_t frame_rate_code = 3;          // 4 bits: 25 Hz
    uint32_t bit_rate = 10000;            // 18 bits, units of 400 bit/s
};

byte_string build_sequence_header(const sequence_header_fields& fields);

struct group_header_fields {
    uint32_t time_code = 0x1000; // 25 bits
    bool closed_gop = true;
    bool broken_link = false;
};

byte_string build_group_header(const group_header_fields& fields);

enum : uint8_t { i_picture = 1, p_picture = 2, b_picture = 3, d_picture = 4 };

struct picture_header_fields {
    uint16_t temporal_reference = 0;         // 10 bits
    uint8_t picture_coding_type = i_picture; // 3 bits
    uint16_t vbv_delay = 0xFFFF;
    bool full_pel_forward_vector = false;  // P and B pictures
    uint8_t forward_f_code = 7;            // 3 bits
    bool full_pel_backward_vector = false; // B pictures
    uint8_t backward_f_code = 7;           // 3 bits
};

byte_string build_picture_header(const picture_header_fields& fields);

// A slice start code, 0x01 to 0xAF, with `count` bytes that hold no start code.
byte_string build_slice(uint8_t vertical_position, size_t count);
