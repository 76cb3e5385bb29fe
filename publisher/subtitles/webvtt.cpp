#include "publisher/subtitles/webvtt.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr size_t most_cues = 4096;
constexpr size_t most_text_bytes = size_t{1} << 20;
constexpr int64_t most_hours = 100000;

std::string_view take_line(std::string_view& text)
{
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

std::optional<int64_t> take_number(std::string_view& text, int64_t most)
{
    int64_t number = 0;
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        number = number * 10 + (text[digits] - '0');
        if (number > most)
            return std::nullopt;
        digits++;
    }
    if (digits == 0)
        return std::nullopt;
    text.remove_prefix(digits);
    return number;
}

bool take_word(std::string_view& text, std::string_view word)
{
    if (!text.starts_with(word))
        return false;
    text.remove_prefix(word.size());
    return true;
}

// [hours:]minutes:seconds.milliseconds, in milliseconds.
std::optional<int64_t> take_time(std::string_view& text)
{
    const auto first = take_number(text, most_hours);
    if (!first || !take_word(text, ":"))
        return std::nullopt;
    const auto second = take_number(text, 59);
    if (!second)
        return std::nullopt;
    int64_t minutes = *first;
    int64_t seconds = *second;
    if (take_word(text, ":")) {
        const auto third = take_number(text, 59);
        if (!third)
            return std::nullopt;
        minutes = *first * 60 + *second;
        seconds = *third;
    }
    if (!take_word(text, "."))
        return std::nullopt;
    const auto milliseconds = take_number(text, 999);
    if (!milliseconds)
        return std::nullopt;
    return (minutes * 60 + seconds) * 1000 + *milliseconds;
}

// X-TIMESTAMP-MAP=MPEGTS:<90 kHz>,LOCAL:<time>, the attributes in either order.
struct timestamp_map {
    int64_t clock = 0;
    int64_t local_ms = 0;
};

std::optional<timestamp_map> parse_map(std::string_view line)
{
    timestamp_map map;
    bool has_clock = false;
    bool has_local = false;
    for (;;) {
        if (take_word(line, "MPEGTS:")) {
            const auto clock = take_number(line, INT64_MAX / 20);
            if (!clock)
                return std::nullopt;
            map.clock = *clock & (pts_modulus - 1);
            has_clock = true;
        } else if (take_word(line, "LOCAL:")) {
            const auto local = take_time(line);
            if (!local)
                return std::nullopt;
            map.local_ms = *local;
            has_local = true;
        } else {
            return std::nullopt;
        }
        if (line.empty())
            break;
        if (!take_word(line, ","))
            return std::nullopt;
    }
    return has_clock && has_local ? std::optional(map) : std::nullopt;
}

struct timing {
    int64_t begin_ms = 0;
    int64_t end_ms = 0;
    std::string settings;
};

std::optional<timing> parse_timing(std::string_view line)
{
    timing times;
    const auto begin = take_time(line);
    if (!begin || !take_word(line, " --> "))
        return std::nullopt;
    const auto end = take_time(line);
    if (!end || *end < *begin || (!line.empty() && line.front() != ' '))
        return std::nullopt;
    times.begin_ms = *begin;
    times.end_ms = *end;
    if (!line.empty())
        times.settings = line.substr(1);
    return times;
}

// Hours have two digits at least: WebVTT, 4.1.
std::string time_text(int64_t ticks)
{
    const int64_t ms = std::max<int64_t>(ticks, 0) / pts_ticks_per_millisecond;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%02lld:%02lld:%02lld.%03lld",
                  static_cast<long long>(ms / 3600000), static_cast<long long>(ms / 60000 % 60),
                  static_cast<long long>(ms / 1000 % 60), static_cast<long long>(ms % 1000));
    return text.data();
}

// The same in each segment, and another for each cue: some begin together, in different places.
std::string identifier(const subtitle_cue& cue)
{
    constexpr uint32_t offset_basis = 2166136261; // FNV-1a, 32 bits
    constexpr uint32_t prime = 16777619;
    uint32_t hash = offset_basis;
    for (const std::string* part : {&cue.settings, &cue.text}) {
        for (const char c : *part)
            hash = (hash ^ static_cast<uint8_t>(c)) * prime;
    }
    return std::to_string(cue.begin / pts_ticks_per_millisecond) + '-' + std::to_string(hash);
}

} // namespace

std::vector<subtitle_cue> parse_webvtt(std::string_view text, int64_t reference,
                                       int64_t reference_ticks)
{
    constexpr std::string_view map_tag = "X-TIMESTAMP-MAP=";
    std::vector<subtitle_cue> cues;
    text = text.substr(0, most_text_bytes);
    std::optional<timestamp_map> map;
    while (!text.empty() && cues.size() < most_cues) {
        const std::string_view line = take_line(text);
        if (line.starts_with(map_tag)) {
            map = parse_map(line.substr(map_tag.size()));
            continue;
        }
        const auto times = parse_timing(line);
        if (!times)
            continue;
        subtitle_cue cue;
        cue.settings = times->settings;
        while (!text.empty()) {
            const std::string_view part = take_line(text);
            if (part.empty())
                break;
            cue.text.append(part).append(1, '\n');
        }
        if (!map)
            continue;
        // The map's own place, and the cue's distance from it.
        const int64_t origin = reference_ticks + stamp_distance(reference, map->clock);
        cue.begin = origin + (times->begin_ms - map->local_ms) * pts_ticks_per_millisecond;
        cue.end = origin + (times->end_ms - map->local_ms) * pts_ticks_per_millisecond;
        cues.push_back(std::move(cue));
    }
    return cues;
}

// Cues keep their times in each segment that has them, so that players know them again, and an
// identifier: hls.js reckons the times anew with each segment's map, and tells cues apart that
// differ by a rounding. Times are told in milliseconds from a point that all segments of a stretch
// share.
std::string webvtt_segment(const std::vector<subtitle_cue>& cues, int64_t begin, int64_t end,
                           int64_t clock)
{
    const int64_t odd = begin % pts_ticks_per_millisecond; // the map has whole milliseconds
    std::string text = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:" + std::to_string(stamp_sum(clock, -odd)) +
                       ",LOCAL:" + time_text(begin - odd) + "\n\n";
    for (const subtitle_cue& cue : cues) {
        if (cue.begin >= end)
            continue;
        text += identifier(cue) + '\n' + time_text(cue.begin) + " --> " + time_text(cue.end);
        if (!cue.settings.empty())
            text += ' ' + cue.settings;
        text += '\n' + cue.text + '\n';
    }
    return text;
}
