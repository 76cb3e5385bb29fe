// English names of language codes, as viewers see them in a player's subtitle menu: every code of
// ISO 639-1 (two letters) and of ISO 639-2 (three letters, the terminology and the bibliographic
// code where they differ), lower case. The range for local use has no names.
#pragma once

#include <span>
#include <string>
#include <string_view>

struct language_name {
    std::string_view code;
    std::string_view name;
};

// The name of `code`; a code without a name comes back byte for byte, which is how callers tell.
std::string vtt_langcode_to_full(const std::string& code);

// The whole table, ascending by code.
std::span<const language_name> vtt_language_names();
