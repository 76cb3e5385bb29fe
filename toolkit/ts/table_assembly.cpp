#include "toolkit/ts/table_assembly.hpp"

#include <algorithm>

#include "toolkit/ts/crc32.hpp"

namespace
{

void append(mpeg_ts_table_assembly& assembly, const uint8_t* begin, const uint8_t* end)
{
    const size_t room = assembly.buffer.size() - assembly.gathered;
    const size_t count = std::min(room, static_cast<size_t>(end - begin));
    std::copy_n(begin, count,
                assembly.buffer.begin() + static_cast<std::ptrdiff_t>(assembly.gathered));
    assembly.gathered += count;
}

// Whole section in bytes, or 0 while its length is not known.
size_t section_bytes(const mpeg_ts_table_assembly& assembly)
{
    if (assembly.gathered < psi_bytes_before_length_counts)
        return 0;
    return psi_bytes_before_length_counts + size_t{psi_section_length(assembly.buffer.data())};
}

bool section_is_whole(const mpeg_ts_table_assembly& assembly)
{
    const size_t bytes = section_bytes(assembly);
    return assembly.begun && bytes != 0 && assembly.gathered >= bytes;
}

} // namespace

void mpeg_ts_table_assembly_init(mpeg_ts_table_assembly& assembly, size_t capacity)
{
    assembly = mpeg_ts_table_assembly{};
    assembly.buffer.resize(capacity);
}

void mpeg_ts_table_assembly_begin(mpeg_ts_table_assembly& assembly,
                                  const mpeg_ts_pat_main_header* /*header*/,
                                  const mpeg_ts_packet& pkt)
{
    mpeg_ts_table_assembly_discard(assembly);
    if (pkt.payload == nullptr || pkt.payload == pkt.payload_end)
        return;

    const size_t pointer_field = pkt.payload[0];
    const uint8_t* after_pointer = pkt.payload + 1;
    if (pointer_field >= static_cast<size_t>(pkt.payload_end - after_pointer))
        return;

    assembly.begun = true;
    append(assembly, after_pointer + pointer_field, pkt.payload_end);
}

void mpeg_ts_table_assembly_add(mpeg_ts_table_assembly& assembly, const mpeg_ts_packet& pkt)
{
    if (!assembly.begun || pkt.payload == nullptr || pkt.payload == pkt.payload_end)
        return;

    append(assembly, pkt.payload, pkt.payload_end);
    assembly.ready = section_is_whole(assembly);
}

void mpeg_ts_table_assembly_complete(mpeg_ts_table_assembly& assembly)
{
    assembly.ready = section_is_whole(assembly);
}

int mpeg_ts_table_assembly_take_ready(mpeg_ts_table_assembly& assembly,
                                      const mpeg_ts_pat_main_header*& header, const uint8_t*& data,
                                      const uint8_t*& end)
{
    if (!assembly.ready)
        return 0;

    const uint8_t* section = assembly.buffer.data();
    const uint8_t* section_end = section + section_bytes(assembly);
    assembly.header = decode_ts_pat_main_header(section);
    if (assembly.header.section_length < psi_min_section_length ||
        crc32_mpeg2(section, section_end) != 0) {
        mpeg_ts_table_assembly_discard(assembly);
        return 0;
    }

    header = &assembly.header;
    data = section + psi_main_header_bytes;
    end = section_end - crc32_bytes;
    return 1;
}

void mpeg_ts_table_assembly_discard(mpeg_ts_table_assembly& assembly)
{
    assembly.gathered = 0;
    assembly.begun = false;
    assembly.ready = false;
}
