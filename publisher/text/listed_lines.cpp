#include "publisher/text/listed_lines.hpp"

#include <algorithm>
#include <numeric>

void listed_lines::follow(const presentation& p)
{
    if (p.listed.empty() || next_ < p.listed.front().sequence) {
        forget(sizes_.size());
        next_ = p.listed.empty() ? 0 : p.listed.front().sequence;
    }
    // Numbers never skip, so they tell places.
    const uint64_t begin = p.listed.empty() ? next_ : p.listed.front().sequence;
    const uint64_t first = next_ - sizes_.size();
    forget(static_cast<size_t>(std::max(begin, first) - first));
    for (auto at = static_cast<size_t>(next_ - begin); at < p.listed.size(); at++) {
        const segment& s = p.listed[at];
        if (!has_file_of(s, track_)) {
            forget(sizes_.size());
            continue;
        }
        const size_t before = text_.size();
        write_(text_, s, track_);
        sizes_.push_back(static_cast<uint32_t>(text_.size() - before));
    }
    next_ = begin + p.listed.size();
}

void listed_lines::forget(size_t count)
{
    const auto end = sizes_.begin() + static_cast<std::ptrdiff_t>(count);
    text_.erase(0, std::accumulate(sizes_.begin(), end, size_t{0}));
    sizes_.erase(sizes_.begin(), end);
}
