// The times of WebVTT: timestamps, timing lines, and the X-TIMESTAMP-MAP of HTTP Live Streaming
// that ties them to a transport stream (RFC 8216, 3.5).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/caption_feed/caption_cue.hpp"

// The stream's clock shows `mpegts` when the source's clock shows `local_ms`.
struct timestamp_map {
    uint64_t mpegts = 0;
    int64_t local_ms = 0;
};

// A source's time on the stream's clock, modulo 2^33.
uint64_t stream_ticks_of(int64_t local_ms, const timestamp_map& map);

// Takes a WebVTT timestamp ("hours:mm:ss.ttt", the hours optional) off the front of `rest`. On
// failure `rest` may have been moved on all the same.
[[nodiscard]] bool take_timestamp(std::string_view& rest, int64_t& ms);

// Parses a line that contains "-->" into the cue's start, end and settings; of the settings only
// what has the form of one is kept. On failure `problem` says what is wrong with the line.
[[nodiscard]] bool parse_timing_line(std::string_view line, caption_cue& cue, std::string& problem);

// Parses what follows "X-TIMESTAMP-MAP=": "MPEGTS:" and "LOCAL:" with their values, in any order,
// separated by a comma.
[[nodiscard]] bool parse_timestamp_map(std::string_view value, timestamp_map& map);
