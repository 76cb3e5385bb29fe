#include "tools/caption_feed/vtt_timing.hpp"

#include <algorithm>
#include <charconv>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr std::string_view whitespace = " \t\f";
constexpr size_t most_hour_digits = 6; // a century is enough, and nothing overflows

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

void skip_whitespace(std::string_view& rest)
{
    rest.remove_prefix(std::min(rest.find_first_not_of(whitespace), rest.size()));
}

[[nodiscard]] bool take(std::string_view& rest, std::string_view expected)
{
    if (!rest.starts_with(expected))
        return false;
    rest.remove_prefix(expected.size());
    return true;
}

// A run of decimal digits; 0 when there is none or it has more than `most` digits.
size_t take_digits(std::string_view& rest, size_t most, int64_t& value)
{
    size_t n = 0;
    value = 0;
    while (n < rest.size() && is_digit(rest[n])) {
        if (n == most)
            return 0;
        value = value * 10 + (rest[n] - '0');
        ++n;
    }
    rest.remove_prefix(n);
    return n;
}

// Everything that reads "name:value".
std::string settings_in(std::string_view rest)
{
    std::string settings;
    for (skip_whitespace(rest); !rest.empty(); skip_whitespace(rest)) {
        const std::string_view word = rest.substr(0, rest.find_first_of(whitespace));
        rest.remove_prefix(word.size());
        const size_t colon = word.find(':');
        if (colon == std::string_view::npos || colon == 0 || colon + 1 == word.size() ||
            word.find("-->") != std::string_view::npos)
            continue;
        if (!settings.empty())
            settings += ' ';
        settings += word;
    }
    return settings;
}

} // namespace

uint64_t stream_ticks_of(int64_t local_ms, const timestamp_map& map)
{
    // Unsigned, so that a time before the map's wraps as the clock does.
    const auto step = static_cast<uint64_t>((local_ms - map.local_ms) * pts_ticks_per_millisecond);
    return (map.mpegts + step) & pts_mask;
}

bool take_timestamp(std::string_view& rest, int64_t& ms)
{
    int64_t hours = 0;
    int64_t minutes = 0;
    int64_t seconds = 0;
    int64_t thousandths = 0;

    int64_t first = 0;
    const size_t first_digits = take_digits(rest, most_hour_digits, first);
    if (first_digits == 0 || !take(rest, ":") || take_digits(rest, 2, seconds) != 2)
        return false;

    if (first_digits != 2 || first > 59 || rest.starts_with(':')) {
        hours = first;
        minutes = seconds;
        if (!take(rest, ":") || take_digits(rest, 2, seconds) != 2)
            return false;
    } else {
        minutes = first;
    }
    if (!take(rest, ".") || take_digits(rest, 3, thousandths) != 3)
        return false;
    if (minutes > 59 || seconds > 59)
        return false;

    ms = ((hours * 60 + minutes) * 60 + seconds) * 1000 + thousandths;
    return true;
}

bool parse_timing_line(std::string_view line, caption_cue& cue, std::string& problem)
{
    skip_whitespace(line);
    if (!take_timestamp(line, cue.start_ms)) {
        problem = "the start time is not of the form hours:mm:ss.ttt";
        return false;
    }
    skip_whitespace(line);
    if (!take(line, "-->")) {
        problem = "the start time is not followed by '-->'";
        return false;
    }
    skip_whitespace(line);
    if (!take_timestamp(line, cue.end_ms)) {
        problem = "the end time is not of the form hours:mm:ss.ttt";
        return false;
    }
    if (cue.end_ms <= cue.start_ms) {
        problem = "the cue does not end after it starts";
        return false;
    }
    cue.settings = settings_in(line);
    return true;
}

bool parse_timestamp_map(std::string_view value, timestamp_map& map)
{
    timestamp_map parsed;
    bool has_mpegts = false;
    bool has_local = false;
    do {
        if (take(value, "MPEGTS:")) {
            const char* const end = value.data() + value.size();
            const auto [last, error] = std::from_chars(value.data(), end, parsed.mpegts);
            has_mpegts = error == std::errc{};
            value.remove_prefix(static_cast<size_t>(last - value.data()));
        } else if (take(value, "LOCAL:")) {
            has_local = take_timestamp(value, parsed.local_ms);
        } else {
            return false;
        }
    } while (take(value, ","));

    skip_whitespace(value);
    if (!has_mpegts || !has_local || !value.empty())
        return false;
    map = parsed;
    return true;
}
