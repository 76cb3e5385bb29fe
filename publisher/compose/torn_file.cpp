#include "publisher/compose/torn_file.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/time_fields.hpp"
#include "toolkit/ts/ts_packet.hpp"

namespace
{

constexpr size_t tables_bytes = size_t{2} * ts_packet_bytes; // PAT and PMT come first
constexpr std::string_view no_subtitles = "WEBVTT\n\n";

// ISO/IEC 13818-1, 2.4.3.3: PID 0x1FFF, with a payload that means nothing.
std::string null_packet()
{
    std::string packet("\x47\x1F\xFF\x10", 4);
    packet.resize(ts_packet_bytes, '\xFF');
    return packet;
}

bool begins_with_pat(const std::string& stream)
{
    return stream.size() >= tables_bytes && stream[0] == 0x47 && (stream[1] & 0x1F) == 0 &&
           stream[2] == 0;
}

bool begins_pes(const mpeg_ts_packet& pkt)
{
    return pkt.payload_unit_start && pkt.payload != nullptr && pkt.payload_end - pkt.payload >= 3 &&
           pkt.payload[0] == 0 && pkt.payload[1] == 0 &&
           pkt.payload[2] == 1; // packet_start_code_prefix, ISO/IEC 13818-1, 2.4.3.7
}

// Calls `take` with the place of each packet and the packet, up to what is none.
template <typename Take>
size_t for_each_packet(std::string& stream, Take take)
{
    mpeg_ts_packet pkt;
    size_t at = 0;
    while (mpeg_ts_decode(pkt, reinterpret_cast<uint8_t*>(stream.data()) + at,
                          stream.size() - at) != 0) {
        take(at, pkt);
        at += ts_packet_bytes;
    }
    return at;
}

// Half a picture ends a decoder in browsers for good. Nothing tells whether the last PES packet of
// a stream is whole, so it goes. Returns the PIDs of which something stays.
std::set<uint16_t> keep_what_is_whole(std::string& stream)
{
    std::map<uint16_t, size_t> last_begins; // by PID
    std::set<uint16_t> kept;
    stream.resize(for_each_packet(stream, [&](size_t at, const mpeg_ts_packet& pkt) {
        if (begins_pes(pkt) && !last_begins.insert_or_assign(pkt.pid, at).second)
            kept.insert(pkt.pid);
    }));
    for_each_packet(stream, [&](size_t at, const mpeg_ts_packet& pkt) {
        const auto last = last_begins.find(pkt.pid);
        if (last != last_begins.end() && at >= last->second)
            stream.replace(at, ts_packet_bytes, null_packet());
    });
    return kept;
}

void move_time(std::string& stream, int64_t later)
{
    for_each_packet(stream, [later](size_t /*at*/, const mpeg_ts_packet& pkt) {
        const mpeg_ts_time_fields fields = mpeg_ts_find_time_fields(pkt);
        if (fields.pcr != nullptr)
            store_pcr_base(fields.pcr, stamp_sum(load_pcr_base(fields.pcr), later));
        for (uint8_t* const stamp : {fields.pts, fields.dts}) {
            if (stamp != nullptr)
                store_time_stamp(stamp, stamp_sum(load_time_stamp(stamp), later));
        }
    });
}

} // namespace

uint64_t fill_up(output_directory& output, const std::string& name, uint64_t bytes,
                 const std::string& before, int64_t later)
{
    std::string content = output.read_text(name, bytes);
    if (name.ends_with(".vtt")) {
        if (!content.starts_with(no_subtitles.substr(0, 6)))
            content = no_subtitles;
        if (content.size() < bytes)
            content.resize(bytes, '\n');
    } else {
        const auto left = keep_what_is_whole(content);
        std::string again = output.read_text(before, bytes).substr(0, bytes);
        const auto wanted = keep_what_is_whole(again);
        if (later > 0 && !std::includes(left.begin(), left.end(), wanted.begin(), wanted.end())) {
            move_time(again, later);
            content = std::move(again);
        }
        if (!begins_with_pat(content))
            content = output.read_text(before, tables_bytes).substr(0, tables_bytes);
        if (!begins_with_pat(content))
            content.clear();
        while (content.empty() || content.size() + ts_packet_bytes <= bytes)
            content += null_packet();
    }
    const made_file made = output.make_text(name, content);
    return made.how == made_by::failure ? 0 : made.bytes;
}
