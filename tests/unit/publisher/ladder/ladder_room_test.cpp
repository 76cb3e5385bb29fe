#include "publisher/ladder/ladder_room.hpp"

#include <cmath>
#include <utility>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t begin_wait_ms = 8000;
constexpr size_t most_queued = 40;

// Three rungs that deliver GOPs of one second, and what is decided, as text: "10:abc" is a row at
// second 10 of the rungs a, b and c; "10-12:aab" one of two seconds to which a gave two GOPs.
class LadderRoom : public testing::Test
{
protected:
    void deliver(size_t rung, double start, double length = 1)
    {
        add(rung, {.start = ticks(start), .length = ticks(length), .layout = "x"});
    }

    void tear(size_t rung, double start, double length)
    {
        add(rung, {.start = ticks(start), .length = ticks(length), .torn = true, .layout = "x"});
    }

    void add(size_t rung, const ladder_gop& what)
    {
        room_.add(rung, what, now_ms_);
        decide();
    }

    void deliver_all(double start)
    {
        for (size_t rung = 0; rung < 3; rung++)
            deliver(rung, start);
    }

    void wait_ms(int64_t ms)
    {
        now_ms_ += ms;
        decide();
    }

    void decide()
    {
        for (;;) {
            const ladder_decision decision = room_.decide(now_ms_);
            if (decision.verdict == ladder_verdict::wait)
                return;
            if (decision.verdict == ladder_verdict::take)
                rows_ += text_of(decision);
            else
                dropped_++;
        }
    }

    static std::string text_of(const ladder_decision& row)
    {
        std::string text = " " + std::to_string(row.start / second);
        if (row.length >= second * 3 / 2)
            text += '-' + std::to_string((row.start + row.length) / second);
        text += ':';
        for (size_t i = 0; i < row.counts.size(); i++)
            text += std::string(row.counts[i], static_cast<char>('a' + i));
        return text;
    }

    static int64_t ticks(double seconds) { return std::llround(seconds * second); }

    // What was decided since this was asked last.
    std::string rows() { return std::exchange(rows_, {}); }

    ladder_room room_{3, begin_wait_ms, 6 * second, most_queued};
    std::string rows_;
    size_t dropped_ = 0;
    int64_t now_ms_ = 1000;
};

} // namespace

TEST_F(LadderRoom, MakesARowWhenAllHaveDelivered)
{
    deliver(0, 10);
    deliver(1, 10);
    EXPECT_EQ(rows(), "");
    deliver(2, 10);
    EXPECT_EQ(rows(), " 10:abc");
    deliver(2, 11);
    deliver(1, 11.002); // less than half a picture away
    EXPECT_EQ(rows(), "");
    deliver(0, 11);
    EXPECT_EQ(rows(), " 11:abc");
}

// One that is split has a little more: it ends with a whole picture, or sound of a third of a
// second.
TEST_F(LadderRoom, WaitsForNothingWhereOneGopIsLongerThanARowOfSeveral)
{
    deliver_all(10);
    rows();
    for (size_t rung = 0; rung < 3; rung++)
        deliver(rung, 11, 6.3);
    EXPECT_EQ(rows(), " 11-17:abc");
}

TEST_F(LadderRoom, BeginsWhereTheLastRungDoes)
{
    deliver(0, 10);
    deliver(0, 11);
    deliver(1, 11);
    wait_ms(begin_wait_ms - 1);
    EXPECT_EQ(rows(), "");
    deliver(2, 12);
    deliver(0, 12);
    deliver(1, 12);
    EXPECT_EQ(rows(), " 12:abc");
}

TEST_F(LadderRoom, BeginsWithoutARungThatDoesNotCome)
{
    deliver(0, 10);
    deliver(1, 10);
    wait_ms(begin_wait_ms - 1);
    EXPECT_EQ(rows(), "");
    EXPECT_EQ(room_.decide_again_ms(now_ms_), 1);
    wait_ms(1);
    EXPECT_EQ(rows(), " 10:ab");
}

TEST_F(LadderRoom, WaitsForARungAsLongAsAGopLastsAndNoLonger)
{
    deliver_all(10);
    deliver(0, 11);
    wait_ms(500);
    deliver(2, 11);
    wait_ms(499);
    EXPECT_EQ(rows(), " 10:abc");
    EXPECT_EQ(room_.decide_again_ms(now_ms_), 1);
    wait_ms(1);
    EXPECT_EQ(rows(), " 11:ac");
    deliver(0, 12);
    deliver(2, 12);
    EXPECT_EQ(rows(), " 12:ac") << "what is out of step is not waited for";
}

TEST_F(LadderRoom, TakesARungBackThatIsInStepAgain)
{
    deliver_all(10);
    deliver(0, 11);
    deliver(1, 11);
    wait_ms(1000);
    deliver(0, 12);
    deliver(1, 12);
    EXPECT_EQ(rows(), " 10:abc 11:ab 12:ab");
    deliver(2, 11); // late by a second
    wait_ms(100);
    EXPECT_FALSE(room_.is_in_step(2));
    deliver(2, 12); // late by a tenth
    EXPECT_TRUE(room_.is_in_step(2));
    wait_ms(900);
    deliver(0, 13);
    deliver(1, 13);
    EXPECT_EQ(rows(), "");
    deliver(2, 13);
    EXPECT_EQ(rows(), " 13:abc");
}

TEST_F(LadderRoom, LeavesATornGopOutWhereOthersHaveItWhole)
{
    deliver_all(10);
    tear(0, 11, 0.4);
    deliver(1, 11);
    deliver(2, 11);
    EXPECT_EQ(rows(), " 10:abc 11:bc");
    deliver(1, 12);
    deliver(2, 12);
    EXPECT_EQ(rows(), " 12:bc");
    EXPECT_FALSE(room_.is_misaligned(0));
}

TEST_F(LadderRoom, TakesTornGopsWhereThereIsNothingElse)
{
    deliver_all(10);
    tear(0, 11, 0.4);
    tear(1, 11, 0.6);
    tear(2, 11, 0.5);
    EXPECT_EQ(rows(), " 10:abc 11:abc");
}

TEST_F(LadderRoom, ARungThatJumpsAloneDoesNotTakeTheOthersAlong)
{
    deliver_all(10);
    deliver(0, 710);
    EXPECT_EQ(rows(), " 10:abc");
    deliver(1, 11);
    deliver(2, 11);
    EXPECT_EQ(rows(), " 11:bc");
    deliver(0, 711);
    deliver(1, 12);
    deliver(2, 12);
    EXPECT_EQ(rows(), " 12:bc");
}

TEST_F(LadderRoom, GoesAlongWithAJumpOfAll)
{
    deliver_all(100);
    deliver_all(710);
    deliver_all(690); // back, too
    deliver_all(691);
    EXPECT_EQ(rows(), " 100:abc 710:abc 690:abc 691:abc");
}

TEST_F(LadderRoom, GoesOnOverAHoleAndTheWrapOfTheClock)
{
    const double wrap = static_cast<double>(pts_modulus) / second;
    deliver_all(wrap - 1.3);
    deliver_all(0.1); // four tenths are missing
    EXPECT_EQ(rows(), " 95442:abc 0:abc");
}

TEST_F(LadderRoom, EndsARowWhereAllHaveAKeyframe)
{
    deliver_all(10);
    deliver(0, 11, 0.4); // more keyframes
    deliver(1, 11);
    deliver(2, 11, 2); // and fewer
    deliver(0, 11.4, 0.6);
    deliver(0, 12);
    EXPECT_EQ(rows(), " 10:abc");
    deliver(1, 12);
    EXPECT_EQ(rows(), " 11-13:aaabbc");
}

TEST_F(LadderRoom, LeavesOutWhoseKeyframesAreElsewhere)
{
    deliver_all(10);
    deliver(2, 11.5);
    for (int second_of = 11; second_of < 15; second_of++) {
        deliver(0, second_of);
        deliver(1, second_of);
        deliver(2, second_of + 1.5);
    }
    EXPECT_EQ(rows(), " 10:abc 11:ab 12:ab 13:ab 14:ab");
    EXPECT_TRUE(room_.is_misaligned(2));
}

TEST_F(LadderRoom, BeginsThoughKeyframesAreElsewhere)
{
    deliver(0, 10);
    deliver(1, 10);
    for (int second_of = 10; second_of < 15; second_of++) {
        deliver(2, second_of + 0.5);
        deliver(0, second_of + 1);
        deliver(1, second_of + 1);
    }
    wait_ms(begin_wait_ms);
    for (int second_of = 15; second_of < 20; second_of++) {
        deliver(2, second_of + 0.5);
        deliver(0, second_of + 1);
        deliver(1, second_of + 1);
    }
    EXPECT_NE(rows().find(" 18:ab 19:ab 20:ab"), std::string::npos);
    EXPECT_TRUE(room_.is_misaligned(2));
}

TEST_F(LadderRoom, GoesOnWithARungThatWasOutWhenTheOthersFallSilent)
{
    deliver_all(10);
    deliver(1, 11);
    wait_ms(1000);
    EXPECT_EQ(rows(), " 10:abc 11:b");
    deliver(0, 12);
    wait_ms(999);
    EXPECT_EQ(rows(), "");
    wait_ms(1);
    EXPECT_EQ(rows(), " 12:a");
}

TEST_F(LadderRoom, OnAnotherClockARungDoesNotLeadUntilTheOthersAreSilent)
{
    deliver_all(10);
    deliver(1, 11);
    wait_ms(1000);
    deliver(0, 710);
    wait_ms(2999);
    EXPECT_EQ(rows(), " 10:abc 11:b");
    wait_ms(1);
    EXPECT_EQ(rows(), " 710:a");
}

// It is looked at no more while so many wait, so that something has to go.
TEST_F(LadderRoom, ARungThatIsOutOfStepKeepsNoMoreThanItsPlaces)
{
    deliver_all(10);
    deliver(0, 11);
    deliver(1, 11);
    wait_ms(1000); // the third is out of step now
    for (size_t n = 0; n < most_queued + 10; n++)
        deliver(2, 5000 + static_cast<double>(n));
    EXPECT_EQ(dropped_, 11u);
}

TEST_F(LadderRoom, GoesOnWithTheRungsThatWereInStep)
{
    room_.resume(ticks(10));
    room_.resume_in_step(0);
    room_.resume_in_step(1);
    deliver(2, 8);
    deliver(0, 10);
    EXPECT_EQ(rows(), "");
    deliver(1, 10);
    EXPECT_EQ(rows(), " 10:ab");
}
