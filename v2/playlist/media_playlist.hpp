// The text of a live media playlist after its first two lines, RFC 8216 4.3.3. It always describes
// an open, sliding range of fragments: no end-of-list, discontinuity or date tag is ever written.
#pragma once

#include <string>

#include "v2/playlist/m3u8_list.hpp"

// Entries marked nolist or eraseme may only stand before the first that is not; anything else is a
// broken invariant. An entry without a name is reported on standard error and leaves an empty line.
std::string media_playlist_body(const m3u8_list& list);
