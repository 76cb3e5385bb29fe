#include "tools/caption_feed/vtt_reader.hpp"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

// The cues, then the problems; a line break inside a text shows as "|".
std::string listing(vtt_reader& reader)
{
    std::ostringstream out;
    for (const caption_cue& cue : reader.cues) {
        std::string text = cue.text;
        for (char& c : text)
            c = c == '\n' ? '|' : c;
        out << cue.line << ": [" << cue.identifier << "] " << cue.start_ms << '-' << cue.end_ms
            << " @" << cue.stream_ticks << " [" << cue.settings << "] " << text << '\n';
    }
    for (const vtt_problem& problem : reader.problems)
        out << problem.line << ": " << problem.text << '\n';
    reader.cues.clear();
    reader.problems.clear();
    return out.str();
}

struct reader_case {
    std::string_view name, input, want;
};

constexpr reader_case reader_cases[] = {
    {.name = "nothing", .input = "", .want = ""},
    {.name = "signature alone", .input = "WEBVTT", .want = ""},
    {.name = "two cues",
     .input = "WEBVTT\n\n00:01.000 --> 00:02.000\nHello\n\n00:03.000 --> 00:04.000\nWorld\n",
     .want = "3: [] 1000-2000 @90000 [] Hello\n6: [] 3000-4000 @270000 [] World\n"},
    {.name = "byte order mark and title",
     .input = "\xEF\xBB\xBFWEBVTT - title\n\n00:01.000 --> 00:02.000\nHello\n",
     .want = "3: [] 1000-2000 @90000 [] Hello\n"},
    {.name = "CR LF",
     .input = "WEBVTT\r\n\r\n00:01.000 --> 00:02.000\r\na\r\nb\r\n\r\nNOTE x\r\n",
     .want = "3: [] 1000-2000 @90000 [] a|b\n"},
    {.name = "CR",
     .input = "WEBVTT\r\r00:01.000 --> 00:02.000\ra\rb\r\r00:03.000 --> 00:04.000\rc",
     .want = "3: [] 1000-2000 @90000 [] a|b\n7: [] 3000-4000 @270000 [] c\n"},
    {.name = "identifier and settings",
     .input = "WEBVTT\n\nintro 1\n00:01.000 --> 00:02.000 line:0  align:start\nHello\n",
     .want = "4: [intro 1] 1000-2000 @90000 [line:0 align:start] Hello\n"},
    {.name = "comments, styles and regions",
     .input = "WEBVTT\n\nNOTE\na comment\nof two lines\n\nSTYLE\n::cue { color: red }\n\nREGION\n"
              "id:bill\nlines:3\n\n00:01.000 --> 00:02.000\nHello\n",
     .want = "14: [] 1000-2000 @90000 [] Hello\n"},
    {.name = "no empty line before the next cue",
     .input = "WEBVTT\n\n00:01.000 --> 00:02.000\nHello\n00:03.000 --> 00:04.000\nWorld\n",
     .want = "3: [] 1000-2000 @90000 [] Hello\n5: [] 3000-4000 @270000 [] World\n"},
    {.name = "no empty line after the header",
     .input = "WEBVTT\n00:01.000 --> 00:02.000\nHello\n",
     .want = "2: [] 1000-2000 @90000 [] Hello\n"},
    {.name = "many empty lines",
     .input = "WEBVTT\n\n\n\n00:01.000 --> 00:02.000\nHello\n\n\n\n",
     .want = "5: [] 1000-2000 @90000 [] Hello\n"},
    {.name = "no text",
     .input = "WEBVTT\n\n00:01.000 --> 00:02.000\n\n",
     .want = "3: [] 1000-2000 @90000 [] \n"},
    {.name = "bad times leave the next cue alone",
     .input = "WEBVTT\n\n00:00:01,000 --> 00:00:02,000\nlost\n\n00:03.000 --> 00:04.000\nkept\n",
     .want = "6: [] 3000-4000 @270000 [] kept\n"
             "3: the start time is not of the form hours:mm:ss.ttt; the cue is skipped\n"},
    {.name = "an arrow in the text begins a block of its own",
     .input = "WEBVTT\n\n00:01.000 --> 00:02.000\nHello\na --> b\nlost\n",
     .want = "3: [] 1000-2000 @90000 [] Hello\n"
             "5: the start time is not of the form hours:mm:ss.ttt; the cue is skipped\n"},
    {.name = "mapped onto the stream",
     .input = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:00:00:01.000\nKind: captions\n\n"
              "00:02.000 --> 00:03.000\nHello\n",
     .want = "5: [] 2000-3000 @990000 [] Hello\n"},
    {.name = "map that cannot be read",
     .input = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:x\n\n00:01.000 --> 00:02.000\nHello\n",
     .want = "4: [] 1000-2000 @90000 [] Hello\n"
             "2: X-TIMESTAMP-MAP is not of the form MPEGTS:ticks,LOCAL:time; it is ignored\n"},
    {.name = "one file after the other",
     .input = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:00:00.000\n\n00:01.000 --> 00:02.000\n"
              "a\n\nWEBVTT\nX-TIMESTAMP-MAP=LOCAL:00:00.000,MPEGTS:1800000\n\n"
              "00:01.000 --> 00:02.000\nb\n\n\xEF\xBB\xBFWEBVTT\n\n00:01.000 --> 00:02.000\nc\n",
     .want = "4: [] 1000-2000 @990000 [] a\n10: [] 1000-2000 @1890000 [] b\n"
             "15: [] 1000-2000 @90000 [] c\n"},
    {.name = "no WebVTT",
     .input = "1\n00:01.000 --> 00:02.000\nHello\n",
     .want = "1: not WebVTT, since the first line is not 'WEBVTT'; ignored up to its end\n"},
    {.name = "signature that goes on",
     .input = "WEBVTTX\n\n00:01.000 --> 00:02.000\nHello\n",
     .want = "1: not WebVTT, since the first line is not 'WEBVTT'; ignored up to its end\n"},
    {.name = "bytes that are no UTF-8",
     .input = "WEBVTT\n\n00:01.000 --> 00:02.000\ncaf\xE9\n",
     .want = "3: [] 1000-2000 @90000 [] caf\xEF\xBF\xBD\n"},
};

TEST(VttReader, InOnePiece)
{
    for (const reader_case& c : reader_cases) {
        SCOPED_TRACE(c.name);
        vtt_reader reader;
        reader.feed(c.input);
        reader.finish();
        EXPECT_EQ(listing(reader), c.want);
    }
}

TEST(VttReader, ByteByByte)
{
    for (const reader_case& c : reader_cases) {
        SCOPED_TRACE(c.name);
        vtt_reader reader;
        for (size_t i = 0; i < c.input.size(); ++i)
            reader.feed(c.input.substr(i, 1));
        reader.finish();
        EXPECT_EQ(listing(reader), c.want);
    }
}

TEST(VttReader, ACueIsCompleteAtTheEmptyLine)
{
    vtt_reader reader;
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\nHello\n");
    EXPECT_EQ(listing(reader), "");
    reader.feed("\n");
    EXPECT_EQ(listing(reader), "3: [] 1000-2000 @90000 [] Hello\n");
}

TEST(VttReader, BaseTime)
{
    vtt_reader reader;
    reader.base_ticks = 5;
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\nHello\n\n");
    EXPECT_EQ(listing(reader), "3: [] 1000-2000 @90005 [] Hello\n");
}

TEST(VttReader, ANewFileAfterTheEnd)
{
    vtt_reader reader;
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\ncut o");
    reader.finish();
    EXPECT_EQ(listing(reader), "3: [] 1000-2000 @90000 [] cut o\n");
    reader.feed("no signature\n");
    reader.finish();
    EXPECT_EQ(listing(reader),
              "1: not WebVTT, since the first line is not 'WEBVTT'; ignored up to its end\n");
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\nHello\n\n");
    EXPECT_EQ(listing(reader), "3: [] 1000-2000 @90000 [] Hello\n");
}

TEST(VttReader, LinesWithoutEndAreNotKept)
{
    vtt_reader reader;
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\n");
    const std::string piece(10000, 'x');
    for (int i = 0; i < 1000; ++i)
        reader.feed(piece);
    EXPECT_LE(reader.partial_line.size(), vtt_line_bytes_max);
    reader.feed("\n\n00:03.000 --> 00:04.000\nnext\n\n");
    EXPECT_EQ(listing(reader), "6: [] 3000-4000 @270000 [] next\n"
                               "4: the line is too long; the cue is skipped\n");
}

TEST(VttReader, TextsWithoutEndAreNotKept)
{
    vtt_reader reader;
    reader.feed("WEBVTT\n\n00:01.000 --> 00:02.000\n");
    const std::string line = std::string(1023, 'x') + "\n";
    for (int i = 0; i < 1000; ++i)
        reader.feed(line);
    EXPECT_LE(reader.current.cue.text.size(), vtt_line_bytes_max);
    reader.feed("\n");
    EXPECT_EQ(listing(reader), "68: the text is too long; the cue is skipped\n");
}

} // namespace
