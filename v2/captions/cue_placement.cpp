#include "v2/captions/cue_placement.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "toolkit/pts_clock.hpp"
#include "v2/base/continuous_time.hpp"

namespace
{

constexpr int64_t shortest_cue_ms = 33; // about one frame
constexpr int64_t closed_gap_ms = 149;  // a smaller gap between two cues would only flicker

// Cue times come from the peer. Differences are kept within this, so that no sum below can
// overflow: ends stay under the double of it.
constexpr int64_t max_difference_ms = int64_t{1} << 40;

int64_t clamped_difference(int64_t a, int64_t b)
{
    int64_t difference = 0;
    if (__builtin_sub_overflow(a, b, &difference))
        return a < b ? -max_difference_ms : max_difference_ms;
    return std::clamp(difference, -max_difference_ms, max_difference_ms);
}

bool is_near(int64_t pts, int64_t ref_pts)
{
    return std::abs(pts - ref_pts) <= max_continuous_ticks;
}

// The cue's time on the transport clock as the fragment counts it.
int64_t unwrapped_pts(uint64_t mpeg_timestamp, int64_t ref_pts)
{
    int64_t pts = static_cast<int64_t>(mpeg_timestamp & pts_mask);
    if (is_near(pts, ref_pts))
        return pts;
    pts += pts_modulus;
    if (is_near(pts, ref_pts))
        return pts;
    std::fprintf(stderr, "Timestamp mismatch %lld %lld\n", static_cast<long long>(pts),
                 static_cast<long long>(ref_pts));
    return ref_pts;
}

} // namespace

std::optional<cue_times> place_cue(const vtt_cue& cue, const vtt_cue* next, int64_t ref_pts,
                                   int64_t window_end, int64_t& last_end_ms)
{
    const int64_t pts = unwrapped_pts(cue.mpeg_timestamp, ref_pts);
    int64_t start = pts / pts_ticks_per_millisecond;
    int64_t overlap = 0; // negative: a gap that is closed
    if (start <= last_end_ms + closed_gap_ms) {
        overlap = last_end_ms - start;
        start = std::max<int64_t>(last_end_ms, 0);
    }

    const int64_t length = clamped_difference(cue.end, cue.start);
    int64_t end = start + length;
    const bool end_is_known = cue.now >= 0 || pts >= window_end;
    if (!end_is_known) {
        if (next == nullptr)
            return std::nullopt;
        const int64_t until_next = start + clamped_difference(next->start, cue.start);
        end = std::max(start, std::min(until_next, end));
    }
    if (overlap > 0)
        end -= overlap / 2;
    end = std::max(end, start + shortest_cue_ms);

    last_end_ms = std::max(last_end_ms, end);
    return cue_times{.start = start, .end = end};
}
