#include "tools/captions/screen_text.hpp"

#include <gtest/gtest.h>

namespace
{

std::vector<caption_cell> cells(std::u32string_view text, caption_style style = {})
{
    std::vector<caption_cell> made;
    for (const char32_t character : text)
        made.push_back({.character = character, .style = style});
    return made;
}

struct placed_line {
    int row;
    int column;
    std::u32string_view text;
};

caption_screen screen(const std::vector<placed_line>& lines)
{
    caption_screen made;
    for (const placed_line& line : lines)
        add_caption_line(made, line.row, line.column, cells(line.text));
    return made;
}

struct settings_case {
    std::string_view name;
    caption_screen screen;
    std::string_view want;
};

TEST(ScreenText, Settings)
{
    const settings_case cases[] = {
        {"nothing", screen({}), ""},
        {"centred at the bottom", screen({{14, 13, U"hello"}}), ""},
        {"both lines centred", screen({{13, 10, U"hello there"}, {14, 13, U"world"}}), ""},
        {"left at the bottom", screen({{14, 0, U"hello"}}), "position:10% align:start"},
        {"right", screen({{14, 24, U"hello"}}), "position:70% align:start"},
        {"the leftmost line counts", screen({{13, 12, U"a"}, {14, 4, U"b"}}),
         "position:20% align:start"},
        {"centred at the top", screen({{0, 13, U"hello"}}), "line:10%"},
        {"in the middle", screen({{7, 0, U"hello"}}), "line:47% position:10% align:start"},
        {"last row that is not the bottom", screen({{11, 13, U"hello"}}), "line:69%"},
        {"first row that is", screen({{12, 13, U"hello"}}), ""},
    };
    for (const settings_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(vtt_settings(c.screen), c.want);
    }
}

TEST(ScreenText, BlanksAroundALineAreNoneOfIt)
{
    const caption_screen made = screen({{3, 2, U"  a b "}, {4, 0, U"   "}});
    ASSERT_EQ(made.lines.size(), 1U);
    EXPECT_EQ(made.lines[0].column, 4);
    EXPECT_EQ(vtt_text(made), "a b");
}

TEST(ScreenText, MarkupInACaptionIsText)
{
    EXPECT_EQ(vtt_text(screen({{0, 0, U"<b>&amp; -->"}})), "&lt;b&gt;&amp;amp; --&gt;");
}

TEST(ScreenText, EveryLineClosesItsTags)
{
    caption_screen made;
    const caption_style style{.italic = true, .underline = true, .colour = caption_colour::green};
    add_caption_line(made, 0, 0, cells(U"one", style));
    add_caption_line(made, 1, 0, cells(U"two", style));
    EXPECT_EQ(vtt_text(made), "<c.lime><i><u>one</u></i></c>\n<c.lime><i><u>two</u></i></c>");
}

TEST(ScreenText, CharactersOfAllLengths)
{
    EXPECT_EQ(vtt_text(screen({{0, 0, U"aé♪😀"}})), "aé♪😀");
    caption_screen made = screen({{0, 0, U"abcd"}});
    made.lines[0].cells[1].character = 0xD800;
    made.lines[0].cells[2].character = 0x1B;
    EXPECT_EQ(vtt_text(made), "a\xEF\xBF\xBD\xEF\xBF\xBD"
                              "d");
}

} // namespace
