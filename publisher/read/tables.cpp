#include "publisher/read/tables.hpp"

#include <algorithm>
#include <span>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/program_map.hpp"
#include "toolkit/ts/splice_stream.hpp"

namespace
{

constexpr size_t section_capacity = 4096;
constexpr size_t most_table_bytes = 32 * ts_packet_bytes; // more than a section of 1021 bytes needs
constexpr uint8_t iso_639_language_descriptor = 0x0A;
constexpr size_t most_streams = 64;

// The language of the first ISO_639_language_descriptor, ISO/IEC 13818-1, 2.6.18, when it is three
// letters.
std::string language_of(std::span<const uint8_t> descriptors)
{
    const auto descriptor = find_descriptor(iso_639_language_descriptor, 3, descriptors);
    std::string language;
    for (const uint8_t byte : descriptor.first(std::min<size_t>(descriptor.size(), 3))) {
        const auto letter = static_cast<char>(byte | 0x20);
        if (letter < 'a' || letter > 'z')
            return "";
        language += letter;
    }
    return language;
}

// The first programme of the PAT, as the segmenter takes it: entries of 4 bytes, number 0 is the
// network's.
bool take_pat(fragment_tables& tables, const uint8_t* data, const uint8_t* end)
{
    for (; end - data >= 4; data += 4) {
        const uint16_t number = load_be16(data);
        const uint16_t pid = load_be16(data + 2) & ts_pid_mask;
        if (number == 0 || pid == 0)
            continue;
        const bool changed = pid != tables.pmt_pid || number != tables.program_number;
        if (changed) {
            tables.pmt_pid = pid;
            tables.complete = false;
            tables.pmt_packets.clear();
            mpeg_ts_table_assembly_init(tables.pmt, section_capacity);
        }
        tables.program_number = number;
        return changed;
    }
    return false;
}

bool take_pmt(fragment_tables& tables, const mpeg_ts_pat_main_header& header, const uint8_t* data,
              const uint8_t* end)
{
    mpeg_ts_pat_map_header map;
    if (header.table_id != pmt_table_id || !header.current_next_indicator ||
        mpeg_ts_pat_map_header_decode(map, data, end) == 0 || map.entries.size() > most_streams)
        return false;

    std::vector<table_stream> streams;
    for (const mpeg_ts_pat_map_entry& entry : map.entries) {
        const std::span descriptors(entry.raw + pmt_stream_entry_bytes, entry.es_info_length);
        streams.push_back({
            .stream_type = entry.stream_type,
            .pid = entry.pid,
            .language = language_of(descriptors),
            .splices = carries_splices(entry.stream_type, descriptors),
        });
    }
    const auto same = [](const table_stream& a, const table_stream& b) {
        return a.stream_type == b.stream_type && a.pid == b.pid && a.language == b.language &&
               a.splices == b.splices;
    };
    const bool changed = !tables.complete || tables.pcr_pid != map.pcr_pid ||
                         !std::equal(streams.begin(), streams.end(), tables.streams.begin(),
                                     tables.streams.end(), same);
    tables.pcr_pid = map.pcr_pid;
    tables.streams = std::move(streams);
    tables.complete = true;
    return changed;
}

// Gathers the packet; true when a whole section stands in the assembly and its packets in
// `gathering`. The assembly itself would wait for the next unit.
bool gather(mpeg_ts_table_assembly& assembly, std::vector<uint8_t>& gathering,
            const mpeg_ts_packet& pkt)
{
    if (assembly.buffer.empty())
        mpeg_ts_table_assembly_init(assembly, section_capacity);
    if (pkt.payload_unit_start) {
        gathering.clear();
        mpeg_ts_table_assembly_begin(assembly, nullptr, pkt);
        mpeg_ts_table_assembly_complete(assembly);
    } else {
        mpeg_ts_table_assembly_add(assembly, pkt);
    }
    if (gathering.size() < most_table_bytes)
        gathering.insert(gathering.end(), pkt.raw, pkt.raw + ts_packet_bytes);
    return assembly.ready;
}

} // namespace

bool take_table_packet(fragment_tables& tables, const mpeg_ts_packet& pkt)
{
    const bool is_pat = pkt.pid == ts_pat_pid;
    mpeg_ts_table_assembly& assembly = is_pat ? tables.pat : tables.pmt;
    std::vector<uint8_t>& gathering = is_pat ? tables.pat_gathering : tables.pmt_gathering;
    const mpeg_ts_pat_main_header* header = nullptr;
    const uint8_t* data = nullptr;
    const uint8_t* end = nullptr;
    if (!gather(assembly, gathering, pkt) ||
        mpeg_ts_table_assembly_take_ready(assembly, header, data, end) == 0)
        return false;

    bool changed = false;
    if (is_pat) {
        if (header->table_id == pat_table_id && header->current_next_indicator) {
            changed = take_pat(tables, data, end);
            tables.pat_packets = gathering;
        }
    } else if (header->table_id_extension == tables.program_number) {
        changed = take_pmt(tables, *header, data, end);
        tables.pmt_packets = gathering;
    }
    mpeg_ts_table_assembly_discard(assembly);
    return changed;
}
