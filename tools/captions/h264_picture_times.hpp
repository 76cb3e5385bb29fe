// The times of H.264 pictures that share a PES packet. Only the first of them has time stamps; the
// others follow from the frame rate and the picture order count (ISO/IEC 13818-1, 2.7.5; ITU-T
// H.264, 8.2.1).
#pragma once

#include <cstdint>
#include <span>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

struct h264_picture_time {
    int64_t presentation = 0;
    int64_t decoding = 0;
    bool is_field = false;
};

struct h264_picture_times {
    // A sequence or picture parameter set.
    void take_parameter_set(std::span<const uint8_t> unit);

    // A PES packet with these times begins.
    void begin_packet(const h264_picture_time& time);

    // The times of its next picture, from the beginning of the picture's first slice.
    [[nodiscard]] h264_picture_time next(std::span<const uint8_t> slice);

    tremsa::h2645_common_base_store<tremsa::h264_nal_sps> sequences;
    tremsa::h2645_common_base_store<tremsa::h264_nal_pps> pictures;
    int64_t frame_ticks = 0;      // 0: not known yet
    bool may_have_fields = false; // as the last sequence parameter set says

    h264_picture_time first;      // of the packet
    h264_picture_time last;       // picture
    int64_t last_ticks = 0;       // how long that lasts: a field half of a frame
    int64_t latest = 0;           // presentation time in the packet
    int64_t fields_in_packet = 0; // a frame counts twice
    int64_t base_time = 0;        // of presentation, of the picture whose
    int64_t base_order = 0;       // PicOrderCnt this is
    int64_t reference_order = 0;  // the same of the last reference picture
    bool has_order = false;       // a picture's has been read

    [[nodiscard]] int64_t order_of(const tremsa::h264_nal_slice_header& slice,
                                   const tremsa::h264_nal& nal, uint32_t lsb_bits);
};
