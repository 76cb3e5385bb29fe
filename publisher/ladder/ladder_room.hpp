// Decides which GOPs of several rungs make a row, the same stretch of time in each: records come
// in, decisions go out, and no file is touched.
//
// A row ends where every rung in it has a keyframe. A rung that is in step is waited for, for as
// long as a GOP lasts from when the first rung delivered it. One that has not come by then, or has
// its keyframes elsewhere, is out of step: what it delivers joins a row if it is there when the row
// is complete. It is in step again when it was late by less than it would be waited for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

// What of a GOP matters here.
struct ladder_gop {
    int64_t start = 0;  // 33 bits
    int64_t length = 0; // ticks
    bool torn = false;  // its end may be missing: the run ended with it
    std::string layout; // a row has one in each rung
};

enum class ladder_verdict {
    wait,
    drop, // the oldest GOP of the rung: it came too late, or is out of place
    take, // a row
};

struct ladder_decision {
    ladder_verdict verdict = ladder_verdict::wait;
    size_t rung = 0;            // of what is dropped
    std::vector<size_t> counts; // of a row: how many GOPs of each rung, the oldest; 0: none
    int64_t start = 0;          // of a row, 33 bits
    int64_t length = 0;
};

class ladder_room
{
public:
    // Before the first row, all rungs are waited for so long, because viewers read the master
    // playlist once. No row of several GOPs is longer than `longest_row` ticks. A rung that is out
    // of step has its oldest GOP dropped where `most_queued` of them wait.
    ladder_room(size_t rungs, int64_t begin_wait_ms, int64_t longest_row, size_t most_queued)
        : begin_wait_ms_(begin_wait_ms), longest_row_(longest_row), most_queued_(most_queued),
          rungs_(rungs)
    {
    }

    // Goes on behind what is published. All rungs are out of step then but for those of below.
    void resume(int64_t clock);
    void resume_in_step(size_t rung) { rungs_[rung].in_step = true; }

    void add(size_t rung, ladder_gop what, int64_t now_ms);
    ladder_decision decide(int64_t now_ms);

    // In how many milliseconds waiting ends; -1: it does not.
    [[nodiscard]] int64_t decide_again_ms(int64_t now_ms) const;

    [[nodiscard]] bool is_in_step(size_t rung) const { return rungs_[rung].in_step; }
    // Its keyframes are not where the others have theirs.
    [[nodiscard]] bool is_misaligned(size_t rung) const;

private:
    struct queued_gop {
        ladder_gop what;
        int64_t arrived_ms = 0;
    };
    struct rung_queue {
        std::deque<queued_gop> queue; // oldest first
        bool in_step = true;
        int out_of_place = 0; // GOPs in a row whose keyframes were elsewhere
    };
    struct taken_row {
        int64_t start = 0;
        int64_t length = 0;
        int64_t arrived_ms = 0; // the first GOP of it
    };
    struct beginning {
        bool may_begin = false;
        std::optional<size_t> early; // a rung whose oldest GOP comes before the first row
    };
    enum class fit { whole, to_come, longer, elsewhere };
    struct fitting {
        fit how = fit::elsewhere;
        size_t count = 0; // GOPs, where it fits whole
    };

    [[nodiscard]] bool is_to_drop(const rung_queue& rung, int64_t now_ms) const;
    [[nodiscard]] bool is_behind(const ladder_gop& what) const;
    void note_late(rung_queue& rung);
    [[nodiscard]] std::optional<int64_t> common_start() const;
    [[nodiscard]] beginning begin(int64_t now_ms) const;
    [[nodiscard]] std::optional<size_t> leader() const;
    [[nodiscard]] int rank(size_t rung) const;
    [[nodiscard]] int64_t arrived_ms(int64_t start) const;
    [[nodiscard]] int64_t deadline_ms(size_t leader) const;
    [[nodiscard]] fitting fit_of(size_t rung, size_t leader, int64_t length, bool torn) const;
    [[nodiscard]] ladder_decision row_of(size_t leader, size_t count) const;
    [[nodiscard]] bool is_complete(const ladder_decision& row, size_t leader, size_t count) const;
    void take(const ladder_decision& row, int64_t now_ms);

    int64_t begin_wait_ms_;
    int64_t longest_row_;
    size_t most_queued_;
    std::vector<rung_queue> rungs_;
    std::deque<taken_row> taken_; // oldest first
    bool begun_ = false;
    int64_t end_ = 0;               // of the last row
    int64_t last_row_ms_ = -1;      // when it was taken
    int64_t first_arrived_ms_ = -1; // of all GOPs
};
