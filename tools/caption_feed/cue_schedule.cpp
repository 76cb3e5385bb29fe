#include "tools/caption_feed/cue_schedule.hpp"

#include <algorithm>

#include "toolkit/pts_clock.hpp"

int64_t cue_due_ms(const caption_cue& cue, const cue_pacing& pacing)
{
    if (!pacing.base_ticks)
        return cue.start_ms - pacing.lead_ms;

    // The clock has 33 bits: what lies half a turn ahead or more has passed.
    auto ahead = static_cast<int64_t>((cue.stream_ticks - *pacing.base_ticks) & pts_mask);
    if (ahead >= pts_modulus / 2)
        ahead -= pts_modulus;
    return ahead / pts_ticks_per_millisecond - pacing.lead_ms;
}

int64_t cue_rate::next_ms(int64_t now_ms) const
{
    constexpr int64_t allowance = (cues_at_once - 1) * ms_per_further_cue;
    if (full_again_ms <= now_ms)
        return now_ms;
    return std::max(now_ms, full_again_ms - allowance);
}

void cue_rate::take(int64_t now_ms)
{
    full_again_ms = std::max(full_again_ms, now_ms) + ms_per_further_cue;
}
