#include "toolkit/start_code.hpp"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace
{

struct prefix_case {
    std::string_view name;
    std::vector<uint8_t> bytes;
    std::ptrdiff_t want; // offset of the prefix; the size when there is none
};

TEST(StartCode, PrefixIsFoundWhereverItStands)
{
    const prefix_case cases[] = {
        {.name = "empty range", .bytes = {}, .want = 0},
        {.name = "two zeros", .bytes = {0, 0}, .want = 2},
        {.name = "alone", .bytes = {0, 0, 1}, .want = 0},
        {.name = "after one byte", .bytes = {9, 0, 0, 1}, .want = 1},
        {.name = "after two bytes", .bytes = {9, 9, 0, 0, 1}, .want = 2},
        {.name = "after a leading zero", .bytes = {0, 0, 0, 1}, .want = 1},
        {.name = "after a false 01", .bytes = {0, 1, 0, 0, 1}, .want = 2},
        {.name = "after 00 00 02", .bytes = {0, 0, 2, 0, 0, 1}, .want = 3},
        {.name = "cut off at the end", .bytes = {9, 9, 9, 0, 0}, .want = 5},
        {.name = "the first of two", .bytes = {7, 0, 0, 1, 0, 0, 1}, .want = 1},
    };
    for (const prefix_case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint8_t* begin = c.bytes.data();
        EXPECT_EQ(find_start_code_prefix(begin, begin + c.bytes.size()) - begin, c.want);
    }
}

} // namespace
