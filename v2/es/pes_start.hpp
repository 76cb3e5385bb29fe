// The start of a PES packet: its first bytes are gathered in the frame buffer, and its header and
// payload are found there. Each PES packet that is looked at takes these steps: pes_start::begin,
// video_frame_append as often as there is more, pes_start::find.
//
// Buffer and scanner are process-wide: there is one of each a run, overwritten at every PES packet,
// so that nothing is allocated per packet. Video has given the buffer its name and its size; audio
// that leads the cuts uses it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "toolkit/pes/pes_scanner.hpp"
#include "toolkit/ts/ts_packet.hpp"

extern uint8_t video_frame[8192];
extern size_t video_frame_sz; // bytes held

// Appends the packet's payload. Bytes beyond the buffer's end are dropped.
void video_frame_append(mpeg_ts_packet& pkt);

// The payload of a PES packet, as far as the frame buffer holds it, and its time.
struct pes_payload {
    const uint8_t* begin;
    const uint8_t* end;
    int64_t pts; // 90 kHz ticks; negative: none
};

class pes_start
{
public:
    // Begins with `pkt`, which starts a PES packet: its payload is then all that the frame buffer
    // holds. False if there is no memory for the scanner.
    [[nodiscard]] bool begin(mpeg_ts_packet& pkt);

    // Searches the frame buffer for a PES packet whose start code `is_wanted` accepts. Nothing if
    // there is none, or if nothing was ever begun.
    [[nodiscard]] std::optional<pes_payload> find(bool (*is_wanted)(uint32_t start_code));

private:
    mpeg_pes_ptr scanner_; // created by the first begin, and kept
};

// The run's own.
extern pes_start current_pes;
