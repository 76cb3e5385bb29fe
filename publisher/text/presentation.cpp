#include "publisher/text/presentation.hpp"

#include <array>
#include <cstdio>
#include <string_view>

namespace
{

constexpr std::string_view subtitle_prefix = "sub-";

std::string track_base(const std::string& rendition, const track& of)
{
    return of.name.empty() ? rendition : rendition + '.' + of.name;
}

} // namespace

std::string media_playlist_name(const std::string& rendition, const track& of)
{
    return track_base(rendition, of) + ".m3u8";
}

std::string segment_file_name(const std::string& rendition, const track& of, uint64_t sequence)
{
    return track_base(rendition, of) + '.' + std::to_string(sequence) +
           (of.kind == track_kind::subtitles ? ".vtt" : ".ts");
}

track track_named(const std::string& name)
{
    track t{.name = name, .kind = track_kind::lead, .language = "", .is_default = false};
    if (name.starts_with(subtitle_prefix))
        t.kind = track_kind::subtitles;
    else if (!name.empty())
        t.kind = track_kind::audio;
    t.is_default = name == "audio";
    return t;
}

std::string subtitle_track_name(const std::string& language)
{
    std::string name(subtitle_prefix);
    for (const char c : language) {
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        if (plain) {
            name += c;
            continue;
        }
        std::array<char, 4> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "_%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        name += escaped.data();
    }
    return name;
}
