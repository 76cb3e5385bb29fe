// What the caption channels of CEA-608 show, pair by pair. The test's clock moves on by one frame
// of 30 Hz with each pair.

#include "tools/captions/cea608.hpp"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/caption_data.hpp"

namespace
{

constexpr int64_t frame = 3003;

class Cea608 : public testing::Test
{
public:
    Cea608& send(const std::vector<caption_bytes>& pairs)
    {
        for (const caption_bytes& pair : pairs) {
            field.advance(now);
            field.take(now, pair.first, pair.second);
            now += frame;
        }
        return *this;
    }

    Cea608& code(uint8_t second) { return send(control_code(0x14, second)); }
    Cea608& preamble(uint8_t first, uint8_t second) { return send(control_code(first, second)); }
    Cea608& text(std::string_view words) { return send(letters(words)); }

    Cea608& wait(int64_t ticks)
    {
        for (const int64_t until = now + ticks; now < until; now += frame)
            field.advance(now);
        return *this;
    }

    // "row,column text" for each line on screen.
    std::string screen(size_t channel = 0) const
    {
        std::string lines;
        for (const caption_line& line : field.channels[channel].cues.shown.lines) {
            lines += std::to_string(line.row) + "," + std::to_string(line.column) + " ";
            for (const caption_cell& cell : line.cells)
                lines += cell.character < 0x80 ? static_cast<char>(cell.character) : '?';
            lines += "\n";
        }
        return lines;
    }

    std::string cues(size_t channel = 0)
    {
        std::string all;
        for (const broadcast_cue& cue : field.channels[channel].cues.cues)
            all += cue.text + (cue.settings.empty() ? "" : " [" + cue.settings + "]") + "\n";
        field.channels[channel].cues.cues.clear();
        return all;
    }

    // Codes behind 0x14.
    static constexpr uint8_t load = 0x20, back = 0x21, delete_row = 0x24, roll_2 = 0x25,
                             roll_3 = 0x26, flash = 0x28, direct = 0x29, text_mode = 0x2A,
                             erase = 0x2C, next_line = 0x2D, erase_hidden = 0x2E, show = 0x2F;

    cea608_field field;
    int64_t now = 90000;
};

TEST_F(Cea608, PopOnCaptionAppearsAsAWholeAndStaysUntilTheNext)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("Hello");
    EXPECT_EQ(screen(), "");
    code(show);
    EXPECT_EQ(screen(), "14,0 Hello\n");
    const int64_t shown_at = now - 2 * frame; // the first of the two codes

    code(load).code(erase_hidden).preamble(0x13, 0x50).text("one").preamble(0x13, 0x70).text("two");
    EXPECT_EQ(screen(), "14,0 Hello\n");
    const int64_t replaced_at = now;
    code(show);
    EXPECT_EQ(screen(), "11,0 one\n12,0 two\n");

    ASSERT_EQ(field.channels[0].cues.cues.size(), 1U);
    EXPECT_EQ(field.channels[0].cues.cues[0].start, shown_at);
    EXPECT_EQ(field.channels[0].cues.cues[0].end, replaced_at);
    code(erase);
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea608, RollUpKeepsItsRowsAndMovesThemUp)
{
    code(roll_2).code(next_line).preamble(0x14, 0x70).text("first ").text("line");
    EXPECT_EQ(screen(), "14,0 first line\n");
    code(next_line).text("second");
    EXPECT_EQ(screen(), "13,0 first line\n14,0 second\n");
    code(next_line).text("third");
    EXPECT_EQ(screen(), "13,0 second\n14,0 third\n");
    code(roll_3).code(next_line);
    EXPECT_EQ(screen(), "12,0 second\n13,0 third\n");
}

TEST_F(Cea608, RollUpMovesToAnotherBaseRow)
{
    code(roll_2).preamble(0x14, 0x70).text("one").code(next_line).text("two");
    preamble(0x11, 0x70); // row 2
    EXPECT_EQ(screen(), "0,0 one\n1,0 two\n");
    preamble(0x11, 0x50); // row 1 has no room for two
    EXPECT_EQ(screen(), "0,0 one\n1,0 two\n");
}

TEST_F(Cea608, RollUpLettersJoinACueThatIsJustOld)
{
    code(roll_2).preamble(0x14, 0x70).text("It is").text(" raining").wait(frame * 20);
    text(" in the north").wait(frame * 20).code(next_line);
    EXPECT_EQ(cues(), "It is raining [position:10% align:start]\n"
                      "It is raining in the north [position:10% align:start]\n");
}

TEST_F(Cea608, PaintOnShowsLettersAsTheyCome)
{
    code(direct).preamble(0x14, 0x50).text("ab");
    EXPECT_EQ(screen(), "13,0 ab\n");
    text("cd");
    EXPECT_EQ(screen(), "13,0 abcd\n");
    code(back).text("e");
    EXPECT_EQ(screen(), "13,0 abce\n");
    preamble(0x14, 0x50).code(delete_row);
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea608, PlacesByPreambleAndTab)
{
    code(direct).preamble(0x17, 0x54); // row 9, indented by 8
    send(control_code(0x17, 0x23)).text("x");
    EXPECT_EQ(screen(), "8,11 x\n");
}

TEST_F(Cea608, RowsOfAllPreambles)
{
    const uint8_t first_bytes[15] = {0x11, 0x11, 0x12, 0x12, 0x15, 0x15, 0x16, 0x16,
                                     0x17, 0x17, 0x10, 0x13, 0x13, 0x14, 0x14};
    const uint8_t second_bytes[15] = {0x40, 0x60, 0x40, 0x60, 0x40, 0x60, 0x40, 0x60,
                                      0x40, 0x60, 0x40, 0x40, 0x60, 0x40, 0x60};
    for (int row = 0; row < 15; ++row) {
        code(erase).code(direct).preamble(first_bytes[row], second_bytes[row]).text("x");
        EXPECT_EQ(screen(), std::to_string(row) + ",0 x\n");
    }
}

TEST_F(Cea608, StylesBecomeTags)
{
    code(load).code(erase_hidden).preamble(0x14, 0x68).text("red"); // row 15, red
    send(control_code(0x11, 0x2E)).text("slanted");                 // italics keep the colour
    send(control_code(0x11, 0x21)).text("line <&>");                // white, underlined
    code(show).code(erase);
    EXPECT_EQ(cues(), "<c.red>red </c><c.red><i>slanted </i></c><u>line &lt;&amp;&gt;</u>"
                      " [position:10% align:start]\n");
}

TEST_F(Cea608, CharactersBeyondAscii)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("Se*|");
    send(control_code(0x11, 0x37));           // an eighth note
    text("U").send(control_code(0x12, 0x23)); // replaces its stand-in
    text("o").send(control_code(0x13, 0x26));
    code(show).code(erase);
    EXPECT_EQ(cues(), "Seá÷♪Úò [position:10% align:start]\n");
}

TEST_F(Cea608, ALineThatIsFullKeepsItsLastColumn)
{
    code(direct).preamble(0x14, 0x70).text("0123456789012345678901234567890123456789");
    EXPECT_EQ(screen(), "14,0 01234567890123456789012345678909\n");
}

TEST_F(Cea608, LastColumnOfAFullLineCanBeTakenBack)
{
    code(direct).preamble(0x14, 0x7E).text("wxyz"); // the last four columns
    EXPECT_EQ(screen(), "14,28 wxyz\n");
    send(control_code(0x12, 0x29)); // an apostrophe for its stand-in
    EXPECT_EQ(screen(), "14,28 wxy'\n");
    code(back).code(back);
    EXPECT_EQ(screen(), "14,28 wx\n");
}

TEST_F(Cea608, BackspaceInTheFirstColumnDeletesNothing)
{
    code(direct).preamble(0x14, 0x70).text("ab").preamble(0x14, 0x70).code(back);
    EXPECT_EQ(screen(), "14,0 ab\n");
}

TEST_F(Cea608, FlashTakesUpAColumn)
{
    code(direct).preamble(0x14, 0x70).text("a").code(flash).text("b");
    EXPECT_EQ(screen(), "14,0 a b\n");
}

TEST_F(Cea608, RepeatedCodeCountsOnceAndASingleOneToo)
{
    const std::vector<caption_bytes> twice = control_code(0x14, next_line);
    code(roll_3).preamble(0x14, 0x70).text("a").send({twice[0]}).text("b").send(twice);
    EXPECT_EQ(screen(), "12,0 a\n13,0 b\n");
}

TEST_F(Cea608, BothChannelsOfAField)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("one");
    send(control_code(0x1C, load)).send(control_code(0x1C, 0x70)).text("two");
    send(control_code(0x1C, show)).code(show);
    EXPECT_EQ(screen(0), "14,0 one\n");
    EXPECT_EQ(screen(1), "14,0 two\n");
}

TEST_F(Cea608, TextAndProgrammeDataAreNoCaptions)
{
    code(roll_2).preamble(0x14, 0x70).text("news");
    code(text_mode).text("weather").code(next_line).text("sport");
    EXPECT_EQ(screen(), "14,0 news\n");
    code(roll_2).text("!");
    send({{.first = with_odd_parity(0x01), .second = with_odd_parity(0x03)}}).text("TITLE");
    EXPECT_EQ(screen(), "14,0 news!\n");
    code(roll_2).text("?");
    EXPECT_EQ(screen(), "14,0 news!?\n");
}

TEST_F(Cea608, WrongParityShowsNothingWrong)
{
    code(roll_2).preamble(0x14, 0x70).text("good");
    for (caption_bytes pair : letters("evil")) {
        pair.first ^= 0x80;
        send({pair});
    }
    for (caption_bytes pair : control_code(0x14, erase)) {
        pair.second ^= 0x80;
        send({pair});
    }
    EXPECT_EQ(screen(), "14,0 good\n");
    caption_bytes half = letters("ab")[0];
    half.second ^= 0x80;
    send({half});
    EXPECT_EQ(screen(), "14,0 gooda\n");
}

TEST_F(Cea608, LettersBeforeAnyModeAreNotShown)
{
    text("middle of a caption").preamble(0x14, 0x70).text("still").code(next_line);
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea608, ChannelThatFallsSilentIsErased)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("stuck").code(show);
    const int64_t last = now - frame;
    wait(cea608_erase_ticks - 10 * frame);
    EXPECT_EQ(screen(), "14,0 stuck\n");
    wait(20 * frame);
    EXPECT_EQ(screen(), "");
    const std::deque<broadcast_cue>& all = field.channels[0].cues.cues;
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().end, last + cea608_erase_ticks);
}

TEST_F(Cea608, TextChannelKeepsNoCaptionOnTheScreen)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("stuck").code(show);
    for (int second = 0; second < 17; ++second) {
        code(text_mode).text("weather");
        wait(pts_ticks_per_second);
    }
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea608, CaptionThatIsNotShownIsErasedWithTheSilentChannel)
{
    code(load).code(erase_hidden).preamble(0x14, 0x70).text("stale");
    wait(cea608_erase_ticks + 10 * frame);
    code(load).preamble(0x13, 0x70).text("new").code(show);
    EXPECT_EQ(screen(), "12,0 new\n");
}

TEST_F(Cea608, NothingIsCarriedOverALeapOfTheClock)
{
    code(roll_2).preamble(0x14, 0x70).text("before");
    field.forget();
    EXPECT_EQ(screen(), "");
    EXPECT_EQ(cues(), "before [position:10% align:start]\n");
    text("after");
    EXPECT_EQ(screen(), "");
}

} // namespace
