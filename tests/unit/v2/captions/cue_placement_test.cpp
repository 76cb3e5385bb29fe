#include "v2/captions/cue_placement.hpp"

#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/captured_stderr.hpp"

namespace
{

constexpr int64_t second = 90000; // ticks
constexpr int64_t clock_ticks = int64_t{1} << 33;
constexpr int64_t longest_step = 600 * second - 1;
constexpr int64_t longest_ms = int64_t{1} << 40;
constexpr int64_t int64_max = std::numeric_limits<int64_t>::max();
constexpr int64_t int64_min = std::numeric_limits<int64_t>::min();

constexpr uint64_t ms(int64_t milliseconds)
{
    return static_cast<uint64_t>(milliseconds * 90);
}

// A cue of two seconds at 11 s, with a known end, in a fragment that begins at 10 s and whose
// window ends at 17 s; no cue before it.
struct placement_case {
    std::string_view name = {};
    uint64_t at = ms(11000); // its time stamp
    int64_t start = 0;
    int64_t end = 2000;
    int64_t now = 0;
    std::optional<int64_t> next = {}; // start of the next cue
    int64_t ref_pts = 10 * second;
    int64_t window_end = 17 * second;
    int64_t last_end = -1;              // milliseconds, of the cue before
    std::optional<cue_times> want = {}; // none: the cue waits
    std::string printed = {};
};

vtt_cue cue_of(uint64_t timestamp, int64_t start, int64_t end, int64_t now)
{
    vtt_cue cue;
    cue.mpeg_timestamp = timestamp;
    cue.start = start;
    cue.end = end;
    cue.now = now;
    return cue;
}

std::string text_of(const std::optional<cue_times>& times)
{
    return times ? std::to_string(times->start) + " to " + std::to_string(times->end) : "waits";
}

void expect_placed(const placement_case& c)
{
    SCOPED_TRACE(c.name);
    const vtt_cue cue = cue_of(c.at, c.start, c.end, c.now);
    const vtt_cue next = cue_of(0, c.next.value_or(0), 0, 0);
    int64_t last_end_ms = c.last_end;
    std::optional<cue_times> got;
    const std::string printed = stderr_of([&] {
        got = place_cue(cue, c.next ? &next : nullptr, c.ref_pts, c.window_end, last_end_ms);
    });

    EXPECT_EQ(text_of(got), text_of(c.want));
    EXPECT_EQ(last_end_ms, c.want ? c.want->end : c.last_end);
    EXPECT_EQ(printed, c.printed);
}

TEST(CuePlacement, PutsACueAtItsTimeStampForItsLength)
{
    const placement_case cases[] = {
        {.name = "a plain cue", .want = {{11000, 13000}}},
        {.name = "part of a millisecond is dropped",
         .at = ms(11000) + 89,
         .want = {{11000, 13000}}},
        {.name = "only the difference of start and end counts",
         .start = 700000,
         .end = 702000,
         .want = {{11000, 13000}}},
        {.name = "start and end below zero",
         .start = -5000,
         .end = -3000,
         .want = {{11000, 13000}}},
        {.name = "bits above the 33rd are dropped",
         .at = ms(11000) + 0xFFFFFFFE00000000,
         .want = {{11000, 13000}}},
        {.name = "before the fragment's origin", .at = ms(9000), .want = {{9000, 11000}}},
        {.name = "behind the window's end", .at = ms(18000), .want = {{18000, 20000}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, AddsOneWrapOfTheClockWhenThatBringsTheCueNear)
{
    constexpr int64_t late = clock_ticks - 90 * 400; // 400 ms before the wrap
    constexpr int64_t late_ms = late / 90;
    const placement_case cases[] = {
        {.name = "before the wrap",
         .at = static_cast<uint64_t>(late),
         .ref_pts = late,
         .window_end = late + 7 * second,
         .want = {{late_ms, late_ms + 2000}}},
        {.name = "at the wrap",
         .at = 0,
         .ref_pts = late,
         .window_end = late + 7 * second,
         .want = {{clock_ticks / 90, clock_ticks / 90 + 2000}}},
        {.name = "behind the wrap",
         .at = ms(600),
         .ref_pts = late,
         .window_end = late + 7 * second,
         .want = {{late_ms + 1000, late_ms + 3000}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, ReportsATimeStampTenMinutesAwayAndUsesTheOrigin)
{
    constexpr int64_t middle = 1000 * second;
    constexpr int64_t late = clock_ticks - 100 * second;
    const placement_case cases[] = {
        {.name = "ten minutes later less a tick",
         .at = static_cast<uint64_t>(middle + longest_step),
         .ref_pts = middle,
         .want = {{1599999, 1601999}}},
        {.name = "ten minutes later",
         .at = static_cast<uint64_t>(middle + longest_step + 1),
         .ref_pts = middle,
         .want = {{1000000, 1002000}},
         .printed = "Timestamp mismatch 8733934592 90000000\n"},
        {.name = "ten minutes earlier less a tick",
         .at = static_cast<uint64_t>(middle - longest_step),
         .ref_pts = middle,
         .want = {{400000, 402000}}},
        {.name = "ten minutes earlier",
         .at = static_cast<uint64_t>(middle - longest_step - 1),
         .ref_pts = middle,
         .want = {{1000000, 1002000}},
         .printed = "Timestamp mismatch 8625934592 90000000\n"},
        {.name = "ten minutes less a tick, over the wrap",
         .at = static_cast<uint64_t>(late + longest_step - clock_ticks),
         .ref_pts = late,
         .want = {{95943717, 95945717}}},
        {.name = "ten minutes, over the wrap",
         .at = static_cast<uint64_t>(late + longest_step + 1 - clock_ticks),
         .ref_pts = late,
         .want = {{late / 90, late / 90 + 2000}},
         .printed = "Timestamp mismatch 8634934592 8580934592\n"},
        {.name = "no wrap is taken away: late cue, early origin",
         .at = static_cast<uint64_t>(clock_ticks - 1),
         .ref_pts = second,
         .want = {{1000, 3000}},
         .printed = "Timestamp mismatch 17179869183 90000\n"},
        {.name = "an open cue is reported each time it has to wait",
         .at = static_cast<uint64_t>(middle + longest_step + 1),
         .now = -1,
         .ref_pts = middle,
         .window_end = middle + 7 * second,
         .want = {},
         .printed = "Timestamp mismatch 8733934592 90000000\n"},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, ClosesGapsBelow150MillisecondsAndMovesTheWholeCue)
{
    const placement_case cases[] = {
        {.name = "no gap", .last_end = 11000, .want = {{11000, 13000}}},
        {.name = "1 ms", .at = ms(11001), .last_end = 11000, .want = {{11000, 13000}}},
        {.name = "100 ms", .at = ms(11100), .last_end = 11000, .want = {{11000, 13000}}},
        {.name = "149 ms", .at = ms(11149), .last_end = 11000, .want = {{11000, 13000}}},
        {.name = "149 ms and the rest of a millisecond",
         .at = ms(11149) + 89,
         .last_end = 11000,
         .want = {{11000, 13000}}},
        {.name = "150 ms", .at = ms(11150), .last_end = 11000, .want = {{11150, 13150}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, PushesAnOverlappingCueBackAndTakesHalfOfTheOverlapFromItsEnd)
{
    const placement_case cases[] = {
        {.name = "1 ms: half of it is nothing",
         .at = ms(11999),
         .last_end = 12000,
         .want = {{12000, 14000}}},
        {.name = "2 ms", .at = ms(11998), .last_end = 12000, .want = {{12000, 13999}}},
        {.name = "3 ms", .at = ms(11997), .last_end = 12000, .want = {{12000, 13999}}},
        {.name = "1000 ms", .last_end = 12000, .want = {{12000, 13500}}},
        {.name = "half of the overlap is all but 33 ms",
         .last_end = 11000 + 2 * 1967,
         .want = {{14934, 14967}}},
        {.name = "half of the overlap is all but 32 ms",
         .last_end = 11000 + 2 * 1968,
         .want = {{14936, 14969}}},
        {.name = "more than the cue", .last_end = 20000, .want = {{20000, 20033}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, MakesNoCueShorterThan33Milliseconds)
{
    const placement_case cases[] = {
        {.name = "34 ms", .end = 34, .want = {{11000, 11034}}},
        {.name = "33 ms", .end = 33, .want = {{11000, 11033}}},
        {.name = "32 ms", .end = 32, .want = {{11000, 11033}}},
        {.name = "no length", .end = 0, .want = {{11000, 11033}}},
        {.name = "ends before it starts", .end = -2000, .want = {{11000, 11033}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, StartsNoCueBelowZero)
{
    // With no cue before it, a cue counts as one behind a cue that ended 1 ms before the clock's
    // zero: the gap is closed, but not beyond zero.
    const placement_case cases[] = {
        {.name = "at zero", .at = 0, .ref_pts = 0, .want = {{0, 2000}}},
        {.name = "148 ms", .at = ms(148), .ref_pts = 0, .want = {{0, 2000}}},
        {.name = "149 ms", .at = ms(149), .ref_pts = 0, .want = {{149, 2149}}},
        {.name = "the cue before ended at zero",
         .at = ms(149),
         .ref_pts = 0,
         .last_end = 0,
         .want = {{0, 2000}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, EndsAnOpenCueWhereTheNextOneStartsAndKeepsTheLastOneWaiting)
{
    const placement_case cases[] = {
        {.name = "the end is known at now 0", .now = 0, .next = 500, .want = {{11000, 13000}}},
        {.name = "the end is known at any later now",
         .now = int64_max,
         .next = 500,
         .want = {{11000, 13000}}},
        {.name = "open, nothing behind it", .now = -1, .want = {}},
        {.name = "open at the least now, nothing behind it", .now = int64_min, .want = {}},
        {.name = "open, waiting behind an earlier cue", .now = -1, .last_end = 12000, .want = {}},
        {.name = "the next starts sooner", .now = -1, .next = 500, .want = {{11000, 11500}}},
        {.name = "the next starts at its end", .now = -1, .next = 2000, .want = {{11000, 13000}}},
        {.name = "the next starts behind its end",
         .now = -1,
         .next = 2001,
         .want = {{11000, 13000}}},
        {.name = "the next starts with it", .now = -1, .next = 0, .want = {{11000, 11033}}},
        {.name = "the next starts before it", .now = -1, .next = -500, .want = {{11000, 11033}}},
        {.name = "it ends before it starts",
         .end = -2000,
         .now = -1,
         .next = 500,
         .want = {{11000, 11033}}},
        {.name = "the gap before it is closed",
         .at = ms(11100),
         .now = -1,
         .next = 500,
         .last_end = 11000,
         .want = {{11000, 11500}}},
        {.name = "it overlaps the cue before",
         .now = -1,
         .next = 500,
         .last_end = 11400,
         .want = {{11400, 11700}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, TakesAnOpenCueAtOrPastTheWindowsEndAtItsLength)
{
    constexpr int64_t late = clock_ticks - second;
    const placement_case cases[] = {
        {.name = "one tick before the end, nothing behind it",
         .at = 17 * second - 1,
         .now = -1,
         .want = {}},
        {.name = "one tick before the end, one behind it",
         .at = 17 * second - 1,
         .now = -1,
         .next = 500,
         .want = {{16999, 17499}}},
        {.name = "on the end, nothing behind it",
         .at = 17 * second,
         .now = -1,
         .want = {{17000, 19000}}},
        {.name = "on the end, one behind it",
         .at = 17 * second,
         .now = -1,
         .next = 500,
         .want = {{17000, 19000}}},
        {.name = "past the end", .at = 18 * second, .now = -1, .want = {{18000, 20000}}},
        {.name = "over the wrap, one tick before the end",
         .at = 6 * second - 1,
         .now = -1,
         .ref_pts = late,
         .window_end = late + 7 * second,
         .want = {}},
        {.name = "over the wrap, on the end",
         .at = 6 * second,
         .now = -1,
         .ref_pts = late,
         .window_end = late + 7 * second,
         .want = {{95449717, 95451717}}},
        {.name = "a mismatch counts as the origin, here past the end",
         .at = 2000 * second,
         .now = -1,
         .window_end = 10 * second,
         .want = {{10000, 12000}},
         .printed = "Timestamp mismatch 8769934592 900000\n"},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

TEST(CuePlacement, KeepsTimesBeyondSenseWithinBounds)
{
    const placement_case cases[] = {
        {.name = "as long as can be", .end = longest_ms, .want = {{11000, 11000 + longest_ms}}},
        {.name = "1 ms less", .end = longest_ms - 1, .want = {{11000, 11000 + longest_ms - 1}}},
        {.name = "1 ms more", .end = longest_ms + 1, .want = {{11000, 11000 + longest_ms}}},
        {.name = "from the least to the greatest",
         .start = int64_min,
         .end = int64_max,
         .want = {{11000, 11000 + longest_ms}}},
        {.name = "from the greatest to the least",
         .start = int64_max,
         .end = int64_min,
         .want = {{11000, 11033}}},
        {.name = "from -1 to the greatest",
         .start = -1,
         .end = int64_max,
         .want = {{11000, 11000 + longest_ms}}},
        {.name = "from the least to 0",
         .start = int64_min,
         .end = 0,
         .want = {{11000, 11000 + longest_ms}}},
        {.name = "both the least", .start = int64_min, .end = int64_min, .want = {{11000, 11033}}},
        {.name = "the next starts at the greatest",
         .start = int64_min,
         .end = int64_max,
         .now = -1,
         .next = int64_max,
         .want = {{11000, 11000 + longest_ms}}},
        {.name = "the next starts at the greatest, the cue is short",
         .start = -1,
         .end = 1999,
         .now = -1,
         .next = int64_max,
         .want = {{11000, 13000}}},
        {.name = "the next starts at the least",
         .now = -1,
         .next = int64_min,
         .want = {{11000, 11033}}},
        {.name = "the next starts at the least, from the greatest",
         .start = int64_max,
         .end = int64_max,
         .now = -1,
         .next = int64_min,
         .want = {{11000, 11033}}},
        {.name = "all bits of the time stamp",
         .at = std::numeric_limits<uint64_t>::max(),
         .ref_pts = clock_ticks - second,
         .want = {{95443717, 95445717}}},
    };
    for (const placement_case& c : cases)
        expect_placed(c);
}

// Places cues with known ends one behind the other.
class cue_chain
{
public:
    cue_times add(int64_t at, int64_t length)
    {
        const vtt_cue cue = cue_of(ms(at), 0, length, 0);
        const auto times = place_cue(cue, nullptr, 10 * second, 17 * second, last_end_ms_);
        EXPECT_TRUE(times.has_value());
        return times.value_or(cue_times{.start = -1, .end = -1});
    }

private:
    int64_t last_end_ms_ = -1;
};

void expect_chain(std::string_view name, const std::vector<cue_times>& cues, // at and length
                  const std::vector<cue_times>& want)
{
    SCOPED_TRACE(name);
    ASSERT_EQ(cues.size(), want.size());
    cue_chain chain;
    for (size_t i = 0; i < cues.size(); i++)
        EXPECT_EQ(text_of(chain.add(cues[i].start, cues[i].end)), text_of(want[i])) << "cue " << i;
}

TEST(CuePlacement, PlacesEachCueOfAChainBehindTheOneBefore)
{
    expect_chain("three at the same time", {{11000, 2000}, {11000, 2000}, {11000, 2000}},
                 {{11000, 13000}, {13000, 14000}, {14000, 14500}});
    expect_chain("100 ms apart: each pulled to the end of the one before",
                 {{11000, 1000}, {12100, 1000}, {13100, 1000}},
                 {{11000, 12000}, {12000, 13000}, {13000, 14000}});
    expect_chain("an overlap, then room again", {{11000, 2000}, {12000, 1000}, {14000, 1000}},
                 {{11000, 13000}, {13000, 13500}, {14000, 15000}});
    expect_chain("time going back", {{12000, 1000}, {11000, 1000}, {10000, 4000}},
                 {{12000, 13000}, {13000, 13033}, {13033, 15517}});
}

TEST(CuePlacement, KeepsAChainOfTheLongestCuesWithinTwiceTheirLength)
{
    cue_chain chain;
    int64_t last_end = 0;
    for (int i = 0; i < 1000; i++) {
        const cue_times times = chain.add(11000, int64_max);
        ASSERT_GE(times.start, last_end);
        ASSERT_GE(times.end, times.start + 33);
        last_end = times.end;
    }
    // The shortest length of 33 ms is still added to each once the bound is reached.
    EXPECT_GT(last_end, longest_ms);
    EXPECT_LT(last_end, 2 * longest_ms + 11000 + 1000 * 33);
}

} // namespace
