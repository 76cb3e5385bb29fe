#include "toolkit/pes/mpeg_video_scanner.hpp"

#include <new>

#include "toolkit/big_endian.hpp"
#include "toolkit/start_code.hpp"

namespace
{

constexpr std::ptrdiff_t start_code_bytes = 4;

constexpr uint8_t p_picture = 2; // picture_coding_type, ISO/IEC 13818-2, table 6-12
constexpr uint8_t b_picture = 3;

} // namespace

mpeg_video* mpeg_video_create()
{
    return new (std::nothrow) mpeg_video;
}

void mpeg_video_destroy(mpeg_video* scanner)
{
    delete scanner;
}

const uint8_t* mpeg_video_scan(mpeg_video* scanner, const uint8_t* p, const uint8_t* end)
{
    *scanner = mpeg_video{};
    p = find_start_code_prefix(p, end);
    if (end - p < start_code_bytes) {
        scanner->at_end = true;
        return end;
    }

    scanner->code_ptr = p;
    scanner->start_code = load_be32(p);
    p += start_code_bytes;
    scanner->at_end = end - p < start_code_bytes;
    return p;
}

// picture_header(), ISO/IEC 13818-2, 6.2.3
//   bytes 0-3  picture_start_code
//   bytes 4-5  temporal_reference:10 picture_coding_type:3 vbv_delay[15..13]:3
//   bytes 6-7  vbv_delay[12..0]:13, then for P and B pictures full_pel_forward_vector:1
//              forward_f_code[2..1]:2
//   byte 8     forward_f_code[0]:1, then for B pictures full_pel_backward_vector:1
//              backward_f_code:3
int mpeg_video_decode_picture_header(const uint8_t* p, const uint8_t* end,
                                     mpeg_video_picture_header* header)
{
    *header = mpeg_video_picture_header{};
    if (end - p < 8)
        return 0;

    header->temporal_reference = load_be16(p + 4) >> 6;
    header->picture_coding_type = (p[5] >> 3) & 0x7;
    header->vbv_delay = (load_be32(p + 4) >> 3) & 0xFFFF;

    const bool forward =
        header->picture_coding_type == p_picture || header->picture_coding_type == b_picture;
    if (!forward)
        return 1;
    if (end - p < 9)
        return 0;
    header->full_pel_forward_vector = (p[7] & 0x04) != 0;
    header->forward_f_code = static_cast<uint8_t>(((p[7] & 0x03) << 1) | (p[8] >> 7));
    if (header->picture_coding_type == b_picture) {
        header->full_pel_backward_vector = (p[8] & 0x40) != 0;
        header->backward_f_code = (p[8] >> 3) & 0x7;
    }
    return 1;
}
