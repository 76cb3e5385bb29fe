#include "publisher/timeline/timeline.hpp"

#include <algorithm>
#include <cstdlib>

#include "publisher/timeline/stream_time.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

// Encoders drop pictures and receivers lose them: a hole up to this is a part of the GOP before it,
// and players jump it. A longer one is told to them.
constexpr int64_t longest_hole = pts_ticks_per_second / 2;

constexpr int64_t furthest_before = 600 * pts_ticks_per_second;

// The stream's own time of day has whole seconds, and comes when it comes.
constexpr int64_t date_tolerance = 2 * pts_ticks_per_second;

// Where a run begins or fragments are missing, only the very next picture goes on.
bool goes_on(const timeline& line, const timed_gop& next)
{
    const int64_t hole = std::abs(stamp_distance(line.clock, next.start));
    return line.begun && next.same_layout && hole <= (next.after_loss ? same_place : longest_hole);
}

// Buffers fill at different speeds when a run begins.
constexpr int64_t passing_tolerance = 30 * pts_ticks_per_second;

// How far the clock has run on while nothing came; 0: it has not. What is fetched late, as a
// backlog behind an outage, arrives later than its time, and never before it. So the clock has
// begun anew as often as there was time for.
int64_t run_over_loss(const timeline& line, const timed_gop& next)
{
    if (!line.begun || !next.same_layout || !next.after_loss)
        return 0;
    const int64_t passed = next.arrival - next.length - date_of_arrival(line);
    const int64_t most = passed + passing_tolerance;
    return std::max<int64_t>(most - stamp_sum(most, line.clock - next.start), 0);
}

// So that those who see it at nearly the same time tell the same.
int64_t whole_seconds(int64_t ticks)
{
    return (ticks + pts_ticks_per_second / 2) / pts_ticks_per_second * pts_ticks_per_second;
}

// Dates never fall, whatever the clocks of the stream and of the machine do.
int64_t date_where_it_goes_on(const timeline& line, const std::optional<int64_t>& by_stream,
                              int64_t hole)
{
    const int64_t date = line.date + std::max<int64_t>(hole, 0);
    return by_stream && *by_stream > date + date_tolerance ? *by_stream : date;
}

int64_t date_at_beginning(const timeline& line, const timed_gop& next,
                          const std::optional<int64_t>& by_stream, const placed_gop& placed)
{
    const int64_t exact = by_stream.value_or(next.arrival - next.length);
    if (placed.stream == 0 || by_stream)
        return line.begun ? std::max(exact, line.date) : exact;
    if (!line.begun)
        return placed.stream + whole_seconds(exact - placed.stream);
    return next.after_loss ? line.date + whole_seconds(std::max<int64_t>(exact - line.date, 0))
                           : line.date;
}

} // namespace

int64_t date_of_arrival(const timeline& line)
{
    return line.arrival != 0 ? line.arrival : line.date;
}

int64_t stream_behind(const timeline& line, uint64_t number, int64_t duration, int64_t slot)
{
    return time_of_segment(number, stamp_sum(line.clock, -duration), date_of_arrival(line), slot) +
           duration;
}

bool is_from_before(int64_t start, int64_t clock)
{
    const int64_t distance = stamp_distance(clock, start);
    return distance < -same_place && distance > -furthest_before;
}

int64_t length_until(int64_t start, int64_t own_length, int64_t next_start)
{
    const int64_t length = stamp_distance(start, next_start);
    return length > 0 && std::abs(length - own_length) <= longest_hole ? length : own_length;
}

bool is_broken(const timeline& line, const timed_gop& next, numbering numbers)
{
    return line.begun && !goes_on(line, next) &&
           (numbers == numbering::count || run_over_loss(line, next) == 0);
}

placed_gop place_gop(timeline& line, const timed_gop& next, numbering numbers)
{
    placed_gop placed;
    const bool by_stream = numbers == numbering::stream;
    const bool at_once = goes_on(line, next);
    const int64_t missed = by_stream && !at_once ? run_over_loss(line, next) : 0;
    placed.after_hole = missed > 0;
    const bool on = at_once || placed.after_hole;
    const int64_t hole = at_once ? stamp_distance(line.clock, next.start) : missed;
    placed.discontinuity = line.begun && !on;
    placed.clock = next.start;
    placed.ticks = on ? line.ticks + hole : next.start;
    if (by_stream)
        placed.stream = on && line.stream != 0
                            ? line.stream + hole
                            : stream_time(next.start, next.arrival - next.length);
    std::optional<int64_t> by_table;
    if (next.mark)
        by_table = next.mark->unix_ms * pts_ticks_per_millisecond +
                   stamp_distance(next.mark->clock, next.start);
    placed.date = on ? date_where_it_goes_on(line, by_table, hole)
                     : date_at_beginning(line, next, by_table, placed);

    line.begun = true;
    line.clock = (next.start + next.length) & (pts_modulus - 1);
    line.ticks = placed.ticks + next.length;
    line.date = placed.date + next.length;
    line.stream = by_stream ? placed.stream + next.length : 0;
    line.arrival = next.arrival;
    return placed;
}
