#include "publisher/compose/torn_file.hpp"

#include <string_view>

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

} // namespace

uint64_t fill_up(output_directory& output, const std::string& name, uint64_t bytes,
                 const std::string& before)
{
    std::string content = output.read_text(name, bytes);
    if (name.ends_with(".vtt")) {
        if (!content.starts_with(no_subtitles.substr(0, 6)))
            content = no_subtitles;
        if (content.size() < bytes)
            content.resize(bytes, '\n');
    } else {
        content.erase(content.size() - content.size() % ts_packet_bytes);
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
