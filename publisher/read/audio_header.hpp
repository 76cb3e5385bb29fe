// The headers of audio frames that tell the format: ADTS, ISO/IEC 13818-7, 6.2, and MPEG audio,
// ISO/IEC 11172-3, 2.4.1.3.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

struct audio_format {
    std::string codec; // RFC 6381
    uint32_t sample_rate = 0;
    uint32_t channels = 0; // 0: said inside the stream
    uint32_t layer = 0;    // 1 to 3 of MPEG audio; 0: AAC
};

// The first sound header in the bytes.
std::optional<audio_format> find_adts_header(std::span<const uint8_t> bytes);
std::optional<audio_format> find_mpeg_audio_header(std::span<const uint8_t> bytes);
