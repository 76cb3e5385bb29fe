// Caption events from the control socket: one "vtt" packet is one cue. Cues wait in a queue per
// language until the WebVTT writer takes them.
#pragma once

#include <deque>
#include <map>
#include <string>

#include "toolkit/comm/comm_socket_v4.hpp"
#include "v2/base/cmdopts.hpp"
#include "v2/captions/vtt_cue.hpp"

// The run's control socket; null when there is none. Process-wide: a process has one parent.
extern comm_socket_v4_ptr caption_socket;

// Waiting cues by language key, oldest at the front; keys are never removed. Process-wide, like the
// socket that fills it.
extern std::map<std::string, std::deque<vtt_cue>> vtt_queues;

// Serves the control socket: takes at most one packet, turns it into a cue and queues it. False
// only when the connection is broken. What it cannot use is reported on standard error and ignored.
[[nodiscard]] bool check_socket(const cmdopts& opts);
