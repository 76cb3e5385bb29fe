#include "v2/playlist/rendition_groups.hpp"

std::string audio_group;
std::string captions_group;
std::string subtitles_group;
