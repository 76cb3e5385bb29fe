#include "tools/caption_feed/vtt_timing.hpp"

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

struct timestamp_case {
    std::string_view name, text;
    int64_t want; // -1: refused
    std::string_view rest = "";
};

TEST(VttTiming, Timestamps)
{
    constexpr timestamp_case cases[] = {
        {.name = "zero", .text = "00:00.000", .want = 0},
        {.name = "without hours", .text = "01:02.003", .want = 62003},
        {.name = "largest without hours", .text = "59:59.999", .want = 3599999},
        {.name = "with hours", .text = "01:02:03.004", .want = 3723004},
        {.name = "one digit of hours", .text = "1:02:03.004", .want = 3723004},
        {.name = "three digits of hours", .text = "100:00:00.000", .want = 360000000},
        {.name = "six digits of hours", .text = "999999:00:00.000", .want = 3599996400000},
        {.name = "seven digits of hours", .text = "1000000:00:00.000", .want = -1},
        {.name = "something behind",
         .text = "00:01.000align:start",
         .want = 1000,
         .rest = "align:start"},
        {.name = "empty", .text = "", .want = -1},
        {.name = "a minus", .text = "-1:00.000", .want = -1},
        {.name = "one digit of minutes, no hours", .text = "1:00.000", .want = -1},
        {.name = "60 minutes, no hours", .text = "60:00.000", .want = -1},
        {.name = "60 minutes", .text = "00:60:00.000", .want = -1},
        {.name = "60 seconds", .text = "00:60.000", .want = -1},
        {.name = "one digit of seconds", .text = "00:1.000", .want = -1},
        {.name = "three digits of seconds", .text = "00:001.000", .want = -1},
        {.name = "two digits of thousandths", .text = "00:01.00", .want = -1},
        {.name = "four digits of thousandths", .text = "00:01.0000", .want = -1},
        {.name = "no thousandths", .text = "00:01", .want = -1},
        {.name = "a comma", .text = "00:00:01,000", .want = -1},
        {.name = "four parts", .text = "00:00:00:01.000", .want = -1},
    };
    for (const timestamp_case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string_view rest = c.text;
        int64_t ms = -1;
        EXPECT_EQ(take_timestamp(rest, ms), c.want >= 0);
        EXPECT_EQ(ms, c.want);
        if (c.want >= 0) {
            EXPECT_EQ(rest, c.rest);
        }
    }
}

struct timing_line_case {
    std::string_view name, line;
    std::string_view want; // "start end settings", or the problem
};

TEST(VttTiming, TimingLines)
{
    constexpr timing_line_case cases[] = {
        {.name = "plain", .line = "00:01.000 --> 00:02.000", .want = "1000 2000 "},
        {.name = "no blanks", .line = "00:01.000-->00:02.000", .want = "1000 2000 "},
        {.name = "tabs", .line = "\t00:01.000\t-->\t00:02.000\t", .want = "1000 2000 "},
        {.name = "settings",
         .line = "00:01.000 --> 00:02.000  line:0 \t align:start ",
         .want = "1000 2000 line:0 align:start"},
        {.name = "settings without blank",
         .line = "00:01.000 --> 00:02.000line:0",
         .want = "1000 2000 line:0"},
        {.name = "what is no setting",
         .line = "00:01.000 --> 00:02.000 bold :x y: line:1 --> a:-->",
         .want = "1000 2000 line:1"},
        {.name = "no start",
         .line = "--> 00:02.000",
         .want = "the start time is not of the form hours:mm:ss.ttt"},
        {.name = "comma",
         .line = "00:00:01,000 --> 00:00:02,000",
         .want = "the start time is not of the form hours:mm:ss.ttt"},
        {.name = "words between",
         .line = "00:01.000 to --> 00:02.000",
         .want = "the start time is not followed by '-->'"},
        {.name = "no end",
         .line = "00:01.000 -->",
         .want = "the end time is not of the form hours:mm:ss.ttt"},
        {.name = "backwards",
         .line = "00:02.000 --> 00:01.000",
         .want = "the cue does not end after it starts"},
        {.name = "no length",
         .line = "00:02.000 --> 00:02.000",
         .want = "the cue does not end after it starts"},
    };
    for (const timing_line_case& c : cases) {
        SCOPED_TRACE(c.name);
        caption_cue cue;
        std::string got;
        if (parse_timing_line(c.line, cue, got))
            got = std::to_string(cue.start_ms) + " " + std::to_string(cue.end_ms) + " " +
                  cue.settings;
        EXPECT_EQ(got, c.want);
    }
}

struct map_case {
    std::string_view name, value;
    bool good;
    uint64_t mpegts = 0;
    int64_t local_ms = 0;
};

TEST(VttTiming, TimestampMaps)
{
    constexpr map_case cases[] = {
        {.name = "usual",
         .value = "MPEGTS:900000,LOCAL:00:00:00.000",
         .good = true,
         .mpegts = 900000},
        {.name = "other order",
         .value = "LOCAL:00:00:01.000,MPEGTS:5",
         .good = true,
         .mpegts = 5,
         .local_ms = 1000},
        {.name = "short hours",
         .value = "MPEGTS:900000,LOCAL:0:00:10.000",
         .good = true,
         .mpegts = 900000,
         .local_ms = 10000},
        {.name = "more than 33 bits",
         .value = "MPEGTS:8589934592,LOCAL:00:00.000",
         .good = true,
         .mpegts = 8589934592},
        {.name = "blank behind", .value = "MPEGTS:1,LOCAL:00:00.000 ", .good = true, .mpegts = 1},
        {.name = "empty", .value = "", .good = false},
        {.name = "no LOCAL", .value = "MPEGTS:1", .good = false},
        {.name = "no MPEGTS", .value = "LOCAL:00:00.000", .good = false},
        {.name = "no ticks", .value = "MPEGTS:,LOCAL:00:00.000", .good = false},
        {.name = "negative ticks", .value = "MPEGTS:-1,LOCAL:00:00.000", .good = false},
        {.name = "ticks past 64 bits",
         .value = "MPEGTS:99999999999999999999,LOCAL:00:00.000",
         .good = false},
        {.name = "bad time", .value = "MPEGTS:1,LOCAL:0", .good = false},
        {.name = "more behind", .value = "MPEGTS:1,LOCAL:00:00.000x", .good = false},
        {.name = "trailing comma", .value = "MPEGTS:1,LOCAL:00:00.000,", .good = false},
    };
    for (const map_case& c : cases) {
        SCOPED_TRACE(c.name);
        timestamp_map map;
        EXPECT_EQ(parse_timestamp_map(c.value, map), c.good);
        EXPECT_EQ(map.mpegts, c.mpegts);
        EXPECT_EQ(map.local_ms, c.local_ms);
    }
}

TEST(VttTiming, TimeOnTheStreamsClock)
{
    EXPECT_EQ(stream_ticks_of(2000, {.mpegts = 900000, .local_ms = 1000}), 990000U);
    EXPECT_EQ(stream_ticks_of(0, {.mpegts = 900000, .local_ms = 1000}), 810000U);
    EXPECT_EQ(stream_ticks_of(0, {.mpegts = 0, .local_ms = 1000}), (uint64_t{1} << 33) - 90000);
    EXPECT_EQ(stream_ticks_of(1000, {.mpegts = pts_mask, .local_ms = 0}), 89999U);
}

} // namespace
