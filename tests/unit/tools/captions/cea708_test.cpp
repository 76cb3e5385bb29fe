// A caption service of CEA-708, block by block, and the packets that carry the blocks.

#include "tools/captions/cea708.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "tools/captions/cea708_packets.hpp"
#include "tools/captions/screen_text.hpp"

namespace
{

constexpr int64_t second = 90000;

struct window_fields {
    uint8_t id = 0;
    bool visible = false;
    bool relative = false;
    uint8_t vertical = 70; // of 75 lines, or of 100
    uint8_t horizontal = 0;
    uint8_t anchor_id = 6; // its lower left
    uint8_t rows = 2;
    uint8_t columns = 32;
    uint8_t style = 1;
};

byte_string define(const window_fields& w)
{
    return {static_cast<uint8_t>(0x98 + w.id),
            static_cast<uint8_t>(w.visible ? 0x38 : 0x18),
            static_cast<uint8_t>((w.relative ? 0x80 : 0) | w.vertical),
            w.horizontal,
            static_cast<uint8_t>(w.anchor_id << 4 | (w.rows - 1)),
            static_cast<uint8_t>(w.columns - 1),
            static_cast<uint8_t>(w.style << 3 | 1)};
}

byte_string at(uint8_t row, uint8_t column)
{
    return {0x92, row, column};
}

class Cea708 : public testing::Test
{
public:
    Cea708& send(std::initializer_list<std::span<const uint8_t>> parts)
    {
        const byte_string block = concat(parts);
        service.advance(now);
        service.take(now, block);
        now += second;
        return *this;
    }

    std::string screen() const
    {
        std::string lines;
        for (const caption_line& line : service.cues.shown.lines) {
            lines += std::to_string(line.row) + "," + std::to_string(line.column) + " ";
            for (const caption_cell& cell : line.cells)
                lines += cell.character < 0x80 ? static_cast<char>(cell.character) : '?';
            lines += "\n";
        }
        return lines;
    }

    std::string cues()
    {
        std::string all;
        for (const broadcast_cue& cue : service.cues.cues)
            all += cue.text + "\n";
        return all;
    }

    const byte_string new_line = {0x0D};
    const byte_string show_0 = {0x89, 0x01};
    const byte_string hide_0 = {0x8A, 0x01};

    cea708_service service;
    int64_t now = 10 * second;
};

TEST_F(Cea708, WindowAppearsAsAWholeWhenItIsDisplayed)
{
    send({define({}), bytes_of("Hello"), new_line, bytes_of("there")});
    EXPECT_EQ(screen(), "");
    const int64_t shown_at = now;
    send({show_0});
    EXPECT_EQ(screen(), "12,0 Hello\n13,0 there\n");
    send({hide_0});
    EXPECT_EQ(screen(), "");
    ASSERT_EQ(service.cues.cues.size(), 1U);
    EXPECT_EQ(service.cues.cues[0].start, shown_at);
    EXPECT_EQ(service.cues.cues[0].end, shown_at + second);
}

TEST_F(Cea708, LinesRollUpInAVisibleWindow)
{
    send({define({.visible = true}), bytes_of("one"), new_line, bytes_of("two")});
    EXPECT_EQ(screen(), "12,0 one\n13,0 two\n");
    send({new_line, bytes_of("three")});
    EXPECT_EQ(screen(), "12,0 two\n13,0 three\n");
    send({byte_string{0x08, 0x08}}); // backspaces
    EXPECT_EQ(screen(), "12,0 two\n13,0 thr\n");
    send({byte_string{0x0E}, bytes_of("x")}); // the row anew
    EXPECT_EQ(screen(), "12,0 two\n13,0 x\n");
    send({byte_string{0x0C}, bytes_of("y")}); // the window anew
    EXPECT_EQ(screen(), "12,0 y\n");
}

TEST_F(Cea708, PlacesOfWindows)
{
    struct place_case {
        window_fields window;
        std::string_view want;
    };
    const place_case cases[] = {
        {{.vertical = 0, .horizontal = 0, .anchor_id = 0}, "0,0 x\n"},
        {{.vertical = 37, .horizontal = 105, .anchor_id = 0, .columns = 10}, "7,21 x\n"},
        {{.vertical = 37, .horizontal = 105, .anchor_id = 4, .columns = 10}, "6,16 x\n"},
        {{.vertical = 37, .horizontal = 105, .anchor_id = 8, .columns = 10}, "5,11 x\n"},
        {{.relative = true, .vertical = 50, .horizontal = 50, .anchor_id = 0, .columns = 10},
         "7,21 x\n"},
        {{.vertical = 127, .horizontal = 255, .anchor_id = 0, .rows = 16, .columns = 64},
         "0,0 x\n"},
        {{.vertical = 74, .horizontal = 105, .anchor_id = 7, .columns = 9, .style = 3},
         "12,21 x\n"},
    };
    for (const place_case& c : cases) {
        service = {};
        window_fields window = c.window;
        window.visible = true;
        send({define(window), bytes_of("x")});
        EXPECT_EQ(screen(), c.want);
    }
}

TEST_F(Cea708, TwoWindowsShareTheScreen)
{
    send({define({.id = 1, .visible = true}), bytes_of("below"),
          define({.id = 2, .visible = true, .vertical = 0, .anchor_id = 0}), bytes_of("above")});
    EXPECT_EQ(screen(), "0,0 above\n12,0 below\n");
    send({byte_string{0x81}, at(1, 3), bytes_of("x")});
    EXPECT_EQ(screen(), "0,0 above\n12,0 below\n13,3 x\n");
    send({byte_string{0x8B, 0x06}}); // toggles both
    EXPECT_EQ(screen(), "");
    send({byte_string{0x8B, 0x04}});
    EXPECT_EQ(screen(), "0,0 above\n");
    send({byte_string{0x88, 0x04}, bytes_of("anew")}); // cleared; the other is still written to
    EXPECT_EQ(screen(), "");
    send({byte_string{0x8C, 0xFF}, bytes_of("nowhere")});
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea708, PensAndCharacters)
{
    send({define({.visible = true}), byte_string{0x91, 0x30, 0, 0}, bytes_of("r"),
          byte_string{0x90, 0x05, 0x80}, bytes_of("i"), byte_string{0x91, 0x3C, 0, 0},
          byte_string{0x90, 0x05, 0x40}, bytes_of("y"), byte_string{0x91, 0x3F, 0, 0},
          byte_string{0x90, 0x05, 0x00},
          byte_string{0xE9, 0x7F, 0x10, 0x30, 0x10, 0x41, 0x18, 0xAC, 0x00}});
    send({byte_string{0x8F}}); // reset
    EXPECT_EQ(screen(), "");
    EXPECT_EQ(cues(), "<c.red>r</c><c.red><i>i</i></c><c.yellow><u>y</u></c>é♪█_가\n");
}

TEST_F(Cea708, CodesOfAnyLengthArePassedOver)
{
    send({define({.visible = true}), byte_string{0x11, 'x', 0x18, 'x', 'x', 0x8D, 'x', 0x8E},
          byte_string{0x10, 0x00, 0x10, 0x08, 'x', 0x10, 0x18, 'x', 'x', 'x'},
          byte_string{0x10, 0x80, 'x', 'x', 'x', 'x', 0x10, 0x90, 0x02, 'x', 'x'},
          byte_string{0x93, 0x96}, bytes_of("ok")});
    EXPECT_EQ(screen(), "12,0 ?ok\n"); // a character of two bytes is shown
}

TEST_F(Cea708, CodesMayBeSpreadOverBlocks)
{
    const byte_string block = concat({define({.visible = true}), at(1, 2), bytes_of("ab")});
    for (const uint8_t byte : block)
        send({byte_string{byte}});
    EXPECT_EQ(screen(), "13,2 ab\n");
}

TEST_F(Cea708, DelayHoldsBackWhatFollows)
{
    const int64_t sent = now;
    send({define({.visible = true}), bytes_of("a"), byte_string{0x8D, 25}, bytes_of("b")});
    send({bytes_of("c")}).send({bytes_of("d")});
    EXPECT_EQ(screen(), "12,0 a\n");
    service.advance(sent + 5 * second / 2);
    EXPECT_EQ(screen(), "12,0 abcd\n");
    service.advance(now += 10 * second);
    EXPECT_EQ(service.cues.cues[0].text, "a");
    EXPECT_EQ(service.cues.cues[0].end, sent + 5 * second / 2);
}

TEST_F(Cea708, DelayIsNoSilence)
{
    const int64_t sent = now;
    send({define({.visible = true}), bytes_of("a"), byte_string{0x8D, 200}, bytes_of("b")});
    service.advance(sent + 18 * second);
    EXPECT_EQ(screen(), "12,0 a\n");
    service.advance(sent + 20 * second);
    EXPECT_EQ(screen(), "12,0 ab\n");
}

TEST_F(Cea708, DelayEndsEarly)
{
    struct end_case {
        std::string name;
        byte_string sent;
        std::string want;
    };
    const end_case cases[] = {
        {"not at all", bytes_of("b"), "12,0 a\n"},
        {"cancelled", concat({bytes_of("b"), byte_string{0x8E}}), "12,0 ab\n"},
        {"the command's bytes as parameters", {0x92, 0x8E, 0x8F}, "12,0 a\n"},
        {"reset", concat({bytes_of("b"), byte_string{0x8F}}), ""},
        {"more than the buffer holds", byte_string(cea708_buffer_bytes + 1, 0x08), ""},
    };
    for (const end_case& c : cases) {
        SCOPED_TRACE(c.name);
        service = {};
        send({define({.visible = true}), bytes_of("a"), byte_string{0x8D, 255}});
        send({c.sent});
        EXPECT_EQ(screen(), c.want);
    }
}

TEST_F(Cea708, LossDeletesAllWindows)
{
    send({define({.visible = true}), bytes_of("old"), byte_string{0x98, 0x38}}); // and half a code
    service.reset(now);
    EXPECT_EQ(screen(), "");
    send({bytes_of("nowhere"), define({.id = 1, .visible = true}), bytes_of("new")});
    EXPECT_EQ(screen(), "12,0 new\n");
}

TEST_F(Cea708, SmallerWindowLosesWhatDoesNotFit)
{
    send({define({.visible = true}), bytes_of("one two"), new_line, bytes_of("three")});
    send({define({.visible = true, .rows = 1, .columns = 3})});
    send({define({.visible = true, .style = 0})});
    EXPECT_EQ(screen(), "12,0 one\n");
}

TEST_F(Cea708, NumberedPenIsPlain)
{
    send({define({.visible = true}), byte_string{0x90, 0x05, 0x80}, bytes_of("slanted"),
          define({.visible = true}), bytes_of(" not")});
    send({byte_string{0x8F}});
    EXPECT_EQ(cues(), "<i>slanted </i>not\n");
}

TEST_F(Cea708, NothingIsWrittenWithoutAWindow)
{
    send({bytes_of("middle of a caption"), new_line, at(3, 3), show_0});
    EXPECT_EQ(screen(), "");
}

TEST_F(Cea708, ServiceThatFallsSilentIsErased)
{
    send({define({.visible = true}), bytes_of("stuck")});
    const int64_t last = now - second;
    service.advance(last + cea708_erase_ticks - 1);
    EXPECT_NE(screen(), "");
    service.advance(last + cea708_erase_ticks);
    EXPECT_EQ(screen(), "");
    EXPECT_EQ(service.cues.cues.back().end, last + cea708_erase_ticks);
}

TEST_F(Cea708, CuesThatNobodyTakesDoNotPileUp)
{
    for (size_t i = 0; i < most_kept_cues + 3; ++i)
        send({byte_string{0x8F}, define({.visible = true}), bytes_of(std::to_string(i))});
    EXPECT_EQ(service.cues.cues.size(), most_kept_cues);
    EXPECT_EQ(service.cues.cues.front().text, "2");
    EXPECT_EQ(service.cues.lost, 2U);
}

TEST_F(Cea708, StackedWindowsMakeNoTextWithoutEnd)
{
    byte_string row;
    for (int i = 0; i < cea708_columns; ++i) {
        const byte_string pen = {0x90, 0x05, static_cast<uint8_t>(i % 2 == 0 ? 0xC0 : 0x80)};
        row = concat({row, pen, byte_string{0x91, 0x30, 0, 0}, bytes_of("&")});
    }
    for (uint8_t id = 0; id < 8; ++id) {
        send({define({.id = id, .visible = true, .rows = 15, .columns = cea708_columns})});
        for (uint8_t line = 0; line < cea708_rows; ++line)
            send({at(line, 0), row});
    }
    const broadcast_cue& last = service.cues.cues.back();
    EXPECT_LE(last.text.size(), most_text_bytes);
    EXPECT_GT(last.text.size(), most_text_bytes / 2);
    EXPECT_TRUE(last.text.ends_with("</c>")); // of a whole line
}

// The blocks of the packets that the bytes make, as "service:length".
std::string blocks_of(const byte_string& bytes, const std::vector<size_t>& starts_again_at = {})
{
    cea708_packets packets;
    std::string text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        packets.take(
            {.type = i == 0 || std::ranges::count(starts_again_at, i) != 0 ? cc_type::dtvcc_start
                                                                           : cc_type::dtvcc_data,
             .first = bytes[i],
             .second = bytes[i + 1]},
            [&text] { text += "lost "; },
            [&text](int service, std::span<const uint8_t> block) {
                text += std::to_string(service) + ":" + std::to_string(block.size()) + " ";
            });
    return text;
}

TEST(Cea708Packets, BlocksOfServices)
{
    // sequence_number 1, packet_size_code 4: 8 bytes in all
    EXPECT_EQ(blocks_of({0x44, 0x22, 'a', 'b', 0x43, 'c', 'd', 'e'}), "1:2 2:3 ");
    EXPECT_EQ(blocks_of({0x44, 0x22, 'a', 'b', 0x00, 'c', 'd', 'e'}), "1:2 "); // filling
    EXPECT_EQ(blocks_of({0x44, 0xE2, 63, 'a', 'b', 0x00, 0, 0}), "63:2 ");     // extended
    EXPECT_EQ(blocks_of({0x44, 0x27, 'a', 'b', 'c', 'd', 'e', 'f'}), "");      // past the end
    EXPECT_EQ(blocks_of({0x44, 0x22, 'a', 'b', 0x43, 'c'}), "");               // not whole
    EXPECT_EQ(blocks_of({0x44, 0x22, 'a', 'b', 0x43, 'c', 0x42, 0x21, 'x', 0}, {6}), "1:1 ");
    // sequence numbers 1 2 2 0: 3 is lost, and a number that stays is not
    EXPECT_EQ(blocks_of({0x42, 0x21, 'a', 0, 0x82, 0x22, 'b', 'c', 0x82, 0x21, 'd', 0, 0x02, 0x21,
                         'e', 0},
                        {4, 8, 12}),
              "1:1 1:2 1:1 lost 1:1 ");
    byte_string largest = {0xC0, 0x3F}; // 128 bytes; the last block is cut off
    largest.resize(128, 'x');
    EXPECT_EQ(blocks_of(largest), "1:31 3:24 3:24 3:24 ");
}

TEST(Cea708Packets, GapIsALossThoughTheNumberFollows)
{
    cea708_packets packets;
    std::string text;
    const auto take = [&](cc_type type, uint8_t a, uint8_t b) {
        packets.take(
            {.type = type, .first = a, .second = b}, [&text] { text += "lost "; },
            [&text](int, std::span<const uint8_t> block) { text += std::to_string(block.size()); });
    };
    take(cc_type::dtvcc_start, 0x42, 0x22);
    packets.lose();
    take(cc_type::dtvcc_data, 'a', 'b'); // of another packet
    EXPECT_EQ(text, "");
    take(cc_type::dtvcc_start, 0x82, 0x22);
    take(cc_type::dtvcc_data, 'a', 'b');
    EXPECT_EQ(text, "lost 2");
}

TEST(Cea708Packets, DataBeforeAStartIsPassedOver)
{
    cea708_packets packets;
    packets.take(
        {.type = cc_type::dtvcc_data, .first = 0x42, .second = 0x21}, [] { ADD_FAILURE(); },
        [](int, std::span<const uint8_t>) { ADD_FAILURE(); });
    EXPECT_TRUE(packets.packet.empty());
}

} // namespace
