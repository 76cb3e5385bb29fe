#include "tools/captions/cea608.hpp"

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

#include "tools/captions/cea608_characters.hpp"

namespace
{

using mode = cea608_channel::mode;

// The miscellaneous control codes, the second byte behind 0x14 or 0x15 (CEA-608, table 52).
enum : uint8_t {
    resume_caption_loading = 0x20,
    backspace = 0x21,
    delete_to_end_of_row = 0x24,
    roll_up_2 = 0x25,
    roll_up_4 = 0x27,
    flash_on = 0x28,
    resume_direct_captioning = 0x29,
    text_restart = 0x2A,
    resume_text_display = 0x2B,
    erase_displayed_memory = 0x2C,
    carriage_return = 0x2D,
    erase_non_displayed_memory = 0x2E,
    end_of_caption = 0x2F,
};

bool has_odd_parity(uint8_t byte)
{
    return std::popcount(byte) % 2 == 1;
}

caption_screen screen_of(const cea608_memory& memory)
{
    caption_screen screen{.rows = cea608_rows, .columns = cea608_columns, .lines = {}};
    for (int row = 0; row < cea608_rows; ++row) {
        const auto& cells = memory.cells[static_cast<size_t>(row)];
        add_caption_line(screen, row, 0, {cells.begin(), cells.end()});
    }
    return screen;
}

void show(cea608_channel& channel, int64_t time, screen_change change)
{
    channel.cues.show(time, screen_of(channel.displayed), change);
}

cea608_memory& written_memory(cea608_channel& channel)
{
    return channel.at == mode::pop_on ? channel.hidden : channel.displayed;
}

// The column that a letter goes to; a row that is full keeps its last one for it.
int written_column(const cea608_channel& channel)
{
    return std::min(channel.column, cea608_columns - 1);
}

caption_cell& cell_at(cea608_channel& channel, int column)
{
    return written_memory(channel)
        .cells[static_cast<size_t>(channel.row)][static_cast<size_t>(column)];
}

bool takes_characters(const cea608_channel& channel)
{
    return channel.at != mode::none && !channel.in_text;
}

// Letters reach the screen at once unless a pop-on caption is being loaded.
void show_letters(cea608_channel& channel, int64_t time)
{
    if (channel.at == mode::roll_up || channel.at == mode::paint_on)
        show(channel, time, screen_change::letters);
}

void put_character(cea608_channel& channel, char32_t character)
{
    if (!takes_characters(channel))
        return;
    const int column = written_column(channel);
    cell_at(channel, column) = {.character = character, .style = channel.pen};
    channel.column = column + 1;
}

void step_back(cea608_channel& channel)
{
    if (!takes_characters(channel))
        return;
    channel.column = std::max(channel.column - 1, 0);
    cell_at(channel, channel.column) = {};
}

// The rows of a roll-up caption: `channel.row` is the lowest, and all of them are on the screen.
int top_row(const cea608_channel& channel)
{
    return channel.row - channel.roll_rows + 1;
}

int lowest_row(const cea608_channel& channel, int row)
{
    return std::max(row, channel.roll_rows - 1);
}

void clear_all_but_roll_rows(cea608_channel& channel)
{
    for (int row = 0; row < cea608_rows; ++row)
        if (row < top_row(channel) || row > channel.row)
            channel.displayed.cells[static_cast<size_t>(row)].fill({});
}

void start_roll_up(cea608_channel& channel, int64_t time, int rows)
{
    if (channel.at != mode::roll_up) {
        channel.displayed = {};
        channel.hidden = {};
        channel.row = cea608_rows - 1;
        channel.column = 0;
        channel.pen = {};
    }
    channel.at = mode::roll_up;
    channel.in_text = false;
    channel.roll_rows = rows;
    channel.row = lowest_row(channel, channel.row);
    clear_all_but_roll_rows(channel);
    show(channel, time, screen_change::whole);
}

void roll_up(cea608_channel& channel, int64_t time)
{
    if (channel.at != mode::roll_up || channel.in_text)
        return;
    auto& cells = channel.displayed.cells;
    for (int row = top_row(channel); row < channel.row; ++row)
        cells[static_cast<size_t>(row)] = cells[static_cast<size_t>(row) + 1];
    cells[static_cast<size_t>(channel.row)].fill({});
    channel.column = 0;
    channel.pen = {};
    show(channel, time, screen_change::whole);
}

// A preamble address code may move a roll-up caption to another base row, with all that it shows.
void move_roll_up(cea608_channel& channel, int row)
{
    const cea608_memory old = channel.displayed;
    const int old_row = channel.row;
    channel.displayed = {};
    channel.row = row;
    for (int i = 0; i < channel.roll_rows; ++i)
        channel.displayed.cells[static_cast<size_t>(row - i)] =
            old.cells[static_cast<size_t>(old_row - i)];
}

void resume(cea608_channel& channel, mode resumed)
{
    channel.at = resumed;
    channel.in_text = false;
}

void take_miscellaneous(cea608_channel& channel, int64_t time, uint8_t code)
{
    switch (code) {
    case resume_caption_loading:
        resume(channel, mode::pop_on);
        break;
    case backspace:
        if (channel.column > 0)
            step_back(channel);
        show_letters(channel, time);
        break;
    case delete_to_end_of_row:
        for (int column = written_column(channel);
             takes_characters(channel) && column < cea608_columns; ++column)
            cell_at(channel, column) = {};
        show_letters(channel, time);
        break;
    case flash_on: // takes up a column, as a mid-row code does
        put_character(channel, U' ');
        show_letters(channel, time);
        break;
    case resume_direct_captioning:
        resume(channel, mode::paint_on);
        break;
    case text_restart:
    case resume_text_display:
        channel.in_text = true;
        break;
    case erase_displayed_memory:
        channel.displayed = {};
        show(channel, time, screen_change::whole);
        break;
    case carriage_return:
        roll_up(channel, time);
        break;
    case erase_non_displayed_memory:
        channel.hidden = {};
        break;
    case end_of_caption:
        resume(channel, mode::pop_on);
        std::swap(channel.displayed, channel.hidden);
        show(channel, time, screen_change::whole);
        break;
    default:
        if (code >= roll_up_2 && code <= roll_up_4)
            start_roll_up(channel, time, code - roll_up_2 + 2);
    }
}

// What a mid-row code and a preamble address code say of the letters behind them: a colour or
// italics, and underlining in the lowest bit.
caption_style pen_of(uint8_t attribute)
{
    constexpr int italics = 7;
    const int colour = attribute >> 1;
    caption_style pen;
    pen.underline = (attribute & 1) != 0;
    pen.italic = colour == italics;
    if (colour < italics)
        pen.colour = static_cast<caption_colour>(colour);
    return pen;
}

void take_mid_row(cea608_channel& channel, uint8_t code)
{
    const caption_colour colour = channel.pen.colour;
    put_character(channel, U' ');
    channel.pen = pen_of(code & 0x0F);
    if (channel.pen.italic)
        channel.pen.colour = colour; // italics leave the colour as it is
}

// The row of a preamble address code, from 0; -1 for one that is none (CEA-608, table 53).
int row_of(uint8_t first, uint8_t second)
{
    constexpr int upper_rows[8] = {10, 0, 2, 11, 13, 4, 6, 8};
    const bool is_lower = (second & 0x20) != 0;
    if (first == 0x10)
        return is_lower ? -1 : upper_rows[0];
    return upper_rows[first & 7] + (is_lower ? 1 : 0);
}

void take_preamble(cea608_channel& channel, int64_t time, uint8_t first, uint8_t second)
{
    int row = row_of(first, second);
    if (row < 0 || !takes_characters(channel))
        return;
    if (channel.at == mode::roll_up)
        row = lowest_row(channel, row);
    if (channel.at == mode::roll_up && row != channel.row) {
        move_roll_up(channel, row);
        show(channel, time, screen_change::whole);
    }
    channel.row = row;
    const auto attribute = static_cast<uint8_t>(second & 0x1F);
    const bool indents = (attribute & 0x10) != 0;
    channel.column = indents ? ((attribute >> 1) & 7) * 4 : 0;
    channel.pen = indents ? caption_style{} : pen_of(attribute);
    channel.pen.underline = (attribute & 1) != 0;
}

// What the text channel beside it is sent keeps no caption on the screen.
void note_data(cea608_channel& channel, int64_t time)
{
    if (channel.in_text)
        return;
    channel.last_taken = time;
    channel.is_silent = false;
}

void take_code(cea608_channel& channel, int64_t time, uint8_t first, uint8_t second)
{
    if (second >= 0x40) {
        take_preamble(channel, time, first, second);
    } else if ((first == 0x14 || first == 0x15) && second < 0x30) {
        take_miscellaneous(channel, time, second);
    } else if (first == 0x17 && second >= 0x21 && second <= 0x23) { // tab offsets
        if (takes_characters(channel))
            channel.column = std::min(channel.column + (second & 3), cea608_columns - 1);
    } else if (first == 0x11) {
        if (second < 0x30)
            take_mid_row(channel, second);
        else
            put_character(channel, cea608_special_character(second));
        show_letters(channel, time);
    } else if (first == 0x12 || first == 0x13) {
        // The character before stands in for this one in receivers that do not have it.
        step_back(channel);
        put_character(channel, cea608_extended_character(first & 1, second));
        show_letters(channel, time);
    }
}

} // namespace

void cea608_field::take(int64_t time, uint8_t first, uint8_t second)
{
    if (!has_odd_parity(first) || (!has_odd_parity(second) && (first & 0x60) == 0))
        return;
    const bool second_is_sound = has_odd_parity(second);
    first &= 0x7F;
    second = second_is_sound ? second & 0x7F : 0;

    constexpr uint8_t first_control = 0x10;
    if (first >= first_control && first < 0x20) {
        take_control(time, first, second);
        return;
    }
    last_control = 0;
    if (first > 0 && first < first_control)
        selected = -1; // programme data, up to the next code of a caption channel
    if (selected < 0 || first < 0x20)
        return;
    cea608_channel& channel = channels[static_cast<size_t>(selected)];
    note_data(channel, time);
    put_character(channel, cea608_basic_character(first));
    if (second >= 0x20)
        put_character(channel, cea608_basic_character(second));
    show_letters(channel, time);
}

// Codes are sent twice, so that one may be lost; a repetition at once is passed over.
void cea608_field::take_control(int64_t time, uint8_t first, uint8_t second)
{
    if (second < 0x20)
        return;
    constexpr uint8_t second_channel = 0x08;
    selected = (first & second_channel) != 0 ? 1 : 0;
    cea608_channel& channel = channels[static_cast<size_t>(selected)];

    const auto control = static_cast<uint16_t>((first << 8) | second);
    const bool is_repetition = control == last_control;
    last_control = is_repetition ? uint16_t{0} : control;
    if (!is_repetition)
        take_code(channel, time, first & ~second_channel & 0x1F, second);
    note_data(channel, time);
}

void cea608_field::advance(int64_t time)
{
    for (cea608_channel& channel : channels) {
        if (!channel.is_silent && time - channel.last_taken >= cea608_erase_ticks) {
            channel.displayed = {};
            channel.hidden = {};
            channel.is_silent = true;
            show(channel, channel.last_taken + cea608_erase_ticks, screen_change::whole);
        }
        channel.cues.advance(time);
    }
}

void cea608_field::forget()
{
    for (cea608_channel& channel : channels) {
        screen_cues kept = std::move(channel.cues); // they have not been taken yet
        kept.forget();
        channel = {};
        channel.cues = std::move(kept);
    }
    selected = -1;
    last_control = 0;
}
