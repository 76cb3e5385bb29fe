// One caption cue, as it was read from a WebVTT source and placed on the stream's clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct caption_cue {
    size_t line = 0; // of its timings, from 1
    std::string identifier;
    int64_t start_ms = 0; // on the source's own clock
    int64_t end_ms = 0;
    uint64_t stream_ticks = 0; // the start on the stream's clock, 33 bits of 90 kHz
    std::string settings;
    std::string text; // lines separated by LF, without a last one
};
