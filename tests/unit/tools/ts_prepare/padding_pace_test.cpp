#include "tools/ts_prepare/padding_pace.hpp"

#include <gtest/gtest.h>

namespace
{

constexpr int64_t rate = 15'040'000; // 10 packets a millisecond

TEST(PaddingPace, FillsUpToTheRateInEvenPortions)
{
    padding_pace pace{.bits_per_second = rate};
    EXPECT_EQ(padding_due(pace, 1'000'000, 0), 0U);
    for (int ms = 1; ms <= 1000; ms++)
        EXPECT_EQ(padding_due(pace, 1'000'000 + ms * 1000, 0), 10U);
}

TEST(PaddingPace, LeavesRoomForWhatWentOutAnyway)
{
    padding_pace pace{.bits_per_second = rate};
    EXPECT_EQ(padding_due(pace, 0, 0), 0U);
    EXPECT_EQ(padding_due(pace, 1000, 4 * 188), 6U);
    EXPECT_EQ(padding_due(pace, 2000, 10 * 188), 0U);
    EXPECT_EQ(padding_due(pace, 3000, 25 * 188), 0U);
    EXPECT_EQ(padding_due(pace, 4000, 0), 0U); // the last one was faster than the rate
    EXPECT_EQ(padding_due(pace, 5000, 0), 5U);
}

TEST(PaddingPace, KeepsPartsOfAPacketForTheNextPortion)
{
    padding_pace pace{.bits_per_second = rate};
    size_t packets = padding_due(pace, 0, 0);
    for (int64_t us = 37; us <= 1'000'000; us += 37)
        packets += padding_due(pace, us, 0);
    EXPECT_EQ(packets, 9999U);
}

TEST(PaddingPace, DoesNotMakeUpForALongStop)
{
    padding_pace pace{.bits_per_second = rate};
    EXPECT_EQ(padding_due(pace, 0, 0), 0U);
    EXPECT_EQ(padding_due(pace, 3'600'000'000, 0), 1000U); // what 0.1 s brings
    EXPECT_EQ(padding_due(pace, 3'600'001'000, 0), 10U);
}

TEST(PaddingPace, ForgetsABurstOfTheInput)
{
    padding_pace pace{.bits_per_second = rate};
    EXPECT_EQ(padding_due(pace, 0, 1'000'000'000), 0U);
    EXPECT_EQ(padding_due(pace, 100'000, 0), 0U);
    EXPECT_EQ(padding_due(pace, 101'000, 0), 10U);
}

TEST(PaddingPace, SendsNoMoreThanAPortionAtATimeAndTheRestSoon)
{
    padding_pace pace{.bits_per_second = rate, .most_packets = 300};
    EXPECT_EQ(padding_due(pace, 0, 0), 0U);
    EXPECT_EQ(padding_due(pace, 90'000, 0), 300U); // of the 900 packets of a nap
    EXPECT_EQ(padding_due(pace, 91'000, 0), 300U);
    EXPECT_EQ(padding_due(pace, 92'000, 0), 300U);
    EXPECT_EQ(padding_due(pace, 93'000, 0), 30U);
}

TEST(PaddingPace, StandsStillWithAClockThatGoesBack)
{
    padding_pace pace{.bits_per_second = rate};
    EXPECT_EQ(padding_due(pace, 10'000, 0), 0U);
    EXPECT_EQ(padding_due(pace, 5'000, 0), 0U);
    EXPECT_EQ(padding_due(pace, 6'000, 0), 10U);
}

} // namespace
