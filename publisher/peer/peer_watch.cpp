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

// Between looks while the own list has its first segment alone: whether a peer's is longer is to be
// known with the second.
constexpr int64_t soon_ms = 500;

// Two are apart by what each waits for, and by how old an answer is.
constexpr uint64_t apart = 2;

bool is_short(const presentation& ours)
{
    return listed_duration(ours) < least_listed(ours.target_duration);
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

void peer_watch::begin_with(const peer_answer& answer)
{
    for (peer& of : peers_) {
        if (of.url == answer.url && !stands_still(settings_, 1000 * answer.stood_s))
            take_list(of, answer.list, {});
    }
}

// When to ask it again.
int64_t peer_watch::due_ms(const peer& of, const presentation& ours) const
{
    const int64_t wait_ms = ours.listed.size() == 1 ? soon_ms : 1000 * settings_.target_duration;
    return of.asked_ms < 0 ? 0 : of.asked_ms + wait_ms;
}

void peer_watch::look(const presentation& ours, int64_t now_ms)
{
    for (peer& of : peers_) {
        if (of.is_asked && !of.fetch->is_running()) {
            of.is_asked = false;
            take_answer(of, ours, now_ms);
        }
        if (of.is_asked || now_ms < due_ms(of, ours))
            continue;
        of.is_asked = true;
        of.asked_ms = now_ms;
        of.body.clear();
        of.fetch->start(peer_list_url(settings_, of.url), of.validators, most_peer_list_bytes,
                        [&of](std::span<const uint8_t> bytes) {
                            of.body.append(bytes.begin(), bytes.end());
                            return of.body.size() <= most_peer_list_bytes;
                        });
    }
}

int64_t peer_watch::look_again_ms(const presentation& ours, int64_t now_ms) const
{
    int64_t soonest = no_wait_ends;
    for (const peer& of : peers_) {
        if (!of.is_asked)
            soonest = sooner(soonest, std::max<int64_t>(due_ms(of, ours) - now_ms, 0));
    }
    return soonest;
}

void peer_watch::take_answer(peer& of, const presentation& ours, int64_t now_ms)
{
    const http_result& result = of.fetch->result();
    const bool is_same = result.status == http_not_modified && !of.text.empty();
    if (result.status != http_ok && !is_same) {
        be_down(of, reason_of(result));
        return;
    }
    if (!is_same && of.body != of.text) {
        of.text = std::exchange(of.body, {});
        of.validators = result.validators;
        of.changed_ms = now_ms - 1000 * result.stood_s;
    }
    std::string error;
    if (stands_still(settings_, now_ms - of.changed_ms))
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
    if (ours.listed.empty())
        return false;
    const uint64_t first = ours.listed.front().sequence;
    const bool has_longer =
        std::any_of(peers_.begin(), peers_.end(), [&ours, first](const peer& of) {
            return of.up && of.first < first && (of.last >= first || ours.listed.size() == 1);
        });
    return has_longer && is_short(ours);
}

bool peer_watch::are_ahead(const presentation& ours) const
{
    return have(ours.next_sequence + apart);
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
