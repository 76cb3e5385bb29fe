#include "v2/playlist/media_playlist.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "v2/base/assertion.hpp"
#include "v2/base/text.hpp"
#include "v2/playlist/url_escape.hpp"

namespace
{

// The walk over the entries belongs to the writing of the playlist, and is reported as its own.
constexpr const char* write_m3u8 = "bool m3u8_list::write_m3u8()";

} // namespace

std::string media_playlist_body(const m3u8_list& list)
{
    auto i = std::find_if(list.entries.begin(), list.entries.end(),
                          [](const m3u8_entry& entry) { return !entry.nolist && !entry.eraseme; });

    std::string text = format_text("#EXT-X-TARGETDURATION:%" PRIu64 "\n", list.target_duration);
    if (i != list.entries.end())
        text += format_text("#EXT-X-MEDIA-SEQUENCE:%" PRIu64 "\n", i->sequence);
    text += "\n";

    for (; i != list.entries.end(); ++i) {
        ASSERT_INVARIANT(i->nolist == false, write_m3u8);
        ASSERT_INVARIANT(i->eraseme == false, write_m3u8);
        if (i->holdback)
            break;
        if (i->name.empty()) {
            // Renditions that exist but receive no packets get here at every cut.
            std::fprintf(stderr,
                         "M3U8 warning: Fragment name is missing for segment %" PRIu64
                         " '%s' (FIX THIS BUG)\n",
                         i->sequence, list.file_name.c_str());
        } else {
            text += format_text("#EXTINF:%.3f,\n", i->duration);
            text += list.base_url + url_escape(i->name) + "\n";
        }
        text += "\n";
    }
    return text;
}
