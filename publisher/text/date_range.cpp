#include "publisher/text/date_range.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

#include "publisher/text/attribute_list.hpp"
#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

// A day has hundreds of breaks and advertisements, and four times as many are room enough; a
// section has 4 KiB at the most, and seldom more than 100 bytes.
constexpr size_t most_ranges = 4096;
constexpr size_t most_section_digits = size_t{2} << 20; // of all together

// One whose end is never told is not listed for ever.
constexpr int64_t longest_open = int64_t{24} * 3600 * pts_ticks_per_second;

// What was planned is an estimate unless the programme goes on by itself then.
constexpr int64_t longest_overrun = int64_t{900} * pts_ticks_per_second;

// A splice that is told again may be off by this: dates follow the stream's own time of day.
constexpr int64_t same_splice = pts_ticks_per_second;

// What is to happen at once is told a few times in a row, each time without a time.
constexpr int64_t repeated_within = 10 * pts_ticks_per_second;

int64_t planned_end(const date_range& range)
{
    return range.end >= 0 ? range.end : range.start + range.planned;
}

// It is over then at the latest: a command has no length of its own.
int64_t latest_end(const date_range& range)
{
    if (range.end >= 0 || range.kind != splice_kind::out || range.returns)
        return planned_end(range);
    return range.start + (range.planned == 0 ? longest_open : range.planned + longest_overrun);
}

bool is_cancelled(const date_range& range)
{
    return range.end == range.start && range.end_section.empty();
}

bool is_of_event(const date_range& range, const splice_cue& told, splice_kind kind)
{
    return range.event == told.event && range.type == told.type && range.kind == kind;
}

bool has_same_clock(const date_range& range, const splice_cue& told)
{
    return !told.immediate && range.clock == told.time;
}

// By its date, or by the clock where the dates have leapt since.
bool is_repeated(const date_range& range, const splice_cue& told, int64_t date, int64_t now)
{
    if (!told.immediate)
        return std::abs(date - range.start) <= same_splice ||
               (has_same_clock(range, told) && date <= now);
    if (range.start > date + same_splice) // it was told for later
        return false;
    if (!range.end_section.empty())
        return date <= range.end;
    const int64_t last_told = std::max(range.start, range.repeated);
    return date <= std::max(last_told + repeated_within, range.start + range.planned);
}

// What has not come yet may change.
bool may_end(const date_range& range, int64_t now)
{
    return range.end < 0 || range.end_told > now;
}

// The date of a splice that has not happened yet is another one now.
bool is_moved(const date_range& range, const splice_cue& told, int64_t now)
{
    return may_end(range, now) && (range.start > now || has_same_clock(range, told));
}

// An event's number may be used again, so the date is a part of it, RFC 8216 4.3.2.7.1.
date_range new_range(const splice_cue& told, int64_t date, int64_t now)
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
        .clock = told.immediate ? -1 : told.time,
        .told = now,
        .repeated = now,
    };
}

bool has_room(const std::vector<date_range>& ranges, const std::string& section)
{
    size_t digits = section.size();
    for (const date_range& range : ranges)
        digits += range.section.size() + range.end_section.size();
    return digits <= most_section_digits;
}

void cancel(date_range& range, int64_t end, int64_t now)
{
    range.end = end;
    range.end_section.clear();
    range.end_told = now;
}

// Ends the newest range of the event that has begun by then; false: there is none.
bool end_range(std::vector<date_range>& ranges, const splice_cue& told, int64_t date, int64_t now)
{
    const auto left = std::find_if(ranges.rbegin(), ranges.rend(), [&](const date_range& range) {
        return is_of_event(range, told, splice_kind::out) && range.start <= date + same_splice;
    });
    if (left == ranges.rend())
        return false;
    const bool is_known = left->end >= 0 && std::abs(date - left->end) <= same_splice;
    if (may_end(*left, now) && !is_known) {
        left->end = std::max(date, left->start);
        left->end_section = has_room(ranges, told.section) ? told.section : "";
        left->end_told = std::max(left->end, now);
    }
    return true;
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
            range = new_range(told, start, 0);
            range.clock = -1; // adjusted since, or of before a restart
            if (told.kind == kind && range.id == id)
                return true;
        }
    }
    return false;
}

} // namespace

bool take_splice(std::vector<date_range>& ranges, const splice_cue& told, int64_t date, int64_t now)
{
    if (told.kind == splice_kind::cancel) {
        for (date_range& range : ranges) {
            if (range.event == told.event && may_end(range, now) && latest_end(range) > now)
                cancel(range, std::max(range.start, now), now);
        }
        return true;
    }
    if (told.kind == splice_kind::in && end_range(ranges, told, date, now))
        return true;
    for (date_range& range : ranges) {
        if (is_of_event(range, told, told.kind) && is_repeated(range, told, date, now)) {
            range.repeated = now;
            return true;
        }
    }
    date_range next = new_range(told, date, now);
    const bool is_known = std::any_of(ranges.begin(), ranges.end(),
                                      [&next](const auto& range) { return range.id == next.id; });
    if (!is_known && (ranges.size() >= most_ranges || !has_room(ranges, told.section)))
        return false; // what it would replace stays
    for (date_range& range : ranges) {
        if (is_of_event(range, told, told.kind) && is_moved(range, told, now))
            cancel(range, range.start, now);
    }
    if (!is_known)
        ranges.push_back(std::move(next));
    return true;
}

void end_returned(std::vector<date_range>& ranges, int64_t now)
{
    for (date_range& range : ranges) {
        if (range.returns && range.end < 0 && range.start + range.planned <= now) {
            range.end = range.start + range.planned;
            range.end_told = now;
        }
    }
}

void forget_clock(std::vector<date_range>& ranges)
{
    for (date_range& range : ranges)
        range.clock = -1;
}

void drop_past(std::vector<date_range>& ranges, int64_t date)
{
    std::erase_if(ranges, [date](const date_range& range) { return latest_end(range) < date; });
}

bool is_nearest_to_splice(const std::vector<date_range>& ranges, int64_t date, int64_t before,
                          int64_t behind)
{
    const auto is_near = [&](int64_t splice) {
        return splice > date - before / 2 && splice <= date + behind / 2;
    };
    return std::any_of(ranges.begin(), ranges.end(), [&](const date_range& range) {
        return !is_cancelled(range) && (is_near(range.start) || is_near(planned_end(range)));
    });
}

void drop_cancelled(std::vector<date_range>& ranges)
{
    std::erase_if(ranges, is_cancelled);
}

std::vector<told_line> date_range_lines(const std::vector<date_range>& ranges)
{
    std::vector<told_line> lines;
    for (const date_range& range : ranges) {
        add_range(lines.emplace_back(told_line{.told = range.told, .text = {}}).text, range, false);
        if (range.end >= 0)
            add_range(lines.emplace_back(told_line{.told = range.end_told, .text = {}}).text, range,
                      true);
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const told_line& a, const told_line& b) { return a.told < b.told; });
    return lines;
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

std::vector<date_range> parse_date_ranges(const media_list& list)
{
    std::vector<date_range> ranges;
    std::unordered_map<std::string_view, size_t> places; // by ID
    for (const listed_range& listed : list.date_ranges) {
        const std::string_view line = listed.text;
        const std::string_view id = attribute_in(line, "ID");
        const int64_t start = ticks_of_date(attribute_in(line, "START-DATE"));
        const std::string_view duration = attribute_in(line, "DURATION");
        if (start <= 0)
            continue;
        if (duration.empty()) {
            date_range range;
            if (!places.contains(id) && read_begin(line, id, start, range)) {
                range.told = listed.date;
                range.repeated = listed.date;
                places.emplace(id, ranges.size());
                ranges.push_back(std::move(range));
            }
        } else if (const auto place = places.find(id); place != places.end()) {
            date_range& range = ranges[place->second];
            range.end = start + ticks_in(duration);
            range.end_section = attribute_in(line, attribute_of(splice_kind::in));
            range.end_told = listed.date;
        }
    }
    return ranges;
}
