#include "tools/ts_prepare/splice_time.hpp"

#include <span>

#include "toolkit/big_endian.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/splice_stream.hpp"

namespace
{

constexpr uint8_t stuffing = 0xFF; // in place of a table_id: no section follows
constexpr size_t section_header_bytes = 3;
constexpr size_t least_section_bytes = 20; // with no command and no descriptor

// splice_info_section(), 9.6
//   byte 0       table_id
//   bytes 1-2    section_syntax_indicator:1 private_indicator:1 sap_type:2 section_length:12
//   byte 3       protocol_version
//   bytes 4-8    encrypted_packet:1 encryption_algorithm:6 pts_adjustment:33
//   ...
//   CRC_32, of the section as it is sent
bool move_section(std::span<uint8_t> section, int64_t ticks)
{
    uint8_t* const p = section.data();
    if (section.size() < least_section_bytes || p[3] != 0 ||
        crc32_mpeg2(p, p + section.size()) != 0)
        return false;
    const int64_t adjustment = stamp_sum(int64_t{p[4] & 1} << 32 | load_be32(p + 5), ticks);
    p[4] = static_cast<uint8_t>((p[4] & 0xFE) | adjustment >> 32);
    store_be32(p + 5, static_cast<uint32_t>(adjustment));
    uint8_t* const crc = p + section.size() - crc32_bytes;
    write_ts_checksum(crc, p, crc);
    return true;
}

} // namespace

unsigned move_splices(mpeg_ts_packet& pkt, int64_t ticks)
{
    if (!pkt.payload_unit_start || pkt.payload == nullptr || pkt.payload == pkt.payload_end ||
        pkt.transport_scrambling_control != 0)
        return 0;
    const auto payload_bytes = static_cast<size_t>(pkt.payload_end - pkt.payload);
    const size_t pointer_field = pkt.payload[0];
    if (pointer_field >= payload_bytes)
        return 0;
    std::span<uint8_t> rest(pkt.raw + ts_packet_bytes - payload_bytes + 1 + pointer_field,
                            payload_bytes - 1 - pointer_field);
    unsigned left = 0;
    while (!rest.empty() && rest[0] != stuffing) {
        const bool is_splice = rest[0] == splice_table_id;
        const size_t bytes =
            rest.size() < section_header_bytes
                ? rest.size() + 1
                : section_header_bytes + (load_be16(rest.data() + 1) & size_t{0x0FFF});
        const bool is_whole = bytes <= rest.size();
        if (is_splice && (!is_whole || !move_section(rest.first(bytes), ticks)))
            left++;
        if (!is_whole)
            break;
        rest = rest.subspan(bytes);
    }
    return left;
}
