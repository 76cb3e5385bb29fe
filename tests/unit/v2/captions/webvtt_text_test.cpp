#include "v2/captions/webvtt_text.hpp"

#include <string_view>

#include <gtest/gtest.h>

namespace
{

constexpr int64_t ticks_per_hour = int64_t{3600} * 90000;

struct header_case {
    std::string_view name;
    std::string key;
    int64_t origin;
    std::string want_clocks;
    std::string want_language = "Language: eng\n";
};

TEST(WebvttHeader, MapsTheTransportClockToTheCueClockAndNamesTheLanguage)
{
    const header_case cases[] = {
        {"at the clock's zero", "eng", 0, "MPEGTS:0,LOCAL:0:00:00.000"},
        {"less than a millisecond", "eng", 89, "MPEGTS:89,LOCAL:0:00:00.000"},
        {"every part of the time", "spa",
         10 * ticks_per_hour + 23 * 60 * 90000 + 45 * 90000 + 678 * 90 + 12,
         "MPEGTS:3368311032,LOCAL:10:23:45.678", "Language: spa\n"},
        {"hours go on beyond a day", "eng", 25 * ticks_per_hour,
         "MPEGTS:8100000000,LOCAL:25:00:00.000"},
        {"the last tick of the clock", "eng", 8589934591, "MPEGTS:8589934591,LOCAL:26:30:43.717"},
        {"a service tag is no language", "v0", 90000, "MPEGTS:90000,LOCAL:0:00:01.000", ""},
    };
    for (const header_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(webvtt_header(c.key, c.origin), "WEBVTT\nX-TIMESTAMP-MAP=" + c.want_clocks +
                                                      "\nKind: captions\n" + c.want_language +
                                                      "\n");
    }
}

struct key_case {
    std::string_view name;
    std::string key;
    std::string_view want;
};

TEST(WebvttEmptyBody, HasNoTimeMapAndTheLanguageUnlessTheKeyIsAServiceTag)
{
    const key_case cases[] = {
        {"a language", "eng", "WEBVTT\nKind: captions\nLanguage: eng\n\n"},
        {"one letter", "v", "WEBVTT\nKind: captions\nLanguage: v\n\n"},
        {"v and a letter", "vx", "WEBVTT\nKind: captions\nLanguage: vx\n\n"},
        {"v, a letter and a digit", "vx1", "WEBVTT\nKind: captions\nLanguage: vx1\n\n"},
        {"an upper-case V", "V0", "WEBVTT\nKind: captions\nLanguage: V0\n\n"},
        {"the byte before 0", "v/", "WEBVTT\nKind: captions\nLanguage: v/\n\n"},
        {"the byte behind 9", "v:", "WEBVTT\nKind: captions\nLanguage: v:\n\n"},
        {"the first service", "v0", "WEBVTT\nKind: captions\n\n"},
        {"the tenth service", "v9", "WEBVTT\nKind: captions\n\n"},
        {"the last service", "v255", "WEBVTT\nKind: captions\n\n"},
        {"only the first two bytes count", "v1x", "WEBVTT\nKind: captions\n\n"},
    };
    for (const key_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(webvtt_empty_body(c.key), c.want);
    }
}

TEST(WebvttHeader, HoldsAtMost8191Bytes)
{
    const size_t without_key = webvtt_header("x", 0).size() - 1;
    const std::string longest(8191 - without_key, 'x');
    EXPECT_EQ(webvtt_header(longest, 0).size(), 8191u);
    EXPECT_DEATH(webvtt_header(longest + "x", 0), "w < f");
}

struct times_case {
    std::string_view name;
    int64_t start;
    int64_t end;
    std::string settings;
    std::string_view want;
};

TEST(WebvttCueBlock, BeginsWithTheTimesAndTheSettings)
{
    const times_case cases[] = {
        {"zero", 0, 33, "", "0:00:00.000 --> 0:00:00.033\nHi\n\n"},
        {"every part", 37425678, 37425999, "", "10:23:45.678 --> 10:23:45.999\nHi\n\n"},
        {"carries", 59999, 3600000, "", "0:00:59.999 --> 1:00:00.000\nHi\n\n"},
        {"beyond a day", 95443717, 360000000, "", "26:30:43.717 --> 100:00:00.000\nHi\n\n"},
        {"beyond sense", 0, int64_t{1} << 40, "", "0:00:00.000 --> 305419:53:47.776\nHi\n\n"},
        {"settings", 1000, 2000, "line:0 align:left",
         "0:00:01.000 --> 0:00:02.000 line:0 align:left\nHi\n\n"},
    };
    for (const times_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(webvtt_cue_block(c.start, c.end, c.settings, "Hi"), c.want);
    }
}

struct text_case {
    std::string_view name;
    std::string text;
    std::string_view want; // behind the times
};

TEST(WebvttCueBlock, SplitsTheTextIntoLinesOfWhichNoneIsEmpty)
{
    const text_case cases[] = {
        {"one line", "Hello, world", "Hello, world\n\n"},
        {"line feed", "one\ntwo", "one\ntwo\n\n"},
        {"carriage return", "one\rtwo", "one\ntwo\n\n"},
        {"carriage return and line feed", "one\r\ntwo", "one\ntwo\n\n"},
        {"line feed and carriage return are two breaks", "one\n\rtwo", "one\n \ntwo\n\n"},
        {"two carriage returns and a line feed are two breaks", "one\r\r\ntwo", "one\n \ntwo\n\n"},
        {"empty middle line", "one\n\ntwo", "one\n \ntwo\n\n"},
        {"empty middle line, both bytes", "one\r\n\r\ntwo", "one\n \ntwo\n\n"},
        {"two empty middle lines", "one\n\n\ntwo", "one\n \n \ntwo\n\n"},
        {"empty first line", "\none", " \none\n\n"},
        {"a break at the end", "one\n", "one\n\n"},
        {"a carriage return at the end", "one\r", "one\n\n"},
        {"both bytes at the end", "one\r\n", "one\n\n"},
        {"two breaks at the end", "one\n\n", "one\n \n\n"},
        {"only a break", "\n", " \n\n"},
        {"a line of one space", "one\n \ntwo", "one\n \ntwo\n\n"},
        {"no text", "", "\n"},
        {"UTF-8", "\xC2\xBFQu\xC3\xA9?\n\xE2\x99\xAA", "\xC2\xBFQu\xC3\xA9?\n\xE2\x99\xAA\n\n"},
        {"what looks like markup passes", "<i>1 --> 2</i> &amp;", "<i>1 --> 2</i> &amp;\n\n"},
    };
    for (const text_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(webvtt_cue_block(1000, 2000, "", c.text),
                  "0:00:01.000 --> 0:00:02.000\n" + std::string(c.want));
    }
}

} // namespace
