#include "publisher/text/media_list.hpp"

#include <charconv>
#include <cmath>
#include <ctime>
#include <tuple>
#include <utility>

#include "toolkit/pts_clock.hpp"

namespace
{

template <typename Number>
Number number_in(std::string_view text)
{
    Number number{};
    std::ignore = std::from_chars(text.data(), text.data() + text.size(), number); // 0 then
    return number;
}

bool take_tag(std::string_view& line, std::string_view tag)
{
    if (!line.starts_with(tag))
        return false;
    line.remove_prefix(tag.size());
    return true;
}

int64_t end_of(const media_list& list)
{
    return list.segments.empty() ? 0 : list.segments.back().date + list.segments.back().duration;
}

constexpr double most_seconds = 1e6; // that a segment may last

int64_t duration_in(std::string_view text)
{
    const auto seconds = number_in<double>(text);
    return seconds > 0 && seconds < most_seconds
               ? static_cast<int64_t>(std::llround(seconds * pts_ticks_per_second))
               : 0;
}

// "BYTES@BEGIN", RFC 8216 4.3.2.2
void take_range(std::string_view text, listed_segment& next)
{
    const size_t at = text.find('@');
    if (at == std::string_view::npos)
        return;
    next.range_bytes = number_in<uint64_t>(text.substr(0, at));
    next.range_begin = number_in<uint64_t>(text.substr(at + 1));
}

// Takes a line that belongs to the next segment; false: it says something of the whole list.
bool take_segment_tag(std::string_view line, listed_segment& next)
{
    if (line == "#EXT-X-DISCONTINUITY")
        next.discontinuity = true;
    else if (take_tag(line, "#EXT-X-PROGRAM-DATE-TIME:"))
        next.date = ticks_of_date(line);
    else if (take_tag(line, "#EXTINF:"))
        next.duration = duration_in(line);
    else if (take_tag(line, "#EXT-X-BYTERANGE:"))
        take_range(line, next);
    else
        return line.starts_with("#EXT-X-MAP:");
    return true;
}

} // namespace

int64_t ticks_of_date(std::string_view text)
{
    constexpr size_t length = 24;
    if (text.size() != length)
        return 0;
    std::tm utc{};
    utc.tm_year = number_in<int>(text.substr(0, 4)) - 1900;
    utc.tm_mon = number_in<int>(text.substr(5, 2)) - 1;
    utc.tm_mday = number_in<int>(text.substr(8, 2));
    utc.tm_hour = number_in<int>(text.substr(11, 2));
    utc.tm_min = number_in<int>(text.substr(14, 2));
    utc.tm_sec = number_in<int>(text.substr(17, 2));
    return int64_t{timegm(&utc)} * pts_ticks_per_second +
           number_in<int64_t>(text.substr(20, 3)) * pts_ticks_per_millisecond;
}

media_list parse_media_list(std::string_view text)
{
    media_list list;
    listed_segment next;
    size_t dated_ranges = 0;
    const auto date_ranges_until = [&](int64_t date) {
        for (; dated_ranges < list.date_ranges.size(); dated_ranges++)
            list.date_ranges[dated_ranges].date = date;
    };
    for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        const std::string_view whole = text.substr(0, end + 1);
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line.empty())
            continue;
        if (take_segment_tag(line, next)) {
            next.text += whole;
        } else if (!line.starts_with('#')) {
            next.uri = line;
            next.text += whole;
            if (next.date == 0)
                next.date = end_of(list);
            date_ranges_until(next.date);
            list.segments.push_back(std::exchange(next, {}));
        } else if (line.starts_with("#EXT-X-DATERANGE:")) {
            list.date_ranges.push_back({.text = std::string(whole)});
        } else if (line == "#EXT-X-PLAYLIST-TYPE:EVENT") {
            list.is_event = true;
        } else if (line == "#EXT-X-ENDLIST") {
            list.ended = true;
        } else if (take_tag(line, "#EXT-X-MEDIA-SEQUENCE:")) {
            list.sequence = number_in<uint64_t>(line);
        } else if (take_tag(line, "#EXT-X-DISCONTINUITY-SEQUENCE:")) {
            list.discontinuity_sequence = number_in<uint64_t>(line);
        } else {
            list.header += whole;
            if (take_tag(line, "#EXT-X-TARGETDURATION:"))
                list.target_duration = number_in<int64_t>(line);
        }
    }
    date_ranges_until(end_of(list));
    return list;
}
