// The lines of a playlist's segments, kept from one segment to the next: a list of a day has
// 14,400, and all but a few read as they did.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "publisher/text/presentation.hpp"

class listed_lines
{
public:
    // Adds the lines of a segment that the track has, which never change; there may be none.
    using writer = void (*)(std::string& text, const segment& s, const std::string& track);

    listed_lines(std::string track, writer write) : track_(std::move(track)), write_(write) {}

    // Brings the lines up to date: those of the newest segments in a row that the track has.
    void follow(const presentation& p);

    [[nodiscard]] const std::string& track() const { return track_; }
    [[nodiscard]] size_t count() const { return sizes_.size(); } // segments
    [[nodiscard]] const std::string& text() const { return text_; }
    [[nodiscard]] size_t size(size_t segment) const { return sizes_[segment]; } // of its lines

private:
    void forget(size_t count);

    std::string track_;
    writer write_;
    std::string text_;
    std::deque<uint32_t> sizes_; // bytes of each segment's lines
    uint64_t next_ = 0;          // number of the segment behind them
};
