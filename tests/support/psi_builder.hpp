// Program specific information bit by bit, ISO/IEC 13818-1, 2.4.4: PAT and PMT sections with their
// CRC_32, whole or deliberately broken.
#pragma once

#include <optional>

#include "tests/support/bytes.hpp"

// The header and the end that all sections of the long form share.
struct section_fields {
    uint8_t table_id = 0;
    bool section_syntax_indicator = true;
    bool private_bit = false;
    std::optional<uint16_t> section_length = {}; // 12 bits; else the true one
    uint16_t table_id_extension = 1;             // PAT: transport_stream_id; PMT: program_number
    uint8_t version_number = 0;                  // 5 bits
    bool current_next_indicator = true;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    std::optional<uint32_t> crc = {}; // else the true one
};

byte_string build_section(const section_fields& fields, const byte_string& body);

// The CRC_32 of annex A, one bit at a time as the annex draws it.
uint32_t bitwise_crc32(const byte_string& bytes);

// A programme of the PAT; number 0 is the network entry.
struct pat_programme {
    uint16_t number = 1;
    uint16_t pid = 0x1000; // of the programme's PMT, or network_PID
    uint8_t reserved = 7;  // 3 bits
};

struct pat_fields {
    section_fields section = {};
    std::vector<pat_programme> programmes = {pat_programme{}};
};

byte_string build_pat(const pat_fields& fields);

struct pmt_stream {
    uint8_t stream_type = 0x1B;
    uint16_t pid = 0x101;
    byte_string descriptors = {};
    std::optional<uint16_t> es_info_length = {}; // 12 bits; else the true one
};

struct pmt_fields {
    section_fields section = {.table_id = 2};
    uint16_t pcr_pid = 0x101;
    byte_string program_info = {};                    // descriptors
    std::optional<uint16_t> program_info_length = {}; // 12 bits; else the true one
    std::vector<pmt_stream> streams = {};
    byte_string left_over = {}; // bytes behind the last stream entry
};

byte_string build_pmt(const pmt_fields& fields);

// One descriptor: tag, length, data.
byte_string build_descriptor(uint8_t tag, const byte_string& data);

// The payload unit that carries a section: pointer_field, `before_start` bytes that the
// pointer_field skips, the section.
byte_string section_unit(const byte_string& section, const byte_string& before_start = {});
