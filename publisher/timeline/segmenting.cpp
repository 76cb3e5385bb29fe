#include "publisher/timeline/segmenting.hpp"

#include <algorithm>
#include <vector>

namespace
{

// A list of a day is not measured anew with each segment: an hour tells what a stream needs.
constexpr int64_t most_measured = 3600 * pts_ticks_per_second;

// Of all renditions that the variant may need at once: its own and the shared ones.
uint64_t segment_bytes(const segment& s, const std::string& rung)
{
    uint64_t bytes = 0;
    for (const segment_file& file : s.files) {
        if (file.track == rung || !is_lead(file.track))
            bytes += file.bytes;
    }
    return bytes;
}

uint64_t bits_per_second(uint64_t bytes, int64_t duration)
{
    if (duration <= 0)
        return 0;
    const double seconds = static_cast<double>(duration) / pts_ticks_per_second;
    return static_cast<uint64_t>(static_cast<double>(bytes) * 8 / seconds + 1);
}

// What is fetched at once, and how long it lasts.
struct stretch {
    uint64_t bytes = 0;
    int64_t duration = 0;
};

bandwidth bandwidth_of(const std::vector<stretch>& stretches, int64_t target_duration)
{
    bandwidth result;
    uint64_t all_bytes = 0;
    int64_t all_duration = 0;
    const int64_t shortest = target_duration * pts_ticks_per_second / 2;
    const int64_t longest = target_duration * pts_ticks_per_second * 3 / 2;
    for (size_t first = 0; first < stretches.size(); first++) {
        all_bytes += stretches[first].bytes;
        all_duration += stretches[first].duration;
        uint64_t bytes = 0;
        int64_t duration = 0;
        for (size_t i = first; i < stretches.size() && duration < shortest; i++) {
            bytes += stretches[i].bytes;
            duration += stretches[i].duration;
        }
        if (duration <= longest && (duration >= shortest || stretches.size() == 1))
            result.peak = std::max(result.peak, bits_per_second(bytes, duration));
    }
    result.average = bits_per_second(all_bytes, all_duration);
    result.peak = std::max(result.peak, result.average);
    return result;
}

// Of the newest segments that last so many ticks together.
uint64_t newest_bytes(const presentation& p, int64_t ticks)
{
    uint64_t bytes = 0;
    int64_t duration = 0;
    for (auto s = p.listed.rbegin(); s != p.listed.rend() && duration < ticks; ++s) {
        bytes += bytes_of(*s);
        duration += s->duration;
    }
    return bytes;
}

} // namespace

segment_limits limits_of(const publisher_settings& settings)
{
    return {.wanted = static_cast<int64_t>(settings.segment * pts_ticks_per_second),
            .target = settings.target_duration,
            .numbers = settings.numbers};
}

bool may_join(const segment_limits& limits, int64_t gathered, int64_t next)
{
    return rounded_seconds(gathered + next) <= limits.target;
}

bool is_enough(const segment_limits& limits, int64_t gathered, int64_t last)
{
    return gathered + last / 2 >= limits.wanted || !may_join(limits, gathered, last);
}

// A picture that may be split at comes every few pictures, so it comes before the half second that
// rounding leaves.
int64_t longest_gop(const segment_limits& limits)
{
    return limits.target * pts_ticks_per_second + pts_ticks_per_second / 5;
}

int64_t outgrown_ms(const segment_limits& limits)
{
    return std::min((limits.target + 1) * 1000, limits.target * 1250);
}

int64_t listed_duration(const presentation& p)
{
    int64_t duration = 0;
    for (const segment& s : p.listed)
        duration += s.duration;
    return duration;
}

int64_t longest_list(const presentation& p)
{
    int64_t longest = 0;
    for (const segment& s : p.listed)
        longest = std::max(longest, s.list_duration);
    return longest;
}

size_t segments_to_retire(const presentation& p, const list_limits& limits, uint64_t listed_bytes)
{
    const int64_t least = least_listed(p.target_duration);
    const int64_t kept = std::max(limits.window * pts_ticks_per_second, least);
    uint64_t most_bytes = UINT64_MAX;
    if (limits.bytes > 0) {
        const uint64_t held = newest_bytes(p, least);
        most_bytes = limits.bytes > held ? limits.bytes - held : 0;
    }
    int64_t duration = listed_duration(p);
    size_t count = 0;
    for (; count < p.listed.size(); count++) {
        const segment& s = p.listed[count];
        if (duration - s.duration < (listed_bytes > most_bytes ? least : kept))
            break;
        duration -= s.duration;
        listed_bytes -= bytes_of(s);
    }
    return count;
}

int64_t availability(const segment& leaving, int64_t longest_playlist)
{
    return leaving.duration + longest_playlist + spare_availability;
}

bandwidth measured_bandwidth(const presentation& p, const std::string& rung)
{
    std::vector<stretch> stretches;
    for (const segment* s : segments_of(p, rung, most_measured))
        stretches.push_back({.bytes = segment_bytes(*s, rung), .duration = s->duration});
    return bandwidth_of(stretches, p.target_duration);
}

bandwidth keyframe_bandwidth(const presentation& p, const std::string& rung)
{
    std::vector<stretch> stretches;
    for (const segment* s : segments_of(p, rung, most_measured)) {
        for (const segment_file& file : s->files) {
            for (size_t i = 0; file.track == rung && i < file.keyframes.size(); i++) {
                const bool is_last = i + 1 == file.keyframes.size();
                const int64_t end = is_last ? s->duration : file.keyframes[i + 1].at;
                stretches.push_back(
                    {.bytes = file.keyframes[i].bytes, .duration = end - file.keyframes[i].at});
            }
        }
    }
    return stretches.empty() ? bandwidth{} : bandwidth_of(stretches, p.target_duration);
}
