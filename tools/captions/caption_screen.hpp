// What a caption decoder shows at one moment: lines of styled characters at their places in a grid.
// The decoders of all kinds of captions end here, and what follows knows no kind any more.
#pragma once

#include <cstdint>
#include <vector>

enum class caption_colour : uint8_t { white, green, blue, cyan, red, yellow, magenta, black };

struct caption_style {
    bool italic = false;
    bool underline = false;
    caption_colour colour = caption_colour::white;

    bool operator==(const caption_style&) const = default;
};

struct caption_cell {
    char32_t character = 0; // 0: nothing is there, and the picture shows
    caption_style style;

    bool operator==(const caption_cell&) const = default;
};

// A line that shows something. No empty cell or blank stands at its ends.
struct caption_line {
    int row = 0;    // from 0, of the screen's rows
    int column = 0; // of its first cell, from 0
    std::vector<caption_cell> cells;

    bool operator==(const caption_line&) const = default;
};

struct caption_screen {
    int rows = 15;                   // of the grid, which spans the safe part of the picture
    int columns = 32;                // of the grid
    std::vector<caption_line> lines; // from the top

    bool operator==(const caption_screen&) const = default;
};

// Adds what `cells` show to the end of the screen, unless it is nothing but blanks.
void add_caption_line(caption_screen& screen, int row, int column,
                      const std::vector<caption_cell>& cells);
