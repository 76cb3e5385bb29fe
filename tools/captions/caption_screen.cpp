#include "tools/captions/caption_screen.hpp"

#include <algorithm>

namespace
{

bool is_blank(const caption_cell& cell)
{
    return cell.character == 0 || cell.character == U' ' || cell.character == U'\u00A0';
}

} // namespace

void add_caption_line(caption_screen& screen, int row, int column,
                      const std::vector<caption_cell>& cells)
{
    const auto first = std::ranges::find_if_not(cells, is_blank);
    if (first == cells.end())
        return;
    const auto last = std::find_if_not(cells.rbegin(), cells.rend(), is_blank).base();
    screen.lines.push_back({.row = row,
                            .column = column + static_cast<int>(first - cells.begin()),
                            .cells = {first, last}});
}
