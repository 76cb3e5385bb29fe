// Finds the closed captions in the PES packets of a video stream, and hands them on in the order of
// display. H.264 and MPEG-1/2 video.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "tools/captions/h264_picture_times.hpp"
#include "tools/captions/picture_order.hpp"
#include "tools/captions/start_code_units.hpp"

enum class video_coding { none, h264, mpeg };

struct video_captions {
    // Another stream begins.
    void start(video_coding coding);

    // A PES packet with these times of presentation_clock, and its payload piece by piece. Once
    // all that is wanted of it has come it ends by itself.
    void begin_packet(int64_t presentation, int64_t decoding);

    // One without time stamps goes on behind the packet before it: with the next of its pictures,
    // or in the middle of one.
    void continue_packet();
    void add_payload(std::span<const uint8_t> bytes);
    void end_packet();

    picture_order pictures;
    bool in_packet = false;

    video_coding coding = video_coding::none;
    start_code_units units;
    captioned_picture current;

    // Captions stand before the slices of a picture, and mostly a PES packet holds one picture. So
    // it is read as far as its first slice, unless packets of several pictures are about: for that
    // the first packets are read whole, and one in many later on. Two fields may share a packet
    // where frames do not, so packets that begin with a field are counted apart.
    struct packet_habit {
        int of_one = 0; // read whole, one after the other
        int cut = 0;    // read as far as the slice, the same
    };
    std::array<packet_habit, 2> habits; // of frames, of fields
    bool begins_with_field = false;     // the packet at hand
    bool has_enough = false;            // the packet at hand, as far as it has been read

    // Several pictures may share a PES packet, and only the first has its times.
    int64_t pictures_in_packet = 0;
    h264_picture_times h264_times;
    bool has_slices = false;   // the current picture of H.264
    int last_reference = 0;    // temporal_reference of MPEG video
    bool begins_group = false; // the next picture of it
    int64_t latest = 0;        // presentation time of a group's pictures so far
    int64_t frame_ticks = 0;   // 0: not known yet

    bool reads_on() const;
    unit_part part_of(uint8_t code) const;
    unit_part part_of_h264(uint8_t code) const;
    unit_part part_of_mpeg(uint8_t code) const;
    void note_habit();
    void take_unit(std::span<const uint8_t> unit);
    void take_h264_unit(std::span<const uint8_t> unit);
    void begin_next_picture();
    void take_slice(std::span<const uint8_t> unit);
    void take_mpeg_unit(std::span<const uint8_t> unit);
    void take_picture_header(std::span<const uint8_t> unit);
};
