#include "publisher/subtitles/webvtt.hpp"

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;

} // namespace

TEST(ReadWebvtt, PlacesCuesByTheMap)
{
    const auto cues = parse_webvtt("WEBVTT\n"
                                   "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                   "Kind: captions\n"
                                   "Language: eng\n"
                                   "\n"
                                   "0:00:11.000 --> 0:00:12.500 line:0\n"
                                   "one\r\n"
                                   " \n"
                                   "two\n"
                                   "\n"
                                   "0:00:13.000 --> 0:00:14.000\n"
                                   "three\n",
                                   900000, 900000);
    ASSERT_EQ(cues.size(), 2u);
    EXPECT_EQ(cues[0], (subtitle_cue{.begin = 11 * second,
                                     .end = 25 * second / 2,
                                     .settings = "line:0",
                                     .text = "one\n \ntwo\n"}));
    EXPECT_EQ(cues[1].text, "three\n");
}

TEST(ReadWebvtt, FollowsTheClockWhereItBeginsAnew)
{
    const auto cues = parse_webvtt("WEBVTT\n"
                                   "X-TIMESTAMP-MAP=MPEGTS:90000,LOCAL:0:00:01.000\n"
                                   "\n"
                                   "0:00:02.000 --> 0:00:03.000\nx\n\n",
                                   pts_modulus - second, pts_modulus - second);
    ASSERT_EQ(cues.size(), 1u);
    EXPECT_EQ(cues[0].begin, pts_modulus + 2 * second);
}

TEST(ReadWebvtt, PassesOverWhatIsNoCue)
{
    for (const char* text : {
             "",
             "WEBVTT\nKind: captions\n\n",
             "WEBVTT\n\n0:00:01.000 --> 0:00:02.000\nwithout a map\n\n",
             "X-TIMESTAMP-MAP=MPEGTS:1,LOCAL:0:00:00.000\n0:00:02.000 --> 0:00:01.000\nback\n\n",
             "X-TIMESTAMP-MAP=MPEGTS:1,LOCAL:0:00:00.000\n0:00:01.000 -> 0:00:02.000\nx\n\n",
             "X-TIMESTAMP-MAP=MPEGTS:1,LOCAL:x\n0:00:01.000 --> 0:00:02.000\nx\n\n",
             "X-TIMESTAMP-MAP=MPEGTS:99999999999999999999,LOCAL:0:00:00.000\n"
             "0:00:01.000 --> 0:00:02.000\nx\n\n",
             "X-TIMESTAMP-MAP=MPEGTS:1,LOCAL:0:00:00.000\n"
             "99999999999999999999:00:01.000 --> 0:00:02.000\nx\n\n",
         })
        EXPECT_TRUE(parse_webvtt(text, 0, 0).empty()) << text;
}

TEST(WriteWebvtt, RepeatsACueInEverySegmentThatItReachesInto)
{
    const std::vector<subtitle_cue> cues = {
        {.begin = 9 * second, .end = 11 * second, .settings = "line:0", .text = "across\n"},
        {.begin = 12 * second, .end = 13 * second, .settings = "", .text = "later\n"},
    };
    EXPECT_EQ(webvtt_segment(cues, 8 * second, 10 * second, 8 * second),
              "WEBVTT\n"
              "X-TIMESTAMP-MAP=MPEGTS:720000,LOCAL:00:00:08.000\n"
              "\n"
              "9000-2732618330\n"
              "00:00:09.000 --> 00:00:11.000 line:0\n"
              "across\n"
              "\n");
    EXPECT_EQ(webvtt_segment(cues, 10 * second, 14 * second, 10 * second),
              "WEBVTT\n"
              "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:00:00:10.000\n"
              "\n"
              "9000-2732618330\n"
              "00:00:09.000 --> 00:00:11.000 line:0\n"
              "across\n"
              "\n"
              "12000-359807897\n"
              "00:00:12.000 --> 00:00:13.000\n"
              "later\n"
              "\n");
}

TEST(WriteWebvtt, KeepsHoursBehindTheWrap)
{
    const int64_t begin = pts_modulus + second;
    const std::string text =
        webvtt_segment({{.begin = begin, .end = begin + second, .settings = "", .text = "x\n"}},
                       begin, begin + 2 * second, second);
    // 2^33 ticks are 26:30:43.717 and 62 ticks, which the map is moved by.
    EXPECT_EQ(text, "WEBVTT\n"
                    "X-TIMESTAMP-MAP=MPEGTS:89938,LOCAL:26:30:44.717\n"
                    "\n"
                    "95444717-3882012151\n"
                    "26:30:44.717 --> 26:30:45.717\n"
                    "x\n"
                    "\n");
}

TEST(WriteWebvtt, OfWhatWasWrittenReadsTheSame)
{
    const std::vector<subtitle_cue> cues = {
        {.begin = 100 * second, .end = 101 * second, .settings = "", .text = "a\nb\n"}};
    const std::string text = webvtt_segment(cues, 99 * second + 17, 102 * second, 99 * second + 17);
    EXPECT_EQ(parse_webvtt(text, 99 * second + 17, 99 * second + 17), cues);
}
