// Video PES packets: the first bytes of each are gathered by looking ahead in the input window, and
// its time and whether it begins with a keyframe decide about a cut.
#pragma once

#include "toolkit/io/sliding_window.hpp"
#include "toolkit/ts/ts_packet.hpp"
#include "v2/base/cmdopts.hpp"

struct HLSbundle;
struct PIDmap;

// Handles a packet of the video PID that starts a PES packet, with which current_pes has begun. The
// window's read position is the packet after it. Always true. `stop` is left as it is.
[[nodiscard]] bool io_proc_ts_packet_video_pes(sliding_window_v4* in_mts, PIDmap& pm,
                                               mpeg_ts_packet& pkt, bool& stop, HLSbundle& bundle,
                                               const cmdopts& opts);
