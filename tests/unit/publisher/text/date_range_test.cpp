#include "publisher/text/date_range.hpp"

#include <set>

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * second; // 2026-11-21 12:00:00 UTC
constexpr int64_t hour = 3600 * second;

splice_cue told(splice_kind kind, const char* section, int64_t duration = 0)
{
    return {.kind = kind, .event = "insert-7", .time = 0, .duration = duration, .section = section};
}

splice_cue at_once(splice_kind kind)
{
    splice_cue cue = told(kind, "0x0A");
    cue.immediate = true;
    return cue;
}

// Some seconds before the splice, as they are sent.
void take(std::vector<date_range>& ranges, const splice_cue& cue, int64_t date)
{
    take_splice(ranges, cue, date, date - 5 * second);
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
        take_splice(ranges, at_once(splice_kind::out), noon + i * second, noon + i * second);
    for (int i = 9; i < 12; i++)
        take_splice(ranges, at_once(splice_kind::in), noon + i * second, noon + i * second);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, noon);
    EXPECT_EQ(ranges[0].end, noon + 9 * second);
    take_splice(ranges, at_once(splice_kind::out), noon + hour, noon + hour);
    EXPECT_EQ(ranges.size(), 2u) << "long after it was over";
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

TEST(DateRanges, ThatAreCancelledAreToldNoMore)
{
    std::vector<date_range> ranges;
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon - hour);
    take_splice(ranges, told(splice_kind::cancel, "0x03"), noon, noon);
    EXPECT_EQ(ranges.size(), 1u) << "it is over";
    take(ranges, told(splice_kind::out, "0x02", 30 * second), noon);
    take_splice(ranges, told(splice_kind::cancel, "0x03"), noon, noon - second);
    EXPECT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, noon - hour);
}

TEST(DateRanges, ThatAreMovedBeforeTheyHappenAreOtherOnes)
{
    std::vector<date_range> ranges;
    take_splice(ranges, told(splice_kind::out, "0x02"), noon, noon - 8 * second);
    take_splice(ranges, told(splice_kind::out, "0x03"), noon + 4 * second, noon - 4 * second);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, noon + 4 * second);
    EXPECT_EQ(ranges[0].id, "insert-7-1795262404000");
    EXPECT_EQ(ranges[0].section, "0x03");
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

TEST(DateRanges, AreBounded)
{
    std::vector<date_range> ranges;
    splice_cue cue = told(splice_kind::out, "0x01");
    for (int event = 0; event < 600; event++) {
        cue.event = "insert-" + std::to_string(event);
        take(ranges, cue, noon);
    }
    EXPECT_EQ(ranges.size(), 512u);
    EXPECT_EQ(ranges.back().event, "insert-599") << "the oldest go";
    cue.section = "0x" + std::string(8000, 'F');
    for (int event = 0; event < 600; event++) {
        cue.event = "long-" + std::to_string(event);
        take(ranges, cue, noon);
    }
    EXPECT_LE(date_ranges_text(ranges).size(), 600u << 10);
    EXPECT_EQ(ranges.back().event, "long-599");
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
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1)
        lines.push_back(text.substr(begin, text.find('\n', begin) + 1 - begin));
    ASSERT_EQ(lines.size(), 3u);
    auto read = parse_date_ranges(lines);
    EXPECT_EQ(date_ranges_text(read), text);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_LE(std::abs(read[0].end - ranges[0].end), pts_ticks_per_millisecond);
    read[0].end = ranges[0].end;
    EXPECT_EQ(read, ranges);

    EXPECT_TRUE(
        parse_date_ranges({"#EXT-X-DATERANGE:ID=\"a\"\n", "#EXT-X-DATERANGE:\n",
                           "#EXT-X-DATERANGE:ID=\"a\",START-DATE=\"2026-11-21T12:00:00.000Z\""
                           ",SCTE35-OUT=0xFC\n"})
            .empty());
}
