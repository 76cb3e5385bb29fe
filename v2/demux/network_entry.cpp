#include "v2/demux/network_entry.hpp"

#include <algorithm>
#include <span>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/psi_section.hpp"

namespace
{

constexpr size_t entry_bytes = 4;
constexpr std::ptrdiff_t min_payload_bytes = 10;

// The section that starts in the packet, from table_id through CRC_32; empty if the packet starts
// none or the section does not end in it.
std::span<uint8_t> section_in(const mpeg_ts_packet& pkt)
{
    if (!pkt.payload_unit_start || pkt.payload == nullptr ||
        pkt.payload_end - pkt.payload < min_payload_bytes)
        return {};

    const std::span<uint8_t> packet{pkt.raw, ts_packet_bytes};
    const auto payload_offset = static_cast<size_t>(pkt.payload - pkt.raw);
    const size_t pointer_field = packet[payload_offset];
    const size_t start = payload_offset + 1 + pointer_field;
    if (start + psi_bytes_before_length_counts > packet.size())
        return {};
    const size_t bytes = psi_bytes_before_length_counts + psi_section_length(&packet[start]);
    if (start + bytes > packet.size())
        return {};
    return packet.subspan(start, bytes);
}

// The programme loop of a PAT section; empty if the section is too short to hold one.
std::span<uint8_t> programme_loop(std::span<uint8_t> section)
{
    constexpr size_t around_loop = psi_main_header_bytes + crc32_bytes;
    if (section.size() < around_loop + entry_bytes)
        return {};
    return section.subspan(psi_main_header_bytes, section.size() - around_loop);
}

bool is_network_entry(std::span<const uint8_t> entry)
{
    const bool reserved_bits_set = (entry[2] & 0xE0) == 0xE0;
    return load_be16(entry.data()) == 0 && reserved_bits_set;
}

} // namespace

bool move_nit_last(mpeg_ts_packet& pkt)
{
    const std::span<uint8_t> loop = programme_loop(section_in(pkt));
    if (loop.empty() || !is_network_entry(loop))
        return false;

    std::rotate(loop.begin(), loop.begin() + entry_bytes, loop.end());
    return true;
}

void rewrite_pat_crc(mpeg_ts_packet& pkt)
{
    const std::span<uint8_t> section = section_in(pkt);
    uint8_t* crc = section.data() + section.size() - crc32_bytes;
    write_ts_checksum(crc, section.data(), crc);
}
