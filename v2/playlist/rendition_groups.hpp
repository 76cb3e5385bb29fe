// The names of the rendition groups that the master playlist announces, RFC 8216 4.3.4.1. They are
// process-wide because there is one master playlist a run, and because the subtitle group comes
// into being at a cut, far from the list that announces it. Empty: the group does not exist.
#pragma once

#include <string>

extern std::string audio_group;     // "aud", set at start-up
extern std::string captions_group;  // "caps", set at start-up when there is a master playlist
extern std::string subtitles_group; // "subs", set at the first cut that finds a caption language
