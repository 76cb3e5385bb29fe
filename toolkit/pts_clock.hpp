// The 90 kHz clock of presentation time stamps, ISO/IEC 13818-1, 2.4.3.7. Stream times are ticks in
// signed 64-bit integers; negative means unknown.
#pragma once

#include <cstdint>

constexpr int64_t pts_ticks_per_second = 90000;
constexpr int64_t pts_ticks_per_millisecond = pts_ticks_per_second / 1000;

// The clock has 33 bits.
constexpr int64_t pts_modulus = int64_t{1} << 33;
constexpr uint64_t pts_mask = pts_modulus - 1;

// Forward from `from` to `to` on the clock of 33 bits, the short way round: negative when `to` is
// behind.
constexpr int64_t stamp_distance(int64_t from, int64_t to)
{
    const int64_t forward = (to - from) & (pts_modulus - 1);
    return forward < pts_modulus / 2 ? forward : forward - pts_modulus;
}

// `ticks` moved by any number of ticks, back on the clock.
constexpr int64_t stamp_sum(int64_t ticks, int64_t more)
{
    return (ticks + more) & (pts_modulus - 1);
}
