#include "publisher/text/presentation.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

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

std::string segment_file_name(const std::string& track, uint64_t sequence)
{
    const bool is_text = part_of(track).starts_with(subtitle_prefix);
    return track + '.' + std::to_string(sequence) + (is_text ? ".vtt" : ".ts");
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
    const int64_t held = 3 * p.target_duration * pts_ticks_per_second;
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
