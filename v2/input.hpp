// Standard input through the byte window: refilling it, and finding packet starts in it.
#pragma once

#include <cstdint>

#include "toolkit/io/sliding_window.hpp"
#include "v2/demux/pid_map.hpp"

enum class refill_amount {
    as_much_as_fits, // in few large reads: may pause for more to come together in a pipe
    missing_only,    // reads no more than what is asked for
};

// Fills the window until at least `wanted` bytes are buffered. False, with pm.eof set, when the
// input ended or failed before that; what is buffered stays readable. Flushes the window first, so
// pointers into it are invalid afterwards.
[[nodiscard]] bool refill_until(sliding_window_v4* in_mts, PIDmap& pm, uint64_t wanted,
                                refill_amount amount = refill_amount::as_much_as_fits);

// Moves the read position to the next byte 0x47 that is followed by up to seven more at packet
// distance, as far as whole packets are buffered. False, one byte past the candidate, if one of
// them is missing. A tail shorter than a packet counts as synchronised.
[[nodiscard]] bool synchronise(sliding_window_v4* in_mts);
