#include "publisher/read/date_table.hpp"

#include "toolkit/big_endian.hpp"

namespace
{

constexpr uint8_t tdt_table_id = 0x70;
constexpr uint8_t tot_table_id = 0x73;
constexpr int64_t mjd_of_1970 = 40587;

// Two decimal digits; -1: they are none.
int from_bcd(uint8_t byte)
{
    const int tens = byte >> 4;
    const int ones = byte & 0x0F;
    return tens > 9 || ones > 9 ? -1 : tens * 10 + ones;
}

} // namespace

//   byte 0     pointer_field
//   byte 0     table_id
//   bytes 1-2  section_syntax_indicator:1 reserved:3 section_length:12
//   bytes 3-7  UTC_time: Modified Julian Date:16, hours, minutes, seconds in BCD
std::optional<int64_t> read_date_table(const mpeg_ts_packet& pkt)
{
    if (!pkt.payload_unit_start || pkt.payload == nullptr || pkt.payload == pkt.payload_end)
        return std::nullopt;
    const uint8_t* section = pkt.payload + 1;
    const std::ptrdiff_t skipped = pkt.payload[0];
    if (pkt.payload_end - section < skipped + 8)
        return std::nullopt;
    section += skipped;
    if (section[0] != tdt_table_id && section[0] != tot_table_id)
        return std::nullopt;

    const int64_t days = int64_t{load_be16(section + 3)} - mjd_of_1970;
    const int hours = from_bcd(section[5]);
    const int minutes = from_bcd(section[6]);
    const int seconds = from_bcd(section[7]);
    if (days < 0 || hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || seconds < 0 ||
        seconds > 59)
        return std::nullopt;
    return (((days * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000;
}
