// Pages of teletext as a stream shows them. Bytes are as EN 300 706 prints them, lowest bit first.

#include "tools/captions/teletext_stream.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "tests/support/caption_data.hpp"

namespace
{

// EN 300 706, 8.2, table 2.
const uint8_t coded[16] = {0x15, 0x02, 0x49, 0x5E, 0x64, 0x73, 0x38, 0x2F,
                           0xD0, 0xC7, 0x8C, 0x9B, 0xA1, 0xB6, 0xFD, 0xEA};

byte_string address(int page, int number)
{
    return {coded[(page >> 8 & 7) | (number & 1) << 3], coded[number >> 1]};
}

struct header_fields {
    int page = 0x888;
    bool erases = true;
    bool in_series = false;
    int subcode = 0; // its lowest 4 bits
};

byte_string header(const header_fields& fields)
{
    byte_string packet = address(fields.page, 0);
    append(packet, byte_string{coded[fields.page & 15], coded[fields.page >> 4 & 15],
                               coded[fields.subcode], coded[fields.erases ? 8 : 0], coded[0],
                               coded[8], // a subtitle page
                               coded[0], coded[fields.in_series ? 1 : 0]});
    packet.resize(teletext_packet_bytes, with_odd_parity(' '));
    return packet;
}

byte_string row(int page, int number, std::string_view text)
{
    byte_string packet = address(page, number);
    for (const char letter : std::string("\x0B\x0B") + std::string(text) + "\x0A\x0A") // a box
        packet.push_back(with_odd_parity(static_cast<uint8_t>(letter)));
    packet.resize(teletext_packet_bytes, with_odd_parity(' '));
    return packet;
}

uint8_t reversed(uint8_t byte)
{
    uint8_t other = 0;
    for (int bit = 0; bit < 8; ++bit)
        other = static_cast<uint8_t>(other | ((byte >> bit & 1) << (7 - bit)));
    return other;
}

byte_string pes_payload(const std::vector<byte_string>& packets)
{
    byte_string payload = {0x10};
    for (const byte_string& packet : packets) {
        append(payload, byte_string{0x03, 0x2C, 0xE8, 0xE4});
        for (const uint8_t byte : packet)
            payload.push_back(reversed(byte));
    }
    return payload;
}

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
        stream.take(time, pes_payload(packets));
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

    const byte_string filler = header({.page = 0x8FF, .erases = false});
    teletext_stream stream;
};

constexpr int64_t second = 90000;

TEST_F(TeletextStream, PageIsShownFromItsHeaderOnceTheNextHasCome)
{
    at(second, {header({}), row(0x888, 20, "one"), row(0x888, 22, "two")});
    EXPECT_EQ(screen(), "");
    at(second + 3600, {filler});
    EXPECT_EQ(screen(), "20,2 one\n22,2 two\n");
    EXPECT_EQ(stream.pages[0x888].cues.since, second);
    at(3 * second, {header({}), filler});
    EXPECT_EQ(screen(), "");
    ASSERT_EQ(stream.pages[0x888].cues.cues.size(), 1U);
    EXPECT_EQ(stream.pages[0x888].cues.cues[0].end, 3 * second);
}

TEST_F(TeletextStream, PageWithoutErasureKeepsItsOtherRows)
{
    at(second, {header({}), row(0x888, 20, "one"), filler});
    at(2 * second, {header({.erases = false}), row(0x888, 22, "two"), filler});
    EXPECT_EQ(screen(), "20,2 one\n22,2 two\n");
}

TEST_F(TeletextStream, OtherPagesAreNotShown)
{
    at(second, {header({.page = 0x100}), row(0x100, 20, "news"), header({}), row(0x888, 20, "one"),
                row(0x100, 21, "more news"), header({.page = 0x887}), row(0x887, 20, "other")});
    EXPECT_EQ(screen(), "20,2 one\n");
    EXPECT_EQ(stream.pages.size(), 1U);
}

TEST_F(TeletextStream, HeaderOfAnotherMagazineEndsAPageOnlyInSeries)
{
    at(second, {header({}), row(0x888, 20, "one"), header({.page = 0x1FF, .in_series = false})});
    EXPECT_EQ(screen(), "");
    at(second, {header({.page = 0x1FF, .in_series = true})});
    EXPECT_EQ(screen(), "20,2 one\n");
}

TEST_F(TeletextStream, PageThatNothingEndsIsCompleteAfterASecond)
{
    at(second, {header({}), row(0x888, 20, "one")});
    stream.advance(2 * second);
    EXPECT_EQ(screen(), "");
    stream.advance(2 * second + 1);
    EXPECT_EQ(screen(), "20,2 one\n");
}

TEST_F(TeletextStream, AllSubpagesAreTheSamePage)
{
    for (int subcode = 0; subcode < 4; ++subcode) {
        const std::string text(1, static_cast<char>('a' + subcode));
        at(second + subcode * second, {header({.subcode = subcode}), row(0x888, 20, text), filler});
        EXPECT_EQ(screen(), "20,2 " + text + "\n");
    }
}

TEST_F(TeletextStream, WrongBitsShowNothingWrong)
{
    byte_string damaged = row(0x888, 20, "evil");
    damaged[5] ^= 0x01; // parity
    byte_string elsewhere = row(0x888, 21, "evil");
    elsewhere[0] ^= 0x11; // two bits: the address cannot be read
    byte_string mended = row(0x888, 22, "good");
    mended[0] ^= 0x10; // one bit
    at(second, {header({}), damaged, elsewhere, mended, filler});
    EXPECT_EQ(screen(), "22,2 good\n");

    byte_string unreadable = header({});
    unreadable[2] ^= 0x03; // the page number
    at(2 * second, {unreadable, row(0x888, 20, "evil"), filler});
    EXPECT_EQ(screen(), "22,2 good\n");
}

TEST_F(TeletextStream, PageWhoseErasureIsLostIsForgotten)
{
    at(second, {header({}), row(0x888, 20, "stuck"), filler});
    stream.advance(second + teletext_erase_ticks - 1);
    EXPECT_NE(screen(), "");
    stream.advance(second + teletext_erase_ticks);
    EXPECT_EQ(screen(), "");
    EXPECT_EQ(stream.pages[0x888].cues.cues.back().end, second + teletext_erase_ticks);
}

TEST_F(TeletextStream, NothingIsCarriedOverALeapOfTheClock)
{
    at(second, {header({}), row(0x888, 20, "before"), filler});
    stream.forget();
    EXPECT_EQ(screen(), "");
    at(50 * second, {header({.erases = false}), row(0x888, 22, "after"), filler});
    EXPECT_EQ(screen(), "22,2 after\n");
}

TEST_F(TeletextStream, DataUnitsThatAreNone)
{
    byte_string payload = pes_payload({header({}), row(0x888, 20, "one"), filler});
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
