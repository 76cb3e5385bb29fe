#include "tools/captions/start_code_units.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using bytes = std::vector<uint8_t>;

// The units whose code is below 0x10, from a stream cut into pieces of `step` bytes.
std::vector<bytes> units_of(const bytes& stream, size_t step)
{
    start_code_units scanner;
    std::vector<bytes> units;
    const auto keep = [&units](std::span<const uint8_t> unit) {
        units.emplace_back(unit.begin(), unit.end());
    };
    const auto wanted = [](uint8_t code) {
        return code < 0x10 ? unit_part::whole : unit_part::none;
    };
    std::span<const uint8_t> rest = stream;
    while (!rest.empty()) {
        const auto piece = rest.first(std::min(step, rest.size()));
        EXPECT_TRUE(scanner.feed(piece, wanted, keep));
        rest = rest.subspan(piece.size());
    }
    scanner.finish(keep);
    return units;
}

struct unit_case {
    std::string name;
    bytes stream;
    std::vector<bytes> want;
};

const unit_case unit_cases[] = {
    {"nothing", {}, {}},
    {"no start code", {1, 2, 3, 0, 0, 2}, {}},
    {"one unit to the end", {9, 0, 0, 1, 6, 7, 8}, {{6, 7, 8}}},
    {"wanted between unwanted",
     {0, 0, 1, 0x25, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 1, 6, 7, 0, 0, 1, 0x21, 5, 5},
     {{6, 7}}},
    {"four-byte start codes keep their zero", {0, 0, 0, 1, 6, 7, 0, 0, 0, 1, 7}, {{6, 7, 0}, {7}}},
    {"code byte that begins the next prefix", {0, 0, 1, 0, 0, 1, 6, 9, 0, 0, 1, 0}, {{6, 9}, {0}}},
    {"neighbours", {0, 0, 1, 5, 0, 0, 1, 6, 0, 0, 1, 7}, {{5}, {6}, {7}}},
    {"prefix cut off by the end", {0, 0, 1, 6, 1, 2, 0, 0, 1}, {{6, 1, 2, 0, 0, 1}}},
};

TEST(StartCodeUnits, AreTheSameHoweverTheStreamIsCut)
{
    for (const unit_case& c : unit_cases) {
        for (size_t step = 1; step <= c.stream.size() + 1; ++step) {
            SCOPED_TRACE(c.name + ", pieces of " + std::to_string(step));
            EXPECT_EQ(units_of(c.stream, step), c.want);
        }
    }
}

TEST(StartCodeUnits, MayEndAtACode)
{
    const bytes stream = {0, 0, 1, 6, 7, 0, 0, 1, 0x21, 5, 0, 0, 1, 6, 8};
    start_code_units scanner;
    std::vector<bytes> units;
    const auto keep = [&units](std::span<const uint8_t> unit) {
        units.emplace_back(unit.begin(), unit.end());
    };
    EXPECT_FALSE(scanner.feed(
        stream, [](uint8_t code) { return code == 6 ? unit_part::whole : unit_part::end; }, keep));
    scanner.finish(keep);
    EXPECT_EQ(units, std::vector<bytes>{(bytes{6, 7})});
}

TEST(StartCodeUnits, OnlyTheStartMayBeWanted)
{
    for (const size_t size : {unit_start_bytes - 1, unit_start_bytes, unit_start_bytes + 1,
                              unit_start_bytes + 2, unit_start_bytes + 3, largest_unit_bytes * 2}) {
        bytes stream = {0, 0, 1};
        stream.insert(stream.end(), size, 6);
        stream.insert(stream.end(), {0, 0, 1, 7});
        start_code_units scanner;
        std::vector<size_t> sizes;
        const auto keep = [&sizes](std::span<const uint8_t> unit) {
            sizes.push_back(unit.size());
        };
        const auto start = [](uint8_t) {
            return unit_part::start;
        };
        EXPECT_TRUE(scanner.feed(stream, start, keep));
        scanner.finish(keep);
        EXPECT_EQ(sizes, (std::vector<size_t>{std::min(size, unit_start_bytes), 1}));
    }
}

// So that no more of a large unit has to be read to know what it is.
TEST(StartCodeUnits, StartIsGivenAsSoonAsItIsThere)
{
    start_code_units scanner;
    size_t units = 0;
    const auto count = [&units](std::span<const uint8_t> unit) {
        EXPECT_EQ(unit.size(), unit_start_bytes);
        ++units;
    };
    const auto start = [](uint8_t) {
        return unit_part::start;
    };
    bytes stream = {0, 0, 1};
    stream.insert(stream.end(), unit_start_bytes + 2, 6); // two of which could be of a start code
    EXPECT_TRUE(scanner.feed(stream, start, count));
    EXPECT_EQ(units, 0U);
    EXPECT_TRUE(scanner.feed(bytes{6}, start, count));
    EXPECT_EQ(units, 1U);
    EXPECT_TRUE(scanner.feed(bytes(1000, 6), start, count));
    scanner.finish(count);
    EXPECT_EQ(units, 1U);
}

TEST(StartCodeUnits, OneThatIsTooLargeIsPassedOver)
{
    for (const size_t size : {largest_unit_bytes, largest_unit_bytes + 1}) {
        bytes stream = {0, 0, 1};
        stream.insert(stream.end(), size, 6);
        EXPECT_EQ(units_of(stream, 184).size(), size <= largest_unit_bytes ? 1U : 0U);
        stream.insert(stream.end(), {0, 0, 1, 7});
        EXPECT_EQ(units_of(stream, 184).back(), bytes{7});
    }
}

} // namespace
