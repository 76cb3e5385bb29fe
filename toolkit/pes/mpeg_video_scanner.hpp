// Finds MPEG-1/2 video start codes in an elementary stream range, ISO/IEC 13818-2, 6.2.1, and
// decodes picture headers, 6.2.3.
#pragma once

#include <cstdint>
#include <memory>

#include "toolkit/owner.hpp"

constexpr uint32_t picture_start_code = 0x100;
constexpr uint32_t sequence_header_code = 0x1B3;
constexpr uint32_t group_start_code = 0x1B8;

// What the last scan found.
struct mpeg_video {
    const uint8_t* code_ptr = nullptr; // the start code's first byte, in the range scanned
    uint32_t start_code = 0;           // 0x000001xx; 0: none found
    bool at_end = false;               // no further start code can follow in the range
};

struct mpeg_video_picture_header {
    uint32_t temporal_reference = 0;       // 10 bits
    uint8_t picture_coding_type = 0;       // 1 I, 2 P, 3 B, 4 D (table 6-12)
    uint32_t vbv_delay = 0;                // 16 bits
    bool full_pel_forward_vector = false;  // P and B pictures
    uint8_t forward_f_code = 0;            // P and B pictures
    bool full_pel_backward_vector = false; // B pictures
    uint8_t backward_f_code = 0;           // B pictures
};

// A scanner in its initial state; null when there is no memory for it.
[[nodiscard]] mpeg_video* mpeg_video_create();
void mpeg_video_destroy(mpeg_video* scanner);

using mpeg_video_ptr = std::unique_ptr<mpeg_video, destroy_with<mpeg_video_destroy>>;

// Scans [p, end) for the next start code, fills `scanner` and returns the position to continue
// from: past the start code, or `end`. Always advances.
const uint8_t* mpeg_video_scan(mpeg_video* scanner, const uint8_t* p, const uint8_t* end);

// Decodes the picture header whose start code begins at `p`. Returns non-zero if the header lies
// wholly within [p, end), 0 otherwise.
[[nodiscard]] int mpeg_video_decode_picture_header(const uint8_t* p, const uint8_t* end,
                                                   mpeg_video_picture_header* header);
