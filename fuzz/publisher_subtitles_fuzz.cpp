// Subtitles of a source, and the segments that the publisher makes of them.

#include <string>

#include "fuzz/fuzz_input.hpp"
#include "publisher/subtitles/webvtt.hpp"
#include "toolkit/pts_clock.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int64_t segment_ticks = 4 * pts_ticks_per_second;
    const std::string text(data, data + size);
    const int64_t reference = 900000;
    const auto cues = parse_webvtt(text, reference, reference);
    for (const subtitle_cue& cue : cues)
        require(cue.begin <= cue.end && cue.text.find("\n\n") == std::string::npos);
    const std::string segment =
        webvtt_segment(cues, reference, reference + segment_ticks, reference);
    require(segment.starts_with("WEBVTT\n") && segment.ends_with("\n\n"));
    return 0;
}
