// The body of a program map section, ISO/IEC 13818-1, 2.4.4.8 (table 2-33).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr size_t pmt_fixed_bytes = 4;        // of the body, before the programme's descriptors
constexpr size_t pmt_stream_entry_bytes = 5; // before the entry's descriptors

// stream_type, table 2-34: those that are looked at somewhere.
constexpr uint8_t stream_type_mpeg1_video = 0x01;
constexpr uint8_t stream_type_mpeg2_video = 0x02;
constexpr uint8_t stream_type_mpeg1_audio = 0x03;
constexpr uint8_t stream_type_mpeg2_audio = 0x04;
constexpr uint8_t stream_type_private_pes = 0x06;
constexpr uint8_t stream_type_aac_adts = 0x0F;
constexpr uint8_t stream_type_h264 = 0x1B;

struct mpeg_ts_pat_map_entry {
    uint8_t stream_type = 0;
    uint16_t pid = 0;             // elementary_PID
    uint16_t es_info_length = 0;  // bytes of descriptors
    const uint8_t* raw = nullptr; // the entry's first byte (stream_type) in the section; not owned
    bool raw_available = false;   // `raw` leads to the whole entry, descriptors included
};

struct mpeg_ts_pat_map_header {
    uint16_t entry_count() const { return static_cast<uint16_t>(entries.size()); }

    std::vector<mpeg_ts_pat_map_entry> entries; // in section order
    uint16_t pcr_pid = 0;
    uint16_t program_info_length = 0; // bytes of descriptors
};

// 12-bit program_info_length of the body, of which pmt_fixed_bytes must be there.
uint16_t pmt_program_info_length(const uint8_t* body);

// Decodes PCR_PID, program_info_length and the stream loop from [data, end), the section without
// its 8-byte header and CRC_32. Returns non-zero on success; fails if the descriptors or an entry
// run past the end, or if 1 to 4 bytes are left over that are no whole entry. The entries point
// into the range.
[[nodiscard]] int mpeg_ts_pat_map_header_decode(mpeg_ts_pat_map_header& map, const uint8_t* data,
                                                const uint8_t* end);
