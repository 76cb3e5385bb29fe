// What outlives the process: the presentation, where its timeline has come to, which bytes of each
// source are in it already, and files that are no longer listed but may still be fetched.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "publisher/text/presentation.hpp"
#include "publisher/timeline/timeline.hpp"

// Everything before this place is published.
struct source_position {
    std::string base;         // of the run's fragments; empty: none was followed yet
    uint64_t number = 0;      // fragment
    uint64_t offset = 0;      // byte in it
    uint64_t last_inode = 0;  // of the fragment before it, so that a name used again is noticed;
    uint64_t last_bytes = 0;  // 0: not known
    uint64_t last_listed = 0; // number of the last fragment that the run had listed
    int64_t written_ms = 0;   // file time of what is before it, since 1970; 0: not known

    bool operator==(const source_position&) const = default;
};

// Where a source is.
struct source_place {
    std::string path;
    source_position position;
    bool is_matched = false;  // it delivers the stream that is published
    int64_t clock_offset = 0; // its clock is ahead of that of the last GOP published
    bool is_last = false;     // that was its own

    bool operator==(const source_place&) const = default;
};

// Where a rung is.
struct rung_place {
    std::string name;
    std::string layout; // of its last GOP, if that is in the last segment; empty: it is not
    std::vector<source_place> sources;

    bool operator==(const rung_place&) const = default;
};

// A segment that is no longer listed.
struct retired_segment {
    segment what;
    int64_t due_ms = 0;  // on the clock of the boot when its files may go; 0: a list on disk may
                         // still name it
    int64_t hold_ms = 0; // how long it stays from when none does
};

// One line per step.
struct stored_head {
    uint64_t next_sequence = 0;
    uint64_t discontinuities = 0;
    uint64_t first_sequence = 0; // of the first segment of all; 0: not known
    bool ended = false;
    timeline line;
    std::vector<rung_place> rungs;
    std::string boot_id; // of which due_ms is told

    bool operator==(const stored_head&) const = default;
};

struct stored_state {
    stored_head head;
    master_facts master;
    std::deque<segment> listed;          // oldest first
    std::deque<retired_segment> retired; // oldest first
};

// One step of a presentation: made durable whole or not at all.
struct state_step {
    stored_head head;
    std::vector<segment> added;
    std::vector<retired_segment> retired; // were listed until now, or have got another time
    std::vector<uint64_t> removed;        // sequences whose files are gone
    const master_facts* master = nullptr; // when it has changed
};
