// Gathers every PSI section of a PID, ISO/IEC 13818-1, 2.4.4: several in one packet, one over many,
// each as soon as its last byte is there.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "toolkit/ts/ts_packet.hpp"

struct ts_section_gatherer {
    std::vector<uint8_t> section;  // what has come of the section that is being gathered
    bool begun = false;            // it has
    bool takes_short_form = false; // also sections of the short form, which have a CRC_32 too
    std::vector<uint8_t>
        complete; // the sections that the last packet completed, one behind another
};

// Takes the payload of the PID's next packet. Afterwards `complete` holds the sections whose last
// byte was in it, if they have the long form, or are allowed to have the short one, and a sound
// CRC_32.
void ts_section_gatherer_take(ts_section_gatherer& gatherer, const mpeg_ts_packet& pkt);

// The first of the sections in `rest`, which is shortened by it; empty when there is none.
std::span<const uint8_t> ts_next_section(std::span<const uint8_t>& rest);
