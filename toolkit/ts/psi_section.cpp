#include "toolkit/ts/psi_section.hpp"

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"

//   byte 0     table_id
//   bytes 1-2  section_syntax_indicator:1 '0':1 reserved:2 section_length:12
//   bytes 3-4  transport_stream_id or program_number
//   byte 5     reserved:2 version_number:5 current_next_indicator:1
//   byte 6     section_number
//   byte 7     last_section_number

uint16_t psi_section_length(const uint8_t* section)
{
    return load_be16(section + 1) & 0x0FFF;
}

mpeg_ts_pat_main_header decode_ts_pat_main_header(const uint8_t* section)
{
    return {
        .table_id = section[0],
        .section_syntax_indicator = (section[1] & 0x80) != 0,
        .private_bit = (section[1] & 0x40) != 0,
        .section_length = psi_section_length(section),
        .table_id_extension = load_be16(section + 3),
        .version_number = static_cast<uint8_t>((section[5] >> 1) & 0x1F),
        .current_next_indicator = (section[5] & 0x01) != 0,
        .section_number = section[6],
        .last_section_number = section[7],
    };
}

namespace
{

void store_section_length(uint8_t* section, const mpeg_ts_pat_main_header& header)
{
    const int indicators =
        (header.section_syntax_indicator ? 0x8000 : 0) | (header.private_bit ? 0x4000 : 0);
    const int reserved = 0x3000;
    store_be16(section + 1,
               static_cast<uint16_t>(indicators | reserved | (header.section_length & 0x0FFF)));
}

} // namespace

uint8_t* write_ts_pat_main_header(uint8_t* out, mpeg_ts_pat_main_header& header)
{
    const int reserved = 0xC0;
    out[0] = header.table_id;
    store_section_length(out, header);
    store_be16(out + 3, header.table_id_extension);
    out[5] = static_cast<uint8_t>(reserved | ((header.version_number & 0x1F) << 1) |
                                  (header.current_next_indicator ? 1 : 0));
    out[6] = header.section_number;
    out[7] = header.last_section_number;
    header.written_at = out;
    return out + psi_main_header_bytes;
}

void rewrite_ts_pat_main_header_section_length(mpeg_ts_pat_main_header& header, const uint8_t* end)
{
    const auto body_bytes = end - (header.written_at + psi_bytes_before_length_counts);
    header.section_length = static_cast<uint16_t>(body_bytes + crc32_bytes);
    store_section_length(header.written_at, header);
}
