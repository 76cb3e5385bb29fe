// The cut: when all renditions go over to new fragments, and what happens then. Video programmes
// are cut at keyframes, programmes without video at audio PES starts. Renditions are retired (their
// fragment closed, listed, the backlog trimmed) and then opened, in a fixed order.
#pragma once

#include <cstdint>

#include "v2/base/cmdopts.hpp"

struct HLSbundle;
struct PIDmap;

// Called for every video PES packet with a PTS, 0 or more in 90 kHz ticks. Keeps the timing fields
// of the PIDmap, and cuts at a keyframe that lies strictly past the cut window's end, before its
// start, or more than 600 s away from the start of the fragment.
void video_cut(int64_t pts, bool is_keyframe, PIDmap& pm, HLSbundle& bundle, const cmdopts& opts);

// Called for every audio PES packet with a PTS and a payload, in programmes without video. The next
// fragments are opened by the packets that follow; WebVTT renditions and the master playlist stay
// as they are.
void audio_cut(int64_t pts, PIDmap& pm, HLSbundle& bundle);
