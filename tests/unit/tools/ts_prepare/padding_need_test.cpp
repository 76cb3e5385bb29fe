#include "tools/ts_prepare/padding_need.hpp"

#include <gtest/gtest.h>

namespace
{

constexpr uint64_t start_up = 2 << 20;
constexpr uint64_t look_ahead = 1540096 + 3008;
constexpr int64_t second = 1'000'000;

// The reader has begun, and has come to the keyframe that was sent at 10 s.
padding_need settled()
{
    padding_need need;
    note_output(need, start_up, true, 10 * second);
    note_padding(need, look_ahead);
    return need;
}

TEST(PaddingNeed, PadsUntilTheReaderCanBegin)
{
    padding_need need;
    note_output(need, 100'000, false, 0);
    note_padding(need, start_up - 100'001);
    EXPECT_TRUE(padding_helps(need, input_flow::comes, 0));
    EXPECT_TRUE(padding_helps(need, input_flow::pauses, 0));
    note_output(need, 1, true, 0);
    note_padding(need, look_ahead);
    EXPECT_FALSE(padding_helps(need, input_flow::comes, 0));
}

TEST(PaddingNeed, PadsUntilTheReaderHasComeToAKeyframe)
{
    padding_need need = settled();
    EXPECT_FALSE(padding_helps(need, input_flow::comes, 11 * second));
    note_output(need, 50'000, false, 11 * second);
    EXPECT_FALSE(padding_helps(need, input_flow::comes, 11 * second));

    note_output(need, 50'000, true, 12 * second);
    EXPECT_TRUE(padding_helps(need, input_flow::comes, 12 * second));
    note_output(need, 500'000, false, 12 * second); // what comes behind it counts too
    note_padding(need, look_ahead - 500'001);
    EXPECT_TRUE(padding_helps(need, input_flow::comes, 12 * second));
    note_padding(need, 1);
    EXPECT_FALSE(padding_helps(need, input_flow::comes, 12 * second));
}

TEST(PaddingNeed, PadsUntilTheReaderHasComeToTheLastPacketWhereTheInputPauses)
{
    padding_need need = settled();
    note_output(need, 50'000, false, 11 * second);
    EXPECT_FALSE(is_flushed(need));
    EXPECT_TRUE(padding_helps(need, input_flow::pauses, 11 * second));
    note_padding(need, look_ahead - 1);
    EXPECT_TRUE(padding_helps(need, input_flow::pauses, 3600 * second));
    note_padding(need, 1);
    EXPECT_FALSE(padding_helps(need, input_flow::pauses, 3600 * second));
    EXPECT_TRUE(is_flushed(need));
}

TEST(PaddingNeed, PadsAlwaysWhereNoKeyframeIsSeen)
{
    padding_need need = settled();
    note_output(need, 50'000, false, 22 * second);
    EXPECT_FALSE(padding_helps(need, input_flow::comes, 22 * second));
    EXPECT_TRUE(padding_helps(need, input_flow::comes, 22 * second + 1));

    padding_need never;
    note_output(never, start_up, false, 0);
    note_padding(never, look_ahead);
    EXPECT_TRUE(padding_helps(never, input_flow::comes, 0));
}

TEST(PaddingNeed, HasNothingToFlushWhereNothingCame)
{
    padding_need need;
    EXPECT_TRUE(is_flushed(need));
    note_padding(need, 188);
    EXPECT_TRUE(is_flushed(need));
    note_output(need, 188, true, 0);
    EXPECT_FALSE(is_flushed(need));
    note_padding(need, look_ahead);
    EXPECT_FALSE(is_flushed(need)); // the reader has not begun
    note_padding(need, start_up - look_ahead);
    EXPECT_TRUE(is_flushed(need));
}

} // namespace
