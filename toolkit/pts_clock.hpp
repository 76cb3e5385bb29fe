// The 90 kHz clock of presentation time stamps, ISO/IEC 13818-1, 2.4.3.7. Stream times are ticks in
// signed 64-bit integers; negative means unknown.
#pragma once

#include <cstdint>

constexpr int64_t pts_ticks_per_second = 90000;
constexpr int64_t pts_ticks_per_millisecond = pts_ticks_per_second / 1000;

// The clock has 33 bits.
constexpr int64_t pts_modulus = int64_t{1} << 33;
constexpr uint64_t pts_mask = pts_modulus - 1;
