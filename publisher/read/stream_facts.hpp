// What a stretch of a transport stream holds, as far as a playlist tells of it and a player depends
// on it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct video_facts {
    std::string codec; // RFC 6381, e.g. "avc1.4D4028"; empty: no video, or not known yet
    uint32_t width = 0;
    uint32_t height = 0;
    double frame_rate = 0; // pictures per second; 0: the stream does not say

    bool operator==(const video_facts&) const = default;
};

struct audio_facts {
    std::string codec;    // RFC 6381, e.g. "mp4a.40.2"; empty: not known yet
    std::string language; // ISO 639-2 code of the PMT; empty: none
    uint32_t channels = 0;

    bool operator==(const audio_facts&) const = default;
};

// Captions inside the pictures, CTA-708.
struct caption_facts {
    uint8_t channels = 0;  // bit n: CC(n + 1) of CTA-608
    uint64_t services = 0; // bit n: service n of CTA-708, from 1

    bool operator==(const caption_facts&) const = default;
};

struct stream_facts {
    video_facts video;
    std::vector<audio_facts> audio; // in the order of the PMT
    caption_facts captions;

    bool operator==(const stream_facts&) const = default;
};
