// The 8-byte header that program association and program map sections share, ISO/IEC 13818-1,
// 2.4.4.3 (table 2-30) and 2.4.4.8 (table 2-33): read, written, and patched once the body is known.
#pragma once

#include <cstdint>

constexpr uint16_t psi_main_header_bytes = 8;
// table_id and section_length come before the bytes that section_length counts.
constexpr uint16_t psi_bytes_before_length_counts = 3;
// What section_length counts at the least: the rest of the main header, and the CRC_32.
constexpr uint16_t psi_min_section_length = 9;

constexpr uint8_t pat_table_id = 0x00;
constexpr uint8_t pmt_table_id = 0x02;

struct mpeg_ts_pat_main_header {
    uint8_t table_id = 0;
    bool section_syntax_indicator = false;
    bool private_bit = false;        // the '0' that follows section_syntax_indicator
    uint16_t section_length = 0;     // 12 bits; bytes from transport_stream_id through CRC_32
    uint16_t table_id_extension = 0; // PAT: transport_stream_id; PMT: program_number
    uint8_t version_number = 0;      // 5 bits
    bool current_next_indicator = false;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint8_t* written_at = nullptr; // where write_ts_pat_main_header wrote last; not owned
};

// 12-bit section_length of the section at `section`, of which 3 bytes must be there.
uint16_t psi_section_length(const uint8_t* section);

// Decodes the 8 bytes at `section`.
mpeg_ts_pat_main_header decode_ts_pat_main_header(const uint8_t* section);

// Writes the 8 header bytes at `out`, remembers `out` in the header and returns the position past
// them. section_length is provisional until rewrite_ts_pat_main_header_section_length.
uint8_t* write_ts_pat_main_header(uint8_t* out, mpeg_ts_pat_main_header& header);

// Sets section_length, in the record and in the bytes written, so that the section ends with a
// CRC_32 placed at `end`.
void rewrite_ts_pat_main_header_section_length(mpeg_ts_pat_main_header& header, const uint8_t* end);
