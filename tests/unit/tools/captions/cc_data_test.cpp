#include "tools/captions/cc_data.hpp"

#include <gtest/gtest.h>

#include "tests/support/caption_data.hpp"

namespace
{

std::vector<caption_bytes> four_pairs()
{
    return {{.type = 0, .first = 0x94, .second = 0x20},
            {.type = 1, .first = 0x80, .second = 0x80},
            {.type = 3, .first = 0x42, .second = 0x21},
            {.type = 2, .first = 0, .second = 0}};
}

std::vector<cc_pair> want_pairs()
{
    return {{cc_type::field_1, 0x94, 0x20},
            {cc_type::field_2, 0x80, 0x80},
            {cc_type::dtvcc_start, 0x42, 0x21},
            {cc_type::dtvcc_data, 0, 0}};
}

std::vector<cc_pair> pairs_of(const byte_string& user_data)
{
    std::vector<cc_pair> pairs;
    append_a53_pairs(user_data, pairs);
    return pairs;
}

// A NAL unit as the reader of start codes hands it on.
std::vector<cc_pair> pairs_of_sei(const std::vector<byte_string>& messages)
{
    const byte_string unit = build_caption_sei(messages);
    std::vector<cc_pair> pairs;
    append_sei_pairs(std::span(unit).subspan(4), pairs);
    return pairs;
}

// From a broadcast encoder's picture: country, provider, GA94, two pairs of which one is valid.
TEST(CcData, BytesThatNoBuilderMade)
{
    const byte_string unit = {0x06, 0x04, 0x11, 0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03,
                              0xC2, 0xFF, 0xFC, 0x94, 0x2C, 0xF9, 0x80, 0x80, 0xFF, 0x80};
    std::vector<cc_pair> pairs;
    append_sei_pairs(unit, pairs);
    EXPECT_EQ(pairs, (std::vector<cc_pair>{{cc_type::field_1, 0x94, 0x2C}}));
}

TEST(CcData, PairsOfAllTypes)
{
    EXPECT_EQ(pairs_of(build_a53_user_data(four_pairs())), want_pairs());
    EXPECT_EQ(pairs_of_sei({build_a53_user_data(four_pairs())}), want_pairs());
}

TEST(CcData, InvalidPairsAreLeftOut)
{
    std::vector<caption_bytes> pairs = four_pairs();
    pairs[1].valid = false;
    std::vector<cc_pair> want = want_pairs();
    want.erase(want.begin() + 1);
    EXPECT_EQ(pairs_of(build_a53_user_data(pairs)), want);
}

TEST(CcData, CutOffAnywhereLeavesTheWholePairs)
{
    const byte_string whole = build_a53_user_data(four_pairs());
    const std::vector<cc_pair> want = want_pairs();
    for (size_t size = 0; size < whole.size(); ++size) {
        const size_t pairs = size < 7 ? 0 : std::min<size_t>((size - 7) / 3, 4);
        EXPECT_EQ(pairs_of({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)}),
                  std::vector<cc_pair>(want.begin(), want.begin() + static_cast<ptrdiff_t>(pairs)))
            << size;
    }
}

TEST(CcData, OtherUserDataHasNone)
{
    byte_string data = build_a53_user_data(four_pairs());
    data[4] = 6; // bar data
    EXPECT_TRUE(pairs_of(data).empty());
    data = build_a53_user_data(four_pairs());
    data[0] = 'D';
    EXPECT_TRUE(pairs_of(data).empty());
    data = build_a53_user_data(four_pairs());
    data[5] &= 0xBF; // process_cc_data_flag
    EXPECT_TRUE(pairs_of(data).empty());
}

TEST(CcData, PairsWithoutAPictureDoNotPileUp)
{
    const byte_string data = build_a53_user_data(std::vector<caption_bytes>(31, four_pairs()[0]));
    std::vector<cc_pair> pairs;
    for (int i = 0; i < 17; ++i)
        append_a53_pairs(data, pairs);
    EXPECT_EQ(pairs.size(), most_pairs_of_a_picture);
}

TEST(CcData, SeveralMessagesOfAnSei)
{
    const std::vector<caption_bytes> many(31,
                                          four_pairs()[0]); // more than 255 bytes need two of size
    std::vector<caption_bytes> more = many;
    more.insert(more.end(), many.begin(), many.end());
    byte_string long_message(300, 0);
    const std::vector<cc_pair> got =
        pairs_of_sei({long_message, build_a53_user_data(four_pairs()), bytes_of("DTG1")});
    EXPECT_EQ(got, want_pairs());
}

TEST(CcData, SeiThatIsCutOffAnywhereIsHarmless)
{
    const byte_string unit =
        build_caption_sei({byte_string(300, 0), build_a53_user_data(four_pairs())});
    for (size_t size = 0; size + 4 < unit.size(); ++size) {
        std::vector<cc_pair> pairs;
        append_sei_pairs(std::span(unit).subspan(4, size), pairs);
        EXPECT_LE(pairs.size(), 4U);
    }
}

} // namespace
