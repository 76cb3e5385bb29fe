// When a cue may be sent. Two rules: a paced source sends a cue when its time comes, and no
// language ever sends cues in floods, since the receiver drops what it cannot keep. All times are
// milliseconds, and `now_ms` never goes back.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/caption_feed/caption_cue.hpp"

// The receiver keeps 128 waiting cues of a language, and until its first fragment is open all of
// them wait.
constexpr int64_t cues_at_once = 64;
constexpr int64_t ms_per_further_cue = 100;

struct cue_pacing {
    bool realtime = false;
    int64_t lead_ms = 0;
    std::optional<uint64_t> base_ticks; // the stream's time when the clock starts
};

// How long after the start of the clock the cue is due; 0 or less: at once. Without a base time
// the source's own time 0 is where the clock starts.
int64_t cue_due_ms(const caption_cue& cue, const cue_pacing& pacing);

// Lets cues_at_once cues through, and a further one each ms_per_further_cue.
struct cue_rate {
    // When the next cue may go: now or later.
    int64_t next_ms(int64_t now_ms) const;
    void take(int64_t now_ms); // a cue goes now

    int64_t full_again_ms = INT64_MIN; // when all of cues_at_once may go once more
};
