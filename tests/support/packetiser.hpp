// Splits payload units (PES packets, PSI sections) into transport packets, with a continuity
// counter per PID.
#pragma once

#include <map>

#include "tests/support/ts_builder.hpp"

class packetiser
{
public:
    // The packets of one PES packet. The last one is filled up by an adaptation field. The first
    // has one too when `first` gives it, for a PCR or an indicator.
    byte_string pes(uint16_t pid, std::span<const uint8_t> unit,
                    const std::optional<adaptation_fields>& first = std::nullopt);

    // The packets of one section unit (pointer_field and section). The last one is filled up with
    // 0xFF behind the section.
    byte_string section(uint16_t pid, std::span<const uint8_t> unit);

    // One packet with this PID's next continuity counter.
    byte_string packet(ts_fields fields);

private:
    uint8_t next_counter(uint16_t pid);

    std::map<uint16_t, uint8_t> counters_;
};
