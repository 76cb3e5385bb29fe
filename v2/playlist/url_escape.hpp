// The escaping of file names in every URI of every playlist.
#pragma once

#include <string>

// Escapes what would break a playlist line or a query string: bytes below 0x21, "%", "&" and "?",
// each as a percent sign and two upper-case hexadecimal digits. All other bytes pass as they are,
// UTF-8 included. The rule is this narrow on purpose.
std::string url_escape(const std::string& name);
