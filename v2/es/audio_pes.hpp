// Audio PES packets of programmes without video: their times take the place of keyframes.
#pragma once

#include "toolkit/io/sliding_window.hpp"
#include "toolkit/ts/ts_packet.hpp"
#include "v2/base/cmdopts.hpp"

struct HLSbundle;
struct PIDmap;

// Handles a packet of the audio PID. Only one that starts a PES packet counts, and the PES header
// must lie in it. False only if there is no memory for the PES scanner. The window, `stop` and the
// options are not used.
[[nodiscard]] bool io_proc_ts_packet_audio_pes(sliding_window_v4* in_mts, PIDmap& pm,
                                               mpeg_ts_packet& pkt, bool& stop, HLSbundle& bundle,
                                               const cmdopts& opts);
