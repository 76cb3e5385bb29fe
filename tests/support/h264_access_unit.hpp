// Whole H.264 access units for test streams: small, sane, and in the byte stream format of ITU-T
// H.264, annex B. Only what a keyframe test reads is meaningful; the slice data is filler.
#pragma once

#include "tests/support/bytes.hpp"

struct h264_picture_size {
    uint32_t width = 320; // multiples of 16
    uint32_t height = 240;
};

// Start code, NAL unit header and payload of each.
byte_string h264_access_unit_delimiter();
byte_string h264_sps(const h264_picture_size& size);
byte_string h264_pps();
byte_string h264_sei(size_t payload_bytes);
byte_string h264_idr_slice(size_t filler_bytes);
byte_string h264_p_slice(size_t filler_bytes);

// Access unit delimiter, SPS, PPS, IDR slice.
byte_string h264_keyframe(const h264_picture_size& size, size_t filler_bytes);

// Access unit delimiter, P slice.
byte_string h264_p_picture(size_t filler_bytes);
