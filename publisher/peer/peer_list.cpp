#include "publisher/peer/peer_list.hpp"

#include <algorithm>
#include <cstdlib>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <poll.h>

#include "publisher/read/fragment_reader.hpp"
#include "publisher/text/playlist_text.hpp"
#include "publisher/timeline/segmenting.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr long status_ok = 200;

constexpr int64_t connect_ms = 2000;
constexpr int64_t stalled_s = 2;
constexpr int64_t most_ms = 5000;

constexpr int longest_poll_ms = 100;

// The first picture is within them, and the tables before it.
constexpr size_t head_bytes = size_t{512} << 10;
constexpr uint64_t most_segment_bytes = uint64_t{1} << 30;

// Of segments that are half a second long, in fifteen centuries.
constexpr uint64_t most_number = 100'000'000'000;

// What is compared each time: each segment is among them more than once.
constexpr size_t most_compared = 64;

// What lists of a week have, and what the names of segments have.
constexpr int64_t most_lines = 1'000'000;
constexpr size_t most_name_bytes = 255;

constexpr size_t most_date_ranges = 500;

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

std::string url_of(const std::string& peer, const std::string& name)
{
    return peer + (peer.ends_with('/') ? "" : "/") + name;
}

// What comes until the bytes are as many, in the time that a peer has.
std::vector<uint8_t> fetch_now(http_client& client, const http_settings& settings,
                               const std::string& url, uint64_t most_bytes, size_t enough,
                               std::string& error)
{
    std::vector<uint8_t> body;
    http_fetch fetch(client, settings);
    fetch.start(url, {}, most_bytes, [&body, enough](std::span<const uint8_t> bytes) {
        body.insert(body.end(), bytes.begin(), bytes.end());
        return body.size() < enough;
    });
    while (fetch.is_running()) {
        pollfd fetched{.fd = client.fd(), .events = POLLIN, .revents = 0};
        const auto wait_ms = static_cast<int>(client.wait_ms());
        std::ignore =
            poll(&fetched, 1, wait_ms < 0 ? longest_poll_ms : std::min(wait_ms, longest_poll_ms));
        client.serve();
    }
    const http_result& result = fetch.result();
    if (result.status == status_ok || body.size() >= enough)
        return body;
    error = result.status == 0 ? result.error : fmt::format("status {}", result.status);
    return {};
}

// Of its first picture, 33 bits; -1: it has none.
int64_t first_time_stamp(const std::vector<uint8_t>& bytes)
{
    fragment_reader reader(INT64_MAX / 4);
    reader.begin_fragment();
    std::ignore = reader.read(bytes); // what is left is no whole packet
    reader.end_fragment();
    return reader.has_gop() ? reader.take_gop().start : -1;
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

std::string peer_list_url(const publisher_settings& settings, const std::string& peer)
{
    return url_of(peer, media_playlist_name(settings.renditions.front().name));
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

std::string difference(const presentation& ours, const std::string& track, const media_list& theirs)
{
    if (ours.listed.empty() || theirs.segments.empty())
        return "";
    const uint64_t first = ours.listed.front().sequence;
    const uint64_t last = ours.listed.back().sequence;
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

std::optional<media_list> ask_for_list(http_client& client, const publisher_settings& settings,
                                       const std::string& peer, std::string& error)
{
    error.clear();
    const auto text = fetch_now(client, peer_http(settings), peer_list_url(settings, peer),
                                most_peer_list_bytes, most_peer_list_bytes, error);
    if (!error.empty())
        return std::nullopt;
    return read_peer_list(std::string(text.begin(), text.end()), error);
}

std::optional<peer_place> ask_for_place(http_client& client, const publisher_settings& settings,
                                        const std::string& peer, const media_list& list,
                                        int64_t date, std::string& error)
{
    size_t at = 0;
    uint64_t discontinuities = list.discontinuity_sequence;
    for (size_t i = 0; i < list.segments.size(); i++) {
        if (list.segments[i].discontinuity) {
            discontinuities++;
            at = i;
        }
    }
    if (list.sequence > most_number) {
        error = fmt::format("its numbers, as {}, are of no stream's time", list.sequence);
        return std::nullopt;
    }
    const listed_segment& last = list.segments.back();
    const listed_segment& from = list.segments[at];
    const auto head = fetch_now(client, peer_http(settings), url_of(peer, from.uri),
                                most_segment_bytes, head_bytes, error);
    const int64_t start = first_time_stamp(head);
    if (start < 0) {
        if (error.empty())
            error = from.uri + " has no picture";
        return std::nullopt;
    }
    const segment_limits limits = limits_of(settings);
    const int64_t end_date = from.date + from.duration;
    const int64_t ago = last.date + last.duration - end_date;
    peer_place place{
        .next_sequence = list.sequence + at + 1, .discontinuities = discontinuities, .line = {}};
    place.line.ranges = parse_date_ranges(list);
    place.line.begun = true;
    place.line.clock = stamp_sum(start, from.duration);
    place.line.ticks = start + from.duration;
    place.line.date = end_date;
    place.line.arrival = date - ago; // the newest segment there is as good as new
    place.line.stream =
        stream_behind(place.line, place.next_sequence - 1, from.duration, limits.wanted);
    return place;
}
