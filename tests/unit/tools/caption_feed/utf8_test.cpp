#include "tools/caption_feed/utf8.hpp"

#include <gtest/gtest.h>

namespace
{

using namespace std::string_view_literals;

struct utf8_case {
    std::string_view name, bytes;
    std::string_view want; // with "?" for U+FFFD
};

std::string with_replacements(std::string_view want)
{
    std::string text;
    for (const char c : want)
        text += c == '?' ? std::string("\xEF\xBF\xBD") : std::string(1, c);
    return text;
}

TEST(Utf8, IllFormedPartsAreReplaced)
{
    constexpr utf8_case cases[] = {
        {.name = "empty", .bytes = "", .want = ""},
        {.name = "ASCII", .bytes = "a\tb\x7F", .want = "a\tb\x7F"},
        {.name = "two to four bytes", .bytes = "é€😀", .want = "é€😀"},
        {.name = "NUL", .bytes = "a\0b"sv, .want = "a?b"},
        {.name = "lone continuation", .bytes = "a\x80\xBF", .want = "a??"},
        {.name = "cut off", .bytes = "a\xE2\x82", .want = "a?"},
        {.name = "cut off by ASCII", .bytes = "\xE2\x82z", .want = "?z"},
        {.name = "cut off by a lead", .bytes = "\xF0\x9F\xC3\xA9", .want = "?é"},
        {.name = "overlong slash", .bytes = "\xC0\xAF", .want = "??"},
        {.name = "overlong of three", .bytes = "\xE0\x80\xAF", .want = "???"},
        {.name = "surrogate", .bytes = "\xED\xA0\x80", .want = "???"},
        {.name = "last before the surrogates", .bytes = "\xED\x9F\xBF", .want = "\xED\x9F\xBF"},
        {.name = "last code point", .bytes = "\xF4\x8F\xBF\xBF", .want = "\xF4\x8F\xBF\xBF"},
        {.name = "past the last", .bytes = "\xF4\x90\x80\x80", .want = "????"},
        {.name = "no lead", .bytes = "\xF5\xFE\xFF", .want = "???"},
        {.name = "Latin-1", .bytes = "caf\xE9 noir", .want = "caf? noir"},
    };
    for (const utf8_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(repaired_utf8(c.bytes), with_replacements(c.want));
    }
}

} // namespace
