// Turns what a decoder shows, screen after screen, into cues. A cue goes out when its end is known.
//
// Two rules keep live captions in time. What stays on screen longer than longest_cue_ticks goes out
// in pieces, because a cue has to reach the fragment that is being written. And letters that come
// one after the other change a cue that is just a little old instead of beginning the next one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "toolkit/pts_clock.hpp"
#include "tools/captions/caption_screen.hpp"

// Players stay three fragments behind, and hardly any fragment is shorter than a second.
constexpr int64_t longest_cue_ticks = 3 * pts_ticks_per_second;
constexpr int64_t letters_ticks = pts_ticks_per_second / 2;

// A hostile stream may make several cues with every packet; then the oldest goes.
constexpr size_t most_kept_cues = 128;

// Times are those of presentation_clock.
struct broadcast_cue {
    int64_t start = 0;
    int64_t end = 0; // after the start
    std::string text;
    std::string settings;
};

enum class screen_change {
    whole,   // the caption was replaced, moved or erased
    letters, // something was added to it
};

struct screen_cues {
    // From this time on `screen` is shown. Times never go back, except after forget().
    void show(int64_t time, const caption_screen& screen, screen_change change);

    // It is this late, and nothing has changed.
    void advance(int64_t time);

    // What is shown ends at the latest time known, since what follows has another clock.
    void forget();

    // What is complete, in order; the caller takes it from here.
    std::deque<broadcast_cue> cues;
    size_t lost = 0; // cues that the caller was too late for; it takes this, too

    caption_screen shown; // no lines: nothing
    int64_t since = 0;    // when the cue of `shown` begins
    int64_t latest = 0;   // time seen
};
