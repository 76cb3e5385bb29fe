// Gathers one PSI section at a time from the packets of one PID, ISO/IEC 13818-1, 2.4.4.
//
// Calling order per packet. A packet that starts a unit: complete, take_ready, discard, begin.
// A continuation packet: add, take_ready, and discard when a section was ready. A section that fits
// one packet is therefore delivered when the next unit of its PID starts, or at a continuation
// packet with payload that comes before. Only the first section of a unit is gathered. A section
// whose CRC_32 fails is dropped; identical sections are delivered each time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/ts_packet.hpp"

struct mpeg_ts_table_assembly {
    std::vector<uint8_t> buffer;    // its size is the capacity
    size_t gathered = 0;            // bytes held at the front of the buffer
    bool begun = false;             // a section is being gathered
    bool ready = false;             // all its bytes are there, and it may be taken
    mpeg_ts_pat_main_header header; // of the section taken last
};

// An empty gatherer of `capacity` bytes; resets one that was used.
void mpeg_ts_table_assembly_init(mpeg_ts_table_assembly& assembly, size_t capacity);

// Starts a section at the packet's pointer_field. A pointer at or past the payload's end begins
// nothing. `header` stands for an already decoded section header; there is none in this program,
// so callers pass null.
void mpeg_ts_table_assembly_begin(mpeg_ts_table_assembly& assembly,
                                  const mpeg_ts_pat_main_header* header, const mpeg_ts_packet& pkt);

// Appends the payload of a continuation packet. Does nothing when no section is begun or the
// packet has no payload. Bytes beyond the capacity are dropped.
void mpeg_ts_table_assembly_add(mpeg_ts_table_assembly& assembly, const mpeg_ts_packet& pkt);

// Declares the gathered bytes complete, because a new unit starts.
void mpeg_ts_table_assembly_complete(mpeg_ts_table_assembly& assembly);

// Non-zero when a whole, sound section is ready. `header` then points into the assembly; the data
// runs from the byte after the section's 8-byte header to its CRC_32, which is not included. All
// three are valid until the assembly is touched again.
[[nodiscard]] int mpeg_ts_table_assembly_take_ready(mpeg_ts_table_assembly& assembly,
                                                    const mpeg_ts_pat_main_header*& header,
                                                    const uint8_t*& data, const uint8_t*& end);

// Forgets the current section.
void mpeg_ts_table_assembly_discard(mpeg_ts_table_assembly& assembly);
