#include "publisher/text/language_names.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "toolkit/text/language_names.hpp"

namespace
{

// Codes of ISO 639-2 that stand for no language.
constexpr std::array<std::string_view, 4> no_languages = {"mis", "mul", "und", "zxx"};

} // namespace

std::string language_display_name(const std::string& code)
{
    if (std::find(no_languages.begin(), no_languages.end(), code) != no_languages.end())
        return "";
    const std::string name = vtt_langcode_to_full(code);
    return name == code ? "" : name;
}

// All codes of a language have the same name in the table.
std::string language_tag(const std::string& code)
{
    const std::string name = language_display_name(code);
    if (name.empty())
        return "";
    for (const language_name& language : vtt_language_names()) {
        if (language.code.size() == 2 && language.name == name)
            return std::string(language.code);
    }
    return code;
}
