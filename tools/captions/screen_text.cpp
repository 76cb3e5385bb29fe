#include "tools/captions/screen_text.hpp"

#include <algorithm>
#include <cstdlib>

namespace
{

// The class names of WebVTT, 5.2.1. Its green is the half-bright one, so captions' green is lime.
const char* class_of(caption_colour colour)
{
    switch (colour) {
    case caption_colour::white:
        return "white";
    case caption_colour::green:
        return "lime";
    case caption_colour::blue:
        return "blue";
    case caption_colour::cyan:
        return "cyan";
    case caption_colour::red:
        return "red";
    case caption_colour::yellow:
        return "yellow";
    case caption_colour::magenta:
        return "magenta";
    case caption_colour::black:
        return "black";
    }
    return "white";
}

void append_utf8(std::string& out, char32_t c)
{
    const auto put = [&out](char32_t byte) {
        out.push_back(static_cast<char>(byte));
    };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | (c >> 6));
        put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        put(0xE0 | (c >> 12));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | (c >> 18));
        put(0x80 | ((c >> 12) & 0x3F));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

// What would begin a tag or a reference is written as a reference, "-->" with it.
void append_character(std::string& out, char32_t c)
{
    const bool is_surrogate = c >= 0xD800 && c <= 0xDFFF;
    if (c == 0)
        out += ' ';
    else if (c == U'&')
        out += "&amp;";
    else if (c == U'<')
        out += "&lt;";
    else if (c == U'>')
        out += "&gt;";
    else if (c < 0x20 || c == 0x7F || is_surrogate || c > 0x10FFFF)
        out += "\xEF\xBF\xBD"; // U+FFFD
    else
        append_utf8(out, c);
}

void open_tags(std::string& out, const caption_style& style)
{
    if (style.colour != caption_colour::white)
        out.append("<c.").append(class_of(style.colour)).append(">");
    if (style.italic)
        out += "<i>";
    if (style.underline)
        out += "<u>";
}

void close_tags(std::string& out, const caption_style& style)
{
    if (style.underline)
        out += "</u>";
    if (style.italic)
        out += "</i>";
    if (style.colour != caption_colour::white)
        out += "</c>";
}

void append_line(std::string& out, const caption_line& line)
{
    caption_style style;
    for (const caption_cell& cell : line.cells) {
        // A blank takes on the style beside it, as long as no underline would show.
        const bool blank = cell.character == U' ' || cell.character == 0;
        const bool keeps = blank && !style.underline && !cell.style.underline;
        if (!keeps && cell.style != style) {
            close_tags(out, style);
            style = cell.style;
            open_tags(out, style);
        }
        append_character(out, cell.character);
    }
    close_tags(out, style);
}

// The safe part of the picture is 80 % of its width and height.
int percent(int place, int places)
{
    return 10 + (80 * place + places / 2) / places;
}

bool is_at_the_bottom(const caption_screen& screen)
{
    return screen.lines.back().row >= screen.rows - screen.rows / 4;
}

// Whether each line stands in the middle, give or take what even and odd lengths make of it.
bool is_centred(const caption_screen& screen)
{
    return std::ranges::all_of(screen.lines, [&screen](const caption_line& line) {
        const int right = screen.columns - line.column - static_cast<int>(line.cells.size());
        return std::abs(line.column - right) <= 4;
    });
}

} // namespace

std::string vtt_text(const caption_screen& screen)
{
    std::string text;
    for (const caption_line& line : screen.lines) {
        const size_t bytes_before = text.size();
        if (!text.empty())
            text += '\n';
        append_line(text, line);
        if (text.size() > most_text_bytes) {
            text.resize(bytes_before);
            break;
        }
    }
    return text;
}

std::string vtt_settings(const caption_screen& screen)
{
    if (screen.lines.empty() || screen.rows <= 0 || screen.columns <= 0)
        return {};

    std::string settings;
    if (!is_at_the_bottom(screen))
        settings = "line:" + std::to_string(percent(screen.lines.front().row, screen.rows)) + "%";
    if (!is_centred(screen)) {
        const auto leftmost = std::ranges::min_element(
            screen.lines, {}, [](const caption_line& line) { return line.column; });
        settings += settings.empty() ? "" : " ";
        settings += "position:" + std::to_string(percent(leftmost->column, screen.columns)) +
                    "% align:start";
    }
    return settings;
}
