// Transport packets, ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5.
//
// A decoded packet is a view: it never owns the bytes it points at and is valid as long as they
// stay where they are (for a packet in the input window: until the window's next flush).
#pragma once

#include <cstddef>
#include <cstdint>

#include "toolkit/big_endian.hpp"

constexpr size_t ts_packet_bytes = 188;
constexpr size_t ts_header_bytes = 4;
constexpr uint8_t ts_sync_byte = 0x47;
constexpr uint16_t ts_pid_mask = 0x1FFF;
constexpr uint16_t ts_pat_pid = 0x0000;
constexpr uint16_t ts_null_pid = 0x1FFF; // padding

constexpr uint8_t ts_adaptation_field_bit = 0x2; // of adaptation_field_control
constexpr uint8_t ts_payload_bit = 0x1;

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

// Both decoders are inline, because every packet of the stream passes them.

// Decodes the header of the packet at `p` and locates its payload. Returns non-zero on success.
// Fails, leaving `pkt` as it was, on fewer than 188 bytes, a missing sync byte, the reserved
// adaptation_field_control 00, and an adaptation field that runs past the packet.
// transport_error_indicator alone is no failure.
[[nodiscard]] inline int mpeg_ts_decode(mpeg_ts_packet& pkt, uint8_t* p, size_t length);

// Fills the adaptation field members of a decoded packet. Members whose bytes are missing from a
// short field keep their "none" values.
inline void mpeg_ts_decode_adaptation_field(mpeg_ts_packet& pkt);

// flag_byte of write_ts_header, and its adaptation_field_control bits.
constexpr uint8_t ts_flag_payload_unit_start = 0x40;
constexpr uint8_t ts_control_payload_only = 0x10;

// Writes a 4-byte packet header at `out` and returns the position past it. The pointer_field of a
// packet that starts a section is not part of the header.
uint8_t* write_ts_header(uint8_t* out, uint8_t flag_byte, uint16_t pid, uint8_t control_bits,
                         uint8_t continuity_counter);

// transport_packet() header, ISO/IEC 13818-1, 2.4.3.2
//   byte 0     sync_byte
//   bytes 1-2  transport_error_indicator:1 payload_unit_start_indicator:1
//              transport_priority:1 PID:13
//   byte 3     transport_scrambling_control:2 adaptation_field_control:2
//              continuity_counter:4
inline int mpeg_ts_decode(mpeg_ts_packet& pkt, uint8_t* p, size_t length)
{
    if (length < ts_packet_bytes || p[0] != ts_sync_byte)
        return 0;

    const uint8_t control = (p[3] >> 4) & 0x3;
    size_t payload_offset = ts_header_bytes;
    if (control & ts_adaptation_field_bit)
        payload_offset += 1u + p[4]; // the length byte, then adaptation_field_length bytes
    if (control == 0 || payload_offset > ts_packet_bytes)
        return 0;

    pkt = {
        .transport_error_indicator = (p[1] & 0x80) != 0,
        .transport_priority = (p[1] & 0x20) != 0,
        .transport_scrambling_control = static_cast<uint8_t>(p[3] >> 6),
        .adaptation_field_control = control,
        .continuity_counter = static_cast<uint8_t>(p[3] & 0x0F),
        .pid = static_cast<uint16_t>(load_be16(p + 1) & ts_pid_mask),
        .payload_unit_start = (p[1] & 0x40) != 0,
        .payload = (control & ts_payload_bit) ? p + payload_offset : nullptr,
        .payload_end = p + ts_packet_bytes,
        .raw = p,
    };
    return 1;
}

// adaptation_field(), ISO/IEC 13818-1, 2.4.3.4
//   byte 0     adaptation_field_length
//   byte 1     discontinuity_indicator:1 random_access_indicator:1
//              elementary_stream_priority_indicator:1 PCR_flag:1 OPCR_flag:1
//              splicing_point_flag:1 transport_private_data_flag:1
//              adaptation_field_extension_flag:1
//   bytes 2-7  if PCR_flag: program_clock_reference_base:33 reserved:6
//              program_clock_reference_extension:9
inline void mpeg_ts_decode_adaptation_field(mpeg_ts_packet& pkt)
{
    if ((pkt.adaptation_field_control & ts_adaptation_field_bit) == 0)
        return;

    const uint8_t* field = pkt.raw + ts_header_bytes;
    pkt.adaptation_field = field;
    pkt.adaptation_field_length = field[0];
    if (pkt.adaptation_field_length < 1)
        return;

    pkt.discontinuity_indicator = (field[1] & 0x80) != 0;
    pkt.random_access_indicator = (field[1] & 0x40) != 0;
    const bool pcr_flag = (field[1] & 0x10) != 0;
    if (pcr_flag && pkt.adaptation_field_length >= 7) {
        const int64_t base = (int64_t{load_be32(field + 2)} << 1) | (field[6] >> 7);
        const int64_t extension = load_be16(field + 6) & 0x1FF;
        pkt.pcr = base * 300 + extension;
    }
}
