// Pages of teletext as a stream shows them.

#include "tools/captions/teletext_stream.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "tests/support/teletext_builder.hpp"

namespace
{

class TeletextStream : public testing::Test
{
public:
    void SetUp() override
    {
        if (!teletext_is_built_in)
            GTEST_SKIP() << "built without libzvbi";
        stream.want(0x888);
    }

    TeletextStream& at(int64_t time, const std::vector<byte_string>& packets)
    {
        stream.take(time, teletext_pes_payload(packets));
        return *this;
    }

    std::string screen(int page = 0x888)
    {
        std::string lines;
        for (const caption_line& line : stream.pages[page].cues.shown.lines) {
            lines += std::to_string(line.row) + "," + std::to_string(line.column) + " ";
            for (const caption_cell& cell : line.cells)
                lines += static_cast<char>(cell.character);
            lines += "\n";
        }
        return lines;
    }

    const byte_string filler = teletext_header({.page = 0x8FF, .erases = false});
    teletext_stream stream;
};

constexpr int64_t second = 90000;

TEST_F(TeletextStream, PageIsShownFromItsHeaderOnceTheNextHasCome)
{
    at(second,
       {teletext_header({}), teletext_row(0x888, 20, "one"), teletext_row(0x888, 22, "two")});
    EXPECT_EQ(screen(), "");
    at(second + 3600, {filler});
    EXPECT_EQ(screen(), "20,2 one\n22,2 two\n");
    EXPECT_EQ(stream.pages[0x888].cues.since, second);
    at(3 * second, {teletext_header({}), filler});
    EXPECT_EQ(screen(), "");
    ASSERT_EQ(stream.pages[0x888].cues.cues.size(), 1U);
    EXPECT_EQ(stream.pages[0x888].cues.cues[0].end, 3 * second);
}

TEST_F(TeletextStream, PageWithoutErasureKeepsItsOtherRows)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "one"), filler});
    at(2 * second, {teletext_header({.erases = false}), teletext_row(0x888, 22, "two"), filler});
    EXPECT_EQ(screen(), "20,2 one\n22,2 two\n");
}

TEST_F(TeletextStream, OtherPagesAreNotShown)
{
    at(second,
       {teletext_header({.page = 0x100}), teletext_row(0x100, 20, "news"), teletext_header({}),
        teletext_row(0x888, 20, "one"), teletext_row(0x100, 21, "more news"),
        teletext_header({.page = 0x887}), teletext_row(0x887, 20, "other")});
    EXPECT_EQ(screen(), "20,2 one\n");
    EXPECT_EQ(stream.pages.size(), 1U);
}

TEST_F(TeletextStream, HeaderOfAnotherMagazineEndsAPageOnlyInSeries)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "one"),
                teletext_header({.page = 0x1FF, .in_series = false})});
    EXPECT_EQ(screen(), "");
    at(second, {teletext_header({.page = 0x1FF, .in_series = true})});
    EXPECT_EQ(screen(), "20,2 one\n");
}

TEST_F(TeletextStream, PageThatNothingEndsIsCompleteAfterASecond)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "one")});
    stream.advance(2 * second);
    EXPECT_EQ(screen(), "");
    stream.advance(2 * second + 1);
    EXPECT_EQ(screen(), "20,2 one\n");
    EXPECT_EQ(stream.pages[0x888].cues.since, second);
}

TEST_F(TeletextStream, AllSubpagesAreTheSamePage)
{
    for (int subcode = 0; subcode < 4; ++subcode) {
        const std::string text(1, static_cast<char>('a' + subcode));
        at(second + subcode * second,
           {teletext_header({.subcode = subcode}), teletext_row(0x888, 20, text), filler});
        EXPECT_EQ(screen(), "20,2 " + text + "\n");
    }
}

TEST_F(TeletextStream, WrongBitsShowNothingWrong)
{
    byte_string damaged = teletext_row(0x888, 20, "evil");
    damaged[5] ^= 0x01; // parity
    byte_string elsewhere = teletext_row(0x888, 21, "evil");
    elsewhere[0] ^= 0x11; // two bits: the address cannot be read
    byte_string mended = teletext_row(0x888, 22, "good");
    mended[0] ^= 0x10; // one bit
    at(second, {teletext_header({}), damaged, elsewhere, mended, filler});
    EXPECT_EQ(screen(), "22,2 good\n");

    byte_string unreadable = teletext_header({});
    unreadable[2] ^= 0x03; // the page number
    at(2 * second, {unreadable, teletext_row(0x888, 20, "evil"), filler});
    EXPECT_EQ(screen(), "22,2 good\n");
}

// The library can write them into row 24 for a viewer who has a remote control.
TEST_F(TeletextStream, LinksToOtherPagesAreNoText)
{
    byte_string header = teletext_header({});
    header[7] = teletext_coded[0]; // not marked as a subtitle page, whose last row would be clear
    byte_string links = teletext_address(0x888, 27);
    links.push_back(teletext_coded[0]); // designation code: the page's own links
    for (int i = 0; i < 6; ++i)
        append(links, byte_string{teletext_coded[0], teletext_coded[i], teletext_coded[0],
                                  teletext_coded[0], teletext_coded[0], teletext_coded[0]});
    append(links, byte_string{teletext_coded[8], 0, 0}); // row 24 is to be shown; no checksum
    at(second, {header, links, teletext_row(0x888, 20, "one"), filler});
    EXPECT_EQ(screen(), "20,2 one\n");
}

TEST_F(TeletextStream, PageThatSaysSoIsNotShown)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "one"), filler});
    at(2 * second, {teletext_header({.inhibits = true}), teletext_row(0x888, 20, "two"), filler});
    EXPECT_EQ(screen(), "");
}

// The header of another page may be among the packets that are missing.
TEST_F(TeletextStream, RowsBehindALossAreNotThePages)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "one")});
    stream.lose_packets();
    EXPECT_EQ(screen(), "20,2 one\n");
    at(second, {teletext_row(0x888, 21, "news"), filler});
    EXPECT_EQ(screen(), "20,2 one\n");
}

TEST_F(TeletextStream, PageWhoseErasureIsLostIsForgotten)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "stuck"), filler});
    stream.advance(second + teletext_erase_ticks - 1);
    EXPECT_NE(screen(), "");
    stream.advance(second + teletext_erase_ticks);
    EXPECT_EQ(screen(), "");
    EXPECT_EQ(stream.pages[0x888].cues.cues.back().end, second + teletext_erase_ticks);
}

TEST_F(TeletextStream, NothingIsCarriedOverALeapOfTheClock)
{
    at(second, {teletext_header({}), teletext_row(0x888, 20, "before"), filler});
    stream.forget();
    EXPECT_EQ(screen(), "");
    at(50 * second, {teletext_header({.erases = false}), teletext_row(0x888, 22, "after"), filler});
    EXPECT_EQ(screen(), "22,2 after\n");
}

TEST_F(TeletextStream, DataUnitsThatAreNone)
{
    byte_string payload =
        teletext_pes_payload({teletext_header({}), teletext_row(0x888, 20, "one"), filler});
    byte_string other = payload;
    other[0] = 0x20; // data_identifier of something else
    stream.take(second, other);
    other = payload;
    other[1] = 0xC0; // data_unit_id of something else
    stream.take(second, other);
    EXPECT_EQ(screen(), "");
    for (size_t size = 0; size < payload.size(); size += 7) {
        teletext_stream cut;
        cut.want(0x888);
        cut.take(second, std::span(payload).first(size));
        EXPECT_TRUE(cut.pages[0x888].cues.shown.lines.empty()); // the filler is not whole
    }
    stream.take(second, payload);
    EXPECT_EQ(screen(), "20,2 one\n");
}

} // namespace
