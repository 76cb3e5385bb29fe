// The text of playlists, RFC 8216. Pure functions of the records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "publisher/text/presentation.hpp"

// The media playlist of one track: those of the listed segments that the track has, which are the
// newest ones in a row.
std::string media_playlist_text(const presentation& p, const track& of);

// The master playlist: a variant for each rung, the renditions that they share, their captions.
std::string master_playlist_text(const presentation& p);

// "2026-11-21T21:09:11.040Z" of ticks since 1970.
std::string date_text(int64_t ticks);
