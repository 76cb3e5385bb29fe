// Where a GOP stands in the presentation: whether the clock goes on, and what the time of day is.
// Pure functions of records.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "publisher/config/settings.hpp"
#include "publisher/read/gop.hpp"
#include "publisher/text/date_range.hpp"
#include "toolkit/pts_clock.hpp"

// Where the presentation has come to. Kept over restarts.
struct timeline {
    bool begun = false;
    int64_t clock = 0; // what the stream's clock, 33 bits, shows at the end
    int64_t ticks = 0; // the same since the clock began to run on; set out from its 33 bits, so
                       // that it only differs where the clock has begun anew
    int64_t date = 0;  // ticks since 1970 at the end
    // Where numbers come from the stream: its time at the end, see stream_time.hpp, moved by whole
    // segments; 0: not known. Not kept: the clock, the last segment's number, and when that came
    // tell it.
    int64_t stream = 0;
    int64_t arrival = 0;            // when the end had been written, ticks since 1970; 0: not known
    std::vector<date_range> ranges; // of splices: not over, or still to come

    bool operator==(const timeline&) const = default;
};

// What of a GOP matters here.
struct timed_gop {
    int64_t start = 0;             // 33 bits
    int64_t length = 0;            // ticks to the next GOP, or to its own end where none follows
    bool after_loss = false;       // another run began before it, or fragments are missing
    int64_t arrival = 0;           // when its end had been written: ticks since 1970
    bool same_layout = true;       // as the GOP before it
    std::optional<date_mark> mark; // what the stream says about the time of day
};

struct placed_gop {
    bool discontinuity = false;
    bool after_hole = false; // something is missing before it, and the clock has run on meanwhile
    int64_t clock = 0;       // at its start
    int64_t ticks = 0;
    int64_t date = 0;
    int64_t stream = 0; // as the timeline has it
};

// Whether a discontinuity stands before the GOP.
bool is_broken(const timeline& line, const timed_gop& next, numbering numbers);

// Places the GOP and moves the timeline to its end. Where numbers come from the stream, one that
// was away goes on as if it had been there: what it missed is a hole and no discontinuity.
placed_gop place_gop(timeline& line, const timed_gop& next, numbering numbers);

// When the end came: ticks since 1970.
int64_t date_of_arrival(const timeline& line);

// The stream's time at the end, which is that of the segment with this number and duration.
int64_t stream_behind(const timeline& line, uint64_t number, int64_t duration, int64_t slot);

// What is published ends within a picture of where the next one begins. Ticks.
constexpr int64_t same_place = pts_ticks_per_second / 20;

// Whether a GOP that begins at `start` is from before the place at `clock`, 33 bits both. What is
// further away is of another clock.
bool is_from_before(int64_t start, int64_t clock);

// How long a GOP lasts, by the beginning of the one behind it where that goes on, else by itself.
int64_t length_until(int64_t start, int64_t own_length, int64_t next_start);
