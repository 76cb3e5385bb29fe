#include "publisher/timeline/stream_time.hpp"

#include <cstdlib>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t hour = 3600 * second;
constexpr int64_t noon = int64_t{1795262400} * second;
constexpr int64_t slot = 6 * second;

} // namespace

TEST(StreamTime, IsTheNearestTimeAtWhichTheClockShowsThis)
{
    for (const int64_t clock :
         {int64_t{0}, int64_t{1}, int64_t{900000}, pts_modulus / 2, pts_modulus - 1}) {
        const int64_t time = stream_time(clock, noon);
        EXPECT_EQ(time % pts_modulus, clock);
        EXPECT_LE(std::abs(time - noon), pts_modulus / 2);
    }
}

TEST(StreamTime, IsTheSameOnMachinesWhoseClocksDifferByHours)
{
    const int64_t clock = (noon + 2 * hour) % pts_modulus;
    EXPECT_EQ(stream_time(clock, noon), noon + 2 * hour);
    EXPECT_EQ(stream_time(clock, noon + 9 * hour), noon + 2 * hour);
    EXPECT_EQ(stream_time(clock, noon - 9 * hour), noon + 2 * hour);
}

TEST(StreamTime, IsNeverNegative)
{
    EXPECT_EQ(stream_time(pts_modulus - 5, 0), pts_modulus - 5);
}

TEST(StreamTime, IsAmbiguousHalfATurnAway)
{
    const int64_t turned = (noon + pts_modulus / 2) % pts_modulus;
    EXPECT_TRUE(is_ambiguous(turned, noon));
    EXPECT_TRUE(is_ambiguous(stamp_sum(turned, hour - 1), noon));
    EXPECT_TRUE(is_ambiguous(stamp_sum(turned, 1 - hour), noon));
    EXPECT_FALSE(is_ambiguous(stamp_sum(turned, hour), noon));
    EXPECT_FALSE(is_ambiguous(noon % pts_modulus, noon));
}

TEST(StreamTime, OfASegmentIsInItsSlotAndAWholeNumberOfSlotsAway)
{
    const int64_t clock = 7 * second + 40;
    const int64_t time = time_of_segment(1000, clock, noon, slot);
    EXPECT_EQ(time / slot, 1000);
    EXPECT_EQ((stream_time(clock, noon) - time) % slot, 0);
}
