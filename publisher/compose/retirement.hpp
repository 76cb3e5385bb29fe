// What has left the list: the files of a segment stay until nobody can want them any more, and go.
//
// A list that cannot be written goes on naming what has left it for the state. So the time of a
// segment begins when the lists on disk no longer name it, and until then its files stay, whatever
// else would have them go.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "publisher/compose/output_directory.hpp"
#include "publisher/state/stored_state.hpp"

class retirement
{
public:
    explicit retirement(const output_directory& output) : output_(output) {}

    // Goes on with what a state tells, or begins anew.
    void take_up(std::deque<retired_segment> segments);

    // They are younger than all there are.
    void add(std::vector<retired_segment> segments);

    // The lists on disk name no segment before this one.
    void begin_times(uint64_t first_on_disk, int64_t now_ms);
    // The times that had begun count from another clock: they begin anew.
    void begin_times_anew(int64_t now_ms);

    // Removes the files of those whose time is over, and of more, the oldest first, while all
    // together have more than `most_bytes`. A file that cannot be removed keeps none of the others.
    void remove_due(int64_t now_ms, uint64_t most_bytes);

    // Puts into a step what the state does not have yet, until it has been saved.
    void tell(state_step& step) const;
    void note_saved();

    // Null: it is not there.
    [[nodiscard]] const segment* find(uint64_t sequence) const;
    [[nodiscard]] uint64_t bytes() const { return bytes_; }

    // Lines for the operator.
    std::vector<std::string> take_lines();

private:
    [[nodiscard]] bool remove_files(const segment& s);
    void remove_folder_of(const segment& s) const;

    const output_directory& output_;
    std::deque<retired_segment> segments_; // oldest first; those whose time has begun come first
    std::deque<retired_segment> stuck_;    // could not be removed: soonest to be tried again first
    uint64_t bytes_ = 0;                   // of the former
    uint64_t saved_before_ = 0;     // the state has the times of the segments before this number
    std::vector<uint64_t> removed_; // the state does not know yet
    bool stuck_told_ = false;
    std::vector<std::string> lines_;
};
