// Whole H.264 access units for test streams: small, sane, and in the byte stream format of ITU-T
// H.264, annex B. Only what a keyframe test reads is meaningful; the slice data is filler.
#pragma once

#include "tests/support/bytes.hpp"
#include "tests/support/h264_builder.hpp"

struct h264_picture_size {
    uint32_t width = 320;
    uint32_t height = 240;
};

// Sequence and picture parameter set, each with its start code.
byte_string h264_parameter_sets(const h264_picture_size& size = {});

// One slice that is a whole picture, with so many bytes of slice data.
byte_string h264_idr_slice(size_t slice_data_bytes);
byte_string h264_p_slice(size_t slice_data_bytes);

// Access unit delimiter, parameter sets, IDR slice.
byte_string h264_keyframe(const h264_picture_size& size, size_t slice_data_bytes);

// Access unit delimiter, P slice.
byte_string h264_p_picture(size_t slice_data_bytes);
