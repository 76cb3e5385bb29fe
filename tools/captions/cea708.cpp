#include "tools/captions/cea708.hpp"

#include <algorithm>
#include <utility>

#include "tools/captions/cea708_characters.hpp"

namespace
{

// Code set C0.
enum : uint8_t { backspace = 0x08, form_feed = 0x0C, carriage_return = 0x0D, to_row_start = 0x0E };
constexpr uint8_t extended_set = 0x10; // EXT1
constexpr uint8_t character_16 = 0x18; // P16, a character of two bytes

// Code set C1.
enum : uint8_t {
    set_current_window_0 = 0x80,
    set_current_window_7 = 0x87,
    clear_windows = 0x88,
    display_windows = 0x89,
    hide_windows = 0x8A,
    toggle_windows = 0x8B,
    delete_windows = 0x8C,
    delay = 0x8D,
    delay_cancel = 0x8E,
    reset_service = 0x8F,
    set_pen_attributes = 0x90,
    set_pen_colour = 0x91,
    set_pen_location = 0x92,
    set_window_attributes = 0x97,
    define_window_0 = 0x98,
};

// A code and its parameters, in bytes; 0 when more bytes are needed to tell.
size_t code_bytes(std::span<const uint8_t> code)
{
    const uint8_t first = code[0];
    if (first < 0x20 && first != extended_set)
        return first < 0x10 ? 1 : first < 0x18 ? 2 : 3;
    if (first >= 0x80 && first < 0xA0) {
        constexpr uint8_t parameters[32] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 0, 0,
                                            2, 3, 2, 0, 0, 0, 0, 4, 6, 6, 6, 6, 6, 6, 6, 6};
        return 1 + size_t{parameters[first - 0x80]};
    }
    if (first != extended_set)
        return 1;
    if (code.size() < 2)
        return 0;
    const uint8_t second = code[1]; // of the code sets C2, G2, C3 and G3
    if (second < 0x20)
        return 2 + size_t{second} / 8;
    if (second >= 0x80 && second < 0x90)
        return second < 0x88 ? 6 : 7;
    if (second < 0x90 || second >= 0xA0)
        return 2;
    return code.size() < 3 ? 0 : 3 + size_t{code[2] & 0x1FU}; // of variable length
}

// Whether a delay ends with what waits behind it: a command that cancels delays, a reset, or more
// than the buffer holds.
bool ends_delay(std::span<const uint8_t> codes)
{
    if (codes.size() > cea708_buffer_bytes)
        return true;
    while (!codes.empty()) {
        const size_t bytes = code_bytes(codes);
        if (codes[0] == delay_cancel || codes[0] == reset_service)
            return true;
        if (bytes == 0 || bytes > codes.size())
            return false;
        codes = codes.subspan(bytes);
    }
    return false;
}

void clear(cea708_window& window)
{
    for (auto& row : window.cells)
        row.fill({});
}

// Empties the cells that a smaller window has no more.
void crop(cea708_window& window)
{
    for (int row = 0; row < cea708_rows; ++row) {
        auto& cells = window.cells[static_cast<size_t>(row)];
        std::fill(cells.begin() + (row < window.rows ? window.columns : 0), cells.end(),
                  caption_cell{});
    }
}

void new_line(cea708_window& window)
{
    window.column = 0;
    if (window.row + 1 < window.rows) {
        ++window.row;
        return;
    }
    const auto used = window.cells.begin() + window.rows;
    std::move(window.cells.begin() + 1, used, window.cells.begin());
    (used - 1)->fill({});
}

// Two bits each of red, green and blue; more than a third counts.
caption_colour colour_of(uint8_t rgb)
{
    const bool red = (rgb & 0x20) != 0;
    const bool green = (rgb & 0x08) != 0;
    const bool blue = (rgb & 0x02) != 0;
    if (red && green)
        return blue ? caption_colour::white : caption_colour::yellow;
    if (red)
        return blue ? caption_colour::magenta : caption_colour::red;
    if (green)
        return blue ? caption_colour::cyan : caption_colour::green;
    return blue ? caption_colour::blue : caption_colour::white; // black on black is not seen
}

//   byte 1  reserved:2 visible:1 row_lock:1 column_lock:1 priority:3
//   byte 2  relative_positioning:1 anchor_vertical:7
//   byte 3  anchor_horizontal
//   byte 4  anchor_id:4 row_count:4
//   byte 5  reserved:2 column_count:6
//   byte 6  reserved:2 window_style:3 pen_style:3
void define(cea708_window& window, std::span<const uint8_t> command)
{
    const int window_style = command[6] >> 3 & 7;
    const int pen_style = command[6] & 7;
    if (!window.defined)
        window = {};
    window.defined = true;
    window.visible = (command[1] & 0x20) != 0;
    window.relative = (command[2] & 0x80) != 0;
    window.anchor_vertical = command[2] & 0x7F;
    window.anchor_horizontal = command[3];
    window.anchor_id = std::min(command[4] >> 4, 8);
    window.rows = std::min((command[4] & 0x0F) + 1, cea708_rows);
    window.columns = std::min((command[5] & 0x3F) + 1, cea708_columns);
    window.row = std::min(window.row, window.rows - 1);
    window.column = std::min(window.column, window.columns - 1);
    crop(window);
    if (pen_style != 0)
        window.pen = {}; // none of the pens that have a number is slanted, underlined or coloured
    if (window_style != 0)
        window.centred = window_style == 3 || window_style == 6;
}

// The cell of the screen where a window begins: its anchor lies in 75 lines and 210 columns, or in
// percent.
int window_row(const cea708_window& window)
{
    const int anchor = window.anchor_vertical * cea708_rows / (window.relative ? 100 : 75);
    const int row = anchor - window.rows * (window.anchor_id / 3) / 2;
    return std::clamp(row, 0, cea708_rows - window.rows);
}

int window_column(const cea708_window& window)
{
    const int anchor = window.anchor_horizontal * cea708_columns / (window.relative ? 100 : 210);
    const int column = anchor - window.columns * (window.anchor_id % 3) / 2;
    return std::clamp(column, 0, cea708_columns - window.columns);
}

void add_window(caption_screen& screen, const cea708_window& window)
{
    for (int row = 0; row < window.rows; ++row) {
        const auto& cells = window.cells[static_cast<size_t>(row)];
        const size_t before = screen.lines.size();
        add_caption_line(screen, window_row(window) + row, window_column(window),
                         {cells.begin(), cells.begin() + window.columns});
        if (window.centred && screen.lines.size() > before) {
            caption_line& line = screen.lines.back();
            const int length = static_cast<int>(line.cells.size());
            line.column = window_column(window) + (window.columns - length) / 2;
        }
    }
}

caption_screen screen_of(const std::array<cea708_window, 8>& windows)
{
    caption_screen screen{.rows = cea708_rows, .columns = cea708_columns, .lines = {}};
    for (const cea708_window& window : windows)
        if (window.defined && window.visible)
            add_window(screen, window);
    std::ranges::stable_sort(screen.lines, {}, &caption_line::row);
    return screen;
}

} // namespace

void cea708_service::take(int64_t time, std::span<const uint8_t> block)
{
    if (block.empty())
        return;
    last_taken = time;
    pending.insert(pending.end(), block.begin(), block.end());
    take_pending(time);
}

// Takes the codes that are whole, unless a delay holds them back.
void cea708_service::take_pending(int64_t time)
{
    changed_whole = false;
    changed_letters = false;
    std::span<const uint8_t> rest = pending;
    while (!rest.empty()) {
        const size_t bytes = code_bytes(rest);
        if (bytes == 0 || bytes > rest.size() || (delayed_until >= 0 && !ends_delay(rest)))
            break;
        delayed_until = -1;
        take_code(time, rest.first(bytes));
        rest = rest.subspan(bytes);
    }
    pending.erase(pending.begin(), pending.end() - static_cast<std::ptrdiff_t>(rest.size()));
    if (changed_whole || changed_letters)
        cues.show(time, screen_of(windows),
                  changed_whole ? screen_change::whole : screen_change::letters);
}

void cea708_service::take_code(int64_t time, std::span<const uint8_t> code)
{
    const uint8_t first = code[0];
    if (first == extended_set) {
        const bool is_character = (code[1] >= 0x20 && code[1] < 0x80) || code[1] >= 0xA0;
        if (is_character)
            put_character(cea708_extended_character(code[1]));
    } else if (first == character_16) {
        put_character(static_cast<char32_t>(code[1] << 8 | code[2]));
    } else if (first < 0x20) {
        take_control(first);
    } else if (first == delay) { // in tenths of a second
        delayed_until = time + code[1] * pts_ticks_per_second / 10;
    } else if (first >= 0x80 && first < 0xA0) {
        take_command(code);
    } else {
        put_character(cea708_character(first));
    }
}

void cea708_service::put_character(char32_t character)
{
    cea708_window& window = windows[current];
    if (!window.defined)
        return;
    window.cells[static_cast<size_t>(window.row)][static_cast<size_t>(window.column)] = {
        .character = character, .style = window.pen};
    window.column = std::min(window.column + 1, window.columns - 1);
    changed_letters = changed_letters || window.visible;
}

void cea708_service::take_control(uint8_t code)
{
    cea708_window& window = windows[current];
    if (!window.defined)
        return;
    auto& cells = window.cells[static_cast<size_t>(window.row)];
    if (code == backspace) {
        window.column = std::max(window.column - 1, 0);
        cells[static_cast<size_t>(window.column)] = {};
        changed_letters = changed_letters || window.visible;
        return;
    }
    if (code == form_feed) {
        clear(window);
        window.row = 0;
        window.column = 0;
    } else if (code == carriage_return) {
        new_line(window);
    } else if (code == to_row_start) {
        cells.fill({});
        window.column = 0;
    } else {
        return;
    }
    changed_whole = changed_whole || window.visible;
}

void cea708_service::take_command(std::span<const uint8_t> command)
{
    const uint8_t code = command[0];
    cea708_window& window = windows[current];
    if (code <= set_current_window_7) {
        current = code - set_current_window_0;
    } else if (code <= delete_windows) {
        take_windows_command(command);
    } else if (code == reset_service) {
        windows = {};
        current = 0;
        changed_whole = true;
    } else if (code == set_pen_attributes) { // the second: italics:1 underline:1 edge:3 font:3
        window.pen.italic = (command[2] & 0x80) != 0;
        window.pen.underline = (command[2] & 0x40) != 0;
    } else if (code == set_pen_colour) { // the first: opacity:2 foreground:6
        window.pen.colour = colour_of(command[1] & 0x3F);
    } else if (code == set_pen_location) {
        window.row = std::min(command[1] & 0x0F, window.rows - 1);
        window.column = std::min(command[2] & 0x3F, window.columns - 1);
    } else if (code == set_window_attributes) { // the third ends with justify:2
        window.centred = (command[3] & 3) == 2;
        changed_whole = changed_whole || window.visible;
    } else if (code >= define_window_0) {
        current = code - define_window_0;
        changed_whole = changed_whole || windows[current].visible;
        define(windows[current], command);
        changed_whole = changed_whole || windows[current].visible;
    }
}

// A bit for each window, the lowest for the first.
void cea708_service::take_windows_command(std::span<const uint8_t> command)
{
    for (size_t i = 0; i < windows.size(); ++i) {
        cea708_window& window = windows[i];
        if ((command[1] >> i & 1) == 0 || !window.defined)
            continue;
        const bool was_visible = window.visible;
        if (command[0] == clear_windows)
            clear(window);
        else if (command[0] == display_windows)
            window.visible = true;
        else if (command[0] == hide_windows)
            window.visible = false;
        else if (command[0] == toggle_windows)
            window.visible = !window.visible;
        else
            window = {};
        changed_whole = changed_whole || was_visible || window.visible;
    }
}

void cea708_service::advance(int64_t time)
{
    while (delayed_until >= 0 && time >= delayed_until) {
        last_taken = std::exchange(delayed_until, -1);
        take_pending(last_taken);
    }
    if (delayed_until < 0 && !cues.shown.lines.empty() && time - last_taken >= cea708_erase_ticks) {
        windows = {};
        cues.show(last_taken + cea708_erase_ticks, screen_of(windows), screen_change::whole);
    }
    cues.advance(time);
}

void cea708_service::reset(int64_t time)
{
    windows = {};
    current = 0;
    pending.clear();
    delayed_until = -1;
    cues.show(time, screen_of(windows), screen_change::whole);
}

void cea708_service::forget()
{
    screen_cues kept = std::move(cues); // they have not been taken yet
    kept.forget();
    *this = {};
    cues = std::move(kept);
}
