#include "v2/pipe_pace.hpp"

#include <algorithm>

namespace
{

constexpr int batch_bytes = 16 * 1024;
constexpr int large_batch_bytes = 40 * 1024;
constexpr int least_capacity = 4 * batch_bytes; // a smaller pipe fills up during a pause
constexpr int shortest_pause_ms = 1;
constexpr int longest_pause_ms = 32;

// A pipe that is nearly full after a pause was filled by a source that is faster, or is catching
// up. It must not be held up: so much is read before the next pause.
constexpr uint64_t flood_bytes = 1024 * 1024;

} // namespace

int pause_before_read(const pipe_pace& pace, const pipe_level& now)
{
    const bool may_pause = now.capacity >= least_capacity && pace.unpaused_bytes == 0;
    return may_pause && now.standing < batch_bytes ? pace.pause_ms : 0;
}

void note_pause(pipe_pace& pace, const pipe_level& after)
{
    if (after.standing < batch_bytes)
        pace.pause_ms = std::min(2 * pace.pause_ms, longest_pause_ms);
    else if (after.standing >= large_batch_bytes)
        pace.pause_ms = std::max(pace.pause_ms / 2, shortest_pause_ms);
    if (after.standing >= after.capacity / 4 * 3)
        pace.unpaused_bytes = flood_bytes;
}

void note_read(pipe_pace& pace, uint64_t bytes)
{
    pace.unpaused_bytes -= std::min(pace.unpaused_bytes, bytes);
}
