#include "publisher/state/recovery.hpp"

#include <algorithm>
#include <string_view>

#include <fcntl.h>

#include "publisher/read/fragment_reader.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr size_t most_playlist_bytes = size_t{64} << 20;
constexpr int64_t no_limit = INT64_MAX / 4;

media_list read_own(const output_directory& output, const std::string& rendition, const track& of)
{
    return parse_media_list(
        output.read_text(media_playlist_name(rendition, of), most_playlist_bytes));
}

std::deque<segment> segments_of(const media_list& list)
{
    std::deque<segment> segments;
    uint64_t discontinuities = list.discontinuity_sequence;
    for (const listed_segment& listed : list.segments) {
        if (listed.discontinuity)
            discontinuities++;
        segments.push_back({
            .sequence = list.sequence + segments.size(),
            .discontinuity_number = discontinuities,
            .discontinuity = listed.discontinuity,
            .duration = listed.duration,
            .date = listed.date,
            .files = {},
        });
    }
    return segments;
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
    const media_list lead = read_own(output, rendition, track{});
    target_found = lead.target_duration;
    if (lead.segments.empty())
        return recovery::nothing;
    if (lead.target_duration != target_duration)
        return recovery::other_target;

    state = {};
    state.listed = segments_of(lead);
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
    const media_list lead = read_own(output, rendition, track{});
    return lead.segments.empty() ? 0 : lead.sequence + lead.segments.size();
}
