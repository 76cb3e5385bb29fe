// One caption cue, as it was read from a WebVTT source and placed on the stream's clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

constexpr int64_t ticks_per_millisecond = 90; // the 90 kHz clock of presentation times
constexpr uint64_t stream_clock_mask = (uint64_t{1} << 33) - 1;

struct caption_cue {
    size_t line = 0; // of its timings, from 1
    std::string identifier;
    int64_t start_ms = 0; // on the source's own clock
    int64_t end_ms = 0;
    uint64_t stream_ticks = 0; // the start on the stream's clock, which has 33 bits
    std::string settings;
    std::string text; // lines separated by LF, without a last one
};
