#include "v2/pipe_pace.hpp"

#include <algorithm>
#include <string_view>

#include <gtest/gtest.h>

namespace
{

constexpr int usual_capacity = 65536;

struct decision_case {
    std::string_view name;
    pipe_pace pace;
    pipe_level now;
    int want_ms;
};

TEST(PipePace, PausesWhereLittleStandsInAPipeThatIsLargeEnough)
{
    const decision_case cases[] = {
        {.name = "an empty pipe", .pace = {}, .now = {usual_capacity, 0}, .want_ms = 8},
        {.name = "less than a batch", .pace = {}, .now = {usual_capacity, 16383}, .want_ms = 8},
        {.name = "a batch", .pace = {}, .now = {usual_capacity, 16384}, .want_ms = 0},
        {.name = "a full pipe", .pace = {}, .now = {usual_capacity, usual_capacity}, .want_ms = 0},
        {.name = "a pipe too small for batches", .pace = {}, .now = {65535, 0}, .want_ms = 0},
        {.name = "the pause last learned",
         .pace = {.pause_ms = 32},
         .now = {usual_capacity, 0},
         .want_ms = 32},
        {.name = "a fast source",
         .pace = {.unpaused_bytes = 1},
         .now = {usual_capacity, 0},
         .want_ms = 0},
    };
    for (const decision_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pause_before_read(c.pace, c.now), c.want_ms);
    }
}

struct lesson_case {
    std::string_view name;
    int pause_ms;
    pipe_level after;
    int want_ms;
    uint64_t want_unpaused;
};

TEST(PipePace, LearnsFromWhatAPauseBrought)
{
    constexpr uint64_t flood = 1048576;
    const lesson_case cases[] = {
        {.name = "nothing", .pause_ms = 1, .after = {65536, 0}, .want_ms = 2, .want_unpaused = 0},
        {.name = "too little",
         .pause_ms = 8,
         .after = {65536, 16383},
         .want_ms = 16,
         .want_unpaused = 0},
        {.name = "too little after the longest pause",
         .pause_ms = 32,
         .after = {65536, 16383},
         .want_ms = 32,
         .want_unpaused = 0},
        {.name = "a batch",
         .pause_ms = 8,
         .after = {65536, 16384},
         .want_ms = 8,
         .want_unpaused = 0},
        {.name = "the largest batch that is not too much",
         .pause_ms = 8,
         .after = {65536, 40959},
         .want_ms = 8,
         .want_unpaused = 0},
        {.name = "too much",
         .pause_ms = 8,
         .after = {65536, 40960},
         .want_ms = 4,
         .want_unpaused = 0},
        {.name = "too much after the shortest pause",
         .pause_ms = 1,
         .after = {65536, 49151},
         .want_ms = 1,
         .want_unpaused = 0},
        {.name = "three quarters of what the pipe holds",
         .pause_ms = 8,
         .after = {65536, 49152},
         .want_ms = 4,
         .want_unpaused = flood},
        {.name = "too much, in a large pipe",
         .pause_ms = 8,
         .after = {1048576, 786431},
         .want_ms = 4,
         .want_unpaused = 0},
        {.name = "three quarters of a large pipe",
         .pause_ms = 8,
         .after = {1048576, 786432},
         .want_ms = 4,
         .want_unpaused = flood},
    };
    for (const lesson_case& c : cases) {
        SCOPED_TRACE(c.name);
        pipe_pace pace{.pause_ms = c.pause_ms};
        note_pause(pace, c.after);
        EXPECT_EQ(pace.pause_ms, c.want_ms);
        EXPECT_EQ(pace.unpaused_bytes, c.want_unpaused);
    }
}

TEST(PipePace, ReadsAMebibyteOfAFastSourceBeforeTheNextPause)
{
    pipe_pace pace;
    note_pause(pace, {.capacity = usual_capacity, .standing = usual_capacity});
    const pipe_level empty{.capacity = usual_capacity, .standing = 0};
    for (int read = 0; read < 16; read++) {
        EXPECT_EQ(pause_before_read(pace, empty), 0) << read;
        note_read(pace, 65536);
    }
    EXPECT_EQ(pause_before_read(pace, empty), 4);

    note_read(pace, 65536); // what a pause brought counts for nothing
    EXPECT_EQ(pace.unpaused_bytes, 0u);
}

TEST(PipePace, AReadMayTakeMoreThanWasToBeReadWithoutAPause)
{
    pipe_pace pace{.unpaused_bytes = 1000};
    note_read(pace, 999);
    EXPECT_EQ(pace.unpaused_bytes, 1u);
    note_read(pace, 2);
    EXPECT_EQ(pace.unpaused_bytes, 0u);
}

struct source_case {
    std::string_view name;
    int bytes_per_ms;
    int want_after_short_ms; // where the first pause is the shortest
    int want_after_long_ms;  // where it is the longest
};

// All that stands in the pipe after a pause is read, and takes no time.
TEST(PipePace, SettlesOnThePauseThatSuitsTheSource)
{
    const source_case cases[] = {
        {"radio of 192 kbit/s", 24, 32, 32}, {"8 Mbit/s", 1000, 32, 32},
        {"10 Mbit/s", 1250, 16, 32},         {"20 Mbit/s", 2500, 8, 16},
        {"50 Mbit/s", 6250, 4, 4},           {"200 Mbit/s", 25000, 1, 1},
    };
    for (const source_case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const bool first_is_long : {false, true}) {
            SCOPED_TRACE(first_is_long);
            pipe_pace pace{.pause_ms = first_is_long ? 32 : 1};
            for (int reads = 0; reads < 10; reads++) {
                pipe_level level{.capacity = usual_capacity, .standing = 0};
                const int paused_ms = pause_before_read(pace, level);
                EXPECT_EQ(paused_ms, pace.pause_ms);
                level.standing = c.bytes_per_ms * paused_ms;
                note_pause(pace, level);
                pace.unpaused_bytes = 0;
            }
            EXPECT_EQ(pace.pause_ms, first_is_long ? c.want_after_long_ms : c.want_after_short_ms);
        }
    }
}

} // namespace
