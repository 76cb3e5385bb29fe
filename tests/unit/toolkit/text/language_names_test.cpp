#include "toolkit/text/language_names.hpp"

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

namespace
{

using namespace std::string_literals;

struct name_case {
    std::string_view name;
    std::string code, want;
};

TEST(LanguageNames, KnownCodes)
{
    const name_case cases[] = {
        {.name = "two letters", .code = "en", .want = "English"},
        {.name = "three letters", .code = "eng", .want = "English"},
        {.name = "first of several names", .code = "spa", .want = "Spanish"},
        {.name = "no qualifier", .code = "ell", .want = "Greek"},
        {.name = "bibliographic code", .code = "gre", .want = "Greek"},
        {.name = "the older language of that name", .code = "grc", .want = "Ancient Greek"},
        {.name = "terminology code", .code = "deu", .want = "German"},
        {.name = "its bibliographic twin", .code = "ger", .want = "German"},
        {.name = "natural word order", .code = "nb", .want = "Norwegian Bokmål"},
        {.name = "common name", .code = "ben", .want = "Bangla"},
        {.name = "first row", .code = "aa", .want = "Afar"},
        {.name = "last row", .code = "zza", .want = "Zaza"},
        {.name = "special code", .code = "und", .want = "Undetermined"},
    };
    for (const name_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(vtt_langcode_to_full(c.code), c.want);
    }
}

TEST(LanguageNames, OthersComeBackUnchanged)
{
    const std::string codes[] = {"",    "v0",  "v12",   "vx",      "x",      "EN",      "Eng",
                                 "qaa", "zzz", "en-US", "english", "eng\0"s, "\xFF\x80"};
    for (const std::string& code : codes) {
        SCOPED_TRACE(code);
        EXPECT_EQ(vtt_langcode_to_full(code), code);
    }
}

TEST(LanguageNames, TableIsSortedWithoutDoubles)
{
    const auto table = vtt_language_names();
    EXPECT_EQ(std::ranges::adjacent_find(table, std::ranges::greater_equal{}, &language_name::code),
              table.end());
}

TEST(LanguageNames, CodesAreTwoOrThreeLowerCaseLetters)
{
    for (const language_name& row : vtt_language_names()) {
        SCOPED_TRACE(row.code);
        EXPECT_TRUE(row.code.size() == 2 || row.code.size() == 3);
        EXPECT_TRUE(std::ranges::all_of(row.code, [](char c) { return c >= 'a' && c <= 'z'; }));
    }
}

// A name stands between double quotes in a playlist, and a player lists it beside others.
TEST(LanguageNames, NamesAreFitForAnAttribute)
{
    for (const language_name& row : vtt_language_names()) {
        SCOPED_TRACE(row.code);
        EXPECT_FALSE(row.name.empty());
        EXPECT_EQ(row.name.find_first_of("\"\r\n;,"), std::string_view::npos);
        EXPECT_NE(row.name, row.code);
    }
}

TEST(LanguageNames, EveryTwoLetterCodeHasItsThreeLetterName)
{
    std::set<std::string_view> three_letter_names;
    size_t two_letter_codes = 0;
    for (const language_name& row : vtt_language_names())
        if (row.code.size() == 3)
            three_letter_names.insert(row.name);
    for (const language_name& row : vtt_language_names()) {
        if (row.code.size() != 2)
            continue;
        SCOPED_TRACE(row.code);
        ++two_letter_codes;
        EXPECT_TRUE(three_letter_names.contains(row.name));
    }
    EXPECT_EQ(two_letter_codes, 184U);
    EXPECT_EQ(three_letter_names.size(), 486U);
}

} // namespace
