// The playlist of the keyframes alone, RFC 8216 4.3.3.6, for seeking and for playing faster than
// usual. Its entries are bytes of the segments that the media playlist lists.
//
// No EXT-X-MAP stands in it: each segment begins with its tables, and that is where a client looks
// for them without one.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "publisher/text/listed_lines.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"

// Whether a keyframe `at` ticks behind the segment's beginning is listed behind those.
bool is_keyframe_listed(const segment_file& lead, int64_t at);

std::string iframe_playlist_name(const std::string& rung);
bool is_iframe_playlist_name(const std::string& name);

// The number of the rung's first keyframe behind `before`, the newest segment; null: there is none.
// Without one before, numbers set out from the time of day, `unix_s`, so that they do not fall.
uint64_t first_keyframe_behind(const segment* before, const std::string& rung, int64_t unix_s);

// Empty: none is listed. `lines` have followed the presentation.
listed_lines iframe_playlist_lines(const std::string& rung);
std::string iframe_playlist_text(const presentation& p, const listed_lines& lines);

// The line of the master playlist; empty: there is none.
std::string iframe_stream_text(const rung_facts& rung);

// The keyframes that the rung's list tells of, put back into the segments that it is about.
void take_up_keyframes(const media_list& iframes, const std::string& rung,
                       std::deque<segment>& segments);
