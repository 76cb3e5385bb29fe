// PES packets bit by bit, ISO/IEC 13818-1, 2.4.3.6 and 2.4.3.7.
#pragma once

#include <optional>

#include "tests/support/bytes.hpp"

enum class pes_length { zero, true_length };

struct pes_fields {
    uint8_t stream_id = 0xE0;
    pes_length length = pes_length::zero;       // zero: unbounded, for video only
    std::optional<uint16_t> packet_length = {}; // PES_packet_length, when neither of the two
    uint8_t marker = 2;                         // the two bits '10' before PES_scrambling_control
    bool data_alignment_indicator = false;
    std::optional<int64_t> pts = {};                // 33 bits
    std::optional<int64_t> dts = {};                // 33 bits
    std::optional<uint8_t> pts_dts_flags = {};      // 2 bits; else from pts and dts
    size_t header_stuffing = 0;                     // bytes 0xFF at the end of the header
    std::optional<uint8_t> header_data_length = {}; // else the true one
    bool optional_header = true;                    // false for stream ids that have none
    byte_string payload = {};
};

byte_string build_pes(const pes_fields& fields);
