// WebVTT: the segmenter's fragments are read, and segments are written that begin and end with
// those of the video. A cue that reaches into the next segment stands there too, RFC 8216 3.5.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Times are ticks of the stream's clock since the stretch began in which it runs on without a
// break, so that they order cues also where 33 bits begin anew.
struct subtitle_cue {
    int64_t begin = 0;
    int64_t end = 0;
    std::string settings; // as in the timing line
    std::string text;     // whole lines, without the empty line that ends the cue

    bool operator==(const subtitle_cue&) const = default;
};

// Cues of one fragment or segment, by its X-TIMESTAMP-MAP. A time is told by its distance from
// `reference`, a time of the clock, which stands at `reference_ticks`. What is no cue is passed
// over; a text without a map has none.
std::vector<subtitle_cue> parse_webvtt(std::string_view text, int64_t reference,
                                       int64_t reference_ticks);

// The segment from `begin` to `end` with those cues that begin before its end. One that came too
// late for its own segment stands in the next. `clock` is what the stream's clock, 33 bits, shows
// at `begin`.
std::string webvtt_segment(const std::vector<subtitle_cue>& cues, int64_t begin, int64_t end,
                           int64_t clock);
