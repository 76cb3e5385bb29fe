#include "publisher/text/date_range.hpp"

#include <string>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * second; // 2026-11-21 12:00:00 UTC
constexpr int64_t hour = 3600 * second;

splice_cue told(splice_kind kind, const char* section, int64_t duration = 0)
{
    return {.kind = kind, .event = "insert-7", .duration = duration, .section = section};
}

splice_cue at_once(splice_kind kind)
{
    splice_cue cue = told(kind, "0x0A");
    cue.immediate = true;
    return cue;
}

// On a clock that was 0 at noon, unless it has leapt since.
void take_splice_at(std::vector<date_range>& ranges, splice_cue cue, int64_t date, int64_t now,
                    int64_t leap = 0)
{
    if (!cue.immediate)
        cue.time = (date - leap - noon) & (pts_modulus - 1);
    EXPECT_TRUE(take_splice(ranges, cue, date, now));
}

// Some seconds before the splice, as they are sent.
void take(std::vector<date_range>& ranges, const splice_cue& cue, int64_t date)
{
    take_splice_at(ranges, cue, date, date - 5 * second);
}

// At once.
void take_now(std::vector<date_range>& ranges, splice_kind kind, int64_t date)
{
    take_splice_at(ranges, at_once(kind), date, date);
}

// Of ANSI/SCTE 35, 14.
constexpr const char* insert = "0xFC302F000000000000FFFFF014054800008F7FEFFE7369C02EFE0052CCF500000"
                               "000000A0008435545490000013562DBA30A";

} // namespace

TEST(DateRanges, TellAPairOfSplices)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x01", 30 * second), noon);
    const std::string out = "#EXT-X-DATERANGE:ID=\"insert-7-1795262400000\","
                            "START-DATE=\"2026-11-21T12:00:00.000Z\",PLANNED-DURATION=30.000,"
                            "SCTE35-OUT=0x01\n";
    EXPECT_EQ(date_ranges_text(ranges), out);
    take(ranges, told(splice_kind::in, "0x02"), noon + 29 * second);
    EXPECT_EQ(date_ranges_text(ranges), out + "#EXT-X-DATERANGE:ID=\"insert-7-1795262400000\","
                                              "START-DATE=\"2026-11-21T12:00:00.000Z\","
                                              "DURATION=29.000,SCTE35-IN=0x02\n");
}

TEST(DateRanges, TellWhatIsNoPair)
{
    std::vector<date_range> ranges;
    splice_cue command = told(splice_kind::command, "0x01");
    command.event = "segmentation-9";
    command.type = 0x10;
    take(ranges, command, noon);
    take(ranges, told(splice_kind::in, "0x02"), noon);
    EXPECT_EQ(date_ranges_text(ranges), "#EXT-X-DATERANGE:ID=\"segmentation-9-10-1795262400000\","
                                        "START-DATE=\"2026-11-21T12:00:00.000Z\",SCTE35-CMD=0x01\n"
                                        "#EXT-X-DATERANGE:ID=\"insert-7-1795262400000\","
                                        "START-DATE=\"2026-11-21T12:00:00.000Z\",SCTE35-IN=0x02\n");
}

TEST(DateRanges, AreToldOnceHoweverOftenASectionComes)
{
    std::vector<date_range> ranges;
    for (int i = 0; i < 3; i++)
        take(ranges, told(splice_kind::out, "0x01"), noon + i);
    for (int i = 0; i < 3; i++)
        take(ranges, told(splice_kind::in, "0x02"), noon + 9 * second + i);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, noon);
    EXPECT_EQ(ranges[0].end, noon + 9 * second);
    take(ranges, told(splice_kind::out, "0x01"), noon + 60 * second);
    ASSERT_EQ(ranges.size(), 2u) << "its number is used again";
    EXPECT_NE(ranges[0].id, ranges[1].id);
}

TEST(DateRanges, OfSplicesAtOnceBeginWithTheFirst)
{
    std::vector<date_range> ranges;
    for (int i = 0; i < 3; i++)
        take_now(ranges, splice_kind::out, noon + i * second);
    for (int i = 9; i < 12; i++)
        take_now(ranges, splice_kind::in, noon + i * second);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, noon);
    EXPECT_EQ(ranges[0].end, noon + 9 * second);
}

// Some equipment numbers all its breaks alike.
TEST(DateRanges, OfSplicesAtOnceAreTheirOwnOnceTheProgrammeWentOn)
{
    std::vector<date_range> ranges;
    take_now(ranges, splice_kind::out, noon);
    take_now(ranges, splice_kind::in, noon + 5 * second);
    take_now(ranges, splice_kind::out, noon + 6 * second);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_NE(ranges[0].id, ranges[1].id);
    take_now(ranges, splice_kind::out, noon + 15 * second);
    EXPECT_EQ(ranges.size(), 2u) << "it is told again";
    take_now(ranges, splice_kind::out, noon + hour);
    EXPECT_EQ(ranges.size(), 3u) << "nothing was heard of it since, the way back was missed";
    take_now(ranges, splice_kind::in, noon + hour + second);
    EXPECT_EQ(ranges[1].end, -1);
    EXPECT_EQ(ranges[2].end, noon + hour + second);
}

TEST(DateRanges, OfABreakAtOnceTakeWhatIsToldUntilItsPlannedEndForTheSame)
{
    std::vector<date_range> ranges;
    splice_cue cue = at_once(splice_kind::out);
    cue.duration = 60 * second;
    for (int i = 0; i < 5; i++)
        take_splice_at(ranges, cue, noon + 15 * i * second, noon + 15 * i * second);
    EXPECT_EQ(ranges.size(), 1u);
}

TEST(DateRanges, OfSeveralSegmentationsOfOneEventAreTheirOwn)
{
    std::vector<date_range> ranges;
    splice_cue cue = told(splice_kind::out, "0x01");
    for (const uint8_t type : {uint8_t{0x22}, uint8_t{0x34}}) {
        cue.type = type;
        take(ranges, cue, noon);
    }
    cue.kind = splice_kind::in;
    take(ranges, cue, noon + second);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[0].end, -1);
    EXPECT_EQ(ranges[1].end, noon + second);
}

TEST(DateRanges, EndByThemselvesWhereThatIsTold)
{
    std::vector<date_range> ranges;
    splice_cue cue = told(splice_kind::out, "0x01", 30 * second);
    take(ranges, cue, noon - hour);
    cue.returns = true;
    take(ranges, cue, noon);
    end_returned(ranges, noon + 30 * second - 1);
    EXPECT_EQ(ranges[1].end, -1);
    end_returned(ranges, noon + 30 * second);
    EXPECT_EQ(ranges[0].end, -1);
    EXPECT_EQ(ranges[1].end, noon + 30 * second);
    EXPECT_TRUE(date_ranges_text(ranges).ends_with("DURATION=30.000\n"));

    take(ranges, cue, noon + hour);
    take(ranges, told(splice_kind::in, "0x02"), noon + hour + 20 * second);
    end_returned(ranges, noon + 2 * hour);
    EXPECT_EQ(ranges[2].end, noon + hour + 20 * second) << "it came back earlier";
}

TEST(DateRanges, ThatAreCancelledEndThere)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon - hour);
    take_splice_at(ranges, told(splice_kind::cancel, "0x03"), noon, noon);
    EXPECT_EQ(ranges[0].end, -1) << "it is over";
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon);
    take_splice_at(ranges, told(splice_kind::cancel, "0x03"), noon, noon - second);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[1].end, noon);
    EXPECT_TRUE(date_ranges_text(ranges).ends_with(",DURATION=0.000\n"));
    EXPECT_FALSE(is_nearest_to_splice(ranges, noon, second, second));
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon);
    EXPECT_EQ(ranges.size(), 2u) << "a section that was late";
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon + hour);
    take_splice_at(ranges, told(splice_kind::cancel, "0x03"), noon + hour, noon + hour + second);
    EXPECT_EQ(ranges[2].end, noon + hour + second) << "it had begun";
    drop_cancelled(ranges);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[1].start, noon + hour);
}

TEST(DateRanges, ThatAreMovedBeforeTheyHappenAreOtherOnes)
{
    std::vector<date_range> ranges;
    take_splice_at(ranges, told(splice_kind::out, "0x02"), noon, noon - 8 * second);
    take_splice_at(ranges, told(splice_kind::out, "0x03"), noon + 4 * second, noon - 4 * second);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[0].end, noon) << "cancelled";
    EXPECT_EQ(ranges[1].start, noon + 4 * second);
    EXPECT_EQ(ranges[1].id, "insert-7-1795262404000");
    EXPECT_EQ(ranges[1].section, "0x03");
}

TEST(DateRanges, ThatAreToldForLaterMayBeginAtOnce)
{
    std::vector<date_range> ranges;
    take_splice_at(ranges, told(splice_kind::out, "0x01"), noon + 60 * second, noon);
    for (int again = 0; again < 2; again++) {
        take_now(ranges, splice_kind::out, noon + 2 * second);
        ASSERT_EQ(ranges.size(), 2u);
        EXPECT_EQ(ranges[0].end, ranges[0].start) << "it does not come then";
        EXPECT_EQ(ranges[1].start, noon + 2 * second);
        EXPECT_EQ(ranges[1].end, -1);
    }
}

TEST(DateRanges, AreNotDoubledByAnOlderSectionOfTheEvent)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x02"), noon);
    take_splice_at(ranges, told(splice_kind::out, "0x03"), noon + hour, noon + second);
    take_splice_at(ranges, told(splice_kind::out, "0x02"), noon, noon + 2 * second);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[1].end, -1) << "it is not moved by that";
    take_splice_at(ranges, told(splice_kind::in, "0x04"), noon + 3 * second, noon + 3 * second);
    EXPECT_EQ(ranges[0].end, noon + 3 * second);
    EXPECT_EQ(ranges[1].end, -1);
}

// The stream's time of day is an hour further than it was told before.
TEST(DateRanges, AreNotDoubledWhereTheDatesLeap)
{
    std::vector<date_range> ranges;
    const splice_cue out = told(splice_kind::out, "0x02");
    take_splice_at(ranges, out, noon, noon - 5 * second);
    take_splice_at(ranges, out, noon + hour, noon + hour + second, hour);
    EXPECT_EQ(ranges.size(), 1u) << "it has happened";
    take_splice_at(ranges, out, noon + 2 * hour, noon + 2 * hour - 9 * second, hour);
    take_splice_at(ranges, out, noon + 3 * hour, noon + 3 * hour - 5 * second, 2 * hour);
    ASSERT_EQ(ranges.size(), 3u);
    EXPECT_EQ(ranges[1].end, ranges[1].start) << "its date is another one now";
    EXPECT_EQ(ranges[2].end, -1);
    forget_clock(ranges);
    take_splice_at(ranges, out, noon + 4 * hour, noon + 4 * hour + second, 3 * hour);
    EXPECT_EQ(ranges.size(), 4u) << "the clock has begun anew";
}

TEST(DateRanges, MayEndElsewhereUntilTheEndHasCome)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x01"), noon);
    take_splice_at(ranges, told(splice_kind::in, "0x02"), noon + 30 * second, noon + 20 * second);
    take_splice_at(ranges, told(splice_kind::in, "0x03"), noon + 40 * second, noon + 25 * second);
    EXPECT_EQ(ranges[0].end, noon + 40 * second);
    EXPECT_EQ(ranges[0].end_section, "0x03");
    EXPECT_EQ(ranges[0].end_told, noon + 40 * second);
    take_splice_at(ranges, told(splice_kind::in, "0x04"), noon + 50 * second, noon + 45 * second);
    EXPECT_EQ(ranges[0].end, noon + 40 * second);
}

TEST(DateRanges, StayWhileTheyReachIntoTheList)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x01"), noon);
    drop_past(ranges, noon + hour);
    ASSERT_EQ(ranges.size(), 1u) << "its end is not known";
    take(ranges, told(splice_kind::in, "0x02"), noon + hour);
    drop_past(ranges, noon + hour);
    EXPECT_EQ(ranges.size(), 1u);
    drop_past(ranges, noon + hour + 1);
    EXPECT_TRUE(ranges.empty());
    take(ranges, told(splice_kind::out, "0x01"), noon);
    drop_past(ranges, noon + 24 * hour + 1);
    EXPECT_TRUE(ranges.empty()) << "its end was lost";
}

TEST(DateRanges, StayBeyondThePlannedEndUntilTheProgrammeGoesOn)
{
    std::vector<date_range> ranges;
    splice_cue cue = told(splice_kind::out, "0x01", 60 * second);
    take(ranges, cue, noon);
    cue.event = "insert-8";
    cue.returns = true;
    take(ranges, cue, noon);
    drop_past(ranges, noon + 60 * second + 1);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].event, "insert-7");
    take(ranges, told(splice_kind::in, "0x02"), noon + 300 * second);
    EXPECT_EQ(ranges[0].end, noon + 300 * second);
    take(ranges, told(splice_kind::out, "0x01", 60 * second), noon + hour);
    drop_past(ranges, noon + hour + 960 * second);
    EXPECT_EQ(ranges.size(), 1u);
    drop_past(ranges, noon + hour + 960 * second + 1);
    EXPECT_TRUE(ranges.empty()) << "its end was lost";
}

// What is listed stays, since lists may only grow.
TEST(DateRanges, AreBounded)
{
    std::vector<date_range> ranges(4095,
                                   {.id = "a", .event = "a", .section = {}, .end_section = {}});
    const auto take_event = [&ranges](splice_cue cue, const char* event) {
        cue.event = event;
        return take_splice(ranges, cue, noon, noon - second);
    };
    EXPECT_TRUE(take_event(told(splice_kind::out, "0x01"), "insert-1"));
    EXPECT_FALSE(take_event(told(splice_kind::out, "0x01"), "insert-2"));
    EXPECT_TRUE(take_event(told(splice_kind::in, "0x02"), "insert-1"));
    EXPECT_EQ(ranges.size(), 4096u);
    EXPECT_EQ(ranges.back().end_section, "0x02");

    const std::string section = "0x" + std::string(8190, 'F');
    ranges.assign(255, {.id = "a", .event = "a", .section = section, .end_section = {}});
    EXPECT_TRUE(take_event(told(splice_kind::out, section.c_str()), "insert-1"));
    EXPECT_FALSE(take_event(told(splice_kind::out, "0x01"), "insert-2"));
    EXPECT_TRUE(take_event(told(splice_kind::in, "0x02"), "insert-1"));
    EXPECT_EQ(ranges.back().end, noon);
    EXPECT_EQ(ranges.back().end_section, "") << "there is no room for it";
}

TEST(DateRanges, TellTheBoundaryThatIsNearest)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x01", 10 * second), noon);
    const auto nearest = [&ranges](int64_t milliseconds) {
        return is_nearest_to_splice(ranges, noon + milliseconds * pts_ticks_per_millisecond,
                                    2 * second, second);
    };
    EXPECT_FALSE(nearest(-501));
    EXPECT_TRUE(nearest(-500));
    EXPECT_TRUE(nearest(0));
    EXPECT_TRUE(nearest(999));
    EXPECT_FALSE(nearest(1000));
    EXPECT_TRUE(nearest(10000)) << "where it is planned to end";
}

TEST(DateRanges, AreReadAgainFromTheirLines)
{
    const auto cues = read_splices([] {
        std::vector<uint8_t> bytes;
        for (const char* at = insert + 2; *at != 0; at += 2)
            bytes.push_back(static_cast<uint8_t>(std::stoi(std::string(at, 2), nullptr, 16)));
        return bytes;
    }());
    ASSERT_EQ(cues.size(), 1u);
    std::vector<date_range> ranges;
    take(ranges, cues[0], noon);
    take(ranges, cues[0], noon + hour);
    end_returned(ranges, noon + hour);
    const std::string text = date_ranges_text(ranges);
    auto read = parse_date_ranges(parse_media_list(text));
    EXPECT_EQ(date_ranges_text(read), text);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_LE(std::abs(read[0].end - ranges[0].end), pts_ticks_per_millisecond);
    read[0].end = ranges[0].end;
    for (size_t i = 0; i < 2; i++) { // the list says no more of them
        ranges[i].clock = -1;
        ranges[i].told = ranges[i].repeated = ranges[i].end_told = 0;
    }
    EXPECT_EQ(read, ranges);

    const std::string start = ",START-DATE=\"2026-11-21T12:00:00.000Z\"";
    EXPECT_TRUE(parse_date_ranges(parse_media_list("#EXT-X-DATERANGE:ID=\"a\"\n"
                                                   "#EXT-X-DATERANGE:\n"
                                                   "#EXT-X-DATERANGE:ID=\"a\"" +
                                                   start +
                                                   ",SCTE35-OUT=0xFC\n"
                                                   "#EXT-X-DATERANGE:ID=\"b\"" +
                                                   start + ",DURATION=1\n"))
                    .empty());
}
