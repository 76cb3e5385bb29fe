// The text of WebVTT fragments: header, cue blocks, and the body of a fragment without cues. Cue
// times are transport times divided by 90, and the header's X-TIMESTAMP-MAP says so (RFC 8216 3.5).
#pragma once

#include <cstdint>
#include <string>

// Header of a fragment whose time origin is `origin`, in 90 kHz ticks, 0 or more. `key` is the
// language; a service tag is no language and is not written.
std::string webvtt_header(const std::string& key, int64_t origin);

// What a fragment holds that received no cue. It has no X-TIMESTAMP-MAP on purpose.
std::string webvtt_empty_body(const std::string& key);

// One cue block from start to end, in milliseconds, with the empty line after it. An empty line
// inside the text becomes one space, so that it does not end the cue.
std::string webvtt_cue_block(int64_t start, int64_t end, const std::string& cue_settings,
                             const std::string& text);
