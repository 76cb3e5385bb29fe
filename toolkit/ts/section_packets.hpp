// Packets that carry a PSI section, ISO/IEC 13818-1, 2.4.4: pointer_field 0, the section, and 0xFF
// up to the end of the last packet.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

// Appends the packets to `out`. `continuity_counter` is that of the first one, and afterwards that
// of the packet to come.
void write_section_packets(std::vector<uint8_t>& out, uint16_t pid,
                           std::span<const uint8_t> section, uint8_t& continuity_counter);
