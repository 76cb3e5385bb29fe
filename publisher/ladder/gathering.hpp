// Joins the GOPs of all rungs to segments. All rungs have the same segments: a rung that is not in
// every row of one is not in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "publisher/state/stored_state.hpp"
#include "publisher/timeline/segmenting.hpp"
#include "publisher/timeline/timeline.hpp"
#include "publisher/twins/twin_sources.hpp"

// The GOPs of one stretch of time.
struct row {
    int64_t start = 0;       // 33 bits
    int64_t length = 0;      // ticks
    bool after_loss = false; // a run begins with it, or fragments before it are missing
    std::vector<std::vector<chosen_gop>> rungs; // by rung; without GOPs: it is not in it
};

struct planned_segment {
    std::vector<std::vector<source_gop>> rungs; // by rung; without GOPs: it is not in it
    std::vector<std::vector<size_t>> sources;   // that they were taken from
    placed_gop at;
    int64_t duration = 0;
    uint64_t number = 0;        // by the time of the stream; 0: the next one
    bool is_misfit = false;     // it is not where that time has it: GOPs are too long
    bool is_incomplete = false; // something is missing in it, before it or behind it, that others
                                // may have
    timeline behind;            // where the timeline stands behind it
    std::vector<rung_place> places; // where the rungs are then
};

class gathering
{
public:
    gathering(segment_limits limits, const std::vector<std::string>& rungs);

    // Goes on behind what is published. `next` is the number of the next segment, where numbers
    // come from the stream; 0: there was none.
    void resume(const timeline& line, const std::vector<rung_place>& places, uint64_t next);

    // Goes on behind a segment of a peer. What comes from before its end is left out.
    void take_up(const timeline& line, uint64_t next);

    // Whether the row does not go on, and this publisher may have missed why.
    [[nodiscard]] bool is_cut_off(const row& next) const;

    void add(row next);

    // What there is becomes a segment.
    void close(bool is_cut_short = false);

    // Splices that were over before this date are of no interest any more.
    void forget_splices(int64_t date) { drop_past(line_.ranges, date); }

    // Sections that there was no room for among those that are listed.
    [[nodiscard]] uint64_t splices_left_out() const { return splices_left_out_; }

    void want(int64_t ticks) { limits_.wanted = ticks; }

    // Of the next segment, where numbers come from the stream; 0: that is still to be read.
    [[nodiscard]] uint64_t next_number() const { return static_cast<uint64_t>(next_slot_); }

    [[nodiscard]] bool is_empty() const { return rows_.empty(); }
    [[nodiscard]] const timeline& line() const { return line_; }
    [[nodiscard]] const std::vector<rung_place>& places() const { return places_; }

    std::deque<planned_segment> planned; // oldest first

private:
    struct placed_row {
        row of;
        placed_gop at;
    };

    [[nodiscard]] bool is_in_all(size_t rung) const;
    [[nodiscard]] bool has_same_layouts(const row& next) const;
    [[nodiscard]] bool may_follow(const row& next) const;
    bool number_segment(placed_gop& at, int64_t slot);

    segment_limits limits_;
    timeline line_;                  // behind what is gathered
    std::vector<rung_place> places_; // the same
    std::vector<placed_row> rows_;
    timeline behind_; // the last of them
    uint64_t splices_left_out_ = 0;

    // Where numbers come from the stream.
    int64_t first_slot_ = -1;   // before the first segment: the slot whose beginning was missed
    int64_t next_slot_ = 0;     // of the next segment; 0: there was none
    bool has_taken_up_ = false; // a place that the rows have not come to yet
    bool is_misfit_ = false;    // the segment that is gathered
};
