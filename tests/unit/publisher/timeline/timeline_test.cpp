#include "publisher/timeline/timeline.hpp"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * pts_ticks_per_second;

timed_gop gop_at(int64_t start, int64_t length = 2 * second)
{
    return {.start = start, .length = length, .arrival = noon, .mark = {}};
}

timeline begun_at(int64_t start, numbering numbers = numbering::count)
{
    timeline line;
    place_gop(line, gop_at(start), numbers);
    return line;
}

} // namespace

TEST(Timeline, BeginsWithoutADiscontinuity)
{
    timeline line;
    const placed_gop first = place_gop(line, gop_at(900000), numbering::count);
    EXPECT_FALSE(first.discontinuity);
    EXPECT_EQ(first.ticks, 900000);
    EXPECT_EQ(first.date, noon - 2 * second);
    EXPECT_EQ(line.date, noon);
}

struct step_case {
    const char* name;
    int64_t start; // of the second GOP; the first one ends at 10 s
    bool after_loss;
    bool same_layout;
    bool discontinuity;
};

TEST(Timeline, IsBrokenWhereTheStreamDoesNotGoOn)
{
    for (const step_case& c : {
             step_case{"goes on", 10 * second, false, true, false},
             step_case{"a picture is missing", 10 * second + 3600, false, true, false},
             step_case{"half a second is missing", 10 * second + second / 2, false, true, false},
             step_case{"more is missing", 10 * second + second / 2 + 1, false, true, true},
             step_case{"a jump ahead", 710 * second, false, true, true},
             step_case{"a jump back", 2 * second, false, true, true},
             step_case{"another layout", 10 * second, false, false, true},
             step_case{"a new run that goes on", 10 * second, true, true, false},
             step_case{"a new run after some pictures", 10 * second + 9000, true, true, true},
         }) {
        SCOPED_TRACE(c.name);
        timeline line = begun_at(8 * second);
        timed_gop next = gop_at(c.start);
        next.after_loss = c.after_loss;
        next.same_layout = c.same_layout;
        EXPECT_EQ(place_gop(line, next, numbering::count).discontinuity, c.discontinuity);
    }
}

TEST(Timeline, RunsOnWhereTheClockBeginsAnew)
{
    timeline line = begun_at(pts_modulus - second);
    EXPECT_EQ(line.clock, second);
    const placed_gop next = place_gop(line, gop_at(second), numbering::count);
    EXPECT_FALSE(next.discontinuity);
    EXPECT_EQ(next.clock, second);
    EXPECT_EQ(next.ticks, pts_modulus + second);
}

TEST(Timeline, DatesFollowTheClockAndNotTheArrival)
{
    timeline line = begun_at(8 * second);
    timed_gop next = gop_at(10 * second);
    next.arrival = noon + 30 * second; // a pause of the source
    EXPECT_EQ(place_gop(line, next, numbering::count).date, noon);
}

TEST(Timeline, DatesNeverFallWhenTheMachinesClockIsSetBack)
{
    timeline line = begun_at(8 * second);
    timed_gop next = gop_at(710 * second);
    next.arrival = noon - 3600 * second;
    const placed_gop placed = place_gop(line, next, numbering::count);
    EXPECT_TRUE(placed.discontinuity);
    EXPECT_EQ(placed.date, noon);
}

TEST(Timeline, TakesTheTimeOfDayFromTheStream)
{
    timeline line;
    timed_gop first = gop_at(900000);
    first.mark = {.clock = 900000 - second, .unix_ms = 1795262400000};
    EXPECT_EQ(place_gop(line, first, numbering::count).date, noon + second);
}

// It may be this publisher alone that missed it.
TEST(Timeline, OfTheStreamRunsOnOverALossThatTookAsLongOrCameLater)
{
    for (const auto& [hole, passed, discontinuity] :
         {std::tuple(20, 20, false), std::tuple(20, 45, false), std::tuple(14, 90, false),
          std::tuple(540, 600, false), std::tuple(51, 20, true), std::tuple(700, 20, true),
          std::tuple(-5, 20, true), std::tuple(3600, 3590, false)}) {
        SCOPED_TRACE(hole);
        timeline line = begun_at(8 * second, numbering::stream);
        timed_gop next = gop_at((10 + hole) * second);
        next.after_loss = true;
        next.arrival = noon + passed * second + next.length;
        const placed_gop placed = place_gop(line, next, numbering::stream);
        EXPECT_EQ(placed.discontinuity, discontinuity);
        EXPECT_EQ(placed.after_hole, !discontinuity);
    }
}

// The clock begins anew every 26.5 hours.
TEST(Timeline, OfTheStreamCountsTheTurnsOfTheClockWhileItWasAway)
{
    for (const int64_t hours : {13, 14, 20, 26, 27, 40, 100}) {
        for (const int64_t late : {0, 600}) {
            SCOPED_TRACE(std::to_string(hours) + " h, " + std::to_string(late) + " s");
            timeline line = begun_at(8 * second, numbering::stream);
            const timeline before = line;
            const int64_t away = hours * 3600 * second;
            timed_gop next = gop_at(stamp_sum(10 * second, away));
            next.after_loss = true;
            next.arrival = noon + away + next.length + late * second;
            const placed_gop placed = place_gop(line, next, numbering::stream);
            EXPECT_TRUE(placed.after_hole);
            EXPECT_EQ(placed.stream, before.stream + away);
            EXPECT_EQ(placed.date, before.date + away);
            EXPECT_EQ(placed.ticks, 10 * second + away);
        }
    }
}

TEST(Timeline, OfTheStreamIsBrokenByAHoleThatTheStreamHasItself)
{
    timeline line = begun_at(8 * second, numbering::stream);
    timed_gop next = gop_at(30 * second);
    next.arrival = noon + 22 * second;
    EXPECT_TRUE(place_gop(line, next, numbering::stream).discontinuity);
}

// Two machines see it at different times. By how much it was away, they tell by those.
TEST(Timeline, OfTheStreamKeepsItsDateOverAJumpWithoutALoss)
{
    for (const int64_t passed : {0, 1, 30}) {
        SCOPED_TRACE(passed);
        const timeline before = begun_at(8 * second, numbering::stream);
        timed_gop next = gop_at(710 * second);
        next.arrival = before.date + next.length + passed * second;
        timeline line = before;
        EXPECT_EQ(place_gop(line, next, numbering::stream).date, before.date);
        next.after_loss = true;
        line = before;
        const placed_gop behind_loss = place_gop(line, next, numbering::stream);
        EXPECT_TRUE(behind_loss.discontinuity);
        EXPECT_EQ(behind_loss.date, before.date + passed * second);
    }
}

TEST(Timeline, HasAPlaceThatGopsAreFromBefore)
{
    const int64_t clock = 5 * second;
    EXPECT_TRUE(is_from_before(4 * second, clock));
    EXPECT_TRUE(is_from_before(clock - same_place - 1, clock));
    EXPECT_FALSE(is_from_before(clock - same_place, clock));
    EXPECT_FALSE(is_from_before(6 * second, clock));
    EXPECT_TRUE(is_from_before(pts_modulus - second, clock));
    EXPECT_FALSE(is_from_before(stamp_sum(clock, -600 * second), clock)) << "of another clock";
}

TEST(GopLength, IsToldByTheNextOneWhereThatGoesOn)
{
    EXPECT_EQ(length_until(0, 180000, 183600), 183600);
    EXPECT_EQ(length_until(0, 180000, 63 * second), 180000);
    EXPECT_EQ(length_until(2 * second, 180000, second), 180000);
    EXPECT_EQ(length_until(pts_modulus - second, 180000, second), 180000);
}
