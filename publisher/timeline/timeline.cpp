#include "publisher/timeline/timeline.hpp"

#include <algorithm>
#include <cstdlib>

#include "toolkit/pts_clock.hpp"

namespace
{

// Encoders drop pictures and receivers lose them: a hole up to this is a part of the GOP before it,
// and players jump it. A longer one is told to them.
constexpr int64_t longest_hole = pts_ticks_per_second / 2;

// Where a run begins or fragments are missing, only the very next picture goes on.
constexpr int64_t longest_hole_after_loss = pts_ticks_per_second / 20;

// The stream's own time of day has whole seconds, and comes when it comes.
constexpr int64_t date_tolerance = 2 * pts_ticks_per_second;

bool goes_on(const timeline& line, const timed_gop& next)
{
    const int64_t hole = std::abs(stamp_distance(line.clock, next.start));
    return line.begun && next.same_layout &&
           hole <= (next.after_loss ? longest_hole_after_loss : longest_hole);
}

// Dates never fall, whatever the clocks of the stream and of the machine do.
int64_t date_of(const timeline& line, const timed_gop& next, bool discontinuity, int64_t hole)
{
    std::optional<int64_t> by_stream;
    if (next.mark)
        by_stream = next.mark->unix_ms * pts_ticks_per_millisecond +
                    stamp_distance(next.mark->clock, next.start);
    if (!discontinuity) {
        const int64_t date = line.date + std::max<int64_t>(hole, 0);
        return by_stream && *by_stream > date + date_tolerance ? *by_stream : date;
    }
    const int64_t date = by_stream.value_or(next.arrival - next.length);
    return line.begun ? std::max(date, line.date) : date;
}

} // namespace

int64_t length_until(int64_t start, int64_t own_length, int64_t next_start)
{
    const int64_t length = stamp_distance(start, next_start);
    return length > 0 && std::abs(length - own_length) <= longest_hole ? length : own_length;
}

placed_gop place_gop(timeline& line, const timed_gop& next)
{
    placed_gop placed;
    const bool on = goes_on(line, next);
    const int64_t hole = on ? stamp_distance(line.clock, next.start) : 0;
    placed.discontinuity = line.begun && !on;
    placed.clock = next.start;
    placed.ticks = on ? line.ticks + hole : next.start;
    placed.date = date_of(line, next, !on, hole);

    line.begun = true;
    line.clock = (next.start + next.length) & (pts_modulus - 1);
    line.ticks = placed.ticks + next.length;
    line.date = placed.date + next.length;
    return placed;
}
