// Formatted text as a std::string, for what goes into files and file names.
#pragma once

#include <string>

// As snprintf(3); the compiler checks the format. Throws std::bad_alloc, as a string does, when
// there is no memory.
[[gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);
