#include "publisher/text/presentation.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr std::string_view subtitle_prefix = "sub-";

// Rungs have no dot in their names, so that the part behind it tells what a track is.
std::string_view part_of(std::string_view name)
{
    const size_t dot = name.find('.');
    return dot == std::string_view::npos ? "" : name.substr(dot + 1);
}

// The language of a part that subtitle_part() has made.
std::string unescaped(std::string_view text)
{
    std::string language;
    for (size_t i = 0; i < text.size(); i++) {
        unsigned char byte = 0;
        const char* const code = text.data() + i + 1;
        if (text[i] == '_' && text.size() - i >= 3 &&
            std::from_chars(code, code + 2, byte, 16).ptr == code + 2) {
            language += static_cast<char>(byte);
            i += 2;
        } else {
            language += text[i];
        }
    }
    return language;
}

} // namespace

bool is_lead(const std::string& track)
{
    return part_of(track).empty();
}

bool has_file_of(const segment& s, const std::string& track)
{
    return std::any_of(s.files.begin(), s.files.end(),
                       [&track](const segment_file& file) { return file.track == track; });
}

std::string media_playlist_name(const std::string& track)
{
    return track + ".m3u8";
}

std::string segment_file_name(const std::string& track, const segment& s)
{
    std::string name = s.in_folder ? folder_of_hour(s.date) + '/' : "";
    name += track;
    name += '.';
    name += std::to_string(s.sequence);
    return name += part_of(track).starts_with(subtitle_prefix) ? ".vtt" : ".ts";
}

std::string folder_of_hour(int64_t date)
{
    const auto seconds = static_cast<std::time_t>(date / pts_ticks_per_second);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:04}{:02}{:02}T{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                       utc.tm_hour);
}

bool is_folder_of_hour(std::string_view name)
{
    constexpr std::string_view pattern = "00000000T00Z";
    return std::equal(name.begin(), name.end(), pattern.begin(), pattern.end(),
                      [](char c, char p) { return p == '0' ? c >= '0' && c <= '9' : c == p; });
}

segment_name parse_segment_name(std::string_view file)
{
    const size_t end = file.rfind('.');
    if (end == 0 || end == std::string_view::npos)
        return {};
    const size_t dot = file.rfind('.', end - 1);
    if (dot == std::string_view::npos)
        return {};
    segment_name name{.track = std::string(file.substr(0, dot))};
    const auto [rest, error] =
        std::from_chars(file.data() + dot + 1, file.data() + end, name.sequence);
    const segment plain{.sequence = name.sequence, .files = {}};
    return error == std::errc{} && segment_file_name(name.track, plain) == file ? name
                                                                                : segment_name{};
}

uint64_t bytes_of(const segment& s)
{
    uint64_t bytes = 0;
    for (const segment_file& file : s.files)
        bytes += file.bytes;
    return bytes;
}

track track_named(const std::string& name)
{
    const std::string_view part = part_of(name);
    track t{.name = name, .kind = track_kind::lead, .language = "", .codec = ""};
    if (part.starts_with(subtitle_prefix)) {
        t.kind = track_kind::subtitles;
        t.language = unescaped(part.substr(subtitle_prefix.size()));
    } else if (!part.empty()) {
        t.kind = track_kind::audio;
    }
    t.is_default = part == "audio";
    return t;
}

std::string shared_track_name(const std::string& first_rung, const std::string& part)
{
    return first_rung + '.' + part;
}

std::string subtitle_part(const std::string& language)
{
    std::string part(subtitle_prefix);
    for (const char c : language) {
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        if (plain) {
            part += c;
            continue;
        }
        std::array<char, 4> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "_%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        part += escaped.data();
    }
    return part;
}

std::vector<const segment*> segments_of(const presentation& p, const std::string& track,
                                        int64_t enough)
{
    std::vector<const segment*> segments;
    int64_t duration = 0;
    for (auto s = p.listed.rbegin();
         s != p.listed.rend() && duration < enough && has_file_of(*s, track); ++s) {
        segments.push_back(&*s);
        duration += s->duration;
    }
    std::reverse(segments.begin(), segments.end());
    return segments;
}

int64_t duration_of(const std::vector<const segment*>& segments)
{
    int64_t duration = 0;
    for (const segment* s : segments)
        duration += s->duration;
    return duration;
}

std::vector<std::string> listed_rungs(const presentation& p)
{
    const int64_t held = least_listed(p.target_duration);
    const auto duration_of_rung = [&p, held](const rung_facts& rung) {
        return std::min(duration_of(segments_of(p, rung.name, held)), held);
    };
    int64_t longest = 0;
    for (const rung_facts& rung : p.master.rungs)
        longest = std::max(longest, duration_of_rung(rung));
    std::vector<std::string> names;
    for (const rung_facts& rung : p.master.rungs) {
        if (longest > 0 && duration_of_rung(rung) == longest)
            names.push_back(rung.name);
    }
    return names;
}
