#include "publisher/follow/source_playlist.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>

#include "publisher/base/files.hpp"

namespace
{

constexpr size_t most_fragments = 4096; // the segmenter lists 1000 at the most
constexpr size_t most_languages = 32;
// It becomes a part of file names, with three bytes for each that is not plain.
constexpr size_t most_language_bytes = 32;
constexpr size_t number_digits = 8;
constexpr double most_seconds = 3600;

constexpr std::string_view stream_inf = "#EXT-X-STREAM-INF:";
constexpr std::string_view media = "#EXT-X-MEDIA:";
constexpr std::string_view extinf = "#EXTINF:";

template <typename Take>
void for_each_line(std::string_view text, Take take)
{
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (!line.empty())
            take(line);
    }
}

// An attribute list, RFC 8216 4.2; quotes are taken off.
std::map<std::string, std::string, std::less<>> parse_attributes(std::string_view list)
{
    std::map<std::string, std::string, std::less<>> attributes;
    while (!list.empty()) {
        const size_t equals = list.find('=');
        if (equals == std::string_view::npos)
            break;
        const std::string name(list.substr(0, equals));
        list.remove_prefix(equals + 1);
        size_t end = 0;
        if (list.starts_with('"')) {
            list.remove_prefix(1);
            end = list.find('"');
            if (end == std::string_view::npos)
                break;
            attributes[name] = list.substr(0, end);
            list.remove_prefix(end + 1);
            end = list.find(',');
        } else {
            end = list.find(',');
            attributes[name] = list.substr(0, end);
        }
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
    }
    return attributes;
}

std::string value_of(const std::map<std::string, std::string, std::less<>>& attributes,
                     std::string_view name)
{
    const auto found = attributes.find(name);
    return found == attributes.end() ? "" : found->second;
}

int64_t milliseconds_of(std::string_view seconds)
{
    double value = 0;
    const auto [rest, error] =
        std::from_chars(seconds.data(), seconds.data() + seconds.size(), value);
    return error == std::errc{} && value > 0 && value <= most_seconds
               ? static_cast<int64_t>(value * 1000)
               : 0;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::string_view stem_of(std::string_view base)
{
    for (const std::string_view suffix : {".v", ".a", ".sap"}) {
        if (base.ends_with(suffix))
            return base.substr(0, base.size() - suffix.size());
    }
    return base;
}

std::optional<fragment_name> parse_fragment_name(std::string_view name)
{
    constexpr std::string_view suffix = ".ts";
    if (!name.ends_with(suffix))
        return std::nullopt;
    name.remove_suffix(suffix.size());
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0)
        return std::nullopt;
    const std::string_view digits = name.substr(dot + 1);
    uint64_t number = 0;
    const auto [rest, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
    // Numbers are signed 64 bits where they are made.
    if (digits.size() < number_digits || error != std::errc{} ||
        rest != digits.data() + digits.size() || number > INT64_MAX)
        return std::nullopt;
    return fragment_name{.base = std::string(name.substr(0, dot)), .number = number};
}

std::string fragment_file_name(const fragment_name& name)
{
    std::string digits = std::to_string(name.number);
    if (digits.size() < number_digits)
        digits.insert(0, number_digits - digits.size(), '0');
    return name.base + '.' + digits + ".ts";
}

std::string subtitle_file_name(const std::string& fragment, const std::string& language)
{
    return fragment + '.' + language + ".vtt";
}

std::string file_name_of_uri(std::string_view uri)
{
    uri = uri.substr(uri.rfind('/') + 1); // npos + 1 is 0
    std::string name;
    for (size_t i = 0; i < uri.size(); i++) {
        if (uri[i] != '%' || i + 2 >= uri.size() || hex_digit(uri[i + 1]) < 0 ||
            hex_digit(uri[i + 2]) < 0) {
            name += uri[i];
            continue;
        }
        name += static_cast<char>(hex_digit(uri[i + 1]) * 16 + hex_digit(uri[i + 2]));
        i += 2;
    }
    return is_file_name(name) ? name : "";
}

bool is_master_playlist(std::string_view text)
{
    return text.find(stream_inf) != std::string_view::npos;
}

source_media_playlist parse_source_media(std::string_view text)
{
    source_media_playlist list;
    for_each_line(text.substr(0, most_playlist_bytes), [&list](std::string_view line) {
        if (line.starts_with(extinf))
            list.newest_ms = milliseconds_of(line.substr(extinf.size()));
        if (line.starts_with('#') || list.fragments.size() >= most_fragments)
            return;
        if (auto name = parse_fragment_name(file_name_of_uri(line)))
            list.fragments.push_back(std::move(*name));
    });
    return list;
}

source_master_playlist parse_source_master(std::string_view text)
{
    source_master_playlist master;
    bool variant_follows = false;
    for_each_line(text.substr(0, most_playlist_bytes), [&](std::string_view line) {
        if (line.starts_with(stream_inf)) {
            variant_follows = true;
        } else if (line.starts_with(media)) {
            const auto attributes = parse_attributes(line.substr(media.size()));
            const std::string type = value_of(attributes, "TYPE");
            if (type == "AUDIO") {
                master.separate_audio = true;
                master.secondary_audio =
                    master.secondary_audio || value_of(attributes, "DEFAULT") == "NO";
            } else if (type == "SUBTITLES" && master.subtitles.size() < most_languages) {
                const std::string language = value_of(attributes, "LANGUAGE");
                if (is_file_name(language) && language.size() <= most_language_bytes)
                    master.subtitles.push_back(
                        {.language = language, .name = value_of(attributes, "NAME")});
            }
        } else if (!line.starts_with('#') && variant_follows) {
            variant_follows = false;
            if (master.lead.empty())
                master.lead = file_name_of_uri(line);
        }
    });
    return master;
}
