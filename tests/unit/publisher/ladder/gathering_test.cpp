#include "publisher/ladder/gathering.hpp"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "publisher/timeline/stream_time.hpp"
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

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * second;

// A stream of GOPs of 1.04 s whose clock shows `start` at noon, as a publisher sees it that is
// there from `from` to `to`; those in between that it misses are `lost`.
class numbered
{
public:
    static constexpr int64_t gop = 93600;
    static constexpr int64_t slot = 6 * second;

    explicit numbered(int64_t start, int64_t gop_length = gop) : start_(start), length_(gop_length)
    {
    }

    void play(int64_t from, int64_t to, bool after_loss = false)
    {
        for (int64_t i = from; i < to; i++)
            gathered.add(gop_at(i, after_loss && i == from));
    }

    // Whether what comes next is so.
    [[nodiscard]] bool cuts_off(int64_t index, bool after_loss) const
    {
        return gathered.is_cut_off(gop_at(index, after_loss));
    }

    // The clock jumps by so much before the GOPs that come now.
    void jump(int64_t ticks) { start_ += ticks; }
    void change_layout() { layout_ += '\''; }

    // By so much later than the other, or on a machine whose clock is ahead.
    void see_late(int64_t ticks) { late_ = ticks; }

    gathering gathered{{.wanted = slot, .target = 8, .numbers = numbering::stream}, {"main"}};

    // "NUMBER:GOPS", with what is special about each: of those from this number on.
    [[nodiscard]] std::string segments(uint64_t from = 0) const
    {
        std::string text;
        for (const planned_segment& plan : gathered.planned) {
            if (plan.number < from)
                continue;
            text += text_of(plan);
        }
        return text;
    }

    static std::string text_of(const planned_segment& plan)
    {
        return (plan.at.discontinuity ? "D" : "") + std::string(plan.at.after_hole ? "H" : "") +
               (plan.is_misfit ? "M" : "") + std::to_string(plan.number) + ":" +
               std::to_string(plan.rungs[0].size()) + " ";
    }

private:
    [[nodiscard]] row gop_at(int64_t index, bool after_loss) const
    {
        row next = gop_row(stamp_sum(start_, index * length_), length_);
        next.after_loss = after_loss;
        source_gop& only = next.rungs[0][0].gop;
        only.arrival_ms = (noon + (index + 1) * length_ + late_) / pts_ticks_per_millisecond;
        only.what.layout = layout_;
        return next;
    }

    int64_t start_;
    int64_t length_;
    int64_t late_ = 0;
    std::string layout_ = "layout";
};

// What both publish that began at different times.
void expect_same(const numbered& one, const numbered& other)
{
    const uint64_t from =
        std::max(one.gathered.planned.front().number, other.gathered.planned.front().number);
    EXPECT_EQ(one.segments(from), other.segments(from));
    EXPECT_GT(one.segments(from).size(), 20u);
}

// What a peer tells that lists this segment, the end of which came then.
timeline behind(const planned_segment& known, int64_t arrival)
{
    timeline line;
    line.begun = true;
    line.clock = stamp_sum(known.at.clock, known.duration);
    line.arrival = arrival;
    line.stream = stream_behind(line, known.number, known.duration, numbered::slot);
    return line;
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

TEST(Gathering, JoinsAnEndThatLacksItsSoundOrLeavesItOut)
{
    gathering gathered({.wanted = 2 * second, .target = 2}, {"main"});
    const auto add_silent_end = [&gathered](int64_t start) {
        row end = gop_row(start, second / 5);
        end.after_loss = false;
        end.rungs[0][0].gop.ends_run = true;
        end.rungs[0][0].gop.what.lacks_sound = true;
        gathered.add(end);
    };
    const auto add = [&gathered](int64_t start, bool after_loss) {
        row next = gop_row(start, second);
        next.after_loss = after_loss;
        gathered.add(next);
    };
    add(0, true);
    add(second, false);
    ASSERT_EQ(gathered.planned.size(), 1u);
    add_silent_end(2 * second);
    EXPECT_TRUE(gathered.is_empty()) << "it would be a segment of its own";

    add(50 * second, true);
    add_silent_end(51 * second);
    add(90 * second, true);
    gathered.close();
    ASSERT_EQ(gathered.planned.size(), 3u);
    EXPECT_EQ(gathered.planned[1].rungs[0].size(), 2u);
    EXPECT_TRUE(gathered.planned[1].at.discontinuity);
    EXPECT_TRUE(gathered.planned[2].at.discontinuity);
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
    EXPECT_EQ(gathered.splices_left_out(), 0u);
}

TEST(NumbersOfTheStream, AreTheSameWhereverAPublisherBegins)
{
    for (const int64_t start : {int64_t{0}, 12345 * second, pts_modulus - 60 * second}) {
        for (const int64_t length : {numbered::gop, int64_t{45045}, int64_t{96096}}) {
            SCOPED_TRACE(length);
            numbered first(start, length);
            first.play(0, 200);
            for (const int64_t begin : {1, 3, 17, 61}) {
                SCOPED_TRACE(begin);
                numbered later(start, length);
                later.see_late(begin * 100 * second);
                later.play(begin, 200);
                expect_same(first, later);
            }
        }
    }
}

TEST(NumbersOfTheStream, AreOfSlotsAndFollowOneAnotherOverTheWrapOfTheClock)
{
    numbered run(pts_modulus - 60 * second);
    run.play(0, 200);
    const auto& planned = run.gathered.planned;
    const auto first = static_cast<int64_t>(planned.front().number);
    EXPECT_EQ(first, stream_time(planned.front().at.clock, noon) / numbered::slot);
    for (size_t i = 0; i < planned.size(); i++) {
        EXPECT_EQ(planned[i].number, planned.front().number + i);
        EXPECT_LE(rounded_seconds(planned[i].duration), 8);
        EXPECT_FALSE(planned[i].at.discontinuity);
        EXPECT_FALSE(planned[i].is_misfit);
    }
    EXPECT_GT(planned.size(), 30u);
}

// The first slot was there before the publisher was, as far as it can tell.
TEST(NumbersOfTheStream, BeginWithAWholeSlot)
{
    numbered run(0);
    run.play(0, 20);
    EXPECT_EQ(run.gathered.planned.front().rungs[0].size(), 6u);
    const planned_segment& first = run.gathered.planned.front();
    EXPECT_EQ(static_cast<uint64_t>(first.at.stream / numbered::slot), first.number);
    EXPECT_LT(first.at.stream % numbered::slot, numbered::gop);
}

TEST(NumbersOfTheStream, AreLeftOutWhereOnlyThisPublisherMissedSomething)
{
    numbered whole(0);
    whole.play(0, 200);
    numbered holed(0);
    holed.play(0, 50);
    holed.play(80, 200, true);
    const auto hole = std::find_if(holed.gathered.planned.begin(), holed.gathered.planned.end(),
                                   [](const planned_segment& plan) { return plan.at.after_hole; });
    ASSERT_NE(hole, holed.gathered.planned.end());
    EXPECT_GT(hole->number, (hole - 1)->number + 3);
    EXPECT_FALSE(hole->at.discontinuity);
    EXPECT_EQ(holed.segments(hole->number + 1), whole.segments(hole->number + 1));
}

// The number of each is that of a whole one in who missed nothing.
TEST(NumbersOfTheStream, AreKnownToBeOfIncompleteSegmentsAroundAHole)
{
    for (const int64_t lost : {1, 2, 30}) {
        SCOPED_TRACE(lost);
        numbered whole(0);
        whole.play(0, 200);
        numbered holed(0);
        holed.play(0, 50);
        holed.play(50 + lost, 200, true);
        std::vector<uint64_t> incomplete;
        for (const planned_segment& plan : holed.gathered.planned) {
            if (plan.is_incomplete)
                incomplete.push_back(plan.number);
            else
                EXPECT_NE(whole.segments().find(holed.text_of(plan)), std::string::npos);
        }
        EXPECT_GE(incomplete.size(), 1u);
        EXPECT_LE(incomplete.size(), 2u);
    }
}

TEST(NumbersOfTheStream, GoOnBehindAJumpOfTheClockForAllWhoSeeIt)
{
    for (const int64_t jump : {700 * second, -100 * second, -5000 * second, 7 * second}) {
        SCOPED_TRACE(jump / second);
        numbered first(12345 * second);
        numbered later(12345 * second);
        first.play(0, 100);
        later.play(40, 100);
        later.see_late(second * 2 / 3);
        for (numbered* one : {&first, &later}) {
            one->jump(jump);
            one->play(100, 200);
        }
        expect_same(first, later);
        const auto& planned = first.gathered.planned;
        EXPECT_EQ(planned.back().at.date, later.gathered.planned.back().at.date);
        EXPECT_NE(first.segments().find('D'), std::string::npos);
        for (size_t i = 1; i < planned.size(); i++)
            EXPECT_EQ(planned[i].number, planned[i - 1].number + 1);
    }
}

// With the number of one segment, which a peer lists, the stream tells all that come.
TEST(NumbersOfTheStream, BehindAJumpAreToldByOneSegmentOfAPeer)
{
    numbered first(12345 * second);
    first.play(0, 100);
    first.jump(700 * second);
    first.play(100, 200);
    const auto& known = *(first.gathered.planned.end() - 5);
    const timeline line = behind(known, noon + 180 * numbered::gop);
    numbered taken(12345 * second + 700 * second);
    taken.gathered.resume(line, {}, known.number + 1);
    const int64_t next = stamp_distance(stamp_sum(12345 * second, 700 * second), line.clock);
    taken.play(next / numbered::gop, 200, true);
    EXPECT_EQ(taken.segments(), first.segments(known.number + 1));
}

// It was cut off while the clock jumped, and what it finds then begins before or behind the place.
TEST(NumbersOfTheStream, BehindAJumpThatOneMissedAreTakenFromAPeer)
{
    numbered first(12345 * second);
    first.play(0, 100);
    first.jump(700 * second);
    first.play(100, 200);
    const auto jumped = std::find_if(first.gathered.planned.begin(), first.gathered.planned.end(),
                                     [](const auto& plan) { return plan.at.discontinuity; });
    ASSERT_NE(jumped, first.gathered.planned.end());
    for (const int64_t back : {100, 102, 120}) {
        SCOPED_TRACE(back);
        numbered later(12345 * second);
        later.play(0, 60);
        later.jump(700 * second);
        EXPECT_FALSE(later.cuts_off(60, false)) << "it sees the jump itself";
        ASSERT_TRUE(later.cuts_off(back, true));
        later.gathered.close();
        later.gathered.take_up(behind(*jumped, noon + 106 * numbered::gop), jumped->number + 1);
        EXPECT_FALSE(later.cuts_off(back, true)) << "it has been asked for";
        const size_t before = later.gathered.planned.size();
        later.play(back, 200, true);
        ASSERT_GT(later.gathered.planned.size(), before + 2);
        const uint64_t whole = later.gathered.planned[before + 1].number;
        EXPECT_EQ(later.segments(whole), first.segments(whole));
        const bool has_all = back < 106;
        EXPECT_EQ(later.gathered.planned[before].number == jumped->number + 1, has_all);
    }
}

// Whenever that is: the clock began anew meanwhile.
TEST(NumbersOfTheStream, GoOnBehindTheLastSegmentByWhenItCame)
{
    numbered run(pts_modulus / 2 - 3600 * second);
    run.play(0, 60);
    const planned_segment& last = run.gathered.planned.back();
    EXPECT_EQ(stream_behind(last.behind, last.number, last.duration, numbered::slot) /
                  numbered::slot,
              static_cast<int64_t>(last.number) + 1);
    EXPECT_EQ(stream_behind(last.behind, last.number, last.duration, numbered::slot),
              last.behind.stream);
}

TEST(NumbersOfTheStream, GoOnWithAnotherLayoutInTheMiddleOfASlot)
{
    numbered first(0);
    numbered later(0);
    first.play(0, 100);
    later.play(30, 100);
    for (numbered* one : {&first, &later}) {
        one->change_layout();
        one->play(100, 200);
    }
    expect_same(first, later);
    EXPECT_NE(first.segments().find('D'), std::string::npos);
    EXPECT_EQ(first.segments().find('M'), std::string::npos);
}

TEST(NumbersOfTheStream, LeaveNoneOutWhereGopsAreLongerThanASlot)
{
    numbered run(0, 7 * second);
    run.play(0, 40);
    const auto& planned = run.gathered.planned;
    for (size_t i = 1; i < planned.size(); i++)
        EXPECT_EQ(planned[i].number, planned[i - 1].number + 1);
    EXPECT_NE(run.segments().find('M'), std::string::npos) << "which is told";
}

TEST(NumbersOfTheStream, DatesAreWholeSecondsAwayFromIt)
{
    numbered run(12345 * second + 4711);
    run.play(0, 30);
    for (const planned_segment& plan : run.gathered.planned)
        EXPECT_EQ((plan.at.date - plan.at.stream) % second, 0);
}
