// Date ranges of splices, RFC 8216 4.3.2.7.1: what a playlist tells of ANSI/SCTE 35. Pure functions
// of the records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "publisher/read/scte35.hpp"
#include "publisher/text/media_list.hpp"

// Dates are ticks since 1970.
struct date_range {
    std::string id;    // unique in the presentation
    std::string event; // of the splice that it begins with, as the next ones
    uint8_t type = 0;
    splice_kind kind = splice_kind::command;
    int64_t start = 0;
    int64_t planned = 0;     // ticks that it is to last; 0: not told
    bool returns = false;    // it ends then by itself
    int64_t end = -1;        // -1: not known yet
    std::string section;     // that it begins with, and
    std::string end_section; // that tells its end; empty: none did
    int64_t clock = -1;      // the stream's, 33 bits, at the start; -1: not told, or of before it
                             // began anew
    // How far the stream had come
    int64_t told = 0;     // when it was first told,
    int64_t repeated = 0; // when it was told last, and
    int64_t end_told = 0; // when its end was told, or will have come: until then it may change

    bool operator==(const date_range&) const = default;
};

// Takes what a section tells. The splice is at `date`, and the stream has come to `now`. What comes
// again changes nothing; what is moved before it has happened becomes another range. Lists may only
// grow, so what was told stays told: a range that is cancelled or moved ends, with a duration of 0
// where it had not begun. False: there is no room for another one.
[[nodiscard]] bool take_splice(std::vector<date_range>& ranges, const splice_cue& told,
                               int64_t date, int64_t now);

// The stream's clock begins anew.
void forget_clock(std::vector<date_range>& ranges);

// Ends those that end by themselves.
void end_returned(std::vector<date_range>& ranges, int64_t now);

// Takes out those that were over before this date.
void drop_past(std::vector<date_range>& ranges, int64_t date);

// Takes out those that never happened.
void drop_cancelled(std::vector<date_range>& ranges);

// Whether the boundary at `date`, between a GOP that lasts `before` ticks and one that lasts
// `behind`, is the nearest to one of the splices.
bool is_nearest_to_splice(const std::vector<date_range>& ranges, int64_t date, int64_t before,
                          int64_t behind);

// A line of a list, and how far the stream had come when it was told.
struct told_line {
    int64_t told = 0;
    std::string text;
};

// In the order in which they were told.
std::vector<told_line> date_range_lines(const std::vector<date_range>& ranges);

// Range by range.
std::string date_ranges_text(const std::vector<date_range>& ranges);

// The ranges that a list of ours tells of.
std::vector<date_range> parse_date_ranges(const media_list& list);
