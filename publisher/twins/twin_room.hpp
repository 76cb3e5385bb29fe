// Decides whose GOP is published next where several sources deliver the same stream: records come
// in, decisions go out, and no file is touched.
//
// Sources are matched by time stamps and content. What one of them delivers sound is published at
// once. What is damaged in one is waited for from the others, and so is what is missing: a source
// that still delivers, and has not come so far yet, may have it. A source whose clock differs from
// the others' by a constant is matched by content alone; one whose content differs is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

// What of a GOP matters here.
struct twin_gop {
    int64_t start = 0;       // 33 bits, on the clock of its source
    int64_t length = 0;      // ticks
    uint64_t content = 0;    // tells GOPs apart, whatever the clock
    uint64_t errors = 0;     // packets that are missing or damaged
    bool torn = false;       // its end may be missing: the run ended with it
    bool after_loss = false; // another run began before it, or fragments are missing
    std::string layout;      // a player can go on without being told only where it is the same
};

enum class twin_standing {
    joining, // not found to be the same stream yet
    matched,
    refused, // another stream
};

enum class twin_verdict {
    wait,    // for more GOPs, or for time to pass
    publish, // the oldest GOP of the source
    drop,    // it is published already, or comes too late
};

struct twin_decision {
    twin_verdict verdict = twin_verdict::wait;
    size_t source = 0;
};

class twin_room
{
public:
    // `wait_ms` is how long a damaged GOP waits for a better one; 0: for as long as one GOP lasts.
    twin_room(size_t sources, int64_t wait_ms) : wait_ms_(wait_ms), sources_(sources) {}

    // Everything before this time of the common clock is published.
    void resume(int64_t clock, const std::string& layout);
    // A source that was matched then, and how far its clock is ahead of the common one. With
    // `published_last` what it delivers next follows that time, whatever its clock shows.
    void resume_source(size_t source, int64_t offset, bool published_last);

    // GOPs of a source that wait, each of which keeps a file open. What is more stays with the
    // source, until this drops the oldest.
    static constexpr size_t most_queued = 160;

    // The source has delivered this, behind all that it delivered before.
    void add(size_t source, twin_gop what, int64_t now_ms);

    // The source has something that it will deliver soon.
    void expect(size_t source, int64_t now_ms);

    // What to do now. The caller does it, and asks again until there is nothing to do.
    twin_decision decide(int64_t now_ms);

    // In how many milliseconds time alone may change the decision; -1: never.
    [[nodiscard]] int64_t decide_again_ms(int64_t now_ms) const;

    [[nodiscard]] twin_standing standing(size_t source) const { return sources_[source].standing; }
    // How far the source's clock is ahead of that of the source that was published last.
    [[nodiscard]] int64_t offset(size_t source) const;

private:
    struct queued_gop {
        twin_gop what;
        int64_t arrived_ms = 0;
    };
    struct twin_source {
        twin_standing standing = twin_standing::joining;
        int64_t offset = 0; // its clock is ahead of the common one by so much; joining: supposed
        std::optional<int64_t> supposed_offset; // that one GOP's content speaks for
        std::deque<queued_gop> queue;
        int64_t delivers_until_ms = 0; // it is expected to deliver more before
        bool at_head = false;          // what it delivered last is where the presentation ends
        int disagreements = 0;
    };
    // On the common clock.
    struct published_gop {
        int64_t start = 0;
        int64_t length = 0;
        uint64_t content = 0;
        bool sound = false;
    };
    // What the oldest GOP of a source is to the presentation, best first.
    enum class kind {
        next,           // what follows, sound, on the clock and in the layout as before
        next_otherwise, // on another clock or in another layout: players have to be told
        next_by_chance, // at the right time, from a source that is not known to be the same stream
        damaged,
        torn,
        jumped, // what follows in its source, but the clock has jumped
        beyond, // what lies between is missing
        stray,  // of another time, as far as can be told
        none,   // not to be published
    };
    struct candidate {
        size_t source = 0;
        kind what = kind::none;
        int64_t distance = 0; // ticks from the end of the presentation to it
    };

    bool settle(twin_source& source, int64_t now_ms);
    [[nodiscard]] std::optional<size_t> known_at(const twin_source& source) const;
    [[nodiscard]] bool is_next_by_clock(const twin_source& source, const twin_gop& what) const;
    [[nodiscard]] const published_gop* find(const twin_source& source, const twin_gop& what) const;
    [[nodiscard]] const published_gop* find_by_time(const twin_source& source,
                                                    const twin_gop& what) const;
    [[nodiscard]] const published_gop* find_by_content(const twin_gop& what) const;
    [[nodiscard]] bool contradicts(const twin_source& source, const twin_gop& what) const;
    void compare(twin_source& source, const twin_gop& what, const published_gop& with);
    static void disagree(twin_source& source);
    [[nodiscard]] candidate classify(size_t source) const;
    [[nodiscard]] std::optional<candidate> best_candidate() const;
    [[nodiscard]] bool is_better(const candidate& a, const candidate& b) const;
    [[nodiscard]] int64_t hope_ms(int64_t now_ms) const;
    [[nodiscard]] int64_t patience_ms(kind what) const;
    void publish(const candidate& chosen);
    [[nodiscard]] int64_t distance_to(const twin_source& source, const twin_gop& what) const;

    int64_t wait_ms_;
    std::vector<twin_source> sources_;
    std::deque<published_gop> published_; // oldest first
    bool begun_ = false;
    int64_t end_ = 0; // of the presentation, on the common clock
    int64_t last_length_ = 0;
    std::string last_layout_;
    std::optional<size_t> last_source_;
    int64_t last_offset_ = 0;
    int64_t waiting_since_ms_ = -1; // there has been something to publish, if not the best
};
