#include "publisher/compose/retirement.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace
{

constexpr int64_t try_again_after_ms = 10000;

bool has_begun(const retired_segment& r)
{
    return r.due_ms > 0;
}

} // namespace

void retirement::take_up(std::deque<retired_segment> segments)
{
    segments_ = std::move(segments);
    stuck_.clear();
    removed_.clear();
    bytes_ = 0;
    for (const retired_segment& r : segments_)
        bytes_ += bytes_of(r.what);
    note_saved();
}

void retirement::add(std::vector<retired_segment> segments)
{
    for (retired_segment& r : segments) {
        bytes_ += bytes_of(r.what);
        segments_.push_back(std::move(r));
    }
}

void retirement::begin_times(uint64_t first_on_disk, int64_t now_ms)
{
    for (auto r = segments_.rbegin(); r != segments_.rend() && !has_begun(*r); ++r) {
        if (r->what.sequence < first_on_disk)
            r->due_ms = now_ms + r->hold_ms;
    }
}

void retirement::begin_times_anew(int64_t now_ms)
{
    saved_before_ = 0;
    for (retired_segment& r : segments_) {
        if (has_begun(r))
            r.due_ms = now_ms + r.hold_ms;
    }
}

void retirement::remove_due(int64_t now_ms, uint64_t most_bytes)
{
    const auto remove_first = [&](std::deque<retired_segment>& from) {
        retired_segment r = std::move(from.front());
        from.pop_front();
        if (remove_files(r.what)) {
            removed_.push_back(r.what.sequence);
            remove_folder_of(r.what);
            return;
        }
        r.due_ms = now_ms + try_again_after_ms;
        stuck_.push_back(std::move(r));
    };
    while (!stuck_.empty() && stuck_.front().due_ms <= now_ms)
        remove_first(stuck_);
    while (!segments_.empty() && has_begun(segments_.front()) &&
           (segments_.front().due_ms <= now_ms || bytes_ > most_bytes)) {
        bytes_ -= bytes_of(segments_.front().what);
        remove_first(segments_);
    }
    stuck_told_ = !stuck_.empty();
}

// False: one of them is still there. It is told once, until they can be removed.
bool retirement::remove_files(const segment& s)
{
    for (const segment_file& file : s.files) {
        const std::string name = segment_file_name(file.track, s);
        if (output_.remove(name))
            continue;
        if (!std::exchange(stuck_told_, true))
            lines_.push_back(fmt::format("{} cannot be removed", name));
        return false;
    }
    return true;
}

// With the last segment of its hour.
void retirement::remove_folder_of(const segment& s) const
{
    const std::string folder = s.in_folder ? folder_of_hour(s.date) : "";
    const segment* next = segments_.empty() ? nullptr : &segments_.front().what;
    if (!folder.empty() &&
        (next == nullptr || !next->in_folder || folder_of_hour(next->date) != folder))
        output_.remove_folder(folder); // or something else is in it
}

void retirement::tell(state_step& step) const
{
    for (auto r = segments_.rbegin(); r != segments_.rend() && r->what.sequence >= saved_before_;
         ++r) {
        if (has_begun(*r))
            step.retired.push_back(*r);
    }
    step.removed.insert(step.removed.end(), removed_.begin(), removed_.end());
}

void retirement::note_saved()
{
    const auto first = std::find_if(segments_.rbegin(), segments_.rend(), has_begun);
    saved_before_ = first == segments_.rend() ? 0 : first->what.sequence + 1;
    removed_.clear();
}

const segment* retirement::find(uint64_t sequence) const
{
    const auto found = std::lower_bound(
        segments_.begin(), segments_.end(), sequence,
        [](const retired_segment& r, uint64_t number) { return r.what.sequence < number; });
    return found != segments_.end() && found->what.sequence == sequence ? &found->what : nullptr;
}

std::vector<std::string> retirement::take_lines()
{
    return std::exchange(lines_, {});
}
