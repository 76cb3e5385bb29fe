// Playlists written at once, from their first line.
#pragma once

#include <string>

#include "publisher/text/iframe_playlist.hpp"
#include "publisher/text/playlist_text.hpp"

inline std::string whole_media_playlist(const presentation& p, const std::string& track)
{
    listed_lines lines = media_playlist_lines(track);
    lines.follow(p);
    return media_playlist_text(p, lines);
}

inline std::string whole_iframe_playlist(const presentation& p, const std::string& rung)
{
    listed_lines lines = iframe_playlist_lines(rung);
    lines.follow(p);
    return iframe_playlist_text(p, lines);
}
