// Finds PES packet headers in a byte range, ISO/IEC 13818-1, 2.4.3.6 and 2.4.3.7.
#pragma once

#include <cstdint>
#include <memory>

#include "toolkit/owner.hpp"

// What the last scan found. All pointers point into the range that was scanned.
struct mpeg_pes {
    uint32_t start_code = 0;               // 0x000001xx; 0: none found
    const uint8_t* payload = nullptr;      // past the whole PES header; null: no header, or cut off
    const uint8_t* packet_start = nullptr; // the start code's first byte
    const uint8_t* packet_end = nullptr;   // start + 6 + PES_packet_length, or the range's end if
                                           // that comes first; null when unbounded
    bool at_end = false;                   // no further start code can follow in the range
    int64_t pts = -1;                      // 90 kHz ticks, 33 bits; -1: none
};

// A scanner in its initial state; null when there is no memory for it.
[[nodiscard]] mpeg_pes* mpeg_pes_create();
void mpeg_pes_destroy(mpeg_pes* scanner);

using mpeg_pes_ptr = std::unique_ptr<mpeg_pes, destroy_with<mpeg_pes_destroy>>;

// Scans [p, end) for the next start code, fills `scanner` for it and returns the position to
// continue from: past the start code, or `end`. Always advances. A header whose PES_packet_length
// does not cover the header itself, or that lacks its '10' marker bits, is no PES header.
const uint8_t* mpeg_pes_scan(mpeg_pes* scanner, const uint8_t* p, const uint8_t* end);
