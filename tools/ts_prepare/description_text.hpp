// A stream's description in words and as JSON.
#pragma once

#include <string>

#include "tools/ts_prepare/stream_description.hpp"

// A few lines, each with its end.
std::string description_as_text(const stream_description& description, int frag_duration);

// One line, with its end.
std::string description_as_json(const stream_description& description, int frag_duration);
