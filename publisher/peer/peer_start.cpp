#include "publisher/peer/peer_start.hpp"

#include <algorithm>
#include <cstddef>
#include <span>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <poll.h>

#include "publisher/peer/peer_list.hpp"
#include "publisher/read/fragment_reader.hpp"
#include "publisher/timeline/segmenting.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int longest_poll_ms = 100;

// The first picture is within them, and the tables before it.
constexpr size_t head_bytes = size_t{512} << 10;
constexpr uint64_t most_segment_bytes = uint64_t{1} << 30;

// Of segments that are half a second long, in fifteen centuries.
constexpr uint64_t most_number = 100'000'000'000;

// What comes into `body` until that is as long as is enough, in the time that a peer has.
http_result fetch_now(http_client& client, const publisher_settings& settings,
                      const std::string& url, uint64_t most_bytes, size_t enough,
                      std::vector<uint8_t>& body)
{
    http_fetch fetch(client, peer_http(settings));
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
    return fetch.result();
}

std::optional<peer_answer> ask_for_list(http_client& client, const publisher_settings& settings,
                                        const std::string& peer, std::string& error)
{
    std::vector<uint8_t> body;
    const http_result result = fetch_now(client, settings, peer_list_url(settings, peer),
                                         most_peer_list_bytes, most_peer_list_bytes, body);
    if (result.status != http_ok) {
        error = reason_of(result);
        return std::nullopt;
    }
    auto list = read_peer_list(std::string(body.begin(), body.end()), error);
    if (!list)
        return std::nullopt;
    if (list->segments.empty()) {
        error = "it lists nothing";
        return std::nullopt;
    }
    return peer_answer{.url = peer, .list = std::move(*list), .stood_s = result.stood_s};
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

} // namespace

std::vector<peer_answer> ask_peers(http_client& client, const publisher_settings& settings,
                                   std::vector<std::string>& lines)
{
    std::vector<peer_answer> answers;
    for (const std::string& peer : settings.peers) {
        std::string error;
        auto answer = ask_for_list(client, settings, peer, error);
        if (answer)
            answers.push_back(std::move(*answer));
        else
            lines.push_back(
                fmt::format("{}: {}; it is not known whether both publish the same", peer, error));
    }
    const auto rank = [&settings](const peer_answer& of) {
        return std::pair(!stands_still(settings, 1000 * of.stood_s),
                         of.list.sequence + of.list.segments.size());
    };
    std::stable_sort(
        answers.begin(), answers.end(),
        [&rank](const peer_answer& a, const peer_answer& b) { return rank(a) > rank(b); });
    return answers;
}

bool is_needed(const media_list& list, uint64_t next)
{
    if (next < list.sequence)
        return true;
    const auto known = std::min<uint64_t>(next - list.sequence, list.segments.size());
    return std::any_of(list.segments.begin() + static_cast<std::ptrdiff_t>(known),
                       list.segments.end(),
                       [](const listed_segment& s) { return s.discontinuity; });
}

bool goes_on_there(const media_list& list, uint64_t next)
{
    return next < list.sequence || (next - list.sequence < list.segments.size() &&
                                    !list.segments[next - list.sequence].discontinuity);
}

std::optional<peer_place> ask_for_place(http_client& client, const publisher_settings& settings,
                                        const peer_answer& answer, uint64_t next, int64_t date,
                                        std::string& error)
{
    const media_list& list = answer.list;
    size_t at = next > list.sequence ? next - list.sequence : 0;
    uint64_t discontinuities = list.discontinuity_sequence;
    for (size_t i = 0; i < list.segments.size(); i++) {
        if (list.segments[i].discontinuity) {
            discontinuities++;
            at = std::max(at, i);
        }
    }
    if (list.sequence > most_number || at >= list.segments.size()) {
        error = fmt::format("its numbers, as {}, are of no stream's time", list.sequence);
        return std::nullopt;
    }
    const listed_segment& last = list.segments.back();
    const listed_segment& from = list.segments[at];
    std::vector<uint8_t> head;
    const http_result result = fetch_now(client, settings, peer_file_url(answer.url, from.uri),
                                         most_segment_bytes, head_bytes, head);
    if (result.status != http_ok && head.size() < head_bytes) {
        error = reason_of(result);
        return std::nullopt;
    }
    const int64_t start = first_time_stamp(head);
    if (start < 0) {
        error = from.uri + " has no picture";
        return std::nullopt;
    }
    const segment_limits limits = limits_of(settings);
    const int64_t end_date = from.date + from.duration;
    const int64_t ago =
        last.date + last.duration - end_date + answer.stood_s * pts_ticks_per_second;
    peer_place place{
        .next_sequence = list.sequence + at + 1, .discontinuities = discontinuities, .line = {}};
    place.line.ranges = parse_date_ranges(list);
    place.line.begun = true;
    place.line.clock = stamp_sum(start, from.duration);
    place.line.ticks = start + from.duration;
    place.line.date = end_date;
    place.line.arrival = date - ago;
    place.line.stream =
        stream_behind(place.line, place.next_sequence - 1, from.duration, limits.wanted);
    return place;
}
