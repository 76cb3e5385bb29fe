// One caption cue, as it arrived.
#pragma once

#include <cstdint>
#include <string>

constexpr uint32_t vtt_no_service = 0xFFFFFFFF;

struct vtt_cue {
    std::string text;
    std::string identifier;
    std::string cue_settings; // WebVTT cue settings, as they follow the times
    std::string language;
    int64_t start = -1; // milliseconds; only differences between times of cues count
    int64_t end = -1;
    int64_t now = -1; // below 0: the end is not known yet
    int64_t frame = -1;
    uint64_t mpeg_timestamp = 0;       // 90 kHz transport-stream time; the low 33 bits count
    uint32_t service = vtt_no_service; // 0 to 255
};
