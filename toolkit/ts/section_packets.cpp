#include "toolkit/ts/section_packets.hpp"

#include <algorithm>

#include "toolkit/ts/ts_packet.hpp"

void write_section_packets(std::vector<uint8_t>& out, uint16_t pid,
                           std::span<const uint8_t> section, uint8_t& continuity_counter)
{
    for (bool first = true; !section.empty(); first = false) {
        const size_t at = out.size();
        out.resize(at + ts_packet_bytes, 0xFF);
        uint8_t* const packet = out.data() + at;
        uint8_t* payload = write_ts_header(packet, first ? ts_flag_payload_unit_start : 0, pid,
                                           ts_control_payload_only, continuity_counter);
        if (first)
            *payload++ = 0; // pointer_field
        continuity_counter = (continuity_counter + 1) & 0x0F;

        const auto room = static_cast<size_t>(packet + ts_packet_bytes - payload);
        const auto part = section.first(std::min(room, section.size()));
        std::ranges::copy(part, payload);
        section = section.subspan(part.size());
    }
}
