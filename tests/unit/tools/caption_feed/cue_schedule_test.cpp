#include "tools/caption_feed/cue_schedule.hpp"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

struct due_case {
    std::string_view name;
    int64_t start_ms = 0;
    uint64_t stream_ticks = 0;
    std::optional<uint64_t> base_ticks = {};
    int64_t lead_ms = 0;
    int64_t want = 0;
};

TEST(CueSchedule, Due)
{
    constexpr uint64_t last_tick = pts_mask;
    constexpr due_case cases[] = {
        {.name = "from the source's 0", .start_ms = 5000, .stream_ticks = 7, .want = 5000},
        {.name = "lead", .start_ms = 5000, .lead_ms = 1500, .want = 3500},
        {.name = "delay", .start_ms = 5000, .lead_ms = -1500, .want = 6500},
        {.name = "from the base time", .stream_ticks = 990000, .base_ticks = 900000, .want = 1000},
        {.name = "before it", .stream_ticks = 810000, .base_ticks = 900000, .want = -1000},
        {.name = "wrapped", .stream_ticks = 89999, .base_ticks = last_tick, .want = 1000},
        {.name = "before the wrap",
         .stream_ticks = last_tick - 89999,
         .base_ticks = 0,
         .want = -1000},
        {.name = "base time of more than 33 bits",
         .stream_ticks = 90000,
         .base_ticks = last_tick + 1,
         .want = 1000},
    };
    for (const due_case& c : cases) {
        SCOPED_TRACE(c.name);
        caption_cue cue;
        cue.start_ms = c.start_ms;
        cue.stream_ticks = c.stream_ticks;
        EXPECT_EQ(cue_due_ms(cue, {.lead_ms = c.lead_ms, .base_ticks = c.base_ticks}), c.want);
    }
}

TEST(CueSchedule, RateOfABurst)
{
    cue_rate rate;
    std::vector<int64_t> sent_at;
    int64_t now = 1000;
    for (int i = 0; i < 70; ++i) {
        now = rate.next_ms(now);
        rate.take(now);
        sent_at.push_back(now);
    }
    EXPECT_EQ(sent_at[63], 1000);
    EXPECT_EQ(sent_at[64], 1100);
    EXPECT_EQ(sent_at[65], 1200);
    EXPECT_EQ(sent_at[69], 1600);
}

TEST(CueSchedule, RateAfterAPause)
{
    cue_rate rate;
    for (int i = 0; i < 64; ++i)
        rate.take(0);
    EXPECT_EQ(rate.next_ms(0), 100);
    EXPECT_EQ(rate.next_ms(99), 100);
    EXPECT_EQ(rate.next_ms(100), 100);
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(rate.next_ms(6400), 6400);
        rate.take(6400);
    }
    EXPECT_EQ(rate.next_ms(6400), 6500);
}

} // namespace
