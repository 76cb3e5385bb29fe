// What the targets of the caption decoders share.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "fuzz/fuzz_input.hpp"
#include "tools/captions/screen_cues.hpp"
#include "tools/captions/screen_text.hpp"

// Whatever is shown has a beginning and an end, and can be sent.
inline void check_cues(const std::deque<broadcast_cue>& cues)
{
    for (const broadcast_cue& cue : cues) {
        require(cue.end > cue.start && cue.end - cue.start <= longest_cue_ticks);
        require(!cue.text.empty() && cue.text.size() <= most_text_bytes);
        require(cue.text.find("-->") == std::string::npos);
        require(cue.settings.size() < 64);
    }
}

// Time steps from the input: mostly a frame, now and then as far as a decoder waits.
inline int64_t step(fuzz_input& input)
{
    const auto byte = input.number<uint8_t>();
    return byte < 0xF0 ? 3003 : (byte & 0x0F) * pts_ticks_per_second;
}
