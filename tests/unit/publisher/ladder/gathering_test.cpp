#include "publisher/ladder/gathering.hpp"

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

row gop_row(int64_t start, int64_t length)
{
    chosen_gop chosen;
    chosen.gop.what.start = start;
    chosen.gop.length = length;
    row of{.start = start, .length = length, .after_loss = true, .rungs = {}};
    of.rungs.emplace_back().push_back(std::move(chosen));
    return of;
}

} // namespace

// Each hole is so short that what follows goes on.
TEST(Gathering, CountsHolesBetweenGopsAsPartsOfTheSegment)
{
    constexpr int64_t length = 97000;
    constexpr int64_t hole = 4400;
    gathering gathered({.wanted = 6 * pts_ticks_per_second, .target = 6}, {"main"});
    for (int64_t i = 0; i < 24; i++)
        gathered.add(gop_row(900000 + i * (length + hole), length));
    ASSERT_GE(gathered.planned.size(), 3u);
    for (const planned_segment& plan : gathered.planned) {
        EXPECT_LE(rounded_seconds(plan.duration), 6);
        EXPECT_FALSE(plan.at.discontinuity);
    }
}

TEST(Gathering, KnowsWhichSourceEachGopIsFrom)
{
    gathering gathered({.wanted = 2 * pts_ticks_per_second, .target = 2}, {"main"});
    for (size_t i = 0; i < 4; i++) {
        row next =
            gop_row(900000 + static_cast<int64_t>(i) * pts_ticks_per_second, pts_ticks_per_second);
        next.rungs[0][0].source = i;
        gathered.add(std::move(next));
    }
    ASSERT_EQ(gathered.planned.size(), 2u);
    using sources_of_rungs = std::vector<std::vector<size_t>>;
    EXPECT_EQ(gathered.planned[0].sources, (sources_of_rungs{{0, 1}}));
    EXPECT_EQ(gathered.planned[1].sources, (sources_of_rungs{{2, 3}}));
}

// As a section of the new clock that comes before the first picture of it.
TEST(Gathering, TakesNoSpliceThatIsHoursAway)
{
    gathering gathered({.wanted = 6 * pts_ticks_per_second, .target = 6}, {"main"});
    row with_splices = gop_row(900000, pts_ticks_per_second);
    const auto told = [](int64_t seconds) {
        return splice_cue{.kind = splice_kind::out,
                          .event = "insert-" + std::to_string(seconds),
                          .time = 900000 + seconds * pts_ticks_per_second,
                          .section = "0xFC"};
    };
    with_splices.rungs[0][0].gop.what.splices = {told(30), told(36000)};
    gathered.add(std::move(with_splices));
    ASSERT_EQ(gathered.line().ranges.size(), 1u);
    EXPECT_EQ(gathered.line().ranges[0].event, "insert-30");
}
