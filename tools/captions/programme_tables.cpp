#include "tools/captions/programme_tables.hpp"

#include <utility>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/program_map.hpp"

namespace
{

constexpr size_t largest_section_bytes = 4096;

using section_body = std::span<const uint8_t>;

// Calls `on_section` with the header and the body of each section that the packet completes. One
// that is whole in its first packet is not kept waiting for the next.
template <typename OnSection>
void assemble(mpeg_ts_table_assembly& assembly, const mpeg_ts_packet& packet,
              OnSection&& on_section)
{
    if (packet.payload_unit_start)
        mpeg_ts_table_assembly_begin(assembly, nullptr, packet);
    else
        mpeg_ts_table_assembly_add(assembly, packet);
    mpeg_ts_table_assembly_complete(assembly);

    const mpeg_ts_pat_main_header* header = nullptr;
    const uint8_t* data = nullptr;
    const uint8_t* end = nullptr;
    if (mpeg_ts_table_assembly_take_ready(assembly, header, data, end) == 0)
        return;
    if (header->current_next_indicator)
        on_section(*header, section_body(data, end));
    mpeg_ts_table_assembly_discard(assembly);
}

// The PID of the first programme's map; 0 when there is none.
uint16_t first_pmt_pid(section_body body)
{
    constexpr size_t entry_bytes = 4; // program_number:16 reserved:3 program_map_PID:13
    for (; body.size() >= entry_bytes; body = body.subspan(entry_bytes)) {
        const uint16_t program_number = load_be16(body.data());
        const uint16_t pid = load_be16(body.data() + 2) & ts_pid_mask;
        if (program_number != 0 && pid != 0)
            return pid;
    }
    return 0;
}

video_coding video_of(uint8_t stream_type)
{
    if (stream_type == stream_type_h264)
        return video_coding::h264;
    if (stream_type == stream_type_mpeg1_video || stream_type == stream_type_mpeg2_video)
        return video_coding::mpeg;
    return video_coding::none;
}

programme_streams streams_of(const mpeg_ts_pat_map_header& map, section_body body)
{
    constexpr size_t bytes_before_program_info = 4;
    programme_streams streams;
    append_announced_services(body.subspan(bytes_before_program_info, map.program_info_length),
                              streams.services);
    for (const mpeg_ts_pat_map_entry& entry : map.entries) {
        const section_body descriptors(entry.raw + pmt_stream_entry_bytes, entry.es_info_length);
        append_announced_services(descriptors, streams.services);
        const video_coding video = video_of(entry.stream_type);
        if (video != video_coding::none && streams.video_pid == 0) {
            streams.video_pid = entry.pid;
            streams.video = video;
        }
        if (entry.stream_type == stream_type_private_pes && has_teletext_descriptor(descriptors)) {
            teletext_stream_entry& teletext = streams.teletext.emplace_back();
            teletext.pid = entry.pid;
            append_announced_services(descriptors, teletext.services);
        }
    }
    return streams;
}

} // namespace

followed_programme::followed_programme()
{
    mpeg_ts_table_assembly_init(pat, largest_section_bytes);
    mpeg_ts_table_assembly_init(pmt, largest_section_bytes);
}

bool followed_programme::take(const mpeg_ts_packet& packet)
{
    bool changed = false;
    if (packet.pid == ts_pat_pid && pmt_pid == 0)
        assemble(pat, packet, [this](const mpeg_ts_pat_main_header& header, section_body body) {
            if (header.table_id == pat_table_id)
                pmt_pid = first_pmt_pid(body);
        });
    else if (pmt_pid != 0 && packet.pid == pmt_pid)
        assemble(pmt, packet, [&](const mpeg_ts_pat_main_header& header, section_body body) {
            mpeg_ts_pat_map_header map;
            if (header.table_id != pmt_table_id ||
                mpeg_ts_pat_map_header_decode(map, body.data(), body.data() + body.size()) == 0)
                return;
            programme_streams found = streams_of(map, body);
            changed = found != streams;
            streams = std::move(found);
        });
    return changed;
}
