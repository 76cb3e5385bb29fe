#include "tools/captions/presentation_clock.hpp"

#include <gtest/gtest.h>

namespace
{

TEST(PresentationClock, GoesOnWhereTheStreamsWraps)
{
    presentation_clock clock;
    const int64_t before = clock.unwrapped(pts_modulus - 10);
    EXPECT_EQ(clock.unwrapped(20), before + 30);
    EXPECT_EQ(clock.unwrapped(pts_modulus - 10), before);
}

// Each of these stamps is a third of the clock behind the one before.
TEST(PresentationClock, StreamThatLeapsForeverDoesNotOverflowIt)
{
    presentation_clock clock;
    clock.last = presentation_clock::furthest / pts_modulus * pts_modulus;
    for (int i = 1; i < 9; ++i) {
        const int64_t stamp = i % 3 * (pts_modulus / 3);
        const int64_t time = clock.unwrapped(stamp);
        EXPECT_EQ(time & (pts_modulus - 1), stamp);
        EXPECT_LE(time, presentation_clock::furthest + pts_modulus);
    }
    EXPECT_LE(clock.last, 4 * pts_modulus);
}

} // namespace
