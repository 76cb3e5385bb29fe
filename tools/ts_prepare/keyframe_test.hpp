// Whether a picture is one at which vorn_mpegts_to_hls may begin a fragment, by the beginning of
// its PES payload: an H.264 picture whose first slice is an I or SI slice and whose parameter sets
// have come; in MPEG-1/2 video a sequence or group header, or an I-picture with temporal_reference
// 0.
#pragma once

#include <cstdint>
#include <span>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

struct h264_sets {
    tremsa::h2645_common_base_store<tremsa::h264_nal_sps> sps;
    tremsa::h2645_common_base_store<tremsa::h264_nal_pps> pps;
};

// Keeps the parameter sets that it comes by.
[[nodiscard]] bool is_h264_keyframe(h264_sets& sets, std::span<const uint8_t> payload);

[[nodiscard]] bool is_mpeg_video_keyframe(std::span<const uint8_t> payload);
