#include "publisher/ladder/ladder_room.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "toolkit/pts_clock.hpp"

namespace
{

// Half a picture of the fastest usual rate.
constexpr int64_t same_time = pts_ticks_per_second / 120;

// The end of a GOP that no other follows is told by its own pictures, which last differently in
// rungs of different rates.
constexpr int64_t same_end = pts_ticks_per_second / 20;

// Where all are torn, they need not be at the same picture.
constexpr int64_t same_torn_end = pts_ticks_per_second;

// Holes up to this are in the stream itself, as the timeline has it.
constexpr int64_t longest_hole = pts_ticks_per_second / 2;

// Further apart than any delay explains: another time altogether.
constexpr int64_t longest_distance = 60 * pts_ticks_per_second;

// How long GOPs of a rung that is out of step are kept for rows that may come. Each keeps a file
// open.
constexpr int64_t longest_queued_ms = 45000;

// A rung that is out of step and on another clock does not lead until the others are silent.
constexpr int64_t silence_ms = 3000;

constexpr size_t most_remembered = 64; // rows
constexpr int most_out_of_place = 3;

bool is_same(int64_t a, int64_t b, int64_t tolerance)
{
    return std::abs(stamp_distance(a, b)) <= tolerance;
}

int64_t end_of(const ladder_gop& what)
{
    return stamp_sum(what.start, what.length);
}

} // namespace

void ladder_room::resume(int64_t clock)
{
    begun_ = true;
    end_ = clock;
    for (rung_queue& rung : rungs_)
        rung.in_step = false;
}

void ladder_room::add(size_t rung, ladder_gop what, int64_t now_ms)
{
    if (first_arrived_ms_ < 0)
        first_arrived_ms_ = now_ms;
    rungs_[rung].queue.push_back({.what = std::move(what), .arrived_ms = now_ms});
}

bool ladder_room::is_misaligned(size_t rung) const
{
    return rungs_[rung].out_of_place >= most_out_of_place;
}

ladder_decision ladder_room::decide(int64_t now_ms)
{
    for (size_t i = 0; i < rungs_.size(); i++) {
        if (is_to_drop(rungs_[i], now_ms)) {
            note_late(rungs_[i]);
            rungs_[i].queue.pop_front();
            return {.verdict = ladder_verdict::drop, .rung = i, .counts = {}};
        }
    }
    if (!begun_) {
        const beginning found = begin(now_ms);
        if (!found.may_begin)
            return {};
        if (found.early) {
            rungs_[*found.early].queue.pop_front();
            return {.verdict = ladder_verdict::drop, .rung = *found.early, .counts = {}};
        }
    }
    const auto first = leader();
    if (!first)
        return {};
    const bool time_is_up = now_ms >= deadline_ms(*first);
    for (size_t count = 1; count <= rungs_[*first].queue.size(); count++) {
        ladder_decision row = row_of(*first, count);
        if (count > 1 && row.length > longest_row_)
            break;
        if (is_complete(row, *first, count)) {
            take(row, now_ms);
            return row;
        }
    }
    if (!time_is_up)
        return {};
    ladder_decision row = row_of(*first, 1);
    take(row, now_ms);
    return row;
}

int64_t ladder_room::decide_again_ms(int64_t now_ms) const
{
    if (!begun_)
        return first_arrived_ms_ < 0
                   ? -1
                   : std::max<int64_t>(first_arrived_ms_ + begin_wait_ms_ - now_ms, 1);
    const auto first = leader();
    return first ? std::max<int64_t>(deadline_ms(*first) - now_ms, 1) : -1;
}

// A rung in step delivers in order: where it goes back, its clock does.
bool ladder_room::is_to_drop(const rung_queue& rung, int64_t now_ms) const
{
    if (rung.queue.empty() || rung.in_step || !begun_)
        return false;
    const queued_gop& oldest = rung.queue.front();
    return is_behind(oldest.what) || now_ms - oldest.arrived_ms > longest_queued_ms ||
           rung.queue.size() >= most_queued_;
}

bool ladder_room::is_behind(const ladder_gop& what) const
{
    const int64_t distance = stamp_distance(end_, what.start);
    return distance < -same_time && distance > -longest_distance;
}

// Whether the GOP is one of a row that has been taken, and by how much it was late.
void ladder_room::note_late(rung_queue& rung)
{
    const queued_gop& late = rung.queue.front();
    const bool is_older =
        taken_.empty() || stamp_distance(taken_.front().start, late.what.start) < -same_time;
    if (!is_behind(late.what) || is_older || late.what.torn)
        return;
    const auto with_start = std::find_if(taken_.begin(), taken_.end(), [&](const taken_row& row) {
        return is_same(row.start, late.what.start, same_time);
    });
    const bool has_end = std::any_of(with_start, taken_.end(), [&](const taken_row& row) {
        return is_same(stamp_sum(row.start, row.length), end_of(late.what), same_end);
    });
    if (!has_end) {
        rung.out_of_place++;
        return;
    }
    rung.out_of_place = 0;
    const int64_t late_ms = late.arrived_ms - with_start->arrived_ms;
    const bool is_last = rung.queue.size() == 1 || !is_behind(rung.queue[1].what);
    rung.in_step = is_last && late_ms < late.what.length / pts_ticks_per_millisecond * 3 / 4;
}

// The first time that all rungs have a keyframe at; of those that have delivered anything.
std::optional<int64_t> ladder_room::common_start() const
{
    const auto first = std::find_if(rungs_.begin(), rungs_.end(),
                                    [](const rung_queue& rung) { return !rung.queue.empty(); });
    if (first == rungs_.end())
        return std::nullopt;
    for (const queued_gop& begin : first->queue) {
        const auto has_it = [&begin](const rung_queue& rung) {
            return rung.queue.empty() ||
                   std::any_of(rung.queue.begin(), rung.queue.end(), [&begin](const auto& queued) {
                       return is_same(queued.what.start, begin.what.start, same_time);
                   });
        };
        if (std::all_of(rungs_.begin(), rungs_.end(), has_it))
            return begin.what.start;
    }
    return std::nullopt;
}

// The first row is one of all rungs, if there is to be one in time.
ladder_room::beginning ladder_room::begin(int64_t now_ms) const
{
    const bool all = std::all_of(rungs_.begin(), rungs_.end(),
                                 [](const rung_queue& rung) { return !rung.queue.empty(); });
    const bool time_is_up = first_arrived_ms_ >= 0 && now_ms - first_arrived_ms_ >= begin_wait_ms_;
    const auto start = common_start();
    if (!time_is_up && !(all && start))
        return {};
    for (size_t i = 0; i < rungs_.size(); i++) {
        const auto& queue = rungs_[i].queue;
        if (start && !queue.empty() && !is_same(queue.front().what.start, *start, same_time))
            return {.may_begin = true, .early = i};
    }
    return {.may_begin = true, .early = {}};
}

// Who goes on comes first, then who is in step: a rung that jumps alone does not take the others
// along.
int ladder_room::rank(size_t rung) const
{
    const rung_queue& of = rungs_[rung];
    const ladder_gop& what = of.queue.front().what;
    const int64_t distance = begun_ ? stamp_distance(end_, what.start) : 0;
    const int behind = (of.in_step ? 0 : 2) + (what.torn ? 1 : 0);
    if (std::abs(distance) <= same_time)
        return behind;
    return (distance > 0 && distance <= longest_hole ? 4 : 8) + behind;
}

std::optional<size_t> ladder_room::leader() const
{
    std::optional<size_t> best;
    for (size_t i = 0; i < rungs_.size(); i++) {
        if (!rungs_[i].queue.empty() && (!best || rank(i) < rank(*best)))
            best = i;
    }
    return best;
}

// When the first rung had a GOP that begins there.
int64_t ladder_room::arrived_ms(int64_t start) const
{
    int64_t first = INT64_MAX;
    for (const rung_queue& rung : rungs_) {
        if (!rung.queue.empty() && is_same(rung.queue.front().what.start, start, same_time))
            first = std::min(first, rung.queue.front().arrived_ms);
    }
    return first;
}

int64_t ladder_room::deadline_ms(size_t leader) const
{
    const rung_queue& rung = rungs_[leader];
    const ladder_gop& what = rung.queue.front().what;
    const int64_t gop_ms = what.length / pts_ticks_per_millisecond;
    const bool goes_on = stamp_distance(end_, what.start) >= -same_time &&
                         stamp_distance(end_, what.start) <= longest_hole;
    if (!begun_)
        return first_arrived_ms_ + begin_wait_ms_;
    if (rung.in_step || goes_on)
        return arrived_ms(what.start) + gop_ms;
    return std::max(arrived_ms(what.start), last_row_ms_) + std::max(silence_ms, 3 * gop_ms);
}

// How the rung's oldest GOPs fit into the row that begins with the leader's and has this length.
ladder_room::fitting ladder_room::fit_of(size_t rung, size_t leader, int64_t length,
                                         bool torn) const
{
    const auto& queue = rungs_[rung].queue;
    const int64_t start = rungs_[leader].queue.front().what.start;
    const int64_t end = stamp_sum(start, length);
    int64_t at = start;
    for (size_t i = 0; i < queue.size(); i++) {
        const ladder_gop& what = queue[i].what;
        if (!is_same(what.start, at, same_time) || what.layout != queue.front().what.layout)
            return {};
        at = end_of(what);
        if (is_same(at, end, what.torn && torn ? same_torn_end : same_end))
            return {.how = fit::whole, .count = i + 1};
        if (stamp_distance(end, at) > 0)
            return {.how = fit::longer};
        if (what.torn)
            return {};
    }
    return {.how = fit::to_come};
}

// The row of the leader's first `count` GOPs, with whatever fits into it now.
ladder_decision ladder_room::row_of(size_t leader, size_t count) const
{
    const auto& queue = rungs_[leader].queue;
    const ladder_gop& last = queue[count - 1].what;
    ladder_decision row{
        .verdict = ladder_verdict::take,
        .counts = {},
        .start = queue.front().what.start,
        .length = stamp_distance(queue.front().what.start, end_of(last)),
    };
    for (size_t i = 0; i < rungs_.size(); i++)
        row.counts.push_back(fit_of(i, leader, row.length, last.torn).count);
    return row;
}

// Nobody who is in step may still come, or has the row's end inside a GOP.
bool ladder_room::is_complete(const ladder_decision& row, size_t leader, size_t count) const
{
    if (row.counts[leader] != count || (begun_ && !rungs_[leader].in_step))
        return false;
    const bool torn = rungs_[leader].queue[count - 1].what.torn;
    for (size_t i = 0; i < rungs_.size(); i++) {
        const fit how = fit_of(i, leader, row.length, torn).how;
        if (rungs_[i].in_step && (how == fit::longer || how == fit::to_come))
            return false;
    }
    return true;
}

void ladder_room::take(const ladder_decision& row, int64_t now_ms)
{
    last_row_ms_ = now_ms;
    taken_.push_back(
        {.start = row.start, .length = row.length, .arrived_ms = arrived_ms(row.start)});
    if (taken_.size() > most_remembered)
        taken_.pop_front();
    for (size_t i = 0; i < rungs_.size(); i++) {
        rung_queue& rung = rungs_[i];
        rung.in_step = row.counts[i] > 0;
        if (rung.in_step)
            rung.out_of_place = 0;
        rung.queue.erase(rung.queue.begin(),
                         rung.queue.begin() + static_cast<std::ptrdiff_t>(row.counts[i]));
    }
    begun_ = true;
    end_ = stamp_sum(row.start, row.length);
}
