// The road of each packet: decoded in place, handed to the tables or the elementary streams,
// filtered, and written to its rendition straight from the input window. Nothing is allocated or
// copied on the common path.
#pragma once

#include <cstdint>

#include "toolkit/io/sliding_window.hpp"
#include "toolkit/ts/ts_packet.hpp"
#include "v2/base/cmdopts.hpp"
#include "v2/demux/pid_map.hpp"

struct HLSbundle;

// Bytes of input kept unread until it ends, so that PES starts can be gathered ahead.
constexpr uint64_t in_mts_ahead = 8192 * ts_packet_bytes;

// Processes the buffered packets, keeping the look-ahead unread while the input has not ended, and
// rewrites the master playlist first if it is due. False ends the run with status 2: too little is
// buffered, a packet could not be handled or written, or no cut was found for 64 MiB.
[[nodiscard]] bool process_packets(HLSbundle& bundle, sliding_window_v4* in_mts, PIDmap& pm,
                                   const cmdopts& opts);

// Hands one decoded packet to the table assemblers or the elementary stream analysis. `stop` is set
// when the rest of the buffer must wait for the next pass.
[[nodiscard]] bool dispatch_packet(sliding_window_v4* in_mts, PIDmap& pm, mpeg_ts_packet& pkt,
                                   bool& stop, HLSbundle& bundle, const cmdopts& opts);
