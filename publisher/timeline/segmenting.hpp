// Which GOPs become one segment, and which segments are listed. Pure functions of numbers and
// records.
#pragma once

#include <cstdint>
#include <string>

#include "publisher/config/settings.hpp"
#include "publisher/text/presentation.hpp"
#include "toolkit/pts_clock.hpp"

struct segment_limits {
    int64_t wanted = 0; // ticks
    int64_t target = 0; // seconds
    numbering numbers = numbering::count;
};

segment_limits limits_of(const publisher_settings& settings);

// Whole seconds, halves up: what RFC 8216 4.3.3.1 compares with the target duration.
constexpr int64_t rounded_seconds(int64_t ticks)
{
    return (ticks + pts_ticks_per_second / 2) / pts_ticks_per_second;
}

// Whether a GOP of `next` ticks may join the `gathered` ones.
bool may_join(const segment_limits& limits, int64_t gathered, int64_t next);

// Whether what is gathered had better be a segment now: another GOP like the last one would lead
// further from what is wanted, or past the target duration.
bool is_enough(const segment_limits& limits, int64_t gathered, int64_t last);

// Pictures from here on are split off a GOP: it would outgrow the target duration.
int64_t longest_gop(const segment_limits& limits);

// A fragment that has been written for so long is read as it grows: a split GOP has to be listed
// within one and a half target durations of what came before.
int64_t outgrown_ms(const segment_limits& limits);

// How much stays listed.
struct list_limits {
    int64_t window = 0; // seconds
    uint64_t bytes = 0; // that the directory may have, with what is listed no longer; 0: any
};

// How many segments leave the front of the list so that it keeps its limits: so that `window`
// seconds stay listed, less where they would have too many of the bytes, and three target durations
// at least, RFC 8216 6.2.2. As much as that may still be there of what has left.
size_t segments_to_retire(const presentation& p, const list_limits& limits, uint64_t listed_bytes);

// Who reads the list now and then sees late that a segment has left it.
constexpr int64_t spare_availability = pts_ticks_per_second;

// For how long the file of a segment that leaves the list now stays: its own duration and that of
// the longest playlist that listed it, RFC 8216 6.2.2, and a little more. Ticks.
int64_t availability(const segment& leaving, int64_t longest_playlist);

int64_t listed_duration(const presentation& p);

// The longest of all lists that have had the oldest segment listed, ticks.
int64_t longest_list(const presentation& p);

// Of all that the variant of a rung needs, bits per second. The peak is that of segments in a row
// which together last between half and one and a half of the target duration, RFC 8216 4.3.4.2.
struct bandwidth {
    uint64_t peak = 0;
    uint64_t average = 0;
};
bandwidth measured_bandwidth(const presentation& p, const std::string& rung);

// The same of its keyframes that are listed, each of which lasts until the next; 0: there are none.
bandwidth keyframe_bandwidth(const presentation& p, const std::string& rung);
