#include "publisher/ladder/gathering.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "toolkit/pts_clock.hpp"

namespace
{

// Splices are told of seconds or minutes before. What is further away is of another clock, as it
// comes at a jump.
constexpr int64_t furthest_splice = 3600 * pts_ticks_per_second;

bool have_same_tracks(const source_gop& a, const source_gop& b)
{
    return std::equal(
        a.tracks.begin(), a.tracks.end(), b.tracks.begin(), b.tracks.end(),
        [](const track_range& one, const track_range& other) { return one.track == other.track; });
}

timed_gop timed(const row& of, bool same_layout)
{
    timed_gop timed{
        .start = of.start,
        .length = of.length,
        .after_loss = of.after_loss,
        .arrival = 0,
        .same_layout = same_layout,
        .mark = {},
    };
    for (const auto& gops : of.rungs) {
        if (gops.empty())
            continue;
        const source_gop& first = gops.front().gop;
        if (timed.arrival == 0)
            timed.arrival = gops.back().gop.arrival_ms * pts_ticks_per_millisecond;
        if (!timed.mark)
            timed.mark = first.what.date;
    }
    return timed;
}

// The last pictures of a run come before the sound that goes with them.
bool is_silent_end(const row& of)
{
    return std::any_of(of.rungs.begin(), of.rungs.end(), [](const auto& gops) {
        return !gops.empty() && gops.back().gop.ends_run &&
               std::all_of(gops.begin(), gops.end(),
                           [](const chosen_gop& chosen) { return chosen.gop.what.lacks_sound; });
    });
}

// All rungs are told of the same splices. Returns how many there was no room for.
uint64_t take_splices(std::vector<date_range>& ranges, const row& of, const placed_gop& at)
{
    uint64_t left_out = 0;
    for (const auto& gops : of.rungs) {
        for (const chosen_gop& chosen : gops) {
            for (const splice_cue& told : chosen.gop.what.splices) {
                const int64_t distance = stamp_distance(at.clock, told.time);
                if (std::abs(distance) <= furthest_splice && at.date + distance > 0 &&
                    !take_splice(ranges, told, at.date + distance, at.date))
                    left_out++;
            }
        }
    }
    return left_out;
}

} // namespace

gathering::gathering(segment_limits limits, const std::vector<std::string>& rungs) : limits_(limits)
{
    for (const std::string& name : rungs)
        places_.push_back({.name = name, .layout = {}, .sources = {}});
}

void gathering::resume(const timeline& line, const std::vector<rung_place>& places, uint64_t next)
{
    line_ = line;
    next_slot_ = static_cast<int64_t>(next);
    for (rung_place& place : places_) {
        const auto known =
            std::find_if(places.begin(), places.end(),
                         [&place](const rung_place& other) { return other.name == place.name; });
        if (known != places.end())
            place = *known;
    }
}

void gathering::take_up(const timeline& line, uint64_t next)
{
    line_ = line;
    next_slot_ = static_cast<int64_t>(next);
    has_taken_up_ = true;
    for (rung_place& place : places_)
        place.layout.clear();
}

bool gathering::is_cut_off(const row& next) const
{
    return next_slot_ != 0 && !has_taken_up_ && next.after_loss &&
           is_broken(line_, timed(next, has_same_layouts(next)), limits_.numbers);
}

bool gathering::is_in_all(size_t rung) const
{
    return std::none_of(rows_.begin(), rows_.end(),
                        [rung](const placed_row& placed) { return placed.of.rungs[rung].empty(); });
}

// A rung that was away begins anew, with whatever layout.
bool gathering::has_same_layouts(const row& next) const
{
    for (size_t i = 0; i < places_.size(); i++) {
        const std::string& layout = places_[i].layout;
        if (!next.rungs[i].empty() && is_in_all(i) && !layout.empty() &&
            layout != next.rungs[i].front().gop.what.layout)
            return false;
    }
    return true;
}

// In the segment that is gathered: with the same tracks, and a rung that is in all of it.
bool gathering::may_follow(const row& next) const
{
    bool some = false;
    for (size_t i = 0; i < places_.size(); i++) {
        if (next.rungs[i].empty() || !is_in_all(i))
            continue;
        some = true;
        if (!have_same_tracks(next.rungs[i].front().gop, rows_.back().of.rungs[i].back().gop))
            return false;
    }
    return some;
}

// Numbers go on wherever the stream does: where GOPs leave a slot empty, or a slot has to end
// early, and at a discontinuity, the time is moved by whole slots. Everyone who sees the stream
// does the same. Only what this publisher alone may have missed leaves numbers out. False: the
// beginning of the first slot of all was missed.
bool gathering::number_segment(placed_gop& at, int64_t slot)
{
    if (next_slot_ == 0) {
        if (first_slot_ < 0 || at.discontinuity || at.after_hole)
            first_slot_ = slot;
        if (slot == first_slot_)
            return false;
        next_slot_ = slot;
    }
    is_misfit_ = false;
    if (slot != next_slot_ && !(at.after_hole && slot > next_slot_)) {
        const int64_t moved = (next_slot_ - slot) * limits_.wanted;
        at.stream += moved;
        line_.stream += moved;
        is_misfit_ = !at.discontinuity;
        slot = next_slot_;
    }
    next_slot_ = slot + 1;
    return true;
}

void gathering::add(row next)
{
    if (has_taken_up_ && is_from_before(next.start, line_.clock))
        return;
    has_taken_up_ = false;
    const bool by_stream = limits_.numbers == numbering::stream;
    // Rounding is all that a list allows, whatever the time stamps say.
    next.length =
        std::min(next.length, limits_.target * pts_ticks_per_second + pts_ticks_per_second / 2 - 1);
    const bool needs_sound = is_silent_end(next);
    const timeline was = needs_sound ? line_ : timeline{};
    const int64_t before = line_.stream;
    placed_gop at = place_gop(line_, timed(next, has_same_layouts(next)), limits_.numbers);
    if (at.discontinuity)
        forget_clock(line_.ranges);
    splices_left_out_ += take_splices(line_.ranges, next, at);
    end_returned(line_.ranges, at.date);
    // What begins a little before the end of the one before it comes behind that all the same.
    const int64_t slot =
        (at.discontinuity ? at.stream : std::max(at.stream, before)) / limits_.wanted;
    const bool is_at_end =
        !rows_.empty() && (by_stream ? slot >= next_slot_
                                     : is_nearest_to_splice(line_.ranges, at.date,
                                                            rows_.back().of.length, next.length));
    // With the holes before it, which become a part of the segment.
    const int64_t gathered = rows_.empty() ? 0 : at.ticks - rows_.front().at.ticks;
    if (!rows_.empty() && (at.discontinuity || is_at_end || !may_follow(next) ||
                           !may_join(limits_, gathered, next.length)))
        close(at.after_hole);
    // A segment of its own would keep hls.js waiting for that sound for ever.
    if (needs_sound && rows_.empty()) {
        line_ = was;
        return;
    }
    if (by_stream && rows_.empty() && !number_segment(at, slot))
        return;

    for (size_t i = 0; i < places_.size(); i++) {
        if (next.rungs[i].empty())
            continue;
        places_[i].layout = next.rungs[i].back().gop.what.layout;
        places_[i].sources = next.rungs[i].back().places;
    }
    const int64_t length = next.length;
    rows_.push_back({.of = std::move(next), .at = at});
    behind_ = line_;
    if (by_stream ? line_.stream / limits_.wanted >= next_slot_
                  : is_enough(limits_, line_.ticks - rows_.front().at.ticks, length))
        close();
}

void gathering::close(bool is_cut_short)
{
    planned_segment plan;
    plan.at = rows_.front().at;
    plan.is_incomplete =
        is_cut_short || std::any_of(rows_.begin(), rows_.end(),
                                    [](const placed_row& placed) { return placed.at.after_hole; });
    if (limits_.numbers == numbering::stream) {
        plan.number = static_cast<uint64_t>(next_slot_ - 1);
        plan.is_misfit = is_misfit_;
    }
    plan.behind = behind_;
    plan.duration = plan.behind.ticks - plan.at.ticks; // holes between its GOPs are a part of it
    for (size_t i = 0; i < places_.size(); i++) {
        auto& gops = plan.rungs.emplace_back();
        auto& sources = plan.sources.emplace_back();
        if (!is_in_all(i)) {
            places_[i].layout.clear();
            continue;
        }
        for (placed_row& placed : rows_) {
            for (chosen_gop& chosen : placed.of.rungs[i]) {
                gops.push_back(std::move(chosen.gop));
                sources.push_back(chosen.source);
            }
        }
    }
    plan.places = places_;
    rows_.clear();
    planned.push_back(std::move(plan));
}
