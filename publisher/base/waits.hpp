// How long to wait, in milliseconds; no_wait_ends where nothing but news ends it.
#pragma once

#include <algorithm>
#include <cstdint>

constexpr int64_t no_wait_ends = -1;

constexpr int64_t sooner(int64_t a, int64_t b)
{
    if (a == no_wait_ends || b == no_wait_ends)
        return std::max(a, b);
    return std::min(a, b);
}
