// Splice times follow the clock: pts_adjustment, ANSI/SCTE 35, 9.6, is there for that. It stands in
// the clear even where the rest of a section is encrypted.
#pragma once

#include <cstdint>

#include "toolkit/ts/ts_packet.hpp"

// Adds ticks of 90 kHz to the times of the sections that begin in the packet, in place. Returns how
// many of them were left as they are: they go on in another packet, or are damaged.
unsigned move_splices(mpeg_ts_packet& pkt, int64_t ticks);
