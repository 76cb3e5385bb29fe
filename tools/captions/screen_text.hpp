// A screen as a WebVTT cue: its text with tags, and its settings (W3C WebVTT, 4.2.2 and 4.4).
#pragma once

#include <cstddef>
#include <string>

#include "tools/captions/caption_screen.hpp"

// Many times what a screen needs. Only a hostile one comes to more: windows stacked one on the
// other, each letter with a style of its own.
constexpr size_t most_text_bytes = 16384;

// Lines separated by LF, as many as most_text_bytes hold. Italics and underlines become <i> and
// <u>, a colour other than white becomes a class that WebVTT knows by itself, such as <c.yellow>
// (5.2).
std::string vtt_text(const caption_screen& screen);

// Where the cue stands. What stands where players put captions anyway, centred at the bottom, needs
// no settings, and gets none: players keep it clear of their controls then.
std::string vtt_settings(const caption_screen& screen);
