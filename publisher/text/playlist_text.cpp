#include "publisher/text/playlist_text.hpp"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iterator>
#include <set>
#include <string_view>

#include <fmt/format.h>

#include "publisher/text/attribute_list.hpp"
#include "publisher/text/iframe_playlist.hpp"
#include "publisher/text/language_names.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr const char* audio_group = "audio";
constexpr const char* subtitles_group = "subtitles";
constexpr const char* captions_group = "captions";

constexpr size_t most_header_bytes = 512;

constexpr int usual_version = 4;
constexpr int version_of_services = 7; // INSTREAM-ID with SERVICE, RFC 8216 7

// Names that viewers see are told apart, RFC 8216 4.3.4.1.
std::string unique_name(std::string name, std::set<std::string>& taken)
{
    const std::string wanted = name;
    for (int n = 2; !taken.insert(name).second; n++)
        name = fmt::format("{} {}", wanted, n);
    return name;
}

std::string track_display_name(const track& of)
{
    std::string name = language_display_name(of.language);
    if (!name.empty())
        return name;
    if (of.kind == track_kind::audio)
        return of.is_default ? "Main" : "Secondary";
    return of.language.empty() ? "Subtitles" : of.language;
}

void add_rendition(std::string& text, const track& of, std::set<std::string>& taken)
{
    const bool is_audio = of.kind == track_kind::audio;
    text += "#EXT-X-MEDIA:";
    attribute_list list(text);
    list.add("TYPE", is_audio ? "AUDIO" : "SUBTITLES");
    list.add_quoted("GROUP-ID", is_audio ? audio_group : subtitles_group);
    list.add_quoted("NAME", unique_name(track_display_name(of), taken));
    const std::string tag = language_tag(of.language);
    if (!tag.empty())
        list.add_quoted("LANGUAGE", tag);
    list.add("DEFAULT", of.is_default ? "YES" : "NO");
    list.add("AUTOSELECT", is_audio || !tag.empty() ? "YES" : "NO");
    if (!of.name.empty())
        list.add_quoted("URI", media_playlist_name(of.name));
    text += '\n';
}

std::vector<std::string> caption_channels(const caption_facts& captions)
{
    std::vector<std::string> channels;
    for (int n = 0; n < 4; n++) {
        if ((captions.channels & (1u << n)) != 0)
            channels.push_back(fmt::format("CC{}", n + 1));
    }
    for (int n = 1; n < 64; n++) {
        if ((captions.services & (uint64_t{1} << n)) != 0)
            channels.push_back(fmt::format("SERVICE{}", n));
    }
    return channels;
}

void add_captions(std::string& text, const std::vector<std::string>& channels)
{
    for (const std::string& channel : channels) {
        text += "#EXT-X-MEDIA:";
        attribute_list list(text);
        list.add("TYPE", "CLOSED-CAPTIONS");
        list.add_quoted("GROUP-ID", captions_group);
        list.add_quoted("NAME", channel);
        list.add("DEFAULT", "NO");
        list.add("AUTOSELECT", "YES");
        list.add_quoted("INSTREAM-ID", channel);
        text += '\n';
    }
}

bool has_track(const std::vector<track>& shared, track_kind kind)
{
    return std::any_of(shared.begin(), shared.end(),
                       [kind](const track& t) { return t.kind == kind; });
}

// The tracks that all rungs share, and before them, without a name of its own, the sound that goes
// with the pictures, RFC 8216 4.3.4.2.1: its language would not be told otherwise, and players take
// another sound that stands alone for the only one.
std::vector<track> shared_tracks(const master_facts& master, const std::vector<rung_facts>& rungs)
{
    std::vector<track> shared = master.shared;
    const bool is_separate =
        std::any_of(shared.begin(), shared.end(), [](const track& t) { return t.is_default; });
    const bool is_in_all =
        !rungs.empty() && std::all_of(rungs.begin(), rungs.end(), [](const rung_facts& rung) {
            return !rung.streams.video.codec.empty() && !rung.streams.audio.empty();
        });
    if (is_separate || !is_in_all)
        return shared;
    const std::string& language = rungs.front().streams.audio.front().language;
    if (!language.empty() || has_track(shared, track_kind::audio))
        shared.insert(shared.begin(), {.name = "",
                                       .kind = track_kind::audio,
                                       .language = language,
                                       .codec = "",
                                       .is_default = true});
    return shared;
}

caption_facts captions_of(const std::vector<rung_facts>& rungs)
{
    caption_facts all;
    for (const rung_facts& rung : rungs) {
        all.channels |= rung.streams.captions.channels;
        all.services |= rung.streams.captions.services;
    }
    return all;
}

// CODECS of all that a variant needs, RFC 6381: of the lead, and of the tracks that all share.
std::string codecs_text(const stream_facts& streams, const std::vector<track>& shared)
{
    std::vector<std::string> codecs;
    const auto add = [&codecs](const std::string& codec) {
        if (!codec.empty() && std::find(codecs.begin(), codecs.end(), codec) == codecs.end())
            codecs.push_back(codec);
    };
    add(streams.video.codec);
    for (const audio_facts& audio : streams.audio)
        add(audio.codec);
    for (const track& t : shared)
        add(t.codec);
    return fmt::format("{}", fmt::join(codecs, ","));
}

void add_variant(std::string& text, const std::vector<track>& shared, const rung_facts& rung,
                 bool has_captions)
{
    text += "#EXT-X-STREAM-INF:";
    attribute_list list(text);
    list.add("BANDWIDTH", fmt::format("{}", rung.peak_bandwidth));
    list.add("AVERAGE-BANDWIDTH", fmt::format("{}", rung.average_bandwidth));
    const std::string codecs = codecs_text(rung.streams, shared);
    if (!codecs.empty())
        list.add_quoted("CODECS", codecs);
    const video_facts& video = rung.streams.video;
    if (video.width > 0 && video.height > 0)
        list.add("RESOLUTION", fmt::format("{}x{}", video.width, video.height));
    if (video.frame_rate > 0)
        list.add("FRAME-RATE", fmt::format("{:.3f}", video.frame_rate));
    if (has_track(shared, track_kind::audio))
        list.add_quoted("AUDIO", audio_group);
    if (has_track(shared, track_kind::subtitles))
        list.add_quoted("SUBTITLES", subtitles_group);
    if (has_captions)
        list.add_quoted("CLOSED-CAPTIONS", captions_group);
    else
        list.add("CLOSED-CAPTIONS", "NONE");
    text += '\n' + media_playlist_name(rung.name) + '\n';
}

void add_segment(std::string& text, const segment& s, const std::string& track)
{
    if (s.discontinuity)
        text += "#EXT-X-DISCONTINUITY\n";
    fmt::format_to(std::back_inserter(text), "#EXT-X-PROGRAM-DATE-TIME:{}\n#EXTINF:{:.5f},\n{}\n",
                   date_text(s.date), static_cast<double>(s.duration) / pts_ticks_per_second,
                   segment_file_name(track, s));
}

// Each range is told before the segment in which it came, so that what stands in a list is not
// changed by it, RFC 8216 6.2.1. What will be told with a later segment waits.
void add_segments(std::string& text, const presentation& p, const listed_lines& lines)
{
    const std::string_view all = lines.text();
    auto s = p.listed.end() - static_cast<std::ptrdiff_t>(lines.count());
    size_t begin = 0; // of what is to be added next
    size_t at = 0;    // where the lines of `s` begin
    size_t number = 0;
    for (const told_line& line : date_range_lines(p.ranges)) {
        for (; s != p.listed.end() && s->date + s->duration <= line.told; ++s)
            at += lines.size(number++);
        if (s == p.listed.end())
            break;
        text += all.substr(begin, at - begin);
        text += line.text;
        begin = at;
    }
    text += all.substr(begin);
}

} // namespace

std::string date_text(int64_t ticks)
{
    const int64_t ms = ticks / pts_ticks_per_millisecond;
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, ms % 1000);
}

listed_lines media_playlist_lines(const std::string& track)
{
    return {track, add_segment};
}

std::string media_playlist_text(const presentation& p, const listed_lines& lines)
{
    const auto first = p.listed.end() - static_cast<std::ptrdiff_t>(lines.count());
    const bool independent =
        std::all_of(first, p.listed.end(), [](const segment& s) { return s.independent; });
    std::string text;
    text.reserve(lines.text().size() + most_header_bytes);
    text += fmt::format("#EXTM3U\n#EXT-X-VERSION:{}\n", usual_version);
    if (independent || !is_lead(lines.track()))
        text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    text += fmt::format("#EXT-X-TARGETDURATION:{}\n", p.target_duration);
    if (lines.count() > 0) {
        if (first->sequence == p.event_begin)
            text += "#EXT-X-PLAYLIST-TYPE:EVENT\n";
        text += fmt::format("#EXT-X-MEDIA-SEQUENCE:{}\n#EXT-X-DISCONTINUITY-SEQUENCE:{}\n",
                            first->sequence,
                            first->discontinuity_number - (first->discontinuity ? 1 : 0));
    }
    add_segments(text, p, lines);
    if (p.ended)
        text += "#EXT-X-ENDLIST\n";
    return text;
}

std::string master_playlist_text(const presentation& p)
{
    const master_facts& master = p.master;
    const auto listed = listed_rungs(p);
    std::vector<rung_facts> rungs = master.rungs;
    std::erase_if(rungs, [&listed](const rung_facts& rung) {
        return std::find(listed.begin(), listed.end(), rung.name) == listed.end();
    });
    const caption_facts captions = captions_of(rungs);
    const auto channels = caption_channels(captions);

    std::string text = fmt::format("#EXTM3U\n#EXT-X-VERSION:{}\n",
                                   captions.services != 0 ? version_of_services : usual_version);
    if (master.independent)
        text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    std::set<std::string> audio_names;
    std::set<std::string> subtitle_names;
    const auto shared = shared_tracks(master, rungs);
    for (const track& t : shared)
        add_rendition(text, t, t.kind == track_kind::audio ? audio_names : subtitle_names);
    add_captions(text, channels);
    for (const rung_facts& rung : rungs)
        add_variant(text, shared, rung, !channels.empty());
    for (const rung_facts& rung : rungs)
        text += iframe_stream_text(rung);
    return text;
}
