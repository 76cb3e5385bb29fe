#include "toolkit/ts/time_fields.hpp"

#include <cstddef>

namespace
{

constexpr ptrdiff_t stamp_bytes = 5;
constexpr ptrdiff_t before_stamps = 9; // of the PES header

// These have no optional header, table 2-21: program_stream_map, padding_stream, private_stream_2,
// ECM, EMM, DSM-CC, H.222.1 type E, program_stream_directory.
bool has_optional_header(uint8_t stream_id)
{
    switch (stream_id) {
    case 0xBC:
    case 0xBE:
    case 0xBF:
    case 0xF0:
    case 0xF1:
    case 0xF2:
    case 0xF8:
    case 0xFF:
        return false;
    default:
        return stream_id >= 0xBC;
    }
}

// '0010', '0011' or '0001', ticks[32..30], marker_bit, ticks[29..15]:15, marker_bit,
// ticks[14..0]:15, marker_bit
bool is_stamp(const uint8_t* p, uint8_t prefix)
{
    return (p[0] >> 4) == prefix && (p[0] & 1) != 0 && (p[2] & 1) != 0 && (p[4] & 1) != 0;
}

// PES_packet()
//   bytes 0-2  packet_start_code_prefix
//   byte 3     stream_id
//   bytes 4-5  PES_packet_length
//   byte 6     '10' and flags
//   byte 7     PTS_DTS_flags:2 and flags
//   byte 8     PES_header_data_length
//   then       PTS:40, DTS:40, as flagged
void find_stamps(const mpeg_ts_packet& pkt, mpeg_ts_time_fields& fields)
{
    uint8_t* const p = pkt.raw + (pkt.payload - pkt.raw);
    const ptrdiff_t bytes = pkt.payload_end - pkt.payload;
    if (bytes < before_stamps + stamp_bytes || p[0] != 0 || p[1] != 0 || p[2] != 1 ||
        !has_optional_header(p[3]) || (p[6] & 0xC0) != 0x80)
        return;

    const uint8_t pts_dts_flags = p[7] >> 6;
    const uint8_t header_data_length = p[8];
    uint8_t* const pts = p + before_stamps;
    if (pts_dts_flags < 2 || header_data_length < stamp_bytes || !is_stamp(pts, pts_dts_flags))
        return;
    fields.pts = pts;

    uint8_t* const dts = pts + stamp_bytes;
    if (pts_dts_flags == 3 && header_data_length >= 2 * stamp_bytes &&
        bytes >= before_stamps + 2 * stamp_bytes && is_stamp(dts, 1))
        fields.dts = dts;
}

} // namespace

mpeg_ts_time_fields mpeg_ts_find_time_fields(const mpeg_ts_packet& pkt)
{
    mpeg_ts_time_fields fields;
    uint8_t* const field = pkt.raw + ts_header_bytes;
    const bool has_field = (pkt.adaptation_field_control & ts_adaptation_field_bit) != 0;
    if (has_field && field[0] >= 7 && (field[1] & 0x10) != 0) // PCR_flag
        fields.pcr = field + 2;
    if (pkt.payload_unit_start && pkt.payload != nullptr && pkt.transport_scrambling_control == 0)
        find_stamps(pkt, fields);
    return fields;
}

int64_t load_time_stamp(const uint8_t* stamp)
{
    return (int64_t{stamp[0] & 0x0E} << 29) | (int64_t{load_be16(stamp + 1) >> 1} << 15) |
           (load_be16(stamp + 3) >> 1);
}

void store_time_stamp(uint8_t* stamp, int64_t ticks)
{
    stamp[0] = static_cast<uint8_t>((stamp[0] & 0xF1) | ((ticks >> 29) & 0x0E));
    store_be16(stamp + 1, static_cast<uint16_t>(((ticks >> 14) & 0xFFFE) | (stamp[2] & 1)));
    store_be16(stamp + 3, static_cast<uint16_t>(((ticks << 1) & 0xFFFE) | (stamp[4] & 1)));
}

int64_t load_pcr_base(const uint8_t* pcr)
{
    return (int64_t{load_be32(pcr)} << 1) | (pcr[4] >> 7);
}

void store_pcr_base(uint8_t* pcr, int64_t ticks)
{
    store_be32(pcr, static_cast<uint32_t>(ticks >> 1));
    pcr[4] = static_cast<uint8_t>((pcr[4] & 0x7F) | ((ticks & 1) << 7));
}
