// Arithmetic on the 90 kHz clock of time stamps, ISO/IEC 13818-1, 2.4.3.7, which begins again every
// 26.5 hours.
#pragma once

#include <cstdint>

#include "toolkit/pts_clock.hpp"

// From `earlier` to `later` the shorter way round the clock; negative where that leads back.
constexpr int64_t clock_difference(int64_t later, int64_t earlier)
{
    const int64_t forward = (later - earlier) & (pts_modulus - 1);
    return forward < pts_modulus / 2 ? forward : forward - pts_modulus;
}

// `time` moved by any number of ticks, back on the clock.
constexpr int64_t clock_add(int64_t time, int64_t ticks)
{
    return (time + ticks) & (pts_modulus - 1);
}

// Whole seconds, halves up: what RFC 8216 4.3.3.1 compares with the target duration.
constexpr int64_t rounded_seconds(int64_t ticks)
{
    return (ticks + pts_ticks_per_second / 2) / pts_ticks_per_second;
}
