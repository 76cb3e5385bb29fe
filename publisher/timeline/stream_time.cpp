#include "publisher/timeline/stream_time.hpp"

#include <cstdlib>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t spare = 3600 * pts_ticks_per_second;

} // namespace

int64_t stream_time(int64_t clock, int64_t date)
{
    const int64_t nearest = date + stamp_distance(date, clock);
    return nearest < 0 ? nearest + pts_modulus : nearest; // a machine that does not know its date
}

bool is_ambiguous(int64_t clock, int64_t date)
{
    return std::abs(stamp_distance(date, clock)) > pts_modulus / 2 - spare;
}

int64_t time_of_segment(uint64_t number, int64_t clock, int64_t date, int64_t slot)
{
    return static_cast<int64_t>(number) * slot + stream_time(clock, date) % slot;
}
