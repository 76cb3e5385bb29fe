// Transport packets, ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5.
//
// A decoded packet is a view: it never owns the bytes it points at and is valid as long as they
// stay where they are (for a packet in the input window: until the window's next flush).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t ts_packet_bytes = 188;
constexpr size_t ts_header_bytes = 4;
constexpr uint8_t ts_sync_byte = 0x47;
constexpr uint16_t ts_pid_mask = 0x1FFF;
constexpr uint16_t ts_pat_pid = 0x0000;
constexpr uint16_t ts_null_pid = 0x1FFF; // padding

struct mpeg_ts_packet {
    // transport_packet() header
    bool transport_error_indicator = false;
    bool transport_priority = false;
    uint8_t transport_scrambling_control = 0; // 2 bits
    uint8_t adaptation_field_control = 0;     // 2 bits: bit 1 adaptation field, bit 0 payload
    uint8_t continuity_counter = 0;           // 4 bits
    uint16_t pid = 0;                         // 13 bits
    bool payload_unit_start = false;

    // adaptation_field(), filled by mpeg_ts_decode_adaptation_field
    const uint8_t* adaptation_field = nullptr; // adaptation_field_length byte; null: no field
    uint8_t adaptation_field_length = 0;       // bytes after the length byte
    bool discontinuity_indicator = false;
    bool random_access_indicator = false;
    int64_t pcr = -1; // 27 MHz ticks; -1: none

    const uint8_t* payload = nullptr;     // null when the packet carries no payload
    const uint8_t* payload_end = nullptr; // one past the last payload byte: the packet's end
    uint8_t* raw = nullptr;               // all 188 bytes, in place
};

// Decodes the header of the packet at `p` and locates its payload. Returns non-zero on success.
// Fails, leaving `pkt` as it was, on fewer than 188 bytes, a missing sync byte, the reserved
// adaptation_field_control 00, and an adaptation field that runs past the packet.
// transport_error_indicator alone is no failure.
[[nodiscard]] int mpeg_ts_decode(mpeg_ts_packet& pkt, uint8_t* p, size_t length);

// Fills the adaptation field members of a decoded packet. Members whose bytes are missing from a
// short field keep their "none" values.
void mpeg_ts_decode_adaptation_field(mpeg_ts_packet& pkt);

// flag_byte of write_ts_header, and its adaptation_field_control bits.
constexpr uint8_t ts_flag_payload_unit_start = 0x40;
constexpr uint8_t ts_control_payload_only = 0x10;

// Writes a 4-byte packet header at `out` and returns the position past it. The pointer_field of a
// packet that starts a section is not part of the header.
uint8_t* write_ts_header(uint8_t* out, uint8_t flag_byte, uint16_t pid, uint8_t control_bits,
                         uint8_t continuity_counter);
