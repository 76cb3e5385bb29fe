// The text of playlists, RFC 8216. Pure functions of the records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "publisher/text/listed_lines.hpp"
#include "publisher/text/presentation.hpp"

// The media playlist of one track: those of the listed segments that the track has, which are the
// newest ones in a row. `lines` have followed the presentation.
listed_lines media_playlist_lines(const std::string& track);
std::string media_playlist_text(const presentation& p, const listed_lines& lines);

// The master playlist: a variant for each rung, the renditions that they share, their captions.
std::string master_playlist_text(const presentation& p);

// "2026-11-21T21:09:11.040Z" of ticks since 1970.
std::string date_text(int64_t ticks);
