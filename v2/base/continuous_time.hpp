// How far apart two presentation times may lie and still be taken for one run of the clock.
#pragma once

#include <cstdint>

#include "toolkit/pts_clock.hpp"

// The largest step still treated as continuous time: one tick short of 600 s.
constexpr int64_t max_continuous_ticks = 600 * pts_ticks_per_second - 1;
