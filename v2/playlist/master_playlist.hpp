// The text of the multilevel master playlist after its first two lines, RFC 8216 4.3.4: closed
// captions inside the video, one subtitle rendition per caption language, the audio renditions, and
// the one variant.
#pragma once

#include <string>
#include <string_view>

#include "v2/playlist/m3u8_list.hpp"

std::string master_playlist_body(const m3u8_list& list);

enum class quoting { plain, quoted };

// Appends one attribute of an attribute list to `out`, RFC 8216 4.2. `count` holds the attributes
// already on the line and starts at 0.
void m3u8_attr(std::string& out, unsigned& count, std::string_view name, std::string_view value,
               quoting quote);
