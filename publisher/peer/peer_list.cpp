#include "publisher/peer/peer_list.hpp"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>

#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t connect_ms = 2000;
constexpr int64_t stalled_s = 2;
constexpr int64_t most_ms = 5000;

// What is compared each time: each segment is among them more than once.
constexpr size_t most_compared = 64;

// What lists of a week have, and what the names of segments have.
constexpr int64_t most_lines = 1'000'000;
constexpr size_t most_name_bytes = 255;

constexpr size_t most_date_ranges = 500;

// Target durations without another list.
constexpr int64_t longest_standing = 3;

// Times are the same to a viewer up to this. A list has whole milliseconds, and who takes a peer's
// up goes on with those; a source that is taken as it comes tells its last GOP's length by itself.
constexpr int64_t unnoticed = 5 * pts_ticks_per_millisecond;

bool is_far(int64_t one, int64_t other)
{
    return std::abs(one - other) > unnoticed;
}

// It is told to the operator, and asked for.
bool is_name(const std::string& uri)
{
    return uri.size() <= most_name_bytes &&
           std::all_of(uri.begin(), uri.end(), [](char c) { return c > ' ' && c <= '~'; });
}

// In the words of the operator's message.
std::string difference_of(const segment& s, const std::string& track, const listed_segment& theirs,
                          uint64_t their_discontinuities)
{
    if (theirs.uri != segment_file_name(track, s))
        return fmt::format("it is {} there and {} here", theirs.uri, segment_file_name(track, s));
    if (is_far(theirs.duration, s.duration))
        return fmt::format("it lasts {:.5f} s there and {:.5f} s here",
                           static_cast<double>(theirs.duration) / pts_ticks_per_second,
                           static_cast<double>(s.duration) / pts_ticks_per_second);
    if (is_far(theirs.date, s.date))
        return fmt::format("its date is {} there and {} here", date_text(theirs.date),
                           date_text(s.date));
    if (theirs.discontinuity != s.discontinuity || their_discontinuities != s.discontinuity_number)
        return fmt::format("{} discontinuities lead to it there and {} here", their_discontinuities,
                           s.discontinuity_number);
    return "";
}

} // namespace

http_settings peer_http(const publisher_settings& settings)
{
    http_settings http = settings.fetch;
    http.connect_ms = connect_ms;
    http.stalled_s = stalled_s;
    http.most_ms = most_ms;
    return http;
}

std::string peer_file_url(const std::string& peer, const std::string& name)
{
    return peer + (peer.ends_with('/') ? "" : "/") + name;
}

std::string peer_list_url(const publisher_settings& settings, const std::string& peer)
{
    return peer_file_url(peer, media_playlist_name(settings.renditions.front().name));
}

std::optional<media_list> read_peer_list(std::string_view text, std::string& error)
{
    error = "its list is not one of a publisher";
    if (!text.starts_with("#EXTM3U\n") || std::count(text.begin(), text.end(), '\n') > most_lines)
        return std::nullopt;
    media_list list = parse_media_list(text);
    if (list.target_duration <= 0 ||
        !std::all_of(list.segments.begin(), list.segments.end(),
                     [](const listed_segment& s) { return is_name(s.uri); }))
        return std::nullopt;
    if (list.date_ranges.size() > most_date_ranges)
        list.date_ranges.erase(list.date_ranges.begin(), list.date_ranges.end() - most_date_ranges);
    error.clear();
    return list;
}

bool stands_still(const publisher_settings& settings, int64_t ms)
{
    return ms > 1000 * longest_standing * settings.target_duration;
}

std::string difference(const presentation& ours, const std::string& track, const media_list& theirs)
{
    if (ours.listed.empty() || theirs.segments.empty())
        return "";
    const uint64_t first = ours.listed.front().sequence;
    const uint64_t last = ours.listed.back().sequence;
    if (last + 1 != ours.next_sequence) // it has taken up a place, and will list that alone
        return "";
    if (theirs.target_duration != ours.target_duration)
        return fmt::format("its target duration is {} s there and {} s here",
                           theirs.target_duration, ours.target_duration);
    const uint64_t their_last = theirs.sequence + theirs.segments.size() - 1;
    if (theirs.sequence > last + 1 || their_last + 1 < first)
        return fmt::format("segments {} to {} there and {} to {} here have none in common",
                           theirs.sequence, their_last, first, last);
    uint64_t discontinuities = theirs.discontinuity_sequence;
    for (const listed_segment& s : theirs.segments)
        discontinuities += s.discontinuity ? 1 : 0;
    size_t compared = 0;
    for (uint64_t number = their_last; number >= std::max(first, theirs.sequence); number--) {
        const listed_segment& listed = theirs.segments[number - theirs.sequence];
        if (number <= last) {
            const segment& s = ours.listed[number - first];
            const std::string found =
                has_file_of(s, track) ? difference_of(s, track, listed, discontinuities) : "";
            if (!found.empty())
                return fmt::format("segment {}: {}", number, found);
            if (++compared == most_compared)
                break;
        }
        discontinuities -= listed.discontinuity ? 1 : 0;
    }
    return "";
}
