// Which kinds of streams vorn_mpegts_to_hls takes, by their stream_type. Of each kind the first one
// in the PMT counts.
#pragma once

#include <cstdint>

#include "toolkit/ts/program_map.hpp"

constexpr bool is_video_taken(uint8_t stream_type)
{
    return stream_type == stream_type_h264 || stream_type == stream_type_mpeg1_video ||
           stream_type == stream_type_mpeg2_video;
}

constexpr bool is_audio_taken(uint8_t stream_type)
{
    return stream_type == stream_type_mpeg1_audio || stream_type == stream_type_mpeg2_audio ||
           stream_type == stream_type_aac_adts;
}
