// The first bytes of one PES packet, gathered from transport packets of one PID, and the search for
// the PES header in them. The buffer, 8192 bytes, and the scanner are process-wide: there is one of
// each a run, overwritten at every PES packet, so that nothing is allocated per packet.
#pragma once

#include <cstdint>

#include "toolkit/pes/pes_scanner.hpp"
#include "toolkit/ts/ts_packet.hpp"

// Forgets what is held.
void video_frame_clear();

// Appends the packet's payload. Bytes beyond the buffer's end are dropped.
void video_frame_append(const mpeg_ts_packet& pkt);

[[nodiscard]] bool video_frame_is_full();

// Creates the run's PES scanner if there is none yet. False if there is no memory for it.
[[nodiscard]] bool ensure_pes_scanner();

// The payload of a PES packet, as far as the buffer holds it, and its time.
struct pes_payload {
    const uint8_t* begin = nullptr; // null: no packet of a wanted stream was found
    const uint8_t* end = nullptr;
    int64_t pts = -1; // 90 kHz ticks; -1: none
};

// Searches the held bytes for a PES packet whose start code `is_wanted` accepts. The scanner must
// exist.
[[nodiscard]] pes_payload find_pes_payload(bool (*is_wanted)(uint32_t start_code));
