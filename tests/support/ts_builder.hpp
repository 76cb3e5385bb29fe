// Transport packets bit by bit, ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5. Every field can be set, also
// to what the standard forbids; the defaults are a sane packet.
#pragma once

#include <optional>

#include "tests/support/bytes.hpp"

constexpr size_t packet_bytes = 188;
constexpr uint16_t null_pid = 0x1FFF;

// program_clock_reference, also used for the original one.
struct pcr_fields {
    uint64_t base = 0;      // 33 bits, 90 kHz
    uint16_t extension = 0; // 9 bits, 27 MHz
};

// adaptation_field() after its length byte.
struct adaptation_fields {
    bool discontinuity_indicator = false;
    bool random_access_indicator = false;
    bool elementary_stream_priority_indicator = false;
    std::optional<pcr_fields> pcr = {};
    std::optional<pcr_fields> opcr = {};
    std::optional<uint8_t> splice_countdown = {};
    std::optional<byte_string> transport_private_data = {};
    std::optional<byte_string> extension = {}; // adaptation_field_extension() after its length byte
    size_t stuffing = 0;                       // further stuffing_bytes 0xFF
    std::optional<uint8_t> length = {};        // adaptation_field_length, when not the true one
    bool empty = false;                        // adaptation_field_length 0: no flags byte either
};

struct ts_fields {
    uint8_t sync_byte = 0x47;
    bool transport_error_indicator = false;
    bool payload_unit_start = false;
    bool transport_priority = false;
    uint16_t pid = 0x100;                                 // 13 bits
    uint8_t transport_scrambling_control = 0;             // 2 bits
    std::optional<uint8_t> adaptation_field_control = {}; // 2 bits; else from what the packet holds
    uint8_t continuity_counter = 0;                       // 4 bits
    std::optional<adaptation_fields> adaptation = {};
    byte_string payload = {}; // the rest of the packet is filled with 0xFF
    bool has_payload = true;
};

// The adaptation field with its length byte.
byte_string build_adaptation_field(const adaptation_fields& fields);

// The packet's 188 bytes. What does not fit is cut off.
byte_string build_ts_packet(const ts_fields& fields);

// `count` null packets.
byte_string null_packets(size_t count);
