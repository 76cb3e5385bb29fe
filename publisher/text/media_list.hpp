// A media playlist of ours, read again: to go on from it, or to take segments out of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct listed_segment {
    std::string uri;
    int64_t duration = 0; // 90 kHz ticks
    int64_t date = 0;     // of its beginning: ticks since 1970; behind the one before if untold
    bool discontinuity = false; // one stands before it
    uint64_t range_begin = 0;   // of the URI's bytes, where they are not all of it
    uint64_t range_bytes = 0;   // 0: all
    std::string text;           // its lines, the URI's included, as they stand in the list
};

// A line that tells of a date range or of its end.
struct listed_range {
    int64_t date = 0; // of the segment that it stands before; behind them, of their end
    std::string text;
};

struct media_list {
    int64_t target_duration = 0; // seconds
    uint64_t sequence = 0;       // of the first segment
    uint64_t discontinuity_sequence = 0;
    bool is_event = false; // nothing has left it
    bool ended = false;
    std::string header; // lines that say something else of the whole list
    std::vector<listed_range> date_ranges;
    std::vector<listed_segment> segments;
};

// What cannot be read is passed over; a segment whose last line has no end is none.
media_list parse_media_list(std::string_view text);

// Ticks since 1970 of "2026-11-21T21:09:11.040Z"; 0: it is no such date.
int64_t ticks_of_date(std::string_view text);
