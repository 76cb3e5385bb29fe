#include "publisher/state/recovery.hpp"

#include <algorithm>
#include <charconv>
#include <map>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "publisher/base/files.hpp"
#include "publisher/read/fragment_reader.hpp"
#include "publisher/text/iframe_playlist.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"
#include "publisher/timeline/segmenting.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr size_t most_playlist_bytes = size_t{64} << 20;
constexpr int64_t no_limit = INT64_MAX / 4;
constexpr std::string_view independent_tag = "#EXT-X-INDEPENDENT-SEGMENTS\n";

media_list read_own(const output_directory& output, const std::string& track)
{
    return parse_media_list(output.read_text(media_playlist_name(track), most_playlist_bytes));
}

uint64_t end_of(const media_list& list)
{
    return list.segments.empty() ? 0 : list.sequence + list.segments.size();
}

std::deque<segment> rows_of(const media_list& list)
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
            .in_folder = !folder_in(listed.uri).empty(),
            .duration = listed.duration,
            .date = listed.date,
            .files = {},
        });
    }
    return segments;
}

// The names of the tracks that have a playlist: the rungs', and what goes separately.
std::vector<std::string> tracks_on_disk(const output_directory& output,
                                        const std::vector<std::string>& rungs)
{
    constexpr std::string_view suffix = ".m3u8";
    std::vector<std::string> tracks;
    for (std::string_view name : output.names()) {
        const std::string_view first = name.substr(0, name.find('.'));
        if (std::find(rungs.begin(), rungs.end(), first) == rungs.end() ||
            !name.ends_with(suffix) || is_iframe_playlist_name(std::string(name)))
            continue;
        tracks.emplace_back(name.substr(0, name.size() - suffix.size()));
    }
    std::sort(tracks.begin(), tracks.end());
    return tracks;
}

// The hour that a folder is of.
int64_t date_of_folder(const std::string& folder)
{
    return ticks_of_date(fmt::format("{}-{}-{}T{}:00:00.000Z", folder.substr(0, 4),
                                     folder.substr(4, 2), folder.substr(6, 2),
                                     folder.substr(9, 2)));
}

// How long they lasted is not known: no longer than the target duration.
std::deque<retired_segment> segments_before_list(const output_directory& output,
                                                 const std::vector<std::string>& rungs,
                                                 const media_list& lead, int64_t longest_playlist)
{
    std::map<uint64_t, segment> found;
    const auto look_into = [&](const std::string& folder) {
        for (const std::string& name : output.names(folder.empty() ? "." : folder)) {
            const auto [track, sequence] = parse_segment_name(name);
            const std::string rung = track.substr(0, track.find('.'));
            if (sequence == 0 || sequence >= lead.sequence ||
                std::find(rungs.begin(), rungs.end(), rung) == rungs.end())
                continue;
            segment& s = found[sequence];
            s.sequence = sequence;
            s.in_folder = !folder.empty();
            s.duration = lead.target_duration * pts_ticks_per_second;
            s.date = s.in_folder ? date_of_folder(folder) : 0;
            const int64_t bytes = output.size_of(segment_file_name(track, s));
            s.files.push_back({.track = track, .bytes = static_cast<uint64_t>(bytes)});
        }
    };
    look_into("");
    for (const std::string& name : output.names()) {
        if (is_folder_of_hour(name))
            look_into(name);
    }
    std::deque<retired_segment> retired;
    for (auto& [sequence, s] : found) {
        const int64_t hold = availability(s, longest_playlist) / pts_ticks_per_millisecond;
        retired.push_back({.what = std::move(s), .due_ms = 0, .hold_ms = hold});
    }
    return retired;
}

// What a segment of a rung holds.
struct segment_content {
    int64_t begin = -1;  // of its first GOP, 33 bits; -1: it has none
    int64_t arrival = 0; // when it had been written: ticks since 1970
    gop last;
};

// Nothing, as a power cut leaves of the newest files.
segment_content read_segment(const output_directory& output, const std::string& rung,
                             const segment& s)
{
    segment_content content;
    const descriptor fd = open_file(output.fd(), segment_file_name(rung, s));
    if (!fd)
        return content;
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
    content.arrival = written_ms(fd) * pts_ticks_per_millisecond;
    while (reader.has_gop()) {
        content.last = reader.take_gop();
        content.begin = content.begin < 0 ? content.last.start : content.begin;
    }
    return content;
}

// Where the clock stands behind the newest segment of the rung, and what the stream is like there.
// Segments before `first` may be from before it was away.
void read_newest_segment(const output_directory& output, const std::string& rung, uint64_t first,
                         stored_state& state)
{
    int64_t behind = 0; // ticks
    for (auto s = state.listed.rbegin(); s != state.listed.rend() && s->sequence >= first; ++s) {
        segment_content content = read_segment(output, rung, *s);
        if (content.begin >= 0) {
            state.head.rungs.push_back(
                {.name = rung, .layout = std::move(content.last.layout), .sources = {}});
            state.master.rungs.push_back({.name = rung, .streams = std::move(content.last.facts)});
            timeline& line = state.head.line;
            line.begun = true;
            line.clock = stamp_sum(content.begin, behind + s->duration);
            line.ticks = content.begin + behind + s->duration;
            line.arrival = content.arrival + behind;
            return;
        }
        behind += s->duration;
    }
}

// What the master playlist says, as far as the segments that are left tell it.
void measure(stored_state& state, int64_t target_duration)
{
    const presentation found{
        .target_duration = target_duration, .listed = state.listed, .ranges = {}, .master = {}};
    for (rung_facts& facts : state.master.rungs) {
        const bandwidth measured = measured_bandwidth(found, facts.name);
        facts.peak_bandwidth = measured.peak;
        facts.average_bandwidth = measured.average;
        const bandwidth of_keyframes = keyframe_bandwidth(found, facts.name);
        facts.keyframe_peak_bandwidth = of_keyframes.peak;
        facts.keyframe_average_bandwidth = of_keyframes.average;
    }
}

} // namespace

recovery recover_state(const output_directory& output, const std::vector<std::string>& rungs,
                       int64_t target_duration, stored_state& state, int64_t& target_found)
{
    std::vector<media_list> lists;
    lists.reserve(rungs.size());
    for (const std::string& rung : rungs)
        lists.push_back(read_own(output, rung));
    const media_list newest =
        *std::max_element(lists.begin(), lists.end(), [](const media_list& a, const media_list& b) {
            return end_of(a) < end_of(b);
        });
    // Of a rung that is away there is none, or one that has ended early. One list is ahead where
    // they were about to be replaced.
    const auto is_current = [&newest](const media_list& list) {
        return !list.segments.empty() && end_of(list) + 1 >= end_of(newest);
    };
    media_list lead = newest; // that of a rung that was away begins late
    for (const media_list& list : lists) {
        if (is_current(list) && list.sequence < lead.sequence)
            lead = list;
    }
    target_found = lead.target_duration;
    if (lead.segments.empty())
        return recovery::nothing;
    if (lead.target_duration != target_duration)
        return recovery::other_target;

    state = {};
    state.listed = rows_of(lead);
    for (segment& s : rows_of(newest)) {
        if (s.sequence >= end_of(lead))
            state.listed.push_back(std::move(s));
    }
    state.head.next_sequence = state.listed.back().sequence + 1;
    state.head.discontinuities = state.listed.back().discontinuity_number;
    state.head.first_sequence = lead.is_event ? lead.sequence : 0;
    state.head.ended = newest.ended;
    state.head.line.date = state.listed.back().date + state.listed.back().duration;
    state.head.line.ranges = parse_date_ranges(newest);
    const bool independent =
        std::all_of(lists.begin(), lists.end(), [&is_current](const media_list& list) {
            return !is_current(list) || list.header.find(independent_tag) != std::string::npos;
        });
    int64_t duration = 0;
    for (segment& s : state.listed) {
        s.independent = independent;
        duration += s.duration;
    }
    state.master.independent = independent;
    state.listed.back().list_duration = duration;
    state.retired = segments_before_list(output, rungs, lead, duration);
    for (const std::string& name : tracks_on_disk(output, rungs)) {
        const media_list list = read_own(output, name);
        bool has_newest = false;
        for (segment& s : state.listed) {
            const int64_t bytes = output.size_of(segment_file_name(name, s));
            const bool is_named = s.sequence >= list.sequence && s.sequence < end_of(list);
            has_newest = bytes > 0 || is_named; // torn by a power cut, or gone
            if (has_newest)
                s.files.push_back(
                    {.track = name, .bytes = static_cast<uint64_t>(std::max<int64_t>(bytes, 0))});
        }
        const track of = track_named(name);
        if (has_newest && of.kind != track_kind::lead)
            state.master.shared.push_back(of);
    }
    for (size_t i = 0; i < rungs.size(); i++) {
        take_up_keyframes(
            parse_media_list(output.read_text(iframe_playlist_name(rungs[i]), most_playlist_bytes)),
            rungs[i], state.listed);
        if (is_current(lists[i]))
            read_newest_segment(output, rungs[i], lists[i].sequence, state);
    }
    measure(state, target_duration);
    return recovery::recovered;
}

sequences_on_disk find_sequences(const output_directory& output,
                                 const std::vector<std::string>& rungs)
{
    constexpr std::string_view number_tag = "\n#EXT-X-MEDIA-SEQUENCE:";
    constexpr std::string_view segment_tag = "\n#EXTINF:";
    sequences_on_disk found;
    for (const std::string& rung : rungs) {
        // Counted, because reading a list of a day takes its time.
        const std::string text = output.read_text(media_playlist_name(rung), most_playlist_bytes);
        const size_t number = text.find(number_tag);
        uint64_t first = 0;
        if (number != std::string::npos)
            std::ignore = std::from_chars(text.data() + number + number_tag.size(),
                                          text.data() + text.size(), first); // 0 then
        uint64_t count = 0;
        size_t at = text.find(segment_tag);
        for (; at != std::string::npos; at = text.find(segment_tag, at + segment_tag.size()))
            count++;
        if (count == 0)
            continue;
        found.first = found.next == 0 ? first : std::min(found.first, first);
        found.next = std::max(found.next, first + count);
    }
    return found;
}
