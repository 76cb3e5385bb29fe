#include "publisher/text/language_names.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace
{

struct language_row {
    std::string_view code;
    std::string_view short_code;
    std::string_view name;
};

// Ascending by code; made of iso-codes by language_table.py.
constexpr auto languages = std::to_array<language_row>({
#include <language_table.inc>
});

const language_row* find_language(const std::string& code)
{
    const auto found = std::lower_bound(
        languages.begin(), languages.end(), code,
        [](const language_row& row, const std::string& wanted) { return row.code < wanted; });
    return found != languages.end() && found->code == code ? &*found : nullptr;
}

} // namespace

std::string language_tag(const std::string& code)
{
    const language_row* row = find_language(code);
    if (row == nullptr)
        return "";
    return row->short_code.empty() ? code : std::string(row->short_code);
}

std::string language_display_name(const std::string& code)
{
    const language_row* row = find_language(code);
    return row == nullptr ? "" : std::string(row->name);
}
