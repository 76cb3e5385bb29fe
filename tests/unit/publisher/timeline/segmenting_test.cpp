#include "publisher/timeline/segmenting.hpp"

#include <gtest/gtest.h>

namespace
{

constexpr int64_t second = pts_ticks_per_second;

presentation listed(std::initializer_list<int64_t> seconds)
{
    presentation p;
    p.target_duration = 6;
    for (const int64_t s : seconds) {
        p.listed.push_back({.duration = s * second,
                            .files = {{.track = "main", .bytes = 1000000},
                                      {.track = "main.audio", .bytes = 250000},
                                      {.track = "low", .bytes = 500000}}});
    }
    return p;
}

} // namespace

struct joining_case {
    const char* name;
    double gop;
    double wanted;
    int64_t target;
    double segment; // what equal GOPs come to
};

TEST(Segmenting, JoinsGopsUpToWhatIsWanted)
{
    for (const joining_case& c : {
             joining_case{"three of two seconds", 2, 6, 6, 6},
             joining_case{"three that are a little short", 1.92, 6, 6, 5.76},
             joining_case{"a GOP that is the segment", 5, 6, 6, 5},
             joining_case{"two would round up to seven", 3.3, 6, 6, 3.3},
             joining_case{"two round down to six", 3.2, 6, 6, 6.4},
             joining_case{"less is wanted than is allowed", 1, 2, 6, 2},
             joining_case{"one GOP each", 1.04, 1, 2, 1.04},
         }) {
        SCOPED_TRACE(c.name);
        const auto ticks = [](double s) {
            return static_cast<int64_t>(s * second + 0.5);
        };
        const segment_limits limits{.wanted = ticks(c.wanted), .target = c.target};
        int64_t gathered = ticks(c.gop);
        while (!is_enough(limits, gathered, ticks(c.gop))) {
            ASSERT_TRUE(may_join(limits, gathered, ticks(c.gop)));
            gathered += ticks(c.gop);
        }
        EXPECT_EQ(gathered, ticks(c.segment));
        EXPECT_LE(rounded_seconds(gathered), c.target);
    }
}

TEST(Segmenting, SplitsAGopWhileItStillRoundsToTheTarget)
{
    const segment_limits limits{.wanted = 6 * second, .target = 6};
    EXPECT_EQ(rounded_seconds(longest_gop(limits) + second / 4), 6);
}

TEST(Segmenting, ReadsAGrowingFragmentInTimeForTheList)
{
    for (int64_t target = 1; target <= 60; target++) {
        const segment_limits limits{.wanted = target * pts_ticks_per_second, .target = target};
        EXPECT_LT(outgrown_ms(limits), 1400 * target);
        EXPECT_GT(outgrown_ms(limits), longest_gop(limits) / pts_ticks_per_millisecond);
    }
}

TEST(Window, KeepsItsLengthListed)
{
    EXPECT_EQ(segments_to_retire(listed({6, 6, 6, 6}), {.window = 18}, 0), 1u);
    EXPECT_EQ(segments_to_retire(listed({6, 6, 6, 5}), {.window = 18}, 0), 0u);
    EXPECT_EQ(segments_to_retire(listed({6, 6, 6, 6, 6}), {.window = 10}, 0), 2u)
        << "three target durations";
}

TEST(Window, IsShorterWhereItsBytesAreFull)
{
    // 1.75 MB each; three target durations are three segments, and are kept twice.
    const presentation p = listed({6, 6, 6, 6, 6, 6, 6, 6});
    const auto leaving = [&p](uint64_t bytes) {
        return segments_to_retire(p, {.window = 3600, .bytes = bytes}, 8 * uint64_t{1750000});
    };
    EXPECT_EQ(leaving(0), 0u);
    EXPECT_EQ(leaving(11 * 1750000), 0u);
    EXPECT_EQ(leaving(11 * 1750000 - 1), 1u);
    EXPECT_EQ(leaving(7 * 1750000), 4u);
    EXPECT_EQ(leaving(1), 5u) << "three target durations stay";
}

TEST(Availability, LastsForTheSegmentAndTheLongestPlaylist)
{
    EXPECT_EQ(availability({.duration = 6 * second, .files = {}}, 60 * second),
              66 * second + spare_availability);
}

TEST(Bandwidth, CountsWhatIsSharedAndTakesThePeakOfShortStretches)
{
    const bandwidth b = measured_bandwidth(listed({6, 2, 6, 6}), "main");
    // 1.25 MB in 2 s are too short a stretch to count alone; with the next segment they last 8 s.
    EXPECT_EQ(b.peak, 2500001u);
    EXPECT_EQ(b.average, 2000001u);
    EXPECT_EQ(measured_bandwidth(listed({6, 2, 6, 6}), "low").average, 1200001u);
    EXPECT_EQ(measured_bandwidth(listed({2}), "main").peak, 5000001u) << "all that there is";
    EXPECT_EQ(measured_bandwidth(presentation{}, "main").peak, 0u);
}
