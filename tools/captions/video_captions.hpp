// Finds the closed captions in the PES packets of a video stream, and hands them on in the order of
// display. H.264 and MPEG-1/2 video.
#pragma once

#include <cstdint>
#include <span>

#include "tools/captions/picture_order.hpp"
#include "tools/captions/start_code_units.hpp"

enum class video_coding { none, h264, mpeg };

struct video_captions {
    // Another stream begins.
    void start(video_coding coding);

    // A PES packet with these times of presentation_clock, and its payload piece by piece.
    void begin_packet(int64_t presentation, int64_t decoding);
    void add_payload(std::span<const uint8_t> bytes);
    void end_packet();

    picture_order pictures;

    video_coding coding = video_coding::none;
    start_code_units units;
    captioned_picture current;
    bool in_packet = false;

    // Several pictures of MPEG video may share a PES packet, and only the first has its times.
    bool seen_picture = false;
    int first_reference = 0; // temporal_reference
    int last_reference = 0;
    int64_t first_presentation = 0;
    int64_t frame_ticks = 0; // 0: not known yet

    void take_unit(std::span<const uint8_t> unit);
    void take_picture_header(std::span<const uint8_t> unit);
};
