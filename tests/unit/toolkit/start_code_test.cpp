#include "toolkit/start_code.hpp"

#include <algorithm>
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

// Each range has a size of its own, so that a read past its end shows, and up to `at` every other
// byte is a zero that is no part of a pair.
TEST(StartCode, PairAndPrefixAreFoundInEachPlaceOfEachRange)
{
    for (size_t size = 0; size <= 200; size++) {
        for (size_t at = 0; at <= size; at++) {
            SCOPED_TRACE(testing::Message() << "at " << at << " of " << size);
            std::vector<uint8_t> bytes(size, 1);
            for (size_t i = at % 2; i < at; i += 2)
                bytes[i] = 0;
            for (size_t i = at; i < std::min(at + 2, size); i++)
                bytes[i] = 0;
            const uint8_t* begin = bytes.data();
            const size_t pair = at + 2 <= size ? at : size;
            const size_t prefix = at + 3 <= size ? at : size;
            EXPECT_EQ(find_zero_pair(begin, begin + size), begin + pair);
            EXPECT_EQ(find_start_code_prefix(begin, begin + size), begin + prefix);
        }
    }
}

} // namespace
