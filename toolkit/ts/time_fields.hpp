// The clock fields of a packet, where they stand: PCR (ISO/IEC 13818-1, 2.4.3.4), and PTS and DTS
// of a PES header that begins in it (2.4.3.6). Read and written in place.
#pragma once

#include <cstdint>

#include "toolkit/ts/ts_packet.hpp"

constexpr uint8_t discontinuity_indicator_bit = 0x80; // of the byte behind the field's length

// They point into the packet; null: not there.
struct mpeg_ts_time_fields {
    uint8_t* pcr = nullptr; // 6 bytes
    uint8_t* pts = nullptr; // 5 bytes
    uint8_t* dts = nullptr; // 5 bytes
};

// Finds the fields of a decoded packet. A PES header is read in clear packets only, and a stamp
// that lacks its marker bits or runs past the packet is none.
mpeg_ts_time_fields mpeg_ts_find_time_fields(const mpeg_ts_packet& pkt);

// PTS or DTS: 33 bits in ticks of 90 kHz. The prefix and marker bits stay as they are.
int64_t load_time_stamp(const uint8_t* stamp);
void store_time_stamp(uint8_t* stamp, int64_t ticks);

// program_clock_reference_base: 33 bits in ticks of 90 kHz. The extension stays as it is.
int64_t load_pcr_base(const uint8_t* pcr);
void store_pcr_base(uint8_t* pcr, int64_t ticks);
