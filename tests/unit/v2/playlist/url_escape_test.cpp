#include "v2/playlist/url_escape.hpp"

#include <cstdio>

#include <gtest/gtest.h>

namespace
{

TEST(UrlEscape, EscapesControlBytesBlankPercentAmpersandAndQuestionMark)
{
    for (int value = 0; value < 256; value++) {
        SCOPED_TRACE(value);
        const std::string raw(1, static_cast<char>(value));
        const bool escaped = value <= 0x20 || value == '%' || value == '&' || value == '?';
        char want[4] = {};
        std::snprintf(want, sizeof(want), "%%%02X", static_cast<unsigned>(value));
        EXPECT_EQ(url_escape(raw), escaped ? std::string(want) : raw);
    }
}

TEST(UrlEscape, KeepsTheBytesInOrder)
{
    EXPECT_EQ(url_escape(""), "");
    EXPECT_EQ(url_escape("a b&c?d%e/f:g#h+i=j\"k"), "a%20b%26c%3Fd%25e/f:g#h+i=j\"k");
    EXPECT_EQ(url_escape("\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(url_escape("%20"), "%2520");
}

} // namespace
