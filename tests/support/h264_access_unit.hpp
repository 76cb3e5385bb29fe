// Whole H.264 access units for test streams: small, sane pictures of one slice, made with
// h264_builder.hpp. Only what a keyframe test reads is meaningful; the slice data is filler.
#pragma once

#include "tests/support/bytes.hpp"
#include "tests/support/h264_builder.hpp"

struct h264_picture_size {
    uint32_t width = 320; // even numbers
    uint32_t height = 240;
};

byte_string h264_sps(const h264_picture_size& size);
byte_string h264_pps();
byte_string h264_idr_slice(size_t filler_bytes);
byte_string h264_p_slice(size_t filler_bytes);

// Access unit delimiter, SPS, PPS, IDR slice.
byte_string h264_keyframe(const h264_picture_size& size, size_t filler_bytes);

// Access unit delimiter, P slice.
byte_string h264_p_picture(size_t filler_bytes);
