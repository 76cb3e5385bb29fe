#include "tools/captions/teletext_decoder.hpp"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include <libzvbi.h>

const bool teletext_is_built_in = true;

struct teletext_decoder {
    vbi_decoder* zvbi = nullptr;
    int completed_page = 0; // by the last packet; 0: none
};

namespace
{

void on_page(vbi_event* event, void* user_data)
{
    static_cast<teletext_decoder*>(user_data)->completed_page = event->ev.ttx_page.pgno;
}

// Players write on black, so black letters would not be seen.
caption_colour colour_of(unsigned int foreground)
{
    switch (foreground) {
    case VBI_RED:
        return caption_colour::red;
    case VBI_GREEN:
        return caption_colour::green;
    case VBI_YELLOW:
        return caption_colour::yellow;
    case VBI_BLUE:
        return caption_colour::blue;
    case VBI_MAGENTA:
        return caption_colour::magenta;
    case VBI_CYAN:
        return caption_colour::cyan;
    default:
        return caption_colour::white;
    }
}

// A character of double size stands in its first cell; the others repeat it.
bool repeats_another(const vbi_char& character)
{
    return character.size != VBI_NORMAL_SIZE && character.size != VBI_DOUBLE_WIDTH &&
           character.size != VBI_DOUBLE_HEIGHT && character.size != VBI_DOUBLE_SIZE;
}

// Subtitles stand in boxes; what is outside does not belong to them.
caption_cell cell_of(const vbi_char& character)
{
    constexpr unsigned int first_private_use = 0xE000; // mosaics and characters drawn by the page
    constexpr unsigned int zvbi_lira = 0xE800;         // the library is older than U+20BA
    caption_cell cell;
    if (character.opacity == VBI_TRANSPARENT_SPACE || character.conceal ||
        repeats_another(character) ||
        (character.unicode >= first_private_use && character.unicode != zvbi_lira))
        return cell;
    cell.character = character.unicode == zvbi_lira ? U'₺' : char32_t{character.unicode};
    cell.style.colour = colour_of(character.foreground);
    cell.style.italic = character.italic;
    cell.style.underline = character.underline;
    return cell;
}

caption_screen screen_of(const vbi_page& page)
{
    caption_screen screen{.rows = teletext_rows, .columns = teletext_columns, .lines = {}};
    std::vector<caption_cell> cells;
    for (int row = 1; row < std::min(page.rows, teletext_rows); ++row) {
        cells.clear();
        for (int column = 0; column < std::min(page.columns, teletext_columns); ++column)
            cells.push_back(cell_of(page.text[row * page.columns + column]));
        add_caption_line(screen, row, 0, cells);
    }
    return screen;
}

} // namespace

teletext_decoder* teletext_decoder_create()
{
    auto* decoder = new (std::nothrow) teletext_decoder;
    if (decoder == nullptr)
        return nullptr;
    decoder->zvbi = vbi_decoder_new();
    if (decoder->zvbi != nullptr &&
        vbi_event_handler_register(decoder->zvbi, VBI_EVENT_TTX_PAGE, on_page, decoder) != 0)
        return decoder;
    teletext_decoder_destroy(decoder);
    return nullptr;
}

void teletext_decoder_destroy(teletext_decoder* decoder)
{
    if (decoder != nullptr && decoder->zvbi != nullptr)
        vbi_decoder_delete(decoder->zvbi);
    delete decoder;
}

bool teletext_decoder_take(teletext_decoder* decoder, teletext_packet packet, int& page,
                           caption_screen& screen)
{
    vbi_sliced sliced = {};
    sliced.id = VBI_SLICED_TELETEXT_B;
    std::copy(packet.begin(), packet.end(), sliced.data);
    decoder->completed_page = 0;
    constexpr double no_time = 0; // the library would look for dropped frames between two times
    vbi_decode(decoder->zvbi, &sliced, 1, no_time);
    if (decoder->completed_page == 0)
        return false;

    constexpr int with_links = 0; // which the library would write into row 24
    vbi_page fetched;
    page = decoder->completed_page;
    if (!vbi_fetch_vt_page(decoder->zvbi, &fetched, page, VBI_ANY_SUBNO, VBI_WST_LEVEL_1p5,
                           teletext_rows, with_links))
        return false;
    screen = screen_of(fetched);
    vbi_unref_page(&fetched);
    return true;
}
