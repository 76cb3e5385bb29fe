#include "tools/ts_prepare/stream_description.hpp"

#include <algorithm>

#include "toolkit/big_endian.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/program_association.hpp"
#include "toolkit/ts/program_map.hpp"
#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/time_fields.hpp"
#include "tools/ts_prepare/program_choice.hpp"

namespace
{

constexpr size_t table_capacity = 4096;     // of the program
constexpr size_t most_picture_bytes = 8192; // that the program looks into
constexpr size_t most_programmes = 256;     // that are described
constexpr size_t most_cut_points = 1 << 20; // that are kept
constexpr int64_t longest_pcr_step = pts_ticks_per_second;

bool has_descriptor(std::span<const uint8_t> descriptors, uint8_t tag)
{
    while (descriptors.size() >= 2) {
        const size_t bytes = 2 + size_t{descriptors[1]};
        if (bytes > descriptors.size())
            return false;
        if (descriptors[0] == tag)
            return true;
        descriptors = descriptors.subspan(bytes);
    }
    return false;
}

// stream_type, ISO/IEC 13818-1, table 2-34; the tags of private data, ETSI EN 300 468, table 12.
const char* codec_name(const mpeg_ts_pat_map_entry& entry)
{
    const std::span<const uint8_t> descriptors(entry.raw + pmt_stream_entry_bytes,
                                               entry.es_info_length);
    switch (entry.stream_type) {
    case 0x01:
        return "MPEG-1 video";
    case 0x02:
        return "MPEG-2 video";
    case 0x03:
    case 0x04:
        return "MPEG audio";
    case 0x05:
        return "private sections";
    case 0x06:
        if (has_descriptor(descriptors, 0x6A))
            return "AC-3 audio";
        if (has_descriptor(descriptors, 0x7A))
            return "E-AC-3 audio";
        if (has_descriptor(descriptors, 0x56))
            return "teletext";
        if (has_descriptor(descriptors, 0x59))
            return "DVB subtitles";
        return "private data";
    case 0x0F:
        return "AAC audio (ADTS)";
    case 0x10:
        return "MPEG-4 video";
    case 0x11:
        return "AAC audio (LATM)";
    case 0x15:
        return "metadata";
    case 0x1B:
        return "H.264 video";
    case 0x24:
        return "HEVC video";
    case 0x33:
        return "VVC video";
    case 0x81:
        return "AC-3 audio";
    case 0x86:
        return "SCTE 35 cues";
    case 0x87:
        return "E-AC-3 audio";
    default:
        return "other data";
    }
}

// As the program chooses: the first video, the first audio, and the second one.
stream_use use_of(const described_programme& programme, uint8_t stream_type)
{
    const auto is_used = [&](stream_use use) {
        return std::ranges::any_of(programme.streams,
                                   [use](const described_stream& s) { return s.use == use; });
    };
    if (is_video_taken(stream_type))
        return is_used(stream_use::video) ? stream_use::passed : stream_use::video;
    if (!is_audio_taken(stream_type) || is_used(stream_use::secondary_audio))
        return stream_use::passed;
    return is_used(stream_use::audio) ? stream_use::secondary_audio : stream_use::audio;
}

void note_table(table_distance& distance, uint64_t at)
{
    distance.longest = std::max(distance.longest, at - distance.last_at);
    distance.last_at = at;
    distance.count++;
}

void follow(stream_describer& describer, const described_programme& programme)
{
    const described_stream* chosen = nullptr;
    for (const stream_use use : {stream_use::audio, stream_use::video})
        for (const described_stream& stream : programme.streams)
            if (stream.use == use)
                chosen = &stream;
    describer.followed_pid = chosen != nullptr ? chosen->pid : 0;
    describer.followed_type = chosen != nullptr ? chosen->stream_type : 0;
    describer.description.cut_at_audio = chosen != nullptr && chosen->use == stream_use::audio;
}

void take_pat(stream_describer& describer, std::span<const uint8_t> section, uint64_t at)
{
    stream_description& description = describer.description;
    const mpeg_ts_pat_main_header header = decode_ts_pat_main_header(section.data());
    if (header.table_id != pat_table_id || !header.current_next_indicator)
        return;
    note_table(description.pat, at);
    for (const program_association_entry& entry : read_program_association(section)) {
        const bool known =
            std::ranges::any_of(description.programmes, [&](const described_programme& programme) {
                return programme.number == entry.program_number;
            });
        if (entry.program_number == 0 || entry.pid == 0 || known ||
            description.programmes.size() == most_programmes)
            continue;
        description.programmes.push_back({.number = entry.program_number,
                                          .pmt_pid = entry.pid,
                                          .pcr_pid = 0,
                                          .has_pmt = false,
                                          .streams = {}});
        describer.pmt_sections.emplace_back();
        description.followed = 0;
    }
}

void take_pmt(stream_describer& describer, size_t place, std::span<const uint8_t> section,
              uint64_t at)
{
    described_programme& programme = describer.description.programmes[place];
    const mpeg_ts_pat_main_header header = decode_ts_pat_main_header(section.data());
    mpeg_ts_pat_map_header map;
    const uint8_t* const data = section.data() + psi_main_header_bytes;
    const uint8_t* const end = section.data() + section.size() - crc32_bytes;
    if (header.table_id != pmt_table_id || !header.current_next_indicator ||
        header.table_id_extension != programme.number ||
        mpeg_ts_pat_map_header_decode(map, data, end) == 0)
        return;

    const bool is_followed = place == describer.description.followed;
    if (is_followed)
        note_table(describer.description.pmt, at);
    if (programme.has_pmt)
        return;
    programme.has_pmt = true;
    programme.pcr_pid = map.pcr_pid;
    for (const mpeg_ts_pat_map_entry& entry : map.entries)
        programme.streams.push_back({.stream_type = entry.stream_type,
                                     .pid = entry.pid,
                                     .codec = codec_name(entry),
                                     .use = use_of(programme, entry.stream_type)});
    if (is_followed)
        follow(describer, programme);
}

void read_sections(stream_describer& describer, const mpeg_ts_packet& pkt, uint64_t at)
{
    if (pkt.pid == ts_pat_pid) {
        ts_section_gatherer_take(describer.pat_sections, pkt);
        std::span<const uint8_t> rest = describer.pat_sections.complete;
        for (auto section = ts_next_section(rest); !section.empty();
             section = ts_next_section(rest))
            take_pat(describer, section, at);
    }
    for (size_t place = 0; place < describer.pmt_sections.size(); place++) {
        if (describer.description.programmes[place].pmt_pid != pkt.pid)
            continue;
        ts_section_gatherer& gatherer = describer.pmt_sections[place];
        ts_section_gatherer_take(gatherer, pkt);
        std::span<const uint8_t> rest = gatherer.complete;
        for (auto section = ts_next_section(rest); !section.empty();
             section = ts_next_section(rest))
            take_pmt(describer, place, section, at);
    }
}

// The program takes a section when the next unit of its PID begins, or the packet that ends it.
template <typename Handle>
void assemble_as_program(mpeg_ts_table_assembly& assembly, const mpeg_ts_packet& pkt, Handle handle)
{
    if (pkt.payload_unit_start)
        mpeg_ts_table_assembly_complete(assembly);
    else
        mpeg_ts_table_assembly_add(assembly, pkt);
    const mpeg_ts_pat_main_header* header = nullptr;
    const uint8_t* data = nullptr;
    const uint8_t* end = nullptr;
    const bool ready = mpeg_ts_table_assembly_take_ready(assembly, header, data, end) != 0;
    if (ready)
        handle(*header, data, end);
    if (ready || pkt.payload_unit_start)
        mpeg_ts_table_assembly_discard(assembly);
    if (pkt.payload_unit_start)
        mpeg_ts_table_assembly_begin(assembly, nullptr, pkt);
}

void start_as_program(stream_describer& describer, const mpeg_ts_packet& pkt, uint64_t behind)
{
    if (describer.description.tables_known_at != 0)
        return;
    if (describer.locked_pmt_pid == 0 && pkt.pid == ts_pat_pid) {
        assemble_as_program(
            describer.pat_of_program, pkt,
            [&](const mpeg_ts_pat_main_header& header, const uint8_t* data, const uint8_t* end) {
                if (header.table_id != pat_table_id || !header.current_next_indicator)
                    return;
                for (; end - data >= 4 && describer.locked_pmt_pid == 0; data += 4)
                    if (load_be16(data) != 0)
                        describer.locked_pmt_pid = load_be16(data + 2) & ts_pid_mask;
            });
    } else if (describer.locked_pmt_pid != 0 && pkt.pid == describer.locked_pmt_pid) {
        assemble_as_program(
            describer.pmt_of_program, pkt,
            [&](const mpeg_ts_pat_main_header& header, const uint8_t* data, const uint8_t* end) {
                mpeg_ts_pat_map_header map;
                if (header.table_id == pmt_table_id && header.current_next_indicator &&
                    mpeg_ts_pat_map_header_decode(map, data, end) != 0)
                    describer.description.tables_known_at = behind;
            });
    }
}

void note_clock(stream_describer& describer, const mpeg_ts_time_fields& fields, uint16_t pid)
{
    stream_description& description = describer.description;
    if (fields.pcr == nullptr || description.followed == SIZE_MAX ||
        description.programmes[description.followed].pcr_pid != pid)
        return;
    const int64_t pcr = load_pcr_base(fields.pcr);
    const int64_t step = describer.last_pcr < 0 ? 0 : stamp_distance(describer.last_pcr, pcr);
    if (step > 0 && step <= longest_pcr_step)
        description.clock_ticks += step;
    describer.last_pcr = pcr;
}

void end_picture(stream_describer& describer)
{
    if (!describer.in_picture)
        return;
    describer.in_picture = false;
    stream_description& description = describer.description;
    bool may_cut = description.cut_at_audio;
    if (!may_cut)
        may_cut = describer.followed_type == 0x1B
                      ? is_h264_keyframe(describer.sets, describer.picture)
                      : is_mpeg_video_keyframe(describer.picture);
    if (may_cut && description.cut_points.size() < most_cut_points)
        description.cut_points.push_back(describer.picture_at);
}

void gather_picture(stream_describer& describer, const mpeg_ts_packet& pkt,
                    const mpeg_ts_time_fields& fields, uint64_t at)
{
    if (pkt.pid != describer.followed_pid || describer.followed_pid == 0 || pkt.payload == nullptr)
        return;
    std::span<const uint8_t> payload(pkt.payload, pkt.payload_end);
    if (pkt.payload_unit_start) {
        end_picture(describer);
        if (fields.pts == nullptr)
            return;
        constexpr size_t before_header_data = 9;
        const size_t header = before_header_data + payload[before_header_data - 1];
        describer.in_picture = true;
        describer.picture_at = {.pts = load_time_stamp(fields.pts), .at = at};
        describer.picture.clear();
        payload = payload.subspan(std::min(header, payload.size()));
    }
    if (!describer.in_picture)
        return;
    const size_t room = most_picture_bytes - describer.picture.size();
    const auto part = payload.first(std::min(room, payload.size()));
    describer.picture.insert(describer.picture.end(), part.begin(), part.end());
    if (describer.picture.size() == most_picture_bytes)
        end_picture(describer);
}

void describe_packet(stream_describer& describer, uint8_t* packet)
{
    stream_description& description = describer.description;
    const uint64_t at = description.bytes;
    description.bytes += ts_packet_bytes;
    mpeg_ts_packet pkt;
    if (mpeg_ts_decode(pkt, packet, ts_packet_bytes) == 0)
        return;
    if (pkt.transport_error_indicator) {
        description.transport_errors++;
        return;
    }
    if (!continues(describer.continuity, pkt))
        description.continuity_errors++;
    read_sections(describer, pkt, at);
    start_as_program(describer, pkt, description.bytes);
    const mpeg_ts_time_fields fields = mpeg_ts_find_time_fields(pkt);
    note_clock(describer, fields, pkt.pid);
    gather_picture(describer, pkt, fields, at);
}

} // namespace

stream_describer::stream_describer()
{
    mpeg_ts_table_assembly_init(pat_of_program, table_capacity);
    mpeg_ts_table_assembly_init(pmt_of_program, table_capacity);
}

size_t describe_bytes(stream_describer& describer, std::span<uint8_t> bytes, more_input more)
{
    size_t consumed = 0;
    for (;;) {
        const framing_step step =
            next_framing_step(describer.framing, bytes.subspan(consumed), more);
        consumed += step.consumed;
        if (step.event == framing_event::need_more)
            return consumed;
        if (step.event == framing_event::packet)
            describe_packet(describer, step.at);
        else if (step.event == framing_event::skipped)
            describer.description.skipped_bytes += step.consumed;
        else if (step.event == framing_event::found)
            describer.description.format = describer.framing.format;
    }
}

void end_description(stream_describer& describer, bool whole)
{
    end_picture(describer);
    describer.description.whole = whole;
}

bool is_too_short(const stream_description& d)
{
    return d.whole && d.bytes < program_fill_bytes;
}

bool starts_on_pipe(const stream_description& d)
{
    return d.format == packet_format::plain && !is_too_short(d) && d.tables_known_at != 0 &&
           d.tables_known_at <= program_fill_bytes - program_look_ahead_bytes;
}

bool starts_from_file(const stream_description& d)
{
    const uint64_t in_window =
        d.whole ? std::min(program_window_bytes, d.bytes) : program_window_bytes;
    return d.format == packet_format::plain && !is_too_short(d) && d.tables_known_at != 0 &&
           d.tables_known_at + program_look_ahead_bytes <= in_window;
}

uint64_t output_begins_at(const stream_description& d)
{
    return starts_on_pipe(d) || starts_from_file(d) ? d.tables_known_at : 0;
}

std::vector<double> fragment_durations(const stream_description& description, int frag_duration,
                                       uint64_t from)
{
    std::vector<double> durations;
    const cut_point* last = nullptr;
    for (const cut_point& point : description.cut_points) {
        if (point.at < from)
            continue;
        if (last == nullptr) {
            last = &point;
            continue;
        }
        const int64_t ticks = stamp_distance(last->pts, point.pts);
        if (ticks <= frag_duration * pts_ticks_per_second)
            continue;
        durations.push_back(static_cast<double>(ticks) / pts_ticks_per_second);
        last = &point;
    }
    return durations;
}
