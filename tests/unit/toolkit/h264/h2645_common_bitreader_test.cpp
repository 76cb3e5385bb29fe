#include "toolkit/h264/h2645_common_bitreader.hpp"

#include <stdexcept>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bit_writer.hpp"

namespace tremsa
{

namespace
{

using bytes = std::vector<uint8_t>;

h2645_common_bitreader reader_of(const bytes& b)
{
    return {b.data(), b.data() + b.size()};
}

TEST(BitReader, ReadsMostSignificantBitsFirst)
{
    const bytes b = {0xA5, 0x0F, 0xFF, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9A};
    h2645_common_bitreader r = reader_of(b);
    EXPECT_EQ(r.u(1), 1u);
    EXPECT_EQ(r.u(3), 2u);
    EXPECT_EQ(r.u(0), 0u);
    EXPECT_EQ(r.u(8), 0x50u);
    EXPECT_EQ(r.u(32), 0xFFF00123u); // over five bytes
    EXPECT_EQ(r.u(28), 0x456789Au);
    EXPECT_EQ(r.bits_left(), 0u);
    EXPECT_FALSE(r.error());
}

TEST(BitReader, LatchesAnOverrun)
{
    const bytes b = {0xFF, 0xFF};
    h2645_common_bitreader r = reader_of(b);
    EXPECT_EQ(r.u(9), 0x1FFu);
    EXPECT_EQ(r.u(8), 0u); // one bit too many
    EXPECT_TRUE(r.error());
    EXPECT_EQ(r.u(1), 0u); // a bit is there, but the error stands
    EXPECT_EQ(r.ue(), 0u);
    EXPECT_EQ(r.se(), 0);
    r.skip(0);
    EXPECT_EQ(r.bits_left(), 7u);
    EXPECT_FALSE(r.more_rbsp_data());
    EXPECT_TRUE(r.error());
}

TEST(BitReader, SkipsNoFurtherThanTheEnd)
{
    const bytes b = {0x00, 0x01};
    h2645_common_bitreader r = reader_of(b);
    r.skip(15);
    EXPECT_EQ(r.u(1), 1u);
    r.skip(0);
    EXPECT_FALSE(r.error());
    r.skip(1);
    EXPECT_TRUE(r.error());

    h2645_common_bitreader far = reader_of(b);
    far.skip(UINT64_MAX);
    EXPECT_TRUE(far.error());
}

TEST(BitReader, EmptyRangeHoldsNoBits)
{
    h2645_common_bitreader null(nullptr, nullptr);
    EXPECT_EQ(null.bits_left(), 0u);
    EXPECT_FALSE(null.more_rbsp_data());
    EXPECT_EQ(null.u(0), 0u);
    EXPECT_FALSE(null.error());
    EXPECT_EQ(null.ue(), 0u);
    EXPECT_TRUE(null.error());
}

TEST(BitReader, RefusesARangeThatEndsBeforeItBegins)
{
    const bytes b = {1, 2};
    try {
        h2645_common_bitreader r(b.data() + 1, b.data());
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "data_sink_memory pointers not acceptable");
    }
}

struct exp_golomb_case {
    std::string_view name;
    bytes code;
    uint32_t ue;
    int32_t se;
    uint64_t bits; // length of the code
};

TEST(BitReader, ReadsExpGolombCodes)
{
    // Tables 9-2 and 9-3, then the longest codes there are.
    const exp_golomb_case cases[] = {
        {.name = "1", .code = {0x80}, .ue = 0, .se = 0, .bits = 1},
        {.name = "010", .code = {0x40}, .ue = 1, .se = 1, .bits = 3},
        {.name = "011", .code = {0x60}, .ue = 2, .se = -1, .bits = 3},
        {.name = "00100", .code = {0x20}, .ue = 3, .se = 2, .bits = 5},
        {.name = "00101", .code = {0x28}, .ue = 4, .se = -2, .bits = 5},
        {.name = "00110", .code = {0x30}, .ue = 5, .se = 3, .bits = 5},
        {.name = "00111", .code = {0x38}, .ue = 6, .se = -3, .bits = 5},
        {.name = "0001010", .code = {0x14}, .ue = 9, .se = 5, .bits = 7},
        {.name = "31 zeros, all suffix bits 0",
         .code = {0, 0, 0, 1, 0, 0, 0, 0},
         .ue = 0x7FFFFFFF,
         .se = 0x40000000,
         .bits = 63},
        {.name = "31 zeros, the largest odd number",
         .code = {0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFC},
         .ue = 0xFFFFFFFD,
         .se = INT32_MAX,
         .bits = 63},
        {.name = "31 zeros, all suffix bits 1",
         .code = {0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE},
         .ue = 0xFFFFFFFE,
         .se = -INT32_MAX,
         .bits = 63},
    };
    for (const exp_golomb_case& c : cases) {
        SCOPED_TRACE(c.name);
        h2645_common_bitreader u = reader_of(c.code);
        EXPECT_EQ(u.ue(), c.ue);
        EXPECT_EQ(u.bits_left(), c.code.size() * 8 - c.bits);
        EXPECT_FALSE(u.error());
        h2645_common_bitreader s = reader_of(c.code);
        EXPECT_EQ(s.se(), c.se);
        EXPECT_FALSE(s.error());
    }
}

TEST(BitReader, RefusesExpGolombCodesWithMoreThan31Zeros)
{
    const bytes zeros_32 = {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    h2645_common_bitreader r = reader_of(zeros_32);
    EXPECT_EQ(r.ue(), 0u);
    EXPECT_TRUE(r.error());

    const bytes zeros_only(8192, 0);
    h2645_common_bitreader z = reader_of(zeros_only);
    EXPECT_EQ(z.se(), 0);
    EXPECT_TRUE(z.error());
}

TEST(BitReader, RefusesExpGolombCodesThatAreCutOff)
{
    const bytes prefix_only = {0x00};
    h2645_common_bitreader p = reader_of(prefix_only);
    EXPECT_EQ(p.ue(), 0u);
    EXPECT_TRUE(p.error());

    const bytes suffix_short = {0x01}; // seven zeros, so seven suffix bits
    h2645_common_bitreader s = reader_of(suffix_short);
    EXPECT_EQ(s.ue(), 0u);
    EXPECT_TRUE(s.error());
}

TEST(BitReader, LimitsAreErrorsWhenBroken)
{
    const bytes b = bit_writer{}.ue(5).ue(6).align(0).bytes();
    h2645_common_bitreader u = reader_of(b);
    EXPECT_EQ(u.ue(5), 5u);
    EXPECT_FALSE(u.error());
    EXPECT_EQ(u.ue(5), 0u);
    EXPECT_TRUE(u.error());

    for (const int64_t value : {-129, -128, 0, 127, 128}) {
        SCOPED_TRACE(value);
        const bytes coded = bit_writer{}.se(value).align(0).bytes();
        h2645_common_bitreader s = reader_of(coded);
        const bool within = value >= -128 && value <= 127;
        EXPECT_EQ(s.se(-128, 127), within ? value : 0);
        EXPECT_EQ(s.error(), !within);
    }
}

struct more_case {
    std::string_view name;
    bytes rbsp;
    uint32_t read; // bits consumed first
    bool want;
};

TEST(BitReader, MoreRbspDataEndsAtTheStopBit)
{
    const more_case cases[] = {
        {.name = "before the stop bit", .rbsp = {0xA8}, .read = 3, .want = true},
        {.name = "at the stop bit", .rbsp = {0xA8}, .read = 4, .want = false},
        {.name = "past the stop bit", .rbsp = {0xA8}, .read = 5, .want = false},
        {.name = "stop bit opens its byte", .rbsp = {0xFF, 0x80}, .read = 8, .want = false},
        {.name = "stop bit ends its byte", .rbsp = {0x01}, .read = 0, .want = true},
        {.name = "zero data bits before it", .rbsp = {0x00, 0x00, 0x80}, .read = 8, .want = true},
        {.name = "trailing zero bytes", .rbsp = {0xA8, 0, 0, 0}, .read = 4, .want = false},
        {.name = "read into trailing zeros", .rbsp = {0xA8, 0, 0, 0}, .read = 20, .want = false},
        {.name = "no bit set", .rbsp = {0, 0}, .read = 0, .want = false},
        {.name = "only the stop bit", .rbsp = {0x80}, .read = 0, .want = false},
    };
    for (const more_case& c : cases) {
        SCOPED_TRACE(c.name);
        h2645_common_bitreader r = reader_of(c.rbsp);
        r.skip(c.read);
        EXPECT_EQ(r.more_rbsp_data(), c.want);
    }
}

} // namespace

} // namespace tremsa
