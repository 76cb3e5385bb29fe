// Languages as the stream codes them, ISO 639-2, and as playlists and viewers want them.
#pragma once

#include <string>

// The tag of RFC 5646: the code of two letters where there is one. Empty for what is no language
// code.
std::string language_tag(const std::string& code);

// The English name; empty where there is none.
std::string language_display_name(const std::string& code);
