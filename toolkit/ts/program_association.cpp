#include "toolkit/ts/program_association.hpp"

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/ts_packet.hpp"

namespace
{

// program_number:16 reserved:3 program_map_PID or network_PID:13
constexpr size_t entry_bytes = 4;
constexpr uint16_t entry_reserved_bits = 0xE000;

} // namespace

std::vector<program_association_entry> read_program_association(std::span<const uint8_t> section)
{
    std::vector<program_association_entry> entries;
    auto rest = section.subspan(psi_main_header_bytes);
    for (; rest.size() >= entry_bytes + crc32_bytes; rest = rest.subspan(entry_bytes))
        entries.push_back({.program_number = load_be16(rest.data()),
                           .pid = static_cast<uint16_t>(load_be16(rest.data() + 2) & ts_pid_mask)});
    return entries;
}

std::vector<uint8_t> write_program_association(std::span<const uint8_t> like,
                                               const program_association_entry& entry)
{
    std::vector<uint8_t> section(psi_main_header_bytes + entry_bytes + crc32_bytes);
    mpeg_ts_pat_main_header header = decode_ts_pat_main_header(like.data());
    header.section_number = 0;
    header.last_section_number = 0;
    uint8_t* p = write_ts_pat_main_header(section.data(), header);
    store_be16(p, entry.program_number);
    store_be16(p + 2, static_cast<uint16_t>(entry_reserved_bits | entry.pid));
    p += entry_bytes;
    rewrite_ts_pat_main_header_section_length(header, p);
    write_ts_checksum(p, section.data(), p);
    return section;
}

void move_programme(std::span<uint8_t> section, const program_association_entry& entry)
{
    uint8_t* const crc = section.data() + section.size() - crc32_bytes;
    for (uint8_t* p = section.data() + psi_main_header_bytes; crc - p >= ptrdiff_t{entry_bytes};
         p += entry_bytes)
        if (load_be16(p) == entry.program_number)
            store_be16(p + 2, static_cast<uint16_t>(entry_reserved_bits | entry.pid));
    write_ts_checksum(crc, section.data(), crc);
}
