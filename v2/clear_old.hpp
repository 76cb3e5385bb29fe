// Clearing of what an earlier run with the same names has left behind.
#pragma once

#include "v2/base/cmdopts.hpp"

// Removes regular files whose names fit the patterns of the playlists and fragments that this
// program writes, reporting each on standard error; leaves all else alone. False as soon as a file
// cannot be removed. A directory that cannot be read is passed over.
[[nodiscard]] bool clear_old_output(const cmdopts& opts);
