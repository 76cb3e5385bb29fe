#include "publisher/text/iframe_playlist.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include <fmt/format.h>

#include "publisher/text/attribute_list.hpp"
#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int version_of_ranges = 4; // RFC 8216 7

// A stream may have nothing but keyframes: two in a second are enough to seek by.
constexpr int64_t least_distance = pts_ticks_per_second / 2;
constexpr int64_t most_in_a_second = 4; // with those that segments begin with

constexpr std::string_view suffix = ".iframes.m3u8";

// The rung's file; null: there is none.
template <typename Segment>
auto* file_of(Segment& s, const std::string& rung)
{
    const auto found =
        std::find_if(s.files.begin(), s.files.end(),
                     [&rung](const segment_file& file) { return file.track == rung; });
    return found == s.files.end() ? nullptr : &*found;
}

void add_keyframes(std::string& text, const segment& s, const std::string& rung)
{
    const auto& keyframes = file_of(s, rung)->keyframes;
    for (size_t i = 0; i < keyframes.size(); i++) {
        if (i == 0)
            fmt::format_to(std::back_inserter(text), "#EXT-X-PROGRAM-DATE-TIME:{}\n",
                           date_text(s.date + keyframes[0].at));
        const int64_t end = i + 1 < keyframes.size() ? keyframes[i + 1].at : s.duration;
        fmt::format_to(std::back_inserter(text), "#EXTINF:{:.5f},\n#EXT-X-BYTERANGE:{}@{}\n{}\n",
                       static_cast<double>(end - keyframes[i].at) / pts_ticks_per_second,
                       keyframes[i].bytes, keyframes[i].begin, segment_file_name(rung, s));
    }
}

} // namespace

std::string iframe_playlist_name(const std::string& rung)
{
    return rung + std::string(suffix);
}

bool is_iframe_playlist_name(const std::string& name)
{
    return name.ends_with(suffix);
}

bool is_keyframe_listed(const segment_file& lead, int64_t at)
{
    return lead.keyframes.empty() || at - lead.keyframes.back().at >= least_distance;
}

uint64_t first_keyframe_behind(const segment* before, const std::string& rung, int64_t unix_s)
{
    const segment_file* lead = before != nullptr ? file_of(*before, rung) : nullptr;
    if (lead == nullptr || lead->first_keyframe == 0)
        return static_cast<uint64_t>(unix_s * most_in_a_second);
    return lead->first_keyframe + lead->keyframes.size();
}

listed_lines iframe_playlist_lines(const std::string& rung)
{
    return {rung, add_keyframes};
}

// A discontinuity stands before the first keyframe behind it, whose segment may be a later one.
std::string iframe_playlist_text(const presentation& p, const listed_lines& lines)
{
    if (lines.text().empty())
        return "";
    const auto begin = p.listed.end() - static_cast<std::ptrdiff_t>(lines.count());
    // Those before it were published while keyframes were not counted.
    const auto first = std::find_if(begin, p.listed.end(), [&lines](const segment& s) {
        return file_of(s, lines.track())->first_keyframe != 0;
    });
    if (first == p.listed.end())
        return "";
    uint64_t told = first->discontinuity_number - (first->discontinuity ? 1 : 0);
    std::string text = fmt::format("#EXTM3U\n#EXT-X-VERSION:{}\n#EXT-X-TARGETDURATION:{}\n"
                                   "#EXT-X-MEDIA-SEQUENCE:{}\n#EXT-X-DISCONTINUITY-SEQUENCE:{}\n"
                                   "#EXT-X-I-FRAMES-ONLY\n",
                                   version_of_ranges, p.target_duration,
                                   file_of(*first, lines.track())->first_keyframe, told);
    size_t written = 0; // of the lines
    size_t at = 0;
    for (size_t i = 0; i < lines.count(); at += lines.size(i++)) {
        const segment& s = begin[static_cast<std::ptrdiff_t>(i)];
        if (lines.size(i) == 0 || told >= s.discontinuity_number)
            continue;
        text.append(lines.text(), written, at - written);
        written = at;
        for (; told < s.discontinuity_number; told++)
            text += "#EXT-X-DISCONTINUITY\n";
    }
    text.append(lines.text(), written);
    return p.ended ? text + "#EXT-X-ENDLIST\n" : text;
}

std::string iframe_stream_text(const rung_facts& rung)
{
    if (rung.keyframe_peak_bandwidth == 0)
        return "";
    std::string text = "#EXT-X-I-FRAME-STREAM-INF:";
    attribute_list list(text);
    list.add("BANDWIDTH", fmt::format("{}", rung.keyframe_peak_bandwidth));
    list.add("AVERAGE-BANDWIDTH", fmt::format("{}", rung.keyframe_average_bandwidth));
    const video_facts& video = rung.streams.video;
    if (!video.codec.empty())
        list.add_quoted("CODECS", video.codec);
    if (video.width > 0 && video.height > 0)
        list.add("RESOLUTION", fmt::format("{}x{}", video.width, video.height));
    list.add_quoted("URI", iframe_playlist_name(rung.name));
    return text + '\n';
}

void take_up_keyframes(const media_list& iframes, const std::string& rung,
                       std::deque<segment>& segments)
{
    if (iframes.sequence == 0) // there is no such list, or it does not say how it counts
        return;
    uint64_t number = iframes.sequence;
    auto next = iframes.segments.begin();
    const auto end = iframes.segments.end();
    for (segment& s : segments) {
        segment_file* lead = file_of(s, rung);
        if (lead == nullptr)
            continue;
        const std::string name = segment_file_name(rung, s);
        const auto found = std::find_if(
            next, end, [&name](const listed_segment& entry) { return entry.uri == name; });
        if (found != end) {
            number += static_cast<uint64_t>(found - next); // they have left the list of segments
            next = found;
        }
        lead->first_keyframe = number;
        if (found == end)
            continue;
        // The date has milliseconds.
        int64_t at = next->date - s.date;
        at = std::abs(at) <= pts_ticks_per_millisecond ? 0 : at;
        for (; next != end && next->uri == name; ++next) {
            lead->keyframes.push_back(
                {.begin = next->range_begin, .bytes = next->range_bytes, .at = at});
            at += next->duration;
            number++;
        }
    }
}
