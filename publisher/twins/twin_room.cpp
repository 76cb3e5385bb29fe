#include "publisher/twins/twin_room.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "toolkit/pts_clock.hpp"

namespace
{

// Less than a picture lasts.
constexpr int64_t same_time = pts_ticks_per_second / 100;

// Holes up to this are in the stream itself, as the timeline has it.
constexpr int64_t longest_hole = pts_ticks_per_second / 2;

// Sources may lag by this, and something for the delay of a GOP.
constexpr int64_t longest_lag_ms = 35000;

// A GOP that none of the others has delivered by then is of another stream.
constexpr int64_t longest_queued_ms = 45000;

// Further apart than any lag explains: another time altogether.
constexpr int64_t longest_distance = 60 * pts_ticks_per_second;

// What is remembered of the presentation covers every lag.
constexpr int64_t remembered = 45 * pts_ticks_per_second;
constexpr size_t most_remembered = 512;

// A source that has delivered nothing for so long, and for so many GOPs, is not waited for.
constexpr int64_t silence_ms = 5000;
constexpr int64_t silent_gops = 3;

// What differs once may have been damaged where no counter shows it.
constexpr int most_disagreements = 3;

bool is_same_offset(int64_t a, int64_t b)
{
    return std::abs(stamp_distance(b, a)) <= same_time;
}

bool is_sound(const twin_gop& what)
{
    return what.errors == 0 && !what.torn;
}

} // namespace

void twin_room::resume(int64_t clock, const std::string& layout)
{
    begun_ = true;
    end_ = clock;
    last_layout_ = layout;
}

void twin_room::resume_source(size_t source, int64_t offset, bool published_last)
{
    twin_source& resumed = sources_[source];
    resumed.standing = twin_standing::matched;
    resumed.offset = offset;
    resumed.at_head = published_last;
    if (published_last)
        last_source_ = source;
}

int64_t twin_room::offset(size_t source) const
{
    return stamp_distance(last_offset_, sources_[source].offset);
}

void twin_room::add(size_t source, twin_gop what, int64_t now_ms)
{
    sources_[source].delivers_until_ms = now_ms;
    if (!what.torn) {
        const int64_t gops_ms = silent_gops * what.length / pts_ticks_per_millisecond;
        sources_[source].delivers_until_ms += std::max(silence_ms, gops_ms);
    }
    sources_[source].queue.push_back({.what = std::move(what), .arrived_ms = now_ms});
}

void twin_room::expect(size_t source, int64_t now_ms)
{
    int64_t& until_ms = sources_[source].delivers_until_ms;
    until_ms = std::max(until_ms, now_ms + silence_ms);
}

twin_decision twin_room::decide(int64_t now_ms)
{
    if (sources_.size() > 1) {
        for (size_t i = 0; i < sources_.size(); i++) {
            if (!sources_[i].queue.empty() && settle(sources_[i], now_ms)) {
                sources_[i].queue.pop_front();
                return {.verdict = twin_verdict::drop, .source = i};
            }
        }
    }
    const auto best = best_candidate();
    if (!best) {
        waiting_since_ms_ = -1;
        return {};
    }
    if (waiting_since_ms_ < 0)
        waiting_since_ms_ = now_ms;
    if (now_ms - waiting_since_ms_ < patience_ms(best->what) && hope_ms(now_ms) > 0)
        return {};
    publish(*best);
    return {.verdict = twin_verdict::publish, .source = best->source};
}

int64_t twin_room::decide_again_ms(int64_t now_ms) const
{
    const auto best = best_candidate();
    if (!best || waiting_since_ms_ < 0)
        return -1;
    const int64_t patience = waiting_since_ms_ + patience_ms(best->what) - now_ms;
    return std::max<int64_t>(std::min(patience, hope_ms(now_ms)), 1);
}

// Brings the oldest GOP of the source into relation with the presentation; true: it is not needed.
bool twin_room::settle(twin_source& source, int64_t now_ms)
{
    // What stands before something that is known is older than that.
    const auto known = known_at(source);
    if (known && *known > 0)
        return true;
    const queued_gop& oldest = source.queue.front();
    const twin_gop& what = oldest.what;
    if (const published_gop* same = find(source, what)) {
        compare(source, what, *same);
        return true;
    }
    if (what.after_loss && source.standing == twin_standing::matched)
        source.standing = twin_standing::joining; // the clock of a new run may be another
    if (known && source.standing != twin_standing::refused)
        return false;
    const bool too_old =
        now_ms - oldest.arrived_ms > longest_queued_ms || source.queue.size() >= most_queued;
    if (source.standing == twin_standing::matched) {
        const int64_t distance = distance_to(source, what);
        if (distance < 0 && distance > -longest_distance) {
            if (contradicts(source, what))
                disagree(source);
            source.at_head = std::abs(distance + what.length) <= same_time && !what.torn;
            return true;
        }
    }
    if (too_old && begun_)
        disagree(source);
    return too_old;
}

// The first GOP of those that wait which is published already, or would follow now.
std::optional<size_t> twin_room::known_at(const twin_source& source) const
{
    for (size_t i = 0; i < source.queue.size(); i++) {
        const twin_gop& what = source.queue[i].what;
        const bool follows = i == 0 && source.at_head && !what.after_loss;
        if (follows || is_next_by_clock(source, what) || find(source, what) != nullptr)
            return i;
    }
    return std::nullopt;
}

int64_t twin_room::distance_to(const twin_source& source, const twin_gop& what) const
{
    return begun_ ? stamp_distance(end_, stamp_sum(what.start, -source.offset)) : 0;
}

bool twin_room::is_next_by_clock(const twin_source& source, const twin_gop& what) const
{
    return std::abs(distance_to(source, what)) <= same_time;
}

const twin_room::published_gop* twin_room::find_by_time(const twin_source& source,
                                                        const twin_gop& what) const
{
    const int64_t start = stamp_sum(what.start, -source.offset);
    const auto found =
        std::find_if(published_.rbegin(), published_.rend(), [start](const published_gop& p) {
            return std::abs(stamp_distance(p.start, start)) <= same_time;
        });
    return found == published_.rend() ? nullptr : &*found;
}

// Time comes first: pictures may come again, as those of a clip that is shown over and over.
// Content alone tells only where the clock leads to another content, or to a time that cannot be.
const twin_room::published_gop* twin_room::find(const twin_source& source,
                                                const twin_gop& what) const
{
    const published_gop* same = find_by_time(source, what);
    if (same != nullptr && (same->content == what.content || !same->sound || !is_sound(what)))
        return same;
    const int64_t distance = distance_to(source, what);
    const bool is_far = std::abs(distance) > longest_distance;
    const bool is_late = distance < -same_time && source.standing != twin_standing::matched;
    const published_gop* elsewhere =
        same != nullptr || is_far || is_late ? find_by_content(what) : nullptr;
    return elsewhere != nullptr ? elsewhere : same;
}

// A picture that stands still gives many GOPs of one content, which say nothing.
const twin_room::published_gop* twin_room::find_by_content(const twin_gop& what) const
{
    const published_gop* found = nullptr;
    for (const published_gop& p : published_) {
        if (!is_sound(what) || !p.sound || p.content != what.content)
            continue;
        if (found != nullptr)
            return nullptr;
        found = &p;
    }
    return found;
}

// Where one sound GOP was published, the same stream has no other that begins inside it.
bool twin_room::contradicts(const twin_source& source, const twin_gop& what) const
{
    const int64_t start = stamp_sum(what.start, -source.offset);
    return is_sound(what) &&
           std::any_of(published_.begin(), published_.end(), [start](const published_gop& p) {
               const int64_t inside = stamp_distance(p.start, start);
               return p.sound && inside > same_time && inside < p.length - same_time;
           });
}

void twin_room::disagree(twin_source& source)
{
    source.supposed_offset.reset();
    if (++source.disagreements >= most_disagreements)
        source.standing = twin_standing::refused;
}

// The GOP is published already: what does that say about the source?
void twin_room::compare(twin_source& source, const twin_gop& what, const published_gop& with)
{
    const int64_t end = stamp_sum(with.start, with.length);
    const int64_t offset = stamp_distance(with.start, what.start);
    const bool same_clock = is_same_offset(offset, source.offset);
    source.at_head = &with == &published_.back() && !what.torn &&
                     std::abs(stamp_distance(end, stamp_sum(with.start, what.length))) <= same_time;
    if (!is_sound(what) || !with.sound)
        return;
    if (what.content != with.content) {
        disagree(source);
        return;
    }
    // One GOP of the same content at the same time is proof enough; on another clock it takes two
    // that agree on how far it is ahead.
    const bool twice = source.supposed_offset && is_same_offset(*source.supposed_offset, offset);
    source.supposed_offset = offset;
    if (!same_clock && !twice)
        return;
    source.offset = offset;
    source.standing = twin_standing::matched;
    source.disagreements = 0;
}

twin_room::candidate twin_room::classify(size_t index) const
{
    const twin_source& source = sources_[index];
    if (source.queue.empty() || source.standing == twin_standing::refused)
        return {};
    const twin_gop& what = source.queue.front().what;
    const bool follows = source.at_head && !what.after_loss;
    candidate c{.source = index, .what = kind::stray, .distance = distance_to(source, what)};
    const bool is_next = std::abs(c.distance) <= same_time ||
                         (follows && c.distance > 0 && c.distance <= longest_hole);
    if (is_next) {
        const bool as_before = !last_source_ || (is_same_offset(source.offset, last_offset_) &&
                                                 what.layout == last_layout_);
        if (what.torn)
            c.what = kind::torn;
        else if (what.errors > 0)
            c.what = kind::damaged;
        else if (begun_ && source.standing == twin_standing::joining)
            c.what = kind::next_by_chance;
        else
            c.what =
                as_before || (follows && last_source_ == index) ? kind::next : kind::next_otherwise;
    } else if (follows) {
        c.what = kind::jumped;
    } else if (c.distance > 0 && c.distance <= longest_distance) {
        c.what = kind::beyond;
    }
    return c;
}

bool twin_room::is_better(const candidate& a, const candidate& b) const
{
    if (a.what != b.what)
        return a.what < b.what;
    const twin_gop& of_a = sources_[a.source].queue.front().what;
    const twin_gop& of_b = sources_[b.source].queue.front().what;
    switch (a.what) {
    case kind::damaged:
        return of_a.errors < of_b.errors;
    case kind::torn:
        return of_a.length != of_b.length ? of_a.length > of_b.length : of_a.errors < of_b.errors;
    case kind::beyond:
        return a.distance < b.distance;
    default:
        break;
    }
    if (!begun_) // the presentation had better begin with the oldest
        return stamp_distance(of_b.start, of_a.start) < 0;
    return last_source_ == a.source;
}

std::optional<twin_room::candidate> twin_room::best_candidate() const
{
    std::optional<candidate> best;
    for (size_t i = 0; i < sources_.size(); i++) {
        const candidate c = classify(i);
        if (c.what != kind::none && (!best || is_better(c, *best)))
            best = c;
    }
    return best;
}

// How long at most a source may still be expected to deliver what the others lack: it delivers, and
// has not come so far yet. 0: there is none.
int64_t twin_room::hope_ms(int64_t now_ms) const
{
    int64_t hope = 0;
    for (const twin_source& source : sources_) {
        if (source.queue.empty() && source.standing != twin_standing::refused)
            hope = std::max(hope, source.delivers_until_ms - now_ms);
    }
    return hope;
}

// What is damaged costs little. Before something is left out, or comes from a source that may be of
// another stream, the others are waited for as long as they may bring what is missing.
int64_t twin_room::patience_ms(kind what) const
{
    switch (what) {
    case kind::next:
        return 0;
    case kind::next_otherwise:
    case kind::damaged:
        return wait_ms_ > 0 ? wait_ms_ : last_length_ / pts_ticks_per_millisecond;
    default:
        return longest_lag_ms;
    }
}

void twin_room::publish(const candidate& chosen)
{
    twin_source& source = sources_[chosen.source];
    const twin_gop what = std::move(source.queue.front().what);
    source.queue.pop_front();
    for (twin_source& other : sources_)
        other.at_head = false;
    source.at_head = !what.torn;
    source.standing = twin_standing::matched;
    source.disagreements = 0;

    begun_ = true;
    const int64_t start = stamp_sum(what.start, -source.offset);
    end_ = stamp_sum(start, what.length);
    last_length_ = what.length;
    last_layout_ = what.layout;
    last_source_ = chosen.source;
    last_offset_ = source.offset;
    waiting_since_ms_ = -1;
    published_.push_back({
        .start = start,
        .length = what.length,
        .content = what.content,
        .sound = is_sound(what),
    });
    int64_t length = 0;
    for (const published_gop& p : published_)
        length += p.length;
    while (published_.size() > most_remembered || length - published_.front().length > remembered) {
        length -= published_.front().length;
        published_.pop_front();
    }
}
