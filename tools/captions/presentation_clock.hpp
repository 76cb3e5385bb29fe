// Times of a stream without the wrap of its clock, which has 33 bits and starts again after a bit
// more than a day.
#pragma once

#include <cstdint>

#include "toolkit/pts_clock.hpp"

struct presentation_clock {
    // The time nearest to the last one that has these 33 bits.
    int64_t unwrapped(int64_t pts)
    {
        if (last < 0 || last > furthest) {
            last = pts + pts_modulus; // so that a time before it is not negative
            return last;
        }
        int64_t step = (pts - last) % pts_modulus;
        if (step < -pts_modulus / 2)
            step += pts_modulus;
        else if (step > pts_modulus / 2)
            step -= pts_modulus;
        last += step;
        if (last < 0)
            last += pts_modulus;
        return last;
    }

    // Only a stream that leaps with every packet comes here. It leaps once more.
    static constexpr int64_t furthest = int64_t{1} << 62;

    int64_t last = -1; // -1: none yet
};

// Whether a stream that was at `last` and is at `now` still runs on the same clock. Captions are
// not carried over a leap.
inline bool is_continuous(int64_t last, int64_t now)
{
    constexpr int64_t longest_step = 10 * pts_ticks_per_second;
    constexpr int64_t longest_step_back = pts_ticks_per_second; // of streams that are not in order
    return now - last <= longest_step && last - now <= longest_step_back;
}
