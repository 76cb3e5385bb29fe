// The 90 kHz clock of time stamps, ISO/IEC 13818-1, 2.4.3.7: 33 bits, so it begins again every
// 26.5 hours.
#pragma once

#include <cstdint>

constexpr int64_t ticks_per_second = 90000;
constexpr int64_t ticks_per_millisecond = 90;
constexpr int64_t clock_period = int64_t{1} << 33;

// From `earlier` to `later` the shorter way round the clock; negative where that leads back.
constexpr int64_t clock_difference(int64_t later, int64_t earlier)
{
    const int64_t forward = (later - earlier) & (clock_period - 1);
    return forward < clock_period / 2 ? forward : forward - clock_period;
}

// `time` moved by any number of ticks, back on the clock.
constexpr int64_t clock_add(int64_t time, int64_t ticks)
{
    return (time + ticks) & (clock_period - 1);
}

// Whole seconds, halves up: what RFC 8216 4.3.3.1 compares with the target duration.
constexpr int64_t rounded_seconds(int64_t ticks)
{
    return (ticks + ticks_per_second / 2) / ticks_per_second;
}
