// Where a cue lies on the cue clock, in milliseconds: on the transport clock divided by 90, kept
// clear of the cue before it.
#pragma once

#include <cstdint>
#include <optional>

#include "v2/captions/vtt_cue.hpp"

struct cue_times {
    int64_t start; // milliseconds, 0 or more
    int64_t end;   // milliseconds, at least 33 later
};

// Places `cue`. `next` is the cue queued after it, or null. `ref_pts` is the fragment's time
// origin and `window_end` its end, both in 90 kHz ticks. `last_end_ms` is the end of the cue placed
// last (-1: none) and is moved on. Nothing is returned for a cue that has no known end yet and none
// after it: it waits. A time stamp that is not within ten minutes of the origin, even after one
// wrap of the clock, is reported on standard error, and the cue is placed at the origin.
std::optional<cue_times> place_cue(const vtt_cue& cue, const vtt_cue* next, int64_t ref_pts,
                                   int64_t window_end, int64_t& last_end_ms);
