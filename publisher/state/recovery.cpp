#include "publisher/state/recovery.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <string_view>

#include <fcntl.h>

#include "publisher/read/fragment_reader.hpp"
#include "publisher/text/presentation.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr size_t most_playlist_bytes = size_t{64} << 20;
constexpr int64_t no_limit = INT64_MAX / 4;

struct own_playlist {
    int64_t target_duration = 0;
    uint64_t sequence = 0;
    uint64_t discontinuity_sequence = 0;
    bool ended = false;
    std::deque<segment> segments;
};

template <typename Number>
Number number_in(std::string_view text)
{
    Number number{};
    std::ignore = std::from_chars(text.data(), text.data() + text.size(), number); // 0 then
    return number;
}

// "2026-11-21T21:09:11.040Z" in ticks since 1970.
int64_t ticks_of_date(std::string_view text)
{
    constexpr size_t length = 24;
    if (text.size() != length)
        return 0;
    std::tm utc{};
    utc.tm_year = number_in<int>(text.substr(0, 4)) - 1900;
    utc.tm_mon = number_in<int>(text.substr(5, 2)) - 1;
    utc.tm_mday = number_in<int>(text.substr(8, 2));
    utc.tm_hour = number_in<int>(text.substr(11, 2));
    utc.tm_min = number_in<int>(text.substr(14, 2));
    utc.tm_sec = number_in<int>(text.substr(17, 2));
    return int64_t{timegm(&utc)} * pts_ticks_per_second +
           number_in<int64_t>(text.substr(20, 3)) * pts_ticks_per_millisecond;
}

bool take_tag(std::string_view& line, std::string_view tag)
{
    if (!line.starts_with(tag))
        return false;
    line.remove_prefix(tag.size());
    return true;
}

own_playlist parse_own(std::string_view text)
{
    own_playlist list;
    segment next;
    uint64_t discontinuities = 0;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (take_tag(line, "#EXT-X-TARGETDURATION:")) {
            list.target_duration = number_in<int64_t>(line);
        } else if (take_tag(line, "#EXT-X-MEDIA-SEQUENCE:")) {
            list.sequence = number_in<uint64_t>(line);
        } else if (take_tag(line, "#EXT-X-DISCONTINUITY-SEQUENCE:")) {
            list.discontinuity_sequence = number_in<uint64_t>(line);
        } else if (line == "#EXT-X-DISCONTINUITY") {
            next.discontinuity = true;
            discontinuities++;
        } else if (take_tag(line, "#EXT-X-PROGRAM-DATE-TIME:")) {
            next.date = ticks_of_date(line);
        } else if (take_tag(line, "#EXTINF:")) {
            next.duration =
                static_cast<int64_t>(std::llround(number_in<double>(line) * pts_ticks_per_second));
        } else if (line == "#EXT-X-ENDLIST") {
            list.ended = true;
        } else if (!line.empty() && !line.starts_with('#')) {
            next.sequence = list.sequence + list.segments.size();
            next.discontinuity_number = list.discontinuity_sequence + discontinuities;
            list.segments.push_back(next);
            next = {};
        }
    }
    return list;
}

own_playlist read_own(const output_directory& output, const std::string& rendition, const track& of)
{
    return parse_own(output.read_text(media_playlist_name(rendition, of), most_playlist_bytes));
}

// The names of the tracks that have a playlist.
std::vector<std::string> tracks_on_disk(const output_directory& output,
                                        const std::string& rendition)
{
    constexpr std::string_view suffix = ".m3u8";
    std::vector<std::string> tracks = {""};
    for (std::string_view name : output.names()) {
        if (!name.starts_with(rendition + '.') || !name.ends_with(suffix))
            continue;
        name.remove_prefix(rendition.size() + 1);
        if (name.size() > suffix.size())
            tracks.emplace_back(name.substr(0, name.size() - suffix.size()));
    }
    return tracks;
}

// Where the clock stands behind the last segment, and what the stream is like there.
void read_last_segment(const output_directory& output, const std::string& rendition,
                       stored_state& state)
{
    const segment& last = state.listed.back();
    const std::string name = segment_file_name(rendition, track{}, last.sequence);
    const descriptor fd(openat(output.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        return;
    fragment_reader reader(no_limit);
    reader.begin_fragment();
    std::vector<uint8_t> buffer(size_t{348} * 188);
    for (off_t done = 0;;) {
        const ssize_t got = pread(fd.get(), buffer.data(), buffer.size(), done);
        const size_t taken = got > 0 ? reader.read({buffer.data(), static_cast<size_t>(got)}) : 0;
        if (taken == 0)
            break;
        done += static_cast<off_t>(taken);
    }
    reader.end_fragment();
    timeline& line = state.head.line;
    int64_t begin = -1;
    while (reader.has_gop()) {
        const gop read = reader.take_gop();
        begin = begin < 0 ? read.start : begin;
        line.layout = read.layout;
        state.master.streams = read.facts;
    }
    if (begin < 0)
        return;
    line.begun = true;
    line.clock = stamp_sum(begin, last.duration);
    line.ticks = begin + last.duration;
}

} // namespace

recovery recover_state(const output_directory& output, const std::string& rendition,
                       int64_t target_duration, stored_state& state, int64_t& target_found)
{
    own_playlist lead = read_own(output, rendition, track{});
    target_found = lead.target_duration;
    if (lead.segments.empty())
        return recovery::nothing;
    if (lead.target_duration != target_duration)
        return recovery::other_target;

    state = {};
    state.listed = std::move(lead.segments);
    state.head.next_sequence = state.listed.back().sequence + 1;
    state.head.discontinuities = state.listed.back().discontinuity_number;
    state.head.ended = lead.ended;
    state.head.line.date = state.listed.back().date + state.listed.back().duration;
    for (const std::string& name : tracks_on_disk(output, rendition)) {
        const track of = track_named(name);
        bool has_newest = false;
        for (segment& s : state.listed) {
            s.independent = false; // not known; the next segments will say
            state.head.longest_playlist += name.empty() ? s.duration : 0;
            const int64_t bytes = output.size_of(segment_file_name(rendition, of, s.sequence));
            has_newest = bytes >= 0;
            if (has_newest)
                s.files.push_back({.track = name, .bytes = static_cast<uint64_t>(bytes)});
        }
        if (has_newest)
            state.master.tracks.push_back(of);
    }
    read_last_segment(output, rendition, state);
    return recovery::recovered;
}

uint64_t next_sequence_on_disk(const output_directory& output, const std::string& rendition)
{
    const own_playlist lead = read_own(output, rendition, track{});
    return lead.segments.empty() ? 0 : lead.sequence + lead.segments.size();
}
