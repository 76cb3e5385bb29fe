// Standard input through the byte window: refilling it, and finding packet starts in it.
#pragma once

#include <cstdint>

#include "toolkit/io/sliding_window.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/pipe_pace.hpp"

// Fills the window until at least `wanted` bytes are buffered. Each read takes as much as fits, so
// a regular file fills the window at once, and a datagram is never cut short; a pipe is read at the
// moments that `pace` chooses. False, with pm.eof set, when the input ended or failed before that;
// what is buffered stays readable, and nothing is read again. Flushes the window first, so pointers
// into it are invalid afterwards.
[[nodiscard]] bool refill_until(sliding_window_v4* in_mts, PIDmap& pm, pipe_pace& pace,
                                uint64_t wanted);

// Moves the read position to the next byte 0x47 that is followed by up to seven more at packet
// distance, as far as whole packets are buffered. False, one byte past the candidate, if one of
// them is missing. A tail shorter than a packet counts as synchronised.
[[nodiscard]] bool synchronise(sliding_window_v4* in_mts);
