#include "publisher/ladder/ladder.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "publisher/base/waits.hpp"

namespace
{

// How many target durations a presentation that begins waits for all of its rungs.
constexpr int64_t begin_wait = 2;

// A dot directory, which web servers keep back. On the file system of the output, so that segments
// can be links into it.
constexpr const char* spools_name = "/.sources";

// GOPs that wait to be published, of all rungs.
constexpr size_t most_waiting = 128;
constexpr size_t least_rows = 16;

// GOPs that wait for those of other rungs, of all together. What is more stays with its source.
constexpr size_t most_unmatched = 256;
constexpr size_t least_unmatched = 32;

void append(std::vector<std::string>& lines, std::vector<std::string> more)
{
    lines.insert(lines.end(), std::make_move_iterator(more.begin()),
                 std::make_move_iterator(more.end()));
}

} // namespace

ladder::ladder(const publisher_settings& settings, http_client& client)
    : most_of_rung_(std::max(most_unmatched / settings.renditions.size(), least_unmatched)),
      room_(settings.renditions.size(), begin_wait * settings.target_duration * 1000,
            longest_gop(limits_of(settings)), most_of_rung_),
      most_rows_(std::max(most_waiting / settings.renditions.size(), least_rows))
{
    for (const rendition_settings& rendition : settings.renditions) {
        followed_rung rung;
        rung.name = rendition.name;
        rung.sources = std::make_unique<twin_sources>(
            rendition, client, settings.fetch, settings.output + spools_name,
            longest_gop(limits_of(settings)), outgrown_ms(limits_of(settings)));
        rungs_.push_back(std::move(rung));
    }
}

void ladder::resume(const std::vector<rung_place>& places, const timeline& line)
{
    if (line.begun)
        room_.resume(line.clock);
    const bool some_known = std::any_of(places.begin(), places.end(), [](const rung_place& place) {
        return !place.layout.empty();
    });
    for (size_t i = 0; i < rungs_.size(); i++) {
        rungs_[i].sources->resume(places[i].sources, places[i].layout, line);
        if (!some_known || !places[i].layout.empty())
            room_.resume_in_step(i);
    }
}

void ladder::forget_behind(const std::vector<rung_place>& places)
{
    for (size_t i = 0; i < rungs_.size(); i++)
        rungs_[i].sources->forget_behind(places[i].sources);
}

void ladder::look(int64_t now_ms)
{
    for (size_t i = 0; i < rungs_.size(); i++) {
        if (is_full(rungs_[i]))
            continue;
        rungs_[i].sources->look(now_ms);
        append(lines_, rungs_[i].sources->take_lines());
        hand_over(i, now_ms);
    }
    for (;;) {
        const ladder_decision decision = room_.decide(now_ms);
        if (decision.verdict == ladder_verdict::wait)
            break;
        take(decision);
    }
    tell_misalignments();
}

void ladder::hand_over(size_t rung, int64_t now_ms)
{
    followed_rung& from = rungs_[rung];
    while (from.sources->has_gop()) {
        from.waiting.push_back(from.sources->take_gop());
        const source_gop& next = from.waiting.back().gop;
        room_.add(rung,
                  {
                      .start = next.what.start,
                      .length = next.length,
                      .torn = next.ends_run,
                      .layout = next.what.layout,
                  },
                  now_ms);
    }
}

void ladder::take(const ladder_decision& decision)
{
    if (decision.verdict == ladder_verdict::drop) {
        followed_rung& from = rungs_[decision.rung];
        from.sources->forget_behind(from.waiting.front().places);
        from.waiting.pop_front();
        return;
    }
    row taken{.start = decision.start, .length = decision.length, .after_loss = true, .rungs = {}};
    for (size_t i = 0; i < rungs_.size(); i++) {
        auto& waiting = rungs_[i].waiting;
        const auto end = waiting.begin() + static_cast<std::ptrdiff_t>(decision.counts[i]);
        auto& gops = taken.rungs.emplace_back(std::make_move_iterator(waiting.begin()),
                                              std::make_move_iterator(end));
        waiting.erase(waiting.begin(), end);
        // Where one rung has lost nothing, nothing is missing in the stream.
        if (!gops.empty())
            taken.after_loss = taken.after_loss && gops.front().gop.after_loss;
    }
    ready_.push_back(std::move(taken));
}

void ladder::tell_misalignments()
{
    for (size_t i = 0; i < rungs_.size(); i++) {
        const bool misaligned = room_.is_misaligned(i);
        if (misaligned && !rungs_[i].misalignment_told)
            lines_.push_back(rungs_[i].name +
                             ": its keyframes are not where the other renditions have theirs; it "
                             "is not published until they are");
        rungs_[i].misalignment_told = rungs_[i].misalignment_told || misaligned;
    }
}

row ladder::take_row()
{
    row taken = std::move(ready_.front());
    ready_.pop_front();
    return taken;
}

int64_t ladder::look_again_ms(int64_t now_ms) const
{
    int64_t soonest = room_.decide_again_ms(now_ms);
    for (const followed_rung& rung : rungs_) {
        if (!is_full(rung))
            soonest = sooner(soonest, rung.sources->look_again_ms(now_ms));
    }
    return soonest;
}

std::vector<std::string> ladder::take_lines()
{
    return std::exchange(lines_, {});
}
