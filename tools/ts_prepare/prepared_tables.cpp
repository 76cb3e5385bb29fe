#include "tools/ts_prepare/prepared_tables.hpp"

#include <algorithm>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/program_association.hpp"
#include "toolkit/ts/program_map.hpp"
#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/section_packets.hpp"
#include "toolkit/ts/splice_stream.hpp"

namespace
{

constexpr uint8_t ca_descriptor_tag = 0x09;
constexpr uint16_t last_reserved_pid = 0x1F; // CAT, NIT, SDT, EIT, TDT and their like

bool is_in_force(const mpeg_ts_pat_main_header& header, uint8_t table_id)
{
    return header.table_id == table_id && header.current_next_indicator;
}

// The PIDs of the ECMs that CA_descriptors name, ISO/IEC 13818-1, 2.6.16.
//   byte 0     descriptor_tag
//   byte 1     descriptor_length
//   bytes 2-3  CA_system_ID
//   bytes 4-5  reserved:3 CA_PID:13
void mark_ecm_pids(prepared_tables& tables, std::span<const uint8_t> descriptors)
{
    while (descriptors.size() >= 2) {
        const size_t bytes = 2 + size_t{descriptors[1]};
        if (bytes > descriptors.size())
            return;
        if (descriptors[0] == ca_descriptor_tag && bytes >= 6)
            tables.belongs[load_be16(descriptors.data() + 4) & ts_pid_mask] = true;
        descriptors = descriptors.subspan(bytes);
    }
}

void forget_pmt(prepared_tables& tables)
{
    tables.pmt.clear();
    tables.pmt_sections = {};
    tables.pmt_counter.begun = false; // the PID that it goes out on may stay
    tables.pcr_pid = no_pcr_pid;
    tables.streams.clear();
    tables.belongs.fill(false);
    tables.has_splices.fill(false);
}

// The entry of the wanted programme, or of the one that was chosen, or else of the first one.
std::optional<program_association_entry>
choose(const prepared_tables& tables, const std::vector<program_association_entry>& entries)
{
    std::optional<uint16_t> number = tables.wanted_programme;
    if (!number && tables.pmt_pid != 0)
        number = tables.program_number;
    std::optional<program_association_entry> first;
    for (const program_association_entry& entry : entries) {
        if (entry.program_number == 0 || entry.pid == 0)
            continue;
        if (number == entry.program_number)
            return entry;
        if (!first)
            first = entry;
    }
    return tables.wanted_programme ? std::nullopt : first;
}

bool names(const std::vector<program_association_entry>& entries, uint16_t program_number)
{
    return std::ranges::any_of(entries, [program_number](const program_association_entry& entry) {
        return entry.program_number == program_number;
    });
}

table_event take_pat(prepared_tables& tables, std::span<const uint8_t> section)
{
    const mpeg_ts_pat_main_header header = decode_ts_pat_main_header(section.data());
    if (!is_in_force(header, pat_table_id))
        return table_event::none;
    if (std::ranges::equal(section, tables.pat_as_it_came))
        return table_event::pat;

    const auto entries = read_program_association(section);
    tables.listed_programmes.clear();
    for (const program_association_entry& entry : entries)
        if (entry.program_number != 0)
            tables.listed_programmes.push_back(entry.program_number);

    // One of several sections of a table need not name it.
    const bool known = tables.pmt_pid != 0;
    if (known && !names(entries, tables.program_number) &&
        header.section_number != tables.pat_section_number)
        return table_event::none;

    const auto entry = choose(tables, entries);
    if (!entry) {
        if (!known)
            return table_event::none;
        tables.pat.clear();
        tables.pat_as_it_came.clear();
        tables.pmt_pid = 0;
        forget_pmt(tables);
        return table_event::lost;
    }
    if (entry->pid != tables.pmt_pid || entry->program_number != tables.program_number) {
        forget_pmt(tables);
        tables.pmt_pid = entry->pid;
        tables.program_number = entry->program_number;
        tables.belongs[entry->pid] = true;
    }
    tables.pat_section_number = header.section_number;
    tables.pat_as_it_came.assign(section.begin(), section.end());
    tables.pat = tables.wanted_programme ? write_program_association(section, *entry)
                                         : tables.pat_as_it_came;
    return table_event::pat_changed;
}

table_event take_pmt(prepared_tables& tables, std::span<const uint8_t> section)
{
    const mpeg_ts_pat_main_header header = decode_ts_pat_main_header(section.data());
    if (!is_in_force(header, pmt_table_id) || header.table_id_extension != tables.program_number)
        return table_event::none;
    if (std::ranges::equal(section, tables.pmt))
        return table_event::pmt;

    mpeg_ts_pat_map_header map;
    const uint8_t* const data = section.data() + psi_main_header_bytes;
    const uint8_t* const end = section.data() + section.size() - crc32_bytes;
    if (mpeg_ts_pat_map_header_decode(map, data, end) == 0)
        return table_event::none;

    tables.belongs.fill(false);
    tables.has_splices.fill(false);
    tables.belongs[tables.pmt_pid] = true;
    tables.belongs[map.pcr_pid] = map.pcr_pid != no_pcr_pid;
    mark_ecm_pids(tables, {data + 4, map.program_info_length});
    tables.streams.clear();
    for (const mpeg_ts_pat_map_entry& entry : map.entries) {
        tables.streams.push_back({.stream_type = entry.stream_type, .pid = entry.pid});
        tables.belongs[entry.pid] = true;
        const std::span descriptors(entry.raw + pmt_stream_entry_bytes, entry.es_info_length);
        tables.has_splices[entry.pid] = carries_splices(entry.stream_type, descriptors);
        mark_ecm_pids(tables, descriptors);
    }
    tables.pcr_pid = map.pcr_pid;
    tables.pmt.assign(section.begin(), section.end());
    return table_event::pmt_changed;
}

// The event that matters more.
table_event combine(table_event a, table_event b)
{
    return std::max(a, b);
}

// Numbers the packet as the next one of its PID. A packet that repeats the one before stays a
// repetition, and one without payload takes no number of its own: 2.4.3.3.
void renumber(table_counter& counter, mpeg_ts_packet& pkt)
{
    const uint8_t came = pkt.continuity_counter;
    const bool repeats = counter.begun && came == counter.last_input;
    const bool counts = pkt.payload != nullptr && !repeats;
    const uint8_t number = counts ? counter.next : (counter.next + 0x0F) & 0x0F;
    pkt.raw[3] = static_cast<uint8_t>((pkt.raw[3] & 0xF0) | number);
    if (counts)
        counter.next = (counter.next + 1) & 0x0F;
    counter.begun = true;
    counter.last_input = came;
}

} // namespace

table_event read_tables(prepared_tables& tables, const mpeg_ts_packet& pkt)
{
    table_event event = table_event::none;
    if (pkt.pid == ts_pat_pid) {
        ts_section_gatherer_take(tables.pat_sections, pkt);
        std::span<const uint8_t> rest = tables.pat_sections.complete;
        for (auto section = ts_next_section(rest); !section.empty();
             section = ts_next_section(rest))
            event = combine(event, take_pat(tables, section));
    } else if (pkt.pid == tables.pmt_pid) {
        ts_section_gatherer_take(tables.pmt_sections, pkt);
        std::span<const uint8_t> rest = tables.pmt_sections.complete;
        for (auto section = ts_next_section(rest); !section.empty();
             section = ts_next_section(rest))
            event = combine(event, take_pmt(tables, section));
    }
    return event;
}

bool pass_packet(prepared_tables& tables, mpeg_ts_packet& pkt)
{
    const bool is_pat = pkt.pid == ts_pat_pid;
    const bool is_pmt = tables.pmt_pid != 0 && pkt.pid == tables.pmt_pid;
    // What else comes on the PID of the PMT that is sent would be taken for it.
    if (writes_tables(tables) && (is_pat || is_pmt || pkt.pid == sent_pmt_pid(tables)))
        return false;
    if (tables.wanted_programme) {
        if (pkt.pid <= last_reserved_pid)
            return !tables.drop_service_information;
        return tables.belongs[pkt.pid];
    }
    if (is_pat)
        renumber(tables.pat_counter, pkt);
    else if (is_pmt)
        renumber(tables.pmt_counter, pkt);
    return true;
}

bool may_put_tables_in(const prepared_tables& tables)
{
    return tables_are_known(tables) &&
           (writes_tables(tables) || (!tables.pat_sections.begun && !tables.pmt_sections.begun));
}

std::vector<uint8_t> table_packets(prepared_tables& tables, unsigned times)
{
    const uint16_t pmt_pid = sent_pmt_pid(tables);
    if (tables.reader_pmt_pid == 0)
        tables.reader_pmt_pid = pmt_pid;
    std::vector<uint8_t> pat = tables.pat;
    if (pmt_pid != tables.pmt_pid)
        move_programme(pat, {.program_number = tables.program_number, .pid = pmt_pid});
    std::vector<uint8_t> packets;
    for (unsigned n = 0; n < times; n++) {
        write_section_packets(packets, ts_pat_pid, pat, tables.pat_counter.next);
        write_section_packets(packets, pmt_pid, tables.pmt, tables.pmt_counter.next);
    }
    return packets;
}
