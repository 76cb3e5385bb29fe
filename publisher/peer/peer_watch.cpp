#include "publisher/peer/peer_watch.hpp"

#include <algorithm>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "publisher/base/waits.hpp"
#include "publisher/peer/peer_list.hpp"
#include "publisher/timeline/segmenting.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr long status_ok = 200;

// Target durations without another list: it is that of a publisher that has ended.
constexpr int64_t longest_standing = 3;

// Between looks while the own list has its first segment alone: whether a peer's is longer is to be
// known with the second.
constexpr int64_t soon_ms = 500;

bool is_short(const presentation& ours)
{
    return listed_duration(ours) < 3 * ours.target_duration * pts_ticks_per_second;
}

} // namespace

peer_watch::peer_watch(const publisher_settings& settings, http_client& client)
    : settings_(settings), http_(peer_http(settings))
{
    for (const std::string& url : settings.peers) {
        peer& of = peers_.emplace_back();
        of.url = url;
        of.fetch = std::make_unique<http_fetch>(client, http_);
    }
}

void peer_watch::begin_with(const std::string& url, const media_list& list)
{
    for (peer& of : peers_) {
        if (of.url == url)
            take_list(of, list, {});
    }
}

void peer_watch::look(const presentation& ours, int64_t now_ms)
{
    const int64_t wait_ms = ours.listed.size() == 1 ? soon_ms : 1000 * settings_.target_duration;
    for (peer& of : peers_) {
        if (of.is_asked && !of.fetch->is_running()) {
            of.is_asked = false;
            take_answer(of, ours, now_ms);
        }
        if (of.is_asked || (of.asked_ms >= 0 && now_ms < of.asked_ms + wait_ms))
            continue;
        of.is_asked = true;
        of.asked_ms = now_ms;
        of.body.clear();
        of.fetch->start(peer_list_url(settings_, of.url), {}, most_peer_list_bytes,
                        [&of](std::span<const uint8_t> bytes) {
                            of.body.append(bytes.begin(), bytes.end());
                            return of.body.size() <= most_peer_list_bytes;
                        });
    }
}

int64_t peer_watch::look_again_ms(int64_t now_ms) const
{
    int64_t soonest = -1;
    for (const peer& of : peers_) {
        const int64_t due_ms = of.asked_ms + 1000 * settings_.target_duration;
        if (!of.is_asked)
            soonest = sooner(soonest, of.asked_ms < 0 ? 0 : std::max<int64_t>(due_ms - now_ms, 0));
    }
    return soonest;
}

void peer_watch::take_answer(peer& of, const presentation& ours, int64_t now_ms)
{
    const http_result& result = of.fetch->result();
    if (result.status != status_ok) {
        be_down(of, result.status == 0 ? result.error : fmt::format("status {}", result.status));
        return;
    }
    if (of.body != of.text) {
        of.text = std::exchange(of.body, {});
        of.changed_ms = now_ms;
    }
    std::string error;
    if (now_ms - of.changed_ms > 1000 * longest_standing * settings_.target_duration)
        be_down(of, "its list stands still");
    else if (const auto list = read_peer_list(of.text, error))
        take_list(of, *list, ours);
    else
        be_down(of, error);
}

void peer_watch::be_down(peer& of, const std::string& why)
{
    of.up = false;
    of.difference.clear(); // who sends no viewers there has none
    if (of.down_told != why)
        lines_.push_back(fmt::format("{}: {}; it cannot stand in for this publisher", of.url, why));
    of.down_told = why;
}

void peer_watch::take_list(peer& of, const media_list& list, const presentation& ours)
{
    if (list.segments.empty()) {
        be_down(of, "it lists nothing");
        return;
    }
    of.first = list.sequence;
    of.last = list.sequence + list.segments.size() - 1;
    of.up = true;
    if (!std::exchange(of.down_told, "").empty())
        lines_.push_back(of.url + ": it publishes again");
    const std::string found = difference(ours, settings_.renditions.front().name, list);
    if (!found.empty() && of.difference.empty())
        lines_.push_back(
            fmt::format("{}: {}; viewers must not be sent from one to the other", of.url, found));
    if (found.empty() && !of.difference.empty())
        lines_.push_back(of.url + ": it publishes the same again");
    of.difference = found;
}

bool peer_watch::have(uint64_t sequence) const
{
    return std::any_of(peers_.begin(), peers_.end(),
                       [sequence](const peer& of) { return of.up && of.last >= sequence; });
}

// While the list has its first segment alone, a peer may have that since the last look.
bool peer_watch::have_more(const presentation& ours) const
{
    if (ours.listed.empty() || !is_short(ours))
        return false;
    const uint64_t first = ours.listed.front().sequence;
    return std::any_of(peers_.begin(), peers_.end(), [&ours, first](const peer& of) {
        return of.up && of.first < first && (of.last >= first || ours.listed.size() == 1);
    });
}

std::vector<peer_watch::peer_report> peer_watch::report() const
{
    std::vector<peer_report> reports;
    for (const peer& of : peers_)
        reports.push_back({.url = of.url, .up = of.up, .difference = of.difference});
    return reports;
}

std::vector<std::string> peer_watch::take_lines()
{
    return std::exchange(lines_, {});
}
