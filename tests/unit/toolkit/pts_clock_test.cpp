#include "toolkit/pts_clock.hpp"

#include <gtest/gtest.h>

namespace
{

TEST(PtsClock, DistancesGoTheShortWayRoundTheClock)
{
    EXPECT_EQ(stamp_distance(10, 30), 20);
    EXPECT_EQ(stamp_distance(30, 10), -20);
    EXPECT_EQ(stamp_distance(pts_modulus - 5, 5), 10);
    EXPECT_EQ(stamp_distance(5, pts_modulus - 5), -10);
    EXPECT_EQ(stamp_sum(pts_modulus - 5, 10), 5);
    EXPECT_EQ(stamp_sum(5, -10), pts_modulus - 5);
}

} // namespace
