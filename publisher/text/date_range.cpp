#include "publisher/text/date_range.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "publisher/text/attribute_list.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

// A day has some hundreds of breaks and advertisements; a section has 4 KiB at the most, and seldom
// more than 100 bytes.
constexpr size_t most_ranges = 512;
constexpr size_t most_section_digits = size_t{512} << 10; // of all together

// One whose end is never told is not listed for ever.
constexpr int64_t longest_open = int64_t{24} * 3600 * pts_ticks_per_second;

// A splice that is told again may be off by this: dates follow the stream's own time of day.
constexpr int64_t same_splice = pts_ticks_per_second;

// What is to happen at once is told a few times in a row, each time without a time.
constexpr int64_t repeated_within = 10 * pts_ticks_per_second;

// When it is over as far as that is known: a command has no length of its own.
int64_t known_end(const date_range& range)
{
    if (range.end >= 0)
        return range.end;
    const bool is_open = range.kind == splice_kind::out && range.planned == 0;
    return range.start + (is_open ? longest_open : range.planned);
}

bool is_repeated(const date_range& range, const splice_cue& told, int64_t date)
{
    if (told.immediate)
        return date <= known_end(range) + repeated_within;
    return std::abs(date - range.start) <= same_splice;
}

// An event's number may be used again, so the date is a part of it, RFC 8216 4.3.2.7.1.
date_range new_range(const splice_cue& told, int64_t date)
{
    const std::string type = told.type != 0 ? fmt::format("-{:02X}", told.type) : "";
    return {
        .id = fmt::format("{}{}-{}", told.event, type, date / pts_ticks_per_millisecond),
        .event = told.event,
        .type = told.type,
        .kind = told.kind,
        .start = date,
        .planned = told.duration,
        .returns = told.returns && told.kind == splice_kind::out && told.duration > 0,
        .section = told.section,
        .end_section = {},
    };
}

bool are_too_many(const std::vector<date_range>& ranges)
{
    size_t digits = 0;
    for (const date_range& range : ranges)
        digits += range.section.size() + range.end_section.size();
    return ranges.size() > most_ranges || digits > most_section_digits;
}

const char* attribute_of(splice_kind kind)
{
    switch (kind) {
    case splice_kind::out:
        return "SCTE35-OUT";
    case splice_kind::in:
        return "SCTE35-IN";
    default:
        return "SCTE35-CMD";
    }
}

void add_range(std::string& text, const date_range& range, bool is_end)
{
    const auto seconds = [](int64_t ticks) {
        return fmt::format("{:.3f}", static_cast<double>(ticks) / pts_ticks_per_second);
    };
    text += "#EXT-X-DATERANGE:";
    attribute_list list(text);
    list.add_quoted("ID", range.id);
    list.add_quoted("START-DATE", date_text(range.start));
    if (!is_end) {
        if (range.planned > 0)
            list.add("PLANNED-DURATION", seconds(range.planned));
        list.add(attribute_of(range.kind), range.section);
    } else {
        list.add("DURATION", seconds(range.end - range.start));
        if (!range.end_section.empty())
            list.add(attribute_of(splice_kind::in), range.end_section);
    }
    text += '\n';
}

// The value of an attribute in a line of ours, without quotes; empty: it is not there.
std::string_view attribute_in(std::string_view line, const std::string& name)
{
    for (const char before : {':', ','}) {
        const std::string begin = before + name + '=';
        const size_t at = line.find(begin);
        if (at == std::string_view::npos)
            continue;
        line.remove_prefix(at + begin.size());
        if (!line.starts_with('"'))
            return line.substr(0, line.find_first_of(",\n"));
        line.remove_prefix(1);
        return line.substr(0, line.find('"'));
    }
    return {};
}

int64_t ticks_in(std::string_view seconds)
{
    constexpr double most_seconds = 1e8; // more than the 40 bits of a segmentation hold
    double number = 0;
    std::ignore = std::from_chars(seconds.data(), seconds.data() + seconds.size(), number);
    return std::llround(std::clamp(number, 0.0, most_seconds) * pts_ticks_per_second);
}

std::vector<uint8_t> bytes_of(std::string_view hexadecimal)
{
    std::vector<uint8_t> bytes;
    for (size_t i = std::string_view("0x").size(); i + 1 < hexadecimal.size(); i += 2) {
        uint8_t byte = 0;
        std::ignore = std::from_chars(hexadecimal.data() + i, hexadecimal.data() + i + 2, byte, 16);
        bytes.push_back(byte);
    }
    return bytes;
}

// The section says what of it is not in the line.
bool read_begin(std::string_view line, std::string_view id, int64_t start, date_range& range)
{
    for (const splice_kind kind : {splice_kind::out, splice_kind::in, splice_kind::command}) {
        for (const splice_cue& told :
             read_splices(bytes_of(attribute_in(line, attribute_of(kind))))) {
            range = new_range(told, start);
            if (told.kind == kind && range.id == id)
                return true;
        }
    }
    return false;
}

} // namespace

void take_splice(std::vector<date_range>& ranges, const splice_cue& told, int64_t date, int64_t now)
{
    if (told.kind == splice_kind::cancel) {
        std::erase_if(ranges, [&told, now](const date_range& range) {
            return range.event == told.event && known_end(range) > now;
        });
        return;
    }
    const auto newest = [&ranges, &told](splice_kind kind) {
        return std::find_if(ranges.rbegin(), ranges.rend(), [&told, kind](const date_range& range) {
            return range.event == told.event && range.type == told.type && range.kind == kind;
        });
    };
    if (told.kind == splice_kind::in) {
        const auto left = newest(splice_kind::out);
        if (left != ranges.rend()) {
            if (left->end < 0) {
                left->end = std::max(date, left->start);
                left->end_section = told.section;
            }
            return;
        }
    }
    const auto known = newest(told.kind);
    if (known != ranges.rend()) {
        if (is_repeated(*known, told, date))
            return;
        const bool is_moved = known->start > now && known->end < 0 && !told.immediate;
        if (is_moved) {
            *known = new_range(told, date);
            return;
        }
    }
    ranges.push_back(new_range(told, date));
    while (are_too_many(ranges))
        ranges.erase(ranges.begin());
}

void end_returned(std::vector<date_range>& ranges, int64_t now)
{
    for (date_range& range : ranges) {
        if (range.returns && range.end < 0 && range.start + range.planned <= now)
            range.end = range.start + range.planned;
    }
}

void drop_past(std::vector<date_range>& ranges, int64_t date)
{
    std::erase_if(ranges, [date](const date_range& range) { return known_end(range) < date; });
}

bool is_nearest_to_splice(const std::vector<date_range>& ranges, int64_t date, int64_t before,
                          int64_t behind)
{
    const auto is_near = [&](int64_t splice) {
        return splice > date - before / 2 && splice <= date + behind / 2;
    };
    return std::any_of(ranges.begin(), ranges.end(), [&](const date_range& range) {
        return is_near(range.start) || is_near(known_end(range));
    });
}

std::string date_ranges_text(const std::vector<date_range>& ranges)
{
    std::string text;
    for (const date_range& range : ranges) {
        add_range(text, range, false);
        if (range.end >= 0)
            add_range(text, range, true);
    }
    return text;
}

std::vector<date_range> parse_date_ranges(const std::vector<std::string>& lines)
{
    std::vector<date_range> ranges;
    for (const std::string& line : lines) {
        const std::string_view id = attribute_in(line, "ID");
        const int64_t start = ticks_of_date(attribute_in(line, "START-DATE"));
        const std::string_view duration = attribute_in(line, "DURATION");
        if (start <= 0)
            continue;
        if (duration.empty()) {
            date_range range;
            if (read_begin(line, id, start, range))
                ranges.push_back(std::move(range));
            continue;
        }
        for (date_range& range : ranges) {
            if (range.kind == splice_kind::out && range.id == id) {
                range.end = start + ticks_in(duration);
                range.end_section = attribute_in(line, attribute_of(splice_kind::in));
            }
        }
    }
    return ranges;
}
