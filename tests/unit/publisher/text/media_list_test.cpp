#include "publisher/text/media_list.hpp"

#include <gtest/gtest.h>

#include "publisher/text/playlist_text.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t noon = int64_t{1795262400} * pts_ticks_per_second; // 2026-11-21 12:00:00 UTC

presentation two_segments()
{
    presentation p;
    p.target_duration = 6;
    p.listed = {
        {.sequence = 70,
         .discontinuity_number = 4,
         .duration = 5760 * pts_ticks_per_millisecond,
         .date = noon,
         .files = {{.track = "main", .bytes = 1000}}},
        {.sequence = 71,
         .discontinuity_number = 5,
         .discontinuity = true,
         .duration = 6000 * pts_ticks_per_millisecond,
         .date = noon + 5760 * pts_ticks_per_millisecond,
         .files = {{.track = "main", .bytes = 1000}}},
    };
    return p;
}

} // namespace

TEST(MediaList, IsReadAsItWasWritten)
{
    presentation p = two_segments();
    p.ended = true;
    const media_list list = parse_media_list(whole_media_playlist(p, "main"));
    EXPECT_EQ(list.target_duration, 6);
    EXPECT_EQ(list.sequence, 70u);
    EXPECT_EQ(list.discontinuity_sequence, 4u);
    EXPECT_TRUE(list.ended);
    EXPECT_EQ(list.header, "#EXTM3U\n"
                           "#EXT-X-VERSION:4\n"
                           "#EXT-X-INDEPENDENT-SEGMENTS\n"
                           "#EXT-X-TARGETDURATION:6\n");
    ASSERT_EQ(list.segments.size(), 2u);
    EXPECT_EQ(list.segments[0].uri, "main.70.ts");
    EXPECT_EQ(list.segments[0].duration, 5760 * pts_ticks_per_millisecond);
    EXPECT_EQ(list.segments[0].date, noon);
    EXPECT_FALSE(list.segments[0].discontinuity);
    EXPECT_TRUE(list.segments[1].discontinuity);
    EXPECT_EQ(list.segments[1].text, "#EXT-X-DISCONTINUITY\n"
                                     "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:05.760Z\n"
                                     "#EXTINF:6.00000,\n"
                                     "main.71.ts\n");
}

TEST(MediaList, SaysWhereDateRangesStand)
{
    const auto segment_at = [](const char* time) {
        return std::string("#EXT-X-PROGRAM-DATE-TIME:2026-11-21T") + time +
               "Z\n#EXTINF:6,\nmain.ts\n";
    };
    const media_list list = parse_media_list(
        "#EXT-X-DATERANGE:ID=\"a\"\n" + segment_at("12:00:00.000") + segment_at("12:00:06.000") +
        "#EXT-X-DATERANGE:ID=\"b\"\n" + segment_at("12:00:12.000") + "#EXT-X-DATERANGE:ID=\"c\"\n");
    ASSERT_EQ(list.date_ranges.size(), 3u);
    for (int64_t i = 0; i < 3; i++)
        EXPECT_EQ(list.date_ranges[static_cast<size_t>(i)].date,
                  noon + (i == 0 ? 0 : 6 + 6 * i) * pts_ticks_per_second);
}

// Where the power was cut while it was written.
TEST(MediaList, EndsBeforeATornLine)
{
    const std::string text = whole_media_playlist(two_segments(), "main");
    EXPECT_EQ(parse_media_list(text.substr(0, text.size() - 1)).segments.size(), 1u);
    EXPECT_TRUE(parse_media_list("").segments.empty());
}

TEST(MediaList, TakesNoNumberThatCannotBe)
{
    for (const char* number : {"nan", "inf", "1e300", "-5", "x"}) {
        const std::string text = std::string("#EXTINF:") + number + ",\nmain.1.ts\n";
        EXPECT_EQ(parse_media_list(text).segments.at(0).duration, 0) << number;
    }
    EXPECT_EQ(ticks_of_date("2026-11-21"), 0);
}
