#include "toolkit/pes/pes_scanner.hpp"

#include <algorithm>
#include <new>

#include "toolkit/big_endian.hpp"
#include "toolkit/start_code.hpp"

// PES_packet()
//   bytes 0-2  packet_start_code_prefix
//   byte 3     stream_id
//   bytes 4-5  PES_packet_length
// and, for the stream ids that have it, the optional header:
//   byte 6     '10':2 PES_scrambling_control:2 PES_priority:1 data_alignment_indicator:1
//              copyright:1 original_or_copy:1
//   byte 7     PTS_DTS_flags:2 ESCR_flag:1 ES_rate_flag:1 DSM_trick_mode_flag:1
//              additional_copy_info_flag:1 PES_CRC_flag:1 PES_extension_flag:1
//   byte 8     PES_header_data_length
//   bytes 9-13 if PTS_DTS_flags is '10' or '11': '001x':4 PTS[32..30]:3 marker:1
//              PTS[29..15]:15 marker:1 PTS[14..0]:15 marker:1

namespace
{

constexpr std::ptrdiff_t start_code_bytes = 4;
constexpr std::ptrdiff_t fixed_header_bytes = 6;
constexpr std::ptrdiff_t optional_header_bytes = 3;
constexpr std::ptrdiff_t pts_bytes = 5;

// Stream ids of table 2-22 begin here; below lie video start codes and the system headers.
constexpr uint8_t first_pes_stream_id = 0xBC;

// Stream ids whose payload follows PES_packet_length directly, 2.4.3.6.
bool lacks_optional_header(uint8_t stream_id)
{
    switch (stream_id) {
    case 0xBC: // program_stream_map
    case 0xBE: // padding_stream
    case 0xBF: // private_stream_2
    case 0xF0: // ECM_stream
    case 0xF1: // EMM_stream
    case 0xF2: // DSMCC_stream
    case 0xF8: // ITU-T Rec. H.222.1 type E
    case 0xFF: // program_stream_directory
        return true;
    default:
        return false;
    }
}

int64_t decode_pts(const uint8_t* p)
{
    return (int64_t{p[0] & 0x0E} << 29) | (int64_t{load_be16(p + 1) >> 1} << 15) |
           int64_t{load_be16(p + 3) >> 1};
}

// Fills payload, packet_end and pts from the header at `start`; leaves payload null if there is
// no whole, sound PES header.
void parse_header(mpeg_pes& pes, const uint8_t* start, const uint8_t* end)
{
    if (start[3] < first_pes_stream_id || end - start < fixed_header_bytes)
        return;

    const uint16_t packet_length = load_be16(start + 4);
    std::ptrdiff_t header_bytes = fixed_header_bytes;
    int64_t pts = -1;
    if (!lacks_optional_header(start[3])) {
        const uint8_t* optional = start + fixed_header_bytes;
        if (end - optional < optional_header_bytes || (optional[0] & 0xC0) != 0x80)
            return;
        const std::ptrdiff_t header_data_length = optional[2];
        if (end - optional < optional_header_bytes + header_data_length)
            return;
        const bool has_pts = (optional[1] & 0x80) != 0;
        if (has_pts && header_data_length >= pts_bytes)
            pts = decode_pts(optional + optional_header_bytes);
        header_bytes += optional_header_bytes + header_data_length;
    }

    const std::ptrdiff_t packet_bytes = fixed_header_bytes + packet_length;
    if (packet_length != 0) {
        if (packet_bytes < header_bytes)
            return;
        pes.packet_end = start + std::min(packet_bytes, end - start);
    }
    pes.payload = start + header_bytes;
    pes.pts = pts;
}

} // namespace

mpeg_pes* mpeg_pes_create()
{
    return new (std::nothrow) mpeg_pes;
}

void mpeg_pes_destroy(mpeg_pes* scanner)
{
    delete scanner;
}

const uint8_t* mpeg_pes_scan(mpeg_pes* scanner, const uint8_t* p, const uint8_t* end)
{
    *scanner = mpeg_pes{};
    p = find_start_code_prefix(p, end);
    if (end - p < start_code_bytes) {
        scanner->at_end = true;
        return end;
    }

    scanner->start_code = load_be32(p);
    scanner->packet_start = p;
    parse_header(*scanner, p, end);
    p += start_code_bytes;
    scanner->at_end = end - p < start_code_bytes;
    return p;
}
